// Implementation records of the streams, shared with the tests of io/.
#pragma once

#include <vxtools3/streams.h>

#include <cstdint>
#include <cstdio>

namespace vx::io {

// The file streams move data through a buffer of their own, so that single values cost a
// copy rather than a stdio call.
constexpr int32_t kFileBufferSize = 65536;

// Implementation record of a memory read stream.
struct MemReadImpl {
    const uint8_t *data;
    int32_t size;
    int32_t position;
    int32_t owned;  // non-zero when `data` is the stream's own copy
};

// Implementation record of a file read stream: `buffer[pos ... fill)` holds the next bytes.
struct FileReadImpl {
    FILE *file;
    const VxStrmMonitor *monitor;
    int32_t fill;
    int32_t pos;
    uint8_t buffer[kFileBufferSize];
};

// A memory write block starts with its 4-byte capacity word; streams hand out the address of
// the data behind it.
constexpr int32_t kBlockHeader = 4;

inline int32_t BlockCapacity(const void *data)
{
    int32_t capacity;
    __builtin_memcpy(&capacity, static_cast<const uint8_t *>(data) - kBlockHeader, sizeof capacity);
    return capacity;
}

}  // namespace vx::io
