// Action tables: definitions keyed by code in a key table, dispatched with optional hooks and,
// from dispatch level 1 on, inside a checkpoint block of their own.
#include <vxtools3/actions.h>
#include <vxtools3/ckpt.h>
#include <vxtools3/containers.h>
#include <vxtools3/memory.h>

#include <atomic>
#include <cstring>

struct ActionTable {
    KTable *keys;
    uintptr_t argument;
};

namespace {

constexpr int kAbortCode = 4;

std::atomic<int> g_dispatchLevel{0};

void DestroyKeysArm(uintptr_t keys, uintptr_t) { KTableDestroy(reinterpret_cast<KTable *>(keys)); }

ActionTable *BuildTable(uintptr_t argument)
{
    auto *table = static_cast<ActionTable *>(StdAlloc(sizeof(ActionTable)));
    CkptArm(StdFreeArm, reinterpret_cast<uintptr_t>(table), sizeof(ActionTable));
    table->keys = KTableCreate();
    CkptArm(DestroyKeysArm, reinterpret_cast<uintptr_t>(table->keys), 0);
    table->argument = argument;
    return table;
}

// Adds the table's entries and then the list's definitions (codes already present keep their
// entry) to a new key table. Runs inside the caller's block, raising when memory runs out, so
// that a failure leaves the table's own key table untouched.
KTable *MergedKeys(const KTable *keys, const ActionDef *list)
{
    KTable *merged = KTableCreate();
    CkptArm(DestroyKeysArm, reinterpret_cast<uintptr_t>(merged), 0);
    BTPos pos;
    for (void *stored = BTFirst(keys, &pos); stored; stored = BTNext(keys, &pos)) {
        uintptr_t pair[2];
        std::memcpy(pair, stored, sizeof pair);
        KTableAdd(merged, pair[0], reinterpret_cast<void *>(pair[1]));
    }
    for (const ActionDef *definition = list; definition->code; ++definition)
        KTableAdd(merged, definition->code, const_cast<ActionDef *>(definition));
    return merged;
}

}  // namespace

extern "C" {

VX_API ActionTable *ActionTableCreate(uintptr_t argument)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    ActionTable *table = BuildTable(argument);
    CkptEnd();
    return table;
}

VX_API void ActionTableDestroy(ActionTable *table)
{
    if (!table)
        return;
    KTableDestroy(table->keys);
    FreeHeap(table, sizeof(ActionTable));
}

VX_API int ActionTableAddList(ActionTable *table, const ActionDef *list)
{
    CKPT_BEGIN_OR_RETURN(0);
    KTable *merged = MergedKeys(table->keys, list);
    CkptEnd();
    KTableDestroy(table->keys);
    table->keys = merged;
    return 1;
}

VX_API int ActionTableRemList(ActionTable *table, const ActionDef *list)
{
    int removed = 0;
    for (const ActionDef *definition = list; definition->code; ++definition) {
        if (KTableFind(table->keys, definition->code) == definition) {
            KTableRem(table->keys, definition->code);
            ++removed;
        }
    }
    return removed;
}

VX_API int ActionTableDispatch(const ActionTable *table, uint16_t code)
{
    if (code == 0)
        return ACTION_NO_CODE;
    const auto *definition = static_cast<const ActionDef *>(KTableFind(table->keys, code));
    if (!definition)
        return ACTION_UNDEFINED;
    return ActionDefDispatch(definition, table->argument);
}

VX_API int ActionListDispatch(const ActionDef *list, uint16_t code, uintptr_t argument)
{
    if (code == 0)
        return ACTION_NO_CODE;
    for (const ActionDef *definition = list; definition->code; ++definition)
        if (definition->code == code)
            return ActionDefDispatch(definition, argument);
    return ACTION_UNDEFINED;
}

VX_API int ActionDefDispatch(const ActionDef *definition, uintptr_t argument)
{
    if (!definition->function)
        return ACTION_NO_FUNCTION;
    const ActionHooks *hooks = definition->hooks;
    if (hooks && hooks->pre && hooks->pre(hooks, argument))
        return ACTION_REFUSED;
    if (g_dispatchLevel.load(std::memory_order_relaxed) == 0) {
        definition->function(argument, definition->code);
    } else {
        if (CkptBegin()) {
            // The action failed; its block is closed and the recover hook has run.
            if (g_dispatchLevel.load(std::memory_order_relaxed) > 1)
                CkptPropogate();  // does not come back while an outer block is open
            return CkptLatchCode() == kAbortCode ? ACTION_ABORTED : ACTION_FAILED;
        }
        if (hooks && hooks->recover)
            CkptArm(hooks->recover, reinterpret_cast<uintptr_t>(hooks), argument);
        definition->function(argument, definition->code);
        CkptEnd();
    }
    if (hooks && hooks->post)
        hooks->post(hooks, argument);
    return ACTION_DONE;
}

VX_API uint16_t CharTagFindTag(const CharTag *table, uint16_t character)
{
    for (const CharTag *pair = table; pair->character && pair->tag; ++pair)
        if (pair->character == character)
            return pair->tag;
    return 0;
}

VX_API int CharTagDispatch(const CharTag *table, const ActionDef *list, uint16_t character, uintptr_t argument)
{
    const uint16_t tag = CharTagFindTag(table, character);
    if (!tag)
        return ACTION_NO_TAG;
    return ActionListDispatch(list, tag, argument);
}

VX_API int ActionCkptSetLevel(int level) { return g_dispatchLevel.exchange(level); }

}  // extern "C"
