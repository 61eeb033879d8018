// The mipmap halving built for AVX2, for processors without AVX-512 VBMI: the float steps of
// the plain loop on two result pixels' channels side by side.
//
// Mipmap halving: every byte becomes v / 255 rounded to float (the value of the byte
// conversions), then the upper row's two pixels are summed, the lower row's two added in turn,
// the quarter (or half) taken and the byte conversion made (clamp, times 255, truncation):
// here one product and a truncation, which give the same bytes (see ToBytes).
#include "image/wide.h"

#if VX_WIDE

namespace vx::image {
namespace {

// v / 255 of eight bytes given as 32-bit integers, in float alone: 1/255 is split into a head
// of 9 significant bits, whose product with a byte is exact, and the rounded rest, whose
// product is added to it with one rounding (a fused multiply-add): that gives the correctly
// rounded quotient (checked for all 256 bytes by the mipmap test, whose rows hold every byte
// value).
VX_AVX2 inline __m256 Units(__m256i bytes)
{
    const __m256 v = _mm256_cvtepi32_ps(bytes);
    return _mm256_fmadd_ps(v, _mm256_set1_ps(0x1.010102p-24f), _mm256_mul_ps(v, _mm256_set1_ps(0x1.01p-8f)));
}

// The units of four pixels (16 bytes): pixels 0 and 2 in `even`, 1 and 3 in `odd`.
VX_AVX2 inline void EvenOddUnits(const uint8_t *pixels, __m256 &even, __m256 &odd)
{
    const __m128i order = _mm_setr_epi8(0, 1, 2, 3, 8, 9, 10, 11, 4, 5, 6, 7, 12, 13, 14, 15);
    const __m128i bytes = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(pixels)), order);
    even = Units(_mm256_cvtepu8_epi32(bytes));
    odd = Units(_mm256_cvtepu8_epi32(_mm_srli_si128(bytes, 8)));
}

// FloatToByteFlat of eight means given as sums times `scale`: sums of units lie in [0, 1] once
// quartered (or halved), so the clamps change nothing, and quartering is exact, so one
// product by 255 / 4 (or 255 / 2) rounds as the two products do.
VX_AVX2 inline __m256i ToBytes(__m256 sum, float scale)
{
    return _mm256_cvttps_epi32(_mm256_mul_ps(sum, _mm256_set1_ps(scale)));
}

// Result pixels x and x + 1 of the rows: each the mean of source pixels 2x and 2x + 1 of each.
template <bool kLower>
VX_AVX2 inline __m256i HalvedPair(const uint8_t *upper, const uint8_t *lower, size_t x)
{
    __m256 u0, u1;
    EvenOddUnits(upper + 8 * x, u0, u1);
    __m256 sum = _mm256_add_ps(u0, u1);
    if constexpr (!kLower)
        return ToBytes(sum, 127.5f);
    __m256 l0, l1;
    EvenOddUnits(lower + 8 * x, l0, l1);
    sum = _mm256_add_ps(_mm256_add_ps(sum, l0), l1);
    return ToBytes(sum, 63.75f);
}

template <bool kLower>
VX_AVX2 size_t HalveBytes(const uint8_t *upper, const uint8_t *lower, size_t pairs, uint8_t *out)
{
    // The packs work within 128-bit lanes and leave the pixels as 0 2 4 6 | 1 3 5 7.
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    size_t x = 0;
    for (; x + 8 <= pairs; x += 8) {
        const __m256i p0123 = _mm256_packus_epi32(HalvedPair<kLower>(upper, lower, x), HalvedPair<kLower>(upper, lower, x + 2));
        const __m256i p4567 =
            _mm256_packus_epi32(HalvedPair<kLower>(upper, lower, x + 4), HalvedPair<kLower>(upper, lower, x + 6));
        const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(p0123, p4567), order);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + 4 * x), bytes);
    }
    return x;
}

}  // namespace

size_t HalveRgbaBytesAvx2(const uint8_t *upper, const uint8_t *lower, size_t pairs, uint8_t *out)
{
    return lower ? HalveBytes<true>(upper, lower, pairs, out) : HalveBytes<false>(upper, nullptr, pairs, out);
}

}  // namespace vx::image

#endif
