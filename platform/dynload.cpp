// Dynamic modules over dlopen/dlsym/dlclose, and the ELF check the standard plug-in loader
// makes before handing a file to the system loader.
#include <vxtools3/platform.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

namespace {

// dlerror() clears itself when read; keep the last text so DynLoadError can be asked twice.
thread_local char g_lastError[512];

void KeepError()
{
    const char *text = dlerror();
    std::snprintf(g_lastError, sizeof g_lastError, "%s", text ? text : "");
}

}  // namespace

extern "C" {

VX_API int DynLoadCheckMagic(const char *path)
{
    if (!path)
        return -1;
    std::FILE *file = std::fopen(path, "rb");
    if (!file)
        return -1;
    unsigned char magic[4] = {0, 0, 0, 0};
    const size_t got = std::fread(magic, 1, sizeof magic, file);
    std::fclose(file);
    static const unsigned char kElf[4] = {0x7f, 'E', 'L', 'F'};
    return got == sizeof magic && std::memcmp(magic, kElf, sizeof kElf) == 0 ? 1 : 0;
}

VX_API void *DynLoadOpen(const char *path)
{
    g_lastError[0] = '\0';
    void *handle = path ? dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (!handle && path)
        KeepError();
    return handle;
}

VX_API void *DynLoadSymbol(void *handle, const char *name)
{
    g_lastError[0] = '\0';
    if (!handle || !name)
        return nullptr;
    dlerror();
    void *address = dlsym(handle, name);
    if (!address)
        KeepError();
    return address;
}

VX_API void DynLoadClose(void *handle)
{
    if (handle)
        dlclose(handle);
}

VX_API const char *DynLoadError(void) { return g_lastError; }

}  // extern "C"
