/* Sums 1 ... 100000 with four workers, each adding up its own slice and then adding its
 * partial sum to the shared total under the group lock. */
#include <vxtools3.h>

#include <stdio.h>

enum { WORKERS = 4, COUNT = 100000 };

typedef struct Slice {
    const int *values;
    int begin, end;
    long long *total; /* shared by all workers: written under the group lock */
} Slice;

static int SumSlice(MTThreadID thread)
{
    const Slice *slice = MTThreadGetArg(thread); /* the group's own copy of the Slice */
    long long sum = 0;
    int i = slice->begin;
    for (; i < slice->end && !MTThreadTestAbort(thread); ++i)
        sum += slice->values[i];
    MTThreadLockCS(thread);
    *slice->total += sum;
    MTThreadUnlockCS(thread);
    return i - slice->begin; /* the exit value: how many values this worker added */
}

int thread_sum_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    static int values[COUNT];
    for (int i = 0; i < COUNT; ++i)
        values[i] = i + 1;

    long long total = 0;
    MTGroupID group = MTGroupCreate(WORKERS);
    if (!group)
        return 0;
    for (int w = 0; w < WORKERS; ++w) {
        Slice slice = {values, COUNT * w / WORKERS, COUNT * (w + 1) / WORKERS, &total};
        if (!MTGroupAddThread(group, SumSlice, &slice, (int)sizeof slice)) /* copied: a local is fine */
            return 0;
    }
    int ran = MTGroupRun(group); /* returns after every worker has ended */
    int added = 0;
    for (int w = 0; w < WORKERS; ++w) {
        fprintf(out, "worker %d added %d values\n", w, MTGroupGetReturn(group, w));
        added += MTGroupGetReturn(group, w);
    }
    MTGroupDestroy(group);

    const long long expected = (long long)COUNT * (COUNT + 1) / 2;
    fprintf(out, "total %lld (expected %lld)\n", total, expected);
    return ran && added == COUNT && total == expected;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return thread_sum_sample(stdout, ".") ? 0 : 1; }
#endif
