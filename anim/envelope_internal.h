// Envelope and key records, shared by the anim/ sources and their tests.
#pragma once

#include <vxtools3/envelope.h>

#include <cmath>
#include <climits>
#include <cstdint>

// One tick in seconds. Conversions multiply by it; they never divide by 3600.
constexpr double kTickSeconds = 1.0 / 3600.0;
constexpr int kNameMax = 99;

struct VxEnvKey {
    VxNode node;  // succ, pred on the envelope's key list
    int32_t tick;
    double value;
    int32_t shape;
    uint32_t mask;
    double p[5];
    VxEnvelope *env;  // the envelope whose key list holds the key
};

struct VxEnvelope {
    VxNode node;  // on the group's envelope list
    VxEnvGroup *group;
    char *name;
    uintptr_t reserved;
    uintptr_t clientData;
    int32_t type;
    VxList keys;
    VxList filters;
    int32_t pre;
    int32_t post;
    VxPort *port;
    uintptr_t server;
    int32_t saveIndex;
    int32_t tracking;
    uint32_t stamp;
    int32_t keyCount;
    double lastValue;
    double second;
    char nameBuffer[kNameMax + 1];
    // Evaluation tables (env_tables.cpp): built on demand and kept for reuse; `current` is the
    // same block while it matches the keys, and null after any change to them.
    struct VxEnvTables *tables;
    struct VxEnvTables *current;
};

namespace vx::env {

// floor(t * 3600 + 0.5), clamped to the 32-bit range; NaN gives 0. The floor is taken by
// truncating and stepping down, which avoids a library call on processors without a
// rounding instruction.
inline int32_t TickOf(double t)
{
    const double x = t * 3600.0 + 0.5;
    if (!(x > -2147483648.0))
        return x != x ? 0 : INT32_MIN;
    if (x >= 2147483647.0)
        return INT32_MAX;
    const auto truncated = static_cast<int32_t>(x);
    return static_cast<double>(truncated) > x ? truncated - 1 : truncated;
}

inline double SecondsOf(int32_t tick) { return static_cast<double>(tick) * kTickSeconds; }

inline VxEnvKey *FirstKey(const VxEnvelope *env)
{
    VxNode *n = env->keys.head;
    return n->succ ? reinterpret_cast<VxEnvKey *>(n) : nullptr;
}
inline VxEnvKey *LastKey(const VxEnvelope *env)
{
    VxNode *n = env->keys.tailPred;
    return n->pred ? reinterpret_cast<VxEnvKey *>(n) : nullptr;
}
inline VxEnvKey *NextKey(const VxEnvKey *k)
{
    VxNode *n = k->node.succ;
    return n && n->succ ? reinterpret_cast<VxEnvKey *>(n) : nullptr;
}
inline VxEnvKey *PrevKey(const VxEnvKey *k)
{
    VxNode *n = k->node.pred;
    return n && n->pred ? reinterpret_cast<VxEnvKey *>(n) : nullptr;
}

// Marks the evaluation tables stale after any change to the keys: their number, order,
// ticks, values, shapes or parameters.
inline void KeysChanged(VxEnvelope *env) { env->current = nullptr; }

// The value of an empty envelope and the last value of a new one: 1.0 for the scale channels.
inline double EmptyValue(int32_t type) { return type >= ENV_TYPE_SCALE_FIRST && type <= ENV_TYPE_SCALE_LAST ? 1.0 : 0.0; }

// Sends (event, mask) with `argument` through the envelope's port, or counts the edit as
// suppressed while tracking is suspended.
void Notify(VxEnvelope *env, int32_t event, uint32_t mask, uintptr_t argument);

// The tangent rules; TCB and some Linear cases cache their result in the key.
double OutTangent(VxEnvKey *key);
double InTangent(VxEnvKey *key);

// Frees every key of a detached list.
void FreeKeyList(VxList *keys);

// A copy of the keys of `from`, owned by `owner`, in `out` (NewList'ed by the callee); raises
// on exhaustion after freeing what it copied.
void CopyKeyList(VxList *out, const VxEnvelope *from, VxEnvelope *owner, int32_t *countOut);

// ---- The curve of one segment, shared by the key walk and the tables ----------------------

constexpr double kThird = 0.3333333333333333;

// u of time t in the segment from the tick `start` over `ticks` ticks.
inline double SegmentU(double t, int32_t start, int64_t ticks)
{
    return (t + static_cast<double>(start) * -kTickSeconds) / (static_cast<double>(ticks) * kTickSeconds);
}

inline double LinearCurve(double offset, double start, double end, double u) { return offset + start + (end - start) * u; }

inline double HermiteCurve(double offset, double start, double end, double out, double in, double u)
{
    const double u2 = u * u;
    const double u3 = u2 * u;
    const double h1 = 2.0 * u3 - 3.0 * u2 + 1.0;
    const double h2 = 3.0 * u2 - 2.0 * u3;
    const double h3 = u3 - 2.0 * u2 + u;
    const double h4 = u3 - u2;
    return start * h1 + end * h2 + out * h3 + in * h4 + offset;
}

// The one-dimensional Bezier over the control values start, a, b, end.
inline double BezierCurve(double offset, double start, double a, double b, double end, double u)
{
    const double u2 = u * u;
    const double u3 = u2 * u;
    const double w0 = 1.0 - 3.0 * u + 3.0 * u2 - u3;
    const double w1 = 3.0 * u - 6.0 * u2 + 3.0 * u3;
    const double w2 = 3.0 * u2 - 3.0 * u3;
    return start * w0 + a * w1 + b * w2 + end * u3 + offset;
}

// A cubic with control values c0 ... c3, in power form: c0 + a s + b s^2 + d s^3.
struct PowerCubic {
    double c0, a, b, d;
    static PowerCubic Of(double p0, double p1, double p2, double p3)
    {
        const double a = (p1 - p0) * 3.0;
        const double b = (p2 - p1) * 3.0 - a;
        return {p0, a, b, p3 - p0 - a - b};
    }
    double At(double s) const { return c0 + a * s + b * (s * s) + d * (s * s * s); }
};

// The time and value curves of the 2-D Bezier segment from S to E.
PowerCubic Bezier2X(const VxEnvKey *s, const VxEnvKey *e);
PowerCubic Bezier2Y(const VxEnvKey *s, const VxEnvKey *e);
// The parameter where x(s) = t by bisection of [0, 1], stopped within 0.0001 seconds or after
// 17 probes.
double Bezier2Solve(const PowerCubic &x, double t);

// ---- Evaluation tables (env_tables.cpp) ----------------------------------------------------

// The curve at t plus `offset` from the tables, rebuilt first when stale, for a tick n from
// the first key's to the last key's. False when the tables cannot be had for want of memory
// (the caller then walks the keys).
bool TablesValue(VxEnvelope *env, double t, int32_t n, double offset, double &value);
void FreeTables(VxEnvelope *env);

}  // namespace vx::env
