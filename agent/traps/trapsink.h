// One trap sink: a non-blocking socket to one receiver and the queue of
// messages waiting for it. A UDP sink sends each message as a datagram; a
// stream sink (TCP, or a Unix stream socket) connects without blocking,
// writes the messages back to back and, when the receiver refuses, closes or
// never answers, connects again after a back-off while its queue keeps the
// traps. Nothing here ever waits: the loop that runs the sink (SinkLoop) says
// when its socket is ready and when its time has come. Informs are not sent
// yet; one would stay at the head of the queue until its response arrives on
// the sink's read side (where a stream sink now only watches for the close)
// and go again on the sink's timer.
#ifndef KELP_AGENT_TRAPS_TRAPSINK_H
#define KELP_AGENT_TRAPS_TRAPSINK_H

#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <string>

#include "traps/sinkqueue.h"

namespace kelp::agent {

// A stream sink's first connection attempt that has not completed by then
// is given up (and tried again after the back-off).
inline constexpr std::chrono::seconds kConnectTimeout{10};
// The back-off between connection attempts: from the first delay, doubling
// up to the longest, and back to the first once a connection lasted
// kStableConnection (so that a receiver that accepts and at once closes
// is not hammered).
inline constexpr std::chrono::seconds kRetryFirst{1};
inline constexpr std::chrono::seconds kRetryLongest{60};
inline constexpr std::chrono::seconds kStableConnection{30};
// A stream sink's kernel send buffer: small, so that the sink's own queue,
// with its bounds and its count of drops, is what holds the traps a slow
// receiver has not taken.
inline constexpr int kStreamSendBuffer = 64 * 1024;

// The delays between connection attempts.
class Backoff {
  public:
    // The next delay: kRetryFirst, then twice the one before, at most
    // kRetryLongest.
    std::chrono::seconds next();
    // The next delay is kRetryFirst again.
    void reset() { next_ = kRetryFirst; }
    bool atFirst() const { return next_ == kRetryFirst; }

  private:
    std::chrono::seconds next_ = kRetryFirst;
};

struct SinkAddress {
    std::string name; // as the user gave it, for the log
    bool stream = false;
    sockaddr_storage address{};
    socklen_t length = 0;
};

class TrapSink;

// What a sink asks of the loop that runs it. The agent's loop is net-snmp's
// (traps/trapsinks.cc); tests run a sink by hand.
class SinkLoop {
  public:
    virtual ~SinkLoop() = default;
    // From now on calls sink->onReadable / onWritable while `fd` is readable
    // / writable; both false forgets `fd` (the sink does so before closing
    // it).
    virtual void watch(TrapSink *sink, int fd, bool readable, bool writable) = 0;
    // Calls sink->onTimer once at `when` or soon after, in place of any
    // earlier request; nullopt cancels the request.
    virtual void wakeAt(TrapSink *sink, std::optional<SinkClock::time_point> when) = 0;
};

class TrapSink {
  public:
    enum class State {
        kClosed,     // not opened, or closed
        kReady,      // UDP: messages go as they come
        kConnecting, // stream: connect() under way
        kConnected,  // stream
        kWaiting,    // stream: the next connection attempt is due at retryAt()
    };

    // `loop` outlives the sink.
    TrapSink(SinkAddress address, SinkLoop *loop, SinkLimits limits = kSinkLimits);
    ~TrapSink();
    TrapSink(const TrapSink &) = delete;
    TrapSink &operator=(const TrapSink &) = delete;

    // A UDP sink makes its socket; false, with the reason in *error, when it
    // cannot (the sink is then of no use). A stream sink starts its first
    // connection attempt and is true: a failure is retried.
    bool open(SinkClock::time_point now, std::string *error);

    // Queues `message` and, when nothing was waiting before it, writes what
    // the socket takes at once. False when the queue had no room for it (the
    // drop is counted and reported).
    bool send(SinkMessage message, SinkClock::time_point now);

    // The loop's calls: the socket is readable or writable, the requested
    // time has come.
    void onReadable(SinkClock::time_point now);
    void onWritable(SinkClock::time_point now);
    void onTimer(SinkClock::time_point now);

    // Writes what the socket takes without waiting, then closes the socket;
    // what is still queued is lost. The destructor does this.
    void close();

    const SinkAddress &address() const { return address_; }
    const SinkQueue &queue() const { return queue_; }
    State state() const { return state_; }
    // kWaiting: when the next connection attempt is due.
    SinkClock::time_point retryAt() const { return retryAt_; }
    int fd() const { return fd_; }

  private:
    void connect(SinkClock::time_point now);
    void connected(SinkClock::time_point now);
    void fail(SinkClock::time_point now, const std::string &what, int error);
    void flush(SinkClock::time_point now);
    void reportDrops(SinkClock::time_point now);
    void closeSocket();
    // Tells the loop what this sink now waits for.
    void update();

    SinkAddress address_;
    SinkLoop *loop_;
    SinkQueue queue_;
    State state_ = State::kClosed;
    int fd_ = -1;
    Backoff backoff_;
    SinkClock::time_point retryAt_{};
    SinkClock::time_point connectDeadline_{};
    std::optional<SinkClock::time_point> connectedAt_;
    // A failure was logged as a warning and the sink has not connected since.
    bool reportedDown_ = false;
    // What the loop was last asked for.
    int watchedFd_ = -1;
    bool watchedReadable_ = false, watchedWritable_ = false;
    std::optional<SinkClock::time_point> wake_;
};

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPSINK_H
