#pragma once
// Allocator settings for short-lived processes that draw large images.

namespace plexa {

// Keeps freed memory in the process for reuse instead of returning it to
// the system at once: large buffers made and freed per image (pixels, PNG
// rows, blur planes) then cost no new page faults. For processes that exit
// after their work; the memory goes back when they do.
void PXKeepFreedMemoryForReuse();

}  // namespace plexa
