// The host's command line: what it accepts, what it refuses and how it says so.
#include "CliRun.h"
#include "Options.h"
#include "RunOutcome.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <sys/wait.h>

using namespace plexa::cli;
using namespace plexa::test;

namespace {

struct Parsed {
  std::variant<Options, int> result;
  std::string out, err;
  int exitCode() const { return std::holds_alternative<int>(result) ? std::get<int>(result) : -1; }
  const Options& options() const { return std::get<Options>(result); }
};

Parsed parse(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "/some/build/tree/plexa-extract");
  std::vector<const char*> argv;
  for (const auto& argument : arguments) argv.push_back(argument.c_str());
  std::ostringstream out, err;
  auto result = parseOptions(static_cast<int>(argv.size()), argv.data(), out, err);
  return {std::move(result), out.str(), err.str()};
}

}  // namespace

TEST(CliOptions, RefusesBadValuesInPlainWords) {
  struct Case {
    std::vector<std::string> arguments;
    std::string expected;
  };
  const Case cases[] = {
      {{"--bogus", "a.sketch"}, "unknown option --bogus"},
      {{"--bogus"}, "unknown option --bogus"},
      {{"a.sketch", "b.sketch"}, "unexpected argument \"b.sketch\""},
      {{"a.sketch", "--scale", "0"}, "--scale: must be greater than 0"},
      {{"a.sketch", "--scale", "-2"}, "--scale: must be greater than 0"},
      {{"a.sketch", "--scale", "abc"}, "--scale: \"abc\" is not a number"},
      {{"a.sketch", "--scale", "2x"}, "--scale: \"2x\" is not a number"},
      {{"a.sketch", "--detach-timeout", "0"}, "--detach-timeout: must be greater than 0"},
      {{"a.sketch", "--max-concurrent", "-1"}, "--max-concurrent: must be a whole number of at least 1"},
      {{"a.sketch", "--max-concurrent", "0"}, "--max-concurrent: must be a whole number of at least 1"},
      {{"a.sketch", "--max-concurrent", "2.5"}, "--max-concurrent: must be a whole number of at least 1"},
      {{"a.sketch", "--batch-size", "many"}, "--batch-size: \"many\" is not a number"},
      {{"a.sketch", "--batch-size", "99999999999999999999999"}, "--batch-size: is too large"},
      {{"a.sketch", "-q", "-v"}, "excludes"},
      {{"a.sketch", "--color", "sometimes"}, "--color"},
      {{"a.sketch", "--detach", "sometimes"}, "--detach: sometimes not in"},
      {{}, "a .sketch file is required"},
  };
  for (const auto& c : cases) {
    auto parsed = parse(c.arguments);
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(parsed.exitCode(), kExitUsage);
    EXPECT_NE(parsed.err.find("plexa-extract: "), std::string::npos) << parsed.err;
    EXPECT_NE(parsed.err.find(c.expected), std::string::npos) << parsed.err;
    EXPECT_EQ(parsed.err.find("18446744073709551615"), std::string::npos) << parsed.err;
    EXPECT_EQ(parsed.err.find("1.79769"), std::string::npos) << parsed.err;
    EXPECT_TRUE(parsed.out.empty());
  }
}

TEST(CliOptions, AcceptsGoodValuesAndCountsVerbosity) {
  auto parsed = parse({"a.sketch", "-o", "out", "--scale", "0.5", "--max-concurrent", "3", "--batch-size", "7",
                       "--stable-ids", "--color", "never", "--artboards", "A,B"});
  ASSERT_EQ(parsed.exitCode(), -1) << parsed.err;
  const Options& options = parsed.options();
  EXPECT_EQ(options.input, "a.sketch");
  EXPECT_EQ(options.output, "out");
  EXPECT_DOUBLE_EQ(options.scale, 0.5);
  EXPECT_EQ(options.maxConcurrent, 3u);
  EXPECT_EQ(options.batchSize, 7u);
  EXPECT_TRUE(options.stableIds);
  EXPECT_EQ(options.color, "never");
  EXPECT_EQ(options.artboards, (std::vector<std::string>{"A", "B"}));

  const std::pair<std::vector<std::string>, int> levels[] = {
      {{"a.sketch"}, 0}, {{"a.sketch", "-q"}, -1}, {{"a.sketch", "-v"}, 1}, {{"a.sketch", "-vv"}, 2},
      {{"a.sketch", "-vvv"}, 3}, {{"a.sketch", "-v", "-v"}, 2}, {{"a.sketch", "-vvvvv"}, 3},
  };
  for (const auto& [arguments, verbosity] : levels) {
    auto level = parse(arguments);
    ASSERT_EQ(level.exitCode(), -1) << level.err;
    EXPECT_EQ(level.options().verbosity, verbosity) << arguments.back();
    EXPECT_FALSE(level.options().stableIds);
  }
}

TEST(CliOptions, HelpNamesTheProgramTheRequiredOutputAndTheExitCodes) {
  auto help = parse({"--help"});
  EXPECT_EQ(help.exitCode(), kExitOK);
  EXPECT_NE(help.out.find("Usage: plexa-extract "), std::string::npos) << help.out;
  EXPECT_EQ(help.out.find("/some/build/tree"), std::string::npos);
  EXPECT_NE(help.out.find("required for extraction"), std::string::npos);
  for (const char* code : {"Exit codes:", "  0 ", "  1 ", "  2 ", "  3 ", "128+N", "--stable-ids", "--color", "-q,",
                           "--artboards", "--scale", "--meta", "--images", "--assets", "--hotspots", "--exclude-ignored",
                           "--detach", "--pretty", "--sketchtool", "--max-concurrent", "--batch-size", "--progress",
                           "--save-detached", "--detach-timeout", "--list-artboards"})
    EXPECT_NE(help.out.find(code), std::string::npos) << code;
}

TEST(CliOptions, VersionNamesTheLibrarySymbols) {
  auto version = parse({"--version"});
  EXPECT_EQ(version.exitCode(), kExitOK);
  EXPECT_EQ(version.out, versionText());
  EXPECT_NE(version.out.find("PlexaExtract library 1.0"), std::string::npos) << version.out;
  EXPECT_NE(version.out.find("PROGRAM:PlexaExtract  PROJECT:"), std::string::npos) << version.out;
  EXPECT_EQ(version.out.find("@(#)"), std::string::npos);
  // The installed program answers the same, before looking for a document.
  EXPECT_EQ(runCliShell("--version"), versionText());
  EXPECT_NE(runCliShell("--bogus").find("unknown option --bogus"), std::string::npos);
}
