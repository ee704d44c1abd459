// Test helper: SNMP messages built byte by byte, as a receiver would send
// them, for the tests of the inform sink and of the head reader.
#ifndef KELP_AGENT_TRAPS_PDUHEAD_TESTING_H
#define KELP_AGENT_TRAPS_PDUHEAD_TESTING_H

#include <cstdint>
#include <string>

namespace kelp::agent::testing {

// A BER length.
inline std::string berLength(size_t length)
{
    if (length < 0x80) {
        return std::string(1, static_cast<char>(length));
    }
    std::string bytes;
    for (size_t rest = length; rest > 0; rest >>= 8) {
        bytes.insert(bytes.begin(), static_cast<char>(rest & 0xff));
    }
    return std::string(1, static_cast<char>(0x80 | bytes.size())) + bytes;
}

inline std::string tlv(uint8_t tag, const std::string &value)
{
    return std::string(1, static_cast<char>(tag)) + berLength(value.size()) + value;
}

// The shortest two's-complement INTEGER.
inline std::string berInteger(int64_t value)
{
    std::string bytes;
    int64_t rest = value;
    do {
        bytes.insert(bytes.begin(), static_cast<char>(rest & 0xff));
        rest >>= 8;
    } while (!((rest == 0 && (bytes[0] & 0x80) == 0) || (rest == -1 && (bytes[0] & 0x80) != 0)));
    return tlv(0x02, bytes);
}

// SEQUENCE { version, community, PDU(tag) { request-id, 0, 0, {} } }.
inline std::string snmpMessage(uint8_t pduTag, int32_t requestId, int64_t version = 1,
                               const std::string &community = "public")
{
    const std::string pdu = berInteger(requestId) + berInteger(0) + berInteger(0) + tlv(0x30, "");
    return tlv(0x30, berInteger(version) + tlv(0x04, community) + tlv(pduTag, pdu));
}

} // namespace kelp::agent::testing

#endif // KELP_AGENT_TRAPS_PDUHEAD_TESTING_H
