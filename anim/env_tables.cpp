// Evaluation tables: building them, filling a segment, and the 2-D Bezier parameter.
#include "anim/env_tables.h"

#include <vxtools3/memory.h>

#include <algorithm>

namespace vx::env {
namespace {

// ---- 2-D Bezier: the bisection's end point without bisecting --------------------------------
//
// The bisection probes the points j / 2^17 (0 < j < 2^17) and ends on a point k / 2^18. When
// x(s), as computed, rises from each probe to the next, its choices at all probes follow from
// its choices at the two probes that bracket the end point: so a guessed end point that passes
// the checks at those two probes (and at itself) is the bisection's, to the bit.
constexpr double kProbeScale = 131072.0;  // 2^17: probes per unit of the parameter
constexpr double kReach = 0.0001;     // the bisection stops within this many seconds of t
constexpr double kUlp = 0x1p-53;

// True when x(s) as PowerCubic::At computes it cannot fall between neighbouring probes: its
// least slope on [0, 1] (the least at the ends and at its turning point, less their rounding)
// outruns twice the rounding error of its values (below 16 units in the last place of the sum
// of the coefficients' magnitudes) across 2^-17.
bool IncreasingAtProbes(const PowerCubic &x)
{
    const double error = 16.0 * kUlp * (std::fabs(x.c0) + std::fabs(x.a) + std::fabs(x.b) + std::fabs(x.d));
    const double slopeError = 16.0 * kUlp * (std::fabs(x.a) + 2.0 * std::fabs(x.b) + 3.0 * std::fabs(x.d));
    auto slope = [&x](double s) { return x.a + 2.0 * x.b * s + 3.0 * x.d * (s * s); };
    double least = std::fmin(slope(0.0), slope(1.0));
    if (x.d != 0.0) {
        const double turn = -x.b / (3.0 * x.d);
        if (turn > 0.0 && turn < 1.0)
            least = std::fmin(least, slope(turn));
    }
    return least - slopeError > 4.0 * error * kProbeScale;
}

// Two cubics at one parameter, or one at two, side by side: each lane as PowerCubic::At.
using Pair = double __attribute__((vector_size(16)));
Pair AtPair(Pair c0, Pair a, Pair b, Pair d, Pair s) { return c0 + a * s + b * (s * s) + d * (s * s * s); }

// y where the bisection of an increasing x(s) ends for time t, from guessed bounds 1 + s of
// the parameters within 0.0001 seconds of t. False when the guess is not confirmed.
//
// The sums 1 + s hold s in the low bits of the mantissa, so those bits order like s and bits
// 35 up count the probes below it: the probe in reach with the most trailing zero bits is
// reached first, and the bisection stops there when it is within reach of t; with none, it
// runs out between the two that bracket s. A rounding that moves the candidate only costs a
// failed check below.
[[gnu::always_inline]] inline bool ConfirmEnd(const PowerCubic &x, const PowerCubic &y, double t, double onePlusLo,
                                              double onePlusHi, double &value)
{
    constexpr int kProbeShift = 35;          // mantissa bits below the probe index
    constexpr uint64_t kOne = 0x3FF << 17;  // 1.0 over kProbeShift
    const uint64_t lo = std::bit_cast<uint64_t>(onePlusLo) >> kProbeShift;
    const uint64_t hi = std::bit_cast<uint64_t>(onePlusHi) >> kProbeShift;
    if ((lo >> 17 << 17) != kOne || (hi >> 17 << 17) != kOne)
        return false;
    const bool probe = lo != hi;
    const auto top = static_cast<int>(std::bit_width(lo ^ hi)) - 1;
    const uint64_t end = probe ? hi >> top << top << kProbeShift : lo << kProbeShift | uint64_t{1} << (kProbeShift - 1);
    // The probes end -+ lowest bracket the end point when the bisection reaches it: t must lie
    // more than the reach above the one and below the other. (At 0 or 1 they are no probes;
    // the checks pass there for a t inside the segment.)
    const uint64_t lowest = end & -end;
    const double mid = std::bit_cast<double>(end) - 1.0;
    const Pair xy = AtPair(Pair{x.c0, y.c0}, Pair{x.a, y.a}, Pair{x.b, y.b}, Pair{x.d, y.d}, Pair{mid, mid});
    const Pair around = AtPair(Pair{x.c0, x.c0}, Pair{x.a, x.a}, Pair{x.b, x.b}, Pair{x.d, x.d},
                               Pair{std::bit_cast<double>(end - lowest), std::bit_cast<double>(end + lowest)} - 1.0);
    value = xy[1];
    return (!probe || std::fabs(t - xy[0]) < kReach) && t - around[0] >= kReach && t - around[1] <= -kReach;
}

// y where the bisection of an increasing x for t ends, from a confirmed guess; false when the
// guess fails. A nearly straight time curve (handles near a third of the segment, as a
// conversion to 2-D Bezier leaves them) is guessed on the straight line through its ends;
// others from there by two Newton steps.
[[gnu::always_inline]] inline bool GuessedValue(const Segment &seg, const PowerCubic &y, double t, double &value)
{
    const PowerCubic &x = seg.x;
    if (seg.straight)
        return ConfirmEnd(x, y, t, t * seg.invRange + seg.onePlusLo, t * seg.invRange + seg.onePlusHi, value);
    double s = (t - x.c0) * seg.invRange;
    const double r = 1.0 / (x.a + 2.0 * x.b * s + 3.0 * x.d * (s * s));
    s -= (x.At(s) - t) * r;
    s -= (x.At(s) - t) * r;
    const double reach = kReach * r;
    return ConfirmEnd(x, y, t, 1.0 + (s - reach), 1.0 + (s + reach), value);
}

// Fills segment i from its keys when it is first evaluated after an edit.
void FillSegment(VxEnvTables *tables, int32_t i)
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
        seg.c[1] = e->value;
        seg.kind = kLinear;
        break;
    case ENV_SHAPE_BEZIER: {
        const double out = OutTangent(s), in = InTangent(e);
        seg.c[0] = s->value;
        seg.c[1] = s->value + out * kThird;
        seg.c[2] = e->value + in * -kThird;
        seg.c[3] = e->value;
        seg.kind = kBezier;
        break;
    }
    case ENV_SHAPE_BEZIER2:
        seg.x = Bezier2X(s, e);
        seg.invRange = 1.0 / (seg.x.a + seg.x.b + seg.x.d);
        seg.onePlusLo = 1.0 - (seg.x.c0 + kReach) * seg.invRange;
        seg.onePlusHi = 1.0 - (seg.x.c0 - kReach) * seg.invRange;
        seg.increasing = IncreasingAtProbes(seg.x);
        seg.straight = seg.increasing && std::fabs(seg.x.b) + std::fabs(seg.x.d) <= 1e-3 * std::fabs(seg.x.a);
        seg.y = Bezier2Y(s, e);
        seg.kind = s->shape == ENV_SHAPE_BEZIER2 ? kBezier2 : kBezier2KeysY;
        break;
    default:
        seg.c[0] = s->value;
        seg.c[1] = e->value;
        seg.c[2] = OutTangent(s);
        seg.c[3] = InTangent(e);
        seg.kind = kHermite;
        break;
    }
}

// OtherValue where a guess does not settle it: fills the segment first when unfilled; a 2-D
// Bezier segment that reads its keys, or whose guess fails, bisects when it must.
[[gnu::noinline]] double UnguessedValue(VxEnvTables *tables, int32_t i, double t, double offset)
{
    Segment &seg = tables->segments[i];
    if (seg.kind == kUnfilled) {
        FillSegment(tables, i);
        if (seg.kind < kUnfilled)
            return TableCurve(tables, i, t, offset);
    }
    const PowerCubic y = seg.kind == kBezier2 ? seg.y : Bezier2Y(tables->keys[i], tables->keys[i + 1]);
    double value;
    if (!seg.increasing || !GuessedValue(seg, y, t, value))
        value = y.At(Bezier2Solve(seg.x, t));
    return value + offset;
}

}  // namespace

double OtherValue(VxEnvTables *tables, int32_t i, double t, double offset)
{
    const Segment &seg = tables->segments[i];
    double value;
    if (seg.kind == kBezier2 && seg.increasing && GuessedValue(seg, seg.y, t, value))
        return value + offset;
    return UnguessedValue(tables, i, t, offset);
}

namespace {

// The least time whose tick is `tick` or later (TickOf never decreases as t grows): first
// guessed, then moved by single steps of the last bit.
double FirstTimeOfTick(int32_t tick)
{
    if (tick == INT32_MIN)
        return -HUGE_VAL;
    double t = (static_cast<double>(tick) - 0.5) * kTickSeconds;
    while (TickOf(t) >= tick)
        t = std::nextafter(t, -HUGE_VAL);
    while (TickOf(t) < tick)
        t = std::nextafter(t, HUGE_VAL);
    return t;
}

// Current tables for an envelope of two keys or more; NULL when memory runs out.
VxEnvTables *Rebuild(VxEnvelope *env)
{
    int32_t count = 0;
    for (VxEnvKey *k = FirstKey(env); k; k = NextKey(k))
        ++count;
    if (count < 2)
        return nullptr;
    VxEnvTables *tables = env->tables;
    if (tables && tables->capacity < count)
        FreeTables(env), tables = nullptr;
    if (!tables) {
        const auto n = static_cast<size_t>(count);
        const size_t bytes = sizeof(VxEnvTables) + n * (sizeof(Segment) + sizeof(VxEnvKey *) + sizeof(int64_t));
        tables = static_cast<VxEnvTables *>(StdTryAlloc(bytes));
        if (!tables)
            return nullptr;
        tables->bytes = bytes;
        tables->capacity = count;
        tables->segments = reinterpret_cast<Segment *>(tables + 1);
        tables->keys = reinterpret_cast<VxEnvKey **>(tables->segments + count);
        tables->starts = reinterpret_cast<int64_t *>(tables->keys + count);
        env->tables = tables;
    }
    tables->count = count;
    tables->last = 0;
    int32_t i = 0;
    for (VxEnvKey *k = FirstKey(env); k; k = NextKey(k), ++i) {
        tables->keys[i] = k;
        tables->starts[i] = OrderKey(FirstTimeOfTick(k->tick));
        tables->segments[i].kind = kUnfilled;
        if (i > 0) {
            Segment &seg = tables->segments[i - 1];
            seg.from = OrderKey(FirstTimeOfTick(tables->keys[i - 1]->tick + 1));
            seg.width = static_cast<uint64_t>(tables->starts[i]) - static_cast<uint64_t>(seg.from);
        }
    }
    env->current = tables;
    return tables;
}

}  // namespace

bool TablesValue(VxEnvelope *env, double t, int32_t n, double offset, double &value)
{
    VxEnvTables *tables = env->current ? env->current : Rebuild(env);
    if (!tables || std::isnan(t))
        return false;
    const int64_t key = OrderKey(t);
    const int32_t i = SegmentAt(tables, key);
    if (Inside(tables, i, key)) {
        value = TableCurve(tables, i, t, offset);
        return true;
    }
    // On a key: the one on tick n, the first or the last.
    const int32_t at = n <= tables->keys[i]->tick ? i : i + 1;
    value = offset + tables->keys[at]->value;
    return true;
}

void FreeTables(VxEnvelope *env)
{
    if (env->tables)
        FreeHeap(env->tables, env->tables->bytes);
    env->tables = nullptr;
    env->current = nullptr;
}

}  // namespace vx::env
