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

// A Get (SNMPv1: version 0, SNMPv2c: 1) of `count` varbinds, each of `name`.
Bytes repeatedGet(int version, const std::vector<uint64_t> &name, size_t count)
{
    const Bytes varbind = tlv(0x30, concat({objectIdentifier(name), Bytes{0x05, 0x00}}));
    Bytes varbinds;
    for (size_t i = 0; i < count; i++) {
        varbinds.insert(varbinds.end(), varbind.begin(), varbind.end());
    }
    const Bytes pdu =
        tlv(0xA0,
            concat({tlv(0x02, {0x12, 0x34}), tlv(0x02, {0}), tlv(0x02, {0}), tlv(0x30, varbinds)}));
    const Bytes community{'p', 'u', 'b', 'l', 'i', 'c'};
    return tlv(0x30,
               concat({tlv(0x02, {static_cast<uint8_t>(version)}), tlv(0x04, community), pdu}));
}

// Reads BER tag-length headers from a reply.
class Reader {
  public:
    explicit Reader(const Bytes &bytes) : bytes_(bytes) {}

    // The content length of the element at the cursor, which must have
    // `tag`; the cursor moves to its content. nullopt when it does not parse.
    std::optional<size_t> enter(uint8_t tag)
    {
        if (at_ + 2 > bytes_.size() || bytes_[at_] != tag) {
            return std::nullopt;
        }
        at_++;
        size_t length = bytes_[at_++];
        if ((length & 0x80) != 0) {
            const size_t octets = length & 0x7F;
            if (octets == 0 || octets > 4 || at_ + octets > bytes_.size()) {
                return std::nullopt;
            }
            length = 0;
            for (size_t i = 0; i < octets; i++) {
                length = length << 8 | bytes_[at_++];
            }
        }
        if (at_ + length > bytes_.size()) {
            return std::nullopt;
        }
        return length;
    }
    // Skips the element at the cursor, which must have `tag`.
    bool skip(uint8_t tag)
    {
        const std::optional<size_t> length = enter(tag);
        at_ += length.value_or(0);
        return length.has_value();
    }
    // The INTEGER at the cursor (up to 4 octets).
    std::optional<int64_t> integer()
    {
        const std::optional<size_t> length = enter(0x02);
        if (!length || *length == 0 || *length > 4) {
            return std::nullopt;
        }
        int64_t value = static_cast<int8_t>(bytes_[at_]);
        for (size_t i = 1; i < *length; i++) {
            value = value * 256 + bytes_[at_ + i];
        }
        at_ += *length;
        return value;
    }

  private:
    const Bytes &bytes_;
    size_t at_ = 0;
};

// A Response's error-status, error-index and the length of its varbind list.
struct ResponseHead {
    int64_t errorStatus = -1;
    int64_t errorIndex = -1;
    size_t varbindBytes = 0;
};

std::optional<ResponseHead> responseHead(const Bytes &reply)
{
    Reader reader(reply);
    ResponseHead head;
    if (!reader.enter(0x30) || !reader.integer() || !reader.skip(0x04) || !reader.enter(0xA2) ||
        !reader.integer()) {
        return std::nullopt;
    }
    const std::optional<int64_t> status = reader.integer();
    const std::optional<int64_t> index = reader.integer();
    const std::optional<size_t> varbinds = reader.enter(0x30);
    if (!status || !index || !varbinds) {
        return std::nullopt;
    }
    return ResponseHead{*status, *index, *varbinds};
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

TEST_F(AgentWire, AGetWhoseAnswerExceedsTheLargestDatagramIsAnsweredTooBig)
{
    // 2,900 Gets of root.3.0 ("Vorn Inc.") fit one request of about 55 KB,
    // but their answer would take about 80 KB: more than a UDP datagram
    // holds (65,507 bytes).
    for (const int version : {1, 0}) {
        const Bytes get = repeatedGet(version, below({3, 0}), 2900);
        ASSERT_LT(get.size(), 65507u);
        const std::optional<Bytes> reply = exchange(agent.port(), get);
        ASSERT_TRUE(reply.has_value()) << "version " << version << ": no answer";
        const std::optional<ResponseHead> head = responseHead(*reply);
        ASSERT_TRUE(head.has_value()) << "version " << version;
        EXPECT_EQ(head->errorStatus, 1) << "version " << version << ": not tooBig";
        EXPECT_EQ(head->errorIndex, 0) << "version " << version;
        if (version == 1) {
            // SNMPv2c: the varbind list of a tooBig answer is empty.
            EXPECT_EQ(head->varbindBytes, 0u);
        }
    }
    // One that fits is answered whole.
    const std::optional<Bytes> reply = exchange(agent.port(), repeatedGet(1, below({3, 0}), 1000));
    ASSERT_TRUE(reply.has_value());
    const std::optional<ResponseHead> head = responseHead(*reply);
    ASSERT_TRUE(head.has_value());
    EXPECT_EQ(head->errorStatus, 0);
    EXPECT_GT(head->varbindBytes, 1000u * 20);
    const std::string log = agent.process()->err();
    EXPECT_EQ(log.find("Failure in sendto"), std::string::npos) << log.substr(0, 2000);
}

} // namespace
} // namespace kelp::test
