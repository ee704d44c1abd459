// The agent's own trap sinks, one per --trap-sink: each a non-blocking
// socket with a bounded queue (traps/trapsink.h), run by net-snmp's main
// loop, which watches their sockets (register_readfd, register_writefd) and
// calls them back on time (snmp_alarm). A trap is encoded once per trap and
// queued for every sink, so that no receiver, however slow or dead, can
// keep the agent from answering requests. Only the thread that runs net-snmp
// touches them.
#ifndef KELP_AGENT_TRAPS_TRAPSINKS_H
#define KELP_AGENT_TRAPS_TRAPSINKS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "traps/trap.h"
#include "traps/trapsink.h"
#include "traps/v3informsink.h"

namespace kelp::agent {

// net-snmp watches at most 32 sockets of each kind besides its own.
inline constexpr size_t kMaxTrapSinks = 16;

// What the sinks send, from the command line.
struct TrapSinkSettings {
    // net-snmp's syntax (udp:, udp6:, tcp:, tcp6:, unix:, or none for UDP;
    // port 162 unless named), each optionally after "inform:".
    std::vector<std::string> addresses;
    bool v1 = false;        // SNMPv1 traps to the trap sinks; SNMPv2c otherwise
    bool informAll = false; // every sink an inform sink
    std::string community;
    std::string v3User; // non-empty: the sinks get SNMPv3 traps and informs of this user
    // The keys of v3User, which its inform sinks localize to each
    // receiver's engine ID. The caller wipes them once the sinks are open.
    V3InformUser v3Keys;
    InformPolicy inform;
};

class TrapSinks final : private SinkLoop {
  public:
    // Opens one sink per address: an inform sink for "inform:ADDR" (or any
    // address with informAll), which sends SNMPv2c informs whatever `v1`
    // says, or SNMPv3 informs of v3User when there is one
    // (traps/v3informsink.h); a trap sink otherwise. An address that does not resolve, or
    // whose socket cannot be made, is logged ("trap sink ADDR cannot be used
    // (not a reachable address); no trap goes there") and left out; so are
    // informs over a stream transport and the addresses past kMaxTrapSinks.
    // These become the active sinks.
    explicit TrapSinks(const TrapSinkSettings &settings);
    // Closes every sink (what their sockets take at once is still written).
    ~TrapSinks() override;
    TrapSinks(const TrapSinks &) = delete;
    TrapSinks &operator=(const TrapSinks &) = delete;

    // The sinks that were opened.
    size_t count() const { return sinks_.size() + v3Informs_.size(); }

    // Encodes `trap` once per form the sinks need and queues it for every
    // sink; the names of the sinks that took it (sent, or queued behind
    // others) are appended to *took. 0 when at least one sink took it; 5
    // when there is no sink, the trap cannot be encoded (logged) or every
    // queue is full (each sink counts its drop).
    uint32_t send(const Trap &trap, std::vector<std::string> *took);

    // The sinks opened last and not yet closed, or null.
    static TrapSinks *active();

  private:
    struct Watch {
        bool readable = false;
        bool writable = false;
    };
    // A sink's alarm as net-snmp holds it (0: none).
    struct Alarm {
        TrapSink *sink = nullptr;
        unsigned int registration = 0;
    };

    void watch(TrapSink *sink, int fd, bool readable, bool writable) override;
    void wakeAt(TrapSink *sink, std::optional<SinkClock::time_point> when) override;
    static void onReadable(int fd, void *sink);
    static void onWritable(int fd, void *sink);
    static void onAlarm(unsigned int registration, void *alarm);
    // Runs one of the sink's events; one that runs out of memory is caught
    // here and the sink told (TrapSink::outOfMemory).
    static void handle(TrapSink *sink, void (TrapSink::*event)(SinkClock::time_point));

    bool v1_;
    std::string community_;
    std::string v3User_;
    std::vector<std::unique_ptr<TrapSink>> sinks_;
    std::vector<std::unique_ptr<V3InformSink>> v3Informs_;
    std::map<int, Watch> watched_;                        // by socket
    std::map<TrapSink *, std::unique_ptr<Alarm>> alarms_; // stable addresses for net-snmp
};

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPSINKS_H
