// The event waits made holding a mutex (support/lock_watch.h).
#include "support/lock_watch.h"

#include <atomic>

namespace kelp::rt {
namespace {

// Mutexes the thread holds; a mutex is released by the thread that holds it.
thread_local uint32_t t_held = 0;
std::atomic<uint64_t> g_lockedWaits{0};

} // namespace

void noteMutexTaken()
{
    ++t_held;
}

void noteMutexReleased()
{
    if (t_held > 0)
        --t_held;
}

void noteEventWait()
{
    if (t_held > 0)
        g_lockedWaits.fetch_add(1);
}

uint64_t lockedEventWaits()
{
    return g_lockedWaits.load();
}

} // namespace kelp::rt
