// Text layers to plain text and typeface records, from both of Sketch's
// storage forms.

#include "KeyedArchive.h"
#include "PXMetaText.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>

using namespace plexa;

namespace {

bool fontsInstalled() { return PXFontWithName("Roboto-Bold", 12) && PXFontWithName("OpenSans-Light", 12); }

#define REQUIRE_FONTS() \
  if (!fontsInstalled()) GTEST_SKIP() << "fonts-roboto and fonts-open-sans are not installed"

// One entry of the attribute-list form.
JsonObject entry(size_t location, size_t length, JsonObject attributes) {
  return JsonObject{{"_class", "stringAttribute"}, {"location", location}, {"length", length}, {"attributes", attributes}};
}

JsonObject font(const std::string& name, double size) {
  return JsonObject{{"_class", "fontDescriptor"}, {"attributes", JsonObject{{"name", name}, {"size", size}}}};
}

JsonObject textLayer(const std::string& string, JsonArray entries, JsonObject extra = {}) {
  JsonObject layer{{"_class", "text"},
                   {"do_objectID", "T1"},
                   {"attributedString", JsonObject{{"_class", "attributedString"}, {"string", string}, {"attributes", entries}}}};
  for (const auto& item : extra) layer[item.key()] = item.value();
  return layer;
}

JsonObject archivedLayer(const PXAttributedString& string) {
  return JsonObject{{"_class", "text"},
                    {"attributedString",
                     JsonObject{{"archivedAttributedString",
                                 JsonObject{{"_archive", PXArchiveAttributedStringToBase64(string).value()}}}}}};
}

JsonObject typeface(const JsonObject& layer) {
  auto record = PXMetaTypefaceFromJSON(layer);
  EXPECT_TRUE(record.has_value());
  return record.value_or(JsonObject{});
}

double number(const JsonObject& record, const char* key) { return PXJsonDouble(record.if_contains(key)).value_or(-1); }

std::string text(const JsonObject& record, const char* key) {
  return std::string(PXJsonText(record.if_contains(key)).value_or("<absent>"));
}

}  // namespace

TEST(PXMetaTextAttributeList, LastRunWinsForFontAndSize) {
  REQUIRE_FONTS();
  const auto layer = textLayer("Small Large", JsonArray{entry(0, 6, {{"MSAttributedStringFontAttribute", font("OpenSans-Light", 12)}}),
                                                       entry(6, 5, {{"MSAttributedStringFontAttribute", font("Roboto-Bold", 18)}})});
  const JsonObject record = typeface(layer);
  EXPECT_EQ(number(record, "fontSize"), 18);
  EXPECT_EQ(text(record, "typeface"), "Roboto");
  EXPECT_EQ(text(record, "weight"), "Bold");
  EXPECT_EQ(PXMetaTextFromJSON(layer), "Small Large");

  // Ranges count UTF-16 units: the emoji takes two, so "ab" starts at 3.
  const auto emoji = textLayer("\xF0\x9F\x98\x80 ab", JsonArray{entry(0, 3, {{"MSAttributedStringFontAttribute", font("Roboto-Bold", 10)}}),
                                                               entry(3, 2, {{"MSAttributedStringFontAttribute", font("Roboto-Thin", 20)}})});
  const auto string = PXAttributedStringFromJSONAttributedString(emoji).value();
  ASSERT_EQ(string.runs().size(), 2u);
  EXPECT_EQ(string.substring({string.runs()[1].location, string.runs()[1].length}), "ab");
  EXPECT_EQ(text(typeface(emoji), "weight"), "Thin");
}

TEST(PXMetaTextAttributeList, MissingFontsAndParagraphValues) {
  const auto missing = textLayer("Hi", JsonArray{entry(0, 2, {{"MSAttributedStringFontAttribute", font("SourceSansPro-Bold", 13.5)},
                                                             {"paragraphStyle", JsonObject{{"alignment", 2}, {"paragraphSpacing", 3.456}}}})});
  const JsonObject record = typeface(missing);
  EXPECT_EQ(text(record, "typeface"), ".SF NS Display");
  EXPECT_EQ(text(record, "weight"), "Regular");
  EXPECT_EQ(number(record, "fontSize"), 13.5);
  EXPECT_EQ(number(record, "paragraphSpacing"), 3.46);
  EXPECT_EQ(text(record, "alignment"), "center");
  // No minimum line height: the default line height of the font in use.
  const auto systemHeight = PXDefaultLineHeightForFont(PXSystemFontOfSize(13.5));
  if (systemHeight) EXPECT_DOUBLE_EQ(number(record, "lineHeight"), *systemHeight);

  // No paragraph style: no line height, alignment or paragraph spacing.
  const auto plain = textLayer("Hi", JsonArray{entry(0, 2, {{"MSAttributedStringFontAttribute", font("Roboto-Bold", 12)}})});
  const JsonObject bare = typeface(plain);
  EXPECT_FALSE(bare.contains("lineHeight"));
  EXPECT_FALSE(bare.contains("alignment"));
  EXPECT_FALSE(bare.contains("paragraphSpacing"));
  EXPECT_EQ(bare.at("fontColor"), (JsonArray{0, 0, 0, 1}));

  // Paragraph spacing rounds in double precision: 1.005 is just below.
  const auto spacing = [](double value) {
    return number(typeface(textLayer("x", JsonArray{entry(0, 1, {{"paragraphStyle", JsonObject{{"paragraphSpacing", value}}}})})),
                  "paragraphSpacing");
  };
  EXPECT_EQ(spacing(1.005), 1.0);
  EXPECT_EQ(spacing(-2.345), -2.35);  // half away from zero
  EXPECT_EQ(spacing(7), 7);

  const auto minimum = [](double value, const std::string& face) {
    return number(typeface(textLayer("x", JsonArray{entry(0, 1, {{"MSAttributedStringFontAttribute", font(face, 12)},
                                                               {"paragraphStyle", JsonObject{{"minimumLineHeight", value}}}})})),
                  "lineHeight");
  };
  EXPECT_EQ(minimum(20, "Roboto-Bold"), 20);
  if (fontsInstalled()) {
    EXPECT_EQ(minimum(0, "Roboto-Bold"), PXDefaultLineHeightForFont(PXFontWithName("Roboto-Bold", 12).value()).value());
    EXPECT_NE(minimum(0, "Roboto-Bold"), minimum(0, "OpenSans-Light"));
  }
}

TEST(PXMetaTextAttributeList, AlignmentTableAndItsSystemFacePairing) {
  const auto alignment = [](JsonValue value, const char* face = "Roboto-Bold") {
    return typeface(textLayer("x", JsonArray{entry(0, 1, {{"MSAttributedStringFontAttribute", font(face, 12)},
                                                          {"paragraphStyle", JsonObject{{"alignment", value}}}})}));
  };
  EXPECT_EQ(text(alignment(0), "alignment"), "left");
  EXPECT_EQ(text(alignment(1), "alignment"), "right");
  EXPECT_EQ(text(alignment(2), "alignment"), "center");
  EXPECT_EQ(text(alignment(3), "alignment"), "justify");
  EXPECT_EQ(text(alignment(4), "alignment"), "left");
  // Past the table: centred, and the typeface becomes the system UI face.
  for (JsonValue value : {JsonValue(5), JsonValue(9), JsonValue(-1)}) {
    const JsonObject record = alignment(value);
    EXPECT_EQ(text(record, "alignment"), "center");
    EXPECT_EQ(text(record, "typeface"), ".AppleSystemUIFont");
  }
  // A paragraph style without an alignment is natural, reported as left.
  EXPECT_EQ(text(typeface(textLayer("x", JsonArray{entry(0, 1, {{"paragraphStyle", JsonObject{}}})})), "alignment"), "left");
}

TEST(PXMetaTextAttributeList, ColoursSpacingAndRecordOrder) {
  const auto coloured = textLayer(
      "Hi", JsonArray{entry(0, 2, {{"MSAttributedStringFontAttribute", font("Roboto-Bold", 12)},
                                   {"MSAttributedStringColorAttribute",
                                    JsonObject{{"_class", "color"}, {"red", 1}, {"green", 0.5}, {"blue", 0}, {"alpha", 0.4}}},
                                   {"paragraphStyle", JsonObject{{"alignment", 1}}}})},
      JsonObject{{"style", JsonObject{{"textStyle", JsonObject{{"encodedAttributes", JsonObject{{"NSKern", 1.5}, {"kerning", 9}}}}}}}});
  const JsonObject record = typeface(coloured);
  // Components are floats: alpha 0.4 comes back as the float's value.
  EXPECT_EQ(record.at("fontColor"), (JsonArray{255.0, 128.0, 0.0, static_cast<double>(0.4f)}));
  EXPECT_EQ(number(record, "characterSpacing"), 1.5);

  std::vector<std::string> keys;
  for (const auto& item : record) keys.emplace_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"typeface", "weight", "fontSize", "lineHeight", "characterSpacing",
                                            "paragraphSpacing", "alignment", "fontColor"}));

  const auto spacing = [](JsonObject encoded) {
    JsonObject style{{"textStyle", JsonObject{{"encodedAttributes", encoded}}}};
    return typeface(textLayer("x", JsonArray{entry(0, 1, {})}, JsonObject{{"style", style}})).at("characterSpacing");
  };
  EXPECT_EQ(spacing({{"kerning", 2}}), JsonValue(2));
  EXPECT_EQ(spacing({}), JsonValue(0));
  EXPECT_EQ(spacing({{"NSKern", nullptr}, {"kerning", 2}}), JsonValue(0));  // null is replaced by the fallback
  EXPECT_EQ(typeface(textLayer("x", JsonArray{})).at("characterSpacing"), JsonValue(0));
}

TEST(PXMetaTextForms, NeitherFormMalformedEntriesAndPreference) {
  const JsonObject none{{"_class", "text"}, {"name", "empty"}};
  EXPECT_FALSE(PXMetaTextFromJSON(none).has_value());
  EXPECT_FALSE(PXMetaTypefaceFromJSON(none).has_value());
  EXPECT_FALSE(PXMetaTextFromJSON(JsonObject{{"attributedString", JsonObject{{"string", 5}}}}).has_value());
  EXPECT_FALSE(PXMetaTextFromJSON(JsonObject{{"attributedString", "text"}}).has_value());

  // Entries out of range, negative, or of the wrong shape are survived.
  test::LogCapture logs;
  const auto odd = textLayer("abc", JsonArray{entry(100, 4, {{"MSAttributedStringFontAttribute", font("X", 3)}}), JsonValue("junk"),
                                              JsonObject{{"location", -1}, {"length", 2}, {"attributes", JsonObject{}}},
                                              entry(1, 400, {{"MSAttributedStringFontAttribute", font("Y", 7)}})});
  const auto string = PXAttributedStringFromJSONAttributedString(odd);
  ASSERT_TRUE(string.has_value());
  EXPECT_EQ(string->runs().back().attributes.font->name, "Y");
  EXPECT_EQ(string->runs().back().length, 2u);
  EXPECT_EQ(number(typeface(odd), "fontSize"), 7);

  // The archived form comes first; a broken archive falls back to the list.
  JsonObject both = textLayer("from the list", JsonArray{});
  both["attributedString"].as_object()["archivedAttributedString"] =
      JsonObject{{"_archive", PXArchiveAttributedStringToBase64(PXAttributedString("from the archive")).value()}};
  EXPECT_EQ(PXMetaTextFromJSON(both), "from the archive");
  both["attributedString"].as_object()["archivedAttributedString"] = JsonObject{{"_archive", "bm90IGFuIGFyY2hpdmU="}};
  EXPECT_EQ(PXMetaTextFromJSON(both), "from the list");
  EXPECT_TRUE(logs.contains("Could not unarchive"));

  // An empty text has no runs and so no typeface values.
  const JsonObject empty = typeface(textLayer("", JsonArray{}));
  EXPECT_FALSE(empty.contains("typeface"));
  EXPECT_FALSE(empty.contains("fontColor"));
}

TEST(PXMetaTextArchived, ColourSourcesAndParagraphsFromArchives) {
  PXTextAttributes attributes;
  attributes.font = PXFontDescriptor{"Roboto-Bold", 16};
  attributes.colorDictionary = PXColorDictionary{0.5, 0.2, 1.0, 0.75};
  PXAttributedString string("Archived", attributes);
  JsonObject record = typeface(archivedLayer(string));
  EXPECT_EQ(record.at("fontColor"), (JsonArray{128.0, 51.0, 255.0, 0.75}));
  EXPECT_EQ(number(record, "fontSize"), 16);
  EXPECT_FALSE(record.contains("alignment"));

  // A platform colour wins over the dictionary; gray converts to RGB.
  attributes.foregroundColor = PXColor::gray(0.5, 0.25);
  attributes.paragraphStyle = PXParagraphStyle{};
  attributes.paragraphStyle->alignment = 3;
  attributes.paragraphStyle->paragraphSpacing = 2.125;
  string.setAttributes(attributes, {0, string.length()});
  record = typeface(archivedLayer(string));
  EXPECT_EQ(record.at("fontColor"), (JsonArray{128.0, 128.0, 128.0, 0.25}));
  EXPECT_EQ(text(record, "alignment"), "justify");
  EXPECT_EQ(number(record, "paragraphSpacing"), 2.13);

  // Channels are rounded after narrowing to single precision.
  attributes.foregroundColor = PXColor::rgb(0.2, 0.6, 0.99, 1);
  string.setAttributes(attributes, {0, string.length()});
  EXPECT_EQ(typeface(archivedLayer(string)).at("fontColor"), (JsonArray{51.0, 153.0, 252.0, 1.0}));

  // Absurd archived values still make a record that can be written.
  attributes.font = PXFontDescriptor{"Roboto-Bold", 1e300};
  attributes.foregroundColor = PXColor::rgb(1e300, -1e300, 0.5, 1);
  attributes.paragraphStyle->paragraphSpacing = 1e306;
  string.setAttributes(attributes, {0, string.length()});
  record = typeface(archivedLayer(string));
  EXPECT_TRUE(PXJsonSerialize(record, false).has_value());
  EXPECT_EQ(record.at("fontColor").as_array()[2], JsonValue(128.0));
  attributes.foregroundColor.reset();
  attributes.colorDictionary = PXColorDictionary{1e300, std::nullopt, 0.5, std::nullopt};
  string.setAttributes(attributes, {0, string.length()});
  record = typeface(archivedLayer(string));
  EXPECT_TRUE(PXJsonSerialize(record, false).has_value());
  EXPECT_EQ(record.at("fontColor").as_array()[1], JsonValue(0.0));
  EXPECT_EQ(record.at("fontColor").as_array()[3], JsonValue(1.0));
}

TEST(PXMetaTextWeights, FaceNameWithinTheFamily) {
  REQUIRE_FONTS();
  EXPECT_EQ(PXMetaWeightFromFont(PXFontWithName("Roboto-Bold", 12).value()), "Bold");
  EXPECT_EQ(PXMetaWeightFromFont(PXFontWithName("Roboto-LightItalic", 12).value()), "Light Italic");
  EXPECT_EQ(PXMetaWeightFromFont(PXFontWithName("OpenSans-Semibold", 12).value()), "Semibold");
  PXFont stranger = PXFontWithName("Roboto-Bold", 12).value();
  stranger.postScriptName = "Roboto-Imaginary";
  EXPECT_EQ(PXMetaWeightFromFont(stranger), "");
  stranger.family = "No Such Family";
  EXPECT_EQ(PXMetaWeightFromFont(stranger), "");
}

// The same kit in its archived (Sketch 48) and attribute-list (Sketch 53)
// saves gives the same text and typeface records. Between the two saves a
// few texts were recoloured and two colours carry an embedded profile; those
// are the only differences allowed.
TEST(PXMetaTextCorpus, ArchivedAndAttributeListKitAgree) {
  const std::string dir = PLEXA_CORPUS_DIR;
  std::map<std::string, JsonObject> older, newer;
  const auto load = [](const std::string& path, std::map<std::string, JsonObject>& into) {
    std::function<void(const JsonValue&)> walk = [&](const JsonValue& value) {
      if (const JsonObject* object = value.if_object()) {
        if (PXJsonTextFor(&value, "_class") == "text") into.emplace(std::string(PXJsonTextFor(&value, "do_objectID").value_or("")), *object);
        for (const auto& item : *object) walk(item.value());
      } else if (const JsonArray* array = value.if_array()) {
        for (const auto& element : *array) walk(element);
      }
    };
    for (const auto& name : PXZip::entryNames(path).value_or(std::vector<std::string>{})) {
      if (name.rfind("pages/", 0) == 0) walk(PXJsonParse(PXZip::readEntry(path, name).value_or("")).value_or(nullptr));
    }
  };
  load(dir + "/infor-ids-design-kit-s48.sketch", older);
  load(dir + "/infor-ids-design-kit-s53.sketch", newer);
  if (older.empty() || newer.empty()) GTEST_SKIP() << "corpus documents not available";

  size_t compared = 0, colourDifferences = 0, otherDifferences = 0;
  for (const auto& [id, layer] : older) {
    const auto twin = newer.find(id);
    if (twin == newer.end()) continue;
    const auto oldText = PXMetaTextFromJSON(layer);
    ASSERT_TRUE(oldText.has_value()) << id;
    if (oldText != PXMetaTextFromJSON(twin->second)) continue;  // rewritten between the saves
    ++compared;
    JsonObject a = PXMetaTypefaceFromJSON(layer).value();
    JsonObject b = PXMetaTypefaceFromJSON(twin->second).value();
    if (a.at("fontColor") != b.at("fontColor")) ++colourDifferences;
    a.erase("fontColor");
    b.erase("fontColor");
    if (a != b) {
      ++otherDifferences;
      ADD_FAILURE() << id << "\n" << PXJsonSerialize(a, false).value() << "\n" << PXJsonSerialize(b, false).value();
    }
  }
  EXPECT_GT(compared, 1200u);
  EXPECT_LE(colourDifferences, 8u);
  EXPECT_EQ(otherDifferences, 0u);
}
