// plexa-extract: the command-line host. Drives one extractor on the main
// queue, writing straight into the user's folder, and shows progress.

#include "ChildErrorRelay.h"
#include "ConsoleLog.h"
#include "DetachedCopy.h"
#include "ExtractRun.h"
#include "Files.h"
#include "Log.h"
#include "Options.h"
#include "PathString.h"
#include "ProgressReporter.h"
#include "PXSketchOpenFormatReader.h"
#include "PXSketchPageCollector.h"
#include "RunCheck.h"
#include "RunFootprint.h"
#include "RunOutcome.h"
#include "Signals.h"
#include "Summary.h"
#include "Terminal.h"
#include "Zip.h"

#include <fmt/format.h>

#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <unistd.h>

using namespace plexa;

namespace {

using namespace plexa::cli;

int fail(int code, const std::string& path, const std::string& reason) {
  fmt::print(stderr, "plexa-extract: {}: {}\n", path, reason);
  return code;
}

// A missing, unreadable or non-file input is reported before anything starts.
std::optional<std::string> inputProblem(const std::string& path) {
  bool isDirectory = false;
  if (!PXFileManager::fileExists(path, &isDirectory)) return "no such file";
  if (isDirectory) return "is a directory, not a .sketch file";
  if (::access(path.c_str(), R_OK) != 0) return "cannot be read (permission denied)";
  return std::nullopt;
}

int listArtboards(const Options& options) {
  if (auto problem = sketchDocumentProblem(options.input)) return fail(kExitInput, options.input, *problem);
  std::string error;
  std::string folder = RunFootprint::shared().makeTemporaryFolder("plexa-list", &error);
  if (folder.empty()) return fail(kExitInput, "temporary folder", error);
  PXSketchPageCollector pages;  // parsed as they are unzipped, not read back from the folder
  auto result = PXZip::extractAll(options.input, folder, {}, {}, pages.observer());
  int code = kExitOK;
  if (!result.ok) {
    code = fail(kExitInput, options.input, "could not be unzipped: " + result.error);
  } else {
    try {
      PXSketchOpenFormatReader reader(folder);
      reader.adoptPages(pages.takePages());
      for (const auto& id : reader.sortedArtboardIDs()) {
        auto artboard = reader.artboardByID(id);
        auto text = [&](const char* key) {
          return artboard ? PXJsonText(artboard->if_contains(key)).value_or("") : std::string_view();
        };
        fmt::print("{}\t{}\t{}\n", id, text("name"), text("_class"));
      }
      // A short listing is still buffered: its write errors show only here.
      if (std::fflush(stdout) != 0) throw std::system_error(errno, std::generic_category(), "cannot write to file");
    } catch (const PXSketchDocumentFileMissing& e) {
      code = fail(kExitInput, options.input, "not a Sketch document: " + PXLastPathComponent(e.what()) + " is missing");
    } catch (const std::system_error& e) {
      // A reader that has seen enough (a pipe into head) ends the listing as
      // SIGPIPE would end other tools; any other write error is reported.
      code = e.code() == std::errc::broken_pipe ? kExitSignalBase + SIGPIPE
                                                : fail(kExitInput, "standard output", e.what());
    }
  }
  RunFootprint::shared().remove(folder);
  return code;
}

int saveDetached(const Options& options) {
  auto result = saveDetachedCopy(options);
  fmt::print(stderr, "{}{}\n", result.exitCode == kExitOK ? "" : "plexa-extract: ", result.message);
  return result.exitCode;
}

int extract(const Options& options, ProgressReporter& reporter, ConsoleLog& log) {
  RunOutcome outcome = runExtraction(options, reporter, &log);
  reporter.finish();
  reporter.result(outcome);
  fmt::print(stderr, "{}", summaryText(outcome));
  return outcome.exitCode;
}

// Without TZ, the C library looks at /etc/localtime again on every
// local-time conversion, and the zip library converts the time of every
// entry each time an archive is opened: a document of many entries paid a
// file lookup per entry and open. Naming the same zone once spares that.
void fixLocalTimeZone() {
  const char* zone = std::getenv("TZ");
  if (!zone) ::setenv("TZ", ":/etc/localtime", 0);
}

}  // namespace

int main(int argc, char** argv) {
  fixLocalTimeZone();
  SignalGuard::install();
  auto parsed = cli::parseOptions(argc, argv);
  if (const int* code = std::get_if<int>(&parsed)) return *code;
  const Options& options = std::get<Options>(parsed);
  bool terminal = PXIsTerminal(PXStandardStream::error);
  cli::ProgressReporter reporter(cli::progressStyleFromName(options.progress, terminal));
  cli::ConsoleLog log(options.verbosity, cli::colorWanted(options.color, terminal, std::getenv("NO_COLOR")),
                      [&reporter](const std::string& line) { reporter.printLine(line); });
  log.install();
  PXChildErrorRelay childErrors([&log](const std::string& line) { log.writeChildLine(line); });
  if (auto problem = inputProblem(options.input)) return fail(kExitInput, options.input, *problem);
  if (options.listArtboards) return listArtboards(options);
  if (!options.saveDetached.empty()) return saveDetached(options);
  if (options.output.empty()) {
    fmt::print(stderr, "plexa-extract: an output folder is required (-o OUT)\n");
    return kExitUsage;
  }
  return extract(options, reporter, log);
}
