// One client of the control socket, step by step (see connection.h).
#include "control/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "control/command_worker.h"
#include "control/commands.h"
#include "control/words.h"

namespace kelp::ctl {
namespace {

std::string durationText(std::chrono::milliseconds d)
{
    if (d.count() % 1000 == 0)
        return std::to_string(d.count() / 1000) + " s";
    return std::to_string(d.count()) + " ms";
}

} // namespace

Connection::Connection(rt::UniqueFd fd, std::chrono::milliseconds timeout, Clock::time_point now,
                       CommandWorker *worker)
    : fd_(std::move(fd)), timeout_(timeout), worker_(worker), deadline_(now + timeout)
{
}

short Connection::events() const
{
    switch (phase_) {
    case Phase::kReading:
    case Phase::kDraining:
        return POLLIN;
    case Phase::kRunning:
        return 0;
    case Phase::kWriting:
        return POLLOUT;
    }
    return 0;
}

bool Connection::advance(short revents, Clock::time_point now)
{
    if (phase_ == Phase::kReading) {
        if (revents != 0 && !readSome())
            return false;
        if (phase_ == Phase::kReading && now >= deadline_)
            answerError("no complete command line within " + durationText(timeout_));
    }
    if (phase_ == Phase::kRunning) {
        if (!pending_->done())
            return (revents & (POLLHUP | POLLERR)) == 0;
        if (!pending_->text())
            return false; // the worker ran out of memory: no "ok", as after any failure
        std::string text = *pending_->text();
        pending_.reset();
        answer(std::move(text), true);
    }
    if (phase_ == Phase::kWriting) {
        const Write written = writeSome(now);
        if (written != Write::kDone)
            return written == Write::kPending;
        if (!drainAfter_)
            return false;
        // The end of the answer: the client reads it whole and then its end,
        // whatever it still sends.
        shutdown(fd_.get(), SHUT_WR);
        phase_ = Phase::kDraining;
        deadline_ = now + timeout_;
    }
    if (phase_ == Phase::kDraining)
        return drainSome(now);
    return true;
}

bool Connection::readSome()
{
    // Never read past one byte over the limit: that byte is enough to know
    // the line is too long.
    char chunk[4096];
    const size_t room = std::min(sizeof chunk, kMaxLineBytes + 1 - line_.size());
    ssize_t n = read(fd_.get(), chunk, room);
    if (n < 0)
        return errno == EAGAIN || errno == EINTR;
    if (n == 0) {
        answerError(line_.empty()
                        ? "no command line: the client stopped sending before it sent one"
                        : "command line not ended by a newline when the client stopped sending");
        return true;
    }
    const char *newline = static_cast<const char *>(std::memchr(chunk, '\n', size_t(n)));
    line_.append(chunk, newline != nullptr ? size_t(newline - chunk) : size_t(n));
    if (line_.size() > kMaxLineBytes)
        answerError("command line longer than " + std::to_string(kMaxLineBytes) + " bytes");
    else if (newline != nullptr)
        start(); // what follows the "\n" is dropped
    return true;
}

void Connection::start()
{
    Request request;
    std::string error;
    if (!prepareLine(line_, &request, &error)) {
        Reply reply;
        reply.fail(error);
        answer(formatReply(reply), true);
    } else if (worker_ != nullptr && request.command->onWorker) {
        pending_ = worker_->submit(std::move(request));
        if (pending_ == nullptr) {
            Reply reply;
            reply.fail("busy: " + std::to_string(CommandWorker::kMaxWaiting) +
                       " changes wait to be made; try again when they are");
            answer(formatReply(reply), true);
            return;
        }
        phase_ = Phase::kRunning;
        line_.clear();
        line_.shrink_to_fit();
        deadline_ = Clock::time_point::max();
    } else {
        answer(formatReply(runCommand(request)), true);
    }
}

void Connection::answer(std::string text, bool afterLine)
{
    phase_ = Phase::kWriting;
    line_.clear();
    line_.shrink_to_fit();
    answer_ = std::move(text);
    drainAfter_ = afterLine;
    // The client's time to take its answer starts once the answer exists,
    // however long the command ran.
    deadline_ = Clock::now() + timeout_;
}

void Connection::refuseUnread(const std::string &message)
{
    if (phase_ == Phase::kReading)
        answerError(message);
}

void Connection::answerError(const std::string &message)
{
    Reply reply;
    reply.fail(message);
    answer(formatReply(reply));
}

Connection::Write Connection::writeSome(Clock::time_point now)
{
    while (sent_ < answer_.size()) {
        ssize_t n = send(fd_.get(), answer_.data() + sent_, answer_.size() - sent_, MSG_NOSIGNAL);
        if (n > 0) {
            sent_ += size_t(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && errno == EAGAIN) {
            // A client that stops reading is given up at its deadline; the
            // command has run all the same.
            return now < deadline_ ? Write::kPending : Write::kFailed;
        } else {
            return Write::kFailed; // the client is gone
        }
    }
    return Write::kDone;
}

bool Connection::drainSome(Clock::time_point now)
{
    // Closing a socket with unread bytes would reset the connection, and a
    // client still sending would meet a broken pipe before it reads its
    // answer. A bounded amount per call keeps a client that sends fast from
    // holding up the others.
    char chunk[4096];
    for (int round = 0; round < 16; ++round) {
        ssize_t n = read(fd_.get(), chunk, sizeof chunk);
        if (n == 0)
            return false; // the client has closed, or shut its sending down
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN && now < deadline_;
    }
    return now < deadline_;
}

} // namespace kelp::ctl
