#include "io/streams_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include "testkit/capture.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Trace = std::vector<int64_t>;  // results of calls made in order, with values read between them

Bytes Pattern(size_t n, uint32_t seed)
{
    std::mt19937 rng(seed);
    Bytes b(n);
    std::generate(b.begin(), b.end(), [&] { return static_cast<uint8_t>(rng()); });
    return b;
}

Bytes Held(const VxWriteStrm *s)
{
    const auto *p = static_cast<const uint8_t *>(s->impl);
    return p ? Bytes(p, p + s->length) : Bytes();
}

// The operations by number: bytes, shorts, raw shorts, longs, raw longs. Byte i of the items
// in the stream is byte ItemByte(i) in the caller's buffer.
constexpr int kSize[] = {1, 2, 2, 4, 4};
size_t ItemByte(size_t i, int op)
{
    const size_t size = static_cast<size_t>(kSize[op]);
    return op == 1 || op == 3 ? (i / size) * size + (size - 1 - i % size) : i;
}

enum class Kind { Memory, MemoryCopy, File, Text };
const char *const kKindNames[] = {"Memory", "MemoryCopy", "File", "Text"};
std::string KindName(const ::testing::TestParamInfo<Kind> &info) { return kKindNames[static_cast<int>(info.param)]; }

class ReadStreams : public ::testing::TestWithParam<Kind> {
protected:
    VxReadStrm *Open(const Bytes &bytes)
    {
        data_ = bytes;
        if (GetParam() != Kind::File)
            return MemStrmReadCreate(data_.data(), static_cast<int32_t>(data_.size()), GetParam() == Kind::MemoryCopy);
        vxtest::WriteBytes(dir_.File("in"), data_);
        return FileStrmReadOpen(dir_.File("in").c_str(), nullptr);
    }
    Bytes data_;
    vxtest::TempDir dir_;
};

// What the random walk below does not look at: a negative skip counts as 0, items past a
// partial one stay untouched, a skip may end exactly at the end, the end itself is no failure,
// and only file streams stay failed after a skip past it. The calls run in list order.
TEST_P(ReadStreams, TheEndOfTheData)
{
    VxReadStrm *s = Open({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    uint32_t longs[3] = {0, 0, 0xDEADBEEF};
    uint8_t b = 0;
    const Trace got = {s->skip(s, -3), s->readLongs(s, longs, 3), longs[1], longs[2], s->remaining,
                       s->readLongsRaw(s, longs, 1), s->peekByte(s, &b), s->peekByte(s, &b), b, s->skip(s, 2),
                       s->remaining, s->peekByte(s, &b), s->readBytes(s, &b, 1), s->error, s->skip(s, 1),
                       s->error, s->readBytes(s, &b, 1), s->peekByte(s, &b)};
    const int32_t sticky = GetParam() == Kind::File ? VX_ERR_IO : 0;
    EXPECT_EQ(got, (Trace{0, 2, 0x05060708, 0xDEADBEEF, 2, 0, 0, 0, 9, 0, 0, 1, 0, 0, -VX_ERR_IO, sticky, -sticky,
                          sticky ? sticky : 1}));
    StrmReadDestroy(s);
}

// A random walk of reads, skips and peeks compared with a plain model of the bytes, with
// sizes that cross the file stream's buffer in every way.
TEST_P(ReadStreams, RandomOperationsMatchAModel)
{
    Bytes buf(4 * 150000);
    for (uint32_t seed = 1; seed <= 6; ++seed) {
        std::mt19937 rng(seed);
        const Bytes bytes = Pattern(300000 + seed * 7, seed);
        VxReadStrm *s = Open(bytes);
        const auto fns = std::vector{s->readBytes, s->readShorts, s->readShortsRaw, s->readLongs, s->readLongsRaw};
        size_t pos = 0;
        while (pos < bytes.size()) {
            const int op = static_cast<int>(rng() % 7);
            const auto n = static_cast<int32_t>(rng() % 4 == 0 ? rng() % 150000 : rng() % 40);
            const size_t left = bytes.size() - pos;
            uint8_t b = 0;
            if (op == 6) {
                ASSERT_EQ(Trace({s->peekByte(s, &b), b}), (Trace{0, bytes[pos]}));
            } else if (op == 5) {
                if (static_cast<size_t>(n) > left) {
                    EXPECT_EQ(s->skip(s, n), -VX_ERR_IO);
                    break;
                }
                ASSERT_EQ(s->skip(s, n), 0);
                pos += static_cast<size_t>(n);
            } else {
                const auto expect = static_cast<int32_t>(std::min<size_t>(static_cast<size_t>(n), left / kSize[op]));
                ASSERT_EQ(fns[static_cast<size_t>(op)](s, buf.data(), n), expect) << "seed " << seed << " pos " << pos;
                for (size_t i = 0; i < static_cast<size_t>(expect * kSize[op]); ++i)
                    ASSERT_EQ(buf[ItemByte(i, op)], bytes[pos + i]) << "seed " << seed;
                pos += static_cast<size_t>(expect * kSize[op]);
                if (expect < n)
                    break;
            }
            ASSERT_EQ(s->remaining, static_cast<int32_t>(bytes.size() - pos));
        }
        StrmReadDestroy(s);
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ReadStreams, ::testing::Values(Kind::Memory, Kind::MemoryCopy, Kind::File), KindName);

TEST(MemReadStream, ReadsTheCallersBytesInPlaceUnlessCopied)
{
    uint8_t data[4] = {1, 2, 3, 4}, got[3];
    VxReadStrm *streams[] = {MemStrmReadCreate(data, 4, 0), MemStrmReadCreate(data, 4, 1), MemStrmReadCreate(nullptr, 0, 1)};
    data[0] = 99;
    for (int i = 0; i < 3; ++i)
        got[i] = static_cast<uint8_t>(streams[i]->peekByte(streams[i], &got[i]) == 1 ? 0xEE : got[i]), StrmReadDestroy(streams[i]);
    EXPECT_EQ(Bytes(got, got + 3), (Bytes{99, 1, 0xEE})) << "in place, copied, empty";
    EXPECT_EQ(MemStrmReadCreate(data, -1, 0), nullptr);
}

struct MonitorLog { int32_t total = -1, steps = 0, abortAtStep = 0, done = 0; int64_t stepped = 0; };  // abortAtStep 0: never

TEST(FileReadStream, MonitorSeesSizeStepsAndDoneAndCanAbort)
{
    vxtest::TempDir dir;
    vxtest::WriteBytes(dir.File("f"), Pattern(1000, 3));
    MonitorLog log;
    VxStrmMonitor mon{};
    mon.context = &log;
    mon.start = [](void *c, int32_t total) { static_cast<MonitorLog *>(c)->total = total; };
    mon.step = [](void *c, int32_t bytes) {
        auto *l = static_cast<MonitorLog *>(c);
        return (l->stepped += bytes, ++l->steps == l->abortAtStep) ? 1 : 0;
    };
    mon.done = [](void *c) { ++static_cast<MonitorLog *>(c)->done; };
    VxReadStrm *s = FileStrmReadOpen(dir.File("f").c_str(), &mon);
    uint8_t buf[64];
    // An abort fails the call with its own code, the stream stays failed with VX_ERR_IO.
    const Trace got = {log.total, s->readLongs(s, buf, 4), s->skip(s, 100), log.stepped,
                       (log.abortAtStep = log.steps + 1, s->readShorts(s, buf, 2)), s->error, s->readBytes(s, buf, 1),
                       log.done, (StrmReadDestroy(s), log.done)};
    EXPECT_EQ(got, (Trace{1000, 4, 0, 116, -VX_ERR_ABORT, VX_ERR_IO, -VX_ERR_IO, 0, 1}));
}

TEST(FileStreams, OpenFailuresReturnNull)
{
    vxtest::TempDir dir;  // a missing file, a directory, no name; a missing directory, a directory
    const std::vector<const void *> opened = {
        FileStrmReadOpen(dir.File("missing").c_str(), nullptr), FileStrmReadOpen(dir.Path().c_str(), nullptr),
        FileStrmReadOpen(nullptr, nullptr), FileStrmWriteOpen(dir.File("no/such/dir").c_str()), FileStrmWriteText(dir.Path().c_str())};
    EXPECT_EQ(opened, std::vector<const void *>(5, nullptr));
}

TEST(FileWriteStream, ADeviceThatIsFullFailsTheStreamAndItsDestroy)
{
    VxWriteStrm *s = FileStrmWriteOpen("/dev/full");
    if (!s)
        GTEST_SKIP() << "/dev/full is not available";
    const Bytes big = Pattern(200000, 1);
    EXPECT_EQ(s->writeBytes(s, big.data(), 100), 0);  // buffered: no failure yet
    EXPECT_EQ(s->writeBytes(s, big.data(), static_cast<int32_t>(big.size())), VX_ERR_IO);
    EXPECT_EQ(Trace({s->error, s->writeBytes(s, big.data(), 1), StrmWriteDestroy(s)}), (Trace{VX_ERR_IO, VX_ERR_IO, VX_ERR_IO}));
    VxWriteStrm *small = FileStrmWriteOpen("/dev/full");
    small->writeBytes(small, big.data(), 10);
    EXPECT_EQ(StrmWriteDestroy(small), VX_ERR_IO) << "the last buffered bytes could not be written";
}

class WriteStreams : public ::testing::TestWithParam<Kind> {
protected:
    VxWriteStrm *Open()
    {
        const std::string path = dir_.File("out");
        return GetParam() == Kind::Memory ? MemStrmWriteCreate()
               : GetParam() == Kind::File ? FileStrmWriteOpen(path.c_str())
                                          : FileStrmWriteText(path.c_str());
    }
    // Destroys the stream and returns the bytes it held.
    Bytes Finish(VxWriteStrm *s)
    {
        const Bytes held = GetParam() == Kind::Memory ? Held(s) : Bytes();
        EXPECT_EQ(StrmWriteDestroy(s), 0);
        return GetParam() == Kind::Memory ? held : vxtest::ReadBytes(dir_.File("out"));
    }
    vxtest::TempDir dir_;
};

// Random writes of every kind (negative counts write nothing; swapped writes must leave the
// caller's items as they were, or later writes from the same source go wrong) and random
// seeks, some past the end (the pattern of a chunk writer patching lengths, plus long jumps
// and writes larger than the file stream's buffer), compared with a byte model.
TEST_P(WriteStreams, RandomWritesAndSeeksMatchAModel)
{
    for (uint32_t seed = 1; seed <= 5; ++seed) {
        std::mt19937 rng(seed);
        VxWriteStrm *s = Open();
        const auto fns = std::vector{s->writeBytes, s->writeShorts, s->writeShortsRaw, s->writeLongs, s->writeLongsRaw};
        Bytes model, src = Pattern(150000, seed + 100);
        size_t pos = 0;
        for (int step = 0; step < 400; ++step) {
            const int op = static_cast<int>(rng() % 6);
            if (op == 5) {
                const auto to = static_cast<int32_t>(rng() % (model.size() + 50));
                ASSERT_EQ(s->seek(s, to), 0);
                pos = std::min<size_t>(static_cast<size_t>(to), model.size());
            } else {
                const auto n = static_cast<int32_t>(rng() % 8 == 0 ? rng() % (140000 / kSize[op]) : rng() % 32 - 2);
                ASSERT_EQ(fns[static_cast<size_t>(op)](s, src.data(), n), 0);
                const size_t bytes = static_cast<size_t>(std::max(n, 0) * kSize[op]);
                model.resize(std::max(model.size(), pos + bytes));
                for (size_t i = 0; i < bytes; ++i)
                    model[pos + i] = src[ItemByte(i, op)];
                pos += bytes;
            }
            ASSERT_EQ(s->position, static_cast<int32_t>(pos));
            ASSERT_EQ(s->length, static_cast<int32_t>(model.size()));
        }
        ASSERT_EQ(Finish(s), model) << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, WriteStreams, ::testing::Values(Kind::Memory, Kind::File, Kind::Text), KindName);

TEST(MemWriteStream, BlocksGrowByTheDoublingRuleAndAlwaysHoldTheData)
{
    // {seek to 0 first, bytes written, capacity after}: a 1024-byte block holds 1020, a
    // 2040-byte one 2036; 4070 bytes do not fit twice 2036, nor 10000 more twice 4070.
    const struct { bool rewind; int32_t bytes, capacity; } steps[] = {
        {false, 10, 1020}, {false, 1010, 1020}, {false, 1, 2036}, {true, 4070, 4070}, {false, 10000, 14070}};
    VxWriteStrm *s = MemStrmWriteCreate();
    const Bytes src = Pattern(10000, 9);
    for (const auto &step : steps) {
        if (step.rewind)
            s->seek(s, 0);
        s->writeBytes(s, src.data(), step.bytes);
        EXPECT_EQ(vx::io::BlockCapacity(s->impl), step.capacity) << step.bytes;
    }
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
    ASSERT_EQ(size, 1020);
    EXPECT_EQ(std::memcmp(block, "\x04\x03\x02\x01", 4), 0);
    EXPECT_EQ(s->length + s->position + (s->impl != nullptr), 0);
    s->writeBytes(s, "ab", 2);
    void *second = MemStrmWritePurge(s, nullptr);
    EXPECT_EQ(std::memcmp(second, "ab", 2), 0);
    MemStrmFreeBlock(block), MemStrmFreeBlock(second), MemStrmFreeBlock(nullptr);
    s->writeBytes(s, "cd", 2);  // freed by destroy
    EXPECT_EQ(StrmWriteDestroy(s), 0);
}

TEST(Swap, ReversesEachUnitInPlace)
{
    uint8_t b[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    Swap2(b, 3);
    Swap4(b + 1, 1);  // unaligned
    EXPECT_EQ(Bytes(b, b + 8), (Bytes{2, 6, 3, 4, 1, 5, 7, 8}));
}

TEST(StreamsOom, CreationReleasesEverythingWhenMemoryRunsOut)
{
    vxtest::TempDir dir;
    vxtest::WriteBytes(dir.File("f"), Pattern(100, 1));
    // Paths are made beforehand: a failing run may unwind past the lambdas' frames.
    const std::string inPath = dir.File("f"), outPath = dir.File("g");
    uint8_t data[16] = {};
    VxReadStrm *r = nullptr;
    VxWriteStrm *w = nullptr;
    const std::function<bool()> creators[] = {
        [&] { return (r = MemStrmReadCreate(data, 16, 1)) != nullptr; },
        [&] { return (r = MemStrmReadCreate(data, 16, 0)) != nullptr; },
        [&] { return (r = FileStrmReadOpen(inPath.c_str(), nullptr)) != nullptr; },
        [&] { return (w = MemStrmWriteCreate()) != nullptr; },
        [&] { return (w = FileStrmWriteOpen(outPath.c_str())) != nullptr; },
        [&] { return (w = FileStrmWriteText(outPath.c_str())) != nullptr; },
    };
    for (const auto &create : creators)
        vxtest::OomSweepAll({[] {}, create, [] {}, [&] { StrmReadDestroy(r), StrmWriteDestroy(w), r = nullptr, w = nullptr; }});
}

// Growth of a memory write stream catches an exhausted heap itself: the failing write reports
// it, the stream keeps its old block and every byte written before, stays failed, and an
// enclosing checkpoint block is not disturbed. Swept over every growth of a write sequence.
int32_t WriteSequence(VxWriteStrm *s, const Bytes &src, int32_t *written, bool inBlock)
{
    if (inBlock && CkptBegin())
        return CkptLatchCode(), -1;
    int32_t code = 0;
    for (int32_t size : {1000, 4000, 20000, 3})
        if (code == 0 && (code = s->writeBytes(s, src.data() + *written, size)) == 0)
            *written += size;
    if (inBlock)
        CkptEnd();
    return code;
}

TEST(StreamsOom, MemoryGrowthFailureKeepsTheDataAndFailsTheStream)
{
    const Bytes src = Pattern(25003, 4);
    for (int run = 0; run < 4; ++run) {
        for (int k = 1; !::testing::Test::HasFailure(); ++k) {
            SCOPED_TRACE(::testing::Message() << "k=" << k << " run " << run);
            vxtest::FaultAllocator heap;
            VxWriteStrm *s = MemStrmWriteCreate();
            heap.FailAt(k, run & 2 ? vxtest::FailMode::FromThen : vxtest::FailMode::Once);
            int32_t written = 0;
            const int32_t result = WriteSequence(s, src, &written, run & 1);
            const bool injected = heap.Failures() > 0;
            heap.Disarm();
            if (injected) {
                EXPECT_EQ(result, VX_ERR_NOMEM) << "-1: the failure unwound the caller's block";
                EXPECT_EQ(Held(s), Bytes(src.begin(), src.begin() + written)) << "nothing written before is lost";
                EXPECT_EQ(Trace({s->error, s->writeBytes(s, src.data(), 1), s->seek(s, 0)}), (Trace{VX_ERR_IO, VX_ERR_IO, VX_ERR_IO}));
            } else {
                EXPECT_EQ(result, 0);
                EXPECT_GT(k, 3) << "three growths were swept";
            }
            StrmWriteDestroy(s);
            EXPECT_EQ(Trace({static_cast<int64_t>(heap.LiveBytes()), heap.BadFrees(), CkptLevel()}), (Trace{0, 0, -1}));
            if (!injected)
                break;
        }
    }
}

}  // namespace
