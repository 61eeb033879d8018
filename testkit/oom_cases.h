// Choosing out-of-memory cases: many operations allocate only now and then (when a zone's
// chunks are full), so the sweeps run over the cases that do allocate.
#pragma once

#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <cstdint>

// Runs `c` once on a counting heap and returns the number of allocations its `run` made.
inline int64_t AllocationsMadeBy(const vxtest::OomCase &c)
{
    vxtest::FaultAllocator heap;
    c.setup();
    heap.Disarm();
    c.run();
    const int64_t made = heap.Allocations();
    c.teardown();
    return made;
}
