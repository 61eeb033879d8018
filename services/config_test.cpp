#include <vxtools3/ckpt.h>
#include <vxtools3/config.h>

#include "services/config_test_util.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

using cfgtest::Snapshot;
using cfgtest::TakeSnapshot;

namespace {

std::vector<std::string> g_notes;  // "<data>:<name>" for every change callback

void Note(uintptr_t data, const char *name)
{
    g_notes.push_back(std::to_string(data) + ":" + name);
}

class ConfigStoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_notes.clear();
        client_ = ConfigAddClient(nullptr, 0);
        ASSERT_NE(client_, nullptr);
    }
    void TearDown() override
    {
        ConfigRemClient(client_);
        EXPECT_EQ(ConfigNextValue(nullptr), nullptr) << "the store outlived its last client";
        EXPECT_EQ(CkptLevel(), -1);
    }
    VxConfigClient *client_ = nullptr;
};

std::string RandomWord(std::mt19937 &rng, bool white)
{
    static const std::string kBytes = "ab Z9_\"\\\t\x01\x7f\xc3\xa9-.";
    std::uniform_int_distribution<size_t> length(0, 10), pick(0, kBytes.size() - 1);
    std::string word;
    for (size_t n = length(rng); n > 0; --n) {
        char c = kBytes[pick(rng)];
        if (!white && (c == ' ' || c == '\t'))
            c = '_';
        word += c;
    }
    return word;
}

double ThroughFieldFormat(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.7g", value);
    return std::strtod(text, nullptr);
}

TEST_F(ConfigStoreTest, EveryFieldLetterRoundTripsRandomValues)
{
    ASSERT_EQ(ConfigDefineValue("mixed", "fistst"), 1);
    ASSERT_EQ(ConfigDefineValue("last", "is"), 1);
    std::mt19937 rng(5);
    std::uniform_int_distribution<int32_t> anyInt(INT32_MIN, INT32_MAX);
    std::uniform_real_distribution<double> anyDouble(-1e6, 1e6);
    const int32_t limits[] = {INT32_MIN, INT32_MAX, 0, -1};
    for (int round = 0; round < 400; ++round) {
        const double f = round == 0 ? DBL_MAX : round == 1 ? -DBL_MIN : anyDouble(rng);
        const int32_t i = round < 4 ? limits[round] : anyInt(rng);
        const std::string s1 = RandomWord(rng, true), s2 = RandomWord(rng, true);
        const std::string t1 = RandomWord(rng, false) + "t", t2 = "t" + RandomWord(rng, false);  // never empty
        ASSERT_EQ(ConfigSet("mixed", f, i, s1.c_str(), t1.c_str(), s2.c_str(), t2.c_str()), 1);
        double fb = 0;
        int32_t ib = 0;
        char w[5][CONFIG_TEXT_SIZE];
        ASSERT_EQ(ConfigGet("mixed", &fb, &ib, w[0], w[1], w[2], w[3]), 1) << ConfigRawGet("mixed", 0);
        EXPECT_EQ(fb, ThroughFieldFormat(f));
        EXPECT_EQ(ib, i);
        EXPECT_EQ((std::vector<std::string>{w[0], w[1], w[2], w[3]}), (std::vector<std::string>{s1, t1, s2, t2}));
        // A final word comes back whole, whatever it holds.
        const std::string tail = RandomWord(rng, true) + " " + RandomWord(rng, true);
        ASSERT_EQ(ConfigSet("last", i, tail.c_str()), 1);
        ASSERT_EQ(ConfigGet("last", &ib, w[4]), 1) << ConfigRawGet("last", 0);
        EXPECT_EQ(w[4], tail);
    }
}

TEST_F(ConfigStoreTest, EntryTextsAreExact)
{
    ASSERT_EQ(ConfigDefineValue("v", "fisst?"), 1);
    ASSERT_EQ(ConfigSet("v", 0.1, -7, "two words", "say \"hi\"", "bare", 5.0), 1);  // '?' takes nothing
    EXPECT_STREQ(ConfigRawGet("v", 0), "0.1 -7 \"two words\" \"say \\\"hi\\\"\" bare ");
    ASSERT_EQ(ConfigDefineValue("path", "is"), 1);
    ASSERT_EQ(ConfigSet("path", 3, "C:\\My Files\\a b"), 1);
    EXPECT_STREQ(ConfigRawGet("path", 0), "3 C:\\My Files\\a b");  // last word as it is
    ASSERT_EQ(ConfigSet("path", 3, " lead"), 1);
    EXPECT_STREQ(ConfigRawGet("path", 0), "3 \" lead\"");
    ASSERT_EQ(ConfigSet("path", 3, static_cast<const char *>(nullptr)), 1);
    EXPECT_STREQ(ConfigRawGet("path", 0), "3 \"\"");
    ASSERT_EQ(ConfigDefineValue("g", "f"), 1);
    ASSERT_EQ(ConfigSet("g", 1.0 / 3.0), 1);
    EXPECT_STREQ(ConfigRawGet("g", 0), "0.3333333");
}

TEST_F(ConfigStoreTest, ParsingFailuresAndMissingFields)
{
    ASSERT_EQ(ConfigDefineValue("n", "fif"), 1);
    ASSERT_EQ(ConfigRawSet("n", 0, "1.5 7"), 1);
    double a = -1, b = -1;
    int32_t i = -1;
    EXPECT_EQ(ConfigGet("n", &a, &i, &b), 1);  // a missing double reads as 0.0
    EXPECT_EQ(b, 0.0);
    ASSERT_EQ(ConfigRawSet("n", 0, "1.5"), 1);
    EXPECT_EQ(ConfigGet("n", &a, &i, &b), 0);  // a missing integer fails
    ASSERT_EQ(ConfigRawSet("n", 0, "x 7 1"), 1);
    EXPECT_EQ(ConfigGet("n", &a, &i, &b), 0);
    EXPECT_EQ(ConfigGet("unknown", &a), 0);
    EXPECT_EQ(ConfigIGet("n", 1, &a, &i, &b), 0);
    EXPECT_EQ(ConfigIGet("n", -1, &a, &i, &b), 0);
    EXPECT_EQ(ConfigRawGet("n", 1), nullptr);
    // A last word takes up to CONFIG_TEXT_SIZE - 1 characters, quoted or not.
    ASSERT_EQ(ConfigDefineValue("long", "s"), 1);
    const std::string longest(CONFIG_TEXT_SIZE - 1, 'w');
    char word[CONFIG_TEXT_SIZE];
    for (const std::string &text : {longest, "\"" + longest + "\""}) {
        ASSERT_EQ(ConfigRawSet("long", 0, text.c_str()), 1);
        EXPECT_EQ(ConfigGet("long", word), 1);
        EXPECT_EQ(word, longest);
        ASSERT_EQ(ConfigRawSet("long", 0, (text + "w").c_str()), 1);
        EXPECT_EQ(ConfigGet("long", word), 0);
    }
}

TEST_F(ConfigStoreTest, IndexedEntriesAndSetLeavesOne)
{
    ASSERT_EQ(ConfigDefineValue("recent", "s"), 1);
    ASSERT_EQ(ConfigISet("recent", 5, "a"), 1);  // no entry at 5: appended as entry 0
    ASSERT_EQ(ConfigISet("recent", 1, "b"), 1);
    ASSERT_EQ(ConfigISet("recent", 2, "c"), 1);
    ASSERT_EQ(ConfigISet("recent", 1, "B"), 1);  // replaces in place
    EXPECT_EQ(ConfigISet("recent", -1, "x"), 0);
    ASSERT_EQ(ConfigNum("recent"), 3);
    EXPECT_STREQ(ConfigRawGet("recent", 1), "B");
    char word[CONFIG_TEXT_SIZE];
    ASSERT_EQ(ConfigIGet("recent", 2, word), 1);
    EXPECT_STREQ(word, "c");
    ASSERT_EQ(ConfigSet("recent", "only"), 1);
    ASSERT_EQ(ConfigNum("recent"), 1);
    EXPECT_STREQ(ConfigRawGet("recent", 0), "only");
    EXPECT_EQ(ConfigIClear("recent", 1), 0);
    EXPECT_EQ(ConfigIClear("recent", 0), 1);
    EXPECT_EQ(ConfigNum("recent"), 0);
}

TEST_F(ConfigStoreTest, DefinitionRules)
{
    const char *const members[] = {"a", nullptr};
    ASSERT_EQ(ConfigSetAlias("group", members), 1);
    EXPECT_EQ(ConfigDefineValue("group", "i"), 0);
    EXPECT_EQ(ConfigSetAlias("group", members), 0);
    ASSERT_EQ(ConfigDefineValue("a", "i"), 1);
    EXPECT_EQ(ConfigDefineValue("a", "f"), 0);
    EXPECT_EQ(ConfigSetAlias("a", members), 0);
    EXPECT_EQ(ConfigDefineValue("", "i"), 0);
    EXPECT_EQ(ConfigDefineValue("b", ""), 0);
    EXPECT_EQ(ConfigSet("untyped", 1), 0);
    // A value first met without a type keeps its entries and receives the type.
    ASSERT_EQ(ConfigRawSet("late", 0, "41"), 1);
    ASSERT_EQ(ConfigRawSet("late", 1, "42"), 1);
    ASSERT_EQ(ConfigDefineValue("late", "i"), 1);
    int32_t v = 0;
    ASSERT_EQ(ConfigIGet("late", 1, &v), 1);
    EXPECT_EQ(v, 42);
    EXPECT_EQ(ConfigRawSet("group", 0, "x"), 0);
}

// Keyed entries against a std::map model, for each kind of key.
template <class K>
void RunKeyedModel(const char *name, std::vector<K> keys)
{
    std::map<K, int32_t> model;
    std::mt19937 rng(3);
    for (int step = 0; step < 400; ++step) {
        const K &key = keys[rng() % keys.size()];
        const int32_t payload = static_cast<int32_t>(rng() % 1000);
        if (rng() % 3) {
            ASSERT_EQ(ConfigXSet(name, key, payload), 1);
            model[key] = payload;
        } else {
            EXPECT_EQ(ConfigXClear(name, key), model.erase(key) ? 1 : 0);
        }
        ASSERT_EQ(ConfigNum(name), static_cast<int32_t>(model.size()));
        for (const auto &[k, v] : model) {
            int32_t back = -1;
            ASSERT_EQ(ConfigXGet(name, k, &back), 1);
            EXPECT_EQ(back, v);
        }
    }
}

TEST_F(ConfigStoreTest, KeyedEntriesFollowAMapModel)
{
    ASSERT_EQ(ConfigDefineValue("byInt", "ii"), 1);
    ASSERT_EQ(ConfigDefineValue("byDouble", "fi"), 1);
    ASSERT_EQ(ConfigDefineValue("byWord", "si"), 1);
    ASSERT_EQ(ConfigDefineValue("byText", "ti"), 1);
    RunKeyedModel<int>("byInt", {INT32_MIN, -1, 0, 7, INT32_MAX});
    // 1.23456789 is stored as "1.234568" and must still find its entry.
    RunKeyedModel<double>("byDouble", {0.0, 0.1, 1.23456789, -2.5e-300, 1e300});
    RunKeyedModel<const char *>("byWord", {"a", "a b", "", "q\"uote", "back\\slash", "A"});
    RunKeyedModel<const char *>("byText", {"x", "xy", "x_y", "X"});
}

TEST_F(ConfigStoreTest, KeyedWordAsTheOnlyFieldTakesTheWholeEntry)
{
    ASSERT_EQ(ConfigDefineValue("dirs", "s"), 1);
    ASSERT_EQ(ConfigXSet("dirs", "/a b/c"), 1);
    ASSERT_EQ(ConfigXSet("dirs", "/a"), 1);
    ASSERT_EQ(ConfigXSet("dirs", "/a b/c"), 1);
    EXPECT_EQ(ConfigNum("dirs"), 2);
    EXPECT_EQ(ConfigXClear("dirs", "/a b/c"), 1);
    EXPECT_STREQ(ConfigRawGet("dirs", 0), "/a");
}

TEST_F(ConfigStoreTest, NotificationsImmediateHeldAndReleased)
{
    const char *const names[] = {"a", "b", "c", nullptr};
    for (const char *const *n = names; *n; ++n)
        ASSERT_EQ(ConfigDefineValue(*n, "i"), 1);
    ASSERT_EQ(ConfigTrackValues(names, Note, 9, 1), 1);
    ConfigSet("b", 1);
    ConfigRawSet("a", 0, "5");  // raw setting is silent
    EXPECT_EQ(g_notes, (std::vector<std::string>{"9:b"}));
    g_notes.clear();

    ConfigHold();
    ConfigHold();
    ConfigSet("c", 1);
    ConfigISet("a", 1, 2);
    ConfigSet("c", 2);
    ConfigRelease();
    EXPECT_TRUE(g_notes.empty());
    ConfigRelease();
    ConfigRelease();  // nothing held: nothing happens
    EXPECT_EQ(g_notes, (std::vector<std::string>{"9:a", "9:c"}));  // once each, in definition order
    g_notes.clear();
    ConfigClearAll();
    EXPECT_EQ(g_notes, (std::vector<std::string>{"9:a", "9:b", "9:c"}));
    EXPECT_EQ(ConfigNum("a"), 0);
    g_notes.clear();
    EXPECT_EQ(ConfigClear("b"), 1);
    EXPECT_EQ(ConfigXClear("b", 1), 0);
    EXPECT_EQ(g_notes, (std::vector<std::string>{"9:b"}));
}

TEST_F(ConfigStoreTest, AliasesExpandRecursivelyAndSurviveCycles)
{
    const char *const inner[] = {"x", "loop", nullptr};
    const char *const loop[] = {"inner", "y", nullptr};
    ASSERT_EQ(ConfigSetAlias("inner", inner), 1);
    ASSERT_EQ(ConfigSetAlias("loop", loop), 1);
    const char *const outer[] = {"loop", "z", nullptr};
    ASSERT_EQ(ConfigTrackValues(outer, Note, 1, 1), 1);  // defines x, y, z without a type
    for (const char *name : {"x", "y", "z"}) {
        ASSERT_EQ(ConfigRawSet(name, 0, "v"), 1);
        ASSERT_EQ(ConfigDefineValue(name, "t"), 1) << name;
    }
    g_notes.clear();
    ConfigClearAll();
    std::sort(g_notes.begin(), g_notes.end());
    EXPECT_EQ(g_notes, (std::vector<std::string>{"1:x", "1:y", "1:z"}));
}

// ---- clients and synchronisation ----

std::vector<std::string> g_syncs;

void Sync(uintptr_t data, int32_t direction)
{
    g_syncs.push_back(std::to_string(data) + (direction ? "+" : "-"));
}

TEST_F(ConfigStoreTest, SynchronisationCallsOwnersFirstThenTheRest)
{
    for (const char *n : {"p", "q", "r"})
        ASSERT_EQ(ConfigDefineValue(n, "i"), 1);
    VxConfigClient *c1 = ConfigAddClient(Sync, 1);
    VxConfigClient *c2 = ConfigAddClient(Sync, 2);
    VxConfigClient *c3 = ConfigAddClient(Sync, 3);
    VxConfigClient *silent = ConfigAddClient(nullptr, 4);
    const char *const ownsQ[] = {"q", nullptr};
    const char *const ownsP[] = {"p", nullptr};
    ASSERT_EQ(ConfigSetClientNames(c3, ownsQ), 1);
    ASSERT_EQ(ConfigSetClientNames(c2, ownsP), 1);

    const char *const qOnly[] = {"q", nullptr};
    ConfigSynchronize(1, qOnly);  // only the owner
    EXPECT_EQ(g_syncs, (std::vector<std::string>{"3+"}));
    g_syncs.clear();
    const char *const pqr[] = {"r", "q", "p", nullptr};
    ConfigSynchronize(0, pqr);  // owners in client order, then the rest for "r"
    EXPECT_EQ(g_syncs, (std::vector<std::string>{"2-", "3-", "1-"}));
    g_syncs.clear();
    ConfigSynchronize(1, nullptr);  // everyone once
    EXPECT_EQ(g_syncs, (std::vector<std::string>{"1+", "2+", "3+"}));
    for (VxConfigClient *c : {c1, c2, c3, silent})
        ConfigRemClient(c);
    g_syncs.clear();
}

VxConfigClient *g_selfRemoving;

void RemoveSelf(uintptr_t, int32_t)
{
    ConfigRemClient(g_selfRemoving);
    g_syncs.push_back("removed");
}

TEST_F(ConfigStoreTest, AClientMayRemoveItselfDuringASync)
{
    ASSERT_EQ(ConfigDefineValue("v", "i"), 1);
    g_selfRemoving = ConfigAddClient(RemoveSelf, 0);
    VxConfigClient *after = ConfigAddClient(Sync, 7);
    ConfigSynchronize(1, nullptr);
    ConfigSynchronize(1, nullptr);
    EXPECT_EQ(g_syncs, (std::vector<std::string>{"removed", "7+", "7+"}));
    ConfigRemClient(after);
    g_syncs.clear();
}

TEST(ConfigLifetimeTest, NothingWorksWithoutAClient)
{
    EXPECT_EQ(ConfigDefineValue("a", "i"), 0);
    EXPECT_EQ(ConfigRawSet("a", 0, "1"), 0);
    EXPECT_EQ(ConfigNum("a"), 0);
    EXPECT_EQ(ConfigNextValue(nullptr), nullptr);
    EXPECT_EQ(ConfigDefaultWrite(), 0);
    ConfigRemClient(nullptr);
    ConfigClearAll();
    ConfigHold();
    ConfigRelease();
}

// ---- out of memory ----

void SetupStore(VxConfigClient **client)
{
    *client = ConfigAddClient(nullptr, 0);
    ConfigDefineValue("old", "is");
    ConfigSet("old", 1, "one");
    ConfigISet("old", 1, 2, "two");
    ConfigISet("old", 2, 3, "three");
    ConfigRawSet("raw", 0, "kept");
}

vxtest::OomCase StoreCase(VxConfigClient **client, Snapshot *before, std::function<bool()> run)
{
    return {[=] {
                SetupStore(client);
                *before = TakeSnapshot();
            },
            std::move(run), [=] { EXPECT_EQ(TakeSnapshot(), *before); }, [=] { ConfigRemClient(*client); }};
}

TEST(ConfigOomTest, EveryChangeLeavesTheStoreAsItWas)
{
    VxConfigClient *client = nullptr;
    Snapshot before;
    const char *const names[] = {"n1", "old", "n2", "n3", nullptr};
    const std::function<int()> changes[] = {
        [] { return ConfigDefineValue("fresh", "fis"); }, [] { return ConfigDefineValue("raw", "t"); },
        [] { return ConfigSet("old", 9, "a much longer word"); }, [] { return ConfigISet("old", 3, 4, "four"); },
        [] { return ConfigISet("old", 1, 4, "replaced"); }, [] { return ConfigXSet("old", 2, "keyed"); },
        [] { return ConfigRawSet("new", 0, "x y"); }, [&] { return ConfigSetAlias("al", names); },
        [&] { return ConfigTrackValues(names, Note, 0, 1); }, [&] { return ConfigSetClientNames(client, names); }};
    for (const auto &change : changes)
        vxtest::OomSweepAll(StoreCase(&client, &before, [&] { return change() == 1; }));
    vxtest::OomSweepAll({[] {}, [&] { return (client = ConfigAddClient(nullptr, 0)) != nullptr; },
                         [] { EXPECT_EQ(ConfigDefineValue("a", "i"), 0); }, [&] { ConfigRemClient(client); }});
}

VxConfigClient *g_onlyClient;
int g_closingCalls;

void RemoveLastClient(uintptr_t, const char *)
{
    ++g_closingCalls;
    ConfigRemClient(g_onlyClient);
    // The store stays usable until the callback returns.
    EXPECT_EQ(ConfigNum("a") + ConfigNum("b"), 0);
}

TEST(ConfigLifetimeTest, ACallbackMayRemoveTheLastClient)
{
    g_onlyClient = ConfigAddClient(nullptr, 0);
    const char *const names[] = {"a", "b", nullptr};
    ASSERT_EQ(ConfigTrackValues(names, RemoveLastClient, 0, 1), 1);
    ConfigClearAll();  // notifies a, then b, and closes the store after the walk
    EXPECT_EQ(g_closingCalls, 2);
    EXPECT_EQ(ConfigNextValue(nullptr), nullptr);
    EXPECT_EQ(ConfigDefineValue("a", "i"), 0);
}

}  // namespace
