#include "Summary.h"

#include <fmt/format.h>

namespace plexa::cli {

namespace {

std::string counted(size_t n, const char* one, const char* many) {
  return fmt::format("{} {}", n, n == 1 ? one : many);
}

}  // namespace

std::string itemsText(size_t artboards, size_t symbolMasters) {
  if (artboards == 0 && symbolMasters == 0) return "no artboards";
  std::string boards = counted(artboards, "artboard", "artboards");
  std::string masters = counted(symbolMasters, "symbol master", "symbol masters");
  if (symbolMasters == 0) return boards;
  if (artboards == 0) return masters;
  return boards + " and " + masters;
}

std::string summaryText(const RunOutcome& outcome) {
  if (!outcome.error.empty()) return fmt::format("plexa-extract: {}\n", outcome.error);
  std::string text = fmt::format("Extracted {}: {} written to {} in {:.2f} s\n",
                                 itemsText(outcome.artboards, outcome.symbolMasters),
                                 counted(outcome.filesWritten, "file", "files"), outcome.outputFolder, outcome.seconds);
  if (outcome.missing.empty()) return text;
  text += fmt::format("{} missing:\n", counted(outcome.missing.size(), "item is", "items are"));
  for (const auto& item : outcome.missing) text += "  " + item + "\n";
  return text;
}

}  // namespace plexa::cli
