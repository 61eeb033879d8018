#include <vxtools3/ckpt.h>
#include <vxtools3/containers.h>

#include "core/containers_internal.h"
#include "testkit/capture.h"
#include "core/oom_cases.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

// Generic word keys through a callback of the caller's own, as any user's tree would be.
int CompareWord(uintptr_t key, const void *stored)
{
    uintptr_t s;
    std::memcpy(&s, stored, sizeof s);
    return key < s ? -1 : key > s ? 1 : 0;
}

uintptr_t WordAt(const void *stored)
{
    uintptr_t s;
    std::memcpy(&s, stored, sizeof s);
    return s;
}

// "(keys children...)", e.g. "(3 (1 2) (4 5))".
std::string Shape(const BTNode *node)
{
    std::string text = "(";
    for (int32_t i = 0; i < node->count; ++i)
        text += (i ? " " : "") + std::to_string(WordAt(node->keys + i * sizeof(uintptr_t)));
    for (int32_t i = 0; node->children[0] && i <= node->count; ++i)
        text += " " + Shape(node->children[i]);
    return text + ")";
}

std::string Shape(const BTree *tree) { return BTRoot(tree) ? Shape(BTRoot(tree)) : "()"; }

void Add(BTree *tree, uintptr_t key)
{
    BTPos pos;
    ASSERT_EQ(BTSearch(tree, key, &pos), nullptr);
    ASSERT_EQ(BTInsert(tree, &key, &pos), 1);
}

void Delete(BTree *tree, uintptr_t key)
{
    BTPos pos;
    ASSERT_NE(BTSearch(tree, key, &pos), nullptr);
    BTDelete(tree, &pos);
}

std::vector<uintptr_t> Walk(const BTree *tree)
{
    std::vector<uintptr_t> keys;
    BTPos pos;
    for (void *k = BTFirst(tree, &pos); k; k = BTNext(tree, &pos))
        keys.push_back(WordAt(k));
    return keys;
}

TEST(BTree, ShapesOfSmallTreesOfOrderTwo)
{
    BTree *tree = BTCreate(2, sizeof(uintptr_t), CompareWord);
    EXPECT_EQ(Shape(tree), "()");
    for (uintptr_t k : {1, 2, 3, 4})
        Add(tree, k);
    EXPECT_EQ(Shape(tree), "(1 2 3 4)");
    Add(tree, 5);
    EXPECT_EQ(Shape(tree), "(3 (1 2) (4 5))") << "the fifth key splits the root";
    for (uintptr_t k : {6, 7, 8})
        Add(tree, k);
    EXPECT_EQ(Shape(tree), "(3 6 (1 2) (4 5) (7 8))");
    for (uintptr_t k : {9, 10})
        Add(tree, k);
    Delete(tree, 4);  // (5) is short; its right sibling is richer: redistribute with it
    EXPECT_EQ(Shape(tree), "(3 8 (1 2) (5 6 7) (9 10))");
    Delete(tree, 8);  // an inner key is replaced by its predecessor
    EXPECT_EQ(Shape(tree), "(3 7 (1 2) (5 6) (9 10))");
    Delete(tree, 1);  // (2) is short, (5 6) cannot lend: merge around 3
    EXPECT_EQ(Shape(tree), "(7 (2 3 5 6) (9 10))");
    Delete(tree, 10);  // last slot: paired with its left sibling, which lends
    EXPECT_EQ(Shape(tree), "(6 (2 3 5) (7 9))");
    Delete(tree, 2);
    Delete(tree, 3);  // merge empties the root, which gives way to its child
    EXPECT_EQ(Shape(tree), "(5 6 7 9)");
    for (uintptr_t k : {5, 6, 7, 9})
        Delete(tree, k);
    EXPECT_EQ(Shape(tree), "()");
    EXPECT_EQ(BTValidate(tree, nullptr), 0) << "every node went back to the zone";
    Add(tree, 42);
    EXPECT_EQ(Shape(tree), "(42)") << "an emptied tree takes new keys";
    BTDestroy(tree);
}

// Inner nodes even out with a sibling too, children crossing with their keys; traced by hand.
TEST(BTree, InnerNodesRedistributeInBothDirections)
{
    const char *const start = "(4 8 (2 (1) (3)) (6 (5) (7)) (10 12 (9) (11) (13 14)))";
    BTree *tree = BTCreate(1, sizeof(uintptr_t), CompareWord);
    for (uintptr_t k = 1; k <= 14; ++k)
        Add(tree, k);
    ASSERT_EQ(Shape(tree), start);
    for (uintptr_t k : {1, 2, 3, 4})
        Delete(tree, k);
    EXPECT_EQ(Shape(tree), "(8 (6 (5) (7)) (10 12 (9) (11) (13 14)))");
    Delete(tree, 5);  // (6 7) merges; its emptied parent takes 8 and (9) from the right
    EXPECT_EQ(Shape(tree), "(10 (8 (6 7) (9)) (12 (11) (13 14)))");
    EXPECT_EQ(BTValidate(tree, nullptr), 9);
    BTDestroy(tree);

    tree = BTCreate(1, sizeof(uintptr_t), CompareWord);
    for (uintptr_t k = 1; k <= 14; ++k)
        Add(tree, k);
    for (uintptr_t k : {1, 2, 14, 13, 9})
        Delete(tree, k);
    EXPECT_EQ(Shape(tree), "(8 (4 6 (3) (5) (7)) (11 (10) (12)))");
    Delete(tree, 10);  // (11 12) merges; its emptied parent takes 8 and (7) from the left
    EXPECT_EQ(Shape(tree), "(6 (4 (3) (5)) (8 (7) (11 12)))");
    EXPECT_EQ(BTValidate(tree, nullptr), 8);
    BTDestroy(tree);
}

TEST(BTree, OrderOneSplitsIntoATwoThreeTree)
{
    BTree *tree = BTCreate(1, sizeof(uintptr_t), CompareWord);
    for (uintptr_t k = 1; k <= 7; ++k)
        Add(tree, k);
    EXPECT_EQ(Shape(tree), "(4 (2 (1) (3)) (6 (5) (7)))");
    EXPECT_EQ(BTValidate(tree, nullptr), 7);
    BTDestroy(tree);
}

TEST(BTree, SearchGivesTheInsertionPoint)
{
    BTree *tree = BTCreate(2, sizeof(uintptr_t), CompareWord);
    BTPos pos{reinterpret_cast<BTNode *>(1), 9};
    EXPECT_EQ(BTSearch(tree, 5, &pos), nullptr);
    EXPECT_EQ(pos.node, nullptr);
    EXPECT_EQ(pos.index, 0);
    for (uintptr_t k : {10, 20, 30, 40, 50})
        Add(tree, k);
    EXPECT_EQ(BTSearch(tree, 45, &pos), nullptr);
    EXPECT_EQ(pos.node, BTRoot(tree)->children[1]);
    EXPECT_EQ(pos.index, 1);
    void *found = BTSearch(tree, 30, &pos);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(pos.node, BTRoot(tree));
    EXPECT_EQ(pos.index, 0);
    EXPECT_EQ(WordAt(found), 30u);
    BTDestroy(tree);
}

TEST(BTree, IterationEnds)
{
    BTree *tree = BTCreate(3, sizeof(uintptr_t), CompareWord);
    BTPos pos;
    EXPECT_EQ(BTFirst(tree, &pos), nullptr);
    for (uintptr_t k = 100; k > 0; --k)
        Add(tree, k * 3);
    ASSERT_NE(BTFirst(tree, &pos), nullptr);
    std::vector<uintptr_t> keys = Walk(tree);
    ASSERT_EQ(keys.size(), 100u);
    EXPECT_EQ(keys.front(), 3u);
    EXPECT_EQ(keys.back(), 300u);
    BTSearch(tree, 300, &pos);
    EXPECT_EQ(BTNext(tree, &pos), nullptr) << "nothing after the largest key";
    EXPECT_EQ(BTCount(tree), 100);
    BTDestroy(tree);
}

TEST(BTree, CreateRefusesBadArguments)
{
    EXPECT_EQ(BTCreate(0, 8, CompareWord), nullptr);
    EXPECT_EQ(BTCreate(2, 0, CompareWord), nullptr);
    EXPECT_EQ(BTCreate(2, 8, nullptr), nullptr);
    EXPECT_EQ(BTCreate(1 << 20, 1 << 20, CompareWord), nullptr);
    BTDestroy(nullptr);
}

// Keys of 12 bytes (a word and a 4-byte tag) ordered by the word: only the bytes are copied,
// whatever their alignment.
struct Tagged {
    uint32_t high, low;  // the key word, split so the struct has 4-byte alignment
    uint32_t tag;
};

int CompareTagged(uintptr_t key, const void *stored)
{
    Tagged t;
    std::memcpy(&t, stored, sizeof t);
    const uintptr_t word = (uintptr_t{t.high} << 32) | t.low;
    return key < word ? -1 : key > word ? 1 : 0;
}

uintptr_t TaggedWord(const void *stored)
{
    Tagged t;
    std::memcpy(&t, stored, sizeof t);
    return (uintptr_t{t.high} << 32) | t.low;
}

TEST(BTree, KeysOfAnySizeAreStoredByValue)
{
    static_assert(sizeof(Tagged) == 12);
    BTree *tree = BTCreate(2, sizeof(Tagged), CompareTagged);
    std::mt19937_64 rng(3);
    std::map<uintptr_t, uint32_t> model;
    for (int i = 0; i < 500; ++i) {
        const uintptr_t word = rng() % 1000 + (uintptr_t{1} << 40);
        BTPos pos;
        if (BTSearch(tree, word, &pos))
            continue;
        Tagged t{static_cast<uint32_t>(word >> 32), static_cast<uint32_t>(word), static_cast<uint32_t>(i)};
        ASSERT_EQ(BTInsert(tree, &t, &pos), 1);
        model[word] = t.tag;
    }
    ASSERT_EQ(BTValidate(tree, TaggedWord), static_cast<int32_t>(model.size()));
    BTPos pos;
    auto it = model.begin();
    for (void *k = BTFirst(tree, &pos); k; k = BTNext(tree, &pos), ++it) {
        Tagged t;
        std::memcpy(&t, k, sizeof t);
        ASSERT_EQ(TaggedWord(k), it->first);
        ASSERT_EQ(t.tag, it->second);
    }
    EXPECT_EQ(it, model.end());
    BTDestroy(tree);
}

TEST(BTree, ValidateFindsBrokenTrees)
{
    BTree *tree = BTCreate(2, sizeof(uintptr_t), CompareWord);
    for (uintptr_t k = 1; k <= 20; ++k)
        Add(tree, k);
    ASSERT_EQ(BTValidate(tree, nullptr), 20);
    vxtest::DebugCapture capture;
    BTNode *leaf = tree->root->children[0];
    std::swap(leaf->keys[0], leaf->keys[sizeof(uintptr_t)]);
    EXPECT_EQ(BTValidate(tree, nullptr), -1);
    EXPECT_NE(capture.Text().find("keys out of order"), std::string::npos) << capture.Text();
    std::swap(leaf->keys[0], leaf->keys[sizeof(uintptr_t)]);
    BTNode *parent = leaf->parent;
    leaf->parent = nullptr;
    EXPECT_EQ(BTValidate(tree, nullptr), -1);
    leaf->parent = parent;
    leaf->count -= 1;
    EXPECT_EQ(BTValidate(tree, nullptr), -1);
    leaf->count += 1;
    EXPECT_EQ(BTValidate(tree, nullptr), 20);
    BTDestroy(tree);
}

// ---- Random sequences beside a model --------------------------------------------------------

struct SetModelCase {
    int32_t m;
    int steps;
    uintptr_t range;
};

class BTreeModel : public ::testing::TestWithParam<SetModelCase> {};

// LTab beside std::set: random adds and removals with a bias that grows and then shrinks the
// table, the tree validated and walked after every step.
TEST_P(BTreeModel, LTabFollowsStdSet)
{
    const SetModelCase c = GetParam();
    LTab *tab = LTabCreate(c.m);
    std::set<uintptr_t> model;
    std::mt19937_64 rng(static_cast<uint64_t>(c.m) * 977);
    for (int step = 0; step < c.steps; ++step) {
        const bool growing = step % 2000 < 1200;
        // High bits exercise the unsigned order of words.
        const uintptr_t value = (rng() % c.range) | (step % 3 == 0 ? uintptr_t{1} << 63 : 0);
        if (rng() % 100 < (growing ? 65u : 30u)) {
            ASSERT_EQ(LTabAdd(tab, value), model.insert(value).second ? 1 : 0);
        } else {
            ASSERT_EQ(LTabRem(tab, value), static_cast<int>(model.erase(value)));
        }
        ASSERT_EQ(BTValidate(tab, nullptr), static_cast<int32_t>(model.size())) << "step " << step;
        if (step % 50 == 0) {
            ASSERT_EQ(Walk(tab), std::vector<uintptr_t>(model.begin(), model.end()));
        }
        ASSERT_EQ(LTabTest(tab, value), static_cast<int>(model.count(value)));
    }
    ASSERT_EQ(Walk(tab), std::vector<uintptr_t>(model.begin(), model.end()));
    for (uintptr_t v : std::vector<uintptr_t>(model.begin(), model.end())) {
        ASSERT_EQ(LTabRem(tab, v), 1);
        model.erase(v);
        ASSERT_EQ(BTValidate(tab, nullptr), static_cast<int32_t>(model.size()));
    }
    EXPECT_EQ(BTRoot(tab), nullptr);
    LTabDestroy(tab);
}

// LMap beside std::map, the values checked through LMapGet and the walk.
TEST_P(BTreeModel, LMapFollowsStdMap)
{
    const SetModelCase c = GetParam();
    LMap *map = LMapCreate(c.m);
    std::map<uintptr_t, uintptr_t> model;
    std::mt19937_64 rng(static_cast<uint64_t>(c.m) * 131);
    for (int step = 0; step < c.steps; ++step) {
        const uintptr_t key = rng() % c.range;
        const uintptr_t value = rng();
        const unsigned op = static_cast<unsigned>(rng() % 100);
        if (op < (step % 2000 < 1200 ? 60u : 25u)) {
            const bool fresh = model.find(key) == model.end();
            ASSERT_EQ(LMapSet(map, key, value), fresh ? 1 : 0);
            model[key] = value;
        } else if (op < 85) {
            ASSERT_EQ(LMapUnset(map, key), static_cast<int>(model.erase(key)));
        } else {
            uintptr_t got = 12345;
            const auto it = model.find(key);
            ASSERT_EQ(LMapGet(map, key, &got), it != model.end() ? 1 : 0);
            ASSERT_EQ(got, it != model.end() ? it->second : 12345u);
        }
        ASSERT_EQ(BTValidate(map, nullptr), static_cast<int32_t>(model.size())) << "step " << step;
    }
    BTPos pos;
    auto it = model.begin();
    for (void *k = BTFirst(map, &pos); k; k = BTNext(map, &pos), ++it) {
        ASSERT_NE(it, model.end());
        uintptr_t pair[2];
        std::memcpy(pair, k, sizeof pair);
        ASSERT_EQ(pair[0], it->first);
        ASSERT_EQ(pair[1], it->second);
    }
    EXPECT_EQ(it, model.end());
    LMapClear(map);
    EXPECT_EQ(BTValidate(map, nullptr), 0);
    EXPECT_EQ(LMapSet(map, 1, 2), 1);
    LMapDestroy(map);
}

INSTANTIATE_TEST_SUITE_P(Orders, BTreeModel,
                         ::testing::Values(SetModelCase{1, 6000, 400}, SetModelCase{2, 6000, 400},
                                           SetModelCase{3, 6000, 600}, SetModelCase{16, 8000, 3000}),
                         [](const auto &param) { return "m" + std::to_string(param.param.m); });

// Tables and maps search with the word comparison built in; the same nodes searched through a
// caller's callback must give the same key and the same position, found or not, in leaves and
// inner nodes, including words with the top bit set.
TEST(BTree, WordSearchAgreesWithTheCallbackSearch)
{
    for (const int32_t m : {1, 2, 5, 24}) {
        for (const int words : {1, 2}) {
            BTree *tree = words == 1 ? LTabCreate(m) : LMapCreate(m);
            std::mt19937_64 rng(static_cast<uint64_t>(m * 10 + words));
            for (int i = 0; i < 3000; ++i) {
                const uintptr_t k = (rng() % 4000) * 2 | (i % 4 == 0 ? uintptr_t{1} << 63 : 0);
                if (words == 1)
                    LTabAdd(tree, k);
                else
                    LMapSet(tree, k, ~k);
            }
            BTree generic = *tree;  // the same nodes, searched through the callback
            generic.cmp = CompareWord;
            for (uintptr_t probe = 0; probe < 8010; ++probe) {
                for (const uintptr_t k : {probe, probe | uintptr_t{1} << 63}) {
                    BTPos fast{nullptr, -1}, slow{nullptr, -1};
                    void *a = BTSearch(tree, k, &fast);
                    void *b = BTSearch(&generic, k, &slow);
                    ASSERT_EQ(a, b) << "m " << m << " key " << k;
                    ASSERT_EQ(fast.node, slow.node) << "m " << m << " key " << k;
                    ASSERT_EQ(fast.index, slow.index) << "m " << m << " key " << k;
                }
            }
            BTDestroy(tree);
        }
    }
}

TEST(BTree, ManyKeysAgainstStdSet)
{
    LTab *tab = LTabCreate(7);
    std::set<uintptr_t> model;
    std::mt19937_64 rng(99);
    for (int i = 0; i < 200000; ++i) {
        const uintptr_t v = rng();
        ASSERT_EQ(LTabAdd(tab, v), model.insert(v).second ? 1 : 0);
    }
    for (int i = 0; i < 100000; ++i) {
        auto it = model.lower_bound(rng());
        if (it == model.end())
            continue;
        ASSERT_EQ(LTabRem(tab, *it), 1);
        model.erase(it);
    }
    EXPECT_EQ(BTValidate(tab, nullptr), static_cast<int32_t>(model.size()));
    EXPECT_EQ(Walk(tab), std::vector<uintptr_t>(model.begin(), model.end()));
    LTabDestroy(tab);
}

// ---- Out of memory ------------------------------------------------------------------------

TEST(BTreeOom, Create)
{
    BTree *tree = nullptr;
    vxtest::OomSweepAll({
        [&] { tree = nullptr; },
        [&] { return (tree = BTCreate(3, 8, CompareWord)) != nullptr; },
        [&] { EXPECT_EQ(tree, nullptr); },
        [&] { BTDestroy(tree); },
    });
}

int Height(const BTree *tree)
{
    int height = 0;
    for (const BTNode *node = BTRoot(tree); node; node = node->children[0])
        ++height;
    return height;
}

int32_t Nodes(const BTree *tree)
{
    BZStatistics s;
    BZStats(tree->nodeZone, &s);
    return s.liveCount;
}

// Inserting odd keys into trees of even keys, with every allocation made to fail in turn: a
// failed insertion leaves exactly the old keys and gives back every piece it took. The cases
// are those insertions that allocate at all (a zone's chunks full somewhere on the split path);
// among them are splits of leaves, of inner nodes and of the root.
TEST(BTreeOom, InsertWithSplits)
{
    for (const std::pair<int, int> &orderAndSize : {std::pair{1, 120}, std::pair{2, 120}, std::pair{3, 60}}) {
        const int m = orderAndSize.first, maxKeys = orderAndSize.second;
        int swept = 0, rootSplits = 0, cascades = 0;
        for (int keys = 0; keys <= maxKeys; ++keys) {
            for (int add = 1; add <= 2 * keys + 1; add += 2) {
                BTree *tree = nullptr;
                std::vector<uintptr_t> model;
                int heightBefore = 0;
                const vxtest::OomCase c{
                    [&] {
                        tree = BTCreate(m, sizeof(uintptr_t), CompareWord);
                        model.clear();
                        for (int i = 1; i <= keys; ++i) {
                            Add(tree, static_cast<uintptr_t>(2 * i));
                            model.push_back(static_cast<uintptr_t>(2 * i));
                        }
                        heightBefore = Height(tree);
                    },
                    [&] {
                        BTPos pos;
                        BTSearch(tree, static_cast<uintptr_t>(add), &pos);
                        const auto key = static_cast<uintptr_t>(add);
                        return BTInsert(tree, &key, &pos) == 1;
                    },
                    [&] {
                        EXPECT_EQ(BTValidate(tree, nullptr), keys);
                        EXPECT_EQ(Walk(tree), model);
                    },
                    [&] { BTDestroy(tree); },
                };
                const int64_t made = AllocationsMadeBy(c);
                if (made == 0)
                    continue;
                SCOPED_TRACE(::testing::Message() << "m=" << m << " keys=" << keys << " add=" << add);
                c.setup();
                const int32_t nodesBefore = Nodes(tree);
                c.run();
                rootSplits += keys > 0 && Height(tree) > heightBefore;
                cascades += Nodes(tree) - nodesBefore >= 2;
                c.teardown();
                vxtest::OomSweepAll(c);
                ++swept;
                if (::testing::Test::HasFailure())
                    return;
            }
        }
        EXPECT_GT(swept, 10) << "m=" << m;
        EXPECT_GT(rootSplits, 0) << "m=" << m << ": no swept insertion split the root";
        EXPECT_GT(cascades, 0) << "m=" << m << ": no swept insertion split two levels";
    }
}

}  // namespace
