// `vxtool hub`: start, stop or inspect the asset hub of this user.
#include "vxtool.h"

#include <vxtools3/hub.h>

#include <cstring>
#include <string>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool hub start|stop|status [--dir DIRECTORY]\n"
    "\n"
    "  start   starts the asset hub vxhubd in the background and prints where it listens\n"
    "  stop    asks the hub to tell every application to save (event 8) and to exit\n"
    "  status  lists the hub's connections (process ids) and assets (kind, lock state, file)\n"
    "\n"
    "--dir names the hub's socket directory; the default is $VXHUB_DIR, else\n"
    "$XDG_RUNTIME_DIR/vxtools3, else /tmp/vxhub-<uid>.\n"
    "Exit status: 0 done, 1 no hub answers (or it could not start), 2 bad command line.\n";

int UsageError(const std::string &message) { return ReportUsageError("hub", message); }

int Start(const char *dir)
{
    char line[512];
    if (!HubStartDaemon(dir, line, sizeof line)) {
        std::fprintf(stderr, "vxtool hub: %s\n", line);
        return kFailed;
    }
    std::printf("%s\n", line);
    return kOk;
}

int Stop()
{
    if (!HubStopDaemon()) {
        std::fprintf(stderr, "vxtool hub: the hub did not answer\n");
        return kFailed;
    }
    std::printf("hub stopped\n");
    return kOk;
}

int Status()
{
    static char text[70000];
    if (!HubStatus(text, sizeof text)) {
        std::fprintf(stderr, "vxtool hub: the hub did not answer\n");
        return kFailed;
    }
    std::fputs(text, stdout);
    return kOk;
}

}  // namespace

int HubMain(int argc, char **argv)
{
    if (WantsHelp(argc, argv)) {
        std::fputs(kHelp, stdout);
        return kOk;
    }
    const char *dir = nullptr;
    std::string action;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--dir") && i + 1 < argc)
            dir = argv[++i];
        else if (action.empty() && argv[i][0] != '-')
            action = argv[i];
        else
            return UsageError(std::string("unexpected argument '") + argv[i] + "'");
    }
    if (action == "start")
        return Start(dir);
    if (action != "stop" && action != "status")
        return UsageError(action.empty() ? "missing start, stop or status" : "unknown action '" + action + "'");
    if (!HubConnect(dir, 0)) {
        std::fprintf(stderr, "vxtool hub: no hub answers\n");
        return kFailed;
    }
    const int status = action == "stop" ? Stop() : Status();
    HubDisconnect();
    return status;
}

}  // namespace vxtool
