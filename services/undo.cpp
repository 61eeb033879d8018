// The undo system: one process-wide list of records. A step is bracketed by a start marker
// and an end marker; the step position (the end marker of the newest undoable step) divides
// the undo side from the redo side, and new records go after the current position.
//
// Markers are told from client records by a field of their own, so a client record with a
// null action or a code of +1 or -1 is never mistaken for a step boundary; a record with a
// null action is simply skipped by undo and redo.
#include <vxtools3/ckpt.h>
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>
#include <vxtools3/undo.h>

#include "services/undo_internal.h"

#include <cstdlib>

struct VxUndoRecord {
    VxNode node;
    int32_t code;
    UndoAction *action;
    uintptr_t data;
    UndoRelease *release;
    int32_t marker;  // +1 a step's start marker, -1 its end marker, 0 a client record
};

namespace vx::undo {
namespace {

constexpr int32_t kLevels = 12;
constexpr int32_t kStartMarker = 1;
constexpr int32_t kEndMarker = -1;

struct State {
    VxList list;
    bool started = false;
    VxNode *current = nullptr;  // new records go after this one
    VxNode *step = nullptr;     // end marker of the newest undo step, or the list front
    uintptr_t systemData = 0;
    int32_t numUndo = 0;
    int32_t numRedo = 0;
    int32_t depth = 0;       // open levels, at most kLevels
    int32_t extraDepth = 0;  // levels opened beyond kLevels, merged into the last one
    int32_t balance[kLevels] = {};
    int32_t outerBalance = 0;
    int32_t maximum = 0;
    VxUndoRecord *executing = nullptr;
    VxNode *spares = nullptr;  // discarded records kept for reuse, linked through succ
    int32_t spareCount = 0;
};

// A steady history discards about as many records as it makes; keeping a few spare records
// saves the heap a round trip for each.
constexpr int32_t kMaxSpares = 32;

State g;

VxNode *Front() { return reinterpret_cast<VxNode *>(&g.list.head); }
VxUndoRecord *AsRecord(VxNode *node) { return reinterpret_cast<VxUndoRecord *>(node); }
bool IsLast(const VxNode *node) { return node->succ->succ == nullptr; }
bool IsEmpty() { return g.list.head->succ == nullptr; }
bool IsMarker(VxNode *node, int32_t which) { return node != Front() && node->succ && AsRecord(node)->marker == which; }

void Start()
{
    if (g.started)
        return;
    NewList(&g.list);
    g.current = g.step = Front();
    g.numUndo = g.numRedo = 0;
    g.started = true;
}

// Unlinks a record, moving the positions that named it to its predecessor, then releases it.
void Discard(VxUndoRecord *record)
{
    if (g.current == &record->node)
        g.current = record->node.pred;
    if (g.step == &record->node)
        g.step = record->node.pred;
    Remove(&record->node);
    if (record->data && record->release)
        record->release(g.systemData, record->code, record->data);
    if (g.spareCount < kMaxSpares) {
        record->node.succ = g.spares;
        g.spares = &record->node;
        ++g.spareCount;
    } else {
        FreeHeap(record, sizeof(VxUndoRecord));
    }
}

void FreeSpares()
{
    while (g.spares) {
        VxNode *next = g.spares->succ;
        FreeHeap(g.spares, sizeof(VxUndoRecord));
        g.spares = next;
    }
    g.spareCount = 0;
}

// Armed for a spare record that was taken: gives it back when the caller's checkpoint block
// fails.
void ReturnSpare(uintptr_t record, uintptr_t)
{
    auto *node = reinterpret_cast<VxNode *>(record);
    node->succ = g.spares;
    g.spares = node;
    ++g.spareCount;
}

// A zero-filled record, a spare one when there is one.
VxUndoRecord *AllocRecord()
{
    if (!g.spares) {
        void *block = StdAlloc(sizeof(VxUndoRecord));
        CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(block), sizeof(VxUndoRecord));
        return static_cast<VxUndoRecord *>(block);
    }
    VxNode *node = g.spares;
    g.spares = node->succ;
    --g.spareCount;
    CkptArm(ReturnSpare, reinterpret_cast<uintptr_t>(node), 0);
    *reinterpret_cast<VxUndoRecord *>(node) = VxUndoRecord{};
    return reinterpret_cast<VxUndoRecord *>(node);
}

void DiscardOldestUndo()
{
    while (!IsEmpty()) {
        VxUndoRecord *record = AsRecord(g.list.head);
        const bool end = record->marker == kEndMarker;
        Discard(record);
        if (end)
            break;
    }
    --g.numUndo;
}

void DiscardNewestRedo()
{
    while (!IsEmpty()) {
        VxUndoRecord *record = AsRecord(g.list.tailPred);
        const bool start = record->marker == kStartMarker;
        Discard(record);
        if (start)
            break;
    }
    --g.numRedo;
}

void TrimUndo()
{
    if (g.maximum == -1)
        return;
    while (g.numUndo && g.numUndo + g.numRedo > g.maximum)
        DiscardOldestUndo();
}

void TrimRedo()
{
    if (g.maximum == -1)
        return;
    while (g.numRedo && g.numUndo + g.numRedo > g.maximum)
        DiscardNewestRedo();
}

// Releases every record, steps and loose records alike, and forgets the open blocks' counts.
void DiscardEverything()
{
    while (!IsEmpty())
        Discard(AsRecord(g.list.head));
    g.current = g.step = Front();
    g.numUndo = g.numRedo = 0;
    for (int32_t &b : g.balance)
        b = 0;
    g.outerBalance = 0;
    FreeSpares();
}

// Allocates a record inside the caller's checkpoint block, armed to be freed on failure.
VxUndoRecord *NewRecord(int32_t code, UndoAction *action, uintptr_t data, UndoRelease *release, int32_t marker)
{
    VxUndoRecord *record = AllocRecord();
    record->code = code;
    record->action = action;
    record->data = data;
    record->release = release;
    record->marker = marker;
    return record;
}

struct Markers {
    VxUndoRecord *start;
    VxUndoRecord *end;
};

Markers NewMarkers()
{
    VxUndoRecord *start = NewRecord(+1, nullptr, 0, nullptr, kStartMarker);
    VxUndoRecord *end = NewRecord(-1, nullptr, 0, nullptr, kEndMarker);
    return {start, end};
}

// Brackets the last |outer balance| records as a step and counts it on its side.
void MakeStep(Markers markers)
{
    Insert(&g.list, &markers.end->node, g.current);
    g.current = &markers.end->node;
    VxNode *before = &markers.end->node;
    for (int32_t i = 0; i <= std::abs(g.outerBalance) && before != Front(); ++i)
        before = before->pred;
    Insert(&g.list, &markers.start->node, before);
    if (g.outerBalance < 1) {
        g.step = &markers.end->node;
        ++g.numUndo;
    } else {
        ++g.numRedo;
    }
    TrimUndo();
}

// Closes the innermost level; `markers` are used when it is the outermost and makes a step.
void CloseLevel(Markers markers)
{
    if (g.depth > 1) {
        g.balance[g.depth - 2] += g.balance[g.depth - 1];
        --g.depth;
        return;
    }
    g.depth = 0;
    if (g.outerBalance != 0)
        MakeStep(markers);
}

int AddRecord(int32_t delta, int32_t code, UndoAction *action, uintptr_t data, UndoRelease *release)
{
    Start();
    // Everything that can fail comes first, so that a failure leaves no trace (not even the
    // redo steps that beginning new work would discard).
    CKPT_BEGIN_OR_RETURN(0);
    VxUndoRecord *record = NewRecord(code, action, data, release, 0);
    const bool lone = g.depth == 0;
    Markers markers = lone ? NewMarkers() : Markers{nullptr, nullptr};
    CkptEnd();

    UndoBlockBegin();
    Insert(&g.list, &record->node, g.current);
    g.current = &record->node;
    g.balance[g.depth - 1] += delta;
    g.outerBalance += delta;
    if (g.extraDepth)
        --g.extraDepth;  // the record joined a merged level; leave that level open no longer
    else
        CloseLevel(markers);
    return 1;
}

// The start marker of the next redo step (which = 1) or of the newest undo step (which = -1).
VxUndoRecord *StepStart(int32_t which)
{
    Start();
    VxNode *node;
    if (which == 1 && g.numRedo) {
        for (node = g.step->succ; node->succ && !IsMarker(node, kStartMarker); node = node->succ) {
        }
        return node->succ ? AsRecord(node) : nullptr;
    }
    if (which == -1 && g.numUndo) {
        for (node = g.step->pred; node != Front() && !IsMarker(node, kStartMarker); node = node->pred) {
        }
        return node != Front() ? AsRecord(node) : nullptr;
    }
    return nullptr;
}

void Perform(VxUndoRecord *record)
{
    if (!record->action)
        return;
    g.executing = record;
    record->action(g.systemData, record->code, record->data);
    g.executing = nullptr;
}

}  // namespace

int32_t RecordCount()
{
    Start();
    return ListValidate(&g.list);
}

int32_t OpenDepth() { return g.depth + g.extraDepth; }
int32_t SpareCount() { return g.spareCount; }
void DropSpares() { FreeSpares(); }

const char *CheckStructure()
{
    Start();
    if (ListValidate(&g.list) < 0)
        return "broken links";
    bool currentSeen = g.current == Front(), stepSeen = g.step == Front();
    bool inStep = false;
    int32_t ends = 0, startsAfterStep = 0;
    bool pastStep = stepSeen;
    for (VxNode *n = g.list.head; n->succ; n = n->succ) {
        const int32_t marker = AsRecord(n)->marker;
        if (marker == kStartMarker) {
            if (inStep)
                return "a start marker inside a step";
            inStep = true;
            startsAfterStep += pastStep;
        } else if (marker == kEndMarker) {
            if (!inStep)
                return "an end marker outside a step";
            inStep = false;
            ends += !pastStep;
        }
        currentSeen |= n == g.current;
        if (n == g.step) {
            if (marker != kEndMarker)
                return "the step position is not an end marker";
            stepSeen = pastStep = true;
        }
    }
    if (inStep)
        return "a step without an end marker";
    if (!currentSeen || !stepSeen)
        return "a position outside the list";
    if (ends != g.numUndo)
        return "undo count differs from the steps before the step position";
    if (startsAfterStep != g.numRedo)
        return "redo count differs from the steps after the step position";
    if (g.executing)
        return "an executing record outside an action";
    return nullptr;
}

}  // namespace vx::undo

using namespace vx::undo;

extern "C" {

VX_API void UndoSysSetMax(int32_t maximum)
{
    Start();
    g.maximum = maximum;
    TrimUndo();
    TrimRedo();
}

VX_API int32_t UndoSysGetMax(void) { return g.maximum; }

VX_API void UndoSysShutdown(void)
{
    UndoSysSetMax(0);
    DiscardEverything();
    g.depth = g.extraDepth = 0;
}

VX_API void UndoSysClear(void)
{
    const int32_t maximum = g.maximum;
    UndoSysSetMax(0);
    DiscardEverything();
    UndoSysSetMax(maximum);
}

VX_API void UndoSysSetData(uintptr_t systemData) { g.systemData = systemData; }

VX_API int UndoAddComplete(int32_t code, UndoAction *action, uintptr_t data, UndoRelease *release)
{
    return AddRecord(-1, code, action, data, release);
}

VX_API int UndoAddPending(int32_t code, UndoAction *action, uintptr_t data, UndoRelease *release)
{
    return AddRecord(+1, code, action, data, release);
}

VX_API void UndoBlockBegin(void)
{
    Start();
    while (g.numRedo && !IsLast(g.current))
        DiscardNewestRedo();
    if (g.depth == kLevels) {
        ++g.extraDepth;
        return;
    }
    g.balance[g.depth++] = 0;
    if (g.depth == 1)
        g.outerBalance = 0;
}

VX_API int UndoBlockEnd(void)
{
    Start();
    if (g.extraDepth) {
        --g.extraDepth;
        return 1;
    }
    if (g.depth == 0)
        return 0;
    Markers markers{nullptr, nullptr};
    if (g.depth == 1 && g.outerBalance != 0) {
        CKPT_BEGIN_OR_RETURN(0);
        markers = NewMarkers();
        CkptEnd();
    }
    CloseLevel(markers);
    return 1;
}

VX_API void UndoBlockAbort(void)
{
    Start();
    if (g.extraDepth) {
        --g.extraDepth;
        return;
    }
    if (g.depth == 0)
        return;
    const int32_t balance = g.balance[--g.depth];
    g.outerBalance -= balance;
    for (int32_t i = 0; i < std::abs(balance) && g.current != Front(); ++i)
        Discard(AsRecord(g.current));
}

VX_API VxUndoRecord *UndoBlockSetData(int32_t which, uintptr_t data, UndoRelease *release)
{
    VxUndoRecord *start = StepStart(which);
    if (start) {
        start->data = data;
        start->release = release;
    }
    return start;
}

VX_API uintptr_t UndoBlockGetData(int32_t which)
{
    VxUndoRecord *start = StepStart(which);
    return start ? start->data : 0;
}

VX_API int UndoSysUndo(void)
{
    Start();
    if (!g.numUndo)
        return 0;
    VxNode *node = g.step->pred;
    while (node != Front() && !IsMarker(node, kStartMarker)) {
        Perform(AsRecord(node));
        node = node->pred;
    }
    g.step = g.current = node != Front() ? node->pred : Front();
    ++g.numRedo;
    --g.numUndo;
    return 1;
}

VX_API int UndoSysRedo(void)
{
    Start();
    if (!g.numRedo)
        return 0;
    const bool currentAtStep = g.step == g.current;
    VxNode *node = g.step->succ;
    while (node->succ && !IsMarker(node, kStartMarker))
        node = node->succ;
    if (node->succ)
        node = node->succ;
    while (node->succ && !IsMarker(node, kEndMarker)) {
        Perform(AsRecord(node));
        node = node->succ;
    }
    g.step = node->succ ? node : g.list.tailPred;
    if (currentAtStep)
        g.current = g.step;
    --g.numRedo;
    ++g.numUndo;
    return 1;
}

VX_API int32_t UndoNumUndo(void) { return g.numUndo; }
VX_API int32_t UndoNumRedo(void) { return g.numRedo; }

VX_API VxUndoRecord *UndoNewCode(int32_t code)
{
    if (g.executing)
        g.executing->code = code;
    return g.executing;
}

VX_API VxUndoRecord *UndoNewAction(UndoAction *action)
{
    if (g.executing)
        g.executing->action = action;
    return g.executing;
}

VX_API void UndoNewData(uintptr_t data, UndoRelease *release)
{
    if (g.executing) {
        g.executing->data = data;
        g.executing->release = release;
    }
}

}  // extern "C"
