// Start and stop of the three worker threads: the refresh thread, the event
// monitor and, with aggregation on, the aggregation thread.
#include "events/workers.h"
#include "frame/frame.h"
#include "mib/registry.h"
#include "platform/vscil.h"
#include "store/refresh.h"

uint32_t MIBImplementerStartMonitor(void)
{
    return KelpmibStartMonitor();
}

uint32_t KelpmibStartMonitor(void)
{
    VscilDebugPrint("KelpmibStartMonitor: entry\n");
    // The refresh thread sets up the GetNext walk once the tables are built.
    g_tablesBuiltHook = initWalkTable;
    g_hRefreshThread = SMThreadStart(tEvtFunc, nullptr);
    g_hMonitorThread = SMThreadStart(MonitorEvents, nullptr);
    if (g_bAggregateEvents == 1) {
        g_hAggregateThread = SMThreadStart(AggregateEventsThread, nullptr);
    }
    VscilDebugPrint("KelpmibStartMonitor: exit\n");
    return 0;
}

uint32_t MIBImplementerStopMonitor(void)
{
    VscilDebugPrint("MIBImplementerStopMonitor: entry\n");
    const uint32_t status = KelpmibStopMonitor();
    VscilDebugPrint("MIBImplementerStopMonitor: exit\n");
    return status;
}

uint32_t KelpmibStopMonitor(void)
{
    VscilDebugPrint("KelpmibStopMonitor: entry\n");
    stopRequested = 1;
    // The monitor must be gone before the refresh thread: the monitor waits
    // on refreshDoneEvent, which only the refresh thread sets.
    SMEventWait(eMonitorEvtEnd, SM_WAIT_FOREVER);
    SMThreadStop(g_hMonitorThread);
    // Also when aggregation is off: the handle is then null and stopping it
    // does nothing.
    SMThreadStop(g_hAggregateThread);
    SMEventWait(eEvtFuncEnd, SM_WAIT_FOREVER);
    SMThreadStop(g_hRefreshThread);
    // SMThreadStop released the handles.
    g_hMonitorThread = nullptr;
    g_hAggregateThread = nullptr;
    g_hRefreshThread = nullptr;
    VscilDebugPrint("MIBImplementerStopMonitor: Just stopped threads\n");
    VscilDebugPrint("KelpmibStopMonitor: exit\n");
    return 0;
}
