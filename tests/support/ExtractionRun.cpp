#include "ExtractionRun.h"

#include <algorithm>

namespace plexa::test {

bool ExtractionOutcome::lists(const std::string& name) const {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::shared_ptr<ExtractionOutcome> startExtraction(const std::shared_ptr<PlexaExtract>& extractor,
                                                   const std::optional<std::vector<std::string>>& ids,
                                                   uint64_t options, bool withProgress) {
  auto outcome = std::make_shared<ExtractionOutcome>();
  if (withProgress) {
    extractor->progressBlock = [outcome](PlexaExtractProcess process, double, double total) {
      outcome->progress.emplace_back(process, total);
    };
  }
  auto completion = [outcome](const std::vector<std::string>& names, const std::optional<PXError>& error) {
    outcome->called = true;
    outcome->names = names;
    outcome->error = error;
  };
  extractor->startExtractionForArtboardIDs(ids, 1.0, options, nullptr, completion);
  return outcome;
}

}  // namespace plexa::test
