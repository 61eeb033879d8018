// Feeds arbitrary text to the plug-in database reader, twice over the same catalogue (the
// second read refreshes and removes stale servers), checks the catalogue's order and writes
// it back out. Malformed text must end in a clean failure and the teardown must free all.
#include <vxtools3/host.h>
#include <vxtools3/lists.h>
#include <vxtools3/platform.h>
#include <vxtools3/streams.h>

#include "host/host_internal.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <unistd.h>
#include <cstdio>

namespace {

int CompareClasses(void *a, void *b)
{
    return std::strcmp(static_cast<vx::host::HostClass *>(a)->name, static_cast<vx::host::HostClass *>(b)->name);
}

int CompareServers(void *a, void *b)
{
    return std::strcmp(static_cast<vx::host::HostServer *>(a)->name, static_cast<vx::host::HostServer *>(b)->name);
}

void CheckCatalogue()
{
    if (!OrdValidate(&vx::host::g_host.classes, CompareClasses))
        std::abort();
    for (int32_t c = 0; c < HostClassCount(); ++c) {
        auto *cls = static_cast<vx::host::HostClass *>(vx::host::g_host.classes.items[c]);
        if (!OrdValidate(&cls->servers, CompareServers))
            std::abort();
        for (int32_t s = 0; s < cls->servers.count; ++s)
            if (!ServerGetUserName(cls->name, s))
                std::abort();
    }
}

void ReadOnce(const uint8_t *data, size_t size)
{
    VxReadStrm *stream = MemStrmReadCreate(data, static_cast<int32_t>(size), 0);
    vx::host::ReadDatabaseStream(stream, "fuzz input");
    StrmReadDestroy(stream);
    CheckCatalogue();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 1 << 20)
        return 0;
    // No database file: the host starts empty and only the input is read.
    HostSetDatabase("/nonexistent/vxtools3-fuzz/VXEXT3.CFG");
    if (!HostStartup())
        std::abort();
    ReadOnce(data, size);
    ReadOnce(data, size / 2);
    // In memory when the system has such a folder: every save is flushed to its disk.
    char path[64];
    std::snprintf(path, sizeof path, "%s/vxtools3-host-fuzz-XXXXXX", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    const int fd = mkstemp(path);
    if (fd >= 0) {
        vx::host::WriteDatabaseFile(path);
        std::remove(path);
        close(fd);
    }
    HostShutdown();
    GlobalListCleanup();
    return 0;
}
