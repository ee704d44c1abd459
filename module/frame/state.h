// The module's state: the globals the frame owns, each with its writer and
// the lock that guards it (or why it needs none), and a scoped hold of the
// data lock. Lock order and threads: docs/THREADS.md. The command
// handlers are in frame/frame.h.
#ifndef KELP_MODULE_FRAME_STATE_H
#define KELP_MODULE_FRAME_STATE_H

#include <atomic>
#include <cstdint>

#include "platform/smsnmp.h"
#include "platform/vcsupt.h"

extern "C" {

// The module's export context, filled by the attach hook when the module is
// loaded; installed around every dispatch call. No lock: written once, before
// any thread of the module starts, and only read afterwards.
extern SMExportContext g_ModuleExportContext;

// The framework's service table and handle: written by commands 4 and 5 on
// the framework's thread, read by the trap sender. No lock: command 4 runs
// before command 7 starts the worker threads and command 5 after command 8
// has joined them, and thread start and join order the accesses.
extern void *const *g_FrameworkServices;
extern uint64_t g_FrameworkHandle;

// The data lock. Guards the live lists, the one-object XML cache and
// g_bSNMPTableInitialised. Created by KelpmibAttach, destroyed by
// KelpmibDetach.
extern SMMutexHandle dataMutex;

// Non-zero once the refresh thread has built the tables. Read and written
// under dataMutex.
extern uint32_t g_bSNMPTableInitialised;

// Set to 1 by KelpmibStopMonitor; polled once a second by the worker threads.
// Atomic, no lock.
extern std::atomic<uint32_t> stopRequested;

// Events, all auto-reset, created by KelpmibAttach in this order. The handles
// need no lock: written before the threads start, destroyed after they end;
// the events themselves are thread-safe.
extern SMEventHandle rescanEvent;      // monitor -> refresh thread: rebuild now
extern SMEventHandle rescanDoneEvent;  // monitor -> refresh thread: rescan completed
extern SMEventHandle eMonitorEvtEnd;   // the event monitor left its loop
extern SMEventHandle eEvtFuncEnd;      // the refresh thread left its loop
extern SMEventHandle refreshDoneEvent; // a periodic rebuild was merged

// Worker threads, written by KelpmibStartMonitor and KelpmibStopMonitor. No
// lock: commands 7 and 8 run one at a time on the framework's thread, the
// only one that reads them.
extern SMThreadHandle g_hMonitorThread;
extern SMThreadHandle g_hAggregateThread;
extern SMThreadHandle g_hRefreshThread;

// Configuration read by KelpmibAttach at load; only read afterwards. No lock:
// written before the threads start.
extern uint32_t g_bAggregateEvents;
extern uint32_t g_SNMPRefreshMinutes;

} // extern "C"

// Holds dataMutex for a scope: locked (or not, see locked()) by the
// constructor, unlocked by the destructor unless unlocked or kept before.
class DataLock {
  public:
    // Waits at most timeoutMs (SM_WAIT_FOREVER: no limit) for the lock.
    explicit DataLock(uint32_t timeoutMs) : held_(SMMutexLock(dataMutex, timeoutMs) == 0) {}
    ~DataLock()
    {
        if (held_) {
            SMMutexUnLock(dataMutex);
        }
    }
    DataLock(const DataLock &) = delete;
    DataLock &operator=(const DataLock &) = delete;

    bool locked() const { return held_; }

    // Unlocks now; false when the unlock failed (a request then answers
    // genErr) or the lock was not held.
    bool unlock()
    {
        if (!held_) {
            return false;
        }
        held_ = false;
        return SMMutexUnLock(dataMutex) == 0;
    }

    // Leaves the lock held past the scope: a failed build keeps the tables
    // locked so that requests fail instead of reading half-built tables.
    void keep() { held_ = false; }

  private:
    bool held_;
};

#endif // KELP_MODULE_FRAME_STATE_H
