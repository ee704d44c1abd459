// SMGetIPFQDN without any network look-up: KELP_FQDN, else the host name
// completed from /etc/hosts, so that a trap never waits for a resolver.
#include "support/fqdn.h"

#include <unistd.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "support/config.h"
#include "support/text.h"
#include "vcsupt.h"

namespace kelp::rt {
std::string completeFromHosts(std::string_view host, const std::string &hostsPath)
{
    if (host.empty() || host.find('.') != std::string_view::npos)
        return std::string(host);
    std::ifstream in(hostsPath);
    std::string line;
    while (std::getline(in, line)) {
        line = line.substr(0, line.find('#'));
        std::istringstream fields(line);
        std::string address, name;
        std::vector<std::string> names;
        if (!(fields >> address))
            continue;
        while (fields >> name)
            names.push_back(name);
        bool named = false;
        for (const auto &n : names)
            named = named || equalsIgnoreCaseAscii(n, host);
        if (!named)
            continue;
        for (const auto &n : names) {
            if (n.size() > host.size() + 1 && n[host.size()] == '.' &&
                equalsIgnoreCaseAscii(std::string_view(n).substr(0, host.size()), host)) {
                return n;
            }
        }
        for (const auto &n : names) {
            if (n.find('.') != std::string::npos)
                return n;
        }
        break;
    }
    return std::string(host);
}

} // namespace kelp::rt

extern "C" {

uint32_t SMGetIPFQDN(char *buffer, uint32_t *size)
{
    if (size == nullptr)
        return SM_STATUS_FAILURE;
    std::string name = kelp::rt::envValue("KELP_FQDN");
    if (name.empty()) {
        char host[HOST_NAME_MAX + 1] = {};
        if (gethostname(host, sizeof host - 1) != 0)
            return SM_STATUS_FAILURE;
        name = kelp::rt::completeFromHosts(host, "/etc/hosts");
    }
    const uint32_t needed = static_cast<uint32_t>(name.size() + 1);
    if (buffer == nullptr || *size < needed) {
        *size = needed;
        return SM_STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, name.c_str(), needed);
    *size = needed;
    return SM_STATUS_SUCCESS;
}

} // extern "C"
