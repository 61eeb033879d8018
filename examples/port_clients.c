/* A document owner and three clients meeting on the global port "document": one client
 * attaches before the owner exists, one listens to renames only, and one detaches itself from
 * inside its own callback. */
#include <vxtools3.h>

#include <stdio.h>

enum { EVENT_TEXT = 1, EVENT_RENAME = 2 };

static FILE *g_out;
static int g_heard[4];      /* deliveries per client key */
static int g_announced;     /* attach and detach calls the owner saw */
static int g_ownerArriving; /* set while GlobalPortAcquire announces the earlier clients */

static const char *const kNames[] = {"", "view", "title bar", "one-shot logger"};
static const uintptr_t kOwner = 0xD0C;

static void OwnerSees(uintptr_t server, uintptr_t data, int32_t mode, uintptr_t x)
{
    (void)server, (void)data;
    /* On attach the owner gets the key, or the record when it arrives late; on detach, the record. */
    uintptr_t key = mode == PORT_DETACH || g_ownerArriving ? ((const VxPortAttachment *)x)->clientKey : x;
    fprintf(g_out, "  owner: %s %s\n", kNames[key], mode == PORT_ATTACH ? "attached" : "detached");
    ++g_announced;
}

static void Hear(uintptr_t key, uintptr_t portData, int32_t event, uintptr_t argument)
{
    fprintf(g_out, "    %-16s heard %s \"%s\" (port data %lu)\n", kNames[key], event == EVENT_TEXT ? "text" : "rename",
            (const char *)argument, (unsigned long)portData);
    ++g_heard[key];
    if (key == 3)
        GlobalPortDetach("document", 3); /* once is enough; safe inside the notification */
}

int port_clients_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    g_out = out;
    fprintf(out, "Ports: clients of the global port \"document\"\n");
    GlobalPortAttach("document", 1, 0, Hear);
    fprintf(out, "  \"view\" attached before any owner; then the owner arrives:\n");
    g_ownerArriving = 1;
    VxPort *port = GlobalPortAcquire("document", 42, kOwner, OwnerSees);
    g_ownerArriving = 0;
    if (!port)
        return 0;
    GlobalPortAttach("document", 2, EVENT_RENAME, Hear);
    GlobalPortAttach("document", 3, 0, Hear);

    fprintf(out, "  notify text change:\n");
    PortNotify(port, kOwner, 0, EVENT_TEXT, EVENT_TEXT, (uintptr_t) "Hello, world");
    fprintf(out, "  notify rename:\n");
    PortNotify(port, kOwner, 0, EVENT_RENAME, EVENT_RENAME, (uintptr_t) "greeting.txt");
    fprintf(out, "  a notification naming another server reaches nobody:\n");
    PortNotify(port, kOwner + 1, 0, EVENT_TEXT, 0, (uintptr_t) "forged");
    PortDisable(port, 1);
    fprintf(out, "  with \"view\" disabled, rename again:\n");
    PortNotify(port, kOwner, 0, EVENT_RENAME, EVENT_RENAME, (uintptr_t) "final.txt");
    PortEnable(port, 1);

    int ok = g_heard[1] == 2 && g_heard[2] == 2 && g_heard[3] == 1 && g_announced == 4;
    fprintf(out, "  deliveries: view %d, title bar %d, one-shot logger %d; owner saw %d attach/detach calls\n",
            g_heard[1], g_heard[2], g_heard[3], g_announced);
    GlobalPortDetach("document", 1);
    GlobalPortDetach("document", 2);
    PortDestroy(port);
    return ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return port_clients_sample(stdout, ".") ? 0 : 1; }
#endif
