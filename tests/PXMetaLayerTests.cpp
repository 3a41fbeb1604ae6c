// Layer conversion: order and indexes, hidden and empty layers, kinds,
// lines, detached symbols, the children of masters shown through instances,
// and input that is no proper layer at all.

#include "PXMetaLayer.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <map>

namespace plexa {
namespace {

using test::frame;
using test::layer;

JsonValue parse(std::string_view text) {
  auto value = PXJsonParse(text);
  EXPECT_TRUE(value) << text;
  return value.value_or(JsonValue());
}

std::string written(const JsonValue& value) { return PXJsonSerialize(value, false).value_or("<unwritable>"); }

double number(const JsonObject& record, std::string_view key) {
  const JsonValue* value = record.if_contains(key);
  EXPECT_TRUE(value && value->is_number()) << key << " in " << written(record);
  return value && value->is_number() ? value->to_number<double>() : -12345;
}

JsonObject border(double thickness, bool enabled = true) {
  return JsonObject{{"isEnabled", enabled}, {"fillType", 0}, {"position", 1}, {"thickness", thickness},
                    {"color", JsonObject{{"red", 0}, {"green", 0}, {"blue", 0}, {"alpha", 1}}}};
}

JsonObject styled(JsonObject l, std::string_view style) {
  l["style"] = parse(style);
  return l;
}

JsonObject rectangleShape(const std::string& id, JsonObject f, std::string_view style = R"({})") {
  return styled(layer("shapeGroup", id, id, std::move(f), {layer("rectangle", id + "-r", "Path", frame(0, 0, 1, 1))}),
                style);
}

JsonObject lineShape(const std::string& id, JsonObject f, std::string_view p0, std::string_view p1,
                     double thickness) {
  JsonObject path = layer("shapePath", id + "-p", "Path", frame(0, 0, 1, 1));
  path["path"] = JsonObject{{"points", JsonArray{JsonObject{{"point", p0}}, JsonObject{{"point", p1}}}}};
  JsonObject line = layer("shapeGroup", id, "Line", std::move(f), {path});
  line["style"] = JsonObject{{"borders", JsonArray{border(thickness)}}};
  return line;
}

struct Conversion {
  JsonArray layers;
  PXMetaTypefaceSet typefaces;
  JsonArray paths;
};

JsonObject defaultArtboard() { return test::artboard("AB", "Board", frame(0, 0, 400, 300)); }
JsonObject defaultPage() { return test::page("PG", "Page", JsonArray()); }

Conversion convert(JsonArray layers, const PXMetaMissingLayerHandler& handler = {},
                   JsonObject artboard = defaultArtboard()) {
  Conversion result;
  JsonValue array = std::move(layers);
  JsonObject page = defaultPage();
  result.layers = PXMetaChildLayersFromJSON(&array, artboard, &page, "Doc", "", result.typefaces, result.paths,
                                            "/out", PXMetaPoint{}, nullptr, nullptr, handler);
  EXPECT_TRUE(PXJsonSerialize(result.layers, true)) << "records must always be writable";
  return result;
}

JsonObject only(const Conversion& conversion) {
  EXPECT_EQ(conversion.layers.size(), 1u) << written(conversion.layers);
  return conversion.layers.empty() ? JsonObject() : conversion.layers[0].get_object();
}

TEST(PXMetaLayerOrder, ListsTopMostFirstAndDropsHiddenSubtrees) {
  JsonObject hidden = layer("group", "H", "Hidden", frame(0, 0, 10, 10),
                            {layer("bitmap", "HB", "Inside", frame(0, 0, 5, 5))});
  hidden["isVisible"] = false;
  hidden["layers"].as_array()[0].as_object()["exportOptions"] =
      parse(R"({"exportFormats": [{"fileFormat": "png", "name": "", "namingScheme": 0, "scale": 1}]})");
  auto conversion = convert({layer("bitmap", "A", "A", frame(0, 0, 1, 1)), hidden,
                             layer("bitmap", "B", "B", frame(0, 0, 1, 1)), layer("slice", "C", "C", frame(0, 0, 1, 1))});
  ASSERT_EQ(conversion.layers.size(), 3u);
  EXPECT_EQ(conversion.layers[0].at("id"), "C");
  EXPECT_EQ(conversion.layers[0].at("index"), 0);
  EXPECT_EQ(conversion.layers[1].at("id"), "B");
  EXPECT_EQ(conversion.layers[1].at("index"), 1);
  // The hidden group held index 2: positions count every sibling.
  EXPECT_EQ(conversion.layers[2].at("id"), "A");
  EXPECT_EQ(conversion.layers[2].at("index"), 3);
  EXPECT_TRUE(conversion.paths.empty()) << "hidden layers export nothing";
}

TEST(PXMetaLayerKinds, MapsClassesToInspectTypes) {
  JsonObject instance = layer("symbolInstance", "I", "Instance", frame(0, 0, 10, 10));
  auto conversion = convert({layer("oval", "O", "Bare oval", frame(0, 0, 3, 3)), instance,
                             styled(layer("slice", "S", "Slice", frame(0, 0, 3, 3)),
                                    R"({"contextSettings": {"opacity": 0.5}})"),
                             layer("bitmap", "B", "Bitmap", frame(0, 0, 3, 3))});
  ASSERT_EQ(conversion.layers.size(), 4u);
  const JsonObject& bitmap = conversion.layers[0].get_object();
  const JsonObject& slice = conversion.layers[1].get_object();
  const JsonObject& symbol = conversion.layers[2].get_object();
  const JsonObject& oval = conversion.layers[3].get_object();
  EXPECT_EQ(bitmap.at("type"), "bitmap");
  EXPECT_EQ(slice.at("type"), "bitmap");
  EXPECT_EQ(number(slice, "opacity"), 0);  // whatever the style says
  EXPECT_EQ(symbol.at("type"), "group");
  EXPECT_EQ(symbol.at("symbol"), true);
  EXPECT_EQ(written(symbol.at("layers")), "[]") << "no master to show";
  EXPECT_FALSE(oval.contains("type"));
  for (const auto& record : conversion.layers) {
    EXPECT_EQ(record.at("order"), 0);
    EXPECT_EQ(record.at("isInitiallyVisible"), true);
  }
  EXPECT_EQ(number(bitmap, "opacity"), 1) << "absent opacity";
}

TEST(PXMetaLayerKinds, KeepsOnlyShapesThatShowSomething) {
  auto conversion = convert({
      rectangleShape("empty", frame(0, 0, 10, 10)),
      rectangleShape("bordered", frame(0, 0, 10, 10), R"({"borders": [{"isEnabled": true, "fillType": 0,
          "position": 0, "thickness": 1, "color": {"alpha": 1}}]})"),
      rectangleShape("disabledFill", frame(0, 0, 10, 10),
                     R"({"fills": [{"isEnabled": false, "fillType": 0, "color": {"alpha": 1}}]})"),
      rectangleShape("shadowed", frame(0, 0, 10, 10), R"({"shadows": [{"isEnabled": false}]})"),
      rectangleShape("onlyDisabledBorder", frame(0, 0, 10, 10),
                     R"({"borders": [{"isEnabled": false, "fillType": 0, "thickness": 1}]})"),
  });
  std::vector<std::string> kept;
  for (const auto& record : conversion.layers) kept.emplace_back(record.at("id").as_string());
  // Any fill counts, enabled or not; a disabled shadow is still listed.
  EXPECT_EQ(kept, (std::vector<std::string>{"shadowed", "disabledFill", "bordered"}));
  const JsonObject& bordered = conversion.layers[2].get_object();
  EXPECT_EQ(bordered.at("type"), "path");
  EXPECT_FALSE(bordered.contains("borderRadius")) << "its rectangle has no corner points";
}

TEST(PXMetaLayerKinds, TakesCornerRadiusFromTheFirstChild) {
  JsonObject rectangle = layer("rectangle", "R", "Rect", frame(0, 0, 1, 1));
  rectangle["path"] = parse(R"({"points": [{"cornerRadius": 4}, {"cornerRadius": 6}]})");
  JsonObject shape = layer("shapeGroup", "S", "Shape", frame(0, 0, 10, 10), {rectangle});
  shape["style"] = parse(R"({"fills": [{"isEnabled": true, "fillType": 0, "color": {"red": 1, "alpha": 1}}]})");
  JsonObject oval = shape;
  oval["do_objectID"] = "OV";
  oval["layers"].as_array()[0].as_object()["_class"] = "oval";
  JsonObject modern = shape;  // newer documents keep the points on the shape
  modern["do_objectID"] = "M";
  modern["layers"].as_array()[0].as_object().erase("path");
  modern["layers"].as_array()[0].as_object()["points"] = parse(R"([{"cornerRadius": 8}])");
  auto conversion = convert({shape, oval, modern});
  ASSERT_EQ(conversion.layers.size(), 3u);
  EXPECT_EQ(written(conversion.layers[0].at("borderRadius")), "[8]");
  EXPECT_FALSE(conversion.layers[1].as_object().contains("borderRadius")) << "ovals have no corners";
  EXPECT_EQ(written(conversion.layers[2].at("borderRadius")), "[4,6]");
  EXPECT_EQ(written(conversion.layers[2].at("fillColor")), "[[255,0,0,1]]");
}

TEST(PXMetaLayerGeometry, RoundsInSinglePrecisionAndAddsTheOffset) {
  JsonObject bitmap = layer("bitmap", "B", "B", frame(1.005, 0.125, 10.333, 2.675));
  bitmap["style"] = parse(R"({"contextSettings": {"opacity": 0.555}})");
  bitmap["rotation"] = 90;
  bitmap["isFlippedHorizontal"] = true;
  bitmap["isFlippedVertical"] = false;
  const JsonObject& record = only(convert({bitmap}));
  EXPECT_EQ(number(record, "x"), 1.01);
  EXPECT_EQ(number(record, "y"), 0.13);
  EXPECT_EQ(number(record, "width"), 10.33);
  EXPECT_EQ(number(record, "height"), 2.68);
  EXPECT_EQ(number(record, "opacity"), 0.56);
  EXPECT_EQ(record.at("rotation"), 90);
  EXPECT_EQ(record.at("flippedHorizontal"), true);
  EXPECT_EQ(record.at("flippedVertical"), false);

  JsonObject artboard = defaultArtboard();
  JsonObject page = defaultPage();
  PXMetaTypefaceSet typefaces;
  JsonArray paths;
  auto shifted = PXMetaLayerFromJSON(bitmap, artboard, &page, "Doc", "", typefaces, paths, "/out",
                                     PXMetaPoint{100.5, -0.5}, nullptr, nullptr, {}, 7);
  ASSERT_TRUE(shifted);
  EXPECT_EQ(number(*shifted, "x"), 101.51);
  EXPECT_EQ(number(*shifted, "y"), -0.38);
  EXPECT_EQ(number(*shifted, "index"), 7);
}

TEST(PXMetaLayerLines, ComputesEndsFromTheStroke) {
  // Horizontal, drawn left to right: the stroke is the height.
  const JsonObject& horizontal = only(convert({lineShape("L", frame(10, 20, 100, 1), "{0, 0.5}", "{1, 0.5}", 1)}));
  EXPECT_EQ(horizontal.at("type"), "line");
  EXPECT_EQ(number(horizontal, "x"), 10);
  EXPECT_EQ(number(horizontal, "y"), 21);  // 20 + max(1, 1/2)
  EXPECT_EQ(number(horizontal, "x2"), 110);
  EXPECT_EQ(number(horizontal, "y2"), 20);  // (1 + 21) - max(2, 1)
  EXPECT_EQ(number(horizontal, "length"), 100);  // sqrtf(10001) = 100.004997
  for (const char* key : {"fillColor", "gradients", "innerShadows", "borderRadius"})
    EXPECT_FALSE(horizontal.contains(key)) << key;

  // The ends swap when the drawing direction and the flip disagree.
  JsonObject reversed = lineShape("L", frame(10, 20, 100, 1), "{1, 0.5}", "{0, 0.5}", 1);
  EXPECT_EQ(number(only(convert({reversed})), "x"), 110);
  EXPECT_EQ(number(only(convert({reversed})), "x2"), 10);
  reversed["isFlippedHorizontal"] = true;
  EXPECT_EQ(number(only(convert({reversed})), "x"), 10);
  JsonObject flipped = lineShape("L", frame(10, 20, 100, 1), "{0, 0.5}", "{1, 0.5}", 1);
  flipped["isFlippedHorizontal"] = true;
  EXPECT_EQ(number(only(convert({flipped})), "x2"), 10);

  // Vertical, drawn upwards, 2 thick: the stroke is the width.
  const JsonObject& vertical = only(convert({lineShape("V", frame(5, 0, 2, 50), "{0.5, 1}", "{0.5, 0}", 2)}));
  EXPECT_EQ(number(vertical, "x"), 6);   // 5 + max(1, 2/2)
  EXPECT_EQ(number(vertical, "x2"), 6);  // (2 + 6) - max(2, 2)
  EXPECT_EQ(number(vertical, "y"), 50);
  EXPECT_EQ(number(vertical, "y2"), 0);
  EXPECT_EQ(number(vertical, "length"), 50);
}

TEST(PXMetaLayerLines, KeepsTheUnroundedShiftAndNeedsTwoPoints) {
  const JsonObject& shifted = only(convert({lineShape("L", frame(0, 10.334, 50, 1), "{0, 0}", "{1, 0}", 1)}));
  EXPECT_EQ(number(shifted, "y"), 11.33);  // 10.33f + 1, written as the float prints
  JsonObject threePoints = lineShape("T", frame(0, 0, 50, 50), "{0, 0}", "{1, 1}", 1);
  threePoints["layers"].as_array()[0].as_object()["path"].as_object()["points"].as_array().push_back(
      JsonObject{{"point", "{0, 1}"}});
  const JsonObject& polyline = only(convert({threePoints}));
  EXPECT_EQ(polyline.at("type"), "line");
  for (const char* key : {"x2", "y2", "length"}) EXPECT_FALSE(polyline.contains(key)) << key;
  JsonObject bare = lineShape("N", frame(0, 0, 50, 1), "{0, 0}", "{1, 0}", 1);
  bare["style"] = JsonObject{};
  EXPECT_TRUE(convert({bare}).layers.empty()) << "a line without a stroke shows nothing";
}

TEST(PXMetaLayerGroups, MarksGroupsMadeFromSymbols) {
  JsonObject detached = layer("group", "D", "Detached", frame(0, 0, 10, 10));
  detached["originalObjectID"] = "MASTER";
  detached["in_detachedSymbol"] = false;
  detached["style"] = parse(R"({"shadows": [{"offsetX": 1}], "borders": [{"isEnabled": true, "thickness": 1}]})");
  JsonObject unmarked = layer("group", "U", "Plain", frame(0, 0, 10, 10));
  JsonObject anima = layer("group", "A", "Anima", frame(0, 0, 10, 10));
  anima["userInfo"] = parse(R"({"com.animaapp.stc-sketch-plugin": {"animaDetachedSymbolID": "X"}})");
  JsonObject copied = layer("group", "C", "Copied", frame(0, 0, 10, 10));
  copied["originalObjectID"] = "MASTER";
  auto conversion = convert({detached, unmarked, anima, copied});
  ASSERT_EQ(conversion.layers.size(), 4u);
  EXPECT_EQ(conversion.layers[0].at("symbol"), true);  // no in_detachedSymbol entry
  EXPECT_EQ(conversion.layers[1].at("symbol"), true);  // Anima information
  EXPECT_FALSE(conversion.layers[2].as_object().contains("symbol"));
  const JsonObject& marked = conversion.layers[3].get_object();
  EXPECT_EQ(marked.at("symbol"), false);
  for (const char* key : {"borders", "fillColor", "gradients", "innerShadows"})
    EXPECT_EQ(written(marked.at(key)), "[]") << key;
  EXPECT_EQ(written(marked.at("shadows")), R"([{"x":1}])");
  EXPECT_FALSE(conversion.layers[2].as_object().contains("borders")) << "groups have no borders of their own";
}

TEST(PXMetaLayerGroups, CollectsExportImagesAndTypefacesAlongTheWay) {
  JsonObject icon = layer("bitmap", "ICON", "icon", frame(0, 0, 10, 10));
  icon["exportOptions"] =
      parse(R"({"exportFormats": [{"fileFormat": "png", "name": "@2x", "namingScheme": 0, "scale": 2}]})");
  JsonObject group = layer("group", "G", "Folder", frame(0, 0, 10, 10), {icon});
  group["exportOptions"] = icon["exportOptions"];
  auto textLayer = [](const std::string& id, int alignment) {
    JsonObject text = layer("text", id, id, frame(0, 0, 10, 10));
    text["attributedString"] = parse(R"({"string": "Hi", "attributes": [{"location": 0, "length": 2, "attributes": {
        "MSAttributedStringFontAttribute": {"attributes": {"name": "NoSuchFont-Regular-PX", "size": 12}},
        "paragraphStyle": {"alignment": )" + std::to_string(alignment) + "}}}]}");
    return text;
  };
  auto conversion = convert({group, textLayer("T1", 0), textLayer("T2", 0), textLayer("T3", 5)});
  ASSERT_EQ(conversion.paths.size(), 2u);
  EXPECT_EQ(conversion.paths[0].at("objectID"), "ICON");  // children first
  EXPECT_EQ(conversion.paths[0].at("layerPath"), "Page/Board/Folder");
  EXPECT_EQ(conversion.paths[1].at("objectID"), "G");
  EXPECT_EQ(conversion.paths[1].at("layerPath"), "Page/Board");
  ASSERT_EQ(conversion.typefaces.elements().size(), 2u) << written(conversion.typefaces.array());
  EXPECT_EQ(conversion.typefaces.elements()[0].at("typeface"), ".AppleSystemUIFont");
  EXPECT_EQ(conversion.layers[0].at("text"), "Hi");
}

// --- The children of a master shown through an instance -------------------

struct MasterFixture {
  JsonObject master = test::layer("symbolMaster", "M", "Master", frame(0, 0, 100, 100));
  JsonObject page = test::page("MP", "Symbols", JsonArray());

  PXMetaMissingLayerHandler handler() {
    auto masterCopy = std::make_shared<const JsonObject>(master);
    auto pageCopy = std::make_shared<const JsonObject>(page);
    return [masterCopy, pageCopy](const std::string& id) -> std::optional<PXMetaMissingLayer> {
      if (id != "M") return std::nullopt;
      return PXMetaMissingLayer{masterCopy, pageCopy};
    };
  }
};

// The child's frame after showing a master 100 × 100 through an instance
// at (50, 0) of `width` × `height`.
JsonObject childThroughInstance(int64_t constraint, double width, double height, JsonObject childFrame) {
  MasterFixture fixture;
  JsonObject child = layer("bitmap", "CHILD", "Child", std::move(childFrame));
  child["resizingConstraint"] = constraint;
  fixture.master["layers"] = JsonArray{child};
  JsonObject instance = layer("symbolInstance", "I", "Instance", frame(50, 0, width, height));
  instance["originalObjectID"] = "M";
  auto conversion = convert({instance}, fixture.handler());
  const JsonObject& record = only(conversion);
  EXPECT_EQ(record.at("symbol"), true);
  const JsonArray* children = record.if_contains("layers") ? record.at("layers").if_array() : nullptr;
  if (!children || children->size() != 1) {
    ADD_FAILURE() << written(record);
    return {};
  }
  return (*children)[0].get_object();
}

TEST(PXMetaLayerSymbolChildren, ResizeEachHorizontalCase) {
  // Child at x 10, 20 wide: its far margin in the master is 70.
  auto resized = [](int64_t constraint) {
    JsonObject child = childThroughInstance(constraint, 200, 100, frame(10, 5, 20, 30));
    return std::pair(number(child, "x") - 50, number(child, "width"));
  };
  EXPECT_EQ(resized(2), std::pair(10.0, 120.0));     // size stretches
  EXPECT_EQ(resized(0), std::pair(10.0, 120.0));     // nothing set: the same
  EXPECT_EQ(resized(1), std::pair(10.0, 20.0));      // far margin stretches
  EXPECT_EQ(resized(4), std::pair(110.0, 20.0));     // near margin stretches
  EXPECT_EQ(resized(3), std::pair(10.0, 42.22));     // 20 * 190 / 90
  EXPECT_EQ(resized(6), std::pair(43.33, 86.67));    // k = 130 / 30
  EXPECT_EQ(resized(5), std::pair(30.0, 20.0));      // centre: (10 + 10) * 2 - 10
  EXPECT_EQ(resized(63), std::pair(20.0, 40.0));     // everything scales by 2
  EXPECT_EQ(resized(64 | 2), std::pair(20.0, 40.0)); // unknown bits: scaled
  JsonObject child = childThroughInstance(63, 200, 100, frame(10, 5, 20, 30));
  EXPECT_EQ(number(child, "y"), 5);
  EXPECT_EQ(number(child, "height"), 30);
}

TEST(PXMetaLayerSymbolChildren, ResizeVerticallyAndSurviveZeroSizes) {
  // Both vertical margins stretch (32 | 8): the centre moves with the height.
  JsonObject centred = childThroughInstance(32 | 8, 100, 50, frame(10, 10, 20, 20));
  EXPECT_EQ(number(centred, "y"), 0);  // (10 + 10) * 0.5 - 10
  EXPECT_EQ(number(centred, "height"), 20);
  EXPECT_EQ(number(centred, "x"), 60);
  EXPECT_EQ(number(centred, "width"), 20);
  JsonObject sizeOnly = childThroughInstance(16, 100, 50, frame(10, 10, 20, 20));
  EXPECT_EQ(number(sizeOnly, "y"), 10);
  EXPECT_EQ(number(sizeOnly, "height"), -30) << "50 - 10 - 70: both margins kept";

  MasterFixture fixture;
  fixture.master["frame"] = frame(0, 0, 0, 0);
  JsonObject child = layer("bitmap", "CHILD", "Child", frame(10, 10, 20, 20));
  fixture.master["layers"] = JsonArray{child};
  JsonObject instance = layer("symbolInstance", "I", "Instance", frame(0, 0, 200, 200));
  instance["originalObjectID"] = "M";
  const JsonObject& record = only(convert({instance}, fixture.handler()));
  const JsonObject& kept = record.at("layers").at(0).get_object();
  EXPECT_EQ(number(kept, "x"), 10);
  EXPECT_EQ(number(kept, "width"), 20);
}

TEST(PXMetaLayerSymbolChildren, StopCyclesBetweenMasters) {
  // M1 shows M2, which shows M1 again.
  auto masters = std::make_shared<std::map<std::string, std::shared_ptr<const JsonObject>>>();
  auto instanceOf = [](const std::string& id, const std::string& master) {
    JsonObject instance = layer("symbolInstance", id, id, frame(0, 0, 10, 10));
    instance["originalObjectID"] = master;
    return instance;
  };
  (*masters)["M1"] = std::make_shared<const JsonObject>(
      test::layer("symbolMaster", "M1", "One", frame(0, 0, 10, 10), {instanceOf("I2", "M2")}));
  (*masters)["M2"] = std::make_shared<const JsonObject>(
      test::layer("symbolMaster", "M2", "Two", frame(0, 0, 10, 10), {instanceOf("I1", "M1")}));
  PXMetaMissingLayerHandler handler = [masters](const std::string& id) -> std::optional<PXMetaMissingLayer> {
    auto it = masters->find(id);
    if (it == masters->end()) return std::nullopt;
    return PXMetaMissingLayer{it->second, nullptr};
  };
  test::LogCapture logs;
  const JsonObject& outer = only(convert({instanceOf("I0", "M1")}, handler));
  // I0 shows M1 (I2), which shows M2 (I1), whose M1 would start over.
  const JsonObject& second = outer.at("layers").at(0).get_object();
  EXPECT_EQ(second.at("id"), "I2");
  EXPECT_EQ(written(second.at("layers")), "[]") << "I1 is left out";
  EXPECT_TRUE(logs.contains("PXMetaLayerFromJSON exception: symbol master M1"));
  EXPECT_TRUE(logs.contains("PXMetaLayerFromJSON stack: AB > I0 > I2 > [0] I1"));
}

// --- Input that is no proper layer ---------------------------------------------

TEST(PXMetaLayerBadInput, ConvertsWhatItCanAndDropsTheRest) {
  JsonObject stringNumbers = layer("bitmap", "S", "Strings", JsonObject{{"x", "12.5"}, {"y", "abc"}, {"width", true}});
  JsonObject noFrame = layer("bitmap", "F", "No frame", frame(0, 0, 1, 1));
  noFrame.erase("frame");
  JsonObject arrayStyle = layer("shapeGroup", "A", "Array style", frame(0, 0, 5, 5),
                                {layer("rectangle", "AR", "r", frame(0, 0, 1, 1))});
  arrayStyle["style"] = parse(R"([{"fills": [{"fillType": 0, "isEnabled": true, "color": {"alpha": 1}}]}])");
  JsonObject strangeColour = layer("bitmap", "C", "Colour", frame(0, 0, 1, 1));
  strangeColour["style"] = parse(R"({"fills": [{"fillType": 0, "isEnabled": true, "color": {"alpha": 0.5}}],
                                     "borders": "none", "shadows": [1, {"color": []}]})");
  JsonObject numberName = layer("bitmap", "N", "x", frame(0, 0, 1, 1));
  numberName["name"] = 7;
  numberName["_class"] = JsonArray{"bitmap"};
  JsonObject deep = layer("bitmap", "DEEP", "Leaf", frame(0, 0, 1, 1));
  for (int level = 0; level < 300; ++level) deep = layer("group", "G", "g", frame(0, 0, 1, 1), {deep});

  test::LogCapture logs;
  auto conversion = convert({stringNumbers, noFrame, arrayStyle, JsonValue("not a layer"), JsonValue(nullptr),
                             strangeColour, numberName, deep});
  std::map<std::string, JsonObject> byID;
  for (const auto& record : conversion.layers) byID[std::string(record.at("id").as_string())] = record.get_object();
  ASSERT_TRUE(byID.count("S"));
  EXPECT_EQ(number(byID["S"], "x"), 12.5);
  EXPECT_EQ(number(byID["S"], "y"), 0);
  EXPECT_EQ(number(byID["S"], "width"), 1);
  EXPECT_EQ(number(byID["F"], "width"), 0);
  EXPECT_FALSE(byID.count("A")) << "a style that is an array paints nothing";
  EXPECT_EQ(written(byID["C"].at("fillColor")), "[[0,0,0,0.5]]");
  EXPECT_EQ(written(byID["C"].at("borders")), "[]");
  EXPECT_EQ(written(byID["C"].at("shadows")), "[{}]");
  EXPECT_EQ(byID["N"].at("name"), "Unsupported Value Class Type __NSCFNumber");
  EXPECT_FALSE(byID["N"].contains("type"));
  ASSERT_TRUE(byID.count("G"));
  EXPECT_EQ(logs.count("PXMetaLayerFromJSON exception: layer is not a dictionary"), 2u);
  EXPECT_TRUE(logs.contains("PXMetaLayerFromJSON exception: layers are nested too deeply"));
}

}  // namespace
}  // namespace plexa
