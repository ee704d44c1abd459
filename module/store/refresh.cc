// The refresh thread. The rebuild after a rescan holds the data lock through
// both steps, so requests fail fast instead of reading a half-merged table;
// the periodic rebuild builds the staging lists outside the lock and locks
// only to merge.
#include "store/refresh.h"

#include <algorithm>
#include <ctime>

#include "frame/state.h"
#include "platform/os.h"
#include "platform/vscil.h"
#include "store/build.h"
#include "store/tablelist.h"
#include "store/xmlvalue.h"

// Atomics, no lock (store/refresh.h).
std::atomic<uint32_t> rebuildNeeded;
std::atomic<int32_t> refreshTicks;
std::atomic<int64_t> lastRefreshTime;
// No lock: set by the frame before the refresh thread starts.
void (*g_tablesBuiltHook)(void);

namespace {

constexpr uint32_t kTickMs = 1000;

void endRefreshThread(const char *line)
{
    SMEventSet(eEvtFuncEnd);
    VscilDebugPrint("%s", line);
}

// One tick of the loop: wait for a rescan for up to a second.
uint32_t waitTick()
{
    const uint32_t result = SMEventWait(rescanEvent, kTickMs);
    refreshTicks++;
    return result;
}

// Rebuild after a rescan: lock, wait until the rescan is complete, rebuild
// and merge. False when the thread must end (stop requested while waiting;
// the lock is then still held, as the process is unloading).
bool rescanRebuild()
{
    DataLock lock(SM_WAIT_FOREVER);
    if (!lock.locked()) {
        return true;
    }
    while (SMEventWait(rescanDoneEvent, kTickMs) != 0) {
        if (stopRequested != 0) {
            lock.keep();
            endRefreshThread("tEvtFunc: Just set eEvtFuncEnd while waiting for rescan complete\n");
            return false;
        }
    }
    lastRefreshTime = std::time(nullptr);
    rebuildAllStep1();
    rebuildAllStep2();
    refreshTicks = 0;
    return true;
}

void periodicRebuild()
{
    lastRefreshTime = std::time(nullptr);
    refreshTicks = 0;
    if (rebuildNeeded != 1) {
        VscilDebugPrint("tEvtFunc: Flag to rebuild is not set.\n");
        return;
    }
    rebuildNeeded = 0;
    // A failed Step1 leaves the staging lists as they are; the next Step1
    // appends to them again.
    if (rebuildAllStep1() != 0) {
        VscilDebugPrint("tEvtFunc: rebuildAllStep1() failed\n");
        return;
    }
    {
        DataLock lock(SM_WAIT_FOREVER);
        rebuildAllStep2();
    }
    SMEventSet(refreshDoneEvent);
}

} // namespace

void tEvtFunc(void *)
{
    VscilDebugPrint("tEvtFunc: Entry\n");
    while (!dataStoreIsReady()) {
        if (stopRequested != 0) {
            endRefreshThread("tEvtFunc: Just set eEvtFuncEnd\n");
            return;
        }
        Sleep(kTickMs);
    }
    DataLock lock(SM_WAIT_FOREVER);
    if (!lock.locked()) {
        return;
    }
    lastRefreshTime = std::time(nullptr);
    const int32_t built = buildAll();
    if (built != 0) {
        // The lock stays held: requests keep failing on their lock time-out
        // rather than reading tables that are partly built.
        lock.keep();
        VscilDebugPrint("tEvtFunc:FATAL ERROR - buildAll has failed with ret:%d\n", built);
        return;
    }
    if (g_tablesBuiltHook != nullptr) {
        g_tablesBuiltHook();
    }
    g_bSNMPTableInitialised = 1;
    if (!lock.unlock()) {
        return;
    }

    uint32_t wait = waitTick();
    if (stopRequested != 0) {
        endRefreshThread("tEvtFunc: Just set eEvtFuncEnd\n");
        return;
    }
    do {
        if (wait == 0) {
            if (!rescanRebuild()) {
                return;
            }
        } else if (wait == SM_STATUS_TIMEOUT &&
                   refreshTicks >= static_cast<int64_t>(g_SNMPRefreshMinutes) * 60) {
            periodicRebuild();
        }
        wait = waitTick();
    } while (stopRequested == 0);
    endRefreshThread("tEvtFunc: Just set eEvtFuncEnd\n");
}

uint32_t getGlobalSystemStatus(uint32_t *current, uint32_t *previous)
{
    if (ctrlList.length == 0) {
        VscilDebugPrint("getGlobalSystemStatus: Controller List Ptr is NULL, Length is %d\n", 0);
        *current = 3;
        return 3;
    }
    uint32_t worst = 0;
    for (const ObjNode *node = ctrlList.head; node != nullptr; node = node->next) {
        if (node->nexusId == nullptr) {
            continue;
        }
        SMSnmpValue value{};
        value.type = SM_ASN_INTEGER;
        uint64_t slot = 0;
        getValFromOID(node->objId, "TreeStatus", &value, &slot);
        // The data store's status is one below the MIB's.
        worst = std::max(worst, value.value + 1);
    }
    if (*previous == 0) {
        *previous = 3;
    }
    if (*current != worst) {
        *previous = *current;
    }
    *current = worst;
    return *current;
}
