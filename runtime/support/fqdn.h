// Runtime-private helpers of SMGetIPFQDN, open to tests.
#ifndef KELP_RUNTIME_SUPPORT_FQDN_H
#define KELP_RUNTIME_SUPPORT_FQDN_H

#include <string>
#include <string_view>

namespace kelp::rt {

// The host's dotted name from a hosts file: on the first line that names
// `host` (canonical name or alias, ASCII case ignored), the first name that
// starts with "<host>." or, failing that, the first dotted name. `host` itself
// when it already has a dot, or when the file offers nothing.
std::string completeFromHosts(std::string_view host, const std::string &hostsPath);

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_FQDN_H
