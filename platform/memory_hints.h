// Large blocks of the library's default heap, mapped straight from the system. Internal to
// the library.
#pragma once

#include <cstddef>

namespace vx {

// True for the sizes that the library's default allocator maps with MapLargeBlock instead of
// taking them from the C library heap: 4 MiB and more, where the system maps memory.
bool IsLargeBlock(size_t bytes);
// A zero-filled block of `bytes` mapped straight from the system, starting on a 2 MiB
// boundary with huge pages advised before anything touches it; NULL when the system refuses.
// Such a block is faulted in whole pages by its first writer, never cleared twice, and goes
// back to the system when it is freed.
void *MapLargeBlock(size_t bytes);
// Returns a block from MapLargeBlock to the system.
void UnmapLargeBlock(void *block, size_t bytes);

}  // namespace vx
