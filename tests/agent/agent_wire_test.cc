// Requests net-snmp's client tools cannot send, built byte by byte: names
// with an arc above 2^32-1 and names longer than 128 arcs. Whatever the agent
// does with them (net-snmp's decoder drops such a packet; a name that got
// through would be noSuchObject), it answers nothing wrong and stays up.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "snmpload.h"
#include "testkit.h"

namespace kelp::test {
namespace {

// An SNMPv2c request (0xA0 Get, 0xA1 GetNext) for one name, community public.
Bytes request(uint8_t pduTag, const std::vector<uint64_t> &name)
{
    const Bytes varbind = tlv(0x30, concat({objectIdentifier(name), Bytes{0x05, 0x00}}));
    const Bytes pdu =
        tlv(pduTag,
            concat({tlv(0x02, {0x12, 0x34}), tlv(0x02, {0}), tlv(0x02, {0}), tlv(0x30, varbind)}));
    const Bytes community{'p', 'u', 'b', 'l', 'i', 'c'};
    return tlv(0x30, concat({tlv(0x02, {1}), tlv(0x04, community), pdu}));
}

// Sends `packet` to the agent; the reply, or nullopt after 1 s of silence
// (loopback answers take milliseconds).
std::optional<Bytes> exchange(int port, const Bytes &packet)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(port));
    sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    pollfd ready{fd, POLLIN, 0};
    std::optional<Bytes> reply;
    if (poll(&ready, 1, 1000) == 1) {
        Bytes buffer(65536);
        const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
        if (n > 0) {
            buffer.resize(static_cast<size_t>(n));
            reply = buffer;
        }
    }
    close(fd);
    return reply;
}

std::vector<uint64_t> below(std::initializer_list<uint64_t> tail)
{
    std::vector<uint64_t> name{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};
    name.insert(name.end(), tail);
    return name;
}

class AgentWire : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/test/minimal.xml"), {}, &why)) << why;
    }
    void TearDown() override
    {
        // Still alive and well: a plain Get is answered.
        const RunResult get = agent.snmp("snmpget", {std::string(kRoot) + ".3.0"});
        EXPECT_EQ(get.status, 0) << get.err;
        EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
    }
    AgentUnderTest agent;
};

TEST_F(AgentWire, TheEncoderMatchesWhatTheToolsSend)
{
    // A well-formed request of ours is answered, so silence below means
    // the agent refused the name, not the packet.
    const std::optional<Bytes> reply = exchange(agent.port(), request(0xA0, below({3, 0})));
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ((*reply)[0], 0x30);
}

TEST_F(AgentWire, AnArcAboveThirtyTwoBitsIsNeverAnsweredAsAnotherName)
{
    for (const uint8_t pdu : {uint8_t{0xA0}, uint8_t{0xA1}}) {
        for (const uint64_t wide : {1ull << 32, ~0ull >> 1}) {
            const std::optional<Bytes> reply =
                exchange(agent.port(), request(pdu, below({3, wide})));
            if (!reply) {
                continue; // dropped by net-snmp's decoder
            }
            // Get: noSuchObject (0x80 0x00 ends the message); GetNext: a
            // name after the wide arc, never root.3.0's "Vorn Inc.".
            const std::string text(reply->begin(), reply->end());
            EXPECT_EQ(text.find("Vorn Inc."), std::string::npos) << int{pdu} << " " << wide;
            if (pdu == 0xA0) {
                ASSERT_GE(reply->size(), 2u);
                EXPECT_EQ((*reply)[reply->size() - 2], 0x80) << wide;
            }
        }
    }
}

TEST_F(AgentWire, NamesLongerThanTheProtocolAllowsAreRefused)
{
    for (const size_t length : {129u, 1000u}) {
        std::vector<uint64_t> name = below({3, 0});
        name.resize(length, 1);
        const std::optional<Bytes> reply = exchange(agent.port(), request(0xA1, name));
        if (reply) {
            const std::string text(reply->begin(), reply->end());
            EXPECT_EQ(text.find("Vorn Inc."), std::string::npos) << length;
        }
    }
}

} // namespace
} // namespace kelp::test
