// Traps from the plug-in: service table entry 7 copies the module's records
// into a Trap the agent owns, then hands it to the thread that runs net-snmp
// (TrapQueue), since net-snmp is not thread-safe and the module sends from
// its own threads.
#ifndef KELP_AGENT_TRAPS_TRAP_H
#define KELP_AGENT_TRAPS_TRAP_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log.h"
#include "platform/smsnmp.h"
#include "value.h"

namespace kelp::agent {

// The enterprise of every kelp trap: the storage MIB's trap group, root.200.
// A storage trap's v2c snmpTrapOID is this, 0 and its specific number.
inline constexpr uint32_t kTrapEnterprise[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200};

struct TrapBinding {
    std::vector<uint32_t> name;
    Value value;
};

struct Trap {
    std::vector<uint32_t> enterprise;
    uint32_t generic = 0;
    uint32_t specific = 0;
    std::vector<TrapBinding> bindings;
};

// Limits of what entry 7 accepts (a v1 trap and a v2c notification both fit
// in one datagram well below them).
inline constexpr uint32_t kMaxTrapBindings = 64;
inline constexpr uint32_t kMaxTrapNameArcs = 128;
inline constexpr size_t kMaxTrapValueBytes = 65535;

// Copies the plug-in's trap into *out. False, with the reason in *why, when
// a record is unusable (null where arcs or bindings are due, a name too
// long, a value that readValue refuses, type 0 included). The records stay
// the caller's.
bool copyTrap(const SMSnmpOID *enterprise, uint32_t generic, uint32_t specific,
              uint32_t bindingCount, const SMSnmpValue *bindings, Trap *out, std::string *why);

// Hands traps from any thread to the one thread that may send them.
class TrapQueue {
  public:
    // Sends one trap on the pump's thread: 0 when sent, else non-zero.
    using Sender = std::function<uint32_t(const Trap &)>;
    // Wakes the pump's thread so that it calls pump(); called with no lock
    // held, from the submitting thread.
    using Waker = std::function<void()>;

    TrapQueue(Sender sender, Waker waker, std::chrono::milliseconds patience);
    ~TrapQueue();
    TrapQueue(const TrapQueue &) = delete;
    TrapQueue &operator=(const TrapQueue &) = delete;

    // The calling thread becomes the pump's thread: submit() from it sends
    // at once instead of waiting for itself.
    void adoptPumpThread();

    // Sends `trap` through the pump and answers the sender's status. 5 when
    // the queue is closed, or when the pump has not taken the trap within
    // the patience (the trap is then withdrawn, never sent late), or when
    // there is no memory to queue or send it (logged once a minute).
    uint32_t submit(Trap trap);

    // Pump's thread: sends every queued trap, in order.
    void pump();

    // For a stop: no submitter waits for the pump any more. The traps
    // queued and those submitted from now on stay queued for the pump's
    // last run and are answered 0 at once, so that the caller's threads
    // may be stopped without waiting on the pump, and a trap raised while
    // they stop still goes out.
    void stopWaiting();

    // Refuses further traps and answers 5 to those still queued; the
    // caller's threads may then be stopped without waiting on the pump.
    void close();

  private:
    struct Pending;

    // The sender's status, 5 when it runs out of memory.
    uint32_t send(const Trap &trap);
    void logShortOfMemory();

    Sender sender_;
    Waker waker_;
    std::chrono::milliseconds patience_;
    std::thread::id pumpThread_;
    std::mutex mutex_;
    std::condition_variable done_;                  // signalled when a trap's status is set
    std::deque<std::shared_ptr<Pending>> queue_;    // guarded by mutex_
    bool closed_ = false;                           // guarded by mutex_
    bool waitless_ = false;                         // guarded by mutex_
    LogInterval shortLog_{std::chrono::minutes(1)}; // traps lost for want of memory
};

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAP_H
