/* Exports two settings to a file and imports them back; then two undoable edits of an int. */
#define _POSIX_C_SOURCE 200809L
#include <vxtools3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int ConfigRoundTrip(const char *file)
{
    int32_t width = 0, height = 0;
    char camera[CONFIG_TEXT_SIZE] = "";
    VxConfigClient *client = ConfigAddClient(NULL, 0); /* the first client creates the store */
    int ok = client && ConfigDefineValue("Render.Size", "ii") && ConfigDefineValue("Render.Camera", "s") &&
             ConfigSet("Render.Size", 640, 480) && ConfigSet("Render.Camera", "Main Camera") &&
             ConfigExport(file, NULL) && ConfigSet("Render.Size", 1920, 1080) && ConfigImport(file, NULL) &&
             ConfigGet("Render.Size", &width, &height) && ConfigGet("Render.Camera", camera);
    printf("imported back: Render.Size %d x %d, Render.Camera \"%s\"\n", (int)width, (int)height, camera);
    ConfigRemClient(client); /* the last client frees the store */
    return ok && width == 640 && height == 480 && strcmp(camera, "Main Camera") == 0;
}

/* Puts the recorded value back and keeps the one it replaced: the record now redoes. */
static void SwapValue(uintptr_t document, int32_t code, uintptr_t data)
{
    (void)code;
    int *value = (int *)document, replaced = *value;
    *value = (int)data;
    UndoNewData((uintptr_t)replaced, NULL);
}

static void SetValue(int *document, int value)
{
    UndoBlockBegin(); /* one step, however many records it gets */
    UndoAddComplete(1, SwapValue, (uintptr_t)*document, NULL);
    *document = value;
    UndoBlockEnd();
}

int main(void)
{
    char dir[] = "/tmp/vx-config-XXXXXX", file[64];
    if (!mkdtemp(dir))
        return 1;
    snprintf(file, sizeof file, "%s/render.cfg", dir);
    int configOk = ConfigRoundTrip(file);
    unlink(file);
    rmdir(dir);

    int document = 1;
    UndoSysSetData((uintptr_t)&document); /* handed to every action */
    UndoSysSetMax(10);                    /* the history keeps nothing until a maximum is set */
    SetValue(&document, 5);
    SetValue(&document, 8);
    int undone = UndoSysUndo() && UndoSysUndo() && document == 1;
    int redone = UndoSysRedo() && document == 5 && UndoNumRedo() == 1;
    printf("document 1 -> 5 -> 8; undone twice: %s; redone once: %s\n", undone ? "1" : "?", redone ? "5" : "?");
    UndoSysShutdown();
    return configOk && undone && redone ? 0 : 1;
}
