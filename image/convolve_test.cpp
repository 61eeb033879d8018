#include <vxtools3/ckpt.h>
#include <vxtools3/image.h>

#include "image/blur_kernel.h"
#include "image/image_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace {

using imagetest::Bytes;
using imagetest::Destroy;
using imagetest::Floats;

// Straightforward convolution: clamped coordinates, matrix row by row, float sums.
std::vector<float> ReferenceConvolve(VxImage *src, const std::vector<float> &m, int cols, int rows, const float *offset)
{
    const int w = src->width, h = src->height;
    const std::vector<float> in = Floats(src);
    std::vector<float> out(in.size());
    for (int i = 0; i < 4 * w * h; ++i) {
        const int x = i / 4 % w, y = i / 4 / w, c = i % 4;
        float sum = 0.0f;
        for (int r = 0; r < rows; ++r)
            for (int k = 0; k < cols; ++k)
                sum += m[r * cols + k] * in[4 * (std::clamp(y - rows / 2 + r, 0, h - 1) * w + std::clamp(x - cols / 2 + k, 0, w - 1)) + c];
        out[i] = std::min(std::max(offset ? sum + offset[c] : sum, 0.0f), 1.0f);
    }
    return out;
}

// General matrices (the row ring) and square 3, 5, 7 ones (rows in place, padded ends, pieces of
// 64 pixels); narrow images with no pixel clear of both edges take the padded-row path.
TEST(ImageConvolve, MatchesAPlainConvolutionWithRepeatedEdges)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> weight(-0.4f, 0.7f);
    const float offset[4] = {0.1f, -0.2f, 0.0f, 0.3f};
    for (int32_t w : {1, 2, 3, 4, 7, 9, 13, 150})
        for (auto [cols, rows] : {std::pair{1, 1}, {4, 2}, {1, 6}, {7, 3}, {3, 3}, {5, 5}, {7, 7}}) {
            VxImage *src = imagetest::RandomImage(VX_PIXEL_RGBA_FLOAT, w, 4 + w % 4, static_cast<uint32_t>(w * 10 + cols));
            std::vector<float> m(static_cast<size_t>(cols * rows));
            std::generate(m.begin(), m.end(), [&] { return weight(rng); });
            for (const float *off : {static_cast<const float *>(nullptr), offset}) {
                VxImage *r = ImageConvolve(src, VX_PIXEL_RGBA_FLOAT, m.data(), cols, rows, off);
                ASSERT_NE(r, nullptr);
                EXPECT_EQ(Floats(r), ReferenceConvolve(src, m, cols, rows, off)) << w << ": " << cols << "x" << rows;
                ImageDestroy(r);
            }
            ImageDestroy(src);
        }
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGBA_FLOAT, 9, 7, 11);
    const float identity[9] = {0, 0, 0, 0, 1, 0, 0, 0, 0};
    VxImage *grey = ImageConvolve(src, VX_PIXEL_GREY, identity, 3, 3, nullptr);
    EXPECT_EQ(grey->type, VX_PIXEL_GREY) << "the result has the requested type";
    EXPECT_EQ(ImageConvolve(src, 6, nullptr, 3, 3, nullptr), nullptr);
    EXPECT_EQ(ImageConvolve(src, 6, identity, 0, 3, nullptr), nullptr);
    EXPECT_EQ(ImageConvolve(src, 17, identity, 3, 3, nullptr), nullptr);
    Destroy(grey, src);
}

TEST(GaussianMatrix, ShapeCentreAndNormalisation)
{
    float m[64];
    fillGaussianMatrix(0, 0, m, 4, 6);
    for (int i = 0; i < 24; ++i)
        EXPECT_EQ(m[i], i == 3 * 4 + 2 ? 1.0f : 0.0f) << "a single 1 at (columns / 2, rows / 2)";
    fillGaussianMatrix(0, 0, m, 3, 5);
    EXPECT_EQ(std::count(m, m + 15, 0.0f), 15) << "odd sizes have no element at 0, 0";
    fillGaussianMatrix(2.0, 0, m, 4, 4);
    EXPECT_EQ(std::count(m, m + 8, 0.0f) + std::count(m + 12, m + 16, 0.0f), 12) << "only the row y = 0";
    EXPECT_FLOAT_EQ(m[8] / m[10], std::exp(-4.0f / 2.0f));
    fillGaussianMatrix(1.5, 3.0, m, 5, 5);
    EXPECT_NEAR(std::accumulate(m, m + 25, 0.0), 1.0, 1e-6);
    // x = i - 2.5, y = j - 2.5: the peak is shared by the four elements around (2.5, 2.5).
    EXPECT_FLOAT_EQ(m[2 * 5 + 2], m[3 * 5 + 3]);
    EXPECT_NEAR(m[2 * 5 + 2] / m[2 * 5 + 1], std::exp((2.25 - 0.25) / 1.5), 1e-5) << "x = -0.5 against x = -1.5";
    EXPECT_NEAR(m[2 * 5 + 2] / m[1 * 5 + 2], std::exp((2.25 - 0.25) / 3.0), 1e-5) << "y with its own sigma";
}

struct RefKernel {
    int groups, bias;
    std::vector<int> lane;  // lane value of tap i for byte v: lane[i * 256 + v]
};

RefKernel ReferenceKernel(int n, double sigma)
{
    std::vector<double> w(static_cast<size_t>(3 * ((n + 2) / 3)), 0.0);  // the last group padded with 0
    const double q = std::fabs(sigma) * 10.0;
    for (int i = 0; i < n; ++i)
        w[i] = q == 0.0 ? (i == 0 ? 1.0 : 0.0)
                        : std::exp(-static_cast<double>(i * i) / q) - std::exp(-static_cast<double>(n * n) / q);
    // Normalised when the full sum is neither 1 nor 0, and again when it is still off by more than 0.001.
    for (double limit : {0.0, 0.001}) {
        const double sum = w[0] + 2.0 * std::accumulate(w.begin() + 1, w.begin() + n, 0.0);
        if (std::fabs(sum - 1.0) > limit && sum != 0.0)
            for (double &v : w)
                v /= sum;
    }
    RefKernel k{static_cast<int>(w.size()) / 3, 0, std::vector<int>(w.size() * 256)};
    w[0] *= 0.5;  // the centre tap is applied from both sides
    for (size_t i = 0; i < w.size(); ++i) {
        const int b = w[i] < 0 ? static_cast<int>(-w[i] * 1024.0) : 0;
        k.bias += 2 * b;
        for (int v = 0; v < 256; ++v)
            k.lane[i * 256 + v] = (static_cast<int>(v * w[i] * 262144.0 + 32768.0) >> 16) + b + (i % 3 == 1 ? 1 : 0);
    }
    return k;
}

// One line in place: every tap from both sides, edges repeated, minus the bias, quartered, clamped.
void ReferenceLine(const RefKernel &k, uint8_t *p, int n, int stride)
{
    std::vector<uint8_t> in(static_cast<size_t>(n));
    for (int x = 0; x < n; ++x)
        in[x] = p[x * stride];
    for (int x = 0; x < n; ++x) {
        int sum = 0;
        for (int i = 0; i < 3 * k.groups; ++i)
            sum += k.lane[i * 256 + in[std::clamp(x - i, 0, n - 1)]] + k.lane[i * 256 + in[std::clamp(x + i, 0, n - 1)]];
        p[x * stride] = static_cast<uint8_t>(std::clamp((sum - k.bias) >> 2, 0, 255));
    }
}

// Rows across, then columns down; grey always, other channels when the mask selects them.
std::vector<uint8_t> ReferenceBlur(VxImage *src, int n, double sh, double sv, uint32_t mask)
{
    const int w = src->width, h = src->height, bpp = static_cast<int>(src->bytesPerPixel);
    std::vector<uint8_t> out = Bytes(src);
    const RefKernel kh = ReferenceKernel(n, sh), kv = ReferenceKernel(n, sv);
    for (int c = 0; c < bpp; ++c) {
        if (src->type != VX_PIXEL_GREY && !(mask & (1u << c)))
            continue;
        for (int y = 0; y < h; ++y)
            ReferenceLine(kh, &out[static_cast<size_t>((y * w) * bpp + c)], w, bpp);
        for (int x = 0; x < w; ++x)
            ReferenceLine(kv, &out[static_cast<size_t>(x * bpp + c)], h, w * bpp);
    }
    return out;
}

// 70 x 40: several 64-sample blocks and a partial one, a partial column strip, columns past the ring.
void ExpectBlursEqualThePlainRules()
{
    const double sigmas[][2] = {{0.0, 0.0}, {0.5, 1.3}, {2.0, 2.0}, {7.5, -3.0}, {40.0, 0.2}};
    int compared = 0;
    for (int32_t type : {VX_PIXEL_GREY, VX_PIXEL_RGB, VX_PIXEL_RGBA})
        for (auto [w, h] : {std::pair{11, 7}, {1, 1}, {2, 13}, {23, 3}, {70, 40}}) {
            VxImage *src = imagetest::RandomImage(type, w, h, static_cast<uint32_t>(type * 100 + w));
            for (int32_t taps = 1; taps <= 9; ++taps)
                for (const auto &[sh, sv] : sigmas)
                    for (uint32_t mask = 0; mask < (type == VX_PIXEL_GREY ? 2u : 16u); ++mask) {
                        if (w * h > 1000 && mask != 1 && mask != 15)  // the mask only picks channels afterwards
                            continue;
                        VxImage *r = ImageBlur(src, taps, sh, sv, mask);
                        ASSERT_NE(r, nullptr);
                        ASSERT_EQ(Bytes(r), ReferenceBlur(src, taps, sh, sv, mask)) << "type " << type << " size " << w
                            << "x" << h << " taps " << taps << " sigma " << sh << "," << sv << " mask " << mask;
                        ImageDestroy(r);
                        ++compared;
                    }
            ImageDestroy(src);
        }
    EXPECT_GT(compared, 6000);
}

PLAIN_AND_WIDE_TESTS(ImageBlur, FixedPointBlurEqualsThePlainRulesByteForByte, WideBlurEqualsThePlainRulesByteForByte,
                     vx::image::WidePathsAvailable(), "the wide byte-blur passes (AVX2 or AVX-512 VBMI)", ExpectBlursEqualThePlainRules())

// The AVX2 passes compute each lane as lane(0) + (v M + 2^14) >> 15 (one multiply) or
// lane(0) + ((v M >> 16) + 32) >> 6 (two). Over a sweep of kernels whose lanes stay apart, the
// fit must succeed for nearly all, most lanes must take the first form, and each fitted lane
// must give the table's value for every byte.
TEST(ImageBlur, LaneFormsReproduceTheTablesOfUsualKernels)
{
    int apart = 0, fitted = 0, rounds = 0;
    for (int32_t taps = 1; taps <= vx::image::kMaxBlurTaps; ++taps)
        for (double sigma = 0.0; sigma < 60.0; sigma = sigma * 1.15 + 0.05) {
            vx::image::BlurKernel kernel;
            vx::image::BuildBlurKernel(taps, sigma, kernel);
            if (!vx::image::LanesStayApart(kernel))
                continue;
            ++apart;
            vx::image::LaneForms forms;
            if (!vx::image::FitLaneForms(kernel, forms))
                continue;
            ++fitted;
            int32_t constant = -kernel.bias;
            for (int lane = 0; lane < 3 * kernel.groups; ++lane) {
                const auto value = [&](int v) { return vx::image::BlurLaneValue(kernel, lane, v); };
                constant += 2 * value(0);
                const bool rounded = forms.rounded[lane];
                const int64_t m = (rounded ? 0 : int64_t{forms.high[lane]} * 65536) + forms.low[lane];
                if (lane >= forms.reach) {
                    ASSERT_EQ(m, 0) << "taps " << taps << " sigma " << sigma << " lane " << lane;
                }
                rounds += rounded && m > 0;
                for (int v = 0; v < 256; ++v)
                    ASSERT_EQ(value(0) + (rounded ? (v * m + 16384) >> 15 : ((v * m >> 16) + 32) >> 6), value(v))
                        << "taps " << taps << " sigma " << sigma << " lane " << lane << " byte " << v;
            }
            EXPECT_EQ(forms.constant, constant) << "taps " << taps << " sigma " << sigma;
        }
    EXPECT_GT(apart, 300);
    EXPECT_GE(fitted, apart * 95 / 100);
    EXPECT_GT(rounds, 1000);  // most lanes take the one-multiply form
}

TEST(ImageBlur, OtherTypesConvolveWithTheGaussianMatrix)
{
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGB_FLOAT, 8, 6, 3), *bytes = imagetest::RandomImage(VX_PIXEL_RGB, 4, 4, 3);
    for (int32_t taps : {1, 2, 4}) {
        const int m = 2 * taps - 1;
        std::vector<float> matrix(static_cast<size_t>(m * m));
        fillGaussianMatrix(1.5, 0.7, matrix.data(), m, m);
        VxImage *blurred = ImageBlur(src, taps, 1.5, 0.7, 0);
        VxImage *convolved = ImageConvolve(src, VX_PIXEL_RGB_FLOAT, matrix.data(), m, m, nullptr);
        EXPECT_EQ(Bytes(blurred), Bytes(convolved)) << taps;
        Destroy(blurred, convolved);
    }
    EXPECT_TRUE(!ImageBlur(bytes, 10, 1, 1, 7) && !ImageBlur(bytes, 0, 1, 1, 7)) << "the byte path has 1 to 9 taps";
    Destroy(src, bytes);
}

// The separable path creates the result first; when only its work buffer cannot be had the
// result comes back with its pixels unwritten, also inside an outer block.
TEST(ImageConvolveOom, SeparableBlurReturnsAnUnwrittenResultWithoutItsWorkBuffer)
{
    imagetest::CheckedHeap heap;
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGB, 9, 5, 4), *clean = ImageBlur(src, 5, 2.0, 2.0, 7);
    const std::vector<uint8_t> expected = Bytes(clean), unwritten(expected.size(), 0);
    ImageDestroy(clean);
    const size_t sourceBytes = heap.LiveBytes();
    for (bool outer : {false, true})
        for (int k = 1; k <= 5; ++k) {  // the result's record, private block and pixels; work; none
            heap.FailAt(k, vxtest::FailMode::Once);
            VxImage *result = nullptr;
            const bool unwound = outer ? vxtest::UnwoundFrom([&] { result = ImageBlur(src, 5, 2.0, 2.0, 7); })
                                       : (result = ImageBlur(src, 5, 2.0, 2.0, 7), false);
            CkptLatchCode();
            heap.Disarm();
            EXPECT_EQ(unwound, outer && k <= 3) << "k=" << k;
            ASSERT_EQ(result != nullptr, k > 3) << "k=" << k;
            EXPECT_TRUE(!result || Bytes(result) == (k == 4 ? unwritten : expected)) << "k=" << k;
            ImageDestroy(result);
            EXPECT_EQ(heap.LiveBytes(), sourceBytes) << "k=" << k;
        }
    ImageDestroy(src);
}

// On two workers the blur asks for a work area per worker and, failing that, for one, and works
// alone. The thread group's own allocations come after: one that fails fails the blur as any
// other allocation does, leaking nothing.
TEST(ImageConvolveOom, SeparableBlurOnTwoWorkers)
{
    imagetest::CheckedHeap heap;
    imagetest::WorkersScope scope(2);
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGB, 9, 5, 4), *clean = ImageBlur(src, 5, 2.0, 2.0, 7);
    const std::vector<uint8_t> expected = Bytes(clean), unwritten(expected.size(), 0);
    ImageDestroy(clean);
    const size_t sourceBytes = heap.LiveBytes();
    for (bool outer : {false, true}) {
        bool groupFailed = false;
        for (int k = 4;; ++k) {  // the record, private block and pixels come first, as on one worker
            heap.FailAt(k, k == 4 && outer ? vxtest::FailMode::FromThen : vxtest::FailMode::Once);
            VxImage *result = nullptr;
            const bool unwound = outer ? vxtest::UnwoundFrom([&] { result = ImageBlur(src, 5, 2.0, 2.0, 7); })
                                       : (result = ImageBlur(src, 5, 2.0, 2.0, 7), false);
            CkptLatchCode();
            const bool failed = heap.Failures() > 0;
            heap.Disarm();
            if (k == 4) {  // both work areas refused (FromThen), or only the one per worker
                ASSERT_NE(result, nullptr);
                EXPECT_EQ(Bytes(result), outer ? unwritten : expected);
            } else if (failed) {  // a piece of the thread group
                groupFailed = true;
                EXPECT_TRUE(result == nullptr && unwound == outer) << "k=" << k;
            } else {
                ASSERT_NE(result, nullptr);
                EXPECT_EQ(Bytes(result), expected);
            }
            ImageDestroy(result);
            EXPECT_EQ(heap.LiveBytes(), sourceBytes) << "k=" << k;
            if (!failed)
                break;
        }
        EXPECT_TRUE(groupFailed) << "the thread group allocates";
    }
    ImageDestroy(src);
}

}  // namespace
