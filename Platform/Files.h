#pragma once
// The file manager: folders, copies, moves, listings, whole-file reads and
// atomic writes, plus the containment check every document-named
// destination goes through.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plexa {

struct PXFileAttributes {
  uint64_t size = 0;
  std::optional<std::chrono::system_clock::time_point> created;
  std::chrono::system_clock::time_point modified;
  bool isDirectory = false;
};

namespace PXFileManager {

bool fileExists(const std::string& path, bool* isDirectory = nullptr);
// Creates the folder (and its parents with `intermediates`); false with the
// reason in `error` when it could not.
bool createDirectory(const std::string& path, bool intermediates, std::string* error = nullptr);
// Copies a file or a folder tree; never follows a symbolic link at `to`.
bool copyItem(const std::string& from, const std::string& to, std::string* error = nullptr);
// Renames, or copies and removes across file systems.
bool moveItem(const std::string& from, const std::string& to, std::string* error = nullptr);
// Removes a file, link or folder tree; a missing item is not an error.
bool removeItem(const std::string& path, std::string* error = nullptr);
// Entry names of a folder, not recursive, sorted.
std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path,
                                                            std::string* error = nullptr);
std::optional<PXFileAttributes> attributesOfItem(const std::string& path);
bool isSymbolicLink(const std::string& path);

std::optional<std::string> readFile(const std::string& path, std::string* error = nullptr);
// Writes to a temporary file beside `path`, then renames it over `path`.
bool writeFileAtomically(const std::string& path, std::string_view data, std::string* error = nullptr);
// Writes straight into a new file at `path`: for results in a folder the run
// owns, where a temporary and a rename per file would buy nothing. A file
// that fails half-way is removed. An entry already at `path` (possibly a
// link) is never written through: it is replaced as writeFileAtomically does.
bool writeNewFile(const std::string& path, std::string_view data, std::string* error = nullptr);
// The whole of `data` to an open descriptor, across short writes and interruptions.
bool writeAll(int fd, std::string_view data);

// A unique new folder under the system's temporary folder.
std::string makeTemporaryDirectory(const std::string& prefix);

}  // namespace PXFileManager

// The absolute, lexically normal form of `candidate` when it lies inside
// `root` (or is `root`), and no existing component between them is a
// symbolic link; nullopt when it would escape.
std::optional<std::string> PXResolveInside(const std::string& root, const std::string& candidate);

// The file of the program this process runs; absent when the system does not say.
std::optional<std::string> PXRunningExecutablePath();

}  // namespace plexa
