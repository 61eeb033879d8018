// Feeds arbitrary bytes to the IFF reader: the form walk with a property handler, a descent
// into every chunk as if it held sub-chunks, and the binary load state. Every failure must
// come back through the checkpoint block or as a result, with nothing leaked.
#include <vxtools3/ckpt.h>
#include <vxtools3/iff.h>
#include <vxtools3/states.h>

#include "testkit/state_walk.h"

#include <cstddef>
#include <cstdint>

namespace {

const uint32_t kStops[] = {VX_ID('B', 'O', 'X', ' '), VX_ID('C', 'O', 'M', 'M'), VX_ID('S', 'S', 'N', 'D'),
                           VX_ID('E', 'N', 'V', 'L'), 0};

void *ReadName(VxIFFReader *r, void *, uint32_t)
{
    char name[16];
    IFFReadString(r, name, sizeof name, 1);
    return nullptr;
}

// Opens sub-chunks as deep as they go, reading strings and longs from the leaves.
void Descend(VxIFFReader *r)
{
    while (IFFRChunkNext(r)) {
        if (r->depth < VX_IFF_LEVELS - 1 && IFFRChunkLength(r) >= 6)
            Descend(r);
        char text[8];
        uint32_t longs[4];
        IFFReadString(r, text, sizeof text, 0);
        IFFReadLongs(r, longs, -4);
        IFFRChunkClose(r);
    }
}

void WalkForm(const uint8_t *data, size_t size)
{
    VxReadStrm *s = MemStrmReadCreate(data, static_cast<int32_t>(size), 0);
    VxIFFReader *r = IFFRCreate(s);
    IFFRSetProp(r, VX_ID('N', 'A', 'M', 'E'), ReadName, nullptr, nullptr);
    if (!CkptBegin()) {
        while (IFFRParse(r, kStops))
            Descend(r);
        CkptEnd();
    }
    CkptLatchCode();
    IFFRDestroy(r);
    StrmReadDestroy(s);
}

const VxBlockDesc kBlocks[] = {{VX_ID('E', 'N', 'V', 'L'), nullptr}, {VX_ID('K', 'E', 'Y', ' '), nullptr},
                               {VX_ID('N', 'A', 'M', 'E'), nullptr}, {VX_ID('B', 'O', 'X', ' '), nullptr},
                               {0, nullptr}};

void WalkLoadState(const uint8_t *data, size_t size)
{
    VxReadStrm *s = MemStrmReadCreate(data, static_cast<int32_t>(size), 0);
    VxIFFReader *r = IFFRCreate(s);
    VxLoadState st;
    IFFInitLoadState(&st, r);
    vxtest::WalkLoadState(&st, kBlocks, 4096, [](VxLoadState *l) {
        char text[8];
        uint32_t index;
        float f[2];
        return l->readIndex(l, &index) == 1 || l->readString(l, text, sizeof text) == 1 || l->readFloats(l, f, 2) > 0;
    });
    IFFRDestroy(r);
    StrmReadDestroy(s);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 20))
        return 0;
    WalkForm(data, size);
    WalkLoadState(data, size);
    return 0;
}
