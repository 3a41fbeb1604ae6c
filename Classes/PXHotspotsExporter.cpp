#include "PXHotspotsExporter.h"

#include "Files.h"
#include "Log.h"
#include "PXFileWriter.h"
#include "PXSketchOpenFormatReader.h"

#include <fmt/format.h>

namespace plexa {

namespace {

// The caller provides an existing output folder. The is-a-folder flag is
// preset to NO and only read after the existence test failed, so the
// creating branch stays unreached; this inverted test is kept as it is.
void checkOutputFolder(const std::string& outputFolder) {
  bool isDirectory = false;
  if (PXFileManager::fileExists(outputFolder, &isDirectory)) return;
  if (!isDirectory) {
    PXLogVerbose("Failed to create folder {}, original file exists", outputFolder);
    return;
  }
  std::string error;
  if (!PXFileManager::createDirectory(outputFolder, true, &error))
    PXLogVerbose("Failed to create folder {} for error {}", outputFolder, error);
}

// An artboard ID names a file: it must land directly in the output folder.
// Such a name cannot leave the folder, and a link found at it is replaced on
// writing, never followed.
bool isSafeFileDestination(const std::string& artboardID) {
  return artboardID.find('/') == std::string::npos && artboardID.find('\0') == std::string::npos;
}

}  // namespace

std::shared_ptr<PXHotspotsExporter> PXHotspotsExporter::hotspotsExporterWithSketchFilePath(
    const std::string& sketchFilePath, const std::string& unzippedSketchFolder) {
  return std::make_shared<PXHotspotsExporter>(Private(), sketchFilePath, unzippedSketchFolder);
}

PXHotspotsExporter::PXHotspotsExporter(Private, const std::string& sketchFilePath,
                                       const std::string& unzippedSketchFolder)
    : sketchFilePath(sketchFilePath),
      unzippedSketchFolder(unzippedSketchFolder),
      reader(PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(unzippedSketchFolder)) {}

PXHotspotsExporter::~PXHotspotsExporter() {
  if (!isCancelled()) cancel();
}

void PXHotspotsExporter::cancel() { cancelled_.store(true); }

JsonArray PXHotspotsExporter::hotspotMetaForArtboardID(const std::string& artboardID, double scale) {
  // The layer stays in the reader's page, read in place: copying every
  // artboard just to find a few links cost more than the walk.
  auto artboard = reader ? reader->artboardByID(artboardID) : nullptr;
  PXSyncPrototypingMetaExtraction extraction(std::move(artboard), scale, sketchFilePath);
  extraction.delegate = weak_from_this();
  return extraction.extract();
}

void PXHotspotsExporter::exportHotspotsForArtboardIDs(const std::vector<std::string>& artboardIDs, double scale,
                                                      const std::string& outputFolder,
                                                      ProgressHandler progressHandler,
                                                      CompletionHandler completionHandler) {
  checkOutputFolder(outputFolder);
  std::map<std::string, std::string> results;
  for (const auto& artboardID : artboardIDs) {
    if (isCancelled()) break;
    std::string path = fmt::format("{}/{}-hotspots.json", outputFolder, artboardID);
    bool written = false;
    if (!isSafeFileDestination(artboardID)) {
      PXLogVerbose("PXHotspotsExporter refused artboard ID {}: its file would not lie directly in {}", artboardID,
                   outputFolder);
    } else {
      try {
        // The output folder is the run's own: files go straight to their place.
        written = PXFileWriter::writeJSON(hotspotMetaForArtboardID(artboardID, scale), true, path,
                                          PXFileWriter::Placement::direct);
      } catch (const std::exception& e) {
        PXLogVerbose("PXHotspotsExporter could not read artboard {}: {}", artboardID, e.what());
      }
    }
    if (!written) {
      PXLogVerbose("PXHotspotsExporter failed to export hotspot {} to {}", artboardID, path);
      continue;
    }
    if (progressHandler)
      progressHandler(artboardID, path);
    else
      PXLogVerbose("PXHotspotsExporter exported hotspot {} to {}", artboardID, path);
    results[artboardID] = path;
  }
  if (completionHandler) completionHandler(results);
}

std::optional<bool> PXHotspotsExporter::prototypingMetaExtraction(
    const PXSyncPrototypingMetaExtraction&, const std::optional<std::string>& artboardID,
    const std::optional<std::string>& samePageWithArtboardID) {
  if (!reader || !artboardID || !samePageWithArtboardID) return false;
  auto sourcePage = reader->pageIDByArtboardID(*artboardID);
  auto targetPage = reader->pageIDByArtboardID(*samePageWithArtboardID);
  return sourcePage && targetPage && *sourcePage == *targetPage;
}

}  // namespace plexa
