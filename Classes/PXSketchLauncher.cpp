#include "PXSketchLauncher.h"

#include "Dispatch.h"
#include "Files.h"
#include "Json.h"
#include "Log.h"
#include "PXCommand.h"
#include "PXFileWriter.h"
#include "PathString.h"
#include "Process.h"

#include <cstdlib>
#include <utility>

namespace plexa {

namespace {

std::string homeFolder() {
  const char* home = std::getenv("HOME");
  return home && *home ? home : "/";
}

std::string expandingTildeInPath(const std::string& path) {
  if (path == "~") return homeFolder();
  if (path.rfind("~/", 0) == 0) return PXAppendingPathComponent(homeFolder(), path.substr(2));
  return path;
}

// The path as the plug-in will compare it: home expanded, "." and ".." folded.
std::string standardizedPath(const std::string& path) { return PXStandardizingPath(expandingTildeInPath(path)); }

// PXFileWriter reports only serialisation failures, so read the file back to
// learn whether the request really landed.
bool writeRequest(const JsonValue& request, const std::string& path) {
  if (!PXFileWriter::writeJSON(request, true, path)) return false;
  auto text = PXFileManager::readFile(path);
  auto written = text ? PXJsonParse(*text) : std::nullopt;
  return written && *written == request;
}

// Runs the open command; why Sketch could not be reached, or nothing.
std::optional<std::string> runOpenCommand(const std::string& tool, const std::vector<std::string>& arguments) {
  if (tool.empty()) return "Sketch could not be started: no sketchtool to run";
  PXProcessOutput result = PXRunProcess(tool, arguments);
  if (!result.launched) return fmt::format("Sketch could not be started: {} cannot be run ({})", tool, result.error);
  if (result.exitCode == 0) return std::nullopt;
  std::string said = result.output.substr(0, result.output.find('\n'));
  return fmt::format("Sketch could not be started: {} run … openDocument ended with status {}{}{}", tool,
                     result.exitCode, said.empty() ? "" : ": ", said);
}

}  // namespace

std::shared_ptr<PXSketchLauncher> PXSketchLauncher::make() {
  std::shared_ptr<PXSketchLauncher> launcher(new PXSketchLauncher());
  launcher->queue = PXMakeSerialQueue("PXSketchLauncher");
  launcher->registerObservers();
  return launcher;
}

PXSketchLauncher::~PXSketchLauncher() = default;

void PXSketchLauncher::registerObservers() {
  auto center = PXDistributedNotificationCenter::defaultCenter();
  auto forward = [weak = weak_from_this()](void (PXSketchLauncher::*handler)(const PXNotification&)) {
    return [weak, handler](const PXNotification& note) {
      if (auto self = weak.lock()) ((*self).*handler)(note);
    };
  };
  observers_.push_back(center->addObserver(PXSketchLauncherOnStartupNotification, std::nullopt,
                                           forward(&PXSketchLauncher::sketchOnStartupNotification)));
  observers_.push_back(center->addObserver(PXSketchLauncherOpenDocumentSucceedNotification, std::nullopt,
                                           forward(&PXSketchLauncher::sketchOnOpenDocumentSucceedNotification)));
  observers_.push_back(
      center->addObserver(PXSketchLauncherOpenDocumentNotFoundNotification, std::nullopt,
                          forward(&PXSketchLauncher::sketchOnOpenDocumentDocumentNotFoundNotification)));
}

std::string PXSketchLauncher::pluginPath() {
  const char* override = std::getenv("PLEXA_RESOURCES_DIR");
  std::string resources = override && *override ? override : PLEXA_RESOURCES_DIR;
  return PXAppendingPathComponent(resources, "PXSketchLauncher.sketchplugin");
}

std::string PXSketchLauncher::openDocumentRequestPath() {
  return pluginPath() + "/Contents/Sketch/PXSketchLauncher-openDocument.json";
}

std::string PXSketchLauncher::runCommand(const std::string& path, const std::vector<std::string>& arguments) {
  return PXCommand::runCommand(path, arguments);
}

std::string PXSketchLauncher::installedPluginPath() const {
  return PXAppendingPathComponent(expandingTildeInPath(sketchPluginsFolderPath), "PXSketchLauncher.sketchplugin");
}

void PXSketchLauncher::installPluginToSketchFolder() {
  removeSketchLauncherPlugin();
  std::string error;
  if (!PXFileManager::copyItem(pluginPath(), installedPluginPath(), &error)) {
    PXLogVerbose("failed to install SketchLauncher plugin {}", error);
  }
}

void PXSketchLauncher::removeSketchLauncherPlugin() {
  std::string path = installedPluginPath();
  std::string error;
  if (!PXFileManager::fileExists(path) && !PXFileManager::isSymbolicLink(path)) {
    error = "no such file: " + path;
  } else if (PXFileManager::removeItem(path, &error)) {
    return;
  }
  PXLogVerbose("failed to remove SketchLauncher plugin {}", error);
}

void PXSketchLauncher::killSketch() { runCommand(killCommandPath, killArguments); }

void PXSketchLauncher::launchSketchCompletion(StartupHandler completion) {
  setOnStartupHandler(std::move(completion));
  installPluginToSketchFolder();
  runCommand(launchCommandPath, launchArguments);
}

void PXSketchLauncher::openDocument(const std::string& filePath, OpenDocumentHandler completion) {
  setOnOpenDocumentHandler(std::move(completion));
  // Only values travel to the queue: the answer comes back through the
  // observers, so the request needs nothing else from the launcher.
  queue->async([weak = weak_from_this(), request = JsonValue(JsonObject{{"filePath", standardizedPath(filePath)}}),
                requestPath = openDocumentRequestPath(), plugin = pluginPath(), tool = sketchToolPath] {
    if (!writeRequest(request, requestPath)) PXLogVerbose("PXSketchLauncher failed to write openDocument.json");
    // Sketch answers only once the command reached it: a command that could
    // not run, or failed, means no answer will ever come.
    auto failure = runOpenCommand(tool, {"run", plugin, "openDocument"});
    if (!failure) return;
    PXLogError("{}", *failure);
    if (auto self = weak.lock()) {
      {
        std::lock_guard lock(self->handlersMutex_);
        self->openFailure_ = *failure;
      }
      self->answerOpenDocument(false);
    }
  });
}

void PXSketchLauncher::setOnStartupHandler(StartupHandler handler) {
  std::lock_guard lock(handlersMutex_);
  onStartupHandler_ = std::move(handler);
}

void PXSketchLauncher::setOnOpenDocumentHandler(OpenDocumentHandler handler) {
  std::lock_guard lock(handlersMutex_);
  onOpenDocumentHandler_ = std::move(handler);
}

std::optional<std::string> PXSketchLauncher::takeOpenFailure() {
  std::lock_guard lock(handlersMutex_);
  return std::exchange(openFailure_, std::nullopt);
}

bool PXSketchLauncher::hasOnOpenDocumentHandler() {
  std::lock_guard lock(handlersMutex_);
  return static_cast<bool>(onOpenDocumentHandler_);
}

void PXSketchLauncher::sketchOnStartupNotification(const PXNotification&) {
  StartupHandler handler;
  {
    std::lock_guard lock(handlersMutex_);
    handler = onStartupHandler_;  // stays set for a later start-up
  }
  if (handler) handler(true, std::nullopt);
  removeSketchLauncherPlugin();
}

void PXSketchLauncher::sketchOnOpenDocumentSucceedNotification(const PXNotification&) { answerOpenDocument(true); }

void PXSketchLauncher::sketchOnOpenDocumentDocumentNotFoundNotification(const PXNotification&) {
  answerOpenDocument(false);
}

// Each request is answered once: the handler is taken before it runs, so a
// handler that starts a new request keeps the new one.
void PXSketchLauncher::answerOpenDocument(bool found) {
  OpenDocumentHandler handler;
  {
    std::lock_guard lock(handlersMutex_);
    handler = std::move(onOpenDocumentHandler_);
    onOpenDocumentHandler_ = nullptr;
  }
  if (handler) handler(found);
}

}  // namespace plexa
