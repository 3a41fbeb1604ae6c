#include "Memory.h"

#include <malloc.h>

namespace plexa {

void PXReleaseFreeMemory() { ::malloc_trim(0); }

}  // namespace plexa
