#include "TextLayout.h"

#include "Log.h"

#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include <pango/pangofc-fontmap.h>
#include <pango/pangoft2.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>
#include <unordered_map>

namespace plexa {

namespace {

// One installed face as fontconfig lists it.
struct Face {
  std::string family;  // first (typographic) family name
  std::vector<std::string> families;
  std::string style;
  std::string postScriptName;
  std::vector<std::string> fullNames;
  std::string file;
  int index = 0;
  int weight = 0;
  int slant = 0;
  int width = 0;
  FcPattern* pattern = nullptr;  // owned by the index, lives for the process
};

std::vector<std::string> patternStrings(FcPattern* pattern, const char* object) {
  std::vector<std::string> values;
  FcChar8* value = nullptr;
  for (int i = 0; FcPatternGetString(pattern, object, i, &value) == FcResultMatch; ++i) {
    values.emplace_back(reinterpret_cast<const char*>(value));
  }
  return values;
}

int patternInteger(FcPattern* pattern, const char* object, int fallback) {
  int value = fallback;
  if (FcPatternGetInteger(pattern, object, 0, &value) != FcResultMatch) return fallback;
  return value;
}

Face faceFromPattern(FcPattern* pattern) {
  Face face;
  face.families = patternStrings(pattern, FC_FAMILY);
  face.family = face.families.empty() ? "" : face.families.front();
  const auto styles = patternStrings(pattern, FC_STYLE);
  face.style = styles.empty() ? "" : styles.front();
  const auto postScript = patternStrings(pattern, FC_POSTSCRIPT_NAME);
  face.postScriptName = postScript.empty() ? "" : postScript.front();
  face.fullNames = patternStrings(pattern, FC_FULLNAME);
  const auto files = patternStrings(pattern, FC_FILE);
  face.file = files.empty() ? "" : files.front();
  face.index = patternInteger(pattern, FC_INDEX, 0);
  face.weight = patternInteger(pattern, FC_WEIGHT, FC_WEIGHT_REGULAR);
  face.slant = patternInteger(pattern, FC_SLANT, FC_SLANT_ROMAN);
  face.width = patternInteger(pattern, FC_WIDTH, FC_WIDTH_NORMAL);
  face.pattern = pattern;
  return face;
}

// Every installed face, read once per process, in a stable order.
class FaceIndex {
 public:
  static const FaceIndex& shared() {
    static const FaceIndex index;
    return index;
  }

  const Face* faceNamed(const std::string& name) const {
    const auto it = byName_.find(name);
    return it == byName_.end() ? nullptr : &faces_[it->second];
  }

  std::vector<const Face*> facesOfFamily(const std::string& family) const {
    std::vector<const Face*> members;
    for (const auto& face : faces_) {
      if (std::find(face.families.begin(), face.families.end(), family) != face.families.end()) members.push_back(&face);
    }
    return members;
  }

  const Face* systemFace() const { return systemFace_ ? &*systemFace_ : nullptr; }

  ~FaceIndex() {
    for (const auto& face : faces_) FcPatternDestroy(face.pattern);
    if (systemFace_) FcPatternDestroy(systemFace_->pattern);
  }
  FaceIndex(const FaceIndex&) = delete;
  FaceIndex& operator=(const FaceIndex&) = delete;

 private:
  FaceIndex() {
    if (!FcInit()) {
      PXLogError("Could not initialise the font configuration");
      return;
    }
    loadFaces();
    loadSystemFace();
  }

  void loadFaces() {
    FcPattern* all = FcPatternCreate();
    FcObjectSet* objects = FcObjectSetBuild(FC_FAMILY, FC_STYLE, FC_POSTSCRIPT_NAME, FC_FULLNAME, FC_FILE, FC_INDEX,
                                            FC_WEIGHT, FC_SLANT, FC_WIDTH, FC_FAMILYLANG, FC_STYLELANG, nullptr);
    FcFontSet* set = FcFontList(nullptr, all, objects);
    FcObjectSetDestroy(objects);
    FcPatternDestroy(all);
    if (!set) return;
    for (int i = 0; i < set->nfont; ++i) {
      FcPatternReference(set->fonts[i]);
      faces_.push_back(faceFromPattern(set->fonts[i]));
    }
    FcFontSetDestroy(set);
    // Weight, slant, width, then name: the order a font manager lists a
    // family in, and the same on every run.
    std::sort(faces_.begin(), faces_.end(), [](const Face& a, const Face& b) {
      return std::tie(a.weight, a.slant, a.width, a.postScriptName, a.file, a.index) <
             std::tie(b.weight, b.slant, b.width, b.postScriptName, b.file, b.index);
    });
    for (size_t i = 0; i < faces_.size(); ++i) {
      byName_.try_emplace(faces_[i].postScriptName, i);
      for (const auto& full : faces_[i].fullNames) byName_.try_emplace(full, i);
    }
    byName_.erase("");
  }

  void loadSystemFace() {
    FcPattern* request = FcNameParse(reinterpret_cast<const FcChar8*>("sans-serif"));
    FcConfigSubstitute(nullptr, request, FcMatchPattern);
    FcDefaultSubstitute(request);
    FcResult result = FcResultNoMatch;
    FcPattern* match = FcFontMatch(nullptr, request, &result);
    FcPatternDestroy(request);
    if (!match) {
      PXLogWarn("No system font: the font configuration has no face for sans-serif");
      return;
    }
    systemFace_ = faceFromPattern(match);  // keeps the match's reference
  }

  std::vector<Face> faces_;
  std::unordered_map<std::string, size_t> byName_;
  std::optional<Face> systemFace_;
};

PXFont fontFromFace(const Face& face, double size) {
  return PXFont{face.family, face.postScriptName, face.style, size, face.file, face.index};
}

// Design metrics of one face file, read once.
struct FaceMetrics {
  double ascender = 0, descender = 0, height = 0, unitsPerEm = 0;
};

class MetricsCache {
 public:
  static MetricsCache& shared() {
    static MetricsCache cache;
    return cache;
  }

  std::optional<FaceMetrics> metrics(const std::string& file, int index) {
    std::lock_guard lock(mutex_);
    const auto key = std::make_pair(file, index);
    if (auto it = cache_.find(key); it != cache_.end()) return it->second;
    auto metrics = load(file, index);
    cache_.emplace(key, metrics);
    return metrics;
  }

 private:
  MetricsCache() {
    if (FT_Init_FreeType(&library_) != 0) library_ = nullptr;
  }

  std::optional<FaceMetrics> load(const std::string& file, int index) {
    if (!library_ || file.empty()) return std::nullopt;
    FT_Face face = nullptr;
    if (FT_New_Face(library_, file.c_str(), index, &face) != 0 || !face) {
      PXLogWarn("Could not read font file {}", file);
      return std::nullopt;
    }
    std::optional<FaceMetrics> metrics;
    if (face->units_per_EM > 0) {
      metrics = FaceMetrics{double(face->ascender), double(face->descender), double(face->height),
                            double(face->units_per_EM)};
    }
    FT_Done_Face(face);
    return metrics;
  }

  std::mutex mutex_;
  FT_Library library_ = nullptr;
  std::map<std::pair<std::string, int>, std::optional<FaceMetrics>> cache_;
};

double lineHeightFromMetrics(const FaceMetrics& metrics, double size) {
  const double lineGap = std::max(0.0, metrics.height - (metrics.ascender - metrics.descender));
  return (metrics.ascender - metrics.descender + lineGap) * size / metrics.unitsPerEm;
}

// MARK: - Layout

struct GObjectDeleter {
  void operator()(void* object) const { g_object_unref(object); }
};

// The one layout context of the process; Pango objects are not shared
// between threads, so every measurement holds the lock.
class LayoutEngine {
 public:
  static LayoutEngine& shared() {
    static LayoutEngine engine;
    return engine;
  }

  std::mutex mutex;
  PangoContext* context() const { return context_.get(); }

 private:
  LayoutEngine() {
    PangoFontMap* map = pango_ft2_font_map_new();
    if (!map) return;
    fontMap_.reset(map);
    // Points are layout units: 72 dots per inch, no hinting, no rounding.
    pango_ft2_font_map_set_resolution(PANGO_FT2_FONT_MAP(map), 72, 72);
    pango_fc_font_map_set_default_substitute(PANGO_FC_FONT_MAP(map), &LayoutEngine::unhinted, nullptr, nullptr);
    context_.reset(pango_font_map_create_context(map));
    if (context_) pango_context_set_round_glyph_positions(context_.get(), FALSE);
  }

  static void unhinted(FcPattern* pattern, gpointer) {
    FcPatternDel(pattern, FC_HINTING);
    FcPatternAddBool(pattern, FC_HINTING, FcFalse);
    FcPatternDel(pattern, FC_HINT_STYLE);
    FcPatternAddInteger(pattern, FC_HINT_STYLE, FC_HINT_NONE);
  }

  std::unique_ptr<PangoFontMap, GObjectDeleter> fontMap_;
  std::unique_ptr<PangoContext, GObjectDeleter> context_;
};

constexpr double kDefaultFontSize = 12;
// Layout works in 1/1024 points in 32-bit integers: sizes and spacing are
// kept well inside that range.
constexpr double kMaxLayoutSize = 10000;

// The face and size a run is set in: its font when installed, else the
// system font of its size (or of the default size when it names none).
struct RunFont {
  PXFont font;
  const Face* face = nullptr;
};

RunFont runFont(const PXTextAttributes& attributes) {
  const FaceIndex& index = FaceIndex::shared();
  double size = attributes.font ? attributes.font->size : kDefaultFontSize;
  // A size of zero asks for the default size, as font descriptors do.
  if (!std::isfinite(size) || size <= 0) size = kDefaultFontSize;
  size = std::min(size, kMaxLayoutSize);
  if (attributes.font) {
    if (const Face* face = index.faceNamed(attributes.font->name)) return {fontFromFace(*face, size), face};
  }
  return {PXSystemFontOfSize(size), index.systemFace()};
}

struct PangoAttrListDeleter {
  void operator()(PangoAttrList* list) const { pango_attr_list_unref(list); }
};

std::unique_ptr<PangoAttrList, PangoAttrListDeleter> attributeList(const PXAttributedString& text,
                                                                  const std::string& utf8) {
  std::unique_ptr<PangoAttrList, PangoAttrListDeleter> list(pango_attr_list_new());
  for (const auto& run : text.runs()) {
    const auto start = static_cast<guint>(PXUTF8OffsetForUTF16Index(utf8, run.location));
    const auto end = static_cast<guint>(PXUTF8OffsetForUTF16Index(utf8, run.location + run.length));
    const RunFont font = runFont(run.attributes);
    PangoFontDescription* description = font.face ? pango_fc_font_description_from_pattern(font.face->pattern, FALSE)
                                                  : pango_font_description_from_string("sans-serif");
    pango_font_description_set_absolute_size(description, font.font.size * PANGO_SCALE);
    PangoAttribute* fontAttribute = pango_attr_font_desc_new(description);
    pango_font_description_free(description);
    fontAttribute->start_index = start;
    fontAttribute->end_index = end;
    pango_attr_list_insert(list.get(), fontAttribute);
    if (run.attributes.kerning && std::isfinite(*run.attributes.kerning)) {
      const double kerning = std::clamp(*run.attributes.kerning, -kMaxLayoutSize, kMaxLayoutSize);
      PangoAttribute* spacing = pango_attr_letter_spacing_new(static_cast<int>(kerning * PANGO_SCALE));
      spacing->start_index = start;
      spacing->end_index = end;
      pango_attr_list_insert(list.get(), spacing);
    }
  }
  return list;
}

// Height of one line: the tallest default line height among the runs that
// touch it, then the paragraph's multiple, minimum and maximum.
double lineHeight(const PXAttributedString& text, size_t fromUnit, size_t toUnit) {
  double height = 0;
  const PXParagraphStyle* style = nullptr;
  const size_t probe = std::min(fromUnit, text.length() == 0 ? 0 : text.length() - 1);
  if (const PXTextAttributes* first = text.attributesAtIndex(probe)) {
    if (first->paragraphStyle) style = &*first->paragraphStyle;
  }
  for (const auto& run : text.runs()) {
    const bool touches = run.location < std::max(toUnit, fromUnit + 1) && run.location + run.length > fromUnit;
    const bool lastForEmptyTail = fromUnit >= text.length() && &run == &text.runs().back();
    if (!touches && !lastForEmptyTail) continue;
    height = std::max(height, PXDefaultLineHeightForFont(runFont(run.attributes).font).value_or(0));
  }
  if (text.runs().empty()) height = PXDefaultLineHeightForFont(PXSystemFontOfSize(kDefaultFontSize)).value_or(0);
  if (style) {
    if (style->lineHeightMultiple && *style->lineHeightMultiple > 0) height *= *style->lineHeightMultiple;
    if (style->minimumLineHeight && *style->minimumLineHeight > 0) height = std::max(height, *style->minimumLineHeight);
    if (style->maximumLineHeight && *style->maximumLineHeight > 0) height = std::min(height, *style->maximumLineHeight);
    if (style->lineSpacing && *style->lineSpacing > 0) height += *style->lineSpacing;
  }
  return height;
}

// Kerning adds space after every character, the last one of a line too;
// the layout engine leaves that last one out.
double trailingKerning(const PXAttributedString& text, size_t fromUnit, size_t toUnit) {
  if (toUnit <= fromUnit) return 0;
  const PXTextAttributes* attributes = text.attributesAtIndex(toUnit - 1);
  if (!attributes || !attributes->kerning || !std::isfinite(*attributes->kerning)) return 0;
  return std::clamp(*attributes->kerning, -kMaxLayoutSize, kMaxLayoutSize);
}

double paragraphSpacingAfter(const PXAttributedString& text, size_t unit) {
  const PXTextAttributes* attributes = text.attributesAtIndex(unit);
  if (!attributes || !attributes->paragraphStyle) return 0;
  return std::max(0.0, attributes->paragraphStyle->paragraphSpacing.value_or(0));
}

}  // namespace

std::optional<PXFont> PXFontWithName(const std::string& name, double size) {
  if (name.empty()) return std::nullopt;
  const Face* face = FaceIndex::shared().faceNamed(name);
  if (!face) return std::nullopt;
  return fontFromFace(*face, size);
}

PXFont PXSystemFontOfSize(double size) {
  if (!std::isfinite(size)) size = 0;  // keeps the cache's ordering sound
  static std::mutex mutex;
  static std::map<double, PXFont> cache;
  std::lock_guard lock(mutex);
  if (auto it = cache.find(size); it != cache.end()) return it->second;
  const Face* face = FaceIndex::shared().systemFace();
  PXFont font = face ? fontFromFace(*face, size) : PXFont{"", "", "", size, "", 0};
  cache.emplace(size, font);
  return font;
}

std::vector<PXFontFamilyMember> PXAvailableMembersOfFontFamily(const std::string& family) {
  std::vector<PXFontFamilyMember> members;
  for (const Face* face : FaceIndex::shared().facesOfFamily(family)) {
    const bool seen = std::any_of(members.begin(), members.end(),
                                  [&](const PXFontFamilyMember& m) { return m.postScriptName == face->postScriptName; });
    if (!seen) members.push_back(PXFontFamilyMember{face->postScriptName, face->style, face->weight, face->slant});
  }
  return members;
}

std::optional<double> PXDefaultLineHeightForFont(const PXFont& font) {
  if (font.file.empty() || !std::isfinite(font.size)) return std::nullopt;
  auto metrics = MetricsCache::shared().metrics(font.file, font.faceIndex);
  if (!metrics) return std::nullopt;
  const double height = lineHeightFromMetrics(*metrics, font.size);
  if (!std::isfinite(height)) return std::nullopt;
  return height;
}

std::optional<PXUsedRect> PXMeasureAttributedString(const PXAttributedString& text,
                                                    const PXTextMeasureOptions& options) {
  // Pango wants valid UTF-8; the round trip keeps UTF-16 positions intact.
  const std::string utf8 = PXUTF8FromUTF16(PXUTF16FromUTF8(text.string()));
  const double padding = std::isfinite(options.lineFragmentPadding) ? options.lineFragmentPadding : 0;

  LayoutEngine& engine = LayoutEngine::shared();
  std::lock_guard lock(engine.mutex);
  if (!engine.context()) {
    PXLogError("Could not measure text: no text layout engine");
    return std::nullopt;
  }
  std::unique_ptr<PangoLayout, GObjectDeleter> layout(pango_layout_new(engine.context()));
  pango_layout_set_text(layout.get(), utf8.c_str(), static_cast<int>(utf8.size()));
  auto attributes = attributeList(text, utf8);
  pango_layout_set_attributes(layout.get(), attributes.get());
  if (options.wrapWidth && std::isfinite(*options.wrapWidth)) {
    const double room = std::max(1.0, *options.wrapWidth - 2 * padding);
    pango_layout_set_width(layout.get(), static_cast<int>(std::min(room, 1.0e6) * PANGO_SCALE));
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
  } else {
    pango_layout_set_width(layout.get(), -1);
  }

  PXUsedRect used;
  const int count = pango_layout_get_line_count(layout.get());
  for (int i = 0; i < count; ++i) {
    PangoLayoutLine* line = pango_layout_get_line_readonly(layout.get(), i);
    PangoRectangle logical{};
    pango_layout_line_get_extents(line, nullptr, &logical);
    const size_t from = PXUTF16IndexForUTF8Offset(utf8, static_cast<size_t>(line->start_index));
    const size_t to = PXUTF16IndexForUTF8Offset(utf8, static_cast<size_t>(line->start_index + line->length));
    used.width = std::max(used.width, double(logical.width) / PANGO_SCALE + trailingKerning(text, from, to));
    used.height += lineHeight(text, from, to);
    PangoLayoutLine* next = i + 1 < count ? pango_layout_get_line_readonly(layout.get(), i + 1) : nullptr;
    if (next && next->is_paragraph_start && to > 0) used.height += paragraphSpacingAfter(text, to - 1);
  }
  used.width += 2 * padding;
  return used;
}

}  // namespace plexa
