// The aggregation thread.
//
// PLACEHOLDER until event aggregation lands: the body only sleeps until it is
// stopped; SMThreadStop ends its sleep at once.
#include "events/workers.h"
#include "frame/state.h"
#include "platform/os.h"

void AggregateEventsThread(void *)
{
    while (stopRequested == 0) {
        Sleep(55000);
    }
}
