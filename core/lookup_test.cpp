#include <vxtools3/ckpt.h>
#include <vxtools3/containers.h>

#include "testkit/oom_cases.h"
#include "testkit/oom_sweep.h"
#include "testkit/tree_words.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// LTab and LMap are followed step by step beside std::set and std::map in btree_test.cpp.
TEST(KTable, FindsEntriesByKey)
{
    KTable *table = KTableCreate();
    int entries[300];
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(KTableAdd(table, static_cast<uintptr_t>(i * 7 + 1), &entries[i]), 1);
    EXPECT_EQ(KTableAdd(table, 8, table), 0) << "a present key keeps its entry";
    for (int i = 0; i < 300; i += 2)
        ASSERT_EQ(KTableRem(table, static_cast<uintptr_t>(i * 7 + 1)), &entries[i]);
    EXPECT_EQ(KTableRem(table, 1), nullptr);
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(KTableFind(table, static_cast<uintptr_t>(i * 7 + 1)), i % 2 ? &entries[i] : nullptr);
    EXPECT_EQ(BTValidate(table, nullptr), 150);
    KTableDestroy(table);
    KTableDestroy(nullptr);
    LTabDestroy(nullptr);
    LMapDestroy(nullptr);
}


struct Door { size_t wordsPerKey; BTree *(*create)(); int (*add)(BTree *, uintptr_t); };

const Door kDoors[] = {
    {1, [] { return LTabCreate(1); }, [](BTree *t, uintptr_t k) { return LTabAdd(t, k); }},
    {2, [] { return LMapCreate(2); }, [](BTree *t, uintptr_t k) { return LMapSet(t, k, ~k); }},
    {2, [] { return KTableCreate(); }, [](BTree *t, uintptr_t k) { return KTableAdd(t, k, reinterpret_cast<void *>(~k)); }},
};

// Each creator, and each way of adding a word at every place in tables of up to 150 keys,
// swept wherever the addition allocates (a zone's chunks full somewhere on the split path): a
// failing addition returns -1 (or unwinds to the caller's block) and leaves the container as
// it was. Among the swept additions are splits of leaves, of inner nodes and of the root.
TEST(LookupOom, CreateAndAdd)
{
    int rootSplitsAboveLeaves = 0;
    for (const Door &door : kDoors) {
        SCOPED_TRACE(&door - kDoors);
        BTree *tree = nullptr;
        vxtest::OomSweepAll({[&] { tree = nullptr; }, [&] { return (tree = door.create()) != nullptr; },
                             [&] { EXPECT_EQ(tree, nullptr); }, [&] { BTDestroy(tree); }});
        int swept = 0;
        for (int held = 0; held <= 150; ++held) {
            for (int add = 1; add <= 2 * held + 1; add += 2) {
                std::vector<uintptr_t> before;
                int result = 0;
                bool inBlock = false;
                const vxtest::OomCase c{
                    [&] {
                        tree = door.create();
                        for (int i = 1; i <= held; ++i)
                            door.add(tree, static_cast<uintptr_t>(i * 2));
                        before = vxtest::TreeWords(tree, door.wordsPerKey);
                        result = 0;
                    },
                    [&] {
                        inBlock = CkptLevel() >= 0;
                        return (result = door.add(tree, static_cast<uintptr_t>(add))) == 1;
                    },
                    [&] {
                        EXPECT_EQ(result, inBlock ? 0 : -1) << "-1 tells running out of memory from a present key";
                        EXPECT_EQ(BTValidate(tree, nullptr), held);
                        EXPECT_EQ(vxtest::TreeWords(tree, door.wordsPerKey), before);
                    },
                    [&] { BTDestroy(tree); },
                };
                if (AllocationsMadeBy(c) == 0)
                    continue;
                SCOPED_TRACE(::testing::Message() << "held=" << held << " add=" << add);
                c.setup();
                const BTNode *root = BTRoot(tree);
                const bool inner = root && root->children[0];
                c.run();
                rootSplitsAboveLeaves += inner && BTRoot(tree) != root;
                c.teardown();
                vxtest::OomSweepAll(c);
                ++swept;
                if (::testing::Test::HasFailure())
                    return;
            }
        }
        EXPECT_GT(swept, 10);
    }
    EXPECT_GT(rootSplitsAboveLeaves, 0) << "no swept addition split three levels";
}

}  // namespace
