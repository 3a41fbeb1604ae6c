#include "NSDictionary+MPSync.h"

#include "Log.h"

#include <algorithm>
#include <stdexcept>

namespace plexa {

namespace {
const JsonValue* find(const JsonObject& dict, std::string_view key) {
  auto it = dict.find(key);
  return it == dict.end() ? nullptr : &it->value();
}

const JsonValue* valueForDottedPath(const JsonObject& dict, std::string_view path) {
  const JsonObject* current = &dict;
  const JsonValue* value = nullptr;
  size_t start = 0;
  while (true) {
    size_t dot = path.find('.', start);
    std::string_view segment = path.substr(start, dot == std::string_view::npos ? path.npos : dot - start);
    if (!current) return nullptr;
    value = find(*current, segment);
    if (!value || dot == std::string_view::npos) return value;
    current = value->if_object();
    start = dot + 1;
  }
}
}  // namespace

const JsonString* stringForKey_mps(const JsonObject& dict, std::string_view key) {
  const auto* v = find(dict, key);
  return v ? v->if_string() : nullptr;
}

const JsonArray* arrayForKey_mps(const JsonObject& dict, std::string_view key) {
  const auto* v = find(dict, key);
  return v ? v->if_array() : nullptr;
}

const JsonObject* dictionaryForKey_mps(const JsonObject& dict, std::string_view key) {
  const auto* v = find(dict, key);
  return v ? v->if_object() : nullptr;
}

const JsonValue* numberForKey_mps(const JsonObject& dict, std::string_view key) {
  const auto* v = find(dict, key);
  return v && (v->is_number() || v->is_bool()) ? v : nullptr;
}

bool boolForKey_mps(const JsonObject& dict, std::string_view key) {
  auto b = PXJsonBool(numberForKey_mps(dict, key));
  return b.value_or(false);
}

JsonObject omit_mps(const JsonObject& dict, const std::vector<std::string>& keys) {
  JsonObject out;
  for (const auto& kv : dict)
    if (std::find(keys.begin(), keys.end(), kv.key()) == keys.end()) out.emplace(kv.key(), kv.value());
  return out;
}

JsonObject mutableCopyDeep_mps(const JsonObject& dict) {
  JsonObject out;
  out.reserve(dict.size());
  for (const auto& kv : dict) {
    const auto* inner = kv.value().if_object();
    if (!inner) throw std::logic_error("mutableCopyDeep_mps: value of key is not a dictionary");
    out.emplace(kv.key(), mutableCopyDeep_mps(*inner));
  }
  return out;
}

JsonObject dictionaryByAddingDictionary_mps(const JsonObject& dict, const JsonObject& other) {
  JsonObject out = dict;
  for (const auto& kv : other) out[kv.key()] = kv.value();
  return out;
}

std::optional<std::string> toJsonString_mps(const JsonObject& dict) {
  std::string error;
  auto text = PXJsonSerialize(dict, true, &error);
  if (!text) PXLogVerbose("json error: {}", error);
  return text;
}

const JsonValue* valueForKeyPaths_mps(const JsonObject& dict, const std::vector<std::string>& keyPaths) {
  for (const auto& path : keyPaths) {
    const auto* v = valueForDottedPath(dict, path);
    if (v && !v->is_null()) return v;
  }
  return nullptr;
}

}  // namespace plexa
