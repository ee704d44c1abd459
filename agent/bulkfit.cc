// The build hook that makes GETBULK responses fit (see bulkfit.h).
#include "bulkfit.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "sessionhooks.h"

namespace kelp::agent {
namespace {

// The responses to build as genErr (answerGenErr), oldest first. A
// response the agent drops without building leaves its entry until
// kMaxGenErrs newer ones push it out; the request-id guards against a PDU
// made later at the same address.
struct GenErr {
    // net-snmp sends the one or the other: the request itself when it
    // found an error of its own (SNMPv1's noSuchName for a noSuchInstance).
    const snmp_pdu *response;
    const snmp_pdu *request;
    long requestId;
    netsnmp_variable_list *varbinds;
    long index;
};
constexpr size_t kMaxGenErrs = 64;
struct GenErrs : std::vector<GenErr> {
    ~GenErrs()
    {
        for (GenErr &e : *this) {
            snmp_free_varbind(e.varbinds);
        }
    }
};
GenErrs g_genErrs;

// Puts the genErr answer in place when `pdu` is one answerGenErr named.
void takeGenErr(snmp_pdu *pdu)
{
    const auto found = std::find_if(g_genErrs.begin(), g_genErrs.end(), [pdu](const GenErr &e) {
        return (e.response == pdu || e.request == pdu) && e.requestId == pdu->reqid;
    });
    if (found == g_genErrs.end()) {
        return;
    }
    snmp_free_varbind(pdu->variables);
    pdu->variables = found->varbinds;
    pdu->errstat = SNMP_ERR_GENERR;
    pdu->errindex = found->index;
    g_genErrs.erase(found);
}

// Leaves the first `keep` varbinds of pdu and frees the others; with none
// kept the response says tooBig.
void keepVarbinds(netsnmp_pdu *pdu, size_t keep)
{
    if (keep == 0) {
        snmp_free_varbind(pdu->variables);
        pdu->variables = nullptr;
        pdu->errstat = SNMP_ERR_TOOBIG;
        pdu->errindex = 0;
        return;
    }
    netsnmp_variable_list *last = pdu->variables;
    for (size_t i = 1; i < keep && last != nullptr; i++) {
        last = last->next_variable;
    }
    if (last != nullptr && last->next_variable != nullptr) {
        snmp_free_varbind(last->next_variable);
        last->next_variable = nullptr;
    }
}

// Builds pdu with net-snmp's reverse encoder into *pkt (of *pktLen bytes,
// grown as needed) and moves the message to its start, where the caller
// takes it; *offset is its length.
int buildAtStart(netsnmp_session *session, netsnmp_pdu *pdu, u_char **pkt, size_t *pktLen,
                 size_t *offset)
{
    *offset = 0;
    const int result = snmp_build(pkt, pktLen, offset, session, pdu);
    if (result == 0 && *offset <= *pktLen) {
        std::memmove(*pkt, *pkt + *pktLen - *offset, *offset);
    }
    return result;
}

// The session's build: as net-snmp's, until net-snmp, finding a GETBULK
// response too big, asks for it again (UCD_MSG_FLAG_BULK_TOOBIG); then the
// last varbinds go, as many as the excess suggests, until it fits.
//
// A response is also held to what the session's transport can send. The
// agent library gives SNMPv1 and SNMPv2c responses, whose requests name no
// maximum, a limit of 2^31-1 bytes, so net-snmp's size check passed one
// larger than a UDP datagram (65,507 bytes) and its send failed: the
// manager heard nothing and the log got a line per varbind. With the
// transport's limit, net-snmp's check finds it too big, and the agent
// answers tooBig instead. That answer (net-snmp's copy of the request) has
// its varbinds left out unless it is SNMPv1's, as SNMPv2 requires.
int buildFitting(netsnmp_session *session, netsnmp_pdu *pdu, u_char **pkt, size_t *pktLen,
                 size_t *offset)
{
    if (pdu->command == SNMP_MSG_RESPONSE && !g_genErrs.empty()) {
        takeGenErr(pdu);
    }
    if (const auto sendable = static_cast<long>(session->sndMsgMaxSize);
        sendable > 0 && pdu->msgMaxSize > sendable) {
        pdu->msgMaxSize = sendable;
    }
    if (pdu->command == SNMP_MSG_RESPONSE && pdu->errstat == SNMP_ERR_TOOBIG &&
        pdu->version != SNMP_VERSION_1 && pdu->variables != nullptr) {
        snmp_free_varbind(pdu->variables);
        pdu->variables = nullptr;
    }
    const bool trim = (pdu->flags & UCD_MSG_FLAG_BULK_TOOBIG) != 0;
    // The forward encoder, which these flags ask for, is what fails.
    pdu->flags &= ~static_cast<u_long>(UCD_MSG_FLAG_FORWARD_ENCODE | UCD_MSG_FLAG_BULK_TOOBIG);
    int result = buildAtStart(session, pdu, pkt, pktLen, offset);
    if (!trim) {
        return result;
    }
    const auto limit = static_cast<size_t>(pdu->msgMaxSize);
    while (result == 0 && *offset > limit) {
        if (pdu->variables == nullptr) {
            // Not even an empty response fits.
            session->s_snmp_errno = SNMPERR_TOO_LONG;
            return SNMPERR_TOO_LONG;
        }
        const auto count = static_cast<size_t>(count_varbinds(pdu->variables));
        size_t keep = count * limit / *offset;
        if (keep >= count) {
            keep = count - 1;
        }
        keepVarbinds(pdu, keep);
        result = buildAtStart(session, pdu, pkt, pktLen, offset);
    }
    return result;
}

// What net-snmp's parser lets through and SNMP does not allow: a GetBulk
// PDU in an SNMPv1 message (SNMPv1 has none). Such a message is not one of
// its version: it is dropped and counted in snmpInASNParseErrs, where
// net-snmp answered it.
bool wellFormed(const netsnmp_pdu &pdu)
{
    return pdu.version != SNMP_VERSION_1 || pdu.command != SNMP_MSG_GETBULK;
}

// net-snmp's own estimate of a GETBULK varbind's size, in bytes.
constexpr int kAverageBulkVarbind = 15;

// net-snmp's post-parse check, with a GETBULK's limits set first. net-snmp
// gives each repeating varbind MAX_GETBULKRESPONSES / repeaters
// repetitions, and all of them at most msgMaxSize / AVG_BULKVARBINDSIZE
// varbinds: with more repeaters than either, none at all. Such a request
// was answered noError with no varbind, which ends a manager's walk as if
// the tree ended there. It gets one repetition of each repeater instead,
// as a GetNext of them all would (the request's own size bounds it), and
// the build hook cuts what does not fit the manager's message size.
int takeRequest(netsnmp_session *session, netsnmp_pdu *pdu, int result)
{
    if (result == 0 && pdu != nullptr && !wellFormed(*pdu)) {
        snmp_increment_statistic(STAT_SNMPINASNPARSEERRS);
        return 0; // dropped, as a message that does not parse
    }
    if (result == 0 && pdu != nullptr && pdu->command == SNMP_MSG_GETBULK) {
        const long count = count_varbinds(pdu->variables);
        const long repeaters = count - std::clamp(pdu->errstat, 0L, count);
        netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_MAX_GETBULKRESPONSES,
                           static_cast<int>(std::max<long>(kMaxBulkVarbinds, repeaters)));
        long average = kAverageBulkVarbind;
        if (repeaters > 0 && pdu->msgMaxSize > 0 && pdu->msgMaxSize / repeaters < average) {
            average = std::max(1L, pdu->msgMaxSize / repeaters);
        }
        netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AVG_BULKVARBINDSIZE,
                           static_cast<int>(average));
    }
    return netsnmp_agent_check_parse(session, pdu, result);
}

} // namespace

void answerGenErr(const snmp_pdu *response, const snmp_pdu *request, long index)
{
    if (response == nullptr || request == nullptr) {
        return;
    }
    netsnmp_variable_list *copy = snmp_clone_varbind(request->variables);
    if (copy == nullptr && request->variables != nullptr) {
        return; // no memory: the response goes as net-snmp made it
    }
    try {
        if (g_genErrs.size() >= kMaxGenErrs) {
            snmp_free_varbind(g_genErrs.front().varbinds);
            g_genErrs.erase(g_genErrs.begin());
        }
        g_genErrs.push_back(GenErr{response, request, response->reqid, copy, index});
    } catch (const std::bad_alloc &) {
        snmp_free_varbind(copy);
    }
}

size_t fitBulkResponses()
{
    size_t taken = 0;
    for (session_list *slp = Sessions; slp != nullptr; slp = slp->next) {
        auto *head = reinterpret_cast<InternalSessionHead *>(slp->internal);
        if (head == nullptr || head->hookPre != netsnmp_agent_check_packet ||
            head->hookPost != netsnmp_agent_check_parse || head->hookBuild != nullptr ||
            head->hookReallocBuild != nullptr) {
            continue;
        }
        head->hookReallocBuild = buildFitting;
        head->hookPost = takeRequest;
        taken++;
    }
    return taken;
}

} // namespace kelp::agent
