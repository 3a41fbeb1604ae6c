#pragma once
// An attributed string the way Sketch stores one: UTF-8 text plus runs of
// attributes. Run ranges count UTF-16 code units, as Sketch's `location` /
// `length` and the archived ranges do; the conversion helpers here turn them
// into byte offsets of the UTF-8 text.
//
// Invariant: the runs are contiguous and cover the whole text, in order
// (unstyled text is a run with empty attributes). Setting attributes keeps it.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plexa {

struct PXFontDescriptor {
  std::string name;  // PostScript (or full) name, as the document names it
  double size = 0;

  bool operator==(const PXFontDescriptor&) const = default;
};

// Text alignment values as documents store them (0 left, 1 right, 2 center,
// 3 justified, 4 natural).
enum PXTextAlignment : int64_t {
  PXTextAlignmentLeft = 0,
  PXTextAlignmentRight = 1,
  PXTextAlignmentCenter = 2,
  PXTextAlignmentJustified = 3,
  PXTextAlignmentNatural = 4,
};

// Each field is present only when the source set it; readers apply the
// platform defaults (natural alignment, zero heights and spacing).
struct PXParagraphStyle {
  std::optional<int64_t> alignment;
  std::optional<double> minimumLineHeight;
  std::optional<double> maximumLineHeight;
  std::optional<double> paragraphSpacing;
  std::optional<double> paragraphSpacingBefore;
  std::optional<double> lineSpacing;
  std::optional<double> lineHeightMultiple;

  int64_t alignmentOrDefault() const { return alignment.value_or(PXTextAlignmentNatural); }
  bool operator==(const PXParagraphStyle&) const = default;
};

enum class PXColorModel { RGB, Gray, CMYK };

struct PXRGBComponents {
  double red = 0, green = 0, blue = 0;
  bool operator==(const PXRGBComponents&) const = default;
};

// sRGB as archives identify it.
constexpr int64_t PXColorSpaceIDSRGB = 7;

// A colour with the model its components belong to. `archiveColorSpace` is
// the archive's colour-space number when the colour came from one (1 and 3
// calibrated RGB / white, 2 and 4 device RGB / white, 5 CMYK, ...).
// `colorSpaceID` names a specific space the components are in (7 is sRGB, as
// the document's own colours are); absent means calibrated / device space.
struct PXColor {
  PXColorModel model = PXColorModel::RGB;
  std::vector<double> components;  // without alpha
  double alpha = 1;
  std::optional<int64_t> archiveColorSpace;
  std::optional<int64_t> colorSpaceID;

  static PXColor rgb(double r, double g, double b, double a = 1);
  static PXColor gray(double white, double a = 1);
  static PXColor cmyk(double c, double m, double y, double k, double a = 1);

  // Red, green and blue; absent unless the colour is in an RGB model with
  // three components (as reading components of a gray colour fails).
  std::optional<PXRGBComponents> rgbComponents() const;
  // The same colour in generic RGB: gray repeats its white, CMYK is
  // converted naively; malformed component lists give black.
  PXColor convertedToRGB() const;

  bool operator==(const PXColor&) const = default;
};

// Sketch's own colour dictionary attribute ({red, green, blue, alpha}); each
// component is present only when the document gave a number for it.
struct PXColorDictionary {
  std::optional<double> red, green, blue, alpha;
  bool operator==(const PXColorDictionary&) const = default;
};

struct PXTextAttributes {
  std::optional<PXFontDescriptor> font;            // MSAttributedStringFontAttribute
  std::optional<PXParagraphStyle> paragraphStyle;  // NSParagraphStyle / paragraphStyle
  std::optional<PXColor> foregroundColor;          // NSColor / MSAttributedStringColorAttribute
  std::optional<PXColorDictionary> colorDictionary;  // MSAttributedStringColorDictionaryAttribute
  std::optional<double> kerning;                   // NSKern
  std::optional<int64_t> underlineStyle;           // NSUnderline, raw
  std::optional<int64_t> strikethroughStyle;       // NSStrikethrough, raw
  std::optional<int64_t> textTransform;            // MSAttributedStringTextTransformAttribute, raw
  std::optional<int64_t> ligature;                 // NSLigature, raw
  std::optional<double> baselineOffset;            // NSBaselineOffset

  bool empty() const;
  // Fields set in `other` replace ours; the rest stay (as adding attributes
  // to a range does).
  void merge(const PXTextAttributes& other);
  bool operator==(const PXTextAttributes&) const = default;
};

struct PXAttributeRun {
  size_t location = 0;  // UTF-16 code units
  size_t length = 0;    // UTF-16 code units
  PXTextAttributes attributes;
  bool operator==(const PXAttributeRun&) const = default;
};

struct PXUTF16Range {
  size_t location = 0;
  size_t length = 0;
  size_t end() const { return location + length; }
};

// UTF-16 length of UTF-8 text. Invalid bytes count as one unit each (they
// become U+FFFD), so the count is always defined.
size_t PXUTF16Length(std::string_view utf8);
// Byte offset in `utf8` where the UTF-16 index `index` starts; an index
// inside a surrogate pair maps to the start of that character; indexes past
// the end map to the text's size.
size_t PXUTF8OffsetForUTF16Index(std::string_view utf8, size_t index);
// UTF-16 index of the byte offset (offsets inside a character count from its
// start); offsets past the end give the UTF-16 length.
size_t PXUTF16IndexForUTF8Offset(std::string_view utf8, size_t offset);
// Conversions between encodings; invalid input units become U+FFFD.
std::u16string PXUTF16FromUTF8(std::string_view utf8);
std::string PXUTF8FromUTF16(std::u16string_view utf16);

class PXAttributedString {
 public:
  PXAttributedString() = default;
  explicit PXAttributedString(std::string text, PXTextAttributes attributes = {});
  // Text with explicit runs; absent unless the runs are contiguous, start at
  // 0 and end exactly at the text's UTF-16 length.
  static std::optional<PXAttributedString> withRuns(std::string text, std::vector<PXAttributeRun> runs);

  const std::string& string() const { return string_; }
  size_t length() const { return length_; }  // UTF-16 code units

  // Adjacent runs with equal attributes are merged, so this is the sequence
  // an enumeration of attribute runs over the whole string yields.
  const std::vector<PXAttributeRun>& runs() const { return runs_; }

  // The attributes at a UTF-16 index; nullptr when the index is out of range
  // (an empty string has none at 0).
  const PXTextAttributes* attributesAtIndex(size_t index) const;

  // The part of the text in a UTF-16 range (clamped to the text).
  std::string substring(PXUTF16Range range) const;

  // Replaces the attributes over the range (clamped to the text).
  void setAttributes(const PXTextAttributes& attributes, PXUTF16Range range);
  // Merges the set fields of `attributes` into every run over the range.
  void addAttributes(const PXTextAttributes& attributes, PXUTF16Range range);
  // Replaces all text; the new text takes the attributes of the old text's
  // first character (none when the old text was empty).
  void replaceAllText(std::string text);

  bool operator==(const PXAttributedString&) const = default;

 private:
  void forEachRunIn(PXUTF16Range range, const std::function<void(PXTextAttributes&)>& change);
  void splitAt(size_t index);
  void coalesce();

  std::string string_;
  size_t length_ = 0;
  std::vector<PXAttributeRun> runs_;
};

}  // namespace plexa
