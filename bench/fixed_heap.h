// The same C library heap for every contestant of a benchmark.
//
// The heap adapts its thresholds to what was freed before: once a large block has been freed
// it stops mapping and unmapping blocks of that size, and it gives pages back to the system
// only past a trim threshold that follows. Left alone, a contestant's time depends on which
// cases ran before it (boost::pool's million allocations took 13.5 ms alone and 2.3 ms after
// the malloc case; an image result is faulted in afresh or reused depending on the blocks
// freed before). Fixing both thresholds at their largest values gives every contestant the
// same heap: freed pages stay with the process unless someone asks for a trim, as the
// library's FreeHeap does once more than 4 MB have been freed.
#pragma once

#include <malloc.h>

namespace vxbench {

inline void FixHeapThresholds()
{
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
}

}  // namespace vxbench
