// A trap sink's socket: opening, connecting with back-off, writing, closing.
#include "traps/trapsink.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "log.h"
#include "traps/pduhead.h"

namespace kelp::agent {
namespace {

std::string errorText(int error)
{
    return std::generic_category().message(error);
}

} // namespace

std::chrono::seconds Backoff::next()
{
    const std::chrono::seconds delay = next_;
    next_ = std::min(next_ * 2, kRetryLongest);
    return delay;
}

TrapSink::TrapSink(SinkAddress address, SinkLoop *loop, SinkLimits limits, InformPolicy policy)
    : address_(std::move(address)), loop_(loop), queue_(limits), window_(policy)
{
}

TrapSink::~TrapSink()
{
    close();
}

bool TrapSink::open(SinkClock::time_point now, std::string *error)
{
    if (address_.stream) {
        connect(now);
        return true;
    }
    fd_ = socket(address_.address.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        *error = errorText(errno);
        return false;
    }
    if (address_.inform && ::connect(fd_, reinterpret_cast<const sockaddr *>(&address_.address),
                                     address_.length) != 0) {
        *error = errorText(errno);
        closeSocket();
        return false;
    }
    state_ = State::kReady;
    if (address_.inform) {
        // Responses may come at any time: the socket is read from now on.
        update();
    }
    return true;
}

bool TrapSink::send(SinkMessage message, SinkClock::time_point now)
{
    const bool wasEmpty = queue_.empty();
    const uint64_t droppedBefore = queue_.droppedTotal();
    if (!queue_.push(std::move(message))) {
        reportDrops(now);
        update();
        return false;
    }
    // With messages already waiting the sink waits for its socket anyway.
    if (wasEmpty) {
        flush(now);
    }
    // Alone in the queue, the message was the one the flush could drop: a
    // datagram the system refused at once is not sent.
    return queue_.droppedTotal() == droppedBefore;
}

void TrapSink::onReadable(SinkClock::time_point now)
{
    if (state_ == State::kReady && address_.inform) {
        readResponses(now);
        return;
    }
    if (state_ != State::kConnected) {
        return;
    }
    // A trap receiver sends nothing back (an inform's response would come
    // here); reading tells when it closes.
    char scratch[4096];
    for (;;) {
        const ssize_t got = recv(fd_, scratch, sizeof scratch, MSG_DONTWAIT);
        if (got > 0) {
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return;
        }
        if (got == 0) {
            fail(now, "closed by the receiver", 0);
        } else {
            fail(now, "connection lost", errno);
        }
        return;
    }
}

void TrapSink::onWritable(SinkClock::time_point now)
{
    if (state_ == State::kConnecting) {
        int error = 0;
        socklen_t length = sizeof error;
        if (getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
            error = errno;
        }
        if (error == 0) {
            sockaddr_storage peer{};
            socklen_t peerLength = sizeof peer;
            if (getpeername(fd_, reinterpret_cast<sockaddr *>(&peer), &peerLength) == 0) {
                connected(now);
                return;
            }
            // Woken before the connection was made: it is still under way.
            if (errno == ENOTCONN) {
                return;
            }
            error = errno;
        }
        if (error != EINPROGRESS && error != EALREADY) {
            fail(now, "cannot connect", error);
        }
        return;
    }
    sendBlocked_ = false;
    flush(now);
}

void TrapSink::onTimer(SinkClock::time_point now)
{
    // The loop's request is used up; update() asks again for what is left.
    wake_.reset();
    if (state_ == State::kWaiting && now >= retryAt_) {
        connect(now);
    } else if (state_ == State::kConnecting && now >= connectDeadline_) {
        fail(now, "no connection within " + std::to_string(kConnectTimeout.count()) + " seconds",
             0);
    } else if (state_ == State::kReady && address_.inform) {
        retryInforms(now);
    }
    reportDrops(now);
    update();
    if (shortOfMemory_) {
        shortOfMemory_ = false;
        logAt(LogLevel::kNotice, "trap sink %s: going on after the shortage of memory",
              address_.name.c_str());
    }
}

void TrapSink::outOfMemory(SinkClock::time_point now) noexcept
{
    const bool first = !shortOfMemory_;
    shortOfMemory_ = true;
    if (address_.stream && state_ != State::kClosed) {
        // Where the event stopped is unknown: the connection starts over.
        closeSocket();
        queue_.restartPartial();
        connectedAt_.reset();
        state_ = State::kWaiting;
        retryAt_ = now + kShortageRetry;
    } else if (fd_ >= 0 && watchedFd_ == fd_) {
        loop_->watch(this, fd_, false, false);
        watchedFd_ = -1;
        watchedReadable_ = watchedWritable_ = false;
    }
    // The first of a series is worth a warning; the ones that follow it,
    // one a retry, are not.
    logAt(first ? LogLevel::kWarning : LogLevel::kDebug,
          "trap sink %s: out of memory; its traps wait in its queue, next attempt in %lld s",
          address_.name.c_str(), static_cast<long long>(kShortageRetry.count()));
    wake_ = now + kShortageRetry;
    loop_->wakeAt(this, wake_);
}

void TrapSink::close()
{
    if (state_ == State::kConnected) {
        int ignored = 0;
        queue_.writeStream(fd_, &ignored);
    } else if (state_ == State::kReady) {
        // An inform sink's socket is connected: its peer is the receiver.
        queue_.writeDatagrams(
            fd_, address_.inform ? nullptr : reinterpret_cast<const sockaddr *>(&address_.address),
            address_.inform ? 0 : address_.length);
    }
    closeSocket();
    if (state_ != State::kClosed) {
        // What the sink loses now, and its drops not yet reported, are said
        // before it goes.
        if (const std::optional<DropReport> report = queue_.takePendingDrops()) {
            logAt(LogLevel::kWarning, "%s",
                  dropLine(address_.name, *report, queue_.limits()).c_str());
        }
        if (const std::string lost =
                lostAtStopLine(address_.name, queue_.messages(), window_.size(), address_.inform);
            !lost.empty()) {
            logAt(LogLevel::kWarning, "%s", lost.c_str());
        }
    }
    state_ = State::kClosed;
    if (wake_) {
        wake_.reset();
        loop_->wakeAt(this, std::nullopt);
    }
}

void TrapSink::connect(SinkClock::time_point now)
{
    fd_ = socket(address_.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        fail(now, "cannot connect", errno);
        return;
    }
    const int size = kStreamSendBuffer;
    // Only a bound on memory: a socket that keeps the default still works.
    setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (::connect(fd_, reinterpret_cast<const sockaddr *>(&address_.address), address_.length) ==
        0) {
        connected(now);
        return;
    }
    if (errno == EINPROGRESS || errno == EINTR) {
        state_ = State::kConnecting;
        connectDeadline_ = now + kConnectTimeout;
        update();
        return;
    }
    fail(now, "cannot connect", errno);
}

void TrapSink::connected(SinkClock::time_point now)
{
    state_ = State::kConnected;
    connectedAt_ = now;
    if (reportedDown_) {
        reportedDown_ = false;
        logAt(LogLevel::kNotice, "trap sink %s: connected, %zu trap%s waiting",
              address_.name.c_str(), queue_.messages(), queue_.messages() == 1 ? "" : "s");
    }
    flush(now);
}

void TrapSink::fail(SinkClock::time_point now, const std::string &what, int error)
{
    // Made first: without memory for it nothing has changed yet.
    const std::string reason = error != 0 ? what + " (" + errorText(error) + ")" : what;
    closeSocket();
    queue_.restartPartial();
    if (connectedAt_ && now - *connectedAt_ >= kStableConnection) {
        backoff_.reset();
    }
    connectedAt_.reset();
    // The first failure after a working connection (or at start) is worth a
    // warning; the retries that follow it are not.
    const bool firstOfSeries = backoff_.atFirst() && !reportedDown_;
    const std::chrono::seconds delay = backoff_.next();
    logAt(firstOfSeries ? LogLevel::kWarning : LogLevel::kDebug,
          "trap sink %s: %s; its traps wait in its queue, next attempt in %lld s",
          address_.name.c_str(), reason.c_str(), static_cast<long long>(delay.count()));
    reportedDown_ = reportedDown_ || firstOfSeries;
    state_ = State::kWaiting;
    retryAt_ = now + delay;
    update();
}

void TrapSink::flush(SinkClock::time_point now)
{
    if (state_ == State::kConnected) {
        int error = 0;
        if (queue_.writeStream(fd_, &error) == SinkWrite::kBroken) {
            fail(now, "connection lost", error);
            return;
        }
    } else if (state_ == State::kReady && address_.inform) {
        sendInforms(now);
    } else if (state_ == State::kReady) {
        queue_.writeDatagrams(fd_, reinterpret_cast<const sockaddr *>(&address_.address),
                              address_.length);
        reportDrops(now);
    }
    update();
}

void TrapSink::sendInforms(SinkClock::time_point now)
{
    while (!window_.full() && !queue_.empty() && !sendBlocked_) {
        const SinkMessage message = queue_.front();
        PduHead head;
        if (!peekPdu(*message, &head) || head.type != kInformPduTag) {
            // Only an encoding fault could queue one: it is counted, not sent.
            queue_.noteRefused(EINVAL);
            queue_.popFront();
            continue;
        }
        int error = 0;
        const DatagramSend result = sendDatagram(fd_, *message, nullptr, 0, &error);
        if (result == DatagramSend::kBlocked) {
            sendBlocked_ = true;
            break;
        }
        queue_.popFront();
        if (result == DatagramSend::kRefused) {
            queue_.noteRefused(error);
            continue;
        }
        window_.sent(message, head.requestId, now);
    }
    reportDrops(now);
}

void TrapSink::readResponses(SinkClock::time_point now)
{
    // A Response echoes the inform's bindings: as large as any datagram.
    std::string &datagram = received_;
    datagram.resize(65536);
    size_t acknowledged = 0;
    for (;;) {
        const ssize_t got = recv(fd_, datagram.data(), datagram.size(), MSG_DONTWAIT);
        if (got < 0 && (errno == EINTR || errno == ECONNREFUSED)) {
            // ECONNREFUSED: the receiver's port was closed when an earlier
            // inform arrived; that inform's timeout deals with it.
            continue;
        }
        if (got < 0) {
            break;
        }
        PduHead head;
        if (peekPdu(std::string_view(datagram.data(), static_cast<size_t>(got)), &head) &&
            head.type == kResponsePduTag && window_.acknowledge(head.requestId)) {
            acknowledged++;
        } else {
            logAt(LogLevel::kDebug, "trap sink %s: ignored a datagram that acknowledges no inform",
                  address_.name.c_str());
        }
    }
    if (acknowledged > 0 && reportedUnacknowledged_) {
        reportedUnacknowledged_ = false;
        logAt(LogLevel::kNotice, "trap sink %s: informs are acknowledged again",
              address_.name.c_str());
    }
    flush(now);
}

void TrapSink::retryInforms(SinkClock::time_point now)
{
    const InformWindow::Due due = window_.takeDue(now);
    const double timeout = std::chrono::duration<double>(window_.policy().timeout).count();
    for (size_t i = 0; i < due.resend.size(); i++) {
        int error = 0;
        // Blocked or refused, the next timeout tries again.
        sendDatagram(fd_, *due.resend[i], nullptr, 0, &error);
        // The first retry of a series is worth a warning; the ones that
        // follow it, until an inform is acknowledged, are not.
        const LogLevel level = reportedUnacknowledged_ ? LogLevel::kDebug : LogLevel::kWarning;
        logAt(level,
              "trap sink %s: an inform was not acknowledged within %g s; sent again "
              "(retry %d of %d)",
              address_.name.c_str(), timeout, due.retry[i], window_.policy().retries);
        reportedUnacknowledged_ = true;
    }
    queue_.noteUnacknowledged(due.givenUp, window_.policy().retries + 1);
    if (due.givenUp > 0 && !reportedUnacknowledged_) {
        // With no retries at all the give-up is the first sign of trouble.
        reportedUnacknowledged_ = true;
    }
    sendInforms(now);
}

void TrapSink::reportDrops(SinkClock::time_point now)
{
    if (const std::optional<DropReport> report = queue_.takeDropReport(now)) {
        logAt(LogLevel::kWarning, "%s", dropLine(address_.name, *report, queue_.limits()).c_str());
    }
}

void TrapSink::closeSocket()
{
    if (fd_ < 0) {
        return;
    }
    if (watchedFd_ == fd_) {
        loop_->watch(this, fd_, false, false);
        watchedFd_ = -1;
        watchedReadable_ = watchedWritable_ = false;
    }
    ::close(fd_);
    fd_ = -1;
}

void TrapSink::update()
{
    bool readable = false;
    bool writable = false;
    std::optional<SinkClock::time_point> wake = queue_.nextDropReport();
    const auto earlier = [&wake](SinkClock::time_point when) {
        wake = wake ? std::min(*wake, when) : when;
    };
    switch (state_) {
    case State::kReady:
        if (address_.inform) {
            readable = true;
            writable = sendBlocked_;
            if (const auto deadline = window_.nextDeadline()) {
                earlier(*deadline);
            }
        } else {
            writable = !queue_.empty();
        }
        break;
    case State::kConnected:
        readable = true;
        writable = !queue_.empty();
        break;
    case State::kConnecting:
        writable = true;
        earlier(connectDeadline_);
        break;
    case State::kWaiting:
        earlier(retryAt_);
        break;
    case State::kClosed:
        break;
    }
    if (fd_ >= 0 &&
        (fd_ != watchedFd_ || readable != watchedReadable_ || writable != watchedWritable_)) {
        loop_->watch(this, fd_, readable, writable);
        watchedFd_ = fd_;
        watchedReadable_ = readable;
        watchedWritable_ = writable;
    }
    if (wake != wake_) {
        loop_->wakeAt(this, wake);
        wake_ = wake;
    }
}

} // namespace kelp::agent
