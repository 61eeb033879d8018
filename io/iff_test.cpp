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

constexpr uint32_t kForm = VX_ID('F', 'O', 'R', 'M');
constexpr uint32_t kTest = VX_ID('T', 'E', 'S', 'T');

// ---- A chunk tree and its independent byte image ---------------------------------------

struct Chunk {
    uint32_t id = 0;
    bool container = false;
    Bytes data;
    std::vector<Chunk> kids;
};

void PutBE(Bytes &out, uint32_t v, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

Bytes Image(const Chunk &c, int level, uint32_t formType = 0)
{
    Bytes content;
    if (formType)
        PutBE(content, formType, 4);
    if (c.container) {
        for (const Chunk &k : c.kids) {
            Bytes kid = Image(k, level + 1);
            content.insert(content.end(), kid.begin(), kid.end());
        }
    } else {
        content = c.data;
    }
    Bytes out;
    PutBE(out, c.id, 4);
    PutBE(out, static_cast<uint32_t>(content.size()), level <= 1 ? 4 : 2);
    out.insert(out.end(), content.begin(), content.end());
    if (content.size() & 1)
        out.push_back(0);
    return out;
}

uint32_t RandomId(std::mt19937 &rng)
{
    uint32_t id = 0;
    for (int i = 0; i < 4; ++i)
        id = (id << 8) | static_cast<uint32_t>('A' + rng() % 26);
    return id;
}

Chunk RandomTree(std::mt19937 &rng, int level, int maxLevel)
{
    Chunk c;
    c.id = RandomId(rng);
    c.container = level < maxLevel && rng() % 3 == 0;
    if (c.container) {
        int kids = static_cast<int>(rng() % 7);
        for (int i = 0; i < kids; ++i)
            c.kids.push_back(RandomTree(rng, level + 1, maxLevel));
    } else {
        c.data.resize(rng() % 4 == 0 ? rng() % 300 : rng() % 9);  // many odd sizes
        for (auto &b : c.data)
            b = static_cast<uint8_t>(rng());
    }
    return c;
}

Chunk RandomForm(std::mt19937 &rng, int maxLevel)
{
    Chunk form;
    form.id = kForm;
    form.container = true;
    int kids = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < kids; ++i)
        form.kids.push_back(RandomTree(rng, 1, maxLevel));
    return form;
}

void WriteTree(VxIFFWriter *w, const Chunk &c, uint32_t formType = 0)
{
    ASSERT_EQ(IFFWChunkOpen(w, c.id, formType), 0);
    if (c.container) {
        for (const Chunk &k : c.kids)
            WriteTree(w, k);
    } else {
        ASSERT_EQ(IFFWriteBytes(w, c.data.data(), static_cast<int32_t>(c.data.size())), 0);
    }
    ASSERT_EQ(IFFWChunkClose(w), 0);
}

// Reads the sub-chunks of the open chunk, guided by the model, and checks IDs and data.
void ExpectKids(VxIFFReader *r, const Chunk &model)
{
    for (const Chunk &k : model.kids) {
        ASSERT_EQ(IFFRChunkNext(r), k.id);
        if (k.container) {
            ExpectKids(r, k);
        } else {
            ASSERT_EQ(IFFRChunkLength(r), static_cast<int32_t>(k.data.size()));
            Bytes got(k.data.size() + 1);
            ASSERT_EQ(IFFReadBytes(r, got.data(), -static_cast<int32_t>(got.size())), static_cast<int32_t>(k.data.size()));
            got.pop_back();
            ASSERT_EQ(got, k.data);
        }
        ASSERT_EQ(IFFRChunkClose(r), 1);
    }
    EXPECT_EQ(IFFRChunkNext(r), 0u) << "a chunk beyond the model";
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
    IFFWDestroy(w);
    StrmWriteDestroy(s);
    return out;
}

Bytes B(std::initializer_list<int> v)
{
    Bytes b;
    for (int x : v)
        b.push_back(static_cast<uint8_t>(x));
    return b;
}

Bytes S(const char *text) { return Bytes(text, text + std::strlen(text)); }

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// ---- Writer images ---------------------------------------------------------------------

TEST(IFFWriter, OddLevelOneChunkIsPaddedAndCountedWhole)
{
    int32_t formCount = 0;
    Bytes got = Written([&](VxIFFWriter *w) {
        IFFWChunkOpen(w, kForm, kTest);
        EXPECT_EQ(w->level[0].count, 12);
        IFFWChunkOpen(w, VX_ID('O', 'D', 'D', ' '), 0);
        IFFWriteBytes(w, "abc", 3);
        IFFWChunkClose(w);
        formCount = w->level[0].count;
        IFFWChunkClose(w);
    });
    EXPECT_EQ(formCount, 24) << "the enclosing count grows by 12";
    EXPECT_EQ(got, Cat({S("FORM"), B({0, 0, 0, 16}), S("TEST"), S("ODD "), B({0, 0, 0, 3}), S("abc"), B({0})}));
}

TEST(IFFWriter, SubChunksHaveSixByteHeadersAndNestedLengthsArePatched)
{
    Bytes got = Written([](VxIFFWriter *w) {
        IFFWChunkOpen(w, kForm, kTest);
        IFFWChunkOpen(w, VX_ID('O', 'U', 'T', 'R'), 0);
        IFFWChunkOpen(w, VX_ID('S', 'U', 'B', '1'), 0);
        uint16_t s = 0x0102;
        IFFWriteShorts(w, &s, 1);
        IFFWChunkOpen(w, VX_ID('D', 'E', 'E', 'P'), 0);
        uint8_t one = 7;
        IFFWriteBytes(w, &one, 1);
        EXPECT_EQ(w->depth, 3);
        IFFWChunkClose(w);
        IFFWChunkClose(w);
        float f = 1.0f;
        IFFWChunkOpen(w, VX_ID('S', 'U', 'B', '2'), 0);
        IFFWriteFloats(w, &f, 1);
        EXPECT_EQ(f, 1.0f);
        IFFWChunkClose(w);
        IFFWChunkClose(w);
        IFFWChunkClose(w);
    });
    Bytes deep = Cat({S("DEEP"), B({0, 1, 7, 0})});
    Bytes sub1 = Cat({S("SUB1"), B({0, 10, 1, 2}), deep});
    Bytes sub2 = Cat({S("SUB2"), B({0, 4, 0x3F, 0x80, 0, 0})});
    Bytes outr = Cat({S("OUTR"), B({0, 0, 0, 26}), sub1, sub2});
    EXPECT_EQ(got, Cat({S("FORM"), B({0, 0, 0, 38}), S("TEST"), outr}));
}

TEST(IFFWriter, StringsAlwaysTakeAnEvenNumberOfBytes)
{
    Bytes got = Written([](VxIFFWriter *w) {
        IFFWChunkOpen(w, VX_ID('S', 'T', 'R', 'S'), 0);
        IFFWriteString(w, "ab");
        IFFWriteString(w, "abc");
        IFFWriteString(w, "");
        IFFWChunkClose(w);
    });
    EXPECT_EQ(got, Cat({S("STRS"), B({0, 0, 0, 10}), S("ab"), B({0, 0}), S("abc"), B({0}), B({0, 0})}));
}

TEST(IFFWriter, RefusesWhatTheLayoutCannotExpress)
{
    Written([](VxIFFWriter *w) {
        EXPECT_EQ(IFFWriteBytes(w, "x", 1), VX_ERR_FORMAT) << "no chunk open";
        EXPECT_EQ(IFFWChunkClose(w), VX_ERR_FORMAT);
        EXPECT_EQ(w->position, 0);
        for (int i = 0; i < VX_IFF_LEVELS; ++i)
            EXPECT_EQ(IFFWChunkOpen(w, kTest, 0), 0);
        EXPECT_EQ(IFFWChunkOpen(w, kTest, 0), VX_ERR_FORMAT);
        Bytes big(70000);
        IFFWriteBytes(w, big.data(), 70000);
        EXPECT_EQ(IFFWChunkClose(w), VX_ERR_FORMAT) << "70000 bytes do not fit a 16-bit length";
        while (w->depth >= 0)
            IFFWChunkClose(w);
    });
}

// ---- Round trips -----------------------------------------------------------------------

TEST(IFFRoundTrip, RandomTreesMatchTheirImageAndReadBackOverMemoryAndFiles)
{
    vxtest::TempDir dir;
    for (uint32_t seed = 1; seed <= 60; ++seed) {
        std::mt19937 rng(seed);
        Chunk form = RandomForm(rng, 2 + static_cast<int>(seed % 5));
        Bytes expect = Image(form, 0, kTest);
        bool toFile = seed % 2 == 0;
        std::string path = dir.File("tree" + std::to_string(seed));
        VxWriteStrm *ws = toFile ? FileStrmWriteOpen(path.c_str()) : MemStrmWriteCreate();
        VxIFFWriter *w = IFFWCreate(ws);
        WriteTree(w, form, kTest);
        IFFWDestroy(w);
        Bytes got = toFile ? Bytes() : MemoryBytes(ws);
        ASSERT_EQ(StrmWriteDestroy(ws), 0);
        if (toFile)
            got = vxtest::ReadBytes(path);
        ASSERT_EQ(got, expect) << "seed " << seed;

        VxReadStrm *rs = toFile ? FileStrmReadOpen(path.c_str(), nullptr)
                                : MemStrmReadCreate(got.data(), static_cast<int32_t>(got.size()), 0);
        VxIFFReader *r = IFFRCreate(rs);
        IFFRFormType(r, kTest);
        ASSERT_EQ(IFFRChunkNext(r), kForm);
        uint32_t type = 0;
        ASSERT_EQ(IFFReadLongs(r, &type, 1), 1);
        ASSERT_EQ(type, kTest);
        ExpectKids(r, form);
        EXPECT_EQ(r->error, 0);
        IFFRDestroy(r);
        StrmReadDestroy(rs);
    }
}

TEST(IFFRoundTrip, ParseStopsAtRequestedChunksAndSkipsTheRest)
{
    std::mt19937 rng(5);
    Chunk form = RandomForm(rng, 3);
    form.kids.push_back({VX_ID('L', 'A', 'S', 'T'), false, B({1, 2, 3}), {}});
    Bytes image = Image(form, 0, kTest);
    VxReadStrm *rs = MemStrmReadCreate(image.data(), static_cast<int32_t>(image.size()), 0);
    VxIFFReader *r = IFFRCreate(rs);
    IFFRFormType(r, kTest);
    std::vector<uint32_t> stops;
    for (const Chunk &k : form.kids)
        if (k.container || k.data.size() % 2)
            stops.push_back(k.id);
    stops.push_back(0);
    for (const Chunk &k : form.kids) {
        if (!(k.container || k.data.size() % 2))
            continue;
        ASSERT_EQ(IFFRParse(r, stops.data()), k.id);
        EXPECT_EQ(r->depth, 1);
        if (k.container && !k.kids.empty()) {
            EXPECT_EQ(IFFRChunkNext(r), k.kids[0].id);  // left open: the next parse closes it
        }
    }
    EXPECT_EQ(IFFRParse(r, stops.data()), 0u);
    EXPECT_EQ(r->error, 0);
    IFFRDestroy(r);
    StrmReadDestroy(rs);
}

// ---- Reader rules ----------------------------------------------------------------------

struct Opened {
    Bytes image;
    VxReadStrm *stream = nullptr;
    VxIFFReader *reader = nullptr;
    explicit Opened(Bytes bytes, uint32_t formType = kTest) : image(std::move(bytes))
    {
        stream = MemStrmReadCreate(image.data(), static_cast<int32_t>(image.size()), 0);
        reader = IFFRCreate(stream);
        IFFRFormType(reader, formType);
    }
    ~Opened()
    {
        IFFRDestroy(reader);
        StrmReadDestroy(stream);
    }
};

Bytes FormWith(std::initializer_list<Bytes> chunks)
{
    Bytes content = S("TEST");
    for (const Bytes &c : chunks)
        content.insert(content.end(), c.begin(), c.end());
    Bytes out = S("FORM");
    PutBE(out, static_cast<uint32_t>(content.size()), 4);
    return Cat({out, content});
}

Bytes Leaf(const char *id, const Bytes &data)
{
    Chunk c{VX_ID(id[0], id[1], id[2], id[3]), false, data, {}};
    return Image(c, 1);
}

TEST(IFFReader, ItemReadsFollowTheCountRule)
{
    Opened f(FormWith({Leaf("DATA", B({0, 0, 0, 1, 0, 0, 0, 2, 9}))}));
    uint32_t stop[] = {VX_ID('D', 'A', 'T', 'A'), 0};
    ASSERT_EQ(IFFRParse(f.reader, stop), stop[0]);
    EXPECT_EQ(IFFRChunkLength(f.reader), 9);
    uint32_t longs[10] = {};
    EXPECT_EQ(IFFReadLongs(f.reader, longs, 0), 0);
    EXPECT_EQ(IFFReadLongs(f.reader, longs, -10), 2);  // 9 bytes: two whole longs
    EXPECT_EQ(longs[0], 1u);
    EXPECT_EQ(longs[1], 2u);
    EXPECT_EQ(IFFRChunkLength(f.reader), 1);
    EXPECT_EQ(IFFReadShorts(f.reader, longs, -1), 0);
    EXPECT_EQ(IFFReadLongs(f.reader, longs, 1), -VX_ERR_IO) << "no block open: the failure is returned";
    EXPECT_EQ(f.reader->error, VX_ERR_IO);
    EXPECT_EQ(IFFReadBytes(f.reader, longs, -1), -VX_ERR_IO) << "and the reader stays failed";
    EXPECT_EQ(IFFRParse(f.reader, stop), 0u);
}

TEST(IFFReader, FailuresAreRaisedThroughTheCallersBlock)
{
    Opened f(FormWith({Leaf("DATA", B({1, 2}))}));
    uint32_t stop[] = {VX_ID('D', 'A', 'T', 'A'), 0};
    volatile int resumed = 0;
    if (CkptBegin()) {
        resumed = 1;
    } else {
        ASSERT_EQ(IFFRParse(f.reader, stop), stop[0]);
        uint32_t v;
        IFFReadLongs(f.reader, &v, 1);  // 2 bytes left: does not return
        CkptEnd();
    }
    EXPECT_EQ(resumed, 1);
    EXPECT_EQ(CkptLatchCode(), VX_ERR_IO);
    EXPECT_EQ(CkptLevel(), -1);
}

TEST(IFFReader, StringsAreCutToTheBufferAndReadToTheirEnd)
{
    Opened f(FormWith({Leaf("STRS", Cat({S("abcd"), B({0, 0}), S("xyz"), B({0}), S("tail")}))}));
    uint32_t stop[] = {VX_ID('S', 'T', 'R', 'S'), 0};
    ASSERT_EQ(IFFRParse(f.reader, stop), stop[0]);
    char buf[8];
    EXPECT_EQ(IFFReadString(f.reader, buf, 3, 1), 1);
    EXPECT_STREQ(buf, "ab");
    EXPECT_EQ(IFFRChunkLength(f.reader), 8) << "after the string and its pad";
    EXPECT_EQ(IFFReadString(f.reader, buf, 8, 1), 1);
    EXPECT_STREQ(buf, "xyz");
    EXPECT_EQ(IFFReadString(f.reader, buf, 8, 0), 4) << "the chunk ends inside the string";
    EXPECT_STREQ(buf, "tail");
    EXPECT_EQ(IFFReadString(f.reader, buf, 8, 0), 0) << "nothing left, not required";
    EXPECT_EQ(f.reader->error, 0);
    EXPECT_EQ(IFFReadString(f.reader, buf, 8, 1), 0);
    EXPECT_EQ(f.reader->error, VX_ERR_IO) << "a required string that is missing";
}

struct PropLog {
    std::vector<std::string> events;
};

void *RecordProp(VxIFFReader *r, void *user, uint32_t id)
{
    auto *log = static_cast<PropLog *>(user);
    uint8_t b = 0;
    IFFReadBytes(r, &b, 1);
    log->events.push_back("handle " + std::to_string(b));
    auto *result = static_cast<int *>(StdAlloc(sizeof(int)));
    *result = b + static_cast<int>(id & 0);
    return result;
}

void FreeProp(void *result, void *user)
{
    static_cast<PropLog *>(user)->events.push_back("free " + std::to_string(*static_cast<int *>(result)));
    FreeHeap(result, sizeof(int));
}

TEST(IFFReader, HandlersTakeTheirChunksAndReleaseOldResults)
{
    Opened f(FormWith({Leaf("PROP", B({1})), Leaf("STOP", B({})), Leaf("PROP", B({2})), Leaf("OTHR", B({3}))}));
    PropLog first, later;
    const uint32_t prop = VX_ID('P', 'R', 'O', 'P');
    ASSERT_EQ(IFFRSetProp(f.reader, prop, RecordProp, FreeProp, &first), 1);
    ASSERT_EQ(IFFRSetProp(f.reader, prop, RecordProp, FreeProp, &later), 1);  // met first
    EXPECT_EQ(IFFRGetProp(f.reader, prop), nullptr);
    uint32_t stop[] = {prop, VX_ID('S', 'T', 'O', 'P'), 0};
    EXPECT_EQ(IFFRParse(f.reader, stop), VX_ID('S', 'T', 'O', 'P')) << "a handled chunk is not a stop chunk";
    EXPECT_EQ(*static_cast<int *>(IFFRGetProp(f.reader, prop)), 1);
    EXPECT_EQ(IFFRParse(f.reader, stop), 0u);
    EXPECT_EQ(*static_cast<int *>(IFFRGetProp(f.reader, prop)), 2);
    EXPECT_EQ(later.events, (std::vector<std::string>{"handle 1", "free 1", "handle 2"}));
    EXPECT_TRUE(first.events.empty());
    IFFRDestroy(f.reader);
    f.reader = nullptr;
    EXPECT_EQ(later.events.back(), "free 2");
}

TEST(IFFReader, OnlyTheExpectedFormIsRead)
{
    Bytes good = FormWith({Leaf("DATA", B({1}))});
    uint32_t stop[] = {VX_ID('D', 'A', 'T', 'A'), 0};
    Bytes notForm = good;
    notForm[0] = 'C';
    Opened a(notForm);
    EXPECT_EQ(IFFRParse(a.reader, stop), 0u);
    EXPECT_EQ(a.reader->error, VX_ERR_FORMAT);
    Opened b(good, VX_ID('O', 'T', 'H', 'R'));
    EXPECT_EQ(IFFRParse(b.reader, stop), 0u);
    Opened c(good, 0);  // 0 accepts any form type
    EXPECT_EQ(IFFRParse(c.reader, stop), stop[0]);
    Opened d(Bytes{});
    EXPECT_EQ(IFFRParse(d.reader, stop), 0u);
}

TEST(IFFReader, ManyOddSubChunksNeverReadPastTheirContainer)
{
    // Five odd sub-chunks leave five pad bytes in the container's remaining count.
    Chunk box{VX_ID('B', 'O', 'X', ' '), true, {}, {}};
    for (int i = 0; i < 5; ++i)
        box.kids.push_back({VX_ID('O', 'D', 'D', static_cast<char>('0' + i)), false, B({i}), {}});
    Chunk form{kForm, true, {}, {box, Chunk{VX_ID('N', 'E', 'X', 'T'), false, B({9, 9}), {}}}};
    Opened f(Image(form, 0, kTest));
    uint32_t stop[] = {box.id, VX_ID('N', 'E', 'X', 'T'), 0};
    ASSERT_EQ(IFFRParse(f.reader, stop), box.id);
    ExpectKids(f.reader, box);
    EXPECT_EQ(IFFRChunkLength(f.reader), 5) << "the pads stay counted";
    EXPECT_EQ(IFFRParse(f.reader, stop), VX_ID('N', 'E', 'X', 'T'));
    EXPECT_EQ(f.reader->error, 0);
}

// ---- Robustness ------------------------------------------------------------------------

std::vector<uint32_t> g_containers;  // IDs that the walker reads as holding sub-chunks

void CollectContainers(const Chunk &c)
{
    if (c.container)
        g_containers.push_back(c.id);
    for (const Chunk &k : c.kids)
        CollectContainers(k);
}

bool IsContainer(uint32_t id)
{
    return std::find(g_containers.begin(), g_containers.end(), id) != g_containers.end();
}

// Reads the open chunk: its sub-chunks when its ID is a container, else its data; closes it.
void WalkChunk(VxIFFReader *r, uint32_t id)
{
    if (IsContainer(id) && r->depth < VX_IFF_LEVELS - 1) {
        while (uint32_t kid = IFFRChunkNext(r))
            WalkChunk(r, kid);
    } else {
        uint8_t buf[64];
        while (IFFReadBytes(r, buf, -64) > 0) {
        }
    }
    IFFRChunkClose(r);
}

// Walks every chunk of the file inside a checkpoint block, descending into the container IDs
// and reading the other chunks as data, as an application that knows the format would.
// Returns the code that reached the block, or the reader's error code.
int WalkAll(const Bytes &bytes)
{
    VxReadStrm *s = MemStrmReadCreate(bytes.data(), static_cast<int32_t>(bytes.size()), 0);
    VxIFFReader *r = IFFRCreate(s);
    IFFRFormType(r, kTest);
    IFFRSetProp(r, VX_ID('P', 'R', 'O', 'P'), [](VxIFFReader *rr, void *, uint32_t) -> void * {
        char text[8];
        IFFReadString(rr, text, 8, 1);
        return nullptr;
    }, nullptr, nullptr);
    std::vector<uint32_t> stops = g_containers;
    stops.push_back(0);
    volatile int code = 0;
    if (CkptBegin()) {
        code = CkptLatchCode();
    } else {
        while (uint32_t id = IFFRParse(r, stops.data()))
            WalkChunk(r, id);
        code = r->error;
        CkptEnd();
    }
    IFFRDestroy(r);
    StrmReadDestroy(s);
    return code;
}

Bytes SampleFile()
{
    std::mt19937 rng(77);
    Chunk form = RandomForm(rng, 4);
    Chunk box{VX_ID('B', 'O', 'X', ' '), true, {}, {}};
    box.kids.push_back({VX_ID('P', 'R', 'O', 'P'), false, Cat({S("ab"), B({0, 0})}), {}});
    box.kids.push_back(RandomTree(rng, 2, 4));
    form.kids.push_back(box);
    g_containers.clear();
    CollectContainers(form);
    return Image(form, 0, kTest);
}

// Every prefix (truncation at each byte offset) must fail with an error code; random single-byte
// corruptions may also read cleanly. Nothing may crash, leak or leave a block open.
TEST(IFFRobustness, TruncationsAndCorruptionsFailCleanly)
{
    vxtest::FaultAllocator heap;  // counts every block: nothing may be left behind
    Bytes full = SampleFile();
    ASSERT_EQ(WalkAll(full), 0);
    std::mt19937 rng(3);
    for (size_t i = 0; i < full.size() + 3000; ++i) {
        const bool prefix = i < full.size();
        Bytes bad(full.begin(), prefix ? full.begin() + static_cast<std::ptrdiff_t>(i) : full.end());
        if (!prefix)
            bad[rng() % bad.size()] = static_cast<uint8_t>(rng());
        int code = WalkAll(bad);
        EXPECT_TRUE(code == VX_ERR_IO || code == VX_ERR_FORMAT || (!prefix && code == 0))
            << (prefix ? "prefix of " : "corruption ") << i << " gave " << code;
        ASSERT_EQ(CkptLevel(), -1);
    }
    EXPECT_EQ(heap.LiveBytes(), 0u);
}

// ---- Out of memory ---------------------------------------------------------------------

TEST(IFFOom, CreatorsAndHandlerRegistrationReleaseEverything)
{
    uint8_t data[4] = {};
    VxReadStrm *rs = MemStrmReadCreate(data, 4, 0);
    VxWriteStrm *ws = MemStrmWriteCreate();
    VxIFFReader *r = nullptr;
    VxIFFWriter *w = nullptr;
    auto nothing = [] {};
    vxtest::OomSweepAll({nothing, [&] { return (w = IFFWCreate(ws)) != nullptr; }, nothing, [&] {
                             IFFWDestroy(w);
                             w = nullptr;
                         }});
    vxtest::OomSweepAll({nothing, [&] { return (r = IFFRCreate(rs)) != nullptr; }, nothing, [&] {
                             IFFRDestroy(r);
                             r = nullptr;
                         }});
    VxIFFReader *held = nullptr;
    vxtest::OomSweepAll({[&] { held = IFFRCreate(rs); },
                         [&] { return IFFRSetProp(held, kTest, RecordProp, FreeProp, nullptr) == 1; },
                         [&] { EXPECT_EQ(ListValidate(&held->handlers), 0); },
                         [&] { IFFRDestroy(held); }});
    StrmReadDestroy(rs);
    StrmWriteDestroy(ws);
}

}  // namespace
