/* Demo section: the plug-in host scans the example modules next to this build, writes the
 * plug-in database into the demo's directory, starts again from it, lists the catalogue as
 * `vxtool plugins list` does and activates servers, loading modules on demand. */
#include <vxtools3.h>
#include <vxtools3/config.h>
#include "vxtool_c.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int Check(FILE *out, int ok, const char *what)
{
    fprintf(out, "  %s %s\n", ok ? "ok:" : "FAILED:", what);
    return ok;
}

/* The example modules: ../examples/plugins from vxtool in the build tree, else where the
 * installation puts them. */
static void FindExamples(char *dir, size_t size)
{
    const char *home = FileSystemPath(0);
    char probe[4300];
    snprintf(dir, size, "%s/../examples/plugins", home ? home : ".");
    snprintf(probe, sizeof probe, "%s/example_shapes.so", dir);
    if (access(probe, R_OK) != 0)
        snprintf(dir, size, "%s/%s", home ? home : ".", VX_INSTALLED_PLUGINS);
}

static int ScanExamples(FILE *out, const char *dir)
{
    static const char *const kFiles[] = {"example_shapes.so", "example_legacy.so", "example_wraploader.so",
                                         "example_wrapped.so", "fixture_version4.so"};
    static const int kExpected[] = {3, 1, 2, 1, -1};
    int ok = 1;
    for (size_t i = 0; i < sizeof kFiles / sizeof kFiles[0]; ++i) {
        char path[4400];
        snprintf(path, sizeof path, "%s/%s", dir, kFiles[i]);
        const int count = HostAddModule(path, NULL);
        fprintf(out, "  scanned %-22s -> %d%s\n", kFiles[i], count, count < 0 ? " (refused: out of date)" : " servers");
        ok &= count == kExpected[i];
    }
    return ok;
}

/* Prints the module servers of the catalogue: class, name, user name, module file. */
static int ListCatalogue(FILE *out)
{
    int listed = 0;
    for (int32_t c = 0; c < HostClassCount(); ++c) {
        const char *cls = HostClassName(c);
        for (int32_t i = 0; i < HostNumServers(cls); ++i) {
            const char *module = ServerGetModule(cls, i);
            if (!module)
                continue;
            const char *file = strrchr(module, '/');
            fprintf(out, "  %-16s %-16s %-12s %s\n", cls, ServerGetName(cls, i), ServerGetUserName(cls, i),
                    file ? file + 1 : module);
            ++listed;
        }
    }
    return listed;
}

static int ActivateExamples(FILE *out)
{
    int ok = 1;
    int32_t count = 0;
    ok &= HostActivateVer("MeshEditTool", "Example_Box", &count, 1) == 0;
    ok &= HostActivateVer("MeshEditTool", "Example_Box", &count, 1) == 0;
    fprintf(out, "  MeshEditTool:Example_Box activated twice, count %d, module loaded: %d\n", (int)count,
            ServerModuleLoaded("MeshEditTool", "Example_Box"));
    ok &= Check(out, count == 2, "the module was loaded on demand and stayed loaded");
    int32_t sum[3] = {20, 22, 0};
    ok &= HostActivateVer("CommandSequence", "Example_Sum", sum, 1) == 0;
    ok &= Check(out, sum[2] == 42, "Example_Sum found the \"Example Math\" service through the global lookup");
    int32_t wrapped = 0;
    ok &= HostActivateVer("CommandSequence", "Example_Wrapped", &wrapped, 1) == 0;
    const int32_t *calls = (const int32_t *)HostFindGlobal("Example Wrap Count", HOST_GLOBAL_TRANSIENT);
    ok &= Check(out, wrapped == 7 && calls && *calls == 1, "Example_Wrapped ran through the custom loader's wrapper");
    LocusSetLanguage(0x0407);
    const char *german = ServerGetUserName("MeshEditTool", ServerGetIndex("MeshEditTool", "Example_Box"));
    LocusSetLanguage(0);
    fprintf(out, "  user name in German: %s\n", german ? german : "(none)");
    ok &= german && strcmp(german, "Kiste") == 0;
    HostFlush();
    ok &= Check(out, !ServerModuleLoaded("MeshEditTool", "Example_Box"), "HostFlush unloaded the idle modules");
    return ok;
}

int vx_demo_plugins(FILE *out, const char *dir)
{
    char modules[4200];
    FindExamples(modules, sizeof modules);
    const char *file = ConfigGenerateName(dir, "vxext3", "Vexmark Extensions 3");
    char database[4200];
    snprintf(database, sizeof database, "%s", file ? file : "");
    remove(database); /* scan afresh, also when the demo runs again */
    int ok = HostSetDatabase(dir) && HostStartup();
    ok &= ScanExamples(out, modules);
    HostShutdown(); /* writes the database */
    FILE *db = fopen(database, "r");
    int entries = 0;
    char line[512];
    while (db && fgets(line, sizeof line, db))
        entries += strncmp(line, "Entry", 5) == 0;
    if (db)
        fclose(db);
    fprintf(out, "  database %s written: %d entries\n", database, entries);
    ok &= Check(out, entries == 7, "one Entry per module server");
    ok &= HostSetDatabase(dir) && HostStartup(); /* reads it back */
    ok &= Check(out, HostNumServers("MeshEditTool") == 1 && !ServerModuleLoaded("MeshEditTool", "Example_Box"),
                "the servers came back from the database, their modules not loaded yet");
    fprintf(out, "  the catalogue (class, name, user name, module):\n");
    ok &= Check(out, ListCatalogue(out) == 7, "seven module servers listed");
    ok &= ActivateExamples(out);
    HostShutdown();
    return ok;
}
