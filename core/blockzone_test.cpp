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
        const BZStatistics s = Stats(zone);
        EXPECT_TRUE(s.elemSize == c.elemSize && s.perChunk == c.perChunk && s.chunkCount == 0) << "size " << c.size;
        BZDestroy(zone);
    }
    EXPECT_EQ(BZCreate((size_t{1} << 30) + 1), nullptr);
    BZDestroy(nullptr);
    // Slots of a quarter megabyte: a slot's index still follows from its address.
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
        std::memset(elems.back(), 0x5A, 24);
    }
    BZFree(zone, elems[3]);
    BZFree(zone, elems[1]);
    EXPECT_TRUE(AllBytes(elems[1], 24, 0xBB) && AllBytes(elems[3], 24, 0xBB));
    EXPECT_TRUE(AllBytes(elems[2], 24, 0x5A)) << "neighbours are untouched";
    EXPECT_EQ(BZAlloc(zone), elems[1]) << "the lowest free slot first";
    EXPECT_TRUE(AllBytes(elems[1], 24, 0x00)) << "zeroed again";
    EXPECT_EQ(BZValidate(zone), 4);
    BZDestroy(zone);
}

// Random allocations and frees of several element sizes, checked after every step against a
// model: which elements are live, their contents, that every allocation comes from the
// fullest chunk with room (its lowest free slot), that a chunk that empties is given back to
// the heap unless it is the last one, and what the zone holds of the heap.
TEST(BlockZone, RandomUseKeepsEveryInvariant)
{
    std::mt19937 rng(7);
    for (size_t size : {size_t{1}, size_t{24}, size_t{200}, size_t{1000}}) {
        SCOPED_TRACE(size);
        vxtest::FaultAllocator heap;
        BZone *zone = BZCreate(size);
        const size_t recordBytes = heap.LiveBytes();
        const int32_t elemSize = Stats(zone).elemSize;
        std::map<unsigned char *, unsigned char> live;  // element -> its fill byte
        for (int step = 0; step < 4000; ++step) {
            if (live.empty() || rng() % 100 < (step < 2000 ? 60u : 40u)) {
                const std::vector<int32_t> counts = FreeCountsInOrder(zone);
                const int32_t fullest = counts.empty() ? 0 : counts[0];
                auto *elem = static_cast<unsigned char *>(BZAlloc(zone));
                ASSERT_TRUE(AllBytes(elem, static_cast<size_t>(elemSize), 0));
                ASSERT_EQ(live.count(elem), 0u) << "handed out twice";
                if (fullest > 0) {
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
            const BZStatistics s = Stats(zone);
            const std::vector<int32_t> counts = FreeCountsInOrder(zone);
            ASSERT_GE(s.chunkCount, 1) << "the last chunk stays";
            ASSERT_TRUE(counts.size() == 1 || std::count(counts.begin(), counts.end(), s.perChunk) == 0)
                << "an empty chunk is kept beside another";
            ASSERT_EQ(heap.LiveBytes(), recordBytes + s.chunkBytes);
        }
        BZDestroy(zone);
        EXPECT_EQ(heap.LiveBytes(), 0u);
    }
}

TEST(BlockZone, AMillionElementsFreedNinetyPercentInRandomOrder)
{
    constexpr int kCount = 1000000, kFreed = kCount * 9 / 10;
    BZone *zone = BZCreate(32);
    std::vector<void *> elems(kCount);
    for (void *&e : elems)
        e = BZAlloc(zone);
    const BZStatistics full = Stats(zone);
    EXPECT_EQ(full.chunkCount, (kCount + full.perChunk - 1) / full.perChunk);
    std::shuffle(elems.begin(), elems.end(), std::mt19937(11));
    for (int i = 0; i < kFreed; ++i)
        BZFree(zone, elems[static_cast<size_t>(i)]);
    // Exactly the chunks that still hold a live element are kept.
    std::set<BZChunk *> chunks;
    for (auto it = elems.begin() + kFreed; it != elems.end(); ++it)
        chunks.insert(ChunkOf(*it));
    EXPECT_EQ(static_cast<size_t>(Stats(zone).chunkCount), chunks.size());
    EXPECT_EQ(BZValidate(zone), kCount - kFreed);
    // Allocating again fills the holes before any new chunk is made.
    for (int i = 0; i < kFreed; ++i)
        BZAlloc(zone);
    const BZStatistics refilled = Stats(zone);
    EXPECT_EQ(refilled.chunkCount, full.chunkCount) << "no more chunks than a packed zone";
    EXPECT_LT(double(refilled.chunkBytes), double(kCount) * (refilled.elemSize + vx::zone::kSlotPrefix) * 1.05);
    BZDestroy(zone);
}

TEST(BlockZone, PreAllocMakesRoomInAdvance)
{
    vxtest::FaultAllocator heap;
    BZone *zone = BZCreate(1000);  // 10 per chunk
    for (int i = 0; i < 15; ++i)
        BZAlloc(zone);  // chunks: 5 free, full
    EXPECT_EQ(BZPreAlloc(zone, 5), 1);
    EXPECT_EQ(Stats(zone).chunkCount, 2) << "5 slots were free already";
    EXPECT_EQ(BZPreAlloc(zone, 27), 1);
    EXPECT_EQ(FreeCountsInOrder(zone), (std::vector<int32_t>{5, 10, 10, 10, 0}))
        << "new chunks go where their free count belongs";
    heap.Disarm();
    for (int i = 0; i < 35; ++i)
        BZAlloc(zone);
    EXPECT_EQ(heap.Allocations(), 0) << "the reserved slots served every allocation";
    EXPECT_EQ(BZValidate(zone), 50);
    BZDestroy(zone);
}

TEST(BlockZone, ForeignFreesAreReportedAndCorruptionIsFound)
{
    BZone *zone = BZCreate(16);
    BZone *other = BZCreate(16);
    std::vector<unsigned char *> elems;
    for (int i = 0; i < 4; ++i)
        elems.push_back(static_cast<unsigned char *>(BZAlloc(zone)));
    void *foreign = BZAlloc(other);
    BZFree(zone, elems[2]);
    vxtest::DebugCapture capture;
    BZFree(zone, elems[2]);
    BZFree(zone, foreign);
    BZFree(zone, nullptr);
    EXPECT_NE(capture.Text().find("is not in use in zone"), std::string::npos) << capture.Text();
    EXPECT_EQ(BZValidate(other), 1);
    EXPECT_EQ(BZValidate(zone), 3) << "the foreign frees were ignored";
    elems[2][5] = 1;  // a write after free
    EXPECT_EQ(BZValidate(zone), -1);
    EXPECT_NE(capture.Text().find("a free element was written to"), std::string::npos);
    elems[2][5] = 0xBB;
    elems[3][24 + 3] = 0xBB;  // the element of a slot never handed out
    EXPECT_EQ(BZValidate(zone), -1);
    EXPECT_NE(capture.Text().find("never handed out"), std::string::npos) << capture.Text();
    elems[3][24 + 3] = 0;
    ChunkOf(elems[0])->freeCount += 1;
    EXPECT_EQ(BZValidate(zone), -1);
    ChunkOf(elems[0])->freeCount -= 1;
    EXPECT_EQ(BZValidate(zone), 3);
    BZDestroy(zone);
    BZDestroy(other);
}

// ---- Out of memory ------------------------------------------------------------------------

TEST(BlockZoneOom, CreateAllocAndPreAlloc)
{
    BZone *zone = nullptr;
    vxtest::OomSweepAll({[&] { zone = nullptr; }, [&] { return (zone = BZCreate(64)) != nullptr; },
                         [&] { EXPECT_EQ(zone, nullptr); }, [&] { BZDestroy(zone); }});
    // Allocations that need a new chunk, and reservations that need several.
    for (int held : {0, 10, 20}) {
        SCOPED_TRACE(held);
        BZStatistics before{};
        void *got = nullptr;
        for (bool preAlloc : {false, true}) {
            vxtest::OomSweepAll({
                [&] {
                    zone = BZCreate(1000);  // 10 per chunk
                    for (int i = 0; i < held; ++i)
                        BZAlloc(zone);
                    before = Stats(zone);
                    got = nullptr;
                },
                [&] { return preAlloc ? BZPreAlloc(zone, 60) == 1 : (got = BZAlloc(zone)) != nullptr; },
                [&] {
                    const BZStatistics now = Stats(zone);
                    EXPECT_TRUE(got == nullptr && now.chunkCount == before.chunkCount &&
                                now.freeCount == before.freeCount);
                    EXPECT_EQ(BZValidate(zone), held);
                },
                [&] { BZDestroy(zone); },
            });
        }
    }
}

}  // namespace
