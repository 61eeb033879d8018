/* Demo of envelopes: one envelope of each curve shape and one of each pre/post behaviour,
 * checked at their keys and across cycles, saved to a binary and a text file, loaded back from
 * both, and the loaded ones drawn into an SVG picture as `vxtool env plot` draws them. */
#include <vxtools3.h>
#include "vxtool_c.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { PANELS = 12 };

static const char *const kShapeNames[] = {"TCB", "Hermite", "Bezier", "Linear", "Stepped", "2-D Bezier"};
static const char *const kBehaviourNames[] = {"Reset", "Constant", "Repeat", "Oscillate", "Offset repeat", "Linear"};

/* Four keys over two seconds; every key takes `shape`. */
static VxEnvelope *MakeCurve(VxEnvGroup *group, int32_t shape, const char *name)
{
    static const double kTimes[] = {0.0, 0.5, 1.25, 2.0}, kValues[] = {0.0, 1.0, -0.5, 0.75};
    VxEnvelope *env = EnvCreate(group, 0, 0, name);
    int i;
    if (!env)
        return NULL;
    for (i = 0; i < 4; ++i) {
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
static int SaveAll(VxEnvelope *const *envs, int count, const char *path, int text)
{
    VxWriteStrm *w = text ? FileStrmWriteText(path) : FileStrmWriteOpen(path);
    VxIFFWriter *iff = w && !text ? IFFWCreate(w) : NULL;
    VxSaveState save;
    int ok = w && (text || iff), i;
    if (ok && text)
        StrmInitSaveState(&save, w);
    if (ok && !text) {
        IFFWChunkOpen(iff, VX_ID('F', 'O', 'R', 'M'), VX_ID('E', 'N', 'V', 'S'));
        IFFInitSaveState(&save, iff);
    }
    for (i = 0; ok && i < count; ++i)
        ok = EnvSave(envs[i], &save);
    if (iff) {
        IFFWChunkClose(iff);
        IFFWDestroy(iff);
    }
    return StrmWriteDestroy(w) == 0 && ok;
}

/* Loads every envelope of `path` into `group` (either form); the number loaded. */
static int LoadAll(VxEnvGroup *group, const char *path, int text)
{
    VxReadStrm *r = FileStrmReadOpen(path, NULL);
    VxIFFReader *iff = r && !text ? IFFRCreate(r) : NULL;
    VxLoadState load;
    VxEnvelope *env;
    int count = 0;
    if (!r || (!text && !iff)) {
        StrmReadDestroy(r);
        return 0;
    }
    if (text)
        StrmInitLoadState(&load, r);
    else
        IFFInitLoadState(&load, iff);
    while ((env = EnvCreate(group, 0, 0, NULL)) != NULL && EnvLoad(env, &load))
        ++count;
    EnvDestroy(env);
    IFFRDestroy(iff);
    StrmReadDestroy(r);
    return count;
}

/* The envelopes of `group`, in order, into `envs` (room for PANELS); the number found. */
static int Members(VxEnvGroup *group, VxEnvelope **envs)
{
    int n = 0;
    for (VxNode *node = group->envelopes.head; node->succ && n < PANELS; node = node->succ)
        envs[n++] = (VxEnvelope *)node;
    return n;
}

/* 1 when the envelopes of `group` have the names of `envs` and evaluate as they do from 2 s
 * before to 4 s after; within 1e-6, as both saved forms keep key parameters as 32-bit floats.
 * Both forms write a Bezier key as a Hermite one, so the Bezier curve comes back as the
 * Hermite curve with the same tangents. */
static int SameCurves(VxEnvGroup *group, VxEnvelope *const *envs)
{
    VxEnvelope *loaded[PANELS];
    int i, j, same = Members(group, loaded) == PANELS;
    for (i = 0; same && i < PANELS; ++i) {
        VxEnvelope *expected = envs[i == ENV_SHAPE_BEZIER ? ENV_SHAPE_HERMITE : i];
        same = strcmp(EnvName(loaded[i]), EnvName(envs[i])) == 0;
        for (j = -40; same && j <= 120; ++j)
            same = fabs(EnvEvaluate(loaded[i], j * 0.05) - EnvEvaluate(expected, j * 0.05)) < 1e-6;
    }
    return same;
}

static void DestroyAll(VxEnvGroup *group)
{
    while (group->envelopes.head->succ)
        EnvDestroy((VxEnvelope *)group->envelopes.head);
}

/* Saves the envelopes in both forms, loads each file back and compares; then plots them. */
static int SaveReloadAndPlot(FILE *out, const char *dir, VxEnvelope *const *envs)
{
    static const char *const kFiles[] = {"envelopes.iff", "envelopes.txt"};
    char path[4096];
    int ok = 1, text;
    for (text = 0; text < 2; ++text) {
        VxEnvGroup loaded;
        EnvGroupInit(&loaded);
        snprintf(path, sizeof path, "%s/%s", dir, kFiles[text]);
        ok &= Check(out, SaveAll(envs, PANELS, path, text), text ? "saved in the text form" : "saved as IFF ENVL chunks");
        fprintf(out, "  loaded %d envelopes back from %s\n", LoadAll(&loaded, path, text), kFiles[text]);
        ok &= Check(out, SameCurves(&loaded, envs), "the loaded curves match (the Bezier one as Hermite)");
        DestroyAll(&loaded);
    }
    snprintf(path, sizeof path, "%s/envelopes.svg", dir);
    ok &= Check(out, vx_env_plot(path, envs, PANELS), "plotted as `vxtool env plot` plots");
    fprintf(out, "  wrote envelopes.svg: each curve over its keys and one cycle either side, keys marked\n");
    return ok;
}

int vx_demo_env(FILE *out, const char *dir)
{
    VxEnvGroup group;
    VxEnvelope *envs[PANELS];
    char name[48];
    int i, ok = 1, keysHold = 1;
    EnvGroupInit(&group);
    fprintf(out, "Envelopes: four keys over 2 s in each shape, then a TCB curve under each behaviour\n");
    for (i = 0; i < 6; ++i) {
        snprintf(name, sizeof name, "shape %s", kShapeNames[i]);
        envs[i] = MakeCurve(&group, i, name);
        if (!envs[i])
            return 0;
        for (VxEnvKey *k = EnvKeyFirst(envs[i]); k; k = EnvKeyNext(envs[i], k))
            keysHold &= EnvEvaluate(envs[i], EnvKeyTime(k)) == EnvKeyValue(k);
        fprintf(out, "  %-12s at 0.3 s: %9.6f   at 1.6 s: %9.6f\n", kShapeNames[i], EnvEvaluate(envs[i], 0.3),
                EnvEvaluate(envs[i], 1.6));
    }
    for (i = 0; i < 6; ++i) {
        int32_t b = i;
        snprintf(name, sizeof name, "behaviour %s", kBehaviourNames[i]);
        envs[6 + i] = MakeCurve(&group, ENV_SHAPE_TCB, name);
        if (!envs[6 + i])
            return 0;
        EnvSet(envs[6 + i], ENV_ATTR_PRE, &b);
        EnvSet(envs[6 + i], ENV_ATTR_POST, &b);
        fprintf(out, "  %-13s at -1.5 s: %9.6f   at 3.5 s: %9.6f\n", kBehaviourNames[i], EnvEvaluate(envs[6 + i], -1.5),
                EnvEvaluate(envs[6 + i], 3.5));
    }
    ok &= Check(out, keysHold, "every shape passes through its keys");
    ok &= Check(out, fabs(EnvEvaluate(envs[6 + 2], 2.3) - EnvEvaluate(envs[6 + 2], 0.3)) < 1e-9, "Repeat: one cycle later, the same value");
    ok &= Check(out, fabs(EnvEvaluate(envs[6 + 3], 2.3) - EnvEvaluate(envs[6 + 3], 1.7)) < 1e-9, "Oscillate: the next cycle runs backwards");
    ok &= Check(out, fabs(EnvEvaluate(envs[6 + 4], 4.3) - (EnvEvaluate(envs[6 + 4], 0.3) + 1.5)) < 1e-12,
                "Offset repeat: two cycles later, twice (last - first) more");
    ok &= Check(out, EnvEvaluate(envs[6 + 0], -0.5) == 0.0 && EnvEvaluate(envs[6 + 1], 9.0) == 0.75,
                "Reset gives 0, Constant the end key's value");
    ok &= SaveReloadAndPlot(out, dir, envs);
    DestroyAll(&group);
    return ok;
}
