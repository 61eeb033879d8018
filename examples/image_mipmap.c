/* A mipmap pyramid of a generated 64 x 48 picture: every level is the mean of the one below,
 * filtered lookups wrap and blend, and each level is written into `dir` as a Netpbm (.pam)
 * picture, mip-0.pam the largest. */
#include <vxtools3.h>

#include <stdio.h>
#include <stdlib.h>

/* Writes the RGB picture `image` as <dir>/mip-<level>.pam; 1 when written. */
static int WriteLevel(const char *dir, int level, VxImage *image)
{
    char path[4096];
    uint8_t rgb[3];
    snprintf(path, sizeof path, "%s/mip-%d.pam", dir, level);
    FILE *file = fopen(path, "wb");
    if (!file)
        return 0;
    fprintf(file, "P7\nWIDTH %d\nHEIGHT %d\nDEPTH 3\nMAXVAL 255\nTUPLTYPE RGB\nENDHDR\n", (int)image->width,
            (int)image->height);
    for (int32_t y = 0; y < image->height; ++y)
        for (int32_t x = 0; x < image->width; ++x)
            if (image->getPixel(image, VX_PIXEL_RGB, x, y, rgb))
                fwrite(rgb, 1, 3, file);
    int written = !ferror(file);
    return (fclose(file) == 0) & written;
}

int image_mipmap_sample(FILE *out, const char *dir)
{
    VxImage *picture = ImageColorCreate(64, 48); /* red and green ramps, a blue checker */
    for (int32_t y = 0; picture && y < 48; ++y)
        for (int32_t x = 0; x < 64; ++x) {
            const uint8_t rgb[3] = {(uint8_t)(4 * x), (uint8_t)(5 * y), (uint8_t)((x / 8 + y / 8) % 2 ? 220 : 40)};
            picture->setPixel(picture, VX_PIXEL_RGB, x, y, rgb);
        }
    VxMipmap *m = picture ? MipmapCreate(picture, VX_PIXEL_RGB) : NULL;
    if (!m) {
        ImageDestroy(picture);
        return 0;
    }
    fprintf(out, "MipmapCreate: %d levels:", (int)m->count);
    for (int32_t i = 0; i < m->count; ++i)
        fprintf(out, " %dx%d", (int)m->levels[i]->width, (int)m->levels[i]->height);
    int ok = m->count == 7 && m->levels[6]->width == 1 && m->levels[6]->height == 1;

    uint8_t top[3], below[4][3], fine[3], wide[3];
    m->levels[6]->getPixel(m->levels[6], VX_PIXEL_RGB, 0, 0, top);
    for (int i = 0; i < 4; ++i)
        m->levels[5]->getPixel(m->levels[5], VX_PIXEL_RGB, i % 2, i / 2, below[i]);
    fprintf(out, "\n  the 1x1 level: %d %d %d; the 2x2 level below: %d %d %d | %d %d %d | %d %d %d | %d %d %d\n", top[0],
            top[1], top[2], below[0][0], below[0][1], below[0][2], below[1][0], below[1][1], below[1][2], below[2][0],
            below[2][1], below[2][2], below[3][0], below[3][1], below[3][2]);
    for (int c = 0; c < 3; ++c) /* 48 rows halve through 3: the odd row counts alone */
        ok &= abs(4 * top[c] - (below[0][c] + below[1][c] + below[2][c] + below[3][c])) <= 4;

    MipmapFilteredPixel(m, VX_PIXEL_RGB, 1.1, 0.3, fine, 1, 0.0); /* u = 1.1 wraps to 0.1 */
    MipmapFilteredPixel(m, VX_PIXEL_RGB, 0.1, 0.3, wide, 1, 1.0 / 12.0);
    fprintf(out, "  filtered lookup at (1.1, 0.3), that is (0.1, 0.3): footprint 0 gives blue %d, footprint 1/12 gives blue %d\n",
            fine[2], wide[2]);
    ok &= fine[2] == 220 && wide[2] > 60 && wide[2] < 200; /* blended towards the mean */
    for (int32_t i = 0; i < m->count; ++i)
        ok &= WriteLevel(dir, i, m->levels[i]);
    fprintf(out, "  wrote mip-0.pam ... mip-%d.pam\n", (int)m->count - 1);
    MipmapDestroy(m);
    ImageDestroy(picture);
    return ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return image_mipmap_sample(stdout, ".") ? 0 : 1; }
#endif
