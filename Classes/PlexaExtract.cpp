#include "PlexaExtract.h"

#include "Dispatch.h"
#include "Files.h"
#include "Log.h"
#include "MainQueue.h"
#include "PathString.h"
#include "PXAnimaDetacher.h"
#include "PXArtboardExporter.h"
#include "PXHotspotsExporter.h"
#include "PXMetaExporter.h"
#include "PXSketchOpenFormatReader.h"
#include "PXSketchTool.h"
#include "PXSymbolDetacher.h"

#include <utility>

namespace plexa {

// What one start call asked for, kept together for the stages.
struct PlexaExtract::Run {
  std::optional<std::vector<std::string>> requestedIDs;
  double scale = 1;
  uint64_t options = 0;
  ImageProgressHandler progressHandler;
  CompletionHandler completionHandler;
  std::vector<std::string> artboardIDs;
  std::vector<std::string> sortedArtboardIDs;
  std::shared_ptr<PXDispatchGroup> stageGroup = PXDispatchGroup::make();
};

namespace {

// The JSON detacher's pages reach every reader of the unzipped folder from
// memory; no stage reads them from the files again.
void handOverDetachedPages(PlexaExtract& extractor) {
  if (!extractor.unzipper) return;
  auto pages = extractor.unzipper->takeDetachedPages();
  if (pages.empty()) return;
  for (const auto& reader : {extractor.reader, extractor.metaExporter ? extractor.metaExporter->sketchReader : nullptr,
                             extractor.hotspotsExporter ? extractor.hotspotsExporter->reader : nullptr,
                             extractor.artboardExporter ? extractor.artboardExporter->sketchReader : nullptr})
    if (reader) reader->adoptPages(pages);
}

}  // namespace

PlexaExtract::PlexaExtract() : queue_(PXMakeConcurrentQueue("plexa.extract")) {}

std::shared_ptr<PlexaExtract> PlexaExtract::make() { return std::shared_ptr<PlexaExtract>(new PlexaExtract()); }

PlexaExtract::~PlexaExtract() {
  if (!cancelled_) cancel();
}

std::optional<std::string> PlexaExtract::defaultSketchToolPath() { return PXSketchTool::defaultPath(); }

std::shared_ptr<PlexaExtract> PlexaExtract::extractWithSketchFilePath(const std::string& sketchFilePath,
                                                                     const std::string& outputFolderPath,
                                                                     const std::optional<std::string>& sketchToolPath) {
  return extractWithSketchFilePath(sketchFilePath, PXAppendingPathComponent(outputFolderPath, "output"),
                                   sketchToolPath, PXAppendingPathComponent(outputFolderPath, "temp"));
}

std::shared_ptr<PlexaExtract> PlexaExtract::extractWithSketchFilePath(const std::string& sketchFilePath,
                                                                     const std::string& outputFolderPath,
                                                                     const std::optional<std::string>& sketchToolPath,
                                                                     const std::string& tempFolderPath) {
  auto toolPath = sketchToolPath ? sketchToolPath : defaultSketchToolPath();
  auto extractor = make();
  extractor->sketchFilePath = sketchFilePath;
  extractor->outputFolderPath = outputFolderPath;
  extractor->tempFolderPath = tempFolderPath;
  extractor->detachMethod = "selection";

  extractor->unzipper = PXSketchUnzipper::make();
  extractor->unzipper->sketchFilePath = sketchFilePath;
  extractor->unzipper->sketchToolPath = toolPath.value_or("");
  extractor->unzipper->delegate = extractor;

  extractor->unzippingFolderPath = PXAppendingPathComponent(tempFolderPath, "unzipped");
  extractor->unzipper->detachedSketchFilePath =
      PXAppendingPathComponent(tempFolderPath, PXLastPathComponent(sketchFilePath));
  extractor->metaExporter = PXMetaExporter::metaExporterWithSketchFilePath(extractor->unzipper->detachedSketchFilePath,
                                                                           extractor->unzippingFolderPath);
  PXFileManager::createDirectory(outputFolderPath, true);
  PXFileManager::createDirectory(extractor->unzippingFolderPath, true);

  extractor->artboardExporter = PXArtboardExporter::artboardExporterWithSketchFilePath(
      extractor->unzipper->detachedSketchFilePath, extractor->unzippingFolderPath, toolPath);
  extractor->reader = PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(extractor->unzippingFolderPath);
  extractor->hotspotsExporter =
      PXHotspotsExporter::hotspotsExporterWithSketchFilePath(sketchFilePath, extractor->unzippingFolderPath);
  return extractor;
}

void PlexaExtract::startExtractionForArtboardIDs(const std::optional<std::vector<std::string>>& artboardIDs,
                                                 double scale, uint64_t exportOptions,
                                                 ImageProgressHandler progressHandler,
                                                 CompletionHandler completionHandler) {
  if (cancelled_ || !unzipper) return;
  unzipper->prettyPrint = prettyPrint;
  unzipper->stableIdentifiers = stableIdentifiers;
  unzipper->detachingArtboardIds = artboardIDs;
  unzipper->detachMethod = detachMethod;
  PXMainQueue::shared().perform([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->processProgress_.clear();
  });

  if (exportOptions & PlexaExtractDetachAnima) {
    std::string detached = PXAppendingPathComponent(outputFolderPath, "detached.sketch");
    animaDetacher = PXAnimaDetacher::make();
    // The detacher keeps its completion for good, so the extractor is held
    // only until the first answer; later answers find nobody.
    auto keeper = std::make_shared<std::shared_ptr<PlexaExtract>>(shared_from_this());
    animaDetacher->detachSketchFile(
        sketchFilePath, artboardIDs, detached,
        [keeper, detached, artboardIDs, scale, exportOptions, progressHandler, completionHandler](bool success) {
          auto self = std::exchange(*keeper, nullptr);
          if (!self) return;
          if (success) {
            self->artboardExporter->setSketchFilePath(detached);
            self->unzipper->sketchFilePath = detached;
          }
          self->startUnzipArtboardIDs(artboardIDs, scale, exportOptions, progressHandler, completionHandler);
        });
    return;
  }

  if (exportOptions & PlexaExtractDetachV2) {
    unzipper->v2Detacher = true;
    unzipper->detachMethod = "all";
    // Only sketchtool reads the detached file.
    unzipper->writesDetachedFile = exportOptions & (PlexaExtractExportImages | PlexaExtractExportAssets);
    std::string copy = PXAppendingPathComponent(tempFolderPath, "input-" + PXLastPathComponent(sketchFilePath));
    PXFileManager::removeItem(copy);
    bool copied = PXFileManager::copyItem(sketchFilePath, copy);
    artboardExporter->setSketchFilePath(copied ? copy : sketchFilePath);
  } else if (detachMethod == "none") {
    artboardExporter->setSketchFilePath(sketchFilePath);
  } else {
    artboardExporter->setSketchFilePath(unzipper->detachedSketchFilePath);
  }
  startUnzipArtboardIDs(artboardIDs, scale, exportOptions, std::move(progressHandler), std::move(completionHandler));
}

void PlexaExtract::startExtractionForArtboardIDs(const std::optional<std::vector<std::string>>& artboardIDs,
                                                 double scale, bool excludeIgnoredArtboardName,
                                                 CompletionHandler completion) {
  uint64_t options = excludeIgnoredArtboardName ? PlexaExtractExportMeta | PlexaExtractExcludeIgnoredArtboardName
                                                : PlexaExtractExportMeta;
  startExtractionForArtboardIDs(artboardIDs, scale, options, nullptr, std::move(completion));
}

void PlexaExtract::startUnzipArtboardIDs(const std::optional<std::vector<std::string>>& artboardIDs, double scale,
                                         uint64_t exportOptions, ImageProgressHandler progressHandler,
                                         CompletionHandler completionHandler) {
  if (cancelled_ || !unzipper) return;
  auto run = std::make_shared<Run>();
  run->requestedIDs = artboardIDs;
  run->scale = scale;
  run->options = exportOptions;
  run->progressHandler = std::move(progressHandler);
  run->completionHandler = std::move(completionHandler);
  queue_->async([self = shared_from_this(), run] {
    self->unzipper->unzipToFolderPath(self->unzippingFolderPath, [self, run](bool success, const std::string& path) {
      self->runStages(run, success, path);
    });
  });
}

void PlexaExtract::runStages(const std::shared_ptr<Run>& run, bool unzipped, const std::string& detachedPath) {
  if (stoppedByCancel()) return;
  std::vector<std::string> sorted;
  PXError error = noDetachedFileError();
  if (!unzipped) error.failureReason = unzipper->failureReason;
  if (unzipped) handOverDetachedPages(*this);
  if (unzipped) {
    try {
      run->artboardIDs = artboardsOfRun(run, sorted);
    } catch (const PXSketchDocumentFileMissing& e) {
      PXLogError("PlexaExtract the unzipped document is unusable: {}", e.what());
      // Named as in the user's file, not by the working copy's path.
      error.failureReason = "not a Sketch document: " + PXLastPathComponent(e.what()) + " is missing";
      unzipped = false;
    }
  }
  if (!unzipped) {
    if (run->completionHandler)
      PXMainQueue::shared().async([run, error] { run->completionHandler({}, error); });
    return;
  }
  completeProcess(PlexaExtractProcessDetachingSymbols);
  detachedSketchFilePath = detachedPath;
  run->sortedArtboardIDs = std::move(sorted);
  progressCount_ = static_cast<int64_t>(run->artboardIDs.size());

  exportMeta(run);
  if (stoppedByCancel()) return;
  exportImages(run);
  if (stoppedByCancel()) return;
  exportHotspots(run);
  run->stageGroup->notify(PXMainDispatchQueue(), [self = shared_from_this(), run] { self->exportAssetsThenFinish(run); });
}

// A stage that was already running when the run was cancelled may have
// made its folders again; nothing of a cancelled run is left behind.
bool PlexaExtract::stoppedByCancel() {
  if (!cancelled_) return false;
  removeTempFolder();
  if (removesOutputFolder) removeOutputFolder();
  return true;
}

std::vector<std::string> PlexaExtract::artboardsOfRun(const std::shared_ptr<Run>& run,
                                                      std::vector<std::string>& sorted) {
  sorted = reader->sortedArtboardIDs();
  return run->requestedIDs ? *run->requestedIDs : sorted;
}

void PlexaExtract::exportMeta(const std::shared_ptr<Run>& run) {
  if (run->options & (PlexaExtractExportMeta | PlexaExtractExportAssets)) {
    PXLogVerbose("PlexaExtract start exporting meta json");
    bool excludeIgnored = run->options & PlexaExtractExcludeIgnoredArtboardName;
    for (const auto& artboardID : run->artboardIDs) {
      if (cancelled_) break;
      updateProgressForProcess(PlexaExtractProcessInspectData);
      metaExporter->formattedMetaJSONFileForArtboardID(artboardID, excludeIgnored, outputFolderPath);
    }
  }
  completeProcess(PlexaExtractProcessInspectData);
}

void PlexaExtract::exportImages(const std::shared_ptr<Run>& run) {
  if (!(run->options & PlexaExtractExportImages)) {
    completeProcess(PlexaExtractProcessArtboards);
    return;
  }
  run->stageGroup->enter();
  PXLogVerbose("PlexaExtract start artboard images with concurrent {} batchSize {}", maxConcurrentArtboardExport,
               maxConcurrentArtboardBatchSize);
  std::weak_ptr<PlexaExtract> weak = weak_from_this();
  artboardExporter->exportImagesForArtboardIDs(
      run->artboardIDs, run->scale, outputFolderPath,
      [weak, run](const std::string& artboardID, const std::string& path) {
        if (run->progressHandler) run->progressHandler(artboardID, path);
        if (auto self = weak.lock()) self->updateProgressForProcess(PlexaExtractProcessArtboards);
      },
      [self = shared_from_this(), run](bool, const auto&) {
        self->completeProcess(PlexaExtractProcessArtboards);
        PXLogVerbose("PlexaExtract finished exporting artboard images");
        run->stageGroup->leave();
      });
}

void PlexaExtract::exportHotspots(const std::shared_ptr<Run>& run) {
  if (!(run->options & PlexaExtractExportHotspots)) {
    completeProcess(PlexaExtractProcessHotspots);
    return;
  }
  run->stageGroup->enter();
  PXLogVerbose("PlexaExtract start hotspots");
  std::weak_ptr<PlexaExtract> weak = weak_from_this();
  hotspotsExporter->exportHotspotsForArtboardIDs(
      run->artboardIDs, run->scale, outputFolderPath,
      [weak](const std::string&, const std::string&) {
        if (auto self = weak.lock()) self->updateProgressForProcess(PlexaExtractProcessHotspots);
      },
      [self = shared_from_this(), run](const auto&) {
        self->completeProcess(PlexaExtractProcessHotspots);
        PXLogVerbose("PlexaExtract finished exporting hotspots");
        run->stageGroup->leave();
      });
}

void PlexaExtract::exportAssetsThenFinish(const std::shared_ptr<Run>& run) {
  auto assetGroup = PXDispatchGroup::make();
  assetGroup->enter();
  if (run->options & PlexaExtractExportAssets) {
    PXLogVerbose("PlexaExtract start exporting assets");
    std::weak_ptr<PlexaExtract> weak = weak_from_this();
    artboardExporter->exportLayerAssetsForArtboardIDs(
        run->artboardIDs, outputFolderPath, outputFolderPath,
        [weak](const std::string&, const std::string&) {
          if (auto self = weak.lock()) self->updateProgressForProcess(PlexaExtractProcessAssets);
        },
        [self = shared_from_this(), assetGroup](bool, const auto&) {
          PXLogVerbose("PlexaExtract finish exporting assets");
          self->completeProcess(PlexaExtractProcessAssets);
          assetGroup->leave();
        });
  } else {
    completeProcess(PlexaExtractProcessAssets);
    assetGroup->leave();
  }
  assetGroup->notify(PXMainDispatchQueue(), [self = shared_from_this(), run] { self->finish(run); });
}

void PlexaExtract::finish(const std::shared_ptr<Run>& run) {
  metaExporter->formattedJSONFileForSelectedArtboardIDs(run->artboardIDs, run->sortedArtboardIDs, run->scale,
                                                        sketchFilePath, outputFolderPath);
  if (cancelled_ || !run->completionHandler) return;
  std::string error;
  auto names = PXFileManager::contentsOfDirectory(outputFolderPath, &error);
  std::optional<PXError> listingError;
  if (!names) listingError = PXError{"NSCocoaErrorDomain", 260, error, ""};
  run->completionHandler(names.value_or(std::vector<std::string>{}), listingError);
}

void PlexaExtract::cancel() {
  cancelled_ = true;
  if (animaDetacher) animaDetacher->setCompletion(nullptr);  // it would hold this extractor
  if (unzipper) unzipper->cancel();
  if (hotspotsExporter) hotspotsExporter->cancel();
  if (artboardExporter) artboardExporter->cancel();
  removeTempFolder();
  if (removesOutputFolder) removeOutputFolder();
}

bool PlexaExtract::sketchFileExists() const { return PXFileManager::fileExists(sketchFilePath); }

std::string PlexaExtract::detachedOutputFolderPath() const { return unzipper ? unzipper->outputFolderPath : ""; }

void PlexaExtract::removeTempFolder() const {
  if (!tempFolderPath.empty()) PXFileManager::removeItem(tempFolderPath);
}

void PlexaExtract::removeOutputFolder() const {
  if (!outputFolderPath.empty()) PXFileManager::removeItem(outputFolderPath);
}

bool PlexaExtract::asyncSymbolDetachment() const { return unzipper && unzipper->detacher()->async; }

void PlexaExtract::setAsyncSymbolDetachment(bool async) {
  if (unzipper) unzipper->detacher()->async = async;
}

PXError PlexaExtract::noDetachedFileError() {
  return PXError{"NSURLErrorDomain", -1100, "The Sketch file could not be unzipped.", ""};
}

}  // namespace plexa
