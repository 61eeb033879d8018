// Feeds arbitrary bytes to the hub's record reader the way the daemon reads a connection:
// record after record until one is incomplete or malformed. Every accepted record must stay
// inside the data and write back to exactly the bytes it was read from.
#include "hub/wire.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static uint8_t rewritten[vxhub::kMaxFrame];
    size_t used = 0;
    for (;;) {
        vxhub::Message m;
        const long taken = vxhub::ReadMessage(data + used, size - used, &m);
        if (taken <= 0)
            break;
        if (static_cast<size_t>(taken) > size - used || vxhub::WriteMessage(m, rewritten) != static_cast<size_t>(taken) ||
            std::memcmp(rewritten, data + used, static_cast<size_t>(taken)) != 0)
            std::abort();
        used += static_cast<size_t>(taken);
    }
    return 0;
}
