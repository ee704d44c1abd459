// GETBULK responses that fit the manager's message size, in every version,
// and responses of every kind that fit what their transport can send (a
// UDP datagram: 65,507 bytes), tooBig otherwise.
//
// net-snmp builds a GETBULK response too big for the request's maximum
// message size again with its forward encoder, which drops the varbinds
// that do not fit. For SNMPv3 that encoder builds the scoped PDU into a
// buffer of its own, 64 KiB long, so nothing is dropped: the build is tried
// again and again for ever (authNoPriv), or fails (authPriv, genErr). One
// SNMPv3 GETBULK asking for more than fits its msgMaxSize then stopped the
// agent for good.
//
// The agent gives the sessions that answer requests a build hook of its
// own: it builds as net-snmp does, and once net-snmp has found a GETBULK
// response too big, it leaves out the last varbinds, as many as the excess
// suggests, until the message fits (with none left, the response is
// tooBig). Free of the plug-in.
//
// The same hook builds the responses the worker answered genErr as SNMP
// requires of one (answerGenErr below): net-snmp would send them with the
// varbinds the handlers left.
#ifndef KELP_AGENT_BULKFIT_H
#define KELP_AGENT_BULKFIT_H

#include <cstddef>

struct snmp_pdu;

namespace kelp::agent {

// The most varbinds one GETBULK answer holds, whatever max-repetitions
// asks (net-snmp's own default is 100, and it also keeps an answer within
// the manager's message size), unless it has more repeating varbinds:
// each of those then gets one repetition. Bounds the work and the answer
// one small request can cause; managers walk on with further requests.
inline constexpr int kMaxBulkVarbinds = 64;

// Gives every open session that answers requests (net-snmp's agent hooks
// set, no build hook of its own) the build hook, and a post-parse hook that
// drops a GetBulk in an SNMPv1 message and sets each GETBULK's limits;
// answers how many sessions took them.
size_t fitBulkResponses();

// A request answered on the worker ended in genErr: net-snmp wraps such a
// delegated request up as if it had none, so its response would carry
// what the handlers left in the varbinds (noSuchInstance, partial
// answers), and SNMPv1 would turn those into noSuchName. The response
// `response` (the session's PDU for the answer) is built instead as SNMP
// requires of a genErr: the request's varbinds (`request`, copied now),
// error-status genErr, error-index `index`. Main loop only.
void answerGenErr(const snmp_pdu *response, const snmp_pdu *request, long index);

} // namespace kelp::agent

#endif // KELP_AGENT_BULKFIT_H
