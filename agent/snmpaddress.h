// Addresses in net-snmp's transport syntax, as --listen and --trap-sink take
// them ("udp:127.0.0.1:1161", "tcp6:[::1]:162", "host:port", "host"), read
// with net-snmp's own resolvers so that kelpagent accepts what net-snmp
// accepts.
#ifndef KELP_AGENT_SNMPADDRESS_H
#define KELP_AGENT_SNMPADDRESS_H

#include <sys/socket.h>

#include <string>

namespace kelp::agent {

enum class SnmpTransport { kUdp, kTcp, kUnixStream };

struct SnmpAddress {
    SnmpTransport transport = SnmpTransport::kUdp;
    sockaddr_storage address{}; // AF_INET, AF_INET6 or AF_UNIX
    socklen_t length = 0;
};

// Reads one address. The domain before the first colon is one of net-snmp's
// names (udp; tcp; udp6, ipv6, udpv6, udpipv6; tcp6, tcpv6, tcpipv6; unix),
// in any case; a word there that names no domain is part of the address,
// which is then UDP: over IPv4, or over IPv6 when `ipv6WithoutDomain` and
// IPv4 does not read it. A text starting with '/' is a Unix stream socket.
// `defaultPort` (for example ":162") applies when the address names none.
// False when the address does not resolve (a name lookup may block); a
// domain kelpagent does not serve (tls, dtls, ...) is read as part of the
// address and fails too.
bool parseSnmpAddress(const std::string &text, const char *defaultPort, bool ipv6WithoutDomain,
                      SnmpAddress *out);

} // namespace kelp::agent

#endif // KELP_AGENT_SNMPADDRESS_H
