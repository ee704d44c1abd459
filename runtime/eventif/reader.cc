// The reader side of the event interface (eventif/reader.h).
#include "eventif/reader.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "control/commands.h"
#include "eventif/event_queue.h"
#include "eventif/event_texts.h"
#include "eventif/rescan_gate.h"
#include "eventif/rescan_watch.h"
#include "support/config.h"
#include "support/lock_watch.h"
#include "support/log.h"

namespace kelp::ev {
namespace {

using Clock = RescanWatch::Clock;

// One reader step at a time: the watch and the queue move together.
std::mutex g_readerMutex;
RescanWatch g_rescans; // guarded by g_readerMutex

// Where a model swap under the reader's rescan lock stands (rescan_gate.h).
enum class Gate {
    kIdle,    // events are handed out from the queue
    kArmed,   // the next event handed out is the gate's rescan started event
    kHolding, // nothing is handed out until the swap is made
    kClosing, // the next event handed out is the gate's rescan completed event
};
Gate g_gate = Gate::kIdle; // guarded by g_readerMutex
std::condition_variable g_gateMoved;
// When the reader last asked for an event; guarded by g_readerMutex.
std::optional<Clock::time_point> g_lastRead;
// The lock epoch started when the open (or last) rescan's 3061 was handed
// out, and when: a wait made holding a lock taken in that epoch is the
// reader's rescan wait, not the tail of a rescan before. 0: none yet.
// Guarded by g_readerMutex.
uint64_t g_rescanEpoch = 0;
Clock::time_point g_rescanHandedOut;
// The reader has locked for a rescan since it started: its 3060s wait for
// its lock. Guarded by g_readerMutex.
bool g_readerLocks = false;
// holdEvents; guarded by g_readerMutex.
bool g_held = false;

// Its destructor releases the texts still held when the runtime unloads.
// No lock here: HandedOutTexts locks its own mutex.
HandedOutTexts g_texts;

double secondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

// A bound of rescan_gate.h, scaled but never below kMachineFloorMs.
Clock::duration gateBound(uint32_t ms)
{
    return std::max<Clock::duration>(rt::scaledMs(ms), std::chrono::milliseconds(kMachineFloorMs));
}

// Whether the reader waits holding a lock it took after the open rescan's
// 3061 was handed out (learning that the reader locks for rescans).
// Requires g_readerMutex.
bool rescanLocked()
{
    if (g_rescanEpoch == 0 || !rt::lockedWaitIn(g_rescanEpoch))
        return false;
    g_readerLocks = true;
    return true;
}

// Whether a queued 3060 that would close the open rescan waits: the plug-in
// takes rescan events as signals, not counts, so after a 3060 handed out
// before its rescan thread took the 3061, that 3061 is taken together with
// the one before it and the 3060 is left set, ending the next rescan at
// once. Only for a reader that has locked for a rescan, and no longer than
// gateBound(kGateWaitMs).
// Requires g_readerMutex.
bool completedWaitsForLock(Clock::time_point now)
{
    if (rescanLocked())
        return false;
    return g_readerLocks && now - g_rescanHandedOut < gateBound(kGateWaitMs);
}

char *heapCopy(const std::string &text)
{
    auto *copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy != nullptr)
        std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

struct Next {
    std::string text;
    bool queued = false;      // taken from the queue (else made up by the watch)
    bool opensRescan = false; // a 3061 while no rescan was open
};

// The next text to hand out, with *watch changed as handing it out changes
// it; nullopt when there is none. Dropped events are gone for good.
// Requires g_readerMutex.
std::optional<Next> nextEvent(RescanWatch *watch, Clock::time_point now)
{
    const Clock::time_point openSince = watch->openSince();
    const Clock::duration timeout = rt::scaledRescanTimeout();
    if (watch->expire(now, timeout)) {
        rt::logWarning("no rescan completed event (%u) followed the rescan started event (%u) "
                       "handed out %.1f s ago (time-out %g s); handing out one of the "
                       "runtime's own, so that requests are answered again",
                       ctl::kRescanCompletedEvent, ctl::kRescanStartedEvent,
                       secondsBetween(openSince, now),
                       std::chrono::duration<double>(timeout).count());
        return Next{ctl::eventXml(ctl::kRescanCompletedEvent, {}, {}, {}), false};
    }
    while (std::optional<std::string> text = takeOldestEvent()) {
        const std::optional<uint32_t> id = eventNumber(*text);
        if (!id)
            return Next{std::move(*text), true};
        if (*id == ctl::kRescanCompletedEvent && watch->open() && completedWaitsForLock(now)) {
            requeueOldestEvent(std::move(*text));
            return std::nullopt;
        }
        switch (watch->onEvent(*id, now)) {
        case RescanWatch::Verdict::kHandOut:
            return Next{std::move(*text), true, *id == ctl::kRescanStartedEvent};
        case RescanWatch::Verdict::kDropLate:
            rt::logWarning("dropped a late rescan completed event (%u): its rescan was "
                           "completed by the runtime after the time-out",
                           ctl::kRescanCompletedEvent);
            break;
        case RescanWatch::Verdict::kDropNested:
            rt::logWarning("dropped a rescan started event (%u) while a rescan is open: the "
                           "plug-in would take it for a rescan of its own, which no rescan "
                           "completed event (%u) would end",
                           ctl::kRescanStartedEvent, ctl::kRescanCompletedEvent);
            break;
        case RescanWatch::Verdict::kDropStray:
            rt::logWarning("dropped a rescan completed event (%u) that follows no rescan "
                           "started event (%u)",
                           ctl::kRescanCompletedEvent, ctl::kRescanStartedEvent);
            break;
        }
    }
    return std::nullopt;
}

// The event the gate hands out in its state, or the queue's next one.
// Requires g_readerMutex.
std::optional<Next> gatedEvent(RescanWatch *watch, Clock::time_point now)
{
    switch (g_gate) {
    case Gate::kArmed:
        watch->onEvent(ctl::kRescanStartedEvent, now);
        return Next{ctl::eventXml(ctl::kRescanStartedEvent, {}, {}, {}), false, true};
    case Gate::kHolding:
        // Not even the watch's own 3060: it would unlock the tables before the swap.
        return std::nullopt;
    case Gate::kClosing:
        watch->onEvent(ctl::kRescanCompletedEvent, now);
        return Next{ctl::eventXml(ctl::kRescanCompletedEvent, {}, {}, {}), false};
    case Gate::kIdle:
        break;
    }
    return nextEvent(watch, now);
}

} // namespace

char *readNextEvent()
{
    std::lock_guard lock(g_readerMutex);
    if (g_held) {
        // The reader is done with its last text whatever it is handed.
        g_texts.releaseAll();
        return nullptr;
    }
    RescanWatch watch = g_rescans;
    const Clock::time_point now = Clock::now();
    g_lastRead = now;
    std::optional<Next> next = gatedEvent(&watch, now);
    char *copy = next ? heapCopy(next->text) : nullptr;
    if (next && copy == nullptr) {
        // Out of memory: the event, and the watch as it was, stay for the next call.
        if (next->queued)
            requeueOldestEvent(std::move(next->text));
        return nullptr;
    }
    g_rescans = watch;
    if (next && next->opensRescan) {
        g_rescanEpoch = rt::startLockEpoch();
        g_rescanHandedOut = now;
    }
    if (next && (g_gate == Gate::kArmed || g_gate == Gate::kClosing)) {
        g_gate = g_gate == Gate::kArmed ? Gate::kHolding : Gate::kIdle;
        g_gateMoved.notify_all();
    }
    // The reader has finished with the text it had: it reads one event at a
    // time and asks again only when done. Released after the new copy is
    // made, so the new text never lies where the old one did.
    g_texts.releaseAll();
    g_texts.add(copy);
    return copy;
}

void noteReaderStarting()
{
    std::lock_guard lock(g_readerMutex);
    g_lastRead = Clock::now();
    g_readerLocks = false;
}

void holdEvents(bool hold)
{
    std::lock_guard lock(g_readerMutex);
    g_held = hold;
}

bool releaseEventText(char *text)
{
    return g_texts.release(text);
}

size_t outstandingEventTexts()
{
    return g_texts.held();
}

bool rescanOpen()
{
    std::lock_guard lock(g_readerMutex);
    return g_rescans.open();
}

void forgetRescan()
{
    std::lock_guard lock(g_readerMutex);
    g_rescans = RescanWatch();
    g_lastRead.reset();
    g_readerLocks = false;
    if (g_gate == Gate::kClosing)
        g_gate = Gate::kIdle;
}

GateOutcome swapUnderRescan(const std::function<void()> &swap)
{
    std::unique_lock lock(g_readerMutex);
    const Clock::time_point start = Clock::now();
    if (g_held || !g_lastRead || start - *g_lastRead > gateBound(kReaderGoneMs)) {
        swap();
        return GateOutcome::kNoReader;
    }
    // A rescan open already holds the tables (or is about to): no 3061 of
    // the gate's own then, and its 3060 comes from whoever opened it, unless
    // that was the gate of the swap before, whose 3060 is still to come.
    const bool open = g_rescans.open();
    const bool closeAfter = !open || g_gate == Gate::kClosing;
    g_gate = open ? Gate::kHolding : Gate::kArmed;
    const Clock::time_point deadline = start + gateBound(kGateWaitMs);
    if (!g_gateMoved.wait_until(lock, deadline, [] { return g_gate != Gate::kArmed; })) {
        g_gate = Gate::kIdle;
        swap();
        rt::logWarning("the model was swapped without the rescan lock: the event reader did "
                       "not take the rescan started event (%u) within %g s",
                       ctl::kRescanStartedEvent,
                       std::chrono::duration<double>(deadline - start).count());
        return GateOutcome::kNotTaken;
    }
    // Holding, the reader is handed nothing, so the open rescan (the gate's
    // own, or the one open already) stays open: the reader lock may be let
    // go while this waits for its lock.
    const uint64_t epoch = g_rescanEpoch;
    lock.unlock();
    bool locked = false;
    while (!(locked = epoch != 0 && rt::lockedWaitIn(epoch)) && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    lock.lock();
    if (locked)
        g_readerLocks = true;
    swap();
    g_gate = closeAfter ? Gate::kClosing : Gate::kIdle;
    if (!locked) {
        rt::logWarning("the model was swapped without the rescan lock: the event reader took "
                       "the rescan started event (%u) but did not lock within %g s",
                       ctl::kRescanStartedEvent,
                       std::chrono::duration<double>(deadline - start).count());
        return GateOutcome::kNotLocked;
    }
    return GateOutcome::kLocked;
}

} // namespace kelp::ev
