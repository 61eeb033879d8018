// Evaluation: the tangent rules, the segment shapes, the pre/post behaviours, the 2-D Bezier
// solve and the modifier walk.
#include "anim/envelope_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace vx::env {
namespace {

constexpr double kThird = 0.3333333333333333;

// tick(x) of a handle stored as an absolute time, as the 2-D Bezier tangents read it.
double HandleTick(double seconds) { return static_cast<double>(TickOf(seconds)); }

// A cubic with control values c0 ... c3, in power form: c0 + a s + b s^2 + d s^3.
struct PowerCubic {
    double c0, a, b, d;
    PowerCubic(double p0, double p1, double p2, double p3)
        : c0(p0), a((p1 - p0) * 3.0), b((p2 - p1) * 3.0 - a), d(p3 - p0 - a - b)
    {
    }
    double At(double s) const { return c0 + a * s + b * (s * s) + d * (s * s * s); }
    // A cubic from its power-form coefficients, kept from an earlier construction.
    static PowerCubic Of(double c0, double a, double b, double d)
    {
        PowerCubic p(0.0, 0.0, 0.0, 0.0);
        p.c0 = c0, p.a = a, p.b = b, p.d = d;
        return p;
    }
};

// The x curve of the 2-D Bezier segment from S to E: time against the curve parameter.
PowerCubic Bezier2X(const VxEnvKey *s, const VxEnvKey *e)
{
    const double sTime = SecondsOf(s->tick);
    const double eTime = SecondsOf(e->tick);
    double x1;
    if (s->shape == ENV_SHAPE_BEZIER2) {
        x1 = sTime + s->p[2];
    } else {
        const double dtSeconds = static_cast<double>(int64_t{e->tick} - s->tick) * kTickSeconds;
        x1 = sTime + dtSeconds * kThird;
    }
    const double x2 = eTime + e->p[0];
    return PowerCubic(sTime, x1, x2, eTime);
}

// The y curve of the same segment: the value against the curve parameter.
PowerCubic Bezier2Y(const VxEnvKey *s, const VxEnvKey *e)
{
    const double y1 = s->shape == ENV_SHAPE_BEZIER2 ? s->value + s->p[3] : s->value + s->p[4] * kThird;
    const double y2 = e->value + e->p[1];
    return PowerCubic(s->value, y1, y2, e->value);
}

// The curve parameter where x(s) = t: bisection of [0, 1], stopped within 0.0001 seconds or
// after 17 probes.
double Bezier2Solve(const PowerCubic &xCurve, double t)
{
    double lo = 0.0, hi = 1.0, mid = 0.0;
    for (int i = 0;; ++i) {
        mid = lo + (hi - lo) * 0.5;
        if (i > 16)
            break;
        const double x = xCurve.At(mid);
        if (std::fabs(t - x) < 0.0001)
            break;
        // Selected without a branch: the direction is a coin toss the predictor cannot learn.
        const bool below = x < t;
        lo = below ? mid : lo;
        hi = below ? hi : mid;
    }
    return mid;
}

// Bounds of a time curve x on [0, 1]. `error` bounds the rounding error of a value as
// PowerCubic::At computes it (below 6 units in the last place of the sum of the coefficient
// magnitudes; 16 are taken). `slope` is at most the least slope of the exact cubic: the least
// of its slopes at the ends and at its turning point, less a margin for their rounding.
struct CurveBounds {
    double error;
    double slope;
};

// At most the least slope of the exact cubic x on [from, to] (within [0, 1]): the least of its
// slopes at the ends and at its turning point, less a margin for their rounding.
double LeastSlope(const PowerCubic &x, double from, double to)
{
    constexpr double kUlp = 0x1p-53;
    const double slopeError = 16.0 * kUlp * (std::fabs(x.a) + 2.0 * std::fabs(x.b) + 3.0 * std::fabs(x.d));
    auto slope = [&x](double s) { return x.a + 2.0 * x.b * s + 3.0 * x.d * (s * s); };
    double lowest = std::fmin(slope(from), slope(to));
    if (x.d != 0.0) {
        const double turn = -x.b / (3.0 * x.d);
        if (turn > from && turn < to)
            lowest = std::fmin(lowest, slope(turn));
    }
    return lowest - slopeError;
}

CurveBounds BoundsOf(const PowerCubic &x)
{
    constexpr double kUlp = 0x1p-53;
    const double error = 16.0 * kUlp * (std::fabs(x.c0) + std::fabs(x.a) + std::fabs(x.b) + std::fabs(x.d));
    return {error, LeastSlope(x, 0.0, 1.0)};
}

// The probes of the bisection are the points j / 2^17 (0 < j < 2^17); the parameter it ends on
// is k / 2^18. True when x(s), evaluated as PowerCubic::At evaluates it, cannot decrease
// between neighbouring probes: the curve's least slope outruns twice the rounding error of
// its values across 2^-17.
bool IncreasingAtProbes(const CurveBounds &bounds) { return bounds.slope > 4.0 * bounds.error * 131072.0; }

// Where the bisection of an increasing x(s) ends, found without walking it: from a guess of
// the parameter of x(s) = t and of ds/dx there follows the end point (the coarsest probe
// within 0.0001 seconds of t, or the point between the two probes that bracket t). Increasing
// values make the bisection's choices at all earlier probes follow from those at the two
// probes that bracket the end point, so checking those (and the end point itself) confirms
// the guess: the result is the bisection's to the bit. False, with `mid` untouched, when not
// confirmed. The guess comes in units of the probes' spacing 2^-17: `scaled` is s * 2^17 + 1
// and `reach` is 0.0001 * ds/dx * 2^17, the parameters within 0.0001 seconds of t.
[[gnu::always_inline]] inline bool Bezier2Confirm(const PowerCubic &x, double t, double scaled, double reach, double &mid)
{
    // The probes within reach lie in [floor(lo) + 1, floor(hi)] for lo and hi one lower, so
    // truncation stands in for the floor. A rounding that moves the candidate only costs a
    // failed check below.
    const double lo = scaled - reach, hi = scaled + reach;
    if (!(lo > 0.0 && hi > lo && hi < 131074.0))
        return false;
    const int64_t jLo = std::max<int64_t>(static_cast<int64_t>(lo), 1);
    const int64_t jHi = std::min<int64_t>(static_cast<int64_t>(hi) - 1, 131071);
    constexpr double kUnit = 0x1p-18;
    int64_t k;  // the end point, in units of 2^-18, in [1, 2^18 - 1]
    if (jLo <= jHi) {
        // The probe in [jLo, jHi] with the most trailing zero bits is the first one reached;
        // the bisection stops there when it is within 0.0001 seconds of t.
        const uint64_t differ = static_cast<uint64_t>((jLo - 1) ^ jHi);
        const int top = 63 - __builtin_clzll(differ);
        k = 2 * (jHi & ~((int64_t{1} << top) - 1));
        if (!(std::fabs(t - x.At(static_cast<double>(k) * kUnit)) < 0.0001))
            return false;
    } else {
        // No probe within reach: the point between the two that bracket s.
        k = 2 * std::clamp<int64_t>(static_cast<int64_t>(scaled), 1, 131072) - 1;
    }
    // The interval [below, above] that the bisection has narrowed to when it reaches k. A
    // bound at 0 or 1 is no probe; it is checked all the same, and passes when t lies inside
    // the segment (then t is more than 0.0001 seconds from both ends).
    const int64_t lowest = k & -k;
    if (!(t - x.At(static_cast<double>(k - lowest) * kUnit) >= 0.0001))
        return false;
    if (!(t - x.At(static_cast<double>(k + lowest) * kUnit) <= -0.0001))
        return false;
    mid = static_cast<double>(k) * kUnit;
    return true;
}

// The same from a start at the straight line through the curve's ends, refined by two Newton
// steps.
[[gnu::noinline]] bool Bezier2Guess(const PowerCubic &x, double invRange, double t, double &mid)
{
    double s = (t - x.c0) * invRange;
    const double r = 1.0 / (x.a + 2.0 * x.b * s + 3.0 * x.d * (s * s));
    s -= (x.At(s) - t) * r;
    s -= (x.At(s) - t) * r;
    return Bezier2Confirm(x, t, s * 131072.0 + 1.0, 0.0001 * r * 131072.0, mid);
}

// The 2-D Bezier segment from S to E at time t: bisection for x(s) = t, then y(s).
double Bezier2Segment(const VxEnvKey *s, const VxEnvKey *e, double t)
{
    return Bezier2Y(s, e).At(Bezier2Solve(Bezier2X(s, e), t));
}

double Hermite(VxEnvKey *s, VxEnvKey *e, double u)
{
    const double u2 = u * u;
    const double u3 = u2 * u;
    const double h1 = 2.0 * u3 - 3.0 * u2 + 1.0;
    const double h2 = 3.0 * u2 - 2.0 * u3;
    const double h3 = u3 - 2.0 * u2 + u;
    const double h4 = u3 - u2;
    return s->value * h1 + e->value * h2 + OutTangent(s) * h3 +
           InTangent(e) * h4;
}

double Bezier1(VxEnvKey *s, VxEnvKey *e, double u)
{
    const double a = s->value + OutTangent(s) * kThird;
    const double b = e->value + InTangent(e) * -kThird;
    const double u2 = u * u;
    const double u3 = u2 * u;
    const double w0 = 1.0 - 3.0 * u + 3.0 * u2 - u3;
    const double w1 = 3.0 * u - 6.0 * u2 + 3.0 * u3;
    const double w2 = 3.0 * u2 - 3.0 * u3;
    return s->value * w0 + a * w1 + b * w2 + e->value * u3;
}

// The curve at t inside or at the ends of the key range, found by walking the key list from
// the playback start key. `probeBefore` marks the Linear pre-behaviour probe, which reads a
// Hermite-family segment starting at a 2-D Bezier key from the 2-D Bezier curve.
double WalkSegmentValue(VxEnvelope *env, double t, int32_t n, bool probeBefore, double offset = 0.0)
{
    VxEnvKey *s = nullptr;
    VxEnvKey *e = nullptr;
    VxEnvKey *k = FirstKey(env);
    if (env->hint && env->hint->tick < n) {
        s = env->hint;
        k = NextKey(s);
    }
    for (; k; k = NextKey(k)) {
        if (k->tick == n)
            return offset + k->value;
        if (k->tick > n) {
            e = k;
            break;
        }
        s = k;
    }
    env->hint = s;
    if (!s)
        return offset + e->value;
    if (!e)
        return offset + s->value;
    const int64_t dt = int64_t{e->tick} - s->tick;
    if (e->shape == ENV_SHAPE_STEPPED || (e->shape == ENV_SHAPE_LINEAR && dt <= 1))
        return offset + (n < e->tick ? s->value : e->value);
    const double u = (t + static_cast<double>(s->tick) * -kTickSeconds) / (static_cast<double>(dt) * kTickSeconds);
    switch (e->shape) {
    case ENV_SHAPE_LINEAR: return offset + s->value + (e->value - s->value) * u;
    case ENV_SHAPE_BEZIER: return Bezier1(s, e, u) + offset;
    case ENV_SHAPE_BEZIER2: return Bezier2Segment(s, e, t) + offset;
    default:
        if (probeBefore && s->shape == ENV_SHAPE_BEZIER2)
            return Bezier2Segment(s, e, t) + offset;
        return Hermite(s, e, u) + offset;
    }
}

}  // namespace
}  // namespace vx::env

// ---- Evaluation tables ------------------------------------------------------------------
//
// The keys in an array (their ticks apart, for the segment search) and, per segment, what
// depends on its keys only, filled in when the segment is first evaluated after an edit. Each
// value is computed by the same expression as on the list walk, so both give the same bits;
// filling a segment calls the tangent rules once, as the walk does on every evaluation, and so
// leaves the same tangents cached in the keys.

namespace {

enum SegmentKind : int32_t {
    kUnfilled = 0,
    kHold,       // stepped, or linear over one tick: c = start value
    kLinear,     // c = start value, end - start
    kBezier,     // c = start value, first and second control value, end value
    kHermite,    // c = start value, end value, out tangent, in tangent
    kBezier2,    // c = time and value curves (c0, a, b, d) in pairs, see Segment
    kBezier2Y,   // c = time curve; the value curve reads a tangent the tangent rules may rewrite
};

struct InverseCells;

struct Segment {
    int32_t kind;
    bool increasing;      // 2-D Bezier: x(s) as computed never decreases from one probe to the next
    InverseCells *cells;  // 2-D Bezier: its cells in VxEnvTables::inverse, or NULL when it has none
    double keyEnd;        // EdgeTime(start key's tick + 1): a time below it has the start key's tick
    double base;          // -(start time), so that u = (t + base) / span
    double span;          // the segment's length in seconds
    // The kinds up to kHermite use c[0] ... c[3] as their comments say. 2-D Bezier segments
    // keep the power-form coefficients (c0, a, b, d) of the time curve x and the value curve y
    // in pairs, c[2i] of x and c[2i + 1] of y, so that both curves are evaluated at once; the
    // y halves are unused for kBezier2Y.
    double c[8];
    double invRange;  // 2-D Bezier: 1 / (x(1) - x(0)), for a first guess of the parameter
    double unused[2];  // pads the record to 128 bytes
};
static_assert(sizeof(Segment) == 128, "a segment's index is a shift from its offset");

using vx::env::PowerCubic;
PowerCubic TimeCurve(const Segment &seg) { return PowerCubic::Of(seg.c[0], seg.c[2], seg.c[4], seg.c[6]); }
PowerCubic ValueCurve(const Segment &seg) { return PowerCubic::Of(seg.c[1], seg.c[3], seg.c[5], seg.c[7]); }

// The largest double below 0.0001, the bisection's reach (whose unit in the last place is
// 2^-66).
constexpr double kBelowReach = 0.0001 - 0x1p-66;
static_assert(kBelowReach < 0.0001 && 0.0001 - kBelowReach == 0x1p-66);

// A probe j / 2^17 of the bisection (0 < j < 2^17) lies on level l when the lowest set bit of
// j is 2^l: from level 16 (the first probe, 1/2) down to level 0 (the last ones).
constexpr int kLevels = 17;

// One cell of the inverse of a 2-D Bezier time curve (see InverseCells).
struct InverseCell {
    // A cubic in v, the time since the segment's start, that matches s and ds/dx at both ends
    // of the cell, scaled as Bezier2Confirm takes it (s * 2^17 + 1), and its derivative times
    // 0.0001 (the reach).
    double guess[4];
    double reach[3];
    double start;  // the cell's start in v, infinity in the unused cells: playback compares it
    // Per level of an end point k = 2j, the bisection stops at k when |t - x(k)| <=
    // margin[level] (see CellsValue): the margin is below 0.0001, and x as computed rises by at
    // least margin + 0.0001 from either bracket k -+ n (n = 2^(level + 1)) to k.
    double margin[kLevels];
};

// The inverse of an increasing 2-D Bezier time curve, s against the time, in 1, 2, 4 or up to
// kCells cells of equal length (the fewest that guess well). It only gives a first guess of the
// parameter; the bisection's end point is then confirmed at the probes that decide it.
constexpr int kCells = 8;
struct InverseCells {
    double start;  // x(0), the segment's start time
    double scale;  // cells per second
    int32_t last;  // the last cell's index
    InverseCell cell[kCells];
    // kBezier2: the coefficients a, b and d of the time and value curves, in pairs as in
    // Segment::c, times 2^-17, 2^-34 and 2^-51. At a probe s = j / 2^17 the products a * s,
    // b * s^2 and d * s^3 are then a' * j, b' * j^2 and d' * j^3: the same real numbers, so
    // the same rounded products, and j^2 and j^3 are exact in doubles where s^2 and s^3 were.
    double perProbe[3][2];
};
constexpr int64_t kCellRiseReach = 4096;

// Envelopes of up to this many keys find their segment by counting the edges at or below the
// time; longer ones halve.
constexpr int32_t kCountedKeys = 16;

// The segment search looks first at the segment evaluated last (and its successor) while
// `misses` is below kMissesToSearch: playback, where those branches are predicted. Each miss
// counts two. From the limit on the search runs alone, without branches on the keys, for
// kSearchRun evaluations, which count on; then playback resumes at the segment found last
// (see Play). The search alone stores nothing that depends on its result: such a store held
// back the next evaluation in measurements.
constexpr int32_t kMissesToSearch = 4;
constexpr int32_t kSearchRun = 256;

// The places of the edges array: the keys', then padding, at least kCountedKeys.
int32_t EdgePlaces(int32_t keys) { return std::max((keys + 3) & ~3, kCountedKeys); }

}  // namespace

struct VxEnvTables {
    size_t bytes;
    uint64_t edits;
    uint64_t paramEdits;
    // Playback: the times [playFrom, playTo) lie in the segment evaluated last, `playing`
    // (segments + last, kept as a pointer for the playback test), past its start key's tick;
    // an empty range while the search runs alone (see kMissesToSearch).
    double playFrom;
    double playTo;
    const Segment *playing;
    // A time has a tick strictly between the first and last key's when it lies in
    // [innerLo, innerHi), the EdgeTime of the first tick + 1 and of the last tick.
    double innerLo;
    double innerHi;
    int32_t count;            // keys
    int32_t capacity;         // keys the block has room for
    int32_t inverseCapacity;  // inverse cells the block has room for
    int32_t search;           // 1 up to four keys, 2 up to kCountedKeys, else 0 (halving)
    int32_t last;             // the segment evaluated last, where the search looks first
    int32_t misses;           // see kMissesToSearch
    Segment *segments;
    InverseCells *inverse;
    VxEnvKey **keys;
    int32_t *ticks;
    double *edges;  // EdgeTime of each key's tick, padded with infinity to EdgePlaces(count)
};

namespace vx::env {

std::atomic<uint64_t> g_paramEdits{0};

namespace {

size_t TablesBytes(int32_t capacity, int32_t inverseCapacity)
{
    const auto n = static_cast<size_t>(capacity);
    return sizeof(VxEnvTables) + (n - 1) * sizeof(Segment) + static_cast<size_t>(inverseCapacity) * sizeof(InverseCells) +
           n * sizeof(VxEnvKey *) + static_cast<size_t>(EdgePlaces(capacity)) * sizeof(double) + n * sizeof(int32_t);
}

// The smallest time whose tick (TickOf: floor(t * 3600 + 0.5)) is `tick` or above. The sum
// t * 3600 + 0.5, as evaluated, never decreases as t grows, so a time lies at or above this
// edge exactly when its tick does: the evaluation compares times with edges and never
// converts a time to a tick.
double EdgeTime(double tick)
{
    auto reaches = [tick](double t) { return t * 3600.0 + 0.5 >= tick; };
    double t = (tick - 0.5) * kTickSeconds;
    while (!reaches(t))
        t = std::nextafter(t, HUGE_VAL);
    while (reaches(std::nextafter(t, -HUGE_VAL)))
        t = std::nextafter(t, -HUGE_VAL);
    return t;
}

// Makes segment i the one evaluated last, where playback looks first.
void Play(VxEnvTables *tables, int32_t i)
{
    tables->last = i;
    tables->playing = &tables->segments[i];
    tables->playFrom = tables->segments[i].keyEnd;
    tables->playTo = tables->edges[i + 1];
}

// Leaves the times to the search alone: no time is in the playback range.
void StopPlaying(VxEnvTables *tables)
{
    tables->playFrom = HUGE_VAL;
    tables->playTo = -HUGE_VAL;
}

// Rebuilds the tables of an envelope of two keys or more; NULL when memory ran out.
[[gnu::noinline]] VxEnvTables *BuildTables(VxEnvelope *env)
{
    int32_t count = 0;
    int32_t bezier2 = 0;  // segments that end at a 2-D Bezier key
    for (VxEnvKey *k = FirstKey(env); k; k = NextKey(k)) {
        if (count && k->shape == ENV_SHAPE_BEZIER2)
            ++bezier2;
        ++count;
    }
    VxEnvTables *tables = env->tables;
    if (tables && (tables->capacity < count || tables->inverseCapacity < bezier2)) {
        FreeHeap(tables, tables->bytes);
        tables = env->tables = nullptr;
    }
    if (!tables) {
        const size_t bytes = TablesBytes(count, bezier2);
        tables = static_cast<VxEnvTables *>(StdTryAlloc(bytes));  // without memory the caller walks the keys
        if (!tables)
            return nullptr;
        tables->bytes = bytes;
        tables->capacity = count;
        tables->inverseCapacity = bezier2;
        tables->segments = reinterpret_cast<Segment *>(tables + 1);
        tables->inverse = reinterpret_cast<InverseCells *>(tables->segments + (count - 1));
        tables->keys = reinterpret_cast<VxEnvKey **>(tables->inverse + bezier2);
        tables->edges = reinterpret_cast<double *>(tables->keys + count);
        tables->ticks = reinterpret_cast<int32_t *>(tables->edges + EdgePlaces(count));
        env->tables = tables;
    }
    tables->count = count;
    tables->search = count <= 4 ? 1 : count <= kCountedKeys ? 2 : 0;
    tables->misses = 0;
    int32_t i = 0;
    for (VxEnvKey *k = FirstKey(env); k; k = NextKey(k), ++i) {
        tables->keys[i] = k;
        tables->ticks[i] = k->tick;
        tables->edges[i] = EdgeTime(static_cast<double>(k->tick));
    }
    for (; i < EdgePlaces(count); ++i)
        tables->edges[i] = HUGE_VAL;
    int32_t inverse = 0;
    for (i = 0; i + 1 < count; ++i) {
        Segment &seg = tables->segments[i];
        seg.kind = kUnfilled;
        seg.cells = tables->keys[i + 1]->shape == ENV_SHAPE_BEZIER2 ? &tables->inverse[inverse++] : nullptr;
        seg.keyEnd = EdgeTime(static_cast<double>(tables->ticks[i]) + 1.0);
    }
    tables->innerLo = EdgeTime(static_cast<double>(tables->ticks[0]) + 1.0);
    tables->innerHi = tables->edges[count - 1];
    Play(tables, 0);
    tables->edits = env->edits;
    tables->paramEdits = g_paramEdits.load(std::memory_order_relaxed);
    return tables;
}

inline bool Current(const VxEnvelope *env, const VxEnvTables *tables)
{
    return tables && tables->count && tables->edits == env->edits &&
           tables->paramEdits == g_paramEdits.load(std::memory_order_relaxed);
}

// The tables of an envelope of two keys or more, current; NULL when they cannot be had.
inline VxEnvTables *Tables(VxEnvelope *env)
{
    VxEnvTables *tables = env->tables;
    return Current(env, tables) ? tables : BuildTables(env);
}

double Slope(const PowerCubic &x, double s) { return x.a + 2.0 * x.b * s + 3.0 * x.d * (s * s); }

// The parameter where the increasing curve x reaches `target`, to the last bits: Newton steps
// kept inside the bracket [lo, hi] of the root, halving it when a step would leave it.
double SolveIncreasing(const PowerCubic &x, double target, double s)
{
    double lo = 0.0, hi = 1.0;
    for (int i = 0; i < 100; ++i) {
        const double f = x.At(s) - target;
        if (f == 0.0)
            break;
        (f < 0.0 ? lo : hi) = s;
        double next = s - f / Slope(x, s);
        if (!(next > lo && next < hi))
            next = lo + (hi - lo) * 0.5;
        if (next == s || hi - lo <= 0x1p-52)
            break;
        s = next;
    }
    return s;
}

// The guess of the inverse cells at v, in units of 2^-17 plus one, and its reach (see
// Bezier2Confirm).
[[gnu::always_inline]] inline double CellGuess(const InverseCell &cell, double v, double &reach)
{
    const double v2 = v * v;
    const double *q = cell.guess, *r = cell.reach;
    reach = r[0] + r[1] * v + r[2] * v2;
    return (q[0] + q[1] * v) + (q[2] + q[3] * v) * v2;
}

// Inverse cells of an increasing time curve in `count` cells; false when they guess the
// parameter worse than to 1e-5 somewhere inside a cell (near a flat end of the curve). The
// guess only has to land near the bisection's end point, whose reach is 0.0001 seconds of
// time: a unit of the probes is 2^-17 (7.6e-6) of the parameter, and CellsValue confirms the
// end point itself, so a looser guess costs a fallback now and then, never a wrong value. Time
// handles away from a third of the segment (eased curves) need this looseness for 8 cells.
bool FillCells(InverseCells &cells, const PowerCubic &x, double invRange, const CurveBounds &bounds, int count)
{
    const double x0 = x.c0;
    const double width = (x.At(1.0) - x0) / count;
    if (!(width > 0.0))
        return false;
    cells.start = x0;
    cells.scale = 1.0 / width;
    cells.last = count - 1;
    double s[kCells + 1];
    double m[kCells + 1];
    for (int i = 0; i <= count; ++i) {
        const double target = x0 + width * i;
        s[i] = i == 0 ? 0.0 : i == count ? 1.0 : SolveIncreasing(x, target, (target - x0) * invRange);
        m[i] = 1.0 / Slope(x, s[i]);
    }
    for (int i = count; i < kCells; ++i)
        cells.cell[i].start = std::numeric_limits<double>::infinity();
    for (int i = 0; i < count; ++i) {
        // The cubic in w = v - c, c the cell's start, then in v, then scaled.
        const double secant = (s[i + 1] - s[i]) / width;
        const double a0 = s[i], a1 = m[i];
        const double a2 = (3.0 * secant - 2.0 * m[i] - m[i + 1]) / width;
        const double a3 = (m[i] + m[i + 1] - 2.0 * secant) / (width * width);
        const double c = width * i;
        InverseCell &cell = cells.cell[i];
        double *q = cell.guess;
        q[0] = (a0 - c * (a1 - c * (a2 - c * a3))) * 131072.0 + 1.0;
        q[1] = (a1 - c * (2.0 * a2 - 3.0 * a3 * c)) * 131072.0;
        q[2] = (a2 - 3.0 * a3 * c) * 131072.0;
        q[3] = a3 * 131072.0;
        cell.reach[0] = 0.0001 * q[1];
        cell.reach[1] = 0.0002 * q[2];
        cell.reach[2] = 0.0003 * q[3];
        cell.start = c;
        for (double part : {0.25, 0.5, 0.75}) {
            const double v = c + width * part;
            double reach;
            const double guess = (CellGuess(cell, v, reach) - 1.0) * 0x1p-17;
            const double exact = SolveIncreasing(x, x0 + v, guess);
            if (!(std::fabs(guess - exact) < 1e-5))
                return false;
        }
    }
    // An end point that passes its check lies within 0.0001 seconds (and the rounding of its
    // value) of a time in its cell, so within `near` of the cell's parameters; its brackets
    // within kCellRiseReach units further.
    const double reachAndError = 2.0 * bounds.error + 0.0001;
    const double near = reachAndError / bounds.slope * (1.0 + 0x1p-20) + 0x1p-30 +
                        static_cast<double>(kCellRiseReach) * 0x1p-18;
    // Over n units of 2^-18, x as computed rises by at least rise * n - clear + 0.0001: rise is
    // the least slope per unit (the cell's while n is within kCellRiseReach, else the
    // segment's) and clear is 0.0001 plus twice the rounding error of a value, each with a
    // margin of 2^-30 for the roundings of the check.
    const double clear = reachAndError * (1.0 + 0x1p-30);
    auto perUnit = [](double slope) { return slope * 0x1p-18 * (1.0 - 0x1p-30); };
    const double segmentRise = perUnit(bounds.slope);
    for (int i = 0; i < count; ++i) {
        const double least = LeastSlope(x, std::max(0.0, s[i] - near), std::min(1.0, s[i + 1] + near));
        const double cellRise = perUnit(std::max(least, bounds.slope));
        for (int level = 0; level < kLevels; ++level) {
            const int64_t n = int64_t{2} << level;
            const double rise = n <= kCellRiseReach ? cellRise : segmentRise;
            cells.cell[i].margin[level] = std::min(rise * static_cast<double>(n) - clear, kBelowReach);
        }
    }
    return true;
}

// The fewest inverse cells that guess well; false when even kCells do not.
bool FillInverse(InverseCells &cells, const PowerCubic &x, double invRange, const CurveBounds &bounds)
{
    for (int count = 1; count <= kCells; count *= 2)
        if (FillCells(cells, x, invRange, bounds, count))
            return true;
    return false;
}

// Fills cells.perProbe from the curves in seg.c; false when a scaled coefficient lost bits
// (a coefficient below about 2^-970, where the products would no longer be the same).
bool ScaleForProbes(InverseCells &cells, const Segment &seg)
{
    constexpr double kScale[3] = {0x1p-17, 0x1p-34, 0x1p-51};
    for (int power = 0; power < 3; ++power)
        for (int curve = 0; curve < 2; ++curve) {
            const double c = seg.c[2 * (power + 1) + curve];
            const double scaled = c * kScale[power];
            if (scaled / kScale[power] != c)
                return false;
            cells.perProbe[power][curve] = scaled;
        }
    return true;
}

[[gnu::noinline]] void FillSegment(VxEnvTables *tables, int32_t i)
{
    Segment &seg = tables->segments[i];
    VxEnvKey *s = tables->keys[i];
    VxEnvKey *e = tables->keys[i + 1];
    const int64_t dt = int64_t{e->tick} - s->tick;
    seg.base = static_cast<double>(s->tick) * -kTickSeconds;
    seg.span = static_cast<double>(dt) * kTickSeconds;
    if (e->shape == ENV_SHAPE_STEPPED || (e->shape == ENV_SHAPE_LINEAR && dt <= 1)) {
        seg.c[0] = s->value;
        seg.kind = kHold;
        return;
    }
    switch (e->shape) {
    case ENV_SHAPE_LINEAR:
        seg.c[0] = s->value;
        seg.c[1] = e->value - s->value;
        seg.kind = kLinear;
        break;
    case ENV_SHAPE_BEZIER:
        seg.c[0] = s->value;
        seg.c[1] = s->value + OutTangent(s) * kThird;
        seg.c[2] = e->value + InTangent(e) * -kThird;
        seg.c[3] = e->value;
        seg.kind = kBezier;
        break;
    case ENV_SHAPE_BEZIER2: {
        const PowerCubic x = Bezier2X(s, e);
        seg.c[0] = x.c0, seg.c[2] = x.a, seg.c[4] = x.b, seg.c[6] = x.d;
        seg.invRange = 1.0 / (x.a + x.b + x.d);
        const CurveBounds bounds = BoundsOf(x);
        seg.increasing = IncreasingAtProbes(bounds);
        if (seg.cells) {
            InverseCells &cells = *seg.cells;
            if (!seg.increasing || !FillInverse(cells, x, seg.invRange, bounds))
                seg.cells = nullptr;
        }
        // A non-2-D-Bezier start key lends its out tangent as stored, which the tangent rules
        // of TCB and Linear keys rewrite: that value curve is built at each evaluation.
        if (s->shape == ENV_SHAPE_BEZIER2) {
            const PowerCubic y = Bezier2Y(s, e);
            seg.c[1] = y.c0, seg.c[3] = y.a, seg.c[5] = y.b, seg.c[7] = y.d;
            seg.kind = kBezier2;
            if (seg.cells && !ScaleForProbes(*seg.cells, seg))
                seg.cells = nullptr;
        } else {
            seg.kind = kBezier2Y;
        }
        break;
    }
    default:
        seg.c[0] = s->value;
        seg.c[1] = e->value;
        seg.c[2] = OutTangent(s);
        seg.c[3] = InTangent(e);
        seg.kind = kHermite;
        break;
    }
}

// The index i of the segment with edges[i] <= x < edges[i + 1] (x a time strictly inside the
// key range), without branches on the edges.
[[gnu::always_inline]] inline int32_t SearchSegment(const VxEnvTables *tables, double x)
{
    const double *edges = tables->edges;
    if (const int32_t search = tables->search) {
        // Up to four keys: x is below the last key's edge and at or above the first's.
        if (search == 1)
            return static_cast<int32_t>(edges[1] <= x) + static_cast<int32_t>(edges[2] <= x);
        // The first kCountedKeys edges at or below x, counted in pairs (-1 where at or below);
        // the padding never counts.
        typedef int64_t Two __attribute__((vector_size(16)));
        typedef double TwoEdges __attribute__((vector_size(16)));
        const TwoEdges limit = {x, x};
        // Each pair compared where it lies: a local copy of the sixteen edges cost a stack
        // frame on every evaluation and a store and a load per pair here.
        auto at = [edges, limit](int j) {
            TwoEdges pair;
            std::memcpy(&pair, edges + 2 * j, sizeof pair);
            return pair <= limit;
        };
        const Two below = ((at(0) + at(1)) + (at(2) + at(3))) + ((at(4) + at(5)) + (at(6) + at(7)));
        return static_cast<int32_t>(-(below[0] + below[1])) - 1;
    }
    // The last index whose edge is x or below, in [0, count - 2].
    int32_t lo = 0;
    int32_t len = tables->count - 1;
    while (len > 1) {
        const int32_t half = len / 2;
        lo = edges[lo + half] <= x ? lo + half : lo;
        len -= half;
    }
    return lo;
}

// The index i of the segment with edges[i] <= x < edges[i + 1], for a time x strictly inside
// the key range.
[[gnu::always_inline]] inline int32_t FindSegment(VxEnvTables *tables, double x)
{
    const int32_t misses = tables->misses;
    if (misses < kMissesToSearch) {
        const int32_t last = tables->last;
        const double *edges = tables->edges;
        if (edges[last] <= x) {
            if (x < edges[last + 1])
                return last;
            // x is below the last key's edge, so last + 1 is a segment.
            if (x < edges[last + 2]) {
                Play(tables, last + 1);
                return last + 1;
            }
        }
        tables->misses = misses + 2;
        const int32_t i = SearchSegment(tables, x);
        if (misses + 2 < kMissesToSearch)
            Play(tables, i);
        else
            StopPlaying(tables);
        return i;
    }
    const int32_t i = SearchSegment(tables, x);
    if (misses + 1 < kMissesToSearch + kSearchRun) {
        tables->misses = misses + 1;
    } else {
        tables->misses = 0;
        Play(tables, i);
    }
    return i;
}

// The guess of the inverse cells at a time t inside their segment (see CellGuess). In
// playback the cell is chosen by branches, which the predictor learns as the times advance
// through a cell, so that the guess need not wait for the cell's index to be computed; at
// random times they would be mispredicted, and the index is computed.
template <bool kPlayback>
[[gnu::always_inline]] inline double CellsGuess(const InverseCells &cells, double t, double &reach, const InverseCell *&cell)
{
    const double v = t - cells.start;
    cell = cells.cell;
    if (cells.last) {
        // t is inside the segment, so v is within the cells but for rounding; both ways keep
        // the ends in the first and last cell.
        if constexpr (kPlayback) {
            // Three halvings over the cells' starts (infinite past the last cell), stepping a
            // cell pointer so that each is one comparison at a fixed offset.
            static_assert(kCells == 8, "three halvings");
            auto halve = [&cell, v](int step) {
                if (v >= cell[step].start) {
                    cell += step;
                    asm volatile("" : "+r"(cell));  // keeps the branch: a conditional move would wait for v
                }
            };
            halve(4);
            halve(2);
            halve(1);
        } else {
            cell += std::clamp(static_cast<int32_t>(v * cells.scale), 0, cells.last);
        }
    }
    return CellGuess(*cell, v, reach);
}

// The bisection's end point for the 2-D Bezier segment at t, guessed from its inverse cells
// and confirmed at its deciding probes; false when the segment has no cells or the guess is
// not confirmed.
[[gnu::always_inline]] inline bool CellsParameter(const Segment &seg, double t, double &mid)
{
    if (!seg.cells)
        return false;
    double reach;
    const InverseCell *cell;
    const double scaled = CellsGuess<false>(*seg.cells, t, reach, cell);
    return Bezier2Confirm(TimeCurve(seg), t, scaled, reach, mid);
}

// The value of a kBezier2 segment at t from its inverse cells, when their guess has a probe
// within reach and the bisection is confirmed to stop at the coarsest one, k; false
// otherwise. x(k) and y(k) are evaluated together. The bisection stops at k when t is within
// 0.0001 seconds of x(k) and the probes k - n and k + n that bracket it (n the lowest set bit
// of k) are more than that below and above t. The cell's margin for n settles both when
// |t - x(k)| is within it, without evaluating x there; where it is not, they are checked as
// Bezier2Confirm checks them. Any k that passes is the bisection's, however it was picked, so
// the guess only decides how often the check passes.
template <bool kPlayback>
[[gnu::always_inline]] inline bool CellsValue(const InverseCells &cells, const Segment &seg, double t, double &value)
{
    double reach;
    const InverseCell *cell;
    const double scaled = CellsGuess<kPlayback>(cells, t, reach, cell);
    // The probes within reach are [floor(lo), floor(hi) - 1] (see Bezier2Confirm). Windows
    // that reach the first or the last probe, within reach of the segment's ends, are left to
    // the general path, which spares clamping them here.
    const double lo = scaled - reach, hi = scaled + reach;
    if (!(lo >= 1.0 && hi < 131072.0))
        return false;
    const int64_t jLo = static_cast<int64_t>(lo);
    const int64_t jHi = static_cast<int64_t>(hi) - 1;
    if (jLo > jHi)
        return false;
    // The probe in [jLo, jHi] with the most trailing zero bits, j, is the first one reached.
    const int64_t level = 63 - __builtin_clzll(static_cast<uint64_t>((jLo - 1) ^ jHi));
    const int64_t j = jHi & -(int64_t{1} << level);
    // x and y at j / 2^17 as PowerCubic::At evaluates each, one in each half, from the scaled
    // coefficients (see InverseCells::perProbe) and the powers of j, exact below 2^51.
    typedef double Pair __attribute__((vector_size(16)));
    Pair c0, a, b, d;
    std::memcpy(&c0, &seg.c[0], sizeof c0);
    std::memcpy(&a, cells.perProbe[0], sizeof a);
    std::memcpy(&b, cells.perProbe[1], sizeof b);
    std::memcpy(&d, cells.perProbe[2], sizeof d);
    const double jd = static_cast<double>(j);
    const Pair j1 = {jd, jd};
    const Pair j2 = j1 * j1;
    const Pair xy = ((c0 + a * j1) + b * j2) + d * (j2 * j1);
    const double off = std::fabs(t - xy[0]);
    if (!(off <= cell->margin[level])) {
        if (!(off < 0.0001))
            return false;
        constexpr double kUnit = 0x1p-18;
        const int64_t k = 2 * j, n = int64_t{2} << level;
        const PowerCubic x = TimeCurve(seg);
        if (!(t - x.At(static_cast<double>(k - n) * kUnit) >= 0.0001))
            return false;
        if (!(t - x.At(static_cast<double>(k + n) * kUnit) <= -0.0001))
            return false;
    }
    value = xy[1];
    return true;
}

// The 2-D Bezier segment i at t: the bisection's end point from the inverse cells, else from
// Newton steps, confirmed at its deciding probes; else the bisection itself.
[[gnu::noinline]] double Bezier2Value(VxEnvTables *tables, int32_t i, double t)
{
    const Segment &seg = tables->segments[i];
    const PowerCubic x = TimeCurve(seg);
    double mid;
    if (!CellsParameter(seg, t, mid) && !(seg.increasing && Bezier2Guess(x, seg.invRange, t, mid)))
        mid = Bezier2Solve(x, t);
    return seg.kind == kBezier2 ? ValueCurve(seg).At(mid) : Bezier2Y(tables->keys[i], tables->keys[i + 1]).At(mid);
}

// The segment at t, strictly inside it, when it is filled and of a kind other than 2-D
// Bezier; false otherwise.
[[gnu::always_inline]] inline bool CommonSegmentValue(const Segment &seg, double t, double &value)
{
    if (seg.kind == kHermite) {
        const double u = (t + seg.base) / seg.span;
        const double u2 = u * u;
        const double u3 = u2 * u;
        const double h1 = 2.0 * u3 - 3.0 * u2 + 1.0;
        const double h2 = 3.0 * u2 - 2.0 * u3;
        const double h3 = u3 - 2.0 * u2 + u;
        const double h4 = u3 - u2;
        value = seg.c[0] * h1 + seg.c[1] * h2 + seg.c[2] * h3 + seg.c[3] * h4;
        return true;
    }
    switch (seg.kind) {
    case kLinear: value = seg.c[0] + seg.c[1] * ((t + seg.base) / seg.span); return true;
    case kHold: value = seg.c[0]; return true;
    case kBezier: {
        const double u = (t + seg.base) / seg.span;
        const double u2 = u * u;
        const double u3 = u2 * u;
        const double w0 = 1.0 - 3.0 * u + 3.0 * u2 - u3;
        const double w1 = 3.0 * u - 6.0 * u2 + 3.0 * u3;
        const double w2 = 3.0 * u2 - 3.0 * u3;
        value = seg.c[0] * w0 + seg.c[1] * w1 + seg.c[2] * w2 + seg.c[3] * u3;
        return true;
    }
    default: return false;
    }
}

// The filled segment i at t, strictly inside it.
[[gnu::always_inline]] inline double FilledSegmentValue(VxEnvTables *tables, int32_t i, double t)
{
    double value;
    if (CommonSegmentValue(tables->segments[i], t, value))
        return value;
    return Bezier2Value(tables, i, t);
}

// A segment evaluated for the first time since the last edit.
[[gnu::noinline]] double UnfilledSegmentValue(VxEnvTables *tables, int32_t i, double t)
{
    FillSegment(tables, i);
    return FilledSegmentValue(tables, i, t);
}

// The curve at t strictly inside the key range.
[[gnu::always_inline]] inline double TableInnerValue(VxEnvTables *tables, double t)
{
    const int32_t i = FindSegment(tables, t);
    const Segment &seg = tables->segments[i];
    if (t < seg.keyEnd)
        return tables->keys[i]->value;
    if (seg.kind == kUnfilled)
        return UnfilledSegmentValue(tables, i, t);
    return FilledSegmentValue(tables, i, t);
}

double TableSegmentValue(VxEnvTables *tables, double t, int32_t n)
{
    const int32_t lastIndex = tables->count - 1;
    if (n <= tables->ticks[0])
        return tables->keys[0]->value;
    if (n >= tables->ticks[lastIndex])
        return tables->keys[lastIndex]->value;
    return TableInnerValue(tables, t);
}

// The curve at t inside or at the ends of the key range, without the behaviour offset.
double SegmentValue(VxEnvelope *env, double t, int32_t n, bool probeBefore)
{
    if (!probeBefore)
        if (VxEnvTables *tables = Tables(env))
            return TableSegmentValue(tables, t, n);
    return WalkSegmentValue(env, t, n, probeBefore);
}

// The binade of a nonzero finite x: its sign and exponent.
bool SameBinade(double a, double b)
{
    return a != 0.0 && b != 0.0 && (a > 0.0) == (b > 0.0) && std::ilogb(a) == std::ilogb(b);
}

// How many more rounds of subtracting `amount` from x (x and x - amount in one binade) stay
// clear of that binade's edges by at least one amount: then every exact difference rounds on
// x's grid, to x - amount.
int64_t RoundsInBinade(double x, double amount)
{
    const double low = std::ldexp(1.0, std::ilogb(x)), high = 2.0 * low;
    const double magnitude = std::fabs(x);
    const double distance = (x > 0.0) == (amount > 0.0) ? magnitude - low : high - magnitude;
    const double rounds = std::floor(distance / std::fabs(amount)) - 2.0;
    return rounds > 0.0 ? static_cast<int64_t>(std::fmin(rounds, 9e18)) : 0;
}

// t after `rounds` subtractions of `step`, each rounded on its own. Inside one binade t lies
// on a fixed grid and so every difference t - step rounds by the same amount, except when step
// falls halfway between grid points: then the first round lands on an even grid point, and
// every later one picks the same neighbour. So once two rounds in a row stayed inside one
// binade, the last one's amount repeats for as long as t stays clear of the binade's edges,
// and those rounds are taken in one multiplication (exact: the product is a multiple of the
// grid smaller than the binade).
double SubtractRounds(double t, double step, int64_t rounds)
{
    int inBinade = 0;
    while (rounds > 0 && std::isfinite(t)) {
        const double next = t - step;
        --rounds;
        inBinade = SameBinade(t, next) ? inBinade + 1 : 0;
        const double amount = t - next;
        t = next;
        if (amount == 0.0)
            break;
        if (inBinade >= 2 && rounds > 0) {
            const int64_t bulk = std::min(rounds, RoundsInBinade(t, amount));
            t -= static_cast<double>(bulk) * amount;
            rounds -= bulk;
        }
    }
    return t;
}

struct Wrapped {
    double t;
    double offset;
};

// Repeat, Oscillate and Offset repeat: moves t by whole cycles into the key range, adding or
// subtracting the range once per cycle.
Wrapped WrapCycles(const VxEnvKey *first, const VxEnvKey *last, double t, int32_t n, int32_t behaviour)
{
    const int64_t rangeTicks = int64_t{last->tick} - first->tick;
    const double tF = SecondsOf(first->tick);
    const double tL = SecondsOf(last->tick);
    const double range = tL - tF;
    const bool before = n < first->tick;
    const int64_t cycles = before ? (int64_t{first->tick} - n + rangeTicks - 1) / rangeTicks
                                  : (int64_t{n} - last->tick + rangeTicks - 1) / rangeTicks;
    Wrapped w{SubtractRounds(t, before ? -range : range, cycles), 0.0};
    if (behaviour == ENV_BEHAVIOR_OSCILLATE && (cycles & 1))
        w.t = tL + tF - w.t;
    if (behaviour == ENV_BEHAVIOR_OFFSET)
        w.offset = (before ? first->value - last->value : last->value - first->value) * static_cast<double>(cycles);
    return w;
}

double BeforeFirst(VxEnvelope *env, VxEnvKey *first, VxEnvKey *last, double t, int32_t n)
{
    const double tF = SecondsOf(first->tick);
    switch (env->pre) {
    case ENV_BEHAVIOR_RESET: return 0.0;
    case ENV_BEHAVIOR_REPEAT:
    case ENV_BEHAVIOR_OSCILLATE:
    case ENV_BEHAVIOR_OFFSET: {
        const Wrapped w = WrapCycles(first, last, t, n, env->pre);
        return WalkSegmentValue(env, w.t, TickOf(w.t), false, w.offset);
    }
    case ENV_BEHAVIOR_LINEAR: {
        if (first->shape == ENV_SHAPE_LINEAR)
            return first->value + OutTangent(first) * (t - tF);
        if (first->shape == ENV_SHAPE_STEPPED)
            return first->value;
        const double at = tF + 2.0 * kTickSeconds;
        const double probe = SegmentValue(env, at, TickOf(at), true);
        return first->value + (probe - first->value) / (2.0 * kTickSeconds) * (t - tF);
    }
    default: return first->value;
    }
}

double AfterLast(VxEnvelope *env, VxEnvKey *first, VxEnvKey *last, double t, int32_t n)
{
    const double tL = SecondsOf(last->tick);
    switch (env->post) {
    case ENV_BEHAVIOR_RESET: return 0.0;
    case ENV_BEHAVIOR_REPEAT:
    case ENV_BEHAVIOR_OSCILLATE:
    case ENV_BEHAVIOR_OFFSET: {
        const Wrapped w = WrapCycles(first, last, t, n, env->post);
        return WalkSegmentValue(env, w.t, TickOf(w.t), false, w.offset);
    }
    case ENV_BEHAVIOR_LINEAR: {
        if (last->shape == ENV_SHAPE_LINEAR)
            return last->value + InTangent(last) * (t - tL);
        if (last->shape == ENV_SHAPE_STEPPED)
            return last->value;
        const double at = tL - 2.0 * kTickSeconds;
        const double probe = SegmentValue(env, at, TickOf(at), false);
        return last->value + (last->value - probe) / (2.0 * kTickSeconds) * (t - tL);
    }
    default: return last->value;
    }
}

}  // namespace

double OutTangent(VxEnvKey *k)
{
    VxEnvKey *next = NextKey(k);
    if (!next)
        return 0.0;
    VxEnvKey *prev = PrevKey(k);
    const int64_t span = prev ? int64_t{next->tick} - prev->tick : int64_t{next->tick} - k->tick + 1;
    const double dIn = prev ? k->value - prev->value : 0.0;
    const double dOut = next->value - k->value;
    const double segment = static_cast<double>(int64_t{next->tick} - k->tick);
    const double r = segment / static_cast<double>(span);
    switch (k->shape) {
    case ENV_SHAPE_HERMITE:
    case ENV_SHAPE_BEZIER: return r * k->p[4];
    case ENV_SHAPE_LINEAR:
        if (next->shape == ENV_SHAPE_LINEAR)
            return dOut / segment * 3600.0;
        return k->p[4] = r * (dOut + dIn);
    case ENV_SHAPE_STEPPED: return 0.0;
    case ENV_SHAPE_BEZIER2: return (k->p[3] - k->value) / (HandleTick(k->p[2]) - k->tick);
    default: {
        const double t = 1.0 - k->p[0], c = k->p[1], b = k->p[2];
        return k->p[4] = r * (t * (1.0 + c) * (1.0 + b) * dIn + t * (1.0 - c) * (1.0 - b) * dOut);
    }
    }
}

double InTangent(VxEnvKey *k)
{
    VxEnvKey *prev = PrevKey(k);
    if (!prev || !k->node.succ)
        return 0.0;
    VxEnvKey *next = NextKey(k);
    const int64_t span = next ? int64_t{next->tick} - prev->tick : int64_t{k->tick} - prev->tick + 1;
    const double dOut = next ? next->value - k->value : 0.0;
    const double dIn = k->value - prev->value;
    const double segment = static_cast<double>(int64_t{k->tick} - prev->tick);
    const double r = segment / static_cast<double>(span);
    switch (k->shape) {
    case ENV_SHAPE_HERMITE: return r * k->p[3];
    case ENV_SHAPE_BEZIER:
        if (!next)
            return k->p[3];
        return k->p[3] * segment / static_cast<double>(int64_t{next->tick} - prev->tick);
    case ENV_SHAPE_LINEAR: return dIn / segment * 3600.0;
    case ENV_SHAPE_STEPPED: return 0.0;
    case ENV_SHAPE_BEZIER2: return (k->value - k->p[1]) / (k->tick - HandleTick(k->p[2]));
    default: {
        const double t = 1.0 - k->p[0], c = k->p[1], b = k->p[2];
        return k->p[3] = r * (t * (1.0 - c) * (1.0 + b) * dIn + t * (1.0 + c) * (1.0 - b) * dOut);
    }
    }
}

void FreeTables(VxEnvelope *env)
{
    if (env->tables)
        FreeHeap(env->tables, env->tables->bytes);
    env->tables = nullptr;
}

namespace {

// Strictly inside the key range the tables answer alone; false for the general path.
[[gnu::always_inline]] inline bool InnerValue(VxEnvelope *env, double t, double &value)
{
    VxEnvTables *tables = env->tables;
    if (!tables || tables->edits != env->edits ||
        tables->paramEdits != g_paramEdits.load(std::memory_order_relaxed))
        return false;
    // The test leaves out NaN, and the times whose tick TickOf clamps.
    if (!(t >= tables->innerLo && t < tables->innerHi))
        return false;
    value = TableInnerValue(tables, t);
    return true;
}

}  // namespace

double CurveValue(VxEnvelope *env, double t)
{
    double inner;
    if (InnerValue(env, t, inner))
        return inner;
    VxEnvKey *first = FirstKey(env);
    if (!first)
        return EmptyValue(env->type);
    VxEnvKey *last = LastKey(env);
    if (first == last)
        return first->value;
    const int32_t n = TickOf(t);
    if (n < first->tick)
        return BeforeFirst(env, first, last, t, n);
    if (n > last->tick)
        return AfterLast(env, first, last, t, n);
    return SegmentValue(env, t, n, false);
}

}  // namespace vx::env

using namespace vx::env;

namespace {

void RunFilters(VxEnvelope *env, double t)
{
    for (VxNode *n = env->filters.head; n->succ; n = n->succ) {
        auto *filter = reinterpret_cast<VxEnvFilter *>(n);
        if (filter->flags & ENV_FILTER_STOP)
            break;
        if (filter->evaluate)
            filter->evaluate(filter, env, t, &env->lastValue);
    }
}

}  // namespace

double EnvKeyEvaluate(VxEnvelope *env, double t) { return env->lastValue = CurveValue(env, t); }

namespace {

// The end of an evaluation: the curve value becomes the last value, then the modifiers run.
[[gnu::noinline]] double Finish(VxEnvelope *env, double t, double value)
{
    env->lastValue = value;
    if (!env->filters.head->succ)
        return value;
    RunFilters(env, t);
    return env->lastValue;
}

[[gnu::noinline]] double EvaluateAnyTime(VxEnvelope *env, double t) { return Finish(env, t, CurveValue(env, t)); }

// Segment i of the current tables, strictly inside it: any kind, filled first if need be.
[[gnu::noinline]] double EvaluateSegment(VxEnvelope *env, VxEnvTables *tables, int32_t i, double t)
{
    if (tables->segments[i].kind == kUnfilled)
        FillSegment(tables, i);
    return Finish(env, t, FilledSegmentValue(tables, i, t));
}

// The end of an evaluation of the tables: the value becomes the last value, and the
// modifiers run, if any, in a tail call.
[[gnu::always_inline]] inline double Deliver(VxEnvelope *env, double t, double value)
{
    if (env->filters.head->succ)
        return Finish(env, t, value);
    env->lastValue = value;
    return value;
}

// A filled 2-D Bezier segment of the current tables, strictly inside it. The common case,
// confirmed by the inverse cells, ends without a call; the others in a tail call.
template <bool kPlayback>
[[gnu::noinline]] double EvaluateBezier2(VxEnvelope *env, VxEnvTables *tables, const Segment &seg, double t)
{
    double value;
    if (seg.kind != kBezier2 || !seg.cells || !CellsValue<kPlayback>(*seg.cells, seg, t, value))
        return EvaluateSegment(env, tables, static_cast<int32_t>(&seg - tables->segments), t);
    return Deliver(env, t, value);
}

// A time of current tables outside the playback range: the segment is searched.
[[gnu::noinline]] double EvaluateSearched(VxEnvelope *env, VxEnvTables *tables, double t)
{
    if (!(t >= tables->innerLo && t < tables->innerHi))  // see InnerValue
        return EvaluateAnyTime(env, t);
    const int32_t i = FindSegment(tables, t);
    const Segment &seg = tables->segments[i];
    double value;
    if (t < seg.keyEnd)
        value = tables->keys[i]->value;
    else if (seg.kind >= kBezier2)  // one test, ahead of the other kinds' tests
        return EvaluateBezier2<false>(env, tables, seg, t);
    else if (!CommonSegmentValue(seg, t, value))
        return EvaluateSegment(env, tables, i, t);
    return Deliver(env, t, value);
}

}  // namespace

// The common case, a time in the playback range of current tables in a segment filled
// earlier, is handled here without a call; every other case ends in a tail call.
double EnvEvaluate(VxEnvelope *env, double t)
{
    VxEnvTables *tables = env->tables;
    if (!tables || tables->edits != env->edits ||
        tables->paramEdits != g_paramEdits.load(std::memory_order_relaxed))
        return EvaluateAnyTime(env, t);
    if (!(t >= tables->playFrom && t < tables->playTo))
        return EvaluateSearched(env, tables, t);
    const Segment &seg = *tables->playing;
    double value;
    if (seg.kind >= kBezier2)  // one test, ahead of the other kinds' tests
        return EvaluateBezier2<true>(env, tables, seg, t);
    if (!CommonSegmentValue(seg, t, value))
        return EvaluateSegment(env, tables, static_cast<int32_t>(&seg - tables->segments), t);
    return Deliver(env, t, value);
}

double EnvModEvaluate(VxEnvelope *env, double t, double value)
{
    if (!env->filters.head->succ)
        return value;
    const double saved = env->lastValue;
    env->lastValue = value;
    RunFilters(env, t);
    const double result = env->lastValue;
    env->lastValue = saved;
    return result;
}

double EnvSpeed(VxEnvelope *env, double t)
{
    const double tick = static_cast<double>(TickOf(t)) * kTickSeconds;
    const double after = CurveValue(env, tick + kTickSeconds);
    const double before = CurveValue(env, tick - kTickSeconds);
    return (after - before) / (2.0 * kTickSeconds);
}
