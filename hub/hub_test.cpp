// The hub with real processes: each test starts its own vxhubd in a fresh directory, and the
// other applications are hub_peer processes driven through their command lines and read
// through their output. Waits are bounded by deadlines, never by sleeps.
#include "vxtools3/hub.h"

#include "hub/wire.h"
#include "testkit/child.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using vxtest::Child;
using vxtest::Eventually;
using vxtest::kLineTimeoutMs;
using vxtest::NowMs;

class HubTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/vxhub_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        dir_ = root_ + "/sock";
        file_ = root_ + "/VXEXT3.CFG";
        std::ofstream(file_) << "first";
        StartHub();
    }
    void TearDown() override
    {
        HubDisconnect();
        StopHub();
        std::system(("rm -rf " + root_).c_str());
    }
    void StartHub()
    {
        hub_ = std::make_unique<Child>(std::vector<std::string>{VX_HUBD, "--dir", dir_});
        ASSERT_EQ(hub_->Line(), "vxhubd: listening on " + dir_ + "/hub.sock");
    }
    void StopHub()
    {
        if (!hub_)
            return;
        hub_->Kill(SIGTERM);
        hub_->Wait();
        hub_.reset();
    }
    std::unique_ptr<Child> Peer(std::vector<std::string> steps)
    {
        steps.insert(steps.begin(), {VX_HUB_PEER, dir_});
        auto peer = std::make_unique<Child>(steps);
        EXPECT_EQ(peer->Line(), "connected");
        return peer;
    }
    int RawSocket() const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s/hub.sock", dir_.c_str());
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return fd;
    }

    std::string root_, dir_, file_;
    std::unique_ptr<Child> hub_;
};

std::string ReadFile(const std::string &path)
{
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

TEST_F(HubTest, SocketDirectoryIsClosedToOthers)
{
    struct stat info;
    ASSERT_EQ(stat(dir_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    const std::string open = root_ + "/open";
    ASSERT_EQ(mkdir(open.c_str(), 0755), 0);
    Child refused({VX_HUBD, "--dir", open});
    EXPECT_NE(refused.Wait(), 0) << "a directory others may enter is refused";
    Child second({VX_HUBD, "--dir", dir_});
    EXPECT_EQ(second.Wait(), 1) << "a second hub on the same socket is refused";
}

TEST_F(HubTest, LocksAreGrantedOrRefusedAtOnce)
{
    ASSERT_EQ(HubConnect(dir_.c_str(), 0), 1);
    HubAsset *mine = HubAssetAdd("Plugins", file_.c_str(), nullptr, nullptr);
    ASSERT_NE(mine, nullptr);
    auto peer = Peer({"add", "Plugins", file_, "lock", "2", "next", "event", "7", "unlock", "wait"});
    ASSERT_EQ(peer->Line(), "add 1");
    ASSERT_EQ(peer->Line(), "lock 1");
    const long long asked = NowMs();
    EXPECT_EQ(HubAssetLock(mine, HUB_HELD), 0);
    EXPECT_EQ(HubAssetLock(mine, HUB_REFUSE), 0) << "nobody else may even refuse while it is held";
    EXPECT_LT(NowMs() - asked, 5000) << "a refusal does not wait for the holder";
    peer->Say("go on");
    EXPECT_EQ(peer->LineStarting("event 7"), "event 7 " + file_) << "the holder is asked to save";
    EXPECT_EQ(peer->LineStarting("unlock"), "unlock 1");
    EXPECT_EQ(HubAssetLock(mine, HUB_REFUSE), 1);
    EXPECT_EQ(HubAssetState(mine), HUB_REFUSE);
    EXPECT_EQ(HubAssetCount("Plugins"), 2);
    EXPECT_EQ(HubAssetCount("Scenes"), 0);
    peer->CloseInput();
    EXPECT_EQ(peer->Wait(), 0);
    // The hub learns of the departure when it reads the closed connection, which may come
    // after a request on ours.
    EXPECT_TRUE(Eventually([] { return HubAssetCount("Plugins") == 1; }));
    EXPECT_EQ(HubAssetLock(mine, HUB_HELD), 1);
}

TEST_F(HubTest, NewTempReplacesTheFileAndTellsTheOtherHolders)
{
    ASSERT_EQ(HubConnect(dir_.c_str(), 0), 1);
    HubAsset *mine = HubAssetAdd("Plugins", file_.c_str(), nullptr, nullptr);
    ASSERT_NE(mine, nullptr);
    auto peer = Peer({"add", "Plugins", file_, "event", "2"});
    ASSERT_EQ(peer->Line(), "add 1");
    const char *temp = HubAssetTempName(mine);
    ASSERT_NE(temp, nullptr);
    EXPECT_EQ(std::string(temp).rfind(root_ + "/.VXEXT3.CFG.", 0), 0u) << temp;
    std::ofstream(temp) << "second";
    EXPECT_EQ(HubAssetNewTemp(mine), 0) << "only the holder may replace the file";
    ASSERT_EQ(HubAssetLock(mine, HUB_HELD), 1);
    ASSERT_EQ(HubAssetNewTemp(mine), 1);
    EXPECT_EQ(ReadFile(file_), "second");
    EXPECT_EQ(peer->Line(), "event 2 " + file_);
    EXPECT_EQ(peer->Line(), "awaited 1");
    EXPECT_EQ(HubAssetNewTemp(mine), 0) << "a temporary name is used once";
    EXPECT_EQ(HubAssetRemove(mine), 1);
    EXPECT_EQ(peer->Wait(), 0);
}

TEST_F(HubTest, AnApplicationThatDiesReleasesItsLocks)
{
    ASSERT_EQ(HubConnect(dir_.c_str(), 0), 1);
    HubAsset *mine = HubAssetAdd("Plugins", file_.c_str(), nullptr, nullptr);
    auto peer = Peer({"add", "Plugins", file_, "lock", "2", "wait"});
    ASSERT_EQ(peer->Line(), "add 1");
    ASSERT_EQ(peer->Line(), "lock 1");
    EXPECT_EQ(HubAssetLock(mine, HUB_HELD), 0);
    peer->Kill(SIGKILL);
    EXPECT_EQ(peer->Wait(), -1);
    EXPECT_TRUE(Eventually([&] { return HubAssetLock(mine, HUB_HELD) == 1; }));
    EXPECT_EQ(HubAssetCount("Plugins"), 1);
}

TEST_F(HubTest, CallsFailAtOnceWithoutAHubAndReconnectWhenItIsBack)
{
    ASSERT_EQ(HubConnect(dir_.c_str(), 0), 1);
    HubAsset *mine = HubAssetAdd("Plugins", file_.c_str(), nullptr, nullptr);
    ASSERT_EQ(HubAssetLock(mine, HUB_HELD), 1);
    hub_->Kill(SIGKILL);
    hub_->Wait();
    const long long start = NowMs();
    EXPECT_EQ(HubDispatch(), -1);
    EXPECT_EQ(HubAssetLock(mine, HUB_HELD), 0);
    EXPECT_EQ(HubAssetCount("Plugins"), -1);
    EXPECT_EQ(HubAssetTempName(mine), nullptr);
    EXPECT_EQ(HubAssetNewTemp(mine), 0);
    EXPECT_EQ(HubAssetState(mine), HUB_FREE) << "a lost hub took the lock with it";
    EXPECT_LT(NowMs() - start, 2000) << "nothing waits for a dead hub";
    StartHub();
    EXPECT_EQ(HubAssetCount("Plugins"), 1) << "the asset was added again";
    EXPECT_EQ(HubAssetLock(mine, HUB_HELD), 1);
    auto peer = Peer({"add", "Plugins", file_, "lock", "2"});
    EXPECT_EQ(peer->LineStarting("lock"), "lock 0") << "the hub knows the new lock";
}

TEST_F(HubTest, AMalformedMessageClosesOnlyItsConnection)
{
    ASSERT_EQ(HubConnect(dir_.c_str(), 0), 1);
    ASSERT_NE(HubAssetAdd("Plugins", file_.c_str(), nullptr, nullptr), nullptr);
    const std::vector<std::string> garbage = {std::string("\x12\0\0\0\x02", 5) + std::string(18, 'x'),
                                              std::string("\xff\xff\xff\x7f", 4), std::string(64, '\0')};
    for (const std::string &bytes : garbage) {
        const int fd = RawSocket();
        ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        char c;
        EXPECT_EQ(recv(fd, &c, 1, 0), 0) << "the hub closed the connection";
        close(fd);
        EXPECT_EQ(HubAssetCount("Plugins"), 1) << "and kept serving the others";
    }
    const int cut = RawSocket();  // a record cut short only waits for the rest
    ASSERT_EQ(send(cut, "\x20\0\0", 3, MSG_NOSIGNAL), 3);
    EXPECT_EQ(HubAssetCount("Plugins"), 1);
    close(cut);
}

TEST_F(HubTest, AClientThatNeverReadsIsDropped)
{
    ASSERT_EQ(HubConnect(dir_.c_str(), 0), 1);
    const int fd = RawSocket();
    uint8_t frame[vxhub::kMaxFrame];
    vxhub::Message m;
    m.type = vxhub::kStatus;
    const size_t size = vxhub::WriteMessage(m, frame);
    std::string flood;
    for (int i = 0; i < 20000; ++i)
        flood.append(reinterpret_cast<char *>(frame), size);
    // The hub answers each request and never blocks on this client: once its unsent replies
    // pass the limit, the connection goes and the send fails.
    size_t sent = 0;
    for (ssize_t n = 0; sent < flood.size() && n >= 0; sent += n > 0 ? static_cast<size_t>(n) : 0)
        n = send(fd, flood.data() + sent, flood.size() - sent, MSG_NOSIGNAL);
    EXPECT_GE(HubAssetCount("Plugins"), 0) << "the others are still served";
    char buffer[65536];
    ssize_t n;
    while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0) {
    }
    EXPECT_LE(n, 0) << "the connection was dropped";
    close(fd);
    EXPECT_EQ(HubAssetCount("Plugins"), 0);
}

TEST_F(HubTest, StoppingTheHubAsksEveryHolderToSave)
{
    auto peer = Peer({"add", "Plugins", file_, "lock", "2", "event", "8", "save", "saved on stop"});
    ASSERT_EQ(peer->Line(), "add 1");
    ASSERT_EQ(peer->Line(), "lock 1");
    ASSERT_EQ(HubConnect(dir_.c_str(), 0), 1);
    EXPECT_EQ(HubStopDaemon(), 1);
    HubDisconnect();
    EXPECT_EQ(peer->Line(), "event 8 " + file_);
    EXPECT_EQ(peer->Line(), "awaited 1");
    EXPECT_EQ(peer->Line(), "save 1") << "a holder may still save while the hub goes down";
    EXPECT_EQ(ReadFile(file_), "saved on stop");
    EXPECT_EQ(hub_->Wait(), 0) << "the hub ends once its last application has gone";
    EXPECT_EQ(HubConnect(dir_.c_str(), 0), 0);
}

TEST_F(HubTest, ConnectCanStartTheHub)
{
    StopHub();
    EXPECT_EQ(HubConnect(dir_.c_str(), 0), 0) << "no hub, none asked for";
    ASSERT_EQ(HubConnect(dir_.c_str(), HUB_START), 1);
    EXPECT_EQ(HubAssetCount("Plugins"), 0);
    char status[256];
    ASSERT_EQ(HubStatus(status, sizeof status), 1);
    EXPECT_EQ(std::string(status), "connection pid " + std::to_string(getpid()) + ": 0 asset(s)\n");
    EXPECT_EQ(HubStopDaemon(), 1);
    EXPECT_TRUE(Eventually([&] { return HubAssetCount("Plugins") == -1; }));
}

TEST_F(HubTest, OutOfMemoryInTheCallsThatAllocate)
{
    vxtest::OomSweepAll({[] {}, [&] { return HubConnect(dir_.c_str(), 0) == 1; },
                         [] { EXPECT_EQ(HubFileDescriptor(), -1); }, [] { HubDisconnect(); }});
    vxtest::OomSweepAll({[&] { HubConnect(dir_.c_str(), 0); },
                         [&] { return HubAssetAdd("Plugins", file_.c_str(), nullptr, nullptr) != nullptr; },
                         [] { EXPECT_EQ(HubAssetCount("Plugins"), 0); }, [] { HubDisconnect(); }});
    HubAsset *asset = nullptr;
    vxtest::OomSweepAll({[&] { HubConnect(dir_.c_str(), 0), asset = HubAssetAdd("Plugins", file_.c_str(), nullptr, nullptr); },
                         [&] { return HubAssetTempName(asset) != nullptr; }, [] {}, [] { HubDisconnect(); }});
}

// A client of another user reaches the socket (the test opens the directory for it) and is
// refused on its credentials: its connection is closed before any request is answered.
TEST_F(HubTest, AnotherUsersConnectionIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "running a client under another uid needs root";
    ASSERT_EQ(chmod(root_.c_str(), 0711), 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0711), 0);
    ASSERT_EQ(chmod((dir_ + "/hub.sock").c_str(), 0777), 0);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const bool dropped = setgid(65534) == 0 && setuid(65534) == 0;
        _exit(dropped && HubConnect(dir_.c_str(), 0) == 1 && HubAssetCount("Plugins") == -1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "uid 65534 was answered";
    ASSERT_EQ(HubConnect(dir_.c_str(), 0), 1);
    EXPECT_EQ(HubAssetCount("Plugins"), 0) << "the owner is served";
}

double Percentile(std::vector<long long> values, double p)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : static_cast<double>(values[static_cast<size_t>(p * static_cast<double>(values.size() - 1))]) / 1000.0;
}

// Round trips of one byte over a plain Unix-domain socket pair to a child process that echoes.
std::vector<long long> EchoRoundTrips(int count)
{
    int pair[2];
    std::vector<long long> times;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
        return times;
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(pair[0]);
        char c;
        while (read(pair[1], &c, 1) == 1 && write(pair[1], &c, 1) == 1) {
        }
        _exit(0);
    }
    close(pair[1]);
    for (int i = 0; i < count; ++i) {
        timespec a, b;
        char c = 'x';
        clock_gettime(CLOCK_MONOTONIC, &a);
        if (write(pair[0], &c, 1) != 1 || read(pair[0], &c, 1) != 1)
            break;
        clock_gettime(CLOCK_MONOTONIC, &b);
        times.push_back((b.tv_sec - a.tv_sec) * 1000000000LL + (b.tv_nsec - a.tv_nsec));
    }
    close(pair[0]);
    waitpid(child, nullptr, 0);
    return times;
}

// Many applications cycling one lock: every cycle is granted once and only once (each holder
// owns a token file exclusively while it holds the lock), none is lost (each peer finishes its
// cycles). VXHUB_LOAD=<clients>x<cycles> sets the size (default 8x200; 100x1000 for the full run).
TEST_F(HubTest, ManyApplicationsCyclingOneLock)
{
    int clients = 8, cycles = 200;
    if (const char *load = std::getenv("VXHUB_LOAD"))
        std::sscanf(load, "%dx%d", &clients, &cycles);
    const std::string token = root_ + "/token";
    std::vector<std::unique_ptr<Child>> peers;
    for (int i = 0; i < clients; ++i)
        peers.push_back(Peer({"add", "Plugins", file_, "cycles", std::to_string(cycles), token}));
    std::vector<long long> rtts;
    int grants = 0, doubles = 0;
    for (auto &peer : peers) {
        ASSERT_EQ(peer->Line(), "add 1");
        for (std::string line = peer->Line(); !line.empty(); line = peer->Line()) {
            if (line.rfind("rtt ", 0) == 0)
                rtts.push_back(std::stoll(line.substr(4))), ++grants;
            else if (line.rfind("double ", 0) == 0)
                doubles += std::stoi(line.substr(7));
            else if (line == "done")
                break;
        }
        EXPECT_EQ(peer->Wait(), 0);
    }
    EXPECT_EQ(grants, clients * cycles) << "no grant lost";
    EXPECT_EQ(doubles, 0) << "no lock granted twice";
    const std::vector<long long> echo = EchoRoundTrips(std::max(1000, grants));
    std::printf("[ load     ] %d clients x %d cycles: lock round trip median %.1f us, p99 %.1f us "
                "; plain Unix-socket echo median %.1f us, p99 %.1f us\n",
                clients, cycles, Percentile(rtts, 0.5), Percentile(rtts, 0.99), Percentile(echo, 0.5),
                Percentile(echo, 0.99));
}

}  // namespace
