#include "MainQueue.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <atomic>

namespace plexa {

namespace asio = boost::asio;

namespace {
thread_local bool tlRunningMain = false;

struct MainThreadScope {
  bool previous = tlRunningMain;
  MainThreadScope() { tlRunningMain = true; }
  ~MainThreadScope() { tlRunningMain = previous; }
};
}  // namespace

struct PXMainQueue::Impl {
  asio::io_context context;
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
};

PXMainQueue::PXMainQueue() : impl_(std::make_unique<Impl>()) {}
PXMainQueue::~PXMainQueue() = default;

PXMainQueue& PXMainQueue::shared() {
  // Never destroyed: background threads may still post during exit.
  static PXMainQueue* queue = new PXMainQueue();
  return *queue;
}

void PXMainQueue::async(std::function<void()> fn) {
  asio::post(impl_->context, std::move(fn));
}

void PXMainQueue::perform(std::function<void()> fn) {
  if (isMainThread()) {
    fn();
  } else {
    async(std::move(fn));
  }
}

void PXMainQueue::after(std::chrono::milliseconds delay, std::function<void()> fn) {
  auto timer = std::make_shared<asio::steady_timer>(impl_->context, delay);
  timer->async_wait([timer, fn = std::move(fn)](const boost::system::error_code& ec) {
    if (!ec) fn();
  });
}

bool PXMainQueue::isMainThread() const { return tlRunningMain; }

void PXMainQueue::run() {
  MainThreadScope scope;
  impl_->context.restart();
  impl_->context.run();
}

bool PXMainQueue::runUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  MainThreadScope scope;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return pred();
    if (impl_->context.stopped()) impl_->context.restart();
    impl_->context.run_one_for(std::min<std::chrono::steady_clock::duration>(
        deadline - now, std::chrono::milliseconds(20)));
  }
  return true;
}

void PXMainQueue::drain() {
  MainThreadScope scope;
  if (impl_->context.stopped()) impl_->context.restart();
  impl_->context.poll();
}

void PXMainQueue::stop() { impl_->context.stop(); }

void* PXMainQueue::nativeContext() { return &impl_->context; }

}  // namespace plexa
