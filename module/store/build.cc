// Table building and rebuilding. Array disks, virtual disks, the
// array-disk-to-enclosure connections and the partitions are renumbered on
// every rebuild; every other table keeps its row indices and grows holes for
// objects that vanished, so a manager's cached row names stay valid.
#include "store/build.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/vscil.h"
#include "store/tablelist.h"
#include "store/xmlvalue.h"

namespace {

constexpr std::string_view kADToEnclosure = "adtoenclosure";
constexpr std::string_view kADToChannel = "adtochannel";

// Whether an object's own text names a parent virtual disk.
bool hasParentVD(uint32_t objId)
{
    uint32_t status = 0;
    StoreText object(GetSingleObject(&status, 0, objId));
    return HeapText(getValFromXML(object.get(), "ParentVDID", 0)) != nullptr;
}

// Whether the array disk sits in an enclosure: the split between the
// array-disk-to-enclosure and array-disk-to-channel tables.
bool hasEnclosure(uint32_t objId)
{
    uint32_t status = 0;
    return StoreText(GetAssociated(&status, "enclosures", objId)) != nullptr;
}

struct BuildStep {
    ObjList *list;
    const char *typeName; // null: the array-disk-to-virtual-disk pairs
};

int32_t runSteps(const BuildStep *steps, size_t count)
{
    int32_t result = 0;
    for (size_t i = 0; i < count; i++) {
        result = steps[i].typeName != nullptr ? buildTable(steps[i].list, steps[i].typeName)
                                              : buildADLogConnTable(steps[i].list);
    }
    return result;
}

// buildADLogConnTable reads the live array disks, so in both orders it
// follows the "arraydisks" table.
constexpr BuildStep kBuildAllSteps[] = {
    {&ctrlList, "adapters"},
    {&chanList, "bus"},
    {&adList, "arraydisks"},
    {&tapeList, "Tape"},
    {&enclList, "enclosures"},
    {&fanList, "fans"},
    {&psuList, "psupplies"},
    {&tempList, "tempprobes"},
    {&emmList, "emms"},
    {&battList, "batteries"},
    {&vdList, "vdisks"},
    {&adLogConnList, nullptr},
    {&adEnclConnList, "adtoenclosure"},
    {&adChanConnList, "adtochannel"},
    {&vdPartList, "VDPartitionNode"},
    {&cacheList, "Tidal Cache"},
    {&cacheDiskList, "CacheLunNode"},
    {&cachePoolList, "Tidal Cache Pool"},
    {&nvmeList, "NVMeAdapter"},
};

constexpr BuildStep kRebuildSteps[] = {
    {&ctrlListNew, "adapters"},          {&chanListNew, "bus"},
    {&adListNew, "arraydisks"},          {&fanListNew, "fans"},
    {&psuListNew, "psupplies"},          {&tempListNew, "tempprobes"},
    {&enclListNew, "enclosures"},        {&emmListNew, "emms"},
    {&battListNew, "batteries"},         {&vdListNew, "vdisks"},
    {&adLogConnListNew, nullptr},        {&adEnclConnListNew, "adtoenclosure"},
    {&adChanConnListNew, "adtochannel"}, {&tapeListNew, "Tape"},
    {&vdPartListNew, "VDPartitionNode"}, {&cacheListNew, "Tidal Cache"},
    {&cacheDiskListNew, "CacheLunNode"}, {&cachePoolListNew, "Tidal Cache Pool"},
    {&nvmeListNew, "NVMeAdapter"},
};

enum class Merge { keep, renumber, keep2, renumber2 };
struct MergeStep {
    ObjList *live;
    ObjList *staging;
    Merge merge;
};

constexpr MergeStep kMergeSteps[] = {
    {&ctrlList, &ctrlListNew, Merge::keep},
    {&chanList, &chanListNew, Merge::keep},
    {&adList, &adListNew, Merge::renumber},
    {&fanList, &fanListNew, Merge::keep},
    {&psuList, &psuListNew, Merge::keep},
    {&tempList, &tempListNew, Merge::keep},
    {&enclList, &enclListNew, Merge::keep},
    {&emmList, &emmListNew, Merge::keep},
    {&battList, &battListNew, Merge::keep},
    {&vdList, &vdListNew, Merge::renumber2},
    {&adLogConnList, &adLogConnListNew, Merge::keep2},
    {&adEnclConnList, &adEnclConnListNew, Merge::renumber},
    {&adChanConnList, &adChanConnListNew, Merge::keep},
    {&tapeList, &tapeListNew, Merge::keep},
    {&vdPartList, &vdPartListNew, Merge::renumber},
    {&cacheList, &cacheListNew, Merge::keep},
    {&cacheDiskList, &cacheDiskListNew, Merge::keep},
    {&cachePoolList, &cachePoolListNew, Merge::keep},
    {&nvmeList, &nvmeListNew, Merge::keep},
};

} // namespace

bool buildTablesNameEveryListOnce(void)
{
    return eachListOnce(kBuildAllSteps, std::size(kBuildAllSteps), &BuildStep::list, false) &&
           eachListOnce(kRebuildSteps, std::size(kRebuildSteps), &BuildStep::list, true) &&
           eachListOnce(kMergeSteps, std::size(kMergeSteps), &MergeStep::live, false) &&
           eachListOnce(kMergeSteps, std::size(kMergeSteps), &MergeStep::staging, true);
}

namespace {

// Joins the array disk's and the virtual disk's nexus into one 80-byte row
// identity. An exact sum of 80 is reported and keeps the disk's nexus alone;
// a longer pair is cut to 79 characters.
char *joinNexus(const char *diskNexus, const char *vdNexus)
{
    auto *joined = static_cast<char *>(std::calloc(1, kNexusBufferSize));
    if (joined == nullptr) {
        return nullptr;
    }
    std::strncpy(joined, diskNexus, kNexusBufferSize - 1);
    const size_t a = std::strlen(joined);
    const size_t b = std::strlen(vdNexus);
    if (a + b == kNexusBufferSize) {
        VscilDebugPrint("buildADLogConn(): nexusID assignment failed \n");
    } else {
        std::strncat(joined, vdNexus, kNexusBufferSize - 1 - a);
    }
    return joined;
}

// Appends the rows of one array disk; -1 when a row could not be appended.
int32_t appendDiskPairs(ObjList *list, const ObjNode *disk)
{
    uint32_t status = 0;
    StoreText answer(GetAssociated(&status, "vdisks", disk->objId));
    if (answer == nullptr) {
        return 0;
    }
    const auto length = static_cast<uint32_t>(std::strlen(answer.get()));
    for (uint32_t n = 0;; n++) {
        HeapText id(getValFromXMLOfLength(answer.get(), length, "ObjID", n));
        if (id == nullptr) {
            return 0;
        }
        const uint32_t vdId = decimalPrefix(id.get());
        if (hasParentVD(vdId)) {
            continue;
        }
        HeapText vdNexus(getValFromXMLOfLength(answer.get(), length, "Nexus", n));
        if (vdNexus == nullptr) {
            continue;
        }
        char *joined = joinNexus(disk->nexusId != nullptr ? disk->nexusId : "", vdNexus.get());
        if (joined == nullptr || InsertList(list, disk->objId, vdId, joined) != 0) {
            std::free(joined);
            return -1;
        }
    }
}

} // namespace

int32_t buildTable(ObjList *list, const char *typeName)
{
    VscilDebugPrint("buildTable: Entry\n");
    const bool toEnclosure = typeName == kADToEnclosure;
    const bool toChannel = typeName == kADToChannel;
    const bool virtualDisks = std::strcmp(typeName, "vdisks") == 0;
    uint32_t status = 0;
    StoreText answer(GetObjectList(&status, toEnclosure || toChannel ? "arraydisks" : typeName));
    if (answer == nullptr) {
        return 0;
    }
    const auto length = static_cast<uint32_t>(std::strlen(answer.get()));
    for (uint32_t n = 0;; n++) {
        HeapText id(getValFromXMLOfLength(answer.get(), length, "ObjID", n));
        if (id == nullptr) {
            VscilDebugPrint("buildTable: Exit\n");
            return 0;
        }
        const uint32_t objId = decimalPrefix(id.get());
        // Spanned virtual disks list their parts as virtual disks with a
        // parent; only the spanned disk is a row.
        bool kept = !virtualDisks || !hasParentVD(objId);
        if (toEnclosure || toChannel) {
            kept = hasEnclosure(objId) == toEnclosure;
        }
        if (!kept) {
            continue;
        }
        char *nexus = getValFromXMLOfLength(answer.get(), length, "Nexus", n);
        if (nexus == nullptr) {
            continue;
        }
        VscilDebugPrint("buildTable: Get nexusId: %s for objId: %d \n", nexus,
                        static_cast<int32_t>(objId));
        if (InsertList(list, objId, 0, nexus) != 0) {
            VscilDebugPrint("InsertList returned error for nexusId: %d for objId: %d \n",
                            static_cast<int32_t>(reinterpret_cast<intptr_t>(nexus)),
                            static_cast<int32_t>(objId));
            std::free(nexus);
            VscilDebugPrint("buildTable: Exit\n");
            return -1;
        }
    }
}

int32_t buildADLogConnTable(ObjList *list)
{
    VscilDebugPrint("buildADLogConnTable: Entered\n");
    // Position by position from 1, as getNodeByIndex would give them, but
    // without walking from the head for each one.
    for (const ObjNode *disk = adList.head; disk != nullptr; disk = disk->next) {
        if (disk->objId != 0 && appendDiskPairs(list, disk) != 0) {
            return -1;
        }
    }
    VscilDebugPrint("buildADLogConnTable: exit\n");
    return 0;
}

int32_t rebuildTable(ObjList *live, ObjList *staging)
{
    VscilDebugPrint("rebuildTable: Entered\n");
    for (ObjNode *node = live->head; node != nullptr; node = node->next) {
        ObjNode *found = removeByNexus(staging, node->nexusId);
        if (found != nullptr) {
            node->objId = found->objId;
            freeNode(found);
        } else {
            node->objId = 0; // a hole keeps its nexus, so a returning object gets its row back
        }
    }
    appendListCopy(live, staging);
    noteListChange();
    VscilDebugPrint("rebuildTable(): Exit\n");
    return 0;
}

int32_t rebuildTable2(ObjList *live, ObjList *staging)
{
    VscilDebugPrint("rebuildTable2(): Entered\n");
    for (ObjNode *node = live->head; node != nullptr; node = node->next) {
        if (node->nexusId == nullptr) {
            continue;
        }
        ObjNode *found = removeByNexus(staging, node->nexusId);
        if (found != nullptr) {
            node->objId = found->objId;
            node->subObjId = found->subObjId;
            freeNode(found);
        } else {
            char *left = node->nexusId;
            node->nexusId = nullptr;
            releaseNexus(left);
            node->objId = 0;
            node->subObjId = 0;
        }
    }
    appendListCopy(live, staging);
    noteListChange();
    VscilDebugPrint("rebuildTable2(): Exit\n");
    return 0;
}

int32_t buildAll(void)
{
    VscilDebugPrint("buildAll: Entry\n");
    initAllLists();
    const int32_t result = runSteps(kBuildAllSteps, std::size(kBuildAllSteps));
    VscilDebugPrint("buildAll: Exit\n");
    return result;
}

int32_t rebuildAllStep1(void)
{
    VscilDebugPrint("rebuildAllStep1: Entered!!!!!@@@@@@@@$$$$$$$$$$$\n");
    const int32_t result = runSteps(kRebuildSteps, std::size(kRebuildSteps));
    VscilDebugPrint("rebuildAllStep1: Exit!!!!####$$$$$!!!!\n");
    return result;
}

void rebuildAllStep2(void)
{
    VscilDebugPrint("rebuildAllStep2: Entered!!!!!@@@@@@@@$$$$$$$$$$$\n");
    for (const MergeStep &step : kMergeSteps) {
        if (step.merge == Merge::renumber || step.merge == Merge::renumber2) {
            freeList(step.live);
            initList(step.live);
        }
        if (step.merge == Merge::keep || step.merge == Merge::renumber) {
            rebuildTable(step.live, step.staging);
        } else {
            rebuildTable2(step.live, step.staging);
        }
    }
    freeStagingLists();
    VscilDebugPrint("rebuildAllStep2: Exit!!!!####$$$$$!!!!\n");
}
