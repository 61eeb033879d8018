// Evaluation: the tangent rules, the segment shapes, the pre/post behaviours, the 2-D Bezier
// solve and the modifier walk.
#include "anim/envelope_internal.h"

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
};

// The 2-D Bezier segment from S to E at time t: bisection for x(s) = t, then y(s).
double Bezier2Segment(const VxEnvKey *s, const VxEnvKey *e, double t)
{
    const double sTime = SecondsOf(s->tick);
    const double eTime = SecondsOf(e->tick);
    double x1, y1;
    if (s->shape == ENV_SHAPE_BEZIER2) {
        x1 = sTime + s->p[2];
        y1 = s->value + s->p[3];
    } else {
        const double dtSeconds = static_cast<double>(int64_t{e->tick} - s->tick) * kTickSeconds;
        x1 = sTime + dtSeconds * kThird;
        y1 = s->value + s->p[4] * kThird;
    }
    const double x2 = eTime + e->p[0];
    const double y2 = e->value + e->p[1];
    const PowerCubic xCurve(sTime, x1, x2, eTime);
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
    return PowerCubic(s->value, y1, y2, e->value).At(mid);
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

// The curve at t inside or at the ends of the key range, without the behaviour offset.
// `probeBefore` marks the Linear pre-behaviour probe, which reads a Hermite-family segment
// starting at a 2-D Bezier key from the 2-D Bezier curve.
double SegmentValue(VxEnvelope *env, double t, int32_t n, bool probeBefore)
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
            return k->value;
        if (k->tick > n) {
            e = k;
            break;
        }
        s = k;
    }
    env->hint = s;
    if (!s)
        return e->value;
    if (!e)
        return s->value;
    const int64_t dt = int64_t{e->tick} - s->tick;
    if (e->shape == ENV_SHAPE_STEPPED || (e->shape == ENV_SHAPE_LINEAR && dt <= 1))
        return n < e->tick ? s->value : e->value;
    const double u = (t + static_cast<double>(s->tick) * -kTickSeconds) / (static_cast<double>(dt) * kTickSeconds);
    switch (e->shape) {
    case ENV_SHAPE_LINEAR: return s->value + (e->value - s->value) * u;
    case ENV_SHAPE_BEZIER: return Bezier1(s, e, u);
    case ENV_SHAPE_BEZIER2: return Bezier2Segment(s, e, t);
    default:
        if (probeBefore && s->shape == ENV_SHAPE_BEZIER2)
            return Bezier2Segment(s, e, t);
        return Hermite(s, e, u);
    }
}

struct Wrapped {
    double t;
    double offset;
};

// Repeat, Oscillate and Offset repeat: moves t by whole cycles into the key range.
Wrapped WrapCycles(const VxEnvKey *first, const VxEnvKey *last, double t, int32_t n, int32_t behaviour)
{
    const int64_t rangeTicks = int64_t{last->tick} - first->tick;
    const double tF = SecondsOf(first->tick);
    const double tL = SecondsOf(last->tick);
    const double range = tL - tF;
    int64_t cycles;
    double sign;
    if (n < first->tick) {
        cycles = (int64_t{first->tick} - n + rangeTicks - 1) / rangeTicks;
        sign = 1.0;
    } else {
        cycles = (int64_t{n} - last->tick + rangeTicks - 1) / rangeTicks;
        sign = -1.0;
    }
    Wrapped w{t + sign * range * static_cast<double>(cycles), 0.0};
    if (behaviour == ENV_BEHAVIOR_OSCILLATE && (cycles & 1))
        w.t = tL + tF - w.t;
    if (behaviour == ENV_BEHAVIOR_OFFSET)
        w.offset = (last->value - first->value) * -sign * static_cast<double>(cycles);
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
        return w.offset + SegmentValue(env, w.t, TickOf(w.t), false);
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
        return w.offset + SegmentValue(env, w.t, TickOf(w.t), false);
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

double CurveValue(VxEnvelope *env, double t)
{
    VxEnvKey *first = FirstKey(env);
    if (!first)
        return env->type >= 7 && env->type <= 9 ? 1.0 : 0.0;
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

double EnvEvaluate(VxEnvelope *env, double t)
{
    env->lastValue = CurveValue(env, t);
    RunFilters(env, t);
    return env->lastValue;
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
