// A trap as the bytes a sink sends: an SNMPv1 Trap-PDU or an SNMPv2c
// SNMPv2-Trap-PDU message, built and encoded by net-snmp the way its own
// trap sinks send them (the PDUs of netsnmp_send_traps, serialised with
// snmp_build), so that kelp's sinks put on the wire what net-snmp's did.
#ifndef KELP_AGENT_TRAPS_TRAPMESSAGE_H
#define KELP_AGENT_TRAPS_TRAPMESSAGE_H

#include <cstddef>
#include <string>

#include "traps/trap.h"

struct snmp_pdu;

namespace kelp::agent {

// What a sink sends: an SNMPv1 Trap-PDU, an SNMPv2c SNMPv2-Trap-PDU, or an
// SNMPv2c InformRequest-PDU (the notification's bindings, acknowledged by
// the receiver with a Response carrying the same request-id).
enum class TrapForm { kV1Trap, kV2cTrap, kV2cInform };
inline constexpr size_t kTrapForms = 3;

// The largest message any sink takes: the largest UDP payload over IPv4.
inline constexpr size_t kMaxTrapMessageBytes = 65507;

// Encodes `trap` in `form` with `community`. v1: enterprise, agent address
// (net-snmp's choice of this host's IPv4 address), generic and specific
// numbers, sysUpTime, the bindings. v2c trap and inform: sysUpTime.0,
// snmpTrapOID.0 (enterprise.0.specific, or the standard trap's name for a
// generic one), the bindings, snmpTrapEnterprise.0; an inform has a request-id
// of its own from net-snmp's sequence. True with the message in *message;
// false with the reason in *why (a binding net-snmp refuses, a message over
// kMaxTrapMessageBytes). Only on the thread that runs net-snmp.
// With a `v3User`, a kV2cTrap is encoded as an SNMPv3 trap of that user
// instead (authPriv, this engine as the authoritative one, the keys the USM
// holds for the user and this engine's ID); the other forms ignore it.
bool encodeTrap(const Trap &trap, TrapForm form, const std::string &community, std::string *message,
                std::string *why, const std::string &v3User = "");

// The SNMPv2 InformRequest PDU of `trap` (the bindings of a kV2cInform,
// with a request-id of its own from net-snmp's sequence), for a sink that
// has net-snmp encode it: the caller frees it with snmp_free_pdu. Null with
// the reason in *why when net-snmp refuses a binding. Only on the thread
// that runs net-snmp.
snmp_pdu *informPdu(const Trap &trap, std::string *why);

// coldStart at the agent's start: generic 0, specific 0, no bindings, and
// kelp's own trap enterprise (kTrapEnterprise), so that a receiver files it
// with the storage traps of the same agent rather than under net-snmp's.
Trap coldStartTrap();

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPMESSAGE_H
