/* Counts how often each word id occurs with a lookup map, then walks the map in key order
 * through the B-tree it is built on. A lookup table remembers which ids were seen twice. */
#include <vxtools3.h>

#include <stdio.h>

int word_count_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    const uintptr_t words[] = {42, 7, 42, 19, 7, 42, 3};
    const int wordCount = (int)(sizeof words / sizeof words[0]);
    LMap *counts = LMapCreate(2);  /* order 2: nodes of 2 to 4 pairs */
    LTab *repeated = LTabCreate(2);
    if (!counts || !repeated)
        return 0;

    for (int i = 0; i < wordCount; ++i) {
        uintptr_t seen = 0;
        LMapGet(counts, words[i], &seen); /* leaves `seen` at 0 when the id is new */
        if (LMapSet(counts, words[i], seen + 1) < 0)
            return 0; /* out of memory: the map is unchanged */
        if (seen == 1 && LTabAdd(repeated, words[i]) < 0)
            return 0;
    }

    /* Each stored key of a map reads as two words: the key, then its value. */
    BTPos pos;
    uintptr_t previous = 0, total = 0;
    int inOrder = 1;
    for (const uintptr_t *pair = BTFirst(counts, &pos); pair; pair = BTNext(counts, &pos)) {
        fprintf(out, "word %3lu: %lu time(s)%s\n", (unsigned long)pair[0], (unsigned long)pair[1],
                LTabTest(repeated, pair[0]) ? ", repeated" : "");
        inOrder &= pair[0] > previous;
        previous = pair[0];
        total += pair[1];
    }

    uintptr_t fortyTwo = 0;
    int ok = inOrder && total == (uintptr_t)wordCount && BTCount(counts) == 4 && LMapGet(counts, 42, &fortyTwo) &&
             fortyTwo == 3 && LTabTest(repeated, 7) && !LTabTest(repeated, 19);
    LTabDestroy(repeated);
    LMapDestroy(counts);
    return ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return word_count_sample(stdout, ".") ? 0 : 1; }
#endif
