#include "PXSketchUnzipper.h"

#include "Files.h"
#include "Log.h"
#include "MainQueue.h"
#include "PathString.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <thread>

using namespace plexa;
using namespace plexa::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

// What a completion saw, filled from whichever thread it ran on.
struct CompletionRecord {
  std::mutex mutex;
  std::atomic<bool> called{false};
  bool success = false;
  std::string path;
  std::thread::id thread;
  bool onMain = false;
  int calls = 0;

  PXSketchUnzipper::Completion block() {
    return [this](bool ok, const std::string& p) {
      std::lock_guard lock(mutex);
      success = ok;
      path = p;
      thread = std::this_thread::get_id();
      onMain = PXMainQueue::shared().isMainThread();
      ++calls;
      called = true;
    };
  }
  bool wait() { return pumpMainUntil([this] { return called.load(); }); }
};

SketchFixture smallDocument() {
  SketchFixture fixture;
  fixture.addPage(page("PAGE-1", "Page 1", JsonArray{artboard("AB-1", "Home", frame(0, 0, 375, 812))}));
  return fixture;
}

class RecordingDelegate : public PXSketchUnzipperDelegate {
 public:
  void sketchUnzipper(PXSketchUnzipper&, uint64_t progress, uint64_t count) override {
    steps.emplace_back(progress, count);
    onMain = onMain && PXMainQueue::shared().isMainThread();
  }
  std::vector<std::pair<uint64_t, uint64_t>> steps;
  bool onMain = true;
};

}  // namespace

TEST(PXSketchUnzipperStatus, PlainUnzipCompletesWithTheInputFromABackgroundQueue) {
  TempDir dir;
  std::string sketch = smallDocument().writeSketch(dir / "in.sketch");
  for (const std::optional<std::string>& method : {std::optional<std::string>(), std::optional<std::string>("none")}) {
    SCOPED_TRACE(method.value_or("(absent)"));
    auto unzipper = PXSketchUnzipper::make();
    unzipper->sketchFilePath = sketch;
    unzipper->detachMethod = method;
    unzipper->v2Detacher = true;  // ignored when nothing is detached
    std::string folder = dir / ("out-" + method.value_or("absent") + "/nested");
    CompletionRecord record;
    std::string status = unzipper->unzipToFolderPath(folder, record.block());

    EXPECT_EQ(status.rfind("unzipped ", 0), 0u) << status;
    EXPECT_NE(status.find(sketch), std::string::npos);
    EXPECT_EQ(unzipper->outputFolderPath, folder);
    EXPECT_TRUE(PXFileManager::fileExists(folder + "/pages/PAGE-1.json"));
    ASSERT_TRUE(record.wait());
    std::lock_guard lock(record.mutex);
    EXPECT_TRUE(record.success);
    EXPECT_EQ(record.path, sketch);
    EXPECT_FALSE(record.onMain);
    EXPECT_NE(record.thread, std::this_thread::get_id());
  }
}

TEST(PXSketchUnzipperStatus, CancelledAndUncreatableFolders) {
  TempDir dir;
  std::string sketch = smallDocument().writeSketch(dir / "in.sketch");

  // Cancelled: nothing is created and the completion never comes.
  auto cancelled = PXSketchUnzipper::make();
  cancelled->sketchFilePath = sketch;
  cancelled->cancel();
  CompletionRecord never;
  EXPECT_EQ(cancelled->unzipToFolderPath(dir / "cancelled", never.block()), "cancelled");
  EXPECT_FALSE(pumpMainUntil([&] { return never.called.load(); }, std::chrono::milliseconds(200)));
  EXPECT_FALSE(PXFileManager::fileExists(dir / "cancelled"));
  EXPECT_TRUE(cancelled->outputFolderPath.empty());

  // A folder below a plain file cannot exist: reported at once, on this thread.
  writeText(dir / "file", "x");
  std::string impossible = dir / "file/unzipped";
  LogCapture log;
  auto unzipper = PXSketchUnzipper::make();
  unzipper->sketchFilePath = sketch;
  CompletionRecord record;
  EXPECT_EQ(unzipper->unzipToFolderPath(impossible, record.block()), "could not create temp directory");
  EXPECT_TRUE(record.called);
  EXPECT_FALSE(record.success);
  EXPECT_EQ(record.path, impossible);
  EXPECT_EQ(record.thread, std::this_thread::get_id());
  EXPECT_THAT(log.at(PXLogFlagError),
              ElementsAre("Could not create temp folder: " + impossible, StartsWith("Error: ")));
}

TEST(PXSketchUnzipperStatus, JsonDetachingAnswersOnTheMainQueueAfterItsProgress) {
  TempDir dir;
  std::string sketch = smallDocument().writeSketch(dir / "in.sketch");
  writeText(dir / "text.sketch", "not a zip");
  // A document that unzips is detached and zipped again inside the folder;
  // one that does not still answers, with failure, after the first step.
  for (const auto& [input, works] : {std::pair{sketch, true}, std::pair{dir / "text.sketch", false}}) {
    SCOPED_TRACE(input);
    auto delegate = std::make_shared<RecordingDelegate>();
    auto unzipper = PXSketchUnzipper::make();
    unzipper->sketchFilePath = input;
    unzipper->detachMethod = "selection";
    unzipper->v2Detacher = true;
    unzipper->delegate = delegate;
    const std::string folder = dir / (works ? "json" : "json-broken");
    CompletionRecord record;
    EXPECT_EQ(unzipper->unzipToFolderPath(folder, record.block()), PXSketchUnzipper::kAsyncStatus);
    EXPECT_TRUE(delegate->steps.empty()) << "progress is delivered only when the main queue runs";
    ASSERT_TRUE(record.wait());
    std::lock_guard lock(record.mutex);
    EXPECT_EQ(record.success, works);
    EXPECT_EQ(record.path, folder);
    EXPECT_TRUE(record.onMain);
    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(unzipper->detachedSketchFilePath, folder + "/" + PXLastPathComponent(input));
    EXPECT_EQ(PXZip::entryNames(unzipper->detachedSketchFilePath).has_value(), works);
    // Progress, posted from the background, is queued on the main queue before the completion.
    std::vector<std::pair<uint64_t, uint64_t>> steps;
    for (uint64_t step = 0; step <= (works ? 5u : 0u); ++step) steps.emplace_back(step, 5);
    EXPECT_EQ(delegate->steps, steps);
    EXPECT_TRUE(delegate->onMain);
  }
}

TEST(PXSketchUnzipperFormatting, PrettyPrintRewritesJSONAndNoPrettyKeepsArchiveBytes) {
  TempDir dir;
  std::string sketch = smallDocument().addEntry("previews/raw.png", "\x89PNG raw").writeSketch(dir / "in.sketch");
  const std::vector<std::string> json = {"document.json", "meta.json", "user.json", "pages/PAGE-1.json"};

  auto plain = PXSketchUnzipper::unzip(sketch, dir / "plain", false);
  ASSERT_TRUE(plain.success) << plain.output;
  for (const auto& name : json) EXPECT_EQ(readText(dir / "plain/" + name), *PXZip::readEntry(sketch, name)) << name;

  auto pretty = PXSketchUnzipper::unzip(sketch, dir / "pretty", true);
  ASSERT_TRUE(pretty.success) << pretty.output;
  EXPECT_NE(pretty.output.find("pretty-printed 4 of 4 JSON files"), std::string::npos) << pretty.output;
  for (const auto& name : json) {
    auto original = *PXJsonParse(*PXZip::readEntry(sketch, name));
    EXPECT_EQ(readText(dir / "pretty/" + name), *PXJsonSerialize(original, true)) << name;
  }
  EXPECT_NE(readText(dir / "pretty/pages/PAGE-1.json").find("\n  \"_class\" : \"page\""), std::string::npos);
  EXPECT_EQ(readText(dir / "pretty/previews/raw.png"), "\x89PNG raw");
  EXPECT_EQ(*PXFileManager::contentsOfDirectory(dir / "pretty/pages"), std::vector<std::string>{"PAGE-1.json"});

  // The instance form follows the unzipper's own switch.
  auto unzipper = PXSketchUnzipper::make();
  unzipper->prettyPrint = true;
  ASSERT_TRUE(unzipper->unzip(sketch, dir / "instance").success);
  EXPECT_EQ(readText(dir / "instance/meta.json"), readText(dir / "pretty/meta.json"));
}

TEST(PXSketchUnzipperFormatting, MalformedJSONIsKeptAsItIs) {
  TempDir dir;
  std::string sketch = smallDocument().addEntry("pages/BROKEN.json", "{\"layers\": [").writeSketch(dir / "in.sketch");
  LogCapture log;
  auto result = PXSketchUnzipper::unzip(sketch, dir / "out", true);
  EXPECT_TRUE(result.success) << result.output;
  EXPECT_NE(result.output.find("pretty-printed 4 of 5 JSON files"), std::string::npos) << result.output;
  EXPECT_EQ(readText(dir / "out/pages/BROKEN.json"), "{\"layers\": [");
  EXPECT_THAT(log.at(PXLogFlagWarning), ElementsAre(HasSubstr("BROKEN.json")));
  EXPECT_TRUE(log.at(PXLogFlagError).empty());
}

TEST(PXSketchUnzipperFailure, ReportsFalseWithOneErrorLine) {
  TempDir dir;
  struct Case {
    std::string name;
    std::string sketch;
    uint64_t cap;
    std::string reason;
  };
  std::string hostile = dir / "hostile.sketch";
  ASSERT_TRUE(PXZip::zipEntries({{"document.json", "{}"}, {"../escape.json", "{}"}}, hostile));
  writeText(dir / "text.sketch", "not a zip");
  const std::vector<Case> cases = {
      {"not a zip", dir / "text.sketch", PXSketchUnzipper::kDefaultMaxUncompressedBytes, "not a readable zip archive"},
      {"missing", dir / "missing.sketch", PXSketchUnzipper::kDefaultMaxUncompressedBytes, "not a readable zip archive"},
      {"hostile", hostile, PXSketchUnzipper::kDefaultMaxUncompressedBytes, "unsafe path"},
      {"too big", smallDocument().writeSketch(dir / "in.sketch"), 64, "size limit"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    auto unzipper = PXSketchUnzipper::make();
    unzipper->sketchFilePath = c.sketch;
    unzipper->maxUncompressedBytes = c.cap;
    CompletionRecord record;
    std::string status = unzipper->unzipToFolderPath(dir / ("out-" + c.name), record.block());
    EXPECT_EQ(status.rfind("could not unzip " + c.sketch + ": ", 0), 0u) << status;
    EXPECT_NE(status.find(c.reason), std::string::npos) << status;
    ASSERT_TRUE(record.wait());
    EXPECT_FALSE(record.success);
    EXPECT_EQ(record.path, c.sketch);
    EXPECT_THAT(log.at(PXLogFlagError), ElementsAre(HasSubstr(c.reason)));
  }
  EXPECT_FALSE(PXFileManager::fileExists(dir / "escape.json"));
}

// Delivery from a background thread is covered by the detaching test above.
TEST(PXSketchUnzipperProgress, AReleasedDelegateOrUnzipperGetsNothing) {
  auto unzipper = PXSketchUnzipper::make();
  auto gone = std::make_shared<RecordingDelegate>();
  unzipper->delegate = gone;
  unzipper->updateProgress(1, 5);
  std::weak_ptr<RecordingDelegate> watch = gone;
  gone.reset();
  auto other = std::make_shared<RecordingDelegate>();
  auto shortLived = PXSketchUnzipper::make();
  shortLived->delegate = other;
  shortLived->updateProgress(2, 5);
  shortLived.reset();
  PXMainQueue::shared().drain();
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(other->steps.empty());
}

TEST(PXSketchUnzipperStatus, JsonDetachingWritesImagesOnlyForTheDetachedFile) {
  TempDir dir;
  std::string sketch = smallDocument().addEntry("images/bitmap.png", "PNG bytes").writeSketch(dir / "in.sketch");
  for (bool writesDetachedFile : {true, false}) {
    SCOPED_TRACE(writesDetachedFile);
    auto unzipper = PXSketchUnzipper::make();
    unzipper->sketchFilePath = sketch;
    unzipper->detachMethod = "all";
    unzipper->v2Detacher = true;
    unzipper->writesDetachedFile = writesDetachedFile;
    const std::string folder = dir / (writesDetachedFile ? "with-file" : "pages-only");
    CompletionRecord record;
    unzipper->unzipToFolderPath(folder, record.block());
    ASSERT_TRUE(record.wait());
    EXPECT_TRUE(record.success);
    // The folder keeps its shape; the image's bytes come only when the
    // detached file, which carries them, is written.
    EXPECT_TRUE(PXFileManager::fileExists(folder + "/images"));
    EXPECT_EQ(PXFileManager::fileExists(folder + "/images/bitmap.png"), writesDetachedFile);
    EXPECT_TRUE(PXFileManager::fileExists(folder + "/pages/PAGE-1.json"));
    auto detached = PXZip::readEntry(unzipper->detachedSketchFilePath, "images/bitmap.png");
    EXPECT_EQ(detached.value_or(""), writesDetachedFile ? "PNG bytes" : "");
    EXPECT_EQ(unzipper->takeDetachedPages().size(), 1u);
  }
}
