#pragma once
// Read access to an unzipped Sketch document: JSON files loaded on first use
// and kept for the reader's lifetime, and the questions the extraction asks
// about pages and artboards.

#include "Json.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace plexa {

// document.json or user.json could not be read at all: the folder is not a
// Sketch document, and there is nothing sensible to answer from.
class PXSketchDocumentFileMissing : public std::runtime_error {
 public:
  explicit PXSketchDocumentFileMissing(const std::string& path)
      : std::runtime_error("missing Sketch document file: " + path) {}
};

class PXSketchOpenFormatReader {
 public:
  using Dictionary = std::shared_ptr<const JsonObject>;
  // page ID → parsed page.
  using PageMap = std::map<std::string, Dictionary>;
  static constexpr int64_t NotFound = INT64_MAX;

  static std::shared_ptr<PXSketchOpenFormatReader> folderReaderWithUnzippedSketchFolder(const std::string& path);
  explicit PXSketchOpenFormatReader(std::string rootFolderPath);

  const std::string& rootFolderPath() const { return rootFolderPath_; }
  const std::string metaJSONPath = "meta.json";
  const std::string userJSONPath = "user.json";
  const std::string documentJSONPath = "document.json";
  const std::string imagesFolderPath = "images";
  const std::string previewsFolderPath = "previews";
  const std::string pagesFolderPath = "pages";

  // nullptr when missing or malformed (nothing cached, so a later call retries).
  Dictionary metaJSON();
  // Throw PXSketchDocumentFileMissing when the file is missing; nullptr when malformed.
  Dictionary documentJSON();
  Dictionary userJSON();
  Dictionary pageJSONByID(const std::string& pageID);
  // Pages already parsed elsewhere (the detacher's, handed over instead of
  // written back and read again). They read exactly as their files would and
  // take the place of the files for this reader's lifetime.
  void adoptPages(const PageMap& pages);
  // Loads these pages ahead of use, several at once. A page that cannot be
  // loaded is left for pageJSONByID to try (and report) again.
  void preloadPages(const std::vector<std::string>& pageIDs);

  bool isValid() const;

  std::optional<std::string> pageIDByArtboardID(const std::string& artboardID);
  // A copy of the top-level artboard or symbol master layer with that ID.
  std::optional<JsonObject> artboardJSONByID(const std::string& artboardID);
  // The same layer, shared with the cached page instead of copied.
  Dictionary artboardByID(const std::string& artboardID);
  int64_t pageIndexByPageID(const std::optional<std::string>& pageID);
  std::vector<std::string> artboardIDs();
  std::vector<std::string> sortedArtboardIDs();
  // Absent input is 0; numbers and numeric strings convert; else absent.
  static std::optional<double> castNumber(const JsonValue* value);

 private:
  enum class Missing { absent, fatal };
  Dictionary load(Dictionary& cache, const std::string& relativePath, const char* what, Missing missing);
  std::string pathFor(const std::string& relative) const;

  // Where each artboard is, found once per document instead of by a scan
  // per question: artboard ID → page ID (meta.json), and per page artboard
  // ID → its top-level artboard or symbol master.
  using LayerIndex = std::map<std::string, const JsonObject*, std::less<>>;
  const std::map<std::string, std::string, std::less<>>& pageIDIndex(const Dictionary& meta);
  const LayerIndex& layerIndex(const std::string& pageID, const Dictionary& page);

  std::string rootFolderPath_;
  std::mutex lock_;
  std::mutex indexLock_;
  Dictionary indexedMeta_;
  std::map<std::string, std::string, std::less<>> pageIDByArtboard_;
  std::map<std::string, std::pair<Dictionary, LayerIndex>> layersByPage_;
  Dictionary cachedMetaJSON_;
  Dictionary cachedDocumentJSON_;
  Dictionary cachedUserJSON_;
  std::map<std::string, Dictionary> cachedPages_;
};

}  // namespace plexa
