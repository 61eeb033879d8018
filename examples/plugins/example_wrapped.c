/* An example module loaded by the wrapping loader (its file name ends in "_wrapped.so").
 *   CommandSequence:Example_Wrapped  writes 7 to the int32_t at local */
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
        *(int32_t *)local = 7;
    return 0;
}

static const ServerTagDef kTags[] = {{"Wrapped example", 0}, {NULL, 0}};

static const ServerRecord kServers[] = {
    {"CommandSequence", "Example_Wrapped", Activate, kTags},
    {NULL, NULL, NULL, NULL},
};

const ModuleDescriptor _mod_descrip = {MODULE_SYNC, 3, MODULE_CPU_TYPE, Startup, Shutdown, kServers};
