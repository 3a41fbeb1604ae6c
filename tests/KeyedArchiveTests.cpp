// The attributed-string model, base64, and the keyed-archive codec: round
// trips through our encoder, hostile archives, and Sketch's own archives.

#include "ArchiveBuilder.h"
#include "AttributedString.h"
#include "KeyedArchive.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <functional>
#include <limits>
#include <map>
#include <tuple>

using namespace plexa;
using plexa::test::ArchiveBuilder;
using plexa::test::LogCapture;
using plexa::test::binaryPlist;

namespace {

PXTextAttributes fontAttributes(const std::string& name, double size) {
  PXTextAttributes attributes;
  attributes.font = PXFontDescriptor{name, size};
  return attributes;
}

// An attributed string whose NSAttributes / NSAttributeInfo are given.
std::string attributedArchive(const std::string& text, const std::function<void(ArchiveBuilder&, plist_t)>& fill) {
  ArchiveBuilder raw;
  plist_t root = raw.object("NSAttributedString", {{"NSString", raw.ref(plist_new_string(text.c_str()))}});
  fill(raw, root);
  return raw.finish(raw.add(root));
}

// A binary property list of `depth` arrays, each holding `width` references
// to the next; the last one refers back to `lastRefersTo` (or is empty when
// that is `depth`).
std::string nestedArrays(uint32_t depth, uint32_t lastRefersTo, uint32_t width = 1) {
  std::string out = "bplist00";
  std::vector<uint32_t> offsets;
  const auto put32 = [&](uint64_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>((v >> shift) & 0xFF));
  };
  for (uint32_t i = 0; i < depth; ++i) {
    offsets.push_back(static_cast<uint32_t>(out.size()));
    const bool last = i + 1 == depth;
    if (last && lastRefersTo >= depth) {
      out.push_back('\xA0');
      continue;
    }
    out += "\xAF\x12";  // array, count in the following 4-byte integer
    put32(width);
    for (uint32_t k = 0; k < width; ++k) put32(last ? lastRefersTo : i + 1);
  }
  const uint64_t table = out.size();
  for (uint32_t offset : offsets) put32(offset);
  out += std::string(6, '\0') + "\x04\x04";  // offset and reference sizes
  for (uint64_t v : {uint64_t(depth), uint64_t(0), table}) {
    put32(v >> 32);
    put32(v & 0xFFFFFFFF);
  }
  return out;
}

size_t unitsInRuns(const PXAttributedString& string) {
  size_t covered = 0;
  for (const auto& run : string.runs()) covered += run.length;
  return covered;
}

// Every archived text of a document's pages (base64), by layer ID.
std::map<std::string, std::string> archivedTexts(const std::string& sketchPath) {
  std::map<std::string, std::string> texts;
  std::function<void(const JsonValue&)> walk = [&](const JsonValue& value) {
    if (value.is_array()) for (const auto& element : value.get_array()) walk(element);
    if (!value.is_object()) return;
    const auto archive = PXValueForKeyPath(value, "attributedString.archivedAttributedString._archive");
    const auto id = PXJsonTextFor(&value, "do_objectID");
    if (PXJsonTextFor(&value, "_class") == "text" && id && archive && archive->is_string())
      texts.emplace(std::string(*id), std::string(archive->as_string()));
    for (const auto& entry : value.get_object()) walk(entry.value());
  };
  for (const auto& name : PXZip::entryNames(sketchPath).value_or(std::vector<std::string>{})) {
    if (name.rfind("pages/", 0) != 0) continue;
    walk(PXJsonParse(PXZip::readEntry(sketchPath, name).value_or("")).value_or(nullptr));
  }
  return texts;
}

}  // namespace

// MARK: - Model

TEST(AttributedStringModel, CountsUTF16UnitsAcrossAccentsAndEmoji) {
  const std::string text = "Caf\xC3\xA9 \xF0\x9F\x98\x80!";  // "Café 😀!"
  EXPECT_EQ(PXUTF16Length(text), 8u);  // é is one unit, 😀 two
  // UTF-16 index → byte offset: the space after the two-byte é, the emoji,
  // inside the pair (its start), "!", past the end.
  const std::vector<std::pair<size_t, size_t>> offsets = {{3, 3}, {4, 5}, {5, 6}, {6, 6}, {7, 10}, {99, 11}};
  for (const auto& [index, offset] : offsets) EXPECT_EQ(PXUTF8OffsetForUTF16Index(text, index), offset) << index;
  EXPECT_EQ(PXUTF16IndexForUTF8Offset(text, 10), 7u);
  EXPECT_EQ(PXUTF16IndexForUTF8Offset(text, 8), 5u);  // inside the emoji's bytes

  const PXAttributedString string(text);
  EXPECT_EQ(string.substring({5, 2}), "\xF0\x9F\x98\x80");
  EXPECT_EQ(string.substring({3, 1}), "\xC3\xA9");
  EXPECT_EQ(string.substring({6, 100}), "\xF0\x9F\x98\x80!");

  // Invalid bytes count one unit each and come back as U+FFFD.
  EXPECT_EQ(PXUTF16Length("a\xFF" "b"), 3u);
  EXPECT_EQ(PXUTF8FromUTF16(PXUTF16FromUTF8("a\xFF")), "a\xEF\xBF\xBD");
  EXPECT_EQ(PXUTF8FromUTF16(PXUTF16FromUTF8(text)), text);
  EXPECT_EQ(PXUTF16Length("\xE2\x82"), 2u);  // truncated sequence
}

TEST(AttributedStringModel, RunsSplitMergeAndReplace) {
  PXAttributedString string("Hello \xF0\x9F\x98\x80 world", fontAttributes("A", 12));
  ASSERT_EQ(string.length(), 14u);
  string.addAttributes(fontAttributes("B", 18), {6, 2});  // the emoji
  ASSERT_EQ(string.runs().size(), 3u);
  EXPECT_EQ(string.substring({string.runs()[1].location, string.runs()[1].length}), "\xF0\x9F\x98\x80");
  EXPECT_EQ(string.attributesAtIndex(7)->font->name, "B");
  EXPECT_EQ(string.attributesAtIndex(8)->font->name, "A");
  EXPECT_EQ(string.attributesAtIndex(14), nullptr);

  // Adding keeps fields the new attributes leave unset.
  PXTextAttributes kern;
  kern.kerning = 1.5;
  string.addAttributes(kern, {0, 100});
  EXPECT_EQ(string.attributesAtIndex(0)->font->name, "A");
  EXPECT_EQ(*string.attributesAtIndex(13)->kerning, 1.5);

  // Setting the same attributes everywhere merges the runs again.
  string.setAttributes(fontAttributes("C", 10), {0, 14});
  EXPECT_EQ(string.runs().size(), 1u);

  string.replaceAllText("new \xC3\xA9");
  EXPECT_EQ(string.string(), "new \xC3\xA9");
  EXPECT_EQ(string.length(), 5u);
  ASSERT_EQ(string.runs().size(), 1u);
  EXPECT_EQ(string.runs()[0].attributes.font->name, "C");

  PXAttributedString empty;
  empty.replaceAllText("x");
  EXPECT_TRUE(empty.runs()[0].attributes.empty());
  EXPECT_EQ(PXAttributedString("").attributesAtIndex(0), nullptr);

  EXPECT_FALSE(PXAttributedString::withRuns("abc", {{0, 2, {}}}).has_value());
  EXPECT_FALSE(PXAttributedString::withRuns("abc", {{0, 2, {}}, {1, 2, {}}}).has_value());
  EXPECT_TRUE(PXAttributedString::withRuns("abc", {{0, 2, {}}, {2, 1, {}}}).has_value());
}

TEST(AttributedStringModel, ColourModelsAndConversion) {
  EXPECT_EQ(PXColor::rgb(1, 0.5, 0).rgbComponents(), (PXRGBComponents{1, 0.5, 0}));
  EXPECT_FALSE(PXColor::gray(0.25).rgbComponents().has_value());
  EXPECT_EQ(PXColor::gray(0.25, 0.5).convertedToRGB().rgbComponents(), (PXRGBComponents{0.25, 0.25, 0.25}));
  EXPECT_EQ(PXColor::gray(0.25, 0.5).convertedToRGB().alpha, 0.5);
  EXPECT_EQ(PXColor::cmyk(0, 1, 1, 0).convertedToRGB().rgbComponents(), (PXRGBComponents{1, 0, 0}));
  PXColor broken{PXColorModel::Gray, {}, 1, std::nullopt};
  EXPECT_EQ(broken.convertedToRGB().rgbComponents(), (PXRGBComponents{0, 0, 0}));
}

// MARK: - Base64

TEST(Base64, SkipsUnknownCharactersAndRejectsLoneSymbols) {
  EXPECT_EQ(PXBase64Encode(""), "");
  EXPECT_EQ(PXBase64Encode("f"), "Zg==");
  EXPECT_EQ(PXBase64Encode("fo"), "Zm8=");
  EXPECT_EQ(PXBase64Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(PXBase64Decode("Zm9v\nYmFy"), "foobar");
  EXPECT_EQ(PXBase64Decode(" Zm 9v*Ym\r\nFy "), "foobar");
  EXPECT_EQ(PXBase64Decode("Zg=="), "f");
  EXPECT_EQ(PXBase64Decode("Zg"), "f");
  EXPECT_FALSE(PXBase64Decode("Zm9vY").has_value());
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  EXPECT_EQ(PXBase64Decode(PXBase64Encode(bytes)), bytes);
}

// MARK: - Round trips

TEST(KeyedArchiveRoundTrip, MultiRunStringKeepsEveryAttribute) {
  PXTextAttributes first = fontAttributes("Roboto-Bold", 12);
  first.paragraphStyle = PXParagraphStyle{2, 20.0, 24.0, 3.5, std::nullopt, std::nullopt, std::nullopt};
  first.foregroundColor = PXColor::rgb(0.2, 0.4, 0.6, 0.8);
  first.kerning = -0.25;
  first.underlineStyle = 1;
  PXTextAttributes second = fontAttributes("OpenSans-Light", 18.5);
  second.colorDictionary = PXColorDictionary{1.0, 0.5, 0.0, 0.4};
  second.strikethroughStyle = 1;
  second.textTransform = 2;
  PXTextAttributes third = first;
  third.foregroundColor = PXColor::gray(0.5, 1);
  PXTextAttributes fourth = fontAttributes("Roboto-Thin", 7);
  fourth.foregroundColor = PXColor::rgb(0.25, 0.5, 0.75, 1);
  fourth.foregroundColor->colorSpaceID = PXColorSpaceIDSRGB;  // keeps its space and exact components

  // 200 units in the first run: its length needs two base-128 bytes. The
  // runs' colours get the archive's colour-space numbers given.
  const std::string text = std::string(200, 'a') + "\xC3\xA9\xF0\x9F\x98\x8E" "end!";
  const auto styled = [&](std::optional<int64_t> rgbSpace, std::optional<int64_t> whiteSpace) {
    first.foregroundColor->archiveColorSpace = fourth.foregroundColor->archiveColorSpace = rgbSpace;
    third.foregroundColor->archiveColorSpace = whiteSpace;
    PXAttributedString string(text, first);
    string.setAttributes(second, {200, 3});  // é and the emoji
    string.setAttributes(third, {203, 3});
    string.setAttributes(fourth, {206, 1});
    return string;
  };
  const PXAttributedString string = styled(std::nullopt, std::nullopt);
  ASSERT_EQ(string.runs().size(), 4u);

  const auto archive = PXArchiveAttributedString(string);
  ASSERT_TRUE(archive.has_value());
  EXPECT_EQ(archive->substr(0, 8), "bplist00");
  const auto decoded = PXUnarchiveAttributedString(*archive);
  EXPECT_EQ(decoded, styled(1, 3));  // calibrated RGB and white

  // The base64 form decodes to the same thing.
  const auto base64 = PXArchiveAttributedStringToBase64(string);
  ASSERT_TRUE(base64.has_value());
  EXPECT_EQ(base64->find('\n'), std::string::npos);
  EXPECT_EQ(PXUnarchiveAttributedStringFromBase64(*base64), decoded);
}

TEST(KeyedArchiveRoundTrip, WritesTheFormSketchReads) {
  PXTextAttributes attributes = fontAttributes("Roboto-Regular", 14);
  attributes.foregroundColor = PXColor::rgb(0, 0.5, 1);
  attributes.foregroundColor->colorSpaceID = PXColorSpaceIDSRGB;
  const std::string single = test::plistXML(PXArchiveAttributedString(PXAttributedString("One run", attributes)).value());
  for (const char* expected : {"<string>NSKeyedArchiver</string>", "<string>$null</string>", "<key>$top</key>",
                               "<string>NSMutableAttributedString</string>", "<key>NSFontDescriptorAttributes</key>",
                               "<string>NSFontNameAttribute</string>", "<string>MSAttributedStringFontAttribute</string>",
                               "<key>NSCustomColorSpace</key>", "<key>NSComponents</key>", "<key>NSRGB</key>"}) {
    EXPECT_NE(single.find(expected), std::string::npos) << expected;
  }
  // One run: the attributes are a dictionary and there is no run table.
  EXPECT_EQ(single.find("NSAttributeInfo"), std::string::npos);
  PXAttributedString two("Two runs", attributes);
  two.addAttributes(fontAttributes("Roboto-Bold", 14), {4, 4});
  EXPECT_NE(test::plistXML(PXArchiveAttributedString(two).value()).find("<key>NSAttributeInfo</key>"), std::string::npos);

  // An empty text archives and reads back as an empty string with no runs.
  const auto empty = PXUnarchiveAttributedString(PXArchiveAttributedString(PXAttributedString("")).value());
  ASSERT_TRUE(empty.has_value());
  EXPECT_EQ(empty->string(), "");
  EXPECT_TRUE(empty->runs().empty());
  // A NUL would cut the text short in the property list: it is replaced.
  const auto nul = PXUnarchiveAttributedString(PXArchiveAttributedString(PXAttributedString(std::string("a\0b", 3))).value());
  EXPECT_EQ(nul->string(), "a\xEF\xBF\xBD" "b");
}

TEST(KeyedArchiveRoundTrip, PlainStringRoots) {
  ArchiveBuilder raw;
  const auto archive = raw.finish(raw.add(plist_new_string("Just text")));
  const auto object = PXKeyedUnarchiveRootObject(archive);
  ASSERT_TRUE(object.has_value());
  EXPECT_EQ(object->className, "NSString");
  EXPECT_EQ(object->string, "Just text");
  EXPECT_EQ(PXUnarchiveAttributedString(archive)->string(), "Just text");

  ArchiveBuilder mutableString;
  plist_t node = mutableString.object("NSMutableString", {{"NS.string", plist_new_string("Mutable")}});
  EXPECT_EQ(PXKeyedUnarchiveRootObject(mutableString.finish(mutableString.add(node)))->string, "Mutable");

  ArchiveBuilder number;
  const auto numberArchive = number.finish(number.add(plist_new_real(2.5)));
  EXPECT_EQ(PXKeyedUnarchiveRootObject(numberArchive)->className, "NSNumber");
  LogCapture logs;
  EXPECT_FALSE(PXUnarchiveAttributedString(numberArchive).has_value());
  EXPECT_TRUE(logs.contains("NSNumber"));
}

// MARK: - Hostile archives

TEST(KeyedArchiveHostile, MalformedContainersGiveAbsentWithALogLine) {
  LogCapture logs;
  EXPECT_FALSE(PXUnarchiveAttributedString("").has_value());
  EXPECT_FALSE(PXUnarchiveAttributedString("not a plist at all").has_value());
  EXPECT_FALSE(PXUnarchiveAttributedString("bplist00").has_value());
  EXPECT_FALSE(PXUnarchiveAttributedStringFromBase64("A").has_value());
  EXPECT_FALSE(PXUnarchiveAttributedString(std::string(9 * 1024 * 1024, 'b')).has_value());
  EXPECT_GE(logs.count("Could not unarchive"), 5u);
  // A property list that is not a keyed archive.
  EXPECT_FALSE(PXUnarchiveAttributedString(binaryPlist(test::plistDict({{"hello", plist_new_string("world")}}))).has_value());
  EXPECT_TRUE(logs.contains("not a keyed archive"));
}

TEST(KeyedArchiveHostile, DeepOrCyclicPropertyListsAreRefusedQuickly) {
  // Depth, what the last array refers to (nothing when ≥ depth), width, and the refusal's log line.
  const std::vector<std::tuple<uint32_t, uint32_t, uint32_t, std::string>> lists = {
      {200000, 200000, 1, "nested too deeply"},  // deep enough to exhaust the stack of a recursive reader
      {3, 0, 1, "references itself"},
      {3, 3, 1, "malformed property list"},  // passes the check and fails later for what it is
      {3, 7, 1, "malformed property list"},  // a reference past the object table
      {4, 4, 1000, "expands too far"}};      // 12 kB that a copying reader would expand to 10^9 nodes
  for (const auto& [depth, lastRefersTo, width, refusal] : lists) {
    SCOPED_TRACE(refusal);
    LogCapture logs;
    EXPECT_FALSE(PXUnarchiveAttributedString(nestedArrays(depth, lastRefersTo, width)).has_value());
    EXPECT_TRUE(logs.contains(refusal));
  }
}

TEST(KeyedArchiveHostile, BadReferencesAndRunTables) {
  ArchiveBuilder outOfRange;
  EXPECT_FALSE(PXUnarchiveAttributedString(outOfRange.finish(999)).has_value());
  // NSString is a number.
  EXPECT_FALSE(PXUnarchiveAttributedString(attributedArchive("x", [](ArchiveBuilder& raw, plist_t root) {
                 plist_dict_set_item(root, "NSString", raw.ref(plist_new_uint(5)));
               })).has_value());

  // NSAttributes refers back to the root object: it is no dictionary, so the
  // text comes back without attributes instead of looping.
  ArchiveBuilder cyclic;
  const uint64_t rootUID = cyclic.nextUID() + 2;  // after the string and the class
  plist_t root = cyclic.object("NSAttributedString", {{"NSString", cyclic.ref(plist_new_string("loop"))},
                                                      {"NSAttributes", plist_new_uid(rootUID)}});
  ASSERT_EQ(cyclic.add(root), rootUID);
  const auto loop = PXUnarchiveAttributedString(cyclic.finish(rootUID));
  ASSERT_TRUE(loop.has_value());
  EXPECT_EQ(loop->string(), "loop");
  EXPECT_TRUE(loop->runs()[0].attributes.empty());

  const auto withRuns = [](const std::string& info, size_t tableSize) {
    return attributedArchive("abcd", [&](ArchiveBuilder& raw, plist_t node) {
      plist_t elements = plist_new_array();
      for (size_t i = 0; i < tableSize; ++i) plist_array_append_item(elements, plist_new_uid(raw.dictionary({})));
      plist_dict_set_item(node, "NSAttributes", raw.ref(raw.object("NSArray", {{"NS.objects", elements}})));
      plist_dict_set_item(node, "NSAttributeInfo", raw.ref(plist_new_data(info.data(), info.size())));
    });
  };
  // Run table (length, attribute index pairs as base-128 numbers), attribute
  // table size, and the log line of the refusal ("" when it decodes).
  const std::vector<std::tuple<std::string, size_t, std::string>> tables = {
      {std::string("\x02\x00\x02\x01", 4), 2, ""},
      {std::string("\x02\x00\x02\x05", 4), 2, "attribute index out of range"},
      {std::string("\x05\x00", 2), 1, "longer than the text"},
      {"\x82", 1, "truncated run table"},
      {std::string(12, '\xFF') + '\x01', 1, "run length too large"},
      {std::string(300000, '\0'), 1, "too many attribute runs"}};
  for (const auto& [info, tableSize, refusal] : tables) {
    SCOPED_TRACE(refusal);
    LogCapture logs;
    EXPECT_EQ(PXUnarchiveAttributedString(withRuns(info, tableSize)).has_value(), refusal.empty());
    EXPECT_TRUE(refusal.empty() || logs.contains(refusal));
  }
  // A short run table leaves the rest of the text unstyled.
  const auto shortTable = PXUnarchiveAttributedString(withRuns(std::string("\x01\x00", 2), 1));
  ASSERT_TRUE(shortTable.has_value());
  ASSERT_EQ(shortTable->runs().size(), 1u);
  EXPECT_EQ(shortTable->runs()[0].length, 4u);
}

TEST(KeyedArchiveReplacingText, KeepsTheFirstRunAsArchivedEvenWhenOddlyLinked) {
  // The first run's dictionary refers to itself and to a shared object; the
  // second run's is dropped with the old text.
  const auto archive = attributedArchive("old text", [](ArchiveBuilder& raw, plist_t root) {
    const uint64_t shared = raw.add(plist_new_string("shared value"));
    const uint64_t self = raw.nextUID() + 3;  // the dictionary made next, after two keys and its class
    const uint64_t first = raw.dictionary({{"XSelf", self}, {"XShared", shared}});
    EXPECT_EQ(first, self);
    const uint64_t second = raw.dictionary({{"NSKern", raw.add(plist_new_real(2))}});
    const uint64_t list = raw.add(raw.object("NSArray", {{"NS.objects", raw.uids({first, second})}}));
    plist_dict_set_item(root, "NSAttributes", plist_new_uid(list));
    const std::string info("\x03\x00\x05\x01", 4);
    plist_dict_set_item(root, "NSAttributeInfo", raw.ref(plist_new_data(info.data(), info.size())));
  });
  ASSERT_TRUE(PXUnarchiveAttributedString(archive).has_value());
  const auto replaced = PXArchiveReplacingAttributedStringText(archive, "new");
  ASSERT_TRUE(replaced.has_value());
  const std::string xml = test::plistXML(*replaced);
  for (const char* kept : {"XSelf", "XShared", "shared value", "new"}) EXPECT_NE(xml.find(kept), std::string::npos) << kept;
  for (const char* gone : {"NSKern", "old text"}) EXPECT_EQ(xml.find(gone), std::string::npos) << gone;
  const auto decoded = PXUnarchiveAttributedString(*replaced);
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(decoded->string(), "new");
  EXPECT_EQ(decoded->runs().size(), 1u);

  // An empty text has no characters to carry attributes.
  const auto emptied = PXUnarchiveAttributedString(PXArchiveReplacingAttributedStringText(archive, "").value());
  ASSERT_TRUE(emptied.has_value());
  EXPECT_TRUE(emptied->runs().empty());
}

TEST(KeyedArchiveReplacingText, RefusesWhatIsNoAttributedString) {
  LogCapture logs;
  // A chain of dictionaries longer than any real paragraph style.
  const auto deep = attributedArchive("deep", [](ArchiveBuilder& raw, plist_t root) {
    uint64_t link = raw.add(plist_new_string("end"));
    for (int i = 0; i < 200; ++i) link = raw.dictionary({{"XNext", link}});
    plist_dict_set_item(root, "NSAttributes", plist_new_uid(link));
  });
  ArchiveBuilder plain;
  const std::string plainString = plain.finish(plain.add(plain.object("NSString", {{"NS.string", plist_new_string("x")}})));
  for (const std::string& archive : {deep, plainString, std::string("bplist00 not really"), std::string()})
    EXPECT_FALSE(PXArchiveReplacingAttributedStringText(archive, "new").has_value());
  EXPECT_TRUE(logs.contains("object references nested too deeply"));
}

TEST(KeyedArchiveHostile, WrongTypedAttributeValuesAreDropped) {
  const auto archive = attributedArchive("styled", [](ArchiveBuilder& raw, plist_t root) {
    const uint64_t badFont = raw.add(plist_new_string("not a descriptor"));
    const uint64_t badColor = raw.add(raw.object("NSColor", {{"NSColorSpace", plist_new_uint(1)},
                                                             {"NSRGB", plist_new_string("0 0 0")}}));  // not data
    const uint64_t nanKern = raw.add(plist_new_real(std::numeric_limits<double>::quiet_NaN()));
    const uint64_t style = raw.add(raw.object("NSMutableParagraphStyle", {{"NSMinLineHeight", plist_new_string("tall")},
                                                                          {"NSParagraphSpacing", plist_new_real(4)}}));
    plist_dict_set_item(root, "NSAttributes",
                        plist_new_uid(raw.dictionary({{"MSAttributedStringFontAttribute", badFont},
                                                      {"NSColor", badColor},
                                                      {"NSKern", nanKern},
                                                      {"NSParagraphStyle", style}})));
  });
  const auto decoded = PXUnarchiveAttributedString(archive);
  ASSERT_TRUE(decoded.has_value());
  // Only the paragraph spacing survives; an alignment left out stays out
  // (natural).
  PXTextAttributes expected;
  expected.paragraphStyle = PXParagraphStyle{std::nullopt, {}, {}, 4.0, {}, {}, {}};
  EXPECT_EQ(decoded->runs()[0].attributes, expected);
}

TEST(KeyedArchiveHostile, TruncatedAndCorruptedArchivesNeverCrash) {
  PXAttributedString string("Corrupt me \xF0\x9F\x98\x80", fontAttributes("Roboto-Bold", 12));
  string.addAttributes(fontAttributes("Roboto-Light", 9), {3, 4});
  PXTextAttributes colour;
  colour.foregroundColor = PXColor::rgb(0.1, 0.2, 0.3);
  string.addAttributes(colour, {0, 5});
  const std::string archive = PXArchiveAttributedString(string).value();

  LogCapture logs;
  size_t decodedPrefixes = 0;
  for (size_t cut = 0; cut < archive.size(); ++cut) {
    if (PXUnarchiveAttributedString(archive.substr(0, cut))) ++decodedPrefixes;
  }
  EXPECT_EQ(decodedPrefixes, 0u);  // the trailer is at the end: no prefix is whole

  // Every byte replaced by a few values: whatever decodes must still be a
  // consistent string whose runs cover it.
  for (size_t i = 0; i < archive.size(); ++i) {
    for (unsigned char value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
      std::string corrupt = archive;
      corrupt[i] = static_cast<char>(value);
      const auto decoded = PXUnarchiveAttributedString(corrupt);
      if (!decoded) continue;
      ASSERT_EQ(unitsInRuns(*decoded), decoded->length()) << "byte " << i;
    }
  }
}

// MARK: - Sketch's archives
// (The archived kit checked against its attribute-list twin is in PXMetaTextTests.)

TEST(KeyedArchiveCorpus, EveryArchivedTextDecodes) {
  size_t documents = 0;
  for (const auto& path : plexa::test::corpusDocuments()) {
    const auto texts = archivedTexts(path);
    for (const auto& [id, archive] : texts) {
      const auto string = PXUnarchiveAttributedStringFromBase64(archive);
      EXPECT_TRUE(string.has_value()) << path << " " << id;
      if (!string) continue;
      EXPECT_EQ(unitsInRuns(*string), string->length()) << path << " " << id;
      // Sketch always stores a font for every run it writes.
      EXPECT_TRUE(string->runs().empty() || string->runs().back().attributes.font) << path << " " << id;
    }
    documents += texts.empty() ? 0 : 1;
  }
  if (!plexa::test::corpusDocuments().empty()) EXPECT_EQ(documents, 5u);
}

TEST(KeyedArchiveCorpus, EmojiRunsUseUTF16Lengths) {
  const auto texts = archivedTexts(std::string(PLEXA_CORPUS_DIR) + "/stacks-icons-s43.sketch");
  const auto it = texts.find("9FBFB26E-192C-49C7-93FC-AD91F47B7938");
  if (it == texts.end()) GTEST_SKIP() << "corpus document not available";
  const auto string = PXUnarchiveAttributedStringFromBase64(it->second);
  ASSERT_TRUE(string.has_value());
  ASSERT_EQ(string->runs().size(), 4u);
  const auto& runs = string->runs();
  EXPECT_EQ(runs[0].attributes.font, (PXFontDescriptor{"Menlo-Regular", 12}));
  EXPECT_EQ(runs[1].attributes.font->name, "Menlo-Italic");
  EXPECT_EQ(runs[3].attributes.font->name, "AppleColorEmoji");
  EXPECT_EQ(string->substring({runs[3].location, runs[3].length}), "\xF0\x9F\x98\x8E");
  EXPECT_EQ(runs[3].location + runs[3].length, string->length());
  EXPECT_EQ(runs[0].attributes.kerning, 0.0);
  ASSERT_TRUE(runs[0].attributes.foregroundColor.has_value());
  const auto rgb = runs[0].attributes.foregroundColor->rgbComponents().value();
  EXPECT_NEAR(rgb.red, 0.5882352941, 1e-9);
  EXPECT_NEAR(rgb.blue, 0.6352941176, 1e-9);
  EXPECT_EQ(runs[0].attributes.foregroundColor->archiveColorSpace, 1);
  EXPECT_EQ(runs[0].attributes.paragraphStyle->minimumLineHeight, 19.0);

  // Re-encoding Sketch's text with our encoder loses nothing we read.
  EXPECT_EQ(PXUnarchiveAttributedString(PXArchiveAttributedString(*string).value()), string);
}
