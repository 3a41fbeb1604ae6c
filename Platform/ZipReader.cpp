#include "ZipReader.h"

#include "ZipInflate.h"

#include <libdeflate.h>
#include <zip.h>

#include <mutex>

namespace plexa {

struct PXZipReader::Handle {
  zip_t* archive = nullptr;
  std::mutex lock;  // libzip handles are not shared between threads
  libdeflate_decompressor* inflater = nullptr;

  ~Handle() {
    if (inflater) libdeflate_free_decompressor(inflater);
    if (archive) zip_discard(archive);
  }
};

namespace {

struct FileCloser {
  void operator()(zip_file_t* f) const { zip_fclose(f); }
};
using EntryFile = std::unique_ptr<zip_file_t, FileCloser>;

bool fail(std::string* error, std::string message) {
  if (error) *error = std::move(message);
  return false;
}

// Deflated entries are inflated in one call; the CRC guards against damage
// the directory does not show.
bool inflateWhole(zip_t* z, libdeflate_decompressor* inflater, const zip_stat_t& st, std::string& out,
                  std::string* error) {
  EntryFile in(zip_fopen_index(z, st.index, ZIP_FL_COMPRESSED));
  if (!in) return fail(error, std::string("cannot read entry: ") + zip_strerror(z));
  std::string packed(st.comp_size, '\0');
  if (zip_fread(in.get(), packed.data(), packed.size()) != static_cast<zip_int64_t>(packed.size()))
    return fail(error, "corrupt entry data");
  out.assign(st.size, '\0');
  if (!zipinflate::inflateWhole(inflater, packed.data(), st, out.data())) return fail(error, "corrupt entry data");
  return true;
}

bool readStreamed(zip_t* z, const zip_stat_t& st, uint64_t limit, std::string& out, std::string* error) {
  EntryFile in(zip_fopen_index(z, st.index, 0));
  if (!in) return fail(error, std::string("cannot read entry: ") + zip_strerror(z));
  char buffer[1 << 16];
  zip_int64_t n;
  while ((n = zip_fread(in.get(), buffer, sizeof buffer)) > 0) {
    if (out.size() + static_cast<uint64_t>(n) > limit) return fail(error, "entry is too large");
    out.append(buffer, static_cast<size_t>(n));
  }
  return n == 0 || fail(error, std::string("corrupt entry data: ") + zip_file_strerror(in.get()));
}

}  // namespace

PXZipReader::PXZipReader(std::unique_ptr<Handle> handle) : handle_(std::move(handle)) {}
PXZipReader::~PXZipReader() = default;

std::unique_ptr<PXZipReader> PXZipReader::open(const std::string& archivePath, std::string* error) {
  int code = 0;
  auto handle = std::make_unique<Handle>();
  handle->archive = zip_open(archivePath.c_str(), ZIP_RDONLY, &code);
  if (!handle->archive) {
    zip_error_t e;
    zip_error_init_with_code(&e, code);
    fail(error, std::string("not a readable zip archive (") + zip_error_strerror(&e) + ")");
    zip_error_fini(&e);
    return nullptr;
  }
  handle->inflater = libdeflate_alloc_decompressor();
  if (!handle->inflater) {
    fail(error, "out of memory");
    return nullptr;
  }
  return std::unique_ptr<PXZipReader>(new PXZipReader(std::move(handle)));
}

std::vector<std::string> PXZipReader::names() const {
  std::lock_guard guard(handle_->lock);
  std::vector<std::string> result;
  zip_int64_t count = zip_get_num_entries(handle_->archive, 0);
  for (zip_int64_t i = 0; i < count; ++i)
    if (const char* name = zip_get_name(handle_->archive, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_GUESS))
      result.emplace_back(name);
  return result;
}

bool PXZipReader::contains(const std::string& name) const {
  std::lock_guard guard(handle_->lock);
  return zip_name_locate(handle_->archive, name.c_str(), 0) >= 0;
}

std::optional<std::string> PXZipReader::read(const std::string& name, std::string* error) {
  std::lock_guard guard(handle_->lock);
  zip_t* z = handle_->archive;
  zip_stat_t st;
  zip_stat_init(&st);
  if (zip_stat(z, name.c_str(), 0, &st) != 0) {
    fail(error, "no entry " + name);
    return std::nullopt;
  }
  const bool sized = (st.valid & (ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE)) == (ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE);
  if (sized && (st.size > maxEntryBytes || st.comp_size > maxEntryBytes)) {
    fail(error, "entry " + name + " is too large");
    return std::nullopt;
  }
  std::string data;
  const bool whole = (st.valid & ZIP_STAT_INDEX) && zipinflate::isWholeDeflated(st, maxEntryBytes);
  bool ok = whole ? inflateWhole(z, handle_->inflater, st, data, error)
                  : readStreamed(z, st, maxEntryBytes, data, error);
  if (!ok) return std::nullopt;
  return data;
}

}  // namespace plexa
