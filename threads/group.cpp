// Thread groups: creation, workers and their arguments, runs, abort and kill.
#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>
#include <vxtools3/threads.h>

#include "threads/group_internal.h"

#include <cstdint>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define VX_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VX_ASAN 1
#endif
#endif
#if VX_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace vx::mt {
namespace {

constexpr int kRunning = MT_GROUP_RUNNING;
constexpr int kAborted = MT_GROUP_ABORTED;

ThreadStarter g_startThread = StartSystemThread;

bool IsRunning(const MTGroup *group)
{
    return (group->flags.load(std::memory_order_acquire) & kRunning) != 0;
}

void FreeArgumentCopy(MTThread *thread)
{
    if (thread->argCapacity > 0)
        FreeHeap(thread->argument, static_cast<size_t>(thread->argCapacity));
    thread->argument = nullptr;
    thread->argSize = 0;
    thread->argCapacity = 0;
}

#if VX_ASAN
// A kill unwinds the worker's frames without their epilogues, so AddressSanitizer still marks
// the redzones of their locals. Clear the marks below this frame before the thread's exit
// code reuses that part of the stack.
void ClearKilledFrames(void *)
{
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return;
    void *low = nullptr;
    size_t size = 0;
    pthread_attr_getstack(&attributes, &low, &size);
    pthread_attr_destroy(&attributes);
    auto *here = static_cast<char *>(__builtin_frame_address(0));
    ASAN_UNPOISON_MEMORY_REGION(low, static_cast<size_t>(here - static_cast<char *>(low)));
}
#endif

// The worker function runs with asynchronous cancellation so that MTGroupKill can stop a
// worker that never polls; what follows its return runs deferred, where a late kill cannot
// cut it short.
int CallWorkerFunction(MTThread *thread)
{
    volatile int result = 0;
#if VX_ASAN
    pthread_cleanup_push(ClearKilledFrames, nullptr);
#endif
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    result = thread->function(thread);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
#if VX_ASAN
    pthread_cleanup_pop(0);
#endif
    return result;
}

// Every worker thread starts here.
void *WorkerEntry(void *record)
{
    auto *thread = static_cast<MTThread *>(record);
    thread->exitValue.store(CallWorkerFunction(thread), std::memory_order_relaxed);
    MTGroup *group = thread->group;
    if (group->liveWorkers.fetch_sub(1, std::memory_order_acq_rel) == 1)
        group->liveWorkers.notify_all();
    return nullptr;
}

// The waiter's wait: until every worker function has returned (or a kill has stopped them),
// then joins the worker threads unless a kill already has.
void JoinWorkers(MTGroup *group)
{
    for (int left; (left = group->liveWorkers.load(std::memory_order_acquire)) != 0;)
        group->liveWorkers.wait(left, std::memory_order_acquire);
    pthread_mutex_lock(&group->reapLock);
    if (!group->workersReaped) {
        const int count = group->threadCount.load(std::memory_order_relaxed);
        for (int i = 0; i < count; ++i)
            pthread_join(group->handles[i], nullptr);
        group->workersReaped = true;
    }
    pthread_mutex_unlock(&group->reapLock);
}

void ClearRunning(MTGroup *group)
{
    group->flags.fetch_and(~kRunning, std::memory_order_acq_rel);
    group->flags.notify_all();
}

void WaitUntilDone(MTGroup *group)
{
    for (int flags; ((flags = group->flags.load(std::memory_order_acquire)) & kRunning) != 0;)
        group->flags.wait(flags, std::memory_order_acquire);
}

void AskWorkersToStop(MTGroup *group, int count)
{
    group->flags.fetch_or(kAborted, std::memory_order_acq_rel);
    for (int i = 0; i < count; ++i)
        group->records[i].running.store(0, std::memory_order_relaxed);
}

// The waiter of MTGroupBegin is joined by the controller's next group operation.
void ReapWaiter(MTGroup *group)
{
    if (group->waiterStarted) {
        pthread_join(group->waiter, nullptr);
        group->waiterStarted = false;
    }
}

// The waiter thread of MTGroupBegin: ends the run once every worker has ended.
void *WaiterEntry(void *arg)
{
    auto *group = static_cast<MTGroup *>(arg);
    JoinWorkers(group);
    sem_post(&group->completionGate);
    ClearRunning(group);
    RaiseCompletionSignal(group);
    return nullptr;
}

// The system refused worker `started`: stop the ones already running and end the run.
void AbandonStart(MTGroup *group, int started)
{
    AskWorkersToStop(group, started);
    for (int i = 0; i < started; ++i)
        pthread_join(group->handles[i], nullptr);
    group->workersReaped = true;
    ClearRunning(group);
}

// Starts every worker; false when the group has no workers, is running, or a thread could not
// be started.
bool StartWorkers(MTGroup *group)
{
    const int count = group->threadCount.load(std::memory_order_relaxed);
    if (count <= 0 || IsRunning(group))
        return false;
    ReapWaiter(group);
    DropCompletionSignal(group);
    group->liveWorkers.store(count, std::memory_order_relaxed);
    group->workersReaped = false;
    group->flags.store(kRunning, std::memory_order_release);
    for (int i = 0; i < count; ++i) {
        MTThread *thread = &group->records[i];
        thread->running.store(1, std::memory_order_relaxed);
        thread->killHolds = 0;  // a bracket left open by the last run ended with its thread
        if (g_startThread(&group->handles[i], WorkerEntry, thread) != 0) {
            AbandonStart(group, i);
            return false;
        }
    }
    return true;
}

// Puts every semaphore back to its starting state and forgets the run, after a kill.
void ResetAfterKill(MTGroup *group)
{
    DestroySignals(group);
    InitSignals(group);
    group->flags.store(0, std::memory_order_release);
    group->signalled.store(0, std::memory_order_release);
    const int count = group->threadCount.load(std::memory_order_relaxed);
    for (int i = 0; i < count; ++i)
        group->records[i].running.store(0, std::memory_order_relaxed);
}

// The header reads the running flag in place (MTThreadTestAbort).
static_assert(offsetof(MTThread, running) == 0 && sizeof(std::atomic<int>) == sizeof(int) &&
              std::atomic<int>::is_always_lock_free);

void InitRecords(MTGroup *group, int maxThreads)
{
    for (int i = 0; i < maxThreads; ++i) {
        MTThread *thread = new (&group->records[i]) MTThread{};
        thread->lockOwner = group;
        thread->group = group;
        thread->index = i;
        thread->threadCount = &group->threadCount;
    }
}

}  // namespace

int StartSystemThread(pthread_t *thread, void *(*entry)(void *), void *argument)
{
    return pthread_create(thread, nullptr, entry, argument);
}

void SetThreadStarterForTest(ThreadStarter starter)
{
    g_startThread = starter ? starter : StartSystemThread;
}

}  // namespace vx::mt

using namespace vx::mt;

extern "C" {

VX_API MTGroupID MTGroupCreate(int maxThreads)
{
    if (maxThreads < 1)
        return nullptr;
    const size_t slots = static_cast<size_t>(maxThreads);
    CKPT_BEGIN_OR_RETURN(nullptr);
    void *memory = StdAlloc(sizeof(MTGroup));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(memory), sizeof(MTGroup));
    void *records = StdAlloc(slots * sizeof(MTThread));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(records), slots * sizeof(MTThread));
    void *handles = StdAlloc(slots * sizeof(pthread_t));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(handles), slots * sizeof(pthread_t));
    // Nothing below can fail.
    auto *group = new (memory) MTGroup{};
    group->maxThreads = maxThreads;
    group->records = static_cast<MTThread *>(records);
    group->handles = static_cast<pthread_t *>(handles);
    InitRecords(group, maxThreads);
    InitSignals(group);
    pthread_mutex_init(&group->reapLock, nullptr);
    CkptEnd();
    return group;
}

VX_API int MTGroupDestroy(MTGroupID group)
{
    if (!group)
        return 0;
    MTGroupAbort(group);
    ReapWaiter(group);
    const size_t slots = static_cast<size_t>(group->maxThreads);
    const int count = group->threadCount.load(std::memory_order_relaxed);
    for (int i = 0; i < count; ++i)
        FreeArgumentCopy(&group->records[i]);
    DestroySignals(group);
    pthread_mutex_destroy(&group->reapLock);
    FreeHeap(group->handles, slots * sizeof(pthread_t));
    FreeHeap(group->records, slots * sizeof(MTThread));
    FreeHeap(group, sizeof(MTGroup));
    return 0;
}

VX_API MTThreadID MTGroupAddThread(MTGroupID group, MTThreadFunc *function, void *argument, int argSize)
{
    if (!group || !function || (argSize > 0 && !argument) || IsRunning(group))
        return nullptr;
    const int index = group->threadCount.load(std::memory_order_relaxed);
    if (index >= group->maxThreads)
        return nullptr;
    void *stored = argument;
    if (argSize > 0) {
        stored = StdAlloc(static_cast<size_t>(argSize));  // raises to an open block
        if (!stored)
            return nullptr;
        std::memcpy(stored, argument, static_cast<size_t>(argSize));
    }
    MTThread *thread = &group->records[index];
    thread->function = function;
    thread->argument = stored;
    thread->argSize = argSize > 0 ? argSize : 0;
    thread->argCapacity = thread->argSize;
    group->threadCount.store(index + 1, std::memory_order_release);
    return thread;
}

VX_API int MTGroupModifyArg(MTGroupID group, int index, void *argument, int argSize)
{
    if (!group || index < 0 || index >= group->threadCount.load(std::memory_order_relaxed) ||
        IsRunning(group))
        return 0;
    MTThread *thread = &group->records[index];
    if (argSize < 1) {
        FreeArgumentCopy(thread);
        thread->argument = argument;
        return 1;
    }
    if (!argument)
        return 0;
    const size_t size = static_cast<size_t>(argSize);
    if (argSize > thread->argSize) {
        void *copy = StdAlloc(size);  // raises to an open block
        if (!copy)
            return 0;
        // Copy before freeing: the new argument may lie inside the old copy.
        std::memcpy(copy, argument, size);
        FreeArgumentCopy(thread);
        thread->argument = copy;
        thread->argCapacity = argSize;
    } else {
        std::memmove(thread->argument, argument, size);
    }
    thread->argSize = argSize;
    return 1;
}

VX_API int MTGroupRun(MTGroupID group)
{
    if (!group || !StartWorkers(group))
        return 0;
    // Only the controller could kill this run, and it is here: join the threads directly.
    const int count = group->threadCount.load(std::memory_order_relaxed);
    for (int i = 0; i < count; ++i)
        pthread_join(group->handles[i], nullptr);
    group->workersReaped = true;
    ClearRunning(group);
    return 1;
}

VX_API int MTGroupBegin(MTGroupID group)
{
    if (!group || !StartWorkers(group))
        return 0;
    SemWait(&group->completionGate);
    if (g_startThread(&group->waiter, WaiterEntry, group) != 0) {
        // Nobody would end the run: stop the workers and end it here.
        sem_post(&group->completionGate);
        AskWorkersToStop(group, group->threadCount.load(std::memory_order_relaxed));
        JoinWorkers(group);
        ClearRunning(group);
        return 0;
    }
    group->waiterStarted = true;
    return 1;
}

VX_API void MTGroupAbort(MTGroupID group)
{
    if (!group || !IsRunning(group))
        return;
    AskWorkersToStop(group, group->threadCount.load(std::memory_order_relaxed));
    WaitUntilDone(group);
    ReapWaiter(group);
}

VX_API void MTGroupKill(MTGroupID group)
{
    if (!group || !IsRunning(group))
        return;
    pthread_mutex_lock(&group->reapLock);
    if (!group->workersReaped) {
        const int count = group->threadCount.load(std::memory_order_relaxed);
        for (int i = 0; i < count; ++i)
            if (group->records[i].function)
                pthread_cancel(group->handles[i]);
        for (int i = 0; i < count; ++i)
            pthread_join(group->handles[i], nullptr);
        group->workersReaped = true;
    }
    pthread_mutex_unlock(&group->reapLock);
    // Killed workers never counted themselves out: release the waiter, let it finish the
    // run, then reset what it touched.
    group->liveWorkers.store(0, std::memory_order_release);
    group->liveWorkers.notify_all();
    WaitUntilDone(group);
    ReapWaiter(group);
    ResetAfterKill(group);
}

VX_API int MTGroupWaitCompletion(MTGroupID group)
{
    if (!group)
        return 0;
    SemWait(&group->completionGate);
    sem_post(&group->completionGate);
    WaitUntilDone(group);
    ReapWaiter(group);
    return group->flags.load(std::memory_order_acquire) & ~kRunning;
}

VX_API int MTGroupGetReturn(MTGroupID group, int index)
{
    if (!group || index < 0 || index >= group->threadCount.load(std::memory_order_relaxed))
        return 0;
    return group->records[index].exitValue.load(std::memory_order_relaxed);
}

VX_API int MTGroupTestDone(MTGroupID group) { return !group || !IsRunning(group); }

VX_API int MTGroupTestAborted(MTGroupID group)
{
    return group && (group->flags.load(std::memory_order_acquire) & kAborted) != 0;
}

VX_API MTThreadID MTGroupGetThreadID(MTGroupID group, int index)
{
    if (!group || index < 0 || index >= group->threadCount.load(std::memory_order_relaxed))
        return nullptr;
    return &group->records[index];
}

VX_API int MTGroupGetThreadCount(MTGroupID group)
{
    return group ? group->threadCount.load(std::memory_order_relaxed) : 0;
}

}  // extern "C"
