// Command 6: the list of MIB definitions this module serves (one).
#include "frame/frame.h"
#include "mib/mibdef.h"
#include "mpi/mpi.h"
#include "platform/vscil.h"

uint32_t MIBImplementerListMib(void *outBuf, uint32_t outSize, uint32_t *outUsed)
{
    if (MPIMibListClear(static_cast<SMMibList *>(outBuf), outSize, outUsed) != 0) {
        return SM_SNMP_TOOBIG;
    }
    return KelpmibListMib(outBuf, outSize, outUsed);
}

uint32_t KelpmibListMib(void *outBuf, uint32_t outSize, uint32_t *outUsed)
{
    VscilDebugPrint("KelpmibListMib: entry\n");
    const uint32_t status =
        MPIMibListAppend(kelpMibDefinition, static_cast<SMMibList *>(outBuf), outSize, outUsed);
    VscilDebugPrint("KelpmibListMib: exit\n");
    return status;
}
