// Resizing copied layers by their constraints, the override map, and
// applying text, image and symbol overrides (text refitting included).

#include "PXSymbolDetacherV2.h"

#include "KeyedArchive.h"
#include "PXMetaText.h"
#include "TestSupport.h"

#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

namespace boost::json {
// Readable failure messages.
inline void PrintTo(const value& v, std::ostream* os) { *os << serialize(v); }
inline void PrintTo(const object& o, std::ostream* os) { *os << serialize(o); }
inline void PrintTo(const array& a, std::ostream* os) { *os << serialize(a); }
}  // namespace boost::json

using namespace plexa;
using namespace plexa::test;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

JsonObject withMask(JsonObject l, int mask) {
  l["resizingConstraint"] = mask;
  return l;
}

double at(const JsonObject& l, const char* key) { return l.at("frame").at(key).to_number<double>(); }

JsonObject textLayer(const std::string& id, const std::string& text, int alignment, int mask, JsonObject f) {
  JsonObject attributes{
      {"MSAttributedStringFontAttribute",
       JsonObject{{"_class", "fontDescriptor"}, {"attributes", JsonObject{{"name", "Roboto-Bold"}, {"size", 18}}}}},
      {"MSAttributedStringColorAttribute",
       JsonObject{{"_class", "color"}, {"red", 0.2}, {"green", 0.4}, {"blue", 0.6}, {"alpha", 0.8}}},
      {"paragraphStyle", JsonObject{{"_class", "paragraphStyle"}, {"alignment", alignment}}}};
  JsonObject t = withMask(layer("text", id, "Text " + id, std::move(f)), mask);
  t["attributedString"] =
      JsonObject{{"_class", "attributedString"},
                 {"string", text},
                 {"attributes", JsonArray{JsonObject{{"_class", "stringAttribute"},
                                                     {"location", 0},
                                                     {"length", PXUTF16Length(text)},
                                                     {"attributes", attributes}}}}};
  return t;
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

const JsonObject* findLayer(const JsonObject& node, const std::string& value, const std::string& key) {
  if (auto it = node.find(key); it != node.end() && it->value() == JsonValue(value)) return &node;
  if (auto it = node.find("layers"); it != node.end() && it->value().is_array())
    for (const auto& child : it->value().get_array())
      if (const auto* hit = child.is_object() ? findLayer(child.get_object(), value, key) : nullptr) return hit;
  return nullptr;
}

const JsonObject* findLayer(const JsonValue& node, const std::string& value, const std::string& key) {
  return node.is_object() ? findLayer(node.get_object(), value, key) : nullptr;
}

std::string textOf(const JsonObject& l) { return PXMetaTextFromJSON(l).value_or("<none>"); }

JsonObject imageRef(const std::string& path) {
  return JsonObject{{"_class", "MSJSONFileReference"}, {"_ref_class", "MSImageData"}, {"_ref", path}};
}

}  // namespace

// ---- Resizing

TEST(SymbolResizing, ConstraintMasksOnAParentTwiceAsWide) {
  PXSymbolDetacherV2 d("");
  const JsonObject parent = layer("group", "P", "p", frame(0, 0, 200, 50));
  // Old parent 100 wide: x 10, width 20, right margin 70.
  JsonObject all = withMask(layer("rectangle", "A", "a", frame(10, 10, 20, 20)), 63);
  EXPECT_DOUBLE_EQ(d.stretchNode(all, parent, false, 63, 2.0), 2.0);
  EXPECT_DOUBLE_EQ(at(all, "x"), 20);
  EXPECT_DOUBLE_EQ(at(all, "width"), 40);
  EXPECT_DOUBLE_EQ(200 - at(all, "x") - at(all, "width"), 140);

  JsonObject leftFixed = layer("rectangle", "B", "b", frame(10, 10, 20, 20));
  const double k = 190.0 / 90.0;
  EXPECT_DOUBLE_EQ(d.stretchNode(leftFixed, parent, false, 59, 2.0), k);
  EXPECT_DOUBLE_EQ(at(leftFixed, "x"), 10);
  EXPECT_DOUBLE_EQ(at(leftFixed, "width"), 20 * k);
  EXPECT_DOUBLE_EQ(200 - at(leftFixed, "x") - at(leftFixed, "width"), 70 * k);

  JsonObject centred = layer("rectangle", "C", "c", frame(10, 10, 20, 20));
  EXPECT_DOUBLE_EQ(d.stretchNode(centred, parent, false, 45, 2.0), 1.0);
  EXPECT_DOUBLE_EQ(at(centred, "x"), 30);
  EXPECT_DOUBLE_EQ(at(centred, "width"), 20);

  JsonObject fixed = layer("rectangle", "D", "d", frame(10, 10, 20, 20));
  EXPECT_DOUBLE_EQ(d.stretchNode(fixed, parent, false, 0, 2.0), 1.0);
  EXPECT_DOUBLE_EQ(at(fixed, "x"), 10);
  EXPECT_DOUBLE_EQ(at(fixed, "width"), 20);

  // Vertically: the parent is now half as tall (old 100), all parts stretch.
  JsonObject vertical = layer("rectangle", "E", "e", frame(0, 10, 20, 20));
  EXPECT_DOUBLE_EQ(d.stretchNode(vertical, parent, true, 63, 0.5), 0.5);
  EXPECT_DOUBLE_EQ(at(vertical, "y"), 5);
  EXPECT_DOUBLE_EQ(at(vertical, "height"), 10);
  EXPECT_DOUBLE_EQ(at(vertical, "x"), 0);

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
  JsonObject g = layer("group", "G", "g", frame(0, 0, 50, 50),
                       JsonArray{layer("rectangle", "C", "c", frame(10, 10, 20, 20))});
  JsonObject h = withMask(layer("group", "H", "h", frame(50, 50, 20, 20),
                                JsonArray{layer("rectangle", "K", "k", frame(5, 5, 10, 10))}),
                          45);
  const JsonObject m = master("M", "SYM-M", frame(0, 0, 100, 100), JsonArray{g, h});
  JsonObject inst = instance("I", "SYM-M", frame(0, 0, 200, 100));
  PXSymbolDetacherV2 d("");
  d.detachInstance(inst, m);

  const JsonObject* c = findLayer(inst, "C", "do_objectID");
  EXPECT_DOUBLE_EQ(at(*findLayer(inst, "G", "do_objectID"), "width"), 100);
  EXPECT_DOUBLE_EQ(at(*c, "x"), 20);
  EXPECT_DOUBLE_EQ(at(*c, "width"), 40);
  EXPECT_DOUBLE_EQ(at(*c, "height"), 20);
  const JsonObject* hh = findLayer(inst, "H", "do_objectID");
  EXPECT_DOUBLE_EQ(at(*hh, "x"), (50 + 10) * 2 - 10);
  EXPECT_DOUBLE_EQ(at(*hh, "width"), 20);
  const JsonObject* kk = findLayer(inst, "K", "do_objectID");
  EXPECT_DOUBLE_EQ(at(*kk, "x"), 5);
  EXPECT_DOUBLE_EQ(at(*kk, "width"), 10);
  // The master's own keys stay, the instance's win.
  EXPECT_EQ(inst.at("_class"), "group");
  EXPECT_EQ(inst.at("name"), "Instance I");
  EXPECT_DOUBLE_EQ(at(inst, "width"), 200);
  EXPECT_EQ(m.at("layers").as_array()[0].at("frame").at("width").to_number<double>(), 50);
}

// ---- The override map

TEST(SymbolOverrideMap, PathsNestAndLaterEntriesWin) {
  PXSymbolDetacherV2 d("");
  JsonObject textThenSwap = instance("I", "S", frame(0, 0, 1, 1),
                                     JsonArray{entry("A/B_stringValue", "text"), entry("A_symbolID", "SWAP")});
  EXPECT_EQ(d.nodeOverrides(textThenSwap), (JsonObject{{"A", JsonObject{{"symbolID", "SWAP"}}}}));

  JsonObject swapThenText = instance("I", "S", frame(0, 0, 1, 1),
                                     JsonArray{entry("A_symbolID", "SWAP"), entry("A/B_stringValue", "text")});
  EXPECT_EQ(d.nodeOverrides(swapThenText), (JsonObject{{"A", JsonObject{{"symbolID", "SWAP"}, {"B", "text"}}}}));

  JsonObject blocked = instance("I", "S", frame(0, 0, 1, 1),
                                JsonArray{entry("X_stringValue", "x"), entry("X/Y/Z_stringValue", "deep"),
                                          entry("_stringValue", "no path"), entry("Q_stringValue", nullptr),
                                          JsonObject{{"overrideName", "R_stringValue"}}, entry("N_symbolID", 7)});
  EXPECT_EQ(d.nodeOverrides(blocked),
            (JsonObject{{"X", "x"}, {"X/Y/Z", "deep"}, {"Q", nullptr}, {"N", 7}}));

  // The older map form is merged last, at the top level.
  JsonObject both = instance("I", "S", frame(0, 0, 1, 1),
                             JsonArray{entry("A_stringValue", "new"), entry("B_image", imageRef("images/b.png"))});
  both["overrides"] = JsonObject{{"A", "legacy"}, {"0", JsonObject{{"C", "old"}}}};
  EXPECT_EQ(d.nodeOverrides(both),
            (JsonObject{{"A", "legacy"}, {"B", imageRef("images/b.png")}, {"0", JsonObject{{"C", "old"}}}}));
}

TEST(SymbolOverrideApply, NestedSwapsHidesAndNestedTexts) {
  SketchFixture fixture;
  fixture.addPage(page(
      "SYMBOLS", "Symbols",
      JsonArray{master("MO", "SYM-O", frame(0, 0, 100, 100), JsonArray{instance("N", "SYM-A", frame(0, 0, 50, 50))}),
                master("MA", "SYM-A", frame(0, 0, 50, 50),
                       JsonArray{textLayer("TA", "In A", 0, 47, frame(0, 0, 50, 20))}),
                master("MB", "SYM-B", frame(0, 0, 50, 50),
                       JsonArray{textLayer("TB", "In B", 0, 47, frame(0, 0, 50, 20))})}));
  JsonObject legacy = instance("I-LEGACY", "SYM-O", frame(0, 0, 100, 100));
  legacy["overrides"] = JsonObject{{"N", JsonObject{{"TA", "From the old map"}}}};
  JsonObject hide = instance("I-HIDE", "SYM-O", frame(0, 0, 100, 100));
  hide["overrides"] = JsonObject{{"N", JsonObject{{"symbolID", ""}}}};
  fixture.addPage(page(
      "SCREENS", "Screens",
      JsonArray{instance("I-SWAP", "SYM-O", frame(0, 0, 100, 100),
                         JsonArray{entry("N_symbolID", "SYM-B"), entry("N/TB_stringValue", "lost")}),
                instance("I-TEXT", "SYM-O", frame(0, 0, 100, 100), JsonArray{entry("N/TA_stringValue", "Hello")}),
                legacy, hide}));
  TempDir dir;
  auto d = PXSymbolDetacherV2::detacherWithUrl(fixture.writeFolder(dir / "doc"));
  ASSERT_TRUE(d->loadDocument());
  d->detachSymbols();
  const JsonValue* screens = nullptr;
  for (const auto& p : d->pages)
    if (p.url.ends_with("SCREENS.json")) screens = &p.json;
  ASSERT_NE(screens, nullptr);

  auto nestedIn = [&](const std::string& outer) -> const JsonObject& {
    static const JsonObject none;
    const JsonObject* group = findLayer(*screens, outer, "do_objectID");
    const JsonObject* nested = group ? findLayer(*group, "N", "in_original_objectID") : nullptr;
    EXPECT_NE(nested, nullptr) << outer;
    return nested ? *nested : none;
  };
  auto textIn = [&](const std::string& outer, const std::string& original) {
    const JsonObject* t = findLayer(nestedIn(outer), original, "in_original_objectID");
    return t ? textOf(*t) : std::string("<no layer>");
  };
  EXPECT_EQ(PXJsonText(nestedIn("I-SWAP").if_contains("in_detachedSymbolId")), "SYM-B");
  // The swap wins over the nested text stored beside it.
  EXPECT_EQ(textIn("I-SWAP", "TB"), "In B");
  EXPECT_EQ(textIn("I-TEXT", "TA"), "Hello");
  EXPECT_EQ(textIn("I-LEGACY", "TA"), "From the old map");

  const JsonObject& hidden = nestedIn("I-HIDE");
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
  EXPECT_EQ(typefaceBefore->at("fontSize").to_number<double>(), 18);
  const auto& colour = typefaceBefore->at("fontColor").as_array();
  ASSERT_EQ(colour.size(), 4u);
  EXPECT_EQ(colour[0].to_number<double>(), 51);
  EXPECT_EQ(colour[2].to_number<double>(), 153);
  EXPECT_NEAR(colour[3].to_number<double>(), 0.8, 1e-6);

  auto unarchived = PXSymbolDetacherV2::unarchiveBase64String(std::string(archived->as_string()));
  ASSERT_TRUE(unarchived && unarchived->attributedString);
  EXPECT_EQ(unarchived->attributedString->string(), "Après coup ✓");
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

  EXPECT_EQ(refit(0, 62, frame(10, 20, 5, 5)).at("frame"), frame(10, 20, 5, 5));  // right margin fixed
  EXPECT_EQ(refit(0, 61, frame(10, 20, 5, 5)).at("frame"), frame(10, 20, 5, 5));  // width fixed
  EXPECT_EQ(refit(2, 62, frame(10, 20, 5, 5)).at("frame"), frame(10, 20, 5, 5));  // centred needs both sides
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
  shape["style"].as_object()["fills"] = JsonArray{JsonObject{{"_class", "fill"}, {"image", imageRef("images/1.png")}},
                                                  JsonObject{{"_class", "fill"}},
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
  EXPECT_EQ(PXSymbolDetacherV2::fixNanValue(kNaN), 0);
  EXPECT_EQ(PXSymbolDetacherV2::fixNanValue(kInf), 0);
  EXPECT_EQ(PXSymbolDetacherV2::fixNanValue(-kInf), 0);
  EXPECT_EQ(PXSymbolDetacherV2::fixNanValue(-3.5), -3.5);
  EXPECT_EQ(PXSymbolDetacherV2::fixNanSize({kNaN, 4}), (MPSSize{0, 4}));
  EXPECT_EQ(PXSymbolDetacherV2::fixNanRect({{1, kInf}, {-kInf, kNaN}}), (MPSRect{{1, 0}, {0, 0}}));

  PXParagraphStyle natural, centred, unset;
  natural.alignment = 4;
  centred.alignment = 2;
  EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(nullptr), 0u);
  EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&centred), 2u);
  EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&natural), 0u);
  EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&unset), 0u);
  PXSymbolDetacherV2::setUserInterfaceRightToLeft(true);
  EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&natural), 1u);
  EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&unset), 1u);
  EXPECT_EQ(PXSymbolDetacherV2::alignmentFromParagraph(&centred), 2u);
  PXSymbolDetacherV2::setUserInterfaceRightToLeft(false);
}
