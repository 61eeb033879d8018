// Records of block zones and B-trees, shared by their implementation and tests.
#pragma once

#include <vxtools3/containers.h>
#include <vxtools3/lists.h>

#include <cstdint>

namespace vx::zone {

// A slot's prefix (the word that marks its owner), the bytes of slots a chunk aims at, and the
// fewest slots a chunk has.
inline constexpr int32_t kSlotPrefix = 8;
inline constexpr int32_t kChunkTarget = 2000;
inline constexpr int32_t kMinPerChunk = 10;
// Zero-sized elements give the most slots a chunk can have: kChunkTarget / kSlotPrefix + 1.
inline constexpr int32_t kMaxPerChunk = kChunkTarget / kSlotPrefix + 1;
inline constexpr int32_t kFreeMapWords = (kMaxPerChunk + 63) / 64;

}  // namespace vx::zone

// Links of the circular list of every chunk a zone owns (the zone holds its sentinel).
struct BZMember {
    BZMember *next;
    BZMember *prev;
};

// A chunk: this header, then perChunk slots of slotSize bytes. A slot starts with a word that
// holds the owning chunk while the slot is in use and zero while it is free; the element
// follows it. `freeMap` mirrors the marks of the slots handed out before (bit i set: slot
// i < used is free) so that the next free slot is found without reading the slots themselves;
// slots from `used` on are free without a bit, which keeps the map out of the way while a
// fresh chunk is being filled.
struct BZChunk {
    VxNode link;      // in the zone's order of chunks with room; unlinked while full; seq unused
    BZMember member;  // in the zone's list of every chunk it owns
    BZone *zone;
    unsigned char *firstFree;  // lowest free slot, or the end of the slots when none is free
    int32_t freeCount;
    // Slots 0 .. used - 1 have been handed out since the chunk was made; the others still hold
    // the zeros the chunk came with, so that only a reused slot needs clearing.
    int32_t used;
    uint64_t freeMap[vx::zone::kFreeMapWords];
};

struct BZone {
    int32_t elemSize;
    int32_t perChunk;
    // The chunks that have room, in ascending order of free count. Full chunks, which would
    // all sit at the tail, are left out of it: freeing into a full chunk then links it at the
    // head without touching the chunks around its old place, and filling the head chunk
    // unlinks it from the head. `allChunks` holds every chunk, for validation and release.
    VxList chunks;
    BZMember allChunks;
    int32_t chunkCount;
    int32_t slotSize;   // elemSize + the slot prefix
    size_t chunkBytes;  // the header and every slot
    uint64_t slotReciprocal;  // 2^40 / slotSize + 1: a slot's index by multiplying, not dividing
    // lastWithFree[c] is the last chunk of the run whose free count is c (NULL when there is
    // none), for 1 <= c <= perChunk: it lets a free count change move its chunk to its place in
    // the order without walking the list. The array follows the record in its block.
    BZChunk **lastWithFree;
};

// A tree's search, BTSearch's contract.
using BTFindFn = void *(const BTree *tree, uintptr_t key, BTPos *pos);

struct BTree {
    BTNode *root;
    BTCompare *cmp;
    BZone *nodeZone;        // nodes: header, 2m + 1 child slots, 2m keys
    BZone *splitKeyZone;    // a split's 2m + 1 keys
    BZone *splitChildZone;  // a split's 2m + 2 children
    // Two siblings and their separator gathered while they are evened out: 3m + 1 keys and
    // 3m + 2 children, made with the tree.
    unsigned char *mergeKeys;
    BTNode **mergeChildren;
    int32_t keySize;
    int32_t minKeys;  // m
    int32_t maxKeys;  // 2m
    BTFindFn *find;   // chosen when the tree is made, from its comparison, key size and order
};

namespace vx::zone {

// BZAlloc inside an open checkpoint block, arming the element's return: should the block
// fail, the element goes back and a chunk made for it is released, so the zone's memory is
// as it was before the call.
void *AllocArmed(BZone *zone);

}  // namespace vx::zone

namespace vx::btree {

// The comparison of LTab, LMap and KTable: the key word against the stored key's first word.
int CompareFirstWord(uintptr_t key, const void *storedKey);

// BTSearch without the call into it, for the tables and maps.
inline void *Search(const BTree *tree, uintptr_t key, BTPos *pos) { return tree->find(tree, key, pos); }

// Whether trees made from now on may search by counting where the processor allows it (the
// default); tests turn it off to compare the two searches.
void AllowCounting(bool allowed);

}  // namespace vx::btree
