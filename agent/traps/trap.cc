// Copying the plug-in's traps and handing them to the sending thread.
#include "traps/trap.h"

#include <new>
#include <optional>
#include <utility>

#include "log.h"

namespace kelp::agent {
namespace {

bool copyName(const SMSnmpOID &oid, std::vector<uint32_t> *out)
{
    if (oid.count == 0 || oid.count > kMaxTrapNameArcs || oid.arcs == nullptr) {
        return false;
    }
    out->assign(oid.arcs, oid.arcs + oid.count);
    return true;
}

} // namespace

bool copyTrap(const SMSnmpOID *enterprise, uint32_t generic, uint32_t specific,
              uint32_t bindingCount, const SMSnmpValue *bindings, Trap *out, std::string *why)
{
    *out = Trap{};
    if (enterprise == nullptr || !copyName(*enterprise, &out->enterprise)) {
        *why = "no usable enterprise name";
        return false;
    }
    if (bindingCount > kMaxTrapBindings || (bindingCount > 0 && bindings == nullptr)) {
        *why = "binding count " + std::to_string(bindingCount) + " without usable bindings";
        return false;
    }
    out->generic = generic;
    out->specific = specific;
    for (uint32_t i = 0; i < bindingCount; i++) {
        TrapBinding binding;
        if (!copyName(bindings[i].name, &binding.name)) {
            *why = "binding " + std::to_string(i) + " has no usable name";
            return false;
        }
        if (readValue(bindings[i], kMaxTrapValueBytes, &binding.value) != ValueRead::kValue) {
            *why = "binding " + std::to_string(i) + " has no usable value (type " +
                   std::to_string(bindings[i].type) + ")";
            return false;
        }
        out->bindings.push_back(std::move(binding));
    }
    return true;
}

struct TrapQueue::Pending {
    Trap trap;
    bool taken = false;             // the pump is sending it
    std::optional<uint32_t> status; // set once sent or refused
};

TrapQueue::TrapQueue(Sender sender, Waker waker, std::chrono::milliseconds patience)
    : sender_(std::move(sender)), waker_(std::move(waker)), patience_(patience)
{
}

TrapQueue::~TrapQueue()
{
    close();
}

void TrapQueue::adoptPumpThread()
{
    std::lock_guard lock(mutex_);
    pumpThread_ = std::this_thread::get_id();
}

// A trap the agent has no memory to queue or send fails (status 5), as one
// the manager never receives.
uint32_t TrapQueue::send(const Trap &trap)
{
    try {
        return sender_(trap);
    } catch (const std::bad_alloc &) {
        logShortOfMemory();
        return SM_SNMP_GENERR;
    }
}

void TrapQueue::logShortOfMemory()
{
    shortLog_.warn("out of memory: a trap was not sent (logged once a minute)");
}

uint32_t TrapQueue::submit(Trap trap)
{
    std::shared_ptr<Pending> pending;
    bool onPumpThread = false;
    try {
        pending = std::make_shared<Pending>();
        pending->trap = std::move(trap);
        std::lock_guard lock(mutex_);
        if (closed_) {
            return SM_SNMP_GENERR;
        }
        // Waiting for ourselves would only time out.
        onPumpThread = pumpThread_ == std::this_thread::get_id();
        if (!onPumpThread) {
            queue_.push_back(pending);
            if (waitless_) {
                return SM_SNMP_NOERROR; // sent by the pump's last run
            }
        }
    } catch (const std::bad_alloc &) {
        logShortOfMemory();
        return SM_SNMP_GENERR;
    }
    if (onPumpThread) {
        return send(pending->trap);
    }
    waker_();
    std::unique_lock lock(mutex_);
    if (!done_.wait_for(lock, patience_, [&] {
            return pending->status.has_value() || pending->taken || waitless_;
        })) {
        std::erase(queue_, pending);
        return SM_SNMP_GENERR;
    }
    if (!pending->status && !pending->taken) {
        return SM_SNMP_NOERROR; // stopWaiting: left for the pump's last run
    }
    // Once taken, the send itself is short and always completes.
    done_.wait(lock, [&] { return pending->status.has_value(); });
    return *pending->status;
}

void TrapQueue::pump()
{
    std::unique_lock lock(mutex_);
    while (!queue_.empty()) {
        std::shared_ptr<Pending> pending = queue_.front();
        queue_.pop_front();
        pending->taken = true;
        lock.unlock();
        const uint32_t status = send(pending->trap);
        lock.lock();
        pending->status = status;
        done_.notify_all();
    }
}

void TrapQueue::stopWaiting()
{
    std::lock_guard lock(mutex_);
    waitless_ = true;
    done_.notify_all();
}

void TrapQueue::close()
{
    std::lock_guard lock(mutex_);
    closed_ = true;
    for (const std::shared_ptr<Pending> &pending : queue_) {
        pending->status = SM_SNMP_GENERR;
    }
    queue_.clear();
    done_.notify_all();
}

} // namespace kelp::agent
