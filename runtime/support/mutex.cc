// Recursive mutexes owned by the locking thread, with a lock time-out. Built on
// std::mutex + condition_variable rather than std::recursive_timed_mutex
// because an unlock by a thread that does not own the mutex must be refused,
// not undefined. Time-outs are not scaled: they bound how long a caller waits.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>

#include "kelp/runtime.h"
#include "support/lock_watch.h"
#include "vcsupt.h"

namespace {

// A host's bound on the lock waits of its request threads
// (kelpRuntimeSetLockWaitLimit); negative: none.
thread_local long t_waitLimitMs = -1;
// Lock calls of this thread that ended without the mutex.
thread_local unsigned long t_lockTimeouts = 0;

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
    std::mutex m;
    std::condition_variable released;
    std::thread::id owner; // guarded by m; default id = not held
    uint32_t depth = 0;    // guarded by m
    uint32_t waiting = 0;  // threads waiting for `released`; guarded by m
};

extern "C" {

SMMutexHandle SMMutexCreate(uint32_t /*reserved*/)
{
    return new (std::nothrow) SMMutexRec;
}

uint32_t SMMutexLock(SMMutexHandle mutex, uint32_t timeoutMs)
{
    if (mutex == nullptr)
        return SM_STATUS_FAILURE;
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock lock(mutex->m);
    if (mutex->owner == self) {
        ++mutex->depth;
        return SM_STATUS_SUCCESS;
    }
    auto isFree = [mutex] { return mutex->owner == std::thread::id(); };
    if (!isFree()) {
        const uint32_t waitMs = boundedWait(timeoutMs);
        bool freed = true;
        ++mutex->waiting;
        if (waitMs == SM_WAIT_FOREVER)
            mutex->released.wait(lock, isFree);
        else
            freed = mutex->released.wait_for(lock, std::chrono::milliseconds(waitMs), isFree);
        --mutex->waiting;
        if (!freed) {
            ++t_lockTimeouts;
            return SM_STATUS_TIMEOUT;
        }
    }
    mutex->owner = self;
    mutex->depth = 1;
    kelp::rt::noteMutexTaken();
    return SM_STATUS_SUCCESS;
}

uint32_t SMMutexUnLock(SMMutexHandle mutex)
{
    if (mutex == nullptr)
        return SM_STATUS_FAILURE;
    std::lock_guard lock(mutex->m);
    if (mutex->owner != std::this_thread::get_id())
        return SM_STATUS_FAILURE;
    if (--mutex->depth == 0) {
        mutex->owner = std::thread::id();
        kelp::rt::noteMutexReleased();
        // Under the lock, so that a thread that takes, drops and destroys the
        // mutex next cannot free it under this call.
        if (mutex->waiting > 0)
            mutex->released.notify_one();
    }
    return SM_STATUS_SUCCESS;
}

void SMMutexDestroy(SMMutexHandle mutex)
{
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
