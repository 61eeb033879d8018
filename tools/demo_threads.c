/* Demo of thread groups: a parallel job (counting the primes below 200000) split over four
 * workers, run to the end with MTGroupRun and again with MTGroupBegin while the controller
 * follows the workers' progress signals; an abort of a long job; a kill of a worker that never
 * polls; and the global function table for plug-ins. */
#include <vxtools3.h>
#include "vxtool_c.h"

#include <stdatomic.h>
#include <stdio.h>
#include <time.h>

#define LIMIT 200000
#define WORKERS 4
#define PRIMES_BELOW_LIMIT 17984 /* a known count: pi(200000) */

static FILE *g_out;

/* Shared by the workers under the group lock. */
static long g_checked;

typedef struct Range {
    int first; /* counts primes in first ... last - 1 */
    int last;
} Range;

static int IsPrime(int n)
{
    if (n < 2)
        return 0;
    for (int d = 2; d * d <= n; ++d)
        if (n % d == 0)
            return 0;
    return 1;
}

/* A worker: counts the primes of its range, reports progress every 5000 numbers, and stops
 * early (returning -1) when asked to. */
static int CountPrimes(MTThreadID thread)
{
    const Range *range = (const Range *)MTThreadGetArg(thread);
    int count = 0;
    for (int n = range->first; n < range->last; ++n) {
        if (MTThreadTestAbort(thread))
            return -1;
        count += IsPrime(n);
        if ((n - range->first) % 5000 == 4999) {
            MTThreadLockCS(thread);
            g_checked += 5000;
            MTThreadUnlockCS(thread);
            MTUtilSignal(MTThreadGetGroupID(thread));
        }
    }
    return count;
}

static MTGroupID MakePrimeGroup(int limit)
{
    MTGroupID group = MTGroupCreate(WORKERS);
    for (int i = 0; group && i < WORKERS; ++i) {
        Range range = {limit / WORKERS * i, limit / WORKERS * (i + 1)};
        /* The group keeps its own copy: `range` may go out of scope. */
        if (!MTGroupAddThread(group, CountPrimes, &range, (int)sizeof range))
            return NULL;
    }
    return group;
}

static int SumOfReturns(MTGroupID group)
{
    int total = 0;
    for (int i = 0; i < MTGroupGetThreadCount(group); ++i)
        total += MTGroupGetReturn(group, i);
    return total;
}

static int DemoRun(MTGroupID group)
{
    fprintf(g_out, "MTGroupRun: %d workers count the primes below %d (%d processors online)\n",
            MTGroupGetThreadCount(group), LIMIT, MTSystemCountProcs());
    g_checked = 0;
    int ran = MTGroupRun(group);
    for (int i = 0; i < WORKERS; ++i) {
        const Range *range = (const Range *)MTThreadGetArg(MTGroupGetThreadID(group, i));
        fprintf(g_out, "  worker %d: %6d ... %6d -> %d primes\n", i, range->first, range->last - 1,
                MTGroupGetReturn(group, i));
    }
    int total = SumOfReturns(group);
    fprintf(g_out, "  total %d (expected %d), %ld numbers checked\n", total, PRIMES_BELOW_LIMIT, g_checked);
    return ran && total == PRIMES_BELOW_LIMIT && g_checked == LIMIT;
}

static int DemoBeginAndWait(MTGroupID group)
{
    fprintf(g_out, "MTGroupBegin: the controller sleeps in MTUtilWait until a worker signals\n");
    g_checked = 0;
    int wakes = 0;
    long lastSeen = 0;
    int begun = MTGroupBegin(group);
    while (MTUtilWait(group)) {
        ++wakes;
        MTGroupLockCS(group);
        lastSeen = g_checked;
        MTGroupUnlockCS(group);
    }
    int flags = MTGroupWaitCompletion(group);
    int total = SumOfReturns(group);
    fprintf(g_out, "  woken %d time(s) while running (signals that come close together merge), last "
            "progress seen %ld of %d\n", wakes, lastSeen, LIMIT);
    fprintf(g_out, "  done: flags %d, total %d primes\n", flags, total);
    return begun && flags == 0 && total == PRIMES_BELOW_LIMIT;
}

static int DemoAbort(MTGroupID group)
{
    fprintf(g_out, "MTGroupAbort: a job forty times larger, stopped after the first progress signal\n");
    for (int i = 0; i < WORKERS; ++i) {
        Range range = {LIMIT * 10 * i, LIMIT * 10 * (i + 1)};
        MTGroupModifyArg(group, i, &range, (int)sizeof range);
    }
    int begun = MTGroupBegin(group);
    MTUtilWait(group);
    MTGroupAbort(group);
    int stopped = 0;
    for (int i = 0; i < WORKERS; ++i)
        stopped += MTGroupGetReturn(group, i) == -1;
    fprintf(g_out, "  aborted flag %d, %d of %d workers returned -1 (stopped early)\n",
            MTGroupTestAborted(group), stopped, WORKERS);
    return begun && MTGroupTestAborted(group) && MTGroupTestDone(group) && stopped >= 1;
}

static atomic_int g_spinning;

/* Spins without ever polling when its range is empty, else counts primes. */
static int SpinOrCount(MTThreadID thread)
{
    const Range *range = (const Range *)MTThreadGetArg(thread);
    if (range->first < range->last)
        return CountPrimes(thread);
    atomic_store(&g_spinning, 1);
    for (;;) {
    }
}

static double MillisecondsSince(const struct timespec *start)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)(now.tv_sec - start->tv_sec) * 1e3 + (double)(now.tv_nsec - start->tv_nsec) / 1e6;
}

static int DemoKill(void)
{
    fprintf(g_out, "MTGroupKill: a worker that never polls for an abort\n");
    Range spin = {0, 0};
    MTGroupID group = MTGroupCreate(1);
    MTGroupAddThread(group, SpinOrCount, &spin, (int)sizeof spin);
    atomic_store(&g_spinning, 0);
    int begun = MTGroupBegin(group);
    while (!atomic_load(&g_spinning)) {
    }
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    MTGroupKill(group);
    double took = MillisecondsSince(&start);
    int done = MTGroupTestDone(group);
    fprintf(g_out, "  killed in %.1f ms, group done %d\n", took, done);
    Range count = {0, 1000};
    MTGroupModifyArg(group, 0, &count, (int)sizeof count);
    int ran = MTGroupRun(group);
    fprintf(g_out, "  the same group, given a range, then runs to its end: %d primes below 1000\n",
            MTGroupGetReturn(group, 0));
    int ok = begun && done && took < 1000.0 && ran && MTGroupGetReturn(group, 0) == 168;
    MTGroupDestroy(group);
    return ok;
}

static int DemoPluginTable(void)
{
    int registered = MTUtilInitGlobal();
    const MTUtilFuncs *table = (const MTUtilFuncs *)GlobalListLookup(MT_UTIL_GLOBAL_NAME);
    fprintf(g_out, "Global table \"%s\": registered %d, found %s\n", MT_UTIL_GLOBAL_NAME, registered,
            table ? "yes" : "no");
    if (!table)
        return 0;
    MTGroupID group = table->create();
    int locked = table->lockMutex(group, 9) && table->unlockMutex(group, 9);
    int refused = table->lockMutex(group, 10) == 0;
    fprintf(g_out, "  create/lock mutex 9/unlock: %s; mutex 10 refused: %s\n", locked ? "ok" : "FAILED",
            refused ? "yes" : "no");
    table->destroy(group);
    return registered && locked && refused;
}

int vx_demo_threads(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    g_out = out;
    MTGroupID group = MakePrimeGroup(LIMIT);
    if (!group)
        return 0;
    int ok = DemoRun(group);
    ok &= DemoBeginAndWait(group);
    ok &= DemoAbort(group);
    MTGroupDestroy(group);
    ok &= DemoKill();
    ok &= DemoPluginTable();
    return ok;
}
