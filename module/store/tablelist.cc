// The 38 list heads of the table list and the operations over all of them.
#include "store/tablelist.h"

// Guarded by dataMutex, except for the trap sender's unlocked reads of the
// live lists (store/tablelist.h, rowOfNexusUnlocked).
ObjList ctrlList, ctrlListNew;
ObjList chanList, chanListNew;
ObjList adList, adListNew;
ObjList tapeList, tapeListNew;
ObjList enclList, enclListNew;
ObjList fanList, fanListNew;
ObjList psuList, psuListNew;
ObjList tempList, tempListNew;
ObjList emmList, emmListNew;
ObjList battList, battListNew;
ObjList vdList, vdListNew;
ObjList adLogConnList, adLogConnListNew;
ObjList adEnclConnList, adEnclConnListNew;
ObjList adChanConnList, adChanConnListNew;
ObjList vdPartList, vdPartListNew;
ObjList cacheList, cacheListNew;
ObjList cacheDiskList, cacheDiskListNew;
ObjList cachePoolList, cachePoolListNew;
ObjList nvmeList, nvmeListNew;
ObjList spareListNew;

void initAllLists(void)
{
    for (const TableListPair &pair : kTableListPairs) {
        initList(pair.live);
    }
    for (const TableListPair &pair : kTableListPairs) {
        initList(pair.staging);
    }
}

void freeAllLists(void)
{
    for (const TableListPair &pair : kTableListPairs) {
        freeList(pair.live);
    }
    freeStagingLists();
}

void freeStagingLists(void)
{
    freeList(&spareListNew);
    for (const TableListPair &pair : kTableListPairs) {
        freeList(pair.staging);
    }
}
