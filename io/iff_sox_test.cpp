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
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kAiff = VX_ID('A', 'I', 'F', 'F');
constexpr uint32_t kComm = VX_ID('C', 'O', 'M', 'M');
constexpr uint32_t kSsnd = VX_ID('S', 'S', 'N', 'D');

// The 80-bit IEEE extended value AIFF stores its sample rate in.
Bytes Extended(double value)
{
    int exponent;
    const double fraction = std::frexp(value, &exponent);  // in [0.5, 1)
    const auto mantissa = static_cast<uint64_t>(std::ldexp(fraction, 64));
    const int biased = exponent - 1 + 16383;
    Bytes x{static_cast<uint8_t>(biased >> 8), static_cast<uint8_t>(biased)};
    for (int i = 0; i < 8; ++i)
        x.push_back(static_cast<uint8_t>(mantissa >> (56 - 8 * i)));
    return x;
}

// COMM: channels, frames, bits per sample, the rate as an 80-bit value; SSND: big-endian samples.
struct Aiff { int16_t channels = 0, sampleSize = 0; uint32_t frames = 0; Bytes rate = Bytes(10), samples; };

// Reads an AIFF file through the IFF reader: COMM through a property handler, SSND as a stop
// chunk.
bool ReadAiff(const std::string &path, Aiff *out)
{
    VxReadStrm *s = FileStrmReadOpen(path.c_str(), nullptr);
    VxIFFReader *r = IFFRCreate(s);
    IFFRFormType(r, kAiff);
    IFFRSetProp(r, kComm, [](VxIFFReader *rr, void *user, uint32_t) -> void * {
        auto *a = static_cast<Aiff *>(user);
        IFFReadShorts(rr, &a->channels, 1), IFFReadLongs(rr, &a->frames, 1), IFFReadShorts(rr, &a->sampleSize, 1);
        return IFFReadBytes(rr, a->rate.data(), 10), a;
    }, nullptr, out);
    const uint32_t stop[] = {kSsnd, 0};
    bool found = IFFRParse(r, stop) == kSsnd;
    if (found) {
        uint32_t offsetAndBlock[2];
        IFFReadLongs(r, offsetAndBlock, 2);
        out->samples.resize(static_cast<size_t>(IFFRChunkLength(r)));
        IFFReadBytes(r, out->samples.data(), static_cast<int32_t>(out->samples.size()));
        out->samples.erase(out->samples.begin(), out->samples.begin() + offsetAndBlock[0]);  // the data starts past the offset
    }
    found = found && IFFRGetProp(r, kComm) == out && r->error == 0;
    IFFRDestroy(r);
    StrmReadDestroy(s);
    return found;
}

class IFFWithSox : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (std::system("sox --version >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "sox is not installed";
    }
    // Runs sox with `args`: its output without the trailing line end, or "failed".
    static std::string Sox(const std::string &args)
    {
        std::string out;
        FILE *p = popen(("sox " + args).c_str(), "r");
        char buf[256];
        while (size_t n = std::fread(buf, 1, sizeof buf, p))
            out.append(buf, n);
        while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
            out.pop_back();
        return pclose(p) == 0 ? out : "failed";
    }
    vxtest::TempDir dir_;
    const std::string aiff_ = dir_.File("x.aiff"), raw_ = dir_.File("x.raw");
};

TEST_F(IFFWithSox, ReadsTheAiffFileSoxMakes)
{
    ASSERT_EQ(Sox("-n -r 8000 -c 2 -b 16 -e signed-integer " + aiff_ + " synth 0.0125 sine 440 sine 660"), "");
    ASSERT_EQ(Sox(aiff_ + " -t raw -e signed-integer -b 16 -B " + raw_), "");
    Aiff a;
    ASSERT_TRUE(ReadAiff(aiff_, &a));
    EXPECT_EQ(std::tuple(a.channels, a.frames, a.sampleSize), std::tuple(2, 100u, 16));
    EXPECT_EQ(a.rate, Extended(8000.0));
    EXPECT_EQ(a.samples, vxtest::ReadBytes(raw_)) << "the SSND samples are the ones SoX decodes";
}

TEST_F(IFFWithSox, SoxReadsTheAiffFileWeWrite)
{
    const int16_t channels = 2, sampleSize = 16;
    const uint32_t frames = 301, offsetAndBlock[2] = {0, 0};
    std::vector<int16_t> samples(frames * 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<int16_t>(i * 97 - 20000);
    const Bytes rate = Extended(22050.0);
    VxWriteStrm *s = FileStrmWriteOpen(aiff_.c_str());
    VxIFFWriter *w = IFFWCreate(s);
    IFFWChunkOpen(w, VX_ID('F', 'O', 'R', 'M'), kAiff);
    IFFWChunkOpen(w, kComm, 0);
    IFFWriteShorts(w, &channels, 1), IFFWriteLongs(w, &frames, 1), IFFWriteShorts(w, &sampleSize, 1);
    IFFWriteBytes(w, rate.data(), 10), IFFWChunkClose(w);
    IFFWChunkOpen(w, kSsnd, 0), IFFWriteLongs(w, offsetAndBlock, 2);
    IFFWriteShorts(w, samples.data(), static_cast<int32_t>(samples.size())), IFFWChunkClose(w);
    EXPECT_EQ(IFFWChunkClose(w), 0);
    IFFWDestroy(w);
    ASSERT_EQ(StrmWriteDestroy(s), 0);
    EXPECT_EQ(Sox("--i -r " + aiff_) + " " + Sox("--i -c " + aiff_) + " " + Sox("--i -s " + aiff_), "22050 2 301");
    ASSERT_EQ(Sox(aiff_ + " -t raw -e signed-integer -b 16 -L " + raw_), "");
    const Bytes decoded = vxtest::ReadBytes(raw_);
    ASSERT_EQ(decoded.size(), samples.size() * 2);
    EXPECT_EQ(std::memcmp(decoded.data(), samples.data(), decoded.size()), 0);
}

}  // namespace
