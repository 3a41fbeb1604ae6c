#pragma once
// The lines a run ends with, in words, from what the run did.

#include "RunOutcome.h"

#include <string>

namespace plexa::cli {

// "10 artboards and 474 symbol masters", "1 artboard", "no artboards".
std::string itemsText(size_t artboards, size_t symbolMasters);

// The summary: what was extracted and where, then one line per missing item;
// or, for a failed run, the error. Every line ends with a newline.
std::string summaryText(const RunOutcome& outcome);

}  // namespace plexa::cli
