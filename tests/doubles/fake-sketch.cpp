// Stands in for Sketch with the PXSketchLauncher plug-in, and for sketchtool's
// "run" command that drives it. It reads the same request files and answers
// with the same distributed notifications as the plug-in.
//
//   fake-sketch app                   what "open -a Sketch" starts: goes to
//                                     the background, announces start-up, ends
//   fake-sketch run PLUGIN COMMAND    COMMAND is openDocument, detachDocument,
//                                     detachDocumentAsyncStart (detaches in a
//                                     background copy of itself and returns at
//                                     once) or detachDocumentAsyncEnd
//
// Detaching uses the library's JSON detacher on an unzipped copy ("all"
// symbols, or the "selection" of "detachingArtboardIds") and zips the result
// to "saveAsPath" when given. Progress is reported per step: will-detach
// (0 of 4), progress 1..4 of 4, did-detach (4 of 4), each with "file" equal to
// the configuration's "filePath".
// FAKE_SKETCH_LOG, when set, names a file that gets one line per invocation.

#include "Files.h"
#include "Json.h"
#include "Notifications.h"
#include "PXSymbolDetacherV2.h"
#include "Zip.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace plexa;

namespace {

constexpr int kSteps = 4;

void post(const char* name, const std::optional<std::string>& object = std::nullopt,
          const std::optional<JsonObject>& userInfo = std::nullopt) {
  PXDistributedNotificationCenter::defaultCenter()->postNotificationName(name, object, userInfo);
}

// One of the plug-in's request files; null when missing or not JSON.
JsonValue readRequest(const std::string& plugin, const std::string& name) {
  auto text = PXFileManager::readFile(plugin + "/Contents/Sketch/" + name);
  return (text ? PXJsonParse(*text) : std::nullopt).value_or(JsonValue());
}

// Goes on in the background, as Sketch does: the child leaves the caller's
// session, and its output goes nowhere, so the caller's pipe closes when the
// parent ends. Returns what fork returned.
pid_t forkIntoBackground() {
  pid_t pid = fork();
  if (pid == 0) {
    setsid();
    int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
  }
  return pid;
}

int openDocument(const std::string& plugin) {
  JsonValue request = readRequest(plugin, "PXSketchLauncher-openDocument.json");
  auto filePath = PXJsonTextFor(&request, "filePath");
  bool isDirectory = false;
  bool found = filePath && PXFileManager::fileExists(std::string(*filePath), &isDirectory) && !isDirectory;
  post(found ? "PXSketchLauncherOpenDocumentSucceedNotification" : "PXSketchLauncherOpenDocumentNotFoundNotification");
  std::printf("openDocument: %s\n", found ? "opened" : "not found");
  return 0;
}

// The document's own detach, step by step, on an unzipped copy.
bool detachInto(const JsonValue& config, const std::string& filePath, const std::string& folder) {
  auto step = [&](const char* name, int index) {
    post(name, std::string("PlexaExtract"), JsonObject{{"file", filePath}, {"index", index}, {"count", kSteps}});
  };
  const char* progress = "PlexaExtractSymbolDetacherProgressNotification";
  if (!PXZip::extractAll(filePath, folder).ok) return false;
  auto detacher = PXSymbolDetacherV2::detacherWithUrl(folder);
  if (PXJsonTextFor(&config, "detachMethod") == "selection") {
    std::set<std::string> ids;
    if (auto array = PXJsonArrayFor(&config, "detachingArtboardIds"))
      for (const auto& id : *array)
        if (id.is_string()) ids.insert(std::string(id.as_string()));
    detacher->setDetachingArtboardIds(std::move(ids));
  }
  step("PlexaExtractSymbolDetacherWillDetachNotification", 0);
  if (!detacher->loadDocument()) return false;
  step(progress, 1);
  detacher->findSymbols();
  step(progress, 2);
  detacher->detachSymbols();
  step(progress, 3);
  detacher->savePages();
  step(progress, 4);
  auto saveAsPath = PXJsonTextFor(&config, "saveAsPath");
  if (saveAsPath && !saveAsPath->empty()) detacher->saveToUrl(std::string(*saveAsPath));
  step("PlexaExtractSymbolDetacherDidDetachNotification", kSteps);
  return true;
}

int detachDocument(const std::string& plugin) {
  JsonValue config = readRequest(plugin, "PXSymbolDetacher.json");
  auto filePath = PXJsonTextFor(&config, "filePath");
  if (!filePath) return 1;
  std::string folder = PXFileManager::makeTemporaryDirectory("fake-sketch");
  bool ok = detachInto(config, std::string(*filePath), folder);
  PXFileManager::removeItem(folder);
  std::printf("detach %s\n", ok ? "done" : "failed");
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string line;
  for (const auto& a : args) line += (line.empty() ? "" : " ") + a;
  if (const char* log = std::getenv("FAKE_SKETCH_LOG"); log && *log) std::ofstream(log, std::ios::app) << line << "\n";

  if (args.size() == 1 && args[0] == "app") {
    pid_t pid = forkIntoBackground();
    if (pid != 0) return pid < 0 ? 1 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    post("PXSketchLauncherOnStartupNotification");
    return 0;
  }
  if (args.size() != 3 || args[0] != "run") {
    std::fprintf(stderr, "usage: fake-sketch app | run PLUGIN COMMAND\n");
    return 2;
  }
  const std::string& plugin = args[1];
  const std::string& command = args[2];
  if (command == "openDocument") return openDocument(plugin);
  if (command == "detachDocument") return detachDocument(plugin);
  if (command == "detachDocumentAsyncStart") {
    pid_t pid = forkIntoBackground();
    if (pid == 0) return detachDocument(plugin);
    std::printf("detach %s\n", pid > 0 ? "started" : "could not start");
    return pid > 0 ? 0 : 1;
  }
  if (command == "detachDocumentAsyncEnd") {
    std::printf("detach finished\n");
    return 0;
  }
  std::fprintf(stderr, "fake-sketch: unknown command %s\n", command.c_str());
  return 2;
}
