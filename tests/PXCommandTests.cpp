#include "MainQueue.h"
#include "PXCommand.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

using namespace plexa;
using namespace std::chrono_literals;

namespace {

// Lines and completion of one streaming run, as the main thread saw them.
struct StreamRun {
  std::vector<std::string> calls;
  bool completed = false;
  bool allOnMainThread = true;
  std::weak_ptr<PXCommand> command;

  explicit StreamRun(const std::string& script) {
    auto started = PXCommand::runCommand(
        "/bin/sh", {"-c", script},
        [this](const std::string& lines) {
          allOnMainThread = allOnMainThread && PXMainQueue::shared().isMainThread();
          calls.push_back(lines);
        },
        [this] {
          allOnMainThread = allOnMainThread && PXMainQueue::shared().isMainThread();
          completed = true;
        });
    command = started;
  }

  bool finish(std::chrono::milliseconds timeout = 10s) {
    return test::pumpMainUntil([this] { return completed; }, timeout);
  }
};

}  // namespace

TEST(PXCommandStreaming, AssemblesWholeLinesAcrossChunks) {
  StreamRun lastLineWithoutBreak("printf 'a\\nb\\nc'");
  ASSERT_TRUE(lastLineWithoutBreak.finish());
  EXPECT_EQ(lastLineWithoutBreak.calls, (std::vector<std::string>{"a\nb", "c"}));
  EXPECT_TRUE(lastLineWithoutBreak.allOnMainThread);

  StreamRun splitLine("printf ab; sleep 0.3; printf 'c\\n'");
  ASSERT_TRUE(splitLine.finish());
  EXPECT_EQ(splitLine.calls, (std::vector<std::string>{"abc"}));

  StreamRun endsWithBreak("printf 'x\\ny\\n'");
  ASSERT_TRUE(endsWithBreak.finish());
  EXPECT_EQ(endsWithBreak.calls, (std::vector<std::string>{"x\ny"}));

  // A character cut by a read boundary arrives whole.
  StreamRun splitCharacter("printf '\\303'; sleep 0.3; printf '\\251\\n'");
  ASSERT_TRUE(splitCharacter.finish());
  EXPECT_EQ(splitCharacter.calls, (std::vector<std::string>{"\xC3\xA9"}));
}

TEST(PXCommandStreaming, KeepsItselfAliveUntilItsCompletionAndNotLonger) {
  StreamRun run("sleep 0.2; echo done");
  EXPECT_FALSE(run.command.expired());
  ASSERT_TRUE(run.finish());
  EXPECT_EQ(run.calls, (std::vector<std::string>{"done"}));
  // The completion has run; nothing holds the command any more.
  test::pumpMainUntil([&] { return run.command.expired(); }, 1s);
  EXPECT_TRUE(run.command.expired());
}

TEST(PXCommandStreaming, DoesNotWaitForLeftOverDescendants) {
  auto start = std::chrono::steady_clock::now();
  StreamRun run("sleep 3 & echo parent-done");
  ASSERT_TRUE(run.finish(2500ms));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2500ms);
  EXPECT_EQ(run.calls, (std::vector<std::string>{"parent-done"}));
}

TEST(PXCommandStreaming, CancelKillsTheProgramAndStillCompletes) {
  StreamRun run("echo first; exec sleep 30");
  ASSERT_TRUE(test::pumpMainUntil([&] { return !run.calls.empty(); }));
  auto command = run.command.lock();
  ASSERT_TRUE(command);
  command->cancel();
  EXPECT_TRUE(command->isCancelled());
  auto cancelledAt = std::chrono::steady_clock::now();
  ASSERT_TRUE(run.finish(5s));
  EXPECT_LT(std::chrono::steady_clock::now() - cancelledAt, 5s);
  EXPECT_EQ(run.calls, (std::vector<std::string>{"first"}));
}

TEST(PXCommandStreaming, LaunchFailureReachesTheCaller) {
  bool completed = false;
  EXPECT_THROW(PXCommand::runCommand("/nonexistent/tool", {}, nullptr, [&] { completed = true; }),
               std::runtime_error);
  test::pumpMainUntil([&] { return completed; }, 200ms);
  EXPECT_FALSE(completed);
}

TEST(PXCommandLineAssembly, KeepsThePartialLineUntilMoreTextOrTheEnd) {
  auto command = PXCommand::make();
  std::vector<std::string> calls;
  command->handler = [&](const std::string& lines) { calls.push_back(lines); };

  command->handleString(std::string("par"));
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(command->extraData(), std::optional<std::string>("par"));
  command->handleString(std::string("tial\nnext"));
  EXPECT_EQ(calls, (std::vector<std::string>{"partial"}));
  // Absent text stands for a line end and flushes what was kept.
  command->handleString(std::nullopt);
  EXPECT_EQ(calls, (std::vector<std::string>{"partial", "next"}));
  EXPECT_FALSE(command->extraData());
  // Blank lines travel as they are; a lone flush with nothing kept says nothing.
  command->handleString(std::string("\n\n"));
  command->handleString(std::string());
  EXPECT_EQ(calls, (std::vector<std::string>{"partial", "next", "\n"}));
}

TEST(PXCommandSynchronous, ReturnsBothStreamsAndHonoursTheWorkingFolder) {
  std::string output = PXCommand::runCommand("/bin/sh", {"-c", "echo out; echo err >&2; exit 3"});
  EXPECT_NE(output.find("out\n"), std::string::npos);
  EXPECT_NE(output.find("err\n"), std::string::npos);

  test::TempDir folder;
  std::string here = PXCommand::runCommand("/bin/sh", folder.path(), {"-c", "pwd -P"});
  char resolved[PATH_MAX];
  ASSERT_TRUE(realpath(folder.path().c_str(), resolved));
  EXPECT_EQ(here, std::string(resolved) + "\n");

  // Output that is not UTF-8 is no text.
  EXPECT_EQ(PXCommand::runCommand("/bin/sh", {"-c", "printf 'ok\\377'"}), "");
}

TEST(PXCommandSynchronous, MissingExecutableReturnsEmptyAndLogs) {
  test::LogCapture log;
  EXPECT_EQ(PXCommand::runCommand("/nonexistent/tool", {"x"}), "");
  EXPECT_TRUE(log.contains("Caught exception trying to launch task at path: [/nonexistent/tool]. Exception: ["));

  test::TempDir folder;
  test::writeText(folder / "not-executable", "#!/bin/sh\necho hi\n");
  EXPECT_EQ(PXCommand::runCommand(folder / "not-executable", {}), "");
  EXPECT_EQ(log.count("Caught exception trying to launch task"), 2u);
}

TEST(PXCommandDescription, EscapesBlanksInsideArguments) {
  auto command = PXCommand::make();
  command->command = "/usr/bin/tool";
  command->args = {"a b", "c"};
  EXPECT_EQ(command->description(), "/usr/bin/tool a\\ b c");
  command->args = {"two  blanks", ""};
  EXPECT_EQ(command->description(), "/usr/bin/tool two\\ \\ blanks ");
}
