// The event-side worker threads that KelpmibStartMonitor starts.
#ifndef KELP_MODULE_EVENTS_WORKERS_H
#define KELP_MODULE_EVENTS_WORKERS_H

extern "C" {

// The event monitor: reads storage events and turns them into traps. Sets
// eMonitorEvtEnd when it leaves.
void MonitorEvents(void *unused);

// The aggregation thread: sends the held repeats of events with their count.
void AggregateEventsThread(void *unused);

} // extern "C"

#endif // KELP_MODULE_EVENTS_WORKERS_H
