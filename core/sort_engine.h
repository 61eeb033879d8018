// The step-wise quicksort as a state machine. SortStep drives one engine a step at a time;
// OrdSort runs its own engine to completion in a loop. Both do the same work in the same
// order: each step is one comparison at most.
#pragma once

#include <cstdint>
#include <utility>

namespace vx::sort {

// Depth of the range stack. Each partition pushes its larger part first, so the range on top
// is at most half of the one below it; 64 levels cover any array that fits in memory.
inline constexpr int kStackDepth = 64;

enum class Phase : uint8_t { ChooseRange, ScanUp, ScanDown };

template <class Compare>
class Engine {
public:
    constexpr explicit Engine(Compare compare = Compare{}) : compare_(compare) {}
    Engine(void **base, int64_t count, Compare compare) : compare_(compare) { Start(base, count); }

    void SetCompare(Compare compare) { compare_ = compare; }

    // Forgets any sort in progress and starts sorting `count` items at `base`.
    void Start(void **base, int64_t count)
    {
        end_ = base + count;
        top_ = -1;
        maxTop_ = -1;
        phase_ = Phase::ChooseRange;
        Push(base, end_);
    }

    // One step of work; returns false once the array is sorted.
    bool Step()
    {
        switch (phase_) {
        case Phase::ChooseRange: return ChooseRange();
        case Phase::ScanUp: ScanUp(); return true;
        case Phase::ScanDown: ScanDown(); return true;
        }
        return false;
    }

    // Runs the remaining steps as plain loops: the same comparisons in the same order as
    // calling Step() until it returns false, without the per-step dispatch.
    void Run()
    {
        if (phase_ != Phase::ChooseRange) {
            while (Step() && phase_ != Phase::ChooseRange) {
            }
        }
        while (ChooseRange()) {
            void *const pivot = pivot_;
            void **i = i_;
            void **j = j_;
            for (;;) {
                do
                    ++i;
                while (i != end_ && compare_(*i, pivot) < 0);
                do
                    --j;
                while (compare_(*j, pivot) > 0);
                if (i >= j)
                    break;
                std::swap(*i, *j);
            }
            i_ = i;
            j_ = j;
            FinishPartition();
        }
    }

    // Deepest use of the range stack so far (number of ranges held at once).
    int MaxStackUse() const { return maxTop_ + 1; }

private:
    struct Range {
        void **lo;
        void **hi;
    };

    void Push(void **lo, void **hi)
    {
        if (hi - lo < 2)
            return;
        stack_[++top_] = {lo, hi};
        if (top_ > maxTop_)
            maxTop_ = top_;
    }

    bool ChooseRange()
    {
        if (top_ < 0)
            return false;
        const Range r = stack_[top_];
        i_ = r.lo;
        j_ = r.hi;
        void **middle = r.lo + (r.hi - r.lo) / 2;
        pivot_ = *middle;
        *middle = *r.lo;
        *r.lo = pivot_;
        phase_ = Phase::ScanUp;
        return true;
    }

    // The upward scan is bounded by the end of the whole array only: the item behind any
    // sub-range is the pivot of an earlier partition and stops it.
    void ScanUp()
    {
        ++i_;
        if (i_ == end_ || compare_(*i_, pivot_) >= 0)
            phase_ = Phase::ScanDown;
    }

    void ScanDown()
    {
        --j_;
        if (compare_(*j_, pivot_) > 0)
            return;
        if (i_ < j_) {
            std::swap(*i_, *j_);
            phase_ = Phase::ScanUp;
            return;
        }
        FinishPartition();
    }

    // Puts the pivot between the two parts and replaces the range by them.
    void FinishPartition()
    {
        const Range r = stack_[top_--];
        *r.lo = *j_;
        *j_ = pivot_;
        PushSmallerLast({r.lo, j_}, {j_ + 1, r.hi});
        phase_ = Phase::ChooseRange;
    }

    // The smaller part is sorted next; on equal sizes the left part is.
    void PushSmallerLast(Range left, Range right)
    {
        if (left.hi - left.lo > right.hi - right.lo) {
            Push(left.lo, left.hi);
            Push(right.lo, right.hi);
        } else {
            Push(right.lo, right.hi);
            Push(left.lo, left.hi);
        }
    }

    Compare compare_;
    void **end_ = nullptr;
    void **i_ = nullptr;
    void **j_ = nullptr;
    void *pivot_ = nullptr;
    Range stack_[kStackDepth]{};
    int top_ = -1;
    int maxTop_ = -1;
    Phase phase_ = Phase::ChooseRange;
};

// Range stack use of the calling thread's step-wise sort (SortInitR/SortStep).
int StepSortMaxStackUse();

}  // namespace vx::sort
