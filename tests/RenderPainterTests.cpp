// Pixels the painter must get exactly: filled edges, placements, masks,
// group opacity, blend modes, board backgrounds; and the image writers.

#include "ImageCompare.h"
#include "ImageWriter.h"
#include "Painter.h"
#include "RenderFixtures.h"
#include "SceneBuilder.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace plexa;
using namespace plexa::render;
using namespace plexa::test;

namespace {

const RGBA8 kClear{0, 0, 0, 0};
const RGBA8 kRed{255, 0, 0, 255};
const RGBA8 kGreen{0, 255, 0, 255};
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

JsonObject with(JsonObject layer, const JsonObject& keys) {
  for (const auto& [key, value] : keys) layer[key] = value;
  return layer;
}

JsonObject withContext(JsonObject layer, double opacity, int blendMode) {
  layer["style"].as_object()["contextSettings"] =
      JsonObject{{"_class", "graphicsContextSettings"}, {"opacity", opacity}, {"blendMode", blendMode}};
  return layer;
}

JsonObject group(JsonArray children, const std::string& cls = "group") {
  return layer(cls, "G", "G", frame(0, 0, 40, 40), std::move(children));
}

// A 30 × 10 red bar with a blue 10 × 10 head at its right end, in a group
// turned or flipped about the group's centre (20, 20).
JsonObject arrow(double rotation, bool flipH, bool flipV) {
  return with(group({filledRect("BAR", 5, 15, 30, 10, colorJSON(1, 0, 0)),
                     filledRect("HEAD", 25, 15, 10, 10, colorJSON(0, 0, 1))}),
              {{"rotation", rotation}, {"isFlippedHorizontal", flipH}, {"isFlippedVertical", flipV}});
}

// Bottom (1, 0.5, 0) under top (0.5, 0.5, 1), both opaque, with a blend mode.
JsonArray blended(int mode) {
  return {filledRect("BOTTOM", 0, 0, 40, 40, colorJSON(1, 0.5, 0)),
          withContext(filledRect("TOP", 0, 0, 40, 40, colorJSON(0.5, 0.5, 1)), 1, mode)};
}

JsonObject background(bool has, bool include) {
  return {{"hasBackgroundColor", has}, {"includeBackgroundColorInExport", include},
          {"backgroundColor", colorJSON(0, 0, 1)}};
}

}  // namespace

TEST(RenderPainter, FilledRectangleHasExactEdgesAtEveryScale) {
  for (double scale : {1.0, 2.0, 3.0}) {
    Rendered r(JsonArray{filledRect("R", 10, 5, 20, 10, colorJSON(1, 0, 0))}, 40, scale);
    ASSERT_TRUE(r.surface);
    EXPECT_EQ(r.surface.width(), 40 * scale);
    auto px = [&](double x, double y) { return r.at(static_cast<int>(x * scale), static_cast<int>(y * scale)); };
    EXPECT_TRUE(near(px(10, 5), kRed)) << scale;
    EXPECT_TRUE(near(px(29.9, 14.9), kRed)) << scale;
    EXPECT_TRUE(near(px(9.9, 10), kClear)) << scale;
    EXPECT_TRUE(near(px(30, 10), kClear)) << scale;
    EXPECT_TRUE(near(px(20, 4.9), kClear)) << scale;
    EXPECT_TRUE(near(px(20, 15), kClear)) << scale;
  }
}

TEST(RenderPainter, BoardsPaintTheirLayersAsSketchDoes) {
  struct Probe {
    int x, y;
    RGBA8 expected;
  };
  struct Case {
    const char* name;
    JsonArray layers;
    std::vector<Probe> probes;
    JsonObject board = {};
  };
  JsonObject mask = with(filledRect("MASK", 10, 10, 10, 10, colorJSON(0, 0, 1)), {{"hasClippingMask", true}});
  JsonObject alphaMask = with(filledRect("MASK", 0, 0, 20, 40, colorJSON(0, 0, 0, 0.5)),
                              {{"hasClippingMask", true}, {"clippingMaskMode", 1}});
  JsonObject breaker = with(filledRect("FREE", 0, 30, 40, 10, colorJSON(0, 1, 0)), {{"shouldBreakMaskChain", true}});
  JsonObject hole = with(filledRect("I", 10, 10, 10, 10, colorJSON(0, 0, 0)), {{"booleanOperation", 1}});
  JsonObject shapeGroup = with(group({filledRect("O", 0, 0, 30, 30, colorJSON(0, 0, 0)), hole}, "shapeGroup"),
                               {{"frame", frame(5, 5, 30, 30)}, {"style", fillStyle(colorJSON(1, 0, 0))}});
  JsonObject broken = filledRect("B", 0, 0, 40, 40, colorJSON(1, 0, 0));
  broken["frame"].as_object()["width"] = "nan";
  JsonObject fullRed = filledRect("R", 0, 0, 40, 40, colorJSON(1, 0, 0));
  JsonObject cornerRed = filledRect("R", 0, 0, 10, 10, colorJSON(1, 0, 0));

  const Case cases[] = {
      // A point inside the blue head after the turn, and the red middle.
      {"plain", {arrow(0, false, false)}, {{32, 20, kBlue}, {20, 20, kRed}}},
      {"turned 90 counter-clockwise", {arrow(90, false, false)}, {{20, 8, kBlue}, {20, 20, kRed}}},
      {"turned -90", {arrow(-90, false, false)}, {{20, 32, kBlue}, {20, 20, kRed}}},
      {"turned 180", {arrow(180, false, false)}, {{8, 20, kBlue}, {20, 20, kRed}}},
      {"flipped horizontally", {arrow(0, true, false)}, {{8, 20, kBlue}, {20, 20, kRed}}},
      {"flipped vertically", {arrow(0, false, true)}, {{32, 20, kBlue}, {20, 20, kRed}}},
      // Inside the mask the masked layer shows; outside it is clipped; the
      // chain breaker and what follows it are not clipped.
      {"outline mask",
       {group({mask, filledRect("MASKED", 0, 0, 40, 20, colorJSON(1, 0, 0)), breaker,
               filledRect("AFTER", 0, 25, 5, 5, colorJSON(1, 0, 0))})},
       {{15, 15, kRed}, {5, 5, kClear}, {35, 15, kClear}, {20, 35, kGreen}, {2, 27, kRed}}},
      {"alpha mask", {alphaMask, fullRed}, {{10, 20, {255, 0, 0, 128}}, {30, 20, kClear}}},
      // Where the two overlap the alpha is still one half, not three quarters.
      {"group opacity",
       {withContext(group({filledRect("A", 0, 0, 30, 40, colorJSON(1, 0, 0)),
                           filledRect("B", 10, 0, 30, 40, colorJSON(1, 0, 0))}),
                    0.5, 0)},
       {{20, 20, {255, 0, 0, 128}}, {5, 20, {255, 0, 0, 128}}}},
      // A faded group is drawn on a surface cut to what it draws, which
      // must still hold a child lying outside the group's own frame.
      {"faded group with a child past its frame",
       {withContext(with(group({filledRect("FAR", 25, 25, 10, 10, colorJSON(1, 0, 0))}), {{"frame", frame(0, 0, 10, 10)}}),
                    0.5, 0)},
       {{30, 30, {255, 0, 0, 128}}, {34, 34, {255, 0, 0, 128}}, {5, 5, kClear}}},
      {"normal blend", blended(0), {{20, 20, {128, 128, 255, 255}}}},
      {"darken", blended(1), {{20, 20, {128, 128, 0, 255}}}},
      {"multiply", blended(2), {{20, 20, {128, 64, 0, 255}}}},
      {"lighten", blended(4), {{20, 20, {255, 128, 255, 255}}}},
      {"screen", blended(5), {{20, 20, {255, 191, 255, 255}}}},
      {"difference", blended(10), {{20, 20, {128, 0, 255, 255}}}},
      {"exported background", {cornerRed}, {{30, 30, kBlue}, {5, 5, kRed}}, background(true, true)},
      {"background not exported", {cornerRed}, {{30, 30, kClear}, {5, 5, kRed}}, background(true, false)},
      {"no background", {cornerRed}, {{30, 30, kClear}, {5, 5, kRed}}, background(false, true)},
      {"content clipped to the board", {filledRect("R", -20, -20, 100, 100, colorJSON(1, 0, 0))},
       {{0, 0, kRed}, {39, 39, kRed}}},
      {"hidden and undrawable", {with(fullRed, {{"isVisible", false}}), broken}, {{20, 20, kClear}}},
      {"subtracted shape group", {shapeGroup}, {{20, 20, kClear}, {8, 8, kRed}}},
  };
  for (const auto& c : cases) {
    Rendered r(c.layers, 40, 1, c.board);
    ASSERT_TRUE(r.surface) << c.name;
    for (const auto& p : c.probes) EXPECT_TRUE(near(r.at(p.x, p.y), p.expected)) << c.name << " at " << p.x << "," << p.y;
  }
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
  Canvas canvas(4, 2);
  cairo_set_source_rgba(canvas.cr(), 1, 0, 0, 0.5);
  cairo_rectangle(canvas.cr(), 0, 0, 2, 2);
  cairo_fill(canvas.cr());
  auto bytes = encodePNG(canvas.surface());
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
  Canvas canvas(64, 64);
  cairo_pattern_t* gradient = cairo_pattern_create_linear(0, 0, 64, 64);
  cairo_pattern_add_color_stop_rgb(gradient, 0, 1, 0, 0);
  cairo_pattern_add_color_stop_rgb(gradient, 1, 0, 0, 1);
  cairo_set_source(canvas.cr(), gradient);
  cairo_paint(canvas.cr());
  cairo_pattern_destroy(gradient);
  auto low = encodeJPEG(canvas.surface(), 0.1), high = encodeJPEG(canvas.surface(), 1.0);
  EXPECT_FALSE(encodeImage(canvas.surface(), "tiff", 1));
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
