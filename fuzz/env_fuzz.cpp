// Feeds arbitrary bytes to EnvLoad: as an IFF form of "ENVL" chunks when they start with
// "FORM", otherwise as text. Every envelope read is evaluated across its range and saved
// again; modifier blocks go through a loader that allocates. Nothing may leak or crash.
#include <vxtools3/envelope.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

struct Scale {
    VxEnvFilter filter;
    float factor;
};

void Apply(VxEnvFilter *f, VxEnvelope *, double, double *value) { *value *= static_cast<Scale *>(f->data)->factor; }
void Destroy(VxEnvFilter *f) { delete static_cast<Scale *>(f->data); }

VxEnvFilter *Load(const char *, int32_t flags, VxLoadState *state, void *)
{
    auto *s = new Scale{{{}, "Scale", flags, Apply, nullptr, Destroy, nullptr}, 1.0f};
    s->filter.data = s;
    state->readFloats(state, &s->factor, 1);
    return &s->filter;
}

// Evaluates and saves each envelope the state yields.
void Exercise(VxLoadState *state)
{
    VxEnvelope *env = EnvCreate(nullptr, 0, 0, nullptr);
    for (int n = 0; n < 64 && EnvLoad(env, state); ++n) {
        const double first = EnvGet(env, ENV_ATTR_FIRST_TIME), last = EnvGet(env, ENV_ATTR_LAST_TIME);
        const double span = last - first;
        for (int i = -8; i <= 24; ++i)
            EnvEvaluate(env, first + span * i / 8.0);
        EnvSpeed(env, first);
        VxWriteStrm *w = MemStrmWriteCreate();
        VxSaveState save;
        StrmInitSaveState(&save, w);
        EnvSave(env, &save);
        StrmWriteDestroy(w);
    }
    EnvDestroy(env);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 16))
        return 0;
    EnvSetFilterLoader(Load, nullptr);
    VxReadStrm *stream = MemStrmReadCreate(data, static_cast<int32_t>(size), 0);
    VxLoadState state;
    if (size >= 4 && !std::memcmp(data, "FORM", 4)) {
        VxIFFReader *reader = IFFRCreate(stream);
        IFFInitLoadState(&state, reader);
        Exercise(&state);
        IFFRDestroy(reader);
    } else {
        StrmInitLoadState(&state, stream);
        Exercise(&state);
    }
    StrmReadDestroy(stream);
    return 0;
}
