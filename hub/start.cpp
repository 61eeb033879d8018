// Starting vxhubd: found beside the library (or the program that linked it), else in the
// build tree; run in a session of its own so that it outlives the application that started it.
#include "vxtools3/hub.h"

#include "hub/wire.h"
#include "platform/programs.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Reads the daemon's first line (at most 10 s): true when it says it listens.
bool ReadFirstLine(int fd, char *line, size_t size)
{
    size_t used = 0;
    line[0] = '\0';
    for (int waited = 0; used + 1 < size && waited < 100;) {
        pollfd p{fd, POLLIN, 0};
        const int ready = poll(&p, 1, 100);
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0) {
            ++waited;
            continue;
        }
        const ssize_t n = read(fd, line + used, size - 1 - used);
        if (n <= 0)
            break;
        used += static_cast<size_t>(n);
        line[used] = '\0';
        if (char *end = std::strchr(line, '\n')) {
            *end = '\0';
            break;
        }
    }
    return std::strstr(line, "listening on") != nullptr;
}

}  // namespace

int32_t HubStartDaemon(const char *directory, char *line, size_t size)
{
    char own[PATH_MAX], program[PATH_MAX], scratch[512];
    if (!line || size < 2)
        line = scratch, size = sizeof scratch;
    if (!directory && !vxhub::DefaultDirectory(own, sizeof own))
        return std::snprintf(line, size, "the hub directory name is too long"), 0;
    if (!vx::FindHelperProgram("vxhubd", program, sizeof program))
        return std::snprintf(line, size, "the hub daemon vxhubd was not found"), 0;
    const char *dir = directory ? directory : own;
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0)
        return std::snprintf(line, size, "cannot start vxhubd: %s", std::strerror(errno)), 0;
    const pid_t child = fork();
    if (child == 0) {  // a middle process, so that the daemon is nobody's child
        setsid();
        if (fork() == 0) {
            dup2(pipeFds[1], 1), dup2(pipeFds[1], 2);
            execl(program, "vxhubd", "--dir", dir, static_cast<char *>(nullptr));
        }
        _exit(0);
    }
    close(pipeFds[1]);
    if (child > 0)
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
        }
    const bool started = child > 0 && ReadFirstLine(pipeFds[0], line, size);
    close(pipeFds[0]);
    if (child < 0)
        std::snprintf(line, size, "cannot start vxhubd: %s", std::strerror(errno));
    else if (!line[0])
        std::snprintf(line, size, "vxhubd said nothing");
    return started ? 1 : 0;
}
