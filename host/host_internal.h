// The plug-in host's records and the pieces its source files share.
#pragma once

#include <vxtools3/host.h>
#include <vxtools3/hub.h>
#include <vxtools3/lists.h>
#include <vxtools3/ports.h>
#include <vxtools3/streams.h>

namespace vx::host {

struct HostModule;
struct HostClass;

struct ServerTag {
    VxNode node;
    char *string;
    uint32_t tagWord;
};

struct HostServer {
    char *name;
    HostClass *cls;
    HostActivateFunc *activate;
    HostCallWrapper *wrapper;
    HostModule *module;  // NULL for a built-in
    VxList tags;
    int32_t lockCount;
    bool stale;
    bool unannounced;
    // A registration in progress (see Txn): what the server becomes when it commits.
    HostServer *txnNext;
    bool txnNew;
    bool txnTouched;
    bool txnReplace;  // clear activation, wrapper and lock count, take the pending module
    HostModule *pendingModule;
    HostActivateFunc *pendingActivate;
    VxList pendingTags;
};

struct HostClass {
    char *name;
    int32_t version;
    VxOrd servers;  // HostServer pointers by name
    HostClass *txnNext;
};

struct HostModule {
    VxNode node;
    char *path;      // relative to the host directory when inside it
    char *fullPath;  // the file name handed to the loaders
    LoaderRequest request;
    HostServer *loader;  // the `_PluginLoader` server that loaded it (locked meanwhile)
    void *startupData;   // non-NULL exactly while usable
    int32_t useCount;
    int32_t age;
    bool loading;
    HostModule *txnNext;
};

// What a scan remembers of a module file it checked: the file's size and modification time
// when checked, and why it failed (NULL when its servers were registered). A later scan of the
// same unchanged file uses the record instead of running the file again.
struct FileStamp {
    int64_t size;
    int64_t mtimeSeconds;
    int32_t mtimeNanoseconds;
};

struct ModuleCheck {
    VxNode node;
    char *path;  // as module records keep it
    FileStamp stamp;
    char *failure;
};

// A registration: everything it creates is listed so that a failure can take it back and a
// success can apply the pending changes at once. Allocations happen before any change that
// could not be undone.
struct Txn {
    HostClass *newClasses;
    HostModule *newModules;
    HostServer *touched;      // in the order first staged, linked through txnNext
    HostServer *touchedTail;  // where the next one is appended
};

// Where the host is in its life. `nesting` counts the HostStartup calls not yet matched by a
// HostShutdown; it is non-zero exactly while Starting or Running.
enum class HostPhase : uint8_t {
    Stopped,   // nothing held (also while the last shutdown tears down)
    Starting,  // inside the first HostStartup: registrations work, no application events yet
    Running,   // started; attached to "application-events" unless in catalogue mode
    Deferred,  // the last shutdown waits for locked servers: the last unlock finishes it, a
               // new HostStartup calls it off
};

// The plug-in database file as seen from the catalogue.
enum class DatabaseState : uint8_t {
    Changed,    // the catalogue changed since the file was last read or written
    Saved,      // the file holds the catalogue: nothing to write
    Catalogue,  // catalogue mode: the file is never read nor written, module servers are fixed
};

struct HostState {
    HostPhase phase;
    int32_t nesting;
    DatabaseState database;
    // Set while a database read (or the built-in catalogue) registers module servers, which
    // lets them through DatabaseModifiable. A read runs while Starting or, as a reload, while
    // Running, and keeps the database state: it is no phase of its own.
    bool readingDatabase;
    // HostAddClasses started the host and holds one of the starts in `nesting` until
    // HostClearClasses. Other callers may stop and restart the host meanwhile, so this is
    // an owner's mark, not a phase.
    bool startedByClasses;
    VxOrd classes;   // HostClass pointers by name
    VxList modules;  // newest first
    VxList checks;   // ModuleCheck records, newest first
    const char *const *exclusions;
    HostGlobalFunc *global;
    HostMissingFunc_t *missing;
    void *missingData;
    int32_t flushThreshold;
    char *hostDir;
    char modulePath[512];
    char *databaseDir;
    int32_t totalLocks;
    int32_t globalNesting;  // global-service activations in progress
    HostModule *scanning;   // the module HostAddModule is reading, the only loaded one that takes servers
    VxPort *port;
    // Sharing the database through the asset hub (hub_coupling.cpp): the "Plugins" asset while
    // attached, and whether the catalogue as it stands went to the hub since the last change.
    HubAsset *hubAsset;
    bool savedToHub;
};

extern HostState g_host;

extern const char kLoaderClass[];  // "_PluginLoader"
extern const char kGlobalClass[];  // "Global"
extern const char kStandardLoaderName[];

// Registry (host.cpp).
HostClass *FindClass(const char *name);
HostServer *FindServer(const char *className, const char *name);
HostServer *FindServerIn(HostClass *cls, const char *name);
int32_t DeclareClass(const char *name, int32_t version);
// Whether module servers may change now (asking the hub for the database when attached);
// true marks the database changed.
bool DatabaseModifiable();
// The database file's name (a shared buffer), or NULL.
const char *DatabaseName();
// Writes the database file now: 1, or 0 when it could not be written or in catalogue mode.
int WriteDatabase();
void Notify(int32_t subject, HostServer *server, HostClass *cls);
void TxnBegin(Txn *txn);
void TxnArmRollback(Txn *txn);
// Takes back everything the registration created or staged.
void TxnRollback(Txn *txn);
// Stages a server for registration; NULL when refused. `module` NULL makes a built-in.
HostServer *TxnStageServer(Txn *txn, const char *className, const char *name, HostModule *module,
                           HostActivateFunc *activate);
void TxnStageTag(HostServer *server, const char *string, uint32_t tagWord);
// Applies the staged changes (no allocation) and returns the touched servers, oldest first,
// linked through txnNext; announce them with TxnAnnounce.
HostServer *TxnCommit(Txn *txn);
void TxnAnnounce(HostServer *first, HostModuleCallback *callback);
void RemoveServer(HostServer *server);
void FreeAllClasses();
int LockServer(HostServer *server);
int UnlockServer(HostServer *server);

// Modules (modules.cpp).
// The path a module record keeps for `path` (relative when inside the host directory).
const char *RelativePath(const char *path);
// The full file name of a module path: the host directory joined with a relative one.
char *ComposeFullPath(const char *path);
HostModule *FindOrCreateModule(Txn *txn, const char *path);
void LoadModule(HostModule *module);
void UnloadModule(HostModule *module);
bool ModuleLoaded(const HostModule *module);
void FreeAllModules();
void FreeModule(HostModule *module);
int32_t StandardLoader(int32_t version, HostGlobalFunc *global, void *local, void *serverData);

// Database and catalogue (database.cpp, catalogue.cpp).
// Reads the database file into the catalogue; false when the file could not be opened or was
// damaged (complete entries before the damage are kept). Raises when memory runs out.
bool ReadDatabaseFile(const char *path);
// The same over an open stream; `name` names it in the damage message.
bool ReadDatabaseStream(VxReadStrm *stream, const char *name);
bool WriteDatabaseFile(const char *path);
// The folder part of a file name ("." when it has none, "/" for a file in the root); false
// when it does not fit in `size` bytes.
bool FolderOf(const char *path, char *out, size_t size);
void RegisterCatalogue();

// Module checks (scan.cpp).
ModuleCheck *FindCheck(const char *path);
// A new check record of `path` (kept relative), not yet kept; NULL when memory ran out.
ModuleCheck *NewCheck(const char *path, const FileStamp &stamp, const char *failure);
// Keeps a new record in place of the one of its path.
void PutCheck(ModuleCheck *check);
void FreeCheck(ModuleCheck *check);
void FreeAllChecks();
// Registers the servers of a whole, checked scanner reply as servers of the module at
// `path`; returns how many, or -3 when memory ran out (nothing registered).
int32_t RegisterReply(const void *reply, size_t size, const char *path);
int32_t CatalogueRowCount();

// The hub coupling (hub_coupling.cpp).
// Whether the hub lets this application change the database: takes the asset when it is
// not held yet; false (said once on the debug output) when refused or the hub is gone.
bool HubAllowsChange();

}  // namespace vx::host
