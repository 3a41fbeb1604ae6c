#include "NSArray+MPSync.h"

#include "Log.h"

namespace plexa {

JsonArray map_mps(const JsonArray& array, const PXMapper& mapper) {
  JsonArray out;
  out.reserve(array.size());
  for (const auto& e : array) out.push_back(mapper(e));
  return out;
}

JsonArray mapByIgnoringNils_mps(const JsonArray& array, const PXMapper& mapper) {
  JsonArray out;
  for (const auto& e : array) {
    JsonValue r = mapper(e);
    if (!r.is_null()) out.push_back(std::move(r));
  }
  return out;
}

void enumerate_mps(const JsonArray& array, const std::function<void(const JsonValue&)>& visitor) {
  for (const auto& e : array) visitor(e);
}

void enumerateWithIndex_mps(const JsonArray& array,
                            const std::function<void(const JsonValue&, size_t)>& visitor) {
  size_t index = 0;
  for (const auto& e : array) visitor(e, index++);
}

JsonArray filter_mps(const JsonArray& array, const PXPredicate& predicate) {
  JsonArray out;
  for (const auto& e : array)
    if (predicate(e)) out.push_back(e);
  return out;
}

std::optional<JsonValue> findOne_mps(const JsonArray& array, const PXPredicate& predicate) {
  JsonArray matches = filter_mps(array, predicate);
  if (matches.empty()) return std::nullopt;
  return matches[0];
}

bool PXValueIsOfKind(const JsonValue& value, PXValueKind kind) {
  switch (kind) {
    case PXValueKind::any: return true;
    case PXValueKind::null: return value.is_null();
    case PXValueKind::boolean: return value.is_bool();
    case PXValueKind::number: return value.is_number() || value.is_bool();
    case PXValueKind::string: return value.is_string();
    case PXValueKind::array: return value.is_array();
    case PXValueKind::dictionary: return value.is_object();
  }
  return false;
}

JsonArray filteredByObjectsOfClass_mps(const JsonArray& array, PXValueKind kind) {
  return filter_mps(array, [kind](const JsonValue& v) { return PXValueIsOfKind(v, kind); });
}

bool isValidIndex_mps(const JsonArray& array, uint64_t index) { return index < array.size(); }

const JsonValue* objectAtIndexOrNil_mps(const JsonArray& array, uint64_t index) {
  if (!isValidIndex_mps(array, index)) return nullptr;
  const JsonValue& v = array[index];
  return v.is_null() ? nullptr : &v;
}

std::optional<std::string> toJsonString_mps(const JsonArray& array) {
  std::string error;
  auto text = PXJsonSerialize(array, true, &error);
  if (!text) PXLogVerbose("json error: {}", error);
  return text;
}

std::optional<JsonValue> fromJsonString_mps(std::string_view text) { return PXJsonParse(text); }

}  // namespace plexa
