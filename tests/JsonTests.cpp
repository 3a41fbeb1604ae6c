#include "Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <vector>

using namespace plexa;

TEST(JsonWriter, PrettyFormKeepsInsertionOrderAndFormatsNumbers) {
  JsonObject o{{"z", 375.0}, {"a", 0.1}, {"path", "a/b"}, {"list", JsonArray{1, true, nullptr}}, {"empty", JsonObject()}};
  EXPECT_EQ(*PXJsonSerialize(o, true),
            "{\n  \"z\" : 375,\n  \"a\" : 0.1,\n  \"path\" : \"a/b\",\n  \"list\" : [\n    1,\n    true,\n    null\n  ],\n"
            "  \"empty\" : {}\n}");
  EXPECT_EQ(*PXJsonSerialize(o, false), R"({"z":375,"a":0.1,"path":"a/b","list":[1,true,null],"empty":{}})");
}

TEST(JsonWriter, ShortestRoundTripAndEscapes) {
  EXPECT_EQ(*PXJsonSerialize(JsonValue(1.0 / 3.0), false), "0.3333333333333333");
  EXPECT_EQ(*PXJsonSerialize(JsonValue(-0.0), false), "0");
  EXPECT_EQ(*PXJsonSerialize(JsonValue(12.5f), false), "12.5");
  EXPECT_EQ(*PXJsonSerialize(JsonValue("q\"\\\n\x01é"), false), "\"q\\\"\\\\\\n\\u0001é\"");
}

TEST(JsonWriter, NonFiniteNumbersFail) {
  std::string error;
  EXPECT_FALSE(PXJsonSerialize(JsonArray{std::nan("")}, true, &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(PXJsonSerialize(JsonObject{{"a", std::numeric_limits<double>::infinity()}}, true));
}

namespace {
// Keeps parsed values alive for the whole test so their addresses stay valid.
const JsonValue* parsed(const char* text) {
  static std::vector<std::unique_ptr<JsonValue>> keep;
  keep.push_back(std::make_unique<JsonValue>(*PXJsonParse(text)));
  return keep.back().get();
}
}  // namespace

TEST(JsonLenientReads, NumbersBooleansAndNumericStringsConvert) {
  EXPECT_EQ(PXJsonDouble(parsed("\"12.5\"")), 12.5);
  EXPECT_EQ(PXJsonDouble(parsed("\" 3px\"")), 3.0);
  EXPECT_FALSE(PXJsonDouble(parsed("\"abc\"")));
  EXPECT_FALSE(PXJsonDouble(parsed("{}")));
  EXPECT_EQ(PXJsonDouble(parsed("true")), 1.0);
  EXPECT_EQ(PXJsonInt64(parsed("-3.9")), -3);
  EXPECT_EQ(PXJsonInt64(parsed("1e30")), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(PXJsonBool(parsed("\"YES\"")), true);
  EXPECT_EQ(PXJsonBool(parsed("\"0\"")), false);
  EXPECT_FALSE(PXJsonBool(nullptr));
}

TEST(JsonKeyPaths, MapsOverArraysAndAppliesOperators) {
  auto v = *PXJsonParse(R"({"layers":[{"_class":"a","n":1},{"n":5},{"_class":"c","n":"3"}],
                            "style":{"borders":[{"thickness":2},{"thickness":7.5}],"fills":[1,2,3]}})");
  EXPECT_EQ(*PXValueForKeyPath(v, "layers._class"), (JsonArray{"a", "c"}));
  EXPECT_EQ(*PXValueForKeyPath(v, "layers._class.@firstObject"), JsonValue("a"));
  EXPECT_EQ(*PXValueForKeyPath(v, "style.borders.@max.thickness"), JsonValue(7.5));
  EXPECT_EQ(*PXValueForKeyPath(v, "style.fills.@count"), JsonValue(3));
  EXPECT_FALSE(PXValueForKeyPath(v, "style.missing.key"));
  EXPECT_FALSE(PXValueForKeyPath(v, "style.fills.@max.x"));
}

TEST(JsonParser, AcceptsDeepDocumentsButBoundsHostileNesting) {
  auto nested = [](int depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(PXJsonParse(nested(200)));
  EXPECT_TRUE(PXJsonParseIntoArena(nested(200)));
  std::string error;
  EXPECT_FALSE(PXJsonParse(nested(100000), &error));
  EXPECT_FALSE(error.empty());
}
