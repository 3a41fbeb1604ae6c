#pragma once
// What the process's allocator holds but no longer uses.

namespace plexa {

// Returns freed memory of every allocator arena to the system. Worth it
// after a large structure built on another thread is released: its arena
// keeps the pages (and the free lists that slow later allocations) otherwise.
void PXReleaseFreeMemory();

}  // namespace plexa
