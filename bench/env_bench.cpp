// EnvEvaluate over envelopes of 4 ... 1024 keys of each shape, in playback (10,000
// increasing times across the keys) and at 10,000 random times, beside what an application
// would otherwise write: a key array of (time, value, tangents) searched with upper_bound and
// evaluated with the Hermite basis in double precision.
#include <vxtools3/envelope.h>

#include "bench/ratio_reporter.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kTimes = 10000;
constexpr double kKeySpacing = 0.25;  // seconds

struct Shape {
    const char *name;
    int32_t code;
};
constexpr Shape kShapes[] = {{"tcb", ENV_SHAPE_TCB},       {"hermite", ENV_SHAPE_HERMITE}, {"bezier", ENV_SHAPE_BEZIER},
                             {"linear", ENV_SHAPE_LINEAR}, {"stepped", ENV_SHAPE_STEPPED}, {"bezier2", ENV_SHAPE_BEZIER2}};

double KeyValue(int i) { return std::sin(i * 0.7) * 3.0 + i * 0.1; }

VxEnvelope *MakeEnvelope(int32_t shape, int keys)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    for (int i = 0; i < keys; ++i) {
        VxEnvKey *k = EnvAddKey(env, i * kKeySpacing, KeyValue(i));
        EnvKeySetParam(k, 0, 0.2);
        EnvKeySetParam(k, 3, 0.5);
        EnvKeySetParam(k, 4, -0.5);
    }
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
        EnvKeySetType(env, k, shape);
    return env;
}

std::vector<double> Times(int keys, bool playback)
{
    const double end = (keys - 1) * kKeySpacing;
    std::vector<double> times(kTimes);
    std::mt19937 rng(42);
    for (int i = 0; i < kTimes; ++i)
        times[i] = playback ? end * i / (kTimes - 1) : std::uniform_real_distribution<double>(0.0, end)(rng);
    return times;
}

void Finish(benchmark::State &state, double sink)
{
    benchmark::DoNotOptimize(sink);
    state.SetItemsProcessed(state.iterations() * kTimes);
    state.counters["ns_per_eval"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kTimes), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void Ours(benchmark::State &state, int32_t shape, bool playback)
{
    const int keys = static_cast<int>(state.range(0));
    VxEnvelope *env = MakeEnvelope(shape, keys);
    const std::vector<double> times = Times(keys, playback);
    double sink = 0;
    for (auto _ : state)
        for (double t : times)
            sink += EnvEvaluate(env, t);
    EnvDestroy(env);
    Finish(state, sink);
}

// The peer: Catmull-Rom style tangents precomputed once, binary search per evaluation.
struct PlainKey {
    double time, value, out, in;
};

void Plain(benchmark::State &state, bool playback)
{
    const int keys = static_cast<int>(state.range(0));
    std::vector<PlainKey> k(static_cast<size_t>(keys));
    for (int i = 0; i < keys; ++i)
        k[i] = {i * kKeySpacing, KeyValue(i), 0, 0};
    for (int i = 0; i < keys; ++i) {
        const double prev = k[i > 0 ? i - 1 : i].value, next = k[i + 1 < keys ? i + 1 : i].value;
        k[i].out = k[i].in = (next - prev) * 0.5;
    }
    const std::vector<double> times = Times(keys, playback);
    double sink = 0;
    for (auto _ : state) {
        for (double t : times) {
            auto it = std::upper_bound(k.begin(), k.end(), t, [](double x, const PlainKey &key) { return x < key.time; });
            if (it == k.begin() || it == k.end()) {
                sink += it == k.end() ? k.back().value : k.front().value;
                continue;
            }
            const PlainKey &s = *(it - 1), &e = *it;
            const double u = (t - s.time) / (e.time - s.time), u2 = u * u, u3 = u2 * u;
            sink += s.value * (2 * u3 - 3 * u2 + 1) + e.value * (3 * u2 - 2 * u3) + s.out * (u3 - 2 * u2 + u) +
                    e.in * (u3 - u2);
        }
    }
    Finish(state, sink);
}

const bool kRegistered = [] {
    for (bool playback : {true, false}) {
        const std::string mode = playback ? "playback_" : "random_";
        for (const Shape &shape : kShapes) {
            const std::string name = mode + shape.name;
            benchmark::RegisterBenchmark((name + ":EnvEvaluate").c_str(), Ours, shape.code, playback)
                ->Arg(4)->Arg(16)->Arg(64)->Arg(1024);
            benchmark::RegisterBenchmark((name + ":plain-hermite").c_str(), Plain, playback)
                ->Arg(4)->Arg(16)->Arg(64)->Arg(1024);
        }
    }
    return true;
}();

}  // namespace
