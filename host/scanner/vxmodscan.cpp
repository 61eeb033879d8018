// vxmodscan: the module scanner. The plug-in host starts it once per module file that a scan
// has to check, so that whatever the module does while it loads (crash, hang, exit) happens
// here and not in the host. It loads the module through the host exactly as HostAddModule
// does (same descriptor checks, same messages) and writes the reply (see scan_reply.h) to
// file descriptor 3: the servers of the module's table with their tags, the lines the checks
// printed and the result.
//
//   usage: vxmodscan MODULE HOSTDIR
//
// Run by hand (no descriptor 3), it says in one line what it found on standard output.
#include <vxtools3/debug.h>
#include <vxtools3/host.h>
#include <vxtools3/platform.h>

#include "host/host_internal.h"
#include "host/scan_reply_writer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int kReplyFd = 3;

std::vector<std::pair<std::string, std::string>> g_servers;

void Record(const char *className, const char *name) { g_servers.emplace_back(className, name); }

std::string ReadAll(int fd)
{
    std::string text;
    char buffer[4096];
    ssize_t got = 0;
    for (off_t at = 0; (got = pread(fd, buffer, sizeof buffer, at)) > 0; at += got)
        text.append(buffer, static_cast<size_t>(got));
    return text;
}

// The lines the checks printed, each cut to what the reader accepts, control bytes replaced.
std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size() && lines.size() < static_cast<size_t>(vx::host::kReplyMaxMessages)) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, std::min(end - start, vx::host::kReplyMessageMax));
        for (char &c : line)
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
                c = '?';
        if (!line.empty())
            lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

std::string Cut(const char *text, size_t max) { return std::string(text).substr(0, max); }

std::string BuildReply(int result, const std::vector<std::string> &messages)
{
    vx::host::ReplyWriter reply;
    for (const auto &[className, name] : g_servers) {
        reply.Server(Cut(className.c_str(), vx::host::kReplyClassMax), Cut(name.c_str(), vx::host::kReplyNameMax));
        const vx::host::HostServer *server = vx::host::FindServer(className.c_str(), name.c_str());
        for (const VxNode *node = server ? server->tags.head : nullptr; node && node->succ; node = node->succ) {
            const auto *tag = reinterpret_cast<const vx::host::ServerTag *>(node);
            reply.Tag(tag->tagWord, Cut(tag->string, vx::host::kReplyTagMax));
        }
    }
    for (const std::string &line : messages)
        reply.Message(line);
    reply.Done(result >= 0 ? static_cast<int32_t>(g_servers.size()) : result);
    return reply.Bytes();
}

bool WriteAll(int fd, const std::string &bytes)
{
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t put = write(fd, bytes.data() + at, bytes.size() - at);
        if (put <= 0)
            return false;
        at += static_cast<size_t>(put);
    }
    return true;
}

}  // namespace

// In sanitizer builds a module that faults must still end this process by its signal, which
// the host reports by name: the sanitizers' own fault handlers stay out of the way, and the
// address sanitizer's leak check does not judge what a module left behind.
extern "C" __attribute__((used)) const char *__asan_default_options()
{
    return "handle_segv=0:handle_sigbus=0:detect_leaks=0";
}
// A module that exits inside its constructor ends the process within the loader, which the
// thread sanitizer reports by changing the exit status: the module's own status is kept.
extern "C" __attribute__((used)) const char *__tsan_default_options()
{
    return "handle_segv=0:handle_sigbus=0:exitcode=0";
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: vxmodscan MODULE HOSTDIR\n");
        return 2;
    }
    const bool piped = fcntl(kReplyFd, F_GETFD) != -1;
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);  // a crashing module leaves no core file behind
    closefrom(piped ? kReplyFd + 1 : kReplyFd);
    // The checks' messages go to a memory file, read back after the load.
    const int debug = memfd_create("vxmodscan-debug", MFD_CLOEXEC);
    const std::string debugPath = "/proc/self/fd/" + std::to_string(debug);
    DBenable(1);
    if (debug < 0 || !DBfile(debugPath.c_str()))
        return 3;
    FileSetSystemPath(SYSTEM_PATH_HOST, argv[2][0] ? argv[2] : nullptr);
    HostSetDatabase("/dev/null");  // an empty catalogue; the scanner never writes one
    if (!HostStartup())
        return 4;
    const int result = HostAddModule(argv[1], Record);
    DBfile(nullptr);
    const std::string reply = BuildReply(result, Lines(ReadAll(debug)));
    if (!piped) {
        std::string messages;
        for (const std::string &line : Lines(ReadAll(debug)))
            messages += (messages.empty() ? ": " : "; ") + line;
        std::printf("vxmodscan: %s: result %d, %zu server%s%s\n", argv[1], result, g_servers.size(),
                    g_servers.size() == 1 ? "" : "s", messages.c_str());
        std::fflush(stdout);
        _exit(0);
    }
    // _exit: the host is not shut down, so no database is written and nothing the module left
    // behind runs at exit.
    _exit(WriteAll(kReplyFd, reply) ? 0 : 5);
}
