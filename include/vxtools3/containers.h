/* vxtools3 — block zones, B-trees, lookup tables, lookup maps and key tables.
 *
 * A block zone (BZone) hands out equal-sized, zero-filled elements carved from chunks of about
 * 2000 bytes. Chunks are kept in ascending order of their free slots (full chunks last), so the
 * fullest chunk with room is used first, and a chunk that becomes entirely free is given back
 * to the heap unless it is the zone's last one. A freed element is filled with the byte 0xBB
 * until it is handed out again, so that a use after free shows.
 *
 * A B-tree (BTree) of order m stores keys by value (keySize bytes each) in nodes of m to 2m
 * keys (the root holds 1 to 2m) taken from a block zone. It is searched with a word-sized key
 * and a comparison callback; positions (BTPos) returned by BTSearch feed BTInsert and BTDelete.
 *
 * A lookup table (LTab) is a B-tree whose keys are single words; a lookup map (LMap) one whose
 * keys are (key word, value word) pairs ordered by the key word; a key table (KTable) maps a
 * key word to an entry pointer in the same way. All three are BTrees: they can be walked with
 * BTFirst/BTNext, each stored key reading as one (LTab) or two (LMap, KTable) uintptr_t words.
 * Words compare as unsigned numbers. The containers never own what their words point to.
 *
 * Allocation goes through the memory helpers (memory.h): when memory runs out inside an open
 * checkpoint block the failure is raised through it (ckpt.h); with no block open the function
 * returns its failure value. A failed operation leaves its container as it was. Arguments are
 * not checked beyond what each function states: freeing an element twice or into another zone,
 * or inserting at a stale position, corrupts the container. None of this is locked: a zone or
 * tree belongs to one thread at a time. */
#ifndef VXTOOLS3_CONTAINERS_H
#define VXTOOLS3_CONTAINERS_H

#include "common.h"

VX_BEGIN_DECLS

/* ---- Block zones ---------------------------------------------------------------------- */

typedef struct BZone BZone;

/* A zone's chunk statistics, filled by BZStats. */
typedef struct BZStatistics {
    int32_t elemSize;   /* element size: the requested size rounded up to a multiple of 8 */
    int32_t perChunk;   /* slots per chunk: 2000 / (elemSize + 8) + 1, at least 10 */
    int32_t chunkCount; /* chunks the zone owns */
    int32_t liveCount;  /* elements handed out and not yet freed */
    int32_t freeCount;  /* free slots over all chunks */
    size_t chunkBytes;  /* heap bytes held by the chunks */
} BZStatistics;

/* Returns a new zone for elements of `size` bytes (rounded up to a multiple of 8; at most
 * 1 GiB), holding no chunk yet. Returns NULL for a larger size or when memory runs out. */
VX_API BZone *BZCreate(size_t size);
/* Returns a zero-filled element, making a new chunk when no chunk has a free slot. Returns
 * NULL when memory runs out. */
VX_API void *BZAlloc(BZone *zone);
/* Returns `elem` (made by BZAlloc of this zone) to the zone and fills it with 0xBB. An element
 * that is not in use in this zone is reported to the debug output and ignored, as far as that
 * can be seen from its slot. */
VX_API void BZFree(BZone *zone, void *elem);
/* Adds chunks until at least `n` slots are free. The new chunks take their place in the
 * order (behind the partly used ones), so the fullest chunks are still filled first. Returns 1,
 * or 0 when memory runs out (the chunks added by this call are then given back). */
VX_API int BZPreAlloc(BZone *zone, int32_t n);
/* Releases every chunk and the zone itself, whatever is still allocated. NULL is ignored. */
VX_API void BZDestroy(BZone *zone);
/* Fills `out` with the zone's chunk statistics. */
VX_API void BZStats(const BZone *zone, BZStatistics *out);
/* Checks the zone: chunk links and owners, the order of chunks by free count, each chunk's
 * free count and lowest free slot, the slot marks, and that free elements still hold their
 * fill (all 0x00 or all 0xBB). Returns the number of live elements, or -1 after writing the
 * first fault found to the debug output. */
VX_API int BZValidate(const BZone *zone);

/* ---- B-trees -------------------------------------------------------------------------- */

typedef struct BTree BTree;

/* A node, readable by callers that walk a tree's shape; never modify one. `children` has
 * 2m + 1 slots (all NULL in a leaf), slot i lying left of key i; `keys` holds `count` keys of
 * keySize bytes each, stored contiguously (a key is aligned only as far as keySize allows). */
typedef struct BTNode {
    struct BTNode *parent; /* NULL at the root */
    struct BTNode **children;
    unsigned char *keys;
    int32_t count;
} BTNode;

/* A position: a key of a node (`node` NULL and `index` 0 for an empty tree). */
typedef struct BTPos {
    BTNode *node;
    int32_t index;
} BTPos;

/* Compares the search key `key` with a stored key at `storedKey`: negative, zero or positive
 * as `key` orders before, equal to or after it. */
typedef int BTCompare(uintptr_t key, const void *storedKey);
/* Returns the search key word that BTSearch would be given for the stored key at `storedKey`
 * (used by BTValidate to check the order). */
typedef uintptr_t BTKeyWord(const void *storedKey);

/* Returns a new, empty tree of order `m` (nodes of m to 2m keys) with keys of `keySize`
 * bytes, ordered by `cmp` (not owned). Returns NULL when m < 1, keySize < 1, cmp is NULL, a
 * node would exceed 1 GiB, or memory runs out. */
VX_API BTree *BTCreate(int32_t m, int32_t keySize, BTCompare *cmp);
/* Returns the address of the stored key equal to `key`, or NULL. When `pos` is not NULL it
 * receives the key's position or, when absent, the insertion point for BTInsert. */
VX_API void *BTSearch(const BTree *tree, uintptr_t key, BTPos *pos);
/* Inserts a copy of the keySize bytes at `keyBytes` at the insertion point `pos` from an
 * unsuccessful BTSearch, the tree unchanged since. Returns 1, or 0 when memory runs out. */
VX_API int BTInsert(BTree *tree, const void *keyBytes, const BTPos *pos);
/* Removes the key at `pos` from a successful BTSearch, the tree unchanged since. Returns 1. */
VX_API int BTDelete(BTree *tree, const BTPos *pos);
/* Positions `pos` at the smallest key and returns its address; NULL for an empty tree. */
VX_API void *BTFirst(const BTree *tree, BTPos *pos);
/* Advances `pos` to the next key in order and returns its address; NULL after the last key.
 * The tree must not change during the walk. */
VX_API void *BTNext(const BTree *tree, BTPos *pos);
/* Frees every node; the tree is then empty and usable. */
VX_API void BTClear(BTree *tree);
/* Frees the tree and everything it holds. NULL is ignored. */
VX_API void BTDestroy(BTree *tree);
/* Returns the root node (NULL when the tree is empty), for walking the shape. */
VX_API const BTNode *BTRoot(const BTree *tree);
/* Returns the number of keys held (a walk of the tree). */
VX_API int32_t BTCount(const BTree *tree);
/* Checks the tree: parent links, each node's key count (m to 2m, the root 1 to 2m), all leaves
 * at one depth, the strict order of the keys, and its zones (no node or buffer lost). `keyOf`
 * gives a stored key's search word; NULL reads its first word (no order check when keySize is
 * below a word). Returns the number of keys, or -1 after writing the first fault found to the
 * debug output. */
VX_API int32_t BTValidate(const BTree *tree, BTKeyWord *keyOf);

/* ---- Lookup tables: sets of words ----------------------------------------------------- */

typedef BTree LTab;

/* Returns a new, empty table on a B-tree of order `m`, or NULL (see BTCreate). */
VX_API LTab *LTabCreate(int32_t m);
/* Adds `value`: returns 1 when added, 0 when already present, -1 when memory ran out. */
VX_API int LTabAdd(LTab *tab, uintptr_t value);
/* Removes `value`: returns 1 when removed, 0 when absent. */
VX_API int LTabRem(LTab *tab, uintptr_t value);
/* Returns 1 when `value` is present, else 0. */
VX_API int LTabTest(const LTab *tab, uintptr_t value);
/* Empties the table. */
VX_API void LTabClear(LTab *tab);
/* Frees the table (NULL is ignored). */
VX_API void LTabDestroy(LTab *tab);

/* ---- Lookup maps: word to word -------------------------------------------------------- */

typedef BTree LMap;

/* Returns a new, empty map on a B-tree of order `m`, or NULL (see BTCreate). */
VX_API LMap *LMapCreate(int32_t m);
/* Maps `key` to `value`: returns 1 when the key was added, 0 when its value was replaced,
 * -1 when memory ran out (the map is then unchanged). */
VX_API int LMapSet(LMap *map, uintptr_t key, uintptr_t value);
/* When `key` is present stores its value through `valueOut` (if not NULL) and returns 1;
 * otherwise returns 0 and leaves `*valueOut` alone. */
VX_API int LMapGet(const LMap *map, uintptr_t key, uintptr_t *valueOut);
/* Removes `key`: returns 1 when removed, 0 when absent. */
VX_API int LMapUnset(LMap *map, uintptr_t key);
/* Empties the map. */
VX_API void LMapClear(LMap *map);
/* Frees the map (NULL is ignored). */
VX_API void LMapDestroy(LMap *map);

/* ---- Key tables: word to entry pointer ------------------------------------------------ */

typedef BTree KTable;

/* Returns a new, empty key table, or NULL when memory runs out. */
VX_API KTable *KTableCreate(void);
/* Adds `entry` under `key`: returns 1 when added, 0 when the key is present (its entry is
 * kept), -1 when memory ran out. */
VX_API int KTableAdd(KTable *table, uintptr_t key, void *entry);
/* Returns the entry under `key`, or NULL. */
VX_API void *KTableFind(const KTable *table, uintptr_t key);
/* Removes `key` and returns its entry, or returns NULL when absent. */
VX_API void *KTableRem(KTable *table, uintptr_t key);
/* Frees the key table, not the entries (NULL is ignored). */
VX_API void KTableDestroy(KTable *table);

VX_END_DECLS

#endif
