#include "PXSymbolDetacher.h"

#include "Files.h"
#include "MainQueue.h"
#include "PXSketchLauncher.h"
#include "SessionBus.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

// A private session bus and copies of the test doubles for the whole program.
class DetacherEnvironment : public PrivateSessionEnvironment {
 public:
  DetacherEnvironment() : PrivateSessionEnvironment({"fake-sketch"}, true) {}
  void SetUp() override {
    PrivateSessionEnvironment::SetUp();
    setenv("FAKE_SKETCH_LOG", (folder() + "/fake-sketch.log").c_str(), 1);
  }
  static std::string resources() { return folder(); }
  static std::string fakeSketch() { return testDouble("fake-sketch"); }
};
[[maybe_unused]] auto* const gEnvironment = ::testing::AddGlobalTestEnvironment(new DetacherEnvironment);

std::vector<std::string> fakeSketchCommands() {
  auto text = PXFileManager::readFile(DetacherEnvironment::resources() + "/fake-sketch.log").value_or("");
  std::vector<std::string> commands;
  for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    std::string line = text.substr(start, end - start);
    // "run PLUGIN COMMAND" lines are what sketchtool was asked to do.
    if (line.rfind("run ", 0) == 0) commands.push_back(line.substr(line.rfind(' ') + 1));
  }
  return commands;
}

struct Progress : PXSymbolDetacherDelegate {
  std::vector<std::pair<uint64_t, uint64_t>> steps;
  void symbolDetacher(PXSymbolDetacher&, uint64_t progress, uint64_t count) override {
    steps.emplace_back(progress, count);
  }
};

struct Outcome {
  int calls = 0;
  bool success = false;
  std::optional<std::string> message;
  PXSymbolDetacher::Completion block() {
    return [this](bool s, const std::optional<std::string>& m) {
      ++calls;
      success = s;
      message = m;
    };
  }
};

// One artboard with one instance of a button symbol.
std::string writeDocument(const TempDir& dir) {
  JsonObject master = layer("symbolMaster", "M1", "Button", frame(0, 0, 80, 30),
                            JsonArray{layer("text", "T1", "Label", frame(0, 0, 80, 30))});
  master["symbolID"] = "SYM-1";
  JsonObject instance = layer("symbolInstance", "I1", "Button", frame(10, 10, 80, 30));
  instance["symbolID"] = "SYM-1";
  instance["overrideValues"] = JsonArray();
  SketchFixture fixture;
  fixture.addPage(page("P1", "Page", JsonArray{artboard("A1", "Screen", frame(0, 0, 320, 480), JsonArray{instance})}));
  fixture.addPage(page("P2", "Symbols", JsonArray{master}));
  return fixture.writeSketch(dir / "doc.sketch");
}

void postDetach(const char* name, JsonObject userInfo) {
  PXDistributedNotificationCenter::defaultCenter()->postNotificationName(name, std::string("PlexaExtract"),
                                                                         std::move(userInfo));
}

void settle() { pumpMainUntil([] { return false; }, 300ms); }

std::shared_ptr<PXSymbolDetacher> makeDetacher(const std::string& document) {
  PXFileManager::removeItem(DetacherEnvironment::resources() + "/fake-sketch.log");
  auto detacher = PXSymbolDetacher::make();
  detacher->sketchFilePath = document;
  detacher->sketchToolPath = DetacherEnvironment::fakeSketch();
  return detacher;
}

}  // namespace

TEST(PXSymbolDetacher, AsynchronousDetachRunsStartThenEndAndCompletesOnce) {
  TempDir dir;
  auto detacher = makeDetacher(writeDocument(dir));
  auto progress = std::make_shared<Progress>();
  detacher->delegate = progress;
  detacher->saveAsPath = dir / "detached.sketch";
  detacher->restoreAfterDetach = true;
  detacher->detachMethod = "selection";
  detacher->detachingArtboardIds = {"A1"};
  LogCapture logs;

  Outcome outcome;
  ASSERT_TRUE(detacher->detachOnCompletion(outcome.block()));
  ASSERT_TRUE(pumpMainUntil([&] { return detacher->isDetaching() || outcome.calls > 0; }));

  // While it runs: the plug-in's configuration is in place and a second start is refused.
  EXPECT_EQ(JsonValue(JsonObject{{"filePath", dir / "doc.sketch"},
                                 {"closeAfterDetach", false},
                                 {"saveAfterDetach", false},
                                 {"restoreAfterDetach", true},
                                 {"saveAsPath", dir / "detached.sketch"},
                                 {"detachMethod", "selection"},
                                 {"detachingArtboardIds", JsonArray{"A1"}}}),
            readJson(PXSymbolDetacher::configurationFilePath()));
  Outcome refused;
  EXPECT_FALSE(detacher->detachOnCompletion(refused.block()));
  EXPECT_EQ(1, refused.calls);
  EXPECT_FALSE(refused.success);
  EXPECT_EQ(std::optional<std::string>("Detach already in progress"), refused.message);

  ASSERT_TRUE(pumpMainUntil([&] { return outcome.calls > 0; }));
  EXPECT_TRUE(outcome.success);
  EXPECT_FALSE(outcome.message);
  EXPECT_FALSE(detacher->isDetaching());
  EXPECT_FALSE(PXFileManager::fileExists(PXSymbolDetacher::configurationFilePath()));
  EXPECT_EQ((std::vector<std::string>{"openDocument", "detachDocumentAsyncStart", "detachDocumentAsyncEnd"}),
            fakeSketchCommands());
  EXPECT_EQ((std::vector<std::pair<uint64_t, uint64_t>>{{0, 4}, {1, 4}, {2, 4}, {3, 4}, {4, 4}, {4, 4}}),
            progress->steps);
  // Sketch saved a detached copy: the instance is gone from the artboard's page.
  auto detachedPage = PXZip::readEntry(dir / "detached.sketch", "pages/P1.json");
  ASSERT_TRUE(detachedPage);
  EXPECT_EQ(std::string::npos, detachedPage->find("\"symbolInstance\""));
  EXPECT_NE(std::string::npos, detachedPage->find("\"Label\"")) << "the master's layers are copied in";
  EXPECT_EQ(1u, logs.count("Detach async cleanup complete"));

  // A late, second did-detach only logs; nothing runs or completes again.
  postDetach(PlexaExtractSymbolDetacherDidDetachNotification,
             JsonObject{{"file", dir / "doc.sketch"}, {"index", 4}, {"count", 4}});
  ASSERT_TRUE(pumpMainUntil([&] { return logs.contains("Detach async cleanup already completed"); }));
  EXPECT_EQ(1, outcome.calls);
  EXPECT_EQ(3u, fakeSketchCommands().size());

  // Once finished, a new detach may start.
  Outcome again;
  EXPECT_TRUE(detacher->detachOnCompletion(again.block()));
  ASSERT_TRUE(pumpMainUntil([&] { return again.calls > 0; }));
  EXPECT_TRUE(again.success);
  settle();
}

TEST(PXSymbolDetacher, SynchronousDetachCompletesWhenTheCommandReturns) {
  TempDir dir;
  auto detacher = makeDetacher(writeDocument(dir));
  auto progress = std::make_shared<Progress>();
  detacher->delegate = progress;
  detacher->async = false;
  detacher->saveAsPath = dir / "detached.sketch";
  LogCapture logs;

  Outcome outcome;
  ASSERT_TRUE(detacher->detachOnCompletion(outcome.block()));
  ASSERT_TRUE(pumpMainUntil([&] { return outcome.calls > 0; }));
  EXPECT_TRUE(outcome.success);
  EXPECT_FALSE(PXFileManager::fileExists(PXSymbolDetacher::configurationFilePath()));
  EXPECT_TRUE(PXFileManager::fileExists(dir / "detached.sketch"));
  EXPECT_EQ((std::vector<std::string>{"openDocument", "detachDocument"}), fakeSketchCommands());

  // The plug-in's notifications still report progress; the did-detach finds no clean-up to do.
  ASSERT_TRUE(pumpMainUntil([&] { return logs.contains("Detach async cleanup already completed"); }));
  EXPECT_EQ(6u, progress->steps.size());
  EXPECT_EQ(1, outcome.calls);
}

TEST(PXSymbolDetacher, MissingDocumentFailsAndRemovesTheConfiguration) {
  TempDir dir;
  auto detacher = makeDetacher(dir / "gone.sketch");
  Outcome outcome;
  ASSERT_TRUE(detacher->detachOnCompletion(outcome.block()));
  ASSERT_TRUE(pumpMainUntil([&] { return outcome.calls > 0; }));
  EXPECT_FALSE(outcome.success);
  EXPECT_EQ("failed to find file " + dir / "gone.sketch", outcome.message.value_or(""));
  EXPECT_FALSE(PXFileManager::fileExists(PXSymbolDetacher::configurationFilePath()));
  EXPECT_EQ(std::vector<std::string>{"openDocument"}, fakeSketchCommands());

  // With the plug-in resource missing the configuration cannot be written;
  // that is logged and the request still goes out (and fails to find anything).
  TempDir emptyResources;
  std::string resources = DetacherEnvironment::resources();
  setenv("PLEXA_RESOURCES_DIR", emptyResources.path().c_str(), 1);
  LogCapture logs;
  Outcome unconfigured;
  bool started = detacher->detachOnCompletion(unconfigured.block());
  setenv("PLEXA_RESOURCES_DIR", resources.c_str(), 1);
  EXPECT_TRUE(started);
  ASSERT_TRUE(pumpMainUntil([&] { return unconfigured.calls > 0; }));
  EXPECT_FALSE(unconfigured.success);
  EXPECT_EQ(1u, logs.count("PXSymbolDetacher: failed to write to " + emptyResources.path()));
}

TEST(PXSymbolDetacher, NotificationsAreFilteredByFileAndCheckedForType) {
  TempDir dir;
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

  // Released, it hears nothing more; a delegate that has gone is not called.
  detacher->cancel();
  EXPECT_TRUE(detacher->isCancelled());
  detacher.reset();
  postDetach(PlexaExtractSymbolDetacherProgressNotification, {{"file", file}, {"index", 2}, {"count", 2}});
  settle();
  EXPECT_EQ(2u, progress->steps.size());
}
