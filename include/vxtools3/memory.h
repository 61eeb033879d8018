/* vxtools3 — memory helpers.
 *
 * Every allocation of the library goes through these helpers. Blocks are freed with the exact
 * size they were allocated with. When the heap is exhausted, StdAlloc and StdRealloc raise
 * recovery code 1 through the innermost open checkpoint block (see ckpt.h); with no block
 * open they return NULL instead.
 *
 * The heap itself is an installable table of functions (StdAllocator), so that an application
 * can route the library's memory through its own allocator. */
#ifndef VXTOOLS3_MEMORY_H
#define VXTOOLS3_MEMORY_H

#include "common.h"

VX_BEGIN_DECLS

/* Heap interface. `alloc` returns a zero-filled block of `size` bytes or NULL. `realloc` may
 * be NULL (the helpers then allocate, copy and free); when given it resizes `block` from
 * `oldSize` to `newSize` bytes, returning NULL and leaving `block` intact on failure (the
 * helpers zero-fill any growth themselves). `free` releases a block of the given size. `trim`
 * may be NULL; when given it returns unused memory to the system. `user` is passed to all. */
typedef struct StdAllocator {
    void *(*alloc)(void *user, size_t size);
    void *(*realloc)(void *user, void *block, size_t oldSize, size_t newSize);
    void (*free)(void *user, void *block, size_t size);
    void (*trim)(void *user);
    void *user;
} StdAllocator;

/* Installs a copy of `allocator` (NULL restores the default: the C library heap, with blocks
 * of 4 MiB and more mapped from the system on 2 MiB boundaries, huge pages advised, and
 * unmapped when freed). Install it before any block is allocated, or free every block with
 * the allocator that made it. */
VX_API void StdSetAllocator(const StdAllocator *allocator);
/* Copies the allocator in use into `out`. */
VX_API void StdGetAllocator(StdAllocator *out);

/* Returns `size` zero-filled bytes; on exhaustion raises code 1 (NULL when no block is open). */
VX_API void *StdAlloc(size_t size);
/* Moves `block` (`oldSize` bytes, may be NULL) to a new block of `newSize` bytes: the first
 * min(old, new) bytes are kept and growth is zero-filled. A new size of 0 frees the block and
 * returns NULL. On exhaustion raises code 1 (NULL when no block is open); `block` stays valid. */
VX_API void *StdRealloc(void *block, size_t oldSize, size_t newSize);
/* Returns `size` zero-filled bytes, or NULL when the heap is exhausted: never raises, even
 * inside an open checkpoint block. For callers that have a fallback when memory runs out. */
VX_API void *StdTryAlloc(size_t size);
/* StdRealloc that never raises: returns the moved block, or NULL when the heap is exhausted
 * (then `block` stays valid and unchanged). A new size of 0 frees the block and returns NULL. */
VX_API void *StdTryRealloc(void *block, size_t oldSize, size_t newSize);
/* Frees a block of exactly `size` bytes (NULL is ignored). After more than 4194304 bytes have
 * been freed the heap is asked to return memory to the system and "calling heapmin\n" is
 * written to the debug output. */
VX_API void FreeHeap(void *block, size_t size);
/* Checkpoint release action for plain blocks: CkptArm(StdFreeArm, (uintptr_t)block, size). */
VX_API void StdFreeArm(uintptr_t block, uintptr_t size);
/* Returns an allocated copy of `text` (NULL for NULL; raises like StdAlloc). */
VX_API char *StringCopy(const char *text);
/* Frees a string made by StringCopy (NULL is ignored). */
VX_API void StringFree(char *text);
/* Checkpoint release action for strings made by StringCopy: CkptArm(StringFreeArm, (uintptr_t)text, 0). */
VX_API void StringFreeArm(uintptr_t text, uintptr_t unused);

VX_END_DECLS

#endif
