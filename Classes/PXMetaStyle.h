#pragma once
// Style conversion for the inspect format: colours, fills, gradients,
// borders, shadows, strings, the rounding rules every converter shares, and
// the two helpers that fill records.
//
// All functions are pure: they take JSON values from the document (any of
// which may be missing or of the wrong kind) and return new values, made in
// `storage` where one is given (a whole record is built in one arena).

#include "Json.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace plexa {

// --- Numbers -------------------------------------------------------------

// `digits` decimals the way the server expects them: the value as a float,
// times 10^digits in float (powf), roundf, then divided in double.
// Non-finite results become 0 so that no record ever holds NaN or infinity.
double PXMetaNumberRound(double number, int digits);
// PXMetaNumberRound(value, 2): coordinates, sizes, opacity.
double PXMetaRound2(double value);
// Two decimals computed in double precision (line ends, paragraph spacing).
double PXMetaRoundDouble2(double value);
// A colour component (0 to 1) as 0 to 255: float product, roundf.
double PXMetaColorComponent(double component);
// The double that prints like the float does (11.33f gives 11.33, not
// 11.329999923706055): how single-precision values reach the file.
double PXMetaFloatNumber(float value);
// A copy in which every non-finite number (parsed from 1e400 and the like)
// is 0, so raw values taken "unchanged" can always be written.
JsonValue PXMetaFiniteValue(const JsonValue& value, const boost::json::storage_ptr& storage = {});

// --- Records -------------------------------------------------------------

// Stores `value` under `key`; a JSON null value is replaced by `fallback`
// when one is given; an absent value stores `fallback`; with neither the key
// stays absent.
void PXMetaAddToDictionary(JsonObject& dictionary, std::string_view key, const JsonValue* value,
                           const JsonValue* fallback = nullptr);
void PXMetaAddToDictionary(JsonObject& dictionary, std::string_view key, std::optional<JsonValue> value,
                           std::optional<JsonValue> fallback = std::nullopt);

using PXMetaElementFunction = std::function<std::optional<JsonValue>(const JsonValue&)>;
// The non-absent results of `function` over `array`, in order; empty when
// `array` is not an array.
JsonArray PXMetaApplyToArray(const JsonValue* array, const PXMetaElementFunction& function,
                             const boost::json::storage_ptr& storage = {});

// --- Strings -------------------------------------------------------------

// The string after a UTF-8 round trip (cut at a NUL, invalid UTF-8 refused);
// absent when that leaves nothing.
std::optional<std::string> PXMetaSafeString(std::string_view string);
// Never absent: strings are copied, archived strings ({"_archive": base64})
// decoded, anything else named "Unsupported Value Class Type <class>", and
// an empty result is "Unsupported Text Value".
std::string PXMetaStringFromJSONValue(const JsonValue* value);

// --- Colours, fills, gradients -------------------------------------------

// [red, green, blue] × 255 rounded, alpha unchanged; absent when `color` is
// not a dictionary or has no numeric `alpha`.
std::optional<JsonArray> PXMetaColorFromJSON(const JsonValue* color, const boost::json::storage_ptr& storage = {});
// Enabled fills, top-most first: flat colours for kind "fill", gradient
// records for kind "gradient". Always an array.
JsonArray PXMetaColorFillFromJSON(const JsonValue* fills, std::string_view kind,
                                  const boost::json::storage_ptr& storage = {});
// {type, from, to, stops} of a linear or radial gradient fill; absent for
// anything else (angular gradients included).
std::optional<JsonObject> PXMetaGradientFromJSON(const JsonValue& fill, const boost::json::storage_ptr& storage = {});
// "{x, y}" as Sketch writes points; missing numbers read as 0.
struct PXMetaPoint {
  double x = 0;
  double y = 0;
};
PXMetaPoint PXMetaPointFromString(std::string_view text);

// --- Borders and shadows ---------------------------------------------------

// {type, placement, thickness, color} of one border.
JsonObject PXMetaBorderFromJSON(const JsonValue& border, const JsonValue* borderOptions,
                                const boost::json::storage_ptr& storage = {});
// Enabled colour borders in array order. Always an array.
JsonArray PXMetaBorderArrayFromJSONArray(const JsonValue* borders, const JsonValue* borderOptions,
                                         const boost::json::storage_ptr& storage = {});
// "solid", "dashed" or "dotted" for a dash pattern and line thickness.
std::string PXMetaBorderLineStyle(const JsonValue* borderOptions, const JsonValue* thickness);
// {x, y, blur, spread, color} of one shadow.
JsonObject PXMetaShadowFromJSONArray(const JsonValue& shadow, const boost::json::storage_ptr& storage = {});
// Every shadow, enabled or not, top-most first. Always an array.
JsonArray PXMetaShadowArrayFromJSONArray(const JsonValue* shadows, const boost::json::storage_ptr& storage = {});

}  // namespace plexa
