// Pixels the painter must get exactly: filled edges, placements, masks,
// group opacity, blend modes, board backgrounds; and the image writers.

#include "ImageCompare.h"
#include "ImageWriter.h"
#include "Painter.h"
#include "RenderFixtures.h"
#include "SceneBuilder.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace plexa;
using namespace plexa::render;
using namespace plexa::test;

namespace {

const RGBA8 kClear{0, 0, 0, 0};
const RGBA8 kRed{255, 0, 0, 255};
const RGBA8 kBlue{0, 0, 255, 255};

// Builds a board of `size` × `size` points holding `layers` and renders it.
struct Rendered {
  RenderNotes notes;
  ImageSource images{[](const std::string&) { return std::optional<std::string>(); }};
  std::unique_ptr<Node> board;
  SurfaceRef surface;

  Rendered(JsonArray layers, double size = 40, double scale = 1, JsonObject boardExtras = {}) {
    JsonObject json = artboard("AB", "Board", frame(0, 0, size, size), std::move(layers));
    for (const auto& [key, value] : boardExtras) json[key] = value;
    SceneBuilder builder(images, notes);
    board = builder.buildLayer(JsonValue(json));
    surface = renderBoard(*board, scale, notes);
  }
  RGBA8 at(int x, int y) const { return pixelAt(surface.get(), x, y); }
};

JsonObject withContext(JsonObject layer, double opacity, int blendMode) {
  layer["style"].as_object()["contextSettings"] =
      JsonObject{{"_class", "graphicsContextSettings"}, {"opacity", opacity}, {"blendMode", blendMode}};
  return layer;
}

}  // namespace

TEST(RenderPainter, FilledRectangleHasExactEdgesAtEveryScale) {
  for (double scale : {1.0, 2.0, 3.0}) {
    Rendered r(JsonArray{filledRect("R", 10, 5, 20, 10, colorJSON(1, 0, 0))}, 40, scale);
    ASSERT_TRUE(r.surface);
    EXPECT_EQ(r.surface.width(), 40 * scale);
    auto px = [&](double x, double y) { return r.at(static_cast<int>(x * scale), static_cast<int>(y * scale)); };
    EXPECT_TRUE(near(px(10, 5), kRed)) << scale << " " << px(10, 5);
    EXPECT_TRUE(near(px(29.9, 14.9), kRed)) << scale;
    EXPECT_TRUE(near(px(9.9, 10), kClear)) << scale << " " << px(9.9, 10);
    EXPECT_TRUE(near(px(30, 10), kClear)) << scale;
    EXPECT_TRUE(near(px(20, 4.9), kClear)) << scale;
    EXPECT_TRUE(near(px(20, 15), kClear)) << scale;
  }
}

TEST(RenderPainter, RotationAndFlipsPlaceShapesWhereSketchDoes) {
  // A 30 × 10 bar with a blue 10 × 10 head at its right end, inside a group
  // that is turned or flipped about the group's centre (20, 20).
  struct Case {
    const char* name;
    double rotation;
    bool flipH, flipV;
    int headX, headY;  // a pixel inside the blue head afterwards
  } cases[] = {
      {"plain", 0, false, false, 32, 20},
      {"turned 90 counter-clockwise", 90, false, false, 20, 8},
      {"turned -90", -90, false, false, 20, 32},
      {"turned 180", 180, false, false, 8, 20},
      {"flipped horizontally", 0, true, false, 8, 20},
      {"flipped vertically", 0, false, true, 32, 20},
  };
  for (const auto& c : cases) {
    JsonObject group = layer("group", "G", "G", frame(0, 0, 40, 40),
                             JsonArray{filledRect("BAR", 5, 15, 30, 10, colorJSON(1, 0, 0)),
                                       filledRect("HEAD", 25, 15, 10, 10, colorJSON(0, 0, 1))});
    group["rotation"] = c.rotation;
    group["isFlippedHorizontal"] = c.flipH;
    group["isFlippedVertical"] = c.flipV;
    Rendered r(JsonArray{group});
    EXPECT_TRUE(near(r.at(c.headX, c.headY), kBlue)) << c.name << " " << r.at(c.headX, c.headY);
    EXPECT_TRUE(near(r.at(20, 20), kRed)) << c.name;
  }
}

TEST(RenderPainter, OutlineMaskClipsLaterSiblingsUntilTheChainBreaks) {
  JsonObject mask = filledRect("MASK", 10, 10, 10, 10, colorJSON(0, 0, 1));
  mask["hasClippingMask"] = true;
  JsonObject masked = filledRect("MASKED", 0, 0, 40, 20, colorJSON(1, 0, 0));
  JsonObject free = filledRect("FREE", 0, 30, 40, 10, colorJSON(0, 1, 0));
  free["shouldBreakMaskChain"] = true;
  JsonObject afterBreak = filledRect("AFTER", 0, 25, 5, 5, colorJSON(1, 0, 0));
  Rendered r(JsonArray{layer("group", "G", "G", frame(0, 0, 40, 40), JsonArray{mask, masked, free, afterBreak})});
  EXPECT_TRUE(near(r.at(15, 15), kRed)) << r.at(15, 15);    // inside the mask: the masked layer on top
  EXPECT_TRUE(near(r.at(5, 5), kClear)) << r.at(5, 5);      // masked layer outside the mask: clipped
  EXPECT_TRUE(near(r.at(35, 15), kClear)) << r.at(35, 15);
  EXPECT_TRUE(near(r.at(20, 35), {0, 255, 0, 255}));         // the chain breaker is not clipped
  EXPECT_TRUE(near(r.at(2, 27), kRed));                      // nor what follows it
}

TEST(RenderPainter, AlphaMaskLetsContentThroughByTheMasksAlpha) {
  JsonObject mask = filledRect("MASK", 0, 0, 20, 40, colorJSON(0, 0, 0, 0.5));
  mask["hasClippingMask"] = true;
  mask["clippingMaskMode"] = 1;
  JsonObject masked = filledRect("MASKED", 0, 0, 40, 40, colorJSON(1, 0, 0));
  Rendered r(JsonArray{mask, masked});
  RGBA8 inside = r.at(10, 20);
  EXPECT_EQ(inside.r, 255);
  EXPECT_NEAR(inside.a, 128, 2);
  EXPECT_TRUE(near(r.at(30, 20), kClear)) << r.at(30, 20);
}

TEST(RenderPainter, GroupOpacityAppliesToTheGroupAsAWhole) {
  JsonObject group = layer("group", "G", "G", frame(0, 0, 40, 40),
                           JsonArray{filledRect("A", 0, 0, 30, 40, colorJSON(1, 0, 0)),
                                     filledRect("B", 10, 0, 30, 40, colorJSON(1, 0, 0))});
  Rendered r(JsonArray{withContext(group, 0.5, 0)});
  // Where the two overlap the alpha is still one half, not three quarters.
  EXPECT_NEAR(r.at(20, 20).a, 128, 2);
  EXPECT_NEAR(r.at(5, 20).a, 128, 2);
}

TEST(RenderPainter, BlendModesCombineTwoKnownColours) {
  // Bottom (1, 0.5, 0) under top (0.5, 0.5, 1), both opaque.
  struct Case {
    int mode;
    RGBA8 expected;
  } cases[] = {
      {0, {128, 128, 255, 255}},   // normal
      {1, {128, 128, 0, 255}},     // darken
      {2, {128, 64, 0, 255}},      // multiply
      {4, {255, 128, 255, 255}},   // lighten
      {5, {255, 191, 255, 255}},   // screen
      {10, {128, 0, 255, 255}},    // difference
  };
  for (const auto& c : cases) {
    JsonObject top = withContext(filledRect("TOP", 0, 0, 40, 40, colorJSON(0.5, 0.5, 1)), 1, c.mode);
    Rendered r(JsonArray{filledRect("BOTTOM", 0, 0, 40, 40, colorJSON(1, 0.5, 0)), top});
    EXPECT_TRUE(near(r.at(20, 20), c.expected, 2)) << "mode " << c.mode << " " << r.at(20, 20);
  }
}

TEST(RenderPainter, BoardBackgroundIsDrawnOnlyWhenExported) {
  struct Case {
    bool has, include;
    RGBA8 expected;
  } cases[] = {{true, true, {0, 0, 255, 255}}, {true, false, kClear}, {false, true, kClear}};
  for (const auto& c : cases) {
    JsonObject extras{{"hasBackgroundColor", c.has},
                      {"includeBackgroundColorInExport", c.include},
                      {"backgroundColor", colorJSON(0, 0, 1)}};
    Rendered r(JsonArray{filledRect("R", 0, 0, 10, 10, colorJSON(1, 0, 0))}, 40, 1, extras);
    EXPECT_TRUE(near(r.at(30, 30), c.expected)) << c.has << c.include << " " << r.at(30, 30);
    EXPECT_TRUE(near(r.at(5, 5), kRed));
  }
}

TEST(RenderPainter, BoardContentIsClippedToTheBoard) {
  Rendered r(JsonArray{filledRect("R", -20, -20, 100, 100, colorJSON(1, 0, 0))}, 40);
  EXPECT_EQ(r.surface.width(), 40);
  EXPECT_TRUE(near(r.at(0, 0), kRed));
  EXPECT_TRUE(near(r.at(39, 39), kRed));
}

TEST(RenderPainter, HiddenLayersAndUndrawableFramesDrawNothing) {
  JsonObject hidden = filledRect("H", 0, 0, 40, 40, colorJSON(1, 0, 0));
  hidden["isVisible"] = false;
  JsonObject broken = filledRect("B", 0, 0, 40, 40, colorJSON(1, 0, 0));
  broken["frame"].as_object()["width"] = "nan";
  Rendered r(JsonArray{hidden, broken});
  EXPECT_TRUE(near(r.at(20, 20), kClear));
}

TEST(RenderPainter, SubtractedShapeGroupLeavesItsHoleEmpty) {
  JsonObject outer = filledRect("O", 0, 0, 30, 30, colorJSON(0, 0, 0));
  JsonObject inner = filledRect("I", 10, 10, 10, 10, colorJSON(0, 0, 0));
  inner["booleanOperation"] = 1;
  JsonObject group = layer("shapeGroup", "SG", "SG", frame(5, 5, 30, 30), JsonArray{outer, inner});
  group["style"] = fillStyle(colorJSON(1, 0, 0));
  Rendered r(JsonArray{group});
  EXPECT_TRUE(near(r.at(20, 20), kClear)) << r.at(20, 20);
  EXPECT_TRUE(near(r.at(8, 8), kRed));
}

TEST(RenderPainter, ExportSizesRoundUpButForgiveFractionalScaleNoise) {
  struct Case {
    double side, scale;
    long long pixels;
  } cases[] = {{108, 2.666667, 288}, {108, 0.444444, 48}, {10.2, 2, 21}, {0.1, 1, 1}, {100, 1, 100}};
  for (const auto& c : cases) EXPECT_EQ(pixelSizeFor({0, 0, c.side, c.side}, c.scale).width, c.pixels) << c.side;
}

// ---- writers

TEST(RenderImageWriter, PNGStoresStraightAlpha) {
  cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 4, 2);
  cairo_t* cr = cairo_create(s);
  cairo_set_source_rgba(cr, 1, 0, 0, 0.5);
  cairo_rectangle(cr, 0, 0, 2, 2);
  cairo_fill(cr);
  cairo_destroy(cr);
  auto bytes = encodePNG(s);
  cairo_surface_destroy(s);
  ASSERT_TRUE(bytes);
  TempDir dir;
  std::string error;
  ASSERT_TRUE(writeInside(dir.path(), "a/b.png", *bytes, &error)) << error;
  auto image = readPNG(dir / "a/b.png");
  ASSERT_TRUE(image);
  ASSERT_EQ(image->width, 4);
  ASSERT_EQ(image->height, 2);
  EXPECT_EQ(image->pixels[0], 255);
  EXPECT_NEAR(image->pixels[3], 128, 1);
  EXPECT_EQ(image->pixels[4 * 3 + 3], 0);
}

TEST(RenderImageWriter, JPEGQualityFollowsTheCompressionSetting) {
  cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 64, 64);
  cairo_t* cr = cairo_create(s);
  cairo_pattern_t* gradient = cairo_pattern_create_linear(0, 0, 64, 64);
  cairo_pattern_add_color_stop_rgb(gradient, 0, 1, 0, 0);
  cairo_pattern_add_color_stop_rgb(gradient, 1, 0, 0, 1);
  cairo_set_source(cr, gradient);
  cairo_paint(cr);
  cairo_pattern_destroy(gradient);
  cairo_destroy(cr);
  auto low = encodeJPEG(s, 0.1), high = encodeJPEG(s, 1.0);
  EXPECT_FALSE(encodeImage(s, "tiff", 1));
  cairo_surface_destroy(s);
  ASSERT_TRUE(low && high);
  EXPECT_EQ(low->substr(0, 2), "\xFF\xD8");
  EXPECT_LT(low->size(), high->size());
}

TEST(RenderImageWriter, NamesThatLeaveTheFolderAreRefused) {
  TempDir dir;
  std::filesystem::create_directories(dir / "out");
  std::filesystem::create_symlink(dir.path(), dir / "out/link");
  for (std::string name : {"../escape.png", "/tmp/absolute.png", "a/../../escape.png", "link/escape.png", ""}) {
    std::string error;
    EXPECT_FALSE(writeInside(dir / "out", name, "x", &error)) << name;
    EXPECT_FALSE(error.empty()) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "escape.png"));
}

TEST(RenderImageWriter, ARelativeOutputFolderIsNotRepeated) {
  TempDir dir;
  auto previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  std::string error;
  bool written = writeInside("out", "a.png", "x", &error);
  std::filesystem::current_path(previous);
  ASSERT_TRUE(written) << error;
  EXPECT_TRUE(std::filesystem::exists(dir / "out/a.png"));
  EXPECT_FALSE(std::filesystem::exists(dir / "out/out"));
}
