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

  bool isValid() const;

  std::optional<std::string> pageIDByArtboardID(const std::string& artboardID);
  // A copy of the top-level artboard or symbol master layer with that ID.
  std::optional<JsonObject> artboardJSONByID(const std::string& artboardID);
  int64_t pageIndexByPageID(const std::optional<std::string>& pageID);
  std::vector<std::string> artboardIDs();
  std::vector<std::string> sortedArtboardIDs();
  // Absent input is 0; numbers and numeric strings convert; else absent.
  static std::optional<double> castNumber(const JsonValue* value);

 private:
  enum class Missing { absent, fatal };
  Dictionary load(Dictionary& cache, const std::string& relativePath, const char* what, Missing missing);
  std::string pathFor(const std::string& relative) const;

  std::string rootFolderPath_;
  std::mutex lock_;
  Dictionary cachedMetaJSON_;
  Dictionary cachedDocumentJSON_;
  Dictionary cachedUserJSON_;
  std::map<std::string, Dictionary> cachedPages_;
};

}  // namespace plexa
