// Configuration lines for net-snmp, made from the agent's options.
#include "snmpconf.h"

namespace kelp::agent {

std::vector<std::string> accessLines(const std::string &community)
{
    // One security name for both address families, one group for both
    // versions: the same community answers the same on every listen address.
    return {
        "com2sec kelpCommunity default " + community,
        "com2sec6 kelpCommunity default " + community,
        "group kelpReaders v1 kelpCommunity",
        "group kelpReaders v2c kelpCommunity",
        "view kelpAll included .1",
        "view kelpStorage included .1.3.6.1.4.1.61234.20571.1.20",
        "access kelpReaders \"\" any noauth exact kelpAll kelpStorage none",
    };
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
