#include "PXAnimaDetacher.h"

#include "Files.h"
#include "MainQueue.h"
#include "Process.h"
#include "SessionBus.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

[[maybe_unused]] auto* const gEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateSessionEnvironment({"fake-anima"}, false));


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

TEST(PXAnimaDetacher, TheAnsweredPathDecidesSuccessAndTheRequestCarriesTheArtboards) {
  TempDir dir;
  writeText(dir / "in.sketch", "original");
  const std::string out = dir / "out.sketch";
  const struct {
    std::string answer;
    std::optional<std::vector<std::string>> artboards;
    JsonArray sent;
    bool success;
  } cases[] = {
      {"requested", std::nullopt, {}, true},  // no artboard list goes out as an empty array
      {"missing", std::vector<std::string>{"A1", "A2"}, {"A1", "A2"}, false},
      // Written elsewhere and said so: the answer's path counts, not the request's.
      {"elsewhere:" + dir / "elsewhere.sketch", std::nullopt, {}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer);
    PXFileManager::removeItem(out);
    auto anima = startFakeAnima({"--answer", c.answer, "--record", dir / "request.json"});
    ASSERT_TRUE(anima);
    // The completion outlives any one answer, so each detacher lives no longer than its Answers.
    Answers answers;
    auto detacher = PXAnimaDetacher::make();
    detacher->detachSketchFile(dir / "in.sketch", c.artboards, out, answers.block());
    ASSERT_TRUE(pumpMainUntil([&] { return !answers.results.empty(); }));
    settle();
    EXPECT_EQ(std::vector<bool>{c.success}, answers.results);
    EXPECT_TRUE(answers.onMain);
    EXPECT_EQ(c.answer == "requested", PXFileManager::fileExists(out));
    EXPECT_EQ(JsonValue(JsonObject{{"fileName", dir / "in.sketch"}, {"artboardIDs", c.sent}, {"outputFilePath", out}}),
              readJson(dir / "request.json"));
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

  // The completion is not cleared by an answer: a later one calls it again.
  postFinish(JsonObject{{"outputFilePath", dir / "missing.sketch"}});
  ASSERT_TRUE(pumpMainUntil([&] { return latest.results.size() == 4; }));
  EXPECT_EQ((std::vector<bool>{true, true, false, false}), latest.results);

  // A released detacher is not called any more.
  detacher.reset();
  postFinish(JsonObject{{"outputFilePath", dir / "copy.sketch"}});
  settle();
  EXPECT_EQ(4u, latest.results.size());
}
