#include "Files.h"
#include "PathString.h"
#include "MainQueue.h"
#include "PXCommand.h"
#include "PXSketchTool.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <sys/stat.h>

using namespace plexa;
using namespace std::chrono_literals;

namespace {

const std::string kFakeSketchtool = PLEXA_TEST_BINARY_DIR "/fake-sketchtool";

class ScopedLocations {
 public:
  explicit ScopedLocations(std::vector<std::string> locations, std::vector<std::string> renderers = {})
      : old_(PXSketchTool::configuredLocations()), oldRenderers_(PXSketchTool::bundledRendererLocations()) {
    PXSketchTool::setConfiguredLocations(std::move(locations));
    PXSketchTool::setBundledRendererLocations(std::move(renderers));
  }
  ~ScopedLocations() {
    PXSketchTool::setConfiguredLocations(old_);
    PXSketchTool::setBundledRendererLocations(oldRenderers_);
  }

 private:
  std::vector<std::string> old_, oldRenderers_;
};

// A tool that is a shell script with this body.
std::shared_ptr<PXSketchTool> scriptTool(const std::string& path, const std::string& body) {
  return PXSketchTool::sketchToolWithPath(test::writeScript(path, body));
}

using File = std::tuple<std::optional<std::string>, std::optional<std::string>, std::string>;

// What one export reported, gathered on the main thread.
struct ExportRun {
  std::vector<File> files;
  std::optional<bool> success;

  PXSketchTool::ProgressHandler progress() {
    return [this](const std::optional<std::string>& ID, const std::optional<std::string>& remainder,
                  const std::string& fileName) { files.emplace_back(ID, remainder, fileName); };
  }
  PXSketchTool::Completion completion() {
    return [this](bool ok) { success = ok; };
  }
  // Starts an export of these artboards at scale 1 as PNG.
  std::shared_ptr<PXCommand> start(PXSketchTool& tool, const std::vector<std::string>& IDs = {"A"}) {
    return tool.sketchFilePath("doc.sketch", IDs, "/o", true, 1, 0.7, "png", progress(), completion());
  }
  bool wait(std::chrono::milliseconds timeout = 10s) {
    return test::pumpMainUntil([this] { return success.has_value(); }, timeout);
  }
};

}  // namespace

// The next case checks a whole artboard command line as the tool gets it.
TEST(PXSketchToolCommandLines, ArgumentsAreExact) {
  EXPECT_EQ(PXSketchTool::exportArtboardsArguments("f", {}, "o", false, 0.5, 1, "jpg"),
            (std::vector<std::string>{"export", "artboards", "f", "--output=o", "--items=", "--save-for-web=NO",
                                      "--scale=0.5", "--formats=jpg", "--compression=1", "--use-id-for-name=YES"}));
  EXPECT_EQ(PXSketchTool::exportLayersArguments("doc.sketch", {"L1", "L2"}, "/out", true, false, 0.9),
            (std::vector<std::string>{"export", "layers", "doc.sketch", "--output=/out", "--items=L1,L2",
                                      "--save-for-web=NO", "--compression=0.9", "--use-id-for-name=YES"}));
  EXPECT_EQ(PXSketchTool::exportLayersArguments("doc.sketch", {}, "/out", false, true, 1)[7], "--use-id-for-name=NO");
}

TEST(PXSketchToolCommandLines, TheToolReceivesTheArgumentsUnchanged) {
  test::TempDir dir;
  auto tool = scriptTool(dir / "tool", "for a in \"$@\"; do echo \"$a\" >> \"$0.args\"; done\n");
  ExportRun run;
  tool->sketchFilePath("/d/a b.sketch", {"A 1", "B2"}, "/o", true, 2, 0.7, "png", run.progress(), run.completion());
  ASSERT_TRUE(run.wait());
  EXPECT_EQ(test::readText(dir / "tool.args"),
            "export\nartboards\n/d/a b.sketch\n--output=/o\n--items=A 1,B2\n--save-for-web=YES\n--scale=2\n"
            "--formats=png\n--compression=0.7\n--use-id-for-name=YES\n");
  EXPECT_TRUE(*run.success);
}

TEST(PXSketchToolLocation, BundledRendererIsLookedForBesideTheProgramThenInTheBuildTree) {
  std::string buildTree = PXDeletingLastPathComponent(PLEXA_TEST_BINARY_DIR);
  EXPECT_EQ(PXSketchTool::bundledRendererLocations(),
            (std::vector<std::string>{PLEXA_TEST_BINARY_DIR "/plexa-sketchtool", buildTree + "/plexa-sketchtool"}));
}

TEST(PXSketchToolLocation, EnvironmentThenConfiguredLocationsThenRendererThenPathThenNothing) {
  test::TempDir dir;
  std::string fromEnvironment = test::writeScript(dir / "env-tool", "");
  std::string configured = test::writeScript(dir / "configured-tool", "");
  std::string renderer = test::writeScript(dir / "plexa-sketchtool", "");
  std::string onPath = test::writeScript(dir / "bin/sketchtool", "");
  ScopedLocations locations({dir / "missing-tool", configured}, {dir / "missing-renderer", renderer});
  test::ScopedEnv path("PATH", dir / "bin");
  test::ScopedEnv env("sketchToolPath", fromEnvironment);
  EXPECT_EQ(PXSketchTool::defaultPath(), fromEnvironment);
  for (const std::string& unusable : {std::string(), dir / "nope", dir.path()}) {
    setenv("sketchToolPath", unusable.c_str(), 1);
    EXPECT_EQ(PXSketchTool::defaultPath(), configured) << unusable;
  }
  unsetenv("sketchToolPath");
  EXPECT_EQ(PXSketchTool::defaultPath(), configured);

  PXSketchTool::setConfiguredLocations({dir / "missing-tool"});
  EXPECT_EQ(PXSketchTool::defaultPath(), renderer);
  chmod(renderer.c_str(), 0644);  // present but not runnable: passed over
  EXPECT_EQ(PXSketchTool::defaultPath(), onPath);
  auto tool = PXSketchTool::sketchToolWithPath(std::nullopt);
  ASSERT_TRUE(tool);
  EXPECT_EQ(tool->execPath, onPath);

  setenv("PATH", dir.path().c_str(), 1);
  test::LogCapture log;
  EXPECT_FALSE(PXSketchTool::defaultPath());
  EXPECT_FALSE(PXSketchTool::sketchToolWithPath(std::nullopt));
  EXPECT_EQ(log.count("Could not find sketch tool"), 2u);
  // A given path is taken as it is.
  EXPECT_EQ(PXSketchTool::sketchToolWithPath(dir / "anything")->execPath, dir / "anything");
}

TEST(PXSketchToolIDs, CutAtAtOrDotThenExactThenSubstring) {
  auto tool = PXSketchTool::sketchToolWithPath("/bin/true");
  std::vector<std::string> IDs{"ABC-1", "XYZ-2"};
  EXPECT_EQ(tool->extractIDFromString("ABC-1@2x.png", IDs), "ABC-1");
  EXPECT_EQ(tool->extractIDFromString("XYZ-2.jpg", IDs), "XYZ-2");
  EXPECT_EQ(tool->extractIDFromString("XYZ-2", IDs), "XYZ-2");
  EXPECT_EQ(tool->extractIDFromString("icon-XYZ-2.png", IDs), "XYZ-2");
  EXPECT_EQ(tool->extractIDFromString("other.png", IDs), std::nullopt);
  // The cut comes first: an ID after the first dot is not seen.
  EXPECT_EQ(tool->extractIDFromString("v1.ABC-1.png", IDs), std::nullopt);
  // An exact match wins over an earlier ID that occurs inside the name.
  EXPECT_EQ(tool->extractIDFromString("AB@1x", {"A", "AB"}), "AB");
  EXPECT_EQ(tool->extractIDFromString("ABAB.png", {"B", "A"}), "B");
  EXPECT_EQ(tool->extractIDFromString("name.png", {""}), std::nullopt);
}

TEST(PXSketchToolOutput, ArtboardLinesReportFilesAndAnyOtherTextSpoilsSuccess) {
  test::TempDir dir;
  auto tool = scriptTool(
      dir / "tool", "printf 'Exported A1@2x.png\\n\\nExported junk.png\\nWarning: font missing\\nExported B2.png'\n");
  test::LogCapture log;
  ExportRun run;
  run.start(*tool, {"A1", "B2"});
  ASSERT_TRUE(run.wait());
  EXPECT_EQ(run.files, (std::vector<File>{{"A1", "@2x.png", "A1@2x.png"}, {"B2", ".png", "B2.png"}}));
  EXPECT_FALSE(*run.success);
  EXPECT_TRUE(log.contains("Could not find artboardID for file junk.png"));

  // Blank lines are no other text, and no output at all is no failure.
  auto blankLines = scriptTool(dir / "blank", "printf '\\n\\nExported A1.png\\n\\n'\n");
  auto silent = scriptTool(dir / "silent", "");
  ExportRun clean, nothing;
  clean.start(*blankLines, {"A1"});
  nothing.start(*silent, {"A1"});
  ASSERT_TRUE(clean.wait());
  ASSERT_TRUE(nothing.wait());
  EXPECT_TRUE(*clean.success);
  EXPECT_EQ(clean.files.size(), 1u);
  EXPECT_TRUE(*nothing.success);
  EXPECT_TRUE(nothing.files.empty());
}

TEST(PXSketchToolOutput, LayerLinesAreAllReportedEvenWithoutAnID) {
  test::TempDir dir;
  auto tool = scriptTool(dir / "tool", "printf 'Exported L1@2x.png\\nExported icon-L2.png\\nExported stray.png\\n'\n");
  PXFileManager::createDirectory(dir / "out", true);
  test::LogCapture log;
  ExportRun run;
  tool->sketchFilePath("doc.sketch", {"L1", "L2"}, dir / "out", true, false, 0.9, run.progress(), run.completion());
  ASSERT_TRUE(run.wait());
  EXPECT_EQ(run.files, (std::vector<File>{{"L1", "@2x.png", "L1@2x.png"},
                                          {"L2", "icon-.png", "icon-L2.png"},
                                          {std::nullopt, std::nullopt, "stray.png"}}));
  EXPECT_TRUE(*run.success);
  EXPECT_TRUE(log.contains("PXSketchTool: no file name `stray.png` or artboard id (null) or key (null)"));
  EXPECT_FALSE(log.contains("Folder cannot be created"));

  // A missing output folder is only noted, never made here.
  ExportRun missingFolder;
  tool->sketchFilePath("doc.sketch", {"L1"}, dir / "absent", false, false, 0.9, missingFolder.progress(),
                       missingFolder.completion());
  ASSERT_TRUE(missingFolder.wait());
  EXPECT_TRUE(log.contains("Folder cannot be created " + (dir / "absent") + ", original file exists"));
  EXPECT_FALSE(PXFileManager::fileExists(dir / "absent"));
}

TEST(PXSketchToolRunning, CommandsAreTrackedUntilTheirCompletion) {
  test::TempDir dir;
  auto tool = scriptTool(dir / "tool", "sleep 0.3\n");
  ExportRun first, second;
  EXPECT_TRUE(first.start(*tool));
  EXPECT_TRUE(second.start(*tool));
  EXPECT_EQ(tool->commandCount(), 2u);
  ASSERT_TRUE(first.wait());
  ASSERT_TRUE(second.wait());
  EXPECT_EQ(tool->commandCount(), 0u);
}

TEST(PXSketchToolRunning, CancelAndReleaseKillTheRunningExport) {
  test::TempDir dir;
  auto tool = scriptTool(dir / "tool", "echo 'Exported A.png'\nexec sleep 30\n");
  ExportRun cancelled;
  cancelled.start(*tool);
  ASSERT_TRUE(test::pumpMainUntil([&] { return !cancelled.files.empty(); }));
  tool->cancel();
  ASSERT_TRUE(cancelled.wait(5s));
  EXPECT_TRUE(*cancelled.success);
  EXPECT_EQ(tool->commandCount(), 0u);

  auto released = PXSketchTool::sketchToolWithPath(tool->execPath);
  ExportRun dropped;
  dropped.start(*released);
  ASSERT_TRUE(test::pumpMainUntil([&] { return !dropped.files.empty(); }));
  released.reset();
  EXPECT_TRUE(dropped.wait(5s));
}

TEST(PXSketchToolRunning, AToolThatCannotStartStillCompletes) {
  auto tool = PXSketchTool::sketchToolWithPath("/nonexistent/sketchtool");
  test::LogCapture log;
  ExportRun run;
  EXPECT_FALSE(run.start(*tool));
  ASSERT_TRUE(run.wait());
  EXPECT_FALSE(*run.success);
  EXPECT_EQ(tool->commandCount(), 0u);
  EXPECT_TRUE(log.contains("/nonexistent/sketchtool"));
}

TEST(PXSketchToolMetadata, ReturnsTheOutputAndItsJSON) {
  test::TempDir dir;
  std::string sketch =
      test::SketchFixture()
          .addPage(test::page("P1", "Page", {test::artboard("A1", "Board", test::frame(0, 0, 10, 10))}))
          .writeSketch(dir / "doc.sketch");
  std::optional<JsonValue> json;
  std::string output = PXSketchTool::sketchToolWithPath(kFakeSketchtool)->metadataForSketchFilePath(sketch, &json);
  ASSERT_TRUE(json);
  EXPECT_EQ(test::compactJson(*json), output);
  EXPECT_TRUE(PXJsonObjectFor(&*json, "pagesAndArtboards"));

  std::optional<JsonValue> none = JsonValue(1);
  EXPECT_EQ(scriptTool(dir / "tool", "echo oops\n")->metadataForSketchFilePath(sketch, &none), "oops\n");
  EXPECT_FALSE(none);
}
