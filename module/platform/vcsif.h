/* vcsif.h - the event interface: the queue of storage events that the event
 * monitor reads.
 *
 * Conventions: an event is XML text (one element per field, "EventID" always
 * present), the reader's until it releases it with vcsif32_freeData or asks
 * for the next event; the library reclaims a text still held then, and every
 * text still held when it unloads. The reader reads one event at a time and
 * keeps no text past its next read (the memory may be handed out again).
 */
#ifndef KELP_PLATFORM_VCSIF_H
#define KELP_PLATFORM_VCSIF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Switches the event queue on: events queued from then on are kept. */
void vcsif32_yesEventQ(void);
/* Declares that this client sends no commands through the interface. */
void vcsif32_noCmdQ(void);
/* The next queued event, oldest first, or null when none is queued.
 * `count` is the number of events asked for; only 1 is supported (any other
 * count answers null and changes nothing). Rescans stay well-formed: when a
 * rescan started event (3061) has waited for its rescan completed event
 * (3060) longer than the rescan time-out (kelp/runtime.h), a 3060 of the
 * library's own is handed out; a 3060 that closes no open 3061 is dropped,
 * and so is a 3061 while one is open (it restarts the time-out). */
char *vcsif32_getEvent(uint32_t count);
/* Releases an event text. A pointer that is not a text handed out and still
 * held (null, another block, a text already released or reclaimed) is
 * ignored: nothing is freed. */
void vcsif32_freeData(char *data);
/* Extended SNMP message preference: *flag = 1 when section "vcsipe" key
 * "ExtendedSNMPMessages" is "On", else 0. Answers 0, or 5 for null. */
uint32_t geteemisnmpmsgpref(uint32_t *flag);

#ifdef __cplusplus
}
#endif

#endif /* KELP_PLATFORM_VCSIF_H */
