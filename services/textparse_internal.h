// Field-level text helpers shared by the text-parsing functions and the configuration store.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx::text {

// Longest text FormatDouble / FormatInteger write (no terminator).
constexpr size_t kNumberCapacity = 32;

inline bool IsWhite(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

inline const char *SkipWhite(const char *p)
{
    while (IsWhite(*p))
        ++p;
    return p;
}

// The first white space or the terminator at or after p.
inline const char *TokenEnd(const char *p)
{
    while (*p && !IsWhite(*p))
        ++p;
    return p;
}

inline bool IsControl(unsigned char c)
{
    return c < 0x20 || c == 0x7f;
}

// True when `word` must be quoted to be read back as one word.
bool NeedsQuotes(const char *word);
// Length of the quoted form of `word` (quotes included).
size_t QuotedLength(const char *word);
// Writes the quoted form of `word` at out (no terminator); returns the end.
char *WriteQuoted(char *out, const char *word);

// Decodes the quoted word at p (p[0] == '"'), handing each decoded byte to sink(char).
// Returns the position after the closing quote, or nullptr when the word is malformed (no
// closing quote, an unknown escape, \x00) or is not followed by white space or the end.
template <class Sink>
const char *DecodeQuoted(const char *p, Sink &&sink);

// "%.7g" and "%d" in the C locale, at most kNumberCapacity bytes, no terminator; return the
// length written.
size_t FormatDouble(char *out, double value);
size_t FormatInteger(char *out, int32_t value);
// Parse a number that starts at p and ends at white space or the end of the text. Return the
// end, or nullptr (value untouched).
const char *ParseDouble(const char *p, double *value);
const char *ParseInteger(const char *p, int32_t *value);

// ---- template definition ----

inline int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

template <class Sink>
const char *DecodeQuoted(const char *p, Sink &&sink)
{
    ++p;  // opening quote
    for (;;) {
        char c = *p++;
        if (c == '\0')
            return nullptr;
        if (c == '"')
            break;
        if (c != '\\') {
            sink(c);
            continue;
        }
        switch (*p++) {
        case '"': sink('"'); break;
        case '\\': sink('\\'); break;
        case 'n': sink('\n'); break;
        case 't': sink('\t'); break;
        case 'r': sink('\r'); break;
        case 'x': {
            const int high = HexDigit(p[0]);
            const int low = high < 0 ? -1 : HexDigit(p[1]);
            if (low < 0 || (high | low) == 0)
                return nullptr;
            sink(static_cast<char>(high * 16 + low));
            p += 2;
            break;
        }
        default: return nullptr;
        }
    }
    return (*p == '\0' || IsWhite(*p)) ? p : nullptr;
}

}  // namespace vx::text
