// One trap sink: a non-blocking socket to one receiver and the queue of
// messages waiting for it. A UDP sink sends each message as a datagram; a
// stream sink (TCP, or a Unix stream socket) connects without blocking,
// writes the messages back to back and, when the receiver refuses, closes or
// never answers, connects again after a back-off while its queue keeps the
// traps. An inform sink (UDP only) keeps up to a window of informs under way
// (traps/informwindow.h): each is sent again on the sink's timer until the
// receiver's Response arrives on the socket's read side, and given up after
// its last retry; the rest wait in the queue. Nothing here ever waits: the
// loop that runs the sink (SinkLoop) says when its socket is ready and when
// its time has come.
#ifndef KELP_AGENT_TRAPS_TRAPSINK_H
#define KELP_AGENT_TRAPS_TRAPSINK_H

#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <string>

#include "traps/informwindow.h"
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
// A sink whose event ran out of memory tries again this much later.
inline constexpr std::chrono::seconds kShortageRetry{1};

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
    bool inform = false; // informs, acknowledged by the receiver (UDP only)
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
        kReady,      // UDP: messages go as they come (informs as the window allows)
        kConnecting, // stream: connect() under way
        kConnected,  // stream
        kWaiting,    // stream: the next connection attempt is due at retryAt()
    };

    // `loop` outlives the sink. `policy` applies to an inform sink.
    TrapSink(SinkAddress address, SinkLoop *loop, SinkLimits limits = kSinkLimits,
             InformPolicy policy = InformPolicy{});
    ~TrapSink();
    TrapSink(const TrapSink &) = delete;
    TrapSink &operator=(const TrapSink &) = delete;

    // A UDP sink makes its socket (an inform sink's is connected to the
    // receiver, so that only its Responses are read); false, with the reason
    // in *error, when it cannot (the sink is then of no use). A stream sink starts its first
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
    // The loop's call when one of the three above ran out of memory
    // (std::bad_alloc), which may have left it half done. Allocates nothing.
    // A stream sink drops its connection, as after a failure (the message
    // under way goes again whole), and connects again in kShortageRetry; a
    // UDP sink stops watching its socket, so that a socket that stays
    // readable does not call it again at once, and goes on in
    // kShortageRetry. The queue keeps its traps.
    void outOfMemory(SinkClock::time_point now) noexcept;

    // Writes what the socket takes without waiting (queued informs once,
    // unacknowledged), then closes the socket; what is still queued is lost.
    // The destructor does this.
    void close();

    const SinkAddress &address() const { return address_; }
    const SinkQueue &queue() const { return queue_; }
    const InformWindow &informs() const { return window_; }
    State state() const { return state_; }
    // kWaiting: when the next connection attempt is due.
    SinkClock::time_point retryAt() const { return retryAt_; }
    int fd() const { return fd_; }

  private:
    void connect(SinkClock::time_point now);
    void connected(SinkClock::time_point now);
    void fail(SinkClock::time_point now, const std::string &what, int error);
    void flush(SinkClock::time_point now);
    // Inform sinks: sends queued informs while the window has room, reads
    // the receiver's Responses, sends again or gives up what timed out.
    void sendInforms(SinkClock::time_point now);
    void readResponses(SinkClock::time_point now);
    void retryInforms(SinkClock::time_point now);
    void reportDrops(SinkClock::time_point now);
    void closeSocket();
    // Tells the loop what this sink now waits for.
    void update();

    SinkAddress address_;
    SinkLoop *loop_;
    SinkQueue queue_;
    InformWindow window_;
    // The socket took no datagram at the last try: wait until it is writable.
    bool sendBlocked_ = false;
    // A retry was logged as a warning and no inform was acknowledged since.
    bool reportedUnacknowledged_ = false;
    std::string received_; // the last datagram read (an inform sink's)
    State state_ = State::kClosed;
    int fd_ = -1;
    Backoff backoff_;
    SinkClock::time_point retryAt_{};
    SinkClock::time_point connectDeadline_{};
    std::optional<SinkClock::time_point> connectedAt_;
    // A failure was logged as a warning and the sink has not connected since.
    bool reportedDown_ = false;
    // An event ran out of memory, and no timer has run to its end since.
    bool shortOfMemory_ = false;
    // What the loop was last asked for.
    int watchedFd_ = -1;
    bool watchedReadable_ = false, watchedWritable_ = false;
    std::optional<SinkClock::time_point> wake_;
};

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPSINK_H
