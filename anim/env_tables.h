// Evaluation tables: the keys of an envelope in an array and, per segment, what its curve takes
// from its keys, so that an evaluation finds its segment by halving and skips the tangent
// rules. Each value is computed by the same expressions as the key walk in env_eval.cpp, so
// both give the same bits. The lookup of a time inside the key range is inline here, for
// EnvEvaluate; building and filling the tables is in env_tables.cpp.
#pragma once

#include "anim/envelope_internal.h"

namespace vx::env {

enum SegmentKind : int32_t {
    kUnfilled,  // not evaluated since the tables were built
    kHold,      // stepped, or linear over one tick: c[0] = start value
    kLinear,    // c = start value, end value
    kBezier,    // c = start value, first and second control value, end value
    kHermite,   // c = start value, end value, out tangent, in tangent
    kBezier2,   // x and y: the time and value curves
    // x only: the value curve reads the start key's cached out tangent, which the tangent rules
    // may rewrite, so it is built from the keys at each evaluation.
    kBezier2KeysY,
};

struct Segment {
    SegmentKind kind;
    bool increasing;  // 2-D Bezier: x(s) as computed rises from each bisection probe to the next
    bool straight;    // 2-D Bezier: and its time curve is all but a straight line
    double base;      // -(start time), so that u = (t + base) / span
    double span;      // the segment's length in seconds
    double c[4];
    PowerCubic x, y;
    double invRange;  // 2-D Bezier: 1 / (x(1) - x(0)), for a first guess of the parameter
};

}  // namespace vx::env

struct VxEnvTables {
    size_t bytes;
    int32_t capacity;  // keys the block has room for
    int32_t count;     // keys
    int32_t last;      // the segment evaluated last, tried first
    VxEnvKey **keys;
    int32_t *ticks;
    vx::env::Segment *segments;
};

namespace vx::env {

// Fills segment i from its keys when it is first evaluated after an edit.
void FillSegment(VxEnvTables *tables, int32_t i);
// A 2-D Bezier segment i at t, plus `offset`.
double Bezier2Value(const VxEnvTables *tables, int32_t i, double t, double offset);

// The filled segment i at t, whose tick lies strictly inside it, plus `offset`.
[[gnu::always_inline]] inline double FilledValue(const VxEnvTables *tables, int32_t i, double t, double offset)
{
    const Segment &seg = tables->segments[i];
    const double *c = seg.c;
    switch (seg.kind) {
    case kHold: return offset + c[0];
    case kLinear: return LinearCurve(offset, c[0], c[1], (t + seg.base) / seg.span);
    case kBezier: return BezierCurve(offset, c[0], c[1], c[2], c[3], (t + seg.base) / seg.span);
    case kHermite: return HermiteCurve(offset, c[0], c[1], c[2], c[3], (t + seg.base) / seg.span);
    default: return Bezier2Value(tables, i, t, offset);
    }
}

// The segment i with ticks[i] <= n < ticks[i + 1], or -1 when n lies before the first key or
// on or after the last: the segment evaluated last when it holds n (playback), else found by
// halving.
[[gnu::always_inline]] inline int32_t FindSegment(VxEnvTables *tables, int32_t n)
{
    const int32_t *ticks = tables->ticks;
    int32_t i = tables->last;
    if (ticks[i] <= n && n < ticks[i + 1])
        return i;
    if (!(n >= ticks[0] && n < ticks[tables->count - 1]))
        return -1;
    i = 0;
    for (int32_t len = tables->count - 1; len > 1;) {
        const int32_t half = len / 2;
        i = ticks[i + half] <= n ? i + half : i;
        len -= half;
    }
    tables->last = i;
    return i;
}

// The curve at t from current tables when t's tick lies in a filled segment (with the offset
// 0.0 of the key range); false for any other time, or stale tables.
[[gnu::always_inline]] inline bool TablesInnerValue(VxEnvelope *env, double t, double &value)
{
    VxEnvTables *tables = env->current;
    if (!tables)
        return false;
    const int32_t n = TickOf(t);
    const int32_t i = FindSegment(tables, n);
    if (i < 0)
        return false;
    if (n == tables->ticks[i]) {
        value = 0.0 + tables->keys[i]->value;
        return true;
    }
    if (tables->segments[i].kind == kUnfilled)
        return false;
    value = FilledValue(tables, i, t, 0.0);
    return true;
}

}  // namespace vx::env
