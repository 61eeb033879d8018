/* Controlling thread groups: four workers count the primes below 200000 while the controller
 * follows their progress signals; a job forty times larger is aborted after its first signal;
 * and a worker that never polls is killed. */
#include <vxtools3.h>

#include <stdatomic.h>
#include <stdio.h>
#include <time.h>

enum { LIMIT = 200000, WORKERS = 4, PRIMES_BELOW_LIMIT = 17984 /* a known count: pi(200000) */ };

typedef struct Range { int first, last; } Range; /* counts primes in first ... last - 1 */

static long g_checked; /* shared by the workers under the group lock */
static atomic_int g_spinning;

static int IsPrime(int n)
{
    for (int d = 2; d * d <= n; ++d)
        if (n % d == 0)
            return 0;
    return n >= 2;
}

/* A worker: counts the primes of its range, reports progress every 5000 numbers, and stops
 * early (returning -1) when asked to. An empty range makes it spin without ever polling. */
static int CountPrimes(MTThreadID thread)
{
    const Range *range = MTThreadGetArg(thread);
    int count = 0;
    atomic_store(&g_spinning, 1);
    if (range->first == range->last)
        for (;;) {
        }
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

static int BeginAndWait(FILE *out, MTGroupID group)
{
    fprintf(out, "MTGroupBegin: %d workers count the primes below %d (%d processors online); the controller "
            "sleeps in MTUtilWait until a worker signals\n", WORKERS, LIMIT, MTSystemCountProcs());
    int wakes = 0, begun = MTGroupBegin(group);
    long lastSeen = 0;
    while (MTUtilWait(group)) {
        ++wakes;
        MTGroupLockCS(group);
        lastSeen = g_checked;
        MTGroupUnlockCS(group);
    }
    int flags = MTGroupWaitCompletion(group), total = 0;
    for (int i = 0; i < WORKERS; ++i)
        total += MTGroupGetReturn(group, i);
    fprintf(out, "  woken %d time(s) while running (signals that come close together merge), last "
            "progress seen %ld of %d\n  done: flags %d, total %d primes (expected %d)\n", wakes, lastSeen, LIMIT,
            flags, total, PRIMES_BELOW_LIMIT);
    return begun && flags == 0 && total == PRIMES_BELOW_LIMIT && g_checked == LIMIT;
}

static int Abort(FILE *out, MTGroupID group)
{
    fprintf(out, "MTGroupAbort: a job forty times larger, stopped after the first progress signal\n");
    for (int i = 0; i < WORKERS; ++i) {
        Range range = {LIMIT * 10 * i, LIMIT * 10 * (i + 1)};
        MTGroupModifyArg(group, i, &range, (int)sizeof range);
    }
    int begun = MTGroupBegin(group), stopped = 0;
    MTUtilWait(group);
    MTGroupAbort(group);
    for (int i = 0; i < WORKERS; ++i)
        stopped += MTGroupGetReturn(group, i) == -1;
    fprintf(out, "  aborted flag %d, %d of %d workers returned -1 (stopped early)\n", MTGroupTestAborted(group),
            stopped, WORKERS);
    return begun && MTGroupTestAborted(group) && MTGroupTestDone(group) && stopped >= 1;
}

static int Kill(FILE *out)
{
    fprintf(out, "MTGroupKill: a worker that never polls for an abort\n");
    Range range = {0, 0};
    MTGroupID group = MTGroupCreate(1);
    if (!group || !MTGroupAddThread(group, CountPrimes, &range, (int)sizeof range))
        return 0;
    atomic_store(&g_spinning, 0);
    int begun = MTGroupBegin(group);
    while (!atomic_load(&g_spinning)) {
    }
    time_t start = time(NULL);
    MTGroupKill(group);
    int done = MTGroupTestDone(group), quick = time(NULL) - start <= 1;
    fprintf(out, "  killed %s, group done %d\n", quick ? "at once" : "SLOWLY", done);
    MTGroupDestroy(group);
    return begun && done && quick;
}

int thread_control_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    MTGroupID group = MTGroupCreate(WORKERS);
    for (int i = 0; group && i < WORKERS; ++i) {
        Range range = {LIMIT / WORKERS * i, LIMIT / WORKERS * (i + 1)};
        if (!MTGroupAddThread(group, CountPrimes, &range, (int)sizeof range)) /* the group keeps a copy */
            return 0;
    }
    if (!group)
        return 0;
    g_checked = 0;
    int ok = BeginAndWait(out, group);
    ok &= Abort(out, group);
    MTGroupDestroy(group);
    ok &= Kill(out);
    return ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return thread_control_sample(stdout, ".") ? 0 : 1; }
#endif
