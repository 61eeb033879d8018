#include <vxtools3/image.h>

#include "image/image_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <tuple>

namespace {

using imagetest::Bytes;
using imagetest::Destroy;
using imagetest::Floats;

// Mode 1 gathers samples: constant images stay exactly constant, integer factors give block
// means, and no more than 1024 samples are gathered across.
TEST(ImageResample, GatheringGivesBlockMeansOfAtMost1024Samples)
{
    VxImage *flat = imagetest::FloatImage(VX_PIXEL_RGBA_FLOAT, 7, 5, std::vector<float>(4 * 35, 0.55f));
    for (auto [W, H] : {std::pair{3, 2}, {14, 10}, {20, 3}, {1, 1}}) {
        VxImage *r = ImageResample(flat, VX_PIXEL_RGBA_FLOAT, W, H, 1);
        EXPECT_EQ(Floats(r), std::vector<float>(4 * W * H, 0.55f)) << W << "x" << H;
        ImageDestroy(r);
    }
    VxImage *src = imagetest::FloatImage(VX_PIXEL_GREY_FLOAT, 4, 4, {0.0f, 0.5f, 0.25f, 0.75f, 1.0f, 0.5f, 0.125f, 0.125f,
                                                                   0.5f, 0.5f, 1.0f, 1.0f, 0.25f, 0.75f, 0.0f, 0.5f});
    VxImage *r = ImageResample(src, VX_PIXEL_GREY_FLOAT, 2, 2, 1);
    EXPECT_EQ(Floats(r), (std::vector<float>{0.5f, 0.3125f, 0.5f, 0.625f}));
    std::vector<float> halves(2048, 0.0f);
    std::fill(halves.begin() + 1024, halves.end(), 1.0f);
    VxImage *wide = imagetest::FloatImage(VX_PIXEL_GREY_FLOAT, 2048, 1, halves), *one = ImageResample(wide, 3, 1, 1, 1);
    EXPECT_EQ(Floats(one)[0], 0.0f) << "no samples beyond 1024";
    Destroy(r, src, flat, wide, one);
}

// The B-spline (mode 4) and Catmull-Rom (mode 5) weights of fraction t, by their formulas.
TEST(ImageResample, CubicWeightsFollowTheirFormulas)
{
    for (int i = 0; i <= 1000; ++i) {
        const double t = i / 1001.0, d = 1 + t, s = 1 - t, e = 2 - t;
        const double bw[3] = {((-1.0 / 6 * d + 1) * d - 2) * d + 4.0 / 3, (0.5 * t - 1) * t * t + 2.0 / 3,
                              (0.5 * s - 1) * s * s + 2.0 / 3};
        const double cw[4] = {((-0.5 * d + 2.5) * d - 4) * d + 2, (1.5 * t - 2.5) * t * t + 1,
                              (1.5 * s - 2.5) * s * s + 1, ((-0.5 * e + 2.5) * e - 4) * e + 2};
        double b[4], c[4];
        vx::image::CubicWeights(4, t, b);
        vx::image::CubicWeights(5, t, c);
        for (int k = 0; k < 4; ++k) {
            ASSERT_NEAR(b[k], k < 3 ? bw[k] : 1 - bw[0] - bw[1] - bw[2], 1e-12) << "t " << t << " tap " << k;
            ASSERT_NEAR(c[k], cw[k], 1e-12) << "t " << t << " tap " << k;
        }
    }
}

// Pixel centres map to (x + 0.5) sx - 0.5: a ramp is reproduced away from the edges.
TEST(ImageResample, InterpolatingModesFollowARampAtPixelCentres)
{
    std::vector<float> ramp(16);
    for (int x = 0; x < 16; ++x)
        ramp[x] = static_cast<float>(x) / 16.0f;
    VxImage *src = imagetest::FloatImage(VX_PIXEL_GREY_FLOAT, 16, 1, ramp);
    for (int32_t mode : {0, 4, 5}) {
        VxImage *r = ImageResample(src, VX_PIXEL_GREY_FLOAT, 40, 1, mode);
        const std::vector<float> v = Floats(r);
        for (int x = 6; x < 34; ++x)
            ASSERT_NEAR(v[x], ((x + 0.5) * (16.0 / 40.0) - 0.5) / 16.0, 2e-6) << "mode " << mode << " x " << x;
        EXPECT_TRUE(mode != 0 || std::fabs(v[0]) < 1e-6) << "the left edge repeats";
        ImageDestroy(r);
    }
    VxImage *half = ImageResample(src, VX_PIXEL_GREY_FLOAT, 8, 1, 0);
    for (int x = 0; x < 8; ++x)
        EXPECT_NEAR(Floats(half)[x], (2 * x + 1) / 16.0, 1e-7) << "point sampling takes the pixel under the centre";
    Destroy(half, src);
}

// A plain separable cubic of the source read as RGBA floats: four rows across, then down, in
// float and tap order, indices clamped.
std::vector<float> ReferenceCubic(VxImage *src, int32_t mode, int32_t W, int32_t H)
{
    auto taps = [mode](int32_t i, double step, int32_t size, int32_t *index, float *w) {
        const double u = (i + 0.5) * step - 0.5;
        double wd[4];
        vx::image::CubicWeights(mode, u - std::floor(u), wd);
        for (int k = 0; k < 4; ++k) {
            index[k] = std::clamp(static_cast<int32_t>(std::floor(u)) - 1 + k, 0, size - 1);
            w[k] = static_cast<float>(wd[k]);
        }
    };
    std::vector<float> in(4 * static_cast<size_t>(src->width) * src->height), out(4 * static_cast<size_t>(W) * H);
    for (int32_t y = 0; y < src->height; ++y)
        src->getLine(src, VX_PIXEL_RGBA_FLOAT, y, in.data() + 4 * static_cast<size_t>(src->width) * y);
    for (int32_t y = 0; y < H; ++y)
        for (int32_t x = 0; x < W; ++x) {
            int32_t ix[4], iy[4];
            float wx[4], wy[4];
            taps(x, static_cast<double>(src->width) / W, src->width, ix, wx);
            taps(y, static_cast<double>(src->height) / H, src->height, iy, wy);
            for (int c = 0; c < 4; ++c) {
                float h[4];
                for (int k = 0; k < 4; ++k) {
                    const float *row = in.data() + 4 * static_cast<size_t>(src->width) * iy[k] + c;
                    h[k] = ((wx[0] * row[4 * ix[0]] + wx[1] * row[4 * ix[1]]) + wx[2] * row[4 * ix[2]]) + wx[3] * row[4 * ix[3]];
                }
                out[4 * (static_cast<size_t>(y) * W + x) + c] = ((wy[0] * h[0] + wy[1] * h[1]) + wy[2] * h[2]) + wy[3] * h[3];
            }
        }
    return out;
}

TEST(ImageResample, CubicModesEqualAPlainSeparableCubic)
{
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGBA_FLOAT, 7, 5, 21), *bytes = ImageDuplicate(src, VX_PIXEL_RGBA, nullptr);
    for (VxImage *s : {src, bytes})  // byte sources are read row by row through the conversion
        for (int32_t mode : {4, 5})
            for (auto [W, H] : {std::pair{11, 3}, {4, 9}, {7, 5}, {1, 1}, {20, 14}}) {
                VxImage *r = ImageResample(s, VX_PIXEL_RGBA_FLOAT, W, H, mode);
                EXPECT_EQ(Floats(r), ReferenceCubic(s, mode, W, H)) << s->type << " mode " << mode << " " << W << "x" << H;
                ImageDestroy(r);
            }
    Destroy(bytes, src);
}

// Modes 2 and 3: footprint rows summed across with the column coverages (0 + first p, + inner p,
// + last p), then down with the row coverages, in double, over the product of the covered widths.
struct Cover {
    int32_t lo, hi;
    double first, last, total;
    double Weight(int32_t i) const { return i == lo ? first : i == hi - 1 ? last : 1.0; }
};

Cover CoverOf(int32_t mode, int32_t i, double step, int32_t size)
{
    const double from = std::max(mode == 2 ? i * step : i * step - 0.5, 0.0);
    const double to = std::min(mode == 2 ? (i + 1) * step : i * step + 0.5, static_cast<double>(size));
    Cover c;
    c.lo = std::min(static_cast<int32_t>(std::floor(from)), size - 1);
    c.hi = std::max(c.lo + 1, std::min(static_cast<int32_t>(std::ceil(to)), size));
    c.first = std::min(c.lo + 1.0, to) - from;
    c.last = c.hi - 1 == c.lo ? c.first : to - (c.hi - 1);
    c.total = to - from;
    if (!(c.total > 0.0))
        c.first = c.last = c.total = 1.0;
    return c;
}

std::vector<float> ReferenceArea(VxImage *src, int32_t mode, int32_t W, int32_t H)
{
    const int32_t w = src->width, h = src->height;
    std::vector<float> in(4 * static_cast<size_t>(w) * h), out(4 * static_cast<size_t>(W) * H);
    for (int32_t y = 0; y < h; ++y)
        src->getLine(src, VX_PIXEL_RGBA_FLOAT, y, in.data() + 4 * static_cast<size_t>(w) * y);
    for (int32_t y = 0; y < H; ++y)
        for (int32_t x = 0; x < W; ++x) {
            const Cover cy = CoverOf(mode, y, static_cast<double>(h) / H, h), cx = CoverOf(mode, x, static_cast<double>(w) / W, w);
            for (int k = 0; k < 4; ++k) {
                double acc = 0.0;
                for (int32_t r = cy.lo; r < cy.hi; ++r) {
                    const float *row = in.data() + 4 * static_cast<size_t>(w) * r + k;
                    double sum = 0.0 + cx.first * row[4 * cx.lo];
                    for (int32_t c = cx.lo + 1; c < cx.hi - 1; ++c)
                        sum += row[4 * c];
                    if (cx.hi - 1 > cx.lo)
                        sum += cx.last * row[4 * (cx.hi - 1)];
                    acc += cy.Weight(r) * sum;
                }
                out[4 * (static_cast<size_t>(W) * y + x) + k] = static_cast<float>(acc / (cx.total * cy.total));
            }
        }
    return out;
}

// Every pixel type, odd sizes, RGBA floats with negative zeros (a 4 x 4 block in one channel);
// halved, quartered, thirded (footprints over four rows), halved one way, shrunk and enlarged.
void ExpectAreaModesEqualThePlainCoverageAverage()
{
    std::mt19937 rng(33);
    uint8_t ramp[768];
    for (int i = 0; i < 768; ++i)
        ramp[i] = static_cast<uint8_t>(i * 7);
    for (auto [typeBits, w, h] : {std::tuple{0x7F, 1, 1}, {0x7F, 37, 23}, {0x7F, 9, 13}, {0x7F, 3, 1}, {0x40, 36, 20}, {0x40, 38, 6}})
        for (int32_t type = 0; type <= 6; ++type) {
            if (!(typeBits & (1 << type)))
                continue;
            VxImage *src = ImageCreate(type, w, h);
            if (type == VX_PIXEL_INDEX)
                src->setPalette(src, 0, 0, 256, ramp);
            imagetest::FillRandom(src, static_cast<uint32_t>(rng()));
            auto *p = reinterpret_cast<float *>(src->priv->pixels);
            for (size_t i = 0; type == VX_PIXEL_RGBA_FLOAT && i < 4 * static_cast<size_t>(w * h); i += 7)
                p[i] = -0.0f;
            for (int k = 0; type == VX_PIXEL_RGBA_FLOAT && w >= 4 && h >= 4 && k < 16; ++k)
                p[4 * (w * (k / 4) + k % 4) + 2] = -0.0f;
            for (auto [W, H] : {std::pair{(w + 1) / 2, (h + 1) / 2}, {std::max(1, w / 4), std::max(1, h / 4)},
                                {(w + 2) / 3, (h + 5) / 6}, {w, h}, {w, (h + 1) / 2}, {(w + 1) / 2, h},
                                {std::max(1, w - 1), h + 3}, {2 * w + 1, 3 * h}})
                for (int32_t mode : {2, 3}) {
                    VxImage *r = ImageResample(src, VX_PIXEL_RGBA_FLOAT, W, H, mode);
                    ASSERT_NE(r, nullptr);
                    const std::vector<float> got = Floats(r), want = ReferenceArea(src, mode, W, H);
                    EXPECT_EQ(std::memcmp(got.data(), want.data(), got.size() * 4), 0)
                        << "type " << type << " " << w << "x" << h << " to " << W << "x" << H << " mode " << mode;
                    VxImage *b = ImageResample(src, VX_PIXEL_RGBA, W, H, mode), *viaFloats = ImageDuplicate(r, VX_PIXEL_RGBA, nullptr);
                    EXPECT_EQ(Bytes(b), Bytes(viaFloats));
                    Destroy(viaFloats, b, r);
                }
            ImageDestroy(src);
        }
}

PLAIN_AND_WIDE_TESTS(ImageResample, AreaModesEqualThePlainCoverageAverage, WideAreaHalvingEqualsThePlainCoverageAverage,
                     vx::image::VbmiPathsAvailable(), "the wide RGBA float halving (AVX-512 VBMI)", ExpectAreaModesEqualThePlainCoverageAverage())

TEST(ImageResample, BadArgumentsAndTheAspectAttribute)
{
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGB, 8, 4, 2), *index = ImageCreate(VX_PIXEL_INDEX, 4, 4);
    for (auto [type, W, H, mode] : {std::array{0, 0, 4, 2}, {0, 4, -1, 2}, {0, 4, 4, 6}, {0, 4, 4, -1}, {8, 4, 4, 2}})
        EXPECT_EQ(ImageResample(src, type, W, H, mode), nullptr) << type << " " << W << "x" << H << " " << mode;
    EXPECT_EQ(ImageResample(nullptr, 0, 4, 4, 2), nullptr);
    EXPECT_EQ(ImageResample(index, 0, 2, 2, 2), nullptr) << "an index image without a palette cannot be read";
    VxImage *r = ImageResample(src, 0, 4, 4, 2);
    float aspect = 0;
    r->getAttribute(r, 0, &aspect);
    EXPECT_FLOAT_EQ(aspect, 0.5f) << "(4 / 4) x (4 / 8)";
    Destroy(r, index, src);
}

// Per direction the shrink or the grow mode; mixed directions grow-resample the source itself.
TEST(ImageResample2, ChoosesTheModePerDirection)
{
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGBA, 9, 6, 5);
    const int32_t cases[][5] = {{9, 3, 2, 5, 2}, {9, 12, 2, 5, 5}, {4, 6, 2, 5, 2},  {20, 6, 2, 5, 5}, {4, 3, 2, 5, 2},
                                {18, 12, 2, 5, 5}, {4, 12, 2, 5, 5}, {20, 3, 1, 4, 4}, {9, 6, 2, 5, -1}};
    for (const auto &c : cases) {
        VxImage *a = ImageResample2(src, 5, c[0], c[1], c[2], c[3]);
        VxImage *b = c[4] < 0 ? ImageDuplicate(src, 5, nullptr) : ImageResample(src, 5, c[0], c[1], c[4]);
        ASSERT_EQ(a ? a->width * 100 + a->height : 0, c[0] * 100 + c[1]);
        EXPECT_EQ(Bytes(a), Bytes(b)) << c[0] << "x" << c[1];
        Destroy(a, b);
    }
    EXPECT_EQ(ImageResample2(src, 5, 20, 3, 9, 4), nullptr) << "a bad shrink mode fails the intermediate";
    ImageDestroy(src);
}

}  // namespace
