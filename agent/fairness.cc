// A wrapper around the receive function of net-snmp's UDP transports: it
// drains the socket into a FairQueue and gives net-snmp the next datagram
// in turn.
#include "fairness.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fairqueue.h"
#include "kelp/runtime.h"
#include "log.h"

// net-snmp's list of open sessions: exported by libnetsnmp and laid out in
// its public snmp_api.h (struct session_list), but declared in no header.
extern "C" struct session_list *Sessions;

namespace kelp::agent {
namespace {

constexpr auto kLogInterval = std::chrono::minutes(1);
// Sources remembered by the log's rate limit; more forget the oldest.
constexpr size_t kMaxLoggedSources = 1024;
// net-snmp's receive buffer for one datagram (SNMP_MAX_RCV_MSG_SIZE).
constexpr size_t kMaxDatagram = 65536;
// The receive buffer asked for each shared socket.
constexpr size_t kReceiveBuffer = 4 << 20;

// One datagram as the transport's receive function gave it: its bytes and
// the transport data (the sender's address, malloc'd by net-snmp, owned by
// whoever ends up with the datagram).
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
    netsnmp_transport *transport;
    int (*receive)(netsnmp_transport *, void *, int, void **, int *);
    FairQueue<Datagram> waiting;
};

// The shared sockets, set up once before the first request; the agent's
// thread only.
std::vector<std::unique_ptr<Socket>> g_sockets;

Socket *socketOf(const netsnmp_transport *transport)
{
    for (const auto &socket : g_sockets) {
        if (socket->transport == transport) {
            return socket.get();
        }
    }
    return nullptr;
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

void logDrop(const std::string &key)
{
    static LogRateLimit limit(
        std::chrono::duration_cast<LogRateLimit::Clock::duration>(
            std::chrono::duration<double>(kLogInterval) / kelpRuntimeTimeScale()),
        kMaxLoggedSources);
    if (limit.allow(key, LogRateLimit::Clock::now())) {
        logAt(LogLevel::kWarning,
              "dropping requests from %s: it sends more than its share while other sources wait "
              "(--max-waiting %zu; logged once a minute per source)",
              sourceText(key).c_str(),
              g_sockets.empty() ? size_t(0) : g_sockets.front()->waiting.capacity());
    }
}

// Reads what the socket holds now, up to one queue's worth, into the queue.
void drain(Socket *socket)
{
    static std::vector<uint8_t> buffer(kMaxDatagram);
    for (size_t i = 0; i < socket->waiting.capacity(); i++) {
        Datagram datagram;
        const int length = socket->receive(socket->transport, buffer.data(), int(buffer.size()),
                                           &datagram.opaque, &datagram.opaqueLength);
        if (length <= 0) {
            release(&datagram);
            // An empty socket (EAGAIN) or an error net-snmp would only have
            // dropped the datagram for.
            if (length < 0) {
                return;
            }
            continue;
        }
        datagram.bytes.assign(buffer.begin(), buffer.begin() + length);
        const std::string key = sourceKey(datagram);
        if (auto dropped = socket->waiting.push(key, std::move(datagram))) {
            release(&dropped->second);
            logDrop(dropped->first);
        }
    }
}

// In place of the transport's receive function: the next waiting datagram
// in turn, after reading every one the socket holds; -1 with EAGAIN when
// none waits.
int receiveInTurn(netsnmp_transport *transport, void *buffer, int size, void **opaque,
                  int *opaqueLength)
{
    Socket *socket = socketOf(transport);
    if (socket == nullptr) {
        errno = EBADF;
        return -1;
    }
    drain(socket);
    auto next = socket->waiting.pop();
    if (!next) {
        errno = EAGAIN;
        return -1;
    }
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

} // namespace

SessionMark markSessions()
{
    return SessionMark{Sessions};
}

void shareBetweenSources(SessionMark mark, size_t maxWaiting)
{
    if (maxWaiting == 0) {
        return;
    }
    // net-snmp adds a session at the head of its list.
    for (session_list *slp = Sessions; slp != nullptr && slp != mark.newest; slp = slp->next) {
        netsnmp_transport *transport = slp->transport;
        if (transport == nullptr || transport->sock < 0 || transport->f_recv == nullptr ||
            (transport->flags & (NETSNMP_TRANSPORT_FLAG_STREAM | NETSNMP_TRANSPORT_FLAG_LISTEN)) ||
            !isUdp(transport->sock) || socketOf(transport) != nullptr) {
            continue;
        }
        // Draining must stop at an empty socket. A reply that finds the
        // socket's send buffer full is dropped rather than waited for, as
        // the network would drop it; the manager asks again.
        // Room for the datagrams that arrive while the agent answers one or
        // waits for a processor: what overflows it, the kernel drops
        // before any source's turn can be taken into account. The kernel
        // caps it at net.core.rmem_max.
        const int bytes = int(kReceiveBuffer);
        setsockopt(transport->sock, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
        const int flags = fcntl(transport->sock, F_GETFL);
        if (flags < 0 || fcntl(transport->sock, F_SETFL, flags | O_NONBLOCK) != 0) {
            continue;
        }
        g_sockets.push_back(std::make_unique<Socket>(
            Socket{transport, transport->f_recv, FairQueue<Datagram>(maxWaiting)}));
        transport->f_recv = receiveInTurn;
    }
}

bool requestsWaiting()
{
    for (const auto &socket : g_sockets) {
        if (!socket->waiting.empty()) {
            return true;
        }
    }
    return false;
}

void answerWaiting()
{
    fd_set ready;
    FD_ZERO(&ready);
    bool any = false;
    for (const auto &socket : g_sockets) {
        if (!socket->waiting.empty() && socket->transport->sock < FD_SETSIZE) {
            FD_SET(socket->transport->sock, &ready);
            any = true;
        }
    }
    if (any) {
        snmp_read(&ready);
    }
}

} // namespace kelp::agent
