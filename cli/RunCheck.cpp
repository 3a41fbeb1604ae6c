#include "RunCheck.h"

#include "Files.h"
#include "Json.h"
#include "PlexaExtract.h"
#include "RunOutcome.h"
#include "Zip.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include <unistd.h>

namespace plexa::cli {

namespace {

std::string trimmed(const std::string& text) {
  const char* blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string joinedList(const std::vector<std::string>& items, size_t shown) {
  std::string text;
  for (size_t i = 0; i < items.size() && i < shown; ++i) text += (i ? ", " : "") + items[i];
  if (items.size() > shown) text += fmt::format(" and {} more", items.size() - shown);
  return text;
}

}  // namespace

std::optional<std::string> sketchDocumentProblem(const std::string& path) {
  auto attributes = PXFileManager::attributesOfItem(path);
  if (attributes && attributes->size == 0) return "not a Sketch document: the file is empty";
  std::string error;
  auto names = PXZip::entryNames(path, &error);
  if (!names) return "not a Sketch document: it is not a zip archive (" + error + ")";
  if (std::find(names->begin(), names->end(), "document.json") == names->end())
    return "not a Sketch document: document.json is missing";
  return std::nullopt;
}

DocumentArtboards readDocumentArtboards(const std::string& path) {
  DocumentArtboards artboards;
  auto text = PXZip::readEntry(path, "meta.json");
  auto meta = text ? PXJsonParse(*text) : std::nullopt;
  const auto* pages = meta ? PXJsonObjectFor(&*meta, "pagesAndArtboards") : nullptr;
  if (!pages) return artboards;
  for (const auto& page : *pages) {
    const auto* listed = PXJsonObjectFor(&page.value(), "artboards");
    if (!listed) continue;
    for (const auto& artboard : *listed) {
      std::string id(artboard.key());
      artboards.ids.push_back(id);
      artboards.names[id] = std::string(PXJsonTextFor(&artboard.value(), "name").value_or(""));
    }
  }
  return artboards;
}

ArtboardSelection selectArtboards(const std::vector<std::string>& requested, const DocumentArtboards& document) {
  ArtboardSelection selection;
  if (requested.empty()) return selection;
  std::set<std::string> seen;
  std::vector<std::string> unknown;
  for (const auto& item : requested) {
    std::string id = trimmed(item);
    if (id.empty() || !seen.insert(id).second) continue;
    if (!document.names.contains(id)) unknown.push_back(id);
    selection.ids.push_back(id);
  }
  if (selection.ids.empty()) {
    selection.problem = "--artboards: no artboard ID given";
  } else if (!unknown.empty()) {
    selection.problem = fmt::format("--artboards: the document has no artboard {} (--list-artboards shows its IDs)",
                                    joinedList(unknown, 5));
  }
  return selection;
}

std::optional<std::string> programProblem(const std::string& path) {
  bool isDirectory = false;
  if (!PXFileManager::fileExists(path, &isDirectory)) return "no such file";
  if (isDirectory) return "is a folder, not a program";
  if (::access(path.c_str(), X_OK) != 0) return "is not executable";
  return std::nullopt;
}

std::optional<ToolProblem> sketchToolProblem(const std::string& givenPath, const char* environmentValue,
                                             bool runNeedsTool) {
  if (!givenPath.empty()) {
    if (auto problem = programProblem(givenPath))
      return ToolProblem{kExitUsage, fmt::format("--sketchtool {}: {}", givenPath, *problem)};
    return std::nullopt;
  }
  if (!runNeedsTool) return std::nullopt;
  if (environmentValue && *environmentValue) {
    if (auto problem = programProblem(environmentValue))
      return ToolProblem{kExitUsage, fmt::format("sketchToolPath={} (from the environment): {}", environmentValue,
                                                 *problem)};
    return std::nullopt;
  }
  if (!PlexaExtract::defaultSketchToolPath())
    return ToolProblem{kExitInput, "no sketchtool found: images and assets need one (give --sketchtool PATH)"};
  return std::nullopt;
}

}  // namespace plexa::cli
