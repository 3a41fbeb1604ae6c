#include "MissingItems.h"

#include "Files.h"
#include "Json.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include <sys/statvfs.h>

namespace plexa::cli {

namespace {

bool isNonEmptyFile(const std::string& path) {
  auto attributes = PXFileManager::attributesOfItem(path);
  return attributes && !attributes->isDirectory && attributes->size > 0;
}

class Checker {
 public:
  Checker(const ExpectedOutput& expected, std::vector<std::string>& missing) : expected_(expected), missing_(missing) {}

  void checkArtboard(const std::string& id) {
    std::string label = fmt::format("({})", nameOf(id));
    if (expected_.meta && !leftOutOfMeta(id)) {
      require(id + ".json", "meta file " + id + ".json " + label);
      if (require(id + "-paths.json", "paths file " + id + "-paths.json " + label) && expected_.assets)
        checkAssets(id, label);
    }
    if (expected_.images && !isNonEmptyFile(inFolder(id + ".png")) && !isNonEmptyFile(inFolder(id + ".jpg")))
      missing_.push_back("image of artboard " + id + " " + label);
    if (expected_.hotspots) require(id + "-hotspots.json", "hotspots file " + id + "-hotspots.json " + label);
  }

 private:
  std::string inFolder(const std::string& name) const { return expected_.folder + "/" + name; }

  std::string nameOf(const std::string& id) const {
    auto it = expected_.names.find(id);
    return it == expected_.names.end() ? "not in the document" : it->second;
  }

  bool leftOutOfMeta(const std::string& id) const {
    auto it = expected_.names.find(id);
    return expected_.excludeIgnored && it != expected_.names.end() && it->second.starts_with("-");
  }

  bool require(const std::string& name, const std::string& item) {
    if (isPresent(name)) return true;
    missing_.push_back(item);
    return false;
  }

  // One read of the folder answers for every file: a run of many artboards
  // would otherwise look up each of its files by path again.
  bool isPresent(const std::string& name) {
    if (!listed_) {
      listed_ = PXFileManager::contentsOfDirectory(expected_.folder);
      if (!listed_) listed_.emplace();
      listingFailed_ = listed_->empty();
    }
    if (std::binary_search(listed_->begin(), listed_->end(), name)) return true;
    return listingFailed_ && PXFileManager::fileExists(inFolder(name));
  }

  // Every file a paths record names, where the record says it is.
  void checkAssets(const std::string& id, const std::string& label) {
    auto text = PXFileManager::readFile(inFolder(id + "-paths.json"));
    auto records = text ? PXJsonParse(*text) : std::nullopt;
    if (!records || !records->is_array()) {
      missing_.push_back("asset list of " + id + "-paths.json (unreadable) " + label);
      return;
    }
    std::string prefix = expected_.folder + "/";
    for (const auto& record : records->get_array()) {
      std::string fullPath(PXJsonTextFor(&record, "fullPath").value_or(""));
      if (!fullPath.empty() && isNonEmptyFile(fullPath)) continue;
      std::string shown = fullPath.starts_with(prefix) ? fullPath.substr(prefix.size()) : fullPath;
      missing_.push_back("asset " + shown + " " + label);
    }
  }

  const ExpectedOutput& expected_;
  std::vector<std::string>& missing_;
  std::optional<std::vector<std::string>> listed_;  // sorted entry names
  bool listingFailed_ = false;                      // or empty: ask the file system per name
};

}  // namespace

std::vector<std::string> missingItems(const ExpectedOutput& expected) {
  std::vector<std::string> missing;
  Checker checker(expected, missing);
  for (const auto& id : expected.artboardIDs) checker.checkArtboard(id);
  if (!PXFileManager::fileExists(expected.folder + "/__uploadInfo.json"))
    missing.push_back("upload info file __uploadInfo.json");
  return missing;
}

bool diskIsFull(const std::string& folder) {
  struct statvfs info {};
  if (::statvfs(folder.c_str(), &info) != 0) return false;
  return info.f_bavail == 0;
}

}  // namespace plexa::cli
