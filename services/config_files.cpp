// Configuration files: export, import, the default file, start-up and file naming.
#include <vxtools3/ckpt.h>
#include <vxtools3/config.h>
#include <vxtools3/memory.h>
#include <vxtools3/platform.h>
#include <vxtools3/ports.h>

#include "services/config_internal.h"
#include "services/textparse_internal.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

using namespace vx::config;

namespace {

// Longest line text kept from a file; the rest of a longer line is dropped.
constexpr size_t kLineCapacity = 1024;
constexpr char kEventsPort[] = "application-events";

constexpr size_t kNameCapacity = 4096;
char g_generatedName[kNameCapacity];

bool IsDirectory(const char *path)
{
    const size_t length = std::strlen(path);
    if (length && path[length - 1] == '/')
        return true;
    struct stat info;
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

char AsciiUpper(char c)
{
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

void CloseFileArm(uintptr_t file, uintptr_t)
{
    std::fclose(reinterpret_cast<FILE *>(file));
}

void EndCalloutQuietly(uintptr_t, uintptr_t)
{
    --g_store.calloutDepth;
}

// ---- export ----

void WriteEntries(FILE *file)
{
    for (VxNode *n = g_store.entries.head; n->succ; n = n->succ) {
        const auto *entry = reinterpret_cast<const Entry *>(n);
        const Definition *def = entry->value;
        if (!(def->flags & kMarked) || !def->type || !def->exportFlag)
            continue;
        fputs_unlocked(def->named.name, file);
        putc_unlocked(' ', file);
        fputs_unlocked(entry->text, file);
        putc_unlocked('\n', file);
    }
}

// ---- import ----

// What an import builds before it touches the store: values met for the first time (with an
// index of their names) and the new entries, in file order.
struct Staging {
    VxList definitions;
    VxList entries;
    NameIndex index;
    int32_t definitionCount;
};

void DiscardStaging(uintptr_t staging, uintptr_t)
{
    auto *st = reinterpret_cast<Staging *>(staging);
    while (VxNode *node = RemHead(&st->entries))
        FreeEntry(reinterpret_cast<Entry *>(node));
    while (VxNode *node = RemHead(&st->definitions))
        FreeDefinition(reinterpret_cast<Definition *>(node));
    IndexFree(st->index);
}

// Reads one line: at most kLineCapacity-1 bytes are kept, a NUL byte ends the text, and a
// carriage return before the newline is dropped. Returns false at the end of the file.
bool ReadLine(FILE *file, char *line)
{
    size_t kept = 0, seen = 0;
    bool ended = false;
    int c = getc_unlocked(file);
    if (c == EOF)
        return false;
    for (; c != EOF && c != '\n'; c = getc_unlocked(file)) {
        ended = ended || c == '\0';
        if (ended)
            continue;
        ++seen;
        if (kept < kLineCapacity - 1)
            line[kept++] = static_cast<char>(c);
    }
    if (kept == seen && kept > 0 && line[kept - 1] == '\r')
        --kept;
    line[kept] = '\0';
    return true;
}

Definition *StagedValue(Staging &st, const char *name, uint64_t hash)
{
    if (Named *named = IndexFind(st.index, name, hash))
        return reinterpret_cast<Definition *>(named);
    IndexReserve(st.index, 1);
    Definition *def = NewDefinition(name, hash, nullptr);
    def->flags = kMarked | kHasLines;
    AddTail(&st.definitions, &def->named.node);
    IndexInsert(st.index, &def->named);
    ++st.definitionCount;
    return def;
}

void StageLine(Staging &st, char *line)
{
    using vx::text::IsWhite;
    char *name = line;
    while (*name == ' ' || *name == '\t')
        ++name;
    char *end = const_cast<char *>(vx::text::TokenEnd(name));
    char *value = const_cast<char *>(vx::text::SkipWhite(end));
    if (end == name || *value == '\0')
        return;
    *end = '\0';
    const uint64_t hash = HashName(name);
    Named *named = IndexFind(g_store.index, name, hash);
    if (named && named->kind != kValue)
        return;  // an alias cannot hold entries
    Definition *def = named ? reinterpret_cast<Definition *>(named) : StagedValue(st, name, hash);
    if (def->flags & kMarked)
        def->flags |= kHasLines;
    // One block for the record and its text: imports make many entries.
    const size_t textSize = std::strlen(value) + 1;
    auto *entry = static_cast<Entry *>(StdAlloc(sizeof(Entry) + textSize));
    entry->value = def;
    entry->text = reinterpret_cast<char *>(entry + 1);
    entry->recordSize = sizeof(Entry) + textSize;
    std::memcpy(entry->text, value, textSize);
    AddTail(&st.entries, &entry->order);
}

// Applies a complete staging to the store; allocates nothing.
void CommitStaging(Staging &st)
{
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ) {
        auto *def = reinterpret_cast<Definition *>(n);
        if ((def->flags & (kMarked | kHasLines)) == (kMarked | kHasLines)) {
            DropEntries(def);
            NotifyChanged(def);
        }
    }
    while (VxNode *node = RemHead(&st.definitions)) {
        auto *def = reinterpret_cast<Definition *>(node);
        IndexInsert(g_store.index, &def->named);
        AddTail(&g_store.definitions, &def->named.node);
    }
    while (VxNode *node = RemHead(&st.entries)) {
        auto *entry = reinterpret_cast<Entry *>(node);
        LinkEntry(entry);
        NotifyChanged(entry->value);
    }
    IndexFree(st.index);
}

int ImportFile(const char *path, const char *const *names)
{
    FILE *file = std::fopen(path, "r");
    if (!file)
        return 0;
    std::setvbuf(file, nullptr, _IOFBF, 1 << 16);
    Staging st{};
    NewList(&st.definitions);
    NewList(&st.entries);
    CKPT_BEGIN_OR_RETURN(0);
    CkptArm(CloseFileArm, reinterpret_cast<uintptr_t>(file), 0);
    BeginCallout();
    CkptArm(EndCalloutQuietly, 0, 0);
    Hold();
    CkptArm(ReleaseQuietly, 0, 0);
    ConfigSynchronize(1, names);
    MarkNamed(names);
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ)
        reinterpret_cast<Definition *>(n)->flags &= ~kHasLines;
    CkptArm(DiscardStaging, reinterpret_cast<uintptr_t>(&st), 0);
    char line[kLineCapacity];
    while (ReadLine(file, line))
        StageLine(st, line);
    if (std::ferror(file)) {
        // A read error (a directory, a failing device) is not a memory failure: it is not
        // raised outward, the import is simply dropped.
        CkptEnd();
        DiscardStaging(reinterpret_cast<uintptr_t>(&st), 0);
        std::fclose(file);
        ReleaseQuietly(0, 0);
        EndCallout();
        return 0;
    }
    IndexReserve(g_store.index, static_cast<uint32_t>(st.definitionCount));
    CkptEnd();
    std::fclose(file);
    CommitStaging(st);
    ConfigSynchronize(0, names);
    Release();
    EndCallout();
    return 1;
}

// ---- start-up ----

VxConfigClient *g_appClient;
char g_portKey;  // its address identifies the store on the events port

void OnApplicationEvent(uintptr_t, uintptr_t, int32_t event, uintptr_t)
{
    if (event != CONFIG_EVENT_WRITE)
        return;
    if (CkptBegin())
        return;  // a failed write is not handed to the notifier
    ConfigDefaultWrite();
    CkptEnd();
}

void RemoveClientArm(uintptr_t client, uintptr_t)
{
    ConfigRemClient(reinterpret_cast<VxConfigClient *>(client));
}

void DetachPortArm(uintptr_t, uintptr_t)
{
    GlobalPortDetach(kEventsPort, reinterpret_cast<uintptr_t>(&g_portKey));
}

// System path 5 becomes dir when it is a directory, else the directory part of dir.
void SetConfigPath(const char *dir)
{
    if (IsDirectory(dir)) {
        FileSetSystemPath(SYSTEM_PATH_CONFIG, dir);
        return;
    }
    char part[kNameCapacity];
    const char *slash = std::strrchr(dir, '/');
    const size_t length = !slash ? 0 : slash == dir ? 1 : static_cast<size_t>(slash - dir);
    if (length >= sizeof part)
        return;
    std::memcpy(part, length ? dir : ".", length ? length : 1);
    part[length ? length : 1] = '\0';
    FileSetSystemPath(SYSTEM_PATH_CONFIG, part);
}

// Adds the application's client, attaches to the events port and imports `name` (when
// given, a copy becomes the default file); undoes all of it when memory runs out.
int StartStore(const char *dir, const char *name)
{
    CKPT_BEGIN_OR_RETURN(0);
    char *file = StringCopy(name);
    CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(file), 0);
    VxConfigClient *client = ConfigAddClient(nullptr, 0);
    CkptArm(RemoveClientArm, reinterpret_cast<uintptr_t>(client), 0);
    if (!GlobalPortAttach(kEventsPort, reinterpret_cast<uintptr_t>(&g_portKey), 0, OnApplicationEvent))
        CkptRecover(1);
    CkptArm(DetachPortArm, 0, 0);
    if (file)
        ConfigImport(file, nullptr);  // a missing file is a first start, not an error
    CkptEnd();
    g_appClient = client;
    StringFree(g_store.defaultFile);
    g_store.defaultFile = file;
    if (dir && dir[0])
        SetConfigPath(dir);
    return 1;
}

}  // namespace

namespace vx::config {

int ExportFile(const char *path, const char *const *names)
{
    FILE *file = std::fopen(path, "w");
    if (!file)
        return 0;
    std::setvbuf(file, nullptr, _IOFBF, 1 << 16);
    CKPT_BEGIN_OR_RETURN(0);
    CkptArm(CloseFileArm, reinterpret_cast<uintptr_t>(file), 0);
    BeginCallout();
    CkptArm(EndCalloutQuietly, 0, 0);
    ConfigSynchronize(1, names);
    MarkNamed(names);
    WriteEntries(file);
    CkptEnd();
    const bool written = !std::ferror(file);
    const bool closed = std::fclose(file) == 0;
    EndCallout();
    return written && closed;
}

}  // namespace vx::config

extern "C" {

VX_API int ConfigExport(const char *file, const char *const *names)
{
    if (!g_store.open || !file)
        return 0;
    return ExportFile(file, names);
}

VX_API int ConfigImport(const char *file, const char *const *names)
{
    if (!g_store.open || !file)
        return 0;
    return ImportFile(file, names);
}

VX_API int ConfigDefaultWrite(void)
{
    if (!g_store.open || !g_store.defaultFile)
        return 0;
    return ExportFile(g_store.defaultFile, nullptr);
}

VX_API int ConfigRevert(void)
{
    if (!g_store.open || !g_store.defaultFile)
        return 0;
    FILE *probe = std::fopen(g_store.defaultFile, "r");
    if (!probe)
        return 0;
    std::fclose(probe);
    Hold();
    for (VxNode *n = g_store.definitions.head; n->succ; n = n->succ) {
        auto *def = reinterpret_cast<Definition *>(n);
        if (def->entryCount > 0) {
            DropEntries(def);
            NotifyChanged(def);
        }
    }
    const int done = ImportFile(g_store.defaultFile, nullptr);
    Release();
    return done;
}

VX_API int ConfigStartup(const char *dir, const char *base, int32_t readFlag)
{
    if (g_appClient)
        return 0;
    if (!base || !base[0] || !readFlag)
        return StartStore(dir, nullptr);
    const char *name = ConfigGenerateName(dir, base, nullptr);
    return name ? StartStore(dir, name) : 0;
}

VX_API void ConfigShutdown(void)
{
    if (!g_appClient)
        return;
    GlobalPortDetach(kEventsPort, reinterpret_cast<uintptr_t>(&g_portKey));
    VxConfigClient *client = g_appClient;
    g_appClient = nullptr;
    ConfigRemClient(client);
}

VX_API const char *ConfigGenerateName(const char *dir, const char *base, const char * /*description*/)
{
    if (!dir || !dir[0])
        dir = FileSystemPath(SYSTEM_PATH_CONFIG);
    const size_t dirLength = std::strlen(dir);
    if (!IsDirectory(dir)) {
        if (dirLength >= kNameCapacity)
            return nullptr;
        std::memcpy(g_generatedName, dir, dirLength + 1);
        return g_generatedName;
    }
    if (!base || !base[0])
        return nullptr;
    static const char kSuffix[] = ".CFG";
    const bool needsSlash = dir[dirLength - 1] != '/';
    const size_t baseLength = std::strlen(base);
    const size_t total = dirLength + (needsSlash ? 1 : 0) + baseLength + sizeof kSuffix - 1;
    if (total >= kNameCapacity)
        return nullptr;
    char *out = g_generatedName;
    std::memcpy(out, dir, dirLength);
    out += dirLength;
    if (needsSlash)
        *out++ = '/';
    for (size_t i = 0; i < baseLength; ++i)
        *out++ = AsciiUpper(base[i]);
    std::memcpy(out, kSuffix, sizeof kSuffix);
    return g_generatedName;
}

}  // extern "C"
