// Get and GetNext resolution.
//
// PLACEHOLDER until the MIB layout lands: no object of the MIB is served yet,
// so every name is answered as absent (Get) or as the end of the MIB
// (GetNext), and there is no registry to set up.
#include "mib/resolve.h"

int32_t getValue(SMSnmpValue *, SMSnmpValue *)
{
    return SM_SNMP_NOSUCHNAME;
}

int32_t getNextValue(SMSnmpValue *, SMSnmpValue *)
{
    return SM_SNMP_NOSUCHNAME;
}

void initMibLayout(void) {}
