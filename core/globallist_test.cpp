#include <vxtools3/ckpt.h>
#include <vxtools3/lists.h>

#include "core/globallist_internal.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

class GlobalList : public ::testing::Test {
protected:
    void SetUp() override { GlobalListCleanup(); }
    void TearDown() override { GlobalListCleanup(); }
};

// Entries are in strictly ascending byte order of their names.
bool EntriesInOrder()
{
    const VxOrd *entries = vx::global::Entries();
    for (int i = 1; i < entries->count; ++i) {
        const auto *a = reinterpret_cast<const unsigned char *>(vx::global::EntryName(entries->items[i - 1]));
        const auto *b = reinterpret_cast<const unsigned char *>(vx::global::EntryName(entries->items[i]));
        if (std::strcmp(reinterpret_cast<const char *>(a), reinterpret_cast<const char *>(b)) >= 0)
            return false;
    }
    return OrdValidate(entries, nullptr) == 1;
}

TEST_F(GlobalList, DefineLookupAndDuplicates)
{
    int a = 1, b = 2, c = 3;
    EXPECT_EQ(GlobalListDefine("mesh", &a), 1);
    EXPECT_EQ(GlobalListDefine("\xe9tat", &b), 1) << "names with high bytes sort as unsigned";
    EXPECT_EQ(GlobalListDefine("Anim", &c), 1);
    EXPECT_EQ(GlobalListDefine("mesh", &c), 0);
    EXPECT_EQ(GlobalListLookup("mesh"), &a) << "the first value stays";
    EXPECT_EQ(GlobalListLookup("\xe9tat"), &b);
    EXPECT_EQ(GlobalListLookup("Anim"), &c);
    EXPECT_EQ(GlobalListLookup("anim"), nullptr);
    EXPECT_EQ(GlobalListLookup(""), nullptr);
    EXPECT_TRUE(EntriesInOrder());
    const VxOrd *entries = vx::global::Entries();
    ASSERT_EQ(entries->count, 3);
    EXPECT_STREQ(vx::global::EntryName(entries->items[0]), "Anim");
    EXPECT_STREQ(vx::global::EntryName(entries->items[2]), "\xe9tat");
}

std::vector<std::string> g_cleanups;
void RecordCleanup(void *arg) { g_cleanups.push_back(static_cast<const char *>(arg)); }

TEST_F(GlobalList, CleanupsRunInReverseOrderThenListIsEmpty)
{
    g_cleanups.clear();
    int value = 0;
    GlobalListDefine("x", &value);
    EXPECT_EQ(GlobalListSetCleanup(RecordCleanup, const_cast<char *>("first")), 1);
    EXPECT_EQ(GlobalListSetCleanup(RecordCleanup, const_cast<char *>("second")), 1);
    EXPECT_EQ(GlobalListSetCleanup(RecordCleanup, const_cast<char *>("third")), 1);
    GlobalListCleanup();
    EXPECT_EQ(g_cleanups, (std::vector<std::string>{"third", "second", "first"}));
    EXPECT_EQ(GlobalListLookup("x"), nullptr);
    GlobalListCleanup();  // a second clean-up finds nothing to do
    EXPECT_EQ(g_cleanups.size(), 3u);
}

TEST_F(GlobalList, OutOfMemorySweepOnDefine)
{
    // Sixteen entries fill the array, so the seventeenth needs its entry and a larger array.
    static const std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (int i = 0; i < 16; ++i)
            v.push_back("name" + std::to_string(i));
        return v;
    }();
    vxtest::OomSweepAll({[] {
                             for (const std::string &n : names)
                                 GlobalListDefine(n.c_str(), nullptr);
                         },
                         [] { return GlobalListDefine("name-new", &g_cleanups) == 1; },
                         [] {
                             EXPECT_EQ(GlobalListLookup("name-new"), nullptr);
                             EXPECT_EQ(vx::global::Entries()->count, 16);
                             EXPECT_TRUE(EntriesInOrder());
                         },
                         [] { GlobalListCleanup(); }});
}

TEST_F(GlobalList, OutOfMemorySweepOnSetCleanup)
{
    g_cleanups.clear();
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
