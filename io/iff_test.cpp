#include <vxtools3/ckpt.h>
#include <vxtools3/iff.h>
#include <vxtools3/memory.h>

#include "testkit/capture.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Trace = std::vector<int64_t>;  // results of calls made in order, with values read between them
using namespace std::string_literals;

constexpr uint32_t kForm = VX_ID('F', 'O', 'R', 'M');
constexpr uint32_t kTest = VX_ID('T', 'E', 'S', 'T');

Bytes B(const std::string &s) { return Bytes(s.begin(), s.end()); }
uint32_t Id(const char *s) { return VX_ID(s[0], s[1], s[2], s[3]); }


struct Chunk { uint32_t id = 0; bool container = false; Bytes data; std::vector<Chunk> kids; };

void PutBE(Bytes &out, uint32_t v, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

Bytes Image(const Chunk &c, int level, uint32_t formType = 0)
{
    Bytes content = c.data;  // empty in containers
    if (formType)
        PutBE(content, formType, 4);
    for (const Chunk &k : c.kids) {
        const Bytes kid = Image(k, level + 1);
        content.insert(content.end(), kid.begin(), kid.end());
    }
    Bytes out;
    PutBE(out, c.id, 4);
    PutBE(out, static_cast<uint32_t>(content.size()), level <= 1 ? 4 : 2);
    out.insert(out.end(), content.begin(), content.end());
    if (content.size() & 1)
        out.push_back(0);
    return out;
}

Chunk RandomTree(std::mt19937 &rng, int level, int maxLevel)
{
    Chunk c;
    for (int i = 0; i < 4; ++i)
        c.id = (c.id << 8) | static_cast<uint32_t>('A' + rng() % 26);
    c.container = level < maxLevel && rng() % 3 == 0;
    for (int kids = c.container ? static_cast<int>(rng() % 7) : 0; kids > 0; --kids)
        c.kids.push_back(RandomTree(rng, level + 1, maxLevel));
    c.data.resize(c.container ? 0 : rng() % 4 == 0 ? rng() % 300 : rng() % 9);  // many odd sizes
    for (auto &b : c.data)
        b = static_cast<uint8_t>(rng());
    return c;
}

Chunk RandomForm(std::mt19937 &rng, int maxLevel)
{
    Chunk form{kForm, true, {}, {}};
    for (int kids = 1 + static_cast<int>(rng() % 8); kids > 0; --kids)
        form.kids.push_back(RandomTree(rng, 1, maxLevel));
    return form;
}

void WriteTree(VxIFFWriter *w, const Chunk &c, uint32_t formType = 0)
{
    ASSERT_EQ(IFFWChunkOpen(w, c.id, formType), 0);
    for (const Chunk &k : c.kids)
        WriteTree(w, k);
    ASSERT_EQ(IFFWriteBytes(w, c.data.data(), static_cast<int32_t>(c.data.size())), 0);
    ASSERT_EQ(IFFWChunkClose(w), 0);
}

// Reads the sub-chunks of the open chunk, guided by the model, and checks IDs and data. The
// pad bytes of odd sub-chunks stay in the container's count: reading never passes its end.
void ExpectKids(VxIFFReader *r, const Chunk &model)
{
    int32_t pads = 0;
    for (const Chunk &k : model.kids) {
        ASSERT_EQ(IFFRChunkNext(r), k.id);
        if (k.container) {
            ExpectKids(r, k);
        } else {
            const auto size = static_cast<int32_t>(k.data.size());
            Bytes got(k.data.size() + 1);  // asks for one byte more than there is
            ASSERT_EQ(Trace({IFFRChunkLength(r), IFFReadBytes(r, got.data(), -size - 1)}), (Trace{size, size}));
            ASSERT_EQ(Bytes(got.begin(), got.end() - 1), k.data);
            pads += static_cast<int32_t>(k.data.size() & 1);
        }
        ASSERT_EQ(IFFRChunkClose(r), 1);
    }
    EXPECT_EQ(IFFRChunkNext(r), 0u) << "a chunk beyond the model";
    EXPECT_EQ(IFFRChunkLength(r), pads);
}

Bytes MemoryBytes(VxWriteStrm *s)
{
    const auto *p = static_cast<const uint8_t *>(s->impl);
    return p ? Bytes(p, p + s->length) : Bytes();
}

// Writes with `build` into a memory stream and returns the bytes.
template <class F>
Bytes Written(F build)
{
    VxWriteStrm *s = MemStrmWriteCreate();
    VxIFFWriter *w = IFFWCreate(s);
    build(w);
    EXPECT_EQ(w->depth, -1);
    Bytes out = MemoryBytes(s);
    IFFWDestroy(w), StrmWriteDestroy(s);
    return out;
}


TEST(IFFWriter, ImageOfPaddedChunksSubChunksItemsAndStringsIsExact)
{
    Trace counts;  // the enclosing count after the FORM's type, after the odd chunk; the depth
    const uint16_t s = 0x0102;
    float f = 1.0f;
    Bytes got = Written([&](VxIFFWriter *w) {
        const auto open = [w](const char *id) { IFFWChunkOpen(w, Id(id), 0); };
        IFFWChunkOpen(w, kForm, kTest);
        counts.push_back(w->level[0].count);
        open("ODD "), IFFWriteBytes(w, "abc", 3), IFFWChunkClose(w);
        counts.push_back(w->level[0].count);
        open("OUTR"), open("SUB1"), IFFWriteShorts(w, &s, 1);
        open("DEEP"), IFFWriteBytes(w, "\x07", 1);
        counts.push_back(w->depth);
        IFFWChunkClose(w), IFFWChunkClose(w);
        open("SUB2"), IFFWriteFloats(w, &f, 1);
        for (const char *text : {"ab", "abc", ""})
            IFFWriteString(w, text);
        IFFWChunkClose(w), IFFWChunkClose(w), IFFWChunkClose(w);
    });
    EXPECT_EQ(f, 1.0f) << "the caller's item is left as it was";
    EXPECT_EQ(counts, (Trace{12, 24, 3}));
    const std::string sub1 = "SUB1\0\x0A\x01\x02"s + "DEEP\0\x01\x07\0"s;
    const std::string sub2 = "SUB2\0\x0E\x3F\x80\0\0"s + "ab\0\0abc\0\0\0"s;
    EXPECT_EQ(got, B("FORM\0\0\0\x3C"s + "TEST" + "ODD \0\0\0\x03"s + "abc\0"s + "OUTR\0\0\0\x24"s + sub1 + sub2));
}

TEST(IFFWriter, RefusesWhatTheLayoutCannotExpress)
{
    Written([](VxIFFWriter *w) {
        EXPECT_EQ(Trace({IFFWriteBytes(w, "x", 1), IFFWChunkClose(w), w->position}), (Trace{VX_ERR_FORMAT, VX_ERR_FORMAT, 0}))
            << "no chunk open";
        for (int i = 0; i < VX_IFF_LEVELS; ++i)
            EXPECT_EQ(IFFWChunkOpen(w, kTest, 0), 0);
        EXPECT_EQ(IFFWChunkOpen(w, kTest, 0), VX_ERR_FORMAT);
        IFFWriteBytes(w, Bytes(70000).data(), 70000);
        EXPECT_EQ(IFFWChunkClose(w), VX_ERR_FORMAT) << "70000 bytes do not fit a 16-bit length";
        while (w->depth >= 0)
            IFFWChunkClose(w);
    });
}


// A reader over `bytes` in memory, or over `stream`, expecting a form of `formType`.
struct Opened {
    Bytes image;
    VxReadStrm *stream;
    VxIFFReader *reader;
    explicit Opened(Bytes bytes, uint32_t formType = kTest, VxReadStrm *over = nullptr)
        : image(std::move(bytes)), stream(over ? over : MemStrmReadCreate(image.data(), static_cast<int32_t>(image.size()), 0)),
          reader(IFFRCreate(stream))
    {
        IFFRFormType(reader, formType);
    }
    ~Opened() { IFFRDestroy(reader), StrmReadDestroy(stream); }
};

TEST(IFFRoundTrip, RandomTreesMatchTheirImageAndReadBackOverMemoryAndFiles)
{
    vxtest::TempDir dir;
    const std::string path = dir.File("tree");
    for (uint32_t seed = 1; seed <= 60; ++seed) {
        std::mt19937 rng(seed);
        const Chunk form = RandomForm(rng, 2 + static_cast<int>(seed % 5));
        const bool toFile = seed % 2 == 0;
        VxWriteStrm *ws = toFile ? FileStrmWriteOpen(path.c_str()) : MemStrmWriteCreate();
        VxIFFWriter *w = IFFWCreate(ws);
        WriteTree(w, form, kTest);
        IFFWDestroy(w);
        Bytes got = toFile ? Bytes() : MemoryBytes(ws);
        ASSERT_EQ(StrmWriteDestroy(ws), 0);
        got = toFile ? vxtest::ReadBytes(path) : got;
        ASSERT_EQ(got, Image(form, 0, kTest)) << "seed " << seed;
        Opened f(got, kTest, toFile ? FileStrmReadOpen(path.c_str(), nullptr) : nullptr);
        uint32_t type = 0;
        ASSERT_EQ(Trace({IFFRChunkNext(f.reader), IFFReadLongs(f.reader, &type, 1), type}), (Trace{kForm, 1, kTest}));
        ExpectKids(f.reader, form);
        EXPECT_EQ(f.reader->error, 0);
    }
}


// A "TEST" form of level-1 chunks, each given as its ID and data.
Bytes FormWith(std::initializer_list<std::pair<const char *, std::string>> chunks)
{
    Chunk form{kForm, true, {}, {}};
    for (const auto &[id, data] : chunks)
        form.kids.push_back({Id(id), false, B(data), {}});
    return Image(form, 0, kTest);
}

TEST(IFFReader, ItemReadsFollowTheCountRuleAndFailuresReachTheCallersBlock)
{
    Opened f(FormWith({{"DATA", "\0\0\0\x01\0\0\0\x02\x09"s}}));
    const uint32_t stop[] = {Id("DATA"), 0};
    ASSERT_EQ(IFFRParse(f.reader, stop), stop[0]);
    uint32_t longs[10] = {};
    // A negative count reads what is there (9 bytes: two whole longs).
    const Trace got = {IFFRChunkLength(f.reader), IFFReadLongs(f.reader, longs, 0), IFFReadLongs(f.reader, longs, -10),
                       longs[0] * 10 + longs[1], IFFRChunkLength(f.reader), IFFReadShorts(f.reader, longs, -1)};
    EXPECT_EQ(got, (Trace{9, 0, 2, 12, 1, 0}));
    volatile int resumed = 0;
    if (CkptBegin()) {
        resumed = 1;
    } else {
        IFFReadLongs(f.reader, longs, 1);  // 1 byte left: does not return
        CkptEnd();
    }
    EXPECT_EQ(Trace({resumed, CkptLatchCode(), CkptLevel(), f.reader->error}), (Trace{1, VX_ERR_IO, -1, VX_ERR_IO}));
    EXPECT_EQ(IFFReadBytes(f.reader, longs, -1), -VX_ERR_IO) << "no block open: the failure is returned";
    EXPECT_EQ(IFFRParse(f.reader, stop), 0u) << "and the reader stays failed";
}

// A string is cut to the buffer but read to its end and pad; a chunk may end inside one; a
// missing string fails the reader only when it is required.
TEST(IFFReader, StringsAreCutToTheBufferAndReadToTheirEnd)
{
    Opened f(FormWith({{"STRS", "abcd\0\0xyz\0tail"s}}));
    const uint32_t stop[] = {Id("STRS"), 0};
    ASSERT_EQ(IFFRParse(f.reader, stop), stop[0]);
    char a[8], b[8], c[8], d[8];
    const Trace got = {IFFReadString(f.reader, a, 3, 1), IFFRChunkLength(f.reader), IFFReadString(f.reader, b, 8, 1),
                       IFFReadString(f.reader, c, 8, 0), IFFReadString(f.reader, d, 8, 0), f.reader->error,
                       IFFReadString(f.reader, d, 8, 1), f.reader->error};
    EXPECT_EQ(got, (Trace{1, 8, 1, 4, 0, 0, 0, VX_ERR_IO}));
    EXPECT_EQ(std::string(a) + "," + b + "," + c, "ab,xyz,tail");
}

using Log = std::vector<std::string>;

void *RecordProp(VxIFFReader *r, void *user, uint32_t)
{
    uint8_t b = 0;
    IFFReadBytes(r, &b, 1);
    static_cast<Log *>(user)->push_back("handle " + std::to_string(b));
    auto *result = static_cast<int *>(StdAlloc(sizeof(int)));
    *result = b;
    return result;
}

void FreeProp(void *result, void *user)
{
    static_cast<Log *>(user)->push_back("free " + std::to_string(*static_cast<int *>(result)));
    FreeHeap(result, sizeof(int));
}

// The handler registered last for an ID is met first; a handled chunk is not a stop chunk; a
// new result releases the old one, and the reader releases the last.
TEST(IFFReader, HandlersTakeTheirChunksAndReleaseOldResults)
{
    Opened f(FormWith({{"PROP", "\x01"}, {"STOP", "odd"}, {"PROP", "\x02"}, {"OTHR", "\x03"}}));
    Log first, later;
    const uint32_t prop = Id("PROP"), stop[] = {prop, Id("STOP"), 0};
    const auto result = [&] { const auto *p = static_cast<int *>(IFFRGetProp(f.reader, prop)); return p ? *p : -1; };
    const Trace got = {IFFRSetProp(f.reader, prop, RecordProp, FreeProp, &first),
                       IFFRSetProp(f.reader, prop, RecordProp, FreeProp, &later), result(), IFFRParse(f.reader, stop),
                       result(), IFFRParse(f.reader, stop), result(), (IFFRDestroy(f.reader), f.reader = nullptr, 0)};
    EXPECT_EQ(got, (Trace{1, 1, -1, Id("STOP"), 1, 0, 2, 0}));
    EXPECT_EQ(later, (Log{"handle 1", "free 1", "handle 2", "free 2"}));
    EXPECT_TRUE(first.empty());
}

TEST(IFFReader, OnlyTheExpectedFormIsRead)
{
    const Bytes good = FormWith({{"DATA", "\x01"}}), notForm = B("C" + std::string(good.begin() + 1, good.end()));
    const uint32_t stop[] = {Id("DATA"), 0};
    // {image, expected form type (0 accepts any), first stop}: the others are format errors
    const struct { Bytes image; uint32_t type, found; } cases[] = {{notForm, kTest, 0}, {good, Id("OTHR"), 0}, {good, 0, stop[0]}, {{}, kTest, 0}};
    for (const auto &c : cases) {
        Opened f(c.image, c.type);
        EXPECT_EQ(IFFRParse(f.reader, stop), c.found);
        EXPECT_EQ(f.reader->error, c.found ? 0 : VX_ERR_FORMAT) << c.image.size();
    }
}


// Reads the open chunk, counting it: its sub-chunks when its ID is a container, then its data.
// A chunk the reader's parse stopped at is left open: the next parse closes it.
void WalkChunk(VxIFFReader *r, uint32_t id, const std::vector<uint32_t> &containers, int &walked, bool close)
{
    uint8_t buf[64];
    ++walked;
    if (std::count(containers.begin(), containers.end(), id) && r->depth < VX_IFF_LEVELS - 1)
        while (uint32_t kid = IFFRChunkNext(r))
            WalkChunk(r, kid, containers, walked, true);
    while (IFFReadBytes(r, buf, -64) > 0) {
    }
    if (close)
        IFFRChunkClose(r);
}

// Walks every chunk of the file inside a checkpoint block, descending into the container IDs
// (`stops`, ended by 0) and reading the other chunks as data, as an application that knows
// the format would. Returns the code that reached the block, or the reader's error code.
int WalkAll(const Bytes &bytes, const std::vector<uint32_t> &stops, int &walked)
{
    Opened f(bytes);
    IFFRSetProp(f.reader, Id("PROP"), [](VxIFFReader *r, void *, uint32_t) -> void * {
        char text[8];
        return IFFReadString(r, text, 8, 1), nullptr;
    }, nullptr, nullptr);
    if (CkptBegin())
        return CkptLatchCode();
    while (uint32_t id = IFFRParse(f.reader, stops.data()))
        WalkChunk(f.reader, id, stops, walked, false);
    CkptEnd();
    return f.reader->error;
}

// Collects the container IDs of `c` and below; returns how many chunks `c` is, its own included.
int CollectContainers(const Chunk &c, std::vector<uint32_t> &out)
{
    int size = 1;
    if (c.container)
        out.push_back(c.id);
    for (const Chunk &k : c.kids)
        size += CollectContainers(k, out);
    return size;
}

// The whole file is walked: the parse stops at each container (and skips the rest) and closes
// it on the next call. Every prefix (truncation at each byte offset) must fail with an error
// code; random single-byte corruptions may also read cleanly. Nothing may crash, leak or leave
// a block open.
TEST(IFFRobustness, TruncationsAndCorruptionsFailCleanly)
{
    vxtest::FaultAllocator heap;  // counts every block: nothing may be left behind
    std::mt19937 rng(77);
    Chunk form = RandomForm(rng, 4);
    form.kids.push_back({Id("BOX "), true, {}, {{Id("PROP"), false, B("ab\0\0"s), {}}, RandomTree(rng, 2, 4)}});
    std::vector<uint32_t> stops;
    int expectWalked = 0, walked = 0;
    for (const Chunk &k : form.kids)
        expectWalked += CollectContainers(k, stops) * k.container;
    stops.push_back(0);
    const Bytes full = Image(form, 0, kTest);
    ASSERT_EQ(WalkAll(full, stops, walked), 0);
    EXPECT_EQ(walked, expectWalked);
    for (size_t i = 0; i < full.size() + 3000; ++i) {
        const bool prefix = i < full.size();
        Bytes bad(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(prefix ? i : full.size()));
        if (!prefix)
            bad[rng() % bad.size()] = static_cast<uint8_t>(rng());
        const int code = WalkAll(bad, stops, walked);
        EXPECT_TRUE(code == VX_ERR_IO || code == VX_ERR_FORMAT || (!prefix && code == 0))
            << (prefix ? "prefix of " : "corruption ") << i << " gave " << code;
        ASSERT_EQ(CkptLevel(), -1);
    }
    EXPECT_EQ(heap.LiveBytes(), 0u);
}


TEST(IFFOom, CreatorsAndHandlerRegistrationReleaseEverything)
{
    uint8_t data[4] = {};
    VxReadStrm *rs = MemStrmReadCreate(data, 4, 0);
    VxWriteStrm *ws = MemStrmWriteCreate();
    VxIFFReader *r = nullptr;
    VxIFFWriter *w = nullptr;
    Log log;
    auto nothing = [] {};
    auto destroy = [&] { IFFRDestroy(r), IFFWDestroy(w), r = nullptr, w = nullptr; };
    vxtest::OomSweepAll({nothing, [&] { return (w = IFFWCreate(ws)) != nullptr; }, nothing, destroy});
    vxtest::OomSweepAll({nothing, [&] { return (r = IFFRCreate(rs)) != nullptr; }, nothing, destroy});
    vxtest::OomSweepAll({[&] { r = IFFRCreate(rs); }, [&] { return IFFRSetProp(r, kTest, RecordProp, FreeProp, &log) == 1; },
                         [&] { EXPECT_EQ(ListValidate(&r->handlers), 0); }, destroy});
    StrmReadDestroy(rs), StrmWriteDestroy(ws);
}

}  // namespace
