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

// The attributes of one entry: a font when `face` is named, and the
// paragraph style when one is given.
JsonObject styled(const std::string& face, double size, std::optional<JsonObject> paragraph = std::nullopt) {
  JsonObject attributes;
  if (!face.empty()) {
    attributes["MSAttributedStringFontAttribute"] =
        JsonObject{{"_class", "fontDescriptor"}, {"attributes", JsonObject{{"name", face}, {"size", size}}}};
  }
  if (paragraph) attributes["paragraphStyle"] = *paragraph;
  return attributes;
}

JsonObject textLayer(const std::string& string, JsonArray entries, JsonObject extra = {}) {
  JsonObject layer{{"_class", "text"},
                   {"do_objectID", "T1"},
                   {"attributedString", JsonObject{{"_class", "attributedString"}, {"string", string}, {"attributes", entries}}}};
  for (const auto& item : extra) layer[item.key()] = item.value();
  return layer;
}

// A text layer with one entry over all of `string`.
JsonObject oneRun(const std::string& string, JsonObject attributes, JsonObject extra = {}) {
  return textLayer(string, {entry(0, PXUTF16Length(string), std::move(attributes))}, std::move(extra));
}

// The layer members that give `style.textStyle.encodedAttributes`.
JsonObject encodedAttributes(JsonObject encoded) {
  return JsonObject{{"style", JsonObject{{"textStyle", JsonObject{{"encodedAttributes", std::move(encoded)}}}}}};
}

JsonObject typeface(const JsonObject& layer) {
  auto record = PXMetaTypefaceFromJSON(layer);
  EXPECT_TRUE(record.has_value());
  return record.value_or(JsonObject{});
}

// The record of an archived text styled with `attributes` throughout.
JsonObject archivedTypeface(const PXTextAttributes& attributes) {
  const auto archive = PXArchiveAttributedStringToBase64(PXAttributedString("Archived", attributes)).value();
  return typeface(JsonObject{{"_class", "text"},
                             {"attributedString", JsonObject{{"archivedAttributedString", JsonObject{{"_archive", archive}}}}}});
}

double number(const JsonObject& record, const char* key) { return PXJsonDouble(record.if_contains(key)).value_or(-1); }

std::string text(const JsonObject& record, const char* key) {
  return std::string(PXJsonText(record.if_contains(key)).value_or("<absent>"));
}

// Every text layer of a document's pages, by layer ID.
std::map<std::string, JsonObject> textLayers(const std::string& path) {
  std::map<std::string, JsonObject> layers;
  std::function<void(const JsonValue&)> walk = [&](const JsonValue& value) {
    if (value.is_array()) for (const auto& element : value.get_array()) walk(element);
    if (!value.is_object()) return;
    if (PXJsonTextFor(&value, "_class") == "text")
      layers.emplace(std::string(PXJsonTextFor(&value, "do_objectID").value_or("")), value.get_object());
    for (const auto& item : value.get_object()) walk(item.value());
  };
  for (const auto& name : PXZip::entryNames(path).value_or(std::vector<std::string>{})) {
    if (name.rfind("pages/", 0) == 0) walk(PXJsonParse(PXZip::readEntry(path, name).value_or("")).value_or(nullptr));
  }
  return layers;
}

}  // namespace

TEST(PXMetaTextAttributeList, LastRunWinsForFontAndSize) {
  REQUIRE_FONTS();
  const auto layer = textLayer("Small Large", {entry(0, 6, styled("OpenSans-Light", 12)), entry(6, 5, styled("Roboto-Bold", 18))});
  const JsonObject record = typeface(layer);
  EXPECT_EQ(number(record, "fontSize"), 18);
  EXPECT_EQ(text(record, "typeface"), "Roboto");
  EXPECT_EQ(text(record, "weight"), "Bold");

  // Ranges count UTF-16 units: the emoji takes two, so "ab" starts at 3.
  const auto emoji = textLayer("\xF0\x9F\x98\x80 ab", {entry(0, 3, styled("Roboto-Bold", 10)), entry(3, 2, styled("Roboto-Thin", 20))});
  const auto string = PXAttributedStringFromJSONAttributedString(emoji).value();
  ASSERT_EQ(string.runs().size(), 2u);
  EXPECT_EQ(string.substring({string.runs()[1].location, string.runs()[1].length}), "ab");
  EXPECT_EQ(text(typeface(emoji), "weight"), "Thin");
}

TEST(PXMetaTextAttributeList, MissingFontsAndParagraphValues) {
  JsonObject record =
      typeface(oneRun("Hi", styled("SourceSansPro-Bold", 13.5, JsonObject{{"alignment", 2}, {"paragraphSpacing", 3.456}})));
  // No minimum line height: the default line height of the font in use.
  const auto systemHeight = PXDefaultLineHeightForFont(PXSystemFontOfSize(13.5));
  if (systemHeight) EXPECT_DOUBLE_EQ(number(record, "lineHeight"), *systemHeight);
  record["lineHeight"] = nullptr;  // in place: the order stays
  EXPECT_EQ(test::compactJson(record), R"({"typeface":".SF NS Display","weight":"Regular","fontSize":13.5,"lineHeight":null,)"
                                       R"("characterSpacing":0,"paragraphSpacing":3.46,"alignment":"center","fontColor":[0,0,0,1]})");

  // No paragraph style: no line height, alignment or paragraph spacing.
  const JsonObject bare = typeface(oneRun("Hi", styled("Roboto-Bold", 12)));
  for (const char* key : {"lineHeight", "alignment", "paragraphSpacing"}) EXPECT_FALSE(bare.contains(key)) << key;

  // Paragraph spacing rounds half away from zero in double precision, so
  // 1.005 (just below) rounds down.
  for (const auto& [value, rounded] : std::vector<std::pair<double, double>>{{1.005, 1.0}, {-2.345, -2.35}, {7, 7}}) {
    const auto layer = oneRun("x", styled("", 0, JsonObject{{"paragraphSpacing", value}}));
    EXPECT_EQ(number(typeface(layer), "paragraphSpacing"), rounded) << value;
  }

  const auto minimum = [](double value, const std::string& face) {
    return number(typeface(oneRun("x", styled(face, 12, JsonObject{{"minimumLineHeight", value}}))), "lineHeight");
  };
  EXPECT_EQ(minimum(20, "Roboto-Bold"), 20);
  if (fontsInstalled()) {
    EXPECT_EQ(minimum(0, "Roboto-Bold"), PXDefaultLineHeightForFont(PXFontWithName("Roboto-Bold", 12).value()).value());
    EXPECT_NE(minimum(0, "Roboto-Bold"), minimum(0, "OpenSans-Light"));
  }
}

TEST(PXMetaTextAttributeList, AlignmentTableAndItsSystemFacePairing) {
  // Past the table (5, 9, -1): centred, and the typeface becomes the system UI face.
  const std::vector<std::pair<int, std::string>> rows = {{0, "left"},    {1, "right"},  {2, "center"}, {3, "justify"},
                                                         {4, "left"},    {5, "center"}, {9, "center"}, {-1, "center"}};
  for (const auto& [value, alignment] : rows) {
    SCOPED_TRACE(value);
    const JsonObject record = typeface(oneRun("x", styled("Roboto-Bold", 12, JsonObject{{"alignment", value}})));
    EXPECT_EQ(text(record, "alignment"), alignment);
    EXPECT_EQ(text(record, "typeface") == ".AppleSystemUIFont", value < 0 || value > 4);
  }
  // A paragraph style without an alignment is natural, reported as left.
  EXPECT_EQ(text(typeface(oneRun("x", styled("", 0, JsonObject{}))), "alignment"), "left");
}

TEST(PXMetaTextAttributeList, ColoursAndCharacterSpacing) {
  JsonObject attributes = styled("Roboto-Bold", 12, JsonObject{{"alignment", 1}});
  attributes["MSAttributedStringColorAttribute"] =
      JsonObject{{"_class", "color"}, {"red", 1}, {"green", 0.5}, {"blue", 0}, {"alpha", 0.4}};
  const JsonObject record = typeface(oneRun("Hi", attributes, encodedAttributes({{"NSKern", 1.5}, {"kerning", 9}})));
  // Components are floats: alpha 0.4 comes back as the float's value.
  EXPECT_EQ(record.at("fontColor"), (JsonArray{255.0, 128.0, 0.0, static_cast<double>(0.4f)}));
  EXPECT_EQ(number(record, "characterSpacing"), 1.5);

  const auto spacing = [](JsonObject encoded) {
    return typeface(oneRun("x", {}, encodedAttributes(std::move(encoded)))).at("characterSpacing");
  };
  EXPECT_EQ(spacing({{"kerning", 2}}), JsonValue(2));
  EXPECT_EQ(spacing({}), JsonValue(0));
  EXPECT_EQ(spacing({{"NSKern", nullptr}, {"kerning", 2}}), JsonValue(0));  // null is replaced by the fallback
}

TEST(PXMetaTextForms, NeitherFormMalformedEntriesAndPreference) {
  const JsonObject none{{"_class", "text"}, {"name", "empty"}};
  EXPECT_FALSE(PXMetaTextFromJSON(none).has_value());
  EXPECT_FALSE(PXMetaTypefaceFromJSON(none).has_value());
  EXPECT_FALSE(PXMetaTextFromJSON(JsonObject{{"attributedString", JsonObject{{"string", 5}}}}).has_value());
  EXPECT_FALSE(PXMetaTextFromJSON(JsonObject{{"attributedString", "text"}}).has_value());

  // Entries out of range, negative, or of the wrong shape are survived.
  test::LogCapture logs;
  const auto odd = textLayer("abc", {entry(100, 4, styled("X", 3)), "junk",
                                     JsonObject{{"location", -1}, {"length", 2}, {"attributes", JsonObject{}}},
                                     entry(1, 400, styled("Y", 7))});
  const auto string = PXAttributedStringFromJSONAttributedString(odd);
  ASSERT_TRUE(string.has_value());
  EXPECT_EQ(string->runs().back().attributes.font->name, "Y");
  EXPECT_EQ(string->runs().back().length, 2u);
  EXPECT_EQ(number(typeface(odd), "fontSize"), 7);

  // The archived form comes first; a broken archive falls back to the list.
  JsonObject both = textLayer("from the list", JsonArray{});
  JsonValue& archived = both["attributedString"].as_object()["archivedAttributedString"];
  archived = JsonObject{{"_archive", PXArchiveAttributedStringToBase64(PXAttributedString("from the archive")).value()}};
  EXPECT_EQ(PXMetaTextFromJSON(both), "from the archive");
  archived = JsonObject{{"_archive", "bm90IGFuIGFyY2hpdmU="}};
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
  JsonObject record = archivedTypeface(attributes);
  EXPECT_EQ(record.at("fontColor"), (JsonArray{128.0, 51.0, 255.0, 0.75}));
  EXPECT_EQ(number(record, "fontSize"), 16);

  // A platform colour wins over the dictionary; gray converts to RGB.
  attributes.foregroundColor = PXColor::gray(0.5, 0.25);
  attributes.paragraphStyle = PXParagraphStyle{};
  attributes.paragraphStyle->alignment = 3;
  attributes.paragraphStyle->paragraphSpacing = 2.125;
  record = archivedTypeface(attributes);
  EXPECT_EQ(record.at("fontColor"), (JsonArray{128.0, 128.0, 128.0, 0.25}));
  EXPECT_EQ(text(record, "alignment"), "justify");
  EXPECT_EQ(number(record, "paragraphSpacing"), 2.13);

  // Channels are rounded after narrowing to single precision.
  attributes.foregroundColor = PXColor::rgb(0.2, 0.6, 0.99, 1);
  EXPECT_EQ(archivedTypeface(attributes).at("fontColor"), (JsonArray{51.0, 153.0, 252.0, 1.0}));

  // Absurd archived values still make a record that can be written.
  attributes.font = PXFontDescriptor{"Roboto-Bold", 1e300};
  attributes.foregroundColor = PXColor::rgb(1e300, -1e300, 0.5, 1);
  attributes.paragraphStyle->paragraphSpacing = 1e306;
  record = archivedTypeface(attributes);
  EXPECT_TRUE(PXJsonSerialize(record, false).has_value());
  EXPECT_EQ(record.at("fontColor").as_array()[2], JsonValue(128.0));
  attributes.foregroundColor.reset();
  attributes.colorDictionary = PXColorDictionary{1e300, std::nullopt, 0.5, std::nullopt};
  record = archivedTypeface(attributes);
  EXPECT_TRUE(PXJsonSerialize(record, false).has_value());
  EXPECT_EQ(record.at("fontColor").as_array()[1], JsonValue(0.0));
  EXPECT_EQ(record.at("fontColor").as_array()[3], JsonValue(1.0));
}

TEST(PXMetaTextWeights, FaceNameWithinTheFamily) {
  REQUIRE_FONTS();
  EXPECT_EQ(PXMetaWeightFromFont(PXFontWithName("Roboto-LightItalic", 12).value()), "Light Italic");
  EXPECT_EQ(PXMetaWeightFromFont(PXFontWithName("OpenSans-Semibold", 12).value()), "Semibold");
  PXFont stranger = PXFontWithName("Roboto-Bold", 12).value();
  stranger.postScriptName = "Roboto-Imaginary";
  EXPECT_EQ(PXMetaWeightFromFont(stranger), "");
  stranger.family = "No Such Family";
  EXPECT_EQ(PXMetaWeightFromFont(stranger), "");
}

// The same kit in its archived (Sketch 48) and attribute-list (Sketch 53)
// saves: the archive decodes to what Sketch itself converted it to, and both
// give the same text and typeface records. Between the two saves a bold face
// was renamed to semibold, a few texts were recoloured, and two colours carry
// an embedded profile; those are the only differences allowed.
TEST(PXMetaTextCorpus, ArchivedAndAttributeListKitAgree) {
  const std::string dir = PLEXA_CORPUS_DIR;
  const auto older = textLayers(dir + "/infor-ids-design-kit-s48.sketch");
  const auto newer = textLayers(dir + "/infor-ids-design-kit-s53.sketch");
  if (older.empty() || newer.empty()) GTEST_SKIP() << "corpus documents not available";

  size_t compared = 0, renamedFaces = 0, colourDifferences = 0;
  for (const auto& [id, layer] : older) {
    const auto twin = newer.find(id);
    if (twin == newer.end()) continue;
    const auto archived = PXAttributedStringFromJSONArchivedAttributedString(layer);
    ASSERT_TRUE(archived.has_value()) << id;
    if (archived->string() != PXMetaTextFromJSON(twin->second)) continue;  // rewritten between the saves
    ++compared;

    // The last run starts where Sketch's last entry does, in the same face.
    const auto entries = PXValueForKeyPath(twin->second, "attributedString.attributes");
    ASSERT_TRUE(entries && entries->is_array() && !entries->as_array().empty()) << id;
    const JsonValue& last = entries->as_array().back();
    const PXAttributeRun& run = archived->runs().back();
    EXPECT_EQ(run.location, PXJsonInt64For(&last, "location").value()) << id;
    const auto face = PXValueForKeyPath(last, "attributes.MSAttributedStringFontAttribute.attributes.name");
    ASSERT_TRUE(run.attributes.font && face && face->is_string()) << id;
    if (run.attributes.font->name != face->as_string()) {
      EXPECT_EQ(run.attributes.font->name + " -> " + std::string(face->as_string()),
                "SourceSansPro-Bold -> SourceSansPro-SemiBold") << id;
      ++renamedFaces;
    }

    JsonObject a = PXMetaTypefaceFromJSON(layer).value();
    JsonObject b = PXMetaTypefaceFromJSON(twin->second).value();
    if (a.at("fontColor") != b.at("fontColor")) ++colourDifferences;
    a.erase("fontColor");
    b.erase("fontColor");
    EXPECT_EQ(a, b) << id;
  }
  EXPECT_GT(compared, 1200u);
  EXPECT_LE(renamedFaces, 70u);
  EXPECT_LE(colourDifferences, 8u);
}
