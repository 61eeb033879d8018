#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include "testkit/capture.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace {

// The test heap hands out the growth of a resized block dirty; without its resize function
// the helpers allocate, copy and free. Either way growth must read zero.
TEST(Memory, MovesKeepContentAndZeroFillGrowthOnBothPaths)
{
    for (bool withRealloc : {true, false}) {
        SCOPED_TRACE(withRealloc ? "through realloc" : "allocate, copy, free");
        vxtest::FaultAllocator heap(withRealloc);
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
        StringFree(copy);
        StringFree(nullptr);
        EXPECT_EQ(StringCopy(nullptr), nullptr);
        EXPECT_EQ(heap.LiveBytes(), 0u);
        EXPECT_EQ(heap.BadFrees(), 0) << "every free states the allocated size";
    }
}

// Outside a block an exhausted heap gives NULL (code 1 latched); inside one it raises code 1
// and the armed releases free what was made; the try forms never raise. A failed move keeps
// the old block.
TEST(Memory, ExhaustionRaisesInsideBlocksAndReturnsNullOutside)
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

TEST(Memory, HeapIsTrimmedAfterFourMegabytesFreed)
{
    vxtest::FaultAllocator heap;
    vxtest::DebugCapture debug;
    // The running count starts wherever earlier frees left it: one large free resets it.
    FreeHeap(StdAlloc(4194305), 4194305);
    ASSERT_EQ(debug.Text(), "calling heapmin\n");
    FreeHeap(StdAlloc(4194304), 4194304);
    EXPECT_EQ(debug.Text(), "calling heapmin\n") << "exactly 4194304 bytes do not trim";
    FreeHeap(StdAlloc(1), 1);
    EXPECT_EQ(debug.Text(), "calling heapmin\ncalling heapmin\n");
    EXPECT_EQ(heap.Trims(), 2);
}

// The default heap maps blocks of 4 MiB and more from the system on 2 MiB boundaries. One
// block moves across that size both ways: its content is kept and growth reads zero.
TEST(Memory, LargeBlocksOfTheDefaultHeapStartOnHugePages)
{
    StdAllocator saved;
    StdGetAllocator(&saved);
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
    StdSetAllocator(&saved);
}

}  // namespace
