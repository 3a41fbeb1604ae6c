#include "JsonArenaPool.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <new>

namespace plexa {

namespace {

constexpr size_t kHuge = size_t{2} << 20;
constexpr size_t kSmallPage = size_t{4} << 10;

size_t roundUp(size_t n, size_t to) { return (n + to - 1) / to * to; }

char* alignUp(char* p, size_t align) {
  const auto at = reinterpret_cast<uintptr_t>(p);
  return reinterpret_cast<char*>((at + align - 1) / align * align);
}

}  // namespace

// From 2 MB on, starts on a huge-page boundary and is faulted in 2 MB at a
// time; what is never touched costs address space only.
struct PXJsonArenaRegion {
  explicit PXJsonArenaRegion(size_t bytes) : length(roundUp(bytes, bytes < kHuge ? kSmallPage : kHuge)) {
    const bool huge = length >= kHuge;
    const size_t slack = huge ? kHuge : 0;
    void* raw = ::mmap(nullptr, length + slack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) throw std::bad_alloc();
    const auto start = reinterpret_cast<uintptr_t>(raw);
    const uintptr_t aligned = roundUp(start, huge ? kHuge : kSmallPage);
    if (aligned > start) ::munmap(raw, aligned - start);
    const uintptr_t end = start + length + slack;
    if (end > aligned + length) ::munmap(reinterpret_cast<void*>(aligned + length), end - (aligned + length));
    base = reinterpret_cast<char*>(aligned);
    if (huge) ::madvise(base, length, MADV_HUGEPAGE);
  }
  ~PXJsonArenaRegion() { ::munmap(base, length); }
  PXJsonArenaRegion(const PXJsonArenaRegion&) = delete;
  PXJsonArenaRegion& operator=(const PXJsonArenaRegion&) = delete;

  size_t length;
  char* base = nullptr;
};

PXJsonArenaPool::Span PXJsonArenaPool::lease(size_t bytes) {
  std::lock_guard lock(mutex_);
  Span& cursor = cursors_[std::this_thread::get_id()];
  if (!cursor.region || static_cast<size_t>(cursor.end - cursor.begin) < bytes) {
    auto region = std::make_shared<PXJsonArenaRegion>(std::max(bytes, regionBytes_));
    cursor = Span{region->base, region->base + region->length, region};
  }
  Span taken = cursor;
  cursor.begin = cursor.end;
  return taken;
}

void PXJsonArenaPool::giveBack(const Span& rest) {
  std::lock_guard lock(mutex_);
  auto it = cursors_.find(std::this_thread::get_id());
  // Only the latest lease of this thread is still next to its cursor.
  if (it == cursors_.end() || it->second.region != rest.region || it->second.begin != rest.end) return;
  it->second.begin = rest.begin;
}

void PXJsonPooledArena::finish() {
  if (pool_ && span_.region) pool_->giveBack(span_);
  pool_.reset();
  span_ = {};
}

void* PXJsonPooledArena::do_allocate(size_t n, size_t align) {
  char* p = span_.region ? alignUp(span_.begin, align) : nullptr;
  if (!p || p > span_.end || static_cast<size_t>(span_.end - p) < n) {
    const size_t wanted = n + align;
    if (pool_) {
      if (span_.region) pool_->giveBack(span_);
      span_ = pool_->lease(wanted);
    } else {
      // Past its build a tree grows by copies only: a little at a time.
      auto region = std::make_shared<PXJsonArenaRegion>(std::max<size_t>(wanted, 64 << 10));
      span_ = PXJsonArenaPool::Span{region->base, region->base + region->length, region};
    }
    if (regions_.empty() || regions_.back() != span_.region) regions_.push_back(span_.region);
    p = alignUp(span_.begin, align);
  }
  span_.begin = p + n;
  return p;
}

}  // namespace plexa
