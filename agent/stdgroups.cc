// net-snmp's MIB modules for the standard groups, from libnetsnmpmibs.
#include "stdgroups.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_sysORTable.h>

#include <algorithm>
#include <iterator>

#include "log.h"

// The modules' init entries; libnetsnmpmibs installs no header for them.
extern "C" {
void init_system_mib(void);
void init_sysORTable(void);
void init_snmp_mib(void);
void init_snmpEngine(void);
void init_usmStats(void);
void init_snmpMPDStats(void);
void init_target_counters(void);
void init_setSerialNo(void);
}

namespace kelp::agent {

void initStandardGroups()
{
    init_system_mib();
    init_sysORTable();
    init_snmp_mib();
    init_snmpEngine();
    // snmpSetSerialNo, the rest of SNMPv2-MIB's compliance (snmpSetGroup),
    // which sysORTable's first row claims. Sets are refused as everywhere:
    // every community and user is read-only.
    init_setSerialNo();
    // The counters that tell a manager why the agent refused its messages:
    // usmStats, snmpMPDStats, and snmpUnavailableContexts and
    // snmpUnknownContexts. The users' and views' tables stay unserved: they
    // would show every community the names of the SNMPv3 users.
    init_usmStats();
    init_snmpMPDStats();
    init_target_counters();
}

void registerStorageMib()
{
    // net-snmp keeps the pointers of the row: both live as long as the
    // process.
    static oid identity[std::size(kStorageMibIdentity)];
    std::copy(std::begin(kStorageMibIdentity), std::end(kStorageMibIdentity), identity);
    if (register_sysORTable(identity, std::size(identity), kStorageMibDescr) != 0) {
        logAt(LogLevel::kWarning, "sysORTable: the storage MIB could not be listed");
    }
}

} // namespace kelp::agent
