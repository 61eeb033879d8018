#include <vxtools3/debug.h>
#include <vxtools3/platform.h>

#include "testkit/capture.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

class PanicDeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(PanicDeathTest, ExitsWithStatusTenAndThePanicLine)
{
    EXPECT_EXIT(panic("disk on fire"), ::testing::ExitedWithCode(10), "^PANIC EXIT -- disk on fire\n$");
}

TEST_F(PanicDeathTest, DebugModeShowsTheAlertAndWritesTheDebugFile)
{
    // Forked without re-running the test, so that the child writes where the parent reads.
    GTEST_FLAG_SET(death_test_style, "fast");
    vxtest::TempDir dir;
    const std::string log = dir.File("debug.txt");
    EXPECT_EXIT(
        {
            DBfile(log.c_str());
            DBenable(1);
            panic("bad block");
        },
        ::testing::ExitedWithCode(10), "Anomalous Exit!: bad block\n(.|\n)*PANIC EXIT -- bad block\n");
    std::ifstream in(log);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), "PANIC EXIT -- bad block\n");
}

}  // namespace
