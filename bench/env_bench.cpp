// EnvEvaluate over envelopes of 4 ... 1024 keys of each shape, in playback (10,000
// increasing times across the keys) and at random times, beside what an application would
// otherwise write: a key array of (time, value, tangents) searched with upper_bound and
// evaluated with the Hermite basis in double precision.
//
// Both sides evaluate the same times in the same order, drawn before the timing starts, and
// each pair runs back to back (ours, then the plain loop, per key count). Random times come
// from a pool far longer than one pass: a sequence of 10,000 times replayed on every pass is
// short enough for the branch predictor to learn the plain loop's search branches on some
// runs and not on others, which moved its time at 16 keys between 4 and 13 ns. Passes are
// timed by the CPU clock, so that stretches in which the benchmark waits for a core on a
// shared machine do not count.
#include <vxtools3/envelope.h>

#include "bench/ratio_reporter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kTimes = 10000;         // evaluations per pass
constexpr int kPasses = 8;            // passes per timed iteration, to make the clock's cost small
constexpr int kPoolPasses = 16;       // random times: the pool holds this many passes
constexpr double kKeySpacing = 0.25;  // seconds

// "bezier2" keeps the time handles that converting a key to 2-D Bezier gives (a third of the
// segment); "bezier2_eased" moves them to 0.4 of the segment on both sides, the ease-in and
// ease-out an animator drags out, whose time curve bends.
struct Shape {
    const char *name;
    int32_t code;
    bool eased;
};
constexpr Shape kShapes[] = {{"tcb", ENV_SHAPE_TCB, false},         {"hermite", ENV_SHAPE_HERMITE, false},
                             {"bezier", ENV_SHAPE_BEZIER, false},   {"linear", ENV_SHAPE_LINEAR, false},
                             {"stepped", ENV_SHAPE_STEPPED, false}, {"bezier2", ENV_SHAPE_BEZIER2, false},
                             {"bezier2_eased", ENV_SHAPE_BEZIER2, true}};
constexpr double kEasedHandle = 0.4 * kKeySpacing;  // seconds

double KeyValue(int i) { return std::sin(i * 0.7) * 3.0 + i * 0.1; }

VxEnvelope *MakeEnvelope(const Shape &shape, int keys)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    for (int i = 0; i < keys; ++i) {
        VxEnvKey *k = EnvAddKey(env, i * kKeySpacing, KeyValue(i));
        EnvKeySetParam(k, 0, 0.2);
        EnvKeySetParam(k, 3, 0.5);
        EnvKeySetParam(k, 4, -0.5);
    }
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k)) {
        EnvKeySetType(env, k, shape.code);
        if (shape.eased) {
            EnvKeySetParam(k, 0, -kEasedHandle);
            EnvKeySetParam(k, 2, kEasedHandle);
        }
    }
    return env;
}

// Playback: one pass of increasing times from the first key to the last. Random: a pool of
// kPoolPasses passes of uniform times in the same range.
std::vector<double> Times(int keys, bool playback)
{
    const double end = (keys - 1) * kKeySpacing;
    std::vector<double> times(playback ? kTimes : static_cast<size_t>(kTimes) * kPoolPasses);
    std::mt19937 rng(42);
    std::uniform_real_distribution<double> uniform(0.0, end);
    for (size_t i = 0; i < times.size(); ++i)
        times[i] = playback ? end * static_cast<double>(i) / (kTimes - 1) : uniform(rng);
    return times;
}

// The process's CPU time (the benchmark runs on one thread), in seconds.
double CpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

// Runs `pass` over kPasses consecutive passes of `times` per iteration (wrapping around the
// pool), once untimed first so that both sides start warm, and reports the CPU time. A pass
// stores each value in an array, as an application sampling a curve would: the evaluations
// are independent of each other on both sides, with no chain through a running sum.
template <typename Pass>
void Run(benchmark::State &state, const std::vector<double> &times, Pass pass)
{
    const size_t passes = times.size() / kTimes;
    std::vector<double> values(kTimes);
    size_t next = 0;
    for (size_t p = 0; p < passes; ++p)
        pass(times.data() + p * kTimes, values.data());
    for (auto _ : state) {
        const double start = CpuSeconds();
        for (int p = 0; p < kPasses; ++p) {
            pass(times.data() + next * kTimes, values.data());
            benchmark::DoNotOptimize(values.data());
            benchmark::ClobberMemory();
            next = next + 1 == passes ? 0 : next + 1;
        }
        state.SetIterationTime(CpuSeconds() - start);
    }
    const auto evaluations = static_cast<double>(state.iterations()) * kTimes * kPasses;
    state.SetItemsProcessed(static_cast<int64_t>(evaluations));
    state.counters["ns_per_eval"] = benchmark::Counter(evaluations, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void Ours(benchmark::State &state, const Shape *shape, bool playback)
{
    const int keys = static_cast<int>(state.range(0));
    VxEnvelope *env = MakeEnvelope(*shape, keys);
    Run(state, Times(keys, playback), [env](const double *times, double *values) {
        for (int i = 0; i < kTimes; ++i)
            values[i] = EnvEvaluate(env, times[i]);
    });
    EnvDestroy(env);
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
    Run(state, Times(keys, playback), [&k](const double *times, double *values) {
        for (int i = 0; i < kTimes; ++i) {
            const double t = times[i];
            auto it = std::upper_bound(k.begin(), k.end(), t, [](double x, const PlainKey &key) { return x < key.time; });
            if (it == k.begin() || it == k.end()) {
                values[i] = it == k.end() ? k.back().value : k.front().value;
                continue;
            }
            const PlainKey &s = *(it - 1), &e = *it;
            const double u = (t - s.time) / (e.time - s.time), u2 = u * u, u3 = u2 * u;
            values[i] = s.value * (2 * u3 - 3 * u2 + 1) + e.value * (3 * u2 - 2 * u3) + s.out * (u3 - 2 * u2 + u) +
                        e.in * (u3 - u2);
        }
    });
}

// ---- Far from the keys ------------------------------------------------------------------
//
// Repeat a million cycles after the last key: the time is shifted back one rounded range per
// cycle, which must not cost a million subtractions.
void RepeatFar(benchmark::State &state)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    EnvKeySetType(env, EnvAddKey(env, 0.0, 0.0), ENV_SHAPE_LINEAR);
    EnvKeySetType(env, EnvAddKey(env, 0.7, 1.0), ENV_SHAPE_LINEAR);
    const int32_t repeat = ENV_BEHAVIOR_REPEAT;
    EnvSet(env, ENV_ATTR_POST, &repeat);
    std::vector<double> times(kTimes);
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> cycle(0.0, 0.7);
    for (double &t : times)
        t = 0.7 * 1e6 + cycle(rng);
    Run(state, times, [env](const double *at, double *values) {
        for (int i = 0; i < kTimes; ++i)
            values[i] = EnvEvaluate(env, at[i]);
    });
    EnvDestroy(env);
}

// ---- Loading ----------------------------------------------------------------------------
//
// EnvLoad of an envelope of a million keys, saved in time order (as EnvSave writes them) and
// in reverse order, in the binary and the text form, beside a plain reader that goes through
// the same load state and only collects the numbers.
constexpr int kLoadKeys = 1000000;
constexpr uint32_t kEnvl = VX_ID('E', 'N', 'V', 'L');
constexpr VxBlockDesc kEnvlDesc[] = {{kEnvl, "Envelope"}, {0, nullptr}};
constexpr VxBlockDesc kParts[] = {{VX_ID('K', 'E', 'Y', ' '), "Key"}, {VX_ID('S', 'P', 'A', 'N'), "Span"}, {0, nullptr}};

std::vector<uint8_t> SavedKeys(bool text, bool reverse)
{
    VxWriteStrm *w = MemStrmWriteCreate();
    VxSaveState st;
    VxIFFWriter *iw = nullptr;
    if (text) {
        StrmInitSaveState(&st, w);
    } else {
        iw = IFFWCreate(w);
        IFFWChunkOpen(iw, VX_ID('F', 'O', 'R', 'M'), VX_ID('T', 'E', 'S', 'T'));
        IFFInitSaveState(&st, iw);
    }
    st.beginBlock(&st, &kEnvlDesc[0]);
    st.writeIndex(&st, 0);
    const uint32_t tcb = VX_ID('T', 'C', 'B', ' ');
    for (int j = 0; j < kLoadKeys; ++j) {
        const int i = reverse ? kLoadKeys - 1 - j : j;
        const float key[2] = {static_cast<float>(i * kKeySpacing), static_cast<float>(KeyValue(i))};
        const float tcbParams[3] = {0.25f, 0.0f, -0.5f};
        st.beginBlock(&st, &kParts[0]);
        st.writeFloats(&st, key, 2);
        st.endBlock(&st);
        st.beginBlock(&st, &kParts[1]);
        st.writeIDs(&st, &tcb, 1);
        st.writeFloats(&st, tcbParams, 3);
        st.endBlock(&st);
    }
    st.endBlock(&st);
    if (iw) {
        IFFWChunkClose(iw);
        IFFWDestroy(iw);
    }
    const auto *p = static_cast<const uint8_t *>(w->impl);
    std::vector<uint8_t> bytes(p, p + w->length);
    StrmWriteDestroy(w);
    return bytes;
}

// Opens a load state over `bytes`, runs `read` on it, and reports the CPU time of the read;
// `done` runs after the clock stops.
template <typename Read, typename Done>
void TimeLoad(benchmark::State &state, bool text, bool reverse, Read read, Done done)
{
    static std::vector<uint8_t> saved[2][2];
    std::vector<uint8_t> &bytes = saved[text][reverse];
    if (bytes.empty())
        bytes = SavedKeys(text, reverse);
    for (auto _ : state) {
        VxReadStrm *stream = MemStrmReadCreate(bytes.data(), static_cast<int32_t>(bytes.size()), 0);
        VxIFFReader *reader = text ? nullptr : IFFRCreate(stream);
        VxLoadState st;
        if (text)
            StrmInitLoadState(&st, stream);
        else
            IFFInitLoadState(&st, reader);
        const double start = CpuSeconds();
        read(&st);
        state.SetIterationTime(CpuSeconds() - start);
        done();
        IFFRDestroy(reader);
        StrmReadDestroy(stream);
    }
}

void LoadEnvelope(benchmark::State &state, bool text, bool reverse)
{
    VxEnvelope *env = nullptr;
    TimeLoad(
        state, text, reverse,
        [&state, &env](VxLoadState *st) {
            env = EnvCreate(nullptr, 0, 0, nullptr);
            if (!EnvLoad(env, st) || EnvGet(env, ENV_ATTR_KEY_COUNT) != kLoadKeys)
                state.SkipWithError("load failed");
        },
        [&env] { EnvDestroy(env); });
}

void PlainReader(benchmark::State &state, bool text, bool reverse)
{
    TimeLoad(state, text, reverse, [](VxLoadState *st) {
        std::vector<float> numbers;
        numbers.reserve(5 * static_cast<size_t>(kLoadKeys));
        uint32_t index = 0, id = 0;
        st->findBlock(st, kEnvlDesc);
        st->readIndex(st, &index);
        while (const uint32_t part = st->findBlock(st, kParts)) {
            float f[4] = {};
            const int32_t got = part == kParts[0].id ? st->readFloats(st, f, 2) : (st->readIDs(st, &id, 1), st->readFloats(st, f, 4));
            numbers.insert(numbers.end(), f, f + std::max(got, 0));
            st->endBlock(st);
        }
        st->endBlock(st);
        benchmark::DoNotOptimize(numbers.data());
    }, [] {});
}

const bool kRegistered = [] {
    benchmark::RegisterBenchmark("repeat_million_cycles_out:EnvEvaluate", RepeatFar)->UseManualTime();
    for (bool text : {false, true})
        for (bool reverse : {false, true}) {
            const std::string name = std::string("load_1M_keys_") + (reverse ? "reverse_" : "time_order_") + (text ? "text" : "binary");
            benchmark::RegisterBenchmark((name + ":EnvLoad").c_str(), LoadEnvelope, text, reverse)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
            benchmark::RegisterBenchmark((name + ":plain-reader").c_str(), PlainReader, text, reverse)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
        }
    for (bool playback : {true, false}) {
        const std::string mode = playback ? "playback_" : "random_";
        for (const Shape &shape : kShapes) {
            const std::string name = mode + shape.name;
            for (int keys : {4, 16, 64, 1024}) {
                benchmark::RegisterBenchmark((name + ":EnvEvaluate").c_str(), Ours, &shape, playback)
                    ->Arg(keys)->UseManualTime();
                benchmark::RegisterBenchmark((name + ":plain-hermite").c_str(), Plain, playback)
                    ->Arg(keys)->UseManualTime();
            }
        }
    }
    return true;
}();

}  // namespace
