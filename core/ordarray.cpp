// Ordered arrays of pointer-sized items.
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>

#include "core/sort_engine.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int32_t kMinGrowth = 16;
constexpr int32_t kMaxGrowth = 512;

size_t BlockSize(int32_t capacity) { return static_cast<size_t>(capacity) * sizeof(void *); }

// Makes room for one more item. Running out of memory is raised through the innermost
// checkpoint block; with none open the array is left as it was and false returned.
bool GrowIfFull(VxOrd *ord)
{
    if (ord->count < ord->capacity)
        return true;
    const int32_t capacity = ord->capacity + std::clamp(ord->capacity / 2, kMinGrowth, kMaxGrowth);
    void *items = StdRealloc(ord->items, BlockSize(ord->capacity), BlockSize(capacity));
    if (!items)
        return false;
    ord->items = static_cast<void **>(items);
    ord->capacity = capacity;
    return true;
}

struct TwoWay {
    OrdCompare *function;
    int operator()(void *item, void *pivot) const { return function(item, pivot); }
};

}  // namespace

extern "C" {

VX_API void OrdInit(VxOrd *ord)
{
    ord->items = nullptr;
    ord->count = 0;
    ord->capacity = 0;
}

VX_API void OrdFree(VxOrd *ord)
{
    if (ord->capacity)
        FreeHeap(ord->items, BlockSize(ord->capacity));
    OrdInit(ord);
}

VX_API int OrdAppend(VxOrd *ord, void *item)
{
    if (!GrowIfFull(ord))
        return -1;
    ord->items[ord->count] = item;
    return ord->count++;
}

VX_API int OrdInsert(VxOrd *ord, void *item, OrdCompare *cmp)
{
    if (!GrowIfFull(ord))
        return -1;
    // The new item goes behind every item that does not compare greater: the upper bound.
    // Appending in order costs one comparison.
    int32_t lo = 0;
    int32_t hi = ord->count;
    if (hi > 0 && cmp(ord->items[hi - 1], item) <= 0) {
        lo = hi;
    } else if (hi > 0) {
        --hi;  // the last item is known to be greater
        while (lo < hi) {
            const int32_t mid = lo + (hi - lo) / 2;
            if (cmp(ord->items[mid], item) > 0)
                hi = mid;
            else
                lo = mid + 1;
        }
    }
    std::memmove(ord->items + lo + 1, ord->items + lo, BlockSize(ord->count - lo));
    ord->items[lo] = item;
    ++ord->count;
    return lo;
}

VX_API int OrdLookup(const VxOrd *ord, void *key, OrdCompare *cmp)
{
    if (!cmp) {
        for (int32_t i = 0; i < ord->count; ++i)
            if (ord->items[i] == key)
                return i;
        return -1;
    }
    int32_t lo = 0;
    int32_t hi = ord->count;
    while (lo < hi) {
        const int32_t mid = (lo + hi) / 2;
        const int r = cmp(key, ord->items[mid]);
        if (r == 0)
            return mid;
        if (r < 0)
            hi = mid;
        else
            lo = mid + 1;
    }
    return -1;
}

VX_API void *OrdRemove(VxOrd *ord, void *item, int index)
{
    if (item) {
        index = OrdLookup(ord, item, nullptr);
        if (index < 0)
            return nullptr;
    }
    --ord->count;
    std::memmove(ord->items + index, ord->items + index + 1, BlockSize(ord->count - index));
    return item;
}

VX_API void OrdSort(VxOrd *ord, OrdCompare *cmp)
{
    vx::sort::Engine<TwoWay> engine(ord->items, ord->count, {cmp});
    engine.Run();
}

VX_API int OrdValidate(const VxOrd *ord, OrdCompare *cmp)
{
    if (ord->count < 0 || ord->capacity < 0 || ord->count > ord->capacity)
        return 0;
    if ((ord->capacity > 0) != (ord->items != nullptr))
        return 0;
    if (cmp)
        for (int32_t i = 1; i < ord->count; ++i)
            if (cmp(ord->items[i - 1], ord->items[i]) > 0)
                return 0;
    return 1;
}

}  // extern "C"
