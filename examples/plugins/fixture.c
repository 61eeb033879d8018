/* Failure fixtures: one module per way a module file can be refused. Built once per fixture
 * with FIXTURE_SYNC, FIXTURE_VERSION, FIXTURE_CPU, FIXTURE_NULL_STARTUP or FIXTURE_UNRESOLVED
 * set, or with FIXTURE_NO_DESCRIPTOR to export no descriptor at all. */
#include <vxtools3/host.h>

#include <stddef.h>

#ifndef FIXTURE_SYNC
#define FIXTURE_SYNC MODULE_SYNC
#endif
#ifndef FIXTURE_VERSION
#define FIXTURE_VERSION 3
#endif
#ifndef FIXTURE_CPU
#define FIXTURE_CPU MODULE_CPU_TYPE
#endif

static int g_data;

#ifdef FIXTURE_UNRESOLVED
/* Defined nowhere: the system loader refuses the module. */
extern int vx_fixture_missing_symbol(void);
#endif

static void *Startup(void)
{
#ifdef FIXTURE_UNRESOLVED
    g_data = vx_fixture_missing_symbol();
#endif
#ifdef FIXTURE_NULL_STARTUP
    g_data = 0; /* refuses the load */
    return NULL;
#else
    return &g_data;
#endif
}

static void Shutdown(void *data) { (void)data; }

static int32_t Activate(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)version;
    (void)global;
    (void)local;
    (void)serverData;
    return 0;
}

static const ServerRecord kServers[] = {
    {"CommandSequence", "Example_Fixture", Activate, NULL},
    {NULL, NULL, NULL, NULL},
};

#ifdef FIXTURE_NO_DESCRIPTOR
/* Keeps the table and functions alive in a module that has no descriptor to name them. */
int example_fixture_probe(void)
{
    void *data = Startup();
    Shutdown(data);
    return kServers[0].activate(1, NULL, NULL, data);
}
#else
const ModuleDescriptor _mod_descrip = {FIXTURE_SYNC, FIXTURE_VERSION, FIXTURE_CPU, Startup, Shutdown, kServers};
#endif
