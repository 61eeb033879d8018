/* The plug-in host and real modules: the example modules are scanned into a plug-in database
 * written into `dir`; a second start reads it back and activates servers, loading their
 * modules on demand and unloading the idle ones. */
#define _POSIX_C_SOURCE 200809L
#include <vxtools3.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

static int Check(FILE *out, int ok, const char *what)
{
    fprintf(out, "  %s %s\n", ok ? "ok:" : "FAILED:", what);
    return ok;
}

/* The example modules: beside this program, or beside the examples when it is vxtool in the
 * build tree, or where an installed vxtool finds them. 1 when found. */
static int FindModules(char *dir, size_t size)
{
    static const char *const kPlaces[] = {"plugins", "../examples/plugins",
#ifdef VX_INSTALLED_PLUGINS
                                          VX_INSTALLED_PLUGINS,
#endif
    };
    const char *home = FileSystemPath(0); /* the program's directory */
    char probe[4400];
    for (size_t i = 0; i < sizeof kPlaces / sizeof kPlaces[0]; ++i) {
        snprintf(dir, size, "%s/%s", home ? home : ".", kPlaces[i]);
        snprintf(probe, sizeof probe, "%s/example_shapes.so", dir);
        if (access(probe, R_OK) == 0)
            return 1;
    }
    return 0;
}

static int ScanModules(FILE *out, const char *dir)
{
    static const char *const kFiles[] = {"example_shapes.so", "example_legacy.so", "example_wraploader.so",
                                         "example_wrapped.so"};
    static const int kExpected[] = {3, 1, 2, 1};
    int ok = 1;
    for (size_t i = 0; i < sizeof kFiles / sizeof kFiles[0]; ++i) {
        char path[4400];
        snprintf(path, sizeof path, "%s/%s", dir, kFiles[i]);
        const int count = HostAddModule(path, NULL);
        fprintf(out, "  scanned %-22s -> %d%s\n", kFiles[i], count, count < 0 ? " (refused)" : " servers");
        ok &= count == kExpected[i];
    }
    return ok;
}

static int ActivateServers(FILE *out)
{
    int32_t count = 0, sum[3] = {20, 22, 0}, wrapped = 0;
    int ok = HostActivateVer("MeshEditTool", "Example_Box", &count, 1) == 0;
    ok &= HostActivateVer("MeshEditTool", "Example_Box", &count, 1) == 0;
    fprintf(out, "  MeshEditTool:Example_Box activated twice, count %d, module loaded: %d\n", (int)count,
            ServerModuleLoaded("MeshEditTool", "Example_Box"));
    ok &= Check(out, count == 2, "the module was loaded on demand and stayed loaded");
    ok &= HostActivateVer("CommandSequence", "Example_Sum", sum, 1) == 0;
    ok &= Check(out, sum[2] == 42, "Example_Sum found the \"Example Math\" service through the global lookup");
    ok &= HostActivateVer("CommandSequence", "Example_Wrapped", &wrapped, 1) == 0;
    const int32_t *calls = HostFindGlobal("Example Wrap Count", HOST_GLOBAL_TRANSIENT);
    ok &= Check(out, wrapped == 7 && calls && *calls == 1, "Example_Wrapped ran through the custom loader's wrapper");
    HostFlush();
    return Check(out, !ServerModuleLoaded("MeshEditTool", "Example_Box"), "HostFlush unloaded the idle modules") && ok;
}

int plugin_scan_sample(FILE *out, const char *dir)
{
    char modules[4200], database[4200], line[512];
    if (!Check(out, FindModules(modules, sizeof modules), "the example modules are found"))
        return 0;
    const char *file = ConfigGenerateName(dir, "vxext3", "Vexmark Extensions 3");
    snprintf(database, sizeof database, "%s", file ? file : "");
    remove(database); /* scan afresh, also when the sample runs again */
    int ok = HostSetDatabase(dir) && HostStartup();
    ok &= ScanModules(out, modules);
    HostShutdown(); /* writes the database */
    FILE *db = fopen(database, "r");
    int entries = 0;
    while (db && fgets(line, sizeof line, db))
        entries += strncmp(line, "Entry", 5) == 0;
    if (db)
        fclose(db);
    fprintf(out, "  database %s written: %d entries\n", database, entries);
    ok &= Check(out, entries == 7, "one Entry per module server");
    ok &= HostSetDatabase(dir) && HostStartup(); /* reads it back */
    ok &= Check(out, HostNumServers("MeshEditTool") == 1 && !ServerModuleLoaded("MeshEditTool", "Example_Box"),
                "the servers came back from the database, their modules not loaded yet");
    ok &= ActivateServers(out);
    HostShutdown();
    return ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return plugin_scan_sample(stdout, ".") ? 0 : 1; }
#endif
