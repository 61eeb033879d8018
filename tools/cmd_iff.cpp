// `vxtool iff dump FILE [--json]`: prints the chunk tree of an IFF file.
#include "json.h"
#include "vxtool.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/iff.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool iff dump FILE [--json]\n"
    "\n"
    "Prints the chunk tree of an IFF file: each chunk's ID, nesting level, offset of its\n"
    "header, data length and, for the outer FORM, its form type. Chunks at level 1 and\n"
    "deeper are shown with their sub-chunks when their data is exactly a run of sub-chunks\n"
    "(6-byte headers, 16-bit lengths) whose IDs are capitals, digits and blanks; otherwise\n"
    "as data. --json prints the same tree as nested objects:\n"
    "  {\"file\": ..., \"chunks\": [{\"id\", \"offset\", \"length\", [\"type\"], [\"chunks\"]}]}\n"
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

// One chunk of the tree, in the order the walk meets them (parents before their children).
struct ChunkRow {
    uint32_t id;
    int level;
    int32_t offset;   // of the chunk's header
    int32_t length;   // of its data
    uint32_t type;    // the form type of a level-0 chunk, else 0
};

// What a walk over a whole file found: the chunks, and what stopped it if it is malformed.
struct Tree {
    std::vector<ChunkRow> rows;
    std::string problem;  // empty when the data is a well-formed FORM
};

std::string IdText(uint32_t id)
{
    const char c[4] = {static_cast<char>(id >> 24), static_cast<char>(id >> 16), static_cast<char>(id >> 8),
                       static_cast<char>(id)};
    bool printable = true;
    for (char b : c)
        printable = printable && b >= 0x20 && b <= 0x7E;
    if (printable)
        return std::string(c, 4);
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned>(id));
    return hex;
}

// Records the chunks inside the reader's open chunk, descending where they hold sub-chunks.
// Runs inside the caller's checkpoint block: its frames hold nothing to destroy, and `rows`
// lives outside the block.
void WalkKids(std::vector<ChunkRow> *rows, VxIFFReader *r, const uint8_t *file)
{
    for (;;) {
        const int32_t header = r->position;
        const uint32_t id = IFFRChunkNext(r);
        if (!id)
            return;
        ChunkRow row{id, r->depth, header, IFFRChunkLength(r), 0};
        if (row.level == 0 && row.length >= 4)
            IFFReadLongs(r, &row.type, 1);
        rows->push_back(row);
        if (row.level == 0 || (row.level < VX_IFF_LEVELS - 1 && HoldsSubChunks(file + r->position, row.length)))
            WalkKids(rows, r, file);
        IFFRChunkClose(r);
    }
}

Tree WalkTree(const uint8_t *bytes, size_t size)
{
    Tree tree;
    if (size > INT32_MAX) {
        tree.problem = "larger than an IFF file can be";
        return tree;
    }
    VxReadStrm *s = MemStrmReadCreate(bytes, static_cast<int32_t>(size), 0);
    VxIFFReader *r = s ? IFFRCreate(s) : nullptr;
    if (!r) {
        StrmReadDestroy(s);
        tree.problem = "out of memory";
        return tree;
    }
    if (CkptBegin()) {
        tree.problem = "malformed chunk near offset " + std::to_string(r->position);
    } else {
        WalkKids(&tree.rows, r, bytes);
        CkptEnd();
    }
    IFFRDestroy(r);
    StrmReadDestroy(s);
    if (tree.problem.empty() && (size < 12 || std::memcmp(bytes, "FORM", 4) != 0))
        tree.problem = "not an IFF FORM";
    return tree;
}

// An ID as text for the tree: 'ABCD' when printable, else its hexadecimal value.
std::string QuotedId(uint32_t id)
{
    const std::string text = IdText(id);
    return text.size() == 4 ? "'" + text + "'" : text;
}

void PrintText(FILE *out, const Tree &tree)
{
    for (const ChunkRow &row : tree.rows) {
        std::fprintf(out, "%*s%s  level %d  offset %d  length %d", 2 * row.level, "", QuotedId(row.id).c_str(),
                     row.level, row.offset, row.length);
        if (row.level == 0 && row.length >= 4)
            std::fprintf(out, "  type %s", QuotedId(row.type).c_str());
        std::fputc('\n', out);
    }
}

// Prints rows[i] and the rows below it as JSON objects; returns the index after them.
size_t PrintJsonChunk(const std::vector<ChunkRow> &rows, size_t i, int indent)
{
    const ChunkRow &row = rows[i];
    std::printf("%*s{\"id\": %s, \"offset\": %d, \"length\": %d", indent, "", JsonString(IdText(row.id).c_str()).c_str(),
                row.offset, row.length);
    if (row.level == 0 && row.length >= 4)
        std::printf(", \"type\": %s", JsonString(IdText(row.type).c_str()).c_str());
    size_t next = i + 1;
    if (next < rows.size() && rows[next].level > row.level) {
        std::printf(", \"chunks\": [\n");
        while (next < rows.size() && rows[next].level > row.level) {
            if (next != i + 1)
                std::printf(",\n");
            next = PrintJsonChunk(rows, next, indent + 2);
        }
        std::printf("\n%*s]", indent, "");
    }
    std::printf("}");
    return next;
}

void PrintJson(const char *path, const Tree &tree)
{
    std::printf("{\"file\": %s, \"chunks\": [\n", JsonString(path).c_str());
    for (size_t i = 0; i < tree.rows.size();) {
        if (i)
            std::printf(",\n");
        i = PrintJsonChunk(tree.rows, i, 2);
    }
    std::printf("\n]}\n");
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
    if (argc < 2 || std::strcmp(argv[1], "dump") != 0)
        return ReportUsageError("iff", argc < 2 ? "wants a subcommand: dump" : std::string("unknown subcommand '") + argv[1] + "'");
    const char *path = nullptr;
    bool json = false;
    for (int i = 2; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--json"))
            json = true;
        else if (argv[i][0] == '-' && argv[i][1])
            return ReportUsageError("iff", std::string("unknown option '") + argv[i] + "'");
        else if (!path)
            path = argv[i];
        else
            return ReportUsageError("iff", std::string("unexpected argument '") + argv[i] + "'");
    }
    if (!path)
        return ReportUsageError("iff", "dump wants a FILE");
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, bytes)) {
        std::fprintf(stderr, "vxtool iff: %s: cannot read the file\n", path);
        return kBadInput;
    }
    const Tree tree = WalkTree(bytes.data(), bytes.size());
    if (!tree.problem.empty()) {
        if (!json)
            PrintText(stdout, tree);
        std::fflush(stdout);  // the chunks that were sound come before the complaint
        std::fprintf(stderr, "vxtool iff: %s: %s\n", path, tree.problem.c_str());
        return kBadInput;
    }
    if (json)
        PrintJson(path, tree);
    else
        PrintText(stdout, tree);
    return kOk;
}

}  // namespace vxtool

extern "C" int vx_iff_dump(FILE *out, const void *data, size_t size)
{
    const vxtool::Tree tree = vxtool::WalkTree(static_cast<const uint8_t *>(data), size);
    vxtool::PrintText(out, tree);
    if (!tree.problem.empty())
        std::fprintf(out, "%s\n", tree.problem.c_str());
    return tree.problem.empty();
}
