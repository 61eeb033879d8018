// `vxtool image`: convert pictures between formats, show their headers, and blur, resample,
// convolve and mipmap them with the image operations. Files are read and written by the image
// loader and saver modules through the plug-in host.
#include "image_io.h"
#include "vxtool.h"

#include <vxtools3/image.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool image <operation> IN OUT [options] [--saver NAME] [--quality Q]\n"
    "       vxtool image convert IN OUT [--saver NAME] [--quality Q]\n"
    "       vxtool image checker OUT [--width W] [--height H]\n"
    "       vxtool image info IN...\n"
    "\n"
    "operations:\n"
    "  convert   reads IN and writes it as OUT\n"
    "  blur      --taps N (1..9 for byte images, default 5) --sigma S (default 2)\n"
    "            [--sigma-v S] [--channels MASK (1 R, 2 G, 4 B, 8 A; default 15)]\n"
    "            Byte images come out a little brighter: the blur's fixed-point tables\n"
    "            round every tap's share up, so a black picture becomes 2 and a grey of 100\n"
    "            becomes 102 (5 taps, sigma 2). That is how the library blurs; it is kept.\n"
    "  resample  --width W and/or --height H, or --scale F; [--mode 0..5] resamples in one\n"
    "            mode, otherwise --shrink M (default 2) and --grow M (default 5) per direction\n"
    "            (0 point/bilinear, 1 footprint mean, 2 area, 3 unit-square area,\n"
    "             4 cubic B-spline, 5 Catmull-Rom)\n"
    "  convolve  --matrix a,b,c,... (row-major) [--columns C] [--offset r,g,b,a]\n"
    "            [--normalize]. The matrix is used as given, not divided by its sum: a\n"
    "            matrix of 1s brightens (all 1s in 3x3: nine times). --normalize divides it by\n"
    "            the sum of its numbers first (a zero sum is refused).\n"
    "  mipmap    writes every level as OUT-<level>.EXT\n"
    "  checker   writes a generated gradient and checker picture\n"
    "  info      reads only each file's header: format, size, bit depth, colour type and\n"
    "            the pixel type it is read as\n"
    "\n"
    "Files: PNG, JPEG, TIFF, BMP, TGA, PSD and IFF ILBM are read (the loader is found by\n"
    "content); OUT is written by the saver its extension names (.png .jpg .tif .bmp .tga\n"
    ".psd .iff; the 32-bit saver when the picture has alpha) or by --saver, a server of\n"
    "class ImageSaver such as 'VX_PNG32(.png)'. --quality 1..100 for JPEG. 8-bit files are\n"
    "processed as bytes, 16-bit files as floats and written back with 16 bits where the\n"
    "format can hold them; palettes stay palettes. --threads N (1..64) spreads blur,\n"
    "resample, convolve and mipmap over N threads (default: one per processor; the result is\n"
    "the same for any N). Exit status: 0 done, 1 the operation or the write failed, 2 bad\n"
    "command line, 3 unreadable input.\n";

struct Options {
    std::string operation;
    std::vector<std::string> files;
    std::map<std::string, std::string> values;
};

int UsageError(const std::string &message) { return ReportUsageError("image", message); }

bool ParseNumber(const std::string &text, double &out)
{
    char *end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return !text.empty() && end && *end == '\0' && std::isfinite(out);
}

bool ParseList(const std::string &text, std::vector<float> &out)
{
    size_t start = 0;
    while (start <= text.size()) {
        const size_t comma = std::min(text.find(',', start), text.size());
        double v;
        if (!ParseNumber(text.substr(start, comma - start), v))
            return false;
        out.push_back(static_cast<float>(v));
        start = comma + 1;
    }
    return !out.empty();
}

// Fetches option `name` as a number in [low, high]; `fallback` when absent. False (after a
// message) when present but not such a number.
bool Number(const Options &o, const char *name, double low, double high, double fallback, double &out, int &status)
{
    auto it = o.values.find(name);
    out = fallback;
    if (it == o.values.end())
        return true;
    if (!ParseNumber(it->second, out) || out < low || out > high) {
        char range[96];
        std::snprintf(range, sizeof range, " wants a number from %g to %g, not '", low, high);
        status = UsageError(std::string("--") + name + range + it->second + "'");
        return false;
    }
    return true;
}

class Progress {
public:
    Progress(const char *what, const VxImage *image)
        : loud_(static_cast<double>(image->width) * image->height >= 1e6), start_(std::chrono::steady_clock::now())
    {
        if (loud_)
            std::fprintf(stderr, "vxtool image: %s %dx%d (%.1f Mpixel)...\n", what, image->width, image->height,
                         image->width * static_cast<double>(image->height) / 1e6);
    }
    void Done() const
    {
        if (loud_)
            std::fprintf(stderr, "vxtool image: done in %.0f ms\n",
                         std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count());
    }

private:
    bool loud_;
    std::chrono::steady_clock::time_point start_;
};

// Bits per channel of the input, so that a write that keeps fewer can say so.
int32_t g_inputDepth = 0;

// Reads a picture file; null (after a message) when it cannot.
VxImage *Read(const std::string &path)
{
    if (ReportIfDirectory("image", path))
        return nullptr;
    std::string error;
    ImageFileInfo info{};
    VxImage *image = ReadImage(path, &info, error);
    if (!image)
        std::fprintf(stderr, "vxtool image: %s: cannot read: %s\n", path.c_str(), error.c_str());
    g_inputDepth = info.bitDepth;
    return image;
}

int Write(const std::string &path, VxImage *image, const Options &o)
{
    if (ReportIfDirectory("image", path))
        return kFailed;
    std::string error;
    auto saver = o.values.find("saver");
    auto quality = o.values.find("quality");
    if (!WriteImage(path, image, saver == o.values.end() ? "" : saver->second,
                    quality == o.values.end() ? 0 : std::atoi(quality->second.c_str()), error)) {
        std::fprintf(stderr, "vxtool image: %s: cannot write: %s\n", path.c_str(), error.c_str());
        return kFailed;
    }
    std::printf("wrote %s (%dx%d)\n", path.c_str(), image->width, image->height);
    ImageFileInfo written{};
    if (ImageFileReadInfo(path.c_str(), &written, nullptr, 0) == IMAGEFILE_OK && written.bitDepth < g_inputDepth)
        std::fprintf(stderr, "vxtool image: note: %s holds %d bits per channel; the input had %d\n", path.c_str(),
                     written.bitDepth, g_inputDepth);
    return kOk;
}

int Finish(VxImage *result, const Options &o, const char *what)
{
    if (!result) {
        std::fprintf(stderr, "vxtool image: %s: %s failed (out of memory or unsupported parameters)\n",
                     o.files[0].c_str(), what);
        return kFailed;
    }
    const int status = Write(o.files[1], result, o);
    ImageDestroy(result);
    return status;
}

int Blur(VxImage *in, const Options &o)
{
    int status = kUsage;
    double taps, sigma, sigmaV, channels;
    if (!Number(o, "taps", 1, in->type == VX_PIXEL_GREY || in->type == VX_PIXEL_RGB || in->type == VX_PIXEL_RGBA ? 9 : 64,
                5, taps, status) ||
        !Number(o, "sigma", -1e6, 1e6, 2.0, sigma, status) || !Number(o, "sigma-v", -1e6, 1e6, sigma, sigmaV, status) ||
        !Number(o, "channels", 0, 15, 15, channels, status))
        return status;
    Progress progress("blurring", in);
    VxImage *out = ImageBlur(in, static_cast<int32_t>(taps), sigma, sigmaV, static_cast<uint32_t>(channels));
    progress.Done();
    return Finish(out, o, "blur");
}

int Resample(VxImage *in, const Options &o)
{
    int status = kUsage;
    double width, height, scale, mode, shrink, grow;
    if (!Number(o, "width", 0, 1 << 20, 0, width, status) || !Number(o, "height", 0, 1 << 20, 0, height, status) ||
        !Number(o, "scale", 1e-4, 64, 0, scale, status) || !Number(o, "mode", 0, 5, -1, mode, status) ||
        !Number(o, "shrink", 0, 5, 2, shrink, status) || !Number(o, "grow", 0, 5, 5, grow, status))
        return status;
    if (scale > 0) {
        width = std::max(1.0, std::round(in->width * scale));
        height = std::max(1.0, std::round(in->height * scale));
    } else if (width < 1 && height < 1) {
        return UsageError("resample needs --width, --height or --scale");
    } else if (width < 1) {
        width = std::max(1.0, std::round(in->width * height / in->height));
    } else if (height < 1) {
        height = std::max(1.0, std::round(in->height * width / in->width));
    }
    const auto w = static_cast<int32_t>(width), h = static_cast<int32_t>(height);
    Progress progress("resampling", in);
    VxImage *out = mode >= 0 ? ImageResample(in, in->type, w, h, static_cast<int32_t>(mode))
                             : ImageResample2(in, in->type, w, h, static_cast<int32_t>(shrink), static_cast<int32_t>(grow));
    progress.Done();
    return Finish(out, o, "resample");
}

int Convolve(VxImage *in, const Options &o)
{
    std::vector<float> matrix, offset;
    auto m = o.values.find("matrix");
    if (m == o.values.end() || !ParseList(m->second, matrix))
        return UsageError("convolve needs --matrix a,b,c,... of numbers");
    const auto root = static_cast<double>(std::lround(std::sqrt(static_cast<double>(matrix.size()))));
    int status = kUsage;
    double columns;
    if (!Number(o, "columns", 1, static_cast<double>(matrix.size()), root, columns, status))
        return status;
    const auto cols = static_cast<int32_t>(columns);
    if (matrix.size() % static_cast<size_t>(cols) != 0)
        return UsageError("the matrix's " + std::to_string(matrix.size()) + " numbers do not fill rows of " +
                          std::to_string(cols));
    if (o.values.count("normalize")) {
        double sum = 0;
        for (float v : matrix)
            sum += v;
        if (sum == 0)
            return UsageError("--normalize: the matrix's numbers add up to 0");
        for (float &v : matrix)
            v = static_cast<float>(v / sum);
    }
    auto off = o.values.find("offset");
    if (off != o.values.end() && (!ParseList(off->second, offset) || offset.size() != 4))
        return UsageError("--offset wants four numbers r,g,b,a");
    Progress progress("convolving", in);
    VxImage *out = ImageConvolve(in, in->type, matrix.data(), cols, static_cast<int32_t>(matrix.size()) / cols,
                                 offset.empty() ? nullptr : offset.data());
    progress.Done();
    return Finish(out, o, "convolution");
}

std::string LevelPath(const std::string &out, int level)
{
    const size_t dot = out.rfind('.');
    const size_t slash = out.rfind('/');
    const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    const std::string stem = hasExtension ? out.substr(0, dot) : out;
    return stem + "-" + std::to_string(level) + (hasExtension ? out.substr(dot) : ".png");
}

int Mipmap(VxImage *in, const Options &o)
{
    Progress progress("building the mipmap of", in);
    VxMipmap *m = MipmapCreate(in, in->type);
    progress.Done();
    if (!m) {
        std::fprintf(stderr, "vxtool image: %s: mipmap failed (out of memory)\n", o.files[0].c_str());
        return kFailed;
    }
    int status = kOk;
    for (int32_t i = 0; i < m->count && m->levels[i] && status == kOk; ++i)
        status = Write(LevelPath(o.files[1], i), m->levels[i], o);
    MipmapDestroy(m);
    return status;
}

int Convert(VxImage *in, const Options &o) { return Write(o.files[1], in, o); }

// Prints each file's header: format, size, bit depth, colour type and the pixel type it is
// read as, without decoding the pixels. kBadInput when any cannot be read.
int Info(const Options &o)
{
    static const char *const kTypes[] = {"RGB bytes",  "grey bytes", "palette indices", "grey floats",
                                         "RGB floats", "RGBA bytes", "RGBA floats"};
    int status = kOk;
    for (const std::string &file : o.files) {
        if (ReportIfDirectory("image", file)) {
            status = kBadInput;
            continue;
        }
        ImageFileInfo info{};
        char message[IMAGEFILE_MESSAGE_SIZE] = "";
        if (ImageFileReadInfo(file.c_str(), &info, message, sizeof message) != IMAGEFILE_OK) {
            std::fprintf(stderr, "vxtool image: %s: cannot read: %s\n", file.c_str(), message);
            status = kBadInput;
            continue;
        }
        const bool known = info.pixelType >= 0 && info.pixelType < 7;
        std::printf("%s: %s %dx%d, %d-bit %s, %s\n", file.c_str(), info.format, info.width, info.height, info.bitDepth,
                    info.colour, known ? kTypes[info.pixelType] : "unknown pixels");
    }
    return status;
}

// A colour gradient under a checker of dark squares: edges and smooth areas to try filters on.
int Checker(const Options &o)
{
    int status = kUsage;
    double width, height;
    if (!Number(o, "width", 1, 1 << 15, 256, width, status) || !Number(o, "height", 1, 1 << 15, 256, height, status))
        return status;
    VxImage *image = ImageColorCreate(static_cast<int32_t>(width), static_cast<int32_t>(height));
    if (!image)
        return UsageError("cannot create an image of that size");
    for (int32_t y = 0; y < image->height; ++y)
        for (int32_t x = 0; x < image->width; ++x) {
            const bool dark = ((x / 16) + (y / 16)) % 2 == 0;
            const uint8_t rgb[3] = {static_cast<uint8_t>(255 * x / image->width),
                                    static_cast<uint8_t>(255 * y / image->height), static_cast<uint8_t>(dark ? 40 : 220)};
            image->setPixel(image, VX_PIXEL_RGB, x, y, rgb);
        }
    status = Write(o.files[0], image, o);
    ImageDestroy(image);
    return status;
}

bool ParseArguments(int argc, char **argv, Options &o, int &status)
{
    o.operation = argv[1];
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--normalize") {
            o.values["normalize"] = "";
        } else if (arg.rfind("--", 0) == 0) {
            if (i + 1 >= argc) {
                status = UsageError("option " + arg + " needs a value");
                return false;
            }
            o.values[arg.substr(2)] = argv[++i];
        } else {
            o.files.push_back(arg);
        }
    }
    static const char *const kKnown[] = {"taps",  "sigma",  "sigma-v", "channels", "width",  "height",
                                         "scale", "mode",   "shrink",  "grow",     "matrix", "columns", "offset", "normalize",
                                         "saver", "quality", "threads"};
    for (const auto &[name, value] : o.values) {
        bool known = false;
        for (const char *k : kKnown)
            known = known || name == k;
        if (!known) {
            status = UsageError("unknown option --" + name);
            return false;
        }
    }
    if (o.operation == "info") {
        if (o.files.empty()) {
            status = UsageError("info takes IN...");
            return false;
        }
        return true;
    }
    const size_t wanted = o.operation == "checker" ? 1 : 2;
    if (o.files.size() != wanted) {
        status = UsageError(o.operation + " takes " + (wanted == 1 ? "OUT" : "IN OUT"));
        return false;
    }
    auto quality = o.values.find("quality");
    double q = 0;
    if (quality != o.values.end() && (!ParseNumber(quality->second, q) || q < 1 || q > 100 || q != std::floor(q))) {
        status = UsageError("--quality wants a whole number from 1 to 100, not '" + quality->second + "'");
        return false;
    }
    return true;
}

}  // namespace

int ImageMain(int argc, char **argv)
{
    if (WantsHelp(argc, argv)) {
        std::fputs(kHelp, stdout);
        return kOk;
    }
    if (argc < 2)
        return UsageError("wants a subcommand: convert, blur, resample, convolve, mipmap, checker or info");
    Options o;
    int status = kUsage;
    double threads;
    if (!ParseArguments(argc, argv, o, status) || !Number(o, "threads", 1, 64, 0, threads, status))
        return status;
    ImageSetWorkers(static_cast<int32_t>(threads));  // 0, the default: one per processor
    const ImageModules modules;
    if (!modules.Problem().empty()) {
        std::fprintf(stderr, "vxtool image: %s\n", modules.Problem().c_str());
        return kFailed;
    }
    if (o.operation == "checker")
        return Checker(o);
    if (o.operation == "info")
        return Info(o);
    int (*run)(VxImage *, const Options &) = o.operation == "convert"    ? Convert
                                             : o.operation == "blur"       ? Blur
                                             : o.operation == "resample" ? Resample
                                             : o.operation == "convolve" ? Convolve
                                             : o.operation == "mipmap"   ? Mipmap
                                                                         : nullptr;
    if (!run)
        return UsageError("unknown subcommand '" + o.operation + "'");
    VxImage *in = Read(o.files[0]);
    if (!in)
        return kBadInput;
    status = run(in, o);
    ImageDestroy(in);
    return status;
}

}  // namespace vxtool
