// Test-only: watches the event threads. The test executable defines Sleep,
// vcsif32_getEvent and vcsif32_freeData itself; the module's objects bind to
// these, which record each call and forward it to libkelpruntime.so. A
// recording trap send for service table entry 7 keeps the traps that reach
// the framework.
#ifndef KELP_MODULE_EVENTS_EVENT_SPY_H
#define KELP_MODULE_EVENTS_EVENT_SPY_H

#include <cstdint>
#include <functional>
#include <vector>

#include "platform/smsnmp.h"

namespace eventspy {

// One trap as the framework received it.
struct Trap {
    uint32_t generic = 0;
    uint32_t specific = 0;
    uint32_t eventId = 0;      // binding 1, the event number (0 when absent)
    bool eventIdBound = false; // binding 1 was there and an integer
    uint32_t wakeUps = 0;      // 55-second sleeps completed when it was sent
};

// Service table entry 7.
uint32_t recordTrap(uint64_t handle, const SMSnmpOID *enterprise, uint32_t generic,
                    uint32_t specific, uint32_t bindingCount, SMSnmpValue *bindings);

// Called on the sending thread for every trap before it is recorded.
void onTrap(std::function<void(const Trap &)> hook);

// The traps so far; waitForTraps waits (a minute at most) until there are n.
std::vector<Trap> traps();
std::vector<Trap> waitForTraps(size_t n);

// Sleep(1000) and Sleep(55000) calls completed so far.
uint32_t tickSleeps();
uint32_t wakeUps();

// The clock the aggregation thread reads: starts at a fixed time and moves
// 55 seconds with every completed Sleep(55000).
int64_t aggregationClock();

// Called on the sleeping thread after each Sleep(55000), with the number of
// wake-ups so far, before the sleep returns.
void onWakeUp(std::function<void(uint32_t)> hook);

// For every vcsif32_getEvent call: the Sleep(1000) calls completed before it.
std::vector<uint32_t> getEventCalls();

// Event texts handed out by vcsif32_getEvent that the monitor has not
// released (the runtime reclaims them itself; releasing one it no longer
// holds does nothing); releaseOutstanding releases them (after the threads
// have stopped).
size_t outstandingTexts();
void releaseOutstanding();

// Forgets every record and hook.
void reset();

} // namespace eventspy

#endif // KELP_MODULE_EVENTS_EVENT_SPY_H
