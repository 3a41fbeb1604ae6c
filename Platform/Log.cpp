#include "Log.h"

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace plexa {

namespace {

std::atomic<unsigned> gLevelMask{PXLogLevelWarning};
std::atomic<bool> gHasObserver{false};

std::mutex& observerMutex() {
  static std::mutex m;
  return m;
}

PXLogObserver& observer() {
  static PXLogObserver o;
  return o;
}

spdlog::logger& logger() {
  static std::shared_ptr<spdlog::logger> l = [] {
    auto sink = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
    auto made = std::make_shared<spdlog::logger>("plexa", sink);
    made->set_pattern("%H:%M:%S.%e %^%l%$ %v");
    made->set_level(spdlog::level::trace);
    return made;
  }();
  return *l;
}

spdlog::level::level_enum levelFor(unsigned flag) {
  switch (flag) {
    case PXLogFlagError: return spdlog::level::err;
    case PXLogFlagWarning: return spdlog::level::warn;
    case PXLogFlagInfo: return spdlog::level::info;
    case PXLogFlagDebug: return spdlog::level::debug;
    default: return spdlog::level::trace;
  }
}

const char* baseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}

PXLogSink& sink() {
  static PXLogSink s;
  return s;
}

// False when no sink is set, so the standard writer takes the message.
bool sendToSink(const PXLogRecord& record) {
  std::lock_guard lock(sinkMutex());
  if (!sink()) return false;
  sink()(record);
  return true;
}

void notifyObserver(unsigned flag, const std::string& message) {
  std::lock_guard lock(observerMutex());
  if (observer()) observer()(flag, message);
}

}  // namespace

void PXLogSetLevelMask(unsigned mask) { gLevelMask = mask; }
unsigned PXLogLevelMask() { return gLevelMask; }
bool PXLogWanted(unsigned flag) { return (gLevelMask & flag) || gHasObserver; }

void PXLogSetObserver(PXLogObserver o) {
  std::lock_guard lock(observerMutex());
  gHasObserver = static_cast<bool>(o);
  observer() = std::move(o);
}

void PXLogSetSink(PXLogSink s) {
  std::lock_guard lock(sinkMutex());
  sink() = std::move(s);
}

void PXLogEmit(unsigned flag, const char* file, const char* function, int line, std::string message) {
  if ((gLevelMask & flag) && !sendToSink({flag, file, function, line, message}))
    logger().log(levelFor(flag), "[{}:{} {}] {}", baseName(file), line, function, message);
  notifyObserver(flag, message);
}

void PXNSLogEmit(std::string message) {
  if (!sendToSink({0, "", "", 0, message})) fmt::print(stderr, "{}\n", message);
  notifyObserver(0, message);
}

}  // namespace plexa
