#pragma once
// Drives Sketch's command-line tool: finds it, asks it for a document's
// metadata, and exports artboards and layers, turning its "Exported ..."
// lines into per-file progress and one success flag per run.

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

class PXCommand;

class PXSketchTool : public std::enable_shared_from_this<PXSketchTool> {
 public:
  // (ID or absent, file name with the ID removed or absent, file name)
  using ProgressHandler = std::function<void(const std::optional<std::string>& ID,
                                             const std::optional<std::string>& remainder, const std::string& fileName)>;
  using Completion = std::function<void(bool success)>;

  // The "sketchToolPath" environment variable when it names an existing
  // file, else the first configured location that exists, else the bundled
  // renderer, else "sketchtool" on PATH; absent (with an error log line)
  // when none is there.
  static std::optional<std::string> defaultPath();
  // Where an installed Sketch keeps its tool; process-wide, settable by the host.
  static std::vector<std::string> configuredLocations();
  static void setConfiguredLocations(std::vector<std::string> locations);
  // Where the project's own renderer, which speaks the same command lines,
  // may be: beside the running program, then in the build tree.
  // Process-wide, settable by the host.
  static std::vector<std::string> bundledRendererLocations();
  static void setBundledRendererLocations(std::vector<std::string> locations);

  // Absent path: the default one. nullptr when there is none.
  static std::shared_ptr<PXSketchTool> sketchToolWithPath(const std::optional<std::string>& path);

  // Runs "metadata" synchronously and returns its whole output; with
  // `outputJSON` given, also the output parsed as JSON (absent if it is not).
  std::string metadataForSketchFilePath(const std::string& filePath,
                                        std::optional<JsonValue>* outputJSON = nullptr);

  // Exports artboards named by their IDs. Handlers arrive on the main thread.
  // nullptr when the tool cannot be launched; the completion then still
  // comes, with false.
  std::shared_ptr<PXCommand> sketchFilePath(const std::string& sketchFilePath,
                                            const std::vector<std::string>& exportArtboardIDs,
                                            const std::string& outputFolderPath, bool saveForWeb, double scale,
                                            double compression, const std::string& format,
                                            ProgressHandler progressHandler, Completion completion);
  // Exports layers with their own export settings; as above.
  std::shared_ptr<PXCommand> sketchFilePath(const std::string& sketchFilePath,
                                            const std::vector<std::string>& exportLayerIDs,
                                            const std::string& outputFolderPath, bool useIDForName, bool saveForWeb,
                                            double compression, ProgressHandler progressHandler,
                                            Completion completion);

  // The argument vectors handed to the tool.
  static std::vector<std::string> exportArtboardsArguments(const std::string& sketchFilePath,
                                                           const std::vector<std::string>& artboardIDs,
                                                           const std::string& outputFolderPath, bool saveForWeb,
                                                           double scale, double compression,
                                                           const std::string& format);
  static std::vector<std::string> exportLayersArguments(const std::string& sketchFilePath,
                                                        const std::vector<std::string>& layerIDs,
                                                        const std::string& outputFolderPath, bool useIDForName,
                                                        bool saveForWeb, double compression);
  // A number in its shortest decimal form: 1 → "1", 0.7 → "0.7".
  static std::string formatNumber(double value);

  // The ID a file name stands for: the name cut at its first "@" or ".",
  // matched exactly, else the first ID that occurs inside it.
  std::optional<std::string> extractIDFromString(const std::string& string,
                                                 const std::vector<std::string>& artboardIDs) const;

  // Kills every running export; the tool stays cancelled.
  void cancel();
  bool isCancelled() const { return cancelled_; }
  // How many exports are running.
  size_t commandCount() const;

  // Releasing a tool that was not cancelled cancels it.
  ~PXSketchTool();
  PXSketchTool(const PXSketchTool&) = delete;
  PXSketchTool& operator=(const PXSketchTool&) = delete;

  std::string execPath;

 private:
  explicit PXSketchTool(std::string path) : execPath(std::move(path)) {}

  enum class Kind { artboards, layers };
  std::shared_ptr<PXCommand> run(Kind kind, std::vector<std::string> arguments, std::vector<std::string> IDs,
                                 bool useIDForName, ProgressHandler progressHandler, Completion completion);
  static void readOutput(const std::string& text, Kind kind, const std::vector<std::string>& IDs,
                         bool useIDForName, bool& success, const ProgressHandler& progressHandler);
  void forgetCommand(uint64_t key);

  std::atomic<bool> cancelled_{false};
  mutable std::mutex commandsLock_;
  std::map<uint64_t, std::shared_ptr<PXCommand>> commands_;
  uint64_t nextKey_ = 0;
};

}  // namespace plexa
