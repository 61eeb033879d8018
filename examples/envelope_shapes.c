/* One envelope of each curve shape and one of each pre/post behaviour, checked at their keys
 * and across cycles, and saved into `dir` as envelopes.iff (a FORM of ENVL chunks) and
 * envelopes.txt (the text form); envelope_bounce.c loads a saved envelope back. */
#include <vxtools3.h>

#include <math.h>
#include <stdio.h>

enum { CURVES = 12 };

static const char *const kShapeNames[] = {"TCB", "Hermite", "Bezier", "Linear", "Stepped", "2-D Bezier"};
static const char *const kBehaviourNames[] = {"Reset", "Constant", "Repeat", "Oscillate", "Offset repeat", "Linear"};

/* Four keys over two seconds; every key takes `shape`. */
static VxEnvelope *MakeCurve(VxEnvGroup *group, int32_t shape, const char *name)
{
    static const double kTimes[] = {0.0, 0.5, 1.25, 2.0}, kValues[] = {0.0, 1.0, -0.5, 0.75};
    VxEnvelope *env = EnvCreate(group, 0, 0, name);
    for (int i = 0; env && i < 4; ++i) {
        VxEnvKey *k = EnvAddKey(env, kTimes[i], kValues[i]);
        if (!k)
            return NULL;
        EnvKeySetParam(k, 0, 0.25); /* some tension for TCB keys */
        EnvKeySetParam(k, 3, 1.0);  /* tangents for Hermite and Bezier keys */
        EnvKeySetParam(k, 4, -1.0);
        EnvKeySetType(env, k, shape);
        if (shape == ENV_SHAPE_BEZIER2) { /* flat handles a fifth of a second long: ease in and out */
            EnvKeySetParam(k, 0, -0.2);
            EnvKeySetParam(k, 1, 0.0);
            EnvKeySetParam(k, 2, 0.2);
            EnvKeySetParam(k, 3, 0.0);
        }
    }
    return env;
}

static int Check(FILE *out, int ok, const char *what)
{
    fprintf(out, "  %-58s %s\n", what, ok ? "ok" : "FAILED");
    return ok;
}

/* Saves the envelopes into `path`: a FORM of ENVL chunks, or the text form. 1 when written. */
static int SaveAll(VxEnvelope *const *envs, const char *path, int text)
{
    VxWriteStrm *w = text ? FileStrmWriteText(path) : FileStrmWriteOpen(path);
    VxIFFWriter *iff = w && !text ? IFFWCreate(w) : NULL;
    VxSaveState save;
    int ok = w && (text || iff);
    if (ok && text)
        StrmInitSaveState(&save, w);
    if (ok && !text) {
        IFFWChunkOpen(iff, VX_ID('F', 'O', 'R', 'M'), VX_ID('E', 'N', 'V', 'S'));
        IFFInitSaveState(&save, iff);
    }
    for (int i = 0; ok && i < CURVES; ++i)
        ok = EnvSave(envs[i], &save);
    if (iff) {
        IFFWChunkClose(iff);
        IFFWDestroy(iff);
    }
    return StrmWriteDestroy(w) == 0 && ok;
}

/* Saves the envelopes in both forms: envelopes.iff and envelopes.txt. */
static int SaveBoth(FILE *out, const char *dir, VxEnvelope *const *envs)
{
    char path[4096];
    snprintf(path, sizeof path, "%s/envelopes.iff", dir);
    int ok = Check(out, SaveAll(envs, path, 0), "saved as IFF ENVL chunks into envelopes.iff");
    snprintf(path, sizeof path, "%s/envelopes.txt", dir);
    return Check(out, SaveAll(envs, path, 1), "saved in the text form into envelopes.txt") && ok;
}

int envelope_shapes_sample(FILE *out, const char *dir)
{
    VxEnvGroup group;
    VxEnvelope *envs[CURVES];
    char name[48];
    int keysHold = 1;
    EnvGroupInit(&group);
    fprintf(out, "Envelopes: four keys over 2 s in each shape, then a TCB curve under each behaviour\n");
    for (int32_t i = 0; i < 6; ++i) {
        snprintf(name, sizeof name, "shape %s", kShapeNames[i]);
        if (!(envs[i] = MakeCurve(&group, i, name)))
            return 0;
        for (VxEnvKey *k = EnvKeyFirst(envs[i]); k; k = EnvKeyNext(envs[i], k))
            keysHold &= EnvEvaluate(envs[i], EnvKeyTime(k)) == EnvKeyValue(k);
        fprintf(out, "  %-12s at 0.3 s: %9.6f   at 1.6 s: %9.6f\n", kShapeNames[i], EnvEvaluate(envs[i], 0.3),
                EnvEvaluate(envs[i], 1.6));
    }
    for (int32_t i = 0; i < 6; ++i) {
        snprintf(name, sizeof name, "behaviour %s", kBehaviourNames[i]);
        if (!(envs[6 + i] = MakeCurve(&group, ENV_SHAPE_TCB, name)))
            return 0;
        EnvSet(envs[6 + i], ENV_ATTR_PRE, &i); /* the behaviours are numbered as listed */
        EnvSet(envs[6 + i], ENV_ATTR_POST, &i);
        fprintf(out, "  %-13s at -1.5 s: %9.6f   at 3.5 s: %9.6f\n", kBehaviourNames[i], EnvEvaluate(envs[6 + i], -1.5),
                EnvEvaluate(envs[6 + i], 3.5));
    }
    VxEnvelope *const *b = envs + 6;
    int ok = Check(out, keysHold, "every shape passes through its keys");
    ok &= Check(out, fabs(EnvEvaluate(b[2], 2.3) - EnvEvaluate(b[2], 0.3)) < 1e-9, "Repeat: one cycle later, the same value");
    ok &= Check(out, fabs(EnvEvaluate(b[3], 2.3) - EnvEvaluate(b[3], 1.7)) < 1e-9, "Oscillate: the next cycle runs backwards");
    ok &= Check(out, fabs(EnvEvaluate(b[4], 4.3) - (EnvEvaluate(b[4], 0.3) + 1.5)) < 1e-12,
                "Offset repeat: two cycles later, twice (last - first) more");
    ok &= Check(out, EnvEvaluate(b[0], -0.5) == 0.0 && EnvEvaluate(b[1], 9.0) == 0.75,
                "Reset gives 0, Constant the end key's value");
    ok &= SaveBoth(out, dir, envs);
    while (group.envelopes.head->succ)
        EnvDestroy((VxEnvelope *)group.envelopes.head);
    return ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return envelope_shapes_sample(stdout, ".") ? 0 : 1; }
#endif
