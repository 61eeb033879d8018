/* vxtools3 — IFF chunk files: writer and reader over streams.
 *
 * File layout (big-endian throughout): a chunk is a 4-byte ID, a length, the data and one zero
 * pad byte when the data length is odd; the length counts the data only. Level 0 is the outer
 * "FORM" chunk, whose data starts with a 4-byte form type; level 1 holds its chunks. Chunks at
 * levels 0 and 1 have a 32-bit length (8-byte header); chunks at level 2 and deeper have a
 * 16-bit length (6-byte header). At most 16 levels (0 to 15). A string is stored as its bytes,
 * a zero and, when the number of characters is even, one more zero, so that it always takes
 * an even number of bytes. Floats are IEEE singles stored like 32-bit integers.
 *
 * The writer patches each chunk's length when the chunk closes, so its stream must support
 * seek (file and memory write streams do). Writer functions return 0 or an error code: the
 * write stream's sticky error, or VX_ERR_FORMAT for a request the layout cannot express.
 *
 * Reader failures (a truncated header, a read beyond the chunk, a short read inside a chunk,
 * a chunk that does not fit its enclosing chunk) are raised with code VX_ERR_IO through the
 * innermost checkpoint block (see ckpt.h). With no block open the failing call returns 0 (or
 * -VX_ERR_IO for the item reads) instead, and the reader stays failed: every later call
 * returns that same result. */
#ifndef VXTOOLS3_IFF_H
#define VXTOOLS3_IFF_H

#include "common.h"
#include "lists.h"
#include "streams.h"

VX_BEGIN_DECLS

/* A chunk ID from its four characters: VX_ID('F','O','R','M'). */
#define VX_ID(a, b, c, d) \
    (((uint32_t)(uint8_t)(a) << 24) | ((uint32_t)(uint8_t)(b) << 16) | ((uint32_t)(uint8_t)(c) << 8) | (uint32_t)(uint8_t)(d))

enum { VX_IFF_LEVELS = 16 };

/* Bits of a level's `flags`. VX_IFF_STATE_BASE: a load or save state was set up while this
 * level was the innermost one, and the state never closes it. VX_IFF_ODD (reader): the
 * chunk's length is odd, so a pad byte follows its data. */
enum { VX_IFF_STATE_BASE = 1, VX_IFF_ODD = 2 };

typedef struct VxIFFWLevel {
    int32_t start; /* writer position of the chunk's ID */
    int32_t count; /* bytes written into the chunk so far, header included */
    int32_t flags;
} VxIFFWLevel;

/* Writer record; read its fields, change them only through the functions below. */
typedef struct VxIFFWriter {
    VxWriteStrm *stream; /* not owned */
    int32_t position;    /* bytes written through this writer */
    int32_t depth;       /* level of the innermost open chunk, -1 when none is open */
    VxIFFWLevel level[VX_IFF_LEVELS];
    int32_t origin;      /* stream offset at which the writer began */
} VxIFFWriter;

typedef struct VxIFFRLevel {
    int32_t end;       /* reader position of the chunk's end, pad included */
    int32_t remaining; /* data bytes of the chunk not yet consumed */
    int32_t flags;
} VxIFFRLevel;

typedef struct VxIFFReader VxIFFReader;

/* Property handler: called when a chunk of its ID is met, with the chunk open for reading;
 * returns the result kept for IFFRGetProp. `freeFn` releases a result (may be NULL). */
typedef void *VxIFFPropHandler(VxIFFReader *reader, void *userData, uint32_t id);
typedef void VxIFFPropFree(void *result, void *userData);

typedef struct VxIFFProp {
    VxNode node;
    uint32_t id;
    VxIFFPropHandler *handler;
    VxIFFPropFree *freeFn;
    void *userData;
    void *result; /* NULL until the chunk has been met */
} VxIFFProp;

/* Reader record; read its fields, change them only through the functions below. */
struct VxIFFReader {
    VxReadStrm *stream; /* not owned */
    uint32_t formType;  /* the form type the outer chunk must have; 0 accepts any */
    int32_t position;   /* bytes consumed through this reader */
    int32_t depth;      /* level of the innermost open chunk, -1 before the outer chunk */
    VxList handlers;    /* VxIFFProp records, newest first */
    VxIFFRLevel level[VX_IFF_LEVELS];
    int32_t error;      /* 0 while healthy; VX_ERR_IO after a read failure, VX_ERR_FORMAT when the
                         * file is not the expected form; the reader then stays failed */
};

/* ---- Writer ---------------------------------------------------------------------------- */

/* A writer over `stream` at position 0, depth -1; NULL when memory runs out. */
VX_API VxIFFWriter *IFFWCreate(VxWriteStrm *stream);
/* Frees the writer; the stream stays open. NULL is ignored. */
VX_API void IFFWDestroy(VxIFFWriter *writer);
/* Opens a chunk one level deeper: writes `id`, a placeholder length and, when `type` is not
 * 0, `type` as a 32-bit value (the form type of a "FORM"). VX_ERR_FORMAT when 16 levels are
 * already open. */
VX_API int32_t IFFWChunkOpen(VxIFFWriter *writer, uint32_t id, uint32_t type);
/* Pads an odd chunk, writes its length and closes it. VX_ERR_FORMAT when no chunk is open or
 * a chunk of level 2 or deeper holds more than 65535 bytes (it is closed all the same). */
VX_API int32_t IFFWChunkClose(VxIFFWriter *writer);
/* Write n items of 1, 2 or 4 bytes into the open chunk, multi-byte items big-endian; the
 * caller's buffer is not changed. VX_ERR_FORMAT (nothing written) when no chunk is open. */
VX_API int32_t IFFWriteBytes(VxIFFWriter *writer, const void *buf, int32_t n);
VX_API int32_t IFFWriteShorts(VxIFFWriter *writer, const void *buf, int32_t n);
VX_API int32_t IFFWriteLongs(VxIFFWriter *writer, const void *buf, int32_t n);
VX_API int32_t IFFWriteFloats(VxIFFWriter *writer, const float *buf, int32_t n);
/* Writes `text`, its terminator and, for an even number of characters, one more zero. */
VX_API int32_t IFFWriteString(VxIFFWriter *writer, const char *text);

/* ---- Reader ---------------------------------------------------------------------------- */

/* A reader over `stream`, depth -1, no handlers; NULL when memory runs out. */
VX_API VxIFFReader *IFFRCreate(VxReadStrm *stream);
/* Sets the form type the outer chunk must have (0, the default, accepts any). */
VX_API void IFFRFormType(VxIFFReader *reader, uint32_t type);
/* Registers a handler for chunks of `id`, met before any handler registered earlier. Returns
 * 1, or 0 when memory runs out (raised through an open checkpoint block). */
VX_API int IFFRSetProp(VxIFFReader *reader, uint32_t id, VxIFFPropHandler *handler, VxIFFPropFree *freeFn,
                       void *userData);
/* The result of the first handler registered for `id`, or NULL. */
VX_API void *IFFRGetProp(VxIFFReader *reader, uint32_t id);
/* Walks the level-1 chunks of the outer "FORM" until one whose ID is in `stopIds` (a
 * zero-terminated array, may be NULL) and returns that ID with the chunk open for reading.
 * Chunks with a handler are given to it instead. Returns 0 at the end of the form, when the
 * file is not a "FORM" of the expected type, or on a read failure. */
VX_API uint32_t IFFRParse(VxIFFReader *reader, const uint32_t *stopIds);
/* Opens the next chunk inside the current one and returns its ID (0 when there is none);
 * the walker for callers that descend into sub-chunks themselves. */
VX_API uint32_t IFFRChunkNext(VxIFFReader *reader);
/* Closes the innermost open chunk, skipping what is unread; returns 1, or 0 when no chunk
 * is open or on a read failure. */
VX_API int IFFRChunkClose(VxIFFReader *reader);
/* The bytes of the current chunk not yet read (its data length right after it was opened). */
VX_API int32_t IFFRChunkLength(VxIFFReader *reader);
/* Read `count` items of 1, 2, 4 and 4 bytes from the current chunk, multi-byte items from
 * big-endian. A negative count asks for at most |count| items. Returns the number of items
 * read; a positive count beyond the chunk is a read failure. */
VX_API int32_t IFFReadBytes(VxIFFReader *reader, void *buf, int32_t count);
VX_API int32_t IFFReadShorts(VxIFFReader *reader, void *buf, int32_t count);
VX_API int32_t IFFReadLongs(VxIFFReader *reader, void *buf, int32_t count);
VX_API int32_t IFFReadFloats(VxIFFReader *reader, float *buf, int32_t count);
/* Reads a stored string into `buf` (at most max - 1 characters and a zero; a longer string is
 * read to its end and cut) and its pad. Returns 1 after a complete string, 0 when nothing
 * could be read (an error when `required` is non-zero), or the number of characters read
 * when the chunk ends inside the string. */
VX_API int32_t IFFReadString(VxIFFReader *reader, char *buf, int32_t max, int required);
/* Releases every handler result (freeFn), the handlers and the reader; the stream stays
 * open. NULL is ignored. */
VX_API void IFFRDestroy(VxIFFReader *reader);

VX_END_DECLS

#endif
