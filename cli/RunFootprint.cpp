#include "RunFootprint.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace plexa::cli {

namespace {

constexpr int kMaxDepth = 128;

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

bool emptyAt(int folder, int depth) noexcept;

// Removes one entry of `folder`, descending into it when it is a folder.
bool removeEntryAt(int folder, const char* name, int depth) noexcept {
  if (::unlinkat(folder, name, 0) == 0 || errno == ENOENT) return true;
  if (errno != EISDIR && errno != EPERM) return false;
  int inner = ::openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (inner < 0) return errno == ENOENT;
  bool emptied = depth < kMaxDepth && emptyAt(inner, depth + 1);
  ::close(inner);
  return emptied && (::unlinkat(folder, name, AT_REMOVEDIR) == 0 || errno == ENOENT);
}

// Reads the folder from the start after every pass, so entries removed
// under the reader never make it skip others; stops when a pass finds
// nothing it can remove.
bool emptyAt(int folder, int depth) noexcept {
  alignas(8) char buffer[8192];
  for (;;) {
    if (::lseek(folder, 0, SEEK_SET) < 0) return false;
    long n = ::syscall(SYS_getdents64, folder, buffer, sizeof buffer);
    if (n < 0) return false;
    bool sawEntry = false, removedAny = false;
    for (long offset = 0; offset < n;) {
      auto* entry = reinterpret_cast<struct dirent64*>(buffer + offset);
      offset += entry->d_reclen;
      if (isDotOrDotDot(entry->d_name)) continue;
      sawEntry = true;
      if (removeEntryAt(folder, entry->d_name, depth)) removedAny = true;
    }
    if (!sawEntry) return true;
    if (!removedAny) return false;
  }
}

std::string temporaryRoot() {
  const char* tmp = std::getenv("TMPDIR");
  std::string root = tmp && *tmp ? tmp : "/tmp";
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root;
}

std::string randomSuffix() {
  static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  thread_local std::mt19937_64 engine{std::random_device{}()};
  std::string suffix(6, 'x');
  for (auto& c : suffix) c = kLetters[engine() % (sizeof kLetters - 1)];
  return suffix;
}

}  // namespace

RunFootprint& RunFootprint::shared() {
  static RunFootprint footprint;
  return footprint;
}

int RunFootprint::claim(const std::string& path, int kind) {
  if (path.empty() || path.size() >= PATH_MAX) return -1;
  for (int i = 0; i < kSlots; ++i) {
    int expected = kFree;
    if (!slots_[i].state.compare_exchange_strong(expected, kFilling)) continue;
    slots_[i].kind = kind;
    std::memcpy(slots_[i].path, path.c_str(), path.size() + 1);
    slots_[i].state.store(kReady);
    return i;
  }
  return -1;
}

// Frees the matching slots: those of `kind`, and with `path` the ones of
// that path only.
void RunFootprint::release(int kind, const std::string* path) {
  for (auto& slot : slots_) {
    int expected = kReady;
    if (slot.kind != kind || (path && *path != slot.path)) continue;
    if (!slot.state.compare_exchange_strong(expected, kFilling)) continue;
    slot.path[0] = '\0';
    slot.state.store(kFree);
  }
}

std::string RunFootprint::makeTemporaryFolder(const std::string& prefix, std::string* error) {
  std::string root = temporaryRoot();
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string path = root + "/" + prefix + "-" + randomSuffix();
    if (claim(path, kItem) < 0) {
      if (error) *error = "too many temporary items";
      return "";
    }
    if (::mkdir(path.c_str(), 0700) == 0) return path;
    int cause = errno;
    release(kItem, &path);
    if (cause != EEXIST) {
      if (error) *error = root + ": " + std::strerror(cause);
      return "";
    }
  }
  if (error) *error = "no unused name in " + root;
  return "";
}

bool RunFootprint::record(const std::string& path) { return claim(path, kItem) >= 0; }

void RunFootprint::remove(const std::string& path) {
  removeTree(path.c_str());
  release(kItem, &path);
}

void RunFootprint::forget(const std::string& path) { release(kItem, &path); }

bool RunFootprint::recordOutputFolder(const std::string& folder, bool existedBefore) {
  return claim(folder, existedBefore ? kOutputContents : kOutputFolder) >= 0;
}

void RunFootprint::keepOutputFolder() {
  release(kOutputContents, nullptr);
  release(kOutputFolder, nullptr);
}

void RunFootprint::removeAll() noexcept {
  for (auto& slot : slots_) {
    int expected = kReady;
    if (!slot.state.compare_exchange_strong(expected, kFilling)) continue;
    if (slot.kind == kOutputContents) {
      emptyFolder(slot.path);
    } else {
      removeTree(slot.path);
    }
    slot.path[0] = '\0';
    slot.state.store(kFree);
  }
}

bool RunFootprint::emptyFolder(const char* path) noexcept {
  int folder = ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (folder < 0) return errno == ENOENT;
  bool emptied = emptyAt(folder, 0);
  ::close(folder);
  return emptied;
}

bool RunFootprint::removeTree(const char* path) noexcept {
  return removeEntryAt(AT_FDCWD, path, 0);
}

}  // namespace plexa::cli
