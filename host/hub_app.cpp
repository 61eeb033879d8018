// hub_app: a small application for the tests of the host's hub coupling. It starts a host on
// the module folder and database folder it is given, connects to the hub, attaches the host
// and then answers one line per command read from standard input:
//   scan FILE    scans one module file: "scan <result> <outcome> <servers>"
//   list         the module servers, sorted: "list class:name ..."
//   count        how many applications hold a "Plugins" asset: "count <n>" (reconnects)
//   dispatch     waits (at most 60 s) for hub events and delivers them: "dispatched <n>"
//   detach       HostDetachHub: "detached"
//   quit         shuts the host down, disconnects: "bye"
// Usage: hub_app HUBDIR MODULEDIR DBDIR MODSCAN DEBUGLOG; its debug output goes to DEBUGLOG.
#include <vxtools3/debug.h>
#include <vxtools3/host.h>
#include <vxtools3/hub.h>
#include <vxtools3/platform.h>

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

namespace {

struct ScanResult {
    int32_t outcome = -1, servers = 0;
};

void Report(void *data, const char *, int32_t outcome, int32_t servers, const char *)
{
    *static_cast<ScanResult *>(data) = {outcome, servers};
}

std::string ModuleServers()
{
    std::vector<std::string> names;
    for (int32_t c = 0; c < HostClassCount(); ++c) {
        const char *cls = HostClassName(c);
        for (int32_t s = 0; s < HostNumServers(cls); ++s)
            if (ServerGetModule(cls, s))
                names.push_back(std::string(cls) + ":" + ServerGetName(cls, s));
    }
    std::sort(names.begin(), names.end());
    std::string line = "list";
    for (const std::string &name : names)
        line += " " + name;
    return line;
}

int32_t Dispatch()
{
    if (HubFileDescriptor() < 0 && HubDispatch() < 0)  // reconnects after a lost hub
        return -1;
    pollfd p{HubFileDescriptor(), POLLIN, 0};
    if (poll(&p, 1, 60000) <= 0)
        return 0;
    return HubDispatch();
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: hub_app HUBDIR MODULEDIR DBDIR MODSCAN DEBUGLOG\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    DBfile(argv[5]), DBenable(1);
    FileSetSystemPath(SYSTEM_PATH_HOST, argv[2]), HostSetDatabase(argv[3]), HostScanSetHelper(argv[4]);
    HostScanSetTimeLimit(20000);
    const int started = HostStartup();
    const int connected = HubConnect(argv[1], 0);
    std::printf("ready %d %d %d\n", started, connected, HostAttachHub());
    for (std::string line; std::getline(std::cin, line);) {
        if (line.rfind("scan ", 0) == 0) {
            const char *path = line.c_str() + 5;
            ScanResult result;
            const int32_t scanned = HostScanModules(&path, 1, Report, &result);
            std::printf("scan %d %d %d\n", scanned, result.outcome, result.servers);
        } else if (line == "list") {
            std::printf("%s\n", ModuleServers().c_str());
        } else if (line == "count") {
            std::printf("count %d\n", HubAssetCount("Plugins"));
        } else if (line == "dispatch") {
            std::printf("dispatched %d\n", Dispatch());
        } else if (line == "detach") {
            HostDetachHub();
            std::printf("detached\n");
        } else if (line == "quit") {
            break;
        } else {
            std::printf("unknown command %s\n", line.c_str());
        }
    }
    HostShutdown();
    HubDisconnect();
    std::printf("bye\n");
    return 0;
}
