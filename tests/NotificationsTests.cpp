#include "Notifications.h"

#include "MainQueue.h"
#include "Process.h"
#include "SessionBus.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <memory>
#include <string>
#include <vector>

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

[[maybe_unused]] auto* const gEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateSessionEnvironment({"fake-anima"}, false));

// Emits a signal from another process with dbus-send, in our wire format; its exit status.
int sendFromOtherProcess(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"dbus-send", "--session", "--type=signal", "/org/plexa/DistributedNotifications",
                                       "org.plexa.DistributedNotifications.Notification"});
  return PXRunProcess("/usr/bin/env", arguments).exitCode;
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
  auto center = PXDistributedNotificationCenter::defaultCenter();
  bool ready = false;
  auto exitCode = std::make_shared<std::optional<int>>();
  Received answers;
  auto readyToken = center->addObserver("PXFakeAnimaReady", std::string("fake-anima"),
                                        [&](const PXNotification&) { ready = true; });
  auto answerToken = center->addObserver("MPSyncAnimaExporterFinishNotification", std::nullopt, answers.block());
  auto peer = PXChildProcess::start(PrivateSessionEnvironment::testDouble("fake-anima"),
                                    {"--answer", "missing", "--record", dir / "request.json"}, std::nullopt, nullptr,
                                    [exitCode](int code) { *exitCode = code; });
  ASSERT_TRUE(peer);
  ASSERT_TRUE(pumpMainUntil([&] { return ready; }));

  JsonObject userInfo{{"fileName", dir / "in.sketch"},
                      {"artboardIDs", JsonArray{"A", "B"}},
                      {"outputFilePath", dir / "out.sketch"},
                      {"scale", 1.5}};
  ASSERT_TRUE(center->postNotificationName("MPSyncAnimaExporterExportNotification", std::nullopt, userInfo));
  ASSERT_TRUE(pumpMainUntil([&] { return !answers.notes.empty() && exitCode->has_value(); }));
  EXPECT_EQ(std::optional<int>(0), *exitCode) << "the peer answered the one request it waited for";

  // What the peer parsed is what was posted, numbers and all.
  EXPECT_EQ(JsonValue(userInfo), readJson(dir / "request.json"));
  ASSERT_TRUE(answers.notes[0].userInfo);
  EXPECT_EQ(dir / "out.sketch", answers.notes[0].userInfo->at("outputFilePath").as_string());
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
