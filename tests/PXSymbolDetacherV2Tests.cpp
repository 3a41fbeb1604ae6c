// The JSON symbol detacher: loading, masters, the walk and its nesting rule,
// hidden instances, artboard selection, identifier renewal, markers,
// cancellation, saving and re-zipping, and documents built to break it.

#include "PXSymbolDetacherV2.h"

#include "Files.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <set>

using namespace plexa;
using namespace plexa::test;

namespace {

JsonObject master(const std::string& id, const std::string& symbolID, JsonArray children = {},
                  JsonObject f = frame(0, 0, 10, 10)) {
  JsonObject m = layer("symbolMaster", id, "Master " + id, std::move(f), std::move(children));
  m["symbolID"] = symbolID;
  return m;
}

JsonObject instance(const std::string& id, const std::string& symbolID, JsonObject f = frame(0, 0, 10, 10)) {
  JsonObject i = layer("symbolInstance", id, "Instance " + id, std::move(f));
  i["symbolID"] = symbolID;
  i["overrideValues"] = JsonArray();
  return i;
}

JsonObject rect(const std::string& id) { return layer("rectangle", id, "r", frame(0, 0, 1, 1)); }
JsonObject group(const std::string& id, JsonArray children = {}) {
  return layer("group", id, "g", frame(0, 0, 1, 1), std::move(children));
}
JsonObject named(JsonObject l, const std::string& name) {
  l["name"] = name;
  return l;
}
// The symbol most documents here use: SYM-S holds the rectangle R1.
JsonObject masterS() { return master("MS", "SYM-S", JsonArray{rect("R1")}); }

// As it reads back from a file: whole numbers become integers.
JsonObject onDisk(const JsonObject& o) { return PXJsonParse(*PXJsonSerialize(o, false))->as_object(); }

std::string cls(const JsonObject* l) { return l ? std::string(l->at("_class").as_string()) : "<missing>"; }

const JsonObject& pageJSON(const PXSymbolDetacherV2& d, const std::string& pageID) {
  for (const auto& p : d.pages)
    if (p.url.ends_with("/" + pageID + ".json")) return p.json.get_object();
  ADD_FAILURE() << "no page " << pageID;
  static const JsonObject none;
  return none;
}

JsonObject withOverride(JsonObject inst, const std::string& name, JsonValue value) {
  inst["overrideValues"].as_array().push_back(JsonObject{{"overrideName", name}, {"value", std::move(value)}});
  return inst;
}

SketchFixture mastersThenScreens(JsonArray masters, JsonArray screens, bool screensFirst = false) {
  SketchFixture fixture;
  if (screensFirst) fixture.addPage(page("SCREENS", "Screens", std::move(screens)));
  fixture.addPage(page("SYMBOLS", "Symbols", std::move(masters)));
  if (!screensFirst) fixture.addPage(page("SCREENS", "Screens", std::move(screens)));
  return fixture;
}

// A holds B and itself; B holds A; an artboard shows A.
SketchFixture cycleDocument() {
  return mastersThenScreens(
      JsonArray{master("MA", "SYM-A",
                       JsonArray{rect("A-RECT"), instance("A-IN-B", "SYM-B", frame(10, 10, 50, 50)),
                                 instance("A-SELF", "SYM-A", frame(60, 60, 20, 20))},
                       frame(0, 0, 100, 100)),
                master("MB", "SYM-B", JsonArray{rect("B-RECT"), instance("B-IN-A", "SYM-A")}, frame(0, 0, 50, 50))},
      JsonArray{artboard("AB1", "Board", frame(0, 0, 400, 400), JsonArray{instance("I1", "SYM-A", frame(0, 0, 100, 100))})});
}

using Configure = std::function<void(PXSymbolDetacherV2&)>;

// A detacher over a fresh copy of the document, set up, loaded and with its masters found.
std::shared_ptr<PXSymbolDetacherV2> loaded(const SketchFixture& fixture, const std::string& folder,
                                           const Configure& setup = {}) {
  auto d = PXSymbolDetacherV2::detacherWithUrl(fixture.writeFolder(folder));
  if (setup) setup(*d);
  EXPECT_TRUE(d->loadDocument());
  d->findSymbols();
  return d;
}

std::shared_ptr<PXSymbolDetacherV2> detached(const SketchFixture& fixture, const std::string& folder,
                                             const Configure& setup = {}) {
  auto d = loaded(fixture, folder, setup);
  d->detachSymbols();
  return d;
}

std::string pagesText(const PXSymbolDetacherV2& d) {
  std::string text;
  for (const auto& p : d.pages) text += compactJson(p.json);
  return text;
}

}  // namespace

// ---- Loading

TEST(PXSymbolDetacherV2Loading, RefusesAMissingFolderOrDocument) {
  LogCapture logs;
  PXSymbolDetacherV2 none("");
  EXPECT_FALSE(none.loadDocument());
  EXPECT_TRUE(logs.contains("Working file is nil"));

  TempDir dir;
  PXSymbolDetacherV2 empty(dir.path());
  EXPECT_FALSE(empty.loadDocument());
  EXPECT_TRUE(logs.contains("Could not find document.json"));

  writeText(dir / "document.json", "{ not json");
  EXPECT_TRUE(empty.loadDocument());
  EXPECT_FALSE(empty.document.has_value());
  EXPECT_TRUE(empty.pages.empty());
}

TEST(PXSymbolDetacherV2Loading, KeepsOnlyReadablePagesInsideTheFolder) {
  SketchFixture fixture;
  fixture.addPage(page("P-GOOD", "Good", JsonArray{rect("R1")}));
  JsonObject doc = fixture.documentJSON();
  const JsonValue badRefs = parseJson(R"([{"_ref": "pages/missing"}, {"_ref": "pages/bad"}, {"_ref": "pages/array"},
      {"_ref": "../outside"}, {"_ref": 5}, {"_class": "MSJSONFileReference"}, "not a reference"])");
  for (const auto& ref : badRefs.as_array()) doc["pages"].as_array().push_back(ref);
  fixture.setDocument(doc).addEntry("pages/bad.json", "{ broken").addEntry("pages/array.json", "[1, 2]");

  TempDir dir;
  writeText(dir / "outside.json", R"({"_class":"page","layers":[]})");
  PXSymbolDetacherV2 d(fixture.writeFolder(dir / "doc"));
  LogCapture logs;
  std::vector<std::pair<size_t, size_t>> reports;
  ASSERT_TRUE(d.loadDocument([&](size_t i, size_t n) { reports.emplace_back(i, n); }));

  ASSERT_EQ(d.pages.size(), 1u);
  EXPECT_TRUE(d.pages[0].url.ends_with("/doc/pages/P-GOOD.json"));
  EXPECT_TRUE(logs.contains("leaves the document folder"));
  ASSERT_FALSE(reports.empty());
  EXPECT_TRUE(std::all_of(reports.begin(), reports.end(), [](auto r) { return r.second == 0; }));

  // Loading again starts afresh.
  d.findSymbols();
  ASSERT_TRUE(d.loadDocument());
  EXPECT_EQ(d.pages.size(), 1u);
  EXPECT_FALSE(d.symbols.has_value());
}

// ---- Masters

TEST(PXSymbolDetacherV2Masters, CollectsPageAndForeignMastersPageFirst) {
  // Masters inside artboards are not collected; those in groups are.
  SketchFixture fixture;
  JsonObject onPage = named(master("M-P", "SYM-P", JsonArray{instance("I-IN-P", "SYM-G")}), "page P");
  fixture.addPage(
      page("P1", "Page",
           JsonArray{artboard("AB", "Board", frame(0, 0, 50, 50), JsonArray{master("M-HIDDEN", "SYM-HIDDEN")}),
                     group("G", JsonArray{master("M-G", "SYM-G")}), onPage}));
  JsonObject doc = fixture.documentJSON();
  doc["foreignSymbols"] = JsonArray{JsonObject{{"originalMaster", named(master("F-O", "SYM-F"), "original F")},
                                               {"symbolMaster", named(master("F-S", "SYM-F"), "foreign F")}},
                                    JsonObject{{"symbolMaster", named(master("F-P", "SYM-P"), "foreign P")}}, 7};
  fixture.setDocument(doc);

  TempDir dir;
  PXSymbolDetacherV2 d(fixture.writeFolder(dir / "doc"));
  std::vector<std::pair<size_t, size_t>> reports;
  d.findSymbols([&](size_t i, size_t n) { reports.emplace_back(i, n); });  // loads on its own

  ASSERT_TRUE(d.symbols.has_value());
  EXPECT_EQ(d.symbols->size(), 3u);
  EXPECT_TRUE(d.symbols->contains("SYM-G"));
  EXPECT_EQ(d.symbols->at("SYM-F").at("name"), "foreign F");
  EXPECT_EQ(d.symbols->at("SYM-P").at("name"), "page P");
  EXPECT_EQ(reports.back(), (std::pair<size_t, size_t>{1, 1}));

  EXPECT_EQ(d.searchForSymbolWithQuery(JsonObject{{"name", "page P"}}), &d.symbols->at("SYM-P"));
  EXPECT_EQ(d.searchForSymbolWithQuery(JsonObject{}), nullptr);

  // Masters are read where they lie, not copied; one that nothing copies
  // any more is detached in place and then reads as detached.
  EXPECT_EQ(&d.symbols->at("SYM-P"), findLayer(pageJSON(d, "P1"), "M-P"));
  d.detachSymbols();
  EXPECT_EQ(&d.symbols->at("SYM-P"), findLayer(pageJSON(d, "P1"), "M-P"));
  EXPECT_EQ(cls(findLayer(pageJSON(d, "P1"), "I-IN-P")), "group");
  EXPECT_EQ(d.symbols->at("SYM-F").at("name"), "foreign F");
}

// ---- The walk

TEST(PXSymbolDetacherV2Walk, NestedSymbolsDetachOncePerPathAndCyclesStop) {
  // Both cycles must end in marked instances.
  const SketchFixture fixture = cycleDocument();
  TempDir dir;
  LogCapture logs;
  auto d = detached(fixture, dir / "doc");
  const JsonObject& screens = pageJSON(*d, "SCREENS");

  const JsonObject* outer = findLayer(screens, "I1");
  ASSERT_NE(outer, nullptr);
  EXPECT_EQ(cls(outer), "group");
  EXPECT_EQ(outer->at("in_detachedSymbol"), true);
  EXPECT_EQ(outer->at("in_detachedSymbolId"), "SYM-A");
  EXPECT_FALSE(outer->contains("symbolID") || outer->contains("overrideValues"));
  EXPECT_EQ(cls(findLayer(screens, "A-IN-B", "in_original_objectID")), "group");
  for (const char* original : {"B-IN-A", "A-SELF"}) {
    const JsonObject* cycle = findLayer(screens, original, "in_original_objectID");
    ASSERT_NE(cycle, nullptr) << original;
    EXPECT_EQ(cls(cycle), "symbolInstance") << original;
    EXPECT_EQ(cycle->at("in_infinitNestedSymbol"), true) << original;
  }
  EXPECT_TRUE(logs.contains("Infinit Nested symbol found: Instance B-IN-A[SYM-A]"));
}

TEST(PXSymbolDetacherV2Walk, HiddenMissingAndEmptyInstancesStay) {
  JsonObject hidden = instance("HIDDEN", "SYM-S");
  hidden["isVisible"] = false;
  JsonObject empty = instance("EMPTY", "");
  JsonObject wrongType = instance("WRONG", "");
  wrongType["symbolID"] = 42;
  SketchFixture fixture;
  fixture.addPage(page(
      "P", "Page", JsonArray{masterS(), hidden, instance("MISSING", "SYM-NOPE"), empty, wrongType, group("PLAIN")}));
  TempDir dir;
  LogCapture logs;
  auto d = detached(fixture, dir / "doc");
  const JsonObject& p = pageJSON(*d, "P");

  for (const JsonObject* kept : {&hidden, &empty, &wrongType})
    EXPECT_EQ(*findLayer(p, std::string(kept->at("do_objectID").as_string())), onDisk(*kept));
  EXPECT_EQ(cls(findLayer(p, "MISSING")), "symbolInstance");
  EXPECT_TRUE(logs.contains("Not able to find symbol with id SYM-NOPE"));
  EXPECT_EQ(logs.count("Not able to find symbol with id"), 1u);
  EXPECT_EQ(findLayer(p, "PLAIN")->at("in_detachedSymbol"), false);
}

TEST(PXSymbolDetacherV2Walk, SelectionLeavesOtherArtboardsUntouched) {
  JsonObject untouched = artboard("B", "B", frame(200, 0, 100, 100), JsonArray{instance("IB", "SYM-S"), group("GB")});
  const SketchFixture fixture = mastersThenScreens(
      JsonArray{master("MS", "SYM-S", JsonArray{instance("S-IN-T", "SYM-T")}),
                master("MT", "SYM-T", JsonArray{rect("T-RECT")})},
      JsonArray{artboard("A", "A", frame(0, 0, 100, 100), JsonArray{instance("IA", "SYM-S"), group("GA")}), untouched,
                group("TOP", JsonArray{instance("IT", "SYM-S")})});
  TempDir dir;
  auto d = detached(fixture, dir / "doc", [](auto& d) { d.setDetachingArtboardIds({"A"}); });
  const JsonObject& screens = pageJSON(*d, "SCREENS");

  EXPECT_EQ(cls(findLayer(screens, "IA")), "group");
  EXPECT_EQ(findLayer(screens, "GA")->at("in_detachedSymbol"), false);
  EXPECT_EQ(*findLayer(screens, "B"), onDisk(untouched));
  EXPECT_EQ(cls(findLayer(screens, "IT")), "group");
  EXPECT_EQ(cls(findLayer(pageJSON(*d, "SYMBOLS"), "S-IN-T")), "group");
}

// ---- Identifiers and markers

TEST(PXSymbolDetacherV2Identifiers, CopiedLayersGetFreshUniqueIdsAndCanBeTracedToTheirOriginals) {
  // Two layers of the master share one identifier; the copies must not.
  const SketchFixture fixture = mastersThenScreens(
      JsonArray{master("MS", "SYM-S",
                       JsonArray{rect("R1"), group("G1", JsonArray{layer("oval", "R2", "o", frame(0, 0, 1, 1)), rect("R2"),
                                                                   instance("N1", "SYM-T")})}),
                master("MT", "SYM-T", JsonArray{rect("T1")})},
      JsonArray{instance("I1", "SYM-S"), instance("I2", "SYM-S", frame(0, 0, 20, 20))});
  const struct {
    bool stable;
    std::regex form;
  } kinds[] = {{false, std::regex("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$")},
               {true, std::regex("^[0-9A-F]{8}-[0-9A-F]{4}-5[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$")}};
  TempDir dir;
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.stable ? "stable" : "random");
    auto text = [&](const std::string& folder) {
      return pagesText(*detached(fixture, dir / folder, [&](auto& d) { d.stableIdentifiers = kind.stable; }));
    };
    // Stable identifiers repeat from run to run; random ones never do.
    EXPECT_EQ(text(kind.stable ? "a" : "c") == text(kind.stable ? "b" : "d"), kind.stable);
    auto d = detached(fixture, dir / (kind.stable ? "stable" : "random"),
                      [&](auto& d) { d.stableIdentifiers = kind.stable; });
    std::set<std::string> renewed;
    std::multiset<std::string> originals;
    for (const auto& p : d->pages)
      forEachLayer(p.json.get_object(), [&](const JsonObject& l) {
        if (!l.contains("in_original_objectID")) return;
        const std::string id(l.at("do_objectID").as_string());
        EXPECT_TRUE(std::regex_match(id, kind.form)) << id;
        renewed.insert(id);
        originals.insert(std::string(l.at("in_original_objectID").as_string()));
      });
    // Each copy of SYM-S holds R1, G1, R2 twice, N1 and T1 inside N1; the
    // master's own N1 is detached too.
    EXPECT_EQ(originals, (std::multiset<std::string>{"R1", "R1", "G1", "G1", "R2", "R2", "R2", "R2", "N1", "N1", "T1",
                                                     "T1", "T1"}));
    EXPECT_EQ(renewed.size(), originals.size());

    const JsonObject& screens = pageJSON(*d, "SCREENS");
    for (const char* groupID : {"I1", "I2"}) EXPECT_FALSE(findLayer(screens, groupID)->contains("in_original_objectID"));
    // The nested copy records its own symbol.
    const JsonObject* nested = findLayer(screens, "N1", "in_original_objectID");
    ASSERT_NE(nested, nullptr);
    EXPECT_EQ(nested->at("in_detachedSymbolId"), "SYM-T");
    // The debugging searches find detached groups by name and copies by origin.
    const JsonObject* hit = d->searchForDetachedSymbol("Instance I1");
    ASSERT_NE(hit, nullptr);
    EXPECT_EQ(hit->at("do_objectID"), "I1");
    EXPECT_EQ(d->searchForDetachedSymbol("Master MS"), nullptr);
    EXPECT_EQ(d->printStackForNode(JsonValue(screens), "in_original_objectID", JsonValue("R1")),
              (std::vector<std::string>{"layers[0] -> layers[0]", "layers[1] -> layers[0]"}));
  }

  // The same layer in another document position gets another identifier.
  PXSymbolDetacherV2 single("");
  single.stableIdentifiers = true;
  JsonObject a = group("G", JsonArray{rect("R")}), b = a, c = group("H", JsonArray{rect("R")});
  single.updateIdForNode(a);
  single.updateIdForNode(c);
  EXPECT_NE(a.at("layers").at(0).at("do_objectID"), c.at("layers").at(0).at("do_objectID"));
  single.updateIdForNode(b);
  EXPECT_NE(a.at("do_objectID"), b.at("do_objectID")) << "a path met again is told apart";
}

// ---- Cancellation

TEST(PXSymbolDetacherV2Cancel, StopsBetweenPagesAndSavesNothingAfterwards) {
  SketchFixture fixture;
  fixture.addPage(page("P0", "Zero", JsonArray{masterS(), instance("I0", "SYM-S")}));
  fixture.addPage(page("P1", "One", JsonArray{instance("I1", "SYM-S")}));
  TempDir dir;
  auto d = loaded(fixture, dir / "doc");
  int calls = 0;
  // The second report comes after the first page: cancel there.
  d->detachSymbols([&](size_t, size_t) {
    if (++calls == 2) d->cancel();
  });
  EXPECT_TRUE(d->isCancelled());
  EXPECT_EQ(cls(findLayer(pageJSON(*d, "P0"), "I0")), "group");
  EXPECT_EQ(cls(findLayer(pageJSON(*d, "P1"), "I1")), "symbolInstance");

  const std::string before = readText(dir / "doc/pages/P0.json");
  d->savePages();
  EXPECT_EQ(readText(dir / "doc/pages/P0.json"), before);
  EXPECT_TRUE(d->isDirty);
}

// ---- Saving

TEST(PXSymbolDetacherV2Save, WritesPagesAndZipsAnArchiveThatUnzipsAgain) {
  SketchFixture fixture;
  fixture.addPage(page("P", "Page", JsonArray{masterS(), instance("I1", "SYM-S")}));
  TempDir dir;
  auto d = detached(fixture, dir / "doc");
  const std::string folder = dir / "doc";
  const std::string documentBefore = readText(folder + "/document.json");
  // Where the unzipper puts it: inside the folder being zipped.
  const std::string archive = folder + "/Input.sketch";

  ASSERT_TRUE(d->saveToUrl(archive));
  EXPECT_FALSE(d->isDirty);
  EXPECT_NE(readText(folder + "/pages/P.json").find("\n  \"_class\" : \"page\""), std::string::npos);  // pretty-printed
  EXPECT_EQ(readText(folder + "/document.json"), documentBefore);

  ASSERT_TRUE(d->saveToUrl(archive));  // over its own earlier archive
  auto names = PXZip::entryNames(archive);
  ASSERT_TRUE(names.has_value());
  const std::set<std::string> entries(names->begin(), names->end());
  EXPECT_TRUE(entries.contains("document.json") && entries.contains("pages/P.json"));
  EXPECT_FALSE(entries.contains("Input.sketch"));

  auto unzipped = PXZip::extractAll(archive, dir / "again");
  ASSERT_TRUE(unzipped.ok) << unzipped.error;
  JsonValue again = readJson(dir / "again/pages/P.json");
  EXPECT_EQ(again, d->pages[0].json);
  EXPECT_EQ(cls(findLayer(again.as_object(), "I1")), "group");

  // A destination that is the folder itself fails without touching it.
  EXPECT_NE(PXSymbolDetacherV2::zipFolderAtPath(folder, folder), "created " + folder);
  EXPECT_TRUE(PXFileManager::fileExists(folder + "/pages/P.json"));

  LogCapture logs;
  PXFileManager::removeItem(folder);
  EXPECT_FALSE(d->saveToUrl(dir / "other.sketch"));
  EXPECT_TRUE(logs.contains("Could not save. File does not exist"));
}

// ---- Documents built to break it

TEST(PXSymbolDetacherV2Hostile, BrokenDocumentStillDetachesAndSaves) {
  JsonObject zeroMaster = master("MZ", "SYM-ZERO", JsonArray{rect("Z-R"), rect("Z-CENTRE")}, frame(0, 0, 0, 0));
  for (auto& l : zeroMaster["layers"].as_array()) l.as_object()["frame"] = frame(0, 0, 0, 0);
  zeroMaster["layers"].as_array()[1].as_object()["resizingConstraint"] = 45;
  JsonObject stringFrame = rect("W-R");
  stringFrame["frame"] = parseJson(R"({"_class": "rect", "x": [1], "y": 0, "width": "wide", "height": 1})");
  JsonObject brokenLayers = group("W-G");
  brokenLayers["layers"] = "not layers";
  JsonObject noFrame = rect("W-NF");
  noFrame["frame"] = 3;
  JsonObject wrongMaster = master(
      "MW", "SYM-WRONG",
      JsonArray{stringFrame, brokenLayers, noFrame, 17, JsonArray{}, layer("text", "W-T", "t", frame(0, 0, 5, 5))});

  JsonObject wrongOverrides = instance("I-WRONG", "SYM-WRONG", frame(0, 0, 20, 20));
  wrongOverrides["overrideValues"] = parseJson(R"([
      {"overrideName": 5, "value": "x"}, {"overrideName": "NOPE/ALSO_stringValue", "value": "ghost"},
      {"overrideName": "W-T_stringValue", "value": 12}, {"overrideName": "W-R_image", "value": "not an image"},
      {"overrideName": "W-G_symbolID", "value": 7}, {"overrideName": "_stringValue", "value": "no path"},
      {"overrideName": "W-NF_stringValue"}, "not an entry",
      {"overrideName": "W-NF/W-T/X_layerStyle", "value": {"_ref_class": "MSImageData"}}])");
  wrongOverrides["overrides"] = "not a map";
  JsonObject stringOverrideValues = instance("I-WRONG2", "SYM-WRONG", frame(0, 0, 20, 20));
  stringOverrideValues["overrideValues"] = "nothing here";

  SketchFixture fixture;
  fixture.addPage(
      page("SYMBOLS", "Symbols",
           JsonArray{master("MSELF", "SYM-SELF", JsonArray{instance("SELF-IN", "SYM-SELF")}),
                     master("MX", "SYM-X", JsonArray{instance("X-IN-Y", "SYM-Y")}),
                     master("MY", "SYM-Y", JsonArray{instance("Y-IN-X", "SYM-X")}), zeroMaster, wrongMaster}));
  JsonObject screens =
      page("SCREENS", "Screens",
           JsonArray{instance("I-SELF", "SYM-SELF", frame(0, 0, 30, 30)), instance("I-X", "SYM-X", frame(0, 0, 30, 30)),
                     instance("I-MISSING", "SYM-MISSING", frame(0, 0, 30, 30)),
                     instance("I-ZERO", "SYM-ZERO", frame(0, 0, 100, 100)), wrongOverrides, stringOverrideValues,
                     layer("rectangle", "HUGE", "r", frame(123456789.125, 0, 1, 1))});
  // A number no writer can print: the page must still be saved.
  std::string screensText = *PXJsonSerialize(screens, false);
  screensText.replace(screensText.find("123456789.125"), 13, "1e999");
  fixture.addPage(screens).addEntry("pages/SCREENS.json", screensText);  // written over the page's own file

  TempDir dir;
  LogCapture logs;
  auto d = detached(fixture, dir / "doc");
  ASSERT_EQ(d->pages.size(), 2u);
  ASSERT_TRUE(d->saveToUrl(dir / "out.sketch"));
  ASSERT_TRUE(PXZip::extractAll(dir / "out.sketch", dir / "again").ok);

  // Every instance on either page, masters included, is detached or marked.
  for (const char* id : {"SYMBOLS", "SCREENS"}) {
    auto parsed = PXJsonParse(readText(dir / "again/pages/" + std::string(id) + ".json"));
    ASSERT_TRUE(parsed && parsed->is_object()) << id;
    forEachLayer(parsed->get_object(), [&](const JsonObject& l) {
      if (cls(&l) == "symbolInstance" && l.at("symbolID") != "SYM-MISSING")
        EXPECT_TRUE(l.contains("in_infinitNestedSymbol")) << l.at("do_objectID");
    });
  }
  const JsonObject again = readJson(dir / "again/pages/SCREENS.json").as_object();
  EXPECT_EQ(findLayer(again, "HUGE")->at("frame").at("x"), 0);
  EXPECT_TRUE(logs.contains("non-finite numbers"));
  // The zero-sized master's layers end up at finite places.
  const JsonObject* centre = findLayer(again, "Z-CENTRE", "in_original_objectID");
  ASSERT_NE(centre, nullptr);
  EXPECT_EQ(centre->at("frame").at("x"), 0);
  EXPECT_TRUE(logs.contains("Could not update node with override"));
  EXPECT_TRUE(logs.contains("Not able to find symbol with id SYM-MISSING"));
}

TEST(PXSymbolDetacherV2Hostile, DeepChainsKeepTheirDeepestInstances) {
  // S0 holds S1, S1 holds S2, ... nine distinct symbols deep.
  JsonArray masters;
  for (int level = 0; level < 9; ++level) {
    const std::string k = std::to_string(level), next = std::to_string(level + 1);
    masters.push_back(master("M" + k, "SYM-" + k, JsonArray{rect("R" + k), instance("C" + k, "SYM-" + next)}));
  }
  SketchFixture fixture;
  fixture.addPage(page("P", "Page", JsonArray{instance("TOP", "SYM-0")}));
  fixture.addPage(page("SYMBOLS", "Symbols", std::move(masters)));
  TempDir dir;
  LogCapture logs;
  auto d = detached(fixture, dir / "doc", [](auto& d) { d.maxNestingDepth = 3; });

  EXPECT_FALSE(d->failureReason.has_value());
  std::vector<std::string> kept;
  forEachLayer(pageJSON(*d, "P"), [&](const JsonObject& l) {
    if (cls(&l) == "symbolInstance") kept.push_back(std::string(l.at("symbolID").as_string()));
  });
  EXPECT_EQ(kept, std::vector<std::string>{"SYM-3"});
  EXPECT_TRUE(logs.contains("Symbol nesting too deep, instance kept: Instance C2[SYM-3]"));
}

namespace {

// Masters L0..Ln: L0 holds a rectangle, every further level a rectangle
// and `fanOut` instances of the level below; one artboard shows level n.
SketchFixture fanOutDocument(int fanOut, int depth, int shown = 1) {
  JsonArray masters;
  for (int level = 0; level <= depth; ++level) {
    const std::string k = std::to_string(level);
    JsonArray children{rect("R" + k)};
    for (int i = 0; level > 0 && i < fanOut; ++i)
      children.push_back(instance("L" + k + "-" + std::to_string(i), "SYM-" + std::to_string(level - 1)));
    masters.push_back(master("M" + k, "SYM-" + k, std::move(children)));
  }
  JsonArray top;
  for (int i = 0; i < shown; ++i)
    top.push_back(instance("TOP" + std::to_string(i), "SYM-" + std::to_string(depth), frame(0, 0, 20, 20)));
  SketchFixture fixture;
  fixture.addPage(page("P", "Page", JsonArray{artboard("AB", "Board", frame(0, 0, 10, 10), std::move(top))}));
  fixture.addPage(page("SYMBOLS", "Symbols", std::move(masters)));
  return fixture;
}

size_t copiedLayers(const PXSymbolDetacherV2& d) {
  size_t copies = 0;
  for (const auto& p : d.pages)
    forEachLayer(p.json.get_object(), [&](const JsonObject& l) { copies += l.contains("in_original_objectID"); });
  return copies;
}

}  // namespace

TEST(PXSymbolDetacherV2Hostile, FanOutsAreRefusedBeforeAnythingIsCopied) {
  // Each would expand to billions of layers or more: 2^40, 10^12, 50^6.
  struct { int fanOut, depth; } shapes[] = {{2, 40}, {10, 12}, {50, 6}};
  for (const auto& shape : shapes) {
    SCOPED_TRACE(std::to_string(shape.fanOut) + " x " + std::to_string(shape.depth));
    TempDir dir;
    LogCapture logs;
    auto d = detached(fanOutDocument(shape.fanOut, shape.depth), dir / "doc");
    ASSERT_TRUE(d->failureReason.has_value());
    EXPECT_TRUE(d->failureReason->starts_with("Symbol detachment refused: ")) << *d->failureReason;
    EXPECT_NE(d->failureReason->find("more than the limit of 1000000"), std::string::npos) << *d->failureReason;
    EXPECT_TRUE(logs.contains(*d->failureReason));
    EXPECT_EQ(copiedLayers(*d), 0u);
    EXPECT_EQ(cls(findLayer(pageJSON(*d, "P"), "TOP0")), "symbolInstance");
  }
}

TEST(PXSymbolDetacherV2Hostile, TheCountBeforeCopyingIsExact) {
  // Three levels of fan-out 3 shown twice, plus the masters' own instances:
  // a document exactly at the limit detaches, one layer over is refused.
  TempDir dir;
  const SketchFixture fixture = fanOutDocument(3, 3, 2);
  auto full = detached(fixture, dir / "full");
  ASSERT_FALSE(full->failureReason.has_value());
  const size_t copies = copiedLayers(*full);
  // Level k expands to e(k) = 1 + 3 (1 + e(k - 1)), e(0) = 1: 7, 25, 79. Each
  // TOP copies e(3); the masters' own instances 3 e(0), 3 e(1) and 3 e(2).
  EXPECT_EQ(copies, 2 * 79u + 3 + 21 + 75);

  for (size_t limit : {copies, copies - 1}) {
    SCOPED_TRACE(limit);
    auto d = detached(fixture, dir / ("limit-" + std::to_string(limit)), [&](auto& d) { d.maxCopiedLayers = limit; });
    EXPECT_EQ(d->failureReason.has_value(), limit < copies);
    EXPECT_EQ(copiedLayers(*d), limit < copies ? 0 : copies);
  }

  // Overrides can swap in a bigger symbol than the count assumed: the walk
  // counts its copies too and stops at the limit.
  SketchFixture swapping = fanOutDocument(3, 3, 0);
  swapping.addPage(page("Q", "Swaps",
                        JsonArray{withOverride(instance("HOLDER", "SYM-1", frame(0, 0, 20, 20)), "L1-0_symbolID", "SYM-3")}));
  // The count expects 7 for HOLDER.
  auto d = detached(swapping, dir / "swapping", [](auto& d) { d.maxCopiedLayers = 3 + 21 + 75 + 10; });
  ASSERT_TRUE(d->failureReason.has_value());
  EXPECT_EQ(cls(findLayer(pageJSON(*d, "Q"), "HOLDER")), "group") << "refused while detaching it";
}

// ---- The order of the walk

namespace {

struct OrderCase {
  std::string name;
  SketchFixture document;
  std::set<std::string> artboards;
  // Masters detachSymbols keeps a copy of, because something still copies
  // them after their own turn.
  size_t copiesKept;
};

void PrintTo(const OrderCase& c, std::ostream* os) { *os << c.name; }

// Masters that lie somewhere else than in the pages or foreign symbols: copies kept.
size_t copiesKept(const PXSymbolDetacherV2& d) {
  size_t kept = 0;
  for (const auto& [symbolID, master] : *d.symbols) {
    const std::string id(master.at("do_objectID").as_string());
    bool lies = false;
    for (const auto& p : d.pages)
      if (findLayer(p.json.get_object(), id) == &master) lies = true;
    if (d.document)
      if (const auto* entries = d.document->if_contains("foreignSymbols"); entries && entries->is_array())
        for (const auto& entry : entries->as_array())
          if (PXJsonObjectFor(&entry, "symbolMaster") == &master) lies = true;
    if (!lies) ++kept;
  }
  return kept;
}

SketchFixture withForeignMaster(SketchFixture fixture, JsonObject master) {
  JsonObject doc = fixture.documentJSON();
  doc["foreignSymbols"] = JsonArray{JsonObject{{"symbolMaster", std::move(master)}}};
  fixture.setDocument(doc);
  return fixture;
}

JsonObject withLayers(JsonObject l, JsonArray layers) {
  l["layers"] = std::move(layers);
  return l;
}

std::vector<OrderCase> orderCases() {
  return {
      {"UsersBeforeTheMastersTheyCopy",
       mastersThenScreens(
           JsonArray{master("MB", "SYM-B", JsonArray{group("B-G", JsonArray{rect("B-R")})}),
                     master("MA", "SYM-A", JsonArray{instance("A-IN-B", "SYM-B", frame(0, 0, 20, 20))}, frame(0, 0, 20, 20)),
                     master("MC", "SYM-C", JsonArray{instance("C-IN-A", "SYM-A", frame(0, 0, 40, 40))}, frame(0, 0, 40, 40))},
           JsonArray{instance("I1", "SYM-C", frame(0, 0, 80, 80)), instance("I2", "SYM-B")}),
       {}, 0},
      {"CyclesKeepACopy", cycleDocument(), {}, 2},
      {"WhatCyclesUseIsKeptToo",
       mastersThenScreens(
           JsonArray{master("MD", "SYM-D", JsonArray{instance("D-IN-E", "SYM-E")}),
                     master("ME", "SYM-E", JsonArray{group("E-G", JsonArray{rect("E-R")})}),
                     master("MF", "SYM-F", JsonArray{instance("F-IN-P", "SYM-P")}),
                     master("MP", "SYM-P", JsonArray{instance("P-IN-Q", "SYM-Q")}),
                     master("MQ", "SYM-Q", JsonArray{instance("Q-IN-P", "SYM-P"), instance("Q-IN-D", "SYM-D")})},
           JsonArray{instance("I1", "SYM-P"), instance("I2", "SYM-F")}),
       {}, 4},
      {"ForeignMastersPassTheirUsesOn",
       withForeignMaster(mastersThenScreens(JsonArray{master("MX", "SYM-X", JsonArray{instance("X-IN-T", "SYM-T")}),
                                                      master("MT", "SYM-T", JsonArray{rect("T-R")}),
                                                      master("MY", "SYM-Y", JsonArray{instance("Y-IN-F", "SYM-F")})},
                                            JsonArray{instance("I1", "SYM-Y")}),
                         master("MF", "SYM-F", JsonArray{instance("F-IN-X", "SYM-X")})),
       {}, 0},
      {"SwapsAndNestedOverrides",
       mastersThenScreens(
           JsonArray{master("MC", "SYM-C", JsonArray{group("C-G", JsonArray{rect("C-R")}), instance("C-IN-T", "SYM-T")}),
                     master("MT", "SYM-T", JsonArray{rect("T-R")}),
                     master("MB", "SYM-B", JsonArray{rect("B-R"), instance("B-IN-D", "SYM-D")}),
                     master("MD", "SYM-D", JsonArray{group("D-G")}),
                     master("MA", "SYM-A",
                            JsonArray{withOverride(withOverride(instance("A-IN-B", "SYM-B"), "B-IN-D_symbolID", "SYM-C"),
                                                   "A-MISSING_symbolID", "SYM-NONE")})},
           JsonArray{withOverride(instance("I1", "SYM-A"), "A-IN-B_symbolID", "SYM-D")}, true),
       {}, 0},
      {"MastersHeldByMasters",
       mastersThenScreens(
           JsonArray{master("MO", "SYM-O", JsonArray{instance("O-IN-I", "SYM-I"),
                                                     master("MI", "SYM-I", JsonArray{group("I-G"), instance("I-IN-T", "SYM-T")})}),
                     master("MT", "SYM-T", JsonArray{rect("T-R")})},
           JsonArray{instance("I1", "SYM-O"), instance("I2", "SYM-I")}),
       {}, 0},
      {"ASelectionAndDuplicateIdentifiers",
       mastersThenScreens(JsonArray{master("MS", "SYM-S", JsonArray{group("G1", JsonArray{rect("TWIN"), rect("TWIN")}),
                                                                instance("DUP", "SYM-T")}),
                                    master("MT", "SYM-T", JsonArray{rect("T1")})},
                          JsonArray{artboard("AB1", "One", frame(0, 0, 50, 50),
                                             JsonArray{instance("DUP", "SYM-T"), instance("I1", "SYM-S")}),
                                    artboard("AB2", "Two", frame(0, 0, 50, 50), JsonArray{instance("I2", "SYM-S")}),
                                    instance("DUP", "SYM-S")}),
       {"AB1"}, 0},
      {"AMasterInsideAnInstanceIsWalkedInPlace",
       mastersThenScreens(JsonArray{master("MT", "SYM-T", JsonArray{rect("T-R")}),
                                    withLayers(instance("HOLDER", "SYM-T"),
                                               JsonArray{master("MX", "SYM-X", JsonArray{instance("X-IN-T", "SYM-T")})})},
                          JsonArray{instance("I1", "SYM-X")}),
       {}, 2},
  };
}

class PXSymbolDetacherV2Order : public ::testing::TestWithParam<OrderCase> {};

}  // namespace

// Masters are walked after everything that copies them, and identifiers are
// renewed at the end: the pages must come out as walking them in order
// (as a renderer detaches, page by page, every master kept as found on
// disk before its page changes it) makes them.
TEST_P(PXSymbolDetacherV2Order, DetachesAsThePagesInOrderWould) {
  const OrderCase& c = GetParam();
  TempDir dir;
  const Configure setup = [&](PXSymbolDetacherV2& d) {
    d.stableIdentifiers = true;
    d.setDetachingArtboardIds(c.artboards);
  };
  auto pageByPage = loaded(c.document, dir / "page-by-page", setup);
  for (auto& p : pageByPage->pages) {
    std::vector<std::string> chain;
    pageByPage->detachSymbolsForNode(p.json.get_object(), chain);
  }
  auto inOrder = detached(c.document, dir / "in-order", setup);
  const std::string text = pagesText(*inOrder);
  EXPECT_EQ(text, pagesText(*pageByPage));
  EXPECT_NE(text.find("in_original_objectID"), std::string::npos);
  EXPECT_EQ(copiesKept(*inOrder), c.copiesKept);
}

INSTANTIATE_TEST_SUITE_P(Cases, PXSymbolDetacherV2Order, ::testing::ValuesIn(orderCases()),
                         [](const auto& info) { return info.param.name; });
