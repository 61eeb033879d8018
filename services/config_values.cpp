// Configuration store: formatting entries from arguments, parsing them into pointers, and the
// set / get / keyed / clear / raw operations.
#include <vxtools3/ckpt.h>
#include <vxtools3/memory.h>

#include "services/config_internal.h"
#include "services/textparse_internal.h"

#include <cstdarg>
#include <cstring>

using namespace vx::text;

namespace vx::config {
namespace {

// ---- formatting ----

// Collects an entry's bytes, or only counts them when `out` is NULL.
struct FieldWriter {
    char *out;
    size_t length;
    void Put(const char *bytes, size_t count)
    {
        if (out)
            std::memcpy(out + length, bytes, count);
        length += count;
    }
    void PutQuoted(const char *word)
    {
        if (out)
            WriteQuoted(out + length, word);
        length += QuotedLength(word);
    }
};

// The last 's' field is written as it is unless reading the rest of the entry would not give
// it back: empty, leading white space or quote, control characters.
bool LastWordNeedsQuotes(const char *word)
{
    if (!word[0] || IsWhite(word[0]) || word[0] == '"')
        return true;
    for (const char *p = word; *p; ++p)
        if (IsControl(static_cast<unsigned char>(*p)))
            return true;
    return false;
}

void PutField(FieldWriter &w, char letter, bool last, va_list *args)
{
    char number[kNumberCapacity];
    switch (letter) {
    case 'f': w.Put(number, FormatDouble(number, va_arg(*args, double))); break;
    case 'i': w.Put(number, FormatInteger(number, static_cast<int32_t>(va_arg(*args, int)))); break;
    case 's': {
        const char *word = va_arg(*args, const char *);
        word = word ? word : "";
        if (last ? LastWordNeedsQuotes(word) : NeedsQuotes(word))
            w.PutQuoted(word);
        else
            w.Put(word, std::strlen(word));
        break;
    }
    case 't': {
        const char *text = va_arg(*args, const char *);
        if (text)
            w.Put(text, std::strlen(text));
        break;
    }
    default: break;  // an unknown letter is an empty field and takes no argument
    }
}

size_t WriteFields(const char *type, va_list *args, char *out)
{
    FieldWriter w{out, 0};
    for (const char *t = type; *t; ++t) {
        if (t != type)
            w.Put(" ", 1);
        PutField(w, *t, t[1] == '\0', args);
    }
    return w.length;
}

// Formats the arguments by the type string into a new string; raises on exhaustion.
char *FormatArgs(const char *type, va_list *args)
{
    va_list measure;
    va_copy(measure, *args);
    const size_t length = WriteFields(type, &measure, nullptr);
    va_end(measure);
    auto *text = static_cast<char *>(StdAlloc(length + 1));
    if (!text)
        CkptRecover(1);
    WriteFields(type, args, text);
    return text;
}

// ---- parsing ----

// Reads the last 's' field: a quoted word that ends the entry, else the rest verbatim.
bool ReadLastWord(const char *p, char *out)
{
    p = SkipWhite(p);
    if (*p == '"') {
        size_t length = 0;
        const char *end = DecodeQuoted(p, [&length](char) { ++length; });
        if (end && *SkipWhite(end) == '\0') {
            if (length >= CONFIG_TEXT_SIZE)
                return false;
            DecodeQuoted(p, [&out](char c) { *out++ = c; });
            *out = '\0';
            return true;
        }
    }
    const size_t length = std::strlen(p);
    if (length >= CONFIG_TEXT_SIZE)
        return false;
    std::memcpy(out, p, length + 1);
    return true;
}

bool ParseField(char letter, bool last, const char *&p, va_list *args)
{
    switch (letter) {
    case 'f': {
        auto *value = va_arg(*args, double *);
        p = SkipWhite(p);
        if (*p == '\0') {
            *value = 0.0;
            return true;
        }
        return PullDouble(&p, value);
    }
    case 'i': return PullInteger(&p, va_arg(*args, int32_t *));
    case 's': {
        char *word = va_arg(*args, char *);
        if (!last)
            return PullQuoteWord(&p, word, CONFIG_TEXT_SIZE);
        if (!ReadLastWord(p, word))
            return false;
        p += std::strlen(p);
        return true;
    }
    case 't': return PullNonWhite(&p, va_arg(*args, char *), CONFIG_TEXT_SIZE);
    default: return true;
    }
}

int ParseFields(const char *type, const char *text, va_list *args)
{
    for (const char *t = type; *t; ++t)
        if (!ParseField(*t, t[1] == '\0', text, args))
            return 0;
    return 1;
}

// ---- keys ----

struct Key {
    char letter;
    double number;
    int32_t integer;
    const char *word;
};

// Reads the key argument in the type of the first letter. A double key is put through the
// field format, so that it equals what a stored field of the same value reads back as.
Key ReadKey(const char *type, va_list *args)
{
    Key key{type[0], 0.0, 0, ""};
    switch (key.letter) {
    case 'f': {
        char number[kNumberCapacity + 1];
        number[FormatDouble(number, va_arg(*args, double))] = '\0';
        ParseDouble(number, &key.number);
        break;
    }
    case 'i': key.integer = static_cast<int32_t>(va_arg(*args, int)); break;
    case 's':
    case 't': {
        const char *word = va_arg(*args, const char *);
        key.word = word ? word : "";
        break;
    }
    default: break;
    }
    return key;
}

// True when the decoded quoted word at p equals `word`; *end receives the position after it.
bool QuotedEquals(const char *p, const char *word, const char **end)
{
    const char *k = word;
    bool same = true;
    *end = DecodeQuoted(p, [&](char c) {
        same = same && *k == c;
        if (*k)
            ++k;
    });
    return *end && same && *k == '\0';
}

// Returns the end of the entry's first field when it matches the key, else NULL.
const char *MatchKey(const char *type, const char *text, const Key &key)
{
    const char *p = SkipWhite(text);
    switch (key.letter) {
    case 'f': {
        double stored = 0.0;
        const char *end = *p ? ParseDouble(p, &stored) : p;
        return (end && stored == key.number) ? end : nullptr;
    }
    case 'i': {
        int32_t stored = 0;
        const char *end = ParseInteger(p, &stored);
        return (end && stored == key.integer) ? end : nullptr;
    }
    case 's': {
        const char *end = nullptr;
        if (*p == '"' && QuotedEquals(p, key.word, &end) && (type[1] || *SkipWhite(end) == '\0'))
            return end;
        if (type[1] == '\0')
            return std::strcmp(p, key.word) == 0 ? p + std::strlen(p) : nullptr;
        if (*p == '"')
            return nullptr;
        [[fallthrough]];
    }
    case 't': {
        const char *end = TokenEnd(p);
        const size_t length = static_cast<size_t>(end - p);
        return (std::strlen(key.word) == length && std::memcmp(p, key.word, length) == 0) ? end : nullptr;
    }
    default: return nullptr;
    }
}

Entry *FindKeyed(const Definition *def, const Key &key, const char **rest)
{
    for (VxNode *n = def->entries.head; n->succ; n = n->succ) {
        Entry *entry = EntryOfSibling(n);
        if (const char *end = MatchKey(def->type, entry->text, key)) {
            *rest = end;
            return entry;
        }
    }
    return nullptr;
}

// ---- setting ----

void FreeTextArm(uintptr_t text, uintptr_t)
{
    StringFree(reinterpret_cast<char *>(text));
}

void ReplaceText(Entry *entry, char *text)
{
    if (!TextInline(entry))
        StringFree(entry->text);
    entry->text = text;
}

void DropEntriesAfterFirst(Definition *def)
{
    while (def->entryCount > 1) {
        Entry *last = EntryOfSibling(def->entries.tailPred);
        UnlinkEntry(last);
        FreeEntry(last);
    }
}

// Formats into `target` (NULL: a new entry at the end). Everything that can fail happens
// before the store changes.
int StoreFormatted(Definition *def, Entry *target, bool dropOthers, va_list *args)
{
    CKPT_BEGIN_OR_RETURN(0);
    char *text = FormatArgs(def->type, args);
    CkptArm(FreeTextArm, reinterpret_cast<uintptr_t>(text), 0);
    Entry *fresh = target ? nullptr : NewEntry(def, text);
    CkptEnd();
    if (dropOthers)
        DropEntriesAfterFirst(def);
    if (fresh)
        LinkEntry(fresh);
    else
        ReplaceText(target, text);
    NotifyChanged(def);
    return 1;
}

Definition *TypedValue(const char *name)
{
    Definition *def = FindValue(name);
    return (def && def->type) ? def : nullptr;
}

void RemoveEntry(Entry *entry)
{
    UnlinkEntry(entry);
    FreeEntry(entry);
}

}  // namespace
}  // namespace vx::config

using namespace vx::config;

extern "C" {

VX_API int ConfigSet(const char *name, ...)
{
    Definition *def = TypedValue(name);
    if (!def)
        return 0;
    va_list args;
    va_start(args, name);
    const int done = StoreFormatted(def, EntryAt(def, 0), true, &args);
    va_end(args);
    return done;
}

VX_API int ConfigISet(const char *name, int32_t index, ...)
{
    Definition *def = TypedValue(name);
    if (!def || index < 0)
        return 0;
    va_list args;
    va_start(args, index);
    const int done = StoreFormatted(def, EntryAt(def, index), false, &args);
    va_end(args);
    return done;
}

VX_API int ConfigGet(const char *name, ...)
{
    Definition *def = TypedValue(name);
    Entry *entry = def ? EntryAt(def, 0) : nullptr;
    if (!entry)
        return 0;
    va_list args;
    va_start(args, name);
    const int done = ParseFields(def->type, entry->text, &args);
    va_end(args);
    return done;
}

VX_API int ConfigIGet(const char *name, int32_t index, ...)
{
    Definition *def = TypedValue(name);
    Entry *entry = def ? EntryAt(def, index) : nullptr;
    if (!entry)
        return 0;
    va_list args;
    va_start(args, index);
    const int done = ParseFields(def->type, entry->text, &args);
    va_end(args);
    return done;
}

VX_API int32_t ConfigNum(const char *name)
{
    Definition *def = FindValue(name);
    return def ? def->entryCount : 0;
}

VX_API int ConfigXSet(const char *name, ...)
{
    Definition *def = TypedValue(name);
    if (!def)
        return 0;
    va_list args, keyArgs;
    va_start(args, name);
    va_copy(keyArgs, args);
    const Key key = ReadKey(def->type, &keyArgs);
    va_end(keyArgs);
    const char *rest = nullptr;
    const int done = StoreFormatted(def, FindKeyed(def, key, &rest), false, &args);
    va_end(args);
    return done;
}

VX_API int ConfigXGet(const char *name, ...)
{
    Definition *def = TypedValue(name);
    if (!def)
        return 0;
    va_list args;
    va_start(args, name);
    const Key key = ReadKey(def->type, &args);
    const char *rest = nullptr;
    const int done = FindKeyed(def, key, &rest) ? ParseFields(def->type + 1, rest, &args) : 0;
    va_end(args);
    return done;
}

VX_API int ConfigXClear(const char *name, ...)
{
    Definition *def = TypedValue(name);
    if (!def)
        return 0;
    va_list args;
    va_start(args, name);
    const Key key = ReadKey(def->type, &args);
    va_end(args);
    const char *rest = nullptr;
    Entry *entry = FindKeyed(def, key, &rest);
    if (!entry)
        return 0;
    RemoveEntry(entry);
    NotifyChanged(def);
    return 1;
}

VX_API int ConfigIClear(const char *name, int32_t index)
{
    Definition *def = FindValue(name);
    Entry *entry = def ? EntryAt(def, index) : nullptr;
    if (!entry)
        return 0;
    RemoveEntry(entry);
    NotifyChanged(def);
    return 1;
}

VX_API int ConfigClear(const char *name)
{
    Definition *def = FindValue(name);
    if (!def)
        return 0;
    DropEntries(def);
    NotifyChanged(def);
    return 1;
}

VX_API void ConfigClearAll(void)
{
    if (!g_store.open)
        return;
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ)
        DropEntries(reinterpret_cast<Definition *>(n));
    // A callback may remove the last client; the store then closes when the walk ends.
    BeginCallout();
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ)
        NotifyChanged(reinterpret_cast<Definition *>(n));
    EndCallout();
}

VX_API const char *ConfigRawGet(const char *name, int32_t index)
{
    Definition *def = FindValue(name);
    Entry *entry = def ? EntryAt(def, index) : nullptr;
    return entry ? entry->text : nullptr;
}

VX_API int ConfigRawSet(const char *name, int32_t index, const char *text)
{
    if (!g_store.open || !name || !name[0] || index < 0)
        return 0;
    Named *named = FindNamed(name);
    if (named && named->kind != kValue)
        return 0;
    auto *def = reinterpret_cast<Definition *>(named);
    Entry *entry = def ? EntryAt(def, index) : nullptr;
    if (!text) {
        if (!entry)
            return 0;
        RemoveEntry(entry);
        return 1;
    }
    CKPT_BEGIN_OR_RETURN(0);
    char *copy = StringCopy(text);
    CkptArm(FreeTextArm, reinterpret_cast<uintptr_t>(copy), 0);
    Definition *fresh = def ? nullptr : NewDefinition(name, HashName(name), nullptr);
    if (fresh)
        CkptArm([](uintptr_t d, uintptr_t) { FreeDefinition(reinterpret_cast<Definition *>(d)); },
                reinterpret_cast<uintptr_t>(fresh), 0);
    Entry *added = entry ? nullptr : NewEntry(fresh ? fresh : def, copy);
    if (added)
        CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(added), sizeof(Entry));
    if (fresh)
        LinkDefinition(fresh);  // the last step that can fail
    CkptEnd();
    if (added)
        LinkEntry(added);
    else
        ReplaceText(entry, copy);
    return 1;
}

}  // extern "C"
