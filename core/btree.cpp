// B-trees of order m with keys stored by value. Nodes come from a block zone; a split gathers
// the overfull key and child sequences in buffers from two more zones, and rebalancing after a
// deletion either evens out two siblings, gathered with their separator in the tree's own
// rebalancing buffers, or merges them.
//
// An insertion that splits allocates everything it needs (buffers and new nodes, level by
// level up to the last split) before it changes the tree, inside one checkpoint block that
// returns the pieces when memory runs out: a failed insertion leaves the tree as it was.
#include "core/containers_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/memory.h>

#include <array>
#include <cstring>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

constexpr int64_t kMaxNodeBytes = int64_t{1} << 30;

// ---- Node layout ------------------------------------------------------------------------

unsigned char *KeyAt(const BTree *tree, const BTNode *node, int32_t index)
{
    return node->keys + static_cast<ptrdiff_t>(index) * tree->keySize;
}

size_t KeyBytes(const BTree *tree, int32_t count) { return static_cast<size_t>(count) * tree->keySize; }

void CopyKeys(const BTree *tree, void *to, const void *from, int32_t count)
{
    std::memmove(to, from, KeyBytes(tree, count));
}

void CopyChildren(BTNode **to, BTNode *const *from, int32_t count)
{
    std::memmove(to, from, static_cast<size_t>(count) * sizeof(BTNode *));
}

int64_t NodeBytes(int64_t m, int64_t keySize)
{
    return static_cast<int64_t>(sizeof(BTNode)) + (2 * m + 1) * static_cast<int64_t>(sizeof(BTNode *)) +
           2 * m * keySize;
}

BTNode *InitNode(const BTree *tree, void *elem)
{
    auto *node = static_cast<BTNode *>(elem);
    node->children = reinterpret_cast<BTNode **>(node + 1);
    node->keys = reinterpret_cast<unsigned char *>(node->children + tree->maxKeys + 1);
    return node;
}

bool IsLeaf(const BTNode *node) { return node->children[0] == nullptr; }

int32_t SlotInParent(const BTNode *node)
{
    const BTNode *parent = node->parent;
    int32_t slot = 0;
    while (parent->children[slot] != node)
        ++slot;
    return slot;
}

// Gives `count` children starting at `from` to `node` as its slots 0 ...
void AdoptChildren(BTNode *node, BTNode *const *from, int32_t count)
{
    CopyChildren(node->children, from, count);
    for (int32_t i = 0; i < count; ++i)
        if (node->children[i])
            node->children[i]->parent = node;
}

void ClearChildrenFrom(const BTree *tree, BTNode *node, int32_t first)
{
    for (int32_t i = first; i <= tree->maxKeys; ++i)
        node->children[i] = nullptr;
}

// ---- Search -----------------------------------------------------------------------------

template <class Compare>
void *Find(const BTree *tree, uintptr_t key, BTPos *pos, Compare compare)
{
    BTNode *node = tree->root;
    BTPos where{nullptr, 0};
    void *found = nullptr;
    while (node) {
        int32_t lo = 0, hi = node->count;
        while (lo < hi) {
            const int32_t mid = (lo + hi) / 2;
            const int r = compare(key, KeyAt(tree, node, mid));
            if (r == 0) {
                lo = mid;
                found = KeyAt(tree, node, mid);
                break;
            }
            if (r < 0)
                hi = mid;
            else
                lo = mid + 1;
        }
        where = {node, lo};
        if (found)
            break;
        node = node->children[lo];
    }
    if (pos)
        *pos = where;
    return found;
}

uintptr_t FirstWord(const void *storedKey)
{
    uintptr_t stored;
    std::memcpy(&stored, storedKey, sizeof stored);
    return stored;
}

int CompareWordInline(uintptr_t key, const void *storedKey)
{
    const uintptr_t stored = FirstWord(storedKey);
    return (key > stored) - (key < stored);
}

// Moves lo or hi after a probe that did not match: hi = mid when the key lies below the probe,
// else lo = mid + 1. Written as conditional moves: the outcome of a probe of a random key is
// not predictable, and the moves add a single cycle to the chain of probes in a node, where the
// compiler would branch (or select through several dependent operations). Measured against the
// plain form below (containers_bench, medians of 5): finding each of 1,000 random keys takes
// about a fifth less time (LTab 79.5 -> 62.9 us, LMap 86.4 -> 69.8 us); at 10^6 keys the
// cache misses dominate and the two forms are even.
[[gnu::always_inline]] inline void Narrow(uintptr_t key, uintptr_t stored, uint32_t mid, uint32_t &lo, uint32_t &hi)
{
#if defined(__x86_64__)
    const uint32_t next = mid + 1;
    asm("cmp %[stored], %[key]\n\t"
        "cmovb %[mid], %[hi]\n\t"
        "cmovae %[next], %[lo]"
        : [hi] "+r"(hi), [lo] "+r"(lo)
        : [key] "r"(key), [stored] "r"(stored), [mid] "r"(mid), [next] "r"(next)
        : "cc");
#else
    const uint32_t below = 0u - static_cast<uint32_t>(key < stored);
    hi = (mid & below) | (hi & ~below);
    lo = (lo & below) | ((mid + 1) & ~below);
#endif
}

// The search of word-keyed trees (tables, maps, key tables): the same halving as Find, with the
// unsigned word comparison inlined instead of called through the tree's pointer, and the key
// size a constant where it is one or two words. Where the processor has AVX2, small nodes of
// tables and maps are searched by counting instead (FindCounted).
template <size_t kStride>
void *FindWordOf(const BTree *tree, uintptr_t key, BTPos *pos)
{
    const size_t stride = kStride ? kStride : static_cast<size_t>(tree->keySize);
    const auto childSlots = static_cast<size_t>(tree->maxKeys) + 1;
    BTNode *node = tree->root;
    BTPos where{nullptr, 0};
    void *found = nullptr;
    while (node) {
        // The node's own arrays follow its header inside the element.
        BTNode **children = reinterpret_cast<BTNode **>(node + 1);
        unsigned char *keys = reinterpret_cast<unsigned char *>(children + childSlots);
        const bool leaf = children[0] == nullptr;
        uint32_t lo = 0, hi = static_cast<uint32_t>(node->count);
        while (lo < hi) {
            const uint32_t mid = (lo + hi) / 2;
            const uintptr_t stored = FirstWord(keys + mid * stride);
            if (key == stored) [[unlikely]] {
                lo = mid;
                found = keys + mid * stride;
                break;
            }
            Narrow(key, stored, mid, lo, hi);
        }
        where = {node, static_cast<int32_t>(lo)};
        if (found || leaf)
            break;
        node = children[lo];
    }
    if (pos)
        *pos = where;
    return found;
}

// The search used by trees that were made when counting was not available or not wanted.
void *FindByCallback(const BTree *tree, uintptr_t key, BTPos *pos) { return Find(tree, key, pos, tree->cmp); }

bool g_countingAllowed = true;

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__)) && (defined(__linux__) || defined(__APPLE__))
#define VX_AVX2 __attribute__((target("avx2,bmi,bmi2,popcnt")))

// A node's key slots of at most this many words are searched by counting: one bit a word.
constexpr int32_t kMaxCountedWords = 64;
constexpr int32_t kVectorWords = 4;

bool DetectAvx2()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("popcnt");
}

const bool g_avx2 = DetectAvx2();

// One bit a word of the four at `words` (taken unsigned) below the key (`wanted`, flipped
// already), through the sign flip. Vectors pass by reference: their value passing would
// depend on the target's ABI.
[[gnu::always_inline]] VX_AVX2 inline uint64_t LessMask(const __m256i &wanted, const __m256i &flip,
                                                        const uint64_t *words)
{
    const __m256i stored = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(words));
    const __m256i less = _mm256_cmpgt_epi64(wanted, _mm256_xor_si256(stored, flip));
    return static_cast<uint64_t>(_mm256_movemask_pd(_mm256_castsi256_pd(less)));
}

// The word-keyed search for nodes whose key slots (one or two words a key) span
// kVectors vectors of four words: every word of the slots is compared with the key at once, one
// bit a word, the last vector taken as the last four words so that nothing past the slots is
// read. Keeping the bits of the node's keys (the first word of each, the first `count`) and
// counting them gives the number of keys below the search key: the index of an equal key, or
// the insertion point. The comparisons do not wait on one another as the probes of a halving
// do, and with the number of vectors a constant the loop unrolls, which leaves some 30
// instructions a node. Measured against the halving (random probes, best of 7 loops, tables of
// order 7 and maps of order 5): finding one of 1,000 keys takes 25 instead of 58 ns in a table
// and 41 instead of 53 ns in a map; of 10,000 keys 37 instead of 76 and 59 instead of 88 ns.
template <int kVectors, uint32_t kKeyWords>
VX_AVX2 void *FindCounted(const BTree *tree, uintptr_t key, BTPos *pos)
{
    const uint32_t slotWords = static_cast<uint32_t>(tree->maxKeys) * kKeyWords;
    const uint64_t firstWords = kKeyWords == 1 ? ~uint64_t{0} : 0x5555555555555555u;
    const size_t childSlots = static_cast<size_t>(tree->maxKeys) + 1;
    const __m256i flip = _mm256_set1_epi64x(INT64_MIN);
    const __m256i wanted = _mm256_xor_si256(_mm256_set1_epi64x(static_cast<long long>(key)), flip);
    BTNode *node = tree->root;
    BTPos where{nullptr, 0};
    void *found = nullptr;
    while (node) {
        BTNode **children = reinterpret_cast<BTNode **>(node + 1);
        const auto *keys = reinterpret_cast<const uint64_t *>(children + childSlots);
        const bool leaf = children[0] == nullptr;
        uint64_t below = 0;
#pragma GCC unroll 16
        for (int v = 0; v + 1 < kVectors; ++v)
            below |= LessMask(wanted, flip, keys + kVectorWords * v) << (kVectorWords * v);
        below |= LessMask(wanted, flip, keys + slotWords - kVectorWords) << (slotWords - kVectorWords);
        const auto count = static_cast<uint32_t>(node->count);
        const auto lo = static_cast<uint32_t>(_mm_popcnt_u64(_bzhi_u64(below & firstWords, count * kKeyWords)));
        // Past the last key the first key is read instead: it lies below the search key.
        const uint64_t *candidate = keys + (lo < count ? lo : 0) * kKeyWords;
        where = {node, static_cast<int32_t>(lo)};
        if (*candidate == key) {
            found = const_cast<uint64_t *>(candidate);
            break;
        }
        if (leaf)
            break;
        node = children[lo];
    }
    if (pos)
        *pos = where;
    return found;
}

template <int... kVectors>
constexpr std::array<BTFindFn *, 2 * sizeof...(kVectors)> CountedSearches(std::integer_sequence<int, kVectors...>)
{
    return {FindCounted<kVectors + 1, 1>..., FindCounted<kVectors + 1, 2>...};
}

// FindCounted for every number of vectors up to kMaxCountedWords / 4, the index one less, for
// keys of one word and then for keys of two.
constexpr auto kCountedSearches =
    CountedSearches(std::make_integer_sequence<int, kMaxCountedWords / kVectorWords>());

BTFindFn *CountedSearchFor(const BTree *tree)
{
    const int32_t words = tree->maxKeys * (tree->keySize / static_cast<int32_t>(sizeof(uint64_t)));
    const bool wordKeys = tree->keySize == sizeof(uint64_t) || tree->keySize == 2 * sizeof(uint64_t);
    if (!g_avx2 || !wordKeys || words < kVectorWords || words > kMaxCountedWords)
        return nullptr;
    const int32_t vectors = (words + kVectorWords - 1) / kVectorWords;
    const int32_t table = tree->keySize == sizeof(uint64_t) ? 0 : kMaxCountedWords / kVectorWords;
    return kCountedSearches[static_cast<size_t>(table + vectors - 1)];
}

#else
BTFindFn *CountedSearchFor(const BTree *) { return nullptr; }
#endif

// The search a new tree uses: by counting where it can, else the halving of word keys, else
// the tree's callback.
BTFindFn *SearchFor(const BTree *tree)
{
    if (tree->cmp != vx::btree::CompareFirstWord)
        return FindByCallback;
    if (BTFindFn *counted = g_countingAllowed ? CountedSearchFor(tree) : nullptr)
        return counted;
    switch (tree->keySize) {
    case sizeof(uintptr_t):
        return FindWordOf<sizeof(uintptr_t)>;
    case 2 * sizeof(uintptr_t):
        return FindWordOf<2 * sizeof(uintptr_t)>;
    default:
        return FindWordOf<0>;
    }
}

// ---- Insertion --------------------------------------------------------------------------

// Puts key K at `index` of a node with room, its companion child X just left of it.
void PutKey(const BTree *tree, BTNode *node, int32_t index, const void *key, BTNode *child)
{
    const int32_t after = node->count - index;
    CopyKeys(tree, KeyAt(tree, node, index + 1), KeyAt(tree, node, index), after);
    if (!IsLeaf(node))  // a leaf's child slots are all null: nothing to move
        CopyChildren(node->children + index + 1, node->children + index, after + 1);
    std::memcpy(KeyAt(tree, node, index), key, static_cast<size_t>(tree->keySize));
    node->children[index] = child;
    if (child)
        child->parent = node;
    ++node->count;
}

void SplitInsert(BTree *tree, BTNode *node, int32_t index, const void *key, BTNode *child);

void InsertInto(BTree *tree, BTNode *node, int32_t index, const void *key, BTNode *child)
{
    if (node->count < tree->maxKeys)
        PutKey(tree, node, index, key, child);
    else
        SplitInsert(tree, node, index, key, child);
}

// Splits the full `node` while inserting K (with X) at `index`: the lower half goes to a new
// node L, the median up into the parent (or a new root) with L as its left child.
void SplitInsert(BTree *tree, BTNode *node, int32_t index, const void *key, BTNode *child)
{
    const int32_t m = tree->minKeys;
    const int32_t full = tree->maxKeys;
    auto *keyBuf = static_cast<unsigned char *>(vx::zone::AllocArmed(tree->splitKeyZone));
    auto *childBuf = static_cast<BTNode **>(vx::zone::AllocArmed(tree->splitChildZone));
    BTNode *lower = InitNode(tree, vx::zone::AllocArmed(tree->nodeZone));

    CopyKeys(tree, keyBuf, node->keys, index);
    std::memcpy(keyBuf + KeyBytes(tree, index), key, static_cast<size_t>(tree->keySize));
    CopyKeys(tree, keyBuf + KeyBytes(tree, index + 1), KeyAt(tree, node, index), full - index);
    // The child slots of a leaf, of the fresh buffer and of the fresh node L are all null: a
    // leaf's split leaves them alone.
    const bool leaf = IsLeaf(node);
    if (!leaf) {
        CopyChildren(childBuf, node->children, index);
        childBuf[index] = child;
        CopyChildren(childBuf + index + 1, node->children + index, full + 1 - index);
    }

    const unsigned char *median = keyBuf + KeyBytes(tree, m);
    if (node->parent) {
        InsertInto(tree, node->parent, SlotInParent(node), median, lower);
    } else {
        BTNode *root = InitNode(tree, BZAlloc(tree->nodeZone));  // the last allocation
        std::memcpy(root->keys, median, static_cast<size_t>(tree->keySize));
        root->count = 1;
        root->children[0] = lower;
        root->children[1] = node;
        lower->parent = root;
        node->parent = root;
        tree->root = root;
    }
    // From here on nothing allocates: distribute the halves.
    CopyKeys(tree, lower->keys, keyBuf, m);
    lower->count = m;
    CopyKeys(tree, node->keys, keyBuf + KeyBytes(tree, m + 1), m);
    node->count = m;
    if (!leaf) {
        AdoptChildren(lower, childBuf, m + 1);
        AdoptChildren(node, childBuf + m + 1, m + 1);
        ClearChildrenFrom(tree, node, m + 1);
    }
    BZFree(tree->splitKeyZone, keyBuf);
    BZFree(tree->splitChildZone, childBuf);
}

int InsertWithSplits(BTree *tree, BTNode *node, int32_t index, const void *key)
{
    CKPT_BEGIN_OR_RETURN(0);
    SplitInsert(tree, node, index, key, nullptr);
    CkptEnd();
    return 1;
}

// ---- Deletion ---------------------------------------------------------------------------

void RemoveKey(BTree *tree, BTNode *node, int32_t index);

// Evens out siblings A and B (parent key `slot` between them) through the tree's rebalancing
// buffers: A's keys, the separator and B's keys (t in all) are gathered with their children,
// the gathered key at t / 2 becomes the separator, A receives the keys before it and B those
// after it, each with the children around its keys.
void Redistribute(BTree *tree, BTNode *parent, int32_t slot)
{
    BTNode *a = parent->children[slot];
    BTNode *b = parent->children[slot + 1];
    const int32_t na = a->count;
    const int32_t nb = b->count;
    const int32_t total = na + 1 + nb;
    const int32_t half = total / 2;
    unsigned char *separator = KeyAt(tree, parent, slot);
    unsigned char *keys = tree->mergeKeys;
    CopyKeys(tree, keys, a->keys, na);
    CopyKeys(tree, keys + KeyBytes(tree, na), separator, 1);
    CopyKeys(tree, keys + KeyBytes(tree, na + 1), b->keys, nb);
    CopyKeys(tree, a->keys, keys, half);
    CopyKeys(tree, separator, keys + KeyBytes(tree, half), 1);
    CopyKeys(tree, b->keys, keys + KeyBytes(tree, half + 1), total - half - 1);
    a->count = half;
    b->count = total - half - 1;
    if (IsLeaf(a))  // siblings lie at one depth; a leaf's child slots are all null
        return;
    BTNode **children = tree->mergeChildren;
    CopyChildren(children, a->children, na + 1);
    CopyChildren(children + na + 1, b->children, nb + 1);
    AdoptChildren(a, children, half + 1);
    ClearChildrenFrom(tree, a, half + 1);
    AdoptChildren(b, children + half + 1, total - half);
    ClearChildrenFrom(tree, b, total - half);
}

// Appends the separator and B's keys and children to A and frees B. The buffers are not used:
// A has room for everything (with the separator the pair holds at most 2m keys) and its own
// keys and children stay where they are, so gathering them would only copy A out and back.
void Merge(BTree *tree, BTNode *parent, int32_t slot)
{
    BTNode *a = parent->children[slot];
    BTNode *b = parent->children[slot + 1];
    CopyKeys(tree, KeyAt(tree, a, a->count), KeyAt(tree, parent, slot), 1);
    CopyKeys(tree, KeyAt(tree, a, a->count + 1), b->keys, b->count);
    if (!IsLeaf(b))  // a leaf's child slots are all null: nothing to move
        for (int32_t i = 0; i <= b->count; ++i) {
            a->children[a->count + 1 + i] = b->children[i];
            b->children[i]->parent = a;
        }
    a->count += 1 + b->count;
    BZFree(tree->nodeZone, b);
    RemoveKey(tree, parent, slot);
}

void Rebalance(BTree *tree, BTNode *node)
{
    if (node == tree->root) {
        if (node->count == 0) {
            tree->root = node->children[0];
            if (tree->root)
                tree->root->parent = nullptr;
            BZFree(tree->nodeZone, node);
        }
        return;
    }
    if (node->count >= tree->minKeys)
        return;
    BTNode *parent = node->parent;
    const int32_t k = SlotInParent(node);
    int32_t left;  // the pair is (left, left + 1)
    if (k == 0)
        left = 0;
    else if (k == parent->count)
        left = k - 1;
    else
        left = parent->children[k - 1]->count < parent->children[k + 1]->count ? k : k - 1;
    if (parent->children[left]->count + parent->children[left + 1]->count >= tree->maxKeys)
        Redistribute(tree, parent, left);
    else
        Merge(tree, parent, left);
}

// Removes key `index` and the child right of it, then rebalances.
void RemoveKey(BTree *tree, BTNode *node, int32_t index)
{
    CopyKeys(tree, KeyAt(tree, node, index), KeyAt(tree, node, index + 1), node->count - index - 1);
    if (!IsLeaf(node))
        CopyChildren(node->children + index + 1, node->children + index + 2, node->count - index - 1);
    node->children[node->count] = nullptr;
    --node->count;
    Rebalance(tree, node);
}

// ---- Creation and clearing --------------------------------------------------------------

void DestroyZoneArm(uintptr_t zone, uintptr_t) { BZDestroy(reinterpret_cast<BZone *>(zone)); }

BZone *ArmedZone(size_t size)
{
    BZone *zone = BZCreate(size);
    CkptArm(DestroyZoneArm, reinterpret_cast<uintptr_t>(zone), 0);
    return zone;
}

void *ArmedBlock(size_t size)
{
    void *block = StdAlloc(size);
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(block), size);
    return block;
}

size_t MergeKeyBytes(const BTree *tree) { return KeyBytes(tree, 3 * tree->minKeys + 1); }
size_t MergeChildBytes(const BTree *tree) { return (3 * static_cast<size_t>(tree->minKeys) + 2) * sizeof(BTNode *); }

// Makes the record and its pieces, each armed; runs inside the caller's block.
BTree *BuildTree(int32_t m, int32_t keySize, BTCompare *cmp)
{
    auto *tree = static_cast<BTree *>(ArmedBlock(sizeof(BTree)));
    tree->cmp = cmp;
    tree->keySize = keySize;
    tree->minKeys = m;
    tree->maxKeys = 2 * m;
    tree->find = SearchFor(tree);
    tree->nodeZone = ArmedZone(static_cast<size_t>(NodeBytes(m, keySize)));
    tree->splitKeyZone = ArmedZone(KeyBytes(tree, 2 * m + 1));
    tree->splitChildZone = ArmedZone((2 * static_cast<size_t>(m) + 2) * sizeof(BTNode *));
    // Redistribution gathers two siblings and their separator here: at most a short node
    // (m - 1 keys), a full one (2m) and the separator, with their children.
    tree->mergeKeys = static_cast<unsigned char *>(ArmedBlock(MergeKeyBytes(tree)));
    tree->mergeChildren = static_cast<BTNode **>(ArmedBlock(MergeChildBytes(tree)));
    return tree;
}

void FreeSubtree(BTree *tree, BTNode *node)
{
    if (!IsLeaf(node))
        for (int32_t i = 0; i <= node->count; ++i)
            FreeSubtree(tree, node->children[i]);
    BZFree(tree->nodeZone, node);
}

int32_t CountSubtree(const BTNode *node)
{
    int32_t total = node->count;
    if (!IsLeaf(node))
        for (int32_t i = 0; i <= node->count; ++i)
            total += CountSubtree(node->children[i]);
    return total;
}

}  // namespace

namespace vx::btree {

int CompareFirstWord(uintptr_t key, const void *storedKey) { return CompareWordInline(key, storedKey); }

void AllowCounting(bool allowed) { g_countingAllowed = allowed; }

}  // namespace vx::btree

extern "C" {

VX_API BTree *BTCreate(int32_t m, int32_t keySize, BTCompare *cmp)
{
    if (m < 1 || keySize < 1 || !cmp || NodeBytes(m, keySize) > kMaxNodeBytes)
        return nullptr;
    CKPT_BEGIN_OR_RETURN(nullptr);
    BTree *tree = BuildTree(m, keySize, cmp);
    CkptEnd();
    return tree;
}

VX_API void *BTSearch(const BTree *tree, uintptr_t key, BTPos *pos) { return vx::btree::Search(tree, key, pos); }

VX_API int BTInsert(BTree *tree, const void *keyBytes, const BTPos *pos)
{
    BTNode *node = pos->node;
    if (!node) {
        void *elem = BZAlloc(tree->nodeZone);
        if (!elem)
            return 0;
        tree->root = InitNode(tree, elem);
        PutKey(tree, tree->root, 0, keyBytes, nullptr);
        return 1;
    }
    if (node->count < tree->maxKeys) {
        PutKey(tree, node, pos->index, keyBytes, nullptr);
        return 1;
    }
    return InsertWithSplits(tree, node, pos->index, keyBytes);
}

VX_API int BTDelete(BTree *tree, const BTPos *pos)
{
    BTNode *node = pos->node;
    BTNode *leaf = node->children[pos->index];
    if (!leaf) {
        RemoveKey(tree, node, pos->index);
        return 1;
    }
    while (leaf->children[leaf->count])
        leaf = leaf->children[leaf->count];
    CopyKeys(tree, KeyAt(tree, node, pos->index), KeyAt(tree, leaf, leaf->count - 1), 1);
    RemoveKey(tree, leaf, leaf->count - 1);
    return 1;
}

VX_API void *BTFirst(const BTree *tree, BTPos *pos)
{
    BTNode *node = tree->root;
    if (!node)
        return nullptr;
    while (node->children[0])
        node = node->children[0];
    *pos = {node, 0};
    return node->keys;
}

VX_API void *BTNext(const BTree *tree, BTPos *pos)
{
    BTNode *node = pos->node;
    int32_t index = pos->index;
    if (BTNode *child = node->children[index + 1]) {
        while (child->children[0])
            child = child->children[0];
        *pos = {child, 0};
        return child->keys;
    }
    if (index + 1 < node->count) {
        pos->index = index + 1;
        return KeyAt(tree, node, index + 1);
    }
    while (node->parent) {
        const int32_t slot = SlotInParent(node);
        node = node->parent;
        if (slot < node->count) {
            *pos = {node, slot};
            return KeyAt(tree, node, slot);
        }
    }
    return nullptr;
}

VX_API void BTClear(BTree *tree)
{
    if (tree->root)
        FreeSubtree(tree, tree->root);
    tree->root = nullptr;
}

VX_API void BTDestroy(BTree *tree)
{
    if (!tree)
        return;
    // Every node lives in the node zone, which goes as a whole: the nodes are not walked and
    // given back one by one first.
    FreeHeap(tree->mergeKeys, MergeKeyBytes(tree));
    FreeHeap(tree->mergeChildren, MergeChildBytes(tree));
    BZDestroy(tree->nodeZone);
    BZDestroy(tree->splitKeyZone);
    BZDestroy(tree->splitChildZone);
    FreeHeap(tree, sizeof(BTree));
}

VX_API const BTNode *BTRoot(const BTree *tree) { return tree->root; }

VX_API int32_t BTCount(const BTree *tree) { return tree->root ? CountSubtree(tree->root) : 0; }

}  // extern "C"

// ---- Validation ---------------------------------------------------------------------------

namespace {

struct Checker {
    const BTree *tree;
    BTKeyWord *keyOf;
    const void *previousKey = nullptr;
    int32_t leafDepth = -1;
    int32_t keys = 0;
    int32_t nodes = 0;

    bool Fail(const BTNode *node, const char *what) const
    {
        DBprintf("BTValidate: tree %p, node %p: %s\n", static_cast<const void *>(tree),
                 static_cast<const void *>(node), what);
        return false;
    }

    bool InOrder(const void *key)
    {
        bool ordered = true;
        if (previousKey && (keyOf || tree->keySize >= static_cast<int32_t>(sizeof(uintptr_t)))) {
            uintptr_t word;
            if (keyOf)
                word = keyOf(previousKey);
            else
                std::memcpy(&word, previousKey, sizeof word);
            ordered = tree->cmp(word, key) < 0;
        }
        previousKey = key;
        return ordered;
    }

    bool Shape(const BTNode *node) const
    {
        if (node->children != reinterpret_cast<BTNode *const *>(node + 1) ||
            node->keys != reinterpret_cast<const unsigned char *>(node->children + tree->maxKeys + 1))
            return Fail(node, "the key or child array is not the node's own");
        const int32_t least = node == tree->root ? 1 : tree->minKeys;
        if (node->count < least || node->count > tree->maxKeys)
            return Fail(node, "key count out of range");
        for (int32_t i = node->count + 1; i <= tree->maxKeys; ++i)
            if (node->children[i])
                return Fail(node, "a child slot beyond the keys is in use");
        return true;
    }

    bool Node(const BTNode *node, int32_t depth)
    {
        ++nodes;
        if (!Shape(node))
            return false;
        const bool leaf = IsLeaf(node);
        if (leaf && leafDepth < 0)
            leafDepth = depth;
        if (leaf && depth != leafDepth)
            return Fail(node, "leaves at different depths");
        for (int32_t i = 0; i <= node->count; ++i) {
            const BTNode *child = node->children[i];
            if (leaf != !child)
                return Fail(node, leaf ? "a leaf has a child" : "an inner node lacks a child");
            if (child && child->parent != node)
                return Fail(child, "parent link is wrong");
            if (child && !Node(child, depth + 1))
                return false;
            if (i < node->count && !InOrder(KeyAt(tree, node, i)))
                return Fail(node, "keys out of order");
        }
        keys += node->count;
        return true;
    }
};

}  // namespace

extern "C" VX_API int32_t BTValidate(const BTree *tree, BTKeyWord *keyOf)
{
    Checker checker{tree, keyOf};
    if (tree->root && tree->root->parent)
        return checker.Fail(tree->root, "the root has a parent"), -1;
    if (tree->root && !checker.Node(tree->root, 0))
        return -1;
    if (BZValidate(tree->nodeZone) != checker.nodes)
        return checker.Fail(nullptr, "the node zone holds nodes that are not in the tree"), -1;
    if (BZValidate(tree->splitKeyZone) != 0 || BZValidate(tree->splitChildZone) != 0)
        return checker.Fail(nullptr, "a split buffer was not returned"), -1;
    return checker.keys;
}
