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

/* Where the runtime's warnings and errors go: to `log` (level
 * KELP_RUNTIME_LOG_WARNING or KELP_RUNTIME_LOG_ERROR, one line without its
 * line feed) once set, else to stderr as "kelp: LINE". `log` may be called
 * from any thread, also while the host is inside a runtime call, and must not
 * call back into the runtime. Null goes back to stderr. */
#define KELP_RUNTIME_LOG_WARNING 1
#define KELP_RUNTIME_LOG_ERROR 2
typedef void (*KelpRuntimeLogFn)(int level, const char *line);
void kelpRuntimeSetLog(KelpRuntimeLogFn log);

/* The private ini store's file. Null forgets the set value (KELP_INI applies
 * again); "" selects the process's in-memory store whatever KELP_INI says. */
void kelpRuntimeSetIniPath(const char *path);

/* A value the private ini store answers for section/key in place of the
 * file's (or the in-memory store's): SSGetPrivateIniValue returns it also
 * when the file is missing, unreadable or lacks the key. It is never written
 * to the file; SSSetPrivateIniValue of the key still writes the file, and the
 * override goes on answering. Names are compared without regard to ASCII
 * case, as in the file. A null value removes the override (no error when
 * there is none). Answers 0, or non-zero (nothing changed) for a null section
 * or key, or for names or a value SSSetPrivateIniValue would refuse. */
int kelpRuntimeSetIniOverride(const char *section, const char *key, const char *value);

/* Reads the private ini store's file in force now (the set path, else
 * KELP_INI) as SSGetPrivateIniValue would. Answers 0 when it can be read, is
 * missing (an empty store) or no file is used (the in-memory store);
 * malformed lines are only warned about on stderr, once per content.
 * Otherwise answers non-zero with one line in error (cut to errorSize, when
 * error is not null): "PATH: not a regular file", "PATH: over the limit of
 * 1 MiB", "PATH: cannot open: <reason>" or "PATH: cannot read: <reason>". */
int kelpRuntimeCheckIni(char *error, unsigned errorSize);

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

/* The storage model the data store serves. kelpRuntimeLoadModel validates
 * the file and serves it; on failure it answers non-zero, writes a message
 * naming the file and line into error (cut to errorSize, when error is not
 * null) and the served model stays as it was. While no host has loaded a
 * model, the first data-store query loads KELP_MODEL when it is set (a
 * failure is reported once on stderr; the store is then not ready). */
int kelpRuntimeLoadModel(const char *path, char *error, unsigned errorSize);

/* The file of the model served now: the one the last successful
 * kelpRuntimeLoadModel or control socket `load` read (or KELP_MODEL), also
 * after the control socket has changed that model since. The file is read,
 * parsed and validated without holding up the data-store queries, so a host
 * may call kelpRuntimeLoadModel with it off its main loop to re-read it.
 * Answers 0 with the path and its NUL in path; non-zero, with "" in path
 * when size allows, when no model is served, the model was not loaded from a
 * file, or path cannot hold the whole path and its NUL. */
int kelpRuntimeServedModelPath(char *path, unsigned size);

/* The control socket through which kelpctl changes the model and queues
 * events: a Unix socket at `path`, mode 0600, served by a thread of the
 * runtime. Answers 0, or non-zero with a message in error. A runtime loaded
 * with KELP_CONTROL set starts it on that path by itself. At most one socket
 * is served; starting another stops the first. */
int kelpRuntimeStartControl(const char *path, char *error, unsigned errorSize);
void kelpRuntimeStopControl(void);

/* Queues the events a storage service raises when its configuration changes,
 * rescan started (3061) and then rescan completed (3060), as the control
 * socket's `load`, `add` and `remove` do after changing the model, so that
 * the plug-in rebuilds its rows from the model. Both are queued or neither.
 * Answers 0, or non-zero with a message in error (cut to errorSize, when
 * error is not null) when the event queue has no room for them. */
int kelpRuntimeQueueRescan(char *error, unsigned errorSize);

#ifdef __cplusplus
}
#endif

#endif /* KELP_RUNTIME_H */
