#include <vxtools3/lists.h>
#include <vxtools3/ports.h>

#include "services/config_test.h"
#include "testkit/oom_sweep.h"

using namespace cfgtest;

namespace {

using ConfigFileTest = StoreTest;

// Start-up makes its own store: no client is kept, and the process-wide port list goes after.
class ConfigStartupTest : public StoreTest {
protected:
    void SetUp() override { StoreTest::SetUp(), ConfigRemClient(client_), client_ = nullptr; }
    void TearDown() override { StoreTest::TearDown(), GlobalListCleanup(); }
};

TEST_F(ConfigStartupTest, NamesFromDirectoryBaseAndSystemPathFive)
{
    const std::string d = dir_.Path(), file = File("settings.txt");
    const std::string tooLong(4096 - d.size() - 1 - 4, 'b'), fits = tooLong.substr(1);  // 4096 and 4095 bytes
    WriteFile(file, "x\n");
    const struct {
        std::string dir;
        const char *base;
        std::string expect;  // "" for null
    } cases[] = {
        {d, "layout", d + "/LAYOUT.CFG"},
        // A trailing slash adds no second one; only ASCII letters change case.
        {d + "/", "mod-3d_x\xc3\xa9", d + "/MOD-3D_X\xc3\xa9.CFG"},
        {"/no/such/dir/", "a", "/no/such/dir/A.CFG"},  // a slash makes it a directory
        {file, "layout", file},                        // anything else is the file itself
        {d + "/new.cfg", nullptr, d + "/new.cfg"},
        {d, nullptr, ""},
        {d, "", ""},
        {d, tooLong.c_str(), ""},
        {d, fits.c_str(), d + "/" + std::string(fits.size(), 'B') + ".CFG"},
    };
    for (const auto &c : cases) {
        const char *name = ConfigGenerateName(c.dir.c_str(), c.base, "ignored");
        EXPECT_EQ(name ? std::string(name) : "", c.expect) << c.dir;
    }
    ASSERT_EQ(FileSetSystemPath(SYSTEM_PATH_CONFIG, d.c_str()), 1);
    EXPECT_EQ(std::string(ConfigGenerateName(nullptr, "Modeler", nullptr)), d + "/MODELER.CFG");
    EXPECT_EQ(std::string(ConfigGenerateName("", "Modeler", nullptr)), d + "/MODELER.CFG");
    ASSERT_EQ(FileSetSystemPath(SYSTEM_PATH_CONFIG, file.c_str()), 1);  // path 5 may name a file
    EXPECT_EQ(std::string(ConfigGenerateName(nullptr, "Modeler", nullptr)), file);
}

TEST_F(ConfigFileTest, ExportWritesTypedExportedEntriesInEntryOrder)
{
    Define({{"Window", "iiii"}, {"Recent", "s"}, {"Hidden", "i"}, {"Scale", "f"}});
    const char *const hidden[] = {"Hidden", nullptr}, *const some[] = {"Scale", "Hidden", "Nobody", nullptr};
    ASSERT_EQ(ConfigTrackValues(hidden, nullptr, 0, 0), 1);  // export flag 0
    ConfigISet("Recent", 0, "/home/u/a scene.lws");
    ConfigSet("Window", 10, 20, -640, 480);
    ConfigISet("Recent", 1, "b.lws");
    ConfigSet("Hidden", 1), ConfigSet("Scale", 2.5e-8), ConfigRawSet("Untyped", 0, "never written");
    const std::string path = File("out.cfg");
    ASSERT_EQ(ConfigExport(path.c_str(), nullptr), 1);
    EXPECT_EQ(ReadFile(path), "Recent /home/u/a scene.lws\nWindow 10 20 -640 480\nRecent b.lws\nScale 2.5e-08\n");
    ASSERT_EQ(ConfigExport(path.c_str(), some), 1);
    EXPECT_EQ(ReadFile(path), "Scale 2.5e-08\n");
    EXPECT_EQ(ConfigExport((dir_.Path() + "/missing/dir/x.cfg").c_str(), nullptr), 0);
}

TEST_F(ConfigFileTest, ExportImportRoundTripIsByteExact)
{
    Define({{"Mixed", "fisst"}, {"Plain", "s"}});
    ConfigISet("Mixed", 0, 0.1, -2147483647 - 1, "a \"b\"\\c", "bare", "tail with blanks");
    ConfigISet("Mixed", 1, 1e300, 2147483647, "", "x", "\tstarts with a tab");
    ConfigSet("Plain", "C:\\Program Files\\Vexmark");
    const std::string first = File("first.cfg"), second = File("second.cfg");
    ASSERT_EQ(ConfigExport(first.c_str(), nullptr), 1);
    const Snapshot before = TakeSnapshot();
    ConfigClearAll();
    ASSERT_EQ(ConfigImport(first.c_str(), nullptr), 1);
    EXPECT_EQ(TakeSnapshot(), before);
    ASSERT_EQ(ConfigExport(second.c_str(), nullptr), 1);
    EXPECT_EQ(ReadFile(second), ReadFile(first));
}

TEST_F(ConfigFileTest, ImportingTwiceDoesNotDuplicateMarkedValues)
{
    Define({{"a", "i"}, {"b", "i"}});
    ConfigSet("a", 99);
    const std::string path = File("in.cfg");
    WriteFile(path, "a 1\nb 2\na 3\nnew x y\n");
    ASSERT_EQ(ConfigImport(path.c_str(), nullptr), 1);
    ASSERT_EQ(ConfigImport(path.c_str(), nullptr), 1);
    EXPECT_EQ(TakeSnapshot(), (Snapshot{{"a", {"1", "3"}}, {"b", {"2"}}, {"new", {"x y"}}}));
    // Only "b" is marked: it is replaced, the others only gain entries.
    const char *const onlyB[] = {"b", nullptr};
    ASSERT_EQ(ConfigImport(path.c_str(), onlyB), 1);
    EXPECT_EQ(TakeSnapshot(), (Snapshot{{"a", {"1", "3", "1", "3"}}, {"b", {"2"}}, {"new", {"x y", "x y"}}}));
    // The unknown name came without a type: it is not written until it is defined.
    ASSERT_EQ(ConfigExport(path.c_str(), nullptr), 1);
    EXPECT_EQ(ReadFile(path), "a 1\na 3\na 1\nb 2\na 3\n");
}

TEST_F(ConfigFileTest, LineShapesLongLinesAndJunk)
{
    const std::string long1 = std::string(1020, 'x') + "TAIL_DROPPED", path = File("shapes.cfg");
    WriteFile(path, std::string("  \tindented  value one\r\n") + "nameonly\n" + "nameblank   \n\n" + "v " + long1 +
                        "\n" + "after 1\n" + std::string("nul a\0b c\n", 10) + "crlf x\r\r\n" + "last no newline");
    ASSERT_EQ(ConfigImport(path.c_str(), nullptr), 1);
    const std::string kept = std::string(1020, 'x') + "T";  // the line keeps 1023 characters
    EXPECT_EQ(TakeSnapshot(), (Snapshot{{"indented", {"value one"}}, {"v", {kept}}, {"after", {"1"}}, {"nul", {"a"}},
                                        {"crlf", {"x\r"}}, {"last", {"no newline"}}}));
}

TEST_F(ConfigFileTest, ImportSynchronisesAroundAHoldAndNotifiesOnce)
{
    VxConfigClient *c = ConfigAddClient(Sync, 1);
    Define({{"a", "i"}, {"b", "i"}, {"quiet", "i"}});
    const char *const names[] = {"a", "b", "quiet", nullptr};
    ASSERT_EQ(ConfigTrackValues(names, Note, 0, 1), 1);
    const std::string path = File("n.cfg");
    WriteFile(path, "b 1\na 2\nb 3\n");
    Taken();
    ASSERT_EQ(ConfigImport(path.c_str(), nullptr), 1);
    EXPECT_EQ(Taken(), (Log{"1+", "1-", "0:a", "0:b"}));
    ASSERT_EQ(ConfigExport(path.c_str(), nullptr), 1);
    EXPECT_EQ(Taken(), Log{"1+"});
    ConfigRemClient(c);
    // A file that cannot be opened or read changes nothing and notifies no one.
    const Snapshot before = TakeSnapshot();
    EXPECT_EQ(ConfigImport(File("absent.cfg").c_str(), nullptr), 0);
    EXPECT_EQ(ConfigImport(dir_.Path().c_str(), nullptr), 0) << "a directory opens but cannot be read";
    EXPECT_EQ(TakeSnapshot(), before);
    EXPECT_EQ(g_log, Log{});
}

TEST_F(ConfigStartupTest, StartupReadsTheDefaultFileAndShutdownWritesIt)
{
    const std::string file = File("LAYOUT.CFG");
    WriteFile(file, "Speed 12\n");
    ASSERT_EQ(ConfigStartup(dir_.Path().c_str(), "Layout", 1), 1);
    EXPECT_EQ(ConfigStartup(dir_.Path().c_str(), "Layout", 1), 0);
    EXPECT_EQ(std::string(FileSystemPath(SYSTEM_PATH_CONFIG)), dir_.Path());
    Define({{"Speed", "i"}});
    EXPECT_STREQ(ConfigRawGet("Speed", 0), "12");
    ConfigSet("Speed", 13);
    PublicPortNotify("unrelated", CONFIG_EVENT_WRITE, 0, 0);
    VxPort *events = GlobalPortAcquire("application-events", 0, 77, nullptr);
    ASSERT_NE(events, nullptr);
    PortNotify(events, 77, 0, 4, 0, 0);
    EXPECT_EQ(ReadFile(file), "Speed 12\n");
    PortNotify(events, 77, 0, CONFIG_EVENT_WRITE, 0, 0);
    EXPECT_EQ(ReadFile(file), "Speed 13\n");
    ConfigSet("Speed", 14);
    WriteFile(file, "Speed 20\nSpeed 21\n");
    ASSERT_EQ(ConfigRevert(), 1);
    EXPECT_EQ(ConfigNum("Speed"), 2);
    ConfigSet("Speed", 15);
    ConfigShutdown();
    EXPECT_EQ(ReadFile(file), "Speed 15\n");
    EXPECT_EQ(ConfigNextValue(nullptr), nullptr);
    PortNotify(events, 77, 0, CONFIG_EVENT_WRITE, 0, 0);  // detached: nothing happens
    PortDestroy(events);
}

TEST_F(ConfigStartupTest, StartupWithAFileNameAndNoReading)
{
    const std::string file = File("custom.cfg");
    ASSERT_EQ(ConfigStartup(file.c_str(), "ignored", 1), 1);  // missing file: a first start
    EXPECT_EQ(std::string(FileSystemPath(SYSTEM_PATH_CONFIG)), dir_.Path());
    Define({{"k", "t"}});
    ConfigSet("k", "v");
    ConfigShutdown();
    EXPECT_EQ(ReadFile(file), "k v\n");
    ASSERT_EQ(ConfigStartup(nullptr, "ignored", 0), 1);  // no default file
    EXPECT_EQ(ConfigDefaultWrite() + ConfigRevert(), 0);
    ConfigShutdown();
}

TEST_F(ConfigStartupTest, ShutdownDuringAnUnwindDoesNotWriteTheFile)
{
    const std::string file = File("APP.CFG");
    WriteFile(file, "a 1\n");
    ASSERT_EQ(ConfigStartup(dir_.Path().c_str(), "app", 1), 1);
    Define({{"a", "i"}});
    ConfigSet("a", 2);
    if (!CkptBegin()) {
        CkptArm([](uintptr_t, uintptr_t) { ConfigShutdown(); }, 0, 0);
        CkptRecover(7);  // the half-done state must not reach the file
    }
    EXPECT_EQ(CkptLatchCode(), 7);
    EXPECT_EQ(ConfigNextValue(nullptr), nullptr);
    EXPECT_EQ(ReadFile(file), "a 1\n");
}

TEST_F(ConfigStartupTest, OutOfMemoryInImportOrStartupLeavesNoTrace)
{
    const std::string path = File("sweep.cfg");
    std::string text;
    for (int i = 0; i < 40; ++i)
        text += "new" + std::to_string(i % 13) + " value " + std::to_string(i) + "\nold " + std::to_string(i) + " w\n";
    WriteFile(path, text);
    Snapshot before;
    vxtest::OomSweepAll({[&] {
                             client_ = ConfigAddClient(nullptr, 0);
                             ConfigDefineValue("old", "is");
                             ConfigSet("old", 1, "one");
                             ConfigISet("old", 1, 2, "two");
                             ConfigRawSet("other", 0, "kept");
                             before = TakeSnapshot();
                         },
                         [&] { return ConfigImport(path.c_str(), nullptr) == 1; },
                         [&] { EXPECT_EQ(TakeSnapshot(), before); }, [&] { ConfigRemClient(client_); }});
    client_ = nullptr;
    WriteFile(File("APP.CFG"), "a 1\nb 2\n");
    // The process-wide port list is made once and kept until GlobalListCleanup; make it first.
    vxtest::OomSweepAll({[] {
                             GlobalPortAttach("application-events", 1, 0, nullptr);
                             GlobalPortDetach("application-events", 1);
                         },
                         [&] { return ConfigStartup(dir_.Path().c_str(), "app", 1) == 1; },
                         [] { EXPECT_EQ(ConfigNextValue(nullptr), nullptr); },
                         [] {
                             ConfigShutdown();
                             GlobalListCleanup();
                         }});
}

}  // namespace
