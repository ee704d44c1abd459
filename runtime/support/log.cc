// Where the runtime's warnings and errors go (support/log.h).
#include "support/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "kelp/runtime.h"

namespace kelp::rt {
namespace {

// Atomic, no lock: a host sets them, any thread logs through them.
std::atomic<KelpRuntimeLogFn> g_hostLog{nullptr};
std::atomic<KelpRuntimeLogFn> g_activityLog{nullptr};

void logV(int level, const char *format, va_list args)
{
    char line[1024];
    std::vsnprintf(line, sizeof line, format, args);
    const KelpRuntimeLogFn host = g_hostLog.load();
    if (host != nullptr) {
        host(level, line);
        return;
    }
    std::fprintf(stderr, "kelp: %s\n", line);
}

void activityV(int level, const char *format, va_list args)
{
    const KelpRuntimeLogFn host = g_activityLog.load();
    if (host == nullptr)
        return;
    char line[1024];
    std::vsnprintf(line, sizeof line, format, args);
    host(level, line);
}

} // namespace

void logWarning(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    logV(KELP_RUNTIME_LOG_WARNING, format, args);
    va_end(args);
}

void logError(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    logV(KELP_RUNTIME_LOG_ERROR, format, args);
    va_end(args);
}

void logNotice(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    activityV(KELP_RUNTIME_LOG_NOTICE, format, args);
    va_end(args);
}

void logInfo(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    activityV(KELP_RUNTIME_LOG_INFO, format, args);
    va_end(args);
}

} // namespace kelp::rt

extern "C" void kelpRuntimeSetLog(KelpRuntimeLogFn log)
{
    kelp::rt::g_hostLog.store(log);
}

extern "C" void kelpRuntimeSetActivityLog(KelpRuntimeLogFn log)
{
    kelp::rt::g_activityLog.store(log);
}
