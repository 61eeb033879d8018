/* An example `_PluginLoader` server: it takes the module files whose names end in
 * "_wrapped.so", loads them itself and sets a call wrapper through which the host makes
 * every activation of their servers. Other files it leaves to the next loader.
 *
 *   _PluginLoader:Example_WrapLoader  the loader (sorts before the standard loader)
 *   Global:Example Wrap Count         the service: the int32_t count of wrapped calls */
#include <vxtools3/host.h>

#include <dlfcn.h>
#include <stddef.h>
#include <string.h>

static const char kSuffix[] = "_wrapped.so";
static int32_t g_wrappedCalls;
static int g_data;

static void *Startup(void)
{
    g_wrappedCalls = 0;
    return &g_data;
}

static void Shutdown(void *data) { (void)data; }

static void Unload(void *handle) { dlclose(handle); }

static int32_t Wrap(void *handle, HostActivateFunc *activate, int32_t version, HostGlobalFunc *global, void *local,
                    void *serverData)
{
    (void)handle;
    ++g_wrappedCalls;
    return activate(version, global, local, serverData);
}

static int Takes(const char *fileName)
{
    const size_t length = fileName ? strlen(fileName) : 0;
    return length > sizeof kSuffix - 1 && strcmp(fileName + length - (sizeof kSuffix - 1), kSuffix) == 0;
}

static int32_t ActivateLoader(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)global;
    (void)serverData;
    LoaderRequest *request = (LoaderRequest *)local;
    if (version != 1)
        return 1;
    if (!Takes(request->fileName))
        return 0;
    void *handle = dlopen(request->fileName, RTLD_NOW | RTLD_LOCAL);
    const ModuleDescriptor *descriptor = handle ? (const ModuleDescriptor *)dlsym(handle, "_mod_descrip") : NULL;
    if (!descriptor) {
        if (handle)
            dlclose(handle);
        request->fileName = NULL; /* ours, but unusable: no other loader should try it */
        return 0;
    }
    request->handle = handle;
    request->descriptor = descriptor;
    request->unload = Unload;
    request->wrapper = Wrap;
    return 0;
}

static int32_t ActivateCount(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)version;
    (void)global;
    (void)serverData;
    ((HostGlobalRequest *)local)->service = &g_wrappedCalls;
    return 0;
}

static const ServerTagDef kLoaderTags[] = {{"Wrapping loader", 0}, {NULL, 0}};

static const ServerRecord kServers[] = {
    {"_PluginLoader", "Example_WrapLoader", ActivateLoader, kLoaderTags},
    {"Global", "Example Wrap Count", ActivateCount, NULL},
    {NULL, NULL, NULL, NULL},
};

const ModuleDescriptor _mod_descrip = {MODULE_SYNC, 3, MODULE_CPU_TYPE, Startup, Shutdown, kServers};
