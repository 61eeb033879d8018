/* An example plug-in module (descriptor version 3, with info tags). It uses nothing of the
 * library but the types of vxtools3/host.h and the global lookup function it is handed, so
 * it links against nothing.
 *
 *   MeshEditTool:Example_Box    writes the number of activations since the module was
 *                               loaded to the int32_t its local data points at
 *   CommandSequence:Example_Sum adds the two int32_t at local[0] and local[1] into local[2]
 *                               through the "Example Math" service found by global lookup
 *   Global:Example Math         the service: a table of arithmetic functions */
#include <vxtools3/host.h>

#include <stddef.h>

typedef struct ExampleMath {
    int32_t (*add)(int32_t a, int32_t b);
    int32_t (*multiply)(int32_t a, int32_t b);
} ExampleMath;

static struct {
    int32_t activations;
} g_state;

static int32_t Add(int32_t a, int32_t b) { return a + b; }
static int32_t Multiply(int32_t a, int32_t b) { return a * b; }
static const ExampleMath kMath = {Add, Multiply};

static void *Startup(void)
{
    g_state.activations = 0;
    return &g_state;
}

static void Shutdown(void *data) { (void)data; }

static int32_t ActivateBox(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)global;
    if (version < 1 || serverData != &g_state)
        return 5;
    ++g_state.activations;
    if (local)
        *(int32_t *)local = g_state.activations;
    return 0;
}

static int32_t ActivateSum(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)version;
    (void)serverData;
    const ExampleMath *math = (const ExampleMath *)global("Example Math", HOST_GLOBAL_TRANSIENT);
    int32_t *values = (int32_t *)local;
    if (!math || !values)
        return 6;
    values[2] = math->add(values[0], values[1]);
    return 0;
}

static int32_t ActivateMath(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)version;
    (void)global;
    (void)serverData;
    ((HostGlobalRequest *)local)->service = (void *)&kMath;
    return 0;
}

static const ServerTagDef kBoxTags[] = {
    {"Box", 0},
    {"Kiste", 0x0407},
    {"Box", 0x10000},
    {"create", 0x20000},
    {NULL, 0},
};
static const ServerTagDef kSumTags[] = {
    {"Sum of two", 0},
    {"", 0x20000}, /* an empty string ends the tags */
    {"never read", 0x50000},
};

static const ServerRecord kServers[] = {
    {"MeshEditTool", "Example_Box", ActivateBox, kBoxTags},
    {"CommandSequence", "Example_Sum", ActivateSum, kSumTags},
    {"Global", "Example Math", ActivateMath, NULL},
    {NULL, NULL, NULL, NULL},
};

const ModuleDescriptor _mod_descrip = {MODULE_SYNC, 3, MODULE_CPU_TYPE, Startup, Shutdown, kServers};
