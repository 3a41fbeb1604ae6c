// Resizing copied layers by their constraints, the override map, and
// applying text, image and symbol overrides (text refitting included).

#include "PXSymbolDetacherV2.h"

#include "ArchiveBuilder.h"
#include "KeyedArchive.h"
#include "PXMetaText.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <limits>

using namespace plexa;
using namespace plexa::test;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

double at(const JsonObject& l, const char* key) { return l.at("frame").at(key).to_number<double>(); }

JsonObject textLayer(const std::string& id, const std::string& text, int alignment, int mask, JsonObject f) {
  const JsonObject font{{"name", "Roboto-Bold"}, {"size", 18}};
  const JsonObject colour{{"_class", "color"}, {"red", 0.2}, {"green", 0.4}, {"blue", 0.6}, {"alpha", 0.8}};
  const JsonObject attributes{
      {"MSAttributedStringFontAttribute", JsonObject{{"_class", "fontDescriptor"}, {"attributes", font}}},
      {"MSAttributedStringColorAttribute", colour},
      {"paragraphStyle", JsonObject{{"_class", "paragraphStyle"}, {"alignment", alignment}}}};
  const JsonObject run{
      {"_class", "stringAttribute"}, {"location", 0}, {"length", PXUTF16Length(text)}, {"attributes", attributes}};
  JsonObject t = layer("text", id, "Text " + id, std::move(f));
  t["resizingConstraint"] = mask;
  t["attributedString"] = JsonObject{{"_class", "attributedString"}, {"string", text}, {"attributes", JsonArray{run}}};
  return t;
}

// The archive of a text layer as XML, to see which keys it holds.
std::string archiveXML(const JsonObject& textLayer) {
  auto base64 = PXValueForKeyPath(textLayer, "attributedString.archivedAttributedString._archive");
  return plistXML(PXBase64Decode(base64 && base64->is_string() ? base64->get_string() : "").value_or(""));
}

JsonObject master(const std::string& id, const std::string& symbolID, JsonObject f, JsonArray children) {
  JsonObject m = layer("symbolMaster", id, "Master " + id, std::move(f), std::move(children));
  m["symbolID"] = symbolID;
  return m;
}

JsonObject instance(const std::string& id, const std::string& symbolID, JsonObject f, JsonArray overrideValues = {}) {
  JsonObject i = layer("symbolInstance", id, "Instance " + id, std::move(f));
  i["symbolID"] = symbolID;
  i["overrideValues"] = std::move(overrideValues);
  return i;
}

JsonObject entry(const std::string& name, JsonValue value) {
  return JsonObject{{"_class", "overrideValue"}, {"overrideName", name}, {"value", std::move(value)}};
}

JsonObject imageRef(const std::string& path) {
  return JsonObject{{"_class", "MSJSONFileReference"}, {"_ref_class", "MSImageData"}, {"_ref", path}};
}

}  // namespace

// ---- Resizing

TEST(SymbolResizing, ConstraintMasksOnAParentTwiceAsWide) {
  // The parent is 200 × 50 now; it was 100 wide before (ratio 2), 100 tall (ratio 0.5).
  struct Row {
    unsigned mask;
    bool vertical;
    double ratio, expectedRatio, expectedPosition, expectedSize;
  };
  const double k = 190.0 / 90.0;  // width and right margin share what the fixed left leaves
  const Row rows[] = {{63, false, 2.0, 2.0, 20, 40},
                      {59, false, 2.0, k, 10, 20 * k},
                      {45, false, 2.0, 1.0, 30, 20},
                      {0, false, 2.0, 1.0, 10, 20},
                      {63, true, 0.5, 0.5, 5, 10}};
  PXSymbolDetacherV2 d("");
  const JsonObject parent = layer("group", "P", "p", frame(0, 0, 200, 50));
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << "mask " << r.mask << (r.vertical ? " vertically" : " horizontally"));
    JsonObject node = layer("rectangle", "A", "a", frame(10, 10, 20, 20));
    EXPECT_DOUBLE_EQ(d.stretchNode(node, parent, r.vertical, r.mask, r.ratio), r.expectedRatio);
    EXPECT_DOUBLE_EQ(at(node, r.vertical ? "y" : "x"), r.expectedPosition);
    EXPECT_DOUBLE_EQ(at(node, r.vertical ? "height" : "width"), r.expectedSize);
    // The other axis stays as it was.
    EXPECT_DOUBLE_EQ(at(node, r.vertical ? "x" : "y"), 10);
    EXPECT_DOUBLE_EQ(at(node, r.vertical ? "width" : "height"), 20);
  }

  // A ratio of exactly 1 changes nothing, whatever the frame says.
  JsonObject untouched = layer("rectangle", "F", "f", frame(10, 10, 20, 20));
  untouched["frame"].as_object()["x"] = "10";
  EXPECT_DOUBLE_EQ(d.stretchNode(untouched, parent, false, 63, 1.0), 1.0);
  EXPECT_EQ(untouched["frame"].at("x"), "10");
}

TEST(SymbolResizing, SinglePrecisionAndDegenerateSizes) {
  PXSymbolDetacherV2 d("");
  const JsonObject parent = layer("group", "P", "p", frame(0, 0, 200, 200));
  JsonObject precise = layer("rectangle", "A", "a", frame(0.1, 0, 20, 20));
  d.stretchNode(precise, parent, false, 63, 2.0);
  EXPECT_EQ(at(precise, "x"), static_cast<double>(0.1f) * 2);

  // A zero size on a stretched axis gives its children an undefined ratio.
  JsonObject flat = layer("rectangle", "B", "b", frame(10, 10, 0, 20));
  EXPECT_TRUE(std::isnan(d.stretchNode(flat, parent, false, 63, 2.0)));
  JsonObject child = layer("rectangle", "C", "c", frame(4, 0, 2, 2));
  d.stretchNode(child, flat, false, 45, kNaN);
  EXPECT_EQ(at(child, "x"), 0);
  JsonObject otherChild = layer("rectangle", "D", "d", frame(4, 0, 2, 2));
  d.stretchNode(otherChild, flat, false, 63, kNaN);  // undefined room: keeps its size
  EXPECT_EQ(at(otherChild, "width"), 2);

  // An infinite ratio (a master of width 0) leaves finite frames.
  JsonObject fromZero = layer("rectangle", "E", "e", frame(0, 0, 0, 0));
  d.stretchNode(fromZero, parent, false, 63, kInf);
  EXPECT_TRUE(std::isfinite(at(fromZero, "x")) && std::isfinite(at(fromZero, "width")));

  // Frames that are missing or of the wrong kind read as 0 and stay as they are.
  JsonObject noFrame = layer("rectangle", "F", "f", frame(0, 0, 1, 1));
  noFrame["frame"] = "none";
  d.stretchNode(noFrame, parent, false, 63, 2.0);
  EXPECT_EQ(noFrame["frame"], "none");
}

TEST(SymbolResizing, DetachScalesEachLevelByItsParent) {
  // Group G (mask 63) holds C (mask 63); group H (mask 45, centred) holds K.
  // The instance is twice as wide as the master and as tall.
  const JsonObject g =
      layer("group", "G", "g", frame(0, 0, 50, 50), JsonArray{layer("rectangle", "C", "c", frame(10, 10, 20, 20))});
  JsonObject h =
      layer("group", "H", "h", frame(50, 50, 20, 20), JsonArray{layer("rectangle", "K", "k", frame(5, 5, 10, 10))});
  h["resizingConstraint"] = 45;
  const JsonObject m = master("M", "SYM-M", frame(0, 0, 100, 100), JsonArray{g, h});
  JsonObject inst = instance("I", "SYM-M", frame(0, 0, 200, 100));
  PXSymbolDetacherV2 d("");
  d.detachInstance(inst, m);

  // H stays centred, at (50 + 10) × 2 − 10, and so keeps K as it was.
  const std::pair<const char*, JsonObject> expected[] = {{"G", frame(0, 0, 100, 50)},
                                                         {"C", frame(20, 10, 40, 20)},
                                                         {"H", frame(110, 50, 20, 20)},
                                                         {"K", frame(5, 5, 10, 10)}};
  for (const auto& [id, f] : expected) {
    const JsonObject* l = findLayer(inst, id);
    ASSERT_NE(l, nullptr) << id;
    EXPECT_EQ(l->at("frame"), f) << id;
  }
  // The master's own keys stay, the instance's win; the master is not touched.
  EXPECT_EQ(inst.at("_class"), "group");
  EXPECT_EQ(inst.at("name"), "Instance I");
  EXPECT_EQ(inst.at("frame"), frame(0, 0, 200, 100));
  EXPECT_EQ(m.at("layers").as_array()[0], g);
}

// ---- The override map

TEST(SymbolOverrideMap, PathsNestAndLaterEntriesWin) {
  PXSymbolDetacherV2 d("");
  auto overridesOf = [&](JsonArray values, JsonValue legacy = nullptr) {
    JsonObject i = instance("I", "S", frame(0, 0, 1, 1), std::move(values));
    if (!legacy.is_null()) i["overrides"] = std::move(legacy);
    return d.nodeOverrides(i);
  };
  EXPECT_EQ(overridesOf({entry("A/B_stringValue", "text"), entry("A_symbolID", "SWAP")}),
            (JsonObject{{"A", JsonObject{{"symbolID", "SWAP"}}}}));
  EXPECT_EQ(overridesOf({entry("A_symbolID", "SWAP"), entry("A/B_stringValue", "text")}),
            (JsonObject{{"A", JsonObject{{"symbolID", "SWAP"}, {"B", "text"}}}}));
  EXPECT_EQ(overridesOf({entry("X_stringValue", "x"), entry("X/Y/Z_stringValue", "deep"),
                         entry("_stringValue", "no path"), entry("Q_stringValue", nullptr),
                         JsonObject{{"overrideName", "R_stringValue"}}, entry("N_symbolID", 7)}),
            (JsonObject{{"X", "x"}, {"X/Y/Z", "deep"}, {"Q", nullptr}, {"N", 7}}));

  // The older map form is merged last, at the top level.
  EXPECT_EQ(overridesOf({entry("A_stringValue", "new"), entry("B_image", imageRef("images/b.png"))},
                        JsonObject{{"A", "legacy"}, {"0", JsonObject{{"C", "old"}}}}),
            (JsonObject{{"A", "legacy"}, {"B", imageRef("images/b.png")}, {"0", JsonObject{{"C", "old"}}}}));
}

TEST(SymbolOverrideApply, NestedSwapsHidesAndNestedTexts) {
  SketchFixture fixture;
  fixture.addPage(page(
      "SYMBOLS", "Symbols",
      JsonArray{
          master("MO", "SYM-O", frame(0, 0, 100, 100), JsonArray{instance("N", "SYM-A", frame(0, 0, 50, 50))}),
          master("MA", "SYM-A", frame(0, 0, 50, 50), JsonArray{textLayer("TA", "In A", 0, 47, frame(0, 0, 50, 20))}),
          master("MB", "SYM-B", frame(0, 0, 50, 50), JsonArray{textLayer("TB", "In B", 0, 47, frame(0, 0, 50, 20))})}));
  auto outer = [](const std::string& id, JsonArray values = {}, JsonObject legacy = {}) {
    JsonObject i = instance(id, "SYM-O", frame(0, 0, 100, 100), std::move(values));
    if (!legacy.empty()) i["overrides"] = std::move(legacy);
    return i;
  };
  fixture.addPage(page("SCREENS", "Screens",
                       JsonArray{outer("I-SWAP", {entry("N_symbolID", "SYM-B"), entry("N/TB_stringValue", "lost")}),
                                 outer("I-TEXT", {entry("N/TA_stringValue", "Hello")}),
                                 outer("I-LEGACY", {}, {{"N", JsonObject{{"TA", "From the old map"}}}}),
                                 outer("I-HIDE", {}, {{"N", JsonObject{{"symbolID", ""}}}})}));
  TempDir dir;
  auto d = PXSymbolDetacherV2::detacherWithUrl(fixture.writeFolder(dir / "doc"));
  ASSERT_TRUE(d->loadDocument());
  d->detachSymbols();
  ASSERT_EQ(d->pages.size(), 2u);
  const JsonObject& screens = d->pages[1].json.get_object();

  // The copy of `original` inside the group the instance `outer` became.
  auto inside = [&](const std::string& outer, const std::string& original) -> const JsonObject& {
    static const JsonObject none;
    const JsonObject* group = findLayer(screens, outer);
    const JsonObject* copy = group ? findLayer(*group, original, "in_original_objectID") : nullptr;
    EXPECT_NE(copy, nullptr) << outer << " holds no copy of " << original;
    return copy ? *copy : none;
  };
  auto textIn = [&](const char* outer, const char* original) {
    return PXMetaTextFromJSON(inside(outer, original)).value_or("<none>");
  };
  EXPECT_EQ(PXJsonText(inside("I-SWAP", "N").if_contains("in_detachedSymbolId")), "SYM-B");
  // The swap wins over the nested text stored beside it.
  EXPECT_EQ(textIn("I-SWAP", "TB"), "In B");
  EXPECT_EQ(textIn("I-TEXT", "TA"), "Hello");
  EXPECT_EQ(textIn("I-LEGACY", "TA"), "From the old map");

  const JsonObject& hidden = inside("I-HIDE", "N");
  EXPECT_EQ(PXJsonText(hidden.if_contains("_class")), "symbolInstance");
  EXPECT_EQ(PXJsonBool(hidden.if_contains("isVisible")), false);
}

// ---- Text

TEST(SymbolTextOverride, RoundTripKeepsFontSizeAndColour) {
  PXSymbolDetacherV2 d("");
  JsonObject text = textLayer("T", "Before", 2, 47, frame(0, 0, 200, 40));
  const auto typefaceBefore = PXMetaTypefaceFromJSON(text);
  ASSERT_TRUE(typefaceBefore.has_value());
  ASSERT_TRUE(d.overrideTextNode(text, "Après coup ✓"));

  auto archived = PXValueForKeyPath(text, "attributedString.archivedAttributedString._archive");
  ASSERT_TRUE(archived && archived->is_string());
  EXPECT_FALSE(text.at("attributedString").as_object().contains("string"));
  auto back = PXAttributedStringFromJSON(text);
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->string(), "Après coup ✓");
  EXPECT_EQ(PXMetaTypefaceFromJSON(text), typefaceBefore);
  // The record compared holds the size and colour of the layer.
  EXPECT_EQ(typefaceBefore->at("fontSize").to_number<double>(), 18);
  EXPECT_EQ(typefaceBefore->at("fontColor").as_array().at(0).to_number<double>(), 51);

  EXPECT_FALSE(PXSymbolDetacherV2::unarchiveBase64String(std::nullopt).has_value());

  // Not a text layer: the override falls through to the log.
  LogCapture logs;
  JsonObject shape = layer("rectangle", "R", "r", frame(0, 0, 1, 1));
  const JsonObject shapeBefore = shape;
  d.overrideNode(shape, JsonValue("text"));
  EXPECT_EQ(shape, shapeBefore);
  EXPECT_TRUE(logs.contains("Could not update node with override"));
  EXPECT_TRUE(logs.contains("override: \"text\""));
}

TEST(SymbolTextOverride, KeepsEveryAttributeOfTheFirstCharacter) {
  // Archived form: two runs; the first one's paragraph style leaves the
  // alignment out (natural) and carries tab stops and a text list.
  ArchiveBuilder raw;
  const auto array = [&](std::initializer_list<uint64_t> items) {
    return raw.ref(raw.object("NSArray", {{"NS.objects", raw.uids(items)}}));
  };
  const uint64_t tab = raw.add(raw.object("NSTextTab", {{"NSLocation", plist_new_real(28)}}));
  const uint64_t list = raw.add(raw.object("NSTextList", {{"NSMarkerFormat", plist_new_string("{disc}")}}));
  const uint64_t style = raw.add(raw.object("NSMutableParagraphStyle", {{"NSTabStops", array({tab})},
                                                                         {"NSTextLists", array({list})},
                                                                         {"NSParagraphSpacing", plist_new_real(6)}}));
  const uint64_t first = raw.dictionary({{"NSParagraphStyle", style}, {"NSSuperScript", raw.add(plist_new_uint(1))}});
  const uint64_t second = raw.dictionary({{"NSKern", raw.add(plist_new_real(3))}});
  const std::string info("\x06\x00\x06\x01", 4);
  const uint64_t root = raw.add(raw.object(
      "NSMutableAttributedString",
      {{"NSString", raw.ref(plist_new_string("Secret second"))},
       {"NSAttributes", array({first, second})},
       {"NSAttributeInfo", raw.ref(plist_new_data(info.data(), info.size()))}}));
  JsonObject archived = layer("text", "T", "t", frame(0, 0, 100, 20));
  archived["attributedString"] =
      JsonObject{{"archivedAttributedString", JsonObject{{"_archive", raw.base64(root)}}}};

  // Attribute-list form without an alignment.
  JsonObject listed = textLayer("L", "Before", 0, 0, frame(0, 0, 100, 20));
  listed["attributedString"].as_object()["attributes"].as_array()[0].as_object()["attributes"].as_object()
      ["paragraphStyle"].as_object().erase("alignment");

  PXSymbolDetacherV2 d("");
  for (JsonObject* text : {&archived, &listed}) {
    SCOPED_TRACE(text->at("do_objectID").as_string().c_str());
    ASSERT_TRUE(d.overrideTextNode(*text, "New"));
    const auto back = PXAttributedStringFromJSON(*text);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->string(), "New");
    ASSERT_EQ(back->runs().size(), 1u);
    const auto& paragraph = back->runs()[0].attributes.paragraphStyle;
    ASSERT_TRUE(paragraph.has_value());
    EXPECT_EQ(paragraph->alignment, std::nullopt) << "natural stays natural";
    EXPECT_EQ(archiveXML(*text).find("NSAlignment"), std::string::npos);
  }
  const std::string xml = archiveXML(archived);
  for (const char* kept : {"NSTabStops", "NSTextTab", "NSTextLists", "{disc}", "NSSuperScript", "NSParagraphSpacing"})
    EXPECT_NE(xml.find(kept), std::string::npos) << kept;
  EXPECT_EQ(PXAttributedStringFromJSON(archived)->runs()[0].attributes.paragraphStyle->paragraphSpacing, 6.0);
}

TEST(SymbolTextOverride, RefitGrowsOnlyWhereTheAlignmentMayGrow) {
  PXSymbolDetacherV2 d("");
  const std::string longText = "A much longer text than the frame holds";
  auto refit = [&](int alignment, int mask, JsonObject f) {
    JsonObject t = textLayer("T", "x", alignment, mask, std::move(f));
    EXPECT_TRUE(d.overrideTextNode(t, longText));
    return t;
  };

  JsonObject left = refit(0, 63, frame(10, 20, 5, 5));
  EXPECT_GT(at(left, "width"), 100);
  EXPECT_GE(at(left, "height"), 5);
  EXPECT_DOUBLE_EQ(at(left, "x"), 10);
  EXPECT_DOUBLE_EQ(std::round(at(left, "width") * 10), at(left, "width") * 10);

  EXPECT_EQ(refit(0, 62, frame(10, 20, 5, 5)).at("frame"), frame(10, 20, 5, 5));            // right margin fixed
  EXPECT_EQ(refit(0, 61, frame(10, 20, 5, 5)).at("frame"), frame(10, 20, 5, 5));            // width fixed
  EXPECT_EQ(refit(2, 62, frame(10, 20, 5, 5)).at("frame"), frame(10, 20, 5, 5));            // centred needs both sides
  EXPECT_EQ(refit(0, 63, frame(10, 20, 5000, 500)).at("frame"), frame(10, 20, 5000, 500));  // never shrinks

  JsonObject right = refit(1, 63, frame(300, 20, 5, 5));
  EXPECT_DOUBLE_EQ(at(right, "x") + at(right, "width"), 305);
  EXPECT_DOUBLE_EQ(at(right, "y") + at(right, "height"), 25);
  JsonObject centre = refit(2, 63, frame(300, 20, 6, 6));
  EXPECT_DOUBLE_EQ(at(centre, "x") + at(centre, "width") / 2, 303);
  EXPECT_EQ(at(left, "width"), at(right, "width"));

  // Natural alignment follows the interface direction: right to left needs
  // the left margin to stretch.
  EXPECT_GT(at(refit(4, 59, frame(10, 20, 5, 5)), "width"), 5);
  PXSymbolDetacherV2::setUserInterfaceRightToLeft(true);
  EXPECT_EQ(refit(4, 59, frame(10, 20, 5, 5)).at("frame"), frame(10, 20, 5, 5));
  PXSymbolDetacherV2::setUserInterfaceRightToLeft(false);

  // An empty text has nothing to measure with: logged, text kept, frame kept.
  LogCapture logs;
  JsonObject empty = textLayer("T", "x", 0, 63, frame(10, 20, 5, 5));
  EXPECT_TRUE(d.overrideTextNode(empty, ""));
  EXPECT_TRUE(logs.contains("fitTextToNode exception: "));
  EXPECT_EQ(PXAttributedStringFromJSON(empty)->string(), "");
  EXPECT_EQ(empty.at("frame"), frame(10, 20, 5, 5));
}

// ---- Images, swaps and numbers

TEST(SymbolImageOverride, ReplacesTheImageWhereverTheLayerKeepsIt) {
  PXSymbolDetacherV2 d("");
  const JsonObject replacement = imageRef("images/new.png");

  JsonObject bitmap = layer("bitmap", "B", "b", frame(0, 0, 1, 1));
  bitmap["image"] = imageRef("images/old.png");
  d.overrideNode(bitmap, replacement);
  EXPECT_EQ(bitmap.at("image"), replacement);

  JsonObject shape = layer("rectangle", "S", "s", frame(0, 0, 1, 1));
  shape["style"].as_object()["fills"] =
      JsonArray{JsonObject{{"_class", "fill"}, {"image", imageRef("images/1.png")}}, JsonObject{{"_class", "fill"}},
                JsonObject{{"_class", "fill"}, {"image", imageRef("images/2.png")}}};
  EXPECT_TRUE(d.overrideImageNode(shape, replacement));
  const auto& fills = shape.at("style").at("fills").as_array();
  EXPECT_EQ(fills[0].at("image"), replacement);
  EXPECT_EQ(fills[2].at("image"), replacement);  // every element of the array is visited
  EXPECT_FALSE(fills[1].as_object().contains("image"));

  LogCapture logs;
  JsonObject elsewhere = layer("rectangle", "E", "e", frame(0, 0, 1, 1));
  elsewhere["layer"] = JsonObject{{"image", imageRef("images/skip.png")}};
  const JsonObject elsewhereBefore = elsewhere;
  EXPECT_FALSE(d.overrideImageNode(elsewhere, replacement));
  d.overrideNode(elsewhere, replacement);
  EXPECT_EQ(elsewhere, elsewhereBefore);
  EXPECT_TRUE(logs.contains("Could not update node with override"));
}

TEST(SymbolOverrideNumbers, FixNanAndParagraphAlignment) {
  for (double bad : {kNaN, kInf, -kInf}) EXPECT_EQ(PXSymbolDetacherV2::fixNanValue(bad), 0) << bad;
  EXPECT_EQ(PXSymbolDetacherV2::fixNanValue(-3.5), -3.5);
  EXPECT_EQ(PXSymbolDetacherV2::fixNanSize({kNaN, 4}), (MPSSize{0, 4}));
  EXPECT_EQ(PXSymbolDetacherV2::fixNanRect({{1, kInf}, {-kInf, kNaN}}), (MPSRect{{1, 0}, {0, 0}}));

  PXParagraphStyle natural, centred, unset;
  natural.alignment = 4;
  centred.alignment = 2;
  // Natural (and unset) alignment follows the interface direction; no style is left.
  for (bool rightToLeft : {false, true}) {
    PXSymbolDetacherV2::setUserInterfaceRightToLeft(rightToLeft);
    const uint64_t naturalSide = rightToLeft ? 1 : 0;
    EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(nullptr), 0u) << rightToLeft;
    EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&centred), 2u) << rightToLeft;
    EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&natural), naturalSide) << rightToLeft;
    EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&unset), naturalSide) << rightToLeft;
  }
  PXSymbolDetacherV2::setUserInterfaceRightToLeft(false);
}
