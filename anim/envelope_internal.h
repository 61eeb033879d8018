// Envelope and key records, shared by the anim/ sources and their tests.
#pragma once

#include <vxtools3/envelope.h>

#include <atomic>
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
    // The start key of the segment evaluated last: playback resumes its walk there. Cleared
    // whenever a key leaves the list; moved keys stay members, so it stays usable.
    VxEnvKey *hint;
    // Counts the edits of the keys; the evaluation tables below are current while they were
    // built at the same count (and the same count of parameter edits, see g_paramEdits).
    uint64_t edits;
    struct VxEnvTables *tables;
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

// Counts EnvKeySetParam calls of every envelope (a key does not know its envelope).
extern std::atomic<uint64_t> g_paramEdits;

// Marks the evaluation tables and the playback start key stale after any change to the keys:
// their number, order, ticks, values, shapes or parameters.
inline void KeysChanged(VxEnvelope *env)
{
    ++env->edits;
    env->hint = nullptr;
}

// Frees the evaluation tables of an envelope (on destruction).
void FreeTables(VxEnvelope *env);
// The value of an empty envelope and the last value of a new one: 1.0 for the scale channels.
inline double EmptyValue(int32_t type) { return type >= ENV_TYPE_SCALE_FIRST && type <= ENV_TYPE_SCALE_LAST ? 1.0 : 0.0; }

// Sends (event, mask) with `argument` through the envelope's port, or counts the edit as
// suppressed while tracking is suspended.
void Notify(VxEnvelope *env, int32_t event, uint32_t mask, uintptr_t argument);

// The tangent rules; TCB and some Linear cases cache their result in the key.
double OutTangent(VxEnvKey *key);
double InTangent(VxEnvKey *key);

// The curve value at t without storing it.
double CurveValue(VxEnvelope *env, double t);

// Frees every key of a detached list.
void FreeKeyList(VxList *keys);

// A copy of the keys of `from` in `out` (NewList'ed by the callee); raises on exhaustion
// after freeing what it copied.
void CopyKeyList(VxList *out, const VxEnvelope *from, int32_t *countOut);

}  // namespace vx::env
