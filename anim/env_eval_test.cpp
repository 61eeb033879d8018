// Evaluation against a model of the curve formulas, two values bit for bit, the cycle shift
// against a literal loop, and the tables against the key walk.
#include "anim/env_test.h"
#include "testkit/fault_alloc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

namespace {

using namespace envtest;

// An independent model of the curve.
struct MKey { int32_t tick; double value; int32_t shape; double p[5]; };

struct Model {
    std::vector<MKey> k;
    int32_t pre = 1, post = 1;

    static int32_t Tick(double t) { return static_cast<int32_t>(std::floor(t * 3600.0 + 0.5)); }
    double Sec(size_t i) const { return k[i].tick / 3600.0; }
    // The tangent at key i: outgoing (out) or incoming.
    double Tangent(size_t i, bool out) const
    {
        const size_t n = k.size();
        if (out ? i + 1 == n : i == 0)
            return 0;
        const MKey &K = k[i], *P = i ? &k[i - 1] : nullptr, *N = i + 1 < n ? &k[i + 1] : nullptr;
        const double seg = out ? N->tick - K.tick : K.tick - P->tick;
        const double span = P && N ? N->tick - P->tick : seg + 1;
        const double dIn = P ? K.value - P->value : 0, dOut = N ? N->value - K.value : 0, r = seg / span;
        const double T = 1 - K.p[0], C = K.p[1], B = K.p[2];
        switch (K.shape) {
        case 1: return r * (out ? K.p[4] : K.p[3]);
        case 2: return out ? r * K.p[4] : N ? K.p[3] * seg / (N->tick - P->tick) : K.p[3];
        case 3: return out && N->shape != 3 ? r * (dOut + dIn) : (out ? dOut : dIn) / seg * 3600;
        case 4: return 0;
        case 5: return out ? (K.p[3] - K.value) / (Tick(K.p[2]) - K.tick) : (K.value - K.p[1]) / (K.tick - Tick(K.p[2]));
        default:
            return r * (out ? T * (1 + C) * (1 + B) * dIn + T * (1 - C) * (1 - B) * dOut
                            : T * (1 - C) * (1 + B) * dIn + T * (1 + C) * (1 - B) * dOut);
        }
    }
    static double Cubic(double c0, double c1, double c2, double c3, double s, double m = 0)
    {
        return m = 1 - s, c0 * m * m * m + 3 * c1 * s * m * m + 3 * c2 * s * s * m + c3 * s * s * s;
    }
    double Bez2(size_t si, double t) const
    {
        const MKey &S = k[si], &E = k[si + 1];
        const double x0 = Sec(si), x3 = Sec(si + 1);
        const double x1 = S.shape == 5 ? x0 + S.p[2] : x0 + (x3 - x0) / 3;
        const double y1 = S.shape == 5 ? S.value + S.p[3] : S.value + S.p[4] / 3;
        double lo = 0, hi = 1, s = 0.5;
        for (int probe = 0; probe < 17; ++probe) {
            s = (lo + hi) / 2;
            const double x = Cubic(x0, x1, x3 + E.p[0], x3, s);
            if (std::fabs(t - x) < 1e-4)
                break;
            (x < t ? lo : hi) = s;
            s = (lo + hi) / 2;
        }
        return Cubic(S.value, y1, E.value + E.p[1], E.value, s);
    }
    double Inside(double t, bool probeBefore) const
    {
        const int32_t n = Tick(t);
        const size_t e = std::find_if(k.begin(), k.end(), [&](const MKey &x) { return x.tick >= n; }) - k.begin();
        if (e == k.size() || k[e].tick == n || e == 0)
            return e == k.size() ? k.back().value : k[e].value;
        const MKey &S = k[e - 1], &E = k[e];
        const double u = (t - Sec(e - 1)) / (Sec(e) - Sec(e - 1)), out = Tangent(e - 1, true), in = Tangent(e, false);
        if (E.shape == 4 || (E.shape == 3 && E.tick - S.tick <= 1))
            return S.value;
        if (E.shape == 3 || E.shape == 2)
            return E.shape == 3 ? S.value + (E.value - S.value) * u : Cubic(S.value, S.value + out / 3, E.value - in / 3, E.value, u);
        if (E.shape == 5 || (probeBefore && S.shape == 5))
            return Bez2(e - 1, t);
        return S.value * (2 * u * u * u - 3 * u * u + 1) + E.value * (3 * u * u - 2 * u * u * u) + out * (u * u * u - 2 * u * u + u) +
               in * (u * u * u - u * u);
    }
    double Eval(double t) const
    {
        const MKey &F = k.front(), &L = k.back();
        const int32_t n = Tick(t), range = L.tick - F.tick;
        const bool before = n < F.tick;
        if (k.size() == 1 || (!before && n <= L.tick))
            return k.size() == 1 ? F.value : Inside(t, false);
        const int32_t b = before ? pre : post;
        const MKey &end = before ? F : L;
        const double tF = Sec(0), tL = Sec(k.size() - 1), te = before ? tF : tL;
        if (b == 5 && end.shape == 3)
            return end.value + Tangent(before ? 0 : k.size() - 1, before) * (t - te);
        if (b == 5 && end.shape != 4) {
            const double probe = Inside(before ? tF + 2 / 3600.0 : tL - 2 / 3600.0, before);
            return end.value + (before ? probe - end.value : end.value - probe) / (2 / 3600.0) * (t - te);
        }
        if (b < 2 || b > 4)
            return b == 0 ? 0 : end.value;
        int c = 0;
        for (int32_t m = n; before ? m < F.tick : m > L.tick; m += before ? range : -range, ++c)
            t += before ? tL - tF : tF - tL;
        if (b == 3 && (c & 1))
            t = tL + tF - t;
        return (b == 4 ? (before ? F.value - L.value : L.value - F.value) * c : 0) + Inside(t, false);
    }
};

// Every shape and behaviour against the model, at the ends, a tick around them and over three
// ranges; segments up to 110 s, where the 2-D Bezier bisection runs out of probes.
TEST(EnvModel, RandomEnvelopesMatchTheModel)
{
    std::mt19937 rng(2024);
    auto uni = [&](double lo, double hi) { return Uni(rng, lo, hi); };
    for (int round = 0; round < 300; ++round) {
        const Env env(1);
        Model m;
        m.pre = static_cast<int32_t>(rng() % 6), m.post = static_cast<int32_t>(rng() % 6);
        SetBehaviours(env, m.pre, m.post);
        const int count = 1 + static_cast<int>(rng() % 7);
        for (int32_t i = 0, tick = static_cast<int32_t>(rng() % 4000) - 2000; i < count; ++i) {
            MKey key{tick, uni(-5, 5), static_cast<int32_t>(rng() % 7), {}};
            for (double &p : key.p)
                p = uni(-1, 1);
            if (key.shape == 5)
                key.p[0] = -uni(0.01, 0.3), key.p[2] = uni(0.01, 0.3);
            VxEnvKey *k = AddKey(env, tick / 3600.0, key.value, key.shape);
            for (int32_t j = 0; j < 5; ++j)
                EnvKeySetParam(k, j, key.p[j]);
            m.k.push_back(key);
            const uint32_t kind = rng() % 8;
            tick += 1 + static_cast<int32_t>(rng() % (kind < 2 ? 3 : kind == 2 ? 400000 : 3000));
        }
        const double tF = m.Sec(0), tL = m.Sec(count - 1), span = tL - tF;
        for (int probe = 0; probe < 40; ++probe) {
            const double t = probe < 4 ? (probe & 1 ? tL : tF) + (probe < 2 ? 0.0 : (probe & 1 ? kTick : -kTick))
                                       : uni(tF - 3.5 * span - 1, tL + 3.5 * span + 1);
            // The tangents p4 that a 2-D Bezier segment reads are what evaluation cached.
            size_t i = 0;
            for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k), ++i)
                if (m.k[i].shape != 5)
                    m.k[i].p[4] = EnvKeyGetParam(k, 4);
            const double want = m.Eval(t);
            ASSERT_NEAR(EnvEvaluate(env, t), want, 1e-7 * (1 + std::fabs(want)))
                << "round " << round << " t " << t << " pre " << m.pre << " post " << m.post;
        }
    }
    // Empty envelopes: 1.0 for the scale channels 7 to 9, else 0.0.
    for (int32_t type = 0; type < 20; ++type)
        EXPECT_EQ(EnvEvaluate(Env(type), 3.0), type >= 7 && type <= 9 ? 1.0 : 0.0) << type;
}

// Repeat adds the range to the time once per cycle, each addition rounded; a Linear segment
// adds the offset to the start value first. And t * 3600 = 112.5: half ticks round up.
TEST(EnvBits, CycleShiftLinearOffsetAndHalfTicks)
{
    const Env env;
    VxEnvKey *first = AddKey(env, 0.0, 0.0, ENV_SHAPE_LINEAR);
    VxEnvKey *last = AddKey(env, 0.7, 1.0, ENV_SHAPE_LINEAR);
    SetBehaviours(env, ENV_BEHAVIOR_CONSTANT, ENV_BEHAVIOR_REPEAT);
    EXPECT_EQ(Bits(EnvEvaluate(env, 2.2)), 0x3fc24924924924a3u);
    EnvSetKey(env, first, 0.3);
    EnvSetKey(env, last, 1.1);
    SetBehaviours(env, ENV_BEHAVIOR_CONSTANT, ENV_BEHAVIOR_OFFSET);
    EXPECT_EQ(Bits(EnvEvaluate(env, 0.704)), 0x3ff1ac53171cf6efu);
    EnvKeySetTime(env, first, -1.0 / 32);
    EnvKeySetTime(env, last, 1.0 / 32);
    EXPECT_EQ(EnvKeyTime(first), -112 * kTick);
    EXPECT_EQ(EnvKeyTime(last), 113 * kTick);
}

// The time shifted cycle by cycle against the evaluation (keys 0.0 and 1.0: the value is u),
// up to a million cycles before and after the keys.
TEST(EnvBits, CycleShiftMatchesTheLiteralLoop)
{
    std::mt19937 rng(77);
    for (int round = 0; round < 400; ++round) {
        const int32_t f = static_cast<int32_t>(rng() % 10000) - 5000, rangeTicks = 1 + static_cast<int32_t>(rng() % 2000);
        const int32_t l = f + rangeTicks;
        const Env env;
        AddKey(env, f * kTick, 0.0, ENV_SHAPE_LINEAR);
        AddKey(env, l * kTick, 1.0, ENV_SHAPE_LINEAR);
        SetBehaviours(env, ENV_BEHAVIOR_REPEAT, ENV_BEHAVIOR_REPEAT);
        const double tF = f * kTick, tL = l * kTick, range = tL - tF;
        const double cycles = std::floor(std::exp(Uni(rng, 0.0, std::log(1e6)))), within = Uni(rng, 0.0, range);
        const bool before = round & 1;
        const double asked = before ? tF - cycles * range - within : tL + cycles * range + within;
        double t = asked;
        for (int32_t n = Model::Tick(t); before ? n < f : n > l; n += before ? rangeTicks : -rangeTicks)
            t += before ? range : -range;
        const int32_t at = Model::Tick(t);
        const double want = at == f ? 0.0 : at == l ? 1.0 : (t + f * -kTick) / (rangeTicks * kTick);
        ASSERT_EQ(Bits(EnvEvaluate(env, asked)), Bits(want)) << "round " << round << " t " << asked;
    }
}

// Random keys of every shape, 2-D Bezier handles up to far past their neighbours, segments of
// one tick to 2000 seconds.
VxEnvelope *RandomKeys(std::mt19937 &rng, int count)
{
    auto uni = [&](double lo, double hi) { return Uni(rng, lo, hi); };
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    SetBehaviours(env, static_cast<int32_t>(rng() % 6), static_cast<int32_t>(rng() % 6));
    const bool eased = rng() & 1;
    double t = uni(-5, 5);
    for (int i = 0; i < count; ++i) {
        VxEnvKey *k = AddKey(env, t, uni(-3, 3), static_cast<int32_t>(rng() % 7));
        const double reach = eased ? 0.4 : 1.5, scale = (t - EnvKeyTime(EnvKeyFirst(env)) + 1) / 4;
        const double p[5] = {-uni(0, reach) * scale, uni(-2, 2), uni(0, reach) * scale, uni(-2, 2), uni(-2, 2)};
        for (int32_t j = 0; j < 5; ++j)
            EnvKeySetParam(k, j, EnvKeyType(k) == ENV_SHAPE_BEZIER2 || j > 2 ? p[j] : p[j] / 4);
        const uint32_t kind = rng() % 16;
        t += kind == 0 ? kTick : kind == 1 ? uni(0, 2000) : uni(0.01, 1.5);
    }
    // Some all 2-D Bezier with converted handles at thirds: nearly straight time curves.
    for (VxEnvKey *k = rng() % 3 ? nullptr : EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
        EnvKeySetType(env, k, ENV_SHAPE_TCB), EnvKeySetType(env, k, ENV_SHAPE_BEZIER2);
    return env;
}

// Times at random, on the keys and half a tick either side (where the tick changes), and
// 0.0001 s from the time curve at a bisection probe (where the bisection stops); all but the
// random ones moved by a few ulps, since the outcome turns on the last bits.
std::vector<double> TestTimes(VxEnvelope *env, std::mt19937 &rng)
{
    auto uni = [&](double lo, double hi) { return Uni(rng, lo, hi); };
    std::vector<const VxEnvKey *> keys;
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
        keys.push_back(k);
    const double tF = EnvKeyTime(keys.front()), tL = EnvKeyTime(keys.back()), span = tL - tF;
    std::vector<double> times;
    for (int i = 0; i < 1200; ++i) {
        const VxEnvKey *s = keys[rng() % (keys.size() - 1)], *e = EnvKeyNext(env, s);
        double t = i % 3 == 0 ? uni(tF - 3 * span - 1, tL + 3 * span + 1) : i % 3 == 1 ? EnvKeyTime(s) + kTick / 2 * (static_cast<int>(rng() % 3) - 1) : 0.0;
        if (i % 3 == 2) {
            const double x0 = EnvKeyTime(s), x3 = EnvKeyTime(e);
            const double x1 = x0 + (EnvKeyType(s) == ENV_SHAPE_BEZIER2 ? EnvKeyGetParam(s, 2) : (x3 - x0) / 3);
            const double x2 = x3 + EnvKeyGetParam(e, 0);
            const double a = (x1 - x0) * 3.0, b = (x2 - x1) * 3.0 - a, d = x3 - x0 - a - b;
            const int level = 1 + static_cast<int>(rng() % 17);
            const double sp = static_cast<double>(2 * (rng() % (1u << (level - 1))) + 1) * std::ldexp(1.0, -level);
            t = x0 + a * sp + b * (sp * sp) + d * (sp * sp * sp) + (rng() & 1 ? 0.0001 : -0.0001);
        }
        for (int step = i % 3 ? static_cast<int>(rng() % 7) - 3 : 0; step != 0; step -= step > 0 ? 1 : -1)
            t = std::nextafter(t, step > 0 ? HUGE_VAL : -HUGE_VAL);
        times.push_back(t);
    }
    return times;
}

// Bit for bit over 2 to 2,000 keys: with no memory for the tables (the key walk, which raises
// and leaks nothing) and from them. A first pass settles the tangents cached in the keys.
TEST(EnvTables, MatchTheKeyWalkBitForBit)
{
    EnvDestroy(EnvCreate(nullptr, 0, 0, nullptr));  // the global port exists from now on
    std::mt19937 rng(9);
    const int sizes[] = {2, 3, 4, 5, 8, 15, 16, 17, 33, 64, 200, 1000, 2000};
    for (int round = 0; round < 78; ++round) {
        vxtest::FaultAllocator heap;
        const Env env(RandomKeys(rng, sizes[round % 13]));
        const std::vector<double> times = TestTimes(env, rng);
        for (double t : times)
            EnvEvaluate(env, t);
        const Env walked(EnvCopy(env));
        std::vector<uint64_t> want;
        const size_t live = heap.LiveBytes();
        heap.FailAt(1, vxtest::FailMode::FromThen);
        for (double t : times)
            want.push_back(Bits(EnvEvaluate(walked, t)));
        EXPECT_GT(heap.Failures(), 0);
        EXPECT_EQ(heap.LiveBytes(), live);
        heap.Disarm();
        std::vector<size_t> order(2 * times.size());  // as drawn, then in playback order
        std::iota(order.begin(), order.end(), size_t{0});
        std::sort(order.begin() + times.size(), order.end(), [&](size_t a, size_t b) { return times[a % want.size()] < times[b % want.size()]; });
        for (size_t j : order)
            ASSERT_EQ(Bits(EnvEvaluate(env, times[j % want.size()])), want[j % want.size()]) << "round " << round << " at " << j;
    }
}

}  // namespace
