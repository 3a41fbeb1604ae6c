#pragma once
// Turns the input .sketch file into an unzipped folder of JSON files for the
// later stages, detaching symbols on the way when asked to.

#include "PXSketchOpenFormatReader.h"
#include "PXSymbolDetacher.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXSketchUnzipper;
class PXSymbolDetacher;
class PXSymbolDetacherV2;

class PXSketchUnzipperDelegate {
 public:
  virtual ~PXSketchUnzipperDelegate() = default;
  // Step `progress` of `count` of the detachment is done.
  virtual void sketchUnzipper(PXSketchUnzipper& unzipper, uint64_t progress, uint64_t count) = 0;
};

// What one unzip did: a one-line account (what was written, or why it
// failed) and whether the folder can be trusted.
struct PXSketchUnzipResult {
  bool success = false;
  std::string output;
};

class PXSketchUnzipper : public PXSymbolDetacherDelegate, public std::enable_shared_from_this<PXSketchUnzipper> {
 public:
  using Completion = std::function<void(bool success, const std::string& path)>;

  static constexpr uint64_t kDefaultMaxUncompressedBytes = 2ull << 30;
  static constexpr const char* kAsyncStatus = "async call, please use completion block to listen to changes";

  static std::shared_ptr<PXSketchUnzipper> make();
  ~PXSketchUnzipper();
  PXSketchUnzipper(const PXSketchUnzipper&) = delete;
  PXSketchUnzipper& operator=(const PXSketchUnzipper&) = delete;

  std::string sketchFilePath;
  std::string detachedSketchFilePath;
  std::string outputFolderPath;
  std::optional<std::vector<std::string>> detachingArtboardIds;
  bool prettyPrint = false;
  // The JSON detacher derives the identifiers of copied layers instead of
  // drawing them, so that two runs give identical output.
  bool stableIdentifiers = false;
  // "none", "selection" or "all"; absent counts as "none".
  std::optional<std::string> detachMethod;
  bool v2Detacher = false;
  std::string sketchToolPath;
  std::weak_ptr<PXSketchUnzipperDelegate> delegate;
  // Archives that inflate past this are refused.
  uint64_t maxUncompressedBytes = kDefaultMaxUncompressedBytes;
  // Why the last unzip failed, in words about the user's file; set before a
  // failing completion is called.
  std::string failureReason;
  // With the JSON detacher: whether anything will read the detached .sketch
  // file (sketchtool does). Without such a reader the detached pages are
  // neither written back nor zipped; they wait in detachedPages instead,
  // and only the JSON entries are unzipped: images and previews have no
  // other reader in the folder.
  bool writesDetachedFile = true;
  // The JSON detacher holds the whole document, masters and detached copies
  // in memory: about kDetachBytesPerJsonByte bytes for each byte of the
  // pages' JSON. A document whose estimate passes this budget is refused
  // (an unzip failure, logged as an error) rather than left for the kernel
  // to kill the process.
  static constexpr uint64_t kDefaultDetachMemoryBudget = 8ull << 30;
  static constexpr uint64_t kDetachBytesPerJsonByte = 12;
  uint64_t detachMemoryBudget = kDefaultDetachMemoryBudget;

  // The JSON detacher's pages, as the folder's files would read back, for
  // the readers of the folder to adopt; taken once, so that the pages live
  // only as long as those readers.
  PXSketchOpenFormatReader::PageMap takeDetachedPages();

  // Unzips `sketchFilePath` into `folder` (detaching first or after, as
  // configured) and returns a status text. The completion gets success and
  // a path: the input file when nothing is detached.
  std::string unzipToFolderPath(const std::string& folder, Completion completion = {});

  // Extracts `source` into `destination` with this unzipper's pretty-print
  // switch and size cap.
  PXSketchUnzipResult unzip(const std::string& source, const std::string& destination) const;
  // Extracts in-process; with `prettyPrint` every extracted .json file is
  // rewritten indented, otherwise it keeps the archive's own bytes. A
  // failure is logged once, as an error.
  static PXSketchUnzipResult unzip(const std::string& source, const std::string& destination, bool prettyPrint,
                                   uint64_t maxUncompressedBytes = kDefaultMaxUncompressedBytes);

  // Forwards to the delegate on the main queue.
  void updateProgress(uint64_t progress, uint64_t count);
  // The plug-in detacher's progress, passed on at once on the calling thread.
  void symbolDetacher(PXSymbolDetacher& detacher, uint64_t progress, uint64_t count) override;

  // The plug-in detacher, made on first use: it needs the session bus, which
  // runs that never detach through Sketch should not have to reach.
  std::shared_ptr<PXSymbolDetacher> detacher();

  void cancel();
  bool isCancelled() const { return cancelled_.load(); }

 private:
  PXSketchUnzipper() = default;

  bool detachesSymbols() const;
  void detachUsingV2(Completion completion);
  void detachUsingPlugin(Completion completion);
  bool runV2Detacher(PXSymbolDetacherV2& v2);
  bool fitsDetachMemoryBudget();
  void keepDetachedPages(PXSymbolDetacherV2& v2);

  std::atomic<bool> cancelled_{false};
  std::mutex detacherMutex_;
  std::shared_ptr<PXSymbolDetacher> detacher_;
  std::shared_ptr<PXSymbolDetacherV2> currentV2Detacher_;
  PXSketchOpenFormatReader::PageMap detachedPages_;
};

}  // namespace plexa
