/* Demo section: the plug-in host scans the example modules next to this build, writes the
 * plug-in database, starts again from it and activates servers, loading modules on demand. */
#include <vxtools3.h>
#include <vxtools3/config.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int Check(FILE *out, int ok, const char *what)
{
    fprintf(out, "  %s %s\n", ok ? "ok:" : "FAILED:", what);
    return ok;
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

int vx_demo_plugins(FILE *out)
{
    char modules[4200];
    const char *home = FileSystemPath(0);
    snprintf(modules, sizeof modules, "%s/../examples/plugins", home ? home : ".");
    char database[] = "/tmp/vxdemo-plugins-XXXXXX";
    if (!mkdtemp(database))
        return Check(out, 0, "a temporary directory for the database");
    int ok = HostSetDatabase(database) && HostStartup();
    ok &= ScanExamples(out, modules);
    HostShutdown(); /* writes the database */
    const char *file = ConfigGenerateName(database, "vxext3", "Vexmark Extensions 3");
    char fileName[4200];
    snprintf(fileName, sizeof fileName, "%s", file ? file : "");
    FILE *db = fopen(fileName, "r");
    int entries = 0;
    char line[512];
    while (db && fgets(line, sizeof line, db))
        entries += strncmp(line, "Entry", 5) == 0;
    if (db)
        fclose(db);
    fprintf(out, "  database written: %d entries\n", entries);
    ok &= Check(out, entries == 7, "one Entry per module server");
    ok &= HostSetDatabase(database) && HostStartup(); /* reads it back */
    ok &= Check(out, HostNumServers("MeshEditTool") == 1 && !ServerModuleLoaded("MeshEditTool", "Example_Box"),
                "the servers came back from the database, their modules not loaded yet");
    ok &= ActivateExamples(out);
    HostShutdown();
    remove(fileName);
    rmdir(database);
    return ok;
}
