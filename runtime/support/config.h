// Runtime-private access to the runtime's configuration: the values a host set
// through kelp/runtime.h, else the environment (KELP_INI, KELP_DEBUG_FILE,
// KELP_TIME_SCALE, KELP_RESCAN_TIMEOUT), read at each call so that a changed
// environment applies.
#ifndef KELP_RUNTIME_SUPPORT_CONFIG_H
#define KELP_RUNTIME_SUPPORT_CONFIG_H

#include <chrono>
#include <cstdint>
#include <string>

namespace kelp::rt {

// The private ini store's file; empty selects the in-memory store.
std::string iniPath();

// The debug printer's file; empty when neither the host nor the environment
// names one.
std::string debugFile();

// The divisor of timed waits, always positive and finite.
double timeScale();

// ms milliseconds divided by the time scale, at least 0, at most about a
// century (so that adding it to now cannot overflow).
std::chrono::steady_clock::duration scaledMs(uint32_t ms);

// How long a rescan may stay open when no host or environment says otherwise.
inline constexpr double kDefaultRescanTimeoutSeconds = 30;

// The rescan time-out in seconds, not yet scaled: the host's value, else
// KELP_RESCAN_TIMEOUT when it is a positive number, else
// kDefaultRescanTimeoutSeconds (an unusable KELP_RESCAN_TIMEOUT is warned
// about once).
double rescanTimeoutSeconds();

// rescanTimeoutSeconds() divided by the time scale, capped as scaledMs is.
std::chrono::steady_clock::duration scaledRescanTimeout();

// A non-empty environment variable's value, or empty.
std::string envValue(const char *name);

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_CONFIG_H
