// The hooks net-snmp keeps for each session, which the agent reads and
// replaces on the sessions that answer requests. Include after net-snmp's
// headers.
#ifndef KELP_AGENT_SESSIONHOOKS_H
#define KELP_AGENT_SESSIONHOOKS_H

// net-snmp's list of open sessions: exported by libnetsnmp and laid out in
// its public snmp_api.h (struct session_list), but declared in no header.
extern "C" struct session_list *Sessions;

namespace kelp::agent {

// The head of net-snmp's private struct snmp_internal_session (snmp_api.c),
// the same from 5.7 to 5.9: the hooks a session was opened with. The agent
// takes a session for one of its own only when its hooks are those the
// agent library gives (netsnmp_agent_check_packet, netsnmp_agent_check_parse,
// or the agent's own in their place), so a library laid out otherwise is
// left alone.
struct InternalSessionHead {
    void *requests;
    void *requestsEnd;
    int (*hookPre)(netsnmp_session *, netsnmp_transport *, void *, int);
    int (*hookParse)(netsnmp_session *, netsnmp_pdu *, u_char *, size_t);
    int (*hookPost)(netsnmp_session *, netsnmp_pdu *, int);
    int (*hookBuild)(netsnmp_session *, netsnmp_pdu *, u_char *, size_t *);
    int (*hookReallocBuild)(netsnmp_session *, netsnmp_pdu *, u_char **, size_t *, size_t *);
};

} // namespace kelp::agent

#endif // KELP_AGENT_SESSIONHOOKS_H
