#include "AllocatorTuning.h"

#include <malloc.h>

namespace plexa {

void PXKeepFreedMemoryForReuse() {
  // Blocks up to 256 MB come from the heap rather than from their own
  // mappings, and the heap is not trimmed below 1 GB of free space.
  mallopt(M_MMAP_THRESHOLD, 256 << 20);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
}

}  // namespace plexa
