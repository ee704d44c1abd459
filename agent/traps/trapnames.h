// The storage traps' names as KELP-STORAGE-MIB declares them
// (arrayDiskCriticalAlert for 904, ...), so that a log line says what a
// trap is in the words a manager with the MIB loaded shows.
#ifndef KELP_AGENT_TRAPS_TRAPNAMES_H
#define KELP_AGENT_TRAPS_TRAPNAMES_H

#include <cstdint>
#include <span>

namespace kelp::agent {

struct TrapName {
    uint32_t number; // the specific trap number (N, or N * 100 with extended messages)
    const char *name;
};

// Every name, sorted by number.
std::span<const TrapName> trapNames();

// The name of storage trap `specific`, or null for a number the MIB does not
// declare.
const char *trapName(uint32_t specific);

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPNAMES_H
