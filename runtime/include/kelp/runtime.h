/* runtime.h - configuration of libkelpruntime.so for the program that hosts
 * the plug-in (kelpagent, tests, other hosts).
 *
 * A value set through these calls wins over the environment; while none is
 * set, the runtime reads KELP_INI, KELP_DEBUG_FILE and KELP_TIME_SCALE each
 * time it needs them. The calls are safe from any thread.
 */
#ifndef KELP_RUNTIME_H
#define KELP_RUNTIME_H

#ifdef __cplusplus
extern "C" {
#endif

/* The private ini store's file. Null forgets the set value (KELP_INI applies
 * again); "" selects the process's in-memory store whatever KELP_INI says. */
void kelpRuntimeSetIniPath(const char *path);

/* The file VscilDebugPrint writes to, taking effect at the next
 * VscilDebugInit. Null forgets the set value (KELP_DEBUG_FILE applies
 * again); "" means no such file, so the printer names its file after the
 * module or writes to stderr, whatever KELP_DEBUG_FILE says. */
void kelpRuntimeSetDebugFile(const char *path);

/* The divisor of every Sleep and finite SMEventWait. A positive finite value
 * is set; anything else forgets the set value (KELP_TIME_SCALE applies
 * again). */
void kelpRuntimeSetTimeScale(double scale);

/* The time scale in force: the set value, else KELP_TIME_SCALE when it is a
 * positive number, else 1 (an unusable KELP_TIME_SCALE is reported once on
 * stderr). */
double kelpRuntimeTimeScale(void);

#ifdef __cplusplus
}
#endif

#endif /* KELP_RUNTIME_H */
