// Artboard image export through the sketchtool test double, which sleeps
// 200 ms per run: 100 artboards in batches of 10 should take about three
// rounds of runs with 4 at once, and ten with 1 at once.

#include "Files.h"
#include "Json.h"
#include "MainQueue.h"
#include "PXArtboardExporter.h"
#include "Zip.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

using namespace plexa;

namespace {

const std::string kFakeSketchtool = PLEXA_BENCH_BINARY_DIR "/../tests/fake-sketchtool";
constexpr int kArtboards = 100;

struct BenchDocument {
  std::string folder = PXFileManager::makeTemporaryDirectory("plexa-bench-export");
  std::string unzipped = folder + "/unzipped";
  std::string sketch = folder + "/doc.sketch";
  std::vector<std::string> artboardIDs;

  BenchDocument() {
    JsonArray layers;
    JsonObject artboards;
    for (int i = 0; i < kArtboards; ++i) {
      std::string id = "BENCH-ARTBOARD-" + std::to_string(i);
      artboardIDs.push_back(id);
      JsonObject frame{{"_class", "rect"}, {"x", i * 400}, {"y", 0}, {"width", 375}, {"height", 667}};
      layers.push_back(JsonObject{{"_class", "artboard"},
                                  {"do_objectID", id},
                                  {"name", "Board " + std::to_string(i)},
                                  {"frame", frame},
                                  {"layers", JsonArray()}});
      artboards[id] = JsonObject{{"name", "Board " + std::to_string(i)}};
    }
    JsonObject page{{"_class", "page"}, {"do_objectID", "PAGE-1"}, {"name", "Page"}, {"layers", layers}};
    JsonObject meta{{"pagesAndArtboards", JsonObject{{"PAGE-1", JsonObject{{"name", "Page"}, {"artboards", artboards}}}}}};
    JsonObject document{{"_class", "document"},
                        {"pages", JsonArray{JsonObject{{"_class", "MSJSONFileReference"}, {"_ref", "pages/PAGE-1"}}}}};
    PXFileManager::createDirectory(unzipped + "/pages", true);
    PXFileManager::createDirectory(unzipped + "/images", true);
    PXFileManager::createDirectory(unzipped + "/previews", true);
    PXFileManager::writeFileAtomically(unzipped + "/pages/PAGE-1.json", *PXJsonSerialize(page, false));
    PXFileManager::writeFileAtomically(unzipped + "/meta.json", *PXJsonSerialize(meta, false));
    PXFileManager::writeFileAtomically(unzipped + "/document.json", *PXJsonSerialize(document, false));
    PXFileManager::writeFileAtomically(unzipped + "/user.json", "{}");
    PXZip::zipFolder(unzipped, sketch);
  }
  ~BenchDocument() { PXFileManager::removeItem(folder); }
};

void exportAll(benchmark::State& state) {
  static BenchDocument document;
  setenv("PLEXA_FAKE_SKETCHTOOL_SLEEP_MS", "200", 1);
  bool allSuccessful = true;
  for (auto _ : state) {
    state.PauseTiming();
    std::string out = document.folder + "/out";
    PXFileManager::removeItem(out);
    PXFileManager::createDirectory(out, true);
    auto exporter =
        PXArtboardExporter::artboardExporterWithSketchFilePath(document.sketch, document.unzipped, kFakeSketchtool);
    exporter->setMaxConcurrent(static_cast<uint64_t>(state.range(0)));
    std::atomic<bool> done{false};
    std::atomic<size_t> exported{0};
    state.ResumeTiming();

    exporter->exportImagesForArtboardIDs(document.artboardIDs, 1, out, nullptr,
                                         [&](bool success, const PXArtboardExporter::ExportedFiles& files) {
                                           allSuccessful = allSuccessful && success;
                                           exported = files.size();
                                           done = true;
                                         });
    PXMainQueue::shared().runUntil([&] { return done.load(); }, std::chrono::seconds(60));

    state.PauseTiming();
    if (exported != static_cast<size_t>(kArtboards)) state.SkipWithError("not every artboard was exported");
    state.ResumeTiming();
  }
  if (!allSuccessful) state.SkipWithError("an export reported failure");
  state.counters["artboards"] = kArtboards;
}

}  // namespace

BENCHMARK(exportAll)->Arg(4)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

BENCHMARK_MAIN();
