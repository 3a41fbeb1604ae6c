// The progress display: how often it draws, how it shares the terminal with
// log lines, how it fits the width, and the events other programs read.
#include "CliRun.h"
#include "ProgressReporter.h"
#include "Summary.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <sstream>

using namespace plexa;
using namespace plexa::cli;
using namespace plexa::test;
using namespace std::chrono_literals;

namespace {

// A terminal and a clock the test controls.
struct FakeTerminal {
  std::string terminal, events;
  int columns = 80;
  std::chrono::steady_clock::time_point now{};
  size_t redraws() const {
    size_t n = 0;
    for (size_t at = terminal.find('\r'); at != std::string::npos; at = terminal.find('\r', at + 1)) ++n;
    return n;
  }
  ProgressOutput output() {
    return {[this](const std::string& text) { terminal += text; }, [this](const std::string& text) { events += text; },
            [this] { return columns; }, [this] { return now; }};
  }
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// What a terminal shows of one line: the text after the last carriage return,
// without the clear-to-end sequence.
std::string visible(std::string line) {
  if (auto cr = line.rfind('\r'); cr != std::string::npos) line.erase(0, cr + 1);
  for (auto at = line.find("\x1b[K"); at != std::string::npos; at = line.find("\x1b[K")) line.erase(at, 3);
  return line;
}

size_t columnsOf(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

const char* kArtboards = "Exporting Artboards (4/5)";

}  // namespace

TEST(ProgressBar, RedrawsAtMostTenTimesASecondButShowsEveryProcessEnd) {
  FakeTerminal fake;
  ProgressReporter reporter(ProgressStyle::bar, fake.output());
  // 1,425 changes in 9 s, as a large document gives.
  for (int i = 1; i <= 1425; ++i) {
    fake.now += 9000ms / 1425;
    reporter.report(2, kArtboards, i / 1425.0, 0.35 + 0.5 * i / 1425.0, 707);
  }
  EXPECT_LE(fake.redraws(), 92u);
  EXPECT_GE(fake.redraws(), 80u);
  // 0.5 in 9 s: the 0.15 left take 3 s.
  EXPECT_NE(visible(fake.terminal).find("707/707 artboards  ~3s left  Exporting Artboards"), std::string::npos)
      << visible(fake.terminal);
  EXPECT_EQ(visible(fake.terminal).substr(0, 4), " 85%");
  reporter.finish();
  EXPECT_EQ(fake.terminal.back(), '\n');
}

TEST(ProgressBar, NeverMovesBackwardsAndEstimatesTheTimeLeft) {
  FakeTerminal fake;
  ProgressReporter reporter(ProgressStyle::bar, fake.output());
  reporter.report(0, "Detaching Symbols (1/5)", 0.5, 0.1, 8);
  fake.now += 1s;
  reporter.report(1, "Exporting Inspect Data (2/5)", 0.5, 0.2, 8);
  EXPECT_EQ(visible(fake.terminal).find("left"), std::string::npos) << "too early to tell";
  fake.now += 9s;
  reporter.report(1, "Exporting Inspect Data (2/5)", 0.75, 0.25, 8);
  reporter.report(3, "Exporting Prototype Hotspots (3/5)", 0.0, 0.2, 8);
  std::string line = visible(fake.terminal);
  EXPECT_EQ(line.substr(0, 4), " 25%") << line;
  EXPECT_NE(line.find("0/8 artboards"), std::string::npos) << line;
  // 0.15 in 10 s: 0.75 to go takes 50 s.
  EXPECT_NE(line.find("~50s left"), std::string::npos) << line;
  // The pace of the last seconds counts, not that of the whole run.
  for (int i = 1; i <= 30; ++i) {
    fake.now += 1s;
    reporter.report(2, "Exporting Artboards (4/5)", i / 60.0, 0.25 + 0.01 * i, 8);
  }
  line = visible(fake.terminal);
  EXPECT_EQ(line.substr(0, 4), " 55%") << line;
  EXPECT_NE(line.find("~45s left"), std::string::npos) << line;

  struct Case {
    double seconds;
    const char* text;
  };
  for (auto c : {Case{0, "~0s left"}, Case{12.2, "~13s left"}, Case{65, "~1m 05s left"}, Case{3725, "~1h 02m left"}})
    EXPECT_EQ(timeLeftText(c.seconds), c.text);
}

TEST(ProgressBar, FitsEveryWidthAndShowsCounts) {
  FakeTerminal fake;
  ProgressReporter reporter(ProgressStyle::bar, fake.output());
  reporter.report(2, kArtboards, 312.0 / 707, 0.57, 707);
  for (int columns : {10, 20, 30, 40, 50, 60, 80, 120, 200}) {
    std::string line = reporter.barLine(columns);
    SCOPED_TRACE(line);
    EXPECT_LE(columnsOf(line), static_cast<size_t>(std::max(columns - 1, 8)));
    EXPECT_EQ(line.substr(0, 4), " 57%");
    if (columns >= 50) EXPECT_NE(line.find("312/707"), std::string::npos);
    if (columns >= 50) EXPECT_NE(line.find("Artboards (4/5)"), std::string::npos);
    if (columns >= 60) EXPECT_NE(line.find("312/707 artboards"), std::string::npos);
    if (columns >= 80) EXPECT_NE(line.find(kArtboards), std::string::npos);
  }
  EXPECT_NE(reporter.barLine(120).find("[#################             ]"), std::string::npos) << reporter.barLine(120);
  // Detaching and assets do not count artboards.
  for (int64_t process : {0, 4}) {
    reporter.report(process, "Exporting Assets (5/5)", 0.5, 0.9, 707);
    EXPECT_EQ(reporter.barLine(120).find("/707"), std::string::npos) << reporter.barLine(120);
  }
}

TEST(ProgressBar, LogLinesGoAboveTheBar) {
  FakeTerminal fake;
  fake.columns = 50;
  ProgressReporter reporter(ProgressStyle::bar, fake.output());
  reporter.printLine("before any bar");
  reporter.report(2, kArtboards, 0.1, 0.4, 10);
  reporter.printLine("warning: font missing");
  fake.now += 1s;
  reporter.report(2, kArtboards, 0.2, 0.45, 10);
  reporter.printLine("warning: second");
  reporter.finish();

  auto lines = linesOf(fake.terminal);
  ASSERT_EQ(lines.size(), 4u) << fake.terminal;
  EXPECT_EQ(lines[0], "before any bar");
  EXPECT_EQ(visible(lines[1]), "warning: font missing");
  EXPECT_EQ(visible(lines[2]), "warning: second");
  EXPECT_EQ(visible(lines[3]).substr(0, 4), " 45%");
  for (const auto& line : lines) EXPECT_LE(columnsOf(visible(line)), 49u) << line;
}

TEST(ProgressJson, EventsAreRoundedAndEndWithTheResult) {
  FakeTerminal fake;
  ProgressReporter reporter(ProgressStyle::json, fake.output());
  reporter.report(0, "Detaching Symbols (1/5)", 0.123456789, 0.0246913578, 4);
  for (int i = 0; i < 50; ++i) reporter.report(0, "Detaching Symbols (1/5)", 0.5, 0.1, 4);  // within 100 ms
  reporter.report(0, "Detaching Symbols (1/5)", 1.0, 0.2, 4);
  reporter.printLine("warning: to the terminal, not into the events");
  RunOutcome outcome;
  outcome.exitCode = kExitPartial;
  outcome.artboards = 10;
  outcome.symbolMasters = 474;
  outcome.filesWritten = 1234;
  outcome.outputFolder = "/out";
  outcome.seconds = 9.123456;
  outcome.missing = {"image of artboard A (Home)"};
  reporter.result(outcome);

  auto events = linesOf(fake.events);
  ASSERT_EQ(events.size(), 3u) << fake.events;
  EXPECT_EQ(parseJson(events[0]), parseJson(R"j({"event":"progress","process":0,"title":"Detaching Symbols (1/5)",
                                                 "processProgress":0.1235,"total":0.0247})j"));
  EXPECT_EQ(parseJson(events[2]), parseJson(R"j({"event":"result","exitCode":3,"artboards":10,"symbolMasters":474,
      "filesWritten":1234,"outputFolder":"/out","seconds":9.1235,"missing":["image of artboard A (Home)"]})j"));
  EXPECT_EQ(fake.terminal, "warning: to the terminal, not into the events\n");
}

TEST(ProgressCli, TheProgramEndsItsEventsWithTheResultAndFitsItsBar) {
  TempDir dir;
  std::string base = std::string(PLEXA_SOURCE_DIR) + "/samples/PlexaSample.sketch --sketchtool " +
                     PLEXA_TEST_BINARY_DIR + "/fake-sketchtool -o ";
  auto json = runCliShell(base + dir.path() + "/a --progress json");
  auto lines = linesOf(json);
  auto last = std::find_if(lines.rbegin(), lines.rend(), [](const std::string& l) { return l.rfind("{", 0) == 0; });
  ASSERT_NE(last, lines.rend()) << json;
  auto result = parseJson(*last);
  ASSERT_TRUE(result.is_object()) << *last;
  EXPECT_EQ(result.at("event"), "result");
  EXPECT_EQ(result.at("exitCode"), 0);
  EXPECT_EQ(result.at("artboards"), 3);
  EXPECT_EQ(result.at("symbolMasters"), 1);
  EXPECT_GT(result.at("filesWritten").to_number<int64_t>(), 4);
  EXPECT_TRUE(result.at("missing").as_array().empty());

  auto bar = runCliShell(base + dir.path() + "/b --progress bar", "COLUMNS=50");
  ASSERT_NE(bar.find('\r'), std::string::npos) << bar;
  for (const auto& line : linesOf(bar)) {
    std::string shown = visible(line);
    if (shown.rfind("Extracted", 0) == 0) continue;  // the summary is not the bar
    EXPECT_LE(columnsOf(shown), 49u) << shown;
  }
  EXPECT_NE(bar.find("100% ["), std::string::npos) << bar;
}

TEST(RunSummary, NamesArtboardsAndSymbolMastersApartAndListsWhatIsMissing) {
  struct Case {
    size_t artboards, masters;
    const char* text;
  };
  for (auto c : {Case{10, 474, "10 artboards and 474 symbol masters"}, Case{1, 1, "1 artboard and 1 symbol master"},
                 Case{4, 0, "4 artboards"}, Case{0, 2, "2 symbol masters"}, Case{0, 0, "no artboards"}})
    EXPECT_EQ(itemsText(c.artboards, c.masters), c.text);

  RunOutcome outcome;
  outcome.artboards = 10;
  outcome.symbolMasters = 474;
  outcome.filesWritten = 1;
  outcome.outputFolder = "/out";
  outcome.seconds = 9.004;
  EXPECT_EQ(summaryText(outcome), "Extracted 10 artboards and 474 symbol masters: 1 file written to /out in 9.00 s\n");
  outcome.missing = {"image of artboard A (Home)", "meta file B.json (disk full)"};
  EXPECT_EQ(summaryText(outcome),
            "Extracted 10 artboards and 474 symbol masters: 1 file written to /out in 9.00 s\n"
            "2 items are missing:\n  image of artboard A (Home)\n  meta file B.json (disk full)\n");
  outcome.error = "/in.sketch: could not be unzipped";
  EXPECT_EQ(summaryText(outcome), "plexa-extract: /in.sketch: could not be unzipped\n");
}
