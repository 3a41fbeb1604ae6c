#include "PXSketchLauncher.h"

#include "Files.h"
#include "MainQueue.h"
#include "SessionBus.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

// A private session bus and copies of the test doubles for the whole program.
class LauncherEnvironment : public PrivateSessionEnvironment {
 public:
  LauncherEnvironment() : PrivateSessionEnvironment({"fake-sketch"}, true) {}
  void SetUp() override {
    PrivateSessionEnvironment::SetUp();
    setenv("FAKE_SKETCH_LOG", (folder() + "/fake-sketch.log").c_str(), 1);
  }
  static std::string resources() { return folder(); }
  static std::string fakeSketch() { return testDouble("fake-sketch"); }
};
[[maybe_unused]] auto* const gEnvironment = ::testing::AddGlobalTestEnvironment(new LauncherEnvironment);

std::string fakeSketchLog() {
  auto text = PXFileManager::readFile(LauncherEnvironment::resources() + "/fake-sketch.log");
  return text.value_or("");
}

void post(const char* name) { PXDistributedNotificationCenter::defaultCenter()->postNotificationName(name); }

// Lets any notification already on its way arrive.
void settle() { pumpMainUntil([] { return false; }, 300ms); }

std::shared_ptr<PXSketchLauncher> makeLauncher(const TempDir& dir) {
  auto launcher = PXSketchLauncher::make();
  launcher->sketchToolPath = LauncherEnvironment::fakeSketch();
  launcher->sketchPluginsFolderPath = dir / "Plugins";
  PXFileManager::createDirectory(dir / "Plugins", true);
  return launcher;
}

}  // namespace

TEST(PXSketchLauncher, OpenRequestIsWrittenInStandardFormAndAnsweredOnce) {
  TempDir dir;
  writeText(dir / "doc.sketch", "zip");
  PXFileManager::removeItem(LauncherEnvironment::resources() + "/fake-sketch.log");
  auto launcher = makeLauncher(dir);

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
  EXPECT_EQ(LauncherEnvironment::resources() + "/PXSketchLauncher.sketchplugin", PXSketchLauncher::pluginPath());
  EXPECT_EQ("run " + PXSketchLauncher::pluginPath() + " openDocument\n", fakeSketchLog());
}

TEST(PXSketchLauncher, NotFoundClearsTheRequestAndLaterAnswersCallNothing) {
  TempDir dir;
  auto launcher = makeLauncher(dir);
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

TEST(PXSketchLauncher, LaunchInstallsThePluginUntilSketchHasStarted) {
  TempDir dir;
  auto launcher = makeLauncher(dir);
  launcher->launchCommandPath = LauncherEnvironment::fakeSketch();
  launcher->launchArguments = {"app"};
  int startups = 0;
  std::optional<std::string> error = "not called";
  LogCapture logs;
  launcher->launchSketchCompletion([&](bool success, const std::optional<std::string>& e) {
    startups += success ? 1 : 100;
    error = e;
  });
  std::string installed = dir / "Plugins/PXSketchLauncher.sketchplugin";
  EXPECT_EQ(installed, launcher->installedPluginPath());
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

TEST(PXSketchLauncher, StartupRemovesTheInstalledPluginEvenWithoutAHandler) {
  TempDir dir;
  auto launcher = makeLauncher(dir);
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

TEST(PXSketchLauncher, FailuresAreLoggedAndTheCommandsAreConfigurable) {
  TempDir dir;
  auto launcher = makeLauncher(dir);
  LogCapture logs;

  // Sketch's plug-in folder missing: nothing installed.
  launcher->sketchPluginsFolderPath = dir / "no/such/folder";
  launcher->installPluginToSketchFolder();
  EXPECT_EQ(1u, logs.count("failed to install SketchLauncher plugin"));
  EXPECT_FALSE(PXFileManager::fileExists(launcher->installedPluginPath()));

  // "~" stands for the user's home folder.
  std::string home = getenv("HOME") ? getenv("HOME") : "";
  setenv("HOME", dir.path().c_str(), 1);
  launcher->sketchPluginsFolderPath = "~/Plugins";
  EXPECT_EQ(dir / "Plugins/PXSketchLauncher.sketchplugin", launcher->installedPluginPath());
  setenv("HOME", home.c_str(), 1);

  launcher->killCommandPath = "/usr/bin/touch";
  launcher->killArguments = {dir / "killed"};
  launcher->killSketch();
  EXPECT_TRUE(PXFileManager::fileExists(dir / "killed"));

  // An unwritable request is logged; the command still runs and Sketch,
  // finding no request, answers NotFound.
  TempDir emptyResources;
  std::string resources = LauncherEnvironment::resources();
  setenv("PLEXA_RESOURCES_DIR", emptyResources.path().c_str(), 1);
  std::optional<bool> found;
  launcher->openDocument(dir / "doc.sketch", [&](bool f) { found = f; });
  setenv("PLEXA_RESOURCES_DIR", resources.c_str(), 1);
  ASSERT_TRUE(pumpMainUntil([&] { return found.has_value(); }));
  EXPECT_FALSE(*found);
  EXPECT_EQ(1u, logs.count("PXSketchLauncher failed to write openDocument.json"));
}
