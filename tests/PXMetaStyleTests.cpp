// Style conversion: colours, fills, gradients, borders, shadows, strings,
// rounding and record filling, with values worked out by hand.

#include "KeyedArchive.h"
#include "PXMetaStyle.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <limits>

namespace plexa {
namespace {

JsonValue parse(std::string_view text) {
  auto value = PXJsonParse(text);
  EXPECT_TRUE(value) << text;
  return value.value_or(JsonValue());
}

// The text a reader of the file sees: 255 and 255.0 are the same number.
std::string written(const JsonValue& value) { return PXJsonSerialize(value, false).value_or("<unwritable>"); }

JsonObject flatFill(double r, double g, double b, bool enabled = true) {
  return JsonObject{{"fillType", 0},
                    {"isEnabled", enabled},
                    {"color", JsonObject{{"red", r}, {"green", g}, {"blue", b}, {"alpha", 1}}}};
}

JsonObject gradientFill(int type) {
  return JsonObject{{"fillType", 1},
                    {"isEnabled", true},
                    {"gradient", parse(R"({"gradientType": )" + std::to_string(type) + R"(,
                       "from": "{0.5, 0}", "to": "{0.5, 1}",
                       "stops": [{"position": 0, "color": {"red": 1, "green": 1, "blue": 1, "alpha": 1}},
                                 {"position": 0.25, "color": {"red": 0, "green": 0, "blue": 0}},
                                 {"position": 1, "color": {"red": 0, "green": 0, "blue": 0, "alpha": 0.5}}]})")}};
}

TEST(PXMetaStyleRounding, FollowsSinglePrecisionArithmetic) {
  // 1.005f * 100 is 100.5 in float (100.49999999999999 in double).
  EXPECT_EQ(PXMetaNumberRound(1.005, 2), 1.01);
  EXPECT_EQ(PXMetaRoundDouble2(1.005), 1.0);
  EXPECT_EQ(PXMetaRound2(2.675), 2.68);
  // Half away from zero, not to even.
  EXPECT_EQ(PXMetaRound2(0.125), 0.13);
  EXPECT_EQ(PXMetaRound2(-0.125), -0.13);
  EXPECT_EQ(PXMetaNumberRound(3.14159, 0), 3.0);
  EXPECT_EQ(PXMetaNumberRound(3.14159, 3), 3.142);
  EXPECT_EQ(PXMetaRound2(375), 375.0);
}

TEST(PXMetaStyleRounding, NeverYieldsNonFiniteNumbers) {
  EXPECT_EQ(PXMetaRound2(1e39), 0.0);  // past the float range
  EXPECT_EQ(PXMetaRound2(std::numeric_limits<double>::quiet_NaN()), 0.0);
  EXPECT_EQ(PXMetaRoundDouble2(std::numeric_limits<double>::infinity()), 0.0);
  EXPECT_EQ(PXMetaColorComponent(std::numeric_limits<double>::infinity()), 0.0);
  EXPECT_EQ(PXMetaFloatNumber(11.33f), 11.33);
  EXPECT_EQ(PXMetaFloatNumber(std::numeric_limits<float>::infinity()), 0.0);
  JsonValue finite = PXMetaFiniteValue(parse(R"({"a": [1e400, 2], "b": {"c": -1e999}})"));
  EXPECT_EQ(finite, parse(R"({"a": [0, 2], "b": {"c": 0}})"));
  EXPECT_TRUE(PXJsonSerialize(finite, false));
}

TEST(PXMetaStyleColor, ScalesComponentsAndKeepsAlpha) {
  JsonValue color = parse(R"({"red": 1, "green": 0.5, "blue": 0, "alpha": 0.4})");
  EXPECT_EQ(PXMetaColorFromJSON(&color), (JsonArray{255.0, 128.0, 0.0, 0.4}));
  JsonValue almost = parse(R"({"red": 0.498039, "green": "0.2", "blue": 0.0019, "alpha": 1})");
  EXPECT_EQ(PXMetaColorFromJSON(&almost), (JsonArray{127.0, 51.0, 0.0, 1}));
  // Missing components read as 0; huge ones do not turn into infinity.
  JsonValue sparse = parse(R"({"alpha": 1, "red": 1e400})");
  EXPECT_EQ(PXMetaColorFromJSON(&sparse), (JsonArray{0.0, 0.0, 0.0, 1}));
}

TEST(PXMetaStyleColor, RefusesWhatIsNoColour) {
  JsonValue noAlpha = parse(R"({"red": 1, "green": 0, "blue": 0})");
  JsonValue textAlpha = parse(R"({"red": 1, "alpha": "opaque"})");
  JsonValue nullAlpha = parse(R"({"red": 1, "alpha": null})");
  JsonValue array = parse("[1, 0, 0, 1]");
  EXPECT_FALSE(PXMetaColorFromJSON(&noAlpha));
  EXPECT_FALSE(PXMetaColorFromJSON(&textAlpha));
  EXPECT_FALSE(PXMetaColorFromJSON(&nullAlpha));
  EXPECT_FALSE(PXMetaColorFromJSON(&array));
  EXPECT_FALSE(PXMetaColorFromJSON(nullptr));
}

TEST(PXMetaStyleFills, SplitsColoursFromGradientsTopMostFirst) {
  JsonValue fills = JsonArray{flatFill(1, 0, 0), flatFill(0, 0, 1, false), gradientFill(0), flatFill(0, 1, 0)};
  EXPECT_EQ(PXMetaColorFillFromJSON(&fills, "fill"),
            (JsonArray{JsonArray{0.0, 255.0, 0.0, 1}, JsonArray{255.0, 0.0, 0.0, 1}}));
  JsonArray gradients = PXMetaColorFillFromJSON(&fills, "gradient");
  ASSERT_EQ(gradients.size(), 1u);
  EXPECT_EQ(gradients[0].at("type"), "linear");

  JsonValue odd = JsonArray{JsonObject{{"fillType", 4}, {"isEnabled", true}}, "not a fill", flatFill(1, 1, 1)};
  EXPECT_EQ(PXMetaColorFillFromJSON(&odd, "fill").size(), 1u);
  JsonValue notArray = JsonObject{{"fillType", 0}};
  EXPECT_TRUE(PXMetaColorFillFromJSON(&notArray, "fill").empty());
  EXPECT_TRUE(PXMetaColorFillFromJSON(nullptr, "gradient").empty());
}

TEST(PXMetaStyleFills, BuildsGradientRecords) {
  auto radial = PXMetaGradientFromJSON(gradientFill(1));
  ASSERT_TRUE(radial);
  EXPECT_EQ(written(*radial), written(parse(R"({"type": "radial", "from": {"x": 0.5, "y": 0}, "to": {"x": 0.5, "y": 1},
      "stops": [{"color": [255, 255, 255, 1], "location": 0}, {"location": 0.25},
                {"color": [0, 0, 0, 0.5], "location": 1}]})")));
  EXPECT_FALSE(PXMetaGradientFromJSON(gradientFill(2)));  // angular
  EXPECT_FALSE(PXMetaGradientFromJSON(gradientFill(-1)));
  EXPECT_FALSE(PXMetaGradientFromJSON(JsonValue("gradient")));

  EXPECT_EQ(PXMetaPointFromString("{-1e-3,2.5}").x, -0.001);
  EXPECT_EQ(PXMetaPointFromString("{-1e-3,2.5}").y, 2.5);
  EXPECT_EQ(PXMetaPointFromString("{nothing}").x, 0.0);
  EXPECT_EQ(PXMetaPointFromString("{1e999, 3}").x, 0.0);
}

TEST(PXMetaStyleBorders, TellsDotsFromDashes) {
  auto style = [](std::string_view pattern, double thickness) {
    JsonValue options = parse(std::string(R"({"dashPattern": )") + std::string(pattern) + "}");
    JsonValue t = thickness;
    return PXMetaBorderLineStyle(&options, &t);
  };
  EXPECT_EQ(style("[4, 4]", 4), "dotted");
  EXPECT_EQ(style("[4, 4]", 1), "dashed");
  EXPECT_EQ(style("[1, 2, 3]", 1), "dashed");
  EXPECT_EQ(style("[]", 1), "solid");
  EXPECT_EQ(style("[4]", 4), "dotted");  // a lone value is dash and gap
  // 66/100 is 0.66 in float, just above the double 0.66: inclusive.
  EXPECT_EQ(style("[66, 100]", 66), "dotted");
  EXPECT_EQ(style("[65, 100]", 65), "dashed");
  EXPECT_EQ(style("[0, 0]", 0), "dashed");  // 0/0 compares false
  JsonValue t = 4;
  EXPECT_EQ(PXMetaBorderLineStyle(nullptr, &t), "solid");
}

TEST(PXMetaStyleBorders, KeepsEnabledColourBordersInOrder) {
  JsonValue borders = parse(R"([
    {"isEnabled": true, "fillType": 0, "position": 1, "thickness": 1.5, "color": {"red": 1, "green": 0, "blue": 0, "alpha": 1}},
    {"isEnabled": false, "fillType": 0, "position": 0, "thickness": 2, "color": {"alpha": 1}},
    {"isEnabled": true, "fillType": 1, "position": 0, "thickness": 3, "color": {"alpha": 1}},
    {"isEnabled": 1, "fillType": 0, "position": 3, "thickness": 4},
    {"isEnabled": true, "fillType": 0, "position": 2, "thickness": 5, "color": {"alpha": 1}}])");
  JsonValue options = parse(R"({"dashPattern": [5, 5]})");
  EXPECT_EQ(written(PXMetaBorderArrayFromJSONArray(&borders, &options)), written(parse(R"([
    {"type": "dashed", "placement": "inside", "thickness": 1.5, "color": [255, 0, 0, 1]},
    {"type": "dotted", "placement": "", "thickness": 4},
    {"type": "dotted", "placement": "outside", "thickness": 5, "color": [0, 0, 0, 1]}])")));
  JsonValue notArray = JsonObject{};
  EXPECT_TRUE(PXMetaBorderArrayFromJSONArray(&notArray, nullptr).empty());
}

TEST(PXMetaStyleShadows, ListsEveryShadowTopMostFirst) {
  JsonValue shadows = parse(R"([
    {"isEnabled": true, "offsetX": 1, "offsetY": 2, "blurRadius": 3, "spread": 4, "color": {"red": 0, "green": 0, "blue": 0, "alpha": 0.5}},
    {"isEnabled": false, "offsetX": -1, "offsetY": 1e400, "blurRadius": 0, "spread": 0, "color": {"red": 1}}])");
  EXPECT_EQ(written(PXMetaShadowArrayFromJSONArray(&shadows)), written(parse(R"([
    {"x": -1, "y": 0, "blur": 0, "spread": 0},
    {"x": 1, "y": 2, "blur": 3, "spread": 4, "color": [0, 0, 0, 0.5]}])")));
  EXPECT_TRUE(PXMetaShadowArrayFromJSONArray(nullptr).empty());
}

std::string archivedPlainString(const char* text) {
  plist_t root = plist_new_dict();
  plist_dict_set_item(root, "$archiver", plist_new_string("NSKeyedArchiver"));
  plist_dict_set_item(root, "$version", plist_new_uint(100000));
  plist_t top = plist_new_dict();
  plist_dict_set_item(top, "root", plist_new_uid(1));
  plist_dict_set_item(root, "$top", top);
  plist_t objects = plist_new_array();
  plist_array_append_item(objects, plist_new_string("$null"));
  plist_array_append_item(objects, plist_new_string(text));
  plist_dict_set_item(root, "$objects", objects);
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  std::string archive(bytes, length);
  free(bytes);
  plist_free(root);
  return PXBase64Encode(archive);
}

TEST(PXMetaStyleStrings, NamesWhatIsNotAString) {
  JsonValue plain = "Header";
  JsonValue number = 42;
  JsonValue empty = "";
  JsonValue nul(std::string_view("cut\0here", 8));
  JsonValue archived = JsonObject{{"_archive", archivedPlainString("Archived name")}};
  JsonValue broken = JsonObject{{"_archive", "not an archive"}};
  EXPECT_EQ(PXMetaStringFromJSONValue(&plain), "Header");
  EXPECT_EQ(PXMetaStringFromJSONValue(&number), "Unsupported Value Class Type __NSCFNumber");
  EXPECT_EQ(PXMetaStringFromJSONValue(nullptr), "Unsupported Value Class Type (null)");
  EXPECT_EQ(PXMetaStringFromJSONValue(&empty), "Unsupported Text Value");
  EXPECT_EQ(PXMetaStringFromJSONValue(&nul), "cut");
  EXPECT_EQ(PXMetaStringFromJSONValue(&archived), "Archived name");
  EXPECT_EQ(PXMetaStringFromJSONValue(&broken), "Unsupported Value Class Type (null)");

  EXPECT_FALSE(PXMetaSafeString(std::string("\0abc", 4)));
  EXPECT_FALSE(PXMetaSafeString("\xC3("));       // broken sequence
  EXPECT_FALSE(PXMetaSafeString("\xED\xA0\x80"));  // a lone surrogate
  EXPECT_EQ(PXMetaSafeString("Grüße ✓"), "Grüße ✓");
}

TEST(PXMetaStyleRecords, FillsKeysByValueOrFallback) {
  JsonObject record;
  JsonValue value = 3, null = nullptr, fallback = "fallback", infinite = parse("[1e400]");
  PXMetaAddToDictionary(record, "value", &value, &fallback);
  PXMetaAddToDictionary(record, "nullWithFallback", &null, &fallback);
  PXMetaAddToDictionary(record, "nullAlone", &null);
  PXMetaAddToDictionary(record, "absentWithFallback", nullptr, &fallback);
  PXMetaAddToDictionary(record, "absentAlone", nullptr);
  PXMetaAddToDictionary(record, "optional", std::optional<JsonValue>(), std::optional<JsonValue>(1));
  PXMetaAddToDictionary(record, "optionalAbsent", std::optional<JsonValue>());
  PXMetaAddToDictionary(record, "infinite", &infinite);
  EXPECT_EQ(JsonValue(record), parse(R"({"value": 3, "nullWithFallback": "fallback", "nullAlone": null,
      "absentWithFallback": "fallback", "optional": 1, "infinite": [0]})"));

  JsonValue numbers = parse("[1, 2, 3, 4]");
  auto evens = PXMetaApplyToArray(&numbers, [](const JsonValue& v) -> std::optional<JsonValue> {
    if (v.as_int64() % 2) return std::nullopt;
    return v.as_int64() * 10;
  });
  EXPECT_EQ(evens, (JsonArray{20, 40}));
  EXPECT_TRUE(PXMetaApplyToArray(&value, [](const JsonValue& v) { return std::optional<JsonValue>(v); }).empty());
}

}  // namespace
}  // namespace plexa
