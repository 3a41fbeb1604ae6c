#include "ProgressReporter.h"

#include "Json.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace plexa::cli {

ProgressStyle progressStyleFromName(const std::string& name, bool stderrIsTerminal) {
  if (name == "bar") return ProgressStyle::bar;
  if (name == "json") return ProgressStyle::json;
  if (name == "none") return ProgressStyle::none;
  return stderrIsTerminal ? ProgressStyle::bar : ProgressStyle::none;
}

void ProgressReporter::report(int64_t process, const std::string& title, double processProgress, double total) {
  switch (style_) {
    case ProgressStyle::none: return;
    case ProgressStyle::json: {
      JsonObject line{{"process", process}, {"title", title}, {"processProgress", processProgress}, {"total", total}};
      fmt::print("{}\n", PXJsonSerialize(line, false).value_or("{}"));
      std::fflush(stdout);
      return;
    }
    case ProgressStyle::bar: {
      constexpr int width = 30;
      int filled = static_cast<int>(std::lround(std::clamp(total, 0.0, 1.0) * width));
      fmt::print(stderr, "\r[{}{}] {:3.0f}%  {:<36}", std::string(filled, '#'), std::string(width - filled, ' '),
                 total * 100, title);
      std::fflush(stderr);
      drewBar_ = true;
      return;
    }
  }
}

void ProgressReporter::finish() {
  if (drewBar_) fmt::print(stderr, "\n");
  drewBar_ = false;
}

}  // namespace plexa::cli
