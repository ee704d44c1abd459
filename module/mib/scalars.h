// The scalar objects the module answers itself: the descriptors at the root,
// the information group (100) and the global group (110).
#ifndef KELP_MODULE_MIB_SCALARS_H
#define KELP_MODULE_MIB_SCALARS_H

#include <cstdint>

#include "platform/smsnmp.h"

extern "C" {

// The global status words: the roll-up of the controllers' status as last
// reported, and the one before it. Request path, under dataMutex.
extern uint32_t g_uGlobalStatus;
extern uint32_t g_uPrevGlobalStatus;

// What 110.3 and 110.6 last reported. Request path, under dataMutex.
extern uint32_t g_uLastReportedRefreshTime;
extern uint32_t g_uRefreshSeconds;

// root.1 to root.5 by `arc` (the arc after the root): 0, or 2 for another
// arc. Strings go into reply->buffer with their NUL; integers have type 2
// and a null buffer.
int32_t getRootScalar(SMSnmpValue *reply, uint32_t arc);

// The information group: the column at `position`. 0, or 2 for a column
// without a value (or no column arc).
int32_t getInfoTable(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);

// The global group: the column at `position`. 0, or 2.
int32_t getGlobalTable(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);

} // extern "C"

#endif // KELP_MODULE_MIB_SCALARS_H
