// Scanning module files in the module scanner: each new or changed file is checked by the
// helper program vxmodscan in a process of its own, with a time limit. The scanner loads the
// module as HostAddModule does and sends its server table back over a pipe; the host registers
// those servers as module servers (the module itself is loaded here only when one of them is
// first activated). A module that crashes, hangs, exits or is refused costs one report line
// and a remembered failure; nothing it does reaches the host's own process.
#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/host.h>
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>

#include "host/host_internal.h"
#include "host/scan_reply.h"
#include "platform/programs.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char **environ;

namespace vx::host {
namespace {

constexpr int32_t kDefaultLimitMs = 10000;
constexpr int kReplyFd = 3;  // the scanner writes its reply here
constexpr size_t kReasonMax = 2048;

int32_t g_limitMs = kDefaultLimitMs;
char g_helper[PATH_MAX];  // set by HostScanSetHelper; "" searches
char g_found[PATH_MAX];   // the helper found by the search

ModuleCheck *AsCheck(VxNode *node) { return reinterpret_cast<ModuleCheck *>(node); }

bool SameStamp(const FileStamp &a, const FileStamp &b)
{
    return a.size == b.size && a.mtimeSeconds == b.mtimeSeconds && a.mtimeNanoseconds == b.mtimeNanoseconds;
}

// ---- Finding the scanner ----------------------------------------------------------------

// The scanner found once by FindHelperProgram, looked for again while it is missing.
const char *SearchHelper()
{
    if (g_found[0] && access(g_found, X_OK) == 0)
        return g_found;
    if (vx::FindHelperProgram("vxmodscan", g_found, sizeof g_found))
        return g_found;
    g_found[0] = '\0';
    return nullptr;
}

const char *HelperPath() { return g_helper[0] ? g_helper : SearchHelper(); }

// ---- Running the scanner ----------------------------------------------------------------

enum class RunEnd : uint8_t { NotStarted, Exited, Signalled, TimedOut, TooLong, OutOfMemory };

struct ScannerRun {
    RunEnd end;
    int code;  // exit status, signal number or errno
    char *reply;
    size_t size;
    size_t capacity;
};

int64_t NowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Appends what the pipe holds; false when the reply outgrows its limit or memory ran out
// (`end` says which).
bool ReadSome(int fd, ScannerRun *run, bool *ended)
{
    if (run->capacity - run->size < 4096) {
        const size_t grown = run->capacity ? run->capacity * 2 : 16384;
        run->end = RunEnd::TooLong;
        if (grown > kReplyMaxBytes + 16384)
            return false;
        char *moved = static_cast<char *>(run->reply ? StdTryRealloc(run->reply, run->capacity, grown)
                                                     : StdTryAlloc(grown));
        run->end = moved ? RunEnd::Exited : RunEnd::OutOfMemory;
        if (!moved)
            return false;
        run->reply = moved;
        run->capacity = grown;
    }
    const ssize_t got = read(fd, run->reply + run->size, run->capacity - run->size);
    if (got > 0)
        run->size += static_cast<size_t>(got);
    else if (got == 0 || (errno != EINTR && errno != EAGAIN))
        *ended = true;
    return run->size <= kReplyMaxBytes;
}

// True once the scanner has exited. An application that ignores SIGCHLD has its children
// reaped by the system: then the end of the pipe is all there is to go by.
bool Exited(pid_t pid)
{
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return errno == ECHILD;
    return info.si_pid == pid;
}

// Waits until the scanner exits or the deadline passes; true when it exited (not reaped).
// A process descriptor wakes the wait at the exit; without one the wait polls each millisecond.
bool WaitExit(pid_t pid, int64_t deadline)
{
    const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    bool exited = false;
    while (!(exited = Exited(pid)) && NowMs() < deadline) {
        pollfd ready{process, POLLIN, 0};
        poll(process >= 0 ? &ready : nullptr, process >= 0 ? 1 : 0,
             process >= 0 ? static_cast<int>(deadline - NowMs()) : 1);
    }
    if (process >= 0)
        close(process);
    return exited;
}

// Kills whatever the scanner's process group still holds (a module may have started
// processes of its own), then reaps the scanner.
void Reap(pid_t pid, ScannerRun *run)
{
    kill(-pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (run->end != RunEnd::Exited)
        return;
    if (WIFSIGNALED(status))
        *run = {RunEnd::Signalled, WTERMSIG(status), run->reply, run->size, run->capacity};
    else
        *run = {RunEnd::Exited, WEXITSTATUS(status), run->reply, run->size, run->capacity};
}

// A pipe whose ends are above the scanner's reply descriptor, so that dup2 onto it always
// makes a fresh descriptor without close-on-exec.
bool MakePipe(int fds[2])
{
    int raw[2];
    if (pipe2(raw, O_CLOEXEC) != 0)
        return false;
    for (int i = 0; i < 2; ++i) {
        fds[i] = fcntl(raw[i], F_DUPFD_CLOEXEC, kReplyFd + 1);
        close(raw[i]);
    }
    if (fds[0] >= 0 && fds[1] >= 0)
        return true;
    for (int i = 0; i < 2; ++i)
        if (fds[i] >= 0)
            close(fds[i]);
    return false;
}

bool Spawn(const char *helper, const char *module, int replyFd, pid_t *pid)
{
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, replyFd, kReplyFd);
    for (int fd = 0; fd < 3; ++fd)
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd ? O_WRONLY : O_RDONLY, 0);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigfillset(&defaults);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const char *hostDir = g_host.hostDir ? g_host.hostDir : "";
    char *const argv[] = {const_cast<char *>(helper), const_cast<char *>(module), const_cast<char *>(hostDir), nullptr};
    const int error = posix_spawn(pid, helper, &actions, &attributes, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    errno = error;
    return error == 0;
}

// Runs the scanner on one module file and collects its reply within the time limit.
void RunScanner(const char *helper, const char *module, ScannerRun *run)
{
    *run = ScannerRun{};
    int fds[2];
    pid_t pid = 0;
    if (!MakePipe(fds)) {
        run->code = errno;
        return;
    }
    const bool started = Spawn(helper, module, fds[1], &pid);
    run->code = errno;
    close(fds[1]);
    if (!started) {
        close(fds[0]);
        return;
    }
    const int64_t deadline = NowMs() + g_limitMs;
    run->end = RunEnd::Exited;
    bool ended = false;
    while (!ended) {
        const int64_t left = deadline - NowMs();
        if (left <= 0) {
            run->end = RunEnd::TimedOut;
            break;
        }
        pollfd ready{fds[0], POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(left)) <= 0)
            continue;  // interrupted, or the time is up: the clock decides
        if (!ReadSome(fds[0], run, &ended))
            break;
    }
    close(fds[0]);
    if (run->end == RunEnd::Exited && !WaitExit(pid, deadline))
        run->end = RunEnd::TimedOut;
    Reap(pid, run);
}

// ---- Reports ----------------------------------------------------------------------------

const char *SignalName(int signal, char *buffer, size_t size)
{
    const char *abbreviation = sigabbrev_np(signal);
    if (abbreviation)
        std::snprintf(buffer, size, "SIG%s", abbreviation);
    else
        std::snprintf(buffer, size, "signal %d", signal);
    return buffer;
}

// "refused: " and the scanner's messages, joined by "; ". The host's own debug output gets
// the messages as an in-process load would have printed them.
void RefusalReason(const ScannerRun &run, char *reason)
{
    size_t used = static_cast<size_t>(std::snprintf(reason, kReasonMax, "refused:"));
    ReplyCursor cursor;
    ReplyItem item;
    ReplyOpen(&cursor, run.reply, run.size);
    const char *separator = " ";
    while (ReplyNext(&cursor, &item) == 1) {
        if (item.kind != 'M')
            continue;
        const int length = static_cast<int>(item.first.length);
        DBprintf("%.*s\n", length, item.first.bytes);
        if (used < kReasonMax)
            used += static_cast<size_t>(
                std::snprintf(reason + used, kReasonMax - used, "%s%.*s", separator, length, item.first.bytes));
        separator = "; ";
    }
    if (std::strcmp(reason, "refused:") == 0)
        std::snprintf(reason, kReasonMax, "refused: no servers");
}

struct Outcome {
    int32_t code;     // HOST_SCAN_...
    int32_t servers;
    bool remember;    // a failure of the module itself, kept with its stamp
};

// What the scanner's run says about the module (HOST_SCAN_REGISTERED: a whole reply to register).
Outcome Judge(const ScannerRun &run, const char *helper, char *reason)
{
    char name[32];
    switch (run.end) {
    case RunEnd::NotStarted:
        std::snprintf(reason, kReasonMax, "the module scanner %.1000s could not start: %s", helper, std::strerror(run.code));
        return {HOST_SCAN_ERROR, 0, false};
    case RunEnd::TimedOut:
        if (g_limitMs % 1000 == 0)
            std::snprintf(reason, kReasonMax, "timed out after %d s", static_cast<int>(g_limitMs / 1000));
        else
            std::snprintf(reason, kReasonMax, "timed out after %d ms", static_cast<int>(g_limitMs));
        return {HOST_SCAN_TIMED_OUT, 0, true};
    case RunEnd::Signalled:
        std::snprintf(reason, kReasonMax, "crashed: %s", SignalName(run.code, name, sizeof name));
        return {HOST_SCAN_CRASHED, 0, true};
    case RunEnd::TooLong:
        std::snprintf(reason, kReasonMax, "refused: the scanner's reply is too long");
        return {HOST_SCAN_REFUSED, 0, true};
    case RunEnd::OutOfMemory:
        return {HOST_SCAN_ERROR, 0, false};  // raised by the caller
    case RunEnd::Exited:
        break;
    }
    ReplySummary summary;
    const ReplyState state = CheckReply(run.reply, run.size, &summary);
    if (state == ReplyState::Damaged) {
        std::snprintf(reason, kReasonMax, "refused: the scanner's reply is damaged");
        return {HOST_SCAN_REFUSED, 0, true};
    }
    if (state == ReplyState::Incomplete || run.code != 0) {
        std::snprintf(reason, kReasonMax, "exited with status %d before answering", run.code);
        return {HOST_SCAN_EXITED, 0, true};
    }
    if (summary.result == -1) {
        RefusalReason(run, reason);
        return {HOST_SCAN_REFUSED, 0, true};
    }
    if (summary.result < 0) {
        std::snprintf(reason, kReasonMax, "the module scanner ran out of memory");
        return {HOST_SCAN_ERROR, 0, false};
    }
    reason[0] = '\0';
    return {HOST_SCAN_REGISTERED, 0, true};
}

int32_t CountModuleServers(const char *path)
{
    int32_t count = 0;
    for (int32_t c = 0; c < g_host.classes.count; ++c) {
        const auto *cls = static_cast<HostClass *>(g_host.classes.items[c]);
        for (int32_t s = 0; s < cls->servers.count; ++s) {
            const auto *server = static_cast<HostServer *>(cls->servers.items[s]);
            count += server->module && !std::strcmp(server->module->path, path);
        }
    }
    return count;
}

HostModule *FindModule(const char *path)
{
    for (VxNode *node = g_host.modules.head; node->succ; node = node->succ)
        if (!std::strcmp(reinterpret_cast<HostModule *>(node)->path, path))
            return reinterpret_cast<HostModule *>(node);
    return nullptr;
}

// Decides without the scanner when it can: a file that is not there or not a regular file,
// one checked before and unchanged since, a module in use. HOST_SCAN_... or -1 to run it.
int32_t Precheck(const char *full, const char *key, FileStamp *stamp, int32_t *servers, char *reason)
{
    struct stat info;
    if (stat(full, &info) != 0) {
        std::snprintf(reason, kReasonMax, "cannot be read: %s", std::strerror(errno));
        return HOST_SCAN_ERROR;
    }
    if (!S_ISREG(info.st_mode)) {
        std::snprintf(reason, kReasonMax, "refused: not a regular file");
        return HOST_SCAN_REFUSED;
    }
    *stamp = {static_cast<int64_t>(info.st_size), static_cast<int64_t>(info.st_mtim.tv_sec),
              static_cast<int32_t>(info.st_mtim.tv_nsec)};
    const ModuleCheck *check = FindCheck(key);
    if (check && SameStamp(check->stamp, *stamp)) {
        if (check->failure) {
            std::snprintf(reason, kReasonMax, "%s", check->failure);
            return HOST_SCAN_SKIPPED;
        }
        if ((*servers = CountModuleServers(key)) > 0)
            return HOST_SCAN_UNCHANGED;
    }
    HostModule *module = FindModule(key);
    if (module && (module->useCount > 0 || module->loading)) {
        std::snprintf(reason, kReasonMax, "module in use");
        return HOST_SCAN_ERROR;
    }
    if (module)
        UnloadModule(module);
    return -1;
}

void FreeCheckArm(uintptr_t check, uintptr_t) { FreeCheck(reinterpret_cast<ModuleCheck *>(check)); }

// Runs the scanner unless the file can be judged without it.
Outcome Examine(const char *full, const char *key, FileStamp *stamp, ScannerRun *run, char *reason)
{
    int32_t servers = 0;
    const int32_t code = Precheck(full, key, stamp, &servers, reason);
    if (code >= 0)
        return {code, servers, false};
    const char *helper = HelperPath();
    if (!helper) {
        std::snprintf(reason, kReasonMax, "the module scanner vxmodscan was not found");
        return {HOST_SCAN_ERROR, 0, false};
    }
    RunScanner(helper, full, run);
    return Judge(*run, helper, reason);
}

// Scans one file and reports it. Registering its servers and recording the check happen
// together or not at all: false (or a raise to an open block) when memory ran out, with
// nothing of this file kept.
bool ScanFile(const char *path, HostScanReport *report, void *data)
{
    char reason[kReasonMax] = "";
    const char *const key = RelativePath(path);
    CKPT_BEGIN_OR_RETURN(false);
    char *full = ComposeFullPath(key);
    CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(full), 0);
    FileStamp stamp{};
    ScannerRun run{};
    Outcome outcome = Examine(full, key, &stamp, &run, reason);
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(run.reply), run.capacity);
    if (run.end == RunEnd::OutOfMemory)
        CkptRecover(1);
    const bool registering = outcome.code == HOST_SCAN_REGISTERED;
    ModuleCheck *check = outcome.remember ? NewCheck(key, stamp, registering ? nullptr : reason) : nullptr;
    if (check) {
        CkptArm(FreeCheckArm, reinterpret_cast<uintptr_t>(check), 0);
        if (registering)
            outcome.servers = RegisterReply(run.reply, run.size, key);
    }
    CkptEnd();
    if (check) {
        PutCheck(check);
        DatabaseModifiable();  // the checks changed: the database is to be written
    }
    FreeHeap(run.reply, run.capacity);
    StringFree(full);
    if (report)
        report(data, path, outcome.code, outcome.servers, reason[0] ? reason : nullptr);
    return true;
}

// A scan changes module servers: it needs a running host whose database may change (which,
// through the hub, takes the database for this application).
bool Scannable()
{
    return HostRunning() && g_host.database != DatabaseState::Catalogue && (!g_host.hubAsset || HubAllowsChange());
}

bool ModuleName(const char *name)
{
    const size_t length = std::strlen(name);
    const auto endsWith = [&](const char *suffix) {
        const size_t n = std::strlen(suffix);
        return length > n && !std::strcmp(name + length - n, suffix);
    };
    return name[0] != '.' && (endsWith(".so") || endsWith(".p"));
}

int CompareNames(const void *a, const void *b)
{
    return std::strcmp(*static_cast<char *const *>(a), *static_cast<char *const *>(b));
}

struct NameList {
    char **names;
    size_t count;
    size_t capacity;
};

void FreeNames(NameList *list)
{
    for (size_t i = 0; i < list->count; ++i)
        FreeHeap(list->names[i], std::strlen(list->names[i]) + 1);
    FreeHeap(list->names, list->capacity * sizeof(char *));
}

void FreeNamesArm(uintptr_t list, uintptr_t) { FreeNames(reinterpret_cast<NameList *>(list)); }

// The module file names of a directory, sorted; false when memory ran out.
bool ReadNames(DIR *dir, NameList *list)
{
    while (const dirent *entry = readdir(dir)) {
        if (!ModuleName(entry->d_name))
            continue;
        if (list->count == list->capacity) {
            const size_t grown = list->capacity ? list->capacity * 2 : 32;
            auto **moved = static_cast<char **>(
                StdTryRealloc(list->names, list->capacity * sizeof(char *), grown * sizeof(char *)));
            if (!moved)
                return false;
            list->names = moved;
            list->capacity = grown;
        }
        const size_t size = std::strlen(entry->d_name) + 1;
        char *copy = static_cast<char *>(StdTryAlloc(size));
        if (!copy)
            return false;
        std::memcpy(copy, entry->d_name, size);
        list->names[list->count++] = copy;
    }
    if (list->count)
        std::qsort(list->names, list->count, sizeof(char *), CompareNames);
    return true;
}

}  // namespace

ModuleCheck *FindCheck(const char *path)
{
    if (!g_host.checks.head)
        return nullptr;
    for (VxNode *node = g_host.checks.head; node->succ; node = node->succ)
        if (!std::strcmp(AsCheck(node)->path, path))
            return AsCheck(node);
    return nullptr;
}

void FreeCheck(ModuleCheck *check)
{
    StringFree(check->path);
    StringFree(check->failure);
    FreeHeap(check, sizeof(ModuleCheck));
}

ModuleCheck *NewCheck(const char *givenPath, const FileStamp &stamp, const char *failure)
{
    const char *const path = RelativePath(givenPath);
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *check = static_cast<ModuleCheck *>(StdAlloc(sizeof(ModuleCheck)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(check), sizeof(ModuleCheck));
    check->path = StringCopy(path);
    CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(check->path), 0);
    check->failure = StringCopy(failure);
    CkptEnd();
    check->stamp = stamp;
    return check;
}

void PutCheck(ModuleCheck *check)
{
    if (ModuleCheck *old = FindCheck(check->path)) {
        Remove(&old->node);
        FreeCheck(old);
    }
    AddHead(&g_host.checks, &check->node);
}

void FreeAllChecks()
{
    if (!g_host.checks.head)
        return;
    while (VxNode *node = RemHead(&g_host.checks))
        FreeCheck(AsCheck(node));
}

int32_t RegisterReply(const void *reply, size_t size, const char *path)
{
    Txn txn;
    TxnBegin(&txn);
    CKPT_BEGIN_OR_RETURN(-3);
    TxnArmRollback(&txn);
    HostModule *module = FindOrCreateModule(&txn, path);
    ReplyCursor cursor;
    ReplyItem item;
    ReplyOpen(&cursor, reply, size);
    HostServer *server = nullptr;
    char className[kReplyClassMax + 1], name[kReplyNameMax + 1], tag[kReplyTagMax + 1];
    const auto copy = [](char *out, const ReplyText &text) {
        std::memcpy(out, text.bytes, text.length);
        out[text.length] = '\0';
    };
    while (ReplyNext(&cursor, &item) == 1) {
        if (item.kind == 'S') {
            copy(className, item.first);
            copy(name, item.second);
            server = TxnStageServer(&txn, className, name, module, nullptr);
        } else if (item.kind == 'T' && server) {
            copy(tag, item.first);
            TxnStageTag(server, tag, item.word);
        }
    }
    CkptEnd();
    HostServer *registered = TxnCommit(&txn);
    int32_t count = 0;
    for (HostServer *s = registered; s; s = s->txnNext)
        ++count;
    TxnAnnounce(registered, nullptr);
    return count;
}

}  // namespace vx::host

using namespace vx::host;

extern "C" {

VX_API int32_t HostScanModules(const char *const *paths, int32_t count, HostScanReport *report, void *data)
{
    if (!Scannable() || (count > 0 && !paths))
        return -1;
    for (int32_t i = 0; i < count; ++i)
        if (paths[i] && !ScanFile(paths[i], report, data))
            return -3;
    return count > 0 ? count : 0;
}

VX_API int32_t HostScanDirectory(const char *dir, HostScanReport *report, void *data)
{
    if (!Scannable() || !dir)
        return -1;
    DIR *handle = opendir(dir);
    if (!handle)
        return -2;
    NameList list{};
    const bool listed = ReadNames(handle, &list);
    closedir(handle);
    if (!listed) {
        FreeNames(&list);
        return -3;
    }
    CKPT_BEGIN_OR_RETURN(-3);
    CkptArm(FreeNamesArm, reinterpret_cast<uintptr_t>(&list), 0);
    char path[PATH_MAX];
    int32_t scanned = 0;
    for (size_t i = 0; i < list.count; ++i) {
        if (std::snprintf(path, sizeof path, "%s/%s", dir, list.names[i]) >= static_cast<int>(sizeof path))
            continue;
        ScanFile(path, report, data);  // a failure unwinds to the block above
        ++scanned;
    }
    CkptEnd();
    FreeNames(&list);
    return scanned;
}

VX_API void HostScanSetTimeLimit(int32_t milliseconds) { g_limitMs = milliseconds > 0 ? milliseconds : kDefaultLimitMs; }

VX_API int32_t HostScanTimeLimit(void) { return g_limitMs; }

VX_API int HostScanSetHelper(const char *path)
{
    if (path && std::strlen(path) >= sizeof g_helper)
        return 0;
    std::snprintf(g_helper, sizeof g_helper, "%s", path ? path : "");
    return 1;
}

VX_API const char *HostScanHelper(void) { return HelperPath(); }

VX_API int32_t HostFailedCount(void)
{
    int32_t count = 0;
    for (VxNode *node = g_host.checks.head; node && node->succ; node = node->succ)
        count += AsCheck(node)->failure != nullptr;
    return count;
}

VX_API const char *HostFailedModule(int32_t index, const char **reason)
{
    for (VxNode *node = g_host.checks.head; node && node->succ; node = node->succ) {
        const ModuleCheck *check = AsCheck(node);
        if (check->failure && index-- == 0) {
            if (reason)
                *reason = check->failure;
            return check->path;
        }
    }
    return nullptr;
}

}  // extern "C"
