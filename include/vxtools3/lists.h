/* vxtools3 — lists, ordered arrays, the step-wise sort and the global list.
 *
 * Lists are intrusive and doubly linked: the caller owns the nodes, and a node's first members
 * are its links. The list header is three words that act as two overlapping end nodes: `head`
 * points at the first node (at the header's `tail` word when empty), `tail` is always NULL and
 * `tailPred` points at the last node (at the header itself when empty). A node is a real node
 * exactly when its `succ` is not NULL, so a walk reads:
 *
 *     for (VxNode *n = list.head; n->succ; n = n->succ) ...
 *
 * None of the list functions allocate or check their arguments.
 *
 * An ordered array is three words (items, count, capacity) of pointer-sized items, usually
 * pointers to records owned by the caller; a zeroed record is an empty array. It grows by half
 * its capacity, at least 16 and at most 512 items at a time. Growth that runs out of memory is
 * raised through the innermost checkpoint block (see ckpt.h); with no block open the call
 * returns -1 and leaves the array as it was. */
#ifndef VXTOOLS3_LISTS_H
#define VXTOOLS3_LISTS_H

#include "common.h"

VX_BEGIN_DECLS

/* ---- Lists ---------------------------------------------------------------------------- */

typedef struct VxNode {
    struct VxNode *succ; /* next node; the header's `tail` word after the last node */
    struct VxNode *pred; /* previous node; the header before the first node */
    int32_t seq;         /* ordering key, read only by InsertSeq */
} VxNode;

typedef struct VxList {
    VxNode *head;
    VxNode *tail; /* always NULL */
    VxNode *tailPred;
} VxList;

/* Makes `list` empty. */
VX_API void NewList(VxList *list);
/* Links `node` right after `pred`; a NULL `pred` links it at the head. */
VX_API void Insert(VxList *list, VxNode *node, VxNode *pred);
/* Links `node` at the head / tail of `list`. */
VX_API void AddHead(VxList *list, VxNode *node);
VX_API void AddTail(VxList *list, VxNode *node);
/* Unlinks `node` from the list that holds it; the node's own links are left as they were. */
VX_API void Remove(VxNode *node);
/* Unlinks and returns the first / last node, or NULL when the list is empty. */
VX_API VxNode *RemHead(VxList *list);
VX_API VxNode *RemTail(VxList *list);
/* Moves every node of `src` to `dst` in constant time and leaves `src` empty. Whatever `dst`
 * held is forgotten, not unlinked. */
VX_API void MoveList(VxList *dst, VxList *src);
/* Links `node` in ascending order of `seq`, after any nodes with an equal key. */
VX_API void InsertSeq(VxList *list, VxNode *node);
/* Checks the links of `list`: returns the number of nodes, or -1 when a link is broken. */
VX_API int ListValidate(const VxList *list);

/* ---- Ordered arrays ------------------------------------------------------------------- */

typedef struct VxOrd {
    void **items;
    int32_t count;    /* items in use */
    int32_t capacity; /* item slots in the block */
} VxOrd;

/* Three-way comparison of two items (or of a key and an item), in the manner of strcmp. */
typedef int OrdCompare(void *a, void *b);

/* Makes `ord` an empty array (all three words zero); frees nothing. */
VX_API void OrdInit(VxOrd *ord);
/* Frees the item block (not the items) and makes `ord` empty. */
VX_API void OrdFree(VxOrd *ord);
/* Appends `item`; returns its index, or -1 when growth failed with no checkpoint block open. */
VX_API int OrdAppend(VxOrd *ord, void *item);
/* Inserts `item` into the array sorted by `cmp`, after the items that compare equal to it;
 * returns its index, or -1 when growth failed with no checkpoint block open. The array must
 * already be sorted by `cmp`. */
VX_API int OrdInsert(VxOrd *ord, void *item, OrdCompare *cmp);
/* Returns the index of an item matching `key`, or -1. With `cmp` NULL: the first item equal
 * to `key` itself. With `cmp`: binary search of the sorted array calling cmp(key, item); with
 * duplicates any one of the equal items may be found. */
VX_API int OrdLookup(const VxOrd *ord, void *key, OrdCompare *cmp);
/* Removes `item` (found by identity) and returns it, or returns NULL and changes nothing when
 * it is absent. With `item` NULL removes the item at `index` (unchecked) and returns NULL. */
VX_API void *OrdRemove(VxOrd *ord, void *item, int index);
/* Sorts the items in place by `cmp` (quicksort; not stable). */
VX_API void OrdSort(VxOrd *ord, OrdCompare *cmp);
/* Checks the array's shape (count within capacity, a block exactly when capacity > 0) and,
 * when `cmp` is given, that the items are in order. Returns 1 when sound, else 0. */
VX_API int OrdValidate(const VxOrd *ord, OrdCompare *cmp);

/* ---- Step-wise sort ------------------------------------------------------------------- */

/* Comparison for the step-wise sort: called as cmp3(item, pivot, user). */
typedef int SortCompare3(void *item, void *pivot, void *user);

/* Prepares the sort of `count` items at `base`; each SortStep then does one step of the
 * quicksort (at most one comparison). The sort state belongs to the calling thread: one
 * step-wise sort at a time per thread. */
VX_API void SortInitR(void **base, int32_t count, SortCompare3 *cmp3, void *user);
/* Performs one step; returns 1 while work remains and 0 once the items are sorted. */
VX_API int SortStep(void);

/* ---- Global list ---------------------------------------------------------------------- */

/* Process-wide registry of named values, kept in byte order of the names. Names are not
 * copied: each must outlive its entry. Meant for the main thread. */

/* Registers `value` under `name`; returns 1, or 0 when the name exists (the old value stays)
 * or memory ran out with no checkpoint block open. */
VX_API int GlobalListDefine(const char *name, void *value);
/* Returns the value registered under `name`, or NULL. */
VX_API void *GlobalListLookup(const char *name);
/* Registers a clean-up call fn(arg) for GlobalListCleanup; returns 1, or 0 when memory ran out
 * with no checkpoint block open. */
VX_API int GlobalListSetCleanup(void (*fn)(void *arg), void *arg);
/* Runs the clean-ups in reverse order of registration, then empties the global list. */
VX_API void GlobalListCleanup(void);

VX_END_DECLS

#endif
