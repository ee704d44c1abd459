// A bounded BER reader for the head of an SNMP message.
#include "traps/pduhead.h"

#include <cstddef>

namespace kelp::agent {
namespace {

// One tag-length-value at the front of `in`: the tag, the value, and `in`
// advanced past it. Definite lengths only, as SNMP's BER uses.
bool readTlv(std::string_view *in, uint8_t *tag, std::string_view *value)
{
    if (in->size() < 2) {
        return false;
    }
    *tag = static_cast<uint8_t>((*in)[0]);
    const auto first = static_cast<uint8_t>((*in)[1]);
    size_t at = 2;
    size_t length = first;
    if (first & 0x80) {
        const size_t bytes = first & 0x7f;
        // 0x80 is the indefinite form; four bytes of length are more than
        // any datagram.
        if (bytes == 0 || bytes > 4 || in->size() < at + bytes) {
            return false;
        }
        length = 0;
        for (size_t i = 0; i < bytes; i++) {
            length = length << 8 | static_cast<uint8_t>((*in)[at++]);
        }
    }
    if (in->size() - at < length) {
        return false;
    }
    *value = in->substr(at, length);
    in->remove_prefix(at + length);
    return true;
}

// A two's-complement INTEGER of 1 to 8 bytes.
bool readInteger(std::string_view *in, int64_t *out)
{
    uint8_t tag = 0;
    std::string_view value;
    if (!readTlv(in, &tag, &value) || tag != 0x02 || value.empty() || value.size() > 8) {
        return false;
    }
    uint64_t bits = static_cast<uint8_t>(value[0]) & 0x80 ? ~uint64_t{0} : 0;
    for (const char byte : value) {
        bits = bits << 8 | static_cast<uint8_t>(byte);
    }
    *out = static_cast<int64_t>(bits);
    return true;
}

} // namespace

bool peekPdu(std::string_view message, PduHead *head)
{
    uint8_t tag = 0;
    std::string_view body;
    if (!readTlv(&message, &tag, &body) || tag != 0x30) {
        return false;
    }
    std::string_view community;
    if (!readInteger(&body, &head->version) || (head->version != 0 && head->version != 1) ||
        !readTlv(&body, &tag, &community) || tag != 0x04) {
        return false;
    }
    std::string_view pdu;
    if (!readTlv(&body, &head->type, &pdu) || (head->type & 0xE0) != 0xA0) {
        return false;
    }
    int64_t requestId = 0;
    if (!readInteger(&pdu, &requestId) || requestId < INT32_MIN || requestId > INT32_MAX) {
        return false;
    }
    head->requestId = static_cast<int32_t>(requestId);
    return true;
}

} // namespace kelp::agent
