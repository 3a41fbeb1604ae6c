#include "ExtractRun.h"

#include "Files.h"
#include "Json.h"
#include "MainQueue.h"
#include "MissingItems.h"
#include "OutputFolder.h"
#include "PXSketchOpenFormatReader.h"
#include "PlexaExtract.h"
#include "RunCheck.h"
#include "RunFootprint.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <set>

namespace plexa::cli {

namespace {

using Clock = std::chrono::steady_clock;

struct RunState {
  bool done = false;
  bool detached = false;
  std::optional<PXError> error;
};

double secondsSince(Clock::time_point started) {
  return std::chrono::duration<double>(Clock::now() - started).count();
}

RunOutcome failure(int code, std::string error) {
  RunOutcome outcome;
  outcome.exitCode = code;
  outcome.error = std::move(error);
  return outcome;
}

std::shared_ptr<PlexaExtract> makeExtractor(const Options& options, const std::string& output,
                                            const std::string& work) {
  std::optional<std::string> tool;
  if (!options.sketchtool.empty()) tool = options.sketchtool;
  auto extractor = PlexaExtract::extractWithSketchFilePath(options.input, output, tool, work);
  // The output folder is the user's: on failure only what this run wrote goes.
  extractor->removesOutputFolder = false;
  extractor->prettyPrint = options.pretty;
  extractor->stableIdentifiers = options.stableIds;
  // Anima detaches on its own; Sketch is not asked to detach the result again.
  if (options.detach == "none" || options.detach == "anima") extractor->detachMethod = "none";
  if (options.detach == "plugin") extractor->detachMethod = options.artboards.empty() ? "all" : "selection";
  if (options.maxConcurrent) extractor->setMaxConcurrentArtboardExport(options.maxConcurrent);
  if (options.batchSize) extractor->setMaxConcurrentArtboardBatchSize(options.batchSize);
  return extractor;
}

void start(PlexaExtract& extractor, const std::vector<std::string>& artboards, uint64_t exportOptions,
           double scale, int64_t itemCount, const std::shared_ptr<RunState>& state, ProgressReporter& reporter) {
  extractor.progressBlock = [&reporter, state, itemCount](PlexaExtractProcess process, double processProgress,
                                                          double total) {
    if (process == PlexaExtractProcessDetachingSymbols && processProgress >= 1.0) state->detached = true;
    reporter.report(process, PlexaExtract::titleForProcess(process).value_or(""), processProgress, total, itemCount);
  };
  std::optional<std::vector<std::string>> ids;
  if (!artboards.empty()) ids = artboards;
  extractor.startExtractionForArtboardIDs(ids, scale, exportOptions, nullptr,
                                          [state](const std::vector<std::string>&, const std::optional<PXError>& error) {
                                            state->error = error;
                                            state->done = true;
                                          });
}

// Drives the main queue until the run completes, or a detaching peer
// (Sketch, Anima) stays silent past the time-out (false).
bool waitForRun(const Options& options, const RunState& state, Clock::time_point started) {
  auto deadline = started + std::chrono::milliseconds(static_cast<int64_t>(options.detachTimeout * 1000));
  bool waitsForPeer = options.detach == "plugin" || options.detach == "anima";
  bool peerSilent = false;
  PXMainQueue::shared().runUntil(
      [&] {
        peerSilent = waitsForPeer && !state.detached && !state.done && Clock::now() > deadline;
        return state.done || peerSilent;
      },
      std::chrono::hours(24 * 365));
  return !peerSilent;
}

size_t countFiles(const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code ec;
  size_t n = 0;
  for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    if (it->is_regular_file(ec)) ++n;
  return n;
}

// Symbol masters among the run's items, from the pages the run has read.
size_t countSymbolMasters(PXSketchOpenFormatReader& reader, const std::vector<std::string>& ids) {
  std::set<std::string> wanted(ids.begin(), ids.end());
  size_t masters = 0;
  try {
    auto meta = reader.metaJSON();
    if (!meta) return 0;
    auto pages = meta->find("pagesAndArtboards");
    if (pages == meta->end() || !pages->value().is_object()) return 0;
    for (const auto& page : pages->value().get_object()) {
      auto json = reader.pageJSONByID(std::string(page.key()));
      if (!json) continue;
      auto layers = json->find("layers");
      if (layers == json->end() || !layers->value().is_array()) continue;
      for (const auto& layer : layers->value().get_array()) {
        auto cls = PXJsonTextFor(&layer, "_class");
        auto id = PXJsonTextFor(&layer, "do_objectID");
        if (cls && *cls == "symbolMaster" && id && wanted.contains(std::string(*id))) ++masters;
      }
    }
  } catch (const std::exception&) {
    // Counting is a nicety: an unreadable page was reported by the run.
  }
  return masters;
}

std::vector<std::string> missingAfterRun(const Options& options, uint64_t bits, const std::string& output,
                                         const std::vector<std::string>& ids, const DocumentArtboards& document) {
  ExpectedOutput expected;
  expected.folder = output;
  expected.artboardIDs = ids;
  expected.names = document.names;
  expected.meta = bits & (PlexaExtractExportMeta | PlexaExtractExportAssets);
  expected.images = bits & PlexaExtractExportImages;
  expected.hotspots = bits & PlexaExtractExportHotspots;
  expected.assets = bits & PlexaExtractExportAssets;
  expected.excludeIgnored = options.excludeIgnored;
  auto missing = missingItems(expected);
  if (!missing.empty() && diskIsFull(output))
    for (auto& item : missing) item += " — the disk is full";
  return missing;
}

// Why a run failed as a whole, about the user's file.
std::string failureText(const Options& options, const PXError& error) {
  return options.input + ": " + (error.failureReason.empty() ? error.localizedDescription : error.failureReason);
}

}  // namespace

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

RunOutcome runExtraction(const Options& options, ProgressReporter& reporter, ConsoleLog* log) {
  auto started = Clock::now();
  if (auto problem = sketchDocumentProblem(options.input)) return failure(kExitInput, options.input + ": " + *problem);
  auto document = readDocumentArtboards(options.input);
  auto selection = selectArtboards(options.artboards, document);
  if (!selection.problem.empty()) return failure(kExitUsage, selection.problem);
  uint64_t bits = exportOptionsFor(options);
  bool needsTool = (bits & (PlexaExtractExportImages | PlexaExtractExportAssets)) || options.detach == "plugin";
  if (auto problem = sketchToolProblem(options.sketchtool, std::getenv("sketchToolPath"), needsTool))
    return failure(problem->code, problem->text);
  auto prepared = prepareOutputFolder(options.output, options.overwrite, options.input);
  if (!prepared.folder) return failure(kExitInput, options.output + ": " + prepared.problem);
  const std::string output = prepared.folder->path;

  auto& footprint = RunFootprint::shared();
  std::string error;
  std::string work = footprint.makeTemporaryFolder("plexa-extract", &error);
  if (work.empty()) {
    footprint.removeAll();
    return failure(kExitInput, "cannot make a temporary folder: " + error);
  }

  std::vector<std::string> ids = selection.ids.empty() ? document.ids : selection.ids;
  std::shared_ptr<PlexaExtract> extractor;
  {
    // Only images, assets and Sketch use sketchtool: a failed lookup is no news otherwise.
    std::optional<ConsoleLog::Demotion> quietLookup;
    if (log && !needsTool) quietLookup.emplace(*log);
    extractor = makeExtractor(options, output, work);
  }
  auto state = std::make_shared<RunState>();
  start(*extractor, selection.ids, bits, options.scale, static_cast<int64_t>(ids.size()), state, reporter);
  bool answered = waitForRun(options, *state, started);
  reporter.finish();

  if (!answered || state->error) {
    extractor->cancel();
    extractor.reset();
    footprint.removeAll();
    if (!answered)
      return failure(kExitInput, fmt::format("{}: symbol detachment got no answer from {} within {} s", options.input,
                                             options.detach, options.detachTimeout));
    return failure(kExitInput, failureText(options, *state->error));
  }

  RunOutcome outcome;
  outcome.missing = missingAfterRun(options, bits, output, ids, document);
  outcome.exitCode = outcome.missing.empty() ? kExitOK : kExitPartial;
  outcome.symbolMasters = countSymbolMasters(*extractor->reader, ids);
  outcome.artboards = ids.size() - std::min(ids.size(), outcome.symbolMasters);
  footprint.keepOutputFolder();
  extractor.reset();
  footprint.remove(work);
  outcome.filesWritten = countFiles(output);
  outcome.outputFolder = output;
  outcome.seconds = secondsSince(started);
  return outcome;
}

}  // namespace plexa::cli
