// The master's TCP and Unix socket connections (see streams.h).
#include "streams.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/library/large_fd_set.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "access.h"
#include "kelp/runtime.h"
#include "log.h"
#include "messagebounds.h"

// net-snmp's list of open sessions: exported by libnetsnmp and laid out in
// its public snmp_api.h (struct session_list), but declared in no header.
extern "C" struct session_list *Sessions;

namespace kelp::agent {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMostConnections = 256;
// Descriptors left under the limit for everything else the agent opens:
// the model, the control socket's connections, AgentX, trap sinks, logs.
constexpr unsigned long kOtherDescriptors = 192;
// Descriptors left free when accept found none: the most connections kept
// then falls to this many fewer than were open.
constexpr size_t kSpareDescriptors = 4;

// The pause of the listening socket after accept failed for want of
// descriptors or memory.
constexpr double kAcceptPauseSeconds = 1.0;
// How long the most connections kept stays lowered after accept last found
// no descriptor. The descriptors may have run out for a while only (a
// burst of model files, trap sinks or control connections); if they are
// short still, the next accept finds none and lowers it again.
constexpr double kLoweredSeconds = 60.0;

// `seconds` on the runtime's clock (KELP_TIME_SCALE runs it fast).
Clock::duration runtimeSeconds(double seconds)
{
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds) /
                                                       kelpRuntimeTimeScale());
}

using Receive = int (*)(netsnmp_transport *, void *, int, void **, int *);
using Send = int (*)(netsnmp_transport *, const void *, int, void **, int *);
using Close = int (*)(netsnmp_transport *);
using Accept = int (*)(netsnmp_transport *);

// A transport's own functions, which ours call.
struct Functions {
    Receive receive = nullptr;
    Send send = nullptr;
    Close close = nullptr;
};

struct Listener {
    netsnmp_transport *transport = nullptr;
    bool local = false;       // a Unix socket's: its peers have no address
    const char *kind = "TCP"; // or "Unix socket", for the log
    Accept accept = nullptr;
    Functions functions;
    bool paused = false;
    Clock::time_point pausedUntil{};
};

struct Connection {
    Functions functions;
    const char *kind = "TCP";
    std::string source; // the manager's address, for the log
    Clock::time_point lastActive{};
    std::string unsent; // answers the socket did not take yet, from `sent` on
    size_t sent = 0;
    bool closing = false;
    MessageBounds bounds; // of the requests read
};

struct Streams {
    size_t maxConnections = kMostConnections;
    // The most kept before accept ran out of descriptors, and when it last
    // did: maxConnections returns to it once a minute has passed since.
    size_t startConnections = kMostConnections;
    Clock::time_point outOfDescriptors{};
    std::vector<Listener> listeners;
    std::map<int, Connection> connections; // by socket
    LogRateLimit closedLog = sourceLogLimit();
    LogInterval failedAcceptLog{runtimeSeconds(60.0)};
};

// Made by boundStreams and never freed: net-snmp closes the connections at
// its shutdown, after everything of the agent's has ended, through the
// functions below.
Streams *g_streams = nullptr;

Connection *connectionOf(const netsnmp_transport *transport)
{
    if (g_streams == nullptr || transport == nullptr || transport->sock < 0) {
        return nullptr;
    }
    auto found = g_streams->connections.find(transport->sock);
    return found == g_streams->connections.end() ? nullptr : &found->second;
}

Listener *listenerOf(const netsnmp_transport *transport)
{
    if (g_streams == nullptr) {
        return nullptr;
    }
    for (Listener &listener : g_streams->listeners) {
        if (listener.transport == transport) {
            return &listener;
        }
    }
    return nullptr;
}

// The functions of a transport that is no connection of ours (a listening
// socket, or a connection net-snmp already closed): its listener's.
Functions fallbackFunctions(const netsnmp_transport *transport)
{
    if (const Listener *listener = listenerOf(transport)) {
        return listener->functions;
    }
    return g_streams->listeners.front().functions;
}

void logClosing(const Connection &connection, const char *why)
{
    try {
        if (g_streams->closedLog.allow(connection.source, Clock::now())) {
            logAt(LogLevel::kWarning,
                  "closing the %s connection from %s: %s (logged once a minute per source)",
                  connection.kind, connection.source.c_str(), why);
        }
    } catch (const std::bad_alloc &) {
        // The line is lost; the connection closes all the same.
    }
}

// Closes the connection on `fd` as net-snmp would close one whose manager
// went away: shut down, the socket reads as ended, and net-snmp's next read
// of it closes its session (through closeConnection below). Its answers
// still waiting are dropped. Logged with `why`, unless it is null.
void endConnection(int fd, Connection *connection, const char *why)
{
    if (connection->closing) {
        return;
    }
    if (why != nullptr) {
        logClosing(*connection, why);
    }
    connection->closing = true;
    std::string().swap(connection->unsent);
    connection->sent = 0;
    shutdown(fd, SHUT_RDWR);
}

// The number of connections not closing.
size_t openConnections()
{
    return static_cast<size_t>(
        std::count_if(g_streams->connections.begin(), g_streams->connections.end(),
                      [](const auto &entry) { return !entry.second.closing; }));
}

// Closes the connection idle longest (no request or answer for the
// longest time), if one is open, for `why`.
void closeIdlest(const char *why)
{
    auto oldest = g_streams->connections.end();
    for (auto it = g_streams->connections.begin(); it != g_streams->connections.end(); ++it) {
        if (!it->second.closing && (oldest == g_streams->connections.end() ||
                                    it->second.lastActive < oldest->second.lastActive)) {
            oldest = it;
        }
    }
    if (oldest != g_streams->connections.end()) {
        endConnection(oldest->first, &oldest->second, why);
    }
}

// Returns the most connections kept to where it started, when it was
// lowered and accept has found a descriptor for every connection offered
// for kLoweredSeconds.
void restoreMostConnections()
{
    if (g_streams->maxConnections >= g_streams->startConnections ||
        Clock::now() - g_streams->outOfDescriptors < runtimeSeconds(kLoweredSeconds)) {
        return;
    }
    g_streams->maxConnections = g_streams->startConnections;
    logAt(LogLevel::kNotice,
          "at most %zu connections are kept again: accept has found descriptors for a minute",
          g_streams->maxConnections);
}

// Makes room for one more connection.
void makeRoom()
{
    restoreMostConnections();
    if (openConnections() < g_streams->maxConnections) {
        return;
    }
    char why[96];
    std::snprintf(why, sizeof why,
                  "%zu connections are open, the most kept, and it was idle longest",
                  g_streams->maxConnections);
    closeIdlest(why);
}

void resumeListeners()
{
    for (Listener &listener : g_streams->listeners) {
        listener.paused = false;
    }
}

int acceptBounded(netsnmp_transport *transport)
{
    Listener *listener = listenerOf(transport);
    if (listener == nullptr) {
        errno = EBADF;
        return -1;
    }
    const int fd = listener->accept(transport);
    if (fd < 0) {
        const int error = errno;
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
            // The connection stays in the listen queue, and the socket
            // readable: without a pause the loop would try again at once,
            // without end.
            listener->paused = true;
            listener->pausedUntil = Clock::now() + runtimeSeconds(kAcceptPauseSeconds);
            const bool noDescriptor = error == EMFILE || error == ENFILE;
            const size_t open = openConnections();
            if (noDescriptor && open > 0) {
                // The descriptors ran out before the connections reached
                // their most: for a while the most is fewer, with a few
                // descriptors to spare (libwrap reads its tables with
                // one), and the connections idle longest make room, so
                // that connections held open cannot keep new managers out.
                g_streams->maxConnections =
                    open > kSpareDescriptors + 1 ? open - kSpareDescriptors : 1;
            }
            if (noDescriptor) {
                g_streams->outOfDescriptors = Clock::now();
            }
            if (g_streams->failedAcceptLog.allow(Clock::now())) {
                if (noDescriptor && open > 0) {
                    logAt(LogLevel::kWarning,
                          "cannot accept a %s connection: %s: at most %zu connections are kept "
                          "until accept has found descriptors for a minute, the ones idle "
                          "longest closed to make room (logged once a minute)",
                          listener->kind, std::strerror(error), g_streams->maxConnections);
                } else {
                    logAt(LogLevel::kWarning,
                          "cannot accept a %s connection: %s; the connections offered wait until "
                          "a connection closes or a second has passed (logged once a minute)",
                          listener->kind, std::strerror(error));
                }
            }
            while (noDescriptor && openConnections() >= g_streams->maxConnections &&
                   openConnections() > 0) {
                closeIdlest("the agent ran out of descriptors, and it was idle longest");
            }
        }
        errno = error;
        return -1;
    }
    try {
        makeRoom();
        Connection connection;
        connection.functions = listener->functions;
        connection.kind = listener->kind;
        // net-snmp's TCP accept leaves the manager's address in the
        // listening transport's data, from which the connection's transport
        // is copied.
        connection.source =
            listener->local
                ? "a local process"
                : sourceText(static_cast<const sockaddr *>(transport->data),
                             transport->data_length > 0 ? size_t(transport->data_length) : 0);
        connection.lastActive = Clock::now();
        g_streams->connections[fd] = std::move(connection);
    } catch (const std::bad_alloc &) {
        close(fd);
        errno = ENOMEM;
        return -1;
    }
    return fd;
}

int receiveFromConnection(netsnmp_transport *transport, void *buffer, int size, void **opaque,
                          int *opaqueLength)
{
    Connection *connection = connectionOf(transport);
    if (connection == nullptr) {
        return fallbackFunctions(transport).receive(transport, buffer, size, opaque, opaqueLength);
    }
    if (connection->closing) {
        return 0; // ended: net-snmp closes the session
    }
    // One request a read: net-snmp answers every whole request a read
    // brings before it turns to anyone else.
    int most = size;
    if (const size_t peek = connection->bounds.headerToPeek(); peek > 0) {
        uint8_t ahead[MessageBounds::kMaxHeader];
        const ssize_t peeked = recv(transport->sock, ahead, peek, MSG_PEEK | MSG_DONTWAIT);
        if (peeked > 0) {
            const size_t bound = connection->bounds.nextRead(ahead, size_t(peeked));
            if (bound > 0 && bound < size_t(size)) {
                most = int(bound);
            }
        }
    } else if (const size_t bound = connection->bounds.nextRead(nullptr, 0);
               bound > 0 && bound < size_t(size)) {
        most = int(bound);
    }
    const int length = connection->functions.receive(transport, buffer, most, opaque, opaqueLength);
    if (length > 0) {
        connection->lastActive = Clock::now();
        connection->bounds.took(static_cast<const uint8_t *>(buffer), size_t(length));
    }
    return length;
}

// Writes what waits for `fd` until the socket takes no more; false when
// the connection failed (it is then ending).
bool writeUnsent(int fd, Connection *connection)
{
    while (connection->sent < connection->unsent.size()) {
        const ssize_t written =
            send(fd, connection->unsent.data() + connection->sent,
                 connection->unsent.size() - connection->sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (written > 0) {
            connection->sent += size_t(written);
            continue;
        }
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        }
        // A manager that went away is no news.
        endConnection(fd, connection,
                      written < 0 && (errno == EPIPE || errno == ECONNRESET)
                          ? nullptr
                          : "an answer cannot be sent");
        return false;
    }
    std::string().swap(connection->unsent);
    connection->sent = 0;
    return true;
}

int sendToConnection(netsnmp_transport *transport, const void *buffer, int size, void **opaque,
                     int *opaqueLength)
{
    Connection *connection = connectionOf(transport);
    if (connection == nullptr) {
        return fallbackFunctions(transport).send(transport, buffer, size, opaque, opaqueLength);
    }
    if (size < 0) {
        errno = EINVAL;
        return -1;
    }
    // net-snmp counts an answer it could not send and logs it as a failure
    // of the agent: one for a connection that is ending is dropped quietly.
    if (connection->closing) {
        return size;
    }
    connection->lastActive = Clock::now();
    const int fd = transport->sock;
    const auto *bytes = static_cast<const char *>(buffer);
    size_t taken = 0;
    if (connection->unsent.empty()) {
        for (;;) {
            const ssize_t written =
                send(fd, bytes + taken, size_t(size) - taken, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (written >= 0) {
                taken += size_t(written);
                if (taken == size_t(size) || written == 0) {
                    break;
                }
                continue;
            }
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                break;
            }
            if (errno == EPIPE || errno == ECONNRESET) {
                // The manager went away: its other answers in flight would
                // each be logged as a failure to send.
                endConnection(fd, connection, nullptr);
                return size;
            }
            return -1; // as net-snmp's send would fail
        }
        if (taken == size_t(size)) {
            return size;
        }
    }
    const size_t rest = size_t(size) - taken;
    if (connection->unsent.size() - connection->sent + rest > kMaxUnsent) {
        endConnection(fd, connection, "it does not read its answers");
        return size;
    }
    try {
        if (connection->sent > 0 && connection->sent >= connection->unsent.size() / 2) {
            connection->unsent.erase(0, connection->sent);
            connection->sent = 0;
        }
        connection->unsent.append(bytes + taken, rest);
    } catch (const std::bad_alloc &) {
        // Part of the answer is in the stream already: the stream cannot go
        // on without the rest.
        endConnection(fd, connection, "out of memory for an answer");
    }
    return size;
}

int closeConnection(netsnmp_transport *transport)
{
    if (Connection *connection = connectionOf(transport)) {
        const Close close = connection->functions.close;
        g_streams->connections.erase(transport->sock);
        // A descriptor came free.
        resumeListeners();
        return close(transport);
    }
    if (Listener *listener = listenerOf(transport)) {
        listener->paused = false;
    }
    return fallbackFunctions(transport).close(transport);
}

} // namespace

size_t maxConnectionsFor(unsigned long limit)
{
    const unsigned long room =
        limit > kOtherDescriptors * 2 ? limit - kOtherDescriptors : limit / 2;
    return std::max<size_t>(1, std::min<size_t>(kMostConnections, room));
}

unsigned long descriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return 1024;
    }
    return static_cast<unsigned long>(limit.rlim_cur);
}

size_t boundStreams(SessionMark mark, size_t maxConnections)
{
    if (g_streams != nullptr) {
        return 0;
    }
    auto streams = std::make_unique<Streams>();
    streams->maxConnections = std::max<size_t>(1, maxConnections);
    streams->startConnections = streams->maxConnections;
    // net-snmp adds a session at the head of its list.
    for (session_list *slp = Sessions; slp != nullptr && slp != mark.newest; slp = slp->next) {
        netsnmp_transport *transport = slp->transport;
        constexpr int kListening = NETSNMP_TRANSPORT_FLAG_STREAM | NETSNMP_TRANSPORT_FLAG_LISTEN;
        if (transport == nullptr || transport->sock < 0 ||
            (transport->flags & kListening) != kListening || transport->f_accept == nullptr ||
            transport->f_recv == nullptr || transport->f_send == nullptr ||
            transport->f_close == nullptr) {
            continue;
        }
        Listener listener;
        listener.transport = transport;
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (getsockname(transport->sock, reinterpret_cast<sockaddr *>(&address), &length) == 0 &&
            address.ss_family == AF_UNIX) {
            listener.local = true;
            listener.kind = "Unix socket";
        }
        listener.accept = transport->f_accept;
        listener.functions = Functions{transport->f_recv, transport->f_send, transport->f_close};
        streams->listeners.push_back(listener);
    }
    if (streams->listeners.empty()) {
        return 0;
    }
    g_streams = streams.release();
    for (const Listener &listener : g_streams->listeners) {
        // net-snmp listens with a queue of 5: a burst of managers
        // connecting at once would find it full.
        listen(listener.transport->sock, SOMAXCONN);
        listener.transport->f_accept = acceptBounded;
        // The connections copy these from their listening transport.
        listener.transport->f_recv = receiveFromConnection;
        listener.transport->f_send = sendToConnection;
        listener.transport->f_close = closeConnection;
    }
    return g_streams->listeners.size();
}

void streamsSelectInfo(netsnmp_large_fd_set *readFds, netsnmp_large_fd_set *writeFds, int *fds,
                       timeval **wait, timeval *timeout)
{
    if (g_streams == nullptr) {
        return;
    }
    const Clock::time_point now = Clock::now();
    for (const Listener &listener : g_streams->listeners) {
        if (!listener.paused || listener.transport->sock < 0) {
            continue;
        }
        NETSNMP_LARGE_FD_CLR(listener.transport->sock, readFds);
        const auto left = std::max(Clock::duration::zero(), listener.pausedUntil - now);
        const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(left).count() + 1;
        const timeval until{static_cast<time_t>(micros / 1000000),
                            static_cast<suseconds_t>(micros % 1000000)};
        if (*wait == nullptr || timercmp(&until, *wait, <)) {
            *timeout = until;
            *wait = timeout;
        }
    }
    for (const auto &[fd, connection] : g_streams->connections) {
        if (!connection.closing && connection.sent < connection.unsent.size()) {
            NETSNMP_LARGE_FD_SET(fd, writeFds);
            *fds = std::max(*fds, fd + 1);
        }
    }
}

void streamsAfterSelect(netsnmp_large_fd_set *writeFds, int count)
{
    if (g_streams == nullptr) {
        return;
    }
    if (count > 0) {
        for (auto &[fd, connection] : g_streams->connections) {
            if (!connection.closing && connection.sent < connection.unsent.size() &&
                NETSNMP_LARGE_FD_ISSET(fd, writeFds)) {
                writeUnsent(fd, &connection);
            }
        }
    }
    const Clock::time_point now = Clock::now();
    for (Listener &listener : g_streams->listeners) {
        if (listener.paused && listener.pausedUntil <= now) {
            listener.paused = false;
        }
    }
}

size_t streamConnections()
{
    return g_streams == nullptr ? 0 : g_streams->connections.size();
}

} // namespace kelp::agent
