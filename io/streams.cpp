// Byte streams over files and memory: one record layout per direction, with the item size and
// the byte swapping chosen at compile time for each operation slot.
#include "io/streams_internal.h"

#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

using vx::io::BlockCapacity;
using vx::io::FileReadImpl;
using vx::io::kBlockHeader;
using vx::io::kFileBufferSize;
using vx::io::MemReadImpl;

namespace {

// ---- Byte order ------------------------------------------------------------------------

template <int Size>
inline void SwapItems(uint8_t *p, int32_t n)
{
    for (int32_t i = 0; i < n; ++i, p += Size) {
        if constexpr (Size == 2) {
            uint16_t v;
            std::memcpy(&v, p, 2);
            v = __builtin_bswap16(v);
            std::memcpy(p, &v, 2);
        } else if constexpr (Size == 4) {
            uint32_t v;
            std::memcpy(&v, p, 4);
            v = __builtin_bswap32(v);
            std::memcpy(p, &v, 4);
        }
    }
}

// Copies n items of Size bytes, reversing each when Swap is set.
template <int Size, bool Swap>
inline void CopyItems(uint8_t *dst, const uint8_t *src, int32_t n)
{
    if constexpr (Swap && Size > 1) {
        for (int32_t i = 0; i < n; ++i, dst += Size, src += Size) {
            if constexpr (Size == 2) {
                uint16_t v;
                std::memcpy(&v, src, 2);
                v = __builtin_bswap16(v);
                std::memcpy(dst, &v, 2);
            } else {
                uint32_t v;
                std::memcpy(&v, src, 4);
                v = __builtin_bswap32(v);
                std::memcpy(dst, &v, 4);
            }
        }
    } else {
        std::memcpy(dst, src, static_cast<size_t>(n) * Size);
    }
}

// File streams and memory write streams stay failed with code 2 whatever went wrong; the
// failing call still reports its own code.
inline int32_t Fail(int32_t *error, int32_t code)
{
    *error = VX_ERR_IO;
    return code;
}

// ---- Memory read streams ---------------------------------------------------------------

struct MemReadStrm {
    VxReadStrm strm;
    MemReadImpl impl;
};

inline MemReadImpl *MemRead(VxReadStrm *s) { return static_cast<MemReadImpl *>(s->impl); }

template <int Size, bool Swap>
int32_t MemReadItems(VxReadStrm *s, void *buf, int32_t n)
{
    if (s->error)
        return -s->error;
    if (n <= 0)
        return 0;
    if (static_cast<int64_t>(n) * Size > s->remaining)
        n = static_cast<int32_t>(s->remaining / Size);
    if (n == 0)
        return 0;
    MemReadImpl *m = MemRead(s);
    int32_t bytes = n * Size;
    if (n == 1)  // single values: a copy of constant size
        CopyItems<Size, Swap>(static_cast<uint8_t *>(buf), m->data + m->position, 1);
    else
        CopyItems<Size, Swap>(static_cast<uint8_t *>(buf), m->data + m->position, n);
    m->position += bytes;
    s->remaining -= bytes;
    return n;
}

int32_t MemSkip(VxReadStrm *s, int64_t k)
{
    if (s->error)
        return -s->error;
    k = std::max<int64_t>(k, 0);
    MemReadImpl *m = MemRead(s);
    if (static_cast<int64_t>(m->position) + k > m->size)
        return -VX_ERR_IO;
    m->position += static_cast<int32_t>(k);
    s->remaining -= k;
    return 0;
}

int32_t MemPeek(VxReadStrm *s, uint8_t *out)
{
    if (s->error)
        return s->error;
    MemReadImpl *m = MemRead(s);
    if (m->position >= m->size)
        return 1;
    *out = m->data[m->position];
    return 0;
}

void MemReadDestroy(VxReadStrm *s)
{
    MemReadImpl *m = MemRead(s);
    if (m->owned)
        FreeHeap(const_cast<uint8_t *>(m->data), static_cast<size_t>(m->size));
    FreeHeap(s, sizeof(MemReadStrm));
}

// ---- File read streams -----------------------------------------------------------------

struct FileReadStrm {
    VxReadStrm strm;
    FileReadImpl impl;
};

inline FileReadImpl *FileRead(VxReadStrm *s) { return static_cast<FileReadImpl *>(s->impl); }

// Reports `bytes` consumed to the monitor, in steps that fit its 32-bit count; returns 0 or
// the abort code.
inline int32_t StepMonitor(VxReadStrm *s, int64_t bytes)
{
    const VxStrmMonitor *mon = FileRead(s)->monitor;
    if (!mon || !mon->step)
        return 0;
    do {
        const auto step = static_cast<int32_t>(std::min<int64_t>(bytes, INT32_MAX));
        if (mon->step(mon->context, step))
            return Fail(&s->error, VX_ERR_ABORT);
        bytes -= step;
    } while (bytes > 0);
    return 0;
}

// Copies `bytes` from the file into dst, through the buffer for small amounts and directly
// for large ones. Returns 0 or the failure code.
int32_t FileFetch(VxReadStrm *s, uint8_t *dst, int32_t bytes)
{
    FileReadImpl *f = FileRead(s);
    int32_t buffered = f->fill - f->pos;
    std::memcpy(dst, f->buffer + f->pos, static_cast<size_t>(std::min(buffered, bytes)));
    if (bytes <= buffered) {
        f->pos += bytes;
        return 0;
    }
    dst += buffered;
    bytes -= buffered;
    f->pos = f->fill = 0;
    if (bytes >= kFileBufferSize) {
        if (std::fread(dst, 1, static_cast<size_t>(bytes), f->file) != static_cast<size_t>(bytes))
            return Fail(&s->error, VX_ERR_IO);
        return 0;
    }
    size_t got = std::fread(f->buffer, 1, kFileBufferSize, f->file);
    if (got < static_cast<size_t>(bytes))
        return Fail(&s->error, VX_ERR_IO);
    f->fill = static_cast<int32_t>(got);
    std::memcpy(dst, f->buffer, static_cast<size_t>(bytes));
    f->pos = bytes;
    return 0;
}

template <int Size, bool Swap>
int32_t FileReadItems(VxReadStrm *s, void *buf, int32_t n)
{
    if (s->error)
        return -s->error;
    if (n <= 0)
        return 0;
    if (static_cast<int64_t>(n) * Size > s->remaining)
        n = static_cast<int32_t>(s->remaining / Size);
    if (n == 0)
        return 0;
    int32_t bytes = n * Size;
    auto *dst = static_cast<uint8_t *>(buf);
    FileReadImpl *f = FileRead(s);
    if (n == 1 && f->fill - f->pos >= Size) {  // a single buffered value
        std::memcpy(dst, f->buffer + f->pos, Size);
        f->pos += Size;
    } else if (f->fill - f->pos >= bytes) {  // the common case: everything is buffered
        std::memcpy(dst, f->buffer + f->pos, static_cast<size_t>(bytes));
        f->pos += bytes;
    } else if (int32_t code = FileFetch(s, dst, bytes)) {
        return -code;
    }
    s->remaining -= bytes;
    if (int32_t code = StepMonitor(s, bytes))
        return -code;
    if constexpr (Swap && Size > 1)
        SwapItems<Size>(dst, n);
    return n;
}

int32_t FileSkip(VxReadStrm *s, int64_t k)
{
    if (s->error)
        return -s->error;
    k = std::max<int64_t>(k, 0);
    if (k > s->remaining)
        return -Fail(&s->error, VX_ERR_IO);
    FileReadImpl *f = FileRead(s);
    const int32_t buffered = f->fill - f->pos;
    if (k <= buffered) {
        f->pos += static_cast<int32_t>(k);
    } else {
        f->pos = f->fill = 0;
        if (fseeko(f->file, static_cast<off_t>(k - buffered), SEEK_CUR) != 0)
            return -Fail(&s->error, VX_ERR_IO);
    }
    s->remaining -= k;
    return -StepMonitor(s, k);
}

int32_t FilePeek(VxReadStrm *s, uint8_t *out)
{
    if (s->error)
        return s->error;
    if (s->remaining <= 0)
        return 1;
    FileReadImpl *f = FileRead(s);
    if (f->pos == f->fill) {
        size_t got = std::fread(f->buffer, 1, kFileBufferSize, f->file);
        if (got == 0)
            return Fail(&s->error, VX_ERR_IO);  // the file shrank under the stream
        f->pos = 0;
        f->fill = static_cast<int32_t>(got);
    }
    *out = f->buffer[f->pos];
    return 0;
}

void FileReadDestroy(VxReadStrm *s)
{
    FileReadImpl *f = FileRead(s);
    std::fclose(f->file);
    if (f->monitor && f->monitor->done)
        f->monitor->done(f->monitor->context);
    FreeHeap(s, sizeof(FileReadStrm));
}

// ---- File write streams ----------------------------------------------------------------

// The buffer holds the bytes [base, base + fill) of the file, not yet written; the write
// position is base + pos with pos <= fill. A seek inside that window (the usual length patch
// of a chunk writer) only moves `pos`.
struct FileWriteStrm {
    VxWriteStrm strm;
    int64_t base;
    int64_t filePos;  // where the FILE stands, so that sequential flushes need no seek
    int32_t fill;
    int32_t pos;
    uint8_t buffer[kFileBufferSize];
};

inline FileWriteStrm *FileWrite(VxWriteStrm *s) { return reinterpret_cast<FileWriteStrm *>(s); }

// Writes `n` bytes at file offset `at`; returns 0 or the failure code.
int32_t WriteFileAt(FileWriteStrm *w, const uint8_t *src, int32_t n, int64_t at)
{
    FILE *file = static_cast<FILE *>(w->strm.impl);
    if (w->filePos != at && fseeko(file, at, SEEK_SET) != 0)
        return Fail(&w->strm.error, VX_ERR_IO);
    w->filePos = at;
    if (std::fwrite(src, 1, static_cast<size_t>(n), file) != static_cast<size_t>(n)) {
        w->filePos = -1;
        return Fail(&w->strm.error, VX_ERR_IO);
    }
    w->filePos = at + n;
    return 0;
}

// Writes the buffered window out and starts an empty one at the write position.
int32_t FlushWindow(FileWriteStrm *w)
{
    if (w->fill > 0)
        if (int32_t code = WriteFileAt(w, w->buffer, w->fill, w->base))
            return code;
    w->base += w->pos;
    w->fill = w->pos = 0;
    return 0;
}

template <int Size, bool Swap>
int32_t FileWriteItems(VxWriteStrm *s, const void *buf, int32_t n)
{
    if (s->error)
        return s->error;
    if (n <= 0)
        return 0;
    int64_t bytes = static_cast<int64_t>(n) * Size;
    if (s->position + bytes > INT32_MAX)
        return Fail(&s->error, VX_ERR_IO);
    FileWriteStrm *w = FileWrite(s);
    auto *src = static_cast<const uint8_t *>(buf);
    int32_t left = n;
    while (left > 0) {
        int32_t room = (kFileBufferSize - w->pos) / Size;
        if (room == 0) {
            if (int32_t code = FlushWindow(w))
                return code;
            continue;
        }
        if (!Swap && w->pos == 0 && static_cast<int64_t>(left) * Size >= kFileBufferSize) {
            if (int32_t code = FlushWindow(w))  // drops a window that ends at the write position
                return code;
            if (int32_t code = WriteFileAt(w, src, left * Size, w->base))
                return code;
            w->base += left * Size;
            break;
        }
        int32_t take = std::min(room, left);
        CopyItems<Size, Swap>(w->buffer + w->pos, src, take);
        w->pos += take * Size;
        w->fill = std::max(w->fill, w->pos);
        src += take * Size;
        left -= take;
    }
    s->position += static_cast<int32_t>(bytes);
    s->length = std::max(s->length, s->position);
    return 0;
}

int32_t FileSeek(VxWriteStrm *s, int32_t offset)
{
    if (s->error)
        return s->error;
    offset = std::clamp(offset, 0, s->length);
    FileWriteStrm *w = FileWrite(s);
    if (offset >= w->base && offset <= w->base + w->fill) {
        w->pos = static_cast<int32_t>(offset - w->base);
    } else {
        if (int32_t code = FlushWindow(w))
            return code;
        w->base = offset;
    }
    s->position = offset;
    return 0;
}

int32_t FileWriteDestroy(VxWriteStrm *s)
{
    FileWriteStrm *w = FileWrite(s);
    if (!s->error)
        FlushWindow(w);
    if (std::fclose(static_cast<FILE *>(s->impl)) != 0)
        s->error = VX_ERR_IO;
    int32_t error = s->error;
    FreeHeap(s, sizeof(FileWriteStrm));
    return error;
}

// ---- Memory write streams --------------------------------------------------------------

inline uint8_t *MemData(VxWriteStrm *s) { return static_cast<uint8_t *>(s->impl); }

inline uint8_t *BlockStart(void *data) { return static_cast<uint8_t *>(data) - kBlockHeader; }

// Size in bytes (capacity word included) of the block that replaces one of `capacity` data
// bytes when `needed` data bytes must fit.
int64_t GrownBlockSize(int64_t capacity, int64_t needed)
{
    int64_t size = std::max({2 * capacity, int64_t{1024}, needed});
    if (size - kBlockHeader < needed || size > INT32_MAX)
        size = needed + kBlockHeader;
    return size;
}

// Makes room for `needed` data bytes. An exhausted heap is caught here: the stream keeps its
// old block and data and fails. Returns 0 or the failure code.
int32_t MemReserve(VxWriteStrm *s, int64_t needed)
{
    int32_t capacity = s->impl ? BlockCapacity(s->impl) : 0;
    if (needed <= capacity)
        return 0;
    if (needed > INT32_MAX - kBlockHeader)
        return Fail(&s->error, VX_ERR_IO);
    int64_t size = GrownBlockSize(capacity, needed);
    void *old = s->impl ? BlockStart(s->impl) : nullptr;
    size_t oldSize = s->impl ? static_cast<size_t>(capacity) + kBlockHeader : 0;
    // An exhausted heap comes back as the stream's error instead of unwinding the caller.
    auto *block = static_cast<uint8_t *>(StdTryRealloc(old, oldSize, static_cast<size_t>(size)));
    if (!block)
        return Fail(&s->error, VX_ERR_NOMEM);
    int32_t newCapacity = static_cast<int32_t>(size - kBlockHeader);
    std::memcpy(block, &newCapacity, sizeof newCapacity);
    s->impl = block + kBlockHeader;
    return 0;
}

template <int Size, bool Swap>
int32_t MemWriteItems(VxWriteStrm *s, const void *buf, int32_t n)
{
    if (s->error)
        return s->error;
    if (n <= 0)
        return 0;
    int64_t end = s->position + static_cast<int64_t>(n) * Size;
    if (int32_t code = MemReserve(s, end))
        return code;
    CopyItems<Size, Swap>(MemData(s) + s->position, static_cast<const uint8_t *>(buf), n);
    s->position = static_cast<int32_t>(end);
    s->length = std::max(s->length, s->position);
    return 0;
}

int32_t MemSeek(VxWriteStrm *s, int32_t offset)
{
    if (s->error)
        return s->error;
    s->position = std::clamp(offset, 0, s->length);
    return 0;
}

void FreeBlock(void *data)
{
    if (data)
        FreeHeap(BlockStart(data), static_cast<size_t>(BlockCapacity(data)) + kBlockHeader);
}

int32_t MemWriteDestroy(VxWriteStrm *s)
{
    int32_t error = s->error;
    FreeBlock(s->impl);
    FreeHeap(s, sizeof(VxWriteStrm));
    return error;
}

// ---- Construction ----------------------------------------------------------------------

void CloseFileArm(uintptr_t file, uintptr_t) { std::fclose(reinterpret_cast<FILE *>(file)); }

void InstallMemReadOps(VxReadStrm *s)
{
    s->destroy = MemReadDestroy;
    s->readBytes = MemReadItems<1, false>;
    s->readShorts = MemReadItems<2, true>;
    s->readShortsRaw = MemReadItems<2, false>;
    s->readLongs = MemReadItems<4, true>;
    s->readLongsRaw = MemReadItems<4, false>;
    s->skip = MemSkip;
    s->peekByte = MemPeek;
}

void InstallFileReadOps(VxReadStrm *s)
{
    s->destroy = FileReadDestroy;
    s->readBytes = FileReadItems<1, false>;
    s->readShorts = FileReadItems<2, true>;
    s->readShortsRaw = FileReadItems<2, false>;
    s->readLongs = FileReadItems<4, true>;
    s->readLongsRaw = FileReadItems<4, false>;
    s->skip = FileSkip;
    s->peekByte = FilePeek;
}

void InstallFileWriteOps(VxWriteStrm *s)
{
    s->destroy = FileWriteDestroy;
    s->writeBytes = FileWriteItems<1, false>;
    s->writeShorts = FileWriteItems<2, true>;
    s->writeShortsRaw = FileWriteItems<2, false>;
    s->writeLongs = FileWriteItems<4, true>;
    s->writeLongsRaw = FileWriteItems<4, false>;
    s->seek = FileSeek;
}

void InstallMemWriteOps(VxWriteStrm *s)
{
    s->destroy = MemWriteDestroy;
    s->writeBytes = MemWriteItems<1, false>;
    s->writeShorts = MemWriteItems<2, true>;
    s->writeShortsRaw = MemWriteItems<2, false>;
    s->writeLongs = MemWriteItems<4, true>;
    s->writeLongsRaw = MemWriteItems<4, false>;
    s->seek = MemSeek;
}

// Size of an open regular file, or -1 when it is not one.
int64_t RegularFileSize(FILE *file)
{
    struct stat st;
    if (fstat(fileno(file), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    if (fseeko(file, 0, SEEK_END) != 0)
        return -1;
    off_t size = ftello(file);
    if (fseeko(file, 0, SEEK_SET) != 0 || size < 0)
        return -1;
    return size;
}

VxWriteStrm *OpenWriteFile(const char *path, const char *mode)
{
    FILE *file = path ? std::fopen(path, mode) : nullptr;
    if (!file)
        return nullptr;
    std::setvbuf(file, nullptr, _IONBF, 0);  // the stream buffers for itself
    CKPT_BEGIN_OR_RETURN(nullptr);
    CkptArm(CloseFileArm, reinterpret_cast<uintptr_t>(file), 0);
    auto *w = static_cast<FileWriteStrm *>(StdAlloc(sizeof(FileWriteStrm)));
    CkptEnd();
    w->strm.impl = file;
    InstallFileWriteOps(&w->strm);
    return &w->strm;
}

}  // namespace

extern "C" {

VX_API void Swap2(void *buf, int32_t n) { SwapItems<2>(static_cast<uint8_t *>(buf), std::max(n, 0)); }

VX_API void Swap4(void *buf, int32_t n) { SwapItems<4>(static_cast<uint8_t *>(buf), std::max(n, 0)); }

VX_API VxReadStrm *FileStrmReadOpen(const char *path, const VxStrmMonitor *monitor)
{
    FILE *file = path ? std::fopen(path, "rb") : nullptr;
    if (!file)
        return nullptr;
    int64_t size = RegularFileSize(file);
    if (size < 0) {
        std::fclose(file);
        return nullptr;
    }
    std::setvbuf(file, nullptr, _IONBF, 0);  // the stream buffers for itself
    CKPT_BEGIN_OR_RETURN(nullptr);
    CkptArm(CloseFileArm, reinterpret_cast<uintptr_t>(file), 0);
    auto *r = static_cast<FileReadStrm *>(StdAlloc(sizeof(FileReadStrm)));
    CkptEnd();
    r->impl.file = file;
    r->impl.monitor = monitor;
    r->strm.impl = &r->impl;
    r->strm.remaining = size;
    InstallFileReadOps(&r->strm);
    if (monitor && monitor->start)  // its count is 32-bit: larger files report the largest it holds
        monitor->start(monitor->context, static_cast<int32_t>(std::min<int64_t>(size, INT32_MAX)));
    return &r->strm;
}

VX_API VxWriteStrm *FileStrmWriteOpen(const char *path) { return OpenWriteFile(path, "wb"); }

VX_API VxWriteStrm *FileStrmWriteText(const char *path) { return OpenWriteFile(path, "w"); }

VX_API VxReadStrm *MemStrmReadCreate(const void *data, int32_t size, int copy)
{
    if (size < 0 || (!data && size > 0))
        return nullptr;
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *r = static_cast<MemReadStrm *>(StdAlloc(sizeof(MemReadStrm)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(r), sizeof(MemReadStrm));
    const auto *bytes = static_cast<const uint8_t *>(data);
    if (copy && size > 0) {
        auto *own = static_cast<uint8_t *>(StdAlloc(static_cast<size_t>(size)));
        std::memcpy(own, data, static_cast<size_t>(size));
        bytes = own;
        r->impl.owned = 1;
    }
    CkptEnd();
    r->impl.data = bytes;
    r->impl.size = size;
    r->strm.impl = &r->impl;
    r->strm.remaining = size;
    InstallMemReadOps(&r->strm);
    return &r->strm;
}

VX_API VxWriteStrm *MemStrmWriteCreate(void)
{
    auto *s = static_cast<VxWriteStrm *>(StdAlloc(sizeof(VxWriteStrm)));
    if (s)
        InstallMemWriteOps(s);
    return s;
}

VX_API void *MemStrmWritePurge(VxWriteStrm *strm, int32_t *sizeOut)
{
    void *block = strm->impl;
    if (sizeOut)
        *sizeOut = block ? BlockCapacity(block) : 0;
    strm->impl = nullptr;
    strm->length = strm->position = strm->error = 0;
    return block;
}

VX_API void MemStrmFreeBlock(void *block) { FreeBlock(block); }

VX_API void StrmReadDestroy(VxReadStrm *strm)
{
    if (strm)
        strm->destroy(strm);
}

VX_API int32_t StrmWriteDestroy(VxWriteStrm *strm) { return strm ? strm->destroy(strm) : 0; }

}  // extern "C"
