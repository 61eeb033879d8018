/* Draws a white square on a small black RGB image, blurs it, halves it with the area-average
 * resample and checks a pixel of the result against the blurred pixels it covers. */
#include <vxtools3.h>

#include <stdio.h>

static void FillSquare(VxImage *image, int32_t x0, int32_t y0, int32_t size, const uint8_t rgb[3])
{
    for (int32_t y = y0; y < y0 + size; ++y)
        for (int32_t x = x0; x < x0 + size; ++x)
            image->setPixel(image, VX_PIXEL_RGB, x, y, rgb);
}

/* Mean red of the 2 x 2 block at (x, y), read as floats 0..1. */
static float MeanRed(VxImage *image, int32_t x, int32_t y)
{
    float sum = 0.0f, rgb[3];
    for (int32_t dy = 0; dy < 2; ++dy)
        for (int32_t dx = 0; dx < 2; ++dx)
            if (image->getPixel(image, VX_PIXEL_RGB_FLOAT, x + dx, y + dy, rgb))
                sum += rgb[0];
    return sum / 4.0f;
}

int main(void)
{
    const uint8_t white[3] = {255, 255, 255};
    VxImage *source = ImageColorCreate(8, 8); /* zero-filled: black */
    if (!source)
        return 1;
    FillSquare(source, 3, 3, 2, white);

    /* Byte images use the separable blur: 3 taps is a 5-sample kernel; mask 7 = R, G and B. */
    VxImage *blurred = ImageBlur(source, 3, 1.0, 1.0, 7);
    VxImage *half = blurred ? ImageResample(blurred, VX_PIXEL_RGB_FLOAT, 4, 4, 2) : NULL;
    uint8_t centre[3] = {0}, edge[3] = {0};
    float small[3] = {0};
    int ok = half && blurred->getPixel(blurred, VX_PIXEL_RGB, 3, 3, centre) &&
             blurred->getPixel(blurred, VX_PIXEL_RGB, 2, 3, edge) &&
             half->getPixel(half, VX_PIXEL_RGB_FLOAT, 1, 1, small);
    printf("blurred: square corner %d (was 255), left neighbour %d (was 0)\n", centre[0], edge[0]);
    float expected = ok ? MeanRed(blurred, 2, 2) : -1.0f, error = small[0] - expected;
    printf("halved: pixel (1,1) red %.4f, mean of the 2x2 block it covers %.4f\n", small[0], expected);

    ok = ok && centre[0] < 255 && edge[0] > 0 && error < 1e-5f && error > -1e-5f;
    ImageDestroy(half);
    ImageDestroy(blurred);
    ImageDestroy(source);
    return ok ? 0 : 1;
}
