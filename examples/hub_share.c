/* A file shared through the asset hub: the application starts a hub of its own, adds an asset
 * for its scene, takes the lock, writes a new version through the hub's temporary name and has
 * the hub put it in place; then it stops the hub and receives event 8 (save what you have). */
#include <vxtools3.h>

#include <poll.h>
#include <stdio.h>
#include <string.h>

static FILE *g_out;
static int g_ok, g_lastEvent;

static void Check(int condition, const char *what)
{
    fprintf(g_out, "  %-58s %s\n", what, condition ? "ok" : "FAILED");
    g_ok &= condition;
}

static void OnChange(HubAsset *asset, int32_t event, const char *file, void *data)
{
    (void)asset, (void)data;
    g_lastEvent = event;
    fprintf(g_out, "    event %d for %s\n", (int)event, strrchr(file, '/') + 1);
}

static int SaveScene(HubAsset *scene, const char *text)
{
    const char *temp = HubAssetTempName(scene);
    FILE *file = temp ? fopen(temp, "w") : NULL;
    if (!file)
        return 0;
    fputs(text, file);
    fclose(file);
    return HubAssetNewTemp(scene);
}

/* Dispatches the hub's events until `event` arrives (at most 10 s). */
static int AwaitEvent(int32_t event)
{
    for (int i = 0; i < 100 && g_lastEvent != event; ++i) {
        struct pollfd ready = {HubFileDescriptor(), POLLIN, 0};
        if (ready.fd < 0 || poll(&ready, 1, 100) < 0 || HubDispatch() < 0)
            break;
    }
    return g_lastEvent == event;
}

int hub_share_sample(FILE *out, const char *dir)
{
    char hubDir[4096], scenePath[4096], text[64] = "";
    g_out = out;
    g_ok = 1;
    g_lastEvent = 0;
    snprintf(hubDir, sizeof hubDir, "%s/hub", dir);
    snprintf(scenePath, sizeof scenePath, "%s/scene.txt", dir);
    Check(HubConnect(hubDir, HUB_START) == 1, "connected, the hub started on the way");
    HubAsset *scene = HubAssetAdd("Scenes", scenePath, OnChange, NULL);
    Check(scene != NULL && HubAssetCount("Scenes") == 1, "one application holds a scene");
    Check(HubAssetLock(scene, HUB_HELD) == 1, "locked: this application may change it");
    Check(SaveScene(scene, "robot walk, frame 24\n") == 1, "new version written and put in place");
    FILE *file = fopen(scenePath, "r");
    Check(file && fgets(text, sizeof text, file) && strcmp(text, "robot walk, frame 24\n") == 0, "the file holds it");
    if (file)
        fclose(file);
    Check(HubAssetUnlock(scene) == 1 && HubAssetState(scene) == HUB_FREE, "unlocked");
    Check(HubStopDaemon() == 1 && AwaitEvent(HUB_EVENT_SHUTDOWN), "hub stopping: event 8 received");
    HubDisconnect();
    return g_ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return hub_share_sample(stdout, ".") ? 0 : 1; }
#endif
