// Whole-document runs, each in a child process of its own so that its time
// and peak resident memory are its own:
//   baseline   unzip + parse of every page (what listing the artboards costs)
//   inspect    the extractor with meta, hotspots and the JSON detacher
// on the s53 kit repeated 1, 3, 6 and 12 times (time and memory must grow
// linearly), on the largest corpus documents, and on two hostile shapes: one
// page of 100,000 artboards of 1 x 1, and a document with 20,000 extra tiny
// archive entries.
//
// Usage: pipeline [--copies 1,3,6,12] [--skip-corpus] [--skip-shapes] [--time-limit S]
//        pipeline --make COPIES OUT.sketch | --make-shapes FOLDER

#include "BigDocument.h"
#include "Files.h"
#include "Json.h"
#include "Log.h"
#include "MainQueue.h"
#include "PathString.h"
#include "PlexaExtract.h"
#include "PXSketchOpenFormatReader.h"
#include "PXSketchPageCollector.h"
#include "Zip.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

using namespace plexa;

namespace {

using Clock = std::chrono::steady_clock;

std::chrono::seconds gTimeLimit{300};

struct Workspace {
  std::string path = PXFileManager::makeTemporaryDirectory("plexa-bench-pipeline");
  ~Workspace() { PXFileManager::removeItem(path); }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
  std::string freshFolder() { return *this / ("run-" + std::to_string(++runs)); }
  int runs = 0;
};

// ---- Child side

// The child's own high-water mark: a forked child's rusage would also count
// what the parent had resident when it forked.
void recordPeak(const std::string& folder) {
  std::FILE* status = std::fopen("/proc/self/status", "r");
  if (!status) return;
  char line[256];
  long kb = 0;
  while (std::fgets(line, sizeof line, status))
    if (std::sscanf(line, "VmHWM: %ld kB", &kb) == 1) break;
  std::fclose(status);
  PXFileManager::writeFileAtomically(folder + "/peak-kb", std::to_string(kb));
}

int childBaseline(const std::string& sketch, const std::string& folder) {
  PXSketchPageCollector pages;  // what a lister does: pages parsed as they are unzipped
  if (!PXZip::extractAll(sketch, folder, {}, {}, pages.observer()).ok) return 1;
  PXSketchOpenFormatReader reader(folder);
  reader.adoptPages(pages.takePages());
  size_t named = 0;
  for (const auto& id : reader.sortedArtboardIDs())
    if (auto artboard = reader.artboardByID(id); artboard && artboard->contains("name")) ++named;
  recordPeak(PXDeletingLastPathComponent(folder));
  return named > 0 ? 0 : 1;
}

int childInspect(const std::string& sketch, const std::string& folder) {
  auto extractor = PlexaExtract::extractWithSketchFilePath(sketch, folder + "/out", std::string("/bin/false"),
                                                           folder + "/temp");
  bool done = false;
  size_t files = 0;
  extractor->progressBlock = [](PlexaExtractProcess, double, double) {};
  extractor->startExtractionForArtboardIDs(
      std::nullopt, 1.0, PlexaExtractExportMeta | PlexaExtractExportHotspots | PlexaExtractDetachV2, nullptr,
      [&](const std::vector<std::string>& names, const std::optional<PXError>& error) {
        files = error ? 0 : names.size();
        done = true;
      });
  PXMainQueue::shared().runUntil([&] { return done; }, std::chrono::hours(1));
  recordPeak(folder);
  // Exit without tearing down: the folders stay for the workspace to remove.
  std::_Exit(files > 0 ? 0 : 1);
}

// ---- Parent side

struct Measure {
  double seconds = 0;
  double cpuSeconds = 0;  // user + system: steadier than wall time on a shared machine
  double peakMB = 0;
  bool ok = false;
};

// Each run writes into a folder of its own, all removed with the workspace
// at the end: an ext4 without a journal skips recently deleted inodes when it
// makes new files, so deleting one run's 26k files would slow the next.
Measure runChild(const char* self, const std::string& mode, const std::string& sketch, const std::string& folder) {
  PXFileManager::createDirectory(folder, true);
  const auto start = Clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    execl(self, self, "--child", mode.c_str(), sketch.c_str(), folder.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  // A run past the time limit is stopped and reported as failed.
  while (wait4(pid, &status, WNOHANG, &usage) == 0) {
    if (Clock::now() - start > gTimeLimit) {
      kill(pid, SIGKILL);
      wait4(pid, &status, 0, &usage);
      break;
    }
    usleep(20000);
  }
  Measure m;
  m.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  m.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  m.peakMB = static_cast<double>(std::stol(PXFileManager::readFile(folder + "/peak-kb").value_or("0"))) / 1024.0;
  m.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return m;
}

uint64_t jsonBytesOf(const std::string& sketch) {
  uint64_t bytes = 0;
  for (const auto& name : PXZip::entryNames(sketch).value_or(std::vector<std::string>{}))
    if (PXPathExtension(name) == "json")
      if (auto data = PXZip::readEntry(sketch, name)) bytes += data->size();
  return bytes;
}

void measureDocument(const char* self, Workspace& ws, const std::string& label, const std::string& sketch) {
  const double jsonMB = static_cast<double>(jsonBytesOf(sketch)) / 1e6;
  Measure base = runChild(self, "baseline", sketch, ws.freshFolder());
  Measure inspect = runChild(self, "inspect", sketch, ws.freshFolder());
  std::printf("%-34s json %6.1f MB | baseline %6.2f s (cpu %6.2f) %6.0f MB%s | inspect %6.2f s (cpu %6.2f) %6.0f MB%s"
              " | time x%.2f (cpu x%.2f), peak x%.2f json\n",
              label.c_str(), jsonMB, base.seconds, base.cpuSeconds, base.peakMB, base.ok ? "" : " FAILED",
              inspect.seconds, inspect.cpuSeconds, inspect.peakMB, inspect.ok ? "" : " FAILED",
              base.seconds > 0 ? inspect.seconds / base.seconds : 0,
              base.cpuSeconds > 0 ? inspect.cpuSeconds / base.cpuSeconds : 0, jsonMB > 0 ? inspect.peakMB / jsonMB : 0);
  std::fflush(stdout);
}

// ---- Hostile shapes

std::string serialize(const JsonValue& value) { return PXJsonSerialize(value, false).value_or("{}"); }

std::string manyArtboardsDocument(const Workspace& ws, size_t count) {
  JsonArray layers;
  JsonObject listed;
  layers.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    std::string id = "AB-" + std::to_string(i);
    layers.push_back(JsonObject{{"_class", "artboard"}, {"do_objectID", id}, {"name", "Artboard " + std::to_string(i)},
                                {"isVisible", true}, {"frame", JsonObject{{"x", i}, {"y", 0}, {"width", 1}, {"height", 1}}},
                                {"layers", JsonArray()}});
    listed[id] = JsonObject{{"name", "Artboard " + std::to_string(i)}};
  }
  JsonObject page{{"_class", "page"}, {"do_objectID", "PAGE"}, {"name", "Page"}, {"layers", std::move(layers)}};
  JsonObject document{{"_class", "document"}, {"pages", JsonArray{JsonObject{{"_ref", "pages/PAGE"}}}}};
  JsonObject meta{{"pagesAndArtboards", JsonObject{{"PAGE", JsonObject{{"name", "Page"}, {"artboards", listed}}}}}};
  std::string path = ws / "many-artboards.sketch";
  PXZip::zipEntries({{"document.json", serialize(document)}, {"meta.json", serialize(meta)}, {"user.json", "{}"},
                     {"pages/PAGE.json", serialize(page)}, {"images/", ""}, {"previews/", ""}},
                    path);
  return path;
}

std::string manyEntriesDocument(const Workspace& ws, const std::string& source, size_t extra) {
  std::vector<std::pair<std::string, std::string>> entries;
  for (const auto& name : PXZip::entryNames(source).value_or(std::vector<std::string>{}))
    entries.emplace_back(name, PXZip::readEntry(source, name).value_or(""));
  for (size_t i = 0; i < extra; ++i) entries.emplace_back("images/tiny-" + std::to_string(i) + ".bin", "x");
  std::string path = ws / "many-entries.sketch";
  PXZip::zipEntries(entries, path);
  return path;
}

std::vector<int> parseCopies(const char* text) {
  std::vector<int> copies;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, ',');) copies.push_back(std::stoi(part));
  return copies;
}

}  // namespace

int main(int argc, char** argv) {
  PXLogSetLevelMask(PXLogLevelError);
  if (argc == 5 && std::strcmp(argv[1], "--child") == 0) {
    std::string mode = argv[2];
    if (mode == "baseline") return childBaseline(argv[3], std::string(argv[4]) + "/unzipped");
    if (mode == "inspect") return childInspect(argv[3], argv[4]);
    return 2;
  }
  if (argc == 4 && std::strcmp(argv[1], "--make") == 0) {  // keeps one generated document, for profiling
    const std::string kit = PXAppendingPathComponent(PLEXA_CORPUS_DIR, "infor-ids-design-kit-s53.sketch");
    bench::makeBigDocument(kit, argv[3], jsonBytesOf(kit) * static_cast<uint64_t>(std::stoi(argv[2])));
    return 0;
  }
  if (argc == 3 && std::strcmp(argv[1], "--make-shapes") == 0) {  // keeps the two hostile documents, for profiling
    Workspace ws;
    const std::string kit = PXAppendingPathComponent(PLEXA_CORPUS_DIR, "infor-ids-design-kit-s53.sketch");
    PXFileManager::moveItem(manyArtboardsDocument(ws, 100000), std::string(argv[2]) + "/many-artboards.sketch");
    PXFileManager::moveItem(manyEntriesDocument(ws, kit, 20000), std::string(argv[2]) + "/many-entries.sketch");
    return 0;
  }
  std::vector<int> copies{1, 3, 6, 12};
  bool corpus = true, shapes = true;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--copies") == 0 && i + 1 < argc) copies = parseCopies(argv[++i]);
    if (std::strcmp(argv[i], "--skip-corpus") == 0) corpus = false;
    if (std::strcmp(argv[i], "--skip-shapes") == 0) shapes = false;
    if (std::strcmp(argv[i], "--time-limit") == 0 && i + 1 < argc) gTimeLimit = std::chrono::seconds(std::stoi(argv[++i]));
  }
  const char* self = "/proc/self/exe";
  std::string exe = std::filesystem::read_symlink(self).string();
  Workspace ws;
  const std::string kit = PXAppendingPathComponent(PLEXA_CORPUS_DIR, "infor-ids-design-kit-s53.sketch");
  const uint64_t kitJson = jsonBytesOf(kit);
  for (int n : copies) {
    auto big = bench::makeBigDocument(kit, ws / ("kit-x" + std::to_string(n) + ".sketch"), kitJson * n);
    measureDocument(exe.c_str(), ws, "s53 kit x" + std::to_string(big.copies), big.path);
    PXFileManager::removeItem(big.path);
  }
  if (corpus)
    for (const char* name : {"infor-ids-design-kit-s48.sketch", "tailwindcss-kit-s70.sketch",
                             "bulldog-dash-shadows-s46.sketch", "infor-ids-design-kit-s53.sketch"})
      measureDocument(exe.c_str(), ws, name, PXAppendingPathComponent(PLEXA_CORPUS_DIR, name));
  if (shapes) {
    measureDocument(exe.c_str(), ws, "one page, 100,000 artboards 1x1", manyArtboardsDocument(ws, 100000));
    measureDocument(exe.c_str(), ws, "s53 + 20,000 tiny entries", manyEntriesDocument(ws, kit, 20000));
  }
  return 0;
}
