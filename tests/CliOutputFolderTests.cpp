// The -o folder: results are written where the user has them, a folder with
// something in it is only used with --overwrite, a failed run leaves it as
// it was, and a full disk shows in the exit code.
#include "CliRun.h"
#include "Files.h"
#include "Json.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace plexa;
using namespace plexa::test;

namespace {

// Every "fullPath" of the run's paths files and meta files.
std::vector<std::string> fullPathsIn(const std::string& out) {
  std::vector<std::string> paths;
  for (const auto& name : entriesOf(out)) {
    bool pathsFile = name.ends_with("-paths.json");
    bool metaFile = name.ends_with(".json") && !pathsFile && !name.ends_with("-hotspots.json") && name[0] != '_';
    if (!pathsFile && !metaFile) continue;
    JsonValue json = readJson(out + "/" + name);
    const JsonValue* records = pathsFile ? &json : PXJsonFind(&json, "__exportedImagePaths");
    if (!records || !records->is_array()) continue;
    for (const auto& record : records->as_array())
      paths.emplace_back(PXJsonTextFor(&record, "fullPath").value_or("(none)"));
  }
  return paths;
}

}  // namespace

TEST(CliOutputFolder, EveryFullPathNamesTheFileTheUserHas) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  // A relative -o: the paths are still whole paths to the user's folder.
  ASSERT_EQ(::chdir(dir.path().c_str()), 0);
  auto result = runCli({sample, "-o", "out", "--progress", "none", "--sketchtool", fakeSketchtoolPath()},
                       withTemp(dir.path()));
  ASSERT_EQ(::chdir("/"), 0);
  ASSERT_EQ(result.exitCode, 0) << result.output;
  auto paths = fullPathsIn(dir / "out");
  EXPECT_GE(paths.size(), 6u);
  for (const auto& path : paths) {
    EXPECT_TRUE(path.starts_with(dir / "out/")) << path;
    EXPECT_TRUE(PXFileManager::fileExists(path)) << path;
  }
  EXPECT_TRUE(entriesOf(dir / "tmp").empty());
}

TEST(CliOutputFolder, AFolderWithSomethingInItIsUsedOnlyWithOverwrite) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  std::string out = dir / "out";
  PXFileManager::createDirectory(out + "/Documents", true);
  writeText(out + "/Documents/letter.txt", "mine");

  auto refused = runCli({sample, "-o", out, "--meta", "--progress", "none"}, withTemp(dir.path()));
  EXPECT_EQ(refused.exitCode, 1) << refused.output;
  EXPECT_TRUE(contains(refused.output, "not empty")) << refused.output;
  EXPECT_TRUE(contains(refused.output, "--overwrite")) << refused.output;
  EXPECT_EQ(std::count(refused.output.begin(), refused.output.end(), '\n'), 1) << refused.output;
  EXPECT_EQ(entriesOf(out), std::vector<std::string>{"Documents"});
  EXPECT_EQ(readText(out + "/Documents/letter.txt"), "mine");

  auto replaced = runCli({sample, "-o", out, "--meta", "--progress", "none", "--overwrite"}, withTemp(dir.path()));
  EXPECT_EQ(replaced.exitCode, 0) << replaced.output;
  EXPECT_FALSE(PXFileManager::fileExists(out + "/Documents"));
  EXPECT_TRUE(PXFileManager::fileExists(out + "/__uploadInfo.json"));

  // Never a folder that holds the document itself.
  auto holdsInput = runCli({sample, "-o", dir.path(), "--overwrite", "--progress", "none"}, withTemp(dir.path()));
  EXPECT_EQ(holdsInput.exitCode, 1) << holdsInput.output;
  EXPECT_TRUE(contains(holdsInput.output, "holds the input document")) << holdsInput.output;
  EXPECT_TRUE(PXFileManager::fileExists(sample));
}

TEST(CliOutputFolder, AnArtboardNamedLikeAFolderOfTheUsersTakesNothingOfTheirs) {
  TempDir dir;
  SketchFixture fixture;
  JsonObject icon = layer("slice", "S1", "icon", frame(1, 1, 4, 4));
  icon["exportOptions"] = parseJson(R"({"exportFormats":[{"fileFormat":"png","scale":1,"name":"","namingScheme":0}]})")
                              .as_object();
  fixture.addPage(page("P1", "Page", {artboard("Documents", "Docs", frame(0, 0, 10, 10), {icon})}));
  std::string document = fixture.writeSketch(dir / "doc.sketch");
  std::string out = dir / "out";
  PXFileManager::createDirectory(out + "/Documents", true);
  writeText(out + "/Documents/letter.txt", "mine");

  auto result = runCli({document, "-o", out, "--progress", "none", "--sketchtool", fakeSketchtoolPath()},
                       withTemp(dir.path()));
  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_EQ(readText(out + "/Documents/letter.txt"), "mine");
  EXPECT_EQ(entriesOf(out), std::vector<std::string>{"Documents"});
  EXPECT_EQ(entriesOf(out + "/Documents"), std::vector<std::string>{"letter.txt"});
}

TEST(CliOutputFolder, AFailedRunLeavesTheFolderAsItWas) {
  TempDir dir;
  std::string sample = makeSample(dir.path());
  PXFileManager::createDirectory(dir / "empty", true);
  // Sketch cannot be started (the test double knows no "run" command): the
  // run fails after the folder was prepared, without waiting out the time-out.
  const std::vector<std::string> failing = {"--detach", "plugin", "--progress", "none", "--sketchtool",
                                            fakeSketchtoolPath(), "--detach-timeout", "600"};
  struct Case {
    std::string out, gone;  // `gone`: what must not exist afterwards
  };
  for (const auto& c : std::vector<Case>{{dir / "empty", ""}, {dir / "new/deeper/out", dir / "new"}}) {
    SCOPED_TRACE(c.out);
    std::vector<std::string> arguments{sample, "-o", c.out};
    arguments.insert(arguments.end(), failing.begin(), failing.end());
    auto result = runCli(arguments, withTemp(dir.path()));
    EXPECT_EQ(result.exitCode, 1) << result.output;
    EXPECT_TRUE(contains(result.output, "Sketch could not be started")) << result.output;
    EXPECT_FALSE(contains(result.output, "no answer")) << result.output;
    if (c.gone.empty()) {
      EXPECT_TRUE(PXFileManager::fileExists(c.out));
      EXPECT_TRUE(entriesOf(c.out).empty());
    } else {
      EXPECT_FALSE(PXFileManager::fileExists(c.gone));
    }
    EXPECT_TRUE(entriesOf(dir / "tmp").empty());
  }
}

// A small file system of its own (a tmpfs in a private mount namespace),
// for the full-disk cases; skipped where mounting is not allowed.
class CliFullDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string probe = "unshare -m sh -c 'mount -t tmpfs -o size=64k tmpfs " + dir.path() + "' 2>/dev/null";
    if (std::system(probe.c_str()) != 0) GTEST_SKIP() << "cannot mount a small file system here";
    ASSERT_EQ(makeSample(dir.path()), sample);
  }

  // Runs the program with `small` mounted as a tmpfs of `size`, then lists
  // what the small folder holds (after "LEFT:").
  CliResult runWithSmallFolder(const std::string& small, const std::string& size, const std::string& arguments,
                               const std::string& environment = "") {
    std::string script = "mkdir -p " + small + " && mount -t tmpfs -o size=" + size + " tmpfs " + small + " && " +
                         environment + " '" + cliPath() + "' " + arguments + "; code=$?; echo LEFT:; ls -A " + small +
                         "; exit $code";
    std::string path = dir / "run.sh";
    writeText(path, script);
    return runShell("unshare -m sh " + path);
  }

  TempDir dir;
  std::string sample = dir / "Sample.sketch";
};

TEST_F(CliFullDisk, AFullOutputDiskShowsAsMissingItems) {
  // Room for a few files, not for all of them.
  auto result = runWithSmallFolder(dir / "out", "24k",
                                   "'" + sample + "' -o " + dir / "out" + " --progress none --sketchtool '" +
                                       fakeSketchtoolPath() + "'");
  EXPECT_EQ(result.exitCode, 3) << result.output;
  EXPECT_TRUE(contains(result.output, "missing")) << result.output;
  EXPECT_TRUE(contains(result.output, "the disk is full")) << result.output;
}

TEST_F(CliFullDisk, AFullTemporaryDiskFailsTheRunAndLeavesNothingThere) {
  auto result = runWithSmallFolder(dir / "tmp", "8k",
                                   "'" + sample + "' -o " + dir / "out" + " --progress none --sketchtool '" +
                                       fakeSketchtoolPath() + "'",
                                   "TMPDIR=" + dir / "tmp");
  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_TRUE(contains(result.output, "LEFT:\n")) << result.output;
  EXPECT_TRUE(result.output.ends_with("LEFT:\n")) << result.output;
  EXPECT_FALSE(PXFileManager::fileExists(dir / "out"));
}
