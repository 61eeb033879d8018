// Read access to the undo history for its tests.
#pragma once

#include <cstdint>

namespace vx::undo {

// Records on the list, markers included.
int32_t RecordCount();
// Open block levels, merged ones included.
int32_t OpenDepth();
// Discarded records kept for reuse, and a way to free them now.
int32_t SpareCount();
void DropSpares();
// Checks the history's shape (links, markers paired, positions on the list, counts matching
// the steps on either side of the step position); returns NULL when sound, else what is wrong.
const char *CheckStructure();

}  // namespace vx::undo
