// A generic walk through a load state, for tests and fuzz targets that read data whose layout
// they do not know: values are read while `readSome` finds any, the blocks of `blocks` are
// entered, every other block is left at its end. Stops at the end of the top level, at the
// first failure, or after `maxSteps` steps.
#pragma once

#include <vxtools3/states.h>

namespace vxtest {

template <class ReadSome>
void WalkLoadState(VxLoadState *st, const VxBlockDesc *blocks, int maxSteps, ReadSome readSome)
{
    for (int step = 0; step < maxSteps && !st->error; ++step) {
        if (readSome(st))
            continue;
        if (st->findBlock(st, blocks))
            continue;
        if (st->depth == 0)
            break;
        st->endBlock(st);
    }
}

}  // namespace vxtest
