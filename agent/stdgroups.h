// The groups every SNMP agent answers and a manager asks for first, served
// by net-snmp's own MIB modules in an embedded master: the system group
// (SNMPv2-MIB), sysORTable, the snmp group's counters and snmpEngine. An
// AgentX subagent leaves them to its master.
#ifndef KELP_AGENT_STDGROUPS_H
#define KELP_AGENT_STDGROUPS_H

namespace kelp::agent {

// Initialises those MIB modules and lists the storage MIB in sysORTable.
// Call after init_agent and before init_snmp, which reads their
// configuration lines (snmpconf.h systemLines). Once per process.
void initStandardGroups();

} // namespace kelp::agent

#endif // KELP_AGENT_STDGROUPS_H
