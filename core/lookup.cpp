// Lookup tables (sets of words), lookup maps (word to word) and key tables (word to entry
// pointer): B-trees whose stored keys are one word, or a pair of words ordered by the first.
#include "core/containers_internal.h"

#include <cstddef>
#include <cstring>

namespace {

// The order of key tables: a node of 8 entries fits in a few cache lines, and action tables
// rarely hold more than a few hundred codes.
constexpr int32_t kKTableOrder = 4;

struct WordPair {
    uintptr_t key;
    uintptr_t value;
};

BTree *CreateWordTree(int32_t m, int32_t words)
{
    return BTCreate(m, words * static_cast<int32_t>(sizeof(uintptr_t)), vx::btree::CompareFirstWord);
}

uintptr_t ValueOf(const void *storedPair)
{
    WordPair pair;
    std::memcpy(&pair, storedPair, sizeof pair);
    return pair.value;
}

// Adds (key, value) when the key is absent: 1 added, 0 present, -1 out of memory.
int AddPair(BTree *tree, uintptr_t key, uintptr_t value)
{
    BTPos pos;
    if (vx::btree::Search(tree, key, &pos))
        return 0;
    const WordPair pair{key, value};
    return BTInsert(tree, &pair, &pos) ? 1 : -1;
}

int RemoveKey(BTree *tree, uintptr_t key)
{
    BTPos pos;
    if (!vx::btree::Search(tree, key, &pos))
        return 0;
    return BTDelete(tree, &pos);
}

}  // namespace

extern "C" {

VX_API LTab *LTabCreate(int32_t m) { return CreateWordTree(m, 1); }

VX_API int LTabAdd(LTab *tab, uintptr_t value)
{
    BTPos pos;
    if (vx::btree::Search(tab, value, &pos))
        return 0;
    return BTInsert(tab, &value, &pos) ? 1 : -1;
}

VX_API int LTabRem(LTab *tab, uintptr_t value) { return RemoveKey(tab, value); }

VX_API int LTabTest(const LTab *tab, uintptr_t value) { return vx::btree::Search(tab, value, nullptr) != nullptr; }

VX_API void LTabClear(LTab *tab) { BTClear(tab); }

VX_API void LTabDestroy(LTab *tab) { BTDestroy(tab); }

VX_API LMap *LMapCreate(int32_t m) { return CreateWordTree(m, 2); }

VX_API int LMapSet(LMap *map, uintptr_t key, uintptr_t value)
{
    BTPos pos;
    if (void *stored = vx::btree::Search(map, key, &pos)) {
        std::memcpy(static_cast<unsigned char *>(stored) + offsetof(WordPair, value), &value, sizeof value);
        return 0;
    }
    const WordPair pair{key, value};
    return BTInsert(map, &pair, &pos) ? 1 : -1;
}

VX_API int LMapGet(const LMap *map, uintptr_t key, uintptr_t *valueOut)
{
    const void *stored = vx::btree::Search(map, key, nullptr);
    if (!stored)
        return 0;
    if (valueOut)
        *valueOut = ValueOf(stored);
    return 1;
}

VX_API int LMapUnset(LMap *map, uintptr_t key) { return RemoveKey(map, key); }

VX_API void LMapClear(LMap *map) { BTClear(map); }

VX_API void LMapDestroy(LMap *map) { BTDestroy(map); }

VX_API KTable *KTableCreate(void) { return CreateWordTree(kKTableOrder, 2); }

VX_API int KTableAdd(KTable *table, uintptr_t key, void *entry)
{
    return AddPair(table, key, reinterpret_cast<uintptr_t>(entry));
}

VX_API void *KTableFind(const KTable *table, uintptr_t key)
{
    const void *stored = vx::btree::Search(table, key, nullptr);
    return stored ? reinterpret_cast<void *>(ValueOf(stored)) : nullptr;
}

VX_API void *KTableRem(KTable *table, uintptr_t key)
{
    BTPos pos;
    const void *stored = vx::btree::Search(table, key, &pos);
    if (!stored)
        return nullptr;
    void *entry = reinterpret_cast<void *>(ValueOf(stored));
    BTDelete(table, &pos);
    return entry;
}

VX_API void KTableDestroy(KTable *table) { BTDestroy(table); }

}  // extern "C"
