/* vxtools3 — byte streams over files and memory.
 *
 * A read stream and a write stream each have one record layout for every kind of stream, so
 * that every reader and writer of the library works on files and on memory alike. Call the
 * operations through the record: strm->readLongs(strm, buf, n).
 *
 * The library's files are big-endian. The plain multi-byte operations (readShorts,
 * writeLongs, ...) swap the bytes of each item, which converts between file order and the
 * little-endian hosts the library runs on; the ...Raw variants move the bytes unchanged.
 *
 * Results: read operations return the number of items read (fewer near the end of the data)
 * or minus an error code; skip returns 0 or minus an error code; write operations and seek
 * return 0 or an error code; peekByte returns 0 with the byte stored, 1 at the end of the
 * data, or the error code. A negative count is treated as 0.
 *
 * Errors are sticky: once `error` is set every operation returns at once and does nothing.
 * File streams and memory write streams record any failure as error 2, even when the failing
 * call itself returned another code (4 for a monitor abort, 1 for exhausted memory). A memory
 * read stream never fails: its reads stop at the end of the data and a skip past the end
 * returns -2 without setting `error`.
 *
 * A read stream counts what is left in 64 bits (`remaining`), so file read streams open files
 * of any size and skip past data of any length; a single read still moves at most
 * 2147483647 bytes, and a memory read stream holds at most that many. Write streams count
 * 32-bit offsets: they hold at most 2147483647 bytes. */
#ifndef VXTOOLS3_STREAMS_H
#define VXTOOLS3_STREAMS_H

#include "common.h"

VX_BEGIN_DECLS

/* Failure codes shared by streams, the IFF reader and writer and the load and save states. */
enum {
    VX_ERR_NOMEM = 1,  /* the heap is exhausted */
    VX_ERR_IO = 2,     /* short read or write, failed seek, reading or skipping past the end */
    VX_ERR_FORMAT = 3, /* malformed data, or a request the format cannot express */
    VX_ERR_ABORT = 4   /* aborted by the progress monitor */
};

typedef struct VxReadStrm VxReadStrm;
typedef struct VxWriteStrm VxWriteStrm;

struct VxReadStrm {
    void *impl;        /* the implementation's own record */
    int64_t remaining; /* bytes still available */
    int32_t error;     /* sticky error code, 0 while healthy */
    void (*destroy)(VxReadStrm *strm);
    int32_t (*readBytes)(VxReadStrm *strm, void *buf, int32_t n);
    int32_t (*readShorts)(VxReadStrm *strm, void *buf, int32_t n); /* 16-bit, swapped */
    int32_t (*readShortsRaw)(VxReadStrm *strm, void *buf, int32_t n);
    int32_t (*readLongs)(VxReadStrm *strm, void *buf, int32_t n); /* 32-bit, swapped */
    int32_t (*readLongsRaw)(VxReadStrm *strm, void *buf, int32_t n);
    int32_t (*skip)(VxReadStrm *strm, int64_t nBytes);
    int32_t (*peekByte)(VxReadStrm *strm, uint8_t *byteOut);
};

struct VxWriteStrm {
    void *impl;       /* file streams: the FILE *; memory streams: the data block (or NULL) */
    int32_t length;   /* bytes in the stream: the highest end written */
    int32_t position; /* current write offset */
    int32_t error;    /* sticky error code, 0 while healthy */
    /* Releases the stream; returns 0, or the error code when not all data reached the file. */
    int32_t (*destroy)(VxWriteStrm *strm);
    int32_t (*writeBytes)(VxWriteStrm *strm, const void *buf, int32_t n);
    /* The swapped writes store each item byte-reversed; the caller's buffer is not touched. */
    int32_t (*writeShorts)(VxWriteStrm *strm, const void *buf, int32_t n);
    int32_t (*writeShortsRaw)(VxWriteStrm *strm, const void *buf, int32_t n);
    int32_t (*writeLongs)(VxWriteStrm *strm, const void *buf, int32_t n);
    int32_t (*writeLongsRaw)(VxWriteStrm *strm, const void *buf, int32_t n);
    /* Moves the write position to `offset`, clamped to 0 ... length. */
    int32_t (*seek)(VxWriteStrm *strm, int32_t offset);
};

/* Progress monitor of a file read stream, owned by the caller. `step` returns non-zero to
 * abort the reading. Its counts are 32-bit: a file of 2 GiB or more starts it with
 * 2147483647, and a skip longer than that is stepped in several pieces. */
typedef struct VxStrmMonitor {
    void *context;
    void (*start)(void *context, int32_t totalBytes);
    int (*step)(void *context, int32_t bytes);
    void (*done)(void *context);
} VxStrmMonitor;

/* Opens `path` for binary reading; `monitor` (may be NULL) is started with the file size and
 * stepped with every read and skip. Returns NULL when the file cannot be opened, is not a
 * regular file, or memory runs out (raised through an open checkpoint block). */
VX_API VxReadStrm *FileStrmReadOpen(const char *path, const VxStrmMonitor *monitor);
/* Creates or truncates `path` for binary writing; NULL when it cannot be created or memory
 * runs out. The stream buffers for itself: call StrmWriteDestroy to flush and close. */
VX_API VxWriteStrm *FileStrmWriteOpen(const char *path);
/* As FileStrmWriteOpen, in text mode (line ends may be translated by the platform). */
VX_API VxWriteStrm *FileStrmWriteText(const char *path);
/* A read stream over `size` bytes at `data`: with `copy` non-zero the stream reads its own
 * copy, otherwise the caller's bytes in place (they must outlive the stream). NULL when
 * memory runs out, `size` is negative, or `data` is NULL with a positive size. */
VX_API VxReadStrm *MemStrmReadCreate(const void *data, int32_t size, int copy);
/* An empty memory write stream; NULL when memory runs out. */
VX_API VxWriteStrm *MemStrmWriteCreate(void);
/* Takes the data block away from a memory write stream and returns it (NULL when nothing was
 * written). `sizeOut`, when given, receives the block's capacity (0 for no block), not the
 * bytes written: read strm->length first. The stream starts again empty and healthy. Free
 * the block with MemStrmFreeBlock. */
VX_API void *MemStrmWritePurge(VxWriteStrm *strm, int32_t *sizeOut);
/* Frees a block returned by MemStrmWritePurge; NULL is ignored. */
VX_API void MemStrmFreeBlock(void *block);
/* Closes a read stream (the monitor's `done` is called) and frees it; NULL is ignored. */
VX_API void StrmReadDestroy(VxReadStrm *strm);
/* Flushes and closes a write stream, frees it and its unpurged block; returns 0, or the error
 * code when the stream had failed or its last data could not be written. NULL gives 0. */
VX_API int32_t StrmWriteDestroy(VxWriteStrm *strm);

/* Reverse the bytes of each of `n` consecutive 2-byte / 4-byte units at `buf` in place. */
VX_API void Swap2(void *buf, int32_t n);
VX_API void Swap4(void *buf, int32_t n);

VX_END_DECLS

#endif
