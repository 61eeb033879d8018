#include <vxtools3/ckpt.h>
#include <vxtools3/states.h>

#include "testkit/capture.h"
#include "testkit/fault_alloc.h"
#include "testkit/state_walk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using Trace = std::vector<int64_t>;  // results of calls made in order, with values read between them

enum class Kind { Bytes, Shorts, Longs, Ids, Floats, String, Index };

// The items as raw bits (floats as their bits); the text of Kind::String.
struct Values { Kind kind; std::vector<uint32_t> items; std::string text; };
struct Block { const VxBlockDesc *desc = nullptr; std::vector<Values> values; std::vector<Block> kids; };

// The blocks a saver may use: plain keywords, a keyword derived from the ID, odd IDs.
const VxBlockDesc kDescs[] = {{VX_ID('E', 'N', 'V', 'L'), "Envelope"}, {VX_ID('K', 'E', 'Y', ' '), "Key"},
                              {VX_ID('S', 'P', 'A', 'N'), "Span"}, {VX_ID('P', 'R', 'E', ' '), nullptr},
                              {VX_ID('C', 'H', 'A', 'N'), "Channel_2.x-y"}, {0xFF000001u, "Odd"}, {0, nullptr}};

// +inf, a NaN with a payload, -0, subnormals, short decimals, any finite value.
uint32_t RandomFloatBits(std::mt19937 &rng)
{
    const uint32_t r = static_cast<uint32_t>(rng()), bits = static_cast<uint32_t>(rng());
    const uint32_t special[] = {0x7F800000u, 0xFFC00001u, 0x80000000u, bits % 0x800000u,
                                std::bit_cast<uint32_t>(static_cast<float>(bits % 1000) / 8.0f)};
    return r % 8 < 5 ? special[r % 8] : (bits & 0x7F800000u) == 0x7F800000u ? bits ^ 0x40000000u : bits;
}

std::string RandomString(std::mt19937 &rng)
{
    std::string s(rng() % 5 == 0 ? rng() % 200 : rng() % 8, 'x');
    for (char &c : s) {
        const uint32_t r = static_cast<uint32_t>(rng() % 10), any = static_cast<uint32_t>(rng());
        c = r < 3 ? "\"\\\n"[r] : static_cast<char>(r == 3 ? 1 + any % 255 : 'a' + any % 26);
    }
    return s;
}

Values RandomValues(std::mt19937 &rng)
{
    Values v{static_cast<Kind>(rng() % 7), {}, {}};
    const int n = v.kind == Kind::String || v.kind == Kind::Index ? 1 : 1 + static_cast<int>(rng() % 5);
    for (int i = 0; i < n; ++i) {
        const uint32_t r = static_cast<uint32_t>(rng());
        switch (v.kind) {
        case Kind::Bytes: v.items.push_back(r & 0xFF); break;
        case Kind::Shorts: v.items.push_back(r & 0xFFFF); break;
        case Kind::Longs: v.items.push_back(r); break;
        case Kind::Ids: v.items.push_back(rng() % 2 ? VX_ID('A' + r % 26, 'x', ' ', '\'') : r); break;
        case Kind::Floats: v.items.push_back(RandomFloatBits(rng)); break;
        case Kind::String: v.text = RandomString(rng); break;
        case Kind::Index: v.items.push_back(rng() % 2 ? std::array{0u, 0xFEFFu, 0xFF00u, 0xFFFFu, 0xFFFFFFu}[r % 5] : r % 0x1000000u); break;
        }
    }
    return v;
}

Block RandomBlock(std::mt19937 &rng, int depth)
{
    Block b{&kDescs[rng() % (std::size(kDescs) - 1)], {}, {}};
    for (auto values = rng() % 4; values > 0; --values)
        b.values.push_back(RandomValues(rng));
    for (auto kids = depth < 4 && rng() % 2 ? rng() % 4 : 0; kids > 0; --kids)
        b.kids.push_back(RandomBlock(rng, depth + 1));
    return b;
}

// The items as the type a state operation takes (the low bytes of each), and back.
template <class To, class From>
std::vector<To> Recast(const std::vector<From> &items)
{
    std::vector<To> out(items.size());
    for (size_t i = 0; i < items.size(); ++i)
        std::memcpy(&out[i], &items[i], std::min(sizeof(To), sizeof(From)));
    return out;
}

int32_t SaveValues(VxSaveState *s, const Values &v)
{
    const auto n = static_cast<int32_t>(v.items.size());
    switch (v.kind) {
    case Kind::Bytes: return s->writeBytes(s, Recast<uint8_t>(v.items).data(), n);
    case Kind::Shorts: return s->writeShorts(s, Recast<int16_t>(v.items).data(), n);
    case Kind::Longs: return s->writeLongs(s, Recast<int32_t>(v.items).data(), n);
    case Kind::Ids: return s->writeIDs(s, v.items.data(), n);
    case Kind::Floats: return s->writeFloats(s, Recast<float>(v.items).data(), n);
    case Kind::String: return s->writeString(s, v.text.c_str());
    case Kind::Index: return s->writeIndex(s, v.items[0]);
    }
    return -1;
}

void ExpectValues(VxLoadState *s, const Values &v)
{
    const auto n = static_cast<int32_t>(v.items.size());
    const auto read = [&]<class T>(int32_t (*fn)(VxLoadState *, T *, int32_t)) {
        std::vector<T> buf(v.items.size());
        return fn(s, buf.data(), n) == n ? Recast<uint32_t>(buf) : std::vector<uint32_t>{};
    };
    std::vector<uint32_t> got(1);
    std::string text(v.text.size() + 1, v.kind == Kind::String ? '?' : '\0');  // '?': a missing terminator shows
    switch (v.kind) {
    case Kind::Bytes: got = read(s->readBytes); break;
    case Kind::Shorts: got = read(s->readShorts); break;
    case Kind::Longs: got = read(s->readLongs); break;
    case Kind::Ids: got = read(s->readIDs); break;
    case Kind::Floats: got = read(s->readFloats); break;
    case Kind::String: got[0] = static_cast<uint32_t>(s->readString(s, text.data(), static_cast<int32_t>(text.size()))); break;
    case Kind::Index: got[0] = s->readIndex(s, got.data()) == 1 ? got[0] : ~0u; break;
    }
    ASSERT_EQ(got, v.kind == Kind::String ? std::vector<uint32_t>{1} : v.items) << "kind " << static_cast<int>(v.kind);
    ASSERT_EQ(std::string(text.c_str()), v.text);
}

void Save(VxSaveState *s, const Block &b)
{
    ASSERT_EQ(s->beginBlock(s, b.desc), 0);
    for (const Values &v : b.values)
        ASSERT_EQ(SaveValues(s, v), 0);
    for (const Block &k : b.kids)
        Save(s, k);
    ASSERT_EQ(s->endBlock(s), 0);
}

void Load(VxLoadState *s, const Block &b)
{
    for (const Values &v : b.values)
        ExpectValues(s, v);
    for (const Block &k : b.kids) {
        ASSERT_EQ(s->findBlock(s, kDescs), k.desc->id) << (s->message ? s->message : "");
        Load(s, k);
        ASSERT_EQ(s->endBlock(s), 0);
    }
    ASSERT_EQ(s->findBlock(s, kDescs), 0u) << "a block beyond the model";
    ASSERT_EQ(s->error, 0) << (s->message ? s->message : "") << " at line " << s->line;
}

// Saves through a text state, or a binary one inside a FORM of `formType`; returns the bytes.
template <class F>
std::string Saved(uint32_t formType, F save)
{
    VxWriteStrm *w = MemStrmWriteCreate();
    VxIFFWriter *iw = formType ? IFFWCreate(w) : nullptr;
    VxSaveState s;
    if (iw)
        IFFWChunkOpen(iw, VX_ID('F', 'O', 'R', 'M'), formType), IFFInitSaveState(&s, iw);
    else
        StrmInitSaveState(&s, w);
    EXPECT_TRUE(!iw || (iw->level[0].flags & VX_IFF_STATE_BASE));
    save(&s);
    EXPECT_EQ(s.endBlock(&s), VX_ERR_FORMAT) << "no block open; a binary state never closes the FORM";
    if (iw)
        IFFWChunkClose(iw);
    std::string bytes = w->impl ? std::string(static_cast<const char *>(w->impl), static_cast<size_t>(w->length)) : "";
    IFFWDestroy(iw), StrmWriteDestroy(w);
    return bytes;
}

std::string SaveTree(const std::vector<Block> &top, uint32_t formType = 0)
{
    return Saved(formType, [&](VxSaveState *s) {
        for (const Block &b : top)
            Save(s, b);
        EXPECT_EQ(s->depth, 0);
    });
}

// A load state over `bytes` (or their first `length` bytes): a text state, or a binary one
// when `binary` (over a FORM of `formType`, 0 for any), made before the FORM is read.
struct Loaded {
    std::string bytes;
    VxReadStrm *stream;
    VxIFFReader *reader = nullptr;
    VxLoadState state;
    explicit Loaded(std::string b, bool binary = false, uint32_t formType = 0, size_t length = SIZE_MAX)
        : bytes(std::move(b)), stream(MemStrmReadCreate(bytes.data(), static_cast<int32_t>(std::min(length, bytes.size())), 0))
    {
        if ((reader = binary ? IFFRCreate(stream) : nullptr))
            IFFRFormType(reader, formType), IFFInitLoadState(&state, reader);
        else
            StrmInitLoadState(&state, stream);
    }
    ~Loaded() { IFFRDestroy(reader), StrmReadDestroy(stream); }
    VxLoadState *operator->() { return &state; }
};

// Three random top-level blocks per seed, for seeds 1 to 200, saved and loaded back through
// text states, or binary ones in a FORM of `formType`.
void RandomTreesRoundTrip(uint32_t formType)
{
    for (uint32_t seed = 1; seed <= 200 && !::testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937 rng(seed);
        const Block root{nullptr, {}, {RandomBlock(rng, 1), RandomBlock(rng, 1), RandomBlock(rng, 1)}};
        Loaded load(SaveTree(root.kids, formType), formType != 0, formType);
        Load(&load.state, root);
    }
}

TEST(TextStates, RandomTreesRoundTripEveryValueExactly) { RandomTreesRoundTrip(0); }

// Sub-chunks carry 16-bit lengths: the random trees are small enough.
TEST(BinaryStates, RandomTreesRoundTripThroughIFF) { RandomTreesRoundTrip(VX_ID('S', 'C', 'N', 'E')); }

TEST(TextStates, WriterLayoutIsExact)
{
    static const VxBlockDesc entry{VX_ID('P', 'L', 'U', 'G'), "Entry"}, cls{VX_ID('C', 'L', 'A', 'S'), "Class"},
        tag{VX_ID('I', 'N', 'F', 'O'), "InfoTag"}, span{VX_ID('S', 'P', 'A', 'N'), nullptr};
    const std::string text = Saved(0, [](VxSaveState *s) {
        const int32_t word = 65536;
        const int16_t after = -5;
        const float floats[3] = {0.1f, -0.0f, 1e30f};
        const uint32_t ids[2] = {VX_ID('T', 'C', 'B', ' '), VX_ID(0, 1, 2, 3)};
        s->beginBlock(s, &entry), s->writeIndex(s, 7);
        s->beginBlock(s, &cls), s->writeString(s, "Image \"Filter\"\n\x01\\"), s->endBlock(s);
        s->beginBlock(s, &tag), s->writeLongs(s, &word, 1);
        s->beginBlock(s, &span), s->writeIDs(s, ids, 2), s->writeFloats(s, floats, 3);
        s->endBlock(s), s->endBlock(s), s->writeShorts(s, &after, 1), s->endBlock(s);
    });
    EXPECT_EQ(text, "Entry 7 {\n"
                    "  Class \"Image \\\"Filter\\\"\\n\\x01\\\\\"\n"
                    "  InfoTag 65536 {\n"
                    "    SPAN 'TCB ' 0x00010203 0.1 -0 1e+30\n"
                    "  }\n"
                    "  -5\n"
                    "}\n");
}


const VxBlockDesc kPlug[] = {{VX_ID('P', 'L', 'U', 'G'), "Entry"}, {VX_ID('C', 'L', 'A', 'S'), "Class"},
                             {VX_ID('K', 'E', 'Y', ' '), "Key"}, {0, nullptr}};

TEST(TextStates, HandEditedTextWithCommentsBracesAndUnknownBlocksReads)
{
    Loaded t("# plug-in database\r\n"
             "\n"
             "Unknown 1 2 { nested { \"}\" } more \"{\" }\n"
             "Entry {   # first entry\r\n"
             "  Skipped \"x\"\n"
             "  Class \"Blur\" Key { 1.5\n"
             "     2 }\n"
             "  Key 3 4}\n"
             "Entry 5\n"
             "6\n");
    VxLoadState *s = &t.state;
    char name[2][16];
    float f[3];
    int32_t l[2];
    const auto find = [s] { return static_cast<int64_t>(s->findBlock(s, kPlug)); };
    // A block's head ends at the next keyword or the line end; values may stand at the top level.
    const Trace got = {find(), find(), s->readString(s, name[0], 16), s->readString(s, name[1], 16), s->endBlock(s),
                       find(), s->readFloats(s, f, 3), s->endBlock(s),
                       find(), s->readLongs(s, l, 2), l[1], s->endBlock(s), find(), s->endBlock(s),
                       find(), s->readLongs(s, l, 2), s->endBlock(s), s->readLongs(s, l, 2), l[0], find(), s->error};
    EXPECT_EQ(got, (Trace{kPlug[0].id, kPlug[1].id, 1, 0, 0, kPlug[2].id, 2, 0, kPlug[2].id, 2, 4, 0, 0, 0,
                          kPlug[0].id, 1, 0, 1, 6, 0, 0}));
    EXPECT_STREQ(name[0], "Blur");
    EXPECT_EQ(std::vector<float>(f, f + 2), (std::vector<float>{1.5f, 2.0f}));
    EXPECT_EQ(s->endBlock(s), VX_ERR_FORMAT) << "no block is open";
}

TEST(TextStates, MalformedTextFailsWithAMessageAndItsLine)
{
    // keyRead: what a Key block is read as: l longs, f floats, i IDs, n nothing (enter it)
    struct Case { std::string text; const char *message; int line; char keyRead = 'l'; };
    const std::string deep = [] { std::string d; while (d.size() < 17 * 6) d += "Key {\n"; return d; }();  // 17 levels
    const Case cases[] = {
        {"Entry {\n  Class \"open\n}\n", "unterminated string", 2},
        {"Class \"a\\qb\"\n", "unknown escape in string", 1},
        {"Class \"a\\x00\"\n", "\\x needs two hex digits, not 00", 1},
        {"\n\n}\n", "\"}\" without an open block", 3},
        {"Entry {\n Class \"x\"\n", "missing \"}\" at the end of the text", 3},
        {"Key 'AB'\n", "an ID is four printable characters between single quotes", 1, 'i'},
        {"Key \"s\"\n", "a string where a number was expected", 1},
        {"Key 99999999999\n", "integer out of range", 1},
        {"Key 12abc\n", "malformed integer", 1},
        {"Key 1e99\n", "float out of range", 1, 'f'},
        {"Key @\n", "unexpected character", 1},
        {"Entry { {\n", "\"{\" must follow a block's keyword and values", 1},
        {"Class 5\n", "a number or ID where a string was expected", 1},
        {deep, "blocks nested deeper than 16 levels", 16, 'n'},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        vxtest::DebugCapture debug;
        Loaded t(c.text);
        VxLoadState *s = &t.state;
        union { char buf[8]; int32_t l; float f; uint32_t i; } v;
        for (int guard = 0; guard < 20 && !s->error; ++guard) {
            const uint32_t id = s->findBlock(s, kPlug);
            if (id == kPlug[1].id)
                s->readString(s, v.buf, 8);
            else if (id == kPlug[2].id && c.keyRead != 'n')
                (void)(c.keyRead == 'f' ? s->readFloats(s, &v.f, 1) : c.keyRead == 'i' ? s->readIDs(s, &v.i, 1) : s->readLongs(s, &v.l, 1));
            else if (!id && s->depth == 0)
                break;
            if (id != kPlug[0].id && (id != kPlug[2].id || c.keyRead != 'n'))
                s->endBlock(s);
        }
        EXPECT_STREQ(s->message ? s->message : "(none)", c.message);
        EXPECT_EQ(debug.Text(), "load state: line " + std::to_string(c.line) + ": " + c.message + "\n");
        EXPECT_EQ(Trace({s->error, s->line, s->findBlock(s, kPlug), s->readLongs(s, &v.l, 1)}),
                  (Trace{VX_ERR_FORMAT, c.line, 0, -VX_ERR_FORMAT})) << "the failure is sticky";
    }
}


// Reads everything generically inside a checkpoint block; returns whether a failure reached
// the block.
bool WalkInsideABlock(VxLoadState *s, bool binary)
{
    if (CkptBegin())
        return CkptLatchCode(), true;
    vxtest::WalkLoadState(s, kDescs, 10000, [binary](VxLoadState *l) {
        char buf[8];
        float f;
        return binary ? l->readBytes(l, reinterpret_cast<uint8_t *>(buf), 8) > 0
                      : l->readString(l, buf, 8) == 1 || l->readFloats(l, &f, 1) == 1;
    });
    return CkptEnd(), false;
}

// Every prefix of a saved file loads without a crash, a leak or an unwind of the caller's
// block; a text prefix may read cleanly (its end may fall between blocks) or fail with a
// message, a binary prefix is always reported. A text load allocates nothing but its stream.
TEST(SaveStates, EveryPrefixOfASavedFileLoadsCleanly)
{
    for (const uint32_t formType : {0u, VX_ID('S', 'C', 'N', 'E')}) {
        std::mt19937 rng(formType ? 8 : 21);
        const std::string bytes = SaveTree({RandomBlock(rng, 1), RandomBlock(rng, 1)}, formType);
        vxtest::FaultAllocator heap;
        int failures = 0;
        for (size_t n = 0; n < bytes.size() + (formType ? 0 : 1); ++n) {
            Loaded cut(bytes, formType != 0, 0, n);
            EXPECT_FALSE(WalkInsideABlock(&cut.state, formType != 0)) << "a failure unwound the caller's block";
            const int32_t error = cut->error;
            failures += error != 0;
            EXPECT_TRUE(error == 0 || error == VX_ERR_FORMAT || (formType && error == VX_ERR_IO)) << error;
            EXPECT_TRUE(formType || error == 0 || cut->message != nullptr);
        }
        if (formType)
            EXPECT_EQ(failures, static_cast<int>(bytes.size())) << "every cut binary file is reported";
        else
            EXPECT_EQ(heap.Allocations(), static_cast<int64_t>(bytes.size() + 1)) << "one stream record per prefix";
        EXPECT_EQ(heap.LiveBytes(), 0u);
    }
}

TEST(BinaryStates, IndexAndStringsHaveTheirFileForm)
{
    static const VxBlockDesc envl{VX_ID('E', 'N', 'V', 'L'), "Envelope"};
    const std::string bytes = Saved(VX_ID('T', 'E', 'S', 'T'), [](VxSaveState *s) {
        s->beginBlock(s, &envl), s->writeIndex(s, 0xFEFF), s->writeIndex(s, 0xFF00), s->writeString(s, "ab");
        EXPECT_EQ(s->writeIndex(s, 0x1000000), VX_ERR_FORMAT);
        s->error = 0, s->endBlock(s);
    });
    EXPECT_EQ(bytes.substr(12), "ENVL\0\0\0\x0A\xFE\xFF\xFF\x00\xFF\x00" "ab\0\0"s);
    Loaded load(bytes, true, VX_ID('T', 'E', 'S', 'T')), wrong(bytes, true, VX_ID('O', 'T', 'H', 'R'));
    VxLoadState *l = &load.state;
    uint32_t index[2];
    char buf[4] = {'#', '#', '#', '#'};
    // Read back: a string longer than the buffer is cut, and the terminator stays inside it; a
    // FORM of another type is refused.
    const Trace got = {l->findBlock(l, kDescs), l->readIndex(l, &index[0]), l->readIndex(l, &index[1]), index[0],
                       index[1], l->readString(l, buf, 2), buf[0], buf[1], buf[2], l->endBlock(l),
                       wrong->findBlock(&wrong.state, kDescs), wrong->error};
    EXPECT_EQ(got, (Trace{envl.id, 1, 1, 0xFEFF, 0xFF00, 1, 'a', 0, '#', 0, 0, VX_ERR_FORMAT}));
}

TEST(SaveStates, TextKeywordsCannotStartWithADigit)
{
    static const VxBlockDesc bad{VX_ID('1', 'A', 'B', 'C'), nullptr};
    Saved(0, [](VxSaveState *s) { EXPECT_EQ(Trace({s->beginBlock(s, &bad), s->error}), (Trace{VX_ERR_FORMAT, VX_ERR_FORMAT})); });
}

}  // namespace
