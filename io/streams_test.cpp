#include "io/streams_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include "testkit/capture.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Pattern(size_t n, uint32_t seed)
{
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto &x : b)
        x = static_cast<uint8_t>(rng());
    return b;
}

enum class Kind { Memory, MemoryCopy, File };

// Makes read streams of each kind over the same bytes.
class ReadStreams : public ::testing::TestWithParam<Kind> {
protected:
    VxReadStrm *Open(const Bytes &bytes, const VxStrmMonitor *monitor = nullptr)
    {
        data_ = bytes;
        switch (GetParam()) {
        case Kind::Memory: return MemStrmReadCreate(data_.data(), static_cast<int32_t>(data_.size()), 0);
        case Kind::MemoryCopy: return MemStrmReadCreate(data_.data(), static_cast<int32_t>(data_.size()), 1);
        case Kind::File: vxtest::WriteBytes(dir_.File("in"), data_); return FileStrmReadOpen(dir_.File("in").c_str(), monitor);
        }
        return nullptr;
    }
    Bytes data_;
    vxtest::TempDir dir_;
};

// What the random walk below does not look at: the items past a partial one stay untouched,
// and the end shows in peeks and reads without failing the stream.
TEST_P(ReadStreams, PartialItemsAreNotStoredAndTheEndIsNoFailure)
{
    VxReadStrm *s = Open({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    ASSERT_NE(s, nullptr);
    uint32_t longs[3] = {0, 0, 0xDEADBEEF};
    EXPECT_EQ(s->readLongs(s, longs, 3), 2);  // 10 bytes: two whole items
    EXPECT_EQ(longs[1], 0x05060708u);
    EXPECT_EQ(longs[2], 0xDEADBEEFu) << "an item beyond the end was touched";
    EXPECT_EQ(s->remaining, 2);
    EXPECT_EQ(s->readLongsRaw(s, longs, 1), 0);
    uint8_t two[2], b = 0;
    EXPECT_EQ(s->readBytes(s, two, 5), 2);
    EXPECT_EQ(two[1], 10);
    EXPECT_EQ(s->peekByte(s, &b), 1);
    EXPECT_EQ(s->readBytes(s, two, 1), 0);
    EXPECT_EQ(s->error, 0);
    StrmReadDestroy(s);
}

TEST_P(ReadStreams, SkipMovesForwardAndFailsPastTheEnd)
{
    VxReadStrm *s = Open({1, 2, 3, 4, 5, 6});
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->skip(s, -3), 0);  // a negative skip counts as 0
    EXPECT_EQ(s->remaining, 6);
    EXPECT_EQ(s->skip(s, 2), 0);
    uint8_t b;
    EXPECT_EQ(s->peekByte(s, &b), 0);
    EXPECT_EQ(b, 3);
    EXPECT_EQ(s->skip(s, 5), -VX_ERR_IO);
    if (GetParam() == Kind::File) {
        EXPECT_EQ(s->error, VX_ERR_IO);  // file streams stay failed
        EXPECT_EQ(s->readBytes(s, &b, 1), -VX_ERR_IO);
        EXPECT_EQ(s->peekByte(s, &b), VX_ERR_IO);
    } else {
        EXPECT_EQ(s->error, 0);  // memory streams do not
        EXPECT_EQ(s->readBytes(s, &b, 1), 1);
        EXPECT_EQ(b, 3);
    }
    StrmReadDestroy(s);
}

// A random walk of reads, skips and peeks compared with a plain model of the bytes, with
// sizes that cross the file stream's buffer in every way.
TEST_P(ReadStreams, RandomOperationsMatchAModel)
{
    for (uint32_t seed = 1; seed <= 6; ++seed) {
        std::mt19937 rng(seed);
        Bytes bytes = Pattern(300000 + seed * 7, seed);
        VxReadStrm *s = Open(bytes);
        ASSERT_NE(s, nullptr);
        size_t pos = 0;
        Bytes buf(4 * 150000);
        while (pos < bytes.size()) {
            int op = static_cast<int>(rng() % 8);
            int32_t n = static_cast<int32_t>(rng() % 4 == 0 ? rng() % 150000 : rng() % 40);
            size_t left = bytes.size() - pos;
            if (op == 7) {
                int32_t r = s->skip(s, n);
                if (static_cast<size_t>(n) > left) {
                    EXPECT_EQ(r, -VX_ERR_IO);
                    break;
                }
                EXPECT_EQ(r, 0);
                pos += static_cast<size_t>(n);
            } else if (op == 6) {
                uint8_t b = 0;
                ASSERT_EQ(s->peekByte(s, &b), 0);
                ASSERT_EQ(b, bytes[pos]);
            } else {
                static constexpr int kSize[] = {1, 2, 2, 4, 4, 1};
                int size = kSize[op];
                bool swap = op == 1 || op == 3;
                auto fns = std::vector{s->readBytes, s->readShorts, s->readShortsRaw, s->readLongs, s->readLongsRaw, s->readBytes};
                int32_t expect = static_cast<int32_t>(std::min<size_t>(static_cast<size_t>(n), left / static_cast<size_t>(size)));
                ASSERT_EQ(fns[static_cast<size_t>(op)](s, buf.data(), n), expect) << "seed " << seed << " pos " << pos;
                for (int32_t i = 0; i < expect * size; ++i) {
                    int j = swap ? (i / size) * size + (size - 1 - i % size) : i;
                    ASSERT_EQ(buf[static_cast<size_t>(j)], bytes[pos + static_cast<size_t>(i)]) << "seed " << seed;
                }
                pos += static_cast<size_t>(expect * size);
                if (expect < n)
                    break;
            }
            ASSERT_EQ(s->remaining, static_cast<int32_t>(bytes.size() - pos));
        }
        StrmReadDestroy(s);
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ReadStreams, ::testing::Values(Kind::Memory, Kind::MemoryCopy, Kind::File),
                         [](const auto &param) {
                             return std::string(param.param == Kind::File ? "File" : param.param == Kind::Memory ? "Memory" : "MemoryCopy");
                         });

TEST(MemReadStream, ReadsTheCallersBytesInPlaceUnlessCopied)
{
    uint8_t data[4] = {1, 2, 3, 4};
    VxReadStrm *inPlace = MemStrmReadCreate(data, 4, 0);
    VxReadStrm *copied = MemStrmReadCreate(data, 4, 1);
    data[0] = 99;
    uint8_t a, b;
    inPlace->readBytes(inPlace, &a, 1);
    copied->readBytes(copied, &b, 1);
    EXPECT_EQ(a, 99);
    EXPECT_EQ(b, 1);
    StrmReadDestroy(inPlace);
    StrmReadDestroy(copied);
    EXPECT_EQ(MemStrmReadCreate(data, -1, 0), nullptr);
    VxReadStrm *empty = MemStrmReadCreate(nullptr, 0, 1);
    EXPECT_EQ(empty->peekByte(empty, &a), 1);
    StrmReadDestroy(empty);
}

// ---- Monitor ---------------------------------------------------------------------------

struct MonitorLog {
    int32_t total = -1;
    int64_t stepped = 0;
    int steps = 0;
    int abortAtStep = 0;  // 0: never
    int done = 0;
};

VxStrmMonitor MakeMonitor(MonitorLog *log)
{
    VxStrmMonitor m{};
    m.context = log;
    m.start = [](void *c, int32_t total) { static_cast<MonitorLog *>(c)->total = total; };
    m.step = [](void *c, int32_t bytes) {
        auto *l = static_cast<MonitorLog *>(c);
        l->stepped += bytes;
        return ++l->steps == l->abortAtStep ? 1 : 0;
    };
    m.done = [](void *c) { ++static_cast<MonitorLog *>(c)->done; };
    return m;
}

TEST(FileReadStream, MonitorSeesSizeStepsAndDoneAndCanAbort)
{
    vxtest::TempDir dir;
    vxtest::WriteBytes(dir.File("f"), Pattern(1000, 3));
    MonitorLog log;
    VxStrmMonitor mon = MakeMonitor(&log);
    VxReadStrm *s = FileStrmReadOpen(dir.File("f").c_str(), &mon);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(log.total, 1000);
    uint8_t buf[64];
    EXPECT_EQ(s->readLongs(s, buf, 4), 4);
    EXPECT_EQ(s->skip(s, 100), 0);
    EXPECT_EQ(log.stepped, 116);
    log.abortAtStep = log.steps + 1;
    EXPECT_EQ(s->readShorts(s, buf, 2), -VX_ERR_ABORT);
    EXPECT_EQ(s->error, VX_ERR_IO);  // the stream stays failed with code 2
    EXPECT_EQ(s->readBytes(s, buf, 1), -VX_ERR_IO);
    EXPECT_EQ(log.done, 0);
    StrmReadDestroy(s);
    EXPECT_EQ(log.done, 1);
}

TEST(FileStreams, OpenFailuresReturnNull)
{
    vxtest::TempDir dir;
    EXPECT_EQ(FileStrmReadOpen(dir.File("missing").c_str(), nullptr), nullptr);
    EXPECT_EQ(FileStrmReadOpen(dir.Path().c_str(), nullptr), nullptr);  // a directory
    EXPECT_EQ(FileStrmReadOpen(nullptr, nullptr), nullptr);
    EXPECT_EQ(FileStrmWriteOpen(dir.File("no/such/dir").c_str()), nullptr);
    EXPECT_EQ(FileStrmWriteText(dir.Path().c_str()), nullptr);
}

TEST(FileWriteStream, ADeviceThatIsFullFailsTheStreamAndItsDestroy)
{
    VxWriteStrm *s = FileStrmWriteOpen("/dev/full");
    if (!s)
        GTEST_SKIP() << "/dev/full is not available";
    Bytes big = Pattern(200000, 1);
    int32_t first = s->writeBytes(s, big.data(), 100);  // buffered: no failure yet
    EXPECT_EQ(first, 0);
    EXPECT_EQ(s->writeBytes(s, big.data(), static_cast<int32_t>(big.size())), VX_ERR_IO);
    EXPECT_EQ(s->error, VX_ERR_IO);
    EXPECT_EQ(s->writeBytes(s, big.data(), 1), VX_ERR_IO);
    EXPECT_EQ(StrmWriteDestroy(s), VX_ERR_IO);

    VxWriteStrm *small = FileStrmWriteOpen("/dev/full");
    small->writeBytes(small, big.data(), 10);
    EXPECT_EQ(StrmWriteDestroy(small), VX_ERR_IO) << "the last buffered bytes could not be written";
}

// ---- Write streams ---------------------------------------------------------------------

enum class WKind { Memory, File, Text };

class WriteStreams : public ::testing::TestWithParam<WKind> {
protected:
    VxWriteStrm *Open()
    {
        switch (GetParam()) {
        case WKind::Memory: return MemStrmWriteCreate();
        case WKind::File: return FileStrmWriteOpen(dir_.File("out").c_str());
        case WKind::Text: return FileStrmWriteText(dir_.File("out").c_str());
        }
        return nullptr;
    }
    // Destroys the stream and returns the bytes it held.
    Bytes Finish(VxWriteStrm *s)
    {
        Bytes out;
        if (GetParam() == WKind::Memory) {
            const auto *data = static_cast<const uint8_t *>(s->impl);
            if (data)
                out.assign(data, data + s->length);
            EXPECT_EQ(StrmWriteDestroy(s), 0);
        } else {
            EXPECT_EQ(StrmWriteDestroy(s), 0);
            out = vxtest::ReadBytes(dir_.File("out"));
        }
        return out;
    }
    vxtest::TempDir dir_;
};

TEST_P(WriteStreams, SwappedWritesStoreBigEndianAndLeaveTheCallersItems)
{
    VxWriteStrm *s = Open();
    ASSERT_NE(s, nullptr);
    uint16_t shorts[2] = {0x1234, 0xABCD};
    uint32_t longs[2] = {0x01020304, 0xA0B0C0D0};
    EXPECT_EQ(s->writeShorts(s, shorts, 2), 0);
    EXPECT_EQ(s->writeShortsRaw(s, shorts, 1), 0);
    EXPECT_EQ(s->writeLongs(s, longs, 2), 0);
    EXPECT_EQ(s->writeLongsRaw(s, longs, 1), 0);
    EXPECT_EQ(s->writeBytes(s, "xy", 2), 0);
    EXPECT_EQ(shorts[0], 0x1234);
    EXPECT_EQ(longs[1], 0xA0B0C0D0u);
    EXPECT_EQ(s->length, 20);
    EXPECT_EQ(s->position, 20);
    EXPECT_EQ(s->writeBytes(s, "zz", -1), 0);  // a negative count writes nothing
    EXPECT_EQ(s->seek(s, 2), 0);
    EXPECT_EQ(s->writeBytes(s, "\x77", 1), 0);
    EXPECT_EQ(s->length, 20);
    Bytes expect = {0x12, 0x34, 0x77, 0xCD, 0x34, 0x12, 1, 2, 3, 4, 0xA0, 0xB0, 0xC0, 0xD0, 4, 3, 2, 1, 'x', 'y'};
    EXPECT_EQ(Finish(s), expect);
}

// Random writes of every kind and random seeks (the pattern of a chunk writer patching
// lengths, plus long jumps and writes larger than the file stream's buffer), compared with
// a byte model.
TEST_P(WriteStreams, RandomWritesAndSeeksMatchAModel)
{
    for (uint32_t seed = 1; seed <= 5; ++seed) {
        std::mt19937 rng(seed);
        VxWriteStrm *s = Open();
        ASSERT_NE(s, nullptr);
        Bytes model;
        size_t pos = 0;
        Bytes src = Pattern(150000, seed + 100);
        for (int step = 0; step < 400; ++step) {
            int op = static_cast<int>(rng() % 7);
            if (op == 6) {
                int32_t to = static_cast<int32_t>(rng() % (model.size() + 50));
                ASSERT_EQ(s->seek(s, to), 0);
                pos = std::min<size_t>(static_cast<size_t>(to), model.size());
            } else {
                static constexpr int kSize[] = {1, 2, 2, 4, 4, 1};
                int size = kSize[op];
                bool swap = op == 1 || op == 3;
                int32_t n = static_cast<int32_t>(rng() % 8 == 0 ? rng() % (140000 / size) : rng() % 30);
                auto fns = std::vector{s->writeBytes, s->writeShorts, s->writeShortsRaw, s->writeLongs, s->writeLongsRaw, s->writeBytes};
                ASSERT_EQ(fns[static_cast<size_t>(op)](s, src.data(), n), 0);
                size_t bytes = static_cast<size_t>(n * size);
                if (model.size() < pos + bytes)
                    model.resize(pos + bytes);
                for (size_t i = 0; i < bytes; ++i) {
                    size_t j = swap ? (i / size) * size + (size - 1 - i % size) : i;
                    model[pos + i] = src[j];
                }
                pos += bytes;
            }
            ASSERT_EQ(s->position, static_cast<int32_t>(pos));
            ASSERT_EQ(s->length, static_cast<int32_t>(model.size()));
        }
        ASSERT_EQ(Finish(s), model) << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, WriteStreams, ::testing::Values(WKind::Memory, WKind::File, WKind::Text),
                         [](const auto &param) {
                             return std::string(param.param == WKind::Memory ? "Memory" : param.param == WKind::File ? "File" : "Text");
                         });

TEST(MemWriteStream, BlocksGrowByTheDoublingRuleAndAlwaysHoldTheData)
{
    VxWriteStrm *s = MemStrmWriteCreate();
    Bytes src = Pattern(10000, 9);
    s->writeBytes(s, src.data(), 10);
    EXPECT_EQ(vx::io::BlockCapacity(s->impl), 1020);  // a 1024-byte block
    s->writeBytes(s, src.data(), 1010);
    EXPECT_EQ(vx::io::BlockCapacity(s->impl), 1020);
    s->writeBytes(s, src.data(), 1);
    EXPECT_EQ(vx::io::BlockCapacity(s->impl), 2036);  // a 2040-byte block
    // 4070 bytes: a block of twice the capacity (4072 bytes) would hold only 4068 of them.
    s->seek(s, 0);
    s->writeBytes(s, src.data(), 4070);
    EXPECT_EQ(vx::io::BlockCapacity(s->impl), 4070);
    s->writeBytes(s, src.data(), 10000);  // one write bigger than twice the capacity
    EXPECT_EQ(vx::io::BlockCapacity(s->impl), 14070);
    EXPECT_EQ(std::memcmp(static_cast<uint8_t *>(s->impl) + 4070, src.data(), 10000), 0);
    EXPECT_EQ(std::memcmp(s->impl, src.data(), 4070), 0);
    StrmWriteDestroy(s);
}

TEST(MemWriteStream, PurgeHandsOverTheBlockAndTheStreamStartsAgain)
{
    VxWriteStrm *s = MemStrmWriteCreate();
    int32_t size = -1;
    EXPECT_EQ(MemStrmWritePurge(s, &size), nullptr);
    EXPECT_EQ(size, 0);
    s->writeLongs(s, "\x01\x02\x03\x04", 1);
    void *block = MemStrmWritePurge(s, &size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(size, 1020);
    EXPECT_EQ(std::memcmp(block, "\x04\x03\x02\x01", 4), 0);
    EXPECT_EQ(s->length, 0);
    EXPECT_EQ(s->position, 0);
    EXPECT_EQ(s->impl, nullptr);
    s->writeBytes(s, "ab", 2);
    void *second = MemStrmWritePurge(s, nullptr);
    EXPECT_EQ(std::memcmp(second, "ab", 2), 0);
    MemStrmFreeBlock(block);
    MemStrmFreeBlock(second);
    MemStrmFreeBlock(nullptr);
    s->writeBytes(s, "cd", 2);  // freed by destroy
    EXPECT_EQ(StrmWriteDestroy(s), 0);
}

TEST(Swap, ReversesEachUnitInPlace)
{
    uint8_t b[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    Swap2(b, 3);
    EXPECT_EQ(Bytes(b, b + 8), (Bytes{2, 1, 4, 3, 6, 5, 7, 8}));
    Swap4(b + 1, 1);  // unaligned
    EXPECT_EQ(Bytes(b, b + 8), (Bytes{2, 6, 3, 4, 1, 5, 7, 8}));
}

// ---- Out of memory ---------------------------------------------------------------------

TEST(StreamsOom, CreationReleasesEverythingWhenMemoryRunsOut)
{
    vxtest::TempDir dir;
    vxtest::WriteBytes(dir.File("f"), Pattern(100, 1));
    // Paths are made beforehand: a failing run may unwind past the lambdas' frames.
    const std::string inPath = dir.File("f"), outPath = dir.File("g");
    uint8_t data[16] = {};
    const std::function<VxReadStrm *()> readers[] = {
        [&] { return MemStrmReadCreate(data, 16, 1); },
        [&] { return MemStrmReadCreate(data, 16, 0); },
        [&] { return FileStrmReadOpen(inPath.c_str(), nullptr); },
    };
    const std::function<VxWriteStrm *()> writers[] = {
        [] { return MemStrmWriteCreate(); },
        [&] { return FileStrmWriteOpen(outPath.c_str()); },
        [&] { return FileStrmWriteText(outPath.c_str()); },
    };
    VxReadStrm *r = nullptr;
    VxWriteStrm *w = nullptr;
    auto nothing = [] {};
    for (const auto &create : readers)
        vxtest::OomSweepAll({nothing, [&] { return (r = create()) != nullptr; }, nothing,
                             [&] { StrmReadDestroy(r); r = nullptr; }});
    for (const auto &create : writers)
        vxtest::OomSweepAll({nothing, [&] { return (w = create()) != nullptr; }, nothing,
                             [&] { StrmWriteDestroy(w); w = nullptr; }});
}

// Growth of a memory write stream catches an exhausted heap itself: the failing write reports
// it, the stream keeps its old block and every byte written before, stays failed, and an
// enclosing checkpoint block is not disturbed. Swept over every growth of a write sequence.
int32_t WriteSequence(VxWriteStrm *s, const Bytes &src, int32_t *failedAt)
{
    static constexpr int32_t kSizes[] = {1000, 4000, 20000, 3};
    int32_t offset = 0;
    for (int32_t size : kSizes) {
        if (int32_t code = s->writeBytes(s, src.data() + offset, size)) {
            *failedAt = offset;
            return code;
        }
        offset += size;
    }
    return 0;
}

int32_t WriteInsideABlock(VxWriteStrm *s, const Bytes &src, int32_t *failedAt, bool *unwound)
{
    if (CkptBegin()) {
        CkptLatchCode();
        *unwound = true;
        return 0;
    }
    int32_t result = WriteSequence(s, src, failedAt);
    CkptEnd();
    return result;
}

TEST(StreamsOom, MemoryGrowthFailureKeepsTheDataAndFailsTheStream)
{
    Bytes src = Pattern(25003, 4);
    for (bool outer : {false, true}) {
        for (vxtest::FailMode mode : {vxtest::FailMode::Once, vxtest::FailMode::FromThen}) {
            for (int k = 1;; ++k) {
                vxtest::FaultAllocator heap;
                VxWriteStrm *s = MemStrmWriteCreate();
                heap.FailAt(k, mode);
                int32_t failedAt = -1;
                bool unwound = false;
                int32_t result = outer ? WriteInsideABlock(s, src, &failedAt, &unwound) : WriteSequence(s, src, &failedAt);
                bool injected = heap.Failures() > 0;
                heap.Disarm();
                EXPECT_FALSE(unwound);
                if (!injected) {
                    EXPECT_EQ(result, 0);
                    EXPECT_GT(k, 3) << "three growths were swept";
                    StrmWriteDestroy(s);
                    break;
                }
                EXPECT_EQ(result, VX_ERR_NOMEM) << "k=" << k;
                EXPECT_EQ(s->error, VX_ERR_IO);
                EXPECT_EQ(s->length, failedAt) << "nothing written before the failure is lost";
                if (failedAt > 0) {
                    EXPECT_EQ(std::memcmp(s->impl, src.data(), static_cast<size_t>(failedAt)), 0);
                }
                EXPECT_EQ(s->writeBytes(s, src.data(), 1), VX_ERR_IO);
                EXPECT_EQ(s->seek(s, 0), VX_ERR_IO);
                StrmWriteDestroy(s);
                EXPECT_EQ(heap.LiveBytes(), 0u);
                EXPECT_EQ(heap.BadFrees(), 0);
                EXPECT_EQ(CkptLevel(), -1);
                if (::testing::Test::HasFailure())
                    return;
            }
        }
    }
}

}  // namespace
