// The reply of the module scanner (the helper program that checks one module file in a
// process of its own) as the host reads it from the pipe. The reply comes from a process that
// ran untrusted code, so the reader takes nothing on trust: every length is bounded, every
// string checked, every count capped, and a reply is used only when it is whole and valid.
//
// Layout: the 8-byte magic "VXSCAN1\n", then items, each a kind byte:
//   'S' class, name        one server of the module's table, in table order
//   'T' tag word, string   one info tag of the server before it, in order
//   'M' text               one line the checks printed (without its "\n")
//   'D' result             HostAddModule's result in the scanner; the last item
// Strings are a 16-bit length and that many bytes; numbers are little-endian 32-bit.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx::host {

inline constexpr char kReplyMagic[8] = {'V', 'X', 'S', 'C', 'A', 'N', '1', '\n'};
inline constexpr size_t kReplyMaxBytes = size_t{1} << 20;
inline constexpr int32_t kReplyMaxServers = 1024;
inline constexpr int32_t kReplyMaxTags = 64;  // per server
inline constexpr int32_t kReplyMaxMessages = 32;
// The longest strings, as the plug-in database reads them back (class, name, tag) and a
// message line.
inline constexpr size_t kReplyClassMax = 127;
inline constexpr size_t kReplyNameMax = 255;
inline constexpr size_t kReplyTagMax = 511;
inline constexpr size_t kReplyMessageMax = 1023;

struct ReplyText {
    const char *bytes;  // not terminated
    size_t length;
};

struct ReplyItem {
    char kind;         // 'S', 'T', 'M' or 'D'
    ReplyText first;   // class, tag string or message
    ReplyText second;  // server name
    uint32_t word;     // tag word
    int32_t result;    // 'D'
};

struct ReplyCursor {
    const unsigned char *data;
    size_t size;
    size_t at;
};

enum class ReplyState : uint8_t {
    Whole,       // valid and ended by 'D'
    Incomplete,  // valid so far but cut short (the scanner stopped before it finished)
    Damaged,     // not a reply: bad magic, bad kind, a string too long or with control bytes,
                 // too many items, a tag before any server, anything after 'D', a result that
                 // does not match the servers sent
};

struct ReplySummary {
    int32_t servers;
    int32_t messages;
    int32_t result;
};

// Opens a cursor after the magic; false (and a cursor that yields nothing) when the data does
// not start with it.
bool ReplyOpen(ReplyCursor *cursor, const void *data, size_t size);
// Reads the next item: 1 read, 0 at the end of the data, -1 cut short, -2 malformed.
int ReplyNext(ReplyCursor *cursor, ReplyItem *item);
// Checks a whole reply before any of it is used.
ReplyState CheckReply(const void *data, size_t size, ReplySummary *summary);

}  // namespace vx::host
