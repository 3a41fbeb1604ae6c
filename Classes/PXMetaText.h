#pragma once
// Text layers: rebuilding the attributed string from either of Sketch's two
// storage forms, and reading the plain text and one typeface record from it.

#include "AttributedString.h"
#include "Json.h"
#include "TextLayout.h"

#include <optional>
#include <string>

namespace plexa {

// The archived form first, the attribute-list form when that gives nothing.
std::optional<PXAttributedString> PXAttributedStringFromJSON(const JsonObject& layer);
// From "attributedString.archivedAttributedString._archive" (base64 keyed archive).
std::optional<PXAttributedString> PXAttributedStringFromJSONArchivedAttributedString(const JsonObject& layer);
// From "attributedString.string" and "attributedString.attributes".
std::optional<PXAttributedString> PXAttributedStringFromJSONAttributedString(const JsonObject& layer);

// The plain text of the layer's attributed string.
std::optional<std::string> PXMetaTextFromJSON(const JsonObject& layer);
// typeface, weight, fontSize, lineHeight, characterSpacing, paragraphSpacing,
// alignment, fontColor, taken from the last attribute run of the text.
std::optional<JsonObject> PXMetaTypefaceFromJSON(const JsonObject& layer);
// The same from the layer's attributed string decoded already: the layer
// gives only its character spacing.
JsonObject PXMetaTypefaceFromAttributedString(const PXAttributedString& string, const JsonObject& layer);
// The face name of the font within its family, "" when not found.
std::string PXMetaWeightFromFont(const PXFont& font);

}  // namespace plexa
