// What a host needs to upload the results: the sync information written by
// the meta export, a record describing the source, host and library, and the
// concurrency setters of the image export.
#include "PlexaExtract.h"

#include "Files.h"
#include "Log.h"
#include "NSString+MPSync.h"
#include "PathString.h"
#include "PXArtboardExporter.h"
#include "PXBuildInfo.h"
#include "PXSketchOpenFormatReader.h"

#include <mutex>

extern "C" const double PlexaExtractVersionNumber = 1.0;
extern "C" const unsigned char PlexaExtractVersionString[] =
    "@(#)PROGRAM:PlexaExtract  PROJECT:" PLEXA_PROJECT_NAME "-" PLEXA_PROJECT_VERSION "\n";

namespace plexa {

namespace {

std::mutex& hostInfoMutex() {
  static std::mutex m;
  return m;
}

PXHostInfo& storedHostInfo() {
  static PXHostInfo info;
  return info;
}

void addIfPresent(JsonObject& record, std::string_view key, const JsonValue* value) {
  if (value) record[key] = *value;
}

void addIfPresent(JsonObject& record, std::string_view key, const std::string& value) {
  if (!value.empty()) record[key] = value;
}

}  // namespace

void PlexaExtract::setHostInfo(PXHostInfo info) {
  std::lock_guard lock(hostInfoMutex());
  storedHostInfo() = std::move(info);
}

PXHostInfo PlexaExtract::hostInfo() {
  std::lock_guard lock(hostInfoMutex());
  return storedHostInfo();
}

std::optional<JsonValue> PlexaExtract::syncInfo() const {
  std::string path = PXAppendingPathComponent(outputFolderPath, "__uploadInfo.json");
  auto text = PXFileManager::readFile(path);
  if (!text) return std::nullopt;
  std::string error;
  auto parsed = PXJsonParse(*text, &error);
  if (!parsed) {
    PXLogVerbose("syncInfo error {} {}", path, error);
    return std::nullopt;
  }
  const auto* value = PXJsonFind(&*parsed, "syncInfo");
  if (!value) return std::nullopt;
  return *value;
}

JsonObject PlexaExtract::metaData() const {
  PXHostInfo host = hostInfo();
  std::shared_ptr<const JsonObject> meta, document;
  if (reader) {
    meta = reader->metaJSON();
    try {
      document = reader->documentJSON();
    } catch (const PXSketchDocumentFileMissing& e) {
      PXLogVerbose("PlexaExtract metaData: {}", e.what());
    }
  }
  JsonValue metaValue = meta ? JsonValue(*meta) : JsonValue();
  JsonValue documentValue = document ? JsonValue(*document) : JsonValue();
  auto attributes = PXFileManager::attributesOfItem(sketchFilePath);

  JsonObject record;
  record["source"] = "Sketch";
  addIfPresent(record, "sourceBuildVersion", PXJsonFind(PXJsonFind(&metaValue, "created"), "build"));
  addIfPresent(record, "sv", PXJsonFind(&metaValue, "appVersion"));
  addIfPresent(record, "pluginName", host.name);
  addIfPresent(record, "pluginBuildVersion", host.buildVersion);
  addIfPresent(record, "pv", host.shortVersion);
  record["plexaExtractVersion"] = PLEXA_PROJECT_VERSION;
  record["plexaExtractBuild"] = PLEXA_BUILD_NUMBER;
  record["filename"] = PXLastPathComponent(sketchFilePath);
  if (attributes && attributes->created) record["fileCreated"] = iso_mps(*attributes->created);
  if (attributes) record["fileLastModified"] = iso_mps(attributes->modified);
  if (attributes) record["fileSize"] = attributes->size;
  record["generated"] = iso_mps(std::chrono::system_clock::now());
  const auto* documentID = PXJsonFind(&documentValue, "do_objectID");
  addIfPresent(record, "document_id", documentID);
  addIfPresent(record, "documentID", documentID);
  return record;
}

void PlexaExtract::setMaxConcurrentArtboardExport(uint64_t value) {
  maxConcurrentArtboardExport = value;
  if (artboardExporter) artboardExporter->setMaxConcurrent(value);
}

void PlexaExtract::setMaxConcurrentArtboardBatchSize(uint64_t value) {
  maxConcurrentArtboardBatchSize = value;
  if (artboardExporter) artboardExporter->setMaxNumberPerExport(value);
}

}  // namespace plexa
