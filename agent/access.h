// Who may query the agent: the source networks of --allow, and the SNMPv3
// users with their pass phrases from the --v3-keys file. Plain data and
// checks, without net-snmp, so that they are tested on their own.
#ifndef KELP_AGENT_ACCESS_H
#define KELP_AGENT_ACCESS_H

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelp::agent {

// One IPv4 or IPv6 network: the address with its host bits cleared and the
// prefix length.
struct Network {
    int family = AF_INET; // AF_INET or AF_INET6
    std::array<uint8_t, 16> bytes{};
    int prefix = 0;
};

// Parses "ADDRESS/PREFIX" or a bare ADDRESS (a single host), IPv4 or IPv6,
// into *network. Host bits set below the prefix are an error, as they most
// often mean a typing mistake. False with a message otherwise.
bool parseNetwork(const std::string &text, Network *network, std::string *error);

// True when `address` (an AF_INET or AF_INET6 socket address of `length`
// bytes) lies in `network`. An IPv4-mapped IPv6 address (::ffff:a.b.c.d)
// matches the IPv4 networks. Any other family never matches.
bool networkContains(const Network &network, const sockaddr *address, size_t length);

// True when `networks` is empty (every source may query) or one of them
// holds `address`.
bool sourceAllowed(const std::vector<Network> &networks, const sockaddr *address, size_t length);

// The IP address of `address` (an AF_INET or AF_INET6 socket address of
// `length` bytes) without its port (a manager uses a new port for each
// request), as the log names a source: "a local process" for a Unix
// socket's peer, "an unknown source" for anything else.
std::string sourceText(const sockaddr *address, size_t length);

// An SNMPv3 user and its two pass phrases.
struct V3Key {
    std::string name;
    std::string authPass;
    std::string privPass;
};

// net-snmp's shortest pass phrase (USM_LENGTH_P_MIN), and the longest the
// agent takes (net-snmp's line parser would cut a much longer one silently).
inline constexpr size_t kMinPassPhrase = 8;
inline constexpr size_t kMaxPassPhrase = 256;
// The largest key file read.
inline constexpr size_t kMaxKeyFileBytes = 1 << 20;

// Parses the key file's text: one user a line as "NAME AUTHPASS PRIVPASS",
// blank lines and "#" comments skipped. Names and pass phrases are words of
// printable characters without quotes or backslashes (they reach net-snmp's
// line parser); a pass phrase has kMinPassPhrase to kMaxPassPhrase bytes, a
// name at most 32. Messages
// name the line, never a pass phrase. False with a message for a bad line or
// a name given twice.
bool parseV3Keys(const std::string &text, std::vector<V3Key> *keys, std::string *error);

// The user the agent runs as after start (--user), when it is not the one
// that reads the key file.
struct KeyFileUser {
    uid_t uid;
    std::string name;
};

// Reads the key file at `path` (a symbolic link leads to the file it
// names) for the users named in `users`: refused when it is not a regular
// file, belongs neither to this process's user nor to `runAs`, or is
// readable or writable by its group or others (mode & 077). Every user in
// `users` must have a line; *keys receives their keys in the order of
// `users`. False with a message otherwise.
bool readV3Keys(const std::string &path, const std::vector<std::string> &users,
                std::vector<V3Key> *keys, std::string *error,
                const std::optional<KeyFileUser> &runAs = std::nullopt);

// Overwrites the pass phrases held by *keys before they are freed.
void wipeV3Keys(std::vector<V3Key> *keys);

} // namespace kelp::agent

#endif // KELP_AGENT_ACCESS_H
