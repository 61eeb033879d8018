// Read access to the global list for its tests.
#pragma once

#include <vxtools3/lists.h>

namespace vx::global {

// The entries in name order; each entry's name is read with EntryName.
const VxOrd *Entries();
const char *EntryName(const void *entry);

}  // namespace vx::global
