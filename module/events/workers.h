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

// The aggregation interval in whole minutes: read by the aggregation thread
// when it starts, named in the sentence the trap sender appends to a repeat.
extern "C" uint32_t EventAggregateInteval;

#endif // KELP_MODULE_EVENTS_WORKERS_H
