// Calls back into the framework through the service table that command 4
// handed in.
#include "frame/frame.h"

uint32_t MPITrapSend(const SMSnmpOID *enterprise, uint32_t generic, uint32_t specific,
                     uint32_t bindingCount, SMSnmpValue *bindings)
{
    if (g_FrameworkServices == nullptr || g_FrameworkServices[SM_SERVICE_TRAP_SEND] == nullptr) {
        return SM_SNMP_GENERR;
    }
    auto send = reinterpret_cast<SMTrapSendFn>(g_FrameworkServices[SM_SERVICE_TRAP_SEND]);
    return send(g_FrameworkHandle, enterprise, generic, specific, bindingCount, bindings);
}

void *MPIFrameworkEntry3(void *a, void *b, void *c, void *d)
{
    if (g_FrameworkServices == nullptr || g_FrameworkServices[SM_SERVICE_ENTRY3] == nullptr) {
        return nullptr;
    }
    auto entry = reinterpret_cast<SMServiceEntry3Fn>(g_FrameworkServices[SM_SERVICE_ENTRY3]);
    return entry(a, b, c, d);
}
