// The step-wise sort driven through SortInitR/SortStep, one engine per thread.
#include <vxtools3/lists.h>

#include "core/sort_engine.h"

namespace vx::sort {
namespace {

struct ThreeWay {
    SortCompare3 *function;
    void *user;
    int operator()(void *item, void *pivot) const { return function(item, pivot, user); }
};

thread_local Engine<ThreeWay> t_engine;

}  // namespace

int StepSortMaxStackUse() { return t_engine.MaxStackUse(); }

}  // namespace vx::sort

extern "C" {

VX_API void SortInitR(void **base, int32_t count, SortCompare3 *cmp3, void *user)
{
    vx::sort::t_engine.SetCompare({cmp3, user});
    vx::sort::t_engine.Start(base, count);
}

VX_API int SortStep(void) { return vx::sort::t_engine.Step() ? 1 : 0; }

}  // extern "C"
