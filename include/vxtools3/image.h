/* vxtools3 — image buffers, pixel conversion, resampling, convolution, blur and mipmaps.
 *
 * An image is a width, a height, one pixel type and a packed buffer (rows top to bottom, no
 * padding), reached through the table of operations carried in the record. Pixel types:
 *
 *   0 RGB bytes (3)   1 grey byte (1)   2 palette index (1)   3 grey float (4)
 *   4 RGB floats (12) 5 RGBA bytes (4)  6 RGBA floats (16)
 *
 * Float channels are nominally 0.0 to 1.0, byte channels 0 to 255. Every operation that
 * allocates does so inside a checkpoint block (ckpt.h): an allocation failure unwinds an open
 * outer block, and with none open the operation returns its failure value (NULL or 0).
 *
 * Palettes. An image has up to two palettes of 256 RGB triples. Palette 0 is the palette of
 * the stored indices; palette 1, when present, is the palette in which type-2 pixels are
 * handed to and from callers (when absent, callers use palette 0 as well). While the two agree
 * (the palettes-agree flag), type-2 pixels are copied as they are; otherwise they are
 * translated through RGB. Converting a colour to an index uses a 65,536-entry inverse table
 * keyed by the 5-6-5 reduction of the colour: each key holds the palette entry nearest (in
 * squared RGB distance, lowest index on ties) to the key's colour (each field's bits repeated
 * into the low bits, so 5-6-5 black and white map to 0,0,0 and 255,255,255). */
#ifndef VXTOOLS3_IMAGE_H
#define VXTOOLS3_IMAGE_H

#include "common.h"

VX_BEGIN_DECLS

enum {
    VX_PIXEL_RGB = 0,
    VX_PIXEL_GREY = 1,
    VX_PIXEL_INDEX = 2,
    VX_PIXEL_GREY_FLOAT = 3,
    VX_PIXEL_RGB_FLOAT = 4,
    VX_PIXEL_RGBA = 5,
    VX_PIXEL_RGBA_FLOAT = 6
};

/* Recovery code raised by ImageCreate for a pixel type with no size or a bad size. */
#define VX_IMAGE_BAD_TYPE 995

typedef struct VxImagePrivate VxImagePrivate;
typedef struct VxImage VxImage;

/* The image record. Create images with ImageCreate only and free them with ImageDestroy. */
struct VxImage {
    int32_t width;
    int32_t height;
    int32_t type;
    uint32_t bytesPerPixel;
    VxImagePrivate *priv;
    /* Frees the image and everything it owns. */
    void (*destroy)(VxImage *image);
    /* Pixel (x, y) as `type` into `out` / from `in`: 1, or 0 for a null argument, a point
     * outside the image or a failed conversion. Never clips. */
    int (*getPixel)(VxImage *image, int32_t type, int32_t x, int32_t y, void *out);
    int (*setPixel)(VxImage *image, int32_t type, int32_t x, int32_t y, const void *in);
    /* Row y (width pixels) as `type`: 1, or 0 as above (stops at the first failed pixel). */
    int (*getLine)(VxImage *image, int32_t type, int32_t y, void *out);
    int (*setLine)(VxImage *image, int32_t type, int32_t y, const void *in);
    /* Copies min(count, 256 - first) triples of palette `which` (0 or 1) into `out`; returns
     * one past the palette's highest written index (count 0 asks only for that), 0 when the
     * palette does not exist or an argument is bad. */
    int (*getPalette)(VxImage *image, int32_t which, int32_t first, int32_t count, uint8_t *out);
    /* Writes min(count, 256 - first) triples (count >= 1) into palette `which`, creating it
     * as the grey ramp (i, i, i) first; invalidates both inverse tables and recomputes the
     * palettes-agree flag. Returns 1, or 0 on a bad argument or a failed allocation. */
    int (*setPalette)(VxImage *image, int32_t which, int32_t first, int32_t count, const uint8_t *in);
    /* Copies attribute word `code` (0..9) out / in: 1, or 0 for a bad code or null pointer.
     * Attributes 0..5 are floats (initially 1.0; 0 is the pixel aspect that resampling
     * rescales); 6..9 are integers, initially 0, 2540, 0 and 1. */
    int (*getAttribute)(VxImage *image, int32_t code, void *out);
    int (*setAttribute)(VxImage *image, int32_t code, const void *in);
};

/* A mipmap pyramid: `count` levels, level 0 the full-size image, each next level half the
 * size of the one before (rounded up). */
typedef struct VxMipmap {
    int32_t count;
    int32_t sharesLevel0; /* level 0 is the caller's image and is not destroyed with the pyramid */
    VxImage **levels;
} VxMipmap;

/* Sets how many workers ImageBlur, ImageConvolve, ImageResample, ImageResample2 and the
 * mipmap builders split their rows over, for the whole process, from the next operation on:
 * 1 (the default) works on the calling thread alone and starts no thread; n > 1 runs up to n
 * threads of a thread group (threads.h) for an image large enough to share; 0 means one per
 * processor. At most 64 are used. Results are byte for byte the same for every count, and a
 * failure in any worker makes the whole operation fail as it would on one thread. Returns
 * the previous setting, or -1 (setting unchanged) for a negative count. */
VX_API int32_t ImageSetWorkers(int32_t workers);
/* Returns the worker setting (0 meaning one per processor). */
VX_API int32_t ImageGetWorkers(void);

/* Bytes per pixel of `type`, 0 for an unknown type. */
VX_API uint32_t ImageBytesPerPixel(int32_t type);

/* Returns a new zero-filled image, or NULL. An unknown type or a width or height below 1
 * raises VX_IMAGE_BAD_TYPE; an exhausted heap raises code 1. */
VX_API VxImage *ImageCreate(int32_t type, int32_t width, int32_t height);
/* ImageCreate of an RGB byte (type 0) / grey byte (type 1) image. */
VX_API VxImage *ImageColorCreate(int32_t width, int32_t height);
VX_API VxImage *ImageGreyCreate(int32_t width, int32_t height);
/* A type-2 image; when entries > 0 (at most 256) palette 0 holds a grey ramp of that many
 * entries, entry k being (256 k) / entries. NULL on failure. */
VX_API VxImage *ImageIndexCreate(int32_t width, int32_t height, int32_t entries);
/* Calls the image's destroy operation; NULL is ignored. */
VX_API void ImageDestroy(VxImage *image);

/* Converts one pixel from `in` (of inType; a type-2 input needs the 768-byte `inPalette`) to
 * `out` (of outType; a type-2 output needs the 65,536-byte inverse table `outInverse`).
 * Returns 1, or 0 for an unknown type or a missing palette or table. */
VX_API int ImageConvertPixel(void *out, int32_t outType, const uint8_t *outInverse, const void *in,
                             int32_t inType, const uint8_t *inPalette);
/* Fills `table` (65,536 bytes) with the inverse lookup table of the 768-byte `palette`. */
VX_API void ImageBuildInverseTable(const uint8_t *palette, uint8_t *table);

/* A copy of `image` converted to `type` (palettes copied). For type 2 a given 768-byte
 * `palette` becomes the copy's palette 0 and the conversion target. NULL on failure. */
VX_API VxImage *ImageDuplicate(VxImage *image, int32_t type, const uint8_t *palette);
/* A new image of the source's type holding the rectangle at (x, y) of the given size, which
 * must lie inside the source. NULL on failure. */
VX_API VxImage *ImageDuplicateArea(VxImage *image, int32_t x, int32_t y, int32_t width, int32_t height);

/* Resamples `image` to width x height of `type`. Source coordinates: result pixel x covers
 * [x sx, (x + 1) sx) with sx = source width / width; edges repeat outward. Modes:
 *   0 point sampling at the pixel centre; when the result is larger in either direction,
 *     bilinear interpolation between pixel centres instead;
 *   1 the unweighted mean of the source pixels whose columns lie in [floor(x sx),
 *     ceil((x + 1) sx)) (at least one), at most 1,024 taken in row order;
 *   2 the area average of the footprint, partly covered pixels weighted by their coverage;
 *   3 the area average of the unit square centred on (x sx, y sy), weighted by coverage,
 *     the part outside the image left out;
 *   4 cubic B-spline, 5 Catmull-Rom cubic, both at the pixel centre (x + 0.5) sx - 0.5.
 * The result's attribute 0 is multiplied by (width / height) (source height / source width).
 * NULL for a null image, a size below 1, an unknown mode or a failed read or write. */
VX_API VxImage *ImageResample(VxImage *image, int32_t type, int32_t width, int32_t height, int32_t mode);
/* Resamples with `shrinkMode` where a direction shrinks and `growMode` where it grows; the
 * same size gives ImageDuplicate. When one direction shrinks and the other grows the result
 * is the grow-mode resample of the source. NULL on failure. */
VX_API VxImage *ImageResample2(VxImage *image, int32_t type, int32_t width, int32_t height,
                               int32_t shrinkMode, int32_t growMode);

/* Convolves `image` with the columns x rows row-major `matrix` (edges repeat), adds `offset`
 * (NULL or four floats R, G, B, A), clamps to 0..1 and returns a new image of `type`. Sums
 * are taken in float, matrix row by row. NULL on bad arguments or failure. */
VX_API VxImage *ImageConvolve(VxImage *image, int32_t type, const float *matrix, int32_t columns,
                              int32_t rows, const float *offset);
/* Fills columns x rows floats with a Gaussian normalised to sum 1, element (i, j) at
 * x = i - columns / 2.0, y = j - rows / 2.0 (1 / sigma as the coefficient; a sigma <= 0
 * makes that direction a single line). */
VX_API void fillGaussianMatrix(double sigmaX, double sigmaY, float *out, int32_t columns, int32_t rows);
/* Blurs `image` with a kernel of 2 taps - 1 samples per direction. Byte types 0, 1 and 5 use
 * the fixed-point separable blur (taps 1..9; `channelMask` bits 1 R, 2 G, 4 B, 8 A select
 * channels, grey is always blurred); other types convolve with a Gaussian matrix (taps >= 1).
 * NULL on bad arguments or when the result cannot be created; when only the separable work
 * buffer cannot be allocated the result is returned with its pixels unwritten (zero). */
VX_API VxImage *ImageBlur(VxImage *image, int32_t taps, double sigmaH, double sigmaV, uint32_t channelMask);

/* Samples `image` at (u, v) in 0..1 of its width and height as `type` into `out`: bilinear
 * between the four nearest pixel centres (pixel x centred at (x + 0.5) / width), edge pixels
 * repeating outward, computed on RGBA floats. Returns 1, or 0 for bad arguments. */
VX_API int ImageBiLinearPixel(VxImage *image, int32_t type, double u, double v, void *out);

/* Builds the pyramid of `image` converted to `type` (MipmapCreateSmall with sharesLevel0 0).
 * With sharesLevel0 non-zero the source itself is level 0. Each level
 * pixel is the mean of the (up to) four pixels below it. NULL on failure. */
VX_API VxMipmap *MipmapCreate(VxImage *image, int32_t type);
VX_API VxMipmap *MipmapCreateSmall(VxImage *image, int32_t type, int32_t sharesLevel0);
/* Destroys the levels (not a shared level 0) and the record; returns 1 (0 for NULL). */
VX_API int MipmapDestroy(VxMipmap *mipmap);
/* Samples the pyramid at (u, v) (wrapped into 0..1) as `type`, choosing and blending levels
 * for a footprint of `filterSize` (0 or less: level 0); `bilinear` selects bilinear instead
 * of nearest sampling. Returns 1, or 0 for bad arguments (blends cannot yield type 2). */
VX_API int MipmapFilteredPixel(VxMipmap *mipmap, int32_t type, double u, double v, void *out,
                               int32_t bilinear, double filterSize);

VX_END_DECLS

#endif
