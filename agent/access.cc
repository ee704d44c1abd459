// Source networks and SNMPv3 keys, checked without net-snmp.
#include "access.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace kelp::agent {
namespace {

bool bitsMatch(const uint8_t *a, const uint8_t *b, int prefix)
{
    const int whole = prefix / 8;
    if (std::memcmp(a, b, static_cast<size_t>(whole)) != 0) {
        return false;
    }
    const int rest = prefix % 8;
    if (rest == 0) {
        return true;
    }
    const auto mask = static_cast<uint8_t>(0xff << (8 - rest));
    return (a[whole] & mask) == (b[whole] & mask);
}

// A word net-snmp's line parser keeps whole: printable, no blanks, quotes
// or backslashes.
bool plainWord(const std::string &word)
{
    return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u > 0x20 && u < 0x7f && c != '"' && c != '\'' && c != '\\';
    });
}

void wipe(std::string *text)
{
    volatile char *bytes = text->data();
    for (size_t i = 0; i < text->size(); i++) {
        bytes[i] = 0;
    }
    text->clear();
}

} // namespace

bool parseNetwork(const std::string &text, Network *network, std::string *error)
{
    const auto fail = [&] {
        *error = "--allow takes an IPv4 or IPv6 network as ADDRESS/PREFIX, not \"" + text + "\"";
        return false;
    };
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    Network parsed;
    if (inet_pton(AF_INET, address.c_str(), parsed.bytes.data()) == 1) {
        parsed.family = AF_INET;
    } else if (inet_pton(AF_INET6, address.c_str(), parsed.bytes.data()) == 1) {
        parsed.family = AF_INET6;
    } else {
        return fail();
    }
    const int bits = parsed.family == AF_INET ? 32 : 128;
    parsed.prefix = bits;
    if (slash != std::string::npos) {
        const std::string digits = text.substr(slash + 1);
        if (digits.empty() || digits.size() > 3 ||
            !std::all_of(digits.begin(), digits.end(),
                         [](char c) { return c >= '0' && c <= '9'; })) {
            return fail();
        }
        parsed.prefix = std::atoi(digits.c_str());
        if (parsed.prefix > bits) {
            return fail();
        }
    }
    Network cleared = parsed;
    for (int bit = parsed.prefix; bit < bits; bit++) {
        cleared.bytes[static_cast<size_t>(bit / 8)] &= static_cast<uint8_t>(~(0x80 >> (bit % 8)));
    }
    if (cleared.bytes != parsed.bytes) {
        *error = "--allow " + text + " has host bits set below its prefix";
        return false;
    }
    *network = parsed;
    return true;
}

bool networkContains(const Network &network, const sockaddr *address, size_t length)
{
    if (address == nullptr) {
        return false;
    }
    const uint8_t *bytes = nullptr;
    int family = address->sa_family;
    if (family == AF_INET && length >= sizeof(sockaddr_in)) {
        bytes = reinterpret_cast<const uint8_t *>(
            &reinterpret_cast<const sockaddr_in *>(address)->sin_addr);
    } else if (family == AF_INET6 && length >= sizeof(sockaddr_in6)) {
        const in6_addr *in6 = &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
        bytes = reinterpret_cast<const uint8_t *>(in6);
        if (IN6_IS_ADDR_V4MAPPED(in6) && network.family == AF_INET) {
            family = AF_INET;
            bytes += 12;
        }
    } else {
        return false;
    }
    return family == network.family && bitsMatch(bytes, network.bytes.data(), network.prefix);
}

bool sourceAllowed(const std::vector<Network> &networks, const sockaddr *address, size_t length)
{
    return networks.empty() ||
           std::any_of(networks.begin(), networks.end(), [&](const Network &network) {
               return networkContains(network, address, length);
           });
}

std::string sourceText(const sockaddr *address, size_t length)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address != nullptr && length >= sizeof(sockaddr_in) && address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(address)->sin_addr, text,
                  sizeof text);
    } else if (address != nullptr && length >= sizeof(sockaddr_in6) &&
               address->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr, text,
                  sizeof text);
    }
    if (text[0] == '\0' && address != nullptr && length >= sizeof(sa_family_t) &&
        address->sa_family == AF_UNIX) {
        return "a local process";
    }
    return text[0] != '\0' ? text : "an unknown source";
}

bool parseV3Keys(const std::string &text, std::vector<V3Key> *keys, std::string *error)
{
    std::vector<V3Key> parsed;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); number++) {
        const auto fail = [&](const std::string &what) {
            *error = "line " + std::to_string(number) + ": " + what;
            wipe(&line);
            wipeV3Keys(&parsed);
            return false;
        };
        // Some editors begin a UTF-8 file with a byte order mark.
        if (number == 1 && line.starts_with("\xEF\xBB\xBF"))
            line.erase(0, 3);
        std::istringstream words(line);
        V3Key key;
        if (!(words >> key.name) || key.name[0] == '#') {
            continue;
        }
        std::string extra;
        if (!(words >> key.authPass >> key.privPass) || (words >> extra)) {
            wipe(&key.authPass);
            wipe(&key.privPass);
            wipe(&extra);
            return fail("expected NAME AUTHPASS PRIVPASS");
        }
        std::string fault;
        if (!plainWord(key.name) || !plainWord(key.authPass) || !plainWord(key.privPass)) {
            fault = "names and pass phrases are printable words without quotes or backslashes";
        } else if (key.authPass.size() < kMinPassPhrase || key.privPass.size() < kMinPassPhrase ||
                   key.authPass.size() > kMaxPassPhrase || key.privPass.size() > kMaxPassPhrase) {
            fault = "a pass phrase has " + std::to_string(kMinPassPhrase) + " to " +
                    std::to_string(kMaxPassPhrase) + " characters";
        } else if (key.name.size() > 32) {
            fault = "a user name has at most 32 characters";
        } else if (std::any_of(parsed.begin(), parsed.end(),
                               [&](const V3Key &k) { return k.name == key.name; })) {
            fault = "user " + key.name + " is given twice";
        }
        if (!fault.empty()) {
            wipe(&key.authPass);
            wipe(&key.privPass);
            return fail(fault);
        }
        parsed.push_back(std::move(key));
        wipe(&line);
    }
    *keys = std::move(parsed);
    return true;
}

bool readV3Keys(const std::string &path, const std::vector<std::string> &users,
                std::vector<V3Key> *keys, std::string *error,
                const std::optional<KeyFileUser> &runAs)
{
    // O_NONBLOCK: a FIFO opens at once instead of waiting for a writer, and
    // is refused below. A symbolic link (a mounted secret's, say) is
    // followed: what is checked is the file read.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *error = "--v3-keys " + path + ": cannot open: " + std::strerror(errno);
        return false;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        *error = "--v3-keys " + path + " is not a regular file";
        return false;
    }
    if (st.st_uid != geteuid() && !(runAs && st.st_uid == runAs->uid)) {
        close(fd);
        const std::string starter = "uid " + std::to_string(geteuid());
        *error = "--v3-keys " + path + " belongs to uid " + std::to_string(st.st_uid) +
                 ": it must belong to the agent's user (" +
                 (runAs ? runAs->name + ") or to the user that starts it (" + starter : starter) +
                 ")";
        return false;
    }
    if ((st.st_mode & 077) != 0) {
        close(fd);
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        *error = "--v3-keys " + path + " must be readable by its owner alone (its mode is " + mode +
                 "; chmod 600 it)";
        return false;
    }
    std::string text;
    char buffer[4096];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof buffer)) > 0 && text.size() <= kMaxKeyFileBytes) {
        text.append(buffer, static_cast<size_t>(got));
    }
    if (text.size() > kMaxKeyFileBytes) {
        std::memset(buffer, 0, sizeof buffer);
        close(fd);
        wipe(&text);
        *error =
            "--v3-keys " + path + " is larger than " + std::to_string(kMaxKeyFileBytes) + " bytes";
        return false;
    }
    std::memset(buffer, 0, sizeof buffer);
    close(fd);
    std::vector<V3Key> all;
    std::string why;
    const bool parsed = parseV3Keys(text, &all, &why);
    wipe(&text);
    if (!parsed) {
        *error = "--v3-keys " + path + ": " + why;
        return false;
    }
    std::vector<V3Key> chosen;
    for (const std::string &user : users) {
        auto found = std::find_if(all.begin(), all.end(),
                                  [&](const V3Key &key) { return key.name == user; });
        if (found == all.end()) {
            wipeV3Keys(&all);
            wipeV3Keys(&chosen);
            *error = "--v3-keys " + path + " has no line for --v3-user " + user;
            return false;
        }
        chosen.push_back(*found);
    }
    wipeV3Keys(&all);
    *keys = std::move(chosen);
    return true;
}

void wipeV3Keys(std::vector<V3Key> *keys)
{
    for (V3Key &key : *keys) {
        wipe(&key.authPass);
        wipe(&key.privPass);
    }
    keys->clear();
}

} // namespace kelp::agent
