// Resolution of Get and GetNext below the MIB root. Called with dataMutex
// held.
#ifndef KELP_MODULE_MIB_RESOLVE_H
#define KELP_MODULE_MIB_RESOLVE_H

#include <cstdint>

#include "platform/smsnmp.h"

extern "C" {

// Answers the object named by request into reply: 0, 2 (no such object),
// 3 (a table without rows) or 5.
int32_t getValue(SMSnmpValue *request, SMSnmpValue *reply);

// Answers the first object after the name of request: 0 with reply's name and
// value filled, 2 when nothing follows in this MIB, or 5.
int32_t getNextValue(SMSnmpValue *request, SMSnmpValue *reply);

} // extern "C"

#endif // KELP_MODULE_MIB_RESOLVE_H
