// The master's TCP (and Unix socket) connections, bounded in number and
// never able to hold the agent up.
//
// net-snmp accepts every connection offered, leaves the accepted sockets
// blocking and writes each answer with a blocking send: one manager that
// sends requests and never reads their answers stopped the agent in that
// send, for every manager, once the connection's buffers were full; and
// connections held open up to the descriptor limit made accept fail with
// EMFILE while the listening socket stayed readable, so the main loop
// spun without waiting.
//
// The agent takes over the functions of its stream listening sockets,
// which the connections they accept inherit:
// - an answer is written without blocking; what the socket does not take
//   waits in the connection's own buffer and goes out as the socket takes
//   it. A connection whose waiting answers pass kMaxUnsent bytes does not
//   read them: it is closed.
// - at most maxConnections stay open: one more closes the one idle longest
//   (no request or answer for the longest time);
// - an accept that fails for want of descriptors or memory pauses the
//   listening socket for a second (KELP_TIME_SCALE runs it fast), or until
//   a connection closes; the connections offered meanwhile wait in the
//   listen queue, which holds SOMAXCONN. Out of descriptors, the agent also
//   keeps 4 fewer connections than were open, and closes the ones idle
//   longest to get there, until accept has found descriptors for a minute
//   (KELP_TIME_SCALE runs it fast).
// Each such event is logged at most once a minute per source.
#ifndef KELP_AGENT_STREAMS_H
#define KELP_AGENT_STREAMS_H

#include <sys/time.h>

#include <cstddef>

#include "fairness.h"

struct netsnmp_large_fd_set_s; // net-snmp/library/large_fd_set.h

namespace kelp::agent {

// The answers one connection may have waiting beyond its socket's send
// buffer before it is closed as a manager that does not read them.
inline constexpr size_t kMaxUnsent = 256 * 1024;

// The connections kept open when the descriptor limit is `limit` (the
// soft RLIMIT_NOFILE): at most 256, and room left under the limit for the
// agent's other descriptors.
size_t maxConnectionsFor(unsigned long limit);

// The soft limit of open descriptors (RLIMIT_NOFILE); 1024 when unknown or
// unlimited.
unsigned long descriptorLimit();

// Takes over the stream listening sockets of the sessions opened since
// `mark`, and the connections they accept from now on; answers how many
// listening sockets it took. Call once, on the agent's thread, after
// init_master_agent.
size_t boundStreams(SessionMark mark, size_t maxConnections);

// For checkAndProcess, before its select: leaves paused listening sockets
// out of `readFds`, adds the connections with answers waiting to
// `writeFds` (raising *fds to cover them), and shortens *wait to the end of
// the earliest pause (setting it when it is null: *wait then points at
// `timeout`).
void streamsSelectInfo(netsnmp_large_fd_set_s *readFds, netsnmp_large_fd_set_s *writeFds, int *fds,
                       timeval **wait, timeval *timeout);

// After select: writes waiting answers to the connections `writeFds`
// holds, and ends the pauses that are over. Call whatever select answered.
void streamsAfterSelect(netsnmp_large_fd_set_s *writeFds, int count);

// The connections open now (tests and logs).
size_t streamConnections();

} // namespace kelp::agent

#endif // KELP_AGENT_STREAMS_H
