// Thread group tests. SumWorker's shared counters are plain integers guarded only by the
// group's locks, so a lock that fails to order the workers shows as a wrong total (and as a
// race under ThreadSanitizer). An alarm ends the binary, naming the test, on a lost wake-up.
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>
#include <vxtools3/threads.h>

#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"
#include "threads/group_internal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

// Kills cut workers off anywhere, also inside the group's locks and signals. ThreadSanitizer
// keeps its own locks inside those calls, which a kill would leave taken, so kills are left
// out of its build.
#if defined(__SANITIZE_THREAD__)
#define VX_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VX_TSAN 1
#endif
#endif
#ifndef VX_TSAN
#define VX_TSAN 0
#endif

namespace {

struct Watchdog {
    Watchdog()
    {
        std::signal(SIGALRM, [](int) {
            static const char message[] = "watchdog: this test did not end in time: ";
            const char *name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
            (void)!write(2, message, sizeof message - 1);
            (void)!write(2, name, std::strlen(name));
            _exit(2);
        });
        alarm(120);
    }
    ~Watchdog() { alarm(0); }
};

void Pause(int microseconds) { std::this_thread::sleep_for(std::chrono::microseconds(microseconds)); }

struct Shared {
    int64_t total = 0, progress = 0;         // guarded by the group lock
    int64_t perMutex[MT_USER_MUTEXES] = {};  // perMutex[n] guarded by user mutex n
};

struct Task {
    Shared *shared;
    int64_t first, count;
    int signalEvery;
};

// Adds first ... first + count - 1 to the shared total under the group lock, counts each item
// under its user mutex, signals the controller now and then, stops on an abort, and returns
// the number of items it did.
int SumWorker(MTThreadID self)
{
    const Task task = *static_cast<const Task *>(MTThreadGetArg(self));
    MTGroupID group = MTThreadGetGroupID(self);
    int done = 0;
    for (; done < task.count && !MTThreadTestAbort(self); ++done) {
        MTThreadLockCS(self);
        task.shared->total += task.first + done;
        ++task.shared->progress;
        MTThreadUnlockCS(self);
        const int n = static_cast<int>((task.first + done) % MT_USER_MUTEXES);
        MTUtilLockMutex(group, n);
        ++task.shared->perMutex[n];
        MTUtilUnlockMutex(group, n);
        if (task.signalEvery && (done + 1) % task.signalEvery == 0)
            MTUtilSignal(group);
    }
    return done;
}

// Gives every worker a fresh task of `items` items; returns the expected total.
int64_t AssignTasks(MTGroupID group, Shared *shared, int cycle, int64_t items, int signalEvery)
{
    int64_t expected = 0;
    for (int i = 0; i < MTGroupGetThreadCount(group); ++i) {
        const Task task{shared, (int64_t{cycle} * 16 + i) * 1000, items, signalEvery};
        EXPECT_EQ(MTGroupModifyArg(group, i, const_cast<Task *>(&task), sizeof task), 1);
        expected += items * task.first + items * (items - 1) / 2;
    }
    return expected;
}

// The group lock's progress count and the user mutexes' counts both equal `items`.
void ExpectCounts(const Shared &shared, int64_t items)
{
    int64_t counted = 0;
    for (int64_t n : shared.perMutex)
        counted += n;
    EXPECT_EQ(shared.progress, items);
    EXPECT_EQ(counted, items);
}

MTGroupID MakeSumGroup(int workers)
{
    MTGroupID group = MTGroupCreate(workers);
    const Task placeholder{};
    for (int i = 0; i < workers; ++i)
        EXPECT_NE(MTGroupAddThread(group, SumWorker, const_cast<Task *>(&placeholder), sizeof placeholder), nullptr);
    return group;
}

// Waits until `*gate` opens or an abort is requested; returns 1 for the gate, 2 for an abort.
int GatedWorker(MTThreadID self)
{
    auto *gate = static_cast<std::atomic<int> *>(MTThreadGetArg(self));
    while (!gate->load())
        if (MTThreadTestAbort(self))
            return 2;
    return 1;
}

int ReturnIndex(MTThreadID self) { return MTThreadGetIndex(self); }

TEST(ThreadGroup, RecordsLimitsMutexNumbersAndTheGlobalTable)
{
    EXPECT_EQ(MTGroupCreate(0), nullptr);
    MTGroupID group = MTGroupCreate(2);
    int value = 5;
    EXPECT_EQ(MTGroupAddThread(group, nullptr, nullptr, 0), nullptr) << "no function";
    EXPECT_EQ(MTGroupAddThread(group, ReturnIndex, nullptr, 4), nullptr) << "copy of nothing";
    MTThreadID first = MTGroupAddThread(group, ReturnIndex, &value, 0);
    MTThreadID second = MTGroupAddThread(group, ReturnIndex, &value, sizeof value);
    EXPECT_EQ(MTGroupAddThread(group, ReturnIndex, &value, 0), nullptr) << "third worker of two";
    EXPECT_EQ(MTGroupGetThreadCount(group), 2);
    EXPECT_EQ(MTGroupGetThreadID(group, 1), second);
    EXPECT_EQ(MTGroupGetThreadID(group, 2), nullptr);
    EXPECT_EQ(MTThreadGetIndex(second), 1);
    EXPECT_EQ(MTThreadGetThreadCount(first), 2);
    EXPECT_EQ(MTThreadGetGroupID(first), group);
    EXPECT_EQ(MTThreadGetArg(first), &value) << "argument size 0 keeps the caller's pointer";
    value = 6;
    EXPECT_EQ(*static_cast<int *>(MTThreadGetArg(second)), 5) << "a positive size keeps a copy";
    EXPECT_EQ(MTGroupTestDone(nullptr), 1);
    for (int n = -1; n <= MT_USER_MUTEXES; ++n)
        EXPECT_EQ(MTUtilLockMutex(group, n) + MTUtilUnlockMutex(group, n), n >= 0 && n < MT_USER_MUTEXES ? 2 : 0) << n;
    EXPECT_EQ(MTUtilLockMutex(nullptr, 0), 0);
    MTGroupDestroy(group);
    EXPECT_EQ(static_cast<unsigned>(MTSystemCountProcs()), std::thread::hardware_concurrency());

    ASSERT_EQ(MTUtilInitGlobal(), 1);
    EXPECT_EQ(MTUtilInitGlobal(), 1) << "already registered";
    auto *table = static_cast<const MTUtilFuncs *>(GlobalListLookup(MT_UTIL_GLOBAL_NAME));
    group = table->create();
    EXPECT_NE(MTGroupAddThread(group, ReturnIndex, nullptr, 0), nullptr);
    EXPECT_EQ(MTGroupAddThread(group, ReturnIndex, nullptr, 0), nullptr) << "one worker at most";
    EXPECT_EQ(table->lockMutex(group, 9) + table->unlockMutex(group, 9), 2);
    EXPECT_EQ(table->lockMutex(group, 10), 0);
    table->destroy(group);
    table->destroy(nullptr);
    GlobalListCleanup();
    ASSERT_EQ(GlobalListDefine(MT_UTIL_GLOBAL_NAME, &value), 1);
    EXPECT_EQ(MTUtilInitGlobal(), 0) << "the name holds something else";
    GlobalListCleanup();
}

// Argument copies against a model of what each worker sees and what the group owns: a larger
// size takes a fresh buffer (the old one freed), a smaller one reuses the buffer (also when
// the new argument is a part of the old copy), size 0 keeps the caller's pointer.
TEST(ThreadGroup, ModifyArgFollowsTheCopyAndReuseRulesWithExactFrees)
{
    vxtest::FaultAllocator heap;
    struct Model {
        std::vector<unsigned char> bytes;
        const void *pointer;
        int size, capacity;
    };
    MTGroupID group = MTGroupCreate(3);
    unsigned char caller[64];
    std::vector<Model> model(3, Model{{}, caller, 0, 0});
    for (int i = 0; i < 3; ++i)
        ASSERT_NE(MTGroupAddThread(group, ReturnIndex, caller, 0), nullptr);
    const size_t groupBytes = heap.LiveBytes();
    std::mt19937 rng(7);
    for (int step = 0; step < 400; ++step) {
        const int index = static_cast<int>(rng() % 3), kind = static_cast<int>(rng() % 4);
        Model &m = model[index];
        std::vector<unsigned char> source(1 + rng() % 40);
        for (auto &b : source)
            b = static_cast<unsigned char>(rng());
        const unsigned char *from = kind == 0 ? caller + step % 8 : source.data();
        if (kind == 3 && m.size > 1) {
            source.assign(m.bytes.end() - 1 - rng() % static_cast<unsigned>(m.size - 1), m.bytes.end());
            from = static_cast<unsigned char *>(MTThreadGetArg(MTGroupGetThreadID(group, index))) + m.size - source.size();
        }
        const int size = kind == 0 ? 0 : static_cast<int>(source.size());
        ASSERT_EQ(MTGroupModifyArg(group, index, const_cast<unsigned char *>(from), size), 1);
        m = kind == 0 ? Model{{}, from, 0, 0} : Model{source, nullptr, size, size > m.size ? size : m.capacity};
        size_t owned = 0;
        for (int i = 0; i < 3; ++i) {
            const void *arg = MTThreadGetArg(MTGroupGetThreadID(group, i));
            ASSERT_TRUE(model[i].pointer ? arg == model[i].pointer
                                         : std::memcmp(arg, model[i].bytes.data(), model[i].bytes.size()) == 0)
                << "step " << step << " worker " << i;
            owned += static_cast<size_t>(model[i].capacity);
        }
        ASSERT_EQ(heap.LiveBytes(), groupBytes + owned) << "step " << step;
    }
    EXPECT_EQ(MTGroupModifyArg(group, 3, caller, 4), 0) << "index out of range";
    EXPECT_EQ(MTGroupModifyArg(group, -1, caller, 4), 0);
    EXPECT_EQ(MTGroupModifyArg(nullptr, 0, caller, 4), 0);
    EXPECT_EQ(MTGroupModifyArg(group, 0, nullptr, 4), 0) << "copy of nothing";
    MTGroupDestroy(group);
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
}

// Runs and begun runs of groups of every size with new arguments each cycle: the controller
// handles the workers' signals while they run (the progress it reads under the group lock
// only grows), the totals show that the locks kept the workers apart.
TEST(ThreadGroup, RunAndBeginCyclesWithSignalsLocksAndNewArguments)
{
    Watchdog watchdog;
    for (int workers : {1, 2, 3, 5, 8, 16}) {
        MTGroupID group = MakeSumGroup(workers);
        EXPECT_EQ(MTGroupWaitCompletion(group), 0) << "nothing ran";
        for (int cycle = 0; cycle < 60; ++cycle) {
            Shared shared;
            const int items = 20 + cycle * 3;
            const int64_t expected = AssignTasks(group, &shared, cycle, items, cycle % 7);
            if (cycle % 2 == 0) {
                ASSERT_EQ(MTGroupRun(group), 1);
            } else {
                ASSERT_EQ(MTGroupBegin(group), 1);
                for (int64_t seen = 0; MTUtilWait(group);) {
                    MTGroupLockCS(group);
                    EXPECT_GE(shared.progress, seen);
                    seen = shared.progress;
                    MTGroupUnlockCS(group);
                }
                EXPECT_EQ(MTGroupWaitCompletion(group), 0) << "flags: neither running nor aborted";
            }
            EXPECT_EQ(MTGroupTestDone(group), 1);
            EXPECT_EQ(shared.total, expected) << workers << " workers, cycle " << cycle;
            ExpectCounts(shared, int64_t{workers} * items);
            for (int i = 0; i < workers; ++i)
                EXPECT_EQ(MTGroupGetReturn(group, i), items);
        }
        MTGroupDestroy(group);
    }
}

TEST(ThreadGroup, RefusedThreadsAbortTheRestAndABegunRunRefusesChangesUntilAborted)
{
    Watchdog watchdog;
    MTGroupID group = MTGroupCreate(3);
    std::atomic<int> gate{0};
    EXPECT_EQ(MTGroupBegin(group) + MTGroupRun(group), 0) << "no workers";
    for (int i = 0; i < 3; ++i)
        ASSERT_NE(MTGroupAddThread(group, GatedWorker, &gate, 0), nullptr);
    MTGroupAbort(group);  // not running: ignored
    EXPECT_EQ(MTGroupTestAborted(group), 0);
    // A thread the system refuses (the third worker's; the waiter of a begun run): the started
    // workers are aborted and the group stays usable.
    static int failAt, calls;
    vx::mt::SetThreadStarterForTest([](pthread_t *thread, void *(*entry)(void *), void *argument) {
        return ++calls == failAt ? EAGAIN : vx::mt::StartSystemThread(thread, entry, argument);
    });
    for (int refused : {3, 4}) {
        calls = 0;
        failAt = refused;
        EXPECT_EQ(refused == 3 ? MTGroupRun(group) : MTGroupBegin(group), 0);
        EXPECT_EQ(MTGroupTestDone(group), 1);
        EXPECT_EQ(MTGroupWaitCompletion(group), MT_GROUP_ABORTED) << "the gate was given back";
        EXPECT_EQ(MTGroupGetReturn(group, 0), 2);
        EXPECT_EQ(MTGroupGetReturn(group, 2), refused == 3 ? 0 : 2) << "never started";
    }
    vx::mt::SetThreadStarterForTest(nullptr);
    ASSERT_EQ(MTGroupBegin(group), 1);
    EXPECT_EQ(MTGroupTestDone(group), 0);
    EXPECT_EQ(MTGroupRun(group) + MTGroupBegin(group) + MTGroupModifyArg(group, 0, &gate, 0), 0) << "while running";
    MTGroupAbort(group);
    EXPECT_EQ(MTGroupTestDone(group), 1);
    EXPECT_EQ(MTGroupTestAborted(group), 1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(MTThreadTestAbort(MTGroupGetThreadID(group, i)), 1);
        EXPECT_EQ((MTThreadTestRunning)(MTGroupGetThreadID(group, i)), 0) << "the function agrees";
    }
    EXPECT_EQ(MTGroupWaitCompletion(group), MT_GROUP_ABORTED);
    gate = 1;
    ASSERT_EQ(MTGroupRun(group), 1);
    EXPECT_EQ(MTGroupTestAborted(group), 0) << "the aborted flag lasts until the next start";
    EXPECT_EQ(MTGroupGetReturn(group, 1), 1);
    MTGroupDestroy(group);
}

// Aborts (and kills, outside ThreadSanitizer) at random moments, before, during or after the
// workers' own end: after an abort what each worker says it did is exactly what the shared
// counts hold, and workers that stopped early saw the abort; after a kill the next run finds
// every lock free and the gate open.
TEST(ThreadGroup, AbortsAndKillsAtRandomMoments)
{
    Watchdog watchdog;
    std::mt19937 rng(2024);
    for (int workers : {1, 2, 3, 5, 8, 16}) {
        MTGroupID group = MakeSumGroup(workers);
        MTGroupKill(group);  // not running: ignored
        for (int cycle = 0; cycle < 80; ++cycle) {
            Shared shared;
            const bool kill = !VX_TSAN && cycle % 4 == 3;
            // Without signals (every 0) a wait lasts until the end of the run: kills need them.
            AssignTasks(group, &shared, cycle, kill ? 1 << 24 : 400, static_cast<int>(rng() % 4) + kill);
            ASSERT_EQ(MTGroupBegin(group), 1);
            for (int w = static_cast<int>(rng() % 4); w < 3 && MTUtilWait(group); ++w) {
            }
            Pause(static_cast<int>(rng() % 2000));
            kill ? MTGroupKill(group) : MTGroupAbort(group);
            EXPECT_EQ(MTGroupTestDone(group), 1);
            const int flags = MTGroupWaitCompletion(group);
            int64_t reported = 0, early = 0;
            for (int i = 0; i < workers; ++i) {
                reported += MTGroupGetReturn(group, i);
                early += MTGroupGetReturn(group, i) < 400;
                EXPECT_TRUE(!(kill || flags) || MTThreadTestAbort(MTGroupGetThreadID(group, i))) << "worker " << i;
            }
            if (kill) {
                EXPECT_EQ(flags, 0) << "a kill clears the flags";
                continue;
            }
            ExpectCounts(shared, reported);
            EXPECT_EQ(flags, early ? MT_GROUP_ABORTED : flags) << "workers stopped early without an abort";
        }
        Shared shared;
        const int64_t expected = AssignTasks(group, &shared, 0, 50, 5);
        ASSERT_EQ(MTGroupRun(group), 1);
        EXPECT_EQ(shared.total, expected);
        MTGroupDestroy(group);
    }
}

#if !VX_TSAN
// Allocates and frees in a loop, holding kills off around the heap in nested brackets.
int AllocateInBrackets(MTThreadID self)
{
    for (auto *rounds = static_cast<std::atomic<int> *>(MTThreadGetArg(self));; ++*rounds) {
        MTThreadHoldKill(self);
        void *outer = StdAlloc(48);
        MTThreadHoldKill(self);
        void *inner = StdAlloc(16);
        MTThreadAllowKill(self);
        FreeHeap(inner, 16);
        FreeHeap(outer, 48);
        MTThreadAllowKill(self);
    }
}

TEST(ThreadGroup, KillsOfWorkersThatBracketTheHeapLoseNothing)
{
    Watchdog watchdog;
    vxtest::FaultAllocator heap;
    std::mt19937 rng(5);
    std::atomic<int> rounds{0};
    MTGroupID group = MTGroupCreate(4);
    for (int i = 0; i < 4; ++i)
        ASSERT_NE(MTGroupAddThread(group, AllocateInBrackets, &rounds, 0), nullptr);
    const size_t groupBytes = heap.LiveBytes();
    for (int cycle = 0; cycle < 40; ++cycle) {
        const int before = rounds.load();
        ASSERT_EQ(MTGroupBegin(group), 1);
        while (rounds.load() < before + 8)
            std::this_thread::yield();
        Pause(static_cast<int>(rng() % 500));
        MTGroupKill(group);
        ASSERT_EQ(heap.LiveBytes(), groupBytes) << "cycle " << cycle;
    }
    MTGroupDestroy(group);
    EXPECT_EQ(heap.LiveBytes(), 0u);
}
#endif

struct SignalScript {
    std::atomic<int> sent{0}, release{0};
};

int SignalTwiceThenWait(MTThreadID self)
{
    auto *script = static_cast<SignalScript *>(MTThreadGetArg(self));
    MTUtilSignal(MTThreadGetGroupID(self));
    MTUtilSignal(MTThreadGetGroupID(self));
    for (script->sent = 1; !script->release;)
        std::this_thread::yield();
    return 0;
}

// Two signals before one wait wake the controller once: the next wake is the end of the run.
// A signal left over from a synchronous run does not wake the next begun run early.
TEST(ThreadGroup, SignalsWakeTheControllerOnceAndDoNotOutliveARun)
{
    Watchdog watchdog;
    MTGroupID group = MTGroupCreate(1);
    EXPECT_EQ(MTUtilWait(group), 0) << "never run: done";
    MTUtilSignal(nullptr);
    SignalScript script;
    ASSERT_NE(MTGroupAddThread(group, SignalTwiceThenWait, &script, 0), nullptr);
    // Sets `flag` from another thread after a pause: a wait that ends before it was woken early.
    auto setLater = [](std::atomic<int> &flag) { return std::thread([&flag] { Pause(20000), flag = 1; }); };
    for (int round = 0; round < 3; ++round) {
        script.sent = script.release = 0;
        ASSERT_EQ(MTGroupBegin(group), 1);
        while (!script.sent)
            std::this_thread::yield();
        EXPECT_EQ(MTUtilWait(group), 1) << "woken while still running";
        std::thread releaser = setLater(script.release);
        EXPECT_EQ(MTUtilWait(group), 0) << "a second post would wake this wait at once";
        EXPECT_EQ(script.release.load(), 1);
        releaser.join();
    }
    script.release = 1;
    ASSERT_EQ(MTGroupRun(group), 1);  // its signal is never consumed
    std::atomic<int> gate{0};
    ASSERT_EQ(MTGroupModifyArg(group, 0, &gate, 0), 1);
    MTGroupGetThreadID(group, 0)->function = GatedWorker;
    ASSERT_EQ(MTGroupBegin(group), 1);
    std::thread opener = setLater(gate);
    EXPECT_EQ(MTUtilWait(group), 0) << "woken by the stale signal";
    EXPECT_EQ(gate.load(), 1);
    opener.join();
    MTGroupDestroy(group);
}

TEST(ThreadGroupOom, CreateAddThreadModifyArgAndInitGlobal)
{
    MTGroupID group = nullptr;
    char original[8] = "abcdefg", larger[64] = "a larger argument that needs a fresh copy";
    vxtest::OomSweepAll({[&] { group = nullptr; }, [&] { return (group = MTGroupCreate(5)) != nullptr; },
                         [&] { EXPECT_EQ(group, nullptr); }, [&] { MTGroupDestroy(group); }});
    const auto setup = [&] {
        group = MTGroupCreate(3);
        MTGroupAddThread(group, ReturnIndex, original, sizeof original);
    };
    const auto unchanged = [&] {
        EXPECT_EQ(MTGroupGetThreadCount(group), 1);
        EXPECT_EQ(std::memcmp(MTThreadGetArg(MTGroupGetThreadID(group, 0)), original, sizeof original), 0);
    };
    const auto teardown = [&] { MTGroupDestroy(group); };
    vxtest::OomSweepAll({setup, [&] { return MTGroupAddThread(group, ReturnIndex, larger, sizeof larger) != nullptr; },
                         unchanged, teardown});
    vxtest::OomSweepAll({setup, [&] { return MTGroupModifyArg(group, 0, larger, sizeof larger) == 1; }, unchanged,
                         teardown});
    vxtest::OomSweepAll({[] {}, [] { return MTUtilInitGlobal() == 1; },
                         [] { EXPECT_EQ(GlobalListLookup(MT_UTIL_GLOBAL_NAME), nullptr); }, [] { GlobalListCleanup(); }});
}

}  // namespace
