#pragma once
// The folder the user named with -o: checked, emptied on request, created
// when missing, and recorded in the run's footprint so that a failed or
// stopped run leaves it as it was.

#include <optional>
#include <string>

namespace plexa::cli {

struct OutputFolder {
  std::string path;            // absolute and normal: every "fullPath" starts with it
  bool existedBefore = false;  // false: this run made it (and maybe parents)
  std::string createdRoot;     // the topmost folder this run made, "" when none
};

// The problem with `folder` as an output folder, in words, or the prepared
// folder. A non-empty folder is refused unless `overwrite` is set, which
// empties it first, but never when it holds `inputDocument` (or is the
// root or the home folder).
struct OutputFolderResult {
  std::optional<OutputFolder> folder;
  std::string problem;
};
OutputFolderResult prepareOutputFolder(const std::string& folder, bool overwrite, const std::string& inputDocument);

// The absolute, lexically normal form of a path, without a trailing "/".
std::string absolutePath(const std::string& path);

}  // namespace plexa::cli
