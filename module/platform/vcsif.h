/* vcsif.h - the event interface: the queue of storage events that the event
 * monitor reads.
 *
 * Conventions: an event is XML text (one element per field, "EventID" always
 * present) owned by the library until released with vcsif32_freeData.
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
 * `count` is the number of events asked for; only 1 is supported. */
char *vcsif32_getEvent(uint32_t count);
/* Releases an event text; null is ignored. */
void vcsif32_freeData(char *data);
/* Extended SNMP message preference: *flag = 1 when section "vcsipe" key
 * "ExtendedSNMPMessages" is "On", else 0. Answers 0, or 5 for null. */
uint32_t geteemisnmpmsgpref(uint32_t *flag);

#ifdef __cplusplus
}
#endif

#endif /* KELP_PLATFORM_VCSIF_H */
