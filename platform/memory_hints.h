// How the library's heap and its large buffers meet the operating system. Internal to the
// library; a hint that is refused changes nothing.
#pragma once

#include <cstddef>

namespace vx {

// Asks for the whole 2 MiB blocks inside `buffer` to be backed by huge pages. A fresh buffer
// is faulted in by the first pass that writes it: with 4 KiB pages a 33 MB image costs some
// 8,000 faults, with 2 MiB pages a few dozen. Buffers under 4 MiB are left alone.
void AdviseHugePages(void *buffer, size_t bytes);

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
