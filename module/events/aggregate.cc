// The aggregation thread: wakes every 55 seconds and, once per aggregation
// interval, sends one trap with the count for every event the queue library
// held back as a repeat, then empties the library's maps.
#include <cstdint>
#include <cstring>
#include <ctime>

#include "events/trap.h"
#include "events/workers.h"
#include "frame/state.h"
#include "platform/os.h"
#include "platform/queue.h"
#include "platform/vcsupt.h"

namespace {

constexpr uint32_t kWakeUpMs = 55000;
constexpr uint32_t kIntervalTextSize = 64;

int64_t wallClock()
{
    return static_cast<int64_t>(std::time(nullptr));
}

// A whole decimal number from 0 to 4294967295, blanks around it allowed.
bool readMinutes(const char *text, uint32_t *minutes)
{
    while (*text == ' ' || *text == '\t') {
        ++text;
    }
    if (*text < '0' || *text > '9') {
        return false;
    }
    uint64_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10u + static_cast<uint64_t>(*text - '0');
        if (value > UINT32_MAX) {
            return false;
        }
    }
    while (*text == ' ' || *text == '\t') {
        ++text;
    }
    if (*text != '\0') {
        return false;
    }
    *minutes = static_cast<uint32_t>(value);
    return true;
}

void readInterval()
{
    EventAggregateInteval = 0;
    char text[kIntervalTextSize] = {};
    uint32_t size = kIntervalTextSize;
    uint32_t minutes = 0;
    if (SSGetPrivateIniValue("vcsipe", "EventAggregateInteval", text, &size) == 0 &&
        readMinutes(text, &minutes)) {
        EventAggregateInteval = minutes;
    }
}

// One pass: a trap for every held event that occurred more than once, then
// the maps are emptied (events seen once are dropped: their trap went out
// when they occurred).
void aggregationPass()
{
    const uint32_t held = getNumberofEvents();
    for (uint32_t position = 0; position < held; ++position) {
        auto *text = static_cast<char *>(SMAllocMem(QUEUE_EVENT_TEXT_SIZE));
        if (text == nullptr) {
            continue;
        }
        std::memset(text, 0, QUEUE_EVENT_TEXT_SIZE);
        uint32_t eventId = 0;
        uint32_t count = 0;
        uint32_t trapNumber = 0;
        readQEventMaps(&eventId, &count, text, &trapNumber, position);
        if (count > 1) {
            KelpmibSendTrap(trapNumber, eventId, text, count);
        }
        SMFreeMem(text);
    }
    freeEventMaps();
}

} // namespace

int64_t (*g_aggregateClock)(void) = wallClock;

void AggregateEventsThread(void *)
{
    readInterval();
    if (stopRequested != 0) {
        return;
    }
    bool periodOpen = false;
    int64_t periodStart = 0;
    // The stop flag is tested after each sleep; SMThreadStop cuts the sleep
    // short.
    do {
        if (!periodOpen) {
            periodStart = g_aggregateClock();
            periodOpen = true;
        }
        const double elapsedMinutes = static_cast<double>(g_aggregateClock() - periodStart) / 60.0;
        if (elapsedMinutes >= static_cast<double>(EventAggregateInteval)) {
            aggregationPass();
            periodOpen = false;
        }
        Sleep(kWakeUpMs);
    } while (stopRequested == 0);
}
