// The plug-in host's registry: classes and servers, registrations that succeed whole or
// not at all, tags, notifications on "plugin-database", locking and activation, startup and
// shutdown.
#include <vxtools3/ckpt.h>
#include <vxtools3/config.h>
#include <vxtools3/debug.h>
#include <vxtools3/host.h>
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>
#include <vxtools3/platform.h>
#include <vxtools3/ports.h>

#include "host/host_internal.h"

#include <cstring>

namespace vx::host {

HostState g_host;

const char kLoaderClass[] = "_PluginLoader";
const char kGlobalClass[] = "Global";
const char kStandardLoaderName[] = "VX_StandardLoader";

namespace {

constexpr const char kPortName[] = "plugin-database";
constexpr const char kEventsPort[] = "application-events";
constexpr int32_t kEventSave = 5;

bool g_acquiringPort = false;  // GlobalPortAcquire announces earlier clients by record

uintptr_t HostIdentity() { return reinterpret_cast<uintptr_t>(&g_host); }

int CompareClasses(void *a, void *b)
{
    return std::strcmp(static_cast<HostClass *>(a)->name, static_cast<HostClass *>(b)->name);
}
int CompareNameToClass(void *name, void *cls)
{
    return std::strcmp(static_cast<const char *>(name), static_cast<HostClass *>(cls)->name);
}
int CompareServers(void *a, void *b)
{
    return std::strcmp(static_cast<HostServer *>(a)->name, static_cast<HostServer *>(b)->name);
}
int CompareNameToServer(void *name, void *server)
{
    return std::strcmp(static_cast<const char *>(name), static_cast<HostServer *>(server)->name);
}

ServerTag *AsTag(VxNode *node) { return reinterpret_cast<ServerTag *>(node); }

void FreeTag(ServerTag *tag)
{
    StringFree(tag->string);
    FreeHeap(tag, sizeof(ServerTag));
}

void FreeTagList(VxList *list)
{
    while (VxNode *node = RemHead(list))
        FreeTag(AsTag(node));
}

// Allocates a tag record (raises when memory runs out).
ServerTag *NewTag(const char *string, uint32_t tagWord)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *tag = static_cast<ServerTag *>(StdAlloc(sizeof(ServerTag)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(tag), sizeof(ServerTag));
    tag->string = StringCopy(string ? string : "");
    tag->tagWord = tagWord;
    CkptEnd();
    return tag;
}

void FreeServerRecord(HostServer *server)
{
    FreeTagList(&server->tags);
    FreeTagList(&server->pendingTags);
    StringFree(server->name);
    FreeHeap(server, sizeof(HostServer));
}

void FreeClassRecord(HostClass *cls)
{
    for (int32_t i = 0; i < cls->servers.count; ++i)
        FreeServerRecord(static_cast<HostServer *>(cls->servers.items[i]));
    OrdFree(&cls->servers);
    StringFree(cls->name);
    FreeHeap(cls, sizeof(HostClass));
}

HostClass *CreateClass(const char *name, int32_t version)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *cls = static_cast<HostClass *>(StdAlloc(sizeof(HostClass)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(cls), sizeof(HostClass));
    cls->name = StringCopy(name);
    CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(cls->name), 0);
    cls->version = version;
    OrdInsert(&g_host.classes, cls, CompareClasses);
    CkptEnd();
    return cls;
}

HostServer *CreateServer(HostClass *cls, const char *name)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *server = static_cast<HostServer *>(StdAlloc(sizeof(HostServer)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(server), sizeof(HostServer));
    server->name = StringCopy(name);
    CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(server->name), 0);
    server->cls = cls;
    NewList(&server->tags);
    NewList(&server->pendingTags);
    OrdInsert(&cls->servers, server, CompareServers);
    CkptEnd();
    return server;
}

bool Excluded(const char *className, const char *name)
{
    const char *const *pair = g_host.exclusions;
    for (; pair && pair[0]; pair += 2)
        if (!std::strcmp(pair[0], className) && pair[1] && !std::strcmp(pair[1], name))
            return true;
    return false;
}

// The notification payload: class name, then for servers a NUL and the server name.
void NotifyText(int32_t event, uintptr_t clientKey, int32_t subject, const char *className, const char *name)
{
    const size_t classLength = std::strlen(className) + 1;
    const size_t nameLength = name ? std::strlen(name) + 1 : 0;
    const size_t size = classLength + nameLength + 1;
    // Usual names fit the stack; long ones borrow a heap block, and without memory the
    // notification is not sent (listeners must never see a raise).
    char local[512];
    char *payload = size <= sizeof local ? local : static_cast<char *>(StdTryAlloc(size));
    if (!payload)
        return;
    std::memcpy(payload, className, classLength);
    if (name)
        std::memcpy(payload + classLength, name, nameLength);
    HostNote note{subject, payload};
    PortNotify(g_host.port, HostIdentity(), clientKey, event, 0, reinterpret_cast<uintptr_t>(&note));
    if (payload != local)
        FreeHeap(payload, size);
}

// Sends the whole catalogue to one new listener.
void Replay(uintptr_t clientKey)
{
    for (int32_t c = 0; c < g_host.classes.count; ++c) {
        auto *cls = static_cast<HostClass *>(g_host.classes.items[c]);
        NotifyText(HOST_EVENT_REPLAY, clientKey, HOST_NOTE_CLASS, cls->name, nullptr);
        for (int32_t s = 0; s < cls->servers.count; ++s)
            NotifyText(HOST_EVENT_REPLAY, clientKey, HOST_NOTE_SERVER_ADDED, cls->name,
                       static_cast<HostServer *>(cls->servers.items[s])->name);
    }
}

void OnPortAttach(uintptr_t, uintptr_t, int32_t mode, uintptr_t x)
{
    // Clients that attached before the host owned the port are told of the classes as they
    // are declared; only clients arriving later need the replay.
    if (mode == PORT_ATTACH && !g_acquiringPort)
        Replay(x);
}

void OnApplicationEvent(uintptr_t, uintptr_t, int32_t event, uintptr_t)
{
    if (event == kEventSave && g_host.database == DatabaseState::Changed)
        WriteDatabase();
}

void ResetTxnFields(HostServer *server)
{
    server->txnTouched = server->txnNew = server->txnReplace = false;
    server->pendingModule = nullptr;
    server->pendingActivate = nullptr;
}

void TxnTouch(Txn *txn, HostServer *server)
{
    if (server->txnTouched) {
        FreeTagList(&server->pendingTags);  // named again: its tags are read again
        return;
    }
    server->txnTouched = true;
    server->txnNext = nullptr;
    if (txn->touchedTail)
        txn->touchedTail->txnNext = server;
    else
        txn->touched = server;
    txn->touchedTail = server;
}

}  // namespace

void TxnRollback(Txn *txn)
{
    for (HostServer *server = txn->touched, *next; server; server = next) {
        next = server->txnNext;
        server->txnNext = nullptr;
        FreeTagList(&server->pendingTags);
        if (server->txnNew) {
            OrdRemove(&server->cls->servers, server, 0);
            FreeServerRecord(server);
        } else {
            ResetTxnFields(server);
        }
    }
    for (HostModule *module = txn->newModules, *next; module; module = next) {
        next = module->txnNext;
        Remove(&module->node);
        FreeModule(module);
    }
    for (HostClass *cls = txn->newClasses, *next; cls; cls = next) {
        next = cls->txnNext;
        OrdRemove(&g_host.classes, cls, 0);
        FreeClassRecord(cls);
    }
    TxnBegin(txn);
}

namespace {

void TxnRollbackArm(uintptr_t txn, uintptr_t) { TxnRollback(reinterpret_cast<Txn *>(txn)); }

void ResetState()
{
    const char *const *exclusions = g_host.exclusions;
    char *databaseDir = g_host.databaseDir;
    char modulePath[sizeof g_host.modulePath];
    std::memcpy(modulePath, g_host.modulePath, sizeof modulePath);
    g_host = HostState{};
    NewList(&g_host.modules);
    NewList(&g_host.checks);
    g_host.exclusions = exclusions;
    g_host.databaseDir = databaseDir;
    std::memcpy(g_host.modulePath, modulePath, sizeof modulePath);
    g_host.global = HostDefaultGlobal;
    g_host.flushThreshold = -1;
}

// Frees everything a started host holds except the database directory. Runs when startup
// fails (before the application events are attached) and at the final teardown (after the
// last shutdown detached them).
void ReleaseAll()
{
    PortDestroy(g_host.port);
    g_host.port = nullptr;
    FreeAllModules();
    FreeAllChecks();
    FreeAllClasses();
    StringFree(g_host.hostDir);
    g_host.hostDir = nullptr;
    g_host.phase = HostPhase::Stopped;
    g_host.nesting = 0;
    g_host.totalLocks = 0;
    g_host.readingDatabase = false;
    g_host.scanning = nullptr;
}

void StartupFailedArm(uintptr_t, uintptr_t) { ReleaseAll(); }

// Declares `Global` and `_PluginLoader` and registers the standard loader; false when memory
// ran out (the failure is caught here so that startup can raise its own code).
bool DeclareBuiltIns()
{
    if (CkptBegin()) {
        CkptLatchCode();
        return false;
    }
    DeclareClass(kGlobalClass, 1);
    DeclareClass(kLoaderClass, 1);
    const bool registered = HostAddBuiltIn(kLoaderClass, kStandardLoaderName, nullptr, StandardLoader) == 1;
    CkptEnd();
    return registered;
}

// Enters Running; outside catalogue mode the host now listens for the application's save event.
void EnterRunning()
{
    g_host.phase = HostPhase::Running;
    if (g_host.database != DatabaseState::Catalogue)
        GlobalPortAttach(kEventsPort, HostIdentity(), 0, OnApplicationEvent);
}

// Runs with the host stopped (registrations are refused); waits as Deferred while servers
// are locked.
void FinalTeardown()
{
    g_host.phase = HostPhase::Stopped;
    HostFlush();
    if (g_host.totalLocks) {
        DBprintf("HOST shutdown deferred! %d servers still locked.\n", g_host.totalLocks);
        g_host.phase = HostPhase::Deferred;
        return;
    }
    HostNote note{HOST_NOTE_TEARDOWN, nullptr};
    PortNotify(g_host.port, HostIdentity(), 0, HOST_EVENT_TEARDOWN, 0, reinterpret_cast<uintptr_t>(&note));
    ReleaseAll();
    StringFree(g_host.databaseDir);
    g_host.databaseDir = nullptr;
}

int DeclareClasses(const HostClassDecl *table)
{
    CKPT_BEGIN_OR_RETURN(0);
    for (const HostClassDecl *row = table; row && row->name; ++row)
        DeclareClass(row->name, row->version);
    CkptEnd();
    return 1;
}

bool Running() { return g_host.phase != HostPhase::Stopped; }

HostServer *ServerAt(const char *className, int32_t index)
{
    HostClass *cls = FindClass(className);
    if (!cls || index < 0 || index >= cls->servers.count)
        return nullptr;
    return static_cast<HostServer *>(cls->servers.items[index]);
}

}  // namespace

HostClass *FindClass(const char *name)
{
    if (!name)
        return nullptr;
    const int index = OrdLookup(&g_host.classes, const_cast<char *>(name), CompareNameToClass);
    return index < 0 ? nullptr : static_cast<HostClass *>(g_host.classes.items[index]);
}

HostServer *FindServerIn(HostClass *cls, const char *name)
{
    if (!cls || !name)
        return nullptr;
    const int index = OrdLookup(&cls->servers, const_cast<char *>(name), CompareNameToServer);
    return index < 0 ? nullptr : static_cast<HostServer *>(cls->servers.items[index]);
}

HostServer *FindServer(const char *className, const char *name) { return FindServerIn(FindClass(className), name); }

int32_t DeclareClass(const char *name, int32_t version)
{
    HostClass *cls = FindClass(name);
    if (!cls) {
        cls = CreateClass(name, version);
        if (!cls)
            return 0;
        if (version >= 0)
            Notify(HOST_NOTE_CLASS, nullptr, cls);
        return 1;
    }
    if (version < 0 || version == cls->version)
        return 1;
    if (cls->version < 0) {
        cls->version = version;
        Notify(HOST_NOTE_CLASS, nullptr, cls);
    } else {
        DBprintf("Plugin class %s -- confliting versions\n", name);
    }
    return 1;
}

bool DatabaseModifiable()
{
    if (g_host.readingDatabase)
        return true;
    if (g_host.database == DatabaseState::Catalogue || (g_host.hubAsset && !HubAllowsChange()))
        return false;
    g_host.database = DatabaseState::Changed;
    return true;
}

const char *DatabaseName() { return ConfigGenerateName(g_host.databaseDir, "vxext3", "Vexmark Extensions 3"); }

int WriteDatabase()
{
    if (g_host.database == DatabaseState::Catalogue)
        return 0;
    const char *name = DatabaseName();
    if (!name || !WriteDatabaseFile(name))
        return 0;
    g_host.database = DatabaseState::Saved;
    return 1;
}

void Notify(int32_t subject, HostServer *server, HostClass *cls)
{
    if (!g_host.port)
        return;
    NotifyText(HOST_EVENT_CHANGE, 0, subject, cls->name, server ? server->name : nullptr);
}

void TxnBegin(Txn *txn) { *txn = Txn{}; }

void TxnArmRollback(Txn *txn) { CkptArm(TxnRollbackArm, reinterpret_cast<uintptr_t>(txn), 0); }

HostServer *TxnStageServer(Txn *txn, const char *className, const char *name, HostModule *module,
                           HostActivateFunc *activate)
{
    if (!className || !name || Excluded(className, name))
        return nullptr;
    if (module && ModuleLoaded(module) && module != g_host.scanning)
        return nullptr;
    HostClass *cls = FindClass(className);
    HostServer *server = FindServerIn(cls, name);
    if (server && server->txnNew) {  // named twice in one registration
        TxnTouch(txn, server);
        server->module = module;
        server->activate = activate;
        return server;
    }
    if (server) {
        if (server->lockCount) {
            DBprintf("attempt to replace locked server %s:%s\n", className, name);
            return nullptr;
        }
        if (module && !server->module) {
            DBprintf("attempt to replace built-in server %s:%s\n", className, name);
            return nullptr;
        }
        if (module && !DatabaseModifiable())
            return nullptr;
        TxnTouch(txn, server);
        server->txnReplace = !module || module != server->module;
        server->pendingModule = module;
        server->pendingActivate = activate;
        return server;
    }
    if (module && !DatabaseModifiable())
        return nullptr;
    if (!cls) {
        cls = CreateClass(className, -1);
        cls->txnNext = txn->newClasses;
        txn->newClasses = cls;
    }
    server = CreateServer(cls, name);
    server->module = module;
    server->activate = activate;
    server->unannounced = true;
    server->txnNew = true;
    TxnTouch(txn, server);
    return server;
}

void TxnStageTag(HostServer *server, const char *string, uint32_t tagWord)
{
    AddTail(&server->pendingTags, &NewTag(string, tagWord)->node);
}

HostServer *TxnCommit(Txn *txn)
{
    HostServer *first = txn->touched;
    for (HostServer *server = first; server; server = server->txnNext) {
        if (!server->txnNew) {
            FreeTagList(&server->tags);
            if (server->txnReplace) {
                server->module = server->pendingModule;
                server->activate = server->pendingActivate;
                server->wrapper = nullptr;
                server->lockCount = 0;
            }
        }
        while (VxNode *node = RemHead(&server->pendingTags))
            AddTail(&server->tags, node);
        ResetTxnFields(server);
    }
    TxnBegin(txn);
    return first;
}

void TxnAnnounce(HostServer *first, HostModuleCallback *callback)
{
    for (HostServer *server = first, *next; server; server = next) {
        next = server->txnNext;
        server->txnNext = nullptr;
        Notify(server->unannounced ? HOST_NOTE_SERVER_ADDED : HOST_NOTE_SERVER_CHANGED, server, server->cls);
        server->unannounced = false;
        if (callback)
            callback(server->cls->name, server->name);
    }
}

void RemoveServer(HostServer *server)
{
    OrdRemove(&server->cls->servers, server, 0);
    FreeServerRecord(server);
}

void FreeAllClasses()
{
    for (int32_t i = 0; i < g_host.classes.count; ++i)
        FreeClassRecord(static_cast<HostClass *>(g_host.classes.items[i]));
    OrdFree(&g_host.classes);
}

int LockServer(HostServer *server)
{
    ++g_host.totalLocks;
    ++server->lockCount;
    if (HostModule *module = server->module) {
        if (module->useCount == 0)
            LoadModule(module);
        ++module->useCount;
    }
    return 1;
}

int UnlockServer(HostServer *server)
{
    if (server->lockCount <= 0)
        return 0;
    --server->lockCount;
    if (server->module)
        --server->module->useCount;
    --g_host.totalLocks;
    return 1;
}

namespace {

// Registers one server, built in (`activate`) or from the module at `modulePath`, with its
// user name as a tag, all or nothing; returns 1, or 0 when nothing was registered.
int RegisterServer(const char *className, const char *name, const char *userName, const char *modulePath,
                   HostActivateFunc *activate)
{
    Txn txn;
    TxnBegin(&txn);
    CKPT_BEGIN_OR_RETURN(0);
    TxnArmRollback(&txn);
    HostModule *module = modulePath ? FindOrCreateModule(&txn, modulePath) : nullptr;
    HostServer *server = TxnStageServer(&txn, className, name, module, activate);
    if (server && userName && *userName)
        TxnStageTag(server, userName, 0);
    CkptEnd();
    if (!server) {
        TxnRollback(&txn);
        return 0;
    }
    TxnAnnounce(TxnCommit(&txn), nullptr);
    return 1;
}

}  // namespace

}  // namespace vx::host

using namespace vx::host;

extern "C" {

VX_API int HostStartup(void)
{
    if (g_host.nesting > 0) {
        ++g_host.nesting;
        return 1;
    }
    if (g_host.phase == HostPhase::Deferred) {  // the waiting teardown is called off
        g_host.nesting = 1;
        EnterRunning();
        return 1;
    }
    CKPT_BEGIN_OR_RETURN(0);
    ResetState();
    CkptArm(StartupFailedArm, 0, 0);
    g_host.phase = HostPhase::Starting;
    g_host.nesting = 1;
    const uintptr_t productInfo = reinterpret_cast<uintptr_t>(GlobalListLookup("Product Info"));
    const bool catalogueMode = (productInfo & 0xF) == 3 || (productInfo & 0xF) == 4;
    g_host.database = catalogueMode ? DatabaseState::Catalogue : DatabaseState::Changed;
    g_host.hostDir = StringCopy(FileSystemPath(SYSTEM_PATH_HOST));
    g_acquiringPort = true;
    g_host.port = GlobalPortAcquire(kPortName, 0, HostIdentity(), OnPortAttach);
    g_acquiringPort = false;
    if (!DeclareBuiltIns())
        CkptRecover(HOST_STARTUP_FAILED);
    if (catalogueMode) {
        RegisterCatalogue();
    } else {
        if (const char *name = DatabaseName())
            ReadDatabaseFile(name);
        g_host.database = DatabaseState::Saved;  // nothing to write before a change
    }
    EnterRunning();
    CkptEnd();
    return 1;
}

VX_API void HostShutdown(void)
{
    if (g_host.nesting <= 0 || --g_host.nesting > 0)
        return;
    const bool eventsAttached = g_host.phase == HostPhase::Running;
    g_host.phase = HostPhase::Stopped;
    if (g_host.database != DatabaseState::Catalogue) {
        if (eventsAttached)
            GlobalPortDetach(kEventsPort, HostIdentity());
        HostDetachHub();  // an application that did not detach still shares what it changed
        if (g_host.database == DatabaseState::Changed)
            WriteDatabase();
    }
    FinalTeardown();
}

VX_API int32_t HostRunning(void) { return g_host.nesting; }

VX_API int HostSetDatabase(const char *dir)
{
    CKPT_BEGIN_OR_RETURN(0);
    char *copy = StringCopy(dir);
    CkptEnd();
    StringFree(g_host.databaseDir);
    g_host.databaseDir = copy;
    FileSetSystemPath(SYSTEM_PATH_DATABASE, dir);
    return 1;
}

VX_API const char *HostDatabaseFile(void) { return DatabaseName(); }

VX_API int HostWriteDatabase(void) { return Running() ? WriteDatabase() : 0; }

VX_API void HostPathSet(const char *path)
{
    std::strncpy(g_host.modulePath, path ? path : "", sizeof g_host.modulePath - 1);
    g_host.modulePath[sizeof g_host.modulePath - 1] = '\0';
}

VX_API const char *HostPathGet(void) { return g_host.modulePath; }

VX_API int HostAddClasses(const HostClassDecl *table)
{
    if (!Running()) {
        if (!HostStartup())
            return 0;
        g_host.startedByClasses = true;
    }
    return DeclareClasses(table);
}

VX_API void HostClearClasses(void)
{
    if (!g_host.startedByClasses)
        return;
    g_host.startedByClasses = false;
    HostShutdown();
}

VX_API int32_t HostClassVersion(const char *className)
{
    const HostClass *cls = FindClass(className);
    return cls ? cls->version : -1;
}

VX_API int HostAddBuiltIn(const char *className, const char *name, const char *userName, HostActivateFunc *activate)
{
    return Running() ? RegisterServer(className, name, userName, nullptr, activate) : 0;
}

VX_API int HostAddPlugIn(const char *className, const char *name, const char *userName, const char *modulePath)
{
    return Running() && modulePath ? RegisterServer(className, name, userName, modulePath, nullptr) : 0;
}

VX_API int HostAddTag(const char *className, const char *name, const char *string, uint32_t tagWord)
{
    HostServer *server = FindServer(className, name);
    if (!server || server->module)
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    ServerTag *tag = NewTag(string, tagWord);
    CkptEnd();
    AddTail(&server->tags, &tag->node);
    Notify(HOST_NOTE_SERVER_CHANGED, server, server->cls);
    return 1;
}

VX_API int HostRemServer(const char *className, const char *name)
{
    HostServer *server = FindServer(className, name);
    if (!server || server->lockCount || (server->module && !DatabaseModifiable()))
        return 0;
    Notify(HOST_NOTE_SERVER_REMOVED, server, server->cls);
    RemoveServer(server);
    return 1;
}

VX_API void HostExcludeServers(const char *const *list) { g_host.exclusions = list; }

VX_API int32_t HostClassCount(void) { return g_host.classes.count; }

VX_API const char *HostClassName(int32_t index)
{
    if (index < 0 || index >= g_host.classes.count)
        return nullptr;
    return static_cast<HostClass *>(g_host.classes.items[index])->name;
}

VX_API int32_t HostNumServers(const char *className)
{
    const HostClass *cls = FindClass(className);
    return cls ? cls->servers.count : 0;
}

VX_API const char *ServerGetName(const char *className, int32_t index)
{
    const HostServer *server = ServerAt(className, index);
    return server ? server->name : nullptr;
}

VX_API int32_t ServerGetIndex(const char *className, const char *name)
{
    HostClass *cls = FindClass(className);
    if (!cls || !name)
        return -1;
    return OrdLookup(&cls->servers, const_cast<char *>(name), CompareNameToServer);
}

VX_API const char *ServerGetModule(const char *className, int32_t index)
{
    const HostServer *server = ServerAt(className, index);
    return server && server->module ? server->module->path : nullptr;
}

VX_API int32_t ServerIsLocked(const char *className, int32_t index)
{
    const HostServer *server = ServerAt(className, index);
    return server ? server->lockCount : 0;
}

VX_API const char *ServerGetInfoTag(const char *className, int32_t index, uint32_t kind)
{
    HostServer *server = ServerAt(className, index);
    if (!server)
        return nullptr;
    const uint32_t language = static_cast<uint32_t>(LocusLanguage()) & 0xFFFF;
    const uint32_t baseLanguage = (language & 0x3FF) | 0x400;
    const char *exact = nullptr, *base = nullptr, *neutral = nullptr, *any = nullptr;
    for (VxNode *node = server->tags.head; node->succ; node = node->succ) {
        const ServerTag *tag = AsTag(node);
        if (tag->tagWord >> 16 != kind)
            continue;
        const uint32_t tagLanguage = tag->tagWord & 0xFFFF;
        if (!exact && tagLanguage == language)
            exact = tag->string;
        if (!base && tagLanguage == baseLanguage)
            base = tag->string;
        if (!neutral && tagLanguage == 0)
            neutral = tag->string;
        if (!any)
            any = tag->string;
    }
    return exact ? exact : base ? base : neutral ? neutral : any;
}

VX_API const char *ServerGetUserName(const char *className, int32_t index)
{
    const HostServer *server = ServerAt(className, index);
    if (!server)
        return nullptr;
    const char *userName = ServerGetInfoTag(className, index, 0);
    return userName ? userName : server->name;
}

VX_API int ServerSetUserName(const char *className, int32_t index, const char *name)
{
    HostServer *server = ServerAt(className, index);
    if (!server || (server->module && !DatabaseModifiable()))
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    ServerTag *tag = NewTag(name, 0);
    CkptEnd();
    for (VxNode *node = server->tags.head, *next; node->succ; node = next) {
        next = node->succ;
        if (AsTag(node)->tagWord < 0x10000) {
            Remove(node);
            FreeTag(AsTag(node));
        }
    }
    AddTail(&server->tags, &tag->node);
    Notify(HOST_NOTE_SERVER_CHANGED, server, server->cls);
    return 1;
}

VX_API void HostScanServers(void (*classFunc)(void *data, const char *className),
                            void (*serverFunc)(void *data, const char *className, int32_t index), void *data)
{
    for (int32_t c = 0; c < g_host.classes.count; ++c) {
        const HostClass *cls = static_cast<HostClass *>(g_host.classes.items[c]);
        if (cls->version < 0)
            continue;
        if (classFunc)
            classFunc(data, cls->name);
        for (int32_t s = 0; serverFunc && s < cls->servers.count; ++s)
            serverFunc(data, cls->name, s);
    }
}

VX_API int32_t HostActivateVer(const char *className, const char *name, void *local, int32_t version)
{
    HostServer *server = FindServer(className, name);
    if (!server && !g_host.globalNesting && g_host.missing && className && name &&
        g_host.missing(g_host.missingData, className, name))
        server = FindServer(className, name);
    if (!server) {
        DBprintf("can't activate %s:%s -- no such server\n", className ? className : "", name ? name : "");
        return -1;
    }
    if (version < 0)
        version = server->cls->version;
    void *serverData = nullptr;
    if (HostModule *module = server->module) {
        LoadModule(module);
        serverData = module->startupData;
    }
    if (!server->activate)
        return -2;
    if (server->wrapper)
        return server->wrapper(server->module->request.handle, server->activate, version, g_host.global, local,
                               serverData);
    return server->activate(version, g_host.global, local, serverData);
}

VX_API int HostLockServer(const char *className, const char *name)
{
    HostServer *server = FindServer(className, name);
    return server ? LockServer(server) : 0;
}

VX_API int HostUnlockServer(const char *className, const char *name)
{
    HostServer *server = FindServer(className, name);
    if (!server || !UnlockServer(server))
        return 0;
    if (g_host.phase == HostPhase::Deferred)
        FinalTeardown();
    return 1;
}

VX_API const LoaderRequest *ServerLoadPlugin(const char *className, const char *name)
{
    HostServer *server = FindServer(className, name);
    if (!server || !server->module)
        return nullptr;
    LoadModule(server->module);
    return server->activate ? &server->module->request : nullptr;
}

VX_API void HostMissingFunc(HostMissingFunc_t *func, void *data)
{
    g_host.missing = func;
    g_host.missingData = data;
}

VX_API void HostAutoFlush(int32_t threshold) { g_host.flushThreshold = threshold; }

// Passes over the modules until one unloads nothing: unloading a module can release the last
// use of another (a wrapping loader's module is listed before the modules it loaded).
VX_API void HostFlush(void)
{
    for (bool unloaded = true; unloaded;) {
        unloaded = false;
        for (VxNode *node = g_host.modules.head; node && node->succ; node = node->succ) {
            auto *module = reinterpret_cast<HostModule *>(node);
            if (ModuleLoaded(module) && module->useCount == 0) {
                UnloadModule(module);
                unloaded = true;
            }
        }
    }
}

VX_API int ServerModuleLoaded(const char *className, const char *name)
{
    const HostServer *server = FindServer(className, name);
    return server && server->module && ModuleLoaded(server->module) ? 1 : 0;
}

VX_API void HostSetGlobal(HostGlobalFunc *func) { g_host.global = func ? func : HostDefaultGlobal; }

VX_API HostGlobalFunc *HostGetGlobal(void) { return g_host.global ? g_host.global : HostDefaultGlobal; }

VX_API void *HostFindGlobal(const char *name, int32_t use) { return HostGetGlobal()(name, use); }

VX_API void *HostDefaultGlobal(const char *name, int32_t use)
{
    if (!name)
        return nullptr;
    if (void *value = GlobalListLookup(name))
        return value;
    if (use == HOST_GLOBAL_RELEASE) {
        HostUnlockServer(kGlobalClass, name);
        return nullptr;
    }
    if (use == HOST_GLOBAL_ACQUIRE)
        HostLockServer(kGlobalClass, name);
    HostGlobalRequest request{name, nullptr};
    ++g_host.globalNesting;
    const int32_t result = HostActivateVer(kGlobalClass, name, &request, -1);
    --g_host.globalNesting;
    void *service = result ? nullptr : request.service;
    if (!service && use == HOST_GLOBAL_ACQUIRE)
        HostUnlockServer(kGlobalClass, name);
    return service;
}

}  // extern "C"
