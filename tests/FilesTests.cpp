#include "Files.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using namespace plexa;
using plexa::test::readText;
using plexa::test::TempDir;
using plexa::test::writeText;

namespace {

dev_t deviceOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_dev : 0;
}

}  // namespace

TEST(PXResolveInsideTest, KeepsDestinationsInsideTheRoot) {
  TempDir dir;
  std::string root = dir / "out";
  ASSERT_TRUE(PXFileManager::createDirectory(root, true));

  // Escapes, absolute paths elsewhere and a sibling that merely shares the
  // root's name as a prefix resolve to nothing.
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"a/b.json", root + "/a/b.json"}, {"a/./../b.json", root + "/b.json"},
      {"deep/not/yet/made/", root + "/deep/not/yet/made"}, {".", root}, {root + "/inside", root + "/inside"},
      {"name with\nnewline", root + "/name with\nnewline"}, {"..", std::nullopt}, {"../x", std::nullopt},
      {"a/../../x", std::nullopt}, {"a/b/../../../x", std::nullopt}, {"/etc/passwd", std::nullopt},
      {"../out2/x", std::nullopt}, {root + "2/x", std::nullopt}, {dir.path(), std::nullopt}};
  for (const auto& [path, expected] : cases) EXPECT_EQ(PXResolveInside(root, path), expected) << path;
  EXPECT_EQ(PXResolveInside(root + "/", "a"), root + "/a");
}

TEST(PXResolveInsideTest, RefusesPathsThroughPlantedLinks) {
  TempDir dir;
  std::string root = dir / "out";
  std::string elsewhere = dir / "elsewhere";
  ASSERT_TRUE(PXFileManager::createDirectory(root + "/real", true));
  ASSERT_TRUE(PXFileManager::createDirectory(elsewhere, true));
  ASSERT_EQ(::symlink(elsewhere.c_str(), (root + "/link").c_str()), 0);
  ASSERT_EQ(::symlink((root + "/real").c_str(), (root + "/real/loop").c_str()), 0);
  ASSERT_EQ(::symlink("/nonexistent-target", (root + "/dangling").c_str()), 0);

  EXPECT_FALSE(PXResolveInside(root, "link"));
  EXPECT_FALSE(PXResolveInside(root, "link/file.png"));
  EXPECT_FALSE(PXResolveInside(root, "real/loop/file.png")) << "even a link that stays inside";
  EXPECT_FALSE(PXResolveInside(root, "dangling")) << "writing there would create the target";
  EXPECT_EQ(PXResolveInside(root, "real/file.png"), root + "/real/file.png");
  EXPECT_TRUE(PXFileManager::isSymbolicLink(root + "/link"));
  EXPECT_FALSE(PXFileManager::isSymbolicLink(root + "/real"));
}

TEST(PXFileManagerWrites, BothWritersReplaceWholeFilesAndNeverWriteThroughLinks) {
  using Writer = bool (*)(const std::string&, std::string_view, std::string*);
  const std::pair<const char*, Writer> writers[] = {{"atomic", &PXFileManager::writeFileAtomically},
                                                    {"direct", &PXFileManager::writeNewFile}};
  for (const auto& [name, write] : writers) {
    SCOPED_TRACE(name);
    TempDir dir;
    std::string path = dir / "meta.json";
    std::string error;
    ASSERT_TRUE(write(path, "first version, longer than the second", &error)) << error;
    ASSERT_TRUE(write(path, "second", &error)) << error;
    EXPECT_EQ(readText(path), "second");
    std::string big(5u << 20, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 31) >> 3);
    ASSERT_TRUE(write(dir / "big.json", big, nullptr));
    EXPECT_TRUE(PXFileManager::readFile(dir / "big.json") == big) << "read back byte for byte";
    EXPECT_EQ(*PXFileManager::contentsOfDirectory(dir.path()), (std::vector<std::string>{"big.json", "meta.json"}))
        << "no temporary file is left beside them";

    // A missing folder is an error, and nothing is created on the way.
    error.clear();
    EXPECT_FALSE(write(dir / "missing/meta.json", "x", &error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(PXFileManager::fileExists(dir / "missing"));

    // Links at the destination, symbolic or hard, are replaced, never written through.
    writeText(dir / "target.txt", "keep");
    ASSERT_EQ(::symlink((dir / "target.txt").c_str(), (dir / "link.json").c_str()), 0);
    ASSERT_TRUE(write(dir / "link.json", "new", nullptr));
    EXPECT_FALSE(PXFileManager::isSymbolicLink(dir / "link.json"));
    EXPECT_EQ(readText(dir / "link.json"), "new");
    ASSERT_EQ(::link((dir / "target.txt").c_str(), (dir / "hard.json").c_str()), 0);
    ASSERT_TRUE(write(dir / "hard.json", "new", nullptr));
    EXPECT_EQ(readText(dir / "hard.json"), "new");
    EXPECT_EQ(readText(dir / "target.txt"), "keep");
  }
}

TEST(PXFileManagerWrites, ADirectWriteThatFailsHalfWayLeavesNoFile) {
  TempDir dir;
  struct rlimit saved {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto previous = std::signal(SIGXFSZ, SIG_IGN);  // the write then fails with EFBIG
  struct rlimit small = saved;
  small.rlim_cur = 4096;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  std::string error;
  bool written = PXFileManager::writeNewFile(dir / "torn.json", std::string(64 * 1024, 'x'), &error);
  ::setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previous);
  EXPECT_FALSE(written);
  EXPECT_NE(error.find("torn.json"), std::string::npos) << error;
  EXPECT_FALSE(PXFileManager::fileExists(dir / "torn.json")) << "the partial file is removed";
}

TEST(PXFileManagerReads, MissingFilesAndFoldersAreErrors) {
  TempDir dir;
  std::string error;
  EXPECT_FALSE(PXFileManager::readFile(dir / "absent.json", &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(PXFileManager::readFile(dir.path())) << "a folder is not a file";
  writeText(dir / "empty.json", "");
  EXPECT_EQ(PXFileManager::readFile(dir / "empty.json"), std::string());
}

TEST(PXFileManagerFolders, CreateCopyRemoveAndList) {
  TempDir dir;
  std::string error;
  EXPECT_FALSE(PXFileManager::createDirectory(dir / "a/b/c", false, &error)) << "no parents without intermediates";
  EXPECT_FALSE(error.empty());
  ASSERT_TRUE(PXFileManager::createDirectory(dir / "a/b/c", true));
  EXPECT_TRUE(PXFileManager::createDirectory(dir / "a/b/c", true)) << "an existing folder is fine";
  writeText(dir / "file", "x");
  EXPECT_FALSE(PXFileManager::createDirectory(dir / "file", true)) << "a file is in the way";
  bool isDirectory = true;
  EXPECT_TRUE(PXFileManager::fileExists(dir / "file", &isDirectory));
  EXPECT_FALSE(isDirectory);

  writeText(dir / "a/z.json", "z");
  writeText(dir / "a/m.json", "m");
  EXPECT_EQ(*PXFileManager::contentsOfDirectory(dir / "a"), (std::vector<std::string>{"b", "m.json", "z.json"}));
  EXPECT_FALSE(PXFileManager::contentsOfDirectory(dir / "nowhere"));

  ASSERT_TRUE(PXFileManager::copyItem(dir / "a", dir / "copy"));
  EXPECT_EQ(readText(dir / "copy/m.json"), "m");
  EXPECT_TRUE(PXFileManager::fileExists(dir / "copy/b/c", &isDirectory));
  EXPECT_TRUE(isDirectory);
  // Copying onto a link must not reach what it points at.
  ASSERT_EQ(::symlink((dir / "file").c_str(), (dir / "link").c_str()), 0);
  EXPECT_FALSE(PXFileManager::copyItem(dir / "a/m.json", dir / "link"));
  EXPECT_EQ(readText(dir / "file"), "x");

  EXPECT_TRUE(PXFileManager::removeItem(dir / "copy"));
  EXPECT_FALSE(PXFileManager::fileExists(dir / "copy"));
  EXPECT_TRUE(PXFileManager::removeItem(dir / "copy")) << "removing what is gone is not an error";
  EXPECT_TRUE(PXFileManager::removeItem(dir / "link"));
  EXPECT_EQ(readText(dir / "file"), "x") << "removing a link leaves its target";
}

TEST(PXFileManagerMoves, RenamesAndRefusesToOverwrite) {
  TempDir dir;
  writeText(dir / "src/pages/p.json", "page");
  writeText(dir / "taken/keep.json", "keep");
  std::string error;
  EXPECT_FALSE(PXFileManager::moveItem(dir / "src", dir / "taken", &error));
  EXPECT_EQ(error, "destination exists");
  EXPECT_EQ(readText(dir / "taken/keep.json"), "keep");
  EXPECT_TRUE(PXFileManager::fileExists(dir / "src/pages/p.json"));

  ASSERT_TRUE(PXFileManager::moveItem(dir / "src", dir / "moved", &error)) << error;
  EXPECT_EQ(readText(dir / "moved/pages/p.json"), "page");
  EXPECT_FALSE(PXFileManager::fileExists(dir / "src"));
  EXPECT_FALSE(PXFileManager::moveItem(dir / "src", dir / "again"));
}

TEST(PXFileManagerMoves, AcrossFileSystems) {
  TempDir dir;
  std::string other = "/dev/shm";
  if (!PXFileManager::fileExists(other) || deviceOf(other) == deviceOf(dir.path()) || ::access(other.c_str(), W_OK))
    GTEST_SKIP() << "no writable second file system at " << other;
  std::string pattern = other + "/plexa-move-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  std::string target = pattern + "/moved";

  writeText(dir / "src/pages/p.json", "page");
  writeText(dir / "src/document.json", "{}");
  std::string error;
  bool moved = PXFileManager::moveItem(dir / "src", target, &error);
  EXPECT_TRUE(moved) << error;
  EXPECT_EQ(readText(target + "/pages/p.json"), "page");
  EXPECT_EQ(readText(target + "/document.json"), "{}");
  EXPECT_FALSE(PXFileManager::fileExists(dir / "src"));
  PXFileManager::removeItem(pattern);
}
