#pragma once
// The files of a Sketch document by their document-relative names
// ("document.json", "pages/<id>.json", "images/<hash>.png"), read straight
// from the .sketch archive, or from an unzipped document folder. Names that
// could reach outside the document (absolute, "..") are never read.

#include <memory>
#include <optional>
#include <string>

namespace plexa {
class PXZipReader;
}

namespace plexa::render {

class DocumentFiles {
 public:
  // A .sketch archive or a document folder; nullptr with the reason in `error`.
  static std::unique_ptr<DocumentFiles> open(const std::string& path, std::string* error);
  ~DocumentFiles();
  DocumentFiles(const DocumentFiles&) = delete;
  DocumentFiles& operator=(const DocumentFiles&) = delete;

  // The file's bytes; nullopt when missing, unreadable or not a plain
  // relative name. Safe to call from several threads.
  std::optional<std::string> read(const std::string& relativePath) const;

 private:
  DocumentFiles() = default;
  std::string folder_;                   // set for a document folder
  std::unique_ptr<PXZipReader> archive_;  // set for a .sketch archive
};

}  // namespace plexa::render
