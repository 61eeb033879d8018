// Thread groups: the worker side, the locks, the completion signal and the plug-in table.
#include <vxtools3/lists.h>
#include <vxtools3/threads.h>

#include "threads/group_internal.h"

#include <cerrno>
#include <unistd.h>

namespace vx::mt {
namespace {

bool IsUserMutex(MTGroupID group, int n) { return group && n >= 0 && n < MT_USER_MUTEXES; }

MTGroupID CreateForPlugin(void) { return MTGroupCreate(1); }

void DestroyForPlugin(MTGroupID group)
{
    if (group)
        MTGroupDestroy(group);
}

constexpr MTUtilFuncs kPluginTable = {CreateForPlugin, DestroyForPlugin, MTUtilLockMutex,
                                      MTUtilUnlockMutex};

}  // namespace

void SemWait(sem_t *semaphore)
{
    while (sem_wait(semaphore) != 0 && errno == EINTR) {
    }
}

void InitSignals(MTGroup *group)
{
    sem_init(&group->groupLock, 0, 1);
    for (sem_t &mutex : group->userMutex)
        sem_init(&mutex, 0, 1);
    sem_init(&group->completionSignal, 0, 0);
    sem_init(&group->completionGate, 0, 1);
}

void DestroySignals(MTGroup *group)
{
    sem_destroy(&group->groupLock);
    for (sem_t &mutex : group->userMutex)
        sem_destroy(&mutex);
    sem_destroy(&group->completionSignal);
    sem_destroy(&group->completionGate);
}

// `signalled` is raised before the post, so a raised flag means a post is made or on its
// way; the one who lowers the flag consumes that post.
void DropCompletionSignal(MTGroup *group)
{
    if (group->signalled.exchange(0, std::memory_order_acq_rel))
        SemWait(&group->completionSignal);
}

void RaiseCompletionSignal(MTGroup *group)
{
    if (!group->signalled.exchange(1, std::memory_order_acq_rel))
        sem_post(&group->completionSignal);
}

}  // namespace vx::mt

using namespace vx::mt;

extern "C" {

VX_API void MTGroupLockCS(MTGroupID group)
{
    if (group)
        SemWait(&group->groupLock);
}

VX_API void MTGroupUnlockCS(MTGroupID group)
{
    if (group)
        sem_post(&group->groupLock);
}

VX_API void *MTThreadGetArg(MTThreadID thread) { return thread->argument; }

VX_API int MTThreadGetIndex(MTThreadID thread) { return thread->index; }

VX_API int MTThreadGetThreadCount(MTThreadID thread)
{
    return thread->threadCount->load(std::memory_order_relaxed);
}

VX_API MTGroupID MTThreadGetGroupID(MTThreadID thread) { return thread->group; }

VX_API void MTThreadLockCS(MTThreadID thread) { SemWait(&thread->lockOwner->groupLock); }

VX_API void MTThreadUnlockCS(MTThreadID thread) { sem_post(&thread->lockOwner->groupLock); }

// The parentheses keep the header's inline versions from expanding here.
VX_API int(MTThreadTestAbort)(MTThreadID thread)
{
    return thread->running.load(std::memory_order_relaxed) == 0;
}

VX_API int(MTThreadTestRunning)(MTThreadID thread)
{
    return thread->running.load(std::memory_order_relaxed) != 0;
}

VX_API void MTThreadHoldKill(MTThreadID thread)
{
    if (thread->killHolds++ == 0) {
        // Deferred before disabled: a kill signal already on its way then finds the thread
        // deferred and only marks the kill pending, where a disabled state alone is not
        // checked by every C library's handler.
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }
}

VX_API void MTThreadAllowKill(MTThreadID thread)
{
    if (thread->killHolds > 0 && --thread->killHolds == 0) {
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);  // a pending kill acts here
    }
}

VX_API int MTSystemCountProcs(void)
{
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    return online < 1 ? 1 : static_cast<int>(online);
}

VX_API int MTUtilLockMutex(MTGroupID group, int n)
{
    if (!IsUserMutex(group, n))
        return 0;
    SemWait(&group->userMutex[n]);
    return 1;
}

VX_API int MTUtilUnlockMutex(MTGroupID group, int n)
{
    if (!IsUserMutex(group, n))
        return 0;
    sem_post(&group->userMutex[n]);
    return 1;
}

VX_API void MTUtilSignal(MTGroupID group)
{
    if (group)
        RaiseCompletionSignal(group);
}

VX_API int MTUtilWait(MTGroupID group)
{
    if (MTGroupTestDone(group)) {
        if (group)
            DropCompletionSignal(group);
        return 0;
    }
    SemWait(&group->completionSignal);
    group->signalled.exchange(0, std::memory_order_acq_rel);
    return MTGroupTestDone(group) ? 0 : 1;
}

VX_API int MTUtilInitGlobal(void)
{
    void *registered = GlobalListLookup(MT_UTIL_GLOBAL_NAME);
    if (registered)
        return registered == &kPluginTable;
    return GlobalListDefine(MT_UTIL_GLOBAL_NAME, const_cast<MTUtilFuncs *>(&kPluginTable));
}

}  // extern "C"
