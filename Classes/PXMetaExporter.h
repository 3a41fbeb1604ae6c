#pragma once
// Writes, per artboard, the inspect meta file and the "-paths" file of the
// layer images to export, and once per run "__uploadInfo.json".

#include "Json.h"
#include "PXMetaLayer.h"
#include "PXSketchOpenFormatReader.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXMetaExporter : public std::enable_shared_from_this<PXMetaExporter> {
 public:
  static std::shared_ptr<PXMetaExporter> metaExporterWithSketchFilePath(const std::string& sketchFilePath,
                                                                        const std::string& unzippedSketchFolderPath);

  std::string sketchFilePath;
  std::string unzippedSketchFolderPath;
  std::shared_ptr<PXSketchOpenFormatReader> sketchReader;

  // The meta file's path, or absent when the artboard is unknown, has no
  // page, is ignored ("-" name, when excluded) or its ID would put the file
  // outside `outputFolder`. Ignored names are excluded by default.
  std::optional<std::string> formattedMetaJSONFileForArtboardID(const std::string& artboardID,
                                                                const std::string& outputFolder);
  std::optional<std::string> formattedMetaJSONFileForArtboardID(const std::string& artboardID,
                                                                bool excludeIgnoredArtboardName,
                                                                const std::string& outputFolder);
  // `assetIds`: asset information by asset key, merged into export options.
  std::optional<std::string> formattedMetaJSONFileForArtboardID(const std::string& artboardID,
                                                                bool excludeIgnoredArtboardName,
                                                                const std::string& outputFolder,
                                                                const JsonObject* assetIds);

  // Writes "__uploadInfo.json" into `outputFolder`. `sketchFilePath` is the
  // path of the Sketch file's URL; its last component goes into the hashes.
  void formattedJSONFileForSelectedArtboardIDs(const std::vector<std::string>& selectedArtboardIDs,
                                               const std::vector<std::string>& allArtboardIDs, double scale,
                                               const std::string& sketchFilePath, const std::string& outputFolder);

  // Control characters removed, trimmed; "Untitled screen" when nothing is
  // left, "_" for a lone "/".
  static std::string sanitizeArtboardName(const std::optional<std::string>& name);

  // Resolves symbol masters through the reader; holds the exporter weakly.
  PXMetaMissingLayerHandler missingLayerHandler();

 private:
  std::optional<std::string> destinationInside(const std::string& outputFolder, const std::string& fileName);
  void prepareOutputFolder(const std::string& outputFolder);

  // The absolute, normal form of the output folder, found once per folder.
  std::string resolvedFor_;
  std::optional<std::string> resolvedOutputFolder_;

  // The folder last created or found: one walk writes every artboard into
  // the same folder, which needs making only once.
  std::string preparedOutputFolder_;
  // The document colours, converted once per document rather than once per
  // artboard; `colorsDocument_` tells which document they came from.
  const JsonArray& documentColorsOf(const PXSketchOpenFormatReader::Dictionary& document);
  std::weak_ptr<const JsonObject> colorsDocument_;
  std::optional<JsonArray> documentColors_;

  // The first block of each artboard's arena; most trees fit in it.
  static constexpr size_t kArenaBufferBytes = size_t{1} << 20;
  std::vector<unsigned char> arenaBuffer_;

  JsonObject syncInfoForArtboardID(const std::string& artboardID, bool isSyncing, uint64_t index, double scale,
                                   const std::string& sketchFileURLName);
};

}  // namespace plexa
