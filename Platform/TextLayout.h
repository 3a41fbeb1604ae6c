#pragma once
// Fonts and text layout over fontconfig, FreeType and Pango: finding an
// installed face by name, the faces of a family, default line heights and
// the size of laid-out attributed text.
//
// A font is found only when an installed face's PostScript name or full name
// equals the requested name exactly; there is no fallback substitution.

#include "AttributedString.h"

#include <optional>
#include <string>
#include <vector>

namespace plexa {

struct PXFont {
  std::string family;          // typographic family, e.g. "Roboto"
  std::string postScriptName;  // e.g. "Roboto-Bold"
  std::string styleName;       // face name within the family, e.g. "Bold"
  double size = 0;
  std::string file;  // the face's font file ("" for none)
  int faceIndex = 0;

  bool operator==(const PXFont&) const = default;
};

// One face of a family, as a font manager lists family members.
struct PXFontFamilyMember {
  std::string postScriptName;
  std::string styleName;
  int weight = 0;  // fontconfig weight
  int slant = 0;   // fontconfig slant
};

// The installed face named `name` at `size`, or absent.
std::optional<PXFont> PXFontWithName(const std::string& name, double size);
inline std::optional<PXFont> PXFontWithDescriptor(const PXFontDescriptor& descriptor, double size) {
  return PXFontWithName(descriptor.name, size);
}

// The system user-interface font at `size`: the face the font configuration
// picks for "sans-serif". Faces are looked up once per size per process.
PXFont PXSystemFontOfSize(double size);

// The faces of an installed family in a stable order (weight, slant, width,
// then PostScript name); empty for an unknown family.
std::vector<PXFontFamilyMember> PXAvailableMembersOfFontFamily(const std::string& family);

// Ascender − descender + line gap of the face scaled to the font's size, in
// points; absent when the face file cannot be read.
std::optional<double> PXDefaultLineHeightForFont(const PXFont& font);

struct PXTextMeasureOptions {
  // Padding at each end of every line fragment (added to the used width).
  double lineFragmentPadding = 0;
  // Container width to wrap at (padding included); absent: lines never wrap.
  std::optional<double> wrapWidth;
};

struct PXUsedRect {
  double width = 0;
  double height = 0;
};

// The used rectangle of the text laid out with its attributes in one
// container: the widest line plus padding on both sides, and the sum of the
// line heights (the largest default line height of the fonts on a line,
// clamped by the paragraph's minimum and maximum line height, plus paragraph
// spacing between paragraphs). Runs whose font is not installed use the
// system font of their size; runs without a font use the system font at 12
// points. Absent when layout fails (logged); an empty text measures as one
// empty line.
std::optional<PXUsedRect> PXMeasureAttributedString(const PXAttributedString& text,
                                                    const PXTextMeasureOptions& options = {});

}  // namespace plexa
