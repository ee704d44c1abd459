// Load on a kelpagent from several sources at once, built byte by byte so
// that a flooding thread costs the sender as little as possible: a flooder
// that sends GETBULK requests for the whole tree without ever reading an
// answer, and a polite manager that sends one Get at a time and times its
// answers. Shared by the flood test and bench/agent_flood.
#ifndef KELP_TESTS_AGENT_SNMPLOAD_H
#define KELP_TESTS_AGENT_SNMPLOAD_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kelp::test {

using Bytes = std::vector<uint8_t>;

// BER: a tag, its length (short form, or 0x82 and two octets) and content.
Bytes tlv(uint8_t tag, const Bytes &content);
// The parts one after another.
Bytes concat(std::initializer_list<Bytes> parts);
// BER of an object identifier; its arcs may exceed 32 bits (as no valid
// name does), for requests that test an agent's parser.
Bytes objectIdentifier(const std::vector<uint64_t> &arcs);

// An SNMPv2c request for one dotted name ("1.3.6.1.2.1.1.1.0"): pduTag 0xA0
// Get, 0xA1 GetNext or 0xA5 GetBulk (no non-repeaters, `repetitions`
// max-repetitions; ignored by the others).
Bytes v2cRequest(uint8_t pduTag, int32_t requestId, const std::string &community,
                 const std::string &name, int repetitions = 0);

// The request-id of an SNMPv2c Response, or nullopt when `data` is not one.
std::optional<int32_t> responseId(const uint8_t *data, size_t size);

// A UDP socket from 127.0.0.1 with 127.0.0.1:port as its peer; -1 on
// failure.
int udpSocketTo(int port);

// A thread sending GETBULK requests (max-repetitions 64) for the MIB root
// from `source` (an IPv4 loopback address such as 127.0.0.2) to
// 127.0.0.1:port, reading nothing, until stop() or destruction: one after
// another as fast as it can, or `perSecond` a second in bursts every
// millisecond, which leaves the processors to others when there are few.
class Flooder {
  public:
    Flooder(const std::string &source, int port, const std::string &community, int perSecond = 0);
    // stop()
    ~Flooder();
    Flooder(const Flooder &) = delete;
    Flooder &operator=(const Flooder &) = delete;

    // False when the socket could not be bound to `source`.
    bool ok() const { return fd_ >= 0; }
    // The requests sent so far.
    uint64_t sent() const { return sent_.load(); }
    // Ends the thread; safe to call twice.
    void stop();

  private:
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> sent_{0};
    std::thread thread_;
};

struct PoliteRun {
    int requests = 0;              // Gets asked
    int answered = 0;              // answered within their tries
    int retries = 0;               // tries beyond the first, over all requests
    std::vector<double> latencyMs; // per answered request, first send to answer
    double median() const;
    double p99() const;
    double max() const;
};

// A manager at `source` asking `count` Gets of `name` of 127.0.0.1:port,
// one at a time, the next `interval` after the previous one started (or at
// once when it took longer), each sent again after `timeout` without an
// answer, `retries` times at most, as net-snmp's tools do.
PoliteRun politeGets(const std::string &source, int port, const std::string &community,
                     const std::string &name, int count, std::chrono::milliseconds interval,
                     std::chrono::milliseconds timeout, int retries);

} // namespace kelp::test

#endif // KELP_TESTS_AGENT_SNMPLOAD_H
