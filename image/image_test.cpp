#include <vxtools3/ckpt.h>
#include <vxtools3/image.h>

#include "image/convert.h"
#include "image/image_test.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <numeric>
#include <random>

namespace {

using imagetest::Bytes;
using imagetest::Destroy;

using Row = std::vector<uint8_t>;

TEST(Image, CreateSizesTypesAttributesAndTheUnknownType)
{
    imagetest::CheckedHeap heap;
    const uint32_t sizes[7] = {3, 1, 1, 4, 12, 4, 16};
    for (int32_t type = 0; type < 7; ++type) {
        VxImage *image = ImageCreate(type, 5, 3);
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(image->bytesPerPixel, sizes[type]);
        EXPECT_EQ(Bytes(image), std::vector<uint8_t>(15 * sizes[type], 0)) << "zero-filled";
        ImageDestroy(image);
    }
    VxImage *image = ImageCreate(VX_PIXEL_RGBA, 1, 1);
    const uint32_t one = std::bit_cast<uint32_t>(1.0f), defaults[10] = {one, one, one, one, one, one, 0, 2540, 0, 1};
    uint32_t word = 0, value = 77;
    for (int32_t code = 0; code < 10; ++code)
        EXPECT_EQ(image->getAttribute(image, code, &word) == 1 ? word : 99, defaults[code]) << code;
    EXPECT_EQ(image->getAttribute(image, 10, &value) + image->getAttribute(image, -1, &value), 0) << "codes compare unsigned";
    EXPECT_EQ(image->setAttribute(image, 9, nullptr), 0);
    EXPECT_EQ(image->setAttribute(image, 9, &value), 1);
    EXPECT_EQ(image->getAttribute(image, 9, &word) == 1 ? word : 0, 77u);
    ImageDestroy(image);
    ImageDestroy(nullptr);
    for (auto [type, w] : {std::pair{7, 4}, {0, 0}}) {
        EXPECT_EQ(ImageCreate(type, w, 4), nullptr);
        EXPECT_EQ(CkptLatchCode(), 995);
    }
    EXPECT_TRUE(vxtest::UnwoundFrom([] { ImageCreate(-1, 4, 4); })) << "an unknown type unwinds to the open block";
    EXPECT_EQ(CkptLatchCode(), 995);
    VxImage *colour = ImageColorCreate(2, 2), *grey = ImageGreyCreate(2, 2);
    EXPECT_EQ(colour->type * 10 + grey->type, VX_PIXEL_RGB * 10 + VX_PIXEL_GREY);
    Destroy(colour, grey);
}

TEST(Image, PixelAndLineAccessRefusesOutsidePoints)
{
    VxImage *image = ImageCreate(VX_PIXEL_RGB, 4, 3);
    uint8_t out[3] = {9, 9, 9}, in[3] = {1, 2, 3};
    EXPECT_EQ(image->getPixel(image, 0, 4, 0, out) + image->getPixel(image, 0, 0, -1, out), 0);
    EXPECT_EQ(image->getPixel(image, 0, 0, 0, nullptr) + image->getPixel(nullptr, 0, 0, 0, out), 0);
    EXPECT_EQ(Row(out, out + 3), Row(3, 9)) << "nothing written";
    EXPECT_EQ(image->setPixel(image, 0, -1, 0, in) + image->setPixel(image, 0, 0, 3, in), 0);
    EXPECT_EQ(Bytes(image), std::vector<uint8_t>(36, 0));
    EXPECT_EQ(image->setPixel(image, 0, 3, 2, in), 1);
    EXPECT_EQ(Bytes(image)[33], 1) << "row y starts at y width bpp";
    float f[4];
    EXPECT_EQ(image->getPixel(image, VX_PIXEL_RGBA_FLOAT, 3, 2, f), 1);
    EXPECT_EQ(std::make_pair(f[2], f[3]), std::make_pair(3.0f / 255.0f, 1.0f));
    std::vector<uint8_t> line(12, 0);
    std::vector<float> floats(16, 0.5f);
    EXPECT_EQ(image->getLine(image, 0, 3, line.data()), 0);
    EXPECT_EQ(image->getLine(image, 0, 2, line.data()) == 1 ? line[9] : -1, 1);
    EXPECT_EQ(image->setLine(image, VX_PIXEL_RGBA_FLOAT, 0, floats.data()), 1);
    EXPECT_EQ(Bytes(image)[0], 127) << "0.5 x 255 truncated";
    ImageDestroy(image);
}

uint8_t Convert1(const void *in, int32_t inType, int32_t outType, const uint8_t *inverse = nullptr,
                 const uint8_t *palette = nullptr)
{
    uint8_t out[16] = {};
    EXPECT_EQ(ImageConvertPixel(out, outType, inverse, in, inType, palette), 1);
    return out[0];
}

TEST(ImageConvert, FormulasAreExact)
{
    std::mt19937 rng(3);
    for (int i = 0; i < 200000; ++i) {
        const auto bits = static_cast<uint32_t>(rng());
        const uint8_t rgb[3] = {static_cast<uint8_t>(bits), static_cast<uint8_t>(bits >> 8), static_cast<uint8_t>(bits >> 16)};
        ASSERT_EQ(Convert1(rgb, 0, 1), (rgb[0] * 19595u + rgb[1] * 38470u + rgb[2] * 7471u) >> 16);
        float grey, f[4];
        ASSERT_EQ(ImageConvertPixel(&grey, 3, nullptr, rgb, 0, nullptr), 1);
        ASSERT_EQ(grey, rgb[0] * 0.001172549f + rgb[1] * 0.002301961f + rgb[2] * 0.000447059f);
        ASSERT_EQ(ImageConvertPixel(f, 6, nullptr, rgb, 0, nullptr), 1);
        ASSERT_EQ(std::make_pair(f[1], f[3]), std::make_pair(static_cast<float>(rgb[1]) / 255.0f, 1.0f));
        ASSERT_EQ(Convert1(f, 4, 1), static_cast<uint8_t>((0.299f * f[0] + 0.587f * f[1] + 0.114f * f[2]) * 255.0f));
        ASSERT_EQ(Convert1(f, 6, 0), static_cast<uint8_t>(f[0] * 255.0f)) << "back to bytes, truncated";
        for (int32_t to : {0, 5}) {
            uint8_t out[4] = {0, 0, 0, static_cast<uint8_t>(to == 0 ? 255 : 0)};
            ASSERT_EQ(ImageConvertPixel(out, to, nullptr, rgb, 1, nullptr), 1);
            ASSERT_EQ(Row(out, out + 4), (Row{rgb[0], rgb[0], rgb[0], 255})) << "grey to colour " << to;
        }
    }
    // Float to byte: clamp to 0..1, times 255, truncated toward zero.
    const float samples[] = {-0.5f, 0.0f, 0.5f, 0.999f, 1.0f, 1.5f, std::nanf("")};
    const uint8_t expected[] = {0, 0, 127, 254, 255, 255, 0};
    for (size_t i = 0; i < std::size(samples); ++i) {
        const float rgba[4] = {samples[i], samples[i], samples[i], samples[i]};
        uint8_t out[4];
        ASSERT_EQ(ImageConvertPixel(out, 5, nullptr, rgba, 6, nullptr), 1);
        ASSERT_EQ(Row(out, out + 4), Row(4, expected[i]));
        ASSERT_EQ(Convert1(&samples[i], 3, 1), expected[i]) << samples[i];
    }
    const float white[3] = {1.0f, 1.0f, 1.0f};
    uint8_t out[16];
    ASSERT_EQ(ImageConvertPixel(out, 5, nullptr, white, 4, nullptr), 1);
    EXPECT_EQ(out[3], 255) << "RGB floats to RGBA bytes: opaque";
    EXPECT_EQ(ImageConvertPixel(out, 7, nullptr, white, 4, nullptr) + ImageConvertPixel(out, 0, nullptr, white, -1, nullptr), 0);
    EXPECT_EQ(ImageConvertPixel(out, 2, nullptr, white, 4, nullptr) + ImageConvertPixel(out, 0, nullptr, out, 2, nullptr), 0)
        << "an index needs the inverse table, and the palette";
}

TEST(ImageConvert, InverseTableHoldsNearestEntryOfEveryKey)
{
    const std::vector<uint8_t> palette = imagetest::CubePalette();
    std::vector<uint8_t> table(65536);
    ImageBuildInverseTable(palette.data(), table.data());
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(Convert1(&palette[3 * i], 0, 2, table.data()), i) << "an exact palette colour finds its first index";
    auto distance = [&](int key, int entry) {  // the key's 5-6-5 channels widened to 8 bits
        const int r = palette[3 * entry] - (((key >> 11) << 3) | (key >> 13)),
                  g = palette[3 * entry + 1] - ((((key >> 5) & 63) << 2) | (((key >> 5) & 63) >> 4)),
                  b = palette[3 * entry + 2] - (((key & 31) << 3) | ((key & 31) >> 2));
        return r * r + g * g + b * b;
    };
    for (int key = 0; key < 65536; key += 7)
        for (int entry = 0; entry < 64; ++entry)
            ASSERT_LE(distance(key, table[key]), distance(key, entry)) << "key " << key;
    const uint8_t nearWhite[3] = {250, 253, 249};
    EXPECT_EQ(Convert1(nearWhite, 0, 2, table.data()), 63) << "only the top bits of the 5-6-5 key count";
}

TEST(ImagePalette, ReadWriteRangesTheAgreeFlagAndTheGreyRamp)
{
    imagetest::CheckedHeap heap;
    VxImage *image = ImageCreate(VX_PIXEL_INDEX, 2, 2);
    uint8_t buffer[768];
    EXPECT_EQ(image->getPalette(image, 0, 0, 0, nullptr), 0) << "no palette yet";
    EXPECT_EQ(image->setPalette(image, 0, 250, 10, Row(30, 200).data()), 1);
    EXPECT_EQ(image->getPalette(image, 0, 0, 0, nullptr), 256) << "count 0 asks for the size";
    std::memset(buffer, 1, sizeof buffer);
    EXPECT_EQ(image->getPalette(image, 0, 248, 10, buffer), 256);
    std::vector<uint8_t> expected(27, 200);
    std::fill_n(expected.begin(), 3, 248), std::fill_n(expected.begin() + 3, 3, 249), std::fill_n(expected.end() - 3, 3, 1);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 27), expected)
        << "grey ramp below the written range, only 6 entries written and read";
    const uint8_t last[3] = {7, 8, 9};
    EXPECT_EQ(image->setPalette(image, 0, 255, 1, last), 1) << "entry 255 exists";
    EXPECT_EQ(image->getPalette(image, 0, 255, 5, buffer), 256);
    EXPECT_EQ(Row(buffer, buffer + 4), (Row{7, 8, 9, 249}));
    EXPECT_EQ(image->getPalette(image, 2, 0, 1, buffer) + image->getPalette(image, 0, 256, 1, buffer), 0);
    EXPECT_EQ(image->getPalette(image, 0, -1, 1, buffer) + image->setPalette(image, 0, 0, 0, buffer), 0);
    EXPECT_EQ(image->priv->palettesAgree, 1) << "palette 1 is missing";
    std::vector<uint8_t> colours(30);
    std::iota(colours.begin(), colours.end(), 0);
    VxImage *other = ImageCreate(VX_PIXEL_INDEX, 2, 2);
    // Identical bytes over the same range agree; one byte or the range differing does not.
    const struct {
        int which, first, flip, agree;
    } steps[] = {{0, 10, 0, 1}, {1, 10, 0, 1}, {1, 10, 1, 0}, {1, 10, 0, 1}, {1, 9, 0, 0}};
    for (const auto &s : steps) {
        colours[29] = static_cast<uint8_t>(29 ^ s.flip);
        EXPECT_EQ(other->setPalette(other, s.which, s.first, s.first == 9 ? 1 : 10, colours.data()), 1);
        EXPECT_EQ(other->priv->palettesAgree, s.agree) << s.which << " " << s.first << " " << s.flip;
    }
    Destroy(other, image);
    for (int32_t n : {0, 1, 2, 3, 100, 256}) {
        image = ImageIndexCreate(3, 3, n);
        ASSERT_EQ(image->getPalette(image, 0, 0, 256, buffer), n);
        for (int k = 0; k < 3 * n; ++k)
            ASSERT_EQ(buffer[k], 256 * (k / 3) / n) << "the grey ramp of " << n << " entries at " << k;
        ImageDestroy(image);
    }
}

TEST(ImagePalette, IndicesTranslateWhenThePalettesDisagree)
{
    VxImage *image = ImageIndexCreate(2, 1, 256);  // palette 0: entry k = grey k
    std::vector<uint8_t> reversed(768);
    for (int k = 0; k < 768; ++k)
        reversed[k] = static_cast<uint8_t>(255 - k / 3);
    const uint8_t stored[2] = {16, 200}, callerIndex = 231 /* grey 24 in palette 1 */, colour[3] = {100, 100, 100};
    ASSERT_EQ(image->setLine(image, 2, 0, stored), 1) << "copied while the palettes agree";
    ASSERT_EQ(image->setPalette(image, 1, 0, 256, reversed.data()), 1);
    ASSERT_EQ(image->priv->palettesAgree, 0);
    uint8_t index = 0, rgb[3];
    EXPECT_EQ(image->getPixel(image, 2, 0, 0, &index) == 1 ? index : -1, 239) << "grey 16 in the caller's reversed palette";
    EXPECT_EQ(image->getPixel(image, 0, 1, 0, rgb) == 1 ? rgb[0] : -1, 200) << "RGB reads use the stored palette";
    EXPECT_EQ(image->setPixel(image, 2, 1, 0, &callerIndex) == 1 ? Bytes(image)[1] : -1, 24);
    EXPECT_EQ(image->setPixel(image, 0, 0, 0, colour) == 1 ? Bytes(image)[0] : -1, 100) << "through the inverse table of palette 0";
    VxImage *rgbImage = ImageCreate(VX_PIXEL_RGB, 1, 1);
    EXPECT_EQ(rgbImage->getPixel(rgbImage, 2, 0, 0, &index), 0) << "no palette to index into";
    Destroy(rgbImage, image);
}

// The whole-buffer conversions against the per-pixel path; float sources hold NaNs and values beyond 0..1.
TEST(ImageDuplicate, EveryTypePairConvertsPixelByPixel)
{
    const std::vector<uint8_t> palette = imagetest::CubePalette();
    std::vector<uint8_t> inverse(65536);
    ImageBuildInverseTable(palette.data(), inverse.data());
    const float odd[3] = {-0.5f, 1.5f, std::nanf("")};
    for (int32_t from = 0; from < 7; ++from) {
        VxImage *src = imagetest::RandomImage(from, 16, 16, static_cast<uint32_t>(from));
        src->setPalette(src, 0, 0, 256, palette.data());
        for (size_t i = 0; i < vx::image::BufferBytes(src) && (from == 3 || from == 4 || from == 6); i += 20)
            std::memcpy(src->priv->pixels + i, &odd[i % 3], 4);
        for (int32_t to = 0; to < 7; ++to) {
            VxImage *copy = ImageDuplicate(src, to, nullptr);
            ASSERT_EQ(copy ? copy->type : -1, to);
            std::vector<uint8_t> expected = from == to ? Bytes(src) : std::vector<uint8_t>(256 * copy->bytesPerPixel);
            for (int i = 0; i < 256 && from != to; ++i)
                ASSERT_EQ(ImageConvertPixel(&expected[i * copy->bytesPerPixel], to, inverse.data(),
                                            src->priv->pixels + i * src->bytesPerPixel, from, palette.data()),
                          1);
            EXPECT_EQ(Bytes(copy), expected) << from << " -> " << to;
            EXPECT_EQ(copy->getPalette(copy, 0, 0, 0, nullptr), 256) << "palettes travel with the copy";
            ImageDestroy(copy);
        }
        ImageDestroy(src);
    }
    VxImage *rgb = imagetest::RandomImage(VX_PIXEL_RGB, 6, 2, 9);
    VxImage *copy = ImageDuplicate(rgb, VX_PIXEL_INDEX, palette.data());
    ASSERT_NE(copy, nullptr);
    const std::vector<uint8_t> s = Bytes(rgb), c = Bytes(copy);
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(c[i], inverse[vx::image::InverseKey(s[3 * i], s[3 * i + 1], s[3 * i + 2])]) << "the given palette";
    EXPECT_EQ(copy->priv->palette[0].inverse, nullptr) << "the temporary table was not kept";
    EXPECT_EQ(ImageDuplicate(rgb, 9, nullptr), nullptr);
    Destroy(copy, rgb);
}

TEST(ImageDuplicate, AreaCopiesTheRectangle)
{
    VxImage *src = imagetest::RandomImage(VX_PIXEL_RGBA_FLOAT, 7, 5, 4);
    VxImage *area = ImageDuplicateArea(src, 2, 1, 4, 3), *whole = ImageDuplicateArea(src, 0, 0, 7, 5);
    ASSERT_NE(area, nullptr);
    for (int y = 0; y < 3; ++y)  // 16 bytes a pixel
        ASSERT_EQ(std::memcmp(area->priv->pixels + 64 * y, src->priv->pixels + 16 * (7 * (y + 1) + 2), 64), 0) << y;
    EXPECT_EQ(Bytes(whole), Bytes(src));
    EXPECT_EQ(ImageDuplicateArea(src, 4, 0, 4, 1), nullptr) << "beyond the right edge";
    EXPECT_EQ(ImageDuplicateArea(src, 0, -1, 1, 1), nullptr);
    EXPECT_EQ(ImageDuplicateArea(src, 0, 0, 0, 1), nullptr);
    Destroy(area, whole, src);
}

// Every operation that makes a new image, swept: creation, duplication, resampling in every
// mode, convolution and both blur paths, on one worker and on two.
TEST(ImageOom, EveryOperationThatMakesAnImageAndPaletteWrites)
{
    static const std::vector<uint8_t> palette = imagetest::CubePalette();
    static const float matrix[6] = {0.1f, 0.2f, 0.3f, 0.1f, 0.2f, 0.1f};
    using Make = std::function<VxImage *()>;
    using Op = std::function<VxImage *(VxImage *)>;
    const Make rgb = [] { return imagetest::RandomImage(VX_PIXEL_RGB, 6, 5, 1); };
    const Make rgbaFloat = [] { return imagetest::RandomImage(VX_PIXEL_RGBA_FLOAT, 7, 4, 8); };
    std::vector<std::pair<Make, Op>> cases = {
        {rgb, [](VxImage *) { return ImageCreate(VX_PIXEL_RGBA_FLOAT, 9, 7); }},
        {rgb, [](VxImage *) { return ImageIndexCreate(3, 3, 17); }},
        {[] {
             VxImage *image = imagetest::RandomImage(VX_PIXEL_RGB, 5, 5, 1);
             image->setPalette(image, 1, 0, 64, palette.data());
             return image;
         },
         [](VxImage *src) { return ImageDuplicate(src, VX_PIXEL_INDEX, nullptr); }},
        {rgb, [](VxImage *src) { return ImageDuplicate(src, VX_PIXEL_INDEX, palette.data()); }},
        {[] { return ImageIndexCreate(6, 4, 3); }, [](VxImage *src) { return ImageDuplicateArea(src, 1, 1, 3, 2); }},
        {rgbaFloat, [](VxImage *s) { return ImageResample2(s, VX_PIXEL_RGB, 3, 9, 2, 4); }},
        {rgb, [](VxImage *s) { return ImageConvolve(s, VX_PIXEL_RGB, matrix, 3, 2, nullptr); }},
        {rgbaFloat, [](VxImage *s) { return ImageBlur(s, 3, 1.0, 2.0, 0); }}};
    for (int32_t mode = 0; mode < 6; ++mode)
        cases.emplace_back(rgb, [mode](VxImage *s) { return ImageResample(s, VX_PIXEL_RGBA, 9, 3, mode); });
    for (int32_t workers : {1, 2}) {  // with two, every allocation of the thread group fails once too
        imagetest::WorkersScope scope(workers);
        for (size_t i = 0; i < cases.size(); ++i) {
            SCOPED_TRACE(std::to_string(i) + " with " + std::to_string(workers) + " workers");
            imagetest::SweepImageOperation(cases[i].first, cases[i].second);
        }
    }
    // A palette write, and the inverse table that a colour write into an index image builds.
    VxImage *image = nullptr;
    const uint8_t white[3] = {255, 255, 255};
    for (bool colour : {false, true})
        vxtest::OomSweepAll({[&] {
                                 image = ImageCreate(VX_PIXEL_INDEX, 1, 1);
                                 if (colour)
                                     image->setPalette(image, 0, 0, 64, palette.data());
                             },
                             [&] {
                                 return (colour ? image->setPixel(image, 0, 0, 0, white)
                                                : image->setPalette(image, 0, 0, 256, palette.data())) == 1;
                             },
                             [&] { EXPECT_EQ(colour ? Bytes(image)[0] : image->getPalette(image, 0, 0, 0, nullptr), 0); },
                             [&] {
                                 EXPECT_EQ(Bytes(image)[0] % 63, 0) << "nothing or the nearest entry, 63";
                                 ImageDestroy(image);
                             }});
}

}  // namespace
