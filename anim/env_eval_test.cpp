// Evaluation against values worked out from the curve formulas by hand, and against an
// independent model of the curve over random envelopes.
#include <vxtools3/envelope.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr double kTick = 1.0 / 3600.0;

struct EnvFixture : ::testing::Test {
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    ~EnvFixture() override { EnvDestroy(env); }

    VxEnvKey *Key(double t, double v, int32_t shape, std::vector<double> p = {})
    {
        VxEnvKey *k = EnvAddKey(env, t, v);
        EnvKeySetType(env, k, shape);
        for (size_t i = 0; i < p.size(); ++i)
            EnvKeySetParam(k, static_cast<int32_t>(i), p[i]);
        return k;
    }
    void Behaviours(int32_t pre, int32_t post)
    {
        EnvSet(env, ENV_ATTR_PRE, &pre);
        EnvSet(env, ENV_ATTR_POST, &post);
    }
    double At(double t) { return EnvEvaluate(env, t); }
};

TEST(EnvEmpty, ScaleChannelsAreOneOthersZero)
{
    for (int32_t type = 0; type < 20; ++type) {
        VxEnvelope *e = EnvCreate(nullptr, 0, type, nullptr);
        const double expected = type >= 7 && type <= 9 ? 1.0 : 0.0;
        EXPECT_EQ(EnvGet(e, ENV_ATTR_LAST_VALUE), expected) << type;
        EXPECT_EQ(EnvEvaluate(e, 3.0), expected) << type;
        EnvDestroy(e);
    }
}

TEST_F(EnvFixture, OneKeyIsConstantEverywhere)
{
    Key(2.0, 7.5, ENV_SHAPE_TCB);
    Behaviours(ENV_BEHAVIOR_REPEAT, ENV_BEHAVIOR_LINEAR);
    for (double t : {-100.0, 0.0, 2.0, 5.0})
        EXPECT_EQ(At(t), 7.5);
}

// t * 3600 = 112.5 exactly: the half tick rounds up, on both sides of zero.
TEST_F(EnvFixture, HalfTicksRoundUp)
{
    Key(113 * kTick, 1.0, ENV_SHAPE_LINEAR);
    Key(-112 * kTick, -1.0, ENV_SHAPE_LINEAR);
    EXPECT_EQ(EnvKeyTime(EnvGetKey(env, 1.0 / 32)), 113 * kTick);
    EXPECT_EQ(EnvKeyTime(EnvGetKey(env, -1.0 / 32)), -112 * kTick);
    EXPECT_EQ(At(1.0 / 32), 1.0);
    EXPECT_EQ(At(-1.0 / 32), -1.0);
    EXPECT_EQ(EnvNextKeyframe(env, -1.0 / 32), EnvGetKey(env, 113 * kTick));
    EXPECT_EQ(EnvPrevKeyframe(env, 1.0 / 32), EnvGetKey(env, -112 * kTick));
    EXPECT_EQ(EnvPrevKeyframe(env, -1.0 / 32), nullptr);
}

TEST_F(EnvFixture, LinearAndSteppedSegments)
{
    Key(0.0, 0.0, ENV_SHAPE_LINEAR);
    Key(1.0, 10.0, ENV_SHAPE_LINEAR);
    Key(2.0, 4.0, ENV_SHAPE_STEPPED);
    EXPECT_DOUBLE_EQ(At(0.25), 2.5);
    EXPECT_DOUBLE_EQ(At(0.9), 9.0);
    EXPECT_EQ(At(1.999), 10.0);
    EXPECT_EQ(At(2.0), 4.0);
}

// Keys one tick apart: every time between them rounds onto one of them.
TEST_F(EnvFixture, OneTickLinearSegmentIsAStep)
{
    Key(0.0, 1.0, ENV_SHAPE_LINEAR);
    Key(kTick, 5.0, ENV_SHAPE_LINEAR);
    Key(1.0, 9.0, ENV_SHAPE_LINEAR);
    EXPECT_EQ(At(0.49 * kTick), 1.0);
    EXPECT_EQ(At(0.51 * kTick), 5.0);
    // Repeating the whole range maps one cycle later onto the same ticks.
    Behaviours(ENV_BEHAVIOR_CONSTANT, ENV_BEHAVIOR_REPEAT);
    EXPECT_EQ(At(1.0 + 0.51 * kTick), 5.0);
}

// Hermite with stored tangents. At the ends the span has one extra tick: r = 3600/3601.
TEST_F(EnvFixture, HermiteWithStoredTangents)
{
    Key(0.0, 0.0, ENV_SHAPE_HERMITE, {0, 0, 0, 0, 6.0});
    Key(1.0, 3.0, ENV_SHAPE_HERMITE, {0, 0, 0, -2.0, 0});
    const double r = 3600.0 / 3601.0;
    // u = 1/2: h1 = h2 = 1/2, h3 = 1/8, h4 = -1/8.
    EXPECT_NEAR(At(0.5), 1.5 + r * 6.0 / 8 + r * 2.0 / 8, 1e-12);
    // u = 1/4: h2 = 3/16 - 2/64 = 5/32, h3 = 1/64 - 2/16 + 1/4 = 9/64, h4 = 1/64 - 1/16 = -3/64.
    EXPECT_NEAR(At(0.25), 3.0 * 5 / 32 + r * 6.0 * 9 / 64 + r * -2.0 * -3 / 64, 1e-12);
}

// Three TCB keys with tension, continuity and bias; the middle key's tangents use both
// neighbours, the end keys the one-tick-longer span.
TEST_F(EnvFixture, TcbWithTensionContinuityBias)
{
    Key(0.0, 0.0, ENV_SHAPE_TCB, {0.5, 0.0, 0.0});
    Key(1.0, 2.0, ENV_SHAPE_TCB, {0.25, 0.5, -0.5});
    Key(3.0, 1.0, ENV_SHAPE_TCB, {0.0, 0.0, 0.0});
    // Segment 0 -> 1 at u = 1/2. Out of key 0: first key, span 3601, dIn 0, dOut 2:
    // r = 3600/3601, (1-T)(1-C)(1-B) = 0.5.
    const double out0 = 3600.0 / 3601.0 * (0.5 * 2.0);
    // In of key 1: span 10800, r = 3600/10800, dIn 2, dOut -1, T .25 C .5 B -.5:
    // (1-T)(1-C)(1+B) = .75*.5*.5 = .1875, (1-T)(1+C)(1-B) = .75*1.5*1.5 = 1.6875.
    const double in1 = 3600.0 / 10800.0 * (0.1875 * 2.0 + 1.6875 * -1.0);
    EXPECT_NEAR(At(0.5), 0.0 * 0.5 + 2.0 * 0.5 + out0 * 0.125 + in1 * -0.125, 1e-12);
    // Segment 1 -> 2 at u = 1/2. Out of key 1: r = 7200/10800,
    // (1-T)(1+C)(1+B) = .75*1.5*.5 = .5625, (1-T)(1-C)(1-B) = .75*.5*1.5 = .5625.
    const double out1 = 7200.0 / 10800.0 * (0.5625 * 2.0 + 0.5625 * -1.0);
    // In of key 2: last key, span 7201, r = 7200/7201, dIn -1, dOut 0.
    const double in2 = 7200.0 / 7201.0 * (1.0 * -1.0);
    EXPECT_NEAR(At(2.0), 2.0 * 0.5 + 1.0 * 0.5 + out1 * 0.125 + in2 * -0.125, 1e-12);
    // The tangents are cached in p3 / p4.
    EXPECT_NEAR(EnvKeyGetParam(EnvGetKey(env, 1.0), 4), out1, 1e-15);
    EXPECT_NEAR(EnvKeyGetParam(EnvGetKey(env, 3.0), 3), in2, 1e-15);
}

// One-dimensional Bezier: control values at a third of the tangents; the incoming tangent
// of an inner end key is scaled by its share of the span, of a last key not at all.
TEST_F(EnvFixture, BezierControlValues)
{
    Key(0.0, 0.0, ENV_SHAPE_BEZIER, {0, 0, 0, 0, 3.0});
    Key(1.0, 1.0, ENV_SHAPE_BEZIER, {0, 0, 0, 6.0, 1.5});
    Key(2.0, 0.0, ENV_SHAPE_BEZIER, {0, 0, 0, -3.0, 0});
    // Segment 0 -> 1, u = 1/2: weights 1/8, 3/8, 3/8, 1/8.
    const double a0 = 0.0 + 3600.0 / 3601.0 * 3.0 / 3;
    const double b0 = 1.0 - 6.0 * 0.5 / 3;  // in = p3 * 3600 / 7200
    EXPECT_NEAR(At(0.5), a0 * 3 / 8 + b0 * 3 / 8 + 1.0 / 8, 1e-12);
    // Segment 1 -> 2: out = 3600/7200 * 1.5, in of the last key = p3 unscaled.
    const double a1 = 1.0 + 0.5 * 1.5 / 3;
    const double b1 = 0.0 + 3.0 / 3;
    EXPECT_NEAR(At(1.5), 1.0 / 8 + a1 * 3 / 8 + b1 * 3 / 8, 1e-12);
}

// 2-D Bezier with the time handles at thirds: the first bisection probes land exactly on
// the times 1/2 and 1/4 of the segment, where y is the cubic of the value handles.
TEST_F(EnvFixture, Bezier2DHandles)
{
    Key(0.0, 0.0, ENV_SHAPE_BEZIER2, {-0.2, 0.0, 0.75, 3.0});
    Key(2.25, 6.0, ENV_SHAPE_BEZIER2, {-0.75, -1.5, 0.5, 0.0});
    const double y0 = 0.0, y1 = 3.0, y2 = 4.5, y3 = 6.0;
    EXPECT_NEAR(At(1.125), (y0 + 3 * y1 + 3 * y2 + y3) / 8, 1e-12);
    const double s = 0.25;
    const double cubic = y0 * (1 - s) * (1 - s) * (1 - s) + 3 * y1 * s * (1 - s) * (1 - s) + 3 * y2 * s * s * (1 - s) +
                         y3 * s * s * s;
    EXPECT_NEAR(At(0.5625), cubic, 1e-12);
}

// A 2-D Bezier segment whose start key has another shape takes its first handle from the
// start key's cached outgoing tangent p4 and a third of the segment.
TEST_F(EnvFixture, Bezier2DAfterAnotherShape)
{
    Key(0.0, 0.0, ENV_SHAPE_HERMITE, {0, 0, 0, 0, 9.0});
    Key(3.0, 6.0, ENV_SHAPE_BEZIER2, {-1.0, -3.0, 0, 0});
    // x handles at 1 and 2: x(s) = 3s; y handles 0 + 9/3 = 3 and 6 - 3 = 3.
    EXPECT_NEAR(At(1.5), (0 + 3 * 3.0 + 3 * 3.0 + 6.0) / 8, 1e-12);
}

// The outgoing tangent of a 2-D Bezier key feeding a Hermite segment reads p2 and p3 as an
// absolute time and value: (p3 - value) / (tick(p2) - tick).
TEST_F(EnvFixture, Bezier2DTangentReadsHandlesAsAbsolute)
{
    Key(1.0, 2.0, ENV_SHAPE_BEZIER2, {0, 0, 1.5, 5.0});
    Key(2.0, 2.0, ENV_SHAPE_HERMITE, {0, 0, 0, 0, 0});
    const double out = (5.0 - 2.0) / (5400.0 - 3600.0);
    EXPECT_NEAR(At(1.5), 2.0 + out * 0.125, 1e-15);
}

// Linear keys repeated over a 2 s range (keys at 1 s and 3 s, values 0 and 10).
TEST_F(EnvFixture, RepeatOscillateOffsetOverSeveralCycles)
{
    Key(1.0, 0.0, ENV_SHAPE_LINEAR);
    Key(3.0, 10.0, ENV_SHAPE_LINEAR);
    struct Case {
        int32_t behaviour;
        double t, expected;
    };
    const Case cases[] = {
        {ENV_BEHAVIOR_REPEAT, -2.5, 2.5},     {ENV_BEHAVIOR_REPEAT, 6.5, 7.5},    {ENV_BEHAVIOR_REPEAT, -6.5, 2.5},
        {ENV_BEHAVIOR_OSCILLATE, -0.5, 7.5},  {ENV_BEHAVIOR_OSCILLATE, -2.5, 2.5}, {ENV_BEHAVIOR_OSCILLATE, -4.5, 7.5},
        {ENV_BEHAVIOR_OSCILLATE, 4.5, 2.5},   {ENV_BEHAVIOR_OSCILLATE, 6.5, 7.5},  {ENV_BEHAVIOR_OSCILLATE, 8.5, 2.5},
        {ENV_BEHAVIOR_OFFSET, -2.5, -17.5},   {ENV_BEHAVIOR_OFFSET, -0.5, -7.5},   {ENV_BEHAVIOR_OFFSET, 6.5, 27.5},
        {ENV_BEHAVIOR_OFFSET, 10.5, 47.5},    {ENV_BEHAVIOR_RESET, -2.5, 0.0},     {ENV_BEHAVIOR_CONSTANT, 9.0, 10.0},
    };
    for (const Case &c : cases) {
        Behaviours(c.behaviour, c.behaviour);
        EXPECT_NEAR(At(c.t), c.behaviour == ENV_BEHAVIOR_CONSTANT ? 10.0 : c.expected, 1e-9)
            << "behaviour " << c.behaviour << " at " << c.t;
    }
    // Exactly on the last tick: no wrap; one tick later the first key's segment, and a time
    // on a key's tick after wrapping gives that key's value plus the offset.
    Behaviours(ENV_BEHAVIOR_OFFSET, ENV_BEHAVIOR_OFFSET);
    EXPECT_EQ(At(3.0), 10.0);
    EXPECT_NEAR(At(3.0 + kTick), 10.0 + 10.0 * kTick / 2.0, 1e-9);
    EXPECT_EQ(At(7.0), 30.0);
    EXPECT_EQ(At(-3.0), -20.0);
}

// Linear behaviours: slope per second after linear end keys, flat after stepped ones, and
// the slope over the two ticks inside the curve otherwise.
TEST_F(EnvFixture, LinearBehaviourAtLinearAndSteppedEnds)
{
    Key(0.0, 1.0, ENV_SHAPE_LINEAR);
    Key(2.0, 5.0, ENV_SHAPE_LINEAR);
    Behaviours(ENV_BEHAVIOR_LINEAR, ENV_BEHAVIOR_LINEAR);
    EXPECT_NEAR(At(-1.5), 1.0 - 2.0 * 1.5, 1e-12);
    EXPECT_NEAR(At(4.0), 5.0 + 2.0 * 2.0, 1e-12);
    EnvKeySetType(env, EnvKeyFirst(env), ENV_SHAPE_STEPPED);
    EnvKeySetType(env, EnvKeyLast(env), ENV_SHAPE_STEPPED);
    EXPECT_EQ(At(-1.5), 1.0);
    EXPECT_EQ(At(4.0), 5.0);
}

TEST_F(EnvFixture, LinearBehaviourAtTcbEndsUsesTwoTickSlope)
{
    Key(0.0, 0.0, ENV_SHAPE_TCB);
    Key(1.0, 1.0, ENV_SHAPE_TCB);
    Behaviours(ENV_BEHAVIOR_LINEAR, ENV_BEHAVIOR_LINEAR);
    // Both tangents are 3600/3601; the Hermite curve at u = 2/3600 and u = 1 - 2/3600.
    const double tan = 3600.0 / 3601.0;
    auto hermite = [tan](double u) {
        return (3 * u * u - 2 * u * u * u) + tan * (u * u * u - 2 * u * u + u) + tan * (u * u * u - u * u);
    };
    const double slopeIn = hermite(2.0 / 3600) / (2.0 / 3600);
    const double slopeOut = (1.0 - hermite(1.0 - 2.0 / 3600)) / (2.0 / 3600);
    EXPECT_NEAR(At(-0.5), -0.5 * slopeIn, 1e-9);
    EXPECT_NEAR(At(1.75), 1.0 + 0.75 * slopeOut, 1e-9);
}

uint64_t Bits(double v)
{
    uint64_t b;
    std::memcpy(&b, &v, sizeof b);
    return b;
}

// Repeat adds the range to the time once per cycle, each addition rounded; a Linear segment
// adds the offset to the start value first.
TEST_F(EnvFixture, CycleShiftAndLinearOffsetRoundAsWritten)
{
    Key(0.0, 0.0, ENV_SHAPE_LINEAR);
    VxEnvKey *last = Key(0.7, 1.0, ENV_SHAPE_LINEAR);
    Behaviours(ENV_BEHAVIOR_CONSTANT, ENV_BEHAVIOR_REPEAT);
    EXPECT_EQ(Bits(At(2.2)), 0x3fc24924924924a3u);
    EnvSetKey(env, EnvKeyFirst(env), 0.3);
    EnvSetKey(env, last, 1.1);
    Behaviours(ENV_BEHAVIOR_CONSTANT, ENV_BEHAVIOR_OFFSET);
    EXPECT_EQ(Bits(At(0.704)), 0x3ff1ac53171cf6efu);
}

// The time after whole cycles, shifted round by round as the behaviours describe it, against
// the evaluation, over random ranges and times up to a million cycles before and after.
TEST(EnvCycles, ShiftMatchesTheLiteralLoop)
{
    std::mt19937 rng(77);
    for (int round = 0; round < 400; ++round) {
        const int32_t f = static_cast<int32_t>(rng() % 10000) - 5000;
        const int32_t rangeTicks = 1 + static_cast<int32_t>(rng() % 2000);
        const int32_t l = f + rangeTicks;
        VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
        EnvKeySetType(env, EnvAddKey(env, f * kTick, 0.0), ENV_SHAPE_LINEAR);
        EnvKeySetType(env, EnvAddKey(env, l * kTick, 1.0), ENV_SHAPE_LINEAR);
        const int32_t repeat = ENV_BEHAVIOR_REPEAT;
        EnvSet(env, ENV_ATTR_PRE, &repeat);
        EnvSet(env, ENV_ATTR_POST, &repeat);
        const double tF = f * kTick, tL = l * kTick, range = tL - tF;
        const double cycles = std::floor(std::exp(std::uniform_real_distribution<double>(0.0, std::log(1e6))(rng)));
        const double within = std::uniform_real_distribution<double>(0.0, range)(rng);
        const bool before = round & 1;
        double t = before ? tF - cycles * range - within : tL + cycles * range + within;
        const double asked = t;
        int32_t n = static_cast<int32_t>(std::floor(t * 3600.0 + 0.5));
        if (before) {
            for (n += rangeTicks; n < f; n += rangeTicks)
                t += range;
            t += range;
        } else {
            do {
                t -= range;
                n -= rangeTicks;
            } while (n > l);
        }
        const int32_t at = static_cast<int32_t>(std::floor(t * 3600.0 + 0.5));
        const double want = at == f ? 0.0 : at == l ? 1.0 : (t + f * -kTick) / (rangeTicks * kTick);
        ASSERT_EQ(Bits(EnvEvaluate(env, asked)), Bits(want)) << "round " << round << " t " << asked;
        EnvDestroy(env);
    }
}

// ---- An independent model of the curve ----------------------------------------------------

struct MKey {
    int32_t tick;
    double value;
    int32_t shape;
    double p[5];
};

struct Model {
    std::vector<MKey> k;
    int32_t pre = 1, post = 1;

    static int32_t Tick(double t) { return static_cast<int32_t>(std::floor(t * 3600.0 + 0.5)); }
    double Sec(int i) const { return k[i].tick / 3600.0; }

    double Out(int i) const
    {
        const int n = static_cast<int>(k.size());
        if (i == n - 1)
            return 0;
        const MKey &K = k[i], &N = k[i + 1];
        const double span = i == 0 ? N.tick - K.tick + 1 : N.tick - k[i - 1].tick;
        const double dIn = i == 0 ? 0 : K.value - k[i - 1].value, dOut = N.value - K.value;
        const double r = (N.tick - K.tick) / span;
        switch (K.shape) {
        case 1:
        case 2: return r * K.p[4];
        case 3: return N.shape == 3 ? dOut / (N.tick - K.tick) * 3600 : r * (dOut + dIn);
        case 4: return 0;
        case 5: return (K.p[3] - K.value) / (Tick(K.p[2]) - K.tick);
        default: {
            const double T = K.p[0], C = K.p[1], B = K.p[2];
            return r * ((1 - T) * (1 + C) * (1 + B) * dIn + (1 - T) * (1 - C) * (1 - B) * dOut);
        }
        }
    }
    double In(int i) const
    {
        const int n = static_cast<int>(k.size());
        if (i == 0)
            return 0;
        const MKey &K = k[i], &P = k[i - 1];
        const bool last = i == n - 1;
        const double span = last ? K.tick - P.tick + 1 : k[i + 1].tick - P.tick;
        const double dOut = last ? 0 : k[i + 1].value - K.value, dIn = K.value - P.value;
        const double r = (K.tick - P.tick) / span;
        switch (K.shape) {
        case 1: return r * K.p[3];
        case 2: return last ? K.p[3] : K.p[3] * (K.tick - P.tick) / (k[i + 1].tick - P.tick);
        case 3: return dIn / (K.tick - P.tick) * 3600;
        case 4: return 0;
        case 5: return (K.value - K.p[1]) / (K.tick - Tick(K.p[2]));
        default: {
            const double T = K.p[0], C = K.p[1], B = K.p[2];
            return r * ((1 - T) * (1 - C) * (1 + B) * dIn + (1 - T) * (1 + C) * (1 - B) * dOut);
        }
        }
    }
    static double Cubic(double c0, double c1, double c2, double c3, double s)
    {
        const double m = 1 - s;
        return c0 * m * m * m + 3 * c1 * s * m * m + 3 * c2 * s * s * m + c3 * s * s * s;
    }
    double Bez2(int si, int ei, double t) const
    {
        const MKey &S = k[si], &E = k[ei];
        const double x0 = Sec(si), x3 = Sec(ei);
        const double x1 = S.shape == 5 ? x0 + S.p[2] : x0 + (x3 - x0) / 3;
        const double y1 = S.shape == 5 ? S.value + S.p[3] : S.value + S.p[4] / 3;
        const double x2 = x3 + E.p[0], y2 = E.value + E.p[1];
        double lo = 0, hi = 1, s = 0.5;
        for (int probes = 0; probes < 17; ++probes) {
            s = (lo + hi) / 2;
            const double x = Cubic(x0, x1, x2, x3, s);
            if (std::fabs(t - x) < 1e-4)
                break;
            (x < t ? lo : hi) = s;
            s = (lo + hi) / 2;
        }
        return Cubic(S.value, y1, y2, E.value, s);
    }
    double Inside(double t, bool probeBefore) const
    {
        const int32_t n = Tick(t);
        int e = 0;
        while (e < static_cast<int>(k.size()) && k[e].tick < n)
            ++e;
        if (e < static_cast<int>(k.size()) && k[e].tick == n)
            return k[e].value;
        if (e == 0)
            return k[0].value;
        if (e == static_cast<int>(k.size()))
            return k.back().value;
        const int s = e - 1;
        const MKey &S = k[s], &E = k[e];
        const double u = (t - Sec(s)) / (Sec(e) - Sec(s));
        if (E.shape == 4 || (E.shape == 3 && E.tick - S.tick <= 1))
            return S.value;
        switch (E.shape) {
        case 3: return S.value + (E.value - S.value) * u;
        case 2: return Cubic(S.value, S.value + Out(s) / 3, E.value - In(e) / 3, E.value, u);
        case 5: return Bez2(s, e, t);
        default:
            if (probeBefore && S.shape == 5)
                return Bez2(s, e, t);
            return S.value * (2 * u * u * u - 3 * u * u + 1) + E.value * (3 * u * u - 2 * u * u * u) +
                   Out(s) * (u * u * u - 2 * u * u + u) + In(e) * (u * u * u - u * u);
        }
    }
    double Eval(double t) const
    {
        if (k.size() == 1)
            return k[0].value;
        const MKey &F = k.front(), &L = k.back();
        const int32_t n = Tick(t);
        const int32_t range = L.tick - F.tick;
        const double tF = Sec(0), tL = Sec(static_cast<int>(k.size()) - 1);
        const bool before = n < F.tick, after = n > L.tick;
        if (!before && !after)
            return Inside(t, false);
        const int32_t b = before ? pre : post;
        if (b == 0)
            return 0;
        if (b == 5) {
            const MKey &end = before ? F : L;
            const double te = before ? tF : tL;
            if (end.shape == 3)
                return end.value + (before ? Out(0) : In(static_cast<int>(k.size()) - 1)) * (t - te);
            if (end.shape == 4)
                return end.value;
            const double probe = Inside(before ? tF + 2 / 3600.0 : tL - 2 / 3600.0, before);
            return end.value + (before ? probe - end.value : end.value - probe) / (2 / 3600.0) * (t - te);
        }
        if (b < 2 || b > 4)
            return before ? F.value : L.value;
        int c = 0;
        double shifted = t;
        for (int32_t m = n; before ? m < F.tick : m > L.tick; m += before ? range : -range) {
            ++c;
            shifted += before ? (tL - tF) : -(tL - tF);
        }
        if (b == 3 && (c & 1))
            shifted = tL + tF - shifted;
        const double offset = b == 4 ? (before ? F.value - L.value : L.value - F.value) * c : 0;
        return offset + Inside(shifted, false);
    }
};

TEST(EnvModel, RandomEnvelopesMatchTheModel)
{
    std::mt19937 rng(2024);
    auto uni = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    int checked = 0;
    for (int round = 0; round < 300; ++round) {
        VxEnvelope *env = EnvCreate(nullptr, 0, 1, nullptr);
        Model m;
        m.pre = static_cast<int32_t>(rng() % 6);
        m.post = static_cast<int32_t>(rng() % 6);
        EnvSet(env, ENV_ATTR_PRE, &m.pre);
        EnvSet(env, ENV_ATTR_POST, &m.post);
        const int count = 2 + static_cast<int>(rng() % 6);
        int32_t tick = static_cast<int32_t>(rng() % 4000) - 2000;
        for (int i = 0; i < count; ++i) {
            MKey key{tick, uni(-5, 5), static_cast<int32_t>(rng() % 7), {}};
            for (double &p : key.p)
                p = uni(-1, 1);
            if (key.shape == 5) {
                key.p[0] = -uni(0.01, 0.3);
                key.p[2] = uni(0.01, 0.3);
            }
            VxEnvKey *k = EnvAddKey(env, tick / 3600.0, key.value);
            EnvKeySetType(env, k, key.shape);
            for (int32_t j = 0; j < 5; ++j)
                EnvKeySetParam(k, j, key.p[j]);
            m.k.push_back(key);
            // Mostly short segments, some of one to three ticks, and some long enough (up to
            // 110 s) that the 2-D Bezier bisection runs out of probes before it converges.
            const uint32_t kind = rng() % 8;
            tick += 1 + static_cast<int32_t>(rng() % (kind < 2 ? 3 : kind == 2 ? 400000 : 3000));
        }
        const double tF = m.Sec(0), tL = m.Sec(count - 1), span = tL - tF;
        for (int probe = 0; probe < 40; ++probe) {
            const double t = probe < 4 ? (probe & 1 ? tL : tF) + (probe < 2 ? 0.0 : (probe & 1 ? kTick : -kTick))
                                       : uni(tF - 3.5 * span - 1, tL + 3.5 * span + 1);
            // The cached tangents p4 that a 2-D Bezier segment reads are whatever evaluation left.
            int i = 0;
            for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k), ++i)
                if (m.k[i].shape != 5)
                    m.k[i].p[4] = EnvKeyGetParam(k, 4);
            const double want = m.Eval(t);
            const double got = EnvEvaluate(env, t);
            ASSERT_NEAR(got, want, 1e-7 * (1 + std::fabs(want)))
                << "round " << round << " t " << t << " pre " << m.pre << " post " << m.post;
            ++checked;
        }
        EnvDestroy(env);
    }
    EXPECT_EQ(checked, 300 * 40);
}

}  // namespace
