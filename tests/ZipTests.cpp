#include "Files.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>
#include <zip.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

using namespace plexa;
using plexa::test::TempDir;

namespace {

namespace fs = std::filesystem;

// A hand-made archive, so the tests control exactly what a hostile or
// unusual writer puts in the headers. Entries are stored uncompressed.
struct RawEntry {
  std::string name;
  std::string data;
  bool dataDescriptor = false;
  uint16_t dosTime = 0;
  uint16_t dosDate = 0;
  uint8_t madeBy = 0;  // 3 is unix
  uint32_t externalAttributes = 0;
};

uint32_t crc32(const std::string& data) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char byte : data) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void put16(std::string& out, uint32_t v) {
  out.push_back(static_cast<char>(v & 0xFF));
  out.push_back(static_cast<char>((v >> 8) & 0xFF));
}
void put32(std::string& out, uint32_t v) {
  put16(out, v & 0xFFFF);
  put16(out, v >> 16);
}

std::string rawZip(const std::vector<RawEntry>& entries) {
  std::string out;
  std::string central;
  for (const auto& e : entries) {
    uint32_t offset = static_cast<uint32_t>(out.size());
    uint32_t crc = crc32(e.data);
    uint32_t size = static_cast<uint32_t>(e.data.size());
    uint16_t flags = e.dataDescriptor ? 0x0008 : 0;
    put32(out, 0x04034b50);
    put16(out, 20);
    put16(out, flags);
    put16(out, 0);
    put16(out, e.dosTime);
    put16(out, e.dosDate);
    put32(out, e.dataDescriptor ? 0 : crc);
    put32(out, e.dataDescriptor ? 0 : size);
    put32(out, e.dataDescriptor ? 0 : size);
    put16(out, static_cast<uint32_t>(e.name.size()));
    put16(out, 0);
    out += e.name;
    out += e.data;
    if (e.dataDescriptor) {
      put32(out, 0x08074b50);
      put32(out, crc);
      put32(out, size);
      put32(out, size);
    }
    put32(central, 0x02014b50);
    put16(central, (static_cast<uint32_t>(e.madeBy) << 8) | 20);
    put16(central, 20);
    put16(central, flags);
    put16(central, 0);
    put16(central, e.dosTime);
    put16(central, e.dosDate);
    put32(central, crc);
    put32(central, size);
    put32(central, size);
    put16(central, static_cast<uint32_t>(e.name.size()));
    put16(central, 0);
    put16(central, 0);
    put16(central, 0);
    put16(central, 0);
    put32(central, e.externalAttributes);
    put32(central, offset);
    central += e.name;
  }
  uint32_t centralOffset = static_cast<uint32_t>(out.size());
  out += central;
  put32(out, 0x06054b50);
  put16(out, 0);
  put16(out, 0);
  put16(out, static_cast<uint32_t>(entries.size()));
  put16(out, static_cast<uint32_t>(entries.size()));
  put32(out, static_cast<uint32_t>(central.size()));
  put32(out, centralOffset);
  put16(out, 0);
  return out;
}

std::string writeBytes(const std::string& path, const std::string& bytes) {
  plexa::test::writeText(path, bytes);
  return path;
}

// Every path under `root`, relative and sorted, links included as links.
std::vector<std::string> tree(const std::string& root) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec))
    names.push_back(fs::path(it->path()).lexically_relative(root).generic_string());
  std::sort(names.begin(), names.end());
  return names;
}

// An archive written by libzip whose `linkName` entry is marked as a unix
// symbolic link to `target`, optionally followed by a file written through it.
std::string libzipArchiveWithLink(const std::string& path, const std::string& linkName, const std::string& target,
                                  const std::string& followUp) {
  int code = 0;
  zip_t* z = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &code);
  EXPECT_NE(z, nullptr);
  if (!z) return path;
  zip_source_t* link = zip_source_buffer(z, target.data(), target.size(), 0);
  zip_int64_t index = zip_file_add(z, linkName.c_str(), link, ZIP_FL_ENC_UTF_8);
  EXPECT_GE(index, 0);
  EXPECT_EQ(zip_file_set_external_attributes(z, static_cast<zip_uint64_t>(index), 0, ZIP_OPSYS_UNIX,
                                             static_cast<zip_uint32_t>(S_IFLNK | 0777) << 16),
            0);
  static const std::string payload = "written through the link";
  if (!followUp.empty())
    zip_file_add(z, followUp.c_str(), zip_source_buffer(z, payload.data(), payload.size(), 0), ZIP_FL_ENC_UTF_8);
  EXPECT_EQ(zip_close(z), 0);
  return path;
}

}  // namespace

TEST(ZipExtractRefuses, EntriesThatNameAPlaceOutsideTheDestination) {
  TempDir dir;
  std::string outside = dir / "outside.txt";
  const std::vector<std::string> hostile = {outside, "../outside.txt", "pages/../../outside.txt", "a/../b.json",
                                            "..", ""};
  for (const auto& name : hostile) {
    SCOPED_TRACE("entry \"" + name + "\"");
    std::string archive = writeBytes(dir / "hostile.zip", rawZip({{"document.json", "{}"}, {name, "escaped"}}));
    std::string destination = dir / "unzipped";
    auto result = PXZip::extractAll(archive, destination);
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find("unsafe path"), std::string::npos) << result.error;
    // The whole archive is judged first: not even the harmless entry lands.
    EXPECT_FALSE(PXFileManager::fileExists(destination + "/document.json"));
    EXPECT_FALSE(PXFileManager::fileExists(outside));
    EXPECT_EQ(tree(dir.path()), (std::vector<std::string>{"hostile.zip"}));
    PXFileManager::removeItem(destination);
  }
}

TEST(ZipExtractRefuses, SymbolicLinksInTheArchiveAndPlantedInTheDestination) {
  TempDir dir;
  std::string elsewhere = dir / "elsewhere";
  PXFileManager::createDirectory(elsewhere, true);

  // A link entry on its own, and the classic pair: link, then a file through it.
  for (const std::string followUp : {"", "pages/evil.json"}) {
    SCOPED_TRACE("follow-up \"" + followUp + "\"");
    std::string archive = libzipArchiveWithLink(dir / "links.zip", "pages", elsewhere, followUp);
    std::string destination = dir / "unzipped";
    auto result = PXZip::extractAll(archive, destination);
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find("symbolic link"), std::string::npos) << result.error;
    EXPECT_FALSE(PXFileManager::fileExists(destination + "/pages"));
    EXPECT_TRUE(tree(elsewhere).empty());
  }

  // Stored-only raw form with the link bits set by a unix writer.
  std::string raw = writeBytes(dir / "raw-link.zip", rawZip({{"images", elsewhere, false, 0, 0, 3, (S_IFLNK | 0777u) << 16}}));
  auto rawResult = PXZip::extractAll(raw, dir / "raw-unzipped");
  EXPECT_FALSE(rawResult.ok);
  EXPECT_NE(rawResult.error.find("symbolic link"), std::string::npos) << rawResult.error;

  // A link already waiting in the destination is not followed either.
  std::string destination = dir / "planted";
  PXFileManager::createDirectory(destination, true);
  ASSERT_EQ(::symlink(elsewhere.c_str(), (destination + "/pages").c_str()), 0);
  std::string archive = writeBytes(dir / "plain.zip", rawZip({{"pages/page.json", "{}"}}));
  auto planted = PXZip::extractAll(archive, destination);
  EXPECT_FALSE(planted.ok);
  EXPECT_NE(planted.error.find("outside the destination"), std::string::npos) << planted.error;
  EXPECT_TRUE(tree(elsewhere).empty());
}

TEST(ZipExtractRefuses, ArchivesPastTheSizeCap) {
  TempDir dir;
  std::string archive = dir / "big.zip";
  ASSERT_TRUE(PXZip::zipEntries({{"a.json", std::string(6000, 'a')}, {"b.json", std::string(4000, 'b')}}, archive));

  PXZipLimits exact;
  exact.maxTotalUncompressedBytes = 10000;
  EXPECT_TRUE(PXZip::extractAll(archive, dir / "exact", exact).ok);

  // Each entry fits on its own; together they do not.
  PXZipLimits tight;
  tight.maxTotalUncompressedBytes = 9999;
  auto refused = PXZip::extractAll(archive, dir / "tight", tight);
  EXPECT_FALSE(refused.ok);
  EXPECT_NE(refused.error.find("size limit"), std::string::npos) << refused.error;
  EXPECT_TRUE(tree(dir / "tight").empty());

  // A highly compressible entry (the zip-bomb shape) is refused by what it inflates to.
  std::string bomb = dir / "bomb.zip";
  ASSERT_TRUE(PXZip::zipEntries({{"pages/p.json", std::string(8u << 20, ' ')}}, bomb));
  EXPECT_LT(fs::file_size(bomb), 100000u);
  PXZipLimits small;
  small.maxTotalUncompressedBytes = 1u << 20;
  EXPECT_FALSE(PXZip::extractAll(bomb, dir / "bomb", small).ok);
  EXPECT_FALSE(PXFileManager::fileExists(dir / "bomb/pages/p.json"));
}

TEST(ZipExtractFails, OnFilesThatAreNotSoundArchives) {
  TempDir dir;
  std::string good = dir / "good.zip";
  std::string payload;
  for (int i = 0; i < 4000; ++i) payload += "{\"do_objectID\":\"" + std::to_string(i * 7919) + "\"},";
  ASSERT_TRUE(PXZip::zipEntries({{"document.json", payload}}, good));
  std::string bytes = plexa::test::readText(good);

  std::string truncated = writeBytes(dir / "truncated.zip", bytes.substr(0, bytes.size() / 2));
  std::string damaged = bytes;
  for (size_t i = 100; i < 400; ++i) damaged[i] = static_cast<char>(damaged[i] ^ 0x5A);
  std::string damagedPath = writeBytes(dir / "damaged.zip", damaged);
  std::string text = writeBytes(dir / "text.sketch", "this is not an archive\n");
  std::string empty = writeBytes(dir / "empty.sketch", "");

  for (const auto& path : {truncated, damagedPath, text, empty, dir / "missing.sketch"}) {
    SCOPED_TRACE(path);
    auto result = PXZip::extractAll(path, dir / "out");
    EXPECT_FALSE(result.ok);
    EXPECT_FALSE(result.error.empty());
    EXPECT_EQ(result.error.find('\n'), std::string::npos);
    EXPECT_FALSE(PXZip::readEntry(path, "document.json"));
  }
  EXPECT_FALSE(PXZip::entryNames(text));
  EXPECT_TRUE(PXZip::extractAll(good, dir / "good-out").ok);
}

TEST(ZipExtractAccepts, WhatSketchWrites) {
  TempDir dir;
  // Sketch stamps every entry with a zeroed DOS date; some writers add data
  // descriptors; folders are often implied by file names only.
  std::string archive = writeBytes(
      dir / "sketchlike.sketch",
      rawZip({{"document.json", R"({"pages":[]})", false, 0, 0},
              {"fonts/6389a6c71aa7", std::string("\0\1\2font", 7), true, 0, 0},
              {"pages/", "", false, 0, 0},
              {"pages/P1.json", R"({"layers":[]})", true, 0, 0},
              {"images/bitmap \xC3\xA9.png", "PNG", true, 0, 0, 3, (S_IFREG | 0644u) << 16}}));
  auto result = PXZip::extractAll(archive, dir / "out");
  ASSERT_TRUE(result.ok) << result.error;
  EXPECT_EQ(result.entries, (std::vector<std::string>{"document.json", "fonts/6389a6c71aa7", "pages/P1.json",
                                                      "images/bitmap \xC3\xA9.png"}));
  EXPECT_EQ(plexa::test::readText(dir / "out/pages/P1.json"), R"({"layers":[]})");
  EXPECT_EQ(plexa::test::readText(dir / "out/fonts/6389a6c71aa7"), std::string("\0\1\2font", 7));
  EXPECT_EQ(plexa::test::readText(dir / "out/images/bitmap \xC3\xA9.png"), "PNG");
  EXPECT_EQ(PXZip::readEntry(archive, "pages/P1.json"), R"({"layers":[]})");
  EXPECT_EQ(PXZip::entryNames(archive)->size(), 5u);
}

TEST(ZipWrite, FolderAndEntriesRoundTripWithoutFollowingLinks) {
  TempDir dir;
  std::string folder = dir / "doc";
  plexa::test::writeText(folder + "/document.json", "{}");
  plexa::test::writeText(folder + "/pages/A.json", "{\"a\":1}");
  plexa::test::writeText(dir / "secret.txt", "secret");
  ASSERT_EQ(::symlink((dir / "secret.txt").c_str(), (folder + "/images").c_str()), 0);

  std::string archive = dir / "doc.sketch";
  std::string error;
  ASSERT_TRUE(PXZip::zipFolder(folder, archive, &error)) << error;
  auto names = PXZip::entryNames(archive);
  ASSERT_TRUE(names);
  EXPECT_EQ(std::count(names->begin(), names->end(), "images"), 0);
  EXPECT_EQ(std::count(names->begin(), names->end(), "pages/A.json"), 1);
  EXPECT_EQ(PXZip::readEntry(archive, "pages/A.json"), "{\"a\":1}");
  EXPECT_FALSE(PXZip::readEntry(archive, "pages/missing.json", &error));
  EXPECT_FALSE(PXFileManager::fileExists(archive + ".partial"));

  // Rewriting replaces the archive as a whole.
  ASSERT_TRUE(PXZip::zipEntries({{"only.json", "[]"}}, archive));
  EXPECT_EQ(*PXZip::entryNames(archive), std::vector<std::string>{"only.json"});
}
