// Large blocks mapped straight from the system, where it has mappings, with huge pages advised.
#include "platform/memory_hints.h"

#include <cstdint>

#if defined(__unix__)
#include <sys/mman.h>
#define VX_MAPS_LARGE_BLOCKS 1
#else
#define VX_MAPS_LARGE_BLOCKS 0
#endif

namespace vx {
namespace {

constexpr uintptr_t kHugePage = uintptr_t{1} << 21;

size_t HugeRounded(size_t bytes) { return (bytes + kHugePage - 1) & ~(kHugePage - 1); }

}  // namespace

bool IsLargeBlock(size_t bytes) { return VX_MAPS_LARGE_BLOCKS && bytes >= 2 * kHugePage; }

void *MapLargeBlock(size_t bytes)
{
#if VX_MAPS_LARGE_BLOCKS
    // Whole huge pages: a partial last one would be faulted in 4 KiB at a time. Map a huge
    // page more than that and give back the parts before the first 2 MiB boundary and after
    // the block.
    const size_t length = HugeRounded(bytes);
    if (length < bytes || length + kHugePage < length)
        return nullptr;
    void *mapped = mmap(nullptr, length + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
        return nullptr;
    const auto start = reinterpret_cast<uintptr_t>(mapped);
    const uintptr_t block = (start + kHugePage - 1) & ~(kHugePage - 1);
    if (block > start)
        munmap(mapped, block - start);
    const uintptr_t end = start + length + kHugePage;
    if (end > block + length)
        munmap(reinterpret_cast<void *>(block + length), end - (block + length));
#if defined(MADV_HUGEPAGE)
    // A hint: with 4 KiB pages a 33 MB block costs some 8,000 faults, with 2 MiB pages a few
    // dozen. Refused, it changes nothing.
    madvise(reinterpret_cast<void *>(block), length, MADV_HUGEPAGE);
#endif
    return reinterpret_cast<void *>(block);
#else
    (void)bytes;
    return nullptr;
#endif
}

void UnmapLargeBlock(void *block, size_t bytes)
{
#if VX_MAPS_LARGE_BLOCKS
    if (block)
        munmap(block, HugeRounded(bytes));
#else
    (void)block;
    (void)bytes;
#endif
}

}  // namespace vx
