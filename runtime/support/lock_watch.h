// Which event waits are made holding a mutex of this library. The plug-in
// takes its tables' lock when it starts a rescan and waits for the rescan
// completed event holding it; that wait is the one sign the runtime has that
// the tables are locked, so that a model may be swapped under them
// (eventif/rescan_gate.h). Runtime-private; thread-safe.
#ifndef KELP_RUNTIME_SUPPORT_LOCK_WATCH_H
#define KELP_RUNTIME_SUPPORT_LOCK_WATCH_H

#include <cstdint>

namespace kelp::rt {

// Mutexes the calling thread holds. Its address also names the thread as a
// mutex's owner (mutex.cc): eight-byte aligned, so that the low bits of an
// owner word are free.
alignas(8) extern constinit thread_local uint32_t t_mutexesHeld;

// The calling thread took a mutex (SMMutexLock, first level) or let one go
// (SMMutexUnLock, last level). Inline: they run with every mutex call.
inline void noteMutexTaken()
{
    ++t_mutexesHeld;
}

inline void noteMutexReleased()
{
    if (t_mutexesHeld > 0)
        --t_mutexesHeld;
}

// The calling thread starts an event wait (SMEventWait); counted when it
// holds a mutex.
void noteEventWait();

// How many event waits were started by a thread holding a mutex since the
// runtime was loaded.
uint64_t lockedEventWaits();

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_LOCK_WATCH_H
