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
    std::string line = "trap sink " + sink + ": " +
                       plural(report.full + report.refused + report.unacknowledged, "trap") +
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
    if (report.unacknowledged > 0) {
        line += std::string(report.full + report.refused > 0 ? "," : "") + " " +
                plural(report.unacknowledged, "inform") + " given up unacknowledged after " +
                plural(static_cast<uint64_t>(report.informSends), "send");
    }
    return line;
}

std::string lostAtStopLine(const std::string &sink, size_t waiting, size_t underWay, bool informs)
{
    if (waiting == 0 && underWay == 0) {
        return "";
    }
    std::string line = "trap sink " + sink + " at the stop:";
    if (waiting > 0) {
        line += " " + plural(waiting, informs ? "inform" : "trap") + " still waiting dropped";
    }
    if (underWay > 0) {
        line += std::string(waiting > 0 ? "," : "") + " " + plural(underWay, "inform") +
                " sent and not acknowledged";
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

DatagramSend sendDatagram(int fd, const std::string &message, const sockaddr *to,
                          socklen_t toLength, int *error)
{
    bool retried = false;
    for (;;) {
        const ssize_t sent = sendto(fd, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                                    to, to != nullptr ? toLength : 0);
        if (sent >= 0) {
            return DatagramSend::kSent;
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
            return DatagramSend::kBlocked;
        }
        *error = errno;
        return DatagramSend::kRefused;
    }
}

SinkWrite SinkQueue::writeDatagrams(int fd, const sockaddr *to, socklen_t toLength)
{
    while (!queue_.empty()) {
        int error = 0;
        const DatagramSend result = sendDatagram(fd, *queue_.front(), to, toLength, &error);
        if (result == DatagramSend::kBlocked) {
            return SinkWrite::kBlocked;
        }
        if (result == DatagramSend::kRefused) {
            noteRefused(error);
        }
        pop();
    }
    return SinkWrite::kDrained;
}

void SinkQueue::noteRefused(int error)
{
    pending_.refused++;
    pending_.lastRefusalError = error;
    droppedTotal_++;
}

void SinkQueue::noteUnacknowledged(uint64_t count, int sends)
{
    if (count == 0) {
        return;
    }
    pending_.unacknowledged += count;
    pending_.informSends = sends;
    droppedTotal_ += count;
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

std::optional<DropReport> SinkQueue::takePendingDrops()
{
    if (!nextDropReport()) {
        return std::nullopt;
    }
    return std::exchange(pending_, DropReport{});
}

std::optional<SinkClock::time_point> SinkQueue::nextDropReport() const
{
    if (!pending_.any()) {
        return std::nullopt;
    }
    // The first drop is reported at once.
    return lastReport_ ? *lastReport_ + kDropReportInterval : SinkClock::time_point{};
}

} // namespace kelp::agent
