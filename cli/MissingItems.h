#pragma once
// After a run: what must exist in the output folder for each artboard of the
// run and each stage asked for, checked on disk, so that any failure that
// went unreported on the way is still found and named.

#include <map>
#include <set>
#include <string>
#include <vector>

namespace plexa::cli {

struct ExpectedOutput {
  std::string folder;
  std::vector<std::string> artboardIDs;
  std::map<std::string, std::string> names;  // artboard ID → name, for the report
  bool meta = false, images = false, hotspots = false, assets = false;
  // Artboards the meta export leaves out on purpose (names starting "-").
  bool excludeIgnored = false;
};

// One line per missing item, e.g. "image of artboard 1A2B (Home)",
// "asset 1A2B/Page/Home/icon.png (Home)"; empty when everything is there.
std::vector<std::string> missingItems(const ExpectedOutput& expected);

// Whether the file system holding `folder` has no room left.
bool diskIsFull(const std::string& folder);

}  // namespace plexa::cli
