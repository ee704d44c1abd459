/* vscil.h - the storage data store and its debug printer.
 *
 * Conventions
 * - Every query answers XML text that the caller releases with freeMem, or
 *   null. The first argument receives a status: 0 success, 2 no such object
 *   or no answer, 5 failure, 7 data store not available.
 * - Texts are UTF-8. An object's answer is at most 65,536 bytes with its NUL;
 *   an attribute value is at most 159 bytes.
 */
#ifndef KELP_PLATFORM_VSCIL_H
#define KELP_PLATFORM_VSCIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { VSCIL_STATUS_UNAVAILABLE = 7 };

/* A text holding <Code>0</Code> when the store is ready, a non-zero code when
 * it is not; null when there is no store at all. */
char *DataStoreReady(uint32_t *status);

/* All objects of a type, one element run per object, in store order. Null
 * when the type has no objects. */
char *GetObjectList(uint32_t *status, const char *typeName);

/* One object's element run, starting with <ObjID>. `reserved` is 0. */
char *GetSingleObject(uint32_t *status, uint32_t reserved, uint32_t objId);

/* Objects of type `kind` that are ancestors, descendants or links of objId,
 * in store order; null when there are none. */
char *GetAssociated(uint32_t *status, const char *kind, uint32_t objId);

/* <objectCount>N</objectCount>: the number of objects GetAssociated would
 * answer. */
char *GetAssociatedPhyDevCount(uint32_t *status, const char *kind, uint32_t objId);

/* The smart thermal shutdown setting of the system (the value of the model's
 * thermalShutdown attribute; 0 when there is no store). */
uint32_t GetSmartThermalShutdownStatus(void);

/* Releases an answer of the queries above; null is ignored. */
void freeMem(char *xml);

/* The debug printer. VscilDebugInit(path) names where the lines go: the file
 * KELP_DEBUG_FILE when set, else "<path>/<module>.log" for a non-empty path
 * (module from the caller's export context), else stderr. Printing starts
 * off; VscilDebugToggle flips it. VscilDebugPrint is printf-style, adds
 * nothing to the text and is safe from any thread. VscilDebugExit switches
 * printing off and closes the file. */
void VscilDebugInit(const char *path);
void VscilDebugToggle(void);
void VscilDebugPrint(const char *format, ...) __attribute__((format(printf, 1, 2)));
void VscilDebugExit(void);

#ifdef __cplusplus
}
#endif

#endif /* KELP_PLATFORM_VSCIL_H */
