#pragma once
// Controls a running Sketch from outside through the companion plug-in
// PXSketchLauncher.sketchplugin: installs it, launches or kills Sketch, and
// asks Sketch to open a document. Answers arrive as distributed
// notifications posted by the plug-in.

#include "Notifications.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXQueue;

inline constexpr const char* PXSketchLauncherOnStartupNotification = "PXSketchLauncherOnStartupNotification";
inline constexpr const char* PXSketchLauncherOpenDocumentSucceedNotification =
    "PXSketchLauncherOpenDocumentSucceedNotification";
inline constexpr const char* PXSketchLauncherOpenDocumentNotFoundNotification =
    "PXSketchLauncherOpenDocumentNotFoundNotification";

class PXSketchLauncher : public std::enable_shared_from_this<PXSketchLauncher> {
 public:
  using StartupHandler = std::function<void(bool success, const std::optional<std::string>& error)>;
  using OpenDocumentHandler = std::function<void(bool found)>;

  // Registers the three observers and makes the serial queue.
  static std::shared_ptr<PXSketchLauncher> make();
  ~PXSketchLauncher();
  PXSketchLauncher(const PXSketchLauncher&) = delete;
  PXSketchLauncher& operator=(const PXSketchLauncher&) = delete;

  // The plug-in resource: "PXSketchLauncher.sketchplugin" in the resource
  // folder, which is $PLEXA_RESOURCES_DIR when set, else the one the library
  // was built with.
  static std::string pluginPath();
  // The open request file inside the plug-in resource (not the installed copy).
  static std::string openDocumentRequestPath();
  static std::string runCommand(const std::string& path, const std::vector<std::string>& arguments);

  // Removes any installed copy (logging when there was none), then copies the
  // resource into the plug-in folder.
  void installPluginToSketchFolder();
  void removeSketchLauncherPlugin();
  void killSketch();
  // Keeps `completion` for the start-up notification, installs the plug-in and
  // runs the launch command.
  void launchSketchCompletion(StartupHandler completion);
  // Replaces any pending open callback with `completion`, then writes the
  // open request and runs "openDocument" on the launcher's serial queue.
  // `completion` is called once, on the main queue, when Sketch answers.
  void openDocument(const std::string& filePath, OpenDocumentHandler completion);

  // The plug-in folder with the installed copy's name appended.
  std::string installedPluginPath() const;

  void sketchOnStartupNotification(const PXNotification& notification);
  void sketchOnOpenDocumentSucceedNotification(const PXNotification& notification);
  void sketchOnOpenDocumentDocumentNotFoundNotification(const PXNotification& notification);

  void setOnStartupHandler(StartupHandler handler);
  void setOnOpenDocumentHandler(OpenDocumentHandler handler);
  bool hasOnOpenDocumentHandler();
  // Why the last open request was answered "not found" without Sketch being
  // reached (the command could not be run or failed); taken once.
  std::optional<std::string> takeOpenFailure();

  std::string sketchToolPath;
  std::string tempFolderPath;  // kept for callers
  // Sketch's plug-in folder; "~" is expanded when used.
  std::string sketchPluginsFolderPath = "~/Library/Application Support/com.bohemiancoding.sketch3/Plugins";
  std::string launchCommandPath = "/usr/bin/open";
  std::vector<std::string> launchArguments{"-a", "Sketch"};
  std::string killCommandPath = "/usr/bin/killall";
  std::vector<std::string> killArguments{"Sketch"};
  std::shared_ptr<PXQueue> queue;

 private:
  PXSketchLauncher() = default;
  void registerObservers();
  void answerOpenDocument(bool found);

  std::mutex handlersMutex_;
  StartupHandler onStartupHandler_;
  OpenDocumentHandler onOpenDocumentHandler_;
  std::optional<std::string> openFailure_;
  std::vector<PXNotificationObserver> observers_;
};

}  // namespace plexa
