/* Shares two named values through the global list, then runs its clean-ups: the ones
 * registered last run first, and the list is empty afterwards. */
#include <vxtools3.h>

#include <stdio.h>

static FILE *g_out;
static char g_cleanupOrder[4]; /* the first letter of each clean-up, in the order they ran */
static int g_cleanupsRun;

static void SayCleanup(void *arg)
{
    const char *name = arg;
    fprintf(g_out, "  clean-up: %s\n", name);
    if (g_cleanupsRun < 3)
        g_cleanupOrder[g_cleanupsRun++] = name[0];
}

int global_list_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    static int renderThreads = 4;
    static double frameRate = 24.0;
    g_out = out;
    g_cleanupsRun = 0;
    GlobalListDefine("render.threads", &renderThreads); /* the list keeps the name pointer */
    GlobalListDefine("frame.rate", &frameRate);
    int again = GlobalListDefine("frame.rate", &renderThreads); /* 0: the first definition stays */
    const double *rate = GlobalListLookup("frame.rate");
    fprintf(out, "global list: frame.rate = %g, render.threads = %d, redefining frame.rate returned %d\n", *rate,
            *(const int *)GlobalListLookup("render.threads"), again);
    GlobalListSetCleanup(SayCleanup, (void *)"first registered");
    GlobalListSetCleanup(SayCleanup, (void *)"second registered");
    GlobalListSetCleanup(SayCleanup, (void *)"third registered");
    GlobalListCleanup();
    int cleared = GlobalListLookup("frame.rate") == NULL;
    fprintf(out, "  after clean-up the list is %s\n", cleared ? "empty" : "NOT empty");
    return again == 0 && *rate == 24.0 && g_cleanupsRun == 3 && g_cleanupOrder[0] == 't' &&
           g_cleanupOrder[2] == 'f' && cleared;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return global_list_sample(stdout, ".") ? 0 : 1; }
#endif
