#include "Heap.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#if defined(__GLIBC__)
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace tsapp::tool {

// A run of the tool builds a few megabytes of records, names and DOM nodes
// and exits. Faulting that heap in page by page was a fifth of a one-file
// upgrade's wall time on a busy virtual machine (a first touch of a 4 KiB
// page cost over 10 µs there) and still a tenth on a quiet one (1.3 µs).
// So the C library is asked to take its heap in one piece, kept rather than
// given back, and the kernel to back that piece with 2 MiB pages: a few
// faults instead of a few thousand. Nothing here is needed for correctness:
// where the heap is not the C library's (a sanitizer's allocator) or the
// kernel declines, the process runs as before.
void preferLargeHeapPages() {
#if defined(__GLIBC__)
    constexpr std::size_t kLarge = std::size_t{2} << 20;
    constexpr std::size_t kHeap = std::size_t{24} << 20;
    // Blocks below the threshold come from the heap, and the heap's top is
    // not trimmed until that much of it is free.
    if (mallopt(M_MMAP_THRESHOLD, 32 << 20) == 0 || mallopt(M_TRIM_THRESHOLD, 64 << 20) == 0)
        return;
    const auto before = reinterpret_cast<std::uintptr_t>(sbrk(0));
    void* block = std::malloc(kHeap);
    const auto after = reinterpret_cast<std::uintptr_t>(sbrk(0));
    std::free(block);
    if (block == nullptr || after < before + kHeap) return;
    const std::uintptr_t start = (before + kLarge - 1) & ~(kLarge - 1);
    const std::uintptr_t end = after & ~(kLarge - 1);
    if (end > start) madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
#endif
}

}  // namespace tsapp::tool
