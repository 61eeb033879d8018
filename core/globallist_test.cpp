#include <vxtools3/lists.h>

#include "core/globallist_internal.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class GlobalList : public ::testing::Test {
protected:
    void SetUp() override { GlobalListCleanup(); }
    void TearDown() override { GlobalListCleanup(); }
};

// The entry names in array order.
std::vector<std::string> Names()
{
    const VxOrd *entries = vx::global::Entries();
    std::vector<std::string> names;
    for (int i = 0; i < entries->count; ++i)
        names.push_back(vx::global::EntryName(entries->items[i]));
    return names;
}

TEST_F(GlobalList, DefineLookupAndDuplicates)
{
    int a = 1, b = 2, c = 3;
    EXPECT_EQ(GlobalListDefine("mesh", &a), 1);
    EXPECT_EQ(GlobalListDefine("\xe9tat", &b), 1);
    EXPECT_EQ(GlobalListDefine("Anim", &c), 1);
    EXPECT_EQ(GlobalListDefine("mesh", &c), 0);
    EXPECT_EQ(GlobalListLookup("mesh"), &a) << "the first value stays";
    EXPECT_EQ(GlobalListLookup("\xe9tat"), &b);
    EXPECT_EQ(GlobalListLookup("Anim"), &c);
    EXPECT_EQ(GlobalListLookup("anim"), nullptr);
    EXPECT_EQ(GlobalListLookup(""), nullptr);
    EXPECT_EQ(Names(), (std::vector<std::string>{"Anim", "mesh", "\xe9tat"})) << "unsigned byte order";
}

std::vector<std::string> g_cleanups;
void RecordCleanup(void *arg) { g_cleanups.push_back(static_cast<const char *>(arg)); }

TEST_F(GlobalList, CleanupsRunInReverseOrderThenListIsEmpty)
{
    g_cleanups.clear();
    int value = 0;
    GlobalListDefine("x", &value);
    for (const char *name : {"first", "second", "third"})
        EXPECT_EQ(GlobalListSetCleanup(RecordCleanup, const_cast<char *>(name)), 1);
    GlobalListCleanup();
    EXPECT_EQ(g_cleanups, (std::vector<std::string>{"third", "second", "first"}));
    EXPECT_EQ(GlobalListLookup("x"), nullptr);
    GlobalListCleanup();  // a second clean-up finds nothing to do
    EXPECT_EQ(g_cleanups.size(), 3u);
}

// Sixteen entries fill the array, so the seventeenth needs its entry and a larger array.
TEST_F(GlobalList, OutOfMemorySweepOnDefineAndSetCleanup)
{
    static const char *const names[16] = {"n0", "n1", "n2", "n3", "n4", "n5", "n6", "n7",
                                          "n8", "n9", "nA", "nB", "nC", "nD", "nE", "nF"};
    const std::vector<std::string> before(names, names + 16);
    vxtest::OomSweepAll({[] {
                             for (const char *n : names)
                                 GlobalListDefine(n, nullptr);
                         },
                         [] { return GlobalListDefine("n-new", &g_cleanups) == 1; },
                         [&] { EXPECT_EQ(Names(), before); }, [] { GlobalListCleanup(); }});
    vxtest::OomSweepAll({[] { GlobalListSetCleanup(RecordCleanup, const_cast<char *>("kept")); },
                         [] { return GlobalListSetCleanup(RecordCleanup, const_cast<char *>("new")) == 1; },
                         [] {
                             g_cleanups.clear();
                             GlobalListCleanup();
                             EXPECT_EQ(g_cleanups, (std::vector<std::string>{"kept"}));
                         },
                         [] { GlobalListCleanup(); }});
}

}  // namespace
