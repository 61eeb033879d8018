#include <vxtools3/lists.h>

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <list>
#include <random>
#include <vector>

namespace {

struct Item {
    VxNode node;  // first, so a node pointer is an item pointer
    int id;
};

std::vector<int> Forward(const VxList &list)
{
    std::vector<int> ids;
    for (VxNode *n = list.head; n->succ; n = n->succ)
        ids.push_back(reinterpret_cast<Item *>(n)->id);
    return ids;
}

std::vector<int> Backward(const VxList &list)
{
    std::vector<int> ids;
    for (VxNode *n = list.tailPred; n->pred; n = n->pred)
        ids.push_back(reinterpret_cast<Item *>(n)->id);
    return ids;
}

void ExpectEmptyHeader(VxList &list)
{
    EXPECT_EQ(list.head, reinterpret_cast<VxNode *>(&list.tail));
    EXPECT_EQ(list.tail, nullptr);
    EXPECT_EQ(list.tailPred, reinterpret_cast<VxNode *>(&list.head));
    EXPECT_EQ(ListValidate(&list), 0);
}

TEST(List, EmptyListEndsAndRemovals)
{
    VxList list;
    std::memset(&list, 0x5a, sizeof list);
    NewList(&list);
    ExpectEmptyHeader(list);
    EXPECT_EQ(RemHead(&list), nullptr);
    EXPECT_EQ(RemTail(&list), nullptr);
    ExpectEmptyHeader(list);

    Item a{{}, 1}, b{{}, 2};
    AddHead(&list, &a.node);
    AddTail(&list, &b.node);
    EXPECT_EQ(RemTail(&list), &b.node);
    EXPECT_EQ(RemHead(&list), &a.node);
    ExpectEmptyHeader(list);
}

TEST(List, MoveListTransfersEverythingInConstantTime)
{
    VxList src, dst;
    NewList(&src);
    NewList(&dst);
    Item items[3] = {{{}, 1}, {{}, 2}, {{}, 3}};
    for (Item &it : items)
        AddTail(&src, &it.node);
    Item stale{{}, 9};
    AddTail(&dst, &stale.node);  // forgotten, not unlinked
    MoveList(&dst, &src);
    EXPECT_EQ(Forward(dst), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(Backward(dst), (std::vector<int>{3, 2, 1}));
    EXPECT_EQ(ListValidate(&dst), 3);
    ExpectEmptyHeader(src);

    MoveList(&dst, &src);  // from an empty list: the destination becomes empty
    ExpectEmptyHeader(dst);
    ExpectEmptyHeader(src);
}

TEST(List, InsertSeqIsStableAscending)
{
    VxList list;
    NewList(&list);
    Item items[4] = {{{}, 0}, {{}, 1}, {{}, 2}, {{}, 3}};
    const int32_t keys[4] = {5, 3, 5, 1};
    for (int i = 0; i < 4; ++i) {
        items[i].node.seq = keys[i];
        InsertSeq(&list, &items[i].node);
    }
    // Keys 1, 3, 5 (the first 5), 5 (the second).
    EXPECT_EQ(Forward(list), (std::vector<int>{3, 1, 0, 2}));
}

TEST(List, ValidateFindsBrokenLinks)
{
    VxList list;
    NewList(&list);
    Item items[3] = {{{}, 1}, {{}, 2}, {{}, 3}};
    for (Item &it : items)
        AddTail(&list, &it.node);
    ASSERT_EQ(ListValidate(&list), 3);
    items[1].node.pred = &items[2].node;
    EXPECT_EQ(ListValidate(&list), -1);
    items[1].node.pred = &items[0].node;
    list.tailPred = &items[1].node;
    EXPECT_EQ(ListValidate(&list), -1);
}

// Random operations on the intrusive list and on a std::list model side by side.
TEST(List, RandomOperationsMatchStdListModel)
{
    constexpr int kPool = 64;
    std::vector<Item> pool(kPool);
    std::vector<bool> linked(kPool, false);
    VxList list, spare;
    NewList(&list);
    NewList(&spare);
    std::list<int> model;
    std::mt19937 rng(20261121);

    auto pickFree = [&]() -> int {
        for (int tries = 0; tries < 4 * kPool; ++tries) {
            int i = static_cast<int>(rng() % kPool);
            if (!linked[i])
                return i;
        }
        return -1;
    };
    auto pickLinked = [&]() -> int {
        if (model.empty())
            return -1;
        auto it = model.begin();
        std::advance(it, rng() % model.size());
        return *it;
    };

    for (int step = 0; step < 20000; ++step) {
        const int op = static_cast<int>(rng() % 8);
        if (op <= 3) {  // insertions
            int i = pickFree();
            if (i < 0)
                continue;
            pool[i].id = i;
            pool[i].node.seq = static_cast<int32_t>(rng() % 16);
            linked[i] = true;
            if (op == 0) {
                AddHead(&list, &pool[i].node);
                model.push_front(i);
            } else if (op == 1) {
                AddTail(&list, &pool[i].node);
                model.push_back(i);
            } else if (op == 2) {
                int after = pickLinked();
                Insert(&list, &pool[i].node, after < 0 ? nullptr : &pool[after].node);
                auto pos = after < 0 ? model.begin() : std::next(std::find(model.begin(), model.end(), after));
                model.insert(pos, i);
            } else {
                InsertSeq(&list, &pool[i].node);
                auto pos = std::find_if(model.begin(), model.end(),
                                        [&](int id) { return pool[id].node.seq > pool[i].node.seq; });
                model.insert(pos, i);
            }
        } else if (op == 4) {
            int i = pickLinked();
            if (i < 0)
                continue;
            Remove(&pool[i].node);
            model.remove(i);
            linked[i] = false;
        } else if (op <= 6) {
            const bool head = op == 5;
            VxNode *n = head ? RemHead(&list) : RemTail(&list);
            ASSERT_EQ(n == nullptr, model.empty());
            if (n) {
                const int expected = head ? model.front() : model.back();
                ASSERT_EQ(reinterpret_cast<Item *>(n)->id, expected);
                linked[expected] = false;
                head ? model.pop_front() : model.pop_back();
            }
        } else {
            MoveList(&spare, &list);
            ASSERT_EQ(ListValidate(&list), 0);
            MoveList(&list, &spare);
        }
        ASSERT_EQ(ListValidate(&list), static_cast<int>(model.size())) << "step " << step;
        ASSERT_EQ(Forward(list), std::vector<int>(model.begin(), model.end())) << "step " << step;
        ASSERT_EQ(Backward(list), std::vector<int>(model.rbegin(), model.rend())) << "step " << step;
    }
}

}  // namespace
