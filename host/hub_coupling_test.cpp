// The host's hub coupling with real processes: a vxhubd of the test's own and hub_app programs
// as the applications, each with its host attached to one shared database folder.
#include "testkit/capture.h"
#include "testkit/child.h"

#include <vxtools3/host.h>
#include <vxtools3/hub.h>
#include <vxtools3/lists.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace {

namespace fs = std::filesystem;
using vxtest::Child;

class HubCouplingTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directory(root_.File("modules")), fs::create_directory(root_.File("db"));
        for (const char *module : {VX_FIXTURE_DIR "/fixture_good.so", VX_PLUGIN_DIR "/example_shapes.so"})
            fs::copy_file(module, root_.File("modules/") + fs::path(module).filename().string());
        StartHub();
    }
    void StartHub()
    {
        hub_ = std::make_unique<Child>(std::vector<std::string>{VX_HUBD, "--dir", root_.File("sock")});
        ASSERT_EQ(hub_->Line(), "vxhubd: listening on " + root_.File("sock") + "/hub.sock");
    }
    std::unique_ptr<Child> App(const std::string &name)
    {
        auto app = std::make_unique<Child>(std::vector<std::string>{VX_HUB_APP, root_.File("sock"),
            root_.File("modules"), root_.File("db"), VX_MODSCAN, Log(name)});
        EXPECT_EQ(app->Line(), "ready 1 1 1");
        return app;
    }
    static std::string Ask(Child &app, const std::string &command)
    {
        app.Say(command);
        return app.Line();
    }
    std::string Log(const std::string &name) const { return root_.File(name + ".log"); }
    // How many times the debug log of an application says `text`.
    size_t Said(const std::string &name, const std::string &text) const
    {
        std::ifstream in(Log(name));
        const std::string log{std::istreambuf_iterator<char>(in), {}};
        size_t count = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
            ++count;
        return count;
    }
    // The database file's inode. A second name outside the database folder keeps it from
    // being reused, so that a new file always shows as a new inode.
    ino_t DatabaseInode()
    {
        struct stat info {};
        const std::string witness = root_.File("witness" + std::to_string(witnesses_++));
        return link(root_.File("db/VXEXT3.CFG").c_str(), witness.c_str()) == 0 &&
                       stat(witness.c_str(), &info) == 0
                   ? info.st_ino
                   : 0;
    }
    // The module servers a fresh application reads from the database file.
    std::string Stored()
    {
        auto reader = App("reader");
        const std::string list = Ask(*reader, "list");
        Ask(*reader, "quit");
        return list;
    }

    vxtest::TempDir root_;
    std::unique_ptr<Child> hub_;
    int witnesses_ = 0;
};

const std::string kHeldElsewhere = "plug-in database is held by another application";
const std::string kHubGone = "plug-in database: the asset hub is gone";

TEST_F(HubCouplingTest, AScanReachesTheOtherApplicationAndTheLastDetachWritesTheFile)
{
    auto a = App("a"), b = App("b");
    ASSERT_EQ(Ask(*a, "scan fixture_good.so"), "scan 1 0 1");
    EXPECT_EQ(Ask(*b, "scan example_shapes.so"), "scan -1 -1 0") << "A holds the database";
    EXPECT_EQ(Said("b", kHeldElsewhere), 1u);
    EXPECT_EQ(Ask(*a, "dispatch"), "dispatched 1") << "event 7: A saves through the hub";
    EXPECT_EQ(Ask(*b, "dispatch"), "dispatched 1") << "event 2: B reads the new file";
    const std::string scanned = Ask(*a, "list");
    EXPECT_EQ(Ask(*b, "list"), scanned);
    EXPECT_NE(scanned, "list");

    ASSERT_EQ(Ask(*b, "scan example_shapes.so"), "scan 1 0 3") << "A let go of the database";
    const ino_t before = DatabaseInode();
    EXPECT_EQ(Ask(*a, "detach"), "detached");
    EXPECT_EQ(DatabaseInode(), before) << "B still shares the database: A writes nothing";
    EXPECT_EQ(Ask(*b, "detach"), "detached");
    const ino_t written = DatabaseInode();
    EXPECT_NE(written, before) << "the last one to leave writes the file";
    const std::string both = Ask(*b, "list");
    EXPECT_EQ(Ask(*a, "quit"), "bye");
    EXPECT_EQ(Ask(*b, "quit"), "bye");
    EXPECT_EQ(DatabaseInode(), written) << "the shutdowns write nothing more";
    EXPECT_EQ(Stored(), both);
    for (const auto &entry : fs::directory_iterator(root_.File("db")))
        EXPECT_EQ(entry.path().filename(), "VXEXT3.CFG") << "no temporary file is left";
}

TEST_F(HubCouplingTest, WithTheHubKilledNothingChangesOrWaitsAndTheWorkGoesOnWhenItIsBack)
{
    auto a = App("a"), b = App("b");
    ASSERT_EQ(Ask(*a, "scan fixture_good.so"), "scan 1 0 1");
    hub_->Kill(SIGKILL);
    hub_->Wait();
    const long long start = vxtest::NowMs();
    EXPECT_EQ(Ask(*a, "scan example_shapes.so"), "scan -1 -1 0");
    EXPECT_EQ(Ask(*a, "scan example_shapes.so"), "scan -1 -1 0");
    EXPECT_EQ(Ask(*b, "scan example_shapes.so"), "scan -1 -1 0");
    EXPECT_LT(vxtest::NowMs() - start, 2000) << "nothing waits for a dead hub";
    EXPECT_EQ(Said("a", kHubGone), 1u) << "said once";
    EXPECT_EQ(Said("b", kHubGone), 1u);

    StartHub();
    EXPECT_EQ(Ask(*a, "scan example_shapes.so"), "scan 1 0 3") << "A reconnects and takes the database";
    EXPECT_EQ(Ask(*b, "count"), "count 2") << "B reconnects";
    b->Say("dispatch");
    EXPECT_EQ(Ask(*a, "detach"), "detached");
    EXPECT_EQ(b->Line(), "dispatched 1") << "A's changes from before and after the restart reach B";
    EXPECT_EQ(Ask(*b, "list"), Ask(*a, "list"));
    const std::string all = Ask(*b, "list");
    Ask(*a, "quit"), Ask(*b, "quit");
    EXPECT_EQ(Stored(), all);
}

TEST_F(HubCouplingTest, AnApplicationKilledWhileHoldingTheDatabaseReleasesIt)
{
    auto a = App("a"), b = App("b");
    ASSERT_EQ(Ask(*a, "scan fixture_good.so"), "scan 1 0 1");
    a->Kill(SIGKILL);
    a->Wait();
    EXPECT_TRUE(vxtest::Eventually([&] { return Ask(*b, "scan example_shapes.so") == "scan 1 0 3"; }));
    EXPECT_LE(Said("b", kHeldElsewhere), 1u) << "said once at most";
    const std::string shapes = Ask(*b, "list");
    EXPECT_EQ(Ask(*b, "quit"), "bye");
    EXPECT_EQ(Stored(), shapes) << "B's work is whole; A's unsaved scan died with it";
    for (const auto &entry : fs::directory_iterator(root_.File("db")))
        EXPECT_EQ(entry.path().filename(), "VXEXT3.CFG");
}

TEST_F(HubCouplingTest, AStoppingHubTakesTheChangesOfTheHolder)
{
    auto a = App("a");
    ASSERT_EQ(Ask(*a, "scan fixture_good.so"), "scan 1 0 1");
    const std::string scanned = Ask(*a, "list");
    ASSERT_EQ(HubConnect(root_.File("sock").c_str(), 0), 1);
    EXPECT_EQ(HubStopDaemon(), 1);
    HubDisconnect();
    EXPECT_EQ(Ask(*a, "dispatch"), "dispatched 1") << "event 8: A saves while the hub waits";
    a->Kill(SIGKILL);  // no shutdown: what the file holds came through the hub
    a->Wait();
    hub_->Wait();
    StartHub();
    EXPECT_EQ(Stored(), scanned);
}

TEST(HubCoupling, AttachNeedsARunningHostOutsideCatalogueMode)
{
    EXPECT_EQ(HostAttachHub(), 0) << "not running";
    vxtest::TempDir db;
    HostSetDatabase(db.Path().c_str());
    GlobalListDefine("Product Info", reinterpret_cast<void *>(uintptr_t{3}));
    ASSERT_EQ(HostStartup(), 1);
    EXPECT_EQ(HostAttachHub(), 0) << "catalogue mode";
    HostShutdown();
    GlobalListCleanup();
    ASSERT_EQ(HostStartup(), 1);
    EXPECT_EQ(HostAttachHub(), 0) << "not connected to a hub";
    EXPECT_EQ(HostHubAsset(), nullptr);
    HostShutdown();
    HostSetDatabase(nullptr);
}

}  // namespace
