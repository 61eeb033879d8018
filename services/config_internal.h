// The configuration store's records and the helpers its files share.
#pragma once

#include <vxtools3/config.h>
#include <vxtools3/lists.h>

#include <cstddef>
#include <cstdint>

namespace vx::config {

enum NamedKind : int32_t { kValue = 1, kAlias = 2 };

// Value flags. kHasLines marks a value that already received a line in the running import
// (its old entries are dropped once); it is kept apart from kChanged so that an import under
// an outer hold still drops old entries exactly once.
enum ValueFlags : uint32_t { kMarked = 1, kChanged = 2, kHasLines = 4 };

// What values and aliases share: the list link, the name and its place in the name index.
struct Named {
    VxNode node;
    char *name;
    uint64_t hash;
    int32_t kind;
};

struct Definition {
    Named named;
    char *type;  // NULL for a value only met in a file or tracked before definition
    ConfigChangeFunc *callback;
    uintptr_t data;
    int32_t exportFlag;
    uint32_t flags;
    VxList entries;  // Entry::sibling, in the order of the store's entry list
    int32_t entryCount;
};

struct Entry {
    VxNode order;    // in the store's entry list (insertion order)
    VxNode sibling;  // in its value's list
    Definition *value;
    char *text;          // its own block, or the bytes right after the record (imports)
    size_t recordSize;   // bytes of the record's block, inline text included
};

// True when the entry's text lives in the record's own block.
inline bool TextInline(const Entry *entry)
{
    return entry->text == reinterpret_cast<const char *>(entry + 1);
}

struct Alias {
    Named named;
    char **names;       // NULL-terminated, owned
    uint32_t visited;   // expansion generation that last reached it (stops cycles)
};

struct Client {
    VxNode node;
    ConfigSyncFunc *sync;
    uintptr_t data;
    char **names;  // NULL-terminated, owned; NULL when it owns no values
    int32_t synced;
    int32_t dead;  // removed during a callout; freed when the callout ends
};

// Open-addressing hash index of value and alias names (linear probing, at most half full).
struct NameIndex {
    Named **slots;
    uint32_t capacity;
    uint32_t count;
};

struct Store {
    bool open;
    VxList definitions;
    VxList entries;
    VxList aliases;
    VxList clients;
    int32_t clientCount;
    int32_t holdCount;
    char *defaultFile;
    NameIndex index;
    int32_t calloutDepth;  // sync functions and callbacks running
    int32_t deadClients;
    uint32_t generation;
};

extern Store g_store;

// ---- names ----
uint64_t HashName(const char *name);
Named *IndexFind(const NameIndex &index, const char *name, uint64_t hash);
// Makes room for `extra` more names; raises on exhaustion and then leaves the index as it was.
void IndexReserve(NameIndex &index, uint32_t extra);
// Inserts a name into a reserved index (never allocates).
void IndexInsert(NameIndex &index, Named *named);
void IndexFree(NameIndex &index);
Named *FindNamed(const char *name);
Definition *FindValue(const char *name);

// ---- definitions ----
// A new, unlinked value record (export flag 1); raises on exhaustion, leaking nothing.
Definition *NewDefinition(const char *name, uint64_t hash, const char *type);
void FreeDefinition(Definition *def);
// Reserves index room and links a record made by NewDefinition; raises before linking.
void LinkDefinition(Definition *def);
// Defines `name` without a type; raises on exhaustion.
Definition *DefineUntyped(const char *name);
// Armed action: unlinks and frees every value defined after `tail` (a node of the list).
void DropDefinitionsAfter(uintptr_t tail, uintptr_t);

// ---- entries ----
// A new, unlinked entry owning `text` (already allocated; freed with it).
Entry *NewEntry(Definition *def, char *text);
void LinkEntry(Entry *entry);
void UnlinkEntry(Entry *entry);
void FreeEntry(Entry *entry);
Entry *EntryAt(const Definition *def, int32_t index);
Entry *EntryOfSibling(VxNode *node);
void DropEntries(Definition *def);

// ---- names arrays and aliases ----
char **CopyNames(const char *const *names);
void FreeNames(char **names);
// Calls onValue(Definition *) for each value the array names, expanding aliases, and
// onUnknown(const char *) for each name that is neither a value nor an alias.
template <class OnValue, class OnUnknown>
void ExpandNames(const char *const *names, OnValue &&onValue, OnUnknown &&onUnknown);
// Clears kMarked on every value, then marks the named ones (all of them for NULL).
void MarkNamed(const char *const *names);

// ---- notification and callouts ----
void NotifyChanged(Definition *def);
void Hold();
void Release();
// Armed action: drops one hold without calling anyone (a failed operation announces nothing).
void ReleaseQuietly(uintptr_t, uintptr_t);
void BeginCallout();
void EndCallout();

// ---- files ----
int ExportFile(const char *file, const char *const *names);

// ---- template definitions ----

template <class OnValue, class OnUnknown>
void ExpandInto(const char *const *names, uint32_t generation, OnValue &onValue, OnUnknown &onUnknown)
{
    for (; *names; ++names) {
        Named *named = FindNamed(*names);
        if (!named) {
            onUnknown(*names);
        } else if (named->kind == kValue) {
            onValue(reinterpret_cast<Definition *>(named));
        } else {
            auto *alias = reinterpret_cast<Alias *>(named);
            if (alias->visited == generation)
                continue;
            alias->visited = generation;
            ExpandInto(alias->names, generation, onValue, onUnknown);
        }
    }
}

template <class OnValue, class OnUnknown>
void ExpandNames(const char *const *names, OnValue &&onValue, OnUnknown &&onUnknown)
{
    if (names)
        ExpandInto(names, ++g_store.generation, onValue, onUnknown);
}

}  // namespace vx::config
