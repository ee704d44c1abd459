// A sink's bounded queue and its writes to a non-blocking socket.
#include "traps/sinkqueue.h"

#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace kelp::agent {
namespace {

std::string plural(uint64_t count, const char *word)
{
    return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

} // namespace

std::string dropLine(const std::string &sink, const DropReport &report, SinkLimits limits)
{
    std::string line = "trap sink " + sink + ": " + plural(report.full + report.refused, "trap") +
                       " dropped since the last report:";
    if (report.full > 0) {
        line += " " + std::to_string(report.full) + " with the queue full (" +
                plural(limits.messages, "trap") + " or " + std::to_string(limits.bytes) +
                " bytes waiting)";
    }
    if (report.refused > 0) {
        line += std::string(report.full > 0 ? "," : "") + " " + std::to_string(report.refused) +
                " refused by the system (" +
                std::generic_category().message(report.lastRefusalError) + ")";
    }
    return line;
}

SinkQueue::SinkQueue(SinkLimits limits) : limits_(limits) {}

bool SinkQueue::push(SinkMessage message)
{
    const size_t size = message->size();
    if (queue_.size() >= limits_.messages ||
        size > limits_.bytes - std::min(bytes_, limits_.bytes)) {
        pending_.full++;
        droppedTotal_++;
        return false;
    }
    bytes_ += size;
    queue_.push_back(std::move(message));
    return true;
}

void SinkQueue::pop()
{
    bytes_ -= queue_.front()->size();
    queue_.pop_front();
    offset_ = 0;
}

SinkWrite SinkQueue::writeStream(int fd, int *error)
{
    while (!queue_.empty()) {
        const std::string &message = *queue_.front();
        const ssize_t sent = send(fd, message.data() + offset_, message.size() - offset_,
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return SinkWrite::kBlocked;
        }
        if (sent < 0) {
            *error = errno;
            return SinkWrite::kBroken;
        }
        offset_ += static_cast<size_t>(sent);
        if (offset_ == message.size()) {
            pop();
        }
    }
    return SinkWrite::kDrained;
}

SinkWrite SinkQueue::writeDatagrams(int fd, const sockaddr *to, socklen_t toLength)
{
    bool retried = false;
    while (!queue_.empty()) {
        const std::string &message = *queue_.front();
        const ssize_t sent = sendto(fd, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                                    to, to != nullptr ? toLength : 0);
        if (sent >= 0) {
            pop();
            retried = false;
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        // ECONNREFUSED may report an earlier datagram's fate (an ICMP
        // answer), this one not sent yet: it gets one more try.
        if (errno == ECONNREFUSED && !retried) {
            retried = true;
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return SinkWrite::kBlocked;
        }
        pending_.refused++;
        pending_.lastRefusalError = errno;
        droppedTotal_++;
        pop();
        retried = false;
    }
    return SinkWrite::kDrained;
}

void SinkQueue::restartPartial()
{
    offset_ = 0;
}

std::optional<DropReport> SinkQueue::takeDropReport(SinkClock::time_point now)
{
    const std::optional<SinkClock::time_point> due = nextDropReport();
    if (!due || now < *due) {
        return std::nullopt;
    }
    lastReport_ = now;
    return std::exchange(pending_, DropReport{});
}

std::optional<SinkClock::time_point> SinkQueue::nextDropReport() const
{
    if (pending_.full == 0 && pending_.refused == 0) {
        return std::nullopt;
    }
    // The first drop is reported at once.
    return lastReport_ ? *lastReport_ + kDropReportInterval : SinkClock::time_point{};
}

} // namespace kelp::agent
