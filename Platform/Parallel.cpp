#include "Parallel.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace plexa {

void PXParallelFor(std::size_t count, const std::function<void(std::size_t)>& body) {
  if (count == 0) return;
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    for (std::size_t i = next++; i < count; i = next++) body(i);
  };
  const std::size_t threads = std::min<std::size_t>(count, std::max(1u, std::thread::hardware_concurrency()));
  std::vector<std::thread> helpers;
  helpers.reserve(threads - 1);
  try {
    for (std::size_t t = 1; t < threads; ++t) helpers.emplace_back(work);
  } catch (const std::system_error&) {
    // No more threads to be had: the ones running finish the job.
  }
  work();
  for (auto& helper : helpers) helper.join();
}

}  // namespace plexa
