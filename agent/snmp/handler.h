// The one net-snmp handler that serves the whole plug-in tree, and the
// worker that answers the requests that would make the main loop wait.
#ifndef KELP_AGENT_SNMP_HANDLER_H
#define KELP_AGENT_SNMP_HANDLER_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "snmp/resolve.h"

namespace kelp::agent {

struct RequestSettings {
    // How long a request handed to the worker may take in all, from the
    // moment the main loop hands it over: about the plug-in's own lock
    // time-out for a master; less for an AgentX subagent, whose master
    // gives up after 1 s.
    std::chrono::milliseconds delegatedBudget{1000};
    // Requests handed to the worker and not yet answered, at most; a
    // request beyond that is answered genErr at once.
    size_t maxDelegated = 64;
};

// The request path of the plug-in tree. Every varbind below kMibRoot is
// resolved on the main loop (resolve.h) while the plug-in's tables' lock is
// free; when it is held (a rescan is rebuilding the tables), that varbind
// and the rest of its PDU are delegated to a worker thread that may wait,
// and the main loop goes on serving other requests.
class RequestPath {
  public:
    // `plugin` is the plug-in's dispatch (callable from any thread), valid
    // until stop(). `wake` is called from the worker when answers are
    // ready: the main loop must then call completeDelegated().
    RequestPath(Dispatch plugin, const RequestSettings &settings, std::function<void()> wake);
    // stop()
    ~RequestPath();
    RequestPath(const RequestPath &) = delete;
    RequestPath &operator=(const RequestPath &) = delete;

    // Registers kMibRoot as one subtree whose Get, GetNext and GetBulk come
    // here and whose Set is refused with notWritable. Call after
    // init_agent. False with a message when net-snmp refuses.
    bool registerRoot(std::string *error);

    // Main loop: writes the worker's answers into their requests and lets
    // net-snmp send the responses.
    void completeDelegated();

    // Main loop, before the plug-in is unloaded: waits for the worker's
    // current request and answers the ones still waiting with genErr.
    // Safe to call more than once.
    void stop();

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace kelp::agent

#endif // KELP_AGENT_SNMP_HANDLER_H
