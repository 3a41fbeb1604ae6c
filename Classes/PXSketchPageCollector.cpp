#include "PXSketchPageCollector.h"

#include "Json.h"
#include "PathString.h"

#include <optional>
#include <string>

namespace plexa {

namespace {

constexpr std::string_view kPagesFolder = "pages/";
constexpr std::string_view kPageExtension = ".json";

// "pages/<ID>.json" with a plain file name for ID; nullopt for anything else.
std::optional<std::string> pageIDOf(const std::string& entryName) {
  // The folder ends in "/" and the extension starts with ".", so the two never overlap.
  if (!entryName.starts_with(kPagesFolder) || !entryName.ends_with(kPageExtension)) return std::nullopt;
  std::string id = entryName.substr(kPagesFolder.size(), entryName.size() - kPagesFolder.size() - kPageExtension.size());
  if (!PXIsPlainFileName(id)) return std::nullopt;
  return id;
}

}  // namespace

PXZipEntryObserver PXSketchPageCollector::observer() {
  return [this](const std::string& entryName, std::string_view bytes) { add(entryName, bytes); };
}

void PXSketchPageCollector::add(const std::string& entryName, std::string_view bytes) {
  auto pageID = pageIDOf(entryName);
  if (!pageID) return;
  auto page = PXJsonParseObjectIntoOwnArena(bytes, nullptr, pool_);
  if (!page) return;
  std::lock_guard lock(mutex_);
  pages_[*pageID] = std::move(page);
}

PXSketchOpenFormatReader::PageMap PXSketchPageCollector::takePages() {
  std::lock_guard lock(mutex_);
  return std::move(pages_);
}

}  // namespace plexa
