// A heap for tests, installed through StdSetAllocator: it tracks every live block, checks
// that each free states the size the block was allocated with, and can fail chosen
// allocations. Like a real heap it leaves the growth of a resized block uninitialised (it
// fills it with 0xEE), since the helpers promise to clear it themselves.
#pragma once

#include <vxtools3/memory.h>

#include <cstddef>
#include <cstdint>

namespace vxtest {

enum class FailMode {
    Once,      // only allocation number N fails
    FromThen,  // allocation N and every one after it fail
};

class FaultAllocator {
public:
    // Installs itself as the library's heap; the destructor restores the previous one. Without
    // `withRealloc` its table has no resize function, so the helpers allocate, copy and free.
    explicit FaultAllocator(bool withRealloc = true);
    ~FaultAllocator();
    FaultAllocator(const FaultAllocator &) = delete;
    FaultAllocator &operator=(const FaultAllocator &) = delete;

    // Makes allocation number `n` (counted from now, 1-based) fail, as `mode` says.
    void FailAt(int64_t n, FailMode mode);
    // Stops failing allocations and restarts the count.
    void Disarm();

    int64_t Allocations() const { return allocations_; }  // attempts since FailAt/Disarm
    int64_t Failures() const { return failures_; }        // failed attempts since FailAt/Disarm
    size_t LiveBytes() const;
    size_t LiveBlocks() const;
    // Frees that stated a size other than the allocated one, or freed an unknown block.
    int64_t BadFrees() const { return badFrees_; }
    int64_t Trims() const { return trims_; }  // calls of the heap's trim function

private:
    static void *Alloc(void *self, size_t size);
    static void *Realloc(void *self, void *block, size_t oldSize, size_t newSize);
    static void Free(void *self, void *block, size_t size);
    static void Trim(void *self);
    bool ShouldFail();

    StdAllocator previous_{};
    struct Blocks;
    Blocks *blocks_;
    int64_t allocations_ = 0;
    int64_t failures_ = 0;
    int64_t failAt_ = 0;
    FailMode mode_ = FailMode::Once;
    int64_t badFrees_ = 0;
    int64_t trims_ = 0;
};

}  // namespace vxtest
