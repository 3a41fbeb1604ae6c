// Styles: reading the document's style objects, and drawing fills, borders
// and images onto small surfaces whose pixels can be checked by hand.
#include "Files.h"
#include "ImageSource.h"
#include "Style.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <jpeglib.h>

#include <cmath>
#include <limits>
#include <memory>

using namespace plexa;
using namespace plexa::render;
using plexa::test::LogCapture;
using plexa::test::TempDir;

namespace {

// --- fixtures built in code ---

JsonObject colorJSON(double r, double g, double b, double a = 1) {
  return {{"_class", "color"}, {"red", r}, {"green", g}, {"blue", b}, {"alpha", a}};
}

JsonObject colorFill(JsonObject color, double opacity = 1, int blendMode = 0) {
  return {{"_class", "fill"}, {"isEnabled", true}, {"fillType", 0}, {"color", std::move(color)},
          {"contextSettings", {{"opacity", opacity}, {"blendMode", blendMode}}}};
}

JsonObject stopJSON(double position, JsonObject color) { return {{"position", position}, {"color", std::move(color)}}; }

JsonObject gradientFill(int type, const char* from, const char* to, JsonArray stops, double ellipse = 1) {
  return {{"isEnabled", true}, {"fillType", 1},
          {"gradient", {{"gradientType", type}, {"from", from}, {"to", to}, {"elipseLength", ellipse},
                        {"stops", std::move(stops)}}}};
}

JsonObject blackToWhite(int type, const char* from, const char* to, double ellipse = 1) {
  return gradientFill(type, from, to, {stopJSON(0, colorJSON(0, 0, 0)), stopJSON(1, colorJSON(1, 1, 1))}, ellipse);
}

JsonObject imageFill(const std::string& ref, int patternFillType, double tileScale = 1) {
  return {{"isEnabled", true}, {"fillType", 4}, {"image", {{"_class", "MSJSONFileReference"}, {"_ref", ref}}},
          {"patternFillType", patternFillType}, {"patternTileScale", tileScale}};
}

JsonObject border(int position, double thickness, JsonObject color = colorJSON(0, 0, 0)) {
  return {{"isEnabled", true}, {"fillType", 0}, {"position", position}, {"thickness", thickness},
          {"color", std::move(color)}};
}

JsonObject styleWith(JsonArray fills, JsonArray borders = {}, JsonObject extra = {}) {
  JsonObject style{{"_class", "style"}, {"fills", std::move(fills)}, {"borders", std::move(borders)}};
  for (auto& [key, value] : extra) style[key] = value;
  return style;
}

// An image source with nothing in it, for styles that need none.
ImageSource& noImages() {
  static ImageSource empty(ImageSource::Lookup([](const std::string&) { return std::optional<std::string>(); }));
  return empty;
}

Style build(const JsonObject& style, ImageSource& images = noImages()) {
  RenderNotes notes;
  JsonValue value(style);
  return buildStyle(&value, images, notes, "shapePath");
}

Path rectPath(double x, double y, double w, double h) {
  Path path;
  path.moveTo({x, y});
  path.lineTo({x + w, y});
  path.lineTo({x + w, y + h});
  path.lineTo({x, y + h});
  path.close();
  return path;
}

// A transparent ARGB canvas with unpremultiplied 0–255 pixel reads.
struct Canvas {
  struct Pixel {
    int r, g, b, a;
  };
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface;
  std::unique_ptr<cairo_t, decltype(&cairo_destroy)> context;

  Canvas(int w, int h)
      : surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h), cairo_surface_destroy),
        context(cairo_create(surface.get()), cairo_destroy) {}
  cairo_t* cr() { return context.get(); }

  Pixel at(int x, int y) {
    cairo_surface_flush(surface.get());
    auto* row = cairo_image_surface_get_data(surface.get()) + y * cairo_image_surface_get_stride(surface.get());
    uint32_t p = reinterpret_cast<uint32_t*>(row)[x];
    int a = p >> 24;
    auto un = [a](int c) { return a ? (c * 255 + a / 2) / a : 0; };
    return {un((p >> 16) & 255), un((p >> 8) & 255), un(p & 255), a};
  }
  bool painted(int x, int y) { return at(x, y).a > 0; }
  // Which of the columns 0..width-1 on row y carry more than half coverage.
  std::string coverageRow(int y, int width) {
    std::string row;
    for (int x = 0; x < width; ++x) row += at(x, y).a > 127 ? '#' : '.';
    return row;
  }
};

::testing::AssertionResult near(const Canvas::Pixel& p, int r, int g, int b, int a, int tolerance = 3) {
  if (std::abs(p.r - r) <= tolerance && std::abs(p.g - g) <= tolerance && std::abs(p.b - b) <= tolerance &&
      std::abs(p.a - a) <= tolerance)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "pixel rgba(" << p.r << "," << p.g << "," << p.b << "," << p.a
                                       << ") expected (" << r << "," << g << "," << b << "," << a << ")";
}

int gray(const Canvas::Pixel& p) { return p.r; }

// --- encoded images ---

std::string pngBytes(cairo_surface_t* surface) {
  std::string bytes;
  cairo_surface_write_to_png_stream(
      surface,
      [](void* closure, const unsigned char* data, unsigned int length) {
        static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
        return CAIRO_STATUS_SUCCESS;
      },
      &bytes);
  return bytes;
}

// A 2×1 image: red on the left, blue on the right.
std::string redBluePNG() {
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 2, 1);
  auto* pixels = reinterpret_cast<uint32_t*>(cairo_image_surface_get_data(surface));
  pixels[0] = 0xffff0000u;
  pixels[1] = 0xff0000ffu;
  cairo_surface_mark_dirty(surface);
  std::string bytes = pngBytes(surface);
  cairo_surface_destroy(surface);
  return bytes;
}

std::string solidJPEG(int width, int height, unsigned char r, unsigned char g, unsigned char b) {
  jpeg_compress_struct info{};
  jpeg_error_mgr error{};
  info.err = jpeg_std_error(&error);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = width;
  info.image_height = height;
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 95, TRUE);
  jpeg_start_compress(&info, TRUE);
  std::vector<unsigned char> row(width * 3);
  for (int x = 0; x < width; ++x) row[x * 3] = r, row[x * 3 + 1] = g, row[x * 3 + 2] = b;
  while (info.next_scanline < info.image_height) {
    unsigned char* line = row.data();
    jpeg_write_scanlines(&info, &line, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::string bytes(reinterpret_cast<char*>(buffer), size);
  free(buffer);
  return bytes;
}

}  // namespace

// ============================ reading styles ============================

TEST(StyleColors, ObjectsStringsAndBadValues) {
  double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* name;
    JsonValue json;
    std::optional<Color> expected;
  };
  std::vector<Case> cases = {
      {"object", colorJSON(1, 0.5, 0, 0.25), Color{1, 0.5, 0, 0.25}},
      {"missing keys", JsonObject{{"red", 1}}, Color{1, 0, 0, 1}},
      {"out of range clamps", colorJSON(2, -1, 0.5, 3), Color{1, 0, 0.5, 1}},
      {"numeric strings", JsonObject{{"red", "0.5"}, {"green", "1"}, {"blue", "x"}, {"alpha", "1"}},
       Color{0.5, 1, 0, 1}},
      {"NaN component", JsonObject{{"red", nan}, {"green", 1}, {"blue", 1}, {"alpha", 1}}, Color{0, 1, 1, 1}},
      {"hex", JsonValue("#FF000080"), Color{1, 0, 0, 128 / 255.0}},
      {"rgba", JsonValue("rgba(255,0,0,0.5)"), Color{1, 0, 0, 0.5}},
      {"bad hex", JsonValue("#12"), std::nullopt},
      {"garbage text", JsonValue("purple"), std::nullopt},
      {"number", JsonValue(3), std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto color = parseColor(&c.json);
    ASSERT_EQ(color.has_value(), c.expected.has_value());
    if (!color) continue;
    EXPECT_NEAR(color->r, c.expected->r, 1e-9);
    EXPECT_NEAR(color->g, c.expected->g, 1e-9);
    EXPECT_NEAR(color->b, c.expected->b, 1e-9);
    EXPECT_NEAR(color->a, c.expected->a, 1e-9);
  }
  EXPECT_FALSE(parseColor(nullptr));
}

TEST(StyleColors, PointStrings) {
  struct Case {
    const char* text;
    std::optional<Point> expected;
  };
  std::vector<Case> cases = {{"{0.5, 1}", Point{0.5, 1}}, {"{-0.25,2e-1}", Point{-0.25, 0.2}},
                             {" { 1 , 2 } ", Point{1, 2}}, {"{1}", std::nullopt},
                             {"1, 2", std::nullopt},       {"{nan, 1}", std::nullopt}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    auto point = parsePointString(c.text);
    ASSERT_EQ(point.has_value(), c.expected.has_value());
    if (point) EXPECT_EQ(*point, *c.expected);
  }
}

TEST(StyleReading, WhatCannotBeDrawnIsDroppedAndNotedOnce) {
  LogCapture log;
  JsonObject noise{{"isEnabled", true}, {"fillType", 5}, {"noiseIntensity", 0.3}};
  JsonObject noStops = gradientFill(0, "{0, 0}", "{1, 1}", {});
  JsonObject oddType{{"isEnabled", true}, {"fillType", 9}};
  JsonObject noImage{{"isEnabled", true}, {"fillType", 4}};
  RenderNotes notes;
  for (int i = 0; i < 2; ++i) {
    JsonValue value(styleWith({noise, noStops, oddType, noImage, colorFill(colorJSON(0, 1, 0))}));
    Style style = buildStyle(&value, noImages(), notes, "rectangle");
    ASSERT_EQ(style.fills.size(), 1u);
    EXPECT_EQ(style.fills[0].color, (Color{0, 1, 0, 1}));
  }
  EXPECT_EQ(log.count("not drawn: noise fill of rectangle layers"), 1u);
  EXPECT_EQ(log.count("gradient without colour stops"), 1u);
  EXPECT_EQ(log.count("fill of fill type 9"), 1u);
  EXPECT_EQ(log.count("image fill without an image"), 1u);
}

TEST(StyleReading, BordersAndTheirOptions) {
  JsonObject gradientBorder = blackToWhite(0, "{0, 0}", "{1, 0}");
  gradientBorder["position"] = 2;
  gradientBorder["thickness"] = 3;
  JsonObject zero = border(0, 0);
  JsonObject options{{"isEnabled", false}, {"dashPattern", {4, -1, "2", "x", 0}}, {"lineCapStyle", 1},
                     {"lineJoinStyle", 2}};
  Style style = build(styleWith({}, {border(1, 2), zero, gradientBorder}, {{"borderOptions", options},
                                                                           {"miterLimit", -3}}));
  ASSERT_EQ(style.borders.size(), 2u) << "a zero-width border draws nothing";
  EXPECT_EQ(style.borders[0].position, BorderPosition::Inside);
  EXPECT_EQ(style.borders[0].thickness, 2);
  EXPECT_EQ(style.borders[1].position, BorderPosition::Outside);
  EXPECT_EQ(style.borders[1].paint.kind, PaintKind::Gradient);
  EXPECT_EQ(style.borderOptions.dashPattern, (std::vector<double>{4, 2, 0})) << "options apply even when disabled";
  EXPECT_EQ(style.borderOptions.lineCap, CAIRO_LINE_CAP_ROUND);
  EXPECT_EQ(style.borderOptions.lineJoin, CAIRO_LINE_JOIN_BEVEL);
  EXPECT_EQ(style.miterLimit, 10);

  Style allZero = build(styleWith({}, {}, {{"borderOptions", {{"dashPattern", {0, 0}}}}}));
  EXPECT_TRUE(allZero.borderOptions.dashPattern.empty()) << "an all-zero dash list would break Cairo";
}

TEST(StyleReading, MalformedStylesGiveDefaults) {
  std::vector<JsonValue> bad = {JsonValue(nullptr), JsonValue("style"), JsonValue(JsonArray{1, 2}),
                                JsonValue(JsonObject{{"fills", "x"}, {"borders", 3}, {"borderOptions", 1}}),
                                JsonValue(JsonObject{{"fills", {1, "a", nullptr, JsonArray{}}},
                                                     {"borders", {JsonObject{{"thickness", "NaN"}}}}})};
  RenderNotes notes;
  for (const auto& value : bad) {
    Style style = buildStyle(&value, noImages(), notes, "shapePath");
    EXPECT_EQ(style.opacity, 1);
    EXPECT_TRUE(style.fills.empty());
    EXPECT_TRUE(style.borderOptions.dashPattern.empty());
    for (const auto& border : style.borders) EXPECT_EQ(border.thickness, 1) << "unreadable thickness: the default";
  }
  EXPECT_TRUE(buildStyle(nullptr, noImages(), notes, "shapePath").isInvisible());

  // Absurd lengths are held to what can still be drawn.
  JsonObject shadow{{"color", colorJSON(0, 0, 0)}, {"blurRadius", 1e300}, {"offsetX", -1e300}};
  Style huge = build(styleWith({}, {border(0, 1e300)}, {{"shadows", {shadow}},
                                                         {"borderOptions", {{"dashPattern", {1e300, 1}}}}}));
  ASSERT_EQ(huge.borders.size(), 1u);
  EXPECT_EQ(huge.borders[0].thickness, 1e5);
  EXPECT_EQ(huge.borderOptions.dashPattern[0], 1e5);
  EXPECT_EQ(huge.shadows[0].blurRadius, 1e5);
  EXPECT_EQ(huge.shadows[0].offsetX, -1e6);
}

// ============================ fills ============================

TEST(StyleFills, SolidColourAndOpacity) {
  struct Case {
    double opacity, alpha;
    int expectedAlpha;
  };
  std::vector<Case> cases = {{1, 1, 255}, {0.5, 1, 128}, {1, 0.5, 128}, {0.5, 0.5, 64}, {0, 1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "opacity " << c.opacity << " alpha " << c.alpha);
    Canvas canvas(10, 10);
    Style style = build(styleWith({colorFill(colorJSON(1, 0, 0, c.alpha), c.opacity)}));
    paintFills(canvas.cr(), style, rectPath(2, 2, 6, 6), {2, 2, 6, 6});
    EXPECT_TRUE(near(canvas.at(5, 5), c.expectedAlpha ? 255 : 0, 0, 0, c.expectedAlpha, 2));
    EXPECT_FALSE(canvas.painted(1, 5));
    EXPECT_FALSE(canvas.painted(8, 5));
  }
}

TEST(StyleFills, BlendModesMixWithWhatIsBelow) {
  struct Case {
    int blendMode;
    int r, g, b;
  };
  // Yellow below, blue above.
  std::vector<Case> cases = {{0, 0, 0, 255}, {2, 0, 0, 0}, {4, 255, 255, 255}, {5, 255, 255, 255}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.blendMode);
    Canvas canvas(4, 4);
    Style style = build(styleWith({colorFill(colorJSON(1, 1, 0)), colorFill(colorJSON(0, 0, 1), 1, c.blendMode)}));
    paintFills(canvas.cr(), style, rectPath(0, 0, 4, 4), {0, 0, 4, 4});
    EXPECT_TRUE(near(canvas.at(2, 2), c.r, c.g, c.b, 255));
  }
  // Multiply of two mid colours: 0.5 × 0.6.
  Canvas canvas(4, 4);
  Style style = build(styleWith({colorFill(colorJSON(0.5, 0.5, 0.5)), colorFill(colorJSON(0.6, 1, 0), 1, 2)}));
  paintFills(canvas.cr(), style, rectPath(0, 0, 4, 4), {0, 0, 4, 4});
  EXPECT_TRUE(near(canvas.at(1, 1), 77, 128, 0, 255, 2));
}

TEST(StyleFills, LinearGradientEndsAndMiddleFollowTheFrame) {
  // Left to right over a frame at x 10..110: black at 10, white at 110.
  Canvas canvas(120, 4);
  Style style = build(styleWith({blackToWhite(0, "{0, 0.5}", "{1, 0.5}")}));
  paintFills(canvas.cr(), style, rectPath(0, 0, 120, 4), {10, 0, 100, 4});
  EXPECT_LE(gray(canvas.at(5, 2)), 1) << "before the start: first stop";
  EXPECT_LE(gray(canvas.at(10, 2)), 3);
  EXPECT_NEAR(gray(canvas.at(60, 2)), 128, 3);
  EXPECT_GE(gray(canvas.at(109, 2)), 252);
  EXPECT_GE(gray(canvas.at(115, 2)), 254) << "after the end: last stop";

  // Vertical over a non-square frame.
  Canvas tall(4, 40);
  paintFills(tall.cr(), build(styleWith({blackToWhite(0, "{0.5, 0}", "{0.5, 1}")})), rectPath(0, 0, 4, 40),
             {0, 0, 4, 40});
  EXPECT_NEAR(gray(tall.at(2, 20)), 128, 5);
  EXPECT_LT(gray(tall.at(2, 1)), gray(tall.at(2, 38)));
}

TEST(StyleFills, RadialGradientIsAnEllipseAlongFromTo) {
  // Centre (50, 50), major radius 40 along x, minor radius 20 along y.
  Canvas canvas(100, 100);
  Style style = build(styleWith({blackToWhite(1, "{0.5, 0.5}", "{0.9, 0.5}", 0.5)}));
  paintFills(canvas.cr(), style, rectPath(0, 0, 100, 100), {0, 0, 100, 100});
  struct Probe {
    int x, y, expected;
  };
  std::vector<Probe> probes = {{50, 50, 0},   {70, 50, 128}, {30, 50, 128}, {50, 60, 128},
                               {50, 40, 128}, {95, 50, 255}, {50, 75, 255}, {50, 95, 255}};
  for (const auto& probe : probes) {
    // Pixel centres sit half a pixel from the probe point.
    EXPECT_NEAR(gray(canvas.at(probe.x, probe.y)), probe.expected, 8) << probe.x << "," << probe.y;
  }
}

TEST(StyleFills, AngularGradientTurnsClockwiseFromTheFromToDirection) {
  // Black → white over one turn around the centre of a 100×100 frame.
  struct Probe {
    const char* where;
    int x, y, expected;
  };
  struct Case {
    const char* from;
    const char* to;
    std::vector<Probe> probes;
  };
  std::vector<Case> cases = {
      {"{0, 0.5}", "{1, 0.5}",
       {{"just below 3 o'clock", 90, 52, 4}, {"6 o'clock", 50, 90, 64}, {"9 o'clock", 10, 50, 128},
        {"12 o'clock", 50, 10, 191}, {"just above 3 o'clock", 90, 48, 250}}},
      {"{0.5, 0}", "{0.5, 1}",
       {{"just left of 6 o'clock", 48, 90, 4}, {"9 o'clock", 10, 50, 64}, {"12 o'clock", 50, 10, 128},
        {"3 o'clock", 90, 50, 191}, {"just right of 6 o'clock", 52, 90, 250}}},
  };
  for (const auto& c : cases) {
    Canvas canvas(100, 100);
    Style style = build(styleWith({blackToWhite(2, c.from, c.to)}));
    paintFills(canvas.cr(), style, rectPath(0, 0, 100, 100), {0, 0, 100, 100});
    for (const auto& probe : c.probes)
      EXPECT_NEAR(gray(canvas.at(probe.x, probe.y)), probe.expected, 6) << c.from << " " << probe.where;
  }
}

TEST(StyleFills, GradientWithOneStopIsSolidAndEvenOddLeavesAHole) {
  Path ring = rectPath(0, 0, 10, 10);
  ring.append(rectPath(3, 3, 4, 4));
  ring.evenOdd = true;
  Canvas canvas(10, 10);
  Style style = build(styleWith({gradientFill(0, "{0, 0}", "{1, 1}", {stopJSON(0.3, colorJSON(0, 1, 0))})}));
  paintFills(canvas.cr(), style, ring, {0, 0, 10, 10});
  EXPECT_TRUE(near(canvas.at(1, 1), 0, 255, 0, 255));
  EXPECT_FALSE(canvas.painted(5, 5));
}

// ============================ borders ============================

TEST(StyleBorders, PositionsSetWhichColumnsArePainted) {
  // A 10×10 square at (5, 5) in a 20×20 canvas, border thickness 2.
  struct Case {
    int position;
    const char* row;  // row 10, columns 0..19
  };
  std::vector<Case> cases = {
      {0, "....##........##...."},  // centre: 4..5 and 14..15
      {1, ".....##......##....."},  // inside: 5..6 and 13..14
      {2, "...##..........##..."},  // outside: 3..4 and 15..16
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.position);
    Canvas canvas(20, 20);
    Style style = build(styleWith({}, {border(c.position, 2)}));
    paintBorders(canvas.cr(), style, rectPath(5, 5, 10, 10), {5, 5, 10, 10}, true);
    EXPECT_EQ(canvas.coverageRow(10, 20), c.row);
    EXPECT_TRUE(near(canvas.at(c.row[4] == '#' ? 4 : 5, 10), 0, 0, 0, 255)) << "solid, not half covered";
  }
}

TEST(StyleBorders, OpenPathsAreAlwaysCentred) {
  Path line;
  line.moveTo({2, 10});
  line.lineTo({18, 10});
  for (int position : {0, 1, 2}) {
    Canvas canvas(20, 20);
    paintBorders(canvas.cr(), build(styleWith({}, {border(position, 2)})), line, {2, 10, 16, 0}, false);
    std::string column;
    for (int y = 7; y < 13; ++y) column += canvas.at(10, y).a > 127 ? '#' : '.';
    EXPECT_EQ(column, "..##..") << position;
  }
}

TEST(StyleBorders, OutsideAndInsideKeepWhatIsBelow) {
  // A red fill under a translucent outside border: the inside stays red.
  Canvas canvas(20, 20);
  Style style = build(styleWith({colorFill(colorJSON(1, 0, 0))}, {border(2, 3, colorJSON(0, 0, 1, 0.5))}));
  paintFills(canvas.cr(), style, rectPath(5, 5, 10, 10), {5, 5, 10, 10});
  paintBorders(canvas.cr(), style, rectPath(5, 5, 10, 10), {5, 5, 10, 10}, true);
  EXPECT_TRUE(near(canvas.at(6, 10), 255, 0, 0, 255));
  EXPECT_TRUE(near(canvas.at(3, 10), 0, 0, 255, 128));
}

TEST(StyleBorders, DashPatternSetsOnAndOffRuns) {
  struct Case {
    JsonArray dashes;
    const char* row;
  };
  std::vector<Case> cases = {
      {{4, 2}, "####..####..####..####"},
      {{3, 1, 1, 1}, "###.#.###.#.###.#.###."},
      {{}, "######################"},
  };
  for (const auto& c : cases) {
    Path line;
    line.moveTo({0, 5});
    line.lineTo({22, 5});
    Canvas canvas(22, 10);
    Style style = build(styleWith({}, {border(0, 2)}, {{"borderOptions", {{"dashPattern", c.dashes}}}}));
    paintBorders(canvas.cr(), style, line, {0, 5, 22, 0}, false);
    EXPECT_EQ(canvas.coverageRow(5, 22), c.row) << boost::json::serialize(c.dashes);
  }
}

TEST(StyleBorders, GradientBorderWithOpacity) {
  JsonObject gradient = blackToWhite(0, "{0, 0.5}", "{1, 0.5}");
  gradient["thickness"] = 2;
  gradient["position"] = 1;
  gradient["contextSettings"] = JsonObject{{"opacity", 0.5}};
  Canvas canvas(40, 40);
  paintBorders(canvas.cr(), build(styleWith({}, {gradient})), rectPath(0, 0, 40, 40), {0, 0, 40, 40}, true);
  auto left = canvas.at(0, 20), right = canvas.at(39, 20), top = canvas.at(20, 0);
  EXPECT_NEAR(left.a, 128, 2);
  EXPECT_LE(left.r, 4);
  EXPECT_GE(right.r, 245);
  EXPECT_NEAR(top.r, 128, 6);
  EXPECT_FALSE(canvas.painted(20, 20));
}

TEST(StyleBorders, ArrowHeadsDrawPastTheLineEnd) {
  struct Case {
    const char* name;
    JsonObject keys;
    bool atStart, atEnd;
  };
  std::vector<Case> cases = {
      {"none", {}, false, false},
      {"filled arrow at end", {{"endMarkerType", 2}}, false, true},
      {"open circle at start", {{"startMarkerType", 4}}, true, false},
      {"old bar at both", {{"startDecorationType", 3}, {"endDecorationType", 3}}, true, true},
      {"squares", {{"startMarkerType", 7}, {"endMarkerType", 6}}, true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Path line;
    line.moveTo({10, 20});
    line.lineTo({30, 20});
    Canvas canvas(40, 40);
    paintBorders(canvas.cr(), build(styleWith({}, {border(0, 2)}, c.keys)), line, {10, 20, 20, 0}, false);
    // Beside the line ends, off the line: only a marker reaches there.
    bool start = canvas.painted(10, 23) || canvas.painted(9, 16) || canvas.painted(13, 22);
    bool end = canvas.painted(29, 23) || canvas.painted(30, 16) || canvas.painted(26, 22);
    EXPECT_EQ(start, c.atStart);
    EXPECT_EQ(end, c.atEnd);
  }
}

TEST(StyleBorders, BoundsGrowByHowFarBordersReach) {
  Rect path{0, 0, 10, 10};
  struct Case {
    const char* name;
    JsonArray borders;
    JsonObject extra;
    double reach;
  };
  std::vector<Case> cases = {
      {"no border", {}, {}, 0},
      {"inside", {border(1, 4)}, {}, 0},
      {"centre", {border(0, 4)}, {}, 2},
      {"outside", {border(2, 4)}, {}, 4},
      {"widest wins", {border(0, 2), border(2, 3)}, {}, 3},
      {"arrow heads", {border(0, 2)}, {{"endMarkerType", 1}}, 9},
  };
  for (const auto& c : cases) {
    Rect bounds = styleBounds(build(styleWith({}, c.borders, c.extra)), path);
    EXPECT_EQ(bounds, (Rect{-c.reach, -c.reach, 10 + 2 * c.reach, 10 + 2 * c.reach})) << c.name;
  }
}

// ============================ images ============================

class StyleImages : public ::testing::Test {
 protected:
  void SetUp() override {
    PXFileManager::createDirectory(dir / "images", true);
    plexa::test::writeText(dir / "images/redblue.png", redBluePNG());
  }
  Canvas paintImageFill(int patternFillType, Rect frame, int canvasWidth, int canvasHeight, double tileScale = 1) {
    Canvas canvas(canvasWidth, canvasHeight);
    Style style = build(styleWith({imageFill("images/redblue", patternFillType, tileScale)}), images);
    EXPECT_EQ(style.fills.size(), 1u);
    paintFills(canvas.cr(), style, rectPath(frame.x, frame.y, frame.width, frame.height), frame);
    return canvas;
  }
  TempDir dir;
  ImageSource images{dir.path()};
};

TEST_F(StyleImages, FitLetterboxesFillCoversStretchDistorts) {
  Canvas fit = paintImageFill(3, {0, 0, 10, 10}, 10, 10);  // 10×5 at y 2.5
  EXPECT_FALSE(fit.painted(1, 1));
  EXPECT_FALSE(fit.painted(8, 8));
  EXPECT_TRUE(near(fit.at(0, 5), 255, 0, 0, 255, 40));
  EXPECT_TRUE(near(fit.at(9, 5), 0, 0, 255, 255, 40));

  // A tall frame: stretch keeps each image pixel 5 points wide, fill makes
  // them 40 wide, so the colour turns over a much wider band.
  Canvas stretch = paintImageFill(2, {0, 0, 10, 40}, 10, 40);
  Canvas fill = paintImageFill(1, {0, 0, 10, 40}, 10, 40);
  for (int y : {0, 20, 39}) {
    EXPECT_TRUE(near(stretch.at(0, y), 255, 0, 0, 255, 2));
    EXPECT_TRUE(near(stretch.at(9, y), 0, 0, 255, 255, 2));
    EXPECT_TRUE(fill.painted(0, y) && fill.painted(9, y));
  }
  EXPECT_GT(fill.at(0, 20).b, 60) << "fill shows the middle of a wide image";
  EXPECT_GT(fill.at(0, 20).r, fill.at(0, 20).b);
}

TEST_F(StyleImages, TileRepeatsAtTheTileScale) {
  Canvas tiled = paintImageFill(0, {0, 0, 8, 2}, 8, 2, 2);  // each image pixel 2 points
  std::string colours;
  for (int x = 0; x < 8; x += 2) colours += tiled.at(x, 0).r > 128 ? 'R' : 'B';
  EXPECT_EQ(colours, "RBRB");
}

TEST_F(StyleImages, ReferencesWithOrWithoutExtensionAndJPEG) {
  plexa::test::writeText(dir / "images/photo.jpg", solidJPEG(4, 3, 255, 0, 0));
  RenderNotes notes;
  for (const char* reference : {"images/redblue", "images/redblue.png", "images/redblue.jpg"}) {
    SurfaceRef image = images.image(reference, notes);
    ASSERT_TRUE(image) << reference;
    EXPECT_EQ(image.width(), 2);
  }
  SurfaceRef photo = images.image("images/photo", notes);
  ASSERT_TRUE(photo);
  EXPECT_EQ(photo.width(), 4);
  EXPECT_EQ(photo.height(), 3);
  Canvas canvas(4, 3);
  cairo_set_source_surface(canvas.cr(), photo.get(), 0, 0);
  cairo_paint(canvas.cr());
  EXPECT_TRUE(near(canvas.at(1, 1), 255, 0, 0, 255, 6)) << "channels land in Cairo's order";
}

TEST_F(StyleImages, MissingCorruptAndEscapingReferencesDrawNothingAndAreNotedOnce) {
  plexa::test::writeText(dir / "images/broken.png", std::string("\x89PNG\r\n\x1a\n", 8) + std::string(40, 'x'));
  plexa::test::writeText(dir / "images/anim.gif", "GIF89a" + std::string(40, '\0'));
  plexa::test::writeText(dir / "secret.png", redBluePNG());
  LogCapture log;
  RenderNotes notes;
  struct Case {
    const char* reference;
    const char* logged;
  };
  std::vector<Case> cases = {{"images/nothing", "images/nothing"},
                             {"images/broken.png", "images/broken.png"},
                             {"images/anim.gif", "GIF data"},
                             {"images/../../secret.png", "images/../../secret.png"},
                             {"", "\"\""}};
  for (const auto& c : cases) {
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(images.image(c.reference, notes)) << c.reference;
    EXPECT_EQ(log.count(c.logged), 1u) << c.reference;
  }
  // A style whose image is missing keeps no fill and paints nothing.
  Canvas canvas(4, 4);
  Style style = build(styleWith({imageFill("images/nothing", 1)}), images);
  paintFills(canvas.cr(), style, rectPath(0, 0, 4, 4), {0, 0, 4, 4});
  EXPECT_FALSE(canvas.painted(2, 2));
}

TEST(StyleImageDecoding, LookupsNeverSeeEscapingNames) {
  std::vector<std::string> asked;
  ImageSource source(ImageSource::Lookup([&](const std::string& name) -> std::optional<std::string> {
    asked.push_back(name);
    return redBluePNG();
  }));
  RenderNotes notes;
  for (const char* hostile : {"../x.png", "images/../../x.png", "/etc/passwd", "images/..", "a/../b.png"})
    EXPECT_FALSE(source.image(hostile, notes)) << hostile;
  EXPECT_TRUE(asked.empty());
  EXPECT_TRUE(source.image("images/a..b.png", notes)) << "dots inside a name are fine";
}

TEST(StyleImageDecoding, RefusesWhatItCannotDecode) {
  struct Case {
    const char* name;
    std::string bytes;
    const char* why;
  };
  std::vector<Case> cases = {
      {"empty", "", "unknown image format"},
      {"truncated JPEG", solidJPEG(8, 8, 0, 0, 0).substr(0, 30), ""},
      {"huge PNG header", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\x7f\xff\xff\xff\x7f\xff\xff\xff", 24),
       "PNG size out of range"},
      {"WebP", std::string("RIFF\0\0\0\0WEBPVP8 ", 16) + std::string(20, '\0'), "WebP is not decoded"},
  };
  for (const auto& c : cases) {
    std::string why;
    EXPECT_FALSE(decodeImage(c.bytes, &why)) << c.name;
    EXPECT_FALSE(why.empty()) << c.name;
    if (*c.why) EXPECT_EQ(why, c.why) << c.name;
  }
}
