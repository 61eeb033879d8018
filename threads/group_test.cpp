#include <vxtools3/ckpt.h>
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>
#include <vxtools3/threads.h>

#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"
#include "threads/group_internal.h"
#include "threads/thread_test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using vxtest::AwaitFlag;
using vxtest::GroupHolder;
using vxtest::Watchdog;

// ---- Workers -------------------------------------------------------------------------------

// Checks its own record from the inside and returns a value derived from its argument.
struct Probe {
    int base;
    MTGroupID expectedGroup;
    std::atomic<int> *mismatches;
};

int ProbeWorker(MTThreadID self)
{
    auto *probe = static_cast<Probe *>(MTThreadGetArg(self));
    if (MTThreadGetGroupID(self) != probe->expectedGroup ||
        MTGroupGetThreadID(probe->expectedGroup, MTThreadGetIndex(self)) != self ||
        MTThreadGetThreadCount(self) != MTGroupGetThreadCount(probe->expectedGroup) ||
        !MTThreadTestRunning(self) || MTThreadTestAbort(self) || !(MTThreadTestRunning)(self) ||
        (MTThreadTestAbort)(self))
        probe->mismatches->fetch_add(1);
    return probe->base + MTThreadGetIndex(self);
}

// Waits until `*gate` opens or an abort is requested; returns 1 for the gate, 2 for an abort.
int GatedWorker(MTThreadID self)
{
    auto *gate = static_cast<std::atomic<int> *>(MTThreadGetArg(self));
    while (!gate->load(std::memory_order_acquire)) {
        if (MTThreadTestAbort(self))
            return 2;
        std::this_thread::yield();
    }
    return 1;
}

std::atomic<int> g_spinnersStarted;

// Never polls and never returns: only a kill stops it. The loop body makes no calls and no
// memory accesses, so it can be cut off anywhere.
int SpinForever(MTThreadID)
{
    g_spinnersStarted.fetch_add(1);
    for (;;)
        __asm__ __volatile__("" ::: "memory");
}

// Holds the group lock and user mutex 3, then spins.
int SpinHoldingLocks(MTThreadID self)
{
    MTThreadLockCS(self);
    MTUtilLockMutex(MTThreadGetGroupID(self), 3);
    return SpinForever(self);
}

// Blocks on user mutex 3, which a spinning sibling holds.
int BlockOnMutex(MTThreadID self)
{
    g_spinnersStarted.fetch_add(1);
    MTUtilLockMutex(MTThreadGetGroupID(self), 3);
    MTUtilUnlockMutex(MTThreadGetGroupID(self), 3);
    return 0;
}

// Takes both locks that a kill reset and returns its index + 100.
int UseLocks(MTThreadID self)
{
    MTThreadLockCS(self);
    MTUtilLockMutex(MTThreadGetGroupID(self), 3);
    MTUtilUnlockMutex(MTThreadGetGroupID(self), 3);
    MTThreadUnlockCS(self);
    return MTThreadGetIndex(self) + 100;
}

int ReturnIndex(MTThreadID self) { return MTThreadGetIndex(self); }

// ---- Records and limits --------------------------------------------------------------------

TEST(ThreadGroup, CreationRefusesNoSlotsAndAddingStopsAtTheMaximum)
{
    EXPECT_EQ(MTGroupCreate(0), nullptr);
    EXPECT_EQ(MTGroupCreate(-3), nullptr);

    GroupHolder holder(2);
    MTGroupID group = holder.group;
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(MTGroupGetThreadCount(group), 0);
    EXPECT_EQ(MTGroupAddThread(group, nullptr, nullptr, 0), nullptr) << "no function";
    int value = 5;
    EXPECT_EQ(MTGroupAddThread(group, ReturnIndex, nullptr, 4), nullptr) << "copy of nothing";
    MTThreadID first = MTGroupAddThread(group, ReturnIndex, &value, 0);
    MTThreadID second = MTGroupAddThread(group, ReturnIndex, &value, sizeof value);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(MTGroupAddThread(group, ReturnIndex, &value, 0), nullptr) << "third worker of two";
    EXPECT_EQ(MTGroupGetThreadCount(group), 2);

    EXPECT_EQ(MTGroupGetThreadID(group, 0), first);
    EXPECT_EQ(MTGroupGetThreadID(group, 1), second);
    EXPECT_EQ(MTGroupGetThreadID(group, 2), nullptr);
    EXPECT_EQ(MTGroupGetThreadID(group, -1), nullptr);
    EXPECT_EQ(MTGroupGetThreadID(nullptr, 0), nullptr);
    EXPECT_EQ(MTThreadGetIndex(second), 1);
    EXPECT_EQ(MTThreadGetGroupID(first), group);

    // Argument size 0 keeps the caller's pointer; a positive size keeps a private copy.
    EXPECT_EQ(MTThreadGetArg(first), &value);
    ASSERT_NE(MTThreadGetArg(second), &value);
    value = 6;
    EXPECT_EQ(*static_cast<int *>(MTThreadGetArg(second)), 5);

    EXPECT_EQ(MTGroupTestDone(nullptr), 1);
    EXPECT_EQ(MTGroupGetReturn(group, 7), 0) << "out of range";
}

TEST(ThreadGroup, WorkersSeeTheirOwnRecordsAndRunReturnsTheirValues)
{
    Watchdog watchdog(60s);
    constexpr int kWorkers = 6;
    GroupHolder holder(kWorkers);
    std::atomic<int> mismatches{0};
    EXPECT_EQ(MTGroupRun(holder.group), 0) << "no workers yet";
    for (int i = 0; i < kWorkers; ++i) {
        Probe probe{1000, holder.group, &mismatches};
        ASSERT_NE(MTGroupAddThread(holder.group, ProbeWorker, &probe, sizeof probe), nullptr);
    }
    // New bases before the run: each worker must see its own fresh argument.
    for (int i = 0; i < kWorkers; ++i) {
        Probe probe{100 + i * 10, holder.group, &mismatches};
        ASSERT_EQ(MTGroupModifyArg(holder.group, i, &probe, sizeof probe), 1);
    }
    ASSERT_EQ(MTGroupRun(holder.group), 1);
    EXPECT_EQ(MTGroupTestDone(holder.group), 1);
    for (int i = 0; i < kWorkers; ++i)
        EXPECT_EQ(MTGroupGetReturn(holder.group, i), 100 + i * 11) << "worker " << i;
    EXPECT_EQ(mismatches.load(), 0);
}

// ---- Argument copies, against a model of what the group owns --------------------------------

struct ArgModel {
    std::vector<unsigned char> bytes;  // what the worker must see (copy) ...
    const void *callerPointer = nullptr;  // ... or the caller's pointer when size is 0
    int recordedSize = 0;
    int capacity = 0;  // bytes the group owns for this worker
};

TEST(ThreadGroup, ModifyArgFollowsTheCopyAndReuseRulesWithExactFrees)
{
    vxtest::FaultAllocator heap;
    constexpr int kWorkers = 3;
    MTGroupID group = MTGroupCreate(kWorkers);
    ASSERT_NE(group, nullptr);
    std::vector<ArgModel> model(kWorkers);
    unsigned char callerArea[64];
    for (int i = 0; i < kWorkers; ++i) {
        ASSERT_NE(MTGroupAddThread(group, ReturnIndex, callerArea, 0), nullptr);
        model[i].callerPointer = callerArea;
    }
    const size_t groupBytes = heap.LiveBytes();

    std::mt19937 rng(7);
    for (int step = 0; step < 400; ++step) {
        const int index = static_cast<int>(rng() % kWorkers);
        ArgModel &m = model[index];
        MTThreadID record = MTGroupGetThreadID(group, index);
        const int kind = static_cast<int>(rng() % 4);
        if (kind == 0) {  // the caller's own pointer
            ASSERT_EQ(MTGroupModifyArg(group, index, callerArea + step % 8, 0), 1);
            m = ArgModel{{}, callerArea + step % 8, 0, 0};
        } else {
            int size = 1 + static_cast<int>(rng() % 40);
            std::vector<unsigned char> source(static_cast<size_t>(size));
            for (auto &b : source)
                b = static_cast<unsigned char>(rng());
            const void *from = source.data();
            if (kind == 3 && m.recordedSize > 1) {  // a part of the current copy
                size = 1 + static_cast<int>(rng() % static_cast<unsigned>(m.recordedSize - 1));
                const int offset = m.recordedSize - size;
                from = static_cast<unsigned char *>(MTThreadGetArg(record)) + offset;
                source.assign(m.bytes.begin() + offset, m.bytes.begin() + offset + size);
            }
            ASSERT_EQ(MTGroupModifyArg(group, index, const_cast<void *>(from), size), 1);
            if (size > m.recordedSize)
                m.capacity = size;  // a fresh buffer; an owned old one is freed
            m.recordedSize = size;
            m.bytes.assign(source.begin(), source.begin() + size);
            m.callerPointer = nullptr;
        }
        size_t owned = 0;
        for (int i = 0; i < kWorkers; ++i) {
            const void *arg = MTThreadGetArg(MTGroupGetThreadID(group, i));
            if (model[i].callerPointer)
                ASSERT_EQ(arg, model[i].callerPointer) << "step " << step;
            else
                ASSERT_EQ(std::memcmp(arg, model[i].bytes.data(), model[i].bytes.size()), 0) << "step " << step;
            owned += static_cast<size_t>(model[i].capacity);
        }
        ASSERT_EQ(heap.LiveBytes(), groupBytes + owned) << "step " << step;
    }
    EXPECT_EQ(MTGroupModifyArg(group, kWorkers, callerArea, 4), 0) << "index out of range";
    EXPECT_EQ(MTGroupModifyArg(group, -1, callerArea, 4), 0);
    EXPECT_EQ(MTGroupModifyArg(nullptr, 0, callerArea, 4), 0);
    EXPECT_EQ(MTGroupModifyArg(group, 0, nullptr, 4), 0) << "copy of nothing";
    MTGroupDestroy(group);
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
}

// ---- Begin, completion and refusals while running --------------------------------------------

TEST(ThreadGroup, BeginRunsInTheBackgroundAndRefusesChangesUntilDone)
{
    Watchdog watchdog(60s);
    GroupHolder holder(3);
    std::atomic<int> gate{0};
    EXPECT_EQ(MTGroupBegin(holder.group), 0) << "no workers";
    EXPECT_EQ(MTGroupTestDone(holder.group), 1);
    EXPECT_EQ(MTGroupWaitCompletion(holder.group), 0) << "nothing ran";
    ASSERT_NE(MTGroupAddThread(holder.group, GatedWorker, &gate, 0), nullptr);
    ASSERT_NE(MTGroupAddThread(holder.group, GatedWorker, &gate, 0), nullptr);

    for (int round = 0; round < 3; ++round) {
        gate = 0;
        ASSERT_EQ(MTGroupBegin(holder.group), 1);
        EXPECT_EQ(MTGroupTestDone(holder.group), 0);
        EXPECT_EQ(MTGroupRun(holder.group), 0) << "run while a begun run is in progress";
        EXPECT_EQ(MTGroupBegin(holder.group), 0);
        EXPECT_EQ(MTGroupAddThread(holder.group, GatedWorker, &gate, 0), nullptr);
        EXPECT_EQ(MTGroupModifyArg(holder.group, 0, &gate, 0), 0);
        EXPECT_EQ(MTGroupGetThreadCount(holder.group), 2);
        gate.store(1, std::memory_order_release);
        EXPECT_EQ(MTGroupWaitCompletion(holder.group), 0) << "flags: neither running nor aborted";
        EXPECT_EQ(MTGroupTestDone(holder.group), 1);
        EXPECT_EQ(MTGroupGetReturn(holder.group, 0), 1);
        EXPECT_EQ(MTGroupGetReturn(holder.group, 1), 1);
    }
    // Polling for the end instead of waiting; the next begin reaps the waiter.
    gate = 1;
    ASSERT_EQ(MTGroupBegin(holder.group), 1);
    while (!MTGroupTestDone(holder.group))
        std::this_thread::yield();
    ASSERT_EQ(MTGroupBegin(holder.group), 1);
    MTGroupWaitCompletion(holder.group);
}

TEST(ThreadGroup, AbortStopsPollingWorkersAndFlagsTheRun)
{
    Watchdog watchdog(60s);
    constexpr int kWorkers = 4;
    GroupHolder holder(kWorkers);
    std::atomic<int> gate{0};
    for (int i = 0; i < kWorkers; ++i)
        ASSERT_NE(MTGroupAddThread(holder.group, GatedWorker, &gate, 0), nullptr);
    MTGroupAbort(holder.group);  // not running: ignored
    EXPECT_EQ(MTGroupTestAborted(holder.group), 0);

    ASSERT_EQ(MTGroupBegin(holder.group), 1);
    MTGroupAbort(holder.group);
    EXPECT_EQ(MTGroupTestDone(holder.group), 1);
    EXPECT_EQ(MTGroupTestAborted(holder.group), 1);
    for (int i = 0; i < kWorkers; ++i) {
        // The header's in-place reads and the library's functions agree.
        EXPECT_EQ(MTThreadTestAbort(MTGroupGetThreadID(holder.group, i)), 1);
        EXPECT_EQ((MTThreadTestAbort)(MTGroupGetThreadID(holder.group, i)), 1);
        EXPECT_EQ(MTThreadTestRunning(MTGroupGetThreadID(holder.group, i)), 0);
        EXPECT_EQ((MTThreadTestRunning)(MTGroupGetThreadID(holder.group, i)), 0);
        EXPECT_EQ(MTGroupGetReturn(holder.group, i), 2) << "worker " << i << " saw the abort";
    }
    EXPECT_EQ(MTGroupWaitCompletion(holder.group), MT_GROUP_ABORTED);

    // The aborted flag lasts until the next start.
    gate = 1;
    ASSERT_EQ(MTGroupRun(holder.group), 1);
    EXPECT_EQ(MTGroupTestAborted(holder.group), 0);
    EXPECT_EQ(MTGroupGetReturn(holder.group, 3), 1);
}

// ---- Kill ------------------------------------------------------------------------------------

// Kills a begun run whose workers are stuck; returns how long the kill took.
std::chrono::milliseconds KillStuckRun(MTGroupID group, int stuckWorkers)
{
    g_spinnersStarted = 0;
    EXPECT_EQ(MTGroupBegin(group), 1);
    AwaitFlag(g_spinnersStarted, stuckWorkers);
    std::this_thread::sleep_for(5ms);  // let the blocked ones reach their wait
    EXPECT_EQ(MTGroupTestDone(group), 0);
    const auto start = std::chrono::steady_clock::now();
    MTGroupKill(group);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

TEST(ThreadGroup, KillStopsSpinningWorkersPromptlyAndTheGroupRunsAgain)
{
    Watchdog watchdog(60s);
    constexpr int kWorkers = 3;
    GroupHolder holder(kWorkers);
    int payload[4] = {1, 2, 3, 4};
    for (int i = 0; i < kWorkers; ++i)
        ASSERT_NE(MTGroupAddThread(holder.group, SpinForever, payload, sizeof payload), nullptr);
    MTGroupKill(holder.group);  // not running: ignored
    EXPECT_EQ(MTGroupTestDone(holder.group), 1);

    for (int round = 0; round < 3; ++round) {
        const auto took = KillStuckRun(holder.group, kWorkers);
        EXPECT_LT(took.count(), 2000) << "round " << round;
        EXPECT_EQ(MTGroupTestDone(holder.group), 1);
        EXPECT_EQ(MTGroupTestAborted(holder.group), 0) << "a kill clears the flags";
        EXPECT_EQ(MTGroupWaitCompletion(holder.group), 0) << "the gate is free again";
        EXPECT_EQ(MTUtilWait(holder.group), 0) << "no completion signal is left pending";
        for (int i = 0; i < kWorkers; ++i)
            EXPECT_EQ(MTThreadTestAbort(MTGroupGetThreadID(holder.group, i)), 1);
    }
    // The same workers, pointed at a function that ends: the group runs normally again, and
    // the argument copies survived the kills.
    for (int i = 0; i < kWorkers; ++i)
        MTGroupGetThreadID(holder.group, i)->function = ReturnIndex;
    ASSERT_EQ(MTGroupRun(holder.group), 1);
    for (int i = 0; i < kWorkers; ++i) {
        EXPECT_EQ(MTGroupGetReturn(holder.group, i), i);
        EXPECT_EQ(std::memcmp(MTThreadGetArg(MTGroupGetThreadID(holder.group, i)), payload, sizeof payload), 0);
    }
    ASSERT_EQ(MTGroupBegin(holder.group), 1);
    EXPECT_EQ(MTUtilWait(holder.group), 0);
    EXPECT_EQ(MTGroupWaitCompletion(holder.group), 0);
}

TEST(ThreadGroup, KillReleasesLocksHeldOrAwaitedByKilledWorkers)
{
    Watchdog watchdog(60s);
    GroupHolder holder(3);
    ASSERT_NE(MTGroupAddThread(holder.group, SpinHoldingLocks, nullptr, 0), nullptr);
    ASSERT_NE(MTGroupAddThread(holder.group, BlockOnMutex, nullptr, 0), nullptr);
    ASSERT_NE(MTGroupAddThread(holder.group, ReturnIndex, nullptr, 0), nullptr);  // ends at once
    const auto took = KillStuckRun(holder.group, 2);
    EXPECT_LT(took.count(), 2000);

    for (int i = 0; i < 3; ++i)
        MTGroupGetThreadID(holder.group, i)->function = UseLocks;
    ASSERT_EQ(MTGroupRun(holder.group), 1) << "would hang if a lock stayed taken";
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(MTGroupGetReturn(holder.group, i), 100 + i);
    MTGroupLockCS(holder.group);
    MTGroupUnlockCS(holder.group);
}

// Holds kills off in two nested brackets.
struct Bracket {
    std::atomic<int> inside{0};
    std::atomic<int> leave{0};
    std::atomic<int> afterInner{0};
    std::atomic<int> afterBracket{0};
};

int SpinInsideBracket(MTThreadID self)
{
    auto *bracket = static_cast<Bracket *>(MTThreadGetArg(self));
    MTThreadHoldKill(self);
    MTThreadHoldKill(self);
    bracket->inside.store(1, std::memory_order_release);
    while (!bracket->leave.load(std::memory_order_acquire)) {
    }
    MTThreadAllowKill(self);  // still held by the outer bracket
    bracket->afterInner.store(1, std::memory_order_release);
    MTThreadAllowKill(self);  // a pending kill takes effect here
    bracket->afterBracket.store(1, std::memory_order_release);
    return 0;
}

TEST(ThreadGroup, KillWaitsForTheOutermostHoldKillBracketToEnd)
{
    Watchdog watchdog(60s);
    GroupHolder holder(1);
    Bracket bracket;
    ASSERT_NE(MTGroupAddThread(holder.group, SpinInsideBracket, &bracket, 0), nullptr);
    ASSERT_EQ(MTGroupBegin(holder.group), 1);
    AwaitFlag(bracket.inside);
    std::thread leaver([&] {
        std::this_thread::sleep_for(30ms);
        bracket.leave.store(1, std::memory_order_release);
    });
    MTGroupKill(holder.group);
    EXPECT_EQ(bracket.leave.load(), 1) << "the kill cut into the bracket";
    EXPECT_EQ(bracket.afterInner.load(), 1) << "the inner bracket's end let the kill in";
    EXPECT_EQ(bracket.afterBracket.load(), 0) << "the worker outlived the kill";
    EXPECT_EQ(MTGroupTestDone(holder.group), 1);
    leaver.join();
}

// ---- Signals ---------------------------------------------------------------------------------

struct SignalScript {
    std::atomic<int> signalsSent{0};
    std::atomic<int> release{0};
};

int SignalTwiceThenWait(MTThreadID self)
{
    auto *script = static_cast<SignalScript *>(MTThreadGetArg(self));
    MTUtilSignal(MTThreadGetGroupID(self));
    MTUtilSignal(MTThreadGetGroupID(self));
    script->signalsSent.store(2, std::memory_order_release);
    AwaitFlag(script->release);
    return 0;
}

TEST(ThreadGroup, TwoSignalsBeforeOneWaitWakeTheControllerOnce)
{
    Watchdog watchdog(60s);
    GroupHolder holder(1);
    EXPECT_EQ(MTUtilWait(holder.group), 0) << "never run: done";
    EXPECT_EQ(MTUtilWait(nullptr), 0);
    MTUtilSignal(nullptr);
    SignalScript script;
    ASSERT_NE(MTGroupAddThread(holder.group, SignalTwiceThenWait, &script, 0), nullptr);
    for (int round = 0; round < 3; ++round) {
        script.signalsSent = 0;
        script.release = 0;
        ASSERT_EQ(MTGroupBegin(holder.group), 1);
        AwaitFlag(script.signalsSent, 2);
        EXPECT_EQ(MTUtilWait(holder.group), 1) << "woken while still running";
        // A second post would wake this wait at once, with the worker still held.
        std::thread releaser([&] {
            std::this_thread::sleep_for(20ms);
            script.release.store(1, std::memory_order_release);
        });
        EXPECT_EQ(MTUtilWait(holder.group), 0) << "the next wake is the end of the run";
        EXPECT_EQ(script.release.load(), 1);
        releaser.join();
        EXPECT_EQ(MTUtilWait(holder.group), 0);
    }
}

TEST(ThreadGroup, SignalLeftFromASynchronousRunDoesNotWakeTheNextBegin)
{
    Watchdog watchdog(60s);
    GroupHolder holder(1);
    SignalScript script;
    script.release = 1;
    ASSERT_NE(MTGroupAddThread(holder.group, SignalTwiceThenWait, &script, 0), nullptr);
    ASSERT_EQ(MTGroupRun(holder.group), 1);  // its signal is never consumed

    std::atomic<int> gate{0};
    ASSERT_EQ(MTGroupModifyArg(holder.group, 0, &gate, 0), 1);
    MTGroupGetThreadID(holder.group, 0)->function = GatedWorker;
    ASSERT_EQ(MTGroupBegin(holder.group), 1);
    std::thread opener([&] {
        std::this_thread::sleep_for(20ms);
        gate.store(1, std::memory_order_release);
    });
    EXPECT_EQ(MTUtilWait(holder.group), 0) << "woken by the stale signal";
    EXPECT_EQ(gate.load(), 1);
    opener.join();
}

// ---- Locks -----------------------------------------------------------------------------------

TEST(ThreadGroup, UserMutexNumbersOutsideZeroToNineAreRefused)
{
    GroupHolder holder(1);
    for (int n : {-1, 10, 11, 1000}) {
        EXPECT_EQ(MTUtilLockMutex(holder.group, n), 0) << n;
        EXPECT_EQ(MTUtilUnlockMutex(holder.group, n), 0) << n;
    }
    EXPECT_EQ(MTUtilLockMutex(nullptr, 0), 0);
    for (int n = 0; n < MT_USER_MUTEXES; ++n) {
        EXPECT_EQ(MTUtilLockMutex(holder.group, n), 1);
        EXPECT_EQ(MTUtilUnlockMutex(holder.group, n), 1);
    }
    EXPECT_EQ(static_cast<unsigned>(MTSystemCountProcs()), std::thread::hardware_concurrency());
}

// ---- Threads the system refuses ----------------------------------------------------------------

std::atomic<int> g_startCalls;
int g_failStartAt;

int StarterFailingOnce(pthread_t *thread, void *(*entry)(void *), void *argument)
{
    if (g_startCalls.fetch_add(1) + 1 == g_failStartAt)
        return EAGAIN;
    return vx::mt::StartSystemThread(thread, entry, argument);
}

struct StarterGuard {
    explicit StarterGuard(int failAt)
    {
        g_startCalls = 0;
        g_failStartAt = failAt;
        vx::mt::SetThreadStarterForTest(StarterFailingOnce);
    }
    ~StarterGuard() { vx::mt::SetThreadStarterForTest(nullptr); }
};

TEST(ThreadGroup, RefusedThreadAbortsTheStartedWorkersAndLeavesTheGroupUsable)
{
    Watchdog watchdog(60s);
    constexpr int kWorkers = 3;
    GroupHolder holder(kWorkers);
    std::atomic<int> gate{0};
    for (int i = 0; i < kWorkers; ++i)
        ASSERT_NE(MTGroupAddThread(holder.group, GatedWorker, &gate, 0), nullptr);
    {
        StarterGuard refuseThird(3);
        EXPECT_EQ(MTGroupRun(holder.group), 0);
    }
    EXPECT_EQ(MTGroupTestDone(holder.group), 1);
    EXPECT_EQ(MTGroupTestAborted(holder.group), 1);
    EXPECT_EQ(MTGroupGetReturn(holder.group, 0), 2);
    EXPECT_EQ(MTGroupGetReturn(holder.group, 1), 2);
    EXPECT_EQ(MTGroupGetReturn(holder.group, 2), 0) << "never started";
    {
        StarterGuard refuseWaiter(kWorkers + 1);
        EXPECT_EQ(MTGroupBegin(holder.group), 0);
        EXPECT_EQ(g_startCalls.load(), kWorkers + 1);
    }
    EXPECT_EQ(MTGroupTestDone(holder.group), 1);
    EXPECT_EQ(MTGroupTestAborted(holder.group), 1);
    EXPECT_EQ(MTGroupWaitCompletion(holder.group), MT_GROUP_ABORTED) << "the gate was given back";

    gate = 1;
    ASSERT_EQ(MTGroupBegin(holder.group), 1);
    EXPECT_EQ(MTGroupWaitCompletion(holder.group), 0);
    for (int i = 0; i < kWorkers; ++i)
        EXPECT_EQ(MTGroupGetReturn(holder.group, i), 1);
}

// ---- The global function table ------------------------------------------------------------------

TEST(ThreadGroup, GlobalTableServesGroupsOfOneWorkerAndTheirMutexes)
{
    ASSERT_EQ(MTUtilInitGlobal(), 1);
    EXPECT_EQ(MTUtilInitGlobal(), 1) << "already registered";
    auto *table = static_cast<const MTUtilFuncs *>(GlobalListLookup("MultiThreading Utilities"));
    ASSERT_NE(table, nullptr);
    MTGroupID group = table->create();
    ASSERT_NE(group, nullptr);
    EXPECT_NE(MTGroupAddThread(group, ReturnIndex, nullptr, 0), nullptr);
    EXPECT_EQ(MTGroupAddThread(group, ReturnIndex, nullptr, 0), nullptr) << "one worker at most";
    EXPECT_EQ(table->lockMutex(group, 9), 1);
    EXPECT_EQ(table->unlockMutex(group, 9), 1);
    EXPECT_EQ(table->lockMutex(group, 10), 0);
    EXPECT_EQ(MTGroupRun(group), 1);
    table->destroy(group);
    table->destroy(nullptr);
    GlobalListCleanup();

    int other = 0;
    ASSERT_EQ(GlobalListDefine("MultiThreading Utilities", &other), 1);
    EXPECT_EQ(MTUtilInitGlobal(), 0) << "the name holds something else";
    GlobalListCleanup();
}

// ---- Out of memory ------------------------------------------------------------------------------

TEST(ThreadGroupOom, CreateReleasesPartialAllocations)
{
    MTGroupID made = nullptr;
    vxtest::OomSweepAll({
        [&] { made = nullptr; },
        [&] {
            made = MTGroupCreate(5);
            return made != nullptr;
        },
        [&] { EXPECT_EQ(made, nullptr); },
        [&] { MTGroupDestroy(made); },
    });
}

TEST(ThreadGroupOom, AddThreadAndModifyArgKeepTheGroupAsItWas)
{
    MTGroupID group = nullptr;
    char original[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    char larger[64] = "a larger argument that needs a fresh copy";
    const auto setup = [&] {
        group = MTGroupCreate(3);
        ASSERT_NE(MTGroupAddThread(group, ReturnIndex, original, sizeof original), nullptr);
    };
    const auto unchanged = [&] {
        EXPECT_EQ(MTGroupGetThreadCount(group), 1);
        EXPECT_EQ(MTGroupGetThreadID(group, 1), nullptr);
        EXPECT_EQ(std::memcmp(MTThreadGetArg(MTGroupGetThreadID(group, 0)), original, sizeof original), 0);
    };
    const auto teardown = [&] { MTGroupDestroy(group); };
    {
        SCOPED_TRACE("MTGroupAddThread");
        vxtest::OomSweepAll({setup,
                             [&] { return MTGroupAddThread(group, ReturnIndex, larger, sizeof larger) != nullptr; },
                             unchanged, teardown});
    }
    {
        SCOPED_TRACE("MTGroupModifyArg");
        vxtest::OomSweepAll({setup, [&] { return MTGroupModifyArg(group, 0, larger, sizeof larger) == 1; },
                             unchanged, teardown});
    }
}

TEST(ThreadGroupOom, InitGlobalRegistersNothingWhenMemoryRunsOut)
{
    vxtest::OomSweepAll({
        [] {},
        [] { return MTUtilInitGlobal() == 1; },
        [] { EXPECT_EQ(GlobalListLookup(MT_UTIL_GLOBAL_NAME), nullptr); },
        [] { GlobalListCleanup(); },
    });
}

}  // namespace
