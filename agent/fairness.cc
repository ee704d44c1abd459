// A thread reading net-snmp's UDP sockets with their own receive functions
// into FairQueues, and a receive function in their place that hands
// net-snmp the next datagram in turn.
#include "fairness.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/library/large_fd_set.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "fairqueue.h"
#include "kelp/runtime.h"
#include "log.h"
#include "packetsource.h"
#include "streams.h"

// net-snmp's list of open sessions: exported by libnetsnmp and laid out in
// its public snmp_api.h (struct session_list), but declared in no header.
extern "C" struct session_list *Sessions;

namespace kelp::agent {
namespace {

constexpr auto kLogInterval = std::chrono::minutes(1);

// kLogInterval on the runtime's clock (KELP_TIME_SCALE runs it fast in tests).
std::chrono::steady_clock::duration logInterval()
{
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(kLogInterval) / kelpRuntimeTimeScale());
}

// Sources remembered by the log's rate limit; more forget the oldest.
constexpr size_t kMaxLoggedSources = 1024;
// net-snmp's receive buffer for one datagram (SNMP_MAX_RCV_MSG_SIZE).
constexpr size_t kMaxDatagram = 65536;
// The receive buffer asked for each shared socket: room for what arrives
// while the reading thread waits for a processor, which the kernel would
// drop before any source's turn counts. Without CAP_NET_ADMIN the kernel
// caps it at net.core.rmem_max.
constexpr int kReceiveBuffer = 4 << 20;

using ReceiveFunction = int (*)(netsnmp_transport *, void *, int, void **, int *);

// One datagram as the transport's receive function gave it: its bytes and
// the transport data (the sender's address, malloc'd by net-snmp, owned by
// whoever holds the datagram).
struct Datagram {
    std::vector<uint8_t> bytes;
    void *opaque = nullptr;
    int opaqueLength = 0;
};

void release(Datagram *datagram)
{
    std::free(datagram->opaque);
    datagram->opaque = nullptr;
}

struct Socket {
    Socket(netsnmp_transport *t, size_t maxWaiting)
        : transport(t), receive(t->f_recv), waiting(maxWaiting)
    {
    }
    netsnmp_transport *transport;
    ReceiveFunction receive;     // net-snmp's own; only the reading thread calls it
    FairQueue<Datagram> waiting; // guarded by Sharing::mutex
    // Guarded by Sharing::mutex: the turns net-snmp asked this socket for
    // (receiveInTurn), and, while answerWaiting reads, whether it asked
    // net-snmp to read the socket and the count before.
    uint64_t turns = 0;
    uint64_t turnsBefore = 0;
    bool offered = false;
};

struct Sharing {
    std::mutex mutex;
    // Fixed once the thread runs.
    std::vector<std::unique_ptr<Socket>> sockets;
    std::atomic<size_t> waiting{0}; // over all sockets
    std::function<void()> wake;
    int stopFd = -1; // an eventfd the thread polls beside the sockets
    // The reading thread's datagram buffer and poll set, made before it
    // starts: a thread that cannot have them at its start could read no
    // request at all.
    std::vector<uint8_t> buffer;
    std::vector<pollfd> fds;
    std::thread thread;
    LogRateLimit dropLog{logInterval(), kMaxLoggedSources}; // the reading thread's only
    // Requests dropped for want of memory as they arrive (the reading
    // thread) and in their turn (the agent's thread).
    LogInterval droppedOnArrival{logInterval()};
    LogInterval droppedInTurn{logInterval()};
    LogInterval droppedUnread{logInterval()};
};

// Set up and torn down by the agent's thread, while no request is read.
Sharing *g_sharing = nullptr;

// Without the reading thread, net-snmp reads the master's UDP sockets
// itself, through their own receive functions, which count its reads
// here. A socket that select finds readable and net-snmp does not read (it
// had no memory for its receive buffer) would be found readable again at
// once, without end: its datagram is dropped. A fixed table, so that a
// start short of memory can still watch its sockets; the agent's thread
// alone uses it.
struct WatchedSocket {
    netsnmp_transport *transport = nullptr;
    ReceiveFunction receive = nullptr; // net-snmp's own
    uint64_t reads = 0;
    uint64_t readsBefore = 0;
};
constexpr size_t kMaxWatchedSockets = 16;
std::array<WatchedSocket, kMaxWatchedSockets> g_watched;
size_t g_watchedCount = 0;

LogInterval &droppedUnreadLog()
{
    static LogInterval log(logInterval());
    return log;
}

// The sender's address (without its port: a manager may use a new port for
// each request) as raw bytes, from the transport data, which for UDP over
// IPv4 and IPv6 starts with the sender's socket address.
std::string sourceKey(const Datagram &datagram)
{
    const auto *address = static_cast<const sockaddr *>(datagram.opaque);
    const size_t length = datagram.opaqueLength > 0 ? size_t(datagram.opaqueLength) : 0;
    if (address != nullptr && length >= sizeof(sockaddr_in) && address->sa_family == AF_INET) {
        const auto &in = reinterpret_cast<const sockaddr_in *>(address)->sin_addr;
        return std::string(reinterpret_cast<const char *>(&in), sizeof in);
    }
    if (address != nullptr && length >= sizeof(sockaddr_in6) && address->sa_family == AF_INET6) {
        const auto &in6 = reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
        return std::string(reinterpret_cast<const char *>(&in6), sizeof in6);
    }
    return "";
}

std::string sourceText(const std::string &key)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (key.size() == sizeof(in_addr)) {
        inet_ntop(AF_INET, key.data(), text, sizeof text);
    } else if (key.size() == sizeof(in6_addr)) {
        inet_ntop(AF_INET6, key.data(), text, sizeof text);
    }
    return text[0] != '\0' ? text : "an unknown source";
}

// A datagram dropped for want of memory: it is lost, as one the kernel
// drops, and the manager asks again. Logged at most once a minute, without
// allocating.
void dropForWantOfMemory(Sharing *sharing)
{
    sharing->droppedOnArrival.warn(
        "out of memory: a request was dropped as it arrived (logged once a minute)");
}

// Reads the datagram `socket` holds first into its queue. One a round:
// poll, which the thread waits in anyway, tells whether another waits, and
// a request that arrives alone costs no read that finds the socket empty.
void takeOne(Sharing *sharing, Socket *socket, std::vector<uint8_t> *buffer)
{
    Datagram datagram;
    const int length = socket->receive(socket->transport, buffer->data(), int(buffer->size()),
                                       &datagram.opaque, &datagram.opaqueLength);
    if (length <= 0) {
        const int error = errno;
        // An empty socket (EAGAIN), an error, or an empty datagram, which
        // net-snmp would have dropped.
        release(&datagram);
        if (length < 0 && error == ENOMEM) {
            // net-snmp had no memory for the sender's address and left the
            // datagram in the socket, where poll would find it at once,
            // again and again: it is read off and dropped.
            recv(socket->transport->sock, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC);
            dropForWantOfMemory(sharing);
        }
        return;
    }
    std::optional<std::pair<std::string, Datagram>> dropped;
    bool othersWait = false;
    try {
        datagram.bytes.assign(buffer->begin(), buffer->begin() + length);
        const std::string key = sourceKey(datagram);
        std::lock_guard lock(sharing->mutex);
        dropped = socket->waiting.push(key, std::move(datagram));
        othersWait = socket->waiting.sources() > 1;
    } catch (const std::bad_alloc &) {
        // A push that fails leaves the datagram to its caller.
        release(&datagram);
        dropForWantOfMemory(sharing);
        return;
    }
    if (!dropped) {
        if (sharing->waiting.fetch_add(1) == 0) {
            sharing->wake();
        }
        return;
    }
    release(&dropped->second);
    try {
        if (sharing->dropLog.allow(dropped->first, LogRateLimit::Clock::now())) {
            logAt(LogLevel::kWarning,
                  "dropping requests from %s: it sends more than %s (--max-waiting %zu; logged "
                  "once a minute per source)",
                  sourceText(dropped->first).c_str(),
                  othersWait ? "its share while other sources wait" : "the agent holds waiting",
                  socket->waiting.capacity());
        }
    } catch (const std::bad_alloc &) {
        // The line is lost; the datagram was dropped all the same.
    }
}

void readSockets(Sharing *sharing)
{
    std::vector<pollfd> &fds = sharing->fds;
    for (;;) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            logAt(LogLevel::kError, "cannot wait for requests: %s", std::strerror(errno));
            return;
        }
        if (fds.back().revents != 0) {
            return;
        }
        for (size_t i = 0; i < sharing->sockets.size(); i++) {
            if (fds[i].revents != 0) {
                takeOne(sharing, sharing->sockets[i].get(), &sharing->buffer);
            }
        }
    }
}

// In place of the transport's receive function, on the agent's thread: the
// next waiting datagram in turn; -1 with EAGAIN when none waits.
int receiveInTurn(netsnmp_transport *transport, void *buffer, int size, void **opaque,
                  int *opaqueLength)
{
    Sharing *sharing = g_sharing;
    std::optional<std::pair<std::string, Datagram>> next;
    bool shortOfMemory = false;
    if (sharing != nullptr) {
        std::lock_guard lock(sharing->mutex);
        for (const auto &socket : sharing->sockets) {
            if (socket->transport == transport) {
                socket->turns++;
                try {
                    next = socket->waiting.pop();
                } catch (const std::bad_alloc &) {
                    // Dropped, as one the reading thread had no memory
                    // for: kept, it would be asked for again at once.
                    std::optional<Datagram> dropped = socket->waiting.dropFirst();
                    if (dropped) {
                        sharing->waiting.fetch_sub(1);
                        release(&*dropped);
                    }
                    shortOfMemory = true;
                }
                break;
            }
        }
    }
    if (shortOfMemory) {
        sharing->droppedInTurn.warn(
            "out of memory: a request was dropped in its turn (logged once a minute)");
        errno = ENOMEM;
        return -1;
    }
    if (!next) {
        errno = EAGAIN;
        return -1;
    }
    sharing->waiting.fetch_sub(1);
    Datagram &datagram = next->second;
    if (size < 0 || datagram.bytes.size() > size_t(size)) {
        release(&datagram);
        errno = EMSGSIZE;
        return -1;
    }
    std::memcpy(buffer, datagram.bytes.data(), datagram.bytes.size());
    *opaque = datagram.opaque;
    *opaqueLength = datagram.opaqueLength;
    return int(datagram.bytes.size());
}

bool isUdp(int fd)
{
    int type = 0;
    socklen_t typeLength = sizeof type;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLength) == 0 && type == SOCK_DGRAM &&
           getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0 &&
           (address.ss_family == AF_INET || address.ss_family == AF_INET6);
}

// In place of a watched socket's receive function: net-snmp's own, counted.
int receiveCounted(netsnmp_transport *transport, void *buffer, int size, void **opaque,
                   int *opaqueLength)
{
    for (size_t i = 0; i < g_watchedCount; i++) {
        WatchedSocket &watched = g_watched[i];
        if (watched.transport == transport) {
            watched.reads++;
            return watched.receive(transport, buffer, size, opaque, opaqueLength);
        }
    }
    errno = EBADF;
    return -1;
}

// Watches the UDP sockets of the sessions opened since `mark` (up to
// kMaxWatchedSockets), which net-snmp reads itself.
void watchReads(SessionMark mark)
{
    for (session_list *slp = Sessions; slp != nullptr && slp != mark.newest; slp = slp->next) {
        netsnmp_transport *transport = slp->transport;
        if (g_watchedCount == kMaxWatchedSockets) {
            return;
        }
        if (transport == nullptr || transport->sock < 0 || transport->f_recv == nullptr ||
            transport->f_recv == receiveCounted ||
            (transport->flags & (NETSNMP_TRANSPORT_FLAG_STREAM | NETSNMP_TRANSPORT_FLAG_LISTEN)) ||
            !isUdp(transport->sock)) {
            continue;
        }
        g_watched[g_watchedCount++] = WatchedSocket{transport, transport->f_recv, 0, 0};
        transport->f_recv = receiveCounted;
    }
}

} // namespace

SessionMark markSessions()
{
    return SessionMark{Sessions};
}

namespace {

// shareBetweenSources's work; changes nothing outside `sharing` until the
// reading thread runs, so that a failure (std::bad_alloc, or a
// std::system_error for a thread that cannot start) leaves the sockets to
// net-snmp as they were.
void startSharing(SessionMark mark, size_t maxWaiting, std::function<void()> wake)
{
    auto sharing = std::make_unique<Sharing>();
    sharing->wake = std::move(wake);
    // net-snmp adds a session at the head of its list.
    for (session_list *slp = Sessions; slp != nullptr && slp != mark.newest; slp = slp->next) {
        netsnmp_transport *transport = slp->transport;
        if (transport == nullptr || transport->sock < 0 || transport->f_recv == nullptr ||
            (transport->flags & (NETSNMP_TRANSPORT_FLAG_STREAM | NETSNMP_TRANSPORT_FLAG_LISTEN)) ||
            !isUdp(transport->sock)) {
            continue;
        }
        if (setsockopt(transport->sock, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer,
                       sizeof kReceiveBuffer) != 0) {
            setsockopt(transport->sock, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer,
                       sizeof kReceiveBuffer);
        }
        // The reading thread drains a socket until it is empty. A reply
        // that finds the socket's send buffer full is then dropped rather
        // than waited for, as the network would drop it; the manager asks
        // again.
        const int flags = fcntl(transport->sock, F_GETFL);
        if (flags < 0 || fcntl(transport->sock, F_SETFL, flags | O_NONBLOCK) != 0) {
            continue;
        }
        sharing->sockets.push_back(std::make_unique<Socket>(transport, maxWaiting));
    }
    if (sharing->sockets.empty()) {
        return;
    }
    sharing->buffer.resize(kMaxDatagram);
    sharing->fds.reserve(sharing->sockets.size() + 1);
    sharing->stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (sharing->stopFd < 0) {
        logAt(LogLevel::kWarning, "requests are answered in order of arrival: no eventfd (%s)",
              std::strerror(errno));
        return;
    }
    for (const auto &socket : sharing->sockets) {
        sharing->fds.push_back(pollfd{socket->transport->sock, POLLIN, 0});
    }
    sharing->fds.push_back(pollfd{sharing->stopFd, POLLIN, 0});
    try {
        sharing->thread = std::thread(readSockets, sharing.get());
    } catch (...) {
        close(sharing->stopFd);
        throw;
    }
    for (const auto &socket : sharing->sockets) {
        socket->transport->f_recv = receiveInTurn;
    }
    g_sharing = sharing.release();
}

} // namespace

void shareBetweenSources(SessionMark mark, size_t maxWaiting, std::function<void()> wake)
{
    if (g_sharing != nullptr) {
        return;
    }
    if (maxWaiting != 0) {
        try {
            startSharing(mark, maxWaiting, std::move(wake));
        } catch (const std::bad_alloc &) {
            logAt(LogLevel::kWarning, "requests are answered in order of arrival: out of memory");
        } catch (const std::system_error &e) {
            logAt(LogLevel::kWarning,
                  "requests are answered in order of arrival: no reading thread (%s)", e.what());
        }
    }
    if (g_sharing == nullptr) {
        watchReads(mark);
    }
}

bool requestsWaiting()
{
    return g_sharing != nullptr && g_sharing->waiting.load() > 0;
}

void answerWaiting()
{
    answerWaitingThrough(snmp_read);
}

void answerWaitingThrough(void (*read)(fd_set *))
{
    if (!requestsWaiting()) {
        return;
    }
    Sharing *sharing = g_sharing;
    fd_set ready;
    FD_ZERO(&ready);
    bool any = false;
    {
        std::lock_guard lock(sharing->mutex);
        for (const auto &socket : sharing->sockets) {
            socket->offered = !socket->waiting.empty() && socket->transport->sock < FD_SETSIZE;
            if (socket->offered) {
                FD_SET(socket->transport->sock, &ready);
                socket->turnsBefore = socket->turns;
                any = true;
            }
        }
    }
    if (!any) {
        return;
    }
    {
        PacketsInHand inHand;
        read(&ready);
    }
    // net-snmp takes no datagram from a socket when it has no memory for
    // its receive buffer (64 KiB), and returns: the request would be offered
    // again at once, without end, and the loop would spin. One it did not
    // take is dropped, as one it had no memory to take.
    bool dropped = false;
    {
        std::lock_guard lock(sharing->mutex);
        for (const auto &socket : sharing->sockets) {
            if (!socket->offered || socket->turns != socket->turnsBefore) {
                continue;
            }
            std::optional<Datagram> unread = socket->waiting.dropFirst();
            if (unread) {
                sharing->waiting.fetch_sub(1);
                release(&*unread);
                dropped = true;
            }
        }
    }
    if (dropped) {
        sharing->droppedUnread.warn("out of memory: a request net-snmp could not read in its turn "
                                    "was dropped (logged once a minute)");
    }
}

void leaveOutSharedSockets(netsnmp_large_fd_set *readFds)
{
    if (g_sharing == nullptr) {
        return;
    }
    for (const auto &socket : g_sharing->sockets) {
        NETSNMP_LARGE_FD_CLR(socket->transport->sock, readFds);
    }
}

void readThrough(netsnmp_large_fd_set *readable, void (*read)(netsnmp_large_fd_set *))
{
    for (size_t i = 0; i < g_watchedCount; i++) {
        g_watched[i].readsBefore = g_watched[i].reads;
    }
    read(readable);
    bool dropped = false;
    for (size_t i = 0; i < g_watchedCount; i++) {
        const WatchedSocket &watched = g_watched[i];
        if (watched.reads == watched.readsBefore &&
            NETSNMP_LARGE_FD_ISSET(watched.transport->sock, readable)) {
            // Read off without a buffer: a datagram is taken whole.
            if (recv(watched.transport->sock, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0) {
                dropped = true;
            }
        }
    }
    if (dropped) {
        droppedUnreadLog().warn(
            "out of memory: a request net-snmp could not read was dropped (logged once a minute)");
    }
}

int checkAndProcess(bool block)
{
    netsnmp_large_fd_set readFds, writeFds, exceptFds;
    netsnmp_large_fd_set_init(&readFds, FD_SETSIZE);
    netsnmp_large_fd_set_init(&writeFds, FD_SETSIZE);
    netsnmp_large_fd_set_init(&exceptFds, FD_SETSIZE);
    int fds = 0;
    int noAlarm = 0;
    timeval timeout{LONG_MAX, 0};
    timeval *wait = &timeout;
    snmp_select_info2(&fds, &readFds, wait, &noAlarm);
    if (!block) {
        timeout = timeval{0, 0};
    } else if (noAlarm != 0) {
        wait = nullptr; // no alarm is due: wait for a descriptor alone
    }
    netsnmp_external_event_info2(&fds, &readFds, &writeFds, &exceptFds);
    leaveOutSharedSockets(&readFds);
    streamsSelectInfo(&readFds, &writeFds, &fds, &wait, &timeout);
    int count = netsnmp_large_fd_set_select(fds, &readFds, &writeFds, &exceptFds, wait);
    streamsAfterSelect(&writeFds, count);
    if (count > 0) {
        netsnmp_dispatch_external_events2(&count, &readFds, &writeFds, &exceptFds);
        PacketsInHand inHand;
        readThrough(&readFds, snmp_read2);
    } else if (count == 0) {
        snmp_timeout();
    } else if (errno != EINTR) {
        logAt(LogLevel::kError, "cannot wait for requests: %s", std::strerror(errno));
    }
    if (count >= 0) {
        run_alarms();
        netsnmp_check_outstanding_agent_requests();
    }
    netsnmp_large_fd_set_cleanup(&readFds);
    netsnmp_large_fd_set_cleanup(&writeFds);
    netsnmp_large_fd_set_cleanup(&exceptFds);
    return count;
}

void stopSharing()
{
    for (size_t i = 0; i < g_watchedCount; i++) {
        g_watched[i].transport->f_recv = g_watched[i].receive;
    }
    g_watchedCount = 0;
    std::unique_ptr<Sharing> sharing(g_sharing);
    if (!sharing) {
        return;
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(sharing->stopFd, &one, sizeof one);
    sharing->thread.join();
    close(sharing->stopFd);
    g_sharing = nullptr;
    for (const auto &socket : sharing->sockets) {
        socket->transport->f_recv = socket->receive;
        while (auto left = socket->waiting.pop()) {
            release(&left->second);
        }
    }
}

} // namespace kelp::agent
