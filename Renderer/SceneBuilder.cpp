#include "SceneBuilder.h"

#include "Files.h"
#include "Log.h"
#include "PXSymbolDetacherV2.h"
#include "PathString.h"
#include "ShapePath.h"
#include "TextBlock.h"
#include "Zip.h"

#include <cmath>
#include <set>

namespace plexa::render {

namespace {

constexpr double kMaxCoordinate = 1e7;

const std::set<std::string, std::less<>> kShapeClasses = {"shapePath", "rectangle", "oval",
                                                          "star",      "polygon",   "triangle"};

double frameNumber(const JsonValue* frame, std::string_view key) {
  const JsonValue* value = PXJsonFind(frame, key);
  if (!value) return 0;
  return PXJsonDouble(value).value_or(NAN);
}

Rect frameOf(const JsonValue& layer) {
  const JsonValue* frame = PXJsonFind(&layer, "frame");
  return {frameNumber(frame, "x"), frameNumber(frame, "y"), frameNumber(frame, "width"),
          frameNumber(frame, "height")};
}

Placement placementOf(const JsonValue& layer) {
  Placement placement;
  placement.frame = frameOf(layer);
  double rotation = PXJsonDoubleFor(&layer, "rotation").value_or(0);
  placement.rotation = std::isfinite(rotation) ? std::fmod(rotation, 360.0) : 0;
  placement.flipHorizontal = PXJsonBoolFor(&layer, "isFlippedHorizontal").value_or(false);
  placement.flipVertical = PXJsonBoolFor(&layer, "isFlippedVertical").value_or(false);
  return placement;
}

std::vector<ExportFormat> exportFormatsOf(const JsonValue& layer) {
  std::vector<ExportFormat> formats;
  const JsonValue* options = PXJsonFind(&layer, "exportOptions");
  const JsonArray* entries = PXJsonArrayFor(options, "exportFormats");
  if (!entries) return formats;
  for (const auto& entry : *entries) {
    if (!entry.is_object()) continue;
    ExportFormat format;
    format.fileFormat = std::string(PXJsonTextFor(&entry, "fileFormat").value_or("png"));
    format.name = std::string(PXJsonTextFor(&entry, "name").value_or(""));
    format.nameIsPrefix = PXJsonInt64For(&entry, "namingScheme").value_or(0) == 1;
    double scale = PXJsonDoubleFor(&entry, "scale").value_or(1);
    format.scale = scale > 0 ? scale : 1;
    double absolute = PXJsonDoubleFor(&entry, "absoluteSize").value_or(0);
    format.absoluteSize = absolute > 0 ? absolute : 0;
    format.visibleScaleType = static_cast<int>(PXJsonInt64For(&entry, "visibleScaleType").value_or(0));
    formats.push_back(std::move(format));
  }
  return formats;
}

NodeKind kindForClass(std::string_view cls) {
  if (cls == "artboard") return NodeKind::Artboard;
  if (cls == "symbolMaster") return NodeKind::SymbolMaster;
  if (cls == "text") return NodeKind::Text;
  if (cls == "bitmap") return NodeKind::Bitmap;
  if (cls == "slice") return NodeKind::Slice;
  if (cls == "shapeGroup" || kShapeClasses.contains(cls)) return NodeKind::Shape;
  return NodeKind::Group;
}

// The winding rule of a shape: the style's when it has one, else the
// layer's own `windingRule` (older files), else non-zero.
bool evenOddFor(const JsonValue& layer) {
  if (auto rule = PXJsonInt64For(&layer, "windingRule")) return *rule == 1;
  if (auto rule = PXJsonInt64For(PXJsonFind(&layer, "style"), "windingRule")) return *rule == 1;
  return false;
}

}  // namespace

bool isSaneFrame(const Rect& f) {
  auto ok = [](double v) { return std::isfinite(v) && std::fabs(v) <= kMaxCoordinate; };
  return ok(f.x) && ok(f.y) && ok(f.width) && ok(f.height) && f.width >= 0 && f.height >= 0;
}

SceneBuilder::SceneBuilder(ImageSource& images, RenderNotes& notes, double curveTolerance)
    : images_(images), notes_(notes), tolerance_(curveTolerance) {}

void SceneBuilder::readCommon(const JsonValue& layer, Node& node) {
  node.layerClass = std::string(PXJsonTextFor(&layer, "_class").value_or(""));
  node.kind = kindForClass(node.layerClass);
  node.id = std::string(PXJsonTextFor(&layer, "do_objectID").value_or(""));
  node.name = std::string(PXJsonTextFor(&layer, "name").value_or(""));
  node.placement = placementOf(layer);
  node.isVisible = PXJsonBoolFor(&layer, "isVisible").value_or(true);
  node.style = buildStyle(PXJsonFind(&layer, "style"), images_, notes_, node.layerClass);
  node.hasClippingMask = PXJsonBoolFor(&layer, "hasClippingMask").value_or(false);
  node.clippingMaskMode = static_cast<int>(PXJsonInt64For(&layer, "clippingMaskMode").value_or(0));
  node.shouldBreakMaskChain = PXJsonBoolFor(&layer, "shouldBreakMaskChain").value_or(false);
  node.exportFormats = exportFormatsOf(layer);
}

void SceneBuilder::readBoard(const JsonValue& layer, Node& node) {
  node.hasBackgroundColor = PXJsonBoolFor(&layer, "hasBackgroundColor").value_or(false);
  node.includeBackgroundColorInExport = PXJsonBoolFor(&layer, "includeBackgroundColorInExport").value_or(true);
  if (auto color = parseColor(PXJsonFind(&layer, "backgroundColor"))) node.backgroundColor = *color;
}

// A detached instance is a group marked by the detacher.
void SceneBuilder::readInstance(const JsonValue& layer, Node& node) {
  node.isSymbolInstance = PXJsonBoolFor(&layer, "in_detachedSymbol").value_or(false);
}

void SceneBuilder::readChildren(const JsonValue& layer, Node& node) {
  const JsonArray* children = PXJsonArrayFor(&layer, "layers");
  if (!children) return;
  for (const auto& child : *children)
    if (auto built = buildLayer(child)) node.children.push_back(std::move(built));
}

Path SceneBuilder::shapeGroupOutline(const JsonValue& group, double width, double height, bool evenOdd,
                                     bool* isClosed) {
  std::vector<BooleanOperand> operands;
  bool allClosed = true;
  const JsonArray* children = PXJsonArrayFor(&group, "layers");
  if (!children) return {};
  for (const auto& child : *children) {
    if (!child.is_object() || !PXJsonBoolFor(&child, "isVisible").value_or(true)) continue;
    Placement placement = placementOf(child);
    if (!isSaneFrame(placement.frame)) continue;
    bool closed = true;
    Path own = outlineOf(child, &closed);
    allClosed = allClosed && closed;
    cairo_matrix_t m = placement.matrix();
    BooleanOperand operand;
    operand.outline = transformPath(own, m);
    operand.op = booleanOpFromSketch(PXJsonInt64For(&child, "booleanOperation").value_or(-1));
    operands.push_back(std::move(operand));
  }
  bool anyBoolean = false;
  for (size_t i = 1; i < operands.size(); ++i) anyBoolean |= operands[i].op != BooleanOp::None;
  // Open paths stay open (for their borders) unless a boolean operation closed them.
  if (isClosed) *isClosed = anyBoolean || allClosed;
  // Without a boolean operation the children's outlines are one path under the group's rule.
  if (!anyBoolean)
    for (auto& operand : operands) operand.outline.evenOdd = evenOdd;
  return combineOutlines(operands, tolerance_);
}

Path SceneBuilder::outlineOf(const JsonValue& layer, bool* isClosed) {
  if (isClosed) *isClosed = true;
  if (depth_ >= kMaxLayerDepth) return {};
  DepthGuard guard(depth_);
  auto cls = PXJsonTextFor(&layer, "_class").value_or("");
  Rect frame = frameOf(layer);
  if (!isSaneFrame(frame)) return {};
  Path path;
  if (cls == "shapeGroup") {
    path = shapeGroupOutline(layer, frame.width, frame.height, evenOddFor(layer), isClosed);
  } else if (kShapeClasses.contains(cls)) {
    path = shapeOutline(layer, frame.width, frame.height, isClosed);
    path.evenOdd = evenOddFor(layer);
  } else {
    // Anything else used as an operand or mask counts by its frame.
    path.moveTo({0, 0}), path.lineTo({frame.width, 0}), path.lineTo({frame.width, frame.height});
    path.lineTo({0, frame.height}), path.close();
  }
  return path;
}

std::unique_ptr<Node> SceneBuilder::buildLayer(const JsonValue& layer) {
  if (!layer.is_object()) return nullptr;
  // A hostile document can nest layers deep enough to exhaust the stack.
  if (depth_ >= kMaxLayerDepth) {
    notes_.skipped("group", "layers nested deeper than " + std::to_string(kMaxLayerDepth));
    return nullptr;
  }
  DepthGuard guard(depth_);
  auto node = std::make_unique<Node>();
  readCommon(layer, *node);
  const std::string& cls = node->layerClass;
  if (cls == "symbolInstance") {
    notes_.skipped(cls, "instance whose master could not be found");
    return nullptr;
  }
  if (cls == "hotspot" || cls == "MSImmutableHotspotLayer") return nullptr;
  switch (node->kind) {
    case NodeKind::Artboard:
    case NodeKind::SymbolMaster:
      readBoard(layer, *node);
      readChildren(layer, *node);
      break;
    case NodeKind::Group:
      if (cls != "group") notes_.skipped(cls, "unknown layer class (children drawn as a group)");
      readInstance(layer, *node);
      readChildren(layer, *node);
      break;
    case NodeKind::Shape:
      node->outline = outlineOf(layer, &node->isClosed);
      break;
    case NodeKind::Text:
      try {
        node->text = buildTextBlock(layer, notes_);
      } catch (const std::exception& e) {
        PXLogWarn("text layer {} could not be read: {}", node->id, e.what());
      }
      break;
    case NodeKind::Bitmap:
      if (auto ref = PXValueForKeyPath(layer, "image._ref"); ref && ref->is_string())
        node->image = images_.image(std::string(ref->get_string()), notes_);
      break;
    case NodeKind::Slice: break;
  }
  return node;
}

ScenePage SceneBuilder::buildPage(const JsonValue& page) {
  ScenePage scene;
  scene.id = std::string(PXJsonTextFor(&page, "do_objectID").value_or(""));
  scene.name = std::string(PXJsonTextFor(&page, "name").value_or(""));
  if (const JsonArray* layers = PXJsonArrayFor(&page, "layers"))
    for (const auto& layer : *layers)
      if (auto node = buildLayer(layer)) scene.layers.push_back(std::move(node));
  return scene;
}

}  // namespace plexa::render
