// Runs the plexa-extract program as a user would.
#include "Files.h"
#include "PathString.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <sstream>
#include <csignal>
#include <cstdio>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace plexa;
using namespace plexa::test;

namespace {

struct Result {
  int exitCode = -1;
  std::string output;  // stdout and stderr together
};

std::string shellQuoted(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

Result runCli(const std::string& arguments, const std::string& environment = "") {
  std::string command = environment + " " + shellQuoted(PLEXA_CLI_PATH) + " " + arguments + " 2>&1";
  Result result;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return result;
  std::array<char, 4096> buffer{};
  size_t n;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) result.output.append(buffer.data(), n);
  int status = ::pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::string fakeTool() { return std::string(PLEXA_TEST_BINARY_DIR) + "/fake-sketchtool"; }

std::string makeSample(const TempDir& dir) {
  std::string path = dir / "Sample.sketch";
  std::string command = shellQuoted(PLEXA_MAKE_SAMPLE_PATH) + " " + shellQuoted(path);
  EXPECT_EQ(std::system(command.c_str()), 0);
  return path;
}

std::vector<std::string> listing(const std::string& folder) {
  return PXFileManager::contentsOfDirectory(folder).value_or(std::vector<std::string>{});
}

}  // namespace

TEST(PlexaExtractCli, RefusesBadInvocationsWithOneClearLine) {
  TempDir dir;
  auto missing = runCli(shellQuoted(dir / "nope.sketch") + " -o " + shellQuoted(dir / "out"));
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.output.find(dir / "nope.sketch"), std::string::npos);
  EXPECT_NE(missing.output.find("no such file"), std::string::npos);

  auto directory = runCli(shellQuoted(dir.path()) + " -o " + shellQuoted(dir / "out"));
  EXPECT_EQ(directory.exitCode, 1);
  EXPECT_NE(directory.output.find("is a directory"), std::string::npos);

  auto usage = runCli("--no-such-flag");
  EXPECT_EQ(usage.exitCode, 2);
  auto badDetach = runCli(shellQuoted(makeSample(dir)) + " -o " + shellQuoted(dir / "out") + " --detach sometimes");
  EXPECT_EQ(badDetach.exitCode, 2);

  // An output folder that cannot be made: nothing is written anywhere.
  writeText(dir / "file", "x");
  auto unwritable = runCli(shellQuoted(makeSample(dir)) + " -o " + shellQuoted(dir / "file/out"));
  EXPECT_EQ(unwritable.exitCode, 1);
  EXPECT_NE(unwritable.output.find(dir / "file/out"), std::string::npos);

  writeText(dir / "broken.sketch", "not a zip");
  auto broken = runCli(shellQuoted(dir / "broken.sketch") + " -o " + shellQuoted(dir / "out2") + " --progress none");
  EXPECT_EQ(broken.exitCode, 1);
  EXPECT_NE(broken.output.find("not a Sketch document"), std::string::npos);
  EXPECT_TRUE(listing(dir / "out2").empty());

  auto help = runCli("--help");
  EXPECT_EQ(help.exitCode, 0);
  for (const char* option : {"--artboards", "--scale", "--meta", "--images", "--assets", "--hotspots",
                             "--exclude-ignored", "--detach", "--pretty", "--sketchtool", "--max-concurrent",
                             "--batch-size", "--progress", "--save-detached", "--detach-timeout"})
    EXPECT_NE(help.output.find(option), std::string::npos) << option;
}

TEST(PlexaExtractCli, ExtractsTheSampleWithEveryStage) {
  TempDir dir;
  std::string sample = makeSample(dir);
  auto result = runCli(shellQuoted(sample) + " -o " + shellQuoted(dir / "out") + " --progress json --sketchtool " +
                       shellQuoted(fakeTool()));
  ASSERT_EQ(result.exitCode, 0) << result.output;
  auto names = listing(dir / "out");
  auto info = readJson(dir / "out/__uploadInfo.json");
  ASSERT_TRUE(info.is_object());
  const auto& sync = info.at("syncInfo").as_object();
  EXPECT_EQ(sync.size(), 4u);
  for (const auto& kv : sync) {
    std::string id(kv.key());
    EXPECT_NE(std::find(names.begin(), names.end(), id + ".json"), names.end()) << id;
    EXPECT_NE(std::find(names.begin(), names.end(), id + "-hotspots.json"), names.end()) << id;
  }
  // The sample's prototype links become hotspots: a screen link and a URL on Home.
  auto home = readJson(dir / "out/5E0B1A3C-1111-4A2B-9C3D-4E5F60718201-hotspots.json");
  ASSERT_TRUE(home.is_array());
  EXPECT_EQ(home.as_array().size(), 2u);
  // Progress lines are JSON objects ending at a total of 1.
  EXPECT_NE(result.output.find("\"title\":\"Exporting Artboards (4/5)\""), std::string::npos);
  EXPECT_NE(result.output.find("\"total\":1}"), std::string::npos);
  EXPECT_NE(result.output.find("Extracted 3 artboards and 1 symbol master"), std::string::npos);
}

TEST(PlexaExtractCli, ShippedSampleIsWhatTheGeneratorMakes) {
  TempDir dir;
  std::string fresh = makeSample(dir);
  std::string shipped = std::string(PLEXA_SOURCE_DIR) + "/samples/PlexaSample.sketch";
  auto names = PXZip::entryNames(fresh);
  ASSERT_TRUE(names);
  EXPECT_EQ(PXZip::entryNames(shipped), names);
  for (const auto& name : *names)
    EXPECT_EQ(PXZip::readEntry(shipped, name), PXZip::readEntry(fresh, name)) << name << ": regenerate the sample";
}

TEST(PlexaExtractCli, ListsArtboardsAndSavesDetachedDocuments) {
  TempDir dir;
  std::string sample = makeSample(dir);
  auto listed = runCli(shellQuoted(sample) + " --list-artboards");
  ASSERT_EQ(listed.exitCode, 0);
  EXPECT_NE(listed.output.find("\tHome\tartboard\n"), std::string::npos);
  EXPECT_LT(listed.output.find("Details"), listed.output.find("Home"));

  auto saved = runCli(shellQuoted(sample) + " --save-detached " + shellQuoted(dir / "detached.sketch"));
  ASSERT_EQ(saved.exitCode, 0) << saved.output;
  auto again = runCli(shellQuoted(dir / "detached.sketch") + " --list-artboards");
  EXPECT_EQ(again.exitCode, 0);
  EXPECT_EQ(again.output, listed.output);
}

TEST(PlexaExtractCli, InterruptCancelsCleanly) {
  TempDir dir;
  std::string sample = makeSample(dir);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::setenv("PLEXA_FAKE_SKETCHTOOL_SLEEP_MS", "5000", 1);
    ::setenv("PLEXA_FAKE_SKETCHTOOL_LOG", (dir / "tool.log").c_str(), 1);
    ::execl(PLEXA_CLI_PATH, PLEXA_CLI_PATH, sample.c_str(), "-o", (dir / "out").c_str(), "--images", "--progress",
            "none", "--sketchtool", fakeTool().c_str(), nullptr);
    ::_exit(127);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  ::kill(child, SIGINT);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 130);
  EXPECT_TRUE(listing(dir / "out").empty());
  // Every sketchtool run that started is gone with the cancelled program.
  std::istringstream log(readText(dir / "tool.log"));
  std::string word, line;
  int started = 0;
  while (std::getline(log, line)) {
    std::istringstream fields(line);
    std::string kind, when;
    pid_t pid = 0;
    fields >> kind >> when >> pid;
    if (kind != "start") continue;
    ++started;
    std::string status = "/proc/" + std::to_string(pid) + "/status";
    std::string state = PXFileManager::readFile(status).value_or("State:\tgone");
    EXPECT_TRUE(state.find("State:\tZ") != std::string::npos || state.find("gone") != std::string::npos) << pid;
  }
  EXPECT_GT(started, 0);
}

TEST(PlexaExtractCli, EveryCorpusDocumentExtracts) {
  auto documents = corpusDocuments();
  if (documents.empty()) GTEST_SKIP() << "corpus folder not present: " << PLEXA_CORPUS_DIR;
  for (const auto& document : documents) {
    SCOPED_TRACE(document);
    TempDir dir;
    std::string out = dir / "out";
    auto result = runCli(shellQuoted(document) + " -o " + shellQuoted(out) + " --progress none --sketchtool " +
                         shellQuoted(fakeTool()));
    EXPECT_EQ(result.exitCode, 0) << result.output.substr(0, 2000);
    auto info = readJson(out + "/__uploadInfo.json");
    ASSERT_TRUE(info.is_object());

    // The upload info names exactly the document's artboards.
    auto listed = runCli(shellQuoted(document) + " --list-artboards");
    std::set<std::string> artboards, named;
    std::istringstream lines(listed.output);
    for (std::string line; std::getline(lines, line);) artboards.insert(line.substr(0, line.find('\t')));
    for (const auto& kv : info.at("syncInfo").as_object()) named.insert(std::string(kv.key()));
    EXPECT_EQ(named, artboards);

    for (const auto& id : named) {
      SCOPED_TRACE(id);
      EXPECT_TRUE(PXFileManager::fileExists(out + "/" + id + "-hotspots.json"));
      EXPECT_TRUE(PXFileManager::fileExists(out + "/" + id + ".png") || PXFileManager::fileExists(out + "/" + id + ".jpg"));
      if (!PXFileManager::fileExists(out + "/" + id + "-paths.json")) continue;
      JsonValue paths = readJson(out + "/" + id + "-paths.json");
      for (const auto& record : paths.as_array())
        EXPECT_TRUE(PXFileManager::fileExists(std::string(PXJsonTextFor(&record, "fullPath").value_or(""))))
            << compactJson(record);
    }
  }
}
