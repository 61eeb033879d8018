// Huge-page advice through madvise where the system has it.
#include "platform/memory_hints.h"

#include <cstdint>

#include <sys/mman.h>

namespace vx {

void AdviseHugePages(void *buffer, size_t bytes)
{
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr uintptr_t kHugePage = uintptr_t{1} << 21;
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

}  // namespace vx
