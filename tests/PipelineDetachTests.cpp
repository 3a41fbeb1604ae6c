// The whole extraction with symbols detached by Sketch's plug-in or by
// Anima, against the fake peers on a private session bus.
#include "PlexaExtract.h"

#include "Files.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "Process.h"
#include "SessionBus.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sys/wait.h>

using namespace plexa;
using namespace plexa::test;

namespace {

[[maybe_unused]] auto* const gEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateSessionEnvironment({"fake-sketch", "fake-anima"}, true));


struct Outcome {
  bool called = false;
  std::vector<std::string> names;
  std::optional<PXError> error;
};

std::shared_ptr<Outcome> start(const std::shared_ptr<PlexaExtract>& extractor, uint64_t options) {
  auto outcome = std::make_shared<Outcome>();
  extractor->startExtractionForArtboardIDs(std::nullopt, 1, options, nullptr,
                                           [outcome](const std::vector<std::string>& names, const auto& error) {
                                             outcome->called = true;
                                             outcome->names = names;
                                             outcome->error = error;
                                           });
  return outcome;
}

bool lists(const Outcome& outcome, const std::string& name) {
  return std::find(outcome.names.begin(), outcome.names.end(), name) != outcome.names.end();
}

}  // namespace

TEST(PipelineDetach, SketchPluginDetachesBeforeTheStagesReadTheDocument) {
  TempDir dir;
  ScopedEnv log{"FAKE_SKETCH_LOG", dir / "fake-sketch.log"};
  auto extractor = PlexaExtract::extractWithSketchFilePath(writeButtonDocument(dir / "doc.sketch"), dir / "work",
                                                          PrivateSessionEnvironment::testDouble("fake-sketch"));
  extractor->detachMethod = "all";
  std::vector<std::pair<uint64_t, uint64_t>> detachSteps;
  extractor->detachProgressBlock = [&](uint64_t progress, uint64_t count) { detachSteps.emplace_back(progress, count); };
  auto outcome = start(extractor, PlexaExtractExportMeta);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }, std::chrono::seconds(30)));
  EXPECT_FALSE(outcome->error);
  EXPECT_TRUE(lists(*outcome, "A1.json"));
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
  auto outcome = start(extractor, PlexaExtractExportMeta | PlexaExtractDetachAnima);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }, std::chrono::seconds(30)));
  EXPECT_FALSE(outcome->error);
  EXPECT_TRUE(lists(*outcome, "detached.sketch"));
  EXPECT_TRUE(lists(*outcome, "A1.json"));
  EXPECT_EQ(extractor->unzipper->sketchFilePath, extractor->outputFolderPath + "/detached.sketch");
}

TEST(PipelineDetach, AnimaFailureFallsBackToTheInputFile) {
  TempDir dir;
  auto anima = startFakeAnima({"--answer", "missing"});
  ASSERT_TRUE(anima);

  std::string input = writeButtonDocument(dir / "doc.sketch");
  auto extractor = PlexaExtract::extractWithSketchFilePath(input, dir / "work", std::string("/none"));
  extractor->detachMethod = "none";
  auto outcome = start(extractor, PlexaExtractExportMeta | PlexaExtractDetachAnima);
  ASSERT_TRUE(pumpMainUntil([&] { return outcome->called; }, std::chrono::seconds(30)));
  EXPECT_FALSE(outcome->error);
  EXPECT_TRUE(lists(*outcome, "A1.json"));
  EXPECT_EQ(extractor->unzipper->sketchFilePath, input);
}

namespace {

// Runs plexa-extract with this program's private bus and plug-in copy.
std::pair<int, std::string> runCli(const std::vector<std::string>& arguments) {
  std::string command = std::string("'") + PLEXA_CLI_PATH + "'";
  for (const auto& a : arguments) command += " '" + a + "'";
  command += " 2>&1";
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  char buffer[4096];
  size_t n;
  while (pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  int status = pipe ? ::pclose(pipe) : -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

}  // namespace

TEST(PipelineDetachCli, PluginAndAnimaDetachingFromTheCommandLine) {
  TempDir dir;
  ScopedEnv log{"FAKE_SKETCH_LOG", dir / "fake-sketch.log"};
  std::string input = writeButtonDocument(dir / "doc.sketch");
  auto [pluginExit, pluginOutput] = runCli({input, "-o", dir / "plugin", "--detach", "plugin", "--meta", "--progress",
                                            "none", "--sketchtool", PrivateSessionEnvironment::testDouble("fake-sketch")});
  EXPECT_EQ(pluginExit, 0) << pluginOutput;
  EXPECT_TRUE(PXFileManager::fileExists(dir / "plugin/A1.json"));

  // No Anima listening: the host's own time-out ends the wait.
  auto [silentExit, silentOutput] = runCli({input, "-o", dir / "silent", "--detach", "anima", "--meta", "--progress",
                                            "none", "--detach-timeout", "1"});
  EXPECT_EQ(silentExit, 1);
  EXPECT_NE(silentOutput.find("no answer from anima within 1 s"), std::string::npos) << silentOutput;
  // The failed run made the folder, so it takes it away again.
  EXPECT_FALSE(PXFileManager::fileExists(dir / "silent"));

  auto anima = startFakeAnima({"--answer", "requested"});
  ASSERT_TRUE(anima);
  auto [animaExit, animaOutput] =
      runCli({input, "-o", dir / "anima", "--detach", "anima", "--meta", "--progress", "none"});
  EXPECT_EQ(animaExit, 0) << animaOutput;
  EXPECT_TRUE(PXFileManager::fileExists(dir / "anima/detached.sketch"));
  EXPECT_TRUE(PXFileManager::fileExists(dir / "anima/A1.json"));
}
