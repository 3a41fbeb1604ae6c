#include "Files.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
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

// Little-endian fields of `bytes` (2 or 4) bytes each.
void put(std::string& out, int bytes, std::initializer_list<uint32_t> fields) {
  for (uint32_t v : fields)
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

std::string rawZip(const std::vector<RawEntry>& entries) {
  std::string out;
  std::string central;
  for (const auto& e : entries) {
    const uint32_t offset = static_cast<uint32_t>(out.size());
    const uint32_t crc = crc32(e.data);
    const uint32_t size = static_cast<uint32_t>(e.data.size());
    const uint32_t nameSize = static_cast<uint32_t>(e.name.size());
    const uint32_t flags = e.dataDescriptor ? 0x0008 : 0;
    // Local header; with a data descriptor the sizes and CRC follow the data.
    put(out, 4, {0x04034b50});
    put(out, 2, {20, flags, 0, e.dosTime, e.dosDate});
    put(out, 4, {e.dataDescriptor ? 0 : crc, e.dataDescriptor ? 0 : size, e.dataDescriptor ? 0 : size});
    put(out, 2, {nameSize, 0});
    out += e.name + e.data;
    if (e.dataDescriptor) put(out, 4, {0x08074b50, crc, size, size});
    put(central, 4, {0x02014b50});
    put(central, 2, {(static_cast<uint32_t>(e.madeBy) << 8) | 20, 20, flags, 0, e.dosTime, e.dosDate});
    put(central, 4, {crc, size, size});
    put(central, 2, {nameSize, 0, 0, 0, 0});
    put(central, 4, {e.externalAttributes, offset});
    central += e.name;
  }
  const uint32_t count = static_cast<uint32_t>(entries.size());
  const uint32_t centralSize = static_cast<uint32_t>(central.size());
  const uint32_t centralOffset = static_cast<uint32_t>(out.size());
  out += central;
  put(out, 4, {0x06054b50});
  put(out, 2, {0, 0, count, count});
  put(out, 4, {centralSize, centralOffset});
  put(out, 2, {0});
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

  // A link entry marked by a unix writer on its own, and the classic pair:
  // link, then a file written through it.
  const RawEntry link{"pages", elsewhere, false, 0, 0, 3, (S_IFLNK | 0777u) << 16};
  for (const auto& entries : {std::vector<RawEntry>{link}, {link, {"pages/evil.json", "written through the link"}}}) {
    SCOPED_TRACE(entries.size());
    std::string archive = writeBytes(dir / "links.zip", rawZip(entries));
    std::string destination = dir / "unzipped";
    auto result = PXZip::extractAll(archive, destination);
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find("symbolic link"), std::string::npos) << result.error;
    EXPECT_FALSE(PXFileManager::fileExists(destination + "/pages"));
    EXPECT_TRUE(tree(elsewhere).empty());
  }

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

  EXPECT_TRUE(PXZip::extractAll(archive, dir / "exact", PXZipLimits{10000}).ok);

  // Each entry fits on its own; together they do not.
  auto refused = PXZip::extractAll(archive, dir / "tight", PXZipLimits{9999});
  EXPECT_FALSE(refused.ok);
  EXPECT_NE(refused.error.find("size limit"), std::string::npos) << refused.error;
  EXPECT_TRUE(tree(dir / "tight").empty());

  // A highly compressible entry (the zip-bomb shape) is refused by what it inflates to.
  std::string bomb = dir / "bomb.zip";
  ASSERT_TRUE(PXZip::zipEntries({{"pages/p.json", std::string(8u << 20, ' ')}}, bomb));
  EXPECT_LT(fs::file_size(bomb), 100000u);
  EXPECT_FALSE(PXZip::extractAll(bomb, dir / "bomb", PXZipLimits{1u << 20}).ok);
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

namespace {

// Bytes that differ by position and seed, so an entry written from another
// entry's (or a stale, longer) buffer is caught, and that deflate well.
std::string patterned(size_t size, uint32_t seed) {
  std::string out(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    out[i] = static_cast<char>('a' + ((x >> 16) % 7));
  }
  return out;
}

}  // namespace

TEST(ZipExtractWrites, EveryEntryExactlyWhateverItsSizeAndOrder) {
  TempDir dir;
  // Large and small entries interleaved, a large one after a larger one (a
  // reused buffer must not leak its tail) and an empty one.
  std::vector<std::pair<std::string, std::string>> entries;
  const std::vector<size_t> largeSizes = {900u << 10, 300u << 10, 2u << 20, 260u << 10};
  for (size_t i = 0; i < 400; ++i) {
    entries.emplace_back("images/" + std::to_string(i) + ".png", patterned(i * 37 % 5000, static_cast<uint32_t>(i)));
    if (i % 100 == 0)
      entries.emplace_back("pages/P" + std::to_string(i / 100) + ".json", patterned(largeSizes[i / 100], 9000u + i));
  }
  entries.emplace_back("images/empty.png", "");
  std::string archive = dir / "mixed.sketch";
  ASSERT_TRUE(PXZip::zipEntries(entries, archive));

  auto result = PXZip::extractAll(archive, dir / "out");
  ASSERT_TRUE(result.ok) << result.error;
  EXPECT_EQ(result.entries.size(), entries.size());
  std::map<std::string, std::string> expected;
  for (const auto& [name, bytes] : entries) expected[name] = bytes;
  for (const auto& [name, bytes] : expected) {
    SCOPED_TRACE(name);
    EXPECT_EQ(plexa::test::readText(dir / ("out/" + name)), bytes);
  }
  EXPECT_EQ(tree(dir / "out").size(), expected.size() + 2);  // and the two folders
}

TEST(ZipExtractWrites, OnlyTheWantedEntriesYetJudgesThemAll) {
  TempDir dir;
  std::string archive = dir / "doc.sketch";
  ASSERT_TRUE(PXZip::zipEntries({{"document.json", "{}"},
                                 {"images/a.png", patterned(5000, 1)},
                                 {"previews/preview.png", "PNG"},
                                 {"pages/P.json", patterned(400u << 10, 2)}},
                                archive));
  auto jsonOnly = [](const std::string& name) { return name.ends_with(".json"); };
  auto result = PXZip::extractAll(archive, dir / "out", {}, jsonOnly);
  ASSERT_TRUE(result.ok) << result.error;
  EXPECT_EQ(result.entries, (std::vector<std::string>{"document.json", "pages/P.json"}));
  // The folders are made all the same, empty where nothing was wanted.
  EXPECT_EQ(tree(dir / "out"), (std::vector<std::string>{"document.json", "images", "pages", "pages/P.json", "previews"}));
  EXPECT_EQ(plexa::test::readText(dir / "out/pages/P.json"), patterned(400u << 10, 2));

  // A hostile entry is refused even though it would be skipped.
  std::string hostile = writeBytes(dir / "hostile.sketch", rawZip({{"document.json", "{}"}, {"../evil.png", "x"}}));
  auto refused = PXZip::extractAll(hostile, dir / "hostile-out", {}, jsonOnly);
  EXPECT_FALSE(refused.ok);
  EXPECT_NE(refused.error.find("unsafe path"), std::string::npos) << refused.error;
  EXPECT_FALSE(PXFileManager::fileExists(dir / "hostile-out/document.json"));
}

TEST(ZipExtractFails, OnDeflatedEntriesWhoseChecksumIsWrong) {
  TempDir dir;
  // Both sizes: the small ones go through one worker, the large ones are shared out.
  for (size_t size : {size_t{3000}, size_t{600} << 10}) {
    SCOPED_TRACE(size);
    std::string data = patterned(size, static_cast<uint32_t>(size));
    std::string good = dir / "good.zip";
    ASSERT_TRUE(PXZip::zipEntries({{"document.json", "{}"}, {"pages/P.json", data}}, good));
    std::string bytes = plexa::test::readText(good);
    // The checksum sits in the local header and the central directory.
    const uint32_t crc = crc32(data);
    const std::string field{static_cast<char>(crc), static_cast<char>(crc >> 8), static_cast<char>(crc >> 16),
                            static_cast<char>(crc >> 24)};
    size_t replaced = 0;
    for (size_t at = bytes.find(field); at != std::string::npos; at = bytes.find(field, at + 4), ++replaced)
      bytes[at] = static_cast<char>(bytes[at] ^ 0x01);
    ASSERT_EQ(replaced, 2u);
    std::string damaged = writeBytes(dir / "damaged.zip", bytes);
    auto result = PXZip::extractAll(damaged, dir / ("out" + std::to_string(size)));
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find("corrupt entry data"), std::string::npos) << result.error;
  }
}

TEST(ZipExtractShows, EachEntryWrittenWholeWithTheBytesOfItsFile) {
  TempDir dir;
  // Small and large entries, an empty one, a name written twice (the last
  // wins on disk and is the only one shown) and one filtered out.
  const std::vector<std::pair<std::string, std::string>> entries = {
      {"document.json", "{}"},
      {"pages/A.json", patterned(700u << 10, 1)},
      {"images/a.png", patterned(3000, 2)},
      {"images/empty.png", ""},
      {"pages/B.json", patterned(300u << 10, 3)},
      {"pages/A.json", patterned(500u << 10, 4)},
      {"previews/preview.png", patterned(100, 5)}};
  std::string archive = dir / "doc.sketch";
  ASSERT_TRUE(PXZip::zipEntries(entries, archive));

  std::mutex mutex;
  std::map<std::string, std::vector<std::string>> shown;
  auto record = [&](const std::string& name, std::string_view bytes) {
    std::lock_guard lock(mutex);
    shown[name].emplace_back(bytes);
  };
  auto notPreviews = [](const std::string& name) { return !name.starts_with("previews/"); };
  auto result = PXZip::extractAll(archive, dir / "out", {}, notPreviews, record);
  ASSERT_TRUE(result.ok) << result.error;

  EXPECT_EQ(shown.size(), 5u);
  for (const auto& [name, copies] : shown) {
    SCOPED_TRACE(name);
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(copies.front(), plexa::test::readText(dir / ("out/" + name)));
  }
  EXPECT_EQ(shown["pages/A.json"].front(), patterned(500u << 10, 4));
  EXPECT_FALSE(shown.contains("previews/preview.png"));
}

TEST(ZipExtractShows, NothingOfADamagedEntryAndWritesDespiteAThrowingObserver) {
  TempDir dir;
  const std::string data = patterned(600u << 10, 7);
  std::string good = dir / "good.zip";
  ASSERT_TRUE(PXZip::zipEntries({{"document.json", "{}"}, {"pages/P.json", data}}, good));

  std::atomic<size_t> calls{0};
  auto throwing = [&](const std::string&, std::string_view) {
    ++calls;
    throw std::runtime_error("observer failed");
  };
  auto written = PXZip::extractAll(good, dir / "out", {}, {}, throwing);
  ASSERT_TRUE(written.ok) << written.error;
  EXPECT_EQ(calls.load(), 2u);
  EXPECT_EQ(plexa::test::readText(dir / "out/pages/P.json"), data);

  // The page's checksum flipped in both headers: the entry fails and is not shown.
  std::string bytes = plexa::test::readText(good);
  const uint32_t crc = crc32(data);
  const std::string field{static_cast<char>(crc), static_cast<char>(crc >> 8), static_cast<char>(crc >> 16),
                          static_cast<char>(crc >> 24)};
  for (size_t at = bytes.find(field); at != std::string::npos; at = bytes.find(field, at + 4))
    bytes[at] = static_cast<char>(bytes[at] ^ 0x01);
  std::vector<std::string> shown;
  std::mutex mutex;
  auto record = [&](const std::string& name, std::string_view) {
    std::lock_guard lock(mutex);
    shown.push_back(name);
  };
  auto damaged = PXZip::extractAll(writeBytes(dir / "damaged.zip", bytes), dir / "damaged-out", {}, {}, record);
  EXPECT_FALSE(damaged.ok);
  EXPECT_EQ(std::count(shown.begin(), shown.end(), "pages/P.json"), 0);
}
