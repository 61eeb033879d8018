/* A generated 64 x 48 picture is blurred in one channel, halved with the area-average resample
 * and doubled with the Catmull-Rom one; each result is checked against the pixels it came
 * from and written into `dir` as a Netpbm (.pam) picture. */
#include <vxtools3.h>

#include <stdio.h>
#include <stdlib.h>

static FILE *g_out;

/* Writes `image` as <dir>/<name>.pam: RGBA when its type has alpha, else RGB; 1 when written. */
static int WritePam(const char *dir, const char *name, VxImage *image)
{
    const int alpha = image->type == VX_PIXEL_RGBA || image->type == VX_PIXEL_RGBA_FLOAT;
    char path[4096];
    uint8_t pixel[4];
    snprintf(path, sizeof path, "%s/%s.pam", dir, name);
    FILE *file = fopen(path, "wb");
    if (!file)
        return 0;
    fprintf(file, "P7\nWIDTH %d\nHEIGHT %d\nDEPTH %d\nMAXVAL 255\nTUPLTYPE %s\nENDHDR\n", (int)image->width,
            (int)image->height, alpha ? 4 : 3, alpha ? "RGB_ALPHA" : "RGB");
    for (int32_t y = 0; y < image->height; ++y)
        for (int32_t x = 0; x < image->width; ++x)
            if (image->getPixel(image, alpha ? VX_PIXEL_RGBA : VX_PIXEL_RGB, x, y, pixel))
                fwrite(pixel, 1, alpha ? 4 : 3, file);
    int written = !ferror(file);
    written &= fclose(file) == 0;
    fprintf(g_out, "  wrote %s.pam (%dx%d)\n", name, (int)image->width, (int)image->height);
    return written;
}

/* Channel c of pixel (x, y) as a byte. */
static int At(VxImage *image, int32_t x, int32_t y, int c)
{
    uint8_t rgb[3] = {0, 0, 0};
    image->getPixel(image, VX_PIXEL_RGB, x, y, rgb);
    return rgb[c];
}

/* Red rises left to right, green top to bottom, blue alternates 40/220 in squares of 8. */
static VxImage *MakePicture(void)
{
    VxImage *image = ImageColorCreate(64, 48); /* NULL when out of memory */
    for (int32_t y = 0; image && y < 48; ++y)
        for (int32_t x = 0; x < 64; ++x) {
            const uint8_t rgb[3] = {(uint8_t)(4 * x), (uint8_t)(5 * y), (uint8_t)((x / 8 + y / 8) % 2 ? 220 : 40)};
            image->setPixel(image, VX_PIXEL_RGB, x, y, rgb);
        }
    return image;
}

/* Byte images use the separable blur: 5 taps, sigma 2 both ways; mask 4 is blue alone. */
static int Blur(VxImage *picture, const char *dir)
{
    VxImage *blurred = ImageBlur(picture, 5, 2.0, 2.0, 4);
    if (!blurred)
        return 0;
    fprintf(g_out, "blurred, blue only: at a square edge (7,4)/(8,4) %d/%d became %d/%d\n", At(picture, 7, 4, 2),
            At(picture, 8, 4, 2), At(blurred, 7, 4, 2), At(blurred, 8, 4, 2));
    int ok = abs(At(blurred, 8, 4, 2) - At(blurred, 7, 4, 2)) < 60 && At(blurred, 3, 3, 0) == At(picture, 3, 3, 0) &&
             At(blurred, 40, 30, 1) == At(picture, 40, 30, 1); /* red and green are outside the mask */
    ok &= WritePam(dir, "blurred", blurred);
    ImageDestroy(blurred);
    return ok;
}

static int Resample(VxImage *picture, const char *dir)
{
    VxImage *half = ImageResample(picture, VX_PIXEL_RGBA_FLOAT, 32, 24, 2); /* mode 2: area average */
    VxImage *twice = ImageResample2(picture, VX_PIXEL_RGB, 128, 96, 2, 5);  /* filter 5: Catmull-Rom */
    float p[4] = {0, 0, 0, 0}, mean = 0.0f;
    for (int32_t i = 0; i < 4; ++i)
        mean += (float)At(picture, 20 + i % 2, 10 + i / 2, 0) / 255.0f / 4.0f;
    int ok = half && twice && half->getPixel(half, VX_PIXEL_RGBA_FLOAT, 10, 5, p);
    fprintf(g_out, "halved: red at (10,5) %.6f, mean of its 2x2 source block %.6f\n", p[0], mean);
    fprintf(g_out, "doubled: red at (40,40)/(41,40) %d/%d between source (20,20) %d and (21,20) %d\n",
            ok ? At(twice, 40, 40, 0) : -1, ok ? At(twice, 41, 40, 0) : -1, At(picture, 20, 20, 0), At(picture, 21, 20, 0));
    ok = ok && p[0] > mean - 1e-6f && p[0] < mean + 1e-6f && abs(At(twice, 40, 40, 0) - 79) <= 1 &&
         abs(At(twice, 41, 40, 0) - 81) <= 1 && WritePam(dir, "half", half) && WritePam(dir, "double", twice);
    ImageDestroy(half); /* ImageDestroy(NULL) does nothing */
    ImageDestroy(twice);
    return ok;
}

int image_blur_sample(FILE *out, const char *dir)
{
    g_out = out;
    VxImage *picture = MakePicture();
    if (!picture)
        return 0;
    fprintf(out, "a 64x48 picture: red ramp across, green ramp down, blue checker of 8-pixel squares\n");
    int ok = WritePam(dir, "picture", picture) & Blur(picture, dir) & Resample(picture, dir);
    ImageDestroy(picture);
    return ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return image_blur_sample(stdout, ".") ? 0 : 1; }
#endif
