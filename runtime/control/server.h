// The control socket: a Unix stream socket, mode 0600, served by one thread
// of the runtime. The protocol is described at the top of server.cc.
#ifndef KELP_RUNTIME_CONTROL_SERVER_H
#define KELP_RUNTIME_CONTROL_SERVER_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

namespace kelp::ctl {

class CommandWorker;

// How long a client has to send its whole command line, and again to take
// its answer once it is ready.
inline constexpr std::chrono::milliseconds kReadTimeout{5000};

// Most connections served at once; further clients wait in the listen
// backlog until one of them ends. More than the changes that may wait (and
// the one being made), so that the next change is refused as busy at once
// and a status still gets in.
inline constexpr size_t kMaxConnections = 96;

class ControlServer {
  public:
    // Creates the socket at path (mode 0600) and starts its thread. A socket
    // file left at path by a server that is gone is replaced; a path that
    // exists and is not a socket, or a socket someone still serves, is an
    // error. Answers null with a message in *error on failure, leaving
    // nothing behind. readTimeout bounds each connection's reading (and,
    // separately, its writing).
    static std::unique_ptr<ControlServer>
    start(const std::string &path, std::chrono::milliseconds readTimeout, std::string *error);

    // Stops serving: wakes the thread, abandons every open connection (a
    // command already running ends first; changes queued behind it are not
    // made), joins, closes the socket and unlinks its file (unless someone
    // has replaced it since).
    ~ControlServer();

    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    const std::string &path() const { return path_; }

  private:
    ControlServer(std::string path, int listenFd, int wakeFd, int doneFd, dev_t dev, ino_t ino,
                  std::chrono::milliseconds readTimeout);

    // The thread: polls the wake-up descriptors, the listening socket and
    // every connection, and advances each connection that is ready or due.
    void serve();

    const std::string path_;
    const int listenFd_;
    const int wakeFd_; // an eventfd; written once, by the destructor
    const int doneFd_; // an eventfd the worker writes when a command is done
    const dev_t dev_;  // identity of the socket file, so that only ours is unlinked
    const ino_t ino_;
    const std::chrono::milliseconds readTimeout_;
    std::unique_ptr<CommandWorker> worker_; // runs the commands that change the model
    std::thread thread_;
};

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_SERVER_H
