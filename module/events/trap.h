// The trap sender: one storage event, as the event queue hands it out, made
// into one SNMP trap (its bindings, the alert text, the object's location
// and row) and handed to the framework's trap send (service table entry 7).
// The event monitor calls it for each event; the aggregation thread again
// for the events that repeated, with their count.
#ifndef KELP_MODULE_EVENTS_TRAP_H
#define KELP_MODULE_EVENTS_TRAP_H

#include <cstdint>

extern "C" {

// Sends trap `trapNumber` for event `eventId` described by `eventXml`
// (borrowed); `count` is 0 for a first occurrence, else the number of times
// the event occurred in the aggregation period. 0 when the trap went out or
// the event queue holds it back, 5 when memory ran out, else the send's
// status.
uint32_t KelpmibSendTrap(uint32_t trapNumber, uint32_t eventId, const char *eventXml,
                         uint32_t count);

// The dotted name of column 1 of the live-table row whose nexus is `nexus`
// in the table of object type `objType`, in a new 256-byte block the caller
// frees with SMFreeMem; null when the type has no table, the nexus is null
// or no row has it. Reads the live lists without the data lock.
char *getObjectRowOID(const char *nexus, uint32_t objType);

// The base board's and the chassis's service tag, as UTF-8 text in
// `buffer` of `size` bytes. 0, or a status.
uint32_t getBaseBoardServiceTag(char *buffer, uint32_t size);
uint32_t getChassisServiceTag(char *buffer, uint32_t size);

} // extern "C"

#endif // KELP_MODULE_EVENTS_TRAP_H
