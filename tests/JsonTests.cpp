#include "Json.h"
#include "JsonArenaPool.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <thread>
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

namespace {
// Text that exercises every kind of value: long and short strings and keys,
// escapes, big and negative numbers, nesting, and objects past the size at
// which they are indexed.
std::string mixedDocument() {
  JsonObject big;
  for (int i = 0; i < 40; ++i) big["key number " + std::to_string(i)] = i * 1.5;
  JsonObject page{{"_class", "page"},
                  {"name", "A page whose name is longer than a short string \u00e9\n\"quoted\""},
                  {"numbers", JsonArray{0, -7, 18446744073709551615ull, 1e300, -0.25, 3.0}},
                  {"flags", JsonArray{true, false, nullptr}},
                  {"big", big},
                  {"layers", JsonArray{JsonObject{{"do_objectID", "A"}, {"layers", JsonArray{JsonObject{}}}}}}};
  return *PXJsonSerialize(page, false);
}
}  // namespace

TEST(JsonOwnArena, ReadsExactlyAsTheOtherParsers) {
  const std::string text = mixedDocument();
  auto own = PXJsonParseObjectIntoOwnArena(text);
  ASSERT_TRUE(own);
  EXPECT_EQ(JsonValue(*own), *PXJsonParse(text));
  EXPECT_EQ(JsonValue(*own), *PXJsonParseIntoArena(text));
  EXPECT_EQ(PXJsonTextFor(&own->at("layers").as_array()[0], "do_objectID"), "A");
}

TEST(JsonOwnArena, RefusesWhatTheOtherParsersRefuseAndAnythingButAnObject) {
  auto nested = [](int depth) { return "{\"a\":" + std::string(depth, '[') + std::string(depth, ']') + "}"; };
  const struct {
    std::string text;
    bool object;
  } cases[] = {{nested(200), true},      {nested(100000), false}, {"[1,2]", false}, {"\"text\"", false},
               {"{\"a\":1", false},      {"{\"a\":1} x", false},  {"", false},     {"{\"a\":\"\\x\"}", false},
               {"{\"a\":nan}", false},   {"{}", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    std::string error;
    auto own = PXJsonParseObjectIntoOwnArena(c.text, &error);
    EXPECT_EQ(own != nullptr, c.object);
    EXPECT_EQ(error.empty(), c.object);
    auto plain = PXJsonParse(c.text);
    EXPECT_EQ(plain && plain->is_object(), c.object);
  }
}

TEST(JsonOwnArena, KeepsTheTreeWhileAnyPartIsHeldAndCopiesOutlastIt) {
  auto own = PXJsonParseObjectIntoOwnArena(mixedDocument());
  ASSERT_TRUE(own);
  // A part held on its own keeps the whole tree and its arena (a sanitizer
  // build reports the use after free otherwise).
  std::shared_ptr<const JsonObject> big(own, &own->at("big").as_object());
  JsonObject kept(own->at("big").as_object(), boost::json::storage_ptr());
  own.reset();
  EXPECT_EQ(big->size(), 40u);
  EXPECT_EQ(big->at("key number 3").as_double(), 4.5);
  big.reset();
  EXPECT_EQ(kept.at("key number 39").as_double(), 58.5);
}

// Pages the detacher changes: read from their file as the counted parser
// reads them, grown by copies in place, and kept by a value moved out.
TEST(JsonOwnArena, AFileTreeReadsAsTheCountedOneAndGrowsWhereItIs) {
  test::TempDir dir;
  test::writeText(dir / "page.json", mixedDocument());
  test::writeText(dir / "bad.json", "{\"a\":");
  auto owned = PXJsonParseFileIntoOwnArena(dir / "page.json");
  ASSERT_TRUE(owned);
  EXPECT_EQ(owned->root, *PXJsonParseFileIntoArena(dir / "page.json"));
  EXPECT_TRUE(owned->root.storage().is_not_shared_and_deallocate_is_trivial());
  auto& layers = owned->root.as_object()["layers"].as_array();
  for (int i = 0; i < 2000; ++i) layers.push_back(owned->root.as_object().at("big"));
  JsonValue moved(std::move(owned->root));
  EXPECT_EQ(static_cast<void*>(moved.storage().get()), owned->arena.get());  // moved, not copied out
  ASSERT_EQ(moved.at("layers").as_array().size(), 2001u);
  EXPECT_EQ(moved.at("layers").as_array()[2000].at("key number 39").as_double(), 58.5);

  struct Case {
    const char* name;
    bool missing;
  } refused[] = {{"none.json", true}, {"bad.json", false}};
  for (const auto& c : refused) {
    SCOPED_TRACE(c.name);
    std::string error;
    bool missing = !c.missing;
    EXPECT_FALSE(PXJsonParseFileIntoOwnArena(dir / c.name, &error, &missing));
    EXPECT_EQ(missing, c.missing);
    EXPECT_FALSE(error.empty());
  }
}

namespace {
uintptr_t addressOf(const JsonValue& v) { return reinterpret_cast<uintptr_t>(&v); }
uintptr_t distance(uintptr_t a, uintptr_t b) { return a > b ? a - b : b - a; }
}  // namespace

TEST(JsonOwnArena, TreesOfOnePoolPackTogetherAndOutliveIt) {
  const std::string text = mixedDocument();
  auto pool = std::make_shared<PXJsonArenaPool>();
  auto first = PXJsonParseObjectIntoOwnArena(text, nullptr, pool);
  auto second = PXJsonParseObjectIntoOwnArena(text, nullptr, pool);
  auto alone = PXJsonParseObjectIntoOwnArena(text);
  ASSERT_TRUE(first && second && alone);
  // The second starts where the first ended, well inside one huge page.
  EXPECT_LT(distance(addressOf(first->at("big")), addressOf(second->at("big"))), 4 * text.size());
  pool.reset();
  first.reset();
  EXPECT_EQ(JsonValue(*second), *PXJsonParse(text));
  EXPECT_EQ(JsonValue(*alone), *PXJsonParse(text));
}

TEST(JsonOwnArena, CopiesIntoAFinishedTreeAndTreesFromManyThreads) {
  const std::string text = mixedDocument();
  auto pool = std::make_shared<PXJsonArenaPool>();
  std::vector<std::shared_ptr<const JsonObject>> trees(8);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (size_t i = t; i < trees.size(); i += 4) trees[i] = PXJsonParseObjectIntoOwnArena(text, nullptr, pool);
    });
  for (auto& thread : threads) thread.join();
  const JsonValue expected = *PXJsonParse(text);
  for (const auto& tree : trees) {
    ASSERT_TRUE(tree);
    EXPECT_EQ(JsonValue(*tree), expected);
    // A plain copy lands in the tree's arena, which makes room past its end.
    std::vector<JsonValue> copies(50, tree->at("big"));
    EXPECT_EQ(copies.back().storage().get(), tree->storage().get());
    EXPECT_EQ(copies.back(), expected.at("big"));
  }
}
