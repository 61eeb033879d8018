/* vxtools3 — checkpoints: transactional failure handling.
 *
 * A function opens a checkpoint block, arms recovery actions as it acquires resources and
 * ends the block when it succeeds, which forgets the armed actions. A failure raised inside
 * the block (CkptRecover, or an allocation that fails) runs the actions armed in the innermost
 * block newest first and resumes at the point where that block was opened. From there the
 * failure is handed outward block by block until the outermost owner returns its failure
 * value. The usual pattern:
 *
 *     void *MakeThing(void)
 *     {
 *         CKPT_BEGIN_OR_RETURN(NULL);            // on failure: hand outward, else return NULL
 *         Thing *t = StdAlloc(sizeof *t);
 *         CkptArm(StdFreeArm, (uintptr_t)t, sizeof *t);
 *         t->name = StringCopy("thing");         // a failure here frees t
 *         CkptEnd();
 *         return t;
 *     }
 *
 * The resume is a longjmp: locals of the opening function that change after the block opens
 * and are read after a resume must be volatile, and frames skipped by the unwind must hold
 * nothing that needs a destructor. All state (block stack, armed actions, latched code) is
 * per thread. At most 61 blocks may be open and 181 actions armed; going beyond either limit
 * is fatal (panic). Arming never allocates. */
#ifndef VXTOOLS3_CKPT_H
#define VXTOOLS3_CKPT_H

#include <setjmp.h>
#include "common.h"
#include "debug.h"

VX_BEGIN_DECLS

/* A recovery action, called as function(first, second) when a failure unwinds its block. */
typedef void CkptAction(uintptr_t first, uintptr_t second);

/* Opens a block and returns its resume context; use it at once through CkptBegin(). Fatal
 * ("CKPT: Checkpoint block nesting overflow -- FATAL!") when 61 blocks are already open. */
VX_API jmp_buf *CkptBeginBuf(void);
/* Arms function(first, second) in the innermost block; returns the new armed index, or the
 * block level (-1) without arming when no block is open. Fatal ("CKPT: Recovery action
 * overflow -- FATAL!") when 181 actions are already armed. */
VX_API int CkptArm(CkptAction *function, uintptr_t first, uintptr_t second);
/* Closes the innermost block successfully, dropping its actions unrun. With no block open it
 * only counts the extra call (see CkptRebalance). */
VX_API void CkptEnd(void);
/* Raises a failure with `code`: latches the code and calls CkptPropogate. Returns 0 only
 * when no block is open; otherwise it does not return. */
VX_API int CkptRecover(int code);
/* Unwinds the innermost block: runs its armed actions newest first and resumes at its opening
 * point with the value 1. Returns 0 when no block is open; otherwise it does not return. */
VX_API int CkptPropogate(void);
/* Returns the latched failure code and clears it. */
VX_API int CkptLatchCode(void);
/* Stores the latched code through `where` (when not NULL), clears it and returns 0. */
VX_API int CkptSuckCode(int *where);
/* Returns the level of the innermost open block: 0 for the outermost, -1 when none is open. */
VX_API int CkptLevel(void);
/* Returns 1 while armed actions run during an unwind, else 0. */
VX_API int CkptRecovering(void);
/* Stores (int)value through (int *)where. Armed as CkptArm(CkptAssignInt, (uintptr_t)&x, x)
 * it restores x to its old value when the block fails. */
VX_API void CkptAssignInt(uintptr_t where, uintptr_t value);
/* Debugging check of block balance. The first call records the current level and armed index
 * as the baseline. Later calls compare against it; on a difference, and when debug mode is on
 * and `report` is not NULL, report("DEBUG INFO", headline, detail) describes it. Every later
 * call then restores the baseline and clears the extra CkptEnd count. */
VX_API void CkptRebalance(AlertFunc *report);

/* Opens a block in the caller's frame. Evaluates to 0 when the block opens and to 1 when a
 * failure resumes there (the block is then already closed). */
#define CkptBegin() setjmp(*CkptBeginBuf())

/* Opens a block; when a failure resumes there, hands it to the next outer block, or, when
 * this block was the outermost, makes the calling function return `failure` (leave the
 * argument empty in a function returning void). */
#define CKPT_BEGIN_OR_RETURN(failure) \
    if (CkptBegin()) {                \
        CkptPropogate();              \
        return failure;               \
    }

VX_END_DECLS

#endif
