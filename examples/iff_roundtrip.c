/* Writes a FORM of type SHOT with two chunks to a file in a temporary directory, reads it back. */
#define _POSIX_C_SOURCE 200809L
#include <vxtools3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { SHOT = VX_ID('S', 'H', 'O', 'T'), NAME = VX_ID('N', 'A', 'M', 'E'), FRMS = VX_ID('F', 'R', 'M', 'S') };

static int WriteShot(const char *path, const char *name, const int32_t frames[2])
{
    VxWriteStrm *out = FileStrmWriteOpen(path);
    VxIFFWriter *writer = out ? IFFWCreate(out) : NULL;
    if (writer) { /* stream errors are sticky: checking once at the end is enough */
        IFFWChunkOpen(writer, VX_ID('F', 'O', 'R', 'M'), SHOT);
        IFFWChunkOpen(writer, NAME, 0);
        IFFWriteString(writer, name);
        IFFWChunkClose(writer);
        IFFWChunkOpen(writer, FRMS, 0);
        IFFWriteLongs(writer, frames, 2);
        IFFWChunkClose(writer);
        IFFWChunkClose(writer); /* patches the FORM's length */
    }
    IFFWDestroy(writer);
    return writer && StrmWriteDestroy(out) == 0; /* 0: every byte reached the file */
}

static int ReadShot(const char *path, char name[32], int32_t frames[2]) /* chunks read, or -error */
{
    VxReadStrm *in = FileStrmReadOpen(path, NULL);
    VxIFFReader *reader = in ? IFFRCreate(in) : NULL;
    int chunks = 0;
    const uint32_t wanted[] = {NAME, FRMS, 0};
    if (reader)
        IFFRFormType(reader, SHOT); /* another form type fails with VX_ERR_FORMAT */
    for (uint32_t id; reader && (id = IFFRParse(reader, wanted)) != 0;) /* each parse closes the last chunk */
        chunks += id == NAME ? IFFReadString(reader, name, 32, 1) == 1 : IFFReadLongs(reader, frames, 2) == 2;
    if (reader && reader->error) /* no checkpoint block is open, so failures return 0 */
        chunks = -reader->error;
    IFFRDestroy(reader);
    StrmReadDestroy(in);
    return chunks;
}

int main(void)
{
    char dir[] = "/tmp/vx-iff-XXXXXX", path[64], name[32] = "";
    if (!mkdtemp(dir))
        return 1;
    snprintf(path, sizeof path, "%s/shot.iff", dir);
    const int32_t frames[2] = {120, 480};
    int32_t back[2] = {0, 0};
    int wrote = WriteShot(path, "chase", frames), chunks = ReadShot(path, name, back);
    printf("wrote %s: %s\nread %d chunks: \"%s\", frames %d to %d\n", path, wrote ? "ok" : "failed", chunks, name,
           (int)back[0], (int)back[1]);
    unlink(path);
    rmdir(dir);
    return wrote && chunks == 2 && strcmp(name, "chase") == 0 && back[0] == 120 && back[1] == 480 ? 0 : 1;
}
