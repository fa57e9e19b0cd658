#pragma once

namespace tsapp::tool {

// Lets the kernel back the process's heap with 2 MiB pages where it allows
// them on request (transparent huge pages set to "madvise" or "always").
// Call once, early in main.
void preferLargeHeapPages();

}  // namespace tsapp::tool
