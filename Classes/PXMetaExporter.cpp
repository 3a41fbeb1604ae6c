#include "PXMetaExporter.h"

#include "Files.h"
#include "Log.h"
#include "NSString+MPSync.h"
#include "PXFileWriter.h"
#include "PXMetaArtboard.h"
#include "PXMetaExportOptions.h"
#include "PathString.h"

#include <boost/json/monotonic_resource.hpp>
#include <fmt/format.h>

#include <chrono>
#include <map>
#include <unordered_set>

namespace plexa {

namespace {

// Unicode's control (Cc) and format (Cf) characters: what a name loses
// before it becomes a file name.
bool isControlCharacter(uint32_t c) {
  static constexpr std::pair<uint32_t, uint32_t> kRanges[] = {
      {0x0000, 0x001F},   {0x007F, 0x009F},   {0x00AD, 0x00AD},   {0x0600, 0x0605},   {0x061C, 0x061C},
      {0x06DD, 0x06DD},   {0x070F, 0x070F},   {0x08E2, 0x08E2},   {0x180E, 0x180E},   {0x200B, 0x200F},
      {0x202A, 0x202E},   {0x2060, 0x2064},   {0x2066, 0x206F},   {0xFEFF, 0xFEFF},   {0xFFF9, 0xFFFB},
      {0x110BD, 0x110BD}, {0x110CD, 0x110CD}, {0x13430, 0x13438}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A},
      {0xE0001, 0xE0001}, {0xE0020, 0xE007F}};
  for (const auto& [low, high] : kRanges)
    if (c >= low && c <= high) return true;
  return false;
}

// Removes control characters from UTF-8 text; undecodable bytes are kept as
// they are.
std::string removingControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    auto lead = static_cast<unsigned char>(text[i]);
    size_t length = lead < 0x80 ? 1 : (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3 : (lead & 0xF8) == 0xF0 ? 4 : 1;
    if (i + length > text.size()) length = 1;
    uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    if (!isControlCharacter(code)) out.append(text.substr(i, length));
    i += length;
  }
  return out;
}

bool hasJPGExportFormat(const JsonObject* artboard) {
  if (!artboard) return false;
  auto options = artboard->find("exportOptions");
  if (options == artboard->end()) return false;
  const JsonArray* formats = PXJsonArrayFor(&options->value(), "exportFormats");
  if (!formats) return false;
  for (const auto& format : *formats)
    if (PXJsonTextFor(&format, "fileFormat") == std::optional<std::string_view>("jpg")) return true;
  return false;
}

}  // namespace

std::shared_ptr<PXMetaExporter> PXMetaExporter::metaExporterWithSketchFilePath(
    const std::string& sketchFilePath, const std::string& unzippedSketchFolderPath) {
  auto exporter = std::make_shared<PXMetaExporter>();
  exporter->sketchFilePath = sketchFilePath;
  exporter->unzippedSketchFolderPath = unzippedSketchFolderPath;
  exporter->sketchReader = PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(unzippedSketchFolderPath);
  return exporter;
}

std::optional<std::string> PXMetaExporter::formattedMetaJSONFileForArtboardID(const std::string& artboardID,
                                                                              const std::string& outputFolder) {
  return formattedMetaJSONFileForArtboardID(artboardID, true, outputFolder);
}

std::optional<std::string> PXMetaExporter::formattedMetaJSONFileForArtboardID(const std::string& artboardID,
                                                                              bool excludeIgnoredArtboardName,
                                                                              const std::string& outputFolder) {
  return formattedMetaJSONFileForArtboardID(artboardID, excludeIgnoredArtboardName, outputFolder, nullptr);
}

std::optional<std::string> PXMetaExporter::formattedMetaJSONFileForArtboardID(const std::string& artboardID,
                                                                              bool excludeIgnoredArtboardName,
                                                                              const std::string& outputFolder,
                                                                              const JsonObject* assetIds) {
  auto pageID = sketchReader->pageIDByArtboardID(artboardID);
  auto page = pageID ? sketchReader->pageJSONByID(*pageID) : nullptr;
  auto artboard = page ? sketchReader->artboardByID(artboardID) : nullptr;
  std::optional<std::string_view> artboardName;
  if (artboard)
    if (auto it = artboard->find("name"); it != artboard->end()) artboardName = PXJsonText(&it->value());
  // Artboards named "-..." are kept out of the inspect data on purpose.
  if (excludeIgnoredArtboardName && artboardName && artboardName->starts_with("-")) return std::nullopt;

  if (!artboard || !pageID) {
    PXLogVerbose("<PXMetaExporter: {}> artboardJSON {}, pageID {}", fmt::ptr(this), artboard ? 1 : 0, pageID ? 1 : 0);
    return std::nullopt;
  }

  auto metaPath = destinationInside(outputFolder, artboardID + ".json");
  auto pathsPath = destinationInside(outputFolder, artboardID + "-paths.json");
  if (!metaPath || !pathsPath) {
    PXLogVerbose("PXMetaExporter refused artboard ID {}: its files would not lie inside {}", artboardID, outputFolder);
    return std::nullopt;
  }

  // The whole meta tree lives in one arena: records are made without a
  // malloc each and dropped at once, unwalked. Its first block is kept from
  // artboard to artboard, so those pages stay mapped.
  if (arenaBuffer_.empty()) arenaBuffer_.resize(kArenaBufferBytes);
  boost::json::monotonic_resource arena(arenaBuffer_.data(), arenaBuffer_.size());
  // Held as a value: the writer takes values, and handing it the object
  // would copy the whole tree.
  const boost::json::storage_ptr storage(&arena);
  JsonValue meta(storage);
  try {
    PXSketchOpenFormatReader::Dictionary document;
    int64_t pageIndex = PXSketchOpenFormatReader::NotFound;
    try {
      document = sketchReader->documentJSON();
      pageIndex = sketchReader->pageIndexByPageID(pageID);
    } catch (const PXSketchDocumentFileMissing& missing) {
      PXLogVerbose("PXMetaExporter no document for {}: {}", artboardID, missing.what());
    }
    std::string sketchFileName = PXDeletingPathExtension(PXLastPathComponent(sketchFilePath));
    meta = PXMetaArtboardFromJSON(*artboard, page.get(), document.get(), sketchFileName, pageIndex, outputFolder,
                                  assetIds, missingLayerHandler(), storage, &documentColorsOf(document));
  } catch (const std::exception& error) {
    PXLogError("PXMetaExporter unable to convert artboard {}: {}", artboardID, error.what());
    return std::nullopt;
  }

  prepareOutputFolder(outputFolder);
  // The output folder is the run's own: files go straight to their place.
  constexpr auto placement = PXFileWriter::Placement::direct;
  if (!PXFileWriter::writeJSON(meta, true, *metaPath, placement)) {
    PXNSLog("PXMetaExporter crash find: 4.2");
    PXLogVerbose("PXMetaExporter unable to write formatted meta {}", artboardID + ".json");
  }
  if (const JsonValue* paths = PXJsonFind(&meta, "__exportedImagePaths")) {
    if (!PXFileWriter::writeJSON(*paths, true, *pathsPath, placement)) {
      PXNSLog("PXMetaExporter crash find: 5.2");
      PXLogVerbose("PXMetaExporter unable to write paths {}", artboardID + "-paths.json");
    }
  }
  return PXAppendingPathComponent(outputFolder, artboardID + ".json");
}

void PXMetaExporter::formattedJSONFileForSelectedArtboardIDs(const std::vector<std::string>& selectedArtboardIDs,
                                                             const std::vector<std::string>& allArtboardIDs,
                                                             double scale, const std::string& sketchFilePath,
                                                             const std::string& outputFolder) {
  auto start = std::chrono::steady_clock::now();
  PXLogVerbose("{} setupSyncInfoForArtboards starting", "PXMetaExporter");
  const std::unordered_set<std::string> selected(selectedArtboardIDs.begin(), selectedArtboardIDs.end());
  const std::string sketchFileURLName = PXLastPathComponent(sketchFilePath);

  JsonObject syncInfo;
  for (uint64_t index = 0; index < allArtboardIDs.size(); ++index) {
    const std::string& artboardID = allArtboardIDs[index];
    syncInfo[artboardID] =
        syncInfoForArtboardID(artboardID, selected.contains(artboardID), index, scale, sketchFileURLName);
  }
  std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  PXLogVerbose("{} setupSyncInfoForArtboards took: {} seconds", "PXMetaExporter", elapsed.count());

  std::string path = PXAppendingPathComponent(outputFolder, "__uploadInfo.json");
  if (!PXFileWriter::writeJSON(JsonObject{{"syncInfo", std::move(syncInfo)}}, true, path,
                               PXFileWriter::Placement::direct))
    PXLogVerbose("PXMetaExporter failed to write uploadInfo {}", path);
}

JsonObject PXMetaExporter::syncInfoForArtboardID(const std::string& artboardID, bool isSyncing, uint64_t index,
                                                 double scale, const std::string& sketchFileURLName) {
  auto pageID = sketchReader->pageIDByArtboardID(artboardID);
  auto artboard = pageID ? sketchReader->artboardByID(artboardID) : nullptr;
  std::optional<std::string> name;
  if (artboard)
    if (auto it = artboard->find("name"); it != artboard->end() && it->value().is_string())
      name = std::string(it->value().get_string());
  const char* imageFormat = hasJPGExportFormat(artboard.get()) ? "jpg" : "png";
  JsonValue scaleValue(scale);
  JsonObject record;
  record["name"] = PXAppendingPathExtension(sanitizeArtboardName(name), imageFormat);
  record["density"] = fmt::format("{}x", PXMetaDescription(&scaleValue));
  record["hash"] = md5_mps(fmt::format("{}{}", sketchFileURLName, artboardID));
  record["UUID"] = artboardID;
  record["isSyncing"] = isSyncing ? 1 : 0;
  record["index"] = index;
  return record;
}

std::string PXMetaExporter::sanitizeArtboardName(const std::optional<std::string>& name) {
  std::string cleaned = trimWhiteSpace_mps(removingControlCharacters(name.value_or("")));
  if (stringIsEmpty_mps(std::optional<std::string_view>(cleaned))) return "Untitled screen";
  if (cleaned == "/") return "_";
  return cleaned;
}

const JsonArray& PXMetaExporter::documentColorsOf(const PXSketchOpenFormatReader::Dictionary& document) {
  auto cached = colorsDocument_.lock();
  if (!documentColors_ || !cached || cached != document) {
    documentColors_ = PXMetaDocumentColorsFromJSON(document.get());
    colorsDocument_ = document;
  }
  return *documentColors_;
}

PXMetaMissingLayerHandler PXMetaExporter::missingLayerHandler() {
  std::weak_ptr<PXMetaExporter> weakSelf = weak_from_this();
  // One handler serves one artboard; masters asked for again come from here.
  auto found = std::make_shared<std::map<std::string, std::optional<PXMetaMissingLayer>>>();
  return [weakSelf, found](const std::string& artboardID) -> std::optional<PXMetaMissingLayer> {
    auto self = weakSelf.lock();
    if (!self || !self->sketchReader) return std::nullopt;
    if (auto it = found->find(artboardID); it != found->end()) return it->second;
    std::optional<PXMetaMissingLayer> answer;
    if (auto pageID = self->sketchReader->pageIDByArtboardID(artboardID)) {
      PXMetaMissingLayer layer;
      layer.pageJSON = self->sketchReader->pageJSONByID(*pageID);
      layer.artboardJSON = layer.pageJSON ? self->sketchReader->artboardByID(artboardID) : nullptr;
      answer = std::move(layer);
    }
    found->emplace(artboardID, answer);
    return answer;
  };
}

void PXMetaExporter::prepareOutputFolder(const std::string& outputFolder) {
  if (outputFolder == preparedOutputFolder_) return;
  std::string error;
  if (!PXFileManager::createDirectory(outputFolder, true, &error)) {
    PXLogVerbose("PXMetaExporter could not create {}: {}", outputFolder, error);
    return;  // asked again with the next artboard
  }
  preparedOutputFolder_ = outputFolder;
}

// A plain file name lies directly in the folder, and a link found there is
// replaced on writing, never followed: the folder is resolved once, not
// once per file.
std::optional<std::string> PXMetaExporter::destinationInside(const std::string& outputFolder,
                                                             const std::string& fileName) {
  std::string stem = fileName.substr(0, fileName.rfind('.'));
  if (!PXIsPlainFileName(stem)) return std::nullopt;  // an ID names one file in the folder, nothing else
  // A relative folder depends on the working folder, which may change between calls.
  if (resolvedFor_ != outputFolder || !resolvedOutputFolder_ || !outputFolder.starts_with('/')) {
    resolvedOutputFolder_ = PXResolveInside(outputFolder, ".");
    if (resolvedOutputFolder_)
      while (resolvedOutputFolder_->size() > 1 && resolvedOutputFolder_->back() == '/')
        resolvedOutputFolder_->pop_back();
    resolvedFor_ = outputFolder;
  }
  if (!resolvedOutputFolder_) return std::nullopt;
  return PXAppendingPathComponent(*resolvedOutputFolder_, fileName);
}

}  // namespace plexa
