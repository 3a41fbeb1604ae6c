// Reading single entries of an archive kept open: the bytes as written, and
// a clear refusal for what is missing, damaged, too large or not a zip.

#include "TestSupport.h"
#include "Zip.h"
#include "ZipReader.h"

#include <gtest/gtest.h>

#include <thread>

using namespace plexa;
using namespace plexa::test;

namespace {

std::string repeated(const std::string& text, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += text;
  return out;
}

}  // namespace

TEST(PXZipReader, ReadsEntriesAsWrittenAndRefusesTheRest) {
  TempDir dir;
  const std::string big = repeated("{\"do_objectID\": \"0123\"}, ", 20000);
  const std::string archive = dir / "doc.sketch";
  ASSERT_TRUE(PXZip::zipEntries({{"document.json", "{}"}, {"pages/", ""}, {"pages/P1.json", big}, {"empty", ""}},
                                archive));
  std::string error;
  auto reader = PXZipReader::open(archive, &error);
  ASSERT_TRUE(reader) << error;
  EXPECT_EQ(reader->names(), (std::vector<std::string>{"document.json", "pages/", "pages/P1.json", "empty"}));
  struct Case {
    const char* name;
    std::optional<std::string> expected;
  } cases[] = {
      {"document.json", "{}"}, {"pages/P1.json", big}, {"empty", ""}, {"missing.json", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(reader->contains(c.name), c.expected.has_value()) << c.name;
    EXPECT_EQ(reader->read(c.name), c.expected) << c.name;
  }
  reader->maxEntryBytes = 1000;
  EXPECT_FALSE(reader->read("pages/P1.json", &error));
  EXPECT_NE(error.find("too large"), std::string::npos) << error;
  EXPECT_EQ(reader->read("document.json"), std::optional<std::string>("{}"));
}

TEST(PXZipReader, DamagedDataAndNonArchivesAreErrorsNotCrashes) {
  TempDir dir;
  const std::string text = repeated("abcdefgh", 4000);
  const std::string archive = dir / "doc.sketch";
  ASSERT_TRUE(PXZip::zipEntries({{"a.json", text}}, archive));
  std::string bytes = readText(archive);
  // Damage the middle of the compressed data (after the local header).
  bytes[bytes.size() / 4] ^= 0x5a;
  writeText(dir / "damaged.sketch", bytes);
  std::string error;
  auto damaged = PXZipReader::open(dir / "damaged.sketch", &error);
  ASSERT_TRUE(damaged) << error;
  EXPECT_FALSE(damaged->read("a.json", &error));
  EXPECT_NE(error.find("corrupt"), std::string::npos) << error;

  writeText(dir / "plain.txt", "not a zip");
  EXPECT_FALSE(PXZipReader::open(dir / "plain.txt", &error));
  EXPECT_NE(error.find("not a readable zip"), std::string::npos) << error;
  EXPECT_FALSE(PXZipReader::open(dir / "absent.sketch", &error));
}

TEST(PXZipReader, SeveralThreadsReadOneArchive) {
  TempDir dir;
  std::vector<std::pair<std::string, std::string>> entries;
  for (int i = 0; i < 8; ++i) entries.emplace_back("e" + std::to_string(i), repeated(std::to_string(i), 5000 + i));
  const std::string archive = dir / "doc.sketch";
  ASSERT_TRUE(PXZip::zipEntries(entries, archive));
  auto reader = PXZipReader::open(archive);
  ASSERT_TRUE(reader);
  std::vector<int> good(entries.size(), 0);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < entries.size(); ++t)
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; ++round)
        good[t] += reader->read(entries[(t + round) % entries.size()].first) ==
                   std::optional<std::string>(entries[(t + round) % entries.size()].second);
    });
  for (auto& thread : threads) thread.join();
  for (size_t t = 0; t < good.size(); ++t) EXPECT_EQ(good[t], 20) << t;
}
