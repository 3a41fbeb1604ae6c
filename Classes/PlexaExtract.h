#pragma once
// The extractor: one object for one .sketch file. A host makes it with a
// factory, sets options and callbacks, starts it, and receives weighted
// progress over five processes and one completion with the files produced.
//
// Threads: the start call returns at once; unzipping runs on the extractor's
// own queue, progress callbacks and the completion arrive on the main queue
// (PXMainQueue), which the host must keep running.

#include "PXSketchUnzipper.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXMetaExporter;
class PXArtboardExporter;
class PXHotspotsExporter;
class PXSketchOpenFormatReader;
class PXAnimaDetacher;
class PXQueue;

enum PlexaExtractExportOptions : uint64_t {
  PlexaExtractExportMeta = 1,
  PlexaExtractExportImages = 2,
  PlexaExtractExcludeIgnoredArtboardName = 4,
  PlexaExtractExportAssets = 8,
  PlexaExtractDetachV2 = 16,
  PlexaExtractExportHotspots = 32,
  PlexaExtractDetachAnima = 64,
};

enum PlexaExtractProcess : int64_t {
  PlexaExtractProcessDetachingSymbols = 0,
  PlexaExtractProcessInspectData = 1,
  PlexaExtractProcessArtboards = 2,
  PlexaExtractProcessHotspots = 3,
  PlexaExtractProcessAssets = 4,
};

// The one error a host ever receives.
struct PXError {
  std::string domain;
  int64_t code = 0;
  std::string localizedDescription;
  // What was wrong, in words about the user's file (the failure reason of
  // the error); empty when not known.
  std::string failureReason;
};

// Who is hosting the library; stands in for the host application's bundle
// information. Process-wide, like the bundle it replaces.
struct PXHostInfo {
  std::string name;          // "CFBundleName"
  std::string buildVersion;  // "CFBundleVersion"
  std::string shortVersion;  // "CFBundleShortVersionString"
};

class PlexaExtract : public PXSketchUnzipperDelegate, public std::enable_shared_from_this<PlexaExtract> {
 public:
  using ProgressBlock = std::function<void(PlexaExtractProcess process, double processProgress, double total)>;
  using DetachProgressBlock = std::function<void(uint64_t progress, uint64_t count)>;
  using ImageProgressHandler = std::function<void(const std::string& artboardID, const std::string& imagePath)>;
  using CompletionHandler =
      std::function<void(const std::vector<std::string>& fileNames, const std::optional<PXError>& error)>;

  static std::shared_ptr<PlexaExtract> extractWithSketchFilePath(const std::string& sketchFilePath,
                                                                 const std::string& outputFolderPath,
                                                                 const std::optional<std::string>& sketchToolPath);
  static std::shared_ptr<PlexaExtract> extractWithSketchFilePath(const std::string& sketchFilePath,
                                                                 const std::string& outputFolderPath,
                                                                 const std::optional<std::string>& sketchToolPath,
                                                                 const std::string& tempFolderPath);
  static std::optional<std::string> defaultSketchToolPath();
  // A bare extractor (the plain initialiser): a new queue, nothing else.
  static std::shared_ptr<PlexaExtract> make();
  ~PlexaExtract() override;

  void startExtractionForArtboardIDs(const std::optional<std::vector<std::string>>& artboardIDs, double scale,
                                     uint64_t exportOptions, ImageProgressHandler progressHandler,
                                     CompletionHandler completionHandler);
  void startUnzipArtboardIDs(const std::optional<std::vector<std::string>>& artboardIDs, double scale,
                             uint64_t exportOptions, ImageProgressHandler progressHandler,
                             CompletionHandler completionHandler);
  // The older entry: options 5 or 1, no image progress.
  void startExtractionForArtboardIDs(const std::optional<std::vector<std::string>>& artboardIDs, double scale,
                                     bool excludeIgnoredArtboardName, CompletionHandler completion);
  void cancel();
  bool isCancelled() const { return cancelled_; }

  bool sketchFileExists() const;
  std::string detachedOutputFolderPath() const;
  void removeTempFolder() const;
  void removeOutputFolder() const;
  static PXError noDetachedFileError();
  bool asyncSymbolDetachment() const;
  void setAsyncSymbolDetachment(bool async);

  // Progress model.
  static std::optional<std::string> titleForProcess(int64_t process);
  static double weightForProcess(int64_t process);
  double progressForProcess(int64_t process) const;
  void updateProgressForProcess(PlexaExtractProcess process);
  void completeProcess(PlexaExtractProcess process);
  void sketchUnzipper(PXSketchUnzipper& unzipper, uint64_t progress, uint64_t count) override;

  // Upload support.
  std::optional<JsonValue> syncInfo() const;
  JsonObject metaData() const;
  void setMaxConcurrentArtboardExport(uint64_t value);
  void setMaxConcurrentArtboardBatchSize(uint64_t value);
  static void setHostInfo(PXHostInfo info);
  static PXHostInfo hostInfo();

  std::string sketchFilePath;
  std::string outputFolderPath;
  std::string tempFolderPath;
  std::string unzippingFolderPath;
  std::string detachedSketchFilePath;
  std::string tempDetachedSketchFilePath;
  std::string detachMethod;
  bool prettyPrint = false;
  // Detached layers get identifiers derived from the document instead of
  // random ones, so that two runs over one document give identical output.
  bool stableIdentifiers = false;
  // Whether cancelling or releasing the extractor deletes the output folder.
  // A host that names a folder of the user's own turns it off and removes
  // what the run wrote itself.
  bool removesOutputFolder = true;
  uint64_t maxConcurrentArtboardExport = 0;
  uint64_t maxConcurrentArtboardBatchSize = 0;
  ProgressBlock progressBlock;
  DetachProgressBlock detachProgressBlock;

  std::shared_ptr<PXSketchUnzipper> unzipper;
  std::shared_ptr<PXMetaExporter> metaExporter;
  std::shared_ptr<PXArtboardExporter> artboardExporter;
  std::shared_ptr<PXHotspotsExporter> hotspotsExporter;
  std::shared_ptr<PXSketchOpenFormatReader> reader;
  std::shared_ptr<PXAnimaDetacher> animaDetacher;

  // Read on the main thread only.
  const std::map<int64_t, int64_t>& processProgress() const { return processProgress_; }
  int64_t progressCount() const { return progressCount_; }
  std::shared_ptr<PXQueue> queue() const { return queue_; }

 private:
  PlexaExtract();

  struct Run;
  void runStages(const std::shared_ptr<Run>& run, bool unzipped, const std::string& detachedPath);
  bool stoppedByCancel();
  std::vector<std::string> artboardsOfRun(const std::shared_ptr<Run>& run, std::vector<std::string>& sorted);
  void exportMeta(const std::shared_ptr<Run>& run);
  void exportImages(const std::shared_ptr<Run>& run);
  void exportHotspots(const std::shared_ptr<Run>& run);
  void exportAssetsThenFinish(const std::shared_ptr<Run>& run);
  void finish(const std::shared_ptr<Run>& run);

  void updateProgressOnMain(int64_t process);
  void completeProcessOnMain(int64_t process);
  void alertProcessCallback(int64_t process);

  std::atomic<bool> cancelled_{false};
  std::shared_ptr<PXQueue> queue_;
  std::map<int64_t, int64_t> processProgress_;
  std::atomic<int64_t> progressCount_{0};
  double detachSymbolProcess_ = 0;
};

}  // namespace plexa

// The library's version, as hosts read it.
extern "C" const double PlexaExtractVersionNumber;
extern "C" const unsigned char PlexaExtractVersionString[];
