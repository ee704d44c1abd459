// The source of the message net-snmp has in hand, for its lines about it.
//
// net-snmp logs a line for many a message it cannot take ("Authentication
// failed for USER", "security service 3 error parsing ScopedPDU", libwrap's
// "Connection from ... REFUSED"), without the message's source and without
// limit: anyone who can send a datagram, from anywhere and before any
// access control, could fill the log and, with a log reader that falls
// behind, hold the agent up. The agent notes the source of each message as
// net-snmp starts on it; a line of net-snmp's while a message is in hand
// then names that source and is logged at most once a minute per source,
// and for at most 100 sources a minute (KELP_TIME_SCALE runs that clock
// fast).
#ifndef KELP_AGENT_PACKETSOURCE_H
#define KELP_AGENT_PACKETSOURCE_H

#include <cstddef>
#include <string_view>

#include "log.h"

namespace kelp::agent {

// Has every open session that answers requests (net-snmp's agent hooks)
// note the source of each message it reads; answers how many sessions
// took it. Call after fitBulkResponses, from the agent's thread.
size_t notePacketSources();

// While one lives, on the thread that reads messages, a message read
// meanwhile is in hand until it ends: put one around each call that reads.
class PacketsInHand {
  public:
    PacketsInHand() = default;
    ~PacketsInHand();
    PacketsInHand(const PacketsInHand &) = delete;
    PacketsInHand &operator=(const PacketsInHand &) = delete;
};

// When this thread has a message in hand: logs `line`, one of net-snmp's,
// at `level` as a line about the message's source, within the limits
// above, and answers true. False otherwise: the caller logs it as it stands.
bool logAboutPacket(LogLevel level, std::string_view line);

} // namespace kelp::agent

#endif // KELP_AGENT_PACKETSOURCE_H
