/* vcsupt.h - the framework's support library: memory, mutexes, events,
 * threads, the export context, number and text translation, host name.
 *
 * Conventions
 * - Status numbers: 0 success, 2 not found, 3 timed out, 5 failure or bad
 *   argument, 16 output buffer too small (the size argument then holds the
 *   size needed).
 * - Handles are opaque pointers; a null handle is never valid except where a
 *   function says so.
 * - Sizes are in bytes and include the terminating NUL of texts.
 * - Every timed wait (SMEventWait, Sleep) is divided by the runtime's time
 *   scale (KELP_TIME_SCALE); mutex time-outs are not, since they bound how
 *   long a caller may be kept waiting rather than measure a clock.
 */
#ifndef KELP_PLATFORM_VCSUPT_H
#define KELP_PLATFORM_VCSUPT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SM_STATUS_SUCCESS = 0,
    SM_STATUS_NOT_FOUND = 2,
    SM_STATUS_TIMEOUT = 3,
    SM_STATUS_FAILURE = 5,
    SM_STATUS_BUFFER_TOO_SMALL = 16
};

/* Infinite time-out for SMMutexLock and SMEventWait. */
#define SM_WAIT_FOREVER 0xFFFFFFFFu

/* Memory. SMAllocMem returns uninitialised memory or null; SMFreeMem accepts
 * null. The size is a 32-bit byte count (the fixed signature). */
void *SMAllocMem(uint32_t size);
void SMFreeMem(void *p);

/* Mutexes: recursive, owned by the locking thread. SMMutexCreate's argument is
 * reserved (pass 0). SMMutexLock answers 0 when obtained within timeoutMs
 * (SM_WAIT_FOREVER: no limit; 0: try once), 3 on time-out, 5 for a null
 * handle. SMMutexUnLock answers 5 when the caller does not hold the mutex.
 * SMMutexDestroy of a held mutex is the caller's error; null is ignored. */
typedef struct SMMutexRec *SMMutexHandle;
SMMutexHandle SMMutexCreate(uint32_t reserved);
uint32_t SMMutexLock(SMMutexHandle mutex, uint32_t timeoutMs);
uint32_t SMMutexUnLock(SMMutexHandle mutex);
void SMMutexDestroy(SMMutexHandle mutex);

/* Events. SMEventCreate(manualReset, initialState, reserved): SMEventCreate(0,
 * 0, 0) makes an auto-reset event that is not set (a successful wait clears
 * it). SMEventWait answers 0 when the event was set, 3 on time-out (also early,
 * when the waiting thread is being stopped by SMThreadStop), 5 for a null
 * handle. SMEventSet answers 0 or 5. */
typedef struct SMEventRec *SMEventHandle;
SMEventHandle SMEventCreate(uint32_t manualReset, uint32_t initialState, const char *reserved);
uint32_t SMEventSet(SMEventHandle event);
uint32_t SMEventReset(SMEventHandle event);
uint32_t SMEventWait(SMEventHandle event, uint32_t timeoutMs);
void SMEventDestroy(SMEventHandle event);

/* Threads. SMThreadStart runs fn(arg) on a new thread and answers its handle,
 * or null. SMThreadStop asks the thread to stop (its Sleep and timed waits
 * return early from then on), waits for it to return and releases the handle;
 * a null handle is accepted and does nothing. Answers 0, or 5 when called by
 * the thread on itself (the handle is then released when the thread ends). */
typedef void (*SMThreadFn)(void *arg);
typedef struct SMThreadRec *SMThreadHandle;
SMThreadHandle SMThreadStart(SMThreadFn fn, void *arg);
uint32_t SMThreadStop(SMThreadHandle thread);

/* The export context names the module that is running on a thread, so that
 * the libraries can attribute what they do (the debug printer names its file
 * after it). SMGetExportContext fills ctx for the module whose image holds the
 * record (a module keeps its context in a global), else for the module that
 * calls it.
 * SMSetExportContext saves the thread's current context into `saved` and
 * installs `ctx`; SMResetExportContext reinstalls `saved`. The layout is this
 * project's: the framework leaves it open. */
typedef struct SMExportContext {
    uint32_t size; /* sizeof(SMExportContext) once filled, else 0 */
    uint32_t reserved;
    char moduleName[64];  /* file name without "lib" and extension, e.g. "kelpimp64" */
    char modulePath[256]; /* full path of the module's file, possibly cut */
} SMExportContext;
uint32_t SMGetExportContext(SMExportContext *ctx);
uint32_t SMSetExportContext(SMExportContext *saved, const SMExportContext *ctx);
uint32_t SMResetExportContext(const SMExportContext *saved);

/* Number and text translation. Type codes: 4 signed 64-bit, 8 unsigned 64-bit.
 * SMXLTTypeValueToUTF8(value, valueSize (8), out, outSizeInOut, type) writes
 * the decimal text; *outSize in: capacity, out: bytes written with the NUL
 * (or needed, with 16). SMXLTUTF8ToTypeValue(text, value, sizeInOut (8),
 * type) parses a whole decimal text (type 4 accepts a leading "-"); 5 for a
 * text that is not such a number or out of range (value untouched). */
enum { SM_XLT_TYPE_S64 = 4, SM_XLT_TYPE_U64 = 8 };
uint32_t SMXLTTypeValueToUTF8(const void *value, uint32_t valueSize, char *out, uint32_t *outSize,
                              uint32_t typeCode);
uint32_t SMXLTUTF8ToTypeValue(const char *text, void *value, uint32_t *size, uint32_t typeCode);

/* UCS-2 (UTF-16, surrogate pairs accepted) to UTF-8. *size in: capacity of
 * out, out: bytes written with the NUL; 16 and the size needed when out is
 * too small; 5 for a null argument or an unpaired surrogate. */
uint32_t SMUCS2StrToUTF8Str(char *out, uint32_t *size, const uint16_t *ucs2);

/* The host's fully qualified name (KELP_FQDN when set, else the host name,
 * completed from /etc/hosts; no network look-up). *size as above. */
uint32_t SMGetIPFQDN(char *buffer, uint32_t *size);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KELP_PLATFORM_VCSUPT_H */
