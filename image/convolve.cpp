// Convolution with a float matrix, the Gaussian matrix, and the blur: a fixed-point separable
// filter for byte images (three taps per table lookup, no multiplication in the inner loop)
// and the Gaussian matrix convolution for the other types.
#include "image/blur_kernel.h"
#include "image/image_internal.h"
#include "image/wide.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vx::image {
namespace {

// Source rows as RGBA floats padded left and right by repeated edge pixels, kept in a ring
// of `count` slots (slot r % count for source row r): each source row is read once.
struct RowRing {
    VxImage *source;
    float *rows;
    int32_t *tags;
    int32_t count, left, right;
    size_t stride;

    const float *Get(int32_t r)
    {
        const int32_t slot = r % count;
        float *line = rows + stride * slot;
        if (tags[slot] == r)
            return line;
        const int32_t w = source->width;
        if (!source->getLine(source, VX_PIXEL_RGBA_FLOAT, r, line + 4 * left))
            CkptRecover(kLocalFailure);
        for (int32_t i = 0; i < left; ++i)
            std::memcpy(line + 4 * i, line + 4 * left, 16);
        for (int32_t i = 0; i < right; ++i)
            std::memcpy(line + 4 * (left + w + i), line + 4 * (left + w - 1), 16);
        tags[slot] = r;
        return line;
    }
};

[[gnu::always_inline]] inline float Clamp01(float v) { return v < 0.0f ? 0.0f : v > 1.0f ? 1.0f : v; }

// Eight floats side by side, each lane computed as a scalar float is.
using Lanes = float __attribute__((vector_size(32)));
constexpr size_t kBlockVectors = 4, kBlockFloats = 8 * kBlockVectors;

// Adds m times the eight floats at p to `sum` (by reference: a 32-byte vector passed by
// value would change the calling convention between the builds for each processor).
[[gnu::always_inline]] inline void AddProduct(Lanes &sum, float m, const float *p)
{
    Lanes v;
    std::memcpy(&v, p, sizeof v);
    sum += m * v;
}

// Stores the sums clamped to 0..1 (NaN passes, as in Clamp01).
[[gnu::always_inline]] inline void StoreClamped(float *p, const Lanes &sum)
{
    const Lanes zero = {}, one = zero + 1.0f;
    const Lanes v = sum < zero ? zero : sum > one ? one : sum;
    std::memcpy(p, &v, sizeof v);
}

// Adds one matrix row to a block of sums: m[0] times the block at `line`, then m[1] times the
// block 4 floats on, ... in column order.
[[gnu::always_inline]] inline void AddRowToBlock(Lanes (&sums)[kBlockVectors], const float *line, const float *m,
                                                 int32_t columns)
{
    for (int32_t k = 0; k < columns; ++k)
        for (size_t v = 0; v < kBlockVectors; ++v)
            AddProduct(sums[v], m[k], line + 4 * static_cast<size_t>(k) + 8 * v);
}

// Adds one matrix row to the running sums: acc[i] += m[0] p[i], then m[1] p[i + 4], ... in
// column order, so every sum keeps the order of the plain loop. Blocks of four vectors keep
// their sums in registers across the columns; the rest goes one float at a time.
VX_IMAGE_CLONES void AddMatrixRow(float *acc, const float *line, const float *m, int32_t columns, size_t n)
{
    size_t i = 0;
    for (; i + kBlockFloats <= n; i += kBlockFloats) {
        Lanes a[kBlockVectors];
        std::memcpy(a, acc + i, sizeof a);
        AddRowToBlock(a, line + i, m, columns);
        std::memcpy(acc + i, a, sizeof a);
    }
    for (; i < n; ++i) {
        float a = acc[i];
        for (int32_t k = 0; k < columns; ++k)
            a += m[k] * line[i + 4 * static_cast<size_t>(k)];
        acc[i] = a;
    }
}

// One result row of a square matrix of fixed size in one pass: each float starts at 0 and
// adds m[r][k] p in matrix-row order, column order within a row (the order of the plain
// loop), then takes the offset and the clamp. Every float is independent, so the row goes in
// blocks of four vectors side by side without changing any sum, and the rest one float at a
// time. (One vector at a time left the processor waiting on a single chain of additions: 25
// of them per 5x5 result, each waiting on the one before.)
template <int32_t kSize, bool kOffset>
[[gnu::always_inline]] inline void ConvolveRowFixed(float *__restrict out, const float *const *lines,
                                                    const float *matrix, const float *offset, size_t n)
{
    // Local copies, so that the stores to `out` cannot be taken to change them.
    float m[kSize * kSize];
    const float *p[kSize];
    float o[4] = {};
    for (int32_t k = 0; k < kSize * kSize; ++k)
        m[k] = matrix[k];
    for (int32_t r = 0; r < kSize; ++r)
        p[r] = lines[r];
    if constexpr (kOffset)
        for (int c = 0; c < 4; ++c)
            o[c] = offset[c];
    size_t i = 0;
    const Lanes o8 = {o[0], o[1], o[2], o[3], o[0], o[1], o[2], o[3]};
    for (; i + kBlockFloats <= n; i += kBlockFloats) {
        Lanes a[kBlockVectors] = {};
        for (int32_t r = 0; r < kSize; ++r)
            AddRowToBlock(a, p[r] + i, m + r * kSize, kSize);
        for (size_t v = 0; v < kBlockVectors; ++v) {
            if constexpr (kOffset)
                a[v] += o8;
            StoreClamped(out + i + 8 * v, a[v]);
        }
    }
    for (; i < n; ++i) {
        float a = 0.0f;
        for (int32_t r = 0; r < kSize; ++r)
            for (int32_t k = 0; k < kSize; ++k)
                a += m[r * kSize + k] * p[r][i + 4 * static_cast<size_t>(k)];
        if constexpr (kOffset)
            a += o[i & 3];
        out[i] = Clamp01(a);
    }
}

// Built for AVX-512F and AVX2 as well as the baseline, picked once at load: the same operations on
// wider vectors (no fused multiply-add, contraction stays off), so the results are equal.
VX_IMAGE_CLONES void ConvolveRowFixed(int32_t size, float *out, const float *const *lines, const float *matrix,
                                      const float *offset, size_t n)
{
    switch (size * 2 + (offset ? 1 : 0)) {
    case 6: ConvolveRowFixed<3, false>(out, lines, matrix, offset, n); break;
    case 7: ConvolveRowFixed<3, true>(out, lines, matrix, offset, n); break;
    case 10: ConvolveRowFixed<5, false>(out, lines, matrix, offset, n); break;
    case 11: ConvolveRowFixed<5, true>(out, lines, matrix, offset, n); break;
    case 14: ConvolveRowFixed<7, false>(out, lines, matrix, offset, n); break;
    default: ConvolveRowFixed<7, true>(out, lines, matrix, offset, n); break;
    }
}

constexpr int32_t kMaxFixedSize = 7;

// Result pixels [x0, x1) of a row of a square fixed-size matrix, from the RGBA float source
// rows `source` (one per matrix row): the columns the pixels reach, edges repeated, are
// copied into a small padded window first. At most kMaxFixedSize / 2 pixels.
void ConvolveEdge(int32_t size, float *out, const float *const *source, int32_t width, int32_t x0, int32_t x1,
                  const float *matrix, const float *offset)
{
    float window[kMaxFixedSize][8 * kMaxFixedSize];
    const float *lines[kMaxFixedSize];
    const int32_t reach = x1 - x0 + size - 1;
    for (int32_t r = 0; r < size; ++r) {
        for (int32_t j = 0; j < reach; ++j)
            std::memcpy(window[r] + 4 * j, source[r] + 4 * std::clamp(x0 - (size >> 1) + j, 0, width - 1), 16);
        lines[r] = window[r];
    }
    ConvolveRowFixed(size, out + 4 * x0, lines, matrix, offset, 4 * static_cast<size_t>(x1 - x0));
}

// Result row y: the matrix rows in order, each of its columns in order, summed in float.
// RGBA float results are written in place, other types through the set-line operation.
// Square 3x3, 5x5 and 7x7 matrices over RGBA float sources read the source rows in place,
// the few pixels at each end of a row through a padded window.
void ConvolveRows(VxImage *result, const float *matrix, int32_t columns, int32_t rows, const float *offset,
                  RowRing &ring, float *acc, int32_t firstRow, int32_t endRow)
{
    VxImage *source = ring.source;
    const int32_t h = source->height, w = source->width;
    const size_t rowFloats = 4 * static_cast<size_t>(w);
    const bool inPlace = result->type == VX_PIXEL_RGBA_FLOAT;
    const bool fixed = columns == rows && (columns == 3 || columns == 5 || columns == 7);
    const int32_t left = columns >> 1, right = columns - 1 - left;
    const bool direct = fixed && source->type == VX_PIXEL_RGBA_FLOAT && w > left + right;
    for (int32_t y = firstRow; y < endRow; ++y) {
        float *out = inPlace ? reinterpret_cast<float *>(Row(result, y)) : acc;
        if (direct) {
            const float *lines[kMaxFixedSize];
            for (int32_t r = 0; r < rows; ++r)
                lines[r] = reinterpret_cast<const float *>(Row(source, std::clamp(y - (rows >> 1) + r, 0, h - 1)));
            // The source row the next result row adds is fetched while this one is computed,
            // a piece ahead of each piece of the row, so that the requests spread out.
            const auto *next = reinterpret_cast<const char *>(Row(source, std::min(y + 1 + (rows >> 1), h - 1)));
            const size_t inner = 4 * static_cast<size_t>(w - left - right);
            constexpr size_t kPiece = 256;  // floats
            for (size_t b = 0; b < std::min(4 * rowFloats, 4 * 2 * kPiece); b += 64)
                __builtin_prefetch(next + b);
            for (size_t from = 0; from < inner; from += kPiece) {
                const size_t end = std::min(4 * rowFloats, 4 * (from + 3 * kPiece));
                for (size_t b = 4 * (from + 2 * kPiece); b < end; b += 64)
                    __builtin_prefetch(next + b);
                const float *piece[kMaxFixedSize];
                for (int32_t r = 0; r < rows; ++r)
                    piece[r] = lines[r] + from;
                ConvolveRowFixed(columns, out + 4 * left + from, piece, matrix, offset, std::min(kPiece, inner - from));
            }
            ConvolveEdge(columns, out, lines, w, 0, left, matrix, offset);
            ConvolveEdge(columns, out, lines, w, w - right, w, matrix, offset);
        } else if (fixed) {
            const float *lines[kMaxFixedSize];
            for (int32_t r = 0; r < rows; ++r)
                lines[r] = ring.Get(std::clamp(y - (rows >> 1) + r, 0, h - 1));
            ConvolveRowFixed(columns, out, lines, matrix, offset, rowFloats);
        } else {
            std::fill(out, out + rowFloats, 0.0f);
            for (int32_t r = 0; r < rows; ++r) {
                const float *line = ring.Get(std::clamp(y - (rows >> 1) + r, 0, h - 1));
                AddMatrixRow(out, line, matrix + r * columns, columns, rowFloats);
            }
            for (size_t i = 0; i < rowFloats; ++i)
                out[i] = Clamp01(offset ? out[i] + offset[i & 3] : out[i]);
        }
        if (!inPlace && !result->setLine(result, VX_PIXEL_RGBA_FLOAT, y, acc))
            CkptRecover(kLocalFailure);
    }
}

// A convolution split by rows: each worker computes runs of result rows with a ring and a row
// of sums of its own.
struct ConvolveJob {
    VxImage *result;
    const float *matrix;
    int32_t columns, rows, parts;
    const float *offset;
    RowRing *rings;
    float *acc;
    size_t accFloats;  // per worker
};

void ConvolvePiece(void *context, int32_t worker, int32_t first, int32_t end)
{
    const ConvolveJob &job = *static_cast<const ConvolveJob *>(context);
    ConvolveRows(job.result, job.matrix, job.columns, job.rows, job.offset, job.rings[worker],
                 job.acc + job.accFloats * static_cast<size_t>(worker), first, end);
}

// ---- the separable fixed-point blur ----

// Scratch of the horizontal pass: the padded row and four words per padded sample.
struct RowWork {
    uint8_t *line;
    uint32_t *g0, *g1, *g2;  // t0, t1, t2 of every padded sample
    uint32_t *sums;          // sums from the left
};

// Looks up the table words of `n` samples: g0[i] = t0[src[i]], and g1, g2 likewise for the
// tap groups in use.
template <int kGroups>
[[gnu::always_inline]] inline void LookUpWords(const uint8_t *__restrict src, ptrdiff_t n, const BlurKernel &kernel,
                                               uint32_t *__restrict g0, uint32_t *__restrict g1,
                                               uint32_t *__restrict g2)
{
    const uint32_t *t0 = kernel.table[0], *t1 = kernel.table[1], *t2 = kernel.table[2];
#pragma GCC unroll 4
    for (ptrdiff_t i = 0; i < n; ++i) {
        g0[i] = t0[src[i]];
        if constexpr (kGroups > 1)
            g1[i] = t1[src[i]];
        if constexpr (kGroups > 2)
            g2[i] = t2[src[i]];
    }
}

// The horizontal pass over one row of `width` pixels of kBpp interleaved channels: every
// channel is a line of its own, and the row is padded with 3g - 1 copies of its first and last
// pixel on either side. A line: sliding sums over the packed words from the left, acc =
// (acc >> 10) + t0[x(s)] + t1[x(s - 3)] + t2[x(s - 6)], starting from 0 at s = 3 (g - 1) of the
// padded line and kept (lane 0) from the line's first sample on; then the same from the right,
// starting at two samples past the line's end; each sample is (left + right - bias) >> 2,
// clamped to 0..255.
//
// Each sample's three table words are looked up once and serve both directions; the words
// of a step (t0 + t1 + t2) are summed on vectors, so that the two serial recurrences do
// only a shift and an add per sample, and the samples are combined on vectors at the end.
template <int kBpp, int kGroups>
[[gnu::always_inline]] inline void FilterRow(const BlurKernel &kernel, const uint8_t *in, uint8_t *__restrict out,
                                             int32_t width, const RowWork &work)
{
    constexpr int32_t kPad = 3 * kGroups - 1;
    constexpr ptrdiff_t kB = kBpp, kTap = 3 * kB;  // bytes per pixel, and between tap groups
    const size_t rowBytes = static_cast<size_t>(width) * kBpp;
    uint8_t *__restrict line = work.line;
    const ptrdiff_t n = PadLine(line, in, rowBytes, kB, kPad);
    uint32_t *__restrict g0 = work.g0, *__restrict g1 = work.g1, *__restrict g2 = work.g2;
    uint32_t *__restrict sums = work.sums;
    LookUpWords<kGroups>(line, n, kernel, g0, g1, g2);
    // From the left: the step words, then the sums in place.
    const ptrdiff_t first = 3 * (kGroups - 1) * kB, end = (kPad + width) * kB;
    for (ptrdiff_t i = first; i < end; ++i) {
        uint32_t v = g0[i];
        if constexpr (kGroups > 1)
            v += g1[i - kTap];
        if constexpr (kGroups > 2)
            v += g2[i - 2 * kTap];
        sums[i] = v;
    }
    uint32_t acc[kBpp] = {};
#pragma GCC unroll 4
    for (ptrdiff_t i = first; i < end; i += kB)
        for (int c = 0; c < kBpp; ++c) {
            acc[c] = sums[i + c] + (acc[c] >> 10);
            sums[i + c] = acc[c];
        }
    // From the right: the step words into g0 (each reads its own g0 first), then the sums.
    const ptrdiff_t last = (kPad + width + 2) * kB, stop = kPad * kB;
    for (ptrdiff_t i = stop; i < last; ++i) {
        uint32_t v = g0[i];
        if constexpr (kGroups > 1)
            v += g1[i + kTap];
        if constexpr (kGroups > 2)
            v += g2[i + 2 * kTap];
        g0[i] = v;
    }
    for (int c = 0; c < kBpp; ++c)
        acc[c] = 0;
#pragma GCC unroll 4
    for (ptrdiff_t i = last - kB; i >= stop; i -= kB)
        for (int c = 0; c < kBpp; ++c) {
            acc[c] = g0[i + c] + (acc[c] >> 10);
            g0[i + c] = acc[c];
        }
    const int32_t bias = kernel.bias;
    const uint32_t *__restrict left = sums + stop, *__restrict right = g0 + stop;
    for (size_t i = 0; i < rowBytes; ++i) {
        const int32_t sum = (static_cast<int32_t>(left[i] & 0x3FF) + static_cast<int32_t>(right[i] & 0x3FF) - bias) >> 2;
        out[i] = static_cast<uint8_t>(std::clamp(sum, 0, 255));
    }
}

template <int kBpp>
[[gnu::always_inline]] inline void FilterRows(const BlurKernel &kernel, const VxImage *image, uint8_t *across,
                                              const RowWork &work, int32_t firstRow, int32_t endRow)
{
    const int32_t w = image->width;
    const size_t rowBytes = static_cast<size_t>(w) * kBpp;
    for (int32_t y = firstRow; y < endRow; ++y) {
        const uint8_t *in = Row(image, y);
        uint8_t *out = across + rowBytes * static_cast<size_t>(y);
        switch (kernel.groups) {
        case 1: FilterRow<kBpp, 1>(kernel, in, out, w, work); break;
        case 2: FilterRow<kBpp, 2>(kernel, in, out, w, work); break;
        default: FilterRow<kBpp, 3>(kernel, in, out, w, work); break;
        }
    }
}

VX_IMAGE_CLONES void FilterRows(const BlurKernel &kernel, const VxImage *image, uint8_t *across, const RowWork &work,
                                int32_t firstRow, int32_t endRow)
{
    switch (image->bytesPerPixel) {
    case 1: FilterRows<1>(kernel, image, across, work, firstRow, endRow); break;
    case 3: FilterRows<3>(kernel, image, across, work, firstRow, endRow); break;
    default: FilterRows<4>(kernel, image, across, work, firstRow, endRow); break;
    }
}

// Columns per vertical strip: the strip's left sums (2 bytes per sample) and upward step
// words (4 bytes per sample) stay in the core's cache between the downward and the upward
// sweep.
constexpr size_t kStripBytes = 64;
constexpr int32_t kWordRing = 8;  // rows of table words kept: a step reads rows up to 6 apart
constexpr int32_t kAhead = 8;     // rows fetched ahead going down

// The vertical pass over a strip of `count` byte columns of `data`, in place: every column
// is a line filtered down the rows by the steps above, all columns of the strip advancing
// together row by row. Going down, each row of the padded column (s, clamped to the image)
// is looked up once, its t0, t1 and t2 words kept in `ring` (kWordRing rows of each); the
// downward step word of row s is t0(s) + t1(s - 3) + t2(s - 6), and the upward one of row u
// = s - 3 (g - 1), t0(u) + t1(u + 3) + t2(u + 6), is complete at the same time and kept in
// `up`. Going up then needs no lookups and no source rows, so it writes the rows in place.
// `acc` holds a sum per column, `left` the downward sums' lane 0 per sample.
template <int kGroups>
[[gnu::always_inline]] inline void FilterStrip(const BlurKernel &kernel, uint8_t *data, size_t rowBytes,
                                               int32_t height, size_t count, uint32_t *__restrict acc,
                                               uint32_t *__restrict ring, uint16_t *__restrict left,
                                               uint32_t *__restrict up)
{
    constexpr int32_t kPad = 3 * kGroups - 1, kReach = 3 * (kGroups - 1);
    auto slot = [&](int which, int32_t s) { return ring + kStripBytes * static_cast<size_t>(which * kWordRing + s % kWordRing); };
    const int32_t lastDown = kPad + height - 1, lastUp = kPad + height + 1, lastLook = lastUp + kReach;
    std::fill(acc, acc + count, 0u);
    for (int32_t s = 0; s <= lastLook; ++s) {
        const uint8_t *__restrict row = data + rowBytes * static_cast<size_t>(std::clamp(s - kPad, 0, height - 1));
        // Rows lie a whole image row apart: fetch the strip's part of a row some steps ahead.
        const uint8_t *ahead = data + rowBytes * static_cast<size_t>(std::clamp(s + kAhead - kPad, 0, height - 1));
        __builtin_prefetch(ahead);
        __builtin_prefetch(ahead + count - 1);
        uint32_t *__restrict g0 = slot(0, s), *__restrict g1 = slot(1, s), *__restrict g2 = slot(2, s);
        LookUpWords<kGroups>(row, static_cast<ptrdiff_t>(count), kernel, g0, g1, g2);
        if (s >= kReach && s <= lastDown) {  // a downward step
            const uint32_t *__restrict d1 = slot(1, s - 3 + kWordRing), *__restrict d2 = slot(2, s - 6 + kWordRing);
            uint16_t *__restrict l = left + count * static_cast<size_t>(std::max(s - kPad, 0));  // warm-up rows overwritten
            for (size_t i = 0; i < count; ++i) {
                uint32_t v = g0[i];
                if constexpr (kGroups > 1)
                    v += d1[i];
                if constexpr (kGroups > 2)
                    v += d2[i];
                const uint32_t a = v + (acc[i] >> 10);
                acc[i] = a;
                l[i] = static_cast<uint16_t>(a & 0x3FF);
            }
        }
        const int32_t u = s - kReach;
        if (u >= kPad) {  // the upward word of row u is complete
            const uint32_t *__restrict u0 = slot(0, u), *__restrict u1 = slot(1, u + 3);
            uint32_t *__restrict w = up + count * static_cast<size_t>(u - kPad);
            for (size_t i = 0; i < count; ++i) {
                uint32_t v = u0[i];
                if constexpr (kGroups > 1)
                    v += u1[i];
                if constexpr (kGroups > 2)
                    v += g2[i];
                w[i] = v;
            }
        }
    }
    std::fill(acc, acc + count, 0u);
    const int32_t bias = kernel.bias;
    for (int32_t s = lastUp; s >= kPad; --s) {
        const uint32_t *__restrict w = up + count * static_cast<size_t>(s - kPad);
        if (s >= kPad + height) {  // the two warm-up rows past the end
            for (size_t i = 0; i < count; ++i)
                acc[i] = w[i] + (acc[i] >> 10);
            continue;
        }
        const uint16_t *__restrict l = left + count * static_cast<size_t>(s - kPad);
        uint8_t *__restrict o = data + rowBytes * static_cast<size_t>(s - kPad);
        for (size_t i = 0; i < count; ++i) {
            const uint32_t a = w[i] + (acc[i] >> 10);
            acc[i] = a;
            const int32_t sum = (static_cast<int32_t>(l[i]) + static_cast<int32_t>(a & 0x3FF) - bias) >> 2;
            o[i] = static_cast<uint8_t>(std::clamp(sum, 0, 255));
        }
    }
}

VX_IMAGE_CLONES void FilterStrip(const BlurKernel &kernel, uint8_t *data, size_t rowBytes, int32_t height,
                                 size_t count, uint32_t *acc, uint32_t *ring, uint16_t *left, uint32_t *up)
{
    switch (kernel.groups) {
    case 1: FilterStrip<1>(kernel, data, rowBytes, height, count, acc, ring, left, up); break;
    case 2: FilterStrip<2>(kernel, data, rowBytes, height, count, acc, ring, left, up); break;
    default: FilterStrip<3>(kernel, data, rowBytes, height, count, acc, ring, left, up); break;
    }
}

// Layout of the separable blur's one work buffer, every piece at an aligned offset. The rows
// are filtered into the result, and the columns filtered there in place.
struct BlurWork {
    size_t stripAcc, stripRing, stripLeft, stripUp, rowWords, line, columns, total;
};

BlurWork BlurWorkLayout(const VxImage *image, int32_t taps)
{
    const size_t w = static_cast<size_t>(image->width), h = static_cast<size_t>(image->height);
    const size_t bpp = image->bytesPerPixel, pad = 3 * static_cast<size_t>((taps + 2) / 3) - 1;
    const size_t padded = (w + 2 * pad) * bpp;  // samples of a padded row
    auto aligned = [](size_t n) { return (n + 63) & ~size_t{63}; };
    BlurWork layout;
    layout.stripAcc = 0;                                                   // sums of a strip
    layout.stripRing = layout.stripAcc + aligned(4 * kStripBytes);         // table words of a strip's last rows
    layout.stripLeft = layout.stripRing + 12 * kWordRing * kStripBytes;    // left sums of a strip
    layout.stripUp = layout.stripLeft + aligned(2 * kStripBytes * h);      // upward step words of a strip
    // Four words per padded row sample, with room for the wide pass's whole vectors.
    const size_t rowSamples = std::max(padded, WideRowWords(image->width, image->bytesPerPixel));
    const size_t rowArrays = std::max(4 * aligned(4 * rowSamples), aligned(FormRowBytes(image->width, image->bytesPerPixel)));
    layout.rowWords = layout.stripUp + 4 * kStripBytes * (h + 2);
    layout.line = layout.rowWords + rowArrays;                             // one padded row
    layout.columns = layout.line + aligned(rowSamples);                    // the wide vertical pass's rows
    layout.total = layout.columns + std::max(WideColumnBytes(), FormColumnBytes());
    return layout;
}

// A separable blur split over workers: the rows pass by runs of rows, then the columns pass by
// runs of column strips, each worker with a work area (one BlurWorkLayout) of its own.
struct BlurJob {
    const VxImage *image;
    VxImage *result;
    BlurKernel kernel;  // of the pass under way
    bool wide;          // the pass runs the VBMI loops
    bool formed;        // the pass runs the AVX2 loops, by `forms`
    LaneForms forms;
    uint8_t *work;
    BlurWork layout;
    int32_t parts;  // workers
};

// Column strips are handed out in runs of this many bytes: a whole number of the strips of
// every columns loop, plain and wide.
constexpr size_t kColumnUnit = 512;

void BlurRowsPiece(void *context, int32_t worker, int32_t first, int32_t end)
{
    const BlurJob &job = *static_cast<const BlurJob *>(context);
    const VxImage *image = job.image;
    const int32_t w = image->width;
    const size_t bpp = image->bytesPerPixel, rowBytes = static_cast<size_t>(w) * bpp;
    uint8_t *work = job.work + job.layout.total * static_cast<size_t>(worker);
    const size_t wordsBytes = (job.layout.line - job.layout.rowWords) / 4;
    RowWork rowWork;
    rowWork.line = work + job.layout.line;
    rowWork.g0 = reinterpret_cast<uint32_t *>(work + job.layout.rowWords);
    rowWork.g1 = reinterpret_cast<uint32_t *>(work + job.layout.rowWords + wordsBytes);
    rowWork.g2 = reinterpret_cast<uint32_t *>(work + job.layout.rowWords + 2 * wordsBytes);
    rowWork.sums = reinterpret_cast<uint32_t *>(work + job.layout.rowWords + 3 * wordsBytes);
    const size_t skip = rowBytes * static_cast<size_t>(first);
    if (job.wide) {
        uint32_t *const words[3] = {rowWork.g0, rowWork.g1, rowWork.g2};
        WideBlurRows(job.kernel, image->priv->pixels + skip, job.result->priv->pixels + skip, w, end - first,
                     static_cast<uint32_t>(bpp), rowWork.line, words);
    } else if (job.formed) {
        FormBlurRows(job.forms, image->priv->pixels + skip, job.result->priv->pixels + skip, w, end - first,
                     static_cast<uint32_t>(bpp), rowWork.line, work + job.layout.rowWords);
    } else {
        FilterRows(job.kernel, image, job.result->priv->pixels, rowWork, first, end);
    }
}

// Column units [firstUnit, endUnit), of kColumnUnit bytes each.
void BlurColumnsPiece(void *context, int32_t worker, int32_t firstUnit, int32_t endUnit)
{
    const BlurJob &job = *static_cast<const BlurJob *>(context);
    const int32_t h = job.image->height;
    const size_t rowBytes = static_cast<size_t>(job.image->width) * job.image->bytesPerPixel;
    size_t first = kColumnUnit * static_cast<size_t>(firstUnit);
    const size_t end = std::min(rowBytes, kColumnUnit * static_cast<size_t>(endUnit));
    uint8_t *work = job.work + job.layout.total * static_cast<size_t>(worker);
    uint8_t *out = job.result->priv->pixels;
    if (job.wide) {
        WideBlurColumns(job.kernel, out + first, rowBytes, end - first, h, work + job.layout.columns);
        return;
    }
    if (job.formed)  // whole vectors of columns; the plain strips take the rest
        first += FormBlurColumns(job.forms, out + first, rowBytes, end - first, h, work + job.layout.columns);
    for (size_t from = first; from < end; from += kStripBytes)
        FilterStrip(job.kernel, out + from, rowBytes, h, std::min(kStripBytes, end - from),
                    reinterpret_cast<uint32_t *>(work + job.layout.stripAcc),
                    reinterpret_cast<uint32_t *>(work + job.layout.stripRing),
                    reinterpret_cast<uint16_t *>(work + job.layout.stripLeft),
                    reinterpret_cast<uint32_t *>(work + job.layout.stripUp));
}

// The kernel of a pass, and its loops: VBMI or AVX2 when the machine allows and the kernel's
// lanes never carry (the same bytes as the running sums either way).
void PreparePass(BlurJob &job, int32_t taps, double sigma)
{
    BuildBlurKernel(taps, sigma, job.kernel);
    job.wide = VbmiPathsAvailable() && LanesStayApart(job.kernel);
    job.formed = !job.wide && WidePathsAvailable() && FitLaneForms(job.kernel, job.forms);
}

void SeparableBlur(BlurJob &job, int32_t taps, double sigmaH, double sigmaV, uint32_t mask)
{
    const VxImage *image = job.image;
    const int32_t h = image->height;
    const size_t bpp = image->bytesPerPixel, rowBytes = static_cast<size_t>(image->width) * bpp;
    PreparePass(job, taps, sigmaH);
    RunPieces(job.parts, h, BlurRowsPiece, &job);
    PreparePass(job, taps, sigmaV);
    const auto units = static_cast<int32_t>((rowBytes + kColumnUnit - 1) / kColumnUnit);
    const int32_t rowParts = job.parts;
    job.parts = std::min(rowParts, units);
    RunPieces(job.parts, units, BlurColumnsPiece, &job);
    job.parts = rowParts;
    // Grey is always blurred; in RGB and RGBA the channels outside the mask keep the source.
    if (image->type == VX_PIXEL_GREY)
        return;
    const uint8_t *src = image->priv->pixels;
    uint8_t *out = job.result->priv->pixels;
    const size_t total = rowBytes * static_cast<size_t>(h);
    for (size_t c = 0; c < bpp; ++c)
        if (!(mask & (1u << c)))
            for (size_t i = c; i < total; i += bpp)
                out[i] = src[i];
}

VxImage *SeparablePath(VxImage *image, int32_t taps, double sigmaH, double sigmaV, uint32_t mask)
{
    VxImage *result = ImageCreate(image->type, image->width, image->height);
    if (!result)
        return nullptr;
    BlurJob job;
    job.image = image;
    job.result = result;
    job.layout = BlurWorkLayout(image, taps);
    job.parts = PartsFor(image->height, static_cast<int64_t>(image->width) * image->height);
    job.work = static_cast<uint8_t *>(StdTryAlloc(job.layout.total * static_cast<size_t>(job.parts)));
    if (!job.work && job.parts > 1) {  // no room for every worker's: work alone
        job.parts = 1;
        job.work = static_cast<uint8_t *>(StdTryAlloc(job.layout.total));
    }
    if (!job.work)
        return result;  // no work buffer: the result goes back with its pixels unwritten
    const size_t bytes = job.layout.total * static_cast<size_t>(job.parts);
    VX_IMAGE_BEGIN(nullptr);  // only the thread group can fail
    CkptArm(DestroyImageArm, reinterpret_cast<uintptr_t>(result), 0);
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(job.work), bytes);
    SeparableBlur(job, taps, sigmaH, sigmaV, mask);
    CkptEnd();
    FreeHeap(job.work, bytes);
    return result;
}

VxImage *MatrixPath(VxImage *image, int32_t taps, double sigmaH, double sigmaV)
{
    const int32_t m = 2 * taps - 1;
    const size_t bytes = sizeof(float) * static_cast<size_t>(m) * static_cast<size_t>(m);
    VX_IMAGE_BEGIN(nullptr);
    auto *matrix = static_cast<float *>(AllocArmed(bytes));
    fillGaussianMatrix(sigmaH, sigmaV, matrix, m, m);
    VxImage *result = ImageConvolve(image, image->type, matrix, m, m, nullptr);
    CkptEnd();
    FreeHeap(matrix, bytes);
    return result;
}

}  // namespace

void HalfKernel(int32_t taps, double sigma, double *w)
{
    const double q = std::fabs(sigma) * 10.0;
    if (q == 0.0) {
        w[0] = 1.0;
        for (int32_t i = 1; i < taps; ++i)
            w[i] = 0.0;
        return;
    }
    const double floor = std::exp(-static_cast<double>(taps * taps) / q);
    for (int32_t i = 0; i < taps; ++i)
        w[i] = std::exp(-static_cast<double>(i * i) / q) - floor;
    const double sum = FullSum(taps, w);
    if (sum != 1.0 && sum != 0.0)
        for (int32_t i = 0; i < taps; ++i)
            w[i] /= sum;
}

double FullSum(int32_t taps, const double *w)
{
    double sides = 0.0;
    for (int32_t i = 1; i < taps; ++i)
        sides += w[i];
    return w[0] + 2.0 * sides;
}

int32_t BlurLane(int v, double tap, int32_t bias, int lane)
{
    const auto scaled = static_cast<int32_t>(v * tap * 262144.0 + 32768.0);
    return (scaled >> 16) + bias + (lane == 1 ? 1 : 0);
}

void BuildBlurKernel(int32_t taps, double sigma, BlurKernel &kernel)
{
    double w[kMaxBlurTaps];
    HalfKernel(taps, sigma, w);
    const double sum = FullSum(taps, w);
    if (std::fabs(sum - 1.0) > 0.001 && sum != 0.0)
        for (int32_t i = 0; i < taps; ++i)
            w[i] /= sum;
    kernel.groups = (taps + 2) / 3;
    double t[kMaxBlurTaps] = {};
    std::copy(w, w + taps, t);
    t[0] *= 0.5;  // the centre tap is applied from both sides
    int32_t b[kMaxBlurTaps];
    int32_t biasSum = 0;
    for (int i = 0; i < kMaxBlurTaps; ++i) {
        b[i] = t[i] < 0.0 ? static_cast<int32_t>(-t[i] * 1024.0) : 0;
        biasSum += b[i];
    }
    kernel.bias = 2 * biasSum;
    for (int j = 0; j < 3; ++j)
        for (int v = 0; v < 256; ++v) {
            uint32_t word = 0;
            for (int k = 0; k < 3 && j < kernel.groups; ++k)
                word |= (static_cast<uint32_t>(BlurLane(v, t[3 * j + k], b[3 * j + k], k)) & 0x3FF) << (10 * k);
            kernel.table[j][v] = word;
        }
}

}  // namespace vx::image

using namespace vx::image;

extern "C" {

VX_API VxImage *ImageConvolve(VxImage *image, int32_t type, const float *matrix, int32_t columns, int32_t rows,
                              const float *offset)
{
    if (!image || !matrix || columns < 1 || rows < 1 || !ImageBytesPerPixel(type))
        return nullptr;
    const int32_t w = image->width, h = image->height;
    const int32_t parts = PartsFor(h, static_cast<int64_t>(w) * h);
    Scratch scratch;
    RowRing rings[kMaxWorkers];
    VX_IMAGE_BEGIN(nullptr);
    ArmScratch(scratch);
    // Each part reads the source rows it needs into a ring of its own.
    const int32_t ringRows = std::min(rows, h);
    const size_t stride = 4 * (static_cast<size_t>(w) + static_cast<size_t>(columns) - 1);
    const size_t ringFloats = stride * static_cast<size_t>(ringRows), accFloats = 4 * static_cast<size_t>(w);
    float *ringRowsAll = scratch.Take<float>(sizeof(float) * ringFloats * static_cast<size_t>(parts));
    auto *tags = scratch.Take<int32_t>(sizeof(int32_t) * static_cast<size_t>(ringRows) * static_cast<size_t>(parts));
    std::fill(tags, tags + static_cast<size_t>(ringRows) * static_cast<size_t>(parts), -1);
    for (int32_t i = 0; i < parts; ++i)
        rings[i] = RowRing{image, ringRowsAll + ringFloats * static_cast<size_t>(i), tags + ringRows * i,
                           ringRows, columns >> 1, columns - 1 - (columns >> 1), stride};
    float *acc = scratch.Take<float>(sizeof(float) * accFloats * static_cast<size_t>(parts));
    VxImage *result = ImageCreate(type, w, h);
    CkptArm(DestroyImageArm, reinterpret_cast<uintptr_t>(result), 0);
    CopyPalettes(result, image);
    if (parts > 1 && type == VX_PIXEL_INDEX)
        StoredInverse(result);  // built here, not by the first worker to write a row
    ConvolveJob job{result, matrix, columns, rows, parts, offset, rings, acc, accFloats};
    RunPieces(parts, h, ConvolvePiece, &job);
    CkptEnd();
    scratch.Release();
    return result;
}

VX_API void fillGaussianMatrix(double sigmaX, double sigmaY, float *out, int32_t columns, int32_t rows)
{
    if (!out || columns < 1 || rows < 1)
        return;
    const double ax = sigmaX > 0.0 ? 1.0 / sigmaX : 0.0, ay = sigmaY > 0.0 ? 1.0 / sigmaY : 0.0;
    double sum = 0.0;
    for (int32_t j = 0; j < rows; ++j)
        for (int32_t i = 0; i < columns; ++i) {
            const double x = i - 0.5 * columns, y = j - 0.5 * rows;
            double value;
            if (ax == 0.0 && ay == 0.0)
                value = x == 0.0 && y == 0.0 ? 1.0 : 0.0;
            else if (ax == 0.0)
                value = x == 0.0 ? std::exp(-y * y * ay) : 0.0;
            else if (ay == 0.0)
                value = y == 0.0 ? std::exp(-x * x * ax) : 0.0;
            else
                value = std::exp(-(y * y * ay + x * x * ax));
            out[j * columns + i] = static_cast<float>(value);
            sum += out[j * columns + i];
        }
    if (sum == 0.0)
        return;
    const double scale = 1.0 / sum;
    for (int32_t i = 0; i < columns * rows; ++i)
        out[i] = static_cast<float>(out[i] * scale);
}

VX_API VxImage *ImageBlur(VxImage *image, int32_t taps, double sigmaH, double sigmaV, uint32_t channelMask)
{
    if (!image || taps < 1)
        return nullptr;
    const bool separable = image->type == VX_PIXEL_RGB || image->type == VX_PIXEL_GREY || image->type == VX_PIXEL_RGBA;
    if (!separable)
        return MatrixPath(image, taps, sigmaH, sigmaV);
    if (taps > kMaxBlurTaps)
        return nullptr;
    return SeparablePath(image, taps, sigmaH, sigmaV, channelMask);
}

}  // extern "C"
