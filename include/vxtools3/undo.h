/* vxtools3 — the undo system: one process-wide undo history.
 *
 * Editing code records one record per elementary change: a code, an action and a data word.
 * Records made inside an undo block (UndoBlockBegin ... UndoBlockEnd) form one step; a record
 * added outside any block is a step of its own. Undoing a step calls the actions of its
 * records newest first; redoing calls them oldest first. An action may rewrite its own record
 * (UndoNewCode, UndoNewAction, UndoNewData) so that the same record later performs the
 * opposite direction.
 *
 * A "complete" record describes a change already made (its step becomes undoable); a
 * "pending" record describes a change still to be made (its step becomes redoable, and
 * UndoSysRedo performs it). A block should hold records of one kind: its step brackets as
 * many of its newest records as complete and pending records differ by, and a block whose
 * kinds cancel out makes no step at all.
 *
 * The history keeps at most UndoSysGetMax() steps. The maximum starts at 0, so nothing is
 * kept until UndoSysSetMax is called; -1 keeps everything. Every call is safe before the first
 * UndoSysSetMax (the history starts empty). When a record is discarded its
 * release function is called with (system data, code, data) when both data and release are
 * non-zero. Blocks nest up to 12 levels; deeper levels merge into the twelfth (their records
 * join it, ending them does nothing and aborting them removes nothing). All calls come from
 * one thread; actions and release functions must not record, undo or redo, nor raise a
 * checkpoint failure out of themselves.
 *
 * Memory: a few dozen discarded records are kept for reuse; UndoSysClear and UndoSysShutdown
 * return them to the heap. */
#ifndef VXTOOLS3_UNDO_H
#define VXTOOLS3_UNDO_H

#include "common.h"

VX_BEGIN_DECLS

typedef struct VxUndoRecord VxUndoRecord;

/* Performs a record's change: action(systemData, code, data). */
typedef void UndoAction(uintptr_t systemData, int32_t code, uintptr_t data);
/* Releases a discarded record's data: release(systemData, code, data). */
typedef void UndoRelease(uintptr_t systemData, int32_t code, uintptr_t data);

/* Sets the maximum number of steps (-1: unbounded) and discards the oldest undo steps, then
 * the newest redo steps, until the history fits. */
VX_API void UndoSysSetMax(int32_t maximum);
/* Returns the maximum number of steps. */
VX_API int32_t UndoSysGetMax(void);
/* Discards every step and every record; the maximum becomes 0. */
VX_API void UndoSysShutdown(void);
/* Discards every step and every record and keeps the maximum. */
VX_API void UndoSysClear(void);
/* Sets the word passed first to every action and release function. */
VX_API void UndoSysSetData(uintptr_t systemData);

/* Records a change already made. Returns 1, or 0 when memory ran out (raised through an open
 * checkpoint block); a failure leaves the history as it was. */
VX_API int UndoAddComplete(int32_t code, UndoAction *action, uintptr_t data, UndoRelease *release);
/* Records a change still to be made (UndoSysRedo performs it). Returns as UndoAddComplete. */
VX_API int UndoAddPending(int32_t code, UndoAction *action, uintptr_t data, UndoRelease *release);

/* Opens a block. Starting new work discards the steps that could be redone, except pending
 * steps queued after the newest record. */
VX_API void UndoBlockBegin(void);
/* Closes the innermost block; closing the outermost makes its records a step (and trims the
 * oldest undo steps to the maximum). Returns 1; 0 when no block is open, or when memory for
 * the step ran out (raised through an open checkpoint block): the block then stays open, to
 * be ended again or aborted. */
VX_API int UndoBlockEnd(void);
/* Abandons the innermost block: its records are removed and released, no action is called. */
VX_API void UndoBlockAbort(void);
/* Attaches block data to the next redo step (which = 1) or the newest undo step (which = -1);
 * it is released with the step. Returns the step's start record, or NULL when there is no
 * such step or `which` is neither. Data set before is replaced, not released. */
VX_API VxUndoRecord *UndoBlockSetData(int32_t which, uintptr_t data, UndoRelease *release);
/* Returns the block data of the same step, or 0 when there is none. */
VX_API uintptr_t UndoBlockGetData(int32_t which);

/* Undoes the newest undo step; returns 1, or 0 (changing nothing) when there is none. */
VX_API int UndoSysUndo(void);
/* Redoes the next redo step; returns 1, or 0 (changing nothing) when there is none. */
VX_API int UndoSysRedo(void);
/* The number of steps that can be undone / redone. */
VX_API int32_t UndoNumUndo(void);
VX_API int32_t UndoNumRedo(void);

/* While an action runs: replace its record's code / action / data and release. They return
 * the record (UndoNewCode, UndoNewAction), or NULL and do nothing outside an action. The
 * replaced data is not released: it belongs to the action again. */
VX_API VxUndoRecord *UndoNewCode(int32_t code);
VX_API VxUndoRecord *UndoNewAction(UndoAction *action);
VX_API void UndoNewData(uintptr_t data, UndoRelease *release);

VX_END_DECLS

#endif
