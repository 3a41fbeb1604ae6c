#include "Files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plexa {

namespace fs = std::filesystem;

namespace {

void setError(std::string* error, const std::error_code& ec) {
  if (error) *error = ec.message();
}

std::string randomSuffix() {
  static thread_local std::mt19937_64 rng{std::random_device{}()};
  std::ostringstream s;
  s << std::hex << rng();
  return s.str();
}

std::chrono::system_clock::time_point fromTimespec(const struct timespec& ts) {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(
          std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec)));
}

}  // namespace

namespace PXFileManager {

bool fileExists(const std::string& path, bool* isDirectory) {
  std::error_code ec;
  auto st = fs::status(path, ec);
  bool exists = !ec && fs::exists(st);
  if (isDirectory) *isDirectory = exists && fs::is_directory(st);
  return exists;
}

bool createDirectory(const std::string& path, bool intermediates, std::string* error) {
  std::error_code ec;
  if (intermediates) {
    fs::create_directories(path, ec);
  } else {
    fs::create_directory(path, ec);
  }
  if (ec) setError(error, ec);
  return !ec && fs::is_directory(path);
}

bool copyItem(const std::string& from, const std::string& to, std::string* error) {
  std::error_code ec;
  if (fs::exists(fs::symlink_status(to, ec))) {
    if (error) *error = "destination exists";
    return false;
  }
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
  if (ec) setError(error, ec);
  return !ec;
}

bool moveItem(const std::string& from, const std::string& to, std::string* error) {
  std::error_code ec;
  if (fs::exists(fs::symlink_status(to, ec))) {
    if (error) *error = "destination exists";
    return false;
  }
  fs::rename(from, to, ec);
  if (!ec) return true;
  if (ec != std::errc::cross_device_link) {
    setError(error, ec);
    return false;
  }
  if (!copyItem(from, to, error)) return false;
  return removeItem(from, error);
}

bool removeItem(const std::string& path, std::string* error) {
  std::error_code ec;
  fs::remove_all(path, ec);
  if (ec) setError(error, ec);
  return !ec;
}

std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path, std::string* error) {
  std::error_code ec;
  std::vector<std::string> names;
  for (fs::directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec))
    names.push_back(it->path().filename().string());
  if (ec) {
    setError(error, ec);
    return std::nullopt;
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<PXFileAttributes> attributesOfItem(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  PXFileAttributes a;
  a.size = static_cast<uint64_t>(st.st_size);
  a.modified = fromTimespec(st.st_mtim);
  a.isDirectory = S_ISDIR(st.st_mode);
  struct statx sx {};
  if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &sx) == 0 && (sx.stx_mask & STATX_BTIME)) {
    struct timespec ts{sx.stx_btime.tv_sec, static_cast<long>(sx.stx_btime.tv_nsec)};
    a.created = fromTimespec(ts);
  } else {
    a.created = fromTimespec(st.st_ctim);
  }
  return a;
}

bool isSymbolicLink(const std::string& path) {
  std::error_code ec;
  return fs::is_symlink(fs::symlink_status(path, ec));
}

std::optional<std::string> readFile(const std::string& path, std::string* error) {
  // One read per block into a buffer sized from the file: documents run to
  // hundreds of megabytes, and stream iterators copy a character at a time.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (error) *error = "cannot open " + path;
    return std::nullopt;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    ::close(fd);
    if (error) *error = "cannot read " + path;
    return std::nullopt;
  }
  std::string data(S_ISREG(st.st_mode) ? static_cast<size_t>(st.st_size) : 0, '\0');
  size_t used = 0;
  char overflow[1 << 16];  // a file that grew since fstat, or a pipe
  while (true) {
    bool inPlace = used < data.size();
    char* into = inPlace ? data.data() + used : overflow;
    ssize_t n = ::read(fd, into, inPlace ? data.size() - used : sizeof overflow);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      if (error) *error = "read error " + path;
      return std::nullopt;
    }
    if (n == 0) break;
    if (!inPlace) data.append(overflow, static_cast<size_t>(n));
    used += static_cast<size_t>(n);
  }
  ::close(fd);
  data.resize(used);
  return data;
}

bool writeFileAtomically(const std::string& path, std::string_view data, std::string* error) {
  std::string temp = path + ".tmp-" + randomSuffix();
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (!out) {
      if (error) *error = "cannot create " + temp;
      return false;
    }
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
    out.flush();
    if (!out) {
      if (error) *error = "cannot write " + temp;
      std::error_code ignored;
      fs::remove(temp, ignored);
      return false;
    }
  }
  std::error_code ec;
  fs::rename(temp, path, ec);
  if (ec) {
    setError(error, ec);
    fs::remove(temp, ec);
    return false;
  }
  return true;
}

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool writeNewFile(const std::string& path, std::string_view data, std::string* error) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0 && errno == EEXIST) return writeFileAtomically(path, data, error);
  if (fd < 0) {
    if (error) *error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  bool written = writeAll(fd, data);
  int cause = errno;
  if (::close(fd) != 0 && written) {
    written = false;
    cause = errno;
  }
  if (written) return true;
  ::unlink(path.c_str());  // this call made it: no torn file is left behind
  if (error) *error = "cannot write " + path + ": " + std::strerror(cause);
  return false;
}

std::string makeTemporaryDirectory(const std::string& prefix) {
  std::string pattern = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  const char* made = ::mkdtemp(buf.data());
  return made ? std::string(made) : std::string();
}

}  // namespace PXFileManager

std::optional<std::string> PXResolveInside(const std::string& root, const std::string& candidate) {
  // The C path would end at a NUL and name something else than was checked.
  if (candidate.find('\0') != std::string::npos || root.find('\0') != std::string::npos) return std::nullopt;
  std::error_code ec;
  fs::path base = fs::absolute(root, ec).lexically_normal();
  if (ec) return std::nullopt;
  fs::path target = fs::path(candidate).is_absolute() ? fs::path(candidate) : base / candidate;
  target = target.lexically_normal();
  auto rel = target.lexically_relative(base);
  if (rel.empty() || *rel.begin() == "..") return std::nullopt;
  if (rel == ".") return base.string();
  // A planted link inside the root could still lead elsewhere.
  fs::path walk = base;
  for (const auto& part : rel) {
    walk /= part;
    if (fs::is_symlink(fs::symlink_status(walk, ec))) return std::nullopt;
  }
  std::string out = target.string();
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

std::optional<std::string> PXRunningExecutablePath() {
  std::error_code error;
  auto path = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return std::nullopt;
  return path.string();
}

}  // namespace plexa
