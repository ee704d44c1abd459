// The model swaps made under the rescan lock (eventif/model_swap.h).
#include "eventif/model_swap.h"

#include "datastore/model.h"
#include "eventif/rescan_gate.h"

namespace kelp::ev {

bool idsChangeOwner(const ds::Model *before, const ds::Model *after)
{
    if (before == nullptr)
        return false; // no row names anything yet
    if (after == nullptr)
        return before->size() != 0;
    const size_t count = before->size();
    for (size_t pos = 0; pos < count; ++pos) {
        const std::optional<size_t> now = after->find(before->idOf(pos));
        if (!now || after->typeIndexOf(*now) != before->typeIndexOf(pos) ||
            before->nexusOf(pos) != after->nexusOf(*now))
            return true;
    }
    return false;
}

void swapModel(const ds::Model *before, const ds::Model *after, const std::function<void()> &swap)
{
    if (idsChangeOwner(before, after))
        swapUnderRescan(swap);
    else
        swap();
}

} // namespace kelp::ev
