#pragma once
// Dictionary helpers over JSON objects. Typed getters return absent (nullptr
// or nullopt) when the key is missing or holds another kind.

#include "Json.h"

#include <optional>
#include <string>
#include <vector>

namespace plexa {

const JsonString* stringForKey_mps(const JsonObject& dict, std::string_view key);
const JsonArray* arrayForKey_mps(const JsonObject& dict, std::string_view key);
const JsonObject* dictionaryForKey_mps(const JsonObject& dict, std::string_view key);
// Numbers, booleans included.
const JsonValue* numberForKey_mps(const JsonObject& dict, std::string_view key);
// The truth of numberForKey_mps; a string "true" is false.
bool boolForKey_mps(const JsonObject& dict, std::string_view key);
JsonObject omit_mps(const JsonObject& dict, const std::vector<std::string>& keys);
// Only dictionaries of dictionaries can be copied this way; any other value
// inside is a programming error and throws std::logic_error.
JsonObject mutableCopyDeep_mps(const JsonObject& dict);
// The other dictionary's values win on shared keys.
JsonObject dictionaryByAddingDictionary_mps(const JsonObject& dict, const JsonObject& other);
std::optional<std::string> toJsonString_mps(const JsonObject& dict);
// The first dotted key path whose value is present and not the null marker.
const JsonValue* valueForKeyPaths_mps(const JsonObject& dict, const std::vector<std::string>& keyPaths);

}  // namespace plexa
