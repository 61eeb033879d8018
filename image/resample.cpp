// Resampling: point/bilinear, footprint mean, area averages and separable cubics. Every source
// pixel is read once as RGBA floats (RGBA float sources are used in place); result rows are
// computed as RGBA floats and written through the result's set-line operation.
#include "image/image_internal.h"
#include "image/wide.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vx::image {
namespace {

constexpr size_t kGatherBytes = 16384;
constexpr int kGatherSamples = kGatherBytes / 16;

// The source cells [lo, hi) of a footprint, with the coverage weight of each.
struct Span {
    int32_t lo, hi;
    double firstWeight, lastWeight;  // coverage of the first and last cell (inner cells: 1)
    double total;

    double Weight(int32_t i) const { return i == lo ? firstWeight : i == hi - 1 ? lastWeight : 1.0; }
};

// The four taps of one result column or row: source indices with the edges repeated
// outward, and their weights.
struct CubicTap {
    int32_t index[4];
    float w[4];
};

// A resampling split by result rows. What every part reads (the source floats, the column
// spans or taps) is made once; each part has its own result row and working rows.
struct Job {
    VxImage *source;
    VxImage *result;
    const float *pixels;  // source as RGBA floats (the area and gather modes)
    size_t stride;        // floats per source row in `pixels`
    double sx, sy;
    int32_t mode, parts;  // parts: workers
    float *lines;         // one result row per worker
    float *gather;        // mode 1: kGatherSamples samples per worker
    Span *spans;          // modes 2, 3: the result columns' footprints
    int cells;            // modes 2, 3: cells of every column's footprint, or 0
    bool sameTotal, halvesColumns;
    double *acc;          // modes 2, 3: one row of double sums per worker
    CubicTap *taps;       // modes 4, 5: the result columns' taps
    float *sums;          // modes 4, 5: four rows of horizontal sums per worker
    float *rows;          // modes 4, 5: one converted source row per worker

    float *Line(int32_t part) const { return lines + 4 * static_cast<size_t>(result->width) * part; }
};

void WriteLine(const Job &job, int32_t y, const float *line)
{
    if (!job.result->setLine(job.result, VX_PIXEL_RGBA_FLOAT, y, line))
        CkptRecover(kLocalFailure);
}

// ---- mode 0: point sampling, or bilinear when enlarging ----

void PointRows(const Job &job, float *line, int32_t firstRow, int32_t endRow)
{
    const int32_t w = job.source->width, h = job.source->height;
    for (int32_t y = firstRow; y < endRow; ++y) {
        const int32_t row = std::min(h - 1, static_cast<int32_t>((y + 0.5) * job.sy));
        const float *src = job.pixels + job.stride * row;
        for (int32_t x = 0; x < job.result->width; ++x) {
            const int32_t col = std::min(w - 1, static_cast<int32_t>((x + 0.5) * job.sx));
            std::memcpy(line + 4 * x, src + 4 * col, 16);
        }
        WriteLine(job, y, line);
    }
}

struct LinearTap {
    int32_t i0, i1;
    float f;
};

LinearTap LinearAt(int32_t i, double step, int32_t size)
{
    const double u = std::clamp((i + 0.5) * step - 0.5, 0.0, static_cast<double>(size - 1));
    LinearTap tap;
    tap.i0 = static_cast<int32_t>(u);
    tap.i1 = std::min(tap.i0 + 1, size - 1);
    tap.f = static_cast<float>(u - tap.i0);
    return tap;
}

void BilinearRows(const Job &job, float *line, int32_t firstRow, int32_t endRow)
{
    const int32_t w = job.source->width, h = job.source->height;
    for (int32_t y = firstRow; y < endRow; ++y) {
        const LinearTap ty = LinearAt(y, job.sy, h);
        const float *top = job.pixels + job.stride * ty.i0, *bottom = job.pixels + job.stride * ty.i1;
        for (int32_t x = 0; x < job.result->width; ++x) {
            const LinearTap tx = LinearAt(x, job.sx, w);
            for (int c = 0; c < 4; ++c) {
                const float upper = top[4 * tx.i0 + c] * (1.0f - tx.f) + top[4 * tx.i1 + c] * tx.f;
                const float lower = bottom[4 * tx.i0 + c] * (1.0f - tx.f) + bottom[4 * tx.i1 + c] * tx.f;
                line[4 * x + c] = upper * (1.0f - ty.f) + lower * ty.f;
            }
        }
        WriteLine(job, y, line);
    }
}

// ---- modes 1, 2, 3: footprints ----

Span CoverSpan(double from, double to, int32_t size)
{
    from = std::max(from, 0.0);
    to = std::min(to, static_cast<double>(size));
    Span s;
    s.lo = std::min(static_cast<int32_t>(std::floor(from)), size - 1);
    s.hi = std::max(s.lo + 1, std::min(static_cast<int32_t>(std::ceil(to)), size));
    s.firstWeight = std::min(s.lo + 1.0, to) - from;
    s.lastWeight = s.hi - 1 == s.lo ? s.firstWeight : to - (s.hi - 1);
    s.total = to - from;
    if (!(s.total > 0.0)) {  // degenerate footprint: take the cell itself
        s.firstWeight = s.lastWeight = s.total = 1.0;
    }
    return s;
}

// Mode 2: the result pixel's own rectangle; mode 3: the unit square centred on x step.
Span AreaSpan(int32_t mode, int32_t i, double step, int32_t size)
{
    if (mode == 2)
        return CoverSpan(i * step, (i + 1) * step, size);
    return CoverSpan(i * step - 0.5, i * step + 0.5, size);
}

// Mode 1: every source cell the footprint touches, unweighted.
Span GatherSpan(int32_t i, double step, int32_t size)
{
    Span s;
    s.lo = std::min(static_cast<int32_t>(std::floor(i * step)), size - 1);
    s.hi = std::clamp(static_cast<int32_t>(std::ceil((i + 1) * step)), s.lo + 1, size);
    s.firstWeight = s.lastWeight = 1.0;
    s.total = s.hi - s.lo;
    return s;
}

void GatherRows(const Job &job, float *gather, float *line, int32_t firstRow, int32_t endRow)
{
    for (int32_t y = firstRow; y < endRow; ++y) {
        const Span sy = GatherSpan(y, job.sy, job.source->height);
        for (int32_t x = 0; x < job.result->width; ++x) {
            const Span sx = GatherSpan(x, job.sx, job.source->width);
            int n = 0;
            for (int32_t r = sy.lo; r < sy.hi && n < kGatherSamples; ++r)
                for (int32_t c = sx.lo; c < sx.hi && n < kGatherSamples; ++c, ++n)
                    std::memcpy(gather + 4 * n, job.pixels + job.stride * r + 4 * c, 16);
            double sum[4] = {0, 0, 0, 0};
            for (int k = 0; k < n; ++k)
                for (int c = 0; c < 4; ++c)
                    sum[c] += gather[4 * k + c];
            for (int c = 0; c < 4; ++c)
                line[4 * x + c] = static_cast<float>(sum[c] / n);
        }
        WriteLine(job, y, line);
    }
}

// One source row of a footprint, weighted by `wy`, added into the row sums `acc`: per column
// h = 0 + first weight p[lo], then + p for each inner cell, then + last weight p[hi - 1]
// (when the span has more than one cell), and acc += wy h, in double. kCells 1 or 2 is a
// row whose every span has that many cells (the same steps, without the loop); 0 is any.
// The four channels of a pixel as one vector: every lane does its own channel's steps.
using Float4 = float __attribute__((vector_size(16)));
using Double4 = double __attribute__((vector_size(32)));

// Through a reference: a vector return value would depend on the target's ABI.
[[gnu::always_inline]] inline void LoadPixel(Double4 &out, const float *p)
{
    out = Double4{p[0], p[1], p[2], p[3]};
}

template <int kCells>
[[gnu::always_inline]] inline void AreaAcross(double *__restrict acc, const float *src, const Span *columns,
                                              int32_t width, double wy)
{
    const Double4 zero = {0.0, 0.0, 0.0, 0.0};
    for (int32_t x = 0; x < width; ++x) {
        const Span &sx = columns[x];
        const float *p = src + 4 * sx.lo;
        Double4 v;
        LoadPixel(v, p);
        Double4 h = zero + sx.firstWeight * v;
        if constexpr (kCells == 2) {
            LoadPixel(v, p + 4);
            h += sx.lastWeight * v;
        } else if constexpr (kCells == 0) {
            for (int32_t c = sx.lo + 1; c < sx.hi - 1; ++c) {  // inner cells weigh 1
                LoadPixel(v, src + 4 * c);
                h += v;
            }
            if (sx.hi - 1 > sx.lo) {
                LoadPixel(v, src + 4 * (sx.hi - 1));
                h += sx.lastWeight * v;
            }
        }
        Double4 a;
        std::memcpy(&a, acc + 4 * x, 32);
        a += wy * h;
        std::memcpy(acc + 4 * x, &a, 32);
    }
}

// A whole result row when its footprint spans at most kMaxAreaRows source rows: per pixel
// a = 0 + wy h (row by row, in row order), the steps of AreaAcross over a zeroed row, then
// a / (column total row total); the sums stay in registers.
constexpr int32_t kMaxAreaRows = 4;

template <int kCells, bool kScaled, int kRows = 0>
[[gnu::always_inline]] inline void AreaRow(float *__restrict out, const float *const *rowList, const double *wyList,
                                           int32_t count, const Span *columns, int32_t width, double rowTotal,
                                           double scale)
{
    const Double4 zero = {0.0, 0.0, 0.0, 0.0};
    const int32_t n = kRows > 0 ? kRows : count;  // a fixed count unrolls the loop over rows
    const float *rows[kMaxAreaRows];
    double wy[kMaxAreaRows];
    for (int32_t r = 0; r < n; ++r) {
        rows[r] = rowList[r];
        wy[r] = wyList[r];
    }
    for (int32_t x = 0; x < width; ++x) {
        const Span &sx = columns[x];
        Double4 a = zero;
        for (int32_t r = 0; r < n; ++r) {
            const float *src = rows[r], *p = src + 4 * sx.lo;
            __builtin_prefetch(p + 1024);  // 4 KiB ahead along each source row: the next page
            Double4 v;
            LoadPixel(v, p);
            Double4 h = zero + sx.firstWeight * v;
            if constexpr (kCells == 2) {
                LoadPixel(v, p + 4);
                h += sx.lastWeight * v;
            } else if constexpr (kCells == 0) {
                for (int32_t c = sx.lo + 1; c < sx.hi - 1; ++c) {
                    LoadPixel(v, src + 4 * c);
                    h += v;
                }
                if (sx.hi - 1 > sx.lo) {
                    LoadPixel(v, src + 4 * (sx.hi - 1));
                    h += sx.lastWeight * v;
                }
            }
            a += wy[r] * h;
        }
        if constexpr (kScaled) {
            a *= scale;
        } else {
            const double total = sx.total * rowTotal;
            a /= total;
        }
        const Float4 f = __builtin_convertvector(a, Float4);
        std::memcpy(out + 4 * x, &f, 16);
    }
}

// `scale` is 1 / (column total x row total) when that product is one power of two for every
// pixel of the row, else 0: dividing by a power of two and multiplying by its inverse give
// the same double.
VX_IMAGE_CLONES void AreaRow(int cells, float *out, const float *const *rows, const double *wy, int32_t count,
                             const Span *columns, int32_t width, double rowTotal, double scale)
{
    const bool scaled = scale != 0.0;
    switch (cells * 2 + (scaled ? 1 : 0)) {
    case 2: AreaRow<1, false>(out, rows, wy, count, columns, width, rowTotal, scale); break;
    case 3: AreaRow<1, true>(out, rows, wy, count, columns, width, rowTotal, scale); break;
    case 4: AreaRow<2, false>(out, rows, wy, count, columns, width, rowTotal, scale); break;
    case 5:
        if (count == 2)  // halving
            AreaRow<2, true, 2>(out, rows, wy, count, columns, width, rowTotal, scale);
        else
            AreaRow<2, true>(out, rows, wy, count, columns, width, rowTotal, scale);
        break;
    default:
        if (scaled)
            AreaRow<0, true>(out, rows, wy, count, columns, width, rowTotal, scale);
        else
            AreaRow<0, false>(out, rows, wy, count, columns, width, rowTotal, scale);
        break;
    }
}

bool PowerOfTwo(double v)
{
    int exponent;
    return v > 0.0 && std::isfinite(v) && std::frexp(v, &exponent) == 0.5;
}

VX_IMAGE_CLONES void AreaAcross(int cells, double *acc, const float *src, const Span *columns, int32_t width,
                                double wy)
{
    switch (cells) {
    case 1: AreaAcross<1>(acc, src, columns, width, wy); break;
    case 2: AreaAcross<2>(acc, src, columns, width, wy); break;
    default: AreaAcross<0>(acc, src, columns, width, wy); break;
    }
}

// Separable weighted average: each source row of the footprint is summed across with the
// column weights, the row sums are summed down with the row weights, both in double, and
// the total is divided by the product of the weight totals.
// The result columns' footprints, and what holds for all of them.
void AreaColumns(Job &job)
{
    const int32_t width = job.result->width;
    Span *columns = job.spans;
    for (int32_t x = 0; x < width; ++x)
        columns[x] = AreaSpan(job.mode, x, job.sx, job.source->width);
    int cells = columns[0].hi - columns[0].lo;
    for (int32_t x = 1; x < width && cells > 0; ++x)
        if (columns[x].hi - columns[x].lo != cells)
            cells = 0;
    bool sameTotal = true;  // every column's total the same double
    for (int32_t x = 1; x < width && sameTotal; ++x)
        sameTotal = columns[x].total == columns[0].total;
    // Exactly half the width: every result pixel covers source columns 2x and 2x + 1 whole.
    bool halvesColumns = cells == 2 && VbmiPathsAvailable();
    for (int32_t x = 0; x < width && halvesColumns; ++x)
        halvesColumns = columns[x].lo == 2 * x && columns[x].firstWeight == 1.0 && columns[x].lastWeight == 1.0;
    job.cells = cells;
    job.sameTotal = sameTotal;
    job.halvesColumns = halvesColumns;
}

void AreaRows(const Job &job, double *acc, float *ownLine, int32_t firstRow, int32_t endRow)
{
    const int32_t width = job.result->width, mode = job.mode, cells = job.cells;
    const Span *columns = job.spans;
    const bool sameTotal = job.sameTotal, halvesColumns = job.halvesColumns;
    const bool inPlace = job.result->type == VX_PIXEL_RGBA_FLOAT;
    for (int32_t y = firstRow; y < endRow; ++y) {
        const Span sy = AreaSpan(mode, y, job.sy, job.source->height);
        float *line = inPlace ? reinterpret_cast<float *>(Row(job.result, y)) : ownLine;
        const int32_t count = sy.hi - sy.lo;
        if (count <= kMaxAreaRows) {
            const float *rows[kMaxAreaRows];
            double wy[kMaxAreaRows];
            for (int32_t r = 0; r < count; ++r) {
                rows[r] = job.pixels + job.stride * (sy.lo + r);
                wy[r] = sy.Weight(sy.lo + r);
            }
            const double product = columns[0].total * sy.total;
            const double scale = sameTotal && PowerOfTwo(product) ? 1.0 / product : 0.0;
            int32_t done = 0;
            if (halvesColumns && count == 2 && wy[0] == 1.0 && wy[1] == 1.0 && scale == 0.25)
                done = static_cast<int32_t>(HalveRgbaFloatsWide(rows[0], rows[1], static_cast<size_t>(width), line));
            AreaRow(cells, line + 4 * done, rows, wy, count, columns + done, width - done, sy.total, scale);
        } else {
            std::fill(acc, acc + 4 * static_cast<size_t>(width), 0.0);
            for (int32_t r = sy.lo; r < sy.hi; ++r)
                AreaAcross(cells, acc, job.pixels + job.stride * r, columns, width, sy.Weight(r));
            for (int32_t x = 0; x < width; ++x) {
                const double total = columns[x].total * sy.total;
                for (int k = 0; k < 4; ++k)
                    line[4 * x + k] = static_cast<float>(acc[4 * x + k] / total);
            }
        }
        if (!inPlace)
            WriteLine(job, y, line);
    }
}

// ---- modes 4, 5: separable cubics ----

CubicTap CubicAt(int32_t mode, int32_t i, double step, int32_t size)
{
    const double u = (i + 0.5) * step - 0.5;
    double t = u - static_cast<double>(static_cast<int64_t>(u));
    if (t < 0.0)
        t += 1.0;
    double w[4];
    CubicWeights(mode, t, w);
    CubicTap tap;
    const auto first = static_cast<int32_t>(std::floor(u)) - 1;
    for (int k = 0; k < 4; ++k) {
        tap.index[k] = std::clamp(first + k, 0, size - 1);
        tap.w[k] = static_cast<float>(w[k]);
    }
    return tap;
}

// Horizontal pass of one source row into `out` (result width x 4 floats):
// ((w0 p0 + w1 p1) + w2 p2) + w3 p3 per channel.
void CubicAcross(const float *src, const CubicTap *taps, int32_t width, float *__restrict out)
{
    for (int32_t x = 0; x < width; ++x) {
        const int32_t *i = taps[x].index;
        const float *w = taps[x].w;
        Float4 p0, p1, p2, p3;
        std::memcpy(&p0, src + 4 * i[0], 16);
        std::memcpy(&p1, src + 4 * i[1], 16);
        std::memcpy(&p2, src + 4 * i[2], 16);
        std::memcpy(&p3, src + 4 * i[3], 16);
        const Float4 r = ((w[0] * p0 + w[1] * p1) + w[2] * p2) + w[3] * p3;
        std::memcpy(out + 4 * x, &r, 16);
    }
}

// The cubic modes read each needed source row once (in place for RGBA float sources,
// else converted into `row`); `sums` keeps the horizontal sums of four rows, slot r & 3 for
// source row r (the rows one result row needs are consecutive, so their slots differ).
void CubicRows(const Job &job, float *sums, float *row, float *ownLine, int32_t firstRow, int32_t endRow)
{
    VxImage *source = job.source;
    const int32_t width = job.result->width, mode = job.mode;
    const size_t rowFloats = 4 * static_cast<size_t>(width);
    const CubicTap *columns = job.taps;
    int32_t tags[4] = {-1, -1, -1, -1};
    const bool inPlace = job.result->type == VX_PIXEL_RGBA_FLOAT;
    for (int32_t y = firstRow; y < endRow; ++y) {
        const CubicTap ty = CubicAt(mode, y, job.sy, source->height);
        const float *h[4];
        for (int k = 0; k < 4; ++k) {
            const int32_t r = ty.index[k];
            float *slot = sums + rowFloats * (r & 3);
            if (tags[r & 3] != r) {
                const float *src = row;
                if (source->type == VX_PIXEL_RGBA_FLOAT)
                    src = reinterpret_cast<const float *>(source->priv->pixels) + 4 * static_cast<size_t>(source->width) * r;
                else if (!source->getLine(source, VX_PIXEL_RGBA_FLOAT, r, row))
                    CkptRecover(kLocalFailure);
                CubicAcross(src, columns, width, slot);
                tags[r & 3] = r;
            }
            h[k] = slot;
        }
        const float w0 = ty.w[0], w1 = ty.w[1], w2 = ty.w[2], w3 = ty.w[3];
        float *__restrict line = inPlace ? reinterpret_cast<float *>(Row(job.result, y)) : ownLine;
        for (size_t i = 0; i < rowFloats; ++i)
            line[i] = ((w0 * h[0][i] + w1 * h[1][i]) + w2 * h[2][i]) + w3 * h[3][i];
        if (!inPlace)
            WriteLine(job, y, line);
    }
}

void ScaleAspect(VxImage *result, const VxImage *source)
{
    float aspect;
    if (!result->getAttribute(result, 0, &aspect))
        return;
    const double factor = (static_cast<double>(result->width) / result->height) *
                          (static_cast<double>(source->height) / source->width);
    aspect = static_cast<float>(aspect * factor);
    result->setAttribute(result, 0, &aspect);
}

// Result rows [first, end), with the scratch of worker `worker`.
void RowsPiece(void *context, int32_t worker, int32_t first, int32_t end)
{
    const Job &job = *static_cast<const Job *>(context);
    const auto width = static_cast<size_t>(job.result->width);
    const auto p = static_cast<size_t>(worker);
    float *line = job.Line(worker);
    switch (job.mode) {
    case 0:
        if (job.result->width > job.source->width || job.result->height > job.source->height)
            BilinearRows(job, line, first, end);
        else
            PointRows(job, line, first, end);
        break;
    case 1: GatherRows(job, job.gather + 4 * kGatherSamples * p, line, first, end); break;
    case 2:
    case 3: AreaRows(job, job.acc + 4 * width * p, line, first, end); break;
    default:
        CubicRows(job, job.sums + 16 * width * p, job.rows + 4 * static_cast<size_t>(job.source->width) * p, line,
                  first, end);
        break;
    }
}

// Source rows [first, end) as RGBA floats.
void ReadPiece(void *context, int32_t, int32_t first, int32_t end)
{
    const Job &job = *static_cast<const Job *>(context);
    VxImage *source = job.source;
    auto *pixels = const_cast<float *>(job.pixels);
    for (int32_t y = first; y < end; ++y)
        if (!source->getLine(source, VX_PIXEL_RGBA_FLOAT, y, pixels + job.stride * static_cast<size_t>(y)))
            CkptRecover(kLocalFailure);
}

void RunMode(Job &job, Scratch &scratch)
{
    VxImage *source = job.source;
    const size_t width = static_cast<size_t>(job.result->width), parts = static_cast<size_t>(job.parts);
    job.lines = scratch.Take<float>(16 * width * parts);
    if (job.mode >= 4) {
        job.taps = scratch.Take<CubicTap>(sizeof(CubicTap) * width);
        for (int32_t x = 0; x < job.result->width; ++x)
            job.taps[x] = CubicAt(job.mode, x, job.sx, source->width);
        job.sums = scratch.Take<float>(64 * width * parts);
        job.rows = scratch.Take<float>(16 * static_cast<size_t>(source->width) * parts);
        RunPieces(job.parts, job.result->height, RowsPiece, &job);
        return;
    }
    job.stride = 4 * static_cast<size_t>(source->width);
    if (source->type == VX_PIXEL_RGBA_FLOAT) {
        // Already the float RGBA buffer the other types are read into: used in place.
        job.pixels = reinterpret_cast<const float *>(source->priv->pixels);
    } else {
        job.pixels = scratch.Take<float>((4 * job.stride * static_cast<size_t>(source->height)));
        const int32_t readers = PartsFor(source->height, static_cast<int64_t>(source->width) * source->height);
        RunPieces(readers, source->height, ReadPiece, &job);
    }
    if (job.mode == 1) {
        job.gather = scratch.Take<float>(kGatherBytes * parts);
    } else if (job.mode >= 2) {
        job.acc = scratch.Take<double>(4 * sizeof(double) * width * parts);
        job.spans = scratch.Take<Span>(sizeof(Span) * width);
        AreaColumns(job);
    }
    RunPieces(job.parts, job.result->height, RowsPiece, &job);
}

}  // namespace

void CubicWeights(int32_t mode, double t, double w[4])
{
    const double d = 1.0 + t, s = 1.0 - t;
    if (mode == 4) {
        w[0] = ((-1.0 / 6.0 * d + 1.0) * d - 2.0) * d + 4.0 / 3.0;
        w[1] = (0.5 * t - 1.0) * t * t + 2.0 / 3.0;
        w[2] = (0.5 * s - 1.0) * s * s + 2.0 / 3.0;
        w[3] = 1.0 - w[0] - w[1] - w[2];
    } else {
        const double e = 2.0 - t;
        w[0] = ((-0.5 * d + 2.5) * d - 4.0) * d + 2.0;
        w[1] = (1.5 * t - 2.5) * t * t + 1.0;
        w[2] = (1.5 * s - 2.5) * s * s + 1.0;
        w[3] = ((-0.5 * e + 2.5) * e - 4.0) * e + 2.0;
    }
}

}  // namespace vx::image

using namespace vx::image;

extern "C" {

VX_API VxImage *ImageResample(VxImage *image, int32_t type, int32_t width, int32_t height, int32_t mode)
{
    if (!image || width < 1 || height < 1 || !ImageBytesPerPixel(type) || mode < 0 || mode > 5)
        return nullptr;
    Scratch scratch;
    VX_IMAGE_BEGIN(nullptr);
    ArmScratch(scratch);
    Job job{};
    job.source = image;
    job.result = ImageCreate(type, width, height);
    CkptArm(DestroyImageArm, reinterpret_cast<uintptr_t>(job.result), 0);
    CopyPalettes(job.result, image);
    job.sx = static_cast<double>(image->width) / width;
    job.sy = static_cast<double>(image->height) / height;
    job.mode = mode;
    // The work of a result row grows with the source rows and columns it covers as well.
    const int64_t covered = std::max<int64_t>(1, static_cast<int64_t>(image->width) * image->height /
                                                     (static_cast<int64_t>(width) * height));
    job.parts = PartsFor(height, static_cast<int64_t>(width) * height * covered);
    if (job.parts > 1 && type == VX_PIXEL_INDEX)
        StoredInverse(job.result);  // built here, not by the first worker to write a row
    RunMode(job, scratch);
    ScaleAspect(job.result, image);
    VxImage *result = job.result;
    CkptEnd();
    scratch.Release();
    return result;
}

VX_API VxImage *ImageResample2(VxImage *image, int32_t type, int32_t width, int32_t height, int32_t shrinkMode,
                               int32_t growMode)
{
    if (!image || width < 1 || height < 1)
        return nullptr;
    const bool sameWidth = width == image->width, sameHeight = height == image->height;
    if (sameWidth && sameHeight)
        return ImageDuplicate(image, type, nullptr);
    if (sameWidth)
        return ImageResample(image, type, width, height, height < image->height ? shrinkMode : growMode);
    if (sameHeight)
        return ImageResample(image, type, width, height, width < image->width ? shrinkMode : growMode);
    const bool shrinkW = width < image->width, shrinkH = height < image->height;
    if (shrinkW == shrinkH)
        return ImageResample(image, type, width, height, shrinkW ? shrinkMode : growMode);
    // Mixed: the shrinking direction is resampled into an intermediate that is then discarded;
    // the result is the grow-mode resample of the source itself.
    VX_IMAGE_BEGIN(nullptr);
    VxImage *intermediate = shrinkW ? ImageResample(image, VX_PIXEL_RGBA_FLOAT, width, image->height, shrinkMode)
                                    : ImageResample(image, VX_PIXEL_RGBA_FLOAT, image->width, height, shrinkMode);
    if (!intermediate)
        CkptRecover(kLocalFailure);
    CkptArm(DestroyImageArm, reinterpret_cast<uintptr_t>(intermediate), 0);
    VxImage *result = ImageResample(image, type, width, height, growMode);
    if (!result)
        CkptRecover(kLocalFailure);
    CkptEnd();
    ImageDestroy(intermediate);
    return result;
}

}  // extern "C"
