// One client of the control socket, step by step (see connection.h).
#include "control/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

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

Connection::Connection(rt::UniqueFd fd, std::chrono::milliseconds timeout, Clock::time_point now)
    : fd_(std::move(fd)), timeout_(timeout), deadline_(now + timeout)
{
}

short Connection::events() const
{
    return phase_ == Phase::kReading ? POLLIN : POLLOUT;
}

bool Connection::advance(short revents, Clock::time_point now)
{
    if (phase_ == Phase::kReading) {
        if (revents != 0 && !readSome())
            return false;
        if (phase_ == Phase::kReading && now >= deadline_)
            answerError("no complete command line within " + durationText(timeout_));
    }
    if (phase_ == Phase::kWriting)
        return writeSome(now);
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
        answer(answerLine(line_)); // anything after the "\n" is never read
    return true;
}

void Connection::answer(std::string text)
{
    phase_ = Phase::kWriting;
    line_.clear();
    line_.shrink_to_fit();
    answer_ = std::move(text);
    // The client's time to take its answer starts once the answer exists,
    // however long the command ran.
    deadline_ = Clock::now() + timeout_;
}

void Connection::answerError(const std::string &message)
{
    Reply reply;
    reply.fail(message);
    answer(formatReply(reply));
}

bool Connection::writeSome(Clock::time_point now)
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
            return now < deadline_;
        } else {
            return false; // the client is gone
        }
    }
    return false;
}

} // namespace kelp::ctl
