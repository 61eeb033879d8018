// The plug-in host against the real example modules of examples/plugins.
#include <vxtools3/ckpt.h>
#include <vxtools3/host.h>
#include <vxtools3/lists.h>
#include <vxtools3/platform.h>
#include <vxtools3/ports.h>

#include "host/host_internal.h"
#include "testkit/capture.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using vx::host::g_host;

namespace {

using Strings = std::vector<std::string>;
using Results = std::vector<int32_t>;
const std::string kPlugins = VX_PLUGIN_DIR;
const std::string kFixtures = VX_FIXTURE_DIR;

std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void WriteFile(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

bool Exists(const std::string &path) { return std::ifstream(path).good(); }

std::string Str(const char *text) { return text ? text : "(null)"; }

// Every class, server, module and tag, in order: what "unchanged" means for the catalogue.
std::string Snapshot()
{
    std::ostringstream out;
    for (int32_t c = 0; c < g_host.classes.count; ++c) {
        auto *cls = static_cast<vx::host::HostClass *>(g_host.classes.items[c]);
        out << cls->name << " v" << cls->version << "\n";
        for (int32_t s = 0; s < cls->servers.count; ++s) {
            auto *server = static_cast<vx::host::HostServer *>(cls->servers.items[s]);
            out << "  " << server->name << " [" << (server->module ? server->module->path : "built-in") << "] locks "
                << server->lockCount << (server->activate ? " bound" : "");
            for (VxNode *n = server->tags.head; n->succ; n = n->succ) {
                auto *tag = reinterpret_cast<vx::host::ServerTag *>(n);
                out << " {" << tag->string << "," << std::hex << tag->tagWord << std::dec << "}";
            }
            out << "\n";
        }
    }
    std::set<std::string> modules;  // the list's order is not part of the catalogue
    for (VxNode *n = g_host.modules.head; n && n->succ; n = n->succ) {
        auto *module = reinterpret_cast<vx::host::HostModule *>(n);
        modules.insert("module " + std::string(module->path) + (module->startupData ? " loaded" : "") + " use " +
                       std::to_string(module->useCount) + "\n");
    }
    for (const std::string &line : modules)
        out << line;
    return out.str();
}

std::string g_notes;  // "event.subject class[:server];" for each note heard

void Listen(uintptr_t, uintptr_t, int32_t event, uintptr_t argument)
{
    const auto *note = reinterpret_cast<const HostNote *>(argument);
    std::string text = note->payload ? note->payload : "";
    if (note->payload && note->subject != HOST_NOTE_CLASS)
        text += std::string(":") + (note->payload + text.size() + 1);
    g_notes += std::to_string(event) + "." + std::to_string(note->subject) + " " + text + ";";
}

int32_t BuiltIn(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    EXPECT_TRUE(global == HostGetGlobal() && !serverData);
    if (local)
        *static_cast<int32_t *>(local) = version;
    return 0;
}

// Activates and returns what the server wrote to its local word (-1000 when the result is not 0).
int32_t Activate(const char *cls, const char *name, int32_t version = 1)
{
    int32_t local = 0;
    return HostActivateVer(cls, name, &local, version) == 0 ? local : -1000;
}

class HostTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        FileSetSystemPath(SYSTEM_PATH_HOST, kPlugins.c_str()), HostSetDatabase(db_.Path().c_str()), g_notes.clear();
    }
    void TearDown() override
    {
        StopHost(), HostSetDatabase(nullptr), HostExcludeServers(nullptr), HostMissingFunc(nullptr, nullptr);
        LocusSetLanguage(0), GlobalListCleanup(), FileSetSystemPath(SYSTEM_PATH_HOST, nullptr);
        EXPECT_EQ(CkptLevel(), -1);
    }
    static void StopHost() { while (HostRunning()) HostShutdown(); }
    // Starts the host and adds modules, each with the count of servers it must register.
    static void Start(std::initializer_list<std::pair<const char *, int32_t>> modules = {})
    {
        ASSERT_EQ(HostStartup(), 1);
        for (const auto &[file, count] : modules)
            ASSERT_EQ(HostAddModule(file, nullptr), count) << file;
    }
    std::string DbFile() const { return db_.File("VXEXT3.CFG"); }

    vxtest::TempDir db_;
};

TEST_F(HostTest, ClassesAndTheRulesOfRegistering)
{
    vxtest::DebugCapture capture;
    const HostClassDecl table[] = {{"Shader", 4}, {"ImageLoader", -1}, {"Shader", 5}, {nullptr, 0}};
    EXPECT_TRUE(HostAddClasses(table) == 1 && HostRunning() == 1);  // it starts the host
    const HostClassDecl later[] = {{"Shader", -1}, {"ImageLoader", 2}, {"ImageLoader", 2}, {nullptr, 0}};
    EXPECT_EQ(HostAddClasses(later), 1);
    EXPECT_EQ(HostClassVersion("Nothing"), -1);
    // A module server cannot replace a built-in; a built-in replaces a module server silently
    // (its tags go) unless it is locked. The first call makes Tool, without a version.
    EXPECT_EQ((Results{HostAddPlugIn("Tool", "Mod", "Module one", "a.so"), HostAddBuiltIn("Tool", "In", "Inside", BuiltIn),
                       HostAddPlugIn("Tool", "In", nullptr, "b.so"), HostAddBuiltIn("Tool", "Mod", nullptr, BuiltIn),
                       HostLockServer("Tool", "In"), HostAddBuiltIn("Tool", "In", nullptr, BuiltIn),
                       HostRemServer("Tool", "In"), HostUnlockServer("Tool", "In"), HostUnlockServer("Tool", "In")}),
              (Results{1, 1, 0, 1, 1, 0, 0, 1, 0}));
    EXPECT_EQ(capture.Text(), "Plugin class Shader -- confliting versions\nattempt to replace built-in server Tool:In\n"
                              "attempt to replace locked server Tool:In\n");
    // Tags are added to built-ins only; exclusions refuse both kinds silently.
    const char *const excluded[] = {"Tool", "Banned", "Tool", "Banned2", nullptr};
    EXPECT_EQ((Results{HostAddPlugIn("Tool", "Other", nullptr, "a.so"), HostAddTag("Tool", "Other", "x", 0x10000),
                       HostAddTag("Tool", "In", "In!", 0x10000), (HostExcludeServers(excluded), 7),
                       HostAddBuiltIn("Tool", "Banned", nullptr, BuiltIn), HostAddPlugIn("Tool", "Banned2", nullptr, "a.so"),
                       HostAddPlugIn("Tool", "Banned3", nullptr, "a.so"), HostRemServer("Tool", "Banned3"),
                       HostRemServer("Tool", "Banned3")}),
              (Results{1, 0, 1, 7, 0, 0, 1, 1, 0}));
    EXPECT_EQ(Snapshot(), "Global v1\nImageLoader v2\nShader v4\nTool v-1\n"
                          "  In [built-in] locks 0 bound {Inside,0} {In!,10000}\n  Mod [built-in] locks 0 bound\n"
                          "  Other [a.so] locks 0\n_PluginLoader v1\n  VX_StandardLoader [built-in] locks 0 bound\n"
                          "module a.so use 0\n");
    EXPECT_EQ(ServerGetIndex("Tool", "Other"), 2);
    EXPECT_EQ(ServerGetIndex("Tool", "Nope") + ServerGetIndex("Nope", "Other") + HostNumServers("Nope"), -2);
    EXPECT_EQ(ServerGetName("Tool", 3), nullptr);
    std::string scanned;  // classes without a version are passed over
    HostScanServers([](void *out, const char *cls) { *static_cast<std::string *>(out) += std::string(cls) + " "; },
                    [](void *out, const char *, int32_t i) { *static_cast<std::string *>(out) += std::to_string(i); },
                    &scanned);
    EXPECT_EQ(scanned, "Global ImageLoader Shader _PluginLoader 0");
    for (int twice = 0; twice < 2; ++twice) {  // the second does nothing
        HostClearClasses();
        EXPECT_EQ(HostRunning(), 0);
    }
}

TEST_F(HostTest, InfoTagsFollowTheLanguage)
{
    Start();
    ASSERT_EQ(HostAddBuiltIn("Tool", "T", nullptr, BuiltIn), 1);
    const std::pair<const char *, uint32_t> tags[] = {{"any-kind0", 0}, {"german", 0x0407}, {"german-base", 0x0407},
        {"french-base", 0x040C}, {"swiss-french", 0x100C}, {"label-de", 0x10407}};
    for (const auto &[text, word] : tags)
        HostAddTag("Tool", "T", text, word);
    std::string names;  // Belgian French falls back to the base language, English to the neutral tag
    for (int32_t language : {0x0407, 0x100C, 0x080C, 0x0409})
        names += (LocusSetLanguage(language), Str(ServerGetUserName("Tool", 0))) + " ";
    EXPECT_EQ(names, "german swiss-french french-base any-kind0 ");
    EXPECT_STREQ(ServerGetInfoTag("Tool", 0, 1), "label-de");  // no neutral one: the first at all
    EXPECT_EQ(ServerGetInfoTag("Tool", 0, 2), nullptr);
    ASSERT_EQ(ServerSetUserName("Tool", 0, "Renamed"), 1);
    LocusSetLanguage(0x0407);
    EXPECT_EQ(Str(ServerGetUserName("Tool", 0)) + Str(ServerGetInfoTag("Tool", 0, 1)), "Renamedlabel-de");
}

TEST_F(HostTest, NotificationsAndReplayForNewListeners)
{
    GlobalPortAttach("plugin-database", 1, 0, Listen);  // before the host owns the port
    ASSERT_EQ(HostStartup(), 1);
    EXPECT_EQ(g_notes, "2.0 Global;2.0 _PluginLoader;2.1 _PluginLoader:VX_StandardLoader;");
    g_notes.clear();
    const HostClassDecl table[] = {{"Tool", 2}, {nullptr, 0}};
    HostAddClasses(table), HostAddBuiltIn("Tool", "B", "Bee", BuiltIn), HostAddTag("Tool", "B", "b", 0x10000);
    ServerSetUserName("Tool", 0, "Bea");
    HostAddBuiltIn("Tool", "B", nullptr, BuiltIn), HostRemServer("Tool", "B");  // replaced: changed, not added
    EXPECT_EQ(g_notes, "2.0 Tool;2.1 Tool:B;2.3 Tool:B;2.3 Tool:B;2.3 Tool:B;2.4 Tool:B;");
    const std::string longName(3000, 'n');  // a payload larger than the stack buffer
    HostAddBuiltIn("Tool", longName.c_str(), nullptr, BuiltIn);
    EXPECT_TRUE(g_notes.ends_with(";2.1 Tool:" + longName + ";"));
    HostRemServer("Tool", longName.c_str()), HostAddBuiltIn("Tool", "C", nullptr, BuiltIn);
    g_notes.clear();
    GlobalPortAttach("plugin-database", 2, 0, Listen);
    EXPECT_EQ(g_notes, "1.0 Global;1.0 Tool;1.1 Tool:C;1.0 _PluginLoader;1.1 _PluginLoader:VX_StandardLoader;");
    g_notes.clear();
    HostShutdown();
    EXPECT_EQ(g_notes, "4.2 ;4.2 ;");
    GlobalPortDetach("plugin-database", 1), GlobalPortDetach("plugin-database", 2);
}

TEST_F(HostTest, EveryFailureFixtureIsRefusedWithItsMessage)
{
    FileSetSystemPath(SYSTEM_PATH_HOST, kFixtures.c_str());
    Start();
    const std::string dir = kFixtures + "/", loaderError = "loader VX_StandardLoader activation error\n";
    const auto unloaded = [](const char *file) { return "could not load module " + std::string(file) + "\n"; };
    const auto null = [](const char *file) { return "plug-in module " + std::string(file) + " returned NULL startup data\n"; };
    const std::pair<const char *, std::string> cases[] = {
        {"fixture_notelf.so", loaderError + unloaded("fixture_notelf.so")},
        {"absent.so", "File not opened: " + dir + "absent.so \n" + loaderError + unloaded("absent.so")},
        {"fixture_nodescrip.so",
         "DLL without _mod_descrip symbol -- " + dir + "fixture_nodescrip.so\n" + unloaded("fixture_nodescrip.so")},
        {"fixture_unresolved.so", "DLL not found -- " + dir +
                                      "fixture_unresolved.so: undefined symbol: vx_fixture_missing_symbol\n" +
                                      unloaded("fixture_unresolved.so")},
        {"fixture_badsync.so", "module fixture_badsync.so is not a plug-in; sync=0x19941204\n" + null("fixture_badsync.so")},
        {"fixture_version4.so", "plug-in module fixture_version4.so is out of date; version=4\n" + null("fixture_version4.so")},
        {"fixture_othercpu.so",
         "plug-in module fixture_othercpu.so is for a different cpu; type=0x400\n" + null("fixture_othercpu.so")},
        {"fixture_nullstartup.so", null("fixture_nullstartup.so")},
    };
    const std::string before = Snapshot();
    for (const auto &[file, text] : cases) {
        vxtest::DebugCapture capture;
        EXPECT_EQ(HostAddModule(file, nullptr), -1) << file;
        EXPECT_EQ(capture.Text(), text);
        EXPECT_EQ(Snapshot(), before) << file;  // nothing registered, loader unlocked, no record left
    }
    // A registered server of a refused module: activation reports no function.
    ASSERT_EQ(HostAddPlugIn("CommandSequence", "Example_Fixture", nullptr, "fixture_version4.so"), 1);
    vxtest::DebugCapture capture;
    EXPECT_EQ(HostActivateVer("CommandSequence", "Example_Fixture", nullptr, -1), -2);  // no function
    EXPECT_EQ(ServerLoadPlugin("CommandSequence", "Example_Fixture"), nullptr);
    EXPECT_EQ(capture.Text(), cases[5].second + cases[5].second);
    EXPECT_EQ(g_host.totalLocks, 0);
}

TEST_F(HostTest, ModulesLoadOnDemandBindLockAndFlush)
{
    Start();
    static Strings seen;
    const std::string absolute = kPlugins + "/example_shapes.so";
    const auto record = [](const char *c, const char *n) { seen.push_back(std::string(c) + ":" + n); };
    EXPECT_EQ(HostAddModule(absolute.c_str(), record), 3);
    EXPECT_EQ(seen, (Strings{"MeshEditTool:Example_Box", "CommandSequence:Example_Sum", "Global:Example Math"}));
    // The absolute path inside the host directory was kept relative; the scan left it unloaded.
    EXPECT_STREQ(ServerGetModule("MeshEditTool", ServerGetIndex("MeshEditTool", "Example_Box")), "example_shapes.so");
    // The loader is locked while its module is loaded.
    const auto loaded = [] { return ServerModuleLoaded("MeshEditTool", "Example_Box") + ServerIsLocked("_PluginLoader", 0); };
    EXPECT_EQ(loaded(), 0);
    EXPECT_EQ(HostActivateVer("MeshEditTool", "Example_Box", nullptr, -1), 5);  // class version -1
    EXPECT_EQ(Activate("MeshEditTool", "Example_Box", 2), 1);  // the activation count
    EXPECT_EQ(loaded(), 2);
    HostFlush();
    EXPECT_EQ(loaded(), 0);
    EXPECT_EQ(Activate("MeshEditTool", "Example_Box", 2), 1) << "a fresh load";
    // Locks keep the module through a flush; its use count is the sum of the locks.
    EXPECT_EQ(HostLockServer("MeshEditTool", "Example_Box") + HostLockServer("CommandSequence", "Example_Sum"), 2);
    HostFlush();
    EXPECT_EQ(Activate("MeshEditTool", "Example_Box", 2), 2);
    EXPECT_EQ(g_host.totalLocks, 3);
    EXPECT_EQ((Results{loaded(), (HostUnlockServer("MeshEditTool", "Example_Box"), HostFlush(), loaded()),
                       (HostUnlockServer("CommandSequence", "Example_Sum"), HostFlush(), loaded())}),
              (Results{2, 2, 0}));
    // ServerLoadPlugin loads and hands out the loader request.
    const LoaderRequest *request = ServerLoadPlugin("MeshEditTool", "Example_Box");
    ASSERT_TRUE(request && request->handle && !request->wrapper);
    EXPECT_EQ(request->fileName, absolute);
    EXPECT_EQ(ServerLoadPlugin("_PluginLoader", "VX_StandardLoader"), nullptr);  // built-in

    // A version-2 module: three-word rows, no tags. A loaded module accepts no new servers; one
    // in use cannot be scanned.
    EXPECT_EQ(HostAddModule("example_legacy.so", nullptr), 1);
    EXPECT_EQ(Activate("ImageLoader", "Example_Legacy"), 2);
    EXPECT_STREQ(ServerGetUserName("ImageLoader", 0), "Example_Legacy");
    EXPECT_EQ(HostAddPlugIn("Tool", "Late", nullptr, "example_legacy.so"), 0);
    HostLockServer("ImageLoader", "Example_Legacy");
    EXPECT_EQ(HostAddModule("example_legacy.so", nullptr), -2);
    HostUnlockServer("ImageLoader", "Example_Legacy");
    HostFlush();

    // A loader module that is tried first and sets a call wrapper for the modules it loads.
    ASSERT_EQ(HostAddModule("example_wraploader.so", nullptr), 2);
    EXPECT_EQ(ServerGetIndex("_PluginLoader", "Example_WrapLoader"), 0);
    ASSERT_EQ(HostAddModule("example_wrapped.so", nullptr), 1);
    EXPECT_EQ(Activate("CommandSequence", "Example_Wrapped"), 7);
    request = ServerLoadPlugin("CommandSequence", "Example_Wrapped");
    EXPECT_TRUE(request && request->wrapper);
    auto *calls = static_cast<int32_t *>(HostFindGlobal("Example Wrap Count", HOST_GLOBAL_TRANSIENT));
    ASSERT_TRUE(calls && *calls == 1);
    EXPECT_EQ(Activate("ImageLoader", "Example_Legacy"), 2) << "other modules pass the wrapping loader by";
    EXPECT_EQ(*calls, 1);
    HostFlush();
    EXPECT_EQ(g_host.totalLocks, 0);
}

TEST_F(HostTest, AutoFlushUnloadsIdleModulesByAge)
{
    Start({{"example_shapes.so", 3}, {"example_legacy.so", 1}});
    const auto loaded = [] {
        return ServerModuleLoaded("MeshEditTool", "Example_Box") * 10 + ServerModuleLoaded("ImageLoader", "Example_Legacy");
    };
    ASSERT_EQ(Activate("MeshEditTool", "Example_Box") + Activate("ImageLoader", "Example_Legacy"), 1 + 2);
    HostAutoFlush(1);
    EXPECT_EQ(HostAddModule("fixture_badsync.so", nullptr), -1);  // 2 loaded: ages 2 and 1, limit 2
    EXPECT_EQ(loaded(), 11);
    // Threshold 0: loading a third module unloads each idle one that aged past 0; a locked one stays.
    HostAutoFlush(0);
    HostLockServer("ImageLoader", "Example_Legacy");
    EXPECT_EQ(HostAddModule("example_wraploader.so", nullptr), 2);
    EXPECT_EQ(loaded(), 1);
    HostUnlockServer("ImageLoader", "Example_Legacy");
    HostAutoFlush(-1);
    EXPECT_EQ(Activate("MeshEditTool", "Example_Box"), 1);
    EXPECT_EQ(loaded(), 11);
}

TEST_F(HostTest, GlobalLookupAndTheMissingServerFunction)
{
    static int listed = 42;
    GlobalListDefine("Listed Service", &listed);
    Start({{"example_shapes.so", 3}});
    EXPECT_EQ(HostFindGlobal("Listed Service", HOST_GLOBAL_TRANSIENT), &listed);
    // A module server finds a service of another server through the lookup it is handed.
    int32_t values[3] = {20, 22, 0};
    EXPECT_TRUE(HostActivateVer("CommandSequence", "Example_Sum", values, 1) == 0 && values[2] == 42);
    // Acquire locks the Global server, release unlocks it.
    const auto locked = [] { return ServerIsLocked("Global", ServerGetIndex("Global", "Example Math")); };
    EXPECT_TRUE(HostFindGlobal("Example Math", HOST_GLOBAL_ACQUIRE) && locked() == 1);
    EXPECT_TRUE(!HostFindGlobal("Example Math", HOST_GLOBAL_RELEASE) && locked() == 0);
    // The missing-server function may register the server; it is not asked during a global
    // lookup, where an unknown service undoes its acquire.
    static Strings asked;
    HostMissingFunc([](void *, const char *cls, const char *name) {
        asked.push_back(std::string(cls) + ":" + name);
        return std::string(name) == "Later" ? HostAddBuiltIn(cls, name, nullptr, BuiltIn) : 0;
    }, nullptr);
    EXPECT_EQ(Activate("Tool", "Later", 3), 3);
    vxtest::DebugCapture capture;
    EXPECT_EQ(HostActivateVer("Tool", "Never", nullptr, 3), -1);
    EXPECT_EQ(HostFindGlobal("No Service", HOST_GLOBAL_ACQUIRE), nullptr);
    EXPECT_EQ(capture.Text(), "can't activate Tool:Never -- no such server\n"
                              "can't activate Global:No Service -- no such server\n");
    EXPECT_EQ(asked, (Strings{"Tool:Later", "Tool:Never"}));
    // A replaced lookup function is what activations receive.
    static HostGlobalFunc *s_default = HostGetGlobal();
    HostSetGlobal([](const char *name, int32_t use) -> void * {
        return std::string(name) == "Example Math" ? nullptr : s_default(name, use);
    });
    EXPECT_EQ(HostActivateVer("CommandSequence", "Example_Sum", values, 1), 6);
    HostSetGlobal(nullptr);
    EXPECT_TRUE(s_default == HostDefaultGlobal && HostGetGlobal() == HostDefaultGlobal);
}

TEST_F(HostTest, ShutdownWithALockedServerIsDeferred)
{
    GlobalPortAttach("plugin-database", 1, 0, Listen);
    ASSERT_EQ(HostStartup(), 1);  // nested in the next
    Start({{"example_shapes.so", 3}});
    ASSERT_EQ(HostLockServer("MeshEditTool", "Example_Box"), 1);
    EXPECT_EQ((HostShutdown(), HostRunning()), 1);  // the nested start
    for (int round = 0; round < 2; ++round) {  // the second after a start called the teardown off
        g_notes.clear();
        vxtest::DebugCapture capture;
        HostShutdown();
        EXPECT_EQ(capture.Text(), "HOST shutdown deferred! 2 servers still locked.\n");
        EXPECT_TRUE(!HostRunning() && g_notes.empty());
        EXPECT_EQ(Activate("MeshEditTool", "Example_Box"), round + 1) << "still there";
        EXPECT_EQ(round == 0 ? HostStartup() : 1, 1);
    }
    // The database was written before the teardown waited.
    EXPECT_NE(ReadFile(DbFile()).find("Example_Box"), std::string::npos);
    EXPECT_EQ(HostUnlockServer("MeshEditTool", "Example_Box"), 1);
    EXPECT_EQ(g_notes, "4.2 ;");
    EXPECT_TRUE(!g_host.classes.count && !g_host.port);
    GlobalPortDetach("plugin-database", 1);
}

// End to end: scan, write, restart, read back, activate on demand; the application's save
// event writes a changed database only.
TEST_F(HostTest, DatabaseRoundTripAndTheSaveEvent)
{
    vxtest::DebugCapture capture;
    static const std::string otherCpu = kFixtures + "/fixture_othercpu.so";
    Start({{otherCpu.c_str(), -1}, {"example_shapes.so", 3}, {"example_legacy.so", 1},
           {"example_wraploader.so", 2}, {"example_wrapped.so", 1}});
    EXPECT_FALSE(Exists(DbFile()));  // no database yet, nothing written
    ASSERT_EQ(HostAddBuiltIn("MeshEditTool", "Built", "never written", BuiltIn) +
                  HostAddPlugIn("Shader", "Quote\"d", "Tab\there", "/opt/elsewhere/x.so"), 2);
    HostFlush();
    const std::string before = Snapshot();
    HostShutdown();
    EXPECT_EQ(ReadFile(DbFile()), ReadFile(VX_HOST_TESTDATA "/plugins_expected.db"));

    HostSetDatabase(db_.Path().c_str());  // the teardown forgot it
    ASSERT_EQ(HostStartup(), 1);
    EXPECT_STREQ(HostDatabaseFile(), DbFile().c_str());
    ASSERT_EQ(HostAddBuiltIn("MeshEditTool", "Built", "never written", BuiltIn), 1);
    EXPECT_EQ(Snapshot(), before);
    EXPECT_EQ(Activate("MeshEditTool", "Example_Box"), 1);
    EXPECT_EQ(Activate("CommandSequence", "Example_Wrapped"), 7);
    EXPECT_EQ(capture.Text(), "plug-in module " + otherCpu + " is for a different cpu; type=0x400\n"
                              "plug-in module " + otherCpu + " returned NULL startup data\n");
    const uintptr_t server = 0xa99;  // the application
    VxPort *events = GlobalPortAcquire("application-events", 0, server, nullptr);
    const auto written = [&](int32_t event) { return PortNotify(events, server, 0, event, 0, 0), Exists(DbFile()); };
    std::remove(DbFile().c_str());
    EXPECT_FALSE(written(5)) << "unchanged since it was read";
    ASSERT_EQ(HostRemServer("ImageLoader", "Example_Legacy"), 1);
    EXPECT_FALSE(written(4)) << "another event";
    EXPECT_TRUE(written(5));
    const std::string saved = ReadFile(DbFile());
    EXPECT_TRUE(saved.find("Example_Legacy") == std::string::npos && saved.find("Example_Box") != std::string::npos);
    std::remove(DbFile().c_str());
    // Written already: not again. The wrapping loader's module unloads after the one it loaded.
    EXPECT_FALSE((HostShutdown(), Exists(DbFile())));
    EXPECT_EQ(Snapshot(), "") << "the teardown was not deferred";
}

TEST_F(HostTest, DatabaseReadRefreshesAndRemovesStaleServers)
{
    WriteFile(DbFile(), "Directory \"ignored\"\nOther { Class \"X\" }\n"
                        "Entry {\n  InfoTag 0 \"dropped: before the module\"\n  Class \"Tool\"\n  Name \"A\"\n"
                        "  Module \"a.so\"\n  InfoTag 0 \"Ay\"\n  InfoTag 65536 \"A!\"\n}\n"
                        "Entry {\n  Class \"Tool\"\n  Name \"NoModule\"\n  InfoTag 0 \"lost\"\n}\n"
                        "Entry { Class \"Tool\" Name \"B\" Module \"b.so\" }\n");
    GlobalPortAttach("plugin-database", 1, 0, Listen);
    ASSERT_EQ(HostStartup(), 1);
    EXPECT_EQ(Snapshot(), "Global v1\nTool v-1\n  A [a.so] locks 0 {Ay,0} {A!,10000}\n  B [b.so] locks 0\n"
                          "_PluginLoader v1\n  VX_StandardLoader [built-in] locks 0 bound\nmodule a.so use 0\n"
                          "module b.so use 0\n");
    // Read again over a changed file: A refreshed, B gone (not named), C new.
    WriteFile(DbFile(), "Entry { Class \"Tool\" Name \"A\" Module \"a.so\" }\n"
                        "Entry { Class \"Tool\" Name \"C\" Module \"a.so\" }\n");
    g_notes.clear();
    ASSERT_TRUE(vx::host::ReadDatabaseFile(DbFile().c_str()));
    EXPECT_EQ(g_notes, "2.4 Tool:B;2.3 Tool:A;2.1 Tool:C;");
    EXPECT_EQ(std::to_string(HostNumServers("Tool")) + Str(ServerGetName("Tool", 1)) + Str(ServerGetUserName("Tool", 0)),
              "2CA");
    GlobalPortDetach("plugin-database", 1);

    // Damaged files: only a complete file removes servers it does not name.
    ASSERT_EQ(HostAddPlugIn("Tool", "Kept", nullptr, "k.so"), 1);
    const std::string full = "Entry {\n  Class \"Tool\"\n  Name \"A\"\n  Module \"a.so\"\n  InfoTag 0 \"Ay\"\n}\n"
                             "Entry {\n  Class \"Tool\"\n  Name \"B\"\n  Module \"b.so\"\n}\n";
    for (size_t cut = 0; cut < full.size(); ++cut) {
        WriteFile(DbFile(), full.substr(0, cut));
        vxtest::DebugCapture capture;
        const bool whole = vx::host::ReadDatabaseFile(DbFile().c_str());
        EXPECT_EQ(ServerGetIndex("Tool", "Kept") >= 0, !whole) << "cut " << cut;
        EXPECT_EQ(capture.Text().find("plug-in database " + DbFile() + " is damaged at line") != std::string::npos, !whole);
        HostAddPlugIn("Tool", "Kept", nullptr, "k.so");
    }
    vxtest::DebugCapture capture;
    WriteFile(DbFile(), "Entry {\n  Class \"Tool\"\n  Name \"A\"\n  Module \"a.so\"\n  InfoTag \"no word\"\n");
    EXPECT_FALSE(vx::host::ReadDatabaseFile(DbFile().c_str()));
    EXPECT_EQ(capture.Text(), "load state: line 5: a string where a number was expected\n"
                              "plug-in database " + DbFile() + " is damaged at line 5\n");
    EXPECT_GE(ServerGetIndex("Tool", "A"), 0);
    // An unreadable database changes nothing.
    const std::string before = Snapshot();
    EXPECT_TRUE(!vx::host::ReadDatabaseFile((db_.Path() + "/absent").c_str()) && Snapshot() == before);
}

TEST_F(HostTest, CatalogueModeRegistersTheBuiltInCatalogue)
{
    GlobalListDefine("Product Info", reinterpret_cast<void *>(uintptr_t{0x23}));
    ASSERT_EQ(HostStartup(), 1);
    EXPECT_EQ(vx::host::CatalogueRowCount(), 102);
    std::string counts;  // every class: the rows, their second classes, the standard loader
    for (int32_t c = 0; c < HostClassCount(); ++c)
        counts += std::to_string(HostNumServers(HostClassName(c))) + " ";
    EXPECT_EQ(counts, "2 4 4 10 11 5 8 7 1 3 3 8 13 4 4 11 1 5 6 3 2 5 1 1 6 6 1 ");
    const int32_t cel = ServerGetIndex("ShaderHandler", "VX_SuperCelShader");
    EXPECT_EQ(Str(ServerGetUserName("ShaderHandler", cel)) + Str(ServerGetModule("ShaderHandler", cel)) +
                  Str(ServerGetInfoTag("MeshEditTool", ServerGetIndex("MeshEditTool", "VXSpikeyTool"), 1)),
              "Super Cel ShaderPlugins/SuperCelShader.pSpikey");
    // Catalogue mode refuses changes to module servers and writes no database.
    EXPECT_EQ(HostAddPlugIn("Shader", "New", nullptr, "n.so") + HostRemServer("ShaderHandler", "VX_SuperCelShader") +
                  HostWriteDatabase(), 0);
    EXPECT_FALSE((HostShutdown(), Exists(DbFile())));
}

// ---- Out-of-memory sweeps ------------------------------------------------------------------

class HostOomTest : public HostTest {
protected:
    void SetUp() override { HostTest::SetUp(), HostSetDatabase(nullptr), s_dir = db_.Path(); }
    // Each sweep starts from a database directory set under its heap, and the global port list's
    // one-time clean-up registration made before the heap is counted.
    static void Prepare()
    {
        HostSetDatabase(s_dir.c_str());
        GlobalPortAttach("warm-up", 1, 0, Listen), GlobalPortDetach("warm-up", 1);
    }
    static void Finish(bool keepDatabase)
    {
        if (!keepDatabase)
            std::remove((s_dir + "/VXEXT3.CFG").c_str());
        StopHost(), HostSetDatabase(nullptr), GlobalListCleanup();
    }
    // Sweeps `run` on the started host that `prepare` fills: a failure leaves the catalogue as it was.
    static void Sweep(const std::function<void()> &prepare, const std::function<bool()> &run)
    {
        std::string before;
        vxtest::OomSweepAll({[&] { Prepare(), HostStartup(), prepare(), before = Snapshot(); }, run,
                             [&] { EXPECT_EQ(Snapshot(), before); }, [] { Finish(false); }});
    }
    static inline std::string s_dir;
};

TEST_F(HostOomTest, Startup)
{
    WriteFile(DbFile(), "Entry { Class \"Tool\" Name \"A\" Module \"a.so\" InfoTag 0 \"Ay\" }\n"
                        "Entry { Class \"Tool\" Name \"B\" Module \"b.so\" }\n");
    vxtest::OomSweepAll({[] { Prepare(); }, [] { return HostStartup() == 1 && HostNumServers("Tool") == 2; },
                         [] { EXPECT_TRUE(!HostRunning() && !g_host.classes.count && !g_host.port); },
                         [] { Finish(true); }});
    // Inside an outer block a failed start raises: code 99 when the built-in classes or the
    // standard loader could not be made, code 1 for other exhausted memory.
    std::set<int> codes;
    for (int k = 1, started = 0; k < 500 && !started; ++k) {
        vxtest::FaultAllocator heap;
        Prepare();
        heap.FailAt(k, vxtest::FailMode::FromThen);
        volatile int code = 0;
        if (CkptBegin())
            code = CkptLatchCode();
        else
            HostStartup(), CkptEnd();
        heap.Disarm();
        started = HostRunning();
        Finish(true);
        codes.insert(started ? 1000 + code : code);  // 1000: the start that succeeded, with its code
    }
    EXPECT_EQ(codes, (std::set<int>{1, 99, 1000}));
}

TEST_F(HostOomTest, AddPlugInAddModuleAndDatabaseRead)
{
    const auto twoServers = [] {
        HostAddPlugIn("Tool", "S", "old name", "old.so"), HostAddPlugIn("Tool", "T", "other", "other.so");
    };
    for (const char *module : {"new.so", "old.so"}) {
        for (const char *cls : {"Tool", "NewClass"}) {
            SCOPED_TRACE(std::string(module) + " " + cls);
            Sweep(twoServers, [&] { return HostAddPlugIn(cls, "S", "A user name", module) == 1; });
        }
    }
    Sweep([] { HostAddPlugIn("MeshEditTool", "Example_Box", "stale name", "example_shapes.so"); },
          [] { return HostAddModule("example_shapes.so", nullptr) == 3; });
    const std::string file = DbFile() + ".in";
    WriteFile(file, "Entry { Class \"Tool\" Name \"A\" Module \"a.so\" InfoTag 0 \"Ay\" InfoTag 1 \"Ay1\" }\n"
                    "Entry { Class \"New\" Name \"B\" Module \"b.so\" }\n");
    Sweep([] { HostAddPlugIn("Tool", "A", "old tag", "a.so"), HostAddPlugIn("Tool", "Stale", nullptr, "s.so"); },
          [&] { return vx::host::ReadDatabaseFile(file.c_str()); });
}

}  // namespace
