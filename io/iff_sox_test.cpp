// Interoperability with SoX, a program nobody here wrote: AIFF files are IFF forms ("FORM"
// of type "AIFF" holding "COMM" and "SSND" chunks). We read what SoX writes and write what
// SoX reads.
#include <vxtools3/iff.h>

#include "testkit/capture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kAiff = VX_ID('A', 'I', 'F', 'F');
constexpr uint32_t kComm = VX_ID('C', 'O', 'M', 'M');
constexpr uint32_t kSsnd = VX_ID('S', 'S', 'N', 'D');

bool HaveSox() { return std::system("sox --version >/dev/null 2>&1") == 0; }

std::string Output(const std::string &command)
{
    std::string out;
    if (FILE *p = popen(command.c_str(), "r")) {
        char buf[256];
        while (size_t n = std::fread(buf, 1, sizeof buf, p))
            out.append(buf, n);
        pclose(p);
    }
    while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
        out.pop_back();
    return out;
}

// The 80-bit IEEE extended value AIFF stores its sample rate in.
double FromExtended(const uint8_t x[10])
{
    int exponent = ((x[0] & 0x7F) << 8) | x[1];
    uint64_t mantissa = 0;
    for (int i = 2; i < 10; ++i)
        mantissa = (mantissa << 8) | x[i];
    double value = std::ldexp(static_cast<double>(mantissa), exponent - 16383 - 63);
    return (x[0] & 0x80) ? -value : value;
}

void ToExtended(double value, uint8_t x[10])
{
    int exponent;
    double fraction = std::frexp(value, &exponent);  // value = fraction * 2^exponent, fraction in [0.5, 1)
    uint64_t mantissa = static_cast<uint64_t>(std::ldexp(fraction, 64));
    int biased = exponent - 1 + 16383;
    x[0] = static_cast<uint8_t>(biased >> 8);
    x[1] = static_cast<uint8_t>(biased);
    for (int i = 0; i < 8; ++i)
        x[2 + i] = static_cast<uint8_t>(mantissa >> (56 - 8 * i));
}

struct Aiff {
    int16_t channels = 0;
    uint32_t frames = 0;
    int16_t sampleSize = 0;
    double rate = 0;
    Bytes samples;  // big-endian sample data
};

// Reads an AIFF file through the IFF reader: COMM through a property handler, SSND as a stop
// chunk.
bool ReadAiff(const std::string &path, Aiff *out)
{
    VxReadStrm *s = FileStrmReadOpen(path.c_str(), nullptr);
    if (!s)
        return false;
    VxIFFReader *r = IFFRCreate(s);
    IFFRFormType(r, kAiff);
    IFFRSetProp(r, kComm, [](VxIFFReader *rr, void *user, uint32_t) -> void * {
        auto *a = static_cast<Aiff *>(user);
        uint8_t rate[10];
        IFFReadShorts(rr, &a->channels, 1);
        IFFReadLongs(rr, &a->frames, 1);
        IFFReadShorts(rr, &a->sampleSize, 1);
        IFFReadBytes(rr, rate, 10);
        a->rate = FromExtended(rate);
        return a;
    }, nullptr, out);
    const uint32_t stop[] = {kSsnd, 0};
    bool found = IFFRParse(r, stop) == kSsnd;
    if (found) {
        uint32_t offsetAndBlock[2];
        IFFReadLongs(r, offsetAndBlock, 2);
        std::vector<uint8_t> skip(offsetAndBlock[0]);
        IFFReadBytes(r, skip.data(), static_cast<int32_t>(skip.size()));
        out->samples.resize(static_cast<size_t>(IFFRChunkLength(r)));
        IFFReadBytes(r, out->samples.data(), static_cast<int32_t>(out->samples.size()));
    }
    found = found && IFFRGetProp(r, kComm) == out && r->error == 0;
    IFFRDestroy(r);
    StrmReadDestroy(s);
    return found;
}

TEST(IFFWithSox, ReadsTheAiffFileSoxMakes)
{
    if (!HaveSox())
        GTEST_SKIP() << "sox is not installed";
    vxtest::TempDir dir;
    std::string aiff = dir.File("tone.aiff"), raw = dir.File("tone.raw");
    ASSERT_EQ(std::system(("sox -n -r 8000 -c 2 -b 16 -e signed-integer " + aiff + " synth 0.0125 sine 440 sine 660").c_str()), 0);
    ASSERT_EQ(std::system(("sox " + aiff + " -t raw -e signed-integer -b 16 -B " + raw).c_str()), 0);
    Aiff a;
    ASSERT_TRUE(ReadAiff(aiff, &a));
    EXPECT_EQ(a.channels, 2);
    EXPECT_EQ(a.frames, 100u);
    EXPECT_EQ(a.sampleSize, 16);
    EXPECT_EQ(a.rate, 8000.0);
    EXPECT_EQ(a.samples, vxtest::ReadBytes(raw)) << "the SSND samples are the ones SoX decodes";
}

TEST(IFFWithSox, SoxReadsTheAiffFileWeWrite)
{
    if (!HaveSox())
        GTEST_SKIP() << "sox is not installed";
    vxtest::TempDir dir;
    std::string aiff = dir.File("ours.aiff"), raw = dir.File("ours.raw");
    const int16_t channels = 2, sampleSize = 16;
    const uint32_t frames = 301;  // an odd frame count of 16-bit mono would need padding
    std::vector<int16_t> samples(frames * 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<int16_t>(i * 97 - 20000);

    VxWriteStrm *s = FileStrmWriteOpen(aiff.c_str());
    ASSERT_NE(s, nullptr);
    VxIFFWriter *w = IFFWCreate(s);
    IFFWChunkOpen(w, VX_ID('F', 'O', 'R', 'M'), kAiff);
    IFFWChunkOpen(w, kComm, 0);
    uint8_t rate[10];
    ToExtended(22050.0, rate);
    IFFWriteShorts(w, &channels, 1);
    IFFWriteLongs(w, &frames, 1);
    IFFWriteShorts(w, &sampleSize, 1);
    IFFWriteBytes(w, rate, 10);
    IFFWChunkClose(w);
    IFFWChunkOpen(w, kSsnd, 0);
    const uint32_t offsetAndBlock[2] = {0, 0};
    IFFWriteLongs(w, offsetAndBlock, 2);
    IFFWriteShorts(w, samples.data(), static_cast<int32_t>(samples.size()));
    IFFWChunkClose(w);
    EXPECT_EQ(IFFWChunkClose(w), 0);
    IFFWDestroy(w);
    ASSERT_EQ(StrmWriteDestroy(s), 0);

    EXPECT_EQ(Output("sox --i -r " + aiff), "22050");
    EXPECT_EQ(Output("sox --i -c " + aiff), "2");
    EXPECT_EQ(Output("sox --i -s " + aiff), "301");
    ASSERT_EQ(std::system(("sox " + aiff + " -t raw -e signed-integer -b 16 -L " + raw).c_str()), 0);
    Bytes decoded = vxtest::ReadBytes(raw);
    ASSERT_EQ(decoded.size(), samples.size() * 2);
    EXPECT_EQ(std::memcmp(decoded.data(), samples.data(), decoded.size()), 0);
}

}  // namespace
