#include "Options.h"

#include "PlexaExtract.h"
#include "PXBuildInfo.h"
#include "RunOutcome.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <iostream>

namespace plexa::cli {

namespace {

constexpr const char* kProgram = "plexa-extract";

// CLI11 runs validators on the text before converting it, so these give the
// user's mistake in plain words instead of a conversion or range message.
std::optional<double> numberIn(const std::string& text) {
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

CLI::Validator greaterThanZero() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        auto value = numberIn(text);
        if (!value) return "\"" + text + "\" is not a number";
        if (*value <= 0) return "must be greater than 0";
        return {};
      },
      "NUMBER > 0");
}

CLI::Validator wholeNumberAtLeastOne() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        uint64_t value = 0;
        auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (ec == std::errc::result_out_of_range) return "is too large";
        if (ec != std::errc() || end != text.data() + text.size()) {
          if (numberIn(text)) return "must be a whole number of at least 1";
          return "\"" + text + "\" is not a number";
        }
        if (value < 1) return "must be a whole number of at least 1";
        return {};
      },
      "COUNT >= 1");
}

std::string exitCodesText() {
  return fmt::format(
      "Exit codes:\n"
      "  {}      everything asked for was written\n"
      "  {}      the document or the output folder cannot be used, or the run failed\n"
      "  {}      bad arguments\n"
      "  {}      the run finished with items missing (they are named)\n"
      "  {}+N  ended by signal N (130 for Ctrl-C)\n",
      int(kExitOK), int(kExitInput), int(kExitUsage), int(kExitPartial), kExitSignalBase);
}

// Flags that steer parsing itself rather than the run.
struct ParseFlags {
  bool quiet = false, version = false;
};

void describe(CLI::App& app, Options& options, ParseFlags& flags) {
  app.add_option("file", options.input, "the .sketch document (required)");
  app.add_option("-o,--output", options.output,
                 "folder that receives the results; required for extraction (created if missing)");
  app.add_option("--artboards", options.artboards, "only these artboard IDs (comma separated)")->delimiter(',');
  app.add_option("--scale", options.scale, "image scale (default 1)")->check(greaterThanZero());
  app.add_flag("--meta", options.meta, "write the inspect meta and paths files");
  app.add_flag("--images", options.images, "render artboard images with sketchtool");
  app.add_flag("--assets", options.assets, "render the layers' export formats (implies --meta)");
  app.add_flag("--hotspots", options.hotspots, "write prototype hotspot files");
  app.add_flag("--exclude-ignored", options.excludeIgnored, "skip artboards whose names start with \"-\"");
  app.add_option("--detach", options.detach, "how symbols are detached: json (default), plugin, anima or none")
      ->check(CLI::IsMember({"json", "plugin", "anima", "none"}));
  app.add_option("--detach-timeout", options.detachTimeout,
                 "seconds to wait for Sketch or Anima to answer a detach request (default 120)")
      ->check(greaterThanZero());
  app.add_flag("--stable-ids", options.stableIds,
               "give detached layers identifiers that stay the same from run to run");
  app.add_flag("--pretty", options.pretty, "rewrite the unzipped document's JSON indented");
  app.add_option("--sketchtool", options.sketchtool, "sketchtool to run (default: $sketchToolPath, Sketch's own, the bundled plexa-sketchtool, then PATH)");
  app.add_option("--max-concurrent", options.maxConcurrent, "sketchtool runs at once for artboard images (default 4)")
      ->check(wholeNumberAtLeastOne());
  app.add_option("--batch-size", options.batchSize, "artboards per sketchtool run (default 10)")
      ->check(wholeNumberAtLeastOne());
  app.add_option("--progress", options.progress, "progress display: auto (a bar on a terminal), bar, json or none")
      ->check(CLI::IsMember({"auto", "bar", "json", "none"}));
  app.add_option("--color", options.color, "colour in messages: auto (default; off when NO_COLOR is set), always, never")
      ->check(CLI::IsMember({"auto", "always", "never"}));
  auto* verbose = app.add_flag("-v,--verbose", options.verbosity,
                               "more output: -v progress notes, -vv debugging, -vvv everything");
  app.add_flag("-q,--quiet", flags.quiet, "errors only")->excludes(verbose);
  app.add_flag("--list-artboards", options.listArtboards, "print each artboard's ID, name and class in display order");
  app.add_option("--save-detached", options.saveDetached, "write the document with every symbol detached to PATH");
  app.add_flag("--overwrite", options.overwrite,
               "empty a non-empty output folder before the run (without it such a folder is refused)");
  app.add_flag("--version", flags.version, "print the program's and the library's versions");
}

int usageError(std::ostream& err, const std::string& message) {
  err << kProgram << ": " << message << "\n"
      << "Run '" << kProgram << " --help' for the options.\n";
  return kExitUsage;
}

// The first thing CLI11 could not place: an unknown option, or a second file.
std::string unexpectedText(const std::vector<std::string>& remaining) {
  const std::string& first = remaining.front();
  if (first.size() > 1 && first[0] == '-') return "unknown option " + first;
  return "unexpected argument \"" + first + "\" (only one .sketch file is read)";
}

}  // namespace

std::string versionText() {
  std::string what(reinterpret_cast<const char*>(PlexaExtractVersionString));
  while (!what.empty() && (what.back() == '\n' || what.back() == '\r')) what.pop_back();
  if (what.rfind("@(#)", 0) == 0) what.erase(0, 4);
  return fmt::format("{} {}\nPlexaExtract library {:.1f} ({})\n", kProgram, PLEXA_PROJECT_VERSION,
                     PlexaExtractVersionNumber, what);
}

std::variant<Options, int> parseOptions(int argc, const char* const* argv) {
  return parseOptions(argc, argv, std::cout, std::cerr);
}

std::variant<Options, int> parseOptions(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  Options options;
  CLI::App app{"Turns a Sketch document into upload-ready material for design handoff.\n"
               "With no stage flags every stage that can run here runs.",
               kProgram};
  app.allow_extras();
  app.footer(exitCodesText());
  ParseFlags flags;
  describe(app, options, flags);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::ParseError& e) {
    return usageError(err, e.what());
  }
  if (flags.version) {
    out << versionText();
    return kExitOK;
  }
  if (!app.remaining().empty()) return usageError(err, unexpectedText(app.remaining()));
  if (options.input.empty()) return usageError(err, "a .sketch file is required");
  if (flags.quiet) options.verbosity = -1;
  options.verbosity = std::min(options.verbosity, 3);
  return options;
}

}  // namespace plexa::cli
