// One client of the control socket, served without ever blocking the server
// thread: the command line is read as its bytes arrive, the command runs once
// the line is whole, and the answer is written as fast as the client takes
// it. Each phase has its own deadline, so an idle client, or one that never
// reads its answer, is dropped in time and never delays another.
#ifndef KELP_RUNTIME_CONTROL_CONNECTION_H
#define KELP_RUNTIME_CONTROL_CONNECTION_H

#include <chrono>
#include <string>

#include "support/unique_fd.h"

namespace kelp::ctl {

class Connection {
  public:
    using Clock = std::chrono::steady_clock;

    // Takes a connected, non-blocking socket. The client has `timeout` from
    // `now` to send its command line and, once the answer is ready, `timeout`
    // again to take it.
    Connection(rt::UniqueFd fd, std::chrono::milliseconds timeout, Clock::time_point now);

    int fd() const { return fd_.get(); }
    // What to poll the socket for: POLLIN while the line is read, POLLOUT
    // while the answer is written.
    short events() const;
    // When the current phase times out.
    Clock::time_point deadline() const { return deadline_; }

    // Goes as far as it can without blocking, given the poll result revents
    // (0 when poll reported nothing) and the time now: reads what arrived,
    // runs the command when the line is whole (on the caller's thread),
    // answers a fault or a time-out with "error: ...", writes what the client
    // takes. Answers false once the connection is finished (answered, timed
    // out or gone); the caller then drops it, which closes the socket. May
    // throw std::bad_alloc; the connection is then to be dropped too.
    bool advance(short revents, Clock::time_point now);

  private:
    enum class Phase { kReading, kWriting };

    // Reads one chunk. False when the client is gone without a word.
    bool readSome();
    void answer(std::string text);
    void answerError(const std::string &message);
    // False once the answer is written whole, the client is gone, or its
    // time is up.
    bool writeSome(Clock::time_point now);

    rt::UniqueFd fd_;
    std::chrono::milliseconds timeout_;
    Phase phase_ = Phase::kReading;
    Clock::time_point deadline_;
    std::string line_;   // kReading: the bytes so far, without the "\n"
    std::string answer_; // kWriting: the whole answer
    size_t sent_ = 0;    // kWriting: bytes of answer_ the client has taken
};

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_CONNECTION_H
