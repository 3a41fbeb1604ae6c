#include "MainQueue.h"
#include "PXCommand.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

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
    command = PXCommand::runCommand(
        "/bin/sh", {"-c", script},
        [this](const std::string& lines) {
          allOnMainThread = allOnMainThread && PXMainQueue::shared().isMainThread();
          calls.push_back(lines);
        },
        [this] {
          allOnMainThread = allOnMainThread && PXMainQueue::shared().isMainThread();
          completed = true;
        });
  }

  bool finish(std::chrono::milliseconds timeout = 10s) {
    return test::pumpMainUntil([this] { return completed; }, timeout);
  }
};

}  // namespace

TEST(PXCommandStreaming, AssemblesWholeLinesAcrossChunks) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"printf 'a\\nb\\nc'", {"a\nb", "c"}},           // the last line without a break
      {"printf 'x\\ny\\n'", {"x\ny"}},                  // the last line with one
      {"printf ab; sleep 0.3; printf 'c\\n'", {"abc"}},  // a line cut by a read boundary
      // A character cut by a read boundary arrives whole.
      {"printf '\\303'; sleep 0.3; printf '\\251\\n'", {"\xC3\xA9"}},
  };
  for (const auto& [script, calls] : cases) {
    SCOPED_TRACE(script);
    StreamRun run(script);
    ASSERT_TRUE(run.finish());
    EXPECT_EQ(run.calls, calls);
    EXPECT_TRUE(run.allOnMainThread);
  }
}

TEST(PXCommandStreaming, KeepsItselfAliveUntilItsCompletionAndNotLonger) {
  StreamRun run("sleep 0.2; echo done");
  EXPECT_FALSE(run.command.expired());
  ASSERT_TRUE(run.finish());
  EXPECT_EQ(run.calls, (std::vector<std::string>{"done"}));
  // The completion has run; nothing holds the command any more.
  EXPECT_TRUE(test::pumpMainUntil([&] { return run.command.expired(); }, 1s));
}

TEST(PXCommandStreaming, DoesNotWaitForLeftOverDescendants) {
  StreamRun run("sleep 3 & echo parent-done");
  ASSERT_TRUE(run.finish(2500ms));
  EXPECT_EQ(run.calls, (std::vector<std::string>{"parent-done"}));
}

TEST(PXCommandStreaming, CancelKillsTheProgramAndStillCompletes) {
  StreamRun run("echo first; exec sleep 30");
  ASSERT_TRUE(test::pumpMainUntil([&] { return !run.calls.empty(); }));
  auto command = run.command.lock();
  ASSERT_TRUE(command);
  command->cancel();
  ASSERT_TRUE(run.finish(5s));
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
  EXPECT_EQ(PXCommand::runCommand("/bin/sh", folder.path(), {"-c", "pwd -P"}),
            std::filesystem::canonical(folder.path()).string() + "\n");

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
