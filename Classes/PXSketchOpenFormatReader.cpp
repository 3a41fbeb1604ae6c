#include "PXSketchOpenFormatReader.h"

#include "Files.h"
#include "Log.h"
#include "Parallel.h"
#include "PathString.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <set>

namespace plexa {

namespace {

// Several stages read the same document through readers of their own. The
// parsed files are immutable, so readers share them while any holds one,
// keyed by the file's identity and last change so a rewritten file is never
// served stale.
class ParsedFileCache {
 public:
  static ParsedFileCache& shared() {
    static auto* cache = new ParsedFileCache();  // process-wide, like the files it mirrors
    return *cache;
  }

  PXSketchOpenFormatReader::Dictionary find(const std::string& key) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(key);
    return it == entries_.end() ? nullptr : it->second.lock();
  }

  void store(const std::string& key, const PXSketchOpenFormatReader::Dictionary& parsed) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [](const auto& entry) { return entry.second.expired(); });
    entries_[key] = parsed;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::weak_ptr<const JsonObject>> entries_;
};

std::optional<std::string> identityOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  return fmt::format("{}:{}:{}:{}.{}:{}", path, st.st_dev, st.st_ino, st.st_mtim.tv_sec, st.st_mtim.tv_nsec,
                     st.st_size);
}

// One arena per file is both smaller and faster than a heap allocation per
// node; parsing from the file in chunks spares holding its whole text.
PXSketchOpenFormatReader::Dictionary parseFile(const std::string& path, std::string& error, bool& missing) {
  auto identity = identityOf(path);
  if (identity) {
    if (auto shared = ParsedFileCache::shared().find(*identity)) return shared;
  }
  auto parsed = PXJsonParseFileIntoArena(path, &error, &missing);
  if (!parsed) return nullptr;
  if (!parsed->is_object()) {
    error = "top-level value is not a dictionary";
    return nullptr;
  }
  auto dictionary = std::make_shared<const JsonObject>(std::move(parsed->get_object()));
  if (identity) ParsedFileCache::shared().store(*identity, dictionary);
  return dictionary;
}

std::string removingAll(std::string text, std::string_view what) {
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) text.erase(at, what.size());
  return text;
}


}  // namespace

std::shared_ptr<PXSketchOpenFormatReader> PXSketchOpenFormatReader::folderReaderWithUnzippedSketchFolder(
    const std::string& path) {
  return std::make_shared<PXSketchOpenFormatReader>(path);
}

PXSketchOpenFormatReader::PXSketchOpenFormatReader(std::string rootFolderPath)
    : rootFolderPath_(std::move(rootFolderPath)) {}

std::string PXSketchOpenFormatReader::pathFor(const std::string& relative) const {
  return rootFolderPath_ + "/" + relative;
}

PXSketchOpenFormatReader::Dictionary PXSketchOpenFormatReader::load(Dictionary& cache, const std::string& relativePath,
                                                                    const char* what, Missing missing) {
  std::lock_guard guard(lock_);
  if (cache) return cache;
  std::string path = pathFor(relativePath);
  std::string error;
  bool fileMissing = false;
  auto parsed = parseFile(path, error, fileMissing);
  if (fileMissing) {
    if (missing == Missing::fatal) throw PXSketchDocumentFileMissing(path);
    return nullptr;
  }
  if (!parsed) {
    PXLogVerbose("PXSketchOpenFormatReader.{} error {} {}", what, path, error);
    return nullptr;
  }
  cache = std::move(parsed);
  return cache;
}

PXSketchOpenFormatReader::Dictionary PXSketchOpenFormatReader::metaJSON() {
  return load(cachedMetaJSON_, metaJSONPath, "metaJSON", Missing::absent);
}

PXSketchOpenFormatReader::Dictionary PXSketchOpenFormatReader::documentJSON() {
  return load(cachedDocumentJSON_, documentJSONPath, "documentJSON", Missing::fatal);
}

PXSketchOpenFormatReader::Dictionary PXSketchOpenFormatReader::userJSON() {
  return load(cachedUserJSON_, userJSONPath, "userJSON", Missing::fatal);
}

PXSketchOpenFormatReader::Dictionary PXSketchOpenFormatReader::pageJSONByID(const std::string& pageID) {
  if (!PXIsPlainFileName(pageID)) {  // an ID that could leave the pages folder is no page
    PXLogVerbose("PXSketchOpenFormatReader.pageJSONByID:{} refused: not a plain file name", pageID);
    return nullptr;
  }
  std::lock_guard guard(lock_);
  if (auto it = cachedPages_.find(pageID); it != cachedPages_.end()) return it->second;
  std::string path = pathFor(pagesFolderPath) + "/" + pageID + ".json";
  std::string error;
  bool fileMissing = false;
  auto parsed = parseFile(path, error, fileMissing);
  if (fileMissing) return nullptr;
  if (!parsed) {
    PXLogVerbose("PXSketchOpenFormatReader.pageJSONByID:{} error {} {}", pageID, path, error);
    return nullptr;
  }
  cachedPages_[pageID] = parsed;
  return parsed;
}

bool PXSketchOpenFormatReader::isValid() const {
  bool isDirectory = false;
  bool valid = PXFileManager::fileExists(rootFolderPath_, &isDirectory) && isDirectory;
  for (const auto* relative :
       {&metaJSONPath, &userJSONPath, &documentJSONPath, &imagesFolderPath, &previewsFolderPath, &pagesFolderPath})
    valid = PXFileManager::fileExists(pathFor(*relative)) && valid;
  return valid;
}

void PXSketchOpenFormatReader::adoptPages(const PageMap& pages) {
  std::lock_guard guard(lock_);
  for (const auto& [pageID, page] : pages)
    if (page) cachedPages_[pageID] = page;
}

void PXSketchOpenFormatReader::preloadPages(const std::vector<std::string>& pageIDs) {
  std::vector<std::string> wanted;
  {
    std::lock_guard guard(lock_);
    for (const auto& pageID : pageIDs)
      if (PXIsPlainFileName(pageID) && !cachedPages_.contains(pageID) &&
          std::find(wanted.begin(), wanted.end(), pageID) == wanted.end())
        wanted.push_back(pageID);
  }
  std::vector<Dictionary> parsed(wanted.size());
  PXParallelFor(wanted.size(), [&](size_t i) {
    std::string error;
    bool missing = false;
    try {
      parsed[i] = parseFile(pathFor(pagesFolderPath) + "/" + wanted[i] + ".json", error, missing);
    } catch (const std::exception&) {
      // Out of memory, most likely: pageJSONByID meets it again on its own thread.
    }
  });
  std::lock_guard guard(lock_);
  for (size_t i = 0; i < wanted.size(); ++i)
    if (parsed[i]) cachedPages_.try_emplace(wanted[i], std::move(parsed[i]));
}

// The last page that lists an artboard wins, as a visit of every page would
// find it.
const std::map<std::string, std::string, std::less<>>& PXSketchOpenFormatReader::pageIDIndex(const Dictionary& meta) {
  if (indexedMeta_ == meta) return pageIDByArtboard_;
  pageIDByArtboard_.clear();
  indexedMeta_ = meta;
  const JsonObject* pages = nullptr;
  if (auto it = meta->find("pagesAndArtboards"); it != meta->end()) pages = it->value().if_object();
  for (const auto& page : pages ? *pages : JsonObject()) {
    const auto* artboards = PXJsonObjectFor(&page.value(), "artboards");
    if (!artboards) continue;
    for (const auto& artboard : *artboards) pageIDByArtboard_[std::string(artboard.key())] = std::string(page.key());
  }
  return pageIDByArtboard_;
}

// The last matching top-level layer wins, as a scan of the page would find it.
const PXSketchOpenFormatReader::LayerIndex& PXSketchOpenFormatReader::layerIndex(const std::string& pageID,
                                                                                  const Dictionary& page) {
  auto& entry = layersByPage_[pageID];
  if (entry.first == page) return entry.second;
  entry.first = page;
  entry.second.clear();
  auto it = page->find("layers");
  if (it == page->end() || !it->value().is_array()) return entry.second;
  for (const auto& layer : it->value().get_array()) {
    auto cls = PXJsonTextFor(&layer, "_class");
    auto id = PXJsonTextFor(&layer, "do_objectID");
    if (cls && (*cls == "artboard" || *cls == "symbolMaster") && id)
      entry.second.insert_or_assign(std::string(*id), &layer.get_object());
  }
  return entry.second;
}

std::optional<std::string> PXSketchOpenFormatReader::pageIDByArtboardID(const std::string& artboardID) {
  auto meta = metaJSON();
  if (!meta) return std::nullopt;
  std::lock_guard guard(indexLock_);
  const auto& index = pageIDIndex(meta);
  auto it = index.find(artboardID);
  if (it == index.end()) return std::nullopt;
  return it->second;
}

PXSketchOpenFormatReader::Dictionary PXSketchOpenFormatReader::artboardByID(const std::string& artboardID) {
  auto pageID = pageIDByArtboardID(artboardID);
  if (!pageID) return nullptr;
  auto page = pageJSONByID(*pageID);
  if (!page) return nullptr;
  std::lock_guard guard(indexLock_);
  const auto& index = layerIndex(*pageID, page);
  auto it = index.find(artboardID);
  if (it == index.end()) return nullptr;
  return Dictionary(page, it->second);
}

std::optional<JsonObject> PXSketchOpenFormatReader::artboardJSONByID(const std::string& artboardID) {
  auto artboard = artboardByID(artboardID);
  if (!artboard) return std::nullopt;
  return JsonObject(*artboard, boost::json::storage_ptr());  // a plain heap copy, not one in the page's arena
}

int64_t PXSketchOpenFormatReader::pageIndexByPageID(const std::optional<std::string>& pageID) {
  if (!pageID) return NotFound;
  auto document = documentJSON();
  if (!document) return NotFound;
  auto it = document->find("pages");
  if (it == document->end() || !it->value().is_array()) return NotFound;
  int64_t index = 0;
  for (const auto& ref : it->value().get_array()) {
    // The "_ref" values form the list searched; entries without one are not in it.
    auto text = PXJsonTextFor(&ref, "_ref");
    if (!text) continue;
    if (text->find(*pageID) != std::string_view::npos) return index;
    ++index;
  }
  return NotFound;
}

std::vector<std::string> PXSketchOpenFormatReader::artboardIDs() {
  std::vector<std::string> ids;
  auto meta = metaJSON();
  if (!meta) return ids;
  auto it = meta->find("pagesAndArtboards");
  if (it == meta->end() || !it->value().is_object()) return ids;
  for (const auto& page : it->value().get_object()) {
    const auto* artboards = PXJsonObjectFor(&page.value(), "artboards");
    if (!artboards) continue;
    for (const auto& artboard : *artboards) ids.emplace_back(artboard.key());
  }
  return ids;
}

std::vector<std::string> PXSketchOpenFormatReader::sortedArtboardIDs() {
  auto all = artboardIDs();
  std::set<std::string, std::less<>> remaining(all.begin(), all.end());
  std::vector<std::string> sorted;
  auto document = documentJSON();
  const JsonArray* pages = nullptr;
  if (document) {
    if (auto it = document->find("pages"); it != document->end()) pages = it->value().if_array();
  }
  std::vector<std::string> pageIDs;
  for (const auto& ref : pages ? *pages : JsonArray())
    if (auto refText = PXJsonTextFor(&ref, "_ref")) pageIDs.push_back(removingAll(std::string(*refText), "pages/"));
  preloadPages(pageIDs);
  for (const auto& ref : pages ? *pages : JsonArray()) {
    auto refText = PXJsonTextFor(&ref, "_ref");
    if (!refText) continue;
    auto page = pageJSONByID(removingAll(std::string(*refText), "pages/"));
    if (!page) continue;
    auto it = page->find("layers");
    if (it == page->end() || !it->value().is_array()) continue;
    // Topmost layer first: the page's layers in reverse.
    const size_t pageStart = sorted.size();
    for (const auto& layer : it->value().get_array()) {
      auto id = PXJsonTextFor(&layer, "do_objectID");
      if (!id) continue;
      auto found = remaining.find(*id);
      if (found == remaining.end()) continue;
      sorted.push_back(*found);
      remaining.erase(found);
    }
    std::reverse(sorted.begin() + static_cast<std::ptrdiff_t>(pageStart), sorted.end());
  }
  sorted.insert(sorted.end(), remaining.begin(), remaining.end());  // std::set is ascending
  return sorted;
}

std::optional<double> PXSketchOpenFormatReader::castNumber(const JsonValue* value) {
  if (!value) return 0.0;
  if (value->is_number() || value->is_bool() || value->is_string()) return PXJsonDouble(value);
  return std::nullopt;
}

}  // namespace plexa
