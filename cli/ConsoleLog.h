#pragma once
// The host's log sink: decides which library log lines the user sees at the
// chosen verbosity and how they read, and hands each line to a writer (the
// progress display, which prints it above the bar).

#include "Log.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace plexa::cli {

// -q, default, -v, -vv, -vvv.
enum Verbosity : int { kQuiet = -1, kNormal = 0, kInfo = 1, kDebug = 2, kTrace = 3 };

// Colour on when asked for, or on a terminal unless NO_COLOR is set and not empty.
bool colorWanted(const std::string& choice, bool isTerminal, const char* noColorVariable);

class ConsoleLog {
 public:
  using Writer = std::function<void(const std::string& line)>;

  ConsoleLog(int verbosity, bool color, Writer writer);
  ~ConsoleLog();
  ConsoleLog(const ConsoleLog&) = delete;
  ConsoleLog& operator=(const ConsoleLog&) = delete;

  // The library's flags this verbosity may show.
  static unsigned levelMaskFor(int verbosity);
  // The flag a line is shown at: plain system log lines are the exporter's
  // progress notes, debug output.
  static unsigned shownFlag(unsigned flag);

  // Routes the library's log to this object until it is destroyed.
  void install();
  // The text to show for a record, or nothing when it is below the level or
  // (below -vv) an error or warning already shown.
  std::optional<std::string> lineFor(const PXLogRecord& record);
  void write(const PXLogRecord& record);
  // A line a child process (sketchtool) wrote to its error output: one of our
  // own programs' log lines is shown by its level, anything else as a warning.
  void writeChildLine(const std::string& line);

  // While one is alive, errors and warnings count as debug output: the host
  // holds one around steps whose failures the run does not depend on.
  class Demotion {
   public:
    explicit Demotion(ConsoleLog& log) : log_(log) { ++log_.demotions_; }
    ~Demotion() { --log_.demotions_; }
    Demotion(const Demotion&) = delete;
    Demotion& operator=(const Demotion&) = delete;

   private:
    ConsoleLog& log_;
  };

 private:
  std::string plainLine(unsigned flag, const std::string& message) const;
  std::string detailedLine(unsigned flag, const PXLogRecord& record) const;
  std::string label(unsigned flag) const;

  int verbosity_;
  bool color_;
  Writer writer_;
  bool installed_ = false;
  std::atomic<int> demotions_{0};
  std::mutex lock_;
  std::set<std::pair<unsigned, std::string>> shown_;
};

}  // namespace plexa::cli
