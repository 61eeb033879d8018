// Reading a B-tree's keys as words, for the tests of trees, tables, maps and key tables.
#pragma once

#include <vxtools3/containers.h>

#include <cstring>
#include <vector>

namespace vxtest {

// Every word of every key in walking order (BTFirst, BTNext), `perKey` words a key: one for a
// lookup table, two for a lookup map or a key table.
inline std::vector<uintptr_t> TreeWords(const BTree *tree, size_t perKey)
{
    std::vector<uintptr_t> words;
    BTPos pos;
    for (void *k = BTFirst(tree, &pos); k; k = BTNext(tree, &pos)) {
        words.resize(words.size() + perKey);
        std::memcpy(words.data() + words.size() - perKey, k, perKey * sizeof(uintptr_t));
    }
    return words;
}

}  // namespace vxtest
