#pragma once
// Hands a document to the Anima plug-in running inside Sketch for a detached
// copy, and reports whether the copy it announces exists.

#include "Notifications.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

// The request: no object; user info "fileName", "artboardIDs" (array, empty
// when none), "outputFilePath".
inline constexpr const char* MPSyncAnimaExporterExportNotification = "MPSyncAnimaExporterExportNotification";
// The answer: any object; user info "outputFilePath".
inline constexpr const char* MPSyncAnimaExporterFinishNotification = "MPSyncAnimaExporterFinishNotification";

class PXAnimaDetacher : public std::enable_shared_from_this<PXAnimaDetacher> {
 public:
  static std::shared_ptr<PXAnimaDetacher> make();
  ~PXAnimaDetacher();
  PXAnimaDetacher(const PXAnimaDetacher&) = delete;
  PXAnimaDetacher& operator=(const PXAnimaDetacher&) = delete;

  // Called on the main queue with whether the answered file exists, for every
  // answer that arrives: it is kept after use. There is no time-out.
  void setCompletion(std::function<void(bool success)> completion);

  // Posts the request, then starts observing answers (one more observation
  // per request).
  void detachSketchFile(const std::string& sketchFile, const std::optional<std::vector<std::string>>& artboardIDs,
                        const std::string& outputFilePath, std::function<void(bool success)> onCompletion);

  void handleFinishDetachNotification(const PXNotification& notification);

 private:
  PXAnimaDetacher() = default;

  std::mutex mutex_;
  std::function<void(bool)> completion_;
  std::vector<PXNotificationObserver> observers_;
};

}  // namespace plexa
