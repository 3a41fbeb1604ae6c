#include "PXMetaLayer.h"

#include "Log.h"
#include "PXMetaExportOptions.h"
#include "PXMetaText.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <span>

namespace plexa {

namespace {

constexpr const char* kAnimaPluginIdentifier = "com.animaapp.stc-sketch-plugin";
// Far deeper than any real document; stops hostile nesting before the
// stack does.
constexpr int kMaximumNesting = 200;
constexpr int kReportedLevels = 12;

// Everything handed down unchanged through one level of the recursion.
struct Context {
  const JsonObject* artboard = nullptr;
  const JsonObject* page = nullptr;
  const std::string* sketchFileName = nullptr;
  // The layer path of the outermost level; inner levels work theirs out
  // from `parent` when a layer needs it (few do: those that export).
  const std::string* rootLayerPath = nullptr;
  PXMetaTypefaceSet* typefaces = nullptr;
  JsonArray* exportedImagePaths = nullptr;
  const std::string* outputFolder = nullptr;
  PXMetaPoint offset;
  const JsonObject* instance = nullptr;
  const JsonObject* assetIds = nullptr;
  const PXMetaMissingLayerHandler* handler = nullptr;
  // Where the records are made: one arena holds a whole artboard's.
  boost::json::storage_ptr storage;
  // Masters being expanded through instances, outermost first: a master
  // that shows up again is a cycle.
  std::vector<std::string>* expandingMasters = nullptr;
  // The level this one was entered from, through `entered`, and whether
  // that layer's name is part of the layer path (groups, not instances).
  // Paths and error trails are made from them only when asked for.
  const Context* parent = nullptr;
  const JsonObject* entered = nullptr;
  bool namesLayerPath = false;
  int depth = 0;
};

struct LayerFrame {
  double x = 0, y = 0, width = 0, height = 0;
};

const JsonValue* member(const JsonObject* object, std::string_view key) {
  if (!object) return nullptr;
  auto it = object->find(key);
  return it == object->end() ? nullptr : &it->value();
}

std::string layerPathOf(const Context& context) {
  if (!context.parent) return *context.rootLayerPath;
  std::string outer = layerPathOf(*context.parent);
  if (!context.namesLayerPath) return outer;
  return fmt::format("{}/{}", outer, PXMetaDescription(member(context.entered, "name")));
}

// Identifiers of the enclosing layers, for error reports: the outer levels
// one by one, past them one ellipsis for the rest.
std::string trailOf(const Context& context) {
  if (!context.parent) return PXMetaDescription(member(context.artboard, "do_objectID"));
  const Context& outer = *context.parent;
  if (outer.depth < kReportedLevels)
    return fmt::format("{} > {}", trailOf(outer), PXMetaDescription(member(context.entered, "do_objectID")));
  if (outer.depth == kReportedLevels) return trailOf(outer) + " > ...";
  return trailOf(outer);
}

float floatOrZero(const JsonValue* value) { return PXJsonFloat(value).value_or(0.0f); }

const char* inspectType(std::string_view sketchClass) {
  static constexpr std::array<std::pair<std::string_view, const char*>, 6> kTypes = {{{"shapeGroup", "path"},
                                                                                      {"bitmap", "bitmap"},
                                                                                      {"group", "group"},
                                                                                      {"text", "text"},
                                                                                      {"slice", "bitmap"},
                                                                                      {"symbolInstance", "group"}}};
  for (const auto& [cls, type] : kTypes)
    if (cls == sketchClass) return type;
  return nullptr;
}

// "layers._class.@firstObject": the class of the first child that has one.
std::optional<std::string_view> firstChildClass(const JsonObject& layer) {
  auto it = layer.find("layers");
  if (it == layer.end() || !it->value().is_array()) return std::nullopt;
  for (const auto& child : it->value().get_array()) {
    const JsonValue* cls = PXJsonFind(&child, "_class");
    if (!cls) continue;
    return PXJsonText(cls).value_or(std::string_view());
  }
  return std::nullopt;
}

// The first of `keyPaths`, evaluated on the layer's children, that yields a
// value that is not null.
std::optional<JsonValue> childrenKeyPathValue(const JsonObject& layer, std::initializer_list<std::string_view> keyPaths) {
  const JsonValue* children = member(&layer, "layers");
  if (!children) return std::nullopt;
  for (auto keyPath : keyPaths) {
    auto value = PXValueForKeyPath(*children, keyPath);
    if (value && !value->is_null()) return value;
  }
  return std::nullopt;
}

// The members of a layer's style that records use, found in one pass over
// the style instead of one search each.
struct StyleParts {
  const JsonValue* fills = nullptr;
  const JsonValue* borders = nullptr;
  const JsonValue* borderOptions = nullptr;
  const JsonValue* shadows = nullptr;
  const JsonValue* innerShadows = nullptr;
  const JsonValue* contextSettings = nullptr;
};

StyleParts stylePartsOf(const JsonValue* style) {
  StyleParts parts;
  const JsonObject* object = style ? style->if_object() : nullptr;
  if (!object) return parts;
  static constexpr std::pair<std::string_view, const JsonValue* StyleParts::*> kParts[] = {
      {"fills", &StyleParts::fills},     {"borders", &StyleParts::borders},
      {"borderOptions", &StyleParts::borderOptions}, {"shadows", &StyleParts::shadows},
      {"innerShadows", &StyleParts::innerShadows},   {"contextSettings", &StyleParts::contextSettings}};
  for (const auto& member : *object) {
    const std::string_view key = member.key();
    for (const auto& [name, slot] : kParts)
      if (key == name) parts.*slot = &member.value();
  }
  return parts;
}

// "style.borders.@max.thickness", 0 when there is none.
float largestBorderThickness(const StyleParts& style) {
  std::optional<double> largest;
  if (const JsonArray* borders = style.borders ? style.borders->if_array() : nullptr)
    for (const auto& border : *borders)
      if (auto thickness = PXJsonDouble(PXJsonFind(&border, "thickness")); thickness && (!largest || *thickness > *largest))
        largest = thickness;
  return largest ? static_cast<float>(*largest) : 0.0f;
}

size_t fillCount(const StyleParts& style) {
  const JsonArray* fills = style.fills ? style.fills->if_array() : nullptr;
  return fills ? fills->size() : 0;
}

// --- Children of a master shown through an instance ----------------------

struct Extent {
  double position = 0;
  double size = 0;
};

// Which parts of one axis stretch, tested in this order over the whole
// constraint value: only the size (or nothing), only the far margin, only
// the near margin, size and far margin, near margin and size, both margins;
// anything else stretches all three.
int resizingCase(int64_t constraint, bool vertical) {
  static constexpr std::array<int64_t, 6> kVertical = {0x17, 0xF, 0x27, 0x1F, 0x37, 0x2F};
  static constexpr std::array<int64_t, 6> kHorizontal = {0x3A, 0x39, 0x3C, 0x3B, 0x3E, 0x3D};
  const auto& masks = vertical ? kVertical : kHorizontal;
  for (size_t i = 0; i < masks.size(); ++i)
    if ((constraint & ~masks[i]) == 0) return static_cast<int>(i);
  return 6;
}

// A child's extent in the master (P0 wide) recomputed for the instance (P1
// wide). Where a denominator is zero the child keeps its extent.
Extent resizedExtent(Extent child, double masterExtent, double instanceExtent, int resizing) {
  const double p = child.position, s = child.size, P0 = masterExtent, P1 = instanceExtent;
  const double farMargin = P0 - p - s;
  Extent result = child;
  switch (resizing) {
    case 0: result = {p, P1 - p - farMargin}; break;
    case 1: break;
    case 2: result = {P1 - s - farMargin, s}; break;
    case 3:
      if (P0 - p != 0) result = {p, s * (P1 - p) / (P0 - p)};
      break;
    case 4:
      if (P0 - farMargin != 0) {
        double size = s * ((P1 - farMargin) / (P0 - farMargin));
        result = {P1 - size - farMargin, size};
      }
      break;
    case 5:
      if (P0 != 0) result = {(p + s / 2) * (P1 / P0) - s / 2, s};
      break;
    default:
      if (P0 != 0) result = {p * (P1 / P0), s * (P1 / P0)};
      break;
  }
  if (!std::isfinite(result.position) || !std::isfinite(result.size)) return child;
  return result;
}

LayerFrame frameOfLayer(const JsonObject& layer, const Context& context) {
  const JsonValue* frame = member(&layer, "frame");
  LayerFrame result{floatOrZero(PXJsonFind(frame, "x")), floatOrZero(PXJsonFind(frame, "y")),
                    floatOrZero(PXJsonFind(frame, "width")), floatOrZero(PXJsonFind(frame, "height"))};
  if (!context.instance) return result;
  const JsonValue* masterFrame = member(context.artboard, "frame");
  const JsonValue* instanceFrame = member(context.instance, "frame");
  int64_t constraint = PXJsonInt64(member(&layer, "resizingConstraint")).value_or(0);
  Extent horizontal = resizedExtent({result.x, result.width}, floatOrZero(PXJsonFind(masterFrame, "width")),
                                    floatOrZero(PXJsonFind(instanceFrame, "width")), resizingCase(constraint, false));
  Extent vertical = resizedExtent({result.y, result.height}, floatOrZero(PXJsonFind(masterFrame, "height")),
                                  floatOrZero(PXJsonFind(instanceFrame, "height")), resizingCase(constraint, true));
  return {horizontal.position, vertical.position, horizontal.size, vertical.size};
}

// --- Records ---------------------------------------------------------------

struct LayerFacts {
  std::string_view sketchClass;
  const char* type = nullptr;
  LayerFrame frame;
  StyleParts style;
};

std::string pageName(const Context& context) { return PXMetaDescription(member(context.page, "name")); }
std::string artboardName(const Context& context) { return PXMetaDescription(member(context.artboard, "name")); }

JsonValue opacityValue(const StyleParts& style) {
  const JsonValue* opacity = PXJsonFind(style.contextSettings, "opacity");
  auto number = PXJsonFloat(opacity);
  if (!number || opacity->is_null()) return 1;
  return PXMetaRound2(*number);
}

// The keys of a record, each made by one rule; every kind writes its own
// selection in its own order.
enum class Field {
  id, name, type, lineType, x, y, width, height, rotation, opacity, isInitiallyVisible, flippedHorizontal,
  flippedVertical, index, exportOptions, borders, shadows, innerShadows, gradients, order
};

// The keys every kind starts from, in the order they are written.
constexpr Field kCommonFields[] = {Field::id,           Field::name,          Field::type,
                                   Field::x,            Field::y,             Field::width,
                                   Field::height,       Field::rotation,      Field::opacity,
                                   Field::isInitiallyVisible, Field::flippedHorizontal, Field::flippedVertical,
                                   Field::index,        Field::exportOptions, Field::borders,
                                   Field::shadows,      Field::innerShadows,  Field::gradients};
// Groups leave out what only shapes paint; their children follow.
constexpr Field kGroupFields[] = {Field::id,       Field::name,          Field::type,  Field::x,
                                  Field::y,        Field::width,         Field::height, Field::rotation,
                                  Field::opacity,  Field::flippedHorizontal, Field::flippedVertical,
                                  Field::isInitiallyVisible, Field::index, Field::exportOptions,
                                  Field::order,    Field::shadows};
// Lines keep their strokes and shadows, in the order their readers expect.
constexpr Field kLineFields[] = {Field::rotation, Field::exportOptions, Field::index,    Field::borders,
                                 Field::isInitiallyVisible, Field::name, Field::shadows, Field::lineType,
                                 Field::id,       Field::x,             Field::flippedHorizontal, Field::y,
                                 Field::flippedVertical, Field::opacity, Field::height,   Field::width,
                                 Field::order};

JsonArray exportOptionsRecords(const JsonObject& layer, const Context& context) {
  // Names are only worked out for the few layers that export something.
  if (!PXJsonArrayFor(member(&layer, "exportOptions"), "exportFormats")) return JsonArray(context.storage);
  return PXMetaExportOptionsFromJSON(layer, *context.sketchFileName, pageName(context), artboardName(context),
                                     layerPathOf(context), context.assetIds, context.storage);
}

void addField(JsonObject& record, Field field, const JsonObject& layer, const Context& context,
              const LayerFacts& facts, uint64_t index) {
  switch (field) {
    case Field::id: PXMetaAddToDictionary(record, "id", member(&layer, "do_objectID")); break;
    case Field::name: record["name"] = PXMetaStringFromJSONValue(member(&layer, "name")); break;
    case Field::type:
      if (facts.type) record["type"] = facts.type;
      break;
    case Field::lineType: record["type"] = "line"; break;
    case Field::x: record["x"] = PXMetaRound2(static_cast<float>(facts.frame.x) + context.offset.x); break;
    case Field::y: record["y"] = PXMetaRound2(static_cast<float>(facts.frame.y) + context.offset.y); break;
    case Field::width: record["width"] = PXMetaRound2(facts.frame.width); break;
    case Field::height: record["height"] = PXMetaRound2(facts.frame.height); break;
    case Field::rotation: PXMetaAddToDictionary(record, "rotation", member(&layer, "rotation")); break;
    case Field::opacity: record["opacity"] = opacityValue(facts.style); break;
    case Field::isInitiallyVisible: record["isInitiallyVisible"] = true; break;  // hidden layers never get this far
    case Field::flippedHorizontal:
      if (auto flipped = PXJsonBool(member(&layer, "isFlippedHorizontal"))) record["flippedHorizontal"] = *flipped;
      break;
    case Field::flippedVertical:
      if (auto flipped = PXJsonBool(member(&layer, "isFlippedVertical"))) record["flippedVertical"] = *flipped;
      break;
    case Field::index: record["index"] = index; break;
    case Field::exportOptions: record["exportOptions"] = exportOptionsRecords(layer, context); break;
    case Field::borders:
      record["borders"] = PXMetaBorderArrayFromJSONArray(facts.style.borders, facts.style.borderOptions, context.storage);
      break;
    case Field::shadows:
      record["shadows"] = PXMetaShadowArrayFromJSONArray(facts.style.shadows, context.storage);
      break;
    case Field::innerShadows:
      record["innerShadows"] =
          PXMetaShadowArrayFromJSONArray(facts.style.innerShadows, context.storage);
      break;
    case Field::gradients:
      record["gradients"] = PXMetaColorFillFromJSON(facts.style.fills, "gradient", context.storage);
      break;
    case Field::order: record["order"] = 0; break;  // stacking is told by `index`
  }
}

// `extra`: room for the keys the kind adds afterwards, so the table is made once.
JsonObject recordWithFields(std::span<const Field> fields, size_t extra, const JsonObject& layer,
                            const Context& context, const LayerFacts& facts, uint64_t index) {
  JsonObject record(fields.size() + extra, context.storage);
  for (Field field : fields) addField(record, field, layer, context, facts, index);
  return record;
}

JsonObject commonRecord(const JsonObject& layer, const Context& context, const LayerFacts& facts, uint64_t index) {
  return recordWithFields(kCommonFields, 4, layer, context, facts, index);
}

void addFillsAndOrder(JsonObject& record, const LayerFacts& facts) {
  record["fillColor"] = PXMetaColorFillFromJSON(facts.style.fills, "fill", record.storage());
  record["order"] = 0;  // stacking is told by `index`
}

void addBorderRadius(JsonObject& record, const JsonObject& layer) {
  PXMetaAddToDictionary(record, "borderRadius",
                        childrenKeyPathValue(layer, {"path.points.cornerRadius.@firstObject",
                                                     "points.cornerRadius.@firstObject"}));
}

bool arrayIsEmpty(const JsonObject& record, std::string_view key) {
  auto it = record.find(key);
  if (it == record.end()) return true;
  const JsonArray* array = it->value().if_array();
  return !array || array->empty();
}

// A shape with nothing to paint has nothing to inspect.
bool showsNothing(const JsonObject& record, const LayerFacts& facts) {
  return fillCount(facts.style) == 0 && arrayIsEmpty(record, "borders") && arrayIsEmpty(record, "innerShadows") &&
         arrayIsEmpty(record, "shadows") && arrayIsEmpty(record, "gradients");
}

JsonArray childLayers(const JsonValue* layers, const Context& context);

JsonObject shapeRecord(const JsonObject& layer, const Context& context, const LayerFacts& facts, uint64_t index,
                       std::optional<std::string_view> childClass) {
  JsonObject record = commonRecord(layer, context, facts, index);
  static constexpr std::array<std::string_view, 4> kWithoutCorners = {"oval", "star", "polygon", "triangle"};
  bool hasCorners = !childClass || std::find(kWithoutCorners.begin(), kWithoutCorners.end(), *childClass) ==
                                       kWithoutCorners.end();
  if (hasCorners) addBorderRadius(record, layer);
  addFillsAndOrder(record, facts);
  return record;
}

// --- Lines -----------------------------------------------------------------

// The shifted start of a line is stored unrounded: the single-precision
// value itself, not its shortest decimal form.
double exactFloat(float value) { return std::isfinite(value) ? static_cast<double>(value) : 0.0; }

// The two ends of a line drawn by its stroke, in the record's coordinates.
void addLineEnds(JsonObject& record, const JsonObject& layer, const LayerFacts& facts, const JsonArray& points) {
  float x = static_cast<float>(record["x"].to_number<double>());
  float y = static_cast<float>(record["y"].to_number<double>());
  float width = static_cast<float>(record["width"].to_number<double>());
  float height = static_cast<float>(record["height"].to_number<double>());
  const JsonValue* frame = member(&layer, "frame");
  float frameWidth = floatOrZero(PXJsonFind(frame, "width"));
  float frameHeight = floatOrZero(PXJsonFind(frame, "height"));
  float thickness = largestBorderThickness(facts.style);

  float y2 = 0;
  if (thickness >= height - 1) {  // a horizontal line: its stroke is its height
    y = y + std::max(1.0f, std::min(thickness, height) / 2);
    record["y"] = exactFloat(y);
    y2 = (frameHeight + y) - std::max(2.0f, std::min(thickness, height));
  } else {
    y2 = y + frameHeight;
  }
  float x2 = 0;
  if (thickness >= width - 1) {
    x = x + std::max(1.0f, std::min(thickness, width) / 2);
    record["x"] = exactFloat(x);
    x2 = (frameWidth + x) - std::max(2.0f, std::min(thickness, width));
  } else {
    x2 = x + frameWidth;
  }
  float length = std::sqrt((x2 - x) * (x2 - x) + (y2 - y) * (y2 - y));

  // The points tell the drawing direction; the record runs from start to end.
  PXMetaPoint start = PXMetaPointFromString(PXJsonText(&points[0]).value_or(""));
  PXMetaPoint end = PXMetaPointFromString(PXJsonText(&points[1]).value_or(""));
  double endX = x2, endY = y2;
  int64_t flippedHorizontal = PXJsonInt64(member(&layer, "isFlippedHorizontal")).value_or(0);
  if (flippedHorizontal != (start.x > end.x ? 1 : 0)) {
    record["x"] = PXMetaRound2(x2);
    endX = PXMetaRound2(x);
  }
  if (start.y > end.y) {  // deliberately not tied to isFlippedVertical
    record["y"] = PXMetaRound2(y2);
    endY = PXMetaRound2(y);
  }
  record["x2"] = PXMetaRoundDouble2(endX);
  record["y2"] = PXMetaRoundDouble2(endY);
  record["length"] = PXMetaRoundDouble2(length);
}

JsonObject lineRecord(const JsonObject& layer, const Context& context, const LayerFacts& facts, uint64_t index) {
  JsonObject record = recordWithFields(kLineFields, 3, layer, context, facts, index);
  auto points = childrenKeyPathValue(layer, {"path.points.point.@firstObject", "points.point.@firstObject"});
  if (points && points->is_array() && points->get_array().size() == 2)
    addLineEnds(record, layer, facts, points->get_array());
  return record;
}

// --- Groups and symbol instances -------------------------------------------

// A group that symbol detachment made out of an instance.
std::optional<bool> detachedSymbolMark(const JsonObject& layer) {
  const JsonValue* original = member(&layer, "originalObjectID");
  if (original && !original->is_null()) {
    const JsonValue* detached = member(&layer, "in_detachedSymbol");
    return detached ? PXJsonBool(detached).value_or(false) : true;
  }
  if (PXMetaAnimaInfoFromLayerJSON(layer)) return true;
  return std::nullopt;
}

Context childContext(const Context& context, const JsonObject& layer) {
  Context inner = context;
  inner.depth = context.depth + 1;
  inner.parent = &context;
  inner.entered = &layer;
  inner.namesLayerPath = false;
  return inner;
}

JsonObject groupRecord(const JsonObject& layer, const Context& context, const LayerFacts& facts, uint64_t index) {
  Context inner = childContext(context, layer);
  inner.namesLayerPath = true;
  JsonObject record = recordWithFields(kGroupFields, 6, layer, context, facts, index);
  record["layers"] = childLayers(member(&layer, "layers"), inner);
  if (auto symbol = detachedSymbolMark(layer)) {
    record["symbol"] = *symbol;
    for (const char* key : {"borders", "fillColor", "gradients", "innerShadows"}) record[key] = JsonArray();
  }
  return record;
}

// Removes the master from the expansion stack however the expansion ends.
class MasterExpansion {
 public:
  MasterExpansion(std::vector<std::string>& stack, std::string masterID) : stack_(stack) {
    stack_.push_back(std::move(masterID));
  }
  ~MasterExpansion() { stack_.pop_back(); }
  MasterExpansion(const MasterExpansion&) = delete;
  MasterExpansion& operator=(const MasterExpansion&) = delete;

 private:
  std::vector<std::string>& stack_;
};

JsonObject symbolInstanceRecord(const JsonObject& layer, const Context& context, const LayerFacts& facts,
                                uint64_t index) {
  JsonObject record = commonRecord(layer, context, facts, index);
  record["layers"] = JsonArray();
  addFillsAndOrder(record, facts);
  record["type"] = facts.type;
  record["symbol"] = true;

  auto masterID = PXJsonText(member(&layer, "originalObjectID"));
  if (!masterID || !context.handler || !*context.handler) return record;
  auto found = (*context.handler)(std::string(*masterID));
  if (!found || !found->artboardJSON) return record;
  auto& expanding = *context.expandingMasters;
  if (std::find(expanding.begin(), expanding.end(), *masterID) != expanding.end())
    throw PXMetaLayerError(fmt::format("symbol master {} shows itself through its own instances", *masterID));
  MasterExpansion expansion(expanding, std::string(*masterID));

  Context inner = childContext(context, layer);
  inner.artboard = found->artboardJSON.get();
  inner.page = found->pageJSON.get();
  inner.offset = {context.offset.x + facts.frame.x, context.offset.y + facts.frame.y};
  inner.instance = &layer;
  record["layers"] = childLayers(member(found->artboardJSON.get(), "layers"), inner);
  return record;
}

// --- One layer ---------------------------------------------------------------

void collectTypeface(const JsonObject& record, const Context& context, const LayerFacts& facts) {
  if (facts.sketchClass != "text") return;  // only text records have a typeface
  const JsonValue* typeface = member(&record, "typeface");
  const JsonValue* weight = PXJsonFind(typeface, "weight");
  if (!weight || weight->is_null()) return;
  JsonObject entry;
  PXMetaAddToDictionary(entry, "weight", weight);
  PXMetaAddToDictionary(entry, "typeface", PXJsonFind(typeface, "typeface"));
  context.typefaces->add(std::move(entry));
}

void collectExportImages(const JsonObject& layer, const Context& context) {
  if (!PXJsonArrayFor(member(&layer, "exportOptions"), "exportFormats")) return;
  JsonArray paths =
      PXMetaExportImagesFromJSON(layer, *context.sketchFileName, pageName(context), artboardName(context),
                                 PXMetaDescription(member(context.artboard, "do_objectID")), layerPathOf(context),
                                 *context.outputFolder, context.storage);
  for (auto& path : paths) context.exportedImagePaths->push_back(std::move(path));
}

std::optional<JsonObject> kindRecord(const JsonObject& layer, const Context& context, const LayerFacts& facts,
                                     uint64_t index) {
  auto childClass = firstChildClass(layer);
  const auto& cls = facts.sketchClass;
  bool firstChildIsPath = childClass && *childClass == "shapePath";
  if (cls == "shapeGroup" && !firstChildIsPath) {
    JsonObject record = shapeRecord(layer, context, facts, index, childClass);
    if (showsNothing(record, facts)) return std::nullopt;
    return record;
  }
  if (cls == "symbolInstance") return symbolInstanceRecord(layer, context, facts, index);
  if (cls == "shapeGroup") {
    JsonObject record = lineRecord(layer, context, facts, index);
    if (showsNothing(record, facts)) return std::nullopt;
    return record;
  }
  if (cls == "bitmap") {
    JsonObject record = commonRecord(layer, context, facts, index);
    addBorderRadius(record, layer);
    addFillsAndOrder(record, facts);
    return record;
  }
  if (cls == "slice") {
    JsonObject record = commonRecord(layer, context, facts, index);
    record["opacity"] = 0;  // a slice draws nothing
    addFillsAndOrder(record, facts);
    return record;
  }
  if (cls == "text") {
    JsonObject record = commonRecord(layer, context, facts, index);
    addFillsAndOrder(record, facts);
    // Decoded once for both: the archive is the costly part.
    if (auto string = PXAttributedStringFromJSON(layer)) {
      record["typeface"] = PXMetaFiniteValue(PXMetaTypefaceFromAttributedString(*string, layer), context.storage);
      record["text"] = string->string();
    }
    return record;
  }
  if (cls == "group") return groupRecord(layer, context, facts, index);
  // Kinds the inspect format has no type for still show where they are.
  JsonObject record = commonRecord(layer, context, facts, index);
  record["order"] = 0;
  return record;
}

std::optional<JsonObject> layerRecord(const JsonValue& value, const Context& context, uint64_t index) {
  const JsonObject* layer = value.if_object();
  if (!layer) throw PXMetaLayerError(fmt::format("layer is not a dictionary but {}", PXMetaDescription(&value)));
  if (context.depth > kMaximumNesting) throw PXMetaLayerError("layers are nested too deeply");
  if (auto visible = PXJsonBool(member(layer, "isVisible")); visible && !*visible) return std::nullopt;

  LayerFacts facts;
  facts.sketchClass = PXJsonText(member(layer, "_class")).value_or("");
  facts.type = inspectType(facts.sketchClass);
  facts.frame = frameOfLayer(*layer, context);
  facts.style = stylePartsOf(member(layer, "style"));

  auto record = kindRecord(*layer, context, facts, index);
  if (!record) return std::nullopt;
  collectTypeface(*record, context, facts);
  collectExportImages(*layer, context);
  return record;
}

std::string stackDescription(const Context& context, const JsonValue& layer, uint64_t index) {
  return fmt::format("{} > [{}] {}", trailOf(context), index, PXMetaDescription(PXJsonFind(&layer, "do_objectID")));
}

JsonArray childLayers(const JsonValue* layers, const Context& context) {
  JsonArray records(context.storage);
  const JsonArray* array = layers ? layers->if_array() : nullptr;
  if (!array) return records;
  const size_t count = array->size();
  records.reserve(count);
  // Sketch lists the bottom-most layer first; the inspect data the top-most.
  for (size_t position = count; position-- > 0;) {
    const JsonValue& layer = (*array)[position];
    const uint64_t index = count - 1 - position;
    try {
      if (auto record = layerRecord(layer, context, index)) records.push_back(std::move(*record));
    } catch (const std::exception& error) {
      PXLogError("PXMetaLayerFromJSON exception: {}", error.what());
      PXLogError("PXMetaLayerFromJSON stack: {}", stackDescription(context, layer, index));
    }
  }
  return records;
}

Context rootContext(const JsonObject& artboardJSON, const JsonObject* pageJSON, const std::string& sketchFileName,
                    const std::string& layerPath, PXMetaTypefaceSet& typefaces, JsonArray& exportedImagePaths,
                    const std::string& outputFolder, PXMetaPoint offset, const JsonObject* enclosingInstance,
                    const JsonObject* assetIds, const PXMetaMissingLayerHandler& missingLayerHandler,
                    std::vector<std::string>& expandingMasters, const boost::json::storage_ptr& storage) {
  Context context;
  context.artboard = &artboardJSON;
  context.page = pageJSON;
  context.sketchFileName = &sketchFileName;
  context.rootLayerPath = &layerPath;
  context.typefaces = &typefaces;
  context.exportedImagePaths = &exportedImagePaths;
  context.outputFolder = &outputFolder;
  context.offset = offset;
  context.instance = enclosingInstance;
  context.assetIds = assetIds;
  context.handler = &missingLayerHandler;
  context.expandingMasters = &expandingMasters;
  context.storage = storage;
  return context;
}

}  // namespace

bool PXMetaTypefaceSet::add(JsonObject typeface) {
  if (std::find(elements_.begin(), elements_.end(), typeface) != elements_.end()) return false;
  elements_.push_back(std::move(typeface));
  return true;
}

JsonArray PXMetaTypefaceSet::array() const {
  JsonArray out;
  for (const auto& element : elements_) out.push_back(element);
  return out;
}

JsonArray PXMetaChildLayersFromJSON(const JsonValue* layers, const JsonObject& artboardJSON,
                                    const JsonObject* pageJSON, const std::string& sketchFileName,
                                    const std::string& layerPath, PXMetaTypefaceSet& typefaces,
                                    JsonArray& exportedImagePaths, const std::string& outputFolder,
                                    PXMetaPoint offset, const JsonObject* enclosingInstance,
                                    const JsonObject* assetIds, const PXMetaMissingLayerHandler& missingLayerHandler,
                                    const boost::json::storage_ptr& storage) {
  std::vector<std::string> expandingMasters;
  Context context = rootContext(artboardJSON, pageJSON, sketchFileName, layerPath, typefaces, exportedImagePaths,
                                outputFolder, offset, enclosingInstance, assetIds, missingLayerHandler,
                                expandingMasters, storage);
  return childLayers(layers, context);
}

std::optional<JsonObject> PXMetaLayerFromJSON(const JsonValue& layer, const JsonObject& artboardJSON,
                                              const JsonObject* pageJSON, const std::string& sketchFileName,
                                              const std::string& layerPath, PXMetaTypefaceSet& typefaces,
                                              JsonArray& exportedImagePaths, const std::string& outputFolder,
                                              PXMetaPoint offset, const JsonObject* enclosingInstance,
                                              const JsonObject* assetIds,
                                              const PXMetaMissingLayerHandler& missingLayerHandler, uint64_t index,
                                              const boost::json::storage_ptr& storage) {
  std::vector<std::string> expandingMasters;
  Context context = rootContext(artboardJSON, pageJSON, sketchFileName, layerPath, typefaces, exportedImagePaths,
                                outputFolder, offset, enclosingInstance, assetIds, missingLayerHandler,
                                expandingMasters, storage);
  return layerRecord(layer, context, index);
}

const JsonObject* PXMetaAnimaInfoFromLayerJSON(const JsonObject& layer) {
  return PXJsonObjectFor(member(&layer, "userInfo"), kAnimaPluginIdentifier);
}

MPSRect CGRectFromLayer(const JsonObject& layer) {
  const JsonValue* frame = member(&layer, "frame");
  auto read = [&](std::string_view key) { return PXJsonDouble(PXJsonFind(frame, key)).value_or(0.0); };
  return MPSRect{{read("x"), read("y")}, {read("width"), read("height")}};
}

MPSRect CGBoundsFromLayer(const JsonObject& layer) { return MPSRect{{0, 0}, CGRectFromLayer(layer).size}; }

}  // namespace plexa
