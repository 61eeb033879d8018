// `vxtool iff dump FILE`: prints the chunk tree of an IFF file.
#include "vxtool.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/iff.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool iff dump FILE\n"
    "\n"
    "Prints the chunk tree of an IFF file: each chunk's ID, nesting level, offset of its\n"
    "header, data length and, for the outer FORM, its form type. Chunks at level 1 and\n"
    "deeper are shown with their sub-chunks when their data is exactly a run of sub-chunks\n"
    "(6-byte headers, 16-bit lengths) whose IDs are capitals, digits and blanks; otherwise\n"
    "as data.\n"
    "Exit status: 0 done, 2 bad command line, 3 unreadable or malformed file.\n";

// A sub-chunk ID as the suite's formats make them: capitals, digits and trailing blanks.
bool LooksLikeId(const uint8_t *p)
{
    if (p[0] == ' ')
        return false;
    for (int i = 0; i < 4; ++i)
        if (!((p[i] >= 'A' && p[i] <= 'Z') || (p[i] >= '0' && p[i] <= '9') || p[i] == ' '))
            return false;
    return true;
}

// Whether `n` bytes at `p` are exactly a run of sub-chunks with 16-bit lengths.
bool HoldsSubChunks(const uint8_t *p, int32_t n)
{
    int64_t pos = 0;
    while (pos + 6 <= n) {
        if (!LooksLikeId(p + pos))
            return false;
        int64_t length = (p[pos + 4] << 8) | p[pos + 5];
        pos += 6 + length + (length & 1);
    }
    return n >= 6 && pos == n;
}

void PrintId(FILE *out, uint32_t id)
{
    uint8_t c[4] = {static_cast<uint8_t>(id >> 24), static_cast<uint8_t>(id >> 16), static_cast<uint8_t>(id >> 8),
                    static_cast<uint8_t>(id)};
    bool printable = true;
    for (uint8_t b : c)
        printable = printable && b >= 0x20 && b <= 0x7E;
    if (printable)
        std::fprintf(out, "'%c%c%c%c'", c[0], c[1], c[2], c[3]);
    else
        std::fprintf(out, "0x%08X", static_cast<unsigned>(id));
}

// Prints the chunks inside the reader's open chunk, descending where they hold sub-chunks.
// Runs inside the caller's checkpoint block: its frames hold nothing to destroy.
void DumpKids(FILE *out, VxIFFReader *r, const uint8_t *file)
{
    for (;;) {
        int32_t header = r->position;
        uint32_t id = IFFRChunkNext(r);
        if (!id)
            return;
        int level = r->depth;
        int32_t length = IFFRChunkLength(r);
        std::fprintf(out, "%*s", 2 * level, "");
        PrintId(out, id);
        std::fprintf(out, "  level %d  offset %d  length %d", level, header, length);
        if (level == 0 && length >= 4) {
            uint32_t type = 0;
            IFFReadLongs(r, &type, 1);
            std::fputs("  type ", out);
            PrintId(out, type);
        }
        std::fputc('\n', out);
        if (level == 0 || (level < VX_IFF_LEVELS - 1 && HoldsSubChunks(file + r->position, length)))
            DumpKids(out, r, file);
        IFFRChunkClose(r);
    }
}

// Walks the whole file; returns 0, or the failure code with the offset in *where.
int DumpTree(FILE *out, const uint8_t *bytes, int32_t size, int32_t *where)
{
    VxReadStrm *s = MemStrmReadCreate(bytes, size, 0);
    VxIFFReader *r = s ? IFFRCreate(s) : nullptr;
    if (!r) {
        StrmReadDestroy(s);
        return VX_ERR_NOMEM;
    }
    int code = 0;
    if (CkptBegin()) {
        code = CkptLatchCode();
    } else {
        DumpKids(out, r, bytes);
        CkptEnd();
    }
    *where = r->position;
    IFFRDestroy(r);
    StrmReadDestroy(s);
    return code;
}

bool ReadWholeFile(const char *path, std::vector<uint8_t> &bytes)
{
    VxReadStrm *s = FileStrmReadOpen(path, nullptr);
    if (!s)
        return false;
    bytes.resize(static_cast<size_t>(s->remaining));
    bool ok = s->readBytes(s, bytes.data(), s->remaining) == static_cast<int32_t>(bytes.size());
    StrmReadDestroy(s);
    return ok;
}

}  // namespace

int IffMain(int argc, char **argv)
{
    if (argc >= 2 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
        std::fputs(kHelp, stdout);
        return kOk;
    }
    if (argc != 3 || std::strcmp(argv[1], "dump") != 0) {
        std::fputs(kHelp, stderr);
        return kUsage;
    }
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(argv[2], bytes)) {
        std::fprintf(stderr, "vxtool iff dump: cannot read '%s'\n", argv[2]);
        return kBadInput;
    }
    if (!vx_iff_dump(stdout, bytes.data(), bytes.size())) {
        std::fprintf(stderr, "vxtool iff dump: '%s' is not a well-formed IFF file\n", argv[2]);
        return kBadInput;
    }
    return kOk;
}

}  // namespace vxtool

extern "C" int vx_iff_dump(FILE *out, const void *data, size_t size)
{
    if (size > INT32_MAX)
        return 0;
    const auto *bytes = static_cast<const uint8_t *>(data);
    int32_t where = 0;
    int code = vxtool::DumpTree(out, bytes, static_cast<int32_t>(size), &where);
    bool form = size >= 12 && std::memcmp(bytes, "FORM", 4) == 0;
    if (code)
        std::fprintf(out, "malformed data near offset %d\n", static_cast<int>(where));
    else if (!form)
        std::fprintf(out, "not an IFF FORM\n");
    return code == 0 && form;
}
