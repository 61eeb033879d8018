// Feeds arbitrary text to the text load state: every block it knows is entered, every value
// read as each kind in turn. Malformed text must end in a clean failure.
#include <vxtools3/states.h>

#include "testkit/state_walk.h"

#include <cstddef>
#include <cstdint>

namespace {

const VxBlockDesc kBlocks[] = {{VX_ID('P', 'L', 'U', 'G'), "Entry"}, {VX_ID('C', 'L', 'A', 'S'), "Class"},
                               {VX_ID('K', 'E', 'Y', ' '), "Key"},   {VX_ID('S', 'P', 'A', 'N'), nullptr},
                               {VX_ID('E', 'N', 'V', 'L'), "Envelope"}, {VX_ID('a', ' ', ' ', ' '), nullptr},
                               {0, nullptr}};

// Reads one value of the kind chosen by `step`; returns whether one was read.
bool ReadSome(VxLoadState *st, int step)
{
    char text[12];
    uint8_t b;
    int16_t h;
    int32_t l;
    uint32_t id;
    float f;
    switch (step % 7) {
    case 0: return st->readString(st, text, sizeof text) == 1;
    case 1: return st->readBytes(st, &b, 1) == 1;
    case 2: return st->readShorts(st, &h, 1) == 1;
    case 3: return st->readLongs(st, &l, 1) == 1;
    case 4: return st->readIDs(st, &id, 1) == 1;
    case 5: return st->readFloats(st, &f, 1) == 1;
    default: return st->readIndex(st, &id) == 1;
    }
}

}  // namespace

// Walks the whole text reading every value as one kind; returns whether it ended cleanly.
void Walk(const uint8_t *data, size_t size, int kind)
{
    VxReadStrm *s = MemStrmReadCreate(data, static_cast<int32_t>(size), 0);
    VxLoadState st;
    StrmInitLoadState(&st, s);
    vxtest::WalkLoadState(&st, kBlocks, 100000, [kind](VxLoadState *l) { return ReadSome(l, kind); });
    if (st.error && !st.message && st.error != VX_ERR_IO)
        __builtin_trap();  // a text failure always says what was wrong
    StrmReadDestroy(s);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 20))
        return 0;
    for (int kind = 0; kind < 7; ++kind)
        Walk(data, size, kind);
    return 0;
}
