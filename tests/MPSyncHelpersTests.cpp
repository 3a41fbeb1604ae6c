#include "NSArray+MPSync.h"
#include "NSDictionary+MPSync.h"
#include "NSString+MPSync.h"
#include "PXFileWriter.h"

#include "Files.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <limits>
#include <stdexcept>

using namespace plexa;
using namespace plexa::test;

namespace {

JsonObject parseObject(std::string_view text) { return parseJson(text).as_object(); }

std::chrono::system_clock::time_point fromUnixSeconds(double seconds) {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::duration<double>(seconds)));
}

}  // namespace

TEST(MPSyncArrayHelpers, MappingFilteringAndLookups) {
  const JsonArray numbers{1, 2, 3, 4, 5};
  auto evensOnly = mapByIgnoringNils_mps(numbers, [](const JsonValue& v) {
    return v.as_int64() % 2 ? JsonValue(nullptr) : JsonValue(v.as_int64() * 10);
  });
  EXPECT_EQ(evensOnly, (JsonArray{20, 40}));
  // Only the null marker is dropped; false and 0 stay.
  EXPECT_EQ(mapByIgnoringNils_mps(JsonArray{0, 1}, [](const JsonValue& v) { return JsonValue(v.as_int64() == 1); }),
            (JsonArray{false, true}));
  EXPECT_EQ(map_mps(numbers, [](const JsonValue&) { return JsonValue(nullptr); }).size(), numbers.size());

  int calls = 0;
  auto found = findOne_mps(numbers, [&](const JsonValue& v) {
    ++calls;
    return v.as_int64() > 2;
  });
  ASSERT_TRUE(found);
  EXPECT_EQ(*found, JsonValue(3));
  EXPECT_EQ(calls, 5);  // the whole array is filtered, no early stop
  EXPECT_FALSE(findOne_mps(numbers, [](const JsonValue&) { return false; }));

  std::vector<size_t> indices;
  enumerateWithIndex_mps(numbers, [&](const JsonValue&, size_t i) { indices.push_back(i); });
  EXPECT_EQ(indices, (std::vector<size_t>{0, 1, 2, 3, 4}));

  const JsonArray mixed{1, true, "1", nullptr, JsonArray{}, JsonObject{}, 2.5};
  EXPECT_EQ(filteredByObjectsOfClass_mps(mixed, PXValueKind::number), (JsonArray{1, true, 2.5}));
  EXPECT_EQ(filteredByObjectsOfClass_mps(mixed, PXValueKind::string), (JsonArray{"1"}));
  EXPECT_EQ(filteredByObjectsOfClass_mps(mixed, PXValueKind::any).size(), mixed.size());

  EXPECT_TRUE(isValidIndex_mps(mixed, 6));
  EXPECT_FALSE(isValidIndex_mps(mixed, 7));
  EXPECT_FALSE(isValidIndex_mps(mixed, std::numeric_limits<uint64_t>::max()));
  EXPECT_EQ(objectAtIndexOrNil_mps(mixed, 3), nullptr);  // the null marker reads as absent
  EXPECT_EQ(objectAtIndexOrNil_mps(mixed, 99), nullptr);
  ASSERT_NE(objectAtIndexOrNil_mps(mixed, 2), nullptr);
  EXPECT_EQ(*objectAtIndexOrNil_mps(mixed, 2), JsonValue("1"));
}

TEST(MPSyncArrayHelpers, JsonTextBothWays) {
  EXPECT_EQ(*toJsonString_mps(JsonArray{1, "a/b"}), "[\n  1,\n  \"a/b\"\n]");
  {
    LogCapture log;
    EXPECT_FALSE(toJsonString_mps(JsonArray{std::nan("")}));
    EXPECT_TRUE(log.contains("json error: "));
  }
  // Whatever kind the text holds comes back, not only arrays.
  auto object = fromJsonString_mps(R"({"a":[1,2]})");
  ASSERT_TRUE(object);
  EXPECT_TRUE(object->is_object());
  EXPECT_FALSE(fromJsonString_mps("[1,"));
  EXPECT_FALSE(fromJsonString_mps(""));
  EXPECT_FALSE(fromJsonString_mps("[\"\xff\"]"));  // not UTF-8
}

TEST(MPSyncDictionaryHelpers, TypedGettersAndTruth) {
  const JsonObject d = parseObject(R"({"s":"x","n":0,"f":2.5,"t":true,"str":"true","a":[1],"o":{"k":1},"null":null})");
  EXPECT_NE(stringForKey_mps(d, "s"), nullptr);
  EXPECT_EQ(stringForKey_mps(d, "n"), nullptr);
  EXPECT_EQ(stringForKey_mps(d, "missing"), nullptr);
  EXPECT_NE(arrayForKey_mps(d, "a"), nullptr);
  EXPECT_EQ(arrayForKey_mps(d, "o"), nullptr);
  EXPECT_NE(dictionaryForKey_mps(d, "o"), nullptr);
  EXPECT_EQ(dictionaryForKey_mps(d, "null"), nullptr);
  EXPECT_NE(numberForKey_mps(d, "t"), nullptr);  // booleans count as numbers
  EXPECT_EQ(numberForKey_mps(d, "str"), nullptr);
  EXPECT_EQ(numberForKey_mps(d, "null"), nullptr);

  EXPECT_TRUE(boolForKey_mps(d, "t"));
  EXPECT_TRUE(boolForKey_mps(d, "f"));
  EXPECT_FALSE(boolForKey_mps(d, "n"));
  EXPECT_FALSE(boolForKey_mps(d, "str"));  // a string "true" is not a number
  EXPECT_FALSE(boolForKey_mps(d, "missing"));
  EXPECT_FALSE(boolForKey_mps(d, "null"));
}

TEST(MPSyncDictionaryHelpers, CopiesMergesAndKeyPaths) {
  const JsonObject base = parseObject(R"({"a":1,"b":2})");
  EXPECT_EQ(dictionaryByAddingDictionary_mps(base, parseObject(R"({"b":3})")), parseObject(R"({"a":1,"b":3})"));
  EXPECT_EQ(dictionaryByAddingDictionary_mps(base, JsonObject{}), base);
  EXPECT_EQ(omit_mps(base, {"b", "zzz"}), parseObject(R"({"a":1})"));
  EXPECT_EQ(base.size(), 2u);  // receivers are never changed

  const JsonObject nested = parseObject(R"({"x":{"y":{}},"z":{}})");
  JsonObject copy = mutableCopyDeep_mps(nested);
  EXPECT_EQ(copy, nested);
  copy["x"].as_object()["y"].as_object()["new"] = 1;
  EXPECT_TRUE(nested.at("x").as_object().at("y").as_object().empty());
  EXPECT_THROW(mutableCopyDeep_mps(parseObject(R"({"x":{"y":1}})")), std::logic_error);

  const JsonObject doc = parseObject(R"({"a":{"b":{"c":null,"d":7}},"list":[{"b":1}],"e":"first"})");
  auto pick = [&](std::vector<std::string> paths) { return valueForKeyPaths_mps(doc, paths); };
  ASSERT_NE(pick({"a.b.c", "a.b.missing", "a.b.d"}), nullptr);
  EXPECT_EQ(*pick({"a.b.c", "a.b.missing", "a.b.d"}), JsonValue(7));  // null and absent are skipped
  EXPECT_EQ(*pick({"e", "a.b.d"}), JsonValue("first"));
  EXPECT_EQ(pick({"e.x", "list.b", "a.b.c.d", ""}), nullptr);  // only dictionaries are walked
  EXPECT_EQ(pick({}), nullptr);

  EXPECT_EQ(*toJsonString_mps(base), "{\n  \"a\" : 1,\n  \"b\" : 2\n}");
}

TEST(MPSyncStringHelpers, TrimmingEmptinessAndFileNames) {
  EXPECT_EQ(trimWhiteSpace_mps(" \t\r\n a b \n\v\f"), "a b");
  EXPECT_EQ(trimWhiteSpace_mps("\u00a0\u2003name\u2028\u3000"), "name");
  EXPECT_EQ(trimWhiteSpace_mps("\u00e9\u00a0"), "\u00e9");  // the no-break space goes, the letter stays
  EXPECT_EQ(trimWhiteSpace_mps("\u200bx"), "\u200bx");       // zero-width space is not white space
  EXPECT_EQ(trimWhiteSpace_mps("\xc2"), "\xc2");              // a cut-off sequence stays
  EXPECT_EQ(trimWhiteSpace_mps(""), "");

  EXPECT_TRUE(stringIsEmpty_mps(std::optional<std::string_view>{}));
  EXPECT_TRUE(stringIsEmpty_mps(static_cast<const std::string*>(nullptr)));
  EXPECT_TRUE(stringIsEmpty_mps(std::optional<std::string_view>{" \n\t "}));
  EXPECT_TRUE(stringIsEmpty_mps(std::optional<std::string_view>{"\u00a0"}));
  EXPECT_FALSE(stringIsEmpty_mps(std::optional<std::string_view>{" . "}));

  EXPECT_EQ(cleanFileName_mps("  a/b/c \n"), "a_b_c");
  EXPECT_EQ(cleanFileName_mps("a:b\\c*d?e"), "a:b\\c*d?e");
  EXPECT_EQ(cleanFileName_mps("/../x"), "_.._x");
}

TEST(MPSyncStringHelpers, Digests) {
  EXPECT_EQ(md5_mps(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5_mps("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(md5_mps("\u00e9"), "66ddcd97cfdeabb2f6fb8a999b4bc76f");
  EXPECT_EQ(md5_mps(std::string_view("abc\0def", 7)), md5_mps("abc"));
  EXPECT_EQ(md5_mps("Sketch.sketch" "ABC-123"), "8b9e832137f0d65917757111b2a98b2d");
}

TEST(MPSyncStringHelpers, VersionsCompareComponentWise) {
  const struct { const char *a, *b; int order; } versions[] = {
      {"1.2", "1.2", 0},  {"1.2", "1.10", -1}, {"1.10", "1.9", 1},  {"1.2.0", "1.2", 1},   {"2", "2.0", -1},
      {"", "1", -1},      {"1.x", "1.0", 0},   {"3b.1", "3.1", 0},  {" 4.-1", "4.0", -1}, {"52.9", "53", -1},
      {"99999999999999999999", "99999999999999999998", 0},  // both saturate
      {"-99999999999999999999", "1", -1},
  };
  for (const auto& v : versions) {
    SCOPED_TRACE(std::string(v.a) + " against " + v.b);
    EXPECT_EQ(compareAsVersion_mps(v.a, v.b), v.order);
    EXPECT_EQ(compareAsVersion_mps(v.b, v.a), -v.order);
    EXPECT_EQ(isLessThanVersion_mps(v.a, v.b), v.order < 0);
  }

  const std::pair<const char*, std::optional<int64_t>> majors[] = {
      {"52.1", 52},          {" 7", 7},           {"0.5", std::nullopt}, {"-3.1", std::nullopt},
      {"", std::nullopt},    {".5", std::nullopt}, {"beta", std::nullopt},
      {"123456789012345678901", std::numeric_limits<int64_t>::max()},
  };
  for (const auto& [text, major] : majors) EXPECT_EQ(majorVersion_mps(text), major) << text;
}

TEST(MPSyncDateHelpers, IsoFormatInFixedZones) {
  const double moment = 1488640811;  // 2017-03-04 15:20:11 UTC
  const struct { const char* zone; double seconds; const char* iso; } cases[] = {
      {"UTC0", moment, "2017-03-04T15:20:11Z"},
      {"UTC0", -0.5, "1969-12-31T23:59:59Z"},  // a fraction counts downwards
      {"UTC0", -2208988800.0, "1900-01-01T00:00:00Z"},
      {"CET-1", moment, "2017-03-04T16:20:11+01:00"},
      {"NST+3:30", moment, "2017-03-04T11:50:11-03:30"},
      {"ODD-0:00:30", moment, "2017-03-04T15:20:41+00:00:30"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.zone);
    ScopedEnv zone("TZ", c.zone);
    ::tzset();  // the C library rereads TZ only here
    EXPECT_EQ(iso_mps(fromUnixSeconds(c.seconds)), c.iso);
  }
  ::tzset();
}

TEST(MPSyncFileWriter, PrettyCompactAndFailures) {
  TempDir dir;
  const JsonObject value{{"name", "a/b"}, {"size", 375.0}, {"list", JsonArray{1, 2}}};
  const std::string path = dir / "out.json";
  const std::vector<std::string> onlyOut{"out.json"};

  ASSERT_TRUE(PXFileWriter::writeJSON(value, true, path));
  EXPECT_EQ(readText(path), "{\n  \"name\" : \"a/b\",\n  \"size\" : 375,\n  \"list\" : [\n    1,\n    2\n  ]\n}");
  // Writing again replaces the file in one step and leaves nothing beside it.
  ASSERT_TRUE(PXFileWriter::writeJSON(value, false, path));
  EXPECT_EQ(readText(path), R"({"name":"a/b","size":375,"list":[1,2]})");
  EXPECT_EQ(*PXFileManager::contentsOfDirectory(dir.path()), onlyOut);

  // A value that cannot be serialised writes nothing, not even a temporary.
  EXPECT_FALSE(PXFileWriter::writeJSON(JsonObject{{"x", std::nan("")}}, true, dir / "bad.json"));
  EXPECT_FALSE(PXFileWriter::writeJSON(JsonArray{1, -std::numeric_limits<double>::infinity()}, false, path));
  EXPECT_EQ(readText(path), R"({"name":"a/b","size":375,"list":[1,2]})");
  EXPECT_EQ(*PXFileManager::contentsOfDirectory(dir.path()), onlyOut);

  // A failed write still reports success, by contract, and leaves nothing.
  EXPECT_TRUE(PXFileWriter::writeJSON(value, true, dir / "missing/out.json"));
  EXPECT_EQ(*PXFileManager::contentsOfDirectory(dir.path()), onlyOut);
}
