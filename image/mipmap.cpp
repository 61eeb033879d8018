// Bilinear sampling and mipmap pyramids with filtered lookups.
#include "image/convert.h"
#include "image/image_internal.h"
#include "image/wide.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vx::image {
namespace {

void ReadRgba(const VxImage *image, const uint8_t *palette, int32_t x, int32_t y, float *out)
{
    const uint8_t *p = Row(image, y) + static_cast<size_t>(x) * image->bytesPerPixel;
    if (image->type == VX_PIXEL_RGBA_FLOAT)
        std::memcpy(out, p, 16);
    else
        ConvertOne(out, VX_PIXEL_RGBA_FLOAT, nullptr, p, image->type, palette);
}

// Writes an RGBA float pixel as `type` (type 2 through the image's caller inverse table).
inline int WriteAs(VxImage *image, int32_t type, const float *rgba, void *out)
{
    if (type == VX_PIXEL_RGBA_FLOAT) {
        std::memcpy(out, rgba, 16);
        return 1;
    }
    const uint8_t *inverse = nullptr;
    if (type == VX_PIXEL_INDEX) {
        CKPT_BEGIN_OR_RETURN(0);
        inverse = CallerInverse(image);
        CkptEnd();
    }
    return ImageConvertPixel(out, type, inverse, rgba, VX_PIXEL_RGBA_FLOAT, nullptr);
}

int32_t LevelCount(int32_t width, int32_t height)
{
    int32_t size = std::max(width, height), count = 1;
    while (size > 1) {
        size = (size + 1) >> 1;
        ++count;
    }
    return count;
}

void DestroyLevelsArm(uintptr_t mipmap, uintptr_t)
{
    auto *m = reinterpret_cast<VxMipmap *>(mipmap);
    for (int32_t i = m->sharesLevel0 ? 1 : 0; i < m->count && m->levels[i]; ++i)
        ImageDestroy(m->levels[i]);
}

// The inverse table of the source's palette 0, else palette 1, into `table`; false when the
// source has neither.
bool SourceInverse(VxImage *image, uint8_t *table, uint8_t *palette)
{
    for (int32_t which = 0; which < 2; ++which)
        if (image->getPalette(image, which, 0, 0, nullptr) > 0) {
            image->getPalette(image, which, 0, 256, palette);
            ImageBuildInverseTable(palette, table);
            return true;
        }
    return false;
}

// Level pixel (x, y): the mean of the readable pixels among columns 2x, 2x + 1 and rows
// 2y, 2y + 1 of the level before, summed in float in that order ((u0 + u1) + l0) + l1 and
// divided by the count. The count is 1, 2 or 4, so multiplying by its inverse gives the
// quotient exactly. Whole pairs of columns go through one loop, an odd last column after it.
VX_IMAGE_CLONES void HalveRow(const float *upper, const float *lower, int32_t prevWidth, int32_t width,
                              float *__restrict out)
{
    const size_t pairs = 4 * static_cast<size_t>(prevWidth / 2);  // floats of the paired columns
    if (lower) {
        for (size_t i = 0; i < pairs; i += 4)
            for (size_t c = 0; c < 4; ++c)
                out[i + c] = (((upper[2 * i + c] + upper[2 * i + 4 + c]) + lower[2 * i + c]) + lower[2 * i + 4 + c]) * 0.25f;
    } else {
        for (size_t i = 0; i < pairs; i += 4)
            for (size_t c = 0; c < 4; ++c)
                out[i + c] = (upper[2 * i + c] + upper[2 * i + 4 + c]) * 0.5f;
    }
    if (pairs / 4 < static_cast<size_t>(width)) {  // the odd last column: one or two pixels
        const size_t i = pairs, j = 2 * pairs;
        for (size_t c = 0; c < 4; ++c)
            out[i + c] = lower ? (upper[j + c] + lower[j + c]) * 0.5f : upper[j + c];
    }
}

// RGBA byte rows to floats and back by the formulas of the conversions (v / 255, and
// FloatToByteFlat), in loops that the compiler may vectorise without alias checks.
VX_IMAGE_CLONES void RgbaBytesToFloats(float *__restrict out, const uint8_t *__restrict in, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        out[i] = static_cast<float>(in[i]) / 255.0f;
}

VX_IMAGE_CLONES void FloatsToRgbaBytes(uint8_t *__restrict out, const float *__restrict in, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        out[i] = FloatToByteFlat(in[i]);
}

void ReadLevelRow(VxImage *prev, int32_t y, float *out)
{
    if (prev->type == VX_PIXEL_RGBA)
        RgbaBytesToFloats(out, Row(prev, y), 4 * static_cast<size_t>(prev->width));
    else if (!prev->getLine(prev, VX_PIXEL_RGBA_FLOAT, y, out))
        CkptRecover(kLocalFailure);
}

// v / 255 for a byte v, as the double product rounded to float: for every byte this is the
// correctly rounded quotient, the value of the byte conversions, and it vectorises without
// a division.
[[gnu::always_inline]] inline float ByteUnit(uint8_t v) { return static_cast<float>(static_cast<double>(v) * (1.0 / 255.0)); }

// HalveRow on RGBA byte rows, straight from bytes to bytes: each channel takes the steps of
// the byte-to-float conversion, HalveRow and FloatToByteFlat. The wide loops take the bulk of
// a row where the processor has them; this one is their reference and takes the rest.
void HalveRgbaBytes(const uint8_t *upper, const uint8_t *lower, int32_t prevWidth, int32_t width, uint8_t *out)
{
    const size_t pairs = static_cast<size_t>(prevWidth / 2);
    for (size_t x = 0; x < pairs; ++x)
        for (size_t c = 0; c < 4; ++c) {
            const float top = ByteUnit(upper[8 * x + c]) + ByteUnit(upper[8 * x + 4 + c]);
            out[4 * x + c] = lower ? FloatToByteFlat(((top + ByteUnit(lower[8 * x + c])) + ByteUnit(lower[8 * x + 4 + c])) * 0.25f)
                                   : FloatToByteFlat(top * 0.5f);
        }
    if (pairs < static_cast<size_t>(width)) {  // the odd last column: one or two pixels
        const size_t i = 4 * pairs, j = 8 * pairs;
        for (size_t c = 0; c < 4; ++c)
            out[i + c] = FloatToByteFlat(lower ? (ByteUnit(upper[j + c]) + ByteUnit(lower[j + c])) * 0.5f : ByteUnit(upper[j + c]));
    }
}

void BuildLevelRows(VxImage *prev, VxImage *level, const uint8_t *inverse, float *upper, float *lower, float *line,
                    int32_t firstRow, int32_t endRow)
{
    if (prev->type == VX_PIXEL_RGBA && level->type == VX_PIXEL_RGBA) {
        const bool wide = WidePathsAvailable();
        for (int32_t y = firstRow; y < endRow; ++y) {
            const uint8_t *top = Row(prev, 2 * y), *bottom = 2 * y + 1 < prev->height ? Row(prev, 2 * y + 1) : nullptr;
            uint8_t *out = Row(level, y);
            // The wide loop takes whole groups of result pixels (8 or 16), the rest goes on below.
            const size_t done = wide ? HalveRgbaBytesWide(top, bottom, static_cast<size_t>(prev->width / 2), out) : 0;
            const auto skip = static_cast<int32_t>(done);
            HalveRgbaBytes(top + 8 * done, bottom ? bottom + 8 * done : nullptr, prev->width - 2 * skip,
                           level->width - skip, out + 4 * done);
        }
        return;
    }
    for (int32_t y = firstRow; y < endRow; ++y) {
        const bool hasLower = 2 * y + 1 < prev->height;
        ReadLevelRow(prev, 2 * y, upper);
        if (hasLower)
            ReadLevelRow(prev, 2 * y + 1, lower);
        HalveRow(upper, hasLower ? lower : nullptr, prev->width, level->width, line);
        if (level->type == VX_PIXEL_RGBA)
            FloatsToRgbaBytes(Row(level, y), line, 4 * static_cast<size_t>(level->width));
        else if (!ConvertRun(Row(level, y), level->type, inverse, line, VX_PIXEL_RGBA_FLOAT, nullptr,
                             static_cast<size_t>(level->width)))
            CkptRecover(kLocalFailure);
    }
}

// One level built by pieces (runs of rows); each worker has three float rows of its own.
struct LevelJob {
    VxImage *prev, *level;
    const uint8_t *inverse;
    float *rows;       // upper, lower and line of each part
    size_t rowFloats;  // floats of each
    int32_t parts;
};

void LevelPiece(void *context, int32_t worker, int32_t first, int32_t end)
{
    const LevelJob &job = *static_cast<const LevelJob *>(context);
    float *upper = job.rows + 3 * job.rowFloats * static_cast<size_t>(worker);
    BuildLevelRows(job.prev, job.level, job.inverse, upper, upper + job.rowFloats, upper + 2 * job.rowFloats, first,
                   end);
}

// Samples one level at (u, v) in 0..1 as `type`.
int SampleLevel(VxImage *level, int32_t type, double u, double v, void *out, int32_t bilinear)
{
    if (bilinear)
        return ImageBiLinearPixel(level, type, u, v, out);
    const auto x = std::min(static_cast<int32_t>(level->width * u), level->width - 1);
    const auto y = std::min(static_cast<int32_t>(level->height * v), level->height - 1);
    return level->getPixel(level, type, x, y, out);
}

double Wrap(double t)
{
    if (t >= 0.0 && t < 1.0)
        return t;
    t -= std::trunc(t);
    if (t < 0.0)
        t += 1.0;
    return t >= 1.0 ? 0.0 : t;  // -tiny + 1.0 can round to 1.0
}

double Area(const VxImage *level) { return static_cast<double>(level->width) * level->height; }

}  // namespace
}  // namespace vx::image

using namespace vx::image;

extern "C" {

VX_API int ImageBiLinearPixel(VxImage *image, int32_t type, double u, double v, void *out)
{
    if (!image || !out || static_cast<uint32_t>(type) > VX_PIXEL_RGBA_FLOAT || std::isnan(u) || std::isnan(v))
        return 0;
    const int32_t w = image->width, h = image->height;
    const double px = std::clamp(u * w - 0.5, 0.0, w - 1.0), py = std::clamp(v * h - 0.5, 0.0, h - 1.0);
    const auto x0 = static_cast<int32_t>(px), y0 = static_cast<int32_t>(py);
    const int32_t x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
    const auto fx = static_cast<float>(px - x0), fy = static_cast<float>(py - y0);
    if (image->type == VX_PIXEL_RGBA_FLOAT) {
        // The four pixels as vectors of their channels: each lane takes the steps below.
        using Float4 = float __attribute__((vector_size(16)));
        const auto *top = reinterpret_cast<const float *>(Row(image, y0));
        const auto *bottom = reinterpret_cast<const float *>(Row(image, y1));
        Float4 p00, p10, p01, p11;
        std::memcpy(&p00, top + 4 * x0, 16);
        std::memcpy(&p10, top + 4 * x1, 16);
        std::memcpy(&p01, bottom + 4 * x0, 16);
        std::memcpy(&p11, bottom + 4 * x1, 16);
        const float gx = 1.0f - fx, gy = 1.0f - fy;
        const Float4 upper = p00 * gx + p10 * fx, lower = p01 * gx + p11 * fx;
        const Float4 r = upper * gy + lower * fy;
        float result[4];
        std::memcpy(result, &r, 16);
        return WriteAs(image, type, result, out);
    }
    const uint8_t *palette = image->type == VX_PIXEL_INDEX ? StoredPalette(image) : nullptr;
    if (image->type == VX_PIXEL_INDEX && !palette)
        return 0;
    float p00[4], p10[4], p01[4], p11[4], result[4];
    ReadRgba(image, palette, x0, y0, p00);
    ReadRgba(image, palette, x1, y0, p10);
    ReadRgba(image, palette, x0, y1, p01);
    ReadRgba(image, palette, x1, y1, p11);
    for (int c = 0; c < 4; ++c) {
        const float upper = p00[c] * (1.0f - fx) + p10[c] * fx;
        const float lower = p01[c] * (1.0f - fx) + p11[c] * fx;
        result[c] = upper * (1.0f - fy) + lower * fy;
    }
    return WriteAs(image, type, result, out);
}

VX_API VxMipmap *MipmapCreate(VxImage *image, int32_t type) { return MipmapCreateSmall(image, type, 0); }

VX_API VxMipmap *MipmapCreateSmall(VxImage *image, int32_t type, int32_t sharesLevel0)
{
    if (!image || !ImageBytesPerPixel(type))
        return nullptr;
    Scratch scratch;
    VX_IMAGE_BEGIN(nullptr);
    ArmScratch(scratch);
    const int32_t count = LevelCount(image->width, image->height);
    auto **levels = static_cast<VxImage **>(AllocArmed(sizeof(VxImage *) * static_cast<size_t>(count)));
    auto *mipmap = static_cast<VxMipmap *>(AllocArmed(sizeof(VxMipmap)));
    mipmap->count = count;
    mipmap->sharesLevel0 = sharesLevel0 ? 1 : 0;
    mipmap->levels = levels;
    CkptArm(DestroyLevelsArm, reinterpret_cast<uintptr_t>(mipmap), 0);
    const uint8_t *inverse = nullptr;
    if (type == VX_PIXEL_INDEX) {
        auto *table = scratch.Take<uint8_t>(kInverseBytes);
        if (!SourceInverse(image, table, scratch.Take<uint8_t>(kPaletteBytes)))
            CkptRecover(kLocalFailure);
        inverse = table;
    }
    levels[0] = sharesLevel0 ? image : ImageDuplicate(image, type, nullptr);
    if (!levels[0])
        CkptRecover(kLocalFailure);
    // Level 1 is the largest to build: its split decides how many parts have rows.
    const int32_t firstHeight = std::max(1, (image->height + 1) >> 1);
    const int32_t parts = PartsFor(firstHeight, static_cast<int64_t>(image->width) * image->height);
    const size_t rowFloats = 4 * static_cast<size_t>(image->width);
    float *rows = scratch.Take<float>(sizeof(float) * 3 * rowFloats * static_cast<size_t>(parts));
    for (int32_t i = 1; i < count; ++i) {
        VxImage *prev = levels[i - 1];
        if (prev->width < 2 && prev->height < 2)
            break;
        levels[i] = ImageCreate(type, std::max(1, (prev->width + 1) >> 1), std::max(1, (prev->height + 1) >> 1));
        CopyPalettes(levels[i], image);
        LevelJob job{prev, levels[i], inverse, rows, rowFloats, 0};
        job.parts = std::min(parts, PartsFor(levels[i]->height, static_cast<int64_t>(prev->width) * prev->height));
        RunPieces(job.parts, levels[i]->height, LevelPiece, &job);
    }
    CkptEnd();
    scratch.Release();
    return mipmap;
}

VX_API int MipmapDestroy(VxMipmap *mipmap)
{
    if (!mipmap)
        return 0;
    DestroyLevelsArm(reinterpret_cast<uintptr_t>(mipmap), 0);
    if (mipmap->sharesLevel0)
        mipmap->levels[0] = nullptr;
    FreeHeap(mipmap->levels, sizeof(VxImage *) * static_cast<size_t>(mipmap->count));
    FreeHeap(mipmap, sizeof *mipmap);
    return 1;
}

VX_API int MipmapFilteredPixel(VxMipmap *mipmap, int32_t type, double u, double v, void *out, int32_t bilinear,
                               double filterSize)
{
    if (!out || !mipmap || mipmap->count < 1 || !mipmap->levels[0] || !std::isfinite(u) || !std::isfinite(v))
        return 0;
    u = Wrap(u);
    v = Wrap(v);
    VxImage **levels = mipmap->levels;
    if (!(filterSize > 0.0))
        return SampleLevel(levels[0], type, u, v, out, bilinear);
    const double r = 1.0 / filterSize;
    int32_t last = 0;  // the last level present
    while (last + 1 < mipmap->count && levels[last + 1])
        ++last;
    int32_t chosen = last;
    for (int32_t i = 0; i <= last; ++i) {
        const double area = Area(levels[i]);
        if (area <= r * r) {
            if (area == r * r)
                return SampleLevel(levels[i], type, u, v, out, bilinear);
            chosen = i - 1;
            break;
        }
    }
    if (chosen < 0 || chosen == last)
        return SampleLevel(levels[std::max(chosen, 0)], type, u, v, out, bilinear);
    const double a = std::sqrt(Area(levels[chosen])), b = std::sqrt(Area(levels[chosen + 1]));
    const double f = (a - r) / (a - b);
    if (f == 0.0)
        return SampleLevel(levels[chosen], type, u, v, out, bilinear);
    float near[4], far[4], blend[4];
    if (!SampleLevel(levels[chosen], VX_PIXEL_RGBA_FLOAT, u, v, near, bilinear) ||
        !SampleLevel(levels[chosen + 1], VX_PIXEL_RGBA_FLOAT, u, v, far, bilinear))
        return 0;
    const auto ff = static_cast<float>(f);
    for (int c = 0; c < 4; ++c)
        blend[c] = near[c] * (1.0f - ff) + far[c] * ff;
    if (type == VX_PIXEL_RGBA_FLOAT) {
        std::memcpy(out, blend, 16);
        return 1;
    }
    return ImageConvertPixel(out, type, nullptr, blend, VX_PIXEL_RGBA_FLOAT, nullptr);
}

}  // extern "C"
