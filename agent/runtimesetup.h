// The runtime's configuration for one run of the agent, set through
// kelp/runtime.h before the plug-in is loaded: ini store, debug file and
// printing, the storage model, the control socket.
#ifndef KELP_AGENT_RUNTIMESETUP_H
#define KELP_AGENT_RUNTIMESETUP_H

#include <optional>
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

    // Points the runtime at options.ini and <state-dir>/debug.log, sets
    // DebugSNMP=On for the run when options.debug, loads and validates
    // options.model, starts the control socket. False with a message (a
    // model error names the file and line) on the first failure.
    bool apply(const Options &options, std::string *error);

    // Undoes apply(); the destructor calls it.
    void release();

  private:
    bool controlStarted_ = false;
    bool debugSet_ = false;
    std::optional<std::string> previousDebug_; // DebugSNMP before the run; nullopt: absent
};

} // namespace kelp::agent

#endif // KELP_AGENT_RUNTIMESETUP_H
