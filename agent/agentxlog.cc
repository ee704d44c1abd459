// AgentX connection lines.
#include "agentxlog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kelp::agent {
namespace {

constexpr std::string_view kFailedToConnect = "Failed to connect to the agentx master agent";

bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

} // namespace

AgentxLog::AgentxLog(std::string master, int retrySeconds, std::function<std::string()> probe)
    : master_(std::move(master)), retrySeconds_(retrySeconds), probe_(std::move(probe))
{
}

std::string AgentxLog::probeUnixSocket(const std::string &master)
{
    std::string path = master;
    if (path.rfind("unix:", 0) == 0) {
        path = path.substr(5);
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path[0] != '/' || path.size() >= sizeof addr.sun_path) {
        return "";
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return "";
    }
    std::string reason;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        reason = "connect(" + path + "): " + std::strerror(errno);
    }
    close(fd);
    return reason;
}

std::string AgentxLog::reasonText()
{
    if (!reason_.empty()) {
        return reason_;
    }
    if (probe_) {
        if (std::string probed = probe_(); !probed.empty()) {
            return probed;
        }
    }
    return reasonSeen_ ? "net-snmp gives no reason"
                       : "net-snmp closed the session without a reason";
}

std::optional<std::string> AgentxLog::reasonOf(std::string_view line)
{
    if (contains(line, "AgentX master disconnected us")) {
        return "the master closed the connection";
    }
    if (contains(line, "failed to respond to ping")) {
        return "the master did not answer a ping";
    }
    if (const size_t at = line.find(kFailedToConnect); at != std::string_view::npos) {
        // "...agent (SOCKET): REASON" (net-snmp's error text, errno's).
        const size_t colon = line.find("): ", at);
        if (colon != std::string_view::npos && colon + 3 < line.size()) {
            return std::string(line.substr(colon + 3));
        }
        return std::string(kNoReason);
    }
    // net-snmp's other AgentX lines name it as a word; a path that holds
    // "agentx" (a state dir, say) makes no AgentX line.
    for (size_t at = line.find("AgentX"); at != std::string_view::npos;
         at = line.find("AgentX", at + 1)) {
        const size_t end = at + 6;
        if ((at == 0 || line[at - 1] == ' ') && (end == line.size() || line[end] == ' ')) {
            return std::string(line);
        }
    }
    return std::nullopt;
}

bool AgentxLog::onLibraryLine(std::string_view line)
{
    std::optional<std::string> reason = reasonOf(line);
    if (!reason) {
        return false;
    }
    // The first reason of a turn is the cause; a failed reconnect that
    // follows at once (after a ping went unanswered) is its consequence.
    // "subagent connected" says nothing the callback did not.
    if (!reasonSeen_ && !contains(line, "subagent connected")) {
        reason_ = std::move(*reason);
        reasonSeen_ = true;
    }
    return true;
}

void AgentxLog::onClosed(Clock::time_point now)
{
    if (state_ == State::kConnected) {
        lostAt_ = now;
    }
    closedPending_ = true;
    openedPending_ = false;
}

void AgentxLog::onOpened(Clock::time_point)
{
    openedPending_ = true;
}

std::string AgentxLog::masterText() const
{
    return master_.empty() ? std::string("the master at net-snmp's default socket")
                           : "the master at " + master_;
}

std::vector<AgentxLog::Line> AgentxLog::flush(Clock::time_point now)
{
    std::vector<Line> lines;
    const std::string retry = "; trying again every " + std::to_string(retrySeconds_) + " s";
    if (closedPending_ && state_ == State::kConnected) {
        lines.emplace_back(LogLevel::kWarning, "AgentX: connection to " + masterText() +
                                                   " lost: " + reasonText() + retry);
        state_ = State::kLost;
        failureReported_ = true;
    }
    closedPending_ = false;
    if (openedPending_) {
        if (state_ == State::kLost) {
            const auto seconds =
                std::chrono::duration_cast<std::chrono::seconds>(now - lostAt_).count();
            lines.emplace_back(LogLevel::kNotice, "AgentX: connection to " + masterText() +
                                                      " regained after " + std::to_string(seconds) +
                                                      " s; the tree is registered again");
        } else if (state_ == State::kNever) {
            lines.emplace_back(LogLevel::kNotice, "AgentX: connected to " + masterText());
        }
        state_ = State::kConnected;
        openedPending_ = false;
        failureReported_ = false;
        reason_.clear();
        reasonSeen_ = false;
        return lines;
    }
    // A failed attempt to reach a master never reached (the first only; the
    // retries say the same every few seconds).
    if (state_ == State::kNever && reasonSeen_ && !failureReported_) {
        lines.emplace_back(LogLevel::kWarning, "AgentX: cannot connect to " + masterText() + ": " +
                                                   reasonText() + retry);
        failureReported_ = true;
    }
    reason_.clear();
    reasonSeen_ = false;
    return lines;
}

} // namespace kelp::agent
