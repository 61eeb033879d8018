// Small helpers for vxtool's machine-readable output (--json).
#pragma once

#include <string>

namespace vxtool {

// `text` as a JSON string literal, quotes included; control bytes as \u escapes. Bytes above
// 0x7F pass through unchanged (names in the suite's files are UTF-8 or plain ASCII).
std::string JsonString(const char *text);

// `value` as a JSON number in its shortest exact decimal form (it reads back to the same
// double); NaN and infinities, which JSON cannot hold, become null.
std::string JsonNumber(double value);

}  // namespace vxtool
