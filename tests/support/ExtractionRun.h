#pragma once
// One extraction started from a test, and what its completion and progress
// reports said.

#include "PlexaExtract.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace plexa::test {

struct ExtractionOutcome {
  bool called = false;
  std::vector<std::string> names;
  std::optional<PXError> error;
  std::vector<std::pair<int64_t, double>> progress;  // (process, total)

  bool lists(const std::string& name) const;
};

// Starts `extractor` at scale 1; with `withProgress` its progress is recorded.
std::shared_ptr<ExtractionOutcome> startExtraction(const std::shared_ptr<PlexaExtract>& extractor,
                                                   const std::optional<std::vector<std::string>>& ids,
                                                   uint64_t options, bool withProgress = true);

}  // namespace plexa::test
