// Reading the head of SNMP messages: the request-id of an inform and of the
// Response that acknowledges it; whatever else arrives (truncated, garbage,
// lengths past the end, v3, a v1 trap without request-id) is refused
// without reading past the bytes given.
#include "traps/pduhead.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "traps/pduhead_testing.h"

namespace kelp::agent {
namespace {

TEST(PduHead, TheRequestIdOfAnInformAndOfItsResponse)
{
    for (const int32_t id : {0, 1, 127, 128, 255, 256, 65535, 0x7fffffff, -1, -129, INT32_MIN}) {
        PduHead inform, response;
        ASSERT_TRUE(peekPdu(testing::snmpMessage(kInformPduTag, id), &inform)) << id;
        EXPECT_EQ(inform.version, 1);
        EXPECT_EQ(inform.type, kInformPduTag);
        EXPECT_EQ(inform.requestId, id);
        ASSERT_TRUE(peekPdu(testing::snmpMessage(kResponsePduTag, id, 0), &response)) << id;
        EXPECT_EQ(response.version, 0);
        EXPECT_EQ(response.type, kResponsePduTag);
        EXPECT_EQ(response.requestId, id);
    }
}

TEST(PduHead, ALongFormLengthIsRead)
{
    // A community of 300 bytes makes the outer length take two bytes.
    const std::string message =
        testing::snmpMessage(kResponsePduTag, 4242, 1, std::string(300, 'c'));
    ASSERT_EQ(static_cast<uint8_t>(message[1]), 0x82);
    PduHead head;
    ASSERT_TRUE(peekPdu(message, &head));
    EXPECT_EQ(head.requestId, 4242);
}

TEST(PduHead, WhatIsNoSnmpv1Or2cMessageWithARequestIdIsRefused)
{
    const std::string good = testing::snmpMessage(kResponsePduTag, 77);
    std::vector<std::string> bad{
        "",
        std::string(1, '\x30'),
        "garbage that is not BER at all",
        std::string("\x30\x80\x02\x01\x01", 5),         // indefinite length
        std::string("\x30\x85\x00\x00\x00\x00\x10", 7), // five length bytes
        std::string("\x30\x7f\x02\x01\x01", 5),         // length past the end
        testing::snmpMessage(kResponsePduTag, 77, 3),   // SNMPv3
        testing::snmpMessage(0x04, 77),                 // not a PDU tag
    };
    // Every truncation of a good message.
    for (size_t length = 0; length < good.size(); length++) {
        bad.push_back(good.substr(0, length));
    }
    // A v1 Trap-PDU starts with the enterprise, not a request-id.
    std::string trap = good;
    trap[trap.find(static_cast<char>(kResponsePduTag))] = static_cast<char>(0xA4);
    const size_t id = trap.find(static_cast<char>(0xA4)) + 2;
    trap[id] = 0x06;
    bad.push_back(trap);
    for (const std::string &message : bad) {
        // A copy of exactly the bytes, so that the sanitizers see any overread.
        const std::vector<char> bytes(message.begin(), message.end());
        PduHead head;
        EXPECT_FALSE(peekPdu(std::string_view(bytes.data(), bytes.size()), &head))
            << ::testing::PrintToString(message);
    }
}

} // namespace
} // namespace kelp::agent
