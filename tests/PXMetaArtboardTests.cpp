// The meta document of an artboard (a whole one is compared with a golden
// copy in PXMetaExporterTests): missing values, layout grid, square grid,
// guides.

#include "PXMetaArtboard.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace plexa {
namespace {

using test::frame;
using test::layer;

JsonValue parse(std::string_view text) {
  auto value = PXJsonParse(text);
  EXPECT_TRUE(value) << text;
  return value.value_or(JsonValue());
}

std::string written(const JsonValue& value) { return PXJsonSerialize(value, false).value_or("<unwritable>"); }

JsonObject metaDocument(const JsonObject& artboard, const JsonObject* document = nullptr) {
  JsonObject page = test::page("PG", "Page One", JsonArray{artboard});
  return PXMetaArtboardFromJSON(artboard, &page, document, "Design", 2, "/out", nullptr, {});
}

TEST(PXMetaArtboardLayout, FallsBackToZerosWithoutALayout) {
  JsonObject artboard = test::artboard("AB", "Board", frame(0, 0, 375, 667));
  EXPECT_EQ(written(PXMetaLayoutFromArtboardJSON(artboard)),
            written(parse(R"({"rows": {"drawHorizontalLines": false, "gutterHeight": 0, "rowHeightMultiplication": 0,
                "drawHorizontal": false}, "columns": {"totalWidth": 0, "gutterWidth": 0, "numberOfColumns": 0,
                "horizontalOffset": 0, "gutterOutside": false, "columnWidth": 0, "drawVertical": false},
                "lightColor": [0, 0, 0, 0], "darkColor": [0, 0, 0, 0]})")));
  artboard["layout"] = "not a layout";
  EXPECT_EQ(written(PXMetaLayoutFromArtboardJSON(artboard).at("lightColor")), "[0,0,0,0]");
}

TEST(PXMetaArtboardLayout, CopiesTheLayoutWithFixedOverlayColours) {
  JsonObject artboard = test::artboard("AB", "Board", frame(0, 0, 375, 667));
  artboard["layout"] = parse(R"({"_class": "layoutGrid", "drawHorizontalLines": true, "gutterHeight": 24,
      "rowHeightMultiplication": 3, "drawHorizontal": true, "totalWidth": 351.5, "gutterWidth": 20,
      "numberOfColumns": 4, "horizontalOffset": 12, "guttersOutside": true, "columnWidth": null,
      "drawVertical": 1, "lightColor": {"red": 1, "alpha": 1}})");
  JsonObject layout = PXMetaLayoutFromArtboardJSON(artboard);
  EXPECT_EQ(written(layout.at("rows")),
            R"({"drawHorizontalLines":true,"gutterHeight":24,"rowHeightMultiplication":3,"drawHorizontal":true})");
  EXPECT_EQ(written(layout.at("columns")), R"({"totalWidth":351.5,"gutterWidth":20,"numberOfColumns":4,)"
                                           R"("horizontalOffset":12,"gutterOutside":true,"columnWidth":0,"drawVertical":1})");
  EXPECT_EQ(written(layout.at("lightColor")), "[170,170,170,1]");
  EXPECT_EQ(written(layout.at("darkColor")), "[85,85,85,1]");
}

TEST(PXMetaArtboardGrids, ReadsGridAndGuides) {
  EXPECT_EQ(written(PXMetaGridFromJSON(nullptr)), R"({"gridSize":0,"thickGridTimes":0})");
  JsonValue grid = parse(R"({"gridSize": 8, "thickGridTimes": "4"})");
  EXPECT_EQ(written(PXMetaGridFromJSON(&grid)), R"({"gridSize":8,"thickGridTimes":"4"})");
  JsonValue notGrid = JsonArray{8};
  EXPECT_EQ(written(PXMetaGridFromJSON(&notGrid)), R"({"gridSize":0,"thickGridTimes":0})");

  JsonObject artboard = test::artboard("AB", "Board", frame(0, 0, 10, 10));
  EXPECT_EQ(written(PXMetaGuidesFromLayerJSON(artboard)), R"({"horizontal":null,"vertical":null})");
  artboard["horizontalRulerData"] = parse(R"({"base": 0, "guides": [10, 20.5]})");
  artboard["verticalRulerData"] = parse(R"({"base": 0, "guides": [1e400]})");
  EXPECT_EQ(written(PXMetaGuidesFromLayerJSON(artboard)), R"({"horizontal":[10,20.5],"vertical":[0]})");
}

TEST(PXMetaArtboardDocument, WritesNullForWhatIsMissing) {
  JsonObject bare{{"_class", "symbolMaster"}};
  JsonObject meta = PXMetaArtboardFromJSON(bare, nullptr, nullptr, "Design", 0, "/out", nullptr, {});
  for (const char* key : {"id", "name", "pageName", "width", "height", "backgroundColor"})
    EXPECT_TRUE(meta.at(key).is_null()) << key;
  EXPECT_EQ(written(meta.at("documentColors")), "[]");
  EXPECT_EQ(written(meta.at("layers")), "[]");
  EXPECT_EQ(written(meta.at("grid")), R"({"gridSize":0,"thickGridTimes":0})");
}

TEST(PXMetaArtboardDocument, DescribesOtherLayersByTheirClassOnly) {
  JsonObject group = layer("group", "G", "Group", frame(0, 0, 1, 1));
  EXPECT_EQ(written(metaDocument(group)), R"({"type":"group"})");
  JsonObject classless = group;
  classless.erase("_class");
  EXPECT_EQ(written(metaDocument(classless)), R"({"type":"null"})");
}

}  // namespace
}  // namespace plexa
