// The control socket server: one thread serves every connection at once,
// multiplexed with poll, so an idle or slow client never delays another.
// Commands that change the model (ready, set, add, remove, load) run on the
// command worker's thread, one at a time in the order their lines were
// read, so a load of a large file delays no other client; the others
// (status, event, help) run on the serving thread.
//
// Protocol. One command per connection. The client sends one line of at most
// 64 KiB ending in "\n": words separated by blanks (spaces, tabs), where a
// word may be double-quoted and then holds blanks and the escapes \" \\ \n \t
// (words.h). The server answers zero or more lines of output, then a final
// line "ok" or "error: <message>", and shuts down its sending side; anything
// sent after the "\n" is read and ignored until the client closes (or for
// 5 s), so a client that goes on sending still gets its whole answer, never a
// reset or a broken pipe. A line that is too long, has a bad quote, names
// an unknown command or has wrong arguments, or that is still without its
// "\n" when the client shuts down its sending or 5 s after connecting, is
// answered "error: ..." and changes nothing. An answer the client has not
// taken 5 s after it was ready is abandoned (the command has run). At most
// 64 connections are served at once; further clients wait in the listen
// backlog until one ends. Commands (commands.cc):
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
#include <cstdint>
#include <new>
#include <system_error>
#include <vector>

#include "control/command_worker.h"
#include "control/connection.h"
#include "control/socket_util.h"
#include "support/errno_text.h"
#include "support/log.h"

namespace kelp::ctl {
namespace {

using Clock = std::chrono::steady_clock;

// A change past the ones that may wait must reach its connection to be
// refused as busy, not sit unseen in the listen backlog.
static_assert(kMaxConnections > CommandWorker::kMaxWaiting + 1,
              "the control server serves more connections than changes may wait");

// How long accepting pauses when the process is out of descriptors or
// memory: the client stays queued, and a listening socket that stays
// readable must not make the thread spin.
constexpr std::chrono::milliseconds kAcceptPause{100};

// Milliseconds from now until `at` for poll: -1 for never, else 0 to 60 s
// (a longer wait simply goes round once more).
int pollTimeout(Clock::time_point at, Clock::time_point now)
{
    if (at == Clock::time_point::max())
        return -1;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(at - now).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
}

// True when the peer of `conn` runs as this process's user or as root. The
// socket file's mode 0600 already keeps other users out; this holds when
// the file's mode or its directory's were loosened by someone else.
bool peerMayControl(int conn)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(conn, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return false;
    }
    if (peer.uid == 0 || peer.uid == geteuid()) {
        return true;
    }
    kelp::rt::logWarning("control socket: refused a client running as uid %u (pid %d)",
                         static_cast<unsigned>(peer.uid), static_cast<int>(peer.pid));
    return false;
}

// Accepts the clients waiting, as long as there is room for them. Answers
// when accepting may go on: now, or after a pause.
Clock::time_point acceptWaiting(int listenFd, std::chrono::milliseconds timeout,
                                CommandWorker *worker, std::vector<Connection> *connections)
{
    while (connections->size() < kMaxConnections) {
        UniqueFd conn(accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!conn) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                return Clock::now() + kAcceptPause;
            return Clock::time_point::min(); // none waiting, or one that gave up
        }
        if (!peerMayControl(conn.get()))
            continue; // closed unanswered
        connections->emplace_back(std::move(conn), timeout, Clock::now(), worker);
    }
    return Clock::time_point::min();
}

} // namespace

std::unique_ptr<ControlServer> ControlServer::start(const std::string &path,
                                                    std::chrono::milliseconds readTimeout,
                                                    std::string *error)
{
    sockaddr_un addr{};
    if (!socketAddress(path, &addr, error) || !removeStaleSocket(path, addr, error))
        return nullptr;
    UniqueFd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    UniqueFd done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!sock || !wake || !done) {
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
    std::unique_ptr<ControlServer> server(new ControlServer(
        path, sock.release(), wake.release(), done.release(), st.st_dev, st.st_ino, readTimeout));
    try {
        server->worker_ = std::make_unique<CommandWorker>(server->doneFd_);
        server->thread_ = std::thread([s = server.get()] { s->serve(); });
    } catch (const std::system_error &e) {
        *error = "cannot start the control socket's threads: " + std::string(e.what());
        return nullptr; // the destructor stops what started, closes and unlinks
    }
    return server;
}

ControlServer::ControlServer(std::string path, int listenFd, int wakeFd, int doneFd, dev_t dev,
                             ino_t ino, std::chrono::milliseconds readTimeout)
    : path_(std::move(path)), listenFd_(listenFd), wakeFd_(wakeFd), doneFd_(doneFd), dev_(dev),
      ino_(ino), readTimeout_(readTimeout)
{
}

ControlServer::~ControlServer()
{
    // No client reaches the socket from here on; those already connected,
    // or waiting to be accepted, are answered below.
    struct stat st {};
    if (lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_)
        unlink(path_.c_str());
    // A command running ends and its answer goes out; those waiting, and any
    // sent from now on, are answered that the host stops.
    if (worker_)
        worker_->stop();
    const uint64_t one = 1;
    // The thread never reads the eventfd, so it stays readable: every later
    // poll of the thread returns at once.
    if (write(wakeFd_, &one, sizeof one) < 0)
        kelp::rt::logError("waking the control socket's thread: %s", rt::errnoText(errno).c_str());
    if (thread_.joinable())
        thread_.join();
    // The connections are gone with the thread; the worker's descriptor
    // stayed open until it had ended.
    worker_.reset();
    close(listenFd_);
    close(wakeFd_);
    close(doneFd_);
}

void ControlServer::serve()
{
    std::vector<Connection> connections;
    std::vector<pollfd> fds;
    try {
        // Sized once, so that serving never needs memory for the lists.
        connections.reserve(kMaxConnections);
        fds.reserve(kMaxConnections + 3);
    } catch (const std::bad_alloc &) {
        kelp::rt::logError("control socket stops serving: out of memory");
        return;
    }
    Clock::time_point acceptFrom = Clock::time_point::min();
    while (true) {
        const Clock::time_point now = Clock::now();
        const bool room = connections.size() < kMaxConnections;
        const bool accepting = room && now >= acceptFrom;
        Clock::time_point wakeAt = room && !accepting ? acceptFrom : Clock::time_point::max();
        fds.clear();
        fds.push_back({wakeFd_, POLLIN, 0});
        fds.push_back({doneFd_, POLLIN, 0});
        // A negative descriptor is skipped by poll: with no room, clients wait
        // in the backlog.
        fds.push_back({accepting ? listenFd_ : -1, POLLIN, 0});
        for (const Connection &c : connections) {
            fds.push_back({c.fd(), c.events(), 0});
            wakeAt = std::min(wakeAt, c.deadline());
        }
        if (poll(fds.data(), fds.size(), pollTimeout(wakeAt, now)) < 0) {
            if (errno == EINTR)
                continue;
            kelp::rt::logError("control socket stops serving: %s", rt::errnoText(errno).c_str());
            return;
        }
        // On a stop, the answers that are done go out (as far as the sockets
        // take them at once) and the connections close with the vector.
        const bool stopping = fds[0].revents != 0;
        if (fds[1].revents != 0 || stopping) {
            // Every connection is advanced below, and those whose command is
            // done take up their answer; the count itself does not matter.
            uint64_t doneCount = 0;
            if (read(doneFd_, &doneCount, sizeof doneCount) < 0 && errno != EAGAIN)
                kelp::rt::logWarning("control socket: cannot read the worker's wake-up: %s",
                                     rt::errnoText(errno).c_str());
        }
        const Clock::time_point after = Clock::now();
        if (stopping) {
            // Clients that connected but whose line was not taken, and those
            // waiting to be accepted, are told the host stops.
            const size_t accepted = connections.size();
            acceptWaiting(listenFd_, readTimeout_, nullptr, &connections);
            fds.resize(std::max(fds.size(), connections.size() + 3), pollfd{-1, 0, 0});
            for (size_t i = accepted; i < connections.size(); ++i)
                fds[i + 3].revents = 0;
            for (Connection &c : connections) {
                try {
                    c.refuseUnread(kStoppingRefusal);
                } catch (const std::bad_alloc &) {
                    // Closed unanswered, as without the refusal.
                }
            }
        }
        size_t kept = 0;
        for (size_t i = 0; i < connections.size(); ++i) {
            bool keep = false;
            try {
                keep = connections[i].advance(fds[i + 3].revents, after);
            } catch (const std::bad_alloc &) {
                // Dropping the connection without "ok" tells the client that
                // the command may not have run; the others go on.
            }
            if (keep && kept != i)
                connections[kept] = std::move(connections[i]);
            kept += keep ? 1 : 0;
        }
        connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(kept),
                          connections.end());
        if (stopping)
            return;
        if (accepting && fds[2].revents != 0)
            acceptFrom = acceptWaiting(listenFd_, readTimeout_, worker_.get(), &connections);
    }
}

} // namespace kelp::ctl
