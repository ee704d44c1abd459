// net-snmp's address syntax, read with its resolvers.
#include "snmpaddress.h"

// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/snmpIPv4BaseDomain.h>
#include <net-snmp/library/snmpIPv6BaseDomain.h>

#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace kelp::agent {
namespace {

struct Domain {
    std::string_view name;
    SnmpTransport transport;
    int family;
};

// The domain names net-snmp registers for the transports kelpagent serves.
constexpr Domain kDomains[] = {
    {"udp", SnmpTransport::kUdp, AF_INET},      {"tcp", SnmpTransport::kTcp, AF_INET},
    {"udp6", SnmpTransport::kUdp, AF_INET6},    {"ipv6", SnmpTransport::kUdp, AF_INET6},
    {"udpv6", SnmpTransport::kUdp, AF_INET6},   {"udpipv6", SnmpTransport::kUdp, AF_INET6},
    {"tcp6", SnmpTransport::kTcp, AF_INET6},    {"tcpv6", SnmpTransport::kTcp, AF_INET6},
    {"tcpipv6", SnmpTransport::kTcp, AF_INET6}, {"unix", SnmpTransport::kUnixStream, AF_UNIX},
};

const Domain *findDomain(std::string_view text)
{
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return nullptr;
    }
    const std::string_view word = text.substr(0, colon);
    for (const Domain &domain : kDomains) {
        if (domain.name.size() == word.size() &&
            std::equal(word.begin(), word.end(), domain.name.begin(), [](char a, char b) {
                return std::tolower(static_cast<unsigned char>(a)) == b;
            })) {
            return &domain;
        }
    }
    return nullptr;
}

bool readAddress(int family, const std::string &text, const char *defaultPort, SnmpAddress *out)
{
    out->address = {};
    if (family == AF_INET) {
        sockaddr_in ipv4{};
        if (netsnmp_sockaddr_in2(&ipv4, text.c_str(), defaultPort) == 0) {
            return false;
        }
        std::memcpy(&out->address, &ipv4, sizeof ipv4);
        out->length = sizeof ipv4;
        return true;
    }
    if (family == AF_INET6) {
        sockaddr_in6 ipv6{};
        if (netsnmp_sockaddr_in6_2(&ipv6, text.c_str(), defaultPort) == 0) {
            return false;
        }
        std::memcpy(&out->address, &ipv6, sizeof ipv6);
        out->length = sizeof ipv6;
        return true;
    }
    sockaddr_un path{};
    if (text.empty() || text.size() >= sizeof path.sun_path) {
        return false;
    }
    path.sun_family = AF_UNIX;
    std::memcpy(path.sun_path, text.data(), text.size());
    std::memcpy(&out->address, &path, sizeof path);
    out->length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + 1);
    return true;
}

} // namespace

bool parseSnmpAddress(const std::string &text, const char *defaultPort, bool ipv6WithoutDomain,
                      SnmpAddress *out)
{
    if (const Domain *domain = findDomain(text)) {
        out->transport = domain->transport;
        return readAddress(domain->family, text.substr(domain->name.size() + 1), defaultPort, out);
    }
    if (text.starts_with('/')) {
        out->transport = SnmpTransport::kUnixStream;
        return readAddress(AF_UNIX, text, defaultPort, out);
    }
    out->transport = SnmpTransport::kUdp;
    return readAddress(AF_INET, text, defaultPort, out) ||
           (ipv6WithoutDomain && readAddress(AF_INET6, text, defaultPort, out));
}

} // namespace kelp::agent
