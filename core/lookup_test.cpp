#include <vxtools3/ckpt.h>
#include <vxtools3/containers.h>

#include "core/oom_cases.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <vector>

namespace {

std::vector<uintptr_t> Values(const LTab *tab)
{
    std::vector<uintptr_t> values;
    BTPos pos;
    for (void *k = BTFirst(tab, &pos); k; k = BTNext(tab, &pos)) {
        uintptr_t v;
        std::memcpy(&v, k, sizeof v);
        values.push_back(v);
    }
    return values;
}

std::map<uintptr_t, uintptr_t> Pairs(const LMap *map)
{
    std::map<uintptr_t, uintptr_t> pairs;
    BTPos pos;
    for (void *k = BTFirst(map, &pos); k; k = BTNext(map, &pos)) {
        uintptr_t pair[2];
        std::memcpy(pair, k, sizeof pair);
        pairs[pair[0]] = pair[1];
    }
    return pairs;
}

TEST(LTab, AddRemTestAndUnsignedOrder)
{
    LTab *tab = LTabCreate(2);
    const uintptr_t top = ~uintptr_t{0};
    EXPECT_EQ(LTabAdd(tab, 5), 1);
    EXPECT_EQ(LTabAdd(tab, 5), 0) << "present";
    EXPECT_EQ(LTabAdd(tab, top), 1);
    EXPECT_EQ(LTabAdd(tab, uintptr_t{1} << 63), 1);
    EXPECT_EQ(LTabAdd(tab, 0), 1);
    EXPECT_EQ(Values(tab), (std::vector<uintptr_t>{0, 5, uintptr_t{1} << 63, top})) << "words order as unsigned";
    EXPECT_EQ(LTabTest(tab, top), 1);
    EXPECT_EQ(LTabTest(tab, 6), 0);
    EXPECT_EQ(LTabRem(tab, 6), 0);
    EXPECT_EQ(LTabRem(tab, 5), 1);
    EXPECT_EQ(LTabRem(tab, 5), 0);
    LTabClear(tab);
    EXPECT_EQ(Values(tab), std::vector<uintptr_t>{});
    EXPECT_EQ(LTabAdd(tab, 9), 1);
    LTabDestroy(tab);
    LTabDestroy(nullptr);
    EXPECT_EQ(LTabCreate(0), nullptr);
}

TEST(LMap, SetGetUnset)
{
    LMap *map = LMapCreate(3);
    EXPECT_EQ(LMapSet(map, 10, 100), 1);
    EXPECT_EQ(LMapSet(map, 10, 111), 0) << "an existing key is overwritten";
    uintptr_t value = 0;
    EXPECT_EQ(LMapGet(map, 10, &value), 1);
    EXPECT_EQ(value, 111u);
    value = 77;
    EXPECT_EQ(LMapGet(map, 11, &value), 0);
    EXPECT_EQ(value, 77u) << "an absent key leaves the output alone";
    EXPECT_EQ(LMapGet(map, 10, nullptr), 1);
    EXPECT_EQ(LMapUnset(map, 11), 0);
    EXPECT_EQ(LMapUnset(map, 10), 1);
    EXPECT_EQ(LMapGet(map, 10, &value), 0);
    LMapDestroy(map);
}

TEST(KTable, FindsEntriesByKey)
{
    KTable *table = KTableCreate();
    int entries[300];
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(KTableAdd(table, static_cast<uintptr_t>(i * 7 + 1), &entries[i]), 1);
    int other = 0;
    EXPECT_EQ(KTableAdd(table, 8, &other), 0) << "a present key keeps its entry";
    EXPECT_EQ(KTableFind(table, 8), &entries[1]);
    EXPECT_EQ(KTableFind(table, 9), nullptr);
    EXPECT_EQ(BTValidate(table, nullptr), 300);
    for (int i = 0; i < 300; i += 2)
        ASSERT_EQ(KTableRem(table, static_cast<uintptr_t>(i * 7 + 1)), &entries[i]);
    EXPECT_EQ(KTableRem(table, 1), nullptr);
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(KTableFind(table, static_cast<uintptr_t>(i * 7 + 1)), i % 2 ? &entries[i] : nullptr);
    EXPECT_EQ(BTValidate(table, nullptr), 150);
    KTableDestroy(table);
}

// ---- Out of memory: every failing add leaves the table as it was --------------------------

// Adding to tables of every size up to a few hundred, swept wherever the addition allocates
// (a split, or a node or split buffer needing a new chunk).
TEST(LTabOom, Add)
{
    int swept = 0;
    for (int held = 0; held <= 300; ++held) {
        for (int add : {1, held | 1, 2 * held + 1}) {
            LTab *tab = nullptr;
            std::set<uintptr_t> model;
            const vxtest::OomCase c{
                [&] {
                    tab = LTabCreate(2);
                    model.clear();
                    for (int i = 0; i < held; ++i) {
                        LTabAdd(tab, static_cast<uintptr_t>(i * 2));
                        model.insert(static_cast<uintptr_t>(i * 2));
                    }
                },
                [&] { return LTabAdd(tab, static_cast<uintptr_t>(add)) == 1; },
                [&] {
                    EXPECT_EQ(BTValidate(tab, nullptr), held);
                    EXPECT_EQ(Values(tab), std::vector<uintptr_t>(model.begin(), model.end()));
                },
                [&] { LTabDestroy(tab); },
            };
            if (AllocationsMadeBy(c) == 0)
                continue;
            SCOPED_TRACE(::testing::Message() << "held=" << held << " add=" << add);
            vxtest::OomSweepAll(c);
            ++swept;
        }
    }
    EXPECT_GT(swept, 5);
}

TEST(LMapOom, SetOfANewKey)
{
    int swept = 0;
    for (int held = 0; held <= 300; ++held) {
        LMap *map = nullptr;
        std::map<uintptr_t, uintptr_t> model;
        int result = 0;
        const vxtest::OomCase c{
            [&] {
                map = LMapCreate(1);
                model.clear();
                for (int i = 0; i < held; ++i) {
                    LMapSet(map, static_cast<uintptr_t>(i), static_cast<uintptr_t>(i * 10));
                    model[static_cast<uintptr_t>(i)] = static_cast<uintptr_t>(i * 10);
                }
                result = 0;
            },
            [&] {
                result = LMapSet(map, static_cast<uintptr_t>(held), 5);
                return result == 1;
            },
            [&] {
                EXPECT_TRUE(result == -1 || result == 0) << "0: the failure unwound to the outer block";
                EXPECT_EQ(BTValidate(map, nullptr), held);
                EXPECT_EQ(Pairs(map), model);
            },
            [&] { LMapDestroy(map); },
        };
        if (AllocationsMadeBy(c) == 0)
            continue;
        SCOPED_TRACE(held);
        vxtest::OomSweepAll(c);
        ++swept;
    }
    EXPECT_GT(swept, 5);
}

TEST(LMapOom, OutOfMemoryIsToldApartFromAnOverwrite)
{
    vxtest::FaultAllocator heap;
    LMap *map = LMapCreate(2);
    LTab *tab = LTabCreate(2);
    KTable *table = KTableCreate();
    heap.FailAt(1, vxtest::FailMode::FromThen);
    EXPECT_EQ(LMapSet(map, 1, 2), -1);
    EXPECT_EQ(LTabAdd(tab, 1), -1);
    EXPECT_EQ(KTableAdd(table, 1, map), -1);
    heap.Disarm();
    EXPECT_EQ(LMapSet(map, 1, 2), 1);
    LMapDestroy(map);
    LTabDestroy(tab);
    KTableDestroy(table);
}

TEST(KTableOom, CreateAndAdd)
{
    KTable *table = nullptr;
    vxtest::OomSweepAll({
        [&] { table = nullptr; },
        [&] { return (table = KTableCreate()) != nullptr; },
        [&] { EXPECT_EQ(table, nullptr); },
        [&] { KTableDestroy(table); },
    });
    int entry = 0;
    vxtest::OomSweepAll({
        [&] {
            table = KTableCreate();
            for (uintptr_t k = 1; k <= 8; ++k)
                KTableAdd(table, k, &entry);
        },
        [&] { return KTableAdd(table, 9, &entry) == 1; },
        [&] {
            EXPECT_EQ(BTValidate(table, nullptr), 8);
            EXPECT_EQ(KTableFind(table, 9), nullptr);
        },
        [&] { KTableDestroy(table); },
    });
}

}  // namespace
