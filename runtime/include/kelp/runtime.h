/* runtime.h - configuration of libkelpruntime.so for the program that hosts
 * the plug-in (kelpagent, tests, other hosts).
 *
 * A value set through these calls wins over the environment; while none is
 * set, the runtime reads KELP_INI, KELP_DEBUG_FILE, KELP_TIME_SCALE and
 * KELP_RESCAN_TIMEOUT each time it needs them. The calls are safe from any thread.
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

/* Where lines on what the runtime did go: one line for each control socket
 * command that changed the model or queued an event, and one for each live
 * rescan (how long it took, what changed). Level KELP_RUNTIME_LOG_NOTICE for
 * a change, KELP_RUNTIME_LOG_INFO for a rescan that found nothing new. The
 * same rules as for kelpRuntimeSetLog's function; null (the default) drops
 * them. */
#define KELP_RUNTIME_LOG_NOTICE 3
#define KELP_RUNTIME_LOG_INFO 4
void kelpRuntimeSetActivityLog(KelpRuntimeLogFn log);

/* Lock waits of the calling thread. From now on every SMMutexLock on this
 * thread waits at most `ms` milliseconds, whatever time-out its caller gives
 * (0: it takes only a free mutex); a negative value lifts the bound. A host
 * bounds its request threads with it: the plug-in's lock waits then fit the
 * host's own time limits, and the host's main loop never waits at all. The
 * bound belongs to the thread; a new thread has none. */
void kelpRuntimeSetLockWaitLimit(long ms);

/* How many SMMutexLock calls of the calling thread have ended without the
 * mutex because their wait ran out (bounded or not). It only grows: compare
 * it before and after a call into the plug-in to learn whether a lock
 * time-out made that call fail. */
unsigned long kelpRuntimeLockTimeouts(void);

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
 * 1 MiB", "PATH: cannot open: <reason>" or "PATH: cannot read: <reason>".
 * The caller reports that: the store's reads do not warn of the same fault
 * again until it changes or the file has been read. */
int kelpRuntimeCheckIni(char *error, unsigned errorSize);

/* The file VscilDebugPrint writes to, taking effect at the next
 * VscilDebugInit. Null forgets the set value (KELP_DEBUG_FILE applies
 * again); "" means no such file, so the printer names its file after the
 * module or writes to stderr, whatever KELP_DEBUG_FILE says. */
void kelpRuntimeSetDebugFile(const char *path);

/* The debug printer's switch, as the plug-in's VscilDebugToggle at load left
 * it from "DebugSNMP": kelpRuntimeDebugPrinting answers 1 while printing is
 * on, else 0; kelpRuntimeSetDebugPrinting(1 or 0) switches it on or off
 * (nothing when it already is), printing where VscilDebugInit chose. A host
 * uses them to apply a changed "DebugSNMP" without a restart. */
int kelpRuntimeDebugPrinting(void);
void kelpRuntimeSetDebugPrinting(int on);

/* Opens the debug file again at its path and closes the one open, so that
 * once logrotate has moved the file new lines go to a new file at the old
 * path. 0 also when there is nothing to reopen (printing is off or goes to
 * stderr). When the path cannot be opened, printing goes on into the file
 * open before and the call answers non-zero with a message in error (cut to
 * errorSize, when error is not null). */
int kelpRuntimeReopenDebugFile(char *error, unsigned errorSize);

/* The divisor of every Sleep and finite SMEventWait. A positive finite value
 * is set; anything else forgets the set value (KELP_TIME_SCALE applies
 * again). */
void kelpRuntimeSetTimeScale(double scale);

/* The time scale in force: the set value, else KELP_TIME_SCALE when it is a
 * positive number, else 1 (an unusable KELP_TIME_SCALE is reported once on
 * stderr). */
double kelpRuntimeTimeScale(void);

/* How long, in seconds, a rescan started event (3061) handed to the event
 * reader may stay without its rescan completed event (3060). Once it has
 * passed, the next vcsif32_getEvent hands out a 3060 of the runtime's own
 * (with a warning), and a 3060 that arrives later is dropped. Divided by the
 * time scale like every runtime clock; read at each vcsif32_getEvent, so a
 * change applies to a rescan already open. A positive finite value is set;
 * anything else forgets the set value (KELP_RESCAN_TIMEOUT, in seconds,
 * applies again; when unset or not a positive number, 30). */
void kelpRuntimeSetRescanTimeout(double seconds);

/* The storage model the data store serves. kelpRuntimeLoadModel validates
 * the file and serves it; on failure it answers non-zero, writes a message
 * naming the file and line into error (cut to errorSize, when error is not
 * null) and the served model stays as it was. While no host has loaded a
 * model, the first data-store query loads KELP_MODEL when it is set (a
 * failure is reported once on stderr; the store is then not ready). */
int kelpRuntimeLoadModel(const char *path, char *error, unsigned errorSize);

/* The alert catalogue (event numbers to severity and message, format in
 * data/ALERTS.md). The runtime loads it when it is loaded: from the file
 * KELP_CATALOGUE names then, else from the first of its default places that
 * exists. While none is in force, storage events have no alert level or
 * message, and the plug-in sends no trap for most of them.
 *
 * kelpRuntimeCatalogueStatus answers 0 while a catalogue is in force.
 * Otherwise it answers non-zero with one line in error (cut to errorSize,
 * when error is not null): "PATH:LINE: reason" for a line that breaks the
 * format, "PATH: ..." for a file that cannot be used ("PATH: cannot open:
 * <reason>", "PATH: not a regular file", "PATH: no 'default' line ..."), or
 * "no catalogue found in: PLACE, PLACE" when KELP_CATALOGUE was not set and
 * no default place holds a file.
 *
 * kelpRuntimeReloadCatalogue reads the catalogue again from the same choice
 * (the file KELP_CATALOGUE named at load, whatever it names now; else the
 * default places, searched again). On success it serves the new one and
 * answers 0; otherwise it answers non-zero with the message as above, and
 * the catalogue in force, if any, stays in force (the status stays 0). Both
 * are safe from any thread, also while the plug-in reads the catalogue: a
 * reader goes on with the catalogue it took. */
int kelpRuntimeCatalogueStatus(char *error, unsigned errorSize);
int kelpRuntimeReloadCatalogue(char *error, unsigned errorSize);

/* A host that asks kelpRuntimeCatalogueStatus at its start and reports a
 * catalogue that cannot be used in its own log defines this object (any
 * value): the runtime then does not write that failure to stderr itself
 * when it is loaded, before the host's log is set up. */
extern const int kelpRuntimeHostReportsCatalogue __attribute__((weak));

/* The file of the model served now: the one the last successful
 * kelpRuntimeLoadModel or control socket `load` read (or KELP_MODEL), also
 * after the control socket has changed that model since. The file is read,
 * parsed and validated without holding up the data-store queries, so a host
 * may call kelpRuntimeLoadModel with it off its main loop to re-read it.
 * Answers 0 with the path and its NUL in path; non-zero, with "" in path
 * when size allows, when no model is served, the model was not loaded from a
 * file, or path cannot hold the whole path and its NUL. */
int kelpRuntimeServedModelPath(char *path, unsigned size);

/* The most objects and links that any model served since the start held:
 * the rows of the plug-in's tables are built from served models, and a row
 * whose object went stays a hole, so a table's rows run at least this far
 * back when objects come and go. 0 before the first model. */
unsigned long kelpRuntimePeakModelSize(void);

/* How many times the served model has changed since the start (a load, a
 * reload, any change through the control socket or the live source): the
 * plug-in's tables can change only after it has. */
unsigned long kelpRuntimeModelChanges(void);

/* The control socket through which kelpctl changes the model and queues
 * events: a Unix socket at `path`, mode 0600, served by a thread of the
 * runtime. Answers 0, or non-zero with a message in error. A runtime loaded
 * with KELP_CONTROL set starts it on that path by itself. At most one socket
 * is served; starting another stops the first. */
int kelpRuntimeStartControl(const char *path, char *error, unsigned errorSize);

/* A host that serves the control socket on a path of its own defines this
 * object (any value): the runtime then leaves KELP_CONTROL, which such a
 * host's users may have set for kelpctl, alone when it loads, instead of
 * listening there before the host's main runs. */
extern const int kelpRuntimeHostServesControl __attribute__((weak));
void kelpRuntimeStopControl(void);

/* Queues the events a storage service raises when its configuration changes,
 * rescan started (3061) and then rescan completed (3060), as the control
 * socket's `load`, `add` and `remove` do after changing the model, so that
 * the plug-in rebuilds its rows from the model. Both are queued or neither.
 * Answers 0, or non-zero with a message in error (cut to errorSize, when
 * error is not null) when the event queue has no room for them. */
int kelpRuntimeQueueRescan(char *error, unsigned errorSize);

/* The events queued that the plug-in has not read yet. */
unsigned long kelpRuntimeQueuedEvents(void);

/* With hold non-zero, vcsif32_getEvent hands out no event until it is
 * called again with 0: the events stay queued (kelpRuntimeQueuedEvents
 * counts them), and a model swap does not wait for the plug-in's reader.
 * For a host about to stop its plug-in, whose event monitor drops an event
 * it reads once its stop has begun, without a trap or a word. */
void kelpRuntimeHoldEvents(int hold);

/* The live source: serves the storage of the machine under `root` ("/" for
 * this machine) in place of a model file, read from sysfs, rescanned every
 * intervalSeconds and at once on udev events, with storage events queued for
 * what changed. The first scan is done and served before the call returns.
 * From then on loads and changes of the model are refused. Answers 0, or
 * non-zero with a message in error when root is missing or not a directory,
 * intervalSeconds is not above 0, or a live source already runs.
 * kelpRuntimeLiveRescan asks for a rescan now (0), non-zero when no live
 * source runs; kelpRuntimeStopLive stops the rescans (the served data
 * stays). kelpRuntimeLiveSummary writes one line on what the last scan found
 * (counts per type, where enclosure components came from). */
int kelpRuntimeStartLive(const char *root, double intervalSeconds, char *error, unsigned errorSize);
/* How long a drive's health answer stands before a rescan asks the drive
 * again (300 s unless set; 0: at every rescan; a rescan asked for with
 * kelpRuntimeLiveRescan always asks). Takes effect at the next
 * kelpRuntimeStartLive; a value below 0 or not a number is ignored. */
void kelpRuntimeSetLiveHealthInterval(double seconds);
int kelpRuntimeLiveRescan(void);
void kelpRuntimeStopLive(void);
void kelpRuntimeLiveSummary(char *summary, unsigned size);

#ifdef __cplusplus
}
#endif

#endif /* KELP_RUNTIME_H */
