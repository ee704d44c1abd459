// The agent's log: one whole line per event, from any thread, to one of
// three places chosen at start. On a terminal or in a file each line starts
// with the local time; under systemd (stderr is the journal's stream)
// journald stamps lines itself and takes each line's severity from its
// "<N>" prefix (also written on request, --log-priorities); with --syslog
// lines go to the syslog socket.
// net-snmp's own messages come here too (snmpagent.cc), so they share the
// format and the place.
#ifndef KELP_AGENT_LOG_H
#define KELP_AGENT_LOG_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kelp::agent {

// syslog(3)'s severities, which every sink keeps.
enum class LogLevel { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6, kDebug = 7 };

enum class LogSink {
    kStderrStamped, // "2026-11-23 13:45:01.123 kelpagent: text"
    kStderrPlain,   // "<5>kelpagent: text" (journald adds the time, reads the severity)
    kSyslog,        // datagrams to the syslog socket, facility daemon
};

// True when JOURNAL_STREAM ("device:inode", set by systemd for a service's
// stdout/stderr) names the file open on `fd`.
bool isJournalStream(const char *journalStream, int fd);

// The sink for `syslog`: kSyslog; otherwise kStderrPlain when stderr is the
// journal's stream, else kStderrStamped.
LogSink chooseLogSink(bool syslog);

// The syslog socket kSyslog sends to: KELP_SYSLOG_SOCKET when set and not
// empty, else /dev/log.
std::string syslogSocketPath();

// From now on lines go to `sink`; kSyslog sends to syslogSocketPath() (a
// Unix datagram socket). Lines below `threshold` are dropped;
// `priorities` puts the "<N>" prefix before kStderrStamped lines too.
// Before the first call: kStderrStamped, threshold kInfo, no prefix.
// kSyslog connects at once: false with a message naming the socket and the
// reason when it cannot (the sink is then left as it was), so that a
// daemon asked to log to syslog does not start logging nowhere. A syslog
// daemon that goes away later costs lines to stderr, not the agent.
bool logOpen(LogSink sink, LogLevel threshold, bool priorities = false,
             std::string *error = nullptr);

// printf-style, at kNotice; the line feed is added.
void logLine(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logAt(LogLevel level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// One line of text (no line feed) at `level`.
void logText(LogLevel level, std::string_view text);

// The line kStderrStamped writes for `body` at `when` (local time), with
// its line feed.
std::string stampedLine(std::chrono::system_clock::time_point when, std::string_view body);

// "<N>": the prefix by which journald (and sd-daemon(3) readers) take a
// stderr line's severity.
std::string priorityPrefix(LogLevel level);

// The stderr line for `body` at `level` and `when`: stamped or not, with the
// priority prefix or not, with its line feed.
std::string stderrLine(LogLevel level, std::chrono::system_clock::time_point when,
                       std::string_view body, bool stamped, bool priorities);

// The datagram kSyslog sends: "<PRI>Mmm dd hh:mm:ss kelpagent[pid]: body",
// PRI = facility daemon + level (RFC 3164, as syslog(3) writes it).
std::string syslogDatagram(LogLevel level, std::chrono::system_clock::time_point when, pid_t pid,
                           std::string_view body);

// Lets an event through at most once per `interval` for each key (a source
// address, for example). Holds at most `maxKeys` keys: when full, keys whose
// interval has passed are forgotten first, and if none has, the oldest key
// is, so a flood of new keys costs bounded memory. With `maxPerInterval`,
// at most that many events go through in an interval (which starts with
// the first event let through after the last one ended), whatever their
// keys, so that a flood from spoofed sources costs bounded log lines too.
// Not thread-safe.
class LogRateLimit {
  public:
    using Clock = std::chrono::steady_clock;
    LogRateLimit(Clock::duration interval, size_t maxKeys, size_t maxPerInterval = 0);

    // True when `key` was not let through in the last interval before `now`,
    // and the interval's events stay within maxPerInterval; the key's
    // interval then starts at `now`.
    bool allow(const std::string &key, Clock::time_point now);

    // True, once per interval, when allow() refused an event of this
    // interval for maxPerInterval alone: the caller says so in one line.
    bool takeCapped();

  private:
    Clock::duration interval_;
    size_t maxKeys_;
    size_t maxPerInterval_;
    std::map<std::string, Clock::time_point> last_;
    std::optional<Clock::time_point> intervalStart_;
    size_t inInterval_ = 0;
    bool capped_ = false;         // an event of this interval was refused for the cap
    bool cappedReported_ = false; // takeCapped() said so in this interval
};

// The limit of the lines about requests and messages from the network: once
// a minute per source address (KELP_TIME_SCALE runs that clock fast), 1024
// sources remembered, at most kSourceLinesAMinute lines a minute whatever
// the sources, so that a flood from spoofed sources costs bounded lines.
inline constexpr size_t kSourceLinesAMinute = 100;
LogRateLimit sourceLogLimit();

// Lets an event through at most once per `interval`, whichever thread asks,
// without allocating: for the lines about memory running short.
class LogInterval {
  public:
    using Clock = std::chrono::steady_clock;
    explicit LogInterval(Clock::duration interval) : interval_(interval) {}

    // True when no event was let through in the last interval before `now`;
    // the interval then starts at `now`.
    bool allow(Clock::time_point now);

    // Logs `line` as a warning when allow(now) lets it through.
    void warn(const char *line);

  private:
    static constexpr Clock::rep kNever = std::numeric_limits<Clock::rep>::min();
    Clock::duration interval_;
    std::atomic<Clock::rep> last_{kNever};
};

} // namespace kelp::agent

#endif // KELP_AGENT_LOG_H
