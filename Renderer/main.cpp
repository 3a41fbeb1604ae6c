// plexa-sketchtool: renders Sketch documents with the command lines and
// output lines of Sketch's own command-line tool, so the extractor drives it
// as it would drive Sketch's.

#include "AllocatorTuning.h"
#include "Log.h"
#include "SketchDocument.h"
#include "SketchToolCommand.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int kExitUsage = 64;

const char* kUsage =
    "Usage: plexa-sketchtool <command> [arguments]\n"
    "\n"
    "Commands:\n"
    "  export artboards FILE --output=DIR [--items=ID,...] [--save-for-web=YES|NO] [--scale=S]\n"
    "                        [--formats=png|jpg] [--compression=C] [--use-id-for-name=YES|NO]\n"
    "      One image per artboard or symbol master, named after its ID (or its name),\n"
    "      with @<S>x before the extension when S is not 1. No --items: every artboard.\n"
    "  export layers FILE --output=DIR --items=ID,... [--save-for-web=YES|NO] [--compression=C]\n"
    "                     [--use-id-for-name=YES|NO]\n"
    "      One image per export format set on each layer, at the format's size, named\n"
    "      after the layer's ID (or name) with the format's prefix or suffix.\n"
    "  export pages FILE --output=DIR [--items=PAGE_ID,...] [--scale=S] [--formats=png|jpg]\n"
    "      Everything on each page, over the union of its top-level layers.\n"
    "  metadata FILE\n"
    "      The document's meta.json.\n"
    "  --help\n"
    "      This text.\n"
    "\n"
    "Output: one \"Exported <name>\" line per file written; any other line is an error about\n"
    "one item, and the other items are still exported. Images are at most 100 megapixels.\n";

void say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

int usageError(const std::string& message) {
  std::fprintf(stderr, "plexa-sketchtool: %s\n\n%s", message.c_str(), kUsage);
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace plexa::render;
  plexa::PXLogSetLevelMask(plexa::PXLogLevelWarning);
  plexa::PXKeepFreedMemoryForReuse();
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usageError("no command given");
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (args[0] == "metadata") {
    if (args.size() != 2) return usageError("metadata takes one document");
    std::string error;
    auto text = documentMetadata(args[1], &error);
    if (!text) {
      std::fprintf(stderr, "plexa-sketchtool: %s: %s\n", args[1].c_str(), error.c_str());
      return 1;
    }
    say(*text);
    return 0;
  }
  if (args[0] != "export") return usageError("unknown command " + args[0]);
  std::string error;
  auto request = parseExportArguments({args.begin() + 1, args.end()}, &error);
  if (!request) return usageError(error);
  // The document is left for the exit to reclaim: taking its pages and
  // scenes apart would cost more than the exit itself.
  // Held by a static so that leak checkers see it as still reachable.
  static auto* document = new std::unique_ptr<SketchDocument>();
  return runExport(*request, say, *document);
}
