#include "PXSketchOpenFormatReader.h"
#include "Zip.h"
#include "Files.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

int main(int argc, char** argv) {
  CLI::App app{"plexa-extract: turn a Sketch document into upload-ready material"};
  std::string input;
  bool listArtboards = false;
  app.add_option("file", input, "the .sketch document")->required();
  app.add_flag("--list-artboards", listArtboards, "print the artboard IDs and names in display order");
  CLI11_PARSE(app, argc, argv);
  if (!listArtboards) return 0;
  std::string folder = plexa::PXFileManager::makeTemporaryDirectory("plexa-list");
  auto result = plexa::PXZip::extractAll(input, folder);
  if (!result.ok) {
    fmt::print(stderr, "plexa-extract: {}: {}\n", input, result.error);
    plexa::PXFileManager::removeItem(folder);
    return 1;
  }
  plexa::PXSketchOpenFormatReader reader(folder);
  for (const auto& id : reader.sortedArtboardIDs()) fmt::print("{}\n", id);
  plexa::PXFileManager::removeItem(folder);
  return 0;
}
