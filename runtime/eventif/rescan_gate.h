// Swapping a model under the plug-in's rescan lock. The plug-in maps its
// rows to object ids and reads values by id when asked; after a swap in
// which an id names another object, a row would answer that object's values
// until the plug-in rebuilds. The plug-in locks its tables when it takes a
// rescan started event (3061) and rebuilds and unlocks at the rescan
// completed event (3060); so the swap is made between the two, handed out
// ahead of any event waiting. Runtime-private; thread-safe.
#ifndef KELP_RUNTIME_EVENTIF_RESCAN_GATE_H
#define KELP_RUNTIME_EVENTIF_RESCAN_GATE_H

#include <cstdint>
#include <functional>

namespace kelp::ev {

// How long (before scaling) a swap waits for the reader to take the rescan
// started event and lock its tables: the reader asks once a second.
inline constexpr uint32_t kGateWaitMs = 4000;
// A reader that has not asked for an event for this long (before scaling)
// is taken to be absent: no plug-in reads rows then.
inline constexpr uint32_t kReaderGoneMs = 3000;
// The bounds above are never scaled below this: they also wait for the
// plug-in's threads to get the processor and its lock, which a time scale
// does not speed up (a loaded machine, a sanitizer).
inline constexpr uint32_t kMachineFloorMs = 1000;

enum class GateOutcome {
    kNoReader,  // no reader asked lately: swapped at once
    kLocked,    // swapped while the reader held its tables for the rescan
    kNotTaken,  // the reader did not take the rescan started event in time
    kNotLocked, // it took it, but no lock was seen in time
};

// Runs swap() once, with no event handed out while it runs. When a reader
// asked for an event lately: unless a rescan is open already, the next
// event it is handed is a rescan started event of the runtime's own, ahead
// of the events waiting; then, once the reader waits holding a lock (the
// plug-in's rescan wait, support/lock_watch.h), swap() runs, and the next
// event handed out is a rescan completed event, so that the reader rebuilds
// from the new model within one read. An open rescan is closed by the 3060
// that would close it anyway. Past kGateWaitMs (scaled, kMachineFloorMs at
// least) swap() runs all the same and a warning is logged. The reader's
// events wait meanwhile, and the rescan time-out does not run out under the
// swap. Outside a swap too, a queued 3060 is handed out only once the
// reader locked for its rescan (for as long, and only to a reader that has
// locked for a rescan since it started): the plug-in takes rescan events as
// flags, so a 3060 that came before its rescan thread took the 3061 would be
// taken along with the 3061 before it, or left set to end the next rescan
// at once.
GateOutcome swapUnderRescan(const std::function<void()> &swap);

} // namespace kelp::ev

#endif // KELP_RUNTIME_EVENTIF_RESCAN_GATE_H
