// The C heap under a limit of address space (ulimit -v, RLIMIT_AS): glibc
// reserves 64 MiB of address space for each heap a thread makes of its own,
// so kelpagent reserves several times what it holds (345 MB for 22 MB
// resident on a 1,024-disk model). Under such a limit the agent's threads
// share one heap; without one, glibc's defaults stay (README, Performance).
#ifndef KELP_AGENT_HEAP_H
#define KELP_AGENT_HEAP_H

#include <sys/resource.h>

#include <cstddef>
#include <string>

namespace kelp::agent {

// Whether the threads should share one heap: under a limit of address space
// (`limit`, RLIM_INFINITY for none), unless GLIBC_TUNABLES (`tunables`, or
// null) already says how many heaps there are.
bool shareOneHeap(rlim_t limit, const char *tunables);

// Asks glibc for one heap when shareOneHeap holds for this process; call
// first thing, before any thread starts. The line to log, "" when nothing
// was changed.
std::string shareOneHeapUnderAddressLimit();

} // namespace kelp::agent

#endif // KELP_AGENT_HEAP_H
