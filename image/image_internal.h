// Private layout of images and helpers shared by the image operations.
#pragma once

#include <vxtools3/ckpt.h>
#include <vxtools3/image.h>
#include <vxtools3/memory.h>

#include <cstddef>
#include <cstdint>

// Hot pixel loops are built twice, for AVX2 and for the baseline, and chosen once at load.
// The AVX2 copy performs the same float operations in the same order on wider vectors (the
// target does not enable FMA, and contraction is off anyway), so results are identical.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define VX_IMAGE_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define VX_IMAGE_CLONES
#endif

namespace vx::image {

constexpr size_t kPaletteBytes = 768;
constexpr size_t kInverseBytes = 65536;
constexpr int kAttributeCount = 10;

struct Palette {
    uint8_t *rgb;      // 256 triples, NULL until first written
    int32_t first;     // lowest written index
    int32_t end;       // one past the highest written index
    uint8_t *inverse;  // 65,536-entry inverse table, NULL until first needed
    int32_t inverseValid;
};

}  // namespace vx::image

struct VxImagePrivate {
    uint8_t *pixels;
    int32_t palettesAgree;
    vx::image::Palette palette[2];
    uint32_t attributes[vx::image::kAttributeCount];
};

namespace vx::image {

inline size_t BufferBytes(const VxImage *image)
{
    return static_cast<size_t>(image->width) * static_cast<size_t>(image->height) * image->bytesPerPixel;
}

inline uint8_t *Row(const VxImage *image, int32_t y)
{
    return image->priv->pixels + static_cast<size_t>(y) * static_cast<size_t>(image->width) * image->bytesPerPixel;
}

// Palette used to read stored indices (palette 0, else palette 1), or NULL.
const uint8_t *StoredPalette(const VxImage *image);
// Palette in which callers exchange indices (palette 1, else palette 0), or NULL.
const uint8_t *CallerPalette(const VxImage *image);
// Inverse table for writing stored indices / for handing indices to callers, built on first
// use (may raise code 1); NULL when the image has no palette.
const uint8_t *StoredInverse(VxImage *image);
const uint8_t *CallerInverse(VxImage *image);

// Copies the palettes of `from` into `to` (may raise code 1).
void CopyPalettes(VxImage *to, const VxImage *from);

// Checkpoint action that destroys an image: CkptArm(DestroyImageArm, (uintptr_t)image, 0).
void DestroyImageArm(uintptr_t image, uintptr_t);

// Reads the whole image as RGBA floats into `out` (width x height x 4 floats). Returns false
// when a pixel cannot be converted.
bool ReadRgbaFloat(VxImage *image, float *out);

// Allocates `bytes` and arms its release in the innermost block (raises code 1 on failure).
inline void *AllocArmed(size_t bytes)
{
    void *block = StdAlloc(bytes);
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(block), bytes);
    return block;
}

}  // namespace vx::image

namespace vx::image {

// Code raised inside an image operation's own block for a failure that is not an allocation
// failure (a pixel that cannot be converted); the operation swallows it and returns failure.
constexpr int kLocalFailure = 0x1A6E;

// Weights of the four taps of resample mode 4 (cubic B-spline) or 5 (Catmull-Rom) at
// fraction t (0 <= t < 1).
void CubicWeights(int32_t mode, double t, double w[4]);

}  // namespace vx::image

// Opens an image operation's block: allocation failures are handed outward (or make the
// function return `failure`); kLocalFailure only makes it return `failure`.
#define VX_IMAGE_BEGIN(failure)                      \
    if (CkptBegin()) {                               \
        const int vxCode = CkptLatchCode();          \
        if (vxCode != vx::image::kLocalFailure)      \
            CkptRecover(vxCode);                     \
        return failure;                              \
    }

namespace vx::image {

// Scratch memory of one operation: every block taken is released together, by the armed
// action on a failure or by Release() after success. Lives in the frame that opens the block.
struct Scratch {
    static constexpr int kMaxBlocks = 8;
    void *block[kMaxBlocks];
    size_t size[kMaxBlocks];
    int count;

    // Allocates `bytes` zero-filled bytes (raises code 1 on failure).
    template <class T>
    T *Take(size_t bytes)
    {
        void *b = StdAlloc(bytes);
        block[count] = b;
        size[count] = bytes;
        ++count;
        return static_cast<T *>(b);
    }
    void Release()
    {
        while (count > 0) {
            --count;
            FreeHeap(block[count], size[count]);
        }
    }
};

inline void ReleaseScratchArm(uintptr_t scratch, uintptr_t) { reinterpret_cast<Scratch *>(scratch)->Release(); }

inline void ArmScratch(Scratch &scratch)
{
    scratch.count = 0;
    CkptArm(ReleaseScratchArm, reinterpret_cast<uintptr_t>(&scratch), 0);
}

}  // namespace vx::image

namespace vx::image {

// ---- workers (image/workers.cpp) ----

// The most workers an operation uses, whatever ImageSetWorkers asked for.
constexpr int32_t kMaxWorkers = 64;
// Work (about one pixel's worth a unit) below which a part is not worth a thread of its own.
constexpr int64_t kDefaultMinPartWork = 1 << 15;

// The worker count in effect: the setting, 0 read as the processor count, at most kMaxWorkers.
int32_t WorkerCount();
// Changes the smallest work per part (tests make tiny images split).
void SetMinPartWork(int64_t work);
// Parts to split `units` independent pieces (rows, strips) of `work` in all into: at most the
// worker count and `units`, and so that each part gets at least the smallest work.
int32_t PartsFor(int64_t units, int64_t work);

// One part of an operation: part `part` of the parts the operation was split into.
using PartWork = void(void *context, int32_t part);
// Runs work(context, 0 .. parts - 1), each part on a worker thread when parts > 1 (in the
// calling thread when 1), and returns when all have ended. A part that fails ends alone; the
// first failed part's code is then raised here (may raise code 1 for the thread group).
void RunParts(int32_t parts, PartWork *work, void *context);

// One piece of an operation: units [first, end) of it (rows, strips), done by worker
// `worker` (0 .. workers - 1), which picks the worker's own scratch.
using PieceWork = void(void *context, int32_t worker, int32_t first, int32_t end);
// Runs work over units [0, units) on `workers` parts of RunParts: with more than one worker,
// the units are cut into a few pieces per worker, which the workers take in turn as each
// becomes free, so that a worker slowed down (by another program on its processor) leaves
// its share to the others. After a failure no new piece starts; it is raised as RunParts does.
void RunPieces(int32_t workers, int32_t units, PieceWork *work, void *context);

}  // namespace vx::image
