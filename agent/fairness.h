// Managers served in turn on the master's UDP sockets. A thread of its own
// reads every datagram as soon as it arrives into a FairQueue per socket,
// and net-snmp, in place of reading the socket, takes the next datagram in
// turn: the sources with requests waiting are answered one request each in
// turn. A source flooding the agent then costs any other source at most
// about one request's wait per request of its own, and loses its excess,
// where otherwise it would fill the socket's buffer and leave the others'
// requests to the kernel's drops. A source's dropped requests are logged
// once a minute per source (KELP_TIME_SCALE runs that clock fast), with
// the source's address alone. TCP connections are left as they are.
#ifndef KELP_AGENT_FAIRNESS_H
#define KELP_AGENT_FAIRNESS_H

#include <sys/select.h>

#include <cstddef>
#include <functional>

struct netsnmp_large_fd_set_s; // net-snmp/library/large_fd_set.h

namespace kelp::agent {

// A mark in net-snmp's session list, before opening the master's sockets.
struct SessionMark {
    const void *newest = nullptr;
};
SessionMark markSessions();

// Serves the UDP sockets of the sessions opened since `mark` in turn, each
// holding at most `maxWaiting` requests (0: leaves them to net-snmp, which
// reads them itself), and starts the reading thread, which calls `wake`
// (any thread) when requests wait where none did. Without the thread,
// net-snmp's reads of those sockets are counted (readThrough). Call once,
// on the agent's thread, after init_master_agent.
void shareBetweenSources(SessionMark mark, size_t maxWaiting, std::function<void()> wake);

// True when requests read from a socket wait to be answered: the main loop
// must not block in select, which cannot see them.
bool requestsWaiting();

// Answers one waiting request of each socket that holds one (net-snmp's
// snmp_read on those sockets). A socket whose request net-snmp did not take
// (it had no memory to read it) loses that request, so that each call
// takes one from every socket it offers.
void answerWaiting();

// answerWaiting with `read` in place of snmp_read (tests).
void answerWaitingThrough(void (*read)(fd_set *));

// One turn of net-snmp's agent loop, as agent_check_and_process(block)
// takes it (alarms, select on the sessions' and registered descriptors,
// reads, timeouts, delegated requests), with the sockets the reading thread
// serves left out of the select: their datagrams are its to take, and it
// wakes the loop when one waits. A select that watched them would return
// at once, again and again, until the reading thread had emptied them.
// Answers select's count.
int checkAndProcess(bool block);

// net-snmp's read of the sockets select found readable (`read`:
// snmp_read2 in checkAndProcess, another in tests). Without the reading
// thread, a UDP socket of the master that net-snmp did not read (it had no
// memory for its receive buffer) loses its datagram, which select would
// otherwise find again at once, without end.
void readThrough(netsnmp_large_fd_set_s *readable, void (*read)(netsnmp_large_fd_set_s *));

// Clears the sockets the reading thread serves from a set of descriptors
// for select (checkAndProcess; nothing while no thread serves them).
void leaveOutSharedSockets(netsnmp_large_fd_set_s *readFds);

// Ends the reading thread, drops what waits and gives the sockets back to
// net-snmp. Call before snmp_shutdown, which closes them; safe to call
// more than once.
void stopSharing();

} // namespace kelp::agent

#endif // KELP_AGENT_FAIRNESS_H
