// The binary load and save states: blocks are IFF chunks, values big-endian chunk data.
#include <vxtools3/ckpt.h>
#include <vxtools3/states.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t kForm = VX_ID('F', 'O', 'R', 'M');
constexpr uint32_t kIndexEscape = 0xFF00;
constexpr uint32_t kIndexMax = 0xFFFFFF;

bool Listed(const VxBlockDesc *blocks, uint32_t id)
{
    for (; blocks && blocks->id; ++blocks)
        if (blocks->id == id)
            return true;
    return false;
}

// ---- Load ------------------------------------------------------------------------------

// Runs `op` inside a checkpoint block of its own, so that a failure the reader raises comes
// back as a sticky error of the state. Returns op's result, or -code after a failure.
template <class Op>
__attribute__((noinline)) int32_t Guarded(VxLoadState *st, Op op)
{
    if (CkptBegin()) {
        int32_t code = CkptLatchCode();
        st->error = code ? code : VX_ERR_IO;
        return -st->error;
    }
    int32_t result = op();
    CkptEnd();
    if (st->reader->error && !st->error)
        st->error = st->reader->error;
    if (result < 0 && !st->error)
        st->error = -result;
    return st->error ? -st->error : result;
}

// Reads and checks the outer FORM when the reader has not yet done so.
int32_t EnterForm(VxLoadState *st)
{
    VxIFFReader *r = st->reader;
    if (IFFRChunkNext(r) != kForm)
        return -(st->error = r->error ? r->error : VX_ERR_FORMAT);
    uint32_t type = 0;
    IFFReadLongs(r, &type, 1);
    if (r->formType && type != r->formType)
        return -(st->error = VX_ERR_FORMAT);
    r->level[0].flags |= VX_IFF_STATE_BASE;
    return 0;
}

uint32_t BinFind(VxLoadState *st, const VxBlockDesc *blocks)
{
    if (st->error)
        return 0;
    if (st->depth >= VX_STATE_LEVELS - 1) {
        st->error = VX_ERR_FORMAT;
        return 0;
    }
    uint32_t found = 0;
    Guarded(st, [st, blocks, &found]() -> int32_t {
        VxIFFReader *r = st->reader;
        if (r->depth < 0 && EnterForm(st) < 0)
            return 0;
        while (uint32_t id = IFFRChunkNext(r)) {
            if (Listed(blocks, id)) {
                found = id;
                return 0;
            }
            IFFRChunkClose(r);
        }
        return 0;
    });
    if (st->error || !found)
        return 0;
    ++st->depth;
    return found;
}

int32_t BinEnd(VxLoadState *st)
{
    if (st->error)
        return st->error;
    if (st->depth == 0)
        return VX_ERR_FORMAT;
    int32_t result = Guarded(st, [st] { return static_cast<int32_t>(IFFRChunkClose(st->reader)); });
    --st->depth;
    return result < 0 ? -result : 0;
}

template <class T, int32_t (*Read)(VxIFFReader *, void *, int32_t)>
int32_t BinRead(VxLoadState *st, T *buf, int32_t n)
{
    if (st->error)
        return -st->error;
    if (n <= 0)
        return 0;
    return Guarded(st, [st, buf, n] { return Read(st->reader, buf, -n); });
}

int32_t ReadFloatsAsLongs(VxIFFReader *r, void *buf, int32_t n) { return IFFReadLongs(r, buf, n); }

int32_t BinReadString(VxLoadState *st, char *buf, int32_t max)
{
    if (st->error)
        return -st->error;
    return Guarded(st, [st, buf, max]() -> int32_t {
        VxIFFReader *r = st->reader;
        int32_t length = 0;
        char c = 0;
        if (IFFReadBytes(r, &c, -1) != 1)
            return 0;  // no string left in the block
        while (c != 0) {
            if (length < max - 1)
                buf[length] = c;
            ++length;
            if (IFFReadBytes(r, &c, 1) != 1)  // the block must hold the rest
                return -VX_ERR_IO;
        }
        if (max > 0)
            buf[std::min(length, max - 1)] = 0;
        if ((length & 1) == 0)
            IFFReadBytes(r, &c, -1);
        return 1;
    });
}

int32_t BinReadIndex(VxLoadState *st, uint32_t *index)
{
    if (st->error)
        return -st->error;
    return Guarded(st, [st, index]() -> int32_t {
        uint16_t half[2] = {0, 0};
        if (IFFReadShorts(st->reader, half, -1) != 1)
            return 0;
        if ((half[0] & 0xFF00) != 0xFF00) {
            *index = half[0];
            return 1;
        }
        IFFReadShorts(st->reader, &half[1], 1);
        *index = (static_cast<uint32_t>(half[0] & 0xFF) << 16) | half[1];
        return 1;
    });
}

// ---- Save ------------------------------------------------------------------------------

int32_t Sticky(VxSaveState *st, int32_t code)
{
    if (code && !st->error)
        st->error = code;
    return code;
}

int32_t BinBegin(VxSaveState *st, const VxBlockDesc *block)
{
    if (st->error)
        return st->error;
    int32_t before = st->writer->depth;
    int32_t code = IFFWChunkOpen(st->writer, block->id, 0);
    if (st->writer->depth > before)
        ++st->depth;
    return Sticky(st, code);
}

int32_t BinEndBlock(VxSaveState *st)
{
    if (st->error)
        return st->error;
    if (st->depth == 0)
        return VX_ERR_FORMAT;
    --st->depth;
    return Sticky(st, IFFWChunkClose(st->writer));
}

template <class T, int32_t (*Write)(VxIFFWriter *, const void *, int32_t)>
int32_t BinWrite(VxSaveState *st, const T *buf, int32_t n)
{
    if (st->error)
        return st->error;
    return Sticky(st, Write(st->writer, buf, n));
}

int32_t WriteFloatsAsLongs(VxIFFWriter *w, const void *buf, int32_t n) { return IFFWriteLongs(w, buf, n); }

int32_t BinWriteString(VxSaveState *st, const char *text)
{
    if (st->error)
        return st->error;
    return Sticky(st, IFFWriteString(st->writer, text ? text : ""));
}

int32_t BinWriteIndex(VxSaveState *st, uint32_t index)
{
    if (st->error)
        return st->error;
    if (index > kIndexMax)
        return Sticky(st, VX_ERR_FORMAT);
    if (index < kIndexEscape) {
        uint16_t half = static_cast<uint16_t>(index);
        return Sticky(st, IFFWriteShorts(st->writer, &half, 1));
    }
    uint32_t word = index | 0xFF000000u;
    return Sticky(st, IFFWriteLongs(st->writer, &word, 1));
}

}  // namespace

extern "C" {

VX_API void IFFInitLoadState(VxLoadState *state, VxIFFReader *reader)
{
    std::memset(state, 0, sizeof *state);
    state->kind = VX_STATE_BINARY;
    state->reader = reader;
    state->stream = reader->stream;
    if (reader->depth >= 0)
        reader->level[reader->depth].flags |= VX_IFF_STATE_BASE;
    state->findBlock = BinFind;
    state->endBlock = BinEnd;
    state->readBytes = BinRead<uint8_t, IFFReadBytes>;
    state->readShorts = BinRead<int16_t, IFFReadShorts>;
    state->readLongs = BinRead<int32_t, IFFReadLongs>;
    state->readIDs = BinRead<uint32_t, IFFReadLongs>;
    state->readFloats = BinRead<float, ReadFloatsAsLongs>;
    state->readString = BinReadString;
    state->readIndex = BinReadIndex;
}

VX_API void IFFInitSaveState(VxSaveState *state, VxIFFWriter *writer)
{
    std::memset(state, 0, sizeof *state);
    state->kind = VX_STATE_BINARY;
    state->writer = writer;
    state->stream = writer->stream;
    if (writer->depth >= 0)
        writer->level[writer->depth].flags |= VX_IFF_STATE_BASE;
    state->beginBlock = BinBegin;
    state->endBlock = BinEndBlock;
    state->writeBytes = BinWrite<uint8_t, IFFWriteBytes>;
    state->writeShorts = BinWrite<int16_t, IFFWriteShorts>;
    state->writeLongs = BinWrite<int32_t, IFFWriteLongs>;
    state->writeIDs = BinWrite<uint32_t, IFFWriteLongs>;
    state->writeFloats = BinWrite<float, WriteFloatsAsLongs>;
    state->writeString = BinWriteString;
    state->writeIndex = BinWriteIndex;
}

}  // extern "C"
