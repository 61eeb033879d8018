// Memory helpers: every allocation of the library passes through here, so that an exhausted
// heap is raised through the checkpoint mechanism and an application can install its own heap.
#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/memory.h>

#include "platform/memory_hints.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kOutOfMemory = 1;
constexpr size_t kHeapMinThreshold = 4194304;

// The C library heap, with blocks of 4 MiB and more mapped straight from the system on 2 MiB
// boundaries (see MapLargeBlock): whatever the heap's state, such a block is then faulted in
// a few huge pages at a time by its first writer instead of being cleared page by page out
// of free memory the last trim gave back, and it returns to the system when freed.
void *SystemAlloc(void *, size_t size)
{
    return vx::IsLargeBlock(size) ? vx::MapLargeBlock(size) : std::calloc(1, size);
}

void SystemFree(void *, void *block, size_t size)
{
    if (vx::IsLargeBlock(size))
        vx::UnmapLargeBlock(block, size);
    else
        std::free(block);
}

void *SystemRealloc(void *user, void *block, size_t oldSize, size_t newSize)
{
    if (!vx::IsLargeBlock(oldSize) && !vx::IsLargeBlock(newSize))
        return std::realloc(block, newSize);
    void *moved = SystemAlloc(user, newSize);
    if (!moved)
        return nullptr;
    std::memcpy(moved, block, std::min(oldSize, newSize));
    SystemFree(user, block, oldSize);
    return moved;
}

void SystemTrim(void *) { malloc_trim(0); }

constexpr StdAllocator kSystemAllocator = {SystemAlloc, SystemRealloc, SystemFree, SystemTrim, nullptr};

StdAllocator g_allocator = kSystemAllocator;
std::atomic<size_t> g_freedSinceTrim{0};

void *RaiseOutOfMemory()
{
    CkptRecover(kOutOfMemory);  // returns only when no block is open
    return nullptr;
}

}  // namespace

extern "C" {

VX_API void StdSetAllocator(const StdAllocator *allocator)
{
    g_allocator = allocator ? *allocator : kSystemAllocator;
}

VX_API void StdGetAllocator(StdAllocator *out) { *out = g_allocator; }

VX_API void *StdTryAlloc(size_t size) { return g_allocator.alloc(g_allocator.user, size); }

VX_API void *StdAlloc(size_t size)
{
    void *block = StdTryAlloc(size);
    if (!block && size)
        return RaiseOutOfMemory();
    return block;
}

VX_API void *StdTryRealloc(void *block, size_t oldSize, size_t newSize)
{
    if (newSize == 0) {
        FreeHeap(block, oldSize);
        return nullptr;
    }
    if (!block)
        return StdTryAlloc(newSize);
    if (!g_allocator.realloc) {
        void *moved = StdTryAlloc(newSize);
        if (moved) {
            std::memcpy(moved, block, std::min(oldSize, newSize));
            FreeHeap(block, oldSize);
        }
        return moved;
    }
    void *moved = g_allocator.realloc(g_allocator.user, block, oldSize, newSize);
    if (moved && newSize > oldSize)
        std::memset(static_cast<char *>(moved) + oldSize, 0, newSize - oldSize);
    return moved;
}

VX_API void *StdRealloc(void *block, size_t oldSize, size_t newSize)
{
    void *moved = StdTryRealloc(block, oldSize, newSize);
    if (!moved && newSize)
        return RaiseOutOfMemory();
    return moved;
}

VX_API void FreeHeap(void *block, size_t size)
{
    if (!block)
        return;
    g_allocator.free(g_allocator.user, block, size);
    size_t freed = g_freedSinceTrim.fetch_add(size, std::memory_order_relaxed) + size;
    if (freed > kHeapMinThreshold) {
        g_freedSinceTrim.store(0, std::memory_order_relaxed);
        if (g_allocator.trim)
            g_allocator.trim(g_allocator.user);
        DBprintf("calling heapmin\n");
    }
}

VX_API void StdFreeArm(uintptr_t block, uintptr_t size)
{
    FreeHeap(reinterpret_cast<void *>(block), size);
}

VX_API char *StringCopy(const char *text)
{
    if (!text)
        return nullptr;
    size_t size = std::strlen(text) + 1;
    auto *copy = static_cast<char *>(StdAlloc(size));
    if (copy)
        std::memcpy(copy, text, size);
    return copy;
}

VX_API void StringFree(char *text)
{
    if (text)
        FreeHeap(text, std::strlen(text) + 1);
}

VX_API void StringFreeArm(uintptr_t text, uintptr_t) { StringFree(reinterpret_cast<char *>(text)); }

}  // extern "C"
