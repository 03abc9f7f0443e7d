#include "mirror/allocator.h"

#include <cstdlib>  // says which C library this is

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace glimmerstrand::native {

namespace {

// Blocks from this size on get pages of their own, returned when freed.
constexpr int mapThresholdBytes = 256 * 1024;
// Free memory above this at the top of a heap goes back at the next free.
constexpr int trimThresholdBytes = 1024 * 1024;

}  // namespace

void fixAllocatorThresholds() {
#if defined(__GLIBC__)
  mallopt(M_MMAP_THRESHOLD, mapThresholdBytes);
  mallopt(M_TRIM_THRESHOLD, trimThresholdBytes);
#endif
}

void returnFreedMemory() {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

}  // namespace glimmerstrand::native
