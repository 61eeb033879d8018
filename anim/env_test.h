// Helpers shared by the envelope tests.
#pragma once
#include <vxtools3/envelope.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

namespace envtest {

constexpr double kTick = 1.0 / 3600.0;
inline uint64_t Bits(double v) { return std::bit_cast<uint64_t>(v); }
inline double Uni(std::mt19937 &rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }

inline void SetBehaviours(VxEnvelope *env, int32_t pre, int32_t post)
{
    EnvSet(env, ENV_ATTR_PRE, &pre);
    EnvSet(env, ENV_ATTR_POST, &post);
}

// An envelope destroyed at the end of its scope.
struct Env {
    VxEnvelope *p;
    explicit Env(VxEnvelope *env) : p(env) {}
    explicit Env(int32_t type = 0, const char *name = nullptr, VxEnvGroup *group = nullptr) : p(EnvCreate(group, 0, type, name)) {}
    Env(const Env &) = delete;
    ~Env() { EnvDestroy(p); }
    operator VxEnvelope *() const { return p; }
};

inline VxEnvKey *AddKey(VxEnvelope *env, double t, double value, int32_t shape)
{
    VxEnvKey *k = EnvAddKey(env, t, value);
    EnvKeySetType(env, k, shape);
    return k;
}

// The keys as (tick, value) pairs.
using KeyTicks = std::vector<std::pair<int32_t, double>>;
inline KeyTicks KeyList(const VxEnvelope *env)
{
    KeyTicks out;
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
        out.emplace_back(static_cast<int32_t>(std::lround(EnvKeyTime(k) * 3600.0)), EnvKeyValue(k));
    return out;
}

// Each key as its tick, value, shape and five parameters.
inline std::vector<std::vector<double>> KeyDump(const VxEnvelope *env)
{
    std::vector<std::vector<double>> out;
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k)) {
        out.push_back({std::round(EnvKeyTime(k) * 3600.0), EnvKeyValue(k), static_cast<double>(EnvKeyType(k))});
        for (int32_t i = 0; i < 5; ++i)
            out.back().push_back(EnvKeyGetParam(k, i));
    }
    return out;
}

}  // namespace envtest
