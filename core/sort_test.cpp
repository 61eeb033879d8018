#include <vxtools3/lists.h>

#include "core/sort_engine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <random>
#include <utility>
#include <vector>

namespace {

uintptr_t Value(void *p) { return reinterpret_cast<uintptr_t>(p); }

using Pairs = std::vector<std::pair<uintptr_t, uintptr_t>>;  // the comparisons made: (item, pivot)

int TracingCompare3(void *item, void *pivot, void *user)
{
    static_cast<Pairs *>(user)->emplace_back(Value(item), Value(pivot));
    return (Value(item) > Value(pivot)) - (Value(item) < Value(pivot));
}

int Compare2(void *a, void *b) { return (Value(a) > Value(b)) - (Value(a) < Value(b)); }

// Runs SortInitR/SortStep to completion; returns the number of SortStep calls.
int StepToEnd(std::vector<void *> &items, Pairs &trace)
{
    SortInitR(items.data(), static_cast<int32_t>(items.size()), TracingCompare3, &trace);
    int calls = 1;
    while (SortStep())
        ++calls;
    return calls;
}

std::vector<void *> Words(std::initializer_list<uintptr_t> values)
{
    std::vector<void *> items;
    for (uintptr_t v : values)
        items.push_back(reinterpret_cast<void *>(v));
    return items;
}

// Traced by hand: the middle item is the pivot; the upward scan stops at items not below
// it (or at the array's end, without a comparison), the downward scan at items not above it.
TEST(StepSort, OrderOfWorkForFixedInputs)
{
    std::vector<void *> three = Words({3, 1, 2});
    Pairs trace;
    EXPECT_EQ(StepToEnd(three, trace), 10);
    EXPECT_EQ(three, Words({1, 2, 3}));
    EXPECT_EQ(trace, (Pairs{{3, 1}, {2, 1}, {3, 1}, {1, 1}, {3, 2}, {3, 2}, {2, 2}}));

    std::vector<void *> two = Words({1, 2});
    trace.clear();
    EXPECT_EQ(StepToEnd(two, trace), 5) << "one step reaches the end of the array uncompared";
    EXPECT_EQ(two, Words({1, 2}));
    EXPECT_EQ(trace, (Pairs{{1, 2}, {1, 2}}));

    for (std::vector<void *> fewer : {Words({}), Words({5})}) {
        trace.clear();
        EXPECT_EQ(StepToEnd(fewer, trace), 1) << "nothing to do for " << fewer.size() << " items";
        EXPECT_TRUE(trace.empty());
    }
}

// Sorting by steps and OrdSort's loop agree with std::sort on inputs of every shape (random,
// sorted, reversed, all equal, three values, organ pipe) and do the same comparisons in the
// same order; the range stack stays within log2(n) + 1.
TEST(StepSort, MatchesStdSortAndOrdSortOnAllShapes)
{
    std::mt19937_64 rng(99);
    for (int shape = 0; shape < 6; ++shape) {
        for (size_t n : {2u, 3u, 7u, 64u, 1000u, 4097u}) {
            SCOPED_TRACE(::testing::Message() << "shape " << shape << " n=" << n);
            std::vector<void *> input(n);
            for (size_t i = 0; i < n; ++i) {
                const uintptr_t values[] = {rng() % (4 * n + 1), i, n - i, 42, rng() % 3, std::min(i, n - i)};
                input[i] = reinterpret_cast<void *>(values[shape]);
            }
            std::vector<void *> expected = input;
            std::sort(expected.begin(), expected.end());

            std::vector<void *> stepped = input;
            Pairs steppedTrace;
            StepToEnd(stepped, steppedTrace);
            EXPECT_EQ(stepped, expected);
            EXPECT_LE(vx::sort::StepSortMaxStackUse(), std::bit_width(n)) << "range stack bound";

            std::vector<void *> looped = input;
            Pairs loopedTrace;
            vx::sort::Engine engine(looped.data(), static_cast<int64_t>(n),
                                    [&](void *a, void *b) { return TracingCompare3(a, b, &loopedTrace); });
            engine.Run();
            EXPECT_EQ(looped, expected);
            EXPECT_EQ(loopedTrace, steppedTrace) << "same work in the same order";

            VxOrd ord{input.data(), static_cast<int32_t>(n), static_cast<int32_t>(n)};
            OrdSort(&ord, Compare2);
            EXPECT_EQ(input, expected);
            EXPECT_EQ(OrdValidate(&ord, Compare2), 1);
        }
    }
}

}  // namespace
