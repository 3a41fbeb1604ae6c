#include "Notifications.h"

#include "Files.h"
#include "MainQueue.h"
#include "SessionBus.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

extern char** environ;

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

// A child process started with the test's environment; killed if still running.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    if (posix_spawnp(&pid_, args[0], nullptr, nullptr, args.data(), environ) != 0) pid_ = -1;
  }
  ~Child() {
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool started() const { return pid_ > 0; }
  // The exit status, or -1 when it has not ended within `timeout`.
  int wait(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      PXMainQueue::shared().runUntil([] { return false; }, 20ms);
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
  bool exited_ = false;
};

// A private session bus and copies of the test doubles for the whole program.
class SessionBus : public PrivateSessionEnvironment {
 public:
  SessionBus() : PrivateSessionEnvironment({"fake-anima"}, false) {}
  static std::string fakeAnima() { return testDouble("fake-anima"); }
};
[[maybe_unused]] auto* const gEnvironment = ::testing::AddGlobalTestEnvironment(new SessionBus);

// Emits a signal from another process with dbus-send, in our wire format.
int sendFromOtherProcess(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv{"dbus-send", "--session", "--type=signal", "/org/plexa/DistributedNotifications",
                                "org.plexa.DistributedNotifications.Notification"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  Child sender(argv);
  return sender.wait(10s);
}

struct Received {
  std::vector<PXNotification> notes;
  bool allOnMainThread = true;
  PXNotificationBlock block() {
    return [this](const PXNotification& note) {
      allOnMainThread = allOnMainThread && PXMainQueue::shared().isMainThread();
      notes.push_back(note);
    };
  }
};

}  // namespace

TEST(DistributedNotifications, DeliversNotificationsFromOtherProcessesOnTheMainThread) {
  auto center = PXDistributedNotificationCenter::defaultCenter();
  ASSERT_TRUE(center->isConnected());
  Received filtered, any, otherObject, otherName;
  auto t1 = center->addObserver("PlexaTestPing", std::string("PlexaExtract"), filtered.block());
  auto t2 = center->addObserver("PlexaTestPing", std::nullopt, any.block());
  auto t3 = center->addObserver("PlexaTestPing", std::string("Other"), otherObject.block());
  auto t4 = center->addObserver("PlexaTestPong", std::nullopt, otherName.block());
  ASSERT_TRUE(t1 && t2 && t3 && t4);

  ASSERT_EQ(0, sendFromOtherProcess({"string:PlexaTestPing", "string:PlexaExtract",
                                     R"(string:{"file":"/tmp/a b/ü.sketch","index":2,"count":5})"}));
  ASSERT_EQ(0, sendFromOtherProcess({"string:PlexaTestPing", "string:", "string:"}));
  ASSERT_TRUE(pumpMainUntil([&] { return any.notes.size() == 2; }));
  pumpMainUntil([] { return false; }, 200ms);

  ASSERT_EQ(1u, filtered.notes.size());
  const auto& note = filtered.notes[0];
  EXPECT_EQ("PlexaTestPing", note.name);
  EXPECT_EQ(std::optional<std::string>("PlexaExtract"), note.object);
  ASSERT_TRUE(note.userInfo);
  EXPECT_EQ("/tmp/a b/ü.sketch", note.userInfo->at("file").as_string());
  EXPECT_EQ(5, note.userInfo->at("count").as_int64());
  EXPECT_FALSE(any.notes[1].object) << "an empty object string stands for no object";
  EXPECT_FALSE(any.notes[1].userInfo);
  EXPECT_TRUE(otherObject.notes.empty());
  EXPECT_TRUE(otherName.notes.empty());
  EXPECT_TRUE(filtered.allOnMainThread && any.allOnMainThread);
}

TEST(DistributedNotifications, RequestsAreAnsweredByAPeerProcess) {
  TempDir dir;
  writeText(dir / "in.sketch", "document bytes");
  auto center = PXDistributedNotificationCenter::defaultCenter();
  bool ready = false;
  Received answers;
  auto readyToken = center->addObserver("PXFakeAnimaReady", std::string("fake-anima"),
                                        [&](const PXNotification&) { ready = true; });
  auto answerToken = center->addObserver("MPSyncAnimaExporterFinishNotification", std::nullopt, answers.block());
  Child peer({SessionBus::fakeAnima(), "--record", dir / "request.json"});
  ASSERT_TRUE(peer.started());
  ASSERT_TRUE(pumpMainUntil([&] { return ready; }));

  JsonObject userInfo{{"fileName", dir / "in.sketch"},
                      {"artboardIDs", JsonArray{"A", "B"}},
                      {"outputFilePath", dir / "out.sketch"},
                      {"scale", 1.5}};
  ASSERT_TRUE(center->postNotificationName("MPSyncAnimaExporterExportNotification", std::nullopt, userInfo));
  ASSERT_TRUE(pumpMainUntil([&] { return !answers.notes.empty(); }));
  EXPECT_EQ(0, peer.wait(10s));

  // What the peer parsed is what was posted, numbers and all.
  EXPECT_EQ(JsonValue(userInfo), readJson(dir / "request.json"));
  ASSERT_TRUE(answers.notes[0].userInfo);
  EXPECT_EQ(dir / "out.sketch", answers.notes[0].userInfo->at("outputFilePath").as_string());
  EXPECT_EQ("document bytes", readText(dir / "out.sketch"));
}

TEST(DistributedNotifications, RemovedObserversHearNothingMore) {
  auto center = PXDistributedNotificationCenter::defaultCenter();
  Received kept, removedInBlock, dropped;
  auto keep = center->addObserver("PlexaTestRemoval", std::nullopt, kept.block());
  PXNotificationObserver selfRemoving;
  selfRemoving = center->addObserver("PlexaTestRemoval", std::nullopt, [&](const PXNotification& note) {
    removedInBlock.notes.push_back(note);
    selfRemoving.remove();
  });
  {
    auto scoped = center->addObserver("PlexaTestRemoval", std::nullopt, dropped.block());
    ASSERT_TRUE(scoped);
  }
  // Moving a token keeps one observation, not two.
  PXNotificationObserver moved = std::move(keep);
  EXPECT_FALSE(keep);

  for (int i = 0; i < 3; ++i) ASSERT_TRUE(center->postNotificationName("PlexaTestRemoval"));
  ASSERT_TRUE(pumpMainUntil([&] { return kept.notes.size() == 3; }));
  pumpMainUntil([] { return false; }, 200ms);
  EXPECT_EQ(3u, kept.notes.size());
  EXPECT_EQ(1u, removedInBlock.notes.size());
  EXPECT_TRUE(dropped.notes.empty());
  EXPECT_FALSE(selfRemoving);
}

TEST(DistributedNotifications, MalformedSignalsAreDroppedWithALogLine) {
  auto center = PXDistributedNotificationCenter::defaultCenter();
  Received received;
  auto token = center->addObserver("PlexaTestBad", std::nullopt, received.block());
  LogCapture logs;
  ASSERT_EQ(0, sendFromOtherProcess({"string:PlexaTestBad", "string:"}));  // two strings, not three
  ASSERT_EQ(0, sendFromOtherProcess({"string:PlexaTestBad", "string:", "string:{not json"}));
  ASSERT_EQ(0, sendFromOtherProcess({"string:PlexaTestBad", "string:", "string:[1,2]"}));
  ASSERT_EQ(0, sendFromOtherProcess({"string:PlexaTestBad", "int32:7", "string:", "string:"}));
  ASSERT_EQ(0, sendFromOtherProcess({"string:PlexaTestBad", "string:good", R"(string:{"k":true})"}));
  ASSERT_TRUE(pumpMainUntil([&] { return !received.notes.empty(); }));
  pumpMainUntil([] { return false; }, 200ms);

  ASSERT_EQ(1u, received.notes.size()) << "only the well-formed one arrives, after the bad ones";
  EXPECT_EQ(std::optional<std::string>("good"), received.notes[0].object);
  EXPECT_EQ(2u, logs.count("unexpected signature"));
  EXPECT_EQ(2u, logs.count("not a JSON dictionary"));
}

TEST(DistributedNotifications, WithoutABusNothingIsSentOrObservedAndOneErrorIsLogged) {
  LogCapture logs;
  auto start = std::chrono::steady_clock::now();
  auto center = PXDistributedNotificationCenter::make("unix:path=/nonexistent/plexa-test-bus");
  EXPECT_FALSE(center->postNotificationName("PlexaTestNoBus", std::string("x"), JsonObject{{"a", 1}}));
  auto token = center->addObserver("PlexaTestNoBus", std::nullopt, [](const PXNotification&) {});
  EXPECT_FALSE(token);
  EXPECT_FALSE(center->isConnected());
  EXPECT_FALSE(center->postNotificationName("PlexaTestNoBus"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(1u, logs.count("No D-Bus session bus"));

  // A user-info value that JSON cannot carry is refused before anything is sent.
  auto connected = PXDistributedNotificationCenter::defaultCenter();
  EXPECT_FALSE(connected->postNotificationName("PlexaTestNaN", std::nullopt,
                                               JsonObject{{"n", std::numeric_limits<double>::quiet_NaN()}}));
  EXPECT_TRUE(logs.contains("Cannot post distributed notification PlexaTestNaN"));
}
