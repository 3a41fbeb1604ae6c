#pragma once
// Shows the extractor's weighted progress: a bar on a terminal, or one JSON
// object per change for other programs, ending with a result event. Log
// lines pass through here so they land above the bar, never on its line.

#include "RunOutcome.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <functional>
#include <mutex>
#include <string>

namespace plexa::cli {

enum class ProgressStyle { none, bar, json };

// "auto" is a bar on a terminal and nothing otherwise.
ProgressStyle progressStyleFromName(const std::string& name, bool stderrIsTerminal);

// Where the reporter writes and what it asks of its surroundings; tests
// replace the terminal and the clock.
struct ProgressOutput {
  std::function<void(const std::string&)> writeTerminal;  // bar and log lines
  std::function<void(const std::string&)> writeEvents;    // JSON events
  std::function<int()> columns;
  std::function<std::chrono::steady_clock::time_point()> now;
};
// stderr, stdout, the terminal's width (TIOCGWINSZ, else COLUMNS, else 80), the steady clock.
ProgressOutput standardProgressOutput();

// "~1m 05s left", "~12s left".
std::string timeLeftText(double seconds);

class ProgressReporter {
 public:
  static constexpr std::chrono::milliseconds kRedrawInterval{100};

  explicit ProgressReporter(ProgressStyle style, ProgressOutput output = standardProgressOutput());
  // `itemCount` is the number of artboards of the run (0 while unknown).
  void report(int64_t process, const std::string& title, double processProgress, double total,
              int64_t itemCount = 0);
  // Prints a whole line (a log line) above the bar, which is then redrawn.
  void printLine(const std::string& line);
  // Ends the bar's line so later output starts clean.
  void finish();
  // The last JSON event: what the run did (nothing in other styles).
  void result(const RunOutcome& outcome);

  // The bar's line for the current state, fitted to `columns`.
  std::string barLine(int columns) const;

 private:
  void reportBar(bool forced);
  void reportJson(int64_t process, const std::string& title, double processProgress, bool forced);
  bool dueForRedraw(bool forced);
  void drawBar();
  void notePace(std::chrono::steady_clock::time_point now, double total);
  std::optional<double> secondsLeft() const;
  std::string tailFitting(size_t width, const std::string& counts, const std::string& estimate) const;

  ProgressStyle style_;
  ProgressOutput output_;
  mutable std::mutex lock_;
  bool drewBar_ = false;
  std::chrono::steady_clock::time_point started_{}, lastDraw_{};
  bool hasStarted_ = false, hasDrawn_ = false;
  // What the bar shows: the total never goes back.
  double shownTotal_ = 0;
  std::string title_;
  int64_t process_ = -1;
  double processProgress_ = 0;
  int64_t itemCount_ = 0;
  // (time, total) over the last seconds, for the estimate of the time left.
  std::deque<std::pair<std::chrono::steady_clock::time_point, double>> pace_;
};

}  // namespace plexa::cli
