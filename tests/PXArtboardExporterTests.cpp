#include "Files.h"
#include "MainQueue.h"
#include "PXArtboardExporter.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <set>
#include <signal.h>

using namespace plexa;
using namespace std::chrono_literals;
using test::ScopedEnv;

namespace {

const std::string kFakeSketchtool = PLEXA_TEST_BINARY_DIR "/fake-sketchtool";

JsonObject exportFormat(const std::string& fileFormat, const std::string& name = "") {
  return JsonObject{{"_class", "exportFormat"}, {"fileFormat", fileFormat}, {"name", name},
                    {"namingScheme", 0},        {"scale", 1}};
}

JsonObject withFormats(JsonObject layer, JsonArray formats) {
  layer["exportOptions"].as_object()["exportFormats"] = std::move(formats);
  return layer;
}

// A layer that exports itself in these formats.
JsonObject exportable(const std::string& id, JsonArray formats) {
  return withFormats(test::layer("shapePath", id, id, test::frame(0, 0, 8, 8)), std::move(formats));
}

// Artboards "AB-0", "AB-1", … side by side.
JsonArray boards(int count) {
  JsonArray artboards;
  for (int i = 0; i < count; ++i)
    artboards.push_back(test::artboard("AB-" + std::to_string(i), "Board", test::frame(i * 400, 0, 375, 667)));
  return artboards;
}

// A document on disk, zipped and unzipped, with an output folder beside it.
struct Document {
  test::TempDir dir;
  std::string sketch;
  std::string unzipped;
  std::string out = dir / "out";
  std::vector<std::string> IDs;  // of the artboards

  explicit Document(JsonArray artboards) {
    for (const auto& artboard : artboards) IDs.emplace_back(artboard.at("do_objectID").as_string());
    test::SketchFixture fixture;
    fixture.addPage(test::page("P1", "Page", std::move(artboards)));
    sketch = fixture.writeSketch(dir / "doc.sketch");
    unzipped = fixture.writeFolder(dir / "unzipped");
    PXFileManager::createDirectory(out, true);
  }
  // One artboard "A1" holding these layers.
  static JsonArray board(JsonArray layers) {
    return JsonArray{test::artboard("A1", "Board", test::frame(0, 0, 375, 667), std::move(layers))};
  }

  std::shared_ptr<PXArtboardExporter> exporter(std::optional<std::string> tool = kFakeSketchtool) const {
    return PXArtboardExporter::artboardExporterWithSketchFilePath(sketch, unzipped, tool);
  }
  std::string toolLog() const { return dir / "tool.log"; }
};

// One artboard export: per-image calls on the main thread, the completion on a queue thread.
struct ImageRun {
  std::vector<std::pair<std::string, std::string>> progress;
  bool progressOnMainThread = true;
  std::atomic<bool> done{false};  // set last: the other fields are safe to read once it is
  bool success = false;
  bool completionOnMainThread = true;
  PXArtboardExporter::ExportedFiles files;

  ImageRun(PXArtboardExporter& exporter, const std::vector<std::string>& IDs, double scale, const std::string& out) {
    exporter.exportImagesForArtboardIDs(
        IDs, scale, out,
        [this](const std::string& ID, const std::string& path) {
          progressOnMainThread = progressOnMainThread && PXMainQueue::shared().isMainThread();
          progress.emplace_back(ID, path);
        },
        [this](bool ok, const PXArtboardExporter::ExportedFiles& exported) {
          completionOnMainThread = PXMainQueue::shared().isMainThread();
          success = ok;
          files = exported;
          done = true;
        });
  }
  bool wait(std::chrono::milliseconds timeout = 20s) {
    return test::pumpMainUntil([this] { return done.load(); }, timeout);
  }
};

struct AssetRun {
  std::vector<std::pair<std::string, std::string>> progress;
  std::optional<bool> success;
  std::vector<std::string> paths;

  AssetRun(PXArtboardExporter& exporter, const std::optional<std::vector<std::string>>& IDs,
           const std::string& pathsFolder, const std::string& out) {
    exporter.exportLayerAssetsForArtboardIDs(
        IDs, pathsFolder, out,
        [this](const std::string& layerID, const std::string& path) { progress.emplace_back(layerID, path); },
        [this](bool ok, const std::vector<std::string>& placed) {
          success = ok;
          paths = placed;
        });
  }
  bool wait(std::chrono::milliseconds timeout = 20s) {
    return test::pumpMainUntil([this] { return success.has_value(); }, timeout);
  }
};

size_t mostAtOnce(const std::vector<test::ToolRun>& runs) {
  std::vector<std::pair<long long, int>> events;
  for (const auto& run : runs) {
    events.emplace_back(run.start, 1);
    events.emplace_back(run.end, -1);
  }
  std::sort(events.begin(), events.end());
  int current = 0, most = 0;
  for (const auto& [time, change] : events) most = std::max(most, current += change);
  return static_cast<size_t>(most);
}

bool startsWith(const std::string& bytes, const std::string& prefix) { return bytes.rfind(prefix, 0) == 0; }
const std::string kPNGSignature("\x89PNG\r\n\x1A\n", 8);
const std::string kJPEGStart("\xFF\xD8\xFF", 3);

bool processGone(int pid) { return ::kill(pid, 0) == -1 && errno == ESRCH; }

JsonObject pathsRecord(const std::string& objectID, const std::string& key, const std::string& fullPath,
                       const std::string& layerPath, const std::string& layerNameFormatted) {
  return JsonObject{{"originalObjectID", ""},         {"fullPath", fullPath},  {"objectID", objectID},
                    {"layerName", layerNameFormatted}, {"layerNameFormatted", layerNameFormatted},
                    {"layerPath", layerPath},          {"key", key}};
}

// Layer L1 of artboard A1 in two folders at 1x and in one at 2x.
JsonArray iconRecords() {
  return JsonArray{
      pathsRecord("L1", ".png", "/meta/A1/Page/Board/icons/icon.png", "Page/Board/icons", "icon"),
      pathsRecord("L1", ".png", "/meta/A1/Page/Board/shared/icon.png", "Page/Board/shared", "icon"),
      pathsRecord("L1", "@2x.png", "/meta/A1/Page/Board/icons/icon@2x.png", "Page/Board/icons", "icon@2x")};
}

// A record without a layerNameFormatted: the layer has nowhere to go.
JsonObject incompleteRecord(const std::string& objectID) {
  auto record = pathsRecord(objectID, ".png", "/meta/A1/Page/Board/o.png", "Page/Board", "o");
  record.erase("layerNameFormatted");
  return record;
}

void writePaths(const std::string& folder, const std::string& artboardID, const JsonArray& records) {
  test::writeText(folder + "/" + artboardID + "-paths.json", *PXJsonSerialize(records, true));
}

}  // namespace

// MARK: Artboard images

TEST(PXArtboardExporterImages, BatchesWaitForAFreeSlot) {
  Document doc(boards(25));
  ScopedEnv pause("PLEXA_FAKE_SKETCHTOOL_SLEEP_MS", "300");
  ScopedEnv log("PLEXA_FAKE_SKETCHTOOL_LOG", doc.toolLog());
  auto exporter = doc.exporter();
  exporter->setMaxNumberPerExport(10);
  exporter->setMaxConcurrent(2);
  ImageRun run(*exporter, doc.IDs, 1, doc.out);
  ASSERT_TRUE(run.wait());

  auto runs = test::toolRuns(doc.toolLog());
  ASSERT_EQ(runs.size(), 3u);
  std::multiset<size_t> sizes;
  for (const auto& r : runs) sizes.insert(r.items);
  EXPECT_EQ(sizes, (std::multiset<size_t>{5, 10, 10}));
  EXPECT_EQ(mostAtOnce(runs), 2u);
  EXPECT_GE(runs[2].start, std::min(runs[0].end, runs[1].end));

  EXPECT_TRUE(run.success);
  EXPECT_FALSE(run.completionOnMainThread);
  EXPECT_TRUE(run.progressOnMainThread);
  EXPECT_EQ(run.files.size(), 25u);
  EXPECT_EQ(run.progress.size(), 25u);
  // At scale 1 the tool writes the final names already; the files stay where they are.
  for (const auto& ID : doc.IDs) {
    EXPECT_EQ(run.files[ID], doc.out + "/" + ID + ".png");
    EXPECT_TRUE(startsWith(test::readText(doc.out + "/" + ID + ".png"), kPNGSignature));
  }
  EXPECT_EQ(exporter->sketchToolCount(), 0u);
}

TEST(PXArtboardExporterImages, FormatsGroupScaleIsRenamedAndOldFilesAreReplaced) {
  Document doc(JsonArray{
      test::artboard("PNG-1", "Plain", test::frame(0, 0, 100, 100)),
      withFormats(test::artboard("JPG-1", "Photo", test::frame(200, 0, 100, 100)),
                  JsonArray{exportFormat("png"), exportFormat("jpg")}),
      withFormats(test::artboard("JPEG-1", "Spelled out", test::frame(400, 0, 100, 100)),
                  JsonArray{exportFormat("jpeg")}),
  });
  ScopedEnv log("PLEXA_FAKE_SKETCHTOOL_LOG", doc.toolLog());
  test::writeText(doc.out + "/PNG-1.png", "old image");
  test::LogCapture messages;
  auto exporter = doc.exporter();
  EXPECT_EQ(exporter->fileFormatForArtboardID("JPG-1"), "jpg");
  EXPECT_EQ(exporter->fileFormatForArtboardID("JPEG-1"), "png");
  EXPECT_EQ(exporter->fileFormatForArtboardID("no-such-artboard"), "png");

  ImageRun run(*exporter, doc.IDs, 2, doc.out);
  ASSERT_TRUE(run.wait());
  EXPECT_TRUE(run.success);
  EXPECT_EQ(run.files, (PXArtboardExporter::ExportedFiles{{"PNG-1", doc.out + "/PNG-1.png"},
                                                         {"JPG-1", doc.out + "/JPG-1.jpg"},
                                                         {"JPEG-1", doc.out + "/JPEG-1.png"}}));
  EXPECT_TRUE(startsWith(test::readText(doc.out + "/PNG-1.png"), kPNGSignature));
  EXPECT_TRUE(startsWith(test::readText(doc.out + "/JPG-1.jpg"), kJPEGStart));
  EXPECT_EQ(PXFileManager::contentsOfDirectory(doc.out)->size(), 3u);  // no "@2x" names left behind
  EXPECT_EQ(test::toolRuns(doc.toolLog()).size(), 2u);
  EXPECT_TRUE(messages.contains("total artboards count 3, queues count 2"));
}

TEST(PXArtboardExporterImages, ToolWarningsAndMissingImagesShowInTheResult) {
  Document doc(boards(3));
  auto exporter = doc.exporter();
  {
    ScopedEnv skip("PLEXA_FAKE_SKETCHTOOL_SKIP", "AB-1");
    ImageRun run(*exporter, doc.IDs, 1, doc.out);
    ASSERT_TRUE(run.wait());
    EXPECT_TRUE(run.success);
    EXPECT_EQ(run.files.size(), 2u);
    EXPECT_FALSE(run.files.count("AB-1"));
  }
  {
    ScopedEnv warning("PLEXA_FAKE_SKETCHTOOL_PRINT", "Warning: font Helvetica Neue missing");
    test::LogCapture messages;
    ImageRun run(*exporter, doc.IDs, 1, doc.out);
    ASSERT_TRUE(run.wait());
    EXPECT_FALSE(run.success);
    EXPECT_EQ(run.files.size(), 3u);
    EXPECT_TRUE(messages.contains("total artboards exported 3, all successful 0"));
  }
  // Nothing to export: no tool runs, and the answer is at once a success.
  ScopedEnv log("PLEXA_FAKE_SKETCHTOOL_LOG", doc.toolLog());
  ImageRun empty(*exporter, {}, 1, doc.out);
  ASSERT_TRUE(empty.wait());
  EXPECT_TRUE(empty.success);
  EXPECT_TRUE(empty.files.empty());
  EXPECT_TRUE(test::toolRuns(doc.toolLog()).empty());
}

TEST(PXArtboardExporterImages, RaisingTheLimitStartsWaitingBatchesAtOnce) {
  Document doc(boards(3));
  ScopedEnv pause("PLEXA_FAKE_SKETCHTOOL_SLEEP_MS", "1000");
  ScopedEnv log("PLEXA_FAKE_SKETCHTOOL_LOG", doc.toolLog());
  auto exporter = doc.exporter();
  exporter->setMaxNumberPerExport(1);
  exporter->setMaxConcurrent(0);  // taken as 1: a limit of 0 must not stall the export
  ImageRun run(*exporter, doc.IDs, 1, doc.out);
  ASSERT_TRUE(test::pumpMainUntil([&] { return test::toolRuns(doc.toolLog()).size() == 1; }));
  test::pumpMainUntil([] { return false; }, 200ms);
  EXPECT_EQ(test::toolRuns(doc.toolLog()).size(), 1u);
  exporter->setMaxConcurrent(3);
  ASSERT_TRUE(run.wait());
  auto runs = test::toolRuns(doc.toolLog());
  ASSERT_EQ(runs.size(), 3u);
  EXPECT_EQ(mostAtOnce(runs), 3u);
}

TEST(PXArtboardExporterImages, CancelKillsRunningToolsAndDropsTheCompletion) {
  Document doc(boards(30));
  ScopedEnv pause("PLEXA_FAKE_SKETCHTOOL_SLEEP_MS", "20000");
  ScopedEnv log("PLEXA_FAKE_SKETCHTOOL_LOG", doc.toolLog());
  auto exporter = doc.exporter();
  exporter->setMaxConcurrent(2);
  ImageRun run(*exporter, doc.IDs, 1, doc.out);
  ASSERT_TRUE(test::pumpMainUntil([&] { return test::toolRuns(doc.toolLog()).size() == 2; }));
  EXPECT_EQ(exporter->sketchToolCount(), 2u);

  exporter->cancel();
  ASSERT_TRUE(test::pumpMainUntil([&] { return exporter->sketchToolCount() == 0; }, 5s));
  test::pumpMainUntil([&] { return run.done.load(); }, 500ms);
  EXPECT_FALSE(run.done);
  auto runs = test::toolRuns(doc.toolLog());
  EXPECT_EQ(runs.size(), 2u);
  for (const auto& r : runs) {
    EXPECT_TRUE(processGone(r.pid)) << r.pid;
    EXPECT_EQ(r.end, 0) << "the run should have been killed, not finished";
  }
}

TEST(PXArtboardExporterImages, WithoutSketchtoolNothingStartsButTheCompletionComes) {
  Document doc(boards(2));
  test::LogCapture messages;
  auto exporter = doc.exporter("/nonexistent/sketchtool");
  ImageRun run(*exporter, doc.IDs, 1, doc.out);
  ASSERT_TRUE(run.wait());
  EXPECT_FALSE(run.success);
  EXPECT_TRUE(run.files.empty());
  EXPECT_EQ(messages.count("no sketchtool found"), 1u);

  writePaths(doc.dir / "paths", "AB-0", JsonArray{pathsRecord("L1", ".png", "/m/AB-0/P/B/x.png", "P/B", "x")});
  AssetRun assets(*exporter, std::nullopt, doc.dir / "paths", doc.out);
  ASSERT_TRUE(assets.wait());
  EXPECT_FALSE(*assets.success);
  EXPECT_EQ(messages.count("no sketchtool found"), 2u);
}

TEST(PXArtboardExporterImages, SplitsInOrderedBatches) {
  std::vector<std::string> IDs{"a", "b", "c", "d", "e"};
  EXPECT_EQ(PXArtboardExporter::splitArray(IDs, 2),
            (std::vector<std::vector<std::string>>{{"a", "b"}, {"c", "d"}, {"e"}}));
  EXPECT_EQ(PXArtboardExporter::splitArray(IDs, 5).size(), 1u);
  EXPECT_EQ(PXArtboardExporter::splitArray(IDs, 0).size(), 5u);
  EXPECT_TRUE(PXArtboardExporter::splitArray({}, 10).empty());
}

TEST(PXArtboardExporterImages, APlantedLinkAtTheTargetIsNotFollowed) {
  Document doc(Document::board({}));
  test::TempDir outside;
  test::writeText(outside / "victim.png", "precious");
  std::filesystem::create_symlink(outside / "victim.png", doc.out + "/A1.png");
  test::LogCapture log;
  auto exporter = doc.exporter();
  ImageRun run(*exporter, {"A1"}, 2, doc.out);
  ASSERT_TRUE(run.wait());
  EXPECT_EQ(test::readText(outside / "victim.png"), "precious");
  EXPECT_EQ(run.files["A1"], doc.out + "/A1@2x.png");
  EXPECT_TRUE(log.contains("outside the output folder"));
}

// MARK: Layer assets

TEST(PXArtboardExporterAssets, ConfigurationFromPathsFiles) {
  test::TempDir dir;
  std::string paths = dir / "paths";
  writePaths(paths, "A1", iconRecords());
  writePaths(paths, "A2", JsonArray{incompleteRecord("L3")});
  writePaths(paths, "B2", JsonArray{pathsRecord("L9", ".png", "/meta/B2/P/B/n.png", "P/B", "n")});
  test::writeText(paths + "/C3-paths.json", "[{ not json");
  test::writeText(paths + "/notes.json", "[]");

  test::LogCapture log;
  auto exporter = PXArtboardExporter::artboardExporterWithSketchFilePath("d.sketch", dir.path(), kFakeSketchtool);
  JsonObject config = exporter->layerConfigFromPathsFolder(paths, std::vector<std::string>{"A1", "A2", "C3"});
  EXPECT_EQ(test::compactJson(config),
            R"({"L1":{".png":[)"
            R"({"relativePath":"A1/Page/Board/icons","layerName":"icon","layerNameFormatted":"icon"},)"
            R"({"relativePath":"A1/Page/Board/shared","layerName":"icon","layerNameFormatted":"icon"}],)"
            R"("@2x.png":[{"relativePath":"A1/Page/Board/icons","layerName":"icon@2x","layerNameFormatted":"icon@2x"}]},)"
            R"("L3":{}})");
  EXPECT_TRUE(log.contains("ignored B2-paths.json"));
  EXPECT_FALSE(log.contains("C3"));
  EXPECT_TRUE(log.contains("Please use the latest version of PlexaExtract and update your base test case for "
                           "-path.json {\"key\":\".png\",\"relativePath\":\"A1/Page/Board\""));
  EXPECT_TRUE(log.contains("\"layerNameFormatted\":null"));

  EXPECT_TRUE(exporter->layerConfigFromPathsFolder(paths, std::nullopt).contains("L9"));
  EXPECT_TRUE(exporter->layerConfigFromPathsFolder(dir / "missing", std::nullopt).empty());
}

TEST(PXArtboardExporterAssets, EachFileReachesEveryDestinationOfItsKey) {
  Document doc(Document::board(JsonArray{exportable("L1", JsonArray{exportFormat("png"), exportFormat("png", "@2x")}),
                                         exportable("L2", JsonArray{exportFormat("jpg")}),
                                         exportable("L3", JsonArray{exportFormat("png")})}));
  std::string paths = doc.dir / "paths";
  JsonArray records = iconRecords();
  records.push_back(pathsRecord("L2", ".jpg", "/meta/A1/Page/Board/photo.jpg", "Page/Board", "photo"));
  records.push_back(incompleteRecord("L3"));
  writePaths(paths, "A1", records);
  test::writeText(doc.out + "/A1/Page/Board/icons/icon.png", "old");

  test::LogCapture log;
  auto exporter = doc.exporter();
  AssetRun run(*exporter, std::vector<std::string>{"A1"}, paths, doc.out);
  ASSERT_TRUE(run.wait());
  EXPECT_TRUE(*run.success);
  std::string board = doc.out + "/A1/Page/Board";
  std::vector<std::string> expected{board + "/icons/icon.png", board + "/shared/icon.png",
                                    board + "/icons/icon@2x.png", board + "/photo.jpg"};
  EXPECT_EQ(run.paths, expected);
  EXPECT_EQ(run.progress, (std::vector<std::pair<std::string, std::string>>{
                              {"L1", expected[0]}, {"L1", expected[1]}, {"L1", expected[2]}, {"L2", expected[3]}}));
  for (const auto& path : expected) EXPECT_TRUE(PXFileManager::fileExists(path)) << path;
  EXPECT_TRUE(startsWith(test::readText(expected[0]), kPNGSignature));
  EXPECT_TRUE(startsWith(test::readText(expected[3]), kJPEGStart));
  // The last destination took the file itself; the one without destinations stays.
  EXPECT_FALSE(PXFileManager::fileExists(doc.out + "/L1.png"));
  EXPECT_FALSE(PXFileManager::fileExists(doc.out + "/L1@2x.png"));
  EXPECT_TRUE(PXFileManager::fileExists(doc.out + "/L3.png"));
  EXPECT_TRUE(log.contains("PXArtboardExporter: no config for layerID `L3` key `.png`, removing that image file. " +
                           doc.out + "/L3.png"));
  EXPECT_EQ(exporter->sketchToolCount(), 0u);
}

TEST(PXArtboardExporterAssets, NamesFromTheDocumentNeverLeaveTheOutputFolder) {
  JsonArray layers;
  for (const char* id : {"L1", "L2", "L3", "L4", "L5"})
    layers.push_back(exportable(id, JsonArray{exportFormat("png")}));
  Document doc(Document::board(std::move(layers)));
  test::TempDir outside;
  std::filesystem::create_symlink(outside.path(), doc.out + "/link");
  std::string paths = doc.dir / "paths";
  writePaths(paths, "A1",
             JsonArray{pathsRecord("L1", ".png", "/m/A1/P/B/x.png", "P/B", "../../../../escaped"),
                       pathsRecord("L2", ".png", "/m/A1/x.png", "../../escaped-folder", "x"),
                       pathsRecord("L3", ".png", "/m/link/icons/x.png", "icons", "planted"),
                       pathsRecord("L4", ".png", "/m/A1/P/x.png", "P", std::string("nul\0/../../../../n", 18)),
                       pathsRecord("L5", ".png", "/m/A1/P/x.png", "P", "odd\x01name")});

  test::LogCapture log;
  auto exporter = doc.exporter();
  AssetRun run(*exporter, std::nullopt, paths, doc.out);
  ASSERT_TRUE(run.wait());
  EXPECT_EQ(run.paths, (std::vector<std::string>{doc.out + "/A1/P/odd\x01name.png"}));
  EXPECT_TRUE(PXFileManager::fileExists(doc.out + "/A1/P/odd\x01name.png"));
  EXPECT_EQ(log.count("outside the output folder"), 4u);
  EXPECT_EQ(log.count("PXArtboardExporter failed to export assets"), 4u);
  EXPECT_TRUE(PXFileManager::contentsOfDirectory(outside.path())->empty());
  EXPECT_FALSE(PXFileManager::fileExists(doc.dir / "escaped.png"));
  EXPECT_FALSE(PXFileManager::fileExists(doc.dir / "escaped-folder"));
  // Refused files stay where the tool wrote them.
  EXPECT_TRUE(PXFileManager::fileExists(doc.out + "/L1.png"));
}

TEST(PXArtboardExporterAssets, CancelKillsTheRunAndPlacesNothingMore) {
  Document doc(Document::board(JsonArray{exportable("L1", JsonArray{exportFormat("png")})}));
  std::string paths = doc.dir / "paths";
  writePaths(paths, "A1", JsonArray{pathsRecord("L1", ".png", "/m/A1/P/B/icon.png", "P/B", "icon")});
  ScopedEnv pause("PLEXA_FAKE_SKETCHTOOL_SLEEP_MS", "20000");
  ScopedEnv log("PLEXA_FAKE_SKETCHTOOL_LOG", doc.toolLog());
  auto exporter = doc.exporter();
  AssetRun run(*exporter, std::nullopt, paths, doc.out);
  ASSERT_TRUE(test::pumpMainUntil([&] { return test::toolRuns(doc.toolLog()).size() == 1; }));
  exporter->cancel();
  ASSERT_TRUE(run.wait(5s));
  EXPECT_TRUE(run.paths.empty());
  EXPECT_FALSE(PXFileManager::fileExists(doc.out + "/A1/P/B/icon.png"));
  EXPECT_TRUE(processGone(test::toolRuns(doc.toolLog())[0].pid));

  // A cancelled exporter starts nothing new, and says nothing.
  AssetRun later(*exporter, std::nullopt, paths, doc.out);
  test::pumpMainUntil([&] { return later.success.has_value(); }, 300ms);
  EXPECT_FALSE(later.success);
  EXPECT_EQ(test::toolRuns(doc.toolLog()).size(), 1u);
}

TEST(PXArtboardExporterLayerRuns, HugeLayerListsAreSplitToFitOneArgument) {
  std::vector<std::string> ids;
  for (int i = 0; i < 5000; ++i) ids.push_back(fmt::format("{:08X}-0000-4000-8000-{:012X}", i, i));
  auto runs = PXArtboardExporter::splitForCommandLine(ids);
  ASSERT_GT(runs.size(), 1u);
  std::vector<std::string> joined;
  for (const auto& run : runs) {
    size_t bytes = 0;
    for (const auto& id : run) bytes += id.size() + 1;
    EXPECT_LE(bytes, 96u * 1024);
    joined.insert(joined.end(), run.begin(), run.end());
  }
  EXPECT_EQ(joined, ids);
  EXPECT_EQ(PXArtboardExporter::splitForCommandLine({"A", "B"}).size(), 1u);
  EXPECT_EQ(PXArtboardExporter::splitForCommandLine({"ABCD", "EFGH", "IJ"}, 10),
            (std::vector<std::vector<std::string>>{{"ABCD", "EFGH"}, {"IJ"}}));
}
