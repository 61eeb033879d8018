// Small helpers for vxtool's machine-readable output (--json).
#pragma once

#include <string>

namespace vxtool {

// `text` as a JSON string literal, quotes included; control bytes as \u escapes. The result is
// always valid UTF-8: well-formed UTF-8 sequences pass through, and every other byte from
// 0x80 up (names from older files are often Latin-1) is read as the Latin-1 character of that
// code and written as its escape, \u0080 ... \u00ff.
std::string JsonString(const char *text);

// The length of the well-formed UTF-8 sequence at `p` (1 to 4), or 0 when the byte at `p`
// does not start one (overlong forms, surrogates and code points past U+10FFFF included).
int Utf8SequenceLength(const unsigned char *p);

// `value` as a JSON number in its shortest exact decimal form (it reads back to the same
// double); NaN and infinities, which JSON cannot hold, become null.
std::string JsonNumber(double value);

}  // namespace vxtool
