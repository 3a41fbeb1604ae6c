#pragma once
// Dispatch queues and groups: a shared background pool, serial queues on it,
// the main queue as a queue, and a join counter with a completion hook.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace plexa {

class PXQueue {
 public:
  virtual ~PXQueue() = default;
  virtual void async(std::function<void()> fn) = 0;
};

// The main queue (PXMainQueue) seen as a queue.
std::shared_ptr<PXQueue> PXMainDispatchQueue();
// The process-wide background pool, as the global concurrent queues.
std::shared_ptr<PXQueue> PXGlobalQueue();
// A queue whose blocks run on the pool, any number at once.
std::shared_ptr<PXQueue> PXMakeConcurrentQueue(std::string label);
// A queue whose blocks run on the pool one after another, in order.
std::shared_ptr<PXQueue> PXMakeSerialQueue(std::string label);

// Counts outstanding work; when the count returns to zero every pending
// `notify` block is queued once.
class PXDispatchGroup {
 public:
  static std::shared_ptr<PXDispatchGroup> make();

  void enter();
  void leave();
  void notify(std::shared_ptr<PXQueue> queue, std::function<void()> fn);
  // Blocks the calling thread until the count is zero or the timeout passes.
  bool wait(std::chrono::milliseconds timeout);

 private:
  PXDispatchGroup() = default;
  void fireIfEmpty(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  long count_ = 0;
  std::vector<std::pair<std::shared_ptr<PXQueue>, std::function<void()>>> waiters_;
};

}  // namespace plexa
