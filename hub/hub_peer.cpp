// hub_peer: a small application for the hub's process tests. It connects to the hub of the
// directory in argv[1] and runs the steps that follow, printing one line per step:
//   add KIND FILE     lock STATE     unlock     count KIND     save TEXT (write the file
//   through a temporary name)     event N (dispatch until event N arrives)
//   cycles N TOKEN (N lock-2/unlock cycles, see Cycles)     next (until a line comes
//   on stdin)     wait (until stdin closes)
#include "vxtools3/hub.h"

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

int g_lastEvent = 0;
std::string g_lastFile;

void OnChange(HubAsset *, int32_t event, const char *file, void *)
{
    g_lastEvent = event, g_lastFile = file;
    std::printf("event %d %s\n", event, file);
}

bool Save(HubAsset *asset, const char *text)
{
    const char *temp = HubAssetTempName(asset);
    if (!temp)
        return false;
    std::ofstream(temp) << text;
    return HubAssetNewTemp(asset) == 1;
}

// Dispatches until `event` arrives (at most 60 s).
bool AwaitEvent(int event)
{
    for (int i = 0; i < 600 && g_lastEvent != event; ++i) {
        pollfd p{HubFileDescriptor(), POLLIN, 0};
        if (p.fd < 0 || poll(&p, 1, 100) < 0 || HubDispatch() < 0)
            return false;
    }
    return g_lastEvent == event;
}

long long NowNs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// Lock-2/unlock cycles on the asset, a refused lock retried. While it holds the lock the peer
// owns `token`, a file created exclusively and removed before the unlock: a lock granted twice
// shows as a token that already exists. Prints "rtt <ns>" per grant, then "double <n>".
void Cycles(HubAsset *asset, int count, const char *token)
{
    int doubles = 0;
    for (int done = 0; done < count;) {
        const long long asked = NowNs();
        if (!HubAssetLock(asset, HUB_HELD)) {
            pollfd p{HubFileDescriptor(), POLLIN, 0};
            poll(&p, 1, 1);
            if (HubDispatch() < 0)
                break;
            continue;
        }
        const long long granted = NowNs();
        const int fd = open(token, O_CREAT | O_EXCL | O_WRONLY, 0600);
        doubles += fd < 0;
        if (fd >= 0)
            close(fd), unlink(token);
        HubAssetUnlock(asset);
        std::printf("rtt %lld\n", granted - asked);
        ++done;
    }
    std::printf("double %d\n", doubles);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || !HubConnect(argv[1], 0)) {
        std::printf("no hub\n");
        return 1;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::printf("connected\n");
    HubAsset *asset = nullptr;
    for (int i = 2; i < argc; ++i) {
        const std::string step = argv[i];
        const char *arg = i + 1 < argc ? argv[i + 1] : "";
        if (step == "add" && i + 2 < argc) {
            asset = HubAssetAdd(argv[i + 1], argv[i + 2], OnChange, nullptr);
            std::printf("add %d\n", asset != nullptr), i += 2;
        } else if (step == "lock") {
            std::printf("lock %d\n", HubAssetLock(asset, std::atoi(arg))), ++i;
        } else if (step == "unlock") {
            std::printf("unlock %d\n", HubAssetUnlock(asset));
        } else if (step == "count") {
            std::printf("count %d\n", HubAssetCount(arg)), ++i;
        } else if (step == "save") {
            std::printf("save %d\n", Save(asset, arg)), ++i;
        } else if (step == "event") {
            std::printf("awaited %d\n", AwaitEvent(std::atoi(arg))), ++i;
        } else if (step == "cycles" && i + 2 < argc) {
            Cycles(asset, std::atoi(arg), argv[i + 2]), i += 2;
        } else if (step == "next") {
            char c = 0;
            while (c != '\n' && read(0, &c, 1) > 0) {
            }
        } else if (step == "wait") {
            char c;
            while (read(0, &c, 1) > 0) {
            }
        } else {
            std::printf("unknown step %s\n", step.c_str());
            return 2;
        }
    }
    HubDisconnect();
    std::printf("done\n");
    return 0;
}
