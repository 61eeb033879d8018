#include <vxtools3/ckpt.h>
#include <vxtools3/states.h>

#include "testkit/capture.h"
#include "testkit/fault_alloc.h"
#include "testkit/state_walk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

// ---- A model of saved data -------------------------------------------------------------

enum class Kind { Bytes, Shorts, Longs, Ids, Floats, String, Index };

struct Values {
    Kind kind;
    std::vector<uint32_t> items;  // raw bits of each item (floats as their bits)
    std::string text;             // Kind::String
};

struct Block {
    const VxBlockDesc *desc = nullptr;
    std::vector<Values> values;
    std::vector<Block> kids;
};

// The blocks a saver may use: plain keywords, a keyword derived from the ID, odd IDs.
const VxBlockDesc kDescs[] = {
    {VX_ID('E', 'N', 'V', 'L'), "Envelope"}, {VX_ID('K', 'E', 'Y', ' '), "Key"},
    {VX_ID('S', 'P', 'A', 'N'), "Span"},     {VX_ID('P', 'R', 'E', ' '), nullptr},
    {VX_ID('C', 'H', 'A', 'N'), "Channel_2.x-y"}, {0xFF000001u, "Odd"},
    {0, nullptr},
};
constexpr int kDescCount = 6;

uint32_t RandomFloatBits(std::mt19937 &rng)
{
    switch (rng() % 8) {
    case 0: return 0x7F800000u;                          // +inf
    case 1: return 0xFFC00001u;                          // a NaN with a payload
    case 2: return 0x80000000u;                          // -0
    case 3: return rng() % 0x800000u;                    // subnormal
    case 4: return std::bit_cast<uint32_t>(static_cast<float>(rng() % 1000) / 8.0f);
    default: {
        uint32_t bits = static_cast<uint32_t>(rng());
        return (bits & 0x7F800000u) == 0x7F800000u ? bits ^ 0x40000000u : bits;  // finite
    }
    }
}

std::string RandomString(std::mt19937 &rng)
{
    std::string s(rng() % 5 == 0 ? rng() % 200 : rng() % 8, 'x');
    for (char &c : s) {
        int r = static_cast<int>(rng() % 10);
        c = r == 0 ? '"' : r == 1 ? '\\' : r == 2 ? '\n' : r == 3 ? static_cast<char>(1 + rng() % 255)
                                                                 : static_cast<char>('a' + rng() % 26);
    }
    return s;
}

Values RandomValues(std::mt19937 &rng)
{
    Values v{static_cast<Kind>(rng() % 7), {}, {}};
    int n = v.kind == Kind::String || v.kind == Kind::Index ? 1 : 1 + static_cast<int>(rng() % 5);
    for (int i = 0; i < n; ++i) {
        uint32_t r = static_cast<uint32_t>(rng());
        switch (v.kind) {
        case Kind::Bytes: v.items.push_back(r & 0xFF); break;
        case Kind::Shorts: v.items.push_back(r & 0xFFFF); break;
        case Kind::Longs: v.items.push_back(r); break;
        case Kind::Ids: v.items.push_back(rng() % 2 ? VX_ID('A' + r % 26, 'x', ' ', '\'') : r); break;
        case Kind::Floats: v.items.push_back(RandomFloatBits(rng)); break;
        case Kind::String: v.text = RandomString(rng); break;
        case Kind::Index: {
            static constexpr uint32_t kEdges[] = {0, 0xFEFF, 0xFF00, 0xFFFF, 0xFFFFFF};
            v.items.push_back(rng() % 2 ? kEdges[r % 5] : r % 0x1000000u);
            break;
        }
        }
    }
    return v;
}

Block RandomBlock(std::mt19937 &rng, int depth)
{
    Block b;
    b.desc = &kDescs[rng() % kDescCount];
    int values = static_cast<int>(rng() % 4);
    for (int i = 0; i < values; ++i)
        b.values.push_back(RandomValues(rng));
    int kids = depth < 4 && rng() % 2 ? static_cast<int>(rng() % 4) : 0;
    for (int i = 0; i < kids; ++i)
        b.kids.push_back(RandomBlock(rng, depth + 1));
    return b;
}

// ---- Saving and loading the model ------------------------------------------------------

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

// Reads n items and returns their bits, or nothing when fewer came.
template <class T, class Read>
std::vector<uint32_t> ReadItems(VxLoadState *s, Read read, size_t n)
{
    std::vector<T> buf(n);
    return read(s, buf.data(), static_cast<int32_t>(n)) == static_cast<int32_t>(n) ? Recast<uint32_t>(buf) : std::vector<uint32_t>{};
}

void ExpectValues(VxLoadState *s, const Values &v)
{
    const size_t n = v.items.size();
    std::vector<uint32_t> got;
    switch (v.kind) {
    case Kind::Bytes: got = ReadItems<uint8_t>(s, s->readBytes, n); break;
    case Kind::Shorts: got = ReadItems<int16_t>(s, s->readShorts, n); break;
    case Kind::Longs: got = ReadItems<int32_t>(s, s->readLongs, n); break;
    case Kind::Ids: got = ReadItems<uint32_t>(s, s->readIDs, n); break;
    case Kind::Floats: got = ReadItems<float>(s, s->readFloats, n); break;
    case Kind::String: {
        std::vector<char> text(v.text.size() + 1, '?');
        ASSERT_EQ(s->readString(s, text.data(), static_cast<int32_t>(text.size())), 1);
        ASSERT_EQ(std::string(text.data()), v.text);
        return;
    }
    case Kind::Index: got.resize(1); ASSERT_EQ(s->readIndex(s, got.data()), 1); break;
    }
    ASSERT_EQ(got, v.items) << "kind " << static_cast<int>(v.kind);
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

// Saves through a text state, or a binary one inside a FORM of `formType`, and returns the
// bytes.
template <class F>
std::string Saved(uint32_t formType, F save)
{
    VxWriteStrm *w = MemStrmWriteCreate();
    VxIFFWriter *iw = formType ? IFFWCreate(w) : nullptr;
    VxSaveState s;
    if (iw) {
        IFFWChunkOpen(iw, VX_ID('F', 'O', 'R', 'M'), formType);
        IFFInitSaveState(&s, iw);
        EXPECT_EQ(iw->level[0].flags & VX_IFF_STATE_BASE, VX_IFF_STATE_BASE);
    } else {
        StrmInitSaveState(&s, w);
    }
    save(&s);
    EXPECT_EQ(s.endBlock(&s), VX_ERR_FORMAT) << "no block open; a binary state never closes the FORM";
    if (iw)
        IFFWChunkClose(iw);
    std::string bytes = w->impl ? std::string(static_cast<const char *>(w->impl), static_cast<size_t>(w->length)) : "";
    IFFWDestroy(iw);
    StrmWriteDestroy(w);
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
        : bytes(std::move(b))
    {
        stream = MemStrmReadCreate(bytes.data(), static_cast<int32_t>(std::min(length, bytes.size())), 0);
        if (binary) {
            reader = IFFRCreate(stream);
            IFFRFormType(reader, formType);
            IFFInitLoadState(&state, reader);
        } else {
            StrmInitLoadState(&state, stream);
        }
    }
    ~Loaded()
    {
        IFFRDestroy(reader);
        StrmReadDestroy(stream);
    }
    VxLoadState *operator->() { return &state; }
};

// Three random top-level blocks per seed, for seeds 1 to 200, saved and loaded back through
// text states, or binary ones in a FORM of `formType`.
void RandomTreesRoundTrip(uint32_t formType)
{
    for (uint32_t seed = 1; seed <= 200 && !::testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937 rng(seed);
        Block root;
        for (int i = 0; i < 3; ++i)
            root.kids.push_back(RandomBlock(rng, 1));
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
        s->beginBlock(s, &entry);
        s->writeIndex(s, 7);
        s->beginBlock(s, &cls);
        s->writeString(s, "Image \"Filter\"\n\x01\\");
        s->endBlock(s);
        s->beginBlock(s, &tag);
        s->writeLongs(s, &word, 1);
        s->beginBlock(s, &span);
        s->writeIDs(s, ids, 2);
        s->writeFloats(s, floats, 3);
        s->endBlock(s);
        s->endBlock(s);
        s->writeShorts(s, &after, 1);
        s->endBlock(s);
    });
    EXPECT_EQ(text, "Entry 7 {\n"
                    "  Class \"Image \\\"Filter\\\"\\n\\x01\\\\\"\n"
                    "  InfoTag 65536 {\n"
                    "    SPAN 'TCB ' 0x00010203 0.1 -0 1e+30\n"
                    "  }\n"
                    "  -5\n"
                    "}\n");
}

// ---- Reading what people write ---------------------------------------------------------

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
    ASSERT_EQ(s->findBlock(s, kPlug), kPlug[0].id);
    ASSERT_EQ(s->findBlock(s, kPlug), kPlug[1].id);
    char name[16];
    EXPECT_EQ(s->readString(s, name, 16), 1);
    EXPECT_STREQ(name, "Blur");
    EXPECT_EQ(s->readString(s, name, 16), 0) << "the head ends at the next keyword";
    EXPECT_EQ(s->endBlock(s), 0);
    float f[3];
    ASSERT_EQ(s->findBlock(s, kPlug), kPlug[2].id);
    EXPECT_EQ(s->readFloats(s, f, 3), 2);
    EXPECT_EQ(std::vector<float>(f, f + 2), (std::vector<float>{1.5f, 2.0f}));
    EXPECT_EQ(s->endBlock(s), 0);
    ASSERT_EQ(s->findBlock(s, kPlug), kPlug[2].id);
    int32_t l[2];
    EXPECT_EQ(s->readLongs(s, l, 2), 2);
    EXPECT_EQ(l[1], 4);
    EXPECT_EQ(s->endBlock(s), 0);
    EXPECT_EQ(s->findBlock(s, kPlug), 0u);
    EXPECT_EQ(s->endBlock(s), 0);
    ASSERT_EQ(s->findBlock(s, kPlug), kPlug[0].id);
    EXPECT_EQ(s->readLongs(s, l, 2), 1) << "a head ends at the line end";
    EXPECT_EQ(s->endBlock(s), 0);
    EXPECT_EQ(s->readLongs(s, l, 2), 1) << "a value at the top level";
    EXPECT_EQ(l[0], 6);
    EXPECT_EQ(s->findBlock(s, kPlug), 0u);
    EXPECT_EQ(s->error, 0) << s->message;
    EXPECT_EQ(s->endBlock(s), VX_ERR_FORMAT) << "no block is open";
}

TEST(TextStates, MalformedTextFailsWithAMessageAndItsLine)
{
    struct Case {
        std::string text;
        const char *message;
        int line;
        char keyRead = 'l';  // what a Key block is read as: l longs, f floats, i IDs, n nothing (enter it)
    };
    std::string deep;
    for (int i = 0; i < 17; ++i)
        deep += "Key {\n";
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
        char buf[8];
        int32_t l;
        float f;
        uint32_t i;
        for (int guard = 0; guard < 20 && !s->error; ++guard) {
            const uint32_t id = s->findBlock(s, kPlug);
            if (id == kPlug[1].id)
                s->readString(s, buf, 8);
            else if (id == kPlug[2].id && c.keyRead != 'n')
                (void)(c.keyRead == 'f' ? s->readFloats(s, &f, 1) : c.keyRead == 'i' ? s->readIDs(s, &i, 1) : s->readLongs(s, &l, 1));
            else if (!id && s->depth == 0)
                break;
            if (id != kPlug[0].id && (id != kPlug[2].id || c.keyRead != 'n'))
                s->endBlock(s);
        }
        EXPECT_EQ(s->error, VX_ERR_FORMAT);
        EXPECT_STREQ(s->message ? s->message : "(none)", c.message);
        EXPECT_EQ(s->line, c.line);
        EXPECT_EQ(debug.Text(), "load state: line " + std::to_string(c.line) + ": " + c.message + "\n");
        EXPECT_EQ(s->findBlock(s, kPlug), 0u) << "the failure is sticky";
        EXPECT_EQ(s->readLongs(s, &l, 1), -VX_ERR_FORMAT);
    }
}

// ---- Cut files -------------------------------------------------------------------------

// Reads everything generically inside a checkpoint block; returns whether a failure reached
// the block.
bool WalkInsideABlock(VxLoadState *s, bool binary)
{
    if (CkptBegin()) {
        CkptLatchCode();
        return true;
    }
    vxtest::WalkLoadState(s, kDescs, 10000, [binary](VxLoadState *l) {
        char buf[8];
        float f;
        if (binary)
            return l->readBytes(l, reinterpret_cast<uint8_t *>(buf), 8) > 0;
        return l->readString(l, buf, 8) == 1 || l->readFloats(l, &f, 1) == 1;
    });
    CkptEnd();
    return false;
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
        s->beginBlock(s, &envl);
        s->writeIndex(s, 0xFEFF);
        s->writeIndex(s, 0xFF00);
        s->writeString(s, "ab");
        EXPECT_EQ(s->writeIndex(s, 0x1000000), VX_ERR_FORMAT);
        s->error = 0;
        s->endBlock(s);
    });
    const std::string expect = "ENVL\0\0\0\x0A\xFE\xFF\xFF\x00\xFF\x00" "ab\0\0"s;
    EXPECT_EQ(bytes.substr(12), expect);
    // Read back: a string longer than the buffer is cut, and the terminator stays inside it.
    Loaded load(bytes, true, VX_ID('T', 'E', 'S', 'T'));
    VxLoadState *l = &load.state;
    uint32_t index[2];
    ASSERT_EQ(l->findBlock(l, kDescs), envl.id);
    EXPECT_EQ(l->readIndex(l, &index[0]) + l->readIndex(l, &index[1]), 2);
    EXPECT_EQ(index[0], 0xFEFFu);
    EXPECT_EQ(index[1], 0xFF00u);
    char buf[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(l->readString(l, buf, 2), 1);
    EXPECT_STREQ(buf, "a");
    EXPECT_EQ(buf[2], '#') << "written past the buffer";
    EXPECT_EQ(l->endBlock(l), 0);
    Loaded wrong(bytes, true, VX_ID('O', 'T', 'H', 'R'));
    EXPECT_EQ(wrong->findBlock(&wrong.state, kDescs), 0u);
    EXPECT_EQ(wrong->error, VX_ERR_FORMAT) << "a FORM of another type";
}

TEST(SaveStates, TextKeywordsCannotStartWithADigit)
{
    static const VxBlockDesc bad{VX_ID('1', 'A', 'B', 'C'), nullptr};
    Saved(0, [](VxSaveState *s) {
        EXPECT_EQ(s->beginBlock(s, &bad), VX_ERR_FORMAT);
        EXPECT_EQ(s->error, VX_ERR_FORMAT);
    });
}

}  // namespace
