// vxhubd: the asset hub, one per user. Applications connect over a Unix-domain socket in a
// directory only the user can enter, add assets (a kind and a file), lock them, and replace
// their files atomically through temporary names; the hub tells the other holders of a file.
// One poll() loop serves every connection; sockets are non-blocking and each connection's
// unsent output is bounded, so a client that never reads is dropped instead of stalling the
// hub. A connection that closes releases its assets and their locks.
#include "hub/wire.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using vxhub::Message;

constexpr size_t kOutputLimit = 4 * vxhub::kMaxFrame;  // unsent bytes before a connection is dropped
constexpr int kShutdownGraceMs = 5000;                 // holders may save after event 8

struct Connection {
    int fd = -1;
    pid_t pid = 0;
    std::string input, output;
    bool closing = false;
};

struct Asset {
    std::string kind, file, temp;
    int owner = -1;  // the connection's fd
    int state = 0;   // 0 free, 1 refuse, 2 held
};

volatile sig_atomic_t g_stop = 0;
void OnStop(int) { g_stop = 1; }

class Hub {
public:
    explicit Hub(int listener) : listener_(listener) {}
    void Run();

private:
    void Accept();
    void ReadFrom(Connection &c);
    void WriteTo(Connection &c);
    void Handle(Connection &c, const Message &m);
    void Send(int fd, Message m, const std::string &a = {}, const std::string &b = {});
    void Reply(Connection &c, const Message &request, int32_t value, const std::string &text = {});
    void Event(const Asset &asset, uint32_t id, int32_t event);
    Asset *Owned(const Connection &c, uint32_t id);
    int Lock(Connection &c, const Message &m);
    int NewTemp(Connection &c, uint32_t id);
    int32_t Count(const std::string &kind) const;
    std::string Status() const;
    void Drop(int fd);
    void BeginShutdown();

    int listener_;
    std::map<int, Connection> connections_;
    std::map<uint32_t, Asset> assets_;
    uint32_t nextAsset_ = 1, nextTemp_ = 1;
    bool stopping_ = false;
};

void Hub::Send(int fd, Message m, const std::string &a, const std::string &b)
{
    auto it = connections_.find(fd);
    if (it == connections_.end() || it->second.closing)
        return;
    m.a = a.data(), m.aLength = static_cast<uint16_t>(std::min<size_t>(a.size(), vxhub::kMaxText));
    m.b = b.data(), m.bLength = static_cast<uint16_t>(std::min<size_t>(b.size(), vxhub::kMaxText));
    static uint8_t frame[vxhub::kMaxFrame];
    const size_t size = vxhub::WriteMessage(m, frame);
    Connection &c = it->second;
    if (c.output.size() + size > kOutputLimit) {
        std::fprintf(stderr, "vxhubd: dropped connection of pid %d: it does not read its messages\n", c.pid);
        c.closing = true;
        return;
    }
    c.output.append(reinterpret_cast<const char *>(frame), size);
}

void Hub::Reply(Connection &c, const Message &request, int32_t value, const std::string &text)
{
    Message m;
    m.type = vxhub::kReply, m.sequence = request.sequence, m.asset = request.asset, m.value = value;
    Send(c.fd, m, text);
}

void Hub::Event(const Asset &asset, uint32_t id, int32_t event)
{
    Message m;
    m.type = vxhub::kEvent, m.asset = id, m.value = event;
    Send(asset.owner, m, asset.file);
}

Asset *Hub::Owned(const Connection &c, uint32_t id)
{
    auto it = assets_.find(id);
    return it != assets_.end() && it->second.owner == c.fd ? &it->second : nullptr;
}

// A lock is granted unless another application's asset for the same file conflicts: any
// lock conflicts with a held one, and holding conflicts with any lock. Holders in the way
// of a refused request get event 7 (save what you have).
int Hub::Lock(Connection &c, const Message &m)
{
    Asset *asset = Owned(c, m.asset);
    if (!asset)
        return -1;
    bool refused = false;
    for (auto &[id, other] : assets_) {
        if (other.owner == c.fd || other.file != asset->file || other.state == 0 || m.value == 0)
            continue;
        if (other.state == 2 || m.value == 2) {
            refused = true;
            if (other.state == 2)
                Event(other, id, 7);
        }
    }
    if (refused)
        return -2;
    asset->state = m.value;
    return 0;
}

// Renames the asset's temporary file over its file (atomic on one file system) and sends
// event 2 to every other application holding an asset for that file.
int Hub::NewTemp(Connection &c, uint32_t id)
{
    Asset *asset = Owned(c, id);
    if (!asset || asset->state != 2 || asset->temp.empty())
        return -1;
    if (std::rename(asset->temp.c_str(), asset->file.c_str()) != 0)
        return -2;
    asset->temp.clear();
    for (auto &[otherId, other] : assets_)
        if (other.owner != c.fd && other.file == asset->file)
            Event(other, otherId, 2);
    return 0;
}

int32_t Hub::Count(const std::string &kind) const
{
    std::vector<int> holders;
    for (const auto &[id, asset] : assets_)
        if (asset.kind == kind && std::find(holders.begin(), holders.end(), asset.owner) == holders.end())
            holders.push_back(asset.owner);
    return static_cast<int32_t>(holders.size());
}

std::string Hub::Status() const
{
    std::string text;
    char line[256];
    for (const auto &[fd, c] : connections_) {
        int held = 0;
        for (const auto &[id, asset] : assets_)
            held += asset.owner == fd;
        std::snprintf(line, sizeof line, "connection pid %d: %d asset(s)\n", c.pid, held);
        text += line;
    }
    for (const auto &[id, asset] : assets_) {
        std::snprintf(line, sizeof line, "asset %u: %s state %d pid %d ", id, asset.kind.c_str(), asset.state,
                      connections_.at(asset.owner).pid);
        text += line + asset.file + "\n";
    }
    return text.size() > vxhub::kMaxText ? text.substr(0, vxhub::kMaxText) : text;
}

std::string TempNameFor(const std::string &file, uint32_t serial)
{
    const size_t slash = file.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : file.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? file : file.substr(slash + 1);
    return dir + "." + base + ".vxhub-" + std::to_string(getpid()) + "-" + std::to_string(serial) + ".tmp";
}

void Hub::Handle(Connection &c, const Message &m)
{
    if (stopping_ && m.type != vxhub::kTempName && m.type != vxhub::kNewTemp && m.type != vxhub::kUnlock &&
        m.type != vxhub::kRemove)
        return Reply(c, m, -3);
    switch (m.type) {
    case vxhub::kAdd: {
        const uint32_t id = nextAsset_++;
        assets_[id] = {std::string(m.a, m.aLength), std::string(m.b, m.bLength), {}, c.fd, 0};
        return Reply(c, m, static_cast<int32_t>(id));
    }
    case vxhub::kRemove:
        return Reply(c, m, Owned(c, m.asset) ? (assets_.erase(m.asset), 0) : -1);
    case vxhub::kLock:
        return Reply(c, m, Lock(c, m));
    case vxhub::kUnlock: {
        Asset *asset = Owned(c, m.asset);
        return Reply(c, m, asset ? (asset->state = 0) : -1);
    }
    case vxhub::kTempName: {
        Asset *asset = Owned(c, m.asset);
        if (!asset)
            return Reply(c, m, -1);
        asset->temp = TempNameFor(asset->file, nextTemp_++);
        return Reply(c, m, 0, asset->temp);
    }
    case vxhub::kNewTemp:
        return Reply(c, m, NewTemp(c, m.asset));
    case vxhub::kCount:
        return Reply(c, m, Count(std::string(m.a, m.aLength)));
    case vxhub::kStatus:
        return Reply(c, m, 0, Status());
    case vxhub::kStop:
        Reply(c, m, 0);
        return BeginShutdown();
    default:  // replies and events are the hub's own records: a client sending one is broken
        c.closing = true;
    }
}

void Hub::Accept()
{
    for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        ucred peer{};
        socklen_t length = sizeof peer;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != getuid()) {
            std::fprintf(stderr, "vxhubd: refused a connection from uid %u\n", static_cast<unsigned>(peer.uid));
            close(fd);
            continue;
        }
        Connection c;
        c.fd = fd, c.pid = peer.pid;
        connections_[fd] = std::move(c);
    }
}

void Hub::ReadFrom(Connection &c)
{
    char chunk[65536];
    for (;;) {
        const ssize_t n = read(c.fd, chunk, sizeof chunk);
        if (n > 0) {
            c.input.append(chunk, static_cast<size_t>(n));
            continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR))
            c.closing = true;
        if (n == 0 || errno != EINTR)
            break;
    }
    size_t used = 0;
    while (!c.closing) {
        Message m;
        const long taken = vxhub::ReadMessage(reinterpret_cast<const uint8_t *>(c.input.data()) + used,
                                              c.input.size() - used, &m);
        if (taken < 0) {
            std::fprintf(stderr, "vxhubd: closed connection of pid %d: malformed message\n", c.pid);
            c.closing = true;
        }
        if (taken <= 0)
            break;
        Handle(c, m);
        used += static_cast<size_t>(taken);
    }
    c.input.erase(0, used);
}

void Hub::WriteTo(Connection &c)
{
    while (!c.output.empty()) {
        const ssize_t n = send(c.fd, c.output.data(), c.output.size(), MSG_NOSIGNAL);
        if (n > 0) {
            c.output.erase(0, static_cast<size_t>(n));
        } else {
            if (n < 0 && errno != EAGAIN && errno != EINTR)
                c.closing = true;
            if (n == 0 || errno != EINTR)
                return;
        }
    }
}

void Hub::Drop(int fd)
{
    for (auto it = assets_.begin(); it != assets_.end();)
        it = it->second.owner == fd ? assets_.erase(it) : std::next(it);
    close(fd);
    connections_.erase(fd);
}

void Hub::BeginShutdown()
{
    if (stopping_)
        return;
    stopping_ = true;
    for (const auto &[id, asset] : assets_)
        Event(asset, id, 8);
}

long long NowMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

void Hub::Run()
{
    long long deadline = 0;
    for (;;) {
        if (g_stop)
            BeginShutdown();
        if (stopping_ && !deadline)
            deadline = NowMs() + kShutdownGraceMs;
        if (stopping_ && (connections_.empty() || NowMs() >= deadline))
            break;
        std::vector<pollfd> fds;
        if (!stopping_)
            fds.push_back({listener_, POLLIN, 0});
        for (auto &[fd, c] : connections_)
            fds.push_back({fd, static_cast<short>(POLLIN | (c.output.empty() ? 0 : POLLOUT)), 0});
        if (poll(fds.data(), fds.size(), stopping_ ? 50 : 500) < 0 && errno != EINTR)
            break;
        for (const pollfd &p : fds) {
            if (p.fd == listener_) {
                if (p.revents & POLLIN)
                    Accept();
                continue;
            }
            auto it = connections_.find(p.fd);
            if (it == connections_.end())
                continue;
            if (p.revents & (POLLIN | POLLHUP | POLLERR))
                ReadFrom(it->second);
            WriteTo(it->second);
        }
        std::vector<int> closing;
        for (auto &[fd, c] : connections_)
            if (c.closing)
                closing.push_back(fd);
        for (int fd : closing)
            Drop(fd);
    }
    for (auto &[fd, c] : connections_)
        WriteTo(c);
}

// The socket directory must be the user's own and closed to everyone else.
bool PrepareDirectory(const char *dir)
{
    if (mkdir(dir, 0700) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "vxhubd: cannot create %s: %s\n", dir, std::strerror(errno));
        return false;
    }
    struct stat info;
    if (lstat(dir, &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid() || (info.st_mode & 077)) {
        std::fprintf(stderr, "vxhubd: %s is not a directory of this user closed to others (mode 0700)\n", dir);
        return false;
    }
    return true;
}

int Listen(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::min(std::strlen(path) + 1, sizeof address.sun_path - 1));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
        std::fprintf(stderr, "vxhubd: a hub already listens on %s\n", path);
        close(fd);
        return -1;
    }
    unlink(path);  // left by a hub that died
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(fd, 128) != 0) {
        std::fprintf(stderr, "vxhubd: cannot listen on %s: %s\n", path, std::strerror(errno));
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char **argv)
{
    char dir[4096], path[4096];
    if (argc == 3 && !std::strcmp(argv[1], "--dir"))
        std::snprintf(dir, sizeof dir, "%s", argv[2]);
    else if (argc != 1 || !vxhub::DefaultDirectory(dir, sizeof dir)) {
        std::fprintf(stderr, "usage: vxhubd [--dir DIRECTORY]\n");
        return 2;
    }
    if (!vxhub::SocketPath(dir, path, sizeof path)) {
        std::fprintf(stderr, "vxhubd: the socket path under %s is too long\n", dir);
        return 1;
    }
    if (!PrepareDirectory(dir))
        return 1;
    const int listener = Listen(path);
    if (listener < 0)
        return 1;
    signal(SIGPIPE, SIG_IGN);
    struct sigaction stop{};
    stop.sa_handler = OnStop;
    sigaction(SIGTERM, &stop, nullptr), sigaction(SIGINT, &stop, nullptr);
    std::printf("vxhubd: listening on %s\n", path);
    std::fflush(stdout);
    Hub(listener).Run();
    close(listener);
    unlink(path);
    std::printf("vxhubd: stopped\n");
    return 0;
}
