// Start-up lines in words.
#include "startup.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <span>

#include "options.h"
#include "snmp/tree.h"

namespace kelp::agent {
namespace {

std::string dotted(std::span<const uint32_t> arcs)
{
    std::string text;
    for (uint32_t arc : arcs) {
        text += (text.empty() ? "" : ".") + std::to_string(arc);
    }
    return text;
}

// The arcs of `group` below the root, or empty when it is not below it.
std::vector<uint32_t> belowRoot(const std::vector<uint32_t> &arcs)
{
    if (arcs.size() <= kMibRootLength || !insideRoot(arcs)) {
        return {};
    }
    return {arcs.begin() + kMibRootLength, arcs.end()};
}

// The served table a table group of the definition names (by its first two
// arcs below the root), or null.
const ServedTable *servedTableOf(const std::vector<uint32_t> &below)
{
    if (below.size() < 2) {
        return nullptr;
    }
    for (const ServedTable &table : kServedTables) {
        if (table.group == below[0] && table.table == below[1]) {
            return &table;
        }
    }
    return nullptr;
}

std::string plural(size_t count, const char *one, const char *many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

} // namespace

MibSummary summariseMib(const std::vector<DefinedGroup> &groups)
{
    MibSummary summary;
    size_t scalarGroups = 0, tables = 0;
    std::vector<const ServedTable *> registered;
    const std::string root = dotted(kMibRoot);
    for (const DefinedGroup &group : groups) {
        const std::string name = dotted(group.arcs);
        const bool inside = !group.arcs.empty() && insideRoot(group.arcs);
        (group.table ? tables : scalarGroups)++;
        if (!inside) {
            summary.outside.push_back("the MIB definition's group " +
                                      (name.empty() ? std::string("(no name)") : name) +
                                      " lies outside " + root + " and is not answered");
        }
        std::string detail = "  " + (name.empty() ? std::string("(no name)") : name) + ": " +
                             (group.table ? "table" : "scalars") + ", " +
                             plural(group.columns, "column", "columns") + " defined";
        if (const ServedTable *table =
                group.table ? servedTableOf(belowRoot(group.arcs)) : nullptr) {
            registered.push_back(table);
            detail += ", " + std::to_string(table->columns) + " served";
        }
        summary.details.push_back(detail);
    }
    summary.definition = "the plug-in's MIB definition registers " +
                         plural(groups.size(), "group", "groups") + ": " +
                         plural(scalarGroups, "scalar group", "scalar groups") + " and " +
                         plural(tables, "table", "tables");
    std::string unregistered;
    size_t unregisteredCount = 0;
    for (const ServedTable &table : kServedTables) {
        bool found = false;
        for (const ServedTable *r : registered) {
            found = found || r == &table;
        }
        if (!found) {
            unregistered += (unregistered.empty() ? "" : ", ") + std::to_string(table.group) + "." +
                            std::to_string(table.table);
            unregisteredCount++;
        }
    }
    summary.served = "serving " + root +
                     " as one subtree: " + plural(std::size(kServedScalars), "scalar", "scalars") +
                     " and " + plural(std::size(kServedTables), "table", "tables");
    if (unregisteredCount > 0) {
        summary.served += " (" + std::to_string(unregisteredCount) +
                          " of them not in the definition, served all the same: " + unregistered +
                          ")";
    }
    return summary;
}

std::string pluginInfoLine(const std::string &path, const std::array<uint32_t, 3> &status,
                           const std::array<uint32_t, 3> &answer)
{
    std::string answers, failures;
    for (size_t i = 0; i < 3; i++) {
        if (status[i] == 0) {
            answers += (answers.empty() ? "" : ", ") + std::to_string(answer[i]);
        } else {
            answers += (answers.empty() ? "" : ", ") + std::string("-");
            failures += "; command " + std::to_string(i + 1) + " fails with status " +
                        std::to_string(status[i]);
        }
    }
    return "plug-in " + path + " loaded; its information answers (commands 1-3) are " + answers +
           failures;
}

std::string accessSummary(bool community, const std::vector<std::string> &v3Users,
                          const std::vector<std::string> &allow)
{
    const auto joined = [](const std::vector<std::string> &words) {
        std::string text;
        for (const std::string &word : words) {
            text += (text.empty() ? "" : ", ") + word;
        }
        return text;
    };
    std::string summary = community ? "community (SNMPv1/v2c, read-only)" : "";
    if (!v3Users.empty()) {
        summary += std::string(summary.empty() ? "" : " and ") +
                   (v3Users.size() == 1 ? "SNMPv3 user " : "SNMPv3 users ") + joined(v3Users) +
                   " (read-only)";
    }
    return summary + (allow.empty() ? " from any source" : " from " + joined(allow));
}

std::string answeringLine(const std::string &listen, const std::vector<std::string> &bound,
                          const std::string &access)
{
    std::string addresses;
    for (const std::string &address : bound) {
        addresses += (addresses.empty() ? "" : ", ") + address;
    }
    std::string line = "answering on ";
    if (addresses.empty()) {
        line += listen;
    } else {
        line += addresses;
        if (addresses != listen) {
            line += " (--listen " + listen + ")";
        }
    }
    return line + ", " + access;
}

std::string unusedBySubagent(const std::string &listen, const std::string &community)
{
    std::string given;
    if (listen != kDefaultListen) {
        given = "--listen " + listen;
    }
    if (community != kDefaultCommunity) {
        // The community is a secret: it is named by its option alone.
        given += (given.empty() ? "" : " and ") + std::string("--community");
    }
    if (given.empty()) {
        return "";
    }
    return given + " not used: an AgentX subagent answers on no address of its own; the "
                   "master's addresses, communities and access control apply";
}

std::string boundSocketText(int fd)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    int type = 0;
    socklen_t typeLength = sizeof type;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0 ||
        getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0) {
        return "";
    }
    const bool stream = type == SOCK_STREAM;
    char host[INET6_ADDRSTRLEN] = "";
    switch (address.ss_family) {
    case AF_INET: {
        const auto *in = reinterpret_cast<const sockaddr_in *>(&address);
        inet_ntop(AF_INET, &in->sin_addr, host, sizeof host);
        return std::string(stream ? "tcp:" : "udp:") + host + ":" +
               std::to_string(ntohs(in->sin_port));
    }
    case AF_INET6: {
        const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(&address);
        inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof host);
        return std::string(stream ? "tcp6:[" : "udp6:[") + host +
               "]:" + std::to_string(ntohs(in6->sin6_port));
    }
    case AF_UNIX: {
        const auto *un = reinterpret_cast<const sockaddr_un *>(&address);
        const size_t max =
            length > offsetof(sockaddr_un, sun_path) ? length - offsetof(sockaddr_un, sun_path) : 0;
        const std::string path(un->sun_path,
                               strnlen(un->sun_path, std::min(max, sizeof un->sun_path)));
        return path.empty() ? "" : "unix:" + path;
    }
    default:
        return "";
    }
}

} // namespace kelp::agent
