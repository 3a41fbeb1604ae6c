#pragma once
// Detaches symbols by letting Sketch do it: writes the detach configuration
// into the companion plug-in, has Sketch open the document, runs a detach
// command of the plug-in and follows its progress notifications.

#include "Notifications.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXSketchLauncher;
class PXSymbolDetacher;

// All three carry the object "PlexaExtract" and user info "file" (the
// document), "index" and "count" (unsigned numbers).
inline constexpr const char* PlexaExtractSymbolDetacherWillDetachNotification =
    "PlexaExtractSymbolDetacherWillDetachNotification";
inline constexpr const char* PlexaExtractSymbolDetacherProgressNotification =
    "PlexaExtractSymbolDetacherProgressNotification";
inline constexpr const char* PlexaExtractSymbolDetacherDidDetachNotification =
    "PlexaExtractSymbolDetacherDidDetachNotification";
inline constexpr const char* PXSymbolDetacherNotificationObject = "PlexaExtract";

class PXSymbolDetacherDelegate {
 public:
  virtual ~PXSymbolDetacherDelegate() = default;
  // Start, progress and end all report here, on the main queue.
  virtual void symbolDetacher(PXSymbolDetacher& detacher, uint64_t progress, uint64_t count) = 0;
};

class PXSymbolDetacher : public std::enable_shared_from_this<PXSymbolDetacher> {
 public:
  using Completion = std::function<void(bool success, const std::optional<std::string>& message)>;

  // Registers the three observers and makes the launcher; `async` is on.
  static std::shared_ptr<PXSymbolDetacher> make();
  // Cancels when not cancelled before; the observers go with the detacher.
  ~PXSymbolDetacher();
  PXSymbolDetacher(const PXSymbolDetacher&) = delete;
  PXSymbolDetacher& operator=(const PXSymbolDetacher&) = delete;

  // The plug-in's configuration file, inside the plug-in resource.
  static std::string configurationFilePath();
  static std::string runCommand(const std::string& path, const std::vector<std::string>& arguments);

  // Starts a detach; false, after calling `completion` with (false, "Detach
  // already in progress"), while an asynchronous one is running. The open
  // answer and the completion arrive on the main queue; there is no time-out.
  bool detachOnCompletion(Completion completion);
  // The same for callers that only wait for the end.
  bool detachOnCompletion(std::function<void()> completion);
  // Sets the flag; the detach itself runs on.
  void cancel();
  bool isCancelled() const { return cancelled_; }

  // The common filter: notifications for another "file" are ignored, as are
  // ones whose "index" or "count" is not an unsigned number (with a log line).
  void handlePlexaExtractSymbolNotification(const PXNotification& notification,
                                            const std::function<void(uint64_t index, uint64_t count)>& handle);
  void handlePlexaExtractSymbolDetacherWillDetachNotification(const PXNotification& notification);
  void handlePlexaExtractSymbolDetacherProgressNotification(const PXNotification& notification);
  void handlePlexaExtractSymbolDetacherDidDetachNotification(const PXNotification& notification);
  void symbolDetacherWillDetach(uint64_t index, uint64_t count);
  void symbolDetacherProgress(uint64_t index, uint64_t count);
  void symbolDetacherDidDetach(uint64_t index, uint64_t count);

  // True while an asynchronous detach waits for its did-detach notification.
  bool isDetaching();

  std::string sketchFilePath;
  std::optional<std::string> saveAsPath;
  bool closeAfterDetach = false;
  bool saveAfterDetach = false;
  bool restoreAfterDetach = false;
  std::optional<std::string> detachMethod;
  std::vector<std::string> detachingArtboardIds;
  std::string sketchToolPath;
  bool async = true;
  std::weak_ptr<PXSymbolDetacherDelegate> delegate;
  std::shared_ptr<PXSketchLauncher> sketchLauncher;

 private:
  PXSymbolDetacher() = default;
  void registerObservers();
  JsonObject configuration() const;
  void documentOpened(bool found, const std::string& configPath, Completion completion);
  void reportProgress(uint64_t index, uint64_t count);

  std::atomic<bool> cancelled_{false};
  // Guards the two fields of a running asynchronous detach.
  std::mutex stateMutex_;
  Completion symbolDetacherCompletionBlock_;
  std::optional<std::string> tempConfigFilePath_;
  std::vector<PXNotificationObserver> observers_;
};

}  // namespace plexa
