// The loops built for AVX-512 VBMI that are not the blur's: the switch, mipmap halving and
// float halving. Where the processor has AVX2 but not VBMI, the mipmap halving takes the AVX2
// loop of wide_avx2.cpp.
//
// Mipmap halving: every byte becomes v / 255 as a float through a lookup (the float's four
// bytes as four byte planes of 256 entries), which gives the value of the byte conversions
// exactly, and then takes the float steps of the plain loop on vectors: the two pixels of
// the upper row summed, the lower row's two added in turn, the quarter (or half) taken, and
// the byte conversion (clamp, times 255, truncation).
#include "image/wide.h"

#include "image/convert.h"

#include <bit>

namespace vx::image {
namespace {

bool wideEnabled = true;

#if VX_WIDE

// GCC 12's AVX-512 intrinsics pass a deliberately undefined vector (a self-initialised local in
// its headers) as the unused source of the unmasked instructions, and -Wmaybe-uninitialized
// takes that for a read of an uninitialised variable once the intrinsics are inlined here.
// Only the wide loops below are exempt.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

bool CpuHasVbmi()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vbmi");
}

struct UnitPlanes {
    alignas(64) uint8_t plane[4][256];
    alignas(64) uint8_t order[64];
};

// The byte planes of v / 255, and the order of the 64 bytes of 16 pixels before the lookup:
// the four vectors of words come out as the even pixels of pairs 0..3, of pairs 4..7, then
// the odd pixels of pairs 0..3 and of pairs 4..7 (composed with WordOrder).
UnitPlanes MakeUnitPlanes()
{
    UnitPlanes p;
    for (int b = 0; b < 4; ++b)
        for (int v = 0; v < 256; ++v)
            p.plane[b][v] = static_cast<uint8_t>(std::bit_cast<uint32_t>(kByteToFloat[v]) >> (8 * b));
    for (int i = 0; i < 64; ++i) {
        const int j = WordOrderIndex(i), k = j / 16, m = (j / 4) % 4, c = j % 4;
        p.order[i] = static_cast<uint8_t>(8 * (m + 4 * (k & 1)) + 4 * (k >> 1) + c);
    }
    return p;
}

const UnitPlanes kUnits = MakeUnitPlanes();

// The units of 16 pixels: even and odd pixels of pairs 0..3 and of pairs 4..7.
VX_VBMI inline void Units(const uint8_t *pixels, __m512i order, __m512i units[4])
{
    const __m512i index = _mm512_permutexvar_epi8(order, _mm512_loadu_si512(pixels));
    LookUp(kUnits.plane, index, _mm512_movepi8_mask(index), units);
}

// FloatToByteFlat on 16 floats, as 32-bit integers.
VX_VBMI inline __m512i ToBytes(__m512 f)
{
    const __m512 low = _mm512_max_ps(f, _mm512_setzero_ps());
    const __m512 clamped = _mm512_min_ps(low, _mm512_set1_ps(1.0f));
    return _mm512_cvttps_epi32(_mm512_mul_ps(clamped, _mm512_set1_ps(255.0f)));
}

template <bool kLower>
VX_VBMI size_t Halve(const uint8_t *upper, const uint8_t *lower, size_t pairs, uint8_t *out)
{
    const __m512i order = _mm512_load_si512(kUnits.order);
    size_t x = 0;
    for (; x + 16 <= pairs; x += 16) {
        // Both source rows a kilobyte ahead (a hint: no fault past the row's end).
        _mm_prefetch(reinterpret_cast<const char *>(upper + 8 * x + 1024), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char *>(upper + 8 * x + 1088), _MM_HINT_T0);
        if constexpr (kLower) {
            _mm_prefetch(reinterpret_cast<const char *>(lower + 8 * x + 1024), _MM_HINT_T0);
            _mm_prefetch(reinterpret_cast<const char *>(lower + 8 * x + 1088), _MM_HINT_T0);
        }
        __m512i result[4];
        for (int h = 0; h < 2; ++h) {
            __m512i u[4], l[4];
            Units(upper + 8 * x + 64 * h, order, u);
            if constexpr (kLower)
                Units(lower + 8 * x + 64 * h, order, l);
            for (int q = 0; q < 2; ++q) {
                __m512 sum = _mm512_add_ps(_mm512_castsi512_ps(u[q]), _mm512_castsi512_ps(u[q + 2]));
                if constexpr (kLower) {
                    sum = _mm512_add_ps(sum, _mm512_castsi512_ps(l[q]));
                    sum = _mm512_add_ps(sum, _mm512_castsi512_ps(l[q + 2]));
                    result[2 * h + q] = ToBytes(_mm512_mul_ps(sum, _mm512_set1_ps(0.25f)));
                } else {
                    result[2 * h + q] = ToBytes(_mm512_mul_ps(sum, _mm512_set1_ps(0.5f)));
                }
            }
        }
        _mm512_storeu_si512(out + 4 * x, PackBytes(result));
    }
    return x;
}

// Source pixels 4x ... 4x + 3 of a row summed in pairs, widened to double: pixels 0 + 1 and
// 2 + 3 of the four.
VX_VBMI inline __m512d PairSums(const float *row)
{
    const __m512 four = _mm512_loadu_ps(row);
    const __m512d first = _mm512_cvtps_pd(_mm512_castps512_ps256(four));
    const __m512d second = _mm512_cvtps_pd(_mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(four), 1)));
    const __m512d even = _mm512_shuffle_f64x2(first, second, 0x44);  // pixels 0 and 2
    const __m512d odd = _mm512_shuffle_f64x2(first, second, 0xEE);   // pixels 1 and 3
    return _mm512_add_pd(even, odd);
}

VX_VBMI size_t HalveFloats(const float *upper, const float *lower, size_t pairs, float *out)
{
    const __m512d quarter = _mm512_set1_pd(0.25);
    size_t x = 0;
    for (; x + 2 <= pairs; x += 2) {
        // A page ahead along both rows, as the general loop fetches.
        _mm_prefetch(reinterpret_cast<const char *>(upper + 8 * x + 1024), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char *>(lower + 8 * x + 1024), _MM_HINT_T0);
        const __m512d top = _mm512_add_pd(_mm512_setzero_pd(), PairSums(upper + 8 * x));
        const __m512d sum = _mm512_add_pd(top, PairSums(lower + 8 * x));
        _mm256_storeu_ps(out + 4 * x, _mm512_cvtpd_ps(_mm512_mul_pd(sum, quarter)));
    }
    return x;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#endif

}  // namespace

void SetWidePaths(bool on) { wideEnabled = on; }

bool VbmiPathsAvailable()
{
#if VX_WIDE
    static const bool has = CpuHasVbmi();
    return wideEnabled && has;
#else
    return false;
#endif
}

bool WidePathsAvailable()
{
#if VX_WIDE
    static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return VbmiPathsAvailable() || (wideEnabled && has);
#else
    return false;
#endif
}

size_t HalveRgbaBytesWide(const uint8_t *upper, const uint8_t *lower, size_t pairs, uint8_t *out)
{
#if VX_WIDE
    if (!VbmiPathsAvailable())
        return HalveRgbaBytesAvx2(upper, lower, pairs, out);
    return lower ? Halve<true>(upper, lower, pairs, out) : Halve<false>(upper, nullptr, pairs, out);
#else
    (void)upper, (void)lower, (void)pairs, (void)out;
    return 0;
#endif
}

size_t HalveRgbaFloatsWide(const float *upper, const float *lower, size_t pairs, float *out)
{
#if VX_WIDE
    return HalveFloats(upper, lower, pairs, out);
#else
    (void)upper, (void)lower, (void)pairs, (void)out;
    return 0;
#endif
}

}  // namespace vx::image
