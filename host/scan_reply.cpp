// Reads and checks the module scanner's reply (see scan_reply.h).
#include "host/scan_reply.h"

#include <cstring>

namespace vx::host {
namespace {

bool Take(ReplyCursor *cursor, size_t count, const unsigned char **out)
{
    if (cursor->size - cursor->at < count)
        return false;
    *out = cursor->data + cursor->at;
    cursor->at += count;
    return true;
}

bool TakeWord(ReplyCursor *cursor, uint32_t *word)
{
    const unsigned char *bytes = nullptr;
    if (!Take(cursor, 4, &bytes))
        return false;
    *word = uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
    return true;
}

// A string: -1 cut short, -2 empty, too long or with a control byte other than a tab.
int TakeText(ReplyCursor *cursor, size_t max, ReplyText *text)
{
    const unsigned char *bytes = nullptr;
    if (!Take(cursor, 2, &bytes))
        return -1;
    const size_t length = size_t{bytes[0]} | size_t{bytes[1]} << 8;
    if (length == 0 || length > max)
        return -2;
    if (!Take(cursor, length, &bytes))
        return -1;
    for (size_t i = 0; i < length; ++i)
        if ((bytes[i] < 0x20 && bytes[i] != '\t') || bytes[i] == 0x7f)
            return -2;
    *text = {reinterpret_cast<const char *>(bytes), length};
    return 1;
}

}  // namespace

bool ReplyOpen(ReplyCursor *cursor, const void *data, size_t size)
{
    const bool magic = size >= sizeof kReplyMagic && std::memcmp(data, kReplyMagic, sizeof kReplyMagic) == 0;
    // Without the magic the cursor stands at the end: it yields no items.
    *cursor = {static_cast<const unsigned char *>(data), size, magic ? sizeof kReplyMagic : size};
    return magic;
}

int ReplyNext(ReplyCursor *cursor, ReplyItem *item)
{
    *item = ReplyItem{};
    const unsigned char *kind = nullptr;
    if (!Take(cursor, 1, &kind))
        return 0;
    item->kind = static_cast<char>(*kind);
    int read = 1;
    switch (item->kind) {
    case 'S':
        read = TakeText(cursor, kReplyClassMax, &item->first);
        if (read == 1)
            read = TakeText(cursor, kReplyNameMax, &item->second);
        return read;
    case 'T':
        return TakeWord(cursor, &item->word) ? TakeText(cursor, kReplyTagMax, &item->first) : -1;
    case 'M':
        return TakeText(cursor, kReplyMessageMax, &item->first);
    case 'D': {
        uint32_t word = 0;
        if (!TakeWord(cursor, &word))
            return -1;
        item->result = static_cast<int32_t>(word);
        return 1;
    }
    default:
        return -2;
    }
}

ReplyState CheckReply(const void *data, size_t size, ReplySummary *summary)
{
    *summary = ReplySummary{};
    if (size > kReplyMaxBytes)
        return ReplyState::Damaged;
    ReplyCursor cursor;
    if (size == 0)
        return ReplyState::Incomplete;
    if (!ReplyOpen(&cursor, data, size)) {
        const size_t prefix = size < sizeof kReplyMagic ? size : sizeof kReplyMagic;
        return std::memcmp(data, kReplyMagic, prefix) == 0 && size < sizeof kReplyMagic ? ReplyState::Incomplete
                                                                                          : ReplyState::Damaged;
    }
    int32_t tags = 0;
    ReplyItem item;
    for (;;) {
        const int read = ReplyNext(&cursor, &item);
        if (read == 0)
            return ReplyState::Incomplete;
        if (read < 0)
            return read == -1 ? ReplyState::Incomplete : ReplyState::Damaged;
        if (item.kind == 'S') {
            tags = 0;
            if (++summary->servers > kReplyMaxServers)
                return ReplyState::Damaged;
        } else if (item.kind == 'T') {
            if (summary->servers == 0 || ++tags > kReplyMaxTags)
                return ReplyState::Damaged;
        } else if (item.kind == 'M') {
            if (++summary->messages > kReplyMaxMessages)
                return ReplyState::Damaged;
        } else {
            summary->result = item.result;
            const bool counted = item.result >= 0 ? item.result == summary->servers : summary->servers == 0;
            return counted && cursor.at == size ? ReplyState::Whole : ReplyState::Damaged;
        }
    }
}

}  // namespace vx::host
