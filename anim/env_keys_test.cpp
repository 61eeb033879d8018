// Keys, notifications, copies, key runs, shape conversions, modifiers, evaluation after every
// kind of edit, and the out-of-memory sweeps of the allocating operations.
#include "anim/env_test.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using namespace envtest;
constexpr uintptr_t kServer = 0x5E;

using Heard = std::vector<std::pair<int32_t, uintptr_t>>;
Heard g_heard;

void Listen(uintptr_t, uintptr_t, int32_t event, uintptr_t argument) { g_heard.push_back({event, argument}); }
Heard Take() { return std::exchange(g_heard, {}); }
uintptr_t A(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// Notification codes per edit, the masks that select them, suspended tracking, and the
// announcement of new envelopes on the global port.
TEST(EnvNotify, CodesMasksAndSuspension)
{
    ASSERT_EQ(GlobalPortAttach(ENV_GLOBAL_PORT, 77, 0, Listen), 1);
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, "observed");
    EXPECT_EQ(Take(), (Heard{{ENV_EVENT_CREATED, A(env)}}));
    GlobalPortDetach(ENV_GLOBAL_PORT, 77);
    VxPort *port = PortCreate(0, kServer, nullptr);
    EnvSetPort(env, port, kServer);
    PortAttach(port, 1, 2 | 16, Listen);
    VxEnvKey *k = EnvAddKey(env, 1.0, 3.0);
    EXPECT_EQ(EnvAddKey(env, 1.0 + 0.2 * kTick, 4.0), k);  // same tick: the value is replaced
    EnvKeySetType(env, k, ENV_SHAPE_LINEAR);
    EnvDelKey(env, k);
    EXPECT_EQ(Take(), (Heard{{1, A(k)}, {1, A(k)}, {3, A(k)}, {3, A(k)}, {2, A(k)}}));
    PortSetEventMask(port, 1, 4);
    int32_t pre = ENV_BEHAVIOR_REPEAT;
    double last = 2.5;
    EXPECT_EQ(EnvSet(env, ENV_ATTR_PRE, &pre), 1);
    EXPECT_EQ(EnvSet(env, ENV_ATTR_LAST_VALUE, &last), 1);
    EXPECT_EQ(EnvSet(env, ENV_ATTR_TOUCH, nullptr), 1);
    EXPECT_EQ(EnvSet(env, 7, &pre), 0);
    EXPECT_EQ(Take(), (Heard{{5, 0}, {5, 0}, {5, 0}}));
    EXPECT_EQ(EnvGet(env, ENV_ATTR_CHANGE_STAMP), 4.0);
    PortSetEventMask(port, 1, 0);
    EnvTrackSuspend(env);
    EnvAddKey(env, 0.0, 1.0);
    EnvAddKey(env, 0.0, 2.0);
    EnvSet(env, ENV_ATTR_TOUCH, nullptr);
    EXPECT_TRUE(g_heard.empty());
    EXPECT_EQ(EnvGet(env, ENV_ATTR_TRACKING), -3.0);
    EXPECT_EQ(EnvTrackResume(env), 1);
    EXPECT_EQ(Take(), (Heard{{5, 0}}));
    EnvTrackSuspend(env);
    EXPECT_EQ(EnvTrackResume(env), 0);  // nothing suppressed: nothing sent
    EXPECT_TRUE(g_heard.empty());
    EnvDestroy(env);
    PortDestroy(port);
}

// Moves keep the list sorted; a deleted or replaced key is freed; shifts round to the tick and
// refuse to cross a key; scaling scales 2-D Bezier time handles; attributes read back.
TEST(EnvKeys, MovesShiftsScalesAndAttributes)
{
    vxtest::FaultAllocator heap;
    const Env env(12);
    VxEnvKey *a = EnvAddKey(env, 0.0, 0.0), *b = EnvAddKey(env, 1.0, 1.0), *c = EnvAddKey(env, 2.0, 2.0);
    EXPECT_EQ(EnvKeySetTime(env, a, 1.5), 1);
    EXPECT_EQ(KeyList(env), (KeyTicks{{3600, 1}, {5400, 0}, {7200, 2}}));
    EXPECT_EQ(EnvKeySetTime(env, a, 2.0), 0) << "the tick is taken by c";
    const size_t blocks = heap.LiveBlocks();
    EXPECT_EQ(EnvKeyReplace(env, a, 2.0, 9.0), a);  // a takes c's place, c is freed
    EXPECT_EQ(KeyList(env), (KeyTicks{{3600, 1}, {7200, 9}}));
    EXPECT_EQ(EnvDelKey(env, b), 1);
    EXPECT_EQ(EnvDelKey(env, c == a ? b : nullptr), 0);
    EXPECT_EQ(heap.LiveBlocks(), blocks - 2);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_KEY_COUNT), 1.0);
    EXPECT_EQ(EnvKeySetMask(a, 0xF0), 0u);
    EXPECT_EQ(EnvKeySetMask(a, 1), 0xF0u);
    EXPECT_EQ(std::pair(EnvKeyGetParam(a, 5), EnvKeyGetParam(a, -1)), std::pair(0.0, 0.0));
    for (int i = 0; i < 3; ++i)
        EnvAddKey(env, 3.0 + i, 10.0 + i);
    VxEnvKey *second = EnvKeyNext(env, a), *third = EnvKeyNext(env, second);
    EXPECT_EQ(EnvShiftKeys(env, second, third, 0.5 + 0.6 * kTick), 1);
    EXPECT_EQ(KeyList(env), (KeyTicks{{7200, 9}, {12601, 10}, {16201, 11}, {18000, 12}}));
    EXPECT_EQ(EnvShiftKeys(env, second, third, 0.5), 0) << "would land on the last key";
    EXPECT_EQ(EnvShiftKeys(env, third, second, 0.1), 0) << "run out of order";
    EXPECT_EQ(EnvShiftKeys(env, nullptr, nullptr, -1e9), 0) << "beyond the tick range";
    EnvKeySetType(env, EnvKeyLast(env), ENV_SHAPE_BEZIER2);
    const double p0 = EnvKeyGetParam(EnvKeyLast(env), 0);
    EXPECT_EQ(EnvScaleKeys(env, nullptr, nullptr, 2.0, 2.0), 1);
    EXPECT_EQ(KeyList(env), (KeyTicks{{7200, 9}, {18002, 10}, {25202, 11}, {28800, 12}}));
    EXPECT_EQ(EnvKeyGetParam(EnvKeyLast(env), 0), 2 * p0);
    EXPECT_EQ(EnvScaleKeys(env, nullptr, nullptr, 0.0, 1e-6), 0) << "keys would share a tick";
    EXPECT_EQ(EnvScaleKeys(env, nullptr, nullptr, 0.0, -1.0), 0);
    EXPECT_EQ(EnvScaleKeys(env, a, a, 0.0, 10.0), 0) << "would pass the next key";
    for (auto [attr, want] : {std::pair<int32_t, double>{ENV_ATTR_TYPE, 12.0}, {ENV_ATTR_FIRST_TIME, 2.0}, {ENV_ATTR_LAST_TIME, 8.0}, {12, 0.0}})
        EXPECT_EQ(EnvGet(env, attr), want) << attr;
    EXPECT_EQ(EnvPrevKeyframe(env, 2.0), nullptr);
    EXPECT_EQ(EnvNextKeyframe(env, 2.0), second);
    // The speed is the slope across one tick either side, and leaves the last value.
    EnvKeySetType(env, second, ENV_SHAPE_LINEAR);
    EXPECT_NEAR(EnvSpeed(env, 3.5), 3600.0 / 10802.0, 1e-9);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_LAST_VALUE), 0.0);
}

// Converting to 2-D Bezier keeps the tangents as handles at (a five-digit) third of the
// neighbouring segments; converting back neutralises tension, continuity and bias.
TEST(EnvKeys, ShapeConversionsToAndFromBezier2)
{
    const Env env;
    VxEnvKey *lone = EnvAddKey(env, 1.0, 5.0);
    for (int32_t i = 0; i < 5; ++i)
        EnvKeySetParam(lone, i, 1.0 + i);
    EnvKeySetType(env, lone, ENV_SHAPE_BEZIER2);
    for (int32_t i = 0; i < 4; ++i)
        EXPECT_EQ(EnvKeyGetParam(lone, i), 0.0);
    VxEnvKey *first = EnvAddKey(env, 0.0, 2.0), *last = EnvAddKey(env, 3.0, -1.0);
    EnvKeySetType(env, lone, ENV_SHAPE_HERMITE);
    EnvKeySetParam(lone, 3, 4.0);
    EnvKeySetParam(lone, 4, 8.0);
    EnvKeySetType(env, lone, ENV_SHAPE_BEZIER2);
    // in = 3600/10800 * 4, out = 7200/10800 * 8.
    const double want[4] = {1.0 * -0.33333, 4.0 / 3 * (1.0 * -0.33333), 2.0 * 0.33333, 16.0 / 3 * (2.0 * 0.33333)};
    for (int32_t i = 0; i < 4; ++i)
        EXPECT_DOUBLE_EQ(EnvKeyGetParam(lone, i), want[i]) << i;
    // End keys take the slope of their only segment for the missing side.
    EnvKeySetType(env, first, ENV_SHAPE_BEZIER2);
    EXPECT_DOUBLE_EQ(EnvKeyGetParam(first, 3), 0.33333 * (5.0 - 2.0));
    EnvKeySetType(env, last, ENV_SHAPE_BEZIER2);
    EXPECT_DOUBLE_EQ(EnvKeyGetParam(last, 1), 2.0 * -0.33333 * (-6.0 / 2.0));
    EnvKeySetParam(last, 3, 7.0);
    EnvKeySetType(env, last, ENV_SHAPE_TCB);
    EXPECT_EQ(EnvKeyGetParam(last, 0), 0.0);
    EXPECT_EQ(EnvKeyGetParam(last, 2), 0.0);
    EXPECT_EQ(EnvKeyGetParam(last, 3), 7.0);
}

void AddOne(VxEnvFilter *, VxEnvelope *, double, double *value) { *value += 1.0; }
void Twice(VxEnvFilter *, VxEnvelope *, double, double *value) { *value *= 2.0; }
void PlusTime(VxEnvFilter *, VxEnvelope *, double t, double *value) { *value += t; }

// Names, groups and copies; the modifiers run in order up to one flagged to stop, and
// EnvModEvaluate puts the last value back.
TEST(EnvLife, GroupsNamesCopiesAndModifiers)
{
    VxEnvGroup group;
    EnvGroupInit(&group);
    VxEnvelope *a = EnvCreate(&group, 0x1234, 8, nullptr), *b = EnvCreate(&group, 0, 40, std::string(150, 'n').c_str());
    const Env rooted(40);
    EXPECT_STREQ(EnvName(a), "Scale.Y");
    EXPECT_EQ(std::string(EnvName(b)), std::string(99, 'n'));
    EXPECT_STREQ(EnvName(rooted), "(envelope)");
    EXPECT_EQ(EnvGetGroup(rooted), EnvRootGroup());
    EXPECT_EQ(ListValidate(&group.envelopes), 2);
    EnvAddKey(a, 0.0, 3.0);
    EnvAddKey(a, 1.0, 3.0);
    SetBehaviours(a, ENV_BEHAVIOR_CONSTANT, ENV_BEHAVIOR_OSCILLATE);
    VxEnvelope *copy = EnvCopy(a);
    EXPECT_EQ(EnvGetGroup(copy), &group);
    EXPECT_STREQ(EnvName(copy), "Scale.Y");
    EXPECT_EQ(EnvGet(copy, ENV_ATTR_POST), 3.0);
    EXPECT_EQ(EnvCopyKeys(b, a), 1);
    EXPECT_EQ(KeyDump(b), KeyDump(a));
    EXPECT_EQ(EnvGet(b, ENV_ATTR_POST), 1.0) << "behaviours stay";
    VxEnvFilter add{{}, "add", 0, AddOne, nullptr, nullptr, nullptr}, twice{{}, "twice", 0, Twice, nullptr, nullptr, nullptr};
    VxEnvFilter time{{}, "time", 0, PlusTime, nullptr, nullptr, nullptr};
    EXPECT_EQ(EnvModEvaluate(a, 0.0, 5.0), 5.0);
    for (VxEnvFilter *f : {&add, &twice, &time})
        EnvAddFilter(a, f);
    EXPECT_EQ(EnvEvaluate(a, 0.5), (3.0 + 1.0) * 2.0 + 0.5);
    EXPECT_EQ(EnvKeyEvaluate(a, 0.5), 3.0);
    EXPECT_EQ(EnvModEvaluate(a, 1.0, 10.0), (10.0 + 1.0) * 2.0 + 1.0);
    EXPECT_EQ(EnvGet(a, ENV_ATTR_LAST_VALUE), 3.0);
    twice.flags = ENV_FILTER_STOP;
    EXPECT_EQ(EnvEvaluate(a, 0.5), 4.0);
    EXPECT_EQ(EnvFilterIndex(a, &time), 2);
    EXPECT_EQ(EnvRemoveFilter(a, &twice), 1);
    EXPECT_EQ(EnvRemoveFilter(a, &twice), 0);
    EXPECT_EQ(EnvEvaluate(a, 0.5), 4.5);
    while (group.envelopes.head->succ)
        EnvDestroy(reinterpret_cast<VxEnvelope *>(group.envelopes.head));
}

// Random edits of every kind: stale tables or cached tangents show as a difference from a fresh
// copy. A second envelope's parameter edits must not matter.
TEST(EnvEdits, EvaluationAfterEveryKindOfEditMatchesAFreshCopy)
{
    std::mt19937 rng(31);
    auto uni = [&](double lo, double hi) { return Uni(rng, lo, hi); };
    auto nth = [&](VxEnvelope *e) {
        VxEnvKey *k = EnvKeyFirst(e);
        for (auto i = rng() % 12; k && i; --i)
            k = EnvKeyNext(e, k);
        return k;
    };
    const Env env, other;
    EnvAddKey(other, 0.0, 1.0);
    for (int step = 0; step < 3000; ++step) {
        VxEnvKey *k = nth(env), *k2 = nth(env);
        const double t = std::round(uni(-2.0, 8.0) * 3600.0) / 3600.0;
        switch (rng() % 12) {
        case 0: case 1: EnvKeySetType(env, EnvAddKey(env, t, uni(-5, 5)), static_cast<int32_t>(rng() % 7)); break;
        case 2: EnvAddKey(env, k ? EnvKeyTime(k) : t, uni(-5, 5)); break;  // onto an existing key
        case 3: if (k) EnvSetKey(env, k, uni(-5, 5)); break;
        case 4: EnvDelKey(env, k); break;
        case 5: if (k) EnvKeyReplace(env, k, t, uni(-5, 5)); break;
        case 6: if (k) EnvKeySetTime(env, k, t); break;
        case 7: EnvShiftKeys(env, k, k2, uni(-0.5, 0.5)); break;
        case 8: EnvScaleKeys(env, k, k2, uni(0, 3), uni(0.3, 2)); break;
        case 9: if (k) EnvKeySetType(env, k, static_cast<int32_t>(rng() % 7)); break;
        case 10: if (k) EnvKeySetParam(k, static_cast<int32_t>(rng() % 5), uni(-0.4, 0.4)); break;
        default: {
            EnvKeySetParam(EnvKeyFirst(other), 4, uni(-1, 1));
            const auto behaviour = static_cast<int32_t>(rng() % 6);
            EnvSet(env, rng() & 1 ? ENV_ATTR_PRE : ENV_ATTR_POST, &behaviour);
        }
        }
        const Env fresh(EnvCopy(env));
        for (int i = 0; i < 24; ++i) {
            const double at = i < 12 ? -3.0 + 12.0 * i / 11.0 : uni(-3.0, 9.0);
            ASSERT_EQ(Bits(EnvEvaluate(env, at)), Bits(EnvEvaluate(fresh, at))) << "step " << step << " t " << at;
        }
        ASSERT_EQ(KeyDump(env), KeyDump(fresh)) << "step " << step;
    }
}

TEST(EnvOom, CreateAddKeyCopyAndCopyKeys)
{
    EnvDestroy(EnvCreate(nullptr, 0, 0, nullptr));  // the global port exists from now on
    VxEnvGroup group;
    VxEnvelope *env = nullptr, *made = nullptr, *other = nullptr;
    auto setup = [&] {
        EnvGroupInit(&group);
        env = EnvCreate(&group, 0, 3, "source");
        for (int i = 0; i < 5; ++i)
            EnvKeySetType(env, EnvAddKey(env, i * 0.5, i * i), i % 6);
        other = EnvCreate(&group, 0, 0, nullptr);
        EnvAddKey(other, 7.0, 7.0);
        made = nullptr;
    };
    auto unchanged = [&] {
        EXPECT_EQ(ListValidate(&group.envelopes), 2);
        EXPECT_EQ(KeyList(env).size(), 5u);
        EXPECT_EQ(KeyList(other), (KeyTicks{{25200, 7.0}}));
    };
    auto teardown = [&] { for (VxEnvelope *e : {made, other, env}) EnvDestroy(e); };
    vxtest::OomSweepAll({setup, [&] { return (made = EnvCreate(&group, 0, 1, nullptr)) != nullptr; }, unchanged, teardown});
    vxtest::OomSweepAll({setup, [&] { return EnvAddKey(env, 9.0, 1.0) != nullptr; }, unchanged, teardown});
    vxtest::OomSweepAll({setup, [&] { return (made = EnvCopy(env)) != nullptr; }, unchanged, teardown});
    vxtest::OomSweepAll({setup, [&] { return EnvCopyKeys(other, env) == 1; }, unchanged, teardown});
}

}  // namespace
