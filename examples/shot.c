/* The README's checkpoint example, built and run by the tests so that it cannot rot: an
 * operation that cannot half-fail. */
#include <vxtools3.h>

#include <stdio.h>
#include <string.h>

typedef struct Shot { char *name; VxOrd frames; } Shot;

Shot *ShotCreate(const char *name)
{
    CKPT_BEGIN_OR_RETURN(NULL);               /* a failure below lands here: return NULL */
    Shot *shot = StdAlloc(sizeof *shot);      /* zero-filled; raises instead of returning NULL */
    CkptArm(StdFreeArm, (uintptr_t)shot, sizeof *shot);
    shot->name = StringCopy(name);            /* if this fails, the shot is freed */
    CkptEnd();                                /* success: forget the armed actions */
    return shot;
}

static void ShotDestroy(Shot *shot)
{
    StringFree(shot->name);
    OrdFree(&shot->frames);
    FreeHeap(shot, sizeof *shot);
}

/* A heap that refuses its second request, to show the failure path. */
static int g_requests;
static StdAllocator g_system;
static void *RefuseSecond(void *user, size_t size)
{
    (void)user;
    return ++g_requests == 2 ? NULL : g_system.alloc(g_system.user, size);
}

int shot_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    Shot *shot = ShotCreate("opening");
    if (!shot || strcmp(shot->name, "opening") != 0)
        return 0;
    ShotDestroy(shot);

    StdGetAllocator(&g_system);
    StdAllocator refusing = g_system;
    refusing.alloc = RefuseSecond;
    StdSetAllocator(&refusing);
    Shot *failed = ShotCreate("closing");
    int code = CkptLatchCode();
    StdSetAllocator(NULL);
    fprintf(out, "ShotCreate with the name's allocation refused: %s, code %d\n", failed ? "made" : "NULL", code);
    return failed == NULL && code == 1;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return shot_sample(stdout, ".") ? 0 : 1; }
#endif
