// Memory under a limit of address space (ulimit -v, RLIMIT_AS). glibc
// reserves 64 MiB of address space for each heap a thread makes of its own,
// and a thread's stack reserves what RLIMIT_STACK says (8 MiB by default),
// so kelpagent reserves several times what it holds (345 MB for 22 MB
// resident on a 1,024-disk model). Under such a limit the agent's threads
// share one heap and take smaller stacks; without one, glibc's defaults
// stay (README, Performance).
#ifndef KELP_AGENT_HEAP_H
#define KELP_AGENT_HEAP_H

#include <sys/resource.h>

#include <cstddef>
#include <string>

namespace kelp::agent {

// The stack a thread takes under a limit of address space. No thread of the
// agent, the runtime or the plug-in holds more than a few of its 64 KiB
// buffers on its stack at once.
constexpr size_t kLimitedThreadStack = size_t{1} << 20;

// Whether the threads should share one heap: under a limit of address space
// (`limit`, RLIM_INFINITY for none), unless GLIBC_TUNABLES (`tunables`, or
// null) already says how many heaps there are.
bool shareOneHeap(rlim_t limit, const char *tunables);

// The stack size new threads should take under `limit`, given the size they
// take now (`current`): kLimitedThreadStack when that is smaller, else 0
// (keep the current one).
size_t limitedThreadStack(rlim_t limit, size_t current);

// Under a limit of address space, asks glibc for one heap (shareOneHeap)
// and makes kLimitedThreadStack the stack of every thread started later
// (limitedThreadStack); call first thing, before any thread starts. The
// line to log, "" when nothing was changed.
std::string fitUnderAddressLimit();

// The heap the agent needs free at start under a limit of address space.
inline constexpr size_t kStartHeap = size_t{1} << 20;

// Whether, under a limit of address space, kStartHeap can be had from the
// heap; true without a limit. *limitMiB is set to the limit. Below that the
// libraries may have mapped with almost no heap left, where even the
// exception of a failed allocation cannot be made (the C++ runtime's own
// emergency reserve could not be had either) and the first allocation that
// fails would end the process in std::terminate. Allocates nothing that
// stays, and throws nothing.
bool heapRoomToStart(unsigned long *limitMiB) noexcept;

} // namespace kelp::agent

#endif // KELP_AGENT_HEAP_H
