// The groups every SNMP agent answers and a manager asks for first, served
// by net-snmp's own MIB modules in an embedded master: the system group
// (SNMPv2-MIB), sysORTable, the snmp group's counters, snmpEngine and the
// SNMPv3 statistics (usmStats, snmpMPDStats, the context counters). An
// AgentX subagent leaves them to its master, which still lists the storage
// MIB in its sysORTable when the subagent asks.
#ifndef KELP_AGENT_STDGROUPS_H
#define KELP_AGENT_STDGROUPS_H

#include <cstdint>

namespace kelp::agent {

// The storage MIB's row of sysORTable: sysORID, the module identity of
// KELP-STORAGE-MIB (the served root), and sysORDescr.
inline constexpr uint32_t kStorageMibIdentity[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};
inline constexpr const char *kStorageMibDescr =
    "KELP-STORAGE-MIB: storage controllers, disks, enclosures and events";

// Initialises those MIB modules. Call after init_agent and before
// init_snmp, which reads their configuration lines (snmpconf.h
// systemLines). Once per process, in an embedded master only.
void initStandardGroups();

// Lists the storage MIB in sysORTable: the agent's own table in an embedded
// master (after initStandardGroups), the master's over AgentX in a
// subagent, which sends the row whenever it (re)connects. Call after
// init_agent, once per process.
void registerStorageMib();

} // namespace kelp::agent

#endif // KELP_AGENT_STDGROUPS_H
