// The blocked alert list (section "vcsipe", key "BlockedAlerts") as the
// plug-in's event monitor reads it, checked for the two events a rescan
// needs: a blocked 3061 or 3060 would never reach the plug-in's rescan
// signals, and its tables would stay locked after a rescan starts.
#ifndef KELP_AGENT_BLOCKEDALERTS_H
#define KELP_AGENT_BLOCKEDALERTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelp::agent {

// The first of 3061 and 3060 that `list` blocks when the plug-in reads it:
// comma-separated pieces (empty ones skipped), the first ten read like atoi.
std::optional<uint32_t> blockedRescanEvent(std::string_view list);

// Reads BlockedAlerts from the private ini store as the plug-in does (a
// value of at most 63 bytes; a longer or missing one blocks nothing) into
// *value, and answers the rescan event it blocks, if any.
std::optional<uint32_t> blockedRescanEventInStore(std::string *value);

} // namespace kelp::agent

#endif // KELP_AGENT_BLOCKEDALERTS_H
