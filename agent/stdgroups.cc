// net-snmp's MIB modules for the standard groups, from libnetsnmpmibs.
#include "stdgroups.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_sysORTable.h>

#include <iterator>

#include "snmp/tree.h"

// The modules' init entries; libnetsnmpmibs installs no header for them.
extern "C" {
void init_system_mib(void);
void init_sysORTable(void);
void init_snmp_mib(void);
void init_snmpEngine(void);
}

namespace kelp::agent {

void initStandardGroups()
{
    init_system_mib();
    init_sysORTable();
    init_snmp_mib();
    init_snmpEngine();
    static oid storageMib[std::size(kMibRoot)];
    std::copy(std::begin(kMibRoot), std::end(kMibRoot), storageMib);
    register_sysORTable(storageMib, std::size(storageMib),
                        "The storage-management MIB: controllers, enclosures, disks, virtual "
                        "disks and their components, served by kelp");
}

} // namespace kelp::agent
