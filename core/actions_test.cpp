#include <vxtools3/actions.h>
#include <vxtools3/ckpt.h>

#include "testkit/oom_sweep.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> g_events;

void Act(uintptr_t argument, uint16_t code)
{
    g_events.push_back("act " + std::to_string(argument) + " " + std::to_string(code));
}

// Raises the failure code given as the argument; goes on only when no block is open.
void Fail(uintptr_t argument, uint16_t)
{
    g_events.push_back("fail");
    CkptRecover(static_cast<int>(argument));
    g_events.push_back("went on");
}

int Pre(const ActionHooks *, uintptr_t) { return g_events.push_back("pre"), 0; }
int Refuse(const ActionHooks *, uintptr_t) { return g_events.push_back("refuse"), 1; }
void Post(const ActionHooks *, uintptr_t) { g_events.push_back("post"); }

const ActionHooks *g_recoveredHooks;
void Recover(uintptr_t hooks, uintptr_t argument)
{
    g_recoveredHooks = reinterpret_cast<const ActionHooks *>(hooks);
    g_events.push_back("recover " + std::to_string(argument));
}
const ActionHooks kAllHooks = {Pre, Post, Recover};
const ActionHooks kRefusing = {Refuse, Post, Recover};

class Actions : public ::testing::Test {
protected:
    void SetUp() override { g_events.clear(); }
    void TearDown() override
    {
        ActionCkptSetLevel(0);
        EXPECT_EQ(CkptLevel(), -1);
        CkptLatchCode();
    }
};

using Events = std::vector<std::string>;

TEST_F(Actions, ListsTablesAndCharacterTags)
{
    const ActionDef list[] = {{3, Act, nullptr}, {4, Act, &kRefusing}, {11, Act, nullptr}, {3, Fail, nullptr},
                              {6, nullptr, &kRefusing}, {0, nullptr, nullptr}};
    const CharTag tags[] = {{'x', 3}, {'y', 11}, {'x', 11}, {'z', 0}, {'w', 11}, {0, 0}};
    ActionCkptSetLevel(1);
    EXPECT_EQ(ActionListDispatch(nullptr, 0, 9), ACTION_NO_CODE) << "code 0 reads no list";
    EXPECT_EQ(ActionListDispatch(list, 8, 9), ACTION_UNDEFINED);
    EXPECT_EQ(ActionListDispatch(list, 4, 9), ACTION_REFUSED);
    EXPECT_EQ(ActionListDispatch(list, 6, 9), ACTION_NO_FUNCTION);
    EXPECT_EQ(g_events, (Events{"refuse"})) << "no hook runs for a definition without a function";
    EXPECT_EQ(CharTagFindTag(tags, 'x'), 3) << "the first pair wins";
    EXPECT_EQ(CharTagFindTag(tags, 'w'), 0) << "a pair with tag 0 ends the search";
    EXPECT_EQ(CharTagFindTag(tags, 'q'), 0);
    EXPECT_EQ(CharTagDispatch(tags, list, 'q', 9), ACTION_NO_TAG);
    g_events.clear();
    EXPECT_EQ(CharTagDispatch(tags, list, 'y', 4), ACTION_DONE);
    EXPECT_EQ(CharTagDispatch(tags, list, 'x', 2), ACTION_DONE) << "the first definition of a code";
    EXPECT_EQ(g_events, (Events{"act 4 11", "act 2 3"}));
    const CharTag blocked[] = {{'x', 0}, {'x', 3}, {0, 0}};
    EXPECT_EQ(CharTagDispatch(blocked, list, 'x', 4), ACTION_NO_TAG);

    // Tables: definitions keyed by code, the first one added for a code holding.
    g_events.clear();
    const ActionDef first[] = {{1, Act, nullptr}, {2, Act, nullptr}, {0, nullptr, nullptr}};
    const ActionDef second[] = {{2, Fail, nullptr}, {3, Act, nullptr}, {0, nullptr, nullptr}};
    ActionTable *table = ActionTableCreate(77);
    EXPECT_EQ(ActionTableDispatch(table, 1), ACTION_UNDEFINED);
    EXPECT_EQ(ActionTableAddList(table, first), 1);
    EXPECT_EQ(ActionTableAddList(table, second), 1);
    EXPECT_EQ(ActionTableDispatch(table, 0), ACTION_NO_CODE);
    EXPECT_EQ(ActionTableDispatch(table, 2), ACTION_DONE);
    EXPECT_EQ(ActionTableDispatch(table, 3), ACTION_DONE);
    EXPECT_EQ(g_events, (Events{"act 77 2", "act 77 3"})) << "the earlier definition of 2 holds";
    EXPECT_EQ(ActionTableRemList(table, second), 1) << "only code 3 was second's";
    EXPECT_EQ(ActionTableDispatch(table, 3), ACTION_UNDEFINED);
    EXPECT_EQ(ActionTableDispatch(table, 2), ACTION_DONE);
    EXPECT_EQ(ActionTableRemList(table, first), 2);
    EXPECT_EQ(ActionTableDispatch(table, 1), ACTION_UNDEFINED);
    ActionTableDestroy(table);
    ActionTableDestroy(nullptr);
}

// Dispatches inside a block of the caller's own: the result, or -1 when the failure reached
// that block (noted as "caller resumed").
int DispatchInBlock(const ActionDef *def, uintptr_t argument)
{
    int result = -1;
    if (vxtest::UnwoundFrom([&] { result = ActionDefDispatch(def, argument); }))
        g_events.push_back("caller resumed");
    return result;
}

// The hooks around an action, and where a failing action's failure goes at each dispatch level.
TEST_F(Actions, HooksAndFailuresByDispatchLevel)
{
    const ActionDef act = {12, Act, &kAllHooks}, refused = {12, Act, &kRefusing}, fail = {1, Fail, &kAllHooks};
    struct Case {
        int level;
        const ActionDef *def;
        bool inBlock;  // dispatched inside a block of the caller's own
        uintptr_t argument;
        int result, latched;  // the result, and the code left latched afterwards
        Events events;
    };
    const Case cases[] = {
        {0, &act, false, 5, ACTION_DONE, 0, {"pre", "act 5 12", "post"}},
        {1, &act, false, 5, ACTION_DONE, 0, {"pre", "act 5 12", "post"}},
        {2, &act, true, 5, ACTION_DONE, 0, {"pre", "act 5 12", "post"}},
        {1, &refused, false, 5, ACTION_REFUSED, 0, {"refuse"}},
        // Level 0: no block of the dispatcher's own. With none open the raise returns and the
        // action goes on; with the caller's block open the failure goes straight to it.
        {0, &fail, false, 3, ACTION_DONE, 3, {"pre", "fail", "went on", "post"}},
        {0, &fail, true, 3, -1, 3, {"pre", "fail", "caller resumed"}},
        // Level 1: the failure stops at the dispatcher; recover runs, post does not.
        {1, &fail, false, 7, ACTION_FAILED, 0, {"pre", "fail", "recover 7"}},
        {1, &fail, true, 4, ACTION_ABORTED, 0, {"pre", "fail", "recover 4"}},
        // Level 2: handed outward to the caller's block, which sees the code; with no outer
        // block the dispatcher ends the failure itself.
        {2, &fail, true, 9, -1, 9, {"pre", "fail", "recover 9", "caller resumed"}},
        {2, &fail, false, 4, ACTION_ABORTED, 0, {"pre", "fail", "recover 4"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << "level " << c.level << ", argument " << c.argument);
        g_events.clear();
        ActionCkptSetLevel(c.level);
        EXPECT_EQ(c.inBlock ? DispatchInBlock(c.def, c.argument) : ActionDefDispatch(c.def, c.argument), c.result);
        EXPECT_EQ(g_events, c.events);
        EXPECT_EQ(CkptLatchCode(), c.latched);
    }
    EXPECT_EQ(g_recoveredHooks, &kAllHooks);
}

TEST(ActionsOom, CreateAndAddList)
{
    ActionTable *table = nullptr;
    vxtest::OomSweepAll({[&] { table = nullptr; }, [&] { return (table = ActionTableCreate(1)) != nullptr; },
                         [&] { EXPECT_EQ(table, nullptr); }, [&] { ActionTableDestroy(table); }});
    std::vector<ActionDef> early(7, ActionDef{0, nullptr, nullptr}), many(59, ActionDef{0, nullptr, nullptr});
    for (uint16_t i = 0; i < 58; ++i) {
        many[i] = {static_cast<uint16_t>(i + 3), Act, nullptr};  // codes 3 .. 60
        if (i < 6)
            early[i] = {static_cast<uint16_t>(i + 1), Act, nullptr};  // codes 1 .. 6
    }
    vxtest::OomSweepAll({
        [&] { ActionTableAddList(table = ActionTableCreate(1), early.data()); },
        [&] { return ActionTableAddList(table, many.data()) == 1; },
        [&] {
            EXPECT_EQ(ActionTableRemList(table, many.data()), 0) << "nothing of the failed list stayed";
            EXPECT_EQ(ActionTableRemList(table, early.data()), 6) << "the earlier list is all there";
        },
        [&] { ActionTableDestroy(table); },
    });
}

}  // namespace
