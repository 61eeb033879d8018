/* The containers seen from inside: a B-tree printed level by level as keys go in and out, a
 * block zone's chunk statistics as records come and go, and an action table dispatching codes
 * through its hooks, one action failing. */
#include <vxtools3.h>

#include <stdio.h>
#include <string.h>

static FILE *g_out;

static uintptr_t KeyAt(const void *stored)
{
    uintptr_t key;
    memcpy(&key, stored, sizeof key); /* keys are stored as bytes, not necessarily aligned */
    return key;
}

static int CompareWord(uintptr_t key, const void *stored)
{
    uintptr_t s = KeyAt(stored);
    return key < s ? -1 : key > s ? 1 : 0;
}

static void PrintNode(const BTNode *node, int depth)
{
    fprintf(g_out, "  %*s[", depth * 4, "");
    for (int32_t i = 0; i < node->count; ++i)
        fprintf(g_out, i ? " %lu" : "%lu", (unsigned long)KeyAt(node->keys + (size_t)i * sizeof(uintptr_t)));
    fprintf(g_out, "]\n");
    for (int32_t i = 0; node->children[0] && i <= node->count; ++i)
        PrintNode(node->children[i], depth + 1);
}

static int BTreeLevels(void)
{
    static const uintptr_t keys[] = {50, 20, 80, 10, 30, 60, 90, 70, 40, 25, 35, 85, 15};
    BTree *tree = BTCreate(2, sizeof(uintptr_t), CompareWord);
    BTPos pos;
    int ok = tree != NULL;
    for (size_t i = 0; ok && i < sizeof keys / sizeof keys[0]; ++i)
        if (!BTSearch(tree, keys[i], &pos)) /* a miss leaves `pos` where the key belongs */
            ok &= BTInsert(tree, &keys[i], &pos);
    if (!ok)
        return 0;
    fprintf(g_out, "B-tree of order 2 (2 to 4 keys a node) after inserting 13 keys:\n");
    PrintNode(BTRoot(tree), 0);
    BTSearch(tree, 50, &pos);
    BTDelete(tree, &pos);
    BTSearch(tree, 60, &pos);
    BTDelete(tree, &pos);
    fprintf(g_out, "after deleting 50 and 60:\n");
    PrintNode(BTRoot(tree), 0);
    fprintf(g_out, "in order:");
    for (void *k = BTFirst(tree, &pos); k; k = BTNext(tree, &pos))
        fprintf(g_out, " %lu", (unsigned long)KeyAt(k));
    ok = BTValidate(tree, NULL) == 11;
    fprintf(g_out, "\nBTValidate: %d keys, every invariant holds\n", (int)BTValidate(tree, NULL));
    BTDestroy(tree);
    return ok;
}

static void PrintStats(const char *when, const BZone *zone)
{
    BZStatistics s;
    BZStats(zone, &s);
    fprintf(g_out, "  %-28s chunks %4d  live %5d  free slots %5d  chunk bytes %7zu\n", when, s.chunkCount,
            s.liveCount, s.freeCount, s.chunkBytes);
}

static int ZoneStatistics(void)
{
    enum { kCount = 5000 };
    static void *elems[kCount];
    BZone *zone = BZCreate(30);
    BZStatistics s;
    if (!zone)
        return 0;
    BZStats(zone, &s);
    fprintf(g_out, "block zone for 30-byte records: %d-byte elements, %d per chunk\n", s.elemSize, s.perChunk);
    for (int i = 0; i < kCount; ++i)
        elems[i] = BZAlloc(zone);
    PrintStats("5000 allocated:", zone);
    for (int i = 0; i < kCount; ++i)
        if (i % 4 != 0)
            BZFree(zone, elems[i]);
    PrintStats("every 4th kept:", zone);
    for (int i = kCount / 2; i < kCount; i += 4)
        BZFree(zone, elems[i]);
    PrintStats("second half freed:", zone);
    int ok = ((unsigned char *)elems[1])[0] == 0xBB; /* freed elements are filled with 0xBB */
    fprintf(g_out, "  a freed element reads 0x%02X (use after free shows)\n", ((unsigned char *)elems[1])[0]);
    for (int i = 0; i < 3750; ++i)
        BZAlloc(zone);
    PrintStats("3750 allocated again:", zone);
    ok &= BZValidate(zone) == 625 + 3750;
    BZDestroy(zone);
    return ok;
}

/* The actions and the hooks around them say what they do. */
static void Say(uintptr_t argument, uint16_t code) { fprintf(g_out, "    action %u runs for \"%s\"\n", code, (const char *)argument); }
static void Post(const ActionHooks *hooks, uintptr_t argument) { (void)hooks, (void)argument, fputs("    post-hook\n", g_out); }
static void Recover(uintptr_t hooks, uintptr_t argument) { (void)hooks, (void)argument, fputs("    recover hook: undoing the failed action\n", g_out); }

static int Pre(const ActionHooks *hooks, uintptr_t argument)
{
    (void)hooks, (void)argument;
    fputs("    pre-hook: allowed\n", g_out);
    return 0; /* non-zero refuses the action */
}

static void Explode(uintptr_t argument, uint16_t code)
{
    (void)argument;
    fprintf(g_out, "    action %u fails with code 2\n", code);
    CkptRecover(2); /* raises to the dispatcher's checkpoint block */
}

static const ActionHooks kHooks = {Pre, Post, Recover};

static int ActionDispatch(void)
{
    static const ActionDef list[] = {{1, Say, &kHooks}, {2, Explode, &kHooks}, {3, NULL, NULL}, {0, NULL, NULL}};
    static const int expected[] = {1, 0, 5, 7, 2}; /* the dispatch results of codes 0 ... 4 */
    ActionTable *table = ActionTableCreate((uintptr_t) "scene");
    if (!table)
        return 0;
    int ok = ActionTableAddList(table, list);
    int previous = ActionCkptSetLevel(1); /* the dispatcher catches failures raised at level 1 */
    fprintf(g_out, "action table (dispatch level 1):\n");
    for (uint16_t code = 0; code <= 4; ++code) {
        fprintf(g_out, "  dispatch %u\n", code);
        int r = ActionTableDispatch(table, code);
        fprintf(g_out, "    result %d\n", r);
        ok &= r == expected[code];
    }
    ActionCkptSetLevel(previous);
    ActionTableDestroy(table);
    return ok;
}

int btree_zone_actions_sample(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    g_out = out;
    int ok = BTreeLevels();
    fprintf(out, "\n");
    ok &= ZoneStatistics();
    fprintf(out, "\n");
    return ActionDispatch() && ok;
}

#ifndef VX_SAMPLE_NO_MAIN
int main(void) { return btree_zone_actions_sample(stdout, ".") ? 0 : 1; }
#endif
