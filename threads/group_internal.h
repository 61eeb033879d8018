// The thread group record, shared by the group, worker and utility code and their tests.
#pragma once

#include <vxtools3/threads.h>

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstddef>

// A worker record. Workers receive a pointer to their own record.
struct MTThread {
    std::atomic<int> running;  // first: 1 while the worker should keep going; 0 asks it to stop
    MTGroup *lockOwner;        // the group whose lock MTThreadLockCS takes
    void *argument;            // the private copy, or the caller's pointer when argSize is 0
    MTThreadFunc *function;
    int index;
    int argSize;      // recorded size of the private copy; 0 when the argument is the caller's
    int argCapacity;  // bytes allocated for the copy (can exceed argSize after a reuse)
    std::atomic<int> *threadCount;
    MTGroup *group;
    std::atomic<int> exitValue;  // written by the worker when its function returns
    int killHolds;               // the worker's own depth of MTThreadHoldKill brackets
};

struct MTGroup {
    // Locks shared with the workers are binary semaphores: a semaphore has no owner, so a
    // kill can reset one that a dead worker held.
    sem_t groupLock;
    sem_t userMutex[MT_USER_MUTEXES];
    sem_t completionSignal;  // posted at most once per raise of `signalled`
    sem_t completionGate;    // taken by MTGroupBegin, given back by the waiter

    std::atomic<int> flags;      // MT_GROUP_RUNNING | MT_GROUP_ABORTED
    std::atomic<int> signalled;  // 1 while the completion signal is posted and not consumed
    std::atomic<int> threadCount;
    int maxThreads;

    // Ending a begun run: each worker counts itself out when its function returns; the
    // waiter then joins the threads under `reapLock`, which MTGroupKill takes to cancel the
    // workers that are still alive. MTGroupRun joins its threads itself.
    std::atomic<int> liveWorkers;
    pthread_mutex_t reapLock;
    bool workersReaped;  // guarded by reapLock: the threads of the current run are joined

    MTThread *records;   // maxThreads entries
    pthread_t *handles;  // maxThreads entries
    pthread_t waiter;
    bool waiterStarted;  // controller only: `waiter` still has to be joined
};

namespace vx::mt {

// Creates the threads of the group; replaceable so that tests can make creation fail.
using ThreadStarter = int (*)(pthread_t *thread, void *(*entry)(void *), void *argument);
int StartSystemThread(pthread_t *thread, void *(*entry)(void *), void *argument);
// Installs `starter` (nullptr restores StartSystemThread).
void SetThreadStarterForTest(ThreadStarter starter);

// sem_wait that carries on through interruptions by signals.
void SemWait(sem_t *semaphore);
// Initialises or resets every semaphore of the group to its starting state.
void InitSignals(MTGroup *group);
void DestroySignals(MTGroup *group);
// Makes the completion signal unsignalled, consuming a post that is pending or on its way.
void DropCompletionSignal(MTGroup *group);
// Sets `signalled` and posts the completion signal unless it is already set.
void RaiseCompletionSignal(MTGroup *group);

}  // namespace vx::mt
