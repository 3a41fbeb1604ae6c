// The typed scene and its geometry: placements, outlines from points,
// rounded corners, boolean operations, and the builder's reading of layers.

#include "RenderFixtures.h"
#include "SceneBuilder.h"
#include "ShapePath.h"
#include "SketchToolCommand.h"
#include "TestSupport.h"

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

Path rectPath(double x, double y, double w, double h) {
  Path p;
  p.moveTo({x, y}), p.lineTo({x + w, y}), p.lineTo({x + w, y + h}), p.lineTo({x, y + h}), p.close();
  return p;
}

struct Builder {
  RenderNotes notes;
  ImageSource images{[](const std::string&) { return std::optional<std::string>(); }};
  SceneBuilder builder{images, notes, 0.01};
};

Point mapped(const Placement& placement, Point p) {
  cairo_matrix_t m = placement.matrix();
  cairo_matrix_transform_point(&m, &p.x, &p.y);
  return p;
}

}  // namespace

// ---- placements

struct PlacementCase {
  const char* name;
  double rotation;
  bool flipH, flipV;
  Point own, expected;
};

TEST(RenderPlacement, MapsOwnCoordinatesIntoTheParent) {
  // Frame at (10, 20), 100 × 50: centre (60, 45).
  const PlacementCase cases[] = {
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
    Placement placement{{10, 20, 100, 50}, c.rotation, c.flipH, c.flipV};
    Point p = mapped(placement, c.own);
    EXPECT_NEAR(p.x, c.expected.x, 1e-9) << c.name;
    EXPECT_NEAR(p.y, c.expected.y, 1e-9) << c.name;
  }
}

TEST(RenderPlacement, BoundsOfARotatedFrameAreItsTurnedBox) {
  Placement placement{{0, 0, 100, 50}, 90, false, false};
  Rect bounds = placement.boundsInParent();
  EXPECT_NEAR(bounds.x, 25, 1e-9);
  EXPECT_NEAR(bounds.y, -25, 1e-9);
  EXPECT_NEAR(bounds.width, 50, 1e-9);
  EXPECT_NEAR(bounds.height, 100, 1e-9);
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

TEST(RenderShapePath, RectanglePointsSpanTheFrame) {
  JsonValue layer = shapeLayer("rectangle", "R", frame(0, 0, 100, 50), unitRectanglePoints(), colorJSON(1, 0, 0));
  bool closed = false;
  Path path = shapeOutline(layer, 100, 50, &closed);
  EXPECT_TRUE(closed);
  EXPECT_EQ(path.bounds(), (Rect{0, 0, 100, 50}));
  EXPECT_NEAR(areaOf(path), 5000, 1e-6);
}

TEST(RenderShapePath, CornerRadiiRoundAndAreClampedToHalfTheShortSide) {
  struct Case {
    double radius, expectedArea;
  } cases[] = {
      {0, 5000},
      {10, 5000 - (4 - std::numbers::pi) * 100},
      {100, 5000 - (4 - std::numbers::pi) * 625},  // clamped to 25
  };
  for (const auto& c : cases) {
    JsonValue layer =
        shapeLayer("rectangle", "R", frame(0, 0, 100, 50), unitRectanglePoints(c.radius), colorJSON(1, 0, 0));
    Path path = shapeOutline(layer, 100, 50, nullptr);
    EXPECT_NEAR(areaOf(path), c.expectedArea, 0.5) << "radius " << c.radius;
    EXPECT_EQ(path.bounds(), (Rect{0, 0, 100, 50})) << "radius " << c.radius;
  }
}

TEST(RenderShapePath, OldRectanglesTakeTheirFixedRadius) {
  JsonObject layer = shapeLayer("rectangle", "R", frame(0, 0, 40, 40), JsonArray{}, colorJSON(1, 0, 0));
  layer.erase("points");
  layer["path"] = JsonObject{{"_class", "path"}, {"isClosed", true}, {"points", unitRectanglePoints()}};
  layer["fixedRadius"] = 20;
  layer["hasConvertedToNewRoundCorners"] = false;
  Path path = shapeOutline(JsonValue(layer), 40, 40, nullptr);
  EXPECT_NEAR(areaOf(path), std::numbers::pi * 400, 2);
}

TEST(RenderShapePath, OvalHandlesMakeAnEllipse) {
  JsonValue layer = shapeLayer("oval", "O", frame(0, 0, 80, 40), unitOvalPoints(), colorJSON(1, 0, 0));
  Path path = shapeOutline(layer, 80, 40, nullptr);
  EXPECT_NEAR(areaOf(path), std::numbers::pi * 40 * 20, 3);
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

TEST(RenderShapePath, BooleanOperationsCombineTwoOverlappingSquares) {
  struct Case {
    BooleanOp op;
    double area;
  } cases[] = {{BooleanOp::Union, 150},
               {BooleanOp::Subtract, 50},
               {BooleanOp::Intersect, 50},
               {BooleanOp::Difference, 100},
               {BooleanOp::None, 200}};
  for (const auto& c : cases) {
    Path combined = combineOutlines({{rectPath(0, 0, 10, 10), BooleanOp::None}, {rectPath(5, 0, 10, 10), c.op}}, 0.01);
    EXPECT_NEAR(areaOf(combined), c.area, 0.01) << static_cast<int>(c.op);
  }
}

TEST(RenderShapePath, SubtractingAnInnerSquareLeavesAHoleThatFillsCorrectly) {
  Path frameShape = combineOutlines({{rectPath(0, 0, 30, 30), BooleanOp::None}, {rectPath(10, 10, 10, 10), BooleanOp::Subtract}}, 0.01);
  EXPECT_NEAR(areaOf(frameShape), 800, 0.01);
  cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 30, 30);
  cairo_t* cr = cairo_create(s);
  frameShape.appendTo(cr);
  cairo_set_fill_rule(cr, frameShape.evenOdd ? CAIRO_FILL_RULE_EVEN_ODD : CAIRO_FILL_RULE_WINDING);
  cairo_fill(cr);
  EXPECT_EQ(pixelAt(s, 15, 15).a, 0);
  EXPECT_EQ(pixelAt(s, 5, 5).a, 255);
  cairo_destroy(cr);
  cairo_surface_destroy(s);
}

TEST(RenderShapePath, FlatteningFollowsTheTolerance) {
  Path circle;
  constexpr double k = 0.5522847498 * 50;
  circle.moveTo({100, 50});
  circle.cubicTo({100, 50 + k}, {50 + k, 100}, {50, 100});
  circle.cubicTo({50 - k, 100}, {0, 50 + k}, {0, 50});
  circle.cubicTo({0, 50 - k}, {50 - k, 0}, {50, 0});
  circle.cubicTo({50 + k, 0}, {100, 50 - k}, {100, 50});
  circle.close();
  size_t coarse = flattenPath(circle, 1).front().size(), fine = flattenPath(circle, 0.01).front().size();
  EXPECT_LT(coarse, fine);
  EXPECT_NEAR(areaOf(circle), std::numbers::pi * 2500, 5);
}

// ---- the builder

TEST(RenderSceneBuilder, ReadsKindsMasksAndBoardBackgrounds) {
  JsonObject mask = filledRect("MASK", 0, 0, 50, 50, colorJSON(0, 0, 1));
  mask["hasClippingMask"] = true;
  mask["clippingMaskMode"] = 1;
  JsonObject breaker = filledRect("BREAK", 0, 0, 5, 5, colorJSON(0, 1, 0));
  breaker["shouldBreakMaskChain"] = true;
  JsonObject hidden = filledRect("HIDDEN", 0, 0, 5, 5, colorJSON(0, 1, 0));
  hidden["isVisible"] = false;
  hidden["rotation"] = 30;
  hidden["isFlippedHorizontal"] = true;
  JsonObject board = artboard("AB", "Board", frame(0, 0, 100, 100),
                              JsonArray{layer("group", "G", "G", frame(0, 0, 50, 50), JsonArray{mask, breaker}),
                                        hidden, layer("slice", "S", "S", frame(1, 1, 2, 2)),
                                        layer("symbolInstance", "I", "I", frame(0, 0, 1, 1))});
  board["hasBackgroundColor"] = true;
  board["includeBackgroundColorInExport"] = false;
  board["backgroundColor"] = colorJSON(1, 0, 0, 1);

  Builder b;
  auto node = b.builder.buildLayer(JsonValue(board));
  ASSERT_TRUE(node);
  EXPECT_EQ(node->kind, NodeKind::Artboard);
  EXPECT_TRUE(node->hasBackgroundColor);
  EXPECT_FALSE(node->includeBackgroundColorInExport);
  EXPECT_EQ(node->backgroundColor, (Color{1, 0, 0, 1}));
  // The instance without a master is dropped.
  ASSERT_EQ(node->children.size(), 3u);
  const Node& group = *node->children[0];
  EXPECT_EQ(group.kind, NodeKind::Group);
  ASSERT_EQ(group.children.size(), 2u);
  EXPECT_TRUE(group.children[0]->hasClippingMask);
  EXPECT_EQ(group.children[0]->clippingMaskMode, 1);
  EXPECT_TRUE(group.children[1]->shouldBreakMaskChain);
  EXPECT_EQ(group.children[0]->kind, NodeKind::Shape);
  EXPECT_EQ(group.children[0]->outline.bounds(), (Rect{0, 0, 50, 50}));
  const Node& hiddenNode = *node->children[1];
  EXPECT_FALSE(hiddenNode.isVisible);
  EXPECT_DOUBLE_EQ(hiddenNode.placement.rotation, 30);
  EXPECT_TRUE(hiddenNode.placement.flipHorizontal);
  EXPECT_EQ(node->children[2]->kind, NodeKind::Slice);
}

TEST(RenderSceneBuilder, ShapeGroupsCombineTheirChildrenInTheirOwnCoordinates) {
  JsonObject a = filledRect("A", 0, 0, 10, 10, colorJSON(0, 0, 0));
  JsonObject b = filledRect("B", 5, 0, 10, 10, colorJSON(0, 0, 0));
  b["booleanOperation"] = 1;
  JsonObject group = layer("shapeGroup", "SG", "SG", frame(100, 100, 15, 10), JsonArray{a, b});
  group["style"] = fillStyle(colorJSON(1, 0, 0));
  Builder builder;
  auto node = builder.builder.buildLayer(JsonValue(group));
  ASSERT_TRUE(node);
  EXPECT_EQ(node->kind, NodeKind::Shape);
  EXPECT_TRUE(node->isClosed);
  EXPECT_NEAR(areaOf(node->outline), 50, 0.01);
  EXPECT_NEAR(node->outline.bounds().width, 5, 1e-6);
}

TEST(RenderSceneBuilder, OpenChildKeepsAShapeGroupOpenAndWindingRuleIsRead) {
  JsonObject line = shapeLayer("shapePath", "L", frame(0, 0, 10, 0), JsonArray{curvePoint(0, 0), curvePoint(1, 0)},
                               colorJSON(0, 0, 0));
  line["isClosed"] = false;
  JsonObject group = layer("shapeGroup", "SG", "SG", frame(0, 0, 10, 1), JsonArray{line});
  group["windingRule"] = 1;
  Builder builder;
  auto node = builder.builder.buildLayer(JsonValue(group));
  ASSERT_TRUE(node);
  EXPECT_FALSE(node->isClosed);
  EXPECT_TRUE(node->outline.evenOdd);
}

TEST(RenderSceneBuilder, FramesThatAreNotNumbersAreMarkedUndrawable) {
  struct Case {
    const char* name;
    JsonValue width;
    bool sane;
  } cases[] = {{"plain", 10, true}, {"string number", "12", true}, {"not a number", "nan", false},
               {"absurd", 1e12, false}, {"negative", -5, false}, {"text", "wide", false}};
  for (const auto& c : cases) {
    JsonObject l = filledRect("R", 0, 0, 10, 10, colorJSON(0, 0, 0));
    l["frame"].as_object()["width"] = c.width;
    Builder builder;
    auto node = builder.builder.buildLayer(JsonValue(l));
    ASSERT_TRUE(node) << c.name;
    EXPECT_EQ(isSaneFrame(node->placement.frame), c.sane) << c.name;
  }
}

TEST(RenderSceneBuilder, DocumentDetachesInstancesOfTheRequestedPageOnly) {
  TempDir dir;
  std::string path = writeButtonDocument(dir / "button.sketch");
  RenderNotes notes;
  std::string error;
  auto document = SketchDocument::open(path, notes, &error);
  ASSERT_TRUE(document) << error;
  auto pageID = document->pageIDForLayer("A1");
  ASSERT_TRUE(pageID);
  EXPECT_FALSE(document->pageIDForLayer("no-such-layer"));
  const ScenePage* page = document->scenePage(*pageID);
  ASSERT_TRUE(page);
  auto artboard = locateNode(*page, "A1");
  ASSERT_TRUE(artboard);
  ASSERT_EQ(artboard->node->children.size(), 1u);
  const Node& detached = *artboard->node->children[0];
  EXPECT_EQ(detached.kind, NodeKind::Group);
  ASSERT_FALSE(detached.children.empty());
  EXPECT_EQ(detached.children[0]->kind, NodeKind::Text);
  EXPECT_EQ(document->scenePage("no-such-page"), nullptr);
  auto boards = document->boardIDs();
  EXPECT_NE(std::find(boards.begin(), boards.end(), "A1"), boards.end());
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

TEST(RenderScene, PageBoundsAndLocationsComposeTransforms) {
  JsonObject inner = filledRect("R", 5, 5, 10, 10, colorJSON(0, 0, 0));
  JsonObject group = layer("group", "G", "G", frame(20, 30, 40, 40), JsonArray{inner});
  JsonObject board = artboard("AB", "Board", frame(100, 200, 300, 300), JsonArray{group});
  JsonObject loose = filledRect("LOOSE", -50, 0, 10, 10, colorJSON(0, 0, 0));
  Builder b;
  ScenePage page = b.builder.buildPage(JsonValue(plexa::test::page("P", "Page", JsonArray{board, loose})));
  EXPECT_EQ(page.contentBounds(), (Rect{-50, 0, 450, 500}));
  auto location = locateNode(page, "R");
  ASSERT_TRUE(location);
  ASSERT_EQ(location->ancestors.size(), 2u);
  double x = 0, y = 0;
  cairo_matrix_transform_point(&location->toPage, &x, &y);
  EXPECT_DOUBLE_EQ(x, 125);
  EXPECT_DOUBLE_EQ(y, 235);
}

// ---- names

TEST(RenderNames, ScaleSuffixesAndLayerFileNames) {
  EXPECT_EQ(scaleSuffix(1), "");
  EXPECT_EQ(scaleSuffix(2), "@2x");
  EXPECT_EQ(scaleSuffix(0.5), "@0.5x");
  struct Case {
    const char* label;
    bool prefix, useID;
    const char* fileFormat;
    const char* expected;
  } cases[] = {{"@2x", false, true, "png", "ID@2x.png"},
               {"", false, true, "jpg", "ID.jpg"},
               {"res/mipmap-hdpi/", true, true, "png", "resmipmap-hdpiID.png"},
               {"res/mipmap-hdpi/", true, false, "png", "res/mipmap-hdpi/ID.png"},
               {"-a/b", false, false, "png", "ID-a/b.png"}};
  for (const auto& c : cases) {
    ExportFormat format;
    format.name = c.label, format.nameIsPrefix = c.prefix, format.fileFormat = c.fileFormat;
    EXPECT_EQ(layerFileName("ID", format, c.useID), c.expected) << c.label;
  }
}

TEST(RenderSceneBuilder, DeepNestingIsCutInsteadOfExhaustingTheStack) {
  JsonObject innermost = filledRect("LEAF", 0, 0, 1, 1, colorJSON(0, 0, 0));
  JsonValue current = innermost;
  for (int i = 0; i < kMaxLayerDepth + 50; ++i)
    current = layer("group", "G" + std::to_string(i), "G", frame(0, 0, 1, 1), JsonArray{current});
  Builder b;
  auto node = b.builder.buildLayer(current);
  ASSERT_TRUE(node);
  int depth = 1;
  for (const Node* n = node.get(); !n->children.empty(); n = n->children[0].get()) ++depth;
  EXPECT_EQ(depth, kMaxLayerDepth);
}

// Page renders are bounded as Sketch bounds its page previews: borders and
// shadows (to their blur radius) count, artboards and instances by their
// frames, symbol masters with content past their frames.
TEST(RenderScene, PageDrawnBoundsCountWhatIsDrawn) {
  auto shadowed = [](JsonObject shape, double blur, double dx, double dy) {
    shape["style"].as_object()["shadows"] = JsonArray{JsonObject{{"_class", "shadow"}, {"isEnabled", true},
        {"blurRadius", blur}, {"offsetX", dx}, {"offsetY", dy}, {"spread", 0}, {"color", colorJSON(0, 0, 0)}}};
    return shape;
  };
  auto bordered = [](JsonObject shape, double thickness, int position) {
    shape["style"].as_object()["borders"] = JsonArray{JsonObject{{"_class", "border"}, {"isEnabled", true},
        {"thickness", thickness}, {"position", position}, {"color", colorJSON(0, 0, 0)}}};
    return shape;
  };
  auto master = [](JsonArray children) {
    JsonObject m = artboard("M", "M", frame(0, 0, 100, 100), std::move(children));
    m["_class"] = "symbolMaster";
    return m;
  };
  auto instance = [](JsonArray children) {
    JsonObject i = layer("group", "I", "I", frame(0, 0, 100, 100), std::move(children));
    i["in_detachedSymbol"] = true;
    return i;
  };
  JsonObject inside = filledRect("R", 0, 80, 100, 20, colorJSON(0, 0, 0));
  struct Case {
    const char* what;
    JsonObject top;
    Rect expected;
  } cases[] = {
      {"loose shape, shadow", shadowed(filledRect("S", 0, 0, 100, 100, colorJSON(0, 0, 0)), 10, 5, 0),
       {-5, -10, 120, 120}},
      {"loose shape, outside border", bordered(filledRect("S", 0, 0, 100, 100, colorJSON(0, 0, 0)), 4, 2),
       {-4, -4, 108, 108}},
      {"artboard: frame only", artboard("A", "A", frame(0, 0, 100, 100), JsonArray{shadowed(inside, 10, 0, 0)}),
       {0, 0, 100, 100}},
      {"symbol master: content too", master(JsonArray{shadowed(inside, 10, 0, 0)}), {-10, 0, 120, 110}},
      {"instance: frame only", instance(JsonArray{shadowed(inside, 10, 0, 0)}), {0, 0, 100, 100}},
  };
  for (auto& c : cases) {
    Builder b;
    JsonObject other = filledRect("O", 0, 0, 10, 10, colorJSON(0, 0, 0));
    ScenePage page = b.builder.buildPage(JsonValue(plexa::test::page("P", "Page", JsonArray{c.top, other})));
    EXPECT_EQ(page.drawnBounds(), c.expected) << c.what;
    EXPECT_EQ(page.contentBounds(), (Rect{0, 0, 100, 100})) << c.what;
  }
}
