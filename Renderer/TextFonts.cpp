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

struct FaceFields {
  std::string family, postScriptName, file;
  int index = 0, weight = FC_WEIGHT_REGULAR, slant = FC_SLANT_ROMAN, width = FC_WIDTH_NORMAL;
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

int weightFromStyle(const std::string& name) {
  const std::string style = lowercased(name);
  if (contains(style, "thin") || contains(style, "hairline")) return FC_WEIGHT_THIN;
  if (contains(style, "extralight") || contains(style, "ultralight")) return FC_WEIGHT_EXTRALIGHT;
  if (contains(style, "light")) return FC_WEIGHT_LIGHT;
  if (contains(style, "semibold") || contains(style, "demibold") || contains(style, "demi")) return FC_WEIGHT_DEMIBOLD;
  if (contains(style, "extrabold") || contains(style, "ultrabold") || contains(style, "heavy")) return FC_WEIGHT_EXTRABOLD;
  if (contains(style, "black")) return FC_WEIGHT_BLACK;
  if (contains(style, "bold")) return FC_WEIGHT_BOLD;
  if (contains(style, "medium")) return FC_WEIGHT_MEDIUM;
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

// macOS faces documents use often, and installed families that look and
// measure like them.
struct LookAlike {
  const char* prefix;  // lower-case family prefix without spaces
  std::vector<std::string> families;
};

const std::vector<LookAlike>& lookAlikes() {
  static const std::vector<LookAlike> table = {
      {"sfmono", {"DejaVu Sans Mono", "monospace"}},
      {"sf", {"Roboto", "Open Sans"}},
      {"sanfrancisco", {"Roboto", "Open Sans"}},
      {"applesystemuifont", {"Roboto", "Open Sans"}},
      {"helvetica", {"Liberation Sans", "Arimo", "Roboto"}},
      {"arial", {"Liberation Sans", "Arimo", "Roboto"}},
      {"avenir", {"Lato", "Open Sans"}},
      {"futura", {"Lato", "Open Sans"}},
      {"myriad", {"Open Sans", "Lato"}},
      {"lucidagrande", {"Open Sans", "DejaVu Sans"}},
      {"hiragino", {"Noto Sans CJK JP", "Droid Sans Fallback", "Roboto"}},
      {"pingfang", {"Noto Sans CJK SC", "Droid Sans Fallback", "Roboto"}},
      {"menlo", {"DejaVu Sans Mono", "monospace"}},
      {"monaco", {"DejaVu Sans Mono", "monospace"}},
      {"courier", {"Liberation Mono", "DejaVu Sans Mono", "monospace"}},
      {"times", {"Liberation Serif", "DejaVu Serif", "serif"}},
      {"georgia", {"DejaVu Serif", "serif"}},
  };
  return table;
}

std::optional<FaceFields> matchFallback(const std::string& requestedName) {
  FcPattern* pattern = FcPatternCreate();
  for (const auto& family : fallbackFamiliesFor(requestedName))
    FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(family.c_str()));
  const std::string style = splitName(requestedName).second;
  FcPatternAddInteger(pattern, FC_WEIGHT, weightFromStyle(style.empty() ? requestedName : style));
  FcPatternAddInteger(pattern, FC_SLANT, slantFromStyle(style));
  FcConfigSubstitute(nullptr, pattern, FcMatchPattern);
  FcDefaultSubstitute(pattern);
  FcResult result = FcResultNoMatch;
  FcPattern* match = FcFontMatch(nullptr, pattern, &result);
  std::optional<FaceFields> fields;
  if (match) {
    fields = fieldsOf(match);
    FcPatternDestroy(match);
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
    if (auto fields = matchFallback(requestedName)) return *fields;
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
  std::string key = lowercased(family);
  key.erase(std::remove(key.begin(), key.end(), ' '), key.end());
  for (const auto& alike : lookAlikes()) {
    if (!key.starts_with(alike.prefix)) continue;
    families.insert(families.end(), alike.families.begin(), alike.families.end());
    break;
  }
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
  pango_font_description_set_absolute_size(description, face.size * PANGO_SCALE);
  return description;
}

}  // namespace plexa::render
