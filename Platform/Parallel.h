#pragma once
// Runs independent pieces of one job (pages, archive entries) on the
// machine's cores and returns when all are done.

#include <cstddef>
#include <functional>

namespace plexa {

// Calls `body(i)` for every i in [0, count), on up to as many threads as
// there are cores (the calling thread is one of them). The calls share no
// order; each i is run exactly once. An exception escaping `body` ends the
// process, as it would on any worker thread: callers catch their own.
void PXParallelFor(std::size_t count, const std::function<void(std::size_t)>& body);

}  // namespace plexa
