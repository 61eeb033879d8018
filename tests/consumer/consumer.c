/* A small C program built against the installed library (its checkpoint blocks and ordered
 * arrays). */
#include <vxtools3.h>

#include <stdio.h>
#include <string.h>

static int CompareText(void *a, void *b) { return strcmp((const char *)a, (const char *)b); }

static VxOrd g_names;

static int AddNames(void)
{
    CKPT_BEGIN_OR_RETURN(0);
    OrdInsert(&g_names, "modeler", CompareText);
    OrdInsert(&g_names, "layout", CompareText);
    OrdInsert(&g_names, "hub", CompareText);
    CkptEnd();
    return 1;
}

int main(void)
{
    OrdInit(&g_names);
    if (!AddNames() || g_names.count != 3 || strcmp((const char *)g_names.items[0], "hub") != 0) {
        fprintf(stderr, "consumer: ordered array failed\n");
        return 1;
    }
    OrdFree(&g_names);
    printf("consumer ok\n");
    return 0;
}
