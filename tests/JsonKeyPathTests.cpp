// The key-path evaluator reads its input in place; these tests hold it to
// the plain definition (every step builds the whole intermediate value),
// written out here as the reference.

#include "Json.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace plexa;

namespace {

std::optional<JsonValue> referenceForKey(const JsonValue& v, std::string_view key) {
  if (const auto* o = v.if_object()) {
    auto it = o->find(key);
    if (it == o->end()) return std::nullopt;
    return it->value();
  }
  if (const auto* a = v.if_array()) {
    JsonArray mapped;
    for (const auto& e : *a)
      if (auto r = referenceForKey(e, key)) mapped.push_back(std::move(*r));
    return JsonValue(std::move(mapped));
  }
  return std::nullopt;
}

std::optional<JsonValue> referenceKeyPath(const JsonValue& root, std::string_view path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t dot = std::min(path.find('.', start), path.size());
    parts.emplace_back(path.substr(start, dot - start));
    start = dot + 1;
  }
  std::optional<JsonValue> current = root;
  for (size_t i = 0; i < parts.size(); ++i) {
    const auto* a = current->if_array();
    if (parts[i] == "@count") {
      if (!a) return std::nullopt;
      current = JsonValue(static_cast<int64_t>(a->size()));
    } else if (parts[i] == "@firstObject") {
      if (!a || a->empty()) return std::nullopt;
      current = JsonValue((*a)[0]);
    } else if (parts[i] == "@max") {
      if (i + 1 >= parts.size()) return std::nullopt;
      auto mapped = referenceForKey(*current, parts[++i]);
      if (!mapped || !mapped->is_array()) return std::nullopt;
      std::optional<double> best;
      std::optional<JsonValue> bestValue;
      for (const auto& e : mapped->get_array())
        if (auto d = PXJsonDouble(&e); d && (!best || *d > *best)) best = d, bestValue = e;
      if (!bestValue) return std::nullopt;
      current = std::move(bestValue);
    } else {
      current = referenceForKey(*current, parts[i]);
      if (!current) return std::nullopt;
    }
  }
  return current;
}

// Layers with and without paths, nested arrays, numbers as strings, keys
// that look like operators.
const char* kDocument = R"({
  "layers": [
    {"_class": "rectangle", "name": "no path"},
    {"_class": "shapePath", "path": {"points": [{"point": "{0, 0}", "cornerRadius": 4}, {"point": "{1, 1}"}]}},
    {"_class": "oval", "points": [{"point": "{0.5, 0}", "cornerRadius": "7"}, {"cornerRadius": 2}]},
    {"_class": "shapePath", "path": {"points": []}},
    {"path": null, "style": {"x": 3}},
    [{"path": {"points": [{"point": "nested"}]}}, {"style": {"x": "9"}}],
    {"style": {"x": 9}, "@count": 5}
  ],
  "grid": [[1, 2], [3], []],
  "style": {"borders": [{"thickness": 2}, {"thickness": "7.5"}, {"thickness": 7.5}], "fills": [1, 2, 3]},
  "": {"": "empty keys"},
  "plain": "text"
})";

const char* kKeyPaths[] = {
    "layers._class",
    "layers._class.@firstObject",
    "layers.path.points.point.@firstObject",
    "points.point.@firstObject",
    "layers.path.points.cornerRadius.@firstObject",
    "layers.points.cornerRadius.@firstObject",
    "layers.path.points.@firstObject.point",
    "layers.path.@firstObject",
    "layers.path",
    "layers.path.points.@count",
    "layers.@count",
    "layers.@firstObject.@firstObject",
    "layers.style.@max.x",
    "layers.@max.@count",
    "layers.@count.@max.x",
    "style.borders.@max.thickness",
    "style.borders.thickness.@max",
    "style.fills.@count",
    "style.fills.@max.x",
    "style.@max.borders",
    "grid.@firstObject.@firstObject",
    "grid.@count",
    "grid.@max",
    "layers.@firstObject",
    "missing.key.@firstObject",
    "layers.missing.@firstObject",
    "plain.key",
    "plain",
    ".",
    "",
    "@firstObject",
    "@count",
};

class JsonKeyPathAgreement : public testing::TestWithParam<const char*> {};

TEST_P(JsonKeyPathAgreement, SameAsBuildingEveryStep) {
  const JsonValue document = *PXJsonParse(kDocument);
  const auto expected = referenceKeyPath(document, GetParam());
  const auto actual = PXValueForKeyPath(document, GetParam());
  ASSERT_EQ(actual.has_value(), expected.has_value());
  if (expected) EXPECT_EQ(*actual, *expected) << PXJsonSerialize(*actual, false).value_or("?");
}

INSTANTIATE_TEST_SUITE_P(KeyPaths, JsonKeyPathAgreement, testing::ValuesIn(kKeyPaths));

TEST(JsonKeyPaths, ResultsLiveInTheDefaultStorageNotTheInputArena) {
  const JsonValue document = *PXJsonParseIntoArena(kDocument);
  for (const char* path : {"layers.path.points.point.@firstObject", "style", "layers.style.@max.x", "plain"}) {
    auto value = PXValueForKeyPath(document, path);
    ASSERT_TRUE(value) << path;
    EXPECT_EQ(value->storage().get(), boost::json::storage_ptr().get()) << path;
  }
}

TEST(JsonKeyPaths, TheFirstMatchOnlyIsReturned) {
  const JsonValue document = *PXJsonParse(kDocument);
  EXPECT_EQ(*PXValueForKeyPath(document, "layers.path.points.point.@firstObject"), (JsonArray{"{0, 0}", "{1, 1}"}));
  EXPECT_EQ(*PXValueForKeyPath(document, "layers.style.@max.x"), JsonValue(9));
  // A nested array always maps to an array, so it is the first result here.
  EXPECT_EQ(*PXValueForKeyPath(document, "layers.missing.@firstObject"), JsonValue(JsonArray()));
  EXPECT_FALSE(PXValueForKeyPath(document, "style.missing.@firstObject"));
}

}  // namespace
