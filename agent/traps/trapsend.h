// Sending a trap on the thread that runs net-snmp: to the agent's own trap
// sinks (traps/trapsinks.h) and, for a subagent, to its AgentX master.
#ifndef KELP_AGENT_TRAPS_TRAPSEND_H
#define KELP_AGENT_TRAPS_TRAPSEND_H

#include <cstddef>
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

// A subagent's traps while it has no session to its master (the master
// restarts) are held, at most this many, and sent once it has one again;
// beyond that a trap goes only to the agent's own sinks.
constexpr size_t kTrapsHeldForMaster = 1000;

// Tells the trap sender whether a subagent's session to its master is open
// (net-snmp's SNMPD_CALLBACK_INDEX_START and _STOP). Only on the thread that
// runs net-snmp.
void setAgentxMasterConnected(bool connected);

// Sends the traps held while the master was away, once the session is open
// again, and logs how many. Cheap when none are held: call it on every turn
// of the main loop.
void sendTrapsHeldForMaster();

// Service table entry 7 (SMTrapSendFn). `handle` is the address of the
// TrapQueue handed over with command 4; the trap is copied, queued for the
// agent's thread and sent there. 0 when sent; 5 when the records are
// unusable, nothing was sent, or the agent is stopping.
extern "C" uint32_t kelpAgentSendTrap(uint64_t handle, const SMSnmpOID *enterprise,
                                      uint32_t generic, uint32_t specific, uint32_t bindingCount,
                                      SMSnmpValue *bindings);

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPSEND_H
