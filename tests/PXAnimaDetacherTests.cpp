#include "PXAnimaDetacher.h"

#include "Files.h"
#include "MainQueue.h"
#include "SessionBus.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char** environ;

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

// A private session bus and copies of the test doubles for the whole program.
class SessionBus : public PrivateSessionEnvironment {
 public:
  SessionBus() : PrivateSessionEnvironment({"fake-anima"}, false) {}
  static std::string fakeAnima() { return testDouble("fake-anima"); }
};
[[maybe_unused]] auto* const gEnvironment = ::testing::AddGlobalTestEnvironment(new SessionBus);

// The fake Anima, started and listening; it exits after answering.
class FakeAnima {
 public:
  explicit FakeAnima(std::vector<std::string> options) {
    bool ready = false;
    auto token = PXDistributedNotificationCenter::defaultCenter()->addObserver(
        "PXFakeAnimaReady", std::string("fake-anima"), [&](const PXNotification&) { ready = true; });
    options.insert(options.begin(), SessionBus::fakeAnima());
    std::vector<char*> argv;
    for (auto& o : options) argv.push_back(o.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) pid_ = -1;
    ready_ = pid_ > 0 && pumpMainUntil([&] { return ready; });
  }
  ~FakeAnima() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool ready() const { return ready_; }

 private:
  pid_t pid_ = -1;
  bool ready_ = false;
};

struct Answers {
  std::vector<bool> results;
  bool onMain = true;
  std::function<void(bool)> block() {
    return [this](bool success) {
      onMain = onMain && PXMainQueue::shared().isMainThread();
      results.push_back(success);
    };
  }
};

void postFinish(std::optional<JsonObject> userInfo) {
  PXDistributedNotificationCenter::defaultCenter()->postNotificationName(MPSyncAnimaExporterFinishNotification,
                                                                         std::nullopt, std::move(userInfo));
}

void settle() { pumpMainUntil([] { return false; }, 300ms); }

}  // namespace

TEST(PXAnimaDetacher, SucceedsWhenAnimaWritesTheCopyAndKeepsItsCompletion) {
  TempDir dir;
  writeText(dir / "in.sketch", "original");
  FakeAnima anima({"--record", dir / "request.json"});
  ASSERT_TRUE(anima.ready());

  auto detacher = PXAnimaDetacher::make();
  Answers answers;
  detacher->detachSketchFile(dir / "in.sketch", std::nullopt, dir / "detached.sketch", answers.block());
  ASSERT_TRUE(pumpMainUntil([&] { return !answers.results.empty(); }));
  settle();

  EXPECT_EQ(std::vector<bool>{true}, answers.results);
  EXPECT_TRUE(answers.onMain);
  EXPECT_EQ("original", readText(dir / "detached.sketch"));
  // No artboard list goes out as an empty array.
  EXPECT_EQ(JsonValue(JsonObject{{"fileName", dir / "in.sketch"},
                                 {"artboardIDs", JsonArray()},
                                 {"outputFilePath", dir / "detached.sketch"}}),
            readJson(dir / "request.json"));

  // The completion is not cleared: any later answer calls it again.
  postFinish(JsonObject{{"outputFilePath", dir / "in.sketch"}});
  ASSERT_TRUE(pumpMainUntil([&] { return answers.results.size() == 2; }));
  EXPECT_TRUE(answers.results[1]);
}

TEST(PXAnimaDetacher, FailsWhenTheAnsweredFileIsMissingAndTrustsTheAnsweredPath) {
  TempDir dir;
  writeText(dir / "in.sketch", "original");
  {
    // The completion outlives any one answer, so each detacher lives no longer than its Answers.
    auto detacher = PXAnimaDetacher::make();
    FakeAnima anima({"--answer", "missing", "--record", dir / "request.json"});
    ASSERT_TRUE(anima.ready());
    Answers answers;
    detacher->detachSketchFile(dir / "in.sketch", std::vector<std::string>{"A1", "A2"}, dir / "out.sketch",
                               answers.block());
    ASSERT_TRUE(pumpMainUntil([&] { return !answers.results.empty(); }));
    EXPECT_EQ(std::vector<bool>{false}, answers.results);
    EXPECT_EQ(JsonValue(JsonArray{"A1", "A2"}), readJson(dir / "request.json").at("artboardIDs"));
  }
  {
    // Written elsewhere and said so: the answer's path counts, not the request's.
    auto fresh = PXAnimaDetacher::make();
    FakeAnima anima({"--answer", "elsewhere:" + dir / "elsewhere.sketch"});
    ASSERT_TRUE(anima.ready());
    Answers answers;
    fresh->detachSketchFile(dir / "in.sketch", std::nullopt, dir / "requested.sketch", answers.block());
    ASSERT_TRUE(pumpMainUntil([&] { return !answers.results.empty(); }));
    settle();
    EXPECT_FALSE(PXFileManager::fileExists(dir / "requested.sketch"));
    EXPECT_EQ(std::vector<bool>{true}, answers.results);
  }
}

TEST(PXAnimaDetacher, EachRequestAddsAnObservationAndBadAnswersAreIgnored) {
  TempDir dir;
  writeText(dir / "copy.sketch", "detached");
  auto detacher = PXAnimaDetacher::make();
  Answers first, latest;
  // Nobody answers these two requests.
  detacher->detachSketchFile(dir / "a.sketch", std::nullopt, dir / "copy.sketch", first.block());
  detacher->detachSketchFile(dir / "b.sketch", std::nullopt, dir / "copy.sketch", latest.block());
  settle();
  EXPECT_TRUE(first.results.empty() && latest.results.empty()) << "no answer, no call, no time-out";

  LogCapture logs;
  postFinish(std::nullopt);
  postFinish(JsonObject{{"outputFilePath", 42}});
  postFinish(JsonObject{{"outputFilePath", dir / "copy.sketch"}});
  ASSERT_TRUE(pumpMainUntil([&] { return latest.results.size() == 2; }));
  settle();
  // One answer, heard by both observations, calls the latest completion twice.
  EXPECT_EQ((std::vector<bool>{true, true}), latest.results);
  EXPECT_TRUE(first.results.empty());
  EXPECT_EQ(4u, logs.count("has no \"outputFilePath\" text"));

  // A released detacher is not called any more.
  detacher.reset();
  postFinish(JsonObject{{"outputFilePath", dir / "copy.sketch"}});
  settle();
  EXPECT_EQ(2u, latest.results.size());
}
