#include "PXArtboardExporter.h"

#include "Dispatch.h"
#include "Files.h"
#include "Log.h"
#include "MainQueue.h"
#include "PXAsyncWrapperOperation.h"
#include "PXSketchOpenFormatReader.h"
#include "PXSketchTool.h"
#include "PathString.h"

#include <algorithm>

namespace plexa {

namespace {

const std::string kPathsFileEnding = "-paths.json";

bool endsWith(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

std::string removingAll(std::string text, const std::string& part) {
  if (part.empty()) return text;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at)) text.erase(at, part.size());
  return text;
}

std::string describe(const std::optional<std::string>& value) { return value ? *value : "(null)"; }

std::string compactJSON(const JsonValue& value) { return PXJsonSerialize(value, false).value_or("?"); }

// Where a name from the document (or from the tool's output) may put a file:
// only inside the output folder, never through a link planted there. A NUL
// would cut the path short of what was checked, so it is refused outright.
std::optional<std::string> insideOutputFolder(const std::string& outputFolder, const std::string& path) {
  if (path.find('\0') != std::string::npos) return std::nullopt;
  return PXResolveInside(outputFolder, path);
}

std::optional<std::string> textFor(const JsonValue& record, const char* key) {
  auto text = PXJsonTextFor(&record, key);
  return text ? std::optional<std::string>(std::string(*text)) : std::nullopt;
}

JsonValue orNull(const std::optional<std::string>& value) { return value ? JsonValue(*value) : JsonValue(nullptr); }

// The artboard folder named inside "fullPath", followed by "layerPath".
std::optional<std::string> relativePathFor(const std::optional<std::string>& fullPath,
                                           const std::optional<std::string>& layerPath) {
  if (!fullPath || !layerPath) return std::nullopt;
  std::string fileInFolder = *layerPath + "/" + PXLastPathComponent(*fullPath);
  std::string artboardFolder = PXLastPathComponent(removingAll(*fullPath, fileInFolder));
  return artboardFolder + "/" + *layerPath;
}

}  // namespace

struct PXArtboardExporter::ImageExport {
  std::string outputFolder;
  double scale = 1;
  ProgressHandler progressHandler;
  // Touched on the main thread only, then read by the final operation.
  ExportedFiles exportedFiles;
  bool allSuccessful = true;
};

struct PXArtboardExporter::Batch {
  std::string format;
  size_t index = 0;
  std::vector<std::string> artboardIDs;
};

PXArtboardExporter::PXArtboardExporter() : operationQueue_(PXOperationQueue::make()) {
  operationQueue_->setMaxConcurrentOperationCount(maxConcurrent_);
}

std::shared_ptr<PXArtboardExporter> PXArtboardExporter::artboardExporterWithSketchFilePath(
    const std::string& sketchFilePath, const std::string& unzippedSketchFolderPath,
    const std::optional<std::string>& sketchToolPath) {
  auto exporter = std::shared_ptr<PXArtboardExporter>(new PXArtboardExporter());
  exporter->sketchFilePath_ = sketchFilePath;
  exporter->unzippedSketchFolderPath = unzippedSketchFolderPath;
  exporter->sketchToolPath = sketchToolPath;
  exporter->sketchReader = PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(unzippedSketchFolderPath);
  return exporter;
}

PXArtboardExporter::~PXArtboardExporter() {
  if (!cancelled_) cancel();
}

void PXArtboardExporter::setSketchFilePath(const std::string& path) {
  std::lock_guard lock(lock_);
  sketchFilePath_ = path;
}

std::string PXArtboardExporter::sketchFilePath() const {
  std::lock_guard lock(lock_);
  return sketchFilePath_;
}

void PXArtboardExporter::setMaxConcurrent(uint64_t maxConcurrent) {
  maxConcurrent_ = maxConcurrent;
  // A limit of 0 would hold every batch back for good.
  operationQueue_->setMaxConcurrentOperationCount(std::max<uint64_t>(maxConcurrent, 1));
}

void PXArtboardExporter::setMaxNumberPerExport(uint64_t maxNumberPerExport) {
  maxNumberPerExport_ = maxNumberPerExport;
}

std::shared_ptr<PXSketchTool> PXArtboardExporter::createSketchTool() {
  auto tool = PXSketchTool::sketchToolWithPath(sketchToolPath);
  if (!tool) return nullptr;
  std::lock_guard lock(lock_);
  sketchtools_.push_back(tool);
  return tool;
}

void PXArtboardExporter::releaseSketchTool(const std::shared_ptr<PXSketchTool>& tool) {
  std::shared_ptr<PXSketchTool> released;
  std::lock_guard lock(lock_);
  auto found = std::find(sketchtools_.begin(), sketchtools_.end(), tool);
  if (found == sketchtools_.end()) return;
  released = std::move(*found);
  sketchtools_.erase(found);
}

size_t PXArtboardExporter::sketchToolCount() const {
  std::lock_guard lock(lock_);
  return sketchtools_.size();
}

bool PXArtboardExporter::hasSketchTool() const {
  if (!sketchToolPath) return PXSketchTool::defaultPath().has_value();
  bool isDirectory = false;
  return PXFileManager::fileExists(*sketchToolPath, &isDirectory) && !isDirectory;
}

std::vector<std::vector<std::string>> PXArtboardExporter::splitArray(const std::vector<std::string>& array,
                                                                     uint64_t inBatchesOf) {
  uint64_t size = std::max<uint64_t>(inBatchesOf, 1);
  std::vector<std::vector<std::string>> batches;
  for (size_t i = 0; i < array.size(); ++i) {
    if (i % size == 0) batches.emplace_back();
    batches.back().push_back(array[i]);
  }
  return batches;
}

std::string PXArtboardExporter::fileFormatForArtboardID(const std::string& artboardID) {
  std::optional<JsonObject> artboard;
  try {
    artboard = sketchReader ? sketchReader->artboardJSONByID(artboardID) : std::nullopt;
  } catch (const std::exception& e) {
    PXLogVerbose("PXArtboardExporter cannot read artboard {}: {}", artboardID, e.what());
  }
  if (!artboard) return "png";
  auto formats = PXValueForKeyPath(JsonValue(std::move(*artboard)), "exportOptions.exportFormats.fileFormat");
  if (!formats || !formats->is_array()) return "png";
  for (const auto& format : formats->get_array())
    if (format.is_string() && format.get_string() == "jpg") return "jpg";
  return "png";
}

// MARK: Artboard images

void PXArtboardExporter::exportImagesForArtboardIDs(const std::vector<std::string>& artboardIDs, double scale,
                                                    const std::string& outputFolder, ProgressHandler progressHandler,
                                                    CompletionHandler completionHandler) {
  if (!artboardIDs.empty() && !hasSketchTool()) {
    PXLogError("PXArtboardExporter: no sketchtool found, {} artboard images not exported", artboardIDs.size());
    if (completionHandler)
      PXGlobalQueue()->async([completionHandler] { completionHandler(false, ExportedFiles()); });
    return;
  }

  // Groups in the order their formats first appear.
  std::vector<std::pair<std::string, std::vector<std::string>>> groups;
  for (const auto& artboardID : artboardIDs) {
    std::string format = fileFormatForArtboardID(artboardID);
    auto group = std::find_if(groups.begin(), groups.end(), [&](const auto& g) { return g.first == format; });
    if (group == groups.end()) group = groups.insert(groups.end(), {format, {}});
    group->second.push_back(artboardID);
  }

  auto state = std::make_shared<ImageExport>();
  state->outputFolder = outputFolder;
  state->scale = scale;
  state->progressHandler = std::move(progressHandler);

  PXNSLog("total artboards count {}, queues count {}", artboardIDs.size(), groups.size());
  auto finalOperation = PXBlockOperation::operationWithBlock([state, completionHandler] {
    PXNSLog("total artboards exported {}, all successful {}", state->exportedFiles.size(),
            state->allSuccessful ? 1 : 0);
    if (completionHandler) completionHandler(state->allSuccessful, state->exportedFiles);
  });

  std::weak_ptr<PXArtboardExporter> weakSelf = weak_from_this();
  for (auto& [format, IDs] : groups) {
    if (cancelled_) break;
    auto batches = splitArray(IDs, maxNumberPerExport_);
    PXNSLog("start exporting {} (batches: {})", format, batches.size());
    for (size_t index = 0; index < batches.size(); ++index) {
      Batch batch{format, index, std::move(batches[index])};
      auto operation = PXAsyncWrapperOperation::operationWithBlock(
          [weakSelf, state, batch](const std::shared_ptr<PXAsyncWrapperOperation>& operation) {
            PXNSLog("batch {}-{} started", batch.format, batch.index);
            if (auto self = weakSelf.lock()) {
              self->runBatch(state, batch, operation);
            } else {
              operation->finish();
            }
          });
      finalOperation->addDependency(operation);
      operationQueue_->addOperation(operation);
    }
  }
  operationQueue_->addOperation(finalOperation);
}

void PXArtboardExporter::runBatch(const std::shared_ptr<ImageExport>& state, const Batch& batch,
                                  const std::shared_ptr<PXAsyncWrapperOperation>& operation) {
  auto endBatch = [state, batch, operation](bool success) {
    PXNSLog("batch {}-{} finished", batch.format, batch.index);
    state->allSuccessful = state->allSuccessful && success;
    operation->finish();
  };
  auto tool = createSketchTool();
  if (!tool) {
    endBatch(false);
    return;
  }
  std::weak_ptr<PXArtboardExporter> weakSelf = weak_from_this();
  std::weak_ptr<PXSketchTool> weakTool = tool;
  tool->sketchFilePath(
      sketchFilePath(), batch.artboardIDs, state->outputFolder, true, state->scale, 0.7, batch.format,
      [weakSelf, state](const std::optional<std::string>& artboardID, const std::optional<std::string>&,
                        const std::string& fileName) {
        auto self = weakSelf.lock();
        if (!self || !artboardID) return;
        auto finalPath = self->placeArtboardImage(*artboardID, fileName, state->outputFolder);
        if (!finalPath) return;
        state->exportedFiles[*artboardID] = *finalPath;
        if (state->progressHandler) state->progressHandler(*artboardID, *finalPath);
      },
      [self = shared_from_this(), weakTool, endBatch](bool success) {
        self->releaseSketchTool(weakTool.lock());
        endBatch(success);
      });
}

std::optional<std::string> PXArtboardExporter::placeArtboardImage(const std::string& artboardID,
                                                                  const std::string& fileName,
                                                                  const std::string& outputFolder) {
  std::string path = PXAppendingPathComponent(outputFolder, fileName);
  auto source = insideOutputFolder(outputFolder, path);
  if (!source) {
    PXLogError("PXArtboardExporter: refused image {} outside the output folder {}", fileName, outputFolder);
    return std::nullopt;
  }
  std::string target = outputFolder + "/" + artboardID + "." + PXPathExtension(path);
  auto destination = insideOutputFolder(outputFolder, target);
  if (!destination) {
    PXLogError("PXArtboardExporter: refused to move {} to {}, outside the output folder", path, target);
    return path;
  }
  if (*source == *destination) return path;
  PXFileManager::removeItem(*destination);
  if (!PXFileManager::moveItem(*source, *destination)) return path;
  return target;
}

// MARK: Layer assets

JsonObject PXArtboardExporter::layerConfigFromPathsFolder(const std::string& pathsFolder,
                                                          const std::optional<std::vector<std::string>>& artboardIDs) {
  JsonArray records;
  for (const auto& name : PXFileManager::contentsOfDirectory(pathsFolder).value_or(std::vector<std::string>())) {
    if (!endsWith(name, kPathsFileEnding)) continue;
    auto text = PXFileManager::readFile(PXAppendingPathComponent(pathsFolder, name));
    auto json = text ? PXJsonParse(*text) : std::nullopt;
    if (!json) continue;
    std::string artboardID = name.substr(0, name.size() - kPathsFileEnding.size());
    if (artboardIDs && std::find(artboardIDs->begin(), artboardIDs->end(), artboardID) == artboardIDs->end()) {
      PXLogVerbose("ignored {}", name);
      continue;
    }
    if (auto* list = json->if_array()) records.insert(records.end(), list->begin(), list->end());
  }

  JsonObject config;
  for (const auto& record : records) {
    auto objectID = textFor(record, "objectID");
    auto originalObjectID = textFor(record, "originalObjectID");
    auto key = textFor(record, "key");
    auto fullPath = textFor(record, "fullPath");
    auto layerName = textFor(record, "layerName");
    auto layerNameFormatted = textFor(record, "layerNameFormatted");
    auto relativePath = relativePathFor(fullPath, textFor(record, "layerPath"));

    JsonObject* group = nullptr;
    if (objectID) {
      // Made before the check below: a layer whose records are all incomplete
      // is still exported, with nowhere to go.
      if (!config.contains(*objectID)) config[*objectID] = JsonObject();
      group = &config[*objectID].as_object();
    }
    if (!group || !originalObjectID || !fullPath || !layerNameFormatted || !layerName || !key || !relativePath) {
      JsonObject found{{"key", orNull(key)},
                       {"relativePath", orNull(relativePath)},
                       {"layerName", orNull(layerName)},
                       {"layerNameFormatted", orNull(layerNameFormatted)},
                       {"fullPath", orNull(fullPath)},
                       {"originalObjectID", orNull(originalObjectID)},
                       {"obj", record}};
      PXLogVerbose("Please use the latest version of PlexaExtract and update your base test case for -path.json {}",
                   compactJSON(found));
      continue;
    }
    if (!group->contains(*key)) (*group)[*key] = JsonArray();
    (*group)[*key].as_array().push_back(JsonObject{
        {"relativePath", *relativePath}, {"layerName", *layerName}, {"layerNameFormatted", *layerNameFormatted}});
  }
  return config;
}

void PXArtboardExporter::exportLayerAssetsForArtboardIDs(const std::vector<std::string>& artboardIDs,
                                                         const std::string& pathsFolder,
                                                         const std::string& outputFolder,
                                                         AssetProgressHandler progressHandler,
                                                         AssetCompletionHandler completionHandler) {
  exportLayerAssetsForArtboardIDs(std::optional<std::vector<std::string>>(artboardIDs), pathsFolder, outputFolder,
                                  std::move(progressHandler), std::move(completionHandler));
}

void PXArtboardExporter::exportLayerAssetsForArtboardIDs(const std::optional<std::vector<std::string>>& artboardIDs,
                                                         const std::string& pathsFolder,
                                                         const std::string& outputFolder,
                                                         AssetProgressHandler progressHandler,
                                                         AssetCompletionHandler completionHandler) {
  auto config = std::make_shared<const JsonObject>(layerConfigFromPathsFolder(pathsFolder, artboardIDs));
  PXMainQueue::shared().async([self = shared_from_this(), config, outputFolder,
                               progressHandler = std::move(progressHandler),
                               completionHandler = std::move(completionHandler)]() mutable {
    if (self->isCancelled()) return;
    self->startLayerExport(config, outputFolder, std::move(progressHandler), std::move(completionHandler));
  });
}

// Linux caps one argument at 128 KiB, and the layer list is one "--items="
// argument: a list that would not fit goes to sketchtool in several runs,
// one after another. Anything smaller is the usual single run.
std::vector<std::vector<std::string>> PXArtboardExporter::splitForCommandLine(const std::vector<std::string>& ids,
                                                                             size_t maxArgumentBytes) {
  std::vector<std::vector<std::string>> runs(1);
  size_t bytes = 0;
  for (const auto& id : ids) {
    if (!runs.back().empty() && bytes + id.size() + 1 > maxArgumentBytes) {
      runs.emplace_back();
      bytes = 0;
    }
    runs.back().push_back(id);
    bytes += id.size() + 1;
  }
  return runs;
}

void PXArtboardExporter::startLayerExport(const std::shared_ptr<const JsonObject>& config,
                                          const std::string& outputFolder, AssetProgressHandler progressHandler,
                                          AssetCompletionHandler completionHandler) {
  std::vector<std::string> layerIDs;
  for (const auto& entry : *config) layerIDs.emplace_back(entry.key());
  if (layerIDs.empty()) {
    // An empty item list could make the tool export every layer there is.
    if (completionHandler) completionHandler(true, {});
    return;
  }
  if (!hasSketchTool()) {
    PXLogError("PXArtboardExporter: no sketchtool found, {} layer assets not exported", layerIDs.size());
    if (completionHandler) completionHandler(false, {});
    return;
  }
  auto run = std::make_shared<LayerRun>();
  run->config = config;
  run->outputFolder = outputFolder;
  run->itemRuns = splitForCommandLine(layerIDs);
  run->progressHandler = std::move(progressHandler);
  run->completionHandler = std::move(completionHandler);
  runLayerItems(run, 0);
}

void PXArtboardExporter::runLayerItems(const std::shared_ptr<LayerRun>& run, size_t index) {
  auto tool = createSketchTool();
  std::weak_ptr<PXArtboardExporter> weakSelf = weak_from_this();
  std::weak_ptr<PXSketchTool> weakTool = tool;
  tool->sketchFilePath(
      sketchFilePath(), run->itemRuns[index], run->outputFolder, true, false, 0.9,
      [weakSelf, run](const std::optional<std::string>& layerID, const std::optional<std::string>& key,
                      const std::string& fileName) {
        auto self = weakSelf.lock();
        if (!self || self->isCancelled()) return;
        self->placeLayerFile(*run->config, layerID, key, fileName, run->outputFolder, run->progressHandler,
                             run->results);
      },
      [self = shared_from_this(), weakTool, run, index](bool success) {
        self->releaseSketchTool(weakTool.lock());
        run->allSucceeded = run->allSucceeded && success;
        if (index + 1 < run->itemRuns.size() && !self->isCancelled()) {
          self->runLayerItems(run, index + 1);
          return;
        }
        if (run->completionHandler) run->completionHandler(run->allSucceeded, run->results);
      });
}

void PXArtboardExporter::placeLayerFile(const JsonObject& config, const std::optional<std::string>& layerID,
                                        const std::optional<std::string>& key, const std::string& fileName,
                                        const std::string& outputFolder, const AssetProgressHandler& progressHandler,
                                        std::vector<std::string>& results) {
  std::string source = PXAppendingPathComponent(outputFolder, fileName);
  const JsonArray* destinations = nullptr;
  if (layerID && key) {
    auto group = config.find(*layerID);
    if (group != config.end()) destinations = PXJsonArrayFor(&group->value(), *key);
  }
  if (!destinations || destinations->empty()) {
    // The file stays where the tool put it, whatever the message says.
    PXLogVerbose("PXArtboardExporter: no config for layerID `{}` key `{}`, removing that image file. {}",
                 describe(layerID), describe(key), source);
    PXLogVerbose("config {}", compactJSON(config));
    return;
  }
  // Earlier destinations get copies; the last one takes the file itself.
  for (size_t i = 0; i < destinations->size(); ++i) {
    const auto* destination = (*destinations)[i].if_object();
    auto placed = destination ? exportAssetsForConfig(*destination, source, fileName, outputFolder,
                                                      i + 1 == destinations->size())
                              : std::nullopt;
    if (!placed) {
      PXLogVerbose("PXArtboardExporter failed to export assets");
      continue;
    }
    if (progressHandler) progressHandler(layerID.value_or(""), *placed);
    results.push_back(*placed);
  }
}

std::optional<std::string> PXArtboardExporter::exportAssetsForConfig(const JsonObject& config,
                                                                     const std::string& fromFileName,
                                                                     const std::string& toFileName,
                                                                     const std::string& outputFolder,
                                                                     bool shouldRemoveSource) {
  JsonValue destination(config);
  std::string relativePath(PXJsonTextFor(&destination, "relativePath").value_or(""));
  std::string layerNameFormatted(PXJsonTextFor(&destination, "layerNameFormatted").value_or(""));
  std::string folder = PXAppendingPathComponent(outputFolder, relativePath);
  std::string path =
      PXAppendingPathComponent(folder, PXAppendingPathExtension(layerNameFormatted, PXPathExtension(toFileName)));

  auto safeSource = insideOutputFolder(outputFolder, fromFileName);
  auto safeFolder = insideOutputFolder(outputFolder, folder);
  auto safePath = insideOutputFolder(outputFolder, path);
  if (!safeSource || !safeFolder || !safePath) {
    PXLogError("PXArtboardExporter: refused to place {} at {}, outside the output folder {}", fromFileName, path,
               outputFolder);
    return std::nullopt;
  }

  std::string error;
  if (!PXFileManager::createDirectory(*safeFolder, true, &error))
    PXLogVerbose("PXArtboardExporter: Failed to create destinated folder {} {}", folder, error);
  if (PXFileManager::fileExists(*safePath) && !PXFileManager::removeItem(*safePath, &error))
    PXLogVerbose("PXArtboardExporter: Failed to remove existing file {} {}", path, error);
  bool placed = shouldRemoveSource ? PXFileManager::moveItem(*safeSource, *safePath, &error)
                                   : PXFileManager::copyItem(*safeSource, *safePath, &error);
  if (!placed) PXLogVerbose("PXArtboardExporter: Failed to move file to detsinated path {} {}", path, error);
  return path;
}

// MARK: Cancelling

void PXArtboardExporter::cancel() {
  cancelled_ = true;
  operationQueue_->cancelAllOperations();
  std::vector<std::shared_ptr<PXSketchTool>> tools;
  {
    std::lock_guard lock(lock_);
    tools = sketchtools_;
  }
  for (const auto& tool : tools) tool->cancel();
}

}  // namespace plexa
