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
        return !before->data().objects.empty();
    const size_t count = before->data().objects.size();
    for (size_t pos = 0; pos < count; ++pos) {
        const std::optional<size_t> now = after->find(before->object(pos).id);
        if (!now || after->typeIndexOf(*now) != before->typeIndexOf(pos))
            return true;
        const std::string *was = before->nexusOf(pos);
        const std::string *is = after->nexusOf(*now);
        if ((was == nullptr) != (is == nullptr) || (was != nullptr && *was != *is))
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
