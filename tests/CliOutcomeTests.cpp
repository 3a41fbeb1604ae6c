// What plexa-extract's exit code and last lines say about a run: partial
// runs, refused arguments, files that are not Sketch documents,
// --save-detached and --list-artboards. (Sketch that cannot be started:
// CliOutputFolderTests.)
#include "CliRun.h"
#include "Files.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace plexa;
using namespace plexa::test;

namespace {

const std::string kHome = "5E0B1A3C-1111-4A2B-9C3D-4E5F60718201";
const std::string kDetails = "5E0B1A3C-2222-4A2B-9C3D-4E5F60718202";

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
    auto result =
        runCli({sample, "-o", out, "--progress", "none", "--sketchtool", c.tool}, withTemp(dir.path(), c.environment));
    EXPECT_EQ(result.exitCode, 3) << result.output;
    for (const auto& line : c.missing) EXPECT_TRUE(contains(result.output, line)) << line << "\n" << result.output;
    EXPECT_TRUE(contains(result.output, "missing")) << result.output;
    // What was written stays for the user.
    EXPECT_TRUE(PXFileManager::fileExists(out + "/" + kHome + ".json"));
  }
  EXPECT_TRUE(entriesOf(dir / "tmp").empty());
}

// Refused runs: the exit code and the reason, and nothing written, no
// working copy named, the input untouched and no temporary folder left.
TEST(CliOutcome, RefusedRunsSayWhyAndWriteNothing) {
  TempDir dir;
  const std::string sample = makeSample(dir.path()), out = dir / "out", original = readText(sample);
  const std::string empty = dir / "empty.sketch", text = dir / "text.sketch";
  writeText(empty, "");
  writeText(text, "not a zip");
  writeText(dir / "file", "x");
  const std::string noDocument = SketchFixture()
                                     .omitEntry("document.json")
                                     .addPage(page("P1", "Page", {artboard("A1", "One", frame(0, 0, 10, 10))}))
                                     .writeSketch(dir / "no-document.sketch");
  ::symlink(sample.c_str(), (dir / "link.sketch").c_str());
  PXFileManager::createDirectory(dir / "folder.sketch", true);
  const std::string tool = fakeSketchtoolPath();
  struct Case {
    std::vector<std::string> arguments;
    int exitCode;
    std::string said;
    Environment environment = {};
  };
  const std::vector<Case> cases = {
      {{sample, "-o", out, "--sketchtool", "/nonexistent/sketchtool"}, 2,
       "--sketchtool /nonexistent/sketchtool: no such file"},
      {{sample, "-o", out, "--sketchtool", dir.path()}, 2, "is a folder"},
      {{sample, "-o", out}, 2, "sketchToolPath=/nope", {{"sketchToolPath", "/nope"}}},
      {{sample, "-o", out, "--artboards", "NOPE", "--sketchtool", tool}, 2, "no artboard NOPE"},
      {{sample, "-o", out, "--artboards", kHome + ",NOPE", "--sketchtool", tool}, 2, "no artboard NOPE"},
      {{sample, "-o", out, "--artboards", " , ", "--sketchtool", tool}, 2, "no artboard ID given"},
      {{sample, "-o", out, "--no-such-flag"}, 2, "unknown option --no-such-flag"},
      {{dir / "nope.sketch", "-o", out}, 1, dir / "nope.sketch: no such file"},
      {{dir / "folder.sketch", "-o", out}, 1, dir / "folder.sketch: is a directory"},
      {{sample, "-o", dir / "file/out"}, 1, dir / "file/out: cannot create the folder"},
      // The user's file is named, never a working copy, whatever the mode.
      {{empty, "-o", out}, 1, empty + ": not a Sketch document: the file is empty"},
      {{empty, "--list-artboards"}, 1, empty + ": not a Sketch document: the file is empty"},
      {{text, "-o", out}, 1, text + ": not a Sketch document: it is not a zip archive"},
      {{text, "--list-artboards"}, 1, text + ": not a Sketch document: it is not a zip archive"},
      {{noDocument, "-o", out}, 1, noDocument + ": not a Sketch document: document.json is missing"},
      {{noDocument, "--list-artboards"}, 1, noDocument + ": not a Sketch document: document.json is missing"},
      {{sample, "--save-detached", dir / "no/such/folder/out.sketch"}, 1, "does not exist"},
      {{sample, "--save-detached", dir / "folder.sketch"}, 1, "is a folder"},
      {{sample, "--save-detached", "/proc/out.sketch"}, 1, "could not be written"},
      {{sample, "--save-detached", sample}, 1, "is the input document itself"},
      {{sample, "--save-detached", dir / "link.sketch"}, 1, "is the input document itself"},
      {{sample, "--save-detached", dir / "no/../Sample.sketch"}, 1, "is the input document itself"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.said);
    std::vector<std::string> arguments = c.arguments;
    arguments.insert(arguments.end(), {"--progress", "none"});
    auto result = runCli(arguments, withTemp(dir.path(), c.environment));
    EXPECT_EQ(result.exitCode, c.exitCode) << result.output;
    EXPECT_TRUE(contains(result.output, c.said)) << result.output;
    for (const std::string& never : {std::string("Extracted"), std::string("written to"), dir / "tmp"})
      EXPECT_FALSE(contains(result.output, never)) << result.output;
    EXPECT_FALSE(PXFileManager::fileExists(out));
    EXPECT_EQ(readText(sample), original);
    EXPECT_TRUE(entriesOf(dir / "tmp").empty());
  }
  EXPECT_TRUE(entriesOf(dir / "folder.sketch").empty());
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

TEST(CliOutcome, SaveDetachedReplacesAnOlderCopyWhole) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  // Relative to the working folder, and over an older copy: complete, with
  // no half-written file beside it.
  writeText(dir / "detached.sketch", "old");
  ASSERT_EQ(::chdir(dir.path().c_str()), 0);
  auto result = runCli({sample, "--save-detached", "detached.sketch"}, withTemp(dir.path()));
  ASSERT_EQ(::chdir("/"), 0);
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_TRUE(contains(result.output, "Detached document written to " + dir / "detached.sketch")) << result.output;
  auto names = PXZip::entryNames(dir / "detached.sketch");
  ASSERT_TRUE(names);
  EXPECT_NE(std::find(names->begin(), names->end(), "document.json"), names->end());
  for (const auto& name : entriesOf(dir.path())) EXPECT_EQ(name.find(".partial"), std::string::npos) << name;

  // The detached copy holds the same artboards, listed in display order.
  auto listed = runCli({sample, "--list-artboards"});
  ASSERT_EQ(listed.exitCode, 0) << listed.output;
  EXPECT_TRUE(contains(listed.output, kHome + "\tHome\tartboard\n")) << listed.output;
  EXPECT_LT(listed.output.find("Details"), listed.output.find("Home"));
  EXPECT_EQ(runCli({dir / "detached.sketch", "--list-artboards"}).output, listed.output);
}

// A listing whose reader has gone (a pipe into a program that has ended)
// ends as SIGPIPE ends other tools; a full disk is reported. Neither leaves
// its unzipped copy behind.
TEST(CliOutcome, ListingIntoAClosedPipeOrAFullDiskEndsCleanly) {
  TempDir dir;
  const std::string sample = makeSample(dir.path());
  withTemp(dir.path());
  const std::string run = "TMPDIR='" + dir / "tmp" + "' '" + cliPath() + "' '" + sample + "' --list-artboards";
  runShell("{ sleep 0.3; " + run + "; echo $? > '" + dir / "piped" + "'; } | true");
  auto full = runShell(run + " 2>&1 >/dev/full; echo \"exit $?\"");
  EXPECT_EQ(readText(dir / "piped"), "141\n");
  EXPECT_TRUE(contains(full.output, "standard output: ")) << full.output;
  EXPECT_TRUE(contains(full.output, "exit 1")) << full.output;
  EXPECT_TRUE(entriesOf(dir / "tmp").empty());
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
