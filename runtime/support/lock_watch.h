// Which event waits are made holding a mutex of this library. The plug-in
// takes its tables' lock when it starts a rescan and waits for the rescan
// completed event holding it; that wait is the one sign the runtime has that
// the tables are locked, so that a model may be swapped under them and the
// rescan completed event handed out (eventif/rescan_gate.h). A lock epoch
// tells that wait from the tail of a rescan before: a host starts an epoch
// when it hands out a rescan started event, and a wait counts for that
// epoch only when its thread took its first mutex after it.
// Runtime-private; thread-safe.
#ifndef KELP_RUNTIME_SUPPORT_LOCK_WATCH_H
#define KELP_RUNTIME_SUPPORT_LOCK_WATCH_H

#include <atomic>
#include <cstdint>

namespace kelp::rt {

// Mutexes the calling thread holds. Its address also names the thread as a
// mutex's owner (mutex.cc): eight-byte aligned, so that the low bits of an
// owner word are free.
alignas(8) extern constinit thread_local uint32_t t_mutexesHeld;
// The lock epoch when the calling thread took the first of the mutexes it
// holds.
extern constinit thread_local uint64_t t_heldSinceEpoch;
// The current lock epoch (startLockEpoch).
extern std::atomic<uint64_t> g_lockEpoch;

// The calling thread took a mutex (SMMutexLock, first level) or let one go
// (SMMutexUnLock, last level). Inline: they run with every mutex call. The
// epoch is read relaxed: a thread that locks because an event handed out in
// a new epoch woke it has synchronised with the hand-out through that event.
inline void noteMutexTaken()
{
    if (t_mutexesHeld++ == 0)
        t_heldSinceEpoch = g_lockEpoch.load(std::memory_order_relaxed);
}

inline void noteMutexReleased()
{
    if (t_mutexesHeld > 0)
        --t_mutexesHeld;
}

// The calling thread starts an event wait (SMEventWait); counted when it
// holds a mutex.
void noteEventWait();

// Starts a new lock epoch and answers it (1 for the first).
uint64_t startLockEpoch();

// Whether an event wait was started, since the runtime was loaded, by a
// thread holding a mutex it took first in `epoch` or later.
bool lockedWaitIn(uint64_t epoch);

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_LOCK_WATCH_H
