// Text-parsing helpers: quoted words and numbers in the C locale, independent of setlocale.
#include <vxtools3/config.h>

#include "services/textparse_internal.h"

#include <charconv>
#include <climits>
#include <cstring>

namespace vx::text {

namespace {

// The escape written for a byte inside quotes, or 0 when the byte stands for itself.
char ShortEscape(unsigned char c)
{
    switch (c) {
    case '"': return '"';
    case '\\': return '\\';
    case '\n': return 'n';
    case '\t': return 't';
    case '\r': return 'r';
    default: return 0;
    }
}

const char *AfterSign(const char *p)
{
    return (p[0] == '+' && p[1] != '-') ? p + 1 : p;
}

const char *EndOfNumber(const char *end)
{
    return (*end == '\0' || IsWhite(*end)) ? end : nullptr;
}

// Hands the quoted form of `word` to put(char), byte by byte.
template <class Put>
void EmitQuoted(const char *word, Put &&put)
{
    static const char kHex[] = "0123456789abcdef";
    put('"');
    for (const char *p = word; *p; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (const char escape = ShortEscape(c)) {
            put('\\');
            put(escape);
        } else if (IsControl(c)) {
            put('\\');
            put('x');
            put(kHex[c >> 4]);
            put(kHex[c & 15]);
        } else {
            put(*p);
        }
    }
    put('"');
}

}  // namespace

bool NeedsQuotes(const char *word)
{
    if (!word[0])
        return true;
    for (const char *p = word; *p; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (IsWhite(*p) || c == '"' || c == '\\' || IsControl(c))
            return true;
    }
    return false;
}

size_t QuotedLength(const char *word)
{
    size_t length = 2;
    for (const char *p = word; *p; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        length += ShortEscape(c) ? 2 : IsControl(c) ? 4 : 1;
    }
    return length;
}

char *WriteQuoted(char *out, const char *word)
{
    EmitQuoted(word, [&out](char c) { *out++ = c; });
    return out;
}

size_t FormatDouble(char *out, double value)
{
    const auto result = std::to_chars(out, out + kNumberCapacity, value, std::chars_format::general, 7);
    return static_cast<size_t>(result.ptr - out);
}

size_t FormatInteger(char *out, int32_t value)
{
    const auto result = std::to_chars(out, out + kNumberCapacity, value);
    return static_cast<size_t>(result.ptr - out);
}

const char *ParseDouble(const char *p, double *value)
{
    const char *start = AfterSign(p);
    const char *end = TokenEnd(start);
    double parsed = 0.0;
    const auto result = std::from_chars(start, end, parsed, std::chars_format::general);
    if (result.ec != std::errc() || result.ptr != end || end == start)
        return nullptr;
    *value = parsed;
    return EndOfNumber(end);
}

const char *ParseInteger(const char *p, int32_t *value)
{
    const char *start = AfterSign(p);
    const char *end = TokenEnd(start);
    int32_t parsed = 0;
    const auto result = std::from_chars(start, end, parsed, 10);
    if (result.ec != std::errc() || result.ptr != end || end == start)
        return nullptr;
    *value = parsed;
    return EndOfNumber(end);
}

}  // namespace vx::text

using namespace vx::text;

extern "C" {

VX_API int QuoteWord(char *out, int size, const char *word)
{
    if (!word)
        word = "";
    const bool quote = NeedsQuotes(word);
    const size_t length = quote ? QuotedLength(word) : std::strlen(word);
    if (length > INT_MAX)
        return -1;
    if (size <= 0 || !out)
        return static_cast<int>(length);
    // Cut as snprintf cuts: the first size-1 bytes of the full form.
    const size_t room = static_cast<size_t>(size) - 1;
    size_t written = 0;
    auto put = [&](char c) {
        if (written < room)
            out[written++] = c;
    };
    if (quote)
        EmitQuoted(word, put);
    else
        for (const char *p = word; *p; ++p)
            put(*p);
    out[written] = '\0';
    return static_cast<int>(length);
}

VX_API int PullDouble(const char **text, double *value)
{
    if (!text || !*text || !value)
        return 0;
    const char *p = SkipWhite(*text);
    const char *end = ParseDouble(p, value);
    if (!end)
        return 0;
    *text = end;
    return 1;
}

VX_API int PullInteger(const char **text, int32_t *value)
{
    if (!text || !*text || !value)
        return 0;
    const char *end = ParseInteger(SkipWhite(*text), value);
    if (!end)
        return 0;
    *text = end;
    return 1;
}

VX_API int PullQuoteWord(const char **text, char *word, int size)
{
    if (!text || !*text || !word || size <= 0)
        return 0;
    const char *p = SkipWhite(*text);
    if (*p == '\0')
        return 0;
    const auto room = static_cast<size_t>(size);
    if (*p != '"')
        return PullNonWhite(text, word, size);
    // Measure first, so that a malformed or oversized word stores nothing.
    size_t length = 0;
    const char *end = DecodeQuoted(p, [&length](char) { ++length; });
    if (!end || length >= room)
        return 0;
    char *out = word;
    DecodeQuoted(p, [&out](char c) { *out++ = c; });
    *out = '\0';
    *text = end;
    return 1;
}

VX_API int PullNonWhite(const char **text, char *word, int size)
{
    if (!text || !*text || !word || size <= 0)
        return 0;
    const char *p = SkipWhite(*text);
    const char *end = TokenEnd(p);
    const auto length = static_cast<size_t>(end - p);
    if (length == 0 || length >= static_cast<size_t>(size))
        return 0;
    std::memcpy(word, p, length);
    word[length] = '\0';
    *text = end;
    return 1;
}

}  // extern "C"
