// Finding the helper programs the library starts (the module scanner, the hub daemon). Internal
// to the library.
#pragma once

#include <cstddef>

namespace vx {

// The path of the helper program `name` of libexec/vxtools3: beside the installed library (or
// the program that linked the static one), else in the build tree the library was made in.
// False when none of them is an executable file.
bool FindHelperProgram(const char *name, char *out, size_t size);

}  // namespace vx
