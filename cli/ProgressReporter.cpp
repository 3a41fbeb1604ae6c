#include "ProgressReporter.h"

#include "Json.h"
#include "Terminal.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace plexa::cli {

namespace {

constexpr const char* kClearToEnd = "\x1b[K";
constexpr int kWidestBar = 30, kNarrowestBar = 10;
// The estimate follows the pace of the last seconds (stages differ widely in
// pace), and says nothing until it has seen a little of it.
constexpr auto kPaceWindow = std::chrono::seconds(20);
constexpr double kEstimateAfterSeconds = 2;

double rounded(double value) { return std::round(value * 10000) / 10000; }

size_t columnsOf(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

// Cuts text to `columns` display columns, marking the cut with an ellipsis.
std::string fitted(const std::string& text, size_t columns) {
  if (columnsOf(text) <= columns) return text;
  if (columns == 0) return {};
  std::string out;
  size_t used = 0;
  for (char c : text) {
    bool starts = (c & 0xC0) != 0x80;
    if (starts && ++used > columns - 1) break;
    out += c;
  }
  return out + "…";
}

std::string joined(std::initializer_list<std::string> parts) {
  std::string out;
  for (const auto& part : parts) {
    if (part.empty()) continue;
    if (!out.empty()) out += "  ";
    out += part;
  }
  return out;
}

}  // namespace

ProgressStyle progressStyleFromName(const std::string& name, bool stderrIsTerminal) {
  if (name == "bar") return ProgressStyle::bar;
  if (name == "json") return ProgressStyle::json;
  if (name == "none") return ProgressStyle::none;
  return stderrIsTerminal ? ProgressStyle::bar : ProgressStyle::none;
}

ProgressOutput standardProgressOutput() {
  return {[](const std::string& text) {
            std::fputs(text.c_str(), stderr);
            std::fflush(stderr);
          },
          [](const std::string& text) {
            std::fputs(text.c_str(), stdout);
            std::fflush(stdout);
          },
          [] { return PXTerminalColumns(PXStandardStream::error); }, [] { return std::chrono::steady_clock::now(); }};
}

std::string timeLeftText(double seconds) {
  auto whole = static_cast<int64_t>(std::ceil(std::max(seconds, 0.0)));
  if (whole < 60) return fmt::format("~{}s left", whole);
  if (whole < 3600) return fmt::format("~{}m {:02}s left", whole / 60, whole % 60);
  return fmt::format("~{}h {:02}m left", whole / 3600, whole % 3600 / 60);
}

ProgressReporter::ProgressReporter(ProgressStyle style, ProgressOutput output)
    : style_(style), output_(std::move(output)) {}

void ProgressReporter::report(int64_t process, const std::string& title, double processProgress, double total,
                              int64_t itemCount) {
  if (style_ == ProgressStyle::none) return;
  std::lock_guard lock(lock_);
  auto now = output_.now();
  if (!hasStarted_) started_ = now, hasStarted_ = true;
  notePace(now, std::clamp(total, 0.0, 1.0));
  // A process that finishes, or one that begins, is always shown.
  bool forced = process != process_ || processProgress >= 1.0 || total >= 1.0;
  shownTotal_ = std::max(shownTotal_, std::clamp(total, 0.0, 1.0));
  process_ = process;
  title_ = title;
  processProgress_ = std::clamp(processProgress, 0.0, 1.0);
  if (itemCount > 0) itemCount_ = itemCount;
  if (style_ == ProgressStyle::bar) reportBar(forced);
  else reportJson(process, title, processProgress, forced);
}

bool ProgressReporter::dueForRedraw(bool forced) {
  auto now = output_.now();
  if (!forced && hasDrawn_ && now - lastDraw_ < kRedrawInterval) return false;
  lastDraw_ = now;
  hasDrawn_ = true;
  return true;
}

void ProgressReporter::reportBar(bool forced) {
  if (dueForRedraw(forced)) drawBar();
}

void ProgressReporter::drawBar() {
  output_.writeTerminal("\r" + barLine(output_.columns()) + kClearToEnd);
  drewBar_ = true;
}

void ProgressReporter::reportJson(int64_t process, const std::string& title, double processProgress, bool forced) {
  double total = rounded(shownTotal_);
  if (!dueForRedraw(forced)) return;
  JsonObject event{{"event", "progress"},
                   {"process", process},
                   {"title", title},
                   {"processProgress", rounded(processProgress)},
                   {"total", total}};
  output_.writeEvents(PXJsonSerialize(event, false).value_or("{}") + "\n");
}

std::string ProgressReporter::barLine(int columns) const {
  // The last column stays empty: writing into it makes some terminals wrap.
  size_t width = static_cast<size_t>(std::max(columns - 1, 8));
  std::string percent = fmt::format("{:3.0f}%", std::floor(shownTotal_ * 100 + 1e-9));
  // Inspect data, images and hotspots count artboards; assets count layer
  // files against the artboards, which says nothing a user can read.
  std::string counts;
  bool countsArtboards = process_ >= 1 && process_ <= 3;
  if (countsArtboards && itemCount_ > 0)
    counts = fmt::format("{}/{}", std::lround(processProgress_ * double(itemCount_)), itemCount_);
  std::string estimate;
  if (auto seconds = secondsLeft()) estimate = timeLeftText(*seconds);
  std::string tail = tailFitting(width, counts, estimate);

  // The bar gives way to the words, down to its narrowest.
  int barWidth =
      std::clamp(static_cast<int>(width) - 7 - static_cast<int>(columnsOf(tail)) - 1, kNarrowestBar, kWidestBar);
  if (width < percent.size() + 3 + kNarrowestBar) return fitted(percent + " " + tail, width);
  int filled = static_cast<int>(std::floor(shownTotal_ * barWidth + 1e-9));
  std::string line = fmt::format("{} [{}{}]", percent, std::string(filled, '#'), std::string(barWidth - filled, ' '));
  if (!tail.empty()) line += " " + fitted(tail, width - columnsOf(line) - 1);
  return line;
}

void ProgressReporter::notePace(std::chrono::steady_clock::time_point now, double total) {
  if (!pace_.empty() && now - pace_.back().first < kRedrawInterval) return;
  pace_.emplace_back(now, std::max(total, pace_.empty() ? 0.0 : pace_.back().second));
  while (pace_.size() > 2 && now - pace_[1].first >= kPaceWindow) pace_.pop_front();
}

std::optional<double> ProgressReporter::secondsLeft() const {
  if (pace_.size() < 2 || shownTotal_ >= 1) return std::nullopt;
  const auto& [since, from] = pace_.front();
  double seconds = std::chrono::duration<double>(pace_.back().first - since).count();
  double done = pace_.back().second - from;
  if (seconds < kEstimateAfterSeconds || done <= 0) return std::nullopt;
  return (1 - shownTotal_) * seconds / done;
}

// The words after the bar, from the fullest form down to the shortest that
// fits: the title loses its verb and the counts their noun before the stage
// name goes.
std::string ProgressReporter::tailFitting(size_t width, const std::string& counts, const std::string& estimate) const {
  std::string shortTitle = title_.rfind("Exporting ", 0) == 0 ? title_.substr(10) : title_;
  std::string countedArtboards = counts.empty() ? counts : counts + " artboards";
  size_t room = width > 7 + kNarrowestBar + 1 ? width - 7 - kNarrowestBar - 1 : 0;
  for (const auto& tail :
       {joined({countedArtboards, estimate, title_}), joined({countedArtboards, estimate, shortTitle}),
        joined({counts, estimate, shortTitle}), joined({counts, shortTitle}), joined({counts, estimate})})
    if (columnsOf(tail) <= room) return tail;
  return joined({counts, shortTitle});
}

void ProgressReporter::printLine(const std::string& line) {
  std::lock_guard lock(lock_);
  if (style_ != ProgressStyle::bar || !drewBar_) {
    output_.writeTerminal(line + "\n");
    return;
  }
  output_.writeTerminal(std::string("\r") + kClearToEnd + line + "\n");
  drawBar();
}

void ProgressReporter::finish() {
  std::lock_guard lock(lock_);
  if (!drewBar_) return;
  drawBar();  // the last state may have come between two redraws
  output_.writeTerminal("\n");
  drewBar_ = false;
}

void ProgressReporter::result(const RunOutcome& outcome) {
  if (style_ != ProgressStyle::json) return;
  JsonArray missing;
  for (const auto& item : outcome.missing) missing.emplace_back(item);
  JsonObject event{{"event", "result"},
                   {"exitCode", outcome.exitCode},
                   {"artboards", static_cast<int64_t>(outcome.artboards)},
                   {"symbolMasters", static_cast<int64_t>(outcome.symbolMasters)},
                   {"filesWritten", static_cast<int64_t>(outcome.filesWritten)},
                   {"outputFolder", outcome.outputFolder},
                   {"seconds", rounded(outcome.seconds)},
                   {"missing", std::move(missing)}};
  if (!outcome.error.empty()) event["error"] = outcome.error;
  std::lock_guard lock(lock_);
  output_.writeEvents(PXJsonSerialize(event, false).value_or("{}") + "\n");
}

}  // namespace plexa::cli
