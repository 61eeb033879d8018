// Hints to the operating system about how the library will use large buffers. Internal to
// the library; a hint that is refused changes nothing.
#pragma once

#include <cstddef>

namespace vx {

// Asks for the whole 2 MiB blocks inside `buffer` to be backed by huge pages. A fresh buffer
// is faulted in by the first pass that writes it: with 4 KiB pages a 33 MB image costs some
// 8,000 faults, with 2 MiB pages a few dozen. Buffers under 4 MiB are left alone.
void AdviseHugePages(void *buffer, size_t bytes);

// The bytes to allocate for a buffer of `bytes` that PlaceOnHugePages is to place: 2 MiB more
// from 4 MiB on, else `bytes`.
size_t HugePageBlockBytes(size_t bytes);
// Where a buffer of `bytes` lies inside `block`, an allocation of HugePageBlockBytes(bytes):
// from 4 MiB on at the block's first 2 MiB boundary, with huge pages advised over the block,
// so that every 2 MiB of the buffer can be one huge page; else at the block's start.
void *PlaceOnHugePages(void *block, size_t bytes);

}  // namespace vx
