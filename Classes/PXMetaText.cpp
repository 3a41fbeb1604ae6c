#include "PXMetaText.h"

#include "KeyedArchive.h"
#include "Log.h"
#include "PXMetaStyle.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace plexa {

namespace {

const JsonObject* attributedStringObject(const JsonObject& layer) {
  const auto it = layer.find("attributedString");
  return it != layer.end() ? it->value().if_object() : nullptr;
}

// Sketch stores numbers as JSON numbers; a count that does not fit the text
// is clamped, a negative one refused.
std::optional<size_t> unitCount(const JsonValue* value) {
  const auto number = PXJsonInt64(value);
  if (!number || *number < 0) return std::nullopt;
  return static_cast<size_t>(*number);
}

PXFontDescriptor fontDescriptorFromJSON(const JsonValue& font) {
  const JsonValue* attributes = PXJsonFind(&font, "attributes");
  PXFontDescriptor descriptor;
  descriptor.name = std::string(PXJsonTextFor(attributes, "name").value_or(""));
  descriptor.size = PXJsonDoubleFor(attributes, "size").value_or(0);
  return descriptor;
}

PXParagraphStyle paragraphStyleFromJSON(const JsonValue& style) {
  PXParagraphStyle paragraph;
  paragraph.alignment = PXJsonInt64For(&style, "alignment");
  paragraph.minimumLineHeight = PXJsonDoubleFor(&style, "minimumLineHeight");
  paragraph.maximumLineHeight = PXJsonDoubleFor(&style, "maximumLineHeight");
  paragraph.paragraphSpacing = PXJsonDoubleFor(&style, "paragraphSpacing");
  return paragraph;
}

// Components are read as floats; a missing one reads as 0, as a number
// accessor on nothing does.
PXColor colorFromJSON(const JsonValue& color) {
  const auto component = [&](std::string_view key) {
    return static_cast<double>(PXJsonFloat(PXJsonFind(&color, key)).value_or(0.0f));
  };
  PXColor result = PXColor::rgb(component("red"), component("green"), component("blue"), component("alpha"));
  result.colorSpaceID = PXColorSpaceIDSRGB;  // document colours are sRGB
  return result;
}

PXTextAttributes attributesFromJSON(const JsonValue& attributes) {
  PXTextAttributes result;
  if (const JsonValue* font = PXJsonFind(&attributes, "MSAttributedStringFontAttribute"); font && font->is_object()) {
    result.font = fontDescriptorFromJSON(*font);
  }
  if (const JsonValue* style = PXJsonFind(&attributes, "paragraphStyle"); style && style->is_object()) {
    result.paragraphStyle = paragraphStyleFromJSON(*style);
  }
  if (const JsonValue* color = PXJsonFind(&attributes, "MSAttributedStringColorAttribute"); color && color->is_object()) {
    result.foregroundColor = colorFromJSON(*color);
  }
  return result;
}

// MARK: - Typeface record

constexpr std::array<const char*, 5> kAlignmentNames = {"left", "right", "center", "justify", "left"};

struct TypefaceState {
  std::optional<std::string> typeface;
  std::optional<std::string> weight;
  std::optional<double> fontSize;
  std::optional<double> lineHeight;
  std::optional<double> paragraphSpacing;
  std::optional<std::string> alignment;
  JsonArray fontColor;
  std::optional<PXFont> font;  // the last font seen, for default line heights
};

void applyFont(TypefaceState& state, const PXFontDescriptor& descriptor) {
  if (auto font = PXFontWithDescriptor(descriptor, descriptor.size)) {
    state.weight = PXMetaWeightFromFont(*font);
    state.typeface = font->family;
    state.fontSize = descriptor.size;
    state.font = std::move(font);
    return;
  }
  state.font = PXSystemFontOfSize(descriptor.size);
  state.weight = "Regular";
  state.typeface = ".SF NS Display";
  state.fontSize = descriptor.size;
}

void applyParagraphStyle(TypefaceState& state, const PXParagraphStyle& style) {
  // Negative values read as huge unsigned ones, as the platform's enum does.
  const auto alignment = static_cast<uint64_t>(style.alignmentOrDefault());
  if (alignment < kAlignmentNames.size()) {
    state.alignment = kAlignmentNames[alignment];
  } else {
    // Deliberately paired: alignments past the known ones report centred
    // text in the system UI face.
    state.alignment = "center";
    state.typeface = ".AppleSystemUIFont";
  }

  double lineHeight = style.minimumLineHeight.value_or(0);
  if (lineHeight == 0 && state.font) lineHeight = PXDefaultLineHeightForFont(*state.font).value_or(0);
  state.lineHeight = std::isfinite(lineHeight) ? lineHeight : 0;

  const double spacing = std::round(style.paragraphSpacing.value_or(0) * 100.0) / 100.0;
  state.paragraphSpacing = std::isfinite(spacing) ? spacing : 0;
}

// Archived components are unchecked text: keep them where narrowing to
// single precision is defined.
double floatRange(double value) {
  constexpr double limit = std::numeric_limits<float>::max();
  return std::isfinite(value) ? std::clamp(value, -limit, limit) : 0;
}

JsonArray fontColorFromForeground(const PXColor& color) {
  auto components = color.rgbComponents();
  if (!components) components = color.convertedToRGB().rgbComponents();
  const PXRGBComponents rgb = components.value_or(PXRGBComponents{});
  const auto channel = [](double value) {
    return static_cast<double>(std::roundf(static_cast<float>(floatRange(value * 255.0))));
  };
  return JsonArray{channel(rgb.red), channel(rgb.green), channel(rgb.blue), std::isfinite(color.alpha) ? color.alpha : 1.0};
}

// Missing channels read as 0; a missing alpha as opaque.
JsonArray fontColorFromDictionary(const PXColorDictionary& color) {
  const auto channel = [](const std::optional<double>& value) { return PXMetaColorComponent(floatRange(value.value_or(0))); };
  return JsonArray{channel(color.red), channel(color.green), channel(color.blue), color.alpha.value_or(1.0)};
}

void applyRun(TypefaceState& state, const PXTextAttributes& attributes) {
  if (attributes.font) applyFont(state, *attributes.font);
  if (attributes.paragraphStyle) applyParagraphStyle(state, *attributes.paragraphStyle);
  if (attributes.foregroundColor) {
    state.fontColor = fontColorFromForeground(*attributes.foregroundColor);
  } else if (attributes.colorDictionary) {
    state.fontColor = fontColorFromDictionary(*attributes.colorDictionary);
  } else {
    state.fontColor = JsonArray{0, 0, 0, 1};
  }
}

// `style.textStyle.encodedAttributes.NSKern`, else `.kerning`.
const JsonValue* characterSpacingFromJSON(const JsonObject& layer) {
  const JsonValue* style = layer.if_contains("style");
  const JsonValue* encoded = PXJsonFind(PXJsonFind(style, "textStyle"), "encodedAttributes");
  const JsonValue* spacing = PXJsonFind(encoded, "NSKern");
  return spacing ? spacing : PXJsonFind(encoded, "kerning");
}

template <typename T>
std::optional<JsonValue> jsonOptional(const std::optional<T>& value) {
  if (!value) return std::nullopt;
  return JsonValue(*value);
}

}  // namespace

std::optional<PXAttributedString> PXAttributedStringFromJSON(const JsonObject& layer) {
  if (auto archived = PXAttributedStringFromJSONArchivedAttributedString(layer)) return archived;
  return PXAttributedStringFromJSONAttributedString(layer);
}

std::optional<PXAttributedString> PXAttributedStringFromJSONArchivedAttributedString(const JsonObject& layer) {
  const JsonObject* attributed = attributedStringObject(layer);
  const JsonValue* archived = attributed ? attributed->if_contains("archivedAttributedString") : nullptr;
  const auto archive = PXJsonTextFor(archived, "_archive");
  if (!archive) return std::nullopt;
  return PXUnarchiveAttributedStringFromBase64(*archive);
}

std::optional<PXAttributedString> PXAttributedStringFromJSONAttributedString(const JsonObject& layer) {
  const JsonObject* attributed = attributedStringObject(layer);
  if (!attributed) return std::nullopt;
  const JsonValue* string = attributed->if_contains("string");
  if (!string || !string->is_string()) return std::nullopt;

  PXAttributedString result{std::string(string->as_string())};
  const JsonValue* entries = attributed->if_contains("attributes");
  if (!entries || !entries->is_array()) return result;
  for (const JsonValue& entry : entries->as_array()) {
    const auto location = unitCount(PXJsonFind(&entry, "location"));
    const auto length = unitCount(PXJsonFind(&entry, "length"));
    const JsonValue* attributes = PXJsonFind(&entry, "attributes");
    if (!location || !length || !attributes || !attributes->is_object()) {
      PXLogVerbose("Skipping a malformed text attribute entry: {}", PXJsonSerialize(entry, false).value_or(""));
      continue;
    }
    if (*location >= result.length() || *length > result.length() - *location) {
      PXLogVerbose("Text attribute range {}+{} exceeds the text length {}; clamped", *location, *length,
                   result.length());
    }
    result.addAttributes(attributesFromJSON(*attributes), PXUTF16Range{*location, *length});
  }
  return result;
}

std::optional<std::string> PXMetaTextFromJSON(const JsonObject& layer) {
  auto string = PXAttributedStringFromJSON(layer);
  if (!string) return std::nullopt;
  return string->string();
}

std::optional<JsonObject> PXMetaTypefaceFromJSON(const JsonObject& layer) {
  const auto string = PXAttributedStringFromJSON(layer);
  if (!string) return std::nullopt;
  return PXMetaTypefaceFromAttributedString(*string, layer);
}

JsonObject PXMetaTypefaceFromAttributedString(const PXAttributedString& string, const JsonObject& layer) {
  const JsonValue* characterSpacing = characterSpacingFromJSON(layer);
  TypefaceState state;
  for (const auto& run : string.runs()) applyRun(state, run.attributes);

  JsonObject record;
  PXMetaAddToDictionary(record, "typeface", jsonOptional(state.typeface));
  PXMetaAddToDictionary(record, "weight", jsonOptional(state.weight));
  PXMetaAddToDictionary(record, "fontSize", jsonOptional(state.fontSize));
  PXMetaAddToDictionary(record, "lineHeight", jsonOptional(state.lineHeight));
  const JsonValue noSpacing(0);
  PXMetaAddToDictionary(record, "characterSpacing", characterSpacing, &noSpacing);
  PXMetaAddToDictionary(record, "paragraphSpacing", jsonOptional(state.paragraphSpacing));
  PXMetaAddToDictionary(record, "alignment", jsonOptional(state.alignment));
  PXMetaAddToDictionary(record, "fontColor",
                        state.fontColor.empty() ? std::nullopt : std::optional<JsonValue>(state.fontColor));
  return record;
}

std::string PXMetaWeightFromFont(const PXFont& font) {
  for (const auto& member : PXAvailableMembersOfFontFamily(font.family)) {
    if (member.postScriptName == font.postScriptName) return member.styleName;
  }
  return "";
}

}  // namespace plexa
