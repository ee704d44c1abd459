#include "snmpload.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "testkit.h"

namespace kelp::test {
namespace {

using Clock = std::chrono::steady_clock;

void appendLength(Bytes *out, size_t n)
{
    if (n < 0x80) {
        out->push_back(static_cast<uint8_t>(n));
    } else {
        out->push_back(0x82);
        out->push_back(static_cast<uint8_t>(n >> 8));
        out->push_back(static_cast<uint8_t>(n));
    }
}

} // namespace

Bytes tlv(uint8_t tag, const Bytes &content)
{
    Bytes out{tag};
    appendLength(&out, content.size());
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

Bytes objectIdentifier(const std::vector<uint64_t> &arcs)
{
    Bytes content{static_cast<uint8_t>(arcs.at(0) * 40 + arcs.at(1))};
    for (size_t i = 2; i < arcs.size(); i++) {
        Bytes base128;
        uint64_t arc = arcs[i];
        do {
            base128.insert(base128.begin(), static_cast<uint8_t>((arc & 0x7F) | 0x80));
            arc >>= 7;
        } while (arc != 0);
        base128.back() &= 0x7F;
        content.insert(content.end(), base128.begin(), base128.end());
    }
    return tlv(0x06, content);
}

namespace {

Bytes objectId(const std::string &dotted)
{
    std::vector<uint64_t> arcs;
    for (const char *p = dotted.c_str(); *p != '\0';) {
        char *end = nullptr;
        arcs.push_back(std::strtoull(p, &end, 10));
        p = *end == '.' ? end + 1 : end;
    }
    return objectIdentifier(arcs);
}

// BER INTEGER: big-endian two's complement in as few octets as hold it.
Bytes integer(int32_t value)
{
    Bytes content;
    for (int shift = 24; shift >= 0; shift -= 8) {
        content.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> shift));
    }
    while (content.size() > 1 && ((content[0] == 0 && (content[1] & 0x80) == 0) ||
                                  (content[0] == 0xFF && (content[1] & 0x80) != 0))) {
        content.erase(content.begin());
    }
    return tlv(0x02, content);
}

// Reads the tag and length at *at; the content's size, or nullopt when the
// header is not `tag` or runs past `end`.
std::optional<size_t> header(const uint8_t *&at, const uint8_t *end, uint8_t tag)
{
    if (end - at < 2 || at[0] != tag) {
        return std::nullopt;
    }
    size_t length = at[1];
    at += 2;
    if (length & 0x80) {
        const size_t octets = length & 0x7F;
        if (octets == 0 || octets > 2 || size_t(end - at) < octets) {
            return std::nullopt;
        }
        length = 0;
        for (size_t i = 0; i < octets; i++) {
            length = length << 8 | *at++;
        }
    }
    if (size_t(end - at) < length) {
        return std::nullopt;
    }
    return length;
}

// A UDP socket bound to source:0 that has 127.0.0.1:port as its peer; -1
// on failure.
int connectedSocket(const std::string &source, int port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in from{};
    from.sin_family = AF_INET;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, source.c_str(), &from.sin_addr) != 1 ||
        inet_pton(AF_INET, "127.0.0.1", &to.sin_addr) != 1 ||
        bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from) != 0 ||
        connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const size_t at = std::min(values.size() - 1, size_t(fraction * double(values.size())));
    return values[at];
}

} // namespace

Bytes v2cRequest(uint8_t pduTag, int32_t requestId, const std::string &community,
                 const std::string &name, int repetitions)
{
    const Bytes varbind = tlv(0x30, concat({objectId(name), Bytes{0x05, 0x00}}));
    const Bytes pdu =
        tlv(pduTag, concat({integer(requestId), integer(0),
                            integer(pduTag == 0xA5 ? repetitions : 0), tlv(0x30, varbind)}));
    return tlv(0x30,
               concat({integer(1), tlv(0x04, Bytes(community.begin(), community.end())), pdu}));
}

int udpSocketTo(int port)
{
    return connectedSocket("127.0.0.1", port);
}

std::optional<int32_t> responseId(const uint8_t *data, size_t size)
{
    const uint8_t *at = data;
    const uint8_t *end = data + size;
    std::optional<size_t> length;
    if (!header(at, end, 0x30) || !(length = header(at, end, 0x02))) {
        return std::nullopt;
    }
    at += *length; // version
    if (!(length = header(at, end, 0x04))) {
        return std::nullopt;
    }
    at += *length; // community
    if (!header(at, end, 0xA2) || !(length = header(at, end, 0x02)) || *length == 0 ||
        *length > 4) {
        return std::nullopt;
    }
    int32_t id = (at[0] & 0x80) ? -1 : 0;
    for (size_t i = 0; i < *length; i++) {
        id = static_cast<int32_t>(static_cast<uint32_t>(id) << 8 | at[i]);
    }
    return id;
}

Flooder::Flooder(const std::string &source, int port, const std::string &community, int perSecond)
    : fd_(connectedSocket(source, port))
{
    if (fd_ < 0) {
        return;
    }
    thread_ = std::thread([this, community, perSecond] {
        int32_t id = 1;
        const int burst = perSecond > 0 ? std::max(1, perSecond / 1000) : 0;
        auto tick = Clock::now();
        while (!stop_.load(std::memory_order_relaxed)) {
            if (burst > 0 && id % burst == 0) {
                tick += std::chrono::milliseconds(1);
                std::this_thread::sleep_until(tick);
            }
            const Bytes request = v2cRequest(0xA5, id++, community, kRoot, 64);
            // A full socket buffer or a refused port only costs this try.
            if (send(fd_, request.data(), request.size(), 0) > 0) {
                sent_.fetch_add(1, std::memory_order_relaxed);
            }
        }
    });
}

Flooder::~Flooder()
{
    stop();
    if (fd_ >= 0) {
        close(fd_);
    }
}

void Flooder::stop()
{
    stop_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
}

double PoliteRun::median() const
{
    return percentile(latencyMs, 0.5);
}

double PoliteRun::p99() const
{
    return percentile(latencyMs, 0.99);
}

double PoliteRun::max() const
{
    return latencyMs.empty() ? 0 : *std::max_element(latencyMs.begin(), latencyMs.end());
}

PoliteRun politeGets(const std::string &source, int port, const std::string &community,
                     const std::string &name, int count, std::chrono::milliseconds interval,
                     std::chrono::milliseconds timeout, int retries)
{
    PoliteRun result;
    const int fd = connectedSocket(source, port);
    if (fd < 0) {
        return result;
    }
    auto next = Clock::now();
    for (int i = 0; i < count; i++) {
        std::this_thread::sleep_until(next);
        next = std::max(next + interval, Clock::now());
        const int32_t id = 0x10000 + i;
        const Bytes request = v2cRequest(0xA0, id, community, name);
        result.requests++;
        const auto start = Clock::now();
        bool answered = false;
        for (int attempt = 0; attempt <= retries && !answered; attempt++) {
            result.retries += attempt > 0 ? 1 : 0;
            if (send(fd, request.data(), request.size(), 0) < 0) {
                continue;
            }
            const auto deadline = Clock::now() + timeout;
            while (!answered) {
                const auto left =
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
                pollfd ready{fd, POLLIN, 0};
                if (left.count() <= 0 || poll(&ready, 1, int(left.count()) + 1) <= 0) {
                    break;
                }
                uint8_t answer[65536];
                const ssize_t size = recv(fd, answer, sizeof answer, 0);
                // An answer to an earlier try of this request counts too;
                // one to an earlier request is late and ignored.
                answered = size > 0 && responseId(answer, size_t(size)) == id;
            }
        }
        if (answered) {
            result.answered++;
            result.latencyMs.push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
    }
    close(fd);
    return result;
}

} // namespace kelp::test
