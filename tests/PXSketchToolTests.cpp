#include "Files.h"
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

// Sets an environment variable for one scope and puts the old value back.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value) {
      setenv(name, value->c_str(), 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

class ScopedLocations {
 public:
  explicit ScopedLocations(std::vector<std::string> locations) : old_(PXSketchTool::configuredLocations()) {
    PXSketchTool::setConfiguredLocations(std::move(locations));
  }
  ~ScopedLocations() { PXSketchTool::setConfiguredLocations(old_); }

 private:
  std::vector<std::string> old_;
};

std::string makeExecutable(const std::string& path, const std::string& script) {
  test::writeText(path, script);
  chmod(path.c_str(), 0755);
  return path;
}

// What one export reported, gathered on the main thread.
struct ExportRun {
  std::vector<std::tuple<std::optional<std::string>, std::optional<std::string>, std::string>> files;
  std::optional<bool> success;

  PXSketchTool::ProgressHandler progress() {
    return [this](const std::optional<std::string>& ID, const std::optional<std::string>& remainder,
                  const std::string& fileName) { files.emplace_back(ID, remainder, fileName); };
  }
  PXSketchTool::Completion completion() {
    return [this](bool ok) { success = ok; };
  }
  bool wait(std::chrono::milliseconds timeout = 10s) {
    return test::pumpMainUntil([this] { return success.has_value(); }, timeout);
  }
};

using File = std::tuple<std::optional<std::string>, std::optional<std::string>, std::string>;

}  // namespace

TEST(PXSketchToolCommandLines, ArtboardExportArgumentsAreExact) {
  EXPECT_EQ(PXSketchTool::exportArtboardsArguments("/d/My File.sketch", {"A1", "B2", "C3"}, "/out", true, 1, 0.7,
                                                   "png"),
            (std::vector<std::string>{"export", "artboards", "/d/My File.sketch", "--output=/out",
                                      "--items=A1,B2,C3", "--save-for-web=YES", "--scale=1", "--formats=png",
                                      "--compression=0.7", "--use-id-for-name=YES"}));
  auto scaled = PXSketchTool::exportArtboardsArguments("f", {"A1"}, "o", false, 2, 0.7, "jpg");
  EXPECT_EQ(scaled[4], "--items=A1");
  EXPECT_EQ(scaled[5], "--save-for-web=NO");
  EXPECT_EQ(scaled[6], "--scale=2");
  EXPECT_EQ(scaled[7], "--formats=jpg");
  EXPECT_EQ(PXSketchTool::exportArtboardsArguments("f", {}, "o", true, 0.5, 1, "png")[6], "--scale=0.5");
  EXPECT_EQ(PXSketchTool::exportArtboardsArguments("f", {}, "o", true, 0.5, 1, "png")[4], "--items=");
  EXPECT_EQ(PXSketchTool::formatNumber(1.5), "1.5");
  EXPECT_EQ(PXSketchTool::formatNumber(0.9), "0.9");
  EXPECT_EQ(PXSketchTool::formatNumber(3), "3");
}

TEST(PXSketchToolCommandLines, LayerExportArgumentsAreExact) {
  EXPECT_EQ(PXSketchTool::exportLayersArguments("doc.sketch", {"L1", "L2"}, "/out", true, false, 0.9),
            (std::vector<std::string>{"export", "layers", "doc.sketch", "--output=/out", "--items=L1,L2",
                                      "--save-for-web=NO", "--compression=0.9", "--use-id-for-name=YES"}));
  EXPECT_EQ(PXSketchTool::exportLayersArguments("doc.sketch", {}, "/out", false, true, 1)[7],
            "--use-id-for-name=NO");
}

TEST(PXSketchToolCommandLines, TheToolReceivesTheArgumentsUnchanged) {
  test::TempDir dir;
  std::string tool = makeExecutable(dir / "tool", "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\" >> \"$0.args\"; done\n");
  auto sketchtool = PXSketchTool::sketchToolWithPath(tool);
  ExportRun run;
  sketchtool->sketchFilePath("/d/a b.sketch", {"A 1"}, "/o", true, 2, 0.7, "png", run.progress(), run.completion());
  ASSERT_TRUE(run.wait());
  EXPECT_EQ(test::readText(tool + ".args"),
            "export\nartboards\n/d/a b.sketch\n--output=/o\n--items=A 1\n--save-for-web=YES\n--scale=2\n"
            "--formats=png\n--compression=0.7\n--use-id-for-name=YES\n");
  EXPECT_TRUE(*run.success);
}

TEST(PXSketchToolLocation, EnvironmentThenConfiguredLocationsThenPath) {
  test::TempDir dir;
  std::string fromEnvironment = makeExecutable(dir / "env-tool", "#!/bin/sh\n");
  std::string configured = makeExecutable(dir / "configured-tool", "#!/bin/sh\n");
  PXFileManager::createDirectory(dir / "bin", true);
  std::string onPath = makeExecutable(dir / "bin/sketchtool", "#!/bin/sh\n");

  ScopedLocations locations({dir / "missing-tool", configured});
  ScopedEnv path("PATH", dir / "bin");
  {
    ScopedEnv env("sketchToolPath", fromEnvironment);
    EXPECT_EQ(PXSketchTool::defaultPath(), fromEnvironment);
  }
  for (std::optional<std::string> unusable : {std::optional<std::string>(""), std::optional<std::string>(dir / "nope"),
                                              std::optional<std::string>(dir.path()), std::optional<std::string>()}) {
    ScopedEnv env("sketchToolPath", unusable);
    EXPECT_EQ(PXSketchTool::defaultPath(), configured) << unusable.value_or("(unset)");
  }
  ScopedEnv env("sketchToolPath", std::nullopt);
  PXSketchTool::setConfiguredLocations({dir / "missing-tool"});
  EXPECT_EQ(PXSketchTool::defaultPath(), onPath);
  auto tool = PXSketchTool::sketchToolWithPath(std::nullopt);
  ASSERT_TRUE(tool);
  EXPECT_EQ(tool->execPath, onPath);
}

TEST(PXSketchToolLocation, NothingFoundIsAbsentAndLogged) {
  test::TempDir dir;
  ScopedLocations locations({dir / "missing-tool"});
  ScopedEnv path("PATH", dir.path());
  ScopedEnv env("sketchToolPath", std::nullopt);
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
  auto tool = PXSketchTool::sketchToolWithPath(makeExecutable(
      dir / "tool", "#!/bin/sh\nprintf 'Exported A1@2x.png\\n\\nExported junk.png\\nWarning: font missing\\n"
                    "Exported B2.png'\n"));
  test::LogCapture log;
  ExportRun run;
  tool->sketchFilePath("doc.sketch", {"A1", "B2"}, "/o", true, 2, 0.7, "png", run.progress(), run.completion());
  ASSERT_TRUE(run.wait());
  EXPECT_EQ(run.files, (std::vector<File>{{"A1", "@2x.png", "A1@2x.png"}, {"B2", ".png", "B2.png"}}));
  EXPECT_FALSE(*run.success);
  EXPECT_TRUE(log.contains("Could not find artboardID for file junk.png"));

  auto blankLinesOnly = PXSketchTool::sketchToolWithPath(
      makeExecutable(dir / "blank", "#!/bin/sh\nprintf '\\n\\nExported A1.png\\n\\n'\n"));
  ExportRun clean;
  blankLinesOnly->sketchFilePath("doc.sketch", {"A1"}, "/o", true, 1, 0.7, "png", clean.progress(),
                                 clean.completion());
  ASSERT_TRUE(clean.wait());
  EXPECT_TRUE(*clean.success);
  EXPECT_EQ(clean.files.size(), 1u);

  auto silent = PXSketchTool::sketchToolWithPath("/bin/true");
  ExportRun nothing;
  silent->sketchFilePath("doc.sketch", {"A1"}, "/o", true, 1, 0.7, "png", nothing.progress(), nothing.completion());
  ASSERT_TRUE(nothing.wait());
  EXPECT_TRUE(*nothing.success);
  EXPECT_TRUE(nothing.files.empty());
}

TEST(PXSketchToolOutput, LayerLinesAreAllReportedEvenWithoutAnID) {
  test::TempDir dir;
  auto tool = PXSketchTool::sketchToolWithPath(makeExecutable(
      dir / "tool", "#!/bin/sh\nprintf 'Exported L1@2x.png\\nExported icon-L2.png\\nExported stray.png\\n'\n"));
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
  auto tool = PXSketchTool::sketchToolWithPath(makeExecutable(dir / "tool", "#!/bin/sh\nsleep 0.3\n"));
  ExportRun first, second;
  EXPECT_TRUE(tool->sketchFilePath("d", {"A"}, "/o", true, 1, 0.7, "png", first.progress(), first.completion()));
  EXPECT_TRUE(tool->sketchFilePath("d", {"B"}, "/o", true, 1, 0.7, "png", second.progress(), second.completion()));
  EXPECT_EQ(tool->commandCount(), 2u);
  ASSERT_TRUE(first.wait());
  ASSERT_TRUE(second.wait());
  EXPECT_EQ(tool->commandCount(), 0u);
}

TEST(PXSketchToolRunning, CancelAndReleaseKillTheRunningExport) {
  test::TempDir dir;
  std::string slow = makeExecutable(dir / "tool", "#!/bin/sh\necho 'Exported A.png'\nexec sleep 30\n");
  auto tool = PXSketchTool::sketchToolWithPath(slow);
  ExportRun cancelled;
  tool->sketchFilePath("d", {"A"}, "/o", true, 1, 0.7, "png", cancelled.progress(), cancelled.completion());
  ASSERT_TRUE(test::pumpMainUntil([&] { return !cancelled.files.empty(); }));
  tool->cancel();
  EXPECT_TRUE(tool->isCancelled());
  ASSERT_TRUE(cancelled.wait(5s));
  EXPECT_TRUE(*cancelled.success);
  EXPECT_EQ(tool->commandCount(), 0u);

  auto released = PXSketchTool::sketchToolWithPath(slow);
  ExportRun dropped;
  released->sketchFilePath("d", {"A"}, "/o", true, 1, 0.7, "png", dropped.progress(), dropped.completion());
  ASSERT_TRUE(test::pumpMainUntil([&] { return !dropped.files.empty(); }));
  released.reset();
  EXPECT_TRUE(dropped.wait(5s));
}

TEST(PXSketchToolRunning, AToolThatCannotStartStillCompletes) {
  auto tool = PXSketchTool::sketchToolWithPath("/nonexistent/sketchtool");
  test::LogCapture log;
  ExportRun run;
  EXPECT_FALSE(tool->sketchFilePath("d", {"A"}, "/o", true, 1, 0.7, "png", run.progress(), run.completion()));
  ASSERT_TRUE(run.wait());
  EXPECT_FALSE(*run.success);
  EXPECT_EQ(tool->commandCount(), 0u);
  EXPECT_TRUE(log.contains("/nonexistent/sketchtool"));
}

TEST(PXSketchToolMetadata, ReturnsTheOutputAndItsJSON) {
  test::TempDir dir;
  std::string sketch = test::SketchFixture()
                           .addPage(test::page("P1", "Page", {test::artboard("A1", "Board", test::frame(0, 0, 10, 10))}))
                           .writeSketch(dir / "doc.sketch");
  auto tool = PXSketchTool::sketchToolWithPath(kFakeSketchtool);
  std::optional<JsonValue> json;
  std::string output = tool->metadataForSketchFilePath(sketch, &json);
  ASSERT_TRUE(json);
  EXPECT_EQ(*PXJsonSerialize(*json, false), output);
  EXPECT_TRUE(PXJsonObjectFor(&*json, "pagesAndArtboards"));

  auto notJSON = PXSketchTool::sketchToolWithPath(makeExecutable(dir / "tool", "#!/bin/sh\necho oops\n"));
  std::optional<JsonValue> none = JsonValue(1);
  EXPECT_EQ(notJSON->metadataForSketchFilePath(sketch, &none), "oops\n");
  EXPECT_FALSE(none);
}
