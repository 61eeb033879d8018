/* An example plug-in module with a version-2 descriptor: three-word server rows, no tags.
 *   ImageLoader:Example_Legacy  writes 2 (its descriptor version) to the int32_t at local */
#include <vxtools3/host.h>

#include <stddef.h>

static int g_data;

static void *Startup(void) { return &g_data; }
static void Shutdown(void *data) { (void)data; }

static int32_t Activate(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)version;
    (void)global;
    if (serverData != &g_data)
        return 5;
    if (local)
        *(int32_t *)local = 2;
    return 0;
}

static const ServerRecordV2 kServers[] = {
    {"ImageLoader", "Example_Legacy", Activate},
    {NULL, NULL, NULL},
};

const ModuleDescriptor _mod_descrip = {MODULE_SYNC, 2, MODULE_CPU_TYPE, Startup, Shutdown, kServers};
