#include "ConsoleLog.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <regex>

namespace plexa::cli {

namespace {

constexpr const char* kRed = "\x1b[31m";
constexpr const char* kYellow = "\x1b[33m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kReset = "\x1b[0m";

const char* nameOf(unsigned flag) {
  switch (flag) {
    case PXLogFlagError: return "error";
    case PXLogFlagWarning: return "warning";
    case PXLogFlagInfo: return "info";
    case PXLogFlagDebug: return "debug";
    default: return "trace";
  }
}

const char* colorOf(unsigned flag) {
  switch (flag) {
    case PXLogFlagError: return kRed;
    case PXLogFlagWarning: return kYellow;
    case PXLogFlagInfo: return "";
    default: return kDim;
  }
}

const char* baseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

std::string clockTime() {
  auto now = std::chrono::system_clock::now();
  auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  return fmt::format("{:%H:%M:%S}.{:03d}", fmt::localtime(std::chrono::system_clock::to_time_t(now)), millis);
}

}  // namespace

bool colorWanted(const std::string& choice, bool isTerminal, const char* noColorVariable) {
  if (choice == "always") return true;
  if (choice == "never") return false;
  bool noColor = noColorVariable && *noColorVariable;
  return isTerminal && !noColor;
}

ConsoleLog::ConsoleLog(int verbosity, bool color, Writer writer)
    : verbosity_(std::clamp(verbosity, int(kQuiet), int(kTrace))), color_(color), writer_(std::move(writer)) {}

ConsoleLog::~ConsoleLog() {
  if (!installed_) return;
  PXLogSetSink({});
  PXLogSetLevelMask(PXLogLevelWarning);
}

unsigned ConsoleLog::levelMaskFor(int verbosity) {
  switch (std::clamp(verbosity, int(kQuiet), int(kTrace))) {
    case kQuiet: return PXLogLevelError;
    case kNormal: return PXLogLevelWarning;
    case kInfo: return PXLogLevelInfo;
    case kDebug: return PXLogLevelDebug;
    default: return PXLogLevelVerbose;
  }
}

unsigned ConsoleLog::shownFlag(unsigned flag) { return flag == 0 ? unsigned(PXLogFlagDebug) : flag; }

void ConsoleLog::install() {
  PXLogSetLevelMask(levelMaskFor(verbosity_));
  PXLogSetSink([this](const PXLogRecord& record) { write(record); });
  installed_ = true;
}

std::optional<std::string> ConsoleLog::lineFor(const PXLogRecord& record) {
  unsigned flag = shownFlag(record.flag);
  if (demotions_ > 0 && (flag == PXLogFlagError || flag == PXLogFlagWarning)) flag = PXLogFlagDebug;
  if (!(levelMaskFor(verbosity_) & flag)) return std::nullopt;
  if (verbosity_ >= kDebug) return detailedLine(flag, record);
  if (flag == PXLogFlagError || flag == PXLogFlagWarning) {
    std::lock_guard lock(lock_);
    if (!shown_.emplace(flag, record.message).second) return std::nullopt;
  }
  return plainLine(flag, record.message);
}

void ConsoleLog::write(const PXLogRecord& record) {
  if (auto line = lineFor(record)) writer_(*line);
}

void ConsoleLog::writeChildLine(const std::string& line) {
  // "12:00:00.000 warning [RenderTypes.cpp:86 missingFont] font ..." as our
  // programs write it when nobody formats their log for them.
  static const std::regex logged(R"(^\d\d:\d\d:\d\d\.\d+ (\w+) (?:\[([^:\] ]+):(\d+) ([^\]]*)\] )?(.*)$)");
  std::smatch match;
  if (!std::regex_match(line, match, logged)) {
    write({PXLogFlagWarning, "", "", 0, line});
    return;
  }
  static const std::pair<const char*, unsigned> levels[] = {
      {"critical", PXLogFlagError}, {"error", PXLogFlagError}, {"warning", PXLogFlagWarning},
      {"info", PXLogFlagInfo},      {"debug", PXLogFlagDebug}, {"trace", PXLogFlagVerbose}};
  unsigned flag = PXLogFlagWarning;
  for (const auto& [name, levelFlag] : levels)
    if (match[1] == name) flag = levelFlag;
  std::string file = match[2], function = match[4], message = match[5];
  int lineNumber = match[3].matched ? std::stoi(match[3]) : 0;
  write({flag, file.c_str(), function.c_str(), lineNumber, message});
}

std::string ConsoleLog::label(unsigned flag) const {
  if (!color_) return nameOf(flag);
  return fmt::format("{}{}{}", colorOf(flag), nameOf(flag), kReset);
}

// What a user reads: the level only where it matters, then the message.
std::string ConsoleLog::plainLine(unsigned flag, const std::string& message) const {
  if (flag == PXLogFlagError || flag == PXLogFlagWarning) return fmt::format("{}: {}", label(flag), message);
  return message;
}

// What a developer reads: time, level, and where the line was logged.
std::string ConsoleLog::detailedLine(unsigned flag, const PXLogRecord& record) const {
  std::string where = record.line > 0
                          ? fmt::format(" [{}:{} {}]", baseName(record.file), record.line, record.function)
                          : std::string();
  return fmt::format("{} {}{} {}", clockTime(), label(flag), where, record.message);
}

}  // namespace plexa::cli
