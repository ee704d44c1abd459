// One client of the control socket, served without ever blocking the server
// thread: the command line is read as its bytes arrive, the command runs once
// the line is whole (a change of the model on the command worker), the
// answer is written as fast as the client takes it, and what the client
// still sends after its line is read and dropped until it closes. Each phase
// has its own deadline, so an idle client, or one that never reads its
// answer, is dropped in time and never delays another.
#ifndef KELP_RUNTIME_CONTROL_CONNECTION_H
#define KELP_RUNTIME_CONTROL_CONNECTION_H

#include <chrono>
#include <memory>
#include <string>

#include "support/unique_fd.h"

namespace kelp::ctl {

class CommandWorker;
class PendingAnswer;

class Connection {
  public:
    using Clock = std::chrono::steady_clock;

    // Takes a connected, non-blocking socket. The client has `timeout` from
    // `now` to send its command line, `timeout` again to take its answer
    // once it is ready, and `timeout` once more to close after that. A
    // command that changes the model goes to `worker` (the caller's, alive as
    // long as this connection); without one every command runs in advance().
    Connection(rt::UniqueFd fd, std::chrono::milliseconds timeout, Clock::time_point now,
               CommandWorker *worker = nullptr);

    int fd() const { return fd_.get(); }
    // What to poll the socket for: POLLIN while the line is read and while
    // what follows it is dropped, nothing while the command runs on the
    // worker (poll still reports a client that is gone), POLLOUT while the
    // answer is written.
    short events() const;
    // When the current phase times out; never while the command runs.
    Clock::time_point deadline() const { return deadline_; }

    // Goes as far as it can without blocking, given the poll result revents
    // (0 when poll reported nothing) and the time now: reads what arrived,
    // runs the command when the line is whole (on the caller's thread, or
    // queued on the worker and then taken up once it is done), answers a
    // fault or a time-out with "error: ...", writes what the client takes,
    // and once the answer is written shuts the sending side and reads on,
    // dropping the bytes, until the client closes. Answers false once the
    // connection is finished (answered and closed by the client, timed out
    // or gone); the caller then drops it, which closes the socket. A client
    // gone while its command runs is dropped and the command runs on. Call it
    // again after the worker finishes a command. May throw std::bad_alloc;
    // the connection is then to be dropped too.
    bool advance(short revents, Clock::time_point now);

    // When the host stops: a connection whose command line has not been
    // taken yet is answered "error: `message`" without reading it (the
    // next advance writes that). May throw std::bad_alloc.
    void refuseUnread(const std::string &message);

  private:
    enum class Phase { kReading, kRunning, kWriting, kDraining };
    enum class Write { kPending, kDone, kFailed };

    // Reads one chunk. False when the client is gone without a word.
    bool readSome();
    // Runs the whole line, or hands it to the worker.
    void start();
    // Answers text; afterLine says the answer follows a whole line, so the
    // client may still be sending and is read to its end.
    void answer(std::string text, bool afterLine = false);
    void answerError(const std::string &message);
    Write writeSome(Clock::time_point now);
    // Reads and drops what the client sends. False once it has closed, is
    // gone, or its time is up.
    bool drainSome(Clock::time_point now);

    rt::UniqueFd fd_;
    std::chrono::milliseconds timeout_;
    CommandWorker *worker_;
    Phase phase_ = Phase::kReading;
    Clock::time_point deadline_;
    std::string line_;                             // kReading: the bytes so far, without the "\n"
    std::shared_ptr<const PendingAnswer> pending_; // kRunning: the worker's answer to come
    std::string answer_;                           // kWriting: the whole answer
    size_t sent_ = 0;         // kWriting: bytes of answer_ the client has taken
    bool drainAfter_ = false; // the answer follows a whole line: read on after it
};

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_CONNECTION_H
