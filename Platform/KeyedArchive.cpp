#include "KeyedArchive.h"

#include "Log.h"

#include <plist/plist.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <unordered_map>

namespace plexa {

namespace {

// Real archives of text layers are a few kilobytes; these bounds keep a
// hostile one from costing more than a little memory and time.
constexpr size_t kMaxArchiveBytes = 8 * 1024 * 1024;
constexpr size_t kMaxAttributeRuns = 100000;

// MARK: - Base64

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// MARK: - libplist ownership

struct PlistDeleter {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

bool isType(plist_t node, plist_type type) { return node && plist_get_node_type(node) == type; }

std::optional<std::string_view> plistString(plist_t node) {
  if (!isType(node, PLIST_STRING)) return std::nullopt;
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (!text) return std::nullopt;
  return std::string_view(text, length);
}

std::optional<std::string_view> plistData(plist_t node) {
  if (!isType(node, PLIST_DATA)) return std::nullopt;
  uint64_t length = 0;
  const char* bytes = plist_get_data_ptr(node, &length);
  if (!bytes && length > 0) return std::nullopt;
  return std::string_view(bytes ? bytes : "", length);
}

// MARK: - Decoding

struct DecodeError {
  std::string reason;
};

// Reads one archive. Every object reference is resolved through `object`,
// which accepts only in-range UIDs that name a non-UID object, so no walk can
// loop: each decoder below descends a fixed number of levels by type.
class Unarchiver {
 public:
  explicit Unarchiver(plist_t objects) : objects_(objects), count_(plist_array_get_size(objects)) {}

  // The object a value stands for: UIDs are looked up, inline values are
  // themselves; "$null" (UID 0) and bad references are nullptr.
  plist_t object(plist_t value) const {
    if (!isType(value, PLIST_UID)) return value;
    uint64_t uid = 0;
    plist_get_uid_val(value, &uid);
    if (uid == 0 || uid >= count_) return nullptr;
    plist_t target = plist_array_get_item(objects_, static_cast<uint32_t>(uid));
    if (!target || isType(target, PLIST_UID)) return nullptr;
    return target;
  }

  plist_t member(plist_t dict, const char* key) const {
    if (!isType(dict, PLIST_DICT)) return nullptr;
    return object(plist_dict_get_item(dict, key));
  }

  std::optional<std::string> className(plist_t node) const {
    if (!isType(node, PLIST_DICT)) return std::nullopt;
    plist_t cls = member(node, "$class");
    auto name = plistString(cls ? plist_dict_get_item(cls, "$classname") : nullptr);
    if (!name) return std::nullopt;
    return std::string(*name);
  }

  // NSString / NSMutableString, inline or as an object.
  std::optional<std::string> string(plist_t node) const {
    if (auto inlineText = plistString(node)) return std::string(*inlineText);
    if (!isType(node, PLIST_DICT)) return std::nullopt;
    if (auto text = plistString(member(node, "NS.string"))) return std::string(*text);
    if (auto bytes = data(member(node, "NS.bytes"))) return *bytes;
    return std::nullopt;
  }

  // NSData inline, or NSData / NSMutableData as an object.
  std::optional<std::string> data(plist_t node) const {
    if (auto bytes = plistData(node)) return std::string(*bytes);
    if (!isType(node, PLIST_DICT)) return std::nullopt;
    if (auto bytes = plistData(member(node, "NS.data"))) return std::string(*bytes);
    return std::nullopt;
  }

  // Numbers, booleans; non-finite reals are refused.
  std::optional<double> number(plist_t node) const {
    if (isType(node, PLIST_REAL)) {
      double value = 0;
      plist_get_real_val(node, &value);
      if (!std::isfinite(value)) return std::nullopt;
      return value;
    }
    if (auto integral = integer(node)) return static_cast<double>(*integral);
    return std::nullopt;
  }

  std::optional<int64_t> integer(plist_t node) const {
    if (isType(node, PLIST_UINT)) {
      uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return static_cast<int64_t>(value);  // the binary form stores signed 64-bit values
    }
    if (isType(node, PLIST_BOOLEAN)) {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return value ? 1 : 0;
    }
    if (isType(node, PLIST_REAL)) {
      double value = 0;
      plist_get_real_val(node, &value);
      if (!std::isfinite(value) || std::fabs(value) > 9.0e18) return std::nullopt;
      return static_cast<int64_t>(value);
    }
    return std::nullopt;
  }

  // NSArray / NSMutableArray: the referenced elements (nullptr for "$null").
  std::optional<std::vector<plist_t>> array(plist_t node) const {
    plist_t elements = isType(node, PLIST_DICT) ? plist_dict_get_item(node, "NS.objects") : nullptr;
    if (!isType(elements, PLIST_ARRAY)) return std::nullopt;
    std::vector<plist_t> result;
    const uint32_t size = plist_array_get_size(elements);
    result.reserve(size);
    for (uint32_t i = 0; i < size; ++i) result.push_back(object(plist_array_get_item(elements, i)));
    return result;
  }

  // NSDictionary / NSMutableDictionary with string keys, in archive order.
  std::optional<std::vector<std::pair<std::string, plist_t>>> dictionary(plist_t node) const {
    if (!isType(node, PLIST_DICT)) return std::nullopt;
    plist_t keys = plist_dict_get_item(node, "NS.keys");
    plist_t values = plist_dict_get_item(node, "NS.objects");
    if (!isType(keys, PLIST_ARRAY) || !isType(values, PLIST_ARRAY)) return std::nullopt;
    const uint32_t size = plist_array_get_size(keys);
    if (plist_array_get_size(values) != size) return std::nullopt;
    std::vector<std::pair<std::string, plist_t>> result;
    result.reserve(size);
    for (uint32_t i = 0; i < size; ++i) {
      auto key = string(object(plist_array_get_item(keys, i)));
      if (!key) return std::nullopt;
      result.emplace_back(std::move(*key), object(plist_array_get_item(values, i)));
    }
    return result;
  }

  PXAttributedString attributedString(plist_t root) const;
  PXTextAttributes attributes(plist_t node) const;

 private:
  std::optional<PXFontDescriptor> fontDescriptor(plist_t node) const;
  std::optional<PXParagraphStyle> paragraphStyle(plist_t node) const;
  std::optional<PXColor> color(plist_t node) const;
  std::optional<PXColorDictionary> colorDictionary(plist_t node) const;

  plist_t objects_;
  uint32_t count_;
};

// "0.2 0.4 0.6 1" as NSColor stores component lists (C locale, NUL ended).
std::vector<double> parseComponents(std::string_view text) {
  std::vector<double> values;
  size_t i = 0;
  while (i < text.size() && values.size() < 8) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n')) ++i;
    if (i >= text.size() || text[i] == '\0') break;
    double value = 0;
    const auto [end, error] = std::from_chars(text.data() + i, text.data() + text.size(), value);
    if (error != std::errc() || !std::isfinite(value)) break;
    values.push_back(value);
    i = static_cast<size_t>(end - text.data());
  }
  return values;
}

std::optional<PXFontDescriptor> Unarchiver::fontDescriptor(plist_t node) const {
  if (!isType(node, PLIST_DICT)) return std::nullopt;
  if (plist_t attributes = member(node, "NSFontDescriptorAttributes")) {
    auto entries = dictionary(attributes);
    if (!entries) return std::nullopt;
    PXFontDescriptor descriptor;
    for (const auto& [key, value] : *entries) {
      if (key == "NSFontNameAttribute") descriptor.name = string(value).value_or("");
      if (key == "NSFontSizeAttribute") descriptor.size = number(value).value_or(0);
    }
    return descriptor;
  }
  // An NSFont stored in place of a descriptor names the same face.
  if (auto name = string(member(node, "NSName"))) {
    return PXFontDescriptor{*name, number(member(node, "NSSize")).value_or(0)};
  }
  return std::nullopt;
}

std::optional<PXParagraphStyle> Unarchiver::paragraphStyle(plist_t node) const {
  if (!isType(node, PLIST_DICT)) return std::nullopt;
  const auto cls = className(node);
  if (!cls || cls->find("ParagraphStyle") == std::string::npos) return std::nullopt;
  PXParagraphStyle style;
  // The archiver leaves out the default alignment, natural: absent stays
  // absent, which reads as natural.
  style.alignment = integer(member(node, "NSAlignment"));
  style.minimumLineHeight = number(member(node, "NSMinLineHeight"));
  style.maximumLineHeight = number(member(node, "NSMaxLineHeight"));
  style.paragraphSpacing = number(member(node, "NSParagraphSpacing"));
  style.paragraphSpacingBefore = number(member(node, "NSParagraphSpacingBefore"));
  style.lineSpacing = number(member(node, "NSLineSpacing"));
  style.lineHeightMultiple = number(member(node, "NSLineHeightMultiple"));
  return style;
}

std::optional<PXColor> Unarchiver::color(plist_t node) const {
  if (!isType(node, PLIST_DICT)) return std::nullopt;
  const auto space = integer(member(node, "NSColorSpace"));
  if (!space) return std::nullopt;
  const auto componentsFor = [&](const char* key) { return parseComponents(data(member(node, key)).value_or("")); };
  const auto withAlpha = [](PXColor color, const std::vector<double>& values, size_t count) {
    color.alpha = values.size() > count ? values[count] : 1.0;
    return color;
  };
  // A colour in a specific space (sRGB, or an embedded profile) keeps its
  // true components in NSComponents, alpha included; NSRGB / NSWhite then
  // only hold a calibrated approximation for older readers.
  plist_t customSpace = member(node, "NSCustomColorSpace");
  const auto components = componentsFor("NSComponents");
  std::optional<PXColor> result;
  if (customSpace && (*space == 1 || *space == 2) && components.size() == 4) {
    result = PXColor::rgb(components[0], components[1], components[2], components[3]);
    result->colorSpaceID = integer(member(customSpace, "NSID"));
  } else if (customSpace && (*space == 3 || *space == 4) && components.size() == 2) {
    result = PXColor::gray(components[0], components[1]);
    result->colorSpaceID = integer(member(customSpace, "NSID"));
  } else if (*space == 1 || *space == 2) {
    const auto rgb = componentsFor("NSRGB");
    if (rgb.size() >= 3) result = withAlpha(PXColor::rgb(rgb[0], rgb[1], rgb[2]), rgb, 3);
  } else if (*space == 3 || *space == 4) {
    const auto white = componentsFor("NSWhite");
    if (!white.empty()) result = withAlpha(PXColor::gray(white[0]), white, 1);
  } else if (*space == 5) {
    const auto cmyk = componentsFor("NSCMYK");
    if (cmyk.size() >= 4) result = withAlpha(PXColor::cmyk(cmyk[0], cmyk[1], cmyk[2], cmyk[3]), cmyk, 4);
  } else if (*space == 6) {
    // A catalogue colour carries its resolved colour beside its name; one
    // level only, which also keeps a self-reference from looping.
    plist_t fallback = member(node, "NSColor");
    if (fallback && fallback != node && !isType(member(fallback, "NSColor"), PLIST_DICT)) return color(fallback);
  } else {
    // Component-based colours in a custom space: the count tells the model.
    if (components.size() == 2) result = PXColor::gray(components[0], components[1]);
    if (components.size() == 4) result = PXColor::rgb(components[0], components[1], components[2], components[3]);
    if (components.size() == 5)
      result = PXColor::cmyk(components[0], components[1], components[2], components[3], components[4]);
    if (result && customSpace) result->colorSpaceID = integer(member(customSpace, "NSID"));
  }
  if (result) result->archiveColorSpace = *space;
  return result;
}

std::optional<PXColorDictionary> Unarchiver::colorDictionary(plist_t node) const {
  auto entries = dictionary(node);
  if (!entries) return std::nullopt;
  PXColorDictionary color;
  for (const auto& [key, value] : *entries) {
    if (key == "red") color.red = number(value);
    if (key == "green") color.green = number(value);
    if (key == "blue") color.blue = number(value);
    if (key == "alpha") color.alpha = number(value);
  }
  return color;
}

// One attribute dictionary. A value of an unexpected kind leaves its
// attribute unset rather than failing the whole text.
PXTextAttributes Unarchiver::attributes(plist_t node) const {
  PXTextAttributes result;
  auto entries = dictionary(node);
  if (!entries) return result;
  for (const auto& [key, value] : *entries) {
    if (key == "MSAttributedStringFontAttribute") {
      result.font = fontDescriptor(value);
    } else if (key == "NSParagraphStyle") {
      result.paragraphStyle = paragraphStyle(value);
    } else if (key == "NSColor" || key == "MSAttributedStringColorAttribute") {
      result.foregroundColor = color(value);
    } else if (key == "MSAttributedStringColorDictionaryAttribute") {
      result.colorDictionary = colorDictionary(value);
    } else if (key == "NSKern") {
      result.kerning = number(value);
    } else if (key == "NSUnderline") {
      result.underlineStyle = integer(value);
    } else if (key == "NSStrikethrough") {
      result.strikethroughStyle = integer(value);
    } else if (key == "MSAttributedStringTextTransformAttribute") {
      result.textTransform = integer(value);
    } else if (key == "NSLigature") {
      result.ligature = integer(value);
    } else if (key == "NSBaselineOffset") {
      result.baselineOffset = number(value);
    }
  }
  return result;
}

// Run table: (length, attribute index) pairs, each a little-endian base-128
// number.
std::vector<std::pair<uint64_t, uint64_t>> decodeRunInfo(std::string_view bytes) {
  std::vector<std::pair<uint64_t, uint64_t>> pairs;
  size_t i = 0;
  const auto next = [&]() -> uint64_t {
    uint64_t value = 0;
    for (int shift = 0; i < bytes.size(); shift += 7) {
      const auto byte = static_cast<unsigned char>(bytes[i++]);
      if (shift > 56) throw DecodeError{"run length too large"};
      value |= static_cast<uint64_t>(byte & 0x7F) << shift;
      if (!(byte & 0x80)) return value;
    }
    throw DecodeError{"truncated run table"};
  };
  while (i < bytes.size()) {
    const uint64_t length = next();
    const uint64_t index = next();
    pairs.emplace_back(length, index);
    if (pairs.size() > kMaxAttributeRuns) throw DecodeError{"too many attribute runs"};
  }
  return pairs;
}

PXAttributedString Unarchiver::attributedString(plist_t root) const {
  auto text = string(member(root, "NSString"));
  if (!text) throw DecodeError{"attributed string without NSString"};
  plist_t attributesNode = member(root, "NSAttributes");
  if (!attributesNode) return PXAttributedString(std::move(*text));

  plist_t info = member(root, "NSAttributeInfo");
  if (!info) return PXAttributedString(std::move(*text), attributes(attributesNode));

  auto list = array(attributesNode);
  if (!list) throw DecodeError{"NSAttributeInfo without an attribute list"};
  auto bytes = data(info);
  if (!bytes) throw DecodeError{"NSAttributeInfo is not data"};
  std::vector<PXTextAttributes> table;
  table.reserve(list->size());
  for (plist_t entry : *list) table.push_back(attributes(entry));

  const size_t length = PXUTF16Length(*text);
  std::vector<PXAttributeRun> runs;
  size_t location = 0;
  for (const auto& [runLength, index] : decodeRunInfo(*bytes)) {
    if (index >= table.size()) throw DecodeError{"attribute index out of range"};
    if (runLength == 0) continue;
    if (runLength > length - location) throw DecodeError{"attribute runs longer than the text"};
    runs.push_back(PXAttributeRun{location, static_cast<size_t>(runLength), table[index]});
    location += runLength;
  }
  // Text past the last run has no attributes.
  if (location < length) runs.push_back(PXAttributeRun{location, length - location, {}});
  auto result = PXAttributedString::withRuns(std::move(*text), std::move(runs));
  if (!result) throw DecodeError{"inconsistent attribute runs"};
  return std::move(*result);
}

// MARK: - Structure check

// The property-list reader recurses once per nesting level and checks for
// cycles slowly, so a deep or cyclic document would exhaust the stack or the
// clock. Keyed archives are shallow (top dictionary, object list, objects,
// their reference lists), so the structure is checked first, iteratively:
// sizes and offsets in range, no reference cycle, little nesting.
constexpr size_t kMaxPlistObjects = 200000;
constexpr size_t kMaxPlistDepth = 16;
// The reader copies an object for every reference to it, so a few shared
// lists can expand to billions of nodes; the expanded size is bounded too.
constexpr uint64_t kMaxExpandedObjects = 1000000;

uint64_t readBigEndian(std::string_view bytes, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

// The object references of the container at `offset`; empty for scalars.
std::vector<uint64_t> containerReferences(std::string_view bytes, size_t offset, size_t end, size_t refSize) {
  const auto marker = static_cast<unsigned char>(bytes[offset]);
  const unsigned kind = marker >> 4;
  if (kind != 0xA && kind != 0xC && kind != 0xD) return {};
  uint64_t count = marker & 0x0F;
  size_t cursor = offset + 1;
  if (count == 0x0F) {
    if (cursor >= end) throw DecodeError{"malformed property list"};
    const auto sizeMarker = static_cast<unsigned char>(bytes[cursor]);
    const size_t intSize = size_t{1} << (sizeMarker & 0x0F);
    if ((sizeMarker >> 4) != 0x1 || intSize > 8 || cursor + 1 + intSize > end) throw DecodeError{"malformed property list"};
    count = readBigEndian(bytes, cursor + 1, intSize);
    cursor += 1 + intSize;
  }
  const uint64_t references = kind == 0xD ? count * 2 : count;
  if (count > end || references > (end - cursor) / refSize) throw DecodeError{"malformed property list"};
  std::vector<uint64_t> result;
  result.reserve(references);
  for (uint64_t i = 0; i < references; ++i) result.push_back(readBigEndian(bytes, cursor + i * refSize, refSize));
  return result;
}

void checkPlistStructure(std::string_view bytes) {
  if (bytes.size() < 8 + 32) throw DecodeError{"malformed property list"};
  const size_t trailer = bytes.size() - 32;
  const size_t offsetSize = static_cast<unsigned char>(bytes[trailer + 6]);
  const size_t refSize = static_cast<unsigned char>(bytes[trailer + 7]);
  const uint64_t count = readBigEndian(bytes, trailer + 8, 8);
  const uint64_t top = readBigEndian(bytes, trailer + 16, 8);
  const uint64_t tableOffset = readBigEndian(bytes, trailer + 24, 8);
  if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8) throw DecodeError{"malformed property list"};
  if (count == 0 || count > kMaxPlistObjects) throw DecodeError{"property list has too many objects"};
  if (top >= count || tableOffset < 8 || tableOffset > trailer || (trailer - tableOffset) / offsetSize < count) {
    throw DecodeError{"malformed property list"};
  }
  std::vector<size_t> offsets(count);
  for (uint64_t i = 0; i < count; ++i) {
    offsets[i] = readBigEndian(bytes, tableOffset + i * offsetSize, offsetSize);
    if (offsets[i] < 8 || offsets[i] >= tableOffset) throw DecodeError{"malformed property list"};
  }
  // Depth-first walk with an explicit stack: 0 unvisited, 1 on the path,
  // 2 done. A reference back onto the path is a cycle. Finished objects
  // know their expanded size (themselves plus their children's, saturated).
  std::vector<uint8_t> state(count, 0);
  std::vector<uint64_t> expanded(count, 1);
  struct Frame {
    uint64_t object;
    std::vector<uint64_t> references;
    size_t next = 0;
  };
  std::vector<Frame> path;
  path.push_back({top, containerReferences(bytes, offsets[top], tableOffset, refSize)});
  state[top] = 1;
  while (!path.empty()) {
    Frame& frame = path.back();
    if (frame.next == frame.references.size()) {
      uint64_t size = 1;
      for (uint64_t child : frame.references) size = std::min(size + expanded[child], kMaxExpandedObjects + 1);
      expanded[frame.object] = size;
      state[frame.object] = 2;
      path.pop_back();
      continue;
    }
    const uint64_t child = frame.references[frame.next++];
    if (child >= count) throw DecodeError{"malformed property list"};
    if (state[child] == 1) throw DecodeError{"property list references itself"};
    if (state[child] == 2) continue;
    if (path.size() >= kMaxPlistDepth) throw DecodeError{"property list nested too deeply"};
    state[child] = 1;
    path.push_back({child, containerReferences(bytes, offsets[child], tableOffset, refSize)});
  }
  if (expanded[top] > kMaxExpandedObjects) throw DecodeError{"property list expands too far"};
}

struct ParsedArchive {
  PlistPtr plist;
  plist_t objects = nullptr;
  plist_t root = nullptr;  // the $top root value (a UID or inline value)
};

ParsedArchive parseArchive(std::string_view archive) {
  if (archive.empty()) throw DecodeError{"empty archive"};
  if (archive.size() > kMaxArchiveBytes) throw DecodeError{"archive too large"};
  if (archive.size() < 8 || archive.substr(0, 6) != "bplist") throw DecodeError{"not a binary property list"};
  checkPlistStructure(archive);
  plist_t parsed = nullptr;
  plist_from_bin(archive.data(), static_cast<uint32_t>(archive.size()), &parsed);
  ParsedArchive result{PlistPtr(parsed)};
  if (!isType(parsed, PLIST_DICT)) throw DecodeError{"malformed property list"};
  result.objects = plist_dict_get_item(parsed, "$objects");
  plist_t top = plist_dict_get_item(parsed, "$top");
  if (!isType(result.objects, PLIST_ARRAY) || !isType(top, PLIST_DICT)) throw DecodeError{"not a keyed archive"};
  result.root = plist_dict_get_item(top, "root");
  if (!result.root) throw DecodeError{"keyed archive without a root object"};
  return result;
}

std::string inlineClassName(plist_t node) {
  if (isType(node, PLIST_STRING)) return "NSString";
  if (isType(node, PLIST_DATA)) return "NSData";
  if (isType(node, PLIST_UINT) || isType(node, PLIST_REAL) || isType(node, PLIST_BOOLEAN)) return "NSNumber";
  if (isType(node, PLIST_DATE)) return "NSDate";
  return "";
}

bool isStringClass(const std::string& name) { return name == "NSString" || name == "NSMutableString"; }
bool isAttributedStringClass(const std::string& name) {
  return name == "NSAttributedString" || name == "NSMutableAttributedString";
}

// MARK: - Encoding

// The property-list writer takes C strings: invalid UTF-8 becomes U+FFFD and
// NUL becomes U+FFFD too, both one UTF-16 unit like the character replaced,
// so the run lengths still fit.
std::string archivableText(std::string_view text) {
  std::u16string units = PXUTF16FromUTF8(text);
  for (auto& unit : units) {
    if (unit == 0) unit = 0xFFFD;
  }
  return PXUTF8FromUTF16(units);
}

class Archiver {
 public:
  Archiver() : objects_(plist_new_array()) { plist_array_append_item(objects_.get(), plist_new_string("$null")); }

  uint64_t add(plist_t node) {
    plist_array_append_item(objects_.get(), node);
    return plist_array_get_size(objects_.get()) - 1;
  }

  // Puts `node` where a reserved object stands (the old one is freed).
  void replace(uint64_t uid, plist_t node) { plist_array_set_item(objects_.get(), node, static_cast<uint32_t>(uid)); }

  // Equal strings are archived once, as NSKeyedArchiver does for constants.
  uint64_t string(const std::string& text) {
    if (auto it = strings_.find(text); it != strings_.end()) return it->second;
    return strings_[text] = add(plist_new_string(text.c_str()));
  }

  uint64_t classFor(const std::vector<std::string>& hierarchy) {
    if (auto it = classes_.find(hierarchy.front()); it != classes_.end()) return it->second;
    plist_t cls = plist_new_dict();
    plist_dict_set_item(cls, "$classname", plist_new_string(hierarchy.front().c_str()));
    plist_t chain = plist_new_array();
    for (const auto& name : hierarchy) plist_array_append_item(chain, plist_new_string(name.c_str()));
    plist_dict_set_item(cls, "$classes", chain);
    return classes_[hierarchy.front()] = add(cls);
  }

  // An object dictionary with its class; members are set by the caller.
  plist_t object(const std::vector<std::string>& hierarchy) {
    plist_t node = plist_new_dict();
    plist_dict_set_item(node, "$class", plist_new_uid(classFor(hierarchy)));
    return node;
  }

  uint64_t dictionary(const std::vector<std::pair<std::string, uint64_t>>& entries) {
    std::vector<uint64_t> keys;
    for (const auto& entry : entries) keys.push_back(string(entry.first));
    plist_t node = object({"NSDictionary", "NSObject"});
    plist_t keyList = plist_new_array();
    plist_t valueList = plist_new_array();
    for (size_t i = 0; i < entries.size(); ++i) {
      plist_array_append_item(keyList, plist_new_uid(keys[i]));
      plist_array_append_item(valueList, plist_new_uid(entries[i].second));
    }
    plist_dict_set_item(node, "NS.keys", keyList);
    plist_dict_set_item(node, "NS.objects", valueList);
    return add(node);
  }

  uint64_t array(const std::vector<uint64_t>& elements) {
    plist_t node = object({"NSArray", "NSObject"});
    plist_t list = plist_new_array();
    for (uint64_t uid : elements) plist_array_append_item(list, plist_new_uid(uid));
    plist_dict_set_item(node, "NS.objects", list);
    return add(node);
  }

  uint64_t real(double value) { return add(plist_new_real(std::isfinite(value) ? value : 0)); }
  uint64_t integer(int64_t value) { return add(plist_new_uint(static_cast<uint64_t>(value))); }

  uint64_t fontDescriptor(const PXFontDescriptor& font) {
    const uint64_t attributes = dictionary({{"NSFontSizeAttribute", real(font.size)},
                                            {"NSFontNameAttribute", string(font.name)}});
    plist_t node = object({"NSFontDescriptor", "NSObject"});
    plist_dict_set_item(node, "NSFontDescriptorAttributes", plist_new_uid(attributes));
    return add(node);
  }

  uint64_t paragraphStyle(const PXParagraphStyle& style) {
    plist_t node = object({"NSMutableParagraphStyle", "NSParagraphStyle", "NSObject"});
    if (style.alignment) plist_dict_set_item(node, "NSAlignment", plist_new_uint(static_cast<uint64_t>(*style.alignment)));
    const auto setReal = [&](const char* key, const std::optional<double>& value) {
      if (value && std::isfinite(*value)) plist_dict_set_item(node, key, plist_new_real(*value));
    };
    setReal("NSMinLineHeight", style.minimumLineHeight);
    setReal("NSMaxLineHeight", style.maximumLineHeight);
    setReal("NSParagraphSpacing", style.paragraphSpacing);
    setReal("NSParagraphSpacingBefore", style.paragraphSpacingBefore);
    setReal("NSLineSpacing", style.lineSpacing);
    setReal("NSLineHeightMultiple", style.lineHeightMultiple);
    return add(node);
  }

  // Calibrated components go under NSRGB / NSWhite / NSCMYK. A colour in a
  // named space (sRGB) also carries NSComponents and the space's ID, as the
  // platform archives such colours.
  uint64_t color(const PXColor& color) {
    plist_t node = object({"NSColor", "NSObject"});
    std::vector<double> values = color.components;
    int64_t space = 1;
    const char* key = "NSRGB";
    if (color.model == PXColorModel::Gray && color.components.size() == 1) {
      space = color.archiveColorSpace == 4 ? 4 : 3;
      key = "NSWhite";
    } else if (color.model == PXColorModel::CMYK && color.components.size() == 4) {
      space = 5;
      key = "NSCMYK";
    } else {
      values = color.convertedToRGB().components;
      space = color.archiveColorSpace == 2 ? 2 : 1;
    }
    values.push_back(color.alpha);
    plist_dict_set_item(node, "NSColorSpace", plist_new_uint(static_cast<uint64_t>(space)));
    setComponents(node, key, values);
    if (color.colorSpaceID && space != 5) {
      setComponents(node, "NSComponents", values);
      plist_t custom = object({"NSColorSpace", "NSObject"});
      plist_dict_set_item(custom, "NSID", plist_new_uint(static_cast<uint64_t>(*color.colorSpaceID)));
      plist_dict_set_item(node, "NSCustomColorSpace", plist_new_uid(add(custom)));
    }
    return add(node);
  }

  // "r g b a" in C locale, shortest round-trip digits, NUL-terminated.
  static void setComponents(plist_t node, const char* key, const std::vector<double>& values) {
    std::string text;
    for (double v : values) text += (text.empty() ? "" : " ") + fmt::format("{}", std::isfinite(v) ? v : 0.0);
    text.push_back('\0');
    plist_dict_set_item(node, key, plist_new_data(text.data(), text.size()));
  }

  uint64_t colorDictionary(const PXColorDictionary& color) {
    std::vector<std::pair<std::string, uint64_t>> entries;
    const auto put = [&](const char* key, const std::optional<double>& value) {
      if (value) entries.emplace_back(key, real(*value));
    };
    put("red", color.red);
    put("green", color.green);
    put("blue", color.blue);
    put("alpha", color.alpha);
    return dictionary(entries);
  }

  uint64_t attributes(const PXTextAttributes& attributes) {
    std::vector<std::pair<std::string, uint64_t>> entries;
    if (attributes.font) entries.emplace_back("MSAttributedStringFontAttribute", fontDescriptor(*attributes.font));
    if (attributes.paragraphStyle) entries.emplace_back("NSParagraphStyle", paragraphStyle(*attributes.paragraphStyle));
    if (attributes.foregroundColor) entries.emplace_back("NSColor", color(*attributes.foregroundColor));
    if (attributes.colorDictionary)
      entries.emplace_back("MSAttributedStringColorDictionaryAttribute", colorDictionary(*attributes.colorDictionary));
    if (attributes.kerning) entries.emplace_back("NSKern", real(*attributes.kerning));
    if (attributes.underlineStyle) entries.emplace_back("NSUnderline", integer(*attributes.underlineStyle));
    if (attributes.strikethroughStyle) entries.emplace_back("NSStrikethrough", integer(*attributes.strikethroughStyle));
    if (attributes.textTransform)
      entries.emplace_back("MSAttributedStringTextTransformAttribute", integer(*attributes.textTransform));
    if (attributes.ligature) entries.emplace_back("NSLigature", integer(*attributes.ligature));
    if (attributes.baselineOffset) entries.emplace_back("NSBaselineOffset", real(*attributes.baselineOffset));
    return dictionary(entries);
  }

  uint64_t attributedString(const PXAttributedString& text) {
    plist_t node = object({"NSMutableAttributedString", "NSAttributedString", "NSObject"});
    plist_dict_set_item(node, "NSString", plist_new_uid(add(plist_new_string(archivableText(text.string()).c_str()))));
    const auto& runs = text.runs();
    if (runs.size() == 1) {
      plist_dict_set_item(node, "NSAttributes", plist_new_uid(attributes(runs.front().attributes)));
    } else if (runs.size() > 1) {
      // Each distinct attribute set is archived once; runs refer to it by index.
      std::vector<uint64_t> table;
      std::vector<const PXTextAttributes*> seen;
      std::string info;
      for (const auto& run : runs) {
        size_t index = 0;
        while (index < seen.size() && !(*seen[index] == run.attributes)) ++index;
        if (index == seen.size()) {
          seen.push_back(&run.attributes);
          table.push_back(attributes(run.attributes));
        }
        appendVarint(info, run.length);
        appendVarint(info, index);
      }
      plist_dict_set_item(node, "NSAttributes", plist_new_uid(array(table)));
      plist_dict_set_item(node, "NSAttributeInfo", plist_new_uid(add(plist_new_data(info.data(), info.size()))));
    }
    return add(node);
  }

  std::optional<std::string> finish(uint64_t rootUID) {
    PlistPtr archive(plist_new_dict());
    plist_dict_set_item(archive.get(), "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_dict_set_item(archive.get(), "$version", plist_new_uint(100000));
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(rootUID));
    plist_dict_set_item(archive.get(), "$top", top);
    plist_dict_set_item(archive.get(), "$objects", objects_.release());
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(archive.get(), &bytes, &length);
    if (!bytes || length == 0) return std::nullopt;
    std::string result(bytes, length);
    plist_to_bin_free(bytes);
    return result;
  }

 private:
  static void appendVarint(std::string& out, uint64_t value) {
    do {
      unsigned char byte = value & 0x7F;
      value >>= 7;
      if (value) byte |= 0x80;
      out.push_back(static_cast<char>(byte));
    } while (value);
  }

  PlistPtr objects_;
  std::map<std::string, uint64_t> strings_;
  std::unordered_map<std::string, uint64_t> classes_;
};

// Copies objects of a parsed archive into a new one with their references
// renumbered, so that a part of an archive is kept exactly as it was written,
// keys this system does not read included.
class ObjectImporter {
 public:
  ObjectImporter(plist_t sourceObjects, Archiver& target)
      : objects_(sourceObjects), count_(plist_array_get_size(sourceObjects)), target_(target) {}

  uint64_t import(uint64_t uid, size_t depth = 0) {
    if (uid == 0) return 0;  // "$null"
    if (auto it = imported_.find(uid); it != imported_.end()) return it->second;
    if (uid >= count_) throw DecodeError{"dangling object reference"};
    // References between objects are not bounded by the structure check.
    if (depth > kMaxImportDepth) throw DecodeError{"object references nested too deeply"};
    plist_t source = plist_array_get_item(objects_, static_cast<uint32_t>(uid));
    if (!source || isType(source, PLIST_UID)) throw DecodeError{"bad object reference"};
    // Reserved before the members are copied, so that cycles resolve.
    const uint64_t copyUID = target_.add(plist_new_bool(0));
    imported_[uid] = copyUID;
    plist_t copy = plist_copy(source);
    target_.replace(copyUID, copy);
    renumber(copy, depth);
    return copyUID;
  }

 private:
  static constexpr size_t kMaxImportDepth = 64;

  void renumber(plist_t node, size_t depth) {
    if (isType(node, PLIST_UID)) {
      uint64_t uid = 0;
      plist_get_uid_val(node, &uid);
      plist_set_uid_val(node, import(uid, depth + 1));
    } else if (isType(node, PLIST_ARRAY)) {
      const uint32_t size = plist_array_get_size(node);
      for (uint32_t i = 0; i < size; ++i) renumber(plist_array_get_item(node, i), depth);
    } else if (isType(node, PLIST_DICT)) {
      plist_dict_iter iter = nullptr;
      plist_dict_new_iter(node, &iter);
      std::vector<plist_t> values;
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, iter, &key, &value);
        if (!key) break;
        std::free(key);
        values.push_back(value);
      }
      std::free(iter);
      for (plist_t value : values) renumber(value, depth);
    }
  }

  plist_t objects_;
  uint32_t count_;
  Archiver& target_;
  std::unordered_map<uint64_t, uint64_t> imported_;
};

// The UID of the attribute dictionary of an archived attributed string's
// first character; absent when it has none.
std::optional<uint64_t> firstCharacterAttributes(const Unarchiver& unarchiver, plist_t root) {
  plist_t attributes = plist_dict_get_item(root, "NSAttributes");
  if (!isType(attributes, PLIST_UID) || !unarchiver.object(attributes)) return std::nullopt;
  plist_t info = unarchiver.member(root, "NSAttributeInfo");
  if (!info) {
    uint64_t uid = 0;
    plist_get_uid_val(attributes, &uid);
    return uid;
  }
  plist_t list = plist_dict_get_item(unarchiver.object(attributes), "NS.objects");
  auto bytes = unarchiver.data(info);
  if (!isType(list, PLIST_ARRAY) || !bytes) throw DecodeError{"malformed attribute runs"};
  for (const auto& [length, index] : decodeRunInfo(*bytes)) {
    if (length == 0) continue;
    plist_t entry = index < plist_array_get_size(list) ? plist_array_get_item(list, static_cast<uint32_t>(index)) : nullptr;
    if (!isType(entry, PLIST_UID)) throw DecodeError{"attribute index out of range"};
    uint64_t uid = 0;
    plist_get_uid_val(entry, &uid);
    return uid;
  }
  return std::nullopt;
}

}  // namespace

// MARK: - Public interface

std::optional<std::string> PXBase64Decode(std::string_view text) {
  std::string out;
  out.reserve(text.size() * 3 / 4);
  uint32_t buffer = 0;
  int bits = 0;
  size_t symbols = 0;
  for (char c : text) {
    if (c == '=') break;
    const int value = base64Value(c);
    if (value < 0) continue;
    buffer = (buffer << 6) | static_cast<uint32_t>(value);
    bits += 6;
    ++symbols;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((buffer >> bits) & 0xFF));
    }
  }
  if (symbols % 4 == 1) return std::nullopt;
  return out;
}

std::string PXBase64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const uint32_t n = (uint32_t(uint8_t(bytes[i])) << 16) | (uint32_t(uint8_t(bytes[i + 1])) << 8) | uint8_t(bytes[i + 2]);
    for (int shift = 18; shift >= 0; shift -= 6) out.push_back(kBase64Alphabet[(n >> shift) & 0x3F]);
  }
  const size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t n = uint32_t(uint8_t(bytes[i])) << 16;
    if (rest == 2) n |= uint32_t(uint8_t(bytes[i + 1])) << 8;
    out.push_back(kBase64Alphabet[(n >> 18) & 0x3F]);
    out.push_back(kBase64Alphabet[(n >> 12) & 0x3F]);
    out.push_back(rest == 2 ? kBase64Alphabet[(n >> 6) & 0x3F] : '=');
    out.push_back('=');
  }
  return out;
}

std::optional<PXUnarchivedObject> PXKeyedUnarchiveRootObject(std::string_view archive) {
  try {
    const ParsedArchive parsed = parseArchive(archive);
    const Unarchiver unarchiver(parsed.objects);
    plist_t root = unarchiver.object(parsed.root);
    if (!root) throw DecodeError{"root object is missing"};
    PXUnarchivedObject result;
    if (!isType(root, PLIST_DICT)) {
      result.className = inlineClassName(root);
      if (result.className.empty()) throw DecodeError{"root object of unknown kind"};
      if (auto text = plistString(root)) result.string = std::string(*text);
      return result;
    }
    auto name = unarchiver.className(root);
    if (!name) throw DecodeError{"root object without a class"};
    result.className = *name;
    if (isStringClass(*name)) {
      result.string = unarchiver.string(root);
      if (!result.string) throw DecodeError{"string object without text"};
    } else if (isAttributedStringClass(*name)) {
      result.attributedString = unarchiver.attributedString(root);
    }
    return result;
  } catch (const DecodeError& error) {
    PXLogWarn("Could not unarchive keyed archive: {}", error.reason);
  } catch (const std::exception& error) {
    PXLogWarn("Could not unarchive keyed archive: {}", error.what());
  }
  return std::nullopt;
}

std::optional<PXUnarchivedObject> PXKeyedUnarchiveBase64(std::string_view base64) {
  auto bytes = PXBase64Decode(base64);
  if (!bytes) {
    PXLogWarn("Could not unarchive keyed archive: invalid base64 text");
    return std::nullopt;
  }
  return PXKeyedUnarchiveRootObject(*bytes);
}

std::optional<PXAttributedString> PXUnarchiveAttributedString(std::string_view archive) {
  auto root = PXKeyedUnarchiveRootObject(archive);
  if (!root) return std::nullopt;
  if (root->attributedString) return std::move(root->attributedString);
  if (root->string) return PXAttributedString(std::move(*root->string));
  PXLogWarn("Could not unarchive attributed string: the archive holds an object of class {}", root->className);
  return std::nullopt;
}

std::optional<PXAttributedString> PXUnarchiveAttributedStringFromBase64(std::string_view base64) {
  auto bytes = PXBase64Decode(base64);
  if (!bytes) {
    PXLogWarn("Could not unarchive attributed string: invalid base64 text");
    return std::nullopt;
  }
  return PXUnarchiveAttributedString(*bytes);
}

std::optional<std::string> PXArchiveAttributedString(const PXAttributedString& string) {
  try {
    Archiver archiver;
    const uint64_t root = archiver.attributedString(string);
    auto bytes = archiver.finish(root);
    if (!bytes) PXLogError("Could not archive attributed string: the property list writer failed");
    return bytes;
  } catch (const std::exception& error) {
    PXLogError("Could not archive attributed string: {}", error.what());
  }
  return std::nullopt;
}

std::optional<std::string> PXArchiveAttributedStringToBase64(const PXAttributedString& string) {
  auto bytes = PXArchiveAttributedString(string);
  if (!bytes) return std::nullopt;
  return PXBase64Encode(*bytes);
}

std::optional<std::string> PXArchiveReplacingAttributedStringText(std::string_view archive, std::string_view text) {
  try {
    const ParsedArchive parsed = parseArchive(archive);
    const Unarchiver unarchiver(parsed.objects);
    plist_t root = unarchiver.object(parsed.root);
    auto name = unarchiver.className(root);
    if (!name || !isAttributedStringClass(*name)) return std::nullopt;
    const auto oldText = unarchiver.string(unarchiver.member(root, "NSString"));
    if (!oldText) return std::nullopt;
    // An empty text has no first character, so no attributes to pass on.
    const std::optional<uint64_t> attributes =
        oldText->empty() ? std::nullopt : firstCharacterAttributes(unarchiver, root);

    Archiver archiver;
    // Owned here until the archiver takes it: an import that throws must not leak it.
    std::unique_ptr<void, decltype(&plist_free)> node(
        archiver.object({"NSMutableAttributedString", "NSAttributedString", "NSObject"}), plist_free);
    const std::string newText = archivableText(text);
    plist_dict_set_item(node.get(), "NSString", plist_new_uid(archiver.add(plist_new_string(newText.c_str()))));
    if (attributes && !newText.empty()) {
      ObjectImporter importer(parsed.objects, archiver);
      plist_dict_set_item(node.get(), "NSAttributes", plist_new_uid(importer.import(*attributes)));
    }
    auto bytes = archiver.finish(archiver.add(node.release()));
    if (!bytes) PXLogError("Could not archive attributed string: the property list writer failed");
    return bytes;
  } catch (const DecodeError& error) {
    PXLogWarn("Could not replace the text of a keyed archive: {}", error.reason);
  } catch (const std::exception& error) {
    PXLogWarn("Could not replace the text of a keyed archive: {}", error.what());
  }
  return std::nullopt;
}

}  // namespace plexa
