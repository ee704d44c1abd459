/* queue.h - the event queue library: the framework's private ini store, the
 * install path, and the aggregation maps of repeated events.
 *
 * Conventions
 * - Status numbers: 0 success, 2 not found, 5 failure or bad argument,
 *   16 buffer too small (the size argument then holds the size needed).
 * - Sizes are in bytes and include the NUL.
 * - Section and key names compare without regard to ASCII case; values are
 *   kept as written (a value in double quotes keeps its blanks).
 */
#ifndef KELP_PLATFORM_QUEUE_H
#define KELP_PLATFORM_QUEUE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Copies the value of section/key into value. *size in: capacity, out: the
 * bytes written (value and NUL). 2 when the key is absent (nothing written),
 * 16 when the value does not fit. */
uint32_t SSGetPrivateIniValue(const char *section, const char *key, char *value, uint32_t *size);

/* Writes section/key = value, creating both when missing. The file is replaced
 * atomically; concurrent writers (threads or processes) do not lose each
 * other's keys. */
uint32_t SSSetPrivateIniValue(const char *section, const char *key, const char *value);

/* The directory kelp is installed in (KELP_INSTALL_PATH when set, else the
 * directory of the runtime library), without a trailing separator. */
uint32_t GetInstallPath(char *path, uint32_t *size);

/* Aggregation of repeated events. An event is a repeat when its number, nexus
 * and trap number equal those of an event held since the last freeEventMaps
 * (an event sent as an extra trap and then its main one is held twice). The first
 * occurrence is recorded with count 1 and answered 0 (send it now); a repeat
 * increments the count and is answered 1 (held back). */
uint32_t InsertEventinQueue(uint32_t eventId, const char *nexus, const char *message,
                            const char *eventText, uint32_t trapId);

/* Reads the held event at `position` (0-based, in the order first seen). The
 * event text goes into `eventText`, a buffer of at least
 * QUEUE_EVENT_TEXT_SIZE bytes, cut to fit. 0, or 2 past the end. */
enum { QUEUE_EVENT_TEXT_SIZE = 4096 };
uint32_t readQEventMaps(uint32_t *eventId, uint32_t *count, char *eventText, uint32_t *trapId,
                        uint32_t position);

/* The number of held events. */
uint32_t getNumberofEvents(void);

/* Forgets every held event. */
void freeEventMaps(void);

#ifdef __cplusplus
}
#endif

#endif /* KELP_PLATFORM_QUEUE_H */
