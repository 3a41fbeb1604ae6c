#include "DetachedCopy.h"

#include "Files.h"
#include "OutputFolder.h"
#include "PXSymbolDetacherV2.h"
#include "PathString.h"
#include "RunCheck.h"
#include "RunFootprint.h"
#include "RunOutcome.h"
#include "Zip.h"

#include <algorithm>
#include <filesystem>
#include <random>

namespace plexa::cli {

namespace fs = std::filesystem;

namespace {

DetachedCopyResult failed(const std::string& path, const std::string& reason) {
  return {kExitInput, path + ": " + reason};
}

std::string partialPathFor(const std::string& target) {
  std::random_device random;
  return PXDeletingLastPathComponent(target) + "/." + PXLastPathComponent(target) + ".partial-" +
         std::to_string(random() % 1000000);
}

bool isSketchArchive(const std::string& path) {
  auto names = PXZip::entryNames(path);
  return names && std::find(names->begin(), names->end(), "document.json") != names->end();
}

// Unzips, detaches every symbol with the JSON detacher and zips the result
// to `destination`; the reason when it could not.
std::string writeDetached(const std::string& input, const std::string& destination, bool stableIdentifiers) {
  auto& footprint = RunFootprint::shared();
  std::string error;
  std::string folder = footprint.makeTemporaryFolder("plexa-detach", &error);
  if (folder.empty()) return "cannot make a temporary folder: " + error;
  std::string problem;
  auto unzipped = PXZip::extractAll(input, folder);
  if (!unzipped.ok) {
    problem = "could not be unzipped: " + unzipped.error;
  } else {
    auto detacher = PXSymbolDetacherV2::detacherWithUrl(folder);
    detacher->stableIdentifiers = stableIdentifiers;
    if (!detacher->loadDocument()) {
      problem = "its document could not be read";
    } else {
      detacher->findSymbols();
      detacher->detachSymbols();
      detacher->savePages();
      detacher->saveToUrl(destination);
    }
  }
  footprint.remove(folder);
  return problem;
}

}  // namespace

std::string detachedTargetProblem(const std::string& input, const std::string& target) {
  std::error_code ec;
  auto status = fs::status(target, ec);
  if (fs::is_directory(status)) return "is a folder; give the file to write, e.g. " + target + "/detached.sketch";
  if (fs::exists(status) && fs::equivalent(target, input, ec))
    return "is the input document itself; the detached copy needs a path of its own";
  std::string parent = PXDeletingLastPathComponent(target);
  bool isDirectory = false;
  if (!PXFileManager::fileExists(parent, &isDirectory)) return "the folder " + parent + " does not exist";
  if (!isDirectory) return parent + " is not a folder";
  return "";
}

DetachedCopyResult saveDetachedCopy(const Options& options) {
  if (auto problem = sketchDocumentProblem(options.input)) return failed(options.input, *problem);
  std::string target = absolutePath(options.saveDetached);
  if (auto problem = detachedTargetProblem(options.input, target); !problem.empty()) return failed(target, problem);

  auto& footprint = RunFootprint::shared();
  std::string partial = partialPathFor(target);
  if (!footprint.record(partial)) return failed(target, "the path is too long");
  std::string problem = writeDetached(options.input, partial, options.stableIds);
  if (!problem.empty()) {
    footprint.remove(partial);
    return failed(options.input, problem);
  }
  if (!isSketchArchive(partial)) {
    footprint.remove(partial);
    return failed(target, "could not be written (no space, or no permission to write in its folder?)");
  }
  // Beside the target, so the rename replaces an older copy in one step.
  std::error_code error;
  fs::rename(partial, target, error);
  if (error) {
    footprint.remove(partial);
    return failed(target, "could not be written (" + error.message() + ")");
  }
  footprint.forget(partial);
  return {kExitOK, "Detached document written to " + target};
}

}  // namespace plexa::cli
