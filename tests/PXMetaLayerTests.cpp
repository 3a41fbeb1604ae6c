// Layer conversion: order and indexes, hidden and empty layers, kinds,
// lines, detached symbols, the children of masters shown through instances,
// and input that is no proper layer at all.

#include "PXMetaLayer.h"
#include "TestSupport.h"

#include <boost/json/monotonic_resource.hpp>
#include <gtest/gtest.h>

namespace plexa {
namespace {

using test::compactJson;
using test::frame;
using test::layer;
using test::parseJson;

// The named members of one record (absent ones left out), compact.
std::string fields(const JsonObject& record, std::initializer_list<std::string_view> keys) {
  JsonObject picked;
  for (auto key : keys)
    if (const JsonValue* value = record.if_contains(key)) picked[key] = *value;
  return compactJson(picked);
}

// One member of every record, compact; "<absent>" where a record lacks it.
std::string column(const JsonArray& records, std::string_view key) {
  JsonArray values;
  for (const auto& record : records) {
    const JsonValue* value = record.is_object() ? record.get_object().if_contains(key) : nullptr;
    values.push_back(value ? *value : JsonValue("<absent>"));
  }
  return compactJson(values);
}

JsonObject styled(JsonObject l, std::string_view style) {
  l["style"] = parseJson(style);
  return l;
}

JsonObject rectangleShape(const std::string& id, std::string_view style = R"({})") {
  JsonObject rectangle = layer("rectangle", id + "-r", "Path", frame(0, 0, 1, 1));
  return styled(layer("shapeGroup", id, id, frame(0, 0, 10, 10), {rectangle}), style);
}

JsonObject lineShape(const std::string& id, JsonObject f, std::string_view p0, std::string_view p1, int thickness) {
  JsonObject path = layer("shapePath", id + "-p", "Path", frame(0, 0, 1, 1));
  path["path"] = JsonObject{{"points", JsonArray{JsonObject{{"point", p0}}, JsonObject{{"point", p1}}}}};
  return styled(layer("shapeGroup", id, "Line", std::move(f), {path}),
                R"({"borders": [{"isEnabled": true, "fillType": 0, "position": 1, "thickness": )" +
                    std::to_string(thickness) + R"(, "color": {"alpha": 1}}]})");
}

struct Conversion {
  JsonArray layers;
  PXMetaTypefaceSet typefaces;
  JsonArray paths;
};

JsonObject defaultArtboard() { return test::artboard("AB", "Board", frame(0, 0, 400, 300)); }
JsonObject defaultPage() { return test::page("PG", "Page", JsonArray()); }

Conversion convert(JsonArray layers, const PXMetaMissingLayerHandler& handler = {}) {
  Conversion result;
  JsonValue array = std::move(layers);
  JsonObject artboard = defaultArtboard(), page = defaultPage();
  result.layers = PXMetaChildLayersFromJSON(&array, artboard, &page, "Doc", "", result.typefaces, result.paths,
                                            "/out", PXMetaPoint{}, nullptr, nullptr, handler);
  EXPECT_TRUE(PXJsonSerialize(result.layers, true)) << "records must always be writable";
  return result;
}

JsonObject only(const Conversion& conversion) {
  EXPECT_EQ(conversion.layers.size(), 1u) << compactJson(conversion.layers);
  return conversion.layers.empty() ? JsonObject() : conversion.layers[0].get_object();
}

TEST(PXMetaLayerOrder, ListsTopMostFirstAndDropsHiddenSubtrees) {
  JsonObject hidden = layer("group", "H", "Hidden", frame(0, 0, 10, 10),
                            {layer("bitmap", "HB", "Inside", frame(0, 0, 5, 5))});
  hidden["isVisible"] = false;
  hidden["layers"].as_array()[0].as_object()["exportOptions"] =
      parseJson(R"({"exportFormats": [{"fileFormat": "png", "name": "", "namingScheme": 0, "scale": 1}]})");
  auto conversion = convert({layer("bitmap", "A", "A", frame(0, 0, 1, 1)), hidden,
                             layer("bitmap", "B", "B", frame(0, 0, 1, 1)), layer("slice", "C", "C", frame(0, 0, 1, 1))});
  EXPECT_EQ(column(conversion.layers, "id"), R"(["C","B","A"])");
  EXPECT_EQ(column(conversion.layers, "index"), "[0,1,3]") << "the hidden group held 2: indexes count every sibling";
  EXPECT_TRUE(conversion.paths.empty()) << "hidden layers export nothing";
}

// The type of every kind, order and visibility are in the golden files of
// PXMetaExporterTests.
TEST(PXMetaLayerKinds, SlicesDrawNothingAndInstancesMayLackAMaster) {
  auto conversion = convert({layer("symbolInstance", "I", "Instance", frame(0, 0, 10, 10)),
                             styled(layer("slice", "S", "Slice", frame(0, 0, 3, 3)),
                                    R"({"contextSettings": {"opacity": 0.5}})")});
  EXPECT_EQ(fields(conversion.layers.at(0).as_object(), {"type", "opacity"}), R"({"type":"bitmap","opacity":0})")
      << "whatever the slice's style says";
  EXPECT_EQ(fields(conversion.layers.at(1).as_object(), {"type", "symbol", "layers"}),
            R"({"type":"group","symbol":true,"layers":[]})") << "no master to show";
}

TEST(PXMetaLayerKinds, KeepsOnlyShapesThatShowSomething) {
  auto conversion = convert({
      rectangleShape("empty"),
      rectangleShape("bordered", R"({"borders": [{"isEnabled": true, "fillType": 0, "position": 0, "thickness": 1,
                                     "color": {"alpha": 1}}]})"),
      rectangleShape("disabledFill", R"({"fills": [{"isEnabled": false, "fillType": 0, "color": {"alpha": 1}}]})"),
      rectangleShape("shadowed", R"({"shadows": [{"isEnabled": false}]})"),
      rectangleShape("onlyDisabledBorder", R"({"borders": [{"isEnabled": false, "fillType": 0, "thickness": 1}]})"),
  });
  // Any fill counts, enabled or not; a disabled shadow is still listed.
  EXPECT_EQ(column(conversion.layers, "id"), R"(["shadowed","disabledFill","bordered"])");
  EXPECT_EQ(column(conversion.layers, "type"), R"(["path","path","path"])");
  EXPECT_EQ(column(conversion.layers, "borderRadius"), R"(["<absent>","<absent>","<absent>"])")
      << "their rectangles have no corner points";
}

TEST(PXMetaLayerKinds, TakesCornerRadiusFromTheFirstChild) {
  JsonObject rectangle = layer("rectangle", "R", "Rect", frame(0, 0, 1, 1));
  rectangle["path"] = parseJson(R"({"points": [{"cornerRadius": 4}, {"cornerRadius": 6}]})");
  JsonObject shape = styled(layer("shapeGroup", "S", "Shape", frame(0, 0, 10, 10), {rectangle}),
                            R"({"fills": [{"isEnabled": true, "fillType": 0, "color": {"red": 1, "alpha": 1}}]})");
  JsonObject oval = shape;
  oval["do_objectID"] = "OV";
  oval["layers"].as_array()[0].as_object()["_class"] = "oval";
  JsonObject modern = shape;  // newer documents keep the points on the shape
  modern["do_objectID"] = "M";
  modern["layers"].as_array()[0].as_object().erase("path");
  modern["layers"].as_array()[0].as_object()["points"] = parseJson(R"([{"cornerRadius": 8}])");
  auto conversion = convert({shape, oval, modern});
  EXPECT_EQ(column(conversion.layers, "borderRadius"), R"([[8],"<absent>",[4,6]])") << "ovals have no corners";
  EXPECT_EQ(compactJson(conversion.layers.at(2).at("fillColor")), "[[255,0,0,1]]");
}

TEST(PXMetaLayerGeometry, RoundsInSinglePrecisionAndAddsTheOffset) {
  JsonObject bitmap = styled(layer("bitmap", "B", "B", frame(1.005, 0.125, 10.333, 2.675)),
                             R"({"contextSettings": {"opacity": 0.555}})");
  bitmap["rotation"] = 90;
  bitmap["isFlippedHorizontal"] = true;
  bitmap["isFlippedVertical"] = false;
  EXPECT_EQ(fields(only(convert({bitmap})), {"x", "y", "width", "height", "opacity", "rotation", "flippedHorizontal",
                                              "flippedVertical"}),
            R"({"x":1.01,"y":0.13,"width":10.33,"height":2.68,"opacity":0.56,"rotation":90,)"
            R"("flippedHorizontal":true,"flippedVertical":false})");

  JsonObject artboard = defaultArtboard(), page = defaultPage();
  PXMetaTypefaceSet typefaces;
  JsonArray paths;
  auto shifted = PXMetaLayerFromJSON(bitmap, artboard, &page, "Doc", "", typefaces, paths, "/out",
                                     PXMetaPoint{100.5, -0.5}, nullptr, nullptr, {}, 7);
  ASSERT_TRUE(shifted);
  EXPECT_EQ(fields(*shifted, {"x", "y", "index"}), R"({"x":101.51,"y":-0.38,"index":7})");
}

TEST(PXMetaLayerLines, ComputesEndsFromTheStroke) {
  // Horizontal, 1 thick: the stroke is the height, y = 20 + max(1, 1/2) and
  // y2 = (1 + 21) - max(2, 1). The ends swap when the drawing direction and
  // the flip disagree.
  struct { const char *from, *to; bool flipped; const char* expected; } cases[] = {
      {"{0, 0.5}", "{1, 0.5}", false, R"({"type":"line","x":10,"y":21,"x2":110,"y2":20,"length":100})"},
      {"{1, 0.5}", "{0, 0.5}", false, R"({"type":"line","x":110,"y":21,"x2":10,"y2":20,"length":100})"},
      {"{1, 0.5}", "{0, 0.5}", true, R"({"type":"line","x":10,"y":21,"x2":110,"y2":20,"length":100})"},
      {"{0, 0.5}", "{1, 0.5}", true, R"({"type":"line","x":110,"y":21,"x2":10,"y2":20,"length":100})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.from) + (c.flipped ? " flipped" : ""));
    JsonObject line = lineShape("L", frame(10, 20, 100, 1), c.from, c.to, 1);
    if (c.flipped) line["isFlippedHorizontal"] = true;
    EXPECT_EQ(fields(only(convert({line})), {"type", "x", "y", "x2", "y2", "length"}), c.expected);
  }
  // Vertical, drawn upwards, 2 thick: the stroke is the width, x = 5 +
  // max(1, 2/2) and x2 = (2 + 6) - max(2, 2).
  EXPECT_EQ(fields(only(convert({lineShape("V", frame(5, 0, 2, 50), "{0.5, 1}", "{0.5, 0}", 2)})),
                   {"x", "y", "x2", "y2", "length"}),
            R"({"x":6,"y":50,"x2":6,"y2":0,"length":50})");
}

TEST(PXMetaLayerLines, KeepsTheUnroundedShiftAndNeedsTwoPoints) {
  // The shifted start is the single-precision sum itself, not its shortest
  // decimal text: 78.01f + 1 is 79.01000213623047 as a double.
  struct { double y, height; int thickness; double expected; } shifts[] = {
      {10.334, 1, 1, static_cast<double>(10.33f + 1.0f)},
      {78.01, 1, 1, 79.01000213623047},
      {78.01, 1, 2, 79.01000213623047},
      {0.1, 4, 4, static_cast<double>(0.1f + 2.0f)},
  };
  for (const auto& s : shifts) {
    SCOPED_TRACE(s.y);
    JsonObject record =
        only(convert({lineShape("L", frame(0, s.y, 50, s.height), "{0, 0}", "{1, 0}", s.thickness)}));
    ASSERT_TRUE(record.at("y").is_double());
    EXPECT_EQ(record.at("y").get_double(), s.expected);
  }
  JsonObject threePoints = lineShape("T", frame(0, 0, 50, 50), "{0, 0}", "{1, 1}", 1);
  threePoints["layers"].as_array()[0].as_object()["path"].as_object()["points"].as_array().push_back(
      JsonObject{{"point", "{0, 1}"}});
  EXPECT_EQ(fields(only(convert({threePoints})), {"type", "x2", "y2", "length"}), R"({"type":"line"})");
  JsonObject bare = lineShape("N", frame(0, 0, 50, 1), "{0, 0}", "{1, 0}", 1);
  bare["style"] = JsonObject{};
  EXPECT_TRUE(convert({bare}).layers.empty()) << "a line without a stroke shows nothing";
}

TEST(PXMetaLayerGroups, MarksGroupsMadeFromSymbols) {
  JsonObject detached = styled(layer("group", "D", "Detached", frame(0, 0, 10, 10)),
                               R"({"shadows": [{"offsetX": 1}], "borders": [{"isEnabled": true, "thickness": 1}]})");
  detached["originalObjectID"] = "MASTER";
  detached["in_detachedSymbol"] = false;
  JsonObject anima = layer("group", "A", "Anima", frame(0, 0, 10, 10));
  anima["userInfo"] = parseJson(R"({"com.animaapp.stc-sketch-plugin": {"animaDetachedSymbolID": "X"}})");
  JsonObject copied = layer("group", "C", "Copied", frame(0, 0, 10, 10));
  copied["originalObjectID"] = "MASTER";
  auto conversion = convert({detached, layer("group", "U", "Plain", frame(0, 0, 10, 10)), anima, copied});
  // Copied has no in_detachedSymbol entry, Anima its plug-in's information.
  EXPECT_EQ(column(conversion.layers, "symbol"), R"([true,true,"<absent>",false])");
  EXPECT_EQ(column(conversion.layers, "borders"), R"([[],[],"<absent>",[]])") << "groups have no borders of their own";
  EXPECT_EQ(fields(conversion.layers.at(3).as_object(), {"fillColor", "gradients", "innerShadows", "shadows"}),
            R"({"fillColor":[],"gradients":[],"innerShadows":[],"shadows":[{"x":1}]})");
}

TEST(PXMetaLayerGroups, CollectsExportImagesAndTypefacesAlongTheWay) {
  JsonObject icon = layer("bitmap", "ICON", "icon", frame(0, 0, 10, 10));
  icon["exportOptions"] =
      parseJson(R"({"exportFormats": [{"fileFormat": "png", "name": "@2x", "namingScheme": 0, "scale": 2}]})");
  JsonObject group = layer("group", "G", "Folder", frame(0, 0, 10, 10), {icon});
  group["exportOptions"] = icon["exportOptions"];
  auto textLayer = [](const std::string& id, int alignment) {
    JsonObject text = layer("text", id, id, frame(0, 0, 10, 10));
    text["attributedString"] = parseJson(R"({"string": "Hi", "attributes": [{"location": 0, "length": 2, "attributes": {
        "MSAttributedStringFontAttribute": {"attributes": {"name": "NoSuchFont-Regular-PX", "size": 12}},
        "paragraphStyle": {"alignment": )" + std::to_string(alignment) + "}}}]}");
    return text;
  };
  auto conversion = convert({group, textLayer("T1", 0), textLayer("T2", 0), textLayer("T3", 5)});
  EXPECT_EQ(column(conversion.paths, "objectID"), R"(["ICON","G"])") << "children first";
  EXPECT_EQ(column(conversion.paths, "layerPath"), R"(["Page/Board/Folder","Page/Board"])");
  EXPECT_EQ(column(conversion.typefaces.array(), "typeface"), R"([".AppleSystemUIFont",".SF NS Display"])");
  EXPECT_EQ(conversion.layers.at(0).at("text"), "Hi");
}

// --- The children of a master shown through an instance -------------------

// The child's record after showing a master (`masterSize` square) through an
// instance at (50, 0) of `width` × `height`.
JsonObject childThroughInstance(int64_t constraint, double width, double height, JsonObject childFrame,
                                double masterSize = 100) {
  JsonObject child = layer("bitmap", "CHILD", "Child", std::move(childFrame));
  child["resizingConstraint"] = constraint;
  auto master = std::make_shared<const JsonObject>(
      layer("symbolMaster", "M", "Master", frame(0, 0, masterSize, masterSize), {child}));
  auto page = std::make_shared<const JsonObject>(test::page("MP", "Symbols", JsonArray()));
  JsonObject instance = layer("symbolInstance", "I", "Instance", frame(50, 0, width, height));
  instance["originalObjectID"] = "M";
  const JsonObject record = only(convert({instance}, [&](const std::string& id) -> std::optional<PXMetaMissingLayer> {
    if (id != "M") return std::nullopt;
    return PXMetaMissingLayer{master, page};
  }));
  EXPECT_EQ(record.at("symbol"), true);
  const JsonArray* children = record.if_contains("layers") ? record.at("layers").if_array() : nullptr;
  if (!children || children->size() != 1) {
    ADD_FAILURE() << compactJson(record);
    return {};
  }
  return (*children)[0].get_object();
}

TEST(PXMetaLayerSymbolChildren, ResizeEachHorizontalCase) {
  // Child at x 10, 20 wide: its far margin in the master is 70. Every x
  // includes the instance's own 50.
  const std::pair<int64_t, const char*> cases[] = {
      {2, R"({"x":60,"width":120})"},      // size stretches
      {0, R"({"x":60,"width":120})"},      // nothing set: the same
      {1, R"({"x":60,"width":20})"},       // far margin stretches
      {4, R"({"x":160,"width":20})"},      // near margin stretches
      {3, R"({"x":60,"width":42.22})"},    // 20 * 190 / 90
      {6, R"({"x":93.33,"width":86.67})"}, // k = 130 / 30
      {5, R"({"x":80,"width":20})"},       // centre: (10 + 10) * 2 - 10
      {63, R"({"x":70,"width":40})"},      // everything scales by 2
      {64 | 2, R"({"x":70,"width":40})"},  // unknown bits: scaled
  };
  for (auto [constraint, expected] : cases)
    EXPECT_EQ(fields(childThroughInstance(constraint, 200, 100, frame(10, 5, 20, 30)), {"x", "width"}), expected)
        << "constraint " << constraint;
  EXPECT_EQ(fields(childThroughInstance(63, 200, 100, frame(10, 5, 20, 30)), {"y", "height"}),
            R"({"y":5,"height":30})");
}

TEST(PXMetaLayerSymbolChildren, ResizeVerticallyAndSurviveZeroSizes) {
  // Both vertical margins stretch (32 | 8): the centre moves with the height,
  // y = (10 + 10) * 0.5 - 10.
  EXPECT_EQ(fields(childThroughInstance(32 | 8, 100, 50, frame(10, 10, 20, 20)), {"x", "y", "width", "height"}),
            R"({"x":60,"y":0,"width":20,"height":20})");
  EXPECT_EQ(fields(childThroughInstance(16, 100, 50, frame(10, 10, 20, 20)), {"y", "height"}),
            R"({"y":10,"height":-30})") << "50 - 10 - 70: both margins kept";
  // A master of no size gives no ratio: the child keeps its frame.
  EXPECT_EQ(fields(childThroughInstance(63, 200, 200, frame(10, 10, 20, 20), 0), {"x", "width"}),
            R"({"x":60,"width":20})");
}

// --- Input that is no proper layer ---------------------------------------------
// Missing frames and array styles are in PXMetaExporterTests' malformed document.

TEST(PXMetaLayerBadInput, ConvertsWhatItCanAndDropsTheRest) {
  JsonObject stringNumbers = layer("bitmap", "S", "Strings", JsonObject{{"x", "12.5"}, {"y", "abc"}, {"width", true}});
  JsonObject strangeColour = styled(layer("bitmap", "C", "Colour", frame(0, 0, 1, 1)),
                                    R"({"fills": [{"fillType": 0, "isEnabled": true, "color": {"alpha": 0.5}}],
                                        "borders": "none", "shadows": [1, {"color": []}]})");
  JsonObject numberName = layer("bitmap", "N", "x", frame(0, 0, 1, 1));
  numberName["name"] = 7;
  numberName["_class"] = JsonArray{"bitmap"};
  JsonObject deep = layer("bitmap", "DEEP", "Leaf", frame(0, 0, 1, 1));
  for (int level = 0; level < 300; ++level) deep = layer("group", "G", "g", frame(0, 0, 1, 1), {deep});

  test::LogCapture logs;
  auto conversion =
      convert({stringNumbers, JsonValue("not a layer"), JsonValue(nullptr), strangeColour, numberName, deep});
  EXPECT_EQ(column(conversion.layers, "id"), R"(["G","N","C","S"])");
  EXPECT_EQ(fields(conversion.layers.at(3).as_object(), {"x", "y", "width"}), R"({"x":12.5,"y":0,"width":1})");
  EXPECT_EQ(fields(conversion.layers.at(2).as_object(), {"fillColor", "borders", "shadows"}),
            R"({"fillColor":[[0,0,0,0.5]],"borders":[],"shadows":[{}]})");
  EXPECT_EQ(fields(conversion.layers.at(1).as_object(), {"name", "type"}),
            R"({"name":"Unsupported Value Class Type __NSCFNumber"})") << "and no type";
  EXPECT_EQ(logs.count("PXMetaLayerFromJSON exception: layer is not a dictionary"), 2u);
  EXPECT_TRUE(logs.contains("PXMetaLayerFromJSON exception: layers are nested too deeply"));
}

// --- Record keys and where records are made --------------------------------

std::string keyList(const JsonObject& record) {
  std::string out;
  for (const auto& member : record) out += (out.empty() ? "" : ",") + std::string(member.key());
  return out;
}

JsonObject flipped(JsonObject l) {
  l["isFlippedHorizontal"] = true;
  l["isFlippedVertical"] = false;
  return l;
}

TEST(PXMetaLayerKeys, EachKindWritesItsKeysInItsOrder) {
  JsonObject detached = layer("group", "D", "Detached", frame(0, 0, 10, 10));
  detached["originalObjectID"] = "MASTER";
  JsonObject text = layer("text", "T", "Text", frame(0, 0, 10, 10));
  text["attributedString"] = parseJson(R"({"string": "Hi", "attributes": []})");
  JsonObject instance = layer("symbolInstance", "I", "Instance", frame(0, 0, 10, 10));
  instance["originalObjectID"] = "NOWHERE";
  const std::string common =
      "id,name,type,x,y,width,height,rotation,opacity,isInitiallyVisible,flippedHorizontal,flippedVertical,index,"
      "exportOptions,borders,shadows,innerShadows,gradients";
  const std::string group =
      "id,name,type,x,y,width,height,rotation,opacity,flippedHorizontal,flippedVertical,isInitiallyVisible,index,"
      "exportOptions,order,shadows,layers";
  const struct {
    JsonObject layer;
    std::string keys;
  } cases[] = {
      {flipped(layer("group", "G", "Group", frame(0, 0, 10, 10))), group},
      {flipped(detached), group + ",symbol,borders,fillColor,gradients,innerShadows"},
      {flipped(lineShape("L", frame(0, 0, 100, 1), "{0, 0}", "{1, 0}", 1)),
       "rotation,exportOptions,index,borders,isInitiallyVisible,name,shadows,type,id,x,flippedHorizontal,y,"
       "flippedVertical,opacity,height,width,order,x2,y2,length"},
      {flipped(rectangleShape("R", R"({"fills": [{"fillType": 0, "isEnabled": true, "color": {"alpha": 1}}]})")),
       common + ",fillColor,order"},
      {flipped(layer("bitmap", "B", "Bitmap", frame(0, 0, 10, 10))), common + ",fillColor,order"},
      {flipped(layer("slice", "S", "Slice", frame(0, 0, 10, 10))), common + ",fillColor,order"},
      {flipped(text), common + ",fillColor,order,typeface,text"},
      {flipped(instance), common + ",layers,fillColor,order,symbol"},
      {layer("rectangle", "O", "Other", frame(0, 0, 10, 10)),
       "id,name,x,y,width,height,rotation,opacity,isInitiallyVisible,index,exportOptions,borders,shadows,"
       "innerShadows,gradients,order"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(keyList(only(convert({c.layer}))), c.keys) << compactJson(c.layer);
}

TEST(PXMetaLayerStorage, RecordsMadeInAnArenaEqualThoseMadeOnTheHeap) {
  JsonObject icon = styled(layer("bitmap", "ICON", "icon", frame(0, 0, 10, 10)),
                           R"({"shadows": [{"offsetX": 1, "color": {"red": 1, "alpha": 0.5}}],
                               "fills": [{"fillType": 1, "isEnabled": true, "gradient": {"gradientType": 0,
                                 "from": "{0, 0}", "to": "{1, 1}", "stops": [{"position": 0, "color": {"alpha": 1}}]}}]})");
  icon["exportOptions"] = parseJson(R"({"exportFormats": [{"fileFormat": "png", "name": "@2x", "scale": 2}]})");
  JsonValue layers = JsonArray{layer("group", "G", "Folder", frame(0, 0, 10, 10), {icon}),
                               lineShape("L", frame(0, 0, 100, 1), "{0, 0}", "{1, 0}", 1)};
  JsonObject artboard = defaultArtboard(), page = defaultPage();
  auto run = [&](const boost::json::storage_ptr& storage) {
    Conversion result;
    result.paths = JsonArray(storage);
    result.layers = PXMetaChildLayersFromJSON(&layers, artboard, &page, "Doc", "", result.typefaces, result.paths,
                                              "/out", PXMetaPoint{}, nullptr, nullptr, {}, storage);
    return std::pair(compactJson(result.layers), compactJson(result.paths));
  };
  const auto onHeap = run({});
  boost::json::monotonic_resource arena;
  const auto inArena = run(boost::json::storage_ptr(&arena));
  EXPECT_EQ(inArena.first, onHeap.first);
  EXPECT_EQ(inArena.second, onHeap.second);
  EXPECT_NE(onHeap.first.find("\"stops\""), std::string::npos) << "the fixture reaches gradients";
}

}  // namespace
}  // namespace plexa
