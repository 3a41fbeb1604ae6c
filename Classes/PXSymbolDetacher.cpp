#include "PXSymbolDetacher.h"

#include "Files.h"
#include "Json.h"
#include "Log.h"
#include "PXCommand.h"
#include "PXFileWriter.h"
#include "PXSketchLauncher.h"

#include <cmath>
#include <utility>

namespace plexa {

namespace {

constexpr const char* kAlreadyInProgress = "Detach already in progress";

// NSNumber's unsignedIntegerValue, minus its surprises: negative, fractional
// beyond truncation, non-finite and non-numeric values are refused.
std::optional<uint64_t> unsignedNumber(const JsonValue* value) {
  if (!value) return std::nullopt;
  if (value->is_uint64()) return value->as_uint64();
  if (value->is_int64()) {
    if (value->as_int64() < 0) return std::nullopt;
    return static_cast<uint64_t>(value->as_int64());
  }
  if (value->is_double()) {
    double d = value->as_double();
    if (!std::isfinite(d) || d < 0 || d >= 18446744073709551616.0) return std::nullopt;
    return static_cast<uint64_t>(d);
  }
  return std::nullopt;
}

// PXFileWriter reports only serialisation failures; reading the file back
// tells whether the plug-in will find this configuration.
bool writeConfigurationFile(const JsonObject& configuration, const std::string& path) {
  JsonValue value(configuration);
  if (!PXFileWriter::writeJSON(value, true, path)) return false;
  auto text = PXFileManager::readFile(path);
  auto written = text ? PXJsonParse(*text) : std::nullopt;
  return written && *written == value;
}

}  // namespace

std::shared_ptr<PXSymbolDetacher> PXSymbolDetacher::make() {
  std::shared_ptr<PXSymbolDetacher> detacher(new PXSymbolDetacher());
  detacher->registerObservers();
  detacher->sketchLauncher = PXSketchLauncher::make();
  detacher->async = true;
  return detacher;
}

PXSymbolDetacher::~PXSymbolDetacher() {
  if (!cancelled_) cancel();
}

void PXSymbolDetacher::registerObservers() {
  auto center = PXDistributedNotificationCenter::defaultCenter();
  auto forward = [weak = weak_from_this()](void (PXSymbolDetacher::*handler)(const PXNotification&)) {
    return [weak, handler](const PXNotification& note) {
      if (auto self = weak.lock()) ((*self).*handler)(note);
    };
  };
  std::optional<std::string> object(PXSymbolDetacherNotificationObject);
  observers_.push_back(
      center->addObserver(PlexaExtractSymbolDetacherWillDetachNotification, object,
                          forward(&PXSymbolDetacher::handlePlexaExtractSymbolDetacherWillDetachNotification)));
  observers_.push_back(
      center->addObserver(PlexaExtractSymbolDetacherProgressNotification, object,
                          forward(&PXSymbolDetacher::handlePlexaExtractSymbolDetacherProgressNotification)));
  observers_.push_back(
      center->addObserver(PlexaExtractSymbolDetacherDidDetachNotification, object,
                          forward(&PXSymbolDetacher::handlePlexaExtractSymbolDetacherDidDetachNotification)));
}

std::string PXSymbolDetacher::configurationFilePath() {
  return PXSketchLauncher::pluginPath() + "/Contents/Sketch/PXSymbolDetacher.json";
}

std::string PXSymbolDetacher::runCommand(const std::string& path, const std::vector<std::string>& arguments) {
  return PXCommand::runCommand(path, arguments);
}

void PXSymbolDetacher::cancel() { cancelled_ = true; }

bool PXSymbolDetacher::isDetaching() {
  std::lock_guard lock(stateMutex_);
  return static_cast<bool>(symbolDetacherCompletionBlock_);
}

JsonObject PXSymbolDetacher::configuration() const {
  JsonObject config{{"filePath", sketchFilePath},
                    {"closeAfterDetach", closeAfterDetach},
                    {"saveAfterDetach", saveAfterDetach},
                    {"restoreAfterDetach", restoreAfterDetach}};
  if (saveAsPath) config["saveAsPath"] = *saveAsPath;
  if (detachMethod) config["detachMethod"] = *detachMethod;
  if (!detachingArtboardIds.empty()) {
    JsonArray ids;
    for (const auto& id : detachingArtboardIds) ids.emplace_back(id);
    config["detachingArtboardIds"] = std::move(ids);
  }
  return config;
}

bool PXSymbolDetacher::detachOnCompletion(std::function<void()> completion) {
  return detachOnCompletion([completion = std::move(completion)](bool, const std::optional<std::string>&) {
    if (completion) completion();
  });
}

bool PXSymbolDetacher::detachOnCompletion(Completion completion) {
  // The stored block doubles as the "running" flag, so it is never empty.
  if (!completion) completion = [](bool, const std::optional<std::string>&) {};
  if (isDetaching()) {
    PXLogVerbose("{}", kAlreadyInProgress);
    completion(false, std::string(kAlreadyInProgress));
    return false;
  }
  std::string configPath = configurationFilePath();
  if (!writeConfigurationFile(configuration(), configPath)) {
    PXLogVerbose("PXSymbolDetacher: failed to write to {}", configPath);
  }
  sketchLauncher->sketchToolPath = sketchToolPath;
  sketchLauncher->openDocument(sketchFilePath, [weak = weak_from_this(), configPath, completion](bool found) {
    if (auto self = weak.lock()) self->documentOpened(found, configPath, completion);
  });
  return true;
}

// On the main queue, from the launcher's open answer. The detach command runs
// here and holds this thread until the tool returns.
void PXSymbolDetacher::documentOpened(bool found, const std::string& configPath, Completion completion) {
  if (!found) {
    PXFileManager::removeItem(configPath);
    std::string message = sketchLauncher->takeOpenFailure().value_or(fmt::format("failed to find file {}", sketchFilePath));
    PXLogVerbose("{}", message);
    completion(false, message);
    return;
  }
  std::string command = "detachDocument";
  if (async) {
    std::lock_guard lock(stateMutex_);
    symbolDetacherCompletionBlock_ = completion;
    tempConfigFilePath_ = configPath;
    command = "detachDocumentAsyncStart";
  }
  PXLogVerbose("Sketchtool: {}", command);
  std::string result = runCommand(sketchToolPath, {"run", PXSketchLauncher::pluginPath(), command});
  PXLogVerbose("result: {}", result);
  if (!async) {
    PXFileManager::removeItem(configPath);
    completion(true, std::nullopt);
  }
}

void PXSymbolDetacher::handlePlexaExtractSymbolNotification(
    const PXNotification& notification, const std::function<void(uint64_t, uint64_t)>& handle) {
  const JsonValue userInfo = notification.userInfo ? JsonValue(*notification.userInfo) : JsonValue();
  auto file = PXJsonTextFor(&userInfo, "file");
  if (!file) {
    PXLogWarn("Ignoring {}: its user info has no \"file\" text", notification.name);
    return;
  }
  if (*file != sketchFilePath) return;
  auto index = unsignedNumber(PXJsonFind(&userInfo, "index"));
  auto count = unsignedNumber(PXJsonFind(&userInfo, "count"));
  if (!index || !count) {
    PXLogWarn("Ignoring {} for {}: \"index\" and \"count\" must be unsigned numbers", notification.name, *file);
    return;
  }
  handle(*index, *count);
}

void PXSymbolDetacher::handlePlexaExtractSymbolDetacherWillDetachNotification(const PXNotification& notification) {
  handlePlexaExtractSymbolNotification(notification,
                                       [this](uint64_t index, uint64_t count) { symbolDetacherWillDetach(index, count); });
}

void PXSymbolDetacher::handlePlexaExtractSymbolDetacherProgressNotification(const PXNotification& notification) {
  handlePlexaExtractSymbolNotification(notification,
                                       [this](uint64_t index, uint64_t count) { symbolDetacherProgress(index, count); });
}

void PXSymbolDetacher::handlePlexaExtractSymbolDetacherDidDetachNotification(const PXNotification& notification) {
  handlePlexaExtractSymbolNotification(notification,
                                       [this](uint64_t index, uint64_t count) { symbolDetacherDidDetach(index, count); });
}

void PXSymbolDetacher::reportProgress(uint64_t index, uint64_t count) {
  if (auto target = delegate.lock()) target->symbolDetacher(*this, index, count);
}

void PXSymbolDetacher::symbolDetacherWillDetach(uint64_t index, uint64_t count) {
  PXLogVerbose("Detach started");
  reportProgress(index, count);
}

void PXSymbolDetacher::symbolDetacherProgress(uint64_t index, uint64_t count) {
  PXLogVerbose("Detach {} of {}", index, count);
  reportProgress(index, count);
}

void PXSymbolDetacher::symbolDetacherDidDetach(uint64_t index, uint64_t count) {
  PXLogVerbose("Detach Complete");
  reportProgress(index, count);

  // Taken at once, so a did-detach that arrives while the end command runs
  // finds the clean-up already under way.
  std::optional<std::string> configPath;
  {
    std::lock_guard lock(stateMutex_);
    configPath = std::exchange(tempConfigFilePath_, std::nullopt);
  }
  if (!configPath) {
    PXLogVerbose("Detach async cleanup already completed");
    return;
  }
  PXLogVerbose("Detach async cleanup started");
  std::string result = runCommand(sketchToolPath, {"run", PXSketchLauncher::pluginPath(), "detachDocumentAsyncEnd"});
  PXLogVerbose("result: {}", result);
  PXFileManager::removeItem(*configPath);
  PXLogVerbose("Detach async cleanup complete");

  Completion completion;
  {
    std::lock_guard lock(stateMutex_);
    completion = std::move(symbolDetacherCompletionBlock_);
    symbolDetacherCompletionBlock_ = nullptr;
  }
  if (completion) completion(true, std::nullopt);
}

}  // namespace plexa
