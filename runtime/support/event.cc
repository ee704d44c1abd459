// Events: auto-reset (a successful wait clears the event) or manual-reset.
// Finite waits are divided by the time scale and, on a thread started with
// SMThreadStart, end early with 3 once that thread is asked to stop. A wait
// without limit is never cut short: it waits for a condition, not a clock.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

#include "support/config.h"
#include "support/lock_watch.h"
#include "support/thread_control.h"
#include "vcsupt.h"

struct SMEventRec {
    std::mutex m;
    std::condition_variable cv;
    bool manualReset = false;
    bool set = false; // guarded by m
};

namespace {

// Takes the event when it is set; the caller holds e->m.
bool consume(SMEventRec *e)
{
    if (!e->set)
        return false;
    if (!e->manualReset)
        e->set = false;
    return true;
}

} // namespace

extern "C" {

SMEventHandle SMEventCreate(uint32_t manualReset, uint32_t initialState, const char * /*reserved*/)
{
    auto *e = new (std::nothrow) SMEventRec;
    if (e == nullptr)
        return nullptr;
    e->manualReset = manualReset != 0;
    e->set = initialState != 0;
    return e;
}

uint32_t SMEventSet(SMEventHandle event)
{
    if (event == nullptr)
        return SM_STATUS_FAILURE;
    // Notified under the lock: a waiter may destroy the event as soon as it
    // returns, so the setter must be done with it by then.
    std::lock_guard lock(event->m);
    event->set = true;
    event->cv.notify_all();
    return SM_STATUS_SUCCESS;
}

uint32_t SMEventReset(SMEventHandle event)
{
    if (event == nullptr)
        return SM_STATUS_FAILURE;
    std::lock_guard lock(event->m);
    event->set = false;
    return SM_STATUS_SUCCESS;
}

// A set event answers 0 even on a thread being stopped: only the waiting is
// cut short, never an event that is already there.
uint32_t SMEventWait(SMEventHandle event, uint32_t timeoutMs)
{
    if (event == nullptr)
        return SM_STATUS_FAILURE;
    kelp::rt::noteEventWait();
    if (timeoutMs == SM_WAIT_FOREVER) {
        std::unique_lock lock(event->m);
        event->cv.wait(lock, [event] { return event->set; });
        consume(event);
        return SM_STATUS_SUCCESS;
    }
    auto deadline = std::chrono::steady_clock::now() + kelp::rt::scaledMs(timeoutMs);
    kelp::rt::StopAwareWait registration(event->cv, event->m);
    std::unique_lock lock(event->m);
    for (;;) {
        if (consume(event))
            return SM_STATUS_SUCCESS;
        if (registration.stopping())
            return SM_STATUS_TIMEOUT;
        if (event->cv.wait_until(lock, deadline) == std::cv_status::timeout) {
            return consume(event) ? SM_STATUS_SUCCESS : SM_STATUS_TIMEOUT;
        }
    }
}

void SMEventDestroy(SMEventHandle event)
{
    delete event;
}

} // extern "C"
