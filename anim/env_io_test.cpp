// The saved form: a byte-exact "ENVL" image, binary and text round trips of random
// envelopes, modifiers through "CHAN" blocks, truncated input and the out-of-memory sweep.
#include <vxtools3/ckpt.h>
#include <vxtools3/envelope.h>

#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kForm = VX_ID('F', 'O', 'R', 'M');
constexpr uint32_t kFormType = VX_ID('T', 'E', 'S', 'T');

Bytes Contents(VxWriteStrm *w)
{
    const auto *p = static_cast<const uint8_t *>(w->impl);
    return Bytes(p, p + w->length);
}

// Saves the envelopes into a FORM of kFormType (binary) or as text.
Bytes Save(const std::vector<VxEnvelope *> &envs, bool text)
{
    VxWriteStrm *w = MemStrmWriteCreate();
    VxSaveState s;
    VxIFFWriter *iw = nullptr;
    if (text) {
        StrmInitSaveState(&s, w);
    } else {
        iw = IFFWCreate(w);
        IFFWChunkOpen(iw, kForm, kFormType);
        IFFInitSaveState(&s, iw);
    }
    for (VxEnvelope *env : envs)
        EXPECT_EQ(EnvSave(env, &s), 1);
    if (iw) {
        IFFWChunkClose(iw);
        IFFWDestroy(iw);
    }
    Bytes bytes = Contents(w);
    StrmWriteDestroy(w);
    return bytes;
}

// A load state over bytes, with what it holds.
struct Source {
    VxReadStrm *stream = nullptr;
    VxIFFReader *reader = nullptr;
    VxLoadState state{};
    explicit Source(const Bytes &bytes, bool text)
    {
        stream = MemStrmReadCreate(bytes.data(), static_cast<int32_t>(bytes.size()), 1);
        if (text) {
            StrmInitLoadState(&state, stream);
        } else {
            reader = IFFRCreate(stream);
            IFFInitLoadState(&state, reader);
        }
    }
    ~Source()
    {
        IFFRDestroy(reader);
        StrmReadDestroy(stream);
    }
};

std::string Hex(const Bytes &b)
{
    std::string out;
    char x[4];
    for (uint8_t c : b)
        std::snprintf(x, sizeof x, "%02X ", c), out += x;
    return out;
}

TEST(EnvSaved, ByteExactEnvlImage)
{
    VxEnvelope *env = EnvCreate(nullptr, 0x1A2, 1, "Pos");
    int32_t pre = ENV_BEHAVIOR_REPEAT, post = ENV_BEHAVIOR_OSCILLATE;
    EnvSet(env, ENV_ATTR_PRE, &pre);
    EnvSet(env, ENV_ATTR_POST, &post);
    VxEnvKey *a = EnvAddKey(env, 0.5, 1.0);
    EnvKeySetParam(a, 0, 0.5);
    EnvKeySetParam(a, 2, -0.25);
    EnvKeySetType(env, EnvAddKey(env, 1.0, 2.0), ENV_SHAPE_LINEAR);
    EnvSetSaveIndex(env, 7);
    const Bytes expected = {
        'F', 'O', 'R', 'M', 0, 0, 0, 0x6C, 'T', 'E', 'S', 'T',  // form of 4 + 8 + 96 bytes
        'E', 'N', 'V', 'L', 0, 0, 0, 0x60,                      // 96 bytes of envelope
        0x00, 0x07,                                             // save index
        'N', 'A', 'M', 'E', 0, 4, 'P', 'o', 's', 0,             // odd name: one zero
        'T', 'Y', 'P', 'E', 0, 2, 0xA2, 0x01,                   // client byte, type
        'P', 'R', 'E', ' ', 0, 2, 0, 2,                         //
        'K', 'E', 'Y', ' ', 0, 8, 0x3F, 0, 0, 0, 0x3F, 0x80, 0, 0,
        'S', 'P', 'A', 'N', 0, 16, 'T', 'C', 'B', ' ', 0x3F, 0, 0, 0, 0, 0, 0, 0, 0xBE, 0x80, 0, 0,
        'K', 'E', 'Y', ' ', 0, 8, 0x3F, 0x80, 0, 0, 0x40, 0, 0, 0,
        'S', 'P', 'A', 'N', 0, 4, 'L', 'I', 'N', 'E',           //
        'P', 'O', 'S', 'T', 0, 2, 0, 3,
    };
    EXPECT_EQ(Hex(Save({env}, false)), Hex(expected));
    // Large save indexes take four bytes with the top byte 0xFF; none or negative write 0.
    EnvSetSaveIndex(env, 0x12345);
    Bytes big = Save({env}, false);
    EXPECT_EQ(Hex(Bytes(big.begin() + 20, big.begin() + 24)), "FF 01 23 45 ");
    EnvSetSaveIndex(env, -1);
    const Bytes none = Save({env}, false);
    EXPECT_EQ(Hex(Bytes(none.begin() + 20, none.begin() + 22)), "00 00 ");
    EnvDestroy(env);
}

TEST(EnvSaved, TextFormReadsLikeTheBinary)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 4, nullptr);
    EnvKeySetType(env, EnvAddKey(env, 0.0, 1.5), ENV_SHAPE_STEPPED);
    EnvKeySetType(env, EnvAddKey(env, 0.25, -2.0), ENV_SHAPE_HERMITE);
    const Bytes text = Save({env}, true);
    const std::string expected = "Envelope 0 {\n"
                                 "  Name \"Rotation.H\"\n"
                                 "  Type 0 4\n"
                                 "  Pre 1\n"
                                 "  Key 0 1.5\n"
                                 "  Span 'STEP'\n"
                                 "  Key 0.25 -2\n"
                                 "  Span 'HERM' 0 0\n"
                                 "  Post 1\n"
                                 "}\n";
    EXPECT_EQ(std::string(text.begin(), text.end()), expected);
    EnvDestroy(env);
}

// Random envelopes whose numbers survive single precision: saved, loaded into a fresh
// envelope, they evaluate identically and save to the same bytes again.
VxEnvelope *RandomEnvelope(std::mt19937 &rng)
{
    auto q = [&](int range) { return static_cast<double>(static_cast<int>(rng() % (2 * range * 64)) - range * 64) / 64; };
    VxEnvelope *env = EnvCreate(nullptr, 0x33, static_cast<int32_t>(rng() % 16), nullptr);
    int32_t pre = static_cast<int32_t>(rng() % 6), post = static_cast<int32_t>(rng() % 6);
    EnvSet(env, ENV_ATTR_PRE, &pre);
    EnvSet(env, ENV_ATTR_POST, &post);
    const int32_t shapes[] = {ENV_SHAPE_TCB, ENV_SHAPE_HERMITE, ENV_SHAPE_LINEAR, ENV_SHAPE_STEPPED, ENV_SHAPE_BEZIER2};
    int32_t tick = static_cast<int32_t>(rng() % 20000) - 10000;
    for (int i = 0, n = static_cast<int>(rng() % 9); i < n; ++i) {
        VxEnvKey *k = EnvAddKey(env, tick / 3600.0, q(20));
        const int32_t shape = shapes[rng() % 5];
        EnvKeySetType(env, k, shape);
        // Only what the span saves is set; the rest stays zero, as after a load.
        for (int32_t p = 0; p < 5; ++p)
            EnvKeySetParam(k, p, 0.0);
        const int first = shape == ENV_SHAPE_HERMITE ? 3 : 0;
        const int count = shape == ENV_SHAPE_TCB ? 3 : shape == ENV_SHAPE_HERMITE ? 2 : shape == ENV_SHAPE_BEZIER2 ? 4 : 0;
        for (int p = first; p < first + count; ++p)
            EnvKeySetParam(k, p, q(1));
        tick += 1 + static_cast<int32_t>(rng() % 5000);
    }
    return env;
}

void ExpectSameCurve(VxEnvelope *a, VxEnvelope *b)
{
    ASSERT_EQ(EnvGet(a, ENV_ATTR_KEY_COUNT), EnvGet(b, ENV_ATTR_KEY_COUNT));
    for (int i = -200; i <= 200; ++i) {
        const double t = i * 0.0173;
        const double va = EnvEvaluate(a, t), vb = EnvEvaluate(b, t);
        ASSERT_TRUE(va == vb || (va != va && vb != vb)) << t << ": " << va << " vs " << vb;
    }
}

TEST(EnvSaved, RandomEnvelopesRoundTripInBothForms)
{
    std::mt19937 rng(77);
    for (int round = 0; round < 150; ++round) {
        const bool text = round & 1;
        VxEnvelope *env = RandomEnvelope(rng);
        EnvSetSaveIndex(env, round);
        const Bytes first = Save({env}, text);
        Source src(first, text);
        VxEnvelope *loaded = EnvCreate(nullptr, 0x33, 0, "other");
        ASSERT_EQ(EnvLoad(loaded, &src.state), 1) << (src.state.message ? src.state.message : "");
        EXPECT_EQ(EnvLoad(loaded, &src.state), 0) << "one envelope only";
        EXPECT_EQ(src.state.error, 0);
        EXPECT_STREQ(EnvName(loaded), EnvName(env));
        EXPECT_EQ(EnvType(loaded), EnvType(env));
        EXPECT_EQ(EnvGet(loaded, ENV_ATTR_PRE), EnvGet(env, ENV_ATTR_PRE));
        EXPECT_EQ(EnvGet(loaded, ENV_ATTR_POST), EnvGet(env, ENV_ATTR_POST));
        ExpectSameCurve(env, loaded);
        EXPECT_EQ(Save({loaded}, text), first) << "round " << round;
        EnvDestroy(env);
        EnvDestroy(loaded);
    }
}

// ---- Modifiers in "CHAN" blocks ---------------------------------------------------------

struct Gain {
    VxEnvFilter filter;
    float gain;
};

void ApplyGain(VxEnvFilter *f, VxEnvelope *, double, double *value) { *value *= static_cast<Gain *>(f->data)->gain; }
int32_t SaveGain(VxEnvFilter *f, VxSaveState *s) { return s->writeFloats(s, &static_cast<Gain *>(f->data)->gain, 1); }
void DestroyGain(VxEnvFilter *f) { delete static_cast<Gain *>(f->data); }

Gain *MakeGain(float gain, int32_t flags)
{
    auto *g = new Gain{{{}, "Gain", flags, ApplyGain, SaveGain, DestroyGain, nullptr}, gain};
    g->filter.data = g;
    return g;
}

VxEnvFilter *LoadGain(const char *server, int32_t flags, VxLoadState *s, void *user)
{
    ++*static_cast<int *>(user);
    float gain = 0;
    if (std::strcmp(server, "Gain") || s->readFloats(s, &gain, 1) != 1)
        return nullptr;
    return &MakeGain(gain, flags)->filter;
}

// Keys in time order, reverse order and shuffled with ticks met twice load as if each key
// were looked up at its tick: a tick met again updates the value and what its span sets.
TEST(EnvSaved, KeysLoadInAnyOrder)
{
    struct MKey {
        double value = 0;
        int32_t shape = 0;
        double p[5] = {};
    };
    std::mt19937 rng(5);
    for (int round = 0; round < 60; ++round) {
        const int count = 1 + static_cast<int>(rng() % 40);
        std::vector<int> ticks(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i)
            ticks[i] = (i - 20) * 450;
        if (round % 3 == 1)
            std::reverse(ticks.begin(), ticks.end());
        if (round % 3 == 2) {
            std::shuffle(ticks.begin(), ticks.end(), rng);
            for (int i = 0; i < count / 4; ++i)
                ticks.push_back(ticks[rng() % ticks.size()]);
        }
        std::map<int, MKey> model;
        std::string text = "Envelope 0 {\n";
        const char *spans[] = {"'TCB ' 0.5 0.25 -1", "'HERM' 2 -3", "'LINE'", "'STEP'", "'BEZ2' -0.5 1 0.5 2", ""};
        for (int tick : ticks) {
            MKey &m = model[tick];
            m.value = static_cast<int>(rng() % 64) / 8.0;
            text += "  Key " + std::to_string(tick / 3600.0) + " " + std::to_string(m.value) + "\n";
            const int span = static_cast<int>(rng() % 6);
            if (*spans[span])
                text += std::string("  Span ") + spans[span] + "\n";
            const double given[6][5] = {{0.5, 0.25, -1, 0, 0}, {0, 0, 0, 2, -3}, {}, {}, {-0.5, 1, 0.5, 2, 0}, {}};
            const int32_t shape[6] = {ENV_SHAPE_TCB, ENV_SHAPE_HERMITE, ENV_SHAPE_LINEAR, ENV_SHAPE_STEPPED, ENV_SHAPE_BEZIER2, -1};
            if (shape[span] >= 0)
                m.shape = shape[span];
            const int first = span == 1 ? 3 : 0, n = span == 0 ? 3 : span == 1 ? 2 : span == 4 ? 4 : 0;
            for (int i = first; i < first + n; ++i)
                m.p[i] = given[span][i];
        }
        text += "}\n";
        const Bytes bytes(text.begin(), text.end());
        Source src(bytes, true);
        VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
        ASSERT_EQ(EnvLoad(env, &src.state), 1);
        ASSERT_EQ(EnvGet(env, ENV_ATTR_KEY_COUNT), static_cast<double>(model.size()));
        VxEnvKey *k = EnvKeyFirst(env);
        for (const auto &[tick, m] : model) {
            ASSERT_TRUE(k);
            EXPECT_EQ(EnvKeyTime(k), EnvKeyTime(EnvGetKey(env, tick / 3600.0))) << round;
            EXPECT_EQ(std::lround(EnvKeyTime(k) * 3600.0), tick) << round;
            EXPECT_EQ(EnvKeyValue(k), m.value) << round;
            EXPECT_EQ(EnvKeyType(k), m.shape) << round;
            EXPECT_EQ(EnvKeyMask(k), 0u);
            for (int32_t i = 0; i < 5; ++i)
                EXPECT_EQ(EnvKeyGetParam(k, i), m.p[i]) << round << " p" << i;
            k = EnvKeyNext(env, k);
        }
        EnvDestroy(env);
    }
}

TEST(EnvSaved, ModifiersRoundTripThroughTheirLoader)
{
    for (bool text : {false, true}) {
        VxEnvelope *env = EnvCreate(nullptr, 0, 0, "gained");
        EnvAddKey(env, 0.0, 2.0);
        EnvAddFilter(env, &MakeGain(3.0f, 0)->filter);
        EnvAddFilter(env, &MakeGain(5.0f, ENV_FILTER_STOP)->filter);
        const Bytes bytes = Save({env}, text);
        int calls = 0;
        EnvSetFilterLoader(LoadGain, &calls);
        Source src(bytes, text);
        VxEnvelope *loaded = EnvCreate(nullptr, 0, 0, nullptr);
        ASSERT_EQ(EnvLoad(loaded, &src.state), 1);
        EnvSetFilterLoader(nullptr, nullptr);
        EXPECT_EQ(calls, 2);
        EXPECT_EQ(EnvEvaluate(loaded, 1.0), 6.0);
        EXPECT_EQ(EnvFilterInstance(loaded, 1)->flags, ENV_FILTER_STOP);
        EXPECT_EQ(Save({loaded}, text), bytes);
        // Without a loader the blocks are skipped.
        Source again(bytes, text);
        VxEnvelope *plain = EnvCreate(nullptr, 0, 0, nullptr);
        ASSERT_EQ(EnvLoad(plain, &again.state), 1);
        EXPECT_EQ(EnvFilterInstance(plain, 0), nullptr);
        EXPECT_EQ(EnvEvaluate(plain, 1.0), 2.0);
        EnvDestroy(env);
        EnvDestroy(loaded);
        EnvDestroy(plain);
    }
}

// ---- Damaged input and exhaustion ----------------------------------------------------------

std::vector<std::pair<double, double>> Keys(const VxEnvelope *env)
{
    std::vector<std::pair<double, double>> out;
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
        out.emplace_back(EnvKeyTime(k), EnvKeyValue(k));
    return out;
}

TEST(EnvSaved, EveryTruncationFailsCleanlyAndLeavesTheEnvelope)
{
    std::mt19937 rng(5);
    VxEnvelope *env = RandomEnvelope(rng);
    while (EnvGet(env, ENV_ATTR_KEY_COUNT) < 3) {
        EnvDestroy(env);
        env = RandomEnvelope(rng);
    }
    for (bool text : {false, true}) {
        const Bytes whole = Save({env}, text);
        for (size_t cut = 0; cut < whole.size(); ++cut) {
            VxEnvelope *target = EnvCreate(nullptr, 0, 0, "target");
            EnvAddKey(target, 9.0, 9.0);
            Source src(Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)), text);
            const int loaded = EnvLoad(target, &src.state);
            if (!loaded) {
                EXPECT_EQ(Keys(target), (std::vector<std::pair<double, double>>{{9.0, 9.0}})) << cut;
                EXPECT_STREQ(EnvName(target), "target");
            }
            // Text cut before its brace is a whole block without a body: an empty envelope.
            // Text missing only its final line end is whole; any other cut fails.
            const bool headOnly = text && cut >= std::strlen("Envelope") && cut < std::strlen("Envelope 0 {");
            EXPECT_EQ(loaded, headOnly || (text && cut == whole.size() - 1) ? 1 : 0) << "cut " << cut;
            if (headOnly) {
                EXPECT_EQ(EnvGet(target, ENV_ATTR_KEY_COUNT), 0.0);
            }
            EnvDestroy(target);
        }
    }
    EnvDestroy(env);
}

TEST(EnvOom, LoadSweep)
{
    std::mt19937 rng(9);
    VxEnvelope *model = RandomEnvelope(rng);
    while (EnvGet(model, ENV_ATTR_KEY_COUNT) < 4) {
        EnvDestroy(model);
        model = RandomEnvelope(rng);
    }
    for (bool text : {false, true}) {
        const Bytes bytes = Save({model}, text);
        Source *src = nullptr;
        VxEnvelope *target = nullptr;
        vxtest::OomSweepAll({[&] {
                                 src = new Source(bytes, text);
                                 target = EnvCreate(nullptr, 0, 0, "target");
                                 EnvAddKey(target, 9.0, 9.0);
                             },
                             [&] { return EnvLoad(target, &src->state) == 1; },
                             [&] {
                                 EXPECT_EQ(Keys(target), (std::vector<std::pair<double, double>>{{9.0, 9.0}}));
                                 EXPECT_STREQ(EnvName(target), "target");
                             },
                             [&] {
                                 EnvDestroy(target);
                                 delete src;
                             }});
    }
    EnvDestroy(model);
}

}  // namespace

namespace {

// ---- Evaluation after edits -------------------------------------------------------------

uint64_t Bits(double v)
{
    uint64_t b;
    std::memcpy(&b, &v, sizeof b);
    return b;
}

VxEnvKey *NthKey(VxEnvelope *env, uint64_t pick)
{
    const auto count = static_cast<uint64_t>(EnvGet(env, ENV_ATTR_KEY_COUNT));
    VxEnvKey *k = count ? EnvKeyFirst(env) : nullptr;
    for (uint64_t i = count ? pick % count : 0; k && i; --i)
        k = EnvKeyNext(env, k);
    return k;
}

// Evaluates `env` and a fresh copy of it (nothing cached) at increasing, then random, times and
// expects the same bits, and the same parameters (with the tangents evaluation stores) after.
void ExpectSameAsFreshCopy(VxEnvelope *env, std::mt19937 &rng, int step)
{
    VxEnvelope *fresh = EnvCopy(env);
    const double tF = EnvGet(env, ENV_ATTR_FIRST_TIME), tL = EnvGet(env, ENV_ATTR_LAST_TIME);
    std::uniform_real_distribution<double> anywhere(tF - 1.5, tL + 1.5);
    for (int i = 0; i < 24; ++i) {
        const double t = i < 12 ? tF - 1.0 + (tL - tF + 2.0) * i / 11.0 : anywhere(rng);
        ASSERT_EQ(Bits(EnvEvaluate(env, t)), Bits(EnvEvaluate(fresh, t))) << "step " << step << " t " << t;
    }
    for (VxEnvKey *a = EnvKeyFirst(env), *b = EnvKeyFirst(fresh); a || b; a = EnvKeyNext(env, a), b = EnvKeyNext(fresh, b)) {
        ASSERT_TRUE(a && b);
        for (int32_t p = 0; p < 5; ++p)
            ASSERT_EQ(Bits(EnvKeyGetParam(a, p)), Bits(EnvKeyGetParam(b, p))) << "step " << step << " p" << p;
    }
    EnvDestroy(fresh);
}

// Every kind of edit, at random, between evaluations: an edit that left anything the
// evaluation keeps from earlier calls stale shows as a difference from a fresh copy.
TEST(EnvEdits, EvaluationAfterEveryKindOfEditMatchesAFreshCopy)
{
    std::mt19937 rng(31);
    auto uni = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    VxEnvelope *env = RandomEnvelope(rng);
    for (int step = 0; step < 4000; ++step) {
        VxEnvKey *k = NthKey(env, rng());
        VxEnvKey *k2 = NthKey(env, rng());
        const double t = std::round(uni(-2.0, 8.0) * 3600.0) / 3600.0;
        switch (rng() % 13) {
        case 0:
        case 1: EnvKeySetType(env, EnvAddKey(env, t, uni(-5, 5)), static_cast<int32_t>(rng() % 7)); break;
        case 2: EnvAddKey(env, k ? EnvKeyTime(k) : t, uni(-5, 5)); break;  // onto an existing key
        case 3: if (k) EnvSetKey(env, k, uni(-5, 5)); break;
        case 4: EnvDelKey(env, k); break;
        case 5: if (k) EnvKeyReplace(env, k, t, uni(-5, 5)); break;
        case 6: if (k) EnvKeySetTime(env, k, t); break;
        case 7: EnvShiftKeys(env, k, k2, uni(-0.5, 0.5)); break;
        case 8: EnvScaleKeys(env, k, k2, uni(0, 3), uni(0.3, 2)); break;
        case 9: if (k) EnvKeySetType(env, k, static_cast<int32_t>(rng() % 7)); break;
        case 10: if (k) EnvKeySetParam(k, static_cast<int32_t>(rng() % 5), uni(-0.4, 0.4)); break;
        case 11: {
            VxEnvelope *other = RandomEnvelope(rng);
            if (rng() & 1) {
                EnvCopyKeys(env, other);
            } else {
                const bool text = rng() & 1;
                const Bytes bytes = Save({other}, text);
                Source src(bytes, text);
                EXPECT_EQ(EnvLoad(env, &src.state), 1);
            }
            EnvDestroy(other);
            break;
        }
        default: {
            const auto behaviour = static_cast<int32_t>(rng() % 6);
            EnvSet(env, rng() & 1 ? ENV_ATTR_PRE : ENV_ATTR_POST, &behaviour);
            break;
        }
        }
        ASSERT_NO_FATAL_FAILURE(ExpectSameAsFreshCopy(env, rng, step));
    }
    EnvDestroy(env);
}

// The values at `times`, evaluated inside an open checkpoint block when `inBlock`; false when
// the evaluation raised a failure to that block.
bool Evaluate(VxEnvelope *env, const std::vector<double> &times, std::vector<uint64_t> &got, bool inBlock)
{
    if (inBlock && CkptBegin())
        return false;
    for (double t : times)
        got.push_back(Bits(EnvEvaluate(env, t)));
    if (inBlock)
        CkptEnd();
    return true;
}

// The evaluation keeps its tables in blocks of its own; when they cannot be had it walks the
// keys instead, with the same values, raising nothing and leaking nothing.
TEST(EnvOom, EvaluationWithoutMemoryWalksTheKeys)
{
    EnvDestroy(EnvCreate(nullptr, 0, 0, nullptr));  // the global port exists from now on
    std::mt19937 rng(5);
    auto uni = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    std::vector<double> times(2000);
    for (int round = 0; round < 40; ++round) {
        vxtest::FaultAllocator heap;
        VxEnvelope *env = RandomEnvelope(rng);
        if (round & 1) {
            // 2-D Bezier keys only, with handles from tight to far past their neighbours (where
            // the time curve turns back), over segments of one tick to 2000 seconds.
            while (VxEnvKey *k = EnvKeyFirst(env))
                EnvDelKey(env, k);
            // Values near the least normal doubles in some rounds: their curves' coefficients
            // come close to losing bits when scaled.
            const double size = round % 8 == 5 ? 1e-300 : 1.0;
            double t = 0.0;
            for (int i = 0; i < 8; ++i) {
                VxEnvKey *k = EnvAddKey(env, t, uni(-3, 3) * size);
                EnvKeySetType(env, k, ENV_SHAPE_BEZIER2);
                const double reach = round % 4 == 1 ? 0.4 : 1.5;
                EnvKeySetParam(k, 0, -uni(0, reach) * (t + 1) / 4);
                EnvKeySetParam(k, 1, uni(-2, 2) * size);
                EnvKeySetParam(k, 2, uni(0, reach) * (t + 1) / 4);
                EnvKeySetParam(k, 3, uni(-2, 2) * size);
                const uint32_t kind = rng() % 4;
                t += kind == 0 ? 1.0 / 3600.0 : kind == 1 ? uni(0, 2000) : uni(0.01, 1.5);
            }
            if (round % 8 == 7) {
                // Time handles at a third of their segments: nearly straight time curves, which
                // the evaluation inverts from its tables.
                for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k)) {
                    const VxEnvKey *prev = EnvKeyPrev(env, k), *next = EnvKeyNext(env, k);
                    EnvKeySetParam(k, 0, prev ? (EnvKeyTime(prev) - EnvKeyTime(k)) / 3 : 0.0);
                    EnvKeySetParam(k, 2, next ? (EnvKeyTime(next) - EnvKeyTime(k)) / 3 : 0.0);
                }
            }
        }
        const double tF = EnvGet(env, ENV_ATTR_FIRST_TIME), tL = EnvGet(env, ENV_ATTR_LAST_TIME);
        for (double &t : times)
            t = uni(tF - 1.0, tL + 1.0);
        if (round & 1) {
            // Every other time 0.0001 seconds from the time curve at a probe of the bisection,
            // give or take up to three units in the last place: where the bisection stops
            // turns on the last bits there, and a guessed end point must not be taken on trust.
            std::vector<const VxEnvKey *> keys;
            for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
                keys.push_back(k);
            for (size_t i = 0; i < times.size(); i += 2) {
                const size_t j = rng() % (keys.size() - 1);
                // The time curve in power form, computed as the evaluation computes it.
                const double x0 = EnvKeyTime(keys[j]), x3 = EnvKeyTime(keys[j + 1]);
                const double x1 = x0 + EnvKeyGetParam(keys[j], 2), x2 = x3 + EnvKeyGetParam(keys[j + 1], 0);
                const double a = (x1 - x0) * 3.0, b = (x2 - x1) * 3.0 - a, d = x3 - x0 - a - b;
                const int level = 1 + static_cast<int>(rng() % 17);
                const double s = static_cast<double>(2 * (rng() % (1u << (level - 1))) + 1) * std::ldexp(1.0, -level);
                double t = x0 + a * s + b * (s * s) + d * (s * s * s) + (rng() & 1 ? 0.0001 : -0.0001);
                for (int step = static_cast<int>(rng() % 7) - 3; step != 0; step -= step > 0 ? 1 : -1)
                    t = std::nextafter(t, step > 0 ? HUGE_VAL : -HUGE_VAL);
                times[i] = t;
            }
        }
        // Evaluation caches tangents in the keys, and a 2-D Bezier segment after a TCB or
        // Linear key reads its cache as it stands: one pass first settles the caches, so that
        // every later pass over these times starts from the same keys. A copy of the settled
        // keys then starts without evaluation tables.
        for (double t : times)
            EnvEvaluate(env, t);
        VxEnvelope *settled = EnvCopy(env);
        EnvDestroy(env);
        env = settled;
        VxEnvelope *reference = EnvCopy(env);
        std::vector<uint64_t> want;
        for (double t : times)
            want.push_back(Bits(EnvEvaluate(reference, t)));
        const size_t live = heap.LiveBytes();
        for (const bool outerBlock : {false, true}) {
            heap.FailAt(1, vxtest::FailMode::FromThen);
            std::vector<uint64_t> got;
            EXPECT_TRUE(Evaluate(env, times, got, outerBlock)) << "the evaluation raised";
            EXPECT_EQ(got, want) << round;
            EXPECT_EQ(heap.LiveBytes(), live);
            EXPECT_EQ(heap.Failures() > 0, EnvGet(env, ENV_ATTR_KEY_COUNT) > 1);
            heap.Disarm();
        }
        for (size_t i = 0; i < times.size(); ++i)
            ASSERT_EQ(Bits(EnvEvaluate(env, times[i])), want[i]);  // now from the tables
        // And in playback order, where the tables' inverse cells are chosen differently.
        std::vector<size_t> order(times.size());
        std::iota(order.begin(), order.end(), size_t{0});
        std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return times[a] < times[b]; });
        for (size_t i : order)
            ASSERT_EQ(Bits(EnvEvaluate(env, times[i])), want[i]) << "playback, time " << times[i];
        EnvDestroy(env);
        EnvDestroy(reference);
        EXPECT_EQ(heap.BadFrees(), 0);
    }
}

// The segment search differs with the number of keys (up to four, up to sixteen, more) and
// with the order of the times (the last segment first in playback, a search alone at random
// times, and back). At every size from 2 to 40 keys, times in playback order, at random, on
// the keys and in playback again give from the tables the list walk's values, bit for bit.
// The keys lie on half ticks (odd multiples of 1/32 s), so that a time on a key is exactly
// on the edge between two segments before it is rounded.
TEST(EnvOom, TableSearchMatchesTheWalkAtEverySize)
{
    EnvDestroy(EnvCreate(nullptr, 0, 0, nullptr));  // the global port exists from now on
    std::mt19937 rng(9);
    auto uni = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    const int32_t shapes[] = {ENV_SHAPE_TCB, ENV_SHAPE_HERMITE, ENV_SHAPE_LINEAR, ENV_SHAPE_STEPPED, ENV_SHAPE_BEZIER2};
    for (int keys = 2; keys <= 40; ++keys) {
        vxtest::FaultAllocator heap;
        VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
        std::vector<double> onKeys;
        for (int i = 0, j = 2 * static_cast<int>(rng() % 64) - 63; i < keys; ++i, j += 2 + 2 * static_cast<int>(rng() % 40)) {
            EnvKeySetType(env, EnvAddKey(env, j / 32.0, uni(-3, 3)), shapes[rng() % 5]);
            onKeys.push_back(j / 32.0);
        }
        const double tF = EnvGet(env, ENV_ATTR_FIRST_TIME), tL = EnvGet(env, ENV_ATTR_LAST_TIME);
        std::vector<double> times;
        for (int run = 0; run < 3; ++run)
            for (int i = 0; i < 600; ++i)
                times.push_back(run == 1 ? (i % 4 ? uni(tF - 0.1, tL + 0.1) : onKeys[rng() % onKeys.size()])
                                         : tF - 0.1 + (tL - tF + 0.2) * i / 599);
        std::vector<uint64_t> want;
        heap.FailAt(1, vxtest::FailMode::FromThen);
        for (double x : times)
            want.push_back(Bits(EnvEvaluate(env, x)));
        heap.Disarm();
        for (size_t i = 0; i < times.size(); ++i)
            ASSERT_EQ(Bits(EnvEvaluate(env, times[i])), want[i]) << keys << " keys, time " << i;
        EnvDestroy(env);
    }
}

}  // namespace
