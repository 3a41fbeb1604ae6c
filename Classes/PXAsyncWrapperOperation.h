#pragma once
// Operations and the queue that runs them: a concurrency limit that can
// change while the queue runs, dependencies, and cancelling everything. An
// operation holds its slot from its start until it finishes, which for an
// asynchronous job is when the job says so, without a thread waiting on it.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace plexa {

class PXOperationQueue;

class PXOperation : public std::enable_shared_from_this<PXOperation> {
 public:
  virtual ~PXOperation() = default;

  // The operation starts only once `operation` has finished or was cancelled
  // before it started. Dependencies must be in the same queue.
  void addDependency(const std::shared_ptr<PXOperation>& operation);
  // An operation cancelled before its start never runs; a running one is
  // only marked and ends as its job decides.
  void cancel();
  bool isCancelled() const { return cancelled_; }
  bool isExecuting() const { return state_ == State::executing; }
  bool isFinished() const { return state_ == State::finished; }

 protected:
  PXOperation() = default;
  // Called once, when the queue gives the operation a slot, on the thread
  // that freed or added the slot: it must hand its work to a queue and return.
  virtual void main() = 0;
  // Ends the operation and frees its slot; later calls do nothing.
  void finishOperation();

 private:
  friend class PXOperationQueue;
  enum class State { pending, executing, finished };

  bool isReady() const;

  std::atomic<bool> cancelled_{false};
  std::atomic<State> state_{State::pending};
  mutable std::mutex dependenciesLock_;
  std::vector<std::shared_ptr<PXOperation>> dependencies_;
  std::weak_ptr<PXOperationQueue> queue_;
};

// A block run on a background thread.
class PXBlockOperation : public PXOperation {
 public:
  static std::shared_ptr<PXBlockOperation> operationWithBlock(std::function<void()> block);

 protected:
  void main() override;

 private:
  std::function<void()> block_;
};

// An asynchronous job in a queue slot: the job runs on the main thread with
// the operation as its argument and keeps the slot until it calls `finish`.
class PXAsyncWrapperOperation : public PXOperation {
 public:
  using Block = std::function<void(const std::shared_ptr<PXAsyncWrapperOperation>& operation)>;
  static std::shared_ptr<PXAsyncWrapperOperation> operationWithBlock(Block block);

  bool isConcurrent() const { return true; }
  // Exactly once per run. Without a block the slot stays taken until some
  // other party calls it.
  void finish();

  Block block;

 protected:
  void main() override;
};

class PXOperationQueue : public std::enable_shared_from_this<PXOperationQueue> {
 public:
  static constexpr uint64_t noLimit = UINT64_MAX;
  static std::shared_ptr<PXOperationQueue> make();

  // Takes effect at once: a raised limit starts waiting operations now, a
  // lowered one lets running operations end. 0 runs nothing until raised.
  void setMaxConcurrentOperationCount(uint64_t count);
  uint64_t maxConcurrentOperationCount() const;

  void addOperation(const std::shared_ptr<PXOperation>& operation);
  void cancelAllOperations();
  // Operations added and not yet finished, and those of them now running.
  size_t operationCount() const;
  size_t executingOperationCount() const;

 private:
  friend class PXOperation;
  PXOperationQueue() = default;
  // Drops cancelled waiting operations and starts ready ones while slots are free.
  void schedule();
  void operationFinished(const PXOperation* operation);

  mutable std::mutex lock_;
  std::vector<std::shared_ptr<PXOperation>> operations_;
  uint64_t maxConcurrent_ = noLimit;
  size_t executing_ = 0;
};

}  // namespace plexa
