/* A one-line document typed into, undone and redone under a history of three steps. Each
 * record's action performs what its code says and then flips the code, so one record serves
 * both directions. */
#include <vxtools3.h>

#include <stdio.h>
#include <string.h>

enum { EDIT_INSERT = 1, EDIT_ERASE = 2 };

typedef struct Edit { size_t pos; const char *text; } Edit;

static FILE *g_out;
static char g_doc[128];
static int g_ok, g_released;

static void DocInsert(size_t pos, const char *text)
{
    size_t length = strlen(text);
    memmove(g_doc + pos + length, g_doc + pos, strlen(g_doc + pos) + 1);
    memcpy(g_doc + pos, text, length);
}

static void EditAction(uintptr_t system, int32_t code, uintptr_t data)
{
    const Edit *edit = (const Edit *)data;
    (void)system;
    size_t end = edit->pos + strlen(edit->text);
    if (code == EDIT_INSERT)
        DocInsert(edit->pos, edit->text);
    else
        memmove(g_doc + edit->pos, g_doc + end, strlen(g_doc + end) + 1);
    UndoNewCode(code == EDIT_INSERT ? EDIT_ERASE : EDIT_INSERT);
}

static void ReleaseEdit(uintptr_t system, int32_t code, uintptr_t data)
{
    (void)system, (void)code;
    fprintf(g_out, "    (history dropped the record for \"%s\")\n", ((const Edit *)data)->text);
    ++g_released;
}

/* The application types: it changes the document, then records how to take the change back. */
static void Type(const Edit *edit)
{
    DocInsert(edit->pos, edit->text);
    g_ok &= UndoAddComplete(EDIT_ERASE, EditAction, (uintptr_t)edit, ReleaseEdit);
}

static void Show(const char *what, const char *expected)
{
    int same = strcmp(g_doc, expected) == 0;
    fprintf(g_out, "  %-37s \"%s\"  undo %d, redo %d%s\n", what, g_doc, UndoNumUndo(), UndoNumRedo(),
            same ? "" : "  <-- WRONG");
    g_ok &= same;
}

int undo_edits_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    static const Edit hello = {0, "Hello"}, comma = {5, ", "}, world = {7, "world"}, bang = {12, "!"},
                      query = {12, "?"}, smile = {13, " :)"};
    g_out = out;
    g_ok = 1;
    UndoSysSetMax(3); /* the history keeps nothing until a maximum is set */
    fprintf(out, "Undo history (at most %d steps) over a one-line document:\n", UndoSysGetMax());
    Type(&hello);
    Show("type \"Hello\"", "Hello");
    UndoBlockBegin(); /* one step, however many records it gets */
    Type(&comma);
    Type(&world);
    UndoBlockEnd();
    Show("type \", \" and \"world\" as one step", "Hello, world");
    Type(&bang);
    Show("type \"!\"", "Hello, world!");
    UndoSysUndo();
    Show("undo", "Hello, world");
    UndoSysUndo();
    Show("undo (both records of the block)", "Hello");
    UndoSysRedo();
    Show("redo", "Hello, world");
    Type(&query);
    Show("type \"?\": the redo step is gone", "Hello, world?");
    Type(&smile);
    Show("type \" :)\": the oldest step is gone", "Hello, world? :)");
    while (UndoSysUndo()) {
    }
    Show("undo all that is kept", "Hello");
    UndoSysShutdown();
    fprintf(out, "  shut down: %d records released in all\n", g_released);
    return g_ok && g_released == 6 && UndoNumUndo() == 0 && UndoNumRedo() == 0;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return undo_edits_sample(stdout, ".") ? 0 : 1; }
#endif
