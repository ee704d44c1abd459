// The runtime's configuration: host settings from kelp/runtime.h win over the
// environment. Settings are kept under one mutex; the time scale, read on
// every timed wait, and the rescan time-out, read at every event handed out,
// are atomics.
#include "support/config.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>

#include "kelp/runtime.h"
#include "support/log.h"

namespace kelp::rt {
namespace {

std::mutex g_settingsMutex;
std::optional<std::string> g_iniPath;   // guarded by g_settingsMutex
std::optional<std::string> g_debugFile; // guarded by g_settingsMutex
std::string g_lastBadScale;             // guarded by g_settingsMutex; warned once
std::string g_lastBadRescanTimeout;     // guarded by g_settingsMutex; warned once

// 0 while no host has set a scale. Atomic, no lock (and the two below).
std::atomic<double> g_timeScale{0.0};
// 0 while no host has set a rescan time-out.
std::atomic<double> g_rescanTimeout{0.0};

// Capped far below the clock's range, so that adding the result to now
// cannot overflow.
std::chrono::steady_clock::duration fromNanoseconds(double ns)
{
    constexpr double kMaxNs = 3.0e18;
    if (!(ns > 0))
        ns = 0;
    if (ns > kMaxNs)
        ns = kMaxNs;
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::nanoseconds(static_cast<int64_t>(ns)));
}

std::string settingOrEnv(const std::optional<std::string> &set, const char *name)
{
    if (set)
        return *set;
    return envValue(name);
}

// A positive finite number from the environment variable `name`, or nullopt
// when it is unset, empty or unusable. An unusable text is reported once, and
// again only after it changes (*lastBad remembers it).
std::optional<double> positiveFromEnvironment(const char *name, double fallback,
                                              std::string *lastBad)
{
    std::string text = envValue(name);
    if (text.empty())
        return std::nullopt;
    errno = 0;
    char *end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (errno == 0 && end != nullptr && *end == '\0' && std::isfinite(v) && v > 0)
        return v;
    std::lock_guard lock(g_settingsMutex);
    if (*lastBad != text) {
        *lastBad = text;
        kelp::rt::logWarning("%s=\"%s\" is not a positive number, using %g", name, text.c_str(),
                             fallback);
    }
    return std::nullopt;
}

// KELP_TIME_SCALE when it is a positive finite number, else 1.
double scaleFromEnvironment()
{
    return positiveFromEnvironment("KELP_TIME_SCALE", 1.0, &g_lastBadScale).value_or(1.0);
}

} // namespace

std::string envValue(const char *name)
{
    const char *v = std::getenv(name);
    return v != nullptr ? std::string(v) : std::string();
}

std::string iniPath()
{
    std::lock_guard lock(g_settingsMutex);
    return settingOrEnv(g_iniPath, "KELP_INI");
}

std::string debugFile()
{
    std::lock_guard lock(g_settingsMutex);
    return settingOrEnv(g_debugFile, "KELP_DEBUG_FILE");
}

double timeScale()
{
    double set = g_timeScale.load();
    return set > 0 ? set : scaleFromEnvironment();
}

std::chrono::steady_clock::duration scaledMs(uint32_t ms)
{
    // A scale below 1 stretches waits.
    return fromNanoseconds(static_cast<double>(ms) * 1.0e6 / timeScale());
}

double rescanTimeoutSeconds()
{
    double set = g_rescanTimeout.load();
    if (set > 0)
        return set;
    return positiveFromEnvironment("KELP_RESCAN_TIMEOUT", kDefaultRescanTimeoutSeconds,
                                   &g_lastBadRescanTimeout)
        .value_or(kDefaultRescanTimeoutSeconds);
}

std::chrono::steady_clock::duration scaledRescanTimeout()
{
    return fromNanoseconds(rescanTimeoutSeconds() * 1.0e9 / timeScale());
}

} // namespace kelp::rt

extern "C" {

void kelpRuntimeSetIniPath(const char *path)
{
    std::lock_guard lock(kelp::rt::g_settingsMutex);
    kelp::rt::g_iniPath = path != nullptr ? std::optional<std::string>(path) : std::nullopt;
}

void kelpRuntimeSetDebugFile(const char *path)
{
    std::lock_guard lock(kelp::rt::g_settingsMutex);
    kelp::rt::g_debugFile = path != nullptr ? std::optional<std::string>(path) : std::nullopt;
}

void kelpRuntimeSetTimeScale(double scale)
{
    kelp::rt::g_timeScale.store(std::isfinite(scale) && scale > 0 ? scale : 0.0);
}

double kelpRuntimeTimeScale(void)
{
    return kelp::rt::timeScale();
}

void kelpRuntimeSetRescanTimeout(double seconds)
{
    kelp::rt::g_rescanTimeout.store(std::isfinite(seconds) && seconds > 0 ? seconds : 0.0);
}

} // extern "C"
