#include "testkit/oom_sweep.h"

#include <vxtools3/ckpt.h>

#include <gtest/gtest.h>

namespace vxtest {
namespace {

constexpr int kMaxRuns = 100000;

struct RunResult {
    bool succeeded;
    bool unwound;  // the failure reached the outer block
};

RunResult RunInsideBlock(const std::function<bool()> &run)
{
    bool succeeded = false;
    const bool unwound = UnwoundFrom([&] { succeeded = run(); });
    CkptLatchCode();
    return {succeeded, unwound};
}

}  // namespace

bool UnwoundFrom(const std::function<void()> &body)
{
    if (CkptBegin())
        return true;
    body();
    CkptEnd();
    return false;
}

OomReport OomSweep(const OomCase &c, FailMode mode, bool outerBlock)
{
    OomReport report;
    FaultAllocator heap;
    const int levelBefore = CkptLevel();
    for (int k = 1; k <= kMaxRuns; ++k) {
        const size_t bytesBefore = heap.LiveBytes();
        c.setup();
        const size_t bytesAfterSetup = heap.LiveBytes();
        heap.FailAt(k, mode);
        RunResult result = outerBlock ? RunInsideBlock(c.run) : RunResult{c.run(), false};
        CkptLatchCode();
        const bool injected = heap.Failures() > 0;
        heap.Disarm();
        EXPECT_EQ(CkptLevel(), levelBefore) << "checkpoint blocks left open, k=" << k;
        if (!injected) {
            EXPECT_TRUE(result.succeeded) << "the operation failed with no allocation failing, k=" << k;
            c.teardown();
            EXPECT_EQ(heap.LiveBytes(), bytesBefore) << "leak after the successful run";
            break;
        }
        ++report.failingRuns;
        EXPECT_FALSE(result.succeeded) << "allocation " << k << " failed but the operation reported success";
        if (outerBlock) {
            EXPECT_TRUE(result.unwound) << "allocation " << k << " failed but the outer block did not unwind";
        }
        EXPECT_EQ(heap.LiveBytes(), bytesAfterSetup) << "leak when allocation " << k << " failed";
        c.expectUnchanged();
        c.teardown();
        EXPECT_EQ(heap.LiveBytes(), bytesBefore) << "leak after teardown, k=" << k;
        if (::testing::Test::HasFailure())
            break;
    }
    EXPECT_EQ(heap.BadFrees(), 0) << "frees with a wrong size or of unknown blocks";
    return report;
}

void OomSweepAll(const OomCase &c)
{
    for (FailMode mode : {FailMode::Once, FailMode::FromThen}) {
        for (bool outer : {false, true}) {
            SCOPED_TRACE(::testing::Message() << (mode == FailMode::Once ? "fail once" : "fail from k on")
                                              << (outer ? ", inside an outer block" : ""));
            OomReport report = OomSweep(c, mode, outer);
            EXPECT_GT(report.failingRuns, 0) << "the operation allocated nothing";
        }
    }
}

}  // namespace vxtest
