// Documents with very many artboards on one page, and archives with very
// many entries: the answers stay those of a plain scan, whatever indexes or
// parallel workers produce them.

#include "PXSketchOpenFormatReader.h"

#include "Files.h"
#include "Json.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using namespace plexa;
using namespace plexa::test;

namespace {

constexpr size_t kArtboards = 3000;

std::string artboardID(size_t i) { return "AB-" + std::to_string(i); }

// Page P1: kArtboards artboards, then a group reusing the first artboard's ID
// and a symbol master; page P2: one artboard and a second layer with the ID
// "AB-1" that is an artboard again (the later one wins on that page).
SketchFixture crowdedDocument() {
  JsonArray layers;
  for (size_t i = 0; i < kArtboards; ++i) layers.push_back(artboard(artboardID(i), "Board " + std::to_string(i), frame(i, 0, 1, 1)));
  layers.push_back(layer("group", artboardID(0), "A group, not an artboard", frame(0, 0, 1, 1)));
  JsonObject master = layer("symbolMaster", "MASTER", "Master", frame(0, 0, 2, 2));
  master["symbolID"] = "SYM";
  layers.push_back(master);
  JsonArray second{artboard("OTHER", "Other", frame(0, 0, 5, 5)), artboard("DUP", "First DUP", frame(0, 0, 1, 1)),
                   artboard("DUP", "Second DUP", frame(0, 0, 2, 2))};
  SketchFixture fixture;
  fixture.addPage(page("P1", "Crowded", std::move(layers))).addPage(page("P2", "Second", std::move(second)));
  // meta.json lists "AB-5" under both pages: the page visited last names it.
  JsonObject meta = fixture.metaJSON();
  meta["pagesAndArtboards"].as_object()["P2"].as_object()["artboards"].as_object()[artboardID(5)] = JsonObject();
  fixture.setMeta(meta);
  return fixture;
}

std::string nameOf(const PXSketchOpenFormatReader::Dictionary& layer) {
  return layer ? std::string(PXJsonText(layer->if_contains("name")).value_or("")) : std::string("<none>");
}

}  // namespace

TEST(CrowdedPage, ArtboardsComeInDisplayOrderAndResolveAsAScanWould) {
  TempDir dir;
  PXSketchOpenFormatReader reader(crowdedDocument().writeFolder(dir / "doc"));

  // Topmost first within a page, pages in document order.
  std::vector<std::string> expected{"MASTER"};
  for (size_t i = kArtboards; i-- > 0;) expected.push_back(artboardID(i));
  expected.insert(expected.end(), {"DUP", "OTHER"});
  EXPECT_EQ(reader.sortedArtboardIDs(), expected);

  struct Case {
    std::string id;
    std::optional<std::string> page;
    std::string name;  // "<none>": no artboard or symbol master with that ID on its page
  } cases[] = {
      {artboardID(0), "P1", "Board 0"},              // the later group with the same ID is not an artboard
      {artboardID(kArtboards - 1), "P1", "Board 2999"},
      {artboardID(5), "P2", "<none>"},               // meta.json puts it on P2 last, where it is absent
      {"DUP", "P2", "Second DUP"},                   // the last match on the page
      {"MASTER", "P1", "Master"},                    // symbol masters answer as artboards do
      {"NOWHERE", std::nullopt, "<none>"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(reader.pageIDByArtboardID(c.id), c.page) << c.id;
    auto shared = reader.artboardByID(c.id);
    EXPECT_EQ(nameOf(shared), c.name) << c.id;
    auto copy = reader.artboardJSONByID(c.id);
    EXPECT_EQ(copy.has_value(), shared != nullptr) << c.id;
    if (copy && shared) EXPECT_EQ(*copy, *shared) << c.id;
  }
}

TEST(CrowdedPage, AdoptedPagesReplaceTheFilesAndTheirIndex) {
  TempDir dir;
  PXSketchOpenFormatReader reader(crowdedDocument().writeFolder(dir / "doc"));
  ASSERT_EQ(nameOf(reader.artboardByID("OTHER")), "Other");

  JsonObject replaced = page("P2", "Second", JsonArray{artboard("OTHER", "Renamed", frame(0, 0, 5, 5))});
  reader.adoptPages({{"P2", std::make_shared<const JsonObject>(replaced)}});
  EXPECT_EQ(nameOf(reader.artboardByID("OTHER")), "Renamed");
  EXPECT_EQ(nameOf(reader.artboardByID("DUP")), "<none>");
  EXPECT_EQ(*reader.pageJSONByID("P2"), replaced);
}

TEST(ManyEntries, AllExtractInArchiveOrderWithTheirBytes) {
  TempDir dir;
  std::mt19937 random(3);
  std::vector<std::pair<std::string, std::string>> entries{{"images/", ""}, {"pages/", ""}};
  for (size_t i = 0; i < 4000; ++i) entries.emplace_back("images/tiny-" + std::to_string(i) + ".bin", std::to_string(i));
  // Large entries, compressible and not, go through the whole-entry inflater.
  std::string noise(3 << 20, '\0');
  for (auto& c : noise) c = static_cast<char>(random());
  entries.emplace_back("pages/noise.json", noise);
  entries.emplace_back("pages/repeat.json", std::string(5 << 20, 'x'));
  entries.emplace_back("document.json", "{}");
  ASSERT_TRUE(PXZip::zipEntries(entries, dir / "many.sketch"));

  auto result = PXZip::extractAll(dir / "many.sketch", dir / "out");
  ASSERT_TRUE(result.ok) << result.error;
  std::vector<std::string> files;
  for (const auto& [name, bytes] : entries)
    if (name.back() != '/') files.push_back(name);
  EXPECT_EQ(result.entries, files);
  for (const auto& [name, bytes] : entries)
    if (name.back() != '/') ASSERT_EQ(PXFileManager::readFile(dir / ("out/" + name)), bytes) << name;
}

TEST(ManyEntries, TheSizeCapIsSharedByTheWorkers) {
  TempDir dir;
  std::mt19937 random(5);
  std::string noise(1 << 20, '\0');
  for (auto& c : noise) c = static_cast<char>(random());
  std::vector<std::pair<std::string, std::string>> entries;
  for (size_t i = 0; i < 8; ++i) entries.emplace_back("pages/p" + std::to_string(i) + ".json", noise);
  ASSERT_TRUE(PXZip::zipEntries(entries, dir / "big.sketch"));

  // Eight entries of 1 MiB against a cap of 7.5 MiB, shared by the workers.
  auto capped = PXZip::extractAll(dir / "big.sketch", dir / "capped", PXZipLimits{(15ull << 20) / 2});
  EXPECT_FALSE(capped.ok);
  EXPECT_NE(capped.error.find("size limit"), std::string::npos) << capped.error;
}
