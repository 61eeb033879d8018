// Envelope records: creation, copies, attributes, groups and the notification gate.
#include "anim/envelope_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include <cstring>

namespace vx::env {
namespace {

constexpr const char *kDefaultNames[16] = {
    "(envelope)", "Position.X", "Position.Y", "Position.Z", "Rotation.H", "Rotation.P",
    "Rotation.B", "Scale.X",    "Scale.Y",    "Scale.Z",    "Color.R",    "Color.G",
    "Color.B",    "Falloff.X",  "Falloff.Y",  "Falloff.Z",
};

VxEnvGroup g_rootGroup;
bool g_rootReady = false;
// The identity under which the envelope layer owns the global envelope port.
const char g_globalServer = 0;

const char *DefaultName(int32_t type)
{
    return type >= 0 && type < 16 ? kDefaultNames[type] : kDefaultNames[0];
}

void SetName(VxEnvelope *env, const char *name)
{
    std::strncpy(env->nameBuffer, name, kNameMax);
    env->nameBuffer[kNameMax] = '\0';
    env->name = env->nameBuffer;
}

void FreeKeyListArm(uintptr_t list, uintptr_t) { FreeKeyList(reinterpret_cast<VxList *>(list)); }

}  // namespace

void Notify(VxEnvelope *env, int32_t event, uint32_t mask, uintptr_t argument)
{
    if (!env->port)
        return;
    if (env->tracking >= 1)
        PortNotify(env->port, env->server, 0, event, mask, argument);
    else
        --env->tracking;
}

void FreeKeyList(VxList *keys)
{
    while (VxNode *n = RemHead(keys))
        FreeHeap(n, sizeof(VxEnvKey));
}

void CopyKeyList(VxList *out, const VxEnvelope *from, VxEnvelope *owner, int32_t *countOut)
{
    NewList(out);
    CkptArm(FreeKeyListArm, reinterpret_cast<uintptr_t>(out), 0);
    int32_t count = 0;
    for (VxEnvKey *k = FirstKey(from); k; k = NextKey(k)) {
        auto *copy = static_cast<VxEnvKey *>(StdAlloc(sizeof(VxEnvKey)));
        *copy = *k;
        copy->env = owner;
        AddTail(out, &copy->node);
        ++count;
    }
    *countOut = count;
}

}  // namespace vx::env

using namespace vx::env;

void EnvGroupInit(VxEnvGroup *group) { NewList(&group->envelopes); }

VxEnvGroup *EnvRootGroup(void)
{
    if (!g_rootReady) {
        EnvGroupInit(&g_rootGroup);
        g_rootReady = true;
    }
    return &g_rootGroup;
}

VxEnvelope *EnvCreate(VxEnvGroup *group, uintptr_t clientData, int32_t type, const char *name)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *env = static_cast<VxEnvelope *>(StdAlloc(sizeof(VxEnvelope)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(env), sizeof(VxEnvelope));
    const auto server = reinterpret_cast<uintptr_t>(&g_globalServer);
    VxPort *global = GlobalPortAcquire(ENV_GLOBAL_PORT, 0, server, nullptr);
    env->group = group ? group : EnvRootGroup();
    env->clientData = clientData;
    env->type = type;
    SetName(env, name ? name : DefaultName(type));
    NewList(&env->keys);
    NewList(&env->filters);
    env->pre = ENV_BEHAVIOR_CONSTANT;
    env->post = ENV_BEHAVIOR_CONSTANT;
    env->saveIndex = -1;
    env->tracking = 1;
    env->lastValue = EmptyValue(type);
    AddTail(&env->group->envelopes, &env->node);
    CkptEnd();
    PortNotify(global, server, 0, ENV_EVENT_CREATED, 1, reinterpret_cast<uintptr_t>(env));
    return env;
}

void EnvDestroy(VxEnvelope *env)
{
    if (!env)
        return;
    Remove(&env->node);
    FreeKeyList(&env->keys);
    FreeTables(env);
    while (VxNode *n = RemHead(&env->filters)) {
        auto *filter = reinterpret_cast<VxEnvFilter *>(n);
        if (filter->destroy)
            filter->destroy(filter);
    }
    FreeHeap(env, sizeof(VxEnvelope));
}

VxEnvelope *EnvCopy(VxEnvelope *env)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    VxEnvelope *copy = EnvCreate(env->group, env->clientData, env->type, env->name);
    if (!copy)  // only when no outer block exists and the creation failed
        CkptRecover(VX_ERR_NOMEM);
    CkptArm([](uintptr_t e, uintptr_t) { EnvDestroy(reinterpret_cast<VxEnvelope *>(e)); },
            reinterpret_cast<uintptr_t>(copy), 0);
    CopyKeyList(&copy->keys, env, copy, &copy->keyCount);
    copy->pre = env->pre;
    copy->post = env->post;
    CkptEnd();
    return copy;
}

int EnvCopyKeys(VxEnvelope *to, const VxEnvelope *from)
{
    CKPT_BEGIN_OR_RETURN(0);
    VxList copied;
    int32_t count = 0;
    CopyKeyList(&copied, from, to, &count);
    CkptEnd();
    FreeKeyList(&to->keys);
    NewList(&to->keys);
    KeysChanged(to);
    if (count)
        MoveList(&to->keys, &copied);
    to->keyCount = count;
    Notify(to, ENV_NOTIFY_ENVELOPE, 0);
    return 1;
}

const char *EnvName(const VxEnvelope *env) { return env->name; }
int32_t EnvType(const VxEnvelope *env) { return env->type; }
VxEnvGroup *EnvGetGroup(const VxEnvelope *env) { return env->group; }

void EnvSetPort(VxEnvelope *env, VxPort *port, uintptr_t server)
{
    env->port = port;
    env->server = server;
}

void EnvSetSaveIndex(VxEnvelope *env, int32_t index) { env->saveIndex = index; }

int EnvSet(VxEnvelope *env, int32_t attribute, const void *value)
{
    switch (attribute) {
    case ENV_ATTR_PRE: std::memcpy(&env->pre, value, sizeof(int32_t)); break;
    case ENV_ATTR_POST: std::memcpy(&env->post, value, sizeof(int32_t)); break;
    case ENV_ATTR_LAST_VALUE: std::memcpy(&env->lastValue, value, sizeof(double)); break;
    case ENV_ATTR_TOUCH: break;
    default: return 0;
    }
    ++env->stamp;
    Notify(env, ENV_NOTIFY_ENVELOPE, 0);
    return 1;
}

double EnvGet(const VxEnvelope *env, int32_t attribute)
{
    const VxEnvKey *first = FirstKey(env);
    const VxEnvKey *last = LastKey(env);
    switch (attribute) {
    case ENV_ATTR_PRE: return env->pre;
    case ENV_ATTR_POST: return env->post;
    case ENV_ATTR_KEY_COUNT: return env->keyCount;
    case ENV_ATTR_TYPE: return env->type;
    case ENV_ATTR_CHANGE_STAMP: return env->stamp;
    case ENV_ATTR_TRACKING: return env->tracking;
    case ENV_ATTR_FIRST_TIME: return first ? SecondsOf(first->tick) : 0.0;
    case ENV_ATTR_LAST_TIME: return last ? SecondsOf(last->tick) : 0.0;
    case ENV_ATTR_LAST_VALUE: return env->lastValue;
    case ENV_ATTR_SAVE_INDEX: return env->saveIndex;
    default: return 0.0;
    }
}

void EnvTrackSuspend(VxEnvelope *env) { env->tracking = 0; }

int EnvTrackResume(VxEnvelope *env)
{
    const bool suppressed = env->tracking < 0;
    env->tracking = 1;
    if (!suppressed)
        return 0;
    Notify(env, ENV_NOTIFY_ENVELOPE, 0);
    return 1;
}
