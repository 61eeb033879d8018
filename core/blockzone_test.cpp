#include <vxtools3/ckpt.h>
#include <vxtools3/containers.h>

#include "core/containers_internal.h"
#include "testkit/capture.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace {

BZStatistics Stats(const BZone *zone)
{
    BZStatistics s;
    BZStats(zone, &s);
    return s;
}

BZChunk *ChunkOf(void *elem)
{
    BZChunk *chunk;
    std::memcpy(&chunk, static_cast<unsigned char *>(elem) - vx::zone::kSlotPrefix, sizeof chunk);
    return chunk;
}

// The free counts of the chunks with room in their order, then a zero for each full chunk
// (full chunks are kept aside, after the others).
std::vector<int32_t> FreeCountsInOrder(const BZone *zone)
{
    std::vector<int32_t> counts;
    for (VxNode *node = zone->chunks.head; node->succ; node = node->succ)
        counts.push_back(reinterpret_cast<BZChunk *>(node)->freeCount);
    counts.resize(static_cast<size_t>(Stats(zone).chunkCount), 0);
    return counts;
}

bool AllBytes(const void *p, size_t n, unsigned char value)
{
    const auto *bytes = static_cast<const unsigned char *>(p);
    return std::all_of(bytes, bytes + n, [value](unsigned char b) { return b == value; });
}

TEST(BlockZone, SizesRoundUpAndSetTheSlotCount)
{
    struct Case {
        size_t size;
        int32_t elemSize, perChunk;
    };
    for (Case c : {Case{1, 8, 126}, Case{1000, 1000, 10}, Case{0, 0, 251}, Case{8, 8, 126}, Case{33, 40, 42},
                   Case{184, 184, 11}, Case{200, 200, 10}}) {
        BZone *zone = BZCreate(c.size);
        ASSERT_NE(zone, nullptr);
        BZStatistics s = Stats(zone);
        EXPECT_EQ(s.elemSize, c.elemSize) << "size " << c.size;
        EXPECT_EQ(s.perChunk, c.perChunk) << "size " << c.size;
        EXPECT_EQ(s.chunkCount, 0) << "no chunk before the first allocation";
        BZDestroy(zone);
    }
    EXPECT_EQ(BZCreate((size_t{1} << 30) + 1), nullptr);
    BZDestroy(nullptr);
}

TEST(BlockZone, LargeElementsKeepTheirSlots)
{
    BZone *zone = BZCreate((size_t{1} << 18) + 3);
    std::vector<void *> elems;
    for (int i = 0; i < 25; ++i)
        elems.push_back(BZAlloc(zone));
    for (int i = 0; i < 25; i += 3)
        BZFree(zone, elems[static_cast<size_t>(i)]);
    EXPECT_EQ(BZValidate(zone), 16);
    EXPECT_EQ(BZAlloc(zone), elems[12]) << "the lowest free slot of the fullest chunk with room";
    BZDestroy(zone);
}

TEST(BlockZone, FreedElementsReadAs0xBBUntilHandedOutAgain)
{
    BZone *zone = BZCreate(20);
    std::vector<unsigned char *> elems;
    for (int i = 0; i < 5; ++i) {
        elems.push_back(static_cast<unsigned char *>(BZAlloc(zone)));
        ASSERT_TRUE(AllBytes(elems.back(), 24, 0x00));
        std::memset(elems.back(), 0x5A, 24);
    }
    BZFree(zone, elems[3]);
    BZFree(zone, elems[1]);
    EXPECT_TRUE(AllBytes(elems[1], 24, 0xBB));
    EXPECT_TRUE(AllBytes(elems[3], 24, 0xBB));
    EXPECT_TRUE(AllBytes(elems[2], 24, 0x5A)) << "neighbours are untouched";
    EXPECT_EQ(BZValidate(zone), 3);
    // The lowest free slot is handed out first, zeroed again.
    EXPECT_EQ(BZAlloc(zone), elems[1]);
    EXPECT_TRUE(AllBytes(elems[1], 24, 0x00));
    EXPECT_EQ(BZAlloc(zone), elems[3]);
    EXPECT_EQ(BZValidate(zone), 5);
    BZDestroy(zone);
}

TEST(BlockZone, EmptyChunksAreReleasedButTheLast)
{
    vxtest::FaultAllocator heap;
    BZone *zone = BZCreate(1000);  // 10 per chunk
    const size_t recordBytes = heap.LiveBytes();
    std::vector<void *> first, second;
    for (int i = 0; i < 10; ++i)
        first.push_back(BZAlloc(zone));
    second.push_back(BZAlloc(zone));
    EXPECT_EQ(Stats(zone).chunkCount, 2);
    const size_t chunkBytes = Stats(zone).chunkBytes / 2;
    EXPECT_EQ(heap.LiveBytes(), recordBytes + 2 * chunkBytes);

    BZFree(zone, second[0]);
    EXPECT_EQ(Stats(zone).chunkCount, 1) << "an emptied chunk goes when another remains";
    EXPECT_EQ(heap.LiveBytes(), recordBytes + chunkBytes);
    for (void *e : first)
        BZFree(zone, e);
    EXPECT_EQ(Stats(zone).chunkCount, 1) << "the last chunk stays";
    EXPECT_EQ(Stats(zone).liveCount, 0);
    EXPECT_EQ(BZValidate(zone), 0);

    heap.Disarm();
    for (int i = 0; i < 10; ++i)
        BZAlloc(zone);
    EXPECT_EQ(heap.Allocations(), 0) << "the kept chunk serves the next ten";
    BZDestroy(zone);
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
}

TEST(BlockZone, ChunksStayInAscendingFreeCountWithFullOnesLast)
{
    BZone *zone = BZCreate(1000);  // 10 per chunk
    std::vector<void *> elems;
    for (int i = 0; i < 40; ++i)
        elems.push_back(BZAlloc(zone));
    // A chunk is made at the head and leaves the order once full.
    ASSERT_EQ(FreeCountsInOrder(zone), (std::vector<int32_t>{0, 0, 0, 0}));
    BZChunk *oldest = ChunkOf(elems[0]);
    BZChunk *newest = ChunkOf(elems[39]);

    BZFree(zone, elems[0]);  // a full chunk with one free slot goes to the head
    EXPECT_EQ(FreeCountsInOrder(zone), (std::vector<int32_t>{1, 0, 0, 0}));
    EXPECT_EQ(reinterpret_cast<BZChunk *>(zone->chunks.head), oldest);
    BZFree(zone, elems[39]);
    BZFree(zone, elems[38]);  // newest: 2 free, behind the oldest
    EXPECT_EQ(FreeCountsInOrder(zone), (std::vector<int32_t>{1, 2, 0, 0}));
    BZFree(zone, elems[1]);
    BZFree(zone, elems[2]);  // oldest: 3 free, now behind the newest
    EXPECT_EQ(FreeCountsInOrder(zone), (std::vector<int32_t>{2, 3, 0, 0}));
    EXPECT_EQ(reinterpret_cast<BZChunk *>(zone->chunks.head), newest);
    // Allocation takes from the fullest chunk that has room: the newest one.
    EXPECT_EQ(ChunkOf(BZAlloc(zone)), newest);
    EXPECT_EQ(FreeCountsInOrder(zone), (std::vector<int32_t>{1, 3, 0, 0}));
    EXPECT_EQ(BZValidate(zone), 36);
    BZDestroy(zone);
}

// Random allocations and frees of several element sizes, checked after every step against a
// model: which elements are live, their contents, that every allocation comes from the
// fullest chunk with room (its lowest free slot), and that no empty chunk is kept beside
// another.
TEST(BlockZone, RandomUseKeepsEveryInvariant)
{
    std::mt19937 rng(7);
    for (size_t size : {size_t{1}, size_t{24}, size_t{200}, size_t{1000}}) {
        SCOPED_TRACE(size);
        BZone *zone = BZCreate(size);
        const int32_t elemSize = Stats(zone).elemSize;
        std::map<unsigned char *, unsigned char> live;  // element -> its fill byte
        for (int step = 0; step < 4000; ++step) {
            const bool allocate = live.empty() || rng() % 100 < (step < 2000 ? 60 : 40);
            if (allocate) {
                int32_t fullest = INT32_MAX;
                for (int32_t c : FreeCountsInOrder(zone))
                    if (c > 0)
                        fullest = std::min(fullest, c);
                auto *elem = static_cast<unsigned char *>(BZAlloc(zone));
                ASSERT_TRUE(AllBytes(elem, static_cast<size_t>(elemSize), 0));
                ASSERT_EQ(live.count(elem), 0u) << "handed out twice";
                if (fullest != INT32_MAX) {
                    ASSERT_EQ(ChunkOf(elem)->freeCount, fullest - 1) << "not from the fullest chunk with room";
                }
                const auto fill = static_cast<unsigned char>(rng() % 200 + 1);
                std::memset(elem, fill, static_cast<size_t>(elemSize));
                live[elem] = fill;
            } else {
                auto it = live.begin();
                std::advance(it, rng() % live.size());
                ASSERT_TRUE(AllBytes(it->first, static_cast<size_t>(elemSize), it->second)) << "element overwritten";
                BZFree(zone, it->first);
                live.erase(it);
            }
            ASSERT_EQ(BZValidate(zone), static_cast<int>(live.size())) << "step " << step;
            const std::vector<int32_t> counts = FreeCountsInOrder(zone);
            if (counts.size() > 1) {
                ASSERT_EQ(std::count(counts.begin(), counts.end(), Stats(zone).perChunk), 0)
                    << "an empty chunk is kept beside another";
            }
        }
        BZDestroy(zone);
    }
}

TEST(BlockZone, AMillionElementsFreedNinetyPercentInRandomOrder)
{
    constexpr int kCount = 1000000;
    BZone *zone = BZCreate(32);
    const BZStatistics empty = Stats(zone);
    std::vector<void *> elems(kCount);
    for (void *&e : elems)
        e = BZAlloc(zone);
    const BZStatistics full = Stats(zone);
    EXPECT_EQ(full.chunkCount, (kCount + empty.perChunk - 1) / empty.perChunk);
    std::shuffle(elems.begin(), elems.end(), std::mt19937(11));
    for (int i = 0; i < kCount * 9 / 10; ++i)
        BZFree(zone, elems[static_cast<size_t>(i)]);
    elems.erase(elems.begin(), elems.begin() + kCount * 9 / 10);

    // The zone keeps exactly the chunks that still hold a live element: every chunk that
    // emptied was released.
    std::set<BZChunk *> holding;
    for (void *e : elems)
        holding.insert(ChunkOf(e));
    const BZStatistics sparse = Stats(zone);
    EXPECT_EQ(sparse.liveCount, kCount / 10);
    EXPECT_EQ(static_cast<size_t>(sparse.chunkCount), holding.size());
    EXPECT_EQ(BZValidate(zone), kCount / 10);

    // Allocating again fills the holes before any new chunk is made, so memory returns to
    // the live size plus the slot prefix and chunk headers.
    for (int i = 0; i < kCount * 9 / 10; ++i)
        BZAlloc(zone);
    const BZStatistics refilled = Stats(zone);
    EXPECT_EQ(refilled.chunkCount, full.chunkCount) << "no more chunks than a packed zone";
    const double liveSlotBytes = double(refilled.liveCount) * (refilled.elemSize + vx::zone::kSlotPrefix);
    EXPECT_LT(double(refilled.chunkBytes), liveSlotBytes * 1.05);
    BZDestroy(zone);
}

TEST(BlockZone, FreeingInAllocationOrderGivesChunksBack)
{
    BZone *zone = BZCreate(32);
    std::vector<void *> elems(100000);
    for (void *&e : elems)
        e = BZAlloc(zone);
    for (size_t i = 0; i < 90000; ++i)
        BZFree(zone, elems[i]);
    const BZStatistics s = Stats(zone);
    EXPECT_LE(s.chunkCount, 10000 / s.perChunk + 2);
    EXPECT_EQ(BZValidate(zone), 10000);
    BZDestroy(zone);
}

TEST(BlockZone, PreAllocMakesRoomInAdvance)
{
    vxtest::FaultAllocator heap;
    BZone *zone = BZCreate(1000);  // 10 per chunk
    std::vector<void *> elems;
    for (int i = 0; i < 15; ++i)
        elems.push_back(BZAlloc(zone));  // chunks: 5 free, full
    EXPECT_EQ(BZPreAlloc(zone, 5), 1);
    EXPECT_EQ(Stats(zone).chunkCount, 2) << "5 slots were free already";
    EXPECT_EQ(BZPreAlloc(zone, 27), 1);
    EXPECT_EQ(Stats(zone).chunkCount, 5);
    EXPECT_EQ(FreeCountsInOrder(zone), (std::vector<int32_t>{5, 10, 10, 10, 0}))
        << "new chunks go where their free count belongs";
    EXPECT_EQ(BZValidate(zone), 15);
    heap.Disarm();
    for (int i = 0; i < 35; ++i)
        elems.push_back(BZAlloc(zone));
    EXPECT_EQ(heap.Allocations(), 0) << "the reserved slots served every allocation";
    EXPECT_EQ(BZValidate(zone), 50);
    BZDestroy(zone);
}

TEST(BlockZone, FreeingAnElementNotInUseIsReportedAndIgnored)
{
    BZone *zone = BZCreate(16);
    BZone *other = BZCreate(16);
    void *a = BZAlloc(zone);
    void *b = BZAlloc(zone);
    void *foreign = BZAlloc(other);
    BZFree(zone, a);
    {
        vxtest::DebugCapture capture;
        BZFree(zone, a);
        BZFree(zone, foreign);
        BZFree(zone, nullptr);
        EXPECT_NE(capture.Text().find("is not in use in zone"), std::string::npos) << capture.Text();
    }
    EXPECT_EQ(BZValidate(zone), 1);
    EXPECT_EQ(BZValidate(other), 1);
    BZFree(zone, b);
    BZDestroy(zone);
    BZDestroy(other);
}

TEST(BlockZone, ValidateFindsCorruption)
{
    BZone *zone = BZCreate(16);
    std::vector<unsigned char *> elems;
    for (int i = 0; i < 4; ++i)
        elems.push_back(static_cast<unsigned char *>(BZAlloc(zone)));
    BZFree(zone, elems[2]);
    vxtest::DebugCapture capture;
    elems[2][5] = 1;  // a write after free
    EXPECT_EQ(BZValidate(zone), -1);
    EXPECT_NE(capture.Text().find("a free element was written to"), std::string::npos);
    elems[2][5] = 0xBB;
    EXPECT_EQ(BZValidate(zone), 3);
    ChunkOf(elems[0])->freeCount += 1;
    EXPECT_EQ(BZValidate(zone), -1);
    ChunkOf(elems[0])->freeCount -= 1;
    ChunkOf(elems[0])->firstFree += 24;
    EXPECT_EQ(BZValidate(zone), -1);
    ChunkOf(elems[0])->firstFree -= 24;
    EXPECT_EQ(BZValidate(zone), 3);
    BZDestroy(zone);
}

TEST(BlockZone, ValidateFindsAWriteToASlotNeverHandedOut)
{
    BZone *zone = BZCreate(16);
    auto *first = static_cast<unsigned char *>(BZAlloc(zone));
    unsigned char *next = first + 24;  // the following slot's element, never handed out
    vxtest::DebugCapture capture;
    next[3] = 0xBB;  // the fill of a freed element, but this one was never used
    EXPECT_EQ(BZValidate(zone), -1);
    EXPECT_NE(capture.Text().find("never handed out"), std::string::npos) << capture.Text();
    next[3] = 0;
    EXPECT_EQ(BZValidate(zone), 1);
    BZDestroy(zone);
}

// ---- Out of memory ------------------------------------------------------------------------

TEST(BlockZoneOom, Create)
{
    BZone *zone = nullptr;
    vxtest::OomSweepAll({
        [&] { zone = nullptr; },
        [&] { return (zone = BZCreate(64)) != nullptr; },
        [&] { EXPECT_EQ(zone, nullptr); },
        [&] { BZDestroy(zone); },
    });
}

TEST(BlockZoneOom, AllocWhenANewChunkIsNeeded)
{
    for (int held : {0, 10, 20}) {
        SCOPED_TRACE(held);
        BZone *zone = nullptr;
        std::vector<void *> elems;
        void *got = nullptr;
        vxtest::OomSweepAll({
            [&] {
                zone = BZCreate(1000);
                elems.clear();
                for (int i = 0; i < held; ++i)
                    elems.push_back(BZAlloc(zone));
                got = nullptr;
            },
            [&] { return (got = BZAlloc(zone)) != nullptr; },
            [&] {
                EXPECT_EQ(got, nullptr);
                EXPECT_EQ(BZValidate(zone), held);
            },
            [&] { BZDestroy(zone); },
        });
    }
}

TEST(BlockZoneOom, PreAllocGivesBackWhatItMade)
{
    BZone *zone = nullptr;
    BZStatistics before{};
    vxtest::OomSweepAll({
        [&] {
            zone = BZCreate(1000);
            for (int i = 0; i < 13; ++i)
                BZAlloc(zone);
            before = Stats(zone);
        },
        [&] { return BZPreAlloc(zone, 60) == 1; },
        [&] {
            BZStatistics now = Stats(zone);
            EXPECT_EQ(now.chunkCount, before.chunkCount);
            EXPECT_EQ(now.freeCount, before.freeCount);
            EXPECT_EQ(BZValidate(zone), 13);
        },
        [&] { BZDestroy(zone); },
    });
}

}  // namespace
