#include "services/config_test.h"
#include "testkit/oom_sweep.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cstdio>
#include <functional>
#include <map>

using namespace cfgtest;

namespace {

using ConfigStoreTest = StoreTest;

TEST_F(ConfigStoreTest, EveryFieldLetterRoundTripsRandomValues)
{
    Define({{"mixed", "fistst"}, {"last", "is"}});
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
        char w[5][CONFIG_TEXT_SIZE], seven[64];
        ASSERT_EQ(ConfigGet("mixed", &fb, &ib, w[0], w[1], w[2], w[3]), 1) << ConfigRawGet("mixed", 0);
        std::snprintf(seven, sizeof seven, "%.7g", f);
        EXPECT_EQ(fb, std::strtod(seven, nullptr));
        EXPECT_EQ(ib, i);
        EXPECT_EQ((Log{w[0], w[1], w[2], w[3]}), (Log{s1, t1, s2, t2}));
        // A final word comes back whole, whatever it holds.
        const std::string tail = RandomWord(rng, true) + " " + RandomWord(rng, true);
        ASSERT_EQ(ConfigSet("last", i, tail.c_str()), 1);
        ASSERT_EQ(ConfigGet("last", &ib, w[4]), 1) << ConfigRawGet("last", 0);
        EXPECT_EQ(w[4], tail);
    }
}

TEST_F(ConfigStoreTest, EntryTextsAreExact)
{
    Define({{"v", "fisst?"}, {"path", "is"}, {"g", "f"}});
    ASSERT_EQ(ConfigSet("v", 0.1, -7, "two words", "say \"hi\"", "bare", 5.0), 1);  // '?' takes nothing
    EXPECT_STREQ(ConfigRawGet("v", 0), "0.1 -7 \"two words\" \"say \\\"hi\\\"\" bare ");
    const std::pair<const char *, const char *> lastWords[] = {
        {"C:\\My Files\\a b", "3 C:\\My Files\\a b"}, {" lead", "3 \" lead\""}, {nullptr, "3 \"\""}};
    for (const auto &[word, text] : lastWords) {
        ASSERT_EQ(ConfigSet("path", 3, word), 1);
        EXPECT_STREQ(ConfigRawGet("path", 0), text);
    }
    ASSERT_EQ(ConfigSet("g", 1.0 / 3.0), 1);
    EXPECT_STREQ(ConfigRawGet("g", 0), "0.3333333");
}

TEST_F(ConfigStoreTest, ParsingFailuresAndMissingFields)
{
    Define({{"n", "fif"}, {"long", "s"}});
    double a = -1, b = -1;
    int32_t i = -1;
    // A missing double reads as 0.0, a missing integer fails.
    for (const auto &[text, result] : {std::pair{"1.5 7", 1}, {"1.5", 0}, {"x 7 1", 0}}) {
        ASSERT_EQ(ConfigRawSet("n", 0, text), 1);
        EXPECT_EQ(ConfigGet("n", &a, &i, &b), result) << text;
    }
    EXPECT_EQ(b, 0.0);
    EXPECT_EQ(ConfigGet("unknown", &a), 0);
    EXPECT_EQ(ConfigIGet("n", 1, &a, &i, &b), 0);
    EXPECT_EQ(ConfigIGet("n", -1, &a, &i, &b), 0);
    EXPECT_EQ(ConfigRawGet("n", 1), nullptr);
    // A last word takes up to CONFIG_TEXT_SIZE - 1 characters, quoted or not.
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
    Define({{"recent", "s"}});
    // No entry at 5: appended as entry 0; then 1 and 2 are appended and 1 replaced in place.
    for (const auto &[index, word] : {std::pair{5, "a"}, {1, "b"}, {2, "c"}, {1, "B"}})
        ASSERT_EQ(ConfigISet("recent", index, word), 1);
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
    EXPECT_EQ(ConfigDefineValue("group", "i") + ConfigSetAlias("group", members), 0);
    Define({{"a", "i"}});
    EXPECT_EQ(ConfigDefineValue("a", "f") + ConfigSetAlias("a", members), 0);
    EXPECT_EQ(ConfigDefineValue("", "i") + ConfigDefineValue("b", ""), 0);
    EXPECT_EQ(ConfigSet("untyped", 1) + ConfigRawSet("group", 0, "x"), 0);
    // A value first met without a type keeps its entries and receives the type.
    ASSERT_EQ(ConfigRawSet("late", 0, "41"), 1);
    ASSERT_EQ(ConfigRawSet("late", 1, "42"), 1);
    Define({{"late", "i"}});
    int32_t v = 0;
    ASSERT_EQ(ConfigIGet("late", 1, &v), 1);
    EXPECT_EQ(v, 42);
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
    Define({{"byInt", "ii"}, {"byDouble", "fi"}, {"byWord", "si"}, {"byText", "ti"}, {"dirs", "s"}});
    RunKeyedModel<int>("byInt", {INT32_MIN, -1, 0, 7, INT32_MAX});
    // 1.23456789 is stored as "1.234568" and must still find its entry.
    RunKeyedModel<double>("byDouble", {0.0, 0.1, 1.23456789, -2.5e-300, 1e300});
    RunKeyedModel<const char *>("byWord", {"a", "a b", "", "q\"uote", "back\\slash", "A"});
    RunKeyedModel<const char *>("byText", {"x", "xy", "x_y", "X"});
    // A keyed word as the only field takes the whole entry.
    for (const char *dir : {"/a b/c", "/a", "/a b/c"})
        ASSERT_EQ(ConfigXSet("dirs", dir), 1);
    EXPECT_EQ(ConfigNum("dirs"), 2);
    EXPECT_EQ(ConfigXClear("dirs", "/a b/c"), 1);
    EXPECT_STREQ(ConfigRawGet("dirs", 0), "/a");
}

TEST_F(ConfigStoreTest, NotificationsImmediateHeldAndReleased)
{
    const char *const names[] = {"a", "b", "c", nullptr};
    Define({{"a", "i"}, {"b", "i"}, {"c", "i"}});
    ASSERT_EQ(ConfigTrackValues(names, Note, 9, 1), 1);
    ConfigSet("b", 1);
    ConfigRawSet("a", 0, "5");  // raw setting is silent
    EXPECT_EQ(Taken(), Log{"9:b"});
    ConfigHold(), ConfigHold();
    ConfigSet("c", 1), ConfigISet("a", 1, 2), ConfigSet("c", 2);
    ConfigRelease();
    EXPECT_TRUE(g_log.empty());
    ConfigRelease(), ConfigRelease();  // the second holds nothing: nothing happens
    EXPECT_EQ(Taken(), (Log{"9:a", "9:c"}));  // once each, in definition order
    ConfigClearAll();
    EXPECT_EQ(Taken(), (Log{"9:a", "9:b", "9:c"}));
    EXPECT_EQ(ConfigNum("a"), 0);
    EXPECT_EQ(ConfigClear("b"), 1);
    EXPECT_EQ(ConfigXClear("b", 1), 0);
    EXPECT_EQ(g_log, Log{"9:b"});
}

TEST_F(ConfigStoreTest, AliasesExpandRecursivelyAndSurviveCycles)
{
    const char *const inner[] = {"x", "loop", nullptr}, *const loop[] = {"inner", "y", nullptr};
    const char *const outer[] = {"loop", "z", nullptr};
    ASSERT_EQ(ConfigSetAlias("inner", inner) + ConfigSetAlias("loop", loop), 2);
    ASSERT_EQ(ConfigTrackValues(outer, Note, 1, 1), 1);  // defines x, y, z without a type
    for (const char *name : {"x", "y", "z"}) {
        ASSERT_EQ(ConfigRawSet(name, 0, "v"), 1);
        ASSERT_EQ(ConfigDefineValue(name, "t"), 1) << name;
    }
    ConfigClearAll();
    std::sort(g_log.begin(), g_log.end());
    EXPECT_EQ(g_log, (Log{"1:x", "1:y", "1:z"}));
}

VxConfigClient *g_selfRemoving;

TEST_F(ConfigStoreTest, SynchronisationCallsOwnersFirstThenTheRest)
{
    Define({{"p", "i"}, {"q", "i"}, {"r", "i"}});
    VxConfigClient *clients[] = {ConfigAddClient(Sync, 1), ConfigAddClient(Sync, 2), ConfigAddClient(Sync, 3),
                                 ConfigAddClient(nullptr, 4)};
    const char *const ownsQ[] = {"q", nullptr}, *const ownsP[] = {"p", nullptr}, *const rqp[] = {"r", "q", "p", nullptr};
    ASSERT_EQ(ConfigSetClientNames(clients[2], ownsQ) + ConfigSetClientNames(clients[1], ownsP), 2);
    ConfigSynchronize(1, ownsQ);  // only the owner
    ConfigSynchronize(0, rqp);    // owners in client order, then the rest for "r"
    ConfigSynchronize(1, nullptr);  // everyone once
    EXPECT_EQ(g_log, (Log{"3+", "2-", "3-", "1-", "1+", "2+", "3+"}));
    for (VxConfigClient *c : clients)
        ConfigRemClient(c);
    // A client may remove itself during a synchronisation.
    Taken();
    g_selfRemoving = ConfigAddClient([](uintptr_t, int32_t) { ConfigRemClient(g_selfRemoving), g_log.push_back("removed"); }, 0);
    VxConfigClient *after = ConfigAddClient(Sync, 7);
    ConfigSynchronize(1, nullptr);
    ConfigSynchronize(1, nullptr);
    EXPECT_EQ(g_log, (Log{"removed", "7+", "7+"}));
    ConfigRemClient(after);
}

TEST(ConfigLifetimeTest, NothingWorksWithoutAClient)
{
    EXPECT_EQ(ConfigDefineValue("a", "i") + ConfigRawSet("a", 0, "1") + ConfigNum("a") + ConfigDefaultWrite(), 0);
    EXPECT_EQ(ConfigNextValue(nullptr), nullptr);
    ConfigRemClient(nullptr);
    ConfigClearAll();
    ConfigHold();
    ConfigRelease();
}

VxConfigClient *g_onlyClient;

TEST(ConfigLifetimeTest, ACallbackMayRemoveTheLastClient)
{
    g_onlyClient = ConfigAddClient(nullptr, 0);
    g_log.clear();
    const char *const names[] = {"a", "b", nullptr};
    ASSERT_EQ(ConfigTrackValues(names, [](uintptr_t, const char *name) {
        g_log.push_back(name);
        ConfigRemClient(g_onlyClient);
        EXPECT_EQ(ConfigNum("a") + ConfigNum("b"), 0) << "the store stays usable until the callback returns";
    }, 0, 1), 1);
    ConfigClearAll();  // notifies a, then b, and closes the store after the walk
    EXPECT_EQ(g_log, (Log{"a", "b"}));
    EXPECT_EQ(ConfigNextValue(nullptr), nullptr);
    EXPECT_EQ(ConfigDefineValue("a", "i"), 0);
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
        vxtest::OomSweepAll({[&] {
                                 client = ConfigAddClient(nullptr, 0);
                                 ConfigDefineValue("old", "is");
                                 ConfigSet("old", 1, "one");
                                 ConfigISet("old", 1, 2, "two");
                                 ConfigISet("old", 2, 3, "three");
                                 ConfigRawSet("raw", 0, "kept");
                                 before = TakeSnapshot();
                             },
                             [&] { return change() == 1; }, [&] { EXPECT_EQ(TakeSnapshot(), before); },
                             [&] { ConfigRemClient(client); }});
    vxtest::OomSweepAll({[] {}, [&] { return (client = ConfigAddClient(nullptr, 0)) != nullptr; },
                         [] { EXPECT_EQ(ConfigDefineValue("a", "i"), 0); }, [&] { ConfigRemClient(client); }});
}

}  // namespace
