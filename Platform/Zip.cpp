#include "Zip.h"

#include "Files.h"
#include "Parallel.h"
#include "PathString.h"
#include "ZipInflate.h"
#include "ZipReader.h"

#include <libdeflate.h>
#include <zip.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <filesystem>
#include <memory>

namespace plexa::PXZip {

namespace fs = std::filesystem;

namespace {

struct ArchiveCloser {
  void operator()(zip_t* z) const { zip_discard(z); }
};
using Archive = std::unique_ptr<zip_t, ArchiveCloser>;

struct FileCloser {
  void operator()(zip_file_t* f) const { zip_fclose(f); }
};

Archive openForReading(const std::string& path, std::string* error) {
  int code = 0;
  zip_t* z = zip_open(path.c_str(), ZIP_RDONLY, &code);
  if (!z) {
    zip_error_t e;
    zip_error_init_with_code(&e, code);
    if (error) *error = std::string("not a readable zip archive (") + zip_error_strerror(&e) + ")";
    zip_error_fini(&e);
  }
  return Archive(z);
}

bool isUnsafeName(const std::string& name) {
  if (name.empty() || name[0] == '/' || name.find('\0') != std::string::npos) return true;
  size_t start = 0;
  while (start <= name.size()) {
    size_t slash = name.find('/', start);
    if (slash == std::string::npos) slash = name.size();
    if (name.compare(start, slash - start, "..") == 0 && slash - start == 2) return true;
    start = slash + 1;
  }
  return false;
}

// Entry names go into one-line messages: no control characters, bounded.
std::string printable(const std::string& name) {
  std::string out;
  for (char c : name.substr(0, 200)) out.push_back(static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c);
  if (name.size() > 200) out += "...";
  return out;
}

bool isSymbolicLinkEntry(zip_t* z, zip_uint64_t index) {
  zip_uint8_t opsys = 0;
  zip_uint32_t attributes = 0;
  if (zip_file_get_external_attributes(z, index, 0, &opsys, &attributes) != 0) return false;
  return opsys == ZIP_OPSYS_UNIX && ((attributes >> 16) & S_IFMT) == S_IFLNK;
}

// Takes `n` bytes from the shared budget; false when it would run out.
bool takeFromBudget(std::atomic<uint64_t>& budget, uint64_t n) {
  uint64_t left = budget.load();
  do {
    if (n > left) return false;
  } while (!budget.compare_exchange_weak(left, left - n));
  return true;
}

// Entries up to this size are inflated whole, in one call, which is several
// times faster than zlib's stream; larger ones stream to keep memory bounded.
constexpr uint64_t kWholeEntryLimit = 256ull << 20;

// Below this size creating the file costs more than inflating it; such
// entries are written by one worker, so that workers never queue on the
// lock of one folder (images/ may hold tens of thousands of them).
constexpr uint64_t kSmallEntryLimit = 256ull << 10;

struct FileEntry {
  zip_uint64_t index;
  std::string name;
  std::string target;
  zip_stat_t stat;
};

bool isSmall(const zip_stat_t& st) { return (st.valid & ZIP_STAT_SIZE) && st.size < kSmallEntryLimit; }

// Bytes kept between entries: grown to the largest entry met, never zeroed.
class Scratch {
 public:
  char* reserve(size_t n) {
    if (n > capacity_ || !bytes_) {
      bytes_.reset();
      bytes_.reset(new char[std::max<size_t>(n, 1)]);
      capacity_ = n;
    }
    return bytes_.get();
  }
  char* data() const { return bytes_.get(); }

 private:
  std::unique_ptr<char[]> bytes_;
  size_t capacity_ = 0;
};

bool writeFile(const std::string& target, const char* data, size_t size, std::string& error) {
  int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    error = "cannot create " + printable(target);
    return false;
  }
  bool ok = PXFileManager::writeAll(fd, {data, size});
  if (::close(fd) != 0) ok = false;
  if (!ok) error = "cannot write " + printable(target);
  return ok;
}

// The archive opened once for all workers. libzip handles are not shared
// between threads, so the compressed bytes are read under a lock and
// inflated outside it.
struct SharedArchive {
  zip_t* z;
  std::mutex lock;

  bool readPacked(const FileEntry& entry, Scratch& into, std::string& error) {
    std::lock_guard guard(lock);
    std::unique_ptr<zip_file_t, FileCloser> in(zip_fopen_index(z, entry.index, ZIP_FL_COMPRESSED));
    if (!in) {
      error = std::string("cannot read entry: ") + zip_strerror(z);
      return false;
    }
    const auto size = static_cast<zip_int64_t>(entry.stat.comp_size);
    if (zip_fread(in.get(), into.reserve(entry.stat.comp_size), entry.stat.comp_size) != size) {
      error = std::string("corrupt entry data: ") + zip_file_strerror(in.get());
      return false;
    }
    return true;
  }
};

// One worker's tools: an inflater made once, buffers reused from entry to
// entry, and its own handle for the rare entry that has to stream.
class EntryWriter {
 public:
  EntryWriter(SharedArchive& archive, const std::string& archivePath, std::atomic<uint64_t>& budget,
              const PXZipEntryObserver& written)
      : archive_(archive), archivePath_(archivePath), budget_(budget), written_(written),
        inflater_(libdeflate_alloc_decompressor(), &libdeflate_free_decompressor) {}

  bool write(const FileEntry& entry, std::string& error) {
    return zipinflate::isWholeDeflated(entry.stat, kWholeEntryLimit) ? writeWhole(entry, error) : writeStreamed(entry, error);
  }

 private:
  bool writeWhole(const FileEntry& entry, std::string& error) {
    const zip_stat_t& st = entry.stat;
    if (!takeFromBudget(budget_, st.size)) {
      error = "archive exceeds the uncompressed size limit";
      return false;
    }
    if (!inflater_) {
      error = "out of memory";
      return false;
    }
    if (!archive_.readPacked(entry, packed_, error)) return false;
    char* data = data_.reserve(st.size);
    if (!zipinflate::inflateWhole(inflater_.get(), packed_.data(), st, data)) {
      error = "corrupt entry data: " + printable(entry.name);
      return false;
    }
    if (!writeFile(entry.target, data, st.size, error)) return false;
    show(entry.name, {data, st.size});
    return true;
  }

  // The file is written whatever the observer makes of it.
  void show(const std::string& name, std::string_view bytes) {
    if (!written_) return;
    try {
      written_(name, bytes);
    } catch (...) {
    }
  }

  // Streams the entry to its file, counting against the remaining budget.
  bool writeStreamed(const FileEntry& entry, std::string& error) {
    if (!own_ && !(own_ = openForReading(archivePath_, &error))) return false;
    std::unique_ptr<zip_file_t, FileCloser> in(zip_fopen_index(own_.get(), entry.index, 0));
    if (!in) {
      error = std::string("cannot read entry: ") + zip_strerror(own_.get());
      return false;
    }
    int fd = ::open(entry.target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
      error = "cannot create " + printable(entry.target);
      return false;
    }
    bool ok = copyStream(in.get(), fd, entry.target, error);
    if (::close(fd) != 0 && ok) {
      error = "cannot write " + printable(entry.target);
      ok = false;
    }
    return ok;
  }

  bool copyStream(zip_file_t* in, int fd, const std::string& target, std::string& error) {
    constexpr size_t kChunk = 1 << 16;
    char* buffer = data_.reserve(kChunk);
    while (true) {
      zip_int64_t n = zip_fread(in, buffer, kChunk);
      if (n < 0) {
        error = std::string("corrupt entry data: ") + zip_file_strerror(in);
        return false;
      }
      if (n == 0) return true;
      if (!takeFromBudget(budget_, static_cast<uint64_t>(n))) {
        error = "archive exceeds the uncompressed size limit";
        return false;
      }
      if (!PXFileManager::writeAll(fd, {buffer, static_cast<size_t>(n)})) {
        error = "cannot write " + printable(target);
        return false;
      }
    }
  }

  SharedArchive& archive_;
  const std::string& archivePath_;
  std::atomic<uint64_t>& budget_;
  const PXZipEntryObserver& written_;
  std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> inflater_;
  Archive own_;
  Scratch packed_;
  Scratch data_;
};

// Every entry is judged before anything is written, so a refused archive
// leaves the destination untouched.
bool checkEntries(zip_t* z, zip_uint64_t count, uint64_t limit, std::string& error) {
  uint64_t declared = 0;
  for (zip_uint64_t i = 0; i < count; ++i) {
    const char* raw = zip_get_name(z, i, ZIP_FL_ENC_GUESS);
    std::string name = raw ? raw : "";
    if (isUnsafeName(name)) {
      error = "refused entry with an unsafe path: \"" + printable(name) + "\"";
      return false;
    }
    if (isSymbolicLinkEntry(z, i)) {
      error = "refused symbolic link entry: \"" + printable(name) + "\"";
      return false;
    }
    // Sizes in the directory may lie; they only allow an early refusal, the
    // bytes actually inflated are counted again while writing.
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat_index(z, i, 0, &st) == 0 && (st.valid & ZIP_STAT_SIZE)) {
      if (st.size > limit - declared) {
        error = "archive exceeds the uncompressed size limit";
        return false;
      }
      declared += st.size;
    }
  }
  return true;
}

bool addSource(zip_t* z, const std::string& name, zip_source_t* source, std::string* error) {
  if (!source) {
    if (error) *error = zip_strerror(z);
    return false;
  }
  zip_int64_t index = zip_file_add(z, name.c_str(), source, ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE);
  if (index < 0) {
    zip_source_free(source);
    if (error) *error = zip_strerror(z);
    return false;
  }
  // Level 1: pretty-printed pages compress nearly as well, several times faster.
  zip_set_file_compression(z, static_cast<zip_uint64_t>(index), ZIP_CM_DEFLATE, 1);
  return true;
}

// Opens a fresh archive beside the target; finish() renames it into place.
struct PendingArchive {
  std::string target;
  std::string temp;
  zip_t* z = nullptr;

  explicit PendingArchive(std::string path) : target(std::move(path)), temp(target + ".partial") {
    int code = 0;
    std::error_code ec;
    fs::remove(temp, ec);
    z = zip_open(temp.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &code);
  }
  ~PendingArchive() {
    if (z) zip_discard(z);
    std::error_code ec;
    fs::remove(temp, ec);
  }
  bool finish(std::string* error) {
    zip_t* closing = z;
    z = nullptr;
    if (zip_close(closing) != 0) {
      if (error) *error = zip_strerror(closing);
      zip_discard(closing);
      return false;
    }
    std::error_code ec;
    fs::rename(temp, target, ec);
    if (ec && error) *error = ec.message();
    return !ec;
  }
};

// An archive may name a file twice; as when written in order, the last wins,
// and no two workers ever write one file. Small entries go to the first
// worker in archive order; the large ones are shared out as workers free up.
bool writeFiles(zip_t* z, const std::string& archivePath, const std::vector<FileEntry>& files,
                const PXZipLimits& limits, const PXZipEntryObserver& written, std::string& firstError) {
  std::map<std::string, size_t> lastWriter;
  for (size_t k = 0; k < files.size(); ++k) lastWriter[files[k].target] = k;
  std::vector<const FileEntry*> small, large;
  for (size_t k = 0; k < files.size(); ++k)
    if (lastWriter.at(files[k].target) == k) (isSmall(files[k].stat) ? small : large).push_back(&files[k]);
  // Largest first, so that no worker is left with a big entry at the end.
  std::stable_sort(large.begin(), large.end(), [](const FileEntry* a, const FileEntry* b) {
    return (a->stat.valid & ZIP_STAT_SIZE ? a->stat.size : 0) > (b->stat.valid & ZIP_STAT_SIZE ? b->stat.size : 0);
  });

  SharedArchive archive{z, {}};
  std::atomic<uint64_t> budget{limits.maxTotalUncompressedBytes};
  std::atomic<size_t> nextLarge{0};
  std::atomic<bool> failed{false};
  std::mutex errorMutex;
  const size_t workers =
      std::max<size_t>(1, std::min<size_t>(large.size() + 1, std::max(1u, std::thread::hardware_concurrency())));
  PXParallelFor(workers, [&](size_t worker) {
    EntryWriter writer(archive, archivePath, budget, written);
    std::string error;
    bool ok = true;
    if (worker == 0)
      for (size_t k = 0; ok && k < small.size() && !failed; ++k) ok = writer.write(*small[k], error);
    for (size_t k = nextLarge++; ok && k < large.size() && !failed; k = nextLarge++) ok = writer.write(*large[k], error);
    if (ok) return;
    std::lock_guard lock(errorMutex);
    if (!failed.exchange(true)) firstError = error;
  });
  return !failed;
}

}  // namespace

PXZipResult extractAll(const std::string& archivePath, const std::string& destination, const PXZipLimits& limits) {
  return extractAll(archivePath, destination, limits, PXZipEntryFilter());
}

PXZipResult extractAll(const std::string& archivePath, const std::string& destination, const PXZipLimits& limits,
                       const PXZipEntryFilter& wanted) {
  return extractAll(archivePath, destination, limits, wanted, PXZipEntryObserver());
}

PXZipResult extractAll(const std::string& archivePath, const std::string& destination, const PXZipLimits& limits,
                       const PXZipEntryFilter& wanted, const PXZipEntryObserver& written) {
  PXZipResult result;
  auto z = openForReading(archivePath, &result.error);
  if (!z) return result;
  zip_uint64_t count = static_cast<zip_uint64_t>(std::max<zip_int64_t>(zip_get_num_entries(z.get(), 0), 0));
  if (!checkEntries(z.get(), count, limits.maxTotalUncompressedBytes, result.error)) return result;
  if (!PXFileManager::createDirectory(destination, true, &result.error)) return result;

  // Folders first, each once, in archive order; then the files' bytes.
  std::vector<FileEntry> files;
  std::set<std::string> madeFolders;
  auto makeFolder = [&](const std::string& folder) {
    if (madeFolders.contains(folder)) return true;
    if (!PXFileManager::createDirectory(folder, true, &result.error)) return false;
    madeFolders.insert(folder);
    return true;
  };
  for (zip_uint64_t i = 0; i < count; ++i) {
    const char* raw = zip_get_name(z.get(), i, ZIP_FL_ENC_GUESS);
    std::string name = raw ? raw : "";
    auto target = PXResolveInside(destination, name);
    if (!target) {
      result.error = "refused entry outside the destination: \"" + printable(name) + "\"";
      return result;
    }
    if (name.back() == '/') {
      if (!makeFolder(*target)) return result;
      continue;
    }
    if (!makeFolder(PXDeletingLastPathComponent(*target))) return result;
    if (wanted && !wanted(name)) continue;
    FileEntry entry{i, std::move(name), std::move(*target), {}};
    zip_stat_init(&entry.stat);
    zip_stat_index(z.get(), i, 0, &entry.stat);
    files.push_back(std::move(entry));
  }
  if (!writeFiles(z.get(), archivePath, files, limits, written, result.error)) return result;
  for (auto& file : files) result.entries.push_back(std::move(file.name));
  result.ok = true;
  return result;
}

std::optional<std::vector<std::string>> entryNames(const std::string& archivePath, std::string* error) {
  auto z = openForReading(archivePath, error);
  if (!z) return std::nullopt;
  std::vector<std::string> names;
  zip_int64_t count = zip_get_num_entries(z.get(), 0);
  for (zip_uint64_t i = 0; i < static_cast<zip_uint64_t>(count); ++i) {
    const char* name = zip_get_name(z.get(), i, ZIP_FL_ENC_GUESS);
    if (name) names.emplace_back(name);
  }
  return names;
}

std::optional<std::string> readEntry(const std::string& archivePath, const std::string& name, std::string* error) {
  auto reader = PXZipReader::open(archivePath, error);
  if (!reader) return std::nullopt;
  reader->maxEntryBytes = UINT64_MAX;  // callers read what they asked for; extraction has the caps
  return reader->read(name, error);
}

bool zipFolder(const std::string& folder, const std::string& archivePath, std::string* error) {
  std::error_code ec;
  std::vector<fs::path> items;
  for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_symlink()) continue;  // never archive what a link points at
    items.push_back(it->path());
  }
  if (ec) {
    if (error) *error = ec.message();
    return false;
  }
  std::sort(items.begin(), items.end());
  PendingArchive archive(archivePath);
  if (!archive.z) {
    if (error) *error = "cannot create " + archivePath;
    return false;
  }
  for (const auto& item : items) {
    std::string name = item.lexically_relative(folder).generic_string();
    if (fs::is_directory(item)) {
      if (zip_dir_add(archive.z, name.c_str(), ZIP_FL_ENC_UTF_8) < 0) {
        if (error) *error = zip_strerror(archive.z);
        return false;
      }
      continue;
    }
    if (!addSource(archive.z, name, zip_source_file(archive.z, item.c_str(), 0, -1), error))
      return false;
  }
  return archive.finish(error);
}

bool zipEntries(const std::vector<std::pair<std::string, std::string>>& entries, const std::string& archivePath,
                std::string* error) {
  PendingArchive archive(archivePath);
  if (!archive.z) {
    if (error) *error = "cannot create " + archivePath;
    return false;
  }
  for (const auto& [name, bytes] : entries) {
    if (!name.empty() && name.back() == '/') {
      if (zip_dir_add(archive.z, name.c_str(), ZIP_FL_ENC_UTF_8) < 0) {
        if (error) *error = zip_strerror(archive.z);
        return false;
      }
      continue;
    }
    // The buffers live until finish(), so libzip may reference them.
    if (!addSource(archive.z, name, zip_source_buffer(archive.z, bytes.data(), bytes.size(), 0), error))
      return false;
  }
  return archive.finish(error);
}

}  // namespace plexa::PXZip
