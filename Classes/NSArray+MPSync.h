#pragma once
// Array helpers over JSON arrays. Results are new values; receivers are
// never changed; failed look-ups are absent.

#include "Json.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace plexa {

using PXMapper = std::function<JsonValue(const JsonValue&)>;
using PXPredicate = std::function<bool(const JsonValue&)>;

JsonArray map_mps(const JsonArray& array, const PXMapper& mapper);
// Drops results equal to the null marker.
JsonArray mapByIgnoringNils_mps(const JsonArray& array, const PXMapper& mapper);
void enumerate_mps(const JsonArray& array, const std::function<void(const JsonValue&)>& visitor);
void enumerateWithIndex_mps(const JsonArray& array,
                            const std::function<void(const JsonValue&, size_t)>& visitor);
JsonArray filter_mps(const JsonArray& array, const PXPredicate& predicate);
// The whole array is filtered first; the first match is returned.
std::optional<JsonValue> findOne_mps(const JsonArray& array, const PXPredicate& predicate);
// Value kinds stand in for classes; number also matches booleans, as
// NSNumber does.
enum class PXValueKind { any, null, boolean, number, string, array, dictionary };
bool PXValueIsOfKind(const JsonValue& value, PXValueKind kind);
JsonArray filteredByObjectsOfClass_mps(const JsonArray& array, PXValueKind kind);
bool isValidIndex_mps(const JsonArray& array, uint64_t index);
// Absent when out of range or the element is the null marker.
const JsonValue* objectAtIndexOrNil_mps(const JsonArray& array, uint64_t index);
std::optional<std::string> toJsonString_mps(const JsonArray& array);
std::optional<JsonValue> fromJsonString_mps(std::string_view text);

}  // namespace plexa
