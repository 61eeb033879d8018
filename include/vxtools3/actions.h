/* vxtools3 — action tables: 16-bit action codes dispatched to handler functions.
 *
 * An action definition names a code, the function that performs it and optional hooks: a
 * pre-hook that may refuse the action, a post-hook run after it, and a recover hook armed as a
 * checkpoint action while it runs (see ckpt.h), so that it runs when the action fails.
 * Definitions come in lists ended by code 0. An action table keys the definitions of the lists
 * added to it by code and passes its own argument word to every action; a character-tag table
 * maps characters (for example keys) to codes.
 *
 * The dispatch level (ActionCkptSetLevel, 0 at load) says how an action runs: at level 0 it
 * is simply called, and a failure it raises goes to whatever checkpoint block the caller has
 * open; at level 1 it runs inside its own block and a failure becomes result 5 or 6; at level 2
 * and above the failure is handed on to the caller's open block after the recover hook ran
 * (and becomes result 5 or 6 when none is open). */
#ifndef VXTOOLS3_ACTIONS_H
#define VXTOOLS3_ACTIONS_H

#include "ckpt.h"
#include "common.h"

VX_BEGIN_DECLS

/* Results of the dispatchers. */
enum {
    ACTION_DONE = 0,        /* action performed */
    ACTION_NO_CODE = 1,     /* code 0 given: nothing to do */
    ACTION_UNDEFINED = 2,   /* no definition for the code */
    ACTION_NO_TAG = 3,      /* character not in the character-tag table */
    ACTION_REFUSED = 4,     /* refused by the pre-hook */
    ACTION_FAILED = 5,      /* the action failed, with a latched code other than 4 */
    ACTION_ABORTED = 6,     /* the action failed with latched code 4 (aborted) */
    ACTION_NO_FUNCTION = 7  /* the definition has no function */
};

typedef struct ActionHooks ActionHooks;

/* Performs an action: called as function(argument, code). */
typedef void ActionFunc(uintptr_t argument, uint16_t code);

/* Hooks of a definition; any may be NULL. A caller may embed this record at the start of a
 * larger one: each hook receives the hooks' address. */
struct ActionHooks {
    /* Called before the action; a non-zero result refuses it. */
    int (*pre)(const ActionHooks *hooks, uintptr_t argument);
    /* Called after the action completed. */
    void (*post)(const ActionHooks *hooks, uintptr_t argument);
    /* Armed while the action runs (levels 1 and above); called as recover((uintptr_t)hooks,
     * argument) when the action fails. */
    CkptAction *recover;
};

/* One action. A list of them ends with an entry whose code is 0. */
typedef struct ActionDef {
    uint16_t code;
    ActionFunc *function;
    const ActionHooks *hooks;
} ActionDef;

/* A character and its action code. A table of them ends with a pair whose character is 0; a
 * pair whose tag is 0 also ends the search. */
typedef struct CharTag {
    uint16_t character;
    uint16_t tag;
} CharTag;

typedef struct ActionTable ActionTable;

/* Returns a new, empty table whose actions receive `argument`; NULL when memory runs out. */
VX_API ActionTable *ActionTableCreate(uintptr_t argument);
/* Frees the table (not the lists added to it). NULL is ignored. */
VX_API void ActionTableDestroy(ActionTable *table);
/* Adds every definition of `list` (which must outlive its membership) under its code; a code
 * the table already holds keeps its earlier definition. Returns 1, or 0 when memory ran out
 * (the table is then unchanged). */
VX_API int ActionTableAddList(ActionTable *table, const ActionDef *list);
/* Removes the definitions of `list` from the table (a code defined by another list stays);
 * returns the number removed. */
VX_API int ActionTableRemList(ActionTable *table, const ActionDef *list);
/* Dispatches `code` through the table with the table's argument; returns a result above. */
VX_API int ActionTableDispatch(const ActionTable *table, uint16_t code);
/* Dispatches the first definition of `code` in `list` with `argument`; returns a result above. */
VX_API int ActionListDispatch(const ActionDef *list, uint16_t code, uintptr_t argument);
/* Runs one definition with `argument` (hooks, dispatch level); returns a result above. */
VX_API int ActionDefDispatch(const ActionDef *definition, uintptr_t argument);
/* Returns the tag of the first pair for `character`, or 0 when there is none. */
VX_API uint16_t CharTagFindTag(const CharTag *table, uint16_t character);
/* Dispatches the tag of `character` through `list`; 3 when the character has no tag. */
VX_API int CharTagDispatch(const CharTag *table, const ActionDef *list, uint16_t character, uintptr_t argument);
/* Sets the process-wide dispatch level (0 at load); returns the previous one. */
VX_API int ActionCkptSetLevel(int level);

VX_END_DECLS

#endif
