// The meta document of an artboard (a whole one is compared with a golden
// copy in PXMetaExporterTests): missing values, layout grid, square grid,
// guides.

#include "PXMetaArtboard.h"
#include "TestSupport.h"

#include <boost/json/monotonic_resource.hpp>
#include <gtest/gtest.h>

namespace plexa {
namespace {

using test::compactJson;
using test::frame;
using test::layer;
using test::parseJson;

JsonObject metaDocument(const JsonObject& artboard) {
  JsonObject page = test::page("PG", "Page One", JsonArray{artboard});
  return PXMetaArtboardFromJSON(artboard, &page, nullptr, "Design", 2, "/out", nullptr, {});
}

// A whole layout record, and the fallbacks for a layout that is no object,
// are in the golden files of PXMetaExporterTests.
TEST(PXMetaArtboardLayout, CopiesTheLayoutWithFixedOverlayColours) {
  JsonObject artboard = test::artboard("AB", "Board", frame(0, 0, 375, 667));
  EXPECT_EQ(compactJson(PXMetaLayoutFromArtboardJSON(artboard).at("columns")),
            R"({"totalWidth":0,"gutterWidth":0,"numberOfColumns":0,"horizontalOffset":0,"gutterOutside":false,)"
            R"("columnWidth":0,"drawVertical":false})") << "no layout at all";
  artboard["layout"] = parseJson(R"({"_class": "layoutGrid", "drawHorizontalLines": true, "gutterHeight": 24,
      "rowHeightMultiplication": 3, "drawHorizontal": true, "totalWidth": 351.5, "gutterWidth": 20,
      "numberOfColumns": 4, "horizontalOffset": 12, "guttersOutside": true, "columnWidth": null,
      "drawVertical": 1, "lightColor": {"red": 1, "alpha": 1}})");
  EXPECT_EQ(compactJson(PXMetaLayoutFromArtboardJSON(artboard)),
            R"({"rows":{"drawHorizontalLines":true,"gutterHeight":24,"rowHeightMultiplication":3,)"
            R"("drawHorizontal":true},"columns":{"totalWidth":351.5,"gutterWidth":20,"numberOfColumns":4,)"
            R"("horizontalOffset":12,"gutterOutside":true,"columnWidth":0,"drawVertical":1},)"
            R"("lightColor":[170,170,170,1],"darkColor":[85,85,85,1]})");
}

TEST(PXMetaArtboardGrids, ReadsGridAndGuides) {
  const std::pair<JsonValue, const char*> grids[] = {
      {nullptr, R"({"gridSize":0,"thickGridTimes":0})"},
      {parseJson(R"({"gridSize": 8, "thickGridTimes": "4"})"), R"({"gridSize":8,"thickGridTimes":"4"})"},
      {JsonArray{8}, R"({"gridSize":0,"thickGridTimes":0})"},
  };
  for (const auto& [grid, expected] : grids) EXPECT_EQ(compactJson(PXMetaGridFromJSON(&grid)), expected) << grid;

  JsonObject artboard = test::artboard("AB", "Board", frame(0, 0, 10, 10));
  EXPECT_EQ(compactJson(PXMetaGuidesFromLayerJSON(artboard)), R"({"horizontal":null,"vertical":null})");
  artboard["horizontalRulerData"] = parseJson(R"({"base": 0, "guides": [10, 20.5]})");
  artboard["verticalRulerData"] = parseJson(R"({"base": 0, "guides": [1e400]})");
  EXPECT_EQ(compactJson(PXMetaGuidesFromLayerJSON(artboard)), R"({"horizontal":[10,20.5],"vertical":[0]})");
}

TEST(PXMetaArtboardDocument, WritesNullForWhatIsMissing) {
  JsonObject bare{{"_class", "symbolMaster"}};
  JsonObject meta = PXMetaArtboardFromJSON(bare, nullptr, nullptr, "Design", 0, "/out", nullptr, {});
  for (const char* key : {"id", "name", "pageName", "width", "height", "backgroundColor"})
    EXPECT_TRUE(meta.at(key).is_null()) << key;
  EXPECT_EQ(compactJson(meta.at("documentColors")), "[]");
  EXPECT_EQ(compactJson(meta.at("layers")), "[]");
  EXPECT_EQ(compactJson(meta.at("grid")), R"({"gridSize":0,"thickGridTimes":0})");
}

TEST(PXMetaArtboardDocument, DescribesOtherLayersByTheirClassOnly) {
  JsonObject group = layer("group", "G", "Group", frame(0, 0, 1, 1));
  EXPECT_EQ(compactJson(metaDocument(group)), R"({"type":"group"})");
  group.erase("_class");
  EXPECT_EQ(compactJson(metaDocument(group)), R"({"type":"null"})");
}

TEST(PXMetaArtboardDocument, ConvertsDocumentColoursOrTakesThemConvertedAlready) {
  const JsonObject document = parseJson(R"({"assets": {"colors": [
      {"red": 1, "green": 0.5, "blue": 0, "alpha": 0.25}, {"red": 1}, "not a colour", {"alpha": "1"}]}})")
                                  .as_object();
  const JsonObject artboard = test::artboard("AB", "Board", frame(0, 0, 10, 10));
  const JsonArray converted = PXMetaDocumentColorsFromJSON(&document);
  EXPECT_EQ(compactJson(converted), "[[255,128,0,0.25],[0,0,0,1]]") << "entries without alpha are left out";

  const JsonObject computed = PXMetaArtboardFromJSON(artboard, nullptr, &document, "Design", 0, "/out", nullptr, {});
  boost::json::monotonic_resource arena;
  const JsonObject given = PXMetaArtboardFromJSON(artboard, nullptr, &document, "Design", 0, "/out", nullptr, {},
                                                  boost::json::storage_ptr(&arena), &converted);
  EXPECT_EQ(compactJson(computed.at("documentColors")), compactJson(converted));
  EXPECT_EQ(compactJson(given), compactJson(computed)) << "the same document either way, arena or heap";
}

}  // namespace
}  // namespace plexa
