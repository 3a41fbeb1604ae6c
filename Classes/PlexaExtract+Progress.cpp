// The extractor's progress model: five weighted processes whose counts are
// kept, and reported to the host, on the main thread only.
#include "PlexaExtract.h"

#include "MainQueue.h"

#include <algorithm>
#include <array>

namespace plexa {

namespace {
constexpr std::array<double, 6> kWeights{0.2, 0.1, 0.5, 0.05, 0.15, 0.0};
}  // namespace

std::optional<std::string> PlexaExtract::titleForProcess(int64_t process) {
  switch (process) {
    case PlexaExtractProcessDetachingSymbols: return "Detaching Symbols (1/5)";
    case PlexaExtractProcessInspectData: return "Exporting Inspect Data (2/5)";
    case PlexaExtractProcessArtboards: return "Exporting Artboards (4/5)";
    case PlexaExtractProcessHotspots: return "Exporting Prototype Hotspots (3/5)";
    case PlexaExtractProcessAssets: return "Exporting Assets (5/5)";
    default: return std::nullopt;
  }
}

double PlexaExtract::weightForProcess(int64_t process) {
  if (process < 0 || process >= static_cast<int64_t>(kWeights.size())) return 0.0;
  return kWeights[static_cast<size_t>(process)];
}

double PlexaExtract::progressForProcess(int64_t process) const {
  double progress = 0;
  if (process == PlexaExtractProcessDetachingSymbols) {
    progress = detachSymbolProcess_;
  } else if (progressCount_ >= 1) {
    auto it = processProgress_.find(process);
    double done = it == processProgress_.end() ? 0.0 : static_cast<double>(it->second);
    progress = done / static_cast<double>(progressCount_.load());
  }
  return std::min(progress, 1.0);
}

void PlexaExtract::updateProgressForProcess(PlexaExtractProcess process) {
  if (!progressBlock) return;
  if (!PXMainQueue::shared().isMainThread()) {
    PXMainQueue::shared().async([weak = weak_from_this(), process] {
      if (auto self = weak.lock()) self->updateProgressOnMain(process);
    });
    return;
  }
  updateProgressOnMain(process);
}

void PlexaExtract::completeProcess(PlexaExtractProcess process) {
  if (!progressBlock) return;
  if (!PXMainQueue::shared().isMainThread()) {
    PXMainQueue::shared().async([weak = weak_from_this(), process] {
      if (auto self = weak.lock()) self->completeProcessOnMain(process);
    });
    return;
  }
  completeProcessOnMain(process);
}

void PlexaExtract::updateProgressOnMain(int64_t process) {
  if (process != PlexaExtractProcessDetachingSymbols) ++processProgress_[process];
  alertProcessCallback(process);
}

void PlexaExtract::completeProcessOnMain(int64_t process) {
  if (process == PlexaExtractProcessDetachingSymbols) {
    detachSymbolProcess_ = 1.0;
  } else {
    processProgress_[process] = progressCount_;
  }
  alertProcessCallback(process);
}

void PlexaExtract::alertProcessCallback(int64_t process) {
  if (!progressBlock) return;
  double total = 0;
  for (int64_t p = 0; p <= PlexaExtractProcessAssets; ++p) total += progressForProcess(p) * weightForProcess(p);
  progressBlock(static_cast<PlexaExtractProcess>(process), progressForProcess(process), total);
}

void PlexaExtract::sketchUnzipper(PXSketchUnzipper&, uint64_t progress, uint64_t count) {
  if (detachProgressBlock) detachProgressBlock(progress, count);
  if (count == 0 || !progressBlock) return;
  PXMainQueue::shared().async([weak = weak_from_this(), progress, count] {
    auto self = weak.lock();
    if (!self) return;
    self->detachSymbolProcess_ = static_cast<double>(progress) / static_cast<double>(count);
    self->updateProgressOnMain(PlexaExtractProcessDetachingSymbols);
  });
}

}  // namespace plexa
