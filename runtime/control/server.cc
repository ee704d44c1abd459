// The control socket server: one thread accepts connections and serves them
// one at a time, so commands never run concurrently with each other.
//
// Protocol. One command per connection. The client sends one line of at most
// 64 KiB ending in "\n": words separated by blanks (spaces, tabs), where a
// word may be double-quoted and then holds blanks and the escapes \" \\ \n \t
// (words.h). The server answers zero or more lines of output, then a final
// line "ok" or "error: <message>", and closes the connection; anything sent
// after the "\n" is ignored. A line that is too long, has a bad quote, names
// an unknown command or has wrong arguments, or that is still without its
// "\n" when the client shuts down its sending or 5 s after connecting, is
// answered "error: ..." and changes nothing. Commands (commands.cc):
//   status | help | ready on|off | set ID ATTR VALUE | add --xml TEXT |
//   remove ID | load FILE | event --xml TEXT |
//   event EVENTID [--object ID] [--parm TEXT]... [--field NAME=VALUE]...
#include "control/server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "control/commands.h"
#include "control/socket_util.h"
#include "control/words.h"
#include "support/errno_text.h"

namespace kelp::ctl {
namespace {

using Clock = std::chrono::steady_clock;

std::string durationText(std::chrono::milliseconds d)
{
    if (d.count() % 1000 == 0)
        return std::to_string(d.count() / 1000) + " s";
    return std::to_string(d.count()) + " ms";
}

} // namespace

enum class ControlServer::Wait { kReady, kTimedOut, kStopping, kFailed };

std::unique_ptr<ControlServer> ControlServer::start(const std::string &path,
                                                    std::chrono::milliseconds readTimeout,
                                                    std::string *error)
{
    sockaddr_un addr{};
    if (!socketAddress(path, &addr, error) || !removeStaleSocket(path, addr, error))
        return nullptr;
    UniqueFd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!sock || !wake) {
        *error = rt::errnoMessage("cannot create a socket for", path);
        return nullptr;
    }
    if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        *error = rt::errnoMessage("cannot bind the control socket", path);
        return nullptr;
    }
    // The file is ours from here on; any failure removes it again. Nobody can
    // connect before listen(), so the mode is right before anyone can use it.
    struct stat st {};
    if (chmod(path.c_str(), 0600) != 0 || lstat(path.c_str(), &st) != 0 ||
        listen(sock.get(), 16) != 0) {
        *error = rt::errnoMessage("cannot set up the control socket", path);
        unlink(path.c_str());
        return nullptr;
    }
    std::unique_ptr<ControlServer> server(
        new ControlServer(path, sock.release(), wake.release(), st.st_dev, st.st_ino, readTimeout));
    try {
        server->thread_ = std::thread([s = server.get()] { s->serve(); });
    } catch (const std::system_error &e) {
        *error = "cannot start the control socket's thread: " + std::string(e.what());
        return nullptr; // the destructor closes and unlinks
    }
    return server;
}

ControlServer::ControlServer(std::string path, int listenFd, int wakeFd, dev_t dev, ino_t ino,
                             std::chrono::milliseconds readTimeout)
    : path_(std::move(path)), listenFd_(listenFd), wakeFd_(wakeFd), dev_(dev), ino_(ino),
      readTimeout_(readTimeout)
{
}

ControlServer::~ControlServer()
{
    const uint64_t one = 1;
    // The thread never reads the eventfd, so it stays readable: every later
    // poll of the thread returns at once.
    if (write(wakeFd_, &one, sizeof one) < 0)
        std::perror("kelp: waking the control socket's thread");
    if (thread_.joinable())
        thread_.join();
    close(listenFd_);
    close(wakeFd_);
    struct stat st {};
    if (lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_)
        unlink(path_.c_str());
}

ControlServer::Wait ControlServer::waitFor(int fd, short events, Clock::time_point deadline)
{
    while (true) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return Wait::kTimedOut;
        pollfd fds[2] = {{fd, events, 0}, {wakeFd_, POLLIN, 0}};
        int n = poll(fds, 2, static_cast<int>(std::min<int64_t>(left.count(), 60000)));
        if (n < 0 && errno != EINTR)
            return Wait::kFailed;
        if (n > 0 && fds[1].revents != 0)
            return Wait::kStopping;
        if (n > 0 && fds[0].revents != 0)
            return Wait::kReady;
    }
}

void ControlServer::serve()
{
    while (true) {
        switch (waitFor(listenFd_, POLLIN, Clock::time_point::max())) {
        case Wait::kStopping:
            return;
        case Wait::kFailed:
            std::perror("kelp: control socket stops serving");
            return;
        default:
            break;
        }
        UniqueFd conn(accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!conn) {
            // Out of descriptors or memory, the client stays queued: pause
            // rather than spin on a listening socket that stays readable.
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                if (waitFor(wakeFd_, POLLIN, Clock::now() + std::chrono::milliseconds(100)) ==
                    Wait::kStopping) {
                    return;
                }
            }
            continue;
        }
        try {
            serveConnection(conn.get());
        } catch (const std::bad_alloc &) {
            // Dropping the connection without "ok" tells the client that the
            // command may not have run; the server goes on.
        }
    }
}

void ControlServer::serveConnection(int fd)
{
    std::string line, error;
    switch (readLine(fd, &line, &error)) {
    case Read::kLine:
        writeAll(fd, answerLine(line));
        return;
    case Read::kBad: {
        Reply reply;
        reply.fail(error);
        writeAll(fd, formatReply(reply));
        return;
    }
    case Read::kDrop:
        return;
    }
}

ControlServer::Read ControlServer::readLine(int fd, std::string *line, std::string *error)
{
    const auto deadline = Clock::now() + readTimeout_;
    std::string buffer;
    char chunk[4096];
    while (true) {
        switch (waitFor(fd, POLLIN, deadline)) {
        case Wait::kTimedOut:
            *error = "no complete command line within " + durationText(readTimeout_);
            return Read::kBad;
        case Wait::kStopping:
        case Wait::kFailed:
            return Read::kDrop;
        case Wait::kReady:
            break;
        }
        // Never read past one byte over the limit: that byte is enough to
        // know the line is too long.
        size_t room = std::min(sizeof chunk, kMaxLineBytes + 1 - buffer.size());
        ssize_t n = read(fd, chunk, room);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR)
                continue;
            return Read::kDrop;
        }
        if (n == 0) {
            *error = buffer.empty()
                         ? "no command line: the client stopped sending before it sent one"
                         : "command line not ended by a newline when the client stopped sending";
            return Read::kBad;
        }
        const char *newline = static_cast<const char *>(std::memchr(chunk, '\n', size_t(n)));
        buffer.append(chunk, newline != nullptr ? size_t(newline - chunk) : size_t(n));
        if (buffer.size() > kMaxLineBytes) {
            *error = "command line longer than " + std::to_string(kMaxLineBytes) + " bytes";
            return Read::kBad;
        }
        if (newline != nullptr) {
            *line = std::move(buffer);
            return Read::kLine;
        }
    }
}

void ControlServer::writeAll(int fd, const std::string &text)
{
    const auto deadline = Clock::now() + readTimeout_;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += size_t(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (waitFor(fd, POLLOUT, deadline) != Wait::kReady)
                return;
        } else {
            return; // the client is gone; the command has run all the same
        }
    }
}

} // namespace kelp::ctl
