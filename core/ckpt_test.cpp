#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>

#include "core/ckpt_internal.h"
#include "testkit/capture.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<int> g_ran;  // ids of the actions run, in order

void Record(uintptr_t id, uintptr_t)
{
    EXPECT_EQ(CkptRecovering(), 1) << "armed actions run while recovering";
    g_ran.push_back(static_cast<int>(id));
}

class CkptTest : public ::testing::Test {
protected:
    void SetUp() override { vx::ckpt::ResetForTest(); g_ran.clear(); }
    void TearDown() override { EXPECT_EQ(CkptLevel(), -1) << "a test left a block open"; }
};

int g_value = 0;  // set to 2 by the second owner, which arms its restoration

// Owners nested from `depth` to 3: owner d arms action d1, calls the next one in, arms d2; the
// innermost then raises `innerCode` when it is non-zero, the outermost raises 5 when `failLast`.
int Owner(int depth, int innerCode, bool failLast)
{
    CKPT_BEGIN_OR_RETURN(0);
    CkptArm(Record, static_cast<uintptr_t>(10 * depth + 1), 0);
    if (depth == 2) {
        CkptArm(CkptAssignInt, reinterpret_cast<uintptr_t>(&g_value), static_cast<uintptr_t>(g_value));
        CkptAssignInt(reinterpret_cast<uintptr_t>(&g_value), 2);
    }
    if (depth < 3)
        Owner(depth + 1, innerCode, failLast);
    CkptArm(Record, static_cast<uintptr_t>(10 * depth + 2), 0);
    if (depth == 3 && innerCode)
        CkptRecover(innerCode);
    if (depth == 1 && failLast)
        CkptRecover(5);
    CkptEnd();
    return 1;
}

TEST_F(CkptTest, FailureUnwindsEveryBlockInnermostFirst)
{
    g_value = 1;
    EXPECT_EQ(Owner(1, 7, false), 0) << "the outermost owner returns failure";
    EXPECT_EQ(g_ran, (std::vector<int>{32, 31, 21, 11}));
    EXPECT_EQ(g_value, 1) << "CkptAssignInt restored the value";
    EXPECT_EQ(CkptRecovering(), 0);
    EXPECT_EQ(CkptLatchCode(), 7) << "the outermost owner sees the raised code";
    EXPECT_EQ(CkptLatchCode(), 0) << "reading the code clears it";
    EXPECT_EQ(vx::ckpt::ArmedIndex(), -1);
    // The inner blocks ended: their actions never run. The outer block's actions armed before
    // and after them do, newest first.
    g_ran.clear();
    EXPECT_EQ(Owner(1, 0, true), 0);
    EXPECT_EQ(g_ran, (std::vector<int>{12, 11}));
    EXPECT_EQ(g_value, 2);
    EXPECT_EQ(CkptLatchCode(), 5);
    g_ran.clear();
    g_value = 1;
    EXPECT_EQ(Owner(1, 0, false), 1);
    EXPECT_TRUE(g_ran.empty());
    EXPECT_EQ(g_value, 2);
}

// Opens `blocks` nested blocks and arms `actions` actions in the innermost.
void Fill(int blocks, int actions = 0)
{
    for (int i = 0; i < blocks; ++i)
        CkptBeginBuf();
    for (int i = 0; i < actions; ++i)
        CkptArm(Record, static_cast<uintptr_t>(i), 0);
}

TEST_F(CkptTest, ArmEndAndCodesCount)
{
    EXPECT_EQ(CkptArm(Record, 1, 0), -1) << "arming outside a block returns the level";
    EXPECT_EQ(vx::ckpt::ArmedIndex(), -1) << "and arms nothing";
    EXPECT_EQ(CkptPropogate(), 0);
    EXPECT_EQ(CkptRecover(42), 0);
    int code = -1;
    EXPECT_EQ(CkptSuckCode(&code), 0);
    EXPECT_EQ(code, 42) << "the code is latched even with no block open";
    EXPECT_EQ(CkptSuckCode(nullptr), 0);
    EXPECT_EQ(CkptLatchCode(), 0);
    vx::ckpt::ResetForTest();
    Fill(2);
    EXPECT_EQ(CkptArm(Record, 1, 0), 0) << "the new armed index";
    CkptEnd();
    EXPECT_EQ(CkptArm(Record, 2, 0), 0) << "the inner block's action was dropped";
    CkptEnd();
}

// Reports of CkptRebalance, as "headline|detail".
std::vector<std::string> g_reports;
void CollectReport(const char *title, const char *headline, const char *detail)
{
    EXPECT_STREQ(title, "DEBUG INFO");
    g_reports.push_back(std::string(headline) + "|" + detail);
}

TEST_F(CkptTest, RebalanceReportsAndRepairs)
{
    vxtest::DebugCapture debug;  // debug mode on
    g_reports.clear();
    CkptRebalance(CollectReport);  // baseline: level -1, nothing armed
    CkptRebalance(CollectReport);
    EXPECT_TRUE(g_reports.empty()) << "balanced: nothing to report";
    CkptEnd();
    CkptEnd();  // with no block open: counted, the level stays -1
    EXPECT_EQ(vx::ckpt::ExtraEnds(), 2);
    Fill(3);
    CkptRebalance(CollectReport);
    const std::vector<std::string> expected = {"Too many CkptEnd calls!|Checkpoint level decreased by 2.\n",
                                               "Too many CkptBegin calls!|Checkpoint level increased by 3.\n"};
    EXPECT_EQ(g_reports, expected);
    EXPECT_EQ(CkptLevel(), -1);
    EXPECT_EQ(vx::ckpt::ExtraEnds(), 0);
    DBenable(0);
    Fill(1);
    CkptRebalance(CollectReport);
    EXPECT_EQ(g_reports, expected) << "without debug mode the repair is silent";
    EXPECT_EQ(CkptLevel(), -1);
    DBenable(1);

    // A baseline taken inside a block: actions armed at that level are "outside context".
    vx::ckpt::ResetForTest();
    g_reports.clear();
    Fill(1);
    CkptRebalance(CollectReport);
    CkptArm(Record, 1, 0);
    CkptArm(Record, 2, 0);
    CkptRebalance(CollectReport);
    EXPECT_EQ(g_reports, (std::vector<std::string>{"CkptArm called outside context!|2 actions armed in root context.\n"}));
    EXPECT_EQ(vx::ckpt::ArmedIndex(), -1);
    EXPECT_EQ(CkptLevel(), 0);
    CkptEnd();
    EXPECT_TRUE(g_ran.empty());
}

TEST_F(CkptTest, StateBelongsToEachThread)
{
    Fill(1);
    CkptArm(Record, 1, 0);
    int workerLevelAtStart = 99, workerResult = 99;
    std::thread worker([&] {
        workerLevelAtStart = CkptLevel();
        workerResult = Owner(3, 4, false);
        CkptLatchCode();
    });
    worker.join();
    EXPECT_EQ(workerLevelAtStart, -1);
    EXPECT_EQ(workerResult, 0);
    EXPECT_EQ(g_ran, (std::vector<int>{32, 31})) << "only the worker's own actions ran";
    EXPECT_EQ(CkptLevel(), 0);
    EXPECT_EQ(vx::ckpt::ArmedIndex(), 0);
    CkptEnd();
}

TEST(CkptDeathTest, SixtyOneBlocksAnd181ActionsFitButNoMore)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    vx::ckpt::ResetForTest();
    Fill(vx::ckpt::kMaxBlocks, vx::ckpt::kMaxActions);
    EXPECT_EQ(CkptLevel(), 60);
    EXPECT_EQ(vx::ckpt::ArmedIndex(), 180);
    vx::ckpt::ResetForTest();
    EXPECT_EXIT(Fill(vx::ckpt::kMaxBlocks + 1, 0), ::testing::ExitedWithCode(10),
                "PANIC EXIT -- CKPT: Checkpoint block nesting overflow -- FATAL!\n");
    EXPECT_EXIT(Fill(1, vx::ckpt::kMaxActions + 1), ::testing::ExitedWithCode(10),
                "PANIC EXIT -- CKPT: Recovery action overflow -- FATAL!\n");
}

}  // namespace
