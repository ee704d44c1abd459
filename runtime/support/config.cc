// The runtime's configuration: host settings from kelp/runtime.h win over the
// environment. Settings are kept under one mutex; the time scale, read on
// every timed wait, is an atomic.
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

// 0 while no host has set a scale.
std::atomic<double> g_timeScale{0.0};

std::string settingOrEnv(const std::optional<std::string> &set, const char *name)
{
    if (set)
        return *set;
    return envValue(name);
}

// KELP_TIME_SCALE when it is a positive finite number, else 1. An unusable
// text is reported once, and again only after it changes.
double scaleFromEnvironment()
{
    std::string text = envValue("KELP_TIME_SCALE");
    if (text.empty())
        return 1.0;
    errno = 0;
    char *end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (errno == 0 && end != nullptr && *end == '\0' && std::isfinite(v) && v > 0)
        return v;
    std::lock_guard lock(g_settingsMutex);
    if (g_lastBadScale != text) {
        g_lastBadScale = text;
        kelp::rt::logWarning("KELP_TIME_SCALE=\"%s\" is not a positive number, using 1",
                             text.c_str());
    }
    return 1.0;
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
    // A scale below 1 stretches waits; cap the result far below the clock's range.
    constexpr double kMaxNs = 3.0e18;
    double ns = static_cast<double>(ms) * 1.0e6 / timeScale();
    if (!(ns > 0))
        ns = 0;
    if (ns > kMaxNs)
        ns = kMaxNs;
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::nanoseconds(static_cast<int64_t>(ns)));
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

} // extern "C"
