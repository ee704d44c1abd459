// A callback after net-snmp's access control: it sees the verdict on every
// request before the request is dropped.
#include "refusals.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "log.h"

namespace kelp::agent {
namespace {

// The networks of --allow; empty: every source. Written once by
// watchAccess before the first request, read by the agent's thread only.
std::vector<Network> g_allow;
// A community answers SNMPv1/v2c requests (else --no-v1v2c).
bool g_communities = true;

// The source of a request, from the transport data net-snmp keeps with it:
// for UDP and TCP over IPv4 and IPv6 it starts with the sender's socket
// address.
std::string sourceOf(const netsnmp_pdu *pdu)
{
    const size_t length = pdu->transport_data_length > 0 ? size_t(pdu->transport_data_length) : 0;
    return sourceText(static_cast<const sockaddr *>(pdu->transport_data), length);
}

const char *versionName(long version)
{
    switch (version) {
    case SNMP_VERSION_1:
        return "SNMPv1";
    case SNMP_VERSION_2c:
        return "SNMPv2c";
    case SNMP_VERSION_3:
        return "SNMPv3";
    default:
        return "an unknown version";
    }
}

int onAccessChecked(int, int, void *serverArg, void *)
{
    auto *check = static_cast<view_parameters *>(serverArg);
    const netsnmp_pdu *pdu = check != nullptr ? check->pdu : nullptr;
    if (pdu == nullptr) {
        return SNMPERR_SUCCESS;
    }
    const char *reason = nullptr;
    const auto *address = static_cast<const sockaddr *>(pdu->transport_data);
    const size_t length = pdu->transport_data_length > 0 ? size_t(pdu->transport_data_length) : 0;
    if (!sourceAllowed(g_allow, address, length)) {
        check->errorcode = VACM_NOACCESS;
        reason = "its source is not in --allow";
    } else if (check->errorcode == VACM_NOSECNAME &&
               (pdu->version == SNMP_VERSION_1 || pdu->version == SNMP_VERSION_2c)) {
        reason = g_communities ? "wrong community" : "SNMPv1 and v2c are not answered (--no-v1v2c)";
    } else {
        return SNMPERR_SUCCESS;
    }
    // The verdict stands; only its log line needs memory, and nothing may
    // unwind into net-snmp, which holds its callback list locked meanwhile.
    try {
        const std::string source = sourceOf(pdu);
        // Only the agent's thread runs access checks.
        static LogRateLimit limit = sourceLogLimit();
        if (limit.allow(source, LogRateLimit::Clock::now())) {
            logAt(LogLevel::kWarning,
                  "refused a %s request from %s: %s (logged once a minute per source)",
                  versionName(pdu->version), source.c_str(), reason);
        } else if (limit.takeCapped()) {
            logAt(LogLevel::kWarning,
                  "refused requests from more than %zu sources in a minute: the others are not "
                  "logged until the minute ends",
                  kSourceLinesAMinute);
        }
    } catch (...) {
        logAt(LogLevel::kWarning, "refused a %s request: %s (its source not logged: out of memory)",
              versionName(pdu->version), reason);
    }
    return SNMPERR_SUCCESS;
}

} // namespace

void watchAccess(const std::vector<Network> &allow, bool communities)
{
    g_allow = allow;
    g_communities = communities;
    // After every other check, so that errorcode holds the verdict.
    netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL,
                              onAccessChecked, nullptr, NETSNMP_CALLBACK_LOWEST_PRIORITY);
}

} // namespace kelp::agent
