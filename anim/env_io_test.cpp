// The saved form: a byte-exact image and its text form, round trips, keys in any order,
// modifiers, truncated input and the out-of-memory sweep of the loader.
#include "anim/env_test.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

namespace {

using namespace envtest;
using Bytes = std::vector<uint8_t>;

// Saves the envelope into a FORM 'TEST' (binary) or as text.
Bytes Save(VxEnvelope *env, bool text)
{
    VxWriteStrm *w = MemStrmWriteCreate();
    VxSaveState s;
    VxIFFWriter *iw = text ? nullptr : IFFWCreate(w);
    if (iw)
        IFFWChunkOpen(iw, VX_ID('F', 'O', 'R', 'M'), VX_ID('T', 'E', 'S', 'T')), IFFInitSaveState(&s, iw);
    else
        StrmInitSaveState(&s, w);
    EXPECT_EQ(EnvSave(env, &s), 1);
    if (iw)
        IFFWChunkClose(iw), IFFWDestroy(iw);
    const auto *p = static_cast<const uint8_t *>(w->impl);
    Bytes bytes(p, p + w->length);
    StrmWriteDestroy(w);
    return bytes;
}

// A load state over bytes, with what it holds.
struct Source {
    VxReadStrm *stream;
    VxIFFReader *reader = nullptr;
    VxLoadState state{};
    Source(const Bytes &bytes, bool text) : stream(MemStrmReadCreate(bytes.data(), static_cast<int32_t>(bytes.size()), 1))
    {
        if (text)
            StrmInitLoadState(&state, stream);
        else
            IFFInitLoadState(&state, reader = IFFRCreate(stream));
    }
    ~Source() { IFFRDestroy(reader), StrmReadDestroy(stream); }
};

TEST(EnvSaved, ByteExactEnvlImageAndTextForm)
{
    Env env(EnvCreate(nullptr, 0x1A2, 1, "Pos")), env2(4);
    SetBehaviours(env, ENV_BEHAVIOR_REPEAT, ENV_BEHAVIOR_OSCILLATE);
    VxEnvKey *a = EnvAddKey(env, 0.5, 1.0);
    EnvKeySetParam(a, 0, 0.5);
    EnvKeySetParam(a, 2, -0.25);
    AddKey(env, 1.0, 2.0, ENV_SHAPE_LINEAR);
    EnvSetSaveIndex(env, 7);
    const Bytes expected = {
        'F', 'O', 'R', 'M', 0, 0, 0, 0x6C, 'T', 'E', 'S', 'T',  // form of 4 + 8 + 96 bytes
        'E', 'N', 'V', 'L', 0, 0, 0, 0x60, 0x00, 0x07,          // 96 bytes of envelope, save index
        'N', 'A', 'M', 'E', 0, 4, 'P', 'o', 's', 0,             // odd name: one zero
        'T', 'Y', 'P', 'E', 0, 2, 0xA2, 0x01,                   // client byte, type
        'P', 'R', 'E', ' ', 0, 2, 0, 2,                         //
        'K', 'E', 'Y', ' ', 0, 8, 0x3F, 0, 0, 0, 0x3F, 0x80, 0, 0,
        'S', 'P', 'A', 'N', 0, 16, 'T', 'C', 'B', ' ', 0x3F, 0, 0, 0, 0, 0, 0, 0, 0xBE, 0x80, 0, 0,
        'K', 'E', 'Y', ' ', 0, 8, 0x3F, 0x80, 0, 0, 0x40, 0, 0, 0,
        'S', 'P', 'A', 'N', 0, 4, 'L', 'I', 'N', 'E', 'P', 'O', 'S', 'T', 0, 2, 0, 3,
    };
    EXPECT_EQ(Save(env, false), expected);
    // Large save indexes take four bytes with the top byte 0xFF; none or negative write 0.
    for (auto [index, form] : {std::pair{0x12345, Bytes{0xFF, 0x01, 0x23, 0x45}}, {-1, Bytes{0, 0}}}) {
        EnvSetSaveIndex(env, index);
        const Bytes saved = Save(env, false);
        EXPECT_EQ(Bytes(saved.begin() + 20, saved.begin() + 20 + static_cast<long>(form.size())), form);
    }
    // The text form: the same blocks under keywords; a Bezier key is saved as HERM.
    AddKey(env2, 0.0, 1.5, ENV_SHAPE_STEPPED);
    AddKey(env2, 0.25, -2.0, ENV_SHAPE_BEZIER);
    const Bytes text = Save(env2, true);
    EXPECT_EQ(std::string(text.begin(), text.end()), "Envelope 0 {\n  Name \"Rotation.H\"\n  Type 0 4\n  Pre 1\n  Key 0 1.5\n"
                                                     "  Span 'STEP'\n  Key 0.25 -2\n  Span 'HERM' 0 0\n  Post 1\n}\n");
}

// Random envelopes whose numbers survive single precision, with only what the spans save set.
VxEnvelope *RandomEnvelope(std::mt19937 &rng, int minKeys = 0)
{
    auto q = [&](int range) { return static_cast<double>(static_cast<int>(rng() % (2 * range * 64)) - range * 64) / 64; };
    VxEnvelope *env = EnvCreate(nullptr, 0x33, static_cast<int32_t>(rng() % 16), nullptr);
    const auto pre = static_cast<int32_t>(rng() % 6);
    SetBehaviours(env, pre, static_cast<int32_t>(rng() % 6));
    const int32_t shapes[] = {ENV_SHAPE_TCB, ENV_SHAPE_HERMITE, ENV_SHAPE_LINEAR, ENV_SHAPE_STEPPED, ENV_SHAPE_BEZIER2};
    int32_t tick = static_cast<int32_t>(rng() % 20000) - 10000;
    for (int i = 0, n = minKeys + static_cast<int>(rng() % 9); i < n; ++i, tick += 1 + static_cast<int32_t>(rng() % 5000)) {
        const double value = q(20);
        const int32_t shape = shapes[rng() % 5];
        VxEnvKey *k = AddKey(env, tick / 3600.0, value, shape);
        const int first = shape == ENV_SHAPE_HERMITE ? 3 : 0;
        const int count = shape == ENV_SHAPE_TCB ? 3 : shape == ENV_SHAPE_HERMITE ? 2 : shape == ENV_SHAPE_BEZIER2 ? 4 : 0;
        for (int32_t p = 0; p < 5; ++p)
            EnvKeySetParam(k, p, p >= first && p < first + count ? q(1) : 0.0);
    }
    return env;
}

struct Gain { VxEnvFilter filter; float gain; };
void ApplyGain(VxEnvFilter *f, VxEnvelope *, double, double *value) { *value *= static_cast<Gain *>(f->data)->gain; }
int32_t SaveGain(VxEnvFilter *f, VxSaveState *s) { return s->writeFloats(s, &static_cast<Gain *>(f->data)->gain, 1); }
void DestroyGain(VxEnvFilter *f) { delete static_cast<Gain *>(f->data); }
VxEnvFilter *MakeGain(float gain, int32_t flags)
{
    auto *g = new Gain{{{}, "Gain", flags, ApplyGain, SaveGain, DestroyGain, nullptr}, gain};
    return &(g->filter.data = g, g)->filter;
}
VxEnvFilter *LoadGain(const char *server, int32_t flags, VxLoadState *s, void *user)
{
    ++*static_cast<int *>(user);
    float gain = 0;
    return std::strcmp(server, "Gain") || s->readFloats(s, &gain, 1) != 1 ? nullptr : MakeGain(gain, flags);
}

// Saved, loaded into another envelope, saved again: the same bytes, and the same values; some
// with modifiers, which their loader restores from "CHAN" blocks. Without a loader the blocks
// are skipped.
TEST(EnvSaved, RandomEnvelopesRoundTripInBothForms)
{
    std::mt19937 rng(77);
    int calls = 0, filtered = 0;
    EnvSetFilterLoader(LoadGain, &calls);
    for (int round = 0; round < 150; ++round) {
        const bool text = round & 1;
        const Env env(RandomEnvelope(rng)), loaded(EnvCreate(nullptr, 0x33, 0, "other"));
        EnvSetSaveIndex(env, round);
        if (round % 6 < 2) {
            EnvAddFilter(env, MakeGain(3.0f, 0));
            EnvAddFilter(env, MakeGain(5.0f, round % 4 < 2 ? ENV_FILTER_STOP : 0));
            filtered += 2;
        }
        const Bytes first = Save(env, text);
        Source src(first, text);
        ASSERT_EQ(EnvLoad(loaded, &src.state), 1) << (src.state.message ? src.state.message : "");
        EXPECT_EQ(EnvLoad(loaded, &src.state), 0) << "one envelope only";
        EXPECT_EQ(src.state.error, 0);
        EXPECT_EQ(Save(loaded, text), first) << "round " << round;
        for (int i = -50; i <= 50; ++i)
            ASSERT_EQ(EnvEvaluate(env, i * 0.07), EnvEvaluate(loaded, i * 0.07)) << round;
    }
    EnvSetFilterLoader(nullptr, nullptr);
    EXPECT_EQ(calls, filtered);
    for (bool text : {false, true}) {
        const Env env, plain;
        EnvAddKey(env, 0.0, 2.0);
        EnvAddFilter(env, MakeGain(3.0f, 0));
        Source src(Save(env, text), text);
        ASSERT_EQ(EnvLoad(plain, &src.state), 1);
        EXPECT_EQ(EnvFilterInstance(plain, 0), nullptr);
        EXPECT_EQ(EnvEvaluate(plain, 1.0), 2.0);
    }
}

// Keys in time order, reverse order and shuffled with ticks met twice load as if each key
// were looked up at its tick: a tick met again updates the value and what its span sets.
TEST(EnvSaved, KeysLoadInAnyOrder)
{
    const char *spans[] = {"'TCB ' 0.5 0.25 -1", "'HERM' 2 -3", "'LINE'", "'STEP'", "'BEZ2' -0.5 1 0.5 2", ""};
    const double given[6][5] = {{0.5, 0.25, -1, 0, 0}, {0, 0, 0, 2, -3}, {}, {}, {-0.5, 1, 0.5, 2, 0}, {}};
    const int32_t shape[6] = {ENV_SHAPE_TCB, ENV_SHAPE_HERMITE, ENV_SHAPE_LINEAR, ENV_SHAPE_STEPPED, ENV_SHAPE_BEZIER2, -1};
    std::mt19937 rng(5);
    for (int round = 0; round < 60; ++round) {
        std::vector<int> ticks;
        for (int i = 0, count = 1 + static_cast<int>(rng() % 40); i < count; ++i)
            ticks.push_back((i - 20) * 450);
        if (round % 3 == 1)
            std::reverse(ticks.begin(), ticks.end());
        if (round % 3 == 2) {
            std::shuffle(ticks.begin(), ticks.end(), rng);
            for (size_t i = 0, n = ticks.size() / 4; i < n; ++i)
                ticks.push_back(ticks[rng() % ticks.size()]);
        }
        // Each key as its tick, value, shape and parameters, as KeyDump gives them.
        std::map<int, std::vector<double>> model;
        std::string text = "Envelope 0 {\n";
        for (int tick : ticks) {
            std::vector<double> &m = model.try_emplace(tick, std::vector<double>{double(tick), 0, 0, 0, 0, 0, 0, 0}).first->second;
            m[1] = static_cast<int>(rng() % 64) / 8.0;
            const auto span = rng() % 6;
            text += "Key " + std::to_string(tick / 3600.0) + " " + std::to_string(m[1]) + "\nSpan " + spans[span] + "\n";
            m[2] = shape[span] >= 0 ? shape[span] : m[2];
            for (size_t i = span == 1 ? 3 : 0, n = span == 0 ? 3 : span == 1 ? 5 : span == 4 ? 4 : 0; i < n; ++i)
                m[3 + i] = given[span][i];
        }
        const std::string whole = text + "}\n";
        Source src(Bytes(whole.begin(), whole.end()), true);
        const Env env;
        ASSERT_EQ(EnvLoad(env, &src.state), 1);
        std::vector<std::vector<double>> want;
        for (const auto &[tick, m] : model)
            want.push_back(m);
        EXPECT_EQ(KeyDump(env), want) << round;
        for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
            EXPECT_EQ(EnvKeyMask(k), 0u);
    }
}

// A span whose numbers fail to read, after keys out of order, fails the load and leaves the
// target as it was.
TEST(EnvSaved, BadSpanNumbersAfterUnsortedKeysFail)
{
    const std::string text = "Envelope 0 {\nKey 2 1\nKey 1 0\nSpan 'TCB ' 0>25\n}\n";
    Source src(Bytes(text.begin(), text.end()), true);
    const Env env;
    EnvAddKey(env, 9.0, 9.0);
    EXPECT_EQ(EnvLoad(env, &src.state), 0);
    EXPECT_EQ(KeyList(env), (KeyTicks{{32400, 9.0}}));
}

// Every cut of a saved envelope, and every allocation failing, leaves the target as it was.
TEST(EnvSaved, TruncationAndExhaustionLeaveTheEnvelope)
{
    std::mt19937 rng(9);
    const Env model(RandomEnvelope(rng, 4));
    for (bool text : {false, true}) {
        const Bytes whole = Save(model, text);
        Source *src = nullptr;
        VxEnvelope *target = nullptr;
        auto setup = [&](size_t cut) {
            src = new Source(Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)), text);
            target = EnvCreate(nullptr, 0, 0, "target");
            EnvAddKey(target, 9.0, 9.0);
        };
        auto unchanged = [&] {
            EXPECT_EQ(KeyList(target), (KeyTicks{{32400, 9.0}}));
            EXPECT_STREQ(EnvName(target), "target");
        };
        auto teardown = [&] { EnvDestroy(target), delete src; };
        for (size_t cut = 0; cut < whole.size(); ++cut) {
            setup(cut);
            // Text cut before its brace is a whole block without a body: an empty envelope.
            // Text missing only its final line end is whole; any other cut fails.
            const bool headOnly = text && cut >= std::strlen("Envelope") && cut < std::strlen("Envelope 0 {");
            const int loaded = EnvLoad(target, &src->state);
            EXPECT_EQ(loaded, headOnly || (text && cut == whole.size() - 1) ? 1 : 0) << "cut " << cut;
            if (!loaded)
                unchanged();
            teardown();
        }
        vxtest::OomSweepAll({[&] { setup(whole.size()); }, [&] { return EnvLoad(target, &src->state) == 1; }, unchanged, teardown});
    }
}

}  // namespace
