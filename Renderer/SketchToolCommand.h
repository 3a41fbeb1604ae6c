#pragma once
// The commands of plexa-sketchtool, apart from argument reading: export
// artboards, layers and pages of a document into a folder, naming the files
// as Sketch's tool does and reporting one "Exported <name>" line per file, or
// one error line per item that could not be drawn.

#include "Scene.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plexa::render {

class SketchDocument;

enum class ExportKind { Artboards, Layers, Pages };

struct ExportRequest {
  ExportKind kind = ExportKind::Artboards;
  std::string document;
  std::string output;
  std::optional<std::vector<std::string>> items;  // absent: everything of that kind
  bool saveForWeb = false;
  double scale = 1;
  std::string format = "png";
  double compression = 0.9;
  bool useIDForName = false;
};

// Reads the arguments after "export": the kind, the document, then
// "--name=value" options in any order. nullopt with a message on error.
std::optional<ExportRequest> parseExportArguments(const std::vector<std::string>& args, std::string* error);

// The most pixels one exported image may have.
inline constexpr long long kMaxImagePixels = 100'000'000;

// Each output line (without its newline) goes to `say`. Returns 0 when every
// item was exported, 1 when any was not.
int runExport(const ExportRequest& request, const std::function<void(const std::string&)>& say);
// The same, handing the opened document to `keep` instead of freeing it: a
// process that exits straight after need not take its JSON apart.
int runExport(const ExportRequest& request, const std::function<void(const std::string&)>& say,
              std::unique_ptr<SketchDocument>& keep);

// `metadata`: the document's meta.json, pretty-printed. nullopt when unreadable.
std::optional<std::string> documentMetadata(const std::string& document, std::string* error);

// File names.
// "" at scale 1, else "@<scale>x" with the scale in its shortest form.
std::string scaleSuffix(double scale);
// A layer's file for one export format: the format's name before or after
// the base name; with IDs as names the format name loses its slashes.
std::string layerFileName(const std::string& base, const ExportFormat& format, bool useIDForName);

}  // namespace plexa::render
