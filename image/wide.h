// Pieces shared by the image loops built for AVX-512 VBMI (64 bytes per step), and the switch
// that chooses them. Every such loop has a plain counterpart that gives the same bytes; the
// wide loops run where the processor has the instructions and the switch is on. The mipmap
// halving and the byte blur also have loops built for AVX2, which run where VBMI is missing.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define VX_WIDE 1
#define VX_VBMI __attribute__((target("avx512f,avx512bw,avx512vbmi")))
#define VX_AVX2 __attribute__((target("avx2,fma")))
#else
#define VX_WIDE 0
#endif

namespace vx::image {

// True when some wide loops (AVX2 with FMA, or VBMI) can run here and have not been switched off.
bool WidePathsAvailable();
// True when the VBMI loops can run here and have not been switched off (the convolution's
// and the float halving's wide loops need them, and the blur prefers them).
bool VbmiPathsAvailable();
// Switches the wide loops on or off (tests run the byte-exact checks both ways).
void SetWidePaths(bool on);

#if VX_WIDE

// Byte b of the 32-bit words of a 256-entry table, for 64 indices: entries 0..127 and
// 128..255 by two two-register permutes, chosen by the index's top bit.
VX_VBMI inline __m512i PlaneBytes(const uint8_t *plane, __m512i index, __mmask64 high)
{
    const __m512i lo = _mm512_permutex2var_epi8(_mm512_load_si512(plane), index, _mm512_load_si512(plane + 64));
    const __m512i hi = _mm512_permutex2var_epi8(_mm512_load_si512(plane + 128), index, _mm512_load_si512(plane + 192));
    return _mm512_mask_blend_epi8(high, lo, hi);
}

// The order in which 64 indices are permuted before a word lookup so that the unpacks,
// which work within 128-bit lanes, give the words in the indices' own order: position
// 16 L + 4 k + e takes index 16 k + 4 L + e.
inline uint8_t WordOrderIndex(int position)
{
    const int l = position / 16, k = (position / 4) % 4, e = position % 4;
    return static_cast<uint8_t>(16 * k + 4 * l + e);
}

VX_VBMI inline __m512i WordOrder()
{
    alignas(64) uint8_t order[64];
    for (int i = 0; i < 64; ++i)
        order[i] = WordOrderIndex(i);
    return _mm512_load_si512(order);
}

// The words of a table held as four byte planes (plane[b] is byte b of the 256 words), for
// 64 indices permuted by WordOrder, as four vectors of 16 words in the indices' order.
VX_VBMI inline void LookUp(const uint8_t (*plane)[256], __m512i index, __mmask64 high, __m512i words[4])
{
    const __m512i b0 = PlaneBytes(plane[0], index, high), b1 = PlaneBytes(plane[1], index, high);
    const __m512i b2 = PlaneBytes(plane[2], index, high), b3 = PlaneBytes(plane[3], index, high);
    const __m512i lo01 = _mm512_unpacklo_epi8(b0, b1), hi01 = _mm512_unpackhi_epi8(b0, b1);
    const __m512i lo23 = _mm512_unpacklo_epi8(b2, b3), hi23 = _mm512_unpackhi_epi8(b2, b3);
    words[0] = _mm512_unpacklo_epi16(lo01, lo23);
    words[1] = _mm512_unpackhi_epi16(lo01, lo23);
    words[2] = _mm512_unpacklo_epi16(hi01, hi23);
    words[3] = _mm512_unpackhi_epi16(hi01, hi23);
}

// Four vectors of 16 32-bit values as 64 bytes in order, each clamped to 0..255 by the
// saturating packs (the values must lie within the 16-bit range). The packs work within
// 128-bit lanes; the final permute restores the order.
VX_VBMI inline __m512i PackBytes(const __m512i v[4])
{
    const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m512i packed = _mm512_packus_epi16(_mm512_packus_epi32(v[0], v[1]), _mm512_packus_epi32(v[2], v[3]));
    return _mm512_permutexvar_epi32(order, packed);
}

VX_VBMI inline __mmask64 TailMask64(size_t n) { return n >= 64 ? ~__mmask64(0) : (__mmask64(1) << n) - 1; }

#endif

// Halves RGBA byte rows as the mipmap levels do (see HalveRgbaBytes), 16 result pixels at a
// time; returns the number of result pixels written (a multiple of 16, at most `pairs`).
size_t HalveRgbaBytesWide(const uint8_t *upper, const uint8_t *lower, size_t pairs, uint8_t *out);

// Area resampling to exactly half of an RGBA float image, two result pixels at a time: per
// channel h = p0 + p1 of each source row, then ((0 + h upper) + h lower) * 0.25 in double,
// which is what the weighted sums of the general loop give when every weight is 1 and the
// scale a quarter (its 0 + first term only turns -0 into +0, which the outer 0 + does as
// well). Returns the number of result pixels written (even, at most `pairs`).
size_t HalveRgbaFloatsWide(const float *upper, const float *lower, size_t pairs, float *out);

// The AVX2 loop of the byte halving above, eight result pixels at a time.
size_t HalveRgbaBytesAvx2(const uint8_t *upper, const uint8_t *lower, size_t pairs, uint8_t *out);

}  // namespace vx::image
