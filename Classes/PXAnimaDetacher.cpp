#include "PXAnimaDetacher.h"

#include "Files.h"
#include "Json.h"
#include "Log.h"

namespace plexa {

std::shared_ptr<PXAnimaDetacher> PXAnimaDetacher::make() {
  return std::shared_ptr<PXAnimaDetacher>(new PXAnimaDetacher());
}

PXAnimaDetacher::~PXAnimaDetacher() = default;

void PXAnimaDetacher::setCompletion(std::function<void(bool)> completion) {
  std::lock_guard lock(mutex_);
  completion_ = std::move(completion);
}

void PXAnimaDetacher::detachSketchFile(const std::string& sketchFile,
                                       const std::optional<std::vector<std::string>>& artboardIDs,
                                       const std::string& outputFilePath, std::function<void(bool)> onCompletion) {
  setCompletion(std::move(onCompletion));

  JsonArray ids;
  if (artboardIDs)
    for (const auto& id : *artboardIDs) ids.emplace_back(id);
  JsonObject userInfo{{"fileName", sketchFile}, {"artboardIDs", std::move(ids)}, {"outputFilePath", outputFilePath}};
  auto center = PXDistributedNotificationCenter::defaultCenter();
  center->postNotificationName(MPSyncAnimaExporterExportNotification, std::nullopt, userInfo);

  // Observed only after the request went out, one observation per request.
  auto observer = center->addObserver(MPSyncAnimaExporterFinishNotification, std::nullopt,
                                      [weak = weak_from_this()](const PXNotification& note) {
                                        if (auto self = weak.lock()) self->handleFinishDetachNotification(note);
                                      });
  std::lock_guard lock(mutex_);
  observers_.push_back(std::move(observer));
}

void PXAnimaDetacher::handleFinishDetachNotification(const PXNotification& notification) {
  const JsonValue userInfo = notification.userInfo ? JsonValue(*notification.userInfo) : JsonValue();
  auto outputFilePath = PXJsonTextFor(&userInfo, "outputFilePath");
  if (!outputFilePath) {
    PXLogWarn("Ignoring {}: its user info has no \"outputFilePath\" text", notification.name);
    return;
  }
  bool success = PXFileManager::fileExists(std::string(*outputFilePath));
  std::function<void(bool)> completion;
  {
    std::lock_guard lock(mutex_);
    completion = completion_;
  }
  if (completion) completion(success);
}

}  // namespace plexa
