#include "AttributedString.h"

#include <algorithm>

namespace plexa {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one UTF-8 sequence at `i`; returns the code point and advances `i`.
// A malformed or truncated sequence yields U+FFFD and consumes one byte.
char32_t decodeUTF8(std::string_view s, size_t& i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char lead = byte(i);
  if (lead < 0x80) {
    ++i;
    return lead;
  }
  size_t extra = 0;
  char32_t cp = 0;
  char32_t minimum = 0;
  if ((lead & 0xE0) == 0xC0) {
    extra = 1, cp = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    extra = 2, cp = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    extra = 3, cp = lead & 0x07, minimum = 0x10000;
  } else {
    ++i;
    return kReplacement;
  }
  if (i + extra >= s.size()) {
    ++i;
    return kReplacement;
  }
  for (size_t k = 1; k <= extra; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) {
      ++i;
      return kReplacement;
    }
    cp = (cp << 6) | (byte(i + k) & 0x3F);
  }
  if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++i;
    return kReplacement;
  }
  i += extra + 1;
  return cp;
}

size_t unitsFor(char32_t cp) { return cp >= 0x10000 ? 2 : 1; }

void appendUTF8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

size_t PXUTF16Length(std::string_view utf8) {
  size_t units = 0;
  for (size_t i = 0; i < utf8.size();) units += unitsFor(decodeUTF8(utf8, i));
  return units;
}

size_t PXUTF8OffsetForUTF16Index(std::string_view utf8, size_t index) {
  size_t units = 0;
  size_t i = 0;
  while (i < utf8.size()) {
    size_t next = i;
    const size_t width = unitsFor(decodeUTF8(utf8, next));
    if (units + width > index) return i;
    units += width;
    i = next;
  }
  return utf8.size();
}

size_t PXUTF16IndexForUTF8Offset(std::string_view utf8, size_t offset) {
  size_t units = 0;
  size_t i = 0;
  while (i < utf8.size()) {
    size_t next = i;
    const size_t width = unitsFor(decodeUTF8(utf8, next));
    if (next > offset) return units;
    units += width;
    i = next;
  }
  return units;
}

std::u16string PXUTF16FromUTF8(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  for (size_t i = 0; i < utf8.size();) {
    const char32_t cp = decodeUTF8(utf8, i);
    if (cp >= 0x10000) {
      out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

std::string PXUTF8FromUTF16(std::u16string_view utf16) {
  std::string out;
  out.reserve(utf16.size());
  for (size_t i = 0; i < utf16.size(); ++i) {
    const char16_t u = utf16[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF) {
      appendUTF8(out, 0x10000 + ((char32_t(u) - 0xD800) << 10) + (char32_t(utf16[i + 1]) - 0xDC00));
      ++i;
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      appendUTF8(out, kReplacement);
    } else {
      appendUTF8(out, u);
    }
  }
  return out;
}

// MARK: - Colours

PXColor PXColor::rgb(double r, double g, double b, double a) {
  return PXColor{PXColorModel::RGB, {r, g, b}, a, std::nullopt, std::nullopt};
}

PXColor PXColor::gray(double white, double a) {
  return PXColor{PXColorModel::Gray, {white}, a, std::nullopt, std::nullopt};
}

PXColor PXColor::cmyk(double c, double m, double y, double k, double a) {
  return PXColor{PXColorModel::CMYK, {c, m, y, k}, a, std::nullopt, std::nullopt};
}

std::optional<PXRGBComponents> PXColor::rgbComponents() const {
  if (model != PXColorModel::RGB || components.size() != 3) return std::nullopt;
  return PXRGBComponents{components[0], components[1], components[2]};
}

PXColor PXColor::convertedToRGB() const {
  PXColor converted = rgb(0, 0, 0, alpha);
  if (model == PXColorModel::RGB && components.size() == 3) {
    converted.components = components;
    converted.colorSpaceID = colorSpaceID;
  } else if (model == PXColorModel::Gray && components.size() == 1) {
    converted.components = {components[0], components[0], components[0]};
  } else if (model == PXColorModel::CMYK && components.size() == 4) {
    const double k = components[3];
    for (size_t i = 0; i < 3; ++i) converted.components[i] = (1 - components[i]) * (1 - k);
  }
  return converted;
}

// MARK: - Attributes

bool PXTextAttributes::empty() const { return *this == PXTextAttributes{}; }

void PXTextAttributes::merge(const PXTextAttributes& other) {
  const auto take = [](auto& mine, const auto& theirs) {
    if (theirs) mine = theirs;
  };
  take(font, other.font);
  take(paragraphStyle, other.paragraphStyle);
  take(foregroundColor, other.foregroundColor);
  take(colorDictionary, other.colorDictionary);
  take(kerning, other.kerning);
  take(underlineStyle, other.underlineStyle);
  take(strikethroughStyle, other.strikethroughStyle);
  take(textTransform, other.textTransform);
  take(ligature, other.ligature);
  take(baselineOffset, other.baselineOffset);
}

// MARK: - Attributed string

PXAttributedString::PXAttributedString(std::string text, PXTextAttributes attributes)
    : string_(std::move(text)), length_(PXUTF16Length(string_)) {
  if (length_ > 0) runs_.push_back(PXAttributeRun{0, length_, std::move(attributes)});
}

std::optional<PXAttributedString> PXAttributedString::withRuns(std::string text,
                                                              std::vector<PXAttributeRun> runs) {
  PXAttributedString result(std::move(text));
  size_t expected = 0;
  for (const auto& run : runs) {
    if (run.location != expected || run.length == 0) return std::nullopt;
    expected += run.length;
  }
  if (expected != result.length_) return std::nullopt;
  result.runs_ = std::move(runs);
  result.coalesce();
  return result;
}

const PXTextAttributes* PXAttributedString::attributesAtIndex(size_t index) const {
  if (index >= length_) return nullptr;
  const auto it = std::upper_bound(runs_.begin(), runs_.end(), index,
                                   [](size_t i, const PXAttributeRun& run) { return i < run.location; });
  if (it == runs_.begin()) return nullptr;
  return &std::prev(it)->attributes;
}

std::string PXAttributedString::substring(PXUTF16Range range) const {
  const size_t start = std::min(range.location, length_);
  const size_t end = std::min(start + std::min(range.length, length_ - start), length_);
  const size_t from = PXUTF8OffsetForUTF16Index(string_, start);
  const size_t to = PXUTF8OffsetForUTF16Index(string_, end);
  return string_.substr(from, to - from);
}

// Makes `index` a run boundary (no-op at 0, at the end or on a boundary).
void PXAttributedString::splitAt(size_t index) {
  for (size_t i = 0; i < runs_.size(); ++i) {
    PXAttributeRun& run = runs_[i];
    if (index > run.location && index < run.location + run.length) {
      PXAttributeRun tail{index, run.location + run.length - index, run.attributes};
      run.length = index - run.location;
      runs_.insert(runs_.begin() + static_cast<std::ptrdiff_t>(i) + 1, std::move(tail));
      return;
    }
  }
}

void PXAttributedString::coalesce() {
  std::vector<PXAttributeRun> merged;
  for (auto& run : runs_) {
    if (run.length == 0) continue;
    if (!merged.empty() && merged.back().attributes == run.attributes) {
      merged.back().length += run.length;
    } else {
      merged.push_back(std::move(run));
    }
  }
  runs_ = std::move(merged);
}

void PXAttributedString::setAttributes(const PXTextAttributes& attributes, PXUTF16Range range) {
  forEachRunIn(range, [&](PXTextAttributes& run) { run = attributes; });
}

void PXAttributedString::addAttributes(const PXTextAttributes& attributes, PXUTF16Range range) {
  forEachRunIn(range, [&](PXTextAttributes& run) { run.merge(attributes); });
}

// Splits runs at the range's ends so it covers whole runs, changes those,
// then merges neighbours that became equal.
void PXAttributedString::forEachRunIn(PXUTF16Range range, const std::function<void(PXTextAttributes&)>& change) {
  const size_t start = std::min(range.location, length_);
  const size_t end = start + std::min(range.length, length_ - start);
  if (start == end) return;
  splitAt(start);
  splitAt(end);
  for (auto& run : runs_) {
    if (run.location >= start && run.location + run.length <= end) change(run.attributes);
  }
  coalesce();
}

void PXAttributedString::replaceAllText(std::string text) {
  const PXTextAttributes* first = attributesAtIndex(0);
  PXTextAttributes attributes = first ? *first : PXTextAttributes{};
  *this = PXAttributedString(std::move(text), std::move(attributes));
}

}  // namespace plexa
