// sd_notify messages (notify.h). A failed notification is not an error of
// the agent: it keeps serving, and the manager's time-out reports it.
#include "notify.h"

#include <systemd/sd-daemon.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "kelp/runtime.h"
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
    return servingStatus(options, options.model);
}

std::string servingStatus(const Options &options, const std::string &model)
{
    const std::string source = options.live ? "this machine's storage" : model;
    return "serving " + source +
           (options.agentx ? " as an AgentX subagent" : " on " + options.listen);
}

namespace {
std::atomic<bool> lookNow{false};
} // namespace

void notifyServedModelSoon()
{
    lookNow.store(true, std::memory_order_relaxed);
}

void notifyServedModel(const Options &options)
{
    static const bool underManager = [] {
        const char *socket = std::getenv("NOTIFY_SOCKET");
        return socket != nullptr && socket[0] != '\0';
    }();
    if (!underManager || options.live) {
        return;
    }
    // The main loop's thread alone calls this.
    static std::chrono::steady_clock::time_point lastLook;
    static std::string said = options.model;
    const auto now = std::chrono::steady_clock::now();
    if (!lookNow.exchange(false, std::memory_order_relaxed) &&
        now - lastLook < std::chrono::seconds(1)) {
        return;
    }
    lastLook = now;
    char served[4096];
    if (kelpRuntimeServedModelPath(served, sizeof served) != 0 || said == served) {
        return;
    }
    said = served;
    const std::string status = servingStatus(options, said);
    {
        std::lock_guard lock(readyMutex);
        readyStatus = status;
    }
    notifyStatus(status);
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
