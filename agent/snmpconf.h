// The configuration lines kelpagent hands net-snmp in place of the files it
// does not read: access for the community (IPv4 and IPv6 sources alike)
// and the system group's values. Plain text, so that what the agent
// configures can be tested without net-snmp. Trap sinks are kelp's own
// (traps/trapsinks.h), not net-snmp's.
#ifndef KELP_AGENT_SNMPCONF_H
#define KELP_AGENT_SNMPCONF_H

#include <string>
#include <vector>

namespace kelp::agent {

// The object identifier kelpagent answers as sysObjectID: the storage MIB's
// root under the enterprise (sysORTable's row is stdgroups.h's).
inline constexpr const char *kAgentObjectId = ".1.3.6.1.4.1.61234.20571.1.20";

// Read access to everything the agent serves for `community` from any IPv4
// or IPv6 source, v1 and v2c. Write access covers the storage subtree alone:
// it only lets a Set through to the handler, which refuses it as
// notWritable (read-only access would answer noAccess instead).
// The views; with an empty `community` nothing more (no SNMPv1 or v2c
// access).
std::vector<std::string> accessLines(const std::string &community);

// net-snmp's names of the protocols every SNMPv3 user of the agent has:
// Debian 12's net-snmp 5.9.3 is built with SHA-512 (usmHMAC384SHA512) and
// AES-256 (the Blumenthal draft's key extension, usmAES256PrivProtocol).
inline constexpr const char *kV3AuthProtocol = "SHA-512";
inline constexpr const char *kV3PrivProtocol = "AES-256";

// Read access, as for the community, for each SNMPv3 user of `users` that
// authenticates (authNoPriv or authPriv); noAuthNoPriv is refused.
std::vector<std::string> v3AccessLines(const std::vector<std::string> &users);

// The arguments of net-snmp's createUser for one user:
// "NAME SHA-512 AUTHPASS AES-256 PRIVPASS". Holds the pass phrases: the
// caller hands it to the USM in memory only and wipes it.
std::string createUserArguments(const std::string &name, const std::string &authPass,
                                const std::string &privPass);

struct SystemIdentity {
    std::string descr;    // sysDescr
    std::string contact;  // sysContact
    std::string name;     // sysName
    std::string location; // sysLocation
};

// sysDescr, sysObjectID (kAgentObjectId), sysContact, sysName, sysLocation,
// sysServices.
std::vector<std::string> systemLines(const SystemIdentity &identity);

// "kelp VERSION storage-management SNMP agent on HOST (Linux RELEASE)".
std::string describeAgent(const std::string &version, const std::string &host,
                          const std::string &release);

} // namespace kelp::agent

#endif // KELP_AGENT_SNMPCONF_H
