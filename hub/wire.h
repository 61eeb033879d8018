// The hub's messages: length-prefixed binary records with a version, shared by the daemon and
// the client side of the library. Every record has the same fields, so one reader checks them
// all:
//   u32 body length | u8 version | u8 type | u32 sequence | u32 asset | i32 value |
//   u16 length + bytes of text A | u16 length + bytes of text B
// Integers are little-endian; texts hold no NUL byte. A request's reply echoes its sequence.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vxhub {

constexpr uint8_t kVersion = 1;
constexpr uint32_t kHeaderSize = 4;
constexpr uint32_t kFixedBody = 1 + 1 + 4 + 4 + 4 + 2 + 2;
constexpr uint32_t kMaxText = 65535;
constexpr uint32_t kMaxBody = kFixedBody + 2 * kMaxText;
constexpr size_t kMaxFrame = kHeaderSize + kMaxBody;

enum Type : uint8_t {
    kAdd = 1,       // A kind, B file               -> value: the hub's asset number
    kRemove = 2,    // asset
    kLock = 3,      // asset, value 0..2            -> fails at once when another holder conflicts
    kUnlock = 4,    // asset
    kTempName = 5,  // asset                        -> A: the temporary name
    kNewTemp = 6,   // asset                        -> the temporary file replaces the asset's file
    kCount = 7,     // A kind                       -> value: applications holding one
    kStatus = 8,    //                              -> A: connections and assets, one per line
    kStop = 9,      // the hub sends event 8 to every holder and exits
    kReply = 64,    // sequence, value (negative: failed), A text
    kEvent = 65,    // asset, value: the event, A: the file
};

struct Message {
    uint8_t type = 0;
    uint32_t sequence = 0;
    uint32_t asset = 0;
    int32_t value = 0;
    const char *a = nullptr;  // points into the reader's buffer, not NUL-terminated
    uint16_t aLength = 0;
    const char *b = nullptr;
    uint16_t bLength = 0;
};

// Reads one record from the start of `data`: the bytes it took, 0 when the record is not
// complete yet, -1 when it is malformed (bad length, version, type, text or field value).
long ReadMessage(const uint8_t *data, size_t size, Message *out);

// Writes `m` to `out` (room for kMaxFrame bytes is always enough): the bytes written.
size_t WriteMessage(const Message &m, uint8_t *out);

// The hub's socket directory: $VXHUB_DIR, else $XDG_RUNTIME_DIR/vxtools3, else
// /tmp/vxhub-<uid>. False when it does not fit `size`.
bool DefaultDirectory(char *out, size_t size);

// `directory`/hub.sock; false when it does not fit a socket address.
bool SocketPath(const char *directory, char *out, size_t size);

}  // namespace vxhub
