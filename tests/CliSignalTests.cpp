// Signals that end plexa-extract: each one exits with 128 + its number, at
// once even while the run is busy, and leaves no temporary folder, no
// result of the stopped run and no sketchtool behind.
#include "CliRun.h"
#include "Files.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <thread>

using namespace plexa;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

// One page with `count` empty artboards.
std::string writeManyArtboards(const std::string& path, int count) {
  JsonArray artboards;
  for (int i = 0; i < count; ++i)
    artboards.push_back(artboard("AB" + std::to_string(100000 + i), "A" + std::to_string(i), frame(i * 20, 0, 10, 10)));
  SketchFixture fixture;
  fixture.addPage(page("P1", "Page", std::move(artboards)));
  return fixture.writeSketch(path);
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

bool isGone(pid_t pid) {
  std::string status = PXFileManager::readFile("/proc/" + std::to_string(pid) + "/status").value_or("State:\tgone");
  return status.find("State:\tZ") != std::string::npos || status.find("gone") != std::string::npos;
}

struct Folders {
  TempDir dir;
  std::string out = dir / "out";
  std::string tmp = dir / "tmp";
  Folders() { PXFileManager::createDirectory(tmp, true); }
};

}  // namespace

// A folder the user had is emptied, not removed.
TEST(CliSignals, EachEndingSignalExitsWithItsNumberAndLeavesNothing) {
  struct Case {
    int signal;
    const char* name;
    bool folderExisted = false;
  };
  for (const auto& c : {Case{SIGINT, "SIGINT"}, Case{SIGTERM, "SIGTERM"}, Case{SIGHUP, "SIGHUP"},
                        Case{SIGQUIT, "SIGQUIT"}, Case{SIGTERM, "SIGTERM", true}}) {
    SCOPED_TRACE(std::string(c.name) + (c.folderExisted ? " into an existing folder" : ""));
    Folders f;
    std::string sample = makeSample(f.dir.path());
    std::string log = f.dir / "tool.log";
    if (c.folderExisted) PXFileManager::createDirectory(f.out, true);
    CliProcess run({sample, "-o", f.out, "--progress", "none", "--sketchtool", fakeSketchtoolPath()},
                   {{"TMPDIR", f.tmp}, {"PLEXA_FAKE_SKETCHTOOL_SLEEP_MS", "20000"}, {"PLEXA_FAKE_SKETCHTOOL_LOG", log}},
                   f.dir / "output.txt");
    // Stopped while sketchtool renders: the meta files are written by then.
    ASSERT_TRUE(waitFor([&] { return !toolRuns(log).empty(); }, 20s));
    run.signal(c.signal);
    auto result = run.wait(5s);
    ASSERT_TRUE(result) << "still running 5 s after " << c.name;
    EXPECT_EQ(result->exitCode, 128 + c.signal) << result->output;
    EXPECT_TRUE(contains(result->output, std::string("stopped by ") + c.name)) << result->output;
    EXPECT_EQ(PXFileManager::fileExists(f.out), c.folderExisted);
    EXPECT_TRUE(entriesOf(f.out).empty());
    EXPECT_TRUE(entriesOf(f.tmp).empty());
    for (const auto& tool : toolRuns(log)) EXPECT_TRUE(isGone(tool.pid)) << tool.pid;
  }
}

TEST(CliSignals, AnInterruptIsHonouredWhileTheMetaWalkIsBusy) {
  Folders f;
  std::string document = writeManyArtboards(f.dir / "many.sketch", 100000);
  CliProcess run({document, "-o", f.out, "--meta", "--progress", "none"}, {{"TMPDIR", f.tmp}},
                 f.dir / "output.txt");
  // Well inside the walk: its files are appearing.
  ASSERT_TRUE(waitFor([&] { return entriesOf(f.out).size() >= 200; }, 120s));
  run.signal(SIGINT);
  auto result = run.wait(3s);
  ASSERT_TRUE(result) << "the interrupt waited for the walk";
  EXPECT_EQ(result->exitCode, 130) << result->output;
  EXPECT_FALSE(PXFileManager::fileExists(f.out));
  EXPECT_TRUE(entriesOf(f.tmp).empty());
}

TEST(CliSignals, AnInterruptedSaveDetachedLeavesNoTemporaryFolderOrPartialFile) {
  Folders f;
  std::string document = writeManyArtboards(f.dir / "many.sketch", 100000);
  std::string target = f.dir / "saved/detached.sketch";
  PXFileManager::createDirectory(f.dir / "saved", true);
  CliProcess run({document, "--save-detached", target}, {{"TMPDIR", f.tmp}}, f.dir / "output.txt");
  ASSERT_TRUE(waitFor([&] { return !entriesOf(f.tmp).empty(); }, 60s));
  run.signal(SIGINT);
  auto result = run.wait(3s);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->exitCode, 130) << result->output;
  EXPECT_TRUE(contains(result->output, "stopped by SIGINT")) << result->output;
  EXPECT_TRUE(entriesOf(f.tmp).empty());
  EXPECT_TRUE(entriesOf(f.dir / "saved").empty());
}
