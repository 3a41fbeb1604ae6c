#pragma once
// One zip archive opened once and read entry by entry into memory, for
// readers that need a few entries of a large archive and nothing on disk.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

class PXZipReader {
 public:
  // Nullptr with the reason in `error` when the file is not a zip archive.
  static std::unique_ptr<PXZipReader> open(const std::string& archivePath, std::string* error = nullptr);
  ~PXZipReader();
  PXZipReader(const PXZipReader&) = delete;
  PXZipReader& operator=(const PXZipReader&) = delete;

  // Entry names in archive order.
  std::vector<std::string> names() const;
  bool contains(const std::string& name) const;
  // The entry's bytes; nullopt when missing, corrupt or larger than
  // `maxEntryBytes`. Safe to call from several threads.
  std::optional<std::string> read(const std::string& name, std::string* error = nullptr);

  // Entries larger than this (uncompressed) are refused.
  uint64_t maxEntryBytes = 1ull << 30;

 private:
  struct Handle;
  explicit PXZipReader(std::unique_ptr<Handle> handle);
  std::unique_ptr<Handle> handle_;
};

}  // namespace plexa
