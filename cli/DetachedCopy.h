#pragma once
// --save-detached: the input document with every symbol detached, written
// to a new path. Never over the input itself; written beside the target
// and moved into place only once it is a complete document.

#include "Options.h"

#include <string>

namespace plexa::cli {

struct DetachedCopyResult {
  int exitCode = 0;
  std::string message;  // one line for stderr, without the program name
};

DetachedCopyResult saveDetachedCopy(const Options& options);

// What is wrong with `target` as the place for a copy of `input`, or "".
std::string detachedTargetProblem(const std::string& input, const std::string& target);

}  // namespace plexa::cli
