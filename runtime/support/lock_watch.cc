// The event waits made holding a mutex (support/lock_watch.h).
#include "support/lock_watch.h"

namespace kelp::rt {
namespace {

// The newest epoch in which a thread that then waited took its first mutex.
std::atomic<uint64_t> g_newestLockedWait{0};

} // namespace

// A mutex is released by the thread that holds it.
alignas(8) constinit thread_local uint32_t t_mutexesHeld = 0;
constinit thread_local uint64_t t_heldSinceEpoch = 0;
std::atomic<uint64_t> g_lockEpoch{0};

void noteEventWait()
{
    if (t_mutexesHeld == 0)
        return;
    uint64_t newest = g_newestLockedWait.load();
    while (newest < t_heldSinceEpoch &&
           !g_newestLockedWait.compare_exchange_weak(newest, t_heldSinceEpoch)) {
    }
}

uint64_t startLockEpoch()
{
    return g_lockEpoch.fetch_add(1) + 1;
}

bool lockedWaitIn(uint64_t epoch)
{
    return g_newestLockedWait.load() >= epoch;
}

} // namespace kelp::rt
