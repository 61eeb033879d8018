#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/memory.h>

#include "core/ckpt_internal.h"
#include "testkit/capture.h"
#include "testkit/fault_alloc.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<int> g_ran;  // ids of the actions run, in order
std::vector<int> g_recoveringSeen;

void Record(uintptr_t id, uintptr_t)
{
    g_ran.push_back(static_cast<int>(id));
    g_recoveringSeen.push_back(CkptRecovering());
}

class CkptTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        vx::ckpt::ResetForTest();
        g_ran.clear();
        g_recoveringSeen.clear();
    }
    void TearDown() override { EXPECT_EQ(CkptLevel(), -1) << "a test left a block open"; }
};

// Three nested owners, each arming actions before and after calling the next one in.
int Inner(int failCode)
{
    CKPT_BEGIN_OR_RETURN(0);
    CkptArm(Record, 31, 0);
    CkptArm(Record, 32, 0);
    if (failCode)
        CkptRecover(failCode);
    CkptEnd();
    return 1;
}

int Middle(int failCode)
{
    CKPT_BEGIN_OR_RETURN(0);
    CkptArm(Record, 21, 0);
    Inner(failCode);
    CkptArm(Record, 22, 0);
    CkptEnd();
    return 1;
}

volatile int g_outerResumed = 0;

int Outer(int innerFailCode, bool failAfterInner)
{
    if (CkptBegin()) {
        g_outerResumed = 1;
        CkptPropogate();
        return 0;
    }
    CkptArm(Record, 11, 0);
    Middle(innerFailCode);
    CkptArm(Record, 12, 0);
    if (failAfterInner)
        CkptRecover(5);
    CkptEnd();
    return 1;
}

TEST_F(CkptTest, FailureUnwindsThreeBlocksInnermostFirst)
{
    g_outerResumed = 0;
    EXPECT_EQ(Outer(7, false), 0);
    EXPECT_EQ(g_ran, (std::vector<int>{32, 31, 21, 11}));
    EXPECT_EQ(g_recoveringSeen, (std::vector<int>{1, 1, 1, 1}));
    EXPECT_EQ(g_outerResumed, 1);
    EXPECT_EQ(CkptRecovering(), 0);
    EXPECT_EQ(CkptLatchCode(), 7) << "the outermost owner sees the raised code";
    EXPECT_EQ(CkptLatchCode(), 0) << "reading the code clears it";
    EXPECT_EQ(vx::ckpt::ArmedIndex(), -1);
}

TEST_F(CkptTest, ActionsOfEndedBlocksNeverRun)
{
    EXPECT_EQ(Outer(0, true), 0);
    // The inner and middle blocks ended: their actions are gone. The outer block's actions
    // armed before and after them run newest first.
    EXPECT_EQ(g_ran, (std::vector<int>{12, 11}));
    EXPECT_EQ(CkptLatchCode(), 5);
}

TEST_F(CkptTest, AssignIntRestoresOnFailureOnly)
{
    int value = 1;
    if (CkptBegin()) {
        EXPECT_EQ(value, 1);
    } else {
        CkptArm(CkptAssignInt, reinterpret_cast<uintptr_t>(&value), static_cast<uintptr_t>(value));
        CkptAssignInt(reinterpret_cast<uintptr_t>(&value), static_cast<uintptr_t>(-5));
        EXPECT_EQ(value, -5);
        CkptRecover(3);
    }
    EXPECT_EQ(value, 1);

    if (CkptBegin()) {
        ADD_FAILURE() << "nothing failed";
    } else {
        CkptArm(CkptAssignInt, reinterpret_cast<uintptr_t>(&value), static_cast<uintptr_t>(value));
        CkptAssignInt(reinterpret_cast<uintptr_t>(&value), 9);
        CkptEnd();
    }
    EXPECT_EQ(value, 9);
    CkptLatchCode();
}

TEST_F(CkptTest, WithNoBlockOpen)
{
    EXPECT_EQ(CkptArm(Record, 1, 0), -1) << "arming outside a block returns the level";
    EXPECT_EQ(vx::ckpt::ArmedIndex(), -1) << "and arms nothing";
    CkptEnd();
    CkptEnd();
    EXPECT_EQ(CkptLevel(), -1);
    EXPECT_EQ(vx::ckpt::ExtraEnds(), 2);
    EXPECT_EQ(CkptPropogate(), 0);
    EXPECT_EQ(CkptRecover(42), 0);
    int code = -1;
    EXPECT_EQ(CkptSuckCode(&code), 0);
    EXPECT_EQ(code, 42) << "the code is latched even with no block open";
    EXPECT_EQ(CkptSuckCode(nullptr), 0);
    EXPECT_EQ(CkptLatchCode(), 0);
    EXPECT_TRUE(g_ran.empty());
    vx::ckpt::ResetForTest();
}

TEST_F(CkptTest, ArmReturnsTheNewIndexAndLevelsCount)
{
    EXPECT_EQ(CkptLevel(), -1);
    jmp_buf *outer = CkptBeginBuf();
    jmp_buf *inner = CkptBeginBuf();
    EXPECT_NE(outer, inner);
    EXPECT_EQ(CkptLevel(), 1);
    EXPECT_EQ(CkptArm(Record, 1, 0), 0);
    EXPECT_EQ(CkptArm(Record, 2, 0), 1);
    CkptEnd();
    EXPECT_EQ(CkptLevel(), 0);
    EXPECT_EQ(CkptArm(Record, 3, 0), 0) << "the inner block's actions were dropped";
    CkptEnd();
    EXPECT_TRUE(g_ran.empty());
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
    CkptEnd();
    CkptBeginBuf();
    CkptBeginBuf();
    CkptBeginBuf();
    CkptRebalance(CollectReport);
    EXPECT_EQ(g_reports, (std::vector<std::string>{"Too many CkptEnd calls!|Checkpoint level decreased by 2.\n",
                                                   "Too many CkptBegin calls!|Checkpoint level increased by 3.\n"}));
    EXPECT_EQ(CkptLevel(), -1);
    EXPECT_EQ(vx::ckpt::ExtraEnds(), 0);

    // A baseline taken inside a block: actions armed at that level are "outside context".
    vx::ckpt::ResetForTest();
    g_reports.clear();
    CkptBeginBuf();
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

TEST_F(CkptTest, RebalanceRepairsSilentlyWithoutDebugMode)
{
    int before = DBenable(0);
    g_reports.clear();
    CkptRebalance(CollectReport);
    CkptBeginBuf();
    CkptRebalance(CollectReport);
    EXPECT_TRUE(g_reports.empty());
    EXPECT_EQ(CkptLevel(), -1);
    DBenable(before);
}

TEST_F(CkptTest, AllocationFailureRaisesCodeOneThroughTheBlock)
{
    vxtest::FaultAllocator heap;
    void *volatile kept = nullptr;
    if (CkptBegin()) {
        EXPECT_EQ(CkptLatchCode(), 1);
    } else {
        kept = StdAlloc(64);
        CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(kept), 64);
        heap.FailAt(1, vxtest::FailMode::Once);
        StdAlloc(32);
        ADD_FAILURE() << "StdAlloc returned from a failure inside a block";
        CkptEnd();
    }
    EXPECT_NE(kept, nullptr);
    EXPECT_EQ(heap.LiveBytes(), 0u) << "the armed release freed the first block";
    EXPECT_EQ(heap.BadFrees(), 0);
}

TEST_F(CkptTest, StateBelongsToEachThread)
{
    CkptBeginBuf();
    CkptArm(Record, 1, 0);
    int workerLevelAtStart = 99;
    int workerResult = 99;
    std::thread worker([&] {
        workerLevelAtStart = CkptLevel();
        workerResult = Inner(4);
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

class CkptDeathTest : public CkptTest {
protected:
    void SetUp() override
    {
        CkptTest::SetUp();
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

void OpenBlocks(int n)
{
    for (int i = 0; i < n; ++i)
        CkptBeginBuf();
}

TEST_F(CkptDeathTest, SixtyOneBlocksNestButNotSixtyTwo)
{
    OpenBlocks(vx::ckpt::kMaxBlocks);
    EXPECT_EQ(CkptLevel(), 60);
    vx::ckpt::ResetForTest();
    EXPECT_EXIT(OpenBlocks(vx::ckpt::kMaxBlocks + 1), ::testing::ExitedWithCode(10),
                "PANIC EXIT -- CKPT: Checkpoint block nesting overflow -- FATAL!\n");
}

void ArmActions(int n)
{
    CkptBeginBuf();
    for (int i = 0; i < n; ++i)
        CkptArm(Record, static_cast<uintptr_t>(i), 0);
}

TEST_F(CkptDeathTest, OneHundredEightyOneActionsArmButNotMore)
{
    ArmActions(vx::ckpt::kMaxActions);
    EXPECT_EQ(vx::ckpt::ArmedIndex(), 180);
    vx::ckpt::ResetForTest();
    EXPECT_EXIT(ArmActions(vx::ckpt::kMaxActions + 1), ::testing::ExitedWithCode(10),
                "PANIC EXIT -- CKPT: Recovery action overflow -- FATAL!\n");
}

}  // namespace
