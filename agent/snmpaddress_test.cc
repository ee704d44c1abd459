// net-snmp's address syntax as --listen and --trap-sink take it: domains in
// any case, the default port, IPv6 for a sink without a domain, Unix stream
// paths, and addresses that do not resolve. Numeric addresses only, so that
// no name service is asked.
#include "snmpaddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <string>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

struct Case {
    const char *text;
    bool ipv6WithoutDomain;
    SnmpTransport transport;
    int family;
    const char *address; // numeric, or the Unix path
    int port;
};

constexpr Case kGood[] = {
    {"udp:127.0.0.1:1162", false, SnmpTransport::kUdp, AF_INET, "127.0.0.1", 1162},
    {"tcp:127.0.0.1:1162", false, SnmpTransport::kTcp, AF_INET, "127.0.0.1", 1162},
    {"TCP:127.0.0.1:5", false, SnmpTransport::kTcp, AF_INET, "127.0.0.1", 5},
    {"127.0.0.1:1162", true, SnmpTransport::kUdp, AF_INET, "127.0.0.1", 1162},
    {"127.0.0.1", true, SnmpTransport::kUdp, AF_INET, "127.0.0.1", 162},
    {"udp:127.0.0.1", true, SnmpTransport::kUdp, AF_INET, "127.0.0.1", 162},
    {"udp6:[::1]:1162", false, SnmpTransport::kUdp, AF_INET6, "::1", 1162},
    {"ipv6:[::1]:9", false, SnmpTransport::kUdp, AF_INET6, "::1", 9},
    {"udpipv6:[::1]:9", false, SnmpTransport::kUdp, AF_INET6, "::1", 9},
    {"tcp6:[::1]", false, SnmpTransport::kTcp, AF_INET6, "::1", 162},
    {"tcpv6:[::1]:10", false, SnmpTransport::kTcp, AF_INET6, "::1", 10},
    {"[::1]:1162", true, SnmpTransport::kUdp, AF_INET6, "::1", 1162},
    {"unix:/tmp/kelp/sink.sock", false, SnmpTransport::kUnixStream, AF_UNIX, "/tmp/kelp/sink.sock",
     0},
    {"/tmp/kelp/sink.sock", false, SnmpTransport::kUnixStream, AF_UNIX, "/tmp/kelp/sink.sock", 0},
};

TEST(SnmpAddress, EveryDomainReadsAsNetSnmpReadsIt)
{
    for (const Case &c : kGood) {
        SnmpAddress out;
        ASSERT_TRUE(parseSnmpAddress(c.text, ":162", c.ipv6WithoutDomain, &out)) << c.text;
        EXPECT_EQ(out.transport, c.transport) << c.text;
        ASSERT_EQ(out.address.ss_family, c.family) << c.text;
        char text[INET6_ADDRSTRLEN] = {};
        if (c.family == AF_INET) {
            const auto *ipv4 = reinterpret_cast<const sockaddr_in *>(&out.address);
            inet_ntop(AF_INET, &ipv4->sin_addr, text, sizeof text);
            EXPECT_EQ(ntohs(ipv4->sin_port), c.port) << c.text;
            EXPECT_EQ(out.length, sizeof(sockaddr_in)) << c.text;
        } else if (c.family == AF_INET6) {
            const auto *ipv6 = reinterpret_cast<const sockaddr_in6 *>(&out.address);
            inet_ntop(AF_INET6, &ipv6->sin6_addr, text, sizeof text);
            EXPECT_EQ(ntohs(ipv6->sin6_port), c.port) << c.text;
            EXPECT_EQ(out.length, sizeof(sockaddr_in6)) << c.text;
        } else {
            EXPECT_STREQ(reinterpret_cast<const sockaddr_un *>(&out.address)->sun_path, c.address)
                << c.text;
            continue;
        }
        EXPECT_STREQ(text, c.address) << c.text;
    }
}

TEST(SnmpAddress, AnIpv6AddressWithoutDomainIsASinksOnly)
{
    SnmpAddress out;
    EXPECT_FALSE(parseSnmpAddress("[::1]:1161", nullptr, false, &out));
    EXPECT_TRUE(parseSnmpAddress("[::1]:1161", nullptr, true, &out));
}

TEST(SnmpAddress, WhatDoesNotResolveIsRefused)
{
    const std::string longPath = "unix:/" + std::string(sizeof(sockaddr_un{}.sun_path), 'p');
    for (const std::string text : {"udp:127.0.0.1:99999", "tcp:127.0.0.1:-1", "udp6:[::1]:70000",
                                   "unix:", longPath.c_str()}) {
        SnmpAddress out;
        EXPECT_FALSE(parseSnmpAddress(text, ":162", true, &out)) << text;
    }
}

} // namespace
} // namespace kelp::agent
