// Image operations against OpenCV, single-threaded: blur, resampling, convolution, mipmap
// building, and bilinear lookups. Results are reported per pixel (items are pixels). Like
// ours, which return new images, the peers write into a fresh output every iteration.
//
// The "_4k" cases run 4K pictures on 1 and 2 workers (ImageSetWorkers) against OpenCV on 1
// and 2 threads (cv::setNumThreads), the argument being the count: the ratio table pairs equal
// counts. Run them alone with --benchmark_filter=_4k.
#include <vxtools3/image.h>
#include <vxtools3/memory.h>

#include "bench/fixed_heap.h"
#include "bench/ratio_reporter.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#if VX_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

// A smooth picture with noise, so that no path meets only constant data.
VxImage *Picture(int32_t type, int32_t w, int32_t h)
{
    VxImage *image = ImageCreate(type, w, h);
    std::mt19937 rng(1);
    std::vector<float> row(4 * static_cast<size_t>(w));
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x)
            for (int c = 0; c < 4; ++c)
                row[4 * x + c] = 0.5f + 0.4f * std::sin(0.01f * static_cast<float>(x * (c + 1) + y * (3 - c))) +
                                 0.05f * static_cast<float>(rng() % 100) / 100.0f;
        image->setLine(image, VX_PIXEL_RGBA_FLOAT, y, row.data());
    }
    return image;
}

void Pixels(benchmark::State &state, int64_t pixels) { state.SetItemsProcessed(state.iterations() * pixels); }

// The blur's sigma s gives taps exp(-i^2 / (10 s)): a Gaussian of standard deviation sqrt(5 s).
constexpr double kBlurSigma = 2.0;
constexpr int kBlurTaps = 9;

void BlurOurs(benchmark::State &state)
{
    VxImage *src = Picture(VX_PIXEL_RGB, 3840, 2160);
    for (auto _ : state) {
        VxImage *out = ImageBlur(src, kBlurTaps, kBlurSigma, kBlurSigma, 7);
        benchmark::DoNotOptimize(out);
        ImageDestroy(out);
    }
    Pixels(state, 3840 * 2160);
    ImageDestroy(src);
}

struct Resample {
    int32_t mode;
    double scale;
};

void ResampleOurs(benchmark::State &state, Resample r)
{
    const int32_t w = r.scale < 1 ? 1920 : 960, h = r.scale < 1 ? 1080 : 540;
    VxImage *src = Picture(VX_PIXEL_RGBA_FLOAT, w, h);
    const auto W = static_cast<int32_t>(w * r.scale), H = static_cast<int32_t>(h * r.scale);
    for (auto _ : state) {
        VxImage *out = ImageResample(src, VX_PIXEL_RGBA_FLOAT, W, H, r.mode);
        benchmark::DoNotOptimize(out);
        ImageDestroy(out);
    }
    Pixels(state, static_cast<int64_t>(W) * H);
    ImageDestroy(src);
}

std::vector<float> Kernel(int size)
{
    std::vector<float> k(static_cast<size_t>(size * size));
    for (int i = 0; i < size * size; ++i)
        k[i] = (i % 3 == 0 ? 2.0f : 1.0f) / static_cast<float>(size * size * 4 / 3);
    return k;
}

void ConvolveOurs(benchmark::State &state, int size)
{
    VxImage *src = Picture(VX_PIXEL_RGBA_FLOAT, 1920, 1080);
    const std::vector<float> k = Kernel(size);
    for (auto _ : state) {
        VxImage *out = ImageConvolve(src, VX_PIXEL_RGBA_FLOAT, k.data(), size, size, nullptr);
        benchmark::DoNotOptimize(out);
        ImageDestroy(out);
    }
    Pixels(state, 1920 * 1080);
    ImageDestroy(src);
}

void MipmapOurs(benchmark::State &state)
{
    VxImage *src = Picture(VX_PIXEL_RGBA, 4096, 4096);
    for (auto _ : state) {
        VxMipmap *m = MipmapCreateSmall(src, VX_PIXEL_RGBA, 1);
        benchmark::DoNotOptimize(m);
        MipmapDestroy(m);
    }
    Pixels(state, 4096 * 4096);
    ImageDestroy(src);
}

// Coherent lookups: along rows, a little over one pixel apart.
void BilinearOurs(benchmark::State &state)
{
    VxImage *src = Picture(VX_PIXEL_RGBA_FLOAT, 1024, 1024);
    float out[4];
    int64_t n = 0;
    for (auto _ : state) {
        for (int i = 0; i < 4096; ++i) {
            const double u = (i % 1024) / 1024.0 + 0.0003, v = (i / 1024) * 0.25 + 0.1;
            ImageBiLinearPixel(src, VX_PIXEL_RGBA_FLOAT, u, v, out);
            benchmark::DoNotOptimize(out);
        }
        n += 4096;
    }
    state.SetItemsProcessed(n);
    ImageDestroy(src);
}

// ---- 4K pictures on workers ----

constexpr int32_t k4kW = 3840, k4kH = 2160;

// Runs `op` on a source of `type` and size, with state.range(0) workers.
void OnWorkers(benchmark::State &state, int32_t type, int32_t w, int32_t h, int64_t items,
               const std::function<VxImage *(VxImage *)> &op)
{
    VxImage *src = Picture(type, w, h);
    const int32_t previous = ImageSetWorkers(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) {
        VxImage *out = op(src);
        benchmark::DoNotOptimize(out);
        ImageDestroy(out);
    }
    ImageSetWorkers(previous);
    Pixels(state, items);
    ImageDestroy(src);
}

void Blur4k(benchmark::State &state)
{
    OnWorkers(state, VX_PIXEL_RGB, k4kW, k4kH, int64_t{k4kW} * k4kH,
              [](VxImage *s) { return ImageBlur(s, kBlurTaps, kBlurSigma, kBlurSigma, 7); });
}

void Convolve4k(benchmark::State &state, int size)
{
    const std::vector<float> k = Kernel(size);
    OnWorkers(state, VX_PIXEL_RGBA_FLOAT, k4kW, k4kH, int64_t{k4kW} * k4kH, [&](VxImage *s) {
        return ImageConvolve(s, VX_PIXEL_RGBA_FLOAT, k.data(), size, size, nullptr);
    });
}

// Halving a 4K picture, or doubling a 2K one to 4K.
void Resample4k(benchmark::State &state, Resample r)
{
    const int32_t w = r.scale < 1 ? k4kW : k4kW / 2, h = r.scale < 1 ? k4kH : k4kH / 2;
    const auto W = static_cast<int32_t>(w * r.scale), H = static_cast<int32_t>(h * r.scale);
    OnWorkers(state, VX_PIXEL_RGBA_FLOAT, w, h, int64_t{W} * H,
              [&](VxImage *s) { return ImageResample(s, VX_PIXEL_RGBA_FLOAT, W, H, r.mode); });
}

void Mipmap4k(benchmark::State &state)
{
    VxImage *src = Picture(VX_PIXEL_RGBA, 4096, 4096);
    const int32_t previous = ImageSetWorkers(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) {
        VxMipmap *m = MipmapCreateSmall(src, VX_PIXEL_RGBA, 1);
        benchmark::DoNotOptimize(m);
        MipmapDestroy(m);
    }
    ImageSetWorkers(previous);
    Pixels(state, 4096 * 4096);
    ImageDestroy(src);
}

#if VX_BENCH_OPENCV

cv::Mat ToMat(VxImage *image, int32_t type, int cvType)
{
    cv::Mat m(image->height, image->width, cvType);
    for (int32_t y = 0; y < image->height; ++y)
        image->getLine(image, type, y, m.ptr(y));
    return m;
}

void BlurCv(benchmark::State &state)
{
    VxImage *image = Picture(VX_PIXEL_RGB, 3840, 2160);
    const cv::Mat src = ToMat(image, VX_PIXEL_RGB, CV_8UC3);
    ImageDestroy(image);
    const double sigma = std::sqrt(5.0 * kBlurSigma);
    for (auto _ : state) {
        cv::Mat dst;
        cv::GaussianBlur(src, dst, cv::Size(2 * kBlurTaps - 1, 2 * kBlurTaps - 1), sigma, sigma, cv::BORDER_REPLICATE);
        benchmark::DoNotOptimize(dst.data);
    }
    Pixels(state, 3840 * 2160);
}

void ResampleCv(benchmark::State &state, Resample r)
{
    const int32_t w = r.scale < 1 ? 1920 : 960, h = r.scale < 1 ? 1080 : 540;
    VxImage *image = Picture(VX_PIXEL_RGBA_FLOAT, w, h);
    const cv::Mat src = ToMat(image, VX_PIXEL_RGBA_FLOAT, CV_32FC4);
    ImageDestroy(image);
    const auto W = static_cast<int32_t>(w * r.scale), H = static_cast<int32_t>(h * r.scale);
    const int interpolation = r.mode == 2 ? cv::INTER_AREA : cv::INTER_CUBIC;
    for (auto _ : state) {
        cv::Mat dst;
        cv::resize(src, dst, cv::Size(W, H), 0, 0, interpolation);
        benchmark::DoNotOptimize(dst.data);
    }
    Pixels(state, static_cast<int64_t>(W) * H);
}

void ConvolveCv(benchmark::State &state, int size)
{
    VxImage *image = Picture(VX_PIXEL_RGBA_FLOAT, 1920, 1080);
    const cv::Mat src = ToMat(image, VX_PIXEL_RGBA_FLOAT, CV_32FC4);
    ImageDestroy(image);
    const std::vector<float> k = Kernel(size);
    const cv::Mat kernel(size, size, CV_32F, const_cast<float *>(k.data()));
    for (auto _ : state) {
        cv::Mat dst;
        cv::filter2D(src, dst, -1, kernel, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
        benchmark::DoNotOptimize(dst.data);
    }
    Pixels(state, 1920 * 1080);
}

template <bool kPyrDown>
void MipmapCv(benchmark::State &state)
{
    VxImage *image = Picture(VX_PIXEL_RGBA, 4096, 4096);
    const cv::Mat src = ToMat(image, VX_PIXEL_RGBA, CV_8UC4);
    ImageDestroy(image);
    for (auto _ : state) {
        std::vector<cv::Mat> levels(13);
        const cv::Mat *prev = &src;
        for (size_t i = 1; prev->cols > 1 || prev->rows > 1; ++i) {
            const cv::Size half((prev->cols + 1) / 2, (prev->rows + 1) / 2);
            if (kPyrDown)
                cv::pyrDown(*prev, levels[i], half);
            else
                cv::resize(*prev, levels[i], half, 0, 0, cv::INTER_AREA);
            prev = &levels[i];
        }
        benchmark::DoNotOptimize(levels.back().data);
    }
    Pixels(state, 4096 * 4096);
}

// Runs a peer benchmark with cv::setNumThreads(state.range(0)), then back to one thread.
template <class... Args>
void CvThreads(benchmark::State &state, void (*run)(benchmark::State &, Args...), Args... args)
{
    cv::setNumThreads(static_cast<int>(state.range(0)));
    run(state, args...);
    cv::setNumThreads(0);
}

void BlurCv4k(benchmark::State &state)
{
    CvThreads(state, +[](benchmark::State &st) {
        VxImage *image = Picture(VX_PIXEL_RGB, k4kW, k4kH);
        const cv::Mat src = ToMat(image, VX_PIXEL_RGB, CV_8UC3);
        ImageDestroy(image);
        const double sigma = std::sqrt(5.0 * kBlurSigma);
        for (auto _ : st) {
            cv::Mat dst;
            cv::GaussianBlur(src, dst, cv::Size(2 * kBlurTaps - 1, 2 * kBlurTaps - 1), sigma, sigma, cv::BORDER_REPLICATE);
            benchmark::DoNotOptimize(dst.data);
        }
        Pixels(st, int64_t{k4kW} * k4kH);
    });
}

void ConvolveCv4k(benchmark::State &state, int size)
{
    CvThreads(state, +[](benchmark::State &st, int n) {
        VxImage *image = Picture(VX_PIXEL_RGBA_FLOAT, k4kW, k4kH);
        const cv::Mat src = ToMat(image, VX_PIXEL_RGBA_FLOAT, CV_32FC4);
        ImageDestroy(image);
        const std::vector<float> k = Kernel(n);
        const cv::Mat kernel(n, n, CV_32F, const_cast<float *>(k.data()));
        for (auto _ : st) {
            cv::Mat dst;
            cv::filter2D(src, dst, -1, kernel, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
            benchmark::DoNotOptimize(dst.data);
        }
        Pixels(st, int64_t{k4kW} * k4kH);
    }, size);
}

void ResampleCv4k(benchmark::State &state, Resample r)
{
    CvThreads(state, +[](benchmark::State &st, Resample rs) {
        const int32_t w = rs.scale < 1 ? k4kW : k4kW / 2, h = rs.scale < 1 ? k4kH : k4kH / 2;
        VxImage *image = Picture(VX_PIXEL_RGBA_FLOAT, w, h);
        const cv::Mat src = ToMat(image, VX_PIXEL_RGBA_FLOAT, CV_32FC4);
        ImageDestroy(image);
        const auto W = static_cast<int32_t>(w * rs.scale), H = static_cast<int32_t>(h * rs.scale);
        const int interpolation = rs.mode == 2 ? cv::INTER_AREA : cv::INTER_CUBIC;
        for (auto _ : st) {
            cv::Mat dst;
            cv::resize(src, dst, cv::Size(W, H), 0, 0, interpolation);
            benchmark::DoNotOptimize(dst.data);
        }
        Pixels(st, int64_t{W} * H);
    }, r);
}

void MipmapCv4k(benchmark::State &state) { CvThreads(state, &MipmapCv<false>); }

#endif

// A benchmark of ours run on the plain C library heap without its trim, as the peers' memory
// is managed: FreeHeap asks the heap to return memory to the system once more than 4 MB have
// been freed, and blocks of 4 MiB or more are mapped from the system and returned when freed,
// so every iteration's new result is faulted in afresh, while the peers' allocator keeps its
// pages; these cases ("<case>_notrim") show the operations without that difference. Both
// tables are printed: the plain cases are the library as it ships. Every block of a case is
// allocated and freed inside it.
void *PlainAlloc(void *, size_t size) { return std::calloc(1, size); }
void *PlainRealloc(void *, void *block, size_t, size_t newSize) { return std::realloc(block, newSize); }
void PlainFree(void *, void *block, size_t) { std::free(block); }

template <class... Args>
void WithoutTrim(benchmark::State &state, void (*run)(benchmark::State &, Args...), Args... args)
{
    StdAllocator saved;
    StdGetAllocator(&saved);
    const StdAllocator plain = {PlainAlloc, PlainRealloc, PlainFree, nullptr, nullptr};
    StdSetAllocator(&plain);
    run(state, args...);
    StdSetAllocator(&saved);
}

void Setup()
{
    vxbench::FixHeapThresholds();
#if VX_BENCH_OPENCV
    cv::setNumThreads(0);  // single-threaded, like ours
#endif
}

const int kSetup = (Setup(), 0);

BENCHMARK(BlurOurs)->Name("blur_rgb_3840x2160_9taps:ImageBlur")->Unit(benchmark::kMillisecond);
#if VX_BENCH_OPENCV
BENCHMARK(BlurCv)->Name("blur_rgb_3840x2160_9taps:cv::GaussianBlur")->Unit(benchmark::kMillisecond);
#endif

#define RESAMPLE_CASE(name, mode, scale, peer)                                                           \
    BENCHMARK_CAPTURE(ResampleOurs, name, Resample{mode, scale})->Name(#name ":ImageResample")->Unit(benchmark::kMillisecond);
#define RESAMPLE_PEER(name, mode, scale, peer)                                                           \
    BENCHMARK_CAPTURE(ResampleCv, name, Resample{mode, scale})->Name(#name ":" peer)->Unit(benchmark::kMillisecond);

RESAMPLE_CASE(resample_rgbaf_half_mode2, 2, 0.5, "cv::resize(INTER_AREA)")
RESAMPLE_CASE(resample_rgbaf_half_mode4, 4, 0.5, "cv::resize(INTER_CUBIC)")
RESAMPLE_CASE(resample_rgbaf_half_mode5, 5, 0.5, "cv::resize(INTER_CUBIC)")
RESAMPLE_CASE(resample_rgbaf_double_mode2, 2, 2.0, "cv::resize(INTER_AREA)")
RESAMPLE_CASE(resample_rgbaf_double_mode4, 4, 2.0, "cv::resize(INTER_CUBIC)")
RESAMPLE_CASE(resample_rgbaf_double_mode5, 5, 2.0, "cv::resize(INTER_CUBIC)")
#if VX_BENCH_OPENCV
RESAMPLE_PEER(resample_rgbaf_half_mode2, 2, 0.5, "cv::resize(INTER_AREA)")
RESAMPLE_PEER(resample_rgbaf_half_mode4, 4, 0.5, "cv::resize(INTER_CUBIC)")
RESAMPLE_PEER(resample_rgbaf_half_mode5, 5, 0.5, "cv::resize(INTER_CUBIC)")
RESAMPLE_PEER(resample_rgbaf_double_mode2, 2, 2.0, "cv::resize(INTER_AREA)")
RESAMPLE_PEER(resample_rgbaf_double_mode4, 4, 2.0, "cv::resize(INTER_CUBIC)")
RESAMPLE_PEER(resample_rgbaf_double_mode5, 5, 2.0, "cv::resize(INTER_CUBIC)")
#endif

BENCHMARK_CAPTURE(ConvolveOurs, c3, 3)->Name("convolve_rgbaf_3x3:ImageConvolve")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ConvolveOurs, c5, 5)->Name("convolve_rgbaf_5x5:ImageConvolve")->Unit(benchmark::kMillisecond);
#if VX_BENCH_OPENCV
BENCHMARK_CAPTURE(ConvolveCv, c3, 3)->Name("convolve_rgbaf_3x3:cv::filter2D")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ConvolveCv, c5, 5)->Name("convolve_rgbaf_5x5:cv::filter2D")->Unit(benchmark::kMillisecond);
#endif

BENCHMARK(MipmapOurs)->Name("mipmap_rgba_4096:MipmapCreate")->Unit(benchmark::kMillisecond);
#if VX_BENCH_OPENCV
BENCHMARK(MipmapCv<false>)->Name("mipmap_rgba_4096:cv::resize(INTER_AREA)")->Unit(benchmark::kMillisecond);
BENCHMARK(MipmapCv<true>)->Name("mipmap_rgba_4096:cv::pyrDown")->Unit(benchmark::kMillisecond);
#endif

#define WORKERS_CASE(fn, name, ...) \
    BENCHMARK_CAPTURE(fn, name, __VA_ARGS__)->Name(name)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
WORKERS_CASE(Resample4k, "resample_rgbaf_4k_half_mode2:ImageResample", Resample{2, 0.5})
WORKERS_CASE(Resample4k, "resample_rgbaf_4k_double_mode5:ImageResample", Resample{5, 2.0})
WORKERS_CASE(Convolve4k, "convolve_rgbaf_4k_3x3:ImageConvolve", 3)
WORKERS_CASE(Convolve4k, "convolve_rgbaf_4k_5x5:ImageConvolve", 5)
// 17 x 17: the matrix ImageBlur applies to float pictures at 9 taps.
WORKERS_CASE(Convolve4k, "convolve_rgbaf_4k_17x17:ImageConvolve", 17)
BENCHMARK(Blur4k)->Name("blur_rgb_4k_9taps:ImageBlur")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Mipmap4k)->Name("mipmap_rgba_4k:MipmapCreate")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
#if VX_BENCH_OPENCV
WORKERS_CASE(ResampleCv4k, "resample_rgbaf_4k_half_mode2:cv::resize(INTER_AREA)", Resample{2, 0.5})
WORKERS_CASE(ResampleCv4k, "resample_rgbaf_4k_double_mode5:cv::resize(INTER_CUBIC)", Resample{5, 2.0})
WORKERS_CASE(ConvolveCv4k, "convolve_rgbaf_4k_3x3:cv::filter2D", 3)
WORKERS_CASE(ConvolveCv4k, "convolve_rgbaf_4k_5x5:cv::filter2D", 5)
WORKERS_CASE(ConvolveCv4k, "convolve_rgbaf_4k_17x17:cv::filter2D", 17)
BENCHMARK(BlurCv4k)->Name("blur_rgb_4k_9taps:cv::GaussianBlur")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(MipmapCv4k)->Name("mipmap_rgba_4k:cv::resize(INTER_AREA)")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

BENCHMARK(BilinearOurs)->Name("bilinear_coherent:ImageBiLinearPixel")->Unit(benchmark::kNanosecond);

// The target cases again, ours without the heap trim (see WithoutTrim).
#define NOTRIM(name, peer, ...)                                                                          \
    BENCHMARK_CAPTURE(WithoutTrim, name, __VA_ARGS__)->Name(#name "_notrim:" peer)->Unit(benchmark::kMillisecond);
NOTRIM(blur_rgb_3840x2160_9taps, "ImageBlur", &BlurOurs)
NOTRIM(resample_rgbaf_half_mode2, "ImageResample", &ResampleOurs, Resample{2, 0.5})
NOTRIM(resample_rgbaf_double_mode4, "ImageResample", &ResampleOurs, Resample{4, 2.0})
NOTRIM(resample_rgbaf_double_mode5, "ImageResample", &ResampleOurs, Resample{5, 2.0})
NOTRIM(convolve_rgbaf_3x3, "ImageConvolve", &ConvolveOurs, 3)
NOTRIM(convolve_rgbaf_5x5, "ImageConvolve", &ConvolveOurs, 5)
NOTRIM(mipmap_rgba_4096, "MipmapCreate", &MipmapOurs)
#if VX_BENCH_OPENCV
BENCHMARK(BlurCv)->Name("blur_rgb_3840x2160_9taps_notrim:cv::GaussianBlur")->Unit(benchmark::kMillisecond);
RESAMPLE_PEER(resample_rgbaf_half_mode2_notrim, 2, 0.5, "cv::resize(INTER_AREA)")
RESAMPLE_PEER(resample_rgbaf_double_mode4_notrim, 4, 2.0, "cv::resize(INTER_CUBIC)")
RESAMPLE_PEER(resample_rgbaf_double_mode5_notrim, 5, 2.0, "cv::resize(INTER_CUBIC)")
BENCHMARK_CAPTURE(ConvolveCv, c3, 3)->Name("convolve_rgbaf_3x3_notrim:cv::filter2D")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ConvolveCv, c5, 5)->Name("convolve_rgbaf_5x5_notrim:cv::filter2D")->Unit(benchmark::kMillisecond);
BENCHMARK(MipmapCv<false>)->Name("mipmap_rgba_4096_notrim:cv::resize(INTER_AREA)")->Unit(benchmark::kMillisecond);
#endif

}  // namespace
