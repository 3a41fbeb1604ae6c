// plexa-extract: the command-line host. Drives one extractor on the main
// queue, shows progress, and copies the results into the user's folder
// before the extractor (which owns its folders) is released.

#include "Files.h"
#include "Log.h"
#include "MainQueue.h"
#include "PathString.h"
#include "PlexaExtract.h"
#include "ProgressReporter.h"
#include "PXSketchOpenFormatReader.h"
#include "PXSymbolDetacherV2.h"
#include "Zip.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

using namespace plexa;

namespace {

constexpr int kExitOK = 0, kExitInput = 1, kExitUsage = 2, kExitCancelled = 130;

volatile std::sig_atomic_t gInterrupted = 0;
void onInterrupt(int) { gInterrupted = 1; }

struct Options {
  std::string input;
  std::string output;
  std::vector<std::string> artboards;
  double scale = 1;
  bool meta = false, images = false, assets = false, hotspots = false;
  bool excludeIgnored = false;
  std::string detach = "json";
  bool pretty = false;
  std::string sketchtool;
  uint64_t maxConcurrent = 0, batchSize = 0;
  std::string progress = "auto";
  int verbosity = 0;
  bool listArtboards = false;
  std::string saveDetached;
  double detachTimeout = 120;
};

int fail(int code, const std::string& path, const std::string& reason) {
  fmt::print(stderr, "plexa-extract: {}: {}\n", path, reason);
  return code;
}

// A missing, unreadable or non-file input is reported before anything starts.
std::optional<std::string> inputProblem(const std::string& path) {
  bool isDirectory = false;
  if (!PXFileManager::fileExists(path, &isDirectory)) return "no such file";
  if (isDirectory) return "is a directory, not a .sketch file";
  if (::access(path.c_str(), R_OK) != 0) return "cannot be read (permission denied)";
  return std::nullopt;
}

std::optional<std::string> outputProblem(const std::string& folder) {
  std::string error;
  if (!PXFileManager::createDirectory(folder, true, &error)) return "cannot create the folder (" + error + ")";
  if (::access(folder.c_str(), W_OK) != 0) return "the folder is not writable";
  return std::nullopt;
}

void setVerbosity(int verbosity) {
  static const unsigned levels[] = {PXLogLevelError, PXLogLevelWarning, PXLogLevelInfo, PXLogLevelDebug,
                                    PXLogLevelVerbose};
  PXLogSetLevelMask(levels[std::clamp(verbosity + 1, 0, 4)]);
}

int listArtboards(const Options& options) {
  std::string folder = PXFileManager::makeTemporaryDirectory("plexa-list");
  auto result = PXZip::extractAll(options.input, folder);
  int code = kExitOK;
  if (!result.ok) {
    code = fail(kExitInput, options.input, "could not be unzipped: " + result.error);
  } else {
    try {
      PXSketchOpenFormatReader reader(folder);
      for (const auto& id : reader.sortedArtboardIDs()) {
        JsonValue artboard = reader.artboardJSONByID(id).value_or(JsonObject());
        fmt::print("{}\t{}\n", id, PXJsonTextFor(&artboard, "name").value_or(""));
      }
    } catch (const PXSketchDocumentFileMissing& e) {
      code = fail(kExitInput, options.input, e.what());
    }
  }
  PXFileManager::removeItem(folder);
  return code;
}

// Unzips, detaches every symbol with the JSON detacher, and writes the
// detached document where the user asked.
int saveDetached(const Options& options) {
  std::string folder = PXFileManager::makeTemporaryDirectory("plexa-detach");
  auto result = PXZip::extractAll(options.input, folder);
  if (!result.ok) {
    PXFileManager::removeItem(folder);
    return fail(kExitInput, options.input, "could not be unzipped: " + result.error);
  }
  auto detacher = PXSymbolDetacherV2::detacherWithUrl(folder);
  bool saved = false;
  if (detacher->loadDocument()) {
    detacher->findSymbols();
    detacher->detachSymbols();
    detacher->savePages();
    saved = detacher->saveToUrl(options.saveDetached);
  }
  PXFileManager::removeItem(folder);
  if (!saved) return fail(kExitInput, options.saveDetached, "the detached document could not be written");
  fmt::print(stderr, "Detached document written to {}\n", options.saveDetached);
  return kExitOK;
}

uint64_t exportOptionsFor(const Options& options) {
  bool anyStage = options.meta || options.images || options.assets || options.hotspots;
  uint64_t bits = 0;
  if (!anyStage || options.meta) bits |= PlexaExtractExportMeta;
  if (!anyStage || options.images) bits |= PlexaExtractExportImages;
  if (!anyStage || options.assets) bits |= PlexaExtractExportAssets;
  if (!anyStage || options.hotspots) bits |= PlexaExtractExportHotspots;
  if (options.excludeIgnored) bits |= PlexaExtractExcludeIgnoredArtboardName;
  if (options.detach == "json") bits |= PlexaExtractDetachV2;
  if (options.detach == "anima") bits |= PlexaExtractDetachAnima;
  return bits;
}

size_t countFiles(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::is_directory(path, ec)) return 1;
  size_t n = 0;
  for (auto it = std::filesystem::recursive_directory_iterator(path, ec); !ec && it != decltype(it)(); it.increment(ec))
    if (it->is_regular_file(ec)) ++n;
  return n;
}

// Moves every entry of the extractor's output into the user's folder,
// replacing what was there under the same name.
std::optional<size_t> copyResults(const std::string& from, const std::string& to, const std::vector<std::string>& names) {
  size_t files = 0;
  for (const auto& name : names) {
    std::string source = PXAppendingPathComponent(from, name);
    std::string target = PXAppendingPathComponent(to, name);
    std::string error;
    PXFileManager::removeItem(target);
    if (!PXFileManager::copyItem(source, target, &error)) {
      fail(kExitInput, target, "could not be written (" + error + ")");
      return std::nullopt;
    }
    files += countFiles(target);
  }
  return files;
}

struct RunState {
  bool done = false;
  bool detached = false;
  std::vector<std::string> names;
  std::optional<PXError> error;
};

std::shared_ptr<PlexaExtract> makeExtractor(const Options& options, const std::string& work) {
  std::optional<std::string> tool;
  if (!options.sketchtool.empty()) tool = options.sketchtool;
  auto extractor = PlexaExtract::extractWithSketchFilePath(options.input, work, tool);
  extractor->prettyPrint = options.pretty;
  // Anima detaches on its own; Sketch is not asked to detach the result again.
  if (options.detach == "none" || options.detach == "anima") extractor->detachMethod = "none";
  if (options.detach == "plugin") extractor->detachMethod = options.artboards.empty() ? "all" : "selection";
  if (options.maxConcurrent) extractor->setMaxConcurrentArtboardExport(options.maxConcurrent);
  if (options.batchSize) extractor->setMaxConcurrentArtboardBatchSize(options.batchSize);
  return extractor;
}

void start(PlexaExtract& extractor, const Options& options, const std::shared_ptr<RunState>& state,
           cli::ProgressReporter& reporter) {
  extractor.progressBlock = [&reporter, state](PlexaExtractProcess process, double processProgress, double total) {
    if (process == PlexaExtractProcessDetachingSymbols && processProgress >= 1.0) state->detached = true;
    reporter.report(process, PlexaExtract::titleForProcess(process).value_or(""), processProgress, total);
  };
  std::optional<std::vector<std::string>> artboards;
  if (!options.artboards.empty()) artboards = options.artboards;
  extractor.startExtractionForArtboardIDs(
      artboards, options.scale, exportOptionsFor(options), nullptr,
      [state](const std::vector<std::string>& names, const std::optional<PXError>& error) {
        state->names = names;
        state->error = error;
        state->done = true;
      });
}

enum class Ending { completed, interrupted, peerSilent };

// Drives the main queue until the run completes, the user interrupts, or a
// detaching peer (Sketch, Anima) stays silent past the time-out.
Ending waitForRun(const Options& options, const RunState& state, std::chrono::steady_clock::time_point started) {
  auto deadline = started + std::chrono::milliseconds(static_cast<int64_t>(options.detachTimeout * 1000));
  bool waitsForPeer = options.detach == "plugin" || options.detach == "anima";
  Ending ending = Ending::completed;
  PXMainQueue::shared().runUntil(
      [&] {
        if (gInterrupted) ending = Ending::interrupted;
        if (waitsForPeer && !state.detached && std::chrono::steady_clock::now() > deadline)
          ending = Ending::peerSilent;
        return state.done || ending != Ending::completed;
      },
      std::chrono::hours(24 * 365));
  return ending;
}

int extract(const Options& options) {
  if (auto problem = outputProblem(options.output)) return fail(kExitInput, options.output, *problem);
  std::string work = PXFileManager::makeTemporaryDirectory("plexa-extract");
  if (work.empty()) return fail(kExitInput, "temporary folder", "could not be created");
  auto started = std::chrono::steady_clock::now();
  auto extractor = makeExtractor(options, work);
  auto state = std::make_shared<RunState>();
  cli::ProgressReporter reporter(cli::progressStyleFromName(options.progress, ::isatty(STDERR_FILENO)));
  start(*extractor, options, state, reporter);
  Ending ending = waitForRun(options, *state, started);
  reporter.finish();

  if (ending != Ending::completed) extractor->cancel();
  std::optional<size_t> files;
  if (ending == Ending::completed && !state->error)
    files = copyResults(extractor->outputFolderPath, options.output, state->names);
  int64_t artboardCount = extractor->progressCount();
  extractor.reset();  // deletes its folders; the results are already copied
  PXFileManager::removeItem(work);

  if (ending == Ending::interrupted) {
    fmt::print(stderr, "plexa-extract: cancelled\n");
    return kExitCancelled;
  }
  if (ending == Ending::peerSilent)
    return fail(kExitInput, options.input,
                fmt::format("symbol detachment got no answer from {} within {} s", options.detach, options.detachTimeout));
  if (state->error) return fail(kExitInput, options.input, state->error->localizedDescription);
  if (!files) return kExitInput;
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  fmt::print(stderr, "Extracted {} artboard{}: {} file{} written to {} in {:.2f} s\n", artboardCount,
             artboardCount == 1 ? "" : "s", *files, *files == 1 ? "" : "s", options.output, seconds);
  return kExitOK;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{"plexa-extract: turn a Sketch document into upload-ready material for design handoff.\n"
               "With no stage flags every stage that can run here runs."};
  app.add_option("file", options.input, "the .sketch document")->required();
  app.add_option("-o,--output", options.output, "folder that receives the results (created if missing)");
  app.add_option("--artboards", options.artboards, "only these artboard IDs (comma separated)")->delimiter(',');
  app.add_option("--scale", options.scale, "image scale (default 1)")->check(CLI::PositiveNumber);
  app.add_flag("--meta", options.meta, "write the inspect meta and paths files");
  app.add_flag("--images", options.images, "render artboard images with sketchtool");
  app.add_flag("--assets", options.assets, "render the layers' export formats (implies --meta)");
  app.add_flag("--hotspots", options.hotspots, "write prototype hotspot files");
  app.add_flag("--exclude-ignored", options.excludeIgnored, "skip artboards whose names start with \"-\"");
  app.add_option("--detach", options.detach, "how symbols are detached: json (default), plugin, anima or none")
      ->check(CLI::IsMember({"json", "plugin", "anima", "none"}));
  app.add_option("--detach-timeout", options.detachTimeout,
                 "seconds to wait for Sketch or Anima to answer a detach request (default 120)")
      ->check(CLI::PositiveNumber);
  app.add_flag("--pretty", options.pretty, "rewrite the unzipped document's JSON indented");
  app.add_option("--sketchtool", options.sketchtool, "sketchtool to run (default: $sketchToolPath, known places, PATH)");
  app.add_option("--max-concurrent", options.maxConcurrent, "sketchtool runs at once for artboard images (default 4)");
  app.add_option("--batch-size", options.batchSize, "artboards per sketchtool run (default 10)");
  app.add_option("--progress", options.progress, "progress display: auto, bar, json or none")
      ->check(CLI::IsMember({"auto", "bar", "json", "none"}));
  app.add_flag("-v,--verbose", options.verbosity, "more log output (repeat for more)");
  app.add_flag("--list-artboards", options.listArtboards, "print the artboard IDs and names in display order");
  app.add_option("--save-detached", options.saveDetached, "write the document with every symbol detached to PATH");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  setVerbosity(options.verbosity);
  if (auto problem = inputProblem(options.input)) return fail(kExitInput, options.input, *problem);
  if (options.listArtboards) return listArtboards(options);
  if (!options.saveDetached.empty()) return saveDetached(options);
  if (options.output.empty()) {
    fmt::print(stderr, "plexa-extract: an output folder is required (-o OUT)\n");
    return kExitUsage;
  }
  std::signal(SIGINT, onInterrupt);
  std::signal(SIGTERM, onInterrupt);
  return extract(options);
}
