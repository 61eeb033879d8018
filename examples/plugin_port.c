/* Registers two built-in servers in this program: a "Global" service holding the current
 * frame and a tool that finds it through the global lookup. The tool notifies a port. */
#include <vxtools3.h>

#include <stdio.h>

enum { OWNER = 0x0DE1, WATCHER = 1, STRANGER = 0xBAD, EVENT_NUDGED = 1 };
static int g_frame = 24;  /* what the "Current Frame" service hands out */
static VxPort *g_changes; /* told about every nudge */
static int g_heard;
static FILE *g_out;

static int32_t FrameService(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)version, (void)global, (void)serverData;
    ((HostGlobalRequest *)local)->service = &g_frame; /* "Global" servers answer a request */
    return 0;
}

static int32_t NudgeTool(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)serverData;
    int *frame = global("Current Frame", HOST_GLOBAL_TRANSIENT);
    if (!frame || version != 2)
        return 1; /* any non-zero result is a failed activation */
    *frame += *(const int *)local;
    PortNotify(g_changes, OWNER, 0, EVENT_NUDGED, 1, (uintptr_t)*frame);
    return 0;
}

static void Watch(uintptr_t clientKey, uintptr_t portData, int32_t event, uintptr_t argument)
{
    (void)clientKey, (void)portData;
    fprintf(g_out, "watcher: event %d, frame %d\n", (int)event, (int)argument);
    ++g_heard;
}

int plugin_port_sample(FILE *out, const char *dir)
{
    g_out = out;
    if (!HostSetDatabase(dir) || !HostStartup()) /* the plug-in database lives in `dir` */
        return 0;
    const HostClassDecl classes[] = {{"Tool", 2}, {NULL, 0}};
    g_changes = PortCreate(0, OWNER, NULL);
    int ok = g_changes && PortAttach(g_changes, WATCHER, 1, Watch) == 1 && HostAddClasses(classes) &&
             HostAddBuiltIn("Global", "Current Frame", NULL, FrameService) &&
             HostAddBuiltIn("Tool", "Nudge", "Nudge Frame", NudgeTool);
    int step = 6;
    int32_t result = ok ? HostActivateVer("Tool", "Nudge", &step, -1) : -1; /* -1: the class's version */
    PortNotify(g_changes, STRANGER, 0, EVENT_NUDGED, 1, 0); /* not the owner: delivers nothing */
    const char *tool = ServerGetUserName("Tool", ServerGetIndex("Tool", "Nudge")); /* NULL if unknown */
    fprintf(out, "activated %s: result %d, frame %d, found by name: %s\n", tool ? tool : "-", (int)result, g_frame,
            HostFindGlobal("Current Frame", HOST_GLOBAL_TRANSIENT) == &g_frame ? "yes" : "no");
    PortDestroy(g_changes);
    HostShutdown();       /* built-ins are not written to the database ... */
    GlobalListCleanup();  /* ... and this frees the named ports the host used */
    return ok && result == 0 && g_frame == 30 && g_heard == 1;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return plugin_port_sample(stdout, ".") ? 0 : 1; }
#endif
