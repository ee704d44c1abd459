// The table list: one live list per table, which requests and the trap
// sender read, paired with a staging list that a rebuild fills and merges.
// Writers: the refresh thread, under dataMutex; readers hold dataMutex,
// except the trap sender, which reads the live lists without it, only
// through rowOfNexusUnlocked (store/objlist.h).
#ifndef KELP_MODULE_STORE_TABLELIST_H
#define KELP_MODULE_STORE_TABLELIST_H

#include <cstddef>

#include "store/objlist.h"

extern "C" {

extern ObjList ctrlList, ctrlListNew;             // "adapters"
extern ObjList chanList, chanListNew;             // "bus"
extern ObjList adList, adListNew;                 // "arraydisks"
extern ObjList tapeList, tapeListNew;             // "Tape"
extern ObjList enclList, enclListNew;             // "enclosures"
extern ObjList fanList, fanListNew;               // "fans"
extern ObjList psuList, psuListNew;               // "psupplies"
extern ObjList tempList, tempListNew;             // "tempprobes"
extern ObjList emmList, emmListNew;               // "emms"
extern ObjList battList, battListNew;             // "batteries"
extern ObjList vdList, vdListNew;                 // "vdisks" without child virtual disks
extern ObjList adLogConnList, adLogConnListNew;   // array disk to virtual disk pairs
extern ObjList adEnclConnList, adEnclConnListNew; // "adtoenclosure"
extern ObjList adChanConnList, adChanConnListNew; // "adtochannel"
extern ObjList vdPartList, vdPartListNew;         // "VDPartitionNode"
extern ObjList cacheList, cacheListNew;           // "Tidal Cache"
extern ObjList cacheDiskList, cacheDiskListNew;   // "CacheLunNode"
extern ObjList cachePoolList, cachePoolListNew;   // "Tidal Cache Pool"
extern ObjList nvmeList, nvmeListNew;             // "NVMeAdapter"

// A staging-side head that nothing fills; freeStagingLists frees it with the
// others.
extern ObjList spareListNew;

// Empties the 19 live and then the 19 staging heads, freeing nothing (before
// the first build).
void initAllLists(void);

// Frees spareListNew and the 19 staging lists (after a merge).
void freeStagingLists(void);

// Frees every live and staging list and the spare head (when nothing can
// read them any more: at unmap, between tests and benchmark runs).
void freeAllLists(void);

} // extern "C"

// The live/staging pairs, in table-list order.
struct TableListPair {
    ObjList *live;
    ObjList *staging;
};
inline constexpr int kTableListCount = 19;
inline constexpr TableListPair kTableListPairs[kTableListCount] = {
    {&ctrlList, &ctrlListNew},
    {&chanList, &chanListNew},
    {&adList, &adListNew},
    {&tapeList, &tapeListNew},
    {&enclList, &enclListNew},
    {&fanList, &fanListNew},
    {&psuList, &psuListNew},
    {&tempList, &tempListNew},
    {&emmList, &emmListNew},
    {&battList, &battListNew},
    {&vdList, &vdListNew},
    {&adLogConnList, &adLogConnListNew},
    {&adEnclConnList, &adEnclConnListNew},
    {&adChanConnList, &adChanConnListNew},
    {&vdPartList, &vdPartListNew},
    {&cacheList, &cacheListNew},
    {&cacheDiskList, &cacheDiskListNew},
    {&cachePoolList, &cachePoolListNew},
    {&nvmeList, &nvmeListNew},
};

// True when `lists` (count entries, the list of each read by `pick`) holds
// every live list of kTableListPairs exactly once (staging: the staging
// lists). For the tables that must name every list: build, rebuild, merge.
template <typename Row>
constexpr bool eachListOnce(const Row *rows, std::size_t count, ObjList *Row::*pick, bool staging)
{
    for (const TableListPair &pair : kTableListPairs) {
        ObjList *wanted = staging ? pair.staging : pair.live;
        std::size_t seen = 0;
        for (std::size_t i = 0; i < count; i++) {
            seen += rows[i].*pick == wanted ? 1 : 0;
        }
        if (seen != 1) {
            return false;
        }
    }
    return count == kTableListCount;
}

#endif // KELP_MODULE_STORE_TABLELIST_H
