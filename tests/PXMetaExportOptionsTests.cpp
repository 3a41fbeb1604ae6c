// Export options and image paths: scales and pixel sizes, prefixes and
// suffixes stored crosswise, folders from names, trimming, asset merges.

#include "PXMetaExportOptions.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace plexa {
namespace {

using test::frame;

JsonValue parse(std::string_view text) {
  auto value = PXJsonParse(text);
  EXPECT_TRUE(value) << text;
  return value.value_or(JsonValue());
}

std::string written(const JsonValue& value) { return PXJsonSerialize(value, false).value_or("<unwritable>"); }

JsonObject exportable(const std::string& name, JsonObject f, std::string_view formats) {
  JsonObject l = test::layer("bitmap", "L1", name, std::move(f));
  l["exportOptions"] = parse(std::string(R"({"exportFormats": )") + std::string(formats) + "}");
  return l;
}

JsonArray options(const JsonObject& layer, const std::string& layerPath = "", const JsonObject* assets = nullptr) {
  return PXMetaExportOptionsFromJSON(layer, "Doc", "Page", "Board", layerPath, assets);
}

TEST(PXMetaExportOptionsPaths, NormalizeAndTrimComponentWise) {
  EXPECT_EQ(PXNormalizePath("a/b"), "a_b");
  EXPECT_EQ(PXNormalizePath("/a"), "/_a");
  EXPECT_EQ(PXNormalizePath("a//b/"), "a_b_/");
  EXPECT_EQ(PXNormalizePath(""), "");
  EXPECT_EQ(PXTrimmedPath(" Doc / My Page /  icon@2x.png "), "Doc/My Page/icon@2x.png");
  EXPECT_EQ(PXTrimmedPath("a//b"), "a/b");
  EXPECT_EQ(PXTrimmedPath("/a"), "//a");  // the root joins like any component
  EXPECT_EQ(PXMetaDescription(nullptr), "(null)");
  JsonValue whole = 3.0, fraction = 1.5, flag = true;
  EXPECT_EQ(PXMetaDescription(&whole), "3");
  EXPECT_EQ(PXMetaDescription(&fraction), "1.5");
  EXPECT_EQ(PXMetaDescription(&flag), "1");
}

TEST(PXMetaExportOptionsRecords, ScaleAndPixelSize) {
  auto records = options(exportable("icon", frame(0, 0, 10.2, 7), R"([
      {"fileFormat": "png", "name": "", "namingScheme": 0, "scale": 0},
      {"fileFormat": "svg", "name": "", "namingScheme": 0, "scale": 3},
      {"fileFormat": "png", "name": "@2x", "namingScheme": 0, "scale": 2},
      {"fileFormat": "jpg", "name": "", "namingScheme": 0, "scale": 0.3}])"));
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(written(records[0]), R"({"name":"icon","format":"png","prefix":"","suffix":"","scale":1,)"
                                 R"("path":"Doc/Page/Board/icon.png","width":11,"height":7})");
  EXPECT_EQ(written(records[1].at("scale")), "1");  // vectors have no density
  EXPECT_EQ(written(records[1].at("width")), "11");
  EXPECT_EQ(written(records[2].at("width")), "21");  // ceil(20.4)
  EXPECT_EQ(written(records[2].at("height")), "14");
  EXPECT_EQ(written(records[3].at("scale")), "0.3");  // as the float prints
  EXPECT_EQ(written(records[3].at("width")), "4");  // ceil(3.06)
}

TEST(PXMetaExportOptionsRecords, StorePrefixAndSuffixCrosswise) {
  auto records = options(exportable("a/b", frame(0, 0, 1, 1), R"([
      {"fileFormat": "png", "name": "@2x", "namingScheme": 0, "scale": 2},
      {"fileFormat": "png", "name": "x/y", "namingScheme": 1, "scale": 1},
      {"fileFormat": "png", "name": "x/y", "namingScheme": 0, "scale": 1},
      {"fileFormat": "pdf", "namingScheme": 1}])"),
                         "/Group/Inner");
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].at("prefix"), "@2x");
  EXPECT_EQ(records[0].at("suffix"), "");
  EXPECT_EQ(records[0].at("path"), "Doc/Page/Board/Group/Inner/a/b@2x.png");
  EXPECT_EQ(records[1].at("prefix"), "");
  EXPECT_EQ(records[1].at("suffix"), "x/y");
  EXPECT_EQ(records[1].at("path"), "Doc/Page/Board/Group/Inner/x/ya/b.png");
  EXPECT_EQ(records[2].at("prefix"), "xy");
  EXPECT_EQ(records[2].at("path"), "Doc/Page/Board/Group/Inner/a/bxy.png");
  EXPECT_EQ(records[3].at("path"), "Doc/Page/Board/Group/Inner/a/b.pdf");
}

TEST(PXMetaExportOptionsRecords, MergeAssetInformation) {
  JsonObject layer = exportable("icon", frame(0, 0, 4, 4), R"([
      {"fileFormat": "png", "name": "@2x", "namingScheme": 0, "scale": 2},
      {"fileFormat": "png", "name": "", "namingScheme": 0, "scale": 1}])");
  JsonObject assets{{"L1@2x.png", parse(R"({"url": "https://cdn/1", "width": 99})")}, {"other", JsonObject{}}};
  auto records = options(layer, "", &assets);
  EXPECT_EQ(records[0].at("url"), "https://cdn/1");
  EXPECT_EQ(records[0].at("width"), 99) << "the asset's values win";
  EXPECT_FALSE(records[1].as_object().contains("url"));
  EXPECT_TRUE(options(exportable("icon", frame(0, 0, 1, 1), R"("none")")).empty());
}

TEST(PXMetaExportImages, DescribeTheFilesToProduce) {
  JsonObject layer = exportable(" a/b ", frame(0, 0, 1, 1), R"([
      {"fileFormat": "png", "name": "x/y", "namingScheme": 1, "scale": 2},
      {"fileFormat": "jpg", "name": "@3x", "namingScheme": 0, "scale": 3}])");
  layer["in_original_objectID"] = "ORIGINAL";
  layer["originalObjectID"] = "MASTER-COPY";
  auto records = PXMetaExportImagesFromJSON(layer, "Doc", "My/Page", " Board ", "AB", "/Group", "/out");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(written(records[0]),
            R"({"originalObjectID":"MASTER-COPY","fullPath":"/out/AB/My_Page/Board/Group/x/y a/b .png",)"
            R"("objectID":"ORIGINAL","layerName":" a/b ","layerNameFormatted":"b ","layerPath":"My_Page/Board/Group/x/y a",)"
            R"("key":"xy.png"})");
  EXPECT_EQ(records[1].at("fullPath"), "/out/AB/My_Page/Board/Group/a/b @3x.jpg")
      << "only the ends of each component are trimmed";
  EXPECT_EQ(records[1].at("key"), "@3x.jpg");

  layer.erase("in_original_objectID");
  layer.erase("originalObjectID");
  auto plain = PXMetaExportImagesFromJSON(layer, "Doc", "Page", "Board", "AB", "", "/out");
  EXPECT_EQ(plain[0].at("objectID"), "L1");
  EXPECT_EQ(plain[0].at("originalObjectID"), "");
  layer.erase("do_objectID");
  EXPECT_EQ(PXMetaExportImagesFromJSON(layer, "Doc", "Page", "Board", "AB", "", "/out")[0].at("objectID"), "");
}

}  // namespace
}  // namespace plexa
