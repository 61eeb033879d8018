// Block zones: equal-sized elements carved from chunks of about 2000 bytes. Chunks with room
// stay in ascending order of free count (full ones after them, kept aside), so an allocation
// always takes a slot from the fullest chunk that has room, and a chunk that becomes entirely
// free is released unless it is the zone's last one.
#include "core/containers_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/memory.h>

#include <algorithm>
#include <bit>
#include <cstring>

using vx::zone::kSlotPrefix;

namespace {

constexpr size_t kMaxElemSize = size_t{1} << 30;
constexpr unsigned char kFreedFill = 0xBB;

unsigned char *FirstSlot(BZChunk *chunk) { return reinterpret_cast<unsigned char *>(chunk + 1); }

unsigned char *SlotsEnd(const BZone *zone, BZChunk *chunk)
{
    return FirstSlot(chunk) + static_cast<size_t>(zone->perChunk) * zone->slotSize;
}

BZChunk *SlotMark(const unsigned char *slot)
{
    BZChunk *mark;
    std::memcpy(&mark, slot, sizeof mark);
    return mark;
}

void SetSlotMark(unsigned char *slot, BZChunk *mark) { std::memcpy(slot, &mark, sizeof mark); }

// offset * reciprocal = index * 2^40 + index * e, with 0 < e <= slotSize; index * e stays below
// 2^40 for every chunk shape (index < 251 for small slots, < 10 for slots up to 2^30 + 8).
constexpr int kReciprocalShift = 40;

int32_t SlotIndex(const BZone *zone, BZChunk *chunk, const unsigned char *slot)
{
    const auto offset = static_cast<uint64_t>(slot - FirstSlot(chunk));
    return static_cast<int32_t>((offset * zone->slotReciprocal) >> kReciprocalShift);
}

void MarkFree(BZChunk *chunk, int32_t index, bool isFree)
{
    const auto at = static_cast<uint32_t>(index);
    const uint64_t bit = uint64_t{1} << (at % 64);
    if (isFree)
        chunk->freeMap[at / 64] |= bit;
    else
        chunk->freeMap[at / 64] &= ~bit;
}

bool MarkedFree(const BZChunk *chunk, int32_t index) { return (chunk->freeMap[index / 64] >> (index % 64)) & 1; }

BZChunk *AsChunk(VxNode *node) { return reinterpret_cast<BZChunk *>(node); }

BZChunk *MemberChunk(const BZMember *member)
{
    return reinterpret_cast<BZChunk *>(reinterpret_cast<uintptr_t>(member) - offsetof(BZChunk, member));
}

void AddMember(BZone *zone, BZChunk *chunk)
{
    BZMember *sentinel = &zone->allChunks;
    chunk->member.next = sentinel->next;
    chunk->member.prev = sentinel;
    sentinel->next->prev = &chunk->member;
    sentinel->next = &chunk->member;
}

void RemoveMember(BZChunk *chunk)
{
    chunk->member.prev->next = chunk->member.next;
    chunk->member.next->prev = chunk->member.prev;
}

// The list's own Remove and Insert, written here so that the moves on every allocation and
// free are inlined rather than called.
void UnlinkNode(VxNode *node)
{
    node->succ->pred = node->pred;
    node->pred->succ = node->succ;
}

void LinkAfter(VxNode *pred, VxNode *node)
{
    node->succ = pred->succ;
    node->pred = pred;
    pred->succ->pred = node;
    pred->succ = node;
}

// The chunk list's header seen as a node: the predecessor of the first chunk.
VxNode *ListHeader(BZone *zone) { return reinterpret_cast<VxNode *>(&zone->chunks.head); }

BZChunk *HeadChunk(BZone *zone)
{
    VxNode *node = zone->chunks.head;
    return node->succ ? AsChunk(node) : nullptr;
}

size_t ZoneRecordBytes(int32_t perChunk)
{
    return sizeof(BZone) + (static_cast<size_t>(perChunk) + 1) * sizeof(BZChunk *);
}

// The chunk in front of `chunk` when it has free count `count`, else NULL.
BZChunk *PredWithCount(BZone *zone, BZChunk *chunk, int32_t count)
{
    VxNode *pred = chunk->link.pred;
    if (pred == ListHeader(zone))
        return nullptr;
    return AsChunk(pred)->freeCount == count ? AsChunk(pred) : nullptr;
}

// Unlinks `chunk`, keeping the run ends right.
void Unlink(BZone *zone, BZChunk *chunk)
{
    const int32_t count = chunk->freeCount;
    if (count > 0 && zone->lastWithFree[count] == chunk)
        zone->lastWithFree[count] = PredWithCount(zone, chunk, count);
    Remove(&chunk->link);
}

// Links a chunk with `perChunk` free slots where the order puts it: in front of the first
// chunk that is entirely free or full.
void LinkEmptyChunk(BZone *zone, BZChunk *chunk)
{
    VxNode *after = nullptr;
    for (int32_t count = zone->perChunk - 1; count >= 1 && !after; --count)
        if (zone->lastWithFree[count])
            after = &zone->lastWithFree[count]->link;
    Insert(&zone->chunks, &chunk->link, after);
    if (!zone->lastWithFree[zone->perChunk])
        zone->lastWithFree[zone->perChunk] = chunk;
    AddMember(zone, chunk);
    ++zone->chunkCount;
}

// A fresh chunk: every slot free (marks zero, elements zero), not linked yet. Raises when
// memory runs out; NULL only with no checkpoint block open.
BZChunk *NewChunk(BZone *zone)
{
    auto *chunk = static_cast<BZChunk *>(StdAlloc(zone->chunkBytes));
    if (!chunk)
        return nullptr;
    chunk->zone = zone;
    chunk->firstFree = FirstSlot(chunk);
    chunk->freeCount = zone->perChunk;
    return chunk;  // the free map is all zero: no slot has been handed out and freed yet
}

[[gnu::noinline]] void ReleaseChunk(BZone *zone, BZChunk *chunk)
{
    Unlink(zone, chunk);
    RemoveMember(chunk);
    --zone->chunkCount;
    FreeHeap(chunk, zone->chunkBytes);
}

// The head chunk (the fullest with room) lost a free slot.
[[gnu::always_inline]] inline void CountDownHead(BZone *zone, BZChunk *chunk)
{
    const int32_t count = chunk->freeCount;
    if (zone->lastWithFree[count] == chunk)
        zone->lastWithFree[count] = nullptr;  // it was the only chunk with this count
    chunk->freeCount = count - 1;
    if (count - 1 == 0) {
        UnlinkNode(&chunk->link);  // full: out of the order until a slot is freed
    } else {
        zone->lastWithFree[count - 1] = chunk;  // no chunk had fewer free slots
    }
}

// `chunk` gained a free slot and had some before: it moves behind the other chunks of its
// old count, which is where the order puts it.
[[gnu::always_inline]] inline void CountUp(BZone *zone, BZChunk *chunk)
{
    const int32_t count = chunk->freeCount;
    BZChunk *runEnd = zone->lastWithFree[count];
    if (runEnd == chunk) {
        zone->lastWithFree[count] = PredWithCount(zone, chunk, count);
    } else {
        UnlinkNode(&chunk->link);
        LinkAfter(&runEnd->link, &chunk->link);
    }
    chunk->freeCount = count + 1;
    if (!zone->lastWithFree[count + 1])
        zone->lastWithFree[count + 1] = chunk;
}

// The lowest free slot after taking one: a freed slot from the free map, else the first slot
// never handed out (the end of the slots when every slot has been).
unsigned char *LowestFree(const BZone *zone, BZChunk *chunk)
{
    const int32_t words = (chunk->used + 63) / 64;
    int32_t index = chunk->used;
    for (int32_t word = 0; word < words; ++word)
        if (chunk->freeMap[word]) {
            index = word * 64 + std::countr_zero(chunk->freeMap[word]);
            break;
        }
    return FirstSlot(chunk) + static_cast<size_t>(index) * static_cast<size_t>(zone->slotSize);
}

[[gnu::always_inline]] inline void *TakeSlot(BZone *zone, BZChunk *chunk)
{
    unsigned char *slot = chunk->firstFree;
    const auto slotSize = static_cast<size_t>(zone->slotSize);
    const int32_t used = chunk->used;
    SetSlotMark(slot, chunk);
    if (slot == FirstSlot(chunk) + static_cast<size_t>(used) * slotSize) {
        // Never handed out, so still zero and not in the free map; every slot below it is in
        // use, so the next free one follows it.
        chunk->used = used + 1;
        chunk->firstFree = slot + slotSize;
    } else {
        MarkFree(chunk, SlotIndex(zone, chunk, slot), false);
        std::memset(slot + kSlotPrefix, 0, static_cast<size_t>(zone->elemSize));
        chunk->firstFree = LowestFree(zone, chunk);
    }
    CountDownHead(zone, chunk);
    return slot + kSlotPrefix;
}

[[gnu::noinline, gnu::cold]] void ReportForeign(BZone *zone, void *elem)
{
    DBprintf("BZFree: element %p is not in use in zone %p\n", elem, static_cast<void *>(zone));
}

// Returns an element to its chunk. `keepLast` keeps a chunk that becomes entirely free when
// it is the zone's only one.
[[gnu::always_inline]] inline void ReturnElement(BZone *zone, void *elem, bool keepLast)
{
    if (!elem)
        return;
    unsigned char *slot = static_cast<unsigned char *>(elem) - kSlotPrefix;
    BZChunk *chunk = SlotMark(slot);
    if (!chunk || chunk->zone != zone) [[unlikely]] {
        ReportForeign(zone, elem);
        return;
    }
    SetSlotMark(slot, nullptr);
    MarkFree(chunk, SlotIndex(zone, chunk, slot), true);
    std::memset(elem, kFreedFill, static_cast<size_t>(zone->elemSize));
    chunk->firstFree = std::min(chunk->firstFree, slot);
    if (chunk->freeCount == 0) {
        LinkAfter(ListHeader(zone), &chunk->link);  // one free slot: the fullest with room
        chunk->freeCount = 1;
        if (!zone->lastWithFree[1])
            zone->lastWithFree[1] = chunk;
    } else if (chunk->freeCount + 1 == zone->perChunk && (zone->chunkCount > 1 || !keepLast)) {
        ReleaseChunk(zone, chunk);
    } else {
        CountUp(zone, chunk);
    }
}

// BZAlloc when every chunk is full (or there is none): a new chunk goes to the head.
[[gnu::noinline]] void *AllocFromNewChunk(BZone *zone)
{
    BZChunk *chunk = NewChunk(zone);
    if (!chunk)
        return nullptr;
    AddHead(&zone->chunks, &chunk->link);  // every other chunk is full, so the order is empty
    AddMember(zone, chunk);
    zone->lastWithFree[zone->perChunk] = chunk;
    ++zone->chunkCount;
    return TakeSlot(zone, chunk);
}

// Rollback of vx::zone::AllocArmed: `tagged` is the element, its low bit set when the
// allocation made the chunk.
void ReturnArmed(uintptr_t zone, uintptr_t tagged)
{
    ReturnElement(reinterpret_cast<BZone *>(zone), reinterpret_cast<void *>(tagged & ~uintptr_t{1}),
                  !(tagged & 1));
}

void ReleasePending(uintptr_t zone, uintptr_t pending)
{
    auto *z = reinterpret_cast<BZone *>(zone);
    while (VxNode *node = RemHead(reinterpret_cast<VxList *>(pending)))
        FreeHeap(node, z->chunkBytes);
}

int64_t FreeSlots(BZone *zone)
{
    int64_t total = 0;
    for (VxNode *node = zone->chunks.head; node->succ; node = node->succ)
        total += AsChunk(node)->freeCount;
    return total;
}

// Allocates the chunks for BZPreAlloc onto `pending`; raises when memory runs out.
void MakeChunks(BZone *zone, int64_t needed, VxList *pending)
{
    for (int64_t made = 0; made < needed; made += zone->perChunk)
        AddTail(pending, &NewChunk(zone)->link);
}

}  // namespace

namespace vx::zone {

void *AllocArmed(BZone *zone)
{
    const uintptr_t madeChunk = HeadChunk(zone) == nullptr;
    void *elem = BZAlloc(zone);
    CkptArm(ReturnArmed, reinterpret_cast<uintptr_t>(zone), reinterpret_cast<uintptr_t>(elem) | madeChunk);
    return elem;
}

}  // namespace vx::zone

extern "C" {

VX_API BZone *BZCreate(size_t size)
{
    if (size > kMaxElemSize)
        return nullptr;
    const auto elemSize = static_cast<int32_t>((size + 7) & ~size_t{7});
    const int32_t slotSize = elemSize + kSlotPrefix;
    const int32_t perChunk = std::max(vx::zone::kChunkTarget / slotSize + 1, vx::zone::kMinPerChunk);
    auto *zone = static_cast<BZone *>(StdAlloc(ZoneRecordBytes(perChunk)));
    if (!zone)
        return nullptr;
    zone->elemSize = elemSize;
    zone->perChunk = perChunk;
    NewList(&zone->chunks);
    zone->allChunks.next = zone->allChunks.prev = &zone->allChunks;
    zone->slotSize = slotSize;
    zone->chunkBytes = sizeof(BZChunk) + static_cast<size_t>(perChunk) * static_cast<size_t>(slotSize);
    zone->slotReciprocal = (uint64_t{1} << kReciprocalShift) / static_cast<uint64_t>(slotSize) + 1;
    zone->lastWithFree = reinterpret_cast<BZChunk **>(zone + 1);
    return zone;
}

VX_API void *BZAlloc(BZone *zone)
{
    VxNode *head = zone->chunks.head;
    if (head->succ) [[likely]]
        return TakeSlot(zone, AsChunk(head));
    return AllocFromNewChunk(zone);
}

VX_API void BZFree(BZone *zone, void *elem) { ReturnElement(zone, elem, true); }

VX_API int BZPreAlloc(BZone *zone, int32_t n)
{
    const int64_t missing = n - FreeSlots(zone);
    if (missing <= 0)
        return 1;
    VxList pending;
    NewList(&pending);
    CKPT_BEGIN_OR_RETURN(0);
    CkptArm(ReleasePending, reinterpret_cast<uintptr_t>(zone), reinterpret_cast<uintptr_t>(&pending));
    MakeChunks(zone, missing, &pending);
    CkptEnd();
    while (VxNode *node = RemHead(&pending))
        LinkEmptyChunk(zone, AsChunk(node));
    return 1;
}

VX_API void BZDestroy(BZone *zone)
{
    if (!zone)
        return;
    for (BZMember *member = zone->allChunks.next; member != &zone->allChunks;) {
        BZChunk *chunk = MemberChunk(member);
        member = member->next;
        FreeHeap(chunk, zone->chunkBytes);
    }
    FreeHeap(zone, ZoneRecordBytes(zone->perChunk));
}

VX_API void BZStats(const BZone *zone, BZStatistics *out)
{
    int64_t freeSlots = 0;
    for (VxNode *node = zone->chunks.head; node->succ; node = node->succ)
        freeSlots += AsChunk(node)->freeCount;
    out->elemSize = zone->elemSize;
    out->perChunk = zone->perChunk;
    out->chunkCount = zone->chunkCount;
    out->freeCount = static_cast<int32_t>(freeSlots);
    out->liveCount = static_cast<int32_t>(int64_t{zone->chunkCount} * zone->perChunk - freeSlots);
    out->chunkBytes = static_cast<size_t>(zone->chunkCount) * zone->chunkBytes;
}

}  // extern "C"

// ---- Validation ---------------------------------------------------------------------------

namespace {

int Fault(const BZone *zone, int chunkIndex, const char *what)
{
    DBprintf("BZValidate: zone %p, chunk %d: %s\n", static_cast<const void *>(zone), chunkIndex, what);
    return -1;
}

bool HoldsFill(const unsigned char *elem, int32_t size)
{
    const unsigned char fill = size ? elem[0] : 0;
    if (fill != 0 && fill != kFreedFill)
        return false;
    return std::all_of(elem, elem + size, [fill](unsigned char b) { return b == fill; });
}

// Checks one chunk's slots; returns its number of free slots, or -1.
int CheckSlots(const BZone *zone, BZChunk *chunk, int index)
{
    unsigned char *lowestFree = nullptr;
    int freeSlots = 0;
    unsigned char *end = SlotsEnd(zone, chunk);
    if (chunk->used < 0 || chunk->used > zone->perChunk)
        return Fault(zone, index, "the count of slots ever used is out of range");
    unsigned char *unused = FirstSlot(chunk) + static_cast<size_t>(chunk->used) * static_cast<size_t>(zone->slotSize);
    for (unsigned char *slot = FirstSlot(chunk); slot < end; slot += zone->slotSize) {
        BZChunk *mark = SlotMark(slot);
        if (mark && mark != chunk)
            return Fault(zone, index, "a slot is marked with another chunk");
        if (slot >= unused && (mark || !std::all_of(slot + kSlotPrefix, slot + zone->slotSize,
                                                    [](unsigned char b) { return b == 0; })))
            return Fault(zone, index, "a slot never handed out is in use or not zero");
        if (MarkedFree(chunk, SlotIndex(zone, chunk, slot)) != (slot < unused && !mark))
            return Fault(zone, index, "the free map disagrees with a slot mark");
        if (mark)
            continue;
        if (!HoldsFill(slot + kSlotPrefix, zone->elemSize))
            return Fault(zone, index, "a free element was written to");
        lowestFree = lowestFree ? lowestFree : slot;
        ++freeSlots;
    }
    for (int32_t extra = zone->perChunk; extra < vx::zone::kFreeMapWords * 64; ++extra)
        if (MarkedFree(chunk, extra))
            return Fault(zone, index, "the free map marks a slot beyond the chunk");
    if (chunk->firstFree != (lowestFree ? lowestFree : end))
        return Fault(zone, index, "firstFree is not the lowest free slot");
    if (chunk->freeCount != freeSlots)
        return Fault(zone, index, "freeCount differs from the free slots");
    return freeSlots;
}

// Checks the order of chunks with room: ascending free counts, run ends recorded, every chunk
// owned by the zone and none full. Returns how many chunks it holds, or -1.
int CheckOrder(const BZone *zone)
{
    const int length = ListValidate(&zone->chunks);
    if (length < 0)
        return Fault(zone, -1, "the order of chunks with room is broken");
    int index = 0;
    int32_t previous = 1;
    for (VxNode *node = zone->chunks.head; node->succ; node = node->succ, ++index) {
        BZChunk *chunk = AsChunk(node);
        if (chunk->zone != zone)
            return Fault(zone, index, "a chunk in the order is owned by another zone");
        const int32_t freeSlots = chunk->freeCount;
        if (freeSlots <= 0)
            return Fault(zone, index, "a full chunk is in the order of chunks with room");
        if (freeSlots < previous)
            return Fault(zone, index, "out of order: free counts must ascend");
        VxNode *next = node->succ;
        const bool endsRun = !next->succ || AsChunk(next)->freeCount != freeSlots;
        if (endsRun && zone->lastWithFree[freeSlots] != chunk)
            return Fault(zone, index, "not recorded as the end of its run of free counts");
        previous = freeSlots;
    }
    for (int32_t count = 1; count <= zone->perChunk; ++count) {
        BZChunk *runEnd = zone->lastWithFree[count];
        if (!runEnd)
            continue;
        VxNode *next = runEnd->link.succ;
        if (runEnd->freeCount != count || (next->succ && AsChunk(next)->freeCount == count))
            return Fault(zone, -1, "a run end does not end a run of its free count");
    }
    return length;
}

// A well-mixed 64-bit print of a chunk's address. Two sets of chunks of the same size with the
// same sum of prints are the same set but for a chance of about 2^-64, which lets validation
// compare the order with the chunks that have room without allocating.
uint64_t ChunkPrint(const BZChunk *chunk)
{
    uint64_t x = reinterpret_cast<uintptr_t>(chunk) + 0x9E3779B97F4A7C15u;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
    return x ^ (x >> 31);
}

// The length of the list of every chunk, or -1 when its links disagree.
int64_t CountMembers(const BZone *zone)
{
    int64_t length = 0;
    const BZMember *sentinel = &zone->allChunks;
    for (const BZMember *member = sentinel; member->next != sentinel; member = member->next, ++length)
        if (member->next->prev != member || length > zone->chunkCount)
            return -1;
    return sentinel->prev->next == sentinel ? length : -1;
}

}  // namespace

extern "C" VX_API int BZValidate(const BZone *zone)
{
    if (CountMembers(zone) != zone->chunkCount)
        return Fault(zone, -1, "the list of chunks is broken or its length is not chunkCount");
    const int withRoom = CheckOrder(zone);
    if (withRoom < 0)
        return -1;
    uint64_t orderedPrint = 0;
    for (VxNode *node = zone->chunks.head; node->succ; node = node->succ)
        orderedPrint += ChunkPrint(AsChunk(node));
    uint64_t withRoomPrint = 0;
    int live = 0;
    int index = 0;
    int notFull = 0;
    for (const BZMember *member = zone->allChunks.next; member != &zone->allChunks; member = member->next, ++index) {
        BZChunk *chunk = MemberChunk(member);
        if (chunk->zone != zone)
            return Fault(zone, index, "owned by another zone");
        const int freeSlots = CheckSlots(zone, chunk, index);
        if (freeSlots < 0)
            return -1;
        if (freeSlots != 0) {
            ++notFull;
            withRoomPrint += ChunkPrint(chunk);
        }
        live += zone->perChunk - freeSlots;
    }
    if (notFull != withRoom || withRoomPrint != orderedPrint)
        return Fault(zone, -1, "the order does not hold exactly the chunks with room");
    return live;
}
