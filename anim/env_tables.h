// Evaluation tables: the keys of an envelope in an array and, per segment, what its curve takes
// from its keys, so that an evaluation finds its segment by halving and skips the tangent
// rules. Each value is computed by the same expressions as the key walk in env_eval.cpp, so
// both give the same bits. The lookup of a time inside the key range is inline here, for
// EnvEvaluate; building and filling the tables is in env_tables.cpp.
#pragma once

#include "anim/envelope_internal.h"

#include <bit>

namespace vx::env {

// Which curve a segment holds. The kinds evaluated inline come first; the others (an
// unfilled segment included) go to OtherValue.
enum SegmentKind : int32_t {
    kHold,      // stepped, or linear over one tick: c[0] = start value
    kLinear,    // c = start value, end value
    kBezier,    // c = start value, first and second control value, end value
    kHermite,   // c = start value, end value, out tangent, in tangent
    kUnfilled,  // not evaluated since the tables were built
    kBezier2,   // x and y: the time and value curves
    // x only: the value curve reads the start key's cached out tangent, which the tangent rules
    // may rewrite, so it is built from the keys at each evaluation.
    kBezier2KeysY,
};

struct Segment {
    // The times whose ticks lie strictly between the keys' are those whose OrderKey k has
    // k - from < width as unsigned numbers: a lookup never converts a time to its tick.
    int64_t from;
    uint64_t width;
    SegmentKind kind;
    bool increasing;  // 2-D Bezier: x(s) as computed rises from each bisection probe to the next
    bool straight;    // 2-D Bezier: and its time curve is all but a straight line
    double base;      // -(start time), so that u = (t + base) / span
    double span;      // the segment's length in seconds
    double c[4];
    PowerCubic x, y;
    double invRange;  // 2-D Bezier: 1 / (x(1) - x(0)), for a first guess of the parameter
    // 2-D Bezier: 1 + the parameter 0.0001 seconds before and after t, at that rate, are
    // t * invRange plus these.
    double onePlusLo, onePlusHi;
};

}  // namespace vx::env

struct VxEnvTables {
    size_t bytes;
    int32_t capacity;  // keys the block has room for
    int32_t count;     // keys
    int32_t last;      // the segment evaluated last, tried first
    VxEnvKey **keys;
    int64_t *starts;  // per key, OrderKey of the least time whose tick is the key's or later
    vx::env::Segment *segments;
};

namespace vx::env {

// The segment i at t, whose tick lies strictly inside it, plus `offset`, for the kinds not
// evaluated inline: 2-D Bezier, and an unfilled segment, which it fills first.
double OtherValue(VxEnvTables *tables, int32_t i, double t, double offset);

// The segment i at t, whose tick lies strictly inside it, plus `offset`.
[[gnu::always_inline]] inline double TableCurve(VxEnvTables *tables, int32_t i, double t, double offset)
{
    const Segment &seg = tables->segments[i];
    const double *c = seg.c;
    switch (seg.kind) {
    case kHold: return offset + c[0];
    case kLinear: return LinearCurve(offset, c[0], c[1], (t + seg.base) / seg.span);
    case kBezier: return BezierCurve(offset, c[0], c[1], c[2], c[3], (t + seg.base) / seg.span);
    case kHermite: return HermiteCurve(offset, c[0], c[1], c[2], c[3], (t + seg.base) / seg.span);
    default: return OtherValue(tables, i, t, offset);
    }
}

// The bits of t as an integer that orders as t does, NaN aside (-0.0 comes just before 0.0):
// negative numbers have all bits but the sign flipped.
inline int64_t OrderKey(double t)
{
    const auto bits = std::bit_cast<int64_t>(t);
    return bits ^ ((bits >> 63) & INT64_MAX);
}

// True when segment i holds the time whose OrderKey is `key` strictly inside its ticks.
inline bool Inside(const VxEnvTables *tables, int32_t i, int64_t key)
{
    const Segment &seg = tables->segments[i];
    return static_cast<uint64_t>(key) - static_cast<uint64_t>(seg.from) < seg.width;
}

// The segment i with starts[i] <= key < starts[i + 1], or the first or last one when key lies
// outside them, by halving without branches.
[[gnu::always_inline]] inline int32_t SegmentAt(const VxEnvTables *tables, int64_t key)
{
    const int64_t *starts = tables->starts;
    int32_t i = 0;
    for (int32_t len = tables->count - 1; len > 1;) {
        const int32_t half = len / 2;
        i = starts[i + half] <= key ? i + half : i;
        len -= half;
    }
    return i;
}

// The segment whose ticks strictly inside it hold t's, or -1 when t's tick is a key's or lies
// outside the keys, or t is NaN: the segment evaluated last when it holds t (playback), else
// found by halving.
[[gnu::always_inline]] inline int32_t InnerSegment(VxEnvTables *tables, double t)
{
    const int64_t key = OrderKey(t);
    int32_t i = tables->last;
    if (!Inside(tables, i, key)) {
        i = SegmentAt(tables, key);
        tables->last = i;
        if (!Inside(tables, i, key))
            return -1;
    }
    return i;
}

// The curve at t from current tables when t's tick lies strictly inside a segment (with the
// offset 0.0 of the key range); false for any other time, or stale tables.
[[gnu::always_inline]] inline bool TablesInnerValue(VxEnvelope *env, double t, double &value)
{
    VxEnvTables *tables = env->current;
    if (!tables)
        return false;
    const int32_t i = InnerSegment(tables, t);
    if (i < 0)
        return false;
    value = TableCurve(tables, i, t, 0.0);
    return true;
}

}  // namespace vx::env
