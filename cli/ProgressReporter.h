#pragma once
// Shows the extractor's weighted progress: a bar on a terminal, or one JSON
// object per change for other programs.

#include <cstdint>
#include <string>

namespace plexa::cli {

enum class ProgressStyle { none, bar, json };

// "auto" is a bar on a terminal and nothing otherwise.
ProgressStyle progressStyleFromName(const std::string& name, bool stderrIsTerminal);

class ProgressReporter {
 public:
  explicit ProgressReporter(ProgressStyle style) : style_(style) {}
  void report(int64_t process, const std::string& title, double processProgress, double total);
  // Ends the bar's line so later output starts clean.
  void finish();

 private:
  ProgressStyle style_;
  bool drewBar_ = false;
};

}  // namespace plexa::cli
