// The table registry and the GetNext walk table. Adding a served table is
// filling in its getter here.
#include "mib/registry.h"

#include <algorithm>
#include <array>

#include "store/tablelist.h"
#include "tables/columns.h"
#include "tables/getters.h"

constexpr TableRegistryEntry kTableRegistry[kTableCount + 1] = {
    {130, 1, &ctrlList, getCtrl},
    {130, 2, &chanList, nullptr},
    {130, 3, &enclList, nullptr},
    {130, 4, &adList, nullptr},
    {130, 5, &adEnclConnList, nullptr},
    {130, 6, &adChanConnList, nullptr},
    {130, 7, &fanList, nullptr},
    {130, 8, &fanList, nullptr},
    {130, 9, &psuList, nullptr},
    {130, 10, &psuList, nullptr},
    {130, 11, &tempList, nullptr},
    {130, 12, &tempList, nullptr},
    {130, 13, &emmList, nullptr},
    {130, 14, &emmList, nullptr},
    {130, 15, &battList, nullptr},
    {130, 16, &battList, nullptr},
    {130, 17, &tapeList, nullptr},
    {130, 18, &nvmeList, nullptr},
    {140, 1, &vdList, nullptr},
    {140, 2, &vdPartList, nullptr},
    {140, 3, &adLogConnList, nullptr},
    {140, 4, &cacheList, nullptr},
    {140, 5, &cacheDiskList, nullptr},
    {140, 6, &cachePoolList, nullptr},
    {kEndMark, kEndMark, nullptr, nullptr},
};

namespace {

// The walk's lists and column counts. The connection tables walk the rows of
// their source objects' lists.
struct WalkRow {
    ObjList *list;
    uint32_t columns;
};
constexpr WalkRow kWalkRows[kTableCount] = {
    {&ctrlList, 73},     {&chanList, 11},  {&enclList, 34},      {&adList, 53},
    {&adList, 7},        {&adList, 7},     {&fanList, 17},       {&fanList, 5},
    {&psuList, 11},      {&psuList, 6},    {&tempList, 14},      {&tempList, 5},
    {&emmList, 13},      {&emmList, 5},    {&battList, 15},      {&battList, 5},
    {&tapeList, 8},      {&nvmeList, 28},  {&vdList, 28},        {&vdPartList, 6},
    {&adLogConnList, 7}, {&cacheList, 16}, {&cacheDiskList, 10}, {&cachePoolList, 8},
};

constexpr std::array<WalkDescriptor, kTableCount + 1> walkDescriptors()
{
    std::array<WalkDescriptor, kTableCount + 1> table{};
    for (uint32_t i = 0; i < kTableCount; i++) {
        table[i] = {kWalkRows[i].list, kTableRegistry[i].group, kTableRegistry[i].table,
                    kWalkRows[i].columns};
    }
    table[kTableCount] = {nullptr, kEndMark, kEndMark, kEndMark};
    return table;
}

} // namespace

WalkDescriptor walkTable[kTableCount + 1];

void initWalkTable(void)
{
    const auto descriptors = walkDescriptors();
    std::copy(descriptors.begin(), descriptors.end(), walkTable);
}

const TableRegistryEntry *findTableEntry(uint32_t group, uint32_t table)
{
    for (uint32_t i = 0; i < kTableCount; i++) {
        if (kTableRegistry[i].group == group && kTableRegistry[i].table == table) {
            return &kTableRegistry[i];
        }
    }
    return nullptr;
}

int32_t callTableGetter(const TableRegistryEntry &entry, SMSnmpValue *request, SMSnmpValue *reply,
                        uint32_t position)
{
    if (entry.getter == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    return entry.getter(request, reply, position);
}
