// The plug-in database file: the module servers and their tags as "Entry" blocks of a text
// save state, read back through the text load state.
#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/host.h>
#include <vxtools3/iff.h>
#include <vxtools3/memory.h>
#include <vxtools3/states.h>
#include <vxtools3/streams.h>

#include "host/host_internal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vx::host {
namespace {

constexpr uint32_t kDirectory = VX_ID('P', 'D', 'I', 'R');
constexpr uint32_t kEntry = VX_ID('P', 'L', 'U', 'G');
constexpr uint32_t kClass = VX_ID('C', 'L', 'A', 'S');
constexpr uint32_t kName = VX_ID('N', 'A', 'M', 'E');
constexpr uint32_t kModule = VX_ID('F', 'I', 'L', 'E');
constexpr uint32_t kInfoTag = VX_ID('I', 'N', 'F', 'O');
constexpr uint32_t kChecked = VX_ID('M', 'C', 'H', 'K');
constexpr uint32_t kStamp = VX_ID('S', 'T', 'M', 'P');
constexpr uint32_t kFailure = VX_ID('F', 'A', 'I', 'L');

const VxBlockDesc kTopBlocks[] = {
    {kDirectory, "Directory"}, {kEntry, "Entry"}, {kChecked, "Checked"}, {0, nullptr}};
// A module file a scan checked: its path, size and modification time (as 32-bit halves and
// nanoseconds) and, when it failed, why.
const VxBlockDesc kCheckedBlocks[] = {{kModule, "Module"}, {kStamp, "Stamp"}, {kFailure, "Failure"}, {0, nullptr}};
const VxBlockDesc kEntryBlocks[] = {
    {kClass, "Class"}, {kName, "Name"}, {kModule, "Module"}, {kInfoTag, "InfoTag"}, {0, nullptr}};

// The longest strings read back, with their terminating zero.
constexpr int32_t kClassMax = 128;
constexpr int32_t kNameMax = 256;
constexpr int32_t kPathMax = 512;
constexpr int32_t kTagMax = 512;
constexpr int32_t kFailureMax = 2048;

struct EntryText {
    char className[kClassMax];
    char name[kNameMax];
    char module[kPathMax];
};

void ReadTag(VxLoadState *state, HostServer *server)
{
    int32_t tagWord = 0;
    char text[kTagMax];
    if (state->readLongs(state, &tagWord, 1) == 1 && state->readString(state, text, kTagMax) == 1 && server)
        TxnStageTag(server, text, static_cast<uint32_t>(tagWord));
}

// One Entry: the server is staged as soon as class, name and module are known; InfoTags
// before that point are dropped.
void ReadEntry(Txn *txn, VxLoadState *state)
{
    EntryText entry{};
    HostServer *server = nullptr;
    bool staged = false;
    while (const uint32_t id = state->findBlock(state, kEntryBlocks)) {
        if (id == kClass)
            state->readString(state, entry.className, kClassMax);
        else if (id == kName)
            state->readString(state, entry.name, kNameMax);
        else if (id == kModule)
            state->readString(state, entry.module, kPathMax);
        else if (id == kInfoTag)
            ReadTag(state, server);
        state->endBlock(state);
        if (!staged && entry.className[0] && entry.name[0] && entry.module[0]) {
            staged = true;
            server = TxnStageServer(txn, entry.className, entry.name, FindOrCreateModule(txn, entry.module), nullptr);
            if (server)
                server->stale = false;
        }
    }
}

// One Checked block; records without a module path or stamp are dropped.
void ReadChecked(VxLoadState *state)
{
    char module[kPathMax] = "";
    char failure[kFailureMax] = "";
    int32_t words[5] = {};
    bool stamped = false;
    while (const uint32_t id = state->findBlock(state, kCheckedBlocks)) {
        if (id == kModule)
            state->readString(state, module, kPathMax);
        else if (id == kStamp)
            stamped = state->readLongs(state, words, 5) == 5;
        else if (id == kFailure)
            state->readString(state, failure, kFailureMax);
        state->endBlock(state);
    }
    const auto wide = [](int32_t high, int32_t low) {
        return static_cast<int64_t>(static_cast<uint64_t>(static_cast<uint32_t>(high)) << 32 | static_cast<uint32_t>(low));
    };
    if (!module[0] || !stamped)
        return;
    ModuleCheck *check =
        NewCheck(module, {wide(words[0], words[1]), wide(words[2], words[3]), words[4]}, failure[0] ? failure : nullptr);
    if (!check)
        CkptRecover(1);
    PutCheck(check);
}

void MarkStale()
{
    for (int32_t c = 0; c < g_host.classes.count; ++c) {
        const auto *cls = static_cast<HostClass *>(g_host.classes.items[c]);
        for (int32_t s = 0; s < cls->servers.count; ++s) {
            auto *server = static_cast<HostServer *>(cls->servers.items[s]);
            server->stale = server->module != nullptr;
        }
    }
}

// Removes the module servers the file no longer names (locked ones stay).
void RemoveStale()
{
    for (int32_t c = 0; c < g_host.classes.count; ++c) {
        auto *cls = static_cast<HostClass *>(g_host.classes.items[c]);
        for (int32_t s = cls->servers.count - 1; s >= 0; --s) {
            auto *server = static_cast<HostServer *>(cls->servers.items[s]);
            if (!server->stale || server->lockCount)
                continue;
            Notify(HOST_NOTE_SERVER_REMOVED, server, cls);
            RemoveServer(server);
        }
    }
}

void CloseReadArm(uintptr_t stream, uintptr_t) { StrmReadDestroy(reinterpret_cast<VxReadStrm *>(stream)); }
void EndReadingArm(uintptr_t, uintptr_t) { g_host.readingDatabase = false; }

void WriteString(VxSaveState *state, uint32_t id, const char *keyword, const char *text)
{
    const VxBlockDesc block{id, keyword};
    state->beginBlock(state, &block);
    state->writeString(state, text);
    state->endBlock(state);
}

void WriteServer(VxSaveState *state, const HostServer *server)
{
    static const VxBlockDesc kEntryDesc{kEntry, "Entry"};
    static const VxBlockDesc kTagDesc{kInfoTag, "InfoTag"};
    state->beginBlock(state, &kEntryDesc);
    WriteString(state, kClass, "Class", server->cls->name);
    WriteString(state, kName, "Name", server->name);
    WriteString(state, kModule, "Module", server->module->path);
    for (const VxNode *node = server->tags.head; node->succ; node = node->succ) {
        const auto *tag = reinterpret_cast<const ServerTag *>(node);
        const auto word = static_cast<int32_t>(tag->tagWord);
        state->beginBlock(state, &kTagDesc);
        state->writeLongs(state, &word, 1);
        state->writeString(state, tag->string);
        state->endBlock(state);
    }
    state->endBlock(state);
}

void WriteChecked(VxSaveState *state, const ModuleCheck *check)
{
    static const VxBlockDesc kCheckedDesc{kChecked, "Checked"};
    static const VxBlockDesc kStampDesc{kStamp, "Stamp"};
    const auto high = [](int64_t value) { return static_cast<int32_t>(static_cast<uint64_t>(value) >> 32); };
    const auto low = [](int64_t value) { return static_cast<int32_t>(static_cast<uint32_t>(value)); };
    const FileStamp &stamp = check->stamp;
    const int32_t words[5] = {high(stamp.size), low(stamp.size), high(stamp.mtimeSeconds), low(stamp.mtimeSeconds),
                              stamp.mtimeNanoseconds};
    state->beginBlock(state, &kCheckedDesc);
    WriteString(state, kModule, "Module", check->path);
    state->beginBlock(state, &kStampDesc);
    state->writeLongs(state, words, 5);
    state->endBlock(state);
    if (check->failure)
        WriteString(state, kFailure, "Failure", check->failure);
    state->endBlock(state);
}

// Flushes a written file to the disk so that a rename cannot expose it before its bytes.
bool SyncFile(const char *path)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = fsync(fd) == 0;
    close(fd);
    return synced;
}

// Makes a rename in the directory of `path` durable (a failure here loses no data).
void SyncDirectory(const char *path)
{
    char dir[4096];
    if (!FolderOf(path, dir, sizeof dir))
        return;
    const int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

// Opens the write stream, catching an exhausted heap here: a database that cannot be written
// is reported by the result, never raised.
VxWriteStrm *OpenWrite(const char *path)
{
    if (CkptBegin()) {
        CkptLatchCode();
        return nullptr;
    }
    VxWriteStrm *stream = FileStrmWriteText(path);
    CkptEnd();
    return stream;
}

}  // namespace

bool FolderOf(const char *path, char *out, size_t size)
{
    const char *slash = std::strrchr(path, '/');
    return std::snprintf(out, size, "%.*s", slash ? static_cast<int>(slash - path) + (slash == path) : 1,
                         slash ? path : ".") < static_cast<int>(size);
}

bool ReadDatabaseStream(VxReadStrm *stream, const char *name)
{
    Txn txn;
    TxnBegin(&txn);
    CKPT_BEGIN_OR_RETURN(false);
    TxnArmRollback(&txn);
    CkptArm(EndReadingArm, 0, 0);
    g_host.readingDatabase = true;
    MarkStale();
    VxLoadState state;
    StrmInitLoadState(&state, stream);
    while (const uint32_t id = state.findBlock(&state, kTopBlocks)) {
        if (id == kEntry)
            ReadEntry(&txn, &state);
        else if (id == kChecked)
            ReadChecked(&state);
        state.endBlock(&state);
    }
    const bool damaged = state.error != 0;
    g_host.readingDatabase = false;
    CkptEnd();
    HostServer *touched = TxnCommit(&txn);
    // A damaged file cannot tell which servers are gone: only a whole file removes any.
    if (!damaged)
        RemoveStale();
    else
        DBprintf("plug-in database %s is damaged at line %d\n", name, static_cast<int>(state.line));
    TxnAnnounce(touched, nullptr);
    return !damaged;
}

bool ReadDatabaseFile(const char *path)
{
    VxReadStrm *stream = FileStrmReadOpen(path, nullptr);
    if (!stream)
        return false;
    CKPT_BEGIN_OR_RETURN(false);
    CkptArm(CloseReadArm, reinterpret_cast<uintptr_t>(stream), 0);
    const bool whole = ReadDatabaseStream(stream, path);
    CkptEnd();
    StrmReadDestroy(stream);
    return whole;
}

// The new file is written beside the old one under a name of its own, flushed to the disk and
// renamed over the old one: a process killed at any point leaves the old file or the new one.
bool WriteDatabaseFile(const char *path)
{
    char temporary[4096 + 16];
    if (std::snprintf(temporary, sizeof temporary, "%s.XXXXXX", path) >= static_cast<int>(sizeof temporary))
        return false;
    const int fd = mkostemp(temporary, O_CLOEXEC);
    if (fd < 0)
        return false;
    close(fd);
    VxWriteStrm *stream = OpenWrite(temporary);
    if (!stream) {
        unlink(temporary);
        return false;
    }
    VxSaveState state;
    StrmInitSaveState(&state, stream);
    for (int32_t c = 0; c < g_host.classes.count; ++c) {
        const auto *cls = static_cast<HostClass *>(g_host.classes.items[c]);
        for (int32_t s = 0; s < cls->servers.count; ++s) {
            const auto *server = static_cast<HostServer *>(cls->servers.items[s]);
            if (server->module)
                WriteServer(&state, server);
        }
    }
    // Oldest first: reading adds each at the head, which restores the order.
    for (const VxNode *node = g_host.checks.tailPred; node && node->pred; node = node->pred)
        WriteChecked(&state, reinterpret_cast<const ModuleCheck *>(node));
    const int32_t stateError = state.error;
    const int32_t closeError = StrmWriteDestroy(stream);
    if (stateError || closeError || !SyncFile(temporary) || std::rename(temporary, path) != 0) {
        unlink(temporary);
        return false;
    }
    SyncDirectory(path);
    return true;
}

}  // namespace vx::host
