// Evaluation: the tangent rules, the segment curves, the pre/post behaviours and the modifier
// walk. The walk over the key list here is the reference; the tables of env_tables.cpp give
// the same bits faster and are used whenever they can be had.
#include "anim/env_tables.h"

#include <algorithm>
#include <bit>

namespace vx::env {
namespace {

// tick(x) of a handle stored as an absolute time, as the 2-D Bezier tangents read it.
double HandleTick(double seconds) { return static_cast<double>(TickOf(seconds)); }

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

// The first handle of a 2-D Bezier segment comes from its start key's own handle when that key
// is a 2-D Bezier key, else from a third of the segment and the key's cached out tangent p4.
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
    return PowerCubic::Of(sTime, x1, eTime + e->p[0], eTime);
}

PowerCubic Bezier2Y(const VxEnvKey *s, const VxEnvKey *e)
{
    const double y1 = s->shape == ENV_SHAPE_BEZIER2 ? s->value + s->p[3] : s->value + s->p[4] * kThird;
    return PowerCubic::Of(s->value, y1, e->value + e->p[1], e->value);
}

double Bezier2Solve(const PowerCubic &x, double t)
{
    double lo = 0.0, hi = 1.0, mid = 0.0;
    for (int i = 0;; ++i) {
        mid = lo + (hi - lo) * 0.5;
        if (i > 16)
            break;
        const double at = x.At(mid);
        if (std::fabs(t - at) < 0.0001)
            break;
        // Selected without a branch: the direction is a coin toss the predictor cannot learn.
        const bool below = at < t;
        lo = below ? mid : lo;
        hi = below ? hi : mid;
    }
    return mid;
}

namespace {

double Bezier2Value(const VxEnvKey *s, const VxEnvKey *e, double t, double offset)
{
    return Bezier2Y(s, e).At(Bezier2Solve(Bezier2X(s, e), t)) + offset;
}

// The segment from S to E at t, whose tick n lies strictly between theirs, plus `offset`: the
// curve of E's shape. `probeBefore` marks the Linear pre-behaviour probe, which reads a
// Hermite-family segment that starts at a 2-D Bezier key from the 2-D Bezier curve.
double SegmentValue(VxEnvKey *s, VxEnvKey *e, double t, int32_t n, double offset, bool probeBefore)
{
    const int64_t dt = int64_t{e->tick} - s->tick;
    if (e->shape == ENV_SHAPE_STEPPED || (e->shape == ENV_SHAPE_LINEAR && dt <= 1))
        return offset + (n < e->tick ? s->value : e->value);
    const double u = SegmentU(t, s->tick, dt);
    switch (e->shape) {
    case ENV_SHAPE_LINEAR: return LinearCurve(offset, s->value, e->value, u);
    case ENV_SHAPE_BEZIER: {
        const double out = OutTangent(s), in = InTangent(e);
        return BezierCurve(offset, s->value, s->value + out * kThird, e->value + in * -kThird, e->value, u);
    }
    case ENV_SHAPE_BEZIER2: return Bezier2Value(s, e, t, offset);
    default: {
        if (probeBefore && s->shape == ENV_SHAPE_BEZIER2)
            return Bezier2Value(s, e, t, offset);
        const double out = OutTangent(s), in = InTangent(e);
        return HermiteCurve(offset, s->value, e->value, out, in, u);
    }
    }
}

// The curve at t (tick n) plus `offset`, found by walking the key list: the value of a key on
// tick n, else the segment around n, else the key on the side of n that exists.
double WalkValue(VxEnvelope *env, double t, int32_t n, double offset, bool probeBefore)
{
    VxEnvKey *s = nullptr;
    for (VxEnvKey *k = FirstKey(env); k; s = k, k = NextKey(k)) {
        if (k->tick == n)
            return offset + k->value;
        if (k->tick > n)
            return s ? SegmentValue(s, k, t, n, offset, probeBefore) : offset + k->value;
    }
    return offset + s->value;
}

double ValueAt(VxEnvelope *env, double t, int32_t n, double offset, bool probeBefore = false)
{
    double value;
    if (!probeBefore && TablesValue(env, t, n, offset, value))
        return value;
    return WalkValue(env, t, n, offset, probeBefore);
}

// True when a and b have the same sign and exponent, and are normal numbers.
bool SameBinade(double a, double b)
{
    const uint64_t top = std::bit_cast<uint64_t>(a) >> 52;
    return top == std::bit_cast<uint64_t>(b) >> 52 && (top & 0x7FF) != 0 && (top & 0x7FF) != 0x7FF;
}

// How many more rounds of subtracting `amount` keep x, a normal number, clear of the edges of
// its binade by at least one amount: then each exact difference lies in the binade and
// rounds on x's grid.
int64_t RoundsInBinade(double x, double amount)
{
    const double low = std::bit_cast<double>(std::bit_cast<uint64_t>(x) & 0x7FF0000000000000u);
    const double magnitude = std::fabs(x);
    const double distance = (x > 0.0) == (amount > 0.0) ? magnitude - low : 2.0 * low - magnitude;
    const double rounds = std::floor(distance / std::fabs(amount)) - 2.0;
    return rounds > 0.0 ? static_cast<int64_t>(std::fmin(rounds, 9e18)) : 0;
}

// t after `rounds` subtractions of `step`, each rounded on its own, at a cost that grows with
// the binades crossed, not the rounds. Inside one binade t lies on a fixed grid, so each
// difference t - step rounds by the same amount; only when step falls halfway between grid
// points does the first round pick the even neighbour, after which every round picks the same
// one. So once two rounds in a row stayed inside a binade, the last one's amount repeats for
// as long as t stays clear of the binade's edges, and those rounds are one exact product (a
// multiple of the grid smaller than the binade).
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

// Repeat, Oscillate and Offset repeat: t moved by whole cycles into the key range, one rounded
// addition or subtraction of the range per cycle, and evaluated there.
double Cycled(VxEnvelope *env, const VxEnvKey *first, const VxEnvKey *last, double t, int32_t n, int32_t behaviour)
{
    const int64_t rangeTicks = int64_t{last->tick} - first->tick;
    const double tF = SecondsOf(first->tick);
    const double tL = SecondsOf(last->tick);
    const double range = tL - tF;
    const bool before = n < first->tick;
    const int64_t cycles = before ? (int64_t{first->tick} - n + rangeTicks - 1) / rangeTicks
                                  : (int64_t{n} - last->tick + rangeTicks - 1) / rangeTicks;
    double shifted = SubtractRounds(t, before ? -range : range, cycles);
    if (behaviour == ENV_BEHAVIOR_OSCILLATE && (cycles & 1))
        shifted = tL + tF - shifted;
    double offset = 0.0;
    if (behaviour == ENV_BEHAVIOR_OFFSET)
        offset = (before ? first->value - last->value : last->value - first->value) * static_cast<double>(cycles);
    return ValueAt(env, shifted, TickOf(shifted), offset);
}

// Two ticks, the distance of the Linear behaviour's probe from the end key.
constexpr double kProbeSeconds = 2.0 * kTickSeconds;

double BeforeFirst(VxEnvelope *env, VxEnvKey *first, VxEnvKey *last, double t, int32_t n)
{
    const double tF = SecondsOf(first->tick);
    switch (env->pre) {
    case ENV_BEHAVIOR_RESET: return 0.0;
    case ENV_BEHAVIOR_REPEAT:
    case ENV_BEHAVIOR_OSCILLATE:
    case ENV_BEHAVIOR_OFFSET: return Cycled(env, first, last, t, n, env->pre);
    case ENV_BEHAVIOR_LINEAR: {
        if (first->shape == ENV_SHAPE_LINEAR)
            return first->value + OutTangent(first) * (t - tF);
        if (first->shape == ENV_SHAPE_STEPPED)
            return first->value;
        const double at = tF + kProbeSeconds;
        const double probe = ValueAt(env, at, TickOf(at), 0.0, true);
        return first->value + (probe - first->value) / kProbeSeconds * (t - tF);
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
    case ENV_BEHAVIOR_OFFSET: return Cycled(env, first, last, t, n, env->post);
    case ENV_BEHAVIOR_LINEAR: {
        if (last->shape == ENV_SHAPE_LINEAR)
            return last->value + InTangent(last) * (t - tL);
        if (last->shape == ENV_SHAPE_STEPPED)
            return last->value;
        const double at = tL - kProbeSeconds;
        const double probe = ValueAt(env, at, TickOf(at), 0.0);
        return last->value + (last->value - probe) / kProbeSeconds * (t - tL);
    }
    default: return last->value;
    }
}

// The curve at t by the steps of evaluation: behaviours outside the key range, the segment
// inside it.
[[gnu::noinline]] double Steps(VxEnvelope *env, double t)
{
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
    return ValueAt(env, t, n, 0.0);
}

}  // namespace

}  // namespace vx::env

using namespace vx::env;

namespace {

// The modifiers in order, each replacing the last value, up to one flagged to stop the walk.
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

// The curve value at t, not stored.
double CurveValue(VxEnvelope *env, double t)
{
    double value;
    return TablesInnerValue(env, t, value) ? value : Steps(env, t);
}

// The last value after the modifiers.
[[gnu::noinline]] double Filtered(VxEnvelope *env, double t)
{
    RunFilters(env, t);
    return env->lastValue;
}

// The curve value by the steps of evaluation, stored, and the modifiers.
[[gnu::noinline]] double EvaluateBySteps(VxEnvelope *env, double t, bool filters)
{
    env->lastValue = Steps(env, t);
    return filters ? Filtered(env, t) : env->lastValue;
}

// The curve value at t, stored, and the modifiers when `filters`. The tables answer the common
// case, a time inside the key range, on their own; every other case ends in a call made last
// (a jump), which keeps the common case's saved registers few.
[[gnu::always_inline]] inline double Evaluate(VxEnvelope *env, double t, bool filters)
{
    double value;
    if (!TablesInnerValue(env, t, value))
        return EvaluateBySteps(env, t, filters);
    env->lastValue = value;
    return filters ? Filtered(env, t) : value;
}

}  // namespace

double EnvKeyEvaluate(VxEnvelope *env, double t) { return Evaluate(env, t, false); }

double EnvEvaluate(VxEnvelope *env, double t) { return Evaluate(env, t, env->filters.head->succ != nullptr); }

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
