// Export options and image paths: scales and pixel sizes, prefixes and
// suffixes stored crosswise, folders from names, trimming, asset merges.

#include "PXMetaExportOptions.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace plexa {
namespace {

using test::compactJson;
using test::frame;

JsonObject exportable(const std::string& name, JsonObject f, std::string_view formats) {
  JsonObject l = test::layer("bitmap", "L1", name, std::move(f));
  l["exportOptions"] = test::parseJson(std::string(R"({"exportFormats": )") + std::string(formats) + "}");
  return l;
}

JsonArray options(const JsonObject& layer, const std::string& layerPath = "", const JsonObject* assets = nullptr) {
  return PXMetaExportOptionsFromJSON(layer, "Doc", "Page", "Board", layerPath, assets);
}

// One member of every record, compact.
std::string column(const JsonArray& records, std::string_view key) {
  JsonArray values;
  for (const auto& record : records) values.push_back(record.at(key));
  return compactJson(values);
}

TEST(PXMetaExportOptionsPaths, NormalizeAndTrimComponentWise) {
  const std::pair<const char*, const char*> normalized[] = {{"a/b", "a_b"}, {"/a", "/_a"}, {"a//b/", "a_b_/"},
                                                            {"", ""}};
  for (auto [path, expected] : normalized) EXPECT_EQ(PXNormalizePath(path), expected) << path;
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
  EXPECT_EQ(compactJson(records[0]), R"({"name":"icon","format":"png","prefix":"","suffix":"","scale":1,)"
                                     R"("path":"Doc/Page/Board/icon.png","width":11,"height":7})");
  // Vectors have no density; 0.3 as the float prints; ceil(20.4) and ceil(3.06).
  EXPECT_EQ(column(records, "scale"), "[1,1,2,0.3]");
  EXPECT_EQ(column(records, "width"), "[11,11,21,4]");
  EXPECT_EQ(column(records, "height"), "[7,7,14,3]");
}

TEST(PXMetaExportOptionsRecords, StorePrefixAndSuffixCrosswise) {
  auto records = options(exportable("a/b", frame(0, 0, 1, 1), R"([
      {"fileFormat": "png", "name": "@2x", "namingScheme": 0, "scale": 2},
      {"fileFormat": "png", "name": "x/y", "namingScheme": 1, "scale": 1},
      {"fileFormat": "png", "name": "x/y", "namingScheme": 0, "scale": 1},
      {"fileFormat": "pdf", "namingScheme": 1}])"),
                         "/Group/Inner");
  EXPECT_EQ(column(records, "prefix"), R"(["@2x","","xy",""])");
  EXPECT_EQ(column(records, "suffix"), R"(["","x/y","",""])");
  EXPECT_EQ(column(records, "path"),
            R"(["Doc/Page/Board/Group/Inner/a/b@2x.png","Doc/Page/Board/Group/Inner/x/ya/b.png",)"
            R"("Doc/Page/Board/Group/Inner/a/bxy.png","Doc/Page/Board/Group/Inner/a/b.pdf"])");
}

TEST(PXMetaExportOptionsRecords, MergeAssetInformation) {
  JsonObject layer = exportable("icon", frame(0, 0, 4, 4), R"([
      {"fileFormat": "png", "name": "@2x", "namingScheme": 0, "scale": 2},
      {"fileFormat": "png", "name": "", "namingScheme": 0, "scale": 1}])");
  JsonObject assets{{"L1@2x.png", test::parseJson(R"({"url": "https://cdn/1", "width": 99})")},
                    {"other", JsonObject{}}};
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
  EXPECT_EQ(compactJson(records[0]),
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
