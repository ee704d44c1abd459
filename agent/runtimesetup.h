// The runtime's configuration for one run of the agent, set through
// kelp/runtime.h before the plug-in is loaded: ini store, debug file and
// printing, the storage model, the control socket; and their reload.
#ifndef KELP_AGENT_RUNTIMESETUP_H
#define KELP_AGENT_RUNTIMESETUP_H

#include <string>

#include "options.h"

namespace kelp::agent {

class RuntimeSetup {
  public:
    RuntimeSetup() = default;
    // Stops the control socket and puts DebugSNMP back as it was.
    ~RuntimeSetup();
    RuntimeSetup(const RuntimeSetup &) = delete;
    RuntimeSetup &operator=(const RuntimeSetup &) = delete;

    // Points the runtime at options.ini (which must be usable: a regular
    // file within the size limit, or none) and <state-dir>/debug.log, makes
    // the ini store answer DebugSNMP=On for the run when options.debug
    // (without writing the file), loads and validates options.model, starts
    // the control socket. False with a message (naming the file, and the
    // line for a model error) on the first failure.
    bool apply(const Options &options, std::string *error);

    // On SIGHUP: checks the ini file again and loads the model file again,
    // logging what it did. A model that does not validate is logged and the
    // one served stays.
    void reload();

    // Undoes apply(); the destructor calls it.
    void release();

  private:
    // SIGHUP: a blocked alert list that blocks a rescan event is refused,
    // and the store goes on answering the list in force.
    void checkBlockedAlerts();

    Options options_;
    std::string blockedAlerts_; // the list in force
    bool blockedPinned_ = false;
    bool controlStarted_ = false;
    bool debugSet_ = false;
};

} // namespace kelp::agent

#endif // KELP_AGENT_RUNTIMESETUP_H
