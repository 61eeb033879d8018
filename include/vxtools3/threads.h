/* vxtools3 — thread groups.
 *
 * A thread group runs a fixed set of worker functions in parallel, each on its own POSIX
 * thread with its own argument. The controlling thread either waits for all of them
 * (MTGroupRun) or starts them and polls or waits later (MTGroupBegin with MTGroupTestDone,
 * MTUtilWait or MTGroupWaitCompletion). Workers cooperate with an abort request by polling
 * MTThreadTestAbort. Each group offers one group lock and ten numbered user mutexes for the
 * workers' shared data.
 *
 * Threads: every MTGroup... function and MTUtilWait are called from the one thread that
 * controls the group, never from its workers (a worker that calls MTGroupAbort would wait for
 * itself). The MTThread... functions, the lock functions and MTUtilSignal may be called from
 * any thread, usually the workers.
 *
 * Killing (MTGroupKill) cancels the workers asynchronously: a worker can be stopped between
 * any two instructions, also one that never polls for an abort. While a group can be killed a
 * worker may hold only
 *   - the group lock and the user mutexes (a kill leaves all of them unlocked), and
 *   - memory that the controller can reach and free (its argument copy, or blocks it hangs
 *     off its argument): whatever the worker alone knows of is lost, and a checkpoint block
 *     it has open is abandoned without running its armed actions.
 * It must not be killed inside the heap (StdAlloc, FreeHeap, malloc), the debug output,
 * stdio, any lock of its own, or a run of another group: those would stay locked (or
 * running) for the rest of the process. A
 * worker that needs them brackets the calls with MTThreadHoldKill and MTThreadAllowKill;
 * MTGroupKill then waits for the bracket to end. (Use these rather than
 * pthread_setcancelstate alone: with asynchronous cancellation some C libraries still act on
 * a kill that was under way when the state changed.) A C++ worker that is killed runs no
 * destructors of its own frames unless it is built with exceptions, and must not swallow the
 * unwind with catch (...). MTGroupAbort is the orderly way to stop workers; kill is the last
 * resort. */
#ifndef VXTOOLS3_THREADS_H
#define VXTOOLS3_THREADS_H

#include "common.h"

VX_BEGIN_DECLS

/* A thread group, and one worker of a group (the worker's identifier and its record). */
typedef struct MTGroup *MTGroupID;
typedef struct MTThread *MTThreadID;

/* A worker function: receives its own worker record and returns its exit value. */
typedef int MTThreadFunc(MTThreadID thread);

/* Group flags returned by MTGroupWaitCompletion. */
#define MT_GROUP_RUNNING 1
#define MT_GROUP_ABORTED 2

/* Number of user mutexes of a group, numbered 0 ... MT_USER_MUTEXES - 1. */
#define MT_USER_MUTEXES 10

/* ---- Groups (controlling thread) -------------------------------------------------------- */

/* Returns a new group for up to `maxThreads` workers, or NULL when `maxThreads` < 1 or memory
 * ran out (raised through an open checkpoint block, as StdAlloc does). */
VX_API MTGroupID MTGroupCreate(int maxThreads);
/* Aborts the group (MTGroupAbort), then frees it with every argument copy it owns. Returns 0;
 * NULL is ignored. Kill first a group whose workers never poll for an abort. */
VX_API int MTGroupDestroy(MTGroupID group);
/* Adds a worker that will run function(record); returns its record, or NULL when the group is
 * NULL, full, running, `function` is NULL or the copy cannot be allocated. With `argSize` > 0
 * the group keeps a private copy of `argSize` bytes at `argument`, else `argument` itself. */
VX_API MTThreadID MTGroupAddThread(MTGroupID group, MTThreadFunc *function, void *argument,
                                   int argSize);
/* Replaces the argument of worker `index` as MTGroupAddThread stores it; returns 1, or 0 when
 * the group is NULL or running, `index` is out of range, or a larger copy cannot be allocated
 * (the old argument then stays). A smaller copy reuses the buffer it already owns. */
VX_API int MTGroupModifyArg(MTGroupID group, int index, void *argument, int argSize);
/* Runs every worker and returns 1 after all have ended, or 0 when the group is NULL, has no
 * workers, is running, or the system refused a thread (started workers are then aborted and
 * waited for, and the aborted flag is set). */
VX_API int MTGroupRun(MTGroupID group);
/* Starts every worker and a waiter thread that marks the group done when they have ended;
 * returns 1, or 0 as MTGroupRun. A completion signal left over from an earlier run is dropped.
 * The waiter of a finished run is joined by the next group call. */
VX_API int MTGroupBegin(MTGroupID group);
/* Sets the aborted flag, asks every worker to stop (MTThreadTestAbort returns 1) and waits
 * until all have ended. Ignored when the group is NULL or not running. */
VX_API void MTGroupAbort(MTGroupID group);
/* Stops every worker by force (see the top of this header; a worker inside a MTThreadHoldKill
 * bracket is waited for), then resets the group lock, the user mutexes and the completion
 * signal and gate to their free states, and clears the flags. The caller must not hold any of
 * those locks across the kill. Exit values of the run are not collected; the workers and their
 * arguments stay, so the group can run again. Ignored when the group is NULL or not running. */
VX_API void MTGroupKill(MTGroupID group);
/* Waits until a run started by MTGroupBegin has ended, clears the running flag and returns the
 * flags (MT_GROUP_ABORTED tells of an abort). Returns at once when nothing runs; 0 for NULL. */
VX_API int MTGroupWaitCompletion(MTGroupID group);
/* Returns the value worker `index` returned when its function last ended (0 before that, and
 * 0 when the group is NULL or `index` is out of range). */
VX_API int MTGroupGetReturn(MTGroupID group, int index);
/* Returns 1 when the group is NULL or not running, else 0. */
VX_API int MTGroupTestDone(MTGroupID group);
/* Returns 1 when the group's last run was aborted, else 0 (0 for NULL). */
VX_API int MTGroupTestAborted(MTGroupID group);
/* Returns the record of worker `index`, or NULL when the group is NULL or `index` is out of
 * range. */
VX_API MTThreadID MTGroupGetThreadID(MTGroupID group, int index);
/* Returns the number of workers added (0 for NULL). */
VX_API int MTGroupGetThreadCount(MTGroupID group);
/* Take and release the group lock (the lock MTThreadLockCS takes); NULL is ignored. Not
 * recursive. */
VX_API void MTGroupLockCS(MTGroupID group);
VX_API void MTGroupUnlockCS(MTGroupID group);

/* ---- Workers ---------------------------------------------------------------------------- */

/* Returns the worker's argument: its private copy, or the caller's pointer. */
VX_API void *MTThreadGetArg(MTThreadID thread);
/* Returns the worker's 0-based position in its group. */
VX_API int MTThreadGetIndex(MTThreadID thread);
/* Returns the number of workers in the worker's group. */
VX_API int MTThreadGetThreadCount(MTThreadID thread);
/* Returns the worker's group. */
VX_API MTGroupID MTThreadGetGroupID(MTThreadID thread);
/* Take and release the group lock of the worker's group. Not recursive. */
VX_API void MTThreadLockCS(MTThreadID thread);
VX_API void MTThreadUnlockCS(MTThreadID thread);
/* Returns 1 when the worker has been asked to stop, else 0. Cheap enough for inner loops. */
VX_API int MTThreadTestAbort(MTThreadID thread);
/* Returns 1 while the worker has not been asked to stop, else 0. */
VX_API int MTThreadTestRunning(MTThreadID thread);

/* Called by a worker on its own record: hold off MTGroupKill until the matching
 * MTThreadAllowKill (brackets nest). A kill requested meanwhile waits and takes effect when
 * the outermost bracket ends. */
VX_API void MTThreadHoldKill(MTThreadID thread);
VX_API void MTThreadAllowKill(MTThreadID thread);

/* A worker record begins with its running flag, an int read and written atomically. Where the
 * compiler offers atomic built-ins the two tests read it in place instead of calling the
 * library, so that polling costs no more than a load. */
#if defined(__GNUC__) || defined(__clang__)
static inline int MTThreadRunningFlag_(MTThreadID thread)
{
    return __atomic_load_n((const int *)(const void *)thread, __ATOMIC_RELAXED);
}
#define MTThreadTestAbort(thread) (MTThreadRunningFlag_(thread) == 0)
#define MTThreadTestRunning(thread) (MTThreadRunningFlag_(thread) != 0)
#endif

/* ---- Utilities -------------------------------------------------------------------------- */

/* Returns the number of processors online (at least 1). */
VX_API int MTSystemCountProcs(void);
/* Take and release user mutex `n` of the group; return 1, or 0 without effect when `n` is not
 * 0 ... MT_USER_MUTEXES - 1 or the group is NULL. Not recursive. */
VX_API int MTUtilLockMutex(MTGroupID group, int n);
VX_API int MTUtilUnlockMutex(MTGroupID group, int n);
/* Wakes the controller waiting in MTUtilWait. Signals that arrive before it has woken are
 * merged into one. Ignored for NULL. */
VX_API void MTUtilSignal(MTGroupID group);
/* Returns 0 at once (dropping a pending signal) when the group is done. Otherwise waits for a
 * signal from a worker or for the end of the run and returns 1 while the group still runs, 0
 * once it is done: loop while it returns 1, handling what the workers signalled. */
VX_API int MTUtilWait(MTGroupID group);

/* Name of the global function table for plug-ins, registered by MTUtilInitGlobal. */
#define MT_UTIL_GLOBAL_NAME "MultiThreading Utilities"

/* The global function table: a group with one worker slot, its destruction (NULL ignored) and
 * the user mutexes. */
typedef struct MTUtilFuncs {
    MTGroupID (*create)(void);
    void (*destroy)(MTGroupID group);
    int (*lockMutex)(MTGroupID group, int n);
    int (*unlockMutex)(MTGroupID group, int n);
} MTUtilFuncs;

/* Registers the table under MT_UTIL_GLOBAL_NAME in the global list (main thread). Returns 1
 * when the table is registered afterwards, 0 when the name holds something else or memory ran
 * out with no checkpoint block open. */
VX_API int MTUtilInitGlobal(void);

VX_END_DECLS

#endif
