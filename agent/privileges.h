// Who kelpagent runs as: it refuses root unless told (--allow-root), and
// started as root with --user it hands its files to that user and becomes
// it once its ports are bound.
#ifndef KELP_AGENT_PRIVILEGES_H
#define KELP_AGENT_PRIVILEGES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelp::agent {

// The user --user names, as the system's user database has it.
struct RunAs {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
};

// Why an agent with effective user `euid` may not start with these options,
// or "" when it may: root needs --user or --allow-root; --user needs root
// (or to name the user the agent already is).
std::string startRefusal(uid_t euid, bool allowRoot, const std::string &user, uid_t userUid);

// Looks `name` up in the user database. False with a message when there is
// no such user.
bool lookUpUser(const std::string &name, RunAs *user, std::string *error);

// Gives `user` what the agent made as root before it dropped root: every
// root-owned entry of the agent's own in `stateDir` (isKelpStateEntry;
// the snmp dir walked without following links), the state dir itself when
// it is root's and holds nothing else, and each of `files` that is
// root-owned and not a directory (never walked: a path outside the state
// dir given by mistake as a directory must not hand that tree over).
// Missing paths are skipped. False with a message when a chown fails.
bool handOver(const std::string &stateDir, const std::vector<std::string> &files, const RunAs &user,
              std::string *error);

// Becomes `user` for good: setgroups to its primary group alone, setgid,
// setuid (every thread of the process changes with it); checks that root
// cannot be regained. False with a message otherwise (the caller must
// stop).
bool dropPrivileges(const RunAs &user, std::string *error);

} // namespace kelp::agent

#endif // KELP_AGENT_PRIVILEGES_H
