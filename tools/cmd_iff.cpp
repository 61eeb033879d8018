// `vxtool iff`: the chunk tree of an IFF file, one chunk's data extracted or shown in hex.
// Files are walked through a read stream, skipping chunk data, so memory does not grow with
// the file.
#include "json.h"
#include "vxtool.h"

#include <vxtools3/streams.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool iff dump FILE [--json] [--sub-chunks]\n"
    "       vxtool iff extract FILE PATH -o OUT\n"
    "       vxtool iff hex FILE PATH [--bytes N]\n"
    "\n"
    "  dump     prints the chunk tree: each chunk's ID, nesting level, the offset of its\n"
    "           header and its data length. Groups (FORM, LIST, CAT and PROP, at any depth)\n"
    "           show their type and the chunks they hold; every other chunk is data.\n"
    "           --sub-chunks also opens a FORM's chunks whose data (up to 1 MiB) is exactly a\n"
    "           run of the suite's sub-chunks (6-byte headers, 16-bit lengths), as the\n"
    "           library's IFF writer makes them below level 1. --json prints\n"
    "           {\"file\": ..., \"chunks\": [{\"id\", \"offset\", \"length\", [\"type\"], [\"chunks\"]}]}\n"
    "           with \"problem\" after the sound chunks of a malformed file.\n"
    "  extract  writes one chunk's data (the bytes after its header, pad excluded; a group's\n"
    "           data begins with its type) to OUT\n"
    "  hex      prints one chunk's data as hex and text, 16 bytes a line, at their file\n"
    "           offsets: the first 512 bytes, or N with --bytes N (0 for all)\n"
    "\n"
    "PATH names a chunk from the top of the file, steps separated by '/'. A step is a\n"
    "chunk's index among its siblings (0 is the first) or its ID, with .TYPE to pick a group\n"
    "by type and [K] for the K-th (from 0) of that name; blanks that end an ID may be left\n"
    "out. Examples: FORM.ILBM/BODY, LIST.ILBM/FORM.ILBM[2]/CMAP, CAT/0, 0/3.\n"
    "\n"
    "Exit status: 0 done, 1 OUT could not be written, 2 bad command line, 3 the file is\n"
    "missing, unreadable or malformed, or holds no chunk at PATH.\n";

constexpr uint32_t kForm = 0x464F524D, kList = 0x4C495354, kCat = 0x43415420, kProp = 0x50524F50;
constexpr int kMaxDepth = 64;                 // deeper nesting is taken as a malformed file
constexpr uint32_t kSubChunkLimit = 1 << 20;  // --sub-chunks reads chunks up to this size

bool IsGroup(uint32_t id) { return id == kForm || id == kList || id == kCat || id == kProp; }

uint32_t BigEndian32(const uint8_t *p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// An ID as text: its four characters when printable, else its hexadecimal value.
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

std::string QuotedId(uint32_t id)
{
    const std::string text = IdText(id);
    return text.size() == 4 ? "'" + text + "'" : text;
}

struct Chunk {
    uint32_t id;
    uint32_t type;    // a group's type, else 0
    bool group;
    int level;
    int64_t offset;   // of the header
    uint32_t length;  // of the data
};

// A read stream with the count of bytes consumed, which is the file offset.
class Reader {
public:
    explicit Reader(VxReadStrm *s) : s_(s) {}
    int64_t Position() const { return pos_; }
    int64_t End() const { return pos_ + s_->remaining; }
    bool Read(void *buf, int32_t n)
    {
        if (s_->readBytes(s_, buf, n) != n)
            return false;
        pos_ += n;
        return true;
    }
    bool SkipTo(int64_t offset)
    {
        if (offset > pos_ && s_->skip(s_, offset - pos_) != 0)
            return false;
        pos_ = std::max(pos_, offset);
        return true;
    }

private:
    VxReadStrm *s_;
    int64_t pos_ = 0;
};

class Visitor {
public:
    enum Action { kSkip, kEnter, kStop };
    virtual ~Visitor() = default;
    // A chunk met at its header; the reader stands at its data (after a group's type).
    virtual Action Visit(const Chunk &chunk, Reader &reader) = 0;
    // After the chunks of a group that was entered.
    virtual void Leave(const Chunk &) {}
};

// Walks the chunks of a file in order, entering the groups the visitor asks for. `problem`
// says what stopped the walk when the file is malformed or cannot be read.
class Walker {
public:
    Walker(Reader &reader, Visitor &visitor) : r_(reader), v_(visitor) {}

    std::string Walk()
    {
        const int64_t end = r_.End();
        uint8_t head[4] = {};
        if (end < 12 || !r_.Read(head, 4) || !IsGroup(BigEndian32(head)) || BigEndian32(head) == kProp) {
            problem_ = end < 12 ? "not an IFF file (" + std::to_string(end) + " bytes)"
                                : "not an IFF file (it begins with " + QuotedId(BigEndian32(head)) +
                                      ", not FORM, LIST or CAT)";
            return problem_;
        }
        Chunks(0, end, nullptr, BigEndian32(head));
        return problem_;
    }

private:
    // The chunks from the reader's place to `end`, at `level` inside `parent` (null at the
    // top). `firstId`, when not 0, is the ID of the first chunk, already read. False to stop.
    bool Chunks(int level, int64_t end, const Chunk *parent, uint32_t firstId)
    {
        while (end - r_.Position() >= 8 || (firstId && end - r_.Position() >= 4)) {
            if (!OneChunk(level, end, parent, firstId))
                return false;
            firstId = 0;
        }
        return r_.SkipTo(end) || Fail("cannot read the file at offset " + std::to_string(r_.Position()));
    }

    bool OneChunk(int level, int64_t end, const Chunk *parent, uint32_t knownId)
    {
        Chunk c{};
        c.offset = r_.Position() - (knownId ? 4 : 0);
        c.level = level;
        uint8_t head[8];
        const int32_t want = knownId ? 4 : 8;
        if (!r_.Read(head + 8 - want, want))
            return Fail("cannot read the file at offset " + std::to_string(r_.Position()));
        c.id = knownId ? knownId : BigEndian32(head);
        c.length = BigEndian32(head + 4);
        c.group = IsGroup(c.id) && c.length >= 4;
        const int64_t dataEnd = r_.Position() + c.length;
        if (dataEnd > end) {
            const std::string where = parent ? "its group " + QuotedId(parent->id) : std::string("the file");
            Fail(QuotedId(c.id) + " at offset " + std::to_string(c.offset) + ": its " + std::to_string(c.length) +
                 " bytes run past the end of " + where + " (" + std::to_string(end - r_.Position()) + " left)");
            if (!c.group || dataEnd <= r_.End())
                return false;
            // A group cut short by the end of the file: its chunks up to there are still shown.
        }
        const int64_t groupEnd = std::min(dataEnd, end);
        if (c.group) {
            if (!r_.Read(head, 4))
                return Fail("cannot read the file at offset " + std::to_string(r_.Position()));
            c.type = BigEndian32(head);
        }
        const Visitor::Action action = v_.Visit(c, r_);
        if (action == Visitor::kStop)
            return false;
        if (c.group && action == Visitor::kEnter) {
            if (level + 1 >= kMaxDepth)
                return Fail("groups nested deeper than " + std::to_string(kMaxDepth) + " levels at offset " +
                            std::to_string(c.offset));
            const bool whole = Chunks(level + 1, groupEnd, &c, 0);
            v_.Leave(c);
            if (!whole)
                return false;
        }
        if (!problem_.empty())
            return false;
        // The pad byte of an odd chunk; a file may end without the last one.
        const int64_t next = std::min(dataEnd + (c.length & 1), end);
        return r_.SkipTo(next) || Fail("cannot read the file at offset " + std::to_string(r_.Position()));
    }

    bool Fail(const std::string &problem)
    {
        if (problem_.empty())
            problem_ = problem;
        return false;
    }

    Reader &r_;
    Visitor &v_;
    std::string problem_;
};

// ---- dump --------------------------------------------------------------------------------

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
bool HoldsSubChunks(const uint8_t *p, int64_t n)
{
    int64_t pos = 0;
    while (pos + 6 <= n) {
        if (!LooksLikeId(p + pos))
            return false;
        const int64_t length = (p[pos + 4] << 8) | p[pos + 5];
        pos += 6 + length + (length & 1);
    }
    return n >= 6 && pos == n;
}

// Prints the tree as text or JSON as the walk meets the chunks.
class DumpVisitor : public Visitor {
public:
    DumpVisitor(FILE *out, bool json, bool subChunks) : out_(out), json_(json), subChunks_(subChunks) {}

    Action Visit(const Chunk &c, Reader &r) override
    {
        Open(c);
        if (c.group)
            return kEnter;
        const bool inForm = open_.size() >= 2 && open_[open_.size() - 2].id == kForm;
        if (subChunks_ && inForm && c.length >= 6 && c.length <= kSubChunkLimit) {
            std::vector<uint8_t> data(c.length);
            if (r.Read(data.data(), static_cast<int32_t>(c.length)) && HoldsSubChunks(data.data(), c.length))
                SubChunks(data.data(), c.length, c.level + 1, c.offset + 8);
        }
        Close();
        return kSkip;
    }

    void Leave(const Chunk &) override { Close(); }

    // Closes what a stopped walk left open, and the JSON list of top-level chunks.
    void Finish()
    {
        while (!open_.empty())
            Close();
        if (json_)
            std::fputs(topLevel_ ? "\n]" : "]", out_);
    }

private:
    struct Open_ {
        uint32_t id;
        bool group;
        int children;  // printed so far
    };

    void Open(const Chunk &c)
    {
        if (!json_) {
            std::fprintf(out_, "%*s%s  level %d  offset %lld  length %u", 2 * c.level, "", QuotedId(c.id).c_str(),
                         c.level, static_cast<long long>(c.offset), c.length);
            if (c.group)
                std::fprintf(out_, "  type %s", QuotedId(c.type).c_str());
            std::fputc('\n', out_);
        } else {
            int &siblings = open_.empty() ? topLevel_ : open_.back().children;
            std::fputs(siblings++ ? ",\n" : open_.empty() ? "\n" : ", \"chunks\": [\n", out_);
            std::fprintf(out_, "%*s{\"id\": %s, \"offset\": %lld, \"length\": %u", Indent(), "",
                         JsonString(IdText(c.id).c_str()).c_str(), static_cast<long long>(c.offset), c.length);
            if (c.group)
                std::fprintf(out_, ", \"type\": %s", JsonString(IdText(c.type).c_str()).c_str());
        }
        open_.push_back({c.id, c.group, 0});
    }

    // Ends the chunk opened last: its list of chunks (empty for a group without any), then
    // its object.
    void Close()
    {
        const Open_ last = open_.back();
        open_.pop_back();
        if (!json_)
            return;
        if (last.children)
            std::fprintf(out_, "\n%*s]", Indent(), "");
        else if (last.group)
            std::fputs(", \"chunks\": []", out_);
        std::fputc('}', out_);
    }

    int Indent() const { return 2 * static_cast<int>(open_.size()) + 2; }

    // The suite's sub-chunks held in memory, descending where their data holds more.
    void SubChunks(const uint8_t *p, int64_t n, int level, int64_t offset)
    {
        for (int64_t pos = 0; pos + 6 <= n;) {
            const auto length = static_cast<uint32_t>((p[pos + 4] << 8) | p[pos + 5]);
            Open(Chunk{BigEndian32(p + pos), 0, false, level, offset + pos, length});
            if (level + 1 < kMaxDepth && HoldsSubChunks(p + pos + 6, length))
                SubChunks(p + pos + 6, length, level + 1, offset + pos + 6);
            Close();
            pos += 6 + length + (length & 1);
        }
    }

    FILE *out_;
    bool json_, subChunks_;
    std::vector<Open_> open_;  // the chunks open at each level
    int topLevel_ = 0;         // JSON: top-level chunks printed so far
};

// ---- extract and hex ---------------------------------------------------------------------

// One step of a PATH: an index among the siblings, or an ID (and a group's type) with the
// occurrence of that name.
struct Step {
    int64_t index = -1;
    std::string id, type;
    int64_t occurrence = 0;
};

std::string TrimmedId(uint32_t id)
{
    std::string text = IdText(id);
    while (text.size() > 1 && text.back() == ' ')
        text.pop_back();
    return text;
}

bool ParseCount(const std::string &text, int64_t &out)
{
    if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    out = std::stoll(text);
    return true;
}

bool ParsePath(const std::string &path, std::vector<Step> &steps)
{
    size_t start = 0;
    while (start <= path.size()) {
        const size_t slash = std::min(path.find('/', start), path.size());
        std::string word = path.substr(start, slash - start);
        Step step;
        if (!ParseCount(word, step.index)) {
            const size_t bracket = word.find('[');
            if (bracket != std::string::npos) {
                if (word.back() != ']' || !ParseCount(word.substr(bracket + 1, word.size() - bracket - 2), step.occurrence))
                    return false;
                word.resize(bracket);
            }
            const size_t dot = word.find('.', 1);
            step.id = word.substr(0, dot);
            step.type = dot == std::string::npos ? "" : word.substr(dot + 1);
            auto trim = [](std::string &s) { s.erase(s.find_last_not_of(' ') + 1); };
            trim(step.id);
            trim(step.type);
            if (step.id.empty() || step.id.size() > 4 || step.type.size() > 4 || (dot != std::string::npos && step.type.empty()))
                return false;
        }
        steps.push_back(step);
        start = slash + 1;
    }
    return !steps.empty();
}

// Finds the chunk a PATH names and hands its data to `Take`.
class PathVisitor : public Visitor {
public:
    explicit PathVisitor(std::vector<Step> steps) : steps_(std::move(steps)), seen_(steps_.size()) {}
    bool Found() const { return found_; }
    const std::string &Problem() const { return problem_; }

    Action Visit(const Chunk &c, Reader &r) override
    {
        const size_t depth = static_cast<size_t>(c.level);
        if (found_ || depth >= steps_.size() || !Matches(c, depth))
            return found_ ? kStop : kSkip;
        if (depth + 1 < steps_.size()) {
            if (!c.group) {
                problem_ = QuotedId(c.id) + " at offset " + std::to_string(c.offset) + " holds no chunks";
                return kStop;
            }
            seen_[depth + 1] = Seen{};
            return kEnter;
        }
        found_ = true;
        Take(c, r);
        return kStop;
    }

protected:
    // Consumes the chunk's data; false (with problem_ set) when that failed.
    virtual bool Take(const Chunk &c, Reader &r) = 0;

    // Reads the chunk's data in pieces, a group's type first, and gives each to `use`.
    template <class Use>
    bool ForEachPiece(const Chunk &c, Reader &r, int64_t limit, Use use)
    {
        const int64_t total = std::min<int64_t>(c.length, limit);
        int64_t done = 0;
        if (c.group) {
            const uint8_t type[4] = {static_cast<uint8_t>(c.type >> 24), static_cast<uint8_t>(c.type >> 16),
                                     static_cast<uint8_t>(c.type >> 8), static_cast<uint8_t>(c.type)};
            const auto n = static_cast<int32_t>(std::min<int64_t>(4, total));
            if (!use(type, n, c.offset + 8))
                return false;
            done = n;
        }
        std::vector<uint8_t> buf(1 << 16);
        while (done < total) {
            const auto n = static_cast<int32_t>(std::min<int64_t>(total - done, static_cast<int64_t>(buf.size())));
            const int64_t at = r.Position();
            if (!r.Read(buf.data(), n)) {
                problem_ = "cannot read the file at offset " + std::to_string(at);
                return false;
            }
            if (!use(buf.data(), n, at))
                return false;
            done += n;
        }
        return true;
    }

    std::string problem_;

private:
    struct Seen {
        int64_t index = 0;
        std::vector<std::pair<std::string, int64_t>> names;  // occurrences of each name so far
    };

    bool Matches(const Chunk &c, size_t depth)
    {
        Seen &seen = seen_[depth];
        const Step &step = steps_[depth];
        const int64_t index = seen.index++;
        if (step.index >= 0)
            return index == step.index;
        if (TrimmedId(c.id) != step.id || (!step.type.empty() && (!c.group || TrimmedId(c.type) != step.type)))
            return false;
        const std::string name = step.id + "." + step.type;
        auto it = std::find_if(seen.names.begin(), seen.names.end(), [&](const auto &p) { return p.first == name; });
        if (it == seen.names.end())
            it = seen.names.insert(seen.names.end(), {name, 0});
        return it->second++ == step.occurrence;
    }

    std::vector<Step> steps_;
    std::vector<Seen> seen_;
    bool found_ = false;
};

class ExtractVisitor : public PathVisitor {
public:
    ExtractVisitor(std::vector<Step> steps, FILE *out) : PathVisitor(std::move(steps)), out_(out) {}
    bool WriteFailed() const { return writeFailed_; }
    int64_t Written() const { return written_; }

protected:
    bool Take(const Chunk &c, Reader &r) override
    {
        return ForEachPiece(c, r, INT64_MAX, [&](const uint8_t *p, int32_t n, int64_t) {
            writeFailed_ = std::fwrite(p, 1, static_cast<size_t>(n), out_) != static_cast<size_t>(n);
            written_ += writeFailed_ ? 0 : n;
            return !writeFailed_;
        });
    }

private:
    FILE *out_;
    bool writeFailed_ = false;
    int64_t written_ = 0;
};

class HexVisitor : public PathVisitor {
public:
    HexVisitor(std::vector<Step> steps, int64_t limit) : PathVisitor(std::move(steps)), limit_(limit) {}

protected:
    bool Take(const Chunk &c, Reader &r) override
    {
        std::printf("%s at offset %lld: %u bytes of data\n", QuotedId(c.id).c_str(), static_cast<long long>(c.offset),
                    c.length);
        const bool read = ForEachPiece(c, r, limit_, [&](const uint8_t *p, int32_t n, int64_t at) {
            for (int32_t i = 0; i < n; ++i)
                Byte(p[i], at + i);
            return true;
        });
        Flush();
        if (read && c.length > limit_)
            std::printf("... %lld more bytes (--bytes 0 shows all)\n", static_cast<long long>(c.length - limit_));
        return read;
    }

private:
    void Byte(uint8_t b, int64_t at)
    {
        if (line_.empty())
            lineStart_ = at;
        line_.push_back(b);
        if (line_.size() == 16)
            Flush();
    }

    void Flush()
    {
        if (line_.empty())
            return;
        std::printf("%10lld ", static_cast<long long>(lineStart_));
        for (size_t i = 0; i < 16; ++i)
            i < line_.size() ? std::printf(" %02x", line_[i]) : std::printf("   ");
        std::printf("  |");
        for (uint8_t b : line_)
            std::putchar(b >= 0x20 && b < 0x7F ? b : '.');
        std::printf("|\n");
        line_.clear();
    }

    int64_t limit_;
    int64_t lineStart_ = 0;
    std::vector<uint8_t> line_;
};

// ---- the command -------------------------------------------------------------------------

int InputError(const std::string &path, const std::string &what)
{
    std::fflush(stdout);  // what was sound comes before the complaint
    std::fprintf(stderr, "vxtool iff: %s: %s\n", path.c_str(), what.c_str());
    return kBadInput;
}

VxReadStrm *OpenInput(const std::string &path, int &status)
{
    status = kBadInput;
    if (ReportIfDirectory("iff", path))
        return nullptr;
    VxReadStrm *s = FileStrmReadOpen(path.c_str(), nullptr);
    if (!s)
        InputError(path, "cannot open the file");
    return s;
}

int Dump(const std::string &path, bool json, bool subChunks)
{
    int status;
    VxReadStrm *s = OpenInput(path, status);
    if (!s)
        return status;
    Reader reader(s);
    DumpVisitor dump(stdout, json, subChunks);
    if (json)
        std::printf("{\"file\": %s, \"chunks\": [", JsonString(path.c_str()).c_str());
    const std::string problem = Walker(reader, dump).Walk();
    dump.Finish();
    StrmReadDestroy(s);
    if (json)
        std::printf("%s%s}\n", problem.empty() ? "" : ", \"problem\": ",
                    problem.empty() ? "" : JsonString(problem.c_str()).c_str());
    return problem.empty() ? kOk : InputError(path, problem);
}

// Walks `path` with a visitor that looks for one chunk; kOk when it was found and taken.
int FindChunk(const std::string &path, const std::string &chunkPath, PathVisitor &visitor)
{
    int status;
    VxReadStrm *s = OpenInput(path, status);
    if (!s)
        return status;
    Reader reader(s);
    std::string problem = Walker(reader, visitor).Walk();
    StrmReadDestroy(s);
    if (!visitor.Problem().empty())
        problem = visitor.Problem();
    if (!problem.empty())
        return InputError(path, problem);
    return visitor.Found() ? kOk : InputError(path, "no chunk at " + chunkPath);
}

int Extract(const std::string &path, const std::string &chunkPath, const std::vector<Step> &steps,
            const std::string &out)
{
    if (ReportIfDirectory("iff", out))
        return kFailed;
    FILE *file = std::fopen(out.c_str(), "wb");
    if (!file) {
        std::fprintf(stderr, "vxtool iff: %s: cannot write the file\n", out.c_str());
        return kFailed;
    }
    ExtractVisitor extract(steps, file);
    int status = FindChunk(path, chunkPath, extract);
    const bool closed = std::fclose(file) == 0;
    if (extract.WriteFailed() || !closed) {
        std::fprintf(stderr, "vxtool iff: %s: cannot write the file\n", out.c_str());
        status = kFailed;
    }
    if (status == kOk)
        std::printf("wrote %s (%lld bytes)\n", out.c_str(), static_cast<long long>(extract.Written()));
    else
        std::remove(out.c_str());
    return status;
}

int UsageError(const std::string &message) { return ReportUsageError("iff", message); }

}  // namespace

int IffMain(int argc, char **argv)
{
    if (WantsHelp(argc, argv)) {
        std::fputs(kHelp, stdout);
        return kOk;
    }
    if (argc < 2)
        return UsageError("wants a subcommand: dump, extract or hex");
    const std::string sub = argv[1];
    if (sub != "dump" && sub != "extract" && sub != "hex")
        return UsageError("unknown subcommand '" + sub + "'");
    std::vector<std::string> words;
    std::string out;
    int64_t bytes = 512;
    bool json = false, subChunks = false;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool valued = arg == "-o" || arg == "--out" || arg == "--bytes";
        if (valued && i + 1 >= argc)
            return UsageError(arg + " wants a value");
        if (sub == "dump" && arg == "--json")
            json = true;
        else if (sub == "dump" && arg == "--sub-chunks")
            subChunks = true;
        else if (sub == "extract" && (arg == "-o" || arg == "--out"))
            out = argv[++i];
        else if (sub == "hex" && arg == "--bytes" && !ParseCount(argv[++i], bytes))
            return UsageError(std::string("--bytes wants a count, not '") + argv[i] + "'");
        else if (sub == "hex" && arg == "--bytes")
            continue;
        else if (arg.size() > 1 && arg[0] == '-')
            return UsageError(sub + ": unknown option '" + arg + "'");
        else
            words.push_back(arg);
    }
    const size_t wanted = sub == "dump" ? 1 : 2;
    if (words.size() < wanted)
        return UsageError(sub + (wanted == 1 ? " wants a FILE" : " wants a FILE and a chunk PATH"));
    if (words.size() > wanted)
        return UsageError("unexpected argument '" + words[wanted] + "'");
    if (sub == "dump")
        return Dump(words[0], json, subChunks);
    std::vector<Step> steps;
    if (!ParsePath(words[1], steps))
        return UsageError("not a chunk path: '" + words[1] + "' (see --help)");
    if (sub == "hex") {
        HexVisitor hex(steps, bytes == 0 ? INT64_MAX : bytes);
        return FindChunk(words[0], words[1], hex);
    }
    if (out.empty())
        return UsageError("extract wants -o OUT");
    return Extract(words[0], words[1], steps, out);
}

}  // namespace vxtool
