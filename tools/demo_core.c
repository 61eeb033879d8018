/* Demo of the foundation: a checkpoint unwinding an allocation failure, a sorted ordered
 * array, the global list and its clean-ups. */
#include <vxtools3.h>
#include "vxtool_c.h"

#include <stdio.h>
#include <string.h>

static FILE *g_out;

/* ---- A checkpoint unwinding an allocation failure ---- */

static int g_allocations;
static int g_failOn;
static StdAllocator g_heap;

static void *FailingAlloc(void *user, size_t size)
{
    (void)user;
    if (++g_allocations == g_failOn) {
        fprintf(g_out, "  allocation %d (%zu bytes): refused by the demo heap\n", g_allocations, size);
        return NULL;
    }
    return g_heap.alloc(g_heap.user, size);
}

static void FreeThrough(void *user, void *block, size_t size)
{
    (void)user;
    g_heap.free(g_heap.user, block, size);
}

/* A release action that says what it frees. */
static void ReleaseLoudly(uintptr_t block, uintptr_t size)
{
    fprintf(g_out, "  release action: freeing %lu bytes (recovering=%d)\n", (unsigned long)size,
            CkptRecovering());
    FreeHeap((void *)block, size);
}

static int BuildThreeBuffers(void)
{
    CKPT_BEGIN_OR_RETURN(0);
    for (size_t i = 1; i <= 3; ++i) {
        size_t size = 100 * i;
        void *block = StdAlloc(size);
        fprintf(g_out, "  allocated %zu bytes, armed its release (level %d)\n", size, CkptLevel());
        CkptArm(ReleaseLoudly, (uintptr_t)block, size);
    }
    CkptEnd();
    return 1;
}

static int DemoCheckpoint(void)
{
    StdAllocator failing;
    StdGetAllocator(&g_heap);
    failing = g_heap;
    failing.alloc = FailingAlloc;
    failing.realloc = NULL;
    failing.free = FreeThrough;
    g_allocations = 0;
    g_failOn = 3;
    StdSetAllocator(&failing);

    fprintf(g_out, "Checkpoint: build three buffers while the third allocation fails\n");
    int built = BuildThreeBuffers();
    int code = CkptLatchCode();
    StdSetAllocator(&g_heap);
    fprintf(g_out, "  BuildThreeBuffers returned %d, latched code %d, level back to %d\n", built, code,
            CkptLevel());
    return built == 0 && code == 1 && CkptLevel() == -1;
}

/* ---- A sorted ordered array ---- */

static int CompareNames(void *a, void *b) { return strcmp((const char *)a, (const char *)b); }

static int DemoOrderedArray(void)
{
    static const char *const kShapes[] = {"TCB", "Hermite", "Bezier", "Linear", "Stepped", "2D Bezier"};
    VxOrd ord;
    int ok = 1;
    OrdInit(&ord);
    for (size_t i = 0; i < sizeof kShapes / sizeof kShapes[0]; ++i)
        OrdAppend(&ord, (void *)kShapes[i]);
    OrdSort(&ord, CompareNames);
    OrdInsert(&ord, (void *)"Cubic", CompareNames);
    fprintf(g_out, "Ordered array: curve shapes sorted, then \"Cubic\" inserted in place:\n ");
    for (int i = 0; i < ord.count; ++i)
        fprintf(g_out, " %s", (const char *)ord.items[i]);
    int found = OrdLookup(&ord, (void *)"Linear", CompareNames);
    fprintf(g_out, "\n  binary search finds \"Linear\" at index %d (capacity %d)\n", found, ord.capacity);
    ok = OrdValidate(&ord, CompareNames) && found >= 0 && !strcmp((const char *)ord.items[found], "Linear");
    OrdFree(&ord);
    return ok;
}

/* ---- The global list and its clean-ups ---- */

static int g_cleanupOrder[3];
static int g_cleanupsRun;

static void SayCleanup(void *arg)
{
    const char *name = (const char *)arg;
    fprintf(g_out, "  clean-up: %s\n", name);
    if (g_cleanupsRun < 3)
        g_cleanupOrder[g_cleanupsRun++] = name[0];
}

static int DemoGlobalList(void)
{
    static int renderThreads = 4;
    static double frameRate = 24.0;
    fprintf(g_out, "Global list: named values shared across the process\n");
    GlobalListDefine("render.threads", &renderThreads);
    GlobalListDefine("frame.rate", &frameRate);
    int again = GlobalListDefine("frame.rate", &renderThreads);
    const double *rate = (const double *)GlobalListLookup("frame.rate");
    fprintf(g_out, "  frame.rate = %g, render.threads = %d, redefining frame.rate returned %d\n", *rate,
            *(const int *)GlobalListLookup("render.threads"), again);
    GlobalListSetCleanup(SayCleanup, (void *)"first registered");
    GlobalListSetCleanup(SayCleanup, (void *)"second registered");
    GlobalListSetCleanup(SayCleanup, (void *)"third registered");
    g_cleanupsRun = 0;
    GlobalListCleanup();
    int cleared = GlobalListLookup("frame.rate") == NULL;
    fprintf(g_out, "  after clean-up the list is %s\n", cleared ? "empty" : "NOT empty");
    return again == 0 && *rate == 24.0 && g_cleanupsRun == 3 && g_cleanupOrder[0] == 't' &&
           g_cleanupOrder[2] == 'f' && cleared;
}

int vx_demo_core(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    g_out = out;
    int ok = DemoCheckpoint();
    ok &= DemoOrderedArray();
    ok &= DemoGlobalList();
    return ok;
}
