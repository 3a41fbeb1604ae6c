#include "PXSketchUnzipper.h"

#include "Dispatch.h"
#include "Files.h"
#include "Json.h"
#include "Log.h"
#include "MainQueue.h"
#include "Memory.h"
#include "Parallel.h"
#include "PathString.h"
#include "PXSymbolDetacherV2.h"
#include "Zip.h"

#include <filesystem>
#include <set>
#include <utility>

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

// A detached page for the readers, holding the arena it lives in: the
// page's nodes do not count it.
std::shared_ptr<const JsonObject> keptPage(PXSymbolDetacherV2::Page&& page) {
  struct Kept {
    std::shared_ptr<void> arena;
    JsonObject json;  // taken over, not copied: it keeps the page's storage
  };
  auto kept = std::make_shared<Kept>(Kept{std::move(page.arena), std::move(page.json.get_object())});
  return std::shared_ptr<const JsonObject>(kept, &kept->json);
}

PXSketchUnzipResult failure(const std::string& source, const std::string& reason) {
  PXSketchUnzipResult result{false, fmt::format("could not unzip {}: {}", source, reason)};
  PXLogError("PXSketchUnzipper {}", result.output);
  return result;
}

// The JSON files are all that the detacher and the later stages read from
// the folder when no detached .sketch file is written.
bool isJSONEntry(const std::string& name) { return PXPathExtension(name) == "json"; }

PXSketchUnzipResult extract(const std::string& source, const std::string& destination, bool prettyPrint,
                            uint64_t maxUncompressedBytes, const PXZipEntryFilter& wanted) {
  PXZipLimits limits;
  limits.maxTotalUncompressedBytes = maxUncompressedBytes;
  auto extracted = PXZip::extractAll(source, destination, limits, wanted);
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
    if (!result.success) failureReason = result.output;
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
  return extract(source, destination, prettyPrint, maxUncompressedBytes, PXZipEntryFilter());
}

void PXSketchUnzipper::updateProgress(uint64_t progress, uint64_t count) {
  PXMainQueue::shared().async([weak = weak_from_this(), progress, count] {
    auto self = weak.lock();
    if (!self) return;
    if (auto delegate = self->delegate.lock()) delegate->sketchUnzipper(*self, progress, count);
  });
}


bool PXSketchUnzipper::detachesSymbols() const { return detachMethod && *detachMethod != "none"; }

void PXSketchUnzipper::symbolDetacher(PXSymbolDetacher&, uint64_t progress, uint64_t count) {
  if (auto d = delegate.lock()) d->sketchUnzipper(*this, progress, count);
}

std::shared_ptr<PXSymbolDetacher> PXSketchUnzipper::detacher() {
  std::lock_guard lock(detacherMutex_);
  if (!detacher_) {
    detacher_ = PXSymbolDetacher::make();
    detacher_->delegate = weak_from_this();
  }
  return detacher_;
}

void PXSketchUnzipper::cancel() {
  cancelled_ = true;
  std::shared_ptr<PXSymbolDetacher> plugin;
  std::shared_ptr<PXSymbolDetacherV2> json;
  {
    std::lock_guard lock(detacherMutex_);
    plugin = detacher_;
    json = currentV2Detacher_;
  }
  if (json) json->cancel();
  if (plugin) plugin->cancel();
}

// Unzip first, then rewrite the JSON in place and re-zip it beside the
// folder; progress goes to the delegate in six steps.
void PXSketchUnzipper::detachUsingV2(Completion completion) {
  // Images and previews only matter to the detached file's readers.
  auto unzipped = extract(sketchFilePath, outputFolderPath, prettyPrint, maxUncompressedBytes,
                          writesDetachedFile ? PXZipEntryFilter() : PXZipEntryFilter(isJSONEntry));
  if (!unzipped.success) failureReason = unzipped.output;
  if (isCancelled()) return;
  detachedSketchFilePath = PXAppendingPathComponent(outputFolderPath, PXLastPathComponent(sketchFilePath));
  PXGlobalQueue()->async([self = shared_from_this(), completion = std::move(completion), unzipped = unzipped.success] {
    auto v2 = PXSymbolDetacherV2::detacherWithUrl(self->outputFolderPath);
    {
      std::lock_guard lock(self->detacherMutex_);
      self->currentV2Detacher_ = v2;
    }
    if (self->detachMethod == "selection") {
      auto ids = self->detachingArtboardIds.value_or(std::vector<std::string>{});
      v2->setDetachingArtboardIds(std::set<std::string>(ids.begin(), ids.end()));
    }
    v2->stableIdentifiers = self->stableIdentifiers;
    self->updateProgress(0, 5);
    bool result = unzipped && self->runV2Detacher(*v2);
    if (self->isCancelled()) return;
    // The detacher held every page and master; what the later stages read
    // now lives in detachedPages_ (or in the saved files).
    {
      std::lock_guard lock(self->detacherMutex_);
      self->currentV2Detacher_.reset();
    }
    v2.reset();
    PXReleaseFreeMemory();
    PXMainQueue::shared().async([self, completion, result] {
      if (completion) completion(result, self->outputFolderPath);
    });
  });
}

bool PXSketchUnzipper::fitsDetachMemoryBudget() {
  uint64_t jsonBytes = 0;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(outputFolderPath, ec), end; !ec && it != end; it.increment(ec))
    if (it->is_regular_file(ec) && PXPathExtension(it->path().string()) == "json") jsonBytes += it->file_size(ec);
  const uint64_t estimate = jsonBytes * kDetachBytesPerJsonByte;
  if (estimate <= detachMemoryBudget) return true;
  failureReason = fmt::format("detaching its symbols would need about {:.1f} GB of memory, more than the budget of {:.1f} GB",
                              static_cast<double>(estimate) / (1 << 30), static_cast<double>(detachMemoryBudget) / (1 << 30));
  PXLogError("Symbols not detached: {} {}", PXLastPathComponent(sketchFilePath), failureReason);
  return false;
}

// Progress steps 1 to 5 of 5, whether or not the pages are written.
bool PXSketchUnzipper::runV2Detacher(PXSymbolDetacherV2& v2) {
  if (!fitsDetachMemoryBudget()) return false;
  if (!v2.loadDocument()) return false;
  updateProgress(1, 5);
  v2.findSymbols();
  if (isCancelled()) return false;
  updateProgress(2, 5);
  v2.detachSymbols();
  if (v2.failureReason) {
    failureReason = *v2.failureReason;
    return false;
  }
  v2.symbols.reset();  // the masters' copies are not needed past the walk
  updateProgress(3, 5);
  // Pages that only feed sketchtool are written compact; the user's own
  // copy keeps the indented form when asked for.
  v2.prettyPages = prettyPrint;
  if (writesDetachedFile) v2.savePages();
  if (isCancelled()) return false;
  updateProgress(4, 5);
  bool result = true;
  if (writesDetachedFile) {
    result = v2.saveToUrl(detachedSketchFilePath);
  } else if (!PXFileManager::fileExists(v2.workingUrl)) {
    PXLogError("Could not save. File does not exist");
    result = false;
  }
  keepDetachedPages(v2);
  updateProgress(5, 5);
  return result;
}

// Pages go over as their files would read back. One too deep for the parser
// would not read back at all: it is written, so that the reader finds and
// reports the same file either way.
void PXSketchUnzipper::keepDetachedPages(PXSymbolDetacherV2& v2) {
  auto pagesFolder = PXResolveInside(v2.workingUrl, "pages");
  auto inPagesFolder = [&](const std::string& url) {
    return pagesFolder && PXDeletingLastPathComponent(url) == *pagesFolder && PXPathExtension(url) == "json";
  };
  // Pages are independent, each in its own arena: normalised several at once.
  std::vector<PXJsonRoundTrip> roundTrips(v2.pages.size());
  PXParallelFor(v2.pages.size(), [&](std::size_t i) {
    if (inPagesFolder(v2.pages[i].url)) roundTrips[i] = PXJsonNormalizeAsWritten(v2.pages[i].json);
  });
  PXSketchOpenFormatReader::PageMap kept;
  bool unreadable = false;
  for (std::size_t i = 0; i < v2.pages.size(); ++i) {
    auto& page = v2.pages[i];
    if (!inPagesFolder(page.url)) continue;
    if (roundTrips[i].nonFinite > 0 && !writesDetachedFile)
      PXLogWarn("Replaced {} non-finite numbers in {}", roundTrips[i].nonFinite, page.url);
    if (!roundTrips[i].readable) {
      unreadable = true;
      continue;
    }
    kept[PXDeletingPathExtension(PXLastPathComponent(page.url))] = keptPage(std::move(page));
  }
  if (unreadable && !writesDetachedFile) v2.savePages();
  v2.pages.clear();
  std::lock_guard lock(detacherMutex_);
  detachedPages_ = std::move(kept);
}

PXSketchOpenFormatReader::PageMap PXSketchUnzipper::takeDetachedPages() {
  std::lock_guard lock(detacherMutex_);
  return std::exchange(detachedPages_, {});
}

// Sketch detaches into a copy, which is then unzipped. The plug-in reports
// no outcome, so a copy that cannot be unzipped is what tells failure.
void PXSketchUnzipper::detachUsingPlugin(Completion completion) {
  PXGlobalQueue()->async([self = shared_from_this(), completion = std::move(completion)] {
    auto plugin = self->detacher();
    std::string saveAs = PXStandardizingPath(self->detachedSketchFilePath);
    plugin->sketchFilePath = self->sketchFilePath;
    plugin->restoreAfterDetach = true;
    plugin->detachMethod = self->detachMethod;
    plugin->detachingArtboardIds = self->detachingArtboardIds.value_or(std::vector<std::string>{});
    plugin->saveAsPath = saveAs;
    plugin->sketchToolPath = self->sketchToolPath;
    plugin->detachOnCompletion([self, completion, saveAs](bool detached, const std::optional<std::string>& message) {
      // Sketch never opened the document: there is no copy to unzip.
      if (!detached && message) {
        PXLogVerbose("PXSketchUnzipper symbol detachment through Sketch failed: {}", *message);
        self->failureReason = *message;
        if (completion) PXGlobalQueue()->async([completion, saveAs] { completion(false, saveAs); });
        return;
      }
      PXGlobalQueue()->async([self, completion, saveAs] {
        auto result = self->unzip(saveAs, self->outputFolderPath);
        if (!result.success) self->failureReason = result.output;
        if (completion) completion(result.success, saveAs);
      });
    });
  });
}

}  // namespace plexa
