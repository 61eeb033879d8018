// The saved form of an envelope: one "ENVL" block through a save state (IFF or text), and
// the loader that reads it back.
#include "anim/envelope_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include <cstring>

namespace vx::env {
namespace {

constexpr uint32_t kEnvl = VX_ID('E', 'N', 'V', 'L');
constexpr uint32_t kName = VX_ID('N', 'A', 'M', 'E');
constexpr uint32_t kType = VX_ID('T', 'Y', 'P', 'E');
constexpr uint32_t kPre = VX_ID('P', 'R', 'E', ' ');
constexpr uint32_t kKey = VX_ID('K', 'E', 'Y', ' ');
constexpr uint32_t kSpan = VX_ID('S', 'P', 'A', 'N');
constexpr uint32_t kPost = VX_ID('P', 'O', 'S', 'T');
constexpr uint32_t kChan = VX_ID('C', 'H', 'A', 'N');

constexpr uint32_t kTcb = VX_ID('T', 'C', 'B', ' ');
constexpr uint32_t kHerm = VX_ID('H', 'E', 'R', 'M');
constexpr uint32_t kLine = VX_ID('L', 'I', 'N', 'E');
constexpr uint32_t kStep = VX_ID('S', 'T', 'E', 'P');
constexpr uint32_t kBez2 = VX_ID('B', 'E', 'Z', '2');

constexpr VxBlockDesc kEnvlDesc[] = {{kEnvl, "Envelope"}, {0, nullptr}};
constexpr VxBlockDesc kParts[] = {
    {kName, "Name"}, {kType, "Type"}, {kPre, "Pre"},        {kKey, "Key"},
    {kSpan, "Span"}, {kPost, "Post"}, {kChan, "Channel"},   {0, nullptr},
};
const VxBlockDesc &Desc(uint32_t id)
{
    for (const VxBlockDesc &d : kParts)
        if (d.id == id)
            return d;
    return kEnvlDesc[0];
}

EnvFilterLoadFunc *g_filterLoader = nullptr;
void *g_filterLoaderUser = nullptr;

// ---- Saving -----------------------------------------------------------------------------

void SaveShort(VxSaveState *st, uint32_t id, int32_t value)
{
    const auto v = static_cast<int16_t>(value);
    st->beginBlock(st, &Desc(id));
    st->writeShorts(st, &v, 1);
    st->endBlock(st);
}

void SaveFloats(VxSaveState *st, const double *values, int32_t n)
{
    float f[4];
    for (int32_t i = 0; i < n; ++i)
        f[i] = static_cast<float>(values[i]);
    st->writeFloats(st, f, n);
}

// The span of a key: its shape's identifier and parameters; no block for codes without one.
void SaveSpan(VxSaveState *st, const VxEnvKey *k)
{
    uint32_t id;
    const double *params = k->p;
    int32_t count;
    switch (k->shape) {
    case ENV_SHAPE_TCB: id = kTcb, count = 3; break;
    case ENV_SHAPE_HERMITE:
    case ENV_SHAPE_BEZIER: id = kHerm, params = k->p + 3, count = 2; break;
    case ENV_SHAPE_LINEAR: id = kLine, count = 0; break;
    case ENV_SHAPE_STEPPED: id = kStep, count = 0; break;
    case ENV_SHAPE_BEZIER2: id = kBez2, count = 4; break;
    default: return;
    }
    st->beginBlock(st, &Desc(kSpan));
    st->writeIDs(st, &id, 1);
    SaveFloats(st, params, count);
    st->endBlock(st);
}

void SaveKey(VxSaveState *st, const VxEnvKey *k)
{
    const double key[2] = {SecondsOf(k->tick), k->value};
    st->beginBlock(st, &Desc(kKey));
    SaveFloats(st, key, 2);
    st->endBlock(st);
    SaveSpan(st, k);
}

void SaveFilter(VxSaveState *st, VxEnvFilter *f)
{
    const auto flags = static_cast<int16_t>(f->flags);
    st->beginBlock(st, &Desc(kChan));
    st->writeString(st, f->serverName);
    st->writeShorts(st, &flags, 1);
    if (f->save && !st->error) {
        const int32_t code = f->save(f, st);
        if (code && !st->error)
            st->error = code;
    }
    st->endBlock(st);
}

// ---- Loading ----------------------------------------------------------------------------

// What a load collects before it replaces the envelope's contents.
struct Loaded {
    VxList keys;
    VxList filters;
    int32_t keyCount;
    VxEnvKey *current;  // the key a "SPAN" belongs to
    char name[kNameMax + 1];
    bool named;
    int32_t type;
    bool typed;
    int32_t pre, post;
    uint32_t index;
};

void FreeLoadedArm(uintptr_t loaded, uintptr_t)
{
    auto *l = reinterpret_cast<Loaded *>(loaded);
    FreeKeyList(&l->keys);
    while (VxNode *n = RemHead(&l->filters)) {
        auto *f = reinterpret_cast<VxEnvFilter *>(n);
        if (f->destroy)
            f->destroy(f);
    }
}

void LoadKey(VxLoadState *st, Loaded &l)
{
    float f[2];
    if (st->readFloats(st, f, 2) != 2)
        return;
    const int32_t tick = TickOf(f[0]);
    VxEnvKey *before = nullptr;
    VxEnvKey *k = reinterpret_cast<VxEnvKey *>(l.keys.head);
    for (; k->node.succ && k->tick < tick; k = reinterpret_cast<VxEnvKey *>(k->node.succ))
        before = k;
    if (!k->node.succ || k->tick != tick) {
        k = static_cast<VxEnvKey *>(StdAlloc(sizeof(VxEnvKey)));
        k->tick = tick;
        Insert(&l.keys, &k->node, before ? &before->node : nullptr);
        ++l.keyCount;
    }
    k->value = f[1];
    l.current = k;
}

void LoadSpan(VxLoadState *st, Loaded &l)
{
    uint32_t id = 0;
    if (!l.current || st->readIDs(st, &id, 1) != 1)
        return;
    VxEnvKey *k = l.current;
    float f[4] = {};
    int32_t first = 0, count = 0;
    switch (id) {
    case kTcb: k->shape = ENV_SHAPE_TCB, count = 3; break;
    case kHerm: k->shape = ENV_SHAPE_HERMITE, first = 3, count = 2; break;
    case kLine: k->shape = ENV_SHAPE_LINEAR; break;
    case kStep: k->shape = ENV_SHAPE_STEPPED; break;
    case kBez2: k->shape = ENV_SHAPE_BEZIER2, count = 4; break;
    default: return;
    }
    const int32_t got = count ? st->readFloats(st, f, count) : 0;
    for (int32_t i = 0; i < got; ++i)
        k->p[first + i] = f[i];
}

void LoadFilter(VxLoadState *st, Loaded &l)
{
    char server[256];
    int16_t flags = 0;
    if (st->readString(st, server, sizeof server) != 1 || st->readShorts(st, &flags, 1) != 1 || !g_filterLoader)
        return;
    if (VxEnvFilter *f = g_filterLoader(server, flags, st, g_filterLoaderUser))
        AddTail(&l.filters, &f->node);
}

void LoadPart(VxLoadState *st, uint32_t id, Loaded &l)
{
    int16_t behaviour;
    uint8_t type[2];
    switch (id) {
    case kName: l.named = st->readString(st, l.name, sizeof l.name) == 1; break;
    case kType:
        if (st->readBytes(st, type, 2) == 2)
            l.type = type[1], l.typed = true;
        break;
    case kPre:
        if (st->readShorts(st, &behaviour, 1) == 1)
            l.pre = behaviour;
        break;
    case kPost:
        if (st->readShorts(st, &behaviour, 1) == 1)
            l.post = behaviour;
        break;
    case kKey: LoadKey(st, l); break;
    case kSpan: LoadSpan(st, l); break;
    case kChan: LoadFilter(st, l); break;
    }
}

// Reads the parts of the entered "ENVL" block into `l`; raises on exhaustion.
void LoadParts(VxLoadState *st, Loaded &l)
{
    if (st->readIndex(st, &l.index) != 1)
        l.index = 0;
    while (uint32_t id = st->findBlock(st, kParts)) {
        LoadPart(st, id, l);
        st->endBlock(st);
    }
    st->endBlock(st);
}

// Reads one envelope into `l`; false when there was none or the state failed.
bool LoadInto(VxLoadState *st, Loaded *l)
{
    CKPT_BEGIN_OR_RETURN(false);
    CkptArm(FreeLoadedArm, reinterpret_cast<uintptr_t>(l), 0);
    LoadParts(st, *l);
    CkptEnd();
    if (!st->error)
        return true;
    FreeLoadedArm(reinterpret_cast<uintptr_t>(l), 0);  // malformed input is not raised outward
    return false;
}

void Commit(VxEnvelope *env, Loaded &l)
{
    FreeKeyList(&env->keys);
    NewList(&env->keys);
    KeysChanged(env);
    if (l.keyCount)
        MoveList(&env->keys, &l.keys);
    env->keyCount = l.keyCount;
    while (VxNode *n = RemHead(&l.filters))
        AddTail(&env->filters, n);
    if (l.named)
        std::memcpy(env->nameBuffer, l.name, sizeof l.name), env->name = env->nameBuffer;
    if (l.typed)
        env->type = l.type;
    env->pre = l.pre;
    env->post = l.post;
    env->saveIndex = static_cast<int32_t>(l.index);
}

}  // namespace
}  // namespace vx::env

using namespace vx::env;

int EnvSave(const VxEnvelope *env, VxSaveState *st)
{
    st->beginBlock(st, &kEnvlDesc[0]);
    st->writeIndex(st, env->saveIndex > 0 ? static_cast<uint32_t>(env->saveIndex) : 0u);
    st->beginBlock(st, &Desc(kName));
    st->writeString(st, env->name ? env->name : "Tressik");
    st->endBlock(st);
    const uint8_t type[2] = {static_cast<uint8_t>(env->clientData & 0xFF), static_cast<uint8_t>(env->type & 0xFF)};
    st->beginBlock(st, &Desc(kType));
    st->writeBytes(st, type, 2);
    st->endBlock(st);
    SaveShort(st, kPre, env->pre);
    for (const VxEnvKey *k = FirstKey(env); k; k = NextKey(k))
        SaveKey(st, k);
    SaveShort(st, kPost, env->post);
    for (VxNode *n = env->filters.head; n->succ; n = n->succ)
        SaveFilter(st, reinterpret_cast<VxEnvFilter *>(n));
    st->endBlock(st);
    return st->error == 0;
}

void EnvSetFilterLoader(EnvFilterLoadFunc *loader, void *user)
{
    g_filterLoader = loader;
    g_filterLoaderUser = user;
}

int EnvLoad(VxEnvelope *env, VxLoadState *st)
{
    if (st->error || !st->findBlock(st, kEnvlDesc))
        return 0;
    Loaded l{};
    NewList(&l.keys);
    NewList(&l.filters);
    l.pre = l.post = ENV_BEHAVIOR_CONSTANT;
    if (!LoadInto(st, &l))
        return 0;
    Commit(env, l);
    Notify(env, ENV_NOTIFY_ENVELOPE, 0);
    return 1;
}
