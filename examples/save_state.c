/* A text save state: nested blocks holding a string, an integer, a quoted string and a float
 * are written to <dir>/state.txt, shown, and read back through a load state that finds the
 * blocks by name. */
#include <vxtools3.h>

#include <stdio.h>
#include <string.h>

static const VxBlockDesc kBlocks[] = {{VX_ID('P', 'L', 'U', 'G'), "Entry"}, {VX_ID('C', 'L', 'A', 'S'), "Class"},
                                      {VX_ID('I', 'N', 'F', 'O'), "InfoTag"}, {0, NULL}};
enum { ENTRY, CLASS, TAG };

static int WriteState(const char *path, int32_t word, float scale)
{
    VxWriteStrm *ws = FileStrmWriteText(path);
    VxSaveState save;
    if (!ws)
        return 0;
    StrmInitSaveState(&save, ws);
    save.beginBlock(&save, &kBlocks[ENTRY]);
    save.beginBlock(&save, &kBlocks[CLASS]);
    save.writeString(&save, "ImageFilterHandler");
    save.endBlock(&save);
    save.beginBlock(&save, &kBlocks[TAG]);
    save.writeLongs(&save, &word, 1);
    save.writeString(&save, "Soft \"blur\"");
    save.writeFloats(&save, &scale, 1);
    save.endBlock(&save);
    save.endBlock(&save);
    return StrmWriteDestroy(ws) == 0;
}

static void PrintFile(FILE *out, const char *path)
{
    char line[256];
    FILE *file = fopen(path, "r");
    while (file && fgets(line, sizeof line, file))
        fputs(line, out);
    if (file)
        fclose(file);
}

int save_state_sample(FILE *out, const char *dir)
{
    const int32_t word = 65536;
    const float scale = 0.1f;
    int32_t wordIn = 0;
    float scaleIn = 0;
    char path[4096], className[32] = "", tag[32] = "";
    snprintf(path, sizeof path, "%s/state.txt", dir);
    if (!WriteState(path, word, scale))
        return 0;
    fprintf(out, "a text save state in %s:\n", path);
    PrintFile(out, path);

    VxReadStrm *rs = FileStrmReadOpen(path, NULL);
    VxLoadState load;
    if (!rs)
        return 0;
    StrmInitLoadState(&load, rs);
    int ok = load.findBlock(&load, kBlocks) == kBlocks[ENTRY].id;
    for (uint32_t id; (id = load.findBlock(&load, kBlocks)) != 0; load.endBlock(&load)) {
        if (id == kBlocks[CLASS].id) {
            load.readString(&load, className, sizeof className);
        } else if (id == kBlocks[TAG].id) {
            load.readLongs(&load, &wordIn, 1);
            load.readString(&load, tag, sizeof tag);
            load.readFloats(&load, &scaleIn, 1);
        }
    }
    load.endBlock(&load); /* leaves Entry */
    StrmReadDestroy(rs);
    ok &= strcmp(className, "ImageFilterHandler") == 0 && wordIn == word && strcmp(tag, "Soft \"blur\"") == 0;
    fprintf(out, "read back: class %s, tag %d \"%s\" %g (the float 0.1 reads back to the same bits: %s)\n", className,
            (int)wordIn, tag, (double)scaleIn, scaleIn == scale ? "yes" : "no");
    return ok && scaleIn == scale;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return save_state_sample(stdout, ".") ? 0 : 1; }
#endif
