#pragma once
// Renders artboard images and layer assets through sketchtool: artboards in
// batches on a queue with a bounded number of tools at work, layers in one
// run, and every produced file moved to the name the upload expects.
//
// Batch jobs, per-file handlers and tool completions all run on the main
// thread, so the main queue must keep running during an export.

#include "Json.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXAsyncWrapperOperation;
class PXOperationQueue;
class PXSketchOpenFormatReader;
class PXSketchTool;

class PXArtboardExporter : public std::enable_shared_from_this<PXArtboardExporter> {
 public:
  // Artboard ID → the path of its image.
  using ExportedFiles = std::map<std::string, std::string>;
  using ProgressHandler = std::function<void(const std::string& artboardID, const std::string& finalPath)>;
  using CompletionHandler = std::function<void(bool allSuccessful, const ExportedFiles& exportedFiles)>;
  using AssetProgressHandler = std::function<void(const std::string& layerID, const std::string& destinationPath)>;
  using AssetCompletionHandler =
      std::function<void(bool success, const std::vector<std::string>& destinationPaths)>;

  // Absent tool path: sketchtool's default location is looked up when needed.
  static std::shared_ptr<PXArtboardExporter> artboardExporterWithSketchFilePath(
      const std::string& sketchFilePath, const std::string& unzippedSketchFolderPath,
      const std::optional<std::string>& sketchToolPath);

  void setSketchFilePath(const std::string& path);
  std::string sketchFilePath() const;
  std::string unzippedSketchFolderPath;
  std::optional<std::string> sketchToolPath;
  std::shared_ptr<PXSketchOpenFormatReader> sketchReader;

  // How many sketchtool runs at once; a running export follows a change at
  // once. 0 is taken as 1.
  void setMaxConcurrent(uint64_t maxConcurrent);
  uint64_t maxConcurrent() const { return maxConcurrent_; }
  // How many artboards one run renders; 0 is taken as 1.
  void setMaxNumberPerExport(uint64_t maxNumberPerExport);
  uint64_t maxNumberPerExport() const { return maxNumberPerExport_; }
  bool isCancelled() const { return cancelled_; }

  // The pool: a tool for each running batch.
  std::shared_ptr<PXSketchTool> createSketchTool();
  void releaseSketchTool(const std::shared_ptr<PXSketchTool>& tool);
  size_t sketchToolCount() const;

  // Element i goes to batch i / n, in order; n of 0 is taken as 1.
  // Layer IDs in runs whose joined list stays under one command-line
  // argument's size limit (one run when it all fits).
  static std::vector<std::vector<std::string>> splitForCommandLine(const std::vector<std::string>& ids,
                                                                   size_t maxArgumentBytes = 96 * 1024);
  static std::vector<std::vector<std::string>> splitArray(const std::vector<std::string>& array,
                                                          uint64_t inBatchesOf);
  // "jpg" when one of the artboard's export formats is exactly "jpg", else "png".
  std::string fileFormatForArtboardID(const std::string& artboardID);

  // Renders the artboards and moves each image to "<artboard ID>.<ext>" in
  // the output folder. `progressHandler` runs on the main thread per image;
  // `completionHandler` once, on a background thread, unless cancelled first.
  // Without a sketchtool nothing starts: one log line, then the completion
  // with false and no files.
  void exportImagesForArtboardIDs(const std::vector<std::string>& artboardIDs, double scale,
                                  const std::string& outputFolder, ProgressHandler progressHandler,
                                  CompletionHandler completionHandler);

  // Layer ID → key → destinations ({relativePath, layerName, layerNameFormatted}),
  // read from the "-paths.json" files of the artboards (absent: all of them).
  JsonObject layerConfigFromPathsFolder(const std::string& pathsFolder,
                                        const std::optional<std::vector<std::string>>& artboardIDs);

  // Exports every layer the paths files list in one sketchtool run and places
  // each file at each of its destinations inside the output folder. Handlers
  // run on the main thread. Without a sketchtool (or with no layers) nothing
  // runs and the completion comes at once, false (or true).
  void exportLayerAssetsForArtboardIDs(const std::optional<std::vector<std::string>>& artboardIDs,
                                       const std::string& pathsFolder, const std::string& outputFolder,
                                       AssetProgressHandler progressHandler, AssetCompletionHandler completionHandler);
  void exportLayerAssetsForArtboardIDs(const std::vector<std::string>& artboardIDs, const std::string& pathsFolder,
                                       const std::string& outputFolder, AssetProgressHandler progressHandler,
                                       AssetCompletionHandler completionHandler);

  // Places one exported file at one destination: moved when
  // `shouldRemoveSource`, else copied. The destination path, also when a
  // step failed; absent when the destination or the source would lie outside
  // the output folder.
  std::optional<std::string> exportAssetsForConfig(const JsonObject& config, const std::string& fromFileName,
                                                   const std::string& toFileName, const std::string& outputFolder,
                                                   bool shouldRemoveSource);

  // Stops waiting batches, kills running sketchtool runs and drops the
  // pending completion. Destroying an exporter that was not cancelled cancels it.
  void cancel();
  ~PXArtboardExporter();
  PXArtboardExporter(const PXArtboardExporter&) = delete;
  PXArtboardExporter& operator=(const PXArtboardExporter&) = delete;

 private:
  PXArtboardExporter();
  struct ImageExport;
  struct Batch;

  bool hasSketchTool() const;
  void runBatch(const std::shared_ptr<ImageExport>& state, const Batch& batch,
                const std::shared_ptr<PXAsyncWrapperOperation>& operation);
  std::optional<std::string> placeArtboardImage(const std::string& artboardID, const std::string& fileName,
                                                const std::string& outputFolder);
  // One layer export, possibly in several sketchtool runs.
  struct LayerRun {
    std::shared_ptr<const JsonObject> config;
    std::string outputFolder;
    std::vector<std::vector<std::string>> itemRuns;
    AssetProgressHandler progressHandler;
    AssetCompletionHandler completionHandler;
    std::vector<std::string> results;
    bool allSucceeded = true;
  };
  void runLayerItems(const std::shared_ptr<LayerRun>& run, size_t index);
  void startLayerExport(const std::shared_ptr<const JsonObject>& config, const std::string& outputFolder,
                        AssetProgressHandler progressHandler, AssetCompletionHandler completionHandler);
  void placeLayerFile(const JsonObject& config, const std::optional<std::string>& layerID,
                      const std::optional<std::string>& key, const std::string& fileName,
                      const std::string& outputFolder, const AssetProgressHandler& progressHandler,
                      std::vector<std::string>& results);

  mutable std::mutex lock_;
  std::string sketchFilePath_;
  std::vector<std::shared_ptr<PXSketchTool>> sketchtools_;
  std::shared_ptr<PXOperationQueue> operationQueue_;
  std::atomic<uint64_t> maxNumberPerExport_{10};
  std::atomic<uint64_t> maxConcurrent_{4};
  std::atomic<bool> cancelled_{false};
};

}  // namespace plexa
