// Image files through the host's loader and saver modules: pictures written by ImageMagick and
// netpbm read pixel for pixel, pictures we write read back by those tools, and hostile files.
#include "imagefile_test.h"

#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>
#include <png.h>

#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <fstream>

namespace {

using imftest::Loaded;

// One way of writing the source picture with an outside tool, what we must read it as, and
// the saver that writes it back ("" when none is tried).
struct Variant {
    const char *name;
    const char *command;  // {src} the 16-bit RGBA PAM, {out} the file to write
    const char *ext;
    int32_t type;
    int32_t bitDepth;
    const char *colour;
    const char *saver;
    // The outside reader to compare with: "" ImageMagick, else a netpbm command writing a PAM
    // of {file} to standard output (netpbm for some, so both tools check us; ImageMagick
    // applies a gAMA chunk of 1.0 as a gamma change, which we must not).
    const char *reference = "";
    int32_t backType = -1;  // the type our file of it reads back as, -1: `type`
    bool lossy = false;     // then both readers of our file are compared with each other
};

const char *const kPngToPam = "pngtopam -alphapam {file}";
const char *const kIlbmToPpm = "ilbmtoppm {file}";
// ImageMagick 6 keeps a TGA's bottom-up rows as they are stored unless asked to orient them;
// a PSD it reads as the merged picture and its layers.
const char *const kMagickOriented = "convert {file} -auto-orient -depth 16 pam:-";
const char *const kMagickFirst = "convert {file}[0] -depth 16 pam:-";

const Variant kVariants[] = {
    {"png_grey1", "convert {src} -alpha off -colorspace Gray -depth 1 -define png:bit-depth=1 -define png:color-type=0 {out}", "png", VX_PIXEL_GREY, 1, "grey", "VX_PNG24(.png)"},
    {"png_grey2", "convert {src} -alpha off -colorspace Gray -depth 2 -define png:bit-depth=2 -define png:color-type=0 {out}", "png", VX_PIXEL_GREY, 2, "grey", "VX_PNG24(.png)"},
    {"png_grey4", "convert {src} -alpha off -colorspace Gray -depth 4 -define png:bit-depth=4 -define png:color-type=0 {out}", "png", VX_PIXEL_GREY, 4, "grey", "VX_PNG24(.png)"},
    {"png_grey8", "convert {src} -alpha off -colorspace Gray -depth 8 -define png:color-type=0 {out}", "png", VX_PIXEL_GREY, 8, "grey", "VX_PNG24(.png)"},
    {"png_grey16", "convert {src} -alpha off -colorspace Gray -depth 16 -define png:color-type=0 {out}", "png", VX_PIXEL_GREY_FLOAT, 16, "grey", "VX_PNG24(.png)"},
    {"png_grey16_gamma1", "convert {src} -alpha off -colorspace Gray -depth 16 -set gamma 1.0 -define png:color-type=0 {out}", "png", VX_PIXEL_GREY_FLOAT, 16, "grey", nullptr, kPngToPam},
    {"png_greyalpha8", "convert {src} -colorspace Gray -depth 8 -define png:color-type=4 {out}", "png", VX_PIXEL_RGBA, 8, "grey+alpha", "VX_PNG32(.png)"},
    {"png_greyalpha16", "convert {src} -colorspace Gray -depth 16 -define png:color-type=4 {out}", "png", VX_PIXEL_RGBA_FLOAT, 16, "grey+alpha", "VX_PNG32(.png)"},
    {"png_rgb8", "convert {src} -alpha off -depth 8 -define png:color-type=2 {out}", "png", VX_PIXEL_RGB, 8, "RGB", "VX_PNG24(.png)"},
    {"png_rgb8_gamma1", "convert {src} -alpha off -depth 8 -set gamma 1.0 -define png:color-type=2 {out}", "png", VX_PIXEL_RGB, 8, "RGB", nullptr, kPngToPam},
    {"png_rgb16", "convert {src} -alpha off -depth 16 -define png:color-type=2 {out}", "png", VX_PIXEL_RGB_FLOAT, 16, "RGB", "VX_PNG24(.png)"},
    {"png_rgba8", "convert {src} -depth 8 -define png:color-type=6 {out}", "png", VX_PIXEL_RGBA, 8, "RGBA", "VX_PNG32(.png)"},
    {"png_rgba16", "convert {src} -depth 16 -define png:color-type=6 {out}", "png", VX_PIXEL_RGBA_FLOAT, 16, "RGBA", "VX_PNG32(.png)"},
    {"png_palette1", "convert {src} -alpha off -colors 2 -depth 8 ppm:- | pnmtopng > {out}", "png", VX_PIXEL_INDEX, 1, "palette", "VX_PNG24(.png)"},
    {"png_palette2", "convert {src} -alpha off -colors 4 -depth 8 ppm:- | pnmtopng > {out}", "png", VX_PIXEL_INDEX, 2, "palette", "VX_PNG24(.png)"},
    {"png_palette4", "convert {src} -alpha off -colors 12 -define png:bit-depth=4 -define png:color-type=3 {out}", "png", VX_PIXEL_INDEX, 4, "palette", "VX_PNG24(.png)"},
    {"png_palette8", "convert {src} -alpha off -colors 200 PNG8:{out}", "png", VX_PIXEL_INDEX, 8, "palette", "VX_PNG24(.png)"},
    {"png_palette_trns", "convert {src} -channel A -threshold 50% +channel -colors 100 PNG8:{out}", "png", VX_PIXEL_RGBA, 8, "palette+tRNS", "VX_PNG32(.png)"},
    {"png_grey_trns", "convert {src} -alpha off -colorspace Gray -depth 8 pgm:- | pnmtopng -transparent rgb:80/80/80 > {out}", "png", VX_PIXEL_RGBA, 8, "grey+tRNS", "VX_PNG32(.png)"},
    {"png_rgb_trns", "convert {src} -alpha off -depth 8 ppm:- | pnmtopng -transparent rgb:00/00/ff > {out}", "png", VX_PIXEL_RGBA, 8, "RGB+tRNS", "VX_PNG32(.png)"},
    {"png_rgb16_trns", "convert {src} -alpha off -depth 16 ppm:- | pnmtopng -transparent rgb:00/00/ff > {out}", "png", VX_PIXEL_RGBA_FLOAT, 16, "RGB+tRNS", "VX_PNG32(.png)", kPngToPam},
    {"png_rgb8_interlaced", "convert {src} -alpha off -depth 8 -interlace PNG -define png:color-type=2 {out}", "png", VX_PIXEL_RGB, 8, "RGB", "VX_PNG24(.png)"},
    {"png_grey16_interlaced", "convert {src} -alpha off -colorspace Gray -depth 16 -interlace PNG -define png:color-type=0 {out}", "png", VX_PIXEL_GREY_FLOAT, 16, "grey", "VX_PNG24(.png)", kPngToPam},
    {"png_rgba16_interlaced", "convert {src} -depth 16 -interlace PNG -define png:color-type=6 {out}", "png", VX_PIXEL_RGBA_FLOAT, 16, "RGBA", "VX_PNG32(.png)", kPngToPam},
    {"jpeg_rgb", "convert {src} -alpha off -depth 8 -quality 90 {out}", "jpg", VX_PIXEL_RGB, 8, "YCbCr", "VX_JPEG(.jpg)", "", -1, true},
    {"jpeg_grey", "convert {src} -alpha off -colorspace Gray -depth 8 {out}", "jpg", VX_PIXEL_GREY, 8, "grey", "VX_JPEG(.jpg)", "", -1, true},
    {"tiff_grey8", "convert {src} -alpha off -colorspace Gray -depth 8 -compress lzw {out}", "tif", VX_PIXEL_GREY, 8, "grey", "VX_TIFF24(.tif)"},
    {"tiff_grey16", "convert {src} -alpha off -colorspace Gray -depth 16 -compress zip {out}", "tif", VX_PIXEL_GREY_FLOAT, 16, "grey", "VX_TIFF24(.tif)"},
    {"tiff_rgb8", "convert {src} -alpha off -depth 8 -compress lzw {out}", "tif", VX_PIXEL_RGB, 8, "RGB", "VX_TIFF24(.tif)"},
    {"tiff_rgb16", "convert {src} -alpha off -depth 16 {out}", "tif", VX_PIXEL_RGB_FLOAT, 16, "RGB", "VX_TIFF24(.tif)"},
    {"tiff_rgba8", "convert {src} -depth 8 {out}", "tif", VX_PIXEL_RGBA, 8, "RGBA", "VX_TIFF32(.tif)"},
    {"tiff_rgba16", "convert {src} -depth 16 -compress zip {out}", "tif", VX_PIXEL_RGBA_FLOAT, 16, "RGBA", "VX_TIFF32(.tif)"},
    {"tiff_palette8", "convert {src} -alpha off -colors 50 -type Palette -depth 8 {out}", "tif", VX_PIXEL_INDEX, 8, "palette", "VX_TIFF24(.tif)", "", VX_PIXEL_RGB},
    {"tiff_tiled_rgb8", "convert {src} -alpha off -depth 8 -define tiff:tile-geometry=16x16 {out}", "tif", VX_PIXEL_RGBA, 8, "RGB", "VX_TIFF32(.tif)"},
    {"bmp_rgb24", "convert {src} -alpha off -depth 8 BMP3:{out}", "bmp", VX_PIXEL_RGB, 8, "RGB", "VX_BMP24(.bmp)"},
    {"bmp_palette8", "convert {src} -alpha off -colors 60 -type Palette -compress none BMP3:{out}", "bmp", VX_PIXEL_RGB, 8, "palette", "VX_BMP24(.bmp)"},
    {"bmp_rgba32", "convert {src} -depth 8 {out}", "bmp", VX_PIXEL_RGBA, 8, "RGBA", "VX_BMP32(.bmp)"},
    {"tga_rgb24", "convert {src} -alpha off -depth 8 {out}", "tga", VX_PIXEL_RGB, 8, "RGB", "VX_TGA24(.tga)", kMagickOriented},
    {"tga_rgba32", "convert {src} -depth 8 {out}", "tga", VX_PIXEL_RGBA, 8, "RGBA", "VX_TGA32(.tga)", kMagickOriented},
    {"psd_rgb8", "convert {src} -alpha off -depth 8 {out}", "psd", VX_PIXEL_RGB, 8, "RGB", "VX_PShop24(.psd)", kMagickFirst},
    {"psd_rgb16", "convert {src} -alpha off -depth 16 {out}", "psd", VX_PIXEL_RGB_FLOAT, 16, "RGB", "VX_PShop24(.psd)", kMagickFirst},
    {"ilbm_rgb24_byterun1", "convert {src} -alpha off -depth 8 ppm:- | ppmtoilbm -24force > {out}", "iff", VX_PIXEL_RGB, 8, "RGB", "VX_ILBM(.iff)", kIlbmToPpm},
    {"ilbm_rgb24_plain", "convert {src} -alpha off -depth 8 ppm:- | ppmtoilbm -24force -nocompress > {out}", "iff", VX_PIXEL_RGB, 8, "RGB", "VX_ILBMPlain(.iff)", kIlbmToPpm},
    {"ilbm_palette8_byterun1", "convert {src} -alpha off -colors 200 -depth 8 ppm:- | ppmtoilbm -maxplanes 8 > {out}", "iff", VX_PIXEL_INDEX, 8, "palette", "VX_ILBM(.iff)", kIlbmToPpm},
    {"ilbm_palette8_plain", "convert {src} -alpha off -colors 200 -depth 8 ppm:- | ppmtoilbm -maxplanes 8 -nocompress > {out}", "iff", VX_PIXEL_INDEX, 8, "palette", "VX_ILBMPlain(.iff)", kIlbmToPpm},
    {"ilbm_palette4_byterun1", "convert {src} -alpha off -colors 12 -depth 8 ppm:- | ppmtoilbm > {out}", "iff", VX_PIXEL_INDEX, 4, "palette", "VX_ILBM(.iff)", kIlbmToPpm},
    {"png_palette4_interlaced", "convert {src} -alpha off -colors 12 -interlace PNG -define png:bit-depth=4 -define png:color-type=3 {out}", "png", VX_PIXEL_INDEX, 4, "palette", "VX_PNG24(.png)"},
};

const char *const kTypeNames[] = {"RGB bytes", "grey bytes", "palette", "grey floats", "RGB floats", "RGBA bytes", "RGBA floats"};

std::string Fill(std::string text, const std::string &src, const std::string &out)
{
    for (size_t at; (at = text.find("{src}")) != std::string::npos;)
        text.replace(at, 5, "'" + src + "'");
    for (size_t at; (at = text.find("{out}")) != std::string::npos;)
        text.replace(at, 5, "'" + out + "'");
    return text;
}

// The first differing sample as "pixel (x, y) channel c: ours v, theirs w", "" when equal.
std::string Difference(const std::vector<uint16_t> &ours, const std::vector<uint16_t> &theirs, int32_t width,
                       bool alpha)
{
    if (ours.size() != theirs.size())
        return "sizes differ: " + std::to_string(ours.size()) + " and " + std::to_string(theirs.size()) + " samples";
    for (size_t i = 0; i < ours.size(); ++i)
        if (ours[i] != theirs[i] && (alpha || i % 4 != 3)) {
            const size_t pixel = i / 4;
            return "pixel (" + std::to_string(pixel % width) + ", " + std::to_string(pixel / width) + ") channel " +
                   std::to_string(i % 4) + ": ours " + std::to_string(ours[i]) + ", theirs " + std::to_string(theirs[i]);
        }
    return "";
}

class ImageFiles : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir_ = new vxtest::TempDir;
        imftest::StartHostWithModules(dir_->Path());
        imftest::WriteSourcePam(dir_->File("src.pam"), 23, 17);
    }
    static void TearDownTestSuite()
    {
        HostShutdown();
        delete dir_;
    }
    static std::string File(const std::string &name) { return dir_->File(name); }
    static std::vector<uint16_t> Reference(const Variant &v, const std::string &file)
    {
        if (!*v.reference)
            return imftest::MagickPixels(file, File("dump.raw"));
        const std::string pam = File("dump.pam");
        std::string command = v.reference;
        command.replace(command.find("{file}"), 6, "'" + file + "'");
        return imftest::Run("(" + command + ") 2>/dev/null > '" + pam + "'") ? imftest::ReadPam16(pam) : std::vector<uint16_t>{};
    }
    static vxtest::TempDir *dir_;
};
vxtest::TempDir *ImageFiles::dir_ = nullptr;

// Every variant: the outside tool writes it, we read it as the tool does; we write it back and
// the tool reads what we read.
TEST_F(ImageFiles, RoundTripsWithOutsideTools)
{
    if (!imftest::HasTool("convert") || !imftest::HasTool("pnmtopng"))
        GTEST_SKIP() << "ImageMagick (convert) or netpbm (pnmtopng) is not installed";
    for (const Variant &v : kVariants) {
        SCOPED_TRACE(v.name);
        const std::string file = File(std::string(v.name) + "." + v.ext);
        ASSERT_TRUE(imftest::Run("(" + Fill(v.command, File("src.pam"), file) + ") 2>/dev/null"))
            << "the tool could not write " << file;
        Loaded in;
        imftest::Load(file, in);
        EXPECT_EQ(in.result, IMAGEFILE_OK) << in.message;
        if (!in.image)
            continue;
        EXPECT_EQ(in.image->type, v.type);
        EXPECT_EQ(in.info.bitDepth, v.bitDepth);
        EXPECT_STREQ(in.info.colour, v.colour);
        const std::vector<uint16_t> ours = imftest::Rgba16(in.image);
        EXPECT_EQ(Difference(ours, Reference(v, file), 23, true), "") << "reading";
        std::printf("  %-24s %-5s %2d-bit %-13s -> %-16s read %s", v.name, in.info.format, in.info.bitDepth,
                    in.info.colour, kTypeNames[in.image->type],
                    std::strncmp(v.reference, "convert", 7) == 0 || !*v.reference ? "= ImageMagick" : "= netpbm");
        if (!v.saver) {
            std::printf("\n");
            continue;
        }
        const std::string back = File(std::string(v.name) + "_back." + v.ext);
        char message[IMAGEFILE_MESSAGE_SIZE] = "";
        EXPECT_EQ(ImageFileSave(back.c_str(), v.saver, in.image, 0, message, sizeof message), IMAGEFILE_OK) << message;
        const bool keepsAlpha = std::strstr(v.saver, "32(") != nullptr;
        Loaded again;
        imftest::Load(back, again);
        EXPECT_EQ(again.result, IMAGEFILE_OK) << again.message;
        if (!again.image)
            continue;
        EXPECT_EQ(again.image->type, v.backType < 0 ? v.type : v.backType);
        const std::vector<uint16_t> written = v.lossy ? imftest::Rgba16(again.image) : ours;
        EXPECT_EQ(Difference(written, Reference(v, back), 23, keepsAlpha), "") << "writing";
        if (!v.lossy) {
            EXPECT_EQ(Difference(ours, imftest::Rgba16(again.image), 23, keepsAlpha), "") << "reading our file";
        }
        std::printf(", %s written, read back %s\n", v.saver, v.lossy ? "= our reading" : "= ours");
    }
}

}  // namespace

namespace {

// A PNG that claims width x height RGB pixels and holds only its first `rows` rows.
void WriteTruncatedPng(const std::string &path, uint32_t width, uint32_t height, uint32_t rows)
{
    FILE *file = std::fopen(path.c_str(), "wb");
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    std::vector<uint8_t> row(static_cast<size_t>(width) * 3);
    uint32_t noise = 2463534242u;  // rows that do not compress, so the data reaches the file
    for (uint32_t y = 0; y < rows; ++y) {
        for (uint8_t &byte : row) {
            noise ^= noise << 13, noise ^= noise >> 17, noise ^= noise << 5;
            byte = static_cast<uint8_t>(noise);
        }
        png_write_row(png, row.data());
    }
    png_write_flush(png);
    png_destroy_write_struct(&png, &info);
    std::fclose(file);
}

long MaxRssKb()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Files that claim more than they hold: refused at the header when above the pixel limit;
// under a raised limit they fail on the missing rows without touching the claimed size.
TEST_F(ImageFiles, LyingSizesAreRefusedCheaply)
{
    const std::string huge = File("huge.png");
    WriteTruncatedPng(huge, 40000, 40000, 12);
    const long before = MaxRssKb();
    const auto start = std::chrono::steady_clock::now();
    Loaded refused;
    imftest::Load(huge, refused);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(refused.result, IMAGEFILE_TOO_LARGE);
    EXPECT_EQ(refused.message, "PNG: 40000 x 40000 pixels is more than the limit of 268435456 pixels");
    EXPECT_EQ(refused.image, nullptr);
    EXPECT_LT(seconds, 1.0);
    EXPECT_LT(MaxRssKb() - before, 64 * 1024);

    ImageFileInfo info{};
    ASSERT_EQ(ImageFileReadInfo(huge.c_str(), &info, nullptr, 0), IMAGEFILE_OK);
    EXPECT_EQ(std::string(info.format) + " " + std::to_string(info.width) + "x" + std::to_string(info.height) + " " +
                  std::to_string(info.bitDepth) + " " + info.colour,
              "PNG 40000x40000 8 RGB");

    ImageFileSetPixelLimit(uint64_t{1} << 31);
    Loaded truncated;
    imftest::Load(huge, truncated);
    ImageFileSetPixelLimit(0);
    EXPECT_EQ(ImageFileGetPixelLimit(), IMAGEFILE_DEFAULT_PIXEL_LIMIT);
    EXPECT_TRUE(truncated.result == IMAGEFILE_BAD_FILE || truncated.result == IMAGEFILE_NO_MEMORY) << truncated.message;
    EXPECT_EQ(truncated.image, nullptr);
    EXPECT_LT(MaxRssKb() - before, 64 * 1024);
}

// What the library says for files and requests no server can take.
TEST_F(ImageFiles, FailuresAreOneLine)
{
    const std::string text = File("notes.png");
    std::ofstream(text) << "not a picture\nsecond line\n";
    struct Case {
        std::string path, saver;
        int32_t result;
        std::string message;
    };
    const Case cases[] = {
        {File("absent.png"), "", IMAGEFILE_IO_ERROR, "No such file or directory"},
        {dir_->Path(), "", IMAGEFILE_IO_ERROR, "not a regular file"},
        {text, "", IMAGEFILE_BAD_FILE, "not a known image format (tried "},
        {File("out.xyz"), "-", IMAGEFILE_NO_SERVER, "no image saver for this file name's extension"},
        {File("out.png"), "VX_NoSuchSaver", IMAGEFILE_NO_SERVER, "image saver VX_NoSuchSaver: no such server"},
        {File("no/such/dir/out.png"), "VX_PNG24(.png)", IMAGEFILE_IO_ERROR, "PNG: cannot create the file"},
    };
    VxImage *image = ImageCreate(VX_PIXEL_RGB, 4, 3);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        char message[IMAGEFILE_MESSAGE_SIZE] = "";
        int32_t result;
        if (c.saver.empty()) {
            Loaded in;
            imftest::Load(c.path, in);
            result = in.result;
            std::snprintf(message, sizeof message, "%s", in.message.c_str());
        } else {
            result = ImageFileSave(c.path.c_str(), c.saver == "-" ? nullptr : c.saver.c_str(), image, 0, message,
                                   sizeof message);
        }
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(std::string(message).substr(0, c.message.size()), c.message);
        EXPECT_EQ(std::strchr(message, '\n'), nullptr);
    }
    ImageDestroy(image);
}

// The saver is chosen by extension, with alpha when the image has it.
TEST_F(ImageFiles, SaverForExtension)
{
    VxImage *rgb = ImageCreate(VX_PIXEL_RGB, 1, 1), *rgba = ImageCreate(VX_PIXEL_RGBA_FLOAT, 1, 1);
    const std::pair<std::string, const char *> expected[] = {
        {"a.PNG", "VX_PNG24(.png)"}, {"b.png+", "VX_PNG32(.png)"}, {"c.jpg", "VX_JPEG(.jpg)"},
        {"d.jpg+", "VX_JPEG(.jpg)"}, {"e.tga+", "VX_TGA32(.tga)"}, {"f", nullptr}, {"dir.png/g", nullptr},
    };
    for (const auto &[name, saver] : expected) {
        const bool alpha = name.back() == '+';
        const std::string path = alpha ? name.substr(0, name.size() - 1) : name;
        const char *got = ImageFileSaverFor(path.c_str(), alpha ? rgba : rgb);
        EXPECT_STREQ(got ? got : "(none)", saver ? saver : "(none)") << name;
    }
    ImageDestroy(rgb);
    ImageDestroy(rgba);
}

}  // namespace

namespace {

// The database written by scanning is read back by the next start, and its PNG loader loads.
TEST_F(ImageFiles, ScannedDatabaseActivatesAfterRestart)
{
    HostShutdown();
    ASSERT_EQ(HostSetDatabase(dir_->Path().c_str()), 1);
    ASSERT_EQ(HostStartup(), 1);
    const int32_t index = ServerGetIndex("ImageLoader", "VX_PNGLoader");
    ASSERT_GE(index, 0);
    const std::string module = ServerGetModule("ImageLoader", index);
    EXPECT_EQ(module.substr(module.size() - 13), "Plugins/PNG.p");
    EXPECT_EQ(ServerModuleLoaded("ImageLoader", "VX_PNGLoader"), 0);
    VxImage *image = ImageCreate(VX_PIXEL_RGB, 3, 2);
    const std::string file = File("restart.png");
    ASSERT_EQ(ImageFileSave(file.c_str(), nullptr, image, 0, nullptr, 0), IMAGEFILE_OK);
    ImageDestroy(image);
    Loaded in;
    imftest::Load(file, in);
    EXPECT_EQ(in.result, IMAGEFILE_OK) << in.message;
    EXPECT_EQ(ServerModuleLoaded("ImageLoader", "VX_PNGLoader"), 1);
}

// Damaged files of every format we write: cut short or with bytes changed, each load either
// succeeds with an image that matches its header or fails with one line and no image.
TEST_F(ImageFiles, DamagedFilesFailInOneLine)
{
    VxImage *image = ImageCreate(VX_PIXEL_RGBA_FLOAT, 23, 17);
    for (int32_t y = 0; y < 17; ++y)
        for (int32_t x = 0; x < 23; ++x) {
            const auto fx = static_cast<float>(x), fy = static_cast<float>(y);
            const float rgba[4] = {fx / 22.0f, fy / 16.0f, static_cast<float>((x + y) % 5) / 4.0f, 1.0f - fx / 44.0f};
            image->setPixel(image, VX_PIXEL_RGBA_FLOAT, x, y, rgba);
        }
    VxImage *palette = ImageIndexCreate(23, 17, 256);
    for (int32_t y = 0; y < 17; ++y) {
        uint8_t row[23];
        for (int32_t x = 0; x < 23; ++x)
            row[x] = static_cast<uint8_t>(x * 11 + y * 3);
        palette->setLine(palette, VX_PIXEL_INDEX, y, row);
    }
    const std::pair<const char *, VxImage *> savers[] = {
        {"VX_PNG32(.png)", image},   {"VX_PNG24(.png)", palette}, {"VX_JPEG(.jpg)", image},
        {"VX_TIFF32(.tif)", image},  {"VX_BMP32(.bmp)", image},   {"VX_TGA32(.tga)", image},
        {"VX_PShop24(.psd)", image}, {"VX_ILBM(.iff)", image},    {"VX_ILBMPlain(.iff)", palette},
    };
    uint32_t seed = 12345;
    int loads = 0, succeeded = 0;
    for (const auto &[saver, source] : savers) {
        SCOPED_TRACE(saver);
        const std::string good = File("good"), bad = File("bad");
        ASSERT_EQ(ImageFileSave(good.c_str(), saver, source, 0, nullptr, 0), IMAGEFILE_OK);
        const std::vector<uint8_t> bytes = vxtest::ReadBytes(good);
        for (int round = 0; round < 60; ++round) {
            std::vector<uint8_t> damaged = bytes;
            if (round < 12) {
                damaged.resize(bytes.size() * static_cast<size_t>(round) / 12);
            } else {
                for (int flips = 1 + round % 4; flips > 0; --flips) {
                    seed = seed * 1103515245u + 12345u;
                    damaged[(seed >> 8) % damaged.size()] = static_cast<uint8_t>(seed >> 24);
                }
            }
            vxtest::WriteBytes(bad, damaged);
            Loaded in;
            imftest::Load(bad, in);
            ++loads;
            if (in.result == IMAGEFILE_OK) {
                ++succeeded;
                ASSERT_NE(in.image, nullptr);
                EXPECT_EQ(in.image->width * 1000 + in.image->height, in.info.width * 1000 + in.info.height);
            } else {
                EXPECT_EQ(in.image, nullptr);
                EXPECT_FALSE(in.message.empty());
                EXPECT_EQ(in.message.find('\n'), std::string::npos);
            }
        }
    }
    std::printf("  %d damaged files loaded, %d of them still decoded\n", loads, succeeded);
    ImageDestroy(palette);
    ImageDestroy(image);
}

// ILBM headers that lie: more pixels than the limit, a BODY shorter than its rows, runs that
// cross a row, no BMHD.
TEST_F(ImageFiles, IlbmLiesAreRefused)
{
    auto chunk = [](const char *id, const std::vector<uint8_t> &data) {
        std::vector<uint8_t> out(id, id + 4);
        const auto n = static_cast<uint32_t>(data.size());
        for (int shift = 24; shift >= 0; shift -= 8)
            out.push_back(static_cast<uint8_t>(n >> shift));
        out.insert(out.end(), data.begin(), data.end());
        if (n & 1)
            out.push_back(0);
        return out;
    };
    auto form = [&](const std::vector<std::vector<uint8_t>> &chunks) {
        std::vector<uint8_t> body = {'I', 'L', 'B', 'M'};
        for (const auto &c : chunks)
            body.insert(body.end(), c.begin(), c.end());
        return chunk("FORM", body);
    };
    auto bmhd = [&](uint16_t w, uint16_t h, uint8_t planes, uint8_t compression) {
        return chunk("BMHD", {static_cast<uint8_t>(w >> 8), static_cast<uint8_t>(w), static_cast<uint8_t>(h >> 8),
                              static_cast<uint8_t>(h), 0, 0, 0, 0, planes, 0, compression, 0, 0, 0, 1, 1, 0, 16, 0, 16});
    };
    const std::vector<uint8_t> cmap = chunk("CMAP", {0, 0, 0, 255, 255, 255});
    struct Case {
        const char *name;
        std::vector<uint8_t> file;
        int32_t result;
        const char *message;
        std::vector<uint8_t> row0 = {};  // the first row's indices, where checked
    };
    const std::vector<uint8_t> halves = {1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1};
    const Case cases[] = {
        {"huge", form({bmhd(65535, 65535, 24, 1), chunk("BODY", {0, 0})}), IMAGEFILE_TOO_LARGE,
         "ILBM: 65535 x 65535 pixels is more than the limit of 268435456 pixels"},
        {"short body", form({bmhd(16, 4, 1, 0), cmap, chunk("BODY", {1, 2, 3, 4})}), IMAGEFILE_BAD_FILE,
         "ILBM: the BODY ends or breaks off at row 2"},
        {"run crosses row", form({bmhd(16, 1, 1, 1), cmap, chunk("BODY", {0x80 + 0x7D, 9})}), IMAGEFILE_BAD_FILE,
         "ILBM: the BODY ends or breaks off at row 0"},
        {"no bmhd", form({cmap, chunk("BODY", {0})}), IMAGEFILE_BAD_FILE, "ILBM: the file has no BMHD"},
        {"12 planes", form({bmhd(8, 1, 12, 0), chunk("BODY", {0})}), IMAGEFILE_BAD_FILE,
         "ILBM: 12 planes with compression 0 cannot be read"},
        {"truncated form", std::vector<uint8_t>{'F', 'O', 'R', 'M', 0, 0, 1, 0, 'I', 'L', 'B', 'M', 'B', 'M', 'H', 'D', 0, 0, 0, 20, 1},
         IMAGEFILE_BAD_FILE, "ILBM: the file is truncated or its chunks do not fit"},
        // The HAM flag on one plane is ignored: the planes are palette indices.
        {"ham on one plane", form({bmhd(16, 1, 1, 0), chunk("CAMG", {0, 0, 8, 0}), cmap, chunk("BODY", {0xF0, 0x0F})}), IMAGEFILE_OK, "", halves},
        // Row 0 a literal of two bytes, row 1 a run of two 0xAA.
        {"two rows", form({bmhd(16, 2, 1, 1), cmap, chunk("BODY", {1, 0xF0, 0x0F, 0xFF, 0xAA})}), IMAGEFILE_OK, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        vxtest::WriteBytes(File("lie.iff"), c.file);
        Loaded in;
        imftest::Load(File("lie.iff"), in);
        EXPECT_EQ(in.result, c.result);
        EXPECT_EQ(in.message, c.message);
        if (!c.row0.empty()) {
            ASSERT_NE(in.image, nullptr);
            std::vector<uint8_t> row(c.row0.size());
            in.image->getLine(in.image, VX_PIXEL_INDEX, 0, row.data());
            EXPECT_EQ(row, c.row0);
        }
    }
    Loaded rows;
    imftest::Load(File("lie.iff"), rows);
    ASSERT_EQ(rows.result, IMAGEFILE_OK);
    uint8_t top[16], bottom[16];
    rows.image->getLine(rows.image, VX_PIXEL_INDEX, 0, top);
    rows.image->getLine(rows.image, VX_PIXEL_INDEX, 1, bottom);
    EXPECT_EQ(std::vector<uint8_t>(top, top + 16), (std::vector<uint8_t>{1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1}));
    EXPECT_EQ(std::vector<uint8_t>(bottom, bottom + 16), (std::vector<uint8_t>{1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0}));
}

}  // namespace

namespace {

// Loads and saves with the library's allocation k failing: each failing run reports a code
// (no image, nothing leaked) and the run with no failure succeeds.
TEST_F(ImageFiles, OutOfMemoryFailsCleanly)
{
    VxImage *rgb = ImageCreate(VX_PIXEL_RGB_FLOAT, 7, 5);
    VxImage *palette = ImageIndexCreate(7, 5, 16);
    const std::pair<const char *, VxImage *> formats[] = {
        {"VX_PNG24(.png)", rgb}, {"VX_ILBM(.iff)", palette}, {"VX_TIFF24(.tif)", rgb}, {"VX_JPEG(.jpg)", rgb}};
    for (const auto &format : formats) {
        const char *saver = format.first;  // named, not bound: lambdas capture them below
        VxImage *image = format.second;
        SCOPED_TRACE(saver);
        const std::string file = File("oom"), copy = File("oom-copy");
        ASSERT_EQ(ImageFileSave(file.c_str(), saver, image, 0, nullptr, 0), IMAGEFILE_OK);
        Loaded warm;  // the modules are loaded before the sweep
        imftest::Load(file, warm);
        VxImage *loaded = nullptr;
        int32_t result = IMAGEFILE_OK;
        const vxtest::OomCase load{[] {},
                                   [&] {
                                       result = ImageFileLoad(file.c_str(), &loaded, nullptr, nullptr, 0);
                                       return result == IMAGEFILE_OK;
                                   },
                                   [&] {
                                       EXPECT_EQ(loaded, nullptr);
                                       EXPECT_TRUE(result == IMAGEFILE_NO_MEMORY || result == IMAGEFILE_BAD_FILE) << result;
                                   },
                                   [&] {
                                       ImageDestroy(loaded);
                                       loaded = nullptr;
                                   }};
        const vxtest::OomCase save{[] {},
                                   [&] { return ImageFileSave(copy.c_str(), saver, image, 0, nullptr, 0) == IMAGEFILE_OK; },
                                   [] {}, [] {}};
        for (vxtest::FailMode mode : {vxtest::FailMode::Once, vxtest::FailMode::FromThen}) {
            EXPECT_GT(vxtest::OomSweep(load, mode).failingRuns, 0);
            EXPECT_GT(vxtest::OomSweep(save, mode).failingRuns, 0);
        }
    }
    ImageDestroy(palette);
    ImageDestroy(rgb);
}

}  // namespace
