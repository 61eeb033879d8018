// Checkpoints: a per-thread stack of resume contexts and a stack of armed recovery actions.
// A failure runs the actions armed in the innermost block, newest first, and longjmps to
// the point where that block was opened.
#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/platform.h>

#include "core/ckpt_internal.h"

#include <csetjmp>
#include <cstdio>

namespace vx::ckpt {
namespace {

struct ArmedAction {
    CkptAction *function;
    uintptr_t first;
    uintptr_t second;
};

struct State {
    jmp_buf resume[kMaxBlocks];
    int armedAtOpen[kMaxBlocks];  // armed index when each block was opened
    ArmedAction actions[kMaxActions];
    int level = -1;  // innermost open block
    int armed = -1;  // newest armed action
    int recovering = 0;
    int latchedCode = 0;
    int extraEnds = 0;
    bool hasBaseline = false;
    int baselineLevel = -1;
    int baselineArmed = -1;
};

// Constant-initialised, so every thread starts with no block open and nothing armed.
thread_local State t_state;

}  // namespace

int ExtraEnds() { return t_state.extraEnds; }
int ArmedIndex() { return t_state.armed; }

void ResetForTest()
{
    State &s = t_state;
    s.level = -1;
    s.armed = -1;
    s.recovering = 0;
    s.latchedCode = 0;
    s.extraEnds = 0;
    s.hasBaseline = false;
}

}  // namespace vx::ckpt

using vx::ckpt::t_state;

extern "C" {

VX_API jmp_buf *CkptBeginBuf(void)
{
    auto &s = t_state;
    if (s.level >= vx::ckpt::kMaxBlocks - 1)
        panic("CKPT: Checkpoint block nesting overflow -- FATAL!");
    ++s.level;
    s.armedAtOpen[s.level] = s.armed;
    return &s.resume[s.level];
}

VX_API int CkptArm(CkptAction *function, uintptr_t first, uintptr_t second)
{
    auto &s = t_state;
    if (s.level < 0)
        return s.level;
    if (s.armed >= vx::ckpt::kMaxActions - 1)
        panic("CKPT: Recovery action overflow -- FATAL!");
    s.actions[++s.armed] = {function, first, second};
    return s.armed;
}

VX_API void CkptEnd(void)
{
    auto &s = t_state;
    if (s.level < 0) {
        ++s.extraEnds;
        return;
    }
    s.armed = s.armedAtOpen[s.level];
    --s.level;
}

VX_API int CkptRecover(int code)
{
    t_state.latchedCode = code;
    return CkptPropogate();
}

VX_API int CkptPropogate(void)
{
    auto &s = t_state;
    if (s.level < 0)
        return 0;
    int block = s.level--;
    s.recovering = 1;
    while (s.armed > s.armedAtOpen[block]) {
        const vx::ckpt::ArmedAction action = s.actions[s.armed--];
        action.function(action.first, action.second);
    }
    s.recovering = 0;
    longjmp(s.resume[block], 1);
}

VX_API int CkptLatchCode(void)
{
    int code = t_state.latchedCode;
    t_state.latchedCode = 0;
    return code;
}

VX_API int CkptSuckCode(int *where)
{
    int code = CkptLatchCode();
    if (where)
        *where = code;
    return 0;
}

VX_API int CkptLevel(void) { return t_state.level; }

VX_API int CkptRecovering(void) { return t_state.recovering; }

VX_API void CkptAssignInt(uintptr_t where, uintptr_t value)
{
    *reinterpret_cast<int *>(where) = static_cast<int>(value);
}

VX_API void CkptRebalance(AlertFunc *report)
{
    auto &s = t_state;
    if (!s.hasBaseline) {
        s.hasBaseline = true;
        s.baselineLevel = s.level;
        s.baselineArmed = s.armed;
        return;
    }
    if (s.level == s.baselineLevel && s.armed == s.baselineArmed && s.extraEnds == 0)
        return;
    if (DBmode() && report) {
        char detail[80];
        if (s.extraEnds) {
            std::snprintf(detail, sizeof detail, "Checkpoint level decreased by %d.\n", s.extraEnds);
            report("DEBUG INFO", "Too many CkptEnd calls!", detail);
        }
        if (s.level != s.baselineLevel) {
            std::snprintf(detail, sizeof detail, "Checkpoint level increased by %d.\n", s.level - s.baselineLevel);
            report("DEBUG INFO", "Too many CkptBegin calls!", detail);
        } else if (s.armed != s.baselineArmed) {
            std::snprintf(detail, sizeof detail, "%d actions armed in root context.\n", s.armed - s.baselineArmed);
            report("DEBUG INFO", "CkptArm called outside context!", detail);
        }
    }
    s.level = s.baselineLevel;
    s.armed = s.baselineArmed;
    s.extraEnds = 0;
}

}  // extern "C"
