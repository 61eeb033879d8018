// Feeds arbitrary bytes to the host as the module scanner's reply, the way a hostile module
// writing to the scanner's pipe could shape it: the reply is checked, walked item by item as
// the refusal report walks it, and, when the check passes, registered into a running host.
// The catalogue must stay ordered with every string within its limits, and the teardown must
// free all.
#include <vxtools3/host.h>
#include <vxtools3/lists.h>

#include "host/host_internal.h"
#include "host/scan_reply.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

int CompareServers(void *a, void *b)
{
    return std::strcmp(static_cast<vx::host::HostServer *>(a)->name, static_cast<vx::host::HostServer *>(b)->name);
}

void CheckCatalogue()
{
    for (int32_t c = 0; c < vx::host::g_host.classes.count; ++c) {
        auto *cls = static_cast<vx::host::HostClass *>(vx::host::g_host.classes.items[c]);
        if (!OrdValidate(&cls->servers, CompareServers) || std::strlen(cls->name) > vx::host::kReplyClassMax)
            std::abort();
        for (int32_t s = 0; s < cls->servers.count; ++s) {
            const auto *server = static_cast<vx::host::HostServer *>(cls->servers.items[s]);
            if (!server->name[0] || std::strlen(server->name) > vx::host::kReplyNameMax ||
                (server->module && server->activate))
                std::abort();
        }
    }
}

// Walks every item as the refusal report does; a cursor never leaves the data.
void Walk(const uint8_t *data, size_t size)
{
    vx::host::ReplyCursor cursor;
    vx::host::ReplyItem item;
    vx::host::ReplyOpen(&cursor, data, size);
    size_t bytes = 0;
    while (vx::host::ReplyNext(&cursor, &item) == 1) {
        if (cursor.at > size)
            std::abort();
        bytes += item.first.length + item.second.length;
    }
    if (bytes > size)
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > vx::host::kReplyMaxBytes)
        return 0;
    HostSetDatabase("/nonexistent/vxtools3-fuzz/VXEXT3.CFG");
    if (!HostStartup())
        std::abort();
    Walk(data, size);
    vx::host::ReplySummary summary;
    if (vx::host::CheckReply(data, size, &summary) == vx::host::ReplyState::Whole && summary.result >= 0) {
        const int32_t count = vx::host::RegisterReply(data, size, "fuzz.so");
        if (count < 0 || count > summary.servers)
            std::abort();
        CheckCatalogue();
    }
    HostShutdown();
    GlobalListCleanup();
    return 0;
}
