// JSON string and number formatting for vxtool's --json output.
#include "json.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace vxtool {

std::string JsonString(const char *text)
{
    std::string out = "\"";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text ? text : ""); *p; ++p) {
        if (*p == '"' || *p == '\\') {
            out += '\\';
            out += static_cast<char>(*p);
        } else if (*p < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", *p);
            out += escape;
        } else {
            out += static_cast<char>(*p);
        }
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
