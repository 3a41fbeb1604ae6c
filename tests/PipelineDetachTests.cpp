// The whole extraction with symbols detached by Sketch's plug-in or by
// Anima, against the fake peers on a private session bus.
#include "PlexaExtract.h"

#include "CliRun.h"
#include "ExtractionRun.h"
#include "Files.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "Process.h"
#include "SessionBus.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace plexa;
using namespace plexa::test;

namespace {

[[maybe_unused]] auto* const gEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateSessionEnvironment({"fake-sketch", "fake-anima"}, true));

}  // namespace

TEST(PipelineDetach, SketchPluginDetachesBeforeTheStagesReadTheDocument) {
  TempDir dir;
  ScopedEnv log{"FAKE_SKETCH_LOG", dir / "fake-sketch.log"};
  auto extractor = PlexaExtract::extractWithSketchFilePath(writeButtonDocument(dir / "doc.sketch"), dir / "work",
                                                          PrivateSessionEnvironment::testDouble("fake-sketch"));
  extractor->detachMethod = "all";
  std::vector<std::pair<uint64_t, uint64_t>> detachSteps;
  extractor->detachProgressBlock = [&](uint64_t progress, uint64_t count) { detachSteps.emplace_back(progress, count); };
  auto outcome = startExtraction(extractor, std::nullopt, PlexaExtractExportMeta, false);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }, std::chrono::seconds(30)));
  EXPECT_FALSE(outcome->error);
  EXPECT_TRUE(outcome->lists("A1.json"));
  EXPECT_FALSE(detachSteps.empty());
  // The stages read Sketch's detached copy: the instance became a group.
  auto page = readJson(extractor->unzippingFolderPath + "/pages/P1.json");
  const auto& detached = page.at("layers").at(0).at("layers").at(0);
  EXPECT_EQ(detached.at("_class"), "group");
  EXPECT_EQ(detached.at("in_detachedSymbol"), true);
}

TEST(PipelineDetach, AnimaDetachedCopyIsWhatTheRunUnzips) {
  TempDir dir;
  auto anima = startFakeAnima({"--answer", "requested"});
  ASSERT_TRUE(anima);

  auto extractor = PlexaExtract::extractWithSketchFilePath(writeButtonDocument(dir / "doc.sketch"), dir / "work", std::string("/none"));
  extractor->detachMethod = "none";  // Anima alone detaches; Sketch is not asked as well
  auto outcome = startExtraction(extractor, std::nullopt, PlexaExtractExportMeta | PlexaExtractDetachAnima, false);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }, std::chrono::seconds(30)));
  EXPECT_FALSE(outcome->error);
  EXPECT_TRUE(outcome->lists("detached.sketch"));
  EXPECT_TRUE(outcome->lists("A1.json"));
  EXPECT_EQ(extractor->unzipper->sketchFilePath, extractor->outputFolderPath + "/detached.sketch");
}

TEST(PipelineDetach, AnimaFailureFallsBackToTheInputFile) {
  TempDir dir;
  auto anima = startFakeAnima({"--answer", "missing"});
  ASSERT_TRUE(anima);

  std::string input = writeButtonDocument(dir / "doc.sketch");
  auto extractor = PlexaExtract::extractWithSketchFilePath(input, dir / "work", std::string("/none"));
  extractor->detachMethod = "none";
  auto outcome = startExtraction(extractor, std::nullopt, PlexaExtractExportMeta | PlexaExtractDetachAnima, false);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }, std::chrono::seconds(30)));
  EXPECT_FALSE(outcome->error);
  EXPECT_TRUE(outcome->lists("A1.json"));
  EXPECT_EQ(extractor->unzipper->sketchFilePath, input);
}

// The program inherits this one's private bus and plug-in copy.
TEST(PipelineDetachCli, PluginAndAnimaDetachingFromTheCommandLine) {
  TempDir dir;
  ScopedEnv log{"FAKE_SKETCH_LOG", dir / "fake-sketch.log"};
  std::string input = writeButtonDocument(dir / "doc.sketch");
  auto plugin = runCli({input, "-o", dir / "plugin", "--detach", "plugin", "--meta", "--progress", "none",
                        "--sketchtool", PrivateSessionEnvironment::testDouble("fake-sketch")});
  EXPECT_EQ(plugin.exitCode, 0) << plugin.output;
  EXPECT_TRUE(PXFileManager::fileExists(dir / "plugin/A1.json"));

  // No Anima listening: the host's own time-out ends the wait.
  auto silent = runCli(
      {input, "-o", dir / "silent", "--detach", "anima", "--meta", "--progress", "none", "--detach-timeout", "1"});
  EXPECT_EQ(silent.exitCode, 1);
  EXPECT_TRUE(contains(silent.output, "no answer from anima within 1 s")) << silent.output;
  // The failed run made the folder, so it takes it away again.
  EXPECT_FALSE(PXFileManager::fileExists(dir / "silent"));

  auto anima = startFakeAnima({"--answer", "requested"});
  ASSERT_TRUE(anima);
  auto animaRun = runCli({input, "-o", dir / "anima", "--detach", "anima", "--meta", "--progress", "none"});
  EXPECT_EQ(animaRun.exitCode, 0) << animaRun.output;
  EXPECT_TRUE(PXFileManager::fileExists(dir / "anima/detached.sketch"));
  EXPECT_TRUE(PXFileManager::fileExists(dir / "anima/A1.json"));
}
