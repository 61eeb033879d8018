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
#include <vector>

namespace {

BZStatistics Stats(const BZone *zone)
{
    BZStatistics s;
    BZStats(zone, &s);
    return s;
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
    struct Case { size_t size; int32_t elemSize, perChunk; };
    for (Case c : {Case{1, 8, 126}, Case{1000, 1000, 10}, Case{0, 0, 251}, Case{8, 8, 126}, Case{33, 40, 42},
                   Case{184, 184, 11}, Case{200, 200, 10}}) {
        BZone *zone = BZCreate(c.size);
        const BZStatistics s = Stats(zone);
        EXPECT_TRUE(s.elemSize == c.elemSize && s.perChunk == c.perChunk && s.chunkCount == 0) << "size " << c.size;
        BZDestroy(zone);
    }
    EXPECT_EQ(BZCreate((size_t{1} << 30) + 1), nullptr);
    BZDestroy(nullptr);
}

// Random allocations and frees of several element sizes (up to slots of a quarter megabyte),
// checked after every step against a model: which elements are live, their contents (zeros
// when handed out, 0xBB once freed), that every allocation takes the lowest free slot of the
// fullest chunk with room, that a chunk that empties is given back to the heap unless it is
// the last one, and what the zone holds of the heap.
TEST(BlockZone, RandomUseKeepsEveryInvariant)
{
    std::mt19937 rng(7);
    for (size_t size : {size_t{1}, size_t{24}, size_t{200}, size_t{1000}, (size_t{1} << 18) + 3}) {
        SCOPED_TRACE(size);
        vxtest::FaultAllocator heap;
        BZone *zone = BZCreate(size);
        const size_t recordBytes = heap.LiveBytes();
        const auto elemSize = static_cast<size_t>(Stats(zone).elemSize);
        const int steps = size > 4096 ? 400 : 4000;
        std::map<unsigned char *, unsigned char> live;  // element -> its fill byte
        for (int step = 0; step < steps; ++step) {
            if (live.empty() || static_cast<int>(rng() % 100) < (step < steps / 2 ? 60 : 40)) {
                VxNode *fullest = zone->chunks.head;  // the chunks with room ascend in free slots
                unsigned char *lowest = fullest->succ ? reinterpret_cast<BZChunk *>(fullest)->firstFree : nullptr;
                auto *elem = static_cast<unsigned char *>(BZAlloc(zone));
                ASSERT_TRUE(!lowest || elem == lowest + vx::zone::kSlotPrefix) << "not the lowest free slot of the fullest chunk";
                ASSERT_TRUE(AllBytes(elem, elemSize, 0));
                ASSERT_EQ(live.count(elem), 0u) << "handed out twice";
                live[elem] = static_cast<unsigned char>(rng() % 200 + 1);
                std::memset(elem, live[elem], elemSize);
            } else {
                auto it = std::next(live.begin(), rng() % live.size());
                ASSERT_TRUE(AllBytes(it->first, elemSize, it->second)) << "element overwritten";
                const int32_t chunks = Stats(zone).chunkCount;
                BZFree(zone, it->first);
                ASSERT_TRUE(Stats(zone).chunkCount < chunks || AllBytes(it->first, elemSize, 0xBB))
                    << "a freed element reads as 0xBB (unless its chunk went)";
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

TEST(BlockZone, PreAllocMakesRoomInAdvance)
{
    BZone *zone = BZCreate(1000);  // 10 per chunk
    for (int i = 0; i < 15; ++i)
        BZAlloc(zone);  // chunks: 5 free, full
    EXPECT_EQ(BZPreAlloc(zone, 5), 1);
    EXPECT_EQ(Stats(zone).chunkCount, 2) << "5 slots were free already";
    EXPECT_EQ(BZPreAlloc(zone, 27), 1);
    EXPECT_EQ(FreeCountsInOrder(zone), (std::vector<int32_t>{5, 10, 10, 10, 0}))
        << "new chunks go where their free count belongs";
    for (int i = 0; i < 35; ++i)
        BZAlloc(zone);
    EXPECT_TRUE(Stats(zone).chunkCount == 5 && BZValidate(zone) == 50) << "the reserved slots served them all";
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
    elems[3][24 + 3] = 0xBB;  // and one to the element of a slot never handed out
    EXPECT_EQ(BZValidate(zone), -1);
    elems[2][5] = 0xBB;
    EXPECT_EQ(BZValidate(zone), -1);
    EXPECT_NE(capture.Text().find("a free element was written to"), std::string::npos) << capture.Text();
    EXPECT_NE(capture.Text().find("never handed out"), std::string::npos) << capture.Text();
    elems[3][24 + 3] = 0;
    BZDestroy(zone);
    BZDestroy(other);
}


// Creating a zone; allocating when a new chunk is needed; reserving several chunks.
TEST(BlockZoneOom, CreateAllocAndPreAlloc)
{
    BZone *zone = nullptr;
    vxtest::OomSweepAll({[&] { zone = nullptr; }, [&] { return (zone = BZCreate(64)) != nullptr; },
                         [&] { EXPECT_EQ(zone, nullptr); }, [&] { BZDestroy(zone); }});
    for (int held : {0, 10, 20}) {
        for (bool preAlloc : {false, true}) {
            SCOPED_TRACE(::testing::Message() << held << (preAlloc ? " held, reserving" : " held, allocating"));
            BZStatistics before{};
            vxtest::OomSweepAll({
                [&] {
                    zone = BZCreate(1000);  // 10 per chunk
                    for (int i = 0; i < held; ++i)
                        BZAlloc(zone);
                    before = Stats(zone);
                },
                [&] { return preAlloc ? BZPreAlloc(zone, 60) == 1 : BZAlloc(zone) != nullptr; },
                [&] {
                    const BZStatistics now = Stats(zone);
                    EXPECT_TRUE(now.chunkCount == before.chunkCount && now.freeCount == before.freeCount);
                    EXPECT_EQ(BZValidate(zone), held);
                },
                [&] { BZDestroy(zone); },
            });
        }
    }
}

}  // namespace
