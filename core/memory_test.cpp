#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include "testkit/capture.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>

namespace {

// A heap whose grown blocks arrive dirty and that counts what it is asked for, to show what
// the helpers themselves guarantee.
struct DirtyHeap {
    std::map<void *, size_t> live;
    int trims = 0;

    static DirtyHeap &Of(void *self) { return *static_cast<DirtyHeap *>(self); }
    static void *Alloc(void *self, size_t size)
    {
        void *p = std::calloc(1, size);  // the allocator contract: zero-filled
        Of(self).live[p] = size;
        return p;
    }
    static void *Realloc(void *self, void *block, size_t oldSize, size_t newSize)
    {
        EXPECT_EQ(Of(self).live[block], oldSize);
        void *p = std::malloc(newSize);
        std::memset(p, 0xEE, newSize);  // the helpers must clear the growth
        std::memcpy(p, block, std::min(oldSize, newSize));
        Free(self, block, oldSize);
        Of(self).live[p] = newSize;
        return p;
    }
    static void Free(void *self, void *block, size_t size)
    {
        EXPECT_EQ(Of(self).live[block], size) << "freed with another size than allocated";
        Of(self).live.erase(block);
        std::free(block);
    }
    static void Trim(void *self) { ++Of(self).trims; }
};

class Memory : public ::testing::Test {
protected:
    void SetUp() override { StdGetAllocator(&saved_); }
    void TearDown() override { StdSetAllocator(&saved_); }
    StdAllocator saved_{};
};

TEST_F(Memory, MovesKeepContentAndZeroFillGrowthOnBothPaths)
{
    for (bool useRealloc : {true, false}) {
        SCOPED_TRACE(useRealloc ? "through realloc" : "allocate, copy, free");
        DirtyHeap heap;
        const StdAllocator table{DirtyHeap::Alloc, useRealloc ? DirtyHeap::Realloc : nullptr, DirtyHeap::Free,
                                 DirtyHeap::Trim, &heap};
        StdSetAllocator(&table);
        auto *block = static_cast<unsigned char *>(StdAlloc(10));
        std::memset(block, 0x42, 10);
        block = static_cast<unsigned char *>(StdRealloc(block, 10, 100));
        block = static_cast<unsigned char *>(StdTryRealloc(block, 100, 200));
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(block[i], i < 10 ? 0x42 : 0) << "byte " << i;
        block = static_cast<unsigned char *>(StdRealloc(block, 200, 4));
        EXPECT_EQ(block[3], 0x42);
        EXPECT_EQ(StdRealloc(block, 4, 0), nullptr) << "a new size of 0 frees";
        EXPECT_EQ(StdTryRealloc(StdTryAlloc(8), 8, 0), nullptr);
        EXPECT_EQ(StdRealloc(nullptr, 0, 0), nullptr);
        FreeHeap(StdRealloc(nullptr, 0, 8), 8);
        FreeHeap(nullptr, 123);
        char *copy = StringCopy("plug-in database");
        EXPECT_STREQ(copy, "plug-in database");
        StringFree(copy);  // the heap checks the size freed
        StringFree(nullptr);
        EXPECT_EQ(StringCopy(nullptr), nullptr);
        EXPECT_TRUE(heap.live.empty());
        StdSetAllocator(nullptr);
    }
}

// Outside a block an exhausted heap gives NULL (code 1 latched); inside one it raises code 1
// and the armed releases free what was made; the try forms never raise. A failed move keeps
// the old block.
TEST_F(Memory, ExhaustionRaisesInsideBlocksAndReturnsNullOutside)
{
    vxtest::FaultAllocator heap;
    heap.FailAt(1, vxtest::FailMode::FromThen);
    EXPECT_EQ(StdAlloc(16), nullptr);
    EXPECT_EQ(CkptLatchCode(), 1);
    EXPECT_EQ(StringCopy("text"), nullptr);
    heap.Disarm();
    auto *block = static_cast<char *>(StdAlloc(8));
    std::strcpy(block, "intact");
    heap.FailAt(1, vxtest::FailMode::Once);
    EXPECT_EQ(StdRealloc(block, 8, 64), nullptr);
    EXPECT_STREQ(block, "intact");
    EXPECT_EQ(CkptLatchCode(), 1);

    EXPECT_TRUE(vxtest::UnwoundFrom([&] {
        CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(block), 8);
        CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(StringCopy("armed")), 0);
        heap.FailAt(1, vxtest::FailMode::Once);
        EXPECT_EQ(StdTryAlloc(16), nullptr);
        heap.FailAt(1, vxtest::FailMode::Once);
        EXPECT_EQ(StdTryRealloc(block, 8, 64), nullptr);
        EXPECT_STREQ(block, "intact");
        heap.FailAt(1, vxtest::FailMode::Once);
        StdAlloc(32);
    })) << "StdAlloc returned from a failure inside a block";
    EXPECT_EQ(CkptLatchCode(), 1);
    EXPECT_EQ(heap.LiveBytes(), 0u) << "the armed releases freed the block and the string";
    EXPECT_EQ(heap.BadFrees(), 0);
}

TEST_F(Memory, HeapIsTrimmedAfterFourMegabytesFreed)
{
    DirtyHeap heap;
    const StdAllocator table{DirtyHeap::Alloc, DirtyHeap::Realloc, DirtyHeap::Free, DirtyHeap::Trim, &heap};
    StdSetAllocator(&table);
    vxtest::DebugCapture debug;
    // The running count starts wherever earlier frees left it: one large free resets it.
    FreeHeap(StdAlloc(4194305), 4194305);
    ASSERT_EQ(debug.Text(), "calling heapmin\n");
    const int trimsAfterReset = heap.trims;
    FreeHeap(StdAlloc(4194304), 4194304);
    EXPECT_EQ(debug.Text(), "calling heapmin\n") << "exactly 4194304 bytes do not trim";
    FreeHeap(StdAlloc(1), 1);
    EXPECT_EQ(debug.Text(), "calling heapmin\ncalling heapmin\n");
    EXPECT_EQ(heap.trims, trimsAfterReset + 1);
}

// The default heap maps blocks of 4 MiB and more from the system on 2 MiB boundaries. One
// block moves across that size both ways: its content is kept and growth reads zero.
TEST_F(Memory, LargeBlocksOfTheDefaultHeapStartOnHugePages)
{
    StdSetAllocator(nullptr);
    constexpr size_t kMiB = size_t{1} << 20;
    char *p = nullptr;
    size_t size = 0;
    for (const size_t next : {4 * kMiB, kMiB, 9 * kMiB + 12345, 4 * kMiB - 1, size_t{1000}}) {
        p = static_cast<char *>(size ? StdRealloc(p, size, next) : StdAlloc(next));
        EXPECT_TRUE(next < 4 * kMiB || reinterpret_cast<uintptr_t>(p) % (2 * kMiB) == 0) << next;
        for (size_t i = 0; i < next; ++i) {
            ASSERT_EQ(p[i], i < size ? static_cast<char>(i % 251) : 0) << "byte " << i << " moving to " << next;
            p[i] = static_cast<char>(i % 251);
        }
        size = next;
    }
    FreeHeap(p, size);
}

}  // namespace
