// Checkpoint limits and the inspection hooks used by the checkpoint tests.
#pragma once

namespace vx::ckpt {

inline constexpr int kMaxBlocks = 61;
inline constexpr int kMaxActions = 181;

int ExtraEnds();
int ArmedIndex();
// Forgets every block, action, code and baseline of the calling thread.
void ResetForTest();

}  // namespace vx::ckpt
