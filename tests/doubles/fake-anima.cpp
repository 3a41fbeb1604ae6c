// Stands in for the Anima plug-in on the session bus: answers detach requests
// the way Anima does, with a finish notification naming the written copy.
//
//   fake-anima [--answer requested|missing|elsewhere:PATH] [--record FILE]
//              [--requests N] [--timeout-ms T]
//
// requested  copies "fileName" to the requested "outputFilePath" and names it
// missing    names the requested path without writing anything there
// elsewhere  copies to PATH instead and names PATH
// Once listening it posts "PXFakeAnimaReady" (object "fake-anima"), so a test
// knows its request will be heard. --record writes each valid request's user
// info to FILE (the last one wins). Exits 0 after N answered requests, 1 on
// time-out or bad arguments.

#include "Files.h"
#include "Json.h"
#include "Log.h"
#include "MainQueue.h"
#include "Notifications.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace plexa;

namespace {

struct Options {
  std::string answer = "requested";
  std::string elsewherePath;
  std::string recordPath;
  int requests = 1;
  int timeoutMs = 20000;
};

bool parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (i + 1 >= argc) return false;
    std::string value = argv[++i];
    if (arg == "--answer") {
      if (value.rfind("elsewhere:", 0) == 0) {
        options.answer = "elsewhere";
        options.elsewherePath = value.substr(10);
      } else if (value == "requested" || value == "missing") {
        options.answer = value;
      } else {
        return false;
      }
    } else if (arg == "--record") {
      options.recordPath = value;
    } else if (arg == "--requests") {
      options.requests = std::atoi(value.c_str());
    } else if (arg == "--timeout-ms") {
      options.timeoutMs = std::atoi(value.c_str());
    } else {
      return false;
    }
  }
  return options.requests > 0 && options.timeoutMs > 0;
}

bool copyReplacing(const std::string& from, const std::string& to) {
  PXFileManager::removeItem(to);
  std::string error;
  if (PXFileManager::copyItem(from, to, &error)) return true;
  std::fprintf(stderr, "fake-anima: cannot copy %s to %s: %s\n", from.c_str(), to.c_str(), error.c_str());
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv, options)) {
    std::fprintf(stderr, "usage: fake-anima [--answer requested|missing|elsewhere:PATH] [--record FILE] "
                         "[--requests N] [--timeout-ms T]\n");
    return 1;
  }
  auto center = PXDistributedNotificationCenter::defaultCenter();
  int answered = 0;

  auto observer = center->addObserver(
      "MPSyncAnimaExporterExportNotification", std::nullopt, [&](const PXNotification& note) {
        const JsonValue userInfo = note.userInfo ? JsonValue(*note.userInfo) : JsonValue();
        auto fileName = PXJsonTextFor(&userInfo, "fileName");
        auto outputFilePath = PXJsonTextFor(&userInfo, "outputFilePath");
        if (!fileName || !outputFilePath || !PXJsonArrayFor(&userInfo, "artboardIDs")) {
          std::fprintf(stderr, "fake-anima: ignoring a request with incomplete user info\n");
          return;
        }
        if (!options.recordPath.empty()) {
          PXFileManager::writeFileAtomically(options.recordPath, PXJsonSerialize(userInfo, true).value_or(""));
        }
        std::string answerPath(*outputFilePath);
        if (options.answer == "requested") {
          copyReplacing(std::string(*fileName), answerPath);
        } else if (options.answer == "elsewhere") {
          answerPath = options.elsewherePath;
          copyReplacing(std::string(*fileName), answerPath);
        }
        center->postNotificationName("MPSyncAnimaExporterFinishNotification", std::string("com.animaapp.stc-sketch-plugin"),
                                     JsonObject{{"outputFilePath", answerPath}});
        ++answered;
      });
  if (!observer) return 1;
  center->postNotificationName("PXFakeAnimaReady", std::string("fake-anima"));

  bool done = PXMainQueue::shared().runUntil([&] { return answered >= options.requests; },
                                             std::chrono::milliseconds(options.timeoutMs));
  return done ? 0 : 1;
}
