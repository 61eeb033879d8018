#include <vxtools3/lists.h>

#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

struct Record {
    int key;
    int serial;
};

int CompareRecords(void *a, void *b)
{
    const int x = static_cast<Record *>(a)->key, y = static_cast<Record *>(b)->key;
    return (x > y) - (x < y);
}

std::vector<void *> Items(const VxOrd &ord) { return std::vector<void *>(ord.items, ord.items + ord.count); }

void *Word(int i) { return reinterpret_cast<void *>(static_cast<uintptr_t>(i)); }

TEST(OrdArray, GrowthFollowsHalfCapacityClampedTo16And512)
{
    vxtest::FaultAllocator heap;
    VxOrd ord;
    OrdInit(&ord);
    std::vector<int32_t> capacities;
    for (int i = 0; i < 3000; ++i) {
        ASSERT_EQ(OrdAppend(&ord, Word(i + 1)), i) << "the index of the appended item";
        if (capacities.empty() || capacities.back() != ord.capacity)
            capacities.push_back(ord.capacity);
    }
    EXPECT_EQ(std::vector<int32_t>(capacities.begin(), capacities.begin() + 8),
              (std::vector<int32_t>{16, 32, 48, 72, 108, 162, 243, 364}));
    for (size_t i = 1; i < capacities.size(); ++i)
        EXPECT_EQ(capacities[i] - capacities[i - 1], std::clamp(capacities[i - 1] / 2, 16, 512));
    for (int i = 0; i < ord.count; ++i)
        ASSERT_EQ(ord.items[i], Word(i + 1)) << "kept across growth";
    EXPECT_EQ(heap.LiveBytes(), ord.capacity * sizeof(void *));
    EXPECT_EQ(OrdValidate(&ord, [](void *a, void *b) { return a < b ? 1 : a > b ? -1 : 0; }), 0) << "out of order";
    ord.count = ord.capacity + 1;
    EXPECT_EQ(OrdValidate(&ord, nullptr), 0) << "count beyond capacity";
    ord.count = 0;
    OrdFree(&ord);
    EXPECT_TRUE(ord.items == nullptr && ord.count == 0 && ord.capacity == 0);
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0) << "OrdFree states the block's size";
    const VxOrd noBlock{nullptr, 0, 4};
    EXPECT_EQ(OrdValidate(&noBlock, nullptr), 0);
}

// Random inserts, removals and lookups against a sorted std::vector model; stable insertion
// (behind equal items) makes the two sequences identical item for item. Lookups and removals
// without a comparison go by identity, not equality.
TEST(OrdArray, RandomOperationsMatchVectorModel)
{
    std::vector<Record> records(4000);
    std::vector<void *> model;
    VxOrd ord;
    OrdInit(&ord);
    std::mt19937 rng(7);
    auto less = [](void *a, void *b) { return CompareRecords(a, b) < 0; };
    EXPECT_EQ(OrdLookup(&ord, &records[0], [](void *, void *) { ADD_FAILURE() << "an empty array is compared"; return 0; }), -1);
    for (int step = 0; step < 12000; ++step) {
        const int op = static_cast<int>(rng() % 5);
        if (op <= 2 || model.empty()) {
            Record *rec = &records[static_cast<size_t>(step) % records.size()];
            if (std::find(model.begin(), model.end(), rec) != model.end())
                continue;
            *rec = {static_cast<int>(rng() % 200), step};
            const int index = OrdInsert(&ord, rec, CompareRecords);
            auto pos = std::upper_bound(model.begin(), model.end(), rec, less);
            ASSERT_EQ(index, pos - model.begin());
            model.insert(pos, rec);
        } else if (op == 3) {
            const size_t index = rng() % model.size();
            void *victim = model[index];
            ASSERT_EQ(OrdLookup(&ord, victim, nullptr), static_cast<int>(index));
            if (rng() % 2) {
                ASSERT_EQ(OrdRemove(&ord, victim, -1), victim);
            } else {
                ASSERT_EQ(OrdRemove(&ord, nullptr, static_cast<int>(index)), nullptr);
            }
            model.erase(model.begin() + static_cast<long>(index));
        } else {
            Record key{static_cast<int>(rng() % 210), -1};
            const int found = OrdLookup(&ord, &key, CompareRecords);
            ASSERT_EQ(found >= 0, std::binary_search(model.begin(), model.end(), &key, less));
            ASSERT_TRUE(found < 0 || static_cast<Record *>(ord.items[found])->key == key.key);
            ASSERT_EQ(OrdLookup(&ord, &key, nullptr), -1);
            ASSERT_EQ(OrdRemove(&ord, &key, 0), nullptr) << "an item not in the array";
        }
        ASSERT_EQ(OrdValidate(&ord, CompareRecords), 1) << "step " << step;
        ASSERT_EQ(Items(ord), model) << "step " << step;
    }
    OrdFree(&ord);
}

// Appending to and inserting into a full array of 16 items, which must grow.
TEST(OrdArray, OutOfMemorySweepOnAppendAndInsert)
{
    VxOrd ord{};
    Record records[17];
    std::vector<void *> before;
    for (const bool insert : {false, true}) {
        vxtest::OomSweepAll({[&] {
                                 OrdInit(&ord);
                                 for (int i = 0; i < 16; ++i)
                                     OrdAppend(&ord, &(records[i] = {i * 2, i}));
                                 records[16] = {7, 16};
                                 before = Items(ord);
                             },
                             [&] {
                                 return insert ? OrdInsert(&ord, &records[16], CompareRecords) == 4
                                               : OrdAppend(&ord, &records[16]) == 16;
                             },
                             [&] { EXPECT_TRUE(ord.capacity == 16 && Items(ord) == before); },
                             [&] { OrdFree(&ord); }});
    }
}

}  // namespace
