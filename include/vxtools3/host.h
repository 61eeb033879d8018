/* vxtools3 — the plug-in host: the process-wide catalogue of plug-in servers.
 *
 * A server is one named service of one plug-in class (class "ImageLoader", name "VX_PNGLoader").
 * It is built in (an activation function of the running program) or lives in a module file
 * (a shared object exporting the descriptor `_mod_descrip`) that is loaded on demand by the
 * `_PluginLoader` servers. The host declares classes with versions, registers servers with
 * their info tags, activates servers by class and name, counts locks so that modules in use
 * stay loaded, keeps the module servers in the plug-in database file between runs and
 * announces every change on the global port "plugin-database".
 *
 * Names are compared byte by byte, case-sensitively. Strings handed to the host are copied.
 * Functions that allocate return their failure value when memory runs out (0, NULL or -3);
 * inside an open checkpoint block the failure is raised to that block instead. The catalogue
 * is left as it was by every failed registration.
 *
 * Diagnostics (refused modules, unknown servers, version conflicts) go to the debug output.
 *
 * The host is meant for the main thread. Module paths inside the host directory (system path
 * 0 at startup) are kept relative to it. System paths the host uses: 0 (the host directory),
 * 3 (catalogue mode: module files under its "Plugins" folder), 5 (the database directory when
 * none is set), 7 (set by HostSetDatabase). Registrations need a running host.
 *
 * The database file is named by ConfigGenerateName(dir, "vxext3", ...): dir/VXEXT3.CFG for a
 * directory — and holds one "Entry" block per module server. The teardown of the last
 * HostShutdown forgets the database directory: set it again before the next HostStartup. A
 * damaged database is read up to the damage; servers it does not name are then kept. */
#ifndef VXTOOLS3_HOST_H
#define VXTOOLS3_HOST_H

#include "common.h"
#include "hub.h"

VX_BEGIN_DECLS

/* ---- Types shared with plug-in modules ------------------------------------------------ */

/* The global lookup function handed to every activation: returns the service named `name`
 * or NULL. `use` is HOST_GLOBAL_TRANSIENT, HOST_GLOBAL_ACQUIRE (lock the service's server)
 * or HOST_GLOBAL_RELEASE (unlock it; returns NULL). */
typedef void *HostGlobalFunc(const char *name, int32_t use);
enum { HOST_GLOBAL_TRANSIENT = 0, HOST_GLOBAL_ACQUIRE = 1, HOST_GLOBAL_RELEASE = 2 };

/* A server's activation: returns 0 on success. `serverData` is the module's startup data
 * (NULL for built-ins). */
typedef int32_t HostActivateFunc(int32_t version, HostGlobalFunc *global, void *local, void *serverData);
/* A loader's call wrapper: makes the activation on the module's behalf. */
typedef int32_t HostCallWrapper(void *moduleHandle, HostActivateFunc *activate, int32_t version,
                                HostGlobalFunc *global, void *local, void *serverData);

/* One (string, tag word) pair of a server's info tags. The tag word's high 16 bits are the
 * kind (0 user name, 1 button label, 2 group word, 5 element word ...), the low 16 bits a
 * language identifier (0 = any language). */
typedef struct ServerTagDef {
    const char *string;
    uint32_t tagWord;
} ServerTagDef;

/* One row of a module's server table. Version-3 modules use this row; version-2 modules use
 * ServerRecordV2 (no tags). The table ends with a row whose class is NULL. `tags` ends at a
 * NULL or empty string. */
typedef struct ServerRecord {
    const char *className;
    const char *name;
    HostActivateFunc *activate;
    const ServerTagDef *tags;
} ServerRecord;
typedef struct ServerRecordV2 {
    const char *className;
    const char *name;
    HostActivateFunc *activate;
} ServerRecordV2;

#define MODULE_SYNC 0x04121994u
#define MODULE_CPU_TYPE 0x300u

/* Exported by every module file under the symbol `_mod_descrip`. */
typedef struct ModuleDescriptor {
    uint32_t sync;    /* MODULE_SYNC */
    uint32_t version; /* 2 or 3 */
    uint32_t cpuType; /* MODULE_CPU_TYPE */
    void *(*startup)(void);          /* returns the startup data; NULL refuses the load */
    void (*shutdown)(void *data);    /* called with the startup data before unloading */
    const void *servers;             /* ServerRecord (version 3) or ServerRecordV2 (version 2) rows */
} ModuleDescriptor;

/* Handed by address to the `_PluginLoader` servers as local data (activation version 1).
 * The loader reads `fileName` (the module's full path) and, when it takes the file, sets
 * `handle`, `descriptor` and `unload` (called with the handle to unload it) and may set
 * `wrapper`. A loader that does not recognise the file returns 0 and changes nothing; one
 * that recognises it but cannot load it clears `fileName`. */
typedef struct LoaderRequest {
    const char *fileName;
    void *handle;
    const ModuleDescriptor *descriptor;
    void (*unload)(void *handle);
    HostCallWrapper *wrapper;
} LoaderRequest;

/* Local data of a `Global` class activation: the service name in, the service out. */
typedef struct HostGlobalRequest {
    const char *name;
    void *service;
} HostGlobalRequest;

/* ---- Notifications on the global port "plugin-database" ------------------------------ */

/* Subjects: class declared, server added, teardown, server changed, server removed. */
enum {
    HOST_NOTE_CLASS = 0,
    HOST_NOTE_SERVER_ADDED = 1,
    HOST_NOTE_TEARDOWN = 2,
    HOST_NOTE_SERVER_CHANGED = 3,
    HOST_NOTE_SERVER_REMOVED = 4
};
/* Events: the replay a new listener receives, a live change, the final teardown. */
enum { HOST_EVENT_REPLAY = 1, HOST_EVENT_CHANGE = 2, HOST_EVENT_TEARDOWN = 4 };

/* The notification argument (a HostNote *, valid during the callback only). `payload` is the
 * class name followed, for server subjects, by a NUL and the server name; NULL at teardown. */
typedef struct HostNote {
    int32_t subject;
    const char *payload;
} HostNote;

/* ---- Startup and shutdown ------------------------------------------------------------- */

/* Starts the host (only the first of nested calls works; later ones count). Reads the plug-in
 * database, or registers the built-in catalogue when the global "Product Info" value's low
 * four bits are 3 or 4. Returns 1, or 0 when it failed (raised as HOST_STARTUP_FAILED when the
 * built-in classes could not be declared, or 1 for an exhausted heap, to an open block); a
 * failed start leaves the host stopped. */
enum { HOST_STARTUP_FAILED = 99 };
VX_API int HostStartup(void);
/* Ends one HostStartup. The last one writes the database when it changed and tears the host
 * down; while servers are locked the teardown waits for the last HostUnlockServer. */
VX_API void HostShutdown(void);
/* Returns the startup nesting count (0 when the host is stopped). */
VX_API int32_t HostRunning(void);
/* Keeps a copy of the database directory (or file) and sets system path 7 to it. Returns 1,
 * or 0 when memory ran out. Takes effect for the next database read or write. */
VX_API int HostSetDatabase(const char *dir);
/* Returns the database file name the host reads and writes (a shared buffer), or NULL when
 * the configuration store cannot make one. */
VX_API const char *HostDatabaseFile(void);
/* Writes the plug-in database now; returns 1, or 0 when the file could not be written (the
 * previous file is then kept). Catalogue mode writes nothing and returns 0. */
VX_API int HostWriteDatabase(void);

/* ---- Sharing the database with other applications through the asset hub (hub.h) -------- */

/* Shares the database file through the hub the application connected to (HubConnect): adds a
 * "Plugins" asset for it. From then on a change to module servers first takes the asset (it
 * fails, said once on the debug output, while another application holds it, while this one
 * locked it with HUB_REFUSE, or while the hub is gone); an asked-for or shut-down asset is
 * saved through the hub, and a file another application replaced is read again. Events arrive
 * through HubDispatch, which the application calls outside host calls. Returns 1 (also when
 * already attached), or 0 when the host is not running, is in catalogue mode, or the hub
 * could not add the asset. */
VX_API int HostAttachHub(void);
/* Stops sharing: saves unsaved changes through the hub, removes the asset and, when no other
 * application holds a "Plugins" asset, writes the database file. The last HostShutdown does
 * this too. Does nothing when not attached. */
VX_API void HostDetachHub(void);
/* Returns the hub asset of the database while attached, else NULL. */
VX_API HubAsset *HostHubAsset(void);
/* Copies `path` (cut to 511 bytes) into the host's module directory buffer. */
VX_API void HostPathSet(const char *path);
/* Returns the module directory buffer ("" until set). */
VX_API const char *HostPathGet(void);

/* ---- Classes and servers --------------------------------------------------------------- */

typedef struct HostClassDecl {
    const char *name;
    int32_t version; /* -1 declares the class without a version */
} HostClassDecl;

/* Declares the classes of `table` (ended by a NULL name), starting the host first when it is
 * not running. A class keeps its first non-negative version; a conflicting one prints
 * "Plugin class %s -- confliting versions\n". Returns 1, or 0 when the start failed or memory
 * ran out. */
VX_API int HostAddClasses(const HostClassDecl *table);
/* Shuts the host down once if HostAddClasses started it. */
VX_API void HostClearClasses(void);
/* Returns the class's version, -1 when unknown or undeclared. */
VX_API int32_t HostClassVersion(const char *className);
/* Registers (or replaces) a built-in server; a non-empty `userName` becomes its tag word 0.
 * Returns 1, or 0 when excluded, when the old server is locked or memory ran out. */
VX_API int HostAddBuiltIn(const char *className, const char *name, const char *userName,
                          HostActivateFunc *activate);
/* Registers a module server of the module file `modulePath`. Returns 1, or 0 when excluded,
 * refused (a built-in or locked server of that name, a loaded module, catalogue mode) or
 * memory ran out. */
VX_API int HostAddPlugIn(const char *className, const char *name, const char *userName,
                         const char *modulePath);
/* Adds an info tag to an existing built-in server and announces the change. Returns 1, or 0
 * for an unknown or module server or when memory ran out. */
VX_API int HostAddTag(const char *className, const char *name, const char *string, uint32_t tagWord);
/* Called by HostAddModule for each server it registers. */
typedef void HostModuleCallback(const char *className, const char *name);
/* Loads the module file and registers every server of its table with its tags, then unloads
 * it. Returns the number of servers registered; -3 when no module record could be made (or
 * memory ran out), -2 when the module is in use, -1 when it could not be loaded. */
VX_API int HostAddModule(const char *modulePath, HostModuleCallback *callback);
/* Removes a server. Returns 1, or 0 when unknown, locked, or the database may not change. */
VX_API int HostRemServer(const char *className, const char *name);
/* Sets the exclusion list: (class, name) string pairs, flattened, ended by a NULL class; the
 * array is kept, not copied (NULL clears it). Excluded servers are never registered. */
VX_API void HostExcludeServers(const char *const *list);
/* Returns the number of classes, declared or made by registrations. */
VX_API int32_t HostClassCount(void);
/* Returns the name of class `index` (classes in byte order of their names), or NULL. */
VX_API const char *HostClassName(int32_t index);
/* Returns the number of servers of a class, 0 when unknown. */
VX_API int32_t HostNumServers(const char *className);
/* Returns the name of server `index` of the class, or NULL. */
VX_API const char *ServerGetName(const char *className, int32_t index);
/* Returns the index of the server, -1 when the class or server is unknown. */
VX_API int32_t ServerGetIndex(const char *className, const char *name);
/* Returns the module path of server `index`, NULL for a built-in or when out of range. */
VX_API const char *ServerGetModule(const char *className, int32_t index);
/* Returns the lock count of server `index`, 0 when out of range. */
VX_API int32_t ServerIsLocked(const char *className, int32_t index);
/* Returns the tag of `kind` best fitting the current language (LocusLanguage): the exact
 * language, then its base language ((id & 0x3FF) | 0x400), then language 0, then any; NULL
 * when the server has no tag of that kind. */
VX_API const char *ServerGetInfoTag(const char *className, int32_t index, uint32_t kind);
/* Returns the user name (tag kind 0), else the server name; NULL when out of range. */
VX_API const char *ServerGetUserName(const char *className, int32_t index);
/* Replaces every user-name tag with `name` (tag word 0) and announces the change. Returns 1,
 * or 0 when out of range, memory ran out or the database may not change. */
VX_API int ServerSetUserName(const char *className, int32_t index, const char *name);
/* Calls classFunc(data, class) and serverFunc(data, class, index) for every class with a
 * version, in class order; either function may be NULL. */
VX_API void HostScanServers(void (*classFunc)(void *data, const char *className),
                            void (*serverFunc)(void *data, const char *className, int32_t index), void *data);

/* ---- Activation and locking ----------------------------------------------------------- */

/* Activates a server, loading its module first. Returns the activation's result; -1 when
 * there is no such server ("can't activate %s:%s -- no such server\n"), -2 when it has no
 * activation function (its module did not load). A negative version means the class's. */
VX_API int32_t HostActivateVer(const char *className, const char *name, void *local, int32_t version);
/* Locks a server (its module is loaded and stays loaded). Returns 1, 0 when unknown. */
VX_API int HostLockServer(const char *className, const char *name);
/* Undoes one HostLockServer; a deferred shutdown completes with the last unlock. Returns 1,
 * 0 when unknown or not locked. */
VX_API int HostUnlockServer(const char *className, const char *name);
/* Loads the server's module; returns its LoaderRequest, or NULL for an unknown or built-in
 * server or when the server still has no activation afterwards. */
VX_API const LoaderRequest *ServerLoadPlugin(const char *className, const char *name);
/* Called as func(data, class, name) when an activation finds no server; a non-zero result
 * means the server is now registered. NULL removes it. */
typedef int HostMissingFunc_t(void *data, const char *className, const char *name);
VX_API void HostMissingFunc(HostMissingFunc_t *func, void *data);
/* Sets the auto-flush threshold (-1 off): loading a module first unloads every idle module
 * whose age exceeds (loaded modules x threshold). */
VX_API void HostAutoFlush(int32_t threshold);
/* Unloads every loaded module whose servers are not locked. */
VX_API void HostFlush(void);
/* Returns 1 while the module of the server is loaded, 0 otherwise. */
VX_API int ServerModuleLoaded(const char *className, const char *name);

/* ---- Scanning modules in the module scanner --------------------------------------------- */

/* A scan checks each new or changed module file in the module scanner, a helper program
 * (vxmodscan, installed under libexec/vxtools3) started once per file, so that a module that
 * crashes, hangs or exits while it loads cannot take the host down. The scanner loads the
 * module as HostAddModule does (the same checks, the same messages) and sends its server table
 * back; the host registers those servers as module servers, as HostAddPlugIn does, and loads
 * the module in this process only when one of them is first activated. Refusal messages also
 * go to the debug output, as an in-process load prints them.
 *
 * Every file checked is remembered with its size and modification time, in the plug-in
 * database: a file that failed is skipped by later scans until it changes, and one whose
 * servers are registered is not run again while it is unchanged. */

/* What a scan did with one file. */
enum {
    HOST_SCAN_REGISTERED = 0, /* checked: `servers` servers registered */
    HOST_SCAN_UNCHANGED = 1,  /* checked before and unchanged: its `servers` servers stay */
    HOST_SCAN_SKIPPED = 2,    /* failed before and unchanged since: not run; the old reason */
    HOST_SCAN_REFUSED = 3,    /* "refused: " and the checks' messages joined by "; ", or
                                 "refused: not a regular file" */
    HOST_SCAN_CRASHED = 4,    /* "crashed: SIGSEGV" (the signal that ended the scanner) */
    HOST_SCAN_TIMED_OUT = 5,  /* "timed out after 10 s" */
    HOST_SCAN_EXITED = 6,     /* "exited with status 0 before answering" */
    HOST_SCAN_ERROR = 7       /* not the module's fault, nothing remembered: the file cannot be
                                 read, the module is in use, the scanner is missing or memory
                                 ran out */
};

/* Called once per file: its path as given, the outcome, the servers registered (or kept) and,
 * except for the first two outcomes, the reason in one line (NULL otherwise). */
typedef void HostScanReport(void *data, const char *path, int32_t outcome, int32_t servers, const char *reason);
/* Scans `count` module files (relative paths are taken inside the host directory). Returns
 * `count`; -1 when the host is not running or in catalogue mode; -3 when memory ran out (the
 * files before are scanned, nothing of the failing one is kept, later ones are not scanned). */
VX_API int32_t HostScanModules(const char *const *paths, int32_t count, HostScanReport *report, void *data);
/* Scans the files of `dir` named "*.so" or "*.p" (not starting with "."), in byte order of
 * their names. Returns the number of files, -1 as HostScanModules, -2 when the directory
 * cannot be read, -3 when memory ran out. */
VX_API int32_t HostScanDirectory(const char *dir, HostScanReport *report, void *data);
/* Sets the time limit for one module in milliseconds (0 or negative: the default, 10000). */
VX_API void HostScanSetTimeLimit(int32_t milliseconds);
/* Returns the time limit for one module in milliseconds. */
VX_API int32_t HostScanTimeLimit(void);
/* Uses the scanner program at `path` (NULL: search again). Returns 1, 0 for a path longer than
 * the system allows. */
VX_API int HostScanSetHelper(const char *path);
/* Returns the scanner program scans use, NULL when none is found. */
VX_API const char *HostScanHelper(void);
/* Returns the number of module files remembered as failed. */
VX_API int32_t HostFailedCount(void);
/* Returns the path of failed module `index` (newest first) and sets `*reason` (when not NULL)
 * to why it failed; NULL when out of range. */
VX_API const char *HostFailedModule(int32_t index, const char **reason);

/* ---- Global services ------------------------------------------------------------------ */

/* Replaces the global lookup function that activations receive (NULL restores
 * HostDefaultGlobal). */
VX_API void HostSetGlobal(HostGlobalFunc *func);
/* Returns the global lookup function in use. */
VX_API HostGlobalFunc *HostGetGlobal(void);
/* Calls the global lookup function in use. */
VX_API void *HostFindGlobal(const char *name, int32_t use);
/* The standard lookup: the global list first, then the server `Global`:name (activated with a
 * HostGlobalRequest). Returns the service or NULL. */
VX_API void *HostDefaultGlobal(const char *name, int32_t use);

VX_END_DECLS

#endif
