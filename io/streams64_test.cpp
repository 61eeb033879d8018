// File read streams over files of 2 GiB and more: sizes, skips and reads past the 32-bit
// offsets, and the monitor's 32-bit counts. The files are sparse: only a few blocks are real.
#include <vxtools3/streams.h>
#include "testkit/capture.h"
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>
#include <cstdint>
#include <string>
#include <vector>

namespace {

constexpr int64_t kGiB = int64_t{1} << 30;

// A sparse file of `size` bytes holding `marks` at the given offsets; false when the file
// system cannot hold it.
bool MakeSparse(const std::string &path, int64_t size, const std::vector<std::pair<int64_t, uint32_t>> &marks)
{
    const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    bool ok = fd >= 0 && ftruncate(fd, size) == 0;
    for (const auto &[offset, value] : marks) {
        const uint8_t bytes[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                                  static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
        ok = ok && pwrite(fd, bytes, 4, offset) == 4;
    }
    return (fd < 0 || close(fd) == 0) && ok;
}

struct Steps {
    int32_t total = 0;
    int64_t stepped = 0;
    int count = 0;
    int32_t largest = 0;
};

TEST(LargeFileReadStream, SkipsAndReadsBeyondTwoGibibytesAndStepsTheMonitorInPieces)
{
    vxtest::TempDir dir;
    const std::string path = dir.File("big");
    const int64_t size = 5 * kGiB + 6;
    if (!MakeSparse(path, size, {{0, 0x11223344}, {INT32_MAX - 1, 0xA1B2C3D4}, {size - 4, 0xCAFEF00D}}))
        GTEST_SKIP() << "the temporary directory cannot hold a sparse file of 5 GiB";
    Steps steps;
    VxStrmMonitor monitor{};
    monitor.context = &steps;
    monitor.start = [](void *c, int32_t total) { static_cast<Steps *>(c)->total = total; };
    monitor.step = [](void *c, int32_t bytes) {
        auto *s = static_cast<Steps *>(c);
        s->stepped += bytes;
        s->largest = std::max(s->largest, bytes);
        ++s->count;
        return 0;
    };
    VxReadStrm *s = FileStrmReadOpen(path.c_str(), &monitor);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->remaining, size);
    EXPECT_EQ(steps.total, INT32_MAX) << "the monitor's count holds at most 2^31 - 1";
    uint32_t value = 0;
    ASSERT_EQ(s->readLongs(s, &value, 1), 1);
    EXPECT_EQ(value, 0x11223344u);
    // Across the 2^31 boundary: the mark straddles it.
    ASSERT_EQ(s->skip(s, INT32_MAX - 1 - 4), 0);
    ASSERT_EQ(s->readLongs(s, &value, 1), 1);
    EXPECT_EQ(value, 0xA1B2C3D4u);
    // One skip longer than 2^31 - 1 bytes, to 4 bytes before the end.
    const int64_t longSkip = size - 4 - (int64_t{INT32_MAX} + 3);
    ASSERT_GT(longSkip, INT32_MAX);
    const int before = steps.count;
    ASSERT_EQ(s->skip(s, longSkip), 0);
    EXPECT_EQ(steps.count - before, 2) << "a skip beyond 2^31 - 1 bytes is stepped in two pieces";
    EXPECT_EQ(s->remaining, 4);
    ASSERT_EQ(s->readLongs(s, &value, 1), 1);
    EXPECT_EQ(value, 0xCAFEF00Du);
    EXPECT_EQ(steps.stepped, size);
    EXPECT_EQ(steps.largest, INT32_MAX);
    uint8_t byte = 0;
    EXPECT_EQ(s->peekByte(s, &byte), 1) << "at the end";
    StrmReadDestroy(s);
}

TEST(LargeFileReadStream, ASkipPastTheEndOfALargeFileFailsAndStaysFailed)
{
    vxtest::TempDir dir;
    const std::string path = dir.File("big");
    if (!MakeSparse(path, 2 * kGiB + 1, {}))
        GTEST_SKIP() << "the temporary directory cannot hold a sparse file of 2 GiB";
    VxReadStrm *s = FileStrmReadOpen(path.c_str(), nullptr);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->skip(s, 2 * kGiB + 2), -VX_ERR_IO);
    EXPECT_EQ(s->error, VX_ERR_IO);
    EXPECT_EQ(s->remaining, 2 * kGiB + 1) << "a refused skip moves nothing";
    uint8_t byte;
    EXPECT_EQ(s->readBytes(s, &byte, 1), -VX_ERR_IO);
    StrmReadDestroy(s);
}

TEST(MemoryReadStream, ASkipLongerThanTheDataIsRefusedWithoutFailingTheStream)
{
    const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    VxReadStrm *s = MemStrmReadCreate(data, 8, 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->skip(s, int64_t{1} << 32), -VX_ERR_IO) << "not wrapped to a short skip";
    EXPECT_EQ(s->error, 0);
    EXPECT_EQ(s->skip(s, 7), 0);
    uint8_t byte = 0;
    EXPECT_EQ(s->readBytes(s, &byte, 1), 1);
    EXPECT_EQ(byte, 8);
    StrmReadDestroy(s);
}

}  // namespace
