// Keys: lookup by tick, insertion, edits, shape changes and moving runs of keys.
#include "anim/envelope_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

namespace vx::env {
namespace {

// The last key whose tick is below `tick` (NULL when none): the key to insert after.
VxEnvKey *LastBefore(const VxEnvelope *env, int32_t tick)
{
    VxEnvKey *before = nullptr;
    for (VxEnvKey *k = FirstKey(env); k && k->tick < tick; k = NextKey(k))
        before = k;
    return before;
}

VxEnvKey *KeyAtTick(const VxEnvelope *env, int32_t tick)
{
    for (VxEnvKey *k = FirstKey(env); k && k->tick <= tick; k = NextKey(k))
        if (k->tick == tick)
            return k;
    return nullptr;
}

bool OwnsKey(const VxEnvelope *env, const VxEnvKey *key)
{
    for (VxEnvKey *k = FirstKey(env); k; k = NextKey(k))
        if (k == key)
            return true;
    return false;
}

// Relinks `key` (already unlinked) at its tick's place.
void LinkSorted(VxEnvelope *env, VxEnvKey *key)
{
    VxEnvKey *before = LastBefore(env, key->tick);
    Insert(&env->keys, &key->node, before ? &before->node : nullptr);
}

void MoveKey(VxEnvelope *env, VxEnvKey *key, int32_t tick)
{
    KeysChanged(env);
    Remove(&key->node);
    key->tick = tick;
    LinkSorted(env, key);
}

void ConvertToBezier2(VxEnvKey *key)
{
    const double in = InTangent(key);
    const double out = OutTangent(key);
    const VxEnvKey *prev = PrevKey(key);
    const VxEnvKey *next = NextKey(key);
    double *p = key->p;
    p[0] = p[1] = p[2] = p[3] = 0.0;
    if (prev) {
        p[0] = static_cast<double>(key->tick - prev->tick) * kTickSeconds * -0.33333;
        p[1] = in * p[0];
    }
    if (next) {
        p[2] = static_cast<double>(next->tick - key->tick) * kTickSeconds * 0.33333;
        p[3] = out * p[2];
    }
    if (prev && !next)
        p[1] = p[0] * (key->value - prev->value) / (static_cast<double>(key->tick - prev->tick) / 3600.0);
    if (next && !prev)
        p[3] = p[2] * (next->value - key->value) / (static_cast<double>(next->tick - key->tick) / 3600.0);
}

// A zeroed key, or NULL when memory ran out and no outer block is open.
VxEnvKey *NewKey()
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *key = static_cast<VxEnvKey *>(StdAlloc(sizeof(VxEnvKey)));
    CkptEnd();
    return key;
}

struct Run {
    VxEnvKey *first;
    VxEnvKey *last;
};

// Resolves NULL ends and checks that `first` does not come after `last`.
bool ResolveRun(const VxEnvelope *env, VxEnvKey *first, VxEnvKey *last, Run &run)
{
    run.first = first ? first : FirstKey(env);
    run.last = last ? last : LastKey(env);
    if (!run.first || !run.last || !OwnsKey(env, run.first) || !OwnsKey(env, run.last))
        return false;
    return run.first->tick <= run.last->tick;
}

// Checks that new ticks from `newTick` keep the run strictly increasing and inside its
// neighbours outside the run.
template <typename NewTick>
bool RunStaysOrdered(const Run &run, NewTick newTick)
{
    const VxEnvKey *before = PrevKey(run.first);
    const VxEnvKey *after = NextKey(run.last);
    int64_t previous = before ? before->tick : INT64_MIN;
    for (VxEnvKey *k = run.first;; k = NextKey(k)) {
        const int64_t t = newTick(k);
        if (t <= previous || t < INT32_MIN || t > INT32_MAX)
            return false;
        previous = t;
        if (k == run.last)
            break;
    }
    return !after || previous < after->tick;
}

template <typename NewTick>
void ApplyRun(const Run &run, NewTick newTick)
{
    for (VxEnvKey *k = run.first;; k = NextKey(k)) {
        k->tick = static_cast<int32_t>(newTick(k));
        if (k == run.last)
            break;
    }
}

}  // namespace
}  // namespace vx::env

using namespace vx::env;

VxEnvKey *EnvGetKey(const VxEnvelope *env, double t) { return KeyAtTick(env, TickOf(t)); }
VxEnvKey *EnvKeyFirst(const VxEnvelope *env) { return FirstKey(env); }
VxEnvKey *EnvKeyLast(const VxEnvelope *env) { return LastKey(env); }
VxEnvKey *EnvKeyNext(const VxEnvelope *, const VxEnvKey *key) { return NextKey(key); }
VxEnvKey *EnvKeyPrev(const VxEnvelope *, const VxEnvKey *key) { return PrevKey(key); }

VxEnvKey *EnvNextKeyframe(const VxEnvelope *env, double t)
{
    const int32_t tick = TickOf(t);
    for (VxEnvKey *k = FirstKey(env); k; k = NextKey(k))
        if (k->tick > tick)
            return k;
    return nullptr;
}

VxEnvKey *EnvPrevKeyframe(const VxEnvelope *env, double t)
{
    return LastBefore(env, TickOf(t));
}

VxEnvKey *EnvAddKey(VxEnvelope *env, double t, double value)
{
    if (!env)
        return nullptr;
    const int32_t tick = TickOf(t);
    if (VxEnvKey *existing = KeyAtTick(env, tick)) {
        existing->value = value;
        KeysChanged(env);
        Notify(env, ENV_NOTIFY_KEY_CHANGED, reinterpret_cast<uintptr_t>(existing));
        return existing;
    }
    VxEnvKey *key = NewKey();
    if (!key)
        return nullptr;
    key->tick = tick;
    key->value = value;
    key->env = env;
    KeysChanged(env);
    LinkSorted(env, key);
    ++env->keyCount;
    if (env->port && env->tracking >= 1) {
        PortNotify(env->port, env->server, 0, ENV_NOTIFY_KEY_ADDED, reinterpret_cast<uintptr_t>(key));
        PortNotify(env->port, env->server, 0, ENV_NOTIFY_KEY_INSERTED, reinterpret_cast<uintptr_t>(key));
    } else {
        Notify(env, 0, 0, 0);  // counts the suppressed edit
    }
    return key;
}

int EnvSetKey(VxEnvelope *env, VxEnvKey *key, double value)
{
    key->value = value;
    KeysChanged(env);
    Notify(env, ENV_NOTIFY_KEY_CHANGED, reinterpret_cast<uintptr_t>(key));
    return 1;
}

int EnvDelKey(VxEnvelope *env, VxEnvKey *key)
{
    if (!key || !OwnsKey(env, key))
        return 0;
    Notify(env, ENV_NOTIFY_KEY_DELETED, reinterpret_cast<uintptr_t>(key));
    KeysChanged(env);
    Remove(&key->node);
    --env->keyCount;
    FreeHeap(key, sizeof(VxEnvKey));
    return 1;
}

VxEnvKey *EnvKeyReplace(VxEnvelope *env, VxEnvKey *key, double t, double value)
{
    const int32_t tick = TickOf(t);
    VxEnvKey *occupant = KeyAtTick(env, tick);
    if (occupant && occupant != key) {
        Remove(&occupant->node);
        --env->keyCount;
        FreeHeap(occupant, sizeof(VxEnvKey));
    }
    MoveKey(env, key, tick);
    key->value = value;
    Notify(env, ENV_NOTIFY_KEY_CHANGED, reinterpret_cast<uintptr_t>(key));
    return key;
}

int EnvKeySetTime(VxEnvelope *env, VxEnvKey *key, double t)
{
    const int32_t tick = TickOf(t);
    VxEnvKey *occupant = KeyAtTick(env, tick);
    if (occupant && occupant != key)
        return 0;
    MoveKey(env, key, tick);
    Notify(env, ENV_NOTIFY_KEY_CHANGED, reinterpret_cast<uintptr_t>(key));
    return 1;
}

double EnvKeyValue(const VxEnvKey *key) { return key->value; }
double EnvKeyTime(const VxEnvKey *key) { return SecondsOf(key->tick); }
int32_t EnvKeyType(const VxEnvKey *key) { return key->shape; }

void EnvKeySetType(VxEnvelope *env, VxEnvKey *key, int32_t shape)
{
    ++env->stamp;
    KeysChanged(env);
    const bool wasBezier2 = key->shape == ENV_SHAPE_BEZIER2;
    const bool isBezier2 = shape == ENV_SHAPE_BEZIER2;
    if (isBezier2 && !wasBezier2)
        ConvertToBezier2(key);
    else if (wasBezier2 && !isBezier2)
        key->p[0] = key->p[1] = key->p[2] = 0.0;
    key->shape = shape;
    Notify(env, ENV_NOTIFY_KEY_CHANGED, reinterpret_cast<uintptr_t>(key));
}

double EnvKeyGetParam(const VxEnvKey *key, int32_t index)
{
    return index >= 0 && index < 5 ? key->p[index] : 0.0;
}

void EnvKeySetParam(VxEnvKey *key, int32_t index, double value)
{
    if (index >= 0 && index < 5) {
        key->p[index] = value;
        KeysChanged(key->env);
    }
}

uint32_t EnvKeyMask(const VxEnvKey *key) { return key->mask; }

uint32_t EnvKeySetMask(VxEnvKey *key, uint32_t mask)
{
    const uint32_t previous = key->mask;
    key->mask = mask;
    return previous;
}

int EnvShiftKeys(VxEnvelope *env, VxEnvKey *first, VxEnvKey *last, double dt)
{
    Run run;
    if (!ResolveRun(env, first, last, run))
        return 0;
    const double ticks = std::floor(dt * 3600.0 + 0.5);
    if (!(std::fabs(ticks) <= 4294967296.0))
        return 0;
    const auto delta = static_cast<int64_t>(ticks);
    auto shifted = [delta](const VxEnvKey *k) { return k->tick + delta; };
    if (!RunStaysOrdered(run, shifted))
        return 0;
    KeysChanged(env);
    ApplyRun(run, shifted);
    Notify(env, ENV_NOTIFY_ENVELOPE, 0);
    return 1;
}

int EnvScaleKeys(VxEnvelope *env, VxEnvKey *first, VxEnvKey *last, double pivot, double factor)
{
    Run run;
    if (!(factor > 0.0 && factor <= 1e300) || !ResolveRun(env, first, last, run))
        return 0;
    auto scaled = [pivot, factor](const VxEnvKey *k) -> int64_t {
        const double x = std::floor((pivot + (SecondsOf(k->tick) - pivot) * factor) * 3600.0 + 0.5);
        return x >= -4e18 && x <= 4e18 ? static_cast<int64_t>(x) : INT64_MAX;
    };
    if (!RunStaysOrdered(run, scaled))
        return 0;
    KeysChanged(env);
    ApplyRun(run, scaled);
    for (VxEnvKey *k = run.first;; k = NextKey(k)) {
        if (k->shape == ENV_SHAPE_BEZIER2) {
            k->p[0] *= factor;
            k->p[2] *= factor;
        }
        if (k == run.last)
            break;
    }
    Notify(env, ENV_NOTIFY_ENVELOPE, 0);
    return 1;
}
