// Stands in for Sketch with the PXSketchLauncher plug-in, and for sketchtool's
// "run" command that drives it. It reads the same request files and answers
// with the same distributed notifications as the plug-in.
//
//   fake-sketch app                   what "open -a Sketch" starts: goes to
//                                     the background, announces start-up, ends
//   fake-sketch run PLUGIN COMMAND    COMMAND is openDocument, detachDocument,
//                                     detachDocumentAsyncStart or
//                                     detachDocumentAsyncEnd
//   fake-sketch detach-worker PLUGIN  the background half of the asynchronous
//                                     detach
//
// Detaching uses the library's JSON detacher on an unzipped copy and zips the
// result to "saveAsPath" (or over "filePath" with "saveAfterDetach"). Progress
// is reported per step: will-detach (0 of 4), progress 1..4 of 4, did-detach
// (4 of 4), each with "file" equal to the configuration's "filePath".
// FAKE_SKETCH_LOG, when set, names a file that gets one line per invocation.

#include "Files.h"
#include "Json.h"
#include "Notifications.h"
#include "PXSymbolDetacherV2.h"
#include "PathString.h"
#include "Zip.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

using namespace plexa;

namespace {

constexpr int kSteps = 4;

void record(const std::string& line) {
  const char* log = std::getenv("FAKE_SKETCH_LOG");
  if (log && *log) std::ofstream(log, std::ios::app) << line << "\n";
}

std::string requestFolder(const std::string& plugin) { return plugin + "/Contents/Sketch"; }

std::optional<JsonObject> readRequest(const std::string& path) {
  auto text = PXFileManager::readFile(path);
  auto value = text ? PXJsonParse(*text) : std::nullopt;
  if (!value || !value->is_object()) {
    std::fprintf(stderr, "fake-sketch: no usable request at %s\n", path.c_str());
    return std::nullopt;
  }
  return value->as_object();
}

void post(const char* name, const std::optional<std::string>& object = std::nullopt,
          const std::optional<JsonObject>& userInfo = std::nullopt) {
  PXDistributedNotificationCenter::defaultCenter()->postNotificationName(name, object, userInfo);
}

void postDetach(const char* name, const std::string& file, int index) {
  post(name, std::string("PlexaExtract"), JsonObject{{"file", file}, {"index", index}, {"count", kSteps}});
}

bool isRegularFile(const std::string& path) {
  bool isDirectory = false;
  return PXFileManager::fileExists(path, &isDirectory) && !isDirectory;
}

int openDocument(const std::string& plugin) {
  auto request = readRequest(requestFolder(plugin) + "/PXSketchLauncher-openDocument.json");
  JsonValue value = request ? JsonValue(*request) : JsonValue();
  auto filePath = PXJsonTextFor(&value, "filePath");
  bool found = filePath && isRegularFile(std::string(*filePath));
  post(found ? "PXSketchLauncherOpenDocumentSucceedNotification" : "PXSketchLauncherOpenDocumentNotFoundNotification");
  std::printf("openDocument: %s\n", found ? "opened" : "not found");
  return 0;
}

// The document's own detach, step by step, on an unzipped copy.
bool detachInto(const JsonObject& config, const std::string& filePath, const std::string& folder) {
  JsonValue value(config);
  auto method = PXJsonTextFor(&value, "detachMethod").value_or("all");
  auto saveAsPath = PXJsonTextFor(&value, "saveAsPath");
  bool saveAfterDetach = PXJsonBoolFor(&value, "saveAfterDetach").value_or(false);

  auto unzipped = PXZip::extractAll(filePath, folder);
  if (!unzipped.ok) {
    std::fprintf(stderr, "fake-sketch: cannot open %s: %s\n", filePath.c_str(), unzipped.error.c_str());
    return false;
  }
  auto detacher = PXSymbolDetacherV2::detacherWithUrl(folder);
  if (method == "selection") {
    std::set<std::string> ids;
    if (auto array = PXJsonArrayFor(&value, "detachingArtboardIds"))
      for (const auto& id : *array)
        if (id.is_string()) ids.insert(std::string(id.as_string()));
    detacher->setDetachingArtboardIds(std::move(ids));
  }
  postDetach("PlexaExtractSymbolDetacherWillDetachNotification", filePath, 0);
  if (!detacher->loadDocument()) return false;
  postDetach("PlexaExtractSymbolDetacherProgressNotification", filePath, 1);
  if (method != "none") {
    detacher->findSymbols();
    postDetach("PlexaExtractSymbolDetacherProgressNotification", filePath, 2);
    detacher->detachSymbols();
  } else {
    postDetach("PlexaExtractSymbolDetacherProgressNotification", filePath, 2);
  }
  postDetach("PlexaExtractSymbolDetacherProgressNotification", filePath, 3);
  detacher->savePages();
  postDetach("PlexaExtractSymbolDetacherProgressNotification", filePath, 4);
  if (saveAsPath && !saveAsPath->empty()) {
    detacher->saveToUrl(std::string(*saveAsPath));
  } else if (saveAfterDetach) {
    detacher->saveToUrl(filePath);
  }
  postDetach("PlexaExtractSymbolDetacherDidDetachNotification", filePath, kSteps);
  return true;
}

int detachDocument(const std::string& plugin) {
  auto config = readRequest(requestFolder(plugin) + "/PXSymbolDetacher.json");
  JsonValue value = config ? JsonValue(*config) : JsonValue();
  auto filePath = PXJsonTextFor(&value, "filePath");
  if (!filePath) return 1;
  std::string folder = PXFileManager::makeTemporaryDirectory("fake-sketch");
  bool ok = detachInto(*config, std::string(*filePath), folder);
  PXFileManager::removeItem(folder);
  std::printf("detach %s\n", ok ? "done" : "failed");
  return ok ? 0 : 1;
}

// Returns at once, as the plug-in's asynchronous start does; the worker's
// output goes nowhere, so the caller's pipe closes when this process ends.
int startDetachWorker(const std::string& plugin) {
  const char* self = "/proc/self/exe";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int fd = 0; fd <= 2; ++fd)
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  std::string worker = "detach-worker";
  char* argv[] = {const_cast<char*>(self), worker.data(), const_cast<char*>(plugin.c_str()), nullptr};
  pid_t pid = 0;
  int failed = posix_spawn(&pid, self, &actions, &attributes, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  std::printf("detach %s\n", failed ? "could not start" : "started");
  return failed ? 1 : 0;
}

// Sketch comes up in the background, as after "open -a Sketch".
int launchApp() {
  pid_t pid = fork();
  if (pid < 0) return 1;
  if (pid > 0) return 0;
  setsid();
  int null = open("/dev/null", O_RDWR);
  for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  post("PXSketchLauncherOnStartupNotification");
  return 0;
}

int usage() {
  std::fprintf(stderr, "usage: fake-sketch app | run PLUGIN COMMAND | detach-worker PLUGIN\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usage();
  std::string line;
  for (const auto& a : args) line += (line.empty() ? "" : " ") + a;
  record(line);

  if (args[0] == "app" && args.size() == 1) return launchApp();
  if (args[0] == "detach-worker" && args.size() == 2) return detachDocument(args[1]);
  if (args[0] != "run" || args.size() != 3) return usage();
  const std::string& plugin = args[1];
  const std::string& command = args[2];
  if (command == "openDocument") return openDocument(plugin);
  if (command == "detachDocument") return detachDocument(plugin);
  if (command == "detachDocumentAsyncStart") return startDetachWorker(plugin);
  if (command == "detachDocumentAsyncEnd") {
    std::printf("detach finished\n");
    return 0;
  }
  std::fprintf(stderr, "fake-sketch: unknown command %s\n", command.c_str());
  return 2;
}
