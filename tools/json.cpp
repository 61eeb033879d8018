// JSON string and number formatting for vxtool's --json output.
#include "json.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace vxtool {

int Utf8SequenceLength(const unsigned char *p)
{
    if (p[0] < 0x80)
        return 1;
    // The lead byte gives the length and the range the second byte must fall in.
    int length;
    unsigned char low = 0x80, high = 0xBF;
    if (p[0] >= 0xC2 && p[0] <= 0xDF)
        length = 2;
    else if (p[0] >= 0xE0 && p[0] <= 0xEF)
        length = 3, low = p[0] == 0xE0 ? 0xA0 : 0x80, high = p[0] == 0xED ? 0x9F : 0xBF;
    else if (p[0] >= 0xF0 && p[0] <= 0xF4)
        length = 4, low = p[0] == 0xF0 ? 0x90 : 0x80, high = p[0] == 0xF4 ? 0x8F : 0xBF;
    else
        return 0;
    if (p[1] < low || p[1] > high)
        return 0;
    for (int i = 2; i < length; ++i)
        if ((p[i] & 0xC0) != 0x80)
            return 0;
    return length;
}

std::string JsonString(const char *text)
{
    std::string out = "\"";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text ? text : ""); *p;) {
        const int length = Utf8SequenceLength(p);
        if (*p == '"' || *p == '\\') {
            out += '\\';
            out += static_cast<char>(*p);
        } else if (*p < 0x20 || length == 0) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", *p);
            out += escape;
        } else {
            out.append(reinterpret_cast<const char *>(p), static_cast<size_t>(length));
            p += length;
            continue;
        }
        ++p;
    }
    return out + "\"";
}

std::string JsonNumber(double value)
{
    if (!std::isfinite(value))
        return "null";
    char buf[32];
    const auto result = std::to_chars(buf, buf + sizeof buf, value);
    return std::string(buf, result.ptr);
}

}  // namespace vxtool
