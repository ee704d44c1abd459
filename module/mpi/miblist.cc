// miblist.cc - the out-buffer of command 6: a count at byte 0 and, from byte
// 8, one pointer per MIB definition the module serves (SMMibList). The buffer
// is the framework's and only its first `size` bytes may be written.
#include <cstring>

#include "mpi/mpi.h"

namespace {

constexpr uint32_t kListHeaderBytes = offsetof(SMMibList, definitions);
constexpr uint32_t kListSlotBytes = sizeof(SMMibList::definitions[0]);
static_assert(kListHeaderBytes == 8 && kListSlotBytes == 8, "command 6 list layout");

} // namespace

extern "C" uint32_t MPIMibListClear(SMMibList *list, uint32_t size, uint32_t *usedOut)
{
    if (list == nullptr || usedOut == nullptr)
        return SM_SNMP_GENERR;
    if (size < kListHeaderBytes) {
        *usedOut = 0;
        return SM_SNMP_TOOBIG;
    }
    *usedOut = kListHeaderBytes;
    std::memset(list, 0, size);
    list->count = 0;
    return SM_SNMP_NOERROR;
}

extern "C" uint32_t MPIMibListAppend(const SMMibGroupDef *const *definition, SMMibList *list,
                                     uint32_t size, uint32_t *usedInOut)
{
    if (definition == nullptr || list == nullptr || usedInOut == nullptr)
        return SM_SNMP_GENERR;
    const uint64_t used = uint64_t{*usedInOut} + kListSlotBytes;
    // The slot is placed by the count, the room measured by the used size;
    // both must lie inside the buffer for the write to be safe.
    const uint64_t slotEnd = kListHeaderBytes + (uint64_t{list->count} + 1) * kListSlotBytes;
    if (used > size || slotEnd > size)
        return SM_SNMP_TOOBIG;
    auto *slot = reinterpret_cast<unsigned char *>(list) + slotEnd - kListSlotBytes;
    std::memcpy(slot, &definition, sizeof definition);
    list->count++;
    *usedInOut = static_cast<uint32_t>(used);
    return SM_SNMP_NOERROR;
}
