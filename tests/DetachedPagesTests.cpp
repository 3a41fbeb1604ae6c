// Detached pages handed to the readers in memory read exactly as the pages
// written to disk and parsed again: same inspect, paths, hotspot and upload
// files for a real document, and the same numbers for every kind of value.

#include "PXHotspotsExporter.h"
#include "PXMetaExporter.h"
#include "PXSketchUnzipper.h"

#include "Files.h"
#include "Json.h"
#include "PathString.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <random>

using namespace plexa;
using namespace plexa::test;

namespace {

bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// Fresh identifiers differ from run to run; everything else must not.
std::string withoutIdentifiers(std::string text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    bool uuid = at + 36 <= text.size() && text[at + 8] == '-' && text[at + 13] == '-' && text[at + 18] == '-' &&
                text[at + 23] == '-' && isHex(text[at]) && isHex(text[at + 35]);
    if (uuid) {
      out += "<ID>";
      at += 36;
    } else {
      out += text[at++];
    }
  }
  return out;
}

std::string replacingAll(std::string text, const std::string& what, const std::string& with) {
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
    text.replace(at, what.size(), with);
  return text;
}

struct Outcome {
  std::map<std::string, std::string> files;  // output file name → text, identifiers aside
  bool pagesOnDiskAsArchived = true;
  bool detachedSketchWritten = false;
};

// The JSON detacher path of the unzipper, then every artboard's inspect,
// paths and hotspot files and the upload info, as the extractor runs them.
Outcome extract(const std::string& sketch, const std::string& dir, bool inMemory) {
  Outcome outcome;
  auto unzipper = PXSketchUnzipper::make();
  unzipper->sketchFilePath = sketch;
  unzipper->v2Detacher = true;
  unzipper->detachMethod = "all";
  unzipper->writesDetachedFile = !inMemory;
  const std::string folder = dir + "/unzipped";
  bool done = false, unzipped = false;
  unzipper->unzipToFolderPath(folder, [&](bool success, const std::string&) {
    unzipped = success;
    done = true;
  });
  EXPECT_TRUE(pumpMainUntil([&] { return done; }, std::chrono::minutes(3)));
  EXPECT_TRUE(unzipped);

  auto meta = PXMetaExporter::metaExporterWithSketchFilePath(sketch, folder);
  auto hotspots = PXHotspotsExporter::hotspotsExporterWithSketchFilePath(sketch, folder);
  auto pages = unzipper->takeDetachedPages();
  EXPECT_FALSE(pages.empty());
  if (inMemory) {
    meta->sketchReader->adoptPages(pages);
    hotspots->reader->adoptPages(pages);
  }
  pages.clear();

  const std::string out = dir + "/out";
  auto ids = meta->sketchReader->sortedArtboardIDs();
  EXPECT_FALSE(ids.empty());
  for (const auto& id : ids) meta->formattedMetaJSONFileForArtboardID(id, false, out);
  hotspots->exportHotspotsForArtboardIDs(ids, 2.0, out, nullptr, nullptr);
  meta->formattedJSONFileForSelectedArtboardIDs(ids, ids, 2.0, sketch, out);
  for (const auto& name : PXFileManager::contentsOfDirectory(out).value_or(std::vector<std::string>{}))
    outcome.files[name] = withoutIdentifiers(replacingAll(readText(out + "/" + name), dir, "<DIR>"));

  for (const auto& name : PXFileManager::contentsOfDirectory(folder + "/pages").value_or(std::vector<std::string>{}))
    if (PXFileManager::readFile(folder + "/pages/" + name) != PXZip::readEntry(sketch, "pages/" + name))
      outcome.pagesOnDiskAsArchived = false;
  outcome.detachedSketchWritten = PXFileManager::fileExists(unzipper->detachedSketchFilePath);
  return outcome;
}

}  // namespace

class DetachedPagesInMemory : public ::testing::TestWithParam<std::string> {};

TEST_P(DetachedPagesInMemory, GiveTheFilesThePagesOnDiskGive) {
  const std::string sketch = PXAppendingPathComponent(PLEXA_CORPUS_DIR, GetParam());
  if (!PXFileManager::fileExists(sketch)) GTEST_SKIP() << "corpus not available";
  TempDir onDisk, inMemory;
  Outcome disk = extract(sketch, onDisk.path(), false);
  Outcome memory = extract(sketch, inMemory.path(), true);

  // The disk path writes and zips the detached pages; the memory path
  // leaves the unzipped pages as they came and writes no archive.
  EXPECT_TRUE(disk.detachedSketchWritten);
  EXPECT_TRUE(memory.pagesOnDiskAsArchived);
  EXPECT_FALSE(memory.detachedSketchWritten);

  ASSERT_GT(disk.files.size(), 3u);
  ASSERT_EQ(disk.files.size(), memory.files.size());
  for (const auto& [name, text] : disk.files) {
    ASSERT_TRUE(memory.files.contains(name)) << name;
    EXPECT_EQ(text, memory.files.at(name)) << name;
  }
}

// Symbols with overrides, and prototype links for the hotspot files.
INSTANTIATE_TEST_SUITE_P(Corpus, DetachedPagesInMemory,
                         ::testing::Values("noya-symbols-nocanoverride-s72.sketch", "sketchhq-ref-prototypes-s57.sketch",
                                           "githawk-app-s52.sketch"),
                         [](const auto& info) { return std::to_string(info.index); });

TEST(JsonNormalizeAsWritten, ReadsAsTheWrittenTextParsesBack) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> unit(-1, 1);
  JsonArray numbers;
  for (double whole : {0.0, -0.0, 1.0, -375.0, 1e15, 4.5e18, 1e19, 1e300})
    numbers.push_back(whole);
  for (int i = 0; i < 20000; ++i) numbers.push_back(unit(random) * std::pow(10.0, static_cast<int>(random() % 40) - 20));
  numbers.push_back(std::numeric_limits<double>::denorm_min());
  numbers.push_back(JsonObject{{"nested", JsonArray{0.1, 2.5, int64_t{7}, uint64_t{1} << 63, "text", nullptr, true}}});
  JsonValue value = std::move(numbers);

  const JsonValue expected = *PXJsonParse(*PXJsonSerialize(value, false));
  auto roundTrip = PXJsonNormalizeAsWritten(value);
  EXPECT_TRUE(roundTrip.readable);
  EXPECT_EQ(roundTrip.nonFinite, 0u);
  // Kinds count too: a whole double must become an integer, as it reads back.
  const auto& got = value.as_array();
  const auto& want = expected.as_array();
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], want[i]) << "element " << i;
}

TEST(JsonNormalizeAsWritten, ReplacesWhatTheWriterRefusesAndKnowsWhatCannotBeReadBack) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  JsonValue value = JsonObject{{"a", nan}, {"b", JsonArray{inf, -inf, 1.5}}};
  ASSERT_FALSE(PXJsonSerialize(value, false).has_value());
  auto roundTrip = PXJsonNormalizeAsWritten(value);
  EXPECT_EQ(roundTrip.nonFinite, 3u);
  EXPECT_EQ(value, parseJson(R"({"a":0,"b":[0,0,1.5]})"));

  // As deep as the parser reads back, and one level deeper.
  for (size_t depth : {1024u, 1025u}) {
    JsonValue nested = JsonArray();
    for (size_t level = 1; level < depth; ++level) nested = JsonArray{std::move(nested)};
    const bool parses = PXJsonParse(*PXJsonSerialize(nested, false)).has_value();
    EXPECT_EQ(PXJsonNormalizeAsWritten(nested).readable, parses) << depth;
    EXPECT_EQ(parses, depth == 1024u);
  }
}

namespace {

struct StepRecorder : PXSketchUnzipperDelegate {
  std::vector<uint64_t> steps;
  void sketchUnzipper(PXSketchUnzipper&, uint64_t progress, uint64_t count) override {
    if (count == 5) steps.push_back(progress);
  }
};

}  // namespace

TEST(DetachedPagesInMemory, SameStepsWithoutAFileAndARefusalPastTheMemoryBudget) {
  TempDir dir;
  const std::string sketch = writeButtonDocument(dir / "button.sketch");
  struct Case {
    uint64_t budget;
    bool success;
    std::vector<uint64_t> steps;
  } cases[] = {{PXSketchUnzipper::kDefaultDetachMemoryBudget, true, {0, 1, 2, 3, 4, 5}}, {1000, false, {0}}};
  for (const auto& c : cases) {
    LogCapture log;
    auto unzipper = PXSketchUnzipper::make();
    auto recorder = std::make_shared<StepRecorder>();
    unzipper->delegate = recorder;
    unzipper->sketchFilePath = sketch;
    unzipper->v2Detacher = true;
    unzipper->detachMethod = "all";
    unzipper->writesDetachedFile = false;
    unzipper->detachMemoryBudget = c.budget;
    bool done = false, success = !c.success;
    unzipper->unzipToFolderPath(dir / ("unzipped-" + std::to_string(c.budget)), [&](bool ok, const std::string&) {
      success = ok;
      done = true;
    });
    ASSERT_TRUE(pumpMainUntil([&] { return done; }));
    pumpMainUntil([] { return false; }, std::chrono::milliseconds(50));  // progress queued before the completion
    EXPECT_EQ(success, c.success) << c.budget;
    EXPECT_EQ(recorder->steps, c.steps) << c.budget;
    EXPECT_EQ(unzipper->takeDetachedPages().empty(), !c.success) << c.budget;
    EXPECT_EQ(log.contains("more than the budget"), !c.success) << c.budget;
  }
}
