#include <vxtools3/config.h>
#include <vxtools3/platform.h>

#include "testkit/capture.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace {

class ConfigNameTest : public ::testing::Test {
protected:
    void TearDown() override { FileSetSystemPath(SYSTEM_PATH_CONFIG, nullptr); }
    vxtest::TempDir dir_;
};

TEST_F(ConfigNameTest, DirectoryGetsTheUpperCasedBaseWithCfg)
{
    EXPECT_EQ(std::string(ConfigGenerateName(dir_.Path().c_str(), "layout", "ignored")),
              dir_.Path() + "/LAYOUT.CFG");
    // A trailing slash adds no second one; only ASCII letters change case.
    EXPECT_EQ(std::string(ConfigGenerateName((dir_.Path() + "/").c_str(), "mod-3d_x\xc3\xa9", nullptr)),
              dir_.Path() + "/MOD-3D_X\xc3\xa9.CFG");
    // A missing directory spelled with a slash is still taken as a directory.
    EXPECT_STREQ(ConfigGenerateName("/no/such/dir/", "a", nullptr), "/no/such/dir/A.CFG");
}

TEST_F(ConfigNameTest, NoDirectoryMeansSystemPathFive)
{
    ASSERT_EQ(FileSetSystemPath(SYSTEM_PATH_CONFIG, dir_.Path().c_str()), 1);
    EXPECT_EQ(std::string(ConfigGenerateName(nullptr, "Modeler", nullptr)), dir_.Path() + "/MODELER.CFG");
    EXPECT_EQ(std::string(ConfigGenerateName("", "Modeler", nullptr)), dir_.Path() + "/MODELER.CFG");
    // Path 5 may itself name a file.
    const std::string file = dir_.File("my.cfg");
    ASSERT_EQ(FileSetSystemPath(SYSTEM_PATH_CONFIG, file.c_str()), 1);
    EXPECT_EQ(std::string(ConfigGenerateName(nullptr, "Modeler", nullptr)), file);
}

TEST_F(ConfigNameTest, AnythingButADirectoryIsTheFileItself)
{
    const std::string existing = dir_.File("settings.txt");
    std::ofstream(existing) << "x\n";
    EXPECT_EQ(std::string(ConfigGenerateName(existing.c_str(), "layout", nullptr)), existing);
    const std::string missing = dir_.File("new.cfg");
    EXPECT_EQ(std::string(ConfigGenerateName(missing.c_str(), nullptr, nullptr)), missing);
}

TEST_F(ConfigNameTest, MissingBaseAndOverlongNamesGiveNull)
{
    EXPECT_EQ(ConfigGenerateName(dir_.Path().c_str(), nullptr, nullptr), nullptr);
    EXPECT_EQ(ConfigGenerateName(dir_.Path().c_str(), "", nullptr), nullptr);
    const std::string longBase(4096 - dir_.Path().size() - 1 - 4, 'b');  // one byte too many
    EXPECT_EQ(ConfigGenerateName(dir_.Path().c_str(), longBase.c_str(), nullptr), nullptr);
    const std::string fits = longBase.substr(1);
    const char *name = ConfigGenerateName(dir_.Path().c_str(), fits.c_str(), nullptr);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(std::string(name).size(), 4095u);
}

}  // namespace
