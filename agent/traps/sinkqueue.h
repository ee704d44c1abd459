// A trap sink's outgoing messages: a queue bounded in messages and in bytes,
// written to a non-blocking socket as far as the socket takes them, and the
// count of what had to be dropped, reported at most once a minute. It knows
// sockets but not SNMP: the messages arrive encoded. Not thread-safe; the
// agent's main thread owns every sink.
#ifndef KELP_AGENT_TRAPS_SINKQUEUE_H
#define KELP_AGENT_TRAPS_SINKQUEUE_H

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace kelp::agent {

using SinkClock = std::chrono::steady_clock;

// One encoded SNMP message, shared by the queues of every sink it goes to.
using SinkMessage = std::shared_ptr<const std::string>;

struct SinkLimits {
    size_t messages;
    size_t bytes;
};

// What one sink holds while its receiver takes nothing: far more than a
// storage system's burst of events, and little memory.
inline constexpr SinkLimits kSinkLimits{1000, 1024 * 1024};

// Drops are reported at most this often per sink.
inline constexpr std::chrono::seconds kDropReportInterval{60};

// What writing the queue to a socket came to.
enum class SinkWrite {
    kDrained, // every queued message went out
    kBlocked, // the socket takes nothing more for now: wait until it is writable
    kBroken,  // the connection failed (a stream socket); its errno is in *error
};

// The drops since the last report.
struct DropReport {
    uint64_t full = 0;           // the queue was at a bound
    uint64_t refused = 0;        // the system refused the datagram
    int lastRefusalError = 0;    // errno of the last refusal
    uint64_t unacknowledged = 0; // informs given up after their last retry
    int informSends = 0;         // how often each of those was sent

    // Whether anything was dropped.
    bool any() const { return full + refused + unacknowledged > 0; }
};

// The log line for `report` of the sink named `sink`.
std::string dropLine(const std::string &sink, const DropReport &report, SinkLimits limits);

// The log line for what a sink loses when it closes at a stop: `waiting`
// messages still queued (informs when `informs`) and `underWay` informs sent
// and not acknowledged; "" when it loses nothing.
std::string lostAtStopLine(const std::string &sink, size_t waiting, size_t underWay, bool informs);

// What sending one datagram came to.
enum class DatagramSend { kSent, kBlocked, kRefused };

// Sends `message` as one datagram to `to` (the socket's peer when null),
// without waiting. ECONNREFUSED, which may report an earlier datagram's
// fate (an ICMP answer), gets one more try. kRefused with errno in *error
// for any failure but EAGAIN.
DatagramSend sendDatagram(int fd, const std::string &message, const sockaddr *to,
                          socklen_t toLength, int *error);

class SinkQueue {
  public:
    explicit SinkQueue(SinkLimits limits = kSinkLimits);

    // Appends `message`, or drops and counts it when it would take the queue
    // past either bound. True when queued.
    bool push(SinkMessage message);

    // Writes the queued messages back to back to the connected stream socket
    // `fd`, as SNMP over TCP frames them (one BER message after the other). A
    // message written in part keeps its place: the next write goes on from
    // its first unwritten byte. kBroken for any error but EAGAIN and EINTR.
    SinkWrite writeStream(int fd, int *error);

    // Sends each queued message as one datagram to `to` (the socket's peer
    // when null). A datagram the system refuses outright (too long, no
    // route, not permitted) is dropped and counted; the next one still goes.
    // Never kBroken.
    SinkWrite writeDatagrams(int fd, const sockaddr *to, socklen_t toLength);

    // An inform sink takes its messages one by one: the first one queued
    // (the queue must not be empty), and its removal once it is sent.
    const SinkMessage &front() const { return queue_.front(); }
    void popFront() { pop(); }

    // Counts a message the system refused outright (errno `error`), and
    // `count` informs given up after `sends` sends each, as drops.
    void noteRefused(int error);
    void noteUnacknowledged(uint64_t count, int sends);

    // After a lost connection: the message written in part goes again whole
    // on the next one, since the receiver dropped its beginning.
    void restartPartial();

    bool empty() const { return queue_.empty(); }
    size_t messages() const { return queue_.size(); }
    // The bytes queued, the message in progress counted whole.
    size_t bytes() const { return bytes_; }
    // Bytes of the first message already written.
    size_t written() const { return offset_; }
    uint64_t droppedTotal() const { return droppedTotal_; }
    SinkLimits limits() const { return limits_; }

    // The drops to report at `now`, and the report's clock restarts: at the
    // first drop, then at most once per kDropReportInterval, each report
    // counting the drops since the one before. nullopt when none is due.
    std::optional<DropReport> takeDropReport(SinkClock::time_point now);

    // The drops not reported yet, whenever their report would be due (for
    // the last report, as the sink closes); nullopt with none.
    std::optional<DropReport> takePendingDrops();

    // When takeDropReport will have drops to report; nullopt with none
    // pending.
    std::optional<SinkClock::time_point> nextDropReport() const;

  private:
    void pop();

    SinkLimits limits_;
    std::deque<SinkMessage> queue_;
    size_t bytes_ = 0;
    size_t offset_ = 0; // into queue_.front()
    DropReport pending_;
    uint64_t droppedTotal_ = 0;
    std::optional<SinkClock::time_point> lastReport_;
};

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_SINKQUEUE_H
