// Managers served in turn on the master's UDP sockets: the agent reads every
// datagram waiting on a socket before it answers one, and answers them one
// source at a time (FairQueue), so that a source flooding the agent costs
// any other source at most one request's wait per request of its own, and
// loses its excess, rather than filling the socket's buffer and leaving
// everyone else's requests to the kernel's drops. A source's dropped
// requests are logged once a minute per source (KELP_TIME_SCALE runs that
// clock fast), with the source's address alone. TCP connections, each read
// on its own, are left as they are.
#ifndef KELP_AGENT_FAIRNESS_H
#define KELP_AGENT_FAIRNESS_H

#include <cstddef>

#include <sys/select.h>

namespace kelp::agent {

// A mark in net-snmp's session list, before opening the master's sockets.
struct SessionMark {
    const void *newest = nullptr;
};
SessionMark markSessions();

// Serves the UDP sockets of the sessions opened since `mark` in turn, each
// holding at most `maxWaiting` requests (0: leaves them to net-snmp as they
// are). Makes those sockets non-blocking. Call once, on the agent's
// thread, after init_master_agent.
void shareBetweenSources(SessionMark mark, size_t maxWaiting);

// True when requests read from a socket wait to be answered: the main loop
// must not block in select, which cannot see them.
bool requestsWaiting();

// Answers one waiting request of each socket that holds one (net-snmp's
// snmp_read on those sockets).
void answerWaiting();

} // namespace kelp::agent

#endif // KELP_AGENT_FAIRNESS_H
