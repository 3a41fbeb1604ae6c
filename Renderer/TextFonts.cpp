#include "TextFonts.h"

#include "TextLayout.h"

#include <fontconfig/fontconfig.h>
#include <pango/pangofc-fontmap.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <mutex>
#include <optional>

namespace plexa::render {

namespace {

constexpr const char* kCJKFallbackFamily = "Noto Sans CJK JP";

struct FaceFields {
  std::string family, postScriptName, file;
  int index = 0, weight = FC_WEIGHT_REGULAR, slant = FC_SLANT_ROMAN, width = FC_WIDTH_NORMAL;
  bool sameFace = false;  // a stand-in that is the named face under another name ("Play" for "Play-Regular")
};

std::string patternString(FcPattern* pattern, const char* object) {
  FcChar8* value = nullptr;
  if (FcPatternGetString(pattern, object, 0, &value) != FcResultMatch || !value) return {};
  return reinterpret_cast<const char*>(value);
}

int patternInteger(FcPattern* pattern, const char* object, int fallback) {
  int value = fallback;
  if (FcPatternGetInteger(pattern, object, 0, &value) == FcResultMatch) return value;
  double real = fallback;
  if (FcPatternGetDouble(pattern, object, 0, &real) == FcResultMatch) return static_cast<int>(real);
  return fallback;
}

FaceFields fieldsOf(FcPattern* pattern) {
  FaceFields fields;
  fields.family = patternString(pattern, FC_FAMILY);
  fields.postScriptName = patternString(pattern, FC_POSTSCRIPT_NAME);
  fields.file = patternString(pattern, FC_FILE);
  fields.index = patternInteger(pattern, FC_INDEX, 0);
  fields.weight = patternInteger(pattern, FC_WEIGHT, FC_WEIGHT_REGULAR);
  fields.slant = patternInteger(pattern, FC_SLANT, FC_SLANT_ROMAN);
  fields.width = patternInteger(pattern, FC_WIDTH, FC_WIDTH_NORMAL);
  return fields;
}

// The installed face at `file`/`index`, as fontconfig lists it.
std::optional<FaceFields> installedFace(const std::string& file, int index) {
  if (file.empty()) return std::nullopt;
  FcPattern* query = FcPatternCreate();
  FcPatternAddString(query, FC_FILE, reinterpret_cast<const FcChar8*>(file.c_str()));
  FcPatternAddInteger(query, FC_INDEX, index);
  FcObjectSet* objects = FcObjectSetBuild(FC_FAMILY, FC_POSTSCRIPT_NAME, FC_FILE, FC_INDEX, FC_WEIGHT, FC_SLANT,
                                          FC_WIDTH, nullptr);
  FcFontSet* set = FcFontList(nullptr, query, objects);
  std::optional<FaceFields> result;
  if (set && set->nfont > 0) result = fieldsOf(set->fonts[0]);
  if (set) FcFontSetDestroy(set);
  FcObjectSetDestroy(objects);
  FcPatternDestroy(query);
  return result;
}

std::string lowercased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool contains(const std::string& text, const char* word) { return text.find(word) != std::string::npos; }

// "Roboto-MediumItalic" → family "Roboto", style "MediumItalic".
std::pair<std::string, std::string> splitName(const std::string& name) {
  std::string trimmed = name;
  while (!trimmed.empty() && trimmed.front() == '.') trimmed.erase(trimmed.begin());
  const size_t dash = trimmed.find('-');
  if (dash == std::string::npos) return {trimmed, ""};
  return {trimmed.substr(0, dash), trimmed.substr(dash + 1)};
}

// Hiragino numbers its weights W0 (thinnest) to W9 (heaviest); W3 is the
// text weight and W6 the bold one.
std::optional<int> numberedWeight(const std::string& style) {
  static const int weights[] = {FC_WEIGHT_THIN,     FC_WEIGHT_EXTRALIGHT, FC_WEIGHT_LIGHT, FC_WEIGHT_REGULAR,
                                FC_WEIGHT_REGULAR,  FC_WEIGHT_MEDIUM,     FC_WEIGHT_DEMIBOLD, FC_WEIGHT_BOLD,
                                FC_WEIGHT_EXTRABOLD, FC_WEIGHT_BLACK};
  for (size_t i = 0; i + 1 < style.size(); ++i) {
    const bool starts = i == 0 || !std::isalpha(static_cast<unsigned char>(style[i - 1]));
    const bool ends = i + 2 == style.size() || !std::isdigit(static_cast<unsigned char>(style[i + 2]));
    if (starts && ends && style[i] == 'w' && std::isdigit(static_cast<unsigned char>(style[i + 1])))
      return weights[style[i + 1] - '0'];
  }
  return std::nullopt;
}

int weightFromStyle(const std::string& name) {
  const std::string style = lowercased(name);
  if (auto numbered = numberedWeight(style)) return *numbered;
  if (contains(style, "thin") || contains(style, "hairline")) return FC_WEIGHT_THIN;
  if (contains(style, "extralight") || contains(style, "ultralight")) return FC_WEIGHT_EXTRALIGHT;
  if (contains(style, "light")) return FC_WEIGHT_LIGHT;
  if (contains(style, "semibold") || contains(style, "demibold") || contains(style, "demi")) return FC_WEIGHT_DEMIBOLD;
  if (contains(style, "extrabold") || contains(style, "ultrabold") || contains(style, "heavy")) return FC_WEIGHT_EXTRABOLD;
  if (contains(style, "black")) return FC_WEIGHT_BLACK;
  if (contains(style, "bold")) return FC_WEIGHT_BOLD;
  if (contains(style, "medium")) return FC_WEIGHT_MEDIUM;
  if (contains(style, "book")) return FC_WEIGHT_BOOK;
  return FC_WEIGHT_REGULAR;
}

int slantFromStyle(const std::string& name) {
  const std::string style = lowercased(name);
  if (contains(style, "italic") || (style.size() >= 2 && style.ends_with("it"))) return FC_SLANT_ITALIC;
  if (contains(style, "oblique")) return FC_SLANT_OBLIQUE;
  return FC_SLANT_ROMAN;
}

// "HelveticaNeue" → "Helvetica Neue".
std::string spacedWords(const std::string& family) {
  std::string spaced;
  for (size_t i = 0; i < family.size(); ++i) {
    const auto c = static_cast<unsigned char>(family[i]);
    if (i > 0 && std::isupper(c) && std::islower(static_cast<unsigned char>(family[i - 1]))) spaced += ' ';
    spaced += family[i];
  }
  return spaced;
}

// macOS faces documents use often, installed families that look and
// measure like them, and the missing face's own vertical metrics as Macs
// read them (hhea ascender, descender and line gap in ems; 0 when not
// known), so that lines keep Sketch's height and baseline whatever stands in.
struct LookAlike {
  const char* prefix;  // lower-case family prefix without spaces
  std::vector<std::string> families;
  double ascent = 0, descent = 0, lineGap = 0;
  double glyphScale = 1, advanceScale = 1;  // see TextFace
};

const std::vector<LookAlike>& lookAlikes() {
  static const std::vector<LookAlike> table = {
      {"sfmono", {"DejaVu Sans Mono", "monospace"}, 0.952, 0.241},
      // Chosen by measuring against Sketch's exports: Open Sans is closest to
      // SF's text cut and to Avenir Next, Lato to SF's display cut.
      {"sfprotext", {"Open Sans", "Roboto"}, 0.952, 0.241},
      {"sfuitext", {"Open Sans", "Roboto"}, 0.952, 0.241},
      {"sfprodisplay", {"Lato", "Roboto"}, 0.952, 0.241},
      {"sfuidisplay", {"Lato", "Roboto"}, 0.952, 0.241},
      {"sf", {"Roboto", "Open Sans"}, 0.952, 0.241},
      {"sanfrancisco", {"Roboto", "Open Sans"}, 0.952, 0.241},
      {"applesystemuifont", {"Roboto", "Open Sans"}, 0.952, 0.241},
      {"helvetica", {"Liberation Sans", "Arimo", "Roboto"}},
      {"arial", {"Liberation Sans", "Arimo", "Roboto"}},
      {"avenir", {"Open Sans", "Lato"}, 1.0, 0.366},
      {"futura", {"Lato", "Open Sans"}},
      // Athelas is a serif, yet Sketch's exports of it match Lato best.
      {"athelas", {"Lato", "Roboto Slab"}, 0.857, 0.25},
      {"myriad", {"Open Sans", "Lato"}},
      {"lucidagrande", {"Open Sans", "DejaVu Sans"}, 0.967, 0.211},
      // Hiragino's kana and kanji sit in a one-em line. Its Latin is wide:
      // of the installed faces DejaVu Sans comes closest, word for word
      // within 1% on average (Open Sans and Noto Sans CJK JP, both 15%
      // narrower, are further off). Hiragino's letters are about 5% taller
      // than DejaVu's at the same size, so they are drawn that much larger,
      // spaced to keep the measured advances.
      {"hiraginosans", {"DejaVu Sans", "Noto Sans CJK JP"}, 0.88, 0.12, 0.5, 1.05, 1.01},
      {"hirakaku", {"DejaVu Sans", "Noto Sans CJK JP"}, 0.88, 0.12, 0.5, 1.05, 1.01},
      {"hiramaru", {"DejaVu Sans", "Noto Sans CJK JP"}, 0.88, 0.12, 0.5, 1.05, 1.01},
      {"hiramin", {"Noto Serif CJK JP", "Noto Sans CJK JP", "serif"}, 0.88, 0.12, 0.5},
      {"hiragino", {"DejaVu Sans", "Noto Sans CJK JP"}, 0.88, 0.12, 0.5, 1.05, 1.01},
      {"pingfang", {"Noto Sans CJK SC", "Droid Sans Fallback", "Roboto"}},
      {"menlo", {"DejaVu Sans Mono", "monospace"}, 0.928, 0.236},
      {"monaco", {"DejaVu Sans Mono", "monospace"}},
      {"courier", {"Liberation Mono", "DejaVu Sans Mono", "monospace"}},
      {"times", {"Liberation Serif", "DejaVu Serif", "serif"}},
      {"georgia", {"DejaVu Serif", "serif"}},
  };
  return table;
}

std::string familyKey(const std::string& requestedName) {
  std::string key = lowercased(splitName(requestedName).first);
  key.erase(std::remove(key.begin(), key.end(), ' '), key.end());
  return key;
}

const LookAlike* lookAlikeFor(const std::string& requestedName) {
  const std::string key = familyKey(requestedName);
  for (const auto& alike : lookAlikes()) {
    if (key.starts_with(alike.prefix)) return &alike;
  }
  return nullptr;
}

std::optional<FaceFields> matchFallback(const std::string& requestedName) {
  const std::string style = splitName(requestedName).second;
  const int weight = weightFromStyle(style.empty() ? requestedName : style);
  const int slant = slantFromStyle(style);
  FcPattern* pattern = FcPatternCreate();
  for (const auto& family : fallbackFamiliesFor(requestedName))
    FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(family.c_str()));
  FcPatternAddInteger(pattern, FC_WEIGHT, weight);
  FcPatternAddInteger(pattern, FC_SLANT, slant);
  FcConfigSubstitute(nullptr, pattern, FcMatchPattern);
  FcDefaultSubstitute(pattern);
  FcResult result = FcResultNoMatch;
  FcPattern* match = FcFontMatch(nullptr, pattern, &result);
  std::optional<FaceFields> fields;
  if (match) {
    fields = fieldsOf(match);
    FcPatternDestroy(match);
    fields->sameFace = familyKey(fields->family) == familyKey(requestedName) && fields->weight == weight &&
                       fields->slant == slant;
    // Drawing asks for the weight and slant the name gives: each family in
    // the description (the stand-in, the CJK fallback) then offers its
    // nearest face, and faces a family lacks are synthesised.
    fields->weight = weight;
    fields->slant = slant;
  }
  FcPatternDestroy(pattern);
  return fields;
}

FaceFields faceFieldsFor(const std::string& requestedName, bool& substituted) {
  substituted = false;
  if (!requestedName.empty()) {
    if (auto font = PXFontWithName(requestedName, 12)) {
      if (auto fields = installedFace(font->file, font->faceIndex)) return *fields;
    }
    substituted = true;
    if (auto fields = matchFallback(requestedName)) {
      substituted = !fields->sameFace;
      return *fields;
    }
  }
  const PXFont system = PXSystemFontOfSize(12);
  if (auto fields = installedFace(system.file, system.faceIndex)) return *fields;
  FaceFields none;
  none.family = system.family.empty() ? "sans-serif" : system.family;
  return none;
}

// Font look-ups go through fontconfig's whole list, so each name is resolved
// once per process; the installed fonts do not change while we run.
class FaceCache {
 public:
  static FaceCache& shared() {
    static FaceCache cache;
    return cache;
  }

  TextFace face(const std::string& requestedName) {
    std::lock_guard guard(lock_);
    if (auto it = faces_.find(requestedName); it != faces_.end()) return it->second;
    bool substituted = false;
    const FaceFields fields = faceFieldsFor(requestedName, substituted);
    TextFace face;
    face.requestedName = requestedName;
    face.family = fields.family;
    face.postScriptName = fields.postScriptName;
    face.file = fields.file;
    face.faceIndex = fields.index;
    face.weight = fields.weight;
    face.slant = fields.slant;
    face.width = fields.width;
    face.substituted = substituted;
    const LookAlike* alike = substituted ? lookAlikeFor(requestedName) : nullptr;
    if (alike && alike->ascent > 0) {
      face.ascentEm = alike->ascent;
      face.descentEm = alike->descent;
      face.lineGapEm = alike->lineGap;
    }
    if (alike) face.glyphScale = alike->glyphScale, face.advanceScale = alike->advanceScale;
    faces_.emplace(requestedName, face);
    return face;
  }

 private:
  std::mutex lock_;
  std::map<std::string, TextFace> faces_;
};

}  // namespace

std::vector<std::string> fallbackFamiliesFor(const std::string& requestedName) {
  const std::string family = splitName(requestedName).first;
  std::vector<std::string> families;
  if (!family.empty()) {
    families.push_back(family);
    if (spacedWords(family) != family) families.push_back(spacedWords(family));
  }
  if (const LookAlike* alike = lookAlikeFor(requestedName))
    families.insert(families.end(), alike->families.begin(), alike->families.end());
  families.push_back("sans-serif");
  return families;
}

TextFace resolveTextFace(const std::string& requestedName, double size) {
  TextFace face = FaceCache::shared().face(requestedName);
  face.size = size;
  return face;
}

PangoFontDescription* pangoDescriptionForFace(const TextFace& face) {
  FcPattern* pattern = FcPatternCreate();
  FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(face.family.c_str()));

  FcPatternAddInteger(pattern, FC_WEIGHT, face.weight);
  FcPatternAddInteger(pattern, FC_SLANT, face.slant);
  FcPatternAddInteger(pattern, FC_WIDTH, face.width);
  PangoFontDescription* description = pango_fc_font_description_from_pattern(pattern, FALSE);
  FcPatternDestroy(pattern);
  // Characters the face lacks (Japanese in a Latin face) come from here
  // rather than from whatever fontconfig ranks next.
  if (face.family != kCJKFallbackFamily && face.family.find(',') == std::string::npos)
    pango_font_description_set_family(description, (face.family + "," + kCJKFallbackFamily).c_str());
  pango_font_description_set_absolute_size(description, face.size * PANGO_SCALE);
  return description;
}

}  // namespace plexa::render
