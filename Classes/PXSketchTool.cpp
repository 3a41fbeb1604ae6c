#include "PXSketchTool.h"

#include "Files.h"
#include "Log.h"
#include "MainQueue.h"
#include "PXBuildInfo.h"
#include "PXCommand.h"
#include "PathString.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <sstream>

#include <unistd.h>

namespace plexa {

namespace {

std::mutex& locationsLock() {
  static std::mutex lock;
  return lock;
}

std::vector<std::string>& locations() {
  static std::vector<std::string> list{
      "/Applications/Sketch.app/Contents/Resources/sketchtool/bin/sketchtool",
      "/Applications/Sketch Beta.app/Contents/Resources/sketchtool/bin/sketchtool",
      "/usr/local/bin/sketchtool",
  };
  return list;
}

std::vector<std::string>& rendererLocations() {
  static std::vector<std::string> list = [] {
    std::vector<std::string> places;
    if (auto program = PXRunningExecutablePath())
      places.push_back(PXAppendingPathComponent(PXDeletingLastPathComponent(*program), "plexa-sketchtool"));
    places.push_back(PLEXA_BUILD_TREE_SKETCHTOOL);
    return places;
  }();
  return list;
}

bool isFile(const std::string& path) {
  bool isDirectory = false;
  return !path.empty() && PXFileManager::fileExists(path, &isDirectory) && !isDirectory;
}

// Empty PATH entries (the current folder) are skipped on purpose.
std::optional<std::string> findOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  if (!path) return std::nullopt;
  std::stringstream entries(path);
  std::string folder;
  while (std::getline(entries, folder, ':')) {
    if (folder.empty()) continue;
    std::string candidate = folder + "/" + name;
    if (isFile(candidate) && ::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return std::nullopt;
}

std::string joined(const std::vector<std::string>& items, const char* separator) {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += separator;
    out += items[i];
  }
  return out;
}

std::string removingAll(std::string text, const std::string& part) {
  if (part.empty()) return text;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at)) text.erase(at, part.size());
  return text;
}

std::string describe(const std::optional<std::string>& value) { return value ? *value : "(null)"; }

std::optional<std::string> extractID(const std::string& string, const std::vector<std::string>& IDs) {
  size_t cut = std::min(string.find('@'), string.find('.'));
  std::string name = cut < string.size() ? string.substr(0, cut) : string;
  if (std::find(IDs.begin(), IDs.end(), name) != IDs.end()) return name;
  for (const auto& ID : IDs)
    if (!ID.empty() && name.find(ID) != std::string::npos) return ID;
  return std::nullopt;
}

}  // namespace

std::vector<std::string> PXSketchTool::configuredLocations() {
  std::lock_guard lock(locationsLock());
  return locations();
}

void PXSketchTool::setConfiguredLocations(std::vector<std::string> list) {
  std::lock_guard lock(locationsLock());
  locations() = std::move(list);
}

std::vector<std::string> PXSketchTool::bundledRendererLocations() {
  std::lock_guard lock(locationsLock());
  return rendererLocations();
}

void PXSketchTool::setBundledRendererLocations(std::vector<std::string> list) {
  std::lock_guard lock(locationsLock());
  rendererLocations() = std::move(list);
}

std::optional<std::string> PXSketchTool::defaultPath() {
  if (const char* fromEnvironment = std::getenv("sketchToolPath"); fromEnvironment && isFile(fromEnvironment))
    return std::string(fromEnvironment);
  for (const auto& location : configuredLocations())
    if (isFile(location)) return location;
  for (const auto& location : bundledRendererLocations())
    if (isFile(location) && ::access(location.c_str(), X_OK) == 0) return location;
  if (auto onPath = findOnPath("sketchtool")) return onPath;
  PXLogError("Could not find sketch tool");
  return std::nullopt;
}

std::shared_ptr<PXSketchTool> PXSketchTool::sketchToolWithPath(const std::optional<std::string>& path) {
  auto execPath = path ? path : defaultPath();
  if (!execPath) return nullptr;
  return std::shared_ptr<PXSketchTool>(new PXSketchTool(*execPath));
}

std::string PXSketchTool::metadataForSketchFilePath(const std::string& filePath,
                                                    std::optional<JsonValue>* outputJSON) {
  std::string output = PXCommand::runCommand(execPath, {"metadata", filePath});
  if (outputJSON) *outputJSON = PXJsonParse(output);
  return output;
}

std::string PXSketchTool::formatNumber(double value) {
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::vector<std::string> PXSketchTool::exportArtboardsArguments(const std::string& sketchFilePath,
                                                                const std::vector<std::string>& artboardIDs,
                                                                const std::string& outputFolderPath, bool saveForWeb,
                                                                double scale, double compression,
                                                                const std::string& format) {
  return {"export",
          "artboards",
          sketchFilePath,
          "--output=" + outputFolderPath,
          "--items=" + joined(artboardIDs, ","),
          std::string("--save-for-web=") + (saveForWeb ? "YES" : "NO"),
          "--scale=" + formatNumber(scale),
          "--formats=" + format,
          "--compression=" + formatNumber(compression),
          "--use-id-for-name=YES"};
}

std::vector<std::string> PXSketchTool::exportLayersArguments(const std::string& sketchFilePath,
                                                             const std::vector<std::string>& layerIDs,
                                                             const std::string& outputFolderPath, bool useIDForName,
                                                             bool saveForWeb, double compression) {
  return {"export",
          "layers",
          sketchFilePath,
          "--output=" + outputFolderPath,
          "--items=" + joined(layerIDs, ","),
          std::string("--save-for-web=") + (saveForWeb ? "YES" : "NO"),
          "--compression=" + formatNumber(compression),
          std::string("--use-id-for-name=") + (useIDForName ? "YES" : "NO")};
}

std::shared_ptr<PXCommand> PXSketchTool::sketchFilePath(const std::string& sketchFilePath,
                                                        const std::vector<std::string>& exportArtboardIDs,
                                                        const std::string& outputFolderPath, bool saveForWeb,
                                                        double scale, double compression, const std::string& format,
                                                        ProgressHandler progressHandler, Completion completion) {
  return run(Kind::artboards,
             exportArtboardsArguments(sketchFilePath, exportArtboardIDs, outputFolderPath, saveForWeb, scale,
                                      compression, format),
             exportArtboardIDs, true, std::move(progressHandler), std::move(completion));
}

std::shared_ptr<PXCommand> PXSketchTool::sketchFilePath(const std::string& sketchFilePath,
                                                        const std::vector<std::string>& exportLayerIDs,
                                                        const std::string& outputFolderPath, bool useIDForName,
                                                        bool saveForWeb, double compression,
                                                        ProgressHandler progressHandler, Completion completion) {
  // The caller owns the output folder; a missing one is only noted.
  if (!PXFileManager::fileExists(outputFolderPath))
    PXLogVerbose("Folder cannot be created {}, original file exists", outputFolderPath);
  return run(Kind::layers,
             exportLayersArguments(sketchFilePath, exportLayerIDs, outputFolderPath, useIDForName, saveForWeb,
                                   compression),
             exportLayerIDs, useIDForName, std::move(progressHandler), std::move(completion));
}

std::shared_ptr<PXCommand> PXSketchTool::run(Kind kind, std::vector<std::string> arguments,
                                             std::vector<std::string> IDs, bool useIDForName,
                                             ProgressHandler progressHandler, Completion completion) {
  uint64_t key;
  {
    // Registered before the start, so a completion that comes at once finds it.
    std::lock_guard lock(commandsLock_);
    key = nextKey_++;
    commands_[key] = nullptr;
  }
  auto success = std::make_shared<bool>(true);
  auto onLines = [kind, IDs = std::move(IDs), useIDForName, success,
                  progressHandler = std::move(progressHandler)](const std::string& text) {
    readOutput(text, kind, IDs, useIDForName, *success, progressHandler);
  };
  std::weak_ptr<PXSketchTool> weakSelf = weak_from_this();
  auto onEnd = [weakSelf, key, success, completion]() {
    if (completion) completion(*success);
    if (auto self = weakSelf.lock()) self->forgetCommand(key);
  };

  std::shared_ptr<PXCommand> command;
  try {
    command = PXCommand::runCommand(execPath, arguments, std::move(onLines), std::move(onEnd));
  } catch (const std::exception& e) {
    PXLogError("PXSketchTool could not launch {}: {}", execPath, e.what());
    forgetCommand(key);
    if (completion) PXMainQueue::shared().async([completion] { completion(false); });
    return nullptr;
  }
  std::lock_guard lock(commandsLock_);
  if (auto entry = commands_.find(key); entry != commands_.end()) entry->second = command;
  if (cancelled_) command->cancel();
  return command;
}

void PXSketchTool::readOutput(const std::string& text, Kind kind, const std::vector<std::string>& IDs,
                              bool useIDForName, bool& success, const ProgressHandler& progressHandler) {
  std::stringstream pieces(text);
  std::string piece;
  while (std::getline(pieces, piece, '\n')) {
    if (piece.rfind("Exported", 0) != 0) {
      // Any other text (a warning, an error) spoils the whole run.
      if (!piece.empty()) success = false;
      continue;
    }
    std::string fileName = piece;
    if (size_t at = fileName.find("Exported "); at != std::string::npos) fileName.erase(at, 9);
    std::optional<std::string> ID = extractID(fileName, IDs);
    std::optional<std::string> remainder;
    if (ID) remainder = removingAll(fileName, *ID);
    if (kind == Kind::artboards) {
      if (!ID) {
        PXLogError("Could not find artboardID for file {}", fileName);
        continue;
      }
      if (progressHandler) progressHandler(ID, remainder, fileName);
      continue;
    }
    if ((!ID || !remainder) && useIDForName)
      PXLogVerbose("PXSketchTool: no file name `{}` or artboard id {} or key {}", fileName, describe(ID),
                   describe(remainder));
    if (progressHandler) progressHandler(ID, remainder, fileName);
  }
}

std::optional<std::string> PXSketchTool::extractIDFromString(const std::string& string,
                                                             const std::vector<std::string>& artboardIDs) const {
  return extractID(string, artboardIDs);
}

void PXSketchTool::forgetCommand(uint64_t key) {
  std::shared_ptr<PXCommand> released;
  std::lock_guard lock(commandsLock_);
  if (auto entry = commands_.find(key); entry != commands_.end()) {
    released = std::move(entry->second);
    commands_.erase(entry);
  }
}

void PXSketchTool::cancel() {
  cancelled_ = true;
  std::lock_guard lock(commandsLock_);
  for (auto& [key, command] : commands_)
    if (command) command->cancel();
}

size_t PXSketchTool::commandCount() const {
  std::lock_guard lock(commandsLock_);
  return commands_.size();
}

PXSketchTool::~PXSketchTool() {
  if (!cancelled_) cancel();
}

}  // namespace plexa
