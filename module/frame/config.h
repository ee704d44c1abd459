// Configuration from the framework's private ini store, and the module's
// private log.
#ifndef KELP_MODULE_FRAME_CONFIG_H
#define KELP_MODULE_FRAME_CONFIG_H

#include <cstdint>

// Sets up the debug printer at load: "DebugPath" names its location, and
// "DebugSNMP" "On" in any letter case switches printing on. A missing
// "DebugSNMP" is written back as "Off".
void configStartDebug();

// Reads "SNMPRefreshMinutes" into g_SNMPRefreshMinutes (0 or unreadable: 5)
// and "AggregateEvents" (exactly "On": g_bAggregateEvents = 1).
void configReadAttach();

// True when the text is "On" with ASCII letters compared without case.
bool configIsOnAnyCase(const char *text);

extern "C" {
// The private log. isDebugSNMPOn answers whether "DebugSNMP" is "On" (any
// case), writing "Off" back when the key is missing. openSNMPLog opens
// "smsnmp.log" in the install directory, truncated, when that is on.
// writeSNMPLog appends formatted text when the log is open.
bool isDebugSNMPOn(void);
void openSNMPLog(void);
void writeSNMPLog(const char *format, ...) __attribute__((format(printf, 1, 2)));
}

// Closes the private log and its mutex (the module itself never does; the log
// lives as long as the process).
void closeSNMPLog();

// The module's own log identity.
extern const char *const kModuleLogName;     // "kelpimp64"
extern const char *const kModuleLogFileName; // "kelpimp64.log"

#endif // KELP_MODULE_FRAME_CONFIG_H
