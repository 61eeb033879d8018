#include <vxtools3/platform.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <string>

namespace {

class SystemPathTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (int n = 0; n < SYSTEM_PATH_COUNT; ++n)
            FileSetSystemPath(n, nullptr);
    }
};

bool SameFile(const std::string &a, const std::string &b)
{
    struct stat sa, sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

TEST_F(SystemPathTest, HostPathIsTheDirectoryHoldingThisProgram)
{
    const std::string dir = FileSystemPath(SYSTEM_PATH_HOST);
    ASSERT_FALSE(dir.empty());
    EXPECT_NE(dir.back(), '/');
    EXPECT_TRUE(SameFile(dir + "/" + program_invocation_short_name, "/proc/self/exe")) << dir;
}

TEST_F(SystemPathTest, UnsetPathsReadAsPathZeroAndFollowIt)
{
    EXPECT_STREQ(FileSystemPath(SYSTEM_PATH_CONFIG), FileSystemPath(SYSTEM_PATH_HOST));
    ASSERT_EQ(FileSetSystemPath(0, "/opt/vexmark"), 1);
    for (int n = 0; n < SYSTEM_PATH_COUNT; ++n)
        EXPECT_STREQ(FileSystemPath(n), "/opt/vexmark") << n;
    ASSERT_EQ(FileSetSystemPath(SYSTEM_PATH_CONFIG, "/home/u/.vexmark"), 1);
    EXPECT_STREQ(FileSystemPath(SYSTEM_PATH_CONFIG), "/home/u/.vexmark");
    EXPECT_STREQ(FileSystemPath(4), "/opt/vexmark");
    // Clearing, with NULL or "", returns each path to its default.
    ASSERT_EQ(FileSetSystemPath(SYSTEM_PATH_CONFIG, ""), 1);
    EXPECT_STREQ(FileSystemPath(SYSTEM_PATH_CONFIG), "/opt/vexmark");
    ASSERT_EQ(FileSetSystemPath(0, nullptr), 1);
    EXPECT_TRUE(SameFile(FileSystemPath(0), FileSystemPath(SYSTEM_PATH_CONFIG)));
}

TEST_F(SystemPathTest, PathsAreCopiesAndBadRequestsChangeNothing)
{
    char path[] = "/srv/a";
    ASSERT_EQ(FileSetSystemPath(3, path), 1);
    path[5] = 'b';
    EXPECT_STREQ(FileSystemPath(3), "/srv/a");

    EXPECT_EQ(FileSystemPath(-1), nullptr);
    EXPECT_EQ(FileSystemPath(SYSTEM_PATH_COUNT), nullptr);
    EXPECT_EQ(FileSetSystemPath(-1, "/x"), 0);
    EXPECT_EQ(FileSetSystemPath(SYSTEM_PATH_COUNT, "/x"), 0);

    const std::string longest(4095, 'p');
    EXPECT_EQ(FileSetSystemPath(3, longest.c_str()), 1);
    EXPECT_EQ(FileSystemPath(3), longest);
    EXPECT_EQ(FileSetSystemPath(3, (longest + "q").c_str()), 0);
    EXPECT_EQ(FileSystemPath(3), longest);
}

}  // namespace
