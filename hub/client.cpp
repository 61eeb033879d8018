// The hub client: one connection per process, requests answered synchronously with a time
// limit, events kept in the input buffer until HubDispatch hands them to the change functions.
#include "vxtools3/hub.h"

#include "hub/wire.h"
#include "vxtools3/ckpt.h"
#include "vxtools3/debug.h"
#include "vxtools3/memory.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

struct HubAsset {
    HubAsset *next;
    char *kind, *file, *temp;
    HubChangeFunc *change;
    void *data;
    uint32_t id;  // the hub's number for it; 0 while the current hub does not know it
    int32_t state;
};

namespace {

using vxhub::Message;

constexpr size_t kInputSize = 2 * vxhub::kMaxFrame;
constexpr int kReplyTimeoutMs = 5000;

struct Client {
    int fd = -1;
    bool configured = false;
    char directory[PATH_MAX] = {};
    uint8_t *input = nullptr;  // kInputSize bytes while configured
    size_t inputUsed = 0;
    uint32_t sequence = 0;
    HubAsset *assets = nullptr;
    bool dispatching = false;
};

Client g_client;

long long NowMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

void Lost()
{
    if (g_client.fd >= 0)
        close(g_client.fd);
    g_client.fd = -1, g_client.inputUsed = 0;
    for (HubAsset *a = g_client.assets; a; a = a->next)
        a->id = 0, a->state = 0;
}

int OpenSocket(const char *directory)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!vxhub::SocketPath(directory, address.sun_path, sizeof address.sun_path))
        return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    // A Unix-domain connect completes or fails at once; the socket turns non-blocking after.
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool SendAll(const uint8_t *data, size_t size, long long deadline)
{
    while (size > 0) {
        const ssize_t n = send(g_client.fd, data, size, MSG_NOSIGNAL);
        if (n > 0) {
            data += n, size -= static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        pollfd p{g_client.fd, POLLOUT, 0};
        const long long left = deadline - NowMs();
        if ((n < 0 && errno != EAGAIN) || left <= 0 || poll(&p, 1, static_cast<int>(left)) < 0)
            return false;
    }
    return true;
}

// Reads what the socket has: false when the hub closed it, failed, or filled the buffer.
bool ReadAvailable()
{
    for (;;) {
        if (g_client.inputUsed == kInputSize)
            return false;
        const ssize_t n = read(g_client.fd, g_client.input + g_client.inputUsed, kInputSize - g_client.inputUsed);
        if (n > 0)
            g_client.inputUsed += static_cast<size_t>(n);
        else if (n < 0 && errno == EINTR)
            continue;
        else
            return n < 0 && errno == EAGAIN;
    }
}

void Consume(size_t offset, size_t length)
{
    std::memmove(g_client.input + offset, g_client.input + offset + length, g_client.inputUsed - offset - length);
    g_client.inputUsed -= length;
}

// Finds the reply numbered `sequence` among the buffered records and takes it out, copying its
// text to `text`. 1 found, 0 not yet, -1 the stream is broken.
int TakeReply(uint32_t sequence, int32_t *value, char *text, size_t size)
{
    size_t offset = 0;
    for (;;) {
        Message m;
        const long taken = vxhub::ReadMessage(g_client.input + offset, g_client.inputUsed - offset, &m);
        if (taken <= 0)
            return taken < 0 ? -1 : 0;
        if (m.type == vxhub::kReply && m.sequence == sequence) {
            *value = m.value;
            if (text && size) {
                const size_t n = m.aLength < size ? m.aLength : size - 1;
                std::memcpy(text, m.a, n), text[n] = '\0';
            }
            Consume(offset, static_cast<size_t>(taken));
            return 1;
        }
        if (m.type != vxhub::kEvent)
            return -1;
        offset += static_cast<size_t>(taken);
    }
}

bool Reconnect();

// Sends a request and waits (at most kReplyTimeoutMs) for its reply. Returns false when the
// hub is gone; the connection is then closed so that the next call reconnects.
bool Request(Message m, int32_t *value, char *text = nullptr, size_t size = 0)
{
    if (g_client.fd < 0 && !Reconnect())
        return false;
    m.sequence = ++g_client.sequence;
    static uint8_t frame[vxhub::kMaxFrame];
    const size_t length = vxhub::WriteMessage(m, frame);
    const long long deadline = NowMs() + kReplyTimeoutMs;
    if (!SendAll(frame, length, deadline))
        return Lost(), false;
    for (;;) {
        const int found = TakeReply(m.sequence, value, text, size);
        if (found)
            return found > 0 || (Lost(), false);
        pollfd p{g_client.fd, POLLIN, 0};
        const long long left = deadline - NowMs();
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) < 0 || !ReadAvailable()) {
            if (left <= 0)
                DBprintf("hub: no reply within %d ms\n", kReplyTimeoutMs);
            return Lost(), false;
        }
    }
}

Message Texts(uint8_t type, const char *a, const char *b = nullptr)
{
    Message m;
    m.type = type;
    m.a = a, m.aLength = static_cast<uint16_t>(a ? std::strlen(a) : 0);
    m.b = b, m.bLength = static_cast<uint16_t>(b ? std::strlen(b) : 0);
    return m;
}

bool AddToHub(HubAsset *asset)
{
    int32_t id = -1;
    if (!Request(Texts(vxhub::kAdd, asset->kind, asset->file), &id) || id <= 0)
        return false;
    asset->id = static_cast<uint32_t>(id), asset->state = 0;
    return true;
}

// Opens a connection to the configured hub and adds the assets again.
bool Reconnect()
{
    if (!g_client.configured || (g_client.fd = OpenSocket(g_client.directory)) < 0)
        return false;
    g_client.inputUsed = 0;
    for (HubAsset *a = g_client.assets; a; a = a->next)
        if (!AddToHub(a))
            return false;
    return true;
}

bool AssetRequest(uint8_t type, HubAsset *asset, int32_t value, int32_t *result)
{
    if (!asset || (!asset->id && (g_client.fd >= 0 || !Reconnect())))
        return false;
    Message m;
    m.type = type, m.asset = asset->id, m.value = value;
    return Request(m, result);
}

bool TextFits(const char *text) { return text && *text && std::strlen(text) <= vxhub::kMaxText; }

void FreeAsset(HubAsset *asset)
{
    StringFree(asset->kind), StringFree(asset->file), StringFree(asset->temp);
    FreeHeap(asset, sizeof *asset);
}

char *TryCopy(const char *text)
{
    const size_t size = std::strlen(text) + 1;
    char *copy = static_cast<char *>(StdTryAlloc(size));
    return copy ? static_cast<char *>(std::memcpy(copy, text, size)) : nullptr;
}


}  // namespace

int32_t HubConnect(const char *directory, int32_t flags)
{
    HubDisconnect();
    Client &c = g_client;
    if (directory ? std::snprintf(c.directory, sizeof c.directory, "%s", directory) >= static_cast<int>(sizeof c.directory)
                  : !vxhub::DefaultDirectory(c.directory, sizeof c.directory))
        return 0;
    if (!(c.input = static_cast<uint8_t *>(StdTryAlloc(kInputSize))))
        return CkptRecover(1), 0;
    c.configured = true;
    char line[512];
    if (Reconnect() || ((flags & HUB_START) && HubStartDaemon(c.directory, line, sizeof line) && Reconnect()))
        return 1;
    HubDisconnect();
    return 0;
}

void HubDisconnect()
{
    Client &c = g_client;
    if (c.fd >= 0)
        close(c.fd);
    while (HubAsset *a = c.assets) {
        c.assets = a->next;
        FreeAsset(a);
    }
    FreeHeap(c.input, kInputSize);
    c = Client{};
}

int HubFileDescriptor() { return g_client.fd; }

int32_t HubDispatch()
{
    Client &c = g_client;
    if (c.dispatching)
        return 0;
    if (c.fd < 0 && !Reconnect())
        return -1;
    if (!ReadAvailable())
        return Lost(), -1;
    c.dispatching = true;
    int32_t delivered = 0;
    static char file[vxhub::kMaxText + 1];
    for (;;) {
        Message m;
        const long taken = vxhub::ReadMessage(c.input, c.inputUsed, &m);
        if (taken < 0 || (taken > 0 && m.type != vxhub::kEvent)) {
            Lost(), delivered = -1;
            break;
        }
        if (taken == 0)
            break;
        std::memcpy(file, m.a, m.aLength), file[m.aLength] = '\0';
        const uint32_t id = m.asset;
        const int32_t event = m.value;
        Consume(0, static_cast<size_t>(taken));
        HubAsset *a = c.assets;
        while (a && a->id != id)
            a = a->next;
        if (!a)
            continue;  // removed after the hub sent the event
        if (event == HUB_EVENT_SHUTDOWN)
            a->state = 0;
        if (a->change)
            a->change(a, event, file, a->data);
        ++delivered;
        if (c.fd < 0)
            break;
    }
    c.dispatching = false;
    return delivered;
}

HubAsset *HubAssetAdd(const char *kind, const char *file, HubChangeFunc *change, void *data)
{
    if (!g_client.configured || !TextFits(kind) || !TextFits(file))
        return nullptr;
    HubAsset *asset = static_cast<HubAsset *>(StdTryAlloc(sizeof(HubAsset)));
    if (asset && (!(asset->kind = TryCopy(kind)) || !(asset->file = TryCopy(file)))) {
        FreeAsset(asset);
        asset = nullptr;
    }
    if (!asset)
        return CkptRecover(1), nullptr;
    asset->change = change, asset->data = data;
    if ((g_client.fd < 0 && !Reconnect()) || !AddToHub(asset)) {
        FreeAsset(asset);
        return nullptr;
    }
    asset->next = g_client.assets;
    g_client.assets = asset;
    return asset;
}

int32_t HubAssetRemove(HubAsset *asset)
{
    if (!asset)
        return 0;
    HubAsset **link = &g_client.assets;
    while (*link && *link != asset)
        link = &(*link)->next;
    if (!*link)
        return 0;
    int32_t result = -1;
    const bool known = asset->id != 0 && g_client.fd >= 0;
    const bool done = known && AssetRequest(vxhub::kRemove, asset, 0, &result) && result == 0;
    *link = asset->next;
    FreeAsset(asset);
    return done ? 1 : 0;
}

int32_t HubAssetLock(HubAsset *asset, int32_t state)
{
    int32_t result = -1;
    if (state < 0 || state > 2 || !AssetRequest(vxhub::kLock, asset, state, &result) || result != 0)
        return 0;
    asset->state = state;
    return 1;
}

int32_t HubAssetUnlock(HubAsset *asset) { return HubAssetLock(asset, HUB_FREE); }

int32_t HubAssetState(const HubAsset *asset)
{
    // A lock held on a hub that went away no longer exists: look at the connection first.
    if (g_client.fd >= 0 && !ReadAvailable())
        Lost();
    return asset ? asset->state : 0;
}

const char *HubAssetTempName(HubAsset *asset)
{
    int32_t result = -1;
    static char name[vxhub::kMaxText + 1];
    if (!asset || (!asset->id && (g_client.fd >= 0 || !Reconnect())))
        return nullptr;
    Message m;
    m.type = vxhub::kTempName, m.asset = asset->id;
    if (!Request(m, &result, name, sizeof name) || result != 0)
        return nullptr;
    char *copy = TryCopy(name);
    if (!copy)
        return CkptRecover(1), nullptr;
    StringFree(asset->temp);
    return asset->temp = copy;
}

int32_t HubAssetNewTemp(HubAsset *asset)
{
    int32_t result = -1;
    return AssetRequest(vxhub::kNewTemp, asset, 0, &result) && result == 0 ? 1 : 0;
}

int32_t HubAssetCount(const char *kind)
{
    int32_t count = -1;
    if (!g_client.configured || !TextFits(kind) || !Request(Texts(vxhub::kCount, kind), &count))
        return -1;
    return count;
}

int32_t HubStatus(char *text, size_t size)
{
    int32_t result = -1;
    return g_client.configured && Request(Texts(vxhub::kStatus, nullptr), &result, text, size) && result == 0;
}

int32_t HubStopDaemon()
{
    int32_t result = -1;
    return g_client.configured && Request(Texts(vxhub::kStop, nullptr), &result) && result == 0;
}
