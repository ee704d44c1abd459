// The agent's log sinks. Each line is written with one write (or one
// datagram), so lines from the plug-in's threads and the agent's never
// interleave.
#include "log.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

#include "kelp/runtime.h"

namespace kelp::agent {
namespace {

constexpr int kFacilityDaemon = 3 << 3;
constexpr const char *kDefaultSyslogSocket = "/dev/log";

struct Logger {
    std::mutex mutex;
    LogSink sink = LogSink::kStderrStamped; // guarded by mutex
    LogLevel threshold = LogLevel::kInfo;   // guarded by mutex
    bool priorities = false;                // guarded by mutex
    int syslogFd = -1;                      // guarded by mutex; -1: not connected
};

Logger &logger()
{
    // Never destroyed: threads of the plug-in may log while the process
    // exits.
    static Logger *instance = new Logger;
    return *instance;
}

void writeStderr(const std::string &line)
{
    // A failed write to stderr has nowhere to be reported.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

// A socket connected to the syslog socket, or -1 with the reason in *why.
int openSyslog(std::string *why)
{
    const std::string path = syslogSocketPath();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        *why = "the path is too long for a socket";
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        *why = std::strerror(errno);
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    return fd;
}

// Connects the syslog socket when it is not; false when it cannot be.
// Requires the logger's mutex.
bool connectSyslog(Logger &log)
{
    if (log.syslogFd >= 0) {
        return true;
    }
    std::string why;
    log.syslogFd = openSyslog(&why);
    return log.syslogFd >= 0;
}

// Sends one datagram, reconnecting once (the syslog daemon may have been
// restarted). False when the line could not be delivered.
bool sendSyslog(Logger &log, const std::string &datagram)
{
    for (int attempt = 0; attempt < 2; attempt++) {
        if (!connectSyslog(log)) {
            return false;
        }
        if (send(log.syslogFd, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0) {
            return true;
        }
        close(log.syslogFd);
        log.syslogFd = -1;
    }
    return false;
}

void vlog(LogLevel level, const char *format, va_list args)
{
    char body[1024];
    std::vsnprintf(body, sizeof body, format, args);
    logText(level, body);
}

} // namespace

bool isJournalStream(const char *journalStream, int fd)
{
    if (journalStream == nullptr) {
        return false;
    }
    unsigned long long device = 0, inode = 0;
    if (std::sscanf(journalStream, "%llu:%llu", &device, &inode) != 2) {
        return false;
    }
    struct stat st {};
    return fstat(fd, &st) == 0 && st.st_dev == device && st.st_ino == inode;
}

LogSink chooseLogSink(bool syslog)
{
    if (syslog) {
        return LogSink::kSyslog;
    }
    return isJournalStream(std::getenv("JOURNAL_STREAM"), STDERR_FILENO) ? LogSink::kStderrPlain
                                                                         : LogSink::kStderrStamped;
}

std::string syslogSocketPath()
{
    const char *path = std::getenv("KELP_SYSLOG_SOCKET");
    return path == nullptr || path[0] == '\0' ? kDefaultSyslogSocket : path;
}

bool logOpen(LogSink sink, LogLevel threshold, bool priorities, std::string *error)
{
    int syslogFd = -1;
    if (sink == LogSink::kSyslog) {
        std::string why;
        syslogFd = openSyslog(&why);
        if (syslogFd < 0) {
            if (error != nullptr) {
                *error = "--syslog: cannot reach the syslog socket " + syslogSocketPath() + ": " +
                         why + " (is a syslog daemon or journald running?)";
            }
            return false;
        }
    }
    Logger &log = logger();
    std::lock_guard lock(log.mutex);
    if (log.syslogFd >= 0) {
        close(log.syslogFd);
    }
    log.syslogFd = syslogFd;
    log.sink = sink;
    log.threshold = threshold;
    log.priorities = priorities;
    return true;
}

void logLine(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vlog(LogLevel::kNotice, format, args);
    va_end(args);
}

void logAt(LogLevel level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vlog(level, format, args);
    va_end(args);
}

void logText(LogLevel level, std::string_view text)
{
    Logger &log = logger();
    const auto now = std::chrono::system_clock::now();
    std::lock_guard lock(log.mutex);
    if (static_cast<int>(level) > static_cast<int>(log.threshold)) {
        return;
    }
    try {
        switch (log.sink) {
        case LogSink::kSyslog:
            if (sendSyslog(log, syslogDatagram(level, now, getpid(), text))) {
                return;
            }
            // The syslog daemon went away: the line still goes somewhere a
            // user can see.
            writeStderr(stderrLine(level, now, text, true, log.priorities));
            return;
        case LogSink::kStderrPlain:
            writeStderr(stderrLine(level, now, text, false, true));
            return;
        case LogSink::kStderrStamped:
            writeStderr(stderrLine(level, now, text, true, log.priorities));
            return;
        }
    } catch (const std::bad_alloc &) {
        // No memory to format the line (often what it reports): it goes to
        // stderr as it stands, from the pieces it has.
        static constexpr std::string_view kName = "kelpagent: ";
        iovec pieces[] = {{const_cast<char *>(kName.data()), kName.size()},
                          {const_cast<char *>(text.data()), text.size()},
                          {const_cast<char *>("\n"), 1}};
        [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, pieces, 3);
    }
}

std::string stampedLine(std::chrono::system_clock::time_point when, std::string_view body)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count() %
        1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[40];
    const size_t length = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(stamp + length, sizeof stamp - length, ".%03d", static_cast<int>(millis));
    return std::string(stamp) + " kelpagent: " + std::string(body) + "\n";
}

std::string priorityPrefix(LogLevel level)
{
    return "<" + std::to_string(static_cast<int>(level)) + ">";
}

std::string stderrLine(LogLevel level, std::chrono::system_clock::time_point when,
                       std::string_view body, bool stamped, bool priorities)
{
    std::string line = priorities ? priorityPrefix(level) : std::string();
    if (stamped) {
        return line + stampedLine(when, body);
    }
    return line + "kelpagent: " + std::string(body) + "\n";
}

std::string syslogDatagram(LogLevel level, std::chrono::system_clock::time_point when, pid_t pid,
                           std::string_view body)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[20];
    // The C locale's month names, as syslog(3) and RFC 3164 have them.
    static constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::snprintf(stamp, sizeof stamp, "%s %2d %02d:%02d:%02d", kMonths[local.tm_mon % 12],
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return "<" + std::to_string(kFacilityDaemon | static_cast<int>(level)) + ">" + stamp +
           " kelpagent[" + std::to_string(pid) + "]: " + std::string(body);
}

bool LogInterval::allow(Clock::time_point now)
{
    const Clock::rep at = now.time_since_epoch().count();
    Clock::rep last = last_.load();
    while (last == kNever || at - last >= interval_.count()) {
        if (last_.compare_exchange_weak(last, at)) {
            return true;
        }
    }
    return false;
}

void LogInterval::warn(const char *line)
{
    if (allow(Clock::now())) {
        logAt(LogLevel::kWarning, "%s", line);
    }
}

LogRateLimit::LogRateLimit(Clock::duration interval, size_t maxKeys, size_t maxPerInterval)
    : interval_(interval), maxKeys_(maxKeys == 0 ? 1 : maxKeys), maxPerInterval_(maxPerInterval)
{
}

bool LogRateLimit::allow(const std::string &key, Clock::time_point now)
{
    if (intervalStart_ && now - *intervalStart_ >= interval_) {
        intervalStart_.reset();
        inInterval_ = 0;
        capped_ = false;
        cappedReported_ = false;
    }
    const auto found = last_.find(key);
    if (found != last_.end() && now - found->second < interval_) {
        return false;
    }
    if (maxPerInterval_ != 0 && inInterval_ >= maxPerInterval_) {
        capped_ = true;
        return false;
    }
    if (!intervalStart_) {
        intervalStart_ = now;
    }
    inInterval_++;
    if (found != last_.end()) {
        found->second = now;
        return true;
    }
    if (last_.size() >= maxKeys_) {
        std::erase_if(last_, [&](const auto &entry) { return now - entry.second >= interval_; });
    }
    if (last_.size() >= maxKeys_) {
        auto oldest = last_.begin();
        for (auto it = last_.begin(); it != last_.end(); ++it) {
            if (it->second < oldest->second) {
                oldest = it;
            }
        }
        last_.erase(oldest);
    }
    last_.emplace(key, now);
    return true;
}

LogRateLimit sourceLogLimit()
{
    constexpr auto kInterval = std::chrono::minutes(1);
    constexpr size_t kMaxSources = 1024;
    return LogRateLimit(std::chrono::duration_cast<LogRateLimit::Clock::duration>(
                            std::chrono::duration<double>(kInterval) / kelpRuntimeTimeScale()),
                        kMaxSources, kSourceLinesAMinute);
}

bool LogRateLimit::takeCapped()
{
    if (!capped_ || cappedReported_) {
        return false;
    }
    cappedReported_ = true;
    return true;
}

} // namespace kelp::agent
