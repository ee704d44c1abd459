// The operator's lines on a subagent's AgentX connection: connected, lost
// (with net-snmp's reason), regained (after how long). net-snmp reports the
// events through callbacks and its reasons through log lines that may come
// before or after them, and retries a missing master every few seconds with
// a warning each time; this turns all of it into one line per change.
// Free of net-snmp: snmpagent.cc feeds it.
#ifndef KELP_AGENT_AGENTXLOG_H
#define KELP_AGENT_AGENTXLOG_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "log.h"

namespace kelp::agent {

class AgentxLog {
  public:
    using Clock = std::chrono::steady_clock;
    using Line = std::pair<LogLevel, std::string>;

    // `master`: the socket as the user named it (empty: net-snmp's
    // default); `retrySeconds`: net-snmp's reconnect period; `probe`, when
    // set, finds a reason of its own where net-snmp gives none (it says
    // "Failed to connect" without why when the socket is missing).
    AgentxLog(std::string master, int retrySeconds, std::function<std::string()> probe = nullptr);

    // One line net-snmp logged. True when it is about the AgentX connection:
    // its reason is kept for the next line here, and the caller logs the
    // raw line at debug level only.
    bool onLibraryLine(std::string_view line);

    // net-snmp closed the session to the master (SNMPD_CALLBACK_INDEX_STOP).
    void onClosed(Clock::time_point now);
    // net-snmp opened a session to the master (SNMPD_CALLBACK_INDEX_START).
    void onOpened(Clock::time_point now);

    // The lines to log now (after each turn of the main loop, when net-snmp
    // has logged what goes with its callbacks): at most one per change, and
    // one for the first failed attempt to reach a master.
    std::vector<Line> flush(Clock::time_point now);

    // The reason in words for one of net-snmp's lines, or nullopt when the
    // line is not about the AgentX connection; kNoReason when the line is
    // about it but says no more than that the connection failed.
    static std::optional<std::string> reasonOf(std::string_view line);
    static constexpr const char *kNoReason = "";

    // Why a stream connection to the Unix socket `path` fails now:
    // "connect(PATH): <errno text>", or empty when it succeeds or `path` is
    // not a Unix socket path ("tcp:...", too long).
    static std::string probeUnixSocket(const std::string &path);

  private:
    std::string masterText() const;
    // reason_, or the probe's, or a last resort: never empty.
    std::string reasonText();

    std::string master_;
    int retrySeconds_;
    std::function<std::string()> probe_;
    bool reasonSeen_ = false; // a line about the connection came this turn
    enum class State { kNever, kConnected, kLost } state_ = State::kNever;
    bool closedPending_ = false;
    bool openedPending_ = false;
    bool failureReported_ = false; // a failed attempt since the last change was logged
    std::string reason_;           // net-snmp's latest, in words
    Clock::time_point lostAt_{};
};

} // namespace kelp::agent

#endif // KELP_AGENT_AGENTXLOG_H
