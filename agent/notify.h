// Tells the service manager how kelpagent is doing (sd_notify): ready once
// the first model is served, a status line, reloads and the shutdown. Every
// call does nothing when the agent was not started by a manager that asked
// for it (no NOTIFY_SOCKET), so the agent behaves the same outside systemd.
#ifndef KELP_AGENT_NOTIFY_H
#define KELP_AGENT_NOTIFY_H

#include <string>

#include "options.h"

namespace kelp::agent {

// The status line while the agent serves: "serving MODEL on ADDR" (or this
// machine's storage, or as an AgentX subagent).
std::string servingStatus(const Options &options);

// The same for the model file `model` in place of the one options name.
std::string servingStatus(const Options &options, const std::string &model);

// When the model file the data store serves is another than the status
// last said (a kelpctl load, or a reload of another file), STATUS= with the
// new one, which a reload's READY=1 then carries too. Cheap enough for
// every turn of the main loop: it looks at most once a second, and only
// under a manager that asked for notifications.
void notifyServedModel(const Options &options);

// Asks the next notifyServedModel to look at once (the control socket
// changed something). Any thread.
void notifyServedModelSoon();

// READY=1 with STATUS=`status`: the agent answers requests.
void notifyReady(const std::string &status);

// STATUS=`status` alone.
void notifyStatus(const std::string &status);

// RELOADING=1 (with MONOTONIC_USEC, as systemd asks) and STATUS=`status`;
// notifyReady ends the reload.
void notifyReloading(const std::string &status);

// READY=1 with the status of the last notifyReady: a reload has ended.
void notifyReloaded();

// STOPPING=1: the agent is shutting down.
void notifyStopping();

} // namespace kelp::agent

#endif // KELP_AGENT_NOTIFY_H
