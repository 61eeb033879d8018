/* Keeps shots sorted by start frame in an ordered array, finds one by binary search, then
 * sorts a plain array a little at a time with the step-wise sort. */
#include <vxtools3.h>

#include <stdio.h>

typedef struct Shot { int start; const char *name; } Shot;

/* Used for inserting (two shots) and for looking up (a key shot and a stored shot). */
static int ByStart(void *a, void *b)
{
    const Shot *x = a, *y = b;
    return (x->start > y->start) - (x->start < y->start);
}

static int ByStart3(void *item, void *pivot, void *user)
{
    ++*(int *)user; /* count the comparisons */
    return ByStart(item, pivot);
}

int ordered_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    Shot shots[] = {{120, "chase"}, {0, "opening"}, {480, "finale"}, {240, "dialogue"}};
    VxOrd timeline;
    OrdInit(&timeline);
    for (int i = 0; i < 4; ++i)
        if (OrdInsert(&timeline, &shots[i], ByStart) < 0)
            return 0; /* out of memory, no checkpoint block open */

    Shot key = {240, NULL};
    int found = OrdLookup(&timeline, &key, ByStart);
    fprintf(out, "frame 240 starts shot %d: %s\n", found, found >= 0 ? ((Shot *)timeline.items[found])->name : "-");
    int sorted = OrdValidate(&timeline, ByStart);
    OrdFree(&timeline); /* frees the item block, not the shots */

    /* The step-wise sort does at most one comparison per SortStep, so a long sort can be
     * spread over the idle moments of an interactive program. */
    void *reel[] = {&shots[0], &shots[1], &shots[2], &shots[3]};
    int comparisons = 0, steps = 0;
    SortInitR(reel, 4, ByStart3, &comparisons);
    while (SortStep())
        ++steps;
    fprintf(out, "step-wise sort: %d steps, %d comparisons, first %s, last %s\n", steps, comparisons,
            ((Shot *)reel[0])->name, ((Shot *)reel[3])->name);

    int reelSorted = 1;
    for (int i = 1; i < 4; ++i)
        reelSorted &= ByStart(reel[i - 1], reel[i]) < 0;
    return found == 2 && sorted && reelSorted;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return ordered_sample(stdout, ".") ? 0 : 1; }
#endif
