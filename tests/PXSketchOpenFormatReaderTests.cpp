#include "PXSketchOpenFormatReader.h"

#include "Files.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <thread>

using namespace plexa;
using namespace plexa::test;

namespace {

JsonObject ref(const std::string& pageID) {
  return JsonObject{{"_class", "MSJSONFileReference"}, {"_ref_class", "MSImmutablePage"}, {"_ref", "pages/" + pageID}};
}

JsonObject metaListing(std::initializer_list<std::pair<std::string, std::vector<std::string>>> pages) {
  JsonObject pagesAndArtboards;
  for (const auto& [pageID, artboards] : pages) {
    JsonObject listed;
    for (const auto& id : artboards) listed[id] = JsonObject{{"name", id}};
    pagesAndArtboards[pageID] = JsonObject{{"name", pageID}, {"artboards", std::move(listed)}};
  }
  return JsonObject{{"pagesAndArtboards", std::move(pagesAndArtboards)}};
}

std::shared_ptr<PXSketchOpenFormatReader> readerFor(const SketchFixture& fixture, const std::string& folder) {
  return PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(fixture.writeFolder(folder));
}

JsonObject ab(const std::string& id) { return artboard(id, "Artboard " + id, frame(0, 0, 100, 100)); }

}  // namespace

TEST(PXSketchOpenFormatReaderValidity, EveryPartMustExist) {
  TempDir dir;
  SketchFixture full;
  full.addPage(page("P1", "Page", JsonArray{ab("A")}));
  EXPECT_TRUE(readerFor(full, dir / "doc")->isValid());

  for (const std::string missing : {"previews/", "images/", "pages/", "meta.json", "user.json", "document.json"}) {
    SCOPED_TRACE(missing);
    SketchFixture partial = full;
    partial.omitEntry(missing);
    EXPECT_FALSE(readerFor(partial, dir / ("without-" + missing))->isValid());
  }

  writeText(dir / "plain-file", "x");
  EXPECT_FALSE(PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(dir / "plain-file")->isValid());
  EXPECT_FALSE(PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(dir / "nowhere")->isValid());
}

TEST(PXSketchOpenFormatReaderLoading, MissingAndMalformedFiles) {
  TempDir dir;
  SketchFixture fixture;
  fixture.addPage(page("P1", "Page", JsonArray{ab("A")}));
  auto reader = readerFor(fixture, dir / "doc");
  std::string root = reader->rootFolderPath();

  // A malformed page is logged on every attempt and picked up once repaired.
  writeText(root + "/pages/P1.json", "{\"layers\": [");
  {
    LogCapture log;
    EXPECT_EQ(reader->pageJSONByID("P1"), nullptr);
    EXPECT_EQ(reader->pageJSONByID("P1"), nullptr);
    EXPECT_EQ(log.count("PXSketchOpenFormatReader.pageJSONByID:P1 error " + root + "/pages/P1.json"), 2u);
  }
  writeText(root + "/pages/P1.json", R"({"layers":[{"_class":"artboard","do_objectID":"A"}]})");
  auto page = reader->pageJSONByID("P1");
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(reader->pageJSONByID("P1"), page) << "a parsed page is cached";
  EXPECT_EQ(reader->pageJSONByID("NOPAGE"), nullptr);

  // A top-level value that is not a dictionary is no meta file either.
  writeText(root + "/meta.json", "[1, 2]");
  {
    LogCapture log;
    EXPECT_EQ(reader->metaJSON(), nullptr);
    EXPECT_TRUE(log.contains("PXSketchOpenFormatReader.metaJSON error " + root + "/meta.json"));
  }
  PXFileManager::removeItem(root + "/meta.json");
  {
    LogCapture log;
    EXPECT_EQ(reader->metaJSON(), nullptr);
    EXPECT_TRUE(reader->artboardIDs().empty());
    EXPECT_FALSE(reader->pageIDByArtboardID("A"));
    EXPECT_TRUE(log.messages().empty()) << "a missing meta.json is not an error";
  }

  // document.json and user.json are required outright.
  PXFileManager::removeItem(root + "/document.json");
  PXFileManager::removeItem(root + "/user.json");
  EXPECT_THROW(reader->documentJSON(), PXSketchDocumentFileMissing);
  EXPECT_THROW(reader->userJSON(), PXSketchDocumentFileMissing);
}

TEST(PXSketchOpenFormatReaderQuestions, PageIndexUsesContainment) {
  TempDir dir;
  SketchFixture fixture;
  fixture.setDocument(JsonObject{{"pages", JsonArray{ref("ABC-1"), ref("ABC"), ref("XYZ")}}});
  auto reader = readerFor(fixture, dir / "doc");
  EXPECT_EQ(reader->pageIndexByPageID("ABC"), 0) << "the first reference containing the ID wins";
  EXPECT_EQ(reader->pageIndexByPageID("ABC-1"), 0);
  EXPECT_EQ(reader->pageIndexByPageID("XYZ"), 2);
  EXPECT_EQ(reader->pageIndexByPageID("pages/XY"), 2);
  EXPECT_EQ(reader->pageIndexByPageID("QQQ"), PXSketchOpenFormatReader::NotFound);
  EXPECT_EQ(reader->pageIndexByPageID(std::nullopt), 9223372036854775807);

  SketchFixture wrongType;
  wrongType.setDocument(JsonObject{{"pages", "pages/ABC"}});
  EXPECT_EQ(readerFor(wrongType, dir / "other")->pageIndexByPageID("ABC"), PXSketchOpenFormatReader::NotFound);
}

TEST(PXSketchOpenFormatReaderQuestions, SortedArtboardIDsFollowDocumentOrder) {
  TempDir dir;
  SketchFixture fixture;
  JsonObject group = layer("group", "G", "Group", frame(0, 0, 10, 10));
  JsonObject shape = layer("rectangle", "R", "Rect", frame(0, 0, 10, 10));
  fixture.addPage(page("P1", "One", JsonArray{ab("A"), ab("B"), ab("C")}))
      .addPage(page("P2", "Two", JsonArray{ab("D"), group, shape, ab("E")}))
      .setDocument(JsonObject{{"pages", JsonArray{ref("P1"), ref("GONE"), ref("P2")}}})
      // R is listed though it is no artboard; Z and M live on a page with no file.
      .setMeta(metaListing({{"P2", {"D", "E", "R"}}, {"P1", {"C", "A", "B"}}, {"GONE", {"Z", "M"}}}));
  auto reader = readerFor(fixture, dir / "doc");

  EXPECT_EQ(reader->artboardIDs(), (std::vector<std::string>{"D", "E", "R", "C", "A", "B", "Z", "M"}));
  EXPECT_EQ(reader->sortedArtboardIDs(), (std::vector<std::string>{"C", "B", "A", "E", "R", "D", "M", "Z"}));

  // An ID listed twice is placed once.
  SketchFixture twice;
  twice.addPage(page("P1", "One", JsonArray{ab("A"), ab("A")}))
      .setMeta(metaListing({{"P1", {"A"}}, {"P9", {"A"}}}));
  EXPECT_EQ(readerFor(twice, dir / "other")->sortedArtboardIDs(), std::vector<std::string>{"A"});
}

TEST(PXSketchOpenFormatReaderQuestions, ArtboardLookups) {
  TempDir dir;
  JsonObject master = layer("symbolMaster", "S", "Button", frame(0, 0, 80, 30));
  JsonObject group = layer("group", "G", "Group", frame(0, 0, 10, 10), JsonArray{ab("NESTED")});
  JsonObject older = artboard("DUP", "older", frame(0, 0, 100, 100));
  JsonObject newer = artboard("DUP", "newer", frame(0, 0, 100, 100));
  SketchFixture fixture;
  fixture.addPage(page("P1", "One", JsonArray{ab("A"), master, group, older, newer}))
      .addPage(page("P2", "Two", JsonArray{ab("B")}))
      .setMeta(metaListing({{"P1", {"A", "S", "G", "NESTED", "DUP", "B"}}, {"P2", {"B"}}}));
  auto reader = readerFor(fixture, dir / "doc");

  EXPECT_EQ(reader->pageIDByArtboardID("A"), "P1");
  EXPECT_EQ(reader->pageIDByArtboardID("B"), "P2") << "the page visited last wins";
  EXPECT_FALSE(reader->pageIDByArtboardID("NOPE"));

  auto a = reader->artboardJSONByID("A");
  ASSERT_TRUE(a);
  EXPECT_EQ(a->at("name"), "Artboard A");
  EXPECT_EQ(reader->artboardJSONByID("S")->at("_class"), "symbolMaster");
  EXPECT_EQ(reader->artboardJSONByID("DUP")->at("name"), "newer");
  EXPECT_FALSE(reader->artboardJSONByID("G")) << "a group is no artboard";
  EXPECT_FALSE(reader->artboardJSONByID("NESTED")) << "only top-level layers are searched";
  EXPECT_FALSE(reader->artboardJSONByID("NOPE"));

  // The copy is the caller's own.
  a->at("name") = "changed";
  EXPECT_EQ(reader->artboardJSONByID("A")->at("name"), "Artboard A");
}

TEST(PXSketchOpenFormatReaderQuestions, CastNumber) {
  JsonValue text("12.5"), number(3), flag(true), dictionary = JsonObject{{"a", 1}}, list = JsonArray{1};
  EXPECT_EQ(PXSketchOpenFormatReader::castNumber(&text), 12.5);
  EXPECT_EQ(PXSketchOpenFormatReader::castNumber(nullptr), 0.0);
  EXPECT_EQ(PXSketchOpenFormatReader::castNumber(&number), 3.0);
  EXPECT_EQ(PXSketchOpenFormatReader::castNumber(&flag), 1.0);
  EXPECT_FALSE(PXSketchOpenFormatReader::castNumber(&dictionary));
  EXPECT_FALSE(PXSketchOpenFormatReader::castNumber(&list));
}

TEST(PXSketchOpenFormatReaderHostile, PageIDsNeverLeaveThePagesFolder) {
  TempDir dir;
  // Files a hostile reference would reach if page IDs were used as paths.
  writeText(dir / "secret.json", R"({"layers":[{"_class":"artboard","do_objectID":"A"}]})");
  writeText(dir / "doc/secret.json", R"({"layers":[{"_class":"artboard","do_objectID":"A"}]})");
  SketchFixture fixture;
  fixture.addPage(page("P1", "One", JsonArray{ab("B")}))
      .setDocument(JsonObject{{"pages", JsonArray{JsonObject{{"_ref", "pages/../../secret"}}, ref("P1"),
                                                  JsonObject{{"_ref", 42}}}}})
      .setMeta(metaListing({{"../../secret", {"A"}}, {"P1", {"B"}}}));
  auto reader = readerFor(fixture, dir / "doc");

  for (const std::string id : {"../secret", "../../secret", "/etc/passwd", "..", ".", ""})
    EXPECT_EQ(reader->pageJSONByID(id), nullptr) << id;
  EXPECT_FALSE(reader->artboardJSONByID("A"));
  EXPECT_EQ(reader->sortedArtboardIDs(), (std::vector<std::string>{"B", "A"}));
  EXPECT_TRUE(reader->artboardJSONByID("B"));
}

TEST(PXSketchOpenFormatReaderConcurrency, ThreadsShareOneParsedPage) {
  TempDir dir;
  SketchFixture fixture;
  JsonArray many;
  for (int i = 0; i < 2000; ++i) many.push_back(ab("A" + std::to_string(i)));
  fixture.addPage(page("P1", "One", std::move(many)));
  auto reader = readerFor(fixture, dir / "doc");

  std::vector<PXSketchOpenFormatReader::Dictionary> seen(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i)
    threads.emplace_back([&, i] { seen[i] = reader->pageJSONByID("P1"); });
  for (auto& t : threads) t.join();
  ASSERT_NE(seen[0], nullptr);
  for (const auto& page : seen) EXPECT_EQ(page, seen[0]);
  EXPECT_EQ(reader->sortedArtboardIDs().front(), "A1999");
}
