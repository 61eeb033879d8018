/* A bouncing height: three keys, a linear fall, a repeating post behaviour. The envelope is
 * saved in text form to a memory stream and loaded into a second envelope that must agree. */
#include <vxtools3.h>

#include <stdio.h>

static FILE *g_out;
static const double kTimes[] = {0.0, 0.25, 0.5, 0.75, 1.5, 2.25};

static int SaveAsText(const VxEnvelope *env, VxEnvelope *copy) /* 1: saved and loaded */
{
    VxWriteStrm *out = MemStrmWriteCreate();
    if (!out)
        return 0;
    VxSaveState save;
    StrmInitSaveState(&save, out);
    int32_t length = EnvSave(env, &save) ? out->length : 0; /* read before the purge */
    char *text = length > 0 ? MemStrmWritePurge(out, NULL) : NULL; /* now ours to free */
    StrmWriteDestroy(out);
    fprintf(g_out, "%.*s", (int)length, text ? text : "");

    VxReadStrm *in = text ? MemStrmReadCreate(text, length, 0) : NULL;
    VxLoadState load;
    int loaded = 0;
    if (in) {
        StrmInitLoadState(&load, in);
        loaded = EnvLoad(copy, &load);
        if (!loaded)
            fprintf(g_out, "load failed at line %d: %s\n", (int)load.line, load.message ? load.message : "no envelope");
    }
    StrmReadDestroy(in);
    MemStrmFreeBlock(text);
    return loaded;
}

int envelope_bounce_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    g_out = out;
    VxEnvGroup group;
    EnvGroupInit(&group);
    VxEnvelope *height = EnvCreate(&group, 0, 0, "Ball.Height");
    VxEnvelope *copy = EnvCreate(&group, 0, 0, NULL);
    EnvAddKey(height, 0.0, 0.0);
    EnvAddKey(height, 0.5, 2.0);                  /* TCB: a smooth top */
    VxEnvKey *fall = EnvAddKey(height, 1.0, 0.0); /* NULL for a NULL envelope or no memory */
    if (!copy || !fall)
        return 0;
    EnvKeySetType(height, fall, ENV_SHAPE_LINEAR); /* a straight fall into the key */
    const int32_t repeat = ENV_BEHAVIOR_REPEAT;
    EnvSet(height, ENV_ATTR_POST, &repeat); /* after 1 s the bounce starts over */

    int same = SaveAsText(height, copy);
    for (size_t i = 0; i < sizeof kTimes / sizeof kTimes[0]; ++i) {
        double original = EnvEvaluate(height, kTimes[i]), loaded = EnvEvaluate(copy, kTimes[i]);
        fprintf(out, "t = %.2f s: height %.4f, loaded %.4f\n", kTimes[i], original, loaded);
        same &= original == loaded;
    }
    int repeats = EnvEvaluate(height, 1.5) == EnvEvaluate(height, 0.5);
    EnvDestroy(copy);
    EnvDestroy(height);
    return same && repeats;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return envelope_bounce_sample(stdout, ".") ? 0 : 1; }
#endif
