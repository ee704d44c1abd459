// The head of an SNMPv1/v2c message read without net-snmp: version, PDU type
// and request-id, enough for an inform sink to match a receiver's Response
// to the inform it acknowledges. Datagrams from the network are untrusted:
// every length is checked against what was received.
#ifndef KELP_AGENT_TRAPS_PDUHEAD_H
#define KELP_AGENT_TRAPS_PDUHEAD_H

#include <cstdint>
#include <string_view>

namespace kelp::agent {

// PDU tags (context-specific, constructed) of the PDUs an inform sink meets.
inline constexpr uint8_t kResponsePduTag = 0xA2;
inline constexpr uint8_t kInformPduTag = 0xA6;

struct PduHead {
    int64_t version = -1; // 0 for v1, 1 for v2c
    uint8_t type = 0;     // the PDU's tag
    int32_t requestId = 0;
};

// Reads the head of `message`: SEQUENCE { INTEGER version, OCTET STRING
// community, PDU { INTEGER request-id, ... } }. False when the bytes are not
// such a message (truncated, a length past the end, a request-id that is not
// a 32-bit INTEGER, a v3 message); *head is then unspecified. The rest of
// the PDU is not looked at.
bool peekPdu(std::string_view message, PduHead *head);

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_PDUHEAD_H
