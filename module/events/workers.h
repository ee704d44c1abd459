// The event-side worker threads that KelpmibStartMonitor starts.
#ifndef KELP_MODULE_EVENTS_WORKERS_H
#define KELP_MODULE_EVENTS_WORKERS_H

#include <cstdint>

extern "C" {

// The event monitor: reads storage events and turns them into traps. Sets
// eMonitorEvtEnd when it leaves.
void MonitorEvents(void *unused);

// The aggregation thread: sends the held repeats of events with their count.
void AggregateEventsThread(void *unused);

} // extern "C"

// The aggregation interval in whole minutes: section "vcsipe", key
// "EventAggregateInteval", read by the aggregation thread when it starts; 0
// (every wake-up is a pass) when the key is missing or is not a decimal
// number from 0 to 4294967295. Named in the sentence the trap sender appends
// to a repeat. Aggregation thread only, so no lock.
extern "C" uint32_t EventAggregateInteval;

// The clock the aggregation period is measured with, in seconds: the wall
// clock (time()) unless a test puts a clock of its own here before the
// thread starts. No lock: written only while the thread does not run.
extern int64_t (*g_aggregateClock)(void);

#endif // KELP_MODULE_EVENTS_WORKERS_H
