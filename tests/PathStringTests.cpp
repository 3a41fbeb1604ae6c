#include "PathString.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace plexa;

using Parts = std::vector<std::string>;

TEST(PathStringComponents, RootRepeatedAndTrailingSlashes) {
  EXPECT_EQ(PXPathComponents("/tmp/scratch.tiff"), (Parts{"/", "tmp", "scratch.tiff"}));
  EXPECT_EQ(PXPathComponents("tmp/scratch.tiff"), (Parts{"tmp", "scratch.tiff"}));
  EXPECT_EQ(PXPathComponents("//tmp///scratch"), (Parts{"/", "tmp", "scratch"}));
  EXPECT_EQ(PXPathComponents("/tmp/scratch/"), (Parts{"/", "tmp", "scratch", "/"}));
  EXPECT_EQ(PXPathComponents("/"), (Parts{"/"}));
  EXPECT_EQ(PXPathComponents("///"), (Parts{"/"}));
  EXPECT_TRUE(PXPathComponents("").empty());

  EXPECT_EQ(PXPathWithComponents({"/", "tmp", "scratch"}), "/tmp/scratch");
  EXPECT_EQ(PXPathWithComponents({"tmp", "scratch", "/"}), "tmp/scratch");
  EXPECT_EQ(PXPathWithComponents({"/"}), "/");
  EXPECT_EQ(PXPathWithComponents({"a", "", "b"}), "a/b");
  EXPECT_EQ(PXPathWithComponents(PXPathComponents("//a//b/c")), "/a/b/c");
}

TEST(PathStringComponents, LastComponentDeletingAndAppending) {
  EXPECT_EQ(PXLastPathComponent("/tmp/scratch.tiff"), "scratch.tiff");
  EXPECT_EQ(PXLastPathComponent("scratch///"), "scratch");
  EXPECT_EQ(PXLastPathComponent("/"), "/");
  EXPECT_EQ(PXLastPathComponent("//"), "/");
  EXPECT_EQ(PXLastPathComponent(""), "");

  EXPECT_EQ(PXDeletingLastPathComponent("/tmp/scratch.tiff"), "/tmp");
  EXPECT_EQ(PXDeletingLastPathComponent("/tmp/lock/"), "/tmp");
  EXPECT_EQ(PXDeletingLastPathComponent("/tmp"), "/");
  EXPECT_EQ(PXDeletingLastPathComponent("/"), "/");
  EXPECT_EQ(PXDeletingLastPathComponent("scratch.tiff"), "");
  EXPECT_EQ(PXDeletingLastPathComponent("a//b//c"), "a/b");

  EXPECT_EQ(PXAppendingPathComponent("/tmp", "scratch.tiff"), "/tmp/scratch.tiff");
  EXPECT_EQ(PXAppendingPathComponent("/tmp/", "scratch.tiff"), "/tmp/scratch.tiff");
  EXPECT_EQ(PXAppendingPathComponent("/", "scratch.tiff"), "/scratch.tiff");
  EXPECT_EQ(PXAppendingPathComponent("", "scratch.tiff"), "scratch.tiff");
  EXPECT_EQ(PXAppendingPathComponent("a", "/b//c/"), "a/b/c");
  EXPECT_EQ(PXAppendingPathComponent("a", ""), "a");
}

TEST(PathStringExtensions, LeadingDotsAndDoubleDots) {
  EXPECT_EQ(PXPathExtension("/tmp/scratch.tiff"), "tiff");
  EXPECT_EQ(PXPathExtension(".scratch.tiff"), "tiff");
  EXPECT_EQ(PXPathExtension("/tmp/scratch..tiff"), "tiff");
  EXPECT_EQ(PXPathExtension("archive.tar.gz"), "gz");
  EXPECT_EQ(PXPathExtension("Design.sketch/"), "sketch");
  EXPECT_EQ(PXPathExtension("/tmp/scratch"), "");
  EXPECT_EQ(PXPathExtension("/tmp/"), "");
  EXPECT_EQ(PXPathExtension(".hidden"), "");
  EXPECT_EQ(PXPathExtension("/tmp/.hidden"), "");
  EXPECT_EQ(PXPathExtension("a.b/c"), "");
  EXPECT_EQ(PXPathExtension(".."), "");

  EXPECT_EQ(PXDeletingPathExtension("/tmp/scratch.tiff"), "/tmp/scratch");
  EXPECT_EQ(PXDeletingPathExtension("/tmp/"), "/tmp");
  EXPECT_EQ(PXDeletingPathExtension("scratch.bundle/"), "scratch");
  EXPECT_EQ(PXDeletingPathExtension("scratch..tiff"), "scratch.");
  EXPECT_EQ(PXDeletingPathExtension(".tiff"), ".tiff");
  EXPECT_EQ(PXDeletingPathExtension("a.b/c"), "a.b/c");
  EXPECT_EQ(PXDeletingPathExtension("/"), "/");

  EXPECT_EQ(PXAppendingPathExtension("/tmp/scratch.old", "tiff"), "/tmp/scratch.old.tiff");
  EXPECT_EQ(PXAppendingPathExtension("/tmp/scratch.", "tiff"), "/tmp/scratch..tiff");
  EXPECT_EQ(PXAppendingPathExtension("/tmp/", "tiff"), "/tmp.tiff");
  EXPECT_EQ(PXAppendingPathExtension("scratch", "tiff"), "scratch.tiff");
  EXPECT_EQ(PXAppendingPathExtension("scratch", ""), "scratch");
}

TEST(PathStringStandardizing, DotsFoldWithoutClimbingAboveTheRoot) {
  EXPECT_EQ(PXStandardizingPath("/a/./b/../c/"), "/a/c");
  EXPECT_EQ(PXStandardizingPath("//x//y/"), "/x/y");
  EXPECT_EQ(PXStandardizingPath("/../a"), "/a");
  EXPECT_EQ(PXStandardizingPath("/a/b/../.."), "/");
  EXPECT_EQ(PXStandardizingPath("/a/b/../../../.."), "/");
  EXPECT_EQ(PXStandardizingPath("a/b/.."), "a");
  // A relative path keeps the ".." it cannot fold, so callers still see the climb.
  EXPECT_EQ(PXStandardizingPath("a/../../b"), "../b");
  EXPECT_EQ(PXStandardizingPath("../../x"), "../../x");
  EXPECT_EQ(PXStandardizingPath("x/../../etc/passwd"), "../etc/passwd");
  EXPECT_EQ(PXStandardizingPath("./a/."), "a");
  EXPECT_EQ(PXStandardizingPath("/"), "/");
  EXPECT_EQ(PXStandardizingPath("/a/.../b/..x"), "/a/.../b/..x");  // only "." and ".." are special
}

// Names that other code uses to build paths: a file name stays in its folder,
// a relative path stays below its root, whatever the name holds.
TEST(PathStringPlainNames, OnlyNamesThatStayWhereTheyAreLookedUp) {
  using namespace std::string_literals;
  struct Row {
    std::string name;
    bool fileName;
    bool relativePath;
  } rows[] = {
      {"A1B2-C3.json", true, true},    {"...", true, true},           {".hidden", true, true},
      {"pages/ID.json", false, true},  {"a/b/c", false, true},        {"", false, false},
      {".", false, false},             {"..", false, false},          {"a/../b", false, false},
      {"./a", false, false},           {"a//b", false, false},        {"a/", false, false},
      {"/etc/passwd", false, false},   {"a\0b"s, false, false},       {"pages/\0.json"s, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(PXIsPlainFileName(row.name), row.fileName);
    EXPECT_EQ(PXIsPlainRelativePath(row.name), row.relativePath);
  }
}
