#pragma once
// The pages of a Sketch document parsed from their bytes while the archive
// is unzipped, on the unzipping workers, instead of being read back from the
// files just written.

#include "JsonArenaPool.h"
#include "PXSketchOpenFormatReader.h"
#include "Zip.h"

#include <mutex>

namespace plexa {

// For callers that only look at the pages (a lister): each page owns its
// arena alone (PXJsonParseObjectIntoOwnArena), so a part copied out of one
// to be kept must be copied with a storage of its own. The pages are packed
// together and meant to be dropped together.
class PXSketchPageCollector {
 public:
  // To hand to PXZip::extractAll; parses each "pages/<ID>.json" it is shown.
  PXZipEntryObserver observer();
  // The pages parsed so far, by page ID, for PXSketchOpenFormatReader::adoptPages.
  // A page that did not parse is left out: the reader reads its file and
  // reports it as for any other.
  PXSketchOpenFormatReader::PageMap takePages();

 private:
  void add(const std::string& entryName, std::string_view bytes);

  std::shared_ptr<PXJsonArenaPool> pool_ = std::make_shared<PXJsonArenaPool>();
  std::mutex mutex_;
  PXSketchOpenFormatReader::PageMap pages_;
};

}  // namespace plexa
