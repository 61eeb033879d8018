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
#include <vector>

using vx::port::RecordCount;
using vx::port::WalkDepth;
using vxtest::FaultAllocator;

namespace {

struct Delivery {
    uintptr_t key;
    uintptr_t data;
    int32_t event;
    uintptr_t argument;
    bool operator==(const Delivery &) const = default;
};

std::vector<Delivery> g_log;
// Per-key reactions run inside the callback after logging the delivery.
std::map<uintptr_t, std::function<void()>> g_react;

void Record(uintptr_t key, uintptr_t data, int32_t event, uintptr_t argument)
{
    g_log.push_back({key, data, event, argument});
    auto it = g_react.find(key);
    if (it != g_react.end())
        it->second();
}

struct AttachCall {
    uintptr_t server;
    uintptr_t data;
    int32_t mode;
    uintptr_t key;  // the key, read from the record when x is one
    bool viaRecord;
};
std::vector<AttachCall> g_attachCalls;
bool g_xIsRecordOnAttach = false;  // set while GlobalPortAcquire announces earlier clients

void OnAttach(uintptr_t server, uintptr_t data, int32_t mode, uintptr_t x)
{
    const bool record = mode == PORT_DETACH || g_xIsRecordOnAttach;
    const uintptr_t key = record ? reinterpret_cast<const VxPortAttachment *>(x)->clientKey : x;
    g_attachCalls.push_back({server, data, mode, key, record});
}

std::vector<uintptr_t> Keys()
{
    std::vector<uintptr_t> keys;
    for (const Delivery &d : g_log)
        keys.push_back(d.key);
    return keys;
}

class PortTest : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override
    {
        Reset();
        EXPECT_EQ(CkptLevel(), -1);
    }
    static void Reset()
    {
        GlobalListCleanup();
        g_log.clear();
        g_react.clear();
        g_attachCalls.clear();
        g_xIsRecordOnAttach = false;
    }
};

constexpr uintptr_t kServer = 0x5e4;

TEST_F(PortTest, DeliveryFollowsServerMaskAndClientKey)
{
    VxPort *port = PortCreate(77, kServer, nullptr);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(PortAttach(port, 1, 0, Record), 1);       // all events
    EXPECT_EQ(PortAttach(port, 2, 0x2, Record), 1);
    EXPECT_EQ(PortAttach(port, 3, 0x6, Record), 1);

    PortNotify(port, kServer + 1, 0, 9, 0, 0);          // wrong server
    PortNotify(port, 0, 0, 9, 0, 0);
    EXPECT_TRUE(g_log.empty());

    PortNotify(port, kServer, 0, 9, 0, 123);            // mask 0: all bits
    EXPECT_EQ(g_log, (std::vector<Delivery>{{1, 77, 9, 123}, {2, 77, 9, 123}, {3, 77, 9, 123}}));
    g_log.clear();
    PortNotify(port, kServer, 0, 4, 0x4, 0);
    EXPECT_EQ(Keys(), (std::vector<uintptr_t>{1, 3}));
    g_log.clear();
    PortNotify(port, kServer, 2, 4, 0, 0);              // one client only
    EXPECT_EQ(Keys(), (std::vector<uintptr_t>{2}));
    g_log.clear();
    PortSetEventMask(port, 1, 0x8);
    PortSetEventMask(port, 3, 0);                       // back to all bits
    PortNotify(port, kServer, 0, 4, 0x1, 0);
    EXPECT_EQ(Keys(), (std::vector<uintptr_t>{3}));
    g_log.clear();

    PortSetServer(port, 0, 99);                         // disowned: only server 0 reaches it
    PortNotify(port, kServer, 0, 1, 0, 0);
    EXPECT_TRUE(g_log.empty());
    PortNotify(port, 0, 0, 1, 0, 0);
    EXPECT_EQ(g_log.size(), 3u);
    g_log.clear();
    PortSetServer(port, 1, 99);
    PortNotify(port, 0, 0, 1, 0, 0);
    PortNotify(nullptr, 0, 0, 1, 0, 0);
    EXPECT_TRUE(g_log.empty());
    PortNotify(port, 99, 0, 1, 0, 0);
    EXPECT_EQ(g_log.size(), 3u);
    PortDestroy(port);
}

TEST_F(PortTest, AttachFunctionSeesKeyOnAttachAndRecordOnDetach)
{
    VxPort *port = PortCreate(42, kServer, OnAttach);
    PortAttach(port, 7, 0, Record);
    PortAttach(port, 8, 0, Record);
    PortDetach(port, 7);
    PortDetach(port, 7);   // gone: nothing
    PortDetach(port, 55);  // never there: nothing
    ASSERT_EQ(g_attachCalls.size(), 3u);
    EXPECT_EQ(g_attachCalls[0].mode, PORT_ATTACH);
    EXPECT_EQ(g_attachCalls[0].key, 7u);
    EXPECT_EQ(g_attachCalls[0].server, kServer);
    EXPECT_EQ(g_attachCalls[0].data, 42u);
    EXPECT_EQ(g_attachCalls[1].key, 8u);
    EXPECT_EQ(g_attachCalls[2].mode, PORT_DETACH);
    EXPECT_EQ(g_attachCalls[2].key, 7u) << "read from the attachment record";
    EXPECT_EQ(RecordCount(port), 1);
    PortDestroy(port);
    EXPECT_EQ(g_attachCalls.size(), 3u) << "destroying announces nothing";
}

// Callbacks that detach themselves and others, re-attach and attach new clients while the
// same port is being notified at three depths.
TEST_F(PortTest, AttachAndDetachInsideCallbacksAtAnyDepth)
{
    VxPort *port = PortCreate(0, kServer, nullptr);
    for (uintptr_t key = 1; key <= 5; ++key)
        PortAttach(port, key, 0, Record);
    int depthSeen = 0;
    g_react[1] = [&] {
        if (depthSeen++ < 2)
            PortNotify(port, kServer, 0, depthSeen, 0, 0);  // re-enter twice: depth 3
        else {
            PortDetach(port, 1);  // itself, at the innermost level
            PortDetach(port, 3);  // a later client
            PortAttach(port, 6, 0, Record);  // new: waits for the next notification
            EXPECT_EQ(WalkDepth(port), 3);
        }
    };
    bool twoReacted = false;
    g_react[2] = [&] {
        if (twoReacted)
            return;
        twoReacted = true;
        PortDetach(port, 2);
        EXPECT_EQ(PortAttach(port, 2, 0, Record), -1) << "a dead record is revived";
        PortDetach(port, 4);
        EXPECT_EQ(RecordCount(port), 6) << "nothing is freed during the notification";
    };
    PortNotify(port, kServer, 0, 0, 0, 0);
    // Innermost (event 2): 1 detaches itself and 3; then 2 revives itself and detaches 4; 5.
    // The middle and outer walks then find 1, 3 and 4 dead and 2 re-attached.
    EXPECT_EQ(Keys(), (std::vector<uintptr_t>{1, 1, 1, 2, 5, 2, 5, 2, 5}));
    EXPECT_EQ(RecordCount(port), 3) << "dead records reclaimed when the outermost walk ended";
    EXPECT_EQ(WalkDepth(port), 0);
    g_log.clear();
    PortNotify(port, kServer, 0, 0, 0, 0);
    EXPECT_EQ(Keys(), (std::vector<uintptr_t>{2, 5, 6}));
    PortDestroy(port);
}

TEST_F(PortTest, DestroyInsideOwnNotificationWaitsForTheOutermostWalk)
{
    FaultAllocator heap;
    VxPort *port = PortCreate(0, kServer, nullptr);
    PortAttach(port, 1, 0, Record);
    PortAttach(port, 2, 0, Record);
    PortAttach(port, 3, 0, Record);
    g_react[1] = [&] { PortNotify(port, kServer, 2, 0, 0, 0); };
    g_react[2] = [&] {
        PortDestroy(port);
        PortDestroy(port);  // a second destroy during the walk is harmless
        EXPECT_EQ(PortAttach(port, 9, 0, Record), 0);
        PortNotify(port, kServer, 0, 0, 0, 0);
    };
    PortNotify(port, kServer, 0, 0, 0, 0);
    EXPECT_EQ(Keys(), (std::vector<uintptr_t>{1, 2})) << "no delivery after the destroy";
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
}

TEST_F(PortTest, LateOwnerSeesEarlierClients)
{
    EXPECT_EQ(GlobalPortAttach("application-events", 11, 0, Record), 1);
    EXPECT_EQ(GlobalPortAttach("application-events", 12, 0x4, Record), 1);
    EXPECT_EQ(GlobalPortAttach("plugin-database", 13, 0, Record), 1);
    EXPECT_EQ(vx::port::NamedCount(false), 2);
    g_xIsRecordOnAttach = true;
    VxPort *port = GlobalPortAcquire("application-events", 5, kServer, OnAttach);
    g_xIsRecordOnAttach = false;
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port, vx::port::FindGlobal("application-events"));
    ASSERT_EQ(g_attachCalls.size(), 2u) << "once per earlier client";
    EXPECT_EQ(g_attachCalls[0].key, 11u);
    EXPECT_EQ(g_attachCalls[1].key, 12u);
    for (const AttachCall &c : g_attachCalls) {
        EXPECT_EQ(c.mode, PORT_ATTACH);
        EXPECT_EQ(c.server, kServer);
        EXPECT_EQ(c.data, 5u);
    }
    EXPECT_EQ(GlobalPortAttach("application-events", 14, 0, Record), 1);
    EXPECT_EQ(g_attachCalls.back().key, 14u) << "later clients are announced by key";

    PortNotify(port, kServer, 0, 3, 0x1, 8);
    EXPECT_EQ(g_log, (std::vector<Delivery>{{11, 5, 3, 8}, {14, 5, 3, 8}}));

    for (uintptr_t key : {11, 12, 14})
        GlobalPortDetach("application-events", key);
    EXPECT_EQ(vx::port::FindGlobal("application-events"), port) << "an owned port stays";
    GlobalPortDetach("plugin-database", 13);
    EXPECT_EQ(vx::port::FindGlobal("plugin-database"), nullptr) << "no owner, no clients: gone";
    GlobalPortDetach("never-made", 1);
    EXPECT_EQ(vx::port::NamedCount(false), 1);
    PortSetServer(port, 0, 0);
    EXPECT_EQ(GlobalPortAttach("application-events", 15, 0, Record), 1);
    GlobalPortDetach("application-events", 15);
    EXPECT_EQ(vx::port::NamedCount(false), 0) << "disowned and emptied: destroyed";
}

TEST_F(PortTest, GlobalDetachInsideItsOwnNotificationDefersTheDestroy)
{
    FaultAllocator heap;
    GlobalPortAttach("ev", 1, 0, Record);
    GlobalPortAttach("ev", 2, 0, Record);
    VxPort *port = vx::port::FindGlobal("ev");
    g_react[1] = [] {
        GlobalPortDetach("ev", 1);
        GlobalPortDetach("ev", 2);
        EXPECT_EQ(vx::port::FindGlobal("ev"), nullptr) << "unlinked at once";
        EXPECT_EQ(GlobalPortAttach("ev", 3, 0, Record), 1) << "the name makes a fresh port";
    };
    PortNotify(port, 0, 0, 0, 0, 0);
    EXPECT_EQ(Keys(), (std::vector<uintptr_t>{1}));
    VxPort *fresh = vx::port::FindGlobal("ev");
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(RecordCount(fresh), 1);
    GlobalPortDetach("ev", 3);
    EXPECT_EQ(vx::port::NamedCount(false), 0);
    GlobalListCleanup();  // frees the clean-up registration; a leaked old port would remain
    EXPECT_EQ(heap.LiveBytes(), 0u) << "the old port was freed after its walk";
}

TEST_F(PortTest, PublicPortsLiveWhileTheyHaveClients)
{
    PublicPortNotify("nobody", 1, 0, 0);
    EXPECT_EQ(vx::port::NamedCount(true), 0) << "notifying an unknown name creates nothing";
    EXPECT_EQ(PublicPortAttach("scene", 1, 0, Record), 1);
    EXPECT_EQ(PublicPortAttach("scene", 2, 0x2, Record), 1);
    EXPECT_EQ(GlobalPortAttach("scene", 3, 0, Record), 1);  // a separate list
    VxPort *pub = vx::port::FindPublic("scene");
    ASSERT_NE(pub, nullptr);
    EXPECT_NE(pub, vx::port::FindGlobal("scene"));
    EXPECT_NE(vx::port::PortServer(pub), 0u);
    PublicPortNotify("scene", 6, 0x1, 4);
    EXPECT_EQ(g_log, (std::vector<Delivery>{{1, 0, 6, 4}}));
    PortNotify(pub, 0, 0, 6, 0, 4);
    EXPECT_EQ(g_log.size(), 1u) << "the public identity is its server";
    PublicPortDetach("scene", 1);
    EXPECT_EQ(vx::port::FindPublic("scene"), pub);
    PublicPortDetach("scene", 2);
    EXPECT_EQ(vx::port::FindPublic("scene"), nullptr);
    EXPECT_NE(vx::port::FindGlobal("scene"), nullptr);
}

TEST_F(PortTest, NamesCompareByteForByte)
{
    GlobalPortAttach("a\xff", 1, 0, Record);
    GlobalPortAttach("a\x01", 1, 0, Record);
    GlobalPortAttach("a", 1, 0, Record);
    GlobalPortAttach("a\xff", 2, 0, Record);
    EXPECT_EQ(vx::port::NamedCount(false), 3);
    EXPECT_EQ(RecordCount(vx::port::FindGlobal("a\xff")), 2);
    EXPECT_EQ(RecordCount(vx::port::FindGlobal("a")), 1);
    EXPECT_EQ(GlobalPortAttach(nullptr, 1, 0, Record), 0);
    EXPECT_EQ(PublicPortAttach(nullptr, 1, 0, Record), 0);
    EXPECT_EQ(GlobalPortAcquire(nullptr, 0, kServer, nullptr), nullptr);
    GlobalPortDetach(nullptr, 1);
    PublicPortNotify(nullptr, 0, 0, 0);
    EXPECT_EQ(vx::port::NamedCount(false), 3);
}

TEST_F(PortTest, ShutdownCleanupFreesEveryNamedPort)
{
    FaultAllocator heap;
    Reset();  // the clean-up registration must be made on this heap
    GlobalPortAttach("one", 1, 0, Record);
    GlobalPortAcquire("two", 0, kServer, nullptr);
    PublicPortAttach("three", 1, 0, Record);
    EXPECT_GT(heap.LiveBytes(), 0u);
    GlobalListCleanup();
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
    EXPECT_EQ(vx::port::NamedCount(false), 0);
    EXPECT_EQ(GlobalPortAttach("one", 1, 0, Record), 1) << "usable again after the clean-up";
    GlobalListCleanup();
    EXPECT_EQ(heap.LiveBytes(), 0u);
}

// ---- Out-of-memory sweeps ------------------------------------------------------------------

// The named lists and their clean-up registration exist before a sweep starts, so that each
// run measures the operation alone.
void WarmNamedLists()
{
    GlobalPortAttach("warm", 1, 0, Record);
    PublicPortAttach("warm", 1, 0, Record);
}

TEST_F(PortTest, OutOfMemoryPortCreateAndAttach)
{
    VxPort *port = nullptr;
    vxtest::OomSweepAll({[&] { port = nullptr; }, [&] { return (port = PortCreate(1, 2, nullptr)) != nullptr; },
                         [&] { EXPECT_EQ(port, nullptr); },
                         [&] { PortDestroy(port); }});
    vxtest::OomSweepAll({[&] {
                             port = PortCreate(1, kServer, OnAttach);
                             PortAttach(port, 1, 0, Record);
                         },
                         [&] { return PortAttach(port, 2, 0, Record) == 1; },
                         [&] {
                             EXPECT_EQ(RecordCount(port), 1);
                             PortNotify(port, kServer, 0, 0, 0, 0);
                             EXPECT_EQ(Keys(), (std::vector<uintptr_t>{1}));
                             g_log.clear();
                         },
                         [&] { PortDestroy(port); }});
}

TEST_F(PortTest, OutOfMemoryGlobalAttachAndAcquire)
{
    WarmNamedLists();
    for (const char *name : {"fresh", "warm"}) {
        SCOPED_TRACE(name);
        const int32_t before = RecordCount(vx::port::FindGlobal("warm"));
        vxtest::OomSweepAll({[] {}, [&] { return GlobalPortAttach(name, 2, 0, Record) == 1; },
                             [&] {
                                 EXPECT_EQ(vx::port::FindGlobal("fresh"), nullptr);
                                 EXPECT_EQ(RecordCount(vx::port::FindGlobal("warm")), before);
                                 EXPECT_EQ(vx::port::NamedCount(false), 1);
                             },
                             [&] { GlobalPortDetach(name, 2); }});
    }
    vxtest::OomSweepAll({[] {}, [] { return GlobalPortAcquire("owned", 1, kServer, nullptr) != nullptr; },
                         [] { EXPECT_EQ(vx::port::FindGlobal("owned"), nullptr); },
                         [] { PortDestroy(vx::port::FindGlobal("owned")); }});
}

TEST_F(PortTest, OutOfMemoryPublicAttach)
{
    WarmNamedLists();
    vxtest::OomSweepAll({[] {}, [] { return PublicPortAttach("fresh", 2, 0, Record) == 1; },
                         [] {
                             EXPECT_EQ(vx::port::FindPublic("fresh"), nullptr);
                             EXPECT_EQ(vx::port::NamedCount(true), 1);
                         },
                         [] { PublicPortDetach("fresh", 2); }});
}

// ---- Randomized re-entrancy against a model ------------------------------------------------
//
// Two ports and six client keys. Callbacks run random operations (attach, detach, disable,
// enable, mask changes and nested notifications of either port) up to four levels deep. The
// model tracks which records each port holds (dead ones too, while walks run) and checks every
// delivery: the client must be eligible at that moment, must have been on the list when the
// notification began, must be reached in list order and only once; at the end of each
// notification every client that stayed eligible throughout must have heard it exactly once.

struct ModelClient {
    bool live = true;
    uint32_t mask = 0;
    int32_t disable = 0;
};

struct ModelPort {
    VxPort *port = nullptr;
    std::vector<uintptr_t> order;             // keys of the records, in list order
    std::map<uintptr_t, ModelClient> clients;  // records by key
    int depth = 0;
    int attachCalls = 0;
    int detachCalls = 0;
};

struct Frame {
    int port;
    uintptr_t keyFilter;
    uint32_t mask;
    bool wrongServer;
    std::set<uintptr_t> present, eligibleAtStart, delivered, spoiled;
    int lastPosition = -1;
};

class ReentrancyModel {
public:
    explicit ReentrancyModel(uint32_t seed) : rng_(seed) { self_ = this; }
    ~ReentrancyModel() { self_ = nullptr; }

    void Run(int steps)
    {
        for (int p = 0; p < 2; ++p) {
            ports_[p].port = PortCreate(static_cast<uintptr_t>(p), kServer, p == 0 ? CountAttach : nullptr);
            ASSERT_NE(ports_[p].port, nullptr);
        }
        for (int i = 0; i < steps && !::testing::Test::HasFailure(); ++i)
            RandomOperation(0);
        for (ModelPort &mp : ports_) {
            EXPECT_EQ(RecordCount(mp.port), static_cast<int32_t>(mp.order.size()));
            PortDestroy(mp.port);
        }
        EXPECT_EQ(ports_[0].attachCalls, attachCallsSeen_);
        EXPECT_EQ(ports_[0].detachCalls, detachCallsSeen_);
    }

private:
    static constexpr int kMaxNesting = 4;

    int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    uintptr_t PickKey() { return static_cast<uintptr_t>(1 + Pick(6)); }
    uint32_t PickMask() { return Pick(3) == 0 ? 0 : 1u << Pick(4); }

    static void CountAttach(uintptr_t, uintptr_t, int32_t mode, uintptr_t x)
    {
        if (mode == PORT_ATTACH)
            ++self_->attachCallsSeen_;
        else {
            ++self_->detachCallsSeen_;
            EXPECT_EQ(reinterpret_cast<const VxPortAttachment *>(x)->clientKey, self_->detachingKey_);
        }
    }

    static void OnDelivery(uintptr_t key, uintptr_t portData, int32_t, uintptr_t) { self_->Deliver(key, portData); }

    static bool Eligible(const ModelPort &mp, const Frame &f, uintptr_t key)
    {
        auto it = mp.clients.find(key);
        if (it == mp.clients.end() || !it->second.live || it->second.disable)
            return false;
        const uint32_t clientMask = it->second.mask ? it->second.mask : 0xFFFFFFFFu;
        return (!f.keyFilter || f.keyFilter == key) && (clientMask & f.mask);
    }

    void Deliver(uintptr_t key, uintptr_t portData)
    {
        ASSERT_FALSE(frames_.empty()) << "delivery outside any notification";
        Frame &f = frames_.back();
        ASSERT_FALSE(f.wrongServer) << "delivery for a notification naming the wrong server";
        ASSERT_EQ(portData, static_cast<uintptr_t>(f.port));
        const ModelPort &mp = ports_[f.port];
        EXPECT_TRUE(Eligible(mp, f, key)) << "key " << key << " was not eligible";
        EXPECT_TRUE(f.present.count(key)) << "key " << key << " attached after the notification began";
        EXPECT_TRUE(f.delivered.insert(key).second) << "key " << key << " heard it twice";
        const int position = static_cast<int>(std::find(mp.order.begin(), mp.order.end(), key) - mp.order.begin());
        EXPECT_GT(position, f.lastPosition) << "out of list order";
        f.lastPosition = position;
        if (static_cast<int>(frames_.size()) < kMaxNesting && Pick(2) == 0)
            RandomOperation(static_cast<int>(frames_.size()));
    }

    void Spoil(int p, uintptr_t key)
    {
        for (Frame &f : frames_)
            if (f.port == p)
                f.spoiled.insert(key);
    }

    void RandomOperation(int nesting)
    {
        const int p = nesting && Pick(4) ? frames_.back().port : Pick(2);  // mostly the port notifying
        ModelPort &mp = ports_[p];
        const uintptr_t key = PickKey();
        switch (Pick(nesting ? 7 : 5)) {
        case 0: Attach(p, key); break;
        case 5: Attach(p, lastDetached_ ? lastDetached_ : key); break;  // often a revival
        case 1:
        case 6: Detach(p, key); break;
        case 2: {
            auto it = mp.clients.find(key);
            const bool enable = Pick(2) == 0;
            if (enable)
                PortEnable(mp.port, key);
            else
                PortDisable(mp.port, key);
            if (it != mp.clients.end() && it->second.live) {
                if (!enable)
                    ++it->second.disable;
                else if (it->second.disable > 0)
                    --it->second.disable;
            }
            Spoil(p, key);
            break;
        }
        case 3: {
            const uint32_t mask = PickMask();
            PortSetEventMask(mp.port, key, mask);
            auto it = mp.clients.find(key);
            if (it != mp.clients.end() && it->second.live)
                it->second.mask = mask;
            Spoil(p, key);
            break;
        }
        default: Notify(p); break;
        }
        ASSERT_EQ(RecordCount(mp.port), static_cast<int32_t>(mp.order.size())) << "records differ from the model";
    }

    void Attach(int p, uintptr_t key)
    {
        ModelPort &mp = ports_[p];
        const uint32_t mask = PickMask();
        const int expected = mp.clients.count(key) ? -1 : 1;
        if (expected == 1) {
            mp.order.push_back(key);
            if (p == 0)
                ++mp.attachCalls;
        }
        mp.clients[key] = ModelClient{true, mask, 0};
        Spoil(p, key);
        EXPECT_EQ(PortAttach(mp.port, key, mask, OnDelivery), expected);
    }

    void Detach(int p, uintptr_t key)
    {
        ModelPort &mp = ports_[p];
        auto it = mp.clients.find(key);
        if (it != mp.clients.end() && it->second.live) {
            it->second.live = false;
            if (p == 0)
                ++mp.detachCalls;
            if (mp.depth == 0) {
                mp.clients.erase(it);
                mp.order.erase(std::find(mp.order.begin(), mp.order.end(), key));
            }
        }
        Spoil(p, key);
        lastDetached_ = key;
        detachingKey_ = key;
        PortDetach(mp.port, key);
    }

    void Notify(int p)
    {
        ModelPort &mp = ports_[p];
        Frame f;
        f.port = p;
        f.keyFilter = Pick(4) == 0 ? PickKey() : 0;
        f.mask = PickMask();
        f.wrongServer = Pick(8) == 0;
        if (!f.mask)
            f.mask = 0xFFFFFFFFu;
        for (uintptr_t key : mp.order) {
            f.present.insert(key);
            if (Eligible(mp, f, key))
                f.eligibleAtStart.insert(key);
        }
        frames_.push_back(f);
        if (!f.wrongServer)
            ++mp.depth;
        PortNotify(mp.port, f.wrongServer ? kServer + 1 : kServer, f.keyFilter, 0,
                   f.mask == 0xFFFFFFFFu ? 0 : f.mask, 0);
        Frame done = frames_.back();
        frames_.pop_back();
        if (f.wrongServer) {
            EXPECT_TRUE(done.delivered.empty());
            return;
        }
        for (uintptr_t key : done.eligibleAtStart) {
            if (!done.spoiled.count(key)) {
                EXPECT_TRUE(done.delivered.count(key)) << "key " << key << " stayed eligible but heard nothing";
            }
        }
        if (--mp.depth == 0)
            ReclaimModel(mp);
    }

    static void ReclaimModel(ModelPort &mp)
    {
        for (auto it = mp.clients.begin(); it != mp.clients.end();) {
            if (it->second.live) {
                ++it;
                continue;
            }
            mp.order.erase(std::find(mp.order.begin(), mp.order.end(), it->first));
            it = mp.clients.erase(it);
        }
    }

    static inline ReentrancyModel *self_ = nullptr;
    std::mt19937 rng_;
    ModelPort ports_[2];
    std::vector<Frame> frames_;
    int attachCallsSeen_ = 0;
    int detachCallsSeen_ = 0;
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
