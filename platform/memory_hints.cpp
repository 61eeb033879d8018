// Huge-page advice through madvise where the system has it.
#include "platform/memory_hints.h"

#include <cstdint>

#include <sys/mman.h>

namespace vx {
namespace {

constexpr uintptr_t kHugePage = uintptr_t{1} << 21;

}  // namespace

void AdviseHugePages(void *buffer, size_t bytes)
{
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    if (!buffer || bytes < 2 * kHugePage)
        return;
    const auto start = reinterpret_cast<uintptr_t>(buffer);
    const uintptr_t first = (start + kHugePage - 1) & ~(kHugePage - 1), end = (start + bytes) & ~(kHugePage - 1);
    if (end > first)
        madvise(reinterpret_cast<void *>(first), end - first, MADV_HUGEPAGE);
#else
    (void)buffer;
    (void)bytes;
#endif
}

size_t HugePageBlockBytes(size_t bytes) { return bytes >= 2 * kHugePage ? bytes + kHugePage : bytes; }

void *PlaceOnHugePages(void *block, size_t bytes)
{
    if (!block || bytes < 2 * kHugePage)
        return block;
    AdviseHugePages(block, bytes + kHugePage);
    const uintptr_t start = (reinterpret_cast<uintptr_t>(block) + kHugePage - 1) & ~(kHugePage - 1);
    return reinterpret_cast<void *>(start);
}

}  // namespace vx
