// The byte blur's passes 64 samples at a time, for processors with AVX-512 VBMI.
//
// The sums are taken in direct form instead of the running recurrence. When no sum of lanes
// can reach 1024 (LanesStayApart), lane 0 of the recurrence acc(s) = step(s) + (acc(s - 1)
// >> 10) is exactly lane 0 of step(s) + (step(s - 1) >> 10) + (step(s - 2) >> 20): both are
// the plain sum of the lanes of every tap, which then never carries and never wraps, and the
// lower lanes of older steps only add fractions that stay below one. So every sample depends
// on a fixed window of table words and whole vectors of samples are computed at once, with
// the same bytes as the recurrence.
//
// Two forms of the lookups:
// - Every lane at most 255 (LanesFitBytes, the usual case: a tap times 255 with two fraction
//   bits stays below 256 for taps under a quarter): each lane of each table is a byte table
//   of its own, looked up with one byte plane's permutes, and a result is the plain sum of
//   the lane values of its window on 16-bit vectors.
// - Otherwise the table words themselves: each table of 256 32-bit words is split into four
//   planes of 256 bytes (byte b of every word), looked up plane by plane and reassembled
//   with unpacks, and the packed step words are summed as above.
// A plane gives the bytes of 64 samples with two two-register permutes (entries 0..127 and
// 128..255) and a blend on the index's top bit (see image/wide.h).
#include "image/blur_kernel.h"
#include "image/wide.h"

#include <algorithm>
#include <cstring>

namespace vx::image {
namespace {

#if VX_WIDE

// GCC 12's AVX-512 intrinsics pass a deliberately undefined vector (a self-initialised local in
// its headers) as the unused source of the unmasked instructions, and -Wmaybe-uninitialized
// takes that for a read of an uninitialised variable once the intrinsics are inlined here.
// Only the wide loops below are exempt.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// Byte planes of the tables of one direction: plane[j][b] is byte b of the 256 words of
// table j.
struct Planes {
    alignas(64) uint8_t plane[3][4][256];
};

void SplitPlanes(const BlurKernel &kernel, Planes &p)
{
    for (int j = 0; j < 3; ++j)
        for (int b = 0; b < 4; ++b)
            for (int v = 0; v < 256; ++v)
                p.plane[j][b][v] = static_cast<uint8_t>(kernel.table[j][v] >> (8 * b));
}

// Lane 0 of a step word plus the next older step's lane 1 and the one before's lane 2.
VX_VBMI inline __m512i HalfSum(__m512i s0, __m512i s1, __m512i s2)
{
    const __m512i sum = _mm512_add_epi32(_mm512_add_epi32(s0, _mm512_srli_epi32(s1, 10)), _mm512_srli_epi32(s2, 20));
    return _mm512_and_si512(sum, _mm512_set1_epi32(0x3FF));
}

// (left + right - bias) >> 2 of 16 samples (still to be clamped).
VX_VBMI inline __m512i Combine(__m512i left, __m512i right, __m512i bias)
{
    return _mm512_srai_epi32(_mm512_sub_epi32(_mm512_add_epi32(left, right), bias), 2);
}

// The 16 words of `v` from 16 t + kD on, from the aligned vectors that hold them.
template <ptrdiff_t kD>
VX_VBMI inline __m512i WordsAt(const uint32_t *v, ptrdiff_t t)
{
    constexpr ptrdiff_t kBase = kD >= 0 ? kD / 16 : -((15 - kD) / 16);
    constexpr int kShift = static_cast<int>(kD - 16 * kBase);
    const __m512i lo = _mm512_load_si512(v + 16 * (t + kBase));
    if constexpr (kShift == 0)
        return lo;
    return _mm512_alignr_epi32(_mm512_load_si512(v + 16 * (t + kBase + 1)), lo, kShift);
}

// The step word of vector t of padded samples: t0 of each plus t1 of the sample kTap words
// away and t2 of the one 2 kTap away (kTap negative going left).
template <int kGroups, ptrdiff_t kTap>
VX_VBMI inline __m512i StepAt(const uint32_t *g0, const uint32_t *g1, const uint32_t *g2, ptrdiff_t t)
{
    __m512i v = _mm512_load_si512(g0 + 16 * t);
    if constexpr (kGroups > 1)
        v = _mm512_add_epi32(v, WordsAt<kTap>(g1, t));
    if constexpr (kGroups > 2)
        v = _mm512_add_epi32(v, WordsAt<2 * kTap>(g2, t));
    return v;
}

// Mask of the bytes of the 64 padded samples from `first` that are results of the row.
inline __mmask64 RowMask(ptrdiff_t first, ptrdiff_t begin, ptrdiff_t end)
{
    const ptrdiff_t lo = std::max<ptrdiff_t>(begin - first, 0), hi = std::min<ptrdiff_t>(end - first, 64);
    if (hi <= lo)
        return 0;
    const uint64_t upTo = hi == 64 ? ~uint64_t{0} : (uint64_t{1} << hi) - 1;
    return upTo & ~((uint64_t{1} << lo) - 1);
}

// One row in a single sweep over the padded line, 64 samples per step: block b's table words
// are looked up into g[0..2] (aligned stores), then the results of block b - 1 are formed
// from aligned loads of those words, the words of neighbouring samples taken by shifting
// pairs of vectors. The step words stay in registers: going along, the left ones of the
// previous vector and the right ones of the next vector are kept.
template <int kBpp, int kGroups>
VX_VBMI void WideRow(const Planes &p, int32_t bias, const uint8_t *in, uint8_t *out, int32_t width, uint8_t *line,
                     uint32_t *const g[3])
{
    constexpr int32_t kPad = 3 * kGroups - 1;
    constexpr ptrdiff_t kB = kBpp, kTap = 3 * kB;
    const size_t rowBytes = static_cast<size_t>(width) * kBpp;
    const ptrdiff_t n = PadLine(line, in, rowBytes, kB, kPad);
    const ptrdiff_t begin = kPad * kB, end = begin + static_cast<ptrdiff_t>(rowBytes);
    const __m512i order = WordOrder(), vbias = _mm512_set1_epi32(bias);
    const uint32_t *g0 = g[0], *g1 = g[1], *g2 = g[2];
    const ptrdiff_t blocks = (n + 63) / 64;
    // The left step words of the vector before (only lanes that are no result read them
    // before the first vector) and the right step words of the current vector.
    __m512i leftPrev = _mm512_setzero_si512(), right = _mm512_setzero_si512();
    for (ptrdiff_t b = 0; b <= blocks; ++b) {
        if (b < blocks) {
            const ptrdiff_t i = 64 * b;
            const __m512i index = _mm512_permutexvar_epi8(order, _mm512_loadu_si512(line + i));
            const __mmask64 high = _mm512_movepi8_mask(index);
            for (int j = 0; j < kGroups; ++j) {
                __m512i words[4];
                LookUp(p.plane[j], index, high, words);
                for (int k = 0; k < 4; ++k)
                    _mm512_store_si512(g[j] + i + 16 * k, words[k]);
            }
            if (b == 0)
                right = StepAt<kGroups, kTap>(g0, g1, g2, 0);
        }
        if (b == 0)
            continue;
        const ptrdiff_t first = 64 * (b - 1);
        __m512i sums[4];
        for (int k = 0; k < 4; ++k) {
            const ptrdiff_t t = 4 * (b - 1) + k;
            const __m512i left = StepAt<kGroups, -kTap>(g0, g1, g2, t);
            const __m512i rightNext = StepAt<kGroups, kTap>(g0, g1, g2, t + 1);
            const __m512i leftSum = HalfSum(left, _mm512_alignr_epi32(left, leftPrev, 16 - kB),
                                            _mm512_alignr_epi32(left, leftPrev, 16 - 2 * kB));
            const __m512i rightSum = HalfSum(right, _mm512_alignr_epi32(rightNext, right, kB),
                                             _mm512_alignr_epi32(rightNext, right, 2 * kB));
            sums[k] = Combine(leftSum, rightSum, vbias);
            leftPrev = left;
            right = rightNext;
        }
        const __mmask64 mask = RowMask(first, begin, end);
        if (mask)
            _mm512_mask_storeu_epi8(out + first - begin, mask, PackBytes(sums));
    }
}

// ---- rows when every lane fits in a byte ----
//
// Then each lane (one tap) is a table of bytes of its own, taken from the words of its group,
// and is looked up with one plane's permutes. A result is the plain sum of the 2 (3 g) - 1
// lane values around it (the centre lane twice), at most 2046, so it is summed on 16-bit
// lanes from the looked-up bytes at their offsets.

struct LanePlanes {
    alignas(64) uint8_t plane[9][256];
};

// True when every lane of every table is at most 255.
bool LanesFitBytes(const BlurKernel &kernel)
{
    for (int lane = 0; lane < 3 * kernel.groups; ++lane)
        for (int v = 0; v < 256; ++v)
            if (BlurLaneValue(kernel, lane, v) > 255)
                return false;
    return true;
}

void SplitLanes(const BlurKernel &kernel, LanePlanes &p)
{
    for (int i = 0; i < 9; ++i)
        for (int v = 0; v < 256; ++v)
            p.plane[i][v] = static_cast<uint8_t>(BlurLaneValue(kernel, i, v));
}

// 32 bytes from p as 16-bit values.
VX_VBMI inline __m512i Widened(const uint8_t *p)
{
    return _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)));
}

// The sum of the lanes of 32 samples of the padded line from q on.
template <int kTaps, ptrdiff_t kB>
VX_VBMI inline __m512i LaneSum(uint8_t *const *lane, ptrdiff_t q)
{
    const __m512i centre = Widened(lane[0] + q);
    __m512i sum = _mm512_add_epi16(centre, centre);
    for (int i = 1; i < kTaps; ++i)
        sum = _mm512_add_epi16(sum, _mm512_add_epi16(Widened(lane[i] + q - i * kB), Widened(lane[i] + q + i * kB)));
    return sum;
}

// One row: block b's lanes looked up into their byte arrays, then the results of block b - 2
// (whose reach ends in block b - 1, stored an iteration before).
template <int kBpp, int kGroups>
VX_VBMI void LaneRow(const LanePlanes &p, int32_t bias, const uint8_t *in, uint8_t *out, int32_t width,
                     uint8_t *line, uint8_t *const *lane)
{
    constexpr int32_t kPad = 3 * kGroups - 1, kTaps = 3 * kGroups;
    constexpr ptrdiff_t kB = kBpp;
    const size_t rowBytes = static_cast<size_t>(width) * kBpp;
    const ptrdiff_t n = PadLine(line, in, rowBytes, kB, kPad);
    const ptrdiff_t begin = kPad * kB, end = begin + static_cast<ptrdiff_t>(rowBytes);
    const __m512i vbias = _mm512_set1_epi16(static_cast<short>(bias));
    const __m512i order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
    const ptrdiff_t blocks = (n + 63) / 64;
    for (ptrdiff_t b = 0; b < blocks + 2; ++b) {
        if (b < blocks) {
            const __m512i index = _mm512_loadu_si512(line + 64 * b);
            const __mmask64 high = _mm512_movepi8_mask(index);
            for (int i = 0; i < kTaps; ++i)
                _mm512_store_si512(lane[i] + 64 * b, PlaneBytes(p.plane[i], index, high));
        }
        const ptrdiff_t first = 64 * (b - 2);
        if (first < 0)
            continue;
        const __mmask64 mask = RowMask(first, begin, end);
        if (!mask)
            continue;
        const __m512i lo = _mm512_srai_epi16(_mm512_sub_epi16(LaneSum<kTaps, kB>(lane, first), vbias), 2);
        const __m512i hi = _mm512_srai_epi16(_mm512_sub_epi16(LaneSum<kTaps, kB>(lane, first + 32), vbias), 2);
        // The pack saturates to 0..255 within 128-bit lanes; the permute restores the order.
        _mm512_mask_storeu_epi8(out + first - begin, mask, _mm512_permutexvar_epi64(order, _mm512_packus_epi16(lo, hi)));
    }
}

template <int kBpp>
VX_VBMI void LaneRows(const BlurKernel &kernel, const uint8_t *src, uint8_t *dst, int32_t width, int32_t height,
                      uint8_t *line, uint8_t *const *lane)
{
    LanePlanes p;
    SplitLanes(kernel, p);
    const size_t rowBytes = static_cast<size_t>(width) * kBpp;
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t *in = src + rowBytes * static_cast<size_t>(y);
        uint8_t *out = dst + rowBytes * static_cast<size_t>(y);
        switch (kernel.groups) {
        case 1: LaneRow<kBpp, 1>(p, kernel.bias, in, out, width, line, lane); break;
        case 2: LaneRow<kBpp, 2>(p, kernel.bias, in, out, width, line, lane); break;
        default: LaneRow<kBpp, 3>(p, kernel.bias, in, out, width, line, lane); break;
        }
    }
}

template <int kBpp>
VX_VBMI void WideRows(const BlurKernel &kernel, const uint8_t *src, uint8_t *dst, int32_t width, int32_t height,
                      uint8_t *line, uint32_t *const g[3])
{
    Planes p;
    SplitPlanes(kernel, p);
    const size_t rowBytes = static_cast<size_t>(width) * kBpp;
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t *in = src + rowBytes * static_cast<size_t>(y);
        uint8_t *out = dst + rowBytes * static_cast<size_t>(y);
        switch (kernel.groups) {
        case 1: WideRow<kBpp, 1>(p, kernel.bias, in, out, width, line, g); break;
        case 2: WideRow<kBpp, 2>(p, kernel.bias, in, out, width, line, g); break;
        default: WideRow<kBpp, 3>(p, kernel.bias, in, out, width, line, g); break;
        }
    }
}

// Rows kept while a strip goes down, each ring a power of two: table words back to row s - 6,
// downward step words back to s - 2, left sums back to the result row s - (3 g - 1), upward
// step words from the result row to two below it.
constexpr int32_t kWordRows = 8, kDownRows = 4, kLeftRows = 16, kUpRows = 4;
// Vectors of 64 byte columns per strip, and rows fetched ahead of the lookups.
constexpr int32_t kStripVectors = 2, kAheadRows = 8;

// Row s of a strip of `count` columns, the edge rows repeated outward; the row kAheadRows
// further down is fetched meanwhile.
inline const uint8_t *StripRow(const uint8_t *data, size_t rowBytes, int32_t height, size_t count, int32_t s)
{
    const uint8_t *ahead = data + rowBytes * static_cast<size_t>(std::clamp(s + kAheadRows, 0, height - 1));
    for (size_t b = 0; b < count; b += 64)
        __builtin_prefetch(ahead + b);
    __builtin_prefetch(ahead + count - 1);
    return data + rowBytes * static_cast<size_t>(std::clamp(s, 0, height - 1));
}

struct StripState {
    __m512i g[3][kWordRows][kStripVectors][4];
    __m512i down[kDownRows][kStripVectors][4];
    __m512i left[kLeftRows][kStripVectors][4];
    __m512i up[kUpRows][kStripVectors][4];
};

// One strip of up to 64 kStripVectors byte columns, in place, going down the padded column
// once: at step s row s (clamped) is looked up, the downward step word and left sum of row s
// and the upward step word of row s - 3 (g - 1) are formed, and result row s - (3 g - 1),
// whose window is then complete, is written. Later steps read only rows below it (or the
// clamped last row, whose result is written at the very last step), so writing in place is
// safe.
template <int kGroups>
VX_VBMI void WideStrip(const Planes &p, int32_t bias, uint8_t *data, size_t rowBytes, int32_t height, size_t count)
{
    StripState st;  // local, so that the stores to the image are known not to touch it
    constexpr int32_t kPad = 3 * kGroups - 1, kReach = 3 * (kGroups - 1);
    const __m512i order = WordOrder(), vbias = _mm512_set1_epi32(bias);
    const int32_t vectors = static_cast<int32_t>((count + 63) / 64);
    __mmask64 masks[kStripVectors];
    for (int32_t v = 0; v < vectors; ++v)
        masks[v] = TailMask64(count - 64 * static_cast<size_t>(v));
    for (int32_t s = -kPad; s < height + kPad; ++s) {
        const uint8_t *row = StripRow(data, rowBytes, height, count, s);
        const int32_t gs = s & (kWordRows - 1), ds = s & (kDownRows - 1);
        for (int32_t v = 0; v < vectors; ++v) {
            const __m512i index = _mm512_permutexvar_epi8(order, _mm512_maskz_loadu_epi8(masks[v], row + 64 * v));
            const __mmask64 high = _mm512_movepi8_mask(index);
            for (int j = 0; j < kGroups; ++j)
                LookUp(p.plane[j], index, high, st.g[j][gs][v]);
        }
        if (s >= -2)
            for (int32_t v = 0; v < vectors; ++v)
                for (int k = 0; k < 4; ++k) {
                    __m512i w = st.g[0][gs][v][k];
                    if constexpr (kGroups > 1)
                        w = _mm512_add_epi32(w, st.g[1][(s - 3) & (kWordRows - 1)][v][k]);
                    if constexpr (kGroups > 2)
                        w = _mm512_add_epi32(w, st.g[2][(s - 6) & (kWordRows - 1)][v][k]);
                    st.down[ds][v][k] = w;
                }
        if (s >= 0)
            for (int32_t v = 0; v < vectors; ++v)
                for (int k = 0; k < 4; ++k)
                    st.left[s & (kLeftRows - 1)][v][k] = HalfSum(st.down[ds][v][k], st.down[(s - 1) & (kDownRows - 1)][v][k],
                                                                 st.down[(s - 2) & (kDownRows - 1)][v][k]);
        const int32_t u = s - kReach;
        if (u >= 0)
            for (int32_t v = 0; v < vectors; ++v)
                for (int k = 0; k < 4; ++k) {
                    __m512i w = st.g[0][u & (kWordRows - 1)][v][k];
                    if constexpr (kGroups > 1)
                        w = _mm512_add_epi32(w, st.g[1][(u + 3) & (kWordRows - 1)][v][k]);
                    if constexpr (kGroups > 2)
                        w = _mm512_add_epi32(w, st.g[2][gs][v][k]);
                    st.up[u & (kUpRows - 1)][v][k] = w;
                }
        const int32_t r = s - kPad;
        if (r < 0)
            continue;
        uint8_t *out = data + rowBytes * static_cast<size_t>(r);
        for (int32_t v = 0; v < vectors; ++v) {
            __m512i sums[4];
            for (int k = 0; k < 4; ++k) {
                const __m512i right = HalfSum(st.up[r & (kUpRows - 1)][v][k], st.up[(r + 1) & (kUpRows - 1)][v][k],
                                              st.up[(r + 2) & (kUpRows - 1)][v][k]);
                sums[k] = Combine(st.left[r & (kLeftRows - 1)][v][k], right, vbias);
            }
            _mm512_mask_storeu_epi8(out + 64 * v, masks[v], PackBytes(sums));
        }
    }
}

VX_VBMI void WideColumns(const BlurKernel &kernel, uint8_t *data, size_t rowBytes, size_t columns, int32_t height)
{
    Planes p;
    SplitPlanes(kernel, p);
    constexpr size_t kStrip = 64 * kStripVectors;
    for (size_t from = 0; from < columns; from += kStrip) {
        const size_t count = std::min(kStrip, columns - from);
        switch (kernel.groups) {
        case 1: WideStrip<1>(p, kernel.bias, data + from, rowBytes, height, count); break;
        case 2: WideStrip<2>(p, kernel.bias, data + from, rowBytes, height, count); break;
        default: WideStrip<3>(p, kernel.bias, data + from, rowBytes, height, count); break;
        }
    }
}

// Columns when every lane fits in a byte: a strip of up to 512 byte columns goes down the
// padded column once; at step s row s (clamped) is looked up, each lane into its own byte
// plane of the ring slot of row s, and result row r = s - (3 g - 1) is the plain sum of
// lane i of rows r - i and r + i over the taps (the centre lane twice), 32 columns per
// 16-bit vector. The ring (in the work buffer: 78 KB) holds the 2 (3 g - 1) + 1 rows of the
// window; wide strips read whole runs of each image row. Later steps read only
// rows below the result row (or the clamped last row, whose result is written at the very
// last step), so writing in place is safe.
constexpr int32_t kLaneRing = 17, kLaneVectors = 8;

using LaneRing = uint8_t[kLaneRing][9][kLaneVectors][64];

template <int kGroups>
VX_VBMI void LaneStrip(const LanePlanes &p, int32_t bias, uint8_t *data, size_t rowBytes, int32_t height, size_t count,
                       LaneRing &__restrict ring)
{
    constexpr int32_t kPad = 3 * kGroups - 1, kTaps = 3 * kGroups;
    const __m512i vbias = _mm512_set1_epi16(static_cast<short>(bias));
    const __m512i order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
    const int32_t vectors = static_cast<int32_t>((count + 63) / 64);
    __mmask64 masks[kLaneVectors];
    for (int32_t v = 0; v < vectors; ++v)
        masks[v] = TailMask64(count - 64 * static_cast<size_t>(v));
    auto slot = [](int32_t row) { return ((row % kLaneRing) + kLaneRing) % kLaneRing; };
    for (int32_t s = -kPad; s < height + kPad; ++s) {
        const uint8_t *row = StripRow(data, rowBytes, height, count, s);
        const int32_t here = slot(s);
        for (int32_t v = 0; v < vectors; ++v) {
            const __m512i index = _mm512_maskz_loadu_epi8(masks[v], row + 64 * v);
            const __mmask64 high = _mm512_movepi8_mask(index);
            for (int i = 0; i < kTaps; ++i)
                _mm512_store_si512(ring[here][i][v], PlaneBytes(p.plane[i], index, high));
        }
        const int32_t r = s - kPad;
        if (r < 0)
            continue;
        int32_t above[kTaps], below[kTaps];
        for (int i = 0; i < kTaps; ++i) {
            above[i] = slot(r - i);
            below[i] = slot(r + i);
        }
        uint8_t *out = data + rowBytes * static_cast<size_t>(r);
        for (int32_t v = 0; v < vectors; ++v) {
            __m512i half[2];
            for (int h = 0; h < 2; ++h) {
                const __m512i centre = Widened(ring[above[0]][0][v] + 32 * h);
                __m512i sum = _mm512_add_epi16(centre, centre);
                for (int i = 1; i < kTaps; ++i)
                    sum = _mm512_add_epi16(sum, _mm512_add_epi16(Widened(ring[above[i]][i][v] + 32 * h),
                                                                 Widened(ring[below[i]][i][v] + 32 * h)));
                half[h] = _mm512_srai_epi16(_mm512_sub_epi16(sum, vbias), 2);
            }
            // The pack saturates to 0..255 within 128-bit lanes; the permute restores the order.
            _mm512_mask_storeu_epi8(out + 64 * v, masks[v],
                                    _mm512_permutexvar_epi64(order, _mm512_packus_epi16(half[0], half[1])));
        }
    }
}

VX_VBMI void LaneColumns(const BlurKernel &kernel, uint8_t *data, size_t rowBytes, size_t columns, int32_t height,
                         uint8_t *work)
{
    LanePlanes p;
    SplitLanes(kernel, p);
    auto &ring = *reinterpret_cast<LaneRing *>((reinterpret_cast<uintptr_t>(work) + 63) & ~uintptr_t{63});
    constexpr size_t kStrip = 64 * kLaneVectors;
    for (size_t from = 0; from < columns; from += kStrip) {
        const size_t count = std::min(kStrip, columns - from);
        switch (kernel.groups) {
        case 1: LaneStrip<1>(p, kernel.bias, data + from, rowBytes, height, count, ring); break;
        case 2: LaneStrip<2>(p, kernel.bias, data + from, rowBytes, height, count, ring); break;
        default: LaneStrip<3>(p, kernel.bias, data + from, rowBytes, height, count, ring); break;
        }
    }
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#endif

}  // namespace

bool LanesStayApart(const BlurKernel &kernel)
{
    int32_t total = 0;
    for (int lane = 0; lane < 3 * kernel.groups; ++lane) {
        int32_t most = 0;
        for (int v = 0; v < 256; ++v)
            most = std::max(most, BlurLaneValue(kernel, lane, v));
        total += most;
    }
    return total <= 1023;
}

size_t WideRowWords(int32_t width, uint32_t bpp)
{
    // The padded row (at most 8 pixels each side) rounded up to whole vectors of 64, one more
    // vector that the last results' windows may reach into, one before the start that the
    // first block's left step words read (their values are not used), and room to align.
    const size_t n = (static_cast<size_t>(width) + 16) * bpp;
    return ((n + 63) & ~size_t{63}) + 64 + 64 + 16;
}

void WideBlurRows(const BlurKernel &kernel, const uint8_t *src, uint8_t *dst, int32_t width, int32_t height,
                  uint32_t bpp, uint8_t *line, uint32_t *const words[3])
{
#if VX_WIDE
    if (LanesFitBytes(kernel)) {
        // Nine byte arrays of WideRowWords bytes, three in each word array, each starting
        // 64-byte aligned after 64 bytes that the first results' windows may reach back into.
        const size_t stride = (WideRowWords(width, bpp) - 16) & ~size_t{63};
        uint8_t *lane[9];
        for (int i = 0; i < 9; ++i) {
            const auto start = reinterpret_cast<uintptr_t>(words[i / 3]) + 64 + stride * static_cast<size_t>(i % 3);
            lane[i] = reinterpret_cast<uint8_t *>((start + 63) & ~uintptr_t{63});
        }
        switch (bpp) {
        case 1: LaneRows<1>(kernel, src, dst, width, height, line, lane); return;
        case 3: LaneRows<3>(kernel, src, dst, width, height, line, lane); return;
        default: LaneRows<4>(kernel, src, dst, width, height, line, lane); return;
        }
    }
    uint32_t *g[3];
    for (int j = 0; j < 3; ++j) {
        const auto start = reinterpret_cast<uintptr_t>(words[j] + 64);
        g[j] = reinterpret_cast<uint32_t *>((start + 63) & ~uintptr_t{63});
    }
    switch (bpp) {
    case 1: WideRows<1>(kernel, src, dst, width, height, line, g); break;
    case 3: WideRows<3>(kernel, src, dst, width, height, line, g); break;
    default: WideRows<4>(kernel, src, dst, width, height, line, g); break;
    }
#else
    (void)kernel, (void)src, (void)dst, (void)width, (void)height, (void)bpp, (void)line, (void)words;
#endif
}

size_t WideColumnBytes()
{
#if VX_WIDE
    return sizeof(LaneRing) + 64;
#else
    return 0;
#endif
}

void WideBlurColumns(const BlurKernel &kernel, uint8_t *data, size_t rowBytes, size_t columns, int32_t height,
                     uint8_t *work)
{
#if VX_WIDE
    if (LanesFitBytes(kernel))
        LaneColumns(kernel, data, rowBytes, columns, height, work);
    else
        WideColumns(kernel, data, rowBytes, columns, height);
#else
    (void)kernel, (void)data, (void)rowBytes, (void)columns, (void)height, (void)work;
#endif
}

}  // namespace vx::image
