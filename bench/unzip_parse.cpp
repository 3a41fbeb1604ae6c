// Baseline for document access: unzipping a .sketch and parsing every JSON
// file in it, on two real documents and one ~200 MB generated one. Later
// stages compare their throughput against these figures. unzip_parsing_pages
// parses the pages from the inflated bytes while unzipping instead.

#include "BigDocument.h"
#include "Files.h"
#include "Json.h"
#include "Log.h"
#include "PXSketchPageCollector.h"
#include "PXSketchUnzipper.h"
#include "PathString.h"
#include "Zip.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace plexa;

namespace {

constexpr uint64_t kBigDocumentJsonBytes = 200ull << 20;

// One temporary folder per run, removed at exit.
struct Workspace {
  std::string path = PXFileManager::makeTemporaryDirectory("plexa-bench-unzip");
  ~Workspace() { PXFileManager::removeItem(path); }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
};

Workspace& workspace() {
  static Workspace w;
  return w;
}

struct Document {
  std::string label;
  std::function<std::string()> make;  // the .sketch path, made on first use
  std::string path;

  const std::string& sketch() {
    if (path.empty()) path = make();
    return path;
  }
};

std::vector<std::string> jsonFilesUnder(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
    if (it->is_regular_file() && PXPathExtension(it->path().string()) == "json") files.push_back(it->path().string());
  return files;
}

uint64_t totalSize(const std::vector<std::string>& files) {
  uint64_t bytes = 0;
  for (const auto& file : files) bytes += std::filesystem::file_size(file);
  return bytes;
}

bool unzipInto(benchmark::State& state, const std::string& sketch, const std::string& folder, bool pretty) {
  auto result = PXSketchUnzipper::unzip(sketch, folder, pretty);
  if (!result.success) state.SkipWithError(result.output.c_str());
  return result.success;
}

void parseAll(benchmark::State& state, const std::vector<std::string>& files) {
  for (const auto& file : files) {
    auto text = PXFileManager::readFile(file);
    auto value = text ? PXJsonParse(*text) : std::nullopt;
    if (!value) state.SkipWithError(("cannot parse " + file).c_str());
    benchmark::DoNotOptimize(value);
  }
}

// Pages parsed from the inflated bytes while unzipping, as a lister does.
void unzipParsingPages(benchmark::State& state, const std::string& sketch, const std::string& folder) {
  PXSketchPageCollector pages;
  auto result = PXZip::extractAll(sketch, folder, {}, {}, pages.observer());
  if (!result.ok) state.SkipWithError(result.error.c_str());
  auto parsed = pages.takePages();
  if (parsed.empty()) state.SkipWithError("no page parsed");
  benchmark::DoNotOptimize(parsed);
}

enum class Stage { unzip, parse, unzipAndParse, unzipPretty, unzipParsingPages };

void run(benchmark::State& state, Document* document, Stage stage) {
  const std::string& sketch = document->sketch();
  if (sketch.empty()) {
    state.SkipWithError("document not available");
    return;
  }
  std::string folder = workspace() / ("unzipped-" + document->label);
  PXFileManager::removeItem(folder);
  if (!unzipInto(state, sketch, folder, false)) return;
  auto files = jsonFilesUnder(folder);
  uint64_t jsonBytes = totalSize(files);

  for (auto _ : state) {
    if (stage != Stage::parse) {
      state.PauseTiming();
      PXFileManager::removeItem(folder);
      state.ResumeTiming();
      if (stage == Stage::unzipParsingPages) {
        unzipParsingPages(state, sketch, folder);
        continue;
      }
      if (!unzipInto(state, sketch, folder, stage == Stage::unzipPretty)) break;
    }
    if (stage == Stage::parse || stage == Stage::unzipAndParse) parseAll(state, files);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * jsonBytes));
  state.counters["json_MB"] = static_cast<double>(jsonBytes) / 1e6;
  state.counters["files"] = static_cast<double>(files.size());
}

std::string corpus(const std::string& name) {
  std::string path = std::string(PLEXA_CORPUS_DIR) + "/" + name;
  return PXFileManager::fileExists(path) ? path : std::string();
}

std::string generatedBigDocument() {
  std::string source = corpus("infor-ids-design-kit-s53.sketch");
  if (source.empty()) return {};
  try {
    auto big = bench::makeBigDocument(source, workspace() / "big.sketch", kBigDocumentJsonBytes);
    std::fprintf(stderr, "generated %s: %zu copies, %zu pages, %.1f MB JSON\n", big.path.c_str(), big.copies,
                 big.pages, static_cast<double>(big.jsonBytes) / 1e6);
    return big.path;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "cannot generate the big document: %s\n", e.what());
    return {};
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  PXLogSetLevelMask(PXLogLevelError);

  static std::vector<std::unique_ptr<Document>> documents;
  documents.push_back(std::make_unique<Document>(
      Document{"bulldog-s46", [] { return corpus("bulldog-dash-shadows-s46.sketch"); }, {}}));
  documents.push_back(std::make_unique<Document>(
      Document{"infor-s48", [] { return corpus("infor-ids-design-kit-s48.sketch"); }, {}}));
  documents.push_back(std::make_unique<Document>(Document{"generated-200MB", generatedBigDocument, {}}));

  const std::pair<const char*, Stage> stages[] = {{"unzip", Stage::unzip},
                                                  {"parse", Stage::parse},
                                                  {"unzip_parse", Stage::unzipAndParse},
                                                  {"unzip_pretty", Stage::unzipPretty},
                                                  {"unzip_parsing_pages", Stage::unzipParsingPages}};
  for (const auto& document : documents)
    for (const auto& [name, stage] : stages)
      benchmark::RegisterBenchmark((std::string(name) + "/" + document->label).c_str(), run, document.get(), stage)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  documents.clear();
  return 0;
}
