#include "DocumentFiles.h"

#include "Files.h"
#include "PathString.h"
#include "ZipReader.h"

namespace plexa::render {

DocumentFiles::~DocumentFiles() = default;

std::unique_ptr<DocumentFiles> DocumentFiles::open(const std::string& path, std::string* error) {
  bool isDirectory = false;
  if (!PXFileManager::fileExists(path, &isDirectory)) {
    if (error) *error = "no such file";
    return nullptr;
  }
  std::unique_ptr<DocumentFiles> files(new DocumentFiles());
  if (isDirectory) {
    files->folder_ = path;
    return files;
  }
  std::string why;
  files->archive_ = PXZipReader::open(path, &why);
  if (!files->archive_) {
    if (error) *error = "not a readable Sketch document (" + why + ")";
    return nullptr;
  }
  return files;
}

std::optional<std::string> DocumentFiles::read(const std::string& relativePath) const {
  if (!PXIsPlainRelativePath(relativePath)) return std::nullopt;
  if (archive_) return archive_->read(relativePath);
  // Symbolic links may not lead out of the folder either.
  auto path = PXResolveInside(folder_, relativePath);
  bool isDirectory = false;
  if (!path || !PXFileManager::fileExists(*path, &isDirectory) || isDirectory) return std::nullopt;
  return PXFileManager::readFile(*path);
}

}  // namespace plexa::render
