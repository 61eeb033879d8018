#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include "testkit/capture.h"
#include "testkit/fault_alloc.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace {

// A heap that hands out dirty memory and counts what it is asked for, to show what the
// helpers themselves guarantee.
struct DirtyHeap {
    std::map<void *, size_t> live;
    int trims = 0;
    bool useRealloc = true;

    static void *Alloc(void *self, size_t size)
    {
        void *p = std::calloc(1, size);  // the allocator contract: zero-filled
        static_cast<DirtyHeap *>(self)->live[p] = size;
        return p;
    }
    static void *Realloc(void *self, void *block, size_t oldSize, size_t newSize)
    {
        auto *h = static_cast<DirtyHeap *>(self);
        EXPECT_EQ(h->live[block], oldSize);
        void *p = std::malloc(newSize);
        std::memset(p, 0xEE, newSize);  // growth arrives dirty; the helpers must clear it
        std::memcpy(p, block, std::min(oldSize, newSize));
        std::free(block);
        h->live.erase(block);
        h->live[p] = newSize;
        return p;
    }
    static void Free(void *self, void *block, size_t size)
    {
        auto *h = static_cast<DirtyHeap *>(self);
        EXPECT_EQ(h->live[block], size) << "freed with another size than allocated";
        h->live.erase(block);
        std::free(block);
    }
    static void Trim(void *self) { ++static_cast<DirtyHeap *>(self)->trims; }

    StdAllocator table() { return {Alloc, useRealloc ? Realloc : nullptr, Free, Trim, this}; }
};

class Memory : public ::testing::Test {
protected:
    void SetUp() override { StdGetAllocator(&saved_); }
    void TearDown() override { StdSetAllocator(&saved_); }
    StdAllocator saved_{};
};

TEST_F(Memory, ReallocKeepsContentAndZeroFillsGrowthOnBothPaths)
{
    for (bool useRealloc : {true, false}) {
        SCOPED_TRACE(useRealloc ? "through realloc" : "allocate, copy, free");
        DirtyHeap heap;
        heap.useRealloc = useRealloc;
        StdAllocator table = heap.table();
        StdSetAllocator(&table);
        auto *block = static_cast<unsigned char *>(StdAlloc(10));
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(block[i], 0);
        std::memset(block, 0x42, 10);
        block = static_cast<unsigned char *>(StdRealloc(block, 10, 100));
        for (int i = 0; i < 100; ++i)
            ASSERT_EQ(block[i], i < 10 ? 0x42 : 0) << "byte " << i;
        block = static_cast<unsigned char *>(StdRealloc(block, 100, 4));
        EXPECT_EQ(block[3], 0x42);
        EXPECT_EQ(StdRealloc(block, 4, 0), nullptr) << "a new size of 0 frees";
        EXPECT_TRUE(heap.live.empty());
        EXPECT_EQ(StdRealloc(nullptr, 0, 0), nullptr);
        void *fresh = StdRealloc(nullptr, 0, 8);
        EXPECT_EQ(heap.live[fresh], 8u);
        FreeHeap(fresh, 8);
        FreeHeap(nullptr, 123);
        EXPECT_TRUE(heap.live.empty());
        StdSetAllocator(nullptr);
    }
}

TEST_F(Memory, ExhaustionReturnsNullOutsideBlocksAndKeepsTheOldBlock)
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
    FreeHeap(block, 8);
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
}

// The try forms come back with NULL inside an open block instead of raising through it.
TEST_F(Memory, TryFormsNeverRaiseAndKeepTheOldBlock)
{
    vxtest::FaultAllocator heap;
    volatile int raised = 0;
    if (CkptBegin()) {
        raised = CkptLatchCode();
    } else {
        auto *block = static_cast<char *>(StdTryAlloc(8));
        std::strcpy(block, "intact");
        heap.FailAt(1, vxtest::FailMode::Once);
        EXPECT_EQ(StdTryAlloc(16), nullptr);
        heap.FailAt(1, vxtest::FailMode::Once);
        EXPECT_EQ(StdTryRealloc(block, 8, 64), nullptr);
        EXPECT_STREQ(block, "intact");
        block = static_cast<char *>(StdTryRealloc(block, 8, 64));
        EXPECT_STREQ(block, "intact");
        EXPECT_EQ(block[63], 0);
        EXPECT_EQ(StdTryRealloc(block, 64, 0), nullptr);
        char *name = StringCopy("armed");
        CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(name), 0);
        CkptRecover(7);
    }
    EXPECT_EQ(raised, 7);
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
}

TEST_F(Memory, HeapIsTrimmedAfterFourMegabytesFreed)
{
    DirtyHeap heap;
    StdAllocator table = heap.table();
    StdSetAllocator(&table);
    vxtest::DebugCapture debug;
    // The running count starts wherever earlier frees left it: one large free resets it.
    FreeHeap(StdAlloc(4194305), 4194305);
    ASSERT_EQ(debug.Text(), "calling heapmin\n");
    const int trimsAfterReset = heap.trims;
    ASSERT_GE(trimsAfterReset, 1);

    FreeHeap(StdAlloc(4194304), 4194304);
    EXPECT_EQ(debug.Text(), "calling heapmin\n") << "exactly 4194304 bytes do not trim";
    FreeHeap(StdAlloc(1), 1);
    EXPECT_EQ(debug.Text(), "calling heapmin\ncalling heapmin\n");
    EXPECT_EQ(heap.trims, trimsAfterReset + 1);
    EXPECT_TRUE(heap.live.empty());
}

// The default heap maps blocks of 4 MiB and more from the system on 2 MiB boundaries. Every
// block reads zero-filled to its end, moves with its content across that size either way, and
// frees without complaint under the sanitizers.
TEST_F(Memory, LargeBlocksOfTheDefaultHeapStartOnHugePages)
{
    StdSetAllocator(nullptr);
    constexpr size_t kLarge = size_t{4} << 20;
    auto zeroFrom = [](const char *p, size_t from, size_t to) {
        for (size_t i = from; i < to; ++i)
            if (p[i] != 0)
                return false;
        return true;
    };
    for (const size_t size : {kLarge - 1, kLarge, kLarge + 12345}) {
        auto *p = static_cast<char *>(StdAlloc(size));
        ASSERT_NE(p, nullptr);
        if (size >= kLarge) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % (size_t{2} << 20), 0u) << size;
        }
        EXPECT_TRUE(zeroFrom(p, 0, size)) << size;
        p[0] = 1;
        p[size - 1] = 2;
        FreeHeap(p, size);
    }
    // 1 MiB, grown to 6 MiB, grown to 9 MiB, shrunk to 1000 bytes.
    auto *p = static_cast<char *>(StdAlloc(size_t{1} << 20));
    for (size_t i = 0; i < (size_t{1} << 20); ++i)
        p[i] = static_cast<char>(i % 251);
    p = static_cast<char *>(StdRealloc(p, size_t{1} << 20, size_t{6} << 20));
    p[(size_t{6} << 20) - 1] = 7;
    p = static_cast<char *>(StdRealloc(p, size_t{6} << 20, size_t{9} << 20));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % (size_t{2} << 20), 0u);
    bool kept = true;
    for (size_t i = 0; i < (size_t{1} << 20); ++i)
        kept = kept && p[i] == static_cast<char>(i % 251);
    EXPECT_TRUE(kept);
    EXPECT_TRUE(zeroFrom(p, size_t{1} << 20, (size_t{6} << 20) - 1));
    EXPECT_EQ(p[(size_t{6} << 20) - 1], 7);
    EXPECT_TRUE(zeroFrom(p, size_t{6} << 20, size_t{9} << 20));
    p = static_cast<char *>(StdRealloc(p, size_t{9} << 20, 1000));
    kept = true;
    for (size_t i = 0; i < 1000; ++i)
        kept = kept && p[i] == static_cast<char>(i % 251);
    EXPECT_TRUE(kept);
    FreeHeap(p, 1000);
}

TEST_F(Memory, StringCopyAndFree)
{
    vxtest::FaultAllocator heap;
    EXPECT_EQ(StringCopy(nullptr), nullptr);
    char *copy = StringCopy("plug-in database");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "plug-in database");
    EXPECT_EQ(heap.LiveBytes(), std::strlen("plug-in database") + 1);
    char *empty = StringCopy("");
    EXPECT_STREQ(empty, "");
    StringFree(copy);
    StringFree(empty);
    StringFree(nullptr);
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
}

}  // namespace
