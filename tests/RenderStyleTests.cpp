// Styles: reading the document's style objects, and drawing fills, borders
// and images onto small surfaces whose pixels can be checked by hand.
#include "Files.h"
#include "ImageSource.h"
#include "ImageWriter.h"
#include "RenderFixtures.h"
#include "Style.h"

#include <gtest/gtest.h>
#include <jpeglib.h>

#include <limits>

using namespace plexa;
using namespace plexa::render;
using namespace plexa::test;

namespace {

// --- style objects ---

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

ImageSource& noImages() {
  static ImageSource empty(ImageSource::Lookup([](const std::string&) { return std::optional<std::string>(); }));
  return empty;
}

Style build(const JsonObject& style, ImageSource& images = noImages()) {
  RenderNotes notes;
  JsonValue value(style);
  return buildStyle(&value, images, notes, "shapePath");
}

// --- painting on a fresh canvas ---

Canvas filled(int w, int h, const Style& style, Rect frame, const Path& outline) {
  Canvas canvas(w, h);
  paintFills(canvas.cr(), style, outline, frame);
  return canvas;
}

Canvas filled(int w, int h, const Style& style, Rect frame) {
  return filled(w, h, style, frame, rectPath(frame.x, frame.y, frame.width, frame.height));
}

Canvas stroked(int w, int h, const Style& style, const Path& outline, Rect frame, bool closed) {
  Canvas canvas(w, h);
  paintBorders(canvas.cr(), style, outline, frame, closed);
  return canvas;
}

Path line(Point from, Point to) {
  Path path;
  path.moveTo(from);
  path.lineTo(to);
  return path;
}

int gray(const RGBA8& p) { return p.r; }

// --- encoded images ---

// A 2×1 image: red on the left, blue on the right.
std::string redBluePNG() {
  Canvas canvas(2, 1);
  auto* pixels = reinterpret_cast<uint32_t*>(cairo_image_surface_get_data(canvas.surface()));
  pixels[0] = 0xffff0000u, pixels[1] = 0xff0000ffu;
  cairo_surface_mark_dirty(canvas.surface());
  return encodePNG(canvas.surface()).value();
}

// Encoded with libjpeg itself, so the decoder's channel order is checked
// against an encoder that is not ours.
std::string solidJPEG(int width, int height, unsigned char r, unsigned char g, unsigned char b) {
  jpeg_compress_struct info{};
  jpeg_error_mgr error{};
  info.err = jpeg_std_error(&error);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = width, info.image_height = height, info.input_components = 3, info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 95, TRUE);
  jpeg_start_compress(&info, TRUE);
  std::vector<unsigned char> row(width * 3);
  for (int x = 0; x < width; ++x) row[x * 3] = r, row[x * 3 + 1] = g, row[x * 3 + 2] = b;
  for (unsigned char* line = row.data(); info.next_scanline < info.image_height;) jpeg_write_scanlines(&info, &line, 1);
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
    const Color& e = *c.expected;
    EXPECT_TRUE(std::abs(color->r - e.r) + std::abs(color->g - e.g) + std::abs(color->b - e.b) +
                    std::abs(color->a - e.a) < 1e-9)
        << color->r << " " << color->g << " " << color->b << " " << color->a;
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
  for (const auto& c : cases) EXPECT_EQ(parsePointString(c.text), c.expected) << c.text;
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

TEST(StyleReading, BorderOptionsAreCleanedForCairo) {
  JsonObject options{{"isEnabled", false}, {"dashPattern", {4, -1, "2", "x", 0}}, {"lineCapStyle", 1},
                     {"lineJoinStyle", 2}};
  Style style = build(styleWith({}, {border(1, 2), border(0, 0)}, {{"borderOptions", options}, {"miterLimit", -3}}));
  EXPECT_EQ(style.borders.size(), 1u) << "a zero-width border draws nothing";
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

// Solid fills over the square (2, 2)–(8, 8) of a 10×10 canvas: the colour in
// its middle, with opacities, and with blend modes over the fill below.
TEST(StyleFills, ColourOpacityAndBlendModes) {
  JsonObject red = colorJSON(1, 0, 0), yellow = colorJSON(1, 1, 0), blue = colorJSON(0, 0, 1);
  struct Case {
    const char* name;
    JsonArray fills;
    RGBA8 expected;
  } cases[] = {
      {"opaque", {colorFill(red)}, {255, 0, 0, 255}},
      {"half opacity", {colorFill(red, 0.5)}, {255, 0, 0, 128}},
      {"half alpha", {colorFill(colorJSON(1, 0, 0, 0.5))}, {255, 0, 0, 128}},
      {"half opacity of half alpha", {colorFill(colorJSON(1, 0, 0, 0.5), 0.5)}, {255, 0, 0, 64}},
      {"no opacity", {colorFill(red, 0)}, {0, 0, 0, 0}},
      {"normal", {colorFill(yellow), colorFill(blue, 1, 0)}, {0, 0, 255, 255}},
      {"multiply", {colorFill(yellow), colorFill(blue, 1, 2)}, {0, 0, 0, 255}},
      {"multiply: 0.5 × 0.6", {colorFill(colorJSON(0.5, 0.5, 0.5)), colorFill(colorJSON(0.6, 1, 0), 1, 2)},
       {77, 128, 0, 255}},
      {"gradient with one stop", {gradientFill(0, "{0, 0}", "{1, 1}", {stopJSON(0.3, colorJSON(0, 1, 0))})},
       {0, 255, 0, 255}},
  };
  for (const auto& c : cases) {
    Canvas canvas = filled(10, 10, build(styleWith(c.fills)), {2, 2, 6, 6});
    EXPECT_TRUE(near(canvas.at(5, 5), c.expected)) << c.name;
    EXPECT_EQ(canvas.coverageRow(5, 1), c.expected.a ? "..######.." : "..........") << c.name;
  }
}

TEST(StyleFills, EvenOddOutlinesLeaveAHole) {
  Path ring = rectPath(0, 0, 10, 10);
  ring.append(rectPath(3, 3, 4, 4));
  ring.evenOdd = true;
  Canvas canvas = filled(10, 10, build(styleWith({colorFill(colorJSON(0, 1, 0))})), {0, 0, 10, 10}, ring);
  EXPECT_EQ(canvas.coverageRow(5, 1), "###....###");
}

// Grey levels (black 0 … white 255) of black-to-white gradients at chosen
// pixels; a pixel's centre lies half a pixel past its coordinates.
TEST(StyleFills, GradientsFollowTheirGeometry) {
  struct Probe {
    int x, y, gray;
  };
  struct Case {
    const char* name;
    JsonObject fill;
    int width, height;
    Rect frame;
    int tolerance;
    std::vector<Probe> probes;
  } cases[] = {
      // The frame spans x 10..110 of the filled area: the end stops carry on past it.
      {"linear across", blackToWhite(0, "{0, 0.5}", "{1, 0.5}"), 120, 4, {10, 0, 100, 4}, 2,
       {{5, 2, 0}, {10, 2, 1}, {60, 2, 129}, {109, 2, 254}, {115, 2, 255}}},
      {"linear down", blackToWhite(0, "{0.5, 0}", "{0.5, 1}"), 4, 40, {0, 0, 4, 40}, 3,
       {{2, 1, 10}, {2, 20, 131}, {2, 38, 245}}},
      // Centre (50, 50), major radius 40 along x, minor radius 20 along y.
      {"radial ellipse", blackToWhite(1, "{0.5, 0.5}", "{0.9, 0.5}", 0.5), 100, 100, {0, 0, 100, 100}, 8,
       {{50, 50, 0}, {70, 50, 128}, {30, 50, 128}, {50, 60, 128}, {50, 40, 128}, {95, 50, 255}, {50, 75, 255},
        {50, 95, 255}}},
      // One clockwise turn from the from→to direction: just past it, a quarter,
      // half and three quarters round, and just before it.
      {"angular from 3 o'clock", blackToWhite(2, "{0, 0.5}", "{1, 0.5}"), 100, 100, {0, 0, 100, 100}, 6,
       {{90, 52, 4}, {50, 90, 64}, {10, 50, 128}, {50, 10, 191}, {90, 48, 250}}},
      {"angular from 6 o'clock", blackToWhite(2, "{0.5, 0}", "{0.5, 1}"), 100, 100, {0, 0, 100, 100}, 6,
       {{48, 90, 4}, {10, 50, 64}, {50, 10, 128}, {90, 50, 191}, {52, 90, 250}}},
  };
  for (const auto& c : cases) {
    Canvas canvas = filled(c.width, c.height, build(styleWith({c.fill})), c.frame, rectPath(0, 0, c.width, c.height));
    for (const auto& p : c.probes)
      EXPECT_NEAR(gray(canvas.at(p.x, p.y)), p.gray, c.tolerance) << c.name << " at " << p.x << "," << p.y;
  }
}

// ============================ borders ============================

// Which pixels of row 10 a border covers fully: the positions on a closed
// 10×10 square at (5, 5), open lines (always centred), and dashes.
TEST(StyleBorders, PositionsOpenPathsAndDashesSetWhichPixelsAreCovered) {
  auto solid = [](int position) { return styleWith({}, {border(position, 2)}); };
  auto dashed = [](JsonArray dashes) {
    return styleWith({}, {border(0, 2)}, {{"borderOptions", {{"dashPattern", std::move(dashes)}}}});
  };
  Path square = rectPath(5, 5, 10, 10), down = line({10, 2}, {10, 18}), across = line({0, 10}, {22, 10});
  struct Case {
    const char* name;
    JsonObject style;
    const Path& path;
    bool closed;
    std::string row;
  } cases[] = {
      {"centre", solid(0), square, true, "....##........##...."},
      {"inside", solid(1), square, true, ".....##......##....."},
      {"outside", solid(2), square, true, "...##..........##..."},
      {"open, centre", solid(0), down, false, ".........##........."},
      {"open, inside", solid(1), down, false, ".........##........."},
      {"open, outside", solid(2), down, false, ".........##........."},
      {"dashes 4 2", dashed({4, 2}), across, false, "####..####..####..####"},
      {"dashes 3 1 1 1", dashed({3, 1, 1, 1}), across, false, "###.#.###.#.###.#.###."},
      {"no dashes", dashed({}), across, false, "######################"},
  };
  for (const auto& c : cases) {
    Canvas canvas = stroked(static_cast<int>(c.row.size()), 20, build(c.style), c.path, c.path.bounds(), c.closed);
    EXPECT_EQ(canvas.coverageRow(10, 250), c.row) << c.name;
  }
}

TEST(StyleBorders, OutsideAndInsideKeepWhatIsBelow) {
  // A red fill under a translucent outside border: the inside stays red.
  Style style = build(styleWith({colorFill(colorJSON(1, 0, 0))}, {border(2, 3, colorJSON(0, 0, 1, 0.5))}));
  Canvas canvas = filled(20, 20, style, {5, 5, 10, 10});
  paintBorders(canvas.cr(), style, rectPath(5, 5, 10, 10), {5, 5, 10, 10}, true);
  EXPECT_TRUE(near(canvas.at(6, 10), {255, 0, 0, 255}));
  EXPECT_TRUE(near(canvas.at(3, 10), {0, 0, 255, 128}));
}

TEST(StyleBorders, GradientBorderWithOpacity) {
  JsonObject gradient = blackToWhite(0, "{0, 0.5}", "{1, 0.5}");
  gradient["thickness"] = 2;
  gradient["position"] = 1;
  gradient["contextSettings"] = JsonObject{{"opacity", 0.5}};
  Canvas canvas = stroked(40, 40, build(styleWith({}, {gradient})), rectPath(0, 0, 40, 40), {0, 0, 40, 40}, true);
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
    Canvas canvas =
        stroked(40, 40, build(styleWith({}, {border(0, 2)}, c.keys)), line({10, 20}, {30, 20}), {10, 20, 20, 0}, false);
    // Beside the line ends, off the line: only a marker reaches there.
    EXPECT_EQ(canvas.painted(10, 23) || canvas.painted(9, 16) || canvas.painted(13, 22), c.atStart);
    EXPECT_EQ(canvas.painted(29, 23) || canvas.painted(30, 16) || canvas.painted(26, 22), c.atEnd);
  }
}

TEST(StyleBorders, BoundsGrowByHowFarBordersReach) {
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
    Rect bounds = styleBounds(build(styleWith({}, c.borders, c.extra)), {0, 0, 10, 10});
    EXPECT_EQ(bounds, (Rect{-c.reach, -c.reach, 10 + 2 * c.reach, 10 + 2 * c.reach})) << c.name;
  }
}

// ============================ images ============================

class StyleImages : public ::testing::Test {
 protected:
  void SetUp() override {
    PXFileManager::createDirectory(dir / "images", true);
    writeText(dir / "images/redblue.png", redBluePNG());
  }
  Canvas paintImageFill(int patternFillType, Rect frame, double tileScale = 1) {
    Style style = build(styleWith({imageFill("images/redblue", patternFillType, tileScale)}), images);
    EXPECT_EQ(style.fills.size(), 1u);
    return filled(static_cast<int>(frame.width), static_cast<int>(frame.height), style, frame);
  }
  TempDir dir;
  ImageSource images{dir.path()};
};

TEST_F(StyleImages, FitLetterboxesFillCoversStretchDistorts) {
  Canvas fit = paintImageFill(3, {0, 0, 10, 10});  // 10×5 at y 2.5
  EXPECT_FALSE(fit.painted(1, 1));
  EXPECT_FALSE(fit.painted(8, 8));
  EXPECT_TRUE(near(fit.at(0, 5), {255, 0, 0, 255}, 40));
  EXPECT_TRUE(near(fit.at(9, 5), {0, 0, 255, 255}, 40));

  // A tall frame: stretch keeps each image pixel 5 points wide, fill makes
  // them 40 wide, so the colour turns over a much wider band.
  Canvas stretch = paintImageFill(2, {0, 0, 10, 40});
  Canvas fill = paintImageFill(1, {0, 0, 10, 40});
  for (int y : {0, 20, 39}) {
    EXPECT_TRUE(near(stretch.at(0, y), {255, 0, 0, 255}));
    EXPECT_TRUE(near(stretch.at(9, y), {0, 0, 255, 255}));
    EXPECT_TRUE(fill.painted(0, y) && fill.painted(9, y));
  }
  EXPECT_GT(fill.at(0, 20).b, 60) << "fill shows the middle of a wide image";
  EXPECT_GT(fill.at(0, 20).r, fill.at(0, 20).b);
}

TEST_F(StyleImages, TileRepeatsAtTheTileScale) {
  Canvas tiled = paintImageFill(0, {0, 0, 8, 2}, 2);  // each image pixel 2 points
  std::string colours;
  for (int x = 0; x < 8; x += 2) colours += tiled.at(x, 0).r > 128 ? 'R' : 'B';
  EXPECT_EQ(colours, "RBRB");
}

TEST_F(StyleImages, ReferencesWithOrWithoutExtensionAndJPEG) {
  writeText(dir / "images/photo.jpg", solidJPEG(4, 3, 255, 0, 0));
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
  EXPECT_TRUE(near(canvas.at(1, 1), {255, 0, 0, 255}, 6)) << "channels land in Cairo's order";
}

TEST_F(StyleImages, MissingAndCorruptReferencesDrawNothingAndAreNotedOnce) {
  writeText(dir / "images/broken.png", std::string("\x89PNG\r\n\x1a\n", 8) + std::string(40, 'x'));
  writeText(dir / "images/anim.gif", "GIF89a" + std::string(40, '\0'));
  LogCapture log;
  RenderNotes notes;
  struct Case {
    const char* reference;
    const char* logged;
  };
  std::vector<Case> cases = {{"images/nothing", "images/nothing"},
                             {"images/broken.png", "images/broken.png"},
                             {"images/anim.gif", "GIF data"},
                             {"", "\"\""}};
  for (const auto& c : cases) {
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(images.image(c.reference, notes)) << c.reference;
    EXPECT_EQ(log.count(c.logged), 1u) << c.reference;
  }
  // A style whose image is missing keeps no fill and paints nothing.
  Canvas canvas = filled(4, 4, build(styleWith({imageFill("images/nothing", 1)}), images), {0, 0, 4, 4});
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
