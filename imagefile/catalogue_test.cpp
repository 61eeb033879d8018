// The image modules under the built-in catalogue (catalogue mode is fixed for the whole process
// by the "Product Info" value, so these tests have a program of their own).
#include "imagefile_test.h"

#include <vxtools3/lists.h>
#include <vxtools3/platform.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>

namespace {

class Catalogue : public ::testing::Test {
protected:
    void SetUp() override
    {
        GlobalListDefine("Product Info", reinterpret_cast<void *>(uintptr_t{3}));
        plugins_ = dir_.File("Plugins");
        ASSERT_EQ(mkdir(plugins_.c_str(), 0700), 0);
        for (const std::string &file : imftest::ModuleFiles())
            ASSERT_EQ(symlink(file.c_str(), (plugins_ + file.substr(file.rfind('/'))).c_str()), 0);
        ASSERT_EQ(FileSetSystemPath(3, dir_.Path().c_str()), 1);
        ASSERT_EQ(HostStartup(), 1);
        picture_ = dir_.File("ramp.png");
        VxImage *image = ImageCreate(VX_PIXEL_GREY, 5, 2);
        for (int32_t x = 0; x < 5; ++x) {
            const uint8_t grey = static_cast<uint8_t>(60 * x);
            image->setPixel(image, VX_PIXEL_GREY, x, 1, &grey);
        }
        char message[IMAGEFILE_MESSAGE_SIZE] = "";
        ASSERT_EQ(ImageFileSave(picture_.c_str(), nullptr, image, 0, message, sizeof message), IMAGEFILE_OK) << message;
        ImageDestroy(image);
    }
    void TearDown() override { HostShutdown(); }
    // Restarts the host with module file `name` of Plugins/ removed.
    void RestartWithout(const std::string &name)
    {
        HostShutdown();
        ASSERT_EQ(unlink((plugins_ + "/" + name).c_str()), 0);
        ASSERT_EQ(HostStartup(), 1);
    }

    vxtest::TempDir dir_;
    std::string plugins_, picture_;
};

TEST_F(Catalogue, ActivatesThePngLoaderDirectlyAndThroughTheLoadCall)
{
    ASSERT_NE(ServerGetModule("ImageLoader", ServerGetIndex("ImageLoader", "VX_PNGLoader")), nullptr);
    ImageLoaderLocal local;
    std::memset(&local, 0, sizeof local);
    local.fileName = picture_.c_str();
    local.services = ImageFileGetServices();
    local.pixelLimit = IMAGEFILE_DEFAULT_PIXEL_LIMIT;
    ASSERT_EQ(HostActivateVer("ImageLoader", "VX_PNGLoader", &local, IMAGEFILE_PROTOCOL), 0);
    ASSERT_EQ(local.result, IMAGEFILE_OK) << local.message;
    uint8_t row[5];
    ASSERT_EQ(local.image->getLine(local.image, VX_PIXEL_GREY, 1, row), 1);
    EXPECT_EQ(std::vector<uint8_t>(row, row + 5), (std::vector<uint8_t>{0, 60, 120, 180, 240}));
    ImageDestroy(local.image);

    imftest::Loaded in;
    imftest::Load(picture_, in);
    ASSERT_EQ(in.result, IMAGEFILE_OK) << in.message;
    EXPECT_STREQ(in.info.format, "PNG");
    EXPECT_EQ(HostActivateVer("ImageLoader", "VX_PNGLoader", &local, IMAGEFILE_PROTOCOL + 1), 1) << "unknown version";
}

TEST_F(Catalogue, MissingModuleFileIsNamedNotFatal)
{
    RestartWithout("PNG.p");
    imftest::Loaded in;
    imftest::Load(picture_, in);
    EXPECT_EQ(in.result, IMAGEFILE_BAD_FILE);
    EXPECT_NE(in.message.find("; VX_PNGLoader: its module could not be loaded"), std::string::npos) << in.message;
    ImageLoaderLocal local;
    std::memset(&local, 0, sizeof local);
    EXPECT_EQ(HostActivateVer("ImageLoader", "VX_PNGLoader", &local, IMAGEFILE_PROTOCOL), -2);
    VxImage *image = ImageCreate(VX_PIXEL_RGB, 1, 1);
    char message[IMAGEFILE_MESSAGE_SIZE] = "";
    EXPECT_EQ(ImageFileSave(dir_.File("x.png").c_str(), nullptr, image, 0, message, sizeof message), IMAGEFILE_NO_SERVER);
    EXPECT_STREQ(message, "image saver VX_PNG24(.png): its module could not be loaded");
    ImageDestroy(image);
}

TEST_F(Catalogue, PictAndQuickTimeAreNotAvailableHere)
{
    VxImage *image = ImageCreate(VX_PIXEL_RGB, 1, 1);
    char message[IMAGEFILE_MESSAGE_SIZE] = "";
    EXPECT_EQ(ImageFileSave(dir_.File("x.pct").c_str(), nullptr, image, 0, message, sizeof message),
              IMAGEFILE_UNAVAILABLE);
    EXPECT_STREQ(message, "PICT: not available on this platform");
    ImageDestroy(image);
    std::vector<uint8_t> pict(600, 0);
    pict[522] = 0x00, pict[523] = 0x11, pict[524] = 0x02, pict[525] = 0xFF;
    vxtest::WriteBytes(dir_.File("old.pct"), pict);
    const std::vector<uint8_t> movie = {0, 0, 0, 20, 'f', 't', 'y', 'p', 'q', 't', ' ', ' ', 0, 0, 0, 0, 0, 0, 0, 0};
    vxtest::WriteBytes(dir_.File("clip.mov"), movie);
    for (const auto &[file, text] : {std::pair<std::string, std::string>{"old.pct", "PICT: not available on this platform"},
                                     {"clip.mov", "QuickTime: not available on this platform"}}) {
        imftest::Loaded in;
        imftest::Load(dir_.File(file), in);
        EXPECT_EQ(in.result, IMAGEFILE_UNAVAILABLE) << file;
        EXPECT_EQ(in.message, text);
    }
    EXPECT_EQ(HostActivateVer("AnimSaverHandler", "QuickTime(.mov)", nullptr, -1), IMAGEFILE_UNAVAILABLE);
}

}  // namespace
