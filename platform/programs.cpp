// Helper programs live in libexec/vxtools3 of the install, found relative to the folder of the
// file holding this code so that a relocated install still finds its own; a build tree keeps
// them in libexec/vxtools3 of its build folder.
#include "platform/programs.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace vx {
namespace {

bool Executable(const char *path) { return path[0] && access(path, X_OK) == 0; }

// The directory of the file holding this code: the shared library, or the program that
// linked the static one.
bool OwnDirectory(char *out, size_t size)
{
    Dl_info info{};
    const char *file = nullptr;
    if (dladdr(reinterpret_cast<void *>(&OwnDirectory), &info) && info.dli_fname && std::strstr(info.dli_fname, ".so"))
        file = info.dli_fname;
    char resolved[PATH_MAX];
    if (!realpath(file ? file : "/proc/self/exe", resolved))
        return false;
    char *slash = std::strrchr(resolved, '/');
    if (!slash)
        return false;
    *slash = '\0';
    return std::snprintf(out, size, "%s", resolved) < static_cast<int>(size);
}

bool Join(char *out, size_t size, const char *dir, const char *name)
{
    return std::snprintf(out, size, "%s/%s", dir, name) < static_cast<int>(size) && Executable(out);
}

}  // namespace

bool FindHelperProgram(const char *name, char *out, size_t size)
{
    char dir[PATH_MAX], libexec[PATH_MAX];
    if (OwnDirectory(dir, sizeof dir)) {
        static const char *const kRelative[] = {VX_LIBEXEC_FROM_LIBDIR, VX_LIBEXEC_FROM_BINDIR};
        for (const char *relative : kRelative)
            if (std::snprintf(libexec, sizeof libexec, "%s/%s", dir, relative) < static_cast<int>(sizeof libexec) &&
                Join(out, size, libexec, name))
                return true;
    }
    return Join(out, size, VX_LIBEXEC_BUILD_DIR, name);
}

}  // namespace vx
