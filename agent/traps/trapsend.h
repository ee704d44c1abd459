// Sending a trap on the thread that runs net-snmp: to the agent's own trap
// sinks (traps/trapsinks.h) and, for a subagent, to its AgentX master.
#ifndef KELP_AGENT_TRAPS_TRAPSEND_H
#define KELP_AGENT_TRAPS_TRAPSEND_H

#include <cstdint>

#include "traps/trap.h"

namespace kelp::agent {

// Sends `trap`: an SNMPv1 trap or an SNMPv2c notification with snmpTrapOID
// enterprise.0.specific, as the sinks are configured, queued for every
// active sink without waiting for any; a subagent also hands it to net-snmp
// for its master. Bindings keep their names and types. Logs one line naming
// the trap, its event and object and where it went (traps/traplog.h). 0
// when a sink took it or net-snmp sent it to the master, 5 otherwise. Only
// on the thread that runs net-snmp.
uint32_t sendTrapNow(const Trap &trap);

// Service table entry 7 (SMTrapSendFn). `handle` is the address of the
// TrapQueue handed over with command 4; the trap is copied, queued for the
// agent's thread and sent there. 0 when sent; 5 when the records are
// unusable, nothing was sent, or the agent is stopping.
extern "C" uint32_t kelpAgentSendTrap(uint64_t handle, const SMSnmpOID *enterprise,
                                      uint32_t generic, uint32_t specific, uint32_t bindingCount,
                                      SMSnmpValue *bindings);

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPSEND_H
