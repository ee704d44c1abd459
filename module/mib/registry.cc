// The table registry and the GetNext walk table, both from one row per
// table. Adding a served table is filling in its getter here.
#include "mib/registry.h"

#include <algorithm>
#include <array>

#include "store/tablelist.h"
#include "tables/columns.h"
#include "tables/getters.h"

constexpr TableRegistryEntry kTableRegistry[kTableCount + 1] = {
    {130, 1, &ctrlList, getCtrl, &ctrlList, 73},
    {130, 2, &chanList, getChan, &chanList, 11},
    {130, 3, &enclList, getEncl, &enclList, 34},
    {130, 4, &adList, getAD, &adList, 53},
    {130, 5, &adEnclConnList, getADEnclConn, &adList, 7},
    {130, 6, &adChanConnList, getADChanConn, &adList, 7},
    {130, 7, &fanList, getFan, &fanList, 17},
    {130, 8, &fanList, getFanEnclConn, &fanList, 5},
    {130, 9, &psuList, getPwrSupply, &psuList, 11},
    {130, 10, &psuList, getPwrEnclConn, &psuList, 6},
    {130, 11, &tempList, getTemperature, &tempList, 14},
    {130, 12, &tempList, getTempEnclConn, &tempList, 5},
    {130, 13, &emmList, getEMM, &emmList, 13},
    {130, 14, &emmList, getEMMEnclConn, &emmList, 5},
    {130, 15, &battList, getBattery, &battList, 15},
    {130, 16, &battList, getBatteryCtrlConn, &battList, 5},
    {130, 17, &tapeList, getTape, &tapeList, 8},
    {130, 18, &nvmeList, getNVMEAdapter, &nvmeList, 28},
    {140, 1, &vdList, getVD, &vdList, 28},
    {140, 2, &vdPartList, getVDPartition, &vdPartList, 6},
    {140, 3, &adLogConnList, getADLogConn, &adLogConnList, 7},
    {140, 4, &cacheList, getTidalCache, &cacheList, 16},
    {140, 5, &cacheDiskList, getTidalCacheDisks, &cacheDiskList, 10},
    {140, 6, &cachePoolList, getTidalCachePool, &cachePoolList, 8},
    {kEndMark, kEndMark, nullptr, nullptr, nullptr, kEndMark},
};

namespace {

// Tables of each group numbered 1, 2, ... in registry order, the groups in
// walk order, and the end entry last.
constexpr bool registryIsOrdered()
{
    uint32_t group = 0;
    uint32_t table = 0;
    for (uint32_t i = 0; i < kTableCount; i++) {
        const TableRegistryEntry &entry = kTableRegistry[i];
        if (entry.group != group) {
            if (entry.group < group || entry.table != 1) {
                return false;
            }
            group = entry.group;
        } else if (entry.table != table + 1) {
            return false;
        }
        table = entry.table;
        // The lists are checked by a test: g++ does not compare their
        // addresses at compile time in a sanitizer build.
        if (entry.walkColumns == 0) {
            return false;
        }
    }
    return kTableRegistry[kTableCount].group == kEndMark;
}
static_assert(registryIsOrdered());

constexpr uint32_t lastTable(uint32_t group)
{
    uint32_t last = 0;
    for (uint32_t i = 0; i < kTableCount; i++) {
        if (kTableRegistry[i].group == group) {
            last = kTableRegistry[i].table;
        }
    }
    return last;
}
static_assert(lastTable(130) == 18 && lastTable(140) == 6);

constexpr std::array<WalkDescriptor, kTableCount + 1> walkDescriptors()
{
    std::array<WalkDescriptor, kTableCount + 1> table{};
    for (uint32_t i = 0; i < kTableCount; i++) {
        const TableRegistryEntry &entry = kTableRegistry[i];
        table[i] = {entry.walkList, entry.group, entry.table, entry.walkColumns};
    }
    table[kTableCount] = {nullptr, kEndMark, kEndMark, kEndMark};
    return table;
}

} // namespace

uint32_t lastTableOf(uint32_t group)
{
    // Asked for every request: the two groups with tables are answered
    // without a pass over the registry.
    constexpr uint32_t kLastOf130 = lastTable(130);
    constexpr uint32_t kLastOf140 = lastTable(140);
    if (group == 130) {
        return kLastOf130;
    }
    if (group == 140) {
        return kLastOf140;
    }
    return lastTable(group);
}

// Filled by initWalkTable, which the refresh thread calls under dataMutex
// before the first request is let in; requests read it under dataMutex.
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
