// Helpers shared by the image tests: random images, pixel buffers as bytes or floats, the wide
// loops' switch, and out-of-memory sweeps of operations that make new images.
#pragma once

#include <vxtools3/image.h>

#include "image/image_internal.h"
#include "image/wide.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <vector>

namespace imagetest {

inline std::vector<uint8_t> Bytes(const VxImage *image)
{
    const uint8_t *p = image->priv->pixels;
    return std::vector<uint8_t>(p, p + vx::image::BufferBytes(image));
}

inline std::vector<float> Floats(const VxImage *image)
{
    std::vector<float> v(vx::image::BufferBytes(image) / 4);
    std::memcpy(v.data(), image->priv->pixels, v.size() * 4);
    return v;
}

// A counting heap that, when it goes, expects every block freed exactly once.
struct CheckedHeap : vxtest::FaultAllocator {
    ~CheckedHeap() { EXPECT_TRUE(LiveBytes() == 0 && BadFrees() == 0) << LiveBytes() << " bytes live, bad frees " << BadFrees(); }
};

template <class... Images>
void Destroy(Images *...images) { (ImageDestroy(images), ...); }

// Fills the pixel buffer with random bytes; float channels get values in 0..1.
inline void FillRandom(VxImage *image, uint32_t seed)
{
    std::mt19937 rng(seed);
    const bool isFloat = image->type == 3 || image->type == 4 || image->type == 6;
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (size_t i = 0; i < vx::image::BufferBytes(image); i += isFloat ? 4 : 1) {
        if (const float f = isFloat ? unit(rng) : 0.0f; isFloat)
            std::memcpy(image->priv->pixels + i, &f, 4);
        else
            image->priv->pixels[i] = static_cast<uint8_t>(rng());
    }
}

// 64 entries: every colour of 0, 85, 170 and 255 in each channel, then the ramp repeats.
inline std::vector<uint8_t> CubePalette()
{
    std::vector<uint8_t> p(768);
    for (int i = 0; i < 768; ++i)
        p[i] = static_cast<uint8_t>(85 * (((i / 3) % 64) >> (2 * (2 - i % 3)) & 3));
    return p;
}

inline VxImage *RandomImage(int32_t type, int32_t w, int32_t h, uint32_t seed)
{
    VxImage *image = ImageCreate(type, w, h);
    FillRandom(image, seed);
    return image;
}

inline VxImage *FloatImage(int32_t type, int32_t w, int32_t h, const std::vector<float> &values)
{
    VxImage *image = ImageCreate(type, w, h);
    std::memcpy(image->priv->pixels, values.data(), values.size() * 4);
    return image;
}

// Sets the image operations' worker count for a scope, with parts as small as one row so
// that even tiny images are split; restores the setting and the smallest part afterwards.
struct WorkersScope {
    int32_t previous;
    explicit WorkersScope(int32_t workers) : previous(ImageSetWorkers(workers)) { vx::image::SetMinPartWork(1); }
    ~WorkersScope()
    {
        ImageSetWorkers(previous);
        vx::image::SetMinPartWork(vx::image::kDefaultMinPartWork);
    }
};

// Two tests of one comparison: `plain` with the wide loops off, `wide` with them on (their
// default where the processor has them), skipped with the reason where `available` is false.
#define PLAIN_AND_WIDE_TESTS(suite, plain, wide, available, what, check)                                   \
    TEST(suite, plain)                                                                                     \
    {                                                                                                      \
        vx::image::SetWidePaths(false);                                                                    \
        check;                                                                                             \
        vx::image::SetWidePaths(true);                                                                     \
    }                                                                                                      \
    TEST(suite, wide)                                                                                      \
    {                                                                                                      \
        if (!(available))                                                                                  \
            GTEST_SKIP() << "this processor lacks the instructions of " what;                              \
        check;                                                                                             \
    }

// Sweeps an operation that makes a new R from a source: failing runs return NULL (or unwind),
// leak nothing and leave the source untouched; the successful run's result must pass `check`.
template <class R>
void SweepOperation(const std::function<VxImage *()> &makeSource, const std::function<R *(VxImage *)> &op,
                    const std::function<void(R *)> &destroy, const std::function<void(R *)> &check)
{
    VxImage *src = nullptr;
    R *result = nullptr;
    std::vector<uint8_t> before;
    vxtest::OomSweepAll({[&] { src = makeSource(), before = Bytes(src), result = nullptr; },
                         [&] { return (result = op(src)) != nullptr; },
                         [&] { EXPECT_EQ(Bytes(src), before) << "the source changed"; },
                         [&] {
                             if (result)
                                 check(result), destroy(result);
                             ImageDestroy(src);
                         }});
}

// SweepOperation for operations that return an image equal to the one a clean run returns.
inline void SweepImageOperation(const std::function<VxImage *()> &makeSource,
                                const std::function<VxImage *(VxImage *)> &op)
{
    VxImage *s = makeSource(), *clean = op(s);
    ASSERT_NE(clean, nullptr);
    const std::vector<uint8_t> expected = Bytes(clean);
    Destroy(clean, s);
    SweepOperation<VxImage>(makeSource, op, ImageDestroy,
                            [&](VxImage *r) { EXPECT_EQ(Bytes(r), expected) << "the swept run differs"; });
}

}  // namespace imagetest
