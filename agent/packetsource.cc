// The hook that notes each message's source (see packetsource.h).
#include "packetsource.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "access.h"
#include "sessionhooks.h"

namespace kelp::agent {
namespace {

// The message in hand on this thread: its source's socket address, as
// the transport gave it (for UDP and TCP it starts with one). Copied, not
// pointed to: net-snmp frees its own copy when it is done with the message.
struct InHand {
    bool held = false;
    size_t length = 0;
    sockaddr_storage address{};
};
thread_local InHand t_inHand;

// net-snmp's pre-parse hook for the sessions that answer requests, with the
// source noted first; libwrap's check, and its refusal's line, follow.
int noteSource(netsnmp_session *session, netsnmp_transport *transport, void *opaque, int length)
{
    InHand &inHand = t_inHand;
    inHand.held = true;
    inHand.length = 0;
    if (opaque != nullptr && length > 0) {
        inHand.length = std::min(static_cast<size_t>(length), sizeof inHand.address);
        std::memcpy(&inHand.address, opaque, inHand.length);
    }
    return netsnmp_agent_check_packet(session, transport, opaque, length);
}

} // namespace

size_t notePacketSources()
{
    size_t taken = 0;
    for (session_list *slp = Sessions; slp != nullptr; slp = slp->next) {
        auto *head = reinterpret_cast<InternalSessionHead *>(slp->internal);
        if (head == nullptr || head->hookPre != netsnmp_agent_check_packet) {
            continue;
        }
        head->hookPre = noteSource;
        taken++;
    }
    return taken;
}

PacketsInHand::~PacketsInHand()
{
    t_inHand.held = false;
}

bool logAboutPacket(LogLevel level, std::string_view line)
{
    const InHand &inHand = t_inHand;
    if (!inHand.held) {
        return false;
    }
    // Only the thread that reads messages (the agent's) holds one.
    static LogRateLimit limit = sourceLogLimit();
    // The verdict on the message stands; only this line needs memory.
    try {
        const std::string source =
            sourceText(reinterpret_cast<const sockaddr *>(&inHand.address), inHand.length);
        if (limit.allow(source, LogRateLimit::Clock::now())) {
            logAt(level, "from %s: %.*s (logged once a minute per source)", source.c_str(),
                  static_cast<int>(line.size()), line.data());
        } else if (limit.takeCapped()) {
            logAt(LogLevel::kWarning,
                  "net-snmp logged lines on messages from more than %zu sources in a minute: "
                  "the others are not logged until the minute ends",
                  kSourceLinesAMinute);
        }
    } catch (...) {
        logText(level, line);
    }
    return true;
}

} // namespace kelp::agent
