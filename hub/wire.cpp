// Reading and writing the hub's records.
#include "hub/wire.h"

#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vxhub {
namespace {

uint32_t Get32(const uint8_t *p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }
uint16_t Get16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

uint8_t *Put32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        *p++ = static_cast<uint8_t>(v >> 8 * i);
    return p;
}

uint8_t *PutText(uint8_t *p, const char *text, uint16_t length)
{
    *p++ = static_cast<uint8_t>(length), *p++ = static_cast<uint8_t>(length >> 8);
    if (length)
        std::memcpy(p, text, length);
    return p + length;
}

bool KnownType(uint8_t type) { return (type >= kAdd && type <= kStop) || type == kReply || type == kEvent; }

// Field values each type needs: texts where it reads them, a lock state of 0..2, an event of 1..8.
bool FieldsFit(const Message &m)
{
    switch (m.type) {
    case kAdd:
        return m.aLength > 0 && m.bLength > 0;
    case kLock:
        return m.value >= 0 && m.value <= 2;
    case kCount:
        return m.aLength > 0;
    case kEvent:
        return m.value >= 1 && m.value <= 8;
    default:
        return true;
    }
}

bool ReadText(const uint8_t *&p, const uint8_t *end, const char **text, uint16_t *length)
{
    if (end - p < 2)
        return false;
    *length = Get16(p);
    p += 2;
    if (end - p < *length || std::memchr(p, 0, *length))
        return false;
    *text = reinterpret_cast<const char *>(p);
    p += *length;
    return true;
}

}  // namespace

long ReadMessage(const uint8_t *data, size_t size, Message *out)
{
    if (size < kHeaderSize)
        return 0;
    const uint32_t body = Get32(data);
    if (body < kFixedBody || body > kMaxBody)
        return -1;
    if (size - kHeaderSize < body)
        return 0;
    const uint8_t *p = data + kHeaderSize, *end = p + body;
    Message m;
    if (*p++ != kVersion)
        return -1;
    m.type = *p++;
    m.sequence = Get32(p), m.asset = Get32(p + 4), m.value = static_cast<int32_t>(Get32(p + 8));
    p += 12;
    if (!KnownType(m.type) || !ReadText(p, end, &m.a, &m.aLength) || !ReadText(p, end, &m.b, &m.bLength) ||
        p != end || !FieldsFit(m))
        return -1;
    *out = m;
    return static_cast<long>(kHeaderSize + body);
}

size_t WriteMessage(const Message &m, uint8_t *out)
{
    uint8_t *p = Put32(out, kFixedBody + m.aLength + m.bLength);
    *p++ = kVersion, *p++ = m.type;
    p = Put32(Put32(Put32(p, m.sequence), m.asset), static_cast<uint32_t>(m.value));
    p = PutText(PutText(p, m.a, m.aLength), m.b, m.bLength);
    return static_cast<size_t>(p - out);
}

bool DefaultDirectory(char *out, size_t size)
{
    const char *own = std::getenv("VXHUB_DIR"), *runtime = std::getenv("XDG_RUNTIME_DIR");
    int n;
    if (own && *own)
        n = std::snprintf(out, size, "%s", own);
    else if (runtime && *runtime)
        n = std::snprintf(out, size, "%s/vxtools3", runtime);
    else
        n = std::snprintf(out, size, "/tmp/vxhub-%u", static_cast<unsigned>(getuid()));
    return n > 0 && static_cast<size_t>(n) < size;
}

bool SocketPath(const char *directory, char *out, size_t size)
{
    const int n = std::snprintf(out, size, "%s/hub.sock", directory);
    return n > 0 && static_cast<size_t>(n) < size && static_cast<size_t>(n) < sizeof(sockaddr_un{}.sun_path);
}

}  // namespace vxhub
