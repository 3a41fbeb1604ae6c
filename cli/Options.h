#pragma once
// The host's command line: what the user asked for, parsed and checked before
// anything runs.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <variant>
#include <vector>

namespace plexa::cli {

struct Options {
  std::string input;
  std::string output;
  std::vector<std::string> artboards;
  double scale = 1;
  bool meta = false, images = false, assets = false, hotspots = false;
  bool excludeIgnored = false;
  std::string detach = "json";
  bool pretty = false;
  bool stableIds = false;
  std::string sketchtool;
  uint64_t maxConcurrent = 0, batchSize = 0;  // 0: the library's default
  std::string progress = "auto";
  std::string color = "auto";
  int verbosity = 0;  // -1 with -q, 1..3 with -v, -vv, -vvv
  bool listArtboards = false;
  std::string saveDetached;
  bool overwrite = false;  // empty a non-empty output folder first
  double detachTimeout = 120;
};

// The options, or the exit code to end with at once (help and version are
// printed to `out` and give 0; usage errors go to `err` and give 2).
std::variant<Options, int> parseOptions(int argc, const char* const* argv);
std::variant<Options, int> parseOptions(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

// The text --version prints: the program's and the library's versions.
std::string versionText();

}  // namespace plexa::cli
