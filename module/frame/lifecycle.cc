// Load and unload of the module: the attach hook that records the module's
// export context, the synchronisation objects, and the configuration read at
// load.
#include "frame/config.h"
#include "frame/frame.h"
#include "platform/vcsif.h"
#include "platform/vscil.h"
#include "store/tablelist.h"

// The module's globals; frame/state.h gives each its writer and its lock.
SMExportContext g_ModuleExportContext;
void *const *g_FrameworkServices;
uint64_t g_FrameworkHandle;
SMMutexHandle dataMutex;
uint32_t g_bSNMPTableInitialised;
std::atomic<uint32_t> stopRequested;
SMEventHandle rescanEvent;
SMEventHandle rescanDoneEvent;
SMEventHandle eMonitorEvtEnd;
SMEventHandle eEvtFuncEnd;
SMEventHandle refreshDoneEvent;
SMThreadHandle g_hMonitorThread;
SMThreadHandle g_hAggregateThread;
SMThreadHandle g_hRefreshThread;
uint32_t g_bAggregateEvents;
uint32_t g_SNMPRefreshMinutes;

namespace {

// The events in creation (and destruction) order.
SMEventHandle *const kModuleEvents[] = {&rescanEvent, &rescanDoneEvent, &eMonitorEvtEnd,
                                        &eEvtFuncEnd, &refreshDoneEvent};

// Run by the loader when the module is mapped, before the first dispatch.
__attribute__((constructor)) void moduleAttach()
{
    SMGetExportContext(&g_ModuleExportContext);
}

// Run by the loader when the module is unmapped, after the last dispatch:
// the object lists outlive command 5 (a host may unload and load again), so
// they are released here, when nothing can read them any more.
__attribute__((destructor)) void moduleDetach()
{
    freeAllLists();
}

} // namespace

uint32_t MIBImplementerLoad(void)
{
    configStartDebug();
    VscilDebugPrint("MIBImplementerLoad: entry\n");
    vcsif32_yesEventQ();
    KelpmibAttach();
    VscilDebugPrint("MIBImplementerLoad: exit\n");
    return 0;
}

uint32_t KelpmibAttach(void)
{
    VscilDebugPrint("KelpmibAttach: entry\n");
    dataMutex = SMMutexCreate(0);
    for (SMEventHandle *event : kModuleEvents) {
        *event = SMEventCreate(0, 0, nullptr);
    }
    configReadAttach();
    return 0;
}

uint32_t MIBImplementerUnload(void)
{
    VscilDebugPrint("MIBImplementerUnload: entry\n");
    KelpmibDetach();
    VscilDebugPrint("MIBImplementerUnload: exit\n");
    VscilDebugExit();
    return 0;
}

uint32_t KelpmibDetach(void)
{
    VscilDebugPrint("KelpmibDetach: entry\n");
    for (SMEventHandle *event : kModuleEvents) {
        SMEventDestroy(*event);
        *event = nullptr; // a second unload must not destroy them again
    }
    SMMutexDestroy(dataMutex);
    dataMutex = nullptr;
    VscilDebugPrint("KelpmibDetach: exit\n");
    return 0;
}
