#include <vxtools3/lists.h>

#include <gtest/gtest.h>

#include <algorithm>
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

void ExpectEmptyHeader(VxList &list)
{
    ASSERT_TRUE(list.head == reinterpret_cast<VxNode *>(&list.tail) && list.tail == nullptr &&
                list.tailPred == reinterpret_cast<VxNode *>(&list.head));
}

// Random operations on the intrusive list and on a std::list model side by side; InsertSeq's
// model goes in front of the first greater key, behind its equals. An emptied list has the
// exact header words of a new one.
TEST(List, RandomOperationsMatchStdListModel)
{
    constexpr int kPool = 64;
    std::vector<Item> pool(kPool);
    VxList list, spare;
    std::memset(&list, 0x5a, sizeof list);
    NewList(&list);
    ExpectEmptyHeader(list);
    Item stale{{}, -1};
    NewList(&spare);
    AddTail(&spare, &stale.node);  // forgotten, not unlinked, by the first MoveList into spare
    std::list<int> model;
    std::mt19937 rng(20261121);
    for (int step = 0; step < 20000; ++step) {
        const int op = static_cast<int>(rng() % 8);
        const int i = static_cast<int>(rng() % kPool);  // a node to insert or remove
        const bool linked = std::find(model.begin(), model.end(), i) != model.end();
        if (op <= 3 && !linked) {
            pool[i] = {{nullptr, nullptr, static_cast<int32_t>(rng() % 16)}, i};
            if (op == 0) {
                AddHead(&list, &pool[i].node);
                model.push_front(i);
            } else if (op == 1) {
                AddTail(&list, &pool[i].node);
                model.push_back(i);
            } else if (op == 2) {  // after a random node, or at the head when the list is empty
                auto after = model.empty() ? model.end() : std::next(model.begin(), rng() % model.size());
                Insert(&list, &pool[i].node, after == model.end() ? nullptr : &pool[*after].node);
                model.insert(after == model.end() ? model.begin() : std::next(after), i);
            } else {
                InsertSeq(&list, &pool[i].node);
                model.insert(std::find_if(model.begin(), model.end(),
                                          [&](int id) { return pool[id].node.seq > pool[i].node.seq; }),
                             i);
            }
        } else if (op == 4 && linked) {
            Remove(&pool[i].node);
            model.remove(i);
        } else if (op == 5 || op == 6) {
            VxNode *n = op == 5 ? RemHead(&list) : RemTail(&list);
            ASSERT_EQ(n == nullptr, model.empty());
            if (n) {
                ASSERT_EQ(reinterpret_cast<Item *>(n)->id, op == 5 ? model.front() : model.back());
                op == 5 ? model.pop_front() : model.pop_back();
            }
        } else if (op == 7) {
            MoveList(&spare, &list);
            ExpectEmptyHeader(list);
            ASSERT_EQ(Forward(spare), std::vector<int>(model.begin(), model.end()));
            MoveList(&list, &spare);
            ExpectEmptyHeader(spare);
        }
        if (model.empty())
            ExpectEmptyHeader(list);
        ASSERT_EQ(ListValidate(&list), static_cast<int>(model.size())) << "back links and end, step " << step;
        ASSERT_EQ(Forward(list), std::vector<int>(model.begin(), model.end())) << "step " << step;
    }
}

}  // namespace
