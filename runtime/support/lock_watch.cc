// The event waits made holding a mutex (support/lock_watch.h).
#include "support/lock_watch.h"

#include <atomic>

namespace kelp::rt {
namespace {

std::atomic<uint64_t> g_lockedWaits{0};

} // namespace

// A mutex is released by the thread that holds it.
alignas(8) constinit thread_local uint32_t t_mutexesHeld = 0;

void noteEventWait()
{
    if (t_mutexesHeld > 0)
        g_lockedWaits.fetch_add(1);
}

uint64_t lockedEventWaits()
{
    return g_lockedWaits.load();
}

} // namespace kelp::rt
