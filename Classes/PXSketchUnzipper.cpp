#include "PXSketchUnzipper.h"

#include "Dispatch.h"
#include "Files.h"
#include "Json.h"
#include "Log.h"
#include "MainQueue.h"
#include "PathString.h"
#include "Zip.h"

namespace plexa {

namespace {

enum class PrettyPrintOutcome { rewritten, keptAsIs, writeFailed };

// A file that does not parse keeps its bytes: the reader reports it later,
// with the page it belongs to.
PrettyPrintOutcome prettyPrintJSONFile(const std::string& path, std::string& error) {
  auto text = PXFileManager::readFile(path, &error);
  if (!text) return PrettyPrintOutcome::writeFailed;
  auto value = PXJsonParse(*text, &error);
  if (!value) return PrettyPrintOutcome::keptAsIs;
  auto pretty = PXJsonSerialize(*value, true, &error);
  if (!pretty) return PrettyPrintOutcome::keptAsIs;
  text.reset();
  return PXFileManager::writeFileAtomically(path, *pretty, &error) ? PrettyPrintOutcome::rewritten
                                                                    : PrettyPrintOutcome::writeFailed;
}

PXSketchUnzipResult failure(const std::string& source, const std::string& reason) {
  PXSketchUnzipResult result{false, fmt::format("could not unzip {}: {}", source, reason)};
  PXLogError("PXSketchUnzipper {}", result.output);
  return result;
}

}  // namespace

std::shared_ptr<PXSketchUnzipper> PXSketchUnzipper::make() {
  return std::shared_ptr<PXSketchUnzipper>(new PXSketchUnzipper());
}

PXSketchUnzipper::~PXSketchUnzipper() {
  if (!isCancelled()) cancel();
}

std::string PXSketchUnzipper::unzipToFolderPath(const std::string& folder, Completion completion) {
  if (isCancelled()) return "cancelled";
  outputFolderPath = folder;
  std::string error;
  bool created = PXFileManager::createDirectory(folder, true, &error);
  bool isDirectory = false;
  if (!PXFileManager::fileExists(folder, &isDirectory) || !isDirectory) {
    PXLogError("Could not create temp folder: {}", folder);
    if (!error.empty()) PXLogError("Error: {}", error);
    if (completion) completion(false, folder);
    return "could not create temp directory";
  }
  if (!created && !error.empty()) PXLogError("Error creating temp unzip folder: {}", error);

  if (!detachesSymbols()) {
    auto result = unzip(sketchFilePath, folder);
    if (completion)
      PXGlobalQueue()->async([completion = std::move(completion), success = result.success, path = sketchFilePath] {
        completion(success, path);
      });
    return result.output;
  }
  if (v2Detacher) {
    detachUsingV2(std::move(completion));
  } else {
    detachUsingPlugin(std::move(completion));
  }
  return kAsyncStatus;
}

PXSketchUnzipResult PXSketchUnzipper::unzip(const std::string& source, const std::string& destination) const {
  return unzip(source, destination, prettyPrint, maxUncompressedBytes);
}

PXSketchUnzipResult PXSketchUnzipper::unzip(const std::string& source, const std::string& destination,
                                            bool prettyPrint, uint64_t maxUncompressedBytes) {
  PXZipLimits limits;
  limits.maxTotalUncompressedBytes = maxUncompressedBytes;
  auto extracted = PXZip::extractAll(source, destination, limits);
  if (!extracted.ok) return failure(source, extracted.error);

  std::string output = fmt::format("unzipped {} files from {} into {}", extracted.entries.size(), source, destination);
  if (!prettyPrint) return {true, output};

  size_t jsonFiles = 0;
  size_t rewritten = 0;
  for (const auto& name : extracted.entries) {
    if (PXPathExtension(name) != "json") continue;
    ++jsonFiles;
    std::string path = PXAppendingPathComponent(destination, name);
    std::string error;
    switch (prettyPrintJSONFile(path, error)) {
      case PrettyPrintOutcome::rewritten:
        ++rewritten;
        break;
      case PrettyPrintOutcome::keptAsIs:
        PXLogWarn("PXSketchUnzipper kept {} unformatted: {}", path, error);
        break;
      case PrettyPrintOutcome::writeFailed:
        return failure(source, fmt::format("cannot pretty-print {}: {}", path, error));
    }
  }
  return {true, fmt::format("{}, pretty-printed {} of {} JSON files", output, rewritten, jsonFiles)};
}

void PXSketchUnzipper::updateProgress(uint64_t progress, uint64_t count) {
  PXMainQueue::shared().async([weak = weak_from_this(), progress, count] {
    auto self = weak.lock();
    if (!self) return;
    if (auto delegate = self->delegate.lock()) delegate->sketchUnzipper(*self, progress, count);
  });
}

void PXSketchUnzipper::cancel() { cancelled_ = true; }

bool PXSketchUnzipper::detachesSymbols() const { return detachMethod && *detachMethod != "none"; }

// The JSON detacher joins here; until then the run reports that it cannot
// detach, from the main queue as that path always does.
void PXSketchUnzipper::detachUsingV2(Completion completion) {
  PXLogError("PXSketchUnzipper detach method {} is not available in this build", "json");
  if (!completion) return;
  PXMainQueue::shared().async([completion = std::move(completion), folder = outputFolderPath] {
    completion(false, folder);
  });
}

// The plug-in detacher joins here; it completes from a background queue.
void PXSketchUnzipper::detachUsingPlugin(Completion completion) {
  PXLogError("PXSketchUnzipper detach method {} is not available in this build", "plugin");
  if (!completion) return;
  PXGlobalQueue()->async([completion = std::move(completion), path = PXStandardizingPath(detachedSketchFilePath)] {
    completion(false, path);
  });
}

}  // namespace plexa
