/* Demo of the image operations on a generated picture: a gradient under a checker is blurred,
 * resampled down and up, and turned into a mipmap pyramid that answers filtered lookups. Every
 * image is also written as a PNG file. */
#include <vxtools3.h>
#include "vxtool_c.h"

#include <stdio.h>
#include <stdlib.h>

static FILE *g_out;
static const char *g_dir;
static int g_ok;

static void Check(int condition, const char *what)
{
    fprintf(g_out, "  [%s] %s\n", condition ? "ok" : "FAILED", what);
    if (!condition)
        g_ok = 0;
}

/* Writes `image` as <dir>/<name>.png. */
static void Save(VxImage *image, const char *name)
{
    char path[4096];
    snprintf(path, sizeof path, "%s/%s.png", g_dir, name);
    if (!vx_png_write(path, image))
        Check(0, "write a PNG file");
    else
        fprintf(g_out, "  wrote %s.png (%dx%d)\n", name, image->width, image->height);
}

static const uint8_t *PixelAt(VxImage *image, int x, int y)
{
    static uint8_t rgb[3];
    image->getPixel(image, VX_PIXEL_RGB, x, y, rgb);
    return rgb;
}

/* 64 x 48: red rises left to right, green top to bottom, blue alternates 40/220 in squares of 8. */
static VxImage *MakePicture(void)
{
    VxImage *image = ImageColorCreate(64, 48);
    int x, y;
    if (!image)
        return NULL;
    for (y = 0; y < 48; ++y)
        for (x = 0; x < 64; ++x) {
            uint8_t rgb[3];
            rgb[0] = (uint8_t)(4 * x);
            rgb[1] = (uint8_t)(5 * y);
            rgb[2] = (uint8_t)(((x / 8 + y / 8) % 2) ? 220 : 40);
            image->setPixel(image, VX_PIXEL_RGB, x, y, rgb);
        }
    return image;
}

/* Sum of absolute differences of horizontal neighbours in channel c: the edge energy. */
static long EdgeEnergy(VxImage *image, int c)
{
    long sum = 0;
    int x, y;
    for (y = 0; y < image->height; ++y)
        for (x = 1; x < image->width; ++x)
            sum += labs((long)PixelAt(image, x, y)[c] - (long)PixelAt(image, x - 1, y)[c]);
    return sum;
}

static void DemoBlur(VxImage *picture)
{
    VxImage *blurred = ImageBlur(picture, 5, 2.0, 2.0, 4); /* blue only */
    long before, after;
    if (!blurred) {
        Check(0, "ImageBlur returned an image");
        return;
    }
    before = EdgeEnergy(picture, 2);
    after = EdgeEnergy(blurred, 2);
    fprintf(g_out, "ImageBlur, 5 taps, sigma 2, blue channel only:\n");
    fprintf(g_out, "  blue edge energy %ld -> %ld; blue at a square edge (7,4)/(8,4): %d/%d -> %d/%d\n", before,
            after, PixelAt(picture, 7, 4)[2], PixelAt(picture, 8, 4)[2], PixelAt(blurred, 7, 4)[2],
            PixelAt(blurred, 8, 4)[2]);
    Check(after < before && abs(PixelAt(blurred, 8, 4)[2] - PixelAt(blurred, 7, 4)[2]) < 60,
          "the checker's edges are softened");
    Check(PixelAt(blurred, 3, 3)[0] == PixelAt(picture, 3, 3)[0] && PixelAt(blurred, 40, 30)[1] == PixelAt(picture, 40, 30)[1],
          "red and green, outside the channel mask, are untouched");
    Save(blurred, "blurred");
    ImageDestroy(blurred);
}

static void DemoResample(VxImage *picture)
{
    VxImage *half = ImageResample(picture, VX_PIXEL_RGBA_FLOAT, 32, 24, 2);
    VxImage *big = ImageResample2(picture, VX_PIXEL_RGB, 128, 96, 2, 5);
    float p[4];
    float mean = 0.0f;
    int dx, dy;
    fprintf(g_out, "ImageResample to 32x24 (area mode) and ImageResample2 to 128x96 (Catmull-Rom):\n");
    if (!half || !big) {
        Check(0, "both resamples returned images");
        ImageDestroy(half);
        ImageDestroy(big);
        return;
    }
    for (dy = 0; dy < 2; ++dy)
        for (dx = 0; dx < 2; ++dx)
            mean += (float)PixelAt(picture, 20 + dx, 10 + dy)[0] / 255.0f;
    half->getPixel(half, VX_PIXEL_RGBA_FLOAT, 10, 5, p);
    fprintf(g_out, "  half-size red at (10,5) = %.6f; mean of its 2x2 source block = %.6f\n", p[0], mean / 4.0f);
    Check(p[0] > mean / 4.0f - 1e-6f && p[0] < mean / 4.0f + 1e-6f, "each half-size pixel is its block's mean");
    fprintf(g_out, "  double-size red at (40,40)/(41,40) = %d/%d (source (20,20) = %d)\n", PixelAt(big, 40, 40)[0],
            PixelAt(big, 41, 40)[0], PixelAt(picture, 20, 20)[0]);
    Check(abs(PixelAt(big, 40, 40)[0] - 79) <= 1 && abs(PixelAt(big, 41, 40)[0] - 81) <= 1,
          "the red ramp is interpolated between pixel centres");
    Save(half, "half");
    Save(big, "double");
    ImageDestroy(half);
    ImageDestroy(big);
}

static void DemoMipmap(VxImage *picture)
{
    VxMipmap *m = MipmapCreate(picture, VX_PIXEL_RGB);
    int i, c;
    uint8_t top[3], fine[3], coarse[3], below[4][3];
    if (!m) {
        Check(0, "MipmapCreate returned a pyramid");
        return;
    }
    fprintf(g_out, "MipmapCreate: %d levels:", m->count);
    for (i = 0; i < m->count; ++i)
        fprintf(g_out, " %dx%d", m->levels[i]->width, m->levels[i]->height);
    fprintf(g_out, "\n");
    Check(m->count == 7 && m->levels[6]->width == 1 && m->levels[6]->height == 1, "64x48 halves down to 1x1 in 7 levels");
    m->levels[6]->getPixel(m->levels[6], VX_PIXEL_RGB, 0, 0, top);
    for (i = 0; i < 4; ++i)
        m->levels[5]->getPixel(m->levels[5], VX_PIXEL_RGB, i % 2, i / 2, below[i]);
    fprintf(g_out, "  the 1x1 level: %d %d %d; the 2x2 level below: %d %d %d | %d %d %d | %d %d %d | %d %d %d\n", top[0],
            top[1], top[2], below[0][0], below[0][1], below[0][2], below[1][0], below[1][1], below[1][2], below[2][0],
            below[2][1], below[2][2], below[3][0], below[3][1], below[3][2]);
    fprintf(g_out, "  (48 rows halve through 3: the odd row counts alone, so green is not the plain mean 117)\n");
    for (c = 0; c < 3; ++c)
        Check(abs(4 * top[c] - (below[0][c] + below[1][c] + below[2][c] + below[3][c])) <= 4,
              c == 0 ? "red of the top level is the mean of the level below"
                     : c == 1 ? "green likewise" : "blue likewise");
    MipmapFilteredPixel(m, VX_PIXEL_RGB, 1.1, 0.3, fine, 1, 0.0);
    MipmapFilteredPixel(m, VX_PIXEL_RGB, 0.1, 0.3, coarse, 1, 0.0);
    Check(fine[0] == coarse[0] && fine[2] == coarse[2], "u = 1.1 wraps to u = 0.1");
    MipmapFilteredPixel(m, VX_PIXEL_RGB, 0.1, 0.3, coarse, 1, 1.0 / 12.0);
    fprintf(g_out, "  filtered lookup at (0.1, 0.3): footprint 0 gives blue %d, footprint 1/12 gives blue %d\n",
            fine[2], coarse[2]);
    Check(coarse[2] > 60 && coarse[2] < 200, "a wide footprint blends the checker towards its mean");
    for (i = 0; i < m->count; ++i) {
        char name[16];
        snprintf(name, sizeof name, "mip-%d", i);
        Save(m->levels[i], name);
    }
    MipmapDestroy(m);
}

int vx_demo_image(FILE *out, const char *dir)
{
    VxImage *picture;
    g_out = out;
    g_dir = dir;
    g_ok = 1;
    picture = MakePicture();
    if (!picture)
        return 0;
    fprintf(out, "a 64x48 picture: red ramp across, green ramp down, blue checker of 8-pixel squares\n");
    Save(picture, "picture");
    DemoBlur(picture);
    DemoResample(picture);
    DemoMipmap(picture);
    ImageDestroy(picture);
    return g_ok;
}
