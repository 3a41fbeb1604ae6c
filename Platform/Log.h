#pragma once
// The logging facade: a flag per message (error, warning, info, debug,
// verbose), one process-wide level mask, and the source location.

#include <fmt/format.h>

#include <functional>
#include <string>
#include <string_view>

namespace plexa {

enum PXLogFlag : unsigned {
  PXLogFlagError = 1,
  PXLogFlagWarning = 2,
  PXLogFlagInfo = 4,
  PXLogFlagDebug = 8,
  PXLogFlagVerbose = 16,
};

enum PXLogLevel : unsigned {
  PXLogLevelOff = 0,
  PXLogLevelError = 1,
  PXLogLevelWarning = 3,
  PXLogLevelInfo = 7,
  PXLogLevelDebug = 15,
  PXLogLevelVerbose = 31,
};

// Messages whose flag is not in the mask are not written to stderr.
void PXLogSetLevelMask(unsigned mask);
unsigned PXLogLevelMask();
// True when a message of this flag would go anywhere (mask or observer), so
// formatting can be skipped otherwise.
bool PXLogWanted(unsigned flag);

// An observer sees every message, whatever the mask (tests, hosts that show
// logs). Pass an empty function to remove it.
using PXLogObserver = std::function<void(unsigned flag, const std::string& message)>;
void PXLogSetObserver(PXLogObserver observer);

// One message with where it was logged, for a host that formats lines itself.
struct PXLogRecord {
  unsigned flag;  // 0 for the plain system log
  const char* file;
  const char* function;
  int line;
  const std::string& message;
};
// A sink replaces the standard stderr writer: messages whose flag is in the
// mask, and every plain system log line, go to it instead. Called on the
// logging thread. Pass an empty function to restore the standard writer.
using PXLogSink = std::function<void(const PXLogRecord& record)>;
void PXLogSetSink(PXLogSink sink);

void PXLogEmit(unsigned flag, const char* file, const char* function, int line, std::string message);
// The plain system log: always written to stderr, and seen by the observer
// with flag 0.
void PXNSLogEmit(std::string message);

}  // namespace plexa

#define PXLog(flag, ...)                                                                   \
  do {                                                                                     \
    if (::plexa::PXLogWanted(flag))                                                \
      ::plexa::PXLogEmit((flag), __FILE__, __func__, __LINE__, ::fmt::format(__VA_ARGS__)); \
  } while (0)

#define PXLogError(...) PXLog(::plexa::PXLogFlagError, __VA_ARGS__)
#define PXLogWarn(...) PXLog(::plexa::PXLogFlagWarning, __VA_ARGS__)
#define PXLogInfo(...) PXLog(::plexa::PXLogFlagInfo, __VA_ARGS__)
#define PXLogDebug(...) PXLog(::plexa::PXLogFlagDebug, __VA_ARGS__)
#define PXLogVerbose(...) PXLog(::plexa::PXLogFlagVerbose, __VA_ARGS__)
#define PXNSLog(...) ::plexa::PXNSLogEmit(::fmt::format(__VA_ARGS__))
