// Recursive mutexes owned by the locking thread, with a lock time-out. An
// unlock by a thread that does not own the mutex must be refused, not
// undefined, so the owner is kept in the mutex. A free mutex is taken, and
// an unwaited one released, by one atomic operation on its owner word; a
// thread that has to wait sleeps on a condition variable under an inner
// std::mutex. Time-outs are not scaled: they bound how long a caller waits.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>

#include "kelp/runtime.h"
#include "support/lock_watch.h"
#include "vcsupt.h"

namespace {

// A host's bound on the lock waits of its request threads
// (kelpRuntimeSetLockWaitLimit); negative: none.
thread_local long t_waitLimitMs = -1;
// Lock calls of this thread that ended without the mutex.
thread_local unsigned long t_lockTimeouts = 0;
// Set in an owner word while a thread may be waiting for the mutex: its
// owner then releases it through the slow path, which wakes a waiter.
constexpr uintptr_t kWaited = 1;

// The calling thread's name in an owner word: the address of its count of
// mutexes held (lock_watch.h), so that one thread-local access serves both.
uintptr_t self()
{
    return reinterpret_cast<uintptr_t>(&kelp::rt::t_mutexesHeld);
}

// The wait a caller asked for, within the thread's bound.
uint32_t boundedWait(uint32_t timeoutMs)
{
    if (t_waitLimitMs < 0)
        return timeoutMs;
    const auto limit = static_cast<unsigned long>(t_waitLimitMs);
    if (timeoutMs == SM_WAIT_FOREVER || timeoutMs > limit)
        return static_cast<uint32_t>(std::min<unsigned long>(limit, SM_WAIT_FOREVER - 1));
    return timeoutMs;
}

} // namespace

struct SMMutexRec {
    // The owner thread (self()), perhaps with kWaited, or 0 when the mutex
    // is free. A thread takes it from 0 by compare-and-swap; waiters set
    // kWaited under m, and a word with kWaited is cleared only under m.
    std::atomic<uintptr_t> word{0};
    uint32_t depth = 0; // read and written by the owner alone
    std::mutex m;
    std::condition_variable released;
    uint32_t waiting = 0; // threads in waitFor; guarded by m
};

namespace {

// The slow path of SMMutexLock for a mutex held by another thread: waits up
// to waitMs (SM_WAIT_FOREVER: without a bound) for it to be free and takes
// it; false when the wait ended without it.
bool waitFor(SMMutexRec *mutex, uintptr_t me, uint32_t waitMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    std::unique_lock lock(mutex->m);
    ++mutex->waiting;
    bool taken = false;
    for (;;) {
        uintptr_t seen = mutex->word.load(std::memory_order_relaxed);
        if (seen == 0) {
            // Another waiter may still sleep: its wake-up is this thread's
            // to pass on at its release.
            const uintptr_t mine = mutex->waiting > 1 ? me | kWaited : me;
            if (mutex->word.compare_exchange_weak(seen, mine, std::memory_order_acquire,
                                                  std::memory_order_relaxed)) {
                taken = true;
                break;
            }
            continue;
        }
        if ((seen & kWaited) == 0 &&
            !mutex->word.compare_exchange_weak(seen, seen | kWaited, std::memory_order_relaxed,
                                               std::memory_order_relaxed)) {
            continue;
        }
        // The owner's release of a waited mutex clears the word under m
        // and notifies, so a wake-up between the check and the wait is not
        // lost.
        if (waitMs == SM_WAIT_FOREVER)
            mutex->released.wait(lock);
        else if (mutex->released.wait_until(lock, deadline) == std::cv_status::timeout &&
                 mutex->word.load(std::memory_order_relaxed) != 0) {
            break;
        }
    }
    --mutex->waiting;
    return taken;
}

} // namespace

extern "C" {

SMMutexHandle SMMutexCreate(uint32_t /*reserved*/)
{
    return new (std::nothrow) SMMutexRec;
}

uint32_t SMMutexLock(SMMutexHandle mutex, uint32_t timeoutMs)
{
    if (mutex == nullptr)
        return SM_STATUS_FAILURE;
    const uintptr_t me = self();
    uintptr_t seen = mutex->word.load(std::memory_order_relaxed);
    // Only this thread writes its own name into the word.
    if ((seen & ~kWaited) == me) {
        ++mutex->depth;
        return SM_STATUS_SUCCESS;
    }
    seen = 0;
    if (!mutex->word.compare_exchange_strong(seen, me, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
        // A caller that only tries (a wait of 0, asked for or the thread's
        // bound) gives up here: marking the word waited would only send the
        // owner's release down the slow path.
        const uint32_t waitMs = boundedWait(timeoutMs);
        if (waitMs == 0 || !waitFor(mutex, me, waitMs)) {
            ++t_lockTimeouts;
            return SM_STATUS_TIMEOUT;
        }
    }
    mutex->depth = 1;
    kelp::rt::noteMutexTaken();
    return SM_STATUS_SUCCESS;
}

uint32_t SMMutexUnLock(SMMutexHandle mutex)
{
    if (mutex == nullptr)
        return SM_STATUS_FAILURE;
    const uintptr_t me = self();
    if ((mutex->word.load(std::memory_order_relaxed) & ~kWaited) != me)
        return SM_STATUS_FAILURE;
    if (--mutex->depth != 0)
        return SM_STATUS_SUCCESS;
    kelp::rt::noteMutexReleased();
    uintptr_t seen = me;
    if (mutex->word.compare_exchange_strong(seen, 0, std::memory_order_release,
                                            std::memory_order_relaxed)) {
        return SM_STATUS_SUCCESS;
    }
    // Waited: cleared and notified under m, so that a waiter cannot check
    // the word and sleep in between, and a thread that takes, drops and
    // destroys the mutex next cannot free it under this call
    // (SMMutexDestroy takes m first).
    std::lock_guard lock(mutex->m);
    mutex->word.store(0, std::memory_order_release);
    if (mutex->waiting > 0)
        mutex->released.notify_one();
    return SM_STATUS_SUCCESS;
}

void SMMutexDestroy(SMMutexHandle mutex)
{
    if (mutex == nullptr)
        return;
    // Waits for a release of the mutex still under way on another thread.
    {
        std::lock_guard lock(mutex->m);
    }
    delete mutex;
}

} // extern "C"

void kelpRuntimeSetLockWaitLimit(long ms)
{
    t_waitLimitMs = ms < 0 ? -1 : ms;
}

unsigned long kelpRuntimeLockTimeouts(void)
{
    return t_lockTimeouts;
}
