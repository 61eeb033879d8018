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
    void SetUp() override
    {
        g_events.clear();
        g_recoveredHooks = nullptr;
        ActionCkptSetLevel(0);
    }
    void TearDown() override
    {
        ActionCkptSetLevel(0);
        EXPECT_EQ(CkptLevel(), -1);
        CkptLatchCode();
    }
};

using Events = std::vector<std::string>;

TEST_F(Actions, EveryResultCode)
{
    const ActionDef list[] = {{3, Act, nullptr}, {4, Act, &kRefusing}, {5, Fail, nullptr},
                              {6, nullptr, &kRefusing}, {0, nullptr, nullptr}};
    const CharTag tags[] = {{'a', 3}, {0, 0}};
    ActionCkptSetLevel(1);
    EXPECT_EQ(ActionListDispatch(list, 3, 9), ACTION_DONE);
    EXPECT_EQ(ActionListDispatch(nullptr, 0, 9), ACTION_NO_CODE) << "code 0 reads no list";
    EXPECT_EQ(ActionListDispatch(list, 8, 9), ACTION_UNDEFINED);
    EXPECT_EQ(CharTagDispatch(tags, list, 'b', 9), ACTION_NO_TAG);
    EXPECT_EQ(ActionListDispatch(list, 4, 9), ACTION_REFUSED);
    g_events.clear();
    EXPECT_EQ(ActionListDispatch(list, 5, 2), ACTION_FAILED);
    EXPECT_EQ(ActionListDispatch(list, 5, 4), ACTION_ABORTED);
    EXPECT_EQ(ActionListDispatch(list, 6, 9), ACTION_NO_FUNCTION);
    EXPECT_EQ(g_events, (Events{"fail", "fail"})) << "no hook runs for a definition without a function";
    EXPECT_EQ(CkptLatchCode(), 0) << "the dispatcher read and cleared the code";
    EXPECT_EQ((int)ACTION_NO_FUNCTION, 7);
}

TEST_F(Actions, HooksRunAroundTheAction)
{
    const ActionDef def = {12, Act, &kAllHooks};
    for (int level : {0, 1, 2}) {
        g_events.clear();
        ActionCkptSetLevel(level);
        EXPECT_EQ(ActionDefDispatch(&def, 5), ACTION_DONE);
        EXPECT_EQ(g_events, (Events{"pre", "act 5 12", "post"})) << "level " << level;
    }
    const ActionDef refused = {12, Act, &kRefusing};
    g_events.clear();
    EXPECT_EQ(ActionDefDispatch(&refused, 5), ACTION_REFUSED);
    EXPECT_EQ(g_events, (Events{"refuse"}));
}

TEST_F(Actions, LevelZeroCallsTheActionPlainly)
{
    const ActionDef def = {1, Fail, &kAllHooks};
    // No block of the dispatcher's own: with none open the raise returns and the action goes on.
    EXPECT_EQ(ActionDefDispatch(&def, 3), ACTION_DONE);
    EXPECT_EQ(g_events, (Events{"pre", "fail", "went on", "post"}));
    // With the caller's block open the failure goes straight to it; the recover hook was
    // never armed.
    g_events.clear();
    volatile int result = -1;
    if (CkptBegin()) {
        g_events.push_back("caller resumed");
    } else {
        result = ActionDefDispatch(&def, 3);
        CkptEnd();
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(CkptLatchCode(), 3);
    EXPECT_EQ(g_events, (Events{"pre", "fail", "caller resumed"}));
}

TEST_F(Actions, LevelOneContainsTheFailure)
{
    const ActionDef def = {1, Fail, &kAllHooks};
    ActionCkptSetLevel(1);
    EXPECT_EQ(ActionDefDispatch(&def, 7), ACTION_FAILED);
    EXPECT_EQ(g_events, (Events{"pre", "fail", "recover 7"})) << "recover runs, post does not";
    EXPECT_EQ(g_recoveredHooks, &kAllHooks);
    // Inside the caller's block the failure still stops at the dispatcher.
    g_events.clear();
    volatile int result = -1;
    if (CkptBegin()) {
        g_events.push_back("caller resumed");
    } else {
        result = ActionDefDispatch(&def, 4);
        CkptEnd();
    }
    EXPECT_EQ(result, ACTION_ABORTED);
    EXPECT_EQ(g_events, (Events{"pre", "fail", "recover 4"}));
    EXPECT_EQ(CkptLatchCode(), 0);
}

TEST_F(Actions, LevelTwoHandsTheFailureOutward)
{
    const ActionDef def = {1, Fail, &kAllHooks};
    ActionCkptSetLevel(2);
    volatile int result = -1;
    if (CkptBegin()) {
        g_events.push_back("caller resumed");
    } else {
        result = ActionDefDispatch(&def, 9);
        CkptEnd();
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(g_events, (Events{"pre", "fail", "recover 9", "caller resumed"}));
    EXPECT_EQ(CkptLatchCode(), 9) << "the caller sees the code";
    // With no outer block the dispatcher ends the failure itself.
    g_events.clear();
    EXPECT_EQ(ActionDefDispatch(&def, 4), ACTION_ABORTED);
    EXPECT_EQ(g_events, (Events{"pre", "fail", "recover 4"}));
}

TEST_F(Actions, TablesKeyDefinitionsByCode)
{
    const ActionDef first[] = {{1, Act, nullptr}, {2, Act, nullptr}, {0, nullptr, nullptr}};
    const ActionDef second[] = {{2, Fail, nullptr}, {3, Act, nullptr}, {0, nullptr, nullptr}};
    ActionTable *table = ActionTableCreate(77);
    ASSERT_NE(table, nullptr);
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

TEST_F(Actions, CharacterTags)
{
    const ActionDef list[] = {{10, Act, nullptr}, {11, Act, nullptr}, {0, nullptr, nullptr}};
    const CharTag tags[] = {{'x', 10}, {'y', 11}, {'x', 11}, {'z', 0}, {'w', 11}, {0, 0}};
    EXPECT_EQ(CharTagFindTag(tags, 'x'), 10) << "the first pair wins";
    EXPECT_EQ(CharTagFindTag(tags, 'y'), 11);
    EXPECT_EQ(CharTagFindTag(tags, 'w'), 0) << "a pair with tag 0 ends the search";
    EXPECT_EQ(CharTagFindTag(tags, 'q'), 0);
    EXPECT_EQ(CharTagDispatch(tags, list, 'y', 4), ACTION_DONE);
    EXPECT_EQ(g_events, (Events{"act 4 11"}));
    const CharTag blocked[] = {{'x', 0}, {'x', 10}, {0, 0}};
    EXPECT_EQ(CharTagDispatch(blocked, list, 'x', 4), ACTION_NO_TAG);
}

TEST(ActionsOom, CreateAndAddList)
{
    ActionTable *table = nullptr;
    vxtest::OomSweepAll({
        [&] { table = nullptr; },
        [&] { return (table = ActionTableCreate(1)) != nullptr; },
        [&] { EXPECT_EQ(table, nullptr); },
        [&] { ActionTableDestroy(table); },
    });

    std::vector<ActionDef> early, many;
    for (uint16_t code = 1; code <= 6; ++code)
        early.push_back({code, Act, nullptr});
    early.push_back({0, nullptr, nullptr});
    for (uint16_t code = 3; code <= 60; ++code)
        many.push_back({code, Act, nullptr});
    many.push_back({0, nullptr, nullptr});
    vxtest::OomSweepAll({
        [&] {
            table = ActionTableCreate(1);
            ActionTableAddList(table, early.data());
        },
        [&] { return ActionTableAddList(table, many.data()) == 1; },
        [&] {
            EXPECT_EQ(ActionTableRemList(table, many.data()), 0) << "nothing of the failed list stayed";
            EXPECT_EQ(ActionTableRemList(table, early.data()), 6) << "the earlier list is all there";
        },
        [&] { ActionTableDestroy(table); },
    });
}

}  // namespace
