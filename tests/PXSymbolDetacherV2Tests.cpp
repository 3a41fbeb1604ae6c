// The JSON symbol detacher: loading, masters, the walk and its nesting rule,
// hidden instances, artboard selection, identifier renewal, markers,
// cancellation, saving and re-zipping, and documents built to break it.

#include "PXSymbolDetacherV2.h"

#include "Files.h"
#include "TestSupport.h"
#include "Zip.h"

#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <set>

namespace boost::json {
// Readable failure messages.
inline void PrintTo(const value& v, std::ostream* os) { *os << serialize(v); }
inline void PrintTo(const object& o, std::ostream* os) { *os << serialize(o); }
inline void PrintTo(const array& a, std::ostream* os) { *os << serialize(a); }
}  // namespace boost::json

using namespace plexa;
using namespace plexa::test;

namespace {

JsonObject master(const std::string& id, const std::string& symbolID, JsonObject f, JsonArray children = {}) {
  JsonObject m = layer("symbolMaster", id, "Master " + id, std::move(f), std::move(children));
  m["symbolID"] = symbolID;
  return m;
}

JsonObject instance(const std::string& id, const std::string& symbolID, JsonObject f) {
  JsonObject i = layer("symbolInstance", id, "Instance " + id, std::move(f));
  i["symbolID"] = symbolID;
  i["overrideValues"] = JsonArray();
  return i;
}

void forEachLayer(const JsonObject& node, const std::function<void(const JsonObject&)>& visit) {
  visit(node);
  if (auto it = node.find("layers"); it != node.end() && it->value().is_array())
    for (const auto& child : it->value().get_array())
      if (child.is_object()) forEachLayer(child.get_object(), visit);
}

void forEachLayer(const JsonValue& node, const std::function<void(const JsonObject&)>& visit) {
  if (node.is_object()) forEachLayer(node.get_object(), visit);
}

// The first layer, depth first, whose `key` is `value`.
template <typename Node>
const JsonObject* findLayer(const Node& root, const std::string& value, const std::string& key = "do_objectID") {
  const JsonObject* hit = nullptr;
  forEachLayer(root, [&](const JsonObject& l) {
    auto it = l.find(key);
    if (!hit && it != l.end() && it->value().is_string() && it->value().get_string() == value) hit = &l;
  });
  return hit;
}

// As it reads back from a file: whole numbers become integers.
JsonObject onDisk(const JsonObject& o) { return PXJsonParse(*PXJsonSerialize(o, false))->as_object(); }

std::string cls(const JsonObject* l) { return l ? std::string(l->at("_class").as_string()) : "<missing>"; }

const JsonValue& pageJSON(const PXSymbolDetacherV2& d, const std::string& pageID) {
  for (const auto& p : d.pages)
    if (p.url.ends_with("/" + pageID + ".json")) return p.json;
  ADD_FAILURE() << "no page " << pageID;
  static const JsonValue none;
  return none;
}

std::shared_ptr<PXSymbolDetacherV2> detached(const SketchFixture& fixture, const TempDir& dir,
                                             std::set<std::string> artboards = {}) {
  auto d = PXSymbolDetacherV2::detacherWithUrl(fixture.writeFolder(dir / "doc"));
  d->setDetachingArtboardIds(std::move(artboards));
  EXPECT_TRUE(d->loadDocument());
  d->findSymbols();
  d->detachSymbols();
  return d;
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
  fixture.addPage(page("P-GOOD", "Good", JsonArray{layer("rectangle", "R1", "r", frame(0, 0, 1, 1))}));
  JsonObject doc = fixture.documentJSON();
  JsonArray& refs = doc["pages"].as_array();
  for (const char* ref : {"pages/missing", "pages/bad", "pages/array", "../outside"})
    refs.push_back(JsonObject{{"_class", "MSJSONFileReference"}, {"_ref", ref}});
  refs.push_back(JsonObject{{"_ref", 5}});
  refs.push_back(JsonObject{{"_class", "MSJSONFileReference"}});
  refs.push_back("not a reference");
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
  SketchFixture fixture;
  JsonObject inArtboard = master("M-HIDDEN", "SYM-HIDDEN", frame(0, 0, 10, 10));
  JsonObject inGroup = master("M-G", "SYM-G", frame(0, 0, 10, 10));
  JsonObject onPage = master("M-P", "SYM-P", frame(0, 0, 10, 10),
                             JsonArray{instance("I-IN-P", "SYM-G", frame(0, 0, 10, 10))});
  onPage["name"] = "page P";
  fixture.addPage(page("P1", "Page", JsonArray{artboard("AB", "Board", frame(0, 0, 50, 50), JsonArray{inArtboard}),
                                              layer("group", "G", "g", frame(0, 0, 5, 5), JsonArray{inGroup}),
                                              onPage}));
  JsonObject doc = fixture.documentJSON();
  JsonObject originalF = master("F-O", "SYM-F", frame(0, 0, 1, 1));
  originalF["name"] = "original F";
  JsonObject foreignF = master("F-S", "SYM-F", frame(0, 0, 1, 1));
  foreignF["name"] = "foreign F";
  JsonObject foreignP = master("F-P", "SYM-P", frame(0, 0, 1, 1));
  foreignP["name"] = "foreign P";
  doc["foreignSymbols"] = JsonArray{JsonObject{{"originalMaster", originalF}, {"symbolMaster", foreignF}},
                                    JsonObject{{"symbolMaster", foreignP}}, 7};
  fixture.setDocument(doc);

  TempDir dir;
  PXSymbolDetacherV2 d(fixture.writeFolder(dir / "doc"));
  std::vector<std::pair<size_t, size_t>> reports;
  d.findSymbols([&](size_t i, size_t n) { reports.emplace_back(i, n); });  // loads on its own

  ASSERT_TRUE(d.symbols.has_value());
  std::set<std::string> ids;
  for (const auto& [id, m] : *d.symbols) ids.insert(id);
  EXPECT_EQ(ids, (std::set<std::string>{"SYM-F", "SYM-G", "SYM-P"}));
  EXPECT_EQ(d.symbols->at("SYM-F").at("name"), "foreign F");
  EXPECT_EQ(d.symbols->at("SYM-P").at("name"), "page P");
  EXPECT_EQ(reports.back(), (std::pair<size_t, size_t>{1, 1}));

  EXPECT_EQ(d.searchForSymbolWithQuery(JsonObject{{"name", "page P"}}), &d.symbols->at("SYM-P"));
  EXPECT_EQ(d.searchForSymbolWithQuery(JsonObject{}), nullptr);

  // Masters stay as found on disk while the page's copy is detached.
  d.detachSymbols();
  EXPECT_EQ(cls(findLayer(d.symbols->at("SYM-P"), "I-IN-P")), "symbolInstance");
  EXPECT_EQ(cls(findLayer(pageJSON(d, "P1"), "I-IN-P")), "group");
}

// ---- The walk

TEST(PXSymbolDetacherV2Walk, NestedSymbolsDetachOncePerPathAndCyclesStop) {
  // A holds B and itself; B holds A: both cycles must end in marked instances.
  SketchFixture fixture;
  fixture.addPage(page("SYMBOLS", "Symbols",
                       JsonArray{master("MA", "SYM-A", frame(0, 0, 100, 100),
                                        JsonArray{layer("rectangle", "A-RECT", "r", frame(0, 0, 10, 10)),
                                                  instance("A-IN-B", "SYM-B", frame(10, 10, 50, 50)),
                                                  instance("A-SELF", "SYM-A", frame(60, 60, 20, 20))}),
                                 master("MB", "SYM-B", frame(0, 0, 50, 50),
                                        JsonArray{layer("rectangle", "B-RECT", "r", frame(0, 0, 5, 5)),
                                                  instance("B-IN-A", "SYM-A", frame(0, 0, 10, 10))})}));
  fixture.addPage(page("SCREENS", "Screens",
                       JsonArray{artboard("AB1", "Board", frame(0, 0, 400, 400),
                                          JsonArray{instance("I1", "SYM-A", frame(0, 0, 100, 100))})}));
  TempDir dir;
  LogCapture logs;
  auto d = detached(fixture, dir);
  const JsonValue& screens = pageJSON(*d, "SCREENS");

  const JsonObject* outer = findLayer(screens, "I1");
  ASSERT_NE(outer, nullptr);
  EXPECT_EQ(cls(outer), "group");
  EXPECT_EQ(outer->at("in_detachedSymbol"), true);
  EXPECT_EQ(outer->at("in_detachedSymbolId"), "SYM-A");
  EXPECT_FALSE(outer->contains("symbolID") || outer->contains("overrideValues"));

  const JsonObject* innerB = findLayer(screens, "A-IN-B", "in_original_objectID");
  EXPECT_EQ(cls(innerB), "group");
  const JsonObject* cycleA = findLayer(screens, "B-IN-A", "in_original_objectID");
  ASSERT_NE(cycleA, nullptr);
  EXPECT_EQ(cls(cycleA), "symbolInstance");
  EXPECT_EQ(cycleA->at("in_infinitNestedSymbol"), true);
  const JsonObject* self = findLayer(screens, "A-SELF", "in_original_objectID");
  ASSERT_NE(self, nullptr);
  EXPECT_EQ(cls(self), "symbolInstance");
  EXPECT_EQ(self->at("in_infinitNestedSymbol"), true);
  EXPECT_TRUE(logs.contains("Infinit Nested symbol found: Instance B-IN-A[SYM-A]"));

  // The masters on their page are walked as well: every instance in them is
  // either detached or marked.
  size_t unmarked = 0;
  forEachLayer(pageJSON(*d, "SYMBOLS"), [&](const JsonObject& l) {
    if (cls(&l) == "symbolInstance" && !l.contains("in_infinitNestedSymbol")) ++unmarked;
  });
  EXPECT_EQ(unmarked, 0u);
  EXPECT_EQ(findLayer(pageJSON(*d, "SYMBOLS"), "MA")->at("_class"), "symbolMaster");
}

TEST(PXSymbolDetacherV2Walk, HiddenMissingAndEmptyInstancesStay) {
  JsonObject hidden = instance("HIDDEN", "SYM-S", frame(0, 0, 10, 10));
  hidden["isVisible"] = false;
  JsonObject empty = instance("EMPTY", "", frame(0, 0, 10, 10));
  JsonObject wrongType = instance("WRONG", "", frame(0, 0, 10, 10));
  wrongType["symbolID"] = 42;
  SketchFixture fixture;
  fixture.addPage(page("P", "Page",
                       JsonArray{master("MS", "SYM-S", frame(0, 0, 10, 10),
                                        JsonArray{layer("rectangle", "S-RECT", "r", frame(0, 0, 1, 1))}),
                                 hidden, instance("MISSING", "SYM-NOPE", frame(0, 0, 10, 10)), empty, wrongType,
                                 layer("group", "PLAIN", "g", frame(0, 0, 1, 1))}));
  TempDir dir;
  LogCapture logs;
  auto d = detached(fixture, dir);
  const JsonValue& p = pageJSON(*d, "P");

  EXPECT_EQ(*findLayer(p, "HIDDEN"), onDisk(hidden));
  EXPECT_EQ(cls(findLayer(p, "MISSING")), "symbolInstance");
  EXPECT_TRUE(logs.contains("Not able to find symbol with id SYM-NOPE"));
  EXPECT_EQ(*findLayer(p, "EMPTY"), onDisk(empty));
  EXPECT_EQ(*findLayer(p, "WRONG"), onDisk(wrongType));
  EXPECT_EQ(logs.count("Not able to find symbol with id"), 1u);
  EXPECT_EQ(findLayer(p, "PLAIN")->at("in_detachedSymbol"), false);
}

TEST(PXSymbolDetacherV2Walk, SelectionLeavesOtherArtboardsUntouched) {
  SketchFixture fixture;
  fixture.addPage(page("SYMBOLS", "Symbols",
                       JsonArray{master("MS", "SYM-S", frame(0, 0, 10, 10),
                                        JsonArray{instance("S-IN-T", "SYM-T", frame(0, 0, 5, 5))}),
                                 master("MT", "SYM-T", frame(0, 0, 5, 5),
                                        JsonArray{layer("rectangle", "T-RECT", "r", frame(0, 0, 5, 5))})}));
  JsonObject untouched = artboard("B", "B", frame(200, 0, 100, 100),
                                  JsonArray{instance("IB", "SYM-S", frame(0, 0, 10, 10)),
                                            layer("group", "GB", "g", frame(0, 0, 1, 1))});
  fixture.addPage(page("SCREENS", "Screens",
                       JsonArray{artboard("A", "A", frame(0, 0, 100, 100),
                                          JsonArray{instance("IA", "SYM-S", frame(0, 0, 10, 10)),
                                                    layer("group", "GA", "g", frame(0, 0, 1, 1))}),
                                 untouched,
                                 layer("group", "TOP", "g", frame(0, 0, 1, 1),
                                       JsonArray{instance("IT", "SYM-S", frame(0, 0, 10, 10))})}));
  TempDir dir;
  auto d = detached(fixture, dir, {"A"});
  const JsonValue& screens = pageJSON(*d, "SCREENS");

  EXPECT_EQ(cls(findLayer(screens, "IA")), "group");
  EXPECT_EQ(findLayer(screens, "GA")->at("in_detachedSymbol"), false);
  EXPECT_EQ(*findLayer(screens, "B"), onDisk(untouched));
  EXPECT_EQ(cls(findLayer(screens, "IT")), "group");
  EXPECT_EQ(cls(findLayer(pageJSON(*d, "SYMBOLS"), "S-IN-T")), "group");
}

// ---- Identifiers and markers

TEST(PXSymbolDetacherV2Identifiers, CopiedLayersGetFreshIdsAndKeepTheirOriginals) {
  SketchFixture fixture;
  fixture.addPage(page("SYMBOLS", "Symbols",
                       JsonArray{master("MS", "SYM-S", frame(0, 0, 10, 10),
                                        JsonArray{layer("rectangle", "R1", "r", frame(0, 0, 1, 1)),
                                                  layer("group", "G1", "g", frame(0, 0, 5, 5),
                                                        JsonArray{layer("oval", "R2", "o", frame(0, 0, 1, 1)),
                                                                  instance("N1", "SYM-T", frame(0, 0, 2, 2))})}),
                                 master("MT", "SYM-T", frame(0, 0, 2, 2),
                                        JsonArray{layer("rectangle", "T1", "t", frame(0, 0, 2, 2))})}));
  fixture.addPage(page("SCREENS", "Screens",
                       JsonArray{instance("I1", "SYM-S", frame(0, 0, 10, 10)),
                                 instance("I2", "SYM-S", frame(0, 0, 20, 20))}));
  TempDir dir;
  auto d = detached(fixture, dir);
  const JsonValue& screens = pageJSON(*d, "SCREENS");

  const std::regex uuid("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$");
  std::set<std::string> fresh;
  std::multiset<std::string> originals;
  for (const char* groupID : {"I1", "I2"}) {
    const JsonObject* group = findLayer(screens, groupID);
    ASSERT_EQ(cls(group), "group");
    EXPECT_FALSE(group->contains("in_original_objectID"));
    for (const auto& child : group->at("layers").as_array()) {
      forEachLayer(child, [&](const JsonObject& l) {
        std::string id(l.at("do_objectID").as_string());
        EXPECT_TRUE(std::regex_match(id, uuid)) << id;
        fresh.insert(id);
        originals.insert(std::string(l.at("in_original_objectID").as_string()));
      });
    }
  }
  // Both copies hold R1, G1, R2, N1 and T1 inside N1: renewed once each.
  EXPECT_EQ(fresh.size(), 10u);
  EXPECT_EQ(originals, (std::multiset<std::string>{"R1", "R1", "G1", "G1", "R2", "R2", "N1", "N1", "T1", "T1"}));
  const JsonObject* nested = findLayer(screens, "N1", "in_original_objectID");
  ASSERT_NE(nested, nullptr);
  EXPECT_EQ(cls(nested), "group");
  EXPECT_EQ(nested->at("in_detachedSymbolId"), "SYM-T");
  EXPECT_EQ(nested->at("in_detachedSymbol"), true);
}

TEST(PXSymbolDetacherV2Debugging, SearchesFindDetachedGroupsAndPaths) {
  SketchFixture fixture;
  fixture.addPage(page("P", "Page",
                       JsonArray{master("MS", "SYM-S", frame(0, 0, 10, 10),
                                        JsonArray{layer("rectangle", "R1", "r", frame(0, 0, 1, 1))}),
                                 layer("group", "G", "g", frame(0, 0, 1, 1),
                                       JsonArray{instance("I1", "SYM-S", frame(0, 0, 10, 10))})}));
  TempDir dir;
  auto d = detached(fixture, dir);
  const JsonObject* hit = d->searchForDetachedSymbol("Instance I1");
  ASSERT_NE(hit, nullptr);
  EXPECT_EQ(hit->at("do_objectID"), "I1");
  EXPECT_EQ(d->searchForDetachedSymbol("Master MS"), nullptr);
  EXPECT_EQ(d->printStackForNode(pageJSON(*d, "P"), "in_original_objectID", JsonValue("R1")),
            (std::vector<std::string>{"layers[1] -> layers[0] -> layers[0]"}));
}

// ---- Cancellation

TEST(PXSymbolDetacherV2Cancel, StopsBetweenPagesAndSavesNothingAfterwards) {
  SketchFixture fixture;
  fixture.addPage(page("P0", "Zero",
                       JsonArray{master("MS", "SYM-S", frame(0, 0, 10, 10),
                                        JsonArray{layer("rectangle", "R1", "r", frame(0, 0, 1, 1))}),
                                 instance("I0", "SYM-S", frame(0, 0, 10, 10))}));
  fixture.addPage(page("P1", "One", JsonArray{instance("I1", "SYM-S", frame(0, 0, 10, 10))}));
  TempDir dir;
  auto d = PXSymbolDetacherV2::detacherWithUrl(fixture.writeFolder(dir / "doc"));
  ASSERT_TRUE(d->loadDocument());
  d->findSymbols();
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
  fixture.addPage(page("P", "Page",
                       JsonArray{master("MS", "SYM-S", frame(0, 0, 10, 10),
                                        JsonArray{layer("rectangle", "R1", "r", frame(0, 0, 1, 1))}),
                                 instance("I1", "SYM-S", frame(0, 0, 10, 10))}));
  TempDir dir;
  auto d = detached(fixture, dir);
  const std::string folder = dir / "doc";
  const std::string documentBefore = readText(folder + "/document.json");
  // Where the unzipper puts it: inside the folder being zipped.
  const std::string archive = folder + "/Input.sketch";

  ASSERT_TRUE(d->saveToUrl(archive));
  EXPECT_FALSE(d->isDirty);
  const std::string pageText = readText(folder + "/pages/P.json");
  EXPECT_NE(pageText.find("\n  \"_class\" : \"page\""), std::string::npos);
  EXPECT_EQ(readText(folder + "/document.json"), documentBefore);

  ASSERT_TRUE(d->saveToUrl(archive));  // over its own earlier archive
  auto names = PXZip::entryNames(archive);
  ASSERT_TRUE(names.has_value());
  EXPECT_NE(std::find(names->begin(), names->end(), "document.json"), names->end());
  EXPECT_NE(std::find(names->begin(), names->end(), "pages/P.json"), names->end());
  EXPECT_EQ(std::find(names->begin(), names->end(), "Input.sketch"), names->end());

  auto unzipped = PXZip::extractAll(archive, dir / "again");
  ASSERT_TRUE(unzipped.ok) << unzipped.error;
  JsonValue again = readJson(dir / "again/pages/P.json");
  EXPECT_EQ(cls(findLayer(again, "I1")), "group");
  EXPECT_EQ(again, d->pages[0].json);

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
  JsonObject zeroMaster = master("MZ", "SYM-ZERO", frame(0, 0, 0, 0),
                                 JsonArray{layer("rectangle", "Z-R", "r", frame(0, 0, 0, 0)),
                                           layer("rectangle", "Z-CENTRE", "r", frame(0, 0, 0, 0))});
  zeroMaster["layers"].as_array()[1].as_object()["resizingConstraint"] = 45;
  JsonObject stringFrame = layer("rectangle", "W-R", "r", frame(0, 0, 1, 1));
  stringFrame["frame"].as_object()["width"] = "wide";
  stringFrame["frame"].as_object()["x"] = JsonArray{1};
  JsonObject brokenLayers = layer("group", "W-G", "g", frame(0, 0, 1, 1));
  brokenLayers["layers"] = "not layers";
  JsonObject noFrame = layer("rectangle", "W-NF", "r", frame(0, 0, 1, 1));
  noFrame["frame"] = 3;
  JsonObject wrongMaster = master("MW", "SYM-WRONG", frame(0, 0, 10, 10),
                                  JsonArray{stringFrame, brokenLayers, noFrame, 17, JsonArray{}});
  wrongMaster["layers"].as_array().push_back(layer("text", "W-T", "t", frame(0, 0, 5, 5)));

  JsonObject wrongOverrides = instance("I-WRONG", "SYM-WRONG", frame(0, 0, 20, 20));
  wrongOverrides["overrideValues"] = JsonArray{
      JsonObject{{"overrideName", 5}, {"value", "x"}},
      JsonObject{{"overrideName", "NOPE/ALSO_stringValue"}, {"value", "ghost"}},
      JsonObject{{"overrideName", "W-T_stringValue"}, {"value", 12}},
      JsonObject{{"overrideName", "W-R_image"}, {"value", "not an image"}},
      JsonObject{{"overrideName", "W-G_symbolID"}, {"value", 7}},
      JsonObject{{"overrideName", "_stringValue"}, {"value", "no path"}},
      JsonObject{{"overrideName", "W-NF_stringValue"}},
      "not an entry",
      JsonObject{{"overrideName", "W-NF/W-T/X_layerStyle"}, {"value", JsonObject{{"_ref_class", "MSImageData"}}}}};
  wrongOverrides["overrides"] = "not a map";
  JsonObject stringOverrideValues = instance("I-WRONG2", "SYM-WRONG", frame(0, 0, 20, 20));
  stringOverrideValues["overrideValues"] = "nothing here";

  SketchFixture fixture;
  fixture.addPage(page("SYMBOLS", "Symbols",
                       JsonArray{master("MSELF", "SYM-SELF", frame(0, 0, 10, 10),
                                        JsonArray{instance("SELF-IN", "SYM-SELF", frame(0, 0, 10, 10))}),
                                 master("MX", "SYM-X", frame(0, 0, 10, 10),
                                        JsonArray{instance("X-IN-Y", "SYM-Y", frame(0, 0, 10, 10))}),
                                 master("MY", "SYM-Y", frame(0, 0, 10, 10),
                                        JsonArray{instance("Y-IN-X", "SYM-X", frame(0, 0, 10, 10))}),
                                 zeroMaster, wrongMaster}));
  JsonObject screens = page("SCREENS", "Screens",
                            JsonArray{instance("I-SELF", "SYM-SELF", frame(0, 0, 30, 30)),
                                      instance("I-X", "SYM-X", frame(0, 0, 30, 30)),
                                      instance("I-MISSING", "SYM-MISSING", frame(0, 0, 30, 30)),
                                      instance("I-ZERO", "SYM-ZERO", frame(0, 0, 100, 100)), wrongOverrides,
                                      stringOverrideValues,
                                      layer("rectangle", "HUGE", "r", frame(123456789.125, 0, 1, 1))});
  // A number no writer can print: the page must still be saved.
  std::string screensText = *PXJsonSerialize(screens, false);
  screensText.replace(screensText.find("123456789.125"), 13, "1e999");
  JsonObject doc = fixture.documentJSON();
  doc["pages"].as_array().push_back(JsonObject{{"_class", "MSJSONFileReference"}, {"_ref", "pages/SCREENS"}});
  fixture.setDocument(doc).addEntry("pages/SCREENS.json", screensText);

  TempDir dir;
  LogCapture logs;
  auto d = detached(fixture, dir);
  ASSERT_EQ(d->pages.size(), 2u);
  ASSERT_TRUE(d->saveToUrl(dir / "out.sketch"));
  ASSERT_TRUE(PXZip::extractAll(dir / "out.sketch", dir / "again").ok);

  for (const char* id : {"SYMBOLS", "SCREENS"}) {
    auto parsed = PXJsonParse(readText(dir / "again/pages/" + std::string(id) + ".json"));
    ASSERT_TRUE(parsed.has_value()) << id;
    forEachLayer(*parsed, [&](const JsonObject& l) {
      if (cls(&l) == "symbolInstance" && l.at("symbolID") != "SYM-MISSING")
        EXPECT_TRUE(l.contains("in_infinitNestedSymbol")) << l.at("do_objectID");
    });
  }
  JsonValue again = readJson(dir / "again/pages/SCREENS.json");
  EXPECT_EQ(findLayer(again, "HUGE")->at("frame").at("x"), 0);
  EXPECT_TRUE(logs.contains("non-finite numbers"));
  // The zero-sized master's layers end up at finite places.
  const JsonObject* centre = findLayer(again, "Z-CENTRE", "in_original_objectID");
  ASSERT_NE(centre, nullptr);
  EXPECT_EQ(centre->at("frame").at("x"), 0);
  EXPECT_TRUE(logs.contains("Could not update node with override"));
  EXPECT_TRUE(logs.contains("Not able to find symbol with id SYM-MISSING"));
}

TEST(PXSymbolDetacherV2Hostile, DeepChainsAndFanOutsStopAtTheLimits) {
  // Level k holds ten instances of level k - 1: detaching level 6 in full
  // would copy over a million layers.
  JsonArray masters;
  for (int level = 0; level <= 6; ++level) {
    JsonArray children{layer("rectangle", "R" + std::to_string(level), "r", frame(0, 0, 1, 1))};
    for (int i = 0; level > 0 && i < 10; ++i)
      children.push_back(instance("L" + std::to_string(level) + "-" + std::to_string(i),
                                  "SYM-" + std::to_string(level - 1), frame(0, 0, 1, 1)));
    masters.push_back(master("M" + std::to_string(level), "SYM-" + std::to_string(level), frame(0, 0, 1, 1),
                             std::move(children)));
  }
  SketchFixture fixture;
  fixture.addPage(page("P", "Page", JsonArray{artboard("AB", "Board", frame(0, 0, 10, 10),
                                                       JsonArray{instance("TOP", "SYM-6", frame(0, 0, 2, 2))})}));
  fixture.addPage(page("SYMBOLS", "Symbols", std::move(masters)));
  TempDir dir;
  LogCapture logs;
  auto d = PXSymbolDetacherV2::detacherWithUrl(fixture.writeFolder(dir / "doc"));
  d->maxCopiedLayers = 5000;
  d->maxNestingDepth = 3;
  ASSERT_TRUE(d->loadDocument());
  d->detachSymbols();

  size_t layers = 0, keptTooDeep = 0;
  forEachLayer(pageJSON(*d, "P"), [&](const JsonObject& l) {
    ++layers;
    if (cls(&l) == "symbolInstance") ++keptTooDeep;
  });
  // Three levels below TOP are detached (1 + 10 + 100 groups), the fourth stays.
  EXPECT_EQ(cls(findLayer(pageJSON(*d, "P"), "TOP")), "group");
  EXPECT_EQ(keptTooDeep, 1000u);
  EXPECT_TRUE(logs.contains("Symbol nesting too deep, instance kept"));
  EXPECT_LT(layers, 6000u);

  d->maxNestingDepth = 128;
  ASSERT_TRUE(d->loadDocument());
  d->detachSymbols();
  EXPECT_TRUE(logs.contains("Detached layer limit reached, instance kept"));
  ASSERT_TRUE(d->saveToUrl(dir / "out.sketch"));
}
