// The plug-in's lifetime as the agent drives it: dlopen, commands 1-3, load
// (4) with the service table, the MIB definition (6), monitoring (7), and on
// the way out 8, 5 and dlclose. Requests go through dispatch().
#ifndef KELP_AGENT_MODULE_H
#define KELP_AGENT_MODULE_H

#include <cstdint>
#include <string>

#include "pluginhost.h"
#include "snmp/resolve.h"

namespace kelp::agent {

class ModuleHost {
  public:
    ModuleHost() = default;
    // stop()
    ~ModuleHost();
    ModuleHost(const ModuleHost &) = delete;
    ModuleHost &operator=(const ModuleHost &) = delete;

    // Loads the plug-in and finds its dispatch. False with a message naming
    // the path and the loader's reason.
    bool open(const std::string &path, std::string *error);

    // Commands 1-3 (answers logged), 4 with `services` (SM_SERVICE_COUNT
    // entries, kept by the plug-in until command 5) and `handle`, then 6,
    // logging what the MIB definition registers and what is served (each
    // group with --debug). False with a message when
    // command 4 or 6 fails.
    bool load(void *const *services, uint64_t handle, std::string *error);

    // Command 7. False with a message when it fails.
    bool startMonitor(std::string *error);

    // Command 8 when monitoring, command 5 when loaded, then dlclose. Safe to
    // call more than once.
    void stop();

    // The plug-in's dispatch; valid between open() and stop().
    const Dispatch &dispatch() const { return dispatch_; }

  private:
    PluginHost host_;
    std::string path_;
    Dispatch dispatch_;
    bool loaded_ = false;
    bool monitoring_ = false;
};

} // namespace kelp::agent

#endif // KELP_AGENT_MODULE_H
