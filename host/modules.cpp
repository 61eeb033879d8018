// Module records and module loading: the loaders, the descriptor checks, binding and
// unbinding, auto-flush by age, and HostAddModule's scan.
#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/host.h>
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>
#include <vxtools3/platform.h>

#include "host/host_internal.h"

#include <cstring>

namespace vx::host {
namespace {

HostModule *AsModule(VxNode *node) { return reinterpret_cast<HostModule *>(node); }

HostModule *CreateModule(const char *path)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    auto *module = static_cast<HostModule *>(StdAlloc(sizeof(HostModule)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(module), sizeof(HostModule));
    module->path = StringCopy(path);
    CkptArm(StringFreeArm, reinterpret_cast<uintptr_t>(module->path), 0);
    module->fullPath = ComposeFullPath(path);
    CkptEnd();
    AddHead(&g_host.modules, &module->node);
    return module;
}

struct Record {
    const char *className;
    const char *name;
    HostActivateFunc *activate;
    const ServerTagDef *tags;
};

// Row `index` of a checked descriptor's server table; false at the end of the table.
bool RecordAt(const ModuleDescriptor *descriptor, int32_t index, Record *out)
{
    if (!descriptor->servers)
        return false;
    if (descriptor->version == 3) {
        const ServerRecord &row = static_cast<const ServerRecord *>(descriptor->servers)[index];
        *out = {row.className, row.name, row.activate, row.tags};
    } else {
        const ServerRecordV2 &row = static_cast<const ServerRecordV2 *>(descriptor->servers)[index];
        *out = {row.className, row.name, row.activate, nullptr};
    }
    return out->className != nullptr;
}

void SetBinding(HostModule *module, bool bind)
{
    Record record;
    for (int32_t i = 0; RecordAt(module->request.descriptor, i, &record); ++i) {
        HostServer *server = FindServer(record.className, record.name);
        if (!server || server->module != module)
            continue;
        server->activate = bind ? record.activate : nullptr;
        server->wrapper = bind ? module->request.wrapper : nullptr;
    }
}

void ClearRequest(HostModule *module)
{
    module->request = LoaderRequest{};
    module->startupData = nullptr;
    module->loader = nullptr;
}

// Asks the `_PluginLoader` servers in order to load the module; returns the one that did.
HostServer *RunLoaders(HostModule *module)
{
    module->request.fileName = module->fullPath;
    module->request.handle = nullptr;
    HostClass *loaders = FindClass(kLoaderClass);
    for (int32_t i = 0; loaders && i < loaders->servers.count; ++i) {
        HostServer *loader = static_cast<HostServer *>(loaders->servers.items[i]);
        if (loader->module == module)
            continue;
        if (HostActivateVer(kLoaderClass, loader->name, &module->request, 1) != 0) {
            DBprintf("loader %s activation error\n", loader->name);
            continue;
        }
        if (!module->request.fileName || module->request.handle)
            return loader;
    }
    return nullptr;
}

// Checks the descriptor and calls the startup function; the startup data, or NULL.
void *StartModule(const HostModule *module)
{
    const ModuleDescriptor *descriptor = module->request.descriptor;
    if (!descriptor || descriptor->sync != MODULE_SYNC) {
        DBprintf("module %s is not a plug-in; sync=0x%08lx\n", module->path,
                 static_cast<unsigned long>(descriptor ? descriptor->sync : 0));
        return nullptr;
    }
    if (descriptor->version != 2 && descriptor->version != 3) {
        DBprintf("plug-in module %s is out of date; version=%d\n", module->path, static_cast<int>(descriptor->version));
        return nullptr;
    }
    if (descriptor->cpuType != MODULE_CPU_TYPE) {
        DBprintf("plug-in module %s is for a different cpu; type=0x%lx\n", module->path,
                 static_cast<unsigned long>(descriptor->cpuType));
        return nullptr;
    }
    return descriptor->startup ? descriptor->startup() : nullptr;
}

void AutoFlush(int32_t loadedCount)
{
    if (g_host.flushThreshold < 0 || g_host.globalNesting)
        return;
    const int64_t limit = static_cast<int64_t>(loadedCount) * g_host.flushThreshold;
    for (VxNode *node = g_host.modules.head; node->succ; node = node->succ) {
        HostModule *other = AsModule(node);
        if (ModuleLoaded(other) && other->useCount == 0 && other->age > limit)
            UnloadModule(other);
    }
}

void UnloadArm(uintptr_t module, uintptr_t) { UnloadModule(reinterpret_cast<HostModule *>(module)); }
void ClearScanningArm(uintptr_t, uintptr_t) { g_host.scanning = nullptr; }

// The scan of HostAddModule once the module is loaded: stages every server of its table.
int32_t StageModuleServers(Txn *txn, HostModule *module)
{
    int32_t count = 0;
    Record record;
    for (int32_t i = 0; RecordAt(module->request.descriptor, i, &record); ++i) {
        HostServer *server = TxnStageServer(txn, record.className, record.name, module, nullptr);
        if (!server)
            continue;
        for (const ServerTagDef *tag = record.tags; tag && tag->string && tag->string[0]; ++tag)
            TxnStageTag(server, tag->string, tag->tagWord);
        ++count;
    }
    return count;
}

}  // namespace

const char *RelativePath(const char *path)
{
    const char *dir = g_host.hostDir;
    if (!dir || path[0] != '/')
        return path;
    size_t length = std::strlen(dir);
    while (length > 1 && dir[length - 1] == '/')
        --length;
    if (std::strncmp(path, dir, length) != 0 || path[length] != '/')
        return path;
    path += length;
    while (*path == '/')
        ++path;
    return path;
}

char *ComposeFullPath(const char *path)
{
    if (path[0] == '/' || !g_host.hostDir || !g_host.hostDir[0])
        return StringCopy(path);
    const size_t dirLength = std::strlen(g_host.hostDir);
    const size_t pathLength = std::strlen(path);
    const bool slash = g_host.hostDir[dirLength - 1] != '/';
    auto *full = static_cast<char *>(StdAlloc(dirLength + slash + pathLength + 1));
    std::memcpy(full, g_host.hostDir, dirLength);
    if (slash)
        full[dirLength] = '/';
    std::memcpy(full + dirLength + slash, path, pathLength + 1);
    return full;
}

bool ModuleLoaded(const HostModule *module) { return module->startupData != nullptr; }

HostModule *FindOrCreateModule(Txn *txn, const char *path)
{
    path = RelativePath(path);
    for (VxNode *node = g_host.modules.head; node->succ; node = node->succ)
        if (!std::strcmp(AsModule(node)->path, path))
            return AsModule(node);
    HostModule *module = CreateModule(path);
    module->txnNext = txn->newModules;
    txn->newModules = module;
    return module;
}

void LoadModule(HostModule *module)
{
    if (module->useCount > 0 || module->request.handle || module->loading)
        return;
    int32_t loadedCount = 0;
    for (VxNode *node = g_host.modules.head; node->succ; node = node->succ) {
        if (ModuleLoaded(AsModule(node))) {
            ++loadedCount;
            ++AsModule(node)->age;
        }
    }
    AutoFlush(loadedCount);
    module->loading = true;
    HostServer *loader = RunLoaders(module);
    if (!module->request.handle) {
        DBprintf("could not load module %s\n", module->path);
        ClearRequest(module);
        module->loading = false;
        return;
    }
    module->loader = loader;
    LockServer(loader);
    void *startupData = StartModule(module);
    if (!startupData) {
        DBprintf("plug-in module %s returned NULL startup data\n", module->path);
        if (module->request.unload)
            module->request.unload(module->request.handle);
        ClearRequest(module);
        UnlockServer(loader);
        module->loading = false;
        return;
    }
    module->startupData = startupData;
    module->age = 0;
    SetBinding(module, true);
    module->loading = false;
}

void UnloadModule(HostModule *module)
{
    if (!ModuleLoaded(module))
        return;
    SetBinding(module, false);
    const LoaderRequest request = module->request;
    if (request.descriptor->shutdown)
        request.descriptor->shutdown(module->startupData);
    if (request.unload)
        request.unload(request.handle);
    HostServer *loader = module->loader;
    ClearRequest(module);
    if (loader)
        UnlockServer(loader);
}

void FreeModule(HostModule *module)
{
    StringFree(module->path);
    StringFree(module->fullPath);
    FreeHeap(module, sizeof(HostModule));
}

void FreeAllModules()
{
    if (!g_host.modules.head)
        return;
    for (VxNode *node = g_host.modules.head; node->succ; node = node->succ)
        UnloadModule(AsModule(node));
    while (VxNode *node = RemHead(&g_host.modules))
        FreeModule(AsModule(node));
}

int32_t StandardLoader(int32_t version, HostGlobalFunc *, void *local, void *)
{
    if (version != 1)
        return 1;
    auto *request = static_cast<LoaderRequest *>(local);
    const int magic = DynLoadCheckMagic(request->fileName);
    if (magic < 0) {
        DBprintf("File not opened: %s \n", request->fileName ? request->fileName : "");
        return 3;
    }
    if (magic == 0)
        return 3;
    void *handle = DynLoadOpen(request->fileName);
    if (!handle) {
        DBprintf("DLL not found -- %s\n", DynLoadError());
        return 0;
    }
    const auto *descriptor = static_cast<const ModuleDescriptor *>(DynLoadSymbol(handle, "_mod_descrip"));
    if (!descriptor) {
        DBprintf("DLL without _mod_descrip symbol -- %s\n", request->fileName);
        DynLoadClose(handle);
        return 0;
    }
    request->handle = handle;
    request->descriptor = descriptor;
    request->unload = DynLoadClose;
    return 0;
}

}  // namespace vx::host

using namespace vx::host;

extern "C" {

VX_API int HostAddModule(const char *modulePath, HostModuleCallback *callback)
{
    if (!HostRunning() || !modulePath)
        return -3;
    Txn txn;
    TxnBegin(&txn);
    CKPT_BEGIN_OR_RETURN(-3);
    TxnArmRollback(&txn);
    HostModule *module = FindOrCreateModule(&txn, modulePath);
    if (module->useCount > 0 || module->loading) {
        CkptEnd();
        TxnCommit(&txn);
        return -2;
    }
    UnloadModule(module);
    LoadModule(module);
    if (!ModuleLoaded(module)) {
        CkptEnd();
        TxnRollback(&txn);
        return -1;
    }
    CkptArm(UnloadArm, reinterpret_cast<uintptr_t>(module), 0);
    g_host.scanning = module;
    CkptArm(ClearScanningArm, 0, 0);
    const int32_t count = StageModuleServers(&txn, module);
    CkptEnd();
    g_host.scanning = nullptr;
    HostServer *registered = TxnCommit(&txn);
    UnloadModule(module);
    TxnAnnounce(registered, callback);
    return count;
}

}  // extern "C"
