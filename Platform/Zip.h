#pragma once
// Zip archives in-process (libzip): safe extraction of a whole archive,
// reading single entries, and writing a folder or in-memory entries.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace plexa {

struct PXZipLimits {
  // Extraction stops, and fails, past this many uncompressed bytes in total.
  uint64_t maxTotalUncompressedBytes = 2ull << 30;
};

struct PXZipResult {
  bool ok = false;
  std::string error;  // one line, names the reason
  std::vector<std::string> entries;  // names written, in archive order
};

// Decides by entry name whether its bytes are written.
using PXZipEntryFilter = std::function<bool(const std::string& name)>;

// Shown an entry's bytes right after they are written, while they are still
// in memory, so a caller need not read the file straight back. Called on the
// worker that wrote the entry, several at once; what it throws is ignored.
// Entries too large to inflate in one piece, or stored unpacked, stream to
// disk and are not shown: their files are there to read.
using PXZipEntryObserver = std::function<void(const std::string& name, std::string_view bytes)>;

namespace PXZip {

// Extracts every entry under `destination`. Refuses (and fails on) entries
// with absolute paths, ".." components or symbolic links, and archives past
// the size cap; nothing is ever written outside `destination`.
PXZipResult extractAll(const std::string& archivePath, const std::string& destination,
                       const PXZipLimits& limits = {});

// The same checks and folders, but only the entries that `wanted` accepts
// are written (and listed in the result); the others are skipped unread.
PXZipResult extractAll(const std::string& archivePath, const std::string& destination, const PXZipLimits& limits,
                       const PXZipEntryFilter& wanted);

// The same, showing each entry written whole to `written` as well.
PXZipResult extractAll(const std::string& archivePath, const std::string& destination, const PXZipLimits& limits,
                       const PXZipEntryFilter& wanted, const PXZipEntryObserver& written);

// The names of the entries, in archive order; nullopt when not a zip.
std::optional<std::vector<std::string>> entryNames(const std::string& archivePath, std::string* error = nullptr);

// One entry's bytes; nullopt when missing or unreadable.
std::optional<std::string> readEntry(const std::string& archivePath, const std::string& name,
                                     std::string* error = nullptr);

// Writes a new archive at `archivePath` (replacing it atomically) holding
// the folder's contents at the archive's root, deflated.
bool zipFolder(const std::string& folder, const std::string& archivePath, std::string* error = nullptr);

// Writes a new archive from (name, bytes) pairs, in order. Names ending in
// "/" are folders.
bool zipEntries(const std::vector<std::pair<std::string, std::string>>& entries, const std::string& archivePath,
                std::string* error = nullptr);

}  // namespace PXZip

}  // namespace plexa
