// Style conversion: colours, fills, gradients, borders, shadows, strings,
// rounding and record filling, with values worked out by hand.

#include "ArchiveBuilder.h"
#include "KeyedArchive.h"
#include "PXMetaStyle.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <limits>

namespace plexa {
namespace {

using test::compactJson;
using test::parseJson;

JsonObject flatFill(double r, double g, double b, bool enabled = true) {
  JsonObject color{{"red", r}, {"green", g}, {"blue", b}, {"alpha", 1}};
  return JsonObject{{"fillType", 0}, {"isEnabled", enabled}, {"color", std::move(color)}};
}

JsonObject gradientFill(int type) {
  return JsonObject{{"fillType", 1}, {"isEnabled", true}, {"gradient", parseJson(R"({"gradientType": )" +
      std::to_string(type) + R"(, "from": "{0.5, 0}", "to": "{0.5, 1}", "stops": [
      {"position": 0, "color": {"red": 1, "green": 1, "blue": 1, "alpha": 1}}, {"position": 0.25, "color": {"red": 0}},
      {"position": 1, "color": {"red": 0, "green": 0, "blue": 0, "alpha": 0.5}}]})")}};
}

TEST(PXMetaStyleRounding, FollowsSinglePrecisionArithmetic) {
  struct { double value; int digits; double expected; } cases[] = {
      {1.005, 2, 1.01},  // 1.005f * 100 is 100.5 in float (100.49999999999999 in double)
      {2.675, 2, 2.68}, {375, 2, 375}, {3.14159, 0, 3}, {3.14159, 3, 3.142},
      {0.125, 2, 0.13}, {-0.125, 2, -0.13},  // half away from zero, not to even
      {1e39, 2, 0}, {std::numeric_limits<double>::quiet_NaN(), 2, 0},  // past the float range, not a number
  };
  for (const auto& c : cases) {
    EXPECT_EQ(PXMetaNumberRound(c.value, c.digits), c.expected) << c.value << " to " << c.digits;
    if (c.digits == 2) EXPECT_EQ(PXMetaRound2(c.value), c.expected) << c.value;
  }
  EXPECT_EQ(PXMetaRoundDouble2(1.005), 1.0);
}

TEST(PXMetaStyleRounding, NeverYieldsNonFiniteNumbers) {
  EXPECT_EQ(PXMetaRoundDouble2(std::numeric_limits<double>::infinity()), 0.0);
  EXPECT_EQ(PXMetaColorComponent(std::numeric_limits<double>::infinity()), 0.0);
  EXPECT_EQ(PXMetaFloatNumber(11.33f), 11.33);
  EXPECT_EQ(PXMetaFloatNumber(std::numeric_limits<float>::infinity()), 0.0);
  JsonValue finite = PXMetaFiniteValue(parseJson(R"({"a": [1e400, 2], "b": {"c": -1e999}})"));
  EXPECT_EQ(compactJson(finite), R"({"a":[0,2],"b":{"c":0}})");
}

TEST(PXMetaStyleColor, ScalesComponentsAndRefusesWhatIsNoColour) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"red": 1, "green": 0.5, "blue": 0, "alpha": 0.4})", "[255,128,0,0.4]"},
      {R"({"red": 0.498039, "green": "0.2", "blue": 0.0019, "alpha": 1})", "[127,51,0,1]"},
      // Missing components read as 0; huge ones do not turn into infinity.
      {R"({"alpha": 1, "red": 1e400})", "[0,0,0,1]"},
      {R"({"red": 1, "green": 0, "blue": 0})", "no colour"},
      {R"({"red": 1, "alpha": "opaque"})", "no colour"},
      {R"({"red": 1, "alpha": null})", "no colour"},
      {"[1, 0, 0, 1]", "no colour"},
  };
  for (auto [text, expected] : cases) {
    JsonValue color = parseJson(text);
    auto converted = PXMetaColorFromJSON(&color);
    EXPECT_EQ(converted ? compactJson(*converted) : "no colour", expected) << text;
  }
  EXPECT_FALSE(PXMetaColorFromJSON(nullptr));
}

TEST(PXMetaStyleFills, SplitsColoursFromGradientsTopMostFirst) {
  JsonValue fills = JsonArray{flatFill(1, 0, 0), flatFill(0, 0, 1, false), gradientFill(0), flatFill(0, 1, 0)};
  EXPECT_EQ(compactJson(PXMetaColorFillFromJSON(&fills, "fill")), "[[0,255,0,1],[255,0,0,1]]");
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
  EXPECT_EQ(compactJson(*radial), R"({"type":"radial","from":{"x":0.5,"y":0},"to":{"x":0.5,"y":1},)"
                                  R"("stops":[{"color":[255,255,255,1],"location":0},{"location":0.25},)"
                                  R"({"color":[0,0,0,0.5],"location":1}]})");
  EXPECT_FALSE(PXMetaGradientFromJSON(gradientFill(2)));  // angular
  EXPECT_FALSE(PXMetaGradientFromJSON(gradientFill(-1)));
  EXPECT_FALSE(PXMetaGradientFromJSON(JsonValue("gradient")));

  const std::tuple<const char*, double, double> points[] = {{"{-1e-3,2.5}", -0.001, 2.5}, {"{nothing}", 0, 0},
                                                            {"{1e999, 3}", 0, 3}};
  for (auto [text, x, y] : points) {
    EXPECT_EQ(PXMetaPointFromString(text).x, x) << text;
    EXPECT_EQ(PXMetaPointFromString(text).y, y) << text;
  }
}

TEST(PXMetaStyleBorders, TellsDotsFromDashes) {
  struct { const char* pattern; double thickness; const char* expected; } cases[] = {
      {"[4, 4]", 4, "dotted"}, {"[4, 4]", 1, "dashed"}, {"[1, 2, 3]", 1, "dashed"}, {"[]", 1, "solid"},
      {"[4]", 4, "dotted"},  // a lone value is dash and gap
      // 66/100 is 0.66 in float, just above the double 0.66: inclusive.
      {"[66, 100]", 66, "dotted"}, {"[65, 100]", 65, "dashed"},
      {"[0, 0]", 0, "dashed"},  // 0/0 compares false
  };
  for (const auto& c : cases) {
    JsonValue options = parseJson(std::string(R"({"dashPattern": )") + c.pattern + "}"), thickness = c.thickness;
    EXPECT_EQ(PXMetaBorderLineStyle(&options, &thickness), c.expected) << c.pattern << " at " << c.thickness;
  }
  JsonValue thickness = 4;
  EXPECT_EQ(PXMetaBorderLineStyle(nullptr, &thickness), "solid");
}

TEST(PXMetaStyleBorders, KeepsEnabledColourBordersInOrder) {
  JsonValue borders = parseJson(R"([
    {"isEnabled": true, "fillType": 0, "position": 1, "thickness": 1.5, "color": {"red": 1, "green": 0, "blue": 0, "alpha": 1}},
    {"isEnabled": false, "fillType": 0, "position": 0, "thickness": 2, "color": {"alpha": 1}},
    {"isEnabled": true, "fillType": 1, "position": 0, "thickness": 3, "color": {"alpha": 1}},
    {"isEnabled": 1, "fillType": 0, "position": 3, "thickness": 4},
    {"isEnabled": true, "fillType": 0, "position": 2, "thickness": 5, "color": {"alpha": 1}}])");
  JsonValue options = parseJson(R"({"dashPattern": [5, 5]})");
  EXPECT_EQ(compactJson(PXMetaBorderArrayFromJSONArray(&borders, &options)),
            R"([{"type":"dashed","placement":"inside","thickness":1.5,"color":[255,0,0,1]},)"
            R"({"type":"dotted","placement":"","thickness":4},)"
            R"({"type":"dotted","placement":"outside","thickness":5,"color":[0,0,0,1]}])");
  JsonValue notArray = JsonObject{};
  EXPECT_TRUE(PXMetaBorderArrayFromJSONArray(&notArray, nullptr).empty());
}

TEST(PXMetaStyleShadows, ListsEveryShadowTopMostFirst) {
  JsonValue shadows = parseJson(R"([
    {"isEnabled": true, "offsetX": 1, "offsetY": 2, "blurRadius": 3, "spread": 4, "color": {"alpha": 0.5}},
    {"isEnabled": false, "offsetX": -1, "offsetY": 1e400, "blurRadius": 0, "spread": 0, "color": {"red": 1}}])");
  EXPECT_EQ(compactJson(PXMetaShadowArrayFromJSONArray(&shadows)),
            R"([{"x":-1,"y":0,"blur":0,"spread":0},{"x":1,"y":2,"blur":3,"spread":4,"color":[0,0,0,0.5]}])");
  EXPECT_TRUE(PXMetaShadowArrayFromJSONArray(nullptr).empty());
}

// A keyed archive whose root object is a plain string.
std::string archivedPlainString(const char* text) {
  test::ArchiveBuilder archive;
  return archive.base64(archive.add(plist_new_string(text)));
}

TEST(PXMetaStyleStrings, NamesWhatIsNotAString) {
  const std::pair<JsonValue, const char*> cases[] = {
      {"Header", "Header"},
      {42, "Unsupported Value Class Type __NSCFNumber"},
      {"", "Unsupported Text Value"},
      {JsonValue(std::string_view("cut\0here", 8)), "cut"},
      {JsonObject{{"_archive", archivedPlainString("Archived name")}}, "Archived name"},
      {JsonObject{{"_archive", "not an archive"}}, "Unsupported Value Class Type (null)"},
  };
  for (const auto& [value, expected] : cases)
    EXPECT_EQ(PXMetaStringFromJSONValue(&value), expected) << compactJson(value);
  EXPECT_EQ(PXMetaStringFromJSONValue(nullptr), "Unsupported Value Class Type (null)");

  EXPECT_FALSE(PXMetaSafeString(std::string("\0abc", 4)));
  EXPECT_FALSE(PXMetaSafeString("\xC3("));       // broken sequence
  EXPECT_FALSE(PXMetaSafeString("\xED\xA0\x80"));  // a lone surrogate
  EXPECT_EQ(PXMetaSafeString("Grüße ✓"), "Grüße ✓");
}

TEST(PXMetaStyleRecords, FillsKeysByValueOrFallback) {
  JsonObject record;
  JsonValue value = 3, null = nullptr, fallback = "fallback", infinite = parseJson("[1e400]");
  PXMetaAddToDictionary(record, "value", &value, &fallback);
  PXMetaAddToDictionary(record, "nullWithFallback", &null, &fallback);
  PXMetaAddToDictionary(record, "nullAlone", &null);
  PXMetaAddToDictionary(record, "absentWithFallback", nullptr, &fallback);
  PXMetaAddToDictionary(record, "absentAlone", nullptr);
  PXMetaAddToDictionary(record, "optional", std::optional<JsonValue>(), std::optional<JsonValue>(1));
  PXMetaAddToDictionary(record, "optionalAbsent", std::optional<JsonValue>());
  PXMetaAddToDictionary(record, "infinite", &infinite);
  EXPECT_EQ(compactJson(record), R"({"value":3,"nullWithFallback":"fallback","nullAlone":null,)"
                                 R"("absentWithFallback":"fallback","optional":1,"infinite":[0]})");

  JsonValue numbers = parseJson("[1, 2, 3, 4]");
  auto evens = PXMetaApplyToArray(&numbers, [](const JsonValue& v) -> std::optional<JsonValue> {
    if (v.as_int64() % 2) return std::nullopt;
    return v.as_int64() * 10;
  });
  EXPECT_EQ(compactJson(evens), "[20,40]");
  EXPECT_TRUE(PXMetaApplyToArray(&value, [](const JsonValue& v) { return std::optional<JsonValue>(v); }).empty());
}

}  // namespace
}  // namespace plexa
