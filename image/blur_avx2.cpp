// The byte blur's passes on AVX2, for processors without AVX-512 VBMI: the table lookups
// become arithmetic.
//
// When no sum of a kernel's lanes can carry (LanesStayApart), a result is the plain sum of the
// lane values of its window, as blur_wide.cpp explains. A lane's value for byte v is its value
// at 0 plus a rise that the tables build as v x tap x 4 rounded (two fraction bits and the
// rounding of 262144 and 32768). FitLaneForms finds for each lane a multiplier M with
// rise(v) = (v M + 2^(k-1)) >> k for all 256 bytes, checked against the table itself: first a
// 15-bit M with k = 15, which one rounding high multiply (vpmulhrsw) computes, else a 24-bit M
// with k = 22, which takes two; a kernel with any lane that has neither keeps the running sums.
// For the second form, on 16-bit vectors v M >> 16 is v times M's high half plus the high
// product of v and its low half, exactly, and ((v M >> 16) + 32) >> 6 is the rounded shift
// by 22. Each sample's lanes are worked out once, and every result then sums its window's
// lane values from memory.
#include "image/blur_kernel.h"
#include "image/wide.h"

#include <algorithm>
#include <cstring>

namespace vx::image {
namespace {

int64_t CeilDiv(int64_t a, int64_t b) { return a >= 0 ? (a + b - 1) / b : -((-a) / b); }

// v M >> 16 with M = high 65536 + low, as the vectors take it.
int64_t Product(int64_t v, int64_t m) { return v * (m >> 16) + ((v * (m & 0xFFFF)) >> 16); }

// The shift of each form, and the bound of its multiplier.
constexpr int kRoundedShift = 15, kSplitShift = 22;
constexpr int64_t kRoundedLimit = int64_t{1} << 15, kSplitLimit = int64_t{1} << 24;

// Byte v's rise by a form, as the vectors compute it in 16-bit lanes; -1 when it overflows.
int64_t FormRise(int64_t v, int64_t m, bool rounded)
{
    if (rounded)
        return ((v * m >> 14) + 1) >> 1;
    const int64_t sum = Product(v, m) + 32;
    return sum > 0xFFFF ? -1 : sum >> 6;
}

// The least M below the form's bound with (v M + 2^(k-1)) >> k = rise[v] for every byte v,
// or -1. For each v, v M must lie in [rise 2^k - 2^(k-1), rise 2^k + 2^(k-1)); the bounds
// narrow over the bytes, and the result is checked as the vectors compute it.
int64_t FitMultiplier(const int32_t *rise, bool rounded)
{
    const int shift = rounded ? kRoundedShift : kSplitShift;
    const int64_t unit = int64_t{1} << shift, half = unit / 2;
    int64_t lo = 0, hi = (rounded ? kRoundedLimit : kSplitLimit) - 1;
    for (int64_t v = 1; v < 256; ++v) {
        lo = std::max(lo, CeilDiv(rise[v] * unit - half, v));
        hi = std::min(hi, CeilDiv(rise[v] * unit + half, v) - 1);
    }
    if (lo > hi)
        return -1;
    for (int64_t v = 0; v < 256; ++v)
        if (FormRise(v, lo, rounded) != rise[v])
            return -1;
    return lo;
}

// Lane arrays of a row: `stride` samples apart, room for the padded row and two vectors more.
size_t LaneStride(int32_t width, uint32_t bpp) { return (static_cast<size_t>(width + 16) * bpp + 32 + 15) & ~size_t{15}; }

// Columns of a strip and the rows it fetches ahead.
constexpr size_t kStripColumns = 256;
constexpr int32_t kFetchAhead = 8;
// Rows of the ring: the window of a result, at most 2 x 8 + 1.
constexpr int32_t kRingRows = 2 * (kMaxBlurTaps - 1) + 1;

#if VX_WIDE

// The multipliers of each lane, as vectors, and the lanes in use.
struct LaneVectors {
    __m256i high[kMaxBlurTaps], low[kMaxBlurTaps], constant;
    bool rounded[kMaxBlurTaps];
    int32_t reach;
};

VX_AVX2 inline LaneVectors Vectors(const LaneForms &f)
{
    LaneVectors lv;
    for (int d = 0; d < f.reach; ++d) {
        lv.high[d] = _mm256_set1_epi16(static_cast<short>(f.high[d]));
        lv.low[d] = _mm256_set1_epi16(static_cast<short>(f.low[d]));
        lv.rounded[d] = f.rounded[d];
    }
    lv.constant = _mm256_set1_epi16(static_cast<short>(f.constant));
    lv.reach = f.reach;
    return lv;
}

// The rise of lane d for sixteen bytes x (16-bit).
VX_AVX2 inline __m256i Rise(const LaneVectors &lv, int d, __m256i x)
{
    if (lv.rounded[d])
        return _mm256_mulhrs_epi16(x, lv.low[d]);
    const __m256i product = _mm256_add_epi16(_mm256_mullo_epi16(x, lv.high[d]), _mm256_mulhi_epu16(x, lv.low[d]));
    return _mm256_srli_epi16(_mm256_add_epi16(product, _mm256_set1_epi16(32)), 6);
}

VX_AVX2 inline __m256i Bytes16(const uint8_t *p)
{
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)));
}

VX_AVX2 inline __m256i Load16(const int16_t *p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)); }

// (sum) >> 2 of sixteen samples, clamped to 0..255 by the saturating pack.
VX_AVX2 inline __m128i Results(__m256i sum)
{
    const __m256i quarter = _mm256_srai_epi16(sum, 2);
    return _mm_packus_epi16(_mm256_castsi256_si128(quarter), _mm256_extracti128_si256(quarter, 1));
}

VX_AVX2 inline void StoreResults(uint8_t *out, __m128i bytes, ptrdiff_t count)
{
    if (count >= 16) {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out), bytes);
        return;
    }
    alignas(16) uint8_t last[16];
    _mm_store_si128(reinterpret_cast<__m128i *>(last), bytes);
    std::memcpy(out, last, static_cast<size_t>(count));
}

// Every lane's rises for the sixteen bytes at `in`, lane d at rises + d stride.
VX_AVX2 inline void StoreRises(const LaneVectors &lv, const uint8_t *in, int16_t *rises, size_t stride)
{
    const __m256i x = Bytes16(in);
    for (int d = 0; d < lv.reach; ++d)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(rises + stride * static_cast<size_t>(d)), Rise(lv, d, x));
}

// One row: the padded line's lane rises into lane[d] (stride apart), then the results, each
// the constant plus its window's rises: lane 0 of its own sample twice, lane d of the samples
// d pixels either side.
VX_AVX2 void FormRow(const LaneVectors &lv, const uint8_t *in, uint8_t *out, int32_t width,
                     ptrdiff_t bpp, uint8_t *line, int16_t *lane, size_t stride)
{
    const int32_t pad = lv.reach - 1;
    const size_t rowBytes = static_cast<size_t>(width) * static_cast<size_t>(bpp);
    const ptrdiff_t n = PadLine(line, in, rowBytes, bpp, pad);
    std::memset(line + n, 0, 32);  // the last vectors reach past the line
    for (ptrdiff_t i = 0; i < n + 16; i += 16)
        StoreRises(lv, line + i, lane + i, stride);
    // Each lane's pair is found from one base by offsets: tables of window pointers, as the
    // strips use, made this pass 5-8% slower.
    const ptrdiff_t begin = pad * bpp, end = begin + static_cast<ptrdiff_t>(rowBytes);
    for (ptrdiff_t p = begin; p < end; p += 16) {
        const __m256i centre = Load16(lane + p);
        __m256i sum = _mm256_add_epi16(lv.constant, _mm256_add_epi16(centre, centre));
        for (int d = 1; d <= pad; ++d) {
            const int16_t *rises = lane + stride * static_cast<size_t>(d) + p;
            sum = _mm256_add_epi16(sum, _mm256_add_epi16(Load16(rises - d * bpp), Load16(rises + d * bpp)));
        }
        StoreResults(out + (p - begin), Results(sum), end - p);
    }
}

VX_AVX2 void FormRows(const LaneForms &f, const uint8_t *src, uint8_t *dst, int32_t width, int32_t height,
                      uint32_t bpp, uint8_t *line, int16_t *lanes)
{
    const LaneVectors lv = Vectors(f);
    const size_t rowBytes = static_cast<size_t>(width) * bpp, stride = LaneStride(width, bpp);
    for (int32_t y = 0; y < height; ++y)
        FormRow(lv, src + rowBytes * static_cast<size_t>(y), dst + rowBytes * static_cast<size_t>(y), width,
                static_cast<ptrdiff_t>(bpp), line, lanes, stride);
}

// One strip of `vectors` x 16 columns in place, down the padded column: padded row s (source
// row s - pad, clamped to the image) has its rises kept in ring slot s % (2 pad + 1), and
// once row s is in, result row s - 2 pad has its whole window. The source rows a result
// overwrites lie above every row still to be read.
VX_AVX2 void FormStrip(const LaneVectors &lv, uint8_t *data, size_t rowBytes, int32_t height,
                       int vectors, int16_t *ring)
{
    const int32_t reach = lv.reach, pad = reach - 1, rows = 2 * pad + 1;
    const size_t row = kStripColumns, slotSize = row * static_cast<size_t>(reach);
    int32_t slot = 0;  // of padded row s
    for (int32_t s = 0; s < height + 2 * pad; ++s) {
        const uint8_t *src = data + rowBytes * static_cast<size_t>(std::clamp(s - pad, 0, height - 1));
        __builtin_prefetch(data + rowBytes * static_cast<size_t>(std::clamp(s - pad + kFetchAhead, 0, height - 1)));
        int16_t *in = ring + slotSize * static_cast<size_t>(slot);
        for (int v = 0; v < vectors; ++v)
            StoreRises(lv, src + 16 * v, in + 16 * v, row);
        const int32_t centre = slot >= pad ? slot - pad : slot + rows - pad;
        slot = slot + 1 == rows ? 0 : slot + 1;
        if (s < 2 * pad)
            continue;
        uint8_t *out = data + rowBytes * static_cast<size_t>(s - 2 * pad);
        // Lane d of the rows d above and below the centre.
        const int16_t *above[kMaxBlurTaps], *below[kMaxBlurTaps];
        for (int d = 0; d <= pad; ++d) {
            const int32_t up = centre - d, down = centre + d;
            above[d] = ring + slotSize * static_cast<size_t>(up < 0 ? up + rows : up) + row * static_cast<size_t>(d);
            below[d] = ring + slotSize * static_cast<size_t>(down >= rows ? down - rows : down) + row * static_cast<size_t>(d);
        }
        for (int v = 0; v < vectors; ++v) {
            const __m256i c = Load16(above[0] + 16 * v);
            __m256i sum = _mm256_add_epi16(lv.constant, _mm256_add_epi16(c, c));
            for (int d = 1; d <= pad; ++d)
                sum = _mm256_add_epi16(sum, _mm256_add_epi16(Load16(above[d] + 16 * v), Load16(below[d] + 16 * v)));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 16 * v), Results(sum));
        }
    }
}

VX_AVX2 size_t FormColumns(const LaneForms &f, uint8_t *data, size_t rowBytes, size_t columns, int32_t height,
                           int16_t *ring)
{
    const LaneVectors lv = Vectors(f);
    size_t done = 0;
    for (; done + 16 <= columns; done += kStripColumns) {
        const auto vectors = static_cast<int>(std::min(kStripColumns, columns - done) / 16);
        FormStrip(lv, data + done, rowBytes, height, vectors, ring);
        if (vectors < static_cast<int>(kStripColumns / 16))
            return done + 16 * static_cast<size_t>(vectors);
    }
    return done;
}

#endif

}  // namespace

bool FitLaneForms(const BlurKernel &kernel, LaneForms &forms)
{
    if (!LanesStayApart(kernel))
        return false;
    forms.reach = 1;
    forms.constant = -kernel.bias;
    for (int lane = 0; lane < 3 * kernel.groups; ++lane) {
        const int32_t base = BlurLaneValue(kernel, lane, 0);
        int32_t rise[256];
        for (int v = 0; v < 256; ++v)
            rise[v] = BlurLaneValue(kernel, lane, v) - base;
        forms.rounded[lane] = true;
        int64_t m = FitMultiplier(rise, true);
        if (m < 0) {
            forms.rounded[lane] = false;
            m = FitMultiplier(rise, false);
        }
        if (m < 0)
            return false;
        forms.high[lane] = static_cast<uint16_t>(m >> 16);
        forms.low[lane] = static_cast<uint16_t>(m & 0xFFFF);
        forms.constant += 2 * base;
        if (m > 0)
            forms.reach = lane + 1;
    }
    return true;
}

size_t FormRowBytes(int32_t width, uint32_t bpp) { return sizeof(int16_t) * LaneStride(width, bpp) * kMaxBlurTaps; }

void FormBlurRows(const LaneForms &forms, const uint8_t *src, uint8_t *dst, int32_t width, int32_t height,
                  uint32_t bpp, uint8_t *line, uint8_t *lanes)
{
#if VX_WIDE
    FormRows(forms, src, dst, width, height, bpp, line, reinterpret_cast<int16_t *>(lanes));
#else
    (void)forms, (void)src, (void)dst, (void)width, (void)height, (void)bpp, (void)line, (void)lanes;
#endif
}

size_t FormColumnBytes() { return sizeof(int16_t) * kStripColumns * kMaxBlurTaps * kRingRows; }

size_t FormBlurColumns(const LaneForms &forms, uint8_t *data, size_t rowBytes, size_t columns, int32_t height,
                       uint8_t *work)
{
#if VX_WIDE
    return FormColumns(forms, data, rowBytes, columns, height, reinterpret_cast<int16_t *>(work));
#else
    (void)forms, (void)data, (void)rowBytes, (void)columns, (void)height, (void)work;
    return 0;
#endif
}

}  // namespace vx::image
