// Scans in the module scanner against the failure fixtures of host/fixtures: each fixture gives
// its one line, the good modules beside them register and activate afterwards, failures are
// remembered across runs, the scanner's reply is read with suspicion, and a save killed at any
// moment leaves the old or the new database.
#include <vxtools3/host.h>
#include <vxtools3/platform.h>

#include "host/host_internal.h"
#include "host/scan_reply.h"
#include "host/scan_reply_writer.h"
#include "testkit/capture.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::map<std::string, std::string>;
const std::string kFixtures = VX_FIXTURE_DIR, kPlugins = VX_PLUGIN_DIR;

std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The line vxtool prints for a file, keyed by the file's name.
void Collect(void *data, const char *path, int32_t outcome, int32_t servers, const char *reason)
{
    static const char *const kWords[] = {"registered", "unchanged", "skipped", "", "", "", "", "error: "};
    std::string line = kWords[outcome];
    if (outcome <= HOST_SCAN_UNCHANGED)
        line += " " + std::to_string(servers) + " server" + (servers == 1 ? "" : "s");
    else if (outcome == HOST_SCAN_SKIPPED)
        line += " (" + std::string(reason) + ")";
    else
        line += reason;
    (*static_cast<Lines *>(data))[fs::path(path).filename()] = line;
}

class ScanTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        HostScanSetHelper(VX_MODSCAN), HostScanSetTimeLimit(1000);
        FileSetSystemPath(SYSTEM_PATH_HOST, modules_.Path().c_str()), HostSetDatabase(db_.Path().c_str());
    }
    void TearDown() override
    {
        while (HostRunning())
            HostShutdown();
        HostSetDatabase(nullptr), HostScanSetHelper(nullptr), HostScanSetTimeLimit(0), GlobalListCleanup();
        FileSetSystemPath(SYSTEM_PATH_HOST, nullptr);
    }
    void Copy(const std::string &from, const std::string &name)
    {
        fs::copy_file(from, Module(name), fs::copy_options::overwrite_existing);
    }
    std::string Module(const std::string &name) const { return modules_.File(name); }
    Lines ScanAll()
    {
        Lines lines;
        const int32_t scanned = HostScanDirectory(modules_.Path().c_str(), Collect, &lines);
        EXPECT_EQ(scanned, static_cast<int32_t>(lines.size()));
        return lines;
    }

    vxtest::TempDir modules_, db_;
};

const char *const kFixtureFiles[] = {"fixture_abort.so", "fixture_segv.so", "fixture_startsegv.so", "fixture_hang.so",
    "fixture_exit.so", "fixture_nodescrip.so", "fixture_badsync.so", "fixture_version4.so", "fixture_othercpu.so",
    "fixture_nullstartup.so", "fixture_unresolved.so", "fixture_notelf.so", "fixture_empty.so", "fixture_good.so"};

TEST_F(ScanTest, EachFixtureGivesItsLineAndTheGoodModulesBesideThemRegister)
{
    for (const char *file : kFixtureFiles)
        Copy(kFixtures + "/" + file, file);
    Copy(kPlugins + "/example_shapes.so", "example_shapes.so"), Copy(kPlugins + "/example_legacy.so", "example_legacy.so");
    fs::create_directory(Module("fixture_directory.so")), std::ofstream(Module("README.txt")) << "not a module name";
    ASSERT_EQ(HostStartup(), 1);
    const std::string dir = modules_.Path() + "/";
    const auto null = [](const std::string &file) { return "; plug-in module " + file + " returned NULL startup data"; };
    const auto unloaded = [](const std::string &file) { return "; could not load module " + file; };
    const Lines expected = {
        {"fixture_abort.so", "crashed: SIGABRT"},
        {"fixture_segv.so", "crashed: SIGSEGV"},
        {"fixture_startsegv.so", "crashed: SIGSEGV"},
        {"fixture_hang.so", "timed out after 1 s"},
        {"fixture_exit.so", "exited with status 0 before answering"},
        {"fixture_nodescrip.so", "refused: DLL without _mod_descrip symbol -- " + dir + "fixture_nodescrip.so" +
                                     unloaded("fixture_nodescrip.so")},
        {"fixture_badsync.so", "refused: module fixture_badsync.so is not a plug-in; sync=0x19941204" +
                                   null("fixture_badsync.so")},
        {"fixture_version4.so", "refused: plug-in module fixture_version4.so is out of date; version=4" +
                                    null("fixture_version4.so")},
        {"fixture_othercpu.so", "refused: plug-in module fixture_othercpu.so is for a different cpu; type=0x400" +
                                    null("fixture_othercpu.so")},
        {"fixture_nullstartup.so", "refused:" + null("fixture_nullstartup.so").substr(1)},
        {"fixture_unresolved.so", "refused: DLL not found -- " + dir +
                                      "fixture_unresolved.so: undefined symbol: vx_fixture_missing_symbol" +
                                      unloaded("fixture_unresolved.so")},
        {"fixture_notelf.so", "refused: loader VX_StandardLoader activation error" + unloaded("fixture_notelf.so")},
        {"fixture_empty.so", "refused: loader VX_StandardLoader activation error" + unloaded("fixture_empty.so")},
        {"fixture_directory.so", "refused: not a regular file"},
        {"fixture_good.so", "registered 1 server"},
        {"example_shapes.so", "registered 3 servers"},
        {"example_legacy.so", "registered 1 server"},
    };
    vxtest::DebugCapture capture;
    const Lines lines = ScanAll();
    EXPECT_EQ(lines, expected);
    // The refusals are the messages an in-process load prints, and the host's debug output
    // has them as such.
    std::string scanned = capture.Text();
    for (const auto &[file, line] : expected) {
        if (line.rfind("refused: ", 0) != 0 || file == "fixture_directory.so")
            continue;
        vxtest::DebugCapture inProcess;
        EXPECT_EQ(HostAddModule(file.c_str(), nullptr), -1) << file;
        std::string joined = inProcess.Text();
        EXPECT_NE(scanned.find(joined), std::string::npos) << file;
        for (size_t at; (at = joined.find('\n')) != std::string::npos;)
            joined.replace(at, 1, at + 1 == joined.size() ? "" : "; ");
        EXPECT_EQ("refused: " + joined, line);
    }
    // The good modules load here only now, on their first activation.
    EXPECT_EQ(ServerModuleLoaded("MeshEditTool", "Example_Box"), 0);
    int32_t count = 0;
    EXPECT_EQ(HostActivateVer("MeshEditTool", "Example_Box", &count, 2), 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(HostActivateVer("ImageLoader", "Example_Legacy", &count, 1), 0);
    EXPECT_EQ(HostActivateVer("CommandSequence", "Example_Fixture", nullptr, 1), 0);
    EXPECT_STREQ(ServerGetModule("CommandSequence", 0), "fixture_good.so");
    EXPECT_STREQ(ServerGetUserName("MeshEditTool", 0), "Box");  // the tags came over the pipe
    EXPECT_EQ(HostFailedCount(), 13);
}

TEST_F(ScanTest, FailuresAreRememberedUntilTheFileChanges)
{
    for (const char *file : {"fixture_hang.so", "fixture_version4.so", "fixture_good.so"})
        Copy(kFixtures + "/" + file, file);
    ASSERT_EQ(HostStartup(), 1);
    const Lines first = ScanAll();
    const auto started = std::chrono::steady_clock::now();
    const Lines again = ScanAll();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500)) << "nothing ran again";
    EXPECT_EQ(again, (Lines{{"fixture_good.so", "unchanged 1 server"},
                            {"fixture_hang.so", "skipped (timed out after 1 s)"},
                            {"fixture_version4.so", "skipped (" + first.at("fixture_version4.so") + ")"}}));
    // The records live in the database: a new run still skips; a changed file is run again.
    HostShutdown();
    HostSetDatabase(db_.Path().c_str());
    ASSERT_EQ(HostStartup(), 1);
    ASSERT_EQ(HostFailedCount(), 2);
    const char *reason = nullptr;
    EXPECT_STREQ(HostFailedModule(0, &reason), "fixture_version4.so");
    EXPECT_EQ(reason, first.at("fixture_version4.so"));
    EXPECT_EQ(ScanAll(), again);
    Copy(kFixtures + "/fixture_good.so", "fixture_version4.so");
    EXPECT_EQ(ScanAll().at("fixture_version4.so"), "registered 1 server");
    EXPECT_EQ(HostFailedCount(), 1);
    // A module the application holds is not scanned; a missing scanner is no module's fault.
    EXPECT_EQ(HostLockServer("CommandSequence", "Example_Fixture"), 1);
    fs::remove(Module("fixture_version4.so")), Copy(kFixtures + "/fixture_othercpu.so", "fixture_version4.so");
    EXPECT_EQ(ScanAll().at("fixture_version4.so"), "error: module in use");
    HostUnlockServer("CommandSequence", "Example_Fixture");
    HostScanSetHelper("/nonexistent/vxmodscan");
    EXPECT_EQ(ScanAll().at("fixture_version4.so"),
              "error: the module scanner /nonexistent/vxmodscan could not start: No such file or directory");
    EXPECT_EQ(HostFailedCount(), 1);
}

// A scanner that is not ours answers each file: the host keeps to what the pipe and the
// process's end tell it, and stops waiting at the time limit whatever the scanner does.
TEST_F(ScanTest, AHostileScannerCostsOneLineAndNoMoreThanTheTimeLimit)
{
    vxtest::TempDir scripts;
    const std::pair<const char *, std::string> cases[] = {
        {"printf 'VXSCAN1\\nX' >&3", "refused: the scanner's reply is damaged"},
        {"exit 3", "exited with status 3 before answering"},
        {"printf 'VXSCAN1\\nD\\0\\0\\0\\0' >&3; exit 4", "exited with status 4 before answering"},
        {"printf 'VXSCAN1\\nD\\0\\0\\0\\0' >&3; exec sleep 30", "timed out after 1 s"},
        {"sleep 30 >&3 & exit 0", "timed out after 1 s"},  // a child keeps the pipe open
        {"head -c 2000000 /dev/zero >&3", "refused: the scanner's reply is too long"},
        {"kill -KILL $$", "crashed: SIGKILL"},
        {"printf 'VXSCAN1\\nS\\1\\0A\\1\\0BD\\1\\0\\0\\0' >&3", "registered 1 server"},
    };
    ASSERT_EQ(HostStartup(), 1);
    int index = 0;
    for (const auto &[script, line] : cases) {
        const std::string helper = scripts.File("scanner" + std::to_string(index) + ".sh");
        const std::string module = "m" + std::to_string(index++) + ".so";
        std::ofstream(helper) << "#!/bin/sh\n" << script << "\n";
        fs::permissions(helper, fs::perms::owner_all);
        Copy(kFixtures + "/fixture_good.so", module);
        HostScanSetHelper(helper.c_str());
        Lines lines;
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(HostScanModules(std::vector<const char *>{module.c_str()}.data(), 1, Collect, &lines), 1);
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(2500)) << script;
        EXPECT_EQ(lines[module], line) << script;
    }
    EXPECT_STREQ(ServerGetModule("A", 0), "m7.so");
    EXPECT_EQ(HostFailedCount(), 7);
}

// The system reaps the scanner of an application that ignores SIGCHLD: the reply still counts,
// and a crash is still seen as a reply that never came.
TEST_F(ScanTest, AnApplicationThatIgnoresItsChildrenStillScans)
{
    Copy(kFixtures + "/fixture_good.so", "good.so"), Copy(kFixtures + "/fixture_segv.so", "segv.so");
    ASSERT_EQ(HostStartup(), 1);
    struct sigaction ignore {}, previous{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGCHLD, &ignore, &previous);
    const Lines lines = ScanAll();
    sigaction(SIGCHLD, &previous, nullptr);
    EXPECT_EQ(lines, (Lines{{"good.so", "registered 1 server"}, {"segv.so", "exited with status 0 before answering"}}));
}

// Every allocation of a scan failing in turn: the scan fails without a report and the
// catalogue, its records and its database text are as they were.
TEST_F(ScanTest, AScanThatRunsOutOfMemoryChangesNothing)
{
    Copy(kFixtures + "/fixture_version4.so", "refused.so"), Copy(kPlugins + "/example_shapes.so", "shapes.so");
    const std::string image = db_.File("image.cfg");
    const auto text = [&] { return vx::host::WriteDatabaseFile(image.c_str()), ReadFile(image); };
    HostSetDatabase(nullptr), GlobalListCleanup();  // made again under the counted heap
    const auto start = [&] {
        HostSetDatabase(db_.Path().c_str()), HostStartup(), HostAddPlugIn("Tool", "Old", "old", "old.so");
        GlobalPortAttach("warm-up", 1, 0, nullptr), GlobalPortDetach("warm-up", 1);
    };
    for (const char *module : {"refused.so", "shapes.so"}) {
        std::string before;
        Lines lines;
        vxtest::OomSweepAll({[&] { start(), before = text(); },
                             [&] { return lines.clear(), HostScanModules(&module, 1, Collect, &lines) == 1; },
                             [&] { EXPECT_TRUE(text() == before && lines.empty()); },
                             [] { while (HostRunning()) HostShutdown(); HostSetDatabase(nullptr), GlobalListCleanup(); }});
    }
}

TEST_F(ScanTest, CheckRecordsAreWrittenAndReadBack)
{
    Copy(kFixtures + "/fixture_abort.so", "abort.so"), Copy(kFixtures + "/fixture_good.so", "good.so");
    ASSERT_EQ(HostStartup(), 1);
    ScanAll();
    ASSERT_EQ(HostWriteDatabase(), 1);
    const auto stampOf = [&](const char *name) {
        struct stat info;
        stat(Module(name).c_str(), &info);
        return " " + std::to_string(info.st_size >> 32) + " " + std::to_string(info.st_size & 0xffffffff) + " " +
               std::to_string(info.st_mtim.tv_sec >> 32) + " " + std::to_string(info.st_mtim.tv_sec & 0xffffffff) +
               " " + std::to_string(info.st_mtim.tv_nsec);
    };
    const std::string file = ReadFile(HostDatabaseFile());
    const std::string checks = file.substr(file.find("Checked"));
    EXPECT_EQ(checks, "Checked {\n  Module \"abort.so\"\n  Stamp" + stampOf("abort.so") +
                          "\n  Failure \"crashed: SIGABRT\"\n}\nChecked {\n  Module \"good.so\"\n  Stamp" +
                          stampOf("good.so") + "\n}\n");
    HostShutdown();
    HostSetDatabase(db_.Path().c_str());
    ASSERT_EQ(HostStartup(), 1);
    ASSERT_EQ(HostWriteDatabase(), 1);
    EXPECT_EQ(ReadFile(HostDatabaseFile()), file);
}

// ---- The reply reader ------------------------------------------------------------------

std::string GoodReply()
{
    vx::host::ReplyWriter reply;
    reply.Server("Tool", "One"), reply.Tag(0, "One!"), reply.Tag(0x20000, "create"), reply.Server("Tool", "Two");
    reply.Done(2);
    return reply.Bytes();
}

vx::host::ReplyState Check(const std::string &bytes)
{
    vx::host::ReplySummary summary;
    return vx::host::CheckReply(bytes.data(), bytes.size(), &summary);
}

TEST(ScanReply, EveryCutIsIncompleteAndEveryDamageIsRefused)
{
    using vx::host::ReplyState;
    const std::string good = GoodReply();
    EXPECT_EQ(Check(good), ReplyState::Whole);
    for (size_t cut = 0; cut < good.size(); ++cut)
        EXPECT_EQ(Check(good.substr(0, cut)), ReplyState::Incomplete) << "cut " << cut;
    const auto build = [](auto &&fill) {
        vx::host::ReplyWriter reply;
        fill(reply);
        return reply.Bytes();
    };
    using W = vx::host::ReplyWriter;
    const std::pair<const char *, std::string> damaged[] = {
        {"magic", "VXSCAN2\n" + good.substr(8)},
        {"kind", good.substr(0, 8) + "X"},
        {"trailing bytes", good + "D"},
        {"tag first", build([](W &r) { r.Tag(0, "t"), r.Server("A", "B"), r.Done(1); })},
        {"count", build([](W &r) { r.Server("A", "B"), r.Done(2); })},
        {"servers and failure", build([](W &r) { r.Server("A", "B"), r.Done(-1); })},
        {"empty name", build([](W &r) { r.Server("A", ""), r.Done(1); })},
        {"control byte", build([](W &r) { r.Server("A", "B\nC"), r.Done(1); })},
        {"long class", build([](W &r) { r.Server(std::string(128, 'c'), "B"), r.Done(1); })},
        {"long tag", build([](W &r) { r.Server("A", "B"), r.Tag(0, std::string(512, 't')), r.Done(1); })},
        {"too many tags", build([](W &r) {
             r.Server("A", "B");
             for (int i = 0; i <= vx::host::kReplyMaxTags; ++i)
                 r.Tag(0, "t");
             r.Done(1);
         })},
        {"too many servers", build([](W &r) {
             for (int i = 0; i <= vx::host::kReplyMaxServers; ++i)
                 r.Server("A", std::to_string(i));
             r.Done(vx::host::kReplyMaxServers + 1);
         })},
    };
    for (const auto &[what, bytes] : damaged)
        EXPECT_EQ(Check(bytes), ReplyState::Damaged) << what;
    EXPECT_EQ(Check(build([](W &r) { r.Server("A", "Tab\there"), r.Message("m"), r.Done(1); })), ReplyState::Whole);
}

TEST_F(ScanTest, AWholeReplyRegistersItsServersWithTheirTags)
{
    ASSERT_EQ(HostStartup(), 1);
    ASSERT_EQ(HostAddBuiltIn("Tool", "Two", nullptr, nullptr), 1);  // a built-in is not replaced
    const std::string reply = GoodReply();
    vxtest::DebugCapture capture;
    EXPECT_EQ(vx::host::RegisterReply(reply.data(), reply.size(), "m.so"), 1);
    EXPECT_EQ(capture.Text(), "attempt to replace built-in server Tool:Two\n");
    EXPECT_STREQ(ServerGetModule("Tool", 0), "m.so");
    EXPECT_EQ(std::string(ServerGetUserName("Tool", 0)) + ServerGetInfoTag("Tool", 0, 2), "One!create");
}

// ---- Saving the database ---------------------------------------------------------------

// A child process saves the database over and over and is killed after a growing delay: the
// file found afterwards is always the old one or the new one, byte for byte.
TEST_F(ScanTest, ADatabaseKilledDuringItsSaveIsTheOldOrTheNewOne)
{
    ASSERT_EQ(HostStartup(), 1);
    const std::string file = HostDatabaseFile();
    for (int i = 0; i < 400; ++i) {
        const std::string name = "Server" + std::to_string(i);
        ASSERT_EQ(HostAddPlugIn("Tool", name.c_str(), "old user name", ("m" + std::to_string(i) + ".so").c_str()), 1);
    }
    ASSERT_EQ(HostWriteDatabase(), 1);
    const std::string oldImage = ReadFile(file);
    for (int32_t i = 0; i < 400; ++i)
        ServerSetUserName("Tool", i, "the new user name");
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(HostWriteDatabase(), 1);
    const auto saveTime = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started);
    const std::string newImage = ReadFile(file);
    ASSERT_NE(oldImage, newImage);
    const int kPoints = 120;
    int intact = 0, sawOld = 0, sawNew = 0;
    for (int point = 0; point < kPoints; ++point) {
        std::ofstream(file, std::ios::binary | std::ios::trunc) << oldImage;
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (;;)
                HostWriteDatabase();
        }
        usleep(static_cast<useconds_t>(saveTime.count() * 2 * point / kPoints));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        const std::string found = ReadFile(file);
        intact += found == oldImage || found == newImage;
        sawOld += found == oldImage, sawNew += found == newImage;
    }
    std::printf("database save killed at %d points (one save takes %lld us): %d intact (%d old, %d new)\n", kPoints,
                static_cast<long long>(saveTime.count()), intact, sawOld, sawNew);
    EXPECT_EQ(intact, kPoints);
    EXPECT_TRUE(sawOld && sawNew) << "the kills fell before and after saves";
}

}  // namespace
