#include "PXMetaStyle.h"

#include "KeyedArchive.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace plexa {

namespace {

const std::array<const char*, 2> kGradientTypes = {"linear", "radial"};
const std::array<const char*, 3> kBorderPlacements = {"center", "inside", "outside"};
constexpr double kDottedRatio = 0.66;

double finiteOrZero(double value) { return std::isfinite(value) ? value : 0.0; }

float floatOrZero(const JsonValue* value) { return PXJsonFloat(value).value_or(0.0f); }

int64_t integerOrZero(const JsonValue* value) { return PXJsonInt64(value).value_or(0); }

void makeFinite(JsonValue& value) {
  switch (value.kind()) {
    case boost::json::kind::double_:
      if (!std::isfinite(value.get_double())) value = 0;
      break;
    case boost::json::kind::array:
      for (auto& element : value.get_array()) makeFinite(element);
      break;
    case boost::json::kind::object:
      for (auto& member : value.get_object()) makeFinite(member.value());
      break;
    default: break;
  }
}

// The class names Foundation gives the values of parsed JSON.
std::string foundationClassName(const JsonValue* value) {
  if (!value) return "(null)";
  switch (value->kind()) {
    case boost::json::kind::null: return "NSNull";
    case boost::json::kind::bool_: return "__NSCFBoolean";
    case boost::json::kind::int64:
    case boost::json::kind::uint64:
    case boost::json::kind::double_: return "__NSCFNumber";
    case boost::json::kind::string: return "__NSCFString";
    case boost::json::kind::array: return "__NSArrayM";
    case boost::json::kind::object: return "__NSDictionaryM";
  }
  return "(null)";
}

bool isValidUTF8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    auto c = static_cast<unsigned char>(s[i]);
    size_t extra = 0;
    uint32_t code = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1;
      code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      code = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= s.size()) return false;
    for (size_t k = 1; k <= extra; ++k) {
      auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      code = (code << 6) | (cc & 0x3F);
    }
    static constexpr uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
    if (code < kMinimum[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

std::optional<JsonValue> colorValue(const JsonValue* color, const boost::json::storage_ptr& storage) {
  auto converted = PXMetaColorFromJSON(color, storage);
  if (!converted) return std::nullopt;
  return JsonValue(std::move(*converted));
}

JsonObject pointRecord(const JsonValue* text, const boost::json::storage_ptr& storage) {
  auto string = PXJsonText(text);
  PXMetaPoint point = string ? PXMetaPointFromString(*string) : PXMetaPoint{};
  return JsonObject({{"x", point.x}, {"y", point.y}}, storage);
}

std::optional<JsonValue> gradientStop(const JsonValue& stop, const boost::json::storage_ptr& storage) {
  if (!stop.is_object()) return std::nullopt;
  JsonObject record(storage);
  PXMetaAddToDictionary(record, "color", colorValue(PXJsonFind(&stop, "color"), storage));
  PXMetaAddToDictionary(record, "location", PXJsonFind(&stop, "position"));
  return JsonValue(std::move(record));
}

}  // namespace

// --- Numbers -------------------------------------------------------------

double PXMetaNumberRound(double number, int digits) {
  float value = static_cast<float>(number);
  float factor = powf(10.0f, static_cast<float>(digits));
  float product = value * factor;
  return finiteOrZero(static_cast<double>(roundf(product)) / factor);
}

double PXMetaRound2(double value) { return PXMetaNumberRound(value, 2); }

double PXMetaRoundDouble2(double value) { return finiteOrZero(std::round(value * 100.0) / 100.0); }

double PXMetaColorComponent(double component) {
  float product = static_cast<float>(component) * 255.0f;
  return finiteOrZero(static_cast<double>(roundf(product)));
}

double PXMetaFloatNumber(float value) {
  if (!std::isfinite(value)) return 0.0;
  std::array<char, 48> buffer{};
  auto written = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  double result = 0.0;
  std::from_chars(buffer.data(), written.ptr, result);
  return result;
}

JsonValue PXMetaFiniteValue(const JsonValue& value, const boost::json::storage_ptr& storage) {
  // A plain copy would land in the source's storage, which for a parsed
  // document is its arena: it would grow with every record made.
  JsonValue copy(value, storage);
  makeFinite(copy);
  return copy;
}

// --- Records -------------------------------------------------------------

void PXMetaAddToDictionary(JsonObject& dictionary, std::string_view key, const JsonValue* value,
                           const JsonValue* fallback) {
  const JsonValue* chosen = value;
  if (!value || (value->is_null() && fallback)) chosen = fallback;
  if (!chosen) return;
  JsonValue& stored = dictionary[key] = *chosen;
  makeFinite(stored);
}

void PXMetaAddToDictionary(JsonObject& dictionary, std::string_view key, std::optional<JsonValue> value,
                           std::optional<JsonValue> fallback) {
  if (!value || (value->is_null() && fallback)) value = std::move(fallback);
  if (!value) return;
  JsonValue& stored = dictionary[key] = std::move(*value);
  makeFinite(stored);
}

JsonArray PXMetaApplyToArray(const JsonValue* array, const PXMetaElementFunction& function,
                             const boost::json::storage_ptr& storage) {
  JsonArray results(storage);
  if (!array || !array->is_array()) return results;
  results.reserve(array->get_array().size());
  for (const auto& element : array->get_array())
    if (auto result = function(element)) results.push_back(std::move(*result));
  return results;
}

// --- Strings -------------------------------------------------------------

std::optional<std::string> PXMetaSafeString(std::string_view string) {
  // A C-string round trip ends at the first NUL and refuses broken UTF-8.
  string = string.substr(0, string.find('\0'));
  if (string.empty() || !isValidUTF8(string)) return std::nullopt;
  return std::string(string);
}

std::string PXMetaStringFromJSONValue(const JsonValue* value) {
  std::string text;
  if (value && value->is_string()) {
    text = std::string(value->get_string());
  } else if (auto archive = PXJsonTextFor(value, "_archive")) {
    auto unarchived = PXKeyedUnarchiveBase64(*archive);
    if (unarchived && unarchived->string)
      text = *unarchived->string;
    else
      text = "Unsupported Value Class Type " + (unarchived ? unarchived->className : std::string("(null)"));
  } else {
    text = "Unsupported Value Class Type " + foundationClassName(value);
  }
  return PXMetaSafeString(text).value_or("Unsupported Text Value");
}

// --- Colours, fills, gradients -------------------------------------------

std::optional<JsonArray> PXMetaColorFromJSON(const JsonValue* color, const boost::json::storage_ptr& storage) {
  if (!color || !color->is_object()) return std::nullopt;
  const JsonValue* alphaValue = PXJsonFind(color, "alpha");
  if (!alphaValue) return std::nullopt;
  // Alpha is passed through as stored; only a value that is no number at
  // all makes the colour unusable.
  JsonValue alpha(storage);
  if (alphaValue->is_number()) {
    alpha = PXMetaFiniteValue(*alphaValue, storage);
  } else if (auto number = PXJsonDouble(alphaValue); number && !alphaValue->is_null()) {
    alpha = *number;
  } else {
    return std::nullopt;
  }
  return JsonArray({PXMetaColorComponent(floatOrZero(PXJsonFind(color, "red"))),
                    PXMetaColorComponent(floatOrZero(PXJsonFind(color, "green"))),
                    PXMetaColorComponent(floatOrZero(PXJsonFind(color, "blue"))), std::move(alpha)},
                   storage);
}

JsonArray PXMetaColorFillFromJSON(const JsonValue* fills, std::string_view kind,
                                  const boost::json::storage_ptr& storage) {
  JsonArray results(storage);
  const JsonArray* array = fills ? fills->if_array() : nullptr;
  if (!array) return results;
  for (auto it = array->rbegin(); it != array->rend(); ++it) {
    const JsonValue& fill = *it;
    if (!fill.is_object()) continue;
    int64_t fillType = integerOrZero(PXJsonFind(&fill, "fillType"));
    bool enabled = PXJsonBool(PXJsonFind(&fill, "isEnabled")).value_or(false);
    std::optional<JsonValue> result;
    if (fillType == 0 && kind == "fill") {
      if (auto color = PXMetaColorFromJSON(PXJsonFind(&fill, "color"), storage)) result = JsonValue(std::move(*color));
    } else if (fillType == 1 && kind == "gradient") {
      if (auto gradient = PXMetaGradientFromJSON(fill, storage)) result = JsonValue(std::move(*gradient));
    }
    if (enabled && result) results.push_back(std::move(*result));
  }
  return results;
}

std::optional<JsonObject> PXMetaGradientFromJSON(const JsonValue& fill, const boost::json::storage_ptr& storage) {
  if (!fill.is_object()) return std::nullopt;
  const JsonValue* gradient = PXJsonFind(&fill, "gradient");
  JsonArray stops = PXMetaApplyToArray(
      PXJsonFind(gradient, "stops"), [&](const JsonValue& stop) { return gradientStop(stop, storage); }, storage);
  int64_t type = integerOrZero(PXJsonFind(gradient, "gradientType"));
  if (type < 0 || type >= static_cast<int64_t>(kGradientTypes.size())) return std::nullopt;
  return JsonObject({{"type", kGradientTypes[static_cast<size_t>(type)]},
                     {"from", pointRecord(PXJsonFind(gradient, "from"), storage)},
                     {"to", pointRecord(PXJsonFind(gradient, "to"), storage)},
                     {"stops", std::move(stops)}},
                    0, storage);
}

PXMetaPoint PXMetaPointFromString(std::string_view text) {
  // Reads the first two numbers, whatever surrounds them ("{0.5, 1}").
  std::string buffer(text);
  std::array<double, 2> values{0, 0};
  const char* cursor = buffer.c_str();
  for (double& value : values) {
    while (*cursor && !std::isdigit(static_cast<unsigned char>(*cursor)) && *cursor != '-' && *cursor != '+' &&
           *cursor != '.')
      ++cursor;
    if (!*cursor) break;
    char* end = nullptr;
    double parsed = std::strtod(cursor, &end);
    if (end == cursor) {
      ++cursor;
      continue;
    }
    value = finiteOrZero(parsed);
    cursor = end;
  }
  return {values[0], values[1]};
}

// --- Borders and shadows ---------------------------------------------------

std::string PXMetaBorderLineStyle(const JsonValue* borderOptions, const JsonValue* thickness) {
  const JsonArray* dashes = PXJsonArrayFor(borderOptions, "dashPattern");
  if (!dashes || dashes->empty()) return "solid";
  if (dashes->size() > 2) return "dashed";
  float a = floatOrZero(&(*dashes)[0]);
  float b = dashes->size() > 1 ? floatOrZero(&(*dashes)[1]) : a;
  float t = floatOrZero(thickness);
  float dashToGap = a > b ? b / a : a / b;
  float thicknessToDash = t > a ? a / t : t / a;
  // Dash and gap about equal, and about as long as the line is thick: dots.
  bool dotted = dashToGap >= kDottedRatio && thicknessToDash >= kDottedRatio;
  return dotted ? "dotted" : "dashed";
}

JsonObject PXMetaBorderFromJSON(const JsonValue& border, const JsonValue* borderOptions,
                                const boost::json::storage_ptr& storage) {
  int64_t position = integerOrZero(PXJsonFind(&border, "position"));
  bool known = position >= 0 && position < static_cast<int64_t>(kBorderPlacements.size());
  const JsonValue* thickness = PXJsonFind(&border, "thickness");
  JsonObject record(4, storage);
  record["type"] = PXMetaBorderLineStyle(borderOptions, thickness);
  record["placement"] = known ? kBorderPlacements[static_cast<size_t>(position)] : "";
  PXMetaAddToDictionary(record, "thickness", thickness);
  PXMetaAddToDictionary(record, "color", colorValue(PXJsonFind(&border, "color"), storage));
  return record;
}

JsonArray PXMetaBorderArrayFromJSONArray(const JsonValue* borders, const JsonValue* borderOptions,
                                         const boost::json::storage_ptr& storage) {
  JsonArray results(storage);
  const JsonArray* array = borders ? borders->if_array() : nullptr;
  if (!array) return results;
  for (const auto& border : *array) {
    if (!border.is_object()) continue;
    bool enabled = integerOrZero(PXJsonFind(&border, "isEnabled")) != 0;
    bool colourBorder = integerOrZero(PXJsonFind(&border, "fillType")) == 0;
    if (enabled && colourBorder) results.push_back(PXMetaBorderFromJSON(border, borderOptions, storage));
  }
  return results;
}

JsonObject PXMetaShadowFromJSONArray(const JsonValue& shadow, const boost::json::storage_ptr& storage) {
  JsonObject record(5, storage);
  PXMetaAddToDictionary(record, "x", PXJsonFind(&shadow, "offsetX"));
  PXMetaAddToDictionary(record, "y", PXJsonFind(&shadow, "offsetY"));
  PXMetaAddToDictionary(record, "blur", PXJsonFind(&shadow, "blurRadius"));
  PXMetaAddToDictionary(record, "spread", PXJsonFind(&shadow, "spread"));
  PXMetaAddToDictionary(record, "color", colorValue(PXJsonFind(&shadow, "color"), storage));
  return record;
}

JsonArray PXMetaShadowArrayFromJSONArray(const JsonValue* shadows, const boost::json::storage_ptr& storage) {
  JsonArray results(storage);
  const JsonArray* array = shadows ? shadows->if_array() : nullptr;
  if (!array) return results;
  // Disabled shadows are listed too, unlike fills and borders.
  for (auto it = array->rbegin(); it != array->rend(); ++it)
    if (it->is_object()) results.push_back(PXMetaShadowFromJSONArray(*it, storage));
  return results;
}

}  // namespace plexa
