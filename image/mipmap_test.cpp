#include <vxtools3/image.h>

#include "image/convert.h"
#include "image/image_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>

namespace {

using imagetest::Bytes;
using imagetest::Destroy;

TEST(Mipmap, LevelSizesHalveRoundingUpAndLevelZeroIsACopyOrShared)
{
    imagetest::CheckedHeap heap;
    for (auto [w, h, levels] : {std::tuple{5, 3, 4}, {256, 256, 9}, {1, 1, 1}, {7, 1, 4}, {1, 1000, 11}, {2, 2, 2}}) {
        VxImage *image = imagetest::RandomImage(VX_PIXEL_GREY, w, h, 1);
        VxMipmap *m = MipmapCreate(image, VX_PIXEL_GREY);
        ASSERT_EQ(m->count, levels) << w << "x" << h;
        for (int i = 0; i < levels; ++i)
            EXPECT_EQ(std::pair(m->levels[i]->width, m->levels[i]->height), std::pair(((w - 1) >> i) + 1, ((h - 1) >> i) + 1));
        EXPECT_NE(m->levels[0], image);
        EXPECT_EQ(Bytes(m->levels[0]), Bytes(image)) << "level 0 is a copy";
        MipmapDestroy(m);
        ImageDestroy(image);
    }
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGB, 5, 3, 1);
    VxMipmap *m = MipmapCreateSmall(src, VX_PIXEL_RGBA, 1);
    EXPECT_EQ(m->levels[0], src) << "shared";
    EXPECT_EQ(MipmapDestroy(m), 1);
    EXPECT_EQ(Bytes(src).size(), 45u) << "the shared source is alive";
    ImageDestroy(src);
    EXPECT_TRUE(!MipmapCreate(nullptr, 0) && MipmapDestroy(nullptr) == 0);
}

// A level by the plain rules: the previous level's existing pixels of the 2 x 2 block as RGBA
// floats summed in row order, divided by their count, converted to the level's type.
std::vector<uint8_t> ReferenceLevel(VxImage *prev, const VxImage *level)
{
    const size_t bpp = level->bytesPerPixel;
    std::vector<uint8_t> out(bpp * static_cast<size_t>(level->width) * static_cast<size_t>(level->height));
    for (int32_t y = 0; y < level->height; ++y)
        for (int32_t x = 0; x < level->width; ++x) {
            float mean[4], v[4];
            for (int c = 0; c < 4; ++c) {
                float sum = 0.0f;
                int n = 0;
                for (int32_t d = 0; d < 4; ++d)
                    if (2 * x + d % 2 < prev->width && 2 * y + d / 2 < prev->height) {
                        prev->getPixel(prev, VX_PIXEL_RGBA_FLOAT, 2 * x + d % 2, 2 * y + d / 2, v);
                        sum = n++ == 0 ? v[c] : sum + v[c];
                    }
                mean[c] = n == 4 ? sum * 0.25f : n == 2 ? sum * 0.5f : sum;
            }
            ImageConvertPixel(&out[bpp * static_cast<size_t>(y * level->width + x)], level->type, nullptr, mean,
                              VX_PIXEL_RGBA_FLOAT, nullptr);
        }
    return out;
}

// RGBA bytes take the vectorised halving (the 2048-wide rows meet each channel sum many times,
// 101 x 67 odd edges on several levels); the other types take the float rows.
void ExpectLevelsEqualThePlainMeans()
{
    for (int32_t type : {VX_PIXEL_RGBA, VX_PIXEL_GREY, VX_PIXEL_RGB, VX_PIXEL_RGBA_FLOAT})
        for (const auto &[w, h, seed] : {std::tuple{37, 21, 1}, {3, 3, 2}, {16, 3, 2}, {2048, 2, 3}, {2049, 2, 4}, {101, 67, 6}}) {
            VxImage *src = imagetest::RandomImage(type, w, h, static_cast<uint32_t>(seed));
            VxMipmap *m = MipmapCreateSmall(src, type, 1);
            ASSERT_NE(m, nullptr);
            for (int32_t i = 1; i < m->count; ++i)
                ASSERT_EQ(Bytes(m->levels[i]), ReferenceLevel(m->levels[i - 1], m->levels[i]))
                    << "type " << type << " " << w << "x" << h << " level " << i;
            MipmapDestroy(m);
            ImageDestroy(src);
        }
}

PLAIN_AND_WIDE_TESTS(Mipmap, LevelsEqualThePlainMeans, WideLevelsEqualThePlainMeans,
                     vx::image::WidePathsAvailable(), "the wide RGBA byte halving (AVX2 or AVX-512 VBMI)",
                     ExpectLevelsEqualThePlainMeans())

TEST(Mipmap, IndexPyramidsNeedAPalette)
{
    VxImage *bare = ImageCreate(VX_PIXEL_INDEX, 4, 4), *ramp = ImageIndexCreate(4, 4, 256);
    EXPECT_EQ(MipmapCreate(bare, VX_PIXEL_INDEX), nullptr);
    std::fill_n(ramp->priv->pixels + 8, 8, 255);
    VxMipmap *m = MipmapCreate(ramp, VX_PIXEL_INDEX);
    ASSERT_NE(m, nullptr);
    for (int i = 1; i < m->count; ++i)
        EXPECT_EQ(m->levels[i]->getPalette(m->levels[i], 0, 0, 0, nullptr), 256) << "every level has the palette";
    EXPECT_EQ(Bytes(m->levels[1]), (std::vector<uint8_t>{0, 0, 255, 255}));
    std::vector<uint8_t> palette(768), inverse(65536);
    ramp->getPalette(ramp, 0, 0, 256, palette.data());
    ImageBuildInverseTable(palette.data(), inverse.data());
    EXPECT_EQ(Bytes(m->levels[2])[0], inverse[vx::image::InverseKey(127, 127, 127)]) << "mid grey (0.5 x 255), nearest entry";
    MipmapDestroy(m);
    Destroy(bare, ramp);
}

// Centres at (x + 0.5) / width; the four nearest pixels weighed across, then down, in float;
// edges repeat; the result is converted at the end.
TEST(BiLinearPixel, EqualsThePlainFormula)
{
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGBA_FLOAT, 7, 5, 9);
    const auto *p = reinterpret_cast<const float *>(src->priv->pixels);
    uint8_t byte = 0;
    EXPECT_EQ(ImageBiLinearPixel(src, 1, std::nan(""), 0.25, &byte) + ImageBiLinearPixel(src, 1, 0.5, 0.25, nullptr) +
                  ImageBiLinearPixel(nullptr, 1, 0.5, 0.25, &byte), 0);
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> coord(-0.1, 1.1);
    for (int i = 0; i < 500; ++i) {
        const double u = i < 4 ? (i & 1) : i < 8 ? (2 * i - 5) / 14.0 : coord(rng), v = i < 4 ? (i >> 1) : coord(rng);
        const double px = std::clamp(u * 7 - 0.5, 0.0, 6.0), py = std::clamp(v * 5 - 0.5, 0.0, 4.0);
        const int x0 = static_cast<int>(px), y0 = static_cast<int>(py), x1 = std::min(x0 + 1, 6), y1 = std::min(y0 + 1, 4);
        const auto fx = static_cast<float>(px - x0), fy = static_cast<float>(py - y0);
        float expected[4], got[4];
        for (int c = 0; c < 4; ++c) {
            const float upper = p[4 * (y0 * 7 + x0) + c] * (1.0f - fx) + p[4 * (y0 * 7 + x1) + c] * fx;
            const float lower = p[4 * (y1 * 7 + x0) + c] * (1.0f - fx) + p[4 * (y1 * 7 + x1) + c] * fx;
            expected[c] = upper * (1.0f - fy) + lower * fy;
        }
        ASSERT_EQ(ImageBiLinearPixel(src, VX_PIXEL_RGBA_FLOAT, u, v, got), 1);
        ASSERT_EQ(std::memcmp(got, expected, 16), 0) << u << "," << v;
        uint8_t rgb[3], want[3];
        ASSERT_EQ(ImageBiLinearPixel(src, VX_PIXEL_RGB, u, v, rgb), 1);
        ImageConvertPixel(want, VX_PIXEL_RGB, nullptr, expected, VX_PIXEL_RGBA_FLOAT, nullptr);
        ASSERT_EQ(std::memcmp(rgb, want, 3), 0) << "converted at the end";
    }
    ImageDestroy(src);
}

// An 8 x 8 pyramid whose levels hold distinct values: the answering level shows in the value.
TEST(MipmapFilteredPixel, WrapsCoordinatesAndChoosesLevels)
{
    VxImage *src = ImageCreate(VX_PIXEL_GREY_FLOAT, 8, 8);
    VxMipmap *m = MipmapCreate(src, VX_PIXEL_GREY_FLOAT);
    auto pixels = [m](int i) { return reinterpret_cast<float *>(m->levels[i]->priv->pixels); };
    for (int i = 0; i < m->count; ++i)
        for (int k = 0; k < (64 >> 2 * i); ++k)
            pixels(i)[k] = static_cast<float>(i) / 8.0f + static_cast<float>(k) / 1024.0f;
    auto lookup = [m](double u, double v, double filter, int bilinear = 0) {
        float out = -1;
        EXPECT_EQ(MipmapFilteredPixel(m, VX_PIXEL_GREY_FLOAT, u, v, &out, bilinear, filter), 1);
        return out;
    };
    auto level = [&](int i, double u, double v) {  // square levels of side 8 >> i
        return pixels(i)[static_cast<int>((8 >> i) * v) * (8 >> i) + static_cast<int>((8 >> i) * u)];
    };
    EXPECT_EQ(lookup(0.3, 0.6, 0.0), level(0, 0.3, 0.6)) << "filter size 0 reads level 0";
    EXPECT_EQ(lookup(1.25, 0.5, 0.0), level(0, 0.25, 0.5));
    EXPECT_EQ(lookup(-0.25, -1.5, 0.0), level(0, 0.75, 0.5));
    EXPECT_EQ(lookup(0.3, 0.6, 0.25), level(1, 0.3, 0.6)) << "r = 4: level 1 holds exactly 16 pixels";
    EXPECT_EQ(lookup(0.3, 0.6, 0.5), level(2, 0.3, 0.6));
    EXPECT_EQ(lookup(0.3, 0.6, 100.0), level(3, 0.3, 0.6)) << "clamped to the last level";
    EXPECT_EQ(lookup(0.3, 0.6, 0.01), level(0, 0.3, 0.6)) << "r beyond level 0: level 0";
    // r = 6 lies halfway between levels 0 (side 8) and 1 (side 4), r = 3 between levels 1 and 2.
    EXPECT_EQ(lookup(0.3, 0.6, 1.0 / 6.0), level(0, 0.3, 0.6) * 0.5f + level(1, 0.3, 0.6) * 0.5f);
    EXPECT_EQ(lookup(0.9, 0.1, 1.0 / 3.0), level(1, 0.9, 0.1) * 0.5f + level(2, 0.9, 0.1) * 0.5f);
    float out, direct;
    EXPECT_EQ(MipmapFilteredPixel(m, 4, 0.5, 0.5, nullptr, 0, 0) + MipmapFilteredPixel(nullptr, 4, 0.5, 0.5, &out, 0, 0), 0);
    EXPECT_EQ(MipmapFilteredPixel(m, VX_PIXEL_GREY_FLOAT, INFINITY, 0.5, &out, 0, 0), 0) << "cannot be wrapped";
    ImageBiLinearPixel(m->levels[0], VX_PIXEL_GREY_FLOAT, 0.5, 0.5, &direct);
    EXPECT_EQ(lookup(0.5, 0.5, 0, 1), direct) << "the flag selects bilinear sampling";
    MipmapDestroy(m);
    ImageDestroy(src);
}

TEST(MipmapOom, CreateAndCreateSmall)
{
    using Make = std::function<VxMipmap *(VxImage *)>;
    const std::pair<int32_t, Make> cases[] = {{VX_PIXEL_RGBA, [](VxImage *s) { return MipmapCreate(s, VX_PIXEL_RGB); }},
                                              {VX_PIXEL_RGBA, [](VxImage *s) { return MipmapCreateSmall(s, VX_PIXEL_RGBA, 1); }},
                                              {VX_PIXEL_INDEX, [](VxImage *s) { return MipmapCreate(s, VX_PIXEL_INDEX); }}};
    for (int32_t workers : {1, 2}) {  // on one worker and on two
        imagetest::WorkersScope scope(workers);
        for (const auto &[pixelType, make] : cases) {
            const int32_t type = pixelType;  // a lambda cannot capture a structured binding before clang 16
            imagetest::SweepOperation<VxMipmap>(
                [type] { return type == VX_PIXEL_INDEX ? ImageIndexCreate(3, 2, 16) : imagetest::RandomImage(type, 7, 5, 1); },
                make, [](VxMipmap *m) { MipmapDestroy(m); }, [](VxMipmap *m) { EXPECT_EQ(m->levels[m->count - 1]->width, 1); });
        }
    }
}

}  // namespace
