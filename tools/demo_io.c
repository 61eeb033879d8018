/* Demo of streams, IFF files and save states: a FORM with nested chunks written to a file,
 * its tree printed as `vxtool iff dump` prints it, then read back with a property handler and
 * a stop chunk; then a small text save state, written to a file and read back. */
#include <vxtools3.h>
#include "vxtool_c.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define ID_SCNE VX_ID('S', 'C', 'N', 'E')
#define ID_NAME VX_ID('N', 'A', 'M', 'E')
#define ID_OBJS VX_ID('O', 'B', 'J', 'S')
#define ID_KEYS VX_ID('K', 'E', 'Y', 'S')

static int g_ok;

static int Check(FILE *out, int holds, const char *what)
{
    fprintf(out, "  check: %s ... %s\n", what, holds ? "ok" : "FAILED");
    g_ok = g_ok && holds;
    return holds;
}

/* Writes FORM SCNE { NAME "demo", OBJS { KEYS (3 floats), NAME "cube" }, KEYS (odd bytes) }. */
static void WriteScene(VxIFFWriter *w)
{
    const float keys[3] = {0.0f, 0.5f, 1.25f};
    const uint8_t odd[3] = {1, 2, 3};
    IFFWChunkOpen(w, VX_ID('F', 'O', 'R', 'M'), ID_SCNE);
    IFFWChunkOpen(w, ID_NAME, 0);
    IFFWriteString(w, "demo");
    IFFWChunkClose(w);
    IFFWChunkOpen(w, ID_OBJS, 0);
    IFFWChunkOpen(w, ID_KEYS, 0);
    IFFWriteFloats(w, keys, 3);
    IFFWChunkClose(w);
    IFFWChunkOpen(w, ID_NAME, 0);
    IFFWriteString(w, "cube");
    IFFWChunkClose(w);
    IFFWChunkClose(w);
    IFFWChunkOpen(w, ID_KEYS, 0);
    IFFWriteBytes(w, odd, 3);
    IFFWChunkClose(w);
    IFFWChunkClose(w);
}

/* Property handler: keeps a copy of the scene name. */
static void *KeepName(VxIFFReader *reader, void *user, uint32_t id)
{
    char name[32];
    (void)user;
    (void)id;
    IFFReadString(reader, name, sizeof name, 1);
    return StringCopy(name);
}

static void FreeName(void *result, void *user)
{
    (void)user;
    StringFree((char *)result);
}

/* Reads the whole of `path` into a heap block of *size bytes; NULL when it cannot. */
static void *ReadFile(const char *path, size_t *size)
{
    VxReadStrm *s = FileStrmReadOpen(path, NULL);
    const int32_t length = s ? s->remaining : 0;
    void *bytes = s ? malloc((size_t)length + 1) : NULL;
    *size = (size_t)length;
    if (bytes && s->readBytes(s, bytes, length) != length) {
        free(bytes);
        bytes = NULL;
    }
    StrmReadDestroy(s);
    return bytes;
}

/* Reads scene.iff back: the NAME property on the way to the OBJS stop chunk, then OBJS's
 * sub-chunks, then the rest of the form skipped. */
static void ReadScene(FILE *out, const char *path)
{
    static const uint32_t stops[] = {ID_OBJS, 0};
    VxReadStrm *rs = FileStrmReadOpen(path, NULL);
    VxIFFReader *r = rs ? IFFRCreate(rs) : NULL;
    uint32_t kid;
    float keys[3] = {0, 0, 0};
    char name[16] = "";
    if (!r) {
        Check(out, 0, "scene.iff opens for reading");
        StrmReadDestroy(rs);
        return;
    }
    IFFRFormType(r, ID_SCNE);
    IFFRSetProp(r, ID_NAME, KeepName, FreeName, NULL);
    Check(out, IFFRParse(r, stops) == ID_OBJS, "IFFRParse stops at OBJS");
    Check(out, IFFRGetProp(r, ID_NAME) && strcmp((char *)IFFRGetProp(r, ID_NAME), "demo") == 0,
          "the NAME handler kept \"demo\" on the way");
    while ((kid = IFFRChunkNext(r)) != 0) {
        if (kid == ID_KEYS)
            IFFReadFloats(r, keys, 3);
        else if (kid == ID_NAME)
            IFFReadString(r, name, sizeof name, 1);
        IFFRChunkClose(r);
    }
    fprintf(out, "  OBJS holds \"%s\" with keys %g %g %g\n", name, keys[0], keys[1], keys[2]);
    Check(out, keys[2] == 1.25f && strcmp(name, "cube") == 0, "sub-chunks read back");
    Check(out, IFFRParse(r, stops) == 0 && r->error == 0, "the rest of the form is skipped cleanly");
    IFFRDestroy(r);
    StrmReadDestroy(rs);
}

static void DemoIff(FILE *out, const char *dir)
{
    char path[4096];
    VxWriteStrm *ws;
    VxIFFWriter *w;
    void *bytes;
    size_t size;
    snprintf(path, sizeof path, "%s/scene.iff", dir);
    ws = FileStrmWriteOpen(path);
    w = ws ? IFFWCreate(ws) : NULL;
    if (w)
        WriteScene(w);
    IFFWDestroy(w);
    if (!Check(out, w && StrmWriteDestroy(ws) == 0, "scene.iff written through a file stream"))
        return;
    bytes = ReadFile(path, &size);
    fprintf(out, "wrote %s, a FORM of %d bytes; `vxtool iff dump` shows:\n", path, (int)size);
    Check(out, bytes && vx_iff_dump(out, bytes, size), "the dump walks every chunk");
    free(bytes);
    ReadScene(out, path);
}

static const VxBlockDesc kEntry = {VX_ID('P', 'L', 'U', 'G'), "Entry"};
static const VxBlockDesc kClass = {VX_ID('C', 'L', 'A', 'S'), "Class"};
static const VxBlockDesc kTag = {VX_ID('I', 'N', 'F', 'O'), "InfoTag"};

static void DemoTextState(FILE *out, const char *dir)
{
    static const VxBlockDesc known[] = {{VX_ID('P', 'L', 'U', 'G'), "Entry"}, {VX_ID('C', 'L', 'A', 'S'), "Class"},
                                        {VX_ID('I', 'N', 'F', 'O'), "InfoTag"}, {0, NULL}};
    char path[4096];
    VxWriteStrm *ws;
    VxSaveState save;
    VxLoadState load;
    VxReadStrm *rs;
    const int32_t word = 65536;
    const float scale = 0.1f;
    int32_t wordIn = 0;
    float scaleIn = 0;
    char className[32] = "", tag[32] = "";
    uint32_t id;
    void *text;
    size_t size;

    snprintf(path, sizeof path, "%s/state.txt", dir);
    ws = FileStrmWriteText(path);
    if (!Check(out, ws != NULL, "state.txt opens for writing"))
        return;
    StrmInitSaveState(&save, ws);
    save.beginBlock(&save, &kEntry);
    save.beginBlock(&save, &kClass);
    save.writeString(&save, "ImageFilterHandler");
    save.endBlock(&save);
    save.beginBlock(&save, &kTag);
    save.writeLongs(&save, &word, 1);
    save.writeString(&save, "Soft \"blur\"");
    save.writeFloats(&save, &scale, 1);
    save.endBlock(&save);
    save.endBlock(&save);
    if (!Check(out, StrmWriteDestroy(ws) == 0, "state.txt written"))
        return;
    text = ReadFile(path, &size);
    fprintf(out, "a text save state in %s:\n%.*s", path, text ? (int)size : 0, text ? (const char *)text : "");
    free(text);

    rs = FileStrmReadOpen(path, NULL);
    if (!Check(out, rs != NULL, "state.txt opens for reading"))
        return;
    StrmInitLoadState(&load, rs);
    Check(out, load.findBlock(&load, known) == kEntry.id, "the load state finds Entry");
    while ((id = load.findBlock(&load, known)) != 0) {
        if (id == kClass.id) {
            load.readString(&load, className, sizeof className);
        } else if (id == kTag.id) {
            load.readLongs(&load, &wordIn, 1);
            load.readString(&load, tag, sizeof tag);
            load.readFloats(&load, &scaleIn, 1);
        }
        load.endBlock(&load);
    }
    load.endBlock(&load);
    Check(out, strcmp(className, "ImageFilterHandler") == 0 && wordIn == 65536 && strcmp(tag, "Soft \"blur\"") == 0,
          "strings and integers read back");
    Check(out, scaleIn == scale, "the float 0.1 reads back to the same bits");
    StrmReadDestroy(rs);
}

int vx_demo_io(FILE *out, const char *dir)
{
    g_ok = 1;
    DemoIff(out, dir);
    DemoTextState(out, dir);
    return g_ok;
}
