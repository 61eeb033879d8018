#include <vxtools3/ckpt.h>
#include <vxtools3/config.h>
#include <vxtools3/lists.h>
#include <vxtools3/platform.h>
#include <vxtools3/ports.h>

#include "services/config_test_util.h"
#include "testkit/capture.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

class ConfigNameTest : public ::testing::Test {
protected:
    void TearDown() override { FileSetSystemPath(SYSTEM_PATH_CONFIG, nullptr); }
    vxtest::TempDir dir_;
};

TEST_F(ConfigNameTest, NamesFromDirectoryBaseAndSystemPathFive)
{
    const std::string d = dir_.Path(), file = dir_.File("settings.txt");
    const std::string tooLong(4096 - d.size() - 1 - 4, 'b'), fits = tooLong.substr(1);  // 4096 and 4095 bytes
    std::ofstream(file) << "x\n";
    struct Case {
        std::string dir;
        const char *base;
        std::string expect;  // "" for null
    };
    const Case cases[] = {
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
    for (const Case &c : cases) {
        const char *name = ConfigGenerateName(c.dir.c_str(), c.base, "ignored");
        EXPECT_EQ(name ? std::string(name) : "", c.expect) << c.dir;
    }
    ASSERT_EQ(FileSetSystemPath(SYSTEM_PATH_CONFIG, d.c_str()), 1);
    EXPECT_EQ(std::string(ConfigGenerateName(nullptr, "Modeler", nullptr)), d + "/MODELER.CFG");
    EXPECT_EQ(std::string(ConfigGenerateName("", "Modeler", nullptr)), d + "/MODELER.CFG");
    ASSERT_EQ(FileSetSystemPath(SYSTEM_PATH_CONFIG, file.c_str()), 1);  // path 5 may name a file
    EXPECT_EQ(std::string(ConfigGenerateName(nullptr, "Modeler", nullptr)), file);
}

}  // namespace

// ---- export and import ----

namespace {

using cfgtest::ReadFile;
using cfgtest::Snapshot;
using cfgtest::TakeSnapshot;
using cfgtest::WriteFile;

std::vector<std::string> g_changes;

void Changed(uintptr_t, const char *name)
{
    g_changes.push_back(name);
}

class ConfigFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_changes.clear();
        client_ = ConfigAddClient(nullptr, 0);
    }
    void TearDown() override { ConfigRemClient(client_); }
    std::string File(const char *name) const { return dir_.File(name); }
    VxConfigClient *client_ = nullptr;
    vxtest::TempDir dir_;
};

TEST_F(ConfigFileTest, ExportWritesTypedExportedEntriesInEntryOrder)
{
    ASSERT_EQ(ConfigDefineValue("Window", "iiii"), 1);
    ASSERT_EQ(ConfigDefineValue("Recent", "s"), 1);
    ASSERT_EQ(ConfigDefineValue("Hidden", "i"), 1);
    ASSERT_EQ(ConfigDefineValue("Scale", "f"), 1);
    const char *const hidden[] = {"Hidden", nullptr};
    ASSERT_EQ(ConfigTrackValues(hidden, nullptr, 0, 0), 1);  // export flag 0
    ConfigISet("Recent", 0, "/home/u/a scene.lws");
    ConfigSet("Window", 10, 20, -640, 480);
    ConfigISet("Recent", 1, "b.lws");
    ConfigSet("Hidden", 1);
    ConfigSet("Scale", 2.5e-8);
    ConfigRawSet("Untyped", 0, "never written");
    const std::string path = File("out.cfg");
    ASSERT_EQ(ConfigExport(path.c_str(), nullptr), 1);
    EXPECT_EQ(ReadFile(path),
              "Recent /home/u/a scene.lws\n"
              "Window 10 20 -640 480\n"
              "Recent b.lws\n"
              "Scale 2.5e-08\n");
    const char *const some[] = {"Scale", "Hidden", "Nobody", nullptr};
    ASSERT_EQ(ConfigExport(path.c_str(), some), 1);
    EXPECT_EQ(ReadFile(path), "Scale 2.5e-08\n");
    EXPECT_EQ(ConfigExport((dir_.Path() + "/missing/dir/x.cfg").c_str(), nullptr), 0);
}

TEST_F(ConfigFileTest, ExportImportRoundTripIsByteExact)
{
    ASSERT_EQ(ConfigDefineValue("Mixed", "fisst"), 1);
    ASSERT_EQ(ConfigDefineValue("Plain", "s"), 1);
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
    ASSERT_EQ(ConfigDefineValue("a", "i"), 1);
    ASSERT_EQ(ConfigDefineValue("b", "i"), 1);
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
    const std::string long1 = std::string(1020, 'x') + "TAIL_DROPPED";
    const std::string path = File("shapes.cfg");
    WriteFile(path, std::string("  \tindented  value one\r\n") + "nameonly\n" + "nameblank   \n\n" + "v " + long1 +
                        "\n" + "after 1\n" + std::string("nul a\0b c\n", 10) + "crlf x\r\r\n" + "last no newline");
    ASSERT_EQ(ConfigImport(path.c_str(), nullptr), 1);
    const std::string kept = std::string(1020, 'x') + "T";  // the line keeps 1023 characters
    EXPECT_EQ(TakeSnapshot(), (Snapshot{{"indented", {"value one"}},
                                        {"v", {kept}},
                                        {"after", {"1"}},
                                        {"nul", {"a"}},
                                        {"crlf", {"x\r"}},
                                        {"last", {"no newline"}}}));
}

TEST_F(ConfigFileTest, AFileThatCannotBeOpenedChangesNothing)
{
    ASSERT_EQ(ConfigDefineValue("a", "i"), 1);
    ConfigSet("a", 1);
    const char *const names[] = {"a", nullptr};
    ASSERT_EQ(ConfigTrackValues(names, Changed, 0, 1), 1);
    g_changes.clear();
    const Snapshot before = TakeSnapshot();
    EXPECT_EQ(ConfigImport(File("absent.cfg").c_str(), nullptr), 0);
    EXPECT_EQ(ConfigImport(dir_.Path().c_str(), nullptr), 0) << "a directory opens but cannot be read";
    EXPECT_EQ(TakeSnapshot(), before);
    EXPECT_TRUE(g_changes.empty());
}

std::vector<std::string> g_events;

void SyncLog(uintptr_t data, int32_t direction)
{
    g_events.push_back("sync" + std::to_string(data) + (direction ? "+" : "-"));
}

void ChangeLog(uintptr_t, const char *name)
{
    g_events.push_back(std::string("changed ") + name);
}

TEST_F(ConfigFileTest, ImportSynchronisesAroundAHoldAndNotifiesOnce)
{
    VxConfigClient *c = ConfigAddClient(SyncLog, 1);
    ASSERT_EQ(ConfigDefineValue("a", "i"), 1);
    ASSERT_EQ(ConfigDefineValue("b", "i"), 1);
    ASSERT_EQ(ConfigDefineValue("quiet", "i"), 1);
    const char *const names[] = {"a", "b", "quiet", nullptr};
    ASSERT_EQ(ConfigTrackValues(names, ChangeLog, 0, 1), 1);
    const std::string path = File("n.cfg");
    WriteFile(path, "b 1\na 2\nb 3\n");
    g_events.clear();
    ASSERT_EQ(ConfigImport(path.c_str(), nullptr), 1);
    EXPECT_EQ(g_events, (std::vector<std::string>{"sync1+", "sync1-", "changed a", "changed b"}));
    g_events.clear();
    ASSERT_EQ(ConfigExport(path.c_str(), nullptr), 1);
    EXPECT_EQ(g_events, (std::vector<std::string>{"sync1+"}));
    ConfigRemClient(c);
}

// ---- start-up, the default file and the events port ----

TEST_F(ConfigFileTest, StartupReadsTheDefaultFileAndShutdownWritesIt)
{
    ConfigRemClient(client_);
    client_ = nullptr;
    const std::string file = dir_.File("LAYOUT.CFG");
    WriteFile(file, "Speed 12\n");
    ASSERT_EQ(ConfigStartup(dir_.Path().c_str(), "Layout", 1), 1);
    EXPECT_EQ(ConfigStartup(dir_.Path().c_str(), "Layout", 1), 0);
    EXPECT_EQ(std::string(FileSystemPath(SYSTEM_PATH_CONFIG)), dir_.Path());
    ASSERT_EQ(ConfigDefineValue("Speed", "i"), 1);
    int32_t speed = 0;
    ASSERT_EQ(ConfigGet("Speed", &speed), 1);
    EXPECT_EQ(speed, 12);

    ConfigSet("Speed", 13);
    PublicPortNotify("unrelated", CONFIG_EVENT_WRITE, 0, 0);
    EXPECT_EQ(ReadFile(file), "Speed 12\n");
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
    GlobalListCleanup();
}

TEST_F(ConfigFileTest, StartupWithAFileNameAndNoReading)
{
    ConfigRemClient(client_);
    client_ = nullptr;
    const std::string file = dir_.File("custom.cfg");
    ASSERT_EQ(ConfigStartup(file.c_str(), "ignored", 1), 1);  // missing file: a first start
    EXPECT_EQ(std::string(FileSystemPath(SYSTEM_PATH_CONFIG)), dir_.Path());
    ASSERT_EQ(ConfigDefineValue("k", "t"), 1);
    ConfigSet("k", "v");
    ConfigShutdown();
    EXPECT_EQ(ReadFile(file), "k v\n");

    ASSERT_EQ(ConfigStartup(nullptr, "ignored", 0), 1);  // no default file
    EXPECT_EQ(ConfigDefaultWrite(), 0);
    EXPECT_EQ(ConfigRevert(), 0);
    ConfigShutdown();
    FileSetSystemPath(SYSTEM_PATH_CONFIG, nullptr);
    GlobalListCleanup();
}

// ---- out of memory ----

TEST(ConfigFileOomTest, ImportLeavesTheStoreAsItWas)
{
    vxtest::TempDir dir;
    const std::string path = dir.File("sweep.cfg");
    std::string text;
    for (int i = 0; i < 40; ++i)
        text += "new" + std::to_string(i % 13) + " value " + std::to_string(i) + "\nold " + std::to_string(i) + " w\n";
    WriteFile(path, text);
    VxConfigClient *client = nullptr;
    Snapshot before;
    vxtest::OomSweepAll({[&] {
                             client = ConfigAddClient(nullptr, 0);
                             ConfigDefineValue("old", "is");
                             ConfigSet("old", 1, "one");
                             ConfigISet("old", 1, 2, "two");
                             ConfigRawSet("other", 0, "kept");
                             before = TakeSnapshot();
                         },
                         [&] { return ConfigImport(path.c_str(), nullptr) == 1; },
                         [&] { EXPECT_EQ(TakeSnapshot(), before); }, [&] { ConfigRemClient(client); }});
}

TEST(ConfigFileOomTest, StartupUndoesEverything)
{
    vxtest::TempDir dir;
    WriteFile(dir.File("APP.CFG"), "a 1\nb 2\n");
    // The process-wide port list is made once and kept until GlobalListCleanup; make it first.
    const auto makePortList = [] {
        GlobalPortAttach("application-events", 1, 0, nullptr);
        GlobalPortDetach("application-events", 1);
    };
    vxtest::OomSweepAll({makePortList, [&] { return ConfigStartup(dir.Path().c_str(), "app", 1) == 1; },
                         [] { EXPECT_EQ(ConfigNextValue(nullptr), nullptr); },
                         [] {
                             ConfigShutdown();
                             GlobalListCleanup();
                         }});
    FileSetSystemPath(SYSTEM_PATH_CONFIG, nullptr);
}

}  // namespace

namespace {

void ShutdownArm(uintptr_t, uintptr_t)
{
    ConfigShutdown();
}

TEST(ConfigRecoveryTest, ShutdownDuringAnUnwindDoesNotWriteTheFile)
{
    vxtest::TempDir dir;
    const std::string file = dir.File("APP.CFG");
    cfgtest::WriteFile(file, "a 1\n");
    ASSERT_EQ(ConfigStartup(dir.Path().c_str(), "app", 1), 1);
    ASSERT_EQ(ConfigDefineValue("a", "i"), 1);
    ConfigSet("a", 2);
    if (!CkptBegin()) {
        CkptArm(ShutdownArm, 0, 0);
        CkptRecover(7);  // the half-done state must not reach the file
    }
    EXPECT_EQ(CkptLatchCode(), 7);
    EXPECT_EQ(ConfigNextValue(nullptr), nullptr);
    EXPECT_EQ(cfgtest::ReadFile(file), "a 1\n");
    FileSetSystemPath(SYSTEM_PATH_CONFIG, nullptr);
    GlobalListCleanup();
}

}  // namespace
