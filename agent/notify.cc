// sd_notify messages (notify.h). A failed notification is not an error of
// the agent: it keeps serving, and the manager's time-out reports it.
#include "notify.h"

#include <systemd/sd-daemon.h>

#include <ctime>
#include <mutex>

#include "log.h"

namespace kelp::agent {
namespace {

void send(const std::string &message)
{
    const int sent = sd_notify(0, message.c_str());
    if (sent < 0) {
        logAt(LogLevel::kWarning, "cannot notify the service manager: error %d", -sent);
    }
}

// The status READY=1 last carried, for the end of a reload (which runs on
// the reload thread).
std::mutex readyMutex;
std::string readyStatus; // guarded by readyMutex

unsigned long long monotonicMicroseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000ULL +
           static_cast<unsigned long long>(now.tv_nsec) / 1000ULL;
}

} // namespace

std::string servingStatus(const Options &options)
{
    const std::string source = options.live ? "this machine's storage" : options.model;
    return "serving " + source +
           (options.agentx ? " as an AgentX subagent" : " on " + options.listen);
}

void notifyReady(const std::string &status)
{
    {
        std::lock_guard lock(readyMutex);
        readyStatus = status;
    }
    send("READY=1\nSTATUS=" + status);
}

void notifyStatus(const std::string &status)
{
    send("STATUS=" + status);
}

void notifyReloading(const std::string &status)
{
    send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonicMicroseconds()) +
         "\nSTATUS=" + status);
}

void notifyReloaded()
{
    std::string status;
    {
        std::lock_guard lock(readyMutex);
        status = readyStatus;
    }
    send("READY=1\nSTATUS=" + status);
}

void notifyStopping()
{
    send("STOPPING=1\nSTATUS=stopping");
}

} // namespace kelp::agent
