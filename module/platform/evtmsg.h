/* evtmsg.h - the event-message catalogue: alert texts and severities, display
 * names and location texts of storage objects, the management web address.
 *
 * Conventions
 * - Status numbers: 0 success, 2 not found, 5 failure or bad argument,
 *   16 buffer too small.
 * - Output areas have the fixed sizes named here; texts are cut to fit.
 */
#ifndef KELP_PLATFORM_EVTMSG_H
#define KELP_PLATFORM_EVTMSG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    EVTMSG_TEXT_SIZE = 256,    /* each output area of the calls below */
    EVTMSG_MESSAGE_SIZE = 256, /* the alert message */
    EVTMSG_DESCRIPTION_SIZE = 1024
};

/* The alert of an event number: its message, with the insert strings put in
 * place of %1..%n, and its severity level as decimal text ("1", "2" or "4")
 * in `level`. Both areas are EVTMSG_TEXT_SIZE / EVTMSG_MESSAGE_SIZE bytes. */
uint32_t evtmsg_getAlertMsg(uint32_t eventId, char *level, char *message, uint32_t insertCount,
                            char *const *inserts);

/* Location texts of an object from its type code and nexus: location1 and
 * location2 (what a trap names), displayName (a table's name column) and
 * detail (the nexus's elements joined with `separator`). Each output area is
 * EVTMSG_TEXT_SIZE bytes; `language` is "en"; `reserved` is 0. */
uint32_t evtmsg_getObjLocationStrings(uint32_t objType, const char *nexus, const char *separator,
                                      const char *language, char *location1, char *location2,
                                      char *displayName, char *detail, uint32_t reserved);

/* The extended trap description and message id of an event: description is
 * EVTMSG_DESCRIPTION_SIZE bytes, messageId EVTMSG_TEXT_SIZE. */
uint32_t getEEMItrap(uint32_t objType, uint32_t insertCount, uint32_t eventId, char *const *inserts,
                     char *description, char *messageId);

/* The management web address. *size in: capacity, out: bytes with the NUL. */
uint32_t evtmsg_getPrylUrl(char *url, uint32_t *size);

#ifdef __cplusplus
}
#endif

#endif /* KELP_PLATFORM_EVTMSG_H */
