// The text load and save states: nested keyword blocks with one value per token (the grammar
// is documented in states.h). The reader looks one character and one token ahead and keeps
// everything in the state record, so that it never allocates.
#include <vxtools3/debug.h>
#include <vxtools3/states.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

enum Token : int32_t { kNone = 0, kKeyword, kNumber, kString, kId, kOpen, kClose, kNewline, kEnd };

constexpr uint32_t kIndexMax = 0xFFFFFF;

bool IsKeywordStart(int c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }
bool IsDigit(int c) { return c >= '0' && c <= '9'; }
bool IsKeywordChar(int c) { return IsKeywordStart(c) || IsDigit(c) || c == '.' || c == '-'; }
bool IsNumberStart(int c) { return IsDigit(c) || c == '-' || c == '+' || c == '.'; }
bool IsNumberChar(int c) { return IsKeywordChar(c) || c == '+'; }
bool IsIdChar(int c) { return c >= 0x20 && c <= 0x7E && c != '\'' && c != '\\'; }
bool IsValue(int32_t t) { return t == kNumber || t == kString || t == kId; }

// The keyword of a descriptor: its own, or the ID's characters without trailing blanks.
// Returns false when that is not a valid keyword.
bool KeywordOf(const VxBlockDesc *d, char out[VX_STATE_TOKEN])
{
    if (d->keyword) {
        size_t n = std::strlen(d->keyword);
        if (n == 0 || n >= VX_STATE_TOKEN)
            return false;
        std::memcpy(out, d->keyword, n + 1);
    } else {
        for (int i = 0; i < 4; ++i)
            out[i] = static_cast<char>(d->id >> (24 - 8 * i));
        out[4] = 0;
        for (int i = 3; i > 0 && out[i] == ' '; --i)
            out[i] = 0;
    }
    if (!IsKeywordStart(static_cast<unsigned char>(out[0])))
        return false;
    for (const char *p = out + 1; *p; ++p)
        if (!IsKeywordChar(static_cast<unsigned char>(*p)))
            return false;
    return true;
}

// ---- Reading: characters ---------------------------------------------------------------

int32_t Fail(VxLoadState *st, int32_t code, const char *message)
{
    if (!st->error) {
        st->error = code;
        st->message = message;
        st->line = st->tokenLine;
        DBprintf("load state: line %d: %s\n", static_cast<int>(st->line), message);
    }
    return -code;
}

int PeekChar(VxLoadState *st)
{
    if (st->look == -2) {
        uint8_t c;
        int32_t got = st->stream->readBytes(st->stream, &c, 1);
        if (got < 0)
            Fail(st, VX_ERR_IO, "the stream failed");
        st->look = got == 1 ? c : -1;
    }
    return st->look;
}

int NextChar(VxLoadState *st)
{
    int c = PeekChar(st);
    if (c >= 0)
        st->look = -2;
    return c;
}

// ---- Reading: tokens -------------------------------------------------------------------

void SkipBlanks(VxLoadState *st)
{
    for (;;) {
        int c = PeekChar(st);
        if (c == ' ' || c == '\t' || c == '\r') {
            NextChar(st);
        } else if (c == '#') {
            while (PeekChar(st) >= 0 && PeekChar(st) != '\n')
                NextChar(st);
        } else {
            return;
        }
    }
}

// Reads a word of characters accepted by `accept` into the token text.
bool ReadWord(VxLoadState *st, bool (*accept)(int))
{
    int32_t n = 0;
    while (accept(PeekChar(st))) {
        if (n == VX_STATE_TOKEN - 1)
            return Fail(st, VX_ERR_FORMAT, "token longer than 63 characters"), false;
        st->text[n++] = static_cast<char>(NextChar(st));
    }
    st->text[n] = 0;
    return true;
}

bool ReadQuotedId(VxLoadState *st)
{
    for (int i = 0; i < 4; ++i) {
        int c = NextChar(st);
        if (!IsIdChar(c))
            return Fail(st, VX_ERR_FORMAT, "an ID is four printable characters between single quotes"), false;
        st->text[i] = static_cast<char>(c);
    }
    st->text[4] = 0;
    if (NextChar(st) != '\'')
        return Fail(st, VX_ERR_FORMAT, "an ID is four printable characters between single quotes"), false;
    return true;
}

// Classifies the next token (a string's body is left unread) and returns its kind.
int32_t Peek(VxLoadState *st)
{
    if (st->error)
        return kEnd;
    if (st->token != kNone)
        return st->token;
    SkipBlanks(st);
    st->tokenLine = st->line;
    int c = PeekChar(st);
    int32_t t = kEnd;
    if (c < 0) {
        t = kEnd;
    } else if (c == '\n') {
        NextChar(st);
        ++st->line;
        t = kNewline;
    } else if (c == '{' || c == '}' || c == '"' || c == '\'') {
        NextChar(st);
        t = c == '{' ? kOpen : c == '}' ? kClose : c == '"' ? kString : (ReadQuotedId(st) ? kId : kEnd);
    } else if (IsKeywordStart(c)) {
        t = ReadWord(st, [](int ch) { return IsKeywordChar(ch); }) ? kKeyword : kEnd;
    } else if (IsNumberStart(c)) {
        t = ReadWord(st, [](int ch) { return IsNumberChar(ch); }) ? kNumber : kEnd;
    } else {
        Fail(st, VX_ERR_FORMAT, "unexpected character");
    }
    st->token = st->error ? kEnd : t;
    return st->token;
}

void Consume(VxLoadState *st) { st->token = kNone; }

int Hex(int c)
{
    if (IsDigit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Reads one character of a string body: stores it in *out and returns 1, returns 0 at the
// closing quote, -1 on a malformed string.
int StringChar(VxLoadState *st, char *out)
{
    int c = NextChar(st);
    if (c < 0 || c == '\n')
        return Fail(st, VX_ERR_FORMAT, "unterminated string"), -1;
    if (c == '"')
        return 0;
    if (c == '\\') {
        int e = NextChar(st);
        switch (e) {
        case '"': case '\\': c = e; break;
        case 'n': c = '\n'; break;
        case 't': c = '\t'; break;
        case 'r': c = '\r'; break;
        case 'x': {
            int hi = Hex(NextChar(st)), lo = Hex(NextChar(st));
            c = hi < 0 || lo < 0 ? 0 : hi * 16 + lo;
            if (c == 0)
                return Fail(st, VX_ERR_FORMAT, "\\x needs two hex digits, not 00"), -1;
            break;
        }
        default: return Fail(st, VX_ERR_FORMAT, "unknown escape in string"), -1;
        }
    }
    *out = static_cast<char>(c);
    return 1;
}

// Consumes a string token, keeping at most max - 1 characters and a zero in buf (may be NULL).
bool ReadStringBody(VxLoadState *st, char *buf, int32_t max)
{
    Consume(st);
    int32_t length = 0;
    char c;
    int r;
    while ((r = StringChar(st, &c)) == 1) {
        if (buf && length < max - 1)
            buf[length] = c;
        ++length;
    }
    if (buf && max > 0)
        buf[length < max - 1 ? length : max - 1] = 0;
    return r == 0;
}

void SkipValue(VxLoadState *st)
{
    if (Peek(st) == kString)
        ReadStringBody(st, nullptr, 0);
    else
        Consume(st);
}

// ---- Reading: structure ----------------------------------------------------------------

bool InHead(const VxLoadState *st) { return st->depth > 0 && !(st->braced & (1u << st->depth)); }

// Positions at the next value of the current block and returns its token kind, or kNone when
// the block has no further value here (a block, its end or the end of the text follows).
int32_t NextValue(VxLoadState *st)
{
    for (;;) {
        int32_t t = Peek(st);
        if (st->error)
            return kNone;
        if (IsValue(t))
            return t;
        if (InHead(st)) {
            if (t != kOpen)
                return kNone;
            Consume(st);
            st->braced |= 1u << st->depth;
        } else if (t == kNewline) {
            Consume(st);
        } else if (t == kOpen) {
            Fail(st, VX_ERR_FORMAT, "\"{\" must follow a block's keyword and values");
            return kNone;
        } else {
            return kNone;
        }
    }
}

// Skips a block whose keyword was just read, with all it holds.
void SkipBlock(VxLoadState *st)
{
    while (IsValue(Peek(st)))
        SkipValue(st);
    int32_t t = Peek(st);
    if (t == kNewline)
        Consume(st);
    if (t != kOpen)
        return;
    Consume(st);
    for (int32_t open = 1; open > 0;) {
        t = Peek(st);
        if (t == kEnd) {
            Fail(st, VX_ERR_FORMAT, "missing \"}\" at the end of the text");
            return;
        }
        open += t == kOpen ? 1 : t == kClose ? -1 : 0;
        SkipValue(st);
    }
}

const VxBlockDesc *Lookup(const VxBlockDesc *blocks, const char *keyword)
{
    char name[VX_STATE_TOKEN];
    for (; blocks && blocks->id; ++blocks)
        if (KeywordOf(blocks, name) && std::strcmp(name, keyword) == 0)
            return blocks;
    return nullptr;
}

uint32_t TextFind(VxLoadState *st, const VxBlockDesc *blocks)
{
    for (;;) {
        int32_t t = NextValue(st);
        if (st->error)
            return 0;
        if (t != kNone) {
            SkipValue(st);
            continue;
        }
        t = Peek(st);
        if (InHead(st))
            return 0;  // a block without a body has no sub-blocks
        if (t == kClose && st->depth == 0)
            return Fail(st, VX_ERR_FORMAT, "\"}\" without an open block"), 0;
        if (t == kEnd && st->depth > 0)
            return Fail(st, VX_ERR_FORMAT, "missing \"}\" at the end of the text"), 0;
        if (t != kKeyword)
            return 0;
        Consume(st);
        const VxBlockDesc *found = Lookup(blocks, st->text);
        if (!found) {
            SkipBlock(st);
            continue;
        }
        if (st->depth + 1 >= VX_STATE_LEVELS)
            return Fail(st, VX_ERR_FORMAT, "blocks nested deeper than 16 levels"), 0;
        ++st->depth;
        st->braced &= ~(1u << st->depth);
        return found->id;
    }
}

int32_t TextEnd(VxLoadState *st)
{
    if (st->error)
        return st->error;
    if (st->depth == 0)
        return VX_ERR_FORMAT;
    while (NextValue(st) != kNone)
        SkipValue(st);
    if (InHead(st)) {
        if (Peek(st) == kNewline)
            Consume(st);
    } else {
        for (int32_t open = 1; open > 0 && !st->error;) {
            int32_t t = Peek(st);
            if (t == kEnd)
                return -Fail(st, VX_ERR_FORMAT, "missing \"}\" at the end of the text");
            open += t == kOpen ? 1 : t == kClose ? -1 : 0;
            SkipValue(st);
        }
    }
    st->braced &= ~(1u << st->depth);
    --st->depth;
    return st->error;
}

// ---- Reading: values -------------------------------------------------------------------

// Parses the number token as an integer in [low, high] (decimal, or 0x hexadecimal).
bool ParseInteger(VxLoadState *st, int64_t low, int64_t high, int64_t *out)
{
    const char *p = st->text;
    const char *end = p + std::strlen(p);
    bool negative = *p == '-';
    if (*p == '-' || *p == '+')
        ++p;
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    uint64_t magnitude = 0;
    auto [stop, ec] = std::from_chars(p, end, magnitude, base);
    if (ec != std::errc() || stop != end || p == end)
        return Fail(st, VX_ERR_FORMAT, "malformed integer"), false;
    if (magnitude > (1ull << 40))
        return Fail(st, VX_ERR_FORMAT, "integer out of range"), false;
    int64_t value = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
    if (value < low || value > high)
        return Fail(st, VX_ERR_FORMAT, "integer out of range"), false;
    *out = value;
    return true;
}

bool ParseFloat(VxLoadState *st, float *out)
{
    const char *p = st->text;
    const char *end = p + std::strlen(p);
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {  // the bits of a float
        uint32_t bits = 0;
        auto [stop, ec] = std::from_chars(p + 2, end, bits, 16);
        if (ec != std::errc() || stop != end || end - p > 10)
            return Fail(st, VX_ERR_FORMAT, "malformed float bits"), false;
        *out = std::bit_cast<float>(bits);
        return true;
    }
    if (*p == '+')
        ++p;
    auto [stop, ec] = std::from_chars(p, end, *out);
    if (ec == std::errc::result_out_of_range)
        return Fail(st, VX_ERR_FORMAT, "float out of range"), false;
    if (ec != std::errc() || stop != end || p == end)
        return Fail(st, VX_ERR_FORMAT, "malformed float"), false;
    return true;
}

enum class Kind { Byte, Short, Long, Id, Float };

// Reads one value of `kind` at the current token (already known to be a value).
bool ReadOne(VxLoadState *st, Kind kind, void *slot)
{
    int32_t t = Peek(st);
    if (t == kString)
        return Fail(st, VX_ERR_FORMAT, "a string where a number was expected"), false;
    if (kind == Kind::Id && t == kId) {
        uint32_t id = 0;
        for (int i = 0; i < 4; ++i)
            id = (id << 8) | static_cast<uint8_t>(st->text[i]);
        std::memcpy(slot, &id, 4);
        Consume(st);
        return true;
    }
    if (t == kId)
        return Fail(st, VX_ERR_FORMAT, "an ID where a number was expected"), false;
    int64_t v = 0;
    bool ok = true;
    switch (kind) {
    case Kind::Byte:
        ok = ParseInteger(st, 0, 255, &v);
        *static_cast<uint8_t *>(slot) = static_cast<uint8_t>(v);
        break;
    case Kind::Short:
        ok = ParseInteger(st, -32768, 65535, &v);
        *static_cast<int16_t *>(slot) = static_cast<int16_t>(static_cast<uint16_t>(v));
        break;
    case Kind::Long:
    case Kind::Id: {
        ok = ParseInteger(st, INT32_MIN, UINT32_MAX, &v);
        uint32_t bits = static_cast<uint32_t>(v);
        std::memcpy(slot, &bits, 4);
        break;
    }
    case Kind::Float: ok = ParseFloat(st, static_cast<float *>(slot)); break;
    }
    Consume(st);
    return ok;
}

template <class T, Kind K>
int32_t TextRead(VxLoadState *st, T *buf, int32_t n)
{
    if (st->error)
        return -st->error;
    int32_t count = 0;
    while (count < n && NextValue(st) != kNone) {
        if (!ReadOne(st, K, buf + count))
            return -st->error;
        ++count;
    }
    return st->error ? -st->error : count;
}

int32_t TextReadString(VxLoadState *st, char *buf, int32_t max)
{
    if (st->error)
        return -st->error;
    int32_t t = NextValue(st);
    if (t == kNone)
        return st->error ? -st->error : 0;
    if (t != kString)
        return Fail(st, VX_ERR_FORMAT, "a number or ID where a string was expected");
    return ReadStringBody(st, buf, max) ? 1 : -st->error;
}

int32_t TextReadIndex(VxLoadState *st, uint32_t *index)
{
    if (st->error)
        return -st->error;
    if (NextValue(st) == kNone)
        return st->error ? -st->error : 0;
    if (Peek(st) != kNumber)
        return Fail(st, VX_ERR_FORMAT, "an index is a number");
    int64_t v = 0;
    bool ok = ParseInteger(st, 0, kIndexMax, &v);
    Consume(st);
    if (!ok)
        return -st->error;
    *index = static_cast<uint32_t>(v);
    return 1;
}

// ---- Writing ---------------------------------------------------------------------------

int32_t Put(VxSaveState *st, const char *text, size_t n)
{
    int32_t code = st->stream->writeBytes(st->stream, text, static_cast<int32_t>(n));
    if (code && !st->error)
        st->error = VX_ERR_IO;
    return code ? st->error : 0;
}

int32_t PutText(VxSaveState *st, const char *text) { return Put(st, text, std::strlen(text)); }

int32_t Indent(VxSaveState *st, int32_t depth)
{
    static const char kBlanks[2 * VX_STATE_LEVELS + 1] = "                                ";
    return Put(st, kBlanks, static_cast<size_t>(2 * depth));
}

// Starts a token of the current block: indented on a new line, or after a blank.
int32_t Separate(VxSaveState *st)
{
    if (st->lineStart) {
        st->lineStart = 0;
        return Indent(st, st->depth);
    }
    return Put(st, " ", 1);
}

int32_t PutToken(VxSaveState *st, const char *text, size_t n)
{
    Separate(st);
    return Put(st, text, n);
}

int32_t TextBegin(VxSaveState *st, const VxBlockDesc *block)
{
    if (st->error)
        return st->error;
    char keyword[VX_STATE_TOKEN];
    if (!KeywordOf(block, keyword) || st->depth + 1 >= VX_STATE_LEVELS)
        return st->error = VX_ERR_FORMAT;
    if (st->depth > 0 && !(st->braced & (1u << st->depth))) {
        st->braced |= 1u << st->depth;
        Put(st, " {", 2);
    }
    if (!st->lineStart)
        Put(st, "\n", 1);
    Indent(st, st->depth);
    PutText(st, keyword);
    ++st->depth;
    st->braced &= ~(1u << st->depth);
    st->lineStart = 0;
    return st->error;
}

int32_t TextEndBlock(VxSaveState *st)
{
    if (st->error)
        return st->error;
    if (st->depth == 0)
        return VX_ERR_FORMAT;
    if (st->braced & (1u << st->depth)) {
        if (!st->lineStart)
            Put(st, "\n", 1);
        Indent(st, st->depth - 1);
        Put(st, "}\n", 2);
    } else {
        Put(st, "\n", 1);
    }
    st->braced &= ~(1u << st->depth);
    --st->depth;
    st->lineStart = 1;
    return st->error;
}

template <class T, class Format>
int32_t WriteEach(VxSaveState *st, const T *buf, int32_t n, Format format)
{
    if (st->error)
        return st->error;
    for (int32_t i = 0; i < n && !st->error; ++i) {
        char text[32];
        size_t length = format(buf[i], text);
        PutToken(st, text, length);
    }
    return st->error;
}

size_t FormatInteger(int64_t v, char *text)
{
    return static_cast<size_t>(std::to_chars(text, text + 31, v).ptr - text);
}

size_t FormatId(uint32_t id, char *text)
{
    bool printable = true;
    for (int i = 0; i < 4; ++i)
        printable = printable && IsIdChar(static_cast<uint8_t>(id >> (24 - 8 * i)));
    if (!printable)
        return static_cast<size_t>(std::snprintf(text, 32, "0x%08X", static_cast<unsigned>(id)));
    text[0] = '\'';
    for (int i = 0; i < 4; ++i)
        text[1 + i] = static_cast<char>(id >> (24 - 8 * i));
    text[5] = '\'';
    return 6;
}

// The shortest decimal that reads back to the same float; the bits for infinities and NaNs.
size_t FormatFloat(float f, char *text)
{
    if (!std::isfinite(f))
        return static_cast<size_t>(std::snprintf(text, 32, "0x%08X", static_cast<unsigned>(std::bit_cast<uint32_t>(f))));
    return static_cast<size_t>(std::to_chars(text, text + 31, f).ptr - text);
}

int32_t TextWriteBytes(VxSaveState *st, const uint8_t *buf, int32_t n)
{
    return WriteEach(st, buf, n, [](uint8_t v, char *t) { return FormatInteger(v, t); });
}

int32_t TextWriteShorts(VxSaveState *st, const int16_t *buf, int32_t n)
{
    return WriteEach(st, buf, n, [](int16_t v, char *t) { return FormatInteger(v, t); });
}

int32_t TextWriteLongs(VxSaveState *st, const int32_t *buf, int32_t n)
{
    return WriteEach(st, buf, n, [](int32_t v, char *t) { return FormatInteger(v, t); });
}

int32_t TextWriteIDs(VxSaveState *st, const uint32_t *buf, int32_t n) { return WriteEach(st, buf, n, FormatId); }

int32_t TextWriteFloats(VxSaveState *st, const float *buf, int32_t n) { return WriteEach(st, buf, n, FormatFloat); }

int32_t TextWriteString(VxSaveState *st, const char *text)
{
    if (st->error)
        return st->error;
    Separate(st);
    Put(st, "\"", 1);
    const char *run = text ? text : "";
    for (const char *p = run; *p; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        char escape[5] = {'\\', 0, 0, 0, 0};
        switch (c) {
        case '"': case '\\': escape[1] = static_cast<char>(c); break;
        case '\n': escape[1] = 'n'; break;
        case '\t': escape[1] = 't'; break;
        case '\r': escape[1] = 'r'; break;
        default:
            if (c >= 0x20 && c != 0x7F)
                continue;
            std::snprintf(escape + 1, 4, "x%02X", c);
        }
        Put(st, run, static_cast<size_t>(p - run));
        PutText(st, escape);
        run = p + 1;
    }
    PutText(st, run);
    return Put(st, "\"", 1);
}

int32_t TextWriteIndex(VxSaveState *st, uint32_t index)
{
    if (st->error)
        return st->error;
    if (index > kIndexMax)
        return st->error = VX_ERR_FORMAT;
    char text[16];
    return PutToken(st, text, FormatInteger(index, text));
}

}  // namespace

extern "C" {

VX_API void StrmInitLoadState(VxLoadState *state, VxReadStrm *stream)
{
    std::memset(state, 0, sizeof *state);
    state->kind = VX_STATE_TEXT;
    state->stream = stream;
    state->look = -2;
    state->line = 1;
    state->findBlock = TextFind;
    state->endBlock = TextEnd;
    state->readBytes = TextRead<uint8_t, Kind::Byte>;
    state->readShorts = TextRead<int16_t, Kind::Short>;
    state->readLongs = TextRead<int32_t, Kind::Long>;
    state->readIDs = TextRead<uint32_t, Kind::Id>;
    state->readFloats = TextRead<float, Kind::Float>;
    state->readString = TextReadString;
    state->readIndex = TextReadIndex;
}

VX_API void StrmInitSaveState(VxSaveState *state, VxWriteStrm *stream)
{
    std::memset(state, 0, sizeof *state);
    state->kind = VX_STATE_TEXT;
    state->stream = stream;
    state->lineStart = 1;
    state->beginBlock = TextBegin;
    state->endBlock = TextEndBlock;
    state->writeBytes = TextWriteBytes;
    state->writeShorts = TextWriteShorts;
    state->writeLongs = TextWriteLongs;
    state->writeIDs = TextWriteIDs;
    state->writeFloats = TextWriteFloats;
    state->writeString = TextWriteString;
    state->writeIndex = TextWriteIndex;
}

}  // extern "C"
