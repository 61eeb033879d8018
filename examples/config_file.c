/* An application's settings: the first start finds no file, defines its values, sets them under
 * a hold and writes the file; a second start reads them back. */
#include <vxtools3.h>

#include <stdio.h>
#include <string.h>

static FILE *g_out;
static int g_ok, g_notes;

static void Check(int condition, const char *what)
{
    fprintf(g_out, "  %-58s %s\n", what, condition ? "ok" : "FAILED");
    g_ok &= condition;
}

static void OnChange(uintptr_t data, const char *name)
{
    (void)data;
    ++g_notes;
    fprintf(g_out, "    changed: %s\n", name);
}

static void Define(void)
{
    static const char *const tracked[] = {"Window", "Recent", "Units", NULL};
    ConfigDefineValue("Window", "iiii");
    ConfigDefineValue("Recent", "s");
    ConfigDefineValue("Units", "fs");
    ConfigDefineValue("Plugin", "si");
    ConfigTrackValues(tracked, OnChange, 0, 1);
}

static void PrintFile(const char *path)
{
    char line[1100];
    FILE *file = fopen(path, "r");
    while (file && fgets(line, sizeof line, file))
        fprintf(g_out, "    | %s", line);
    if (file)
        fclose(file);
}

static void FirstRun(const char *dir, const char *file)
{
    Check(ConfigStartup(dir, "Demo", 1) == 1, "first start: no file yet");
    Define();
    fprintf(g_out, "  setting values under a hold:\n");
    ConfigHold();
    ConfigSet("Window", 40, 30, 1280, 720);
    ConfigISet("Recent", 0, "/scenes/robot walk.lws");
    ConfigISet("Recent", 1, "C:\\old \"quoted\" scene.lws");
    ConfigSet("Units", 0.0254, "metric units");
    ConfigXSet("Plugin", "Box Tool", 1);
    ConfigXSet("Plugin", "Lathe", 0);
    ConfigXSet("Plugin", "Box Tool", 2);
    Check(g_notes == 0, "no callback while held");
    ConfigRelease();
    Check(g_notes == 3, "released: one callback per changed tracked value");
    Check(ConfigDefaultWrite() == 1, "written");
    fprintf(g_out, "  %s:\n", strrchr(file, '/') + 1);
    PrintFile(file);
    ConfigShutdown();
}

static void SecondRun(const char *dir)
{
    int32_t x = 0, y = 0, w = 0, h = 0, version = 0;
    double scale = 0;
    char word[CONFIG_TEXT_SIZE]; /* `s` and `t` getters need this much room */
    Check(ConfigStartup(dir, "Demo", 1) == 1, "second start reads the file");
    Define();
    Check(ConfigGet("Window", &x, &y, &w, &h) == 1 && x == 40 && w == 1280 && h == 720, "Window 40 30 1280 720");
    Check(ConfigNum("Recent") == 2 && ConfigIGet("Recent", 1, word) == 1 && strcmp(word, "C:\\old \"quoted\" scene.lws") == 0,
          "two recent scenes, one with blanks, quotes and backslashes");
    Check(ConfigGet("Units", &scale, word) == 1 && scale == 0.0254 && strcmp(word, "metric units") == 0,
          "a double and a final word with a blank");
    Check(ConfigXGet("Plugin", "Box Tool", &version) == 1 && version == 2 && ConfigNum("Plugin") == 2,
          "two keyed entries: 'Box Tool' was replaced, not added");
    ConfigShutdown();
}

int config_file_sample(FILE *out, const char *dir)
{
    char file[4096];
    g_out = out;
    g_ok = 1;
    g_notes = 0;
    snprintf(file, sizeof file, "%s/DEMO.CFG", dir);
    remove(file); /* the first start must find no file, also when the sample runs again */
    Check(strcmp(ConfigGenerateName(dir, "demo", NULL), file) == 0, "file name: <dir>/DEMO.CFG");
    FirstRun(dir, file);
    SecondRun(dir);
    FileSetSystemPath(SYSTEM_PATH_CONFIG, NULL);
    return g_ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return config_file_sample(stdout, ".") ? 0 : 1; }
#endif
