#include "PXAsyncWrapperOperation.h"

#include "Dispatch.h"
#include "MainQueue.h"

#include <algorithm>

namespace plexa {

void PXOperation::addDependency(const std::shared_ptr<PXOperation>& operation) {
  if (!operation || operation.get() == this) return;
  std::lock_guard lock(dependenciesLock_);
  dependencies_.push_back(operation);
}

bool PXOperation::isReady() const {
  std::lock_guard lock(dependenciesLock_);
  return std::all_of(dependencies_.begin(), dependencies_.end(),
                     [](const auto& dependency) { return dependency->isFinished(); });
}

void PXOperation::cancel() {
  cancelled_ = true;
  if (auto queue = queue_.lock()) queue->schedule();
}

void PXOperation::finishOperation() {
  auto self = shared_from_this();
  State expected = State::executing;
  if (!state_.compare_exchange_strong(expected, State::finished)) return;
  if (auto queue = queue_.lock()) queue->operationFinished(this);
}

std::shared_ptr<PXBlockOperation> PXBlockOperation::operationWithBlock(std::function<void()> block) {
  auto operation = std::shared_ptr<PXBlockOperation>(new PXBlockOperation());
  operation->block_ = std::move(block);
  return operation;
}

void PXBlockOperation::main() {
  auto self = std::static_pointer_cast<PXBlockOperation>(shared_from_this());
  PXGlobalQueue()->async([self] {
    if (self->block_) self->block_();
    self->finishOperation();
  });
}

std::shared_ptr<PXAsyncWrapperOperation> PXAsyncWrapperOperation::operationWithBlock(Block block) {
  auto operation = std::shared_ptr<PXAsyncWrapperOperation>(new PXAsyncWrapperOperation());
  operation->block = std::move(block);
  return operation;
}

void PXAsyncWrapperOperation::main() {
  if (!block) return;
  auto self = std::static_pointer_cast<PXAsyncWrapperOperation>(shared_from_this());
  PXMainQueue::shared().async([self] { self->block(self); });
}

void PXAsyncWrapperOperation::finish() { finishOperation(); }

std::shared_ptr<PXOperationQueue> PXOperationQueue::make() {
  return std::shared_ptr<PXOperationQueue>(new PXOperationQueue());
}

void PXOperationQueue::setMaxConcurrentOperationCount(uint64_t count) {
  {
    std::lock_guard lock(lock_);
    maxConcurrent_ = count;
  }
  schedule();
}

uint64_t PXOperationQueue::maxConcurrentOperationCount() const {
  std::lock_guard lock(lock_);
  return maxConcurrent_;
}

void PXOperationQueue::addOperation(const std::shared_ptr<PXOperation>& operation) {
  if (!operation || operation->state_ != PXOperation::State::pending || !operation->queue_.expired()) return;
  operation->queue_ = weak_from_this();
  {
    std::lock_guard lock(lock_);
    operations_.push_back(operation);
  }
  schedule();
}

void PXOperationQueue::cancelAllOperations() {
  {
    std::lock_guard lock(lock_);
    for (auto& operation : operations_) operation->cancelled_ = true;
  }
  schedule();
}

size_t PXOperationQueue::operationCount() const {
  std::lock_guard lock(lock_);
  return operations_.size();
}

size_t PXOperationQueue::executingOperationCount() const {
  std::lock_guard lock(lock_);
  return executing_;
}

void PXOperationQueue::schedule() {
  std::vector<std::shared_ptr<PXOperation>> starting;
  {
    std::lock_guard lock(lock_);
    // Cancelled before their start, operations finish without running, and
    // so stop holding back the operations that depend on them.
    std::erase_if(operations_, [](const auto& operation) {
      if (operation->state_ != PXOperation::State::pending || !operation->cancelled_) return false;
      operation->state_ = PXOperation::State::finished;
      return true;
    });
    for (const auto& operation : operations_) {
      if (executing_ >= maxConcurrent_) break;
      if (operation->state_ != PXOperation::State::pending || !operation->isReady()) continue;
      operation->state_ = PXOperation::State::executing;
      ++executing_;
      starting.push_back(operation);
    }
  }
  for (const auto& operation : starting) operation->main();
}

void PXOperationQueue::operationFinished(const PXOperation* operation) {
  {
    std::lock_guard lock(lock_);
    auto found = std::find_if(operations_.begin(), operations_.end(),
                              [operation](const auto& candidate) { return candidate.get() == operation; });
    if (found != operations_.end()) {
      operations_.erase(found);
      if (executing_ > 0) --executing_;
    }
  }
  schedule();
}

}  // namespace plexa
