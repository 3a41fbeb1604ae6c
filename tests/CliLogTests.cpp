// What the host shows of the library's log at each verbosity, and how it reads.
#include "CliRun.h"
#include "ChildErrorRelay.h"
#include "ConsoleLog.h"
#include "PXSketchTool.h"
#include "Process.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <regex>

using namespace plexa;
using namespace plexa::cli;
using namespace plexa::test;

namespace {

struct Record {
  unsigned flag;
  std::string message;
  const char* file = "/src/Classes/PXSketchTool.cpp";
  const char* function = "defaultPath";
  int line = 96;
  PXLogRecord record() const { return {flag, file, function, line, message}; }
};

std::vector<std::string> shown(int verbosity, const std::vector<Record>& records, bool color = false) {
  std::vector<std::string> lines;
  ConsoleLog log(verbosity, color, [&](const std::string& line) { lines.push_back(line); });
  for (const auto& r : records) log.write(r.record());
  return lines;
}

const std::regex kDetailed(R"(^\d\d:\d\d:\d\d\.\d{3} (error|warning|info|debug|trace) .*)");

}  // namespace

TEST(ConsoleLog, EachVerbosityShowsItsLevelsAndNothingBelow) {
  const std::vector<Record> records = {{PXLogFlagError, "e"},   {PXLogFlagWarning, "w"}, {PXLogFlagInfo, "i"},
                                       {PXLogFlagDebug, "d"},   {PXLogFlagVerbose, "v"}, {0, "batch png-7 started"}};
  struct Case {
    int verbosity;
    size_t lines;
  };
  // -q, default, -v, -vv, -vvv; plain system log lines are debug output.
  for (auto [verbosity, count] : {Case{-1, 1}, Case{0, 2}, Case{1, 3}, Case{2, 5}, Case{3, 6}}) {
    SCOPED_TRACE(verbosity);
    EXPECT_EQ(shown(verbosity, records).size(), count);
    EXPECT_EQ(ConsoleLog::levelMaskFor(verbosity) & ~PXLogLevelVerbose, 0u);
  }
  EXPECT_EQ(ConsoleLog::levelMaskFor(-1), unsigned(PXLogLevelError));
  EXPECT_EQ(ConsoleLog::levelMaskFor(0), unsigned(PXLogLevelWarning));
  EXPECT_EQ(ConsoleLog::levelMaskFor(1), unsigned(PXLogLevelInfo));
  EXPECT_EQ(ConsoleLog::levelMaskFor(2), unsigned(PXLogLevelDebug));
  EXPECT_EQ(ConsoleLog::levelMaskFor(3), unsigned(PXLogLevelVerbose));
  EXPECT_EQ(ConsoleLog::shownFlag(0), unsigned(PXLogFlagDebug));
}

TEST(ConsoleLog, PlainWordsOnceBelowDebugAndDetailsFromDebugOn) {
  const std::vector<Record> records = {{PXLogFlagError, "Could not find sketch tool"},
                                       {PXLogFlagError, "Could not find sketch tool"},
                                       {PXLogFlagWarning, "font missing"},
                                       {PXLogFlagError, "Could not find sketch tool"},
                                       {PXLogFlagWarning, "font missing"},
                                       {PXLogFlagInfo, "note"},
                                       {PXLogFlagInfo, "note"}};
  EXPECT_EQ(shown(0, records), (std::vector<std::string>{"error: Could not find sketch tool", "warning: font missing"}));
  EXPECT_EQ(shown(1, records), (std::vector<std::string>{"error: Could not find sketch tool", "warning: font missing",
                                                         "note", "note"}));

  auto detailed = shown(2, records);
  ASSERT_EQ(detailed.size(), records.size());
  for (const auto& line : detailed) EXPECT_TRUE(std::regex_match(line, kDetailed)) << line;
  EXPECT_NE(detailed[0].find(" error [PXSketchTool.cpp:96 defaultPath] Could not find sketch tool"), std::string::npos)
      << detailed[0];
  // A plain system log line has no place to name.
  auto system = shown(2, {{0, "total artboards count 253, queues count 2", "", "", 0}});
  ASSERT_EQ(system.size(), 1u);
  EXPECT_TRUE(std::regex_match(system[0], std::regex(R"(^\S+ debug total artboards count 253, queues count 2$)")))
      << system[0];
}

TEST(ConsoleLog, ColourOnlyWhenWanted) {
  auto colored = shown(0, {{PXLogFlagError, "bad"}, {PXLogFlagWarning, "odd"}}, true);
  EXPECT_EQ(colored, (std::vector<std::string>{"\x1b[31merror\x1b[0m: bad", "\x1b[33mwarning\x1b[0m: odd"}));
  for (const auto& line : shown(3, {{PXLogFlagError, "bad"}, {PXLogFlagDebug, "d"}}, false))
    EXPECT_EQ(line.find('\x1b'), std::string::npos) << line;

  struct Case {
    const char* choice;
    bool terminal;
    const char* noColor;
    bool wanted;
  };
  for (const auto& c : {Case{"auto", true, nullptr, true}, Case{"auto", true, "", true}, Case{"auto", true, "1", false},
                        Case{"auto", false, nullptr, false}, Case{"always", false, "1", true},
                        Case{"never", true, nullptr, false}}) {
    EXPECT_EQ(colorWanted(c.choice, c.terminal, c.noColor), c.wanted)
        << c.choice << " " << c.terminal << " " << (c.noColor ? c.noColor : "(unset)");
  }
}

TEST(ConsoleLog, DemotedErrorsAreDebugOutput) {
  std::vector<std::string> lines;
  ConsoleLog log(0, false, [&](const std::string& line) { lines.push_back(line); });
  {
    ConsoleLog::Demotion demotion(log);
    log.write(Record{PXLogFlagError, "Could not find sketch tool"}.record());
  }
  EXPECT_TRUE(lines.empty());
  log.write(Record{PXLogFlagError, "after"}.record());
  EXPECT_EQ(lines, std::vector<std::string>{"error: after"});

  ConsoleLog debug(2, false, [&](const std::string& line) { lines.push_back(line); });
  ConsoleLog::Demotion demotion(debug);
  debug.write(Record{PXLogFlagError, "lookup"}.record());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[1].find(" debug [PXSketchTool.cpp:96 defaultPath] lookup"), std::string::npos) << lines[1];
}

TEST(ConsoleLog, InstalledItTakesTheLibrarysLinesInsteadOfStderr) {
  std::vector<std::string> lines;
  auto configured = PXSketchTool::configuredLocations();
  auto bundled = PXSketchTool::bundledRendererLocations();
  TempDir empty;
  {
    ScopedEnv path("PATH", empty.path());
    ScopedEnv tool("sketchToolPath", empty / "none");
    PXSketchTool::setConfiguredLocations({});
    PXSketchTool::setBundledRendererLocations({});
    ConsoleLog log(0, false, [&](const std::string& line) { lines.push_back(line); });
    log.install();
    EXPECT_EQ(PXLogLevelMask(), unsigned(PXLogLevelWarning));
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(PXSketchTool::defaultPath());
    PXLogInfo("not at this level");
  }
  PXSketchTool::setConfiguredLocations(configured);
  PXSketchTool::setBundledRendererLocations(bundled);
  EXPECT_EQ(lines, std::vector<std::string>{"error: Could not find sketch tool"});
  // Gone with the object: the library's own writer is back.
  PXLogError("after the host");
  EXPECT_EQ(lines.size(), 1u);
}

TEST(ConsoleLog, TheProgramShowsDebugLinesFromTwoVsOnly) {
  TempDir dir;
  std::string base = std::string(PLEXA_SOURCE_DIR) + "/samples/PlexaSample.sketch --progress none --sketchtool " +
                     PLEXA_TEST_BINARY_DIR + "/fake-sketchtool -o ";
  auto plain = runCliShell(base + dir.path() + "/a");
  auto info = runCliShell(base + dir.path() + "/b -v");
  auto debug = runCliShell(base + dir.path() + "/c -vv");
  for (const auto* output : {&plain, &info}) {
    EXPECT_EQ(output->find("batch png-0 started"), std::string::npos) << *output;
    EXPECT_EQ(output->find(".cpp:"), std::string::npos) << *output;
  }
  EXPECT_NE(debug.find(" debug batch png-0 started\n"), std::string::npos) << debug;
  EXPECT_EQ(debug.find("[PlexaExtract.cpp:"), std::string::npos) << "trace lines belong to -vvv";
  auto trace = runCliShell(base + dir.path() + "/d -vvv");
  EXPECT_NE(trace.find(" trace [PlexaExtract.cpp:"), std::string::npos) << trace;
}

TEST(ConsoleLog, ChildLinesAreShownLikeOurOwn) {
  std::vector<std::string> lines;
  ConsoleLog log(0, false, [&](const std::string& line) { lines.push_back(line); });
  for (const char* line :
       {"08:24:00.137 warning [RenderTypes.cpp:81 skipped] not drawn: a mask", "08:24:00.300 warning [RenderTypes.cpp:81 "
        "skipped] not drawn: a mask", "08:24:00.301 debug [Scene.cpp:12 build] scene built",
        "08:24:00.302 error could not write x.png", "plexa-sketchtool: bad item"})
    log.writeChildLine(line);
  EXPECT_EQ(lines, (std::vector<std::string>{"warning: not drawn: a mask", "error: could not write x.png",
                                             "warning: plexa-sketchtool: bad item"}));

  lines.clear();
  ConsoleLog debug(2, false, [&](const std::string& line) { lines.push_back(line); });
  debug.writeChildLine("08:24:00.301 debug [Scene.cpp:12 build] scene built");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(" debug [Scene.cpp:12 build] scene built"), std::string::npos) << lines[0];
}

TEST(ChildErrorRelay, HandsOverChildrensErrorLinesWhileItExists) {
  std::vector<std::string> lines;
  std::mutex lock;
  auto runChild = [](const std::string& script) {
    bool exited = false;
    std::string error;
    auto child = PXChildProcess::start("/bin/sh", {"-c", script}, std::nullopt, [](std::string_view) {},
                                       [&](int) { exited = true; }, &error);
    ASSERT_TRUE(child) << error;
    ASSERT_TRUE(pumpMainUntil([&] { return exited; }));
  };
  {
    PXChildErrorRelay relay([&](const std::string& line) {
      std::lock_guard guard(lock);
      lines.push_back(line);
    });
    runChild("printf 'one\\r\\ntwo\\n\\nthree' >&2");
  }
  runChild("printf 'not relayed\\n' >&2");
  std::lock_guard guard(lock);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two", "three"}));
}
