/* Demo of the containers: a B-tree built and printed, a block zone's chunk statistics, a
 * lookup map, and an action table dispatching codes with hooks and a failing action. */
#include <vxtools3.h>
#include "vxtool_c.h"

#include <stdio.h>
#include <string.h>

static FILE *g_out;

/* ---- A B-tree of order 2, printed level by level ---- */

static int CompareWord(uintptr_t key, const void *stored)
{
    uintptr_t s;
    memcpy(&s, stored, sizeof s);
    return key < s ? -1 : key > s ? 1 : 0;
}

static void PrintNode(const BTNode *node, int depth)
{
    int32_t i;
    fprintf(g_out, "  %*s[", depth * 4, "");
    for (i = 0; i < node->count; ++i) {
        uintptr_t key;
        memcpy(&key, node->keys + (size_t)i * sizeof key, sizeof key);
        fprintf(g_out, i ? " %lu" : "%lu", (unsigned long)key);
    }
    fprintf(g_out, "]\n");
    if (node->children[0])
        for (i = 0; i <= node->count; ++i)
            PrintNode(node->children[i], depth + 1);
}

static int DemoBTree(void)
{
    static const uintptr_t keys[] = {50, 20, 80, 10, 30, 60, 90, 70, 40, 25, 35, 85, 15};
    BTree *tree = BTCreate(2, sizeof(uintptr_t), CompareWord);
    BTPos pos;
    size_t i;
    int ok = tree != NULL;
    if (!ok)
        return 0;
    for (i = 0; i < sizeof keys / sizeof keys[0]; ++i) {
        if (!BTSearch(tree, keys[i], &pos))
            ok &= BTInsert(tree, &keys[i], &pos);
    }
    fprintf(g_out, "B-tree of order 2 (2 to 4 keys a node) after inserting 13 keys:\n");
    PrintNode(BTRoot(tree), 0);
    BTSearch(tree, 50, &pos);
    BTDelete(tree, &pos);
    BTSearch(tree, 60, &pos);
    BTDelete(tree, &pos);
    fprintf(g_out, "after deleting 50 and 60:\n");
    PrintNode(BTRoot(tree), 0);
    fprintf(g_out, "in order:");
    for (void *k = BTFirst(tree, &pos); k; k = BTNext(tree, &pos)) {
        uintptr_t key;
        memcpy(&key, k, sizeof key);
        fprintf(g_out, " %lu", (unsigned long)key);
    }
    ok &= BTValidate(tree, NULL) == 11;
    fprintf(g_out, "\nBTValidate: %d keys, every invariant holds\n", (int)BTValidate(tree, NULL));
    BTDestroy(tree);
    return ok;
}

/* ---- A block zone's chunks ---- */

static void PrintStats(const char *when, const BZone *zone)
{
    BZStatistics s;
    BZStats(zone, &s);
    fprintf(g_out, "  %-28s chunks %4d  live %5d  free slots %5d  chunk bytes %7zu\n", when, s.chunkCount,
            s.liveCount, s.freeCount, s.chunkBytes);
}

static int DemoZone(void)
{
    enum { kCount = 5000 };
    static void *elems[kCount];
    BZone *zone = BZCreate(30);
    BZStatistics s;
    int i, ok;
    if (!zone)
        return 0;
    BZStats(zone, &s);
    fprintf(g_out, "block zone for 30-byte records: %d-byte elements, %d per chunk\n", s.elemSize, s.perChunk);
    for (i = 0; i < kCount; ++i)
        elems[i] = BZAlloc(zone);
    PrintStats("5000 allocated:", zone);
    for (i = 0; i < kCount; ++i)
        if (i % 4 != 0)
            BZFree(zone, elems[i]);
    PrintStats("every 4th kept:", zone);
    for (i = 0; i < kCount; ++i)
        if (i % 4 == 0 && i >= kCount / 2)
            BZFree(zone, elems[i]);
    PrintStats("second half freed:", zone);
    ok = ((unsigned char *)elems[1])[0] == 0xBB;
    fprintf(g_out, "  a freed element reads 0x%02X (use after free shows)\n", ((unsigned char *)elems[1])[0]);
    for (i = 0; i < 3750; ++i)
        BZAlloc(zone);
    PrintStats("3750 allocated again:", zone);
    ok &= BZValidate(zone) == 625 + 3750;
    BZDestroy(zone);
    return ok;
}

/* ---- A lookup map ---- */

static int DemoMap(void)
{
    LMap *map = LMapCreate(4);
    uintptr_t value = 0;
    int ok;
    if (!map)
        return 0;
    ok = LMapSet(map, 7, 700) == 1;
    ok &= LMapSet(map, 7, 777) == 0;
    ok &= LMapGet(map, 7, &value) == 1 && value == 777;
    fprintf(g_out, "lookup map: set 7 -> 700, then 7 -> 777 (returns 0: replaced); get 7 = %lu\n",
            (unsigned long)value);
    LMapDestroy(map);
    return ok;
}

/* ---- An action table ---- */

static void Say(uintptr_t argument, uint16_t code)
{
    fprintf(g_out, "    action %u runs for \"%s\"\n", code, (const char *)argument);
}

static void Explode(uintptr_t argument, uint16_t code)
{
    (void)argument;
    fprintf(g_out, "    action %u fails with code 2\n", code);
    CkptRecover(2);
}

static int Pre(const ActionHooks *hooks, uintptr_t argument)
{
    (void)hooks;
    (void)argument;
    fprintf(g_out, "    pre-hook: allowed\n");
    return 0;
}

static void Post(const ActionHooks *hooks, uintptr_t argument)
{
    (void)hooks;
    (void)argument;
    fprintf(g_out, "    post-hook\n");
}

static void Recover(uintptr_t hooks, uintptr_t argument)
{
    (void)hooks;
    (void)argument;
    fprintf(g_out, "    recover hook: undoing the failed action\n");
}

static const ActionHooks kHooks = {Pre, Post, Recover};

static int DemoActions(void)
{
    static const ActionDef list[] = {
        {1, Say, &kHooks}, {2, Explode, &kHooks}, {3, NULL, NULL}, {0, NULL, NULL}};
    static const CharTag keys[] = {{'s', 1}, {'x', 2}, {0, 0}};
    ActionTable *table = ActionTableCreate((uintptr_t) "scene");
    int previous, r, ok;
    if (!table)
        return 0;
    ok = ActionTableAddList(table, list);
    previous = ActionCkptSetLevel(1);
    fprintf(g_out, "action table (dispatch level 1):\n");
    for (uint16_t code = 0; code <= 4; ++code) {
        fprintf(g_out, "  dispatch %u\n", code);
        r = ActionTableDispatch(table, code);
        fprintf(g_out, "    result %d\n", r);
        ok &= r == (code == 0 ? 1 : code == 1 ? 0 : code == 2 ? 5 : code == 3 ? 7 : 2);
    }
    fprintf(g_out, "  key 's' through the character tags\n");
    ok &= CharTagDispatch(keys, list, 's', (uintptr_t) "key press") == 0;
    r = CharTagDispatch(keys, list, 'q', 0);
    fprintf(g_out, "  key 'q': result %d (no tag)\n", r);
    ok &= r == 3;
    ActionCkptSetLevel(previous);
    ActionTableDestroy(table);
    return ok;
}

int vx_demo_containers(FILE *out, const char *dir)
{
    (void)dir; /* writes no files */
    int ok;
    g_out = out;
    ok = DemoBTree();
    fprintf(out, "\n");
    ok &= DemoZone();
    fprintf(out, "\n");
    ok &= DemoMap();
    fprintf(out, "\n");
    ok &= DemoActions();
    return ok;
}
