/* Demo of envelopes: one envelope of each curve shape and one of each pre/post behaviour,
 * checked at their keys and across cycles, saved and loaded through a memory stream, and
 * drawn into an SVG picture in a fresh temporary directory. */
#define _DEFAULT_SOURCE
#include <vxtools3.h>

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { PANELS = 12, SAMPLES = 300, WIDTH = 640, PANEL = 150, MARGIN = 24 };

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
    }
    return env;
}

static int Check(FILE *out, int ok, const char *what)
{
    fprintf(out, "  %-58s %s\n", what, ok ? "ok" : "FAILED");
    return ok;
}

static void PlotPanel(FILE *svg, VxEnvelope *env, int top)
{
    double first = EnvGet(env, ENV_ATTR_FIRST_TIME), last = EnvGet(env, ENV_ATTR_LAST_TIME);
    double range = last - first, t0 = first - range, t1 = last + range, lo = -2.0, hi = 3.0;
    double plotW = WIDTH - 2 * MARGIN, plotH = PANEL - 2 * MARGIN;
    VxEnvKey *k;
    int i;
    fprintf(svg, "<rect x=\"%.2f\" y=\"%d\" width=\"%.2f\" height=\"%.0f\" fill=\"#eef3fb\"/>\n",
            MARGIN + range / (t1 - t0) * plotW, top + MARGIN, range / (t1 - t0) * plotW, plotH);
    fprintf(svg, "<text x=\"%d\" y=\"%d\" font-family=\"sans-serif\" font-size=\"12\">%s</text>\n", MARGIN, top + 16,
            EnvName(env));
    fprintf(svg, "<polyline fill=\"none\" stroke=\"#1f5fbf\" points=\"");
    for (i = 0; i <= SAMPLES; ++i) {
        double t = t0 + (t1 - t0) * i / SAMPLES, v = EnvEvaluate(env, t);
        v = v < lo ? lo : v > hi ? hi : v;
        fprintf(svg, "%s%.2f,%.2f", i ? " " : "", MARGIN + (t - t0) / (t1 - t0) * plotW,
                top + MARGIN + (hi - v) / (hi - lo) * plotH);
    }
    fprintf(svg, "\"/>\n");
    for (k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
        fprintf(svg, "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"3\" fill=\"#d0402b\"/>\n",
                MARGIN + (EnvKeyTime(k) - t0) / (t1 - t0) * plotW,
                top + MARGIN + (hi - EnvKeyValue(k)) / (hi - lo) * plotH);
}

/* Saves `env` as text into memory and loads it into a new envelope; 1 when both evaluate
 * alike at a spread of times. */
static int RoundTrips(VxEnvGroup *group, VxEnvelope *env)
{
    VxWriteStrm *w = MemStrmWriteCreate();
    VxSaveState save;
    VxLoadState load;
    VxReadStrm *r;
    VxEnvelope *copy = EnvCreate(group, 0, 0, NULL);
    int ok = w && copy, i;
    if (ok) {
        StrmInitSaveState(&save, w);
        ok = EnvSave(env, &save);
    }
    r = ok ? MemStrmReadCreate(w->impl, w->length, 1) : NULL;
    if (r) {
        StrmInitLoadState(&load, r);
        ok = EnvLoad(copy, &load);
        for (i = -40; ok && i <= 80; ++i)
            ok = fabs(EnvEvaluate(copy, i * 0.05) - EnvEvaluate(env, i * 0.05)) < 1e-6;
    }
    StrmReadDestroy(r);
    StrmWriteDestroy(w);
    EnvDestroy(copy);
    return ok && r;
}

int vx_demo_env(FILE *out)
{
    VxEnvGroup group;
    VxEnvelope *envs[PANELS];
    char dir[] = "/tmp/vxtool-env-XXXXXX", path[64], name[48];
    int i, ok = 1, keysHold = 1;
    FILE *svg;
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
    ok &= Check(out, RoundTrips(&group, envs[5]) && RoundTrips(&group, envs[6 + 5]),
                "text save and load give the same curves");
    if (!mkdtemp(dir))
        return Check(out, 0, "make a temporary directory");
    snprintf(path, sizeof path, "%s/envelopes.svg", dir);
    svg = fopen(path, "w");
    if (!svg)
        return Check(out, 0, "open the picture");
    fprintf(svg, "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\">\n"
                 "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n", WIDTH, PANEL * PANELS);
    for (i = 0; i < PANELS; ++i)
        PlotPanel(svg, envs[i], PANEL * i);
    fprintf(svg, "</svg>\n");
    ok &= Check(out, fclose(svg) == 0, "write the picture");
    fprintf(out, "  plotted %d envelopes into %s\n", PANELS, path);
    while (group.envelopes.head->succ)
        EnvDestroy((VxEnvelope *)group.envelopes.head);
    return ok;
}
