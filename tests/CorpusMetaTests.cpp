// Every real document of the corpus through the meta exporter: each
// artboard gets a meta file and a paths file that parse, whose layers all
// come from the document, and the upload information lists them all.

#include "Files.h"
#include "PXMetaExporter.h"
#include "PathString.h"
#include "TestSupport.h"
#include "Zip.h"

#include <gtest/gtest.h>

#include <set>

namespace plexa {
namespace {

void collectObjectIDs(const JsonValue& value, std::set<std::string>& ids) {
  if (auto id = PXJsonTextFor(&value, "do_objectID")) ids.emplace(*id);
  if (const auto* object = value.if_object())
    for (const auto& member : *object) collectObjectIDs(member.value(), ids);
  else if (const auto* array = value.if_array())
    for (const auto& element : *array) collectObjectIDs(element, ids);
}

// Every identifier of every layer on every page (masters included).
std::set<std::string> documentObjectIDs(const std::string& folder) {
  std::set<std::string> ids;
  for (const auto& name : PXFileManager::contentsOfDirectory(folder + "/pages").value_or(std::vector<std::string>{}))
    collectObjectIDs(test::readJson(folder + "/pages/" + name), ids);
  return ids;
}

size_t checkRecordIDs(const JsonValue& records, const std::set<std::string>& known, const std::string& where) {
  size_t count = 0;
  for (const auto& record : records.as_array()) {
    auto id = PXJsonTextFor(&record, "id");
    EXPECT_TRUE(id && known.count(std::string(*id))) << where << ": unknown layer " << (id ? *id : "(none)");
    ++count;
    if (const auto* children = PXJsonArrayFor(&record, "layers")) count += checkRecordIDs(*children, known, where);
  }
  return count;
}

TEST(CorpusMeta, EveryArtboardGetsBothFiles) {
  auto documents = test::corpusDocuments();
  if (documents.empty()) GTEST_SKIP() << "no corpus here";
  for (const auto& document : documents) {
    SCOPED_TRACE(document);
    test::TempDir temp;
    std::string folder = temp / "unzipped";
    std::string output = temp / "out";
    auto unzip = PXZip::extractAll(document, folder);
    ASSERT_TRUE(unzip.ok) << unzip.error;

    test::LogCapture logs;
    auto exporter = PXMetaExporter::metaExporterWithSketchFilePath(document, folder);
    auto artboardIDs = exporter->sketchReader->artboardIDs();
    auto known = documentObjectIDs(folder);
    size_t records = 0;
    for (const auto& artboardID : artboardIDs) {
      auto path = exporter->formattedMetaJSONFileForArtboardID(artboardID, false, output);
      ASSERT_TRUE(path) << artboardID;
      JsonValue meta = test::readJson(*path);
      ASSERT_TRUE(meta.is_object()) << *path;
      EXPECT_EQ(PXJsonTextFor(&meta, "id"), std::optional<std::string_view>(artboardID));
      EXPECT_TRUE(known.count(artboardID));
      records += checkRecordIDs(meta.at("layers"), known, artboardID);
      JsonValue paths = test::readJson(output + "/" + artboardID + "-paths.json");
      ASSERT_TRUE(paths.is_array()) << artboardID;
      EXPECT_EQ(paths, meta.at("__exportedImagePaths"));
    }
    EXPECT_FALSE(logs.contains("crash find"));
    EXPECT_FALSE(logs.contains("PXMetaLayerFromJSON exception"));

    exporter->formattedJSONFileForSelectedArtboardIDs(artboardIDs, artboardIDs, 2, document, output);
    JsonValue info = test::readJson(output + "/__uploadInfo.json");
    ASSERT_TRUE(info.is_object());
    std::set<std::string> unique(artboardIDs.begin(), artboardIDs.end());
    EXPECT_EQ(info.at("syncInfo").as_object().size(), unique.size());
    // Two files per artboard and the upload information, nothing else.
    auto written = PXFileManager::contentsOfDirectory(output).value_or(std::vector<std::string>{});
    EXPECT_EQ(written.size(), (artboardIDs.empty() ? 0 : 2 * unique.size()) + 1);
    RecordProperty(PXLastPathComponent(document), static_cast<int>(records));
  }
}

}  // namespace
}  // namespace plexa
