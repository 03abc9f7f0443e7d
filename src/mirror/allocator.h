// Habits of the memory allocator that a daemon living for weeks cannot
// afford. glibc raises its thresholds each time a large block is freed, and
// from then on keeps large freed blocks for its own reuse: a daemon that once
// read a 16 MB name would stay that size. Fixed thresholds give such blocks
// back as soon as they are freed. Callable from any thread.
#pragma once

namespace glimmerstrand::native {

/// Fixes the thresholds; once, at the start of the process.
void fixAllocatorThresholds();
/// Gives back whole free pages the allocator still holds, after a large
/// structure (a mirror) went.
void returnFreedMemory();

}  // namespace glimmerstrand::native
