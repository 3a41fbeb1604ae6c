#include "PXSymbolDetacher.h"

#include "Files.h"
#include "SessionBus.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

[[maybe_unused]] auto* const gEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateSessionEnvironment({"fake-sketch"}, true));

struct Progress : PXSymbolDetacherDelegate {
  std::vector<std::pair<uint64_t, uint64_t>> steps;
  void symbolDetacher(PXSymbolDetacher&, uint64_t progress, uint64_t count) override {
    steps.emplace_back(progress, count);
  }
};

// Every call of a completion: success and message.
using Calls = std::vector<std::pair<bool, std::optional<std::string>>>;
PXSymbolDetacher::Completion recordInto(Calls& calls) {
  return [&calls](bool success, const std::optional<std::string>& message) { calls.emplace_back(success, message); };
}


void postDetach(const char* name, JsonObject userInfo) {
  PXDistributedNotificationCenter::defaultCenter()->postNotificationName(name, std::string("PlexaExtract"),
                                                                         std::move(userInfo));
}

void settle() { pumpMainUntil([] { return false; }, 300ms); }

// A folder per test, with its own log of what sketchtool was asked to run.
class SymbolDetacher : public ::testing::Test {
 protected:
  TempDir dir;
  ScopedEnv log{"FAKE_SKETCH_LOG", dir / "fake-sketch.log"};

  std::shared_ptr<PXSymbolDetacher> makeDetacher(const std::string& document) {
    auto detacher = PXSymbolDetacher::make();
    detacher->sketchFilePath = document;
    detacher->sketchToolPath = PrivateSessionEnvironment::testDouble("fake-sketch");
    return detacher;
  }
  // The COMMAND of each "run PLUGIN COMMAND" line.
  std::vector<std::string> fakeSketchCommands() const {
    auto text = PXFileManager::readFile(dir / "fake-sketch.log").value_or("");
    std::vector<std::string> commands;
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
      std::string line = text.substr(start, end - start);
      if (line.rfind("run ", 0) == 0) commands.push_back(line.substr(line.rfind(' ') + 1));
    }
    return commands;
  }
};

}  // namespace

TEST_F(SymbolDetacher, AsynchronousDetachRunsStartThenEndAndCompletesOnce) {
  auto detacher = makeDetacher(writeButtonDocument(dir / "doc.sketch"));
  auto progress = std::make_shared<Progress>();
  detacher->delegate = progress;
  detacher->saveAsPath = dir / "detached.sketch";
  detacher->restoreAfterDetach = true;
  detacher->detachMethod = "selection";
  detacher->detachingArtboardIds = {"A1"};
  LogCapture logs;

  Calls outcome;
  ASSERT_TRUE(detacher->detachOnCompletion(recordInto(outcome)));
  ASSERT_TRUE(pumpMainUntil([&] { return detacher->isDetaching() || !outcome.empty(); }));

  // While it runs: the plug-in's configuration is in place and a second start is refused.
  EXPECT_EQ(JsonValue(JsonObject{{"filePath", dir / "doc.sketch"},
                                 {"closeAfterDetach", false},
                                 {"saveAfterDetach", false},
                                 {"restoreAfterDetach", true},
                                 {"saveAsPath", dir / "detached.sketch"},
                                 {"detachMethod", "selection"},
                                 {"detachingArtboardIds", JsonArray{"A1"}}}),
            readJson(PXSymbolDetacher::configurationFilePath()));
  Calls refused;
  EXPECT_FALSE(detacher->detachOnCompletion(recordInto(refused)));
  EXPECT_EQ((Calls{{false, "Detach already in progress"}}), refused);

  ASSERT_TRUE(pumpMainUntil([&] { return !outcome.empty(); }));
  EXPECT_EQ((Calls{{true, std::nullopt}}), outcome);
  EXPECT_FALSE(detacher->isDetaching());
  EXPECT_FALSE(PXFileManager::fileExists(PXSymbolDetacher::configurationFilePath()));
  EXPECT_EQ((std::vector<std::string>{"openDocument", "detachDocumentAsyncStart", "detachDocumentAsyncEnd"}),
            fakeSketchCommands());
  EXPECT_EQ((std::vector<std::pair<uint64_t, uint64_t>>{{0, 4}, {1, 4}, {2, 4}, {3, 4}, {4, 4}, {4, 4}}),
            progress->steps);
  // Sketch saved a detached copy: the instance is gone from the artboard's page.
  auto detachedPage = PXZip::readEntry(dir / "detached.sketch", "pages/P1.json").value_or("");
  EXPECT_EQ(std::string::npos, detachedPage.find("\"symbolInstance\""));
  EXPECT_NE(std::string::npos, detachedPage.find("\"Label\"")) << "the master's layers are copied in";
  EXPECT_EQ(1u, logs.count("Detach async cleanup complete"));

  // A late, second did-detach only logs; nothing runs or completes again.
  postDetach(PlexaExtractSymbolDetacherDidDetachNotification,
             JsonObject{{"file", dir / "doc.sketch"}, {"index", 4}, {"count", 4}});
  ASSERT_TRUE(pumpMainUntil([&] { return logs.contains("Detach async cleanup already completed"); }));
  EXPECT_EQ(1u, outcome.size());
  EXPECT_EQ(3u, fakeSketchCommands().size());
}

TEST_F(SymbolDetacher, SynchronousDetachCompletesWhenTheCommandReturns) {
  auto detacher = makeDetacher(writeButtonDocument(dir / "doc.sketch"));
  auto progress = std::make_shared<Progress>();
  detacher->delegate = progress;
  detacher->async = false;
  detacher->saveAsPath = dir / "detached.sketch";
  LogCapture logs;

  Calls outcome;
  ASSERT_TRUE(detacher->detachOnCompletion(recordInto(outcome)));
  ASSERT_TRUE(pumpMainUntil([&] { return !outcome.empty(); }));
  EXPECT_FALSE(PXFileManager::fileExists(PXSymbolDetacher::configurationFilePath()));
  EXPECT_TRUE(PXFileManager::fileExists(dir / "detached.sketch"));
  EXPECT_EQ((std::vector<std::string>{"openDocument", "detachDocument"}), fakeSketchCommands());

  // The plug-in's notifications still report progress; the did-detach finds no clean-up to do.
  ASSERT_TRUE(pumpMainUntil([&] { return logs.contains("Detach async cleanup already completed"); }));
  EXPECT_EQ(6u, progress->steps.size());
  EXPECT_EQ((Calls{{true, std::nullopt}}), outcome);
}

TEST_F(SymbolDetacher, MissingDocumentFailsAndRemovesTheConfiguration) {
  auto detacher = makeDetacher(dir / "gone.sketch");
  Calls outcome;
  ASSERT_TRUE(detacher->detachOnCompletion(recordInto(outcome)));
  ASSERT_TRUE(pumpMainUntil([&] { return !outcome.empty(); }));
  EXPECT_EQ((Calls{{false, "failed to find file " + dir / "gone.sketch"}}), outcome);
  EXPECT_FALSE(PXFileManager::fileExists(PXSymbolDetacher::configurationFilePath()));
  EXPECT_EQ(std::vector<std::string>{"openDocument"}, fakeSketchCommands());

  // With the plug-in resource missing the configuration cannot be written;
  // that is logged and the request still goes out (and fails to find anything).
  TempDir emptyResources;
  LogCapture logs;
  Calls unconfigured;
  {
    ScopedEnv resources("PLEXA_RESOURCES_DIR", emptyResources.path());
    EXPECT_TRUE(detacher->detachOnCompletion(recordInto(unconfigured)));
  }
  ASSERT_TRUE(pumpMainUntil([&] { return !unconfigured.empty(); }));
  EXPECT_EQ(outcome, unconfigured);
  EXPECT_EQ(1u, logs.count("PXSymbolDetacher: failed to write to " + emptyResources.path()));
}

TEST_F(SymbolDetacher, NotificationsAreFilteredByFileAndCheckedForType) {
  auto detacher = makeDetacher(dir / "doc.sketch");
  auto progress = std::make_shared<Progress>();
  detacher->delegate = progress;
  std::string file = dir / "doc.sketch";
  LogCapture logs;

  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"file", dir / "other.sketch"}, {"index", 1}, {"count", 2}});
  postDetach(PlexaExtractSymbolDetacherWillDetachNotification, {{"file", file + "/"}, {"index", 0}, {"count", 2}});
  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"index", 1}, {"count", 2}});
  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"file", 7}, {"index", 1}, {"count", 2}});
  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"file", file}, {"index", "1"}, {"count", 2}});
  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"file", file}, {"index", -1}, {"count", 2}});
  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"file", file}, {"index", 1}});
  // Another object is not the plug-in speaking.
  PXDistributedNotificationCenter::defaultCenter()->postNotificationName(
      PlexaExtractSymbolDetacherProgressNotification, std::string("Elsewhere"),
      JsonObject{{"file", file}, {"index", 9}, {"count", 9}});
  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"file", file}, {"index", 1}, {"count", 2.0}});
  ASSERT_TRUE(pumpMainUntil([&] { return !progress->steps.empty(); }));
  settle();

  EXPECT_EQ((std::vector<std::pair<uint64_t, uint64_t>>{{1, 2}}), progress->steps);
  EXPECT_EQ(2u, logs.count("has no \"file\" text"));
  EXPECT_EQ(3u, logs.count("must be unsigned numbers"));
  EXPECT_EQ(1u, logs.count("Detach 1 of 2"));

  // A did-detach with nothing running reports progress and finds nothing to clean up.
  postDetach(PlexaExtractSymbolDetacherDidDetachNotification, {{"file", file}, {"index", 2}, {"count", 2}});
  ASSERT_TRUE(pumpMainUntil([&] { return progress->steps.size() == 2; }));
  EXPECT_EQ(1u, logs.count("Detach async cleanup already completed"));
  EXPECT_TRUE(fakeSketchCommands().empty());

  // Released, it hears nothing more.
  detacher.reset();
  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"file", file}, {"index", 2}, {"count", 2}});
  settle();
  EXPECT_EQ(2u, progress->steps.size());
}
