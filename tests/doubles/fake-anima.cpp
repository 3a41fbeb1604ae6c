// Stands in for the Anima plug-in on the session bus: answers one detach
// request the way Anima does, with a finish notification naming the written copy.
//
//   fake-anima [--answer requested|missing|elsewhere:PATH] [--record FILE]
//
// requested  copies "fileName" to the requested "outputFilePath" and names it
// missing    names the requested path without writing anything there
// elsewhere  copies to PATH instead and names PATH
// Once listening it posts "PXFakeAnimaReady" (object "fake-anima"), so a test
// knows its request will be heard. --record writes the request's user info to
// FILE. Requests without "fileName", "outputFilePath" and "artboardIDs" are
// ignored. Exits 0 once it has answered, 1 after 20 s or on bad arguments.

#include "Files.h"
#include "Json.h"
#include "MainQueue.h"
#include "Notifications.h"

#include <chrono>
#include <cstdio>
#include <string>

using namespace plexa;

int main(int argc, char** argv) {
  std::string answer = "requested", recordPath;
  bool usable = argc % 2 == 1;
  for (int i = 1; usable && i < argc; i += 2) {
    std::string option = argv[i];
    if (option == "--answer") answer = argv[i + 1];
    else if (option == "--record") recordPath = argv[i + 1];
    else usable = false;
  }
  bool elsewhere = answer.rfind("elsewhere:", 0) == 0;
  if (!usable || (!elsewhere && answer != "requested" && answer != "missing")) {
    std::fprintf(stderr, "usage: fake-anima [--answer requested|missing|elsewhere:PATH] [--record FILE]\n");
    return 1;
  }
  auto center = PXDistributedNotificationCenter::defaultCenter();
  bool answered = false;
  auto observer = center->addObserver(
      "MPSyncAnimaExporterExportNotification", std::nullopt, [&](const PXNotification& note) {
        const JsonValue userInfo = note.userInfo ? JsonValue(*note.userInfo) : JsonValue();
        auto fileName = PXJsonTextFor(&userInfo, "fileName");
        auto outputFilePath = PXJsonTextFor(&userInfo, "outputFilePath");
        if (!fileName || !outputFilePath || !PXJsonArrayFor(&userInfo, "artboardIDs")) return;
        if (!recordPath.empty())
          PXFileManager::writeFileAtomically(recordPath, PXJsonSerialize(userInfo, true).value_or(""));
        std::string answerPath = elsewhere ? answer.substr(10) : std::string(*outputFilePath);
        if (answer != "missing") {
          PXFileManager::removeItem(answerPath);
          PXFileManager::copyItem(std::string(*fileName), answerPath);
        }
        center->postNotificationName("MPSyncAnimaExporterFinishNotification", std::string("com.animaapp.stc-sketch-plugin"),
                                     JsonObject{{"outputFilePath", answerPath}});
        answered = true;
      });
  if (!observer) return 1;
  center->postNotificationName("PXFakeAnimaReady", std::string("fake-anima"));
  return PXMainQueue::shared().runUntil([&] { return answered; }, std::chrono::seconds(20)) ? 0 : 1;
}
