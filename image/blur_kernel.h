// The fixed-point kernel of the separable byte blur, shared with its tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vx::image {

constexpr int32_t kMaxBlurTaps = 9;  // three groups of three taps

// Lookup tables of one direction: table[j][v] packs, in three 10-bit lanes, value v times the
// taps 3j, 3j + 1, 3j + 2 with two fraction bits (plus any bias, plus 1 in the middle lane).
struct BlurKernel {
    int32_t groups;
    int32_t bias;  // the total bias, subtracted from every output
    uint32_t table[3][256];
};

// Lane `lane` (tap 3 j + k: table j, bits 10 k to 10 k + 9) of byte v.
inline int32_t BlurLaneValue(const BlurKernel &kernel, int lane, int v)
{
    return static_cast<int32_t>((kernel.table[lane / 3][v] >> (10 * (lane % 3))) & 0x3FF);
}

// Half kernel w[0..taps-1] for `sigma`: exp(-i i / q) - exp(-taps taps / q), q = 10 |sigma|,
// normalised so that w[0] + 2 (w[1] + ... ) is 1; w[0] = 1 alone when q is 0.
void HalfKernel(int32_t taps, double sigma, double *w);
// w[0] + 2 (w[1] + ... + w[taps - 1]).
double FullSum(int32_t taps, const double *w);
// One lane: (v tap 262144 + 32768, truncated, >> 16) + bias, plus 1 in lane 1.
int32_t BlurLane(int v, double tap, int32_t bias, int lane);
// The tables of one direction (taps 1..9).
void BuildBlurKernel(int32_t taps, double sigma, BlurKernel &kernel);

// Copies a row of `rowBytes` bytes into `line` between `pad` copies of its first pixel and
// `pad` copies of its last (pixels of `bpp` bytes): the edge pixels repeat outward. Returns the
// line's length in bytes.
inline ptrdiff_t PadLine(uint8_t *line, const uint8_t *row, size_t rowBytes, ptrdiff_t bpp, int32_t pad)
{
    const auto pixel = static_cast<size_t>(bpp);
    for (int32_t i = 0; i < pad; ++i)
        std::memcpy(line + bpp * i, row, pixel);
    std::memcpy(line + bpp * pad, row, rowBytes);
    for (int32_t i = 0; i < pad; ++i)
        std::memcpy(line + bpp * pad + static_cast<ptrdiff_t>(rowBytes) + bpp * i, row + rowBytes - pixel, pixel);
    return static_cast<ptrdiff_t>(rowBytes) + 2 * pad * bpp;
}

// True when the largest values of all the kernel's lanes sum to at most 1023, so that no
// sum of lanes carries into the next lane: then the wide passes give the same bytes as the
// running sums.
bool LanesStayApart(const BlurKernel &kernel);
// Words of each of the three lookup arrays, and bytes of the padded line, of a wide row.
size_t WideRowWords(int32_t width, uint32_t bpp);
// The horizontal pass over every row of `src` into `dst` (same size), with a line of
// WideRowWords bytes and three arrays of WideRowWords words.
void WideBlurRows(const BlurKernel &kernel, const uint8_t *src, uint8_t *dst, int32_t width, int32_t height,
                  uint32_t bpp, uint8_t *line, uint32_t *const words[3]);
// Bytes of work memory of the wide vertical pass.
size_t WideColumnBytes();
// The vertical pass in place over the first `columns` byte columns of `data` (rows
// `rowBytes` apart), with WideColumnBytes bytes at `work`.
void WideBlurColumns(const BlurKernel &kernel, uint8_t *data, size_t rowBytes, size_t columns, int32_t height,
                     uint8_t *work);

// The lanes of one direction as arithmetic, for the AVX2 passes: lane d's value for byte v is
// its value at 0 plus a rise, (v M + 2^14) >> 15 with M = low[d] where rounded[d], else
// ((v M >> 16) + 32) >> 6 with M = high[d] 65536 + low[d]. `constant` is twice the lanes'
// values at 0 less the bias; lanes from `reach` on are zero for every byte.
struct LaneForms {
    int32_t reach;
    bool rounded[kMaxBlurTaps];
    uint16_t high[kMaxBlurTaps], low[kMaxBlurTaps];
    int32_t constant;
};
// True, with `forms` filled in, when the kernel's lanes stay apart and every lane equals its
// arithmetic form for all 256 bytes; false when the kernel must keep the running sums.
bool FitLaneForms(const BlurKernel &kernel, LaneForms &forms);
// Bytes of the lane arrays of FormBlurRows for rows of `width` pixels.
size_t FormRowBytes(int32_t width, uint32_t bpp);
// The horizontal pass by the forms (AVX2) over every row of `src` into `dst`, with a line of
// WideRowWords bytes and FormRowBytes bytes at `lanes`.
void FormBlurRows(const LaneForms &forms, const uint8_t *src, uint8_t *dst, int32_t width, int32_t height,
                  uint32_t bpp, uint8_t *line, uint8_t *lanes);
// Bytes of work memory of FormBlurColumns.
size_t FormColumnBytes();
// The vertical pass by the forms (AVX2) in place over the first columns of `data` in whole
// vectors of 16, with FormColumnBytes bytes at `work`. Returns the columns done.
size_t FormBlurColumns(const LaneForms &forms, uint8_t *data, size_t rowBytes, size_t columns, int32_t height,
                       uint8_t *work);

}  // namespace vx::image
