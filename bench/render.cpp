// Renders every artboard and symbol master of reference and corpus documents
// with plexa-sketchtool, pinned to one core, and prints milliseconds per
// megapixel and per artboard; then the single busiest screen we know
// (1280 × 2326, 130 shadows) on its own.
//
//   build/bench/render [document.sketch ...]
//
// PLEXA_BENCH_SKETCHTOOL names another plexa-sketchtool to time (an older
// build, say) in place of the one beside this benchmark.

#include "Json.h"
#include "Zip.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace plexa;
namespace fs = std::filesystem;

namespace {

std::string toolPath() {
  const char* chosen = std::getenv("PLEXA_BENCH_SKETCHTOOL");
  return chosen && *chosen ? chosen : PLEXA_BENCH_BINARY_DIR "/../plexa-sketchtool";
}

const std::string kTool = toolPath();
const std::string kRefs = PLEXA_CORPUS_DIR "/../render-refs";

void collectBoards(const JsonValue& layer, std::vector<std::string>& ids, bool top) {
  std::string cls(PXJsonTextFor(&layer, "_class").value_or(""));
  if (!top && (cls == "artboard" || cls == "symbolMaster")) {
    ids.emplace_back(PXJsonTextFor(&layer, "do_objectID").value_or(""));
    return;
  }
  if (const auto* children = PXJsonArrayFor(&layer, "layers"))
    for (const auto& child : *children) collectBoards(child, ids, false);
}

std::vector<std::string> boardIDs(const std::string& document) {
  std::vector<std::string> ids;
  for (const auto& name : PXZip::entryNames(document).value_or(std::vector<std::string>()))
    if (name.rfind("pages/", 0) == 0)
      if (auto text = PXZip::readEntry(document, name))
        if (auto page = PXJsonParse(*text)) collectBoards(*page, ids, true);
  return ids;
}

// Width × height from the PNG header.
double megapixels(const fs::path& png) {
  std::ifstream in(png, std::ios::binary);
  unsigned char header[24] = {};
  if (!in.read(reinterpret_cast<char*>(header), sizeof header)) return 0;
  auto word = [&](int at) { return double(header[at] << 24 | header[at + 1] << 16 | header[at + 2] << 8 | header[at + 3]); };
  return word(16) * word(20) / 1e6;
}

std::string shellQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

struct Run {
  double seconds = 0, megapixels = 0;
  size_t files = 0;
};

Run render(const std::string& document, const std::vector<std::string>& ids) {
  std::string folder = fs::temp_directory_path() / "plexa-bench-render";
  fs::remove_all(folder);
  std::string items;
  for (const auto& id : ids) items += (items.empty() ? "" : ",") + id;
  std::string command = "taskset -c 0 " + shellQuoted(kTool) + " export artboards " + shellQuoted(document) +
                        " --output=" + shellQuoted(folder) + " --items=" + shellQuoted(items) +
                        " --save-for-web=NO --scale=1 --formats=png --compression=1 --use-id-for-name=YES"
                        " >/dev/null 2>&1";
  auto start = std::chrono::steady_clock::now();
  (void)std::system(command.c_str());
  Run run;
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::error_code ec;
  for (const auto& entry : fs::recursive_directory_iterator(folder, ec))
    if (entry.path().extension() == ".png") run.megapixels += megapixels(entry.path()), ++run.files;
  fs::remove_all(folder);
  return run;
}

void report(const std::string& label, const Run& run, size_t asked) {
  std::printf("%-44s %5zu/%-5zu %8.0f ms %8.2f MP %8.1f ms/MP %8.1f ms/artboard\n", label.c_str(), run.files, asked,
              run.seconds * 1000, run.megapixels, run.megapixels > 0 ? run.seconds * 1000 / run.megapixels : 0,
              run.files ? run.seconds * 1000 / run.files : 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (!fs::exists(kTool)) {
    std::fprintf(stderr, "render: %s is not built\n", kTool.c_str());
    return 1;
  }
  std::vector<std::string> documents(argv + 1, argv + argc);
  if (documents.empty())
    documents = {kRefs + "/teamtracker-design-4851b18/app.sketch",
                 kRefs + "/cyb-web2-design-11515b3/blockchain explorer.sketch",
                 PLEXA_CORPUS_DIR "/infor-ids-design-kit-s48.sketch", PLEXA_CORPUS_DIR "/tailwindcss-kit-s70.sketch",
                 PLEXA_CORPUS_DIR "/bulldog-dash-shadows-s46.sketch"};
  std::printf("%-44s %11s %11s %11s %13s %18s\n", "document (one core)", "files", "wall", "pixels", "", "");
  for (const auto& document : documents) {
    auto ids = boardIDs(document);
    report(fs::path(document).filename().string(), render(document, ids), ids.size());
  }
  // 1280 × 2326 with 130 shadows; goal: under 300 ms at scale 1.
  const std::string busy = kRefs + "/cyb-web2-design-11515b3/blockchain explorer.sketch";
  if (fs::exists(busy)) {
    Run best{1e9, 0, 0};
    for (int i = 0; i < 5; ++i)
      if (Run run = render(busy, {"75298AD0-5998-4DB7-85D9-67E68C6373CB"}); run.files && run.seconds < best.seconds) best = run;
    report("Ethereum_Block (best of 5, parse included)", best, 1);
  }
  return 0;
}
