// The control socket: a Unix stream socket, mode 0600, served by one thread
// of the runtime. The protocol is described at the top of server.cc.
#ifndef KELP_RUNTIME_CONTROL_SERVER_H
#define KELP_RUNTIME_CONTROL_SERVER_H

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace kelp::ctl {

// How long a client has to send its whole command line.
inline constexpr std::chrono::milliseconds kReadTimeout{5000};

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

    // Stops serving: wakes the thread, abandons a connection in progress,
    // joins, closes the socket and unlinks its file (unless someone has
    // replaced it since).
    ~ControlServer();

    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    const std::string &path() const { return path_; }

  private:
    ControlServer(std::string path, int listenFd, int wakeFd, dev_t dev, ino_t ino,
                  std::chrono::milliseconds readTimeout);

    enum class Wait;
    // What reading a command line gave: the line; a fault to answer with
    // *error; or nothing to answer (stop requested, or the peer failed).
    enum class Read { kLine, kBad, kDrop };

    void serve();
    void serveConnection(int fd);
    Read readLine(int fd, std::string *line, std::string *error);
    // Sends text within the time-out; gives up silently when the client is
    // gone or stops reading.
    void writeAll(int fd, const std::string &text);
    // Waits until fd has one of events, the deadline passes, or a stop is
    // requested, whichever comes first.
    Wait waitFor(int fd, short events, std::chrono::steady_clock::time_point deadline);

    const std::string path_;
    const int listenFd_;
    const int wakeFd_; // an eventfd; written once, by the destructor
    const dev_t dev_;  // identity of the socket file, so that only ours is unlinked
    const ino_t ino_;
    const std::chrono::milliseconds readTimeout_;
    std::thread thread_;
};

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_SERVER_H
