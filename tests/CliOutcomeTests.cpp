// What plexa-extract's exit code and last lines say about a run: partial
// runs, refused arguments, files that are not Sketch documents, Sketch that
// cannot be started, and --save-detached.
#include "CliRun.h"
#include "Files.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace plexa;
using namespace plexa::test;

namespace {

const std::string kHome = "5E0B1A3C-1111-4A2B-9C3D-4E5F60718201";
const std::string kDetails = "5E0B1A3C-2222-4A2B-9C3D-4E5F60718202";

std::string writeScript(const std::string& path, const std::string& body) {
  writeText(path, "#!/bin/sh\n" + body + "\n");
  ::chmod(path.c_str(), 0755);
  return path;
}

// A private temporary folder per test, so leftovers can be counted.
Environment withTemp(const TempDir& dir, Environment more = {}) {
  PXFileManager::createDirectory(dir / "tmp", true);
  more.emplace_back("TMPDIR", dir / "tmp");
  return more;
}

}  // namespace

TEST(CliOutcome, RunsWithItemsMissingExitThreeAndNameThem) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  std::string crashing = writeScript(dir / "crashing-tool", "kill -SEGV $$");
  struct Case {
    const char* what;
    std::string tool;
    Environment environment;
    std::vector<std::string> missing;  // lines the summary must hold
  };
  const std::vector<Case> cases = {
      {"the tool skips an artboard", fakeSketchtoolPath(), {{"PLEXA_FAKE_SKETCHTOOL_SKIP", kHome}},
       {"image of artboard " + kHome + " (Home)"}},
      {"the tool crashes on every run", crashing, {},
       {"image of artboard " + kHome + " (Home)", "image of artboard " + kDetails + " (Details)",
        "asset " + kDetails + "/Screens/Details/Photo.jpg (Details)"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string out = dir / ("out-" + std::to_string(&c - cases.data()));
    auto result = runCli({sample, "-o", out, "--progress", "none", "--sketchtool", c.tool}, withTemp(dir, c.environment));
    EXPECT_EQ(result.exitCode, 3) << result.output;
    for (const auto& line : c.missing) EXPECT_TRUE(contains(result.output, line)) << line << "\n" << result.output;
    EXPECT_TRUE(contains(result.output, "missing")) << result.output;
    // What was written stays for the user.
    EXPECT_TRUE(PXFileManager::fileExists(out + "/" + kHome + ".json"));
  }
  EXPECT_TRUE(entriesOf(dir / "tmp").empty());
}

TEST(CliOutcome, UnusableArgumentsAreRefusedBeforeAnythingIsWritten) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  std::string out = dir / "out";
  struct Case {
    std::vector<std::string> arguments;
    Environment environment;
    std::string said;
  };
  const std::vector<Case> cases = {
      {{"--sketchtool", "/nonexistent/sketchtool"}, {}, "--sketchtool /nonexistent/sketchtool: no such file"},
      {{"--sketchtool", dir.path()}, {}, "is a folder"},
      {{}, {{"sketchToolPath", "/nope"}}, "sketchToolPath=/nope"},
      {{"--artboards", "NOPE", "--sketchtool", fakeSketchtoolPath()}, {}, "no artboard NOPE"},
      {{"--artboards", kHome + ",NOPE", "--sketchtool", fakeSketchtoolPath()}, {}, "no artboard NOPE"},
      {{"--artboards", " , ", "--sketchtool", fakeSketchtoolPath()}, {}, "no artboard ID given"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.said);
    std::vector<std::string> arguments{sample, "-o", out, "--progress", "none"};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    auto result = runCli(arguments, withTemp(dir, c.environment));
    EXPECT_EQ(result.exitCode, 2) << result.output;
    EXPECT_TRUE(contains(result.output, c.said)) << result.output;
    EXPECT_FALSE(contains(result.output, "Extracted")) << result.output;
    EXPECT_FALSE(PXFileManager::fileExists(out));
  }
  EXPECT_TRUE(entriesOf(dir / "tmp").empty());
}

TEST(CliOutcome, BlanksAroundArtboardIDsAreTrimmed) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  std::string out = dir / "out";
  auto result = runCli({sample, "-o", out, "--meta", "--progress", "none", "--artboards", kHome + ", " + kDetails});
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_TRUE(PXFileManager::fileExists(out + "/" + kHome + ".json"));
  EXPECT_TRUE(PXFileManager::fileExists(out + "/" + kDetails + ".json"));
}

TEST(CliOutcome, FilesThatAreNotSketchDocumentsAreNamedAsSuch) {
  TempDir dir;
  writeText(dir / "empty.sketch", "");
  writeText(dir / "text.sketch", "not a zip");
  SketchFixture fixture;
  fixture.omitEntry("document.json");
  fixture.addPage(page("P1", "Page", {artboard("A1", "One", frame(0, 0, 10, 10))}));
  std::string noDocument = fixture.writeSketch(dir / "no-document.sketch");
  struct Case {
    std::string file, said;
  };
  const std::vector<Case> cases = {{dir / "empty.sketch", "not a Sketch document: the file is empty"},
                                   {dir / "text.sketch", "not a Sketch document: it is not a zip archive"},
                                   {noDocument, "not a Sketch document: document.json is missing"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    for (const auto& mode : std::vector<std::vector<std::string>>{{"-o", dir / "out", "--progress", "none"},
                                                                   {"--list-artboards"}}) {
      std::vector<std::string> arguments{c.file};
      arguments.insert(arguments.end(), mode.begin(), mode.end());
      auto result = runCli(arguments, withTemp(dir));
      EXPECT_EQ(result.exitCode, 1) << result.output;
      EXPECT_TRUE(contains(result.output, c.file + ": " + c.said)) << result.output;
      // The user's file is named, never a working copy.
      EXPECT_FALSE(contains(result.output, dir / "tmp")) << result.output;
      EXPECT_FALSE(PXFileManager::fileExists(dir / "out"));
      EXPECT_TRUE(entriesOf(dir / "tmp").empty());
    }
  }
}

TEST(CliOutcome, PluginDetachFailsAtOnceWhenSketchCannotBeStarted) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  PXFileManager::createDirectory(dir / "out", true);
  // The test double knows no "run" command, as a sketchtool without Sketch.
  auto result = runCli({sample, "-o", dir / "out", "--detach", "plugin", "--progress", "none", "--sketchtool",
                        fakeSketchtoolPath(), "--detach-timeout", "600"},
                       withTemp(dir));
  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_TRUE(contains(result.output, "Sketch could not be started")) << result.output;
  EXPECT_FALSE(contains(result.output, "no answer")) << result.output;
  // The folder the user made is left as it was: there, and empty.
  EXPECT_TRUE(PXFileManager::fileExists(dir / "out"));
  EXPECT_TRUE(entriesOf(dir / "out").empty());
  EXPECT_TRUE(entriesOf(dir / "tmp").empty());
}

TEST(CliOutcome, SaveDetachedReportsWhatItCouldNotWrite) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  const std::string original = readText(sample);
  ::symlink(sample.c_str(), (dir / "link.sketch").c_str());
  PXFileManager::createDirectory(dir / "folder.sketch", true);
  struct Case {
    std::string target, said;
  };
  const std::vector<Case> cases = {
      {dir / "no/such/folder/out.sketch", "does not exist"},
      {dir / "folder.sketch", "is a folder"},
      {"/proc/out.sketch", "could not be written"},
      {sample, "is the input document itself"},
      {dir / "link.sketch", "is the input document itself"},
      {dir / "no/../Sample.sketch", "is the input document itself"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    auto result = runCli({sample, "--save-detached", c.target}, withTemp(dir));
    EXPECT_EQ(result.exitCode, 1) << result.output;
    EXPECT_TRUE(contains(result.output, c.said)) << result.output;
    EXPECT_FALSE(contains(result.output, "written to")) << result.output;
    EXPECT_EQ(readText(sample), original);
    EXPECT_TRUE(entriesOf(dir / "tmp").empty());
  }
  EXPECT_TRUE(entriesOf(dir / "folder.sketch").empty());

  // Relative to the working folder, and over an older copy: complete, with
  // no half-written file beside it.
  writeText(dir / "detached.sketch", "old");
  ASSERT_EQ(::chdir(dir.path().c_str()), 0);
  auto result = runCli({sample, "--save-detached", "detached.sketch"}, withTemp(dir));
  ASSERT_EQ(::chdir("/"), 0);
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_TRUE(contains(result.output, "Detached document written to " + dir / "detached.sketch")) << result.output;
  auto names = PXZip::entryNames(dir / "detached.sketch");
  ASSERT_TRUE(names);
  EXPECT_NE(std::find(names->begin(), names->end(), "document.json"), names->end());
  for (const auto& name : entriesOf(dir.path())) EXPECT_EQ(name.find(".partial"), std::string::npos) << name;
}

TEST(CliOutcome, StableIdentifiersMakeRepeatedRunsByteIdentical) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  auto pages = [&](const std::string& path) {
    std::string all;
    for (const auto& name : PXZip::entryNames(path).value_or(std::vector<std::string>()))
      if (name.rfind("pages/", 0) == 0) all += name + PXZip::readEntry(path, name).value_or("");
    return all;
  };
  std::vector<std::string> metas;
  for (const std::string& run : {"a", "b"}) {
    auto saved = runCli({sample, "--save-detached", dir / (run + ".sketch"), "--stable-ids"});
    ASSERT_EQ(saved.exitCode, 0) << saved.output;
    // The same folder both times: paths in the results name it.
    auto extracted = runCli({sample, "-o", dir / "out", "--meta", "--stable-ids", "--overwrite", "--progress", "none"});
    ASSERT_EQ(extracted.exitCode, 0) << extracted.output;
    metas.push_back(readText(dir / ("out/" + kHome + ".json")));
  }
  EXPECT_EQ(pages(dir / "a.sketch"), pages(dir / "b.sketch"));
  EXPECT_EQ(metas[0], metas[1]);
  // Without the flag the detached copies get fresh identifiers each time.
  ASSERT_EQ(runCli({sample, "--save-detached", dir / "c.sketch"}).exitCode, 0);
  EXPECT_NE(pages(dir / "a.sketch"), pages(dir / "c.sketch"));
}
