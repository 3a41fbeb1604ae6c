#pragma once
// Memory for JSON trees that live and die together, such as the pages of one
// document: each thread packs its trees one after another into shared
// regions of huge pages, instead of each tree leaving the end of its last
// 2 MB page zeroed and unused.

#include <boost/json/memory_resource.hpp>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace plexa {

struct PXJsonArenaRegion;  // one mapping, gone when nothing holds it

// Where each thread goes on carving. A region goes when the pool and every
// arena that used it are gone: trees of very different lifetimes are better
// kept in pools of their own.
class PXJsonArenaPool {
 public:
  // Regions hold at least `regionBytes`; those under 2 MB are left in
  // small pages, for pools that will hold one small tree.
  explicit PXJsonArenaPool(size_t regionBytes = size_t{64} << 20) : regionBytes_(regionBytes) {}

  struct Span {
    char* begin = nullptr;
    char* end = nullptr;
    std::shared_ptr<PXJsonArenaRegion> region;
  };
  // All that the calling thread's region has left, or a new region when that
  // is less than `bytes`.
  Span lease(size_t bytes);
  // Hands back the unused end of the thread's latest lease, for its next one.
  void giveBack(const Span& rest);

 private:
  const size_t regionBytes_;
  std::mutex mutex_;
  std::map<std::thread::id, Span> cursors_;
};

// A bump arena over leases from a pool; frees nothing until it goes, so the
// values in it need no destruction one by one.
class PXJsonPooledArena final : public boost::json::memory_resource {
 public:
  explicit PXJsonPooledArena(std::shared_ptr<PXJsonArenaPool> pool) : pool_(std::move(pool)) {}
  // Done building: what the lease has left goes back to the pool for the
  // next tree. Later allocations (copies into the tree) take regions of
  // their own.
  void finish();

 private:
  void* do_allocate(size_t n, size_t align) override;
  void do_deallocate(void*, size_t, size_t) override {}
  bool do_is_equal(const boost::json::memory_resource& other) const noexcept override { return this == &other; }

  std::shared_ptr<PXJsonArenaPool> pool_;
  PXJsonArenaPool::Span span_;
  std::vector<std::shared_ptr<PXJsonArenaRegion>> regions_;
};

}  // namespace plexa

template <>
struct boost::json::is_deallocate_trivial<plexa::PXJsonPooledArena> {
  static constexpr bool value = true;
};
