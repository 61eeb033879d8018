/* vxtools3 — load and save states: one table of typed operations for saved data, in a binary
 * variant over IFF and a text variant over text streams.
 *
 * Saved data is a tree of blocks holding values. A block is named by a descriptor: a 4-byte
 * ID (used by the binary variant: each block is an IFF chunk) and a keyword (used by the text
 * variant). A writer calls beginBlock, writes values and nested blocks, and calls endBlock; a
 * reader calls findBlock with the descriptors it knows, reads the values in the order they
 * were written, and calls endBlock, which skips whatever it did not read. Read a block's
 * values before its sub-blocks: the binary variant cannot tell one from the other.
 *
 * Value kinds: bytes, 2-byte and 4-byte integers, 4-byte IDs, IEEE single floats, strings,
 * and the variable-length index (0 ... 0xFFFFFF; in binary 2 bytes below 0xFF00, otherwise 4
 * bytes with the top byte 0xFF).
 *
 * Every operation returns at once when `error` is set. Results: findBlock returns the ID of
 * the block it entered, or 0 at the end of the current block (or on failure); endBlock and the
 * writes return 0 or an error code; the reads return the number of values read, which is
 * fewer than asked when the current block has no more values, or minus an error code;
 * readString and readIndex return 1 for a value, 0 for none. Codes (see streams.h):
 * VX_ERR_IO for a failed or truncated stream, VX_ERR_FORMAT for malformed input (the text
 * variant then names the problem and its line in `message` and `line`, and writes them to
 * the debug output) or a value the format cannot hold. The load and save states never raise
 * through checkpoint blocks and never allocate.
 *
 * ---- Text syntax --------------------------------------------------------------------------
 *
 *     text     = { NEWLINE | value | block } EOF
 *     block    = KEYWORD { value } [ "{" { NEWLINE | value | block } "}" ]
 *     value    = NUMBER | STRING | ID
 *
 * A block's head is its keyword and the values on the same line. The head ends at the end of
 * the line, at a "}" or at the next keyword; a "{" in the head opens a body of values and
 * nested blocks that runs to the matching "}". Outside strings, blanks, tabs and carriage
 * returns separate tokens and "#" starts a comment that runs to the end of the line.
 *
 *     KEYWORD  a letter or "_", then letters, digits, "_", "." or "-" (at most 63 characters)
 *     NUMBER   a token that starts with a digit, "+", "-" or "." and runs on through letters,
 *              digits, "_", ".", "+" and "-": integers in decimal or "0x" hexadecimal; floats
 *              in decimal (written in the shortest form that reads back to the same value) or
 *              as "0x" and the 8 hex digits of their bits (written so for infinities and NaNs)
 *     STRING   bytes between double quotes; \" \\ \n \t \r and \xHH (not 00) are escapes, and
 *              a raw line end inside a string is an error
 *     ID       four characters between single quotes, e.g. 'TCB '; an ID with other bytes is
 *              written as a hexadecimal number, which is also accepted where an ID is read
 *
 * Each value is one token. Bytes are written 0 ... 255, 2- and 4-byte integers as signed
 * decimals (reading also accepts the unsigned range). The writer puts a block with no nested
 * blocks on one line and indents bodies by two blanks per level:
 *
 *     Entry {
 *       Class "ImageFilterHandler"
 *       Name "Blur"
 *       InfoTag 65536 "Soft \"blur\""
 *     }
 *     Key 0.5 1.25
 *     Span 'TCB ' 0 0 0
 *
 * Nesting is limited to 16 levels, as in IFF files. */
#ifndef VXTOOLS3_STATES_H
#define VXTOOLS3_STATES_H

#include "common.h"
#include "iff.h"
#include "streams.h"

VX_BEGIN_DECLS

/* Names one kind of block. A NULL keyword stands for the ID's characters without trailing
 * blanks. */
typedef struct VxBlockDesc {
    uint32_t id;
    const char *keyword;
} VxBlockDesc;

enum { VX_STATE_BINARY = 0, VX_STATE_TEXT = 1 };
enum { VX_STATE_LEVELS = 16, VX_STATE_TOKEN = 64 };

typedef struct VxLoadState VxLoadState;
typedef struct VxSaveState VxSaveState;

struct VxLoadState {
    int32_t kind;        /* VX_STATE_BINARY or VX_STATE_TEXT */
    int32_t error;       /* sticky error code, 0 while healthy */
    int32_t depth;       /* blocks entered through this state and not yet ended */
    int32_t line;        /* text: the line of the failure, or of the last token read */
    const char *message; /* text: what was malformed, NULL while healthy */
    /* Enters the next block of the current one whose ID (binary) or keyword (text) is in
     * `blocks` (an array ended by an ID of 0), skipping others. */
    uint32_t (*findBlock)(VxLoadState *state, const VxBlockDesc *blocks);
    int32_t (*endBlock)(VxLoadState *state);
    int32_t (*readBytes)(VxLoadState *state, uint8_t *buf, int32_t n);
    int32_t (*readShorts)(VxLoadState *state, int16_t *buf, int32_t n);
    int32_t (*readLongs)(VxLoadState *state, int32_t *buf, int32_t n);
    int32_t (*readIDs)(VxLoadState *state, uint32_t *buf, int32_t n);
    int32_t (*readFloats)(VxLoadState *state, float *buf, int32_t n);
    /* At most max - 1 characters and a zero; a longer string is read to its end and cut. */
    int32_t (*readString)(VxLoadState *state, char *buf, int32_t max);
    int32_t (*readIndex)(VxLoadState *state, uint32_t *index);
    /* The rest is the state's own. */
    VxIFFReader *reader;
    VxReadStrm *stream;
    uint32_t braced; /* text: bit d set when the block at depth d has opened its body */
    int32_t look;    /* text: the next character, -1 at the end, -2 when not read yet */
    int32_t token;   /* text: the kind of the token looked at, 0 for none */
    int32_t tokenLine;
    char text[VX_STATE_TOKEN];
};

struct VxSaveState {
    int32_t kind;  /* VX_STATE_BINARY or VX_STATE_TEXT */
    int32_t error; /* sticky error code, 0 while healthy */
    int32_t depth; /* blocks begun through this state and not yet ended */
    int32_t (*beginBlock)(VxSaveState *state, const VxBlockDesc *block);
    int32_t (*endBlock)(VxSaveState *state);
    int32_t (*writeBytes)(VxSaveState *state, const uint8_t *buf, int32_t n);
    int32_t (*writeShorts)(VxSaveState *state, const int16_t *buf, int32_t n);
    int32_t (*writeLongs)(VxSaveState *state, const int32_t *buf, int32_t n);
    int32_t (*writeIDs)(VxSaveState *state, const uint32_t *buf, int32_t n);
    int32_t (*writeFloats)(VxSaveState *state, const float *buf, int32_t n);
    int32_t (*writeString)(VxSaveState *state, const char *text); /* NULL writes "" */
    int32_t (*writeIndex)(VxSaveState *state, uint32_t index);
    /* The rest is the state's own. */
    VxIFFWriter *writer;
    VxWriteStrm *stream;
    uint32_t braced;   /* text: bit d set when the block at depth d has opened its body */
    int32_t lineStart; /* text: nothing written yet on the current line */
};

/* Sets up a text load state reading `stream` from its current position. */
VX_API void StrmInitLoadState(VxLoadState *state, VxReadStrm *stream);
/* Sets up a text save state writing to `stream` (FileStrmWriteText or a memory stream). */
VX_API void StrmInitSaveState(VxSaveState *state, VxWriteStrm *stream);
/* Sets up a binary load state over `reader`: blocks are the sub-chunks of the reader's open
 * chunk; before the outer chunk is read, the first findBlock reads it and checks that it is a
 * "FORM" of the reader's form type (VX_ERR_FORMAT otherwise). */
VX_API void IFFInitLoadState(VxLoadState *state, VxIFFReader *reader);
/* Sets up a binary save state over `writer`: blocks become chunks inside the writer's open
 * chunk (open the "FORM" first). */
VX_API void IFFInitSaveState(VxSaveState *state, VxIFFWriter *writer);

VX_END_DECLS

#endif
