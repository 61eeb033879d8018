// IFF chunk writer and reader over the byte streams.
#include <vxtools3/ckpt.h>
#include <vxtools3/iff.h>
#include <vxtools3/memory.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

constexpr uint32_t kForm = VX_ID('F', 'O', 'R', 'M');

// Levels 0 and 1 carry 32-bit lengths; deeper sub-chunks 16-bit ones.
constexpr bool LongLength(int32_t level) { return level <= 1; }
constexpr int32_t HeaderSize(int32_t level) { return LongLength(level) ? 8 : 6; }

// ---- Writer ----------------------------------------------------------------------------

using StreamWrite = int32_t (*)(VxWriteStrm *, const void *, int32_t);

// Writes n items of `size` bytes and counts them in the writer and its open chunk.
int32_t WriterPut(VxIFFWriter *w, StreamWrite write, const void *buf, int32_t n, int32_t size)
{
    if (w->depth < 0)
        return VX_ERR_FORMAT;
    if (n <= 0)
        return w->stream->error;
    int32_t code = write(w->stream, buf, n);
    w->position += n * size;
    w->level[w->depth].count += n * size;
    return code ? code : w->stream->error;
}

int32_t PutBytes(VxIFFWriter *w, const void *buf, int32_t n)
{
    return WriterPut(w, w->stream->writeBytes, buf, n, 1);
}

// Seeks to `offset` and writes the chunk's length there, in the width of its level.
int32_t PatchLength(VxIFFWriter *w, int32_t level, int32_t offset, uint32_t length)
{
    VxWriteStrm *s = w->stream;
    if (int32_t code = s->seek(s, offset))
        return code;
    if (LongLength(level))
        return s->writeLongs(s, &length, 1);
    uint16_t shortLength = static_cast<uint16_t>(length);
    return s->writeShorts(s, &shortLength, 1);
}

// ---- Reader ----------------------------------------------------------------------------

// Marks the reader failed and raises the failure through the innermost checkpoint block;
// returns only when no block is open.
int32_t ReaderFail(VxIFFReader *r, int32_t code)
{
    r->error = code;
    CkptRecover(code);
    return 0;
}

// Offset where the innermost chunk's data ends (its pad excluded).
int32_t DataEnd(const VxIFFReader *r)
{
    const VxIFFRLevel &l = r->level[r->depth];
    return l.end - ((l.flags & VX_IFF_ODD) ? 1 : 0);
}

// Bytes that can still be read from the innermost chunk. Its `remaining` count keeps the pad
// bytes of odd sub-chunks (the enclosing count is charged with a sub-chunk's length only),
// so reads are also bounded by the chunk's end and never run past it.
int32_t Available(const VxIFFReader *r)
{
    if (r->depth < 0)
        return INT32_MAX;
    return std::max(0, std::min(r->level[r->depth].remaining, DataEnd(r) - r->position));
}

using StreamRead = int32_t (*)(VxReadStrm *, void *, int32_t);

// Reads items by the chunk read rule; returns the item count, or -code after a failure with
// no checkpoint block open.
int32_t ReadItems(VxIFFReader *r, StreamRead read, void *buf, int32_t count, int32_t size)
{
    if (r->error)
        return -r->error;
    if (count == 0)
        return 0;
    int32_t available = Available(r) / size;
    int32_t n;
    if (count < 0) {
        n = static_cast<int32_t>(std::min<int64_t>(-static_cast<int64_t>(count), available));
    } else if (count > available) {
        return ReaderFail(r, VX_ERR_IO) - VX_ERR_IO;
    } else {
        n = count;
    }
    if (n == 0)
        return 0;
    int32_t got = read(r->stream, buf, n);
    if (got < 0 || (got < n && (r->depth >= 0 || count > 0)))
        return ReaderFail(r, VX_ERR_IO) - VX_ERR_IO;
    r->position += got * size;
    if (r->depth >= 0)
        r->level[r->depth].remaining -= got * size;
    return got;
}

// Reads the next chunk header inside the innermost chunk and opens it; returns its ID, or 0
// when there is no further chunk or the read failed.
uint32_t OpenNextChunk(VxIFFReader *r)
{
    if (r->error)
        return 0;
    if (r->depth >= 0 && Available(r) < 4)
        return 0;  // fewer than 4 bytes left simply mean no further chunk
    int32_t level = r->depth + 1;
    if (level >= VX_IFF_LEVELS)
        return static_cast<uint32_t>(ReaderFail(r, VX_ERR_IO));
    uint32_t id = 0;
    if (ReadItems(r, r->stream->readLongs, &id, -1, 4) != 1)
        return 0;
    int64_t length;
    if (LongLength(level)) {
        uint32_t value = 0;
        if (ReadItems(r, r->stream->readLongs, &value, 1, 4) != 1)
            return 0;
        length = value;
    } else {
        uint16_t value = 0;
        if (ReadItems(r, r->stream->readShorts, &value, 1, 2) != 1)
            return 0;
        length = value;
    }
    int64_t end = r->position + length + (length & 1);
    if (r->depth >= 0) {
        if (length > Available(r))
            return static_cast<uint32_t>(ReaderFail(r, VX_ERR_IO));
        end = std::min<int64_t>(end, DataEnd(r));  // a pad that does not fit is taken as absent
        r->level[r->depth].remaining -= static_cast<int32_t>(length);
    } else if (end > INT32_MAX) {
        return static_cast<uint32_t>(ReaderFail(r, VX_ERR_IO));
    }
    VxIFFRLevel &l = r->level[level];
    l.end = static_cast<int32_t>(end);
    l.remaining = static_cast<int32_t>(length);
    l.flags = (length & 1) ? VX_IFF_ODD : 0;
    r->depth = level;
    return id;
}

// Pops the innermost chunk and skips what is left of it. Returns 1, or 0 on failure.
int CloseChunk(VxIFFReader *r)
{
    if (r->error || r->depth < 0)
        return 0;
    VxReadStrm *s = r->stream;
    int32_t skip = r->level[r->depth].end - r->position;
    if (r->depth == 0 && skip == s->remaining + 1 && (r->level[0].flags & VX_IFF_ODD))
        --skip;  // an outer chunk whose final pad byte was left out of the file
    if (skip > 0 && s->skip(s, skip) != 0)
        return ReaderFail(r, VX_ERR_IO);
    r->position = r->level[r->depth].end;
    r->level[r->depth].flags = 0;
    --r->depth;
    return 1;
}

bool InStopList(const uint32_t *stopIds, uint32_t id)
{
    for (; stopIds && *stopIds; ++stopIds)
        if (*stopIds == id)
            return true;
    return false;
}

// Gives the chunk to the first handler registered for its ID; returns whether one took it.
bool OfferToHandler(VxIFFReader *r, uint32_t id)
{
    for (VxNode *n = r->handlers.head; n->succ; n = n->succ) {
        auto *prop = reinterpret_cast<VxIFFProp *>(n);
        if (prop->id != id)
            continue;
        if (prop->result) {
            void *old = prop->result;
            prop->result = nullptr;
            if (prop->freeFn)
                prop->freeFn(old, prop->userData);
        }
        prop->result = prop->handler(r, prop->userData, id);
        return true;
    }
    return false;
}

// Opens the outer chunk and checks that it is a FORM of the expected type.
bool OpenForm(VxIFFReader *r)
{
    uint32_t id = OpenNextChunk(r);
    if (id != kForm) {
        if (!r->error)
            r->error = VX_ERR_FORMAT;
        return false;
    }
    uint32_t type = 0;
    if (ReadItems(r, r->stream->readLongs, &type, 1, 4) != 1)
        return false;
    if (r->formType && type != r->formType) {
        r->error = VX_ERR_FORMAT;
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

// ---- Writer ----------------------------------------------------------------------------

VX_API VxIFFWriter *IFFWCreate(VxWriteStrm *stream)
{
    auto *w = static_cast<VxIFFWriter *>(StdAlloc(sizeof(VxIFFWriter)));
    if (!w)
        return nullptr;
    w->stream = stream;
    w->depth = -1;
    w->origin = stream->position;
    return w;
}

VX_API void IFFWDestroy(VxIFFWriter *writer)
{
    if (writer)
        FreeHeap(writer, sizeof(VxIFFWriter));
}

VX_API int32_t IFFWChunkOpen(VxIFFWriter *w, uint32_t id, uint32_t type)
{
    if (w->depth + 1 >= VX_IFF_LEVELS)
        return VX_ERR_FORMAT;
    int32_t level = ++w->depth;
    w->level[level] = {w->position, 0, 0};
    IFFWriteLongs(w, &id, 1);
    PutBytes(w, "3333", LongLength(level) ? 4 : 2);  // placeholder, patched on close
    if (type)
        IFFWriteLongs(w, &type, 1);
    return w->stream->error;
}

VX_API int32_t IFFWChunkClose(VxIFFWriter *w)
{
    if (w->depth < 0)
        return VX_ERR_FORMAT;
    int32_t level = w->depth;
    int32_t length = w->level[level].count - HeaderSize(level);  // data only: no header, no pad
    if (length & 1)
        PutBytes(w, "", 1);
    const VxIFFWLevel chunk = w->level[level];
    VxWriteStrm *s = w->stream;
    int32_t here = s->position;
    PatchLength(w, level, w->origin + chunk.start + 4, static_cast<uint32_t>(length));
    s->seek(s, here);
    w->level[level].flags = 0;
    if (--w->depth >= 0)
        w->level[w->depth].count += chunk.count;
    if (s->error)
        return s->error;
    return (!LongLength(level) && length > 0xFFFF) ? VX_ERR_FORMAT : 0;
}

VX_API int32_t IFFWriteBytes(VxIFFWriter *w, const void *buf, int32_t n) { return PutBytes(w, buf, n); }

VX_API int32_t IFFWriteShorts(VxIFFWriter *w, const void *buf, int32_t n)
{
    return WriterPut(w, w->stream->writeShorts, buf, n, 2);
}

VX_API int32_t IFFWriteLongs(VxIFFWriter *w, const void *buf, int32_t n)
{
    return WriterPut(w, w->stream->writeLongs, buf, n, 4);
}

VX_API int32_t IFFWriteFloats(VxIFFWriter *w, const float *buf, int32_t n) { return IFFWriteLongs(w, buf, n); }

VX_API int32_t IFFWriteString(VxIFFWriter *w, const char *text)
{
    size_t length = text ? std::strlen(text) : 0;
    if (length > INT32_MAX - 2)
        return VX_ERR_FORMAT;
    if (int32_t code = PutBytes(w, text, static_cast<int32_t>(length)))
        return code;
    return PutBytes(w, "\0", (length & 1) ? 1 : 2);
}

// ---- Reader ----------------------------------------------------------------------------

VX_API VxIFFReader *IFFRCreate(VxReadStrm *stream)
{
    auto *r = static_cast<VxIFFReader *>(StdAlloc(sizeof(VxIFFReader)));
    if (!r)
        return nullptr;
    r->stream = stream;
    r->depth = -1;
    NewList(&r->handlers);
    return r;
}

VX_API void IFFRFormType(VxIFFReader *reader, uint32_t type) { reader->formType = type; }

VX_API int IFFRSetProp(VxIFFReader *reader, uint32_t id, VxIFFPropHandler *handler, VxIFFPropFree *freeFn,
                       void *userData)
{
    auto *prop = static_cast<VxIFFProp *>(StdAlloc(sizeof(VxIFFProp)));
    if (!prop)
        return 0;
    prop->id = id;
    prop->handler = handler;
    prop->freeFn = freeFn;
    prop->userData = userData;
    AddHead(&reader->handlers, &prop->node);
    return 1;
}

VX_API void *IFFRGetProp(VxIFFReader *reader, uint32_t id)
{
    for (VxNode *n = reader->handlers.head; n->succ; n = n->succ) {
        auto *prop = reinterpret_cast<VxIFFProp *>(n);
        if (prop->id == id)
            return prop->result;
    }
    return nullptr;
}

VX_API uint32_t IFFRParse(VxIFFReader *r, const uint32_t *stopIds)
{
    if (r->error)
        return 0;
    if (r->depth < 0 && !OpenForm(r))
        return 0;
    for (;;) {
        while (r->depth > 0)
            if (!CloseChunk(r))
                return 0;
        uint32_t id = OpenNextChunk(r);
        if (!id)
            return 0;
        if (!OfferToHandler(r, id) && InStopList(stopIds, id))
            return id;
        if (r->error)
            return 0;
    }
}

VX_API uint32_t IFFRChunkNext(VxIFFReader *reader) { return OpenNextChunk(reader); }

VX_API int IFFRChunkClose(VxIFFReader *reader) { return CloseChunk(reader); }

VX_API int32_t IFFRChunkLength(VxIFFReader *reader)
{
    if (reader->depth >= 0)
        return reader->level[reader->depth].remaining;
    // Before the outer chunk: what the stream holds, as much of it as the count can say.
    return static_cast<int32_t>(std::min<int64_t>(reader->stream->remaining, INT32_MAX));
}

VX_API int32_t IFFReadBytes(VxIFFReader *r, void *buf, int32_t count)
{
    return ReadItems(r, r->stream->readBytes, buf, count, 1);
}

VX_API int32_t IFFReadShorts(VxIFFReader *r, void *buf, int32_t count)
{
    return ReadItems(r, r->stream->readShorts, buf, count, 2);
}

VX_API int32_t IFFReadLongs(VxIFFReader *r, void *buf, int32_t count)
{
    return ReadItems(r, r->stream->readLongs, buf, count, 4);
}

VX_API int32_t IFFReadFloats(VxIFFReader *r, float *buf, int32_t count) { return IFFReadLongs(r, buf, count); }

VX_API int32_t IFFReadString(VxIFFReader *r, char *buf, int32_t max, int required)
{
    int32_t length = 0;
    for (;;) {
        char c = 0;
        int32_t got = IFFReadBytes(r, &c, (length == 0 && required) ? 1 : -1);
        if (got != 1) {
            if (max > 0)
                buf[std::min(length, max - 1)] = 0;
            return got < 0 ? 0 : length;  // the chunk ended inside the string (or before it)
        }
        if (c == 0)
            break;
        if (length < max - 1)
            buf[length] = c;
        ++length;
    }
    if (max > 0)
        buf[std::min(length, max - 1)] = 0;
    if ((length & 1) == 0) {
        char pad;
        IFFReadBytes(r, &pad, -1);
    }
    return 1;
}

VX_API void IFFRDestroy(VxIFFReader *reader)
{
    if (!reader)
        return;
    while (VxNode *n = RemHead(&reader->handlers)) {
        auto *prop = reinterpret_cast<VxIFFProp *>(n);
        if (prop->result && prop->freeFn)
            prop->freeFn(prop->result, prop->userData);
        FreeHeap(prop, sizeof(VxIFFProp));
    }
    FreeHeap(reader, sizeof(VxIFFReader));
}

}  // extern "C"
