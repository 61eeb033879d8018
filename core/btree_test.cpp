#include <vxtools3/containers.h>

#include "core/containers_internal.h"
#include "testkit/capture.h"
#include "testkit/tree_words.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

uintptr_t WordAt(const void *stored)
{
    uintptr_t s;
    std::memcpy(&s, stored, sizeof s);
    return s;
}

// Generic word keys through a callback of the caller's own, as any user's tree would be.
int CompareWord(uintptr_t key, const void *stored) { return (key > WordAt(stored)) - (key < WordAt(stored)); }

// Keys are a word followed by tag bytes (keySize - 8 of them) that follow from the word, so
// that keys of any size show whether all their bytes moved together.
unsigned char Tag(uintptr_t word, int32_t i) { return static_cast<unsigned char>(word * 7 + static_cast<uintptr_t>(i)); }

// "(keys children...)", e.g. "(3 (1 2) (4 5))"; a key whose tag bytes were lost reads "?".
std::string Shape(const BTree *tree, const BTNode *node)
{
    std::string text = "(";
    for (int32_t i = 0; i < node->count; ++i) {
        const unsigned char *key = node->keys + i * tree->keySize;
        text += (i ? " " : "") + std::to_string(WordAt(key));
        for (int32_t t = sizeof(uintptr_t); t < tree->keySize; ++t)
            text += key[t] == Tag(WordAt(key), t) ? "" : "?";
    }
    for (int32_t i = 0; node->children[0] && i <= node->count; ++i)
        text += " " + Shape(tree, node->children[i]);
    return text + ")";
}

std::string Shape(const BTree *tree) { return BTRoot(tree) ? Shape(tree, BTRoot(tree)) : "()"; }

void Add(BTree *tree, uintptr_t key)
{
    std::vector<unsigned char> bytes(static_cast<size_t>(tree->keySize));
    std::memcpy(bytes.data(), &key, sizeof key);
    for (int32_t t = sizeof(uintptr_t); t < tree->keySize; ++t)
        bytes[static_cast<size_t>(t)] = Tag(key, t);
    BTPos pos;
    ASSERT_EQ(BTSearch(tree, key, &pos), nullptr);
    ASSERT_EQ(BTInsert(tree, bytes.data(), &pos), 1);
}

void Delete(BTree *tree, uintptr_t key)
{
    BTPos pos;
    ASSERT_NE(BTSearch(tree, key, &pos), nullptr);
    BTDelete(tree, &pos);
}

// The hand-traced shape tests run on keys of one word and on keys of 12 bytes, which only the
// tree's own callback orders and whose bytes are copied whatever their alignment.
class BTreeShapes : public ::testing::TestWithParam<int32_t> {};

TEST_P(BTreeShapes, SmallTreesOfOrderTwo)
{
    BTree *tree = BTCreate(2, GetParam(), CompareWord);
    BTPos pos{reinterpret_cast<BTNode *>(1), 9};
    EXPECT_EQ(BTSearch(tree, 5, &pos), nullptr);
    EXPECT_TRUE(pos.node == nullptr && pos.index == 0) << "an empty tree's insertion point";
    EXPECT_EQ(BTFirst(tree, &pos), nullptr);
    for (uintptr_t k : {1, 2, 3, 4, 5})
        Add(tree, k);
    EXPECT_EQ(Shape(tree), "(3 (1 2) (4 5))") << "the fifth key splits the root";
    EXPECT_TRUE(!BTSearch(tree, 6, &pos) && pos.node == BTRoot(tree)->children[1] && pos.index == 2)
        << "the insertion point in a leaf";
    EXPECT_EQ(WordAt(BTSearch(tree, 3, &pos)), 3u);
    EXPECT_TRUE(pos.node == BTRoot(tree) && pos.index == 0);
    EXPECT_EQ(BTNext(tree, &pos), BTRoot(tree)->children[1]->keys);
    for (uintptr_t k : {6, 7, 8, 9, 10})
        Add(tree, k);
    EXPECT_EQ(Shape(tree), "(3 6 (1 2) (4 5) (7 8 9 10))");
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
    EXPECT_EQ(BTValidate(tree, WordAt), 0) << "every node went back to the zone";
    Add(tree, 42);
    EXPECT_EQ(Shape(tree), "(42)") << "an emptied tree takes new keys";
    BTDestroy(tree);
}

// Inner nodes even out with a sibling too, children crossing with their keys; traced by hand.
TEST_P(BTreeShapes, InnerNodesRedistributeInBothDirections)
{
    struct Case { std::vector<uintptr_t> deletes; const char *before, *after; };  // shapes around the last
    for (const Case &c : {Case{{1, 2, 3, 4, 5}, "(8 (6 (5) (7)) (10 12 (9) (11) (13 14)))",
                               "(10 (8 (6 7) (9)) (12 (11) (13 14)))"},  // takes 8 and (9) from the right
                          Case{{1, 2, 14, 13, 9, 10}, "(8 (4 6 (3) (5) (7)) (11 (10) (12)))",
                               "(6 (4 (3) (5)) (8 (7) (11 12)))"}}) {  // takes 8 and (7) from the left
        BTree *tree = BTCreate(1, GetParam(), CompareWord);
        for (uintptr_t k = 1; k <= 14; ++k)
            Add(tree, k);
        ASSERT_EQ(Shape(tree), "(4 8 (2 (1) (3)) (6 (5) (7)) (10 12 (9) (11) (13 14)))");
        for (size_t i = 0; i + 1 < c.deletes.size(); ++i)
            Delete(tree, c.deletes[i]);
        EXPECT_EQ(Shape(tree), c.before);
        Delete(tree, c.deletes.back());  // the leaf merges and its emptied parent borrows
        EXPECT_EQ(Shape(tree), c.after);
        EXPECT_EQ(BTValidate(tree, nullptr), static_cast<int32_t>(14 - c.deletes.size()));
        BTDestroy(tree);
    }
}

INSTANTIATE_TEST_SUITE_P(KeySizes, BTreeShapes, ::testing::Values(8, 12));

TEST(BTree, CreateRefusesBadArgumentsAndValidateFindsBrokenTrees)
{
    EXPECT_EQ(BTCreate(0, 8, CompareWord), nullptr);
    EXPECT_EQ(BTCreate(2, 0, CompareWord), nullptr);
    EXPECT_EQ(BTCreate(2, 8, nullptr), nullptr);
    EXPECT_EQ(BTCreate(1 << 20, 1 << 20, CompareWord), nullptr) << "a node over 1 GiB";
    BTDestroy(nullptr);
    BTree *tree = BTCreate(2, sizeof(uintptr_t), CompareWord);
    for (uintptr_t k = 1; k <= 20; ++k)
        Add(tree, k);
    vxtest::DebugCapture capture;
    BTNode *leaf = tree->root->children[0];
    std::swap(leaf->keys[0], leaf->keys[8]);
    EXPECT_EQ(BTValidate(tree, nullptr), -1);
    EXPECT_NE(capture.Text().find("keys out of order"), std::string::npos) << capture.Text();
    std::swap(leaf->keys[0], leaf->keys[8]);
    leaf->count -= 1;
    EXPECT_EQ(BTValidate(tree, nullptr), -1);
    leaf->count += 1;
    EXPECT_EQ(BTValidate(tree, nullptr), 20);
    BTDestroy(tree);
}

// LTab beside std::set and LMap beside std::map on the same random keys: adds and removals
// biased to grow and then shrink both, the trees validated after every step and walked now
// and then. Keys with the top bit set exercise the unsigned order of words.
class BTreeModel : public ::testing::TestWithParam<int32_t> {};

TEST_P(BTreeModel, TablesAndMapsFollowTheStandardContainers)
{
    const int32_t m = GetParam();
    const uintptr_t range = m < 16 ? 400 : 3000;
    LTab *tab = LTabCreate(m);
    LMap *map = LMapCreate(m);
    std::set<uintptr_t> set;
    std::map<uintptr_t, uintptr_t> model;
    std::mt19937_64 rng(static_cast<uint64_t>(m) * 977);
    for (int step = 0; step < 8000; ++step) {
        const uintptr_t key = (rng() % range) | (step % 3 == 0 ? uintptr_t{1} << 63 : 0);
        const uintptr_t value = rng();
        const auto op = static_cast<unsigned>(rng() % 100);
        if (op < (step % 2000 < 1200 ? 60u : 25u)) {
            ASSERT_EQ(LTabAdd(tab, key), set.insert(key).second ? 1 : 0);
            ASSERT_EQ(LMapSet(map, key, value), model.count(key) ? 0 : 1);
            model[key] = value;
        } else if (op < 85) {
            ASSERT_EQ(LTabRem(tab, key), static_cast<int>(set.erase(key)));
            ASSERT_EQ(LMapUnset(map, key), static_cast<int>(model.erase(key)));
        } else {
            uintptr_t got = 12345;
            const auto it = model.find(key);
            ASSERT_EQ(LMapGet(map, key, &got), it != model.end() ? 1 : 0);
            ASSERT_EQ(LMapGet(map, key, nullptr), it != model.end() ? 1 : 0) << "the value need not be stored";
            ASSERT_EQ(got, it != model.end() ? it->second : 12345u) << "an absent key leaves the output alone";
            ASSERT_EQ(LTabTest(tab, key), static_cast<int>(set.count(key)));
        }
        ASSERT_EQ(BTValidate(tab, nullptr), static_cast<int32_t>(set.size())) << "step " << step;
        ASSERT_EQ(BTValidate(map, nullptr), static_cast<int32_t>(model.size())) << "step " << step;
        if (step % 50 == 0) {
            ASSERT_EQ(vxtest::TreeWords(tab, 1), std::vector<uintptr_t>(set.begin(), set.end()));
            ASSERT_EQ(BTCount(tab), static_cast<int32_t>(set.size()));
            std::vector<uintptr_t> pairs;
            for (const auto &[k, v] : model)
                pairs.insert(pairs.end(), {k, v});
            ASSERT_EQ(vxtest::TreeWords(map, 2), pairs);
        }
    }
    for (uintptr_t v : std::vector<uintptr_t>(set.begin(), set.end())) {
        ASSERT_EQ(LTabRem(tab, v), 1);
        set.erase(v);
        ASSERT_EQ(BTValidate(tab, nullptr), static_cast<int32_t>(set.size()));
    }
    EXPECT_EQ(BTRoot(tab), nullptr);
    LMapClear(map);
    EXPECT_EQ(BTValidate(map, nullptr), 0);
    EXPECT_EQ(LMapSet(map, 1, 2), 1) << "a cleared map takes new pairs";
    LTabDestroy(tab);
    LMapDestroy(map);
}

INSTANTIATE_TEST_SUITE_P(Orders, BTreeModel, ::testing::Values(1, 2, 3, 16),
                         [](const auto &param) { return "m" + std::to_string(param.param); });

// The word-keyed searches of tables and maps (counting where the processor has AVX2 and the
// node's key slots span 4 to 64 words, else halving) against the plain search through a
// caller's callback: the same found keys, insertion points and shapes after every step of a
// random run of adds and removals.
class WordSearch : public ::testing::TestWithParam<int32_t> {};

TEST_P(WordSearch, FindsWhatThePlainSearchFinds)
{
    const int32_t m = GetParam();
    for (int32_t keySize : {8, 16}) {
        BTree *counting = BTCreate(m, keySize, vx::btree::CompareFirstWord);
        vx::btree::AllowCounting(false);
        BTree *halving = BTCreate(m, keySize, vx::btree::CompareFirstWord);
        vx::btree::AllowCounting(true);
        BTree *plain = BTCreate(m, keySize, CompareWord);
        BTree *const trees[] = {counting, halving, plain};
        std::mt19937_64 rng(static_cast<uint64_t>(m * keySize));
        for (int step = 0; step < 4000; ++step) {
            const uintptr_t key = (rng() % 700) | (step % 5 == 0 ? uintptr_t{1} << 63 : 0);
            BTPos pos[3];
            bool in[3];
            for (int t = 2; t >= 0; --t) {
                in[t] = BTSearch(trees[t], key, &pos[t]) != nullptr;
                ASSERT_EQ(in[t], in[2]) << "tree " << t << " step " << step;
                ASSERT_EQ(pos[t].index, pos[2].index) << "tree " << t << " step " << step;
                ASSERT_EQ(pos[t].node ? Shape(trees[t], pos[t].node) : "", pos[2].node ? Shape(plain, pos[2].node) : "")
                    << "tree " << t << " step " << step;
            }
            const bool grow = step % 1000 < 600;
            if (!in[2] && rng() % 100 < (grow ? 70u : 30u)) {
                for (BTree *tree : trees)
                    Add(tree, key);
            } else if (in[2] && rng() % 100 < (grow ? 30u : 70u)) {
                for (int t = 0; t < 3; ++t)
                    BTDelete(trees[t], &pos[t]);
            }
            if (step % 20 == 0) {
                ASSERT_EQ(Shape(counting), Shape(plain)) << "step " << step;
                ASSERT_EQ(Shape(halving), Shape(plain)) << "step " << step;
            }
        }
        EXPECT_EQ(BTValidate(counting, WordAt), BTValidate(plain, WordAt));
        EXPECT_EQ(BTValidate(halving, WordAt), BTValidate(plain, WordAt));
        for (BTree *tree : trees)
            BTDestroy(tree);
    }
}

// Tables of orders 2 to 32 count and maps of orders 1 to 16; the others halve.
INSTANTIATE_TEST_SUITE_P(Orders, WordSearch, ::testing::Values(1, 2, 5, 7, 16, 32, 33, 48),
                         [](const auto &param) { return "m" + std::to_string(param.param); });

}  // namespace
