// The trap sinks on net-snmp's main loop.
#include "traps/trapsinks.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "log.h"
#include "snmpaddress.h"
#include "traps/trapmessage.h"

namespace kelp::agent {
namespace {

// The sinks sendTrapNow and the agent's coldStart use: set by the
// constructor of TrapSinks, cleared by its destructor, on the thread that
// runs net-snmp.
TrapSinks *g_active = nullptr;

// The prefix that makes a --trap-sink an inform sink.
constexpr const char *kInformPrefix = "inform:";

void logUnusable(const std::string &address, const char *why)
{
    logAt(LogLevel::kWarning, "trap sink %s cannot be used (%s); no trap goes there",
          address.c_str(), why);
}

} // namespace

TrapSinks::TrapSinks(const TrapSinkSettings &settings)
    : v1_(settings.v1), community_(settings.community), v3User_(settings.v3User)
{
    const SinkClock::time_point now = SinkClock::now();
    for (const std::string &text : settings.addresses) {
        std::string_view target = text;
        const bool inform = target.starts_with(kInformPrefix) || settings.informAll;
        if (target.starts_with(kInformPrefix)) {
            target.remove_prefix(std::strlen(kInformPrefix));
        }
        SnmpAddress parsed;
        if (!parseSnmpAddress(std::string(target), ":162", true, &parsed)) {
            logUnusable(text, "not a reachable address");
            continue;
        }
        if (inform && parsed.transport != SnmpTransport::kUdp) {
            logUnusable(text, "informs go over UDP only");
            continue;
        }
        if (count() == kMaxTrapSinks) {
            logUnusable(text,
                        ("more than " + std::to_string(kMaxTrapSinks) + " trap sinks").c_str());
            continue;
        }
        if (inform && !settings.v3User.empty()) {
            auto sink = std::make_unique<V3InformSink>(text, settings.inform);
            std::string error;
            if (!sink->open(std::string(target), settings.v3Keys, &error)) {
                logUnusable(text, "not a reachable address");
                logAt(LogLevel::kDebug, "trap sink %s: %s", text.c_str(), error.c_str());
                continue;
            }
            v3Informs_.push_back(std::move(sink));
            continue;
        }
        SinkAddress address;
        address.name = text;
        address.stream = parsed.transport != SnmpTransport::kUdp;
        address.inform = inform;
        address.address = parsed.address;
        address.length = parsed.length;
        auto sink = std::make_unique<TrapSink>(std::move(address), static_cast<SinkLoop *>(this),
                                               kSinkLimits, settings.inform);
        // Made now, so that asking for a timer later allocates nothing (a
        // sink out of memory asks for one).
        alarms_.emplace(sink.get(), std::make_unique<Alarm>(Alarm{sink.get(), 0}));
        std::string error;
        if (!sink->open(now, &error)) {
            logUnusable(text, "not a reachable address");
            logAt(LogLevel::kDebug, "trap sink %s: %s", text.c_str(), error.c_str());
            alarms_.erase(sink.get());
            continue;
        }
        sinks_.push_back(std::move(sink));
    }
    g_active = this;
}

TrapSinks::~TrapSinks()
{
    if (g_active == this) {
        g_active = nullptr;
    }
    // Each sink forgets its socket and its alarm through this loop.
    sinks_.clear();
    v3Informs_.clear();
    for (const auto &[sink, alarm] : alarms_) {
        if (alarm->registration != 0) {
            snmp_alarm_unregister(alarm->registration);
        }
    }
}

TrapSinks *TrapSinks::active()
{
    return g_active;
}

uint32_t TrapSinks::send(const Trap &trap, std::vector<std::string> *took)
{
    if (count() == 0) {
        return SM_SNMP_GENERR;
    }
    const SinkClock::time_point now = SinkClock::now();
    // One encoding per form, made when the first sink of that form needs it
    // (and shared by the sinks of that form: an inform's request-id only
    // has to be unique on each sink's own socket).
    std::array<SinkMessage, kTrapForms> encoded;
    std::array<bool, kTrapForms> failed{};
    bool taken = false;
    for (size_t i = 0; i < sinks_.size(); i++) {
        const TrapForm form = sinks_[i]->address().inform
                                  ? TrapForm::kV2cInform
                                  : (v1_ ? TrapForm::kV1Trap : TrapForm::kV2cTrap);
        const auto slot = static_cast<size_t>(form);
        if (!encoded[slot] && !failed[slot]) {
            std::string bytes;
            std::string why;
            if (!encodeTrap(trap, form, community_, &bytes, &why, v3User_)) {
                logAt(LogLevel::kWarning, "trap (generic %u, specific %u) not sent: %s",
                      trap.generic, trap.specific, why.c_str());
                failed[slot] = true;
                continue;
            }
            encoded[slot] = std::make_shared<const std::string>(std::move(bytes));
        }
        if (encoded[slot] && sinks_[i]->send(encoded[slot], now)) {
            taken = true;
            took->push_back(sinks_[i]->address().name);
        }
    }
    if (!v3Informs_.empty()) {
        // One PDU for every SNMPv3 inform sink: each encodes its own copy
        // for its receiver's engine.
        std::string why;
        netsnmp_pdu *pdu = informPdu(trap, &why);
        if (pdu == nullptr) {
            logAt(LogLevel::kWarning, "trap (generic %u, specific %u) not sent: %s", trap.generic,
                  trap.specific, why.c_str());
        }
        for (const std::unique_ptr<V3InformSink> &sink : v3Informs_) {
            if (pdu != nullptr && sink->send(*pdu)) {
                taken = true;
                took->push_back(sink->name());
            }
        }
        snmp_free_pdu(pdu);
    }
    return taken ? SM_SNMP_NOERROR : SM_SNMP_GENERR;
}

void TrapSinks::watch(TrapSink *sink, int fd, bool readable, bool writable)
{
    Watch &was = watched_[fd];
    if (was.readable && !readable) {
        unregister_readfd(fd);
    }
    if (was.writable && !writable) {
        unregister_writefd(fd);
    }
    if (readable && !was.readable && register_readfd(fd, onReadable, sink) != FD_REGISTERED_OK) {
        logAt(LogLevel::kError, "trap sink %s: net-snmp cannot watch its socket",
              sink->address().name.c_str());
        readable = false;
    }
    if (writable && !was.writable && register_writefd(fd, onWritable, sink) != FD_REGISTERED_OK) {
        logAt(LogLevel::kError, "trap sink %s: net-snmp cannot watch its socket",
              sink->address().name.c_str());
        writable = false;
    }
    if (readable || writable) {
        was = Watch{readable, writable};
    } else {
        watched_.erase(fd);
    }
}

void TrapSinks::wakeAt(TrapSink *sink, std::optional<SinkClock::time_point> when)
{
    std::unique_ptr<Alarm> &alarm = alarms_[sink];
    if (!alarm) {
        alarm = std::make_unique<Alarm>();
        alarm->sink = sink;
    }
    if (alarm->registration != 0) {
        snmp_alarm_unregister(alarm->registration);
        alarm->registration = 0;
    }
    if (!when) {
        return;
    }
    // Rounded up, so that the alarm never comes before the time asked for.
    const auto delay = std::chrono::ceil<std::chrono::microseconds>(
        std::max(*when - SinkClock::now(), SinkClock::duration::zero()));
    timeval after{};
    after.tv_sec = static_cast<time_t>(delay.count() / 1000000);
    after.tv_usec = static_cast<suseconds_t>(delay.count() % 1000000);
    alarm->registration = snmp_alarm_register_hr(after, 0, onAlarm, alarm.get());
    if (alarm->registration == 0) {
        logAt(LogLevel::kError, "trap sink %s: net-snmp cannot set its timer",
              sink->address().name.c_str());
    }
}

// net-snmp calls these from its loop: what they throw (std::bad_alloc) must
// not unwind into the library, and the sink goes on once memory is back.
void TrapSinks::onReadable(int, void *sink)
{
    handle(static_cast<TrapSink *>(sink), &TrapSink::onReadable);
}

void TrapSinks::onWritable(int, void *sink)
{
    handle(static_cast<TrapSink *>(sink), &TrapSink::onWritable);
}

void TrapSinks::onAlarm(unsigned int, void *alarm)
{
    // A one-time alarm: net-snmp removes it once this returns.
    auto *fired = static_cast<Alarm *>(alarm);
    fired->registration = 0;
    handle(fired->sink, &TrapSink::onTimer);
}

void TrapSinks::handle(TrapSink *sink, void (TrapSink::*event)(SinkClock::time_point))
{
    const SinkClock::time_point now = SinkClock::now();
    try {
        (sink->*event)(now);
    } catch (const std::bad_alloc &) {
        sink->outOfMemory(now);
    }
}

} // namespace kelp::agent
