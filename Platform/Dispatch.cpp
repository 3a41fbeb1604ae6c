#include "Dispatch.h"

#include "MainQueue.h"

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>

#include <condition_variable>
#include <thread>

namespace plexa {

namespace asio = boost::asio;

namespace {

asio::thread_pool& pool() {
  // Enough threads that blocking stages (unzipping, synchronous children)
  // cannot starve the rest. Never destroyed: blocks may run during exit.
  static auto* p = new asio::thread_pool(std::max(8u, std::thread::hardware_concurrency() * 2));
  return *p;
}

class MainQueueAdapter final : public PXQueue {
 public:
  void async(std::function<void()> fn) override { PXMainQueue::shared().async(std::move(fn)); }
};

class PoolQueue final : public PXQueue {
 public:
  void async(std::function<void()> fn) override { asio::post(pool(), std::move(fn)); }
};

class StrandQueue final : public PXQueue {
 public:
  StrandQueue() : strand_(asio::make_strand(pool())) {}
  void async(std::function<void()> fn) override { asio::post(strand_, std::move(fn)); }

 private:
  asio::strand<asio::thread_pool::executor_type> strand_;
};

std::mutex& groupWaitMutex() {
  static std::mutex m;
  return m;
}
std::condition_variable& groupWaitCondition() {
  static std::condition_variable c;
  return c;
}

}  // namespace

std::shared_ptr<PXQueue> PXMainDispatchQueue() {
  static auto q = std::make_shared<MainQueueAdapter>();
  return q;
}

std::shared_ptr<PXQueue> PXGlobalQueue() {
  static auto q = std::make_shared<PoolQueue>();
  return q;
}

std::shared_ptr<PXQueue> PXMakeConcurrentQueue(std::string) { return std::make_shared<PoolQueue>(); }

std::shared_ptr<PXQueue> PXMakeSerialQueue(std::string) { return std::make_shared<StrandQueue>(); }

std::shared_ptr<PXDispatchGroup> PXDispatchGroup::make() {
  return std::shared_ptr<PXDispatchGroup>(new PXDispatchGroup());
}

void PXDispatchGroup::enter() {
  std::lock_guard lock(mutex_);
  ++count_;
}

void PXDispatchGroup::leave() {
  std::unique_lock lock(mutex_);
  if (count_ > 0) --count_;
  fireIfEmpty(lock);
}

void PXDispatchGroup::notify(std::shared_ptr<PXQueue> queue, std::function<void()> fn) {
  std::unique_lock lock(mutex_);
  waiters_.emplace_back(std::move(queue), std::move(fn));
  fireIfEmpty(lock);
}

void PXDispatchGroup::fireIfEmpty(std::unique_lock<std::mutex>& lock) {
  if (count_ != 0) return;
  auto ready = std::move(waiters_);
  waiters_.clear();
  lock.unlock();
  for (auto& [queue, fn] : ready) queue->async(std::move(fn));
  std::lock_guard wake(groupWaitMutex());
  groupWaitCondition().notify_all();
}

bool PXDispatchGroup::wait(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock wake(groupWaitMutex());
  return groupWaitCondition().wait_until(wake, deadline, [this] {
    std::lock_guard lock(mutex_);
    return count_ == 0;
  });
}

}  // namespace plexa
