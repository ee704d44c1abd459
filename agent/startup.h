// The start-up lines of the agent in words: the plug-in's information
// answers, what its MIB definition registers against what the agent serves
// (every table of the tree, registered or not), and the addresses net-snmp
// actually bound. Free of net-snmp and of the plug-in, so they are tested
// alone.
#ifndef KELP_AGENT_STARTUP_H
#define KELP_AGENT_STARTUP_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kelp::agent {

// One group of the plug-in's MIB definition.
struct DefinedGroup {
    std::vector<uint32_t> arcs; // the group's root (a table's: its entry)
    bool table = false;         // has index columns
    uint32_t columns = 0;
};

struct MibSummary {
    // "the plug-in's MIB definition registers 22 groups: 4 scalar groups and 18 tables"
    std::string definition;
    // "serving 1.3.6.1.4.1.61234.20571.1.20 as one subtree: 17 scalars and 24 tables
    // (6 not in the definition: 130.17, ...)"
    std::string served;
    // One line per group outside the served subtree (never answered).
    std::vector<std::string> outside;
    // One line per group: its name, kind, columns defined and served.
    std::vector<std::string> details;
};

MibSummary summariseMib(const std::vector<DefinedGroup> &groups);

// "plug-in PATH loaded; its information answers (commands 1-3) are 1, 0, 0",
// naming a command whose status is not 0.
std::string pluginInfoLine(const std::string &path, const std::array<uint32_t, 3> &status,
                           const std::array<uint32_t, 3> &answer);

// Who the agent answers, for the start-up line, naming no secret:
// "community (SNMPv1/v2c, read-only)" when `community` is set, "SNMPv3
// users a, b (read-only)" for `v3Users`, joined by " and ", then " from any
// source" or " from " and the --allow networks.
std::string accessSummary(bool community, const std::vector<std::string> &v3Users,
                          const std::vector<std::string> &allow);

// "answering on udp:0.0.0.0:1161 (--listen 1161), ACCESS": the bound
// addresses, and the --listen text when it says something else; the
// --listen text alone when none is known; `access` (accessSummary) last.
std::string answeringLine(const std::string &listen, const std::vector<std::string> &bound,
                          const std::string &access);

// For an AgentX subagent: the warning that the --listen and --community it
// was given (`listen`, `community`, when not the defaults) are not used,
// since the master answers the managers; empty when both are the defaults.
std::string unusedBySubagent(const std::string &listen, const std::string &community);

// The address a socket is bound to, in net-snmp's transport syntax:
// "udp:127.0.0.1:1161", "udp6:[::1]:1161", "tcp:0.0.0.0:1161",
// "unix:/path"; empty when `fd` is not an IP or Unix socket.
std::string boundSocketText(int fd);

} // namespace kelp::agent

#endif // KELP_AGENT_STARTUP_H
