#include "PXSketchPageCollector.h"

#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <set>

using namespace plexa;
using namespace plexa::test;

namespace {

JsonObject ab(const std::string& id) { return artboard(id, "Artboard " + id, frame(0, 0, 100, 100)); }

std::set<std::string> keysOf(const PXSketchOpenFormatReader::PageMap& pages) {
  std::set<std::string> keys;
  for (const auto& [id, page] : pages) keys.insert(id);
  return keys;
}

// Two good pages, one large enough to be shared out among the unzipping
// workers, and entries that are not pages or do not parse as one.
SketchFixture mixedDocument() {
  JsonArray many;
  for (int i = 0; i < 3000; ++i) many.push_back(ab("B" + std::to_string(i)));
  SketchFixture fixture;
  fixture.addPage(page("P1", "Small", JsonArray{ab("A1"), ab("A2")}))
      .addPage(page("P2", "Large", std::move(many)))
      .addEntry("pages/BAD.json", "{\"layers\": [")
      .addEntry("pages/ARRAY.json", "[1, 2]")
      .addEntry("pages/sub/NESTED.json", "{}")
      .addEntry("pages/.json", "{}")
      .addEntry("images/pattern.json", "{}")
      .addEntry("pagesX.json", "{}");
  return fixture;
}

}  // namespace

TEST(PXSketchPageCollector, ParsesExactlyThePagesThatAreObjects) {
  TempDir dir;
  std::string sketch = mixedDocument().writeSketch(dir / "doc.sketch");
  PXSketchPageCollector collector;
  auto result = PXZip::extractAll(sketch, dir / "out", {}, {}, collector.observer());
  ASSERT_TRUE(result.ok) << result.error;

  auto pages = collector.takePages();
  EXPECT_EQ(keysOf(pages), (std::set<std::string>{"P1", "P2"}));
  for (const auto& [id, page] : pages) {
    SCOPED_TRACE(id);
    EXPECT_EQ(JsonValue(*page), readJson(dir / ("out/pages/" + id + ".json")));
  }
  EXPECT_TRUE(collector.takePages().empty());  // taken once
}

TEST(PXSketchPageCollector, AReaderGivenThePagesAnswersAsOneReadingTheFiles) {
  TempDir dir;
  std::string sketch = mixedDocument().writeSketch(dir / "doc.sketch");
  PXSketchPageCollector collector;
  ASSERT_TRUE(PXZip::extractAll(sketch, dir / "out", {}, {}, collector.observer()).ok);
  PXSketchOpenFormatReader adopting(dir / "out");
  adopting.adoptPages(collector.takePages());
  PXSketchOpenFormatReader plain(dir / "out");

  const auto ids = plain.sortedArtboardIDs();
  ASSERT_EQ(ids.size(), 3002u);
  EXPECT_EQ(adopting.sortedArtboardIDs(), ids);
  for (const std::string id : {"A1", "A2", "B0", "B2999"}) {
    SCOPED_TRACE(id);
    auto fromPages = adopting.artboardByID(id);
    auto fromFiles = plain.artboardByID(id);
    ASSERT_TRUE(fromPages && fromFiles);
    EXPECT_EQ(*fromPages, *fromFiles);
  }
  // The pages that did not parse are still read (and refused) from their files.
  EXPECT_FALSE(adopting.pageJSONByID("BAD"));
  EXPECT_FALSE(adopting.pageJSONByID("ARRAY"));
}
