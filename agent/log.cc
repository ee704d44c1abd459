// One formatted line per call, written with one write so that lines from the
// plug-in's threads and the agent's do not interleave.
#include "log.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace kelp::agent {

void logLine(const char *format, ...)
{
    char body[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(body, sizeof body, format, args);
    va_end(args);
    const std::string line = std::string("kelpagent: ") + body + "\n";
    // A failed write to stderr has nowhere to be reported.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

} // namespace kelp::agent
