// The reader side of the event interface (eventif/reader.h).
#include "eventif/reader.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include "control/commands.h"
#include "eventif/event_queue.h"
#include "eventif/event_texts.h"
#include "eventif/rescan_watch.h"
#include "support/config.h"
#include "support/log.h"

namespace kelp::ev {
namespace {

using Clock = RescanWatch::Clock;

// One reader step at a time: the watch and the queue move together.
std::mutex g_readerMutex;
RescanWatch g_rescans; // guarded by g_readerMutex

// Its destructor releases the texts still held when the runtime unloads.
// No lock here: HandedOutTexts locks its own mutex.
HandedOutTexts g_texts;

double secondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
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
    bool queued = false; // taken from the queue (else made up by the watch)
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
        switch (watch->onEvent(*id, now)) {
        case RescanWatch::Verdict::kHandOut:
            return Next{std::move(*text), true};
        case RescanWatch::Verdict::kDropLate:
            rt::logWarning("dropped a late rescan completed event (%u): its rescan was "
                           "completed by the runtime after the time-out",
                           ctl::kRescanCompletedEvent);
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

} // namespace

char *readNextEvent()
{
    std::lock_guard lock(g_readerMutex);
    RescanWatch watch = g_rescans;
    std::optional<Next> next = nextEvent(&watch, Clock::now());
    char *copy = next ? heapCopy(next->text) : nullptr;
    if (next && copy == nullptr) {
        // Out of memory: the event, and the watch as it was, stay for the next call.
        if (next->queued)
            requeueOldestEvent(std::move(next->text));
        return nullptr;
    }
    g_rescans = watch;
    // The reader has finished with the text it had: it reads one event at a
    // time and asks again only when done. Released after the new copy is
    // made, so the new text never lies where the old one did.
    g_texts.releaseAll();
    g_texts.add(copy);
    return copy;
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
}

} // namespace kelp::ev
