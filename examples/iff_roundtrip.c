/* Writes a FORM of type SCNE with nested chunks to <dir>/scene.iff and reads it back: a
 * property handler keeps the scene's NAME on the way to the OBJS stop chunk, whose sub-chunks
 * are then read one by one, and the rest of the form is skipped. */
#include <vxtools3.h>

#include <stdio.h>
#include <string.h>

enum { SCNE = VX_ID('S', 'C', 'N', 'E'), NAME = VX_ID('N', 'A', 'M', 'E'), OBJS = VX_ID('O', 'B', 'J', 'S'),
       KEYS = VX_ID('K', 'E', 'Y', 'S') };

/* FORM SCNE { NAME "demo", OBJS { KEYS (3 floats), NAME "cube" }, KEYS (3 bytes: odd length) } */
static int WriteScene(const char *path)
{
    const float keys[3] = {0.0f, 0.5f, 1.25f};
    const uint8_t odd[3] = {1, 2, 3};
    VxWriteStrm *out = FileStrmWriteOpen(path);
    VxIFFWriter *w = out ? IFFWCreate(out) : NULL;
    if (w) { /* stream errors are sticky: checking once at the end is enough */
        IFFWChunkOpen(w, VX_ID('F', 'O', 'R', 'M'), SCNE);
        IFFWChunkOpen(w, NAME, 0);
        IFFWriteString(w, "demo");
        IFFWChunkClose(w);
        IFFWChunkOpen(w, OBJS, 0);
        IFFWChunkOpen(w, KEYS, 0);
        IFFWriteFloats(w, keys, 3);
        IFFWChunkClose(w);
        IFFWChunkOpen(w, NAME, 0);
        IFFWriteString(w, "cube");
        IFFWChunkClose(w);
        IFFWChunkClose(w); /* patches OBJS's length */
        IFFWChunkOpen(w, KEYS, 0);
        IFFWriteBytes(w, odd, 3);
        IFFWChunkClose(w); /* adds the pad byte */
        IFFWChunkClose(w);
    }
    IFFWDestroy(w);
    return w && StrmWriteDestroy(out) == 0; /* 0: every byte reached the file */
}

/* Property handler: its result (a copy of the name) is kept until the reader is destroyed. */
static void *KeepName(VxIFFReader *reader, void *user, uint32_t id)
{
    char name[32];
    (void)user, (void)id;
    IFFReadString(reader, name, sizeof name, 1);
    return StringCopy(name);
}

static void FreeName(void *result, void *user)
{
    (void)user;
    StringFree(result);
}

int iff_roundtrip_sample(FILE *out, const char *dir)
{
    static const uint32_t stops[] = {OBJS, 0};
    char path[4096], name[16] = "";
    float keys[3] = {0, 0, 0};
    snprintf(path, sizeof path, "%s/scene.iff", dir);
    int wrote = WriteScene(path);
    VxReadStrm *in = FileStrmReadOpen(path, NULL);
    VxIFFReader *r = in ? IFFRCreate(in) : NULL;
    if (!wrote || !r) {
        StrmReadDestroy(in);
        return 0;
    }
    IFFRFormType(r, SCNE); /* another form type fails with VX_ERR_FORMAT */
    IFFRSetProp(r, NAME, KeepName, FreeName, NULL);
    int stopped = IFFRParse(r, stops) == OBJS; /* no checkpoint block is open, so failures return 0 */
    const char *scene = IFFRGetProp(r, NAME);
    for (uint32_t id; (id = IFFRChunkNext(r)) != 0; IFFRChunkClose(r)) {
        if (id == KEYS)
            IFFReadFloats(r, keys, 3);
        else if (id == NAME)
            IFFReadString(r, name, sizeof name, 1);
    }
    fprintf(out, "wrote %s; read back scene \"%s\", whose OBJS holds \"%s\" with keys %g %g %g\n", path,
            scene ? scene : "?", name, keys[0], keys[1], keys[2]);
    int ok = stopped && scene && strcmp(scene, "demo") == 0 && keys[2] == 1.25f && strcmp(name, "cube") == 0;
    ok &= IFFRParse(r, stops) == 0 && r->error == 0; /* the rest of the form is skipped cleanly */
    IFFRDestroy(r);
    StrmReadDestroy(in);
    return ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return iff_roundtrip_sample(stdout, ".") ? 0 : 1; }
#endif
