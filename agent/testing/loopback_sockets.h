// Sockets on 127.0.0.1 for tests that play a trap receiver: a listener, a
// bound datagram socket, a port nobody listens on. Tests only.
#ifndef KELP_AGENT_TESTING_LOOPBACK_SOCKETS_H
#define KELP_AGENT_TESTING_LOOPBACK_SOCKETS_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace kelp::test {

inline sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

// The port `fd` is bound to.
inline int portOf(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

// A socket of `type` bound to a free loopback port; -1 when there is none.
inline int boundSocket(int type)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in any = loopback(0);
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A TCP listener on `port` (0: a free one); -1 when it cannot be made.
inline int listener(int port, int backlog = 16)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const sockaddr_in at = loopback(port);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at) != 0 ||
        listen(fd, backlog) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A loopback TCP port nobody listens on (a moment ago).
inline int closedPort()
{
    const int fd = boundSocket(SOCK_STREAM);
    const int port = portOf(fd);
    close(fd);
    return port;
}

} // namespace kelp::test

#endif // KELP_AGENT_TESTING_LOOPBACK_SOCKETS_H
