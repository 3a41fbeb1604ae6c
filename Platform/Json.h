#pragma once
// The JSON model of the library: Boost.JSON values, our own writer, lenient
// number reads and a small key-path evaluator.
//
// Absent is a null `const JsonValue*` or an empty std::optional; the JSON null
// marker is a JsonValue holding null. The two are never the same thing.

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace plexa {

using JsonValue = boost::json::value;
using JsonObject = boost::json::object;
using JsonArray = boost::json::array;
using JsonString = boost::json::string;

// Writes `value` the way the rest of the system expects to read it back:
// pretty form is 2-space indented with `"key" : value`, keys in insertion
// order, "/" unescaped, whole doubles as integers, other doubles in shortest
// round-trip form. NaN or infinity anywhere makes it fail (nullopt, reason in
// `error`).
std::optional<std::string> PXJsonSerialize(const JsonValue& value, bool pretty,
                                           std::string* error = nullptr);
// The same for an object, written where it lies instead of copied into a value.
std::optional<std::string> PXJsonSerialize(const JsonObject& object, bool pretty, std::string* error = nullptr);

// Parses UTF-8 JSON text; nullopt with the parser's message in `error`.
std::optional<JsonValue> PXJsonParse(std::string_view text, std::string* error = nullptr);
// The same, with every node in one arena owned by the result: smaller and
// faster for large documents that are read and then dropped whole.
std::optional<JsonValue> PXJsonParseIntoArena(std::string_view text, std::string* error = nullptr);
// A JSON object parsed into an arena that the result alone owns: quicker to
// build than the above, and dropped at once, since no node keeps count of
// the arena. The catch: a plain copy of a value in the tree lands in that
// arena and goes with the tree; what must outlive it is copied with a
// storage of its own. nullptr (reason in `error`) unless the text is an object.
// Trees that live together may share a `pool` and so pack tighter.
class PXJsonArenaPool;
std::shared_ptr<const JsonObject> PXJsonParseObjectIntoOwnArena(std::string_view text, std::string* error = nullptr,
                                                                std::shared_ptr<PXJsonArenaPool> pool = nullptr);
// A tree in an arena of its own that keeps growing in large blocks while
// the tree is changed. Its nodes do not count the arena, so dropping it is
// instant; `arena` must outlive `root` and every plain copy of a part of it
// (such a copy lands in the same arena). Moving `root` into a value of other
// storage copies it; a value move-constructed from it keeps the arena.
struct PXJsonOwnedTree {
  JsonValue root;
  std::shared_ptr<void> arena;
};
std::optional<PXJsonOwnedTree> PXJsonParseFileIntoOwnArena(const std::string& path, std::string* error = nullptr,
                                                           bool* missing = nullptr);
// Parses a file into an arena in chunks, never holding its whole text.
// nullopt with the reason in `error`; `missing` is set when the file could
// not be opened at all.
std::optional<JsonValue> PXJsonParseFileIntoArena(const std::string& path, std::string* error = nullptr,
                                                  bool* missing = nullptr);

// What writing `value` with PXJsonSerialize and parsing the text again would
// change, done in place: whole doubles become integers, other doubles take
// the value the parser reads back from their shortest form, and NaN and
// infinity (which the writer refuses, and a caller then replaces) become 0.
struct PXJsonRoundTrip {
  bool readable = true;     // false: nested deeper than the parser accepts
  size_t nonFinite = 0;     // NaN and infinities replaced by 0
};
PXJsonRoundTrip PXJsonNormalizeAsWritten(JsonValue& value);

// Typed look-ups: nullptr when `object` is not an object, the key is missing,
// or the value is of another kind.
const JsonValue* PXJsonFind(const JsonValue* object, std::string_view key);
const JsonObject* PXJsonObjectFor(const JsonValue* object, std::string_view key);
const JsonArray* PXJsonArrayFor(const JsonValue* object, std::string_view key);
const JsonString* PXJsonStringFor(const JsonValue* object, std::string_view key);
JsonValue* PXJsonFindMutable(JsonValue* object, std::string_view key);

// Lenient reads in the manner of NSNumber/NSString value accessors: numbers,
// booleans and numeric strings (leading number prefix, as strtod) convert;
// anything else, and non-finite results, are absent.
std::optional<double> PXJsonDouble(const JsonValue* value);
std::optional<float> PXJsonFloat(const JsonValue* value);
// Truncates toward zero and clamps to the type's range.
std::optional<int64_t> PXJsonInt64(const JsonValue* value);
// Numbers: non-zero is true. Strings: "true"/"yes" (any case) or a non-zero
// leading integer, as NSString boolValue.
std::optional<bool> PXJsonBool(const JsonValue* value);
// The string's text, or absent when the value is not a string.
std::optional<std::string_view> PXJsonText(const JsonValue* value);

// Convenience forms on an object member.
std::optional<double> PXJsonDoubleFor(const JsonValue* object, std::string_view key);
std::optional<int64_t> PXJsonInt64For(const JsonValue* object, std::string_view key);
std::optional<bool> PXJsonBoolFor(const JsonValue* object, std::string_view key);
std::optional<std::string_view> PXJsonTextFor(const JsonValue* object, std::string_view key);

// Key-value coding over JSON: a key looks into an object; on an array it maps
// over the elements and gives an array (absent results left out); "@count",
// "@max.<key>" and "@firstObject" act on the array reached so far.
std::optional<JsonValue> PXValueForKeyPath(const JsonValue& root, std::string_view keyPath);

}  // namespace plexa
