// A trap as the bytes a sink sends: an SNMPv1 Trap-PDU or an SNMPv2c
// SNMPv2-Trap-PDU message, built and encoded by net-snmp the way its own
// trap sinks send them (the PDUs of netsnmp_send_traps, serialised with
// snmp_build), so that kelp's sinks put on the wire what net-snmp's did.
#ifndef KELP_AGENT_TRAPS_TRAPMESSAGE_H
#define KELP_AGENT_TRAPS_TRAPMESSAGE_H

#include <cstddef>
#include <string>

#include "traps/trap.h"

namespace kelp::agent {

// The largest message any sink takes: the largest UDP payload over IPv4.
inline constexpr size_t kMaxTrapMessageBytes = 65507;

// Encodes `trap` for a sink of version 1 (`v1`) or 2c with `community`.
// v1: enterprise, agent address (net-snmp's choice of this host's IPv4
// address), generic and specific numbers, sysUpTime, the bindings. v2c:
// sysUpTime.0, snmpTrapOID.0 (enterprise.0.specific, or the standard trap's
// name for a generic one), the bindings, snmpTrapEnterprise.0. True with the
// message in *message; false with the reason in *why (a binding net-snmp
// refuses, a message over kMaxTrapMessageBytes). Only on the thread that
// runs net-snmp.
bool encodeTrap(const Trap &trap, bool v1, const std::string &community, std::string *message,
                std::string *why);

// coldStart as net-snmp sends it at an agent's start: generic 0, specific 0,
// enterprise net-snmp's agent OID for this system, no bindings.
Trap coldStartTrap();

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPMESSAGE_H
