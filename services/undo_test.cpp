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

using Calls = std::vector<std::string>;
Calls g_calls;  // "a<code>" for actions, "r<code>:<data>" for releases
uintptr_t g_expectedSystemData = 0;

void Log(uintptr_t system, std::string call)
{
    EXPECT_EQ(system, g_expectedSystemData);
    g_calls.push_back(std::move(call));
}
void Act(uintptr_t system, int32_t code, uintptr_t) { Log(system, "a" + std::to_string(code)); }
void Rel(uintptr_t system, int32_t code, uintptr_t data) { Log(system, "r" + std::to_string(code) + ":" + std::to_string(data)); }

// Adds a complete record for each code, with the code as its data.
void AddAll(std::initializer_list<int32_t> codes)
{
    for (int32_t code : codes)
        EXPECT_EQ(UndoAddComplete(code, Act, static_cast<uintptr_t>(code), Rel), 1);
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
        UndoSysSetData(g_expectedSystemData = 0);
        g_calls.clear();
    }
};

TEST_F(UndoTest, NothingIsKeptUntilTheMaximumIsSet)
{
    EXPECT_EQ(UndoSysGetMax(), 0);
    AddAll({3});
    EXPECT_EQ(UndoNumUndo() + RecordCount(), 0);
    EXPECT_EQ(g_calls, (Calls{"r3:3"})) << "released at once";
    g_calls.clear();
    UndoSysSetMax(-1);
    UndoSysSetData(g_expectedSystemData = 77);
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
    AddAll({1, 2});
    UndoSysUndo();
    UndoSysUndo();
    g_calls.clear();
    UndoBlockBegin();
    EXPECT_EQ(g_calls, (Calls{"r2:2", "r1:1"})) << "beginning a block drops both redo steps, newest first";
    AddAll({3});
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
    AddAll({1});
    UndoBlockBegin();
    AddAll({2});
    UndoBlockBegin();
    AddAll({3, 4});
    UndoAddPending(5, Act, 5, Rel);
    g_calls.clear();
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

TEST_F(UndoTest, RewritingOnlyWhileAnActionRunsAndNestingMergesPastTwelve)
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
    UndoSysClear();
    EXPECT_EQ(g_calls, (Calls{"r8:80"}));
    // Levels beyond the twelfth merge into it.
    for (int i = 0; i < 15; ++i)
        UndoBlockBegin();
    EXPECT_EQ(OpenDepth(), 15);
    AddAll({1});
    UndoBlockAbort();  // a merged level: removes nothing
    EXPECT_EQ(RecordCount(), 1);
    AddAll({2});
    for (int i = 0; i < 14; ++i)
        EXPECT_EQ(UndoBlockEnd(), 1);
    EXPECT_EQ(UndoNumUndo(), 1);
    EXPECT_EQ(RecordCount(), 4);
}

struct Shape { int32_t undo, redo, records, depth, spares; size_t calls; bool operator==(const Shape &) const = default; };

Shape Now() { return {UndoNumUndo(), UndoNumRedo(), RecordCount(), OpenDepth(), vx::undo::SpareCount(), g_calls.size()}; }

// A history of two undo steps and one redo step (so that a failed add must also leave the
// redo step alone), with no spare records; or with one spare and the redo step dropped (a
// record taken from the spares must go back to them when the markers cannot be made).
// An operation that ends a block first gets two adds in it.
void BuildHistory(bool inBlock, bool oneSpare, bool endsBlock)
{
    g_calls.clear();
    UndoSysSetMax(5);
    AddAll({1, 2, 3});
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
    if (endsBlock)
        AddAll({7, 8});
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
                                 BuildHistory(c.inBlock, c.oneSpare, c.op == 2);
                                 before = Now();
                             },
                             [&] { return (c.op == 2 ? UndoBlockEnd() : (c.op ? UndoAddPending : UndoAddComplete)(9, Act, 9, Rel)) == 1; },
                             [&] {
                                 EXPECT_EQ(Now(), before);
                                 EXPECT_EQ(CheckStructure(), nullptr);
                             },
                             [] {
                                 while (OpenDepth())
                                     UndoBlockAbort();
                                 UndoSysShutdown();
                             }});
    }
}

// The model: a small text document edited, undone and redone. Each record carries a heap token
// with its edit (an insertion or erasure of a few letters); its action performs the edit and then
// rewrites the record to perform the opposite next time, in one of three ways: a new code, a new
// action (one per direction), or new data (a fresh token; the old one is retired). The model
// replays the document and the steps by itself; the live-token registry catches a token released
// twice, used after release or never released.

enum Kind : int32_t { kInsert = 1, kErase = 2 };
Kind Opposite(int32_t kind) { return kind == kInsert ? kErase : kInsert; }

struct Edit { int32_t kind; size_t pos; std::string text; };
struct Token { Edit edit; bool blockData; };

std::string g_doc;
std::set<Token *> g_live;
int g_badTokens = 0;

Token *NewToken(const Edit &edit, bool blockData = false) { return *g_live.insert(new Token{edit, blockData}).first; }

Token *Live(uintptr_t data)
{
    auto *token = reinterpret_cast<Token *>(data);
    g_badTokens += !g_live.count(token);
    return g_live.count(token) ? token : nullptr;
}

void Retire(Token *token) { g_live.erase(token), delete token; }

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

void Replay(std::string &doc, const Edit &e) { Apply(doc, e.kind, e.pos, e.text); }
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
        Replay(g_doc, token->edit);
        Edit opposite = token->edit;
        opposite.kind = Opposite(opposite.kind);
        UndoNewData(reinterpret_cast<uintptr_t>(NewToken(opposite)), ReleaseToken);
        Retire(token);
    }
}

struct Step { std::vector<Edit> edits; Token *blockData = nullptr; };  // edits in the order performed forwards

class DocumentModel {
public:
    explicit DocumentModel(uint32_t seed) : rng_(seed) { g_doc = doc_ = "undo"; }

    void Operate()
    {
        RandomOperation();
        Check();
    }

private:
    int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

    void RandomOperation()
    {
        static constexpr int32_t kMaxima[] = {-1, 0, 1, 2, 3, 5, 8, 8, 8};
        switch (Pick(10)) {
        case 0: case 1: if (!pendingQueued_) Work(true, doc_); break;  // never behind queued pending steps
        case 2: PendingWork(); break;
        case 3: case 4: Undo(); break;
        case 5: case 6: Redo(); break;
        case 7: UndoSysSetMax(maximum_ = kMaxima[Pick(9)]), Trim(true); break;
        case 8: SetBlockData(); break;
        default:
            if (Pick(4))
                UndoSysSetData(g_expectedSystemData = static_cast<uintptr_t>(Pick(1000)));
            else
                UndoSysClear(), undo_.clear(), redo_.clear(), pendingQueued_ = false;
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

    // Makes a random edit of `work` (the document itself for complete work, a projection for
    // pending work) and records it: a complete record first performs its opposite, a pending
    // one performs it.
    Edit AddEdit(std::string &work, bool complete)
    {
        Edit e{kInsert, static_cast<size_t>(Pick(static_cast<int>(work.size()) + 1)), ""};
        if (!work.empty() && Pick(2)) {
            e.kind = kErase;
            e.pos = static_cast<size_t>(Pick(static_cast<int>(work.size())));
            e.text = work.substr(e.pos, static_cast<size_t>(1 + Pick(std::min<int>(3, static_cast<int>(work.size() - e.pos)))));
        } else {
            for (int n = 1 + Pick(3); n > 0; --n)
                e.text += static_cast<char>('a' + (letter_++ % 26));
        }
        Perform(work, complete, e, false);
        Edit first = e;
        first.kind = complete ? Opposite(e.kind) : e.kind;
        const auto data = reinterpret_cast<uintptr_t>(NewToken(first));
        auto add = complete ? UndoAddComplete : UndoAddPending;
        UndoAction *const ways[] = {ByCode, first.kind == kInsert ? DirectedAction<kInsert> : DirectedAction<kErase>, BySwap};
        const int way = Pick(3);  // only the code-driven record carries its kind as the code
        EXPECT_EQ(add(way ? 0 : first.kind, ways[way], data, ReleaseToken), 1);
        return e;
    }

    // The application performs a complete change itself.
    static void Perform(std::string &work, bool complete, const Edit &e, bool revert)
    {
        (revert ? Revert : Replay)(work, e);
        if (complete)
            (revert ? Revert : Replay)(g_doc, e);
    }

    // One block of edits, some in nested blocks; a block ends or aborts. Returns the edits
    // that stayed, in order.
    std::vector<Edit> Block(bool complete, std::string &work, int depth)
    {
        UndoBlockBegin();
        std::vector<Edit> kept;
        for (int n = Pick(4); n > 0; --n) {
            if (depth < 3 && Pick(4) == 0) {
                const std::vector<Edit> inner = Block(complete, work, depth + 1);
                kept.insert(kept.end(), inner.begin(), inner.end());
            } else {
                kept.push_back(AddEdit(work, complete));
            }
        }
        if (Pick(depth == 1 ? 5 : 3) == 0) {
            UndoBlockAbort();
            for (auto it = kept.rbegin(); it != kept.rend(); ++it)
                Perform(work, complete, *it, true);
            return {};
        }
        EXPECT_EQ(UndoBlockEnd(), 1);
        return kept;
    }

    // A lone add or a block; new work drops the redo steps unless pending steps wait there.
    void Work(bool complete, std::string &work)
    {
        if (!pendingQueued_)
            redo_.clear();
        std::vector<Edit> edits = Pick(3) ? Block(complete, work, 1) : std::vector<Edit>{AddEdit(work, complete)};
        if (edits.empty())
            return;
        if (complete)
            undo_.push_back({std::move(edits)});
        else
            redo_.push_back({std::move(edits)}), pendingQueued_ = true;
        Trim(false);
    }

    void PendingWork()
    {
        std::string projection = doc_;
        for (const Step &s : redo_)
            for (const Edit &e : s.edits)
                if (pendingQueued_)
                    Replay(projection, e);
        Work(false, projection);
    }

    void Undo()
    {
        ASSERT_EQ(UndoSysUndo(), undo_.empty() ? 0 : 1);
        if (undo_.empty())
            return;
        for (auto it = undo_.back().edits.rbegin(); it != undo_.back().edits.rend(); ++it)
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
            Replay(doc_, e);
        undo_.push_back(std::move(redo_.front()));
        redo_.pop_front();
        pendingQueued_ = pendingQueued_ && !redo_.empty();
    }

    // The oldest undo steps go first, then (for a new maximum) the last redo steps.
    void Trim(bool redoToo)
    {
        const auto over = [&] { return maximum_ != -1 && static_cast<int32_t>(undo_.size() + redo_.size()) > maximum_; };
        while (!undo_.empty() && over())
            undo_.erase(undo_.begin());
        while (redoToo && !redo_.empty() && over())
            redo_.pop_back();
        pendingQueued_ = pendingQueued_ && !redo_.empty();
    }

    void SetBlockData()
    {
        const int32_t which = Pick(2) ? 1 : -1;
        Step *step = which == 1 ? (redo_.empty() ? nullptr : &redo_.front()) : (undo_.empty() ? nullptr : &undo_.back());
        Token *token = NewToken({}, true);
        ASSERT_EQ(UndoBlockSetData(which, reinterpret_cast<uintptr_t>(token), ReleaseToken) != nullptr, step != nullptr);
        if (!step)
            return Retire(token);
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
        UndoSysSetData(g_expectedSystemData = 0);
        UndoSysSetMax(8);
        DocumentModel model(seed);
        for (int i = 0; i < 300 && !HasFailure(); ++i)
            model.Operate();
        UndoSysShutdown();
        EXPECT_TRUE(g_live.empty()) << g_live.size() << " tokens never released";
        EXPECT_EQ(g_badTokens, 0) << "tokens used or released after their release";
        EXPECT_EQ(heap.LiveBytes(), 0u);
    }
    EXPECT_EQ(heap.BadFrees(), 0);
}

}  // namespace
