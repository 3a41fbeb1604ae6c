#include "PXSketchLauncher.h"

#include "Files.h"
#include "MainQueue.h"
#include "SessionBus.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

[[maybe_unused]] auto* const gEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateSessionEnvironment({"fake-sketch"}, true));

void post(const char* name) { PXDistributedNotificationCenter::defaultCenter()->postNotificationName(name); }

// Lets any notification already on its way arrive.
void settle() { pumpMainUntil([] { return false; }, 300ms); }

// A folder per test, with Sketch's plug-in folder and a log of what sketchtool was asked to run.
class SketchLauncher : public ::testing::Test {
 protected:
  TempDir dir;
  ScopedEnv log{"FAKE_SKETCH_LOG", dir / "fake-sketch.log"};
  std::shared_ptr<PXSketchLauncher> launcher = makeLauncher();

  std::shared_ptr<PXSketchLauncher> makeLauncher() {
    auto made = PXSketchLauncher::make();
    made->sketchToolPath = PrivateSessionEnvironment::testDouble("fake-sketch");
    made->sketchPluginsFolderPath = dir / "Plugins";
    PXFileManager::createDirectory(dir / "Plugins", true);
    return made;
  }
};

}  // namespace

TEST_F(SketchLauncher, OpenRequestIsWrittenInStandardFormAndAnsweredOnce) {
  writeText(dir / "doc.sketch", "zip");

  int calls = 0;
  std::optional<bool> found;
  bool onMain = false;
  launcher->openDocument(dir.path() + "/sub/./../doc.sketch", [&](bool f) {
    ++calls;
    found = f;
    onMain = PXMainQueue::shared().isMainThread();
  });
  ASSERT_TRUE(pumpMainUntil([&] { return found.has_value(); }));
  settle();

  EXPECT_EQ(1, calls);
  EXPECT_TRUE(*found);
  EXPECT_TRUE(onMain);
  EXPECT_FALSE(launcher->hasOnOpenDocumentHandler());
  EXPECT_EQ(JsonValue(JsonObject{{"filePath", dir / "doc.sketch"}}), readJson(PXSketchLauncher::openDocumentRequestPath()));
  EXPECT_EQ("run " + PXSketchLauncher::pluginPath() + " openDocument\n", readText(dir / "fake-sketch.log"));
}

TEST_F(SketchLauncher, NotFoundClearsTheRequestAndLaterAnswersCallNothing) {
  std::vector<bool> answers;
  launcher->openDocument(dir / "missing.sketch", [&](bool f) { answers.push_back(f); });
  ASSERT_TRUE(pumpMainUntil([&] { return !answers.empty(); }));
  EXPECT_EQ(std::vector<bool>{false}, answers);

  post(PXSketchLauncherOpenDocumentSucceedNotification);
  post(PXSketchLauncherOpenDocumentNotFoundNotification);
  settle();
  EXPECT_EQ(1u, answers.size()) << "an answer without a pending request calls nothing";

  // A second request before the answer replaces the first: its caller is never answered.
  writeText(dir / "doc.sketch", "zip");
  int firstCalls = 0;
  std::vector<bool> second;
  launcher->openDocument(dir / "doc.sketch", [&](bool) { ++firstCalls; });
  launcher->openDocument(dir / "doc.sketch", [&](bool f) { second.push_back(f); });
  ASSERT_TRUE(pumpMainUntil([&] { return !second.empty(); }));
  settle();
  EXPECT_EQ(0, firstCalls);
  EXPECT_EQ(std::vector<bool>{true}, second);

  // A released launcher stops observing: its pending callback never runs.
  bool released = false;
  launcher->setOnOpenDocumentHandler([&](bool) { released = true; });
  launcher.reset();
  post(PXSketchLauncherOpenDocumentSucceedNotification);
  settle();
  EXPECT_FALSE(released);
}

TEST_F(SketchLauncher, LaunchInstallsThePluginUntilSketchHasStarted) {
  launcher->launchCommandPath = PrivateSessionEnvironment::testDouble("fake-sketch");
  launcher->launchArguments = {"app"};
  int startups = 0;
  std::optional<std::string> error = "not called";
  LogCapture logs;
  launcher->launchSketchCompletion([&](bool success, const std::optional<std::string>& e) {
    startups += success ? 1 : 100;
    error = e;
  });
  std::string installed = dir / "Plugins/PXSketchLauncher.sketchplugin";
  EXPECT_TRUE(PXFileManager::fileExists(installed + "/Contents/Sketch/manifest.json"));
  EXPECT_EQ(1u, logs.count("failed to remove SketchLauncher plugin")) << "nothing was installed before";

  ASSERT_TRUE(pumpMainUntil([&] { return startups > 0; }));
  EXPECT_EQ(1, startups);
  EXPECT_FALSE(error);
  EXPECT_FALSE(PXFileManager::fileExists(installed));

  // The handler stays set for a later start-up; removing again only logs.
  post(PXSketchLauncherOnStartupNotification);
  ASSERT_TRUE(pumpMainUntil([&] { return startups == 2; }));
  EXPECT_EQ(2u, logs.count("failed to remove SketchLauncher plugin"));
}

TEST_F(SketchLauncher, StartupRemovesTheInstalledPluginEvenWithoutAHandler) {
  launcher->installPluginToSketchFolder();
  ASSERT_TRUE(PXFileManager::fileExists(launcher->installedPluginPath()));
  post(PXSketchLauncherOnStartupNotification);
  ASSERT_TRUE(pumpMainUntil([&] { return !PXFileManager::fileExists(launcher->installedPluginPath()); }));

  // Reinstalling over a copy replaces it quietly.
  launcher->installPluginToSketchFolder();
  LogCapture logs;
  launcher->installPluginToSketchFolder();
  EXPECT_FALSE(logs.contains("failed to remove SketchLauncher plugin"));
  EXPECT_TRUE(PXFileManager::fileExists(launcher->installedPluginPath() + "/Contents/Sketch/launcher.js"));
}

TEST_F(SketchLauncher, FailuresAreLoggedAndTheCommandsAreConfigurable) {
  LogCapture logs;

  // Sketch's plug-in folder missing: nothing installed.
  launcher->sketchPluginsFolderPath = dir / "no/such/folder";
  launcher->installPluginToSketchFolder();
  EXPECT_EQ(1u, logs.count("failed to install SketchLauncher plugin"));
  EXPECT_FALSE(PXFileManager::fileExists(launcher->installedPluginPath()));

  // "~" stands for the user's home folder.
  {
    ScopedEnv home("HOME", dir.path());
    launcher->sketchPluginsFolderPath = "~/Plugins";
    EXPECT_EQ(dir / "Plugins/PXSketchLauncher.sketchplugin", launcher->installedPluginPath());
  }

  launcher->killCommandPath = "/usr/bin/touch";
  launcher->killArguments = {dir / "killed"};
  launcher->killSketch();
  EXPECT_TRUE(PXFileManager::fileExists(dir / "killed"));

  // An unwritable request is logged; the command still runs and Sketch,
  // finding no request, answers NotFound.
  TempDir emptyResources;
  std::optional<bool> found;
  {
    ScopedEnv resources("PLEXA_RESOURCES_DIR", emptyResources.path());
    launcher->openDocument(dir / "doc.sketch", [&](bool f) { found = f; });
  }
  ASSERT_TRUE(pumpMainUntil([&] { return found.has_value(); }));
  EXPECT_FALSE(*found);
  EXPECT_EQ(1u, logs.count("PXSketchLauncher failed to write openDocument.json"));
}
