// The modifier list of an envelope.
#include "anim/envelope_internal.h"

int EnvAddFilter(VxEnvelope *env, VxEnvFilter *filter)
{
    AddTail(&env->filters, &filter->node);
    return 1;
}

int32_t EnvFilterIndex(const VxEnvelope *env, const VxEnvFilter *filter)
{
    if (!filter)
        return -1;
    int32_t index = 0;
    for (VxNode *n = env->filters.head; n->succ; n = n->succ, ++index)
        if (n == &filter->node)
            return index;
    return -1;
}

int EnvRemoveFilter(VxEnvelope *env, VxEnvFilter *filter)
{
    if (!filter || EnvFilterIndex(env, filter) < 0)
        return 0;
    Remove(&filter->node);
    return 1;
}

VxEnvFilter *EnvFilterInstance(const VxEnvelope *env, int32_t index)
{
    if (index < 0)
        return nullptr;
    for (VxNode *n = env->filters.head; n->succ; n = n->succ, --index)
        if (index == 0)
            return reinterpret_cast<VxEnvFilter *>(n);
    return nullptr;
}

const char *EnvFilterName(const VxEnvFilter *filter) { return filter ? filter->serverName : nullptr; }
