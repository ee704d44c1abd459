// Sending a trap through net-snmp, on the thread that runs the agent, to
// every configured sink (or, for a subagent, to the AgentX master).
#ifndef KELP_AGENT_TRAPS_TRAPSEND_H
#define KELP_AGENT_TRAPS_TRAPSEND_H

#include <cstdint>

#include "traps/trap.h"

namespace kelp::agent {

// Sends `trap`: an SNMPv1 trap to every trapsink, an SNMPv2c notification
// with snmpTrapOID enterprise.0.specific to every trap2sink. Bindings keep
// their names and types. 0 when net-snmp sent it, 5 otherwise. Only on the
// thread that runs net-snmp.
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
