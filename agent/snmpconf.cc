// Configuration lines for net-snmp, made from the agent's options.
#include "snmpconf.h"

namespace kelp::agent {

std::vector<std::string> accessLines(const std::string &community)
{
    std::vector<std::string> lines = {
        "view kelpAll included .1",
        "view kelpStorage included .1.3.6.1.4.1.61234.20571.1.20",
    };
    if (community.empty()) {
        return lines;
    }
    // One security name for both address families, one group for both
    // versions: the same community answers the same on every listen address.
    // Sources are checked by the agent itself (--allow), for SNMPv3 too.
    lines.insert(lines.end(),
                 {
                     "com2sec kelpCommunity default " + community,
                     "com2sec6 kelpCommunity default " + community,
                     "com2secunix kelpCommunity default " + community,
                     "group kelpReaders v1 kelpCommunity",
                     "group kelpReaders v2c kelpCommunity",
                     "access kelpReaders \"\" any noauth exact kelpAll kelpStorage none",
                 });
    return lines;
}

std::vector<std::string> v3AccessLines(const std::vector<std::string> &users)
{
    std::vector<std::string> lines;
    for (const std::string &user : users) {
        lines.push_back("group kelpV3Readers usm " + user);
    }
    if (!users.empty()) {
        // "auth" is the least level: authNoPriv and authPriv.
        lines.push_back("access kelpV3Readers \"\" usm auth exact kelpAll kelpStorage none");
    }
    return lines;
}

std::string createUserArguments(const std::string &name, const std::string &authPass,
                                const std::string &privPass)
{
    return name + " " + kV3AuthProtocol + " " + authPass + " " + kV3PrivProtocol + " " + privPass;
}

std::vector<std::string> systemLines(const SystemIdentity &identity)
{
    return {
        "sysdescr " + identity.descr,
        std::string("sysobjectid ") + kAgentObjectId,
        "syscontact " + identity.contact,
        "sysname " + identity.name,
        "syslocation " + identity.location,
        // Applications (64) on an end-to-end host (8), as for any SNMP agent
        // that is not a router.
        "sysservices 72",
    };
}

std::string describeAgent(const std::string &version, const std::string &host,
                          const std::string &release)
{
    return "kelp " + version + " storage-management SNMP agent on " + host + " (Linux " + release +
           ")";
}

} // namespace kelp::agent
