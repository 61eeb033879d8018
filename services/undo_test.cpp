#include <vxtools3/ckpt.h>
#include <vxtools3/undo.h>

#include "services/undo_internal.h"
#include "testkit/fault_alloc.h"
#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <set>
#include <string>
#include <vector>

using vx::undo::CheckStructure;
using vx::undo::OpenDepth;
using vx::undo::RecordCount;

namespace {

// ---- Simple recording actions ----------------------------------------------------------------

std::vector<std::string> g_calls;  // "a<code>" for actions, "r<code>:<data>" for releases
uintptr_t g_expectedSystemData = 0;

void Act(uintptr_t system, int32_t code, uintptr_t)
{
    EXPECT_EQ(system, g_expectedSystemData);
    g_calls.push_back("a" + std::to_string(code));
}

void Rel(uintptr_t system, int32_t code, uintptr_t data)
{
    EXPECT_EQ(system, g_expectedSystemData);
    g_calls.push_back("r" + std::to_string(code) + ":" + std::to_string(data));
}

class UndoTest : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override
    {
        EXPECT_EQ(CheckStructure(), nullptr);
        Reset();
        EXPECT_EQ(CkptLevel(), -1);
    }
    static void Reset()
    {
        UndoSysShutdown();
        UndoSysSetData(0);
        g_expectedSystemData = 0;
        g_calls.clear();
    }
};

using Calls = std::vector<std::string>;

TEST_F(UndoTest, NothingIsKeptUntilTheMaximumIsSet)
{
    EXPECT_EQ(UndoSysGetMax(), 0);
    EXPECT_EQ(UndoAddComplete(3, Act, 30, Rel), 1);
    EXPECT_EQ(UndoNumUndo(), 0);
    EXPECT_EQ(g_calls, (Calls{"r3:30"})) << "released at once";
    EXPECT_EQ(RecordCount(), 0);
    g_calls.clear();
    UndoSysSetMax(-1);
    UndoSysSetData(77);
    g_expectedSystemData = 77;
    UndoAddComplete(4, Act, 0, Rel);        // no data: release not called
    UndoAddComplete(5, Act, 50, nullptr);   // no release
    UndoAddComplete(6, nullptr, 60, Rel);   // no action: carries data only
    EXPECT_EQ(UndoNumUndo(), 3);
    EXPECT_EQ(UndoSysUndo(), 1);
    EXPECT_EQ(g_calls, Calls{}) << "a record without an action does nothing";
    EXPECT_EQ(UndoNumUndo(), 2);
    UndoSysShutdown();
    EXPECT_EQ(g_calls, (Calls{"r6:60"}));
    EXPECT_EQ(UndoSysGetMax(), 0);
}

TEST_F(UndoTest, NewWorkDropsRedoAndBalancedBlocksMakeNoStep)
{
    UndoSysSetMax(-1);
    UndoAddComplete(1, Act, 1, Rel);
    UndoAddComplete(2, Act, 2, Rel);
    UndoSysUndo();
    UndoSysUndo();
    g_calls.clear();
    UndoBlockBegin();
    EXPECT_EQ(g_calls, (Calls{"r2:2", "r1:1"})) << "beginning a block drops both redo steps, newest first";
    EXPECT_EQ(UndoNumRedo(), 0);
    UndoAddComplete(3, Act, 3, Rel);
    UndoAddPending(4, Act, 4, Rel);
    UndoBlockEnd();
    EXPECT_EQ(UndoNumUndo() + UndoNumRedo(), 0) << "complete and pending cancel: no step";
    EXPECT_EQ(RecordCount(), 2) << "and no markers";
    UndoSysClear();
    EXPECT_EQ(RecordCount(), 0) << "clearing releases loose records too";
    EXPECT_EQ(UndoSysGetMax(), -1);
}

TEST_F(UndoTest, AbortRemovesAsManyRecordsAsTheLevelsBalance)
{
    UndoSysSetMax(-1);
    UndoAddComplete(1, Act, 1, Rel);
    g_calls.clear();
    UndoBlockBegin();
    UndoAddComplete(2, Act, 2, Rel);
    UndoBlockBegin();
    UndoAddComplete(3, Act, 3, Rel);
    UndoAddComplete(4, Act, 4, Rel);
    UndoAddPending(5, Act, 5, Rel);
    UndoBlockAbort();  // balance -1: only the newest record goes
    EXPECT_EQ(g_calls, (Calls{"r5:5"}));
    UndoBlockAbort();  // the outer level balances -1 as well: one record more, the newest
    EXPECT_EQ(g_calls, (Calls{"r5:5", "r4:4"}));
    EXPECT_EQ(OpenDepth(), 0);
    EXPECT_EQ(UndoNumUndo(), 1);
    g_calls.clear();
    UndoSysShutdown();
    EXPECT_EQ(g_calls, (Calls{"r1:1", "r2:2", "r3:3"}));
}

TEST_F(UndoTest, RewritingOnlyWhileAnActionRuns)
{
    EXPECT_EQ(UndoNewCode(5), nullptr);
    EXPECT_EQ(UndoNewAction(Act), nullptr);
    UndoNewData(1, Rel);
    UndoSysSetMax(-1);
    EXPECT_EQ(UndoBlockSetData(0, 1, Rel), nullptr) << "only 1 and -1 name a step";
    static VxUndoRecord *seen;
    UndoAddComplete(1, [](uintptr_t, int32_t, uintptr_t) { seen = UndoNewCode(8); UndoNewData(80, Rel); }, 0, nullptr);
    UndoSysUndo();
    EXPECT_NE(seen, nullptr);
    EXPECT_EQ(UndoNewCode(5), nullptr);
    UndoSysShutdown();
    EXPECT_EQ(g_calls, (Calls{"r8:80"}));
}

TEST_F(UndoTest, NestingBeyondTwelveLevelsMergesIntoTheTwelfth)
{
    UndoSysSetMax(-1);
    for (int i = 0; i < 15; ++i)
        UndoBlockBegin();
    EXPECT_EQ(OpenDepth(), 15);
    UndoAddComplete(1, Act, 1, Rel);
    UndoBlockAbort();  // a merged level: removes nothing
    EXPECT_EQ(RecordCount(), 1);
    UndoAddComplete(2, Act, 2, Rel);
    for (int i = 0; i < 14; ++i)
        EXPECT_EQ(UndoBlockEnd(), 1);
    EXPECT_EQ(UndoNumUndo(), 1);
    EXPECT_EQ(RecordCount(), 4);
}

// ---- Out-of-memory sweeps ------------------------------------------------------------------

struct Shape {
    int32_t undo, redo, records, depth, spares;
    size_t calls;
    bool operator==(const Shape &) const = default;
};
Shape Now()
{
    return {UndoNumUndo(), UndoNumRedo(), RecordCount(), OpenDepth(), vx::undo::SpareCount(), g_calls.size()};
}

// A history of two undo steps and one redo step (so that a failed add must also leave the
// redo step alone), with no spare records; or with one spare and the redo step dropped (a
// record taken from the spares must go back to them when the markers cannot be made).
void BuildHistory(bool inBlock, bool oneSpare)
{
    g_calls.clear();
    UndoSysSetMax(5);
    for (int32_t code = 1; code <= 3; ++code)
        UndoAddComplete(code, Act, static_cast<uintptr_t>(code), Rel);
    UndoSysUndo();
    if (inBlock)
        UndoBlockBegin();  // drops the redo step
    if (oneSpare) {
        UndoBlockBegin();
        vx::undo::DropSpares();
        UndoAddComplete(4, Act, 0, nullptr);
        UndoBlockAbort();
    } else {
        vx::undo::DropSpares();
    }
}

void EmptyHistory()
{
    while (OpenDepth())
        UndoBlockAbort();
    UndoSysShutdown();
}

// A failed add or block end leaves everything as it was: the block stays open.
TEST_F(UndoTest, OutOfMemoryAddCompleteAndPendingAndBlockEnd)
{
    // {operation: complete, pending, block end after two adds; in a block; one spare}
    const struct { int op; bool inBlock, oneSpare; } cases[] = {
        {0, false, false}, {0, true, false}, {0, false, true}, {1, false, false}, {1, true, false}, {1, false, true},
        {2, true, false}};
    Shape before{};
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << "operation " << c.op << " in block " << c.inBlock << " spare " << c.oneSpare);
        vxtest::OomSweepAll({[&] {
                                 BuildHistory(c.inBlock, c.oneSpare);
                                 for (int32_t code = 7; c.op == 2 && code <= 8; ++code)
                                     UndoAddComplete(code, Act, static_cast<uintptr_t>(code), Rel);
                                 before = Now();
                             },
                             [&] { return (c.op == 2 ? UndoBlockEnd() : (c.op ? UndoAddPending : UndoAddComplete)(9, Act, 9, Rel)) == 1; },
                             [&] {
                                 EXPECT_EQ(Now(), before);
                                 EXPECT_EQ(CheckStructure(), nullptr);
                             },
                             EmptyHistory});
    }
}

// ---- The model: a small text document edited, undone and redone ------------------------------
//
// Every edit is an insertion or an erasure of a few letters. Each record carries a heap token
// with the edit; its action performs the edit on the document and then rewrites the record so
// that the same record performs the opposite edit next time, in one of three ways: a new code
// (the code says insert or erase), a new action (one action per direction), or new data (a
// fresh token for the opposite edit; the action retires the old one). The model keeps the
// document, the undo steps and the redo steps as plain vectors of edits and replays them by
// itself; after every operation the document, the step counts, the block data and the number
// of live tokens must agree with it. A token released twice, used after release or never
// released is caught by the live-token registry.

enum Kind : int32_t { kInsert = 1, kErase = 2 };
Kind Opposite(int32_t kind) { return kind == kInsert ? kErase : kInsert; }

struct Edit {
    int32_t kind;
    size_t pos;
    std::string text;
};

struct Token {
    Edit edit;
    bool blockData;
};

std::string g_doc;
std::set<Token *> g_live;
int g_badTokens = 0;

Token *NewToken(const Edit &edit, bool blockData = false)
{
    auto *token = new Token{edit, blockData};
    g_live.insert(token);
    return token;
}

Token *Live(uintptr_t data)
{
    auto *token = reinterpret_cast<Token *>(data);
    g_badTokens += !g_live.count(token);
    return g_live.count(token) ? token : nullptr;
}

void Retire(Token *token)
{
    g_live.erase(token);
    delete token;
}

void Apply(std::string &doc, int32_t kind, size_t pos, const std::string &text)
{
    if (kind == kInsert) {
        ASSERT_LE(pos, doc.size());
        doc.insert(pos, text);
        return;
    }
    ASSERT_EQ(doc.compare(pos, text.size(), text), 0) << "erasing text that is not there";
    doc.erase(pos, text.size());
}

void Apply(std::string &doc, const Edit &e) { Apply(doc, e.kind, e.pos, e.text); }
void Revert(std::string &doc, const Edit &e) { Apply(doc, Opposite(e.kind), e.pos, e.text); }

void ReleaseToken(uintptr_t system, int32_t code, uintptr_t data)
{
    EXPECT_EQ(system, g_expectedSystemData);
    if (Token *token = Live(data)) {
        EXPECT_TRUE(!token->blockData || code == 1) << "block data is released by its start marker";
        Retire(token);
    }
}

void ByCode(uintptr_t, int32_t code, uintptr_t data)
{
    if (Token *token = Live(data)) {
        Apply(g_doc, code, token->edit.pos, token->edit.text);
        EXPECT_NE(UndoNewCode(Opposite(code)), nullptr);
    }
}

// One action per direction: each performs its edit and puts the other in its place.
template <int32_t kKind>
void DirectedAction(uintptr_t, int32_t, uintptr_t data)
{
    if (Token *token = Live(data)) {
        Apply(g_doc, kKind, token->edit.pos, token->edit.text);
        EXPECT_NE(UndoNewAction(DirectedAction<kKind == kInsert ? kErase : kInsert>), nullptr);
    }
}

void BySwap(uintptr_t, int32_t, uintptr_t data)
{
    if (Token *token = Live(data)) {
        Apply(g_doc, token->edit);
        Edit opposite = token->edit;
        opposite.kind = Opposite(opposite.kind);
        UndoNewData(reinterpret_cast<uintptr_t>(NewToken(opposite)), ReleaseToken);
        Retire(token);
    }
}

struct Step {
    std::vector<Edit> edits;  // in the order performed forwards
    Token *blockData = nullptr;
};

class DocumentModel {
public:
    explicit DocumentModel(uint32_t seed) : rng_(seed) {}

    void Run(int operations)
    {
        g_doc = doc_ = "undo";
        for (int i = 0; i < operations && !::testing::Test::HasFailure(); ++i) {
            RandomOperation();
            Check();
        }
        UndoSysShutdown();
        undo_.clear(), redo_.clear();
        EXPECT_TRUE(g_live.empty()) << g_live.size() << " tokens never released";
        EXPECT_EQ(g_badTokens, 0) << "tokens used or released after their release";
    }

private:
    int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

    void RandomOperation()
    {
        switch (Pick(10)) {
        case 0: case 1: CompleteWork(); break;
        case 2: PendingWork(); break;
        case 3: case 4: Undo(); break;
        case 5: case 6: Redo(); break;
        case 7: SetMax(); break;
        case 8: SetBlockData(); break;
        default:
            if (Pick(4) == 0) {
                UndoSysClear();
                undo_.clear(), redo_.clear();
                pendingQueued_ = false;
            } else {
                UndoSysSetData(g_expectedSystemData = static_cast<uintptr_t>(Pick(1000)));
            }
        }
    }

    void Check()
    {
        ASSERT_EQ(g_doc, doc_);
        ASSERT_EQ(UndoNumUndo(), static_cast<int32_t>(undo_.size()));
        ASSERT_EQ(UndoNumRedo(), static_cast<int32_t>(redo_.size()));
        ASSERT_EQ(CheckStructure(), nullptr);
        size_t tokens = 0;
        auto count = [&](const Step &s) { tokens += s.edits.size() + (s.blockData != nullptr); };
        std::for_each(undo_.begin(), undo_.end(), count);
        std::for_each(redo_.begin(), redo_.end(), count);
        ASSERT_EQ(g_live.size(), tokens) << "a discarded record was not released, or too many were";
        ASSERT_EQ(UndoBlockGetData(-1), undo_.empty() ? 0 : reinterpret_cast<uintptr_t>(undo_.back().blockData));
        ASSERT_EQ(UndoBlockGetData(1), redo_.empty() ? 0 : reinterpret_cast<uintptr_t>(redo_.front().blockData));
    }

    Edit RandomEdit(const std::string &doc)
    {
        Edit e;
        if (doc.empty() || Pick(2) == 0) {
            e.kind = kInsert;
            e.pos = static_cast<size_t>(Pick(static_cast<int>(doc.size()) + 1));
            for (int n = 1 + Pick(3); n > 0; --n)
                e.text += static_cast<char>('a' + (letter_++ % 26));
        } else {
            e.kind = kErase;
            e.pos = static_cast<size_t>(Pick(static_cast<int>(doc.size())));
            e.text = doc.substr(e.pos, static_cast<size_t>(1 + Pick(std::min<int>(3, static_cast<int>(doc.size() - e.pos)))));
        }
        return e;
    }

    // Records `e`: a complete record first performs its opposite, a pending one performs it.
    void Record(const Edit &e, bool complete)
    {
        Edit first = e;
        if (complete)
            first.kind = Opposite(e.kind);
        const auto data = reinterpret_cast<uintptr_t>(NewToken(first));
        auto add = complete ? UndoAddComplete : UndoAddPending;
        switch (Pick(3)) {
        case 0: ASSERT_EQ(add(first.kind, ByCode, data, ReleaseToken), 1); break;
        case 1: ASSERT_EQ(add(0, first.kind == kInsert ? DirectedAction<kInsert> : DirectedAction<kErase>, data, ReleaseToken), 1); break;
        default: ASSERT_EQ(add(0, BySwap, data, ReleaseToken), 1); break;
        }
    }

    // Makes edits at one block level, some in nested blocks that end or abort. `work` is the
    // text the edits apply to: the document itself for complete work, a projection for
    // pending work. Returns the edits that stayed, in order.
    std::vector<Edit> FillLevel(bool complete, std::string &work, int depth)
    {
        std::vector<Edit> kept;
        for (int n = Pick(4); n > 0; --n) {
            if (depth < 3 && Pick(4) == 0) {
                UndoBlockBegin();
                std::vector<Edit> inner = FillLevel(complete, work, depth + 1);
                if (Pick(3) == 0) {
                    UndoBlockAbort();
                    RevertAll(inner, work, complete);
                } else {
                    EXPECT_EQ(UndoBlockEnd(), 1);
                    kept.insert(kept.end(), inner.begin(), inner.end());
                }
                continue;
            }
            const Edit e = RandomEdit(work);
            Apply(work, e);
            if (complete)
                Apply(g_doc, e);  // the application performs a complete change itself
            Record(e, complete);
            kept.push_back(e);
        }
        return kept;
    }

    void RevertAll(const std::vector<Edit> &edits, std::string &work, bool complete)
    {
        for (auto it = edits.rbegin(); it != edits.rend(); ++it) {
            Revert(work, *it);
            if (complete)
                Revert(g_doc, *it);
        }
    }

    // What beginning new work does to the redo side.
    void BeginWork()
    {
        if (!pendingQueued_)
            redo_.clear();
    }

    void Work(bool complete, std::string &work)
    {
        if (Pick(3) == 0) {  // a lone add
            BeginWork();
            const Edit e = RandomEdit(work);
            Apply(work, e);
            if (complete)
                Apply(g_doc, e);
            Record(e, complete);
            Close({{e}}, complete);
            return;
        }
        UndoBlockBegin();
        BeginWork();
        std::vector<Edit> edits = FillLevel(complete, work, 1);
        if (Pick(5) == 0) {
            UndoBlockAbort();
            RevertAll(edits, work, complete);
            return;
        }
        EXPECT_EQ(UndoBlockEnd(), 1);
        if (!edits.empty())
            Close({edits}, complete);
    }

    void Close(Step step, bool complete)
    {
        if (complete) {
            undo_.push_back(std::move(step));
        } else {
            redo_.push_back(std::move(step));
            pendingQueued_ = true;
        }
        TrimUndo();
    }

    void CompleteWork()
    {
        if (pendingQueued_ && !redo_.empty())
            return;  // complete work behind queued pending steps is not a pattern we support
        Work(true, doc_);
    }

    void PendingWork()
    {
        std::string projection = doc_;
        if (pendingQueued_)
            for (const Step &s : redo_)
                for (const Edit &e : s.edits)
                    Apply(projection, e);
        Work(false, projection);
    }

    void Undo()
    {
        ASSERT_EQ(UndoSysUndo(), undo_.empty() ? 0 : 1);
        if (undo_.empty())
            return;
        const Step &step = undo_.back();
        for (auto it = step.edits.rbegin(); it != step.edits.rend(); ++it)
            Revert(doc_, *it);
        redo_.push_front(std::move(undo_.back()));
        undo_.pop_back();
        pendingQueued_ = false;
    }

    void Redo()
    {
        ASSERT_EQ(UndoSysRedo(), redo_.empty() ? 0 : 1);
        if (redo_.empty())
            return;
        for (const Edit &e : redo_.front().edits)
            Apply(doc_, e);
        undo_.push_back(std::move(redo_.front()));
        redo_.pop_front();
        if (redo_.empty())
            pendingQueued_ = false;
    }

    void SetMax()
    {
        static constexpr int32_t kChoices[] = {-1, 0, 1, 2, 3, 5, 8, 8, 8};
        maximum_ = kChoices[Pick(9)];
        UndoSysSetMax(maximum_);
        TrimUndo();
        if (maximum_ != -1)
            while (!redo_.empty() && static_cast<int32_t>(undo_.size() + redo_.size()) > maximum_)
                redo_.pop_back();
        if (redo_.empty())
            pendingQueued_ = false;
    }

    void TrimUndo()
    {
        if (maximum_ == -1)
            return;
        while (!undo_.empty() && static_cast<int32_t>(undo_.size() + redo_.size()) > maximum_)
            undo_.erase(undo_.begin());
    }

    void SetBlockData()
    {
        const int32_t which = Pick(2) ? 1 : -1;
        Step *step = which == 1 ? (redo_.empty() ? nullptr : &redo_.front()) : (undo_.empty() ? nullptr : &undo_.back());
        Token *token = NewToken({}, true);
        VxUndoRecord *start = UndoBlockSetData(which, reinterpret_cast<uintptr_t>(token), ReleaseToken);
        ASSERT_EQ(start != nullptr, step != nullptr);
        if (!step) {
            Retire(token);
            return;
        }
        if (step->blockData)
            Retire(step->blockData);  // replaced data comes back to its owner
        step->blockData = token;
    }

    std::mt19937 rng_;
    std::string doc_;
    std::vector<Step> undo_;  // oldest first
    std::deque<Step> redo_;   // next to redo first
    bool pendingQueued_ = false;  // pending steps wait after the newest record
    int32_t maximum_ = 8;  // set by the test before the run
    int letter_ = 0;
};

TEST_F(UndoTest, DocumentEditsUndoAndRedoAgreeWithTheModel)
{
    vxtest::FaultAllocator heap;
    for (uint32_t seed = 1; seed <= 30 && !HasFailure(); ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        g_badTokens = 0;
        g_expectedSystemData = 0;
        UndoSysSetData(0);
        UndoSysSetMax(8);
        DocumentModel model(seed);
        model.Run(300);
        EXPECT_EQ(heap.LiveBytes(), 0u);
    }
    EXPECT_EQ(heap.BadFrees(), 0);
}

}  // namespace
