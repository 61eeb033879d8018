// The saved form of an envelope: one "ENVL" block through a save state (IFF or text), and
// the loader that reads it back.
#include "anim/envelope_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include <algorithm>
#include <cstring>
#include <utility>

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
    VxEnvelope *env;  // the envelope the keys are for
    VxList keys;
    VxList filters;
    int32_t keyCount;
    VxEnvKey *current;  // the key a "SPAN" belongs to
    // Keys come in time order (as saved) or reverse time order and are linked in place; from
    // the first key out of both orders on, each key is appended and the list is sorted at the
    // end (see SortKeys).
    bool unsorted;
    char name[kNameMax + 1];
    bool named;
    int32_t type;
    bool typed;
    int32_t pre, post;
    uint32_t index;
};

// While the list is unsorted, a key's mask records what its "SPAN" set: bit i for p[i] and
// kShapeSet for the shape. A key met again at its tick then updates the first one with these
// fields only, as it would have had it been found in place.
constexpr uint32_t kShapeSet = 1u << 5;

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

VxEnvKey *KeyAt(VxNode *node) { return node->succ && node->pred ? reinterpret_cast<VxEnvKey *>(node) : nullptr; }

// The key the "KEY " at `tick` fills: the first or last one when it has that tick, else a new
// one linked at the end it belongs to, or appended when it belongs in between.
VxEnvKey *KeyForTick(Loaded &l, int32_t tick)
{
    VxEnvKey *head = KeyAt(l.keys.head), *tail = KeyAt(l.keys.tailPred);
    if (!l.unsorted && tail && tail->tick == tick)
        return tail;
    if (!l.unsorted && head && head->tick == tick)
        return head;
    auto *k = static_cast<VxEnvKey *>(StdAlloc(sizeof(VxEnvKey)));
    k->tick = tick;
    k->env = l.env;
    ++l.keyCount;
    if (!l.unsorted && head && tick < head->tick) {
        AddHead(&l.keys, &k->node);
        return k;
    }
    l.unsorted = l.unsorted || (tail && tick < tail->tick);
    AddTail(&l.keys, &k->node);
    return k;
}

void LoadKey(VxLoadState *st, Loaded &l)
{
    float f[2];
    if (st->readFloats(st, f, 2) != 2)
        return;
    VxEnvKey *k = KeyForTick(l, TickOf(f[0]));
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
    // A failed read reports -1; the values that did arrive are the ones kept.
    const int32_t got = count ? std::max(st->readFloats(st, f, count), 0) : 0;
    for (int32_t i = 0; i < got; ++i)
        k->p[first + i] = f[i];
    if (l.unsorted)
        k->mask |= kShapeSet | (((1u << got) - 1) << first);
}

// Folds `later`, a key met again at the tick of `kept`, into `kept`.
void FoldInto(VxEnvKey *kept, const VxEnvKey *later)
{
    kept->value = later->value;
    if (later->mask & kShapeSet)
        kept->shape = later->shape;
    for (int i = 0; i < 5; ++i)
        if (later->mask & (1u << i))
            kept->p[i] = later->p[i];
}

// Puts an unsorted key list in tick order, keys of one tick in the order they came: a radix
// sort over the ticks, a byte at a time, through two arrays of the keys. Keys met again at a
// tick are folded into the first.
void SortKeys(Loaded &l)
{
    const auto n = static_cast<size_t>(l.keyCount);
    // Nothing after this allocation can fail, so it needs no recovery action.
    auto **keys = static_cast<VxEnvKey **>(StdAlloc(2 * n * sizeof(VxEnvKey *)));
    VxEnvKey **from = keys, **to = keys + n;
    size_t i = 0;
    for (VxEnvKey *k = KeyAt(l.keys.head); k; k = KeyAt(k->node.succ))
        from[i++] = k;
    auto sortKey = [](const VxEnvKey *k) { return static_cast<uint32_t>(k->tick) ^ 0x80000000u; };
    for (int shift = 0; shift < 32; shift += 8) {
        size_t start[257] = {};
        for (i = 0; i < n; ++i)
            ++start[((sortKey(from[i]) >> shift) & 0xFF) + 1];
        for (int b = 0; b < 256; ++b)
            start[b + 1] += start[b];
        for (i = 0; i < n; ++i)
            to[start[(sortKey(from[i]) >> shift) & 0xFF]++] = from[i];
        std::swap(from, to);
    }
    NewList(&l.keys);
    VxEnvKey *kept = nullptr;
    for (i = 0; i < n; ++i) {
        VxEnvKey *k = from[i];
        if (kept && kept->tick == k->tick) {
            FoldInto(kept, k);
            FreeHeap(k, sizeof(VxEnvKey));
            --l.keyCount;
            continue;
        }
        AddTail(&l.keys, &k->node);
        kept = k;
    }
    for (VxEnvKey *k = KeyAt(l.keys.head); k; k = KeyAt(k->node.succ))
        k->mask = 0;
    FreeHeap(keys, 2 * n * sizeof(VxEnvKey *));
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
    if (l.unsorted)
        SortKeys(l);
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
    l.env = env;
    NewList(&l.keys);
    NewList(&l.filters);
    l.pre = l.post = ENV_BEHAVIOR_CONSTANT;
    if (!LoadInto(st, &l))
        return 0;
    Commit(env, l);
    Notify(env, ENV_NOTIFY_ENVELOPE, 0);
    return 1;
}
