// The event monitor thread.
//
// PLACEHOLDER until event handling lands: the body only waits for the stop
// request and reports its end, so that stopping the monitor is prompt.
#include "events/workers.h"
#include "frame/state.h"
#include "platform/os.h"
#include "platform/vscil.h"

void MonitorEvents(void *)
{
    VscilDebugPrint("MonitorEvents: entry\n");
    while (stopRequested == 0) {
        Sleep(1000);
    }
    SMEventSet(eMonitorEvtEnd);
    VscilDebugPrint("MonitorEvents: Just set eMonitorEvtEnd\n");
}
