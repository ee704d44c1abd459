// The runtime's own warnings and errors, and the lines on what it did. They go to the host's log
// when the host has set one (kelpRuntimeSetLog in kelp/runtime.h), else to stderr as "kelp: TEXT".
// Every part of the runtime reports through here, so that a host such as kelpagent shows them in
// its own log and format.
#ifndef KELP_RUNTIME_SUPPORT_LOG_H
#define KELP_RUNTIME_SUPPORT_LOG_H

namespace kelp::rt {

// printf-style; one line, without its line feed. Safe from any thread.
void logWarning(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logError(const char *format, ...) __attribute__((format(printf, 1, 2)));

// What the runtime did that an operator follows in the host's log: a model
// change through the control socket (logNotice), a live rescan (logNotice
// when something changed, logInfo when nothing did). These go to the host's
// activity log only (kelpRuntimeSetActivityLog); without one they are
// dropped, so a host that did not ask sees no new lines. Safe from any thread.
void logNotice(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logInfo(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_LOG_H
