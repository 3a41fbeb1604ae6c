#pragma once
// Writes one "<artboard ID>-hotspots.json" per requested artboard: a
// pretty-printed JSON array of the artboard's prototype hotspot records.
//
// Threads: an export runs wholly on the thread that calls it (the pipeline
// calls it from a background queue while the artboard images render on
// others); the progress and completion callbacks run on that same thread,
// before exportHotspotsForArtboardIDs returns. The exporter reads the document
// through its own reader, so it shares no state with the image export.
// cancel() may be called from any thread and is seen before the next artboard.

#include "Json.h"
#include "PXSyncPrototypingMetaExtraction.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXSketchOpenFormatReader;

class PXHotspotsExporter : public PXSyncPrototypingMetaExtractionDelegate,
                           public std::enable_shared_from_this<PXHotspotsExporter> {
  struct Private {
    explicit Private() = default;
  };

 public:
  // (artboard ID, path of the file written)
  using ProgressHandler = std::function<void(const std::string& artboardID, const std::string& filePath)>;
  // artboard ID → path, for the artboards whose file was written
  using CompletionHandler = std::function<void(const std::map<std::string, std::string>& results)>;

  static std::shared_ptr<PXHotspotsExporter> hotspotsExporterWithSketchFilePath(const std::string& sketchFilePath,
                                                                                const std::string& unzippedSketchFolder);
  PXHotspotsExporter(Private, const std::string& sketchFilePath, const std::string& unzippedSketchFolder);
  ~PXHotspotsExporter() override;

  std::string sketchFilePath;  // its file name salts the screen hashes
  std::string unzippedSketchFolder;
  std::shared_ptr<PXSketchOpenFormatReader> reader;

  bool isCancelled() const { return cancelled_.load(); }
  void cancel();

  // The artboard's records; an unknown artboard gives an empty array.
  JsonArray hotspotMetaForArtboardID(const std::string& artboardID, double scale);

  // Arguments in this order: artboard IDs (written in this order), scale of
  // the images the hotspots belong to, an existing output folder, then the
  // optional progress and completion callbacks. Writes
  // "<outputFolder>/<ID>-hotspots.json" per ID; an ID that would place its
  // file anywhere but directly in the output folder is refused and left out
  // of the results. The completion runs also after a cancel, with what was
  // written so far.
  void exportHotspotsForArtboardIDs(const std::vector<std::string>& artboardIDs, double scale,
                                    const std::string& outputFolder, ProgressHandler progressHandler,
                                    CompletionHandler completionHandler);

  // Same page when the reader knows both artboards' pages and they are equal.
  std::optional<bool> prototypingMetaExtraction(const PXSyncPrototypingMetaExtraction& extraction,
                                                const std::optional<std::string>& artboardID,
                                                const std::optional<std::string>& samePageWithArtboardID) override;

 private:
  std::atomic<bool> cancelled_{false};
};

}  // namespace plexa
