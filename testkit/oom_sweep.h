// The out-of-memory sweep: runs an operation with allocation k failing, for k = 1, 2, ...
// until it runs with no failure, and checks that every failing run reported failure, leaked
// nothing and left the structure as it was.
#pragma once

#include "testkit/fault_alloc.h"

#include <functional>

namespace vxtest {

struct OomCase {
    std::function<void()> setup;            // builds the starting state (never made to fail)
    std::function<bool()> run;              // the operation; true when it reports success
    std::function<void()> expectUnchanged;  // asserts the state equals the starting state
    std::function<void()> teardown;         // releases the state
};

struct OomReport {
    int failingRuns = 0;  // runs in which an allocation failed
};

// Sweeps `c` in `mode`. With `outerBlock` each run happens inside an open checkpoint block,
// and a failing run must unwind to that block instead of returning. Adds test failures for
// every fault found.
OomReport OomSweep(const OomCase &c, FailMode mode, bool outerBlock = false);

// Sweeps `c` in both modes, with and without an outer block.
void OomSweepAll(const OomCase &c);

// Runs `body` inside a checkpoint block of its own, which it ends when `body` returns. Returns
// true when a failure unwound to the block instead; the latched code is left for the caller.
bool UnwoundFrom(const std::function<void()> &body);

}  // namespace vxtest
