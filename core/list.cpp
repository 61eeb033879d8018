// Intrusive doubly linked lists. The header's (head, tail) words act as the node in front of
// the first node and its (tail, tailPred) words as the node behind the last, so insertion and
// removal never test for the ends.
#include <vxtools3/lists.h>

namespace {

VxNode *FrontNode(VxList *list) { return reinterpret_cast<VxNode *>(&list->head); }
VxNode *EndNode(VxList *list) { return reinterpret_cast<VxNode *>(&list->tail); }
const VxNode *FrontNode(const VxList *list) { return reinterpret_cast<const VxNode *>(&list->head); }
const VxNode *EndNode(const VxList *list) { return reinterpret_cast<const VxNode *>(&list->tail); }

}  // namespace

extern "C" {

VX_API void NewList(VxList *list)
{
    list->head = EndNode(list);
    list->tail = nullptr;
    list->tailPred = FrontNode(list);
}

VX_API void Insert(VxList *list, VxNode *node, VxNode *pred)
{
    if (!pred)
        pred = FrontNode(list);
    node->succ = pred->succ;
    node->pred = pred;
    pred->succ->pred = node;
    pred->succ = node;
}

VX_API void AddHead(VxList *list, VxNode *node) { Insert(list, node, nullptr); }

VX_API void AddTail(VxList *list, VxNode *node) { Insert(list, node, list->tailPred); }

VX_API void Remove(VxNode *node)
{
    node->succ->pred = node->pred;
    node->pred->succ = node->succ;
}

VX_API VxNode *RemHead(VxList *list)
{
    VxNode *first = list->head;
    if (!first->succ)
        return nullptr;
    Remove(first);
    return first;
}

VX_API VxNode *RemTail(VxList *list)
{
    VxNode *last = list->tailPred;
    if (!last->pred)
        return nullptr;
    Remove(last);
    return last;
}

VX_API void MoveList(VxList *dst, VxList *src)
{
    if (!src->head->succ) {
        NewList(dst);
        return;
    }
    dst->head = src->head;
    dst->tail = nullptr;
    dst->tailPred = src->tailPred;
    dst->head->pred = FrontNode(dst);
    dst->tailPred->succ = EndNode(dst);
    NewList(src);
}

VX_API void InsertSeq(VxList *list, VxNode *node)
{
    VxNode *next = list->head;
    while (next->succ && next->seq <= node->seq)
        next = next->succ;
    Insert(list, node, next->pred);
}

VX_API int ListValidate(const VxList *list)
{
    if (list->tail)
        return -1;
    const VxNode *prev = FrontNode(list);
    int count = 0;
    for (const VxNode *node = list->head; node != EndNode(list); node = node->succ) {
        if (!node || !node->succ || node->pred != prev || count == INT32_MAX)
            return -1;
        prev = node;
        ++count;
    }
    return list->tailPred == prev ? count : -1;
}

}  // extern "C"
