// Ports: delivery, the attach function, destroys during a walk, named lists, out of memory, and
// re-entrant use against a model.
#include <vxtools3/ckpt.h>
#include <vxtools3/lists.h>
#include <vxtools3/ports.h>

#include "host/port_internal.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <tuple>
#include <vector>

using namespace vx::port;
using vxtest::FaultAllocator;

namespace {

using Keys = std::vector<uintptr_t>;

// A delivery (key, data, event, argument) or an attach-function call (server, data, mode, key).
using Call = std::tuple<uintptr_t, uintptr_t, int32_t, uintptr_t>;
using Calls = std::vector<Call>;
Calls g_log;
std::map<uintptr_t, std::function<void()>> g_react;  // run inside the callback of that key

void Record(uintptr_t key, uintptr_t data, int32_t event, uintptr_t argument)
{
    g_log.emplace_back(key, data, event, argument);
    if (auto it = g_react.find(key); it != g_react.end())
        it->second();
}

// Notifies and returns the keys that heard it.
Keys Heard(VxPort *port, uintptr_t server, uint32_t mask = 0)
{
    g_log.clear();
    PortNotify(port, server, 0, 9, mask, 123);
    Keys keys;
    for (const Call &d : g_log)
        keys.push_back(std::get<0>(d));
    return keys;
}

Calls g_attachCalls;  // the key read from the record when x is one
bool g_xIsRecordOnAttach = false;  // set while GlobalPortAcquire announces earlier clients

void OnAttach(uintptr_t server, uintptr_t data, int32_t mode, uintptr_t x)
{
    const bool record = mode == PORT_DETACH || g_xIsRecordOnAttach;
    const uintptr_t key = record ? reinterpret_cast<const VxPortAttachment *>(x)->clientKey : x;
    g_attachCalls.emplace_back(server, data, mode, key);
}

class PortTest : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); EXPECT_EQ(CkptLevel(), -1); }
    static void Reset()
    {
        GlobalListCleanup(), g_log.clear(), g_react.clear(), g_attachCalls.clear();
        g_xIsRecordOnAttach = false;
    }
};

constexpr uintptr_t kServer = 0x5e4;

// Masks, key filters and disables are the random model's; here the server rule and the words.
TEST_F(PortTest, DeliveryFollowsTheServerAndMask)
{
    VxPort *port = PortCreate(77, kServer, nullptr);
    EXPECT_EQ(PortAttach(port, 1, 0, Record) + PortAttach(port, 2, 0x2, Record), 2);
    EXPECT_EQ(Heard(port, kServer + 1), Keys{});
    EXPECT_EQ(Heard(port, kServer, 0x4), Keys{1});
    EXPECT_EQ(g_log, (Calls{{1, 77, 9, 123}}));
    PortSetServer(port, 0, 99);  // disowned: only server 0 reaches it
    EXPECT_EQ(Heard(port, kServer), Keys{});
    EXPECT_EQ(Heard(port, 0), (Keys{1, 2}));
    PortSetServer(port, 1, 99);
    EXPECT_EQ(Heard(port, 0).size() + Heard(nullptr, 0).size(), 0u);
    EXPECT_EQ(Heard(port, 99), (Keys{1, 2}));
    PortDestroy(port);
}

// The attach function gets the key on attach and the record on detach (counts are the model's);
// a late owner of a global port hears of every earlier client by record, later ones by key.
TEST_F(PortTest, AttachFunctionCallsAndLateOwners)
{
    VxPort *port = PortCreate(42, kServer, OnAttach);
    PortAttach(port, 7, 0, Record), PortDetach(port, 7);
    EXPECT_EQ(g_attachCalls, (Calls{{kServer, 42, PORT_ATTACH, 7}, {kServer, 42, PORT_DETACH, 7}}));
    PortDestroy(port);
    g_attachCalls.clear();
    GlobalPortAttach("application-events", 11, 0, Record), GlobalPortAttach("application-events", 12, 0x4, Record);
    EXPECT_EQ(GlobalPortAttach("plugin-database", 13, 0, Record), 1);
    g_xIsRecordOnAttach = true;
    port = GlobalPortAcquire("application-events", 5, kServer, OnAttach);
    g_xIsRecordOnAttach = false;
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port, FindGlobal("application-events"));
    EXPECT_EQ(GlobalPortAttach("application-events", 14, 0, Record), 1);
    EXPECT_EQ(g_attachCalls, (Calls{{kServer, 5, PORT_ATTACH, 11},
                                                      {kServer, 5, PORT_ATTACH, 12},
                                                      {kServer, 5, PORT_ATTACH, 14}}));
    PortNotify(port, kServer, 0, 3, 0x1, 8);
    EXPECT_EQ(g_log, (Calls{{11, 5, 3, 8}, {14, 5, 3, 8}}));

    for (uintptr_t key : {11, 12, 14})
        GlobalPortDetach("application-events", key);
    EXPECT_EQ(FindGlobal("application-events"), port) << "an owned port stays";
    GlobalPortDetach("plugin-database", 13);
    EXPECT_EQ(FindGlobal("plugin-database"), nullptr) << "no owner, no clients: gone";
    GlobalPortDetach("never-made", 1);
    EXPECT_EQ(NamedCount(false), 1);
    PortSetServer(port, 0, 0);
    EXPECT_EQ(GlobalPortAttach("application-events", 15, 0, Record), 1);
    GlobalPortDetach("application-events", 15);
    EXPECT_EQ(NamedCount(false), 0) << "disowned and emptied: destroyed";
}

// A port destroyed, or a global port emptied, inside its own notification is freed when the
// outermost walk ends and hears nothing more.
TEST_F(PortTest, DestroyAndGlobalDetachInsideTheirOwnNotification)
{
    FaultAllocator heap;
    VxPort *port = PortCreate(0, kServer, nullptr);
    for (uintptr_t key : {1, 2, 3})
        PortAttach(port, key, 0, Record);
    g_react[1] = [&] { PortNotify(port, kServer, 2, 0, 0, 0); };
    g_react[2] = [&] {
        PortDestroy(port), PortDestroy(port);  // a second destroy during the walk is harmless
        EXPECT_EQ(PortAttach(port, 9, 0, Record), 0);
        PortNotify(port, kServer, 0, 0, 0, 0);
    };
    EXPECT_EQ(Heard(port, kServer), (Keys{1, 2})) << "no delivery after the destroy";
    EXPECT_EQ(heap.LiveBytes(), 0u);
    g_react.clear();
    GlobalPortAttach("ev", 1, 0, Record), GlobalPortAttach("ev", 2, 0, Record);
    g_react[1] = [] {
        GlobalPortDetach("ev", 1), GlobalPortDetach("ev", 2);
        EXPECT_EQ(FindGlobal("ev"), nullptr) << "unlinked at once";
        EXPECT_EQ(GlobalPortAttach("ev", 3, 0, Record), 1) << "the name makes a fresh port";
    };
    EXPECT_EQ(Heard(FindGlobal("ev"), 0), Keys{1});
    ASSERT_TRUE(FindGlobal("ev") && RecordCount(FindGlobal("ev")) == 1);
    GlobalPortDetach("ev", 3), GlobalListCleanup();  // frees the clean-up registration; a leaked port would remain
    EXPECT_TRUE(heap.LiveBytes() == 0 && heap.BadFrees() == 0) << "the old port was freed after its walk";
}

TEST_F(PortTest, PublicPortsLiveWhileTheyHaveClients)
{
    PublicPortNotify("nobody", 1, 0, 0);
    EXPECT_EQ(NamedCount(true), 0) << "notifying an unknown name creates nothing";
    EXPECT_EQ(PublicPortAttach("scene", 1, 0, Record) + PublicPortAttach("scene", 2, 0x2, Record), 2);
    EXPECT_EQ(GlobalPortAttach("scene", 3, 0, Record), 1);  // a separate list
    VxPort *pub = FindPublic("scene");
    ASSERT_TRUE(pub && pub != FindGlobal("scene") && PortServer(pub) != 0);
    PublicPortNotify("scene", 6, 0x1, 4);
    EXPECT_EQ(g_log, (Calls{{1, 0, 6, 4}}));
    EXPECT_EQ(Heard(pub, 0), Keys{}) << "the public identity is its server";
    EXPECT_EQ((PublicPortDetach("scene", 1), FindPublic("scene")), pub);
    PublicPortDetach("scene", 2);
    EXPECT_TRUE(!FindPublic("scene") && FindGlobal("scene"));
}

TEST_F(PortTest, NamesCompareByteForByteAndTheCleanupFreesEveryNamedPort)
{
    FaultAllocator heap;
    Reset();  // the clean-up registration must be made on this heap
    const std::pair<const char *, uintptr_t> attaches[] = {{"a\xff", 1}, {"a\x01", 1}, {"a", 1}, {"a\xff", 2}};
    for (const auto &[name, key] : attaches)
        GlobalPortAttach(name, key, 0, Record);
    EXPECT_EQ(NamedCount(false), 3);
    EXPECT_EQ(RecordCount(FindGlobal("a\xff")), 2);
    EXPECT_EQ(RecordCount(FindGlobal("a")), 1);
    EXPECT_EQ(GlobalPortAttach(nullptr, 1, 0, Record) + PublicPortAttach(nullptr, 1, 0, Record) +
                  (GlobalPortAcquire(nullptr, 0, kServer, nullptr) != nullptr), 0);
    GlobalPortDetach(nullptr, 1), PublicPortNotify(nullptr, 0, 0, 0);
    EXPECT_EQ(NamedCount(false), 3);
    GlobalPortAcquire("two", 0, kServer, nullptr), PublicPortAttach("three", 1, 0, Record);
    GlobalListCleanup();
    EXPECT_TRUE(heap.LiveBytes() == 0 && heap.BadFrees() == 0);
    EXPECT_EQ(NamedCount(false) + NamedCount(true), 0);
    EXPECT_EQ(GlobalPortAttach("one", 1, 0, Record), 1) << "usable again after the clean-up";
    EXPECT_EQ((GlobalListCleanup(), heap.LiveBytes()), 0u);
}

// Every call that allocates; the named lists and their clean-up registration exist before
// the sweeps start, so that each run measures the call alone.
TEST_F(PortTest, OutOfMemoryCreateAttachAcquire)
{
    GlobalPortAttach("warm", 1, 0, Record), PublicPortAttach("warm", 1, 0, Record);
    VxPort *port = nullptr;
    const auto world = [&] {  // what a failed call must leave as it was
        std::string text = std::to_string(NamedCount(false)) + std::to_string(NamedCount(true));
        for (VxPort *p : {port, FindGlobal("warm"), FindGlobal("fresh"), FindGlobal("owned"), FindPublic("fresh")})
            text += p ? std::to_string(RecordCount(p)) : "-";
        return text;
    };
    const std::pair<std::function<void()>, std::function<bool()>> cases[] = {
        {[&] { port = nullptr; }, [&] { return (port = PortCreate(1, 2, nullptr)) != nullptr; }},
        {[&] { PortAttach(port = PortCreate(1, kServer, OnAttach), 1, 0, Record); },
         [&] { return PortAttach(port, 2, 0, Record) == 1; }},
        {[&] { port = nullptr; }, [] { return GlobalPortAttach("fresh", 2, 0, Record) == 1; }},
        {[&] { port = nullptr; }, [] { return GlobalPortAttach("warm", 2, 0, Record) == 1; }},
        {[&] { port = nullptr; }, [] { return GlobalPortAcquire("owned", 1, kServer, nullptr) != nullptr; }},
        {[&] { port = nullptr; }, [] { return PublicPortAttach("fresh", 2, 0, Record) == 1; }},
    };
    for (const auto &oomCase : cases) {
        std::string before;
        vxtest::OomSweepAll({[&] { oomCase.first(), before = world(); }, oomCase.second, [&] { EXPECT_EQ(world(), before); },
                             [&] {
                                 PortDestroy(port), PortDestroy(FindGlobal("owned")), PublicPortDetach("fresh", 2);
                                 GlobalPortDetach("fresh", 2), GlobalPortDetach("warm", 2);
                             }});
    }
}

// Randomized re-entrancy: six keys; callbacks attach, detach, disable, enable, change masks and
// notify again up to four levels deep. Every delivery must go to a client that is eligible, was
// listed when the notification began, in list order, once; a client eligible throughout must
// have heard it. The model keeps dead records while walks run.

struct ModelClient {
    bool live = true;
    uint32_t mask = 0;
    int32_t disable = 0;
};

struct Frame {
    uintptr_t keyFilter;
    uint32_t mask;
    std::set<uintptr_t> present, eligibleAtStart, delivered, spoiled;
    int lastPosition = -1;
};

class ReentrancyModel {
public:
    explicit ReentrancyModel(uint32_t seed) : rng_(seed) { self_ = this; }
    ~ReentrancyModel() { self_ = nullptr; }

    void Run(int steps)
    {
        port_ = PortCreate(kData, kServer, CountAttach);
        ASSERT_NE(port_, nullptr);
        for (int i = 0; i < steps && !::testing::Test::HasFailure(); ++i)
            RandomOperation(0);
        EXPECT_EQ(RecordCount(port_), static_cast<int32_t>(order_.size()));
        PortDestroy(port_);
        EXPECT_EQ(expectedCalls_, seenCalls_);
    }

private:
    static constexpr uintptr_t kData = 0x3d;

    int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    uintptr_t PickKey() { return static_cast<uintptr_t>(1 + Pick(6)); }
    uint32_t PickMask() { return Pick(3) == 0 ? 0 : 1u << Pick(4); }

    static void CountAttach(uintptr_t, uintptr_t, int32_t mode, uintptr_t x)
    {
        ++self_->seenCalls_[mode];
        const auto *record = reinterpret_cast<const VxPortAttachment *>(x);
        EXPECT_TRUE(mode == PORT_ATTACH || record->clientKey == self_->detachingKey_);
    }

    static void OnDelivery(uintptr_t key, uintptr_t portData, int32_t, uintptr_t) { self_->Deliver(key, portData); }

    bool Eligible(const Frame &f, uintptr_t key) const
    {
        auto it = clients_.find(key);
        if (it == clients_.end() || !it->second.live || it->second.disable)
            return false;
        const uint32_t clientMask = it->second.mask ? it->second.mask : 0xFFFFFFFFu;
        return (!f.keyFilter || f.keyFilter == key) && (clientMask & f.mask);
    }

    void Deliver(uintptr_t key, uintptr_t portData)
    {
        ASSERT_FALSE(frames_.empty()) << "delivery outside any notification";
        Frame &f = frames_.back();
        ASSERT_EQ(portData, kData);
        EXPECT_TRUE(Eligible(f, key)) << "key " << key << " was not eligible";
        EXPECT_TRUE(f.present.count(key)) << "key " << key << " attached after the notification began";
        EXPECT_TRUE(f.delivered.insert(key).second) << "key " << key << " heard it twice";
        const int position = static_cast<int>(std::find(order_.begin(), order_.end(), key) - order_.begin());
        EXPECT_GT(position, f.lastPosition) << "out of list order";
        f.lastPosition = position;
        if (frames_.size() < 4 && Pick(2) == 0)
            RandomOperation(static_cast<int>(frames_.size()));
    }

    // A change to the client during a notification: whether it hears it is not decided.
    void Spoil(uintptr_t key) { std::for_each(frames_.begin(), frames_.end(), [&](Frame &f) { f.spoiled.insert(key); }); }

    ModelClient *LiveClient(uintptr_t key)
    {
        auto it = clients_.find(key);
        return it != clients_.end() && it->second.live ? &it->second : nullptr;
    }

    void RandomOperation(int nesting)
    {
        const uintptr_t key = PickKey();
        switch (Pick(nesting ? 7 : 5)) {
        case 0: Attach(key); break;
        case 5: Attach(lastDetached_ ? lastDetached_ : key); break;  // often a revival
        case 1:
        case 6: Detach(key); break;
        case 2: {
            const bool enable = Pick(2) == 0;
            (enable ? PortEnable : PortDisable)(port_, key);
            if (ModelClient *c = LiveClient(key))
                c->disable = enable ? std::max(c->disable - 1, 0) : c->disable + 1;
            Spoil(key);
            break;
        }
        case 3: {
            const uint32_t mask = PickMask();
            PortSetEventMask(port_, key, mask);
            if (ModelClient *c = LiveClient(key))
                c->mask = mask;
            Spoil(key);
            break;
        }
        default: Notify(); break;
        }
        ASSERT_EQ(RecordCount(port_), static_cast<int32_t>(order_.size())) << "records differ from the model";
    }

    void Attach(uintptr_t key)
    {
        const uint32_t mask = PickMask();
        const int expected = clients_.count(key) ? -1 : 1;
        if (expected == 1)
            order_.push_back(key), ++expectedCalls_[PORT_ATTACH];
        clients_[key] = ModelClient{true, mask, 0};
        Spoil(key);
        EXPECT_EQ(PortAttach(port_, key, mask, OnDelivery), expected);
    }

    void Detach(uintptr_t key)
    {
        if (ModelClient *c = LiveClient(key)) {
            c->live = false;
            ++expectedCalls_[PORT_DETACH];
            if (walking_ == 0)
                clients_.erase(key), order_.erase(std::find(order_.begin(), order_.end(), key));
        }
        Spoil(key);
        lastDetached_ = detachingKey_ = key;
        PortDetach(port_, key);
    }

    void Notify()
    {
        Frame f;
        f.keyFilter = Pick(4) == 0 ? PickKey() : 0;
        const uint32_t mask = PickMask();
        f.mask = mask ? mask : 0xFFFFFFFFu;
        for (uintptr_t key : order_) {
            f.present.insert(key);
            if (Eligible(f, key))
                f.eligibleAtStart.insert(key);
        }
        frames_.push_back(f);
        ++walking_;
        PortNotify(port_, kServer, f.keyFilter, 0, mask, 0);
        const Frame done = frames_.back();
        frames_.pop_back();
        for (uintptr_t key : done.eligibleAtStart)
            EXPECT_TRUE(done.spoiled.count(key) || done.delivered.count(key))
                << "key " << key << " stayed eligible but heard nothing";
        if (--walking_ == 0) {  // the dead records are reclaimed
            std::erase_if(order_, [&](uintptr_t key) { return !clients_[key].live; });
            std::erase_if(clients_, [](const auto &entry) { return !entry.second.live; });
        }
    }

    static inline ReentrancyModel *self_ = nullptr;
    std::mt19937 rng_;
    VxPort *port_ = nullptr;
    Keys order_;                                // keys of the records, in list order
    std::map<uintptr_t, ModelClient> clients_;  // records by key, dead ones too while walks run
    std::vector<Frame> frames_;
    int walking_ = 0;                // notifications under way
    std::vector<int> expectedCalls_{0, 0}, seenCalls_{0, 0};  // of the attach function, by mode
    uintptr_t detachingKey_ = 0;
    uintptr_t lastDetached_ = 0;
};

TEST_F(PortTest, RandomizedReentrancyMatchesTheModel)
{
    FaultAllocator heap;
    for (uint32_t seed = 1; seed <= 100 && !HasFailure(); ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        ReentrancyModel model(seed);
        model.Run(400);
        EXPECT_EQ(heap.LiveBytes(), 0u);
    }
    EXPECT_EQ(heap.BadFrees(), 0);
}

}  // namespace
