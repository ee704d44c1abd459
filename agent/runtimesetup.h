// The runtime's configuration for one run of the agent, set through
// kelp/runtime.h before the plug-in is loaded: ini store, debug file and
// printing, the storage model, the control socket; and their reload.
#ifndef KELP_AGENT_RUNTIMESETUP_H
#define KELP_AGENT_RUNTIMESETUP_H

#include <mutex>
#include <string>
#include <thread>

#include "options.h"

namespace kelp::agent {

class RuntimeSetup {
  public:
    RuntimeSetup() = default;
    // Stops the control socket and puts DebugSNMP back as it was.
    ~RuntimeSetup();
    RuntimeSetup(const RuntimeSetup &) = delete;
    RuntimeSetup &operator=(const RuntimeSetup &) = delete;

    // Points the runtime at options.ini (one that cannot be read, or is not
    // a regular file within the size limit, is logged as a warning and the
    // plug-in runs on its defaults) and <state-dir>/debug.log, makes
    // the ini store answer DebugSNMP=On for the run when options.debug
    // (without writing the file), loads and validates options.model, starts
    // the control socket. False with a message (naming the file, and the
    // line for a model error) on the first failure.
    bool apply(const Options &options, std::string *error);

    // On SIGHUP, from the main loop: starts reading the configuration again
    // on a thread of its own and returns at once. The thread checks the ini
    // file (a blocked alert list naming a rescan event is refused; a changed
    // DebugSNMP switches debug printing), reopens the debug file, reads
    // the alert catalogue again (a broken one is logged and the served one
    // stays), and reads the model served now (the last kelpctl load, else
    // --model) again, then queues the rescan pair as kelpctl load does. A
    // model that does not validate is logged and the one served stays.
    // SIGHUPs during a reload make one more reload after it.
    void reload();

    // On SIGUSR1 (and at every SIGHUP): opens the debug file again at its
    // path, so that logrotate can move it away; logs what it did.
    void reopenDebugFile(const char *why);

    // The first step of a stop: the control socket lets a command that is
    // running end (a load then swaps while the plug-in still reads its
    // events), answers the others that the agent stops, and closes. Safe to
    // call more than once; release() calls it.
    void stopControl();

    // The next step, before the plug-in stops: the events still queued stay
    // queued, to be counted as dropped, rather than being read by a plug-in
    // that drops them unreported. apply() lets them be read again.
    void holdEvents();

    // Waits for a reload under way, then undoes apply(); the destructor
    // calls it.
    void release();

  private:
    // The reload thread: reloads until no SIGHUP came during the last one.
    void reloadUntilDone();
    // One reload, on the reload thread.
    void reloadNow();
    // SIGHUP: a DebugSNMP that now says otherwise than the printer's state
    // switches printing (the plug-in reads it only at load); logged.
    void applyDebugSnmp();
    // SIGHUP: a blocked alert list that blocks a rescan event is refused,
    // and the store goes on answering the list in force.
    void checkBlockedAlerts();

    Options options_;
    std::string debugFile_;
    std::string blockedAlerts_; // the list in force
    bool blockedPinned_ = false;
    std::thread reloadThread_;
    std::mutex reloadMutex_;
    bool reloadRunning_ = false; // guarded by reloadMutex_
    bool reloadAgain_ = false;   // guarded by reloadMutex_
    bool controlStarted_ = false;
    bool liveStarted_ = false;
    bool debugSet_ = false;
};

} // namespace kelp::agent

#endif // KELP_AGENT_RUNTIMESETUP_H
