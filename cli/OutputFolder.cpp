#include "OutputFolder.h"

#include "Files.h"
#include "RunFootprint.h"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>

#include <unistd.h>

namespace plexa::cli {

namespace fs = std::filesystem;

namespace {

// The real location of a path whose last parts may not exist yet.
std::string resolved(const std::string& path) {
  std::error_code ec;
  auto real = fs::weakly_canonical(path, ec);
  return ec ? absolutePath(path) : real.string();
}

bool isInside(const std::string& path, const std::string& folder) {
  if (folder == "/") return true;
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/';
}

// Folders whose contents --overwrite would be a disaster to remove.
std::optional<std::string> refusedToEmpty(const std::string& real, const std::string& inputDocument) {
  if (real == "/") return "the root folder is never emptied";
  const char* home = std::getenv("HOME");
  if (home && *home && real == resolved(home)) return "the home folder is never emptied";
  if (isInside(resolved(inputDocument), real)) return "it holds the input document, which --overwrite would remove";
  return std::nullopt;
}

// The highest folder of `path` that does not exist yet.
std::string firstMissingFolder(const std::string& path) {
  fs::path missing(path);
  std::error_code ec;
  for (fs::path parent = missing.parent_path(); !parent.empty() && parent != missing;
       parent = parent.parent_path()) {
    if (fs::exists(parent, ec)) break;
    missing = parent;
  }
  return missing.string();
}

OutputFolderResult problem(std::string text) { return {std::nullopt, std::move(text)}; }

OutputFolderResult createMissing(OutputFolder folder) {
  folder.createdRoot = firstMissingFolder(folder.path);
  if (!RunFootprint::shared().recordOutputFolder(folder.createdRoot, false))
    return problem("too many folders in use by this run");
  std::string error;
  if (!PXFileManager::createDirectory(folder.path, true, &error)) {
    RunFootprint::removeTree(folder.createdRoot.c_str());
    RunFootprint::shared().keepOutputFolder();  // nothing left to keep: only the record goes
    return problem("cannot create the folder (" + error + ")");
  }
  return {std::move(folder), ""};
}

}  // namespace

std::string absolutePath(const std::string& path) {
  std::error_code ec;
  std::string normal = fs::absolute(path, ec).lexically_normal().string();
  if (ec) normal = path;
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

OutputFolderResult prepareOutputFolder(const std::string& path, bool overwrite, const std::string& inputDocument) {
  OutputFolder folder;
  folder.path = absolutePath(path);
  bool isDirectory = false;
  if (!PXFileManager::fileExists(folder.path, &isDirectory)) return createMissing(std::move(folder));
  if (!isDirectory) return problem("exists and is not a folder");
  folder.existedBefore = true;
  if (::access(folder.path.c_str(), W_OK | X_OK) != 0) return problem("the folder is not writable");

  std::string error;
  auto entries = PXFileManager::contentsOfDirectory(folder.path, &error);
  if (!entries) return problem("cannot be read (" + error + ")");
  if (!entries->empty()) {
    if (!overwrite)
      return problem(fmt::format("the folder is not empty ({} entr{}); choose an empty or new folder, or add "
                                 "--overwrite to replace its contents",
                                 entries->size(), entries->size() == 1 ? "y" : "ies"));
    if (auto refusal = refusedToEmpty(resolved(folder.path), inputDocument))
      return problem("--overwrite refused: " + *refusal);
    if (!RunFootprint::emptyFolder(folder.path.c_str())) return problem("--overwrite could not empty the folder");
  }
  if (!RunFootprint::shared().recordOutputFolder(folder.path, true))
    return problem("too many folders in use by this run");
  return {std::move(folder), ""};
}

}  // namespace plexa::cli
