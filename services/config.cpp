// Configuration store: clients, value definitions, aliases, the name index, notifications
// and synchronisation.
#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include "services/config_internal.h"

#include <cstddef>
#include <cstring>

namespace vx::config {

Store g_store;

namespace {

constexpr uint32_t kMinIndexCapacity = 64;

// ---- name index ----

uint32_t SlotOf(const NameIndex &index, uint64_t hash)
{
    return static_cast<uint32_t>(hash) & (index.capacity - 1);
}

void PlaceIn(Named **slots, uint32_t capacity, Named *named)
{
    uint32_t slot = static_cast<uint32_t>(named->hash) & (capacity - 1);
    while (slots[slot])
        slot = (slot + 1) & (capacity - 1);
    slots[slot] = named;
}

// ---- store lifetime ----

void OpenStore()
{
    Store &s = g_store;
    std::memset(&s, 0, sizeof s);
    NewList(&s.definitions);
    NewList(&s.entries);
    NewList(&s.aliases);
    NewList(&s.clients);
    s.open = true;
}

void FreeClient(Client *client)
{
    FreeNames(client->names);
    FreeHeap(client, sizeof *client);
}

void CloseStore()
{
    Store &s = g_store;
    while (VxNode *node = RemHead(&s.entries))
        FreeEntry(reinterpret_cast<Entry *>(node));
    while (VxNode *node = RemHead(&s.definitions))
        FreeDefinition(reinterpret_cast<Definition *>(node));
    while (VxNode *node = RemHead(&s.aliases)) {
        auto *alias = reinterpret_cast<Alias *>(node);
        StringFree(alias->named.name);
        FreeNames(alias->names);
        FreeHeap(alias, sizeof *alias);
    }
    while (VxNode *node = RemHead(&s.clients))
        FreeClient(reinterpret_cast<Client *>(node));
    IndexFree(s.index);
    StringFree(s.defaultFile);
    std::memset(&s, 0, sizeof s);
}

// Unlinks a client; the last one writes the default file (unless a failure is unwinding)
// and closes the store.
void DetachClient(Client *client)
{
    Remove(&client->node);
    FreeClient(client);
    if (--g_store.clientCount > 0)
        return;
    if (g_store.defaultFile && !CkptRecovering())
        ExportFile(g_store.defaultFile, nullptr);
    CloseStore();
}

void PurgeDeadClients()
{
    Store &s = g_store;
    VxNode *node = s.clients.head;
    while (s.open && s.deadClients > 0 && node->succ) {
        VxNode *next = node->succ;
        auto *client = reinterpret_cast<Client *>(node);
        if (client->dead) {
            --s.deadClients;
            DetachClient(client);  // may close the store
        }
        node = next;
    }
}

Client *FindClient(const VxConfigClient *handle)
{
    if (!g_store.open || !handle)
        return nullptr;
    for (VxNode *n = g_store.clients.head; n->succ; n = n->succ)
        if (reinterpret_cast<const VxConfigClient *>(n) == handle)
            return reinterpret_cast<Client *>(n)->dead ? nullptr : reinterpret_cast<Client *>(n);
    return nullptr;
}

// Armed action freeing a names array of `count` slots under construction (some still NULL).
void FreeNamesArm(uintptr_t names, uintptr_t count)
{
    auto **array = reinterpret_cast<char **>(names);
    for (size_t i = 0; i < count; ++i)
        StringFree(array[i]);
    FreeHeap(array, (count + 1) * sizeof(char *));
}

void FreeDefinitionArm(uintptr_t def, uintptr_t)
{
    FreeDefinition(reinterpret_cast<Definition *>(def));
}

bool ClientOwnsMarked(const Client *client)
{
    bool owns = false;
    ExpandNames(client->names, [&owns](Definition *def) { owns = owns || (def->flags & kMarked); },
                [](const char *) {});
    return owns;
}

void UnmarkClientValues(const Client *client)
{
    ExpandNames(client->names, [](Definition *def) { def->flags &= ~kMarked; }, [](const char *) {});
}

bool AnyMarked()
{
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ)
        if (reinterpret_cast<Definition *>(n)->flags & kMarked)
            return true;
    return false;
}

void CallSync(Client *client, int32_t direction)
{
    BeginCallout();
    client->sync(client->data, direction);
    EndCallout();
}

}  // namespace

// ---- name index ----

uint64_t HashName(const char *name)
{
    uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p)
        hash = (hash ^ *p) * 1099511628211ull;
    return hash ^ (hash >> 32);
}

Named *IndexFind(const NameIndex &index, const char *name, uint64_t hash)
{
    if (!index.capacity)
        return nullptr;
    for (uint32_t slot = SlotOf(index, hash);; slot = (slot + 1) & (index.capacity - 1)) {
        Named *named = index.slots[slot];
        if (!named)
            return nullptr;
        if (named->hash == hash && std::strcmp(named->name, name) == 0)
            return named;
    }
}

void IndexReserve(NameIndex &index, uint32_t extra)
{
    const uint64_t wanted = (static_cast<uint64_t>(index.count) + extra) * 2;
    if (wanted <= index.capacity)
        return;
    uint64_t capacity = index.capacity ? index.capacity : kMinIndexCapacity;
    while (capacity < wanted)
        capacity *= 2;
    if (capacity > (1u << 31))
        CkptRecover(1);
    auto **slots = static_cast<Named **>(StdAlloc(capacity * sizeof(Named *)));
    if (!slots)
        CkptRecover(1);
    for (uint32_t i = 0; i < index.capacity; ++i)
        if (index.slots[i])
            PlaceIn(slots, static_cast<uint32_t>(capacity), index.slots[i]);
    FreeHeap(index.slots, index.capacity * sizeof(Named *));
    index.slots = slots;
    index.capacity = static_cast<uint32_t>(capacity);
}

void IndexInsert(NameIndex &index, Named *named)
{
    PlaceIn(index.slots, index.capacity, named);
    ++index.count;
}

// Backward-shift deletion keeps every probe chain unbroken without tombstones.
static void IndexRemove(NameIndex &index, Named *named)
{
    const uint32_t mask = index.capacity - 1;
    uint32_t hole = SlotOf(index, named->hash);
    while (index.slots[hole] != named)
        hole = (hole + 1) & mask;
    index.slots[hole] = nullptr;
    --index.count;
    for (uint32_t slot = (hole + 1) & mask; index.slots[slot]; slot = (slot + 1) & mask) {
        const uint32_t home = SlotOf(index, index.slots[slot]->hash);
        // Move the name into the hole when its home does not lie in (hole, slot].
        const bool homeBetween = hole < slot ? (home > hole && home <= slot) : (home > hole || home <= slot);
        if (!homeBetween) {
            index.slots[hole] = index.slots[slot];
            index.slots[slot] = nullptr;
            hole = slot;
        }
    }
}

void IndexFree(NameIndex &index)
{
    FreeHeap(index.slots, index.capacity * sizeof(Named *));
    index = NameIndex{};
}

Named *FindNamed(const char *name)
{
    if (!g_store.open || !name)
        return nullptr;
    return IndexFind(g_store.index, name, HashName(name));
}

Definition *FindValue(const char *name)
{
    Named *named = FindNamed(name);
    return (named && named->kind == kValue) ? reinterpret_cast<Definition *>(named) : nullptr;
}

// ---- definitions ----

Definition *NewDefinition(const char *name, uint64_t hash, const char *type)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *def = static_cast<Definition *>(StdAlloc(sizeof(Definition)));
    CkptArm(FreeDefinitionArm, reinterpret_cast<uintptr_t>(def), 0);
    def->named.name = StringCopy(name);
    def->named.hash = hash;
    def->named.kind = kValue;
    def->type = StringCopy(type);
    def->exportFlag = 1;
    NewList(&def->entries);
    CkptEnd();
    return def;
}

void FreeDefinition(Definition *def)
{
    if (!def)
        return;
    StringFree(def->named.name);
    StringFree(def->type);
    FreeHeap(def, sizeof *def);
}

void LinkDefinition(Definition *def)
{
    IndexReserve(g_store.index, 1);
    IndexInsert(g_store.index, &def->named);
    AddTail(&g_store.definitions, &def->named.node);
}

Definition *DefineUntyped(const char *name)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    Definition *def = NewDefinition(name, HashName(name), nullptr);
    CkptArm(FreeDefinitionArm, reinterpret_cast<uintptr_t>(def), 0);
    LinkDefinition(def);
    CkptEnd();
    return def;
}

void DropDefinitionsAfter(uintptr_t tail, uintptr_t)
{
    auto *last = reinterpret_cast<VxNode *>(tail);
    while (g_store.definitions.tailPred != last) {
        auto *def = reinterpret_cast<Definition *>(RemTail(&g_store.definitions));
        IndexRemove(g_store.index, &def->named);
        FreeDefinition(def);
    }
}

// ---- entries ----

Entry *NewEntry(Definition *def, char *text)
{
    auto *entry = static_cast<Entry *>(StdAlloc(sizeof(Entry)));
    if (!entry)
        CkptRecover(1);
    entry->value = def;
    entry->text = text;
    entry->recordSize = sizeof(Entry);
    return entry;
}

void LinkEntry(Entry *entry)
{
    AddTail(&g_store.entries, &entry->order);
    AddTail(&entry->value->entries, &entry->sibling);
    ++entry->value->entryCount;
}

void UnlinkEntry(Entry *entry)
{
    Remove(&entry->order);
    Remove(&entry->sibling);
    --entry->value->entryCount;
}

void FreeEntry(Entry *entry)
{
    if (!TextInline(entry))
        StringFree(entry->text);
    FreeHeap(entry, entry->recordSize);
}

Entry *EntryOfSibling(VxNode *node)
{
    return reinterpret_cast<Entry *>(reinterpret_cast<char *>(node) - offsetof(Entry, sibling));
}

Entry *EntryAt(const Definition *def, int32_t index)
{
    if (index < 0 || index >= def->entryCount)
        return nullptr;
    VxNode *node = def->entries.head;
    while (index-- > 0)
        node = node->succ;
    return EntryOfSibling(node);
}

void DropEntries(Definition *def)
{
    while (VxNode *node = RemHead(&def->entries)) {
        Entry *entry = EntryOfSibling(node);
        Remove(&entry->order);
        FreeEntry(entry);
    }
    def->entryCount = 0;
}

// ---- names arrays ----

static char **CopyCountedNames(const char *const *names, size_t count)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto **copy = static_cast<char **>(StdAlloc((count + 1) * sizeof(char *)));
    CkptArm(FreeNamesArm, reinterpret_cast<uintptr_t>(copy), count);
    for (size_t i = 0; i < count; ++i)
        copy[i] = StringCopy(names[i]);
    CkptEnd();
    return copy;
}

char **CopyNames(const char *const *names)
{
    if (!names)
        return nullptr;
    size_t count = 0;
    while (names[count])
        ++count;
    return CopyCountedNames(names, count);
}

void FreeNames(char **names)
{
    if (!names)
        return;
    size_t count = 0;
    for (; names[count]; ++count)
        StringFree(names[count]);
    FreeHeap(names, (count + 1) * sizeof(char *));
}

void MarkNamed(const char *const *names)
{
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ) {
        auto *def = reinterpret_cast<Definition *>(n);
        def->flags = names ? (def->flags & ~kMarked) : (def->flags | kMarked);
    }
    ExpandNames(names, [](Definition *def) { def->flags |= kMarked; }, [](const char *) {});
}

// ---- notification and callouts ----

void NotifyChanged(Definition *def)
{
    if (g_store.holdCount > 0) {
        def->flags |= kChanged;
    } else if (def->callback) {
        BeginCallout();
        def->callback(def->data, def->named.name);
        EndCallout();
    }
}

void Hold()
{
    if (g_store.holdCount++ > 0)
        return;
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ)
        reinterpret_cast<Definition *>(n)->flags &= ~kChanged;
}

void Release()
{
    if (g_store.holdCount <= 0 || --g_store.holdCount > 0)
        return;
    BeginCallout();
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ) {
        auto *def = reinterpret_cast<Definition *>(n);
        if (!(def->flags & kChanged))
            continue;
        def->flags &= ~kChanged;
        if (def->callback)
            def->callback(def->data, def->named.name);
    }
    EndCallout();
}

void ReleaseQuietly(uintptr_t, uintptr_t)
{
    if (g_store.holdCount > 0)
        --g_store.holdCount;
}

void BeginCallout()
{
    ++g_store.calloutDepth;
}

void EndCallout()
{
    if (--g_store.calloutDepth == 0 && g_store.deadClients > 0)
        PurgeDeadClients();
}

}  // namespace vx::config

using namespace vx::config;

extern "C" {

VX_API VxConfigClient *ConfigAddClient(ConfigSyncFunc *syncFunc, uintptr_t data)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *client = static_cast<Client *>(StdAlloc(sizeof(Client)));
    CkptEnd();
    if (!g_store.open)
        OpenStore();
    client->sync = syncFunc;
    client->data = data;
    AddTail(&g_store.clients, &client->node);
    ++g_store.clientCount;
    return reinterpret_cast<VxConfigClient *>(client);
}

VX_API int ConfigSetClientNames(VxConfigClient *handle, const char *const *names)
{
    Client *client = FindClient(handle);
    if (!client)
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    char **copy = CopyNames(names);
    CkptEnd();
    FreeNames(client->names);
    client->names = copy;
    return 1;
}

VX_API void ConfigRemClient(VxConfigClient *handle)
{
    Client *client = FindClient(handle);
    if (!client)
        return;
    if (g_store.calloutDepth > 0) {
        // The client may be the one being called; it goes when the callout ends.
        client->dead = 1;
        client->sync = nullptr;
        ++g_store.deadClients;
        return;
    }
    DetachClient(client);
}

VX_API int ConfigDefineValue(const char *name, const char *typeString)
{
    if (!g_store.open || !name || !name[0] || !typeString || !typeString[0])
        return 0;
    Named *named = FindNamed(name);
    if (named && named->kind != kValue)
        return 0;
    auto *existing = reinterpret_cast<Definition *>(named);
    if (existing && existing->type)
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    if (existing) {
        existing->type = StringCopy(typeString);
    } else {
        Definition *def = NewDefinition(name, HashName(name), typeString);
        CkptArm(FreeDefinitionArm, reinterpret_cast<uintptr_t>(def), 0);
        LinkDefinition(def);
    }
    CkptEnd();
    return 1;
}

VX_API int ConfigSetAlias(const char *name, const char *const *names)
{
    if (!g_store.open || !name || !name[0] || !names || FindNamed(name))
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    auto *alias = static_cast<Alias *>(StdAlloc(sizeof(Alias)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(alias), sizeof *alias);
    alias->named.name = StringCopy(name);
    CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(alias->named.name), 0);
    alias->named.hash = HashName(name);
    alias->named.kind = kAlias;
    alias->names = CopyNames(names);
    CkptArm([](uintptr_t copy, uintptr_t) { FreeNames(reinterpret_cast<char **>(copy)); },
            reinterpret_cast<uintptr_t>(alias->names), 0);
    IndexReserve(g_store.index, 1);
    CkptEnd();
    IndexInsert(g_store.index, &alias->named);
    AddTail(&g_store.aliases, &alias->named.node);
    return 1;
}

VX_API int ConfigTrackValues(const char *const *names, ConfigChangeFunc *callback, uintptr_t data,
                             int32_t exportFlag)
{
    if (!g_store.open)
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    CkptArm(DropDefinitionsAfter, reinterpret_cast<uintptr_t>(g_store.definitions.tailPred), 0);
    ExpandNames(names, [](Definition *) {}, [](const char *name) {
        if (name[0])
            DefineUntyped(name);
    });
    CkptEnd();
    ExpandNames(names, [&](Definition *def) {
        def->callback = callback;
        def->data = data;
        def->exportFlag = exportFlag;
    }, [](const char *) {});
    return 1;
}

VX_API const char *ConfigNextValue(const char *name)
{
    if (!g_store.open)
        return nullptr;
    VxNode *node = g_store.definitions.head;
    if (name) {
        Definition *def = FindValue(name);
        if (!def)
            return nullptr;
        node = def->named.node.succ;
    }
    return node->succ ? reinterpret_cast<Definition *>(node)->named.name : nullptr;
}

VX_API void ConfigHold(void)
{
    if (g_store.open)
        Hold();
}

VX_API void ConfigRelease(void)
{
    if (g_store.open)
        Release();
}

VX_API void ConfigSynchronize(int32_t direction, const char *const *names)
{
    Store &s = g_store;
    if (!s.open)
        return;
    if (direction == 1)
        Hold();
    BeginCallout();
    MarkNamed(names);
    for (VxNode *n = s.clients.head; n->succ; n = n->succ)
        reinterpret_cast<Client *>(n)->synced = 0;
    if (names) {
        for (VxNode *n = s.clients.head; n->succ; n = n->succ) {
            auto *client = reinterpret_cast<Client *>(n);
            if (!client->sync || !client->names || !ClientOwnsMarked(client))
                continue;
            CallSync(client, direction);
            UnmarkClientValues(client);
            client->synced = 1;
        }
    }
    if (AnyMarked()) {
        for (VxNode *n = s.clients.head; n->succ; n = n->succ) {
            auto *client = reinterpret_cast<Client *>(n);
            if (client->sync && !client->synced)
                CallSync(client, direction);
        }
    }
    if (direction == 1)
        Release();
    EndCallout();
}

}  // extern "C"
