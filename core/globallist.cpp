// The process-wide registry of named values and the clean-ups run at shutdown.
#include <vxtools3/ckpt.h>
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>

#include "core/globallist_internal.h"

#include <cstring>

namespace vx::global {
namespace {

struct Entry {
    const char *name;
    void *value;
};

struct Cleanup {
    VxNode node;
    void (*fn)(void *);
    void *arg;
};

VxOrd g_entries;  // Entry pointers in byte order of their names
VxList g_cleanups;
bool g_cleanupsMade = false;

int CompareEntries(void *a, void *b)
{
    return std::strcmp(static_cast<Entry *>(a)->name, static_cast<Entry *>(b)->name);
}

int CompareNameToEntry(void *name, void *entry)
{
    return std::strcmp(static_cast<const char *>(name), static_cast<Entry *>(entry)->name);
}

Entry *Find(const char *name)
{
    const int index = OrdLookup(&g_entries, const_cast<char *>(name), CompareNameToEntry);
    return index < 0 ? nullptr : static_cast<Entry *>(g_entries.items[index]);
}

}  // namespace

const VxOrd *Entries() { return &g_entries; }
const char *EntryName(const void *entry) { return static_cast<const Entry *>(entry)->name; }

}  // namespace vx::global

using namespace vx::global;

extern "C" {

VX_API int GlobalListDefine(const char *name, void *value)
{
    if (Find(name))
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    auto *entry = static_cast<Entry *>(StdAlloc(sizeof(Entry)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(entry), sizeof(Entry));
    entry->name = name;
    entry->value = value;
    OrdInsert(&g_entries, entry, CompareEntries);
    CkptEnd();
    return 1;
}

VX_API void *GlobalListLookup(const char *name)
{
    const Entry *entry = Find(name);
    return entry ? entry->value : nullptr;
}

VX_API int GlobalListSetCleanup(void (*fn)(void *arg), void *arg)
{
    if (!g_cleanupsMade) {
        NewList(&g_cleanups);
        g_cleanupsMade = true;
    }
    // Nothing can fail after the allocation, so there is nothing to arm: a failure raises
    // to the caller's block, or comes back as null with none open.
    auto *cleanup = static_cast<Cleanup *>(StdAlloc(sizeof(Cleanup)));
    if (!cleanup)
        return 0;
    cleanup->fn = fn;
    cleanup->arg = arg;
    AddHead(&g_cleanups, &cleanup->node);
    return 1;
}

VX_API void GlobalListCleanup(void)
{
    if (g_cleanupsMade) {
        while (VxNode *node = RemHead(&g_cleanups)) {
            auto *cleanup = reinterpret_cast<Cleanup *>(node);
            cleanup->fn(cleanup->arg);
            FreeHeap(cleanup, sizeof(Cleanup));
        }
    }
    for (int32_t i = 0; i < g_entries.count; ++i)
        FreeHeap(g_entries.items[i], sizeof(Entry));
    OrdFree(&g_entries);
}

}  // extern "C"
