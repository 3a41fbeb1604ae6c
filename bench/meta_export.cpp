// Inspect data export of the largest corpus document: unzipping and parsing
// it is the baseline; writing every artboard's meta and paths files should
// cost no more than 1.5 times that, and the process should peak below four
// times the size of the unzipped JSON.

#include "Files.h"
#include "PXMetaExporter.h"
#include "Zip.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>

namespace {

using namespace plexa;

// PLEXA_BENCH_DOCUMENT names another document (a large generated kit, say).
const std::string kDocument = std::getenv("PLEXA_BENCH_DOCUMENT")
                                  ? std::string(std::getenv("PLEXA_BENCH_DOCUMENT"))
                                  : std::string(PLEXA_CORPUS_DIR) + "/bulldog-dash-shadows-s46.sketch";

struct Workspace {
  std::string root = PXFileManager::makeTemporaryDirectory("plexa-bench");
  std::string unzipped = root + "/unzipped";
  std::string output = root + "/out";
  ~Workspace() { PXFileManager::removeItem(root); }
};

// Unzips the document and parses what the export reads: document, meta
// and every page.
std::shared_ptr<PXMetaExporter> unzipAndParse(const Workspace& workspace) {
  PXFileManager::removeItem(workspace.unzipped);
  auto unzip = PXZip::extractAll(kDocument, workspace.unzipped);
  if (!unzip.ok) return nullptr;
  auto exporter = PXMetaExporter::metaExporterWithSketchFilePath(kDocument, workspace.unzipped);
  auto& reader = *exporter->sketchReader;
  benchmark::DoNotOptimize(reader.documentJSON());
  auto meta = reader.metaJSON();
  if (meta)
    if (auto it = meta->find("pagesAndArtboards"); it != meta->end() && it->value().is_object())
      for (const auto& page : it->value().get_object()) benchmark::DoNotOptimize(reader.pageJSONByID(page.key()));
  return exporter;
}

void writeAllMeta(PXMetaExporter& exporter, const std::string& output) {
  auto ids = exporter.sketchReader->artboardIDs();
  for (const auto& id : ids) benchmark::DoNotOptimize(exporter.formattedMetaJSONFileForArtboardID(id, false, output));
}

uint64_t unzippedJSONBytes(const Workspace& workspace) {
  uint64_t total = 0;
  for (const char* folder : {"", "/pages"}) {
    std::string path = workspace.unzipped + folder;
    for (const auto& name : PXFileManager::contentsOfDirectory(path).value_or(std::vector<std::string>{}))
      if (name.size() > 5 && name.ends_with(".json"))
        if (auto attributes = PXFileManager::attributesOfItem(path + "/" + name)) total += attributes->size;
  }
  return total;
}

double seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

// The process's peak resident size so far, against the document's JSON.
void reportPeakMemory(benchmark::State& state, const Workspace& workspace) {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  double jsonBytes = static_cast<double>(unzippedJSONBytes(workspace));
  double peakBytes = static_cast<double>(usage.ru_maxrss) * 1024.0;
  state.counters["json_MB"] = jsonBytes / 1e6;
  state.counters["peak_MB"] = peakBytes / 1e6;
  state.counters["peak_to_json"] = jsonBytes > 0 ? peakBytes / jsonBytes : 0;
}

void BM_UnzipAndParse(benchmark::State& state) {
  Workspace workspace;
  for (auto _ : state)
    if (!unzipAndParse(workspace)) state.SkipWithError("cannot unzip the corpus document");
  reportPeakMemory(state, workspace);
}
BENCHMARK(BM_UnzipAndParse)->Unit(benchmark::kMillisecond);

// Both phases in the same iteration, each timed on its own, so their ratio
// compares like with like.
void BM_MetaExportAgainstBaseline(benchmark::State& state) {
  Workspace workspace;
  double baseline = 0, meta = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    auto exporter = unzipAndParse(workspace);
    auto parsed = std::chrono::steady_clock::now();
    if (!exporter) {
      state.SkipWithError("cannot unzip the corpus document");
      break;
    }
    writeAllMeta(*exporter, workspace.output);
    auto written = std::chrono::steady_clock::now();
    baseline += seconds(parsed - start);
    meta += seconds(written - parsed);
  }
  state.counters["baseline_ms"] = benchmark::Counter(baseline * 1000 / state.iterations());
  state.counters["meta_ms"] = benchmark::Counter(meta * 1000 / state.iterations());
  state.counters["meta_to_baseline"] = baseline > 0 ? meta / baseline : 0;
  reportPeakMemory(state, workspace);
}
BENCHMARK(BM_MetaExportAgainstBaseline)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
