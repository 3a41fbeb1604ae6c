#pragma once
// One extraction as the host runs it: checks what the user gave, runs the
// extractor with the user's folder as its output folder (its temp folder
// elsewhere), waits on the main queue, checks what was written and says
// what happened. A run that fails leaves the output folder as it was.

#include "ConsoleLog.h"
#include "Options.h"
#include "ProgressReporter.h"
#include "RunOutcome.h"

#include <cstdint>

namespace plexa::cli {

// The extractor's option bits for the stages the user asked for (all when
// none is named).
uint64_t exportOptionsFor(const Options& options);

// `log`, when given, keeps quiet about a missing sketchtool in runs that do
// not need one.
RunOutcome runExtraction(const Options& options, ProgressReporter& reporter, ConsoleLog* log = nullptr);

}  // namespace plexa::cli
