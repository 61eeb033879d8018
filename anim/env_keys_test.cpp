// Keys, notifications, copies, moves of key runs, shape conversions, modifiers and the
// out-of-memory sweeps of the allocating operations.
#include <vxtools3/ckpt.h>
#include <vxtools3/envelope.h>

#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr double kTick = 1.0 / 3600.0;
constexpr uintptr_t kServer = 0x5E;

struct Heard {
    int32_t event;
    uintptr_t argument;
    bool operator==(const Heard &) const = default;
};
std::vector<Heard> g_heard;

void Listen(uintptr_t, uintptr_t, int32_t event, uintptr_t argument) { g_heard.push_back({event, argument}); }

// An envelope whose port records (event, argument) for clients listening to `mask`.
struct Observed : ::testing::Test {
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, "observed");
    VxPort *port = PortCreate(0, kServer, nullptr);
    Observed()
    {
        EnvSetPort(env, port, kServer);
        g_heard.clear();
    }
    ~Observed() override
    {
        EnvDestroy(env);
        PortDestroy(port);
    }
    void ListenTo(uint32_t mask) { PortAttach(port, 1, mask, Listen); }
    static uintptr_t A(const void *p) { return reinterpret_cast<uintptr_t>(p); }
};

std::vector<std::pair<int32_t, double>> KeyList(const VxEnvelope *env)
{
    std::vector<std::pair<int32_t, double>> out;
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
        out.emplace_back(static_cast<int32_t>(std::lround(EnvKeyTime(k) * 3600.0)), EnvKeyValue(k));
    return out;
}

TEST_F(Observed, AddedReplacedAndReshapedKeysNotifyWithExactCodes)
{
    ListenTo(2 | 16);
    VxEnvKey *k = EnvAddKey(env, 1.0, 3.0);
    EXPECT_EQ(g_heard, (std::vector<Heard>{{1, A(k)}, {1, A(k)}}));
    g_heard.clear();
    EXPECT_EQ(EnvAddKey(env, 1.0 + 0.2 * kTick, 4.0), k);  // same tick: the value is replaced
    EXPECT_EQ(EnvKeyValue(k), 4.0);
    EnvKeySetType(env, k, ENV_SHAPE_LINEAR);
    EXPECT_EQ(g_heard, (std::vector<Heard>{{3, A(k)}, {3, A(k)}}));
    EXPECT_EQ(EnvGet(env, ENV_ATTR_CHANGE_STAMP), 1.0);
}

TEST_F(Observed, MasksSeparateKeyInsertionsFromEnvelopeChanges)
{
    ListenTo(16);
    EnvAddKey(env, 0.0, 1.0);
    int32_t pre = ENV_BEHAVIOR_REPEAT;
    EXPECT_EQ(EnvSet(env, ENV_ATTR_PRE, &pre), 1);
    ASSERT_EQ(g_heard.size(), 1u);  // only the (1, 16) of the insertion
    PortSetEventMask(port, 1, 4);
    double last = 2.5;
    EXPECT_EQ(EnvSet(env, ENV_ATTR_LAST_VALUE, &last), 1);
    EXPECT_EQ(EnvSet(env, ENV_ATTR_TOUCH, nullptr), 1);
    EXPECT_EQ(EnvSet(env, 7, &pre), 0);
    EXPECT_EQ(g_heard, (std::vector<Heard>{{1, A(EnvKeyFirst(env))}, {5, 0}, {5, 0}}));
    EXPECT_EQ(EnvGet(env, ENV_ATTR_PRE), 2.0);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_LAST_VALUE), 2.5);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_CHANGE_STAMP), 3.0);
}

TEST_F(Observed, SuspendCountsSuppressedEditsAndResumeSendsOne)
{
    ListenTo(0);
    EnvTrackSuspend(env);
    EnvAddKey(env, 0.0, 1.0);
    EnvAddKey(env, 0.0, 2.0);
    EnvSet(env, ENV_ATTR_TOUCH, nullptr);
    EXPECT_TRUE(g_heard.empty());
    EXPECT_EQ(EnvGet(env, ENV_ATTR_TRACKING), -3.0);
    EXPECT_EQ(EnvTrackResume(env), 1);
    EXPECT_EQ(g_heard, (std::vector<Heard>{{5, 0}}));
    EXPECT_EQ(EnvGet(env, ENV_ATTR_TRACKING), 1.0);
    EnvTrackSuspend(env);
    EXPECT_EQ(EnvTrackResume(env), 0);  // nothing suppressed: nothing sent
    EXPECT_EQ(g_heard.size(), 1u);
}

TEST_F(Observed, DeleteReplaceAndMoveKeepTheListSorted)
{
    ListenTo(0);
    VxEnvKey *a = EnvAddKey(env, 0.0, 0.0);
    VxEnvKey *b = EnvAddKey(env, 1.0, 1.0);
    VxEnvKey *c = EnvAddKey(env, 2.0, 2.0);
    g_heard.clear();
    EXPECT_EQ(EnvKeySetTime(env, a, 1.5), 1);
    EXPECT_EQ(KeyList(env), (std::vector<std::pair<int32_t, double>>{{3600, 1}, {5400, 0}, {7200, 2}}));
    EXPECT_EQ(EnvKeySetTime(env, a, 2.0), 0) << "the tick is taken by c";
    EXPECT_EQ(EnvKeyReplace(env, a, 2.0, 9.0), a);  // a takes c's place, c is freed
    EXPECT_EQ(KeyList(env), (std::vector<std::pair<int32_t, double>>{{3600, 1}, {7200, 9}}));
    EXPECT_EQ(EnvGet(env, ENV_ATTR_KEY_COUNT), 2.0);
    EXPECT_EQ(EnvDelKey(env, b), 1);
    EXPECT_EQ(EnvDelKey(env, b == a ? c : nullptr), 0);
    EXPECT_EQ(g_heard.size(), 3u);
    EXPECT_EQ(g_heard.back(), (Heard{2, A(b)}));
    EXPECT_EQ(EnvGet(env, ENV_ATTR_FIRST_TIME), 2.0);
    EXPECT_EQ(EnvKeyPrev(env, a), nullptr);
    EXPECT_EQ(EnvKeyNext(env, a), nullptr);
    EXPECT_EQ(EnvKeySetMask(a, 0xF0), 0u);
    EXPECT_EQ(EnvKeySetMask(a, 1), 0xF0u);
    EXPECT_EQ(EnvKeyGetParam(a, 5), 0.0);
    EXPECT_EQ(EnvKeyGetParam(a, -1), 0.0);
}

TEST(EnvLife, CreationIsAnnouncedOnTheGlobalPortAndAttributesRead)
{
    g_heard.clear();
    ASSERT_EQ(GlobalPortAttach(ENV_GLOBAL_PORT, 77, 0, Listen), 1);
    VxEnvelope *env = EnvCreate(nullptr, 0, 12, nullptr);
    EXPECT_EQ(g_heard, (std::vector<Heard>{{ENV_EVENT_CREATED, reinterpret_cast<uintptr_t>(env)}}));
    GlobalPortDetach(ENV_GLOBAL_PORT, 77);
    EnvAddKey(env, -0.5, 1.0);
    EnvAddKey(env, 4.25, 2.0);
    EnvSetSaveIndex(env, 12);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_TYPE), 12.0);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_FIRST_TIME), -0.5);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_LAST_TIME), 4.25);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_SAVE_INDEX), 12.0);
    EXPECT_EQ(EnvGet(env, 0), 0.0);
    EXPECT_EQ(EnvGet(env, 12), 0.0);
    // The speed is the slope across one tick either side: 1 per 4.75 s on a linear segment.
    EnvKeySetType(env, EnvKeyLast(env), ENV_SHAPE_LINEAR);
    EXPECT_NEAR(EnvSpeed(env, 2.0), 1.0 / 4.75, 1e-9);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_LAST_VALUE), 0.0) << "EnvSpeed leaves the last value";
    EnvDestroy(env);
}

TEST(EnvKeys, ShiftMovesARunUnlessItWouldCrossAKey)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    for (int i = 0; i < 4; ++i)
        EnvAddKey(env, i, i * 10.0);
    VxEnvKey *second = EnvKeyNext(env, EnvKeyFirst(env));
    VxEnvKey *third = EnvKeyNext(env, second);
    EXPECT_EQ(EnvShiftKeys(env, second, third, 0.5), 1);
    EXPECT_EQ(KeyList(env), (std::vector<std::pair<int32_t, double>>{{0, 0}, {5400, 10}, {9000, 20}, {10800, 30}}));
    EXPECT_EQ(EnvShiftKeys(env, second, third, 0.5), 0) << "would land on the last key";
    EXPECT_EQ(EnvShiftKeys(env, third, second, 0.1), 0) << "run out of order";
    EXPECT_EQ(EnvShiftKeys(env, nullptr, nullptr, -1e9), 0) << "beyond the tick range";
    EXPECT_EQ(EnvShiftKeys(env, nullptr, nullptr, -1.0), 1);
    EXPECT_EQ(EnvKeyTime(EnvKeyFirst(env)), -1.0);
    EnvDestroy(env);
}

TEST(EnvKeys, ScaleAboutAPivotScalesBezierTimeHandles)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    for (int i = 0; i < 3; ++i)
        EnvAddKey(env, 1.0 + i, i);
    VxEnvKey *last = EnvKeyLast(env);
    EnvKeySetType(env, last, ENV_SHAPE_BEZIER2);
    const double p0 = EnvKeyGetParam(last, 0);
    EXPECT_EQ(EnvScaleKeys(env, nullptr, nullptr, 1.0, 2.0), 1);
    EXPECT_EQ(KeyList(env), (std::vector<std::pair<int32_t, double>>{{3600, 0}, {10800, 1}, {18000, 2}}));
    EXPECT_EQ(EnvKeyGetParam(last, 0), 2 * p0);
    EXPECT_EQ(EnvScaleKeys(env, nullptr, nullptr, 0.0, 1e-6), 0) << "keys would share a tick";
    EXPECT_EQ(EnvScaleKeys(env, nullptr, nullptr, 0.0, -1.0), 0);
    EXPECT_EQ(EnvScaleKeys(env, EnvKeyFirst(env), EnvKeyFirst(env), 0.0, 10.0), 0) << "would pass the next key";
    EXPECT_EQ(KeyList(env), (std::vector<std::pair<int32_t, double>>{{3600, 0}, {10800, 1}, {18000, 2}}));
    EnvDestroy(env);
}

// Converting to 2-D Bezier keeps the tangents as handles at (a five-digit) third of the
// neighbouring segments; converting back neutralises tension, continuity and bias.
TEST(EnvKeys, ShapeConversionsToAndFromBezier2)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    VxEnvKey *lone = EnvAddKey(env, 1.0, 5.0);
    EnvKeySetType(env, lone, ENV_SHAPE_BEZIER2);
    for (int32_t i = 0; i < 4; ++i)
        EXPECT_EQ(EnvKeyGetParam(lone, i), 0.0);
    VxEnvKey *first = EnvAddKey(env, 0.0, 2.0);
    VxEnvKey *last = EnvAddKey(env, 3.0, -1.0);
    EnvKeySetType(env, lone, ENV_SHAPE_HERMITE);
    EnvKeySetParam(lone, 3, 4.0);
    EnvKeySetParam(lone, 4, 8.0);
    EnvKeySetType(env, lone, ENV_SHAPE_BEZIER2);
    // in = 3600/10800 * 4, out = 7200/10800 * 8.
    EXPECT_DOUBLE_EQ(EnvKeyGetParam(lone, 0), 1.0 * -0.33333);
    EXPECT_DOUBLE_EQ(EnvKeyGetParam(lone, 1), 4.0 / 3 * (1.0 * -0.33333));
    EXPECT_DOUBLE_EQ(EnvKeyGetParam(lone, 2), 2.0 * 0.33333);
    EXPECT_DOUBLE_EQ(EnvKeyGetParam(lone, 3), 16.0 / 3 * (2.0 * 0.33333));
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
    EnvDestroy(env);
}

TEST(EnvLife, GroupsNamesCopies)
{
    VxEnvGroup group;
    EnvGroupInit(&group);
    VxEnvelope *a = EnvCreate(&group, 0x1234, 8, nullptr);
    VxEnvelope *b = EnvCreate(&group, 0, 40, std::string(150, 'n').c_str());
    EXPECT_STREQ(EnvName(a), "Scale.Y");
    EXPECT_EQ(std::string(EnvName(b)), std::string(99, 'n'));
    VxEnvelope *rooted = EnvCreate(nullptr, 0, 40, nullptr);
    EXPECT_STREQ(EnvName(rooted), "(envelope)");
    EXPECT_EQ(EnvGetGroup(rooted), EnvRootGroup());
    EXPECT_EQ(reinterpret_cast<VxEnvelope *>(EnvRootGroup()->envelopes.tailPred), rooted);
    EnvDestroy(rooted);
    EXPECT_EQ(EnvGetGroup(a), &group);
    EXPECT_EQ(ListValidate(&group.envelopes), 2);
    EnvAddKey(a, 0.0, 1.0);
    EnvAddKey(a, 1.0, 3.0);
    int32_t post = ENV_BEHAVIOR_OSCILLATE;
    EnvSet(a, ENV_ATTR_POST, &post);
    VxEnvelope *copy = EnvCopy(a);
    EXPECT_EQ(EnvGetGroup(copy), &group);
    EXPECT_STREQ(EnvName(copy), "Scale.Y");
    EXPECT_EQ(EnvGet(copy, ENV_ATTR_POST), 3.0);
    EXPECT_EQ(KeyList(copy), KeyList(a));
    EXPECT_EQ(EnvEvaluate(copy, 1.5), EnvEvaluate(a, 1.5));
    EXPECT_EQ(EnvCopyKeys(b, a), 1);
    EXPECT_EQ(KeyList(b), KeyList(a));
    EXPECT_EQ(EnvGet(b, ENV_ATTR_POST), 1.0) << "behaviours stay";
    while (group.envelopes.head->succ)
        EnvDestroy(reinterpret_cast<VxEnvelope *>(group.envelopes.head));
}

// ---- Modifiers ------------------------------------------------------------------------------

void AddOne(VxEnvFilter *, VxEnvelope *, double, double *value) { *value += 1.0; }
void Twice(VxEnvFilter *, VxEnvelope *, double, double *value) { *value *= 2.0; }
void PlusTime(VxEnvFilter *, VxEnvelope *, double t, double *value) { *value += t; }

TEST(EnvFilters, WalkInOrderStopsAtStopFlagAndModEvaluateRestores)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    EnvAddKey(env, 0.0, 3.0);
    VxEnvFilter add{{}, "add", 0, AddOne, nullptr, nullptr, nullptr};
    VxEnvFilter twice{{}, "twice", 0, Twice, nullptr, nullptr, nullptr};
    VxEnvFilter time{{}, "time", 0, PlusTime, nullptr, nullptr, nullptr};
    EXPECT_EQ(EnvModEvaluate(env, 0.0, 5.0), 5.0);
    EnvAddFilter(env, &add);
    EnvAddFilter(env, &twice);
    EnvAddFilter(env, &time);
    EXPECT_EQ(EnvEvaluate(env, 0.5), (3.0 + 1.0) * 2.0 + 0.5);
    EXPECT_EQ(EnvKeyEvaluate(env, 0.5), 3.0);
    EXPECT_EQ(EnvModEvaluate(env, 1.0, 10.0), (10.0 + 1.0) * 2.0 + 1.0);
    EXPECT_EQ(EnvGet(env, ENV_ATTR_LAST_VALUE), 3.0);
    twice.flags = ENV_FILTER_STOP;
    EXPECT_EQ(EnvEvaluate(env, 0.5), 4.0);
    EXPECT_EQ(EnvFilterIndex(env, &time), 2);
    EXPECT_EQ(EnvFilterInstance(env, 1), &twice);
    EXPECT_EQ(EnvFilterInstance(env, 3), nullptr);
    EXPECT_STREQ(EnvFilterName(EnvFilterInstance(env, 0)), "add");
    EXPECT_EQ(EnvRemoveFilter(env, &twice), 1);
    EXPECT_EQ(EnvRemoveFilter(env, &twice), 0);
    EXPECT_EQ(EnvEvaluate(env, 0.5), 4.5);
    EnvRemoveFilter(env, &add);
    EnvRemoveFilter(env, &time);
    EnvDestroy(env);
}

// ---- Out of memory ---------------------------------------------------------------------------

struct SweepState {
    VxEnvGroup group;
    VxEnvelope *env = nullptr;
    VxEnvelope *made = nullptr;
};

void FillKeys(VxEnvelope *env)
{
    for (int i = 0; i < 5; ++i)
        EnvKeySetType(env, EnvAddKey(env, i * 0.5, i * i), i % 6);
}

TEST(EnvOom, CreateAddKeyCopyAndCopyKeys)
{
    EnvDestroy(EnvCreate(nullptr, 0, 0, nullptr));  // the global port exists from now on
    SweepState s;
    auto setup = [&] {
        EnvGroupInit(&s.group);
        s.env = EnvCreate(&s.group, 0, 3, "source");
        FillKeys(s.env);
        s.made = nullptr;
    };
    auto unchanged = [&] {
        EXPECT_EQ(ListValidate(&s.group.envelopes), 1);
        EXPECT_EQ(EnvGet(s.env, ENV_ATTR_KEY_COUNT), 5.0);
        EXPECT_EQ(KeyList(s.env).size(), 5u);
    };
    auto teardown = [&] {
        EnvDestroy(s.made);
        EnvDestroy(s.env);
    };
    vxtest::OomSweepAll({setup, [&] { return (s.made = EnvCreate(&s.group, 0, 1, nullptr)) != nullptr; },
                         unchanged, teardown});
    vxtest::OomSweepAll({setup, [&] { return EnvAddKey(s.env, 9.0, 1.0) != nullptr; }, unchanged, teardown});
    vxtest::OomSweepAll({setup, [&] { return (s.made = EnvCopy(s.env)) != nullptr; }, unchanged, teardown});
    VxEnvelope *other = nullptr;
    vxtest::OomSweepAll({[&] {
                             setup();
                             other = EnvCreate(&s.group, 0, 0, nullptr);
                             EnvAddKey(other, 7.0, 7.0);
                         },
                         [&] { return EnvCopyKeys(other, s.env) == 1; },
                         [&] { EXPECT_EQ(KeyList(other), (std::vector<std::pair<int32_t, double>>{{25200, 7.0}})); },
                         [&] {
                             EnvDestroy(other);
                             teardown();
                         }});
}

}  // namespace

namespace {

// Playback resumes its walk at the last segment; deleting, replacing and moving keys between
// evaluations must give what a fresh copy of the same keys gives.
TEST(EnvKeys, PlaybackAfterEditsMatchesAFreshCopy)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    for (int i = 0; i < 8; ++i)
        EnvKeySetType(env, EnvAddKey(env, i * 0.5, (i * 7) % 5), i % 5);
    auto compare = [&] {
        VxEnvelope *fresh = EnvCopy(env);
        for (int i = -10; i <= 90; ++i)
            ASSERT_EQ(EnvEvaluate(env, i * 0.05), EnvEvaluate(fresh, i * 0.05)) << i;
        EnvDestroy(fresh);
    };
    compare();
    EnvEvaluate(env, 2.2);  // the segment starting at 2.0
    EnvDelKey(env, EnvGetKey(env, 2.0));
    compare();
    EnvEvaluate(env, 2.7);
    EnvKeyReplace(env, EnvGetKey(env, 3.0), 2.5, 4.0);  // the start key 2.5 is replaced
    compare();
    EnvEvaluate(env, 3.4);
    EnvKeySetTime(env, EnvGetKey(env, 2.5), 3.7);
    compare();
    EnvDestroy(env);
}

}  // namespace
