// The implementer frame: the command handlers between the dispatch and the
// request resolution. The module's state (its globals, synchronisation
// objects and worker threads) is in frame/state.h.
#ifndef KELP_MODULE_FRAME_FRAME_H
#define KELP_MODULE_FRAME_FRAME_H

#include <cstdint>

#include "frame/state.h"
#include "platform/smsnmp.h"

extern "C" {

// Command 4: debug set-up, event queue on, KelpmibAttach. Always 0.
uint32_t MIBImplementerLoad(void);
// Command 5: KelpmibDetach, then the debug printer is closed. Always 0.
uint32_t MIBImplementerUnload(void);
// Creates dataMutex and the five events, reads the refresh period and the
// aggregation switch. Always 0.
uint32_t KelpmibAttach(void);
// Destroys the five events, then dataMutex. Always 0.
uint32_t KelpmibDetach(void);

// Command 6: clears the out-buffer list and appends kelpMibDefinition.
// 0, or 1 when outSize cannot hold the list.
uint32_t MIBImplementerListMib(void *outBuf, uint32_t outSize, uint32_t *outUsed);
uint32_t KelpmibListMib(void *outBuf, uint32_t outSize, uint32_t *outUsed);

// Command 7: starts the refresh thread, the event monitor and, with
// aggregation on, the aggregation thread. Always 0.
uint32_t MIBImplementerStartMonitor(void);
uint32_t KelpmibStartMonitor(void);
// Command 8: stops the threads in their fixed order. Always 0.
uint32_t MIBImplementerStopMonitor(void);
uint32_t KelpmibStopMonitor(void);

// Commands 9 and 10. 5 when the data store is not ready, the data lock is
// not obtained within 1000 ms, the tables are not built or the unlock fails;
// 0 with the reply untouched for a name the MIB root does not cover (Get) or
// that sorts after it (GetNext); else the resolution's status.
uint32_t MIBImplementerGet(SMSnmpValue *request, SMSnmpValue *reply);
uint32_t MIBImplementerGetNext(SMSnmpValue *request, SMSnmpValue *reply);

// The request name against the MIB root over min(arc count, 10) arcs: the
// first difference (request minus root) read as a signed number, 0 when the
// compared arcs agree.
int32_t KelpmibCheckPrefix(const SMSnmpValue *request);

// getValue with 3 (a table without rows) reported as 2.
uint32_t KelpmibGet(SMSnmpValue *request, SMSnmpValue *reply);
// getNextValue, status unchanged.
uint32_t KelpmibGetNext(SMSnmpValue *request, SMSnmpValue *reply);

// Framework services. MPITrapSend calls entry 7 with g_FrameworkHandle; 5
// without a service table. MPIFrameworkEntry3 passes its arguments to entry
// 3 and answers its result, or null without a service table.
uint32_t MPITrapSend(const SMSnmpOID *enterprise, uint32_t generic, uint32_t specific,
                     uint32_t bindingCount, SMSnmpValue *bindings);
void *MPIFrameworkEntry3(void *a, void *b, void *c, void *d);

} // extern "C"

#endif // KELP_MODULE_FRAME_FRAME_H
