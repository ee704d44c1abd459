// The refresh thread.
//
// PLACEHOLDER until table building lands: the body waits for the stop request
// and reports its end, so that command 8 returns promptly. It builds nothing,
// so g_bSNMPTableInitialised stays 0 and requests answer genErr.
#include "store/refresh.h"

#include "frame/frame.h"
#include "platform/os.h"
#include "platform/vscil.h"

void tEvtFunc(void *)
{
    VscilDebugPrint("tEvtFunc: Entry\n");
    while (stopRequested == 0) {
        Sleep(1000);
    }
    SMEventSet(eEvtFuncEnd);
    VscilDebugPrint("tEvtFunc: Just set eEvtFuncEnd\n");
}
