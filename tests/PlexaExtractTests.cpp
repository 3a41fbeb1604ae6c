#include "PlexaExtract.h"

#include "ExtractionRun.h"
#include "Files.h"
#include "MainQueue.h"
#include "NSString+MPSync.h"
#include "PathString.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

using namespace plexa;
using namespace plexa::test;

namespace {

// Two pages: A, B, C on the first (so display order is C, B, A), D on the second.
std::string writeDocument(const TempDir& dir, const std::string& name = "doc.sketch") {
  SketchFixture fixture;
  fixture.addPage(page("P1", "First", JsonArray{artboard("A", "Alpha", frame(0, 0, 100, 100)),
                                                artboard("B", "Beta", frame(200, 0, 100, 100)),
                                                artboard("C", "-Gamma", frame(400, 0, 100, 100))}));
  fixture.addPage(page("P2", "Second", JsonArray{artboard("D", "Delta", frame(0, 0, 50, 50))}));
  return fixture.writeSketch(dir / name);
}

// Each extractor owns (and at its end deletes) its own work folder.
std::shared_ptr<PlexaExtract> makeExtractor(const TempDir& dir, const std::string& sketch) {
  static int serial = 0;
  auto extractor = PlexaExtract::extractWithSketchFilePath(sketch, dir / ("work" + std::to_string(++serial)),
                                                           std::string("/nonexistent/sketchtool"));
  extractor->detachMethod = "none";
  return extractor;
}

}  // namespace

TEST(PlexaExtractPipeline, NoOptionsStillUnzipsCompletesEveryProcessAndWritesUploadInfo) {
  TempDir dir;
  auto extractor = makeExtractor(dir, writeDocument(dir));
  auto outcome = startExtraction(extractor, std::nullopt, 0);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }));
  EXPECT_FALSE(outcome->error);
  EXPECT_EQ(outcome->names, std::vector<std::string>{"__uploadInfo.json"});
  for (int64_t p = 0; p <= 4; ++p) EXPECT_DOUBLE_EQ(extractor->progressForProcess(p), 1.0) << p;
  ASSERT_FALSE(outcome->progress.empty());
  EXPECT_NEAR(outcome->progress.back().second, 1.0, 1e-9);
  // The upload info lists all artboards in display order, none selected beyond the run.
  auto info = extractor->syncInfo();
  ASSERT_TRUE(info && info->is_object());
  EXPECT_EQ(info->as_object().size(), 4u);
  EXPECT_EQ(info->as_object().at("C").at("index"), 0);
  EXPECT_EQ(info->as_object().at("D").at("index"), 3);
}

TEST(PlexaExtractPipeline, ArtboardSelectionAndMetaOptions) {
  TempDir dir;
  std::string sketch = writeDocument(dir);
  {
    // Absent IDs: every artboard, excluded names skipped only with option 4.
    auto extractor = makeExtractor(dir, sketch);
    auto outcome =
        startExtraction(extractor, std::nullopt, PlexaExtractExportMeta | PlexaExtractExcludeIgnoredArtboardName);
    ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }));
    EXPECT_TRUE(outcome->lists("A.json"));
    EXPECT_TRUE(outcome->lists("D-paths.json"));
    EXPECT_FALSE(outcome->lists("C.json"));
    EXPECT_EQ(extractor->progressCount(), 4);
  }
  {
    // Assets imply the meta walk even without option 1.
    auto extractor = makeExtractor(dir, sketch);
    auto outcome = startExtraction(extractor, std::vector<std::string>{"B"}, PlexaExtractExportAssets);
    ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }));
    EXPECT_TRUE(outcome->lists("B.json"));
    EXPECT_FALSE(outcome->lists("A.json"));
    auto info = extractor->syncInfo();
    ASSERT_TRUE(info);
    EXPECT_EQ(info->at("B").at("isSyncing"), 1);
    EXPECT_EQ(info->at("A").at("isSyncing"), 0);
  }
  {
    // An empty list means no artboards at all: only detaching counts toward the total.
    auto extractor = makeExtractor(dir, sketch);
    auto outcome = startExtraction(extractor, std::vector<std::string>{}, PlexaExtractExportMeta);
    ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }));
    EXPECT_EQ(outcome->names, std::vector<std::string>{"__uploadInfo.json"});
    EXPECT_NEAR(outcome->progress.back().second, 0.2, 1e-9);
  }
}

TEST(PlexaExtractPipeline, UnzipFailureReachesTheHostAsTheOneError) {
  TempDir dir;
  writeText(dir / "broken.sketch", "this is not a zip archive");
  auto extractor = makeExtractor(dir, dir / "broken.sketch");
  auto outcome = startExtraction(extractor, std::nullopt, PlexaExtractExportMeta);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }));
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->domain, "NSURLErrorDomain");
  EXPECT_EQ(outcome->error->code, -1100);
  EXPECT_EQ(outcome->error->localizedDescription, "The Sketch file could not be unzipped.");
  EXPECT_TRUE(outcome->names.empty());

  // A zip without document.json is just as unusable.
  SketchFixture fixture;
  fixture.addPage(page("P", "Page", JsonArray{artboard("A", "A", frame(0, 0, 10, 10))}));
  fixture.omitEntry("document.json");
  auto second = makeExtractor(dir, fixture.writeSketch(dir / "nodoc.sketch"));
  auto outcome2 = startExtraction(second, std::nullopt, PlexaExtractExportMeta);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome2->called; }));
  EXPECT_TRUE(outcome2->error);
}

namespace {

// An artboard showing a master twice, the master holding a nested instance.
std::string writeSymbolDocument(const TempDir& dir, const std::string& name) {
  auto symbol = [](const std::string& id, const std::string& symbolID, JsonArray children) {
    JsonObject m = layer("symbolMaster", id, "Master " + id, frame(0, 0, 40, 40), std::move(children));
    m["symbolID"] = symbolID;
    return m;
  };
  auto instance = [](const std::string& id, const std::string& symbolID) {
    JsonObject i = layer("symbolInstance", id, "Instance " + id, frame(0, 0, 40, 40));
    i["symbolID"] = symbolID;
    return i;
  };
  auto text = [](const std::string& id) {
    JsonObject t = layer("text", id, "Label", frame(0, 0, 30, 10));
    t["attributedString"] = JsonObject{{"_class", "attributedString"}, {"string", "Label"}, {"attributes", JsonArray{}}};
    return t;
  };
  SketchFixture fixture;
  fixture.addPage(page("P1", "Screens", JsonArray{artboard("A", "Alpha", frame(0, 0, 100, 100),
                                                           JsonArray{instance("I1", "SYM-S"), instance("I2", "SYM-S")})}));
  fixture.addPage(page("P2", "Symbols", JsonArray{symbol("MS", "SYM-S", JsonArray{text("T1"), instance("N1", "SYM-T")}),
                                                  symbol("MT", "SYM-T", JsonArray{text("T2")})}));
  return fixture.writeSketch(dir / name);
}

std::map<std::string, std::string> outputFiles(const PlexaExtract& extractor) {
  std::map<std::string, std::string> files;
  for (const auto& name : PXFileManager::contentsOfDirectory(extractor.outputFolderPath).value_or(std::vector<std::string>{}))
    files[name] = readText(extractor.outputFolderPath + "/" + name);
  return files;
}

}  // namespace

TEST(PlexaExtractPipeline, StableIdentifiersMakeTwoRunsIdentical) {
  std::vector<std::map<std::string, std::string>> runs;
  for (bool stable : {true, true, false}) {
    // Each run in folders of its own, named at random as a host's are.
    TempDir dir;
    auto extractor = makeExtractor(dir, writeSymbolDocument(dir, "doc.sketch"));
    extractor->stableIdentifiers = stable;
    auto outcome = startExtraction(extractor, std::nullopt, PlexaExtractExportMeta | PlexaExtractDetachV2);
    ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }));
    ASSERT_FALSE(outcome->error);
    runs.push_back(outputFiles(*extractor));
  }
  ASSERT_TRUE(runs[0].contains("A.json") && runs[0].contains("A-paths.json") && runs[0].contains("__uploadInfo.json"));
  EXPECT_EQ(runs[0], runs[1]);
  EXPECT_NE(runs[0].at("A.json"), runs[2].at("A.json")) << "random identifiers by default";
}

TEST(PlexaExtractPipeline, ARefusedDetachReachesTheHostWithItsReason) {
  // Ten instances of the level below, twelve levels deep: 10^12 layers.
  JsonArray masters;
  for (int level = 0; level <= 12; ++level) {
    JsonArray children{layer("rectangle", "R" + std::to_string(level), "r", frame(0, 0, 1, 1))};
    for (int i = 0; level > 0 && i < 10; ++i) {
      JsonObject child = layer("symbolInstance", "L" + std::to_string(level) + "-" + std::to_string(i), "i", frame(0, 0, 1, 1));
      child["symbolID"] = "SYM-" + std::to_string(level - 1);
      children.push_back(std::move(child));
    }
    JsonObject m = layer("symbolMaster", "M" + std::to_string(level), "m", frame(0, 0, 1, 1), std::move(children));
    m["symbolID"] = "SYM-" + std::to_string(level);
    masters.push_back(std::move(m));
  }
  SketchFixture fixture;
  fixture.addPage(page("P1", "Screens", JsonArray{artboard("A", "Alpha", frame(0, 0, 100, 100))}));
  fixture.addPage(page("P2", "Symbols", std::move(masters)));
  TempDir dir;
  auto extractor = makeExtractor(dir, fixture.writeSketch(dir / "laughs.sketch"));
  auto outcome = startExtraction(extractor, std::nullopt, PlexaExtractExportMeta | PlexaExtractDetachV2);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }, std::chrono::seconds(60)));
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, -1100);
  EXPECT_TRUE(outcome->error->failureReason.starts_with("Symbol detachment refused: ")) << outcome->error->failureReason;
}

TEST(PlexaExtractLifecycle, CancelAndReleaseRemoveTheFoldersAndSilenceTheCompletion) {
  TempDir dir;
  std::string sketch = writeDocument(dir);
  {
    auto extractor = makeExtractor(dir, sketch);
    std::string output = extractor->outputFolderPath;
    EXPECT_TRUE(PXFileManager::fileExists(output));
    extractor->cancel();
    auto outcome = startExtraction(extractor, std::nullopt, PlexaExtractExportMeta);
    pumpMainUntil([&] { return outcome->called; }, std::chrono::milliseconds(500));
    EXPECT_FALSE(outcome->called);
    EXPECT_FALSE(PXFileManager::fileExists(output));
    EXPECT_FALSE(PXFileManager::fileExists(extractor->tempFolderPath));
  }
  {
    // Cancelled from the first progress report, while the meta walk runs.
    auto extractor = makeExtractor(dir, sketch);
    auto outcome = std::make_shared<ExtractionOutcome>();
    std::weak_ptr<PlexaExtract> weak = extractor;
    extractor->progressBlock = [weak](PlexaExtractProcess, double, double) {
      if (auto self = weak.lock()) self->cancel();
    };
    extractor->startExtractionForArtboardIDs(std::nullopt, 1, PlexaExtractExportMeta, nullptr,
                                             [outcome](const auto&, const auto&) { outcome->called = true; });
    pumpMainUntil([&] { return outcome->called; }, std::chrono::seconds(2));
    EXPECT_TRUE(extractor->isCancelled());
    EXPECT_FALSE(outcome->called);
    EXPECT_FALSE(PXFileManager::fileExists(extractor->outputFolderPath));
  }
  {
    // A host that lets go after the start call still gets its completion; the
    // extractor then deletes its own output.
    auto extractor = makeExtractor(dir, sketch);
    std::string output = extractor->outputFolderPath;
    auto outcome = startExtraction(extractor, std::nullopt, PlexaExtractExportMeta);
    extractor.reset();
    ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }));
    EXPECT_TRUE(outcome->lists("A.json"));
    pumpMainUntil([&] { return !PXFileManager::fileExists(output); }, std::chrono::seconds(2));
    EXPECT_FALSE(PXFileManager::fileExists(output));
  }
}

TEST(PlexaExtractProgress, WeightsTitlesAndCounting) {
  EXPECT_EQ(PlexaExtract::titleForProcess(2), "Exporting Artboards (4/5)");
  EXPECT_EQ(PlexaExtract::titleForProcess(3), "Exporting Prototype Hotspots (3/5)");
  EXPECT_FALSE(PlexaExtract::titleForProcess(5));
  EXPECT_DOUBLE_EQ(PlexaExtract::weightForProcess(5), 0.0);
  EXPECT_DOUBLE_EQ(PlexaExtract::weightForProcess(99), 0.0);
  double sum = 0;
  for (int p = 0; p < 5; ++p) sum += PlexaExtract::weightForProcess(p);
  EXPECT_NEAR(sum, 1.0, 1e-12);

  // Without a progress block nothing is counted.
  auto bare = PlexaExtract::make();
  PXMainQueue::shared().runUntil([&] {
    bare->updateProgressForProcess(PlexaExtractProcessInspectData);
    bare->completeProcess(PlexaExtractProcessAssets);
    return true;
  }, std::chrono::seconds(1));
  EXPECT_TRUE(bare->processProgress().empty());
  EXPECT_DOUBLE_EQ(bare->progressForProcess(4), 0.0);

  // Counting past the number of artboards caps at 1; detach progress feeds process 0.
  TempDir dir;
  auto extractor = makeExtractor(dir, writeDocument(dir));
  std::vector<std::tuple<int64_t, double, double>> seen;
  extractor->progressBlock = [&](PlexaExtractProcess p, double pp, double total) { seen.emplace_back(p, pp, total); };
  extractor->sketchUnzipper(*PXSketchUnzipper::make(), 1, 4);
  pumpMainUntil([&] { return !seen.empty(); });
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(std::get<0>(seen[0]), 0);
  EXPECT_DOUBLE_EQ(std::get<1>(seen[0]), 0.25);
  EXPECT_NEAR(std::get<2>(seen[0]), 0.05, 1e-12);
  extractor->cancel();
}

TEST(PlexaExtractUploadSupport, MetaDataDescribesSourceHostAndLibrary) {
  TempDir dir;
  auto extractor = makeExtractor(dir, writeDocument(dir));
  PlexaExtract::setHostInfo({"Plexa Host", "42", "4.2"});
  auto outcome = startExtraction(extractor, std::nullopt, 0);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }));
  JsonObject meta = extractor->metaData();
  std::vector<std::string> keys;
  for (const auto& kv : meta) keys.emplace_back(kv.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"source", "sourceBuildVersion", "sv", "pluginName", "pluginBuildVersion",
                                            "pv", "plexaExtractVersion", "plexaExtractBuild", "filename",
                                            "fileCreated", "fileLastModified", "fileSize", "generated",
                                            "document_id", "documentID"}));
  EXPECT_EQ(meta.at("filename"), "doc.sketch");
  EXPECT_EQ(meta.at("document_id"), meta.at("documentID"));
  EXPECT_EQ(meta.at("pluginName"), "Plexa Host");
  EXPECT_EQ(meta.at("fileSize").to_number<uint64_t>(), PXFileManager::attributesOfItem(dir / "doc.sketch")->size);
  std::string version(reinterpret_cast<const char*>(PlexaExtractVersionString));
  EXPECT_EQ(version.rfind("@(#)PROGRAM:PlexaExtract  PROJECT:PlexaExtract-", 0), 0u);
  EXPECT_EQ(version.back(), '\n');
  EXPECT_DOUBLE_EQ(PlexaExtractVersionNumber, 1.0);
}
