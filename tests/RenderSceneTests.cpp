// The typed scene and its geometry: placements, outlines from points,
// rounded corners, boolean operations, and the builder's reading of layers.

#include "RenderFixtures.h"
#include "SceneBuilder.h"
#include "ShapePath.h"
#include "SketchToolCommand.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

using namespace plexa;
using namespace plexa::render;
using namespace plexa::test;

namespace {

// Net area of the flattened outline (outer rings minus holes).
double areaOf(const Path& path) {
  double total = 0;
  for (const auto& ring : flattenPath(path, 0.001)) {
    double twice = 0;
    for (size_t i = 0; i < ring.size(); ++i) {
      const Point& a = ring[i];
      const Point& b = ring[(i + 1) % ring.size()];
      twice += a.x * b.y - b.x * a.y;
    }
    total += twice / 2;
  }
  return std::fabs(total);
}

struct Builder {
  RenderNotes notes;
  ImageSource images{[](const std::string&) { return std::optional<std::string>(); }};
  SceneBuilder builder{images, notes, 0.01};
  std::unique_ptr<Node> build(const JsonObject& layer) { return builder.buildLayer(JsonValue(layer)); }
  ScenePage buildPage(JsonArray layers) { return builder.buildPage(JsonValue(page("P", "Page", std::move(layers)))); }
};

JsonObject black(const std::string& id, double x, double y, double w, double h) {
  return filledRect(id, x, y, w, h, colorJSON(0, 0, 0));
}

}  // namespace

// ---- placements

TEST(RenderPlacement, MapsOwnCoordinatesIntoTheParent) {
  // Frame at (10, 20), 100 × 50: centre (60, 45).
  struct Case {
    const char* name;
    double rotation;
    bool flipH, flipV;
    Point own, expected;
  } cases[] = {
      {"plain", 0, false, false, {0, 0}, {10, 20}},
      {"plain far corner", 0, false, false, {100, 50}, {110, 70}},
      // A counter-clockwise quarter turn on screen moves the top-left corner to the bottom left.
      {"rotated 90", 90, false, false, {0, 0}, {35, 95}},
      {"rotated -90", -90, false, false, {0, 0}, {85, -5}},
      {"rotated 180", 180, false, false, {0, 0}, {110, 70}},
      {"flipped horizontally", 0, true, false, {0, 0}, {110, 20}},
      {"flipped vertically", 0, false, true, {0, 0}, {10, 70}},
      {"flipped both", 0, true, true, {100, 0}, {10, 70}},
  };
  for (const auto& c : cases) {
    cairo_matrix_t m = Placement{{10, 20, 100, 50}, c.rotation, c.flipH, c.flipV}.matrix();
    Point p = c.own;
    cairo_matrix_transform_point(&m, &p.x, &p.y);
    EXPECT_NEAR(std::hypot(p.x - c.expected.x, p.y - c.expected.y), 0, 1e-9) << c.name << ": " << p.x << "," << p.y;
  }
  Rect turned = Placement{{0, 0, 100, 50}, 90, false, false}.boundsInParent();
  EXPECT_NEAR(std::abs(turned.x - 25) + std::abs(turned.y + 25) + std::abs(turned.width - 50) +
                  std::abs(turned.height - 100), 0, 1e-9) << "bounds of a turned frame are its turned box";
}

TEST(RenderPlacement, ExportScaleFollowsAbsoluteSizes) {
  struct Case {
    double scale, absolute;
    int type;
    double expected;
  } cases[] = {{2, 0, 0, 2}, {0, 0, 0, 1}, {1, 48, 1, 0.5}, {1, 48, 2, 2}, {3, 48, 0, 3}, {1, 0, 1, 1}};
  for (const auto& c : cases) {
    ExportFormat format;
    format.scale = c.scale, format.absoluteSize = c.absolute, format.visibleScaleType = c.type;
    EXPECT_DOUBLE_EQ(format.effectiveScale(96, 24), c.expected) << c.scale << " " << c.absolute << " " << c.type;
  }
}

// ---- outlines from points

TEST(RenderShapePath, OutlinesSpanTheFrameWithTheRightArea) {
  JsonObject old = shapeLayer("rectangle", "R", frame(0, 0, 40, 40), JsonArray{}, colorJSON(1, 0, 0));
  old.erase("points");
  old["path"] = JsonObject{{"_class", "path"}, {"isClosed", true}, {"points", unitRectanglePoints()}};
  old["fixedRadius"] = 20;
  old["hasConvertedToNewRoundCorners"] = false;
  auto rectangle = [](double radius) {
    return shapeLayer("rectangle", "R", frame(0, 0, 100, 50), unitRectanglePoints(radius), colorJSON(1, 0, 0));
  };
  struct Case {
    const char* name;
    JsonObject layer;
    double width, height, area, tolerance;
  } cases[] = {
      {"rectangle", rectangle(0), 100, 50, 5000, 1e-6},
      {"rounded corners", rectangle(10), 100, 50, 5000 - (4 - std::numbers::pi) * 100, 0.5},
      {"radius clamped to half the short side", rectangle(100), 100, 50, 5000 - (4 - std::numbers::pi) * 625, 0.5},
      {"old rectangle with a fixed radius", old, 40, 40, std::numbers::pi * 400, 2},
      {"oval", shapeLayer("oval", "O", frame(0, 0, 80, 40), unitOvalPoints(), colorJSON(1, 0, 0)), 80, 40,
       std::numbers::pi * 40 * 20, 3},
  };
  for (const auto& c : cases) {
    bool closed = false;
    Path path = shapeOutline(JsonValue(c.layer), c.width, c.height, &closed);
    EXPECT_TRUE(closed) << c.name;
    EXPECT_EQ(path.bounds(), (Rect{0, 0, c.width, c.height})) << c.name;
    EXPECT_NEAR(areaOf(path), c.area, c.tolerance) << c.name;
  }
}

TEST(RenderShapePath, MalformedPointsAreSkippedAndOpenPathsStayOpen) {
  JsonArray points{curvePoint(0, 0), JsonObject{{"point", "garbage"}}, curvePoint(1, 1), JsonObject{}};
  JsonObject layer = shapeLayer("shapePath", "P", frame(0, 0, 10, 10), points, colorJSON(0, 0, 0));
  layer["isClosed"] = false;
  bool closed = true;
  auto read = readCurvePoints(JsonValue(layer), 10, 10, &closed);
  EXPECT_FALSE(closed);
  ASSERT_EQ(read.size(), 2u);
  Path path = outlineFromPoints(read, closed);
  ASSERT_EQ(path.elements().size(), 2u);
  EXPECT_EQ(path.elements()[1].verb, Path::Verb::Line);
  EXPECT_EQ(path.elements()[1].points[0], (Point{10, 10}));
}

// ---- boolean operations

TEST(RenderShapePath, BooleanOperationsCombineTwoSquares) {
  struct Case {
    BooleanOp op;
    Path second;
    double area;
  } cases[] = {{BooleanOp::Union, rectPath(5, 0, 10, 10), 150},
               {BooleanOp::Subtract, rectPath(5, 0, 10, 10), 50},
               {BooleanOp::Intersect, rectPath(5, 0, 10, 10), 50},
               {BooleanOp::Difference, rectPath(5, 0, 10, 10), 100},
               {BooleanOp::None, rectPath(5, 0, 10, 10), 200},
               {BooleanOp::Subtract, rectPath(2, 2, 6, 6), 64}};  // a hole
  for (const auto& c : cases) {
    Path combined = combineOutlines({{rectPath(0, 0, 10, 10), BooleanOp::None}, {c.second, c.op}}, 0.01);
    EXPECT_NEAR(areaOf(combined), c.area, 0.01) << static_cast<int>(c.op) << " " << c.area;
  }
}

TEST(RenderShapePath, FlatteningFollowsTheTolerance) {
  JsonObject oval = shapeLayer("oval", "O", frame(0, 0, 100, 100), unitOvalPoints(), colorJSON(1, 0, 0));
  Path circle = shapeOutline(JsonValue(oval), 100, 100, nullptr);
  EXPECT_LT(flattenPath(circle, 1).front().size(), flattenPath(circle, 0.01).front().size());
}

// ---- the builder

TEST(RenderSceneBuilder, ReadsLayerKindsAndDropsInstancesWithoutMaster) {
  JsonObject board = artboard("AB", "Board", frame(0, 0, 100, 100),
                              JsonArray{layer("group", "G", "G", frame(0, 0, 50, 50), JsonArray{black("R", 0, 0, 5, 5)}),
                                        layer("slice", "S", "S", frame(1, 1, 2, 2)),
                                        layer("symbolInstance", "I", "I", frame(0, 0, 1, 1))});
  Builder b;
  auto node = b.build(board);
  ASSERT_TRUE(node);
  EXPECT_EQ(node->kind, NodeKind::Artboard);
  ASSERT_EQ(node->children.size(), 2u);
  EXPECT_EQ(node->children[0]->kind, NodeKind::Group);
  ASSERT_EQ(node->children[0]->children.size(), 1u);
  EXPECT_EQ(node->children[0]->children[0]->kind, NodeKind::Shape);
  EXPECT_EQ(node->children[1]->kind, NodeKind::Slice);
}

TEST(RenderSceneBuilder, ShapeGroupsCombineTheirChildrenInTheirOwnCoordinates) {
  JsonObject subtracted = black("B", 5, 0, 10, 10);
  subtracted["booleanOperation"] = 1;
  JsonObject line = shapeLayer("shapePath", "L", frame(0, 0, 10, 0), JsonArray{curvePoint(0, 0), curvePoint(1, 0)},
                               colorJSON(0, 0, 0));
  line["isClosed"] = false;
  struct Case {
    const char* name;
    JsonArray children;
    int windingRule;
    bool closed, evenOdd;
    double area, width;
  } cases[] = {{"subtracted square", {black("A", 0, 0, 10, 10), subtracted}, 0, true, false, 50, 5},
               {"an open child keeps it open", {line}, 1, false, true, 0, 10}};
  for (const auto& c : cases) {
    JsonObject group = layer("shapeGroup", "SG", "SG", frame(100, 100, 15, 10), c.children);
    group["style"] = fillStyle(colorJSON(1, 0, 0));
    group["windingRule"] = c.windingRule;
    Builder builder;
    auto node = builder.build(group);
    ASSERT_TRUE(node) << c.name;
    EXPECT_EQ(node->kind, NodeKind::Shape) << c.name;
    EXPECT_EQ(node->isClosed, c.closed) << c.name;
    EXPECT_EQ(node->outline.evenOdd, c.evenOdd) << c.name;
    EXPECT_NEAR(areaOf(node->outline), c.area, 0.01) << c.name;
    EXPECT_NEAR(node->outline.bounds().width, c.width, 1e-6) << c.name;
  }
}

TEST(RenderSceneBuilder, FramesThatAreNotNumbersAreMarkedUndrawable) {
  struct Case {
    const char* name;
    JsonValue width;
    bool sane;
  } cases[] = {{"plain", 10, true}, {"string number", "12", true}, {"not a number", "nan", false},
               {"absurd", 1e12, false}, {"negative", -5, false}, {"text", "wide", false}};
  for (const auto& c : cases) {
    JsonObject l = black("R", 0, 0, 10, 10);
    l["frame"].as_object()["width"] = c.width;
    Builder builder;
    auto node = builder.build(l);
    ASSERT_TRUE(node) << c.name;
    EXPECT_EQ(isSaneFrame(node->placement.frame), c.sane) << c.name;
  }
}

TEST(RenderSceneBuilder, DeepNestingIsCutInsteadOfExhaustingTheStack) {
  JsonObject current = black("LEAF", 0, 0, 1, 1);
  for (int i = 0; i < kMaxLayerDepth + 50; ++i)
    current = layer("group", "G" + std::to_string(i), "G", frame(0, 0, 1, 1), JsonArray{current});
  Builder b;
  auto node = b.build(current);
  ASSERT_TRUE(node);
  int depth = 1;
  for (const Node* n = node.get(); !n->children.empty(); n = n->children[0].get()) ++depth;
  EXPECT_EQ(depth, kMaxLayerDepth);
}

TEST(RenderSceneBuilder, OpeningSomethingThatIsNotADocumentFails) {
  TempDir dir;
  writeText(dir / "junk.sketch", "not a zip");
  RenderNotes notes;
  std::string error;
  EXPECT_FALSE(SketchDocument::open(dir / "junk.sketch", notes, &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(SketchDocument::open(dir / "missing.sketch", notes, &error));
}

// ---- pages

TEST(RenderScene, PageBoundsAndLocationsComposeTransforms) {
  JsonObject group = layer("group", "G", "G", frame(20, 30, 40, 40), JsonArray{black("R", 5, 5, 10, 10)});
  JsonObject board = artboard("AB", "Board", frame(100, 200, 300, 300), JsonArray{group});
  Builder b;
  ScenePage page = b.buildPage({board, black("LOOSE", -50, 0, 10, 10)});
  EXPECT_EQ(page.contentBounds(), (Rect{-50, 0, 450, 500}));
  auto location = locateNode(page, "R");
  ASSERT_TRUE(location);
  ASSERT_EQ(location->ancestors.size(), 2u);
  double x = 0, y = 0;
  cairo_matrix_transform_point(&location->toPage, &x, &y);
  EXPECT_DOUBLE_EQ(x, 125);
  EXPECT_DOUBLE_EQ(y, 235);
}

// Page renders are bounded as Sketch bounds its page previews: borders and
// shadows (to their blur radius) count, artboards and instances by their
// frames, symbol masters with content past their frames.
TEST(RenderScene, PageDrawnBoundsCountWhatIsDrawn) {
  auto styled = [](JsonObject shape, const char* key, JsonObject effect) {
    effect["isEnabled"] = true;
    effect["color"] = colorJSON(0, 0, 0);
    shape["style"].as_object()[key] = JsonArray{effect};
    return shape;
  };
  auto shadowed = [&](JsonObject shape, double blur, double dx) {
    return styled(shape, "shadows", {{"blurRadius", blur}, {"offsetX", dx}, {"offsetY", 0}, {"spread", 0}});
  };
  JsonObject square = black("S", 0, 0, 100, 100);
  JsonObject inside = shadowed(black("R", 0, 80, 100, 20), 10, 0);
  JsonObject master = artboard("M", "M", frame(0, 0, 100, 100), JsonArray{inside});
  master["_class"] = "symbolMaster";
  JsonObject instance = layer("group", "I", "I", frame(0, 0, 100, 100), JsonArray{inside});
  instance["in_detachedSymbol"] = true;
  struct Case {
    const char* what;
    JsonObject top;
    Rect expected;
  } cases[] = {
      {"loose shape, shadow", shadowed(square, 10, 5), {-5, -10, 120, 120}},
      {"loose shape, outside border", styled(square, "borders", {{"thickness", 4}, {"position", 2}}),
       {-4, -4, 108, 108}},
      {"artboard: frame only", artboard("A", "A", frame(0, 0, 100, 100), JsonArray{inside}), {0, 0, 100, 100}},
      {"symbol master: content too", master, {-10, 0, 120, 110}},
      {"instance: frame only", instance, {0, 0, 100, 100}},
  };
  for (auto& c : cases) {
    Builder b;
    ScenePage page = b.buildPage({c.top, black("O", 0, 0, 10, 10)});
    EXPECT_EQ(page.drawnBounds(), c.expected) << c.what;
    EXPECT_EQ(page.contentBounds(), (Rect{0, 0, 100, 100})) << c.what;
  }
}

// ---- names (the common presets are checked through plexa-sketchtool)

TEST(RenderNames, ASuffixKeepsItsSlashesWhenLayersAreNamedByName) {
  ExportFormat format;
  format.name = "-a/b", format.fileFormat = "png";
  EXPECT_EQ(layerFileName("ID", format, false), "ID-a/b.png");
}
