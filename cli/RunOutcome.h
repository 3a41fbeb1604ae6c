#pragma once
// What one run of the host did, as the summary line, the exit code and the
// final progress event report it.

#include <cstddef>
#include <string>
#include <vector>

namespace plexa::cli {

// The host's exit codes; 128 + N is added when signal N ends the program.
enum ExitCode : int {
  kExitOK = 0,         // everything asked for was written
  kExitInput = 1,      // unusable input document or output folder, or a failed run
  kExitUsage = 2,      // bad arguments
  kExitPartial = 3,    // the run finished with items missing (named in the summary)
};
constexpr int kExitSignalBase = 128;

struct RunOutcome {
  int exitCode = kExitOK;
  size_t artboards = 0;       // artboards extracted
  size_t symbolMasters = 0;   // symbol masters among the extracted items
  size_t filesWritten = 0;
  std::string outputFolder;
  double seconds = 0;
  // One line per item that was asked for and is not there, e.g.
  // "image of artboard 1A2B… (Home)", "meta file 1A2B….json (disk full)".
  std::vector<std::string> missing;
  std::string error;  // set when the run failed as a whole
};

}  // namespace plexa::cli
