// Detaching symbols in the JSON. (a) The largest corpus documents: every
// symbol detached and the pages saved, against unzipping and parsing the same
// document in the same iteration (counter "vs_unzip_parse", target <= 2).
// (b) A generated document of 10,000 instances of a master nested 8 deep:
// time and peak resident memory.

#include "Files.h"
#include "Json.h"
#include "Log.h"
#include "PXSymbolDetacherV2.h"
#include "PathString.h"
#include "Zip.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <string>

using namespace plexa;

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

double peakResidentMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

struct Folder {
  std::string path = PXFileManager::makeTemporaryDirectory("plexa-bench-detach");
  ~Folder() { PXFileManager::removeItem(path); }
};

// ---- (a) corpus documents

void detachCorpusDocument(benchmark::State& state, const std::string& sketch) {
  double baseline = 0, detach = 0, saving = 0, serialising = 0;
  size_t pages = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Folder folder;
    const auto t0 = Clock::now();
    if (!PXZip::extractAll(sketch, folder.path).ok) {
      state.SkipWithError("cannot unzip");
      break;
    }
    PXSymbolDetacherV2 detacher(folder.path);
    detacher.loadDocument();
    const auto t1 = Clock::now();
    state.ResumeTiming();

    detacher.findSymbols();
    detacher.detachSymbols();
    const auto beforeSaving = Clock::now();
    detacher.savePages();

    state.PauseTiming();
    const auto t2 = Clock::now();
    baseline += seconds(t0, t1);
    detach += seconds(t1, t2);
    saving += seconds(beforeSaving, t2);
    // How much of saving is the JSON writer itself.
    for (const auto& page : detacher.pages) benchmark::DoNotOptimize(PXJsonSerialize(page.json, true));
    serialising += seconds(t2, Clock::now());
    pages = detacher.pages.size();
    state.ResumeTiming();
  }
  state.counters["unzip_parse_ms"] = baseline * 1000 / static_cast<double>(state.iterations());
  state.counters["save_ms"] = saving * 1000 / static_cast<double>(state.iterations());
  state.counters["serialise_ms"] = serialising * 1000 / static_cast<double>(state.iterations());
  state.counters["vs_unzip_parse"] = baseline > 0 ? detach / baseline : 0;
  state.counters["without_save_vs_unzip_parse"] = baseline > 0 ? (detach - saving) / baseline : 0;
  state.counters["pages"] = static_cast<double>(pages);
}

// ---- (b) generated deep nesting

JsonObject frameOf(double w, double h) {
  return JsonObject{{"_class", "rect"}, {"x", 0}, {"y", 0}, {"width", w}, {"height", h}};
}

JsonObject plainLayer(const std::string& cls, const std::string& id, double w, double h) {
  return JsonObject{{"_class", cls},       {"do_objectID", id}, {"name", id},
                    {"isVisible", true},   {"resizingConstraint", 63},
                    {"frame", frameOf(w, h)}, {"style", JsonObject{{"_class", "style"}, {"fills", JsonArray()}}}};
}

JsonObject instanceOf(const std::string& id, int level, double w, double h) {
  JsonObject i = plainLayer("symbolInstance", id, w, h);
  i["symbolID"] = "SYM-" + std::to_string(level);
  i["overrideValues"] = JsonArray();
  return i;
}

// Master k holds a rectangle and, for k > 0, an instance of master k - 1.
JsonObject nestedMaster(int level) {
  JsonObject m = plainLayer("symbolMaster", "MASTER-" + std::to_string(level), 100, 100);
  m["symbolID"] = "SYM-" + std::to_string(level);
  JsonArray layers{plainLayer("rectangle", "RECT-" + std::to_string(level), 50, 50)};
  if (level > 0) layers.push_back(instanceOf("INNER-" + std::to_string(level), level - 1, 80, 80));
  m["layers"] = std::move(layers);
  return m;
}

struct GeneratedDocument {
  std::string document, symbolsPage, screensPage;
};

GeneratedDocument generate(int instances, int depth) {
  JsonArray masters;
  for (int level = 0; level < depth; ++level) masters.push_back(nestedMaster(level));
  JsonArray screens;
  for (int i = 0; i < instances; ++i) screens.push_back(instanceOf("I-" + std::to_string(i), depth - 1, 200, 150));
  JsonObject board = plainLayer("artboard", "BOARD", 10000, 10000);
  board["layers"] = std::move(screens);
  auto page = [](const std::string& id, JsonArray layers) {
    JsonObject p = plainLayer("page", id, 0, 0);
    p["layers"] = std::move(layers);
    return *PXJsonSerialize(p, false);
  };
  auto ref = [](const std::string& id) { return JsonObject{{"_class", "MSJSONFileReference"}, {"_ref", "pages/" + id}}; };
  JsonObject document{{"_class", "document"}, {"foreignSymbols", JsonArray()},
                      {"pages", JsonArray{ref("SYMBOLS"), ref("SCREENS")}}};
  return {*PXJsonSerialize(document, false), page("SYMBOLS", std::move(masters)),
          page("SCREENS", JsonArray{std::move(board)})};
}

void writeGenerated(const GeneratedDocument& doc, const std::string& folder) {
  PXFileManager::createDirectory(folder + "/pages", true);
  PXFileManager::writeFileAtomically(folder + "/document.json", doc.document);
  PXFileManager::writeFileAtomically(folder + "/pages/SYMBOLS.json", doc.symbolsPage);
  PXFileManager::writeFileAtomically(folder + "/pages/SCREENS.json", doc.screensPage);
}

void BM_DetachDeeplyNested(benchmark::State& state) {
  const int instances = static_cast<int>(state.range(0));
  const int depth = static_cast<int>(state.range(1));
  const GeneratedDocument doc = generate(instances, depth);
  size_t copied = 0;
  double detaching = 0, saving = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Folder folder;
    writeGenerated(doc, folder.path);
    PXSymbolDetacherV2 detacher(folder.path);
    detacher.loadDocument();
    state.ResumeTiming();

    const auto t0 = Clock::now();
    detacher.findSymbols();
    detacher.detachSymbols();
    const auto t1 = Clock::now();
    detacher.savePages();

    state.PauseTiming();
    detaching += seconds(t0, t1);
    saving += seconds(t1, Clock::now());
    copied = 0;
    for (const auto& page : detacher.pages)
      if (auto attributes = PXFileManager::attributesOfItem(page.url)) copied += attributes->size;
    state.ResumeTiming();
  }
  state.counters["instances"] = instances;
  state.counters["detach_ms"] = detaching * 1000 / static_cast<double>(state.iterations());
  state.counters["save_ms"] = saving * 1000 / static_cast<double>(state.iterations());
  state.counters["saved_MB"] = static_cast<double>(copied) / (1 << 20);
  // A high-water mark of the whole process: only the first run's is its own.
  state.counters["process_peak_rss_MB"] = peakResidentMegabytes();
}

const char* const kLargestDocuments[] = {"infor-ids-design-kit-s48.sketch", "tailwindcss-kit-s70.sketch",
                                         "bulldog-dash-shadows-s46.sketch"};

}  // namespace

int main(int argc, char** argv) {
  PXLogSetLevelMask(PXLogLevelError);
  // Registered first so that the first run's peak memory is its own.
  benchmark::RegisterBenchmark("DetachDeeplyNested", BM_DetachDeeplyNested)
      ->Args({10000, 8})
      ->Args({5000, 8})  // against the first two: time linear in instances and in depth
      ->Args({10000, 4})
      ->Unit(benchmark::kMillisecond)
      ->Iterations(3);
  for (const char* name : kLargestDocuments) {
    std::string path = PXAppendingPathComponent(PLEXA_CORPUS_DIR, name);
    if (!PXFileManager::fileExists(path)) continue;
    benchmark::RegisterBenchmark(("DetachCorpus/" + PXDeletingPathExtension(name)).c_str(),
                                 [path](benchmark::State& state) { detachCorpusDocument(state, path); })
        ->Unit(benchmark::kMillisecond)
        ->Iterations(3);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
