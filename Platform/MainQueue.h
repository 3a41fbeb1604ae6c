#pragma once
// The main queue: one event loop that the host drives. The thread that runs
// it is the main thread; callbacks promised "on the main thread" arrive here.

#include <chrono>
#include <functional>
#include <memory>

namespace plexa {

class PXMainQueue {
 public:
  // Process-wide, like the main run loop it stands for.
  static PXMainQueue& shared();

  // Queues `fn`; safe from any thread.
  void async(std::function<void()> fn);
  // Runs `fn` now when called on the main thread, else queues it.
  void perform(std::function<void()> fn);
  // Queues `fn` after a delay.
  void after(std::chrono::milliseconds delay, std::function<void()> fn);

  // True on the thread that is currently running the loop.
  bool isMainThread() const;

  // Runs the loop on the calling thread until `stop`.
  void run();
  // Runs the loop until `pred` holds or the timeout passes; returns `pred()`.
  bool runUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout);
  // Runs whatever is ready without waiting.
  void drain();
  void stop();

  // The underlying boost::asio::io_context, for Platform code only.
  void* nativeContext();

  PXMainQueue(const PXMainQueue&) = delete;
  PXMainQueue& operator=(const PXMainQueue&) = delete;

 private:
  PXMainQueue();
  ~PXMainQueue();
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace plexa
